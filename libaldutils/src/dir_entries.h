// SPDX-License-Identifier: MIT
#pragma once
// The names in an open directory, read with getdents64 into a buffer on the
// caller's stack: nothing is allocated, so that a forked child of a process
// with threads may use it, and no heap page is touched that an idle daemon
// would then keep dirty.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <sys/syscall.h>
#include <unistd.h>

namespace ald {
namespace detail {

// The head of a getdents64 record, as the kernel lays it out on every
// architecture; the name follows it, NUL-terminated.
struct dirent64_head {
    std::uint64_t ino;
    std::int64_t off;
    std::uint16_t reclen;
    std::uint8_t type;
};
static_assert(offsetof(dirent64_head, reclen) == 16 && offsetof(dirent64_head, type) == 18,
              "getdents64 records: inode, offset, length, type");
constexpr std::size_t kDirent64Name = 19;

// Calls `each(name)` for every entry of `dir`, "." and ".." included. False
// when the directory could not be read to its end.
template <class F>
bool for_each_entry(int dir, F&& each) {
    alignas(8) char buf[1024];
    long n;
    while ((n = ::syscall(SYS_getdents64, dir, buf, sizeof buf)) > 0) {
        for (long at = 0; at < n;) {
            dirent64_head head;
            std::memcpy(&head, buf + at, offsetof(dirent64_head, type) + 1);
            each(static_cast<const char*>(buf + at + kDirent64Name));
            at += head.reclen;
        }
    }
    return n == 0;
}

}  // namespace detail
}  // namespace ald
