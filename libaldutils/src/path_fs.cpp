// SPDX-License-Identifier: MIT
// The calls of ald::path that touch the file system.
#include <ald/path.h>

#include "dir_entries.h"
#include "files.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/random.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

namespace ald {
namespace {

constexpr int kTempAttempts = 64;
constexpr char kAlphabet[] = "abcdefghijklmnopqrstuvwxyz0123456789";
constexpr std::size_t kSuffixLength = 8;

// Eight name characters from the kernel's random pool, or from the clock and
// the pid when the pool is not available yet (early boot).
void random_suffix(char out[kSuffixLength]) {
    unsigned char bytes[kSuffixLength];
    if (getrandom(bytes, sizeof bytes, GRND_NONBLOCK) != static_cast<ssize_t>(sizeof bytes)) {
        timespec ts{};
        clock_gettime(CLOCK_MONOTONIC, &ts);
        unsigned long long x = static_cast<unsigned long long>(ts.tv_nsec) ^
                               (static_cast<unsigned long long>(getpid()) << 32) ^
                               static_cast<unsigned long long>(ts.tv_sec);
        for (auto& b : bytes) {
            x = x * 6364136223846793005ULL + 1442695040888963407ULL;
            b = static_cast<unsigned char>(x >> 56);
        }
    }
    for (std::size_t i = 0; i < kSuffixLength; ++i) out[i] = kAlphabet[bytes[i] % (sizeof kAlphabet - 1)];
}

// Whether open_temp could have made `name` with `prefix`.
bool is_temp_name(const char* name, basic_string_view<char> prefix) {
    const std::size_t length = std::strlen(name);
    if (length != prefix.length + kSuffixLength || std::memcmp(name, prefix.data, prefix.length) != 0) return false;
    return std::strspn(name + prefix.length, kAlphabet) == kSuffixLength;
}

}  // namespace

namespace detail {

int flush(int fd) { return ::fsync(fd) == 0 || errno == EINVAL ? 0 : -1; }

int open_temp(int dir_fd, const std::string& at, basic_string_view<char> prefix, mode_t mode, std::string& name) {
    std::string file = at;
    file.append(prefix.data, prefix.length);
    file.resize(file.size() + kSuffixLength);
    for (int attempt = 0; attempt < kTempAttempts; ++attempt) {
        random_suffix(&file[file.size() - kSuffixLength]);
        // O_NOFOLLOW: a link that took the name is no new file either.
        const int fd = ::openat(dir_fd, file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
        if (fd >= 0) {
            name = file.substr(at.size());
            return fd;
        }
        if (errno != EEXIST) return -1;
    }
    errno = EEXIST;
    return -1;
}

int remove_temp_files(int dir_fd, basic_string_view<char> prefix) {
    // Read without a DIR, whose buffer would leave a dirty heap page in the
    // daemon, which does this once at its start.
    int removed = 0;
    const bool read = for_each_entry(dir_fd, [&](const char* name) {
        struct stat st;
        if (is_temp_name(name, prefix) && ::fstatat(dir_fd, name, &st, AT_SYMLINK_NOFOLLOW) == 0 &&
            S_ISREG(st.st_mode) && ::unlinkat(dir_fd, name, 0) == 0)
            ++removed;
    });
    return read ? removed : -1;
}

mode_t process_umask() {
    static const mode_t mask = [] {
        // Linux 4.7 shows it; before, or without /proc, it is read by
        // setting it, which another thread creating a file at that moment
        // would notice: only at the first write, and only there.
        char text[512];  // Umask is the second line
        const int fd = ::open("/proc/self/status", O_RDONLY | O_CLOEXEC);
        const ssize_t n = fd >= 0 ? ::read(fd, text, sizeof text - 1) : -1;
        if (fd >= 0) ::close(fd);
        const char* line = n > 0 ? (text[n] = '\0', std::strstr(text, "\nUmask:\t")) : nullptr;
        if (line) return static_cast<mode_t>(std::strtoul(line + 8, nullptr, 8) & 0777);
        const mode_t old = ::umask(022);
        ::umask(old);
        return old;
    }();
    return mask;
}

}  // namespace detail

bool path::temp_file(path& out) const { return temp_file(out, kTempFilePrefix); }

bool path::temp_file(path& out, basic_string_view<char> prefix) const {
    // No directory is no place: never the current one by accident.
    if (size() == 0) {
        errno = ENOENT;
        return false;
    }
    std::string name;
    const std::string at = std::string(c_str()) + "/";
    const int fd = detail::open_temp(AT_FDCWD, at, prefix, 0644, name);
    if (fd < 0) return false;
    ::close(fd);
    path made(*this);
    made.add_piece(true, name);
    out = std::move(made);
    return true;
}

int path::remove_temp_files(basic_string_view<char> prefix) const {
    const char* text = c_str();
    if (!text) {
        errno = ENOENT;
        return -1;
    }
    const int fd = ::open(text, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return -1;
    const int removed = detail::remove_temp_files(fd, prefix);
    const int err = errno;
    ::close(fd);
    errno = err;
    return removed;
}

int path::unlink() const {
    const char* text = c_str();
    if (!text) {
        errno = ENOENT;
        return -1;
    }
    return ::unlink(text);
}

int path::sync() const {
    const char* text = c_str();
    if (!text) {
        errno = ENOENT;
        return -1;
    }
    const int fd = ::open(text, O_RDONLY | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) return -1;
    const int result = detail::flush(fd);
    const int err = errno;
    ::close(fd);
    errno = err;
    return result;
}

}  // namespace ald
