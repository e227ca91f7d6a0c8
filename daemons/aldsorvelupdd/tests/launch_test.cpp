// Real children against the real platform library: the updater is
// launched, stopped and reaped for real. The updater's path is fixed, so the
// whole binary runs in a private mount namespace with a tmpfs on /opt that
// holds a stand-in updater; the machine's /opt is never touched.
#include "state.h"
#include "supervision.h"

#include <ald/log.h>
#include <ald/settings.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <optional>
#include <sched.h>
#include <sstream>
#include <string>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using clock_type = std::chrono::steady_clock;

namespace {

const std::string kUpdaterDir = "/opt/aldrana/sorvel";
const std::string kUpdater = kUpdaterDir + "/sorvelupd";
const std::string kRecords = "/opt/launch/rec";
const std::string kModeFile = "/opt/launch/mode";

// Records how it was started under /opt/launch/rec/<pid> (complete once the
// directory has its final name), then does what /opt/launch/mode says:
//   exit N         exit with status N
//   write OUT ERR  write OUT to standard output, ERR to standard error, exit 0
//   sleep          sleep, dying on SIGTERM
//   catch N        on SIGTERM exit with status N
//   group          ignore SIGTERM, with a grandchild in the same group
// A script cannot see its own argv[0]: the kernel puts the executed file in
// its place, which is what "$0" shows. find writes the descriptor list
// itself: a shell redirection would add descriptors to the listing.
const char kStandIn[] = R"(#!/bin/sh
PATH=/usr/sbin:/usr/bin:/sbin:/bin
rec=/opt/launch/rec/$$
mkdir "$rec.part" || exit 99
find /proc/$$/fd -mindepth 1 -maxdepth 1 -fprintf "$rec.part/fds" '%f %l\n'
printf '%s\n' "$0" "$@" > "$rec.part/argv"
cat /proc/$$/environ > "$rec.part/environ"
read -r stat < /proc/$$/stat
printf '%s\n' "$stat" > "$rec.part/stat"
while read -r key value; do
    case $key in SigBlk:|SigIgn:) printf '%s %s\n' "$key" "$value" ;; esac
done < /proc/$$/status > "$rec.part/signals"
set -- $(cat /opt/launch/mode)
case $1 in
exit)
    mv "$rec.part" "$rec"
    exit "$2" ;;
write)
    printf '%s' "$2"
    printf '%s' "$3" >&2
    mv "$rec.part" "$rec"
    exit 0 ;;
sleep)
    mv "$rec.part" "$rec"
    exec sleep 1000 ;;
catch)
    sleep 1000 &
    pid=$!
    trap 'kill $pid; exit '"$2" TERM
    mv "$rec.part" "$rec"
    wait $pid ;;
group)
    trap '' TERM
    sleep 1000 &
    printf '%s\n' "$!" > "$rec.part/grandchild"
    mv "$rec.part" "$rec"
    exec sleep 1000 ;;
esac
exit 98
)";

std::string g_unavailable;  // why these tests cannot run here; empty when they can

std::string errno_text(const char* what) { return std::string(what) + ": " + std::strerror(errno); }

void write_text(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
}

std::string read_text(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

std::vector<std::string> split(const std::string& text, char separator) {
    std::vector<std::string> parts;
    std::size_t start = 0;
    while (start < text.size()) {
        std::size_t end = text.find(separator, start);
        if (end == std::string::npos) end = text.size();
        parts.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return parts;
}

std::size_t count(const std::string& text, const std::string& needle) {
    std::size_t n = 0;
    for (auto at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) ++n;
    return n;
}

std::string link_target(const std::string& path) {
    char buf[4096];
    ssize_t n = ::readlink(path.c_str(), buf, sizeof buf);
    return n < 0 ? std::string() : std::string(buf, static_cast<std::size_t>(n));
}

// The process group in a /proc/<pid>/stat line (after the command name,
// which may hold blanks or parentheses: state, ppid, pgrp).
long stat_pgrp(const std::string& stat) {
    auto close = stat.rfind(')');
    if (close == std::string::npos) return -1;
    std::istringstream rest(stat.substr(close + 1));
    std::string state;
    long ppid = 0, pgrp = -1;
    rest >> state >> ppid >> pgrp;
    return pgrp;
}

// Polls `done` every 10 ms until it holds or `limit` has passed.
template <class Pred>
bool poll_until(Pred done, std::chrono::milliseconds limit) {
    const auto end = clock_type::now() + limit;
    while (!done()) {
        if (clock_type::now() >= end) return false;
        std::this_thread::sleep_for(10ms);
    }
    return true;
}

// The stand-in's record of the process `pid`, once it is complete.
std::optional<std::string> record_of(pid_t pid) {
    const std::string dir = kRecords + "/" + std::to_string(pid);
    if (!poll_until([&] { return fs::is_directory(dir); }, 10s)) return std::nullopt;
    return dir;
}

// Our own reaping, for children the daemon no longer tracks.
std::optional<int> reap(pid_t pid, std::chrono::milliseconds limit = 10s) {
    int status = 0;
    std::optional<int> result;
    poll_until(
        [&] {
            pid_t r = ::waitpid(pid, &status, WNOHANG);
            if (r == pid) result = status;
            return r != 0;
        },
        limit);
    return result;
}

// Enters the private mount namespace and installs the stand-in, once for the
// whole binary, before any test (while the process has one thread).
class PrivateOpt : public ::testing::Environment {
public:
    void SetUp() override {
        if (::geteuid() != 0) {
            g_unavailable = "needs root: a private mount namespace with a tmpfs on /opt";
            return;
        }
        const char* root = std::getenv("ALD_ROOT");
        if (!root || !*root) {
            g_unavailable = "ALD_ROOT is not set; run through ctest so that no real configuration is touched";
            return;
        }
        if (::unshare(CLONE_NEWNS) != 0) {
            g_unavailable = errno_text("unshare(CLONE_NEWNS)");
            return;
        }
        if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
            g_unavailable = errno_text("making / private");
            return;
        }
        if (!fs::is_directory("/opt")) {
            g_unavailable = "/opt does not exist to mount over";
            return;
        }
        if (::mount("ald-launch-test", "/opt", "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755") != 0) {
            g_unavailable = errno_text("tmpfs on /opt");
            return;
        }
        std::error_code ec;
        fs::create_directories(kUpdaterDir, ec);
        fs::create_directories(kRecords, ec);
        write_text(kUpdater, kStandIn);
        if (ec || ::chmod(kUpdater.c_str(), 0755) != 0) g_unavailable = "cannot install the stand-in updater";
    }
};

const auto* const g_private_opt = ::testing::AddGlobalTestEnvironment(new PrivateOpt);

}  // namespace

class LaunchTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!g_unavailable.empty()) GTEST_SKIP() << g_unavailable;
        root_ = std::getenv("ALD_ROOT");
        var_dir_ = root_ + "/var/sorvel";
        output_ = var_dir_ + "/sorvelupd.out_err.log";
        fs::create_directories(config_dir());
        fs::create_directories(var_dir_);
        fs::remove(output_);
        fs::remove_all(env_dir());
        write_config(var_dir_);
        set_mode("exit 0");
        child_pid = 0;
        ald::log::current_level = 2;

        // The daemon's lines go to standard error: keep them for the checks.
        log_path_ = root_ + "/launch.log";
        saved_stderr_ = ::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
        int fd = ::open(log_path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        ASSERT_GE(fd, 0);
        ::dup2(fd, STDERR_FILENO);
        ::close(fd);
    }

    void TearDown() override {
        // A case that failed half-way leaves nothing running for the next.
        if (child_pid > 0) {
            ::kill(-child_pid, SIGKILL);
            ::kill(child_pid, SIGKILL);  // in case it never led a group
            ::waitpid(child_pid, nullptr, 0);
            child_pid = 0;
        }
        if (saved_stderr_ >= 0) {
            ::dup2(saved_stderr_, STDERR_FILENO);
            ::close(saved_stderr_);
        }
    }

    std::string config_dir() const { return root_ + "/etc/aldrana"; }
    std::string env_dir() const { return root_ + "/etc/aldrana/settings/daemons/aldsorvelupdd/env_vars"; }
    static std::string config_file() { return path_string(config_path); }

    static void write_config(const std::string& var_path) {
        write_text(config_file(), "{\n    \"var_path\": \"" + var_path + "\"\n}");
    }
    static void set_mode(const std::string& mode) { write_text(kModeFile, mode + "\n"); }
    std::string log() const { return read_text(log_path_); }

    // Starts the updater and returns its pid, as start_sorvelupd recorded it.
    pid_t launch() {
        start_sorvelupd();
        const pid_t pid = child_pid;
        EXPECT_GT(pid, 0);
        EXPECT_NE(log().find("[start_sorvelupd()]: fork sorvelupd [pid " + std::to_string(pid) + "]\n"),
                  std::string::npos)
            << log();
        return pid;
    }

    // Reaps the recorded child through the daemon's own wait, polling.
    bool reap_by_daemon(std::chrono::milliseconds limit = 10s) {
        if (!poll_until([] { return wait_sorvelupd(); }, limit)) return false;
        child_pid = 0;
        return true;
    }

    std::string root_, var_dir_, output_, log_path_;
    int saved_stderr_ = -1;
};

TEST_F(LaunchTest, UpdaterGetsItsCommandLineOwnGroupOutputFileAndNoDaemonDescriptor) {
    // Descriptors and signal state of a daemon: stray descriptors without
    // close-on-exec, SIGCHLD blocked, SIGTERM and SIGINT ignored.
    int stray[3];
    int pipe_fds[2];
    stray[0] = ::open("/dev/null", O_RDONLY);
    ASSERT_EQ(::pipe(pipe_fds), 0);
    stray[1] = pipe_fds[0];
    stray[2] = pipe_fds[1];
    for (int fd : stray) ASSERT_EQ(::fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
    sigset_t chld, old_mask;
    sigemptyset(&chld);
    sigaddset(&chld, SIGCHLD);
    ASSERT_EQ(::sigprocmask(SIG_BLOCK, &chld, &old_mask), 0);
    struct sigaction ignore {}, old_term {}, old_int {};
    ignore.sa_handler = SIG_IGN;
    ::sigaction(SIGTERM, &ignore, &old_term);
    ::sigaction(SIGINT, &ignore, &old_int);

    const pid_t pid = launch();

    ::sigaction(SIGTERM, &old_term, nullptr);
    ::sigaction(SIGINT, &old_int, nullptr);
    ::sigprocmask(SIG_SETMASK, &old_mask, nullptr);
    for (int fd : stray) ::close(fd);

    auto rec = record_of(pid);
    ASSERT_TRUE(rec) << "the stand-in did not run";
    ASSERT_TRUE(reap_by_daemon());
    EXPECT_NE(log().find("[wait_sorvelupd()]: sorvelupd [pid " + std::to_string(pid) + "] has exited with status 0\n"),
              std::string::npos);

    EXPECT_EQ(split(read_text(*rec + "/argv"), '\n'),
              (std::vector<std::string>{kUpdater, "-r", "/opt/aldrana/sorvel/", "-c", config_file()}));

    // Leader of a group of its own.
    EXPECT_EQ(stat_pgrp(read_text(*rec + "/stat")), pid);

    // 0 as inherited, 1 and 2 the output file, nothing else but the
    // script that the shell reads.
    std::map<int, std::string> fds;
    for (const auto& line : split(read_text(*rec + "/fds"), '\n')) {
        auto space = line.find(' ');
        fds[std::stoi(line.substr(0, space))] = line.substr(space + 1);
    }
    const std::string output = fs::canonical(output_).string();
    ASSERT_TRUE(fds.count(1) && fds.count(2));
    EXPECT_EQ(fds[1], output);
    EXPECT_EQ(fds[2], output);
    const std::string our_stdin = link_target("/proc/self/fd/0");
    if (!our_stdin.empty()) {
        EXPECT_EQ(fds[0], our_stdin);
    }
    for (const auto& fd : fds) {
        if (fd.first > 2) {
            EXPECT_EQ(fd.second, kUpdater) << "descriptor " << fd.first << " leaked into the updater";
        }
    }

    // Nothing blocked, and SIGTERM and SIGINT back to their defaults, so
    // that the stop protocol can reach it.
    std::map<std::string, unsigned long long> sig;
    for (const auto& line : split(read_text(*rec + "/signals"), '\n')) {
        auto space = line.find(' ');
        sig[line.substr(0, space)] = std::stoull(line.substr(space + 1), nullptr, 16);
    }
    ASSERT_EQ(sig.size(), 2u);
    EXPECT_EQ(sig["SigBlk:"], 0u);
    EXPECT_EQ(sig["SigIgn:"] & (1ull << (SIGTERM - 1)), 0u);
    EXPECT_EQ(sig["SigIgn:"] & (1ull << (SIGINT - 1)), 0u);

    // A new output file, created with the mode the launch asks for.
    struct stat st {};
    ASSERT_EQ(::stat(output_.c_str(), &st), 0);
    const mode_t mask = ::umask(0);
    ::umask(mask);
    EXPECT_EQ(st.st_mode & 07777, 0644 & ~mask);
}

TEST_F(LaunchTest, UpdaterEnvironmentIsOursPlusTheStoredVariables) {
    fs::create_directories(env_dir() + "/C");  // a directory has no value
    write_text(env_dir() + "/C/inner", "3\n");
    write_text(env_dir() + "/A", "1\n");
    write_text(env_dir() + "/B", "2");
    write_text(env_dir() + "/.hidden", "4\n");  // not a subkey
    ::setenv("ALD_LAUNCH_INHERITED", "kept", 1);
    ::setenv("B", "from the daemon", 1);
    ::unsetenv("A");
    ::unsetenv("C");
    EXPECT_EQ(ald::setMgmt::init(false), 0);

    const pid_t pid = launch();
    ::unsetenv("B");
    ::unsetenv("ALD_LAUNCH_INHERITED");

    auto rec = record_of(pid);
    ASSERT_TRUE(rec) << "the stand-in did not run";
    ASSERT_TRUE(reap_by_daemon());
    ald::setMgmt::uninit();

    const auto env = split(read_text(*rec + "/environ"), '\0');
    auto has = [&](const std::string& entry) { return std::count(env.begin(), env.end(), entry); };
    auto named = [&](const std::string& name) {
        return std::count_if(env.begin(), env.end(), [&](const std::string& e) { return e.rfind(name + "=", 0) == 0; });
    };
    EXPECT_EQ(has("A=1"), 1);
    EXPECT_EQ(has("B=2"), 1);
    EXPECT_EQ(named("B"), 1) << "a stored variable replaces the daemon's own";
    EXPECT_EQ(named("C"), 0);
    EXPECT_EQ(named(".hidden"), 0);
    EXPECT_EQ(has("ALD_LAUNCH_INHERITED=kept"), 1);
    EXPECT_EQ(has("ALD_ROOT=" + root_), 1);
    // Nothing is said about a variable that could not be read.
    EXPECT_EQ(log().find("error"), std::string::npos) << log();
}

TEST_F(LaunchTest, OutputOverwritesTheOldFileFromTheStartWithoutTruncating) {
    write_text(output_, std::string(100, 'o'));
    set_mode("write 12345 abcde");

    const pid_t pid = launch();
    ASSERT_TRUE(record_of(pid)) << "the stand-in did not run";
    ASSERT_TRUE(reap_by_daemon());

    // Standard output and standard error share one offset: one description.
    EXPECT_EQ(read_text(output_), "12345abcde" + std::string(90, 'o'));
}

TEST_F(LaunchTest, MissingOutputDirectoryEndsTheChildWithStatusOneAboutASecondLater) {
    write_config(root_ + "/no/such/dir");
    const auto started = clock_type::now();

    const pid_t pid = launch();
    auto status = reap(pid);
    const auto took = clock_type::now() - started;
    child_pid = 0;

    ASSERT_TRUE(status) << "the child did not end";
    EXPECT_TRUE(WIFEXITED(*status));
    EXPECT_EQ(WEXITSTATUS(*status), 1);
    EXPECT_GE(took, 950ms);
    EXPECT_LT(took, 5s);
    EXPECT_FALSE(fs::exists(kRecords + "/" + std::to_string(pid) + ".part")) << "the updater ran";
    EXPECT_FALSE(fs::exists(root_ + "/no"));
}

TEST_F(LaunchTest, MissingExecutableEndsTheChildWithStatusOneAboutASecondLater) {
    ASSERT_EQ(::rename(kUpdater.c_str(), (kUpdater + ".away").c_str()), 0);
    const auto started = clock_type::now();

    const pid_t pid = launch();
    auto status = reap(pid);
    const auto took = clock_type::now() - started;
    child_pid = 0;
    ASSERT_EQ(::rename((kUpdater + ".away").c_str(), kUpdater.c_str()), 0);

    ASSERT_TRUE(status) << "the child did not end";
    EXPECT_TRUE(WIFEXITED(*status));
    EXPECT_EQ(WEXITSTATUS(*status), 1);
    EXPECT_GE(took, 950ms);
    EXPECT_LT(took, 5s);
    // The output file was opened before the exec failed.
    EXPECT_TRUE(fs::exists(output_));
    EXPECT_EQ(fs::file_size(output_), 0u);
}

TEST_F(LaunchTest, WaitReportsARunningChildAndReapsItOnceItHasExited) {
    set_mode("sleep");
    const pid_t pid = launch();
    ASSERT_TRUE(record_of(pid)) << "the stand-in did not run";

    EXPECT_FALSE(wait_sorvelupd());
    EXPECT_EQ(child_pid, pid);
    EXPECT_NE(log().find("[wait_sorvelupd()]: sorvelupd [pid " + std::to_string(pid) + "] is still running\n"),
              std::string::npos);

    ASSERT_EQ(::kill(pid, SIGUSR1), 0);
    ASSERT_TRUE(poll_until([] { return wait_sorvelupd(); }, 10s));
    EXPECT_EQ(child_pid, pid);  // left to the caller
    child_pid = 0;
    EXPECT_NE(log().find("[wait_sorvelupd()]: sorvelupd [pid " + std::to_string(pid) + "] has exited\n"),
              std::string::npos);
}

TEST_F(LaunchTest, StopEndsAnUpdaterThatHonoursSigterm) {
    for (const char* mode : {"sleep", "catch 3"}) {
        SCOPED_TRACE(mode);
        set_mode(mode);
        const pid_t pid = launch();
        ASSERT_TRUE(record_of(pid)) << "the stand-in did not run";
        const auto started = clock_type::now();

        kill_and_wait_sorvelupd();

        EXPECT_LT(clock_type::now() - started, 5s);
        EXPECT_EQ(child_pid, 0);
        errno = 0;
        EXPECT_EQ(::waitpid(pid, nullptr, WNOHANG), -1) << "not reaped";
        EXPECT_EQ(errno, ECHILD);
        const std::string p = "[pid " + std::to_string(pid) + "]";
        EXPECT_NE(log().find("[kill_and_wait_sorvelupd()]: sent signal #15 to sorvelupd " + p + "\n"),
                  std::string::npos);
        const std::string end = std::string(mode) == "sleep" ? "has exited\n" : "has exited with status 3\n";
        EXPECT_NE(log().find("[wait_sorvelupd()]: sorvelupd " + p + " " + end), std::string::npos) << log();
        EXPECT_EQ(log().find("signal #9"), std::string::npos);
    }
}

TEST_F(LaunchTest, SigkillToTheGroupEndsAnUpdaterThatIgnoresSigtermAndItsGrandchild) {
    // The grandchild becomes ours when the updater dies, so that we can see
    // how it ended; whatever happens, it does not outlive the case.
    struct adopter {
        pid_t grandchild = 0;
        adopter() { ::prctl(PR_SET_CHILD_SUBREAPER, 1); }
        ~adopter() {
            if (grandchild > 0 && ::kill(grandchild, SIGKILL) == 0) ::waitpid(grandchild, nullptr, 0);
            ::prctl(PR_SET_CHILD_SUBREAPER, 0);
        }
    } adopted;
    set_mode("group");
    const pid_t pid = launch();
    auto rec = record_of(pid);
    ASSERT_TRUE(rec) << "the stand-in did not run";
    adopted.grandchild = std::stoi(read_text(*rec + "/grandchild"));
    ASSERT_GT(adopted.grandchild, 0);
    EXPECT_EQ(stat_pgrp(read_text("/proc/" + std::to_string(adopted.grandchild) + "/stat")), pid);
    const auto started = clock_type::now();

    kill_and_wait_sorvelupd();

    const auto took = clock_type::now() - started;
    auto grandchild_status = reap(adopted.grandchild);
    if (grandchild_status) adopted.grandchild = 0;

    EXPECT_EQ(child_pid, 0);
    EXPECT_GE(took, 15500ms) << "sixteen SIGTERM attempts, a second apart";
    const std::string p = "[pid " + std::to_string(pid) + "]";
    const std::string text = log();
    EXPECT_EQ(count(text, "sent signal #15 to sorvelupd " + p + "\n"), 16u);
    EXPECT_GE(count(text, "sent signal #9 to sorvelupd " + p + "\n"), 1u);
    EXPECT_NE(text.find("[wait_sorvelupd()]: sorvelupd " + p + " has exited\n"), std::string::npos);
    ASSERT_TRUE(grandchild_status) << "the grandchild survived";
    EXPECT_TRUE(WIFSIGNALED(*grandchild_status));
    EXPECT_EQ(WTERMSIG(*grandchild_status), SIGKILL);
}
