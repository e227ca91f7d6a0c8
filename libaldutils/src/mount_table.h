// SPDX-License-Identifier: MIT
#pragma once
// Changes of the process's mount table, for an epoll set.
//
// /proc/self/mountinfo tells a change (POLLPRI) to the first poll that looks
// after it, and to no later one. An epoll set that holds it, nested in
// another, is polled more than once for one wait (and once more by every
// EPOLL_CTL_MOD of the outer set), so a change would be taken by a poll
// whose answer nobody reads. Here exactly one poller looks: a thread that
// blocks on the table and then makes an eventfd of the caller's readable,
// which stays so until it is drained, whoever polls it and however often.
#include <pthread.h>
#include <sys/types.h>

namespace ald {
namespace detail {

class MountTable {
public:
    MountTable() = default;
    ~MountTable() { close(); }
    MountTable(const MountTable&) = delete;
    MountTable& operator=(const MountTable&) = delete;

    // Opens the table and starts the thread, which adds 1 to the eventfd
    // `event` at each change made after open() began. 0, or -1 with errno
    // (ENOENT: no /proc) and nothing left open.
    int open(int event);
    // Stops the thread and closes the table; safe when not open. In a
    // forked child, where the thread does not run, it only closes.
    void close();

private:
    static void* poll_table(void* self);

    int table_ = -1;  // /proc/self/mountinfo, polled by the thread alone
    int event_ = -1;  // the caller's eventfd: the thread writes, the caller drains
    int stop_ = -1;   // eventfd: readable once close() wants the thread gone
    pthread_t thread_{};
    bool running_ = false;
    pid_t owner_ = 0;  // the process the thread runs in
};

}  // namespace detail
}  // namespace ald
