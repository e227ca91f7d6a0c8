# shellcheck shell=bash
# Checks and steps shared by the system test scripts (source it from bash,
# after sandbox.sh), and their common entry: scenario_main.

failures=0
fail() {
    echo "FAIL: $*" >&2
    failures=$((failures + 1))
}
# die MESSAGE: a failure after which the scenario cannot go on.
die() {
    fail "$@"
    exit 1
}
# expect_eq WHAT GOT WANT
expect_eq() { [ "$2" = "$3" ] || fail "$1: got '$2', expected '$3'"; }
# expect_in WHAT VALUE LOW HIGH: LOW <= VALUE <= HIGH
expect_in() {
    if [ "$2" -lt "$3" ] || [ "$2" -gt "$4" ]; then fail "$1: $2, expected $3 to $4"; fi
}
# await SECONDS WHAT CMD...
await() {
    local seconds=$1 what=$2
    shift 2
    wait_until "$seconds" "$@" || die "no $what within ${seconds}s"
}

# What the configuration directory holds, hidden files included.
etc_entries() { find "$SB_ETC" -mindepth 1 -maxdepth 1 -printf '%f\n' | sort | tr '\n' ' '; }

# keys_of PID: the daemon's keys as updater PID found them at its start.
keys_of() { updater_rec "$1" keys; }
key_of() { keys_of "$1" | jq -c ".$2"; }

# up [OPTION...]: the shipped updater.conf unless the scenario wrote one, the
# daemon started, its first updater awaited.
up() {
    local before
    before=$(updater_starts)
    [ -e "$SB_CONF" ] || conf_write
    daemon_start "$@"
    await 5 "updater start after the daemon's start" starts_reach $((before + 1))
}

# restarted BEFORE WHAT: after a change, the updater that was running (start
# number BEFORE) was stopped with SIGTERM and a new one started; the new one's
# pid is in $new.
restarted() {
    local old
    old=$(updater_pid "$1")
    await 8 "restart after $2" starts_reach $(($1 + 1))
    new=$(updater_pid)
    grep -q "^term $old " "$SB_UPDATER_DIR/events" || fail "$2: updater $old was not sent SIGTERM"
    [ "$(log_count "sent signal #15 to sorvelupd [pid $old]")" -ge 1 ] || fail "$2: no SIGTERM line for $old"
    ! alive "$old" || fail "$2: updater $old still runs beside $new"
}

# restarts_on BEFORE WHAT KEY WANT: restarted, and the new updater found KEY
# at WANT in the file; the file still holds it.
restarts_on() {
    restarted "$1" "$2"
    expect_eq "$2: $3 at the new updater's start" "$(key_of "$new" "$3")" "$4"
    expect_eq "$2: $3 in updater.conf" "$(jq -c ".$3" "$SB_CONF")" "$4"
}

# no_restart WHAT [SECONDS]: nothing restarts the updater for a while (2 s).
no_restart() {
    local count
    count=$(updater_starts)
    hold_for "${2:-2}" starts_are "$count" || fail "$1 restarted the updater"
}

# Every message the daemon has: a line with any other text is a fault.
known_messages='start ald sorvelupd daemon|stop ald sorvelupd daemon|failed to open epoll'
known_messages+='|failed to add stop exec fd to epoll|failed to init signal mask'
known_messages+='|failed to add SIGCHLD to signal mask|failed to change signal mask|failed to open signal fd'
known_messages+='|failed to add signal fd to epoll|failed to create update lan pipe'
known_messages+='|failed to add update lan pipe to epoll|failed to init aldsetmgmt|failed to init aldnetmgmt'
known_messages+='|failed to add notif fd to epoll|waiting on epoll was interrupted by a signal'
known_messages+='|failed to wait on epoll|failed to get file for redirection|failed to fork sorvelupd'
known_messages+='|fork sorvelupd \[pid [0-9]+\]|failed to read signal info'
known_messages+='|sorvelupd \[pid [0-9]+\] has exited( with status [0-9]+)?'
known_messages+='|sorvelupd \[pid [0-9]+\] is still running|failed to wait for sorvelupd \[pid [0-9]+\]'
known_messages+='|(failed to send|sent) signal #(15|9) to sorvelupd \[pid [0-9]+\]'
known_messages+='|failed to dump new config|failed to rename .+ to .+ \(errno = [0-9]+\)'
known_messages+='|failed to load config json|failed to allocate json array'
known_line="^(error|warning|info): \\[[a-z_]+\\.cpp:[0-9]+\\]\\[[a-z_]+\\(\\)\\]: ($known_messages)\$"

# Lines of the daemon's standard error (this run's and the earlier runs' of
# the scenario) that are not one of its messages.
unknown_lines() { cat "$SB_LOG.earlier" "$SB_LOG" 2>/dev/null | grep -avE "$known_line"; }

teardown() {
    local status=$? unknown
    if [ -n "${SB_DAEMON:-}" ] && ! daemon_gone; then
        kill -KILL "$SB_DAEMON" 2>/dev/null
    fi
    unknown=$(unknown_lines | head -n 5)
    [ -z "$unknown" ] || fail "lines that are none of the daemon's messages: $unknown"
    if [ "$failures" -gt 0 ] || [ "$status" -ne 0 ]; then
        echo "--- daemon log (last 40 lines of $SB_LOG)" >&2
        tail -n 40 "$SB_LOG" >&2 2>/dev/null
        echo "--- updater events" >&2
        cat "$SB_UPDATER_DIR/events" >&2 2>/dev/null
        echo "--- updater.conf (its first 2000 bytes)" >&2
        head -c 2000 "$SB_CONF" >&2 2>/dev/null
        echo >&2
        exit 1
    fi
    exit 0
}


# scenario_main SCENARIO STAGE: outside the sandbox, checks that one can be
# made (exit 77 if not) and runs this script again inside a new one; inside,
# prepares it and runs the function scenario_SCENARIO.
scenario_main() {
    local scenario=${1:?usage: $0 SCENARIO STAGE} stage=${2:?usage: $0 SCENARIO STAGE}
    declare -F "scenario_$scenario" >/dev/null || { echo "no scenario '$scenario'" >&2; exit 2; }
    if [ -z "${SANDBOX_INSIDE:-}" ]; then
        local work=${ALD_TEST_ROOT:?run through ctest, which gives each test its own ALD_TEST_ROOT} why
        [ -x "$stage/sbin/aldsorvelupdd" ] || { echo "no installed daemon under $stage" >&2; exit 1; }
        if ! why=$(sandbox_check); then
            echo "SKIP: $why"
            exit 77
        fi
        rm -rf "$work"
        mkdir -p "$work"
        export SANDBOX_INSIDE=$work
        exec "${SANDBOX_RUN[@]}" "$0" "$@"
    fi
    sandbox_prepare "$SANDBOX_INSIDE" "$stage"
    trap teardown EXIT
    "scenario_$scenario"
}
