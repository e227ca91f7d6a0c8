/* SPDX-License-Identifier: MIT */
/* The time from a LAN link appearing (or going) to updater.conf replaced.
 *
 *   bench_lanlat CONF_DIR IFNAME add|del [TIMEOUT_S]
 *
 * Listens to the kernel's link notifications (rtnetlink, RTMGRP_LINK) and
 * watches CONF_DIR with inotify, then runs "ip link add IFNAME type bridge"
 * (or "ip link del IFNAME"). The clock starts when the kernel announces the
 * link (the first RTM_NEWLINK, or RTM_DELLINK, naming IFNAME) and stops when
 * updater.conf is renamed into place (IN_MOVED_TO). Prints
 *   lan LINK_NS CONF_NS SPAWN_NS
 * with LINK_NS from the spawn of ip to the announcement, CONF_NS from the
 * announcement to the rename, SPAWN_NS from the spawn to the rename. */
#define _GNU_SOURCE
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <poll.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

extern char **environ;

static long long now_ns(void) {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (long long)ts.tv_sec * 1000000000LL + ts.tv_nsec;
}

/* True when the buffer holds a link message of `type` naming `name`. */
static int names_link(const char *buf, ssize_t len, int type, const char *name) {
    const struct nlmsghdr *nlh;
    for (nlh = (const struct nlmsghdr *)buf; NLMSG_OK(nlh, len); nlh = NLMSG_NEXT(nlh, len)) {
        const struct ifinfomsg *ifi = NLMSG_DATA(nlh);
        const struct rtattr *rta;
        int rlen;
        if (nlh->nlmsg_type != type) continue;
        if (ifi->ifi_family != AF_UNSPEC) continue;
        rlen = (int)IFLA_PAYLOAD(nlh);
        for (rta = IFLA_RTA(ifi); RTA_OK(rta, rlen); rta = RTA_NEXT(rta, rlen))
            if (rta->rta_type == IFLA_IFNAME && strcmp((const char *)RTA_DATA(rta), name) == 0) return 1;
    }
    return 0;
}

int main(int argc, char **argv) {
    const char *dir, *ifname;
    int add, timeout_s = 30, in, nl, status;
    struct sockaddr_nl sa;
    char *ip_add[] = {"ip", "link", "add", NULL, "type", "bridge", NULL};
    char *ip_del[] = {"ip", "link", "del", NULL, NULL};
    pid_t ip;
    long long t_spawn, t_link = 0, t_conf = 0, deadline;

    if (argc < 4 || (strcmp(argv[3], "add") != 0 && strcmp(argv[3], "del") != 0)) {
        fprintf(stderr, "usage: %s CONF_DIR IFNAME add|del [TIMEOUT_S]\n", argv[0]);
        return 2;
    }
    dir = argv[1];
    ifname = argv[2];
    add = strcmp(argv[3], "add") == 0;
    if (argc > 4) timeout_s = atoi(argv[4]);

    in = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (in < 0 || inotify_add_watch(in, dir, IN_MOVED_TO) < 0) {
        perror("inotify");
        return 1;
    }
    nl = socket(AF_NETLINK, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, NETLINK_ROUTE);
    memset(&sa, 0, sizeof sa);
    sa.nl_family = AF_NETLINK;
    sa.nl_groups = RTMGRP_LINK;
    if (nl < 0 || bind(nl, (struct sockaddr *)&sa, sizeof sa) < 0) {
        perror("netlink");
        return 1;
    }

    ip_add[3] = (char *)ifname;
    ip_del[3] = (char *)ifname;
    t_spawn = now_ns();
    if (posix_spawnp(&ip, "ip", NULL, NULL, add ? ip_add : ip_del, environ) != 0) {
        perror("ip");
        return 1;
    }
    deadline = t_spawn + (long long)timeout_s * 1000000000LL;
    while (!t_conf || !t_link) {
        struct pollfd fds[2] = {{in, POLLIN, 0}, {nl, POLLIN, 0}};
        long long left = deadline - now_ns();
        if (left <= 0) break;
        if (poll(fds, 2, (int)(left / 1000000 + 1)) < 0) continue;
        if (fds[1].revents & POLLIN) {
            char buf[16384];
            ssize_t n;
            while ((n = recv(nl, buf, sizeof buf, 0)) > 0) {
                long long t = now_ns();
                if (!t_link && names_link(buf, n, add ? RTM_NEWLINK : RTM_DELLINK, ifname)) t_link = t;
            }
        }
        if (fds[0].revents & POLLIN) {
            char buf[4096] __attribute__((aligned(8)));
            ssize_t n;
            while ((n = read(in, buf, sizeof buf)) > 0) {
                long long t = now_ns();
                ssize_t off = 0;
                while (off < n) {
                    const struct inotify_event *ev = (const struct inotify_event *)(buf + off);
                    if (!t_conf && ev->len && strcmp(ev->name, "updater.conf") == 0) t_conf = t;
                    off += (ssize_t)(sizeof *ev + ev->len);
                }
            }
        }
    }
    waitpid(ip, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        fprintf(stderr, "bench_lanlat: ip link %s %s failed\n", argv[3], ifname);
        return 1;
    }
    if (!t_link || !t_conf) {
        fprintf(stderr, "bench_lanlat: %s within %d s\n", t_link ? "no rewrite" : "no link notification", timeout_s);
        return 1;
    }
    printf("lan %lld %lld %lld\n", t_link - t_spawn, t_conf - t_link, t_conf - t_spawn);
    return 0;
}
