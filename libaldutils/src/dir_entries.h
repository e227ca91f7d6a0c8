// SPDX-License-Identifier: MIT
#pragma once
// The names in an open directory, read with getdents64 into a buffer on the
// caller's stack: nothing is allocated, so that a forked child of a process
// with threads may use it, and no heap page is touched that an idle daemon
// would then keep dirty.
#include <cstring>
#include <sys/syscall.h>
#include <unistd.h>

namespace ald {
namespace detail {

// Calls `each(name)` for every entry of `dir`, "." and ".." included. False
// when the directory could not be read to its end.
template <class F>
bool for_each_entry(int dir, F&& each) {
    // getdents64 records, as the kernel lays them out on every architecture:
    // inode (8 bytes), offset (8), record length (2), type (1), then the
    // name, NUL-terminated.
    alignas(8) char buf[1024];
    long n;
    while ((n = ::syscall(SYS_getdents64, dir, buf, sizeof buf)) > 0) {
        for (long at = 0; at < n;) {
            unsigned short length;
            std::memcpy(&length, buf + at + 16, sizeof length);
            each(static_cast<const char*>(buf + at + 19));
            at += length;
        }
    }
    return n == 0;
}

}  // namespace detail
}  // namespace ald
