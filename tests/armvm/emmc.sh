#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Power cuts on eMMC, by hand: updater.conf and the settings on ext4 on a
# virtio disk image; the guest of scripts/armvm.sh is powered off (qemu
# SIGKILLed) at a random moment while the privacy switch flips, and the next
# boot checks the image: updater.conf whole, with the updater's keys and the
# daemon's, the privacy key the last value whose set returned 0 or the one
# being set. What the guest had not yet written to its disk is lost; what
# qemu wrote to the image is not (a disk's own volatile cache is not
# emulated).
#
#   tests/armvm/emmc.sh STAGE [CUTS]    (as root; CUTS default 20)
#
# STAGE is a `cmake --install` of the armhf build. Prints a line per cut and
# a summary; exits 1 when a cut left something broken.
set -euo pipefail
top=$(cd "$(dirname "$0")/../.." && pwd)
stage=$(cd "$1" && pwd) cuts=${2:-20} work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
truncate -s 64M "$work/disk" && mkfs.ext4 -q "$work/disk"
cat >"$work/emmc" <<'EOF'
etc=/persist/etc/aldrana
mkdir -p /persist && mount -t ext4 /dev/vda /persist || exit 1
if [ -e /persist/head ]; then
    case $(tr -d ' \n' <$etc/updater.conf) in
    "$(cat /persist/head)"\"pcap_device\":[],\"connect_appid\":\"com.aldrana.sorvelupd\",\"aur_enabled\":*) ;;
    *) echo "emmc: broken: updater.conf $(wc -c <$etc/updater.conf) bytes" ;;
    esac
    key=$(cat $etc/settings/privacy/aur)
    case " $EMMC_VALUES " in *" $key "*) ;; *) echo "emmc: broken: key $key, not $EMMC_VALUES" ;; esac
else  # 8 KiB of the updater's own, as in powercut.sh
    echo "{\"var_path\":\"/run/var\",\"history\":\"$(head -c 4096 /dev/urandom | od -An -tx1 | tr -d ' \n')\"," >/persist/head
    mkdir -p $etc/settings && echo "$(cat /persist/head)\"pcap_device\":[]}" >$etc/updater.conf
    ALD_ROOT=/persist aldsettings set /privacy/aur 0 && sync  # the test's own files too
fi
echo "emmc: acked $(cat $etc/settings/privacy/aur)"  # as found: on the disk
ALD_ROOT=/persist aldsorvelupdd 2>/dev/null &
echo "emmc: flipping"
for k in $(seq 100000); do
    echo "emmc: trying $((k % 7))"
    ALD_ROOT=/persist aldsettings set /privacy/aur $((k % 7)) && echo "emmc: acked $((k % 7))"
    sleep 0.1
done
EOF
export ARMVM_DISK=$work/disk ARMVM_PIDFILE=$work/pid ARMVM_ENV=EMMC_VALUES ARMVM_SECONDS=120
export ARMVM_MODULES="virtio_mmio virtio_blk crc32c_generic ext4" EMMC_VALUES=0
broken=0
for ((i = 0; i <= cuts; i++)); do
    "$top/scripts/armvm.sh" "$stage" "$work/emmc" >"$work/console" 2>&1 &
    w=600
    until grep -q '^emmc: flipping' "$work/console" || [ $((w -= 1)) = 0 ]; do sleep 0.1; done
    [ "$w" != 0 ] || { cat "$work/console"; exit 1; }
    sleep "$((RANDOM % 4)).$((RANDOM % 10))"
    kill -KILL "$(cat "$work/pid")"
    wait || true
    # The first boot only sets up; each later one checks the cut before it.
    r=$(sed -n 's/^emmc: broken/broken/p' "$work/console" | paste -sd, -)
    [ "$i" = 0 ] || echo "emmc: cut $i: ${r:-whole}"
    [ -z "$r" ] || broken=$((broken + 1))
    # What the key may hold after this cut: the last value acknowledged, and the one being set.
    EMMC_VALUES=$(echo $(sed -n 's/^emmc: acked //p' "$work/console" | tail -1) $(sed -n 's/^emmc: trying //p' "$work/console" | tail -1))
done
echo "emmc: $cuts cuts on $(grep -o 'Linux [^ ]*' "$work/console" | head -1), broken afterwards: $broken"
[ "$broken" = 0 ]
