#!/usr/bin/env bash
# Every test: installs what is missing, then
#   1. the host build (warnings as errors) and the whole CTest suite,
#   2. the 32-bit ARM cross build with its unit tests under qemu-arm,
#   3. the suite under AddressSanitizer with UndefinedBehaviorSanitizer, and
#      the threaded tests under ThreadSanitizer,
#   4. each fuzz target for a minute (ALD_FUZZ_SECONDS to change it).
# Exits non-zero at the first stage that fails, naming it.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
build=${ALD_BUILD_DIR:-$top/build}
jobs=$(nproc)

stage() { echo; echo "=== test: $* ==="; }
trap 'echo "test: FAILED during: ${current:-setup}" >&2' ERR

current="setup"; "$top/scripts/setup.sh" base cross fuzz
current="host build and suite"; stage "$current"
cmake -S "$top" -B "$build" -DALD_WERROR=ON >/dev/null
cmake --build "$build" -j"$jobs"
ctest --test-dir "$build" --output-on-failure -j"$jobs"
# The figures that the soak, the crash test and the restart loop print.
grep -hE '^(soak|crash|exit_forever): ' "$build/Testing/Temporary/LastTest.log" || true
current="armhf cross build under qemu-arm"; stage "$current"
"$top/scripts/test-armhf.sh"
current="sanitizers"; stage "$current"
"$top/scripts/test-sanitizers.sh"
current="fuzzing"; stage "$current"
"$top/scripts/fuzz.sh" "${ALD_FUZZ_SECONDS:-60}"
echo; echo "test: all stages passed"
