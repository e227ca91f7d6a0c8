#pragma once
// Shared between the double's own sources; tests use double.h.
#include <string>
#include <sys/types.h>

struct epoll_event;

namespace dbl {
namespace detail {
void reset_platform();
void record_log(int level, std::string text);
void enter_child();
void leave_child();

// While one is alive on a thread, heap allocations there are the double's
// own and are not counted against a child.
struct quiet {
    quiet() noexcept;
    ~quiet();
    quiet(const quiet&) = delete;
    quiet& operator=(const quiet&) = delete;
};
}  // namespace detail
}  // namespace dbl

// The real libc calls behind the wrapped names, for the double's own use.
extern "C" {
int __real_pipe2(int fds[2], int flags);
int __real_close(int fd);
}
