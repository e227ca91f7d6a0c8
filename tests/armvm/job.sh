# SPDX-License-Identifier: MIT
# The daemon's job on a 32-bit ARM kernel, and the only end-to-end test of
# changes: run by the guest of scripts/armvm.sh (busybox sh, root, the
# daemon at /usr/sbin as on a device). One "armvm: ok WHAT" or "armvm: FAIL
# WHAT" line per check on the console; the exit status is the number of
# failures.
fails=0
# check WHAT TENTHS CMD...: CMD holds within TENTHS tenths of a second (1: at once).
check() {
    what=$1 n=$2
    shift 2
    until "$@"; do
        n=$((n - 1))
        [ $n -gt 0 ] || { echo "armvm: FAIL $what (Linux $(uname -r))"; fails=$((fails + 1)); return; }
        sleep 0.1
    done
    echo "armvm: ok $what"
}
starts_reach() { [ "$(grep -c '^start' /run/events)" -ge "$1" ]; }
# field N F: field F of the Nth start (2 pid, 3 group, 4 parent, 5 uptime).
field() { awk -v n="$1" -v f="$2" '$1 == "start" && ++i == n {print $f}' /run/events; }
# updater.conf without blanks holds TEXT.
conf_has() { tr -d ' \n' </etc/aldrana/updater.conf | grep -qF "$1"; }
no_updater() { ! grep -qs 'sorvel/sorvel[u]pd' /proc/[0-9]*/cmdline; }
# term_lacks N TEXT: updater N got SIGTERM while the file lacked TEXT.
term_lacks() { t=$(grep "^term $(field "$1" 2) " /run/events) && case $t in *"$2"*) false ;; esac; }
# restart N WHAT TEXT: updater N was stopped before the file changed, and
# N + 1 started on a file with TEXT.
restart() {
    check "$2" 100 starts_reach $(($1 + 1))
    check "$2: updater $1 stopped first" 1 term_lacks "$1" "$3"
    check "$2: $3" 1 conf_has "$3"
}
# held WHAT N: 2 s on, no updater has started after the Nth.
held() {
    sleep 2
    check "$1: no restart" 1 eval "! starts_reach $(($2 + 1))"
}

# A stand-in updater that records its starts, and its SIGTERM with the file as it was then.
mkdir -p /opt/aldrana/sorvel /run/var /mnt/data /etc/aldrana/settings/privacy
ln -s /mnt/data/persist/aur /etc/aldrana/settings/privacy/aur
cat >/opt/aldrana/sorvel/sorvelupd <<'EOF'
#!/bin/sh
read -r stat </proc/$$/stat
set -- ${stat##*) }
echo "start $$ $3 $2 $(cut -d' ' -f1 /proc/uptime)" >>/run/events
! ls -l /proc/$$/fd | grep -q /run/launcher || echo "inherited $$" >>/run/events
trap 'kill $s; echo "term $$ $(tr -d " \n" </etc/aldrana/updater.conf)" >>/run/events; exit 0' TERM
while :; do sleep 30 & s=$!; wait $s; done
EOF
chmod 0755 /opt/aldrana/sorvel/sorvelupd
echo '{"var_path": "/run/var", "pcap_device": "stale"}' >/etc/aldrana/updater.conf
: >/run/events
aldsettings set /network/lan/ifnames "br-lan lan*"
# Descriptors open in the daemon, which no updater may inherit: a start
# script's low one, and one above 1024 and the soft limit, so that a walk up
# to the limit would miss it.
ulimit -n 4096
: >/run/launcher
(exec 3</run/launcher 3000</run/launcher && ulimit -Sn 2048 && exec aldsorvelupdd --log-level=2 2>/run/daemon.log) &
daemon=$!

check "first start" 100 starts_reach 1
check "own group, daemon's child" 1 [ "$(field 1 3) $(field 1 4)" = "$(field 1 2) $daemon" ]
# A boot script mounts the storage that the privacy key links to, here
# while the daemon pauses after reaping a killed updater: a mount that no
# wait of the daemon's sees happen. The updater started after the pause is
# stopped at once, before it may record its start: count from the last.
kill -KILL "$(field 1 2)"
mount -t tmpfs data /mnt/data && mkdir /mnt/data/persist && aldsettings set /privacy/aur 0
check "privacy off, on storage mounted while the daemon paused" 100 conf_has '"aur_enabled":false'
sleep 2
b=$(grep -c '^start' /run/events)
check "privacy off: an updater runs on it" 1 eval '[ $b -ge 2 ] && ! grep -q "^term $(field $b 2) " /run/events'
aldsettings set /system/app_id com.example.gateway
held "an application id" $b
ip link add lan0 type veth
restart $b "veth added" '"pcap_device":["lan0"],"connect_appid":"com.example.gateway"'
ip link add br-lan type bridge
restart $((b + 1)) "bridge added, names sorted" '"pcap_device":["br-lan","lan0"]'
ip link del br-lan
restart $((b + 2)) "bridge removed" '"pcap_device":["lan0"]'
ip link set lan0 name lan1
restart $((b + 3)) "veth renamed within the patterns" '"pcap_device":["lan1"]'
ip link set lan1 name wan0
restart $((b + 4)) "veth renamed out" '"pcap_device":[]'
t0=$(cut -d' ' -f1 /proc/uptime)
kill -KILL "$(field $((b + 5)) 2)"
check "killed updater restarted" 50 starts_reach $((b + 6))
check "about a second after the kill" 1 awk -v a="$t0" -v b="$(field $((b + 6)) 5)" 'BEGIN {exit !(b - a >= 0.9 && b - a < 3)}'
check "descriptors 3 and 3000 not inherited" 1 eval '[ "$(ls -l /proc/$daemon/fd | grep -c /run/launcher)" = 2 ] && ! grep -q ^inherited /run/events'
kill -TERM $daemon
wait $daemon
check "SIGTERM: exit status 0" 1 [ $? = 0 ]
check "SIGTERM: the updater reaped" 1 grep -q "sorvelupd \[pid $(field $((b + 6)) 2)\] has exited with status 0" /run/daemon.log
aldsorvelupdd 2>>/run/daemon.log &
check "started again" 100 starts_reach $((b + 7))
kill -KILL $!
check "SIGKILL: the updater goes with the daemon" 50 no_updater
[ "${ALD_POWER_CUTS:-${ALD_POWER_CUTS_DEFAULT:-0}}" = 0 ] || . ./powercut.sh
[ $fails = 0 ] || cat /run/daemon.log /run/persist.log 2>/dev/null
exit $fails
