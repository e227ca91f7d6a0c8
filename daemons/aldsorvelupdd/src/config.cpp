// SPDX-License-Identifier: MIT
#include "config.h"

#include "log.h"
#include "state.h"
#include "status.h"
#include "supervision.h"

#include <ald/error.h>
#include <ald/replace.h>
#include <ald/settings.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

namespace {

constexpr char kDefaultAppId[] = "com.aldrana.sorvelupd";
static_assert(sizeof kDefaultAppId - 1 == 21, "the default application id has 21 characters");

constexpr char kOutputFileName[] = "sorvelupd.out_err.log";

}  // namespace

ald::path config_directory() { return common_directory(static_cast<ald::common_path>(2)); }

bool write_config(const json_ptr& document) {
    static const ald::path directory = config_directory();

    // The copy is flushed before the rename and the directory after it: on
    // flash the rename can reach the storage before the data it names, and
    // a power cut then leaves an empty updater.conf, on which no updater
    // starts again. A failed flush is a failed write, and one after the
    // rename too, since that file may not survive a cut: it is written
    // again at the next chance.
    ald::replace_options options;
    options.prefix = kTempPrefix;
    const ald::replace_result done = ald::replace_file(directory, "updater.conf", [&document](int, const char* temp) {
        return json_dump_file(document.get(), temp, JSON_INDENT(4)) == 0;
    }, options);
    switch (done.failed) {
    case ald::replace_step::none:
        status_written(document);
        return true;
    case ald::replace_step::temporary:
        break;
    case ald::replace_step::fill:
    case ald::replace_step::flush:
        ALD_LOG(error, "failed to dump new config");
        break;
    case ald::replace_step::rename:
        ALD_LOG(error, "failed to rename %s to %s (errno = %d)", done.temp.c_str(), config_path.c_str(), done.error);
        break;
    case ald::replace_step::flush_directory:
        ALD_LOG(error, "failed to flush %s (errno = %d)", directory.c_str(), done.error);
        break;
    }
    return false;
}

void remove_stale_copies() {
    const ald::path directories[] = {config_directory(), common_directory(ald::common_path::system_runtime)};
    int removed = 0;
    for (const ald::path& dir : directories) removed += std::max(dir.remove_temp_files(kTempPrefix), 0);
    if (removed > 0) ALD_LOG(info, "removed %d temporary files left by an earlier daemon", removed);
}

std::string get_redirection_file() {
    json_ptr document(json_load_file(config_path.c_str(), 0, nullptr));
    if (!document) {
        alderrno.set(2, "failed to load config json");
        return std::string();
    }
    json_t* value = nullptr;
    for (void* it = json_object_iter(document.get()); it; it = json_object_iter_next(document.get(), it)) {
        if (std::strcmp(json_object_iter_key(it), "var_path") == 0) {
            value = json_object_iter_value(it);
            break;
        }
    }
    std::string result;
    if (value && json_is_string(value)) {
        result = json_string_value(value);
        result += '/';
        result += kOutputFileName;
    } else {
        alderrno.set(2, "failed to locate 'var_path' option in config json");
    }
    return result;
}

bool update_aur_config(const ald::path& key) {
    const int value = ald::setMgmt::getKeyValue(path_string(key), 1);
    if (value == last_aur_enabled && !aur_write_owed) return true;

    kill_and_wait_sorvelupd();
    status_update_begun(kAurKey);
    bool written;
    {
        json_ptr document(json_load_file(config_path.c_str(), 0, nullptr));
        if (!document) {
            ALD_LOG(error, "failed to load config json");
            return false;
        }
        json_object_set_new(document.get(), "aur_enabled", value != 0 ? json_true() : json_false());
        written = write_config(document);
    }
    // A write that failed at the directory's flush has replaced the file
    // all the same: what it holds is not known, and the next notification
    // writes, whatever its value (-1 too, which the switch itself can hold).
    if (written) last_aur_enabled = value;
    aur_write_owed = !written;
    return written;
}

bool update_lan_config() {
    std::vector<std::string> names;
    {
        std::lock_guard<std::mutex> lock(lan_mutex);
        names = lan_interfaces;
    }
    status_update_begun(kLanKeys);
    json_ptr document(json_load_file(config_path.c_str(), 0, nullptr));
    if (!document) {
        ALD_LOG(error, "failed to load config json");
        return false;
    }
    json_t* devices = json_array();
    if (!devices) {
        ALD_LOG(error, "failed to allocate json array");
        return false;
    }
    // A name the JSON library refuses (not UTF-8) yields no string, and the
    // append of nothing fails: that name is left out.
    for (const std::string& name : names) json_array_append_new(devices, json_string(name.c_str()));
    json_object_set_new(document.get(), "pcap_device", devices);

    const std::string appid = ald::setMgmt::getKeyValue(path_string(ald::kAppIdKey), std::string(kDefaultAppId));
    json_object_set_new(document.get(), "connect_appid", json_string(appid.c_str()));
    return write_config(document);
}
