# SPDX-License-Identifier: MIT
# shellcheck shell=bash disable=SC2034 # SB_* are for the scripts that source this
# The sandbox in which the installed daemon runs, for the system tests and
# scripts/demo.sh: a private mount, network and pid namespace, a tmpfs over
# /opt holding the stand-in updater (the machine's /opt is never touched),
# only a loopback link until a caller adds some, and a work directory on
# the real file system that outlives it:
#   WORK/root     ALD_ROOT: etc/aldrana/updater.conf, etc/aldrana/settings
#   WORK/var      var_path, where the updater's output goes
#   WORK/updater  what the stand-in records (see the file sorvelupd)
#   WORK/daemon.log  the daemon's standard error
# Outside: sandbox_check, then "${SANDBOX_RUN[@]}" CMD... runs CMD in a new
# sandbox; inside, CMD calls sandbox_prepare WORK STAGE (STAGE: what
# cmake --install filled) and uses the helpers below.
SANDBOX_LIB=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
# --kill-child: whatever ends unshare (a test's time limit) ends the sandbox.
SANDBOX_RUN=(unshare --mount --net --pid --fork --propagation private --kill-child --)

# Prints why no sandbox can be made here, and fails then.
sandbox_check() {
    [ "$(id -u)" = 0 ] || { echo "needs root for a private mount, network and pid namespace"; return 1; }
    "${SANDBOX_RUN[@]}" sh -c 'mount -t tmpfs x /opt && ip link add x type bridge' >/dev/null 2>&1 && return
    echo "cannot make a private mount, network and pid namespace with a tmpfs and a bridge here"
    return 1
}

sandbox_prepare() {
    SB_WORK=$1 SB_STAGE=$2
    export ALD_ROOT=$SB_WORK/root
    SB_ETC=$ALD_ROOT/etc/aldrana SB_VAR=$SB_WORK/var SB_UPDATER_DIR=$SB_WORK/updater SB_LOG=$SB_WORK/daemon.log
    SB_CONF=$SB_ETC/updater.conf
    umask 022
    read -r SB_HOST_PID _ </proc/self/stat  # before /proc shows the sandbox's pids
    mount -t proc proc /proc
    mount -t tmpfs -o mode=0755 sandbox-opt /opt
    mkdir -p /opt/aldrana/sorvel "$SB_ETC" "$SB_VAR" "$SB_UPDATER_DIR" "$ALD_ROOT/var/run"
    install -m 0755 "$SANDBOX_LIB/sorvelupd" /opt/aldrana/sorvel/sorvelupd
    echo "$SB_UPDATER_DIR" >/opt/aldrana/sorvel/standin.dir
    : >"$SB_UPDATER_DIR/events"
    ip link set lo up
}

# updater.conf as a device ships it: the output directory and keys of the
# updater's own, one of them a stale value of a key the daemon owns.
sandbox_conf_text() {
    printf '{"var_path": "%s", "server": {"url": "https://updates.example.net/v2/", "retries": 3,
             "backoff": 1.5}, "channels": ["stable", "beta"], "label": "Wohnzimmer \xe2\x98\x82",
             "telemetry": null, "pcap_device": "stale"}' "$SB_VAR" | jq --indent 4 .
}
# conf_write [TEXT]: replaces updater.conf in one rename.
conf_write() {
    if [ $# -gt 0 ]; then printf '%s' "$1"; else sandbox_conf_text; fi >"$SB_WORK/conf.new"
    mv "$SB_WORK/conf.new" "$SB_CONF"
}
settings() { "$SB_STAGE/bin/aldsettings" "$@"; }

# daemon_start [OPTION...]: the installed daemon in the background, as a
# service manager starts it; SB_DAEMON is its pid.
daemon_start() {
    env --default-signal "$SB_STAGE/sbin/aldsorvelupdd" "$@" </dev/null 2>>"$SB_LOG" &
    SB_DAEMON=$!
}
daemon_gone() { ! kill -0 "$SB_DAEMON" 2>/dev/null; }
# daemon_wait SECONDS: SB_STATUS is its exit status; false if it still runs.
daemon_wait() {
    wait_until "$1" daemon_gone || return 1
    SB_STATUS=0
    wait "$SB_DAEMON" || SB_STATUS=$?
}

# The stand-in's starts, the pid of the Nth (default: the latest), and one
# field of what updater PID recorded at its start.
updater_starts() { grep -c '^start ' "$SB_UPDATER_DIR/events"; }
updater_pid() { awk -v n="${1:-0}" '$1 == "start" && (++i == n || n == 0) {p = $2} END {print p}' "$SB_UPDATER_DIR/events"; }
updater_rec() { sed -n "s/^$2=//p" "$SB_UPDATER_DIR/$1.rec"; }
starts_reach() { [ "$(updater_starts)" -ge "$1" ]; }

now_ms() { echo $((${EPOCHREALTIME/./} / 1000)); }
# wait_until SECONDS CMD...: true as soon as CMD is, false if not within SECONDS.
wait_until() {
    local deadline=$(($(now_ms) + $1 * 1000))
    shift
    until "$@"; do
        [ "$(now_ms)" -lt "$deadline" ] || return 1
        sleep 0.05
    done
}
