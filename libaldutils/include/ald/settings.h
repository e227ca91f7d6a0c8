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
#include <sys/types.h>
#include <vector>

namespace ald {
namespace detail {
class MountTable;
}

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
// flushed into their parents. Links on the key's way stay: the value
// replaces the file at the end of its way (see resolve()), in the same way
// in that file's directory, so that it persists where the firmware keeps it.
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

// The way the kernel takes from "/" to a key's file, one name at a time:
// each name looked up in the directory reached so far, a symbolic link
// followed where it is found (the key's file or a directory on the way,
// relative or absolute, ".." taken from where the link sits, chained), and
// a file system mounted on the way taken as the kernel takes it. What a
// set replaces and what the watch follows are both this one way, so that
// they cannot disagree.
struct Resolution {
    enum class Kind {
        directory,      // a directory that the way goes on through
        link,           // a symbolic link, followed
        file,           // the key's file, there (a directory for a directory key)
        missing,        // nothing there: the way ends
        not_directory,  // no directory where one is needed: the way ends
    };
    struct Step {
        std::string dir;   // the directory the name is looked up in, free of links
        std::string name;
        Kind kind;
        dev_t dir_dev;     // what `dir` was when it was looked in
        ino_t dir_ino;
        dev_t dev;         // what `name` was (the link itself for a link); 0 when missing
        ino_t ino;
    };
    std::vector<Step> steps;
    // The key's file, free of links, where it is or would be made; when the
    // way ends early, where it was heading (as far as its links said).
    std::string file;
    // 0 when the way reached the key's file or the place for it; otherwise
    // why not: ENOENT or ENOTDIR (a directory on the way is missing, or is
    // none), ELOOP (more than kMaxLinks links), or the lookup's error.
    int error = 0;

    // Whether the key's file is there.
    bool found() const { return error == 0 && !steps.empty() && steps.back().kind == Kind::file; }
    // Whether a symbolic link lies on the way.
    bool linked() const;
};

// Resolves `key` (a valid key) into `out`; 0, or -1 with errno EINVAL for an
// invalid key. A way that ends early is no failure here: out.error says why.
int resolve(const std::string& key, Resolution& out);

// A watch on one key: inotify along the key's way, and the mount table.
//
// The way (see Resolution) is watched with the least that sees it change:
// a directory whose next name is a link, is missing or is the key's file,
// for that name; a directory that merely lies on the way, for its own move
// or deletion only, so that busy directories (/etc, /tmp) cost no wake-up
// for their other entries. A name beside the way in a watched directory
// costs a read and no handler call. inotify sees no mounts: the mount table
// is watched beside it, by a small thread of the watch's own (the table
// tells a change to the first poll that looks, and the caller's epoll may
// look more than once), which signals an event descriptor in the watch's
// epoll set. After any event on the way, a watched directory gone or moved,
// a lost event or a change of the mount table, the key is resolved again
// and the watches placed anew; the handler runs when the key's file was
// written, created, deleted or replaced, or the way now leads to another
// file (device and inode, not the path's text, which a mount leaves as it
// was). A mount elsewhere costs one resolution. Without /proc the watch
// goes on without mounts and says so once in the log. Writes made straight
// into an overlay's upper or lower directory, and mounts made in another
// mount namespace, are not seen.
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

    // The watch's descriptor (an epoll set; non-blocking, close-on-exec),
    // readable while a notification is pending, created on first use and
    // again after read_notifications() gave it up; one made again owes a
    // handler call, which its first read_notifications() makes, since the
    // key may have changed while there was none. No system call is made
    // while the watch holds one. -1 with errno on failure (EINVAL for an
    // invalid key; ENOSPC or EMFILE at the kernel's limits) or after
    // cancel().
    int get_fd();

    // Consumes every pending event and calls the handler once, with the key,
    // when any of them concerned the key (a value written in place is seen
    // when the writer closes the file, so the handler never reads half a
    // write). A lost event (queue overflow) counts as a change. Returns false
    // only when the descriptor is no longer usable (it cannot be read, or
    // the watches cannot be placed again); the handler is then called, since
    // changes may have been lost, and the watch closes everything it holds
    // but the descriptor: the caller closes that, and the next get_fd()
    // makes a new one. Without a descriptor, false and no call.
    bool read_notifications();

    // Ends the watch and closes every descriptor it still holds; from then
    // on get_fd() returns -1. The destructor does the same.
    void cancel();

private:
    bool open();
    bool refresh();
    bool place(const Resolution& way);
    void read_events(bool& resolve, bool& touched, bool& lost);
    // Closes what the watch holds besides fd_.
    void close_inner();

    path key_;
    handler_type handler_;
    bool cancelled_ = false;
    int fd_ = -1;       // the epoll set the caller waits on
    int inotify_ = -1;
    int event_ = -1;                        // eventfd: the mount table changed, or a call is owed
    detail::MountTable* mounts_ = nullptr;  // none without /proc
    Resolution way_;                        // as watched
    std::vector<int> wds_;                  // the watch on each step's directory; -1 none
    int file_wd_ = -1;                      // the watch on the key's file itself
    bool made_ = false;                     // a descriptor was made before
    bool owed_ = false;                     // a handler call is owed to a watch made again
};

}  // namespace setMgmt
}  // namespace ald
