#!/usr/bin/env bash
# Sends requests to the built daemon as its clients do, shows its answers and checks each of them.
#
# Usage: demo.sh BUILD_DIR
# Exits with status 0 if all answers were right, 1 if some were not, 2 if it couldn't start.
# Needs bash, curl, unzip and python3. If there is a DNS server (BIND), the daemon asks it, too.
set -u

readonly idle_ms=800
readonly limit_s=20  # The limit of each wait. Unless something is broken, no event takes so long.
work=$(mktemp -d) || exit 2
readonly work log=$work/log tree=$work/tree here=${0%/*}
export PATH=$here/../../platform/tools:$PATH:/usr/sbin TESSRA_NRV_ENV=$work/variables
pid=
helper=     # The process id of the name server that runs.
account=()  # The arguments with which get has the right credentials.
port=
failures=0
checks=0

cleanup() {
    [ -z "$pid" ] || kill -KILL "$pid" 2>/dev/null
    [ -z "$helper" ] || kill "$helper" 2>/dev/null
    rm -rf "$work"
}
trap cleanup EXIT

give_up() {
    echo "demo: $1" >&2
    [ ! -s "$log" ] || sed 's/^/    log: /' "$log" >&2
    exit 2
}

# --- The format of the transcript ---

title() { printf '\n== %s ==\n' "$1"; }
show() { printf '$ %s\n' "$1" | cut -c 1-100; }
indent() { head -n 24 <<<"$1" | tr -d '\r' | cut -c 1-100 | sed 's/^/    /'; }

# pass_if TEXT COMMAND...: one check, which passes if the command succeeds.
pass_if() {
    local text=$1
    shift
    checks=$((checks + 1))
    if "$@"; then
        echo "  ok: $text"
    else
        echo "  DIFFERS: $text"
        failures=$((failures + 1))
    fi
}

matches() { grep -Eq -- "$2" <<<"$1"; }
lacks() { ! grep -Eq -- "$2" <<<"$1"; }

# wait_until COMMAND...: polls until the command succeeds. Fails after the limit.
wait_until() {
    local end=$((SECONDS + limit_s))
    until "$@"; do
        [ "$SECONDS" -lt "$end" ] || return 1
        sleep 0.05
    done
}

# --- Ways to talk to the daemon ---

# ask ARGUMENT... PATH: stores the response that curl gets, including its head, in $answer.
ask() {
    local path=${*: -1}
    show "curl ${*:1:$#-1}${2:+ }http://127.0.0.1:$port$path"
    answer=$(curl -sSi --max-time "$limit_s" "${@:1:$#-1}" "http://127.0.0.1:$port$path" 2>&1)
    indent "$answer"
}

# get PATH: writes only the body to stdout, and nothing to the transcript.
get() { curl -s "${account[@]}" --max-time "$limit_s" "http://127.0.0.1:$port$1"; }

# status_has REGEX: succeeds if a line of /status matches.
status_has() { get /status | grep -Eq -- "$1"; }

# connect: opens a new connection and stores its descriptor in $link.
connect() { exec {link}<>"/dev/tcp/127.0.0.1/$port" || give_up "cannot connect"; }

# raw TEXT: sends exactly these bytes (a printf format). Stores the whole answer in $answer, and
# writes its first line to the transcript.
raw() {
    show "printf '$1' >/dev/tcp/127.0.0.1/$port"
    connect
    # shellcheck disable=SC2059 # The text is a format, because of its escapes.
    printf "$1" >&"$link"
    read_link
    indent "$(head -n 1 <<<"$answer")"
}

# read_link: reads $link to its end and closes it.
read_link() {
    answer=$(timeout "$limit_s" cat <&"$link")
    exec {link}>&-
}

# fetch FILE ARGUMENT...: stores the bundle in FILE, its head in FILE.head, curl's status in $code.
fetch() {
    show "curl ${*:2}${2:+ }-o $1 http://127.0.0.1:$port/bundle.zip"
    answer=$(curl -sS --max-time "$limit_s" -D "$work/$1.head" -o "$work/$1" "${@:2}" \
        "http://127.0.0.1:$port/bundle.zip" 2>&1)
    code=$?
    indent "$(cat "$work/$1.head")${answer:+$'\n'$answer}"
}

# begin_bundle REMARK: asks for the bundle on $link and reads only the first line of its head.
begin_bundle() {
    show "printf 'GET /bundle.zip ...' >/dev/tcp/127.0.0.1/$port # $1"
    connect
    printf 'GET /bundle.zip HTTP/1.0\r\n\r\n' >&"$link"
    read -r -t "$limit_s" answer <&"$link"
    pass_if "begun" matches "$answer" '^HTTP/1.0 200'
}

# read_bundle FILE: stores the rest of head and body from $link, in the files that fetch makes.
read_bundle() {
    timeout "$limit_s" cat <&"$link" >"$work/raw"
    exec {link}>&-
    LC_ALL=C sed '/^\r$/q' "$work/raw" >"$work/$1.head"
    LC_ALL=C sed '1,/^\r$/d' "$work/raw" >"$work/$1"
}

announced() { tr -d '\r' <"$work/$1.head" | sed -n 's/^Content-Length: //p'; }
size_of() { stat -c %s "$work/$1"; }

now_ms() { echo $((${EPOCHREALTIME/[.,]/} / 1000)); }

# --- Start and stop of the daemon ---

port_line() { grep -Eo '^listening on 127\.0\.0\.1:[0-9]+$' "$work/out"; }
started() { port_line >/dev/null || ! kill -0 "$pid" 2>/dev/null; }

# start ARGUMENT...: starts the daemon and waits until it listens.
start() {
    show "bundled $* &"
    : >"$work/out"
    "$daemon" "$@" >"$work/out" 2>>"$log" &
    pid=$!
    wait_until started || give_up "the daemon said nothing"
    port=$(port_line) || give_up "the daemon did not start"
    port=${port##*:}
    indent "$(port_line)"
}

# stop SIGNAL: terminates the daemon and stores its exit status in $code.
stop() {
    show "kill -$1 \$!; wait"
    kill "-$1" "$pid"
    wait_until has_ended || give_up "the daemon does not end"
    wait "$pid"
    code=$?
    pid=
    indent "exit status $code"
}

# A zombie has ended, too: its parent has not yet waited for it.
has_ended() { ! grep -q '^State:[[:space:]]*[^Z]' "/proc/$pid/status" 2>/dev/null; }

# children: writes the process ids of the daemon's children.
children() { grep -ls "^PPid:[[:space:]]*$pid\$" /proc/[0-9]*/status | tr -dc '0-9\n'; }

write_config() {
    cat >"$work/config" <<END
# Written by demo.sh.
greeting = $1
idle-ms = $idle_ms
run-bytes = 1000000
command.hello = echo hello
command.fail = echo 'no such luck' >&2; exit 3
command.descriptors = cd /proc/self/fd && echo *
command.nap = sleep 0.3; echo rested
command.big = head -c 900000 /dev/zero | tr '\\0' x
command.flood = yes
command.long = echo \$\$ >$work/long.pid; exec sleep 60
${2:-}
END
}

# --- The scenes ---

# refuses_to_start REGEX ARGUMENT...: the daemon exits at once with status 1 and a matching line.
refuses_to_start() {
    show "bundled ${*:2}"
    answer=$(timeout "$limit_s" "$daemon" "${@:2}" 2>&1)
    code=$?
    indent "$(head -n 2 <<<"$answer")"
    pass_if "status 1, and why" test "$code" = 1 -a -n "$(grep -Ex -- "$1" <<<"$answer")"
}

starts_once() {
    title "Start"
    echo 'hw_rev=7.3' >"$TESSRA_NRV_ENV"
    echo 'sense = none' >"$work/senseless"
    start --port 0 --config "$work/config" --pid-file "$work/pid"
    pass_if "PID file" test "$(cat "$work/pid")" = "$pid"
    local reason arguments
    while IFS=$'\t' read -r reason arguments; do
        # shellcheck disable=SC2086 # Several arguments.
        refuses_to_start "$reason" $arguments
    done <<TABLE
ERROR: PID file '$work/pid' is locked; probably 'bundled' is already running	--port 0 --pid-file $work/pid
ERROR \[ENOENT No such file or directory\] .*	--pid-file $work/none/pid
ERROR \[EADDRINUSE .*\] cannot listen on port $port	--port $port
ERROR: configuration $work/senseless refused: line 1 is .*	--config $work/senseless
ERROR: configuration $work/none refused: No such file .*	--config $work/none
Usage: bundled .*	--nonsense
Command-line usage error: '70000' isn't a number .*	--port 70000
Command-line usage error: unexpected argument 'now'	now
TABLE
    ask /status
    pass_if "the first one serves on" matches "$answer" '^hardware revision: 7\.3$'
    stop TERM
    TESSRA_NRV_ENV='' start --port 0 --config "$work/config" --pid-file "$work/pid"
    pass_if "its PID file is taken over" test "$(cat "$work/pid")" = "$pid"
    pass_if "no revision without the variable" status_has '^hardware revision: unknown$'
    stop TERM
}

serves_its_pages() {
    title "Pages"
    ask /
    pass_if "greeting shown" matches "$answer" '^Good morning'
    pass_if "length and close announced" matches "$answer" '^Content-Length: [0-9]+'
    pass_if "connection closed" matches "$answer" '^Connection: close'
    wait_until status_has '^status line: .*UTC, up [0-9]+ s$'
    ask /status
    pass_if "counts connections" matches "$answer" '^connections served: [1-9]'
    pass_if "only this one open" matches "$answer" '^open connections: 1$'
    pass_if "status line refreshed in the background" matches "$answer" '^status line: .*UTC, up'
    ask --http1.0 /status
    pass_if "HTTP/1.0 as well" matches "$answer" '^HTTP/1.0 200'
    ask --head /status
    pass_if "HEAD announces a length" matches "$answer" '^Content-Length: [1-9]'
    pass_if "HEAD has no body" lacks "$answer" '^uptime'
}

runs_commands() {
    title "Commands"
    ask '/run?hello'
    pass_if "output and exit status" matches "$(tail -n 2 <<<"$answer" | tr '\n' ' ')" \
        '^hello exit status 0 $'
    ask '/run?fail'
    pass_if "stderr and another status" matches "$answer" '^no such luck$'
    pass_if "exit status told" matches "$answer" '^exit status 3$'
    ask '/run?descriptors'
    pass_if "none of the daemon's descriptors" matches "$answer" '^0 1 2( 3)?$'
    ask '/run?unheard-of'
    pass_if "404 for a command that isn't listed" matches "$answer" '^HTTP/1.0 404'
    show "curl http://127.0.0.1:$port/run?big | head -n 1 | wc -c"
    answer=$(get '/run?big' | head -n 1 | wc -c)
    indent "$answer"
    pass_if "900000 bytes came whole" test "$answer" -eq 900001
    show "curl http://127.0.0.1:$port/run?flood | tail -n 2"
    answer=$(get '/run?flood' | tail -n 2)
    indent "$answer"
    pass_if "endless output cut" matches "$answer" '^\(cut after 1000000 bytes\)$'
    pass_if "and its command killed" matches "$answer" '^signal 9$'
}

refuses_bad_requests() {
    title "Bad requests"
    ask /nowhere
    pass_if "unknown path" matches "$answer" '^HTTP/1.0 404'
    ask '/resolve?name=www.example.test'
    pass_if "no name server" matches "$answer" '^HTTP/1.0 404'
    ask -X DELETE /status
    pass_if "wrong method" matches "$answer" '^HTTP/1.0 405'
    pass_if "allowed methods named" matches "$answer" '^Allow: GET, HEAD'
    ask -X GET --data some-text /status
    pass_if "a body" matches "$answer" '^HTTP/1.0 413'
    ask -H "X-Long: $(printf 'x%.0s' {1..9000})" /status
    pass_if "header too long" matches "$answer" '^HTTP/1.0 431'
    ask "/$(printf 'x%.0s' {1..2000})"
    pass_if "request line too long" matches "$answer" '^HTTP/1.0 414'

    local text status
    while IFS=$'\t' read -r status text; do
        raw "$text"
        pass_if "$status" matches "$answer" "^HTTP/1.0 $status"
    done <<'TABLE'
400	GARBAGE\r\n\r\n
400	GET /status\r\n\r\n
400	GET status HTTP/1.0\r\n\r\n
400	GET /a b HTTP/1.0\r\n\r\n
400	GET /status HTTP/1.0\r\nno colon here\r\n\r\n
400	GET /status HTTP/1.0\r\nA\0B: c\r\n\r\n
400	GET /status HTTP/1.0\r\nContent-Length: -1\r\n\r\n
505	GET /status HTTP/2.0\r\n\r\n
200	\r\nGET /status HTTP/1.1\nHost: me\n\n
200	GET http://localhost/status HTTP/1.1\r\nHost: localhost\r\n\r\n
TABLE
}

asks_for_credentials() {
    title "Credentials"
    local status field
    account=(-u 'user:pass:word')
    write_config "Good morning" "credentials = ${account[1]}"
    start --port 0 --config "$work/config"
    ask /
    pass_if "the greeting is for all" matches "$answer" '^HTTP/1.0 200'
    ask /status
    pass_if "401 without" matches "$answer" '^HTTP/1.0 401'
    pass_if "says what it wants" matches "$answer" '^WWW-Authenticate: Basic realm="bundled"'
    ask "${account[@]}" /status
    pass_if "200 with" matches "$answer" '^HTTP/1.0 200'
    while IFS=$'\t' read -r status field; do
        raw "GET /status HTTP/1.0\r\n$field\r\n\r\n"
        pass_if "$status" matches "$answer" "^HTTP/1.0 $status"
    done <<TABLE
200	authorization:  basic   $(printf user:pass:word | base64)
401	Authorization: Basic $(printf user:pass:worD | base64)
401	Authorization: Basic $(printf user:pass:wor | base64)
401	Authorization: Basic $(printf user:pass:words | base64)
401	Authorization: Basic $(printf user:pass:word%.0s 1 2 | base64)
401	Authorization: Basic $(printf user:pass:word | base64)=
401	Authorization: Basic $(printf user:pass:word | base64 | cut -c 1-18)
401	Authorization: Basic *not*Base64*
401	Authorization: Basic ====
401	Authorization: Basic
401	Authorization: Bearer $(printf user:pass:word | base64)
400	Authorization: Basic dTpw\r\nAuthorization: Basic dTpw
TABLE
    stop TERM
    account=()
}

# A name server whose replies depend on the first label. It prints the label and id of each query.
write_responder() {
    cat >"$work/responder.py" <<'END'
import collections, socket, struct
server, stranger = (socket.socket(socket.AF_INET, socket.SOCK_DGRAM) for _ in range(2))
server.bind(("127.0.0.1", 0))
print(server.getsockname()[1], flush=True)
seen, together = collections.Counter(), {}
while True:
    query, client = server.recvfrom(512)

    def reply(address=None, flags=0x8180, other_id=0, question=query[12:]):
        header = bytes([query[0], query[1] ^ other_id])
        header += struct.pack(">5H", flags, 1, bool(address), 0, 0)
        record = b"\xc0\x0c" + struct.pack(">HHIH", 1, 1, 60, 4)
        return header + question + (record + socket.inet_aton(address) if address else b"")

    label = query[13:13 + query[12]].decode()
    seen[label] += 1
    print(label, query[:2].hex(), flush=True)
    replies = [reply("192.0.2.1")]
    if label == "forged":
        wrong = "192.0.2.66"
        stranger.sendto(reply(wrong), client)
        other_name = query[12:].replace(b"forged", b"forget")
        replies[:0] = [reply(wrong, other_id=1), reply(wrong, question=other_name),
                       reply(wrong, flags=0x0100), reply(wrong)[:20], b""]
    elif label.startswith("together"):
        together[label] = replies[0], client
        for late in together.values() if len(together) == 3 else ():
            server.sendto(*late)
        continue
    elif label == "silent" or label == "dropped" and seen[label] == 1:
        continue
    codes = {"gone": 0x8183, "empty": 0x8180, "broken": 0x8182, "short": 0x8380}
    if label in codes:
        replies = [reply(flags=codes[label])]
    for one in replies:
        server.sendto(one, client)
END
}

# resolves: asks for each name of the table on stdin and compares status and text.
resolves() {
    local name status text
    while IFS=$'\t' read -r name status text; do
        ask "/resolve?name=$name"
        pass_if "$name: $status $text" matches "$(tr -d '\r' <<<"$answer" | tr '\n' ' ')" \
            "^HTTP/1.0 $status .*[ ]$text \$"
    done
}

# hold_lookup: asks on $link for a name that gets no reply.
hold_lookup() {
    connect
    printf 'GET /resolve?name=silent.test HTTP/1.0\r\n\r\n' >&"$link"
}

looks_names_up() {
    title "Names"
    local asked=$work/asked settings i jobs=() links=()
    write_responder
    python3 "$work/responder.py" >"$asked" &
    helper=$!
    wait_until test -s "$asked" || give_up "no responder"
    settings="dns-server = 127.0.0.1 $(head -n 1 "$asked")"$'\ndns-wait-ms = '
    write_config "Good morning" "${settings}200"
    start --port 0 --config "$work/config"
    resolves <<TABLE
plain.test	200	192.0.2.1
plain.test.	200	192.0.2.1
dropped.test	200	192.0.2.1
forged.test	200	192.0.2.1
gone.test	200	no such name
empty.test	200	no address
broken.test	502	the server reports an error
short.test	502	the reply was cut short
silent.test	504	no reply
.	400	no valid name
a..test	400	no valid name
a%20b.test	400	no valid name
$(printf 'x%.0s' {1..64}).test	400	no valid name
$(printf 'x.%.0s' {1..127})x	400	no valid name
TABLE
    pass_if "asked again after a lost reply" test "$(grep -c ^dropped "$asked")" -ge 2
    pass_if "three tries" test "$(grep -c ^silent "$asked")" -eq 3
    pass_if "each with an id of its own" test "$(grep ^silent "$asked" | sort -u | wc -l)" -ge 2

    write_config "Good morning" "${settings}60000"
    show "kill -HUP \$! # with a minute for each reply"
    kill -HUP "$pid"
    pass_if "seen" wait_until status_has '^reloads: 1$'
    show "curl http://127.0.0.1:$port/resolve?name=together1.test & # 2 and 3, too; answered as one"
    for i in 1 2 3; do
        get "/resolve?name=together$i.test" >"$work/together$i" &
        jobs+=($!)
    done
    wait "${jobs[@]}"
    pass_if "three at once" test "$(grep -lx 192.0.2.1 "$work"/together? | wc -l)" -eq 3
    show "printf 'GET /resolve?name=silent.test ...' >/dev/tcp/127.0.0.1/$port # sixteen times"
    for i in {1..16}; do
        hold_lookup
        links+=("$link")
    done
    pass_if "under way" wait_until status_has '^lookups running: 16$'
    resolves <<<"plain.test"$'\t'"503"$'\t'"try again later"
    for link in "${links[@]}"; do exec {link}>&-; done
    pass_if "all gone with their clients" wait_until status_has '^lookups running: 0$'
    hold_lookup
    pass_if "one more" wait_until status_has '^lookups running: 1$'
    stop TERM
    pass_if "doesn't hold up the end" test "$code" -eq 0
    exec {link}>&-
    end_helper
}

end_helper() {
    kill "$helper"
    wait "$helper" 2>/dev/null
    helper=
}

# start_named PORT: fails if the port is taken.
start_named() {
    cat >"$work/named.conf" <<END
options {
    directory "$work"; pid-file none; session-keyfile none; recursion no;
    listen-on port $1 { 127.0.0.1; }; listen-on-v6 { none; };
};
controls {};
zone "example.test" { type primary; file "$work/zone"; };
END
    named -g -n 1 -c "$work/named.conf" >"$work/named.log" 2>&1 &
    helper=$!
    wait_until grep -q -e ' running$' -e exiting "$work/named.log"
    ! grep -q -e 'address in use' -e exiting "$work/named.log" || { end_helper && return 1; }
}

asks_a_real_server() {
    title "Names, by a real server"
    if ! command -v named >/dev/null; then
        echo "  SKIPPED: named is missing; scripts/setup demo installs it"
        return
    fi
    cat >"$work/zone" <<'END'
$TTL 60
$ORIGIN example.test.
@       SOA ns admin 1 60 60 60 60
@       NS ns
ns      A 192.0.2.53
www     A 192.0.2.2
six     AAAA 2001:db8::6
one     CNAME two.sub
two.sub CNAME www
END
    local dns_port i
    for i in {1..10}; do
        dns_port=$((20000 + RANDOM % 12000))
        start_named "$dns_port" && break
    done
    [ -n "$helper" ] || give_up "named does not start: $(tail -n 3 "$work/named.log")"
    write_config "Good morning" "dns-server = 127.0.0.1 $dns_port"
    start --port 0 --config "$work/config"
    resolves <<'TABLE'
www.example.test	200	192.0.2.2
WWW.Example.Test	200	192.0.2.2
one.example.test	200	192.0.2.2
six.example.test	200	no address
none.example.test	200	no such name
www.elsewhere.test	502	the server reports an error
TABLE
    stop TERM
    end_helper
}

bears_slow_clients() {
    title "Slow clients"
    show "# one connection says nothing, one sends half a request, eight more are served meanwhile"
    local begin
    begin=$(now_ms)
    connect
    local silent=$link
    connect
    local half=$link
    printf 'GET /sta' >&"$half"
    show "curl http://127.0.0.1:$port/run?nap & # eight times"
    local i jobs=()
    for i in {1..8}; do
        get '/run?nap' >"$work/nap.$i" &
        jobs+=($!)
    done
    wait "${jobs[@]}"
    pass_if "all eight answered" test "$(grep -lx rested "$work"/nap.* | wc -l)" -eq 8
    pass_if "and not one after another" test $(($(now_ms) - begin)) -lt 2400
    link=$silent
    read_link
    indent "$answer"
    pass_if "408 for the silent one" matches "$answer" '^HTTP/1.0 408'
    pass_if "not before its time" test $(($(now_ms) - begin)) -ge $((idle_ms - 5))
    link=$half
    read_link
    pass_if "408 for the half request" matches "$answer" '^HTTP/1.0 408'

    show "curl --limit-rate 500K http://127.0.0.1:$port/run?big | head -n 1 | wc -c"
    answer=$(curl -s --limit-rate 500K "http://127.0.0.1:$port/run?big" | head -n 1 | wc -c)
    indent "$answer"
    pass_if "whole, though it took longer than the idle time" test "$answer" -eq 900001
    show "printf 'GET /run?big ...' >/dev/tcp/127.0.0.1/$port # a reader that stops now and then"
    connect
    printf 'GET /run?big HTTP/1.0\r\n\r\n' >&"$link"
    for i in {1..10}; do
        head -c 85000 <&"$link"
        sleep 0.2
    done >"$work/slow"
    read_link
    answer=$(cat "$work/slow" - <<<"$answer" | grep -a '^xx' | wc -c)
    indent "$answer"
    pass_if "whole, too" test "$answer" -eq 900001
    show "printf 'GET /run?big ...' >/dev/tcp/127.0.0.1/$port # a reader that has stopped for good"
    connect
    printf 'GET /run?big HTTP/1.0\r\n\r\n' >&"$link"
    pass_if "dropped" wait_until status_has '^connections timed out: 3$'
    exec {link}>&-

    show "curl --max-time 0.3 http://127.0.0.1:$port/run?long # a client that goes away"
    curl -s --max-time 0.3 "http://127.0.0.1:$port/run?long"
    pass_if "its command is gone, too" wait_until status_has '^children running: 0$'
    pass_if "no connection is left" wait_until status_has '^open connections: 1$'
}

bears_many_requests() {
    title "Many requests"
    show "curl 'http://127.0.0.1:$port/?[1-200]' | grep -c Good"
    answer=$(get '/?[1-200]' | grep -c '^Good morning')
    indent "$answer"
    pass_if "200 answers" test "$answer" -eq 200
}

reloads() {
    title "Reload"
    write_config "Good evening" "command.new = echo new"
    show "kill -HUP \$! # with another greeting and a new command"
    kill -HUP "$pid"
    pass_if "seen" wait_until status_has '^reloads: 1$'
    ask /
    pass_if "new greeting" matches "$answer" '^Good evening'
    ask '/run?new'
    pass_if "new command" matches "$answer" '^new$'

    write_config "Good night" "idle-ms = soon"
    show "kill -HUP \$! # with a line that makes no sense"
    kill -HUP "$pid"
    pass_if "seen" wait_until status_has '^reloads refused: 1$'
    indent "$(tail -n 1 "$log")"
    pass_if "reason logged" matches "$(cat "$log")" 'refused: line [0-9]+ is not a valid setting'
    ask /
    pass_if "the old greeting stands" matches "$answer" '^Good evening'
}

# Makes files that archives can get wrong. Entries are sent in the order of their bytes, so the last
# one is "zz last".
make_tree() {
    mkdir -p "$tree/headers" "$tree/empty folder"
    truncate -s 40M "$tree/big and sparse"
    : >"$tree/empty file"
    cp -rL /usr/include/{asm-generic,net,netinet} "$tree/headers"
    echo text | tee "$tree/zz last" "$tree/Grüße, 世界.txt" >"$tree/"$'not UTF-8 \xff'
    head -c 70000 /dev/urandom >"$tree/noise"
    ln -s .. "$tree/circle"
}

# holds_tree FILE: succeeds if the archive has the files on the disk, byte for byte, and no others.
holds_tree() {
    unzip -tq "$work/$1" >>"$log" 2>&1 && python3 - "$work/$1" "$work" <<'END'
import os, sys, zipfile
os.chdir(sys.argv[2])
disk = {}
for folder, _, files in os.walk(b"tree"):
    disk[folder + b"/"] = b""
    for path in (os.path.join(folder, name) for name in files):
        with open(path, "rb") as file:
            disk[path] = file.read()
with zipfile.ZipFile(sys.argv[1]) as archive:
    entries = [(item.filename.encode("cp437"), archive.read(item)) for item in archive.infolist()]
sys.exit(len(entries) != len(disk) or dict(entries) != disk)
END
}

# reload_bundle LINES: reloads with these lines for the bundle.
reload_bundle() {
    write_config "Good morning" "bundle-base = $work"$'\n'"$1"
    show "kill -HUP \$! # with ${1//$'\n'/, }"
    reloads=$((reloads + 1))
    kill -HUP "$pid"
    pass_if "seen" wait_until status_has "^reloads: $reloads$"
}

sends_bundles() {
    title "Bundles"
    local reloads=0 patient=$'bundle = tree\nbundle-streams = 1\nidle-ms = 20000' round child
    make_tree
    start --port 0 --config "$work/config"
    ask /bundle.zip
    pass_if "404 as long as none is configured" matches "$answer" '^HTTP/1.0 404'
    reload_bundle "$patient"
    for round in 1 2; do
        fetch "$round.zip"
        pass_if "length as announced" test "$(size_of $round.zip)" = "$(announced $round.zip)"
        pass_if "every file whole, links left out" holds_tree "$round.zip"
    done
    pass_if "both times the same" cmp -s "$work/1.zip" "$work/2.zip"
    ask --head /bundle.zip
    pass_if "HEAD tells the length" matches "$answer" "^Content-Length: $(announced 1.zip)"

    begin_bundle "a reader that stops"
    ask '/run?hello'
    pass_if "others are served meanwhile" matches "$answer" '^hello'
    ask /bundle.zip
    pass_if "503 for one bundle more than allowed" matches "$answer" '^HTTP/1.0 503'
    pass_if "and still under way" status_has '^bundles running: 1$'
    child=$(children)
    show "kill -HUP CHILD; kill -TERM CHILD; kill -USR1 \$! CHILD # again and again"
    pass_if "signals reach its child" kill -HUP "$child"
    while kill -HUP "$child" && kill -TERM "$child" && kill -USR1 "$pid" "$child"; do
        sleep 0.01
    done 2>/dev/null &
    read_bundle slow.zip
    wait "$!"
    pass_if "whole all the same" cmp -s "$work/1.zip" "$work/slow.zip"
    fetch limited.zip --limit-rate 30M
    pass_if "whole for a slow client" cmp -s "$work/1.zip" "$work/limited.zip"
    pass_if "all counted" wait_until status_has '^bundles sent: 4$'

    while IFS=$'\t' read -r change reason; do
        begin_bundle "meanwhile: $change"
        (cd "$tree" && eval "$change")
        read_bundle short.zip
        pass_if "ended short" test "$(size_of short.zip)" -lt "$(announced short.zip)"
        pass_if "reason logged" matches "$(cat "$log")" "bundle: cut short: $reason"
        fetch next.zip
        pass_if "the next one is whole" holds_tree next.zip
    done <<'TABLE'
truncate -s 1 'zz last'	a file has shrunk
rm 'zz last'	No such file
TABLE
    pass_if "counted" status_has '^bundles cut short: 2$'

    begin_bundle "a client that goes away"
    exec {link}>&-
    pass_if "its child is gone, too" wait_until status_has '^bundles running: 0$'
    reload_bundle "bundle = tree"
    begin_bundle "a reader that has stopped for good"
    pass_if "dropped" wait_until status_has '^connections timed out: 1$'
    exec {link}>&-
    pass_if "both counted" status_has '^bundles abandoned: 2$'

    reload_bundle $'bundle = tree/noise\nbundle = tree/headers/net'
    fetch small.zip
    answer=$(unzip -Z1 "$work/small.zip")
    indent "$answer"
    pass_if "the new list counts" matches "$(head -n 1 <<<"$answer")" '^tree/headers/net/$'
    pass_if "with nothing else" lacks "$answer" '^tree/(big|empty|zz|headers/asm)'
    reload_bundle $'bundle = tree/noise\nbundle = tree/gone'
    ask /bundle.zip
    pass_if "503 for a name that is missing" matches "$answer" '^HTTP/1.0 503'
    pass_if "reason logged" matches "$(cat "$log")" 'refused, .*/tree/gone: No such file'

    reload_bundle "$patient"
    begin_bundle "a reader that stops"
    child=$(children)
    pass_if "its child runs" test -e "/proc/$child"
    stop TERM
    pass_if "and goes with the daemon" test ! -e "/proc/$child"
    exec {link}>&-
}

ends_cleanly() {
    title "End"
    rm -f "$work/long.pid"
    get '/run?long' >/dev/null &
    local client=$!
    wait_until test -s "$work/long.pid"
    stop TERM
    pass_if "SIGTERM ends it with status 0" test "$code" -eq 0
    pass_if "a running command goes with it" test ! -e "/proc/$(cat "$work/long.pid")"
    wait "$client"
    start --port 0
    stop INT
    pass_if "SIGINT as well" test "$code" -eq 0
}

# Writes a "date" for the background task. Once the command "overtaken" waits for it, this "date"
# exits only after that command. So the command exits while the background task blocks the loop.
write_slow_date() {
    mkdir "$work/bin"
    cat >"$work/bin/date" <<END
#!/bin/sh
cd $work
if [ -e waits ] && [ ! -e begun ]; then
    touch begun
    for i in \$(seq 200); do [ -e ended ] || sleep 0.05; done
    sleep 0.2
fi
exec /bin/date "\$@"
END
    chmod +x "$work/bin/date"
}

notices_every_end() {
    title "A command that ends while the background task runs"
    write_slow_date
    local wait_for_task="until [ -e begun ]; do sleep 0.02; done"
    write_config "Good morning" \
        "command.overtaken = cd $work; touch waits; $wait_for_task; touch ended; echo over"
    PATH=$work/bin:$PATH start --port 0 --config "$work/config" --status-delay 1
    show "curl http://127.0.0.1:$port/run?overtaken &"
    get '/run?overtaken' >"$work/overtaken" &
    local client=$!
    wait_until test -e "$work/waits"
    ask /status
    wait "$client"
    indent "$(cat "$work/overtaken")"
    pass_if "its end was noticed" matches "$(cat "$work/overtaken")" '^exit status 0$'
    stop TERM
}

dumps() { grep -c '^bundled: dump [0-9]' "$log"; }
has_dumps() { [ "$(dumps)" -ge "$1" ]; }

# dumped COUNT: waits for COUNT more dumps, without a connection of its own that they could list.
dumped() { wait_until has_dumps $(($(dumps) + $1)); }

# ask_leaks: asks for /leaks, and stores the lines between start and end, with paths cut, in $leaks.
ask_leaks() {
    ask /leaks
    leaks=$(sed '1,/^allocation tree - start$/d; s|from .*/|from |' <<<"$answer")
    pass_if "a whole report" matches "$leaks" '^allocation tree - end$'
    leaks=${leaks%allocation tree - end}
}

# start_tracking CONFIG_LINES: starts a daemon that dumps five times a second, and waits for its
# first dump.
start_tracking() {
    local before
    before=$(dumps)
    write_config "Good morning" "$1"
    start --port 0 --config "$work/config" --track 200
    pass_if "first dump" wait_until has_dumps $((before + 1))
}

hunts_leaks() {
    title "Leaks"
    start --port 0
    ask /leaks
    pass_if "404 if nothing is tracked" matches "$answer" '^HTTP/1.0 404'
    stop TERM

    start_tracking "bundle-base = $work"$'\nbundle = tree/headers/net\nflag = verbose'
    show "curl 'http://127.0.0.1:$port/?[1-50]'"
    get '/?[1-50]' >"$work/greetings"
    ask '/run?hello'
    fetch tracked.zip
    pass_if "bundle sent" wait_until status_has '^bundles sent: 1$'
    ask /status
    pass_if "counters by name" matches "$answer" '^children run: 1$'
    pass_if "flags" matches "$answer" '^flags: verbose$'
    pass_if "each request in the log" matches "$(cat "$log")" '^bundled: GET /bundle.zip$'
    pass_if "three more dumps" dumped 3
    ask_leaks
    pass_if "nothing has leaked" test -z "$leaks"
    show "printf 'GET /run?long ...' >/dev/tcp/127.0.0.1/$port"
    connect
    printf 'GET /run?long HTTP/1.0\r\n\r\n' >&"$link"
    pass_if "running" wait_until status_has '^children running: 1$'
    pass_if "two more dumps" dumped 2
    ask_leaks
    pass_if "what goes on is listed" matches "${leaks//$'\n'/ }" 'children.*connection|connection.*children'
    exec {link}>&-
    pass_if "gone" wait_until status_has '^children running: 0$'
    pass_if "three more dumps" dumped 3
    ask_leaks
    pass_if "and not once it is over" test -z "$leaks"
    stop TERM

    start_tracking 'flag = leak'
    show "curl 'http://127.0.0.1:$port/?[1-3]'"
    get '/?[1-3]' >"$work/greetings"
    pass_if "two more dumps" dumped 2
    ask_leaks
    local place
    place=$(grep -n 'Leaks on purpose' "$here/routes.cpp")
    pass_if "three blocks from line ${place%%:*}, and nothing else" test "$leaks" = \
        $' [\t3\tallocations from routes.cpp\t'"${place%%:*}"$'\t] \n'
    stop TERM
}

[ $# -eq 1 ] || give_up "usage: demo.sh BUILD_DIR"
for daemon in "$1/bundled" "$1/examples/bundled/bundled"; do
    [ ! -f "$daemon" ] || break
done
[ -x "$daemon" ] || give_up "no program bundled in $1"
for tool in curl unzip python3; do
    command -v "$tool" >/dev/null || give_up "$tool is missing"
done

write_config "Good morning"
starts_once
start --port 0 --config "$work/config"
serves_its_pages
runs_commands
refuses_bad_requests
bears_slow_clients
bears_many_requests
reloads
ends_cleanly
asks_for_credentials
looks_names_up
asks_a_real_server
notices_every_end
write_config "Good morning"
sends_bundles
hunts_leaks
pass_if "no sanitizer has complained" lacks "$(cat "$log")" 'Sanitizer|runtime error'

printf '\n%s checks, %s differ\n' "$checks" "$failures"
[ "$failures" -eq 0 ]
