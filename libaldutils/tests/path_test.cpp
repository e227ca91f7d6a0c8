// SPDX-License-Identifier: MIT
// Paths and temporary files, and per-thread error storage (the
// configuration directory under an ALD_ROOT that ends in slashes: the
// daemon's tests). The line buffer is the log test's.
#include <ald/error.h>
#include <ald/path.h>
#include <ald/replace.h>

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

// A replacement on the real file system: the new file readable by nobody
// more than the result while it is written; a failed step leaves the old
// file and no temporary one. (Modes kept by a set: settings_test.)
TEST(Replace, TheNewFileIsMode0600UntilFilledAndAFailedStepLeavesTheOldFileAlone) {
    const std::string root = std::string(std::getenv("ALD_ROOT")) + "/replace", file = root + "/f";
    fs::remove_all(root);
    fs::create_directories(root);
    std::ofstream(file) << "old";
    fs::permissions(file, fs::perms(0600));
    mode_t written = 0;
    const auto fill = [&written](int fd, const char*) {
        struct stat st;
        written = ::fstat(fd, &st) == 0 ? st.st_mode & 07777 : 0;
        return ::write(fd, "new", 3) == 3;
    };
    const mode_t umask = ::umask(027);
    EXPECT_TRUE(ald::replace_file(ald::path(root), "f", fill));
    ::umask(umask);
    EXPECT_EQ(written, 0600u);
    EXPECT_EQ(fs::status(file).permissions(), fs::perms(0640)) << "0644 less the umask";
    const struct {
        const char* what;
        std::string dir, name;
        bool fills;
        ald::replace_step step;
        int err;
    } failures[] = {
        {"the writer fails", root, "f", false, ald::replace_step::fill, EIO},
        {"a directory in the way", root, "d", true, ald::replace_step::rename, EISDIR},
        {"no directory", root + "/none", "f", true, ald::replace_step::temporary, ENOENT},
    };
    fs::create_directories(root + "/d/x");
    for (const auto& f : failures) {
        const ald::replace_result r = ald::replace_file(ald::path(f.dir), f.name, [&f](int fd, const char*) {
            errno = EIO;
            return f.fills && ::write(fd, "x", 1) == 1;
        });
        EXPECT_EQ(r.failed, f.step) << f.what;
        EXPECT_EQ(r.error, f.err) << f.what;
        EXPECT_EQ(std::distance(fs::directory_iterator(root), {}), 2) << f.what << ": a temporary file was left";
        std::string text;
        std::getline(std::ifstream(file), text);
        EXPECT_EQ(text, "new") << f.what;
    }
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
