// SPDX-License-Identifier: MIT
// The memory reference: a C++ program that does nothing, linked to the same
// shared libraries as the daemon (the platform library, jansson, and through
// the platform library libmnl; libstdc++ and libc), with one thread besides
// the main thread, both asleep. What the dynamic loader, the C and C++
// runtimes and two thread stacks cost before a program does any work of its
// own is its private dirty memory.
#include <thread>
#include <unistd.h>

int main() {
    std::thread idle([] {
        for (;;) pause();
    });
    for (;;) pause();
}
