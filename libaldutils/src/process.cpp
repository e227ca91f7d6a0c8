// SPDX-License-Identifier: MIT
// fork for a daemon with handlers and threads, and the environment builder.
#include <ald/process.h>

#include "dir_entries.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

extern char** environ;

namespace ald {
namespace {

#ifndef CLOSE_RANGE_CLOEXEC
#define CLOSE_RANGE_CLOEXEC (1U << 2)
#endif

void mark_cloexec(int fd) {
    int flags = ::fcntl(fd, F_GETFD);
    if (flags >= 0 && !(flags & FD_CLOEXEC)) ::fcntl(fd, F_SETFD, flags | FD_CLOEXEC);
}

// Marks each descriptor above 2 that /proc/self/fd lists. False when the
// list cannot be read to its end (no /proc).
bool cloexec_listed() {
    const int dir = ::open("/proc/self/fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir < 0) return false;
    const bool read = detail::for_each_entry(dir, [dir](const char* name) {
        int fd = 0;
        const char* c = name;
        for (; *c >= '0' && *c <= '9'; ++c) fd = fd * 10 + (*c - '0');
        if (c != name && *c == '\0' && fd > 2 && fd != dir) mark_cloexec(fd);
    });
    ::close(dir);
    return read;
}

// Marks every descriptor above 2 close-on-exec. Runs in the forked child of
// a process with threads: system calls only, nothing allocated.
void cloexec_above_stderr() {
#ifdef SYS_close_range
    if (::syscall(SYS_close_range, 3U, ~0U, CLOSE_RANGE_CLOEXEC) == 0) return;
#endif
    // Before Linux 5.11 close_range has no CLOEXEC: only the open
    // descriptors are visited, however high RLIMIT_NOFILE is.
    if (cloexec_listed()) return;
    // Without /proc every number below the soft limit is tried. That gives
    // up speed (a million calls before each start under a limit of 1048576)
    // and any descriptor above a limit lowered after it was opened, which
    // stays inheritable.
    rlimit lim{};
    long max = 1024;
    if (::getrlimit(RLIMIT_NOFILE, &lim) == 0 && lim.rlim_cur != RLIM_INFINITY) max = static_cast<long>(lim.rlim_cur);
    for (int fd = 3; fd < max; ++fd) mark_cloexec(fd);
}

}  // namespace

pid_t fork(std::initializer_list<int> default_signals) {
    const pid_t parent = ::getpid();
    sigset_t all, saved;
    sigfillset(&all);
    if (pthread_sigmask(SIG_SETMASK, &all, &saved) != 0) return -1;
    pid_t pid = ::fork();
    if (pid != 0) {
        int err = errno;
        pthread_sigmask(SIG_SETMASK, &saved, nullptr);
        errno = err;
        return pid;
    }
    // Child: every signal is still blocked, so no inherited handler can run
    // before the dispositions are reset. A handler would act for the parent
    // (write into its stop pipe, say); an ignored signal would stay ignored
    // across exec.
    struct sigaction dfl, old;
    std::memset(&dfl, 0, sizeof dfl);
    dfl.sa_handler = SIG_DFL;
    sigemptyset(&dfl.sa_mask);
    for (int sig : default_signals) ::sigaction(sig, &dfl, nullptr);
    for (int sig = 1; sig < NSIG; ++sig)
        if (::sigaction(sig, nullptr, &old) == 0 && old.sa_handler != SIG_DFL) ::sigaction(sig, &dfl, nullptr);
    // The child must not outlive the parent: a parent restarted by its
    // service manager would start a second one beside it. The signal is only
    // sent for a death after prctl, so a parent already gone is checked for.
    if (::prctl(PR_SET_PDEATHSIG, SIGTERM) != 0 || ::getppid() != parent) ::_exit(1);
    cloexec_above_stderr();
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    return 0;
}

Environ::Environ() {
    for (char** e = environ; e && *e; ++e) entries_.emplace_back(*e);
}

bool Environ::set(const std::string& name, const std::string& value, bool overwrite) {
    if (name.empty() || name.find('=') != std::string::npos) return false;
    for (auto& entry : entries_) {
        if (entry.size() > name.size() && entry[name.size()] == '=' && entry.compare(0, name.size(), name) == 0) {
            if (overwrite) entry = name + '=' + value;
            array_.clear();
            return true;
        }
    }
    entries_.push_back(name + '=' + value);
    array_.clear();
    return true;
}

char** Environ::to_environ() const {
    array_.clear();
    array_.reserve(entries_.size() + 1);
    for (const auto& entry : entries_) array_.push_back(const_cast<char*>(entry.c_str()));
    array_.push_back(nullptr);
    return array_.data();
}

}  // namespace ald
