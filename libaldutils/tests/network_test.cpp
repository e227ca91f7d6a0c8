// SPDX-License-Identifier: MIT
// LAN interfaces over rtnetlink, each test in a network namespace of its
// own (root only), with links made by ip(8). How the daemon follows links
// as they come, go and are renamed is in tests/armvm.
#include <ald/network.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sched.h>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>

namespace fs = std::filesystem;
namespace nm = ald::netMgmt;
using namespace std::chrono_literals;
using names = std::vector<std::string>;

namespace {

void ip(const std::string& args) { ASSERT_EQ(std::system(("ip " + args).c_str()), 0) << args; }

// Whether `done` holds within 10 s.
template <typename Done> bool within(Done done) {
    for (int i = 0; i < 10000 && !done(); ++i) std::this_thread::sleep_for(1ms);
    return done();
}

// The state (R, S, ...; X once gone) of the task whose stat file is open
// on `fd`: read with no descriptor to spare.
char state(int fd) {
    char stat[512];
    const ssize_t n = ::pread(fd, stat, sizeof stat - 1, 0);
    stat[n > 0 ? n : 0] = '\0';
    const char* end = std::strrchr(stat, ')');
    return end && end[1] == ' ' ? end[2] : 'X';
}

class Lan : public ::testing::Test {
protected:
    void SetUp() override {
        if (::geteuid() != 0 || ::unshare(CLONE_NEWNET) != 0) GTEST_SKIP() << "needs root: a network namespace";
        fs::remove_all(std::getenv("ALD_ROOT"));
    }
    void TearDown() override { nm::uninit(); }
    // Reads the patterns (nullptr: no key) and starts the monitor.
    void start(const char* patterns) {
        const std::string dir = std::string(std::getenv("ALD_ROOT")) + "/etc/aldrana/settings/network/lan";
        fs::create_directories(dir);
        if (patterns) std::ofstream(dir + "/ifnames") << patterns << '\n';
        ASSERT_EQ(nm::init(true), 0);
    }
    names now() {  // in index order
        std::vector<nm::Interface> interfaces;
        EXPECT_EQ(nm::get_lan_interfaces(interfaces), 0);
        names list;
        for (const nm::Interface& interface : interfaces) list.push_back(interface.name);
        return list;
    }
};

TEST_F(Lan, WithoutTheKeyOnlyBrLanIsLanAndBlanksMakeNoLinkLan) {
    ip("link add lan1 type bridge");
    ip("link add br-lan type bridge");
    const std::pair<const char*, names> keys[] = {
        {nullptr, {"br-lan"}}, {"", {}}, {"lan? \t\nbr-*", {"lan1", "br-lan"}}};
    for (const auto& key : keys) {
        start(key.first);
        EXPECT_EQ(now(), key.second) << (key.first ? key.first : "no key");
        nm::uninit();
        fs::remove_all(std::getenv("ALD_ROOT"));
    }
}

// The monitor first cannot open a dump's socket (no descriptor free below
// the limit), then cannot even poll (a limit below its two descriptors).
// The limit comes back once the thread has tried, and nothing changes after.
TEST_F(Lan, TheMonitorReportsEachChangeOnceAfterFailuresAndUninitWaitsAndForgets) {
    ip("link add lan0 type bridge");
    ip("link add x1 type bridge");
    start("lan*");
    int stat = -1;
    for (const auto& task : fs::directory_iterator("/proc/self/task")) {
        std::string name;
        std::ifstream(task.path() / "comm") >> name;
        if (name == "ald-lan") stat = ::open((task.path() / "stat").c_str(), O_RDONLY | O_CLOEXEC);
    }
    ASSERT_GE(stat, 0) << "no monitor thread";
    std::vector<names> lists;  // read once uninit has waited for the last call
    std::atomic<bool> left{true};
    std::atomic<std::size_t> calls{0};
    nm::set_on_lan_interface_change([&](const std::vector<nm::Interface>& lan) {
        left = false;
        lists.emplace_back();
        for (const nm::Interface& interface : lan) lists.back().push_back(interface.name);
        ++calls;
        std::this_thread::sleep_for(300ms);
        left = true;
    });
    ip("link set lan0 up");  // a change of state only: no call (the daemon would not see one)
    rlimit files;
    ::getrlimit(RLIMIT_NOFILE, &files);
    const int free_fd = ::dup(0);
    ::close(free_fd);
    const std::pair<int, std::string> steps[] = {{free_fd, "x1 name lan1"}, {1, "lan1 name x1"}};
    for (std::size_t i = 0; i < 2; ++i) {
        EXPECT_TRUE(within([&] { return left.load(); }));
        // prlimit lowers this process's limit; ip wakes the thread before it returns.
        const std::string limit = "prlimit --nofile=" + std::to_string(steps[i].first) + ": --pid ";
        EXPECT_EQ(std::system((limit + std::to_string(::getpid()) + " && ip link set " + steps[i].second).c_str()), 0);
        EXPECT_TRUE(within([&] { return state(stat) != 'R'; }));
        ::setrlimit(RLIMIT_NOFILE, &files);
        EXPECT_TRUE(within([&] { return calls > i; })) << steps[i].second;
        // Once reported, the list owes nothing: no timer brings it back.
        if (i == 0) std::this_thread::sleep_for(1500ms);
    }
    nm::uninit();  // while the last call sleeps
    EXPECT_TRUE(left);
    EXPECT_EQ(lists, (std::vector<names>{{"lan0", "lan1"}, {"lan0"}})) << "called for a change of state";
    ASSERT_EQ(nm::init(true), 0);  // a new start has no callback
    ip("link add lan3 type bridge");
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(calls.load(), 2u);
    ::close(stat);
}

}  // namespace
