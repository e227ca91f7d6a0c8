// SPDX-License-Identifier: MIT
// Paths and temporary files, and per-thread error storage (the
// configuration directory under an ALD_ROOT that ends in slashes: the
// daemon's tests). The line buffer is the log test's.
#include <ald/error.h>
#include <ald/path.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

TEST(Path, PiecesJoinWithExactlyOneSlashOrAsTheyAre) {
    const struct { const char* start; bool component; ald::basic_string_view<char> piece; const char* text; } cases[] = {{"", true, "etc", "etc"},   {"/etc", true, "x", "/etc/x"}, {"/etc/", true, "x", "/etc/x"},
                 {"/etc", true, "//x", "/etc/x"}, {"/etc", false, "x", "/etcx"}, {"/etc", true, "", "/etc/"},
                 {"/etc", true, {"abcdef", 3}, "/etc/abc"}};
    for (const auto& c : cases) {
        ald::path path;
        EXPECT_STREQ(path.add_piece(false, c.start).add_piece(c.component, c.piece).c_str(), c.text) << c.start;
    }
    EXPECT_EQ(ald::path().add_piece(true, "").c_str(), nullptr);
}

// The kernel's random pool, made to repeat itself on request: the library
// calls this definition instead of the C library's.
bool g_same_random = false;
extern "C" ssize_t getrandom(void* buf, size_t length, unsigned flags) {
    if (!g_same_random) return ::syscall(SYS_getrandom, buf, length, flags);
    std::memset(buf, 0, length);
    return static_cast<ssize_t>(length);
}

TEST(Path, TemporaryFilesAreNewAndMode0644) {
    const std::string dir = std::string(std::getenv("ALD_ROOT")) + "/tmp";
    fs::remove_all(dir);
    fs::create_directories(dir);
    const mode_t umask = ::umask(0);
    ald::path file;
    ASSERT_TRUE(ald::path(dir).temp_file(file));
    EXPECT_EQ(fs::status(file.c_str()).permissions(), fs::perms(0644));
    ::umask(umask);
    ald::path untouched("kept");
    EXPECT_FALSE(ald::path(dir + "/missing").temp_file(untouched) || errno != ENOENT);
    EXPECT_STREQ(untouched.c_str(), "kept");
    g_same_random = true;  // every name taken: an existing file is never handed out again
    ald::path same;
    EXPECT_TRUE(ald::path(dir).temp_file(same));
    EXPECT_FALSE(ald::path(dir).temp_file(same) || errno != EEXIST);
    g_same_random = false;
}

// What a writer cut off between temp_file and its rename left goes; nothing
// that temp_file could not have made with that prefix does.
TEST(Path, OnlyTheTemporaryFilesOfAPrefixAreRemoved) {
    const std::string dir = std::string(std::getenv("ALD_ROOT")) + "/left";
    fs::remove_all(dir);
    fs::create_directories(dir);
    const std::pair<const char*, bool> names[] = {  // and whether it goes
        {".tmp-a1b2c3d4", true}, {".tmp-a1b2c3d4~", false}, {".tmp-A1B2C3D4", false}, {".set-a1b2c3d4", false}};
    for (const auto& name : names) std::ofstream(dir + "/" + name.first);
    fs::create_symlink(names[3].first, dir + "/.tmp-link0000");
    ald::path made;
    ASSERT_TRUE(ald::path(dir).temp_file(made));
    EXPECT_EQ(ald::path(dir).remove_temp_files(ald::kTempFilePrefix), 2);
    for (const auto& name : names) EXPECT_NE(fs::exists(dir + "/" + name.first), name.second) << name.first;
    EXPECT_TRUE(fs::is_symlink(dir + "/.tmp-link0000"));
    EXPECT_FALSE(fs::exists(made.c_str()));
}

TEST(ErrorStorage, KeepsCodeAndMessageUpTo255CharactersForItsThreadOnly) {
    const std::string long_text(300, 'm');
    alderrno.set(3, long_text);
    std::thread([] { alderrno.set(9, "another thread's"); }).join();
    EXPECT_EQ(alderrno.code(), 3);
    EXPECT_EQ(alderrno.message(), long_text.substr(0, 255));
    alderrno.set(1);
    EXPECT_STREQ(alderrno.message(), "");
}

}  // namespace
