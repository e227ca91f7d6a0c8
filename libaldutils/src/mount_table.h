// SPDX-License-Identifier: MIT
#pragma once
// Changes of the process's mount table, for an epoll set.
//
// /proc/self/mountinfo tells a change (POLLPRI) to the first poll that looks
// after it, and to no later one. An epoll set that holds it, nested in
// another, is polled more than once for one wait (and once more by every
// EPOLL_CTL_MOD of the outer set), so a change would be taken by a poll
// whose answer nobody reads. Here exactly one poller looks: a thread that
// blocks on the table and then makes an eventfd readable, which stays so
// until it is drained, whoever polls it and however often.
#include <pthread.h>

namespace ald {
namespace detail {

class MountTable {
public:
    MountTable() = default;
    ~MountTable() { close(); }
    MountTable(const MountTable&) = delete;
    MountTable& operator=(const MountTable&) = delete;

    // Opens the table and starts the thread. A change made after open()
    // began is reported. 0, or -1 with errno (ENOENT: no /proc) and nothing
    // left open.
    int open();
    // Readable after a change until drain(); -1 when not open.
    int fd() const { return event_; }
    // Whether a change was reported since the last drain.
    bool drain();
    // Stops the thread and closes the descriptors; safe when not open.
    void close();

private:
    static void* poll_table(void* self);

    int table_ = -1;  // /proc/self/mountinfo, polled by the thread alone
    int event_ = -1;  // eventfd: the thread writes, the watch drains
    int stop_ = -1;   // eventfd: readable once close() wants the thread gone
    pthread_t thread_{};
    bool running_ = false;
};

}  // namespace detail
}  // namespace ald
