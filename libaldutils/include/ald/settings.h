#pragma once
// The settings store: one file per key under $ALD_ROOT/etc/aldrana/settings.
//
// The key "/a/b/c" is the file a/b/c in the store; its value is the file's
// content with one trailing newline removed. A key that is a directory has
// no value; its subkeys are its entries whose names do not start with ".",
// in byte order. A key is valid when it starts with "/", has no empty, "."
// or ".." component and is at most PATH_MAX long ("/" is the store's root);
// an invalid key never reaches the file system and reads as missing.
//
// Every call opens and closes what it uses: no call needs init(), and any
// thread may call them.
#include <ald/path.h>

#include <string>
#include <vector>

struct inotify_event;

namespace ald {

extern const path kPrivacySettingKey;  // "/privacy/aur"
extern const path kAppIdKey;           // "/system/app_id"

namespace setMgmt {

// 0 when the store's directory exists as a directory or, with `create` true,
// could be created (parents included, mode 0755 before the umask); -1
// otherwise.
int init(bool create);
// Releases what init took: nothing is held, so it does nothing. Safe to call
// without init.
void uninit();

// The store's directory: $ALD_ROOT/etc/aldrana/settings (ALD_ROOT read once).
std::string store_directory();
// Whether `key` is a valid key (see above).
bool valid_key(const std::string& key);

// The largest value a key can hold, in bytes.
constexpr std::size_t kMaxValueSize = 16 << 20;
// 0 and the value, or -1 with errno set and `value` untouched: ENOENT or
// ENOTDIR for a missing key, EINVAL for an invalid key or one that is not a
// regular file (a FIFO or device never blocks the reader), ELOOP for a
// symbolic link (never followed), EFBIG for a file larger than
// kMaxValueSize, EISDIR for a directory key, the read's error for an
// unreadable one. Each of them reads as a missing key.
int getKey(const std::string& key, std::string& value);
// 0 and the visible subkey names in byte order (an empty directory gives an
// empty list), or -1 with errno set and `names` untouched for a missing,
// invalid (EINVAL) or non-directory (ENOTDIR) key.
int enumSubkeys(const std::string& key, std::vector<std::string>& names);
// The value read as a decimal int (optional sign, blanks around it); the
// default for a missing key, a non-integer value or one out of int range.
int getKeyValue(const std::string& key, int default_value);
// The value, or the default for a missing key.
std::string getKeyValue(const std::string& key, const std::string& default_value);

// Writes `value` (stored with a trailing newline, so any value reads back
// unchanged) atomically: a hidden temporary file in the key's directory,
// mode 0644 before the umask, synced, then renamed over the key. A reader
// sees the old value or the new one, never a part. Missing parent keys (and
// the store's directory) are created. 0, or -1 with errno set and nothing
// left behind (EINVAL for an invalid key, EISDIR for a directory key or "/",
// ENOTDIR when a parent key holds a value).
int setKey(const std::string& key, const std::string& value);
// Removes a key; a directory key is removed with everything under it, and
// symbolic links in it are removed, never followed. Not atomic for a
// directory key. 0, or -1 with errno set (ENOENT or ENOTDIR for a missing
// key, EINVAL for an invalid key or for the store's root "/").
int deleteKey(const std::string& key);

// A watch on one key, on inotify.
//
// Every existing directory from "/" down to the key's own directory is
// watched; in each, only the name that leads to the key counts, so a burst
// of changes beside the path costs a wake-up and no handler call. When a
// directory on the path appears, vanishes or is renamed, the watches are
// placed again along the path, top down, and the key is looked at afresh: a
// key that exists before or after counts as changed.
class MonitoredKey {
public:
    using handler_type = bool (*)(const path& key);

    // Watches `key`, which need not exist yet, nor its directory. The watch
    // has one mode: `flags` and `subkeys` are reserved (pass 0 and false).
    // The handler's result is not used.
    MonitoredKey(const path& key, handler_type handler, int flags, bool subkeys);
    ~MonitoredKey();
    MonitoredKey(const MonitoredKey&) = delete;
    MonitoredKey& operator=(const MonitoredKey&) = delete;

    // The watch's descriptor (non-blocking, close-on-exec), created on first
    // use and again after read_notifications() gave it up. No system call is
    // made while the watch holds one. -1 on failure or after cancel().
    int get_fd();

    // Consumes every pending event and calls the handler once, with the key,
    // when any of them concerned the key: its value written in place (seen
    // when the writer closes the file, so the handler never reads half a
    // write) or renamed into place, the key created or deleted, a directory
    // of its path moved with the key in it. A lost event (queue overflow)
    // counts as a change. Returns false only when the descriptor is no
    // longer usable (it cannot be read, or the watches cannot be placed
    // again); the handler is then called, since changes may have been lost,
    // and the watch forgets the descriptor without closing it: the caller
    // closes it, and the next get_fd() makes a new one. Without a
    // descriptor, false and no call.
    bool read_notifications();

    // Ends the watch and closes the descriptor the watch still holds; from
    // then on get_fd() returns -1. The destructor closes it too.
    void cancel();

private:
    // One directory on the way to the key and the name in it that leads on
    // (the key's own name in the key's directory).
    struct Level {
        std::string dir;
        std::string name;
        int wd;  // its watch on fd_, -1 when the directory is not there
    };

    void plan(const std::string& key);
    bool arm();
    void classify(const inotify_event& ev, bool& concerned, bool& moved) const;
    bool key_present() const;
    // Closes the descriptor the watch still owns and drops its watches.
    void forget();

    path key_;
    handler_type handler_;
    bool cancelled_ = false;
    int fd_ = -1;
    std::vector<Level> levels_;  // top ("/") first
    std::size_t anchor_ = 0;     // the level of the configuration directory
    std::string file_;           // the key's file
    bool present_ = false;       // whether file_ existed when last armed
};

}  // namespace setMgmt
}  // namespace ald
