// SPDX-License-Identifier: MIT
#pragma once
// updater.conf: loading, atomic replacement, var_path, and the daemon's keys.
#include "json_ptr.h"

#include <ald/path.h>

#include <string>

// The configuration directory, as the platform prints it for the writable
// configuration: updater.conf lives there, and so do its temporary copies.
ald::path config_directory();


// Replaces updater.conf with the document: a temporary file in the same
// directory, flushed, renamed over it, the directory flushed. On false the
// old file is as it was (or, when only the last flush failed, the new one
// is in place but may not survive a power cut) and no temporary file is
// left. Each failed step logs its line, but for a temporary file that
// cannot be made, which fails with no line.
bool write_config(const json_ptr& document);

// Removes the temporary copies of updater.conf and of the status file that
// a daemon killed, or a power cut, between the write and the rename left
// behind: the daemon's own, nobody else's.
void remove_stale_copies();

// var_path + "/sorvelupd.out_err.log" from the current file; "" with code 2
// and the reason in alderrno when the file cannot be loaded or has no string
// var_path.
std::string get_redirection_file();

// aur_enabled from the integer setting at `key` (absent counts as 1), after
// stopping the updater, when the value differs from the last one written.
bool update_aur_config(const ald::path& key);

// pcap_device from lan_interfaces and connect_appid from the settings store.
// The caller stops the updater first.
bool update_lan_config();
