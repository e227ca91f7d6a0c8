// The log path of the library: the line sink on standard error and the
// statement form with its threshold and printf formatting.
#include <ald/log.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

using ald::log::level;

namespace {

// Read before any test can change it.
const int g_initial_level = ald::log::current_level;

// Points standard error at a SOCK_SEQPACKET socket, which keeps the boundary
// of every write: each record read back is exactly one write(2).
class StderrCapture {
public:
    StderrCapture() {
        if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, fds_) != 0) return;
        int size = 4 << 20;
        ::setsockopt(fds_[0], SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
        ::setsockopt(fds_[1], SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
        saved_ = ::dup(STDERR_FILENO);
        ::dup2(fds_[1], STDERR_FILENO);
    }
    ~StderrCapture() {
        restore();
        if (fds_[0] >= 0) ::close(fds_[0]);
        if (fds_[1] >= 0) ::close(fds_[1]);
    }
    StderrCapture(const StderrCapture&) = delete;
    StderrCapture& operator=(const StderrCapture&) = delete;

    bool ok() const { return saved_ >= 0; }

    // Every write made since the capture began, in order. Ends the capture.
    std::vector<std::string> writes() {
        restore();
        std::vector<std::string> out;
        std::vector<char> buf(1 << 20);
        for (;;) {
            ssize_t n = ::recv(fds_[0], buf.data(), buf.size(), MSG_DONTWAIT | MSG_TRUNC);
            if (n < 0) break;
            out.emplace_back(buf.data(), static_cast<std::size_t>(n));
        }
        return out;
    }

private:
    void restore() {
        if (saved_ >= 0) {
            ::dup2(saved_, STDERR_FILENO);
            ::close(saved_);
            saved_ = -1;
        }
    }
    int fds_[2] = {-1, -1};
    int saved_ = -1;
};

class LevelGuard {
public:
    explicit LevelGuard(int value) : saved_(ald::log::current_level) { ald::log::current_level = value; }
    ~LevelGuard() { ald::log::current_level = saved_; }

private:
    int saved_;
};

const char* const kPrefix = "info: [f.cpp:7][fn()]: ";

// One statement at level info, threshold 2; returns what reached stderr.
template <class... Args>
std::vector<std::string> statement(ald::string_view format, const Args&... args) {
    LevelGuard guard(2);
    StderrCapture cap;
    ald::log::print(0, level::info, "f.cpp", 7, "fn", format, args...);
    return cap.writes();
}

// The message part of a single produced line: the text between the fixed
// prefix and the newline.
template <class... Args>
std::string message(ald::string_view format, const Args&... args) {
    std::vector<std::string> w = statement(format, args...);
    if (w.size() != 1) return "<" + std::to_string(w.size()) + " writes>";
    const std::string& line = w[0];
    std::size_t plen = std::strlen(kPrefix);
    if (line.compare(0, plen, kPrefix) != 0 || line.empty() || line.back() != '\n') return "<bad line: " + line + ">";
    return line.substr(plen, line.size() - plen - 1);
}

}  // namespace

// ---- the sink ------------------------------------------------------------------

TEST(LogSink, OneWritePerLineWithLevelNameAndNewline) {
    StderrCapture cap;
    ASSERT_TRUE(cap.ok());
    ald::log::print(0, level::error, "first line");
    ald::log::print(0, level::warning, "second");
    ald::log::print(0, level::info, "third");
    auto w = cap.writes();
    ASSERT_EQ(w.size(), 3u);
    EXPECT_EQ(w[0], "error: first line\n");
    EXPECT_EQ(w[1], "warning: second\n");
    EXPECT_EQ(w[2], "info: third\n");
}

TEST(LogSink, TextIsWrittenByLengthAndUnchanged) {
    StderrCapture cap;
    const char bytes[] = "a\0b%s\tZ-not-this";
    ald::log::print(0, level::info, ald::string_view(bytes, 6));
    ald::log::print(0, level::info, ald::string_view());
    ald::log::print(0, level::info, ald::string_view("", 0));
    auto w = cap.writes();
    ASSERT_EQ(w.size(), 3u);
    EXPECT_EQ(w[0], std::string("info: a\0b%s\t\n", 13));
    EXPECT_EQ(w[1], "info: \n");
    EXPECT_EQ(w[2], "info: \n");
}

TEST(LogSink, LongLinesStayInOneWrite) {
    // Around any small stack buffer the sink may use, and far past it.
    for (std::size_t n : {1010u, 1017u, 1018u, 1024u, 5000u, 100000u}) {
        std::string text(n, 'x');
        text.front() = '<';
        text.back() = '>';
        StderrCapture cap;
        ald::log::print(0, level::info, text);
        auto w = cap.writes();
        ASSERT_EQ(w.size(), 1u) << n;
        EXPECT_EQ(w[0], "info: " + text + "\n") << n;
    }
}

TEST(LogSink, LeavesErrnoAloneAndSurvivesAClosedStderr) {
    StderrCapture cap;
    errno = ERANGE;
    ald::log::print(0, level::error, "x");
    EXPECT_EQ(errno, ERANGE);
    EXPECT_EQ(cap.writes().size(), 1u);

    int saved = ::dup(STDERR_FILENO);
    ::close(STDERR_FILENO);
    errno = ENOENT;
    ald::log::print(0, level::error, "nowhere to go");
    EXPECT_EQ(errno, ENOENT);
    ::dup2(saved, STDERR_FILENO);
    ::close(saved);
}

// ---- the statement form ------------------------------------------------------------

TEST(LogStatement, ThresholdStartsAtTwo) { EXPECT_EQ(g_initial_level, 2); }

TEST(LogStatement, ThresholdDecidesWhichLevelsPass) {
    struct Case {
        int threshold;
        bool error, warning, info;
    };
    const Case cases[] = {
        {INT_MIN, false, false, false}, {-1, false, false, false}, {0, true, false, false},
        {1, true, true, false},         {2, true, true, true},     {INT_MAX, true, true, true},
    };
    for (const Case& c : cases) {
        LevelGuard guard(c.threshold);
        StderrCapture cap;
        ald::log::print(0, level::error, "f.cpp", 1, "fn", "e %d", 1);
        ald::log::print(0, level::warning, "f.cpp", 2, "fn", "w");
        ald::log::print(0, level::info, "f.cpp", 3, "fn", "i %s", "x");
        std::vector<std::string> expected;
        if (c.error) expected.push_back("error: [f.cpp:1][fn()]: e 1\n");
        if (c.warning) expected.push_back("warning: [f.cpp:2][fn()]: w\n");
        if (c.info) expected.push_back("info: [f.cpp:3][fn()]: i x\n");
        EXPECT_EQ(cap.writes(), expected) << "threshold " << c.threshold;
    }
}

TEST(LogStatement, PrefixNamesFileLineAndFunction) {
    LevelGuard guard(2);
    StderrCapture cap;
    ald::log::print(0, level::warning, "supervision.cpp", 123, "wait_sorvelupd",
                    "sorvelupd [pid %d] has exited with status %d", 42, 3);
    ald::log::print(0, level::error, "aldsorvelupdd.cpp", -5, "init", "failed to open epoll");
    auto w = cap.writes();
    ASSERT_EQ(w.size(), 2u);
    EXPECT_EQ(w[0], "warning: [supervision.cpp:123][wait_sorvelupd()]: sorvelupd [pid 42] has exited with status 3\n");
    EXPECT_EQ(w[1], "error: [aldsorvelupdd.cpp:-5][init()]: failed to open epoll\n");
}

TEST(LogStatement, LocationViewsAreReadByLength) {
    const char file[] = "state.cppTRAILING";
    const char func[] = "initGARBAGE";
    LevelGuard guard(2);
    StderrCapture cap;
    ald::log::print(0, level::info, ald::string_view(file, 9), 1, ald::string_view(func, 4), "m");
    ald::log::print(0, level::info, ald::string_view(), 2, ald::string_view(), "m");
    auto w = cap.writes();
    ASSERT_EQ(w.size(), 2u);
    EXPECT_EQ(w[0], "info: [state.cpp:1][init()]: m\n");
    EXPECT_EQ(w[1], "info: [:2][()]: m\n");
}

TEST(LogStatement, PercentSignsAreWrittenDoubled) {
    EXPECT_EQ(message("100%% done"), "100% done");
    EXPECT_EQ(message("%d%% of %d%%", 5, 10), "5% of 10%");
    EXPECT_EQ(message("%%d %%s"), "%d %s");
}

TEST(LogStatement, IntegersAndCStrings) {
    EXPECT_EQ(message("[pid %d] #%d", 42, -15), "[pid 42] #-15");
    EXPECT_EQ(message("%d %d", INT_MIN, INT_MAX), "-2147483648 2147483647");
    EXPECT_EQ(message("failed to rename %s to %s (errno = %d)", "/a/.tmp", "/a/updater.conf", 13),
              "failed to rename /a/.tmp to /a/updater.conf (errno = 13)");
    EXPECT_EQ(message("%u %ld %lld", 4000000000u, -7L, 1LL << 40), "4000000000 -7 1099511627776");
    EXPECT_EQ(message("<%s>", std::string("a string")), "<a string>");
    EXPECT_EQ(message("<%s>", ""), "<>");
}

TEST(LogStatement, StringViewArgumentsAreWrittenByLength) {
    const char text[] = "abcdefNOT-THIS";
    ald::string_view abc(text, 3);
    EXPECT_EQ(message("<%s>", abc), "<abc>");
    EXPECT_EQ(message("<%.2s>", ald::string_view(text, 4)), "<ab>");
    EXPECT_EQ(message("<%.10s>", ald::string_view(text, 4)), "<abcd>");
    EXPECT_EQ(message("<%6s>", ald::string_view(text, 2)), "<    ab>");
    EXPECT_EQ(message("<%-4s>", ald::string_view(text, 2)), "<ab  >");
    EXPECT_EQ(message("<%s>", ald::string_view()), "<>");
    // A NUL inside the view is just one of its characters.
    EXPECT_EQ(message("<%s>", ald::string_view("a\0b", 3)), std::string("<a\0b>", 5));
}

TEST(LogStatement, FormatIsReadUpToItsNulWhateverItsLength) {
    EXPECT_EQ(message(ald::string_view("abc\0def", 7)), "abc");
    EXPECT_EQ(message(ald::string_view("hello world", 5)), "hello world");
    EXPECT_EQ(message(ald::string_view("pid %d", 0), 9), "pid 9");
    EXPECT_EQ(message(ald::string_view()), "");
}

TEST(LogStatement, LongLinesAreKeptWhole) {
    std::string arg(600, 'p');
    arg.back() = 'E';
    EXPECT_EQ(message("rename %s done", arg), "rename " + arg + " done");

    std::string fmt_text;
    for (int i = 0; i < 300; ++i) fmt_text += "seg" + std::to_string(i) + ' ';
    fmt_text += "%d";
    std::string expected = fmt_text.substr(0, fmt_text.size() - 2) + "77";
    EXPECT_EQ(message(fmt_text.c_str(), 77), expected);

    // Exactly around the first 512 characters of the line buffer.
    std::size_t prefix = std::strlen("[f.cpp:7][fn()]: ");
    for (std::size_t total : {511u, 512u, 513u, 1025u}) {
        std::string body(total - prefix, 'b');
        EXPECT_EQ(message("%s", body), body) << total;
    }
}

TEST(LogStatement, ABadFormatStillGivesOneLine) {
    std::vector<std::string> w;
    EXPECT_NO_THROW(w = statement("value %d"));
    ASSERT_EQ(w.size(), 1u);
    EXPECT_EQ(w[0].compare(0, std::strlen(kPrefix), kPrefix), 0) << w[0];
    EXPECT_NE(w[0].find("value "), std::string::npos) << w[0];
    EXPECT_EQ(w[0].back(), '\n');
}

TEST(LogStatement, FilteredLinesAreNeitherWrittenNorFormatted) {
    // Nothing reaches the sink, not even for a format that would produce a
    // format-error line.
    {
        LevelGuard guard(0);
        StderrCapture cap;
        ald::log::print(0, level::info, "f.cpp", 1, "fn", "value %d");
        ald::log::print(0, level::warning, "f.cpp", 1, "fn", "%s %s", "a", "b");
        EXPECT_TRUE(cap.writes().empty());
    }

    // The format and a string argument lie on a page that may not be read:
    // a statement that formatted them would die of SIGSEGV.
    long page = ::sysconf(_SC_PAGESIZE);
    void* map = ::mmap(nullptr, static_cast<std::size_t>(page), PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(map, MAP_FAILED);
    const char* forbidden = static_cast<const char*>(map);

    auto run = [&](int threshold) {
        ::fflush(nullptr);
        pid_t pid = ::fork();
        if (pid == 0) {
            int null = ::open("/dev/null", O_WRONLY);
            ::dup2(null, STDERR_FILENO);
            // The fault is the expected outcome: the kernel's default action
            // ends the child, not a sanitizer's handler with a report.
            ::signal(SIGSEGV, SIG_DFL);
            ald::log::current_level = threshold;
            ald::log::print(0, level::info, "f.cpp", 1, "fn", ald::string_view(forbidden, 8), forbidden);
            ::_exit(0);
        }
        int status = 0;
        ::waitpid(pid, &status, 0);
        return status;
    };
    int filtered = run(1);
    EXPECT_TRUE(WIFEXITED(filtered) && WEXITSTATUS(filtered) == 0) << "status " << filtered;
    // The same statement let through does read them (and dies of SIGSEGV,
    // or under a sanitizer of its report).
    int produced = run(2);
    EXPECT_FALSE(WIFEXITED(produced) && WEXITSTATUS(produced) == 0) << "status " << produced;
    ::munmap(map, static_cast<std::size_t>(page));
}
