// SPDX-License-Identifier: MIT
// aldsettings: reads and changes the settings store from the shell.
#include <ald/settings.h>
#include <ald/version.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <poll.h>
#include <string>
#include <sys/signalfd.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr int kOk = 0;
constexpr int kFailed = 1;  // missing key, wrong kind of key, store not readable or writable
constexpr int kUsage = 2;   // bad usage, invalid key

const char kUsageLine[] =
    "usage: aldsettings get KEY | set KEY VALUE | set KEY - | del KEY | list KEY | watch KEY";

const char kHelp[] =
    "\n"
    "  get KEY        print the key's value and a newline\n"
    "  set KEY VALUE  store VALUE, creating missing parent keys; a reader sees\n"
    "                 the old value or the new one, never a part\n"
    "  set KEY -      store standard input, less one trailing newline (at most 16 MiB)\n"
    "  del KEY        remove the key, and every key under it\n"
    "  list KEY       print the names of the key's subkeys, one a line, in byte order\n"
    "  watch KEY      print \"value \" and the value (newlines as \\\\n, backslashes\n"
    "                 doubled), or \"no value: \" and why, now and after each change\n"
    "                 of the key, as the daemon sees it, until SIGINT or SIGTERM\n"
    "\n"
    "A KEY starts with \"/\" and has no empty, \".\" or \"..\" component, no control\n"
    "character, at most 255 bytes a component and 4096 in all; \"/\" is the\n"
    "root of the store. A directory key has subkeys and no value; a value key has\n"
    "a value and no subkeys. A key that is a symbolic link is the file it leads\n"
    "to: set writes there and keeps the link; del removes the link alone.\n"
    "\n"
    "Exit status:\n"
    "  0  success\n"
    "  1  the key is missing, is of the wrong kind (get or set of a directory key,\n"
    "     list of a value key), the store could not be read or changed, or the\n"
    "     key could not be watched\n"
    "  2  bad usage, an invalid key, a value over 16 MiB, or del of the root \"/\"\n";

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

// Where the symbolic links on the way to the key lead, or "" when there is
// no link on it.
std::string link_target(const std::string& key) {
    ald::setMgmt::Resolution way;
    if (ald::setMgmt::resolve(key, way) != 0 || !way.linked()) return "";
    return way.file;
}

// Why getKey failed with `err`, as a reader of the store sees it.
std::string no_value(const std::string& key, int err) {
    if (err == ELOOP) return "its symbolic links loop, so it reads as no value";
    const char* why = err == ENOENT || err == ENOTDIR ? "does not exist"
                      : err == EISDIR                 ? "is a directory key, so it has no value"
                      : err == EINVAL                 ? "is not a regular file, so it reads as no value"
                      : err == EFBIG                  ? "holds more than 16 MiB, so it reads as no value"
                                                      : nullptr;
    // A link says where it leads, since that is where to look.
    const std::string target = link_target(key);
    if (!why) return std::string("cannot read: ") + std::strerror(err);
    if (!target.empty()) return "leads through symbolic links to " + target + ", which " + why;
    return err == ENOENT || err == ENOTDIR ? "no such key" : why;
}

int get(const std::string& key) {
    std::string value;
    if (ald::setMgmt::getKey(key, value) != 0) return fail(kFailed, key, no_value(key, errno));
    value += '\n';
    std::fwrite(value.data(), 1, value.size(), stdout);
    return finish();
}

int set(const std::string& key, const std::string& value) {
    if (ald::setMgmt::setKey(key, value) == 0) return kOk;
    const int err = errno;
    if (err == EISDIR) return fail(kFailed, key, "is a directory key, it cannot hold a value");
    if (err == EINVAL) return fail(kUsage, key, "names starting with \".set-\" are the store's temporary files");
    // Not a directory on the way: where links lead, a key in the store, or
    // the store's own path.
    const std::string target = link_target(key);
    if (err == ENOTDIR && !target.empty())
        return fail(kFailed, key, "leads through symbolic links to " + target + ", where a directory is needed");
    if (err == ENOTDIR && ald::setMgmt::init(false) == 0) return fail(kFailed, key, "a parent key holds a value");
    // A link into storage that is not there (not mounted?).
    if (err == ENOENT && !target.empty())
        return fail(kFailed, key, "leads through symbolic links to " + target + ", whose directory does not exist");
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

// The key being watched, for the handler, which gets only its path.
std::string g_watched;
bool g_output_failed = false;

// One line: "value " and the value with backslashes and newlines escaped,
// or "no value: " and why. Flushed at once, for a pipe.
bool show(const ald::path&) {
    std::string value, line;
    if (ald::setMgmt::getKey(g_watched, value) == 0) {
        line = "value ";
        for (char c : value) line += c == '\n' ? "\\n" : c == '\\' ? "\\\\" : std::string(1, c);
    } else {
        line = "no value: " + no_value(g_watched, errno);
    }
    line += '\n';
    std::fwrite(line.data(), 1, line.size(), stdout);
    g_output_failed = g_output_failed || finish() != kOk;
    return true;
}

// The value now and after each change, through the library's watch, until
// SIGINT or SIGTERM.
int watch(const std::string& key) {
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    const int signals = sigprocmask(SIG_BLOCK, &stop, nullptr) == 0 ? signalfd(-1, &stop, SFD_CLOEXEC) : -1;
    if (signals < 0) return fail(kFailed, key, because("cannot take signals"));
    g_watched = key;
    ald::setMgmt::MonitoredKey watched(ald::path(key), show, 0, false);
    int fd = watched.get_fd();
    if (fd >= 0) show(ald::path(key));
    while (fd >= 0 && !g_output_failed) {
        pollfd ready[2] = {{signals, POLLIN, 0}, {fd, POLLIN, 0}};
        if (poll(ready, 2, -1) < 0 && errno != EINTR) break;
        if (ready[0].revents != 0) return kOk;
        if (ready[1].revents != 0 && !watched.read_notifications()) {
            close(fd);
            fd = watched.get_fd();
        }
    }
    if (g_output_failed) return kFailed;
    return fail(kFailed, key, because("cannot watch"));
}

// Why the store cannot keep `key`, or nullptr. A control character would
// make the key unprintable in every listing and error line.
const char* refused(const std::string& key) {
    if (key.size() > PATH_MAX) return "longer than 4096 bytes";
    for (unsigned char c : key)
        if (c < 0x20 || c == 0x7f) return "it holds a control character";
    if (!ald::setMgmt::valid_key(key)) return "it must start with \"/\" and have no empty, \".\" or \"..\" component";
    for (std::size_t at = 0, next; at != std::string::npos; at = next) {
        next = key.find('/', at + 1);
        if ((next == std::string::npos ? key.size() : next) - at - 1 > NAME_MAX) return "a component is longer than 255 bytes";
    }
    return nullptr;
}

// The key as an error line can show it: control characters as '?', at
// most 64 bytes.
std::string shown(const std::string& key) {
    std::string text = key.size() > 64 ? key.substr(0, 61) + "..." : key;
    for (char& c : text)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = '?';
    return text;
}

// Standard input is the key's file: one trailing newline ends the value.
int set_from_stdin(const std::string& key) {
    std::string value;
    char buf[65536];
    for (std::size_t n; (n = std::fread(buf, 1, sizeof buf, stdin)) > 0 && value.size() <= ald::setMgmt::kMaxValueSize;)
        value.append(buf, n);
    if (std::ferror(stdin)) return fail(kFailed, key, because("cannot read standard input"));
    if (value.size() > ald::setMgmt::kMaxValueSize) return fail(kUsage, key, "the value is longer than 16 MiB");
    if (!value.empty() && value.back() == '\n') value.pop_back();
    return set(key, value);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) return usage("missing command");
    const std::string command = argv[1];
    if (command == "-h" || command == "--help") {
        std::printf("%s\n%s", kUsageLine, kHelp);
        return finish();
    }
    if (command == "--version") {
        std::printf("aldsettings %s\n", ald::version());
        return finish();
    }
    const int operands = command == "set" ? 2 : 1;
    if (command != "get" && command != "set" && command != "del" && command != "list" && command != "watch")
        return usage("unknown command \"" + command + "\"");
    if (argc != 2 + operands) return usage(std::string(argc < 2 + operands ? "missing" : "too many") + " operands");
    const std::string key = argv[2];
    if (const char* why = refused(key)) return fail(kUsage, shown(key), std::string("invalid key: ") + why);
    if (command == "get") return get(key);
    if (command == "set" && std::strcmp(argv[3], "-") == 0) return set_from_stdin(key);
    if (command == "set") return set(key, argv[3]);
    if (command == "del") return del(key);
    if (command == "watch") return watch(key);
    return list(key);
}
