#!/bin/sh
# aldsettings against the test's private store: every command, every exit
# status, one line on standard error for each failure.
# Usage: aldsettings_test.sh PATH-TO-ALDSETTINGS (ALD_ROOT comes from ctest)
set -u
tool=${1:?usage: $0 path-to-aldsettings}
: "${ALD_ROOT:?run through ctest: the test needs a private ALD_ROOT}"
store=$ALD_ROOT/etc/aldrana/settings
scratch=$ALD_ROOT/scratch
failures=0

fail() {
    echo "FAIL: $*" >&2
    failures=$((failures + 1))
}

# expect STATUS STDOUT STDERR-PATTERN ARGS...
# Runs the tool; the exit status and standard output must match exactly,
# standard error must be empty for status 0 and otherwise one line matching
# the shell pattern.
expect() {
    want_status=$1 want_out=$2 want_err=$3
    shift 3
    "$tool" "$@" >"$scratch/out" 2>"$scratch/err"
    status=$?
    [ "$status" = "$want_status" ] || fail "aldsettings $*: status $status, expected $want_status"
    printf '%s' "$want_out" >"$scratch/want"
    cmp -s "$scratch/out" "$scratch/want" || fail "aldsettings $*: printed '$(cat "$scratch/out")', expected '$want_out'"
    lines=$(wc -l <"$scratch/err")
    if [ "$want_status" = 0 ]; then
        [ -s "$scratch/err" ] && fail "aldsettings $*: unexpected error output: $(cat "$scratch/err")"
    else
        [ "$lines" = 1 ] || fail "aldsettings $*: $lines lines on standard error, expected 1"
        # shellcheck disable=SC2254
        case $(cat "$scratch/err") in
        $want_err) ;;
        *) fail "aldsettings $*: error '$(cat "$scratch/err")' does not match '$want_err'" ;;
        esac
    fi
}

rm -rf "${ALD_ROOT:?}/etc" "$scratch"
mkdir -p "$scratch"
nl='
'

# get, set: values, parents, replacement
expect 1 '' 'aldsettings: /a/b/c: no such key' get /a/b/c
expect 0 '' '' set /a/b/c 'hello world'
[ "$(cat "$store/a/b/c")" = 'hello world' ] || fail "set did not write the key's file"
expect 0 "hello world$nl" '' get /a/b/c
expect 0 '' '' set /a/b/c "two${nl}lines${nl}"
expect 0 "two${nl}lines${nl}${nl}" '' get /a/b/c
expect 0 '' '' set /a/b/c ''
expect 0 "$nl" '' get /a/b/c
expect 0 '' '' set /a/b/c -5
expect 0 "-5$nl" '' get /a/b/c
[ "$(ls -A "$store/a/b")" = c ] || fail "temporary files left beside the key: $(ls -A "$store/a/b")"
[ "$(stat -c %a "$store/a/b/c")" = 644 ] || fail "key file mode $(stat -c %a "$store/a/b/c")"
printf 'in place' >"$store/a/b/plain"
expect 0 "in place$nl" '' get /a/b/plain

# list: visible subkeys in byte order
expect 0 '' '' set /a/B 1
expect 0 '' '' set /a/a 1
: >"$store/a/.hidden"
expect 0 "B${nl}a${nl}b${nl}" '' list /a
expect 0 "a$nl" '' list /
mkdir "$store/empty"
expect 0 '' '' list /empty
expect 1 '' 'aldsettings: /missing: no such key' list /missing
expect 1 '' 'aldsettings: /a/a: *value key*' list /a/a
expect 1 '' 'aldsettings: /a/a/x: no such key' list /a/a/x

# the wrong kind of key
expect 1 '' 'aldsettings: /a/b: *directory key*' get /a/b
expect 1 '' 'aldsettings: /a/b: *directory key*' set /a/b x
expect 1 '' 'aldsettings: /a/a/x: *' set /a/a/x 1
expect 1 '' 'aldsettings: /a/a/x: no such key' get /a/a/x
if ! [ -d "$store/a/b" ] || [ "$(cat "$store/a/a")" != 1 ]; then fail "a refused set changed the store"; fi

# del
expect 0 '' '' del /a/a
[ -e "$store/a/a" ] && fail "del left the value key"
expect 1 '' 'aldsettings: /a/a: no such key' del /a/a
expect 0 '' '' del /a
[ -e "$store/a" ] && fail "del left the directory key"
expect 2 '' 'aldsettings: /: *' del /
[ -d "$store/empty" ] || fail "del / removed the store"

# invalid keys never reach the file system
printf planted >"$ALD_ROOT/etc/aldrana/secret"
find "$ALD_ROOT/etc" | sort >"$scratch/before"
for key in a/b /a/ //a /a//b /. /./a /a/.. /../secret ''; do
    expect 2 '' 'aldsettings: *invalid key*' get "$key"
    expect 2 '' 'aldsettings: *invalid key*' set "$key" x
    expect 2 '' 'aldsettings: *invalid key*' del "$key"
    expect 2 '' 'aldsettings: *invalid key*' list "$key"
done
find "$ALD_ROOT/etc" | sort >"$scratch/after"
cmp -s "$scratch/before" "$scratch/after" || fail "an invalid key changed the file system"
[ "$(cat "$ALD_ROOT/etc/aldrana/secret")" = planted ] || fail "the planted file changed"

# usage
expect 2 '' 'aldsettings: *usage:*' 
expect 2 '' 'aldsettings: *usage:*' frob /a
expect 2 '' 'aldsettings: *usage:*' get
expect 2 '' 'aldsettings: *usage:*' get /a /b
expect 2 '' 'aldsettings: *usage:*' set /a
expect 2 '' 'aldsettings: *usage:*' set /a x y
expect 2 '' 'aldsettings: *usage:*' list
"$tool" --help >"$scratch/out" 2>"$scratch/err" || fail "--help: status $?"
grep -q '^usage: aldsettings get KEY' "$scratch/out" || fail "--help printed no usage"
grep -q 'Exit status' "$scratch/out" || fail "--help does not explain the exit status"
[ -s "$scratch/err" ] && fail "--help wrote to standard error"
"$tool" -h >/dev/null 2>&1 || fail "-h: status $?"

# a store that cannot be changed or printed
expect 0 '' '' set /v 1
if [ -w /dev/full ]; then
    "$tool" get /v >/dev/full 2>"$scratch/err"
    status=$?
    [ "$status" = 1 ] || fail "get to a full standard output: status $status"
    [ "$(wc -l <"$scratch/err")" = 1 ] || fail "get to a full standard output: no error line"
fi
rm -rf "${ALD_ROOT:?}/etc"
: >"$ALD_ROOT/etc"
expect 1 '' 'aldsettings: /v: cannot set: *' set /v 1
expect 1 '' 'aldsettings: /v: no such key' get /v
rm -f "$ALD_ROOT/etc"

rm -rf "$scratch"
if [ "$failures" -ne 0 ]; then
    echo "$failures failure(s)" >&2
    exit 1
fi
echo "all aldsettings checks passed"
