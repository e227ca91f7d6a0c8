#include "fixture.h"
#include "log.h"

using LogSmoke = DaemonTest;

TEST_F(LogSmoke, LineReachesTheSink) {
    ALD_LOG(info, "fork sorvelupd [pid %d]", 42);
    auto lines = dbl::log_lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].text.substr(lines[0].text.find(']')), "][TestBody()]: fork sorvelupd [pid 42]");
}
