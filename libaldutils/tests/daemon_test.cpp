// The daemon framework: options, the stop pipe and its signals, the hooks.
// The framework's instance, its signal handlers and its exits are
// process-wide, so every case runs in a forked child of its own.
#include <ald/daemon.h>
#include <ald/log.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <functional>
#include <new>
#include <poll.h>
#include <set>
#include <stdexcept>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace {

struct Child {
    int status = -1;
    std::string out;
    std::string err;

    bool exited_with(int code) const { return WIFEXITED(status) && WEXITSTATUS(status) == code; }
};

std::ostream& operator<<(std::ostream& os, const Child& c) {
    return os << "status " << c.status << " (exit " << (WIFEXITED(c.status) ? WEXITSTATUS(c.status) : -1)
              << ", signal " << (WIFSIGNALED(c.status) ? WTERMSIG(c.status) : 0) << ")\nstdout: " << c.out
              << "\nstderr: " << c.err;
}

std::string read_all(int fd) {
    std::string text;
    char buf[4096];
    ssize_t n;
    while ((n = ::read(fd, buf, sizeof buf)) > 0) text.append(buf, static_cast<std::size_t>(n));
    return text;
}

// Runs `body` in a forked child; its result is the child's exit status
// unless the body exits by itself.
Child in_child(const std::function<int()>& body) {
    int out[2], err[2];
    Child c;
    if (::pipe(out) != 0 || ::pipe(err) != 0) return c;
    ::fflush(nullptr);
    pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(out[1], STDOUT_FILENO);
        ::dup2(err[1], STDERR_FILENO);
        for (int fd : {out[0], out[1], err[0], err[1]}) ::close(fd);
        // Nothing may escape into the test runner's copy in this child.
        int code = 125;
        try {
            code = body();
        } catch (...) {
            std::printf("exception escaped\n");
        }
        ::fflush(nullptr);
        ::_exit(code);
    }
    ::close(out[1]);
    ::close(err[1]);
    // The children write little: reading one pipe after the other is safe.
    c.out = read_all(out[0]);
    c.err = read_all(err[0]);
    ::close(out[0]);
    ::close(err[0]);
    while (::waitpid(pid, &c.status, 0) < 0 && errno == EINTR) {
    }
    return c;
}

// argv for the framework, with a program name in front.
class Args {
public:
    explicit Args(const std::vector<const char*>& args) {
        text_.emplace_back("/usr/sbin/testd");
        for (const char* a : args) text_.emplace_back(a);
        for (auto& t : text_) ptrs_.push_back(&t[0]);
        ptrs_.push_back(nullptr);
    }
    int argc() const { return static_cast<int>(text_.size()); }
    char** argv() { return ptrs_.data(); }

private:
    std::vector<std::string> text_;
    std::vector<char*> ptrs_;
};

std::shared_ptr<ald::daemon::Instance> make(Args args) { return ald::daemon::instance(args.argc(), args.argv()); }

// Parses `args` in a child; a child that gets past the parsing prints the
// resulting threshold.
Child parse(const std::vector<const char*>& args) {
    return in_child([&] {
        auto inst = make(Args(args));
        std::printf("threshold=%d\n", ald::log::current_level);
        return inst ? 0 : 3;
    });
}

std::set<int> open_descriptors() {
    std::set<int> fds;
    if (DIR* d = ::opendir("/proc/self/fd")) {
        int own = ::dirfd(d);
        while (dirent* e = ::readdir(d))
            if (e->d_name[0] != '.') fds.insert(std::atoi(e->d_name));
        fds.erase(own);
        ::closedir(d);
    }
    return fds;
}

bool readable(int fd, int timeout_ms) {
    pollfd p{fd, POLLIN, 0};
    return ::poll(&p, 1, timeout_ms) == 1 && (p.revents & POLLIN);
}

void drain(int fd) {
    int flags = ::fcntl(fd, F_GETFL);
    ::fcntl(fd, F_SETFL, flags | O_NONBLOCK);
    char buf[4096];
    while (::read(fd, buf, sizeof buf) > 0) {
    }
    ::fcntl(fd, F_SETFL, flags);
}

}  // namespace

// ---- options ------------------------------------------------------------------------

TEST(DaemonOptions, LogLevelSetsTheThreshold) {
    struct Case {
        std::vector<const char*> args;
        const char* expected;
    };
    const Case cases[] = {
        {{}, "threshold=2\n"},
        {{"-l", "0"}, "threshold=0\n"},
        {{"-l", "1"}, "threshold=1\n"},
        {{"-l", "-1"}, "threshold=-1\n"},
        {{"--log-level=7"}, "threshold=7\n"},
        {{"--log-level=-3"}, "threshold=-3\n"},
        {{"--log-level=-2147483648"}, "threshold=-2147483648\n"},
        {{"-l", "1", "--log-level=0"}, "threshold=0\n"},
    };
    for (const Case& c : cases) {
        Child r = parse(c.args);
        EXPECT_TRUE(r.exited_with(0)) << r;
        EXPECT_EQ(r.out, c.expected) << r;
        EXPECT_EQ(r.err, "") << r;
    }
}

TEST(DaemonOptions, HelpPrintsUsageOnStdoutAndExitsZero) {
    for (const std::vector<const char*>& args : {std::vector<const char*>{"--help"}, {"-h"}, {"-l", "1", "--help"}}) {
        Child r = parse(args);
        EXPECT_TRUE(r.exited_with(0)) << r;
        EXPECT_EQ(r.out.find("threshold="), std::string::npos) << "no instance after --help\n" << r;
        EXPECT_NE(r.out.find("--log-level"), std::string::npos) << r;
        EXPECT_NE(r.out.find("--help"), std::string::npos) << r;
        EXPECT_EQ(r.err, "") << r;
    }
}

TEST(DaemonOptions, BadUsageGoesToStderrWithStatusTwo) {
    struct Case {
        std::vector<const char*> args;
        const char* named;  // text the error should mention, or null
    };
    const Case cases[] = {
        {{"--bogus"}, "--bogus"},
        {{"-x"}, nullptr},
        {{"operand"}, "operand"},
        {{"-l", "1", "extra"}, "extra"},
        {{"-l"}, nullptr},
        {{"-l", "abc"}, "abc"},
        {{"-l", "1x"}, "1x"},
        {{"-l", ""}, nullptr},
        {{"-l", "1.5"}, "1.5"},
        {{"--log-level="}, nullptr},
        {{"--log-level=2147483648"}, "2147483648"},
        {{"--help=yes"}, nullptr},
    };
    for (const Case& c : cases) {
        Child r = parse(c.args);
        EXPECT_TRUE(r.exited_with(2)) << r;
        EXPECT_EQ(r.out, "") << r;
        EXPECT_FALSE(r.err.empty()) << r;
        if (!r.err.empty()) {
            EXPECT_EQ(r.err.back(), '\n') << r;
        }
        if (c.named) {
            EXPECT_NE(r.err.find(c.named), std::string::npos) << r;
        }
    }
}

TEST(DaemonInstance, OneInstanceWhileAliveAndFreshParsingAfterwards) {
    Child r = in_child([] {
        auto first = make(Args({"-l", "1"}));
        // Not parsed again: this would exit with status 2.
        auto second = make(Args({"--bogus"}));
        std::printf("same %d level %d\n", first == second, ald::log::current_level);
        first.reset();
        second.reset();
        auto third = make(Args({"-l", "0"}));
        std::printf("level %d\n", ald::log::current_level);
        return third ? 0 : 3;
    });
    EXPECT_TRUE(r.exited_with(0)) << r;
    EXPECT_EQ(r.out, "same 1 level 1\nlevel 0\n") << r;
}

TEST(DaemonInstance, IgnoresSigpipe) {
    Child r = in_child([] {
        std::signal(SIGPIPE, SIG_DFL);
        auto inst = make(Args({}));
        struct sigaction sa;
        ::sigaction(SIGPIPE, nullptr, &sa);
        return sa.sa_handler == SIG_IGN ? 0 : 1;
    });
    EXPECT_TRUE(r.exited_with(0)) << r;
}

// ---- the stop pipe -----------------------------------------------------------------

TEST(DaemonStopPipe, StopSignalsMakeItReadable) {
    Child r = in_child([] {
        auto inst = make(Args({}));
        std::set<int> before = open_descriptors();
        int fd = inst->on_stop_pipe();
        if (fd < 0) return std::printf("on_stop_pipe: %s\n", std::strerror(errno)), 1;
        std::set<int> after = open_descriptors();
        for (int made : after)
            if (!before.count(made) && !(::fcntl(made, F_GETFD) & FD_CLOEXEC))
                std::printf("fd %d is not close-on-exec\n", made);
        if (after.size() != before.size() + 2) std::printf("%zu new descriptors\n", after.size() - before.size());
        if (readable(fd, 0)) std::printf("readable before any signal\n");
        for (int sig : {SIGTERM, SIGINT, SIGHUP}) {
            ::raise(sig);
            if (!readable(fd, 2000)) std::printf("signal %d left the pipe unreadable\n", sig);
            drain(fd);
            if (readable(fd, 0)) std::printf("still readable after draining\n");
        }
        std::printf("done\n");
        return 0;
    });
    EXPECT_TRUE(r.exited_with(0)) << r;
    EXPECT_EQ(r.out, "done\n") << r;
}

TEST(DaemonStopPipe, ABurstOfSignalsNeverBlocksTheHandler) {
    Child r = in_child([] {
        ::alarm(10);  // a handler stuck on a full pipe ends the child with SIGALRM
        auto inst = make(Args({}));
        int fd = inst->on_stop_pipe();
        if (fd < 0) return 1;
        for (int i = 0; i < 70000; ++i) ::raise(SIGTERM);
        if (!readable(fd, 0)) return 2;
        return 0;
    });
    EXPECT_TRUE(r.exited_with(0)) << r;
}

TEST(DaemonStopPipe, HandedOverOnlyOnce) {
    Child r = in_child([] {
        auto inst = make(Args({}));
        int first = inst->on_stop_pipe();
        errno = 0;
        int second = inst->on_stop_pipe();
        std::printf("%d %d\n", first >= 0, second);
        return 0;
    });
    EXPECT_TRUE(r.exited_with(0)) << r;
    EXPECT_EQ(r.out, "1 -1\n") << r;
}

TEST(DaemonStopPipe, FailsWhenNoPipeCanBeMade) {
    Child r = in_child([] {
        auto inst = make(Args({}));
        rlimit lim{};
        ::getrlimit(RLIMIT_NOFILE, &lim);
        rlimit none = lim;
        none.rlim_cur = 0;
        if (::setrlimit(RLIMIT_NOFILE, &none) != 0) return 9;
        errno = 0;
        int fd = inst->on_stop_pipe();
        int err = errno;
        ::setrlimit(RLIMIT_NOFILE, &lim);
        std::printf("%d %s\n", fd, err == EMFILE ? "EMFILE" : std::strerror(err));
        return 0;
    });
    EXPECT_TRUE(r.exited_with(0)) << r;
    EXPECT_EQ(r.out, "-1 EMFILE\n") << r;
}

// ---- the hooks -------------------------------------------------------------------------

namespace {

// Runs the instance's hooks as set up by `prepare` and prints what ran and
// what run() returned.
Child run_hooks(const std::function<void(ald::daemon::Instance&, std::string&)>& prepare) {
    return in_child([&] {
        auto inst = make(Args({}));
        std::string calls;
        prepare(*inst, calls);
        int result = inst->run();
        std::printf("%s-> %d\n", calls.c_str(), result);
        return 0;
    });
}

}  // namespace

TEST(DaemonRun, InitFailureGivesOneWithoutTheRunHook) {
    Child r = run_hooks([](ald::daemon::Instance& inst, std::string& calls) {
        inst.init_hook = [&calls] { calls += "init "; return false; };
        inst.run_hook = [&calls] { calls += "run "; return 0; };
    });
    EXPECT_TRUE(r.exited_with(0)) << r;
    EXPECT_EQ(r.out, "init -> 1\n") << r;
}

TEST(DaemonRun, ResultIsTheRunHooksValue) {
    for (int value : {0, 7, 1, 255}) {
        Child r = run_hooks([value](ald::daemon::Instance& inst, std::string& calls) {
            inst.init_hook = [&calls] { calls += "init "; return true; };
            inst.run_hook = [&calls, value] { calls += "run "; return value; };
        });
        EXPECT_TRUE(r.exited_with(0)) << r;
        EXPECT_EQ(r.out, "init run -> " + std::to_string(value) + "\n") << r;
    }
}

TEST(DaemonRun, ExceptionsFromHooksGiveOne) {
    using Prepare = std::function<void(ald::daemon::Instance&, std::string&)>;
    struct Case {
        const char* name;
        Prepare prepare;
        const char* calls;
        const char* logged;  // text expected on stderr, or null
    };
    const Case cases[] = {
        {"init throws", [](ald::daemon::Instance& inst, std::string& calls) {
             inst.init_hook = [&calls]() -> bool { calls += "init "; throw std::runtime_error("init blew up"); };
             inst.run_hook = [&calls] { calls += "run "; return 0; };
         }, "init ", "init blew up"},
        {"run throws bad_alloc", [](ald::daemon::Instance& inst, std::string& calls) {
             inst.init_hook = [&calls] { calls += "init "; return true; };
             inst.run_hook = [&calls]() -> int { calls += "run "; throw std::bad_alloc(); };
         }, "init run ", nullptr},
        {"init throws system_error", [](ald::daemon::Instance& inst, std::string& calls) {
             inst.init_hook = [&calls]() -> bool {
                 calls += "init ";
                 throw std::system_error(std::make_error_code(std::errc::resource_deadlock_would_occur), "lock");
             };
             inst.run_hook = [&calls] { calls += "run "; return 0; };
         }, "init ", "lock"},
    };
    for (const Case& c : cases) {
        Child r = run_hooks(c.prepare);
        EXPECT_TRUE(r.exited_with(0)) << c.name << "\n" << r;
        EXPECT_EQ(r.out, std::string(c.calls) + "-> 1\n") << c.name << "\n" << r;
        if (c.logged) {
            EXPECT_NE(r.err.find(c.logged), std::string::npos) << c.name << "\n" << r;
        }
    }
}

// "A hook that throws counts as a failure": whatever it throws, the process
// must end through run()'s 1, not through std::terminate.
TEST(DaemonRun, ANonStandardExceptionAlsoGivesOne) {
    Child r = run_hooks([](ald::daemon::Instance& inst, std::string& calls) {
        inst.init_hook = [&calls] { calls += "init "; return true; };
        inst.run_hook = [&calls]() -> int { calls += "run "; throw 42; };
    });
    EXPECT_TRUE(r.exited_with(0)) << r;
    EXPECT_EQ(r.out, "init run -> 1\n") << r;
}

TEST(DaemonRun, NeverWritesThroughTheStopFlag) {
    Child r = run_hooks([](ald::daemon::Instance& inst, std::string& calls) {
        static bool flag = false;
        inst.stop_flag = &flag;
        int fd = inst.on_stop_pipe();
        inst.init_hook = [&calls] { calls += "init "; return true; };
        inst.run_hook = [&calls, &inst, fd] {
            ::raise(SIGTERM);
            calls += readable(fd, 2000) ? "stop " : "no-stop ";
            calls += (inst.stop_flag == &flag && !flag) ? "untouched " : "written ";
            return 0;
        };
    });
    EXPECT_TRUE(r.exited_with(0)) << r;
    EXPECT_EQ(r.out, "init stop untouched -> 0\n") << r;
}
