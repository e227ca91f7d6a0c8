// SPDX-License-Identifier: MIT
// The way to a key's file, walked as the kernel walks a path: the set
// replaces the file at its end, the watch follows every step of it.
#include <ald/settings.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace ald {
namespace setMgmt {
namespace {

// The names of `text`, last first, onto `pending`, which is read from its
// back: a link's target goes in front of what was left of the path.
void push_names(const std::string& text, std::vector<std::string>& pending) {
    std::size_t end = text.size();
    while (end > 0) {
        const std::size_t slash = text.rfind('/', end - 1);
        const std::size_t begin = slash == std::string::npos ? 0 : slash + 1;
        if (end > begin) pending.push_back(text.substr(begin, end - begin));
        if (slash == std::string::npos) break;
        end = slash;
    }
}

std::string join(const std::string& dir, const std::string& name) {
    return dir == "/" ? "/" + name : dir + "/" + name;
}

// The way ends before the key's file, for `err`, at `path`; the names not
// yet looked up say where it was heading.
int ended(Resolution& out, int err, std::string path, const std::vector<std::string>& pending) {
    for (auto name = pending.rbegin(); name != pending.rend(); ++name) path = join(path, *name);
    out.error = err;
    out.file = std::move(path);
    return 0;
}

}  // namespace

bool Resolution::linked() const {
    for (const Step& step : steps)
        if (step.kind == Kind::link) return true;
    return false;
}

int resolve(const std::string& key, Resolution& out) {
    if (!valid_key(key)) {
        errno = EINVAL;
        return -1;
    }
    out = Resolution();
    const std::string start = key == "/" ? store_directory() : store_directory() + key;
    // The directory reached so far, as a path with no link in it: ".." is
    // then its parent as the kernel takes it, also across a mount.
    std::string at = "/";
    std::vector<std::string> pending;
    push_names(start, pending);
    if (start[0] != '/') {
        // On the heap: a daemon keeps every stack page it once touched.
        char* cwd = ::getcwd(nullptr, 0);
        if (!cwd) return ended(out, errno, at, pending);
        at = cwd;
        std::free(cwd);
    }
    struct stat here;
    if (::stat(at.c_str(), &here) != 0) return ended(out, errno, at, pending);
    std::size_t links = 0;
    while (!pending.empty()) {
        const std::string name = std::move(pending.back());
        pending.pop_back();
        if (name == ".") continue;
        if (name == "..") {
            // The directory left is on the way too: gone or moved, it
            // breaks the way as any other would.
            Resolution::Step up{at, name, Resolution::Kind::directory, here.st_dev, here.st_ino, 0, 0};
            const std::size_t slash = at.rfind('/');
            at.resize(slash == 0 ? 1 : slash);
            if (::stat(at.c_str(), &here) != 0) return ended(out, errno, at, pending);
            up.dev = here.st_dev;
            up.ino = here.st_ino;
            out.steps.push_back(std::move(up));
            continue;
        }
        const std::string path = join(at, name);
        Resolution::Step step{at, name, Resolution::Kind::missing, here.st_dev, here.st_ino, 0, 0};
        struct stat st;
        if (::lstat(path.c_str(), &st) != 0) {
            const int err = errno;
            out.steps.push_back(std::move(step));
            if (err != ENOENT || !pending.empty()) return ended(out, err, path, pending);
            // Nothing there, where the key's file belongs: the place to make it.
            out.file = path;
            return 0;
        }
        step.dev = st.st_dev;
        step.ino = st.st_ino;
        if (S_ISLNK(st.st_mode)) {
            step.kind = Resolution::Kind::link;
            out.steps.push_back(std::move(step));
            // The kernel keeps link targets shorter than PATH_MAX: none is
            // cut. Read into the heap, as a short one first.
            std::string text(256, '\0');
            ssize_t n = ::readlink(path.c_str(), &text[0], text.size());
            if (n == static_cast<ssize_t>(text.size())) {
                text.resize(PATH_MAX);
                n = ::readlink(path.c_str(), &text[0], text.size());
            }
            if (++links > kMaxLinks || n <= 0) return ended(out, n < 0 ? errno : n == 0 ? ENOENT : ELOOP, path, pending);
            text.resize(static_cast<std::size_t>(n));
            // A target that ends in "/" names a directory, as "." after it does.
            if (text.back() == '/') pending.push_back(".");
            push_names(text, pending);
            if (text[0] == '/') {
                at = "/";
                if (::stat(at.c_str(), &here) != 0) return ended(out, errno, at, pending);
            }
            continue;
        }
        if (pending.empty()) {
            step.kind = Resolution::Kind::file;
            out.steps.push_back(std::move(step));
            out.file = path;
            return 0;
        }
        if (!S_ISDIR(st.st_mode)) {
            step.kind = Resolution::Kind::not_directory;
            out.steps.push_back(std::move(step));
            return ended(out, ENOTDIR, path, pending);
        }
        step.kind = Resolution::Kind::directory;
        out.steps.push_back(std::move(step));
        at = path;
        here = st;
    }
    // A link that ends in "." or "..": the directory reached is the file.
    const std::size_t slash = at.rfind('/');
    const std::string dir = at.substr(0, slash == 0 ? 1 : slash);
    struct stat parent;
    if (::stat(dir.c_str(), &parent) != 0) return ended(out, errno, at, pending);
    out.steps.push_back({dir, at.substr(slash + 1), Resolution::Kind::file, parent.st_dev, parent.st_ino, here.st_dev,
                         here.st_ino});
    out.file = at;
    return 0;
}

}  // namespace setMgmt
}  // namespace ald
