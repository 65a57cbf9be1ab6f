#!/usr/bin/env python3
"""Attacks the built daemon in many ways, and meanwhile sends valid requests and checks the answers.

    attack.py BUILD_DIR [long]

Once the attackers have gone, the daemon must have no more descriptors and children than at its
start, and no more memory than after a first, shorter siege. Exits with status 0 if this is so and
if every answer was right, else with 1.
"""
import collections, contextlib, io, os, random, re, select, socket, struct, subprocess, sys
import tempfile, threading, time, zipfile

REQUESTS, CROWD = (10000, 500) if sys.argv[2:] == ["long"] else (500, 100)
LIMIT_S, ALLOWANCE_KB = 60, 256
ASK = b"GET %s HTTP/1.0\r\n"
WHOLE, BUNDLE = ASK % b"/" + b"\r\n", ASK % b"/bundle.zip" + b"\r\n"
tree = {"tree/": b"", "tree/big": bytes(6 << 20), "tree/noise": random.Random(0).randbytes(70000)}
counts, failures, peace = collections.Counter(), [], threading.Event()


def read(link):
    return b"".join(iter(lambda: link.recv(1 << 18), b""))


def dribble(link, pieces=iter(lambda: b"x", b"")):
    for piece in pieces:
        link.sendall(piece)
        if select.select([link], [], [], 0.02)[0]:
            break
    return read(link)


def until_dropped(link, piece=b""):
    with contextlib.suppress(ConnectionError):
        while not link.getsockopt(socket.SOL_SOCKET, socket.SO_ERROR):
            link.sendall(piece)
            time.sleep(0.005)


# Name of the attack, how many at a time, bytes to send, most random bytes after them, what to do
# then, right answers. An attack without a right answer ends with a reset.
ATTACKERS = [
    ("silent", 4, b"", 0, read, "408"),
    ("half a request", 4, b"GET /sta", 0, read, "408"),
    ("half and end", 1, b"GET /", 0, lambda link: link.shutdown(1) or read(link), "400"),
    ("slow for ever", 8, ASK % b"/" + b"X: ", 0, dribble, "408"),
    ("slow", 2, b"", 0, lambda link: dribble(link, (b"%c" % byte for byte in WHOLE)), "200"),
    ("long line", 1, ASK % (b"/" + b"x" * 70000), 0, read, "414"),
    ("long fields", 2, ASK % b"/" + b"X: %s\r\n" % (b"x" * 1000) * 64, 0, read, "431"),
    ("flood", 2, b"", 0, lambda link: until_dropped(link, bytes(4096)), ""),
    ("rubbish", 2, b"X", 20000, read, "400|408|414|431|505"),
    ("rubbish in a field", 1, ASK % b"/" + b"X", 20000, read, "400|408|431"),
    ("rubbish behind a request", 2, WHOLE, 20000, read, "200"),
    ("pipeline", 1, WHOLE * 400, 0, read, "200"),
    ("pipeline and reset", 1, BUNDLE * 400, 0, None, ""),
    ("gone at once", 1, b"", 0, None, ""),
    ("gone from a command", 1, ASK % b"/run?nap" + b"\r\n", 0, None, ""),
    ("reset in an archive", 3, BUNDLE, 0, lambda link: link.recv(9999), ""),
    ("stopped in an archive", 2, BUNDLE, 0, until_dropped, ""),
]
LIMIT = CROWD + sum(row[1] for row in ATTACKERS) + 20  # Connections that the daemon takes at once.
# How many of a hundred, request, right answer. An archive is also compared with the tree.
VALID = [
    (40, "GET /", r"200.*\r\n\r\nGood morning\n\n/status\n/bundle.zip\n.*"),
    (20, "GET /status", r"200.*\nopen connections: [1-9].*"),
    (10, "HEAD /status", r"200.*\r\n\r\n"),
    (10, "GET /nothing", r"404.*\r\n\r\n404 Not Found\n"),
    (10, "POST /", r"405.*\r\n\r\n405 Method Not Allowed\n"),
    (5, "GET /run?hello", r"200.*\r\n\r\nhello\nexit status 0\n"),
    (5, "GET /bundle.zip", r"200.*"),
]


def connect(sent):
    link = socket.create_connection(address, LIMIT_S)
    link.sendall(sent)
    return link


def checked(answer, right, said):
    head, _, body = answer.partition(b"\r\n\r\n")
    length = re.search(rb"\r\nContent-Length: (\d+)", head)
    assert re.fullmatch(rb"HTTP/1.0 (%s)" % right.encode(), answer, re.S) and length and (
        len(body) == int(length[1]) or said[:4] == b"HEAD"), f"{said[:300]}: {answer[:300]}"
    return body


def ask(request, right="200.*"):
    sent = request.encode() + b" HTTP/1.0\r\n\r\n"
    with connect(sent) as link:
        answer = read(link)
    if re.search("run|zip", request) and answer[9:12] == b"503":  # The limit is reached.
        counts["busy, asked again"] += 1
        time.sleep(0.05)
        return ask(request, right)
    body = checked(answer, right, sent)
    counts[request] += 1
    if "zip" in request:
        with zipfile.ZipFile(io.BytesIO(body)) as archive:
            assert {name: archive.read(name) for name in archive.namelist()} == tree
    return re.findall(rb"^(?:open|\w+ running).*: (\d+)$", body, re.M)  # Of /status.


def crowd(size):
    """Sends half a request on so many connections; those beyond the limit wait in the kernel."""
    links = [connect(WHOLE[:9]) for _ in range(size)]
    if size < LIMIT:  # The request for the status is behind them in the queue.
        assert int(ask("GET /status")[0]) > size, "the crowd isn't let in"
    for link in links:
        link.sendall(WHOLE[9:])
    for link in links:
        with link:
            checked(read(link), "200.*", b"one of many")
    counts[f"at once: {size}"] += 1


def at_rest():
    """Returns the memory in kB, once there are no clients and children and no more descriptors than
    at the start."""
    end = time.monotonic() + LIMIT_S
    while True:
        left = (ask("GET /status"), os.listdir(f"/proc/{daemon.pid}/fd"),
                subprocess.run(["pgrep", "-P", str(daemon.pid)], stdout=subprocess.PIPE).stdout)
        if left[0] == [b"1", b"0", b"0", b"0"] and len(left[1]) <= descriptors and not left[2]:
            with open(f"/proc/{daemon.pid}/status") as status:
                return int(re.search(r"VmRSS:\s+(\d+)", status.read())[1])
        assert time.monotonic() < end, f"left behind: {left}"
        time.sleep(0.1)


def attack(seed, name, _, start, rubbish, follow, right):
    chance = random.Random(seed)
    try:
        while not failures and not peace.wait(0.02):
            sent = start + chance.randbytes(chance.randint(rubbish and 1, rubbish))
            with connect(sent) as link:
                answer = follow and follow(link)
                if right:
                    checked(answer, f"({right}) .*", sent)
                else:
                    link.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
            counts["attacks"] += 1
    except (AssertionError, OSError) as error:
        failures.append(f"{name}: {error}")


def siege(requests):
    peace.clear()
    threads = [threading.Thread(target=attack, args=(i, *row), daemon=True)
               for row in ATTACKERS for i in range(row[1])]
    for thread in threads:
        thread.start()
    chance = random.Random(requests)
    for i in range(requests):
        ask(*chance.choices([row[1:] for row in VALID], [row[0] for row in VALID])[0])
        if i % (requests // 2) == 0:
            crowd(CROWD)
    crowd(LIMIT + 40)
    peace.set()
    for thread in threads:
        thread.join()
    return at_rest()


with tempfile.TemporaryDirectory() as work, open(f"{work}/log", "w+") as log:
    os.mkdir(f"{work}/tree")
    config = (f"greeting = Good morning\nidle-ms = 2000\nbundle-base = {work}\nbundle = tree\n"
              "bundle-streams = 32\ncommand.hello = echo hello\ncommand.nap = sleep 0.3\n")
    for name, data in [*tree.items()][1:] + [("config", config.encode())]:
        with open(f"{work}/{name}", "wb") as file:
            file.write(data)
    # AddressSanitizer keeps freed blocks, by default 256 MB, which each fork() would have to copy.
    options = os.environ.get("ASAN_OPTIONS", "") + ":quarantine_size_mb=4"
    daemon = subprocess.Popen([f"{sys.argv[1]}/bundled", "--config", f"{work}/config",
                               "--max-connections", str(LIMIT)], stdout=subprocess.PIPE, stderr=log,
                              env={**os.environ, "ASAN_OPTIONS": options})
    try:
        address = "127.0.0.1", int(daemon.stdout.readline().split(b":")[1])
        descriptors = len(os.listdir(f"/proc/{daemon.pid}/fd"))
        with open(f"/proc/{daemon.pid}/maps") as maps:
            comparable = not re.search("lib[at]san", maps.read())
        before, after = siege(REQUESTS // 5), siege(REQUESTS)
        print(f"{before} kB before, {after} kB after, {descriptors} descriptors as before")
        assert after <= before + ALLOWANCE_KB or not comparable, "more memory than before"
        daemon.terminate()
        assert daemon.wait(LIMIT_S) == 0, f"exit status {daemon.returncode}"
    except (AssertionError, OSError, zipfile.BadZipFile) as error:
        failures.append(repr(error))
    finally:
        daemon.kill()
    log.seek(0)
    said = log.read()
print(*(f"{count:6} {what}" for what, count in sorted(counts.items())), sep="\n")
failures += re.findall(".*(?:Sanitizer|runtime error).*", said)
if failures:
    sys.exit("\n".join(failures[:9] + [said[-2000:]]))
