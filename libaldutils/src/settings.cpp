// Placeholder while this area is being written; replaced in the same change.
#include <ald/settings.h>
namespace ald {
const path kPrivacySettingKey("/privacy/aur");
const path kAppIdKey("/system/app_id");
namespace setMgmt {
int init(bool) { return -1; }
void uninit() {}
std::string store_directory() { return {}; }
bool valid_key(const std::string&) { return false; }
int getKey(const std::string&, std::string&) { return -1; }
int enumSubkeys(const std::string&, std::vector<std::string>&) { return -1; }
int getKeyValue(const std::string&, int d) { return d; }
std::string getKeyValue(const std::string&, const std::string& d) { return d; }
int setKey(const std::string&, const std::string&) { return -1; }
int deleteKey(const std::string&) { return -1; }
}
}
