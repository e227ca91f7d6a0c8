#pragma once
// Network management: the device's LAN interfaces, over rtnetlink.
//
// LAN interfaces are the links whose names match one of the shell patterns
// (fnmatch) in the settings key "/network/lan/ifnames", separated by blanks;
// without that key the pattern is "br-lan". A link counts whatever its
// state.
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

// Reads the LAN patterns and opens the netlink sockets; with `monitor` true
// also starts the one monitor thread. 0, or -1 with errno set. A second init
// without uninit fails with EALREADY.
int init(bool monitor);
// Stops and joins the monitor thread and closes the sockets. No callback
// runs after it returns, also when one was running when it was called.
void uninit();

// Dumps the links now and fills `out` (cleared first) with the LAN
// interfaces, sorted by index. 0, or -1 with errno set.
int get_lan_interfaces(std::vector<Interface>& out);

// Registers the callback (an empty function removes it). The monitor thread
// calls it with the complete current LAN list whenever a LAN interface was
// added, renamed or deleted, including a link renamed into or out of the
// patterns. Safe to call while the thread runs.
void set_on_lan_interface_change(lan_change_callback callback);

// The monitor thread's kernel thread id, 0 when it is not running (tests and
// diagnostics).
int monitor_thread_id();

}  // namespace netMgmt
}  // namespace ald
