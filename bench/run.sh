#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Footprint and cost of the daemon beside two peer supervisors, runit's runsv
# and s6's s6-supervise, all three supervising the same stand-in updater
# (bench/standin.c) in one run. Prints a table; no pass or fail.
#
#   bench/run.sh      (as root; through sudo otherwise)
#
# Builds into build-bench/ (x86-64, MinSizeRel, with the bench programs) and
# build-bench-armhf/ (the same, cross-built), fetches the peers' and strace's
# armhf packages once (apt-get download, kept in build-bench-armhf/), then
# measures: sizes (bench/sizes.sh); idle, LAN and restart figures inside a
# private mount, network and pid namespace (bench/sandbox.sh: a tmpfs over
# /opt holds the stand-in at /opt/aldrana/sorvel/sorvelupd, the machine's
# /opt is never touched); the armhf daemon's memory and its fork to exec of
# the updater on two 32-bit ARM kernels, Debian 12's and Debian 11's
# (bench/guest.sh); what one privacy change costs on a simulated NAND
# (bench/flash.sh). Raw data of the last run stay in build-bench/results/
# (report.md is the table, bench/report.sh). About 3 1/4 minutes once built.
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

outside() {
    # shellcheck source-path=SCRIPTDIR/../scripts
    . "$top/scripts/as-root.sh"  # private mount, network and pid namespaces
    "$top/scripts/setup.sh" base cross vm bench

    note "building x86-64 (MinSizeRel) into $build"
    cmake -S "$bench" -B "$build" -DCMAKE_BUILD_TYPE=MinSizeRel >/dev/null
    cmake --build "$build" -j"$(nproc)" >/dev/null
    rm -rf "$build/stage"
    cmake --install "$build" --prefix "$build/stage" --component runtime >/dev/null
    cmake --install "$build" --prefix "$build/stage" --component bench >/dev/null

    local armhf_built=0
    note "building armhf (MinSizeRel) into $build_arm"
    if cmake -S "$bench" -B "$build_arm" -DCMAKE_TOOLCHAIN_FILE="$top/cmake/toolchain-armhf.cmake" \
        -DCMAKE_BUILD_TYPE=MinSizeRel >/dev/null && cmake --build "$build_arm" -j"$(nproc)" >/dev/null; then
        rm -rf "$build_arm/stage"
        cmake --install "$build_arm" --prefix "$build_arm/stage" --component runtime >/dev/null &&
            cmake --install "$build_arm" --prefix "$build_arm/stage" --component bench >/dev/null && armhf_built=1
    fi
    [ "$armhf_built" = 1 ] || note "the armhf build failed: nothing armhf is measured"

    # A page of a file that is still dirty in the page cache counts as
    # Private_Dirty of the one process that maps it: the freshly installed
    # files, which the daemon and the reference program run from, go to the
    # disk before anything is measured.
    sync "$build"/stage/*/*

    rm -rf "$results"
    mkdir -p "$results"
    : >"$results/values.tsv"
    machine
    sizes "$armhf_built"

    bench_work=$(mktemp -d /tmp/ald-bench.XXXXXX)
    trap 'rm -rf "$bench_work"' EXIT
    note "measuring in a private mount, network and pid namespace (about 100 s)"
    BENCH_INSIDE=$bench_work unshare --mount --net --pid --fork --propagation private --kill-child -- "$0"
    [ "$armhf_built" = 0 ] || { guest own; guest bullseye; flash; }
    report | tee "$results/report.md"
}

# guest RELEASE: the armhf daemon beside its floor on a 32-bit ARM kernel
# (bench/guest.sh under scripts/armvm.sh), traced by Debian's armhf strace
# when it can be fetched: the kernel of the machine's own Debian release
# (own) or of RELEASE; its values are keyed arm.RELEASE. The guest needs a
# RAM disk with ext2 (brd, ext4 and theirs).
guest() {
    local release=$1 st=$build_arm/strace files=("$build_arm/stage/libexec/bench_idle_ref" "$build_arm/bench_standin")
    if [ ! -x "$st/usr/bin/strace" ]; then
        mkdir -p "$st" && (cd "$st" && apt-get download -q -o APT::Sandbox::User=root strace:armhf >/dev/null 2>&1 &&
            dpkg-deb -x strace_*.deb .) || note "no armhf strace: the idle system calls on armhf are not measured"
    fi
    [ -x "$st/usr/bin/strace" ] && files+=("$st/usr/bin/strace")
    note "armhf ($release): the daemon and its floor on a 32-bit ARM kernel under full-system emulation (about 90 s)"
    ARMVM_RELEASE=${release#own} ARMVM_SECONDS=600 ARMVM_MODULES="crc16 mbcache jbd2 crc32c_generic ext4 brd" \
        "$top/scripts/armvm.sh" "$build_arm/stage" "$bench/guest.sh" "${files[@]}" >"$results/armvm-$release.log" 2>&1 ||
        note "the guest failed: see $results/armvm-$release.log"
    sed -n "s/^value arm\.\([^ ]*\) \(.*\)$/arm.$release.\1\t\2/p" "$results/armvm-$release.log" >>"$results/values.tsv"
}

# flash: what one privacy change costs on a router's NAND and on eMMC
# (bench/flash.sh on the kernel of the machine's own Debian release, UBIFS
# and f2fs): values flash.* and flash_f2fs.*.
flash() {
    note "armhf: a privacy change on a simulated NAND and on f2fs (about 90 s)"
    ARMVM_SECONDS=600 ARMVM_MODULES="nandsim:id_bytes=0x20,0x73 deflate zstd_compress zstd ubifs" \
        ARMVM_PROGRAMS="mtd-utils:ubiattach mtd-utils:ubimkvol" \
        "$top/scripts/armvm.sh" "$build_arm/stage" "$bench/flash.sh" >"$results/flash.log" 2>&1 ||
        note "the flash guest failed: see $results/flash.log"
    sed -n 's/^flash: \([a-z]*\) \(.*\)$/flash.\1\t\2/p' "$results/flash.log" >>"$results/values.tsv"
    truncate -s 64M "$build_arm/f2fs.img" && mkfs.f2fs -f -q "$build_arm/f2fs.img" >/dev/null
    ARMVM_SECONDS=600 ARMVM_MODULES="virtio_mmio virtio_blk crc32_generic f2fs" ARMVM_DISK="$build_arm/f2fs.img" ARMVM_ENV=FLASH_FS \
        FLASH_FS=f2fs "$top/scripts/armvm.sh" "$build_arm/stage" "$bench/flash.sh" >"$results/flash-f2fs.log" 2>&1 ||
        note "the f2fs guest failed: see $results/flash-f2fs.log"
    sed -n 's/^flash: \([a-z]*\) \(.*\)$/flash_f2fs.\1\t\2/p' "$results/flash-f2fs.log" >>"$results/values.tsv"
    rm -f "$build_arm/f2fs.img"
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


if [ -n "${BENCH_INSIDE:-}" ]; then
    . "$bench/sandbox.sh"
    inside
else
    . "$bench/sizes.sh"
    . "$bench/report.sh"
    outside "$@"
fi
