// SPDX-License-Identifier: MIT
// Path text: joining pieces, keeping the NUL after the text.
#include <ald/path.h>

namespace ald {

path::path(basic_string_view<char> text) { add_piece(false, text); }

path& path::add_piece(bool component, basic_string_view<char> piece) {
    const char* p = piece.data;
    std::uint32_t n = p ? piece.length : 0;
    std::size_t len = size();
    if (component && len > 0) {
        while (n > 0 && *p == '/') {
            ++p;
            --n;
        }
        if (buf_[len - 1] != '/') {
            buf_.insert(buf_.begin() + static_cast<std::ptrdiff_t>(len), '/');
            ++len;
        }
    }
    if (buf_.empty()) {
        if (n == 0) return *this;
        buf_.push_back('\0');
    }
    buf_.insert(buf_.begin() + static_cast<std::ptrdiff_t>(len), p, p + n);
    return *this;
}

}  // namespace ald
