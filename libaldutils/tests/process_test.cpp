// ald::fork in real children, and the environment builder.
#include <ald/process.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

extern char** environ;

namespace {

void no_op_handler(int) {}

// Saves and restores the dispositions and the mask a test changes.
class SignalGuard {
public:
    explicit SignalGuard(std::vector<int> signals) : signals_(std::move(signals)) {
        for (int sig : signals_) {
            struct sigaction sa;
            ::sigaction(sig, nullptr, &sa);
            saved_.push_back(sa);
        }
        ::sigprocmask(SIG_SETMASK, nullptr, &mask_);
    }
    ~SignalGuard() {
        ::sigprocmask(SIG_SETMASK, &mask_, nullptr);
        for (std::size_t i = 0; i < signals_.size(); ++i) ::sigaction(signals_[i], &saved_[i], nullptr);
    }

private:
    std::vector<int> signals_;
    std::vector<struct sigaction> saved_;
    sigset_t mask_;
};

void set_handler(int sig, void (*handler)(int)) {
    struct sigaction sa;
    std::memset(&sa, 0, sizeof sa);
    sa.sa_handler = handler;
    sigemptyset(&sa.sa_mask);
    ::sigaction(sig, &sa, nullptr);
}

void (*handler_of(int sig))(int) {
    struct sigaction sa;
    ::sigaction(sig, nullptr, &sa);
    return sa.sa_handler;
}

std::string mask_text(const sigset_t& set) {
    std::string out;
    for (int sig = 1; sig < NSIG; ++sig)
        if (sigismember(&set, sig) == 1) out += std::to_string(sig) + ' ';
    return out;
}

std::string current_mask() {
    sigset_t set;
    ::sigprocmask(SIG_SETMASK, nullptr, &set);
    return mask_text(set);
}

bool cloexec(int fd) { return (::fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0; }

std::string read_all(int fd) {
    std::string text;
    char buf[4096];
    ssize_t n;
    while ((n = ::read(fd, buf, sizeof buf)) > 0) text.append(buf, static_cast<std::size_t>(n));
    return text;
}

int wait_for(pid_t pid) {
    int status = -1;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return status;
}

// Runs `path` with `argv` in a child made by ald::fork, its standard output
// into a pipe; returns that output.
std::string exec_through_ald_fork(const char* path, std::vector<const char*> argv, std::initializer_list<int> defaults) {
    int out[2];
    if (::pipe(out) != 0) return "pipe failed";
    ::fflush(nullptr);
    pid_t pid = ald::fork(defaults);
    if (pid == 0) {
        ::dup2(out[1], STDOUT_FILENO);
        argv.push_back(nullptr);
        ::execv(path, const_cast<char* const*>(argv.data()));
        ::_exit(127);
    }
    ::close(out[1]);
    std::string text = read_all(out[0]);
    ::close(out[0]);
    int status = wait_for(pid);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return "child failed: " + std::to_string(status);
    return text;
}

std::string status_field(const std::string& status, const std::string& name) {
    std::istringstream in(status);
    std::string line;
    while (std::getline(in, line))
        if (line.compare(0, name.size() + 1, name + ":") == 0) {
            std::string value = line.substr(name.size() + 1);
            value.erase(0, value.find_first_not_of(" \t"));
            return value;
        }
    return "<missing " + name + ">";
}

}  // namespace

// ---- fork -------------------------------------------------------------------------

TEST(Fork, ChildStartsWithDefaultActionsAnEmptyMaskAndCloexecDescriptors) {
    SignalGuard guard({SIGTERM, SIGINT, SIGHUP, SIGPIPE, SIGUSR1});
    set_handler(SIGTERM, no_op_handler);
    set_handler(SIGINT, no_op_handler);
    set_handler(SIGHUP, SIG_IGN);
    set_handler(SIGPIPE, SIG_IGN);
    set_handler(SIGUSR1, no_op_handler);
    sigset_t block;
    sigemptyset(&block);
    for (int sig : {SIGTERM, SIGUSR2, SIGCHLD, SIGPIPE}) sigaddset(&block, sig);
    ::sigprocmask(SIG_BLOCK, &block, nullptr);
    const std::string parent_mask = current_mask();

    // Descriptors the child inherits, none close-on-exec here.
    int planted[2];
    ASSERT_EQ(::pipe(planted), 0);
    int high = ::fcntl(planted[0], F_DUPFD, 300);
    ASSERT_GE(high, 300);
    int report[2];
    ASSERT_EQ(::pipe(report), 0);
    const bool std_cloexec[3] = {cloexec(0), cloexec(1), cloexec(2)};

    ::fflush(nullptr);
    pid_t pid = ald::fork({SIGTERM, SIGINT, SIGHUP});
    if (pid == 0) {
        std::string bad;
        for (int sig : {SIGTERM, SIGINT, SIGHUP, SIGPIPE})
            if (handler_of(sig) != SIG_DFL) bad += "signal " + std::to_string(sig) + " not default; ";
        std::string mask = current_mask();
        if (!mask.empty()) bad += "mask not empty: " + mask + "; ";
        for (int fd : {planted[0], planted[1], high, report[0], report[1]})
            if (!cloexec(fd)) bad += "fd " + std::to_string(fd) + " not close-on-exec; ";
        for (int fd = 0; fd < 3; ++fd)
            if (cloexec(fd) != std_cloexec[fd]) bad += "fd " + std::to_string(fd) + " changed; ";
        if (bad.empty()) bad = "ok";
        (void)!::write(report[1], bad.data(), bad.size());
        ::_exit(0);
    }
    ASSERT_GT(pid, 0) << std::strerror(errno);
    ::close(report[1]);
    std::string result = read_all(report[0]);
    ::close(report[0]);
    int status = wait_for(pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_EQ(result, "ok");

    // The parent keeps its mask, handlers and descriptor flags.
    EXPECT_EQ(current_mask(), parent_mask);
    EXPECT_EQ(handler_of(SIGTERM), &no_op_handler);
    EXPECT_EQ(handler_of(SIGPIPE), SIG_IGN);
    EXPECT_FALSE(cloexec(planted[0]));
    EXPECT_FALSE(cloexec(high));
    ::close(planted[0]);
    ::close(planted[1]);
    ::close(high);
}

TEST(Fork, AProgramItRunsInheritsNoBlockedOrIgnoredStopSignalsAndNoDescriptors) {
    SignalGuard guard({SIGPIPE, SIGTERM, SIGINT});
    set_handler(SIGPIPE, SIG_IGN);
    set_handler(SIGTERM, SIG_IGN);
    set_handler(SIGINT, no_op_handler);
    sigset_t block;
    sigfillset(&block);
    ::sigprocmask(SIG_BLOCK, &block, nullptr);
    int high = ::fcntl(STDERR_FILENO, F_DUPFD, 400);
    ASSERT_GE(high, 400);

    std::string status = exec_through_ald_fork("/bin/cat", {"cat", "/proc/self/status"}, {SIGTERM, SIGINT});
    ::sigprocmask(SIG_UNBLOCK, &block, nullptr);
    EXPECT_EQ(status_field(status, "SigBlk"), "0000000000000000") << status;
    unsigned long long ignored = std::strtoull(status_field(status, "SigIgn").c_str(), nullptr, 16);
    EXPECT_EQ(ignored & (1ULL << (SIGPIPE - 1)), 0u) << "SIGPIPE stays ignored";
    EXPECT_EQ(ignored & (1ULL << (SIGTERM - 1)), 0u) << "SIGTERM stays ignored";

    // ls holds its own directory descriptor (3) and nothing of ours.
    std::string fds = exec_through_ald_fork("/bin/ls", {"ls", "/proc/self/fd"}, {});
    EXPECT_EQ(fds, "0\n1\n2\n3\n");
    ::close(high);
}

// ---- environment ------------------------------------------------------------

namespace {

std::vector<std::string> as_vector(char** env) {
    std::vector<std::string> out;
    for (char** e = env; e && *e; ++e) out.emplace_back(*e);
    return out;
}

long count_named(const std::vector<std::string>& env, const std::string& name) {
    return std::count_if(env.begin(), env.end(),
                         [&](const std::string& e) { return e.compare(0, name.size() + 1, name + "=") == 0; });
}

std::string value_of(const std::vector<std::string>& env, const std::string& name) {
    for (const auto& e : env)
        if (e.compare(0, name.size() + 1, name + "=") == 0) return e.substr(name.size() + 1);
    return "<absent>";
}

class EnvironTest : public ::testing::Test {
protected:
    void SetUp() override {
        ::setenv("ALD_PT_EXISTING", "old", 1);
        ::setenv("ALD_PT_EXISTING_LONGER", "longer", 1);
        ::setenv("ALD_PT_EMPTY", "", 1);
    }
    void TearDown() override {
        for (const char* name : {"ALD_PT_EXISTING", "ALD_PT_EXISTING_LONGER", "ALD_PT_EMPTY", "ALD_PT_LATER"})
            ::unsetenv(name);
    }
};

}  // namespace

TEST_F(EnvironTest, StartsFromACopyOfTheProcessEnvironment) {
    ald::Environ env;
    std::vector<std::string> got = as_vector(env.to_environ());
    std::vector<std::string> own = as_vector(environ);
    std::sort(got.begin(), got.end());
    std::sort(own.begin(), own.end());
    EXPECT_EQ(got, own);

    // A copy: later changes to the process environment do not reach it.
    ::setenv("ALD_PT_LATER", "x", 1);
    ::setenv("ALD_PT_EXISTING", "changed", 1);
    std::vector<std::string> after = as_vector(env.to_environ());
    EXPECT_EQ(count_named(after, "ALD_PT_LATER"), 0);
    EXPECT_EQ(value_of(after, "ALD_PT_EXISTING"), "old");
}

TEST_F(EnvironTest, SetReplacesOrAdds) {
    ald::Environ env;
    const std::size_t start = as_vector(env.to_environ()).size();

    EXPECT_TRUE(env.set("ALD_PT_EXISTING", "new", true));
    EXPECT_TRUE(env.set("ALD_PT_EMPTY", "filled", true));
    EXPECT_TRUE(env.set("ALD_PT_ADDED", "a=b c", true));
    EXPECT_TRUE(env.set("ALD_PT_BLANK", "", true));
    // A name that is a prefix of an existing one is a different variable.
    EXPECT_TRUE(env.set("ALD_PT_EXIST", "short", true));

    std::vector<std::string> got = as_vector(env.to_environ());
    EXPECT_EQ(got.size(), start + 3);
    EXPECT_EQ(count_named(got, "ALD_PT_EXISTING"), 1);
    EXPECT_EQ(value_of(got, "ALD_PT_EXISTING"), "new");
    EXPECT_EQ(value_of(got, "ALD_PT_EXISTING_LONGER"), "longer");
    EXPECT_EQ(value_of(got, "ALD_PT_EMPTY"), "filled");
    EXPECT_EQ(value_of(got, "ALD_PT_ADDED"), "a=b c");
    EXPECT_EQ(value_of(got, "ALD_PT_BLANK"), "");
    EXPECT_EQ(value_of(got, "ALD_PT_EXIST"), "short");

    // Setting again replaces the added entry rather than adding a second.
    EXPECT_TRUE(env.set("ALD_PT_ADDED", "second", true));
    got = as_vector(env.to_environ());
    EXPECT_EQ(count_named(got, "ALD_PT_ADDED"), 1);
    EXPECT_EQ(value_of(got, "ALD_PT_ADDED"), "second");
}

TEST_F(EnvironTest, WithoutOverwriteAnExistingValueIsKept) {
    ald::Environ env;
    EXPECT_TRUE(env.set("ALD_PT_EXISTING", "ignored", false));
    EXPECT_TRUE(env.set("ALD_PT_FRESH", "added", false));
    std::vector<std::string> got = as_vector(env.to_environ());
    EXPECT_EQ(count_named(got, "ALD_PT_EXISTING"), 1);
    EXPECT_EQ(value_of(got, "ALD_PT_EXISTING"), "old");
    EXPECT_EQ(value_of(got, "ALD_PT_FRESH"), "added");
}

TEST_F(EnvironTest, RefusesEmptyNamesAndNamesWithEquals) {
    ald::Environ env;
    std::vector<std::string> before = as_vector(env.to_environ());
    EXPECT_FALSE(env.set("", "x", true));
    EXPECT_FALSE(env.set("A=B", "x", true));
    EXPECT_FALSE(env.set("=", "x", true));
    EXPECT_FALSE(env.set("ALD_PT_EXISTING=old", "x", true));
    EXPECT_EQ(as_vector(env.to_environ()), before);
}

TEST_F(EnvironTest, ArrayIsNullTerminatedAndReflectsLaterChanges) {
    ald::Environ env;
    env.set("ALD_PT_ONE", "1", true);
    char** first = env.to_environ();
    std::size_t n = as_vector(first).size();
    EXPECT_EQ(first[n], nullptr);

    env.set("ALD_PT_TWO", "2", true);
    env.set("ALD_PT_ONE", "one", true);
    std::vector<std::string> got = as_vector(env.to_environ());
    EXPECT_EQ(got.size(), n + 1);
    EXPECT_EQ(value_of(got, "ALD_PT_ONE"), "one");
    EXPECT_EQ(value_of(got, "ALD_PT_TWO"), "2");
}

TEST_F(EnvironTest, ArrayRunsAProgram) {
    ald::Environ env;
    env.set("ALD_PT_EXISTING", "replaced", true);
    env.set("ALD_PT_NEW", "with spaces and = sign", true);
    char** envp = env.to_environ();
    std::string expected;
    for (char** e = envp; *e; ++e) expected += std::string(*e) + "\n";

    int out[2];
    ASSERT_EQ(::pipe(out), 0);
    ::fflush(nullptr);
    pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(out[1], STDOUT_FILENO);
        char prog[] = "env";
        char* argv[] = {prog, nullptr};
        ::execve("/usr/bin/env", argv, envp);
        ::_exit(127);
    }
    ::close(out[1]);
    std::string printed = read_all(out[0]);
    ::close(out[0]);
    int status = wait_for(pid);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_EQ(printed, expected);
    EXPECT_NE(printed.find("ALD_PT_EXISTING=replaced\n"), std::string::npos);
    EXPECT_NE(printed.find("ALD_PT_NEW=with spaces and = sign\n"), std::string::npos);
    EXPECT_EQ(printed.find("ALD_PT_EXISTING=old"), std::string::npos);
}
