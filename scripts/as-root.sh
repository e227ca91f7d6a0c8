# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# Sourced first by the scripts that need root (packages, namespaces,
# mounts): as root they go on; otherwise they run again through sudo, with
# the ALD_*, ARMVM_* and BENCH_* knobs that change what they do (sudo drops the rest
# of the environment), or stop with the reason when there is no sudo.
if [ "$(id -u)" -ne 0 ]; then
    if ! command -v sudo >/dev/null; then
        echo "$(basename "$0"): needs root, and there is no sudo to ask for it: run it as root" >&2
        exit 1
    fi
    ald_knobs=()
    for ald_knob in $(compgen -v ALD_; compgen -v ARMVM_; compgen -v BENCH_); do ald_knobs+=("$ald_knob=${!ald_knob}"); done
    exec sudo -- env "${ald_knobs[@]}" "$0" "$@"
fi
