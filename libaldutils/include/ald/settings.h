#pragma once
// The settings store: one file per key under $ALD_ROOT/etc/aldrana/settings.
//
// The key "/a/b/c" is the file a/b/c in the store; its value is the file's
// content with one trailing newline removed. A key that is a directory has
// no value; its subkeys are its entries whose names do not start with ".",
// in byte order. A key is valid when it starts with "/", has no empty, "."
// or ".." component and is at most PATH_MAX long; an invalid key never
// reaches the file system and reads as missing.
#include <ald/path.h>

#include <string>
#include <vector>

namespace ald {

extern const path kPrivacySettingKey;  // "/privacy/aur"
extern const path kAppIdKey;           // "/system/app_id"

namespace setMgmt {

// 0 when the store's directory exists as a directory or, with `create` true,
// could be created (parents included); -1 otherwise.
int init(bool create);
// Releases what init took. Safe to call without init.
void uninit();

// The store's directory: $ALD_ROOT/etc/aldrana/settings.
std::string store_directory();
// Whether `key` is a valid key (see above).
bool valid_key(const std::string& key);

// 0 and the value, or -1 for a missing, invalid, unreadable or directory key.
int getKey(const std::string& key, std::string& value);
// 0 and the sorted visible subkey names (an empty directory gives an empty
// list), or -1 for a missing, invalid or non-directory key.
int enumSubkeys(const std::string& key, std::vector<std::string>& names);
// The value read as a decimal int (optional sign, blanks around it); the
// default for a missing key, a non-integer value or one out of int range.
int getKeyValue(const std::string& key, int default_value);
// The value, or the default for a missing key.
std::string getKeyValue(const std::string& key, const std::string& default_value);

// Writes `value` (stored with a trailing newline) atomically: a temporary
// file in the key's directory, then rename. Missing parent keys are created.
// 0, or -1 with errno set (EINVAL for an invalid key, EISDIR for a directory
// key).
int setKey(const std::string& key, const std::string& value);
// Removes a key; a directory key is removed with everything under it.
// 0, or -1 with errno set (ENOENT for a missing key, EINVAL for an invalid
// key or for the store's root "/").
int deleteKey(const std::string& key);

// A watch on one key, on inotify.
class MonitoredKey {
public:
    using handler_type = bool (*)(const path& key);

    // Watches `key`, which need not exist yet, nor its directory. `flags`
    // is reserved and must be 0 (get_fd fails with EINVAL otherwise).
    // With `subkeys` true, changes to the direct subkeys of a directory key
    // count as changes of the key. The handler's result is not used.
    MonitoredKey(const path& key, handler_type handler, int flags, bool subkeys);
    ~MonitoredKey();
    MonitoredKey(const MonitoredKey&) = delete;
    MonitoredKey& operator=(const MonitoredKey&) = delete;

    // The watch's descriptor (non-blocking, close-on-exec), created on first
    // use and again after read_notifications() gave it up. No system call is
    // made while the watch holds one. -1 on failure or after cancel().
    int get_fd();

    // Consumes every pending event and calls the handler once, with the key,
    // when any of them concerned the key: its value written in place or
    // renamed into place, the key created or deleted (the key's directories
    // included). Returns false only when the descriptor is no longer usable;
    // the watch then forgets it and the caller closes it.
    bool read_notifications();

    // Ends the watch and closes the descriptor the watch still holds.
    void cancel();

    const path& key() const noexcept { return key_; }

private:
    bool arm();
    void forget();

    path key_;
    handler_type handler_;
    int flags_;
    bool subkeys_;
    bool cancelled_ = false;
    int fd_ = -1;
    std::vector<int> watches_;  // watch descriptors held on fd_
    int armed_depth_ = -1;      // components of the key's chain under watch
};

}  // namespace setMgmt
}  // namespace ald
