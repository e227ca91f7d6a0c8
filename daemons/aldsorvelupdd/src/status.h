// SPDX-License-Identifier: MIT
#pragma once
// The updater's state at a glance for whoever looks after the device:
// $ALD_ROOT/var/run/aldsorvelupdd.json, replaced by rename when something in
// it changed and removed at a clean stop. /var/run is a RAM file system, so
// flash sees none of these writes. A status that cannot be written changes
// nothing else: no log line, no retry until the next change.
#include "json_ptr.h"

#include <sys/types.h>

// A new updater: its pid, the time, one more start.
void status_started(pid_t pid);
// How the updater ended, as waitpid reported it, and when.
void status_ended(int wait_status);
// The daemon's keys, as masks: which of them an update puts in updater.conf.
constexpr unsigned kAurKey = 1, kLanKeys = 2 | 4;  // aur_enabled; pcap_device, connect_appid
// `document` is now updater.conf: its three keys of the daemon's are shown,
// and those of the update begun last are no longer owed.
void status_written(const json_ptr& document);
// An update of updater.conf that puts `keys` there begins: they are owed,
// and the status says so, the values shown staying the last written, until
// a write of theirs succeeds. Another update does not settle them: a
// privacy write copies the LAN keys from the file, not what the daemon wants.
void status_update_begun(unsigned keys);
// Writes the file if anything changed since the last call, the recorded
// pid taken from child_pid. Costs no system call otherwise.
void status_flush();
// The daemon stops: no updater runs and none will.
void status_remove();
