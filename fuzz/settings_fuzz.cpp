// SPDX-License-Identifier: MIT
// Arbitrary bytes as a settings key (up to the first newline) and a value
// (the rest), on the real store under ALD_ROOT. Properties: an invalid key
// is refused and leaves the file system as it was; a value stored under a
// valid key reads back byte for byte. (The integer rule is a table in
// libaldutils/tests/settings_test.cpp.)
#include <ald/settings.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

namespace fs = std::filesystem;
namespace sm = ald::setMgmt;

namespace {

void check(bool holds, const char* property, const std::string& input) {
    if (holds) return;
    std::fprintf(stderr, "property failed: %s (input %zu bytes)\n", property, input.size());
    std::abort();
}

}  // namespace

// Each input empties ALD_ROOT first: it must name a scratch directory.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
    const char* root = std::getenv("ALD_ROOT");
    if (root && *root) return 0;
    std::fprintf(stderr, "settings_fuzz: set ALD_ROOT to a scratch directory, which each input empties\n");
    std::exit(2);
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    const size_t newline = input.find('\n');
    const std::string key = input.substr(0, newline);
    const std::string value = newline == std::string::npos ? "" : input.substr(newline + 1);
    const fs::path root = std::getenv("ALD_ROOT");
    fs::remove_all(root);
    std::string read;
    if (!sm::valid_key(key)) {
        check(sm::setKey(key, value) == -1 && errno == EINVAL, "an invalid key is refused", input);
        check(!fs::exists(root), "an invalid key reached the file system", input);
    } else if (sm::setKey(key, value) == 0) {
        check(sm::getKey(key, read) == 0 && read == value, "a stored value reads back unchanged", input);
    }
    return 0;
}
