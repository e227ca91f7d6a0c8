// SPDX-License-Identifier: MIT
// The LAN interfaces over rtnetlink: link dumps on demand, and one thread
// that follows link notifications and reports the LAN list.
#include <ald/network.h>
#include <ald/settings.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdint>
#include <fnmatch.h>
#include <libmnl/libmnl.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <memory>
#include <mutex>
#include <new>
#include <poll.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

namespace ald {
namespace netMgmt {
namespace {

using Patterns = std::vector<std::string>;
using Callback = std::shared_ptr<const lan_change_callback>;

// Room for one read of a link dump: the kernel sizes its dump buffers by
// the reader's buffer and caps them at 32 KiB.
constexpr std::size_t kReceiveBuffer = 32768;

// A receive buffer mapped for one read loop and unmapped after it: on a
// stack its pages, once written, would stay the daemon's (and a thread's)
// for good, and the heap keeps them too.
class ReceiveBuffer {
public:
    ReceiveBuffer() {
        void* p = ::mmap(nullptr, kReceiveBuffer, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        data_ = p == MAP_FAILED ? nullptr : static_cast<char*>(p);
    }
    ~ReceiveBuffer() {
        if (data_) ::munmap(data_, kReceiveBuffer);
    }
    ReceiveBuffer(const ReceiveBuffer&) = delete;
    ReceiveBuffer& operator=(const ReceiveBuffer&) = delete;
    char* data() const { return data_; }

private:
    char* data_;
};
// A dump that the kernel marks as interrupted by a concurrent change is
// taken again, but not forever while links keep changing.
constexpr int kDumpAttempts = 5;
constexpr unsigned kDumpSeq = 1;
// A list that did not reach the callback (the dump failed for want of a
// descriptor or memory, or the callback threw) is tried again after 1 s,
// then after twice as long each time, up to 32 s: a shortage that lasts
// costs a socket and a dump every 32 s, and the list is wrong for at most
// 32 s after it ends. Only then does the thread wake without a change.
constexpr int kRetryFirstMs = 1000;
constexpr int kRetryMaxMs = 32000;
// How long the thread waits when poll itself fails (ENOMEM; EINVAL when
// RLIMIT_NOFILE is below its two descriptors) before it polls again.
constexpr auto kPollErrorPause = std::chrono::seconds(1);

// What the monitor thread owns. Its descriptors are opened by
// monitor_open and closed by monitor_close.
struct Monitor {
    std::shared_ptr<const Patterns> patterns;
    mnl_socket* events = nullptr;  // subscribed to RTMGRP_LINK, non-blocking
    int stop_fd = -1;              // eventfd; readable once uninit wants the thread gone
    pthread_t thread{};
    std::vector<Interface> known;  // the LAN list as the last dump saw it
    // What wakes the thread from a pause that poll cannot serve.
    std::mutex stop_mutex;
    std::condition_variable stop_wake;
    bool stopping = false;
};

std::mutex g_lifecycle;  // serialises init and uninit, joins included
bool g_initialised = false;
Monitor* g_monitor = nullptr;

std::mutex g_patterns_mutex;
std::shared_ptr<const Patterns> g_patterns;

std::mutex g_callback_mutex;
Callback g_callback;

// The patterns of "/network/lan/ifnames", split at blanks; "br-lan" without
// that key. A value of blanks only gives no pattern: no link is LAN.
std::shared_ptr<const Patterns> read_patterns() {
    std::string value;
    if (setMgmt::getKey("/network/lan/ifnames", value) != 0) value = "br-lan";
    auto patterns = std::make_shared<Patterns>();
    const char* blanks = " \t\n";
    std::string::size_type begin = value.find_first_not_of(blanks);
    while (begin != std::string::npos) {
        std::string::size_type end = value.find_first_of(blanks, begin);
        patterns->push_back(value.substr(begin, end == std::string::npos ? end : end - begin));
        begin = value.find_first_not_of(blanks, end);
    }
    return patterns;
}

bool is_lan(const Patterns& patterns, const char* name) {
    for (const std::string& pattern : patterns)
        if (::fnmatch(pattern.c_str(), name, 0) == 0) return true;
    return false;
}

struct Link {
    int index = 0;
    unsigned flags = 0;
    const char* name = "";  // points into the message
};

int on_link_attr(const nlattr* attr, void* data) {
    if (mnl_attr_get_type(attr) == IFLA_IFNAME && mnl_attr_validate(attr, MNL_TYPE_NUL_STRING) == 0)
        *static_cast<const char**>(data) = mnl_attr_get_str(attr);
    return MNL_CB_OK;
}

// Reads a link message. False for anything but a plain link: the bridge
// also sends AF_BRIDGE link messages about its ports, and its RTM_DELLINK
// then means a port left the bridge, not that a link is gone.
bool parse_link(const nlmsghdr* nlh, Link& link) {
    if (nlh->nlmsg_type != RTM_NEWLINK && nlh->nlmsg_type != RTM_DELLINK) return false;
    if (mnl_nlmsg_get_payload_len(nlh) < sizeof(ifinfomsg)) return false;
    const auto* ifi = static_cast<const ifinfomsg*>(mnl_nlmsg_get_payload(nlh));
    if (ifi->ifi_family != AF_UNSPEC) return false;
    link.index = ifi->ifi_index;
    link.flags = ifi->ifi_flags;
    link.name = "";
    mnl_attr_parse(nlh, sizeof(ifinfomsg), on_link_attr, &link.name);
    return true;
}

mnl_socket* open_socket(int flags, unsigned groups) {
    mnl_socket* nl = mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC | flags);
    if (!nl) return nullptr;
    if (mnl_socket_bind(nl, groups, MNL_SOCKET_AUTOPID) != 0) {
        int err = errno;
        mnl_socket_close(nl);
        errno = err;
        return nullptr;
    }
    return nl;
}

struct DumpScan {
    const Patterns* patterns;
    std::vector<Interface>* out;
};

// Runs inside libmnl, which is C: nothing may throw through it.
int on_dump_link(const nlmsghdr* nlh, void* data) {
    auto* scan = static_cast<DumpScan*>(data);
    Link link;
    if (!parse_link(nlh, link) || !is_lan(*scan->patterns, link.name)) return MNL_CB_OK;
    try {
        scan->out->push_back(Interface{link.name, link.index, link.flags});
    } catch (...) {
        errno = ENOMEM;
        return MNL_CB_ERROR;
    }
    return MNL_CB_OK;
}

// One dump on a socket of its own, so that it never reads another dump's
// leftovers or a notification. -1 with errno EINTR when the kernel says that
// links changed while it dumped.
int dump_once(const Patterns& patterns, std::vector<Interface>& out) {
    mnl_socket* nl = open_socket(0, 0);
    if (!nl) return -1;

    alignas(nlmsghdr) char request[64];
    nlmsghdr* nlh = mnl_nlmsg_put_header(request);
    nlh->nlmsg_type = RTM_GETLINK;
    nlh->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    nlh->nlmsg_seq = kDumpSeq;
    auto* ifi = static_cast<ifinfomsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(ifinfomsg)));
    ifi->ifi_family = AF_UNSPEC;

    int result = -1;
    const ReceiveBuffer buffer;
    char* const buf = buffer.data();
    if (!buf) errno = ENOMEM;
    if (buf && mnl_socket_sendto(nl, nlh, nlh->nlmsg_len) >= 0) {
        DumpScan scan{&patterns, &out};
        unsigned portid = mnl_socket_get_portid(nl);
        for (;;) {
            ssize_t n = mnl_socket_recvfrom(nl, buf, kReceiveBuffer);
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) break;
            int run = mnl_cb_run(buf, static_cast<size_t>(n), kDumpSeq, portid, on_dump_link, &scan);
            if (run == MNL_CB_ERROR) break;
            if (run == MNL_CB_STOP) {
                result = 0;
                break;
            }
        }
    }
    int err = errno;
    mnl_socket_close(nl);
    errno = err;
    return result;
}

// The LAN interfaces now, sorted by index; `out` is empty on failure.
int dump_lan(const Patterns& patterns, std::vector<Interface>& out) {
    for (int attempt = 1;; ++attempt) {
        out.clear();
        if (dump_once(patterns, out) == 0) break;
        if (errno != EINTR || attempt == kDumpAttempts) {
            int err = errno;
            out.clear();
            errno = err;
            return -1;
        }
    }
    std::sort(out.begin(), out.end(), [](const Interface& a, const Interface& b) { return a.index < b.index; });
    return 0;
}

struct EventScan {
    const Monitor* monitor;
    bool changed;
};

// A notification matters when it moves a link into or out of the LAN list
// or renames a LAN link; flag and state changes, and links outside the
// patterns, do not.
int on_event(const nlmsghdr* nlh, void* data) {
    auto* scan = static_cast<EventScan*>(data);
    Link link;
    if (!parse_link(nlh, link)) return MNL_CB_OK;
    const std::vector<Interface>& known = scan->monitor->known;
    auto it = std::find_if(known.begin(), known.end(), [&](const Interface& i) { return i.index == link.index; });
    bool was_lan = it != known.end();
    bool lan = nlh->nlmsg_type == RTM_NEWLINK && is_lan(*scan->monitor->patterns, link.name);
    if (lan != was_lan || (lan && it->name != link.name)) scan->changed = true;
    return MNL_CB_OK;
}

// Consumes every queued notification. True when one may have changed the
// LAN list, or when the kernel dropped some (ENOBUFS): only a dump can tell
// what those said.
bool read_events(Monitor* m) {
    const ReceiveBuffer buffer;
    char* const buf = buffer.data();
    if (!buf) return true;  // what was queued stays, and a dump tells the rest
    EventScan scan{m, false};
    for (;;) {
        ssize_t n = mnl_socket_recvfrom(m->events, buf, kReceiveBuffer);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && errno == ENOBUFS) {
            scan.changed = true;  // read the rest too, so that one dump covers all
            continue;
        }
        if (n < 0) return (errno == EAGAIN || errno == EWOULDBLOCK) ? scan.changed : true;
        if (mnl_cb_run(buf, static_cast<size_t>(n), 0, 0, on_event, &scan) == MNL_CB_ERROR) scan.changed = true;
    }
}

// Dumps and hands the list to the callback. False when the list did not
// reach it (the dump failed, or something threw).
bool report(Monitor* m) {
    try {
        std::vector<Interface> now;
        if (dump_lan(*m->patterns, now) != 0) return false;
        m->known.swap(now);
        Callback callback;
        {
            std::lock_guard<std::mutex> lock(g_callback_mutex);
            callback = g_callback;
        }
        if (callback) (*callback)(m->known);
        return true;
    } catch (...) {
        return false;
    }
}

// Waits for the pause after a failed poll; true when the stop request came.
bool pause_unless_stopped(Monitor* m) {
    std::unique_lock<std::mutex> lock(m->stop_mutex);
    return m->stop_wake.wait_for(lock, kPollErrorPause, [m] { return m->stopping; });
}

// Sleeps in poll until a notification or the stop request arrives, without
// a timeout while the last list reached the callback; the stop request
// wins. While a list is owed, any notification or the retry timer reports
// again. No error ends the thread: only uninit does.
void* monitor_main(void* arg) {
    auto* m = static_cast<Monitor*>(arg);
    int retry_ms = -1;  // a list is owed when not -1
    for (;;) {
        pollfd fds[2] = {{m->stop_fd, POLLIN, 0}, {mnl_socket_get_fd(m->events), POLLIN, 0}};
        const int ready = ::poll(fds, 2, retry_ms);
        if (ready < 0 && errno == EINTR) continue;
        if (ready < 0 && pause_unless_stopped(m)) break;
        if (ready < 0) continue;
        if (fds[0].revents != 0) break;
        const bool changed = fds[1].revents != 0 && read_events(m);
        if (!changed && retry_ms < 0) continue;
        if (report(m)) {
            retry_ms = -1;
        } else {
            retry_ms = retry_ms < 0 ? kRetryFirstMs : std::min(2 * retry_ms, kRetryMaxMs);
        }
    }
    return nullptr;
}

// Subscribes and takes the first list, in that order, so that no change
// can fall between the two. -1 with errno; monitor_close undoes it.
int monitor_open(Monitor* m) {
    m->events = open_socket(SOCK_NONBLOCK, RTMGRP_LINK);
    if (!m->events) return -1;
    m->stop_fd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (m->stop_fd < 0) return -1;
    return dump_lan(*m->patterns, m->known);
}

void monitor_close(Monitor* m) {
    if (m->stop_fd >= 0) ::close(m->stop_fd);
    if (m->events) mnl_socket_close(m->events);
    delete m;
}

// The thread blocks every signal: a daemon that takes SIGCHLD through a
// signalfd needs it blocked in every thread, and no signal may wake the
// thread either.
int monitor_spawn(Monitor* m) {
    sigset_t all, saved;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &saved);
    int err = pthread_create(&m->thread, nullptr, monitor_main, m);
    pthread_sigmask(SIG_SETMASK, &saved, nullptr);
    // Its name tells it apart in ps -T and top -H.
    if (err == 0) pthread_setname_np(m->thread, "ald-lan");
    if (err == 0) return 0;
    errno = err;
    return -1;
}

Monitor* monitor_start(const std::shared_ptr<const Patterns>& patterns) {
    auto* m = new (std::nothrow) Monitor;
    if (!m) {
        errno = ENOMEM;
        return nullptr;
    }
    m->patterns = patterns;
    if (monitor_open(m) != 0 || monitor_spawn(m) != 0) {
        int err = errno;
        monitor_close(m);
        errno = err;
        return nullptr;
    }
    return m;
}

// Returns once the thread has left, also when it was inside the callback.
void monitor_stop(Monitor* m) {
    {
        std::lock_guard<std::mutex> lock(m->stop_mutex);
        m->stopping = true;
    }
    m->stop_wake.notify_one();
    std::uint64_t one = 1;
    while (::write(m->stop_fd, &one, sizeof one) < 0 && errno == EINTR) {
    }
    pthread_join(m->thread, nullptr);
    monitor_close(m);
}

}  // namespace

int init(bool) {
    std::lock_guard<std::mutex> lifecycle(g_lifecycle);
    if (g_initialised) {
        errno = EALREADY;
        return -1;
    }
    std::shared_ptr<const Patterns> patterns;
    try {
        patterns = read_patterns();
    } catch (...) {
        errno = ENOMEM;
        return -1;
    }
    g_monitor = monitor_start(patterns);
    if (!g_monitor) return -1;
    {
        std::lock_guard<std::mutex> lock(g_patterns_mutex);
        g_patterns = std::move(patterns);
    }
    g_initialised = true;
    return 0;
}

void uninit() {
    Callback dropped;
    std::lock_guard<std::mutex> lifecycle(g_lifecycle);
    {
        std::lock_guard<std::mutex> lock(g_callback_mutex);
        dropped = std::move(g_callback);
    }
    if (!g_initialised) return;
    monitor_stop(g_monitor);
    g_monitor = nullptr;
    {
        std::lock_guard<std::mutex> lock(g_patterns_mutex);
        g_patterns.reset();
    }
    g_initialised = false;
}

int get_lan_interfaces(std::vector<Interface>& out) {
    out.clear();
    std::shared_ptr<const Patterns> patterns;
    {
        std::lock_guard<std::mutex> lock(g_patterns_mutex);
        patterns = g_patterns;
    }
    if (!patterns) {
        errno = EINVAL;
        return -1;
    }
    return dump_lan(*patterns, out);
}

void set_on_lan_interface_change(lan_change_callback callback) {
    Callback fresh;
    if (callback) fresh = std::make_shared<const lan_change_callback>(std::move(callback));
    std::lock_guard<std::mutex> lock(g_callback_mutex);
    fresh.swap(g_callback);
}  // the old callback is destroyed here, outside the lock

}  // namespace netMgmt
}  // namespace ald
