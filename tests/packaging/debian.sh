#!/usr/bin/env bash
# Builds the Debian packages, installs them into a root of their own, builds and runs programs with
# them, and removes them, which must leave nothing behind. The root has a package database but no
# packages beside these five, so dependencies on other packages aren't checked.
set -euo pipefail
cd "$(dirname "$0")/../.."
work=$PWD/build/packages-test
rm -rf "$work"
mkdir -p "$work/root/var/lib/dpkg"/{info,updates,triggers}
touch "$work/root/var/lib/dpkg"/{status,available}
fail() { echo "packages: $*" >&2 && exit 1; }

scripts/packages >/dev/null
mapfile -t packages < <(ls build/packages/*.deb | grep -v dbgsym)
((${#packages[@]} == 5)) || fail "not five packages: ${packages[*]}"

# Another user than root needs fakeroot. An empty root can't meet dependencies on the C library.
as_root=()
((EUID == 0)) || as_root=(fakeroot)
in_root() {
    "${as_root[@]}" dpkg --root="$work/root" --force-depends --force-script-chrootless --log="$work/log" "$@" \
        >"$work/dpkg" 2>&1 || { cat "$work/dpkg" && fail "dpkg $*"; }
}
in_root --install "${packages[@]}"
[[ $(grep -c '^Status: install ok installed' "$work/root/var/lib/dpkg/status") == 5 ]] ||
    fail "not all are installed"

root=$work/root/usr
libdir=$(dirname "$(find "$root/lib" -name libtessra.a)")
export LD_LIBRARY_PATH=$libdir
consumer=tests/install/consumer
export PKG_CONFIG_LIBDIR=$libdir/pkgconfig
for kind in shared static; do
    options=()
    [[ $kind == shared ]] || options=(--static)
    flags=$(pkg-config "${options[@]}" --cflags --libs tessra)
    cc -std=c11 ${options[0]+-static} -o "$work/$kind" $consumer/consumer.c $flags
    "$work/$kind" >/dev/null || fail "the $kind consumer fails"
done
cmake -S $consumer -B "$work/cmake" -DLANGUAGE=C -Dtessra_DIR="$libdir/cmake/tessra" >/dev/null
cmake --build "$work/cmake" >/dev/null
"$work/cmake/consumer" >/dev/null || fail "the CMake consumer fails"
"$root/lib/tessra/examples/zipstream" -C "$root" include/tessra/szip.h >"$work/a.zip" 2>"$work/log"
unzip -tq "$work/a.zip" >/dev/null || fail "the example's archive"
MANPATH=$root/share/man man 3 event_timer_add >"$work/page"
grep -q 'Arms a new timer' "$work/page" || fail "no manual page"

in_root --purge libtessra1 tessra-liblog libtessra-dev libtessra-doc tessra-examples
left=$(find "$work/root" -mindepth 1 -not -path "$work/root/var*" -not -type d)
[[ -z $left ]] || fail "left behind: $left"
echo "packages: ${#packages[@]} built, installed, used and removed"
