// SPDX-License-Identifier: MIT
// The settings store: one file per key, replaced by rename.
#include <ald/replace.h>
#include <ald/settings.h>

#include "files.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <dirent.h>
#include <fcntl.h>
#include <sstream>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace ald {

const path kPrivacySettingKey("/privacy/aur");
const path kAppIdKey("/system/app_id");

namespace setMgmt {
namespace {

// The file or directory that holds a valid key.
std::string key_file(const std::string& key) {
    if (key == "/") return store_directory();
    return store_directory() + key;
}

// The directory part of a file's path ("/" for "/x").
std::string directory_of(const std::string& file) {
    const std::size_t slash = file.rfind('/');
    return slash == 0 ? "/" : file.substr(0, slash);
}

// mkdir -p: every missing directory of `dir`, mode 0755 before the umask,
// each flushed into its parent so that a key set below it survives a power
// cut. An existing non-directory on the way fails with ENOTDIR.
int make_directories(const std::string& dir) {
    for (std::size_t slash = dir.find('/', 1);; slash = dir.find('/', slash + 1)) {
        const std::string part = dir.substr(0, slash);
        if (!part.empty()) {
            if (::mkdir(part.c_str(), 0755) == 0) {
                if (path(directory_of(part)).sync() != 0) return -1;
            } else if (errno != EEXIST) {
                return -1;
            }
        }
        if (slash == std::string::npos) break;
    }
    struct stat st;
    if (::stat(dir.c_str(), &st) != 0) return -1;
    if (!S_ISDIR(st.st_mode)) {
        errno = ENOTDIR;
        return -1;
    }
    return 0;
}

bool is_blank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f'; }

// A decimal int with an optional sign and blanks around it, or false.
bool parse_int(const std::string& text, int& out) {
    const char* p = text.data();
    const char* end = p + text.size();
    while (p < end && is_blank(*p)) ++p;
    bool negative = false;
    if (p < end && (*p == '+' || *p == '-')) negative = *p++ == '-';
    if (p == end || *p < '0' || *p > '9') return false;
    long long n = 0;
    for (; p < end && *p >= '0' && *p <= '9'; ++p) {
        n = n * 10 + (*p - '0');
        if (n > static_cast<long long>(INT_MAX) + 1) return false;
    }
    while (p < end && is_blank(*p)) ++p;
    if (p != end) return false;
    if (negative) n = -n;
    if (n < INT_MIN || n > INT_MAX) return false;
    out = static_cast<int>(n);
    return true;
}

// Opens a directory for readdir; the stream owns the descriptor.
DIR* open_directory(int dirfd, const char* name, int flags) {
    int fd = ::openat(dirfd, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC | flags);
    if (fd < 0) return nullptr;
    DIR* dir = ::fdopendir(fd);
    if (!dir) {
        int err = errno;
        ::close(fd);
        errno = err;
    }
    return dir;
}

// Removes `name` in `dirfd`, and everything under it when it is a
// directory. Symbolic links are removed, never followed.
int remove_tree(int dirfd, const char* name) {
    if (::unlinkat(dirfd, name, 0) == 0) return 0;
    if (errno != EISDIR) return -1;
    DIR* dir = open_directory(dirfd, name, O_NOFOLLOW);
    if (!dir) return -1;
    errno = 0;
    while (const dirent* entry = ::readdir(dir)) {
        const std::string child = entry->d_name;
        if (child == "." || child == "..") continue;
        if (remove_tree(::dirfd(dir), child.c_str()) != 0) break;
        errno = 0;
    }
    int err = errno;
    ::closedir(dir);
    if (err != 0) {
        errno = err;
        return -1;
    }
    return ::unlinkat(dirfd, name, AT_REMOVEDIR);
}

// The set's own temporary files: a name no other writer uses, so that
// clearing up after an interrupted set never touches another's file.
constexpr char kTempPrefix[] = ".set-";

int lock(int fd) {
    int result;
    while ((result = ::flock(fd, LOCK_EX)) != 0 && errno == EINTR) {
    }
    return result;
}

}  // namespace

int init(bool create) {
    const std::string dir = store_directory();
    struct stat st;
    if (::stat(dir.c_str(), &st) == 0) return S_ISDIR(st.st_mode) ? 0 : -1;
    if (!create) return -1;
    return make_directories(dir) == 0 ? 0 : -1;
}

// Nothing is held between calls: every call opens and closes what it uses.
void uninit() {}

std::string store_directory() {
    static const std::string dir = [] {
        std::ostringstream out;
        detail::print_common_path(out, common_path::config);
        return out.str() + "/settings";
    }();
    return dir;
}

bool valid_key(const std::string& key) {
    if (key.empty() || key[0] != '/' || key.size() > PATH_MAX) return false;
    if (key.find('\0') != std::string::npos) return false;
    if (key == "/") return true;
    std::size_t start = 1;
    for (;;) {
        std::size_t slash = key.find('/', start);
        std::size_t len = (slash == std::string::npos ? key.size() : slash) - start;
        const char* c = key.data() + start;
        if (len == 0 || (len == 1 && c[0] == '.') || (len == 2 && c[0] == '.' && c[1] == '.')) return false;
        if (slash == std::string::npos) return true;
        start = slash + 1;
    }
}

int getKey(const std::string& key, std::string& value) {
    if (!valid_key(key)) {
        errno = EINVAL;
        return -1;
    }
    // Only a regular file holds a value, whatever links lead to it:
    // O_NONBLOCK keeps a FIFO from hanging the reader, and the size cap (also
    // while reading: procfs files say 0) a device or a huge file from
    // exhausting memory. O_NOCTTY: a daemon is a session leader without a
    // terminal, and a terminal it opened would become its own, whose hangup
    // then sends it SIGHUP, a stop.
    int fd = ::open(key_file(key).c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) return -1;
    struct stat st;
    int err = ::fstat(fd, &st) != 0    ? errno
              : S_ISDIR(st.st_mode)    ? EISDIR
              : !S_ISREG(st.st_mode)   ? EINVAL
              : st.st_size > static_cast<off_t>(kMaxValueSize) ? EFBIG
                                       : 0;
    // Read straight into the value, not through a buffer on the stack: a
    // daemon keeps every stack page it once touched.
    std::string text;
    std::size_t chunk = err == 0 && st.st_size > 0 ? static_cast<std::size_t>(st.st_size) + 1 : 256;
    for (ssize_t n = 1; err == 0 && n != 0; chunk = 4096) {
        const std::size_t had = text.size();
        text.resize(had + chunk);
        n = ::read(fd, &text[had], chunk);
        text.resize(had + static_cast<std::size_t>(n > 0 ? n : 0));
        if (n < 0 && errno != EINTR) err = errno;
        if (text.size() > kMaxValueSize) err = EFBIG;
    }
    if (err != 0) {
        ::close(fd);
        errno = err;
        return -1;
    }
    ::close(fd);
    if (!text.empty() && text.back() == '\n') text.pop_back();
    // The last read, which found the end, left room the value does not need.
    text.shrink_to_fit();
    value = std::move(text);
    return 0;
}

int enumSubkeys(const std::string& key, std::vector<std::string>& names) {
    if (!valid_key(key)) {
        errno = EINVAL;
        return -1;
    }
    DIR* dir = open_directory(AT_FDCWD, key_file(key).c_str(), 0);
    if (!dir) return -1;
    std::vector<std::string> found;
    errno = 0;
    while (const dirent* entry = ::readdir(dir)) {
        if (entry->d_name[0] != '.') found.emplace_back(entry->d_name);
    }
    int err = errno;
    ::closedir(dir);
    if (err != 0) {
        errno = err;
        return -1;
    }
    // std::string compares as unsigned bytes: the byte order the store promises.
    std::sort(found.begin(), found.end());
    names = std::move(found);
    return 0;
}

int getKeyValue(const std::string& key, int default_value) {
    std::string text;
    int value = 0;
    if (getKey(key, text) != 0 || !parse_int(text, value)) return default_value;
    return value;
}

std::string getKeyValue(const std::string& key, const std::string& default_value) {
    std::string text;
    if (getKey(key, text) != 0) return default_value;
    return text;
}

int setKey(const std::string& key, const std::string& value) {
    if (!valid_key(key)) {
        errno = EINVAL;
        return -1;
    }
    if (key == "/") {
        errno = EISDIR;
        return -1;
    }
    // Such a file would be taken for an interrupted set's and removed: it is
    // refused before anything is made.
    if (key.compare(key.rfind('/') + 1, sizeof kTempPrefix - 1, kTempPrefix) == 0) {
        errno = EINVAL;
        return -1;
    }
    if (make_directories(directory_of(key_file(key))) != 0) return -1;
    // Renaming over a link would replace it: the value goes where the way
    // to the key leads, links on it followed, as a reader's open goes.
    Resolution way;
    resolve(key, way);
    if (way.error != 0) {
        errno = way.error;
        return -1;
    }
    // Links that lead to a directory ("/", ".."): no value goes there.
    struct stat st;
    if (::stat(way.file.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
        errno = EISDIR;
        return -1;
    }
    const std::string dir = directory_of(way.file);
    const std::string name = way.file.substr(way.file.rfind('/') + 1);
    if (name.compare(0, sizeof kTempPrefix - 1, kTempPrefix) == 0) {
        errno = EINVAL;
        return -1;
    }
    const int dir_fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir_fd < 0) return -1;
    // Sets in one directory take turns, so that a temporary file found here
    // under the lock is one that a set killed or cut off by a power loss
    // left behind, never one under way: each set removes those first, and
    // no more than one can pile up in a directory. Without locks (a file
    // system that has none) nothing is removed. All of it happens in the
    // directory locked, whatever its path leads to meanwhile.
    if (lock(dir_fd) == 0) detail::remove_temp_files(dir_fd, kTempPrefix);
    const std::string text = value + '\n';
    replace_options options;
    options.prefix = kTempPrefix;
    options.keep_mode = true;
    const replace_result done = replace_file_at(dir_fd, path(dir), name, text_writer(text), options);
    ::close(dir_fd);
    errno = done.error;
    return done ? 0 : -1;
}

int deleteKey(const std::string& key) {
    if (!valid_key(key) || key == "/") {
        errno = EINVAL;
        return -1;
    }
    const std::string file = key_file(key);
    if (remove_tree(AT_FDCWD, file.c_str()) != 0) return -1;
    return path(directory_of(file)).sync();
}

}  // namespace setMgmt
}  // namespace ald
