#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Boots Debian's 32-bit ARM kernel (armmp) under full-system emulation,
# qemu-system-arm -M virt, with no disk and no network, from an initramfs
# assembled here: busybox, the staged armhf daemon, aldsettings and the
# platform library at /usr as on a device, the shared libraries they need,
# the bridge and veth modules, and one guest script that the guest's init
# runs as root before it powers off.
#
#   scripts/armvm.sh STAGE GUEST [FILE...]
#
# STAGE: what `cmake --install build-armhf --prefix STAGE` filled; GUEST: a
# busybox sh script; the FILEs go to /guest/ beside it (armhf programs get
# their libraries too). The console is copied to standard output. Exit
# status: the guest script's, or 1 when the guest does not finish within
# ARMVM_SECONDS (default 300). ARMVM_MODULES names kernel modules to load
# after the bridge and veth ones, each after those it depends on (those the
# kernel has built in are left out), as NAME or NAME:PARAMETER:...; ARMVM_PROGRAMS, as PACKAGE:PROGRAM
# words, programs of Debian's armhf packages to put at /usr/sbin;
# ARMVM_ENV, the names of variables of this environment to set in the
# guest's; ARMVM_DISK, a raw image the guest sees as /dev/vda (virtio);
# ARMVM_PIDFILE, where qemu writes its pid, for a power cut by SIGKILL.
# The kernel and busybox are Debian's armhf
# packages, fetched once (apt-get download) into ARMVM_CACHE
# (default build-armvm/); needs `scripts/setup.sh cross vm`. The kernel is
# that of the machine's own Debian release, or with ARMVM_RELEASE that of
# another (bullseye: Linux 5.10), from the archive that the machine's apt
# sources name (or ARMVM_ARCHIVE) through an apt configuration of its own in
# the cache: the machine's apt is left as it is.
set -euo pipefail
[ $# -ge 2 ] || { echo "usage: $0 STAGE GUEST [FILE...]" >&2; exit 2; }
stage=$1 guest=$2
shift 2
top=$(cd "$(dirname "$0")/.." && pwd)
cache=${ARMVM_CACHE:-$top/build-armvm}
seconds=${ARMVM_SECONDS:-300}
multiarch=/usr/lib/arm-linux-gnueabihf

# unpacked PACKAGE [APT-OPTION...]: the directory into which PACKAGE (armhf)
# is unpacked, once.
unpacked() {
    [ -d "$cache/$1" ] && { echo "$cache/$1"; return; }
    rm -rf "$cache/$1.deb.d" && mkdir -p "$cache/$1.deb.d"
    (cd "$cache/$1.deb.d" && apt-get download -q -o APT::Sandbox::User=root "${@:2}" "$1:armhf" >&2)
    dpkg-deb -x "$cache/$1.deb.d"/*.deb "$cache/$1.deb.d/root"
    mv "$cache/$1.deb.d/root" "$cache/$1" && rm -rf "$cache/$1.deb.d"
    echo "$cache/$1"
}
mkdir -p "$cache"
release=${ARMVM_RELEASE:-}
apt=()
if [ -n "$release" ]; then
    a=$cache/apt-$release
    apt=(-o Dir::Etc::SourceList="$a/sources.list" -o Dir::Etc::SourceParts="$a/none"
        -o Dir::State::Lists="$a/lists" -o Dir::Cache="$a/cache")
    if [ ! -e "$a/updated" ]; then
        # The main archive: the machine's first source whose suite is a release, not its -updates or -security.
        archive=${ARMVM_ARCHIVE:-$(apt-get indextargets --format '$(RELEASE) $(REPO_URI)' | awk '$1 !~ /-/ {print $2; exit}')}
        [ -n "$archive" ] || { echo "armvm: no Debian archive in the machine's apt sources; set ARMVM_ARCHIVE" >&2; exit 1; }
        rm -rf "$a" && mkdir -p "$a/none" "$a/lists/partial" "$a/cache/archives/partial"
        echo "deb [arch=armhf signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] $archive $release main" >"$a/sources.list"
        apt-get "${apt[@]}" -o APT::Sandbox::User=root update -q >&2 && touch "$a/updated"
    fi
fi
kernel=$(apt-cache "${apt[@]}" depends linux-image-armmp:armhf |
    sed -n 's/.*Depends: \(linux-image-[^:]*\).*/\1/p' | head -1)
[ -n "$kernel" ] || { echo "armvm: no linux-image-armmp:armhf in apt's lists${release:+ of $release}" >&2; exit 1; }
kdir=$(unpacked "$kernel" "${apt[@]}")
bbdir=$(unpacked busybox-static)

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
root=$work/root
mkdir -p "$root"/{bin,dev,proc,sys,run,tmp,opt,guest,lib/modules,usr/lib,etc/aldrana/settings}
cp "$bbdir/bin/busybox" "$root/bin/"
cp -a "$stage/sbin" "$stage/bin" "$root/usr/"
cp -a "$stage"/lib/libaldutils.so* "$root/usr/lib/"
cp "$guest" "$root/guest/run"
[ $# -eq 0 ] || cp "$@" "$root/guest/"
# module NAME[:PARAMETER...]: NAME's file after those of the modules it
# depends on, once each, into the guest and onto the list that its init
# loads in order (as "insmod FILE PARAMETER...").
modules=
module() {
    local name=${1%%:*} ko dep
    case "$modules" in *"/$name.ko"*) return ;; esac
    ko=$(find "$kdir/lib/modules" \( -name "$name.ko" -o -name "${name//_/-}.ko" \) | head -1)
    [ -n "$ko" ] || return 0
    for dep in $(readelf -p .modinfo "$ko" | sed -n 's/.*depends=//p' | tr , ' '); do module "$dep"; done
    cp "$ko" "$root/lib/modules/$name.ko"
    modules="$modules
insmod /lib/modules/$name.ko ${1#"$name"}"
}
for m in llc stp bridge veth ${ARMVM_MODULES:-}; do module "$m"; done
for p in ${ARMVM_PROGRAMS:-}; do
    find "$(unpacked "${p%%:*}")" -path "*bin/${p#*:}" -exec cp {} "$root/usr/sbin/" \;
done
for v in ${ARMVM_ENV:-}; do
    printf "export %s='%s'\n" "$v" "$(printf %s "${!v:-}" | sed "s/'/'\\\\''/g")"
done >"$root/guest/env"
# Every shared library that an armhf program in the guest needs, from the
# armhf packages, where the guest's loader looks for them.
mkdir -p "$root$multiarch" && cp -L /lib/ld-linux-armhf.so.3 "$root$multiarch/"
ln -s "$multiarch/ld-linux-armhf.so.3" "$root/lib/"
needed() { readelf -d "$1" 2>/dev/null | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p'; }
todo=$(find "$root/usr" "$root/guest" -type f)
while [ -n "$todo" ]; do
    next=
    for f in $todo; do
        for lib in $(needed "$f"); do
            [ -e "$root$multiarch/$lib" ] || [ -e "$root/usr/lib/$lib" ] && continue
            cp -L "$multiarch/$lib" "$root$multiarch/"
            next="$next $root$multiarch/$lib"
        done
    done
    todo=$next
done
cat >"$root/init" <<EOF
#!/bin/busybox sh
/bin/busybox --install -s /bin
export PATH=/usr/sbin:/usr/bin:/bin
mount -t proc proc /proc && mount -t sysfs sys /sys && mount -t devtmpfs dev /dev
mount -t tmpfs run /run && mount -t tmpfs tmp /tmp
$(echo "$modules" | tr : ' ')
ip link set lo up
echo "armvm: \$(uname -srm), \$(nproc) CPUs, \$(sed -n 's/MemTotal: *//p' /proc/meminfo)"
cd /guest && . ./env && sh ./run
echo "armvm: exit \$?"
poweroff -f
EOF
chmod 0755 "$root/init"
(cd "$root" && find . | cpio -o -H newc --quiet | gzip -1) >"$work/initrd.gz"

console=$cache/console${release:+-$release}.log
started=$SECONDS
disk=()
[ -z "${ARMVM_DISK:-}" ] || disk=(-drive "file=$ARMVM_DISK,format=raw,if=none,id=disk" -device virtio-blk-device,drive=disk)
timeout "$seconds" qemu-system-arm -M virt -smp 2 -m 256 -nographic -no-reboot -nic none "${disk[@]}" \
    ${ARMVM_PIDFILE:+-pidfile "$ARMVM_PIDFILE"} -kernel "$kdir"/boot/vmlinuz-* -initrd "$work/initrd.gz" \
    -append "console=ttyAMA0 panic=-1 quiet loglevel=3" </dev/null | stdbuf -oL tr -d '\r' | tee "$console" || true
status=$(sed -n 's/^armvm: exit \([0-9]*\)$/\1/p' "$console")
if [ -z "$status" ]; then
    echo "armvm: the guest on ${kernel#linux-image-} did not finish within $seconds s (console: $console)" >&2
    exit 1
fi
echo "armvm: the guest on ${kernel#linux-image-} finished in $((SECONDS - started)) s with status $status"
exit "$status"
