// Placeholder while this area is being written; replaced in the same change.
#include <ald/settings.h>
namespace ald { namespace setMgmt {
MonitoredKey::MonitoredKey(const path& key, handler_type handler, int flags, bool subkeys) : key_(key), handler_(handler), flags_(flags), subkeys_(subkeys) {}
MonitoredKey::~MonitoredKey() {}
int MonitoredKey::get_fd() { return -1; }
bool MonitoredKey::read_notifications() { return false; }
void MonitoredKey::cancel() {}
}}
