# SPDX-License-Identifier: MIT
# Power cuts on a router's NAND: sourced by job.sh, whose helpers it uses.
# updater.conf and the settings live on UBIFS on a simulated NAND (nandsim),
# /persist as on a device; UBI's power-cut emulation stops every write to
# the flash after a few more, chosen at random, while the privacy switch
# flips or while a LAN change is written. Then the daemon and its updater
# are killed, the volume is detached, attached and mounted again (UBIFS
# recovers as after a real cut), and: updater.conf is whole, with every key
# of the updater's and each of the daemon's old or new; the privacy key
# holds the last value whose set returned 0, or the one being set; the
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
    [ "$key" = "$acked" ] || [ "$key" = "$trying" ] || echo "privacy key $key, not $acked or $trying"
}
acked=0 n=0 torn=0 sets=0 i=0
started=$(count)
ALD_ROOT=/persist aldsorvelupdd 2>>/run/persist.log &
check "power cuts: the updater runs on /persist" 100 starts_reach $((started + 1))
while [ $i -lt "${ALD_POWER_CUTS:-$ALD_POWER_CUTS_DEFAULT}" ]; do
    i=$((i + 1)) trying=$acked lan= k=0
    dmesg -c >/dev/null
    # Odd cuts during privacy flips, even ones during LAN changes; 1 or 2
    # header writes to go, or 4 to 8, in turn.
    arm $((1 + i % 4 / 2 * 3)) $((2 + i % 4 / 2 * 6))
    if [ $((i % 2)) = 1 ]; then
        while [ $k -lt 300 ] && trying=$((k % 7)) && ALD_ROOT=/persist aldsettings set /privacy/aur $trying 2>/dev/null; do
            acked=$trying k=$((k + 1))
            sleep 0.1
        done
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
    check "power cut $i: updater.conf and the key recovered${problem:+ ($problem)}" 1 [ -z "$problem" ]
    [ -z "$problem" ] || { torn=$((torn + 1)) && echo "$head\"pcap_device\":[]}" >$etc/updater.conf; }
    sets=$((sets + $(ls -a $etc/settings/privacy | grep -c '^\.set-')))
    started=$(count)
    ALD_ROOT=/persist aldsorvelupdd 2>>/run/persist.log &
    check "power cut $i: the daemon starts the updater again" 100 starts_reach $((started + 1))
done
started=$(count) && ALD_ROOT=/persist aldsettings set /privacy/aur 7 && settle $((started + 1))
check "no temporary file left after a start and a set" 1 eval '[ -z "$(find $etc -name ".aldsorvelupdd-*" -o -name ".set-*")" ]'
copies=$(sed -n 's/.*removed \([0-9]*\) temporary files.*/\1/p' /run/persist.log | awk '{s += $1} END {print s + 0}')
echo "armvm: power cuts: $i, broken afterwards: $torn; temporary files removed: $copies of the daemon's, $sets of sets"
killall aldsorvelupdd
