#!/usr/bin/env bash
# The tests under the sanitizers: the whole CTest suite built with
# AddressSanitizer and UndefinedBehaviorSanitizer (build-asan, warnings as
# errors), and the tests with threads of their own built with
# ThreadSanitizer (build-tsan). Exits non-zero when a test fails or when any
# sanitizer reported anything, in a test, in a child it forked, or in the
# daemon that a system test runs.
#
#   scripts/test-sanitizers.sh [address] [thread]     (default: both)
#
# Build directories: build-asan and build-tsan, or $ALD_ASAN_BUILD_DIR and
# $ALD_TSAN_BUILD_DIR.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
jobs=$(nproc)

# The tests whose own threads meet the code under test: the settings store
# and its watch, the LAN monitor thread (uninit while a callback runs), the
# per-thread error storage, and the daemon's LAN callback racing the event
# loop and the configuration updaters.
tsan_tests=(aldutils_path_test aldutils_settings_test aldutils_monitored_key_test aldutils_network_test
            daemon_lan_watch_test daemon_config_updaters_test)

kinds=("$@")
[ ${#kinds[@]} -eq 0 ] && kinds=(address thread)
for kind in "${kinds[@]}"; do
  case "$kind" in
    address | thread) ;;
    *) echo "test-sanitizers: unknown sanitizer '$kind' (address, thread)" >&2; exit 2 ;;
  esac
done

"$top/scripts/setup.sh"

# Every sanitized process writes its reports to files in `reports` (the
# program's name and pid in each file's name) instead of standard error, so
# that a report cannot hide: not in a child whose exit status nobody reads,
# not in a test that sends standard error to a file, not in the daemon of a
# system test. The environment reaches every test through ctest, and from
# there every child and the daemon in its sandbox (which shares /tmp and the
# build tree). The first error ends the process with SIGABRT as well.
sanitizer_env() {  # KIND REPORTS
  local common="halt_on_error=1:abort_on_error=1:log_exe_name=1"
  export UBSAN_OPTIONS="$common:print_stacktrace=1:log_path=$2/ubsan"
  case "$1" in
    address)
      export ASAN_OPTIONS="$common:detect_leaks=1:check_initialization_order=1:strict_init_order=1:detect_stack_use_after_return=1:log_path=$2/asan" ;;
    thread)
      export TSAN_OPTIONS="$common:second_deadlock_stack=1:log_path=$2/tsan"
      # This case ends a forked child under strict seccomp with SYS_exit,
      # which ends one thread; ThreadSanitizer starts a thread of its own in
      # every child, so that child never ends. The case has no threads to
      # check; it runs in the other builds.
      export GTEST_FILTER=-Watch.GetFdMakesNoSystemCallWhileItHasADescriptor ;;
  esac
}

# run_one KIND BUILD CMAKE_ARGS... -- TARGETS... -- CTEST_ARGS...
run_one() {
  local kind=$1 build=$2
  shift 2
  local cmake_args=() targets=() ctest_args=()
  while [ "$1" != -- ]; do cmake_args+=("$1"); shift; done
  shift
  while [ "$1" != -- ]; do targets+=(--target "$1"); shift; done
  shift
  ctest_args=("$@")

  local started status=0
  started=$(date +%s)
  echo "test-sanitizers: $kind: configuring and building in $build"
  # -O1, as the sanitizers advise: the reports keep their stack traces, and
  # the build takes about half the time of -O2. Assertions stay on.
  cmake -S "$top" -B "$build" -DALD_SANITIZE="$kind" -DCMAKE_BUILD_TYPE=Debug \
    -DCMAKE_C_FLAGS_DEBUG="-O1 -g" -DCMAKE_CXX_FLAGS_DEBUG="-O1 -g" "${cmake_args[@]}" >/dev/null
  cmake --build "$build" -j"$jobs" "${targets[@]}" >/dev/null
  local built=$(($(date +%s) - started))

  local reports=$build/sanitizer-reports
  rm -rf "$reports"
  mkdir -p "$reports"
  (
    sanitizer_env "$kind" "$reports"
    ctest --test-dir "$build" --output-on-failure -j"$jobs" "${ctest_args[@]}"
  ) || status=1
  grep -hE '^(soak|crash|exit_forever): ' "$build/Testing/Temporary/LastTest.log" || true

  local found
  found=$(find "$reports" -type f | sort)
  if [ -n "$found" ]; then
    status=1
    echo "test-sanitizers: $kind: sanitizer reports:" >&2
    while IFS= read -r f; do
      echo "---- $(basename "$f")" >&2
      cat "$f" >&2
    done <<<"$found"
  fi
  local total=$(($(date +%s) - started))
  echo "test-sanitizers: $kind: $([ $status -eq 0 ] && echo passed || echo FAILED)" \
       "in $total s (build $built s, tests $((total - built)) s)"
  return $status
}

overall=0
for kind in "${kinds[@]}"; do
  case "$kind" in
    address)
      run_one address "${ALD_ASAN_BUILD_DIR:-$top/build-asan}" -DALD_WERROR=ON -- -- || overall=1 ;;
    thread)
      regex="^($(IFS='|'; echo "${tsan_tests[*]}"))\$"
      run_one thread "${ALD_TSAN_BUILD_DIR:-$top/build-tsan}" -DALD_WERROR=ON -- "${tsan_tests[@]}" -- \
        -R "$regex" || overall=1 ;;
  esac
done
exit $overall
