// SPDX-License-Identifier: MIT
// The one instantiation of the printf engine behind every log statement.
#include <ald/log.h>
#include <ald/memstream.h>

#include <fmt/args.h>
#include <fmt/printf.h>

namespace ald {
namespace log {
namespace detail {
namespace {

void push(fmt::dynamic_format_arg_store<fmt::printf_context>& store, const arg& a) {
    if (a.is_int) {
        store.push_back(a.i);
    } else {
        store.push_back(a.s ? a.s : "(null)");
    }
}

fmt::string_view as_fmt(basic_string_view<char> v) {
    return v.data ? fmt::string_view(v.data, v.length) : fmt::string_view();
}

}  // namespace

void vprint(std::uint32_t channel, level lvl, basic_string_view<char> file, int line,
            basic_string_view<char> func, basic_string_view<char> format, const arg* args,
            std::size_t count) {
    basic_memstream<char> stream;
    std::string prefix = fmt::sprintf("[%s:%d][%s()]: ", as_fmt(file), line, as_fmt(func));
    stream.write(prefix.data(), static_cast<std::streamsize>(prefix.size()));

    // The message format counts up to its NUL, whatever its view's length.
    const char* text = format.data ? format.data : "";
    fmt::dynamic_format_arg_store<fmt::printf_context> store;
    store.reserve(count, 0);
    for (std::size_t i = 0; i < count; ++i) push(store, args[i]);
    try {
        std::string message = fmt::vsprintf(fmt::string_view(text), store);
        stream.write(message.data(), static_cast<std::streamsize>(message.size()));
    } catch (const fmt::format_error& e) {
        // A bad format must not cost the line: keep the text as written.
        stream << text << " [log format error: " << e.what() << ']';
    }
    print(channel, lvl, stream.terminated_view());
}

}  // namespace detail
}  // namespace log
}  // namespace ald
