#!/usr/bin/env bash
# The 32-bit ARM build: installs what is missing, cross-builds the platform
# library, the daemon, aldsettings and the tests for armhf (MinSizeRel,
# 64-bit time_t and off_t, warnings as errors), runs the tests under
# qemu-arm, and shows the stripped sizes of what goes onto the device.
# Exits non-zero on any failure, and when the stripped daemon outgrows its
# flash budget.
#
#   scripts/test-armhf.sh           (build directory: build-armhf, or $ALD_ARMHF_BUILD_DIR)
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
build=${ALD_ARMHF_BUILD_DIR:-$top/build-armhf}
jobs=$(nproc)
started=$(date +%s)
daemon_budget=$((48 * 1024))
# Tests that need root, namespaces or rtnetlink, which qemu-user does not
# emulate faithfully, and the system tests (the daemon end to end in
# namespaces): they run in the host build only.
host_only='root|netns|system'

"$top/scripts/setup.sh" base cross
cmake -S "$top" -B "$build" -DCMAKE_TOOLCHAIN_FILE="$top/cmake/toolchain-armhf.cmake" \
  -DCMAKE_BUILD_TYPE=MinSizeRel -DALD_WERROR=ON >/dev/null
cmake --build "$build" -j"$jobs"

tests=$(ctest --test-dir "$build" --show-only=json-v1)
echo "test-armhf: host-only tests, not run under qemu-arm (labels $host_only):"
jq -r --arg labels "^($host_only)\$" '.tests[]
  | select(any((.properties // [])[]; .name == "LABELS" and any(.value[]; test($labels))))
  | "  \(.name)"' <<<"$tests"
# Cases that a test leaves out under the emulator (GTEST_FILTER set by the
# CMake files for cross builds).
jq -r '.tests[] | .name as $n | (.properties // [])[] | select(.name == "ENVIRONMENT") | .value[]
  | select(startswith("GTEST_FILTER=")) | "  \($n) runs with \(.)"' <<<"$tests"

status=0
ctest --test-dir "$build" --output-on-failure -j"$jobs" -LE "$host_only" || status=1

echo "test-armhf: stripped sizes (bytes):"
strip=arm-linux-gnueabihf-strip
scratch=$(mktemp -d /tmp/ald-armhf-sizes.XXXXXX)
trap 'rm -rf "$scratch"' EXIT
for f in sbin/aldsorvelupdd lib/libaldutils.so bin/aldsettings; do
  out=$scratch/$(basename "$f")
  "$strip" -o "$out" "$(readlink -f "$build/$f")"
  printf '  %7d  %s\n' "$(stat -c %s "$out")" "$(basename "$f")"
done
daemon_size=$(stat -c %s "$scratch/aldsorvelupdd")
if [ "$daemon_size" -gt "$daemon_budget" ]; then
  echo "test-armhf: the stripped daemon has $daemon_size bytes, over its budget of $daemon_budget" >&2
  status=1
fi

echo "test-armhf: $([ $status -eq 0 ] && echo passed || echo FAILED) in $(($(date +%s) - started)) s"
exit $status
