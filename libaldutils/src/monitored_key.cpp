// SPDX-License-Identifier: MIT
// The watch on one settings key, on inotify.
//
// Every existing directory from the configuration directory (from the top,
// "/", while that is missing) down to the key's own directory is watched,
// each for the one name in it that leads to the key.
// The key's directory reports the key's own events; an ancestor reports the
// next directory of the path appearing, vanishing or being renamed, which
// moves the path onto other inodes: the watches are then placed again,
// parent before child, so that a directory made between two steps is still
// reported by its parent's watch.
//
// A key that is a symbolic link changes where its links lead: each file on
// the way is watched in its directory, for its name, as the key is in its
// own, or, while that directory is missing, in its nearest ancestor. The
// links are followed again each time the watches are placed, and the
// watches are placed again after every change of the key, so that a link
// pointed elsewhere is followed before the handler reads the value.
// Watches only grow their masks (IN_MASK_ADD): a target that sits in a
// directory of the key's path shares that directory's watch.
#include <ald/settings.h>

#include <cerrno>
#include <cstdint>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

namespace ald {
namespace setMgmt {
namespace {

// Entries of a directory on the path come and go, or the directory itself
// goes; a file that took a directory's name is no step of the path.
constexpr std::uint32_t kPathMask =
    IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
// In-place writes count when the writer closes the file, so that the handler
// never reads half of a write.
constexpr std::uint32_t kKeyMask = kPathMask | IN_CLOSE_WRITE;
// Whatever happens to a watched directory itself.
constexpr std::uint32_t kSelfEvents = IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT | IN_IGNORED;

// A directory that cannot be watched because it is not there (yet).
bool absent(int err) { return err == ENOENT || err == ENOTDIR || err == ELOOP || err == ENAMETOOLONG; }

}  // namespace

MonitoredKey::MonitoredKey(const path& key, handler_type handler, int, bool) : key_(key), handler_(handler) {}

MonitoredKey::~MonitoredKey() { forget(); }

int MonitoredKey::get_fd() {
    if (fd_ >= 0) return fd_;
    if (cancelled_) return -1;
    const std::string key = key_.c_str() ? key_.c_str() : "";
    if (key.size() != key_.size() || !valid_key(key)) {
        errno = EINVAL;
        return -1;
    }
    if (levels_.empty()) plan(key);
    fd_ = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (fd_ < 0) return -1;
    if (!arm()) {
        int err = errno;
        forget();
        errno = err;
        return -1;
    }
    present_ = key_present();
    return fd_;
}

bool MonitoredKey::read_notifications() {
    if (fd_ < 0) return false;
    bool concerned = false;
    bool moved = false;
    bool broken = false;
    alignas(inotify_event) char buf[4096];
    for (;;) {
        ssize_t n = ::read(fd_, buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && errno == EAGAIN) break;
        if (n <= 0) {
            broken = true;
            break;
        }
        for (ssize_t off = 0; off < n;) {
            const auto* ev = reinterpret_cast<const inotify_event*>(buf + off);
            off += static_cast<ssize_t>(sizeof(inotify_event) + ev->len);
            if (ev->mask & IN_Q_OVERFLOW) {
                // Events were dropped: any of them may have been the key's.
                concerned = moved = true;
                continue;
            }
            classify(*ev, concerned, moved);
        }
    }
    if (!broken && (moved || concerned)) {
        const bool was_present = present_;
        broken = !arm();
        if (!broken) {
            present_ = key_present();
            // The path now leads elsewhere: the key changed unless it is
            // missing both before and after.
            if (was_present || present_) concerned = true;
        }
    }
    if (broken) {
        // Gone with the descriptor: events, and with them any change of the
        // key, may have been lost. The caller closes the descriptor.
        fd_ = -1;
        for (auto& level : levels_) level.wd = -1;
        hops_.clear();
        concerned = true;
    }
    if (concerned && handler_) handler_(key_);
    return !broken;
}

void MonitoredKey::cancel() {
    cancelled_ = true;
    forget();
}

void MonitoredKey::forget() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
    for (auto& level : levels_) level.wd = -1;
    hops_.clear();
}

// Splits the key's file into the directories that lead to it. The name of
// the last level is the key's own.
void MonitoredKey::plan(const std::string& key) {
    const std::string store = store_directory();
    const std::string file = key == "/" ? store : store + key;
    const std::string anchor = store.substr(0, store.rfind('/'));
    anchor_ = 0;
    std::string dir = file[0] == '/' ? "/" : ".";
    std::size_t start = 0;
    while (start < file.size()) {
        std::size_t slash = file.find('/', start);
        if (slash == std::string::npos) slash = file.size();
        if (slash > start) {
            std::string name = file.substr(start, slash - start);
            if (dir == anchor) anchor_ = levels_.size();
            levels_.push_back({dir, name, -1});
            if (dir.back() != '/') dir += '/';
            dir += name;
        }
        start = slash + 1;
    }
    file_ = dir;
}

// Places a watch on every level that exists, top down, and drops the
// watches of directories that left the path. A missing directory ends the
// walk: its parent's watch reports it when it appears. The directories above
// the configuration directory are watched only while it is missing: on a
// device they see unrelated renames (/etc) that would wake the daemon. Then
// the key's links, when its directory is there.
bool MonitoredKey::arm() {
    std::vector<int> old;
    for (auto& level : levels_) old.push_back(level.wd);
    for (auto& hop : hops_) old.push_back(hop.wd);
    bool ok = true;
    std::size_t first = anchor_;
    for (;;) {
        bool missing = false;
        for (std::size_t i = 0; i < levels_.size(); ++i) {
            Level& level = levels_[i];
            level.wd = -1;
            if (missing || i < first) continue;
            const std::uint32_t mask = (i + 1 == levels_.size() ? kKeyMask : kPathMask) | IN_MASK_ADD;
            level.wd = ::inotify_add_watch(fd_, level.dir.c_str(), mask);
            if (level.wd >= 0) continue;
            // Not a directory there (yet): the key cannot exist below it.
            missing = true;
            if (!absent(errno)) ok = false;
        }
        // Without the configuration directory, watch from the top for it.
        if (!ok || first == 0 || levels_[first].wd >= 0) break;
        first = 0;
    }
    std::vector<std::string> chain;
    if (ok && levels_.back().wd >= 0) link_chain(file_, chain);
    hops_.clear();
    for (const std::string& file : chain) {
        const std::size_t slash = file.rfind('/');
        Level hop{file.substr(0, slash == 0 ? 1 : slash), file.substr(slash + 1), -1};
        hop.wd = ::inotify_add_watch(fd_, hop.dir.c_str(), kKeyMask | IN_MASK_ADD);
        // A directory not there yet (storage that is prepared later): its
        // nearest ancestor that is there reports the next step appearing,
        // which counts as a change of the key, and the watches follow.
        while (hop.wd < 0 && absent(errno) && hop.dir.size() > 1) {
            const std::size_t up = hop.dir.rfind('/');
            if (up == std::string::npos) break;
            hop.name = hop.dir.substr(up + 1);
            hop.dir.resize(up == 0 ? 1 : up);
            hop.wd = ::inotify_add_watch(fd_, hop.dir.c_str(), kPathMask | IN_MASK_ADD);
        }
        if (hop.wd < 0 && !absent(errno)) ok = false;
        hops_.push_back(std::move(hop));
    }
    int err = errno;
    for (int wd : old) {
        if (wd < 0) continue;
        bool kept = false;
        for (const auto& level : levels_) kept = kept || level.wd == wd;
        for (const auto& hop : hops_) kept = kept || hop.wd == wd;
        // The kernel may have dropped it already (IN_IGNORED): no matter.
        if (!kept) ::inotify_rm_watch(fd_, wd);
    }
    errno = err;
    return ok;
}

// Sorts one event into "concerns the key" and "the path moved".
void MonitoredKey::classify(const inotify_event& ev, bool& concerned, bool& moved) const {
    for (std::size_t i = 0; i < levels_.size(); ++i) {
        const Level& level = levels_[i];
        if (level.wd != ev.wd) continue;
        if (ev.mask & kSelfEvents) {
            moved = true;
            continue;
        }
        if (ev.len == 0) continue;
        if (level.name != ev.name) continue;
        if (i + 1 == levels_.size()) {
            concerned = true;  // the key itself
        } else {
            moved = true;  // a directory of the path
        }
    }
    for (const Level& hop : hops_) {
        if (hop.wd != ev.wd) continue;
        if (ev.mask & kSelfEvents) moved = true;
        if (ev.len != 0 && hop.name == ev.name) concerned = true;
    }
}

bool MonitoredKey::key_present() const {
    struct stat st;
    return ::stat(file_.c_str(), &st) == 0;
}

}  // namespace setMgmt
}  // namespace ald
