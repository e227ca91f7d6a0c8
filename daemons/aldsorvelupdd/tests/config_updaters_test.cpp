// update_aur_config and update_lan_config: which keys of updater.conf they
// rewrite, when the updater is stopped first, what survives a failure, and
// how long update_lan_config keeps lan_mutex.
#include "config.h"
#include "fixture.h"
#include "real.h"
#include "state.h"

#include <ald/settings.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <fcntl.h>
#include <functional>
#include <jansson.h>
#include <mutex>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>


namespace {

using namespace std::chrono_literals;

constexpr pid_t kChild = 2000000000;  // above any pid_max: never a real process
const char kOriginal[] =
    R"({"var_path": "/var/x", "owner": {"keep": [1, "two"]}, "aur_enabled": "stale",)"
    R"( "pcap_device": ["old0"], "connect_appid": "old"})";

class Updaters : public DaemonTest {
protected:
    void SetUp() override {
        DaemonTest::SetUp();
        write_file(config_file(), kOriginal);
    }

    // The compact JSON text of one member of the current updater.conf.
    static std::string member(const char* key) {
        json_ptr doc(json_load_file(config_file().c_str(), 0, nullptr));
        if (!doc) return "<unreadable>";
        json_t* value = json_object_get(doc.get(), key);
        if (!value) return "<missing>";
        char* text = json_dumps(value, JSON_COMPACT | JSON_ENCODE_ANY);
        std::string out = text ? text : "<undumpable>";
        std::free(text);
        return out;
    }

    static std::vector<std::string> since(std::size_t mark) {
        auto all = dbl::journal();
        return std::vector<std::string>(all.begin() + static_cast<long>(mark), all.end());
    }
    static long count_since(std::size_t mark, const std::string& prefix) {
        long n = 0;
        for (auto& e : since(mark)) n += e.compare(0, prefix.size(), prefix) == 0;
        return n;
    }
    // A running updater that goes away at the first SIGTERM; `during_stop`
    // runs at the moment the signal is sent.
    static void updater_running(std::function<void()> during_stop = [] {}) {
        child_pid = kChild;
        dbl::push("kill", dbl::then(dbl::ok(0), std::move(during_stop)));
        dbl::push("waitpid", dbl::reaped(kChild, 0));
    }

    // A rename that really happens, after `during` has looked at the state
    // that write_config leaves it in.
    static dbl::outcome rename_through(std::function<void()> during) {
        return dbl::then(dbl::ok(0), [during] {
            during();
            const std::string entry = dbl::journal("rename ").back();
            const std::string to = config_file();
            const std::string from = entry.substr(7, entry.size() - 7 - 1 - to.size());
            if (__real_rename(from.c_str(), to.c_str()) != 0) ADD_FAILURE() << "rename of " << from << " failed";
        });
    }
};

// Whether some thread other than the caller can take lan_mutex right now.
bool lan_mutex_free() {
    bool free = false;
    std::thread probe([&] {
        if (lan_mutex.try_lock()) {
            free = true;
            lan_mutex.unlock();
        }
    });
    probe.join();
    return free;
}

// ---- update_aur_config -----------------------------------------------------

using AurConfig = Updaters;

// Each change stops the running updater, also from one non-zero value to
// another, and rewrites aur_enabled alone.
TEST_F(AurConfig, EveryChangeStopsTheUpdaterAndOnlyZeroIsFalse) {
    const std::pair<int, const char*> cases[] = {{0, "false"}, {1, "true"}, {2, "true"}, {-5, "true"}, {0, "false"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.first);
        dbl::store()["/privacy/aur"] = std::to_string(c.first);
        updater_running();
        const auto mark = dbl::journal().size();
        EXPECT_TRUE(update_aur_config(ald::kPrivacySettingKey));
        EXPECT_EQ(count_since(mark, "kill 2000000000 15"), 1);
        EXPECT_EQ(child_pid, 0);
        EXPECT_EQ(member("aur_enabled"), c.second);
        EXPECT_EQ(last_aur_enabled, c.first);
    }
    EXPECT_EQ(member("owner"), R"({"keep":[1,"two"]})");
    EXPECT_EQ(member("var_path"), R"("/var/x")");
    EXPECT_EQ(member("pcap_device"), R"(["old0"])");
    EXPECT_EQ(member("connect_appid"), R"("old")");
}

TEST_F(AurConfig, SettingComesFromTheGivenKeyAndDefaultsToOne) {
    dbl::store()["/elsewhere/aur"] = "0";
    EXPECT_TRUE(update_aur_config(ald::path("/elsewhere/aur")));
    EXPECT_EQ(member("aur_enabled"), "false");

    EXPECT_TRUE(update_aur_config(ald::kPrivacySettingKey));  // absent from the store
    EXPECT_EQ(dbl::journal("setMgmt::getKeyValue").back(), "setMgmt::getKeyValue /privacy/aur 1");
    EXPECT_EQ(member("aur_enabled"), "true");
    EXPECT_EQ(last_aur_enabled, 1);
}

// The same value again, or -1 before anything was written, is no change:
// no stop and no load (the file is gone, so a load would log).
TEST_F(AurConfig, UnchangedValueTouchesNeitherUpdaterNorFile) {
    std::remove(config_file().c_str());
    child_pid = kChild;
    for (int value : {-1, 3}) {
        last_aur_enabled = value;
        dbl::store()["/privacy/aur"] = std::to_string(value);
        const auto mark = dbl::journal().size();
        EXPECT_TRUE(update_aur_config(ald::kPrivacySettingKey));
        EXPECT_EQ(since(mark), std::vector<std::string>{"setMgmt::getKeyValue /privacy/aur 1"});
    }
    EXPECT_EQ(child_pid, kChild);
}

TEST_F(AurConfig, UpdaterIsStoppedBeforeTheFileIsLoaded) {
    last_aur_enabled = 1;
    dbl::store()["/privacy/aur"] = "0";
    // The file changes while the updater is being stopped; a load made
    // before the stop would not see the marker.
    updater_running([] { write_file(config_file(), R"({"marker": 7})"); });
    EXPECT_TRUE(update_aur_config(ald::kPrivacySettingKey));
    EXPECT_EQ(member("marker"), "7");
    EXPECT_EQ(member("aur_enabled"), "false");
}

TEST_F(AurConfig, UpdaterThatWillNotStopDoesNotPreventTheRewrite) {
    last_aur_enabled = 0;
    dbl::store()["/privacy/aur"] = "1";
    child_pid = kChild;
    dbl::always("kill", dbl::ok(0));
    dbl::always("waitpid", dbl::ok(0));  // still running after every signal

    EXPECT_TRUE(update_aur_config(ald::kPrivacySettingKey));
    EXPECT_EQ(dbl::journal("kill ").size(), 18u);
    EXPECT_EQ(child_pid, kChild);
    EXPECT_EQ(member("aur_enabled"), "true");
    EXPECT_EQ(last_aur_enabled, 1);
}

TEST_F(AurConfig, ValueIsRememberedOnlyAfterASuccessfulWrite) {
    last_aur_enabled = 0;
    dbl::store()["/privacy/aur"] = "1";
    int seen_at_rename = 99;
    dbl::push("rename", dbl::then(dbl::fail(EACCES), [&] { seen_at_rename = last_aur_enabled; }));

    EXPECT_FALSE(update_aur_config(ald::kPrivacySettingKey));
    EXPECT_EQ(seen_at_rename, 0);
    EXPECT_EQ(last_aur_enabled, 0);
    EXPECT_EQ(read_file(config_file()), kOriginal);

    // The same value is tried again, and only now remembered.
    dbl::push("rename", rename_through([&] { seen_at_rename = last_aur_enabled; }));
    EXPECT_TRUE(update_aur_config(ald::kPrivacySettingKey));
    EXPECT_EQ(seen_at_rename, 0);
    EXPECT_EQ(last_aur_enabled, 1);
    EXPECT_EQ(member("aur_enabled"), "true");
}

TEST_F(AurConfig, MissingFileAfterTheStopKeepsTheLastValue) {
    last_aur_enabled = 0;
    dbl::store()["/privacy/aur"] = "1";
    std::remove(config_file().c_str());
    updater_running();
    const auto mark = dbl::journal().size();

    EXPECT_FALSE(update_aur_config(ald::kPrivacySettingKey));
    EXPECT_EQ(child_pid, 0);  // already stopped when the load failed
    EXPECT_EQ(count_since(mark, "kill 2000000000 15"), 1);
    EXPECT_EQ(since(mark).back(), "log error update_aur_config: failed to load config json");
    EXPECT_EQ(count_since(mark, "rename "), 0);
    EXPECT_EQ(last_aur_enabled, 0);

    // A later notification with the same value tries again.
    write_file(config_file(), kOriginal);
    EXPECT_TRUE(update_aur_config(ald::kPrivacySettingKey));
    EXPECT_EQ(member("aur_enabled"), "true");
    EXPECT_EQ(last_aur_enabled, 1);
}

// ---- update_lan_config -----------------------------------------------------

using LanConfig = Updaters;

TEST_F(LanConfig, WritesTheListInItsOrderAndTheStoredAppId) {
    lan_interfaces = {"wan0", "br0", "eth1"};  // kept as given, not re-sorted
    dbl::store()["/system/app_id"] = "org.example.other";
    child_pid = kChild;

    EXPECT_TRUE(update_lan_config());
    EXPECT_EQ(member("pcap_device"), R"(["wan0","br0","eth1"])");
    EXPECT_EQ(member("connect_appid"), R"("org.example.other")");
    EXPECT_EQ(member("owner"), R"({"keep":[1,"two"]})");
    EXPECT_EQ(member("var_path"), R"("/var/x")");
    EXPECT_EQ(member("aur_enabled"), R"("stale")");
    // Stopping the updater is the caller's job.
    EXPECT_TRUE(dbl::journal("kill ").empty());
    EXPECT_EQ(child_pid, kChild);
    EXPECT_EQ(lan_interfaces, (std::vector<std::string>{"wan0", "br0", "eth1"}));
}

TEST_F(LanConfig, EmptyListAndAbsentAppId) {
    EXPECT_TRUE(update_lan_config());
    EXPECT_EQ(member("pcap_device"), "[]");
    EXPECT_EQ(dbl::journal("setMgmt::getKeyValue"),
              std::vector<std::string>{"setMgmt::getKeyValue /system/app_id com.aldrana.sorvelupd"});
    EXPECT_EQ(member("connect_appid"), R"("com.aldrana.sorvelupd")");
}

TEST_F(LanConfig, NameTheJsonLibraryRefusesIsLeftOut) {
    lan_interfaces = {"br0", "\xff\xfe", "caf\xc3\xa9", "eth1"};
    EXPECT_TRUE(update_lan_config());
    EXPECT_EQ(member("pcap_device"), "[\"br0\",\"caf\xc3\xa9\",\"eth1\"]");
}

TEST_F(LanConfig, MissingFileWritesNothing) {
    lan_interfaces = {"br0"};
    std::remove(config_file().c_str());
    EXPECT_FALSE(update_lan_config());
    // Not even the application id is read.
    EXPECT_EQ(dbl::journal(), std::vector<std::string>{"log error update_lan_config: failed to load config json"});
    ASSERT_EQ(dbl::log_lines().size(), 1u);
    EXPECT_EQ(dbl::log_lines()[0].level, 0);
    EXPECT_NE(::access(config_file().c_str(), F_OK), 0);
}

TEST_F(LanConfig, ArrayThatCannotBeMadeWritesNothing) {
    lan_interfaces = {"br0"};
    dbl::push("json_array", dbl::ok(0));
    EXPECT_FALSE(update_lan_config());
    EXPECT_EQ(dbl::journal("log "), std::vector<std::string>{"log error update_lan_config: failed to allocate json array"});
    EXPECT_TRUE(dbl::journal("setMgmt::").empty()) << "gave up before the application id";
    EXPECT_TRUE(dbl::journal("rename").empty());
    EXPECT_EQ(read_file(config_file()), kOriginal);
}

TEST_F(LanConfig, FailedWriteIsReportedAndLeavesTheOldFile) {
    lan_interfaces = {"br0"};
    dbl::push("rename", dbl::fail(EXDEV));
    EXPECT_FALSE(update_lan_config());
    EXPECT_EQ(read_file(config_file()), kOriginal);
}

// The mutex guards only the copy: a holder of the lock delays the copy and
// nothing else, and the file is loaded and written with the lock free. The
// file is a FIFO so that the test can act while the load is under way.
TEST_F(LanConfig, LockIsHeldOnlyForTheCopy) {
    std::remove(config_file().c_str());
    ASSERT_EQ(::mkfifo(config_file().c_str(), 0644), 0);
    lan_interfaces = {"old0"};
    std::unique_lock<std::mutex> held(lan_mutex);

    const auto mark = dbl::journal().size();
    bool free_at_write = false;
    bool free_at_appid = false;
    dbl::push("rename", rename_through([&] { free_at_write = lan_mutex_free(); }));
    dbl::push("setMgmt::getKeyValue", dbl::then(dbl::ok(), [&] { free_at_appid = lan_mutex_free(); }));
    std::atomic<bool> done{false};
    bool result = false;
    std::thread updater([&] {
        result = update_lan_config();
        done = true;
    });

    std::this_thread::sleep_for(100ms);
    EXPECT_FALSE(done);
    EXPECT_EQ(since(mark), std::vector<std::string>{});  // neither the store nor the file yet
    lan_interfaces = {"br0", "eth1"};
    held.unlock();

    // Wait for the reader of the FIFO, i.e. for the load to begin.
    int fifo = -1;
    for (int i = 0; i < 500 && fifo < 0; ++i) {
        fifo = __real_open(config_file().c_str(), O_WRONLY | O_NONBLOCK);
        if (fifo < 0) std::this_thread::sleep_for(10ms);
    }
    if (fifo < 0) {
        updater.join();
        FAIL() << "update_lan_config never opened the file";
    }
    const bool free_at_load = lan_mutex.try_lock();
    if (free_at_load) {
        lan_interfaces = {"late0"};  // too late for this rewrite
        lan_mutex.unlock();
    }
    const std::string doc = R"({"marker": 7})";
    EXPECT_EQ(__real_write(fifo, doc.data(), doc.size()), static_cast<ssize_t>(doc.size()));
    __real_close(fifo);
    updater.join();

    EXPECT_TRUE(result);
    EXPECT_TRUE(free_at_load);
    EXPECT_TRUE(free_at_appid);
    EXPECT_TRUE(free_at_write);
    EXPECT_EQ(member("marker"), "7");
    EXPECT_EQ(member("pcap_device"), R"(["br0","eth1"])");
}

}  // namespace
