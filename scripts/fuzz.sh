#!/usr/bin/env bash
# The fuzz targets (fuzz/): installs clang and libFuzzer when missing, builds
# them with clang under AddressSanitizer and UndefinedBehaviorSanitizer in
# build-fuzz (or $ALD_FUZZ_BUILD_DIR), and runs each one for the given time
# on a copy of its seed corpus (fuzz/corpus/<target>, never written to).
# Exits non-zero when a target crashes, leaks, runs out of time on one input
# or out of memory; the input that did it is kept in build-fuzz/artifacts/.
#
#   scripts/fuzz.sh [seconds-per-target]        (default 60)
#
# Environment:
#   ALD_FUZZ_TARGETS  the targets to run (default: all, space-separated)
#   ALD_FUZZ_WORK     a directory that keeps each target's grown corpus from
#                     run to run (default: a temporary one, removed)
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
build=${ALD_FUZZ_BUILD_DIR:-$top/build-fuzz}
seconds=${1:-60}
targets=(${ALD_FUZZ_TARGETS:-fuzz_config fuzz_names fuzz_settings})
case "$seconds" in
  '' | *[!0-9]*) echo "usage: $0 [seconds-per-target]" >&2; exit 2 ;;
esac

"$top/scripts/setup.sh" base fuzz
CC=clang CXX=clang++ cmake -S "$top" -B "$build" -DALD_SANITIZE=address -DALD_FUZZ=ON \
  -DALD_BUILD_TESTS=OFF >/dev/null
cmake --build "$build" -j"$(nproc)" --target "${targets[@]}" >/dev/null

scratch=$(mktemp -d /tmp/ald-fuzz.XXXXXX)
trap 'rm -rf "$scratch"' EXIT
work=${ALD_FUZZ_WORK:-$scratch/corpus}
artifacts=$build/artifacts
mkdir -p "$artifacts"
# The settings store and updater.conf live under ALD_ROOT; the store syncs
# every value it writes, which a tmpfs makes cheap.
tmp_root=/tmp
[ -d /dev/shm ] && [ -w /dev/shm ] && tmp_root=/dev/shm

status=0
printf '%-14s %8s %12s %10s %8s  %s\n' target seconds executions exec/s cov result
for t in "${targets[@]}"; do
  corpus=$work/$t
  mkdir -p "$corpus"
  cp -n "$top/fuzz/corpus/$t/"* "$corpus/"
  root=$(mktemp -d "$tmp_root/ald-fuzz-root.XXXXXX")
  log=$scratch/$t.log
  args=(-max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1
        -artifact_prefix="$artifacts/$t-")
  [ -f "$top/fuzz/$t.dict" ] && args+=(-dict="$top/fuzz/$t.dict")
  rm -f "$artifacts/$t-"*
  started=$(date +%s)
  result=passed
  # The outer limit only guards against a fuzzer that stops answering.
  ALD_ROOT=$root timeout --signal=KILL $((seconds + 120)) "$build/fuzz/$t" "${args[@]}" "$corpus" \
    >"$log" 2>&1 || result=FAILED
  took=$(($(date +%s) - started))
  rm -rf "$root"
  execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
  rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log" | tail -1)
  # The last status line: "#N DONE cov: C ft: F corp: ..." (or the last
  # progress line when the run ended early).
  cov=$(sed -n 's/^#[0-9].* cov: \([0-9]*\).*/\1/p' "$log" | tail -1)
  printf '%-14s %8s %12s %10s %8s  %s\n' "$t" "$took" "${execs:--}" "${rate:--}" "${cov:--}" "$result"
  if [ "$result" != passed ]; then
    status=1
    echo "---- $t: the end of its log" >&2
    tail -n 60 "$log" >&2
    for input in "$artifacts/$t-"*; do
      if [ -e "$input" ]; then echo "  reproduce: ALD_ROOT=\$(mktemp -d) $build/fuzz/$t $input" >&2; fi
    done
  fi
done
exit $status
