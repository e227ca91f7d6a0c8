// SPDX-License-Identifier: MIT
#include "status.h"

#include "state.h"

#include <ald/path.h>
#include <ald/replace.h>
#include <ald/version.h>

#include <cstdlib>
#include <ctime>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// The record is plain values; its JSON is built only to be written, so
// that nothing is allocated for it while the daemon only runs.
bool changed = true;  // the file has yet to be written
pid_t pid = 0;
json_int_t started = 0;
json_int_t starts = 0;
int last_wait_status = -1;  // as waitpid gave it; -1 before any exit
json_int_t ended = 0;
json_int_t started_uptime = 0;
json_int_t ended_uptime = 0;
constexpr const char* kKeys[] = {"aur_enabled", "pcap_device", "connect_appid"};
json_t* written[3] = {};  // references to what the last write put in updater.conf
unsigned owed = 0;        // keys whose last update failed, as kAurKey | kLanKeys
unsigned updating = 0;    // keys of the update under way

json_int_t now() { return static_cast<json_int_t>(std::time(nullptr)); }

// A router without a real-time clock starts at its firmware's date and jumps
// when NTP first answers; the boot clock never jumps and counts suspend, as
// /proc/uptime does, so that ages read against it hold.
json_int_t uptime() {
    timespec ts{};
    clock_gettime(CLOCK_BOOTTIME, &ts);
    return static_cast<json_int_t>(ts.tv_sec);
}

// The system's runtime directory, where whoever looks after the device
// finds the status of each daemon.
const ald::path& directory() {
    static const ald::path dir = common_directory(ald::common_path::system_runtime);
    return dir;
}

constexpr char kFileName[] = "aldsorvelupdd.json";

json_t* last_exit() {
    if (last_wait_status == -1) return json_null();
    json_t* end = json_object();
    json_object_set_new(end, "at", json_integer(ended));
    json_object_set_new(end, "at_uptime", json_integer(ended_uptime));
    if (WIFEXITED(last_wait_status)) {
        json_object_set_new(end, "status", json_integer(WEXITSTATUS(last_wait_status)));
    } else {
        json_object_set_new(end, "signal", json_integer(WTERMSIG(last_wait_status)));
    }
    return end;
}

json_ptr document() {
    json_t* status = json_object();
    json_object_set_new(status, "pid", json_integer(pid));
    json_object_set_new(status, "started", json_integer(started));
    json_object_set_new(status, "started_uptime", json_integer(started_uptime));
    json_object_set_new(status, "starts", json_integer(starts));
    json_object_set_new(status, "last_exit", last_exit());
    json_t* config = json_object();
    for (int i = 0; i < 3; ++i) json_object_set_new(config, kKeys[i], written[i] ? json_incref(written[i]) : json_null());
    json_object_set_new(status, "config", config);
    json_object_set_new(status, "config_failed", json_boolean(owed != 0));
    // Which daemon wrote it: a restarted or upgraded one shows another.
    json_t* daemon = json_object();
    static const pid_t self = getpid();
    json_object_set_new(daemon, "pid", json_integer(self));
    json_object_set_new(daemon, "version", json_string(ald::version()));
    json_object_set_new(status, "daemon", daemon);
    return json_ptr(status);
}

// In RAM: nothing is flushed, and a failure changes nothing else. The text
// is made first and written whole: dumped into the descriptor, each token
// would cost a system call.
void write_status() {
    char* const text = json_dumps(document().get(), JSON_INDENT(4));
    if (!text) return;
    ald::replace_options options;
    options.prefix = kTempPrefix;
    options.durable = false;
    ald::replace_file(directory(), kFileName, ald::text_writer(text), options);
    std::free(text);
}

}  // namespace

void status_started(pid_t child) {
    pid = child;
    started = now();
    started_uptime = uptime();
    ++starts;
    changed = true;
}

void status_ended(int wait_status) {
    last_wait_status = wait_status;
    ended = now();
    ended_uptime = uptime();
    changed = true;
}

void status_written(const json_ptr& config) {
    for (int i = 0; i < 3; ++i) {
        json_decref(written[i]);
        written[i] = json_incref(json_object_get(config.get(), kKeys[i]));
    }
    owed &= ~updating;
    changed = true;
}

void status_update_begun(unsigned keys) {
    updating = keys;
    owed |= keys;
    changed = true;
}

void status_flush() {
    if (pid != child_pid) {
        pid = child_pid;
        changed = true;
    }
    if (!changed) return;
    // Written or not, the next attempt waits for the next change: an idle
    // pass stays an idle pass.
    changed = false;
    write_status();
}

void status_remove() {
    ald::path file = directory();
    file.add_piece(true, kFileName);
    file.unlink();
}
