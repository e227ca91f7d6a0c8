// SPDX-License-Identifier: MIT
#pragma once
// Network management: the device's LAN interfaces, over rtnetlink.
//
// LAN interfaces are the links whose names match one of the shell patterns
// (fnmatch) in the settings key "/network/lan/ifnames", separated by blanks;
// without that key the pattern is "br-lan". A key that holds no pattern
// makes no link LAN. A link counts whatever its state.
#include <functional>
#include <string>
#include <vector>

namespace ald {
namespace netMgmt {

struct Interface {
    std::string name;
    int index = 0;
    unsigned flags = 0;  // IFF_* as the kernel reports them
};

using lan_change_callback = std::function<void(const std::vector<Interface>&)>;

// Reads the LAN patterns, which hold until uninit, subscribes to link
// notifications and starts the one monitor thread ("ald-lan" in ps -T),
// which blocks every signal and lives until uninit whatever fails: a failed
// poll (ENOMEM, or EINVAL under an RLIMIT_NOFILE below 2) is tried again
// after a pause of 1 s. The argument is reserved (pass true). 0, or -1 with
// errno set. A second init without uninit fails with EALREADY. Descriptors
// are close-on-exec.
int init(bool monitor);
// Stops and joins the monitor thread, closes its descriptors and drops the
// registered callback. No callback runs after it returns, also when one was
// running when it was called: it then waits for that call to end. Harmless
// without init; init works again afterwards. Must not be called from the
// callback, which would wait for itself.
void uninit();

// Dumps the links now and fills `out` (cleared first, empty on failure)
// with the LAN interfaces, sorted by index. Each call uses a netlink socket
// of its own, so any thread may call it, the callback included. 0, or -1
// with errno set (EINVAL before init).
int get_lan_interfaces(std::vector<Interface>& out);

// Registers the callback (an empty function removes it). The monitor thread
// calls it with the complete current LAN list, freshly dumped, after a LAN
// interface was added, renamed or deleted, including a link renamed into or
// out of the patterns; when notifications were lost it dumps and calls it
// too. Changes of other links and of a link's flags or state do not call
// it. Safe to call while the thread runs, also from the callback: a call
// already under way ends with the callback it began with. A list that does
// not reach the callback, because the dump failed (no descriptor or memory
// to spare) or an exception left the callback (it is caught), is reported
// again at the next link notification of any kind or after 1 s, 2, 4, ...
// up to 32 s between tries, until it does; between changes, when nothing is
// owed, the thread sleeps in the kernel without a timeout.
void set_on_lan_interface_change(lan_change_callback callback);

}  // namespace netMgmt
}  // namespace ald
