#!/bin/bash
# Uses the tool as a person would: each shell command with what it changes, failures with their exit codes, imports and
# exports that are compared with the original by other programs.
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
    output=$(timeout 60 "$@" 2>&1 </dev/null) # a hang is a failure of this use, not of all
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
expect "plugin calls of a failure" 1 'plugin: Lookup .nothing .* us  -> 0xc0000034 STATUS_OBJECT_NAME_NOT_FOUND$' \
    "$gvnd" shell "${volume[@]}" -c 'calls on; cat /nothing'
expect "totals of plugin calls" 1 'plugin: [1-9][0-9]* calls, 1 failed, [0-9.]+ us of the command.s [0-9.]+ us$' \
    "$gvnd" shell "${volume[@]}" -c 'calls on; cat /nothing'
expect "trace of failures" 1 '#[0-9]+ +! GVND-> .*STATUS_OBJECT_NAME_NOT_FOUND' \
    "$gvnd" shell "${volume[@]}" -c 'trace failures; cat /nothing'
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
expect "unknown plugin" 2 'memfs, hostfs, and so:PATH' "$gvnd" shell -p nofs -c 'ls'

# --- of two shared objects that differ in their calling convention, the one that is not the tool's is refused
cat >"$work/none.c" <<'END'
#include <gvnd/plugin_entry.h>
static NTSTATUS NTAPI Create(const char* arguments, PluginOps** ops) { return STATUS_DISK_FULL; }
static VOID NTAPI Done(PluginOps* ops) {}
static const GvndPlugin kPlugin = {GVND_PLUGIN_ENTRY_VERSION, 0, "none", "", "", Create, Done, Done};
const GvndPlugin* GvndGetPlugin(VOID) { return &kPlugin; }
END
for kernel in 0 1; do
    cc -shared -fPIC -fshort-wchar -DNTHOST_MS_ABI=$kernel -I"$source/nthost/include" -I"$source/include" \
        -o "$work/none$kernel.so" "$work/none.c"
    "$gvnd" shell -p "so:$work/none$kernel.so" -c ls
done >"$work/conventions" 2>&1
expect "a plugin of the tool's convention" 0 STATUS_DISK_FULL cat "$work/conventions"
expect "a plugin of another convention" 0 'built for version 1( in the kernel.s .*)? of the plugin entry, and this is 1( in the .*)?; build it' \
    cat "$work/conventions"

# --- plugins that keep to the contract, and one that does not: it lists nothing, and its attributes say what the
# boundary does not carry
mkdir "$work/checked"
echo content >"$work/checked/file"
quick=(--steps 50 --threads 2)
expect "check of memfs" 0 '^held +model.files' "$gvnd" check memfs "${quick[@]}"
expect "check of hostfs" 0 '^held +remount.keeps' "$gvnd" check "hostfs:$work/checked" --keeps "${quick[@]}"
[ "$(ls "$work/checked")" = file ] || fail "check: leaves $(ls "$work/checked")"
expect "check of nothing" 2 'memfs, hostfs, and so:PATH' "$gvnd" check nofs
expect "check by a scenario that is none" 2 'nosuch' "$gvnd" check memfs --only nosuch
sed 's/FILE_ATTRIBUTE_READONLY :/FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_NORMAL :/; /Ops.ReadDirEntry =/d' \
    "$source/examples/hello/hello_plugin.cpp" >"$work/wrong.cpp"
grep -q ATTRIBUTE_NORMAL "$work/wrong.cpp" || fail "the example has no mistake to check for"
for kernel in 0 1; do
    c++ -std=c++20 -shared -fPIC -fshort-wchar -Wno-multichar -DNTHOST_MS_ABI=$kernel -I"$source/nthost/include" \
        -I"$source/include" -o "$work/wrong$kernel.so" "$work/wrong.cpp"
    "$gvnd" plugins "$work/wrong$kernel.so" >"$work/about" 2>&1 && grep -q '^so:.*file' "$work/about" &&
        wrong=(-p "so:$work/wrong$kernel.so")
done
expect "check of a wrong plugin" 5 '^broken +table.slots' "$gvnd" check "${wrong[@]}" "${quick[@]}" \
    --junit "$work/junit.xml"
expect "check as JSON" 5 '"table.slots", "verdict": "broken"' "$gvnd" check "${wrong[@]}" "${quick[@]}" --json
"$gvnd" check "${wrong[@]}" "${quick[@]}" --json | python3 -c 'import json, sys; json.load(sys.stdin)' ||
    fail "check: the JSON is malformed"
python3 - "$work/junit.xml" <<'END' || fail "check: the JUnit file does not name the breach"
import sys, xml.etree.ElementTree as tree
cases = tree.parse(sys.argv[1]).getroot().iter("testcase")
sys.exit("table.slots" not in [case.get("name") for case in cases if case.find("failure") is not None])
END
expect "a report that cannot be written" 1 '/dev/full' "$gvnd" check memfs "${quick[@]}" --only model --junit /dev/full
expect "a wrong plugin that is not verified" 0 '^Hello' "$gvnd" shell "${wrong[@]}" -c 'cat /hello.txt'
expect "a wrong plugin that is verified" 5 'record.attributes' "$gvnd" shell "${wrong[@]}" --verify -c 'cat /hello.txt'
expect "a right plugin that is verified" 0 '^content$' "$gvnd" shell -p "hostfs:$work/checked" --verify -c 'cat /file'

expect "missing root" 1 'STATUS_OBJECT_NAME_NOT_FOUND' "$gvnd" shell -p hostfs:/no/such/dir -c 'ls'
expect "usage" 2 'Run with --help' "$gvnd" export
expect "memfs is empty" 0 '^0 entries$' "$gvnd" shell -c 'ls -l'
printf 'ls\nexit\nfrob\n' >"$work/script"
printf 'ls\ncat /nothing; ls\n' >"$work/script2"
expect "a script's failure names its line" 1 '/script2:2: cat /nothing; ls$' \
    "$gvnd" shell "${volume[@]}" "$work/script2"
expect "semicolons in quotes and scripts" 0 '^a;b$' "$gvnd" shell -c 'write /f 0 "a;b\n"; cat /f # a remark; frob'
for sink in 'exec >/dev/full' 'exec > >(exec >/dev/null </dev/null; :); wait $!'; do
    expect "lost output by $sink" 1 'output is lost|cannot write' bash -c "($sink; exec \"\$@\")" - "$gvnd" shell "${volume[@]}" -c ls
done
expect "script file" 0 '^hello.txt$' "$gvnd" shell "${volume[@]}" "$work/script"

# --- what each command changes, on memfs; a row is what it is about, what must be printed, and the commands

both()
{
    local name=$1 pattern=$2 commands=$3
    mkdir "$work/both"
    expect "$name on memfs" 0 "$pattern" "$gvnd" shell -c "$commands"
    expect "$name on hostfs" 0 "$pattern" "$gvnd" shell -p "hostfs:$work/both" -c "$commands"
    rm -rf "$work/both"
}

both "mkdir" '^d/$' 'mkdir /d; ls /'
both "put and get" '^0 entries$' "put $work/tree/sub/large.bin /f; get /f $work/got; rm /f; ls -l"
cmp "$work/tree/sub/large.bin" "$work/got" || fail "put and get: the file came back changed"
both "put overwrites" '^hello$' "put $work/tree/sub/large.bin /f; put $work/tree/hello.txt /f; cat /f"
both "write at an offset" '^abXYZf$' 'write /f 0 "abcdef\n"; write /f 2 XYZ; cat /f'
both "write behind the end" '^00000000  61 00 00 62 ' 'write /f 0 a; write /f 3 b; map /f show'
both "append" '^onetwo$' 'append /f one; append /f "two\n"; cat /f'
both "truncate" '^size +3$' 'write /f 0 abcdef; truncate /f 3; stat /f'
both "truncate to more" '^size +4096$' 'write /f 0 abcdef; truncate /f 4K; stat /f'
both "alloc keeps the size" '^size +6$' 'write /f 0 abcdef; alloc /f 1M; stat /f'
both "alloc shortens" '^size +2$' 'write /f 0 abcdef; alloc /f 2; stat /f'
both "map" '^xxYYxx$' 'write /f 0 "xxxxxx\n"; map /f change 2 YY; cat /f'
both "map shows what was written later" '^00000000  41 62 ' 'write /f 0 ab; map /f show; write /f 0 A; map /f show'
both "rmdir" '^0 entries$' 'mkdir /d; rmdir /d; ls -l'
both "mv" '^abc$' 'mkdir /d; write /f 0 "abc\n"; mv /f /g; mv /g /d/h; cat /d/h'
both "mv of a directory" '^abc$' 'mkdir /d; write /d/f 0 "abc\n"; mv /d /e; cat /e/f'
both "mv --replace" '^abc$' 'write /f 0 "abc\n"; write /g 0 old; mv --replace /f /g; cat /g'
both "ln" '^leads to +.d$' 'mkdir /d; ln /d /l; write /l/f 0 x; ls /d; stat /l'
both "rm of a link leaves its target" '^abc$' 'write /f 0 "abc\n"; ln /f /l; rm /l; cat /f'
both "attr" '^R----- ' 'write /f 0 x; attr /f =r; ls -l'
both "touch makes a file" ' 0 .* f$' 'touch /f; ls -l'
both "touch written" '^written +2021-03-04 05:06:07$' 'touch /f written 2021-03-04T05:06:07; stat /f'
both "touch accessed" '^accessed +2021-03-04 05:06:00$' 'touch /f accessed 2021-03-04T05:06; stat /f'
expect "touch changed" 0 '^changed +2021-03-04 00:00:00$' "$gvnd" shell -c 'touch /f changed 2021-03-04; stat /f'
both "df" '^unit +[0-9]+$' 'df'
both "flush" 'plugin: FlushVol' 'write /f 0 x; flush /f; calls on; flush'
both "mounted" '^mounted$' 'mounted'
expect "label" 0 '^label +Shelf$' "$gvnd" shell -c 'label Shelf; label'
expect "capacity" 0 '^size +4194304 ' "$gvnd" shell --capacity 4M -c 'df'
expect "help of one command" 0 'mv \[--replace\] PATH' "$gvnd" shell -c 'help mv'

both "cp" '^abc$' 'write /f 0 "abc\n"; write /g 0 longer; cp /f /g; rm /f; cat /g'
both "relative paths" '^/d/e$' 'mkdir d; cd d; mkdir e; write e/f 0 x; cd ./e; mv f ../g; cp ../g h; pwd; cat /d/e/h; rm /d/g; cd; rm -r d; stat /'
both "cd back up" '^g$' 'mkdir /d; cd d; touch ../g; cd ..; rmdir d; ls'
both "rm -r keeps what links lead to" '^/keep/f$' \
    'mkdir /keep; write /keep/f 0 x; mkdir /d; mkdir /d/e; touch /d/e/g; ln /keep /d/e/l; ln /keep/f /d/l; rm -r /d; find /'
both "rm -r" '^0 entries$' 'mkdir /d; mkdir /d/e; touch /d/e/f; rm -r /d; touch /g; rm -r /g; ls -l'
both "find" '^/d/e/Name.TXT$' 'mkdir /d; mkdir /d/e; touch /d/e/Name.TXT; ln /d /d/e/loop; find / *.txt'
expect "put and get by standard input and output" 0 '^one$' bash -c "printf 'put - /f\none\n' | '$gvnd' shell - >/dev/null &&
    printf 'one\n' | '$gvnd' shell -c 'put - /f; get /f -'"
expect "cp onto itself" 1 STATUS_SHARING_VIOLATION "$gvnd" shell -c 'write /f 0 abc; cp /f /f'
expect "cd to nothing" 1 STATUS_OBJECT_NAME_NOT_FOUND "$gvnd" shell -c 'cd /nothing'
expect "rm -r of the root" 2 'root cannot be removed' "$gvnd" shell -c 'rm -r /'
expect "version" 0 '^gvnd [0-9]+\.[0-9]+\.[0-9]+$' "$gvnd" --version
for command in '' shell trace import export plugins check mount 'shell -c help'; do
    # shellcheck disable=SC2086 # which splits it
    case $command in *-c*) set -- $command ;; *) set -- $command --help ;; esac
    long=$("$gvnd" "$@" | awk 'length > 80')
    [ -z "$long" ] || fail "help of '$command' is wider than 80 columns: $long"
done

# --- history, which a terminal has alone: the second shell finds the first one's line by Ctrl-P twice

typed() { printf '%b' "$1" | XDG_STATE_HOME="$work/state" timeout 60 script -qec "'$gvnd' shell" /dev/null; }
if command -v script >/dev/null; then
    typed 'mkdir /remembered\nexit\n' >/dev/null
    typed '\x10\x10\nls\nexit\n' | grep 'remembered/' >/dev/null || fail "history: the last shell's line did not come back"
    [ "$(grep -c remembered "$work/state/gvnd/history")" = 2 ] || fail "history: $(cat "$work/state/gvnd/history")"
fi

# --- lost output, of every command that prints

for command in ls 'ls -l' 'cat /f' 'get /f -' 'find /' pwd 'stat /f' 'attr /f' 'ea list /f' 'ea get /f K' 'map /f show' \
    'open /f' 'open /f; handles' df label mounted help 'calls on; ls'; do
    expect "lost output of $command" 1 'output is lost|cannot write' bash -c '"$@" >/dev/full' - "$gvnd" shell \
        -c "write /f 0 abc; ea set /f K v; $command"
done
for command in --help --version plugins "check memfs --only table" "import $work/tree /"; do
    # shellcheck disable=SC2086 # which splits it
    expect "lost output of gvnd $command" 1 'output is lost|cannot write' bash -c '"$@" >/dev/full' - "$gvnd" $command
done

# --- failures: the status by its name

refused()
{
    local status=$1 commands=$2
    expect "$commands" 1 "$status " "$gvnd" shell --capacity 4M -c "$commands"
}

refused STATUS_OBJECT_NAME_COLLISION 'mkdir /d; mkdir /D'
refused STATUS_OBJECT_NAME_COLLISION 'touch /f; touch /g; mv /f /g'
refused STATUS_OBJECT_NAME_COLLISION 'touch /f; mkdir /d; touch /d/g; mv /f /d/g'
refused STATUS_DIRECTORY_NOT_EMPTY 'mkdir /d; touch /d/f; rmdir /d'
refused STATUS_FILE_IS_A_DIRECTORY 'mkdir /d; rm /d'
refused STATUS_NOT_A_DIRECTORY 'touch /f; rmdir /f'
expect "rmdir of a link" 2 'this is a link' "$gvnd" shell -c 'mkdir /d; ln /d /l; rmdir /l/'
expect "mv of a link" 2 'cannot be renamed' "$gvnd" shell -c 'mkdir /d; ln /d /l; mv /l /m'
refused STATUS_CANNOT_DELETE 'touch /f; attr /f +r; rm /f'
refused STATUS_ACCESS_DENIED 'touch /f; attr /f +r; write /f 0 x'
refused STATUS_FILE_LOCK_CONFLICT 'write /f 0 abc; open /f rw; lock 1 0 2; write /f 1 x'
refused STATUS_SHARING_VIOLATION 'touch /f; open /f rd r; write /f 0 x'
refused STATUS_MAPPED_FILE_SIZE_ZERO 'touch /f; map /f show'
refused STATUS_DISK_FULL 'touch /f; truncate /f 8M'
refused STATUS_NONEXISTENT_EA_ENTRY 'touch /f; ea get /f NONE'
refused STATUS_INVALID_EA_NAME 'touch /f; ea set /f a+b x'
expect "write-protected" 1 STATUS_MEDIA_WRITE_PROTECTED "$gvnd" shell "${volume[@]}" --read-only -c 'mkdir /d'
expect "a word too many" 2 'usage: mkdir PATH' "$gvnd" shell -c 'mkdir /a /b'
expect "no such time" 2 'is no time' "$gvnd" shell -c 'touch /f written yesterday'

# --- another user

protected='D:P(A;;GA;;;SY)(A;;GA;;;BA)'
expect "as an administrator" 0 '^0 entries$' "$gvnd" shell --sddl "$protected" \
    -c 'as S-1-5-21-1-2-3-1002+S-1-5-32-544 ls -l'
expect "as somebody else" 1 STATUS_ACCESS_DENIED "$gvnd" shell --sddl "$protected" \
    -c 'as S-1-5-21-1-2-3-1002 ls'
expect "malformed descriptor" 1 'mount memfs: STATUS_' "$gvnd" shell --sddl 'D:P(nonsense' -c 'ls'
expect "handles of another user" 2 'cannot be run as another user' "$gvnd" shell -c 'as S-1-5-18 open /'
expect "no SID" 2 'is no SID' "$gvnd" shell -c 'as bob ls'

# --- trees

# Everything about a tree but what two file systems never share.
describe()
{
    (cd "$1" && find . -mindepth 1 \( -type f -printf '%P %s %T@\n' -o -type d -printf '%P/ %T@\n' -o \
        -type l -printf '%P -> %l\n' \) | sort)
    if command -v getfattr >/dev/null; then
        (cd "$1" && getfattr -R -h -d -m '^user\.[^g]' . 2>/dev/null | sort)
    fi
}

same()
{
    diff -r --no-dereference "$2" "$3" || fail "$1: the copy's contents differ"
    diff <(describe "$2") <(describe "$3") || fail "$1: times, links or extended attributes differ"
}

mkdir "$work/other"
ln -s ../hello.txt "$work/tree/sub/up"
ln -s sub "$work/tree/into"
expect "attributes and EAs of the original" 0 '^RH' "$gvnd" shell "${volume[@]}" \
    -c 'attr /empty +rh; touch /hello.txt created 2001-02-03; ea set /hello.txt AUTHOR somebody; ea set /sub KIND tree; attr /empty'
find "$work/tree" -exec touch -h -d '2020-05-06 07:08:09' {} +
touch -d '2019-01-01' "$work/tree/hello.txt" "$work/tree/sub"

expect "import and export through memfs" 0 'every byte agrees' "$gvnd" shell \
    -c "import $work/tree /a/b; export /a/b $work/copy; attr /a/b/empty; ea get /a/b/sub KIND; stat /a/b/hello.txt"
same "through memfs" "$work/tree" "$work/copy"
expect "attributes came through" 0 '^RH' "$gvnd" shell -p "hostfs:$work/copy" -c 'attr /empty'
expect "EAs came through" 0 'somebody' "$gvnd" shell -p "hostfs:$work/copy" -c 'ea get /hello.txt AUTHOR'
expect "creation times came through" 0 '^created +2001-02-03 00:00:00$' "$gvnd" shell -p "hostfs:$work/copy" -c 'stat /hello.txt'

expect "import" 0 '^every byte agrees$' "$gvnd" import -p "hostfs:$work/other" "$work/tree" /in
same "import" "$work/tree" "$work/other/in"
expect "import over it" 3 'empty' "$gvnd" import -p "hostfs:$work/other" "$work/tree" /in # which is read-only
expect "export" 0 '^every byte agrees$' "$gvnd" export -p "hostfs:$work/other" /in "$work/again"
same "export" "$work/tree" "$work/again"

# Two names of one file in the target: the second copy overwrites the first.
mkdir "$work/two" "$work/linked"
echo 1 >"$work/two/a"
echo 2 >"$work/two/b"
touch "$work/linked/a"
ln "$work/linked/a" "$work/linked/b"
expect "a copy that disagrees" 3 'a: the copy differs behind offset 0' "$gvnd" export -p "hostfs:$work/two" / "$work/linked"

mkdir -p "$work/odd/dir"
echo 1 >"$work/odd/Name"
echo 2 >"$work/odd/name"
echo 3 >"$work/odd/a:b?"
ln -s /etc/hosts "$work/odd/out"
mkfifo "$work/odd/pipe"
expect "names that a volume cannot hold" 0 '^not representable: 3 names$' "$gvnd" import "$work/odd" /odd
expect "names that NT cannot hold" 0 '^3$' "$gvnd" shell \
    -c "import $work/odd /; export / $work/odd2; cat /$(printf 'a\xef\x80\xbab\xef\x80\xbf')"
[ "$(cat "$work/odd2/a:b?")" = 3 ] || fail "a name that NT cannot hold did not come back"
expect "import from nowhere" 1 'No such file' "$gvnd" import "$work/nothing" /
expect "export from nowhere" 1 'STATUS_OBJECT_NAME_NOT_FOUND' "$gvnd" export /nothing "$work/nothing"
[ -e "$work/nothing" ] && fail "an export that failed left a directory"
expect "a volume that is too small" 3 'STATUS_DISK_FULL' "$gvnd" import --capacity 1M "$work/tree" /
expect "export of a subtree" 0 '^1 files in 1 directories' "$gvnd" export "${volume[@]}" /sub "$work/sub"
expect "export to no directory" 1 'cannot create directories' "$gvnd" export -p "hostfs:$source/driver" / /dev/full/x

# The manual page has every option and command, and is well-formed; the completion of the command line knows them.
manual=$source/tools/gvnd/gvnd.1
if command -v groff >/dev/null; then
    complaints=$(groff -man -ww -z "$manual" 2>&1)
    [ -z "$complaints" ] || fail "the manual page: $complaints"
fi
page=$(sed 's/\\-/-/g' "$manual")
for command in '' shell trace import export mount check plugins; do
    for option in $("$gvnd" $command --help | sed -nE 's/^  (-[^ ]+).*/\1/p' | tr , ' '); do
        grep -qE -- "(^|[^-a-z])$option([^-a-z]|$)" <<<"$page" || fail "the manual page lacks $option"
    done
done
for command in $("$gvnd" shell -c help | sed -nE 's/^  ([a-z]+)( .*|$)/\1/p'); do
    grep -qE "^([a-z]+, )*$command(,|$)" "$manual" || fail "the manual page lacks the shell's $command"
done

# completes REPLIES WORD...: what the last word could become.
completes()
{
    local wanted=$1 got
    shift
    got=$(source "$source/tools/gvnd/gvnd.bash" && compopt() { :; } && COMP_WORDS=("$@") COMP_CWORD=$(($# - 1)) &&
        _gvnd "$gvnd" && echo "${COMPREPLY[*]}")
    [ "$got" = "$wanted" ] || fail "completion of '$*': '$got', expected '$wanted'"
}
completes "import" gvnd im
completes "--read-only" gvnd shell --re
completes "hostfs:" gvnd shell -p ho
completes "$work/tree/hello.txt" gvnd shell -p hostfs : "$work/tree/hel"
completes "$work/tree" gvnd import "$work/tre"
completes "writeback" gvnd mount -o w
completes "" gvnd shell --capacity ""

# what the recorder kept: calls lie in their requests
expect "top" 0 'CreateDir +1 ' "$gvnd" shell -c "mkdir /a; top"
expect "trace" 1 'STATUS_OBJECT_NAME_NOT_FOUND' "$gvnd" trace -o "$work/trace.json" -c "import $work/tree /t; cat /none"
python3 - "$work/trace.json" <<'END' || fail "trace events: not what was done"
import json, sys
events = json.load(open(sys.argv[1]))["traceEvents"]
slices = [e for e in events if e["ph"] == "X"]
requests = {e["args"]["request"]: e for e in slices if e["cat"] == "request"}
calls = [e for e in slices if e["cat"] == "plugin"]
assert any(e["name"] == "IRP_MJ_WRITE" and e["args"]["bytes"] for e in requests.values())
assert any(e["name"] == "IRP_MJ_CREATE" and e["args"]["status"] == "STATUS_OBJECT_NAME_NOT_FOUND"
           for e in requests.values())
assert len(calls) > len(requests) / 2
inside = [(call, requests[call["args"]["request"]]) for call in calls if call["args"]["request"] in requests]
assert len(inside) > len(calls) / 2 # others are of the mount
for call, request in inside:
    assert request["ts"] - 0.01 <= call["ts"]
    assert call["ts"] + call["dur"] <= request["ts"] + request["dur"] + 0.01
named = {e["tid"] for e in events if e["ph"] == "M" and e["name"] == "thread_name"}
assert {e["tid"] for e in slices} <= named
END
expect "trace that cannot be written" 1 'cannot write .*/dev/full' "$gvnd" trace -o /dev/full -c "mkdir /a"

[ $failed = 0 ] && echo "all of the tool's uses went as they should"
exit $failed
