#!/usr/bin/env bash
# Every test: installs what is missing, configures, builds with warnings as
# errors, runs the whole CTest suite. Exits non-zero on any failure.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
build=${ALD_BUILD_DIR:-$top/build}
jobs=$(nproc)

"$top/scripts/setup.sh"
cmake -S "$top" -B "$build" -DALD_WERROR=ON >/dev/null
cmake --build "$build" -j"$jobs"
ctest --test-dir "$build" --output-on-failure -j"$jobs"
