// init: the order of its steps, the descriptors it builds and their flags,
// the first LAN list, and for every failing step its two lines and exactly
// which descriptors are closed, in which order. Also epoll_watch.
#include "config.h"
#include "fixture.h"
#include "real.h"
#include "hooks.h"
#include "state.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <functional>
#include <jansson.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <unistd.h>


namespace {

using lines = std::vector<std::string>;

bool is_open(int fd) { return fd >= 0 && ::fcntl(fd, F_GETFD) != -1; }

int open_descriptors() {
    int n = 0;
    if (DIR* dir = ::opendir("/proc/self/fd")) {
        while (::readdir(dir)) ++n;
        ::closedir(dir);
    }
    return n;
}

std::vector<ald::netMgmt::Interface> report(const std::vector<std::string>& names) {
    std::vector<ald::netMgmt::Interface> out;
    for (const auto& name : names) {
        ald::netMgmt::Interface interface;
        interface.name = name;
        out.push_back(interface);
    }
    return out;
}

std::string ctl(const char* op, int fd) {
    return std::string("epoll_ctl ") + op + ' ' + std::to_string(fd) + " 0x1 " + std::to_string(fd);
}

// write_config's temporary file is made (opened and closed again) by the
// platform; those two entries say nothing about init.
lines without_temp_files(const lines& journal) {
    const std::string temp = "open " + path_string(config_directory()) + "/.";
    lines out;
    for (std::size_t i = 0; i < journal.size(); ++i) {
        if (journal[i].compare(0, temp.size(), temp) == 0) {
            if (i + 1 < journal.size() && journal[i + 1].compare(0, 6, "close ") == 0) ++i;
            continue;
        }
        out.push_back(journal[i]);
    }
    return out;
}

class Init : public DaemonTest {
protected:
    void SetUp() override {
        DaemonTest::SetUp();
        // Unblocked here, so that a block seen afterwards is init's.
        sigset_t chld;
        __real_sigemptyset(&chld);
        __real_sigaddset(&chld, SIGCHLD);
        pthread_sigmask(SIG_UNBLOCK, &chld, nullptr);

        int stop[2];
        ASSERT_EQ(__real_pipe2(stop, O_CLOEXEC | O_NONBLOCK), 0);
        stop_fd = stop[0];
        stop_write_ = stop[1];
        write_file(config_file(), R"({"var_path": "/var/x", "pcap_device": ["old0"]})");
    }

    void TearDown() override {
        if (initialised_)
            for (int fd : {lan_pipe[0], lan_pipe[1], signal_fd, epoll_fd, stop_fd}) __real_close(fd);
        __real_close(stop_write_);
        DaemonTest::TearDown();
    }

    bool run_init() {
        initialised_ = init();
        return initialised_;
    }

    static std::string pcap_device() {
        json_ptr doc(json_load_file(config_file().c_str(), 0, nullptr));
        json_t* value = doc ? json_object_get(doc.get(), "pcap_device") : nullptr;
        if (!value) return "<missing>";
        char* text = json_dumps(value, JSON_COMPACT);
        std::string out = text ? text : "";
        std::free(text);
        return out;
    }

    int stop_write_ = -1;
    bool initialised_ = false;
};

// ---- success -------------------------------------------------------------------

TEST_F(Init, StepsRunInOrderWithTheirFlags) {
    dbl::lan_report() = report({"wan0", "br0", "br0"});
    ASSERT_TRUE(run_init());

    const lines expected = {
        "log info init: start ald sorvelupd daemon",
        "epoll_create 1",
        ctl("MOD", stop_fd),
        ctl("ADD", stop_fd),
        "sigemptyset",
        "sigaddset 17",
        "sigprocmask BLOCK {17}",
        "signalfd -1 {17} 0x800",  // SFD_NONBLOCK, no SFD_CLOEXEC
        ctl("MOD", signal_fd),
        ctl("ADD", signal_fd),
        "pipe2 0x800",  // O_NONBLOCK, no O_CLOEXEC
        ctl("MOD", lan_pipe[0]),
        ctl("ADD", lan_pipe[0]),
        "setMgmt::init true",
        "netMgmt::init true",
        "netMgmt::set_on_lan_interface_change",
        "netMgmt::get_lan_interfaces",
        "json_array",
        "setMgmt::getKeyValue /system/app_id com.aldrana.sorvelupd",
    };
    lines journal = without_temp_files(dbl::journal());
    ASSERT_FALSE(journal.empty());
    EXPECT_EQ(journal.back().compare(0, 7, "rename "), 0) << journal.back();
    journal.pop_back();
    EXPECT_EQ(journal, expected);

    EXPECT_EQ(lan_interfaces, (lines{"br0", "br0", "wan0"}));
    EXPECT_EQ(pcap_device(), R"(["br0","br0","wan0"])");
    EXPECT_TRUE(dbl::lan_callback());
}

TEST_F(Init, DescriptorsAreNonBlockingAndInheritable) {
    ASSERT_TRUE(run_init());
    for (int fd : {epoll_fd, signal_fd, lan_pipe[0], lan_pipe[1]}) {
        SCOPED_TRACE(fd);
        ASSERT_TRUE(is_open(fd));
        EXPECT_EQ(::fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
    }
    for (int fd : {signal_fd, lan_pipe[0], lan_pipe[1]}) EXPECT_NE(::fcntl(fd, F_GETFL) & O_NONBLOCK, 0) << fd;

    sigset_t now;
    pthread_sigmask(SIG_BLOCK, nullptr, &now);
    EXPECT_EQ(sigismember(&now, SIGCHLD), 1);
}

// Every source of the loop is really in the set, for reading, with the
// descriptor as the whole 64-bit data word.
TEST_F(Init, EpollSetHoldsTheThreeSourcesByDescriptor) {
    ASSERT_TRUE(run_init());
    ASSERT_EQ(__real_write(stop_write_, "x", 1), 1);
    ASSERT_EQ(__real_write(lan_pipe[1], ".", 1), 1);
    ASSERT_EQ(::raise(SIGCHLD), 0);  // blocked: waits in signal_fd

    epoll_event events[8] = {};
    const int n = __real_epoll_wait(epoll_fd, events, 8, 1000);
    ASSERT_EQ(n, 3);
    std::vector<std::uint64_t> seen;
    for (int i = 0; i < n; ++i) {
        EXPECT_EQ(events[i].events, static_cast<std::uint32_t>(EPOLLIN));
        seen.push_back(events[i].data.u64);
    }
    std::sort(seen.begin(), seen.end());
    std::vector<std::uint64_t> want{static_cast<std::uint64_t>(stop_fd), static_cast<std::uint64_t>(signal_fd),
                                    static_cast<std::uint64_t>(lan_pipe[0])};
    std::sort(want.begin(), want.end());
    EXPECT_EQ(seen, want);

    char record[128];
    EXPECT_EQ(__real_read(signal_fd, record, sizeof record), 128);
}

TEST_F(Init, LanKeysAreWrittenWhateverTheFirstListFound) {
    // The same list as already stored: no exchange, still a rewrite.
    lan_interfaces = {"br0"};
    dbl::lan_report() = report({"br0"});
    ASSERT_TRUE(run_init());
    EXPECT_EQ(dbl::journal("rename ").size(), 1u);
    EXPECT_EQ(lan_interfaces, lines{"br0"});
    EXPECT_EQ(pcap_device(), R"(["br0"])");
}

TEST_F(Init, EmptyFirstListEmptiesTheStoredOneAndIsWritten) {
    lan_interfaces = {"stale0"};
    ASSERT_TRUE(run_init());
    EXPECT_EQ(lan_interfaces, lines{});
    EXPECT_EQ(pcap_device(), "[]");
}

// A change reported while init takes its first list wakes the loop through
// the pipe, which is open by then; the list that init reads is the one kept.
TEST_F(Init, ChangeDuringTheFirstListWakesTheLoop) {
    dbl::lan_report() = report({"wan0", "br1"});
    dbl::push("netMgmt::get_lan_interfaces", dbl::then(dbl::ok(0), [] {
        auto registered = dbl::lan_callback();
        ASSERT_TRUE(registered);
        registered(report({"br0"}));
    }));
    ASSERT_TRUE(run_init());
    char byte = 0;
    EXPECT_EQ(__real_read(lan_pipe[0], &byte, 1), 1);
    EXPECT_EQ(byte, '.');
    EXPECT_EQ(lan_interfaces, (lines{"br1", "wan0"}));
}

TEST_F(Init, FailedLanRewriteDoesNotFailInit) {
    std::remove(config_file().c_str());
    ASSERT_TRUE(run_init());
    EXPECT_EQ(dbl::journal().back(), "log error update_lan_config: failed to load config json");
    EXPECT_TRUE(dbl::journal("close ").empty());
    EXPECT_TRUE(dbl::journal("log info init: stop").empty());
    for (int fd : {stop_fd, epoll_fd, signal_fd, lan_pipe[0], lan_pipe[1]}) EXPECT_TRUE(is_open(fd)) << fd;
}

// ---- failures --------------------------------------------------------------------

enum class cleanup { A, B, C, D };

struct failure {
    const char* name;
    std::function<void()> script;
    const char* message;
    cleanup closes;
};

const failure kFailures[] = {
    {"epoll_create", [] { dbl::push("epoll_create", dbl::fail(EMFILE)); }, "failed to open epoll", cleanup::A},
    {"stop pipe modify refused", [] { dbl::push("epoll_ctl", dbl::fail(EBADF)); },
     "failed to add stop exec fd to epoll", cleanup::B},
    {"stop pipe add refused",
     [] {
         dbl::push("epoll_ctl", dbl::fail(ENOENT));
         dbl::push("epoll_ctl", dbl::fail(ENOMEM));
     },
     "failed to add stop exec fd to epoll", cleanup::B},
    {"sigemptyset", [] { dbl::push("sigemptyset", dbl::fail(EINVAL)); }, "failed to init signal mask", cleanup::B},
    {"sigaddset", [] { dbl::push("sigaddset", dbl::fail(EINVAL)); }, "failed to add SIGCHLD to signal mask",
     cleanup::B},
    {"sigprocmask", [] { dbl::push("sigprocmask", dbl::fail(EINVAL)); }, "failed to change signal mask", cleanup::B},
    {"signalfd", [] { dbl::push("signalfd", dbl::fail(ENFILE)); }, "failed to open signal fd", cleanup::B},
    {"signal fd registration",
     [] {
         dbl::push("epoll_ctl", dbl::ok(0));
         dbl::push("epoll_ctl", dbl::fail(EPERM));
     },
     "failed to add signal fd to epoll", cleanup::C},
    {"pipe2", [] { dbl::push("pipe2", dbl::fail(EMFILE)); }, "failed to create update lan pipe", cleanup::C},
    {"lan pipe registration",
     [] {
         dbl::push("epoll_ctl", dbl::ok(0));
         dbl::push("epoll_ctl", dbl::ok(0));
         dbl::push("epoll_ctl", dbl::fail(ENOENT));
         dbl::push("epoll_ctl", dbl::fail(ENOSPC));
     },
     "failed to add update lan pipe to epoll", cleanup::D},
    {"setMgmt::init", [] { dbl::push("setMgmt::init", dbl::fail(EIO)); }, "failed to init aldsetmgmt", cleanup::D},
    {"netMgmt::init", [] { dbl::push("netMgmt::init", dbl::fail(EIO)); }, "failed to init aldnetmgmt", cleanup::D},
};

void PrintTo(const failure& f, std::ostream* out) { *out << f.name; }

class InitFailure : public Init, public ::testing::WithParamInterface<failure> {};

TEST_P(InitFailure, LogsTwoLinesAndClosesWhatWasOpenedNewestFirst) {
    const failure& f = GetParam();
    const int descriptors_before = open_descriptors();
    f.script();

    EXPECT_FALSE(init());

    std::vector<int> closed;
    switch (f.closes) {
    case cleanup::D: closed.insert(closed.end(), {lan_pipe[0], lan_pipe[1]}); [[fallthrough]];
    case cleanup::C: closed.push_back(signal_fd); [[fallthrough]];
    case cleanup::B: closed.push_back(epoll_fd); [[fallthrough]];
    case cleanup::A: closed.push_back(stop_fd);
    }
    lines tail{std::string("log error init: ") + f.message};
    if (f.closes == cleanup::D && std::string(f.name) == "netMgmt::init") tail.push_back("setMgmt::uninit");
    for (int fd : closed) tail.push_back("close " + std::to_string(fd));
    tail.push_back("log info init: stop ald sorvelupd daemon");

    const lines journal = dbl::journal();
    ASSERT_GE(journal.size(), tail.size());
    EXPECT_EQ(lines(journal.end() - static_cast<long>(tail.size()), journal.end()), tail);
    EXPECT_EQ(journal.front(), "log info init: start ald sorvelupd daemon");
    EXPECT_EQ(dbl::journal("setMgmt::uninit").size(), std::string(f.name) == "netMgmt::init" ? 1u : 0u);
    EXPECT_TRUE(dbl::journal("netMgmt::set_on_lan_interface_change").empty());

    const auto logged = dbl::log_lines();
    ASSERT_EQ(logged.size(), 3u);
    EXPECT_EQ(logged[1].level, 0);
    EXPECT_EQ(logged[2].level, 2);

    // Closed for real, and nothing that init opened is left behind.
    for (int fd : closed) EXPECT_FALSE(is_open(fd)) << fd;
    EXPECT_EQ(open_descriptors(), descriptors_before - 1);
}

INSTANTIATE_TEST_SUITE_P(EachStep, InitFailure, ::testing::ValuesIn(kFailures),
                         [](const ::testing::TestParamInfo<failure>& step) {
                             std::string name;
                             for (const char* c = step.param.name; *c; ++c)
                                 name += std::isalnum(static_cast<unsigned char>(*c)) ? *c : '_';
                             return name;
                         });

// ---- epoll_watch -------------------------------------------------------------------

class EpollWatch : public DaemonTest {
protected:
    void SetUp() override {
        DaemonTest::SetUp();
        epoll_fd = __real_epoll_create(1);
        ASSERT_GE(epoll_fd, 0);
        ASSERT_EQ(__real_pipe2(pipe_, O_NONBLOCK), 0);
    }
    void TearDown() override {
        for (int fd : {pipe_[0], pipe_[1], epoll_fd}) __real_close(fd);
        DaemonTest::TearDown();
    }
    int pipe_[2] = {-1, -1};
};

TEST_F(EpollWatch, DescriptorAlreadyInTheSetIsOnlyModified) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = pipe_[0];
    ASSERT_EQ(__real_epoll_ctl(epoll_fd, EPOLL_CTL_ADD, pipe_[0], &event), 0);

    EXPECT_TRUE(epoll_watch(pipe_[0]));
    EXPECT_EQ(dbl::journal(), lines{ctl("MOD", pipe_[0])});
}

TEST_F(EpollWatch, NewDescriptorIsAddedAfterENOENT) {
    EXPECT_TRUE(epoll_watch(pipe_[0]));
    EXPECT_EQ(dbl::journal(), (lines{ctl("MOD", pipe_[0]), ctl("ADD", pipe_[0])}));

    ASSERT_EQ(__real_write(pipe_[1], ".", 1), 1);
    epoll_event event{};
    ASSERT_EQ(__real_epoll_wait(epoll_fd, &event, 1, 1000), 1);
    EXPECT_EQ(event.data.u64, static_cast<std::uint64_t>(pipe_[0]));
}

TEST_F(EpollWatch, OtherModifyErrorsAreNotFollowedByAnAdd) {
    const int closed = pipe_[1];
    __real_close(closed);
    pipe_[1] = -1;
    EXPECT_FALSE(epoll_watch(closed));  // EBADF from the kernel
    dbl::push("epoll_ctl", dbl::fail(EPERM));
    EXPECT_FALSE(epoll_watch(pipe_[0]));
    EXPECT_EQ(dbl::journal(), (lines{ctl("MOD", closed), ctl("MOD", pipe_[0])}));
}

TEST_F(EpollWatch, RefusedAddFails) {
    dbl::push("epoll_ctl", dbl::fail(ENOENT));
    dbl::push("epoll_ctl", dbl::fail(ENOSPC));
    EXPECT_FALSE(epoll_watch(pipe_[0]));
    EXPECT_EQ(dbl::journal(), (lines{ctl("MOD", pipe_[0]), ctl("ADD", pipe_[0])}));
}

}  // namespace
