// The settings watch against the real kernel's inotify, on the test's root.
#include <ald/settings.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <linux/seccomp.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;
namespace sm = ald::setMgmt;

namespace {

int g_calls = 0;
std::string g_last_key;

bool count_call(const ald::path& key) {
    ++g_calls;
    g_last_key = key.c_str() ? key.c_str() : "";
    return true;
}

bool readable(int fd, int timeout_ms) {
    pollfd p{fd, POLLIN, 0};
    return ::poll(&p, 1, timeout_ms) == 1 && (p.revents & POLLIN);
}

void write_in_place(const fs::path& file, const std::string& text) {
    std::ofstream(file, std::ios::binary | std::ios::trunc) << text;
}

class Watch : public ::testing::Test {
protected:
    void SetUp() override {
        const char* env = std::getenv("ALD_ROOT");
        ASSERT_TRUE(env && *env) << "run through ctest: the tests need a private ALD_ROOT";
        root = env;
        store = root / "etc/aldrana/settings";
        fs::remove_all(root / "etc");
        g_calls = 0;
        g_last_key.clear();
    }

    // Serves the watch as the daemon does until the handler has run or
    // `ms` passed; the handler calls counted.
    int serve(sm::MonitoredKey& watch, int ms = 2000) {
        const int before = g_calls;
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
        while (g_calls == before && std::chrono::steady_clock::now() < deadline) {
            int fd = watch.get_fd();
            if (fd < 0) return -1;
            if (readable(fd, 20)) {
                EXPECT_TRUE(watch.read_notifications());
            }
        }
        return g_calls - before;
    }

    // Consumes what the watch has pending without waiting long, and returns
    // the handler calls: for changes that must not count.
    int quiet(sm::MonitoredKey& watch) {
        const int before = g_calls;
        while (readable(watch.get_fd(), 200)) {
            EXPECT_TRUE(watch.read_notifications());
        }
        return g_calls - before;
    }

    fs::path root;
    fs::path store;
};

TEST_F(Watch, DescriptorIsNonBlockingCloseOnExecAndStable) {
    sm::MonitoredKey watch(ald::path("/privacy/aur"), count_call, 0, false);
    const int fd = watch.get_fd();
    ASSERT_GE(fd, 0);
    EXPECT_TRUE(::fcntl(fd, F_GETFL) & O_NONBLOCK);
    EXPECT_TRUE(::fcntl(fd, F_GETFD) & FD_CLOEXEC);
    EXPECT_EQ(fs::read_symlink("/proc/self/fd/" + std::to_string(fd)).string(), "anon_inode:inotify");
    EXPECT_EQ(watch.get_fd(), fd);
    EXPECT_EQ(watch.key(), ald::path("/privacy/aur"));
    // Nothing pending: reading is fine and calls nobody.
    EXPECT_TRUE(watch.read_notifications());
    EXPECT_EQ(g_calls, 0);
}

// The daemon asks for the descriptor every second; in strict seccomp mode
// any system call other than read, write and exit kills the child.
TEST_F(Watch, GetFdMakesNoSystemCallWhileItHasADescriptor) {
    sm::MonitoredKey watch(ald::path("/privacy/aur"), count_call, 0, false);
    const int fd = watch.get_fd();
    ASSERT_GE(fd, 0);
    pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        if (::prctl(PR_SET_SECCOMP, SECCOMP_MODE_STRICT) != 0) ::syscall(SYS_exit, 3);
        long same = 0;
        for (int i = 0; i < 1000; ++i) same += watch.get_fd() == fd;
        ::syscall(SYS_exit, same == 1000 ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    ASSERT_FALSE(WIFSIGNALED(status)) << "get_fd made a system call (signal " << WTERMSIG(status) << ")";
    if (WEXITSTATUS(status) == 3) GTEST_SKIP() << "no strict seccomp here";
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST_F(Watch, SeesEveryKindOfChangeOfTheKey) {
    fs::create_directories(store / "privacy");
    sm::MonitoredKey watch(ald::path("/privacy/aur"), count_call, 0, false);
    ASSERT_GE(watch.get_fd(), 0);

    write_in_place(store / "privacy/aur", "1\n");  // created in place
    EXPECT_EQ(serve(watch), 1);
    EXPECT_EQ(g_last_key, "/privacy/aur");
    write_in_place(store / "privacy/aur", "0\n");  // rewritten in place
    EXPECT_EQ(serve(watch), 1);
    ASSERT_EQ(sm::setKey("/privacy/aur", "1"), 0);  // renamed into place
    EXPECT_EQ(serve(watch), 1);
    ASSERT_EQ(sm::deleteKey("/privacy/aur"), 0);
    EXPECT_EQ(serve(watch), 1);
    fs::create_directory(store / "privacy/aur");  // a directory key made
    EXPECT_EQ(serve(watch), 1);
    fs::remove(store / "privacy/aur");
    EXPECT_EQ(serve(watch), 1);
    EXPECT_EQ(quiet(watch), 0);
}

TEST_F(Watch, ManyChangesBeforeOneReadCallTheHandlerOnce) {
    sm::MonitoredKey watch(ald::path("/privacy/aur"), count_call, 0, false);
    ASSERT_GE(watch.get_fd(), 0);
    ASSERT_EQ(sm::setKey("/privacy/other", "x"), 0);  // the key's directory appears on the way
    ASSERT_EQ(quiet(watch), 0);
    // More events than one read takes, the key's between its sibling's.
    for (int i = 0; i < 200; ++i) {
        write_in_place(store / "privacy/aur", std::to_string(i));
        write_in_place(store / "privacy/other", std::to_string(i));
    }
    ASSERT_EQ(sm::setKey("/privacy/aur", "last"), 0);
    ASSERT_TRUE(readable(watch.get_fd(), 2000));
    EXPECT_TRUE(watch.read_notifications());
    EXPECT_EQ(g_calls, 1);
    // Events of the key left unread would call the handler again.
    EXPECT_TRUE(watch.read_notifications());
    EXPECT_EQ(g_calls, 1) << "events left unread";
}

TEST_F(Watch, KeyWhoseDirectoriesAppearLater) {
    // Not even the root exists: the watch starts above it.
    fs::remove_all(root);
    sm::MonitoredKey watch(ald::path("/privacy/aur"), count_call, 0, false);
    ASSERT_GE(watch.get_fd(), 0);
    fs::create_directories(store);
    EXPECT_EQ(quiet(watch), 0) << "directories without the key are not a change of it";
    // The directory and the key in one go, faster than any re-arm.
    ASSERT_EQ(sm::setKey("/privacy/aur", "1"), 0);
    EXPECT_GE(serve(watch), 1);
    quiet(watch);
    // From here on it is watched like any key.
    write_in_place(store / "privacy/aur", "0");
    EXPECT_EQ(serve(watch), 1);
}

TEST_F(Watch, KeyDirectoryRemovedRenamedAndMadeAgain) {
    ASSERT_EQ(sm::setKey("/privacy/aur", "1"), 0);
    sm::MonitoredKey watch(ald::path("/privacy/aur"), count_call, 0, false);
    ASSERT_GE(watch.get_fd(), 0);

    fs::rename(store / "privacy", store / "old");
    EXPECT_GE(serve(watch), 1);
    quiet(watch);
    // The watch follows the key's path, not the directory that left it.
    write_in_place(store / "old/aur", "5");
    EXPECT_EQ(quiet(watch), 0);
    ASSERT_EQ(sm::setKey("/privacy/aur", "2"), 0);
    EXPECT_GE(serve(watch), 1);
    quiet(watch);
    // A whole directory with the key in it renamed into place.
    fs::remove_all(store / "privacy");
    quiet(watch);
    fs::rename(store / "old", store / "privacy");
    EXPECT_GE(serve(watch), 1);
    quiet(watch);

    fs::remove_all(store);
    EXPECT_GE(serve(watch), 1);
    quiet(watch);
    ASSERT_EQ(sm::setKey("/privacy/aur", "3"), 0);
    EXPECT_GE(serve(watch), 1);
    quiet(watch);
    write_in_place(store / "privacy/aur", "4");
    EXPECT_EQ(serve(watch), 1);
}

TEST_F(Watch, UnrelatedChangesDoNotCallTheHandler) {
    ASSERT_EQ(sm::setKey("/privacy/aur", "1"), 0);
    sm::MonitoredKey watch(ald::path("/privacy/aur"), count_call, 0, false);
    const int fd = watch.get_fd();
    ASSERT_GE(fd, 0);
    // Siblings of the key and of every directory on its way.
    for (int i = 0; i < 50; ++i) {
        const std::string n = std::to_string(i);
        ASSERT_EQ(sm::setKey("/privacy/aur" + n, n), 0);
        ASSERT_EQ(sm::setKey("/privacy2/x" + n, n), 0);
        write_in_place(store / "privacy" / ("au" + n), n);
        write_in_place(store / ("top" + n), n);
        write_in_place(root / ("r" + n), n);
        fs::create_directory(root / "etc" / ("d" + n));
        fs::remove(root / "etc" / ("d" + n));
        fs::remove(root / ("r" + n));
    }
    ASSERT_EQ(sm::deleteKey("/privacy2"), 0);
    ASSERT_TRUE(readable(fd, 0)) << "the changes were not even seen";
    EXPECT_EQ(quiet(watch), 0);
    EXPECT_EQ(watch.get_fd(), fd);
    // Still watching after all that.
    ASSERT_EQ(sm::setKey("/privacy/aur", "2"), 0);
    EXPECT_EQ(serve(watch), 1);
}

TEST_F(Watch, ActivityAboveTheConfigurationDirectoryDoesNotWakeIt) {
    ASSERT_EQ(sm::setKey("/privacy/aur", "1"), 0);
    sm::MonitoredKey watch(ald::path("/privacy/aur"), count_call, 0, false);
    const int fd = watch.get_fd();
    ASSERT_GE(fd, 0);
    for (int i = 0; i < 10; ++i) {
        const std::string n = std::to_string(i);
        write_in_place(root / "etc" / ("f" + n), n);
        fs::rename(root / "etc" / ("f" + n), root / "etc" / ("g" + n));
        fs::create_directory(root / ("d" + n));
    }
    EXPECT_FALSE(readable(fd, 100)) << "a rename in /etc must not wake the daemon";

    // Without the configuration directory the watch looks above it again.
    fs::remove_all(root / "etc/aldrana");
    EXPECT_GE(serve(watch), 1);
    quiet(watch);
    ASSERT_EQ(sm::setKey("/privacy/aur", "7"), 0);
    EXPECT_GE(serve(watch), 1);
    quiet(watch);
    write_in_place(store / "privacy/aur", "8");
    EXPECT_EQ(serve(watch), 1);
}

// Far more events than the kernel queues: whatever was lost may have been
// the key's, so the handler runs, and the watch keeps working.
TEST_F(Watch, QueueOverflowCountsAsAChange) {
    long limit = 0;
    std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> limit;
    if (limit <= 0 || limit > 100000) GTEST_SKIP() << "inotify queue limit " << limit;
    fs::create_directories(store / "privacy");
    sm::MonitoredKey watch(ald::path("/privacy/aur"), count_call, 0, false);
    const int fd = watch.get_fd();
    ASSERT_GE(fd, 0);
    // Closing a file opened for writing queues one event; two names
    // alternate so that the kernel cannot merge neighbours.
    const fs::path files[] = {store / "privacy/x0", store / "privacy/x1"};
    for (long i = 0; i <= limit; ++i) {
        int f = ::open(files[i % 2].c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
        ASSERT_GE(f, 0);
        ::close(f);
    }
    ASSERT_TRUE(readable(fd, 0));
    EXPECT_TRUE(watch.read_notifications());
    EXPECT_EQ(g_calls, 1);
    EXPECT_EQ(quiet(watch), 0);
    ASSERT_EQ(sm::setKey("/privacy/aur", "1"), 0);
    EXPECT_EQ(serve(watch), 1);
}

// What the daemon does when read_notifications gives up: it closes the
// descriptor and expects a working one from the next get_fd.
TEST_F(Watch, UnusableDescriptorIsGivenUpAndReplaced) {
    ASSERT_EQ(sm::setKey("/privacy/aur", "1"), 0);
    sm::MonitoredKey watch(ald::path("/privacy/aur"), count_call, 0, false);
    const int fd = watch.get_fd();
    ASSERT_GE(fd, 0);
    // A descriptor that no longer reads inotify events.
    const int null = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    ASSERT_GE(null, 0);
    ASSERT_EQ(::dup2(null, fd), fd);
    ::close(null);
    EXPECT_FALSE(watch.read_notifications());
    EXPECT_EQ(g_calls, 1) << "events may have been lost: the key may have changed";
    // Given up, not closed: the caller closes it.
    EXPECT_EQ(::close(fd), 0);
    const int fresh = watch.get_fd();
    ASSERT_GE(fresh, 0);
    EXPECT_EQ(fs::read_symlink("/proc/self/fd/" + std::to_string(fresh)).string(), "anon_inode:inotify");
    EXPECT_EQ(quiet(watch), 0);
    ASSERT_EQ(sm::setKey("/privacy/aur", "2"), 0);
    EXPECT_EQ(serve(watch), 1);
}

TEST_F(Watch, CancelAndDestructionCloseTheDescriptor) {
    int fd = -1;
    {
        sm::MonitoredKey watch(ald::path("/privacy/aur"), count_call, 0, false);
        fd = watch.get_fd();
        ASSERT_GE(fd, 0);
    }
    errno = 0;
    EXPECT_EQ(::fcntl(fd, F_GETFD), -1);
    EXPECT_EQ(errno, EBADF);

    sm::MonitoredKey watch(ald::path("/privacy/aur"), count_call, 0, false);
    fd = watch.get_fd();
    ASSERT_GE(fd, 0);
    ASSERT_EQ(sm::setKey("/privacy/aur", "1"), 0);
    watch.cancel();
    errno = 0;
    EXPECT_EQ(::fcntl(fd, F_GETFD), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(watch.get_fd(), -1);
    EXPECT_EQ(watch.get_fd(), -1);
    watch.cancel();
    EXPECT_EQ(g_calls, 0);
}

TEST_F(Watch, RefusesReservedFlagsAndInvalidKeys) {
    sm::MonitoredKey flagged(ald::path("/privacy/aur"), count_call, 1, false);
    errno = 0;
    EXPECT_EQ(flagged.get_fd(), -1);
    EXPECT_EQ(errno, EINVAL);
    for (const char* key : {"privacy/aur", "/privacy/../aur", "/privacy//aur", ""}) {
        sm::MonitoredKey watch(ald::path(key), count_call, 0, false);
        errno = 0;
        EXPECT_EQ(watch.get_fd(), -1) << key;
        EXPECT_EQ(errno, EINVAL) << key;
    }
    sm::MonitoredKey empty(ald::path(), count_call, 0, false);
    EXPECT_EQ(empty.get_fd(), -1);
    EXPECT_FALSE(fs::exists(root / "etc"));
}

TEST_F(Watch, SubkeysOfADirectoryKeyCountWhenAsked) {
    sm::MonitoredKey watch(ald::path("/env"), count_call, 0, true);
    ASSERT_GE(watch.get_fd(), 0);
    ASSERT_EQ(sm::setKey("/env/A", "1"), 0);
    EXPECT_GE(serve(watch), 1);
    quiet(watch);
    ASSERT_EQ(sm::setKey("/env/B", "2"), 0);
    EXPECT_EQ(serve(watch), 1);
    write_in_place(store / "env/A", "3");
    EXPECT_EQ(serve(watch), 1);
    ASSERT_EQ(sm::deleteKey("/env/B"), 0);
    EXPECT_EQ(serve(watch), 1);
    // Hidden entries and deeper keys are not subkeys.
    write_in_place(store / "env/.hidden", "x");
    fs::create_directory(store / "env/C");
    quiet(watch);
    const int before = g_calls;
    write_in_place(store / "env/C/deep", "x");
    EXPECT_EQ(quiet(watch), 0);
    EXPECT_EQ(g_calls, before);
}

}  // namespace
