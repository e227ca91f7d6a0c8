// Thousands of restarts of a real updater by the whole daemon: its own main
// and hooks on the real platform library, with a stand-in updater that exits
// at once. The one thing changed is sleep(), wrapped so that the pause after
// each reap costs nothing and serves as the point where the daemon is looked
// at: it has just reaped its child and not yet started the next one, so it
// must have no child at all. After the last cycle its descriptors and heap
// must be what they were after the 100th.
//
// Runs in a private mount and network namespace (root only): a tmpfs on /opt
// holds the stand-in, and the LAN monitor sees no link of the machine's.
#include "state.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iostream>
#include <malloc.h>
#include <sched.h>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;

extern "C" int __real_main(int argc, char** argv);

// Present in sanitized builds, whose allocator is not malloc's.
extern "C" size_t __sanitizer_get_current_allocated_bytes() __attribute__((weak));

namespace {

constexpr long kWarmCycle = 100;
constexpr long kDefaultCycles = 5000;

// Kept off the heap, so that the first snapshot's figures are not part of
// the second's heap.
struct snapshot {
    size_t heap = 0;     // bytes allocated and not freed
    long rss_kib = 0;
    int fd_count = 0;
    char fds[4096] = {};  // "N -> target" lines, sorted
};

std::string g_unavailable;
pid_t g_daemon = 0;
long g_target = kDefaultCycles;
long g_cycles = 0;
std::vector<std::string> g_problems;
snapshot g_warm, g_last;

std::string errno_text(const char* what) { return std::string(what) + ": " + std::strerror(errno); }

// Exact only without malloc's per-thread cache, whose chunks count as in
// use (CMakeLists.txt turns it off for this test).
size_t heap_in_use() {
    if (__sanitizer_get_current_allocated_bytes) return __sanitizer_get_current_allocated_bytes();
    return mallinfo2().uordblks;
}

long rss_kib() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line))
        if (line.compare(0, 6, "VmRSS:") == 0) return std::strtol(line.c_str() + 6, nullptr, 10);
    return -1;
}

std::vector<std::string> fd_listing() {
    std::vector<std::string> fds;
    DIR* dir = ::opendir("/proc/self/fd");
    if (!dir) return fds;
    const int own = ::dirfd(dir);
    while (dirent* entry = ::readdir(dir)) {
        if (entry->d_name[0] == '.' || std::atoi(entry->d_name) == own) continue;
        char target[256] = {};
        const std::string link = std::string("/proc/self/fd/") + entry->d_name;
        const ssize_t n = ::readlink(link.c_str(), target, sizeof target - 1);
        fds.push_back(std::string(entry->d_name) + " -> " + (n > 0 ? target : "?"));
    }
    ::closedir(dir);
    std::sort(fds.begin(), fds.end());
    return fds;
}

// The heap first: what the listing allocates is freed again, but it would
// be counted while it is alive.
void take_snapshot(snapshot& s) {
    s.heap = heap_in_use();
    s.rss_kib = rss_kib();
    std::string text;
    const std::vector<std::string> fds = fd_listing();
    for (const std::string& fd : fds) text += fd + "\n";
    s.fd_count = static_cast<int>(fds.size());
    std::snprintf(s.fds, sizeof s.fds, "%s", text.c_str());
}

// The children of the thread that forks them (the event loop's, this one).
std::string children() {
    std::ifstream in("/proc/thread-self/children");
    std::string text;
    std::getline(in, text);
    while (!text.empty() && text.back() == ' ') text.pop_back();
    return text;
}

// The daemon's own copy of /opt: a tmpfs with an updater that exits at once.
void enter_sandbox() {
    if (::geteuid() != 0) {
        g_unavailable = "needs root: a private mount and network namespace with a tmpfs on /opt";
        return;
    }
    if (::unshare(CLONE_NEWNS | CLONE_NEWNET) != 0) {
        g_unavailable = errno_text("unshare");
        return;
    }
    if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        ::mount("ald-soak", "/opt", "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755") != 0) {
        g_unavailable = errno_text("tmpfs on /opt");
        return;
    }
    std::error_code ec;
    fs::create_directories("/opt/aldrana/sorvel", ec);
    fs::copy_file("/bin/true", "/opt/aldrana/sorvel/sorvelupd", ec);
    if (ec || ::chmod("/opt/aldrana/sorvel/sorvelupd", 0755) != 0) g_unavailable = "cannot install the stand-in";
}

}  // namespace

// The pause after a reap (and, in a child whose start failed, the pause
// before its exit, which the log then shows as status 1).
extern "C" unsigned __wrap_sleep(unsigned) {
    if (::getpid() != g_daemon) return 0;
    ++g_cycles;
    if (child_pid != 0) g_problems.push_back("cycle " + std::to_string(g_cycles) + ": a child is still recorded");
    const std::string left = children();
    if (!left.empty()) g_problems.push_back("cycle " + std::to_string(g_cycles) + ": children left: " + left);
    if (g_cycles == kWarmCycle) take_snapshot(g_warm);
    if (g_cycles == g_target) {
        take_snapshot(g_last);
        stop_requested = true;
    }
    return 0;
}

TEST(RestartSoak, ThousandsOfRestartsLeaveNoZombieAndNoGrowth) {
    enter_sandbox();
    if (!g_unavailable.empty()) GTEST_SKIP() << g_unavailable;
    if (const char* n = std::getenv("ALD_SOAK_CYCLES")) g_target = std::max(kWarmCycle + 1, std::atol(n));

    const char* root_env = std::getenv("ALD_ROOT");
    ASSERT_TRUE(root_env && *root_env) << "run through ctest, which gives the test its own ALD_ROOT";
    const std::string root = root_env;
    fs::create_directories(root + "/etc/aldrana");
    fs::create_directories(root + "/var");
    std::ofstream(root + "/etc/aldrana/updater.conf") << "{\"var_path\": \"" << root << "/var\", \"x\": [1]}\n";

    // The daemon's lines, kept for the count below.
    const std::string log_path = root + "/daemon.log";
    const int saved_stderr = ::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
    const int log_fd = ::open(log_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    ASSERT_GE(log_fd, 0);
    ::dup2(log_fd, STDERR_FILENO);
    ::close(log_fd);

    char name[] = "aldsorvelupdd";
    char* argv[] = {name, nullptr};
    g_daemon = ::getpid();
    const int status = __real_main(1, argv);

    ::dup2(saved_stderr, STDERR_FILENO);
    ::close(saved_stderr);

    EXPECT_EQ(status, 0);
    EXPECT_EQ(g_cycles, g_target);
    EXPECT_TRUE(g_problems.empty()) << g_problems.size() << " problems, the first: " << g_problems.front();
    EXPECT_STREQ(g_last.fds, g_warm.fds);
    EXPECT_EQ(g_last.heap, g_warm.heap);

    // Every cycle was a real updater that ran and exited with status 0.
    std::ifstream log(log_path);
    std::string line;
    long forks = 0, exits = 0, other = 0;
    std::string first_other;
    while (std::getline(log, line)) {
        if (line.find("]: fork sorvelupd [pid ") != std::string::npos) {
            ++forks;
        } else if (line.find("] has exited with status 0") != std::string::npos) {
            ++exits;
        } else if (line.find("]: start ald sorvelupd daemon") == std::string::npos &&
                   line.find("]: stop ald sorvelupd daemon") == std::string::npos) {
            if (other++ == 0) first_other = line;
        }
    }
    EXPECT_EQ(forks, g_target);
    EXPECT_EQ(exits, g_target);
    EXPECT_EQ(other, 0) << "the first unexpected line: " << first_other;

    std::cout << "soak: " << g_cycles << " restart cycles; after cycle " << kWarmCycle << ": " << g_warm.fd_count
              << " descriptors, heap " << g_warm.heap << " bytes, VmRSS " << g_warm.rss_kib << " KiB; after cycle "
              << g_cycles << ": " << g_last.fd_count << " descriptors, heap " << g_last.heap << " bytes, VmRSS "
              << g_last.rss_kib << " KiB\n";
}
