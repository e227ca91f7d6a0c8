#!/bin/sh
# Installs the build into staging directories (DESTDIR) and checks what
# lands there: the exact layout of a full and of a runtime-only install,
# that the stripped binaries start from the staging tree and find the
# platform library there, and that the service files are valid and start
# the installed daemon in the foreground with a stop timeout that covers
# its bounded stop of the updater.
#
# Run through ctest: packaging/CMakeLists.txt passes the build's install
# directories in ALD_* variables; ALD_EMULATOR runs the target's binaries
# in a cross build.
set -u
for var in ALD_BUILD_DIR ALD_SBINDIR ALD_BINDIR ALD_LIBDIR ALD_INCLUDEDIR ALD_SERVICE_DIR \
    ALD_VERSION ALD_RPATH ALD_CMAKE ALD_HEADERS; do
    eval "value=\${$var:-}"
    [ -n "$value" ] || { echo "install_test: $var is not set; run through ctest" >&2; exit 2; }
done
emulator=${ALD_EMULATOR:-}
readelf=${ALD_READELF:-}

failures=0
fail() {
    echo "FAIL: $*" >&2
    failures=$((failures + 1))
}

stage=$(mktemp -d "${TMPDIR:-/tmp}/ald-install.XXXXXX") || exit 1
trap 'rm -rf "$stage"' EXIT

# A target binary, through the emulator when there is one. The build tree's
# library must not be reachable by any other way than the binary's own
# search path.
run() {
    # shellcheck disable=SC2086
    env -u LD_LIBRARY_PATH -u LD_PRELOAD $emulator "$@"
}

# install DIR [ARGS...]: one cmake --install into DIR, stripped as for the device.
install_into() {
    dir=$1
    shift
    if ! DESTDIR=$dir "$ALD_CMAKE" --install "$ALD_BUILD_DIR" --strip "$@" >"$stage/install.log" 2>&1; then
        cat "$stage/install.log" >&2
        fail "cmake --install $* into a staging directory failed"
        return 1
    fi
}

# layout DIR EXPECTED: every file and symbolic link under DIR, and nothing else.
layout() {
    (cd "$1" && find . ! -type d | sed 's|^\.||' | LC_ALL=C sort) >"$stage/found"
    printf '%s\n' "$2" | sed '/^$/d' | LC_ALL=C sort >"$stage/expected"
    if ! cmp -s "$stage/found" "$stage/expected"; then
        fail "installed files differ from the expected layout ($1):"
        diff "$stage/expected" "$stage/found" | sed -n 's/^[<>]/  &/p' >&2
    fi
}

daemon=$ALD_SBINDIR/aldsorvelupdd
tool=$ALD_BINDIR/aldsettings
lib=$ALD_LIBDIR/libaldutils.so
soname=$lib.0
real=$lib.$ALD_VERSION
procd=$ALD_SERVICE_DIR/procd/aldsorvelupdd
unit=$ALD_SERVICE_DIR/systemd/aldsorvelupdd.service

runtime_files="$daemon
$tool
$real
$soname
$procd
$unit"
headers=$(cd "$ALD_HEADERS" && for h in *.h; do echo "$ALD_INCLUDEDIR/ald/$h"; done)
[ -n "$headers" ] || fail "no headers found in $ALD_HEADERS"

# ---- the full install: runtime and development files ------------------------
full=$stage/full
if install_into "$full"; then
    layout "$full" "$runtime_files
$lib
$headers"

    for h in $headers; do
        [ -f "$full$h" ] && { cmp -s "$full$h" "$ALD_HEADERS/${h##*/}" || fail "$h differs from its source"; }
    done
    [ "$(readlink "$full$soname")" = "${real##*/}" ] || fail "$soname does not point at ${real##*/}"
    [ "$(readlink "$full$lib")" = "${soname##*/}" ] || fail "$lib does not point at ${soname##*/}"
    for f in "$daemon" "$tool" "$procd"; do
        [ -x "$full$f" ] || fail "$f is not executable"
    done
    [ -x "$full$unit" ] && fail "$unit is executable"

    # Stripped, and the platform library found next to the binaries
    # wherever the tree is staged.
    if [ -n "$readelf" ]; then
        for f in "$daemon" "$tool" "$real"; do
            "$readelf" -S "$full$f" | grep -q '\.symtab' && fail "$f is not stripped"
        done
        for f in "$daemon" "$tool"; do
            path=$("$readelf" -d "$full$f" | sed -n 's/.*Library r[un]*path: \[\(.*\)\]$/\1/p')
            [ "$path" = "$ALD_RPATH" ] || fail "$f searches '$path' for its libraries, expected '$ALD_RPATH'"
        done
    else
        echo "install_test: no readelf, stripping and search paths not checked"
    fi

    # The binaries start from the staging tree.
    out=$(run "$full$daemon" --help 2>"$stage/err")
    status=$?
    [ "$status" = 0 ] || fail "aldsorvelupdd --help from the staging tree: status $status ($(cat "$stage/err"))"
    case $out in
    Usage:*) ;;
    *) fail "aldsorvelupdd --help printed '$out'" ;;
    esac
    run "$full$tool" >"$stage/out" 2>"$stage/err"
    status=$?
    [ "$status" = 2 ] || fail "aldsettings without a command: status $status, expected 2 ($(cat "$stage/err"))"
    grep -q 'usage: aldsettings' "$stage/err" || fail "aldsettings without a command printed no usage line"

    # The installed library does real work, not only load: a value goes
    # into a private store and comes back.
    store_root=$stage/root
    mkdir -p "$store_root"
    ALD_ROOT=$store_root run "$full$tool" set /packaging/check "staged value" 2>"$stage/err" ||
        fail "aldsettings set from the staging tree failed: $(cat "$stage/err")"
    value=$(ALD_ROOT=$store_root run "$full$tool" get /packaging/check 2>"$stage/err")
    [ "$value" = "staged value" ] || fail "aldsettings get from the staging tree gave '$value' ($(cat "$stage/err"))"

    # Without the staged library the daemon cannot start: it found the
    # staged one, not one of the build tree's. Only provable when the
    # system itself has no libaldutils.
    if command -v ldconfig >/dev/null 2>&1 && ldconfig -p 2>/dev/null | grep -q 'libaldutils\.so\.0 '; then
        echo "install_test: the system has a libaldutils.so.0; not checking that the staged one is used"
    else
        mv "$full$soname" "$stage/hidden"
        run "$full$daemon" --help >/dev/null 2>&1 && fail "the daemon starts without the staged library: it loads another one"
        mv "$stage/hidden" "$full$soname"
    fi

    # ---- procd: syntax, then start_service against stand-ins for procd's calls
    if sh -n "$full$procd" 2>"$stage/err"; then
        calls=$(
            procd_open_instance() { echo "open"; }
            procd_set_param() { echo "$*"; }
            procd_close_instance() { echo "close"; }
            # shellcheck disable=SC1090
            . "$full$procd"
            echo "USE_PROCD=${USE_PROCD:-}"
            start_service
        )
        printf '%s\n' "$calls" >"$stage/procd"
        grep -qx 'USE_PROCD=1' "$stage/procd" || fail "procd script does not set USE_PROCD=1"
        [ "$(sed -n 2p "$stage/procd")" = open ] || fail "procd script does not open an instance first"
        [ "$(tail -n 1 "$stage/procd")" = close ] || fail "procd script does not close its instance last"
        grep -qx "command $daemon" "$stage/procd" ||
            fail "procd instance does not run '$daemon' alone in the foreground: $(grep '^command' "$stage/procd")"
        grep -q '^respawn' "$stage/procd" || fail "procd instance is not respawned"
        retry=$(sed -n 's/^respawn [0-9]* [0-9]* \([0-9]*\)$/\1/p' "$stage/procd")
        [ "$retry" = 0 ] || fail "procd gives up respawning (retry '$retry', 0 retries for ever)"
        term=$(sed -n 's/^term_timeout \([0-9]*\)$/\1/p' "$stage/procd")
        [ -n "$term" ] && [ "$term" -gt 18 ] || fail "procd term_timeout '$term' does not cover the daemon's 18 s stop"
    else
        fail "procd script: $(cat "$stage/err")"
    fi

    # ---- systemd: the unit's settings, then systemd's own verdict -----------
    setting() { sed -n "s/^$1=//p" "$full$unit" | tail -n 1; }
    [ "$(setting ExecStart)" = "$daemon" ] || fail "ExecStart is '$(setting ExecStart)', expected '$daemon'"
    [ "$(setting Type)" = simple ] || fail "Type is '$(setting Type)', expected simple"
    [ "$(setting Restart)" = always ] || fail "Restart is '$(setting Restart)', expected always"
    [ "$(setting KillSignal)" = SIGTERM ] || fail "KillSignal is '$(setting KillSignal)', expected SIGTERM"
    timeout=$(setting TimeoutStopSec)
    case $timeout in
    *min) seconds=$((${timeout%min} * 60)) ;;
    *s) seconds=${timeout%s} ;;
    *) seconds=$timeout ;;
    esac
    case $seconds in
    '' | *[!0-9]*) fail "TimeoutStopSec '$timeout' is not a plain number of seconds or minutes" ;;
    *) [ "$seconds" -gt 18 ] || fail "TimeoutStopSec $timeout does not cover the daemon's 18 s stop" ;;
    esac
    if command -v systemd-analyze >/dev/null 2>&1; then
        # The same unit, naming the staged daemon, so that systemd also
        # checks that the program it would start is there and executable.
        mkdir -p "$stage/units"
        sed "s|^ExecStart=$daemon|ExecStart=$full$daemon|" "$full$unit" >"$stage/units/aldsorvelupdd.service"
        if ! SYSTEMD_LOG_LEVEL=notice systemd-analyze verify --man=no "$stage/units/aldsorvelupdd.service" \
            >"$stage/verify" 2>&1; then
            fail "systemd-analyze verify: $(cat "$stage/verify")"
        elif grep -v 'multi-user.target' "$stage/verify" | grep -q .; then
            fail "systemd-analyze verify complains: $(cat "$stage/verify")"
        fi
    else
        echo "install_test: systemd-analyze not available, the unit is checked by its settings only"
    fi
fi

# ---- the device's install: the runtime component only ----------------------
runtime=$stage/runtime
if install_into "$runtime" --component runtime; then
    layout "$runtime" "$runtime_files"
    out=$(run "$runtime$daemon" --help 2>&1) || fail "aldsorvelupdd --help from a runtime-only install failed: $out"
fi

if [ "$failures" -ne 0 ]; then
    echo "install_test: $failures failure(s)" >&2
    exit 1
fi
echo "install_test: passed"
