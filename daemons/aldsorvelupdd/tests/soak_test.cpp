// SPDX-License-Identifier: MIT
// Restarts of the whole daemon, main included, on the real platform
// library: every updater fails at once (its output directory is missing),
// and the pause after each reap, free here, is where the daemon is looked
// at: after the last restart its descriptors and heap are what they were
// after the 100th. (Reaping and its lines: the signal-record and loop
// tests.) ALD_SOAK_CYCLES sets the number of restarts (default 1000).
#include "harness.h"
#include "state.h"

#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <malloc.h>

extern "C" int __real_main(int argc, char** argv);
// Present in sanitized builds, whose allocator is not malloc's.
extern "C" size_t __sanitizer_get_current_allocated_bytes() __attribute__((weak));

namespace {

using Soak = DaemonTest;

// Exact only without malloc's per-thread cache, whose chunks count as in
// use: the test runs with it turned off.
size_t heap() {
    return __sanitizer_get_current_allocated_bytes ? __sanitizer_get_current_allocated_bytes() : mallinfo2().uordblks;
}

TEST_F(Soak, RestartsLeaveNoGrowth) {
    const char* wanted = std::getenv("ALD_SOAK_CYCLES");
    const int cycles = std::max(101, wanted ? std::atoi(wanted) : 1000);
    put("updater.conf", "{\"var_path\": \"" + etc + "/missing\"}");
    std::filesystem::create_directories(etc + "/../../var/run");  // each restart rewrites the status file
    std::set<int> warm_fds, last_fds;
    size_t warm_heap = 0, last_heap = 0;
    on_pause = [&] {
        if (pauses == 100) {
            warm_fds = open_fds();  // the set is part of both heap figures
            warm_heap = heap();
        } else if (pauses == cycles) {
            last_heap = heap();
            last_fds = open_fds();
            stop_requested = true;
        }
    };
    char name[] = "aldsorvelupdd";
    char* argv[] = {name, nullptr};
    EXPECT_EQ(__real_main(1, argv), 0);
    EXPECT_EQ(last_fds, warm_fds);
    EXPECT_EQ(last_heap, warm_heap);
    std::cout << "soak: " << cycles << " restarts; " << warm_fds.size() << " descriptors and " << warm_heap
              << " heap bytes after the 100th, " << last_fds.size() << " and " << last_heap << " after the last\n";
}

}  // namespace
