// The LAN watch: the name-list rule, the exchange under lan_mutex, and the
// callback that init registers, with its wake-up byte on a real pipe.
#include "config.h"
#include "fixture.h"
#include "real.h"
#include "hooks.h"
#include "lan_watch.h"
#include "state.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <jansson.h>
#include <thread>
#include <unistd.h>


namespace {

using names = std::vector<std::string>;

std::vector<ald::netMgmt::Interface> report(const names& list) {
    std::vector<ald::netMgmt::Interface> out;
    for (std::size_t i = 0; i < list.size(); ++i) {
        ald::netMgmt::Interface interface;
        interface.name = list[i];
        interface.index = static_cast<int>(i) + 1;
        out.push_back(interface);
    }
    return out;
}

names stored() {
    std::lock_guard<std::mutex> lock(lan_mutex);
    return lan_interfaces;
}

// ---- the name-list rule ------------------------------------------------------

TEST(NameList, OneSortedEntryPerInterface) {
    EXPECT_EQ(make_name_list(report({"wan0", "br0", "eth1"})), (names{"br0", "eth1", "wan0"}));
    EXPECT_EQ(make_name_list(report({})), names{});
    // Duplicates and empty names stay; nothing is trimmed.
    EXPECT_EQ(make_name_list(report({"br0", "", " br0", "br0", ""})), (names{"", "", " br0", "br0", "br0"}));
}

TEST(NameList, StringOrderOnUnsignedBytes) {
    // A proper prefix first; bytes compared unsigned, so 0xff after 'a'
    // and 0x80 after 'z'; an embedded NUL counts as a byte.
    EXPECT_EQ(make_name_list(report({"br0", "br", "b"})), (names{"b", "br", "br0"}));
    EXPECT_EQ(make_name_list(report({"\xff", "a", "\x80x", "Z"})), (names{"Z", "a", "\x80x", "\xff"}));
    const std::string with_nul("a\0b", 3);
    EXPECT_EQ(make_name_list(report({with_nul, "a", "a\x01"})), (names{"a", with_nul, "a\x01"}));
}

// ---- the exchange ------------------------------------------------------------

class Exchange : public DaemonTest {};

TEST_F(Exchange, EqualListIsNotAChange) {
    lan_interfaces = {"br0", "eth1"};
    names incoming{"br0", "eth1"};
    EXPECT_FALSE(exchange_lan_interfaces(incoming));
    EXPECT_EQ(incoming, (names{"br0", "eth1"}));
    EXPECT_EQ(lan_interfaces, (names{"br0", "eth1"}));
}

TEST_F(Exchange, AnyDifferenceIsAChange) {
    const std::pair<names, names> cases[] = {
        {{"br0"}, {"br0", "br0"}},                      // one more of the same
        {{"br0", "eth1"}, {}},                         // emptied
        {{"a"}, {std::string("a\0", 2)}},              // same C string, other length
        {{"br0", "eth1"}, {"br0", "eth2"}},            // one byte
    };
    for (const auto& c : cases) {
        lan_interfaces = c.first;
        names incoming = c.second;
        EXPECT_TRUE(exchange_lan_interfaces(incoming));
        EXPECT_EQ(lan_interfaces, c.second);
        EXPECT_EQ(incoming, c.first);  // the old list comes back to be destroyed outside
    }
}

// The new list is moved in, not copied: the stored vector and strings are
// the very storage the caller built, so nothing was allocated under the lock.
TEST_F(Exchange, NewListIsMovedInNotCopied) {
    lan_interfaces = {"old0"};
    names incoming{"a-name-too-long-for-any-small-string-buffer", "b-name-too-long-for-any-small-string-buffer"};
    const std::string* vector_storage = incoming.data();
    const char* string_storage = incoming[1].data();
    ASSERT_TRUE(exchange_lan_interfaces(incoming));
    EXPECT_EQ(lan_interfaces.data(), vector_storage);
    EXPECT_EQ(lan_interfaces[1].data(), string_storage);
}

// ---- the registered callback ---------------------------------------------------

class Callback : public DaemonTest {
protected:
    void SetUp() override {
        DaemonTest::SetUp();
        int stop[2];
        ASSERT_EQ(__real_pipe2(stop, O_CLOEXEC | O_NONBLOCK), 0);
        stop_fd = stop[0];
        stop_write_ = stop[1];
        write_file(config_file(), "{}");
        dbl::lan_report() = report({"eth1", "br0"});
        ASSERT_TRUE(init());
        initialised_ = true;
        callback_ = dbl::lan_callback();
        ASSERT_TRUE(callback_);
        mark_ = dbl::journal().size();
    }

    void TearDown() override {
        if (initialised_)
            for (int fd : {lan_pipe[0], lan_pipe[1], signal_fd, epoll_fd, stop_fd}) __real_close(fd);
        __real_close(stop_write_);
        DaemonTest::TearDown();
    }

    std::vector<std::string> since_mark() const {
        auto all = dbl::journal();
        return std::vector<std::string>(all.begin() + static_cast<long>(mark_), all.end());
    }
    // Everything waiting in the LAN pipe, read without the journal.
    static std::string pending() {
        std::string out;
        char buf[4096];
        ssize_t n;
        while ((n = __real_read(lan_pipe[0], buf, sizeof buf)) > 0) out.append(buf, static_cast<std::size_t>(n));
        return out;
    }
    std::string poll_entry() const { return "poll " + std::to_string(lan_pipe[1]) + ":0x4 0"; }
    std::string write_entry() const { return "write " + std::to_string(lan_pipe[1]) + " ."; }

    ald::netMgmt::lan_change_callback callback_;
    std::size_t mark_ = 0;
    int stop_write_ = -1;
    bool initialised_ = false;
};

TEST_F(Callback, SameNamesInAnotherOrderAreNoChange) {
    ASSERT_EQ(stored(), (names{"br0", "eth1"}));
    callback_(report({"br0", "eth1"}));  // what init stored, as the first callback
    callback_(report({"eth1", "br0"}));
    EXPECT_EQ(since_mark(), std::vector<std::string>{});
    EXPECT_EQ(pending(), "");
    EXPECT_EQ(stored(), (names{"br0", "eth1"}));
}

TEST_F(Callback, ChangeIsStoredThenOneByteWrittenWithoutWaiting) {
    callback_(report({"eth1", "br0", "br0"}));
    EXPECT_EQ(stored(), (names{"br0", "br0", "eth1"}));
    EXPECT_EQ(since_mark(), (std::vector<std::string>{poll_entry(), write_entry()}));
    EXPECT_EQ(pending(), ".");

    callback_(report({}));
    EXPECT_EQ(stored(), names{});
    EXPECT_EQ(pending(), ".");
    EXPECT_EQ(dbl::journal("write ").size(), 2u);
}

TEST_F(Callback, PollThatSaysNotWritableOrFailsMeansNoByte) {
    const std::pair<dbl::outcome, names> cases[] = {
        {dbl::ok(0), {"wan0"}},
        {dbl::fail(EINTR), {"wan0", "wan1"}},
    };
    for (const auto& c : cases) {
        dbl::push("poll", c.first);
        callback_(report(c.second));
        EXPECT_EQ(stored(), c.second);
    }
    EXPECT_EQ(since_mark(), (std::vector<std::string>{poll_entry(), poll_entry()}));
    EXPECT_EQ(pending(), "");
}

TEST_F(Callback, FullPipeGetsNoMoreBytesButTheListIsStored) {
    const std::string block(4096, '.');
    std::size_t filled = 0;
    while (__real_write(lan_pipe[1], block.data(), block.size()) > 0) filled += block.size();
    while (__real_write(lan_pipe[1], ".", 1) == 1) ++filled;
    ASSERT_EQ(errno, EAGAIN);

    callback_(report({"lan9"}));
    EXPECT_EQ(stored(), names{"lan9"});
    EXPECT_EQ(since_mark(), std::vector<std::string>{poll_entry()});
    EXPECT_EQ(pending().size(), filled);
}

TEST_F(Callback, FailedWriteIsIgnored) {
    dbl::push("write", dbl::fail(EPIPE));
    EXPECT_NO_THROW(callback_(report({"wan0"})));
    EXPECT_EQ(stored(), names{"wan0"});
}

// While the callback polls and writes, lan_mutex is free and already holds
// the new list, so a loop woken by the byte reads that list.
TEST_F(Callback, PipeIsTouchedOnlyAfterTheLockIsReleased) {
    auto observe = [](bool& free, names& seen) {
        std::thread probe([&] {
            if (lan_mutex.try_lock()) {
                free = true;
                seen = lan_interfaces;
                lan_mutex.unlock();
            }
        });
        probe.join();
    };
    bool free_at_poll = false, free_at_write = false;
    names at_poll, at_write;
    dbl::push("poll", dbl::then(dbl::ok(1), [&] { observe(free_at_poll, at_poll); }));
    dbl::push("write", dbl::then(dbl::ok(1), [&] { observe(free_at_write, at_write); }));

    callback_(report({"wan0", "br0"}));
    EXPECT_TRUE(free_at_poll);
    EXPECT_TRUE(free_at_write);
    EXPECT_EQ(at_poll, (names{"br0", "wan0"}));
    EXPECT_EQ(at_write, (names{"br0", "wan0"}));
}

// The callback from the network client's thread against the event loop's
// copies: every rewrite and every locked look sees one complete, sorted
// report, and each change leaves exactly one byte in the pipe.
TEST_F(Callback, RacingTheEventLoopNeverShowsAPartialList) {
    const auto first = report({"wan0", "br0", "eth1", "br0"});
    const auto second = report({"lan1"});
    const names first_sorted{"br0", "br0", "eth1", "wan0"};
    const names second_sorted{"lan1"};
    const names from_init{"br0", "eth1"};
    auto whole = [&](const names& list) { return list == first_sorted || list == second_sorted || list == from_init; };
    constexpr int kChanges = 20000;  // fits the pipe: one byte each

    std::atomic<bool> running{true};
    std::thread client([&] {
        for (int i = 0; i < kChanges; ++i) callback_(i % 2 == 0 ? second : first);
        running = false;
    });

    int rewrites = 0;
    bool all_whole = true;
    while (running || rewrites == 0) {
        const names seen = stored();
        all_whole = all_whole && whole(seen);
        if (!update_lan_config()) {
            ADD_FAILURE() << "rewrite failed";
            break;
        }
        ++rewrites;
        json_ptr doc(json_load_file(config_file().c_str(), 0, nullptr));
        ASSERT_TRUE(doc);
        names written;
        json_t* array = json_object_get(doc.get(), "pcap_device");
        for (std::size_t i = 0; i < json_array_size(array); ++i)
            written.push_back(json_string_value(json_array_get(array, i)));
        all_whole = all_whole && whole(written);
    }
    client.join();

    EXPECT_TRUE(all_whole);
    EXPECT_EQ(stored(), first_sorted);  // the last report
    EXPECT_EQ(pending().size(), static_cast<std::size_t>(kChanges));
}

}  // namespace
