#pragma once
// The scripted stand-in for the platform library and for the libc calls that
// the daemon's failure paths go through.
//
// Every call of the double and every wrapped libc call appends one entry to
// a journal, in call order ("kill 42 15", "setMgmt::getKey /a/b",
// "log info init: start ald sorvelupd daemon"). A call's result comes from
// its script: first the one-shot outcomes pushed for it, in order, then its
// standing outcome if one is set, and otherwise the real call (libc) or the
// double's default (platform).
#include <ald/network.h>
#include <ald/path.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace dbl {

struct outcome {
    long result = 0;
    int err = 0;                  // errno set when the result is a failure
    std::string data;             // bytes a read() returns
    std::vector<int> fds;         // descriptors an epoll_wait() reports
    int status = 0;               // the status word a waitpid() reports
    std::function<void()> before; // runs when the outcome is taken, before the result
};

inline outcome fail(int err, long result = -1) { outcome o; o.result = result; o.err = err; return o; }
inline outcome ok(long result = 0) { outcome o; o.result = result; return o; }
inline outcome bytes(std::string data) { outcome o; o.result = static_cast<long>(data.size()); o.data = std::move(data); return o; }
inline outcome events(std::vector<int> fds) { outcome o; o.result = static_cast<long>(fds.size()); o.fds = std::move(fds); return o; }
inline outcome reaped(long pid, int status) { outcome o; o.result = pid; o.status = status; return o; }
inline outcome then(outcome o, std::function<void()> action) { o.before = std::move(action); return o; }

// Forgets the journal, every script and the scripted platform state.
void reset();

void push(const std::string& call, outcome o);    // one-shot, FIFO per call
void always(const std::string& call, outcome o);  // standing outcome
void pass(const std::string& call);               // drop the standing outcome
bool take(const std::string& call, outcome& o);   // used by the double itself

void record(std::string entry);
std::vector<std::string> journal();
// Entries that start with `prefix`, in order.
std::vector<std::string> journal(const std::string& prefix);
// Position of the first entry at or after `from` equal to `entry`, or -1.
long find(const std::string& entry, long from = 0);

// Produced log lines as the sink received them (level, whole line).
struct log_line {
    int level;
    std::string text;
};
std::vector<log_line> log_lines();

// Platform state the double serves. An outcome scripted for
// "setMgmt::getKeyValue" runs its action; the value still comes from the
// store. A scripted "json_array" outcome makes json_array() return null.
std::map<std::string, std::string>& store();                     // key -> value
std::map<std::string, std::vector<std::string>>& subkeys();      // key -> names
std::vector<ald::netMgmt::Interface>& lan_report();               // get_lan_interfaces fills this
ald::netMgmt::lan_change_callback lan_callback();                 // what the daemon registered
// The watch the daemon built (null when none is alive) and a way to run its
// handler as read_notifications would.
bool watch_alive();
std::string watch_key();
bool call_watch_handler();

// The write end of the stop pipe that the double's framework handed out,
// -1 before on_stop_pipe(); and how many owners the instance had while its
// run() was executing.
int stop_write_fd();
long instance_owners_during_run();
// The instance's stop_flag as it was when run() began.
bool* stop_flag_during_run();

// Thrown by the wrapped _exit and by a successful execvpe of a child that
// runs inside the test process (fork scripted to return 0).
struct child_exit {
    int status;
};
struct child_exec {};
// True between a fork scripted to return 0 and the child's end.
bool in_child();
// Heap allocations made inside the child so far.
long child_allocations();

}  // namespace dbl
