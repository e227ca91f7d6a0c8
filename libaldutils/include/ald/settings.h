// SPDX-License-Identifier: MIT
#pragma once
// The settings store: one file per key under $ALD_ROOT/etc/aldrana/settings.
//
// The key "/a/b/c" is the file a/b/c in the store; its value is the file's
// content with one trailing newline removed. Symbolic links are followed as
// any reader of a file follows them (firmware links files under /etc to
// persistent storage): what the links lead to is the key. A key that is a directory has
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
// The most links followed from one file; more fail with ELOOP.
constexpr std::size_t kMaxLinks = 40;
// 0 and the value, or -1 with errno set and `value` untouched: ENOENT or
// ENOTDIR for a missing key (a link to nothing included), EINVAL for an
// invalid key or one that is, after its links, not a regular file (a FIFO
// or device never blocks the reader), ELOOP for links that loop, EFBIG for
// a file larger than kMaxValueSize, EISDIR for a directory key, the read's
// error for an unreadable one. Each of them reads as a missing key.
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
// unchanged) atomically and durably: a hidden temporary file in the key's
// directory (".set-" and eight characters), mode 0644 before the umask,
// flushed, renamed over the key, then the directory flushed, so that a set
// that returned 0 survives a power cut and a reader sees the old value or
// the new one, never a part. Sets in one directory take turns (flock on the
// directory), and each first removes the temporary files that a set killed
// or cut off by a power loss left there: at most one can wait there for the
// next set. Missing parent keys (and the store's directory) are created and
// flushed into their parents. A key that is a symbolic link stays
// one: the value replaces the file its links lead to, in the same way in
// that file's directory, so that it persists where the firmware keeps it.
// A link to nothing gets its file made, as a shell redirection through it
// would; no directory is made outside the key's path, so a link into
// storage that is not mounted fails with ENOENT rather than writing under
// the mount point. 0, or -1 with errno set and nothing left behind (EINVAL
// for an invalid key or for a file, after the links, whose name starts with
// ".set-", which is the sets' own; EISDIR for a directory key or "/",
// ENOTDIR when a parent key holds a value, ELOOP for links that loop). A
// failed flush of the directory after the rename is -1 too: the new value
// is there, but may not survive a power cut.
int setKey(const std::string& key, const std::string& value);
// Removes a key; a directory key is removed with everything under it.
// Symbolic links are removed, never followed: deleting a linked key removes
// the link and keeps what it leads to. Not atomic for a directory key; the
// key's directory is flushed, so a delete that returned 0 survives a power
// cut. 0, or -1 with errno set (ENOENT or ENOTDIR for a missing key, EINVAL
// for an invalid key or for the store's root "/", or the flush's error: the
// key is gone, but may come back after a power cut).
int deleteKey(const std::string& key);

// The files that the symbolic links of `file` lead through, in order: each
// link's target, made relative to the directory of the link that holds it
// when it is not absolute; the last one holds the value, whether or not it
// exists. Empty when `file` is no link. 0, or -1 with errno ELOOP after
// kMaxLinks links (`hops` then holds those).
int link_chain(const std::string& file, std::vector<std::string>& hops);

// A watch on one key, on inotify.
//
// Every existing directory from "/" down to the key's own directory is
// watched; in each, only the name that leads to the key counts, so a burst
// of changes beside the path costs a wake-up and no handler call. When a
// directory on the path appears, vanishes or is renamed, the watches are
// placed again along the path, top down, and the key is looked at afresh: a
// key that exists before or after counts as changed. A key that is a
// symbolic link is watched where its links lead too: the directory of each
// file on the way, for that file's name, followed afresh whenever the
// watches are placed again and after every change of the key, so that a
// value written through the link or beside its target and renamed there, or
// the link replaced or removed, calls the handler. A target whose directory
// is missing is watched for from the nearest directory above it that is
// there. inotify sees no mounts: storage mounted over a watched directory is
// seen at the next change of the key's path. Changes of other files in a
// target's directory wake the descriptor without a handler call.
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
    std::vector<Level> hops_;    // where the key's links lead, in order
    std::size_t anchor_ = 0;     // the level of the configuration directory
    std::string file_;           // the key's file
    bool present_ = false;       // whether file_ existed when last armed
};

}  // namespace setMgmt
}  // namespace ald
