#!/bin/bash
# The Debian packages: made, installed into a fresh root, used there, and removed without a trace.
#
#   packages.sh BUILD    a finished release build
#
# The fresh root has the files of the packages that ours depend on, and no others; dpkg's database there knows just these.
# So dpkg refuses to install, and the tool does not start, if a dependency is not named. The exit code 77 says that this
# machine lets nobody change the root or has no dpkg.
set -euo pipefail

# The packages' programs run with another root and with /proc, which only the superuser of a namespace can arrange.
if [ -z "${PACKAGES_NAMESPACE:-}" ]; then
    command -v dpkg-deb >/dev/null || exit 77
    user=()
    [ "$(id -u)" -eq 0 ] || user=(--user --map-root-user)
    unshare "${user[@]}" --mount true 2>/dev/null || exit 77
    PACKAGES_NAMESPACE=1 exec unshare "${user[@]}" --mount "$0" "$@"
fi

build=$(realpath "$1")
export LC_ALL=C.UTF-8
work=$(mktemp -d)
root=$work/root
trap 'umount --recursive --lazy "$root/proc" 2>/dev/null || true; rm -rf --one-file-system "$work"' EXIT

fail()
{
    echo "packages.sh: $*" >&2
    exit 1
}

# The installed packages that satisfy a list of dependencies, one a line: of alternatives the first that is there.
satisfying()
{
    local choice name
    tr ',' '\n' | while read -r choice; do
        for name in $(tr '|' '\n' <<<"$choice" | sed -E 's/\(.*//; s/:any//'); do
            if dpkg-query --show "$name" >/dev/null 2>&1; then
                echo "$name"
                break
            fi
        done
    done
}

# All that a list of dependencies needs, to the end.
closure()
{
    local next known=
    next=$(satisfying | sort -u)
    while [ -n "$next" ]; do
        known=$(printf '%s\n%s' "$known" "$next" | sed '/^$/d' | sort -u)
        # shellcheck disable=SC2086
        next=$(dpkg-query --show --showformat='${Pre-Depends}, ${Depends},\n' $next | satisfying | sort -u |
            comm -23 - <(echo "$known"))
    done
    echo "$known"
}

make_root()
{
    local package
    mkdir -p "$root"/{usr/{bin,sbin,lib,lib64},tmp,proc,var/lib/dpkg/{info,updates}}
    ln -s usr/bin usr/sbin usr/lib usr/lib64 "$root/"
    touch "$root/var/lib/dpkg/available"
    for package in "$@"; do
        dpkg-query --status "$package" >>"$root/var/lib/dpkg/status"
        echo >>"$root/var/lib/dpkg/status"
        dpkg-query --listfiles "$package" >"$work/files"
        cp "$work/files" "$root/var/lib/dpkg/info/$package.list"
        while read -r file; do
            if [ -e "$file" ] && { [ ! -d "$file" ] || [ -L "$file" ]; }; then echo ".$file"; fi
        done <"$work/files"
    done | tar -c -C / -T - | tar -x -C "$root" --keep-directory-symlink
}

# Nobody else's packages are looked at or changed.
in_root()
{
    dpkg --root="$root" --force-script-chrootless --force-unsafe-io --log=/dev/null "$@" >"$work/log" 2>&1 || fail "dpkg $1: $(cat "$work/log")"
}

run()
{
    chroot "$root" /usr/bin/gvnd "$@"
}

cmake --build "$build" --target doc >"$work/log" 2>&1 || fail "doc: $(cat "$work/log")"
cpack --config "$build/CPackConfig.cmake" -B "$work/packages" >"$work/log" 2>&1 || fail "cpack: $(cat "$work/log")"
packages=("$work"/packages/*.deb)
names=()
depends=
for package in "${packages[@]}"; do
    names+=("$(dpkg-deb --field "$package" Package)")
    depends+=$(dpkg-deb --field "$package" Depends | sed -E 's/gvnd( \([^)]*\))?//'),
done
[ "${names[*]}" = "gvnd-dev gvnd-doc gvnd-plugins gvnd" ] || fail "there are ${names[*]}"
mapfile -t needed < <(closure <<<"$depends")
[ -n "${needed[0]}" ] || fail "the packages depend on nothing"
make_root "${needed[@]}"
find "$root" -path "$root/var" -prune -o -print | sort >"$work/before"

# The plugins need the tool, and dpkg knows.
if dpkg --root="$root" --log=/dev/null --install "$work"/packages/gvnd-plugins_*.deb >/dev/null 2>&1; then
    fail "the plugins were configured without the tool"
fi
in_root --force-depends --purge gvnd-plugins
in_root --install "${packages[@]}"
state=$(dpkg-query --root="$root" --show --showformat='${db:Status-Status} ' "${names[@]}")
[ "$state" = "installed installed installed installed " ] || fail "the packages are $state"

# What is packaged is what is installed: nothing is in no package.
cmake --install "$build" --prefix "$work/prefix/usr" >/dev/null
(cd "$work/prefix" && find . ! -type d | sort) >"$work/installed"
cat "$root"/var/lib/dpkg/info/gvnd*.list | sed 's,^/,./,' | sort -u >"$work/packaged"
comm -23 "$work/installed" "$work/packaged" >"$work/missing"
[ ! -s "$work/missing" ] || fail "in no package: $(cat "$work/missing")"

mount --rbind /proc "$root/proc"
mkdir "$root/tmp/tree"
echo packaged >"$root/tmp/tree/note"
tar -cf "$root/tmp/tree.tar" -C "$root/tmp/tree" note
[ "$(run shell -c 'write a.txt 0 text; cat a.txt')" = text ] || fail "the tool's volume does not keep text"
run import /tmp/tree / >"$work/log" 2>&1 || fail "import: $(cat "$work/log")"
run plugins | grep -q '^archive:FILE ' || fail "the packaged plugin is not listed"
[ "$(run shell -p archive:/tmp/tree.tar -c 'cat note')" = packaged ] || fail "the packaged plugin is not found"
umount --recursive --lazy "$root/proc"
rm -r "$root"/tmp/tree*

grep -q "The plugin's table" "$root/usr/share/doc/gvnd/html/structPluginOps.html" || fail "there is no reference"

# A plugin, by the packages alone.
cmake -G Ninja -S "$root/usr/share/doc/gvnd/examples/slots" -B "$work/slots" -D CMAKE_PREFIX_PATH="$root/usr" \
    >"$work/log" 2>&1 || fail "slots: $(cat "$work/log")"
cmake --build "$work/slots" >"$work/log" 2>&1 || fail "slots: $(cat "$work/log")"
[ -e "$work/slots/slots.so" ] || fail "there is no slots.so"

in_root --purge "${names[@]}"
find "$root" -path "$root/var" -prune -o -print | sort >"$work/after"
diff "$work/before" "$work/after" || fail "something is left"
for package in "${packages[@]}"; do
    printf '%-32s %8d bytes, %3d files\n' "$(basename "$package")" "$(stat -c %s "$package")" \
        "$(dpkg-deb --contents "$package" | grep -vc '/$')"
done
echo "depend on ${needed[*]}"
