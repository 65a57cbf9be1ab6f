#!/usr/bin/env bash
# Builds the reference, installs it, and asks man for the page of each exported name.
#
#   tests/docs/manpages.sh CMAKE BUILD_DIR WORK_DIR
set -euo pipefail
cmake=$1 build=$2 work=$3
cd "$(dirname "$0")/../.."
rm -rf "$work"
mkdir -p "$work"
unset DESTDIR
fail() { echo "manpages: $*" >&2 && exit 1; }

"$cmake" --build "$build" --target docs >"$work/log" 2>&1 || { cat "$work/log" && fail "make docs"; }
"$cmake" --install "$build" --prefix "$work" >"$work/log"
[[ -s $work/share/doc/tessra/html/index.html ]] || fail "no pages to browse are installed"

# man formats a page, and prints to standard error what it doesn't understand.
export MANPATH=$work/share/man MANWIDTH=100 MANROFFOPT=-ww LC_ALL=C.UTF-8
count=0
while read -r name; do
    man 3 "$name" >"$work/page" 2>"$work/complaints" || fail "no page for $name"
    [[ ! -s $work/complaints ]] || { cat "$work/complaints" && fail "page of $name"; }
    # NAME, SYNOPSIS and a DESCRIPTION that isn't empty.
    grep -q "^ .*\b$name(\|^ .*\b$name[;[]" "$work/page" || fail "no declaration of $name in its page"
    grep -A1 '^DESCRIPTION' "$work/page" | grep -q '^ .*[a-z]' || fail "nothing is said of $name"
    count=$((count + 1))
done < <(sed -n '/global:/,/local:/s/^ *\([A-Za-z_0-9]*\);$/\1/p' src/tessra.map)
((count > 100)) || fail "only $count names in src/tessra.map"

# If a function's comment refers to another function, its page has that function's contract.
for expected in 'event_timer_add Arms a new timer' 'event_timer_add never early' \
    'event_fd_del delete before you close' 'BT_keys new list of all data' \
    'regionIsLocked open for reading for F_RDLCK' 'base64_encode_alloc must not overlap'; do
    man 3 "${expected%% *}" | tr -s ' \n' '  ' | grep -qF "${expected#* }" || fail "lost: $expected"
done
for page in "$work"/share/man/man7/*; do
    man -l "$page" 2>"$work/complaints" >"$work/page"
    [[ ! -s $work/complaints && $(wc -l <"$work/page") -gt 20 ]] || fail "$page"
done
grep -q 'WHAT HOLDS EVERYWHERE' <(man 7 tessra) || fail "no overview"
echo "manpages: $count names"
