// SPDX-License-Identifier: MIT
// The updater's launch, reap and stop where the system tests cannot steer
// them: a failed fork, crafted signal records, and the stop series against
// children that will not die or are not the daemon's, the pauses free.
#include "harness.h"
#include "state.h"
#include "supervision.h"

#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <sys/signalfd.h>
#include <unistd.h>

namespace {

using Supervision = DaemonTest;

// `text` with any "%d" as `pid`.
std::string with_pid(std::string text, pid_t pid) {
    const auto at = text.find("%d");
    return at == std::string::npos ? text : text.replace(at, 2, std::to_string(pid));
}

TEST_F(Supervision, AFailedForkIsLoggedAndLeavesNoChildRecorded) {
    put("updater.conf", "{\"var_path\": \"/\"}");
    fail_call("_ZN3ald4forkESt16initializer_listIiE", 1);
    start_sorvelupd();
    EXPECT_EQ(child_pid, 0);
    EXPECT_EQ(log(), (std::vector<std::string>{"error start_sorvelupd: failed to fork sorvelupd",
                                               "info start_sorvelupd: fork sorvelupd [pid 0]"}));
}

TEST_F(Supervision, OnlyASigchldFromTheUpdaterReapsItAndPauses) {
    const struct {
        int signo;  // 0: no record to read
        bool from_updater, exited;
        const char* line;      // logged, "%d": the updater
        bool recorded = true;  // false: no child recorded, a record of pid 0 (a sender outside our pid namespace)
    } records[] = {
        {SIGCHLD, true, false, "warning wait_sorvelupd: sorvelupd [pid %d] is still running"},  // stopped, say
        {SIGCHLD, false, true, nullptr},
        {0, true, true, "error process_signal: failed to read signal info"},
        {SIGCHLD, false, true, nullptr, false},
    };
    for (const auto& r : records) {
        const pid_t updater = child_pid = spawn_child(r.exited ? 4 : kStubborn);
        int pipe[2];
        ASSERT_EQ(::pipe2(pipe, O_NONBLOCK), 0);
        signalfd_siginfo record{};
        record.ssi_signo = static_cast<uint32_t>(r.signo);
        record.ssi_pid = static_cast<uint32_t>(!r.recorded ? 0 : r.from_updater ? updater : updater + 1);
        if (!r.recorded) child_pid = 0;
        if (r.signo != 0) (void)!::write(pipe[1], &record, sizeof record);
        signal_fd = pipe[0];
        const size_t logged = log().size();
        const int paused = pauses;
        process_signal();
        ::close(pipe[0]);
        ::close(pipe[1]);
        const bool reaped = r.signo == SIGCHLD && r.from_updater;
        std::vector<std::string> lines = log();
        lines.erase(lines.begin(), lines.begin() + static_cast<long>(logged));
        EXPECT_EQ(lines, r.line ? std::vector<std::string>{with_pid(r.line, updater)} : std::vector<std::string>{});
        EXPECT_EQ(child_pid, reaped || !r.recorded ? 0 : updater) << "forgotten";
        EXPECT_EQ(pauses - paused, reaped ? 1 : 0);
    }
}

const char kSent15[] = "info kill_and_wait_sorvelupd: sent signal #15 to sorvelupd [pid %d]";
struct stop_case {
    bool not_ours;  // the grandchild: no child to wait for, no group to kill
    std::vector<std::pair<const char*, int>> lines;  // each line ("%d": the pid) and how often
    int pauses;
};
// The last row is also the failed kill: the grandchild leads no group, so
// both SIGKILLs fail, each logged and paused after with no wait (a SIGKILL
// to the pid itself, not its group, would succeed).
const stop_case kStops[] = {
    {false,
     {{kSent15, 16}, {"warning wait_sorvelupd: sorvelupd [pid %d] is still running", 16},
      {"info kill_and_wait_sorvelupd: sent signal #9 to sorvelupd [pid %d]", 1}, {"info wait_sorvelupd: sorvelupd [pid %d] has exited", 1}},
     16},
    {true,
     {{kSent15, 16}, {"error wait_sorvelupd: failed to wait for sorvelupd [pid %d]", 16},
      {"error kill_and_wait_sorvelupd: failed to send signal #9 to sorvelupd [pid %d]", 2}},
     18},
};

class StopSeries : public DaemonTest, public ::testing::WithParamInterface<stop_case> {};

TEST_P(StopSeries, LogsEveryAttemptAndPausesAfterEachThatDidNotReap) {
    const stop_case& c = GetParam();
    const std::string child = std::to_string(child_pid = spawn_child(kStubborn));
    std::string children;
    while (children.empty()) std::getline(std::ifstream("/proc/" + child + "/task/" + child + "/children"), children);
    if (c.not_ours) child_pid = std::stoi(children);
    const pid_t pid = child_pid;
    kill_and_wait_sorvelupd();
    const std::vector<std::string> lines = log();
    size_t expected = 0;
    for (const auto& line : c.lines) {
        EXPECT_EQ(std::count(lines.begin(), lines.end(), with_pid(line.first, pid)), line.second) << line.first;
        expected += static_cast<size_t>(line.second);
    }
    EXPECT_EQ(lines.size(), expected);
    EXPECT_EQ(pauses, c.pauses);
    EXPECT_EQ(child_pid, c.not_ours ? pid : 0) << "reaped or not";
}
INSTANTIATE_TEST_SUITE_P(Cases, StopSeries, ::testing::ValuesIn(kStops));

}  // namespace
