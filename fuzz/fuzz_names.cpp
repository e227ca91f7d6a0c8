// The name-list rule of the LAN watch with arbitrary names: make_name_list
// and exchange_lan_interfaces over a series of reports.
//
// Input: the reports, one name a line; a line "--" ends a report. Names are
// any bytes but "\n" (an empty line is an empty name).
//
// Properties, for every report: the list is sorted by std::string's
// operator<, which orders bytes as unsigned characters with a proper prefix
// first; it holds the same multiset of names; the exchange reports a change
// exactly when the list differs from the kept one (count, then bytes at
// every position), after which lan_interfaces holds the new list and the
// argument the old one (the new one when unchanged); the same names in
// another order are no change.
#include "fuzz_check.h"
#include "lan_watch.h"
#include "state.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <vector>

namespace {

// The documented order, written out: unsigned bytes, then length.
bool byte_less(const std::string& a, const std::string& b) {
    const std::size_t common = std::min(a.size(), b.size());
    const int c = common ? std::memcmp(a.data(), b.data(), common) : 0;
    return c != 0 ? c < 0 : a.size() < b.size();
}

bool same_list(const std::vector<std::string>& a, const std::vector<std::string>& b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i)
        if (a[i].size() != b[i].size() || std::memcmp(a[i].data(), b[i].data(), a[i].size()) != 0) return false;
    return true;
}

std::map<std::string, long> counts(const std::vector<std::string>& names) {
    std::map<std::string, long> n;
    for (const std::string& name : names) ++n[name];
    return n;
}

std::vector<std::string> kept() {
    std::lock_guard<std::mutex> lock(lan_mutex);
    return lan_interfaces;
}

void check_report(const std::vector<std::string>& report) {
    std::vector<ald::netMgmt::Interface> interfaces;
    for (std::size_t i = 0; i < report.size(); ++i) {
        ald::netMgmt::Interface interface;
        interface.name = report[i];
        interface.index = static_cast<int>(i) + 1;
        interfaces.push_back(interface);
    }
    const std::vector<std::string> names = make_name_list(interfaces);
    FUZZ_CHECK(names.size() == report.size(), "%zu names from %zu interfaces", names.size(), report.size());
    FUZZ_CHECK(std::is_sorted(names.begin(), names.end()), "not sorted by operator<");
    for (std::size_t i = 1; i < names.size(); ++i)
        FUZZ_CHECK(!byte_less(names[i], names[i - 1]), "names %zu and %zu out of byte order", i - 1, i);
    FUZZ_CHECK(counts(names) == counts(report), "not the names of the report");

    const std::vector<std::string> previous = kept();
    const bool differs = !same_list(names, previous);
    std::vector<std::string> exchanged = names;
    const bool changed = exchange_lan_interfaces(exchanged);
    FUZZ_CHECK(changed == differs, "exchange reported %s for a list that %s", changed ? "a change" : "no change",
               differs ? "differs" : "is the same");
    FUZZ_CHECK(same_list(kept(), names), "lan_interfaces is not the new list");
    FUZZ_CHECK(same_list(exchanged, changed ? previous : names), "the argument does not hold the %s list",
               changed ? "old" : "new");

    // The same interfaces reported in reverse order change nothing.
    std::reverse(interfaces.begin(), interfaces.end());
    std::vector<std::string> again = make_name_list(interfaces);
    FUZZ_CHECK(same_list(again, names), "the order of the report changed the list");
    FUZZ_CHECK(!exchange_lan_interfaces(again), "the same names in another order counted as a change");
    FUZZ_CHECK(same_list(kept(), names), "lan_interfaces changed without a change");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    {
        std::lock_guard<std::mutex> lock(lan_mutex);
        lan_interfaces.clear();  // as the daemon starts
    }
    const char* p = reinterpret_cast<const char*>(data);
    const char* end = p + size;
    std::vector<std::string> report;
    while (p < end) {
        const char* eol = static_cast<const char*>(std::memchr(p, '\n', static_cast<std::size_t>(end - p)));
        if (!eol) eol = end;
        std::string line(p, eol);
        p = eol < end ? eol + 1 : end;
        if (line == "--") {
            check_report(report);
            report.clear();
        } else {
            report.push_back(std::move(line));
        }
    }
    check_report(report);
    return 0;
}
