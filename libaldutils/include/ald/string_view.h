#pragma once
// A borrowed run of characters, as the platform's logging, path and error
// calls take it.
#include <cstdint>
#include <string>

namespace ald {

// Exactly two fields, the length (unsigned 32-bit, no terminator counted) and
// then the first character, on every ABI. The text need not end in a NUL.
// An empty view is {0, nullptr}; the view never owns what it points at.
template <class CharT>
struct basic_string_view {
    std::uint32_t length = 0;
    const CharT* data = nullptr;

    constexpr basic_string_view() noexcept = default;
    constexpr basic_string_view(const CharT* text, std::uint32_t len) noexcept
        : length(len), data(text) {}
    // A NUL-terminated text; a null pointer gives the empty view.
    constexpr basic_string_view(const CharT* text) noexcept
        : length(text ? count(text) : 0), data(text) {}
    basic_string_view(const std::basic_string<CharT>& text) noexcept
        : length(static_cast<std::uint32_t>(text.size())), data(text.data()) {}

    constexpr bool empty() const noexcept { return length == 0; }
    std::basic_string<CharT> str() const {
        return data ? std::basic_string<CharT>(data, length) : std::basic_string<CharT>();
    }

private:
    static constexpr std::uint32_t count(const CharT* text) noexcept {
        std::uint32_t n = 0;
        while (text[n] != CharT()) ++n;
        return n;
    }
};

using string_view = basic_string_view<char>;

// The last component of a path, computed at compile time when the path is a
// literal (the log statement hands __FILE__ to it).
constexpr basic_string_view<char> base_name(const char* path) noexcept {
    const char* base = path;
    for (const char* p = path; *p; ++p) {
        if (*p == '/') base = p + 1;
    }
    return basic_string_view<char>(base);
}

}  // namespace ald
