// SPDX-License-Identifier: MIT
// The daemon framework (options, stop pipe, hooks), the log statement and
// its sink, fork, and the environment builder's refusals (what it builds
// shows in the updater's environment, tests/system). What is process-wide (the instance,
// handlers, exits) runs in forked children.
#include <ald/daemon.h>
#include <ald/log.h>
#include <ald/network.h>
#include <ald/process.h>
#include <ald/version.h>

#include "child.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <stdexcept>
#include <regex>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

std::shared_ptr<ald::daemon::Instance> instance(std::vector<const char*> args) {
    args.insert(args.begin(), "/sbin/prog");
    args.push_back(nullptr);
    return ald::daemon::instance(static_cast<int>(args.size() - 1), const_cast<char**>(args.data()));
}

TEST(Framework, OptionsSetTheLogLevelPrintHelpOrTheVersionOrEndInAUsageError) {
    const std::string version = std::string("prog ") + ald::version() + "\n";
    const struct {
        std::vector<const char*> args;
        int status;  // 100 + the level when the options were taken
        const char* text;
    } cases[] = {
        {{}, 102, ""}, {{"-l", "0"}, 100, ""}, {{"--log-level=-1"}, 99, ""}, {{"-l7"}, 107, ""},
        {{"--help"}, 0, "Usage: prog [-l N | --log-level=N] [--syslog] [-h | --help] [--version]"}, {{"-h", "-x"}, 0, "Usage: prog"},
        {{"--version", "-x"}, 0, version.c_str()},
        {{"-l"}, 2, "prog: option needs a value: -l"}, {{"-l", "x"}, 2, "prog: log level is not an integer: x"},
        {{"--log-level=99999999999"}, 2, "prog: log level is not an integer"}, {{"-x"}, 2, "prog: unknown option"},
        {{"-l", "1", "extra"}, 2, "prog: unexpected operand: extra"},
    };
    for (const auto& c : cases) {
        const outcome o = in_child([&] {
            instance(c.args);
            return 100 + ald::log::current_level;
        });
        EXPECT_EQ(o.status, c.status) << c.args.size() << " arguments: " << o.text;
        EXPECT_EQ(o.text.find(c.text), 0u) << o.text;
    }
}

TEST(Framework, WithoutStandardDescriptorsEachStopSignalStillReachesTheStopPipe) {
    const outcome o = in_child([] {
        const int report = ::dup(2);  // started as a careless init script does: 0, 1 and 2 closed
        for (int fd : {0, 1, 2}) ::close(fd);
        auto daemon = instance({});
        const int fd = daemon->on_stop_pipe();
        ::dup2(report, 2);
        if (fd <= report) return fail("the stop pipe took a standard descriptor");
        if (!(::fcntl(fd, F_GETFD) & FD_CLOEXEC)) return fail("no close-on-exec stop pipe");
        if (daemon->on_stop_pipe() != -1 || errno != EBUSY) return fail("the stop pipe was handed over twice");
        char byte;
        for (int sig : {SIGTERM, SIGINT, SIGHUP})
            if (::raise(sig) != 0 || ::read(fd, &byte, 1) != 1) return fail("a stop signal wrote nothing");
        for (int i = 0; i < 100000; ++i) ::raise(SIGTERM);  // more than the pipe holds
        if (std::signal(SIGPIPE, SIG_DFL) != SIG_IGN) return fail("SIGPIPE is not ignored");
        return 0;
    });
    EXPECT_EQ(o.status, 0) << o.text;
}

TEST(Framework, RunGivesTheRunHooksValueOrOneWhenInitFailsOrAHookThrows) {
    const struct { std::function<bool()> init; std::function<int()> run; int status; const char* line; } cases[] = {
        {[] { return true; }, [] { return 7; }, 7, nullptr},
        {[] { return false; }, [] { return fail("the run hook ran after a failed init"); }, 1, nullptr},
        {[]() -> bool { ald::netMgmt::init(true), throw std::runtime_error("no memory"); }, nullptr, 1,
         "error: daemon hook failed: no memory\n"},
        {[] { return true; }, []() -> int { throw 5; }, 1, "error: daemon hook failed: unknown exception\n"},
        {[] { return true; }, []() -> int { ald::log::current_level = -1, throw 5; }, 1, nullptr},
    };
    for (const auto& c : cases) {
        const outcome o = in_child([&] {
            auto daemon = instance({});
            bool stop = false;
            daemon->stop_flag = &stop;
            daemon->init_hook = c.init;
            daemon->run_hook = c.run;
            const int status = daemon->run();
            if (ald::netMgmt::init(true) != 0) return fail("the LAN monitor a hook started still runs");
            ald::netMgmt::uninit();
            return stop ? fail("the framework wrote the stop flag") : status;
        });
        EXPECT_EQ(o.status, c.status) << o.text;
        EXPECT_EQ(o.writes, c.line ? std::vector<std::string>{c.line} : std::vector<std::string>{});
    }
}

TEST(Log, EachProducedLineIsOneWriteOfLevelPrefixAndMessage) {
    const std::string long_text(3000, 'x');
    outcome o = in_child([&] {
        using ald::log::level;
        const ald::basic_string_view<char> file("f.cppXXX", 5), func("fnYYY", 2);
        ald::log::current_level = 1;
        errno = 1234;
        ald::log::print(0, level::warning, file, 12, func, ald::basic_string_view<char>("%d%% of %s", 2), 42, "all");
        ald::log::print(0, level::info, file, 13, func, "filtered out");
        ald::log::print(0, level::error, file, 14, func, "%s", long_text.c_str());
        ald::log::print(0, level::error, file, 15, func, "no arguments, 100%%");
        ald::log::print(0, level::error, file, 16, func, "bad %", 1);
        struct stat journal;  // standard error as systemd hands it to a service
        ::fstat(2, &journal);
        ::setenv("JOURNAL_STREAM", (std::to_string(journal.st_dev) + ":" + std::to_string(journal.st_ino)).c_str(), 1);
        ald::log::print(0, level::error, "e");
        ald::log::print(0, level::warning, file, 17, func, "w");
        ald::log::print(0, level::info, "i");
        ::setenv("JOURNAL_STREAM", "1:1", 1);
        ald::log::print(0, level::error, "not the journal");
        ald::log::current_level = -1;
        ald::log::print(0, level::error, file, 18, func, "silenced");
        ::close(2);  // a write that fails leaves errno alone too
        ald::log::print(0, level::error, "lost");
        return errno == 1234 ? 0 : 3;  // 3: errno changed
    });
    EXPECT_EQ(o.status, 0) << o.text;
    ASSERT_EQ(o.writes.size(), 8u) << o.text;
    EXPECT_EQ(o.writes[3].find("error: [f.cpp:16][fn()]: bad %"), 0u) << o.writes[3];  // the rest is {fmt}'s
    o.writes[3] = "bad";
    EXPECT_EQ(o.writes, (std::vector<std::string>{"warning: [f.cpp:12][fn()]: 42% of all\n",
                                                 "error: [f.cpp:14][fn()]: " + long_text + "\n",
                                                 "error: [f.cpp:15][fn()]: no arguments, 100%\n", "bad", "<3>error: e\n",
                                                 "<4>warning: [f.cpp:17][fn()]: w\n", "<6>info: i\n", "error: not the journal\n"}));
}

TEST(Log, WithSyslogEachLineGoesToTheSystemLogAtItsPriority) {
    const outcome o = in_child([] {
        // A private /dev that holds only a log socket (root only).
        if (::unshare(CLONE_NEWNS) != 0 || ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            ::mount("ald-test", "/dev", "tmpfs", 0, nullptr) != 0)
            return 77;
        const int log = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        const sockaddr_un at{AF_UNIX, "/dev/log"};
        if (::bind(log, reinterpret_cast<const sockaddr*>(&at), sizeof at) != 0) return fail("no log socket");
        instance({"--syslog"});
        ald::log::print(0, ald::log::level::error, "e");
        ald::log::print(0, ald::log::level::info, ald::basic_string_view<char>("f.cpp"), 9, "fn", "i %d", 5);
        char message[512];
        for (int i = 0; i < 2; ++i) (void)!::write(1, message, ::recv(log, message, sizeof message, 0));
        return 0;
    });
    if (o.status == 77) GTEST_SKIP() << "needs root: a mount namespace";
    ASSERT_EQ(o.status, 0) << o.text;
    ASSERT_EQ(o.writes.size(), 2u) << o.text;  // nothing on standard error
    const char* time = R"(\w{3} [ \d]\d \d\d:\d\d:\d\d)";
    EXPECT_TRUE(std::regex_match(o.writes[0], std::regex(std::string("<27>") + time + R"( prog\[\d+\]: e)"))) << o.writes[0];
    EXPECT_TRUE(std::regex_match(o.writes[1], std::regex(std::string("<30>") + time + R"( prog\[\d+\]: \[f.cpp:9\]\[fn\(\)\]: i 5)")))
        << o.writes[1];
}

void on_signal(int) {}

// What exec would hide: a handler of the parent's still set between fork and
// exec, and a descriptor opened without O_CLOEXEC. The child's mask, ignored
// signals, parent-death signal and standard descriptors show in the updater
// (tests/system, tests/armvm).
TEST(Process, TheChildKeepsNoHandlerAndNoDescriptorAcrossExec) {
    const outcome o = in_child([] {
        for (int sig : {SIGTERM, SIGINT, SIGHUP}) std::signal(sig, on_signal);
        const int inherited = ::open("/dev/null", O_RDONLY);
        const pid_t pid = ald::fork({SIGTERM});
        if (pid != 0) {
            int status = 0;
            ::waitpid(pid, &status, 0);
            return WEXITSTATUS(status);
        }
        struct sigaction action;
        for (int sig : {SIGTERM, SIGINT, SIGHUP})
            if (sigaction(sig, nullptr, &action) != 0 || action.sa_handler != SIG_DFL) return fail("a handler was kept");
        return ::fcntl(inherited, F_GETFD) & FD_CLOEXEC ? 0 : fail("a descriptor stays open across exec");
    });
    EXPECT_EQ(o.status, 0) << o.text;
}

// The daemon only passes names of settings keys, which are never empty; the
// builder itself must keep a nameless or "=" variable out of the updater's
// environment.
TEST(Process, TheEnvironmentRefusesAnEmptyNameOrOneWithEqualsAndKeepsTheRest) {
    ald::Environ env;
    for (const char* name : {"", "A=B"}) EXPECT_FALSE(env.set(name, "refused", true)) << '"' << name << '"';
    for (char** e = env.to_environ(); *e; ++e) EXPECT_EQ(std::strstr(*e, "refused"), nullptr) << *e;
}

}  // namespace
