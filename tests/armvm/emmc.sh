#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Power cuts on eMMC: updater.conf and the settings on ext4 (or, with
# EMMC_FS=f2fs, f2fs) on a virtio disk image; the guest of scripts/armvm.sh
# is powered off (qemu SIGKILLed) at a random moment while a key flips, and
# the next boot checks the image: updater.conf whole, with the updater's
# keys and the daemon's, and each key the last value whose set returned 0
# or the one being set. The key flipped is, in turn, the privacy switch
# (the daemon rewrites updater.conf on each) and a key of the test's own
# (nothing but the set's own flushes makes that durable). What the guest
# had not yet written to its disk is lost; what qemu wrote to the image is
# not (a disk's own volatile cache is not emulated).
#
#   tests/armvm/emmc.sh STAGE [CUTS]    (as root; CUTS default 20)
#
# STAGE is a `cmake --install` of the armhf build. Prints a line per cut and
# a summary; exits 1 when a cut left something broken.
set -euo pipefail
top=$(cd "$(dirname "$0")/../.." && pwd)
stage=$(cd "$1" && pwd) cuts=${2:-20} fs=${EMMC_FS:-ext4} work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
truncate -s 64M "$work/disk"
case $fs in
ext4) mkfs.ext4 -q "$work/disk" && modules="crc32c_generic ext4" ;;
f2fs) mkfs.f2fs -q "$work/disk" >/dev/null && modules="crc32_generic f2fs" ;;
*) echo "emmc: EMMC_FS is ext4 or f2fs" >&2 && exit 2 ;;
esac
cat >"$work/emmc" <<'EOF'
etc=/persist/etc/aldrana
mkdir -p /persist && mount -t "$EMMC_FS" /dev/vda /persist || exit 1
if [ -e /persist/head ]; then
    case $(tr -d ' \n' <$etc/updater.conf) in
    "$(cat /persist/head)"\"pcap_device\":[],\"connect_appid\":\"com.aldrana.sorvelupd\",\"aur_enabled\":*) ;;
    *) echo "emmc: broken: updater.conf $(wc -c <$etc/updater.conf) bytes" ;;
    esac
    for k in aur:privacy/aur flip:test/flip; do
        key=$(cat $etc/settings/${k#*:})
        eval "allowed=\$EMMC_${k%%:*}"
        case " $allowed " in *" $key "*) ;; *) echo "emmc: broken: ${k#*:} $key, not $allowed" ;; esac
    done
else  # 8 KiB of the updater's own, as in powercut.sh
    echo "{\"var_path\":\"/run/var\",\"history\":\"$(head -c 4096 /dev/urandom | od -An -tx1 | tr -d ' \n')\"," >/persist/head
    mkdir -p $etc/settings && echo "$(cat /persist/head)\"pcap_device\":[]}" >$etc/updater.conf
    ALD_ROOT=/persist aldsettings set /privacy/aur 0 && ALD_ROOT=/persist aldsettings set /test/flip 0 &&
        sync  # the test's own files too
fi
# As found, on the disk: the values the next boot allows for a key not flipped.
echo "emmc: kernel Linux $(uname -r)"
echo "emmc: acked aur $(cat $etc/settings/privacy/aur)"
echo "emmc: acked flip $(cat $etc/settings/test/flip)"
ALD_ROOT=/persist aldsorvelupdd 2>/dev/null &
echo "emmc: flipping"
for k in $(seq 100000); do
    echo "emmc: trying $EMMC_KEY $((k % 7))"
    ALD_ROOT=/persist aldsettings set "/${EMMC_KEY%:*}" $((k % 7)) && echo "emmc: acked ${EMMC_KEY#*:} $((k % 7))"
    sleep 0.1
done
EOF
export ARMVM_DISK=$work/disk ARMVM_PIDFILE=$work/pid ARMVM_ENV="EMMC_FS EMMC_KEY EMMC_aur EMMC_flip" ARMVM_SECONDS=120
export ARMVM_MODULES="virtio_mmio virtio_blk $modules" EMMC_FS=$fs EMMC_aur=0 EMMC_flip=0
broken=0 flipped=
for ((i = 0; i <= cuts; i++)); do
    # privacy/aur:aur or test/flip:flip, in turn
    EMMC_KEY=$( ((i % 2)) && echo test/flip:flip || echo privacy/aur:aur) && export EMMC_KEY
    # Emptied here, not by the boot's own redirection, which may come after
    # the wait below has read the last boot's console.
    : >"$work/console" && rm -f "$work/pid"
    "$top/scripts/armvm.sh" "$stage" "$work/emmc" >>"$work/console" 2>&1 &
    w=600
    until grep -q 'emmc: flipping' "$work/console" || [ $((w -= 1)) = 0 ]; do sleep 0.1; done
    [ "$w" != 0 ] || { cat "$work/console"; exit 1; }
    sleep "$((RANDOM % 4)).$((RANDOM % 10))"
    # A guest that stopped by itself (a kernel's panic) was cut all the same.
    kill -KILL "$(cat "$work/pid")" 2>/dev/null || echo "emmc: boot $i: the guest had stopped: $(tail -3 "$work/console" | tr '\n' ' ')"
    wait || true
    # The first boot only sets up; each later one checks the cut before it.
    # The kernel's lines may share a line of the console with the guest's.
    r=$(sed -n 's/.*emmc: broken/broken/p' "$work/console" | paste -sd, -)
    [ "$i" = 0 ] || echo "emmc: cut $i ($fs, while $flipped flipped): ${r:-whole}"
    flipped=${EMMC_KEY%:*}
    [ -z "$r" ] || broken=$((broken + 1))
    # What each key may hold after this cut: the last value acknowledged, and the one being set.
    for k in aur flip; do
        eval "EMMC_$k=\"$(sed -n "s/.*emmc: acked $k \([0-9]*\).*/\1/p" "$work/console" | tail -1) $(sed -n "s/.*emmc: trying [^ ]*:$k \([0-9]*\).*/\1/p" "$work/console" | tail -1)\""
    done
done
echo "emmc: $cuts cuts on $fs, $(sed -n 's/.*emmc: kernel \(Linux [^ ]*\).*/\1/p' "$work/console"), broken afterwards: $broken"
[ "$broken" = 0 ]
