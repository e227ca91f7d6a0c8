// SPDX-License-Identifier: MIT
// The settings store and its watch, on the real file system and inotify
// under the test's ALD_ROOT.
#include <ald/settings.h>

#include "child.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <functional>
#include <tuple>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <sched.h>
#include <linux/capability.h>
#include <sys/epoll.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;
namespace sm = ald::setMgmt;

namespace {

class Store : public ::testing::Test {
protected:
    void SetUp() override {
        root = std::getenv("ALD_ROOT");
        fs::remove_all(root);
        fs::create_directories(store);
    }
    void put(const std::string& key, const std::string& text) {
        fs::create_directories(fs::path(store + key).parent_path());
        std::ofstream(store + key) << text;
    }
    std::string root;
    const std::string store = std::string(std::getenv("ALD_ROOT")) + "/etc/aldrana/settings";
};

// 0 for a call that succeeded, else the errno it left.
int error_of(int result) { return result == 0 ? 0 : result == -1 ? errno : -1000; }

// An invalid key never reaches the file it would name, nor leaves a value
// behind; the store's root is no key to delete. (Values, missing keys,
// directories, links, FIFOs, big files, set and del: aldsettings_test.sh.)
TEST_F(Store, AKeyStartsWithASlashAndHasNoEmptyDotOrDotDotPartElseReachesNoFile) {
    const std::pair<std::string, bool> keys[] = {
        {"/", true},      {"/a", true},        {"/a/b.c/..d/...", true}, {"/.hidden", true},  {"ab", false},
        {"//a", false},   {"/a/", false},      {"/a//b", false},          {"/.", false},        {"/a/./b", false},
        {"/a/..", false}, {std::string("/a\0b", 4), false},              {"/" + std::string(PATH_MAX - 1, 'k'), true},
        {"/" + std::string(PATH_MAX, 'k'), false},
    };
    for (const auto& key : keys) EXPECT_EQ(sm::valid_key(key.first), key.second) << key.first;
    put("/../escape", "out\n");
    std::string value = "untouched";
    EXPECT_EQ(error_of(sm::getKey("/../escape", value)), EINVAL);
    EXPECT_EQ(value, "untouched");
    EXPECT_EQ(error_of(sm::deleteKey("/")), EINVAL);
}

TEST_F(Store, AnIntegerIsDecimalWithBlanksAroundItElseTheDefault) {
    const std::pair<const char*, int> values[] = {
        {"7", 7},       {" -12 \n", -12},     {"+3\t", 3},   {"010", 10},      {"2147483647", INT_MAX},
        {"-2147483648", INT_MIN},             {"2147483648", 99},            {"18446744073709551623", 99},
        {"1 2", 99},    {"0x10", 99},         {"1.5", 99},   {"", 99},         {"-", 99},
        {" ", 99},      {"7\n\n", 7},         {"\n7", 7},
    };
    for (const auto& value : values) {
        put("/n", value.first);
        EXPECT_EQ(sm::getKeyValue("/n", 99), value.second) << '"' << value.first << '"';
    }
}

// A set cut off by a power loss leaves its temporary file; the next set in
// that directory removes it (and nobody else's: path_test). Sets take turns
// there rather than remove each other's.
TEST_F(Store, ASetRemovesWhatAnInterruptedSetLeftAndConcurrentSetsAllSucceed) {
    put("/d/.set-a1b2c3d4", "cut short");
    ASSERT_EQ(sm::setKey("/d/k", "v"), 0);
    EXPECT_FALSE(fs::exists(store + "/d/.set-a1b2c3d4"));
    pid_t children[2];
    for (pid_t& child : children) {
        if ((child = ::fork()) != 0) continue;
        int failed = 0;
        for (int i = 0; i < 300; ++i) failed += sm::setKey("/d/k", std::to_string(i)) != 0;
        ::_exit(failed);
    }
    for (pid_t child : children) {
        int status = -1;
        ::waitpid(child, &status, 0);
        EXPECT_EQ(status, 0) << WEXITSTATUS(status) << " sets failed";
    }
    EXPECT_EQ(std::distance(fs::directory_iterator(store + "/d"), {}), 1);
}

// A value kept private stays so: a set gives the new file the mode and owner
// of the one it replaces, through links too, also when it may not give the
// owner (it then keeps the mode, silently); a new key gets 0644 less the
// umask.
TEST_F(Store, ASetKeepsTheModeAndOwnerOfWhatItReplaces) {
    if (::geteuid() != 0) GTEST_SKIP() << "owners can be given by root only";
    const std::string persist = root + "/persist";
    fs::create_directories(persist);
    put("/private", "1"), fs::permissions(store + "/private", fs::perms(0600)), ::chown((store + "/private").c_str(), 1234, 1234);
    std::ofstream(persist + "/v") << "1", fs::permissions(persist + "/v", fs::perms(0640)), ::chown((persist + "/v").c_str(), 1234, 5678);
    fs::create_symlink(persist + "/v", store + "/linked");
    put("/other", "1"), fs::permissions(store + "/other", fs::perms(0600)), ::chown((store + "/other").c_str(), 1234, 1234);
    const struct {
        const char *key, *file;
        bool may_not_chown;  // a root without CAP_CHOWN, as any other user is
        unsigned mode, uid, gid;
    } sets[] = {{"/private", "/private", false, 0600, 1234, 1234}, {"/linked", "/../../../persist/v", false, 0640, 1234, 5678},
                {"/new", "/new", false, 0640, 0, 0}, {"/other", "/other", true, 0600, 0, 0}};
    for (const auto& set : sets) {
        const int status = in_child([&set] {
            ::umask(027);
            __user_cap_header_struct head{_LINUX_CAPABILITY_VERSION_3, 0};
            __user_cap_data_struct caps[2]{};
            caps[0].effective = ::syscall(SYS_capget, &head, caps) == 0 && set.may_not_chown ? caps[0].effective & ~(1u << CAP_CHOWN) : caps[0].effective;
            return (!set.may_not_chown || ::syscall(SYS_capset, &head, caps) == 0) && sm::setKey(set.key, "2") == 0 ? 0 : 1;
        }).status;
        struct stat st {};
        ::stat((store + set.file).c_str(), &st);
        EXPECT_EQ(status, 0) << set.key;
        EXPECT_EQ(std::make_tuple(st.st_mode & 07777, st.st_uid, st.st_gid), std::make_tuple(set.mode, set.uid, set.gid)) << set.key;
    }
}

// A daemon is a session leader without a terminal: a terminal that a key
// leads to is no value, and must not become the reader's, whose hangup
// would stop it.
TEST_F(Store, ATerminalBehindALinkIsNoValueAndNotTheReadersTerminal) {
    EXPECT_EQ(in_child([this] {
        const int master = ::posix_openpt(O_RDWR | O_NOCTTY);
        std::string value;
        return ::setsid() > 0 && master >= 0 && ::grantpt(master) == 0 && ::unlockpt(master) == 0 &&
               ::symlink(::ptsname(master), (store + "/tty").c_str()) == 0 && sm::getKey("/tty", value) == -1 &&
               errno == EINVAL && ::open("/dev/tty", O_RDONLY) < 0 ? 0 : 1;
    }).status, 0);
}

// Three events each, beside the key, until the kernel drops some.
void overflow(const std::string& file) {
    int limit = 16384;
    std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> limit;
    for (int i = 0; i < limit / 3 + 100; ++i) {
        std::ofstream{file};
        fs::remove(file);
    }
}

// The watch, served as the daemon serves it: its descriptor registered
// again in an epoll set of the caller's (EPOLL_CTL_MOD) before each wait,
// so that a change made while nobody waits, a mount above all, is seen.
int g_calls = 0;
bool count_call(const ald::path&) { return ++g_calls; }

class Watch : public Store {
protected:
    // Handler calls once the descriptor has been quiet for 200 ms.
    int changes() {
        const int before = g_calls;
        for (epoll_event ev{};; ev = {}) {
            const int fd = ev.data.fd = watch.get_fd();
            ev.events = EPOLLIN;
            if (::epoll_ctl(outer, EPOLL_CTL_MOD, fd, &ev) != 0) ::epoll_ctl(outer, EPOLL_CTL_ADD, fd, &ev);
            if (::epoll_wait(outer, &ev, 1, 200) != 1) break;
            if (!watch.read_notifications()) ::epoll_ctl(outer, EPOLL_CTL_DEL, fd, nullptr), ::close(fd);
        }
        return g_calls - before;
    }
    const int outer = ::epoll_create1(EPOLL_CLOEXEC);
    sm::MonitoredKey watch{ald::path("/a/b/key"), count_call, 0, false};
};

// Run in a mount namespace of the test's own (tests/CMakeLists.txt), where
// it may mount under its ALD_ROOT.
TEST_F(Watch, EveryChangeOfTheWayToTheKeyCallsTheHandlerOnceAndNoOtherChangeDoes) {
    fs::remove_all(store);
    const std::string key = store + "/a/b/key", persist = root + "/persist", data = root + "/mnt/data",
                      slots = root + "/slots";
    for (const auto& dir : {persist, data, slots + "/a", slots + "/b", slots + "/shared", root + "/lower", root + "/usb",
                            root + "/disk/persist", root + "/ov"})
        fs::create_directories(dir);
    // The link `at` made or replaced by a rename, as firmware does it.
    auto ln = [](const std::string& target, const std::string& at) {
        fs::create_symlink(target, at + ".new"), fs::rename(at + ".new", at);
    };
    auto write = [](const std::string& file, const char* text) { std::ofstream(file) << text; };
    auto mount = [](const char* type, const std::string& from, const std::string& at, const std::string& opts = "") {
        if (::mount(from.c_str(), at.c_str(), type, type ? 0 : MS_BIND, opts.c_str()) != 0) throw fs::filesystem_error("mount", at, std::error_code(errno, std::generic_category()));
    };
    ASSERT_GE(watch.get_fd(), 0);  // neither the key nor its directories exist yet
    EXPECT_TRUE(::fcntl(watch.get_fd(), F_GETFL) & O_NONBLOCK);
    const struct {
        const char* what;
        std::function<void()> change;
        int calls;
    } steps[] = {
        {"directories made, key written", [&] { put("/a/b/key", "1"); }, 1},
        {"written in place", [&] { write(key, "2"); }, 1},
        {"its directory removed and made again", [&] { fs::remove_all(store + "/a/b"), put("/a/b/key", "2"); }, 1},
        {"renamed into place", [&] { sm::setKey("/a/b/key", "3"); }, 1},
        {"deleted", [&] { fs::remove(key); }, 1},
        {"made again as a link elsewhere", [&] { write(persist + "/v", "4"), ln(persist + "/v", key); }, 1},
        {"its target written in place", [&] { write(persist + "/v", "5"); }, 1},
        {"its target replaced by a set", [&] { sm::setKey("/a/b/key", "6"); }, 1},
        {"pointed at nothing", [&] { ln(persist + "/w", key); }, 1},
        {"then the old target written", [&] { write(persist + "/v", "7"); }, 0},
        {"the new target made", [&] { write(persist + "/w", "8"); }, 1},
        {"led there through a directory it leaves by ..", [&] { fs::create_directories(persist + "/s/x"), ln(persist + "/s/x/../../w", key); }, 0},
        {"that directory removed", [&] { fs::remove(persist + "/s/x"); }, 1},
        {"made again", [&] { fs::create_directory(persist + "/s/x"); }, 1},
        {"many writes before one read", [&] { for (int i = 0; i < 50; ++i) sm::setKey("/a/b/key", std::to_string(i)); }, 1},
        {"files beside it", [&] { put("/a/b/keyring", "x"), sm::setKey("/a/b2/key", "x"), write(persist + "/x", "x"); }, 0},
        {"a loop of links", [&] { ln("key", key + "2"), ln("key2", key); }, 1},
        {"the loop's end made a value", [&] { write(key + "2.new", "9"), fs::rename(key + "2.new", key + "2"); }, 1},
        {"pointed at an empty mount point", [&] { ln(data + "/persist/aur", key); }, 1},
        {"a file system mounted there, the value made", [&] { mount("tmpfs", "t", data), fs::create_directory(data + "/persist"), sm::setKey("/a/b/key", "0"); }, 1},
        {"written there in place", [&] { write(data + "/persist/aur", "1"); }, 1},
        {"a file system mounted over the value's directory", [&] { mount("tmpfs", "t", data + "/persist"); }, 1},
        {"unmounted, the value seen again", [&] { ::umount((data + "/persist").c_str()); }, 1},
        {"unmounted, the mount point empty", [&] { ::umount(data.c_str()); }, 1},
        {"a directory bind-mounted there", [&] { write(root + "/disk/persist/aur", "2"), mount(nullptr, root + "/disk", data); }, 1},
        {"an overlay over the value's directory", [&] {
             write(root + "/lower/aur", "3"), mount("tmpfs", "t", root + "/ov"), fs::create_directories(root + "/ov/up"), fs::create_directories(root + "/ov/work");
             mount("overlay", "o", data + "/persist", "lowerdir=" + root + "/lower,upperdir=" + root + "/ov/up,workdir=" + root + "/ov/work");
         }, 1},
        {"written through the overlay", [&] { write(data + "/persist/aur", "4"); }, 1},
        {"a file bind-mounted over the value", [&] { write(root + "/bound", "5"), mount(nullptr, root + "/bound", data + "/persist/aur"); }, 1},
        {"written through the file's other name", [&] { write(root + "/bound", "6"); }, 1},
        {"a mount elsewhere", [&] { mount("tmpfs", "t", root + "/usb"); }, 0},
        {"its directory made a link to a slot", [&] { fs::remove_all(store + "/a/b"), write(slots + "/a/key", "a"), ln(slots + "/current", store + "/a/b"), ln("a", slots + "/current"); }, 1},
        {"the slot link pointed at the other", [&] { write(slots + "/b/key", "b"), ln("b", slots + "/current"); }, 1},
        {"a relative link with .. behind it", [&] { write(slots + "/shared/key", "s"), ln("../shared/key", slots + "/b/key"); }, 1},
        {"written there", [&] { write(slots + "/shared/key", "t"); }, 1},
        {"a directory above it renamed away", [&] { fs::rename(slots, root + "/old"); }, 1},
        {"and back", [&] { fs::rename(root + "/old", slots); }, 1},
        {"the directory above the store moved away", [&] { fs::rename(root + "/etc/aldrana", root + "/etc/old"); }, 1},
        {"the store made again with the key", [&] { put("/a/b/key", "5"); }, 1},
        {"events lost to a full queue", [&] { overflow(store + "/a/b/other"); }, 1},
    };
    for (const auto& step : steps) {
        step.change();
        EXPECT_EQ(changes(), step.calls) << step.what;
    }
    pollfd ready{watch.get_fd(), POLLIN, 0};  // a directory that merely lies on the way does not even wake it
    write(root + "/etc/other", "x");
    EXPECT_EQ(::poll(&ready, 1, 100), 0);
    for (const auto& at : {data + "/persist/aur", data + "/persist", data, root + "/ov", root + "/usb"})
        ::umount2(at.c_str(), MNT_DETACH);
}

// A watch made again owes one call: the key may have changed while there was
// none.
TEST_F(Watch, ADescriptorMadeAgainOwesOneCall) {
    put("/a/b/key", "1");
    const int fd = watch.get_fd(), null = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    ::dup2(null, fd), ::close(null);
    EXPECT_FALSE(watch.read_notifications());
    ::close(fd);
    put("/a/b/key", "2");
    const int before = g_calls;
    pollfd ready{watch.get_fd(), POLLIN, 0};
    EXPECT_TRUE(::poll(&ready, 1, 1000) == 1 && watch.read_notifications());
    EXPECT_EQ(g_calls - before, 1);
}

// Without /proc the watch goes on without the mount table, and says so once.
TEST_F(Watch, WithoutProcItSeesChangesButNoMountsAndSaysSoOnce) {
    const outcome o = in_child([this] {
        if (::unshare(CLONE_NEWNS) != 0 || ::mount("none", "/proc", "tmpfs", 0, nullptr) != 0) return 77;
        sm::MonitoredKey second{ald::path("/a/b/key"), count_call, 0, false};
        if (watch.get_fd() < 0 || second.get_fd() < 0) return fail("no watch");
        put("/a/b/key", "1");
        return changes() == 1 ? 0 : fail("the key's change missed");
    });
    EXPECT_EQ(o.status, 0) << o.text;
    EXPECT_EQ(o.writes, std::vector<std::string>{"warning: settings watch: no mount table (/proc/self/mountinfo: "
                                                 "No such file or directory): mounts on the way to a key are not seen\n"});
}

}  // namespace
