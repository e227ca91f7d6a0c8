# SPDX-License-Identifier: MIT
# What one privacy change costs on a router's flash: run by the guest of
# scripts/armvm.sh from bench/run.sh, or by hand on any staged install (see
# docs/performance.md). updater.conf and the settings live at /persist on
# UBIFS on a simulated NAND (the modules and programs of the power-cut job)
# or, with FLASH_FS=f2fs, on f2fs on the virtio disk (ARMVM_DISK, made with
# mkfs.f2fs; the modules virtio_mmio virtio_blk crc32_generic f2fs), as eMMC. Over
# FLASH_CHANGES changes (default 10), each set and then waited for until
# the updater runs again, and a final sync, kprobes count the file flushes
# (vfs_fsync_range) and UBI's writes to the flash (ubi_io_write, with their
# bytes), or f2fs's checkpoints (f2fs_write_checkpoint) and the disk's
# writes and bytes (/sys/block/vda/stat). Prints "flash: KEY VALUE" lines,
# the counts per change.
n=${FLASH_CHANGES:-10}
fs=${FLASH_FS:-ubifs}
etc=/persist/etc/aldrana
t=/sys/kernel/tracing
mount -t tracefs tracefs $t
mkdir /persist
if [ "$fs" = ubifs ]; then
    ubiattach -m 0 >/dev/null && ubimkvol /dev/ubi0 -N data -m >/dev/null && mount -t ubifs ubi0:data /persist
else
    mount -t f2fs /dev/vda /persist
fi && mkdir -p /persist/var/run $etc/settings /run/var /opt/aldrana/sorvel && mount -t tmpfs tmpfs /persist/var/run || exit 1
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
if [ "$fs" = ubifs ]; then
    echo 'p:ubiw ubi_io_write len=$stack0:s32' >>$t/kprobe_events || echo 'p:ubiw ubi_io_write' >>$t/kprobe_events
else
    echo 'p:cp f2fs_write_checkpoint' >>$t/kprobe_events
fi
echo 1 >$t/events/kprobes/enable
# Write requests and sectors the disk completed.
disk() { awk '{print $5, $7}' /sys/block/vda/stat; }
before=$(disk)
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
echo "flash: fs $fs"
echo "flash: changes $n"
echo "flash: flushes $(per flush)"
if [ "$fs" = ubifs ]; then
    echo "flash: writes $(per ubiw)"
    echo "flash: bytes $(awk -v n="$n" '/ ubiw:/ {sub(".*len=", ""); s += $1} END {printf "%d", s / n}' $t/trace)"
else
    echo "flash: checkpoints $(per cp)"
    echo "$before $(disk)" | awk -v n="$n" '{printf "flash: writes %.1f\nflash: bytes %d\n", ($3 - $1) / n, ($4 - $2) * 512 / n}'
fi
killall aldsorvelupdd
