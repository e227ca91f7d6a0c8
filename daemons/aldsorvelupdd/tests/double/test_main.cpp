// The entry point of the daemon's unit tests. The daemon's own main is
// linked in unchanged; -Wl,--wrap=main routes the process start here and
// leaves the daemon's main reachable as __real_main.
#include <gtest/gtest.h>

extern "C" int __wrap_main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
