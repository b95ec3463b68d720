#!/bin/bash
# Proves that the kernel images carry nothing of the place and time they were built at: builds them from a copy of the
# sources elsewhere, and compares byte by byte.
#
#   check_reproducible.sh [BUILD]    BUILD is a finished build of preset nt; without it, two copies are built
set -euo pipefail

source_dir=$(cd "$(dirname "$0")/../.." && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# Builds a copy of the sources below directory $1.
build_in()
{
    mkdir -p "$1"
    local item
    for item in CMakeLists.txt CMakePresets.json cmake include driver plugins packaging; do
        [ ! -e "$source_dir/$item" ] || cp -R "$source_dir/$item" "$1/"
    done
    (cd "$1" && cmake --preset nt && cmake --build --preset nt) >"$1/log" 2>&1 || { cat "$1/log" >&2; exit 1; }
}

first=${1:-}
if [ -z "$first" ]; then
    build_in "$work/a"
    first=$work/a/build/nt
fi
build_in "$work/quite/another/place"
second=$work/quite/another/place/build/nt

# The first may hold images of tests besides.
found=0
for image in "$second"/*.sys; do
    [ -e "$image" ] || continue
    for file in "$image" "${image%.sys}.pdb"; do
        cmp "$file" "$first/$(basename "$file")"
        found=$((found + 1))
    done
done
[ "$found" -gt 0 ] || { echo "no image in $second" >&2; exit 1; }
echo "$found files are identical"
