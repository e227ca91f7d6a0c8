# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# The table of bench/run.sh from its values.tsv, with the targets' verdicts.

report() {
    awk -F'\t' '
    { v[$1] = $2 }
    function get(k) { return ((k in v) && v[k] != "") ? v[k] : "not measured" }
    function kib(b) { return (b ~ /^[0-9]+$/) ? sprintf("%.1f KiB", b / 1024) : b }
    function median(list,   n, a) { n = split(list, a, " "); return (n ? a[int((n + 1) / 2)] : "") }
    function libs(k,   n, a, i, out, kv) {
        if (!(k in v)) return "not measured"
        if (v[k] == "") return "none"
        n = split(v[k], a, " ")
        for (i = 1; i <= n; i++) { split(a[i], kv, "="); out = out ((i > 1) ? ", " : "") kv[1] " (" kib(kv[2]) ")" }
        return out
    }
    function libsum(k,   n, a, i, kv, s) {
        n = split(v[k], a, " ")
        for (i = 1; i <= n; i++) { split(a[i], kv, "="); s += kv[2] }
        return s
    }
    function total(prog, lib) { return ((prog in v) ? kib(v[prog] + libsum(lib)) : "not measured") }
    function verdict(ok) { return (ok ? "**MET**" : "**MISSED**") }
    # The four columns of a row: "figure (detail)" of each program.
    function with_detail(figure, detail,   out, i, p) {
        split("ours runsv s6 ref", p, " ")
        for (i = 1; i <= 4; i++) out = out sprintf(" %s (%s) |", get(figure "." p[i]), get(detail "." p[i]))
        return out
    }
    # "median (min-max, n N)" of a sorted list of whole numbers.
    function spread(k,   n, a) {
        n = split(v[k], a, " ")
        return (n ? sprintf("%d (%d-%d, n %d)", median(v[k]), a[1], a[n], n) : "not measured")
    }
    function restart_syscalls(name,   t, c) {
        t = v["restart.syscalls_total." name]; c = v["restart.traced_cycles." name]
        if (c == "" || c == 0) return "not measured"
        return sprintf("%.0f (%d calls over %d cycles: %s)", t / c, t, c, v["restart.syscalls." name])
    }
    END {
        printf "## Benchmark run of %s\n\n", get("machine.date")
        printf "Machine: %s, %s cores (%s guest), Linux %s; %s; %s; runit %s, s6 %s, jansson %s, %s.\n\n",
            get("machine.cpu"), get("machine.cores"), get("machine.virt"), get("machine.kernel"),
            get("machine.gcc"), get("machine.gcc_armhf"), get("machine.runit"), get("machine.s6"),
            get("machine.jansson"), get("machine.strace")

        printf "| | aldsorvelupdd | runsv | s6-supervise | reference program |\n"
        printf "|---|---|---|---|---|\n"
        printf "| Stripped size, x86-64 | %s (+ libaldutils.so %s) | %s | %s | |\n",
            kib(get("size.x86.ours")), kib(get("size.x86.ours_lib")), kib(get("size.x86.runsv")), kib(get("size.x86.s6"))
        printf "| Stripped size, armhf | %s (+ libaldutils.so %s) | %s | %s | |\n",
            kib(get("size.arm.ours")), kib(get("size.arm.ours_lib")), kib(get("size.arm.runsv")), kib(get("size.arm.s6"))
        printf "| Libraries needed beyond libc/libstdc++ (NEEDED, recursively), stripped, x86-64 | %s | %s | %s | |\n",
            libs("libs.x86.ours"), libs("libs.x86.runsv"), libs("libs.x86.s6")
        printf "| The same, armhf | %s | %s | %s | |\n", libs("libs.arm.ours"), libs("libs.arm.runsv"), libs("libs.arm.s6")
        printf "| C/C++ runtime libraries besides libc, armhf (shared with every other C++ program on the device) | %s | %s | %s | |\n",
            libs("rt.arm.ours"), libs("rt.arm.runsv"), libs("rt.arm.s6")
        printf "| armhf total: program + the libraries beyond libc/libstdc++ | %s | %s | %s | |\n",
            total("size.arm.ours", "libs.arm.ours"), total("size.arm.runsv", "libs.arm.runsv"), total("size.arm.s6", "libs.arm.s6")
        printf "| Idle Rss / Pss / Private_Dirty after 10 s (KiB) | %s / %s / %s | %s / %s / %s | %s / %s / %s | %s / %s / %s |\n",
            get("mem.rss.ours"), get("mem.pss.ours"), get("mem.private_dirty.ours"),
            get("mem.rss.runsv"), get("mem.pss.runsv"), get("mem.private_dirty.runsv"),
            get("mem.rss.s6"), get("mem.pss.s6"), get("mem.private_dirty.s6"),
            get("mem.rss.ref"), get("mem.pss.ref"), get("mem.private_dirty.ref")
        printf "| Idle system calls per second, all threads (strace -f -C over %s s) |%s\n",
            get("idle.strace_window_s"), with_detail("idle.syscalls_per_s", "idle.syscalls")
        printf "| Idle passes of the loop in that trace | %s after the attach (%s); the attach interrupts the wait in progress, its pass: %s; other threads: %s | | | |\n",
            get("idle.passes"), get("idle.pass_kinds"), get("idle.attach_pass"), get("idle.other_thread_calls")
        printf "| Idle wake-ups per second, all threads (untraced, %s s; tid:context switches) |%s\n",
            get("idle.window_s"), with_detail("idle.wakeups", "idle.wakeups_threads")
        printf "| CPU per idle hour (schedstat over the same %s s, x 3600/window) | %s ms | %s ms | %s ms | %s ms |\n",
            get("idle.window_s"), get("idle.cpu_ms_per_hour.ours"), get("idle.cpu_ms_per_hour.runsv"),
            get("idle.cpu_ms_per_hour.s6"), get("idle.cpu_ms_per_hour.ref")
        split("ours runsv s6", sup, " ")
        for (i = 1; i <= 3; i++) {
            k = "restart.exit_to_exec_ms." sup[i]
            n = split(v[k], a, " ")
            ex[i] = (n ? sprintf("%.1f ms (min %.1f, max %.1f, n %d); beyond 1 s: %.1f ms", median(v[k]), a[1], a[n], n, median(v[k]) - 1000) : "not measured")
            c = get("restart.cpu_ns_per_cycle." sup[i])
            cp[i] = ((c ~ /^[0-9]+$/) ? sprintf("%.0f us (over %d cycles)", c / 1000, v["restart.cycles." sup[i]]) : c)
        }
        printf "| Restart: exit to next exec, wall, median | %s | %s | %s | |\n", ex[1], ex[2], ex[3]
        printf "| Restart: supervisor CPU per cycle (all threads, untraced) | %s | %s | %s | |\n", cp[1], cp[2], cp[3]
        printf "| Restart: supervisor system calls per cycle (strace -C, own thread) | %s | %s | %s | |\n",
            restart_syscalls("ours"), restart_syscalls("runsv"), restart_syscalls("s6")
        n = split(v["lan.samples"], a, " ")
        lan = "not measured"
        if (n) {
            lan = sprintf("%.1f ms median (min %.1f, max %.1f, n %d); %d of the %d stops found the updater still running at their first poll and paused 1 s",
                median(v["lan.samples"]) / 1e6, a[1] / 1e6, a[n] / 1e6, n, v["lan.stops_paused"], n)
            fast = ""
            for (i = 1; i <= n; i++) if (a[i] < 5e8) fast = fast ((fast == "") ? "" : ", ") sprintf("%.1f", a[i] / 1e6)
            if (fast != "") lan = lan "; without that pause: " fast " ms"
        }
        printf "| LAN link added/deleted to updater.conf rewritten | %s | n/a | n/a | |\n", lan
        printf "\n"

        # Two boots: the kernel of the Debian release this machine runs, and that of Debian 11.
        nb = split("own bullseye", boot, " ")
        n = split("rss pss private_dirty", m, " ")
        printf "On 32-bit ARM kernels (qemu-system-arm -M virt, %s), two boots, /usr on an ext2 RAM disk in each; the floor is an empty C++ program on the same libraries with one idle thread, in the same boot:\n\n", get("arm.own.cpus")
        printf "| armhf, idle after 10 s (KiB) |"
        for (b = 1; b <= nb; b++) printf " aldsorvelupdd, %s | floor |", get("arm." boot[b] ".kernel")
        printf "\n|---|---|---|---|---|\n"
        for (i = 1; i <= n; i++) {
            printf "| %s |", m[i]
            for (b = 1; b <= nb; b++) printf " %s | %s |", get("arm." boot[b] ".mem." m[i] ".ours"), get("arm." boot[b] ".mem." m[i] ".ref")
            printf "\n"
        }
        printf "\nIdle system calls there, all threads (strace -f, 20 s):"
        for (b = 1; b <= nb; b++)
            printf " %s: %s calls, %s of them epoll_wait, %s threads%s", get("arm." boot[b] ".kernel"), get("arm." boot[b] ".idle.calls"),
                get("arm." boot[b] ".idle.epoll_waits"), get("arm." boot[b] ".threads.ours"), (b < nb ? ";" : ".\n\n")
        printf "| Fork of the updater to its exec, in the guest (us: median (min-max, n)) | RLIMIT_NOFILE 1024 | RLIMIT_NOFILE 1048576 |\n|---|---|---|\n"
        for (b = 1; b <= nb; b++)
            printf "| %s | %s | %s |\n", get("arm." boot[b] ".kernel"), spread("arm." boot[b] ".fork_exec_us.1024"), spread("arm." boot[b] ".fork_exec_us.1048576")
        printf "\nOne privacy change on UBIFS on a simulated NAND (%s, %s changes, each set and then waited for until the updater ran again, and a final sync): %s file flushes, %s writes to the flash, %s bytes written, per change.\n\n",
            get("flash.kernel"), get("flash.changes"), get("flash.flushes"), get("flash.writes"), get("flash.bytes")
        printf "The same on f2fs on a virtio disk, as on eMMC (%s, %s changes): %s file flushes, %s checkpoints, %s write requests to the disk, %s bytes written, per change.\n\n",
            get("flash_f2fs.kernel"), get("flash_f2fs.changes"), get("flash_f2fs.flushes"), get("flash_f2fs.checkpoints"),
            get("flash_f2fs.writes"), get("flash_f2fs.bytes")
        printf "Targets:\n\n"
        kinds = get("idle.pass_kinds")
        passes_ok = (v["idle.passes"] > 0 && kinds == ("epoll_ctl+epoll_wait=" v["idle.passes"]) && v["idle.other_thread_calls"] == "none")
        threads_ok = (v["idle.waking_threads.ours"] == 1)
        printf "- An idle pass makes exactly epoll_ctl + epoll_wait, and no other thread wakes: %s (%s passes traced: %s; other threads traced: %s; threads that switched context in the untraced window: %s of %s, %s)\n",
            verdict(passes_ok && threads_ok), get("idle.passes"), kinds, get("idle.other_thread_calls"),
            get("idle.waking_threads.ours"), get("idle.threads.ours"), get("idle.wakeups_threads.ours")
        pd = v["mem.private_dirty.ours"]; rd = v["mem.private_dirty.ref"]
        printf "- Idle Private_Dirty at most 1.15 x the reference program: %s (%s KiB against %s KiB: %.2f x)\n",
            verdict(rd > 0 && pd <= 1.15 * rd), pd, rd, ((rd > 0) ? pd / rd : 0)
        if ("size.arm.ours" in v)
            printf "- Stripped armhf daemon, platform library shared, at most 48 KiB: %s (%s bytes = %s)\n",
                verdict(v["size.arm.ours"] <= 48 * 1024), v["size.arm.ours"], kib(v["size.arm.ours"])
        else printf "- Stripped armhf daemon at most 48 KiB: not measured (no armhf build)\n"
        for (b = 1; b <= nb; b++) {
            pd = v["arm." boot[b] ".mem.private_dirty.ours"]; rd = v["arm." boot[b] ".mem.private_dirty.ref"]
            printf "- armhf, %s: idle Private_Dirty at most 1.15 x the armhf floor, same boot: %s (%s KiB against %s KiB: %.2f x)\n",
                get("arm." boot[b] ".kernel"), verdict(rd > 0 && pd <= 1.15 * rd), pd, rd, ((rd > 0) ? pd / rd : 0)
        }
        printf "\nNot measured here: CPU time, wake-ups and latencies on an armhf device (under emulation the emulator would be measured); power cuts (tests/armvm/powercut.sh, docs/reliability.md).\n"
    }' "$results/values.tsv"
}

