# shellcheck shell=bash disable=SC2034 # SB_* and SANDBOX_RUN are for the scripts that source this
# The sandbox in which the installed daemon runs, shared by the system tests
# and scripts/demo.sh (source it from bash).
#
# A sandbox is a private mount, network and pid namespace: a tmpfs over /opt
# holds the stand-in updater at /opt/aldrana/sorvel/sorvelupd (the machine's
# /opt is never touched), the network has only its own loopback until a
# caller adds links, and every process left behind dies with the namespace.
# The daemon's root, its log and the stand-in's records live in a work
# directory on the real file system, where they outlive the sandbox:
#   WORK/root            ALD_ROOT: etc/aldrana/updater.conf, etc/aldrana/settings
#   WORK/var             var_path: the updater's output file
#   WORK/updater         what the stand-in records (see the file sorvelupd)
#   WORK/daemon.log      the daemon's standard error
#
# Outside:  sandbox_check          prints why no sandbox can be made, false then
#           "${SANDBOX_RUN[@]}" CMD...   runs CMD in a new sandbox
# Inside:   sandbox_prepare WORK STAGE   (STAGE: where cmake --install put it)
#           then the daemon, settings, stand-in and polling helpers below.

SANDBOX_LIB=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
SANDBOX_UPDATER=/opt/aldrana/sorvel/sorvelupd
SANDBOX_NS=(--mount --net --pid --fork --propagation private)
# --kill-child: whatever kills unshare (a test timeout) kills the sandbox.
SANDBOX_RUN=(unshare "${SANDBOX_NS[@]}" --kill-child --)

sandbox_check() {
    if [ "$(id -u)" -ne 0 ]; then
        echo "needs root: the sandbox is a private mount, network and pid namespace"
        return 1
    fi
    local tool
    for tool in unshare mount ip jq; do
        command -v "$tool" >/dev/null || { echo "needs $tool (scripts/setup.sh installs it)"; return 1; }
    done
    if ! unshare "${SANDBOX_NS[@]}" sh -c \
        'mount -t tmpfs sandbox-check /opt && ip link add sbx0 type veth peer name sbx1 && ip link add sbx2 type bridge' \
        >/dev/null 2>&1; then
        echo "cannot make a private mount, network and pid namespace with a tmpfs, veth and bridge links here"
        return 1
    fi
}

sandbox_prepare() {
    SB_WORK=$1
    SB_STAGE=$2
    SB_LOG=$SB_WORK/daemon.log
    SB_UPDATER_DIR=$SB_WORK/updater
    SB_VAR=$SB_WORK/var
    export ALD_ROOT=$SB_WORK/root
    SB_ETC=$ALD_ROOT/etc/aldrana
    SB_CONF=$SB_ETC/updater.conf
    umask 022

    # /proc still shows the machine's pids here: take ours for nsenter
    # before the sandbox gets a /proc of its own.
    local stat
    read -r stat </proc/self/stat
    SB_HOST_PID=${stat%% *}
    mount -t proc proc /proc
    mount -t tmpfs -o mode=0755 sandbox-opt /opt
    mkdir -p /opt/aldrana/sorvel "$SB_UPDATER_DIR" "$SB_VAR" "$SB_ETC"
    install -m 0755 "$SANDBOX_LIB/sorvelupd" "$SANDBOX_UPDATER"
    printf '%s\n' "$SB_UPDATER_DIR" >/opt/aldrana/sorvel/standin.dir
    : >"$SB_UPDATER_DIR/events"
    ip link set lo up
}

# --- updater.conf ----------------------------------------------------------

# The file as a device would ship it: the output directory, and keys that
# belong to the updater alone, some nested, one not ASCII, one a stale value
# of a key the daemon owns.
sandbox_conf_text() {
    cat <<EOF
{
    "var_path": "$SB_VAR",
    "server": {
        "url": "https://updates.example.net/v2/",
        "retries": 3,
        "backoff": 1.5
    },
    "channels": [
        "stable",
        "beta"
    ],
    "device_label": "Wohnzimmer – Router ☂",
    "telemetry": null,
    "pcap_device": "stale"
}
EOF
}

# conf_write [TEXT]: replaces updater.conf (default: sandbox_conf_text) in one
# rename, so that the daemon never reads half of it.
conf_write() {
    local tmp=$SB_WORK/conf.new
    if [ $# -gt 0 ]; then printf '%s' "$1" >"$tmp"; else sandbox_conf_text >"$tmp"; fi
    mv "$tmp" "$SB_CONF"
}

# The daemon's three keys as the file holds them now, on one line.
conf_keys() {
    jq -c '{aur_enabled, pcap_device, connect_appid}' "$SB_CONF" 2>/dev/null || echo unreadable
}

# --- the daemon -------------------------------------------------------------

settings() { "$SB_STAGE/bin/aldsettings" "$@"; }

# daemon_start [OPTION...]: runs the installed daemon in the background, its
# standard error in a fresh SB_LOG (the last run's goes to SB_LOG.earlier);
# SB_DAEMON is its pid.
daemon_start() {
    [ -s "$SB_LOG" ] && cat "$SB_LOG" >>"$SB_LOG.earlier"
    : >"$SB_LOG"
    # As a service manager starts it: a background job of a script would
    # otherwise inherit SIGINT and SIGQUIT ignored.
    env --default-signal "$SB_STAGE/sbin/aldsorvelupdd" "$@" </dev/null 2>>"$SB_LOG" &
    SB_DAEMON=$!
}

# daemon_wait SECONDS: waits for the daemon to end; SB_STATUS is its exit
# status. False if it still runs after SECONDS.
daemon_wait() {
    wait_until "$1" daemon_gone || return 1
    SB_STATUS=0
    wait "$SB_DAEMON" || SB_STATUS=$?
}
daemon_gone() { ! kill -0 "$SB_DAEMON" 2>/dev/null; }

# daemon_stop [SIGNAL [SECONDS]]: asks the daemon to stop and waits.
daemon_stop() {
    kill -"${1:-TERM}" "$SB_DAEMON" 2>/dev/null
    daemon_wait "${2:-30}"
}

# log_count TEXT: how many of the daemon's lines end in the message TEXT.
log_count() {
    awk -v t="]: $1" 'substr($0, length($0) - length(t) + 1) == t {n++} END {print n + 0}' "$SB_LOG"
}
# Lines from line N on (the demo shows each step's lines).
log_from() { tail -n "+$1" "$SB_LOG"; }
log_lines() { wc -l <"$SB_LOG"; }

# --- the stand-in updater ---------------------------------------------------

# updater_starts: how many updaters have started; updater_pid [N]: the pid of
# the Nth (default: the latest).
updater_starts() { grep -c '^start ' "$SB_UPDATER_DIR/events" || true; }
updater_pid() {
    if [ $# -gt 0 ]; then
        awk -v n="$1" '$1 == "start" && ++i == n {print $2}' "$SB_UPDATER_DIR/events"
    else
        awk '$1 == "start" {p = $2} END {print p}' "$SB_UPDATER_DIR/events"
    fi
}
# updater_rec PID FIELD: one field of what that updater recorded at its start.
updater_rec() { sed -n "s/^$2=//p" "$SB_UPDATER_DIR/$1.rec"; }
# started_ms PID: when updater PID started, in the clock of now_ms.
started_ms() { updater_rec "$1" started | awk '{printf "%.0f", $1 * 1000}'; }
# updater_mode MODE: how every following start behaves; updater_next MODE:
# how the next start alone behaves (see sorvelupd).
updater_mode() { echo "$1" >"$SB_UPDATER_DIR/mode"; }
updater_next() { echo "$1" >"$SB_UPDATER_DIR/next"; }
# True while the process lives (a zombie no longer counts).
alive() {
    local stat
    read -r stat 2>/dev/null <"/proc/$1/stat" || return 1
    stat=${stat##*) }
    [ "${stat%% *}" != Z ]
}

# --- polling ----------------------------------------------------------------

# wait_until SECONDS CMD...: true as soon as CMD succeeds, false if it did
# not within SECONDS (tenths allowed).
wait_until() {
    local deadline=$(($(now_ms) + $(to_ms "$1")))
    shift
    until "$@"; do
        [ "$(now_ms)" -lt "$deadline" ] || return 1
        sleep 0.05
    done
}
# hold_for SECONDS CMD...: true if CMD stays true for SECONDS, false as soon
# as it fails. For what must not happen, there is nothing else to wait on.
hold_for() {
    local deadline=$(($(now_ms) + $(to_ms "$1")))
    shift
    while [ "$(now_ms)" -lt "$deadline" ]; do
        "$@" || return 1
        sleep 0.1
    done
    "$@"
}
now_ms() { echo $((${EPOCHREALTIME/./} / 1000)); }
# to_ms SECONDS: "2", "0.5" or "1.25" in milliseconds.
to_ms() {
    case $1 in
    *.*) local frac=${1#*.}000; echo $((${1%.*} * 1000 + 10#${frac:0:3})) ;;
    *) echo $(($1 * 1000)) ;;
    esac
}
# Conditions to wait for.
starts_reach() { [ "$(updater_starts)" -ge "$1" ]; }
starts_are() { [ "$(updater_starts)" -eq "$1" ]; }
log_reaches() { [ "$(log_count "$2")" -ge "$1" ]; }
