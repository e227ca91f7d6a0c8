// SPDX-License-Identifier: MIT
// The mount table's one poller.
#include "mount_table.h"

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace ald {
namespace detail {
namespace {

// The thread polls and writes 8 bytes, nothing more: a small stack keeps
// what it costs the daemon to the pages it touches. Sanitizer builds ask
// for more of it than a plain build.
constexpr std::size_t kStackSize = 128 * 1024;

void signal(int fd) {
    const std::uint64_t one = 1;
    while (::write(fd, &one, sizeof one) < 0 && errno == EINTR) {
    }
}

void close_fd(int& fd) {
    if (fd >= 0) ::close(fd);
    fd = -1;
}

}  // namespace

// Blocks until the table changes or close() asks it to leave. A failed
// poll (ENOMEM) pauses a second and reports a change, since one may have
// been missed; no error ends the thread.
void* MountTable::poll_table(void* self) {
    auto* t = static_cast<MountTable*>(self);
    for (;;) {
        // The table is always readable: only POLLPRI (with POLLERR) tells.
        pollfd fds[2] = {{t->stop_, POLLIN, 0}, {t->table_, POLLPRI, 0}};
        const int ready = ::poll(fds, 2, -1);
        if (ready < 0 && errno == EINTR) continue;
        if (ready < 0) {
            const timespec second{1, 0};
            ::nanosleep(&second, nullptr);
            std::uint64_t stop;
            if (::read(t->stop_, &stop, sizeof stop) == sizeof stop) return nullptr;
            signal(t->event_);
            continue;
        }
        if (fds[0].revents != 0) return nullptr;
        if (fds[1].revents & (POLLPRI | POLLERR)) signal(t->event_);
    }
}

int MountTable::open(int event) {
    table_ = ::open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC);
    if (table_ < 0) return -1;
    event_ = event;
    owner_ = ::getpid();
    stop_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    int err = errno;
    if (stop_ >= 0) {
        pthread_attr_t attr;
        pthread_attr_init(&attr);
        pthread_attr_setstacksize(&attr, kStackSize);
        // Every signal blocked: a daemon that takes SIGCHLD through a
        // signalfd needs it blocked in every thread.
        sigset_t all, saved;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &saved);
        err = pthread_create(&thread_, &attr, poll_table, this);
        pthread_sigmask(SIG_SETMASK, &saved, nullptr);
        pthread_attr_destroy(&attr);
        running_ = err == 0;
        // Its name tells it apart in ps -T and top -H.
        if (running_) pthread_setname_np(thread_, "ald-mounts");
    }
    if (running_) return 0;
    close();
    errno = err;
    return -1;
}

void MountTable::close() {
    // A forked child shares the stop descriptor with its parent, whose
    // thread it would stop, and has no thread to join.
    if (running_ && ::getpid() == owner_) {
        signal(stop_);
        pthread_join(thread_, nullptr);
    }
    running_ = false;
    close_fd(table_);
    close_fd(stop_);
    event_ = -1;
}

}  // namespace detail
}  // namespace ald
