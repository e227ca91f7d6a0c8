// SPDX-License-Identifier: MIT
#pragma once
// A borrowed run of characters, as the platform's logging, path and error
// calls take it.
#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>

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

private:
    static constexpr std::uint32_t count(const CharT* text) noexcept {
        std::uint32_t n = 0;
        while (text[n] != CharT()) ++n;
        return n;
    }
};

using string_view = basic_string_view<char>;

// The view crosses the library boundary by value, so its layout and the way
// it is passed are ABI: a plain {length, data} record, trivially copyable so
// that the calling convention hands it over in registers like the C struct
// (r0/r1 on 32-bit ARM), with the pointer at the next pointer-aligned offset.
namespace detail {
struct string_view_abi {
    std::uint32_t length;
    const char* data;
};
}  // namespace detail
static_assert(std::is_standard_layout<string_view>::value && std::is_trivially_copyable<string_view>::value,
              "a string view is a plain record");
static_assert(sizeof(string_view) == sizeof(detail::string_view_abi) &&
                  alignof(string_view) == alignof(detail::string_view_abi),
              "a string view is exactly {uint32_t length; const char* data;}");
static_assert(offsetof(string_view, length) == 0 && offsetof(string_view, data) == sizeof(void*),
              "length first, then data at the next pointer-aligned offset");

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
