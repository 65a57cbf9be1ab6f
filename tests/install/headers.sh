#!/usr/bin/env bash
# Compiles each public header alone: as strict C11 with C compilers, as C++17 with C++ compilers.
#
#   tests/install/headers.sh COMPILER...     e.g. gcc g++; with CFLAGS and CXXFLAGS, if they are set
set -euo pipefail
cd "$(dirname "$0")/../../include"
(($# > 0)) || { echo "usage: headers.sh COMPILER..." >&2 && exit 2; }

warnings=(-Wall -Wextra -Wpedantic -Wconversion -Wshadow -Wundef -Werror)
count=0
for compiler in "$@"; do
    case $compiler in
        *++*) language=(-x c++ -std=c++17 -Wnon-virtual-dtor -Wzero-as-null-pointer-constant
            ${CXXFLAGS:-}) ;;
        *) language=(-x c -std=c11 -Wstrict-prototypes ${CFLAGS:-}) ;;
    esac
    # Only glibc declares the types of the headers to a program that asks for ISO C alone.
    if printf '#include <limits.h>\n' | "$compiler" "${language[@]}" -dM -E - |
        awk '/__GLIBC__/ { glibc = 1 } /__UCLIBC__/ { other = 1 } END { exit glibc && !other }'; then
        language+=(-D_GNU_SOURCE)
    fi
    for header in tessra/*.h; do
        # Includes it twice, since a header must guard itself.
        printf '#include <%s>\n#include <%s>\n' "$header" "$header" |
            "$compiler" "${language[@]}" "${warnings[@]}" -I. -fsyntax-only - ||
            { echo "headers: $header doesn't stand alone with $compiler" >&2 && exit 1; }
        count=$((count + 1))
    done
done
echo "headers: $count compilations of $(ls tessra/*.h | wc -l) headers with $*"
