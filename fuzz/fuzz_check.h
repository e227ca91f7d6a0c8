#pragma once
// What the fuzz targets share: a failed property ends the run with a
// message (libFuzzer saves the input that did it), and the private ALD_ROOT
// that every target that touches files insists on.
#include <ald/path.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#define FUZZ_CHECK(cond, ...)                                                      \
    do {                                                                           \
        if (!(cond)) {                                                             \
            std::fprintf(stderr, "%s:%d: property failed: %s: ", __FILE__, __LINE__, #cond); \
            std::fprintf(stderr, __VA_ARGS__);                                     \
            std::fputc('\n', stderr);                                              \
            std::abort();                                                          \
        }                                                                          \
    } while (0)

namespace fuzz {

// The root that the platform puts every path under. Without one the targets
// would write the machine's own /etc/aldrana: they refuse to start.
inline std::string private_root() {
    const std::string root = ald::root_prefix();
    if (root.empty()) {
        std::fprintf(stderr, "set ALD_ROOT to a scratch directory (a tmpfs is fastest); "
                             "this target writes files under it\n");
        std::exit(2);
    }
    return root;
}

}  // namespace fuzz
