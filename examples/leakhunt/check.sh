#!/usr/bin/env bash
# Runs leakhunt and checks that its reports name the two sites marked "leaks:" and no others.
#
# Usage: check.sh SOURCE COMMAND...
set -u
source=$1
shift
work=$(mktemp -d) || exit 2
trap 'rm -rf "$work"' EXIT

fail() {
    echo "check: $1" >&2
    sed 's/^/    /' "$work"/* >&2
    exit 1
}

sites=$(grep -n '/\* leaks:' "$source" | cut -d: -f1 | sort -rn | paste -sd ' ')

# The first two dumps list nothing, the others both sites, whose numbers grow. The daemon leaks four
# clients for each path.
"$@" 20 5 >"$work/five" || fail "five dumps: status $?"
awk -F '\t' -v sites="$sites" '
    BEGIN { split(sites, site, " ") }
    /^<7>allocation tree - start$/ { dump++; lines = 0; next }
    /^<7>allocation tree - end$/ { if (lines != (dump < 3 ? 0 : 2)) exit bad = 1; next }
    /^<7> \[\t[0-9]+\tallocations from .*main\.c\t[0-9]+\t\] $/ {
        if ($4 != site[++lines] || $2 <= count[lines]) exit bad = 1
        count[lines] = $2
        if (lines == 2 && count[1] != 4 * count[2]) exit bad = 1
        next
    }
    !/^[0-9]+ requests served, last for 10\.0\.0\.9$/ { exit bad = 1 }
    END { exit bad || dump != 5 }' "$work/five" || fail "five dumps: not the report of sites $sites"

# SIGTERM after the third dump.
coproc leakhunt { exec "$@" 20; }
pid=$leakhunt_PID dumps=0
while ((dumps < 3)) && read -r -t 60 line <&"${leakhunt[0]}"; do
    [[ $line == *' - end' ]] && dumps=$((dumps + 1))
done
kill -TERM "$pid"
wait "$pid" && ((dumps == 3)) || fail "SIGTERM after $dumps dumps: status $?"
echo "check: sites $sites from the third dump on, and a clean end"
