// SPDX-License-Identifier: MIT
// The well-known directories under $ALD_ROOT.
#include <ald/path.h>

#include <cstdlib>
#include <string>

namespace ald {

const char* root_prefix() noexcept {
    // Read once: the daemon's configuration path is built from it during
    // static initialisation and must not change afterwards.
    static const std::string root = [] {
        const char* env = std::getenv("ALD_ROOT");
        std::string text = env ? env : "";
        while (!text.empty() && text.back() == '/') text.pop_back();
        return text;
    }();
    return root.c_str();
}

namespace detail {

void print_common_path(std::ostream& out, common_path which) {
    const char* dir = nullptr;
    switch (which) {
    case common_path::runtime: dir = "/var/run/aldrana"; break;
    case common_path::data: dir = "/var/lib/aldrana"; break;
    case common_path::config: dir = "/etc/aldrana"; break;
    case common_path::system_runtime: dir = "/var/run"; break;
    }
    if (!dir) return;
    out << root_prefix() << dir;
}

}  // namespace detail
}  // namespace ald
