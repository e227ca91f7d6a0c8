// The wrapped libc calls (-Wl,--wrap=NAME routes the daemon's and the
// double's calls of NAME here; __real_NAME is the C library's).
#include "double.h"
#include "internal.h"
#include "real.h"

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sstream>
#include <jansson.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>


namespace {

constexpr int kChildOutputFd = 1000;  // what open() gives a child in the test process

std::string sigset_text(const sigset_t* set) {
    if (!set) return "null";
    std::string out = "{";
    for (int sig = 1; sig < 65; ++sig) {
        if (sigismember(set, sig) == 1) {
            if (out.size() > 1) out += ',';
            out += std::to_string(sig);
        }
    }
    return out + "}";
}

std::string hex(long v) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "0x%lx", v);
    return buf;
}

const char* op_name(int op) {
    switch (op) {
    case EPOLL_CTL_ADD: return "ADD";
    case EPOLL_CTL_MOD: return "MOD";
    case EPOLL_CTL_DEL: return "DEL";
    }
    return "?";
}

std::string printable(const void* buf, size_t count) {
    std::string out;
    const unsigned char* p = static_cast<const unsigned char*>(buf);
    for (size_t i = 0; i < count && i < 64; ++i) {
        if (p[i] >= 0x20 && p[i] < 0x7f) {
            out += static_cast<char>(p[i]);
        } else {
            char b[8];
            std::snprintf(b, sizeof b, "\\x%02x", p[i]);
            out += b;
        }
    }
    if (count > 64) out += "...";
    return out;
}

std::string join(char* const* list) {
    std::string out;
    for (; list && *list; ++list) {
        if (!out.empty()) out += ' ';
        out += *list;
    }
    return out;
}

// Applies a scripted failure or result: errno for a failure, the value.
template <class R>
R result_of(const dbl::outcome& o) {
    if (o.err) errno = o.err;
    return static_cast<R>(o.result);
}

int open_common(const char* path, int flags, mode_t mode, bool large) {
    dbl::detail::quiet quiet_;
    std::ostringstream e;
    e << "open " << path << ' ' << hex(flags) << " 0" << std::oct << mode;
    dbl::record(e.str());
    dbl::outcome o;
    if (dbl::take("open", o)) return result_of<int>(o);
    if (dbl::in_child()) return kChildOutputFd;
    return large ? __real_open64(path, flags, mode) : __real_open(path, flags, mode);
}

}  // namespace

extern "C" {

int __wrap_epoll_create(int size) {
    dbl::detail::quiet quiet_;
    dbl::record("epoll_create " + std::to_string(size));
    dbl::outcome o;
    if (dbl::take("epoll_create", o)) return result_of<int>(o);
    return __real_epoll_create(size);
}

int __wrap_epoll_ctl(int epfd, int op, int fd, epoll_event* event) {
    dbl::detail::quiet quiet_;
    std::string e = std::string("epoll_ctl ") + op_name(op) + ' ' + std::to_string(fd);
    if (event) e += ' ' + hex(event->events) + ' ' + std::to_string(event->data.fd);
    (void)epfd;
    dbl::record(e);
    dbl::outcome o;
    if (dbl::take("epoll_ctl", o)) return result_of<int>(o);
    return __real_epoll_ctl(epfd, op, fd, event);
}

int __wrap_epoll_wait(int epfd, epoll_event* events, int maxevents, int timeout) {
    dbl::detail::quiet quiet_;
    dbl::record("epoll_wait " + std::to_string(maxevents) + ' ' + std::to_string(timeout));
    dbl::outcome o;
    if (dbl::take("epoll_wait", o)) {
        if (o.result < 0) return result_of<int>(o);
        int n = 0;
        for (int fd : o.fds) {
            if (n == maxevents) break;
            events[n].events = EPOLLIN;
            events[n].data.u64 = 0;
            events[n].data.fd = fd;
            ++n;
        }
        return n;
    }
    return __real_epoll_wait(epfd, events, maxevents, timeout);
}

int __wrap_signalfd(int fd, const sigset_t* mask, int flags) {
    dbl::detail::quiet quiet_;
    dbl::record("signalfd " + std::to_string(fd) + ' ' + sigset_text(mask) + ' ' + hex(flags));
    dbl::outcome o;
    if (dbl::take("signalfd", o)) return result_of<int>(o);
    return __real_signalfd(fd, mask, flags);
}

int __wrap_sigprocmask(int how, const sigset_t* set, sigset_t* old) {
    dbl::detail::quiet quiet_;
    const char* name = how == SIG_BLOCK ? "BLOCK" : how == SIG_UNBLOCK ? "UNBLOCK" : "SETMASK";
    dbl::record(std::string("sigprocmask ") + name + ' ' + sigset_text(set));
    dbl::outcome o;
    if (dbl::take("sigprocmask", o)) return result_of<int>(o);
    return __real_sigprocmask(how, set, old);
}

int __wrap_sigemptyset(sigset_t* set) {
    dbl::detail::quiet quiet_;
    dbl::record("sigemptyset");
    dbl::outcome o;
    if (dbl::take("sigemptyset", o)) return result_of<int>(o);
    return __real_sigemptyset(set);
}

int __wrap_sigaddset(sigset_t* set, int sig) {
    dbl::detail::quiet quiet_;
    dbl::record("sigaddset " + std::to_string(sig));
    dbl::outcome o;
    if (dbl::take("sigaddset", o)) return result_of<int>(o);
    return __real_sigaddset(set, sig);
}

// jansson's, not libc's: the one allocation the daemon tests for failure.
json_t* __wrap_json_array(void) {
    dbl::detail::quiet quiet_;
    dbl::record("json_array");
    dbl::outcome o;
    if (dbl::take("json_array", o)) return nullptr;
    return __real_json_array();
}

int __wrap_pipe2(int fds[2], int flags) {
    dbl::detail::quiet quiet_;
    dbl::record("pipe2 " + hex(flags));
    dbl::outcome o;
    if (dbl::take("pipe2", o)) return result_of<int>(o);
    return __real_pipe2(fds, flags);
}

ssize_t __wrap_read(int fd, void* buf, size_t count) {
    dbl::detail::quiet quiet_;
    dbl::record("read " + std::to_string(fd) + ' ' + std::to_string(count));
    dbl::outcome o;
    if (dbl::take("read", o)) {
        if (o.result < 0) return result_of<ssize_t>(o);
        size_t n = o.data.size() < count ? o.data.size() : count;
        std::memcpy(buf, o.data.data(), n);
        return static_cast<ssize_t>(o.result);
    }
    return __real_read(fd, buf, count);
}

ssize_t __wrap_write(int fd, const void* buf, size_t count) {
    dbl::detail::quiet quiet_;
    dbl::record("write " + std::to_string(fd) + ' ' + printable(buf, count));
    dbl::outcome o;
    if (dbl::take("write", o)) return result_of<ssize_t>(o);
    return __real_write(fd, buf, count);
}

int __wrap_poll(pollfd* fds, nfds_t nfds, int timeout) {
    dbl::detail::quiet quiet_;
    std::string e = "poll";
    for (nfds_t i = 0; i < nfds; ++i) e += ' ' + std::to_string(fds[i].fd) + ':' + hex(fds[i].events);
    dbl::record(e + ' ' + std::to_string(timeout));
    dbl::outcome o;
    if (dbl::take("poll", o)) return result_of<int>(o);
    return __real_poll(fds, nfds, timeout);
}

int __wrap_kill(pid_t pid, int sig) {
    dbl::detail::quiet quiet_;
    dbl::record("kill " + std::to_string(pid) + ' ' + std::to_string(sig));
    dbl::outcome o;
    if (dbl::take("kill", o)) return result_of<int>(o);
    return __real_kill(pid, sig);
}

pid_t __wrap_waitpid(pid_t pid, int* status, int options) {
    dbl::detail::quiet quiet_;
    dbl::record("waitpid " + std::to_string(pid) + ' ' + std::to_string(options));
    dbl::outcome o;
    if (dbl::take("waitpid", o)) {
        if (o.result > 0 && status) *status = o.status;
        return result_of<pid_t>(o);
    }
    return __real_waitpid(pid, status, options);
}

unsigned __wrap_sleep(unsigned seconds) {
    dbl::detail::quiet quiet_;
    dbl::record("sleep " + std::to_string(seconds));
    dbl::outcome o;
    if (dbl::take("sleep", o)) return result_of<unsigned>(o);
    if (dbl::in_child()) return 0;
    return __real_sleep(seconds);
}

int __wrap_rename(const char* from, const char* to) {
    dbl::detail::quiet quiet_;
    dbl::record(std::string("rename ") + (from ? from : "(null)") + ' ' + (to ? to : "(null)"));
    dbl::outcome o;
    if (dbl::take("rename", o)) return result_of<int>(o);
    return __real_rename(from, to);
}

int __wrap_close(int fd) {
    dbl::detail::quiet quiet_;
    dbl::record("close " + std::to_string(fd));
    dbl::outcome o;
    if (dbl::take("close", o)) return result_of<int>(o);
    if (dbl::in_child() && fd == kChildOutputFd) return 0;
    return __real_close(fd);
}

int __wrap_open(const char* path, int flags, ...) {
    dbl::detail::quiet quiet_;
    mode_t mode = 0;
    if (flags & (O_CREAT | O_TMPFILE)) {
        va_list ap;
        va_start(ap, flags);
        mode = static_cast<mode_t>(va_arg(ap, int));
        va_end(ap);
    }
    return open_common(path, flags, mode, false);
}

int __wrap_open64(const char* path, int flags, ...) {
    dbl::detail::quiet quiet_;
    mode_t mode = 0;
    if (flags & (O_CREAT | O_TMPFILE)) {
        va_list ap;
        va_start(ap, flags);
        mode = static_cast<mode_t>(va_arg(ap, int));
        va_end(ap);
    }
    return open_common(path, flags, mode, true);
}

int __wrap_dup2(int oldfd, int newfd) {
    dbl::detail::quiet quiet_;
    dbl::record("dup2 " + std::to_string(oldfd) + ' ' + std::to_string(newfd));
    dbl::outcome o;
    if (dbl::take("dup2", o)) return result_of<int>(o);
    if (dbl::in_child()) return newfd;
    return __real_dup2(oldfd, newfd);
}

int __wrap_setpgid(pid_t pid, pid_t pgid) {
    dbl::detail::quiet quiet_;
    dbl::record("setpgid " + std::to_string(pid) + ' ' + std::to_string(pgid));
    dbl::outcome o;
    if (dbl::take("setpgid", o)) return result_of<int>(o);
    if (dbl::in_child()) return 0;
    return __real_setpgid(pid, pgid);
}

int __wrap_execvpe(const char* file, char* const argv[], char* const envp[]) {
    dbl::detail::quiet quiet_;
    dbl::record(std::string("execvpe ") + file + " | " + join(argv) + " | " + join(envp));
    dbl::outcome o;
    if (dbl::take("execvpe", o)) return result_of<int>(o);
    if (dbl::in_child()) {
        dbl::detail::leave_child();
        throw dbl::child_exec{};
    }
    return __real_execvpe(file, argv, envp);
}

void __wrap__exit(int status) {
    dbl::detail::quiet quiet_;
    dbl::record("_exit " + std::to_string(status));
    if (dbl::in_child()) {
        dbl::detail::leave_child();
        throw dbl::child_exit{status};
    }
    __real__exit(status);
}

}  // extern "C"
