// SPDX-License-Identifier: MIT
#pragma once
// LAN interface names: the list kept in lan_interfaces and the wake-up of
// the event loop when it changes.
#include <ald/network.h>

#include <string>
#include <vector>

// The names of one report, in the order given, then sorted ascending with
// std::string's operator<; duplicates and empty names stay.
std::vector<std::string> make_name_list(const std::vector<ald::netMgmt::Interface>& interfaces);

// Under lan_mutex: when `names` differs from lan_interfaces, exchanges the
// two and returns true (`names` then holds the old list). Nothing is
// allocated and no I/O is done while the lock is held.
bool exchange_lan_interfaces(std::vector<std::string>& names);

// Writes one "." into lan_pipe[1] when poll says it is writable at once;
// never blocks (a full pipe already holds a wake-up).
void wake_event_loop();
