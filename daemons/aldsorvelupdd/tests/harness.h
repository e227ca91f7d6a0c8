// SPDX-License-Identifier: MIT
#pragma once
// What the daemon's unit tests share: scripted failures of the calls on its
// failure paths (link-time wraps around the real C library and platform
// library), its pauses, the LAN callback it registers, and a fixture that
// gives each test a fresh ALD_ROOT, fresh daemon state and its log lines.
#include <ald/network.h>
#include <ald/replace.h>

#include <functional>
#include <gtest/gtest.h>
#include <set>
#include <string>
#include <sys/types.h>
#include <vector>

// The nth call (1-based) of the wrapped function `name` from now on fails
// with errno `err`; nth 0: every call.
void fail_call(const std::string& name, int nth, int err = 5);
int calls(const std::string& name);  // calls of a wrapped function in this test
// The nth call of ald::replace_file ("replace_file" to calls()) fails at
// `step` with errno `err`, touching no file, as the library reports it.
void fail_replace(ald::replace_step step, int nth, int err = 5);

extern int pauses;                               // sleep() calls of the daemon in this test
extern std::function<void()> on_pause;           // at each of them
extern std::function<void(int pass)> on_wait;    // before each epoll_wait, numbered from 1
extern ald::netMgmt::lan_change_callback lan_callback;  // what init registered
extern std::function<void()> on_uninit;         // as the network client is about to stop

// A child in a process group of its own: one that has exited with `status`
// (0 to 255; a zombie until reaped), or for kStubborn one that ignores
// SIGTERM and has a grandchild in its group. TearDown kills what is left.
constexpr int kStubborn = -1;
pid_t spawn_child(int status);

class DaemonTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // The daemon's lines so far, each as "level function: message".
    std::vector<std::string> log() const;
    // init() with a fresh stop pipe; stop() makes that pipe readable.
    bool start();
    void stop();
    void put(const std::string& file, const std::string& text);  // under etc/aldrana, directories made
    std::string get(const std::string& file) const;
    std::string conf_key(const char* name) const;  // its value in updater.conf, compact JSON
    static std::set<int> open_fds();

    std::string etc;  // $ALD_ROOT/etc/aldrana

private:
    int stop_write_ = -1;
    int saved_stderr_ = -1;
    std::string log_file_;
};
