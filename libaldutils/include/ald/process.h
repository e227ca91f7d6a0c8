// SPDX-License-Identifier: MIT
#pragma once
// Child processes and their environment.
#include <initializer_list>
#include <string>
#include <sys/types.h>
#include <vector>

namespace ald {

// fork(2) made safe for a daemon with handlers and threads. The parent blocks
// every signal around the fork and restores its own mask, so none of its
// handlers runs in the child. In the child, before 0 is returned, the listed
// signals and every signal with a handler or ignored get their default
// action, SIGTERM is set as the parent-death signal (a child whose parent is
// already gone exits with status 1), the signal mask is emptied, and every
// descriptor above 2 is marked close-on-exec (only the open ones are visited,
// whatever RLIMIT_NOFILE is, unless /proc is missing on a kernel older than
// 5.11); only async-signal-safe calls are made there. Returns the child's
// pid in the parent, 0 in the child, -1 (errno set) on failure.
pid_t fork(std::initializer_list<int> default_signals);

// An environment for exec, starting from a copy of the calling process's.
class Environ {
public:
    Environ();

    // Sets `name` to `value`. An existing variable of that name is replaced
    // when `overwrite` is true and kept otherwise. A name that is empty or
    // holds "=" is refused: false, nothing changed.
    bool set(const std::string& name, const std::string& value, bool overwrite);

    // A null-terminated "NAME=value" array owned by the builder, valid until
    // the builder changes or is destroyed.
    char** to_environ() const;

private:
    std::vector<std::string> entries_;
    mutable std::vector<char*> array_;
};

}  // namespace ald
