// SPDX-License-Identifier: MIT
#pragma once
// Replacing a file whole: a temporary file beside it, filled, flushed,
// renamed over it, the directory flushed. A reader sees the old content or
// the new, never a part; a power cut leaves one or the other too, since on
// flash a rename can reach the storage before the data it names.
#include <ald/path.h>

#include <functional>

namespace ald {

// The steps of a replacement, in their order.
enum class replace_step {
    none,             // no step failed
    temporary,        // the temporary file could not be made
    fill,             // the writer failed, or the new file's mode or owner could not be set
    flush,            // the temporary file could not be flushed (or closed)
    rename,           // it could not be renamed over the file
    flush_directory,  // the directory could not be flushed after the rename
};

struct replace_options {
    // The temporary file's name: this prefix (starting with ".") and eight
    // random characters, so that a writer with a prefix of its own can
    // clear up after itself alone (path::remove_temp_files).
    basic_string_view<char> prefix = kTempFilePrefix;
    // Flushes the file before the rename and the directory after it. Off
    // for a file in RAM, which no power cut keeps.
    bool durable = true;
    // Gives the new file the mode and owner of the file it replaces, links
    // followed; an owner the caller may not give is left as the caller's,
    // silently. Off, and for a new file: mode 0644 less the umask (the
    // process's umask, read once). Extended attributes are not copied.
    bool keep_mode = false;
};

struct replace_result {
    replace_step failed = replace_step::none;
    int error = 0;  // the failed step's errno
    path temp;      // the temporary file's path, once made
    explicit operator bool() const noexcept { return failed == replace_step::none; }
};

// Fills the temporary file, given its descriptor (open for writing, at
// offset 0) and its path: a writer may write either. True on success; false
// with errno set.
using replace_writer = std::function<bool(int fd, const char* temp)>;

// A writer that writes `text`, which must outlive it, whole.
replace_writer text_writer(basic_string_view<char> text);

// Replaces the file `name` in the directory `dir` with what `fill` writes.
// The temporary file is made mode 0600, so that nobody may open it who may
// not read the result, and gets the new file's mode before it is flushed.
// A failure before the rename removes the temporary file and leaves the old
// file as it was. A failed flush of the directory comes after the rename:
// the new file is in place but may not survive a power cut; nothing is
// removed then.
replace_result replace_file(const path& dir, basic_string_view<char> name, const replace_writer& fill,
                            const replace_options& options = {});
// The same relative to the open directory `dir_fd` (which `dir` names, for
// the result), so that a caller who locked the directory replaces the file
// in that one and no other.
replace_result replace_file_at(int dir_fd, const path& dir, basic_string_view<char> name,
                               const replace_writer& fill, const replace_options& options = {});

}  // namespace ald
