// The updater's launch, the bounded stop, the non-blocking wait and the
// handling of SIGCHLD records, against the scripted platform.
#include "fixture.h"
#include "supervision.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <vector>

namespace {

using lines = std::vector<std::string>;

const std::string kEnvKey = "/daemons/aldsorvelupdd/env_vars";
const std::string kUpdater = "/opt/aldrana/sorvel/sorvelupd";

// The journal without the double's own bookkeeping of the builder.
lines calls() {
    lines out;
    for (auto& e : dbl::journal())
        if (e != "Environ") out.push_back(e);
    return out;
}

// Everything journaled after the first entry equal to `marker`.
lines after(const std::string& marker) {
    auto all = dbl::journal();
    auto at = std::find(all.begin(), all.end(), marker);
    EXPECT_NE(at, all.end()) << marker;
    return at == all.end() ? lines{} : lines(at + 1, all.end());
}

// A wait status as the kernel builds it.
int exited(int code) { return (code & 0xff) << 8; }
int killed(int sig, bool core = false) { return sig | (core ? 0x80 : 0); }

// One signalfd record as the kernel hands it over: all 128 bytes.
std::string record(std::uint32_t signo, std::uint32_t pid) {
    signalfd_siginfo info;
    std::memset(&info, 0, sizeof info);
    info.ssi_signo = signo;
    info.ssi_pid = pid;
    // Decoys in the neighbouring fields: a reader of the wrong offset would
    // find the recorded child's pid here.
    info.ssi_code = CLD_EXITED;
    info.ssi_uid = 42;
    info.ssi_status = 42;
    info.ssi_int = 42;
    std::string bytes(sizeof info, '\0');
    std::memcpy(&bytes[0], &info, sizeof info);
    return bytes;
}

}  // namespace

class SupervisionTest : public DaemonTest {
protected:
    void SetUp() override {
        DaemonTest::SetUp();
        fresh();
    }

    // A clean double for the next case of a table: pauses are free and no
    // case may signal a real process, whatever it scripts.
    static void fresh() {
        dbl::reset();
        dbl::always("sleep", dbl::ok(0));
        dbl::always("kill", dbl::ok(0));
    }

    void write_config(const std::string& var_path) {
        write_file(config_file(), "{\"var_path\": \"" + var_path + "\", \"aur_enabled\": true}");
    }
};

// ---- start_sorvelupd -----------------------------------------------------

TEST_F(SupervisionTest, WithoutAnOutputFileNothingIsStarted) {
    const struct {
        const char* text;  // null: no updater.conf
        const char* reason;
    } cases[] = {
        {nullptr, "failed to load config json"},
        {R"({"var_path": 7})", "failed to locate 'var_path' option in config json"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text ? c.text : "(missing)");
        fresh();
        std::remove(config_file().c_str());
        if (c.text) write_file(config_file(), c.text);
        dbl::subkeys()[kEnvKey] = {"A"};
        dbl::store()[kEnvKey + "/A"] = "1";
        child_pid = 0;

        start_sorvelupd();

        // The reason stays in the error storage; the settings are not read,
        // no builder is made and nothing is forked.
        EXPECT_EQ(dbl::journal(), lines{"log error start_sorvelupd: failed to get file for redirection"});
        EXPECT_EQ(child_pid, 0);
        EXPECT_EQ(alderrno.code(), 2);
        EXPECT_STREQ(alderrno.message(), c.reason);
    }
}

TEST_F(SupervisionTest, EnvironmentIsReadCompletelyBeforeAnyVariableIsSet) {
    write_config("/var/x");
    // The store's own order, not sorted; C has no value.
    dbl::subkeys()[kEnvKey] = {"B", "A", "C", "D"};
    dbl::store()[kEnvKey + "/B"] = "2";
    dbl::store()[kEnvKey + "/A"] = "1";
    dbl::store()[kEnvKey + "/D"] = "x=y z";
    dbl::push("fork", dbl::ok(4242));

    start_sorvelupd();

    EXPECT_EQ(calls(), (lines{
                           "setMgmt::enumSubkeys " + kEnvKey,
                           "setMgmt::getKey " + kEnvKey + "/B",
                           "setMgmt::getKey " + kEnvKey + "/A",
                           "setMgmt::getKey " + kEnvKey + "/C",
                           "setMgmt::getKey " + kEnvKey + "/D",
                           "Environ::set B 2 true",
                           "Environ::set A 1 true",
                           "Environ::set D x=y z true",
                           "Environ::to_environ",
                           "fork 15 2",
                           "log info start_sorvelupd: fork sorvelupd [pid 4242]",
                       }));
    EXPECT_EQ(child_pid, 4242);
    auto logged = dbl::log_lines();
    ASSERT_EQ(logged.size(), 1u);
    EXPECT_EQ(logged[0].level, 2);
}

TEST_F(SupervisionTest, NoVariablesWhenTheKeyCannotBeEnumeratedOrIsEmpty) {
    for (bool present : {false, true}) {
        SCOPED_TRACE(present ? "empty list" : "enumeration fails");
        fresh();
        write_config("/var/x");
        if (present) dbl::subkeys()[kEnvKey] = {};
        dbl::store()[kEnvKey + "/A"] = "1";  // not listed: never read
        dbl::push("fork", dbl::ok(77));
        child_pid = 0;

        start_sorvelupd();

        EXPECT_EQ(calls(), (lines{"setMgmt::enumSubkeys " + kEnvKey, "Environ::to_environ", "fork 15 2",
                                  "log info start_sorvelupd: fork sorvelupd [pid 77]"}));
        EXPECT_EQ(child_pid, 77);
    }
}

TEST_F(SupervisionTest, FailedForkIsLoggedThenReportedWithPidZero) {
    write_config("/var/x");
    dbl::push("fork", dbl::fail(EAGAIN));

    start_sorvelupd();

    EXPECT_EQ(after("fork 15 2"), (lines{"log error start_sorvelupd: failed to fork sorvelupd",
                                         "log info start_sorvelupd: fork sorvelupd [pid 0]"}));
    EXPECT_EQ(child_pid, 0);
    auto logged = dbl::log_lines();
    ASSERT_EQ(logged.size(), 2u);
    EXPECT_EQ(logged[0].level, 0);
    EXPECT_EQ(logged[1].level, 2);
}

TEST_F(SupervisionTest, ChildJoinsItsOwnGroupRedirectsOutputAndExecsTheUpdater) {
    write_config("/var/x");
    dbl::subkeys()[kEnvKey] = {"A", "B"};
    dbl::store()[kEnvKey + "/A"] = "1";
    dbl::store()[kEnvKey + "/B"] = "2";
    dbl::push("fork", dbl::ok(0));

    EXPECT_THROW(start_sorvelupd(), dbl::child_exec);

    // O_WRONLY|O_CREAT only: old output is overwritten, not truncated or
    // appended to. The environment is the builder's array, unchanged.
    EXPECT_EQ(after("fork 15 2"), (lines{
                                      "setpgid 0 0",
                                      "open /var/x/sorvelupd.out_err.log 0x41 0644",
                                      "dup2 1000 1",
                                      "dup2 1000 2",
                                      "close 1000",
                                      "execvpe " + kUpdater + " | " + kUpdater + " -r /opt/aldrana/sorvel/ -c " +
                                          config_file() + " | A=1 B=2",
                                  }));
    EXPECT_EQ(dbl::child_allocations(), 0);
    EXPECT_TRUE(dbl::log_lines().empty());
}

TEST_F(SupervisionTest, ChildStopsAtItsFirstFailurePausesAndExitsWithOne) {
    const std::string open_line = "open /var/x/sorvelupd.out_err.log 0x41 0644";
    const std::string exec_line =
        "execvpe " + kUpdater + " | " + kUpdater + " -r /opt/aldrana/sorvel/ -c " + config_file() + " | ";
    const struct {
        const char* name;
        std::vector<std::pair<std::string, dbl::outcome>> script;
        lines expected;
        int code;  // left in the child's error storage
    } cases[] = {
        {"setpgid", {{"setpgid", dbl::fail(EPERM)}}, {"setpgid 0 0"}, 7},
        {"open", {{"open", dbl::fail(ENOENT)}}, {"setpgid 0 0", open_line}, 1},
        {"first dup2",
         {{"dup2", dbl::fail(EBADF)}},
         {"setpgid 0 0", open_line, "dup2 1000 1"},
         1},
        {"second dup2",
         {{"dup2", dbl::ok(1)}, {"dup2", dbl::fail(EBADF)}},
         {"setpgid 0 0", open_line, "dup2 1000 1", "dup2 1000 2"},
         1},
        {"execvpe",
         {{"execvpe", dbl::fail(ENOENT)}},
         {"setpgid 0 0", open_line, "dup2 1000 1", "dup2 1000 2", "close 1000", exec_line},
         1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        fresh();
        write_config("/var/x");
        child_pid = 0;
        alderrno.set(7, "before the fork");
        dbl::push("fork", dbl::ok(0));
        for (const auto& step : c.script) dbl::push(step.first, step.second);

        int status = -1;
        try {
            start_sorvelupd();
            ADD_FAILURE() << "the child returned into the daemon";
        } catch (const dbl::child_exit& e) {
            status = e.status;
        }

        EXPECT_EQ(status, 1);
        lines expected = c.expected;
        expected.push_back("sleep 1");
        expected.push_back("_exit 1");
        EXPECT_EQ(after("fork 15 2"), expected);
        EXPECT_EQ(alderrno.code(), c.code);
        if (c.code == 1) {
            EXPECT_STREQ(alderrno.message(), "");
        }
        EXPECT_EQ(dbl::child_allocations(), 0);
        EXPECT_TRUE(dbl::log_lines().empty());
    }
}

TEST_F(SupervisionTest, ChildIgnoresAFailedCloseOfTheOutputDescriptor) {
    write_config("/var/x");
    dbl::push("fork", dbl::ok(0));
    dbl::push("close", dbl::fail(EIO));

    EXPECT_THROW(start_sorvelupd(), dbl::child_exec);

    auto tail = after("close 1000");
    ASSERT_EQ(tail.size(), 1u);
    EXPECT_EQ(tail[0].substr(0, 8), "execvpe ");
}

// ---- wait_sorvelupd ------------------------------------------------------

TEST_F(SupervisionTest, WaitReportsEachOutcomeWithoutBlockingOrForgettingTheChild) {
    const struct {
        const char* name;
        dbl::outcome result;
        bool reaped;
        int level;
        std::string line;
    } cases[] = {
        {"exit 3", dbl::reaped(42, exited(3)), true, 2, "sorvelupd [pid 42] has exited with status 3"},
        {"exit 0", dbl::reaped(42, exited(0)), true, 2, "sorvelupd [pid 42] has exited with status 0"},
        {"exit 255", dbl::reaped(42, exited(255)), true, 2, "sorvelupd [pid 42] has exited with status 255"},
        {"SIGTERM", dbl::reaped(42, killed(SIGTERM)), true, 2, "sorvelupd [pid 42] has exited"},
        {"SIGSEGV with core", dbl::reaped(42, killed(SIGSEGV, true)), true, 2, "sorvelupd [pid 42] has exited"},
        {"running", dbl::ok(0), false, 1, "sorvelupd [pid 42] is still running"},
        {"ECHILD", dbl::fail(ECHILD), false, 0, "failed to wait for sorvelupd [pid 42]"},
        {"EINTR", dbl::fail(EINTR), false, 0, "failed to wait for sorvelupd [pid 42]"},
    };
    const char* level_names[] = {"error", "warning", "info"};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        fresh();
        child_pid = 42;
        dbl::push("waitpid", c.result);

        EXPECT_EQ(wait_sorvelupd(), c.reaped);

        // WNOHANG (1) alone: stopped and continued children are not asked for.
        EXPECT_EQ(dbl::journal(),
                  (lines{"waitpid 42 1", std::string("log ") + level_names[c.level] + " wait_sorvelupd: " + c.line}));
        auto logged = dbl::log_lines();
        ASSERT_EQ(logged.size(), 1u);
        EXPECT_EQ(logged[0].level, c.level);
        EXPECT_EQ(child_pid, 42);
    }
}

// ---- kill_and_wait_sorvelupd ---------------------------------------------

namespace {

// One stop attempt as the journal shows it.
void attempt(lines& out, long target, int sig, const char* poll_result) {
    out.push_back("kill " + std::to_string(target) + ' ' + std::to_string(sig));
    if (!poll_result) {
        out.push_back("log error kill_and_wait_sorvelupd: failed to send signal #" + std::to_string(sig) +
                      " to sorvelupd [pid 42]");
        return;
    }
    out.push_back("log info kill_and_wait_sorvelupd: sent signal #" + std::to_string(sig) + " to sorvelupd [pid 42]");
    out.push_back("waitpid 42 1");
    out.push_back(poll_result);
}

const char* const kRunning = "log warning wait_sorvelupd: sorvelupd [pid 42] is still running";
const char* const kGone = "log info wait_sorvelupd: sorvelupd [pid 42] has exited";

}  // namespace

TEST_F(SupervisionTest, StopWithoutAChildDoesNothing) {
    child_pid = 0;
    kill_and_wait_sorvelupd();
    EXPECT_TRUE(dbl::journal().empty());
    EXPECT_EQ(child_pid, 0);
}

TEST_F(SupervisionTest, ChildGoneAtTheFirstPollCostsNoPause) {
    child_pid = 42;
    dbl::push("waitpid", dbl::reaped(42, killed(SIGTERM)));

    kill_and_wait_sorvelupd();

    lines expected;
    attempt(expected, 42, 15, kGone);
    EXPECT_EQ(dbl::journal(), expected);
    EXPECT_EQ(child_pid, 0);
}

TEST_F(SupervisionTest, ChildThatExitsOnTheSecondSigtermIsReapedAfterOnePause) {
    child_pid = 42;
    dbl::push("waitpid", dbl::ok(0));
    dbl::push("waitpid", dbl::reaped(42, exited(3)));

    kill_and_wait_sorvelupd();

    lines expected;
    attempt(expected, 42, 15, kRunning);
    expected.push_back("sleep 1");
    attempt(expected, 42, 15, "log info wait_sorvelupd: sorvelupd [pid 42] has exited with status 3");
    EXPECT_EQ(dbl::journal(), expected);
    EXPECT_EQ(child_pid, 0);
}

TEST_F(SupervisionTest, ChildThatIgnoresSigtermGetsSigkillToItsGroup) {
    for (bool dies : {false, true}) {
        SCOPED_TRACE(dies ? "dies on the first SIGKILL" : "survives everything");
        fresh();
        dbl::always("waitpid", dbl::ok(0));
        for (int i = 0; i < 16; ++i) dbl::push("waitpid", dbl::ok(0));
        if (dies) dbl::push("waitpid", dbl::reaped(42, killed(SIGKILL)));
        child_pid = 42;

        kill_and_wait_sorvelupd();

        lines expected;
        for (int i = 0; i < 16; ++i) {
            attempt(expected, 42, 15, kRunning);
            expected.push_back("sleep 1");
        }
        // The group is signalled; the lines still name the positive pid.
        attempt(expected, -42, 9, dies ? kGone : kRunning);
        if (!dies) {
            expected.push_back("sleep 1");
            attempt(expected, -42, 9, kRunning);
            expected.push_back("sleep 1");
        }
        EXPECT_EQ(dbl::journal(), expected);
        EXPECT_EQ(child_pid, dies ? 0 : 42);
    }
}

TEST_F(SupervisionTest, EveryKillFailingGivesEighteenErrorsAndPausesButNoWait) {
    child_pid = 42;
    dbl::always("kill", dbl::fail(ESRCH));

    kill_and_wait_sorvelupd();

    lines expected;
    for (int i = 0; i < 16; ++i) {
        attempt(expected, 42, 15, nullptr);
        expected.push_back("sleep 1");
    }
    for (int i = 0; i < 2; ++i) {
        attempt(expected, -42, 9, nullptr);
        expected.push_back("sleep 1");
    }
    EXPECT_EQ(dbl::journal(), expected);
    EXPECT_EQ(child_pid, 42);
    auto logged = dbl::log_lines();
    ASSERT_EQ(logged.size(), 18u);
    for (const auto& l : logged) EXPECT_EQ(l.level, 0);
}

TEST_F(SupervisionTest, FailedKillIsFollowedByAPauseAndTheNextAttempt) {
    child_pid = 42;
    dbl::push("kill", dbl::fail(EPERM));
    dbl::push("waitpid", dbl::reaped(42, exited(0)));

    kill_and_wait_sorvelupd();

    lines expected;
    attempt(expected, 42, 15, nullptr);
    expected.push_back("sleep 1");
    attempt(expected, 42, 15, "log info wait_sorvelupd: sorvelupd [pid 42] has exited with status 0");
    EXPECT_EQ(dbl::journal(), expected);
    EXPECT_EQ(child_pid, 0);
}

TEST_F(SupervisionTest, FailedWaitIsFollowedByAPauseAndTheSamePidSignalledAgain) {
    child_pid = 42;
    dbl::push("waitpid", dbl::fail(ECHILD));
    dbl::push("waitpid", dbl::reaped(42, killed(SIGTERM)));

    kill_and_wait_sorvelupd();

    lines expected;
    attempt(expected, 42, 15, "log error wait_sorvelupd: failed to wait for sorvelupd [pid 42]");
    expected.push_back("sleep 1");
    attempt(expected, 42, 15, kGone);
    EXPECT_EQ(dbl::journal(), expected);
    EXPECT_EQ(child_pid, 0);
}

TEST_F(SupervisionTest, SigtermGoesToThePidReadOnEntryAndSigkillToTheGroupReadWhenItsPhaseBegins) {
    child_pid = 42;
    dbl::always("waitpid", dbl::ok(0));
    // Something moves child_pid during the first phase; the first phase keeps
    // signalling the pid it started with, the second names the new group.
    dbl::push("sleep", dbl::then(dbl::ok(0), [] { child_pid = 43; }));

    kill_and_wait_sorvelupd();

    auto kills = dbl::journal("kill ");
    ASSERT_EQ(kills.size(), 18u);
    for (int i = 0; i < 16; ++i) EXPECT_EQ(kills[i], "kill 42 15") << i;
    EXPECT_EQ(kills[16], "kill -43 9");
    EXPECT_EQ(kills[17], "kill -43 9");
}

// ---- process_signal ------------------------------------------------------

namespace {

// Fills the stack below the caller with words that alternate between
// SIGCHLD and a pid. Any 8-byte aligned record there, left as it was, reads
// as a SIGCHLD from that pid.
constexpr pid_t kPaintedPid = 0x2a2a2a2a;
[[gnu::noinline]] void paint_stack() {
    alignas(16) std::uint32_t area[2048];
    for (std::size_t i = 0; i < 2048; ++i) area[i] = i % 2 ? static_cast<std::uint32_t>(kPaintedPid) : SIGCHLD;
    // Keeps the stores: the compiler must assume the area is read.
    asm volatile("" : : "r"(area) : "memory");
}

}  // namespace

TEST_F(SupervisionTest, SigchldFromTheRecordedChildReapsForgetsAndPauses) {
    const struct {
        const char* name;
        dbl::outcome wait;
        std::string line;
    } cases[] = {
        {"exit 0", dbl::reaped(42, exited(0)), "log info wait_sorvelupd: sorvelupd [pid 42] has exited with status 0"},
        {"killed", dbl::reaped(42, killed(SIGKILL)), kGone},
        // Only stopped: still running, and forgotten all the same.
        {"stopped", dbl::ok(0), kRunning},
        {"wait fails", dbl::fail(ECHILD), "log error wait_sorvelupd: failed to wait for sorvelupd [pid 42]"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        fresh();
        signal_fd = 7;
        child_pid = 42;
        dbl::push("read", dbl::bytes(record(SIGCHLD, 42)));
        dbl::push("waitpid", c.wait);

        process_signal();

        EXPECT_EQ(dbl::journal(), (lines{"read 7 128", "waitpid 42 1", c.line, "sleep 1"}));
        EXPECT_EQ(child_pid, 0);
    }
}

TEST_F(SupervisionTest, RecordsOfOtherSignalsOrOtherPidsAreDropped) {
    const struct {
        const char* name;
        std::string bytes;
    } cases[] = {
        {"SIGTERM from the child", record(SIGTERM, 42)},
        {"SIGCHLD from a former child", record(SIGCHLD, 41)},
        {"empty read", std::string()},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        fresh();
        signal_fd = 7;
        child_pid = 42;
        dbl::push("read", dbl::bytes(c.bytes));

        process_signal();

        EXPECT_EQ(dbl::journal(), lines{"read 7 128"});
        EXPECT_EQ(child_pid, 42);
    }
}

TEST_F(SupervisionTest, ShortReadIsExaminedAsFilled) {
    signal_fd = 7;
    child_pid = 42;
    dbl::push("read", dbl::bytes(record(SIGCHLD, 42).substr(0, 16)));
    dbl::push("waitpid", dbl::reaped(42, exited(0)));

    process_signal();

    EXPECT_EQ(dbl::journal("waitpid"), lines{"waitpid 42 1"});
    EXPECT_EQ(child_pid, 0);
}

TEST_F(SupervisionTest, FailedReadIsLoggedAndNothingElseHappens) {
    signal_fd = 7;
    child_pid = kPaintedPid;
    dbl::push("read", dbl::fail(EAGAIN));

    paint_stack();
    process_signal();

    // The record was zeroed before the read: what the stack held before
    // does not pass for a SIGCHLD from the child.
    EXPECT_EQ(dbl::journal(), (lines{"read 7 128", "log error process_signal: failed to read signal info"}));
    auto logged = dbl::log_lines();
    ASSERT_EQ(logged.size(), 1u);
    EXPECT_EQ(logged[0].level, 0);
    EXPECT_EQ(child_pid, kPaintedPid);
}

TEST_F(SupervisionTest, PartialRecordLeavesTheRestZeroed) {
    signal_fd = 7;
    child_pid = kPaintedPid;
    // Only the signal number arrives; the sender field must read as 0.
    dbl::outcome o = dbl::bytes(record(SIGCHLD, 0).substr(0, 4));
    o.result = 128;
    dbl::push("read", o);

    paint_stack();
    process_signal();

    EXPECT_EQ(dbl::journal(), lines{"read 7 128"});
    EXPECT_EQ(child_pid, kPaintedPid);
}

TEST_F(SupervisionTest, WithoutARecordedChildNoRecordLeadsToAWait) {
    // waitpid(0) would reap any child of the daemon's group: with no child
    // recorded, even a SIGCHLD record whose sender reads as 0 (a sender
    // outside the daemon's pid namespace) is dropped.
    signal_fd = 7;
    child_pid = 0;
    dbl::push("read", dbl::bytes(record(SIGCHLD, 0)));
    dbl::push("waitpid", dbl::fail(ECHILD));

    process_signal();

    EXPECT_EQ(dbl::journal(), lines{"read 7 128"});
    EXPECT_EQ(child_pid, 0);
}
