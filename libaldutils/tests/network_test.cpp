// LAN interfaces over rtnetlink, each test in a network namespace of its
// own (root only), with links made by ip(8). How the daemon follows links
// as they come, go and are renamed is in tests/armvm.
#include <ald/network.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <sched.h>
#include <thread>
#include <unistd.h>

namespace fs = std::filesystem;
namespace nm = ald::netMgmt;
using namespace std::chrono_literals;
using names = std::vector<std::string>;

namespace {

void ip(const std::string& args) { ASSERT_EQ(std::system(("ip " + args).c_str()), 0) << args; }

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
        {nullptr, {"br-lan"}}, {"", {}}, {" \t", {}}, {"lan? \t\nbr-*", {"lan1", "br-lan"}}};
    for (const auto& key : keys) {
        start(key.first);
        EXPECT_EQ(now(), key.second) << (key.first ? key.first : "no key");
        nm::uninit();
        fs::remove_all(std::getenv("ALD_ROOT"));
    }
}

TEST_F(Lan, TheMonitorCallsBackForLinksAndUninitWaitsAndForgets) {
    ip("link add lan0 type bridge");
    start("lan*");
    std::atomic<int> calls{0};
    std::atomic<size_t> first{0};
    std::atomic<bool> left{false};
    nm::set_on_lan_interface_change([&](const std::vector<nm::Interface>& lan) {
        if (calls++ == 0) first = lan.size();
        std::this_thread::sleep_for(300ms);
        left = true;
    });
    ip("link set lan0 up");  // a change of state only: no call (the daemon would not see one)
    ip("link add lan1 type bridge");
    while (calls == 0) std::this_thread::sleep_for(1ms);
    nm::uninit();
    EXPECT_TRUE(left);
    EXPECT_EQ(first, 2u) << "called for a change of state";
    ASSERT_EQ(nm::init(true), 0);  // a new start has no callback
    ip("link add lan2 type bridge");
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(calls, 1);
}

}  // namespace
