// SPDX-License-Identifier: MIT
#pragma once
// Filesystem paths and the platform's well-known directories.
#include <ald/string_view.h>

#include <cstdint>
#include <ostream>
#include <vector>

namespace ald {

// What temp_file(out) names its files with, before eight random characters.
constexpr char kTempFilePrefix[] = ".tmp-";

// A path held in a growable character buffer. A default-constructed path has
// no storage at all; once text has been added, the buffer always holds a NUL
// right after the text.
class path {
public:
    path() noexcept = default;
    explicit path(basic_string_view<char> text);

    // Appends `piece`. With `component` true the piece becomes one path
    // component: exactly one "/" separates it from existing text (slashes
    // already there are reused, leading slashes of the piece dropped), and
    // none is added to an empty path. With `component` false the text is
    // appended as it is. An empty piece with `component` true on a
    // non-empty path leaves the text ending in "/".
    path& add_piece(bool component, basic_string_view<char> piece);

    // The text, NUL-terminated; a null pointer when the path has no storage.
    const char* c_str() const noexcept { return buf_.empty() ? nullptr : buf_.data(); }
    std::uint32_t size() const noexcept { return buf_.empty() ? 0 : static_cast<std::uint32_t>(buf_.size() - 1); }

    // On a directory path: creates a new, empty regular file in it, never
    // reusing an existing name (O_EXCL), named with a leading "." and mode
    // 0644 before the umask, and sets `out` to its path. Returns false, with
    // errno set and `out` untouched, when no file could be made (ENOENT
    // for an empty path).
    bool temp_file(path& out) const;
    // The same with another name: `prefix` (starting with ".") and eight
    // random characters. A writer with a prefix
    // of its own can clear up after itself without touching others' files.
    bool temp_file(path& out, basic_string_view<char> prefix) const;

    // On a directory path: removes what a writer killed (or a power cut)
    // between temp_file and its rename left behind, that is the regular
    // files whose names temp_file makes with `prefix`; links and
    // directories of such names, and every other file, stay. The number
    // removed, or -1 with errno set when the directory cannot be read.
    int remove_temp_files(basic_string_view<char> prefix) const;

    // Removes the file the path names. 0, or -1 with errno set.
    int unlink() const;

    // Flushes the file or directory the path names to its storage (fsync):
    // a file before it is renamed into place, a directory after a rename in
    // it, so that both survive a power cut. 0, or -1 with errno set. A file
    // system that cannot flush at all (EINVAL) counts as flushed: there is
    // nothing more to wait for, and refusing would stop every write there.
    int sync() const;

private:
    std::vector<char> buf_;
};

// The well-known directories. Every one is placed under $ALD_ROOT when that
// variable is set and non-empty (read once, on first use).
enum class common_path : int {
    runtime = 0,  // $ALD_ROOT/var/run/aldrana: sockets, pid files
    data = 1,     // $ALD_ROOT/var/lib/aldrana: persistent state
    config = 2,   // $ALD_ROOT/etc/aldrana: writable configuration, the settings store
    system_runtime = 3,  // $ALD_ROOT/var/run: the system's, shared: status files others read
};

// The text of $ALD_ROOT without trailing slashes; empty for the real root.
const char* root_prefix() noexcept;

namespace detail {
// Writes the directory's text (no trailing "/") into `out`. A value outside
// the enumeration writes nothing.
void print_common_path(std::ostream& out, common_path which);
}  // namespace detail

}  // namespace ald
