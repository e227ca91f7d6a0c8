#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Every test. Installs what is missing (scripts/setup.sh), then builds and
# runs, stopping at the first stage that fails:
#   host   warnings as errors, the whole suite              (build/)
#   armhf  the 32-bit ARM cross build, its tests under qemu-arm,
#          all but those labelled host                      (build-armhf/)
#   asan   clang with AddressSanitizer and UBSan, the whole suite and
#          the fuzz test, on the static library (the other stages
#          build the shared one)                            (build-asan/)
#   tsan   the tests labelled threads under ThreadSanitizer (build-tsan/)
#   tests/run.sh [STAGE...]     (default: all four, in this order)
# ALD_SOAK_CYCLES, ALD_CRASH_KILLS, ALD_POWER_CUTS, ALD_EMMC_CUTS and
# ALD_FUZZ_SECONDS make runs longer.
# Needs root (packages, namespaces): it asks sudo for it when run as a user.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
# shellcheck source-path=SCRIPTDIR/../scripts
. "$top/scripts/as-root.sh"
jobs=$(nproc)
# A test stops after 300 s; the long runs get time in proportion to the
# knobs (a soak cycle or a crash kill takes a few milliseconds or a few
# tenths of a second, a power cut about 9 s: 10 ms, 1 s and 15 s leave room
# for the slowest stage).
limit=$((300 + ${ALD_SOAK_CYCLES:-0} / 100 + ${ALD_CRASH_KILLS:-0} + (${ALD_POWER_CUTS:-6} + ${ALD_EMMC_CUTS:-2}) * 15))
"$top/scripts/setup.sh" base cross fuzz vm systemd

# stage NAME CMAKE-ARGS... -- CTEST-ARGS... builds $targets (default: all)
# and runs the tests. Every sanitizer report, also of
# a child or the daemon of a system test, lands in NAME's reports/ and
# fails the stage.
stage() {
    local name=$1 dir=$top/build-$1 cmake_args=() started=$SECONDS
    [ "$name" = host ] && dir=$top/build
    shift
    while [ "$1" != -- ]; do cmake_args+=("$1"); shift; done
    shift
    echo "=== $name"
    # Tests on and the shared library, whatever a build by hand in the same
    # directory cached; a stage's own arguments come after.
    cmake -S "$top" -B "$dir" -DALD_WERROR=ON -DBUILD_TESTING=ON -DBUILD_SHARED_LIBS=ON "${cmake_args[@]}" >/dev/null
    cmake --build "$dir" -j"$jobs" "${targets[@]}" >/dev/null
    rm -rf "$dir/reports" && mkdir -p "$dir/reports"
    local common="halt_on_error=1:abort_on_error=1:log_exe_name=1"
    ASAN_OPTIONS="$common:detect_leaks=1:log_path=$dir/reports/asan" \
        UBSAN_OPTIONS="$common:print_stacktrace=1:log_path=$dir/reports/ubsan" \
        TSAN_OPTIONS="$common:log_path=$dir/reports/tsan" \
        ctest --test-dir "$dir" --output-on-failure -j"$jobs" --timeout "$limit" "$@"
    grep -h -E '^(soak|crash):' "$dir/Testing/Temporary/LastTest.log" || true
    if [ -n "$(ls -A "$dir/reports")" ]; then
        cat "$dir/reports"/* >&2
        return 1
    fi
    echo "=== $name passed in $((SECONDS - started)) s"
}

stages=("$@")
[ $# -gt 0 ] || stages=(host armhf asan tsan)
for name in "${stages[@]}"; do
    targets=()
    case $name in
    host) stage host -- ;;
    armhf) stage armhf -DCMAKE_TOOLCHAIN_FILE="$top/cmake/toolchain-armhf.cmake" -DCMAKE_BUILD_TYPE=MinSizeRel \
        -- -LE host ;;
    asan) CC=clang CXX=clang++ stage asan -DALD_SANITIZE=address -DALD_FUZZ=ON -DBUILD_SHARED_LIBS=OFF \
        -DALD_FUZZ_SECONDS="${ALD_FUZZ_SECONDS:-30}" -- ;;
    tsan) targets=(--target daemon_test aldutils_test aldutils_network_test)
        stage tsan -DALD_SANITIZE=thread -- -L threads ;;
    *) echo "tests/run.sh: no stage '$name' (host, armhf, asan, tsan)" >&2; exit 2 ;;
    esac
done
echo "all stages passed"
