#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
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
# The updater's command line, environment, signals and output; the three
# keys written beside the updater's own, indented by 4, mode 0644, nothing
# left beside. (The stop: tests/armvm; inherited descriptors: the library's
# fork test.)
scenario_first_start() {
    local env=/daemons/aldsorvelupdd/env_vars out=$SB_VAR/sorvelupd.out_err.log pid old
    settings set $env/ALDT_ONE "one two=2"
    settings set $env/ALDT_SHADOW store
    settings set $env/ALDT_DIR/x "a key with subkeys is no variable"
    old=$(printf '%0200d' 0)
    printf '%s' "$old" >"$out"
    conf_write
    chmod 0600 "$SB_CONF"
    ALDT_SHADOW=daemon ALDT_ONE_KEPT=kept daemon_start
    await 5 "first updater" starts_reach 1
    pid=$(updater_pid)
    expect "command line" "$(updater_rec "$pid" argv)" "/opt/aldrana/sorvel/sorvelupd|-r|/opt/aldrana/sorvel/|-c|$SB_CONF"
    expect "environment" "$(updater_rec "$pid" env)" "ALDT_ONE=one two=2 ALDT_ONE_KEPT=kept ALDT_SHADOW=store "
    expect "blocked, ignored" "$(updater_rec "$pid" blocked) $(updater_rec "$pid" ignored)" "0000000000000000 0000000000000000"
    await 3 "updater output" grep -q "standard error" "$out"
    local new="sorvelupd $pid: standard output"$'\n'"sorvelupd $pid: standard error"$'\n'
    expect "output file" "$(cat "$out")" "$new${old:${#new}}"
    expect "updater.conf" "$(cat "$SB_CONF")" "$(sandbox_conf_text |
        jq --indent 4 '.pcap_device = [] | .connect_appid = "com.aldrana.sorvelupd" | .aur_enabled = true')"
    expect "mode and neighbours" "$(stat -c %a "$SB_CONF") $(ls -A "$SB_ETC" | tr '\n' ' ')" "644 settings updater.conf "
    kill -TERM "$SB_DAEMON"  # a normal exit, which the sanitizers check
    daemon_wait 20 || fail "the daemon still runs 20 s after SIGTERM"
}

# An updater that cannot start (no output directory, no updater) fails in
# its child about every 2 s; no updater.conf: a new attempt about every
# second. (Changes, an updater that dies, a daemon killed:
# the end-to-end test on the ARM kernel, tests/armvm.)
scenario_restarts() {
    local t0 line="failed to get file for redirection"
    daemon_start
    await 5 "'$line'" log_has 1 "$line"
    t0=$(now_ms)
    await 5 "a fourth '$line'" log_has 4 "$line"
    within "ms for three more attempts" $(($(now_ms) - t0)) 2000 4500
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
    mv /opt/aldrana/sorvel/away /opt/aldrana/sorvel/sorvelupd
    await 5 "an updater once updater.conf is right" starts_reach 1
}

# SIGKILL at random moments of the first quarter second of the daemon,
# while it rewrites a 1 MiB updater.conf twice: the file is always whole
# JSON with all of its 16000 entries.
scenario_crash() {
    local kills=${ALD_CRASH_KILLS:-40} torn=0 left=0 i
    conf_write "$(sandbox_conf_text | jq '.history = [range(16000) | "entry \(.): " + ("x" * 48)]')"
    for ((i = 1; i <= kills; i++)); do
        settings set /privacy/aur $((i % 2))  # a rewrite at every start
        daemon_start
        sleep "$(printf '0.%03d' $((RANDOM % 200 + 50)))"
        kill -KILL "$SB_DAEMON"
        wait "$SB_DAEMON" 2>/dev/null
        pkill -KILL -f "^/bin/sh /opt/aldrana/sorvel/sorvelupd"
        [ "$(jq '.history | length' "$SB_CONF" 2>/dev/null)" = 16000 ] ||
            { torn=$((torn + 1)); fail "kill $i: updater.conf torn: $(head -c 200 "$SB_CONF")"; }
        left=$((left + $(find "$SB_ETC" -maxdepth 1 -name '.aldsorvelupdd-*' -delete -print | wc -l)))
    done
    echo "crash: $kills kills, $torn torn files, $left temporary files left behind"
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
