// SPDX-License-Identifier: MIT
// The status file after each kind of event, as someone looking at the
// device reads it. The updater's output directory is missing, so that each
// child fails before exec and exits with status 1.
#include "config.h"
#include "harness.h"
#include "hooks.h"
#include "state.h"
#include "status.h"
#include "supervision.h"

#include <ald/settings.h>
#include <ald/version.h>

#include <csignal>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <sched.h>
#include <sys/wait.h>

namespace {

class Status : public DaemonTest {
protected:
    void SetUp() override {
        DaemonTest::SetUp();
        std::filesystem::create_directories(run_dir);
        put("updater.conf", "{\"var_path\": \"/nonexistent\"}");
        put("settings/system/app_id", "status-test\n");
        ASSERT_TRUE(start());
    }
    // The file's `key` (or `key`.`inner`) as compact JSON; "(none)" without it.
    std::string shown(const char* key, const char* inner = nullptr) const {
        json_ptr status(json_load_file((run_dir + "/aldsorvelupdd.json").c_str(), 0, nullptr));
        json_t* value = json_object_get(status.get(), key);
        char* text = json_dumps(inner ? json_object_get(value, inner) : value, JSON_ENCODE_ANY | JSON_COMPACT);
        const std::string result = text ? text : "(none)";
        std::free(text);
        return result;
    }
    long long since_start(const char* key, const char* inner = nullptr) const { return std::atoll(shown(key, inner).c_str()) - since; }
    const std::string run_dir = std::string(std::getenv("ALD_ROOT")) + "/var/run";
    const long long since = std::time(nullptr);
};

// The record lives as long as the process and holds earlier tests' starts
// and exits: counts are read against what the file said first.
TEST_F(Status, FollowsStartsExitsAndWritesAndGoesAtAStop) {
    status_flush();
    const int starts = std::stoi(shown("starts"));
    EXPECT_EQ(shown("config", "connect_appid"), "\"status-test\"") << "init's write not shown";
    EXPECT_EQ(shown("daemon"), "{\"pid\":" + std::to_string(::getpid()) + ",\"version\":\"" + ald::version() + "\"}");
    fail_call("_ZN3ald4forkESt16initializer_listIiE", 1);
    start_sorvelupd();  // no updater: no start
    start_sorvelupd();
    status_flush();
    EXPECT_EQ(shown("pid"), std::to_string(child_pid));
    EXPECT_EQ(shown("starts"), std::to_string(starts + 1));
    EXPECT_GE(since_start("started"), 0);

    pollfd exited{signal_fd, POLLIN, 0};
    ASSERT_EQ(::poll(&exited, 1, 5000), 1);
    process_signal();
    status_flush();
    EXPECT_EQ(shown("pid"), "0");
    EXPECT_EQ(shown("last_exit", "status"), "1");
    EXPECT_GE(since_start("last_exit", "at"), 0);

    child_pid = spawn_child(kStubborn);
    siginfo_t killed;
    ::kill(child_pid, SIGKILL);
    ::waitid(P_PID, child_pid, &killed, WEXITED | WNOWAIT);
    ASSERT_TRUE(wait_sorvelupd());
    child_pid = 0;
    status_flush();
    EXPECT_EQ(shown("last_exit", "signal"), "9");

    put("settings/privacy/aur", "0\n");
    update_aur_config(ald::kPrivacySettingKey);
    status_flush();
    EXPECT_EQ(shown("config"), R"({"aur_enabled":false,"pcap_device":[],"connect_appid":"status-test"})");
    EXPECT_EQ(shown("config_failed"), "false");

    // A privacy write after a failed LAN write copies the old list.
    fail_replace(ald::replace_step::rename, 1);
    update_lan_config();
    put("settings/privacy/aur", "1\n");
    update_aur_config(ald::kPrivacySettingKey);
    status_flush();
    EXPECT_EQ(shown("config_failed"), "true") << "the LAN list is still owed";
    // updater.conf is written, the status is not: its next write waits for
    // the next change, never an idle pass.
    fail_replace(ald::replace_step::fill, 2);
    update_lan_config();
    status_flush();
    const int writes = calls("replace_file");
    status_flush();
    EXPECT_EQ(calls("replace_file"), writes) << "written again with nothing changed";

    fail_replace(ald::replace_step::rename, 1);
    put("settings/privacy/aur", "0\n");
    update_aur_config(ald::kPrivacySettingKey);
    status_flush();
    EXPECT_EQ(shown("config_failed"), "true");
    EXPECT_EQ(shown("config", "aur_enabled"), "true") << "not the last value written";

    std::string shown_in_loop, running;  // the loop's own start, as shown
    on_wait = [&](int) {
        shown_in_loop = shown("pid");
        running = std::to_string(child_pid);
        stop();
    };
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(shown_in_loop, running);
    EXPECT_EQ(shown("pid"), "(none)") << "left behind at a clean stop";
}

// Read against /proc/uptime, a time must come from the boot clock: in a time
// namespace whose boot clock is years ahead, as after a long suspend, neither
// the wall clock nor the monotonic one gives it.
TEST_F(Status, TimesSinceBootAreTheBootClocks) {
    constexpr long long kAhead = 100000000;
    const pid_t child = ::fork();
    if (child == 0) {  // only its children enter the namespace it makes
        std::ofstream offsets("/proc/self/timens_offsets");
        if (::unshare(CLONE_NEWTIME) != 0 || !(offsets << "boottime " << kAhead << " 0" << std::flush)) ::_exit(77);
        if (::fork() == 0) { status_started(1); status_ended(0); status_flush(); ::_exit(0); }
        int status = -1;
        ::_exit(::wait(&status) > 0 && status == 0 ? 0 : 1);
    }
    int status = -1;
    ::waitpid(child, &status, 0);
    if (WEXITSTATUS(status) == 77) GTEST_SKIP() << "no time namespace";
    ASSERT_EQ(status, 0);
    timespec boot{};
    ::clock_gettime(CLOCK_BOOTTIME, &boot);
    const long long now = boot.tv_sec + kAhead;
    EXPECT_LE(std::llabs(now - std::atoll(shown("started_uptime").c_str())), 2);
    EXPECT_LE(std::llabs(now - std::atoll(shown("last_exit", "at_uptime").c_str())), 2);
}

}  // namespace
