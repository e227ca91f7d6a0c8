// One rewrite of updater.conf as the daemon does it, against the least work
// that any program must do for the same result, on the same file, in the same
// process, interleaved so that both see the same cache and the same noise.
//
//   least work   read the file into a buffer that is kept between rounds,
//                create a new file in the same directory, write the bytes,
//                rename it over updater.conf
//   daemon       update_aur_config, the daemon's own handler and its objects
//                (settings read, the stop that finds no child, json_load_file,
//                the key set, write_config: temporary file, dump, rename);
//                also its parts alone: the load, and write_config
//   lean         not the daemon's code: what the same library can do with
//                the least work around it (the file read in one call into a
//                kept buffer, json_loadb, the key set, json_dumpb into a
//                kept buffer, one new file written in one call, rename), to
//                show how much of the difference is the library's own
//
// The daemon's objects are linked unchanged; its main stays in the binary
// and this file's entry point is reached through --wrap=main, as in the
// daemon's unit tests. ALD_ROOT must name a prepared root.
//
//   bench_rewrite SIZE ROUNDS [SIZE ROUNDS...]
//
// For each size, writes a document of exactly SIZE bytes (as the daemon
// serialises it) with the daemon's keys and foreign ones, then prints one
// line per measured operation:
//   op SIZE NAME cpu_median_ns wall_median_ns cpu_p90_ns wall_p90_ns rounds
#include "config.h"
#include "state.h"

#include <ald/log.h>
#include <ald/settings.h>

#include <jansson.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

long long now_ns(clockid_t clock) {
    timespec ts{};
    clock_gettime(clock, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

struct Samples {
    std::vector<long long> cpu, wall;
    void clear() { cpu.clear(), wall.clear(); }
};

struct Timer {
    long long cpu0 = now_ns(CLOCK_THREAD_CPUTIME_ID);
    long long wall0 = now_ns(CLOCK_MONOTONIC);
    void stop(Samples& s) const {
        const long long wall = now_ns(CLOCK_MONOTONIC) - wall0;
        s.cpu.push_back(now_ns(CLOCK_THREAD_CPUTIME_ID) - cpu0);
        s.wall.push_back(wall);
    }
};

long long quantile(std::vector<long long> v, double q) {
    std::sort(v.begin(), v.end());
    return v[static_cast<std::size_t>(q * static_cast<double>(v.size() - 1) + 0.5)];
}

void report(std::size_t size, const char* name, const Samples& s) {
    std::printf("op %zu %s %lld %lld %lld %lld %zu\n", size, name, quantile(s.cpu, 0.5), quantile(s.wall, 0.5),
                quantile(s.cpu, 0.9), quantile(s.wall, 0.9), s.cpu.size());
}

std::string dump(json_t* doc) {
    char* text = json_dumps(doc, JSON_INDENT(4));
    std::string out = text ? text : "";
    std::free(text);
    return out;
}

// An updater.conf of exactly `size` bytes as json_dump_file writes it with
// JSON_INDENT(4): the daemon's keys, then sections that belong to the
// updater alone (nested objects, arrays, numbers, null, non-ASCII text),
// then a padding string that makes up the rest.
json_t* make_document(std::size_t size, const std::string& var_path) {
    json_t* doc = json_object();
    json_object_set_new(doc, "var_path", json_string(var_path.c_str()));
    json_object_set_new(doc, "aur_enabled", json_true());
    json_t* devices = json_array();
    json_array_append_new(devices, json_string("br-lan"));
    json_object_set_new(doc, "pcap_device", devices);
    json_object_set_new(doc, "connect_appid", json_string("com.aldrana.sorvelupd"));
    json_object_set_new(doc, "padding", json_string(""));

    auto section = [](unsigned i) {
        char url[80];
        std::snprintf(url, sizeof url, "https://updates.example.net/v2/channel/%06u", i);
        json_t* s = json_object();
        json_object_set_new(s, "url", json_string(url));
        json_object_set_new(s, "retries", json_integer(i % 10));
        json_object_set_new(s, "backoff", json_real(1.5));
        json_object_set_new(s, "enabled", json_boolean(i % 2));
        json_t* tags = json_array();
        json_array_append_new(tags, json_string("stable"));
        json_array_append_new(tags, json_string("beta"));
        json_object_set_new(s, "channels", tags);
        json_object_set_new(s, "label", json_string("Wohnzimmer \xe2\x80\x93 Router \xe2\x98\x82"));
        json_object_set_new(s, "telemetry", json_null());
        return s;
    };
    auto key = [](unsigned i) {
        char k[24];
        std::snprintf(k, sizeof k, "section_%06u", i);
        return std::string(k);
    };

    const std::size_t base = dump(doc).size();
    json_object_set_new(doc, key(0).c_str(), section(0));
    const std::size_t per = dump(doc).size() - base;
    unsigned n = 1;
    while (base + (n + 1) * per <= size) {
        json_object_set_new(doc, key(n).c_str(), section(n));
        ++n;
    }
    std::size_t now = dump(doc).size();
    if (now > size) {
        std::fprintf(stderr, "bench_rewrite: %zu bytes is too small for a document\n", size);
        std::exit(2);
    }
    json_object_set_new(doc, "padding", json_string(std::string(size - now, 'x').c_str()));
    if (dump(doc).size() != size) {
        std::fprintf(stderr, "bench_rewrite: could not make a document of %zu bytes\n", size);
        std::exit(2);
    }
    return doc;
}

// The whole file into `buffer` (grown, never shrunk); its size in `size`.
bool read_all(const std::string& path, std::vector<char>& buffer, std::size_t& size) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    struct stat st;
    bool ok = fstat(fd, &st) == 0;
    size = ok ? static_cast<std::size_t>(st.st_size) : 0;
    if (buffer.size() < size) buffer.resize(size);
    for (std::size_t got = 0; ok && got < size;) {
        const ssize_t n = read(fd, buffer.data() + got, size - got);
        ok = n > 0;
        if (ok) got += static_cast<std::size_t>(n);
    }
    close(fd);
    return ok;
}

// A new file `temp` holding the bytes, then renamed over `conf`.
bool write_and_rename(const std::string& temp, const std::string& conf, const char* data, std::size_t size) {
    const int fd = open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0) return false;
    bool ok = true;
    for (std::size_t put = 0; ok && put < size;) {
        const ssize_t n = write(fd, data + put, size - put);
        ok = n > 0;
        if (ok) put += static_cast<std::size_t>(n);
    }
    close(fd);
    return ok && rename(temp.c_str(), conf.c_str()) == 0;
}

// The least work: the bytes of the old file into a kept buffer, a new file
// beside it, the bytes out, the rename.
__attribute__((noinline)) bool least_work(const std::string& conf, const std::string& temp, std::vector<char>& buffer) {
    std::size_t size = 0;
    return read_all(conf, buffer, size) && write_and_rename(temp, conf, buffer.data(), size);
}

__attribute__((noinline)) bool lean(const std::string& conf, const std::string& temp, std::vector<char>& in, std::vector<char>& out) {
    std::size_t size = 0;
    if (!read_all(conf, in, size)) return false;
    json_t* doc = json_loadb(in.data(), size, 0, nullptr);
    if (!doc) return false;
    json_object_set_new(doc, "aur_enabled", json_true());
    std::size_t need = json_dumpb(doc, out.data(), out.size(), JSON_INDENT(4));
    if (need > out.size()) {
        out.resize(need);
        need = json_dumpb(doc, out.data(), out.size(), JSON_INDENT(4));
    }
    json_decref(doc);
    return need != 0 && write_and_rename(temp, conf, out.data(), need);
}

[[noreturn]] void fail(const char* what) {
    std::fprintf(stderr, "bench_rewrite: %s failed: %s\n", what, std::strerror(errno));
    std::exit(1);
}

}  // namespace

extern "C" int __wrap_main(int argc, char** argv) {
    if (argc < 3 || argc % 2 == 0) {
        std::fprintf(stderr, "usage: %s SIZE ROUNDS [SIZE ROUNDS...]   (with ALD_ROOT set)\n", argv[0]);
        return 2;
    }
    const std::string conf = path_string(config_path);
    const std::string dir = conf.substr(0, conf.rfind('/'));
    const std::string temp = dir + "/.least-work";
    // The daemon's log lines would only measure the terminal.
    ald::log::current_level = -1;

    for (int a = 1; a + 1 < argc; a += 2) {
        const std::size_t size = std::strtoull(argv[a], nullptr, 10);
        const int rounds = std::atoi(argv[a + 1]);
        {
            json_t* doc = make_document(size, dir);
            if (json_dump_file(doc, conf.c_str(), JSON_INDENT(4)) != 0) fail("writing the document");
            json_decref(doc);
        }
        std::vector<char> buffer, lean_in, lean_out;
        Samples base, handler, load, write, leaner;
        // A tenth of the rounds, at least one, warms caches and is dropped.
        const int warm = std::max(1, rounds / 10);
        for (int r = -warm; r < rounds; ++r) {
            if (r == 0) base.clear(), handler.clear(), load.clear(), write.clear(), leaner.clear();
            {
                Timer t;
                if (!least_work(conf, temp, buffer)) fail("the least-work rewrite");
                t.stop(base);
            }
            {
                // The store has no value (1) and the last one written is made
                // to differ, so that every call rewrites the file.
                last_aur_enabled = 0;
                Timer t;
                if (!update_aur_config(ald::kPrivacySettingKey)) fail("update_aur_config");
                t.stop(handler);
            }
            {
                Timer t;
                json_ptr doc(json_load_file(config_path.c_str(), 0, nullptr));
                if (!doc) fail("json_load_file");
                t.stop(load);
                json_object_set_new(doc.get(), "aur_enabled", json_true());
                Timer w;
                if (!write_config(doc)) fail("write_config");
                w.stop(write);
            }
            {
                Timer t;
                if (!lean(conf, temp, lean_in, lean_out)) fail("the lean rewrite");
                t.stop(leaner);
            }
        }
        struct stat st;
        if (stat(conf.c_str(), &st) != 0) fail("stat");
        std::printf("size %zu %lld\n", size, static_cast<long long>(st.st_size));
        report(size, "least_work", base);
        report(size, "update_aur_config", handler);
        report(size, "json_load_file", load);
        report(size, "write_config", write);
        report(size, "lean", leaner);
        std::fflush(stdout);
    }
    return 0;
}
