// The two calls of ald::path that touch the file system.
#include <ald/path.h>

#include <cerrno>
#include <fcntl.h>
#include <sys/random.h>
#include <time.h>
#include <unistd.h>

namespace ald {
namespace {

constexpr int kTempAttempts = 64;

// Eight name characters from the kernel's random pool, or from the clock and
// the pid when the pool is not available yet (early boot).
void random_suffix(char out[8]) {
    static const char alphabet[] = "abcdefghijklmnopqrstuvwxyz0123456789";
    unsigned char bytes[8];
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
    for (int i = 0; i < 8; ++i) out[i] = alphabet[bytes[i] % (sizeof alphabet - 1)];
}

}  // namespace

bool path::temp_file(path& out) const {
    // No directory is no place: never the current one by accident.
    if (size() == 0) {
        errno = ENOENT;
        return false;
    }
    for (int attempt = 0; attempt < kTempAttempts; ++attempt) {
        char name[] = ".tmp-XXXXXXXX";
        random_suffix(name + 5);
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

int path::unlink() const {
    const char* text = c_str();
    if (!text) {
        errno = ENOENT;
        return -1;
    }
    return ::unlink(text);
}

}  // namespace ald
