// The daemon's log statement: its prefix, its threshold and its one sink
// call, seen through the double's sink.
#include "fixture.h"
#include "log.h"
#include "supervision.h"

#include <climits>
#include <string>
#include <sys/wait.h>
#include <vector>

namespace {

constexpr bool same_text(ald::string_view v, const char* text) {
    std::uint32_t i = 0;
    for (; i < v.length; ++i)
        if (text[i] == '\0' || text[i] != v.data[i]) return false;
    return text[i] == '\0';
}

// The base name is worked out while compiling: these would not build
// otherwise.
static_assert(same_text(ald::base_name("daemons/aldsorvelupdd/src/aldsorvelupdd.cpp"), "aldsorvelupdd.cpp"), "");
static_assert(same_text(ald::base_name("supervision.cpp"), "supervision.cpp"), "");
static_assert(same_text(ald::base_name(__FILE__), "log_test.cpp"), "");

// The line of the last statement below: each statement shares its line with
// the assignment, so __LINE__ there is the statement's line.
int g_line = 0;

void plain_function() {
    g_line = __LINE__; ALD_LOG(info, "from %s", "a plain function");
}

namespace outer {
void nested_function() {
    g_line = __LINE__; ALD_LOG(warning, "nested");
}
}  // namespace outer

struct Holder {
    void member_function() {
        g_line = __LINE__; ALD_LOG(error, "member");
    }
};

void one_of_each() {
    ALD_LOG(error, "an error");
    ALD_LOG(warning, "a warning");
    ALD_LOG(info, "an info");
}

std::vector<std::string> texts() {
    std::vector<std::string> out;
    for (const auto& l : dbl::log_lines()) out.push_back(l.text);
    return out;
}

std::string prefix(const char* func, int line) {
    return "[log_test.cpp:" + std::to_string(line) + "][" + func + "()]: ";
}

}  // namespace

using DaemonLog = DaemonTest;

TEST_F(DaemonLog, PrefixNamesBaseFileLineAndPlainFunction) {
    plain_function();
    const int plain_line = g_line;
    outer::nested_function();
    const int nested_line = g_line;
    Holder().member_function();
    const int member_line = g_line;

    auto lines = dbl::log_lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0].text, prefix("plain_function", plain_line) + "from a plain function");
    EXPECT_EQ(lines[0].level, 2);
    EXPECT_EQ(lines[1].text, prefix("nested_function", nested_line) + "nested");
    EXPECT_EQ(lines[1].level, 1);
    EXPECT_EQ(lines[2].text, prefix("member_function", member_line) + "member");
    EXPECT_EQ(lines[2].level, 0);
    EXPECT_NE(plain_line, nested_line);
}

TEST_F(DaemonLog, NoNewlineAndOneSinkCallPerLine) {
    one_of_each();
    auto lines = texts();
    ASSERT_EQ(lines.size(), 3u);
    for (const std::string& t : lines) EXPECT_EQ(t.find('\n'), std::string::npos) << t;
    EXPECT_EQ(dbl::journal("log ").size(), 3u);
    EXPECT_EQ(dbl::journal("log "), (std::vector<std::string>{"log error one_of_each: an error",
                                                              "log warning one_of_each: a warning",
                                                              "log info one_of_each: an info"}));
}

TEST_F(DaemonLog, ThresholdPicksTheLevels) {
    struct Case {
        int threshold;
        std::vector<int> levels;
    };
    const Case cases[] = {
        {INT_MIN, {}}, {-1, {}}, {0, {0}}, {1, {0, 1}}, {2, {0, 1, 2}}, {INT_MAX, {0, 1, 2}},
    };
    for (const Case& c : cases) {
        dbl::reset();
        ald::log::current_level = c.threshold;
        one_of_each();
        std::vector<int> got;
        for (const auto& l : dbl::log_lines()) got.push_back(l.level);
        EXPECT_EQ(got, c.levels) << "threshold " << c.threshold;
    }
}

TEST_F(DaemonLog, ArgumentsAndLongLines) {
    const std::string from(300, 'f');
    const std::string to(300, 't');
    ALD_LOG(error, "failed to rename %s to %s (errno = %d)", from.c_str(), to.c_str(), 13);
    ALD_LOG(info, "fork sorvelupd [pid %d]", -1);
    auto lines = texts();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].substr(lines[0].find("]: ") + 3), "failed to rename " + from + " to " + to + " (errno = 13)");
    EXPECT_GT(lines[0].size(), 600u);
    EXPECT_EQ(lines[1].substr(lines[1].find("]: ") + 3), "fork sorvelupd [pid -1]");
}

// ---- real daemon messages ------------------------------------------------------

TEST_F(DaemonLog, ReapLineCarriesItsFunction) {
    child_pid = 42;
    dbl::push("waitpid", dbl::reaped(42, 3 << 8));
    EXPECT_TRUE(wait_sorvelupd());
    auto lines = dbl::log_lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].level, 2);
    // "[supervision.cpp:N][wait_sorvelupd()]: ..." for some line number N.
    const std::string& text = lines[0].text;
    const std::string head = "[supervision.cpp:";
    const std::string tail = "][wait_sorvelupd()]: sorvelupd [pid 42] has exited with status 3";
    ASSERT_GT(text.size(), head.size() + tail.size()) << text;
    EXPECT_EQ(text.substr(0, head.size()), head) << text;
    EXPECT_EQ(text.substr(text.size() - tail.size()), tail) << text;
    const std::string number = text.substr(head.size(), text.size() - head.size() - tail.size());
    EXPECT_EQ(number.find_first_not_of("0123456789"), std::string::npos) << text;
}

TEST_F(DaemonLog, WaitLinesFollowTheThreshold) {
    struct Case {
        int threshold;
        dbl::outcome wait;
        std::vector<std::string> journal;
    };
    const Case cases[] = {
        {2, dbl::reaped(42, SIGKILL), {"log info wait_sorvelupd: sorvelupd [pid 42] has exited"}},
        {1, dbl::reaped(42, SIGKILL), {}},
        {1, dbl::ok(0), {"log warning wait_sorvelupd: sorvelupd [pid 42] is still running"}},
        {0, dbl::ok(0), {}},
        {0, dbl::fail(ECHILD), {"log error wait_sorvelupd: failed to wait for sorvelupd [pid 42]"}},
        {-1, dbl::fail(ECHILD), {}},
    };
    for (const Case& c : cases) {
        dbl::reset();
        ald::log::current_level = c.threshold;
        child_pid = 42;
        dbl::push("waitpid", c.wait);
        wait_sorvelupd();
        EXPECT_EQ(dbl::journal("log "), c.journal) << "threshold " << c.threshold;
    }
}

TEST_F(DaemonLog, AtWarningAStopShowsStillRunningButNoSentSignals) {
    ald::log::current_level = 1;
    child_pid = 42;
    dbl::always("kill", dbl::ok(0));
    dbl::push("waitpid", dbl::ok(0));
    dbl::push("waitpid", dbl::reaped(42, SIGTERM));
    kill_and_wait_sorvelupd();
    EXPECT_EQ(child_pid, 0);
    EXPECT_EQ(dbl::journal("kill "), (std::vector<std::string>{"kill 42 15", "kill 42 15"}));
    EXPECT_EQ(dbl::journal("log "),
              (std::vector<std::string>{"log warning wait_sorvelupd: sorvelupd [pid 42] is still running"}));
}
