// The daemon's entry point, run as __real_main against the double's
// framework, and the daemon state as static initialisation leaves it.
#include "fixture.h"
#include "real.h"
#include "hooks.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>


namespace {

// ---- the state before any hook ------------------------------------------------
//
// Fixtures put the state back to its initial values before every test, which
// would hide a wrong initial value. This environment looks at the state once,
// after static initialisation and before any test or fixture runs.

struct InitialState {
    bool taken = false;
    std::string config_path;
    bool config_terminated = false;
    std::size_t lan_interfaces = 99;
    pid_t child_pid = -1;
    int last_aur_enabled = 0;
    int stop_fd = -1;
    bool stop_requested = true;
    int epoll_fd = -1;
    int signal_fd = -1;
    int lan_pipe[2] = {-1, -1};
};

InitialState g_initial;

class InitialStateProbe : public ::testing::Environment {
public:
    void SetUp() override {
        g_initial.taken = true;
        g_initial.config_path = path_string(config_path);
        g_initial.config_terminated =
            config_path.c_str() != nullptr && std::strlen(config_path.c_str()) == config_path.size();
        {
            std::lock_guard<std::mutex> lock(lan_mutex);
            g_initial.lan_interfaces = lan_interfaces.size();
        }
        g_initial.child_pid = child_pid;
        g_initial.last_aur_enabled = last_aur_enabled;
        g_initial.stop_fd = stop_fd;
        g_initial.stop_requested = stop_requested;
        g_initial.epoll_fd = epoll_fd;
        g_initial.signal_fd = signal_fd;
        g_initial.lan_pipe[0] = lan_pipe[0];
        g_initial.lan_pipe[1] = lan_pipe[1];
    }
};

[[maybe_unused]] ::testing::Environment* const g_probe = ::testing::AddGlobalTestEnvironment(new InitialStateProbe);

// Calls the daemon's main with the given arguments and journals its return,
// so that the journal shows what happened before main came back.
int call_main(std::vector<std::string> args) {
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(&a[0]);
    argv.push_back(nullptr);
    int status = __real_main(static_cast<int>(args.size()), argv.data());
    dbl::record("main returned");
    return status;
}

}  // namespace

TEST(DaemonInitialState, BeforeAnyHook) {
    ASSERT_TRUE(g_initial.taken);
    const char* root = std::getenv("ALD_ROOT");
    ASSERT_TRUE(root && *root) << "CTest gives every test a private ALD_ROOT";
    EXPECT_EQ(g_initial.config_path, std::string(root) + "/etc/aldrana/updater.conf");
    EXPECT_TRUE(g_initial.config_terminated);
    EXPECT_EQ(g_initial.lan_interfaces, 0u);
    EXPECT_EQ(g_initial.child_pid, 0);
    EXPECT_EQ(g_initial.last_aur_enabled, -1);
    EXPECT_EQ(g_initial.stop_fd, 0);
    EXPECT_FALSE(g_initial.stop_requested);
    EXPECT_EQ(g_initial.epoll_fd, 0);
    EXPECT_EQ(g_initial.signal_fd, 0);
    EXPECT_EQ(g_initial.lan_pipe[0], 0);
    EXPECT_EQ(g_initial.lan_pipe[1], 0);
}

using DaemonMain = DaemonTest;

TEST_F(DaemonMain, NoStopPipeGivesOneAndRunsNothing) {
    dbl::push("Instance::on_stop_pipe", dbl::fail(EMFILE));
    EXPECT_EQ(call_main({"aldsorvelupdd", "-l", "0"}), 1);
    EXPECT_EQ(stop_fd, -1);
    // The command line reaches the framework whole; nothing runs, nothing
    // is logged, and the instance is gone before main returns.
    EXPECT_EQ(dbl::journal(), (std::vector<std::string>{"daemon::instance 3", "Instance::on_stop_pipe", "~Instance",
                                                        "main returned"}));
    EXPECT_TRUE(dbl::log_lines().empty());
}

TEST_F(DaemonMain, OnlyMinusOneCountsAsNoStopPipe) {
    for (long fd : {-2L, 0L}) {
        dbl::reset();
        dbl::push("Instance::on_stop_pipe", dbl::ok(fd));
        dbl::push("Instance::run", dbl::ok(5));
        EXPECT_EQ(call_main({"aldsorvelupdd"}), 5) << fd;
        EXPECT_EQ(stop_fd, fd);
        EXPECT_NE(dbl::find("Instance::run"), -1) << fd;
    }
}

TEST_F(DaemonMain, StopPipeIsRecordedBeforeTheFrameworkRuns) {
    dbl::push("Instance::on_stop_pipe", dbl::ok(37));
    int seen = -100;
    dbl::push("Instance::run", dbl::then(dbl::ok(0), [&] { seen = stop_fd; }));
    EXPECT_EQ(call_main({"aldsorvelupdd"}), 0);
    EXPECT_EQ(seen, 37);
    EXPECT_EQ(dbl::journal(), (std::vector<std::string>{"daemon::instance 1", "Instance::on_stop_pipe", "Instance::run",
                                                        "~Instance", "main returned"}));
    EXPECT_TRUE(dbl::log_lines().empty()) << "main logs nothing";
}

TEST_F(DaemonMain, StopFdIsTheReadEndOfTheFrameworksPipe) {
    std::string through_pipe;
    dbl::push("Instance::run", dbl::then(dbl::ok(0), [&] {
                  char out = 'x';
                  char in = 0;
                  if (::write(dbl::stop_write_fd(), &out, 1) == 1 && ::read(stop_fd, &in, 1) == 1) through_pipe += in;
              }));
    EXPECT_EQ(call_main({"aldsorvelupdd"}), 0);
    EXPECT_EQ(through_pipe, "x");
    ::close(stop_fd);  // the daemon's to close; its run hook never ran here
}

TEST_F(DaemonMain, StatusIsWhatTheFrameworkReturns) {
    for (long value : {0L, 7L, 1L, 2L, 255L}) {
        dbl::reset();
        dbl::push("Instance::on_stop_pipe", dbl::ok(40));
        dbl::push("Instance::run", dbl::ok(value));
        EXPECT_EQ(call_main({"aldsorvelupdd"}), value);
    }
}

TEST_F(DaemonMain, InstanceIsHeldForTheWholeRun) {
    dbl::push("Instance::on_stop_pipe", dbl::ok(40));
    dbl::push("Instance::run", dbl::ok(7));
    EXPECT_EQ(call_main({"aldsorvelupdd"}), 7);
    // main's own reference keeps it alive while run() executes (the double
    // counts the shared owners at that moment, its own look included).
    EXPECT_GE(dbl::instance_owners_during_run(), 2);
    EXPECT_EQ(dbl::stop_flag_during_run(), &stop_requested) << "the framework holds the stop flag";
    const long run = dbl::find("Instance::run");
    const long destroyed = dbl::find("~Instance");
    ASSERT_NE(run, -1);
    ASSERT_NE(destroyed, -1);
    EXPECT_LT(run, destroyed);
    EXPECT_LT(destroyed, dbl::find("main returned"));
    EXPECT_EQ(dbl::journal("~Instance").size(), 1u);
}

// Unscripted, the double's framework calls the hooks that main installed.
TEST_F(DaemonMain, InstalledInitHookIsTheDaemonsInit) {
    dbl::push("epoll_create", dbl::fail(EMFILE));
    EXPECT_EQ(call_main({"aldsorvelupdd"}), 1);
    const long start = dbl::find("log info init: start ald sorvelupd daemon");
    ASSERT_NE(start, -1);
    EXPECT_NE(dbl::find("log error init: failed to open epoll", start), -1);
    EXPECT_NE(dbl::find("close " + std::to_string(stop_fd), start), -1) << "init closes the stop pipe";
    EXPECT_TRUE(dbl::journal("MonitoredKey").empty()) << "run must not follow a failed init";
    EXPECT_LT(dbl::find("~Instance"), dbl::find("main returned"));
}

TEST_F(DaemonMain, InstalledRunHookIsTheDaemonsRun) {
    // A stop request is already waiting when the loop first looks.
    dbl::push("setMgmt::init", dbl::then(dbl::ok(0), [] {
                  char byte = 's';
                  (void)!::write(dbl::stop_write_fd(), &byte, 1);
              }));
    EXPECT_EQ(call_main({"aldsorvelupdd"}), 0);
    const long init = dbl::find("log info init: start ald sorvelupd daemon");
    ASSERT_NE(init, -1);
    const long watch = dbl::find("MonitoredKey /privacy/aur 0 false", init);
    ASSERT_NE(watch, -1);
    const long stopped = dbl::find("log info run: stop ald sorvelupd daemon", watch);
    ASSERT_NE(stopped, -1);
    EXPECT_NE(dbl::find("close " + std::to_string(stop_fd), watch), -1);
    EXPECT_LT(stopped, dbl::find("~Instance"));
    EXPECT_TRUE(stop_requested);
}
