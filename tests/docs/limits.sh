#!/usr/bin/env bash
# Looks for the tests that docs/limits.md names: a line without its test is a claim.
set -euo pipefail
cd "$(dirname "$0")/../.."
status=0 count=0
while IFS=. read -r suite name; do
    grep -qE "TEST(_P)?\($suite, $name\)" tests/*_test.cpp || { echo "limits: no test $suite.$name" >&2 && status=1; }
    count=$((count + 1))
done < <(grep -oE '`[A-Z][A-Za-z0-9]+\.[A-Z][A-Za-z0-9]+`' docs/limits.md | tr -d '`')
# Each row of the two tables names one.
rows=$(sed -n '/Seen by/,/^$/p' docs/limits.md | grep -vE 'Seen by|^\| ---|^$' || true)
if bare=$(grep -vE '`[A-Z][A-Za-z0-9]+\.[A-Z]' <<<"$rows"); then
    echo "limits: no test is named: $bare" >&2
    status=1
fi
((count > 0 && status == 0)) && echo "limits: $count tests"
exit $status
