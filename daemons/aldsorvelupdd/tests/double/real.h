#pragma once
// The C library's own calls behind the wrapped names (-Wl,--wrap=NAME makes
// __real_NAME the original), for the double and for tests that need the
// real effect without a journal entry or a script.
#include <csignal>
#include <jansson.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/types.h>

extern "C" {
int __real_main(int argc, char** argv);
int __real_epoll_create(int size);
int __real_epoll_ctl(int epfd, int op, int fd, epoll_event* event);
int __real_epoll_wait(int epfd, epoll_event* events, int maxevents, int timeout);
int __real_signalfd(int fd, const sigset_t* mask, int flags);
int __real_sigprocmask(int how, const sigset_t* set, sigset_t* old);
int __real_sigemptyset(sigset_t* set);
int __real_sigaddset(sigset_t* set, int sig);
int __real_pipe2(int fds[2], int flags);
int __real_close(int fd);
ssize_t __real_read(int fd, void* buf, size_t count);
ssize_t __real_write(int fd, const void* buf, size_t count);
int __real_poll(pollfd* fds, nfds_t nfds, int timeout);
int __real_kill(pid_t pid, int sig);
pid_t __real_waitpid(pid_t pid, int* status, int options);
unsigned __real_sleep(unsigned seconds);
int __real_rename(const char* from, const char* to);
int __real_open(const char* path, int flags, ...);
int __real_open64(const char* path, int flags, ...);
int __real_dup2(int oldfd, int newfd);
int __real_setpgid(pid_t pid, pid_t pgid);
int __real_execvpe(const char* file, char* const argv[], char* const envp[]);
[[noreturn]] void __real__exit(int status);
json_t* __real_json_array(void);
}
