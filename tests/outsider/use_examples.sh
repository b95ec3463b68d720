#!/bin/bash
# The example plugins, used by the tool: what they serve, and what they refuse.
#
#   use_examples.sh GVND DIRECTORY    DIRECTORY has hello.so, archive.so and slots.so
set -euo pipefail
export LC_ALL=C.UTF-8

gvnd=$(realpath "$1")
plugins=$(realpath "$2")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

fail()
{
    echo "use_examples.sh: $*" >&2
    exit 1
}

# expect PLUGIN COMMANDS TEXT: the commands print the text, a NUL as a question mark, and succeed.
expect()
{
    local output
    output=$("$gvnd" shell -p "so:$plugins/$1" -c "$2" | tr '\0' '?') || fail "$1: '$2' failed"
    [ "$output" = "$3" ] || fail "$1: '$2' printed '$output', not '$3'"
}

# refuse PLUGIN COMMANDS STATUS
refuse()
{
    local output
    ! output=$("$gvnd" shell -p "so:$plugins/$1" -c "$2" 2>&1) || fail "$1: '$2' succeeded"
    [[ $output == *"$3"* ]] || fail "$1: '$2' gave '$output', not $3"
}

expect hello.so 'ls; cat /HELLO.txt' $'hello.txt\nHello, volume.'
refuse hello.so 'append hello.txt more' STATUS_ACCESS_DENIED

# What is written stays, what is cut off is gone, and a slot is never larger than its room.
expect slots.so 'ls; cat slot1; write slot1 2 there; write slot1 0 hi; truncate slot1 4; truncate slot1 6; append slot1 .;
    cat slot1' $'slot0\nslot1\nslot2\nslot3\nhith??.'
refuse slots.so 'truncate slot0 65537' STATUS_DISK_FULL
refuse slots.so 'write slot0 65536 x' STATUS_DISK_FULL
refuse slots.so 'mkdir more' STATUS_NOT_SUPPORTED

# A tree as it is unpacked and as it is shown: two names of a file, links, a name that is not ASCII, a member that was
# added anew, an empty directory.
mkdir -p tree/sub/deep tree/empty
echo first >tree/a.txt
tar -cf tree.tar -C tree .
echo 'second, and longer' >tree/a.txt
head -c 300000 /dev/urandom >tree/sub/data
echo ü >tree/sub/deep/ümlaut.txt
ln tree/a.txt tree/sub/again
ln -s ../a.txt tree/sub/link
ln -s sub/deep tree/deep
tar -rf tree.tar -C tree .
gzip -k tree.tar
for file in tree.tar tree.tar.gz; do
    rm -rf out
    "$gvnd" export -p "so:$plugins/archive.so:$file" / out >log 2>&1 || fail "export of $file: $(cat log)"
    diff -r --no-dereference tree out || fail "$file is shown otherwise"
done
python3 - <<'END'
import zipfile
with zipfile.ZipFile("tree.zip", "w", zipfile.ZIP_DEFLATED) as file:
    file.writestr("only/in/a/path.txt", "text\n")
    file.writestr("only/IN/A/other.txt", "of the same directory\n")
    file.writestr("only/in/a/PATH.txt", "differs in case alone\n")
    file.writestr("../outside.txt", "not shown\n")
    file.writestr("odd*name", "odd\n")
END
expect archive.so:tree.zip 'ls only/in/a; cat only/in/a/path.txt; cat only/in/a/other.txt; ls' \
    $'path.txt\nother.txt\ntext\nof the same directory\nonly/\nodd\uf02aname'
refuse archive.so:tree.tar 'rm a.txt' STATUS_
refuse archive.so:tree.tar 'append a.txt more' STATUS_ACCESS_DENIED
head -c 100 tree.tar.gz >cut.tar.gz
refuse archive.so:cut.tar.gz ls STATUS_FILE_CORRUPT_ERROR
refuse archive.so:none.tar ls STATUS_OBJECT_NAME_NOT_FOUND
# An archive that is replaced under the volume is not read as the one that was listed.
mkfifo commands answers
"$gvnd" shell -p "so:$plugins/archive.so:tree.tar" <commands >answers 2>errors &
exec 3>commands 4<answers
echo 'cat a.txt' >&3
read -r line <&4
[ "$line" = 'second, and longer' ] || fail "a.txt reads '$line'"
cp tree.tar.gz tree.tar
echo 'cat sub/data' >&3
exec 3>&-
! wait $! || fail "a member of another archive was read"
grep -q STATUS_FILE_CORRUPT_ERROR errors || fail "another archive gives: $(cat errors)"
