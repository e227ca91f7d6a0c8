#!/usr/bin/env bash
# The installed daemon end to end, one scenario per run, each in a sandbox
# of its own (sandbox.sh), driven as an operator drives the device:
# aldsettings, ip link, signals.
#   scenarios.sh SCENARIO STAGE    (STAGE: what cmake --install filled)
# The work directory is $ALD_ROOT, which ctest gives each test; it is kept
# for a look after a failure. Exit status 0, 1 failed, 77 skipped (no root
# or namespaces). ALD_CRASH_KILLS sets the kills of the crash scenario.
set -u
. "$(dirname "$0")/sandbox.sh"
failures=0
fail() { echo "FAIL: $*" >&2; failures=$((failures + 1)); }
expect() { [ "$2" = "$3" ] || fail "$1: got '$2', expected '$3'"; }
within() { [ "$2" -ge "$3" ] && [ "$2" -le "$4" ] || fail "$1: $2, expected $3 to $4"; }
# await SECONDS WHAT CMD...: the scenario cannot go on without it.
await() { wait_until "$1" "${@:3}" || { fail "no $2 within $1 s"; exit 1; }; }
log_has() { [ "$(grep -c "]: $2\$" "$SB_LOG")" -ge "$1" ]; }
# held WHAT N: for 2 s no updater starts after the Nth.
held() { ! wait_until 2 starts_reach $(($2 + 1)) || fail "$1 restarted the updater"; }
up() {
    conf_write
    daemon_start
    await 5 "first updater" starts_reach 1
}
stopped() {
    kill -TERM "$SB_DAEMON"
    daemon_wait 20 || { fail "the daemon still runs 20 s after SIGTERM"; exit 1; }
    expect "exit status" "$SB_STATUS" 0
    [[ $(tail -n 1 "$SB_LOG") == *"]: stop ald sorvelupd daemon" ]] || fail "the stop line is not the last"
}
# restarted N KEY VALUE: updater N was stopped with SIGTERM before the file
# changed, and updater N + 1 started with KEY at VALUE.
restarted() {
    local old new
    old=$(updater_pid "$1")
    await 5 "restart of updater $1" starts_reach $(($1 + 1))
    new=$(updater_pid $(($1 + 1)))
    expect "keys when updater $1 got SIGTERM" "$(sed -n "s/^term $old //p" "$SB_UPDATER_DIR/events")" \
        "$(updater_rec "$old" keys)"
    expect "$2 at the start of updater $(($1 + 1))" "$(updater_rec "$new" keys | jq -c ".$2")" "$3"
}

# The updater's command line, group, environment, signals, descriptors and
# output; the three keys written beside the updater's own, indented by 4,
# mode 0644, nothing left beside; a stop with SIGTERM.
scenario_first_start() {
    local env=/daemons/aldsorvelupdd/env_vars out=$SB_VAR/sorvelupd.out_err.log pid old
    settings set $env/ALDT_ONE "one two=2"
    settings set $env/ALDT_SHADOW store
    settings set $env/ALDT_DIR/x "a key with subkeys is no variable"
    settings set $env/ALDT_EQ=X "a name with = is no variable"
    old=$(printf '%0200d' 0)
    printf '%s' "$old" >"$out"
    conf_write
    chmod 0600 "$SB_CONF"
    ALDT_SHADOW=daemon ALDT_ONE_KEPT=kept daemon_start
    await 5 "first updater" starts_reach 1
    pid=$(updater_pid)
    expect "command line" "$(updater_rec "$pid" argv)" "/opt/aldrana/sorvel/sorvelupd|-r|/opt/aldrana/sorvel/|-c|$SB_CONF"
    expect "group and parent" "$(updater_rec "$pid" pgid) $(updater_rec "$pid" ppid)" "$pid $SB_DAEMON"
    expect "environment" "$(updater_rec "$pid" env)" "ALDT_ONE=one two=2 ALDT_ONE_KEPT=kept ALDT_SHADOW=store "
    expect "blocked, ignored" "$(updater_rec "$pid" blocked) $(updater_rec "$pid" ignored)" "0000000000000000 0000000000000000"
    expect "descriptors of the daemon's" "$(updater_rec "$pid" fds)" ""
    await 3 "updater output" grep -q "standard error" "$out"
    local new="sorvelupd $pid: standard output"$'\n'"sorvelupd $pid: standard error"$'\n'
    expect "output file" "$(cat "$out")" "$new${old:${#new}}"
    expect "updater.conf" "$(cat "$SB_CONF")" "$(sandbox_conf_text |
        jq --indent 4 '.pcap_device = [] | .connect_appid = "com.aldrana.sorvelupd" | .aur_enabled = true')"
    expect "mode and neighbours" "$(stat -c %a "$SB_CONF") $(ls -A "$SB_ETC" | tr '\n' ' ')" "644 settings updater.conf "
    stopped
    grep -q "^term $pid " "$SB_UPDATER_DIR/events" || fail "the updater got no SIGTERM"
    ! alive "$pid" || fail "the updater outlived the daemon"
}

# The privacy switch and LAN links (added, renamed into, within and out of
# the patterns, deleted) restart the updater on the new file; the same value
# again and the application id alone do not.
scenario_changes() {
    settings set /network/lan/ifnames "lan* br-lan"
    up
    settings set /privacy/aur 0
    restarted 1 aur_enabled false
    settings set /privacy/aur 0
    settings set /system/app_id com.example.gateway
    held "the same value and an application id" 2
    ip link add lan2 type bridge
    restarted 2 pcap_device '["lan2"]'
    expect "connect_appid with the LAN change" "$(jq -c .connect_appid "$SB_CONF")" '"com.example.gateway"'
    ip link add wan1 type veth peer name wan2
    ip link set wan1 name lan1
    restarted 3 pcap_device '["lan1","lan2"]'
    ip link set lan2 name lan9
    restarted 4 pcap_device '["lan1","lan9"]'
    ip link set lan9 name xlan9
    restarted 5 pcap_device '["lan1"]'
    ip link del lan1
    restarted 6 pcap_device '[]'
    stopped
}

# An updater that dies is started again a second later; one that cannot
# start (no output directory, no updater) fails in its child about every
# 2 s; no updater.conf: a new attempt about every second, nothing written.
scenario_restarts() {
    local t0 line="failed to get file for redirection"
    daemon_start
    await 5 "'$line'" log_has 1 "$line"
    t0=$(now_ms)
    await 5 "a fourth '$line'" log_has 4 "$line"
    within "ms for three more attempts" $(($(now_ms) - t0)) 2000 4500
    [ -e "$SB_CONF" ] && fail "updater.conf was made"
    line="sorvelupd \[pid [0-9]*\] has exited with status 1"
    failing() {  # failing CAUSE: each start fails in the child, status 1, about every 2 s
        local n
        n=$(grep -c "]: $line\$" "$SB_LOG")
        await 5 "a failed start ($1)" log_has $((n + 1)) "$line"
        t0=$(now_ms)
        await 8 "two more failed starts ($1)" log_has $((n + 3)) "$line"
        within "ms for two more failed starts ($1)" $(($(now_ms) - t0)) 3000 5500
    }
    conf_write "$(sandbox_conf_text | jq --arg v "$SB_WORK/nowhere" '.var_path = $v')"
    failing "no output directory"
    conf_write
    mv /opt/aldrana/sorvel/sorvelupd /opt/aldrana/sorvel/away
    failing "no updater"
    expect "stand-in starts" "$(updater_starts)" 0
    mv /opt/aldrana/sorvel/away /opt/aldrana/sorvel/sorvelupd
    await 5 "an updater once updater.conf is right" starts_reach 1
    t0=$(now_ms)
    kill -KILL "$(updater_pid)"
    await 5 "a start after the kill" starts_reach 2
    within "ms from the kill to the next start" $(($(updater_rec "$(updater_pid)" started) - t0)) 1000 3000
    stopped
}

# SIGKILL at random moments of the first quarter second of the daemon,
# while it rewrites a 1 MiB updater.conf twice: the file is always one the
# daemon wrote or started from.
scenario_crash() {
    local kills=${ALD_CRASH_KILLS:-40} doc torn=0 left=0 i aur
    local -A valid
    conf_write "$(sandbox_conf_text | jq '.history = [range(16000) | "entry \(.): " + ("x" * 48)]')"
    valid[$(jq -S -c . "$SB_CONF")]=shipped
    for aur in null true false; do
        valid[$(jq -S -c --argjson a $aur '.pcap_device = [] | .connect_appid = "com.aldrana.sorvelupd" |
            if $a == null then . else .aur_enabled = $a end' "$SB_CONF")]=written
    done
    for ((i = 1; i <= kills; i++)); do
        settings set /privacy/aur $((i % 2))  # a rewrite at every start
        daemon_start
        sleep "$(printf '0.%03d' $((RANDOM % 200 + 50)))"
        kill -KILL "$SB_DAEMON"
        wait "$SB_DAEMON" 2>/dev/null
        pkill -KILL -f "^/bin/sh /opt/aldrana/sorvel/sorvelupd"
        doc=$(jq -S -c . "$SB_CONF" 2>/dev/null) || doc="not JSON"
        [ -n "${valid[$doc]:-}" ] || { torn=$((torn + 1)); fail "kill $i: updater.conf torn: ${doc:0:200}"; }
        left=$((left + $(find "$SB_ETC" -maxdepth 1 -name '.tmp-*' -delete -print | wc -l)))
    done
    echo "crash: $kills kills, $torn torn files, $left temporary files left behind"
}

# The daemon under runsv, killed with SIGKILL three times and restarted by
# runsv each time: its updater goes with it, so exactly one ever runs.
scenario_respawn() {
    local svc=$SB_WORK/service i old
    one_updater() { [ "$(for p in $(awk '$1 == "start" {print $2}' "$SB_UPDATER_DIR/events"); do
        alive "$p" && echo "$p"; done | wc -l)" = 1 ]; }
    conf_write
    mkdir -p "$svc"
    printf '#!/bin/sh\nexec %s 2>>%s\n' "$SB_STAGE/sbin/aldsorvelupdd" "$SB_LOG" >"$svc/run"
    chmod +x "$svc/run"
    runsv "$svc" &
    for ((i = 1; i <= 3; i++)); do
        await 5 "updater $i" starts_reach $i
        old=$(updater_pid $i)
        kill -KILL "$(cat "$svc/supervise/pid")"
        await 5 "updater $((i + 1)) after the daemon's restart" starts_reach $((i + 1))
        wait_until 5 one_updater || fail "kill $i: updater $old outlived its daemon"
    done
    kill -TERM $!
    wait $!
}

scenario=${1:?usage: $0 SCENARIO STAGE} stage=${2:?usage: $0 SCENARIO STAGE}
if [ -z "${SANDBOX_INSIDE:-}" ]; then
    [ -x "$stage/sbin/aldsorvelupdd" ] || { echo "no installed daemon in $stage" >&2; exit 1; }
    why=$(sandbox_check) || { echo "SKIP: $why"; exit 77; }
    rm -rf "$ALD_ROOT" && mkdir -p "$ALD_ROOT" || exit 1
    SANDBOX_INSIDE=$ALD_ROOT exec "${SANDBOX_RUN[@]}" "$0" "$@"
fi
sandbox_prepare "$SANDBOX_INSIDE" "$stage"
trap '[ $? = 0 ] || tail -n 30 "$SB_LOG" >&2' EXIT
"scenario_$scenario"
exit $((failures > 0))
