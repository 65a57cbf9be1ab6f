#!/usr/bin/env bash
# Compiles every C snippet of a page as a program of its own, as a reader would who pastes it.
#
#   tests/install/snippets.sh COMPILER PAGE
set -euo pipefail
(($# == 2)) || { echo "usage: snippets.sh COMPILER PAGE" >&2 && exit 2; }
include=$(cd "$(dirname "$0")/../../include" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

awk -v to="$work/" '/^```c$/ { n++; file = to n ".c"; next } /^```/ { file = "" } file { print > file }' "$2"
count=0
for snippet in "$work"/*.c; do
    [[ -e $snippet ]] || { echo "snippets: none in $2" >&2 && exit 1; }
    "$1" -std=gnu11 -Wall -Wextra -Werror -I"$include" -c "$snippet" -o "$work/snippet.o"
    count=$((count + 1))
done
echo "snippets: $count of $2"
