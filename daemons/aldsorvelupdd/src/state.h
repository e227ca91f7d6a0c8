// SPDX-License-Identifier: MIT
#pragma once
// The daemon's process-wide state. Everything here is touched only by the
// thread that runs the hooks, except lan_interfaces (under lan_mutex) and
// lan_pipe[1], which the LAN-change callback also uses.
#include <ald/path.h>

#include <mutex>
#include <string>
#include <sys/types.h>
#include <vector>

extern int stop_fd;                              // read end of the framework's stop pipe
extern bool stop_requested;                      // the framework holds its address
extern pid_t child_pid;                          // the updater; 0 when none is recorded
extern ald::path config_path;                    // full path of updater.conf
extern std::mutex lan_mutex;                     // guards lan_interfaces, nothing else
extern std::vector<std::string> lan_interfaces;  // sorted LAN names, duplicates kept
extern int epoll_fd;
extern int signal_fd;                            // reports SIGCHLD
extern int lan_pipe[2];                          // wakes the loop after a LAN change
extern int last_aur_enabled;                     // last value written as aur_enabled; -1 none
extern bool aur_write_owed;                      // a write of aur_enabled failed: write the next value, whatever it is

// A well-known directory of the platform's, as an ald::path.
ald::path common_directory(ald::common_path which);

// What the daemon's temporary copies of updater.conf and of its status file
// are named with, before eight random characters: its own, so that it
// removes its own stale copies and nobody else's.
constexpr char kTempPrefix[] = ".aldsorvelupdd-";

// The text of a path as a string; a path without storage reads as "".
inline std::string path_string(const ald::path& p) {
    const char* text = p.c_str();
    return text ? std::string(text) : std::string();
}
