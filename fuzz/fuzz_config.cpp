// Arbitrary bytes as updater.conf, through get_redirection_file,
// update_aur_config and update_lan_config, on the real platform library
// (the settings store and the file under $ALD_ROOT).
//
// Properties: no crash and no leak; get_redirection_file gives var_path +
// "/sorvelupd.out_err.log" exactly when the root is an object whose
// var_path is a string; after a failed call the file is byte for byte what
// it was; after a successful rewrite the file parses, is what jansson writes
// with an indent of 4, holds the keys the call writes with their values, and
// every other key with its value unchanged; no temporary file is left.
//
// The settings and LAN names for one input are picked from small tables by
// a hash of the input, so that every input meets several of them.
#include "config.h"
#include "fuzz_check.h"
#include "state.h"

#include <ald/error.h>
#include <ald/log.h>
#include <ald/settings.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <dirent.h>
#include <fstream>
#include <jansson.h>
#include <map>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr char kDefaultAppId[] = "com.aldrana.sorvelupd";
constexpr char kLogName[] = "/sorvelupd.out_err.log";

std::string g_dir;      // the configuration directory
std::string g_conf;     // updater.conf
std::string g_aur;      // the store's file of /privacy/aur
std::string g_app_id;   // the store's file of /system/app_id

// A stored value (the file's bytes; nullptr: no key) and the int that
// getKeyValue(key, 1) gives for it.
struct AurCase {
    const char* stored;
    int value;
};
const AurCase kAur[] = {{nullptr, 1}, {"0\n", 0}, {"1\n", 1}, {" -5 \n", -5}, {"2", 2},
                        {"x\n", 1}, {"2147483648\n", 1}, {"-2147483648\n", -2147483647 - 1}};

struct AppIdCase {
    const char* stored;
    const char* expected;
};
const AppIdCase kAppId[] = {{nullptr, kDefaultAppId}, {"my.app\n", "my.app"}, {"\xc3\xbc.app", "\xc3\xbc.app"},
                            {"\n", ""}};

// lan_interfaces as the daemon keeps it (sorted), and what pcap_device must
// then hold: a name that is not UTF-8 is left out.
struct LanCase {
    std::vector<std::string> names;
    std::vector<std::string> expected;
};
const LanCase kLan[] = {{{}, {}},
                        {{"br-lan"}, {"br-lan"}},
                        {{"br0", "eth1"}, {"br0", "eth1"}},
                        {{"lan1", "lan\xff"}, {"lan1"}},
                        {{"", "a", "a"}, {"", "a", "a"}}};

std::string read_bytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

void write_bytes(const std::string& path, const char* data, std::size_t size) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(data, static_cast<std::streamsize>(size));
    FUZZ_CHECK(out.good(), "cannot write %s", path.c_str());
}

void store_value(const std::string& file, const char* value) {
    if (value)
        write_bytes(file, value, std::strlen(value));
    else
        ::unlink(file.c_str());
}

// The entries of the configuration directory other than the store.
std::vector<std::string> directory_entries() {
    std::vector<std::string> names;
    DIR* dir = ::opendir(g_dir.c_str());
    FUZZ_CHECK(dir, "cannot list %s", g_dir.c_str());
    while (const dirent* e = ::readdir(dir)) {
        std::string name = e->d_name;
        if (name != "." && name != ".." && name != "settings") names.push_back(name);
    }
    ::closedir(dir);
    return names;
}

struct json_holder {
    json_t* value;
    explicit json_holder(json_t* v) : value(v) {}
    ~json_holder() { json_decref(value); }
    json_holder(const json_holder&) = delete;
    json_holder& operator=(const json_holder&) = delete;
};

std::string dump(json_t* value, std::size_t flags = JSON_INDENT(4)) {
    char* text = json_dumps(value, flags);
    std::string out = text ? text : "<undumpable>";
    std::free(text);
    return out;
}

// A value on one line, for messages.
std::string show(json_t* value) { return dump(value, JSON_COMPACT | JSON_ENCODE_ANY); }

// A successful rewrite of `before` (the document the call loaded) into the
// current file, by a call that writes `written` (key -> value).
void check_rewrite(json_t* before, const std::map<std::string, json_t*>& written, const char* call) {
    const std::string text = read_bytes(g_conf);
    json_holder after(json_loads(text.c_str(), 0, nullptr));
    FUZZ_CHECK(after.value, "%s: the rewritten file does not parse", call);
    FUZZ_CHECK(text == dump(after.value), "%s: not written as jansson writes with an indent of 4", call);
    FUZZ_CHECK(directory_entries() == std::vector<std::string>{"updater.conf"},
               "%s: something beside updater.conf is left", call);
    if (!json_is_object(before)) {
        // An array at the root has no place for the keys; it goes back as
        // it was.
        FUZZ_CHECK(json_equal(after.value, before), "%s: a root that is no object was changed", call);
        return;
    }
    FUZZ_CHECK(json_is_object(after.value), "%s: the root is no longer an object", call);
    for (const auto& [key, value] : written) {
        json_t* got = json_object_get(after.value, key.c_str());
        FUZZ_CHECK(got && json_equal(got, value), "%s: %s is %s, not %s", call, key.c_str(),
                   got ? show(got).c_str() : "missing", show(value).c_str());
    }
    const char* key;
    json_t* value;
    json_object_foreach(before, key, value) {
        if (written.count(key)) continue;
        json_t* got = json_object_get(after.value, key);
        FUZZ_CHECK(got && json_equal(got, value), "%s: the key \"%s\" was %s, is now %s", call, key,
                   show(value).c_str(), got ? show(got).c_str() : "missing");
    }
    json_object_foreach(after.value, key, value) {
        FUZZ_CHECK(written.count(key) || json_object_get(before, key), "%s: a key \"%s\" appeared", call, key);
    }
}

std::uint32_t hash(const std::uint8_t* data, std::size_t size) {
    std::uint32_t h = 2166136261u;
    for (std::size_t i = 0; i < size; ++i) h = (h ^ data[i]) * 16777619u;
    return h;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    const std::string root = fuzz::private_root();
    g_conf = path_string(config_path);
    g_dir = path_string(config_directory());
    FUZZ_CHECK(g_conf.compare(0, root.size(), root) == 0, "updater.conf %s is not under ALD_ROOT", g_conf.c_str());
    const std::string store = ald::setMgmt::store_directory();
    for (const std::string& dir : {g_dir, store, store + "/privacy", store + "/system"}) {
        std::string part;
        std::istringstream pieces(dir);
        for (std::string piece; std::getline(pieces, piece, '/');) {
            part += piece + '/';
            ::mkdir(part.c_str(), 0755);
        }
    }
    g_aur = store + "/privacy/aur";
    g_app_id = store + "/system/app_id";
    // Every input without a document would log a line.
    ald::log::current_level = -1;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    std::uint32_t pick = hash(data, size);
    const AurCase& aur = kAur[pick % (sizeof kAur / sizeof kAur[0])];
    pick /= sizeof kAur / sizeof kAur[0];
    const AppIdCase& app_id = kAppId[pick % (sizeof kAppId / sizeof kAppId[0])];
    pick /= sizeof kAppId / sizeof kAppId[0];
    const LanCase& lan = kLan[pick % (sizeof kLan / sizeof kLan[0])];
    pick /= sizeof kLan / sizeof kLan[0];
    const bool same_aur_as_last = pick % 4 == 0;

    write_bytes(g_conf, input.data(), input.size());
    store_value(g_aur, aur.stored);
    store_value(g_app_id, app_id.stored);
    json_holder original(json_load_file(g_conf.c_str(), 0, nullptr));

    // var_path.
    alderrno.clear();
    const std::string redirection = get_redirection_file();
    json_t* var_path = json_is_object(original.value) ? json_object_get(original.value, "var_path") : nullptr;
    if (json_is_string(var_path)) {
        const std::string expected = std::string(json_string_value(var_path)) + kLogName;
        FUZZ_CHECK(redirection == expected, "get_redirection_file gave \"%s\", not \"%s\"", redirection.c_str(),
                   expected.c_str());
    } else {
        FUZZ_CHECK(redirection.empty() && alderrno.code() == 2,
                   "get_redirection_file without a string var_path gave \"%s\" with code %d", redirection.c_str(),
                   alderrno.code());
    }
    FUZZ_CHECK(read_bytes(g_conf) == input, "get_redirection_file changed the file");

    // aur_enabled.
    last_aur_enabled = same_aur_as_last ? aur.value : -1;
    const int last_before = last_aur_enabled;
    bool ok = update_aur_config(ald::kPrivacySettingKey);
    if (!ok || same_aur_as_last) {
        FUZZ_CHECK(read_bytes(g_conf) == input, "update_aur_config changed the file and returned %d", ok);
        FUZZ_CHECK(ok == (same_aur_as_last || original.value != nullptr),
                   "update_aur_config returned %d for a file that %s", ok, original.value ? "loads" : "does not load");
        FUZZ_CHECK(last_aur_enabled == last_before, "last_aur_enabled changed without a write");
    } else {
        FUZZ_CHECK(original.value, "update_aur_config succeeded on a file that does not load");
        json_holder flag(aur.value != 0 ? json_true() : json_false());
        check_rewrite(original.value, {{"aur_enabled", flag.value}}, "update_aur_config");
        FUZZ_CHECK(last_aur_enabled == aur.value, "last_aur_enabled is %d after writing %d", last_aur_enabled,
                   aur.value);
    }

    // pcap_device and connect_appid, on whatever the file holds now.
    const std::string before_lan = read_bytes(g_conf);
    json_holder loaded(json_load_file(g_conf.c_str(), 0, nullptr));
    lan_interfaces = lan.names;
    ok = update_lan_config();
    if (!ok) {
        FUZZ_CHECK(!loaded.value, "update_lan_config failed on a file that loads");
        FUZZ_CHECK(read_bytes(g_conf) == before_lan, "update_lan_config failed and changed the file");
    } else {
        FUZZ_CHECK(loaded.value, "update_lan_config succeeded on a file that does not load");
        json_holder devices(json_array());
        for (const std::string& name : lan.expected) json_array_append_new(devices.value, json_string(name.c_str()));
        json_holder appid(json_string(app_id.expected));
        check_rewrite(loaded.value, {{"pcap_device", devices.value}, {"connect_appid", appid.value}},
                      "update_lan_config");
    }
    FUZZ_CHECK(directory_entries() == std::vector<std::string>{"updater.conf"}, "something beside updater.conf is left");
    return 0;
}
