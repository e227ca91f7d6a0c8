// The settings store on the test's private root, against the real file system.
#include <ald/settings.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace fs = std::filesystem;
namespace sm = ald::setMgmt;

namespace {

std::string slurp(const fs::path& file) {
    std::ifstream in(file, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

void plant(const fs::path& file, const std::string& content) {
    fs::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary) << content;
}

// Every name under `dir`, for proving that a call touched nothing.
std::set<std::string> tree(const fs::path& dir) {
    std::set<std::string> names;
    if (!fs::exists(dir)) return names;
    for (const auto& entry : fs::recursive_directory_iterator(dir)) names.insert(entry.path().string());
    return names;
}

class Store : public ::testing::Test {
protected:
    void SetUp() override {
        const char* env = std::getenv("ALD_ROOT");
        ASSERT_TRUE(env && *env) << "run through ctest: the tests need a private ALD_ROOT";
        root = env;
        store = root / "etc/aldrana/settings";
        fs::remove_all(root / "etc");
    }

    fs::path root;
    fs::path store;
};

TEST_F(Store, LivesInTheConfigurationDirectoryUnderTheRoot) {
    EXPECT_EQ(sm::store_directory(), store.string());
}

TEST_F(Store, InitChecksOrCreatesTheDirectory) {
    EXPECT_EQ(sm::init(false), -1);
    EXPECT_FALSE(fs::exists(store));
    EXPECT_EQ(sm::init(true), 0);
    EXPECT_TRUE(fs::is_directory(store));
    EXPECT_EQ(sm::init(false), 0);
    sm::uninit();
    // A file where the store or one of its parents belongs.
    fs::remove_all(root / "etc");
    plant(store, "x");
    EXPECT_EQ(sm::init(false), -1);
    EXPECT_EQ(sm::init(true), -1);
    fs::remove_all(root / "etc");
    plant(root / "etc/aldrana", "x");
    EXPECT_EQ(sm::init(true), -1);
}

TEST_F(Store, ValueIsTheFileWithOneTrailingNewlineRemoved) {
    plant(store / "a/plain", "text");
    plant(store / "a/line", "text\n");
    plant(store / "a/two", "text\n\n");
    plant(store / "a/empty", "");
    plant(store / "a/binary", std::string("x\0y\r", 4));
    std::string value;
    EXPECT_EQ(sm::getKey("/a/plain", value), 0);
    EXPECT_EQ(value, "text");
    EXPECT_EQ(sm::getKey("/a/line", value), 0);
    EXPECT_EQ(value, "text");
    EXPECT_EQ(sm::getKey("/a/two", value), 0);
    EXPECT_EQ(value, "text\n");
    EXPECT_EQ(sm::getKey("/a/empty", value), 0);
    EXPECT_EQ(value, "");
    EXPECT_EQ(sm::getKey("/a/binary", value), 0);
    EXPECT_EQ(value, std::string("x\0y\r", 4));
    EXPECT_EQ(sm::getKeyValue("/a/line", std::string("default")), "text");
    EXPECT_EQ(sm::getKeyValue("/a/empty", std::string("default")), "");
}

TEST_F(Store, MissingDirectoryAndOddKeysHaveNoValue) {
    plant(store / "dir/child", "1");
    plant(store / "file", "1");
    ASSERT_EQ(::mkfifo((store / "fifo").c_str(), 0644), 0);
    std::string value = "untouched";
    errno = 0;
    EXPECT_EQ(sm::getKey("/missing", value), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(sm::getKey("/dir", value), -1);
    EXPECT_EQ(errno, EISDIR);
    EXPECT_EQ(sm::getKey("/file/below", value), -1);
    // A FIFO has no value and must not hang the reader.
    EXPECT_EQ(sm::getKey("/fifo", value), -1);
    EXPECT_EQ(value, "untouched");
    EXPECT_EQ(sm::getKeyValue("/missing", std::string("dflt")), "dflt");
    EXPECT_EQ(sm::getKeyValue("/dir", std::string("dflt")), "dflt");
    EXPECT_EQ(sm::getKeyValue("/missing", 7), 7);
}

TEST_F(Store, UnreadableValueReadsAsMissing) {
    plant(store / "open", "1");
    plant(store / "closed", "2");
    fs::permissions(store / "closed", fs::perms::owner_read | fs::perms::owner_write);
    // Root reads anything: ask as an unprivileged user, in a child.
    pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        if (::setresgid(65534, 65534, 65534) != 0 || ::setresuid(65534, 65534, 65534) != 0) ::_exit(3);
        std::string value;
        if (sm::getKey("/open", value) != 0) ::_exit(4);  // store not reachable as nobody
        if (sm::getKey("/closed", value) != -1) ::_exit(1);
        ::_exit(sm::getKeyValue("/closed", 9) == 9 && sm::getKeyValue("/closed", std::string("d")) == "d" ? 0 : 2);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status));
    if (WEXITSTATUS(status) == 3 || WEXITSTATUS(status) == 4) GTEST_SKIP() << "cannot test as an unprivileged user here";
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST_F(Store, IntegerValues) {
    const struct {
        const char* text;
        int expected;
    } cases[] = {
        {"42", 42}, {"42\n", 42}, {" \t-17 \n", -17}, {"+5", 5}, {"-0", 0}, {"007", 7},
        {"2147483647", INT_MAX}, {"-2147483648", INT_MIN},
        // Everything else gives the default, -1.
        {"2147483648", -1}, {"-2147483649", -1}, {"99999999999999999999999", -1},
        {"", -1}, {"   ", -1}, {"+", -1}, {"- 5", -1}, {"12abc", -1}, {"abc", -1},
        {"1 2", -1}, {"3.5", -1}, {"0x10", -1},
    };
    for (const auto& c : cases) {
        plant(store / "n", c.text);
        EXPECT_EQ(sm::getKeyValue("/n", -1), c.expected) << "value \"" << c.text << "\"";
    }
    plant(store / "n", std::string("5\0", 2));
    EXPECT_EQ(sm::getKeyValue("/n", -1), -1) << "a NUL after the digits";
    EXPECT_EQ(sm::getKeyValue("/absent", 1), 1);
    fs::create_directories(store / "dir");
    EXPECT_EQ(sm::getKeyValue("/dir", 1), 1);
}

TEST_F(Store, SubkeysAreVisibleEntriesInByteOrder) {
    for (const char* name : {"b", "a", "B", "\xc3\xa9", "a1", "a0"}) plant(store / "k" / name, "");
    plant(store / "k/.hidden", "");
    plant(store / "k/.tmp-12345678", "");
    fs::create_directories(store / "k/sub/deeper");
    std::vector<std::string> names{"stale"};
    ASSERT_EQ(sm::enumSubkeys("/k", names), 0);
    EXPECT_EQ(names, (std::vector<std::string>{"B", "a", "a0", "a1", "b", "sub", "\xc3\xa9"}));
    ASSERT_EQ(sm::enumSubkeys("/", names), 0);
    EXPECT_EQ(names, std::vector<std::string>{"k"});
    fs::create_directories(store / "empty");
    ASSERT_EQ(sm::enumSubkeys("/empty", names), 0);
    EXPECT_TRUE(names.empty());
    names = {"kept"};
    EXPECT_EQ(sm::enumSubkeys("/missing", names), -1);
    EXPECT_EQ(sm::enumSubkeys("/k/a", names), -1);
    EXPECT_EQ(names, std::vector<std::string>{"kept"});
}

TEST_F(Store, KeyValidation) {
    for (const std::string key : {"/", "/a", "/a/b", "/a.b", "/...", "/.a", "/a/..b", "/a b"}) {
        EXPECT_TRUE(sm::valid_key(key)) << key;
    }
    const std::string invalid[] = {
        "", "a", "a/b", "/a/", "//a", "/a//b", "/.", "/./a", "/a/.", "/..", "/a/../b", "/a/..",
        std::string("/a\0b", 4), "/" + std::string(PATH_MAX, 'x'),
    };
    for (const std::string& key : invalid) EXPECT_FALSE(sm::valid_key(key)) << key;
    std::string longest = "/" + std::string(PATH_MAX - 1, 'x');
    EXPECT_TRUE(sm::valid_key(longest));
}

TEST_F(Store, InvalidKeysNeverTouchTheFileSystem) {
    ASSERT_EQ(sm::init(true), 0);
    // Beside the store, reachable from it through "..".
    plant(root / "etc/aldrana/secret", "planted");
    plant(root / "etc/aldrana/secretdir/inner", "planted");
    const std::set<std::string> before = tree(root);
    for (const std::string key : {"/../secret", "/../secretdir", "/./x", "x", "/x/", "//x", "/../../x"}) {
        std::string value = "untouched";
        std::vector<std::string> names{"untouched"};
        EXPECT_EQ(sm::getKey(key, value), -1) << key;
        EXPECT_EQ(value, "untouched");
        EXPECT_EQ(sm::getKeyValue(key, std::string("dflt")), "dflt") << key;
        EXPECT_EQ(sm::getKeyValue(key, 5), 5) << key;
        EXPECT_EQ(sm::enumSubkeys(key, names), -1) << key;
        EXPECT_EQ(names, std::vector<std::string>{"untouched"});
        errno = 0;
        EXPECT_EQ(sm::setKey(key, "written"), -1) << key;
        EXPECT_EQ(errno, EINVAL);
        errno = 0;
        EXPECT_EQ(sm::deleteKey(key), -1) << key;
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_EQ(tree(root), before);
    EXPECT_EQ(slurp(root / "etc/aldrana/secret"), "planted");
}

TEST_F(Store, SetKeyCreatesParentsAndStoresOneTrailingNewline) {
    const mode_t old = ::umask(022);
    ASSERT_EQ(sm::setKey("/a/b/c", "value"), 0);
    ::umask(old);
    EXPECT_EQ(slurp(store / "a/b/c"), "value\n");
    EXPECT_EQ(fs::status(store / "a/b/c").permissions(),
              fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read | fs::perms::others_read);
    EXPECT_TRUE(fs::is_directory(store / "a/b"));
    std::string value;
    for (const std::string& text : {std::string(""), std::string("two\n"), std::string("x\0y", 3), std::string(100000, 'z')}) {
        ASSERT_EQ(sm::setKey("/a/b/c", text), 0);
        ASSERT_EQ(sm::getKey("/a/b/c", value), 0);
        EXPECT_EQ(value, text);
    }
    // Only the key: no temporary file is left behind.
    std::vector<std::string> all;
    for (const auto& entry : fs::directory_iterator(store / "a/b")) all.push_back(entry.path().filename());
    EXPECT_EQ(all, std::vector<std::string>{"c"});
}

TEST_F(Store, SetKeyRefusesDirectoryKeysAndValueParents) {
    plant(store / "dir/child", "1");
    plant(store / "file", "1");
    errno = 0;
    EXPECT_EQ(sm::setKey("/dir", "x"), -1);
    EXPECT_EQ(errno, EISDIR);
    EXPECT_EQ(sm::setKey("/", "x"), -1);
    EXPECT_EQ(errno, EISDIR);
    EXPECT_EQ(slurp(store / "dir/child"), "1");
    EXPECT_EQ(sm::setKey("/file/below", "x"), -1);
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_EQ(slurp(store / "file"), "1");
    std::set<std::string> expected{(store / "dir").string(), (store / "dir/child").string(), (store / "file").string()};
    EXPECT_EQ(tree(store), expected);
}

TEST_F(Store, DeleteKeyRemovesValuesAndWholeDirectories) {
    plant(store / "v", "1");
    plant(store / "d/x/y", "1");
    plant(store / "d/.hidden", "1");
    plant(root / "outside/keep", "1");
    fs::create_symlink(root / "outside", store / "d/link");
    EXPECT_EQ(sm::deleteKey("/v"), 0);
    EXPECT_FALSE(fs::exists(store / "v"));
    EXPECT_EQ(sm::deleteKey("/d"), 0);
    EXPECT_FALSE(fs::exists(store / "d"));
    // The link went, never what it pointed at.
    EXPECT_EQ(slurp(root / "outside/keep"), "1");
    errno = 0;
    EXPECT_EQ(sm::deleteKey("/v"), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(sm::deleteKey("/"), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_TRUE(fs::is_directory(store));
    fs::remove_all(root / "outside");
}

// Values large enough that a write in place would be seen in pieces.
TEST_F(Store, ReaderRacingAWriterSeesTheOldOrTheNewValue) {
    const std::string first(64 * 1024, 'a');
    const std::string second(80 * 1024, 'b');
    ASSERT_EQ(sm::setKey("/race/key", first), 0);
    std::atomic<bool> done{false};
    std::thread writer([&] {
        for (int i = 0; i < 200; ++i) {
            if (sm::setKey("/race/key", i % 2 ? first : second) != 0) break;
        }
        done = true;
    });
    long reads = 0, bad = 0, seen_second = 0;
    while (!done) {
        std::string value;
        ++reads;
        if (sm::getKey("/race/key", value) != 0 || (value != first && value != second)) ++bad;
        if (value == second) ++seen_second;
    }
    writer.join();
    EXPECT_EQ(bad, 0) << "of " << reads << " reads";
    EXPECT_GT(seen_second, 0);
}

}  // namespace
