// The scripted platform: framework, settings store, network, processes and
// the log sink, all recording into the journal.
#include "double.h"
#include "internal.h"
#include "real.h"

#include <ald/daemon.h>
#include <ald/log.h>
#include <ald/process.h>
#include <ald/settings.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <fcntl.h>
#include <mutex>
#include <new>

namespace {

constexpr pid_t kNoSuchPid = 2000000000;  // above any pid_max: signals to it fail harmlessly

std::atomic<bool> g_in_child{false};
std::atomic<long> g_child_allocations{0};
thread_local int g_quiet = 0;

std::mutex g_platform_mutex;
ald::netMgmt::lan_change_callback g_lan_callback;
std::weak_ptr<ald::daemon::Instance> g_instance;
int g_stop_write = -1;
long g_owners_during_run = -1;
bool* g_stop_flag_during_run = nullptr;

ald::setMgmt::MonitoredKey::handler_type g_watch_handler = nullptr;
ald::path g_watch_key;
bool g_watch_alive = false;
int g_watch_write = -1;

const char* level_name(int level) {
    switch (level) {
    case 0: return "error";
    case 1: return "warning";
    case 2: return "info";
    }
    return "level?";
}

bool refuse_name(const std::string& name) { return name.empty() || name.find('=') != std::string::npos; }

long scripted(const std::string& call, long fallback) {
    dbl::outcome o;
    if (!dbl::take(call, o)) return fallback;
    if (o.err) errno = o.err;
    return o.result;
}

}  // namespace

namespace dbl {

bool in_child() { return g_in_child.load(); }
long child_allocations() { return g_child_allocations.load(); }
int stop_write_fd() { return g_stop_write; }
long instance_owners_during_run() { return g_owners_during_run; }
bool* stop_flag_during_run() { return g_stop_flag_during_run; }

ald::netMgmt::lan_change_callback lan_callback() {
    std::lock_guard<std::mutex> lock(g_platform_mutex);
    return g_lan_callback;
}

bool watch_alive() { return g_watch_alive; }
std::string watch_key() { return g_watch_key.c_str() ? g_watch_key.c_str() : ""; }
bool call_watch_handler() { return g_watch_handler && g_watch_handler(g_watch_key); }

namespace detail {

quiet::quiet() noexcept { ++g_quiet; }
quiet::~quiet() { --g_quiet; }

void enter_child() {
    g_child_allocations = 0;
    g_in_child = true;
}

void leave_child() { g_in_child = false; }

void count_allocation() {
    if (g_in_child.load() && g_quiet == 0) ++g_child_allocations;
}

void reset_platform() {
    std::lock_guard<std::mutex> lock(g_platform_mutex);
    g_lan_callback = nullptr;
    g_in_child = false;
    g_owners_during_run = -1;
    g_stop_flag_during_run = nullptr;
}

}  // namespace detail
}  // namespace dbl

// ---- log sink -------------------------------------------------------------

namespace ald {
namespace log {

int current_level = 2;

void print(std::uint32_t, level lvl, basic_string_view<char> line) {
    dbl::detail::quiet q;
    std::string text = line.str();
    dbl::detail::record_log(static_cast<int>(lvl), text);
    // "[file:line][func()]: message" is journaled as "log LEVEL func: message".
    std::string entry = std::string("log ") + level_name(static_cast<int>(lvl)) + ' ';
    auto open = text.find("][");
    auto close = text.find("()]: ");
    if (text.size() > 0 && text[0] == '[' && open != std::string::npos && close != std::string::npos && close > open)
        entry += text.substr(open + 2, close - open - 2) + ": " + text.substr(close + 5);
    else
        entry += text;
    dbl::record(entry);
}

}  // namespace log

// ---- daemon framework ---------------------------------------------------------

namespace daemon {

std::shared_ptr<Instance> instance(int argc, char**) {
    dbl::detail::quiet q;
    dbl::record("daemon::instance " + std::to_string(argc));
    std::shared_ptr<Instance> made(new Instance);
    g_instance = made;
    return made;
}

int Instance::on_stop_pipe() {
    dbl::detail::quiet q;
    dbl::record("Instance::on_stop_pipe");
    dbl::outcome o;
    if (dbl::take("Instance::on_stop_pipe", o)) {
        if (o.err) errno = o.err;
        return static_cast<int>(o.result);
    }
    int fds[2];
    if (__real_pipe2(fds, O_CLOEXEC | O_NONBLOCK) < 0) return -1;
    stop_read_ = fds[0];
    stop_write_ = g_stop_write = fds[1];
    handed_over_ = true;
    return stop_read_;
}

int Instance::run() {
    {
        dbl::detail::quiet q;
        dbl::record("Instance::run");
        // The caller's reference plus the one taken here.
        auto self = g_instance.lock();
        g_owners_during_run = self.use_count();
        g_stop_flag_during_run = stop_flag;
        dbl::outcome o;
        if (dbl::take("Instance::run", o)) return static_cast<int>(o.result);
    }
    if (!init_hook || !init_hook()) return 1;
    return run_hook ? run_hook() : 0;
}

Instance::~Instance() {
    dbl::detail::quiet q;
    dbl::record("~Instance");
    if (stop_write_ >= 0) __real_close(stop_write_);
    if (g_stop_write == stop_write_) g_stop_write = -1;
}

}  // namespace daemon

// ---- processes ------------------------------------------------------------

pid_t fork(std::initializer_list<int> default_signals) {
    dbl::detail::quiet q;
    std::string entry = "fork";
    for (int sig : default_signals) entry += ' ' + std::to_string(sig);
    dbl::record(entry);
    pid_t pid = static_cast<pid_t>(scripted("fork", kNoSuchPid));
    if (pid == 0) dbl::detail::enter_child();
    return pid;
}

Environ::Environ() {
    dbl::detail::quiet q;
    dbl::record("Environ");
}

bool Environ::set(const std::string& name, const std::string& value, bool overwrite) {
    dbl::detail::quiet q;
    dbl::record("Environ::set " + name + ' ' + value + ' ' + (overwrite ? "true" : "false"));
    if (refuse_name(name)) return false;
    for (auto& entry : entries_) {
        if (entry.compare(0, name.size() + 1, name + '=') == 0) {
            if (overwrite) entry = name + '=' + value;
            return true;
        }
    }
    entries_.push_back(name + '=' + value);
    return true;
}

char** Environ::to_environ() const {
    dbl::detail::quiet q;
    dbl::record("Environ::to_environ");
    array_.clear();
    for (const auto& entry : entries_) array_.push_back(const_cast<char*>(entry.c_str()));
    array_.push_back(nullptr);
    return array_.data();
}

// ---- settings store -------------------------------------------------------

const path kPrivacySettingKey("/privacy/aur");
const path kAppIdKey("/system/app_id");

namespace setMgmt {

int init(bool create) {
    dbl::detail::quiet q;
    dbl::record(std::string("setMgmt::init ") + (create ? "true" : "false"));
    return static_cast<int>(scripted("setMgmt::init", 0));
}

void uninit() {
    dbl::detail::quiet q;
    dbl::record("setMgmt::uninit");
}

std::string store_directory() { return "/nonexistent/settings"; }
bool valid_key(const std::string& key) { return !key.empty() && key[0] == '/'; }

int getKey(const std::string& key, std::string& value) {
    dbl::detail::quiet q;
    dbl::record("setMgmt::getKey " + key);
    auto it = dbl::store().find(key);
    if (it == dbl::store().end()) return -1;
    value = it->second;
    return 0;
}

int enumSubkeys(const std::string& key, std::vector<std::string>& names) {
    dbl::detail::quiet q;
    dbl::record("setMgmt::enumSubkeys " + key);
    auto it = dbl::subkeys().find(key);
    if (it == dbl::subkeys().end()) return -1;
    names = it->second;
    return 0;
}

int getKeyValue(const std::string& key, int default_value) {
    dbl::detail::quiet q;
    dbl::record("setMgmt::getKeyValue " + key + ' ' + std::to_string(default_value));
    dbl::outcome o;
    dbl::take("setMgmt::getKeyValue", o);  // for its action only
    auto it = dbl::store().find(key);
    if (it == dbl::store().end()) return default_value;
    errno = 0;
    char* end = nullptr;
    long v = std::strtol(it->second.c_str(), &end, 10);
    if (errno || end == it->second.c_str() || *end || v < INT_MIN || v > INT_MAX) return default_value;
    return static_cast<int>(v);
}

std::string getKeyValue(const std::string& key, const std::string& default_value) {
    dbl::detail::quiet q;
    dbl::record("setMgmt::getKeyValue " + key + ' ' + default_value);
    dbl::outcome o;
    dbl::take("setMgmt::getKeyValue", o);  // for its action only
    auto it = dbl::store().find(key);
    return it == dbl::store().end() ? default_value : it->second;
}

int setKey(const std::string& key, const std::string& value) {
    dbl::detail::quiet q;
    dbl::record("setMgmt::setKey " + key + ' ' + value);
    dbl::store()[key] = value;
    return 0;
}

int deleteKey(const std::string& key) {
    dbl::detail::quiet q;
    dbl::record("setMgmt::deleteKey " + key);
    return dbl::store().erase(key) ? 0 : -1;
}

MonitoredKey::MonitoredKey(const path& key, handler_type handler, int flags, bool subkeys)
    : key_(key), handler_(handler), flags_(flags), subkeys_(subkeys) {
    dbl::detail::quiet q;
    dbl::record("MonitoredKey " + std::string(key_.c_str() ? key_.c_str() : "") + ' ' + std::to_string(flags) +
                ' ' + (subkeys ? "true" : "false"));
    g_watch_handler = handler_;
    g_watch_key = key_;
    g_watch_alive = true;
}

MonitoredKey::~MonitoredKey() {
    dbl::detail::quiet q;
    dbl::record("~MonitoredKey");
    forget();
    g_watch_alive = false;
    g_watch_handler = nullptr;
}

// The double's descriptor is the read end of a real pipe, so that the
// daemon can put it into a real epoll set.
int MonitoredKey::get_fd() {
    dbl::detail::quiet q;
    dbl::record("MonitoredKey::get_fd");
    dbl::outcome o;
    if (dbl::take("MonitoredKey::get_fd", o)) return static_cast<int>(o.result);
    if (cancelled_) return -1;
    if (fd_ < 0) {
        int fds[2];
        if (__real_pipe2(fds, O_CLOEXEC | O_NONBLOCK) < 0) return -1;
        fd_ = fds[0];
        g_watch_write = fds[1];
    }
    return fd_;
}

bool MonitoredKey::read_notifications() {
    dbl::outcome o;
    {
        dbl::detail::quiet q;
        dbl::record("MonitoredKey::read_notifications");
        if (!dbl::take("MonitoredKey::read_notifications", o)) return true;
    }
    if (o.result == 0) {
        // Given up: the caller closes the read end.
        fd_ = -1;
        if (g_watch_write >= 0) __real_close(g_watch_write);
        g_watch_write = -1;
        return false;
    }
    return true;
}

void MonitoredKey::cancel() {
    dbl::detail::quiet q;
    dbl::record("MonitoredKey::cancel");
    cancelled_ = true;
    forget();
}

void MonitoredKey::forget() {
    if (fd_ >= 0) __real_close(fd_);
    if (g_watch_write >= 0) __real_close(g_watch_write);
    fd_ = g_watch_write = -1;
}

}  // namespace setMgmt

// ---- network management ---------------------------------------------------

namespace netMgmt {

int init(bool monitor) {
    dbl::detail::quiet q;
    dbl::record(std::string("netMgmt::init ") + (monitor ? "true" : "false"));
    return static_cast<int>(scripted("netMgmt::init", 0));
}

void uninit() {
    dbl::detail::quiet q;
    dbl::record("netMgmt::uninit");
}

int get_lan_interfaces(std::vector<Interface>& out) {
    dbl::detail::quiet q;
    dbl::record("netMgmt::get_lan_interfaces");
    out = dbl::lan_report();
    return static_cast<int>(scripted("netMgmt::get_lan_interfaces", 0));
}

void set_on_lan_interface_change(lan_change_callback callback) {
    dbl::detail::quiet q;
    dbl::record("netMgmt::set_on_lan_interface_change");
    std::lock_guard<std::mutex> lock(g_platform_mutex);
    g_lan_callback = std::move(callback);
}

int monitor_thread_id() { return 0; }

}  // namespace netMgmt
}  // namespace ald

// Counts heap allocations made by daemon code in a child that runs inside
// the test process (it must allocate nothing between fork and exec).
void* operator new(std::size_t size) {
    dbl::detail::count_allocation();
    if (void* p = std::malloc(size ? size : 1)) return p;
    throw std::bad_alloc();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
