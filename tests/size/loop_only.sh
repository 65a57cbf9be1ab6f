#!/usr/bin/env bash
# Runs a daemon that uses the loop alone, and looks at its linker map for sections of other modules.
#
#   tests/size/loop_only.sh MAP PROGRAM...
set -euo pipefail
map=$1
shift
"$@" || { echo "loop_only: the daemon failed" >&2 && exit 1; }

# Prints module and size of each section of the archive that is in the program and isn't empty.
awk '
    /^Linker script and memory map/ { inside = 1 }
    !inside { next }
    /^ \.[^ ]+$/ { getline rest; $0 = $0 rest }
    /^ (\.(text|rodata|data|bss)|COMMON)/ && $3 != "0x0" && match($4, /libtessra\.a\([a-z0-9_]+/) {
        print substr($4, RSTART + 12, RLENGTH - 12), $3
    }' "$map" >"$map.kept"
# On the device the folder is one translation unit.
loop=" unity_eventloop_cxx at_fork recursive_mutex $(cd "$(dirname "$0")/../../src/eventloop" && echo *.cpp | sed 's/\.cpp//g') "
while read -r module size; do
    [[ $loop == *" $module "* ]] || { echo "loop_only: $size bytes of $module" >&2 && failed=1; }
done <"$map.kept"
grep -qE '^(loop|unity_eventloop_cxx) ' "$map.kept" || { echo "loop_only: not even the loop is in $map" >&2 && exit 1; }
[[ -z ${failed:-} ]] || exit 1
echo "loop_only: $(cut -d' ' -f1 "$map.kept" | sort -u | tr '\n' ' ')"
