# SPDX-License-Identifier: MIT
# The daemon's idle memory and system calls on a 32-bit ARM kernel, and the
# time from its fork of an updater to the updater's exec: run by the guest
# of scripts/armvm.sh, with bench_idle_ref (the floor: an empty C++ program
# on the same libraries with one idle thread), bench_standin and, when it
# could be staged, strace, all armhf, in /guest. Prints "value KEY VALUE"
# lines, which bench/run.sh adds to its figures.
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

# Fork to exec, from the kernel's own events (no tracer stops the child):
# sched_process_fork of the daemon to sched_process_exec of that child, in
# microseconds, for 6 starts of a stand-in that exits at once (the daemon
# starts the next a second later), with RLIMIT_NOFILE at its default and at
# the 1048576 that service managers set.
t=/sys/kernel/tracing
mount -t tracefs tracefs $t && echo mono >$t/trace_clock &&
    echo 1 >$t/events/sched/sched_process_fork/enable && echo 1 >$t/events/sched/sched_process_exec/enable || exit 1
for limit in 1024 1048576; do
    echo >$t/trace
    (ulimit -n $limit && BENCH_STANDIN_MODE=exit exec aldsorvelupdd 2>>/run/daemon.log) &
    d=$!
    n=0
    until [ "$(grep -c 'sched_process_exec: filename=/opt/' $t/trace)" -ge 6 ] || [ $n = 1800 ]; do
        sleep 0.1
        n=$((n + 1))
    done
    kill -TERM $d
    wait $d
    echo "value arm.fork_exec_us.$limit $(awk -v d=$d '
        { for (i = 1; i <= NF && $i !~ /^[0-9]+\.[0-9]+:$/; i++); ts = $i + 0 }
        / sched_process_fork: / && $0 ~ (" pid=" d " ") { sub(/.*child_pid=/, ""); forked[$1 + 0] = ts }
        / sched_process_exec: / { sub(/.* pid=/, ""); p = $1 + 0; if (p in forked) printf "%d\n", (ts - forked[p]) * 1e6 }
        ' $t/trace | sort -n | tr '\n' ' ')"
done
