// SPDX-License-Identifier: MIT
// Per-thread error storage.
#include <ald/error.h>

namespace ald {

void _ALDErrorStorage::set(int code, basic_string_view<char> message) noexcept {
    code_ = code;
    std::uint32_t n = message.data ? message.length : 0;
    if (n > max_message) n = max_message;
    for (std::uint32_t i = 0; i < n; ++i) message_[i] = message.data[i];
    message_[n] = '\0';
}

void _ALDErrorStorage::set(int code) noexcept {
    code_ = code;
    message_[0] = '\0';
}

namespace detail {

_ALDErrorStorage& error_storage() noexcept {
    // Constant-initialised: no guard and no allocation on first use, so a
    // forked child may record an error before it execs.
    static thread_local _ALDErrorStorage storage;
    return storage;
}

}  // namespace detail
}  // namespace ald
