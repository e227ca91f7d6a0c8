// The process entry of the fuzz targets that link the daemon's objects, and
// with them the daemon's main: -Wl,--wrap=main routes the start here, and
// libFuzzer's driver runs the target's LLVMFuzzerTestOneInput (and its
// LLVMFuzzerInitialize). The daemon's main stays linked but is never called.
#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
extern "C" int LLVMFuzzerRunDriver(int* argc, char*** argv,
                                   int (*callback)(const std::uint8_t* data, std::size_t size));

extern "C" int __wrap_main(int argc, char** argv) {
    return LLVMFuzzerRunDriver(&argc, &argv, LLVMFuzzerTestOneInput);
}
