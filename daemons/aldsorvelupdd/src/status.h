#pragma once
// The updater's state at a glance for whoever looks after the device:
// $ALD_ROOT/var/run/aldsorvelupdd.json, replaced by rename when something in
// it changed and removed at a clean stop. /var/run is a RAM file system, so
// flash sees none of these writes. A status that cannot be written changes
// nothing else: no log line, no retry until the next change.
#include "config.h"

#include <sys/types.h>

// A new updater: its pid, the time, one more start.
void status_started(pid_t pid);
// How the updater ended, as waitpid reported it, and when.
void status_ended(int wait_status);
// `document` is now updater.conf: its three keys of the daemon's are shown.
void status_written(const json_ptr& document);
// An update of updater.conf begins: it counts as failed, the values shown
// staying the last written, until status_written says otherwise.
void status_update_begun();
// Writes the file if anything changed since the last call, the recorded
// pid taken from child_pid. Costs no system call otherwise.
void status_flush();
// The daemon stops: no updater runs and none will.
void status_remove();
