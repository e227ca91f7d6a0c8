/* SPDX-License-Identifier: MIT */
/* The stand-in updater that every supervisor of the benchmark runs: the
 * same static binary at /opt/aldrana/sorvel/sorvelupd for the daemon and as
 * ./run of the runsv and s6-supervise service directories.
 *
 * BENCH_STANDIN_MODE=sleep (default): sleeps in pause() until a signal ends
 * it (the default action of SIGTERM). BENCH_STANDIN_MODE=exit: exits at once
 * with status 0.
 *
 * With BENCH_STANDIN_LOG set, appends "S <ns> <pid>" as the first thing it
 * does and, in exit mode, "E <ns> <pid>" as the last, CLOCK_MONOTONIC in
 * nanoseconds: the exit-to-next-exec time of a restart is the gap between
 * one E and the next S. Static, so that no dynamic loading sits between the
 * supervisor's exec and the S stamp. */
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

static void stamp(const char *log, char what) {
    struct timespec ts;
    char line[64];
    int fd, n;

    if (!log) return;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    n = snprintf(line, sizeof line, "%c %lld %d\n", what,
                 (long long)ts.tv_sec * 1000000000LL + ts.tv_nsec, (int)getpid());
    fd = open(log, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) return;
    /* One write with O_APPEND: lines of concurrent writers never mix. */
    if (write(fd, line, (size_t)n) != n) {
    }
    close(fd);
}

int main(void) {
    const char *log = getenv("BENCH_STANDIN_LOG");
    const char *mode = getenv("BENCH_STANDIN_MODE");

    stamp(log, 'S');
    if (mode && strcmp(mode, "exit") == 0) {
        stamp(log, 'E');
        _exit(0);
    }
    for (;;) pause();
}
