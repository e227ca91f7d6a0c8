// Paths, temporary files, the well-known directories, the in-memory stream
// and the per-thread error storage.
#include <ald/error.h>
#include <ald/memstream.h>
#include <ald/path.h>

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

extern char** environ;

// ---- controlled randomness -------------------------------------------------
//
// temp_file names its candidates from getrandom(). Defining getrandom here
// interposes it for the library, so a test can force the library to pick
// names that already exist and watch what it does with them. Unscripted
// calls go to the kernel.

namespace {

using pattern = std::array<unsigned char, 8>;

std::mutex g_random_mutex;
std::deque<pattern> g_script;  // answers for the next calls, in order
bool g_sticky = false;         // the last answer repeats for ever
long g_random_calls = 0;

// Scripts the coming getrandom calls for the life of one test.
class RandomScript {
public:
    void set(std::deque<pattern> answers, bool sticky) {
        std::lock_guard<std::mutex> lock(g_random_mutex);
        g_script = std::move(answers);
        g_sticky = sticky;
    }
    long calls() const {
        std::lock_guard<std::mutex> lock(g_random_mutex);
        return g_random_calls;
    }
    ~RandomScript() { set({}, false); }
};

}  // namespace

extern "C" ssize_t getrandom(void* buf, size_t len, unsigned int flags) {
    {
        std::lock_guard<std::mutex> lock(g_random_mutex);
        ++g_random_calls;
        if (!g_script.empty()) {
            auto* out = static_cast<unsigned char*>(buf);
            for (size_t i = 0; i < len; ++i) out[i] = g_script.front()[i % 8];
            if (g_script.size() > 1 || !g_sticky) g_script.pop_front();
            return static_cast<ssize_t>(len);
        }
    }
    return static_cast<ssize_t>(::syscall(SYS_getrandom, buf, len, flags));
}

// ---- helper process ---------------------------------------------------------
//
// The library reads ALD_ROOT once per process, so the variants of the root
// are checked in fresh copies of this binary. With ALD_PATH_TEST_HELPER set,
// the copy prints the configuration directory, changes ALD_ROOT, prints it
// again and exits before any test runs.

namespace {

std::string config_dir_text() {
    std::ostringstream out;
    ald::detail::print_common_path(out, ald::common_path::config);
    return out.str();
}

const bool g_helper = [] {
    if (!std::getenv("ALD_PATH_TEST_HELPER")) return false;
    std::string first = config_dir_text();
    ::setenv("ALD_ROOT", "/changed-later", 1);
    std::string second = config_dir_text();
    std::string out = first + "\n" + second + "\n";
    (void)!::write(STDOUT_FILENO, out.data(), out.size());
    ::_exit(0);
}();

// Runs the helper with ALD_ROOT unset (root == nullptr) or set to `root`,
// and returns its two lines.
std::string run_helper(const char* root) {
    int out[2];
    if (::pipe(out) != 0) return "pipe failed";
    ::fflush(nullptr);
    pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(out[1], STDOUT_FILENO);
        ::close(out[0]);
        ::close(out[1]);
        ::setenv("ALD_PATH_TEST_HELPER", "1", 1);
        if (root)
            ::setenv("ALD_ROOT", root, 1);
        else
            ::unsetenv("ALD_ROOT");
        char self[] = "/proc/self/exe";
        char* argv[] = {self, nullptr};
        ::execve(self, argv, environ);
        ::_exit(127);
    }
    ::close(out[1]);
    std::string text;
    char buf[256];
    ssize_t n;
    while ((n = ::read(out[0], buf, sizeof buf)) > 0) text.append(buf, static_cast<size_t>(n));
    ::close(out[0]);
    int status = 0;
    ::waitpid(pid, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return "helper failed";
    return text;
}

// ---- files ------------------------------------------------------------------

std::string root_dir() {
    const char* root = std::getenv("ALD_ROOT");
    return (root && *root) ? root : "/tmp";
}

// A fresh, empty directory for one test.
std::string fresh_dir() {
    std::string base = root_dir();
    for (std::size_t i = 1; i <= base.size(); ++i)
        if (i == base.size() || base[i] == '/') ::mkdir(base.substr(0, i).c_str(), 0755);
    std::string templ = base + "/path-test-XXXXXX";
    std::vector<char> buf(templ.begin(), templ.end());
    buf.push_back('\0');
    if (!::mkdtemp(buf.data())) return {};
    return buf.data();
}

std::set<std::string> entries(const std::string& dir) {
    std::set<std::string> names;
    if (DIR* d = ::opendir(dir.c_str())) {
        while (dirent* e = ::readdir(d)) {
            std::string name = e->d_name;
            if (name != "." && name != "..") names.insert(name);
        }
        ::closedir(d);
    }
    return names;
}

std::size_t open_descriptors() { return entries("/proc/self/fd").size(); }

std::string slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

void spit(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
}

std::string text_of(const ald::path& p) { return p.c_str() ? std::string(p.c_str(), p.size()) : std::string(); }

std::string base_of(const std::string& path) { return path.substr(path.rfind('/') + 1); }

bool exists(const std::string& path) {
    struct stat st;
    return ::lstat(path.c_str(), &st) == 0;
}

// The name temp_file picks in an empty scratch directory when getrandom
// always answers `p`.
std::string name_for(RandomScript& script, const pattern& p) {
    std::string scratch = fresh_dir();
    script.set({p}, true);
    ald::path out;
    bool made = ald::path(ald::string_view(scratch)).temp_file(out);
    script.set({}, false);
    if (!made) return {};
    std::string name = base_of(text_of(out));
    ::unlink(text_of(out).c_str());
    ::rmdir(scratch.c_str());
    return name;
}

class UmaskGuard {
public:
    explicit UmaskGuard(mode_t mask) : saved_(::umask(mask)) {}
    ~UmaskGuard() { ::umask(saved_); }

private:
    mode_t saved_;
};

}  // namespace

// ---- joining ----------------------------------------------------------------

TEST(PathJoin, DefaultPathHasNoStorage) {
    ald::path p;
    EXPECT_EQ(p.c_str(), nullptr);
    EXPECT_EQ(p.size(), 0u);
    EXPECT_EQ(p.view().data, nullptr);
    EXPECT_EQ(p.view().length, 0u);

    // Empty pieces in either mode give it none either.
    p.add_piece(true, ald::string_view());
    p.add_piece(false, ald::string_view());
    p.add_piece(true, ald::string_view("", 0));
    EXPECT_EQ(p.c_str(), nullptr);
    EXPECT_EQ(p, ald::path());
    EXPECT_FALSE(ald::path(ald::string_view("/a")) == ald::path());
    EXPECT_FALSE(ald::path(ald::string_view("/a/b")) == ald::path(ald::string_view("/a/bc")));
}

TEST(PathJoin, PiecesJoinWithExactlyOneSlashOrAsTheyAre) {
    struct Case {
        bool component;
        const char* first;
        const char* piece;
        const char* expected;
    };
    const Case cases[] = {
        {true, "/etc/aldrana", "updater.conf", "/etc/aldrana/updater.conf"},
        {true, "/etc/aldrana/", "updater.conf", "/etc/aldrana/updater.conf"},
        {true, "/etc/aldrana", "/updater.conf", "/etc/aldrana/updater.conf"},
        {true, "/etc/aldrana/", "///updater.conf", "/etc/aldrana/updater.conf"},
        {true, "/", "etc", "/etc"},
        {true, "relative", "b/c", "relative/b/c"},
        // Nothing goes in front of a first piece: the configuration path
        // built from an empty directory text stays relative.
        {true, "", "updater.conf", "updater.conf"},
        {true, "", "/etc", "/etc"},
        {false, "/etc/aldrana/updater", ".conf", "/etc/aldrana/updater.conf"},
        {false, "/dir/", "/x", "/dir//x"},
        {false, "/base", "", "/base"},
    };
    for (const Case& c : cases) {
        ald::path p;
        p.add_piece(c.component, c.first).add_piece(c.component, c.piece);
        EXPECT_EQ(text_of(p), c.expected) << c.component << ": " << c.first << " + " << c.piece;
    }
}

TEST(PathJoin, PiecesAreReadByLengthAndTextStaysTerminated) {
    const char buffer[] = "piece-and-garbage";
    ald::path p;
    p.add_piece(true, ald::string_view(buffer, 5));
    p.add_piece(true, ald::string_view(buffer + 10, 7));  // "garbage"
    ASSERT_NE(p.c_str(), nullptr);
    EXPECT_EQ(p.size(), 13u);
    EXPECT_STREQ(p.c_str(), "piece/garbage");

    ald::path longp;
    std::string expected;
    for (int i = 0; i < 100; ++i) {
        std::string piece = "component" + std::to_string(i);
        longp.add_piece(true, piece);
        expected += (i ? "/" : "") + piece;
        ASSERT_EQ(longp.c_str()[longp.size()], '\0');
    }
    EXPECT_EQ(text_of(longp), expected);
    EXPECT_EQ(longp.view().data, longp.c_str());
}

// ---- temporary files ----------------------------------------------------------

TEST(TempFile, CreatesAnEmptyHiddenFileInTheDirectory) {
    std::string dir = fresh_dir();
    ASSERT_FALSE(dir.empty());
    std::size_t fds_before = open_descriptors();

    ald::path out;
    ASSERT_TRUE(ald::path(ald::string_view(dir)).temp_file(out)) << std::strerror(errno);
    std::string made = text_of(out);
    EXPECT_EQ(made.substr(0, dir.size() + 1), dir + "/");
    std::string name = base_of(made);
    EXPECT_EQ(made, dir + "/" + name) << "one slash between directory and name";
    ASSERT_FALSE(name.empty());
    EXPECT_EQ(name[0], '.');
    EXPECT_EQ(std::strlen(out.c_str()), out.size());

    struct stat st;
    ASSERT_EQ(::lstat(made.c_str(), &st), 0);
    EXPECT_TRUE(S_ISREG(st.st_mode));
    EXPECT_EQ(st.st_size, 0);
    EXPECT_EQ(entries(dir), std::set<std::string>{name});
    EXPECT_EQ(open_descriptors(), fds_before) << "the new file must not be left open";

    // A directory written with a trailing slash gives the same shape.
    ald::path out2;
    ASSERT_TRUE(ald::path(ald::string_view(dir + "/")).temp_file(out2));
    EXPECT_EQ(text_of(out2), dir + "/" + base_of(text_of(out2)));
}

TEST(TempFile, ModeIs0644BeforeTheUmask) {
    std::string dir = fresh_dir();
    struct Case {
        mode_t mask;
        mode_t expected;
    };
    for (Case c : {Case{0, 0644}, Case{077, 0600}}) {
        UmaskGuard guard(c.mask);
        ald::path out;
        ASSERT_TRUE(ald::path(ald::string_view(dir)).temp_file(out));
        struct stat st;
        ASSERT_EQ(::stat(out.c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 07777, c.expected) << "umask " << std::oct << c.mask;
    }
}

TEST(TempFile, NamesAreUnique) {
    std::string dir = fresh_dir();
    const ald::path d{ald::string_view(dir)};
    std::set<std::string> names;
    for (int i = 0; i < 100; ++i) {
        ald::path out;
        ASSERT_TRUE(d.temp_file(out)) << "attempt " << i << ": " << std::strerror(errno);
        names.insert(base_of(text_of(out)));
    }
    EXPECT_EQ(names.size(), 100u);
    EXPECT_EQ(entries(dir), names);
}

TEST(TempFile, NeverFollowsOrOverwritesAnExistingName) {
    RandomScript script;
    std::string dir = fresh_dir();
    std::string outside = fresh_dir();

    // Learn which names ten fixed patterns produce, then plant each of them:
    // even ones as dangling symlinks (O_CREAT without O_EXCL would create the
    // target), odd ones as files with content and mode 0600.
    std::deque<pattern> patterns;
    std::set<std::string> planted;
    for (unsigned char i = 0; i < 10; ++i) {
        pattern p{};
        for (auto& b : p) b = static_cast<unsigned char>(i * 7 + 3);
        std::string name = name_for(script, p);
        ASSERT_FALSE(name.empty());
        patterns.push_back(p);
        planted.insert(name);
        std::string at = dir + "/" + name;
        if (i % 2 == 0) {
            ASSERT_EQ(::symlink((outside + "/target" + std::to_string(i)).c_str(), at.c_str()), 0);
        } else {
            spit(at, "planted " + std::to_string(i));
            ASSERT_EQ(::chmod(at.c_str(), 0600), 0);
        }
    }
    ASSERT_EQ(planted.size(), 10u) << "the patterns should give distinct names";

    long calls_before = script.calls();
    script.set(patterns, false);
    ald::path out;
    ASSERT_TRUE(ald::path(ald::string_view(dir)).temp_file(out)) << std::strerror(errno);
    EXPECT_GE(script.calls() - calls_before, 10) << "getrandom was not consulted: the collisions were not forced";

    std::string name = base_of(text_of(out));
    EXPECT_EQ(planted.count(name), 0u) << "reused planted name " << name;
    EXPECT_TRUE(entries(outside).empty()) << "a symlink was followed";
    std::set<std::string> expected = planted;
    expected.insert(name);
    EXPECT_EQ(entries(dir), expected);
    for (const std::string& n : planted) {
        struct stat st;
        ASSERT_EQ(::lstat((dir + "/" + n).c_str(), &st), 0);
        if (S_ISLNK(st.st_mode)) continue;
        EXPECT_EQ(st.st_mode & 07777, 0600u) << n;
        EXPECT_EQ(slurp(dir + "/" + n).substr(0, 8), "planted ") << n;
    }
}

TEST(TempFile, GivesUpWithEexistWhenEveryNameIsTaken) {
    RandomScript script;
    pattern p{};
    p.fill(42);
    std::string name = name_for(script, p);
    ASSERT_FALSE(name.empty());

    std::string dir = fresh_dir();
    std::string outside = fresh_dir();
    ASSERT_EQ(::symlink((outside + "/target").c_str(), (dir + "/" + name).c_str()), 0);

    script.set({p}, true);
    ald::path out(ald::string_view("/untouched"));
    errno = 0;
    EXPECT_FALSE(ald::path(ald::string_view(dir)).temp_file(out));
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(text_of(out), "/untouched");
    EXPECT_EQ(entries(dir), std::set<std::string>{name});
    EXPECT_TRUE(entries(outside).empty());
}

TEST(TempFile, FailsWithErrnoWhenTheDirectoryIsUnusable) {
    std::string dir = fresh_dir();
    ald::path out(ald::string_view("/untouched"));

    errno = 0;
    EXPECT_FALSE(ald::path(ald::string_view(dir + "/missing")).temp_file(out));
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(text_of(out), "/untouched");

    spit(dir + "/file", "x");
    errno = 0;
    EXPECT_FALSE(ald::path(ald::string_view(dir + "/file")).temp_file(out));
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_EQ(text_of(out), "/untouched");
    EXPECT_EQ(entries(dir), std::set<std::string>{"file"});

    // An empty path names no directory, not the current one.
    ASSERT_EQ(::chdir(dir.c_str()), 0);
    errno = 0;
    EXPECT_FALSE(ald::path().temp_file(out));
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(entries(dir), std::set<std::string>{"file"});
}

TEST(Unlink, RemovesTheNamedFileOnly) {
    std::string dir = fresh_dir();
    spit(dir + "/target", "kept");
    ASSERT_EQ(::symlink((dir + "/target").c_str(), (dir + "/link").c_str()), 0);

    ald::path link(ald::string_view(dir + "/link"));
    EXPECT_EQ(link.unlink(), 0);
    EXPECT_FALSE(exists(dir + "/link"));
    EXPECT_EQ(slurp(dir + "/target"), "kept");

    errno = 0;
    EXPECT_EQ(link.unlink(), -1);
    EXPECT_EQ(errno, ENOENT);

    errno = 0;
    EXPECT_EQ(ald::path().unlink(), -1);
    EXPECT_EQ(errno, ENOENT);

    ald::path made;
    ASSERT_TRUE(ald::path(ald::string_view(dir)).temp_file(made));
    EXPECT_EQ(made.unlink(), 0);
    EXPECT_EQ(entries(dir), std::set<std::string>{"target"});
}

// ---- well-known directories ------------------------------------------------------

TEST(CommonPath, DirectoriesLiveUnderAldRoot) {
    const char* root = std::getenv("ALD_ROOT");
    ASSERT_TRUE(root && *root) << "CTest gives every test a private ALD_ROOT";
    std::string r = root;
    while (!r.empty() && r.back() == '/') r.pop_back();

    auto print = [](int which) {
        std::ostringstream out;
        ald::detail::print_common_path(out, static_cast<ald::common_path>(which));
        return out.str();
    };
    EXPECT_EQ(print(2), r + "/etc/aldrana");
    EXPECT_EQ(print(0), r + "/var/run/aldrana");
    EXPECT_EQ(print(1), r + "/var/lib/aldrana");
    EXPECT_EQ(print(3), "");
    EXPECT_EQ(print(-1), "");
    EXPECT_EQ(ald::root_prefix(), r);
}

TEST(CommonPath, RootIsNormalisedAndReadOnce) {
    // Each line pair: before and after the helper changes ALD_ROOT.
    EXPECT_EQ(run_helper("/srv/root"), "/srv/root/etc/aldrana\n/srv/root/etc/aldrana\n");
    EXPECT_EQ(run_helper("/srv/root//"), "/srv/root/etc/aldrana\n/srv/root/etc/aldrana\n");
    EXPECT_EQ(run_helper("/"), "/etc/aldrana\n/etc/aldrana\n");
    EXPECT_EQ(run_helper(""), "/etc/aldrana\n/etc/aldrana\n");
    EXPECT_EQ(run_helper(nullptr), "/etc/aldrana\n/etc/aldrana\n");
}

// ---- in-memory stream -------------------------------------------------------------

TEST(Memstream, StartsWith513ZerosAndAnEmptyView) {
    ald::memstream s;
    const std::vector<char>& v = s.buf().vector();
    ASSERT_EQ(v.size(), 513u);
    for (char c : v) ASSERT_EQ(c, '\0');
    EXPECT_EQ(s.size(), 0u);
    EXPECT_EQ(s.terminated_view().length, 0u);
}

TEST(Memstream, PutAreaCovers512AndKeepsRoomForTheNul) {
    ald::memstream s;
    const char* first_storage = s.buf().vector().data();
    std::string text(512, 'x');
    s << text;
    EXPECT_EQ(s.size(), 512u);
    EXPECT_EQ(s.buf().vector().size(), 513u) << "512 characters fit without growing";
    EXPECT_EQ(s.buf().vector().data(), first_storage);
    ald::string_view v = s.terminated_view();
    ASSERT_EQ(v.length, 512u);
    EXPECT_EQ(v.data, s.buf().vector().data());
    EXPECT_EQ(v.data[512], '\0');
    EXPECT_EQ(std::string(v.data, v.length), text);

    // The 513th character needs more room than the put area.
    s << 'y';
    EXPECT_GT(s.buf().vector().size(), 514u);
    v = s.terminated_view();
    ASSERT_EQ(v.length, 513u);
    EXPECT_EQ(std::string(v.data, v.length), text + "y");
    EXPECT_EQ(v.data[513], '\0');
}

TEST(Memstream, GrowthKeepsEverythingWritten) {
    ald::memstream s;
    std::string expected;
    for (int i = 0; i < 700; ++i) {
        s << i << ',';
        expected += std::to_string(i) + ',';
        if (i % 100 == 0) {
            std::string chunk(300 + static_cast<std::size_t>(i), static_cast<char>('a' + i % 26));
            s.write(chunk.data(), static_cast<std::streamsize>(chunk.size()));
            expected += chunk;
        }
        if (i == 10) {
            // Taking the view does not end the text: writing goes on after it.
            ald::string_view early = s.terminated_view();
            ASSERT_EQ(std::string(early.data, early.length), expected);
            ASSERT_EQ(early.data[early.length], '\0');
        }
    }
    ASSERT_TRUE(s.good());
    ald::string_view v = s.terminated_view();
    ASSERT_EQ(v.length, expected.size());
    EXPECT_EQ(std::string(v.data, v.length), expected);
    EXPECT_EQ(v.data[v.length], '\0');
    EXPECT_EQ(v.data, s.buf().vector().data());

    // One big write past the first buffer in a single call.
    ald::memstream big;
    std::string huge(10000, 'q');
    huge.front() = 'A';
    huge.back() = 'Z';
    big.write(huge.data(), static_cast<std::streamsize>(huge.size()));
    ald::string_view hv = big.terminated_view();
    EXPECT_EQ(std::string(hv.data, hv.length), huge);
}

// ---- error storage ---------------------------------------------------------------

TEST(ErrorStorage, KeepsCodeAndMessage) {
    alderrno.set(2, "failed to locate 'var_path' option in config json");
    EXPECT_EQ(alderrno.code(), 2);
    EXPECT_STREQ(alderrno.message(), "failed to locate 'var_path' option in config json");

    alderrno.set(5);
    EXPECT_EQ(alderrno.code(), 5);
    EXPECT_STREQ(alderrno.message(), "");

    alderrno.set(7, ald::string_view("abcdef", 3));
    EXPECT_STREQ(alderrno.message(), "abc");

    alderrno.set(8, ald::string_view());
    EXPECT_EQ(alderrno.code(), 8);
    EXPECT_STREQ(alderrno.message(), "");

    alderrno.clear();
    EXPECT_EQ(alderrno.code(), 0);
    EXPECT_STREQ(alderrno.message(), "");
    EXPECT_EQ(&alderrno, &alderrno) << "the same storage on every use in one thread";
}

TEST(ErrorStorage, LongMessagesKeepTheirStart) {
    const std::uint32_t max = ald::_ALDErrorStorage::max_message;
    std::string exact(max, 'e');
    alderrno.set(1, exact);
    EXPECT_EQ(std::string(alderrno.message()), exact);

    std::string longer;
    for (std::uint32_t i = 0; i < max + 100; ++i) longer += static_cast<char>('a' + i % 26);
    alderrno.set(2, longer);
    EXPECT_EQ(alderrno.code(), 2);
    EXPECT_EQ(std::string(alderrno.message()), longer.substr(0, max));

    // A shorter message afterwards is not followed by the old tail.
    alderrno.set(3, "short");
    EXPECT_STREQ(alderrno.message(), "short");
}

TEST(ErrorStorage, EachThreadHasItsOwn) {
    alderrno.set(11, "main thread");
    int seen_code = -1;
    std::string seen_message = "unset";
    std::thread other([&] {
        seen_code = alderrno.code();
        seen_message = alderrno.message();
        alderrno.set(22, "other thread");
    });
    other.join();
    EXPECT_EQ(seen_code, 0);
    EXPECT_EQ(seen_message, "");
    EXPECT_EQ(alderrno.code(), 11);
    EXPECT_STREQ(alderrno.message(), "main thread");
}
