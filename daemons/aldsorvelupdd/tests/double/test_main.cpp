// The entry point of the daemon's unit tests. The daemon's own main is
// linked in unchanged; -Wl,--wrap=main routes the process start here and
// leaves the daemon's main reachable as __real_main.
#include "double.h"
#include "internal.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <new>

namespace dbl {
namespace detail {
void count_allocation();
}
}  // namespace dbl

extern "C" int __wrap_main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}

// Counts heap allocations made by daemon code in a child that runs inside
// the test process (it must allocate nothing between fork and exec).
void* operator new(std::size_t size) {
    dbl::detail::count_allocation();
    if (void* p = std::malloc(size ? size : 1)) return p;
    throw std::bad_alloc();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
