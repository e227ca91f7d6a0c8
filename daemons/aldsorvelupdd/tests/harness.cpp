// SPDX-License-Identifier: MIT
#include "harness.h"

#include "hooks.h"
#include "state.h"

#include <ald/settings.h>

#include <cerrno>
#include <csignal>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <jansson.h>
#include <map>
#include <regex>
#include <sstream>
#include <sys/epoll.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;
using ald::netMgmt::lan_change_callback;

int pauses = 0;
std::function<void()> on_pause;
std::function<void(int)> on_wait;
lan_change_callback lan_callback;
std::function<void()> on_uninit;

namespace {

struct scripted {
    int calls = 0, nth = -1, err = 0;
};
std::map<std::string, scripted> g_calls;
const pid_t g_test_pid = ::getpid();
std::vector<pid_t> g_spawned;

// Counts the call; true when this one is scripted to fail (errno set).
bool fails(const char* name) {
    scripted& s = g_calls[name];
    if (++s.calls != s.nth && s.nth != 0) return false;
    errno = s.err;
    return true;
}

}  // namespace

void fail_call(const std::string& name, int nth, int err) { g_calls[name] = {0, nth, err}; }
int calls(const std::string& name) { return g_calls[name].calls; }

#define WRAP(type, failed, name, params, args)                     \
    extern "C" type __real_##name params;                          \
    extern "C" type __wrap_##name params { return fails(#name) ? failed : __real_##name args; }
WRAP(int, -1, epoll_create, (int n), (n))
WRAP(int, -1, epoll_ctl, (int e, int op, int fd, epoll_event* ev), (e, op, fd, ev))
WRAP(int, -1, sigemptyset, (sigset_t * s), (s))
WRAP(int, -1, sigaddset, (sigset_t * s, int n), (s, n))
WRAP(int, -1, sigprocmask, (int how, const sigset_t* s, sigset_t* old), (how, s, old))
WRAP(int, -1, signalfd, (int fd, const sigset_t* s, int f), (fd, s, f))
WRAP(int, -1, pipe2, (int* p, int f), (p, f))
WRAP(int, -1, json_dump_file, (const json_t* j, const char* p, size_t f), (j, p, f))
WRAP(json_t*, nullptr, json_array, (), ())
// setMgmt::init, netMgmt::init, fork and Instance::on_stop_pipe, mangled.
WRAP(int, -1, _ZN3ald7setMgmt4initEb, (bool b), (b))
WRAP(int, -1, _ZN3ald7netMgmt4initEb, (bool b), (b))
WRAP(pid_t, -1, _ZN3ald4forkESt16initializer_listIiE, (std::initializer_list<int> l), (l))
WRAP(int, -1, _ZN3ald6daemon8Instance12on_stop_pipeEv, (void* self), (self))

// ald::replace_file: a scripted call fails at its step as the
// library reports it, and touches no file. (The result is a C++ type: the
// wraps keep the C++ calling convention of what they wrap.)
#ifdef __clang__
#pragma clang diagnostic ignored "-Wreturn-type-c-linkage"
#endif
namespace {
ald::replace_step g_failing_step = ald::replace_step::none;

bool replace_fails(const ald::path& dir, const ald::replace_options& options, ald::replace_result& r) {
    if (!fails("replace_file")) return false;
    r.failed = g_failing_step;
    r.error = errno;
    r.temp = dir;
    r.temp.add_piece(true, std::string(options.prefix.data, options.prefix.length) + "XXXXXXXX");
    return true;
}
}  // namespace

void fail_replace(ald::replace_step step, int nth, int err) {
    g_failing_step = step;
    fail_call("replace_file", nth, err);
}

extern "C" ald::replace_result
__real__ZN3ald12replace_fileERKNS_4pathENS_17basic_string_viewIcEERKSt8functionIFbiPKcEERKNS_15replace_optionsE(
    const ald::path& dir, ald::basic_string_view<char> name, const ald::replace_writer& fill, const ald::replace_options& o);
extern "C" ald::replace_result
__wrap__ZN3ald12replace_fileERKNS_4pathENS_17basic_string_viewIcEERKSt8functionIFbiPKcEERKNS_15replace_optionsE(
    const ald::path& dir, ald::basic_string_view<char> name, const ald::replace_writer& fill, const ald::replace_options& o) {
    ald::replace_result r;
    if (replace_fails(dir, o, r)) return r;
    return __real__ZN3ald12replace_fileERKNS_4pathENS_17basic_string_viewIcEERKSt8functionIFbiPKcEERKNS_15replace_optionsE(
        dir, name, fill, o);
}

// MonitoredKey::read_notifications: a scripted failure makes the watch's
// descriptor unreadable, as a broken one would be.
extern "C" bool __real__ZN3ald7setMgmt12MonitoredKey18read_notificationsEv(ald::setMgmt::MonitoredKey* key);
extern "C" bool __wrap__ZN3ald7setMgmt12MonitoredKey18read_notificationsEv(ald::setMgmt::MonitoredKey* key) {
    if (fails("read_notifications")) {
        const int fd = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
        ::dup2(fd, key->get_fd());
        ::close(fd);
    }
    return __real__ZN3ald7setMgmt12MonitoredKey18read_notificationsEv(key);
}

// netMgmt::set_on_lan_interface_change: the callback is kept for the tests.
extern "C" void __real__ZN3ald7netMgmt27set_on_lan_interface_changeESt8functionIFvRKSt6vectorINS0_9InterfaceESaIS3_EEEE(
    lan_change_callback callback);
extern "C" void __wrap__ZN3ald7netMgmt27set_on_lan_interface_changeESt8functionIFvRKSt6vectorINS0_9InterfaceESaIS3_EEEE(
    lan_change_callback callback) {
    lan_callback = callback;
    __real__ZN3ald7netMgmt27set_on_lan_interface_changeESt8functionIFvRKSt6vectorINS0_9InterfaceESaIS3_EEEE(callback);
}

extern "C" void __real__ZN3ald7netMgmt6uninitEv();
extern "C" void __wrap__ZN3ald7netMgmt6uninitEv() {
    if (on_uninit) on_uninit();
    __real__ZN3ald7netMgmt6uninitEv();
}

// Once a SIGKILL is delivered, its target is dead before the daemon polls:
// the number of attempts does not depend on the scheduler.
extern "C" int __real_kill(pid_t pid, int sig);
extern "C" int __wrap_kill(pid_t pid, int sig) {
    const int result = __real_kill(pid, sig);
    siginfo_t info;
    if (result == 0 && sig == SIGKILL) ::waitid(pid < 0 ? P_PGID : P_PID, pid < 0 ? -pid : pid, &info, WEXITED | WNOWAIT);
    return result;
}

extern "C" int __real_epoll_wait(int e, epoll_event* ev, int n, int t);
extern "C" int __wrap_epoll_wait(int e, epoll_event* ev, int n, int t) {
    if (fails("epoll_wait")) return -1;
    if (on_wait) on_wait(calls("epoll_wait"));
    return __real_epoll_wait(e, ev, n, t);
}

// The daemon's pauses cost nothing, and neither do a failed child's.
extern "C" unsigned __wrap_sleep(unsigned) {
    if (::getpid() != g_test_pid) return 0;
    ++pauses;
    if (on_pause) on_pause();
    return 0;
}

// The daemon's own main stays linked in; -Wl,--wrap=main starts the tests.
extern "C" int __wrap_main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}

pid_t spawn_child(int status) {
    const pid_t pid = ::fork();
    siginfo_t info;
    if (pid > 0) g_spawned.push_back(pid);
    // Its group exists before this returns: a TearDown that came before the
    // child's own setpgid would miss it, and it would hold ctest's output.
    if (pid > 0) ::setpgid(pid, pid);
    if (pid > 0 && status >= 0) ::waitid(P_PID, pid, &info, WEXITED | WNOWAIT);
    if (pid != 0) return pid;
    ::setpgid(0, 0);
    if (status >= 0) ::_exit(status);
    ::signal(SIGTERM, SIG_IGN);
    if (::fork() == 0) ::pause();
    for (;;) ::pause();
}

void DaemonTest::SetUp() {
    const char* root = std::getenv("ALD_ROOT");
    ASSERT_TRUE(root && *root) << "run through ctest, which gives every test its own ALD_ROOT";
    // CMake's ALD_ROOT ends in slashes, which no path of the daemon's repeats.
    etc = std::string(root).erase(std::string(root).find_last_not_of('/') + 1) + "/etc/aldrana";
    fs::remove_all(root);
    put("settings/network/lan/ifnames", "ald-test-no-link*\n");
    // A SIGCHLD still pending from an earlier test would be this one's first record.
    sigset_t all;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_UNBLOCK, &all, nullptr);
    g_calls.clear();
    pauses = 0;
    on_pause = nullptr;
    on_wait = nullptr;
    log_file_ = std::string(root) + "/daemon.log";
    saved_stderr_ = ::fcntl(2, F_DUPFD_CLOEXEC, 3);
    const int fd = ::open(log_file_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    ::dup2(fd, 2);
    ::close(fd);
}

void DaemonTest::TearDown() {
    for (pid_t pid : g_spawned) ::killpg(pid, SIGKILL);
    g_spawned.clear();
    if (child_pid > 0) ::killpg(child_pid, SIGKILL);
    while (::waitpid(-1, nullptr, WNOHANG) > 0) {
    }
    on_uninit = nullptr;
    ald::netMgmt::uninit();
    if (stop_write_ >= 0) ::close(stop_write_);
    stop_write_ = -1;
    ::dup2(saved_stderr_, 2);
    ::close(saved_stderr_);
    stop_fd = epoll_fd = signal_fd = lan_pipe[0] = lan_pipe[1] = child_pid = 0;
    stop_requested = false;
    lan_interfaces.clear();
    last_aur_enabled = -1;
    aur_write_owed = false;
    lan_callback = nullptr;
}

std::vector<std::string> DaemonTest::log() const {
    // The file is a base name: "info: [config.cpp:12][run()]: message" reads "info run: message".
    static const std::regex line_format(R"(^(error|warning|info): \[[a-z_]+\.cpp:[0-9]+\]\[([a-z_]+)\(\)\]: (.*)$)");
    std::vector<std::string> lines;
    std::smatch parts;
    std::ifstream in(log_file_);
    for (std::string line; std::getline(in, line);) {
        const bool parsed = std::regex_match(line, parts, line_format);
        lines.push_back(parsed ? parts.str(1) + " " + parts.str(2) + ": " + parts.str(3) : "unparsed: " + line);
    }
    return lines;
}

bool DaemonTest::start() {
    int fds[2];
    if (::pipe(fds) != 0) return false;
    stop_fd = fds[0];
    stop_write_ = fds[1];
    return init();
}

void DaemonTest::stop() { (void)!::write(stop_write_, "s", 1); }

void DaemonTest::put(const std::string& file, const std::string& text) {
    fs::create_directories(fs::path(etc + "/" + file).parent_path());
    std::ofstream(etc + "/" + file) << text;
}

std::string DaemonTest::get(const std::string& file) const {
    std::stringstream text;
    text << std::ifstream(etc + "/" + file).rdbuf();
    return text.str();
}

std::string DaemonTest::conf_key(const char* name) const {
    json_t* conf = json_load_file((etc + "/updater.conf").c_str(), 0, nullptr);
    char* text = json_dumps(json_object_get(conf, name), JSON_ENCODE_ANY | JSON_COMPACT);
    const std::string value = text ? text : "(none)";
    std::free(text);
    json_decref(conf);
    return value;
}

std::set<int> DaemonTest::open_fds() {
    std::set<int> open;
    for (int fd = 0; fd < 1024; ++fd)
        if (::fcntl(fd, F_GETFD) != -1) open.insert(fd);
    return open;
}
