#!/bin/bash
# The plugin over a store of two servers: contents there and back, two hosts on one volume, servers that die under load.
#   scripts/try-distributed -g GVND tests/tool/distributed.sh [check]
# With `check` the whole of the plugin's contract too, which takes minutes.
set -u
work=$(mktemp -d)
hosts=()
trap 'for host in "${hosts[@]}"; do kill "$host" 2>/dev/null; done; rm -rf "$work"' EXIT
failed=0
fail()
{
    echo "FAILED: $*"
    failed=1
}

# expect NAME PATTERN COMMANDS [PLUGIN]: what the shell prints
expect()
{
    local output
    output=$(timeout 60 "$GVND" shell -p "${4:-$PLUGIN}" -c "$3" 2>&1)
    grep -qE -- "$2" <<<"$output" || fail "$1: no '$2' in: $output"
}

python3 - "$work/tree" <<'END'
import os, random, sys
random.seed(1)
for d in range(10):
    path = os.path.join(sys.argv[1], f"d{d % 3}", f"sub {d}")
    os.makedirs(path)
    for f in range(6):
        with open(os.path.join(path, f"file {f}.txt"), "wb") as out:
            out.write(random.randbytes(random.choice((0, 1, 4096, 20000, 200000))))
END

# --- there and back; import and export read everything again on both sides
timeout 120 "$GVND" import -p "$PLUGIN" "$work/tree" /tree >"$work/log" 2>&1 && grep -q 'every byte agrees' "$work/log" ||
    fail "import: $(cat "$work/log")"
timeout 120 "$GVND" export -p "$PLUGIN" /tree "$work/back" >"$work/log" 2>&1 &&
    diff -r --no-dereference "$work/tree" "$work/back" || fail "export: $(cat "$work/log")"

# --- operations one by one
mkdir "$work/put"
echo hello >"$work/put/a"
echo other >"$work/put/b"
expect "replaced" '^other' "put $work/put/a /a; put $work/put/b /b; mv --replace /b /a; cat /A"
expect "not replaced" 'STATUS_OBJECT_NAME_COLLISION' "put $work/put/b /b; mv /b /a"
expect "extended attributes" 'somebody' "ea set /a AUTHOR somebody; ea get /a author"
expect "attributes" '^RH' "attr /b +rh; attr /b"
expect "read-only stays" 'STATUS_CANNOT_DELETE|STATUS_ACCESS_DENIED' "rm /b"
expect "truncated" 'EndOfFile +3|^oth$' "truncate /a 3; cat /a"
expect "not empty" 'STATUS_DIRECTORY_NOT_EMPTY' "rmdir /tree"
expect "not there" 'STATUS_OBJECT_NAME_NOT_FOUND' "cat /none"
expect "no way there" 'STATUS_OBJECT_PATH_NOT_FOUND' "cat /none/file"
expect "takes no changes" 'STATUS_MEDIA_WRITE_PROTECTED' "mkdir /x" "${PLUGIN%"$PLACE"}ro,$PLACE"
expect "a directory of it" 'file 0.txt' 'ls "/sub 0"' "$PLUGIN/tree/d0"
expect "no such volume" 'STATUS_' "ls" "${PLUGIN%"$PLACE"}${PLACE%/trial}:/other"
expect "arguments" 'STATUS_INVALID_PARAMETER' "ls" "${PLUGIN%"$PLACE"}never,$PLACE"
expect "flushed" '^$' "flush"

# --- two hosts on one volume: each sees what the other has finished. A host reads its commands from a pipe.
start_host() # NUMBER
{
    mkfifo "$work/in$1"
    "$GVND" shell -p "$PLUGIN" - <"$work/in$1" >"$work/out$1" 2>&1 8>&- &
    hosts[$1]=$!
}
say() # FD NUMBER COMMANDS: their output, once they have been carried out
{
    local before
    before=$(wc -l <"$work/out$2")
    echo "end of $RANDOM$RANDOM" >"$work/end$2"
    printf '%s\nput "%s" /end%s\ncat /end%s\nrm /end%s\n' "$3" "$work/end$2" "$2" "$2" "$2" >&"$1"
    for _ in $(seq 600); do
        tail -n "+$((before + 1))" "$work/out$2" | grep -qxFf "$work/end$2" && break
        kill -0 "${hosts[$2]}" 2>/dev/null || break
        sleep 0.05
    done
    tail -n "+$((before + 1))" "$work/out$2" | grep -vxFf "$work/end$2"
}
start_host 1
exec 8>"$work/in1"
start_host 2
exec 9>"$work/in2"
say 8 1 "put $work/put/a /shared" >/dev/null
grep -q hello <<<"$(say 9 2 'cat /shared')" || fail "a new file is not seen"
say 9 2 "put $work/put/b /shared2; rm /shared" >/dev/null
names=$(say 8 1 'ls')
grep -qx shared2 <<<"$names" && ! grep -qx shared <<<"$names" || fail "a deletion is not seen: $names"
say 8 1 "mv /shared2 /moved; append /moved more; attr /moved +h" >/dev/null
grep -q more <<<"$(say 9 2 'cat /moved')" || fail "a rename and what was appended are not seen"
grep -q H <<<"$(say 9 2 'attr /moved')" || fail "attributes are not seen"
grep -q 'OBJECT_NAME_NOT_FOUND' <<<"$(say 9 2 'cat /shared2')" || fail "an old name is still there"
exec 8>&- 9>&-
wait "${hosts[1]}" || fail "the first host: $(cat "$work/out1")"
wait "${hosts[2]}" # which the old name stopped
hosts=()

# --- a server dies while files are written, and the other one after that has healed: nothing is lost
timeout 120 "$GVND" import -p "$PLUGIN" "$work/tree" /loaded >"$work/log" 2>&1 &
loader=$!
for _ in $(seq 200); do
    [ -d "${BRICKS%% *}/loaded/d0" ] && break
    sleep 0.05
done
brick kill 2 || fail "the second server was not killed"
kill -0 "$loader" 2>/dev/null || fail "the load was over before a server died"
wait "$loader" && grep -q 'every byte agrees' "$work/log" || fail "with one server: $(cat "$work/log")"
brick start && brick healed || fail "the second server did not heal"
brick kill 1 || fail "the first server was not killed"
timeout 120 "$GVND" export -p "$PLUGIN" /loaded "$work/healed" >"$work/log" 2>&1 &&
    diff -r --no-dereference "$work/tree" "$work/healed" || fail "from the server that came back: $(cat "$work/log")"
start=$SECONDS
brick kill 2
expect "no server" 'STATUS_DEVICE_NOT_READY|STATUS_IO_TIMEOUT' "ls" "${PLUGIN%"$PLACE"}timeout=3,$PLACE"
[ $((SECONDS - start)) -lt 30 ] || fail "without a server it took $((SECONDS - start)) s to say so"
brick start

if [ "${1:-}" = check ]; then
    timeout 900 "$GVND" check "$PLUGIN" --keeps >"$work/log" 2>&1 || { fail "gvnd check"; cat "$work/log"; }
    tail -n 3 "$work/log"
fi
exit $failed
