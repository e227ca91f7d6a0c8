// SPDX-License-Identifier: MIT
// The calls of ald::path that touch the file system.
#include <ald/path.h>

#include "dir_entries.h"

#include <cerrno>
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

// Whether temp_file could have made `name` with `prefix`.
bool is_temp_name(const char* name, basic_string_view<char> prefix) {
    const std::size_t length = std::strlen(name);
    if (length != prefix.length + kSuffixLength || std::memcmp(name, prefix.data, prefix.length) != 0) return false;
    return std::strspn(name + prefix.length, kAlphabet) == kSuffixLength;
}

}  // namespace

bool path::temp_file(path& out) const { return temp_file(out, kTempFilePrefix); }

bool path::temp_file(path& out, basic_string_view<char> prefix) const {
    // No directory is no place: never the current one by accident.
    if (size() == 0) {
        errno = ENOENT;
        return false;
    }
    std::string name(prefix.data, prefix.length);
    name.resize(prefix.length + kSuffixLength);
    for (int attempt = 0; attempt < kTempAttempts; ++attempt) {
        random_suffix(&name[prefix.length]);
        path candidate(*this);
        candidate.add_piece(true, name);
        int fd = ::open(candidate.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
        if (fd >= 0) {
            ::close(fd);
            out = std::move(candidate);
            return true;
        }
        if (errno != EEXIST) return false;
    }
    errno = EEXIST;
    return false;
}

int path::remove_temp_files(basic_string_view<char> prefix) const {
    const char* text = c_str();
    if (!text) {
        errno = ENOENT;
        return -1;
    }
    const int fd = ::open(text, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return -1;
    // Read without a DIR, whose buffer would leave a dirty heap page in the
    // daemon, which does this once at its start.
    int removed = 0;
    const bool read = detail::for_each_entry(fd, [&](const char* name) {
        struct stat st;
        if (is_temp_name(name, prefix) && ::fstatat(fd, name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(st.st_mode) &&
            ::unlinkat(fd, name, 0) == 0)
            ++removed;
    });
    const int err = errno;
    ::close(fd);
    errno = err;
    return read ? removed : -1;
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
    const int result = ::fsync(fd) == 0 || errno == EINVAL ? 0 : -1;
    const int err = errno;
    ::close(fd);
    errno = err;
    return result;
}

}  // namespace ald
