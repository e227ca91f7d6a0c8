// SPDX-License-Identifier: MIT
// updater.conf: what a failed rewrite leaves behind, where the updater's
// output goes, and what the two updaters write.
#include "config.h"
#include "harness.h"
#include "state.h"

#include <ald/error.h>
#include <ald/settings.h>

#include <cerrno>
#include <filesystem>

namespace fs = std::filesystem;

namespace {

using Config = DaemonTest;

const char kConf[] = "{\n    \"var_path\": \"/var\",\n    \"kept\": [1, {\"a\": null}]\n}\n";

// A failed dump leaves the file as it was and no temporary file (the
// library's steps: path_test); each step that fails has its line, and one
// after the rename, which left the file replaced, counts as failed too,
// since a power cut may undo it.
TEST_F(Config, AFailedRewriteSaysWhichStepFailed) {
    const struct {
        ald::replace_step step;  // none: the dump itself fails
        int err;
        const char* line;  // the temporary file's random part as XXXXXXXX
    } failures[] = {
        {ald::replace_step::none, EIO, "error write_config: failed to dump new config"},
        {ald::replace_step::flush, EIO, "error write_config: failed to dump new config"},
        {ald::replace_step::rename, EXDEV, "error write_config: failed to rename ETC/.aldsorvelupdd-XXXXXXXX to ETC/updater.conf (errno = 18)"},
        {ald::replace_step::flush_directory, EIO, "error write_config: failed to flush ETC (errno = 5)"},
    };
    for (const auto& f : failures) {
        put("updater.conf", kConf);
        f.step == ald::replace_step::none ? fail_call("json_dump_file", 1, f.err) : fail_replace(f.step, 1, f.err);
        EXPECT_FALSE(write_config(json_ptr(json_object())));
        EXPECT_EQ(get("updater.conf"), kConf);
        EXPECT_EQ(std::distance(fs::directory_iterator(etc), {}), 2) << "a temporary file was left";
        std::string line = log().back();
        for (auto at = line.find(etc); at != std::string::npos; at = line.find(etc)) line.replace(at, etc.size(), "ETC");
        if (line.find("ld-") != std::string::npos) line.replace(line.find("ld-") + 3, 8, "XXXXXXXX");
        EXPECT_EQ(line, f.line);
    }
}

TEST_F(Config, OutputFileIsVarPathAndTheLogNameOrNothingWithTheReason) {
    const char* const no_var_path = "failed to locate 'var_path' option in config json";
    const struct {
        const char* conf;
        const char* file;
        const char* reason;
    } cases[] = {
        {R"({"n": 1, "var_path": "/var/x"})", "/var/x/sorvelupd.out_err.log", ""},
        {R"({"var_path": ""})", "/sorvelupd.out_err.log", ""},
        {R"({"var_path": 42, "x": {"var_path": "/x"}})", "", no_var_path},
        {R"({"var_path": "/var")", "", "failed to load config json"},  // a missing file takes the same path
    };
    for (const auto& r : cases) {
        SCOPED_TRACE(r.conf);
        put("updater.conf", r.conf);
        alderrno.clear();
        EXPECT_EQ(get_redirection_file(), r.file);
        EXPECT_STREQ(alderrno.message(), r.reason);
        EXPECT_EQ(alderrno.code(), *r.reason ? 2 : 0);
    }
}

TEST_F(Config, AurEnabledIsFalseOnlyForZeroAndRewrittenOnlyWhenTheValueChanged) {
    const struct {
        const char* stored;  // nullptr: no value, which counts as 1 (as text that is no integer does)
        bool rewritten;
        const char* aur_enabled;
    } steps[] = {{nullptr, true, "true"}, {"0\n", true, "false"}, {"0\n", false, "false"},
                 {"2\n", true, "true"},   {"1\n", true, "true"},  {"-5", true, "true"}};
    put("updater.conf", kConf);
    for (const auto& step : steps) {
        SCOPED_TRACE(step.stored ? step.stored : "no value");
        fs::remove(etc + "/settings/privacy/aur");
        if (step.stored) put("settings/privacy/aur", step.stored);
        const int writes = calls("replace_file");
        EXPECT_TRUE(update_aur_config(ald::kPrivacySettingKey));
        EXPECT_EQ(calls("replace_file") - writes, step.rewritten ? 1 : 0);
        EXPECT_EQ(conf_key("aur_enabled"), step.aur_enabled);
    }

    // After a failed write the next value is written: the same one after no
    // file or a failed rename (-1 too, a value the switch can hold), and the
    // last one written before, switched back to, after a failed flush of the
    // directory, which left the file replaced all the same.
    const struct {
        const char* value;
        ald::replace_step step;  // none: no file
        const char* then;
    } failures[] = {{"0\n", ald::replace_step::none, "0\n"},
                    {"-1\n", ald::replace_step::rename, "-1\n"},
                    {"0\n", ald::replace_step::flush_directory, "-1\n"}};
    for (const auto& f : failures) {
        put("settings/privacy/aur", f.value);
        f.step != ald::replace_step::none ? fail_replace(f.step, 1) : void(fs::remove(etc + "/updater.conf"));
        EXPECT_FALSE(update_aur_config(ald::kPrivacySettingKey));
        put("updater.conf", kConf);
        put("settings/privacy/aur", f.then);
        EXPECT_TRUE(update_aur_config(ald::kPrivacySettingKey));
        EXPECT_EQ(conf_key("aur_enabled"), *f.then == '0' ? "false" : "true");
    }
}

TEST_F(Config, PcapDeviceLeavesOutNamesThatAreNotUtf8AndFailuresWriteNothing) {
    put("updater.conf", kConf);
    lan_interfaces = {"br0", "eth1", "lan\xff", "lan\xc3\xa4"};
    EXPECT_TRUE(update_lan_config());
    EXPECT_EQ(conf_key("pcap_device"), "[\"br0\",\"eth1\",\"lan\xc3\xa4\"]");

    fail_call("json_array", 1);
    EXPECT_FALSE(update_lan_config());
    fs::remove(etc + "/updater.conf");
    EXPECT_FALSE(update_lan_config());
    EXPECT_EQ(log(), (std::vector<std::string>{"error update_lan_config: failed to allocate json array",
                                               "error update_lan_config: failed to load config json"}));
    EXPECT_EQ(calls("replace_file"), 1);
}

}  // namespace
