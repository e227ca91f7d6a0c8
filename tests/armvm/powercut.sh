# SPDX-License-Identifier: MIT
# Power cuts on a router's NAND: sourced by job.sh, whose helpers it uses.
# updater.conf and the settings live on UBIFS on a simulated NAND (nandsim),
# /persist as on a device; UBI's power-cut emulation stops every write to
# the flash after a few more, chosen at random, while the privacy switch
# flips, while a key of the test's own flips (which the daemon does not
# rewrite on, so that only the set's own flushes can make it durable) or
# while a LAN change is written. Then the daemon and its updater
# are killed, the volume is detached, attached and mounted again (UBIFS
# recovers as after a real cut), and: updater.conf is whole, with every key
# of the updater's and each of the daemon's old or new; the privacy key and
# the test's key hold the last value whose set returned 0, or the one being
# set; the
# daemon starts the updater on the recovered volume. ALD_POWER_CUTS cuts.
pc=/sys/kernel/debug/ubi/ubi0
etc=/persist/etc/aldrana
mount -t debugfs debugfs /sys/kernel/debug
attach() {
    ubiattach -m 0 >/dev/null && mount -t ubifs ubi0:data /persist && mkdir -p /persist/var/run &&
        mount -t tmpfs tmpfs /persist/var/run
}
ubiattach -m 0 >/dev/null && ubimkvol /dev/ubi0 -N data -m >/dev/null && ubidetach -m 0 && mkdir /persist && attach
# 8 KiB of the updater's own that do not compress to nothing, so that each
# rewrite takes about half of one of the flash's erase blocks.
head=$(head -c 4096 /dev/urandom | od -An -tx1 | tr -d ' \n')
head="{\"var_path\":\"/run/var\",\"history\":\"$head\","
mkdir -p $etc/settings && echo "$head\"pcap_device\":[]}" >$etc/updater.conf
ALD_ROOT=/persist aldsettings set /network/lan/ifnames "lan*"
ALD_ROOT=/persist aldsettings set /privacy/aur 0
ALD_ROOT=/persist aldsettings set /test/flip 0
head -c 262144 /dev/urandom >/run/data && cp /run/data /persist/data && sync
# Whether the flash stopped: the kernel's log is emptied before each cut,
# since a full log drops the oldest lines and a count of them stops growing.
stopped() { dmesg | grep -q 'emulating a power cut'; }
count() { grep -c '^start' /run/events; }
# settle N: the Nth updater has started, within 3 s.
settle() { t=30; until starts_reach "$1" || [ $((t -= 1)) = 0 ]; do sleep 0.1; done; }
# The flash stops writing within the next $1 to $2 writes of UBI headers.
arm() { echo "$1" >$pc/tst_emulate_power_cut_min && echo "$2" >$pc/tst_emulate_power_cut_max && echo 3 >$pc/tst_emulate_power_cut; }
# What is wrong with the recovered volume, if anything.
recovered() {
    doc=$(tr -d ' \n' <$etc/updater.conf)
    case $doc in "$head"*) ;; *) echo "updater.conf torn: $(wc -c <$etc/updater.conf) bytes"; return ;; esac
    echo "${doc#"$head"}" | grep -Eqx "\"pcap_device\":\[$lan\],\"connect_appid\":\"com.aldrana.sorvelupd\",\"aur_enabled\":(true|false)}" ||
        echo "updater.conf: ${doc#"$head"}"
    key=$(cat $etc/settings/privacy/aur)
    [ "$key" = "$aur_acked" ] || [ "$key" = "$aur_trying" ] || echo "privacy key $key, not $aur_acked or $aur_trying"
    key=$(cat $etc/settings/test/flip)
    [ "$key" = "$flip_acked" ] || [ "$key" = "$flip_trying" ] || echo "test key $key, not $flip_acked or $flip_trying"
}
# flip KEY VAR [data]: sets KEY 1 to 6, 0 and so on in turn, every 0.1 s, until the
# flash stops; VAR_acked and VAR_trying follow. With "data", 256 KiB of
# another file are rewritten and flushed (its data alone) after each set,
# so that the flash stops right after a set returned, at a write that
# flushes nothing of the set's: what the set did not flush itself is lost.
flip() {
    while [ $k -lt 300 ] && v=$(((k + 1) % 7)) && eval "$2_trying=$v" && ALD_ROOT=/persist aldsettings set "$1" $v 2>/dev/null; do
        eval "$2_acked=$v" && k=$((k + 1))
        [ -z "$3" ] || { dd if=/run/data of=/persist/data bs=64k conv=notrunc 2>/dev/null && sync -d /persist/data 2>/dev/null; }
        sleep 0.1
    done
}
aur_acked=0 flip_acked=0 n=0 torn=0 sets=0 i=0
started=$(count)
ALD_ROOT=/persist aldsorvelupdd 2>>/run/persist.log &
check "power cuts: the updater runs on /persist" 100 starts_reach $((started + 1))
while [ $i -lt "${ALD_POWER_CUTS:-$ALD_POWER_CUTS_DEFAULT}" ]; do
    i=$((i + 1)) aur_trying=$aur_acked flip_trying=$flip_acked lan= k=0
    dmesg -c >/dev/null
    # In turn: during privacy flips, LAN changes and flips of the test's
    # key; 1 or 2 header writes to go, or 4 to 8.
    arm $((1 + i % 4 / 2 * 3)) $((2 + i % 4 / 2 * 6))
    if [ $((i % 3)) = 1 ]; then
        flip /privacy/aur aur
    elif [ $((i % 3)) = 0 ]; then
        flip /test/flip flip data
    else
        while [ $k -lt 40 ] && ! stopped; do
            n=$((n + 1)) k=$((k + 1)) lan="(\"lan$n\")?"
            started=$(count) && ip link add lan$n type veth && settle $((started + 1))
            started=$(count) && ip link del lan$n && settle $((started + 1))
        done
    fi
    check "power cut $i: the flash stopped ($k changes)" 1 stopped
    killall -KILL aldsorvelupdd sorvelupd 2>/dev/null; wait
    check "power cut $i: the volume attached again" 1 eval 'umount /persist/var/run /persist && ubidetach -m 0 && attach'
    problem=$(recovered)
    check "power cut $i: updater.conf and the keys recovered${problem:+ ($problem)}" 1 [ -z "$problem" ]
    [ -z "$problem" ] || { torn=$((torn + 1)) && echo "$head\"pcap_device\":[]}" >$etc/updater.conf; }
    # Each cut is judged on its own: from what the flash holds now.
    aur_acked=$(cat $etc/settings/privacy/aur) flip_acked=$(cat $etc/settings/test/flip)
    sets=$((sets + $(ls -a $etc/settings/privacy $etc/settings/test | grep -c '^\.set-')))
    started=$(count)
    ALD_ROOT=/persist aldsorvelupdd 2>>/run/persist.log &
    check "power cut $i: the daemon starts the updater again" 100 starts_reach $((started + 1))
done
started=$(count) && ALD_ROOT=/persist aldsettings set /privacy/aur 7 && settle $((started + 1))
ALD_ROOT=/persist aldsettings set /test/flip 0
check "no temporary file left after a start and a set" 1 eval '[ -z "$(find $etc -name ".aldsorvelupdd-*" -o -name ".set-*")" ]'
copies=$(sed -n 's/.*removed \([0-9]*\) temporary files.*/\1/p' /run/persist.log | awk '{s += $1} END {print s + 0}')
echo "armvm: power cuts: $i, broken afterwards: $torn; temporary files removed: $copies of the daemon's, $sets of sets"
killall aldsorvelupdd
