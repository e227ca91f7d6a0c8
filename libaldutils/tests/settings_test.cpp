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
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <sys/stat.h>
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

// The watch, served as the daemon serves it.
int g_calls = 0;
bool count_call(const ald::path&) { return ++g_calls; }

class Watch : public Store {
protected:
    // Handler calls once the descriptor has been quiet for 200 ms.
    int changes() {
        const int before = g_calls;
        for (pollfd ready{watch.get_fd(), POLLIN, 0}; ::poll(&ready, 1, 200) == 1; ready.fd = watch.get_fd())
            if (!watch.read_notifications()) break;
        return g_calls - before;
    }
    sm::MonitoredKey watch{ald::path("/a/b/key"), count_call, 0, false};
};

TEST_F(Watch, EveryChangeOfTheKeyCallsTheHandlerOnceAndNoOtherChangeDoes) {
    fs::remove_all(store);
    const std::string persist = root + "/persist", key_dir = store + "/a/b/";
    auto link = [&](const std::string& target, const char* name) { fs::create_symlink(target, key_dir + name); };
    // The key made a link to `target` by a rename, its call consumed.
    auto repoint = [&](const std::string& target) { link(target, ".new"), fs::rename(key_dir + ".new", key_dir + "key"), changes(); };
    ASSERT_GE(watch.get_fd(), 0);  // neither the key nor its directories exist yet
    EXPECT_TRUE(::fcntl(watch.get_fd(), F_GETFL) & O_NONBLOCK);
    const struct {
        const char* what;
        std::function<void()> change;
        int calls;
    } steps[] = {
        {"directories made, key written", [&] { put("/a/b/key", "1"); }, 1},
        {"written in place", [&] { std::ofstream(store + "/a/b/key") << "2"; }, 1},
        {"renamed into place", [&] { sm::setKey("/a/b/key", "3"); }, 1},
        {"deleted", [&] { fs::remove(store + "/a/b/key"); }, 1},
        {"made again as a link elsewhere", [&] { put("/../../../persist/v", "4"), link(persist + "/v", "key"); }, 1},
        {"its target written in place", [&] { std::ofstream(persist + "/v") << "5"; }, 1},
        {"its target replaced by a set", [&] { sm::setKey("/a/b/key", "6"); }, 1},
        {"pointed at nothing, then the old target written", [&] { repoint(persist + "/w"), std::ofstream(persist + "/v") << "7"; }, 0},
        {"the new target made", [&] { std::ofstream(persist + "/w") << "8"; }, 1},
        {"pointed into a directory made later, then made", [&] { repoint(root + "/late/x"), put("/../../../late/x", "9"); }, 1},
        {"many writes before one read", [&] { for (int i = 0; i < 50; ++i) sm::setKey("/a/b/key", std::to_string(i)); }, 1},
        {"files beside it", [&] { put("/a/b/keyring", "x"), sm::setKey("/a/b2/key", "x"), put("/../updater.conf", "{}"); }, 0},
        {"its directory moved away", [&] { fs::rename(store + "/a", store + "/gone"); }, 1},
        {"a directory with the key moved in", [&] { fs::rename(store + "/gone", store + "/a"); }, 1},
        {"the directory above the store moved away", [&] { fs::rename(root + "/etc/aldrana", root + "/etc/old"); }, 1},
        {"the store made again with the key", [&] { put("/a/b/key", "5"); }, 1},
        {"events lost to a full queue", [&] { overflow(store + "/a/b/other"); }, 1},
    };
    for (const auto& step : steps) {
        step.change();
        EXPECT_EQ(changes(), step.calls) << step.what;
    }
    pollfd ready{watch.get_fd(), POLLIN, 0};  // a change above the store does not even wake it
    std::ofstream(root + "/etc/other") << "x";
    EXPECT_EQ(::poll(&ready, 1, 100), 0);
}

}  // namespace
