# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# The measurements on this machine, run by bench/run.sh inside a private
# mount, network and pid namespace: the three supervisors idle (memory,
# system calls, wake-ups, CPU), a LAN link to a rewritten updater.conf, and
# restart cycles.

now_ns() { echo $((${EPOCHREALTIME/./} * 1000)); }

# tasks PID: one line per thread: tid, voluntary and involuntary context
# switches, CPU time in ns (schedstat's first field).
tasks() {
    local t tid vol nonvol cpu rest
    for t in /proc/"$1"/task/*; do
        tid=${t##*/}
        vol=$(awk '/^voluntary_ctxt_switches/ {print $2}' "$t/status" 2>/dev/null) || continue
        nonvol=$(awk '/^nonvoluntary_ctxt_switches/ {print $2}' "$t/status" 2>/dev/null) || continue
        read -r cpu rest <"$t/schedstat" || continue
        echo "$tid $vol $nonvol $cpu"
    done
}

cpu_ns() { tasks "$1" | awk '{s += $4} END {print s + 0}'; }

# idle_deltas NAME BEFORE AFTER SECONDS: wake-ups and CPU of every thread
# between two snapshots of tasks().
idle_deltas() {
    local name=$1 before=$2 after=$3 seconds=$4
    # Threads present at both ends; a thread that came or went is named.
    awk -v name="$name" -v secs="$seconds" '
        NR == FNR { v[$1] = $2; n[$1] = $3; c[$1] = $4; next }
        ($1 in v) {
            w = ($2 - v[$1]) + ($3 - n[$1]); cpu = $4 - c[$1]
            tw += w; tc += cpu; threads++
            per = per sprintf("%s%d:%d", per == "" ? "" : " ", $1, w)
            if (w > 0) waking++
            seen[$1] = 1; next
        }
        { per = per " " $1 ":new" }
        END {
            for (t in v) if (!(t in seen)) per = per " " t ":gone"
            printf "idle.wakeups.%s\t%.2f\n", name, tw / secs
            printf "idle.wakeups_threads.%s\t%s\n", name, per
            printf "idle.threads.%s\t%d\n", name, threads
            printf "idle.waking_threads.%s\t%d\n", name, waking
            printf "idle.cpu_ns.%s\t%d\n", name, tc
            printf "idle.cpu_ms_per_hour.%s\t%.2f\n", name, tc / secs * 3600 / 1e6
        }' "$before" "$after" >>"$results/values.tsv"
}

# count PATTERN FILE: lines of FILE that start with PATTERN.
count() {
    local n
    n=$(grep -c "^$1" "$2" 2>/dev/null)
    echo "${n:-0}"
}

# wait_count PATTERN FILE N SECONDS: until FILE has N lines starting with PATTERN.
wait_count() {
    local deadline=$(($(now_ns) + $4 * 1000000000))
    while [ "$(count "$1" "$2")" -lt "$3" ]; do
        [ "$(now_ns)" -lt "$deadline" ] || return 1
        sleep 0.02
    done
}

# wait_gone PID SECONDS
wait_gone() {
    local deadline=$(($(now_ns) + $2 * 1000000000))
    while kill -0 "$1" 2>/dev/null; do
        [ "$(now_ns)" -lt "$deadline" ] || return 1
        sleep 0.05
    done
}

smaps() {
    awk -v name="$1" '/^(Rss|Pss|Private_Dirty):/ {sub(":", "", $1); printf "mem.%s.%s\t%s\n", tolower($1), name, $2}' \
        "/proc/$2/smaps_rollup" >>"$results/values.tsv"
    cp "/proc/$2/smaps" "$results/smaps.$1"
}

# An ALD_ROOT with an updater.conf, as a device ships it.
ald_root() {
    local root=$1
    mkdir -p "$root/etc/aldrana/settings" "$root/var"
    cat >"$root/etc/aldrana/updater.conf" <<EOF
{
    "var_path": "$root/var",
    "server": {"url": "https://updates.example.net/v2/", "retries": 3},
    "channels": ["stable", "beta"]
}
EOF
}

# start_all MODE TAG: the three supervisors, each with a stand-in in MODE;
# sets P_ours, P_runsv, P_s6 and the stamp files S_ours, S_runsv, S_s6. The
# daemon's root is on the disk, as /etc is on a device; its /var/run (the
# status file) and the peers' service directories, which they rewrite on
# every start and exit, are on a tmpfs, as /run is where a device keeps them.
start_all() {
    local mode=$1 tag=$2 w=$BENCH_INSIDE
    ald_root "$w/ald-$tag"
    mkdir -p "$w/run/ald-$tag" && ln -s "$w/run/ald-$tag" "$w/ald-$tag/var/run"
    S_ours=$w/ours-$tag.stamps S_runsv=$w/runsv-$tag.stamps S_s6=$w/s6-$tag.stamps
    D_runsv=$w/run/runsv-$tag D_s6=$w/run/s6-$tag
    mkdir -p "$D_runsv" "$D_s6"
    ln -s "$standin_path" "$D_runsv/run"
    ln -s "$standin_path" "$D_s6/run"
    BENCH_STANDIN_MODE=$mode BENCH_STANDIN_LOG=$S_ours ALD_ROOT=$w/ald-$tag \
        "$build/stage/sbin/aldsorvelupdd" </dev/null 2>"$results/daemon-$tag.log" &
    P_ours=$!
    BENCH_STANDIN_MODE=$mode BENCH_STANDIN_LOG=$S_runsv runsv "$D_runsv" </dev/null >/dev/null 2>&1 &
    P_runsv=$!
    BENCH_STANDIN_MODE=$mode BENCH_STANDIN_LOG=$S_s6 s6-supervise "$D_s6" </dev/null >/dev/null 2>&1 &
    P_s6=$!
}

stop_all() {
    kill -TERM "$P_ours" 2>/dev/null || true
    printf dx >"$D_runsv/supervise/control" 2>/dev/null || true
    s6-svc -dx "$D_s6" 2>/dev/null || true
    local p
    for p in "$P_ours" "$P_runsv" "$P_s6"; do
        wait_gone "$p" 25 || kill -KILL "$p" 2>/dev/null || true
    done
    wait "$P_ours" "$P_runsv" "$P_s6" 2>/dev/null || true
}

# strace_summary PREFIX NAME FILE SECONDS: calls per system call from the
# summary of strace -C (none printed when nothing was called).
strace_summary() {
    # Columns: % time, seconds, usecs/call, calls, errors (may be empty), syscall.
    awk -v p="$1" -v name="$2" -v secs="$4" '
        /^% time/ { table = 1; next }
        table && /^-+/ { sep++; next }
        table && sep == 1 && NF >= 5 {
            list = list sprintf("%s%s=%d", list == "" ? "" : " ", $NF, $4); total += $4
        }
        END {
            printf "%s.syscalls.%s\t%s\n", p, name, (list == "" ? "none" : list)
            printf "%s.syscalls_per_s.%s\t%.2f\n", p, name, total / secs
            printf "%s.syscalls_total.%s\t%d\n", p, name, total
        }' "$3" >>"$results/values.tsv"
}

# passes FILE PID: the daemon's passes in a raw trace of all its threads.
# Attaching interrupts the wait in progress (EINTR, which the loop logs):
# everything up to the first epoll_wait entered under the trace is the
# attach's doing and is shown apart; each later pass ends at its
# epoll_wait. Other threads: their calls apart from the restart_syscall
# with which the attach resumes them.
passes() {
    awk -v main="$2" '
        /^% time/ { summary = 1 }
        summary { next }
        $3 ~ /^<\.\.\./ || $3 ~ /^---/ || $3 ~ /^\+\+\+/ { next }
        {
            call = $3; sub(/\(.*/, "", call)
            if ($1 != main) {
                if (call == "restart_syscall" && !(($1) in resumed)) { resumed[$1] = 1; next }
                other = other " " $1 ":" call; next
            }
            pass = pass (pass == "" ? "" : "+") call
            if (call != "epoll_wait") next
            if (!started) { attach = pass; started = 1 }
            else { kinds[pass]++; n++ }
            pass = ""
        }
        END {
            for (k in kinds) list = list (list == "" ? "" : " ") k "=" kinds[k]
            printf "idle.passes\t%d\n", n
            printf "idle.pass_kinds\t%s\n", list
            printf "idle.attach_pass\t%s\n", attach
            printf "idle.other_thread_calls\t%s\n", (other == "" ? "none" : other)
        }' "$1" >>"$results/values.tsv"
}


inside() {
    set +e
    mount -t proc proc /proc
    mount -t tmpfs -o mode=0755 bench-opt /opt
    mkdir -p /opt/aldrana/sorvel
    install -m 0755 "$build/bench_standin" "$standin_path"
    ip link set lo up
    local w=$BENCH_INSIDE
    mkdir -p "$w/run"
    mount -t tmpfs -o mode=0755 bench-run "$w/run"

    # --- idle ---------------------------------------------------------------
    note "idle: three supervisors and the reference, 10 s to settle, 20 s counted, 20 s traced"
    start_all sleep idle
    "$build/stage/libexec/bench_idle_ref" &
    local P_ref=$!
    local t0
    t0=$(now_ns)
    local ok=1
    wait_count S "$S_ours" 1 5 || { note "the daemon started no stand-in"; ok=0; }
    wait_count S "$S_runsv" 1 5 || { note "runsv started no stand-in"; ok=0; }
    wait_count S "$S_s6" 1 5 || { note "s6-supervise started no stand-in"; ok=0; }
    kv idle.started "$ok"
    sleep "$(awk -v t="$(($(now_ns) - t0))" 'BEGIN {s = 10 - t / 1e9; print (s > 0 ? s : 0)}')"

    local names=(ours runsv s6 ref) pids=("$P_ours" "$P_runsv" "$P_s6" "$P_ref") i
    for i in 0 1 2 3; do smaps "${names[$i]}" "${pids[$i]}"; done

    # Untraced: wake-ups and CPU time.
    for i in 0 1 2 3; do tasks "${pids[$i]}" >"$w/before.${names[$i]}"; done
    local c0 c1
    c0=$(now_ns)
    sleep 20
    for i in 0 1 2 3; do tasks "${pids[$i]}" >"$w/after.${names[$i]}"; done
    c1=$(now_ns)
    local secs
    secs=$(awk -v a="$c0" -v b="$c1" 'BEGIN {printf "%.3f", (b - a) / 1e9}')
    kv idle.window_s "$secs"
    for i in 0 1 2 3; do idle_deltas "${names[$i]}" "$w/before.${names[$i]}" "$w/after.${names[$i]}" "$secs"; done

    # Traced: every thread's system calls, the summary and the calls themselves.
    local straces=()
    for i in 0 1 2 3; do
        strace -f -C -tt -o "$results/strace-idle.${names[$i]}" -p "${pids[$i]}" 2>/dev/null &
        straces+=($!)
    done
    c0=$(now_ns)
    sleep 20
    kill -INT "${straces[@]}"
    wait "${straces[@]}"
    c1=$(now_ns)
    secs=$(awk -v a="$c0" -v b="$c1" 'BEGIN {printf "%.3f", (b - a) / 1e9}')
    kv idle.strace_window_s "$secs"
    for i in 0 1 2 3; do strace_summary idle "${names[$i]}" "$results/strace-idle.${names[$i]}" "$secs"; done
    passes "$results/strace-idle.ours" "$P_ours"
    kill -TERM "$P_ref"
    wait "$P_ref" 2>/dev/null

    # --- LAN link to rewrite (the idle daemon) ------------------------------
    local pairs=${BENCH_LAN_PAIRS:-4}
    note "LAN: $pairs times a bridge br-lan added and deleted; link to updater.conf rewritten"
    local lines_before starts op n
    lines_before=$(wc -l <"$results/daemon-idle.log")
    : >"$w/lan.txt"
    for ((n = 0; n < pairs; ++n)); do
        for op in add del; do
            starts=$(count S "$S_ours")
            if "$build/bench_lanlat" "$w/ald-idle/etc/aldrana" br-lan "$op" 30 >>"$w/lan.txt"; then
                wait_count S "$S_ours" $((starts + 1)) 10 || note "no updater after the LAN change"
            fi
            sleep 0.3
        done
    done
    cp "$w/lan.txt" "$results/lan.txt"
    kv lan.samples "$(awk '{print $3}' "$w/lan.txt" | sort -n | tr '\n' ' ')"
    kv lan.link_samples "$(awk '{print $2}' "$w/lan.txt" | sort -n | tr '\n' ' ')"
    tail -n +"$((lines_before + 1))" "$results/daemon-idle.log" >"$results/daemon-lan.log"
    # Each stop sends SIGTERM; a stop whose first poll finds the updater still
    # running sleeps 1 s before it signals again.
    kv lan.stops_paused "$(grep -c 'is still running' "$results/daemon-lan.log")"
    stop_all

    # --- restart cycles -----------------------------------------------------
    local cycles=${BENCH_CYCLES:-12}
    note "restart: a stand-in that exits at once, $cycles cycles each side by side, then 8 s traced"
    start_all exit restart
    restart_cpu() {
        local name=$1 pid=$2 stamps=$3 a b ca cb
        if ! wait_count S "$stamps" 3 15; then
            printf 'restart.cpu_ns_per_cycle.%s\t?\n' "$name" >"$w/restart.$name"
            return
        fi
        # In the middle of a pause: the cycles counted are whole ones.
        sleep 0.3
        a=$(count S "$stamps")
        ca=$(cpu_ns "$pid")
        wait_count S "$stamps" $((a + cycles)) $((cycles * 3 + 10))
        sleep 0.3
        b=$(count S "$stamps")
        cb=$(cpu_ns "$pid")
        printf 'restart.cpu_ns_per_cycle.%s\t%d\nrestart.cycles.%s\t%d\nrestart.untraced_starts.%s\t%d\n' \
            "$name" $(((cb - ca) / (b - a))) "$name" $((b - a)) "$name" "$b" >"$w/restart.$name"
        # Then the supervisor's own system calls (not its children's) per cycle.
        sleep 0.2
        a=$(count S "$stamps")
        strace -C -o "$results/strace-restart.$name" -p "$pid" 2>/dev/null &
        local st=$!
        sleep 8
        kill -INT "$st"
        wait "$st"
        b=$(count S "$stamps")
        printf 'restart.traced_cycles.%s\t%d\n' "$name" $((b - a)) >>"$w/restart.$name"
    }
    restart_cpu ours "$P_ours" "$S_ours" &
    local r1=$!
    restart_cpu runsv "$P_runsv" "$S_runsv" &
    local r2=$!
    restart_cpu s6 "$P_s6" "$S_s6" &
    local r3=$!
    wait "$r1" "$r2" "$r3"
    cat "$w"/restart.ours "$w"/restart.runsv "$w"/restart.s6 >>"$results/values.tsv"
    stop_all
    local name f last
    for name in ours runsv s6; do
        strace_summary restart "$name" "$results/strace-restart.$name" 1
        f=$w/$name-restart.stamps
        cp "$f" "$results/stamps-restart.$name"
        last=$(awk -F'\t' -v k="restart.untraced_starts.$name" '$1 == k {print $2}' "$results/values.tsv")
        # Exit of one stand-in to the start of the next, in ms, over the
        # starts before the trace began.
        kv restart.exit_to_exec_ms.$name "$(awk -v last="${last:-0}" '
            $1 == "E" { e = $2; next }
            $1 == "S" { s++; if (e && s <= last) printf "%.3f ", ($2 - e) / 1e6; e = 0 }' "$f" |
            tr ' ' '\n' | sort -n | tr '\n' ' ')"
    done

    umount "$w/run"
    exit 0
}

