#pragma once
// Shared between the double's own sources; tests use double.h.
#include <string>

namespace dbl {
namespace detail {
void reset_platform();
void record_log(int level, std::string text);
void enter_child();
void leave_child();

// While one is alive on a thread, heap allocations there are the double's
// own and are not counted against a child.
struct quiet {
    quiet() noexcept;
    ~quiet();
    quiet(const quiet&) = delete;
    quiet& operator=(const quiet&) = delete;
};
}  // namespace detail
}  // namespace dbl

