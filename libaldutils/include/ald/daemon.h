// SPDX-License-Identifier: MIT
#pragma once
// The daemon framework: command line, stop pipe, and the two hooks.
#include <functional>
#include <memory>

namespace ald {
namespace daemon {

class Instance {
public:
    // Called once by run(). false means the daemon has already released
    // everything it opened; run() then returns 1 and never calls run_hook.
    std::function<bool()> init_hook;
    // Called once, after init_hook returned true; its result is run()'s.
    std::function<int()> run_hook;
    // The daemon's stop flag. The framework keeps the address for the daemon
    // and never writes through it: a stop request arrives on the stop pipe.
    bool* stop_flag = nullptr;

    // The read end of the stop pipe, handed over once: the caller owns it
    // from then on and closes it. The pipe is close-on-exec; SIGTERM, SIGINT
    // and SIGHUP each write one byte into it. Returns -1 (errno set) when the
    // pipe or the signal handlers cannot be set up, and on a second call.
    int on_stop_pipe();

    // Drives the hooks as described above. A hook that throws counts as a
    // failure: the exception is logged and run() returns 1.
    int run();

    Instance(const Instance&) = delete;
    Instance& operator=(const Instance&) = delete;
    ~Instance();

private:
    Instance() = default;
    friend std::shared_ptr<Instance> instance(int argc, char** argv);

    int stop_read_ = -1;
    int stop_write_ = -1;
    bool handed_over_ = false;
};

// The process's instance, never empty; the first call parses the framework's
// options and later calls return the same instance while it is alive.
//   -l N, --log-level=N   sets ald::log::current_level to the integer N
//   -h, --help            prints usage to standard output and exits 0
//   --version             prints the program's name and ald::version() and exits 0
// Anything else (unknown option, a level that is not an int, an operand)
// prints a usage error to standard error and exits 2. SIGPIPE is ignored.
std::shared_ptr<Instance> instance(int argc, char** argv);

}  // namespace daemon
}  // namespace ald
