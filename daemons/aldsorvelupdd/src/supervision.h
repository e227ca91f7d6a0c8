// SPDX-License-Identifier: MIT
#pragma once
// The updater child: launch, reap on SIGCHLD, and the bounded stop.

// Starts the updater when none is recorded; child_pid holds its pid, or 0
// when no child was created (the event loop tries again next pass).
void start_sorvelupd();

// Reads one record from signal_fd; a SIGCHLD from the recorded child reaps
// it, forgets it and pauses one second.
void process_signal();

// One non-blocking wait for child_pid (never 0 here); true when this call
// reaped it. child_pid is left to the caller.
bool wait_sorvelupd();

// 16 SIGTERMs to the child, then 2 SIGKILLs to its process group, polling
// after each delivered signal and pausing a second after each attempt that
// did not reap. child_pid becomes 0 only when the child was reaped.
void kill_and_wait_sorvelupd();
