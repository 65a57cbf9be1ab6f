#!/usr/bin/env bash
# Compiles every C snippet of some pages or headers as a program of its own, as a reader who pastes it.
# If NATIVE is set and a library is installed, compiles a snippet's part for that library, too. A cross
# compiler has no such libraries.
#
#   tests/install/snippets.sh COMPILER PAGE...
set -euo pipefail
(($# >= 2)) || { echo "usage: snippets.sh COMPILER PAGE..." >&2 && exit 2; }
include=$(cd "$(dirname "$0")/../../include" && pwd)
compiler=$1
shift
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

for page in "$@"; do
    # A snippet keeps its line numbers, so that the compiler's messages lead to the page.
    awk -v to="$work/" -v page="$page" '
        page ~ /\.h$/ { sub(/^ \* ?/, "") }
        /^```c$/ { n++; file = to n ".c"; printf "#line %d \"%s\"\n", NR + 1, page > file; next }
        /^```/ { file = "" }
        file { print > file }' "$page"
    count=0
    for snippet in "$work"/*.c; do
        [[ -e $snippet ]] || { echo "snippets: none in $page" >&2 && exit 1; }
        "$compiler" -std=gnu11 -Wall -Wextra -Werror -I"$include" -c "$snippet" -o "$work/snippet.o"
        for other in libevent=WITH_LIBEVENT glib-2.0=WITH_GLIB; do
            [[ -n ${NATIVE:-} ]] && grep -q "ifdef ${other#*=}" "$snippet" && flags=$(pkg-config --cflags "${other%=*}" 2>/dev/null) ||
                continue
            "$compiler" -std=gnu11 -Wall -Wextra -Werror -D"${other#*=}" -I"$include" $flags -c "$snippet" \
                -o "$work/snippet.o"
        done
        rm "$snippet"
        count=$((count + 1))
    done
    echo "snippets: $count of $page"
done
