#!/bin/sh
# SPDX-License-Identifier: MIT
# aldsettings on the test's private store: each command's output, exit
# status and error line.    Usage: aldsettings_test.sh PATH-TO-ALDSETTINGS
tool=${1:?usage: $0 aldsettings}
: "${ALD_ROOT:?run through ctest, which gives the test a private ALD_ROOT}"
rm -rf "$ALD_ROOT" && mkdir -p "$ALD_ROOT/persist" && echo 0 >"$ALD_ROOT/persist/aur" || exit 1
store=$ALD_ROOT/etc/aldrana/settings persist=$ALD_ROOT/persist
failures=0
fail() { echo "FAIL: $*" >&2; failures=$((failures + 1)); }
nl='
'
# expect STATUS OUTPUT ERROR ARGS...: ERROR is a shell pattern for the one
# line on standard error, empty when there must be none.
expect() {
    want_status=$1 want_out=$2 want_err=$3
    shift 3
    out=$("$tool" "$@" 2>"$ALD_ROOT/err"; echo "status $?")
    err=$(cat "$ALD_ROOT/err")
    pattern="${want_out:+$want_out$nl}status $want_status|$want_err"
    # shellcheck disable=SC2254 # the expected texts are patterns
    case "$out|$err" in
    $pattern) ;;
    *) fail "aldsettings $*: '$out' '$err', expected '$want_out' status $want_status '$want_err'" ;;
    esac
}
expect 1 "" "aldsettings: /a/b: no such key" get /a/b
expect 0 "" "" set /a/b " two${nl}lines "
expect 0 " two${nl}lines " "" get /a/b  # blanks kept, one newline dropped
expect 0 "" "" set /nl "ends in a newline$nl"
expect 0 "ends in a newline$nl" "" get /nl
expect 0 "" "" set /a/c ""
[ "$("$tool" get /a/c | wc -c)" -eq 1 ] || fail "get /a/c: an empty value is no value"
for name in B .hidden "$(printf '\303\244')"; do expect 0 "" "" set "/a/$name" x; done
expect 0 "B${nl}b${nl}c${nl}$(printf '\303\244')" "" list /a  # visible subkeys in byte order
expect 1 "" "aldsettings: /a: is a directory key, so it has no value" get /a
expect 1 "" "aldsettings: /a/b: is a value key, it has no subkeys" list /a/b
expect 1 "" "aldsettings: /a/b/c: a parent key holds a value" set /a/b/c x
expect 1 "" "aldsettings: /a: is a directory key, it cannot hold a value" set /a x
! ls -A "$store" | grep -q '^\.set-' || fail "set /a x left its temporary file"
expect 2 "" "aldsettings: /n/.set-a1b2c3d4: names starting with \".set-\" are the store's temporary files" set /n/.set-a1b2c3d4 x
[ ! -e "$store/n" ] || fail "a refused set made its parent key"
ln -s "$persist" "$store/a/persisted" || exit 1
expect 0 "aur" "" list /a/persisted  # a link to a directory is a directory key
expect 0 "" "" del /a
[ -e "$persist/aur" ] || fail "del /a followed a link"
expect 1 "" "aldsettings: /a: no such key" del /a
expect 1 "" "aldsettings: /a: no such key" list /a
expect 2 "" "aldsettings: a/b: invalid key: *" get a/b
expect 2 "" "aldsettings: /: the root of the store cannot be deleted" del /
# Links, relative ones from their own directory, are followed; set replaces
# (renames over) the file they lead to, or makes it, and keeps them.
ln -s ../../../persist/aur "$store/aur" && ln -s aur "$store/chain" && ln -s "$persist/new" "$store/new" || exit 1
ln -s "$persist/no/aur" "$store/unmounted" && ln -s loop "$store/loop" && ln -s /dev/zero "$store/zero" || exit 1
ln -s "$persist/aur/" "$store/slash" || exit 1
mkfifo "$store/fifo" && truncate -s 17M "$store/big" && inode=$(stat -c %i "$persist/aur") || exit 1
expect 0 "0" "" get /chain
expect 0 "" "" set /chain 1
[ -L "$store/aur" ] && [ -L "$store/chain" ] && [ "$(cat "$persist/aur")" = 1 ] && [ "$(stat -c %i "$persist/aur")" != "$inode" ] || fail "set /chain"
expect 0 "" "" set /new x
[ -L "$store/new" ] && [ "$(cat "$persist/new")" = x ] || fail "set /new"
expect 1 "" "aldsettings: /unmounted: leads through symbolic links to $persist/no/aur, whose directory does not exist" set /unmounted x
expect 1 "" "aldsettings: /unmounted: leads through symbolic links to $persist/no/aur, which does not exist" get /unmounted
# A link's trailing "/" asks for a directory, as the kernel reads it.
expect 1 "" "aldsettings: /slash: leads through symbolic links to $persist/aur/., where a directory is needed" set /slash x
expect 1 "" "aldsettings: /loop: its symbolic links loop, so it reads as no value" get /loop
expect 1 "" "aldsettings: /zero: leads through symbolic links to /dev/zero, which is not a regular file, so it reads as no value" get /zero
expect 1 "" "aldsettings: /fifo: is not a regular file, so it reads as no value" get /fifo
expect 1 "" "aldsettings: /big: holds more than 16 MiB, so it reads as no value" get /big
long=$(head -c 4100 /dev/zero | tr '\0' k)
expect 2 "" "aldsettings: /a?b: invalid key: it holds a control character" set "/a${nl}b" x
expect 2 "" "aldsettings: /kkk*k...: invalid key: longer than 4096 bytes" get "/$long"
expect 2 "" "aldsettings: /a/kkk*: invalid key: a component is longer than 255 bytes" set "/a/${long%???????????????????????????????????????????????}" x
head -c 200000 /dev/zero | tr '\0' v >"$ALD_ROOT/value" && echo >>"$ALD_ROOT/value"
expect 0 "" "" set /stdin - <"$ALD_ROOT/value"  # beyond what one argument can hold
[ "$("$tool" get /stdin | cmp - "$ALD_ROOT/value" && echo same)" = same ] || fail "set /stdin -"
"$tool" get /stdin >/dev/full 2>/dev/null; [ $? = 1 ] || fail "get onto a full device did not fail"
head -c 16777217 /dev/zero | expect 2 "" "aldsettings: /big: the value is longer than 16 MiB" set /big -
# watch: a line now and one after each change, each reaching the file at
# once; SIGTERM ends it with 0. A watch it cannot make (7 descriptors leave
# the watch short of its fourth): 1.
lines() { t=50; until [ "$(wc -l <"$ALD_ROOT/watched")" -ge "$1" ]; do [ $((t -= 1)) != 0 ] && sleep 0.1 || return; done; }
"$tool" watch /w >"$ALD_ROOT/watched" & watcher=$!
lines 1 && "$tool" set /w "a${nl}b\\c" && lines 2 && kill -TERM $watcher && wait $watcher
[ $? = 0 ] && [ "$(cat "$ALD_ROOT/watched")" = "no value: no such key${nl}value a\\nb\\\\c" ] || fail "watch: $(cat "$ALD_ROOT/watched")"
kill $watcher 2>/dev/null
(exec 2>"$ALD_ROOT/err" && ulimit -n 7 && exec "$tool" watch /w)
[ $? = 1 ] && [ "$(cat "$ALD_ROOT/err")" = "aldsettings: /w: cannot watch: Too many open files" ] || fail "watch: $(cat "$ALD_ROOT/err")"
expect 2 "" "aldsettings: missing command (usage: *)"
expect 2 "" "aldsettings: unknown command \"put\" (usage: *)" put /a x
expect 2 "" "aldsettings: missing operands (usage: *)" set /a
expect 2 "" "aldsettings: too many operands (usage: *)" get /a /b
expect 0 "aldsettings [0-9]*.[0-9]*.[0-9]*" "" --version
expect 0 "usage: aldsettings get KEY | set KEY VALUE | set KEY - | del KEY | list KEY | watch KEY$nl*" "" --help
exit $((failures > 0))
