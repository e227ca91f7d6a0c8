#!/usr/bin/env bash
# Crash consistency of updater.conf: the installed daemon is kept rewriting
# the file (the privacy switch flipped as soon as each value is applied) and
# killed with SIGKILL at random moments, again and again. After every kill
# the file must be a document the daemon wrote, or the one it started from:
# it parses, every key of the updater's is unchanged, and the daemon's keys
# hold values it wrote. Temporary files that a kill leaves behind are
# counted and reported. Same usage and exit statuses as scenarios.sh;
# ALD_CRASH_KILLS sets the number of kills (default 200).
set -u
here=$(cd "$(dirname "$0")" && pwd)
# shellcheck source-path=SCRIPTDIR
. "$here/sandbox.sh"
# shellcheck source-path=SCRIPTDIR
. "$here/checks.sh"

# Flips /privacy/aur each time updater.conf shows the last value applied;
# counts the flips in the file flips.
flipper() {
    local value=0 want
    settings set /privacy/aur "$value"
    while :; do
        want=false
        [ "$value" = 0 ] || want=true
        if [ "$(jq -c .aur_enabled "$SB_CONF" 2>/dev/null)" = "$want" ]; then
            value=$((1 - value))
            settings set /privacy/aur "$value"
            echo "$value" >>"$SB_WORK/flips"
        fi
        sleep 0.02
    done
}

# Every updater, with whatever it started in its group: the daemon that
# would have stopped them is gone. By pid too, for one killed before it
# made its group.
kill_updaters() {
    local pid
    for pid in $(pgrep -f "^/bin/sh $SANDBOX_UPDATER "); do
        kill -KILL -- "-$pid" "$pid" 2>/dev/null
    done
}

# one_of TEXT CANDIDATE...: TEXT is one of the candidates (compared in the
# shell: a document of this size is too long for an argument of a command).
one_of() {
    local text=$1 candidate
    shift
    for candidate; do [[ $text == "$candidate" ]] && return 0; done
    return 1
}

# What the daemon's temporary copies are called (beside updater.conf, hidden).
temp_files() { find "$SB_ETC" -maxdepth 1 -type f -name '.*'; }

scenario_crash_consistency() {
    local kills=${ALD_CRASH_KILLS:-200}
    settings set /network/lan/ifnames br-lan
    ip link add br-lan type bridge
    # Foreign keys of about 256 KiB: a rewrite takes long enough (some
    # milliseconds) for random kills to land inside one now and then.
    conf_write "$(sandbox_conf_text | jq --indent 4 '.history = [range(4000) | "entry \(.): " + ("x" * 48)]')"

    # The documents the file may be: as shipped, with the LAN keys (written
    # first), and with the privacy switch either way as well.
    local lan valid=()
    lan=$(jq -S -c '.pcap_device = ["br-lan"] | .connect_appid = "com.aldrana.sorvelupd"' "$SB_CONF")
    valid=("$(jq -S -c . "$SB_CONF")" "$lan" "$(jq -S -c '.aur_enabled = true' <<<"$lan")"
        "$(jq -S -c '.aur_enabled = false' <<<"$lan")")

    flipper &
    local flipper_pid=$! i delay doc stamp last_stamp torn=0 left=0 kills_leaving=0 rewritten=0 n
    # A rewrite is a new file: inode numbers come back, the pair does not.
    last_stamp=$(stat -c '%i %.9Y' "$SB_CONF")
    for ((i = 1; i <= kills; i++)); do
        # Half the kills fall in the first 100 ms, where the start-up writes
        # are; the others anywhere in 1.5 s, which covers a flip's rewrite
        # after the stop of the updater (about a second).
        if ((i % 2)); then delay=$((RANDOM % 100)); else delay=$((RANDOM % 1500)); fi
        daemon_start -l 0
        sleep "$((delay / 1000)).$(printf '%03d' $((delay % 1000)))"
        kill -KILL "$SB_DAEMON"
        wait "$SB_DAEMON" 2>/dev/null
        kill_updaters

        doc=$(jq -S -c . "$SB_CONF" 2>/dev/null) || doc="not JSON"
        if ! one_of "$doc" "${valid[@]}"; then
            torn=$((torn + 1))
            fail "kill $i after ${delay} ms: updater.conf is no document the daemon wrote: $(head -c 300 "$SB_CONF")"
        fi
        n=$(temp_files | wc -l)
        if [ "$n" -gt 0 ]; then
            left=$((left + n))
            kills_leaving=$((kills_leaving + 1))
            temp_files | xargs rm -f
        fi
        stamp=$(stat -c '%i %.9Y' "$SB_CONF")
        [ "$stamp" = "$last_stamp" ] || rewritten=$((rewritten + 1))
        last_stamp=$stamp
    done
    kill "$flipper_pid"
    wait "$flipper_pid" 2>/dev/null

    echo "crash: $kills kills, $torn torn files; $rewritten lives rewrote updater.conf;" \
        "$(wc -l <"$SB_WORK/flips" 2>/dev/null || echo 0) privacy flips applied;" \
        "$left temporary files left behind, by $kills_leaving kills"
    expect_eq "kills after which updater.conf was torn" "$torn" 0
    [ "$rewritten" -ge $((kills / 2)) ] || fail "only $rewritten of $kills lives rewrote updater.conf"
    [ -n "$(unknown_lines)" ] && fail "lines that are none of the daemon's messages: $(unknown_lines | head -n 3)"
    # The scenario's own daemons are all gone: nothing for teardown to stop.
    SB_DAEMON=
}

scenario_main "$@"
