// SPDX-License-Identifier: MIT
// Entry point and the two hooks: init builds the event loop's descriptors
// and clients, run is the loop and its shutdown.
#include "hooks.h"

#include "config.h"
#include "lan_watch.h"
#include "log.h"
#include "state.h"
#include "status.h"
#include "supervision.h"

#include <ald/daemon.h>
#include <ald/network.h>
#include <ald/settings.h>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <unistd.h>
#include <vector>

namespace {

// How far init got: each stage's cleanup closes its own descriptors and
// then those of the stages before it, newest first.
enum class opened { stop_pipe, epoll, signal_fd, lan_pipe };

void close_opened(opened last) {
    switch (last) {
    case opened::lan_pipe:
        close(lan_pipe[0]);
        close(lan_pipe[1]);
        [[fallthrough]];
    case opened::signal_fd:
        close(signal_fd);
        [[fallthrough]];
    case opened::epoll:
        close(epoll_fd);
        [[fallthrough]];
    case opened::stop_pipe:
        close(stop_fd);
    }
}

void drain_lan_pipe() {
    char byte;
    while (read(lan_pipe[0], &byte, 1) > 0) {
    }
}

}  // namespace

// A failing step of init: its own line, the cleanup, the stop line.
#define INIT_FAILED(message, last)                       \
    do {                                                 \
        ALD_LOG(error, message);                         \
        close_opened(last);                              \
        ALD_LOG(info, "stop ald sorvelupd daemon");      \
        return false;                                    \
    } while (0)

bool epoll_watch(int fd) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = fd;
    if (epoll_ctl(epoll_fd, EPOLL_CTL_MOD, fd, &event) == 0) return true;
    if (errno != ENOENT) return false;
    return epoll_ctl(epoll_fd, EPOLL_CTL_ADD, fd, &event) == 0;
}

bool init() {
    ALD_LOG(info, "start ald sorvelupd daemon");
    // A predecessor that was killed left its status: an updater that is gone.
    status_remove();
    remove_stale_copies();

    epoll_fd = epoll_create(1);
    if (epoll_fd == -1) INIT_FAILED("failed to open epoll", opened::stop_pipe);
    if (!epoll_watch(stop_fd)) INIT_FAILED("failed to add stop exec fd to epoll", opened::epoll);

    sigset_t set;
    if (sigemptyset(&set) == -1) INIT_FAILED("failed to init signal mask", opened::epoll);
    if (sigaddset(&set, SIGCHLD) == -1) INIT_FAILED("failed to add SIGCHLD to signal mask", opened::epoll);
    if (sigprocmask(SIG_BLOCK, &set, nullptr) == -1) INIT_FAILED("failed to change signal mask", opened::epoll);
    signal_fd = signalfd(-1, &set, SFD_NONBLOCK);
    if (signal_fd == -1) INIT_FAILED("failed to open signal fd", opened::epoll);
    if (!epoll_watch(signal_fd)) INIT_FAILED("failed to add signal fd to epoll", opened::signal_fd);

    // The pipe is in the epoll set before the callback can write to it.
    if (pipe2(lan_pipe, O_NONBLOCK) == -1) INIT_FAILED("failed to create update lan pipe", opened::signal_fd);
    if (!epoll_watch(lan_pipe[0])) INIT_FAILED("failed to add update lan pipe to epoll", opened::lan_pipe);

    if (ald::setMgmt::init(true) == -1) INIT_FAILED("failed to init aldsetmgmt", opened::lan_pipe);
    if (ald::netMgmt::init(true) == -1) {
        ALD_LOG(error, "failed to init aldnetmgmt");
        ald::setMgmt::uninit();
        close_opened(opened::lan_pipe);
        ALD_LOG(info, "stop ald sorvelupd daemon");
        return false;
    }

    // Runs on the network client's thread: only lan_interfaces, under its
    // lock, and the pipe's write end, which it never blocks on.
    auto on_lan_interface_change = [](const std::vector<ald::netMgmt::Interface>& interfaces) {
        bool changed;
        {
            std::vector<std::string> names = make_name_list(interfaces);
            changed = exchange_lan_interfaces(names);
        }
        if (changed) wake_event_loop();
    };
    ald::netMgmt::set_on_lan_interface_change(on_lan_interface_change);

    // Taken after the registration, so that no change between the two is
    // missed.
    std::vector<ald::netMgmt::Interface> interfaces;
    ald::netMgmt::get_lan_interfaces(interfaces);
    {
        std::vector<std::string> names = make_name_list(interfaces);
        exchange_lan_interfaces(names);
    }
    update_lan_config();
    return true;
}

int run() {
    ald::setMgmt::MonitoredKey watch(ald::kPrivacySettingKey, update_aur_config, 0, false);
    watch.get_fd();
    update_aur_config(ald::kPrivacySettingKey);

    epoll_event events[2];
    while (!stop_requested) {
        if (child_pid == 0) start_sorvelupd();
        status_flush();

        const int watch_fd = watch.get_fd();
        if (watch_fd < 0 || !epoll_watch(watch_fd)) ALD_LOG(error, "failed to add notif fd to epoll");

        const int ready = epoll_wait(epoll_fd, events, 2, 1000);
        if (ready == -1) {
            if (errno == EINTR) {
                ALD_LOG(warning, "waiting on epoll was interrupted by a signal");
                continue;
            }
            ALD_LOG(error, "failed to wait on epoll");
            break;
        }
        for (int i = 0; i < ready; ++i) {
            const int fd = events[i].data.fd;
            if (fd == signal_fd) {
                process_signal();
            } else if (fd == lan_pipe[0]) {
                drain_lan_pipe();
                kill_and_wait_sorvelupd();
                update_lan_config();
            } else if (fd == watch_fd) {
                if (!watch.read_notifications()) {
                    epoll_ctl(epoll_fd, EPOLL_CTL_DEL, watch_fd, nullptr);
                    close(watch_fd);
                }
            } else if (fd == stop_fd) {
                stop_requested = true;
            }
        }
    }

    watch.cancel();
    kill_and_wait_sorvelupd();
    ald::setMgmt::uninit();
    ald::netMgmt::uninit();
    close(lan_pipe[0]);
    close(lan_pipe[1]);
    close(signal_fd);
    close(epoll_fd);
    close(stop_fd);
    status_remove();
    ALD_LOG(info, "stop ald sorvelupd daemon");
    return 0;
}

int main(int argc, char** argv) {
    std::shared_ptr<ald::daemon::Instance> instance = ald::daemon::instance(argc, argv);
    stop_fd = instance->on_stop_pipe();
    if (stop_fd == -1) return 1;
    instance->init_hook = init;
    instance->run_hook = run;
    instance->stop_flag = &stop_requested;
    return instance->run();
}
