#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Installs the Debian packages that building, testing, the demo and the
# benchmark need. Idempotent and quick: apt is consulted only when something
# is missing, and root (through sudo for a user) only then.
#
#   scripts/setup.sh [base] [cross] [fuzz] [vm] [systemd] [bench]    (default: base)
#
#   base   build, unit and system tests, the demo
#   cross  the 32-bit ARM (armhf) cross build and qemu-user to run its tests
#   fuzz   clang with libFuzzer and the sanitizer runtimes
#   vm     full-system emulation of a 32-bit ARM board (scripts/armvm.sh)
#   systemd  a Debian root for systemd in a container (scripts/systemdbox.sh)
#   bench  the peer supervisors and tools the benchmark measures with
set -euo pipefail

groups=("$@")
[ ${#groups[@]} -eq 0 ] && groups=(base)

packages=()
cross=false
for g in "${groups[@]}"; do
  case "$g" in
    base) packages+=(g++ cmake make pkg-config libjansson-dev libfmt-dev libmnl-dev
                     libgtest-dev libgmock-dev iproute2 util-linux procps jq) ;;
    cross) cross=true
           packages+=(g++-arm-linux-gnueabihf qemu-user libc6:armhf libstdc++6:armhf
                      libjansson-dev:armhf libfmt-dev:armhf libmnl-dev:armhf
                      libgtest-dev:armhf libgmock-dev:armhf) ;;
    fuzz) packages+=(clang libclang-rt-dev) ;;
    vm) cross=true
        packages+=(qemu-system-arm cpio binutils e2fsprogs) ;;
    systemd) packages+=(mmdebstrap binutils) ;;
    bench) packages+=(runit s6 strace binutils binutils-arm-linux-gnueabihf f2fs-tools) ;;
    *) echo "setup: unknown group '$g' (base, cross, fuzz, vm, systemd, bench)" >&2; exit 2 ;;
  esac
done

installed() {
  dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q "install ok installed"
}

missing=()
for p in "${packages[@]}"; do
  installed "$p" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

# shellcheck source-path=SCRIPTDIR
. "$(dirname "$0")/as-root.sh"
if $cross && ! dpkg --print-foreign-architectures | grep -qx armhf; then
  dpkg --add-architecture armhf
fi
echo "setup: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
# A mirror caught mid-sync fails some index files; what is there may still
# be enough, and the install below says clearly if it is not.
apt-get update -q || echo "setup: apt-get update reported errors; installing from what is there" >&2
apt-get install -y -q --no-install-recommends "${missing[@]}"
