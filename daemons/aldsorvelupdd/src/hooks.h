// SPDX-License-Identifier: MIT
#pragma once
// The framework's two hooks and the epoll registration they share.

// Opens the event loop's descriptors and starts the platform clients; on a
// failure closes everything opened so far, the stop pipe included.
bool init();

// The event loop: keeps one updater running and applies changes; returns 0
// after an orderly shutdown.
int run();

// Registers `fd` for EPOLLIN with the descriptor as the event's data:
// modify first, add only when the modify fails with ENOENT.
bool epoll_watch(int fd);
