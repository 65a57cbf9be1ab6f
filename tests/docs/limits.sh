#!/usr/bin/env bash
# Checks that the tests and models that the pages below name exist. A row without one proves nothing.
#
#   Suite.Name, Suite.*      a test, or all tests of a suite
#   faults/ROW               a row of tests/faults_test.cpp
#   NAME.pml, NAME_test, NAME_fuzz, soak     a model, a test program, a fuzz target, tests/soak.cpp
#
# Every row of a table needs one if the table has the column "Shown by" or begins with the column "Call".
set -euo pipefail
cd "$(dirname "$0")/../.."
pages=(docs/failures.md docs/limits.md docs/design.md CONTRIBUTING.md)
name='[A-Z][A-Za-z0-9]+\.([A-Z][A-Za-z0-9]+|\*)|faults/[a-z_]+|[a-z_]+\.pml|[a-z0-9_]+_(test|fuzz)\b|soak\b'

exists() {
    case $1 in
        faults/*) grep -qE "^ +\{\"${1#faults/}\"," tests/faults_test.cpp ;;
        *.pml) [[ -e models/$1 ]] ;;
        *_fuzz) [[ -e fuzz/$1.cpp ]] ;;
        *_test) [[ -e tests/$1.cpp || -e tests/$1.c ]] ;;
        soak) [[ -e tests/soak.cpp ]] ;;
        *.\*) grep -qE "TEST(_P)?\(${1%.*}, " tests/*_test.cpp ;;
        *) grep -qE "TEST(_P)?\(${1%.*}, ${1#*.}\)" tests/*_test.cpp ;;
    esac
}

status=0 names=0 rows=0
while read -r proof; do
    exists "$proof" || { echo "limits: $proof doesn't exist" >&2 && status=1; }
    names=$((names + 1))
done < <(grep -ohE "\b($name)" "${pages[@]}" | sort -u)

while IFS= read -r row; do
    grep -qE "\`($name)\`" <<<"$row" || { echo "limits: nothing is named: $row" >&2 && status=1; }
    rows=$((rows + 1))
done < <(awk '!/^\|/ { checked = 0; table = 0; next }
    !table { table = 1; checked = /\| Shown by \|$/ || /^\| Call \|/; next }
    checked && !/^\| ---/' "${pages[@]}")

((names > 0 && rows > 0 && status == 0)) && echo "limits: $names tests and models, $rows rows"
exit $status
