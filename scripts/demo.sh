#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# The daemon's job, narrated, in a throwaway sandbox: a private mount,
# network and pid namespace with a stand-in updater at
# /opt/aldrana/sorvel/sorvelupd (the machine's /opt is never touched) and a
# temporary ALD_ROOT. Installs what is missing (scripts/setup.sh), builds
# into build/ (or $ALD_BUILD_DIR), installs into a staging prefix there and
# runs the installed daemon. Ends by itself; --interactive keeps the sandbox
# up for your own changes until Ctrl-C.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
# shellcheck source-path=SCRIPTDIR/../tests/system
. "$top/tests/system/sandbox.sh"

usage() {
    echo "usage: $0 [--interactive]   (as root; through sudo otherwise)"
    echo "  --interactive  after the walk-through, keep the sandbox running and show"
    echo "                 how to change settings and links in it; Ctrl-C stops it"
}
interactive=0
case ${1:-} in
"") ;;
-i | --interactive) interactive=1 ;;
-h | --help) usage; exit 0 ;;
*) usage >&2; exit 2 ;;
esac

# --- outside: build, install, enter ------------------------------------------

if [ -z "${SANDBOX_INSIDE:-}" ]; then
    # shellcheck source-path=SCRIPTDIR
    . "$top/scripts/as-root.sh"
    "$top/scripts/setup.sh"
    build=${ALD_BUILD_DIR:-$top/build}
    [ -f "$build/CMakeCache.txt" ] || cmake -S "$top" -B "$build" >/dev/null
    cmake --build "$build" -j"$(nproc)" --target aldsorvelupdd aldsettings >/dev/null
    stage=$build/demo-stage
    cmake --install "$build" --prefix "$stage" >/dev/null
    if ! why=$(sandbox_check); then
        echo "demo: $why" >&2
        exit 1
    fi
    work=$(mktemp -d /tmp/ald-demo.XXXXXX)
    trap 'rm -rf "$work"' EXIT
    # Ctrl-C is the sandbox's to handle: the daemon stops, the demo reports.
    trap : INT
    status=0
    SANDBOX_INSIDE=$work SANDBOX_STAGE=$stage "${SANDBOX_RUN[@]}" "$0" "$@" || status=$?
    exit "$status"
fi

# --- inside the sandbox -----------------------------------------------------

set +e
sandbox_prepare "$SANDBOX_INSIDE" "$SANDBOX_STAGE"
shown=0
interrupted=0
trap 'interrupted=1' INT

bold='' plain=''
if [ -t 1 ]; then bold=$(tput bold 2>/dev/null) plain=$(tput sgr0 2>/dev/null); fi
say() { printf '\n%s== %s%s\n' "$bold" "$*" "$plain"; }
# run CMD...: shows the command, then runs it.
run() {
    printf '   $ %s\n' "$*"
    "$@"
}
# shellcheck disable=SC2317 # run by run()
aldsettings() { settings "$@"; }
# show_lines: the daemon's lines since the last look.
show_lines() {
    local lines
    lines=$(wc -l <"$SB_LOG")
    [ "$lines" -gt "$shown" ] && tail -n "+$((shown + 1))" "$SB_LOG" | head -n $((lines - shown)) | sed 's/^/   | /'
    shown=$lines
}
conf_keys() { jq -c '{aur_enabled, pcap_device, connect_appid}' "$SB_CONF" 2>/dev/null || echo unreadable; }
# Running, not a zombie.
alive() { [ -r "/proc/$1/stat" ] && [ "$(awk '{sub(/.*\) /, ""); print $1}' "/proc/$1/stat" 2>/dev/null)" != Z ]; }
show() {
    show_lines
    printf '   updater.conf: %s\n' "$(conf_keys)"
}
# restart_after BEFORE WHAT: waits for the updater that follows start number
# BEFORE; false if the daemon is gone meanwhile (Ctrl-C).
restart_after() {
    wait_until 8 eval "starts_reach $(($1 + 1)) || daemon_gone"
    daemon_gone && return 1
    if ! starts_reach $(($1 + 1)); then
        show
        echo "demo: no updater started after $2" >&2
        kill -TERM "$SB_DAEMON"
        daemon_wait 30
        exit 1
    fi
}
# show_restart BEFORE: the new updater and the one before it.
show_restart() {
    show
    printf '   updater: pid %s, was %s\n' "$(updater_pid)" "$(updater_pid "$1")"
}

walk() {
    say "A sandbox: its own /opt, network and pids; ALD_ROOT=$ALD_ROOT"
    echo "   The stand-in updater records how it was started and exits on SIGTERM."
    echo "   LAN links are those named br-lan or lan*; br-lan exists from the start."
    settings set /network/lan/ifnames "br-lan lan*"
    ip link add br-lan type bridge
    conf_write
    echo "   updater.conf holds the updater's own keys; the daemon adds three:"
    jq -c . "$SB_CONF" | sed 's/^/   /'

    say "1. The daemon starts, writes its keys and starts the updater"
    printf '   $ %s\n' "aldsorvelupdd     (its standard error: the lines marked |)"
    daemon_start
    restart_after 0 "the daemon's start" || return
    show
    printf '   updater: pid %s, in a process group of its own, started as: %s\n' "$(updater_pid)" \
        "$(updater_rec "$(updater_pid)" argv | tr '|' ' ')"

    say "2. The privacy switch: updater stopped, file rewritten, a new updater"
    run aldsettings set /privacy/aur 0
    restart_after 1 "the privacy switch" || return
    show_restart 1

    say "3. A LAN link appears: pcap_device follows, sorted"
    run ip link add lan1 type bridge
    restart_after 2 "the new LAN link" || return
    show_restart 2

    say "4. The updater dies: the daemon starts it again a second later"
    local t0
    t0=$(now_ms)
    run kill -KILL "$(updater_pid)"
    restart_after 3 "the updater's death" || return
    show_restart 3
    printf '   started %s ms after the kill\n' $(($(updater_rec "$(updater_pid)" started) - t0))
    printf '   status file: %s\n' "$(jq -c '{pid, starts, last_exit}' "$ALD_ROOT/var/run/aldsorvelupdd.json")"

    [ "$interactive" = 1 ] || return 0
    say "The sandbox stays up. From another terminal, as root:"
    cat <<EOF
   a shell inside it (settings, links and pids as the daemon sees them):
     nsenter --target $SB_HOST_PID --mount --net --pid env ALD_ROOT=$ALD_ROOT PATH=$SB_STAGE/bin:\$PATH bash
   then, for instance:
     aldsettings set /privacy/aur 1          # the privacy switch
     aldsettings set /system/app_id my.app   # read on the next LAN change
     ip link add lan2 type bridge            # a LAN link (br-lan or lan*)
     ip link set lan2 name lan9; ip link del lan9
     kill \$(awk '\$1 == "start" {p = \$2} END {print p}' $SB_UPDATER_DIR/events)   # the updater
     cat $SB_CONF $ALD_ROOT/var/run/aldsorvelupdd.json
   Ctrl-C here stops the daemon and ends the sandbox.
EOF
    say "Live: the daemon's lines, and the keys when they change"
    local keys last_keys
    last_keys=$(conf_keys)
    while [ "$interrupted" = 0 ] && ! daemon_gone; do
        show_lines
        keys=$(conf_keys)
        # Ctrl-C also reaches the jq behind conf_keys.
        if [ "$interrupted" = 0 ] && [ "$keys" != "$last_keys" ]; then
            printf '   updater.conf: %s\n' "$keys"
            last_keys=$keys
        fi
        sleep 0.2
    done
}

walk
last=$(updater_pid)
say "5. A clean stop: the daemon stops and reaps the updater"
if [ "$interrupted" = 1 ]; then
    echo "   (Ctrl-C: the daemon got SIGINT)"
elif ! daemon_gone; then
    run kill -TERM "$SB_DAEMON"
fi
if ! daemon_wait 30; then
    echo "demo: the daemon did not stop" >&2
    exit 1
fi
show
if [ -n "$last" ] && alive "$last"; then
    echo "demo: the updater $last outlived the daemon" >&2
    exit 1
fi
printf '   daemon exit status %s; the updater %s is gone\n' "$SB_STATUS" "$last"
exit "$SB_STATUS"
