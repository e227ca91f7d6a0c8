#!/usr/bin/env bash
# The installed daemon end to end: one scenario per run, each in a sandbox of
# its own (sandbox.sh), driven the way an operator would drive the device:
# aldsettings, ip link, signals.
# Usage: scenarios.sh SCENARIO STAGE
#   STAGE is the prefix that `cmake --install` filled; the work directory is
#   $ALD_TEST_ROOT (ctest gives every test its own) and is kept for a look
#   after a failure.
# Exit status: 0 passed, 1 failed, 77 skipped (not root, no namespaces).
set -u
here=$(cd "$(dirname "$0")" && pwd)
# shellcheck source-path=SCRIPTDIR
. "$here/sandbox.sh"
# shellcheck source-path=SCRIPTDIR
. "$here/checks.sh"

# --- scenarios --------------------------------------------------------------

# The first start: command line, process group, environment, descriptors and
# output file of the updater; all three keys written, the rest of the file
# kept as it was, indented by 4, mode 0644, no temporary file left.
scenario_first_start() {
    ip link add br-lan type bridge
    local env=/daemons/aldsorvelupdd/env_vars
    settings set "$env/ALDT_ONE" one
    settings set "$env/ALDT_TWO" "two words=2"
    settings set "$env/ALDT_SHADOW" from-settings
    settings set "$env/ALDT_DIR/inner" "a key with subkeys is no variable"
    conf_write
    chmod 0600 "$SB_CONF"
    local theirs
    theirs=$(jq -S 'del(.pcap_device)' "$SB_CONF")

    ALDT_SHADOW=from-daemon ALDT_KEPT=kept up
    local pid
    pid=$(updater_pid 1)
    expect_eq "command line" "$(updater_rec "$pid" argv)" \
        "/opt/aldrana/sorvel/sorvelupd|-r|/opt/aldrana/sorvel/|-c|$SB_CONF"
    expect_eq "process group" "$(updater_rec "$pid" pgid)" "$pid"
    expect_eq "parent" "$(updater_rec "$pid" ppid)" "$SB_DAEMON"
    expect_eq "keys at the first start" "$(keys_of "$pid")" \
        '{"aur_enabled":true,"pcap_device":["br-lan"],"connect_appid":"com.aldrana.sorvelupd"}'
    expect_eq "environment" "$(grep '^env\.' "$SB_UPDATER_DIR/$pid.rec" | tr '\n' ' ')" \
        "env.ALDT_KEPT=kept env.ALDT_ONE=one env.ALDT_SHADOW=from-settings env.ALDT_TWO=two words=2 "
    expect_eq "daemon descriptors open in the updater" "$(updater_rec "$pid" leaked)" ""
    expect_eq "signals blocked in the updater" "$(updater_rec "$pid" sigblk)" 0000000000000000
    expect_eq "signals ignored in the updater" "$(updater_rec "$pid" sigign)" 0000000000000000
    expect_eq "first log line" "$(head -n 1 "$SB_LOG" | sed 's/.*\]: //')" "start ald sorvelupd daemon"
    expect_eq "fork lines" "$(log_count "fork sorvelupd [pid $pid]")" 1

    local out=$SB_VAR/sorvelupd.out_err.log
    await 3 "updater output in $out" grep -q "standard error" "$out"
    expect_eq "output file" "$(cat "$out")" \
        "sorvelupd $pid: standard output"$'\n'"sorvelupd $pid: standard error"

    expect_eq "the updater's own keys" "$(jq -S 'del(.aur_enabled, .pcap_device, .connect_appid)' "$SB_CONF")" \
        "$theirs"
    expect_eq "file keys" "$(conf_keys)" "$(keys_of "$pid")"
    # jq prints what jansson prints with an indent of 4, plus a final newline.
    expect_eq "layout of updater.conf" "$(cat "$SB_CONF")" "$(jq --indent 4 . "$SB_CONF")"
    if ! grep -q '^    "server": {$' "$SB_CONF" || ! grep -q '^        "retries": 3,$' "$SB_CONF"; then
        fail "updater.conf is not indented by 4: $(head -n 4 "$SB_CONF")"
    fi
    expect_eq "mode of updater.conf" "$(stat -c %a "$SB_CONF")" 644
    expect_eq "files beside updater.conf" "$(etc_entries)" "settings updater.conf "

    no_restart "a running updater" 1.5
    daemon_stop || die "the daemon did not stop"
}

# The privacy switch: a change restarts the updater on the new value, after
# it was stopped on the old one; the same value written again changes nothing.
scenario_privacy() {
    up
    local p1 inode
    p1=$(updater_pid 1)
    expect_eq "aur_enabled without the setting" "$(key_of "$p1" aur_enabled)" true

    settings set /privacy/aur 0
    restarts_on 1 "/privacy/aur set to 0" aur_enabled false
    expect_eq "keys when the old updater got SIGTERM" "$(sed -n "s/^term $p1 //p" "$SB_UPDATER_DIR/events")" \
        "$(keys_of "$p1")"

    inode=$(stat -c %i "$SB_CONF")
    settings set /privacy/aur 0
    no_restart "/privacy/aur written again with 0" 2.5
    expect_eq "updater.conf after the same value (inode)" "$(stat -c %i "$SB_CONF")" "$inode"

    settings set /privacy/aur 7
    restarts_on 2 "/privacy/aur set to 7" aur_enabled true
    settings del /privacy/aur
    restarts_on 3 "/privacy/aur deleted after 7" aur_enabled true
    expect_eq "other keys after the rewrites" "$(jq -c '{var_path, server}' "$SB_CONF")" \
        "$(sandbox_conf_text | jq -c '{var_path, server}')"
    daemon_stop || die "the daemon did not stop"
}

# LAN links: added (a bridge, a veth whose peer does not match), renamed in
# and out of the patterns, deleted; links that do not match change nothing.
scenario_lan() {
    settings set /network/lan/ifnames "lan* br-lan"
    up
    expect_eq "pcap_device without LAN links" "$(key_of "$(updater_pid 1)" pcap_device)" '[]'

    ip link add lan2 type bridge
    restarts_on 1 "bridge lan2 added" pcap_device '["lan2"]'
    ip link add lan1 type veth peer name wan0
    restarts_on 2 "veth lan1 added" pcap_device '["lan1","lan2"]'

    ip link add wan1 type bridge
    ip link set lan1 up
    no_restart "a non-matching link added, a LAN link set up"

    ip link set lan2 name lan0
    restarts_on 3 "lan2 renamed lan0" pcap_device '["lan0","lan1"]'
    ip link set lan0 name xlan0
    restarts_on 4 "lan0 renamed out of the patterns" pcap_device '["lan1"]'
    ip link del lan1
    restarts_on 5 "lan1 deleted" pcap_device '[]'
    daemon_stop || die "the daemon did not stop"
}

# The application id is read only when the LAN part is written.
scenario_appid() {
    up
    expect_eq "connect_appid without the setting" "$(key_of "$(updater_pid 1)" connect_appid)" \
        '"com.aldrana.sorvelupd"'
    settings set /system/app_id com.example.gateway
    no_restart "/system/app_id set"
    expect_eq "connect_appid before a LAN change" "$(jq -c .connect_appid "$SB_CONF")" '"com.aldrana.sorvelupd"'

    ip link add br-lan type bridge
    restarts_on 1 "br-lan added" connect_appid '"com.example.gateway"'
    expect_eq "pcap_device with br-lan" "$(key_of "$new" pcap_device)" '["br-lan"]'
    daemon_stop || die "the daemon did not stop"
}

# An updater that dies is started again a second later, whatever its end.
scenario_child_exit() {
    up
    local p1 p2 p3 p4 t0
    p1=$(updater_pid 1)
    t0=$(now_ms)
    kill -KILL "$p1"
    await 5 "exit line for the killed updater" log_reaches 1 "sorvelupd [pid $p1] has exited"
    await 5 "start after the kill" starts_reach 2
    p2=$(updater_pid 2)
    expect_in "ms from the kill to the next start" $(($(started_ms "$p2") - t0)) 1000 3000

    updater_next exit:3
    kill -KILL "$p2"
    await 8 "updater that exits with status 3" starts_reach 3
    p3=$(updater_pid 3)
    await 5 "exit line with status 3" log_reaches 1 "sorvelupd [pid $p3] has exited with status 3"
    await 5 "start after the exit with status 3" starts_reach 4
    p4=$(updater_pid 4)
    expect_in "ms from the start that exited with 3 to the next" \
        $(($(started_ms "$p4") - $(started_ms "$p3"))) 1000 3000
    expect_eq "fork line of the last updater" "$(log_count "fork sorvelupd [pid $p4]")" 1
    no_restart "a running updater after the restarts" 1.5
    daemon_stop || die "the daemon did not stop"
}

# updater.conf missing, not JSON, without a string var_path, or naming an
# output directory that does not exist: no updater, a new attempt about every
# second, the file left as it is; an updater as soon as it is fixed.
scenario_bad_config() {
    local line="failed to get file for redirection" n t0 text
    daemon_start
    await 5 "'$line'" log_reaches 1 "$line"
    t0=$(now_ms)
    await 6 "four '$line'" log_reaches 4 "$line"
    expect_in "ms between the first and the fourth attempt" $(($(now_ms) - t0)) 2000 4500
    expect_eq "'failed to load config json' lines (init, first privacy write)" \
        "$(log_count "failed to load config json")" 2
    [ -e "$SB_CONF" ] && fail "a missing updater.conf was created"

    for text in '{ "var_path": "/var", oops' '{"var_path": 42, "server": {"retries": 3}}' '[1, 2]'; do
        conf_write "$text"
        n=$(log_count "$line")
        await 4 "two more '$line' with: $text" log_reaches $((n + 2)) "$line"
        expect_eq "updater.conf after attempts with it" "$(cat "$SB_CONF")" "$text"
    done
    expect_eq "files beside updater.conf" "$(etc_entries)" "settings updater.conf "

    conf_write "$(sandbox_conf_text | jq --indent 4 --arg v "$SB_WORK/nowhere" '.var_path = $v')"
    await 6 "updater that cannot open its output file" \
        grep -qE "]: sorvelupd \[pid [0-9]+\] has exited with status 1$" "$SB_LOG"
    expect_eq "stand-in starts while the output directory is missing" "$(updater_starts)" 0

    text=$(sandbox_conf_text)
    conf_write "$text"
    await 5 "updater start once updater.conf is fixed" starts_reach 1
    expect_eq "updater.conf when the updater starts" "$(cat "$SB_CONF")" "$text"
    # The first privacy write failed: the value is still new to the daemon.
    settings set /privacy/aur 1
    restarts_on 1 "/privacy/aur set after the fix" aur_enabled true
    daemon_stop || die "the daemon did not stop"
}

# SIGTERM, SIGINT and SIGHUP: the updater stopped and reaped, status 0, the
# stop line last.
scenario_stop_signals() {
    local sig pid t0
    for sig in TERM INT HUP; do
        up
        pid=$(updater_pid)
        t0=$(now_ms)
        daemon_stop "$sig" 10 || die "SIG$sig: the daemon still runs after 10s"
        expect_eq "SIG$sig: exit status" "$SB_STATUS" 0
        expect_in "SIG$sig: ms to stop" $(($(now_ms) - t0)) 0 4000
        grep -q "^term $pid " "$SB_UPDATER_DIR/events" || fail "SIG$sig: the updater was not sent SIGTERM"
        expect_eq "SIG$sig: reaped" "$(log_count "sorvelupd [pid $pid] has exited with status 0")" 1
        ! alive "$pid" || fail "SIG$sig: the updater outlived the daemon"
        expect_eq "SIG$sig: last line" "$(tail -n 1 "$SB_LOG" | sed 's/.*\]: //')" "stop ald sorvelupd daemon"
    done
}

# An updater that ignores SIGTERM and has a child of its own: 16 SIGTERMs a
# second apart, then SIGKILL to the whole group.
scenario_stubborn() {
    updater_mode ignore-term
    up
    local pid gc t0
    pid=$(updater_pid 1)
    gc=$(updater_rec "$pid" grandchild)
    alive "$gc" || die "the stand-in's own child did not start"
    t0=$(now_ms)
    daemon_stop TERM 40 || die "the daemon still runs 40s after SIGTERM"
    expect_eq "exit status" "$SB_STATUS" 0
    expect_in "ms to stop" $(($(now_ms) - t0)) 15500 21000
    expect_eq "SIGTERM lines" "$(log_count "sent signal #15 to sorvelupd [pid $pid]")" 16
    expect_in "still-running lines" "$(log_count "sorvelupd [pid $pid] is still running")" 16 17
    expect_in "SIGKILL lines" "$(log_count "sent signal #9 to sorvelupd [pid $pid]")" 1 2
    expect_eq "exit lines" "$(log_count "sorvelupd [pid $pid] has exited")" 1
    expect_eq "SIGTERM before SIGKILL" \
        "$(grep -oE 'sent signal #[0-9]+' "$SB_LOG" | uniq -c | awk '{printf "%s%s ", $1, $4}')" "16#15 $(
            log_count "sent signal #9 to sorvelupd [pid $pid]")#9 "
    ! alive "$pid" || fail "the updater survived"
    wait_until 2 eval "! alive $gc" || fail "the updater's child $gc survived in its group"
    expect_eq "last line" "$(tail -n 1 "$SB_LOG" | sed 's/.*\]: //')" "stop ald sorvelupd daemon"
}

# --log-level: 0 lets only errors through, 1 warnings too, -1 nothing at all.
scenario_log_levels() {
    local line="failed to get file for redirection"
    daemon_start --log-level=0
    await 5 "'$line' at level 0" log_reaches 2 "$line"
    conf_write
    await 5 "updater start at level 0" starts_reach 1
    daemon_stop || die "level 0: the daemon did not stop"
    expect_eq "level 0: status" "$SB_STATUS" 0
    expect_eq "level 0: lines other than errors" "$(grep -vc '^error: ' "$SB_LOG")" 0

    # Slow to exit: the first wait after SIGTERM finds it running.
    updater_mode slow-term
    up -l 1
    daemon_stop || die "level 1: the daemon did not stop"
    [ "$(log_count "sorvelupd [pid $(updater_pid)] is still running")" -ge 1 ] ||
        fail "level 1: no still-running warning"
    expect_eq "level 1: info lines" "$(grep -c '^info: ' "$SB_LOG")" 0

    updater_mode run
    up --log-level=-1
    local before
    before=$(updater_starts)
    kill -KILL "$(updater_pid)"
    await 5 "restart at level -1" starts_reach $((before + 1))
    daemon_stop || die "level -1: the daemon did not stop"
    expect_eq "level -1: status" "$SB_STATUS" 0
    expect_eq "level -1: standard error" "$(cat "$SB_LOG")" ""
}

# A settings store that cannot be made: exit status 1 right after start.
scenario_store_unavailable() {
    conf_write
    printf 'a file where the store should be\n' >"$SB_ETC/settings"
    daemon_start
    daemon_wait 5 || die "the daemon still runs without a settings store"
    expect_eq "exit status" "$SB_STATUS" 1
    local want='^info: \[aldsorvelupdd\.cpp:[0-9]+\]\[init\(\)\]: start ald sorvelupd daemon
error: \[aldsorvelupdd\.cpp:[0-9]+\]\[init\(\)\]: failed to init aldsetmgmt
info: \[aldsorvelupdd\.cpp:[0-9]+\]\[init\(\)\]: stop ald sorvelupd daemon$'
    [[ $(cat "$SB_LOG") =~ $want ]] || fail "log: $(cat "$SB_LOG")"
    expect_eq "updater starts" "$(updater_starts)" 0
    expect_eq "updater.conf" "$(cat "$SB_CONF")" "$(sandbox_conf_text)"
}

scenario_main "$@"
