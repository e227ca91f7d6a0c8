# The daemon's idle memory and system calls on a 32-bit ARM kernel: run by
# the guest of scripts/armvm.sh, with bench_idle_ref (the floor: an empty
# C++ program on the same libraries with one idle thread), bench_standin and,
# when it could be staged, strace, all armhf, in /guest. Prints "value KEY
# VALUE" lines, which bench/run.sh adds to its figures.
#
# The initramfs is a tmpfs, whose pages are always dirty: a program's text
# read from it counts as Private_Dirty of the one process that touches it.
# /usr and the programs move to an ext2 RAM disk (the modules brd, ext4 and
# theirs, through ARMVM_MODULES), synced and mounted read-only, where text is
# clean, as on a device's flash.
mkdir -p /mnt && mke2fs -q /dev/ram0 >/dev/null && mount -t ext4 /dev/ram0 /mnt && cp -a /usr/. /guest/bench_* /mnt/ && umount /mnt
mount -t ext4 -o ro /dev/ram0 /usr
mkdir -p /opt/aldrana/sorvel /run/var
cp /usr/bench_standin /opt/aldrana/sorvel/sorvelupd
echo '{"var_path": "/run/var"}' >/etc/aldrana/updater.conf
aldsorvelupdd 2>/run/daemon.log &
ours=$!
/usr/bench_idle_ref &
ref=$!
sleep 10
echo "value arm.kernel $(uname -sr)"
echo "value arm.cpus $(nproc) CPUs, $(sed -n 's/MemTotal: *//p' /proc/meminfo) of memory"
for p in ours ref; do
    eval pid=\$$p
    awk -v p=$p '/^(Rss|Pss|Private_Dirty):/ {sub(":", "", $1); print "value arm.mem." tolower($1) "." p, $2}' \
        /proc/$pid/smaps_rollup
done
echo "value arm.threads.ours $(ls /proc/$ours/task | wc -l)"
if [ -x /guest/strace ]; then
    # Every thread's calls for 20 s; a pass of the idle loop ends at its
    # epoll_wait, and the attach itself interrupts the wait in progress.
    /guest/strace -f -o /run/trace -p $ours 2>/dev/null &
    tracer=$!
    sleep 20
    kill -INT $tracer
    wait $tracer
    echo "value arm.idle.calls $(grep -vc -e resumed -e restart_syscall -e '^[0-9]* +++' /run/trace)"
    echo "value arm.idle.epoll_waits $(grep -c ' epoll_wait(' /run/trace)"
fi
kill $ref
kill -TERM $ours
wait $ours
echo "value arm.exit $?"
