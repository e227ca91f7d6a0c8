// SPDX-License-Identifier: MIT
#pragma once
// Log lines: a threshold, a line sink, and the printf-style statement form.
#include <ald/string_view.h>

#include <cstddef>
#include <cstdint>

namespace ald {
namespace log {

enum class level : int { error = 0, warning = 1, info = 2 };

// The threshold: a line of level L is produced only when current_level >= L
// (signed). Starts at 2; the daemon framework sets it from --log-level.
extern int current_level;

// The line sink: writes one line to standard error with a single write(2),
// the level's name in front ("error: ", "warning: ", "info: "), then `line`
// unchanged, then "\n". When standard error is the journal's stream
// (JOURNAL_STREAM), the line starts with its priority: "<3>", "<4>", "<6>". `channel` is reserved and should be 0. Never fails in
// a way the caller sees.
void print(std::uint32_t channel, level lvl, basic_string_view<char> line);
// From now on the sink hands each line to syslog(3) instead, as `ident`
// with the daemon facility, at LOG_ERR, LOG_WARNING or LOG_INFO, without
// the level's name: for a service manager that logs all of standard error
// at one priority (procd).
void to_syslog(const char* ident);

namespace detail {

// One type-erased argument of a log statement, so that the formatting engine
// is instantiated once in the library rather than at every call site.
// The daemon's messages take ints (%d) and C strings (%s), nothing else.
struct arg {
    bool is_int;
    union {
        int i;
        const char* s;
    };

    arg(int v) noexcept : is_int(true), i(v) {}
    arg(const char* v) noexcept : is_int(false), s(v) {}
};

// Builds "[file:line][func()]: " and the message into one memstream and
// hands it to the sink. The format is read as a C string up to its NUL.
void vprint(std::uint32_t channel, level lvl, basic_string_view<char> file, int line,
            basic_string_view<char> func, basic_string_view<char> format, const arg* args,
            std::size_t count);

}  // namespace detail

// The statement form: nothing is built or formatted when the threshold
// filters the line out; otherwise exactly one sink call. printf rules: %d
// with ints, %s with C strings; a literal percent sign is written "%%" even
// when there are no arguments.
template <class... Args>
inline void print(std::uint32_t channel, level lvl, basic_string_view<char> file, int line,
                  basic_string_view<char> func, basic_string_view<char> format, const Args&... args) {
    if (current_level < static_cast<int>(lvl)) return;
    const detail::arg erased[sizeof...(Args) + 1] = {detail::arg(args)..., detail::arg(0)};
    detail::vprint(channel, lvl, file, line, func, format, erased, sizeof...(Args));
}

}  // namespace log
}  // namespace ald
