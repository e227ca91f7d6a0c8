// SPDX-License-Identifier: MIT
#pragma once
// Per-thread error storage for failures that are recorded, not logged, where
// they happen.
#include <ald/string_view.h>

#include <cstdint>

namespace ald {

// A code and a short message. Setting never allocates and never fails, so it
// may be used in a forked child before exec; a message longer than
// max_message characters keeps its first max_message characters.
class _ALDErrorStorage {
public:
    static constexpr std::uint32_t max_message = 255;

    constexpr _ALDErrorStorage() noexcept = default;

    void set(int code, basic_string_view<char> message) noexcept;
    void set(int code) noexcept;  // the message becomes empty
    void clear() noexcept { set(0); }

    int code() const noexcept { return code_; }
    const char* message() const noexcept { return message_; }  // NUL-terminated

private:
    int code_ = 0;
    char message_[max_message + 1] = {};
};

namespace detail {
_ALDErrorStorage& error_storage() noexcept;  // the calling thread's
}  // namespace detail

}  // namespace ald

// The calling thread's error storage, used like errno.
#define alderrno (::ald::detail::error_storage())
