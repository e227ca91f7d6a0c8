// The double's journal, scripts and platform state.
#include "double.h"
#include "internal.h"

#include <deque>
#include <mutex>

namespace dbl {
namespace {

struct state {
    std::mutex mutex;  // the LAN callback thread records and takes too
    std::vector<std::string> journal;
    std::vector<log_line> logs;
    std::map<std::string, std::deque<outcome>> once;
    std::map<std::string, outcome> standing;
    std::map<std::string, std::string> store;
    std::map<std::string, std::vector<std::string>> subkeys;
    std::vector<ald::netMgmt::Interface> lan_report;
};

state& global() {
    static state* s = new state;  // outlives every static destructor
    return *s;
}

}  // namespace

void reset() {
    state& s = global();
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        s.journal.clear();
        s.logs.clear();
        s.once.clear();
        s.standing.clear();
        s.store.clear();
        s.subkeys.clear();
        s.lan_report.clear();
    }
    detail::reset_platform();
}

void push(const std::string& call, outcome o) {
    std::lock_guard<std::mutex> lock(global().mutex);
    global().once[call].push_back(std::move(o));
}

void always(const std::string& call, outcome o) {
    std::lock_guard<std::mutex> lock(global().mutex);
    global().standing[call] = std::move(o);
}

void pass(const std::string& call) {
    std::lock_guard<std::mutex> lock(global().mutex);
    global().standing.erase(call);
}

bool take(const std::string& call, outcome& o) {
    {
        std::lock_guard<std::mutex> lock(global().mutex);
        auto& q = global().once[call];
        if (!q.empty()) {
            o = std::move(q.front());
            q.pop_front();
        } else {
            auto it = global().standing.find(call);
            if (it == global().standing.end()) return false;
            o = it->second;
        }
    }
    if (o.before) o.before();
    return true;
}

void record(std::string entry) {
    std::lock_guard<std::mutex> lock(global().mutex);
    global().journal.push_back(std::move(entry));
}

std::vector<std::string> journal() {
    std::lock_guard<std::mutex> lock(global().mutex);
    return global().journal;
}

std::vector<std::string> journal(const std::string& prefix) {
    std::vector<std::string> out;
    for (auto& e : journal())
        if (e.compare(0, prefix.size(), prefix) == 0) out.push_back(e);
    return out;
}

long find(const std::string& entry, long from) {
    auto j = journal();
    for (long i = from < 0 ? 0 : from; i < static_cast<long>(j.size()); ++i)
        if (j[static_cast<std::size_t>(i)] == entry) return i;
    return -1;
}

std::vector<log_line> log_lines() {
    std::lock_guard<std::mutex> lock(global().mutex);
    return global().logs;
}

void detail::record_log(int level, std::string text) {
    std::lock_guard<std::mutex> lock(global().mutex);
    global().logs.push_back({level, std::move(text)});
}

std::map<std::string, std::string>& store() { return global().store; }
std::map<std::string, std::vector<std::string>>& subkeys() { return global().subkeys; }
std::vector<ald::netMgmt::Interface>& lan_report() { return global().lan_report; }

}  // namespace dbl
