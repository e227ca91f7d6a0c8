// SPDX-License-Identifier: MIT
// The line sink and the threshold.
#include <ald/log.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

namespace ald {
namespace log {

int current_level = 2;

namespace {

bool g_syslog = false;

const char* level_name(level lvl) noexcept {
    switch (lvl) {
    case level::error: return "error: ";
    case level::warning: return "warning: ";
    case level::info: return "info: ";
    }
    return "log: ";
}

// Under systemd, standard error may be a stream into the journal, named by
// JOURNAL_STREAM ("device:inode"); the journal reads a kernel-style "<N>"
// in front of a line as its priority.
const char* journal_priority(level lvl) noexcept {
    const char* stream = std::getenv("JOURNAL_STREAM");
    unsigned long long dev = 0, ino = 0;
    struct stat st;
    if (!stream || std::sscanf(stream, "%llu:%llu", &dev, &ino) != 2 || ::fstat(STDERR_FILENO, &st) != 0 ||
        dev != st.st_dev || ino != st.st_ino)
        return "";
    return lvl == level::error ? "<3>" : lvl == level::warning ? "<4>" : "<6>";
}

}  // namespace

void to_syslog(const char* ident) {
    ::openlog(ident, LOG_PID | LOG_NDELAY, LOG_DAEMON);
    g_syslog = true;
}

void print(std::uint32_t, level lvl, basic_string_view<char> line) {
    int saved = errno;
    if (g_syslog) {
        const int priority = lvl == level::error ? LOG_ERR : lvl == level::warning ? LOG_WARNING : LOG_INFO;
        ::syslog(priority, "%.*s", static_cast<int>(line.data ? line.length : 0), line.data ? line.data : "");
        errno = saved;
        return;
    }
    const char* priority = journal_priority(lvl);
    const char* name = level_name(lvl);
    std::size_t priority_len = std::strlen(priority);
    std::size_t name_len = std::strlen(name);
    std::size_t text_len = line.data ? line.length : 0;
    std::size_t total = priority_len + name_len + text_len + 1;

    // One write per line keeps lines whole when several processes share the
    // same standard error; short lines are built without allocating.
    char small[1024];
    std::string large;
    char* out = small;
    if (total > sizeof small) {
        large.resize(total);
        out = &large[0];
    }
    std::memcpy(out, priority, priority_len);
    std::memcpy(out + priority_len, name, name_len);
    if (text_len) std::memcpy(out + priority_len + name_len, line.data, text_len);
    out[total - 1] = '\n';

    while (::write(STDERR_FILENO, out, total) < 0 && errno == EINTR) {
    }
    errno = saved;
}

}  // namespace log
}  // namespace ald
