// SPDX-License-Identifier: MIT
// The one way the library and its users replace a file.
#include <ald/replace.h>

#include "files.h"

#include <cerrno>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace ald {
namespace {

replace_result& failed(replace_result& r, replace_step step, int err) {
    r.failed = step;
    r.error = err;
    return r;
}

// The mode (and owner) the new file gets, before it is flushed: never more
// than the result allows while it is filled, since it is made 0600.
bool set_mode(int fd, int dir_fd, const std::string& target, const replace_options& options) {
    struct stat st;
    if (options.keep_mode && ::fstatat(dir_fd, target.c_str(), &st, 0) == 0) {
        // The owner first: a change of owner clears the set-id bits.
        if (::fchown(fd, st.st_uid, st.st_gid) != 0 && errno != EPERM) return false;
        return ::fchmod(fd, st.st_mode & 07777) == 0;
    }
    return ::fchmod(fd, 0644 & ~detail::process_umask()) == 0;
}

bool write_all(int fd, basic_string_view<char> text) {
    const char* p = text.data;
    std::size_t left = text.data ? text.length : 0;
    while (left > 0) {
        const ssize_t n = ::write(fd, p, left);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return false;
        p += n;
        left -= static_cast<std::size_t>(n);
    }
    return true;
}

// `at` goes in front of every name given to the *at calls: "" for a
// directory descriptor, the directory's path and "/" for AT_FDCWD.
replace_result replace_in(int dir_fd, const std::string& at, const path& dir, basic_string_view<char> name,
                          const replace_writer& fill, const replace_options& options) {
    replace_result r;
    std::string temp;
    const int fd = detail::open_temp(dir_fd, at, options.prefix, 0600, temp);
    if (fd < 0) return failed(r, replace_step::temporary, errno);
    temp.insert(0, at);
    r.temp = dir;
    r.temp.add_piece(true, basic_string_view<char>(temp.data() + at.size(), static_cast<std::uint32_t>(temp.size() - at.size())));
    const std::string target = at + std::string(name.data ? name.data : "", name.data ? name.length : 0);
    replace_step step = replace_step::fill;
    bool ok = fill(fd, r.temp.c_str()) && set_mode(fd, dir_fd, target, options);
    if (ok) step = replace_step::flush;
    ok = ok && (!options.durable || detail::flush(fd) == 0);
    int err = errno;
    if (::close(fd) != 0 && ok) {
        ok = false;
        err = errno;
    }
    if (ok) {
        step = replace_step::rename;
        ok = ::renameat(dir_fd, temp.c_str(), dir_fd, target.c_str()) == 0;
        err = errno;
    }
    if (!ok) {
        ::unlinkat(dir_fd, temp.c_str(), 0);
        return failed(r, step, err);
    }
    if (!options.durable) return r;
    // The rename is done: whatever happens now, the temporary name is gone.
    const int flushed = dir_fd != AT_FDCWD ? detail::flush(dir_fd) : dir.sync();
    return flushed == 0 ? r : failed(r, replace_step::flush_directory, errno);
}

}  // namespace

replace_result replace_file(const path& dir, basic_string_view<char> name, const replace_writer& fill,
                            const replace_options& options) {
    if (dir.size() == 0) {
        // No directory is no place: never the current one by accident.
        replace_result r;
        return failed(r, replace_step::temporary, ENOENT);
    }
    return replace_in(AT_FDCWD, std::string(dir.c_str()) + "/", dir, name, fill, options);
}

replace_result replace_file_at(int dir_fd, const path& dir, basic_string_view<char> name,
                               const replace_writer& fill, const replace_options& options) {
    return replace_in(dir_fd, "", dir, name, fill, options);
}

replace_writer text_writer(basic_string_view<char> text) {
    return [text](int fd, const char*) { return write_all(fd, text); };
}

}  // namespace ald
