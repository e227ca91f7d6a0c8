// SPDX-License-Identifier: MIT
// The daemon framework: options, the stop pipe and its signals, the hooks.
#include <ald/daemon.h>
#include <ald/log.h>
#include <ald/network.h>
#include <ald/version.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <getopt.h>
#include <string>
#include <unistd.h>

namespace ald {
namespace daemon {
namespace {

// The handler may only touch what is async-signal-safe: the write end lives
// here, not in the instance.
volatile sig_atomic_t g_stop_write = -1;

void on_stop_signal(int) {
    int saved = errno;
    int fd = g_stop_write;
    if (fd >= 0) {
        char byte = 's';
        (void)::write(fd, &byte, 1);
    }
    errno = saved;
}

const int kStopSignals[] = {SIGTERM, SIGINT, SIGHUP};

std::weak_ptr<Instance>& current() {
    static std::weak_ptr<Instance> instance;
    return instance;
}

const char* program_name(char** argv) {
    const char* name = (argv && argv[0]) ? argv[0] : "daemon";
    const char* slash = std::strrchr(name, '/');
    return slash ? slash + 1 : name;
}

void usage(std::FILE* out, const char* name) {
    std::fprintf(out,
                 "Usage: %s [-l N | --log-level=N] [--syslog] [-h | --help] [--version]\n"
                 "  -l, --log-level=N  log lines of level N and below (0 error, 1 warning,\n"
                 "                     2 info; default 2; a negative N silences the daemon)\n"
                 "  --syslog           log to the system log, each line at its priority,\n"
                 "                     instead of standard error\n"
                 "  -h, --help         print this help and exit\n"
                 "  --version          print the name and version and exit\n",
                 name);
}

[[noreturn]] void usage_error(const char* name, const char* what, const char* detail) {
    std::fprintf(stderr, "%s: %s%s%s\n", name, what, detail ? ": " : "", detail ? detail : "");
    usage(stderr, name);
    std::exit(2);
}

bool parse_level(const char* text, int& out) {
    if (!text || !*text) return false;
    errno = 0;
    char* end = nullptr;
    long v = std::strtol(text, &end, 10);
    if (errno != 0 || *end != '\0' || v < INT_MIN || v > INT_MAX) return false;
    out = static_cast<int>(v);
    return true;
}

void parse_options(int argc, char** argv) {
    const char* name = program_name(argv);
    static const option longopts[] = {
        {"log-level", required_argument, nullptr, 'l'},
        {"syslog", no_argument, nullptr, 's'},
        {"help", no_argument, nullptr, 'h'},
        {"version", no_argument, nullptr, 'v'},
        {nullptr, 0, nullptr, 0},
    };
    opterr = 0;
    optind = 0;  // full reset, so that a later instance parses afresh
    int c;
    while ((c = getopt_long(argc, argv, "+:l:h", longopts, nullptr)) != -1) {
        switch (c) {
        case 'l': {
            int level = 0;
            if (!parse_level(optarg, level)) usage_error(name, "log level is not an integer", optarg);
            log::current_level = level;
            break;
        }
        case 's':
            log::to_syslog(name);
            break;
        case 'h':
            usage(stdout, name);
            std::exit(0);
        case 'v':
            std::printf("%s %s\n", name, version());
            std::exit(std::fflush(stdout) == 0 && !std::ferror(stdout) ? 0 : 1);
        case ':':
            usage_error(name, "option needs a value", argv[optind - 1]);
        default:
            usage_error(name, "unknown option", argv[optind - 1]);
        }
    }
    if (optind < argc) usage_error(name, "unexpected operand", argv[optind]);
}

// The line goes through the threshold like every statement's.
void hook_failed(const char* what) {
    if (log::current_level < static_cast<int>(log::level::error)) return;
    log::print(0, log::level::error, basic_string_view<char>(std::string("daemon hook failed: ") + what));
}

}  // namespace

std::shared_ptr<Instance> instance(int argc, char** argv) {
    if (auto existing = current().lock()) return existing;
    // Started with 0, 1 or 2 closed, the first descriptor made would take
    // its place: a stop pipe on 2 would receive the first log line.
    int fd;
    while ((fd = ::open("/dev/null", O_RDWR)) >= 0 && fd <= 2) {
    }
    if (fd > 2) ::close(fd);
    parse_options(argc, argv);
    std::signal(SIGPIPE, SIG_IGN);
    std::shared_ptr<Instance> made(new Instance);
    current() = made;
    return made;
}

int Instance::on_stop_pipe() {
    if (handed_over_) {
        errno = EBUSY;
        return -1;
    }
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) < 0) return -1;
    // A burst of signals must never block the handler: extra bytes are
    // dropped once the pipe is full, one is enough.
    int flags = ::fcntl(fds[1], F_GETFL);
    if (flags < 0 || ::fcntl(fds[1], F_SETFL, flags | O_NONBLOCK) < 0) {
        int saved = errno;
        ::close(fds[0]);
        ::close(fds[1]);
        errno = saved;
        return -1;
    }
    stop_read_ = fds[0];
    stop_write_ = fds[1];
    g_stop_write = stop_write_;

    struct sigaction sa;
    std::memset(&sa, 0, sizeof sa);
    sa.sa_handler = on_stop_signal;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = SA_RESTART;
    for (int sig : kStopSignals) {
        if (sigaction(sig, &sa, nullptr) < 0) {
            int saved = errno;
            g_stop_write = -1;
            ::close(stop_read_);
            ::close(stop_write_);
            stop_read_ = stop_write_ = -1;
            errno = saved;
            return -1;
        }
    }
    handed_over_ = true;
    return stop_read_;
}

int Instance::run() {
    try {
        if (!init_hook || !init_hook()) return 1;
        return run_hook ? run_hook() : 0;
    } catch (const std::exception& e) {
        hook_failed(e.what());
    } catch (...) {
        hook_failed("unknown exception");
    }
    // The hooks' own cleanup was skipped: the monitor thread the library
    // started must not run on into static destruction.
    netMgmt::uninit();
    return 1;
}

Instance::~Instance() {
    if (stop_write_ >= 0) {
        for (int sig : kStopSignals) std::signal(sig, SIG_DFL);
        g_stop_write = -1;
        ::close(stop_write_);
    }
    // The read end belongs to whoever it was handed to.
}

}  // namespace daemon
}  // namespace ald
