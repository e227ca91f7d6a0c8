// The line sink and the threshold.
#include <ald/log.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <unistd.h>

namespace ald {
namespace log {

int current_level = 2;

namespace {

const char* level_name(level lvl) noexcept {
    switch (lvl) {
    case level::error: return "error: ";
    case level::warning: return "warning: ";
    case level::info: return "info: ";
    }
    return "log: ";
}

}  // namespace

void print(std::uint32_t, level lvl, basic_string_view<char> line) {
    const char* name = level_name(lvl);
    std::size_t name_len = std::strlen(name);
    std::size_t text_len = line.data ? line.length : 0;
    std::size_t total = name_len + text_len + 1;

    // One write per line keeps lines whole when several processes share the
    // same standard error; short lines are built without allocating.
    char small[1024];
    std::string large;
    char* out = small;
    if (total > sizeof small) {
        large.resize(total);
        out = &large[0];
    }
    std::memcpy(out, name, name_len);
    if (text_len) std::memcpy(out + name_len, line.data, text_len);
    out[total - 1] = '\n';

    int saved = errno;
    while (::write(STDERR_FILENO, out, total) < 0 && errno == EINTR) {
    }
    errno = saved;
}

}  // namespace log
}  // namespace ald
