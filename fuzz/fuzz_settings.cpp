// Settings keys and values on the real store under $ALD_ROOT.
//
// Input: a key, then "\n", then a value (no "\n": the whole input is the
// key and the value is empty).
//
// Properties:
// - valid_key agrees with the documented rule, written out independently
//   below, for the key and for keys grown to PATH_MAX and one past it;
// - an invalid key never reaches the file system (every path-taking call of
//   the C library that the store makes is watched here) and every call
//   fails with EINVAL or gives the default;
// - the value, stored as a file's bytes, reads back with one trailing
//   newline removed, and getKeyValue(key, int) agrees with the documented
//   integer rule, written out below;
// - setKey of a valid key then getKey gives the value back, the store then
//   holds the key's file and its parent directories and nothing else, and
//   deleteKey removes it; a failed setKey leaves no file behind.
#include "fuzz_check.h"

#include <ald/settings.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <fstream>
#include <set>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace sm = ald::setMgmt;

namespace {

bool g_forbidden = false;  // an invalid key is being used: no path may be touched
std::string g_store;
const std::string kIntKey = "/fuzz-int";

void touched(const char* call, const char* path) {
    if (!g_forbidden) return;
    std::fprintf(stderr, "property failed: an invalid key reached the file system: %s(\"%s\")\n", call,
                 path ? path : "(null)");
    std::abort();
}

template <class F>
F next(const char* name) {
    void* f = ::dlsym(RTLD_NEXT, name);
    if (!f) {
        std::fprintf(stderr, "no %s after this program\n", name);
        std::abort();
    }
    return reinterpret_cast<F>(f);
}

mode_t mode_argument(int flags, va_list ap) {
    const bool has_mode = (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
    return has_mode ? static_cast<mode_t>(va_arg(ap, int)) : 0;
}

}  // namespace

// The path-taking calls of the store and of ald::path, seen before the C
// library's: the platform library is a shared object whose calls bind to
// these definitions first.
extern "C" {

int open(const char* path, int flags, ...) {
    va_list ap;
    va_start(ap, flags);
    const mode_t mode = mode_argument(flags, ap);
    va_end(ap);
    touched("open", path);
    static const auto real = next<int (*)(const char*, int, ...)>("open");
    return real(path, flags, mode);
}

int open64(const char* path, int flags, ...) {
    va_list ap;
    va_start(ap, flags);
    const mode_t mode = mode_argument(flags, ap);
    va_end(ap);
    touched("open64", path);
    static const auto real = next<int (*)(const char*, int, ...)>("open64");
    return real(path, flags, mode);
}

int openat(int dirfd, const char* path, int flags, ...) {
    va_list ap;
    va_start(ap, flags);
    const mode_t mode = mode_argument(flags, ap);
    va_end(ap);
    touched("openat", path);
    static const auto real = next<int (*)(int, const char*, int, ...)>("openat");
    return real(dirfd, path, flags, mode);
}

int mkdir(const char* path, mode_t mode) {
    touched("mkdir", path);
    static const auto real = next<int (*)(const char*, mode_t)>("mkdir");
    return real(path, mode);
}

int stat(const char* path, struct stat* st) {
    touched("stat", path);
    static const auto real = next<int (*)(const char*, struct stat*)>("stat");
    return real(path, st);
}

int unlinkat(int dirfd, const char* path, int flags) {
    touched("unlinkat", path);
    static const auto real = next<int (*)(int, const char*, int)>("unlinkat");
    return real(dirfd, path, flags);
}

int unlink(const char* path) {
    touched("unlink", path);
    static const auto real = next<int (*)(const char*)>("unlink");
    return real(path);
}

int rename(const char* from, const char* to) {
    touched("rename", from);
    static const auto real = next<int (*)(const char*, const char*)>("rename");
    return real(from, to);
}

}  // extern "C"

namespace {

// The documented rule: starts with "/", no empty, "." or ".." component, at
// most PATH_MAX characters, no NUL; "/" alone is the store's root.
bool reference_valid(const std::string& key) {
    if (key.empty() || key.size() > PATH_MAX || key.front() != '/') return false;
    if (std::count(key.begin(), key.end(), '\0') != 0) return false;
    if (key == "/") return true;
    std::string component;
    for (std::size_t i = 1; i <= key.size(); ++i) {
        if (i == key.size() || key[i] == '/') {
            if (component.empty() || component == "." || component == "..") return false;
            component.clear();
        } else {
            component += key[i];
        }
    }
    return true;
}

bool blank(char c) { return std::strchr(" \t\n\r\v\f", c) != nullptr && c != '\0'; }

// The documented integer rule: optional blanks, an optional sign, decimal
// digits, optional blanks, within int; the range is checked on the digits'
// text, so no arithmetic can overflow here.
bool reference_int(const std::string& text, int& out) {
    std::size_t b = 0, e = text.size();
    while (b < e && blank(text[b])) ++b;
    while (e > b && blank(text[e - 1])) --e;
    bool negative = false;
    if (b < e && (text[b] == '+' || text[b] == '-')) negative = text[b++] == '-';
    if (b == e) return false;
    for (std::size_t i = b; i < e; ++i)
        if (text[i] < '0' || text[i] > '9') return false;
    while (e - b > 1 && text[b] == '0') ++b;
    std::string digits = text.substr(b, e - b);
    const std::string limit = negative ? "2147483648" : "2147483647";
    if (digits.size() > limit.size() || (digits.size() == limit.size() && digits > limit)) return false;
    long long value = std::stoll(digits);
    out = static_cast<int>(negative ? -value : value);
    return true;
}

std::string strip_one_newline(std::string text) {
    if (!text.empty() && text.back() == '\n') text.pop_back();
    return text;
}

// Every entry under the store, relative ("a", "a/b"), without the integer key.
void walk(const std::string& dir, const std::string& prefix, std::set<std::string>& out) {
    DIR* d = ::opendir(dir.c_str());
    if (!d) return;
    while (const dirent* e = ::readdir(d)) {
        const std::string name = e->d_name;
        if (name == "." || name == "..") continue;
        const std::string rel = prefix.empty() ? name : prefix + "/" + name;
        if ("/" + rel == kIntKey) continue;
        out.insert(rel);
        if (e->d_type == DT_DIR) walk(dir + "/" + name, rel, out);
    }
    ::closedir(d);
}

std::set<std::string> store_entries() {
    std::set<std::string> out;
    walk(g_store, "", out);
    return out;
}

// "a", "a/b", ... for the key "/a/b/c" (without the key itself).
std::set<std::string> parents(const std::string& key) {
    std::set<std::string> out;
    for (std::size_t slash = key.find('/', 1); slash != std::string::npos; slash = key.find('/', slash + 1))
        out.insert(key.substr(1, slash - 1));
    return out;
}

void empty_store() {
    for (const std::string& entry : store_entries()) {
        if (entry.find('/') != std::string::npos) continue;
        const std::string key = "/" + entry;
        FUZZ_CHECK(sm::deleteKey(key) == 0, "cannot clear the key %s (errno %d)", key.c_str(), errno);
    }
}

void check_invalid_key(const std::string& key) {
    std::string value = "untouched";
    std::vector<std::string> names{"untouched"};
    g_forbidden = true;
    errno = 0;
    const int get = sm::getKey(key, value);
    const int get_errno = errno;
    const int list = sm::enumSubkeys(key, names);
    const int list_errno = errno;
    const int set = sm::setKey(key, "value");
    const int set_errno = errno;
    const int del = sm::deleteKey(key);
    const int del_errno = errno;
    const int number = sm::getKeyValue(key, 4711);
    const std::string text = sm::getKeyValue(key, std::string("default"));
    g_forbidden = false;
    FUZZ_CHECK(get == -1 && get_errno == EINVAL && value == "untouched", "getKey of an invalid key: %d, errno %d",
               get, get_errno);
    FUZZ_CHECK(list == -1 && list_errno == EINVAL && names == std::vector<std::string>{"untouched"},
               "enumSubkeys of an invalid key: %d, errno %d", list, list_errno);
    FUZZ_CHECK(set == -1 && set_errno == EINVAL, "setKey of an invalid key: %d, errno %d", set, set_errno);
    FUZZ_CHECK(del == -1 && del_errno == EINVAL, "deleteKey of an invalid key: %d, errno %d", del, del_errno);
    FUZZ_CHECK(number == 4711 && text == "default", "an invalid key gave a value");
}

void check_integer(const std::string& stored) {
    {
        std::ofstream out(g_store + kIntKey, std::ios::binary | std::ios::trunc);
        out.write(stored.data(), static_cast<std::streamsize>(stored.size()));
        FUZZ_CHECK(out.good(), "cannot write the integer key");
    }
    std::string value;
    FUZZ_CHECK(sm::getKey(kIntKey, value) == 0, "getKey of a stored key failed (errno %d)", errno);
    FUZZ_CHECK(value == strip_one_newline(stored), "getKey gave %zu bytes for %zu stored", value.size(), stored.size());
    int expected = 0;
    const bool parsed = reference_int(value, expected);
    // Two defaults: a value that equals one of them is still told apart.
    for (int fallback : {12345, -777}) {
        const int got = sm::getKeyValue(kIntKey, fallback);
        FUZZ_CHECK(got == (parsed ? expected : fallback), "getKeyValue(int) gave %d, expected %d", got,
                   parsed ? expected : fallback);
    }
}

void check_round_trip(const std::string& key, const std::string& value) {
    empty_store();
    const int set = sm::setKey(key, value);
    const int set_errno = errno;
    const std::set<std::string> entries = store_entries();
    std::set<std::string> allowed = parents(key);
    if (set == 0) {
        allowed.insert(key.substr(1));
        FUZZ_CHECK(entries == allowed, "after setKey the store holds %zu entries, not the key and its %zu parents",
                   entries.size(), allowed.size() - 1);
        std::string read;
        FUZZ_CHECK(sm::getKey(key, read) == 0, "getKey after setKey failed (errno %d)", errno);
        FUZZ_CHECK(read == value, "getKey gave %zu bytes after setKey of %zu", read.size(), value.size());
        FUZZ_CHECK(sm::getKeyValue(key, std::string("\x01")) == value, "getKeyValue(string) after setKey");
        FUZZ_CHECK(sm::deleteKey(key) == 0, "deleteKey after setKey failed (errno %d)", errno);
        FUZZ_CHECK(sm::getKey(key, read) == -1 && (errno == ENOENT || errno == ENOTDIR), "the key outlived deleteKey");
    } else {
        FUZZ_CHECK(set == -1 && set_errno != 0, "setKey gave %d", set);
        // Only parent directories that setKey made may stay; no file.
        for (const std::string& entry : entries)
            FUZZ_CHECK(allowed.count(entry), "a failed setKey (errno %d) left \"%s\"", set_errno, entry.c_str());
    }
    empty_store();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::private_root();
    g_store = sm::store_directory();
    FUZZ_CHECK(sm::init(true) == 0, "cannot make the store %s", g_store.c_str());
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    const std::size_t newline = input.find('\n');
    const std::string key = input.substr(0, newline);
    const std::string value = newline == std::string::npos ? std::string() : input.substr(newline + 1);

    const bool valid = reference_valid(key);
    FUZZ_CHECK(sm::valid_key(key) == valid, "valid_key(\"%s\") is %d", key.c_str(), !valid);
    // The length limit: the key grown with one more component to PATH_MAX
    // characters, and to one more.
    if (key.size() + 2 <= PATH_MAX) {
        for (std::size_t length : {std::size_t(PATH_MAX), std::size_t(PATH_MAX) + 1}) {
            std::string grown = key;
            if (grown.empty() || grown.back() != '/') grown += '/';
            grown.resize(length, 'k');
            FUZZ_CHECK(sm::valid_key(grown) == reference_valid(grown), "valid_key of %zu characters is %d",
                       grown.size(), !reference_valid(grown));
        }
    }

    if (!valid) check_invalid_key(key);
    check_integer(value);
    // The integer key and what lies under it keep their own file.
    const bool integer_key = key.compare(0, kIntKey.size(), kIntKey) == 0 &&
                             (key.size() == kIntKey.size() || key[kIntKey.size()] == '/');
    if (valid && key != "/" && !integer_key) check_round_trip(key, value);
    return 0;
}
