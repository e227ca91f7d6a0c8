// SPDX-License-Identifier: MIT
// The watch on one settings key: inotify on every directory of the key's
// way, the mount table beside it, both behind one epoll set.
//
// Each step of the way is looked up in a directory; that directory is
// watched for the step's name when the step can change by its entries (a
// link, a missing name, the key's file), and for its own move or deletion
// otherwise, which is all a directory that merely lies on the way can do to
// it (a directory with the rest of the way in it cannot be replaced by a
// rename, nor removed). Whatever else changes the way is a mount.
//
// The key's file is watched itself too, for writes made through another
// name (a bind mount of the file, a hard link). A watch the kernel ends
// (its directory deleted, its file system unmounted) places them all anew,
// even when the way reads as before: a new inode may have the old number.
//
// The watches are placed after a resolution and the key is then resolved
// again: a change between the two shows as a different way, placed and
// checked once more, so none falls between a look and its watch.
#include <ald/log.h>
#include <ald/settings.h>

#include "mount_table.h"

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

namespace ald {
namespace setMgmt {
namespace {

// What a directory does to itself, which moves the way elsewhere.
constexpr std::uint32_t kSelfMask = IN_DELETE_SELF | IN_MOVE_SELF;
// Names coming and going in a directory.
constexpr std::uint32_t kEntryMask = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO;
// In-place writes count when the writer closes the file, so that the handler
// never reads half of a write.
constexpr std::uint32_t kFileMask = kEntryMask | IN_CLOSE_WRITE;
// Besides the events asked for, a watch reports its directory's file system
// unmounted and its own end.
constexpr std::uint32_t kGone = kSelfMask | IN_UNMOUNT | IN_IGNORED;

// How often one refresh places the watches again while the way keeps
// changing under it; the events of a change after the last round bring
// the next refresh.
constexpr int kRounds = 16;

// A directory that cannot be watched because it is not there (any more):
// the resolution that follows the placing sees it.
bool absent(int err) {
    return err == ENOENT || err == ENOTDIR || err == ELOOP || err == EACCES || err == ENAMETOOLONG;
}

bool same_way(const Resolution& a, const Resolution& b) {
    if (a.error != b.error || a.steps.size() != b.steps.size()) return false;
    for (std::size_t i = 0; i < a.steps.size(); ++i) {
        const Resolution::Step &x = a.steps[i], &y = b.steps[i];
        if (x.kind != y.kind || x.name != y.name || x.dir_dev != y.dir_dev || x.dir_ino != y.dir_ino ||
            x.dev != y.dev || x.ino != y.ino)
            return false;
    }
    return true;
}

// What the key's file is: its device and inode, or nothing.
struct Target {
    bool found;
    dev_t dev;
    ino_t ino;
    bool operator==(const Target& o) const { return found == o.found && (!found || (dev == o.dev && ino == o.ino)); }
};

Target target_of(const Resolution& way) {
    if (!way.found()) return {false, 0, 0};
    return {true, way.steps.back().dev, way.steps.back().ino};
}

std::uint32_t mask_of(const Resolution& way, std::size_t step) {
    const Resolution::Step& s = way.steps[step];
    if (step + 1 == way.steps.size() && (s.kind == Resolution::Kind::file || s.kind == Resolution::Kind::missing))
        return kSelfMask | kFileMask;
    return s.kind == Resolution::Kind::directory ? kSelfMask : kSelfMask | kEntryMask;
}

// Once per process: the daemon's log says it, not every new descriptor.
void say_no_mounts(int err) {
    static std::atomic<bool> said{false};
    if (said.exchange(true)) return;
    const std::string line = std::string("settings watch: no mount table (/proc/self/mountinfo: ") +
                             std::strerror(err) + "): mounts on the way to a key are not seen";
    log::print(0, log::level::warning, basic_string_view<char>(line.data(), static_cast<std::uint32_t>(line.size())));
}

void poke(int fd) {
    const std::uint64_t one = 1;
    while (::write(fd, &one, sizeof one) < 0 && errno == EINTR) {
    }
}

bool add(int epoll, int fd) {
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.fd = fd;
    return ::epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &ev) == 0;
}

}  // namespace

MonitoredKey::MonitoredKey(const path& key, handler_type handler, int, bool) : key_(key), handler_(handler) {}

MonitoredKey::~MonitoredKey() { cancel(); }

int MonitoredKey::get_fd() {
    if (fd_ >= 0) return fd_;
    if (cancelled_) return -1;
    if (!open()) {
        const int err = errno;
        close_inner();
        if (fd_ >= 0) ::close(fd_);
        fd_ = -1;
        errno = err;
        return -1;
    }
    // A watch made again owes one call: the key may have changed while
    // there was none.
    if (made_) {
        owed_ = true;
        poke(event_);
    }
    made_ = true;
    return fd_;
}

// The mount table is opened before the first resolution, so that a mount
// made while the way is being looked at is reported.
bool MonitoredKey::open() {
    const std::string key = key_.c_str() ? key_.c_str() : "";
    if (key.size() != key_.size() || !valid_key(key)) {
        errno = EINVAL;
        return false;
    }
    fd_ = ::epoll_create1(EPOLL_CLOEXEC);
    if (fd_ < 0 || ::fcntl(fd_, F_SETFL, O_NONBLOCK) != 0) return false;
    inotify_ = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (inotify_ < 0 || !add(fd_, inotify_)) return false;
    event_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (event_ < 0 || !add(fd_, event_)) return false;
    mounts_ = new (std::nothrow) detail::MountTable;
    if (!mounts_) {
        errno = ENOMEM;
        return false;
    }
    if (mounts_->open(event_) != 0) {
        if (errno != ENOENT && errno != EACCES) return false;
        say_no_mounts(errno);
        delete mounts_;
        mounts_ = nullptr;
    }
    way_ = Resolution();
    wds_.clear();
    return refresh();
}

bool MonitoredKey::read_notifications() {
    if (fd_ < 0) return false;
    // Which of the two is ready; a descriptor that is no epoll set any more
    // (closed and reused, or broken) says so here.
    epoll_event ready[2];
    int n;
    while ((n = ::epoll_wait(fd_, ready, 2, 0)) < 0 && errno == EINTR) {
    }
    bool broken = n < 0;
    bool resolve = false;
    bool touched = false;
    bool lost = false;
    for (int i = 0; i < n && !broken; ++i) {
        std::uint64_t count;
        if (ready[i].data.fd == inotify_) {
            read_events(resolve, touched, lost);
            broken = inotify_ < 0;
        } else if (ready[i].data.fd == event_ && ::read(event_, &count, sizeof count) == sizeof count) {
            // The mount table changed, or the watch was made again.
            resolve = true;
            touched = touched || owed_;
            owed_ = false;
        }
    }
    if (!broken && (resolve || lost)) {
        const Target before = target_of(way_);
        if (lost) way_ = Resolution();  // placed anew, whatever the way reads
        broken = !refresh();
        if (!(target_of(way_) == before)) touched = true;
    }
    if (broken) {
        // Gone with the descriptor: events, and with them any change of the
        // key, may have been lost. The caller closes the descriptor.
        close_inner();
        fd_ = -1;
        touched = true;
    }
    if (touched && handler_) handler_(key_);
    return !broken;
}

// Sorts the pending events into "the way may have changed", "the key's
// file was written" and "a watch was ended by the kernel". A read that
// fails leaves inotify_ closed.
void MonitoredKey::read_events(bool& resolve, bool& touched, bool& lost) {
    alignas(inotify_event) char buf[4096];
    for (;;) {
        const ssize_t n = ::read(inotify_, buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && errno == EAGAIN) return;
        if (n <= 0) {
            ::close(inotify_);
            inotify_ = -1;
            return;
        }
        for (ssize_t off = 0; off < n;) {
            const auto* ev = reinterpret_cast<const inotify_event*>(buf + off);
            off += static_cast<ssize_t>(sizeof(inotify_event) + ev->len);
            if (ev->mask & IN_Q_OVERFLOW) {
                // Events were dropped: any of them may have been the key's.
                resolve = touched = true;
                continue;
            }
            const bool ended = ev->mask & (IN_IGNORED | IN_UNMOUNT);
            if (ev->wd == file_wd_) {
                touched = touched || (ev->mask & IN_CLOSE_WRITE);
                lost = lost || ended;
            }
            for (std::size_t i = 0; i < wds_.size(); ++i) {
                if (wds_[i] != ev->wd) continue;
                lost = lost || ended;
                if (ev->mask & kGone) {
                    resolve = true;
                } else if (ev->len != 0 && way_.steps[i].name == ev->name) {
                    const bool last = i + 1 == wds_.size();
                    // A write in place leaves the way as it was.
                    resolve = resolve || !(last && ev->mask == IN_CLOSE_WRITE);
                    touched = touched || last;
                }
            }
        }
    }
}

// Resolves the key and, while the way differs from the one watched, places
// the watches along the new one and looks again. False when a watch cannot
// be placed for want of resources (ENOSPC, ENOMEM).
bool MonitoredKey::refresh() {
    const std::string key = key_.c_str();
    for (int round = 0; round < kRounds; ++round) {
        Resolution now;
        resolve(key, now);
        if (same_way(now, way_)) return true;
        if (!place(now)) return false;
        way_ = std::move(now);
    }
    return true;
}

// One watch per directory of the way, with the union of what its steps
// need; watches of directories that left the way are removed.
bool MonitoredKey::place(const Resolution& way) {
    std::vector<int> wds(way.steps.size(), -1);
    for (std::size_t i = 0; i < way.steps.size(); ++i) {
        if (wds[i] != -1) continue;
        const Resolution::Step& s = way.steps[i];
        std::uint32_t mask = 0;
        for (std::size_t j = i; j < way.steps.size(); ++j) {
            const Resolution::Step& o = way.steps[j];
            if (o.dir_dev == s.dir_dev && o.dir_ino == s.dir_ino) mask |= mask_of(way, j);
        }
        const int wd = ::inotify_add_watch(inotify_, s.dir.c_str(), mask | IN_ONLYDIR | IN_DONT_FOLLOW);
        if (wd < 0 && !absent(errno)) return false;
        for (std::size_t j = i; j < way.steps.size(); ++j) {
            const Resolution::Step& o = way.steps[j];
            if (o.dir_dev == s.dir_dev && o.dir_ino == s.dir_ino) wds[j] = wd < 0 ? -2 : wd;
        }
    }
    for (int& wd : wds)
        if (wd == -2) wd = -1;
    // The file itself, for writes through another of its names.
    int file_wd = -1;
    if (way.found()) {
        file_wd = ::inotify_add_watch(inotify_, way.file.c_str(), IN_CLOSE_WRITE | IN_DONT_FOLLOW);
        if (file_wd < 0 && !absent(errno)) return false;
    }
    std::vector<int> old = std::move(wds_);
    old.push_back(file_wd_);
    for (int wd : old) {
        bool kept = wd < 0 || wd == file_wd;
        for (int now : wds) kept = kept || now == wd;
        // The kernel may have dropped it already (IN_IGNORED): no matter.
        if (!kept) ::inotify_rm_watch(inotify_, wd);
    }
    wds_ = std::move(wds);
    file_wd_ = file_wd;
    return true;
}

void MonitoredKey::cancel() {
    cancelled_ = true;
    close_inner();
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
}

void MonitoredKey::close_inner() {
    delete mounts_;
    mounts_ = nullptr;
    if (inotify_ >= 0) ::close(inotify_);
    inotify_ = -1;
    if (event_ >= 0) ::close(event_);
    event_ = -1;
    way_ = Resolution();
    wds_.clear();
    file_wd_ = -1;
}

}  // namespace setMgmt
}  // namespace ald
