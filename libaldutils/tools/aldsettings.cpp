// aldsettings: reads and changes the settings store from the shell.
#include <ald/settings.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr int kOk = 0;
constexpr int kFailed = 1;  // missing key, wrong kind of key, store not readable or writable
constexpr int kUsage = 2;   // bad usage, invalid key

const char kUsageLine[] = "usage: aldsettings get KEY | set KEY VALUE | del KEY | list KEY";

const char kHelp[] =
    "\n"
    "  get KEY        print the key's value and a newline\n"
    "  set KEY VALUE  store VALUE, creating missing parent keys; a reader sees\n"
    "                 the old value or the new one, never a part\n"
    "  del KEY        remove the key, and every key under it\n"
    "  list KEY       print the names of the key's subkeys, one a line, in byte order\n"
    "\n"
    "A KEY starts with \"/\" and has no empty, \".\" or \"..\" component; \"/\" is the\n"
    "root of the store. A directory key has subkeys and no value; a value key has\n"
    "a value and no subkeys.\n"
    "\n"
    "Exit status:\n"
    "  0  success\n"
    "  1  the key is missing, is of the wrong kind (get or set of a directory key,\n"
    "     list of a value key), or the store could not be read or changed\n"
    "  2  bad usage, an invalid key, or del of the root \"/\"\n";

int fail(int status, const std::string& key, const std::string& what) {
    std::fprintf(stderr, "aldsettings: %s: %s\n", key.c_str(), what.c_str());
    return status;
}

int usage(const std::string& what) {
    std::fprintf(stderr, "aldsettings: %s (%s)\n", what.c_str(), kUsageLine);
    return kUsage;
}

std::string because(const char* action) { return std::string(action) + ": " + std::strerror(errno); }

// Everything printed goes out, or the command fails.
int finish() {
    if (std::fflush(stdout) == 0 && !std::ferror(stdout)) return kOk;
    std::fprintf(stderr, "aldsettings: standard output: %s\n", std::strerror(errno));
    return kFailed;
}

int get(const std::string& key) {
    std::string value;
    if (ald::setMgmt::getKey(key, value) != 0) {
        if (errno == ENOENT || errno == ENOTDIR) return fail(kFailed, key, "no such key");
        if (errno == EISDIR) return fail(kFailed, key, "is a directory key, it has no value");
        // What a reader of the store takes for a missing key, and why.
        if (errno == ELOOP) return fail(kFailed, key, "is a symbolic link, which reads as no value");
        if (errno == EINVAL) return fail(kFailed, key, "is not a regular file, which reads as no value");
        if (errno == EFBIG) return fail(kFailed, key, "holds more than 16 MiB, which reads as no value");
        return fail(kFailed, key, because("cannot read"));
    }
    value += '\n';
    std::fwrite(value.data(), 1, value.size(), stdout);
    return finish();
}

int set(const std::string& key, const std::string& value) {
    if (ald::setMgmt::setKey(key, value) == 0) return kOk;
    const int err = errno;
    if (err == EISDIR) return fail(kFailed, key, "is a directory key, it cannot hold a value");
    // Not a directory on the way: a key in the store, or the store's own path.
    if (err == ENOTDIR && ald::setMgmt::init(false) == 0) return fail(kFailed, key, "a parent key holds a value");
    errno = err;
    return fail(kFailed, key, because("cannot set"));
}

int del(const std::string& key) {
    if (key == "/") return fail(kUsage, key, "the root of the store cannot be deleted");
    if (ald::setMgmt::deleteKey(key) == 0) return kOk;
    if (errno == ENOENT || errno == ENOTDIR) return fail(kFailed, key, "no such key");
    return fail(kFailed, key, because("cannot delete"));
}

int list(const std::string& key) {
    std::vector<std::string> names;
    if (ald::setMgmt::enumSubkeys(key, names) != 0) {
        const int err = errno;
        std::string value;
        if (err == ENOTDIR && ald::setMgmt::getKey(key, value) == 0)
            return fail(kFailed, key, "is a value key, it has no subkeys");
        if (err == ENOENT || err == ENOTDIR) return fail(kFailed, key, "no such key");
        errno = err;
        return fail(kFailed, key, because("cannot list"));
    }
    for (const auto& name : names) std::printf("%s\n", name.c_str());
    return finish();
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) return usage("missing command");
    const std::string command = argv[1];
    if (command == "-h" || command == "--help") {
        std::printf("%s\n%s", kUsageLine, kHelp);
        return finish();
    }
    const int operands = command == "set" ? 2 : 1;
    if (command != "get" && command != "set" && command != "del" && command != "list")
        return usage("unknown command \"" + command + "\"");
    if (argc != 2 + operands) return usage(std::string(argc < 2 + operands ? "missing" : "too many") + " operands");
    const std::string key = argv[2];
    if (!ald::setMgmt::valid_key(key))
        return fail(kUsage, key, "invalid key: it must start with \"/\" and have no empty, \".\" or \"..\" component");
    if (command == "get") return get(key);
    if (command == "set") return set(key, argv[3]);
    if (command == "del") return del(key);
    return list(key);
}
