# SPDX-License-Identifier: MIT
# What one privacy change costs on a router's NAND: run by the guest of
# scripts/armvm.sh from bench/run.sh, or by hand on any staged install (see
# docs/performance.md), with the modules and programs of the power-cut job.
# updater.conf and the settings live on UBIFS on a simulated NAND at
# /persist, as there. Over FLASH_CHANGES changes (default 10), each set and
# then waited for until the updater runs again, and a final sync, kprobes
# count the file flushes (vfs_fsync_range) and UBI's writes to the flash
# (ubi_io_write, with their bytes). Prints "flash: KEY VALUE" lines, the
# counts per change.
n=${FLASH_CHANGES:-10}
etc=/persist/etc/aldrana
t=/sys/kernel/tracing
mount -t tracefs tracefs $t
ubiattach -m 0 >/dev/null && ubimkvol /dev/ubi0 -N data -m >/dev/null && mkdir /persist &&
    mount -t ubifs ubi0:data /persist && mkdir -p /persist/var/run $etc/settings /run/var /opt/aldrana/sorvel &&
    mount -t tmpfs tmpfs /persist/var/run || exit 1
printf '#!/bin/sh\necho start >>/run/starts\nexec sleep 1000\n' >/opt/aldrana/sorvel/sorvelupd
chmod 0755 /opt/aldrana/sorvel/sorvelupd
echo '{"var_path": "/run/var", "pcap_device": []}' >$etc/updater.conf
ALD_ROOT=/persist aldsettings set /privacy/aur 0
ALD_ROOT=/persist aldsorvelupdd 2>/run/daemon.log &
starts() { cat /run/starts 2>/dev/null | wc -l; }
# wait_start N: the Nth updater has started, within 10 s.
wait_start() { w=100; until [ "$(starts)" -ge "$1" ] || [ $((w -= 1)) = 0 ]; do sleep 0.1; done; }
wait_start 1
sync
# ubi_io_write(ubi, buf, pnum, offset, len): len is its fifth argument, the first on the stack on ARM.
echo 'p:flush vfs_fsync_range' >>$t/kprobe_events
echo 'p:ubiw ubi_io_write len=$stack0:s32' >>$t/kprobe_events || echo 'p:ubiw ubi_io_write' >>$t/kprobe_events
echo 1 >$t/events/kprobes/enable
i=0
while [ $i -lt "$n" ]; do
    i=$((i + 1))
    ALD_ROOT=/persist aldsettings set /privacy/aur $((i % 2))
    wait_start $((i + 1))
done
sync
echo 0 >$t/events/kprobes/enable
per() { awk -v n="$n" -v e="$1" '$1 == e {printf "%.1f", $2 / n}' $t/kprobe_profile; }
echo "flash: kernel Linux $(uname -r)"
echo "flash: changes $n"
echo "flash: flushes $(per flush)"
echo "flash: writes $(per ubiw)"
echo "flash: bytes $(awk -v n="$n" '/ ubiw:/ {sub(".*len=", ""); s += $1} END {printf "%d", s / n}' $t/trace)"
killall aldsorvelupdd
