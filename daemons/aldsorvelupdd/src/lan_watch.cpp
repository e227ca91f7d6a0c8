// SPDX-License-Identifier: MIT
#include "lan_watch.h"

#include "state.h"

#include <algorithm>
#include <poll.h>
#include <unistd.h>

std::vector<std::string> make_name_list(const std::vector<ald::netMgmt::Interface>& interfaces) {
    std::vector<std::string> names;
    names.reserve(interfaces.size());
    for (const ald::netMgmt::Interface& interface : interfaces) names.push_back(interface.name);
    std::sort(names.begin(), names.end());
    return names;
}

bool exchange_lan_interfaces(std::vector<std::string>& names) {
    std::lock_guard<std::mutex> lock(lan_mutex);
    if (names == lan_interfaces) return false;
    names.swap(lan_interfaces);
    return true;
}

void wake_event_loop() {
    pollfd writable{lan_pipe[1], POLLOUT, 0};
    if (poll(&writable, 1, 0) > 0) (void)!write(lan_pipe[1], ".", 1);
}
