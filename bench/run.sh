#!/usr/bin/env bash
# Footprint and cost of the daemon beside two peer supervisors, runit's runsv
# and s6's s6-supervise, all three supervising the same stand-in updater
# (bench/standin.c) in one run. Prints a table; no pass or fail.
#
#   sudo bench/run.sh
#
# Builds into build-bench/ (x86-64, MinSizeRel, with the bench programs) and
# build-bench-armhf/ (the cross build, MinSizeRel), fetches the peers' armhf
# packages once (apt-get download, kept in build-bench-armhf/peers/), then
# measures inside a private mount, network and pid namespace: a tmpfs over
# /opt holds the stand-in at /opt/aldrana/sorvel/sorvelupd, the machine's
# /opt is never touched. Raw data of the last run stay in
# build-bench/results/ (report.md is the table). About two minutes once built.
#
# Environment: BENCH_CYCLES (restart cycles measured, default 12),
# BENCH_LAN_PAIRS (link add/del pairs, default 4).
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
bench=$top/bench
build=$top/build-bench
build_arm=$top/build-bench-armhf
results=$build/results
standin_path=/opt/aldrana/sorvel/sorvelupd

# kv KEY VALUE...: one measured value for the report.
kv() { printf '%s\t%s\n' "$1" "${*:2}" >>"$results/values.tsv"; }
note() { printf 'bench: %s\n' "$*" >&2; }

# ============================================================================
# Outside: build, sizes, then the measurements in a sandbox, then the table.
# ============================================================================

outside() {
    if [ "$(id -u)" -ne 0 ]; then
        echo "bench: run as root (sudo $0): the runs need private mount, network and pid namespaces" >&2
        exit 1
    fi
    "$top/scripts/setup.sh" base cross bench

    note "building x86-64 (MinSizeRel) into $build"
    cmake -S "$bench" -B "$build" -DCMAKE_BUILD_TYPE=MinSizeRel >/dev/null
    cmake --build "$build" -j"$(nproc)" >/dev/null
    rm -rf "$build/stage" && cmake --install "$build" --prefix "$build/stage" --component runtime >/dev/null

    local toolchain=$top/cmake/toolchain-armhf.cmake armhf_built=0
    if [ -f "$toolchain" ]; then
        note "building armhf (MinSizeRel) into $build_arm"
        if cmake -S "$top" -B "$build_arm" -DCMAKE_TOOLCHAIN_FILE="$toolchain" -DCMAKE_BUILD_TYPE=MinSizeRel \
            -DALD_BUILD_TESTS=OFF >/dev/null &&
            cmake --build "$build_arm" -j"$(nproc)" >/dev/null; then
            rm -rf "$build_arm/stage"
            cmake --install "$build_arm" --prefix "$build_arm/stage" --component runtime >/dev/null && armhf_built=1
        fi
    fi
    [ "$armhf_built" = 1 ] || note "no armhf build (cmake/toolchain-armhf.cmake missing or the build failed)"

    # A page of a file that is still dirty in the page cache counts as
    # Private_Dirty of the one process that maps it: the freshly installed
    # binaries go to the disk before anything is measured.
    sync "$build"/stage/sbin/* "$build"/stage/lib/* "$build"/bench_*

    rm -rf "$results"
    mkdir -p "$results"
    : >"$results/values.tsv"
    machine
    sizes "$armhf_built"

    bench_work=$(mktemp -d /tmp/ald-bench.XXXXXX)
    trap 'rm -rf "$bench_work"' EXIT
    instructions "$bench_work/callgrind"
    note "measuring in a private mount, network and pid namespace (about 100 s)"
    BENCH_INSIDE=$bench_work unshare --mount --net --pid --fork --propagation private --kill-child -- "$0"
    report | tee "$results/report.md"
}

machine() {
    kv machine.cpu "$(lscpu | sed -n 's/^Model name: *//p' | head -1)"
    kv machine.cores "$(nproc)"
    kv machine.kernel "$(uname -r)"
    kv machine.virt "$(lscpu | sed -n 's/^Hypervisor vendor: *//p' | head -1)"
    kv machine.gcc "$(g++ --version | head -1)"
    kv machine.gcc_armhf "$(arm-linux-gnueabihf-g++ --version 2>/dev/null | head -1)"
    kv machine.runit "$(dpkg-query -W -f='${Version}\n' runit | head -1)"
    kv machine.s6 "$(dpkg-query -W -f='${Version}\n' s6 | head -1)"
    kv machine.jansson "$(dpkg-query -W -f='${Version}\n' libjansson4 | head -1)"
    kv machine.strace "$(strace -V | head -1)"
    kv machine.date "$(date -u '+%Y-%m-%d %H:%M UTC')"
}

# --- sizes ------------------------------------------------------------------

# The C and C++ runtimes that every C++ program needs; not counted.
runtime_lib() {
    case $1 in
    libc.so.* | libstdc++.so.* | libm.so.* | libgcc_s.so.* | ld-linux*) return 0 ;;
    *) return 1 ;;
    esac
}

# stripped_size STRIP FILE: bytes of FILE after strip --strip-all.
stripped_size() {
    local tmp
    tmp=$(mktemp /tmp/ald-bench-strip.XXXXXX)
    "$1" --strip-all -o "$tmp" "$2"
    stat -c %s "$tmp"
    rm -f "$tmp"
}

needed() { readelf -d "$1" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p'; }

# find_lib NAME DIR...: the first DIR/NAME.
find_lib() {
    local name=$1 dir
    shift
    for dir; do
        [ -e "$dir/$name" ] && { readlink -f "$dir/$name"; return 0; }
    done
    return 1
}

# libs_of STRIP FILE DIR...: "name=bytes" for every library that FILE needs,
# directly or through another library, beyond the runtimes. With
# LIBS_RUNTIME=1: the runtime libraries instead, libc and the loader aside.
libs_of() {
    local strip=$1 file=$2 rt=${LIBS_RUNTIME:-0}
    shift 2
    local -a queue=("$file") seen=()
    local out="" f lib path s
    while [ ${#queue[@]} -gt 0 ]; do
        f=${queue[0]}
        queue=("${queue[@]:1}")
        for lib in $(needed "$f"); do
            case $lib in libc.so.* | ld-linux*) continue ;; esac
            for s in "${seen[@]:-}"; do [ "$s" = "$lib" ] && continue 2; done
            seen+=("$lib")
            if path=$(find_lib "$lib" "$@"); then
                queue+=("$path")
                if runtime_lib "$lib"; then
                    [ "$rt" = 1 ] && out+="$lib=$(stripped_size "$strip" "$path") "
                else
                    [ "$rt" = 1 ] || out+="$lib=$(stripped_size "$strip" "$path") "
                fi
            elif [ "$rt" = 1 ] || ! runtime_lib "$lib"; then
                out+="$lib=? "
            fi
        done
    done
    echo "${out% }"
}

sizes() {
    local armhf_built=$1
    local x86_dirs=("$build/stage/lib" /lib/x86_64-linux-gnu /usr/lib/x86_64-linux-gnu)
    kv size.x86.ours "$(stripped_size strip "$build/stage/sbin/aldsorvelupdd")"
    kv size.x86.ours_lib "$(stripped_size strip "$(readlink -f "$build/stage/lib/libaldutils.so.0")")"
    kv libs.x86.ours "$(libs_of strip "$build/stage/sbin/aldsorvelupdd" "${x86_dirs[@]}")"
    kv size.x86.runsv "$(stripped_size strip "$(command -v runsv)")"
    kv libs.x86.runsv "$(libs_of strip "$(command -v runsv)" "${x86_dirs[@]}")"
    kv size.x86.s6 "$(stripped_size strip "$(command -v s6-supervise)")"
    kv libs.x86.s6 "$(libs_of strip "$(command -v s6-supervise)" "${x86_dirs[@]}")"

    local astrip=arm-linux-gnueabihf-strip
    if [ "$armhf_built" = 1 ]; then
        local arm_dirs=("$build_arm/stage/lib" /usr/lib/arm-linux-gnueabihf /lib/arm-linux-gnueabihf)
        kv size.arm.ours "$(stripped_size $astrip "$build_arm/stage/sbin/aldsorvelupdd")"
        kv size.arm.ours_lib "$(stripped_size $astrip "$(readlink -f "$build_arm/stage/lib/libaldutils.so.0")")"
        kv libs.arm.ours "$(libs_of $astrip "$build_arm/stage/sbin/aldsorvelupdd" "${arm_dirs[@]}")"
        kv rt.arm.ours "$(LIBS_RUNTIME=1 libs_of $astrip "$build_arm/stage/sbin/aldsorvelupdd" "${arm_dirs[@]}")"
        # Evidence for the size target: the largest functions and the sections.
        arm-linux-gnueabihf-nm --size-sort -C -S "$build_arm/stage/sbin/aldsorvelupdd" 2>/dev/null |
            tail -25 >"$results/armhf-daemon-nm.txt" || true
        arm-linux-gnueabihf-size -A "$build_arm/stage/sbin/aldsorvelupdd" >"$results/armhf-daemon-sections.txt"
        arm-linux-gnueabihf-readelf --dyn-syms -W "$build_arm/stage/sbin/aldsorvelupdd" \
            >"$results/armhf-daemon-dynsyms.txt"
        arm-linux-gnueabihf-readelf -lW "$build_arm/stage/sbin/aldsorvelupdd" >"$results/armhf-daemon-segments.txt"
    fi

    # The peers' armhf builds as Debian ships them, fetched once.
    local peers=$build_arm/peers
    if [ ! -f "$peers/.complete" ]; then
        rm -rf "$peers"
        mkdir -p "$peers/debs" "$peers/root"
        local skarnet
        skarnet=$(apt-cache depends s6:armhf 2>/dev/null | awk '/Depends: libskarnet/ {print $2; exit}')
        if (cd "$peers/debs" && apt-get download -q runit:armhf s6:armhf ${skarnet:+"$skarnet"} >/dev/null 2>&1); then
            for deb in "$peers"/debs/*.deb; do dpkg-deb -x "$deb" "$peers/root"; done
            touch "$peers/.complete"
        else
            note "could not fetch the peers' armhf packages: their armhf sizes are not measured"
        fi
    fi
    if [ -f "$peers/.complete" ]; then
        local arm_peer_dirs=("$peers/root/usr/lib/arm-linux-gnueabihf" "$peers/root/lib/arm-linux-gnueabihf"
            /usr/lib/arm-linux-gnueabihf /lib/arm-linux-gnueabihf)
        local f
        f=$(find "$peers/root" -name runsv -type f | head -1)
        kv size.arm.runsv "$(stripped_size $astrip "$f")"
        kv libs.arm.runsv "$(libs_of $astrip "$f" "${arm_peer_dirs[@]}")"
        kv rt.arm.runsv "$(LIBS_RUNTIME=1 libs_of $astrip "$f" "${arm_peer_dirs[@]}")"
        f=$(find "$peers/root" -name s6-supervise -type f | head -1)
        kv size.arm.s6 "$(stripped_size $astrip "$f")"
        kv libs.arm.s6 "$(libs_of $astrip "$f" "${arm_peer_dirs[@]}")"
        kv rt.arm.s6 "$(LIBS_RUNTIME=1 libs_of $astrip "$f" "${arm_peer_dirs[@]}")"
    fi
}

# --- where the rewrite's instructions go ---------------------------------------

# instructions DIR: user-space instructions per call of the rewrite's parts
# (callgrind, reproducible, unlike times), 4 KiB document, ROUNDS rounds.
instructions() {
    local dir=$1 rounds=100
    command -v valgrind >/dev/null || { note "no valgrind: instruction counts not measured"; return 0; }
    mkdir -p "$dir/etc/aldrana"
    ALD_ROOT=$dir valgrind --tool=callgrind --callgrind-out-file="$dir/cg.out" \
        "$build/bench_rewrite" 4096 "$rounds" >/dev/null 2>&1 || return 0
    callgrind_annotate --inclusive=yes --threshold=100 "$dir/cg.out" 2>/dev/null >"$results/callgrind-rewrite.txt"
    # Each round, warm-up rounds (a tenth) included, calls json_load_file and
    # json_dump_file twice (update_aur_config, then the load and write_config
    # alone) and everything else once.
    awk -v calls=$((rounds + rounds / 10)) '
        function put(key, n, per) {
            if (!(key in seen)) printf "ir.%s\t%.0f\n", key, n / (per * calls)
            seen[key] = 1
        }
        {
            gsub(",", "", $1); n = $1
            if ($0 ~ /:json_load_file /) put("json_load_file", n, 2)
            else if ($0 ~ /:json_dump_file /) put("json_dump_file", n, 2)
            else if ($0 ~ /:json_loadb /) put("json_loadb", n, 1)
            else if ($0 ~ /:json_dumpb /) put("json_dumpb", n, 1)
            else if ($0 ~ /:getc /) put("getc", n, 2)
            else if ($0 ~ /:fwrite /) put("fwrite", n, 2)
            else if ($0 ~ /:update_aur_config\(/) put("update_aur_config", n, 1)
            else if ($0 ~ /least_work\(/) put("least_work", n, 1)
            else if ($0 ~ /lean\(/) put("lean", n, 1)
        }' "$results/callgrind-rewrite.txt" >>"$results/values.tsv"
}

# ============================================================================
# Inside the sandbox
# ============================================================================

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
# daemon's root is on the disk, as /etc is on a device; the peers' service
# directories, which they rewrite on every start and exit, are on a tmpfs,
# as /run is where a device keeps them.
start_all() {
    local mode=$1 tag=$2 w=$BENCH_INSIDE
    ald_root "$w/ald-$tag"
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
    "$build/bench_idle_ref" &
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

    # --- rewrite ------------------------------------------------------------
    note "rewrite: 4 KiB and 1 MiB documents, on the disk and on a tmpfs"
    mkdir -p "$w/rw-disk/etc/aldrana" "$w/rw-tmpfs"
    mount -t tmpfs -o mode=0755 bench-rw "$w/rw-tmpfs"
    mkdir -p "$w/rw-tmpfs/etc/aldrana"
    local fs
    for fs in disk tmpfs; do
        ALD_ROOT=$w/rw-$fs "$build/bench_rewrite" 4096 3000 1048576 40 |
            awk -v fs="$fs" '
                $1 == "size" { printf "rewrite.%s.size.%s\t%s\n", fs, $2, $3 }
                $1 == "op" { printf "rewrite.%s.%s.%s\t%s %s %s %s %s\n", fs, $2, $3, $4, $5, $6, $7, $8 }' \
                >>"$results/values.tsv"
    done
    kv rewrite.disk_fs "$(findmnt -no FSTYPE -T "$w/rw-disk")"
    # Evidence: the system calls of a few rewrites on the disk, with their times.
    ALD_ROOT=$w/rw-disk strace -T -o "$results/strace-rewrite.disk" "$build/bench_rewrite" 4096 4 >/dev/null
    umount "$w/rw-tmpfs"
    umount "$w/run"
    exit 0
}

# ============================================================================
# The table
# ============================================================================

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

        printf "Rewrite of updater.conf, one operation: median CPU time of the thread / median wall time (90th percentiles in brackets). The least-work baseline, the daemon and the lean variant run interleaved in one process on the same file:\n\n"
        printf "| Document | File system | Least work | update_aur_config (daemon) | its json_load_file | its write_config | Ratio daemon / least work, CPU (wall) | Lean variant (json_loadb, json_dumpb, one write), CPU (ratio) |\n"
        printf "|---|---|---|---|---|---|---|---|\n"
        split("4096 1048576", sizes, " ")
        split("disk tmpfs", fss, " ")
        for (s = 1; s <= 2; s++) for (f = 1; f <= 2; f++) {
            p = "rewrite." fss[f] "." sizes[s] "."
            if (!((p "least_work") in v)) continue
            split(v[p "least_work"], b, " "); split(v[p "update_aur_config"], d, " ")
            split(v[p "json_load_file"], l, " "); split(v[p "write_config"], wc, " "); split(v[p "lean"], ln, " ")
            fsname = ((fss[f] == "disk") ? get("rewrite.disk_fs") : "tmpfs")
            printf "| %s bytes | %s | %.0f / %.0f us (%.0f / %.0f) | %.0f / %.0f us (%.0f / %.0f) | %.0f / %.0f us | %.0f / %.0f us | %.2f (%.2f) | %.0f us (%.2f) |\n",
                v["rewrite." fss[f] ".size." sizes[s]], fsname,
                b[1] / 1e3, b[2] / 1e3, b[3] / 1e3, b[4] / 1e3, d[1] / 1e3, d[2] / 1e3, d[3] / 1e3, d[4] / 1e3,
                l[1] / 1e3, l[2] / 1e3, wc[1] / 1e3, wc[2] / 1e3, d[1] / b[1], d[2] / b[2], ln[1] / 1e3, ln[1] / b[1]
            ratio[fss[f] "." sizes[s]] = d[1] / b[1]
        }
        if ("ir.json_load_file" in v)
            printf "\nUser-space instructions per call, 4 KiB document (callgrind; the kernel'"'"'s share, most of the least work, is not counted): least work %s; update_aur_config %s, of which json_load_file %s (getc, one call per character, %s) and json_dump_file %s (fwrite %s); lean variant %s, of which json_loadb %s and json_dumpb %s.\n",
                v["ir.least_work"], v["ir.update_aur_config"], v["ir.json_load_file"], v["ir.getc"], v["ir.json_dump_file"],
                v["ir.fwrite"], v["ir.lean"], v["ir.json_loadb"], v["ir.json_dumpb"]
        printf "\n"

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
        if (("disk.4096" in ratio) && ("tmpfs.4096" in ratio))
            printf "- 4 KiB rewrite within 3 x the least work (median CPU time, on both file systems): %s (%.2f x on %s, %.2f x on tmpfs)\n",
                verdict(ratio["disk.4096"] <= 3 && ratio["tmpfs.4096"] <= 3), ratio["disk.4096"], get("rewrite.disk_fs"), ratio["tmpfs.4096"]
        else printf "- 4 KiB rewrite within 3 x the least work: not measured\n"
        printf "\nNot measured here: memory, CPU time and latencies on an armhf device (only sizes are armhf: under qemu-user the emulator would be measured); the device'"'"'s flash file system (the rewrite runs on this machine'"'"'s %s and on tmpfs).\n", get("rewrite.disk_fs")
    }' "$results/values.tsv"
}

if [ -n "${BENCH_INSIDE:-}" ]; then
    inside
else
    outside "$@"
fi
