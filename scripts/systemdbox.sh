#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Boots the systemd unit of a staged install under Debian's systemd as PID 1
# of a container on this machine, and runs a check script in it once the
# boot is over.
#
#   scripts/systemdbox.sh STAGE CHECK [FILE...]
#
# STAGE: what `cmake --install build --prefix STAGE` filled (a build for
# this machine). The container's root is a minimal Debian of this
# machine's release: systemd and the packages that hold the libraries the
# staged programs need, made once with mmdebstrap from this machine's apt
# sources into SYSTEMDBOX_CACHE (default build-systemdbox/) and made again
# when that list changes; each boot writes to an overlay over it in
# SYSTEMDBOX_WORK (default: a temporary directory, removed afterwards).
# In the container the staged files sit where the unit's ExecStart names
# the daemon, the unit in /etc/systemd/system (not enabled), /tmp is a
# tmpfs as on a router, and CHECK (a sh script) and the FILEs are in
# /guest. It has its own pid, mount, UTS, IPC, network and cgroup
# namespaces and a cgroup2 directory of its own as its cgroup root; /sys
# and /proc/sys are read-only. CHECK runs as root in /guest, outside any
# unit, with a clean environment and the staged programs on its PATH, its
# output on standard output. Exit status: CHECK's, 1 when the boot or CHECK takes
# longer than SYSTEMDBOX_SECONDS (180) each, 77 with the reason when this
# machine cannot make such a container. Needs `scripts/setup.sh systemd`.
set -euo pipefail
[ $# -ge 2 ] || { echo "usage: $0 STAGE CHECK [FILE...]" >&2; exit 2; }
stage=$(realpath "$1") check=$(realpath "$2")
shift 2
top=$(cd "$(dirname "$0")/.." && pwd)
cache=${SYSTEMDBOX_CACHE:-$top/build-systemdbox}
seconds=${SYSTEMDBOX_SECONDS:-180}
unit=$stage/share/aldsorvelupdd/systemd/aldsorvelupdd.service
daemon=$(sed -n 's/^ExecStart=\([^ ]*\).*/\1/p' "$unit")
prefix=${daemon%/*/*}

skip() { echo "systemdbox: $*"; exit 77; }
[ "$(id -u)" = 0 ] || skip "needs root"
cgroot=/sys/fs/cgroup
[ "$(stat -fc %T $cgroot)" = cgroup2fs ] || cgroot=/sys/fs/cgroup/unified
[ "$(stat -fc %T $cgroot 2>/dev/null)" = cgroup2fs ] || skip "no cgroup2 hierarchy is mounted"
unshare --pid --mount --uts --ipc --net --cgroup --fork true 2>/dev/null ||
    skip "cannot make pid, mount, UTS, IPC, network and cgroup namespaces here"

# The root, with the packages that the staged programs' libraries come from.
arch=$(dpkg --print-architecture)
packages=$(for lib in $(find "$stage" -type f -exec readelf -d {} + 2>/dev/null |
    sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | sort -u); do
    dpkg -S "*/$lib" 2>/dev/null | sed -n "s/^\([^:]*\):$arch: .*/\1/p" || true
done | sort -u | tr '\n' ,)systemd
root=$cache/root
if [ "$(cat "$cache/packages" 2>/dev/null)" != "$packages" ]; then
    echo "systemdbox: making the root ($packages)"
    command -v mmdebstrap >/dev/null || { echo "systemdbox: no mmdebstrap: scripts/setup.sh systemd" >&2; exit 1; }
    rm -rf --one-file-system "$root" "$root.new" && mkdir -p "$cache"
    # shellcheck source=/dev/null
    release=$(. /etc/os-release && echo "$VERSION_CODENAME")
    # This machine's apt sources for its release: its mirror, no host name here.
    mapfile -t sources < <(grep -lsw "$release" /etc/apt/sources.list /etc/apt/sources.list.d/*.list \
        /etc/apt/sources.list.d/*.sources)
    [ ${#sources[@]} -gt 0 ] || { echo "systemdbox: no apt sources for $release on this machine" >&2; exit 1; }
    # The essential set, merged /usr (no perl for usrmerge), no fsync. Documentation is
    # kept: leaving it out (path-exclude) makes the extraction four times slower.
    options=(--variant=essential --include="$packages" --hook-dir=/usr/share/mmdebstrap/hooks/merged-usr
        --dpkgopt=force-unsafe-io)
    # In a mount namespace of its own, so that no mount outlives an interrupted run.
    unshare --mount --propagation private mmdebstrap "${options[@]}" "$release" "$root.new" "${sources[@]}" \
        >"$cache/mmdebstrap.log" 2>&1 || {
        tail -20 "$cache/mmdebstrap.log" >&2
        echo "systemdbox: mmdebstrap failed (log: $cache/mmdebstrap.log)" >&2
        exit 1
    }
    mv "$root.new" "$root" && echo "$packages" >"$cache/packages"
fi

work=${SYSTEMDBOX_WORK:-$(mktemp -d)}
rm -rf "${work:?}"/{upper,overlay,mnt,pid} && mkdir -p "$work"/{upper,overlay,mnt}
cg=$cgroot/systemdbox.$$
mkdir "$cg" 2>/dev/null || skip "cannot make a cgroup under $cgroot"
box=
# within TENTHS CMD...: true once CMD is, false after TENTHS tenths of a second.
within() {
    local n=$1
    shift
    until "$@"; do
        n=$((n - 1))
        [ $n -gt 0 ] || return 1
        sleep 0.1
    done
}
box_gone() { ! kill -0 "$box" 2>/dev/null; }
cleanup() {
    # unshare ignores SIGTERM while it waits; its SIGKILL takes the container's
    # PID 1, and with it the container, down too (--kill-child).
    [ -z "$box" ] || { kill -KILL "$box" 2>/dev/null; wait "$box" 2>/dev/null; } || true
    # The container's cgroups go once its last process has.
    within 50 eval 'find "$cg" -depth -type d -exec rmdir {} + 2>/dev/null' || echo "systemdbox: cannot remove $cg" >&2
    [ -n "${SYSTEMDBOX_WORK:-}" ] || rm -rf "$work"
}
trap cleanup EXIT

# Runs as PID 1 of the new namespaces: the root is put together, pivoted
# into, and handed to systemd.
boot() {
    local work=$1 root=$2 stage=$3 prefix=$4 unit=$5 check=$6 m=$1/mnt n
    shift 6
    read -r n _ </proc/self/stat  # the host's pid, while /proc is still the host's
    echo "$n" >"$work/pid.new" && mv "$work/pid.new" "$work/pid"
    mount -t overlay overlay -o "lowerdir=$root,upperdir=$work/upper,workdir=$work/overlay" "$m"
    mkdir -p "$m$prefix" "$m/guest"
    cp -a "$stage/." "$m$prefix/"
    cp "$unit" "$m/etc/systemd/system/"
    cp "$check" "$m/guest/run"
    [ $# -eq 0 ] || cp "$@" "$m/guest/"
    mount -t proc proc "$m/proc"
    mount --bind "$m/proc/sys" "$m/proc/sys" && mount -o remount,bind,ro "$m/proc/sys"
    mount -t sysfs -o ro sysfs "$m/sys"
    mount -t cgroup2 cgroup2 "$m/sys/fs/cgroup"
    mount -t tmpfs -o mode=0755,nosuid dev "$m/dev"
    for n in null zero full random urandom tty; do
        touch "$m/dev/$n" && mount --bind "/dev/$n" "$m/dev/$n"
    done
    ln -s /proc/self/fd "$m/dev/fd"
    mount -t tmpfs -o mode=1777,nosuid tmp "$m/tmp"
    mkdir -p "$m/.host"
    cd "$m" && pivot_root . .host
    umount -l /.host && rmdir /.host
    exec env -i container=systemdbox /usr/lib/systemd/systemd </dev/null
}
(
    echo "$BASHPID" >"$cg/cgroup.procs"
    exec unshare --pid --mount --uts --ipc --net --cgroup --fork --propagation private --kill-child -- \
        bash -c "$(declare -f boot); boot \"\$@\"" boot "$work" "$root" "$stage" "$prefix" "$unit" "$check" "$@"
) &
box=$!

inside() { nsenter -t "$(cat "$work/pid")" -m -u -i -n -p -C -r "$@"; }
booted() {
    box_gone && return 0
    [ -s "$work/pid" ] || return 1
    case $(inside -w systemctl is-system-running 2>/dev/null) in running | degraded) ;; *) false ;; esac
}
started=$EPOCHREALTIME
if ! within $((seconds * 10)) booted || box_gone; then
    box_gone || [ ! -s "$work/pid" ] || inside -w journalctl -b -p warning --no-pager >&2 || true
    echo "systemdbox: systemd did not boot within $seconds s" >&2
    exit 1
fi
took=$(awk -v a="$started" -v b="$EPOCHREALTIME" 'BEGIN { printf "%.1f", b - a }')
echo "systemdbox: $(inside -w systemctl --version | head -1) booted in $took s"
status=0
timeout "$seconds" nsenter -t "$(cat "$work/pid")" -m -u -i -n -p -C -r -w \
    env -i PATH="$prefix/sbin:$prefix/bin:/usr/sbin:/usr/bin" sh -c 'cd /guest && exec sh ./run' || status=$?
[ $status != 124 ] || { echo "systemdbox: $check did not finish within $seconds s" >&2; status=1; }
# A clean power-off, or the container is killed with its PID 1.
kill -RTMIN+4 "$(cat "$work/pid")"
within 100 box_gone || true
exit $status
