// SPDX-License-Identifier: MIT
#pragma once
// What the library's tests share: a body run in a forked child, for what is
// process-wide (the daemon instance, handlers, exits, a session).
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

struct outcome {
    int status = -1;                  // exit status, or 128 + signal
    std::vector<std::string> writes;  // to standard output or error, one per write(2)
    std::string text;                 // all of them
};

// Runs `body` in a forked child whose standard output and error are a
// packet socket, so that every write stays one packet; the exit status is
// the body's result unless it exits by itself, 99 if it throws (the test
// runner must not go on in the child). A body reports a broken property
// with fail().
inline outcome in_child(const std::function<int()>& body) {
    int sockets[2];
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET, 0, sockets), 0);
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(sockets[1], 1);
        ::dup2(sockets[1], 2);
        int status = 99;
        try { status = body(); } catch (...) {}
        ::_exit(status);
    }
    ::close(sockets[1]);
    outcome result;
    char packet[8192];
    for (ssize_t n; (n = ::recv(sockets[0], packet, sizeof packet, 0)) > 0; result.text += result.writes.back())
        result.writes.emplace_back(packet, n);
    ::close(sockets[0]);
    int status = 0;
    ::waitpid(pid, &status, 0);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return result;
}

inline int fail(const char* what) {
    (void)!::write(2, what, std::strlen(what));
    return 1;
}
