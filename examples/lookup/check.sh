#!/usr/bin/env bash
# Starts a name server on the loopback and compares the output of lookup with that of dig.
#
# Usage: check.sh [EMULATOR ARGUMENT...] PROGRAM
# Exits with status 77 if named or dig is missing.
set -u

lookup=("$@")
PATH=$PATH:/usr/sbin
for tool in named dig; do
    command -v $tool >/dev/null ||
        { echo "skipped: $tool is missing; run scripts/setup check" && exit 77; }
done
work=$(mktemp -d) || exit 2
server=
trap '[[ -z $server ]] || kill "$server"; wait; rm -rf "$work"' EXIT

cat >"$work/zone" <<'END'
$TTL 60
$ORIGIN example.test.
@       SOA ns admin 1 60 60 60 60
@       NS ns
ns      A 192.0.2.53
www     A 192.0.2.2
both    A 192.0.2.3
both    AAAA 2001:db8::3
six     AAAA 2001:db8::6
one     CNAME two.sub
two.sub CNAME three
three   CNAME both
away    CNAME www.elsewhere.test.
END

# start_server PORT: fails if the port is taken.
start_server() {
    cat >"$work/conf" <<END
options {
    directory "$work"; pid-file none; session-keyfile none; recursion no;
    listen-on port $1 { 127.0.0.1; }; listen-on-v6 { none; };
};
controls {};
zone "example.test" { type primary; file "$work/zone"; };
END
    named -g -n 1 -c "$work/conf" >"$work/log" 2>&1 &
    server=$!
    until grep -q ' running$' "$work/log"; do
        kill -0 "$server" 2>/dev/null || return 1
        sleep 0.05
    done
    ! grep -q 'address in use' "$work/log" || { stop_server && return 1; }
}
stop_server() {
    kill "$server"
    wait "$server"
    server=
}
for _ in {1..10}; do
    port=$((20000 + RANDOM % 12000))
    start_server $port && break
    server=
done
[[ -n $server ]] || { cat "$work/log" && exit 2; }

failed=0
# expect STATUS OUTPUT ARGUMENT...
expect() {
    local output status=0
    output=$("${lookup[@]}" "${@:3}" 127.0.0.1 "$port" 2>"$work/errors") || status=$?
    [[ $status == "$1" && $output == "$2" ]] && return
    echo "lookup ${*:3}: $status, '$output' instead of $1, '$2'; $(<"$work/errors")"
    failed=$((failed + 1))
}

# For a name in another case, this server writes owner names as labels. It refuses recursion
# (elsewhere).
for host in {www,WWW,both,six,one,ONE,away,sub,none}.example.test WWW.Example.Test x.elsewhere.test; do
    for type in A AAAA; do
        option=$([[ $type == A ]] && echo -4 || echo -6)
        dug=$(dig +tries=1 +noedns +noall +comments +answer -p "$port" @127.0.0.1 "$host" $type)
        address=$(awk -v type=$type '$4 == type { print $5; exit }' <<<"$dug")
        case $dug in
            *'status: NOERROR'*)
                expect $((${#address} == 0)) "${address:+$host $address}" "$option" "$host"
                ;;
            *'status: NXDOMAIN'* | *'status: REFUSED'*) expect 2 '' "$option" "$host" ;;
            *) echo "dig: $dug" && failed=$((failed + 1)) ;;
        esac
    done
done
expect 4 '' a..b
stop_server
expect 3 '' -w 20 www.example.test
exit $((failed != 0))
