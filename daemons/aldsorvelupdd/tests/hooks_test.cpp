// SPDX-License-Identifier: MIT
// main, init and the event loop: what only scripted failures and crafted
// batches of events reach. The whole job, end to end: tests/system, tests/armvm.
#include "harness.h"
#include "hooks.h"
#include "state.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

extern "C" int __real_main(int argc, char** argv);

namespace {

using lines = std::vector<std::string>;
const std::string kStart = "info init: start ald sorvelupd daemon";
const std::string kStop = "info run: stop ald sorvelupd daemon";

// What stopping an updater that has exited with status 0 logs.
lines stopped(pid_t pid) {
    const std::string p = std::to_string(pid);
    return {"info kill_and_wait_sorvelupd: sent signal #15 to sorvelupd [pid " + p + "]",
            "info wait_sorvelupd: sorvelupd [pid " + p + "] has exited with status 0"};
}

lines operator+(lines a, const lines& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

using Hooks = DaemonTest;

TEST_F(Hooks, WithoutAStopPipeMainReturnsOneAndStartsNothing) {
    fail_call("_ZN3ald6daemon8Instance12on_stop_pipeEv", 1);
    char name[] = "aldsorvelupdd";
    char* argv[] = {name, nullptr};
    EXPECT_EQ(__real_main(1, argv), 1);
    EXPECT_EQ(log(), (lines{}));
}

struct init_step {
    const char* call;  // the wrapped call that fails, and which of its calls
    int nth;
    const char* message;
};
// epoll_ctl: each descriptor is first modified (ENOENT), then added.
const init_step kInitSteps[] = {
    {"epoll_create", 1, "failed to open epoll"},
    {"epoll_ctl", 2, "failed to add stop exec fd to epoll"},
    {"sigemptyset", 1, "failed to init signal mask"},
    {"sigaddset", 1, "failed to add SIGCHLD to signal mask"},
    {"sigprocmask", 1, "failed to change signal mask"},
    {"signalfd", 1, "failed to open signal fd"},
    {"epoll_ctl", 4, "failed to add signal fd to epoll"},
    {"pipe2", 1, "failed to create update lan pipe"},
    {"epoll_ctl", 6, "failed to add update lan pipe to epoll"},
    {"_ZN3ald7setMgmt4initEb", 1, "failed to init aldsetmgmt"},
    {"_ZN3ald7netMgmt4initEb", 1, "failed to init aldnetmgmt"},
};

class InitFailure : public DaemonTest, public ::testing::WithParamInterface<init_step> {};

TEST_P(InitFailure, LogsTheStepAndClosesWhatItOpenedAndTheStopPipe) {
    const std::set<int> before = open_fds();
    put("../../var/run/aldsorvelupdd.json", "{\"pid\": 1}");  // a killed predecessor's
    put(".aldsorvelupdd-a1b2c3d4", "{");                        // and its copies cut short,
    put("../../var/run/.aldsorvelupdd-a1b2c3d4", "{");
    put(".tmp-a1b2c3d4", "{");                                  // not another program's
    fail_call(GetParam().call, GetParam().nth);
    EXPECT_FALSE(start());
    EXPECT_EQ(get("../../var/run/aldsorvelupdd.json"), "") << "the status of an updater that is gone";
    EXPECT_EQ(get(".tmp-a1b2c3d4"), "{");
    EXPECT_EQ(log(), (lines{kStart, "info remove_stale_copies: removed 2 temporary files left by an earlier daemon",
                            std::string("error init: ") + GetParam().message, "info init: stop ald sorvelupd daemon"}));
    std::set<int> after = open_fds();
    for (int fd : before) EXPECT_EQ(after.erase(fd), 1u) << fd << " was closed";
    EXPECT_EQ(after.size(), 1u) << "more than the stop pipe's write end is left";
}
INSTANTIATE_TEST_SUITE_P(EachStep, InitFailure, ::testing::ValuesIn(kInitSteps));

// The loop with an updater that has exited before SIGCHLD was blocked, so
// that nothing reports it: the loop cannot start another (no var_path), and
// the shutdown reaps it. Every descriptor but the stop pipe's write end is
// closed at the end, the LAN pipe only after the network client has
// stopped: a change it reports until then must find its pipe, not a
// descriptor closed, or taken by something else, since.
class Loop : public DaemonTest {
protected:
    void SetUp() override {
        DaemonTest::SetUp();
        put("updater.conf", "{}");
        child = spawn_child(0);
        before = open_fds();
        ASSERT_TRUE(start());
        child_pid = child;
        last_aur_enabled = 1;
        on_uninit = [this] { lan_pipe_open = ::fcntl(lan_pipe[1], F_GETFD) != -1; };
    }
    void TearDown() override {
        EXPECT_EQ(open_fds().size(), before.size() + 1) << "descriptors left open";
        EXPECT_TRUE(lan_pipe_open) << "the LAN pipe closed before the network client stopped";
        DaemonTest::TearDown();
    }
    // Runs the loop; the stop request comes before the wait of pass `last`.
    int run_to(int last) {
        on_wait = [this, last](int pass) {
            if (pass == last) stop();
        };
        return run();
    }
    pid_t child = 0;
    std::set<int> before;
    bool lan_pipe_open = false;
};

// A failed call of the loop's: logged, and the loop goes on to the second
// wait, before which the stop request comes (2 waits), or shuts down (1).
const struct loop_failure {
    const char* call;
    int nth, err, waits;
    lines logged;
} kLoopFailures[] = {
    {"epoll_wait", 1, EINTR, 2, {"warning run: waiting on epoll was interrupted by a signal"}},
    {"epoll_wait", 1, EBADF, 1, {"error run: failed to wait on epoll"}},
    {"epoll_ctl", 0, EPERM, 2, {"error run: failed to add notif fd to epoll", "error run: failed to add notif fd to epoll"}},
};
class LoopFailure : public Loop, public ::testing::WithParamInterface<loop_failure> {};

TEST_P(LoopFailure, IsLoggedAndTheLoopGoesOnOrShutsDownAndReturnsZero) {
    fail_call(GetParam().call, GetParam().nth, GetParam().err);
    EXPECT_EQ(run_to(2), 0);
    EXPECT_EQ(calls("epoll_wait"), GetParam().waits);
    EXPECT_EQ(log(), lines{kStart} + GetParam().logged + stopped(child) + lines{kStop});
}
INSTANTIATE_TEST_SUITE_P(EachCall, LoopFailure, ::testing::ValuesIn(kLoopFailures));

// A change seen only by a read that breaks still counts; the broken
// descriptor is closed and a fresh one sees the next change.
TEST_F(Loop, AnUnreadableWatchIsClosedAndAFreshOneWatches) {
    fail_call("read_notifications", 1);
    on_wait = [this](int pass) {
        if (pass == 1) put("settings/privacy/aur", "0\n");
        if (pass == 2) put("settings/privacy/aur", "1\n");
        if (pass == 3) stop();
    };
    const int renames = calls("json_dump_file");
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(calls("json_dump_file") - renames, 2);
    EXPECT_EQ(conf_key("aur_enabled"), "true");
    const std::string no_file = "error start_sorvelupd: failed to get file for redirection";
    EXPECT_EQ(log(), (lines{kStart} + stopped(child) + lines{no_file, no_file, kStop}));
}

TEST_F(Loop, QueuedLanWakeUpsCostOneStopAndOneRewrite) {
    ASSERT_EQ(::write(lan_pipe[1], "...", 3), 3);
    const int renames = calls("json_dump_file");
    EXPECT_EQ(run_to(2), 0);
    EXPECT_EQ(calls("json_dump_file") - renames, 1);
    EXPECT_EQ(log(), (lines{kStart} + stopped(child) + lines{"error start_sorvelupd: failed to get file for redirection", kStop}));
}

}  // namespace
