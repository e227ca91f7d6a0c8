// Placeholder while this area is being written; replaced in the same change.
#include <ald/network.h>
namespace ald { namespace netMgmt {
int init(bool) { return -1; }
void uninit() {}
int get_lan_interfaces(std::vector<Interface>& out) { out.clear(); return -1; }
void set_on_lan_interface_change(lan_change_callback) {}
int monitor_thread_id() { return 0; }
}}
