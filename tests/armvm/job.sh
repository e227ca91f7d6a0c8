# The daemon's job on a 32-bit ARM kernel: run by the guest of
# scripts/armvm.sh (busybox sh, root, the daemon at /usr/sbin as on a
# device). One "armvm: ok WHAT" or "armvm: FAIL WHAT" line per check on the
# console; the exit status is the number of failures.
fails=0
check() {
    what=$1
    shift
    if "$@"; then echo "armvm: ok $what"; else echo "armvm: FAIL $what"; fails=$((fails + 1)); fi
}
# until_ TENTHS CMD...: true as soon as CMD is, false if not within TENTHS.
until_() {
    n=$1
    shift
    until "$@"; do
        n=$((n - 1))
        [ $n -gt 0 ] || return 1
        sleep 0.1
    done
}
starts() { grep -c '^start' /run/events; }
starts_reach() { [ "$(starts)" -ge "$1" ]; }
# field N F: field F of the Nth start (2 pid, 3 group, 4 parent, 5 uptime).
field() { awk -v n="$1" -v f="$2" '$1 == "start" && ++i == n {print $f}' /run/events; }
conf_has() { grep -q "$1" /etc/aldrana/updater.conf; }
conf_lacks() { ! conf_has "$1"; }
no_updater() { ! grep -qs 'sorvel/sorvel[u]pd' /proc/[0-9]*/cmdline; }
# restart N WHAT PATTERN: updater N got SIGTERM, N + 1 started on a file with PATTERN.
restart() {
    check "$2" until_ 100 starts_reach $(($1 + 1))
    check "$2: updater $1 stopped first" grep -q "^term $(field "$1" 2)$" /run/events
    check "$2: $3" conf_has "$3"
}

# A stand-in updater that records its starts and its SIGTERM.
mkdir -p /opt/aldrana/sorvel /run/var
cat >/opt/aldrana/sorvel/sorvelupd <<'EOF'
#!/bin/sh
read -r stat </proc/$$/stat
set -- ${stat##*) }
echo "start $$ $3 $2 $(cut -d' ' -f1 /proc/uptime)" >>/run/events
trap 'kill $s; echo "term $$" >>/run/events; exit 0' TERM
while :; do sleep 30 & s=$!; wait $s; done
EOF
chmod 0755 /opt/aldrana/sorvel/sorvelupd
echo '{"var_path": "/run/var", "pcap_device": "stale"}' >/etc/aldrana/updater.conf
: >/run/events
aldsettings set /network/lan/ifnames "br-lan lan*"
aldsorvelupdd --log-level=2 2>/run/daemon.log &
daemon=$!

check "first start" until_ 100 starts_reach 1
check "own group, daemon's child" [ "$(field 1 3) $(field 1 4)" = "$(field 1 2) $daemon" ]
check "first start: privacy on" conf_has '"aur_enabled": true'
check "first start: no LAN" conf_has '"pcap_device": \[\]'
check "first start: application id" conf_has '"connect_appid": "com.aldrana.sorvelupd"'
aldsettings set /privacy/aur 0
restart 1 "privacy off" '"aur_enabled": false'
ip link add br-lan type bridge
restart 2 "bridge added" '"br-lan"'
ip link add lan0 type veth
restart 3 "veth added" '"lan0"'
ip link del br-lan
restart 4 "bridge removed" '"lan0"'
check "bridge removed: gone" conf_lacks br-lan
ip link del lan0
restart 5 "veth removed" '"pcap_device": \[\]'
t0=$(cut -d' ' -f1 /proc/uptime)
kill -KILL "$(field 6 2)"
check "killed updater restarted" until_ 50 starts_reach 7
check "about a second after the kill" awk -v a="$t0" -v b="$(field 7 5)" 'BEGIN {exit !(b - a >= 0.9 && b - a < 3)}'
kill -TERM $daemon
wait $daemon
check "SIGTERM: exit status 0" [ $? = 0 ]
check "SIGTERM: last updater stopped" grep -q "^term $(field 7 2)$" /run/events
check "SIGTERM: no updater left" no_updater
[ $fails = 0 ] || cat /run/daemon.log
exit $fails
