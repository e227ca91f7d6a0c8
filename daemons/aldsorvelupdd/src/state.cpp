// SPDX-License-Identifier: MIT
#include "state.h"

#include "config.h"

#include <ald/memstream.h>

ald::path common_directory(ald::common_path which) {
    ald::path path;
    ald::memstream dir;
    ald::detail::print_common_path(dir, which);
    path.add_piece(true, dir.terminated_view());
    return path;
}

namespace {

// Runs during static initialisation, before main.
ald::path build_config_path() {
    ald::path path = config_directory();
    path.add_piece(true, "updater.conf");
    return path;
}

}  // namespace

int stop_fd = 0;
bool stop_requested = false;
pid_t child_pid = 0;
std::mutex lan_mutex;
// Declared before config_path: built first, destroyed last.
std::vector<std::string> lan_interfaces;
ald::path config_path = build_config_path();
int epoll_fd = 0;
int signal_fd = 0;
int lan_pipe[2] = {0, 0};
int last_aur_enabled = -1;
bool aur_write_owed = false;
