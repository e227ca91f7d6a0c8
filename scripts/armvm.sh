#!/usr/bin/env bash
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
# ARMVM_SECONDS (default 300); ARMVM_MODULES names kernel modules to load
# after the bridge and veth ones. The kernel and busybox are Debian's armhf
# packages, fetched once (apt-get download) into ARMVM_CACHE
# (default build-armvm/); needs `scripts/setup.sh cross vm`.
set -euo pipefail
[ $# -ge 2 ] || { echo "usage: $0 STAGE GUEST [FILE...]" >&2; exit 2; }
stage=$1 guest=$2
shift 2
top=$(cd "$(dirname "$0")/.." && pwd)
cache=${ARMVM_CACHE:-$top/build-armvm}
seconds=${ARMVM_SECONDS:-300}
multiarch=/usr/lib/arm-linux-gnueabihf

# unpacked PACKAGE: the directory into which PACKAGE (armhf) is unpacked, once.
unpacked() {
    [ -d "$cache/$1" ] && { echo "$cache/$1"; return; }
    rm -rf "$cache/$1.deb.d" && mkdir -p "$cache/$1.deb.d"
    (cd "$cache/$1.deb.d" && apt-get download -q -o APT::Sandbox::User=root "$1:armhf" >&2)
    dpkg-deb -x "$cache/$1.deb.d"/*.deb "$cache/$1.deb.d/root"
    mv "$cache/$1.deb.d/root" "$cache/$1" && rm -rf "$cache/$1.deb.d"
    echo "$cache/$1"
}
mkdir -p "$cache"
kernel=$(apt-cache depends linux-image-armmp:armhf | sed -n 's/.*Depends: \(linux-image-[^:]*\).*/\1/p' | head -1)
[ -n "$kernel" ] || { echo "armvm: no linux-image-armmp:armhf in apt's lists" >&2; exit 1; }
kdir=$(unpacked "$kernel")
bbdir=$(unpacked busybox-static)

root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
mkdir -p "$root"/{bin,dev,proc,sys,run,tmp,opt,guest,lib/modules,usr/lib,etc/aldrana/settings}
cp "$bbdir/bin/busybox" "$root/bin/"
cp -a "$stage/sbin" "$stage/bin" "$root/usr/"
cp -a "$stage"/lib/libaldutils.so* "$root/usr/lib/"
cp "$guest" "$root/guest/run"
[ $# -eq 0 ] || cp "$@" "$root/guest/"
modules="llc stp bridge veth ${ARMVM_MODULES:-}"
for m in $modules; do find "$kdir/lib/modules" -name "$m.ko" -exec cp {} "$root/lib/modules/" \;; done
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
for m in $modules; do insmod /lib/modules/\$m.ko; done
ip link set lo up
echo "armvm: \$(uname -srm), \$(nproc) CPUs, \$(sed -n 's/MemTotal: *//p' /proc/meminfo)"
cd /guest && sh ./run
echo "armvm: exit \$?"
poweroff -f
EOF
chmod 0755 "$root/init"
(cd "$root" && find . | cpio -o -H newc --quiet | gzip -1) >"$cache/initrd.gz"

console=$cache/console.log
started=$SECONDS
timeout "$seconds" qemu-system-arm -M virt -smp 2 -m 256 -nographic -no-reboot -nic none \
    -kernel "$kdir"/boot/vmlinuz-* -initrd "$cache/initrd.gz" \
    -append "console=ttyAMA0 panic=-1 quiet loglevel=3" </dev/null | tr -d '\r' | tee "$console" || true
status=$(sed -n 's/^armvm: exit \([0-9]*\)$/\1/p' "$console")
if [ -z "$status" ]; then
    echo "armvm: the guest did not finish within $seconds s (console: $console)" >&2
    exit 1
fi
echo "armvm: guest finished in $((SECONDS - started)) s with status $status"
exit "$status"
