#!/usr/bin/env bash
# Updaters that misbehave and input that is bad, against the installed
# daemon: it keeps running, logs only its own messages (checks.sh) and
# loses nothing. Same usage and exit statuses as scenarios.sh.
set -u
here=$(cd "$(dirname "$0")" && pwd)
# shellcheck source-path=SCRIPTDIR
. "$here/sandbox.sh"
# shellcheck source-path=SCRIPTDIR
. "$here/checks.sh"

# The state letter of a process (R, S, T, Z...), empty when it is gone.
proc_state() {
    local stat
    read -r stat 2>/dev/null <"/proc/$1/stat" || return 0
    stat=${stat##*) }
    echo "${stat%% *}"
}
# The daemon's descriptors ("N -> target" lines) and its own memory.
daemon_fds() { find "/proc/$SB_DAEMON/fd" -mindepth 1 -printf '%f -> %l\n' | sort -n; }
# RssAnon is the daemon's own memory: heap, stacks, the pages of data it
# wrote. Private_Dirty is shown beside it but not compared: it also counts
# pages of the freshly installed binary and library while they wait in the
# page cache to be written back, which comes and goes with the machine.
daemon_rss_anon() { awk '$1 == "RssAnon:" {print $2}' "/proc/$SB_DAEMON/status"; }
daemon_dirty() { awk '$1 == "Private_Dirty:" {print $2}' "/proc/$SB_DAEMON/smaps_rollup"; }
# quiet_after N: waits until updater N is gone. The daemon is then in the
# pause after its reap, with no child that shares its pages.
quiet_after() {
    local pid
    pid=$(updater_pid "$1")
    await 5 "the end of updater $pid" eval "! alive $pid"
}
# sample N: once updater N has started and is gone again, the daemon's
# descriptors, RssAnon and Private_Dirty and the updater's start time, into
# the caller's arrays fds, anon, dirty and t at N.
sample() {
    await 40 "$1 starts" starts_reach "$1"
    quiet_after "$1"
    fds[$1]=$(daemon_fds)
    anon[$1]=$(daemon_rss_anon)
    dirty[$1]=$(daemon_dirty)
    t[$1]=$(started_ms "$(updater_pid "$1")")
}
# store_put KEY FILE: the file becomes KEY's value in one rename, as any
# writer of the store must. aldsettings takes a value as one argument, which
# the kernel limits to 128 KiB: bigger values go in this way.
store_put() {
    local target=$ALD_ROOT/etc/aldrana/settings$1
    mkdir -p "${target%/*}"
    cp "$2" "$target.new" && mv "$target.new" "$target"
}
# The environment of process PID, one variable a line (values with newlines
# are shown with \n).
environ_of() { sed -z 's/\n/\\n/g' "/proc/$1/environ" | tr '\0' '\n'; }
# Starts that failed in the child (no output file, no executable, an
# environment too big to execute): it exits with status 1.
failed_starts() { grep -cE '\]: sorvelupd \[pid [0-9]+\] has exited with status 1$' "$SB_LOG" || true; }
failed_starts_reach() { [ "$(failed_starts)" -ge "$1" ]; }

# --- updaters that misbehave ---------------------------------------------------

# A stopped updater: its SIGCHLD finds it "still running"; the daemon forgets
# it all the same and starts a second one. The stopped one stays, no longer
# its business: the daemon's stop does not touch it.
scenario_stopped_updater() {
    up
    local p1 p2
    p1=$(updater_pid 1)
    kill -STOP "$p1"
    await 5 "still-running line for the stopped updater" log_reaches 1 "sorvelupd [pid $p1] is still running"
    await 5 "a second updater beside the stopped one" starts_reach 2
    p2=$(updater_pid 2)
    expect_eq "state of the stopped updater" "$(proc_state "$p1")" T
    no_restart "a running second updater" 1.5
    daemon_stop || die "the daemon did not stop"
    expect_eq "exit status" "$SB_STATUS" 0
    expect_eq "the second updater reaped" "$(log_count "sorvelupd [pid $p2] has exited with status 0")" 1
    expect_eq "signals to the stopped updater" "$(log_count "sent signal #15 to sorvelupd [pid $p1]")" 0
    expect_eq "state of the stopped updater after the stop" "$(proc_state "$p1")" T
    kill -KILL "$p1"
}

# An updater that exits at once, every time: started again a second after
# each exit (the pause after the reap), without end, with the daemon's
# descriptors and memory flat. One that cannot be executed at all spends its
# own second in the child before it exits with status 1: about every 2 s.
scenario_exit_forever() {
    updater_mode exit:0
    up
    local -A fds anon dirty t
    sample 5
    sample 30
    expect_in "ms per restart, starts 5 to 30" $(((t[30] - t[5]) / 25)) 1000 1400
    expect_eq "the daemon's descriptors, start 30 against start 5" "${fds[30]}" "${fds[5]}"
    # Under AddressSanitizer freed memory is held back in quarantine, and
    # memory grows by design; the heap itself is checked there by the soak.
    if readelf -d "$SB_STAGE/sbin/aldsorvelupdd" | grep -q 'NEEDED.*libasan'; then
        echo "exit_forever: a sanitized daemon: memory not compared"
    else
        expect_eq "the daemon's RssAnon KiB, start 30 against start 5" "${anon[30]}" "${anon[5]}"
    fi
    echo "exit_forever: 30 starts, $(((t[30] - t[5]) / 25)) ms apart; descriptors $(wc -l <<<"${fds[30]}");" \
        "RssAnon ${anon[5]} KiB at start 5, ${anon[30]} KiB at start 30 (Private_Dirty ${dirty[5]}, ${dirty[30]} KiB)"

    rm "$SANDBOX_UPDATER"
    local n t1 t4 starts
    starts=$(updater_starts)
    n=$(failed_starts)
    await 5 "a failed start" failed_starts_reach $((n + 1))
    t1=$(now_ms)
    await 10 "3 more failed starts" failed_starts_reach $((n + 4))
    t4=$(now_ms)
    expect_in "ms for 3 failed starts" $((t4 - t1)) 5000 7500
    expect_eq "stand-in starts without an executable" "$(updater_starts)" "$starts"

    updater_mode run
    install -m 0755 "$SANDBOX_LIB/sorvelupd" "$SANDBOX_UPDATER"
    await 5 "a start once the executable is back" starts_reach $((starts + 1))
    no_restart "a running updater" 1.5
    daemon_stop || die "the daemon did not stop"
    expect_eq "exit status" "$SB_STATUS" 0
}

# An updater that closes its standard output and error is an updater like
# any other: changes restart it, a stop reaps it.
scenario_closed_output() {
    updater_mode close-output
    up
    await 3 "the first updater's output" grep -q "standard error" "$SB_VAR/sorvelupd.out_err.log"
    settings set /privacy/aur 0
    restarts_on 1 "/privacy/aur set to 0" aur_enabled false
    daemon_stop || die "the daemon did not stop"
    expect_eq "exit status" "$SB_STATUS" 0
    expect_eq "the last updater reaped" "$(log_count "sorvelupd [pid $new] has exited with status 0")" 1
}

# The output directory removed under a running updater: it runs on; the
# next start fails in the child (status 1, again and again) until the
# directory is back.
scenario_output_removed() {
    up
    local p1 out=$SB_VAR/sorvelupd.out_err.log
    p1=$(updater_pid 1)
    rm -rf "$SB_VAR"
    hold_for 1 alive "$p1" || fail "the updater died with its output directory"
    kill -KILL "$p1"
    await 6 "two failed starts" failed_starts_reach 2
    expect_eq "stand-in starts without the output directory" "$(updater_starts)" 1
    mkdir -p "$SB_VAR"
    await 5 "a start once the directory is back" starts_reach 2
    await 3 "output of the new updater" grep -q "sorvelupd $(updater_pid 2): standard error" "$out"
    daemon_stop || die "the daemon did not stop"
    expect_eq "exit status" "$SB_STATUS" 0
}

# --- bad input ----------------------------------------------------------------

# Values of a megabyte: an application id with newlines reaches the file
# whole; an integer setting padded to a megabyte is read, one that overflows
# counts as absent; an environment variable too big to execute makes every
# start fail in the child until it is removed.
scenario_big_values() {
    settings set /network/lan/ifnames "br-lan lan*"
    ip link add br-lan type bridge
    up
    local big=$SB_WORK/big
    # 1024 lines of 1023 characters: 1 MiB, the last newline not part of the value.
    awk 'BEGIN { line = sprintf("%1023s", ""); gsub(/ /, "a", line); for (i = 0; i < 1024; i++) print line }' >"$big"
    store_put /system/app_id "$big"
    awk 'BEGIN { for (i = 0; i < 1048576; i++) printf "9" }' >"$SB_WORK/overflow"
    store_put /privacy/aur "$SB_WORK/overflow"
    no_restart "an integer setting of a megabyte that overflows (absent: 1, as before)"

    settings set /privacy/aur 0
    restarts_on 1 "/privacy/aur set to 0" aur_enabled false
    { awk 'BEGIN { for (i = 0; i < 1048570; i++) printf " " }'; echo " 7 "; } >"$SB_WORK/padded"
    store_put /privacy/aur "$SB_WORK/padded"
    restarts_on 2 "/privacy/aur of a megabyte of blanks around 7" aur_enabled true

    ip link add lan0 type bridge
    restarts_on 3 "lan0 added" pcap_device '["br-lan","lan0"]'
    expect_eq "connect_appid of a megabyte" "$(jq -r .connect_appid "$SB_CONF" | sha256sum)" "$(sha256sum <"$big")"
    expect_eq "the updater's own keys after it" "$(jq -c '{var_path, server}' "$SB_CONF")" \
        "$(sandbox_conf_text | jq -c '{var_path, server}')"

    awk 'BEGIN { for (i = 0; i < 1048576; i++) printf "e" }' >"$SB_WORK/env"
    store_put /daemons/aldsorvelupdd/env_vars/ALDT_BIG "$SB_WORK/env"
    local starts
    starts=$(updater_starts)
    kill -KILL "$(updater_pid)"
    await 8 "two failed starts with a variable of a megabyte" failed_starts_reach 2
    expect_eq "stand-in starts with a variable of a megabyte" "$(updater_starts)" "$starts"
    settings del /daemons/aldsorvelupdd/env_vars/ALDT_BIG
    await 5 "a start once the variable is gone" starts_reach $((starts + 1))
    daemon_stop || die "the daemon did not stop"
    expect_eq "exit status" "$SB_STATUS" 0
}

# 10,000 environment variables, names that hold "=", hidden entries and a
# value with newlines: every variable that can be one reaches the updater,
# at every start.
scenario_many_env() {
    local dir=$ALD_ROOT/etc/aldrana/settings/daemons/aldsorvelupdd/env_vars i
    mkdir -p "$dir"
    for ((i = 0; i < 10000; i++)); do printf 'v%d\n' "$i" >"$dir/$(printf 'ALDT_%05d' "$i")"; done
    printf 'x\n' >"$dir/ALDT_EQ=X"
    printf 'x\n' >"$dir/="
    printf 'x\n' >"$dir/.ALDT_HIDDEN"
    printf 'line one\nline two\n\n' >"$dir/ALDT_NL"
    up
    local pid env count
    for count in 1 2; do
        pid=$(updater_pid "$count")
        env=$(environ_of "$pid")
        expect_eq "start $count: numbered variables" "$(grep -c '^ALDT_[0-9]*=' <<<"$env")" 10000
        expect_eq "start $count: ALDT_04711" "$(grep '^ALDT_04711=' <<<"$env")" "ALDT_04711=v4711"
        expect_eq "start $count: value with newlines" "$(grep '^ALDT_NL=' <<<"$env")" 'ALDT_NL=line one\nline two\n'
        expect_eq "start $count: names with = and hidden names" "$(grep -cE '^(ALDT_EQ|=|\.ALDT)' <<<"$env")" 0
        [ "$count" = 2 ] || { kill -KILL "$pid"; await 5 "a second start" starts_reach 2; }
    done
    daemon_stop || die "the daemon did not stop"
    expect_eq "exit status" "$SB_STATUS" 0
}

# Interface names that are not ASCII: one in UTF-8 reaches pcap_device, one
# that is not UTF-8 is left out of it; the file always parses.
scenario_odd_ifnames() {
    settings set /network/lan/ifnames "lan*"
    up
    ip link add lanä type bridge
    restarts_on 1 "lanä added" pcap_device '["lanä"]'
    ip link add $'lan\xff' type bridge
    restarts_on 2 "lan\\xff added" pcap_device '["lanä"]'
    ip link del $'lan\xff'
    restarts_on 3 "lan\\xff deleted" pcap_device '["lanä"]'
    expect_eq "the updater's own keys" "$(jq -S 'del(.aur_enabled, .pcap_device, .connect_appid)' "$SB_CONF")" \
        "$(sandbox_conf_text | jq -S 'del(.aur_enabled, .pcap_device, .connect_appid)')"
    daemon_stop || die "the daemon did not stop"
    expect_eq "exit status" "$SB_STATUS" 0
}

# The settings directory replaced by a file while the daemon runs: the
# setting is absent (aur_enabled true), starts go on without stored
# variables; once the directory is back, its values apply again.
scenario_store_replaced() {
    local store=$ALD_ROOT/etc/aldrana/settings
    settings set /privacy/aur 0
    settings set /daemons/aldsorvelupdd/env_vars/ALDT_ONE one
    up
    expect_eq "aur_enabled at the first start" "$(key_of "$(updater_pid 1)" aur_enabled)" false
    mv "$store" "$store.saved"
    printf 'not a directory\n' >"$store"
    restarts_on 1 "the store replaced by a file" aur_enabled true
    expect_eq "stored variables without the store" "$(updater_rec "$new" env.ALDT_ONE)" ""
    no_restart "a running updater without the store"

    rm "$store"
    mv "$store.saved" "$store"
    restarts_on 2 "the store back" aur_enabled false
    expect_eq "stored variables with the store back" "$(updater_rec "$new" env.ALDT_ONE)" one
    daemon_stop || die "the daemon did not stop"
    expect_eq "exit status" "$SB_STATUS" 0
}

scenario_main "$@"
