#!/usr/bin/env bash
# Builds the daemon and runs it in the foreground on a throwaway ALD_ROOT
# until Ctrl-C.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
build=${ALD_BUILD_DIR:-$top/build}

"$top/scripts/setup.sh"
cmake -S "$top" -B "$build" >/dev/null
cmake --build "$build" -j"$(nproc)" --target aldsorvelupdd aldsettings

root=$(mktemp -d /tmp/ald-demo.XXXXXX)
trap 'rm -rf "$root"' EXIT
mkdir -p "$root/etc/aldrana" "$root/var/lib/sorvel"
printf '{\n    "var_path": "%s"\n}\n' "$root/var/lib/sorvel" > "$root/etc/aldrana/updater.conf"
echo "demo: ALD_ROOT=$root; press Ctrl-C to stop"
ALD_ROOT=$root "$build/daemons/aldsorvelupdd/aldsorvelupdd" || true
echo "demo: updater.conf at the end:"
cat "$root/etc/aldrana/updater.conf"
