// SPDX-License-Identifier: MIT
#include "supervision.h"

#include "config.h"
#include "log.h"
#include "state.h"
#include "status.h"

#include <ald/error.h>
#include <ald/process.h>
#include <ald/settings.h>

#include <csignal>
#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

static_assert(sizeof(signalfd_siginfo) == 128, "a signal record is 128 bytes");
// process_signal reads one whole record and relies on the kernel's layout,
// which is the same on 32- and 64-bit ABIs.
static_assert(offsetof(signalfd_siginfo, ssi_signo) == 0 && offsetof(signalfd_siginfo, ssi_pid) == 12,
              "the signal number leads the record, the sender's pid is at offset 12");

namespace {

constexpr char kUpdater[] = "/opt/aldrana/sorvel/sorvelupd";
constexpr char kUpdaterRoot[] = "/opt/aldrana/sorvel/";

struct stop_phase {
    int signal;
    int attempts;
    bool whole_group;
};
constexpr stop_phase kStopPhases[] = {{SIGTERM, 16, false}, {SIGKILL, 2, true}};

// The child's first failure: a pause, so that a child that cannot start is
// not restarted in a tight loop, then exit status 1.
[[noreturn]] void child_failed() {
    sleep(1);
    _exit(1);
}

[[noreturn]] void child_failed(int code) {
    alderrno.set(code);
    child_failed();
}

// Between fork and exec: system calls only, nothing allocated. The argument
// array lives on this stack; the environment was built before the fork.
[[noreturn]] void exec_updater(const char* output, char** envp) {
    char* const argv[] = {
        const_cast<char*>(kUpdater), const_cast<char*>("-r"), const_cast<char*>(kUpdaterRoot),
        const_cast<char*>("-c"), const_cast<char*>(config_path.c_str()), nullptr,
    };
    if (setpgid(0, 0) == -1) child_failed();
    // Neither truncated nor appended: new output overwrites old from offset 0.
    const int fd = open(output, O_WRONLY | O_CREAT, 0644);
    if (fd == -1) child_failed(1);
    if (dup2(fd, STDOUT_FILENO) == -1) child_failed(1);
    if (dup2(fd, STDERR_FILENO) == -1) child_failed(1);
    close(fd);
    execvpe(kUpdater, argv, envp);
    child_failed(1);
}

}  // namespace

void start_sorvelupd() {
    static const std::string env_key = "/daemons/aldsorvelupdd/env_vars";

    const std::string output = get_redirection_file();
    if (output.empty()) {
        ALD_LOG(error, "failed to get file for redirection");
        return;
    }

    ald::Environ environment;
    std::vector<std::string> names;
    std::vector<std::pair<std::string, std::string>> variables;
    if (ald::setMgmt::enumSubkeys(env_key, names) != -1) {
        for (const std::string& name : names) {
            std::string value;
            if (ald::setMgmt::getKey(env_key + "/" + name, value) == -1) continue;
            variables.emplace_back(name, std::move(value));
        }
    }
    for (const auto& variable : variables) environment.set(variable.first, variable.second, true);
    char** envp = environment.to_environ();

    child_pid = ald::fork({15, 2});
    if (child_pid == -1) {
        ALD_LOG(error, "failed to fork sorvelupd");
        child_pid = 0;
    } else if (child_pid == 0) {
        exec_updater(output.c_str(), envp);
    } else {
        status_started(child_pid);
    }
    ALD_LOG(info, "fork sorvelupd [pid %d]", child_pid);
}

void process_signal() {
    signalfd_siginfo record;
    std::memset(&record, 0, sizeof record);
    if (read(signal_fd, &record, sizeof record) < 0) ALD_LOG(error, "failed to read signal info");
    if (record.ssi_signo != SIGCHLD) return;
    // A sender outside our pid namespace reads as pid 0: with no child
    // recorded it must not reach waitpid(0), which would reap any child.
    if (child_pid == 0 || static_cast<pid_t>(record.ssi_pid) != child_pid) return;
    wait_sorvelupd();
    child_pid = 0;
    sleep(1);
}

bool wait_sorvelupd() {
    int status = 0;
    const pid_t reaped = waitpid(child_pid, &status, WNOHANG);
    if (reaped > 0) {
        status_ended(status);
        if (WIFEXITED(status)) {
            ALD_LOG(info, "sorvelupd [pid %d] has exited with status %d", child_pid, WEXITSTATUS(status));
        } else {
            ALD_LOG(info, "sorvelupd [pid %d] has exited", child_pid);
        }
        return true;
    }
    if (reaped == 0) {
        ALD_LOG(warning, "sorvelupd [pid %d] is still running", child_pid);
        return false;
    }
    ALD_LOG(error, "failed to wait for sorvelupd [pid %d]", child_pid);
    return false;
}

void kill_and_wait_sorvelupd() {
    const pid_t pid = child_pid;
    if (pid == 0) return;
    for (const stop_phase& phase : kStopPhases) {
        // The group is named by the pid read afresh when its phase begins.
        const pid_t target = phase.whole_group ? -child_pid : pid;
        for (int attempt = 0; attempt < phase.attempts; ++attempt) {
            if (kill(target, phase.signal) == -1) {
                ALD_LOG(error, "failed to send signal #%d to sorvelupd [pid %d]", phase.signal, child_pid);
            } else {
                ALD_LOG(info, "sent signal #%d to sorvelupd [pid %d]", phase.signal, child_pid);
                if (wait_sorvelupd()) {
                    child_pid = 0;
                    return;
                }
            }
            sleep(1);
        }
    }
}
