// run: the start of the hook, one pass of the loop, dispatch of each batch
// in the order returned, the ways out of the loop and the shutdown. init()
// builds real descriptors first; epoll_wait is scripted batch by batch.
#include "config.h"
#include "fixture.h"
#include "real.h"
#include "hooks.h"
#include "state.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <fcntl.h>
#include <functional>
#include <memory>
#include <stdexcept>
#include <jansson.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <unistd.h>


namespace {

using lines = std::vector<std::string>;

constexpr pid_t kChild = 2000000000;  // what the double's fork gives the daemon
const std::string kP = std::to_string(kChild);

std::string ctl(const char* op, int fd) {
    return std::string("epoll_ctl ") + op + ' ' + std::to_string(fd) + " 0x1 " + std::to_string(fd);
}
std::string rd(int fd, int count) { return "read " + std::to_string(fd) + ' ' + std::to_string(count); }
std::string cl(int fd) { return "close " + std::to_string(fd); }

std::string sigchld_from(pid_t pid) {
    signalfd_siginfo record{};
    record.ssi_signo = SIGCHLD;
    record.ssi_pid = static_cast<std::uint32_t>(pid);
    return std::string(reinterpret_cast<const char*>(&record), sizeof record);
}

bool starts(const std::string& s, const std::string& prefix) { return s.compare(0, prefix.size(), prefix) == 0; }

class Run : public DaemonTest {
protected:
    void SetUp() override {
        DaemonTest::SetUp();
        write_file(config_file(), R"({"var_path": "/var/x"})");
        prepare();
    }

    void TearDown() override {
        __real_close(stop_write_);
        DaemonTest::TearDown();
    }

    // A fresh stop pipe and a successful init; the journal is read from here.
    void prepare() {
        int stop[2];
        ASSERT_EQ(__real_pipe2(stop, O_CLOEXEC | O_NONBLOCK), 0);
        if (stop_write_ >= 0) __real_close(stop_write_);
        stop_fd = stop[0];
        stop_write_ = stop[1];
        stop_requested = false;
        dbl::lan_report().clear();
        ald::netMgmt::Interface br0;
        br0.name = "br0";
        dbl::lan_report().push_back(br0);
        ASSERT_TRUE(init());
        // Should a script run out, the loop ends instead of really waiting.
        dbl::always("epoll_wait", dbl::then(dbl::ok(0), [] { stop_requested = true; }));
        mark_ = dbl::journal().size();
    }

    // The journal since prepare(), without the platform's making of
    // write_config's temporary file.
    lines since() const {
        const auto all = dbl::journal();
        const std::string temp = "open " + config_dir() + "/.";
        lines out;
        for (std::size_t i = mark_; i < all.size(); ++i) {
            if (starts(all[i], temp)) {
                if (i + 1 < all.size() && starts(all[i + 1], "close ")) ++i;
                continue;
            }
            out.push_back(all[i]);
        }
        return out;
    }

    // The calls that make up the loop's behaviour; a rename is shown as
    // "rename" (its temporary name is random).
    lines loop_calls() const {
        static const char* const kept[] = {
            "MonitoredKey", "~MonitoredKey", "setMgmt::getKeyValue", "setMgmt::uninit", "netMgmt::",
            "rename", "fork", "epoll_", "kill", "waitpid", "close", "read", "sleep",
            "log info run", "log warning", "log error",
        };
        lines out;
        for (const auto& e : since())
            for (const char* prefix : kept)
                if (starts(e, prefix)) {
                    out.push_back(starts(e, "rename ") ? "rename" : e);
                    break;
                }
        return out;
    }

    // loop_calls() from the n-th "epoll_wait" (0-based) up to and including
    // the next one, or to the end.
    lines pass_after(int n) const {
        const lines all = loop_calls();
        lines out;
        int seen = -1;
        for (const auto& e : all) {
            if (e == "epoll_wait 2 1000" && ++seen == n + 1) {
                out.push_back(e);
                break;
            }
            if (seen >= n) out.push_back(e);
        }
        return out;
    }

    long count(const std::string& prefix) const {
        long n = 0;
        for (const auto& e : since()) n += starts(e, prefix);
        return n;
    }

    // The watch's descriptor, as last registered.
    static int watch_fd() {
        const auto mods = dbl::journal("epoll_ctl MOD ");
        return mods.empty() ? -1 : std::atoi(mods.back().c_str() + 14);
    }

    // Every read beyond the scripted ones finds nothing; a loop that keeps
    // reading anyway fails the test instead of spinning.
    static void reads_end_here() {
        auto beyond = std::make_shared<int>(0);
        dbl::always("read", dbl::then(dbl::fail(EAGAIN), [beyond] {
            if (++*beyond > 100) throw std::runtime_error("reading does not stop");
        }));
    }

    // The next stop of the updater succeeds at its first SIGTERM.
    static void updater_stops() {
        dbl::push("kill", dbl::ok(0));
        dbl::push("waitpid", dbl::reaped(kChild, 0));
    }

    // The first pass times out; the batches for the passes after it, which
    // may name the watch's descriptor, are made once it is known.
    void then_batches(std::function<std::vector<std::vector<int>>(int watch)> make) {
        dbl::push("epoll_wait", dbl::then(dbl::ok(0), [make] {
            for (auto& batch : make(watch_fd())) dbl::push("epoll_wait", dbl::events(batch));
        }));
    }

    lines closing() const {
        return {cl(lan_pipe[0]), cl(lan_pipe[1]), cl(signal_fd), cl(epoll_fd), cl(stop_fd),
                "log info run: stop ald sorvelupd daemon", "~MonitoredKey"};
    }

    std::size_t mark_ = 0;
    int stop_write_ = -1;
};

lines operator+(lines a, const lines& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// ---- start, one pass, shutdown -------------------------------------------------

TEST_F(Run, WatchFirstThenSettingThenPassesThenShutdown) {
    dbl::push("epoll_wait", dbl::events({stop_fd}));
    updater_stops();
    EXPECT_EQ(run(), 0);

    const int w = watch_fd();
    ASSERT_GE(w, 0);
    const lines expected = lines{
        "MonitoredKey /privacy/aur 0 false",
        "MonitoredKey::get_fd",  // once, before the setting is applied
        "setMgmt::getKeyValue /privacy/aur 1",
        "rename",  // aur_enabled: the first value always differs from -1
        "fork 15 2",
        "MonitoredKey::get_fd",
        ctl("MOD", w),
        ctl("ADD", w),
        "epoll_wait 2 1000",
        "MonitoredKey::cancel",
        "kill " + kP + " 15",
        "waitpid " + kP + " 1",
        "setMgmt::uninit",
        "netMgmt::uninit",
    } + closing();
    EXPECT_EQ(loop_calls(), expected);  // the stop pipe itself is never read
    EXPECT_TRUE(stop_requested);
    EXPECT_EQ(child_pid, 0);
}

TEST_F(Run, IdlePassWithAChildOnlyRegistersTheWatchAgain) {
    // A timeout, then a descriptor the loop does not know: both leave the
    // next pass with nothing to do but the registration.
    then_batches([](int) { return std::vector<std::vector<int>>{{9999}, {stop_fd}}; });
    updater_stops();
    EXPECT_EQ(run(), 0);

    const int w = watch_fd();
    const lines idle{"epoll_wait 2 1000", "MonitoredKey::get_fd", ctl("MOD", w), "epoll_wait 2 1000"};
    EXPECT_EQ(pass_after(0), idle);
    EXPECT_EQ(pass_after(1), idle);
    EXPECT_EQ(count("fork "), 1);
    EXPECT_EQ(count("epoll_ctl ADD"), 1);
}

TEST_F(Run, PassWithoutAChildStartsOneAgain) {
    dbl::push("fork", dbl::fail(EAGAIN));
    dbl::push("epoll_wait", dbl::ok(0));
    dbl::push("epoll_wait", dbl::events({stop_fd}));
    updater_stops();
    EXPECT_EQ(run(), 0);

    EXPECT_EQ(count("fork 15 2"), 2);
    EXPECT_EQ(count("log info start_sorvelupd: fork sorvelupd [pid 0]"), 1);
    const lines second = pass_after(0);
    EXPECT_NE(std::find(second.begin(), second.end(), "fork 15 2"), second.end());
    EXPECT_EQ(count("kill " + kP + " 15"), 1);
}

TEST_F(Run, LaunchThatCannotStartIsTriedEveryPass) {
    write_file(config_file(), "{}");
    dbl::push("epoll_wait", dbl::ok(0));
    dbl::push("epoll_wait", dbl::ok(0));
    dbl::push("epoll_wait", dbl::events({stop_fd}));
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(count("log error start_sorvelupd: failed to get file for redirection"), 3);
    EXPECT_EQ(count("epoll_wait"), 3);
    EXPECT_EQ(count("fork"), 0);
    EXPECT_EQ(count("kill"), 0);
}

// ---- dispatch ------------------------------------------------------------------

TEST_F(Run, EachBatchIsHandledInTheOrderReturned) {
    const int lan = lan_pipe[0];
    dbl::push("epoll_wait", dbl::events({lan, signal_fd}));
    dbl::push("epoll_wait", dbl::events({signal_fd, lan}));
    dbl::push("epoll_wait", dbl::events({stop_fd}));
    // Reads in the order the batches above should cause them.
    dbl::push("read", dbl::bytes("."));
    dbl::push("read", dbl::fail(EAGAIN));
    dbl::push("read", dbl::bytes(sigchld_from(kChild)));  // the child just stopped: ignored
    dbl::push("read", dbl::bytes(sigchld_from(kChild)));  // the new child exits
    dbl::push("read", dbl::fail(EAGAIN));
    updater_stops();                                       // the LAN change
    dbl::push("waitpid", dbl::reaped(kChild, 1 << 8));     // the exit
    updater_stops();                                       // the shutdown
    reads_end_here();
    EXPECT_EQ(run(), 0);

    const int w = watch_fd();
    const lines app_id{"setMgmt::getKeyValue /system/app_id com.aldrana.sorvelupd", "rename"};
    const lines next_pass{"fork 15 2", "MonitoredKey::get_fd", ctl("MOD", w), "epoll_wait 2 1000"};
    EXPECT_EQ(pass_after(0), (lines{"epoll_wait 2 1000", rd(lan, 1), rd(lan, 1), "kill " + kP + " 15",
                                    "waitpid " + kP + " 1"} + app_id + lines{rd(signal_fd, 128)} + next_pass));
    EXPECT_EQ(pass_after(1), (lines{"epoll_wait 2 1000", rd(signal_fd, 128), "waitpid " + kP + " 1", "sleep 1",
                                    rd(lan, 1)} + app_id + next_pass));
}

class StopWithSigchld : public Run, public ::testing::WithParamInterface<bool> {};

TEST_P(StopWithSigchld, SameBatchLeavesNoNewChild) {
    const bool stop_first = GetParam();
    dbl::push("epoll_wait", stop_first ? dbl::events({stop_fd, signal_fd}) : dbl::events({signal_fd, stop_fd}));
    dbl::push("read", dbl::bytes(sigchld_from(kChild)));
    dbl::push("waitpid", dbl::reaped(kChild, 0));
    EXPECT_EQ(run(), 0);

    EXPECT_EQ(child_pid, 0);
    EXPECT_EQ(count("fork"), 1);
    EXPECT_EQ(count("epoll_wait"), 1);
    EXPECT_EQ(count("waitpid " + kP + " 1"), 1);
    EXPECT_EQ(count("sleep 1"), 1);
    EXPECT_EQ(count("kill"), 0);  // the shutdown finds nothing to stop
}

INSTANTIATE_TEST_SUITE_P(EitherOrder, StopWithSigchld, ::testing::Bool());

TEST_F(Run, StopAndLanChangeInOneBatchAreBothHandled) {
    dbl::push("epoll_wait", dbl::events({stop_fd, lan_pipe[0]}));
    dbl::push("read", dbl::fail(EAGAIN));
    reads_end_here();
    updater_stops();
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(pass_after(0), (lines{"epoll_wait 2 1000", rd(lan_pipe[0], 1), "kill " + kP + " 15",
                                    "waitpid " + kP + " 1", "setMgmt::getKeyValue /system/app_id com.aldrana.sorvelupd",
                                    "rename", "MonitoredKey::cancel", "setMgmt::uninit", "netMgmt::uninit"} +
                                   closing()));
}

// ---- the LAN pipe --------------------------------------------------------------

TEST_F(Run, QueuedWakeUpsCostOneStopAndOneRewrite) {
    ASSERT_EQ(__real_write(lan_pipe[1], "...", 3), 3);
    {
        std::lock_guard<std::mutex> lock(lan_mutex);
        lan_interfaces = {"br0", "eth1"};  // what the callbacks left
    }
    dbl::push("epoll_wait", dbl::events({lan_pipe[0]}));
    dbl::push("epoll_wait", dbl::events({stop_fd}));
    updater_stops();
    updater_stops();
    EXPECT_EQ(run(), 0);

    EXPECT_EQ(count(rd(lan_pipe[0], 1)), 4);  // three bytes, then an empty pipe
    EXPECT_EQ(count("kill"), 2);              // the change, and the shutdown
    EXPECT_EQ(count("setMgmt::getKeyValue /system/app_id"), 1);
    EXPECT_EQ(count("fork"), 2);
    json_ptr doc(json_load_file(config_file().c_str(), 0, nullptr));
    ASSERT_TRUE(doc);
    char* text = json_dumps(json_object_get(doc.get(), "pcap_device"), JSON_COMPACT);
    EXPECT_STREQ(text, R"(["br0","eth1"])");
    std::free(text);
}

TEST_F(Run, DrainStopsAtTheFirstReadThatYieldsNothing) {
    for (const dbl::outcome& end : {dbl::ok(0), dbl::fail(EIO)}) {
        SCOPED_TRACE(end.err);
        if (end.err) prepare();
        dbl::always("fork", dbl::fail(EAGAIN));  // no child to stop
        ASSERT_EQ(__real_write(lan_pipe[1], "...", 3), 3);
        dbl::push("epoll_wait", dbl::events({lan_pipe[0]}));
        dbl::push("epoll_wait", dbl::events({stop_fd}));
        dbl::push("read", dbl::bytes("."));
        dbl::push("read", end);
        reads_end_here();
        EXPECT_EQ(run(), 0);
        EXPECT_EQ(count(rd(lan_pipe[0], 1)), 2);
        EXPECT_EQ(count("setMgmt::getKeyValue /system/app_id"), 1);
    }
}

// ---- waiting -----------------------------------------------------------------------

TEST_F(Run, InterruptedWaitWarnsAndStartsTheNextPassAtOnce) {
    dbl::push("epoll_wait", dbl::fail(EINTR));
    dbl::push("epoll_wait", dbl::events({stop_fd}));
    updater_stops();
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(pass_after(0), (lines{"epoll_wait 2 1000", "log warning run: waiting on epoll was interrupted by a signal",
                                    "MonitoredKey::get_fd", ctl("MOD", watch_fd()), "epoll_wait 2 1000"}));
    EXPECT_EQ(count("log warning"), 1);
    EXPECT_EQ(count("log error"), 0);
}

TEST_F(Run, StopSetDuringAnInterruptedWaitIsActedOnAtOnce) {
    dbl::push("epoll_wait", dbl::then(dbl::fail(EINTR), [] { stop_requested = true; }));
    updater_stops();
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(count("epoll_wait"), 1);
    const lines tail = pass_after(0);
    ASSERT_GE(tail.size(), 3u);
    EXPECT_EQ(lines(tail.begin(), tail.begin() + 3),
              (lines{"epoll_wait 2 1000", "log warning run: waiting on epoll was interrupted by a signal",
                     "MonitoredKey::cancel"}));
}

TEST_F(Run, FailedWaitShutsDownInFullAndReturnsZero) {
    dbl::push("epoll_wait", dbl::fail(EBADF));
    updater_stops();
    EXPECT_EQ(run(), 0);
    EXPECT_FALSE(stop_requested);
    EXPECT_EQ(pass_after(0), (lines{"epoll_wait 2 1000", "log error run: failed to wait on epoll",
                                    "MonitoredKey::cancel", "kill " + kP + " 15", "waitpid " + kP + " 1",
                                    "setMgmt::uninit", "netMgmt::uninit"} + closing()));
}

// ---- the settings watch ------------------------------------------------------------

TEST_F(Run, NotificationStopsTheUpdaterAndRewritesAurEnabled) {
    then_batches([](int w) { return std::vector<std::vector<int>>{{w}, {stop_fd}}; });
    dbl::push("MonitoredKey::read_notifications", dbl::then(dbl::ok(1), [] {
        dbl::store()["/privacy/aur"] = "0";
        dbl::call_watch_handler();
    }));
    updater_stops();
    updater_stops();
    EXPECT_EQ(run(), 0);

    const int w = watch_fd();
    EXPECT_EQ(pass_after(1), (lines{"epoll_wait 2 1000", "MonitoredKey::read_notifications",
                                    "setMgmt::getKeyValue /privacy/aur 1", "kill " + kP + " 15", "waitpid " + kP + " 1",
                                    "rename", "fork 15 2", "MonitoredKey::get_fd", ctl("MOD", w), "epoll_wait 2 1000"}));
    EXPECT_EQ(last_aur_enabled, 0);
    json_ptr doc(json_load_file(config_file().c_str(), 0, nullptr));
    ASSERT_TRUE(doc);
    EXPECT_TRUE(json_is_false(json_object_get(doc.get(), "aur_enabled")));
}

TEST_F(Run, UnusableWatchDescriptorIsDroppedAndRegisteredAfresh) {
    bool in_set = false;
    dbl::push("epoll_wait", dbl::then(dbl::ok(0), [&in_set] {
        dbl::push("epoll_wait", dbl::events({watch_fd()}));
        // By the next wait the new descriptor must really be in the set.
        dbl::push("epoll_wait", dbl::then(dbl::events({stop_fd}), [&in_set] {
            epoll_event event{};
            event.events = EPOLLIN;
            event.data.fd = watch_fd();
            in_set = __real_epoll_ctl(epoll_fd, EPOLL_CTL_MOD, watch_fd(), &event) == 0;
        }));
    }));
    dbl::push("MonitoredKey::read_notifications", dbl::ok(0));
    updater_stops();
    EXPECT_EQ(run(), 0);

    const lines pass = pass_after(1);
    ASSERT_GE(pass.size(), 5u);
    const int old_fd = std::atoi(pass[2].c_str() + 14);  // "epoll_ctl DEL N"
    const int new_fd = watch_fd();
    EXPECT_EQ(pass, (lines{"epoll_wait 2 1000", "MonitoredKey::read_notifications",
                           "epoll_ctl DEL " + std::to_string(old_fd), cl(old_fd), "MonitoredKey::get_fd",
                           ctl("MOD", new_fd), ctl("ADD", new_fd), "epoll_wait 2 1000"}));
    EXPECT_TRUE(in_set);
    EXPECT_EQ(count("log error"), 0);
}

// No descriptor in the first pass, a refused registration in the second:
// each is logged once and the pass goes on; the third registers for real.
TEST_F(Run, WatchThatCannotBeRegisteredIsLoggedAndTriedAgain) {
    dbl::push("MonitoredKey::get_fd", dbl::ok(-1));  // before the setting is applied
    dbl::push("MonitoredKey::get_fd", dbl::ok(-1));  // first pass
    then_batches([](int) {
        dbl::push("epoll_ctl", dbl::fail(EPERM));  // second pass
        return std::vector<std::vector<int>>{{}, {stop_fd}};
    });
    updater_stops();
    EXPECT_EQ(run(), 0);

    const int w = watch_fd();
    const lines calls = loop_calls();
    const auto first_wait = std::find(calls.begin(), calls.end(), "epoll_wait 2 1000");
    ASSERT_GE(first_wait - calls.begin(), 2);
    const std::string refused = "log error run: failed to add notif fd to epoll";
    EXPECT_EQ(lines(first_wait - 2, first_wait + 1), (lines{"MonitoredKey::get_fd", refused, "epoll_wait 2 1000"}));
    EXPECT_EQ(pass_after(0), (lines{"epoll_wait 2 1000", "MonitoredKey::get_fd", ctl("MOD", w), refused,
                                    "epoll_wait 2 1000"}));
    EXPECT_EQ(pass_after(1), (lines{"epoll_wait 2 1000", "MonitoredKey::get_fd", ctl("MOD", w), ctl("ADD", w),
                                    "epoll_wait 2 1000"}));
    EXPECT_EQ(count("log error"), 2);
}

}  // namespace
