#!/usr/bin/env bash
# Installs libtessra and uses it from outside, in C and C++, shared and static, through CMake and
# through pkg-config.
#
#   tests/install/run.sh prefix       into a prefix that is then moved
#   tests/install/run.sh destdir      staged with DESTDIR
#   tests/install/run.sh subproject   as part of another project; then installed without liblog
#
# The environment has the settings: TESSRA_BUILD (the build folder), WORK (a scratch folder), CMAKE,
# CC, CXX, READELF, and for a cross build TOOLCHAIN (a file), EMULATOR (a command), C_FLAGS and
# CXX_FLAGS.
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
source=$(cd "$here/../.." && pwd)
toolchain=()
[[ -n ${TOOLCHAIN:-} ]] && toolchain=(-DCMAKE_TOOLCHAIN_FILE="$TOOLCHAIN")
read -ra emulator <<<"${EMULATOR:-}"
platform= # The folder of a device's own libraries.

# CTest passes a DESTDIR on that a package build has set.
unset DESTDIR PKG_CONFIG_PATH PKG_CONFIG_SYSROOT_DIR LD_LIBRARY_PATH

fail() {
    echo "install: $*" >&2
    exit 1
}

# run PROGRAM [LIBRARY_DIR]: runs a consumer, which must succeed, and prints its output.
run() {
    local output
    output=$(LD_LIBRARY_PATH=${2:-$platform} "${emulator[@]}" "$1") || fail "$1 failed: $output"
    printf '    %s: %s\n' "${1#"$WORK/"}" "$output"
}

# needs PROGRAM: prints the libraries that the program needs.
needs() { "$READELF" -d "$1" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p'; }

# check_linkage PROGRAM: shared programs get the libraries at run time, static ones have them inside,
# and C programs have no C++ runtime either way. The platform's own liblog may be a shared one.
check_linkage() {
    local libraries
    libraries=$(needs "$1")
    case $1 in
        *static*)
            [[ -n $platform ]] || ! grep -q liblog <<<"$libraries" || fail "$1 needs liblog"
            ! grep -q libtessra <<<"$libraries" || fail "$1 needs libtessra"
            ;;
        *) grep -qx 'libtessra\.so\.1' <<<"$libraries" || fail "$1 doesn't need libtessra.so.1" ;;
    esac
    case $1 in
        *-C/* | */c-*) ! grep -q 'libstdc++' <<<"$libraries" || fail "$1 needs" $libraries ;;
    esac
}

# use_cmake ROOT OPTION...: builds the consumer with find_package() in ROOT or, without a ROOT, by the
# options. A cross build searches only its own root, so it gets the package's folder.
use_cmake() {
    local root=$1 language build program where=()
    shift
    [[ -z $root ]] || where=(-Dtessra_ROOT="$root")
    [[ -z $root || -z ${TOOLCHAIN:-} ]] || where=(-Dtessra_DIR="$root/lib/cmake/tessra")
    for language in C CXX; do
        build=$WORK/cmake-$language
        rm -rf "$build"
        "$CMAKE" -G Ninja -S "$here/consumer" -B "$build" -DLANGUAGE=$language \
            -DCMAKE_C_COMPILER="$CC" -DCMAKE_CXX_COMPILER="$CXX" "${toolchain[@]}" "${where[@]}" "$@" \
            --no-warn-unused-cli >"$build.log" 2>&1 || { cat "$build.log" && fail "configure"; }
        "$CMAKE" --build "$build" >>"$build.log" 2>&1 || { cat "$build.log" && fail "build"; }
        for program in consumer consumer-static; do
            [[ -z $root ]] || check_linkage "$build/$program"
            run "$build/$program"
        done
    done
}

# use_pkg_config LIBDIR: builds the consumer with the flags of tessra.pc alone.
use_pkg_config() {
    local libdir=$1 flags out=$WORK/pkg-config
    mkdir -p "$out"
    export PKG_CONFIG_LIBDIR=$libdir/pkgconfig
    flags=$(pkg-config --cflags --libs tessra) || fail "pkg-config doesn't find tessra"
    $CC ${C_FLAGS:-} -std=c11 -o "$out/c-shared" "$here"/consumer/{consumer,words}.c $flags
    $CXX ${CXX_FLAGS:-} -std=c++17 -o "$out/cxx-shared" "$here/consumer/consumer.cpp" $flags
    flags=$(pkg-config --static --cflags --libs tessra)
    $CC ${C_FLAGS:-} -std=c11 -static -o "$out/c-static" "$here"/consumer/{consumer,words}.c $flags
    $CXX ${CXX_FLAGS:-} -std=c++17 -static -o "$out/cxx-static" "$here/consumer/consumer.cpp" $flags
    for program in c-shared cxx-shared c-static cxx-static; do
        check_linkage "$out/$program"
        run "$out/$program" "$libdir"
    done
}

# check_files PREFIX: the files of an installation are there, and contain no paths of the build.
check_files() {
    local libdir=$1/lib header file run_path expected
    for header in "$source"/include/tessra/*.h; do
        cmp -s "$header" "$1/include/tessra/${header##*/}" || fail "no include/tessra/${header##*/}"
    done
    for file in libtessra.so libtessra.so.1 libtessra.a pkgconfig/tessra.pc \
        cmake/tessra/tessraConfig.cmake cmake/tessra/tessraConfigVersion.cmake; do
        [[ -f $libdir/$file ]] || fail "no lib/$file"
    done
    if grep -rlF -e "$TESSRA_BUILD" -e "$source/" -e "$WORK" "$libdir"/{pkgconfig,cmake}; then
        fail "these files name a folder of the build"
    fi
    # libtessra.so finds a liblog beside it. Without one, it has no run path.
    run_path=$("$READELF" -d "$libdir/libtessra.so" | sed -nE 's/.*\((RPATH|RUNPATH)\).*\[(.*)\]/\2/p')
    expected=
    [[ ! -e $libdir/liblog.so ]] || expected='$ORIGIN'
    [[ $run_path == "$expected" ]] || fail "libtessra.so has the run path '$run_path'"
}

install_to() { "$CMAKE" --install "$TESSRA_BUILD" --prefix "$1" >"$WORK/install.log"; }

rm -rf "$WORK"
mkdir -p "$WORK"
case $1 in
    prefix)
        install_to "$WORK/first"
        mv "$WORK/first" "$WORK/moved"
        check_files "$WORK/moved"
        use_cmake "$WORK/moved"
        use_pkg_config "$WORK/moved/lib"
        ;;
    destdir)
        prefix=/opt/tessra-install-test
        DESTDIR=$WORK/stage install_to $prefix
        [[ ! -e $prefix ]] || fail "the installation left its DESTDIR"
        root=$WORK/stage$prefix
        check_files "$root"
        use_cmake "$root"
        use_pkg_config "$root/lib"
        # A cross build does so: the stage is the root of another file system.
        PKG_CONFIG_SYSROOT_DIR=$WORK/stage use_pkg_config "$root/lib"
        ;;
    subproject)
        use_cmake '' -DTESSRA_SOURCE="$source" -DTESSRA_INSTALL_LIBLOG=OFF
        TESSRA_BUILD=$WORK/cmake-C
        install_to "$WORK/device"
        check_files "$WORK/device"
        [[ -z $(find "$WORK/device" -name 'liblog*') ]] || fail "liblog was installed"
        # The device has its own liblog. Here this is the stand-in, in another folder.
        platform=$WORK/platform
        mkdir "$platform"
        mv "$WORK/cmake-C/tessra/platform/liblog"/liblog.* "$platform"
        use_cmake "$WORK/device" -DTESSRA_LIBLOG="$platform/liblog.so"
        ;;
    *) fail "no such part: $1" ;;
esac
echo "install: $1 ok"
