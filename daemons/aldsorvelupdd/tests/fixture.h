#pragma once
// The common ground of the daemon's unit tests: a clean double, the daemon
// state back at its initial values, pauses that cost no time, and an empty
// configuration directory under the test's ALD_ROOT.
#include "double.h"
#include "state.h"

#include <ald/error.h>
#include <ald/log.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <sys/stat.h>

class DaemonTest : public ::testing::Test {
protected:
    void SetUp() override {
        // Without a private root the tests would rewrite the machine's own
        // configuration directory.
        const char* root = std::getenv("ALD_ROOT");
        ASSERT_TRUE(root && *root) << "run the daemon's tests through ctest, which sets ALD_ROOT";
        dbl::reset();
        dbl::always("sleep", dbl::ok(0));
        ald::log::current_level = 2;
        alderrno.clear();
        // As the daemon starts. A test that runs init() or run() gives it a
        // pipe of its own first, or the daemon closes the test's stdin.
        stop_fd = 0;
        stop_requested = false;
        child_pid = 0;
        lan_interfaces.clear();
        epoll_fd = 0;
        signal_fd = 0;
        lan_pipe[0] = lan_pipe[1] = 0;
        last_aur_enabled = -1;
        make_dirs(config_dir());
        std::remove(config_file().c_str());
    }

    void TearDown() override { dbl::reset(); }

    static std::string config_dir() { return path_string(config_directory()); }
    static std::string config_file() { return path_string(config_path); }

    static void write_file(const std::string& path, const std::string& text) {
        std::ofstream out(path, std::ios::binary | std::ios::trunc);
        out << text;
    }
    static std::string read_file(const std::string& path) {
        std::ifstream in(path, std::ios::binary);
        std::ostringstream s;
        s << in.rdbuf();
        return s.str();
    }
    static void make_dirs(const std::string& path) {
        for (std::size_t i = 1; i <= path.size(); ++i)
            if (i == path.size() || path[i] == '/') ::mkdir(path.substr(0, i).c_str(), 0755);
    }
};
