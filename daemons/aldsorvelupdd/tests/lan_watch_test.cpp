// SPDX-License-Identifier: MIT
// The LAN callback that init registers, called here as the network
// client's thread would: the sorted list kept, one wake-up byte per
// change, never a wait, and never a list half written for the loop.
#include "config.h"
#include "harness.h"
#include "hooks.h"
#include "state.h"

#include <algorithm>
#include <atomic>
#include <thread>
#include <unistd.h>

namespace {

using LanWatch = DaemonTest;
using names = std::vector<std::string>;

std::vector<ald::netMgmt::Interface> report(const names& list) {
    std::vector<ald::netMgmt::Interface> interfaces;
    for (const std::string& name : list) interfaces.push_back({name, 7, 0});
    return interfaces;
}

int wake_ups() {  // the bytes waiting, drained
    char drained[64];
    return std::max(0, static_cast<int>(::read(lan_pipe[0], drained, sizeof drained)));
}

struct report_step {
    names reported;
    names kept;
    int wake_ups;
};
const report_step kReports[] = {
    {{"eth1", "br0", "br0", "", "\xc3\xa4", "B"}, {"", "B", "br0", "br0", "eth1", "\xc3\xa4"}, 1},
    {{"br0", "\xc3\xa4", "B", "eth1", "", "br0"}, {"", "B", "br0", "br0", "eth1", "\xc3\xa4"}, 0},
    {{"br0", "eth1", "", "\xc3\xa4", "B", "lan"}, {"", "B", "br0", "eth1", "lan", "\xc3\xa4"}, 1},  // one renamed
    {{}, {}, 1},
};

TEST_F(LanWatch, AChangedListIsKeptSortedWakesTheLoopOnceAndIsNeverSeenHalfWritten) {
    put("updater.conf", "{}");
    ASSERT_TRUE(start());
    ASSERT_TRUE(lan_callback);
    for (const report_step& step : kReports) {
        lan_callback(report(step.reported));
        EXPECT_EQ(lan_interfaces, step.kept);
        EXPECT_EQ(wake_ups(), step.wake_ups);
    }
    while (::write(lan_pipe[1], "x", 1) == 1) {
    }
    lan_callback(report({"lan1"}));  // returns although the pipe is full
    EXPECT_EQ(lan_interfaces, names{"lan1"});
    std::atomic<bool> done{false};
    std::thread client([&done] {
        for (int i = 0; !done; ++i) lan_callback(report(i % 2 ? names{"a", "b"} : names{"c"}));
    });
    for (int i = 0; i < 300; ++i) {
        update_lan_config();
        const std::string written = conf_key("pcap_device");
        EXPECT_TRUE(written == R"(["a","b"])" || written == R"(["c"])" || written == R"(["lan1"])") << written;
    }
    done = true;
    client.join();
    stop();
    run();
}

}  // namespace
