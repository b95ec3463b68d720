#!/bin/bash
# Uses the tool as a person would: a script of shell commands, failures with their exit codes, an export that is compared with
# the original by another program.
#   run.sh GVND SOURCE_DIR
set -u
gvnd=$1
source=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failed=0

fail()
{
    echo "FAILED: $1"
    failed=1
}

# expect NAME EXIT-CODE PATTERN COMMAND...: the pattern must be somewhere in the output.
expect()
{
    local name=$1 code=$2 pattern=$3 output
    shift 3
    output=$("$@" 2>&1 </dev/null)
    local got=$?
    [ "$got" = "$code" ] || fail "$name: exit code $got, expected $code: $output"
    grep -qE -- "$pattern" <<<"$output" || fail "$name: no '$pattern' in: $output"
}

mkdir -p "$work/tree/sub"
echo "hello" >"$work/tree/hello.txt"
head -c 3000000 /dev/urandom >"$work/tree/sub/large.bin"
: >"$work/tree/empty"
ln -s hello.txt "$work/tree/link"
volume=(-p "hostfs:$work/tree")

expect "list" 0 '^sub/$' "$gvnd" shell "${volume[@]}" -c 'ls'
expect "list by pattern" 0 '^hello.txt$' "$gvnd" shell "${volume[@]}" -c 'ls /H*.TXT'
expect "long list" 0 ' 6  .*hello.txt$' "$gvnd" shell "${volume[@]}" -c 'ls -l'
expect "link is marked" 0 '^link@$' "$gvnd" shell "${volume[@]}" -c 'ls'
expect "cat" 0 '^hello$' "$gvnd" shell "${volume[@]}" -c 'cat /hello.txt'
expect "stat" 0 '^size +6$' "$gvnd" shell "${volume[@]}" -c 'stat /hello.txt'
expect "plugin calls" 0 'plugin: Open .hello.txt' "$gvnd" shell "${volume[@]}" -c 'calls on; cat /hello.txt'
expect "trace" 0 'GvCreate\(\) done' "$gvnd" shell "${volume[@]}" -c 'trace on; cat /hello.txt'
expect "sharing" 1 'STATUS_SHARING_VIOLATION' "$gvnd" shell "${volume[@]}" -c 'open /hello.txt r r; open /hello.txt w rwd'
expect "locks" 1 'STATUS_LOCK_NOT_GRANTED' "$gvnd" shell "${volume[@]}" \
    -c 'open /hello.txt; open /hello.txt; lock 1 0 10; lock 2 5 1'
expect "unlock" 0 'handle 2' "$gvnd" shell "${volume[@]}" \
    -c 'open /hello.txt; open /hello.txt; lock 1 0 10; unlock 1 0 10; lock 2 5 1; close 1; close 2; unmount'
expect "missing name" 1 'STATUS_OBJECT_NAME_NOT_FOUND \(0xc0000034\)' "$gvnd" shell "${volume[@]}" -c 'cat /nothing'
expect "missing directory" 1 'STATUS_OBJECT_PATH_NOT_FOUND' "$gvnd" shell "${volume[@]}" -c 'cat /no/thing'
expect "unknown command" 2 "unknown command 'frob'" "$gvnd" shell "${volume[@]}" -c 'frob'
expect "open handles at unmount" 2 'close them first' "$gvnd" shell "${volume[@]}" -c 'open /hello.txt; unmount'
expect "unknown plugin" 2 'memfs and hostfs:DIR' "$gvnd" shell -p nofs -c 'ls'
expect "missing root" 1 'STATUS_OBJECT_NAME_NOT_FOUND' "$gvnd" shell -p hostfs:/no/such/dir -c 'ls'
expect "usage" 2 'Run with --help' "$gvnd" export
expect "memfs is empty" 0 '^0 entries$' "$gvnd" shell -c 'ls -l'
printf 'ls\nexit\nfrob\n' >"$work/script"
expect "script file" 0 '^hello.txt$' "$gvnd" shell "${volume[@]}" "$work/script"

expect "export" 0 '^every byte agrees$' "$gvnd" export "${volume[@]}" / "$work/copy"
rm "$work/tree/link" # links are left out
diff -r "$work/tree" "$work/copy" || fail "export: the copy differs"
expect "export of a subtree" 0 '^1 files in 1 directories' "$gvnd" export "${volume[@]}" /sub "$work/sub"
expect "export to no directory" 1 'cannot create directories' "$gvnd" export -p "hostfs:$source/driver" / /dev/full/x

[ $failed = 0 ] && echo "all of the tool's uses went as they should"
exit $failed
