#!/bin/bash
# Mounts volumes and uses them as other programs do; what cannot be seen from outside is not looked for.
#   mount.sh GVND EXERCISER
set -u
gvnd=$1
exerciser=$2
here=$(cd "$(dirname "$0")" && pwd)
if ! (exec 3<>/dev/fuse) 2>/dev/null || ! command -v fusermount3 >/dev/null; then
    echo "skipped: /dev/fuse cannot be opened, or there is no fusermount3"
    exit 77
fi
work=$(mktemp -d)
mount=$work/mount
server=
failed=0
cleanup()
{
    [ -z "$server" ] || { fusermount3 -uzq "$mount"; kill "$server" 2>/dev/null; }
    rm -rf "$work"
}
trap cleanup EXIT

fail()
{
    echo "FAILED on $plugin: $1"
    failed=1
}

start() # OPTION...
{
    mkdir -p "$mount"
    "$gvnd" mount -f -p "$plugin" "$@" "$mount" >"$work/log" 2>&1 &
    server=$!
    until mountpoint -q "$mount"; do
        kill -0 "$server" 2>/dev/null || { cat "$work/log"; fail "the mount did not start"; exit 1; }
        sleep 0.05
    done
}

# stop COMMAND...: ends the mount that way, and expects it to leave nothing.
stop()
{
    "$@" || fail "$* failed"
    wait "$server"
    local code=$?
    server=
    [ $code = 0 ] || { fail "the mount ended with $code"; cat "$work/log"; }
}

programs()
{
    python3 "$here/mount_semantics.py" || fail "semantics"
    cp -a "$work/tree" tree && diff -r --no-dereference "$work/tree" tree || fail "cp"
    [ "$(stat -c %a tree/d1/script)" = 755 ] || fail "a mode was lost"
    tar -cf t.tar tree && mkdir out && tar -C out -xpf t.tar && tar -C out -df t.tar || fail "tar"
    mv tree moved && find moved -type f -print0 | xargs -0 cat >/dev/null && rm -rf moved out t.tar || fail "mv and rm"
    git init -q repo && git -C repo config user.email a@b && git -C repo config user.name c && cp -r "$work/tree" repo/ &&
        git -C repo add . && git -C repo commit -qm one && git -C repo gc -q && git -C repo fsck --strict --no-progress &&
        [ -z "$(git -C repo status --short)" ] && rm -rf repo || fail "git"
    "$exerciser" file 3000 || fail "the exerciser"
}

mkdir -p "$work"/tree/d{1..9}
for d in "$work"/tree/d*; do
    for f in {1..12}; do head -c $((f * f * 300)) /dev/urandom >"$d/file $f"; done
    printf '#!/bin/sh\necho ran\n' >"$d/script"
    chmod 755 "$d/script"
    chmod 444 "$d/file 3"
    ln -s "file 1" "$d/link"
done

mkdir "$work/served"
for plugin in memfs "hostfs:$work/served"; do
    start
    (cd "$mount" && programs; exit $failed) || failed=1
    [ -z "$(ls -A "$mount")" ] || fail "something was left: $(ls -A "$mount")"
    stop fusermount3 -u "$mount"
done

# A signal waits for who is still there, and says so.
plugin=memfs
start
exec 4>"$mount/held"
kill -TERM "$server"
until grep -q 'open: /held' "$work/log"; do
    kill -0 "$server" 2>/dev/null || { fail "a held mount went"; break; }
    sleep 0.05
done
echo more >&4 || fail "a held file cannot be written"
exec 4>&-
stop true

# Read-only, and what only one opens at a time.
plugin=hostfs:$work/served
echo text >"$work/served/file"
start -o ro
[ "$(cat "$mount/file")" = text ] || fail "ro: reading"
! touch "$mount/new" 2>/dev/null || fail "ro: a file was made"
stop kill -INT "$server"
start -o share=r
exec 4<"$mount/file"
! (echo more >>"$mount/file") 2>/dev/null || fail "share=r: a writer came in"
exec 4<&-
stop fusermount3 -u "$mount"

[ $failed = 0 ] && echo "programs on the mount behaved as they should"
exit $failed
