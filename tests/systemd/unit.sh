# SPDX-License-Identifier: MIT
# shellcheck shell=sh
# The installed systemd unit under systemd as PID 1, run beside it by
# scripts/systemdbox.sh (sh, root, outside the unit): the updater's job
# under the unit's sandbox (a packet socket, var_path in /tmp), a killed
# daemon, the journal's priorities, two stops and a bad option. One
# "systemd: ok WHAT" or "systemd: FAIL WHAT" line per check; the exit status
# is the number of failures.
fails=0
# check WHAT TENTHS CMD...: CMD holds within TENTHS tenths of a second (1: at once).
check() {
    what=$1 n=$2 && shift 2
    until "$@"; do
        n=$((n - 1))
        [ $n -gt 0 ] || { echo "systemd: FAIL $what"; fails=$((fails + 1)); return; }
        sleep 0.1
    done
    echo "systemd: ok $what"
}
unit=aldsorvelupdd
journal() { journalctl -q -o cat SYSLOG_IDENTIFIER=$unit "$@"; }
logged() { journal | grep -q "$1"; }
# at PRIORITY WORD: the daemon has lines at PRIORITY, and each starts with WORD.
at() { journal -p "$1" >/run/lines && [ -s /run/lines ] && ! grep -v "^$2: " /run/lines; }
# The stand-in's output in var_path DIR says that it opened its packet socket.
opened() { grep -qsx 'packet socket open' "$1/sorvelupd.out_err.log"; }
main_pid() { systemctl show -P MainPID $unit; }
updaters() { grep -ls 'sorvel/sorvel[u]pd' /proc/[0-9]*/cmdline; }
# One updater runs, and it is the daemon's child.
# shellcheck disable=SC2046 # a word per updater
one_updater() { set -- "$(main_pid)" $(updaters) && [ $# = 2 ] && grep -q "^PPid:.$1\$" "${2%cmdline}status"; }
restarted() { [ "$(main_pid)" != "$1" ] && one_updater; }
# The updater's mounts are the system's: what it unmounts before flashing is gone for all.
system_mounts() { u=$(updaters) && [ "$(readlink "${u%cmdline}ns/mnt")" = "$(readlink /proc/1/ns/mnt)" ]; }
stopped() { [ "$(systemctl show -P Result $unit)" = success ] && ! systemctl -q is-active $unit && [ -z "$(updaters)" ]; }
not_restarted() { [ "$(systemctl show -P NRestarts $unit)" = 0 ] && systemctl -q is-failed $unit; }

# A stand-in updater that opens a packet socket (AF_PACKET, SOCK_RAW), as a
# capture on the LAN links does, says so in its output, and runs until a
# signal; STANDIN_IGNORE_TERM in its environment makes it ignore SIGTERM.
mkdir -p /opt/aldrana/sorvel /etc/aldrana /run/var /tmp/var
cat >/opt/aldrana/sorvel/sorvelupd <<'EOF'
#!/usr/bin/perl
$| = 1; $SIG{TERM} = 'IGNORE' if $ENV{STANDIN_IGNORE_TERM};
print socket(my $s, 17, 3, 0) ? "packet socket open\n" : "packet socket: $!\n";
sleep 60 while 1;
EOF
chmod 0755 /opt/aldrana/sorvel/sorvelupd

systemctl start $unit
check "no updater.conf: an error" 50 logged "failed to get file for redirection"
echo '{"var_path": "/run/var"}' >/etc/aldrana/updater.conf
check "the updater's packet socket" 50 opened /run/var
check "the updater's mounts are the system's" 1 system_mounts
systemctl stop $unit
aldsettings set /daemons/aldsorvelupdd/env_vars/STANDIN_IGNORE_TERM 1
echo '{"var_path": "/tmp/var"}' >/etc/aldrana/updater.conf
systemctl start $unit
check "started again, with an updater that ignores SIGTERM" 50 one_updater
daemon=$(main_pid) && kill -KILL "$daemon"
check "killed daemon restarted with one updater" 50 restarted "$daemon"
check "var_path in /tmp: the output, seen outside the unit" 30 opened /tmp/var
systemctl stop $unit
check "stop, SIGTERM ignored: within TimeoutStopSec, no updater left" 1 stopped
check "stop, SIGTERM ignored: the updater got SIGKILL" 1 logged "sent signal #9"
check "journalctl -p err: the error lines alone" 1 at err error
check "journal: warnings at their priority" 1 at warning..warning warning
check "journal: info at its priority" 1 at info..info info
# Last, since its usage lines go to the journal: a bad option (status 2) is
# not restarted, a restart cannot mend it.
mkdir -p /etc/systemd/system/$unit.service.d
printf '[Service]\nExecStart=\nExecStart=%s --log-level=x\n' "$(command -v aldsorvelupdd)" \
    >/etc/systemd/system/$unit.service.d/bad-option.conf
systemctl daemon-reload && systemctl start $unit && sleep 2
check "status 2, a bad option: not restarted" 1 not_restarted
[ $fails = 0 ] || { journalctl -u $unit -o short-monotonic --no-pager | tail -40; tail /run/var/* /tmp/var/*; }
exit $fails
