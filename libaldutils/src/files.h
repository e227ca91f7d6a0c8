// SPDX-License-Identifier: MIT
#pragma once
// What the library's writers of files share: the one flush, the temporary
// files and their removal.
#include <ald/string_view.h>

#include <string>
#include <sys/types.h>

namespace ald {
namespace detail {

// fsync, where the file system has it: one that cannot flush at all
// (EINVAL) counts as flushed, since there is nothing to wait for and
// refusing would stop every write there. 0, or -1 with errno.
int flush(int fd);

// Makes a new file `prefix` + eight random characters in the directory
// `dir_fd` (AT_FDCWD: the current one; `at` goes in front of the name, a
// directory's path and "/" for AT_FDCWD, "" for a directory descriptor),
// never reusing a name (O_EXCL), open for writing with `mode` less the
// umask. Its descriptor and `name` (without `at`), or -1 with errno.
int open_temp(int dir_fd, const std::string& at, basic_string_view<char> prefix, mode_t mode, std::string& name);

// Removes from `dir_fd` the regular files that open_temp could have made
// with `prefix`. The number removed, or -1 with errno.
int remove_temp_files(int dir_fd, basic_string_view<char> prefix);

// The process's umask, read once (a process that changes it later is not
// followed).
mode_t process_umask();

}  // namespace detail
}  // namespace ald
