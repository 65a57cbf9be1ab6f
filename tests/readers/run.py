#!/usr/bin/env python3
"""Opens streamed archives with other people's ZIP readers and compares all they find.

    run.py ZIPSTREAM [--table]

Names, sizes, CRC-32 and contents must be those of the files. Each reader must have the result of the
table below, also one that reads the archive from its front. --table prints the table of
docs/limits.md. A reader that isn't installed is skipped, with a message.
"""
import contextlib
import os
import re
import shutil
import subprocess
import sys
import tempfile
import zipfile
import zlib

HERE = os.path.dirname(os.path.abspath(__file__))
BIG = (1 << 32) + 5
MIB = 1 << 20
os.environ["LC_ALL"] = "C.UTF-8"
os.environ["TZ"] = "UTC"


def run(command, **options):
    return subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, **options)


class Warned(Exception):
    """The reader has found all that it should, but warns."""


def checked(command, accepted=(0,), **options):
    done = run(command, **options)
    if done.returncode not in accepted:
        raise AssertionError(f"{command[0]} ended with {done.returncode}: {done.stdout[-100:]!r}")
    return done.stdout.decode()


def blocks(stream):
    return iter(lambda: stream.read(MIB), b"")


def checksum_of(stream):
    """Returns size and CRC-32 of the rest of a stream."""
    size = crc = 0
    for block in blocks(stream):
        size += len(block)
        crc = zlib.crc32(block, crc)
    return size, crc


def checksum(path):
    """Returns size and CRC-32 of a file, and (0, 0) for a directory."""
    if os.path.isdir(path):
        return 0, 0
    with open(path, "rb") as stream:
        return checksum_of(stream)


def make_plain(root):
    texts = {"a.txt": b"hello, world", "empty": b"", "sub/b.bin": bytes(range(256)) * 5,
             "sub/with space & sign": b"x" * 70000, "sub/deep/er/last": os.urandom(200001)}
    for name, data in texts.items():
        os.makedirs(os.path.dirname(f"{root}/{name}"), exist_ok=True)
        with open(f"{root}/{name}", "wb") as stream:
            stream.write(data)
    os.mkdir(f"{root}/hollow")


def make_many(root):
    for i in range(70000):
        if i % 1000 == 0:
            os.makedirs(f"{root}/{i // 1000}")
        with open(f"{root}/{i // 1000}/{i}", "wb") as stream:
            stream.write(b"%d" % i if i % 7 == 0 else b"")


def make_big(root):
    os.makedirs(root)
    for name, size in (("first", 3), ("big", BIG), ("last", 9)):
        with open(f"{root}/{name}", "wb") as stream:
            stream.write(b"start" if size == BIG else b"x" * size)
            stream.truncate(size)


KINDS = {"plain": make_plain, "zip64 by count": make_many, "zip64 by size": make_big}


class Archive:
    """A tree of files, and its archive from a pipe, which must be the same as one in a file."""

    def __init__(self, kind, zipstream, work):
        self.kind, self.root, self.path = kind, f"{work}/tree", f"{work}/archive.zip"
        os.makedirs(work)
        KINDS[kind](self.root)
        names = sorted(os.path.relpath(os.path.join(folder, name), self.root)
                       for folder, folders, files in os.walk(self.root)
                       for name in folders + files)
        order = ["first", "big", "last"] if kind == "zip64 by size" else names
        paths = "".join(f"{name}\n" for name in order).encode()
        self.expected = {}
        for name in names:
            is_folder = os.path.isdir(f"{self.root}/{name}")
            self.expected[name + "/" * is_folder] = checksum(f"{self.root}/{name}")
        # Reads the archive from a pipe, and makes holes of blocks of zeros.
        command = [zipstream, "-C", self.root, "-"]
        with open(self.path, "wb") as out, subprocess.Popen(
                command, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                stderr=subprocess.PIPE) as writer:
            writer.stdin.write(paths)
            writer.stdin.close()
            for block in blocks(writer.stdout):
                if block.strip(b"\0"):
                    out.write(block)
                else:
                    out.seek(len(block), os.SEEK_CUR)
            out.truncate()
            promised = int(writer.stderr.read().split()[0])
        assert writer.returncode == 0, f"zipstream ended with {writer.returncode}"
        assert os.path.getsize(self.path) == promised, "the size isn't the promised one"
        if kind != "zip64 by size":
            with open(f"{work}/direct.zip", "wb") as out:
                subprocess.run(command, input=paths, stdout=out, stderr=subprocess.PIPE, check=True)
            checked(["cmp", self.path, f"{work}/direct.zip"])
        self.out = f"{work}/extracted"

    def expect_listing(self, found):
        assert found == self.expected, f"listing differs: {sorted(found.items())[:5]}"

    @contextlib.contextmanager
    def extraction(self):
        """Gives a folder to extract to, and compares it with the tree; the big file by its CRC."""
        shutil.rmtree(self.out, ignore_errors=True)
        os.makedirs(self.out)
        yield self.out
        if self.kind != "zip64 by size":
            checked(["diff", "-r", self.root, self.out])
        for name, expected in self.expected.items():
            assert checksum(f"{self.out}/{name}") == expected, f"contents differ: {name}"
        shutil.rmtree(self.out)


def by_unzip(archive):
    """Info-ZIP unzip and zipinfo"""
    listing = checked(["unzip", "-v", archive.path])
    rows = re.findall(r"^ *(\d+) +Stored +\d+ +0% \S+ \S+ ([0-9a-f]{8}) +(.+)$", listing, re.M)
    archive.expect_listing({name: (int(size), int(crc, 16)) for size, crc, name in rows})
    assert len(checked(["zipinfo", "-1", archive.path]).splitlines()) == len(archive.expected)
    checked(["unzip", "-tqq", archive.path])
    if archive.kind != "zip64 by size":
        with archive.extraction() as out:
            checked(["unzip", "-q", archive.path, "-d", out])


def by_7zip(archive):
    """7-Zip"""
    accepted = (0, 1)  # 1 after warnings
    listing = checked(["7zz", "l", "-slt", archive.path], accepted).split("----------\n")[1]
    found = {}
    for block in listing.split("\n\n"):
        entry = dict(line.split(" = ", 1) for line in block.splitlines() if " = " in line)
        if "Path" in entry:
            name = entry["Path"] + "/" * (entry["Folder"] == "+")
            found[name] = int(entry["Size"]), int(entry.get("CRC") or "0", 16)
    archive.expect_listing(found)
    verdict = checked(["7zz", "t", archive.path], accepted)
    if archive.kind != "zip64 by size":
        with archive.extraction() as out:
            checked(["7zz", "x", "-bd", f"-o{out}", archive.path], accepted)
    if "Headers Error" in verdict:
        raise Warned("Headers Error")


def by_bsdtar(archive):
    """libarchive's bsdtar"""
    assert sorted(checked(["bsdtar", "-tf", archive.path]).splitlines()) == sorted(archive.expected)
    with archive.extraction() as out:
        checked(["bsdtar", "-xf", archive.path, "-C", out, "-S"])


def by_python(archive):
    """Python's zipfile"""
    with zipfile.ZipFile(archive.path) as reader:
        archive.expect_listing({e.filename: (e.file_size, e.CRC) for e in reader.infolist()})
        assert reader.testzip() is None
        if archive.kind != "zip64 by size":
            with archive.extraction() as out:
                reader.extractall(out)


def java_listing(archive, how):
    output = checked(["java", "-XX:TieredStopAtLevel=1", f"{HERE}/ReadZip.java", how, archive.path])
    rows = (line.split(" ", 2) for line in output.splitlines())
    return {name: (int(size), int(crc, 16)) for size, crc, name in rows}


def by_java(archive):
    """Java's ZipFile"""
    archive.expect_listing(java_listing(archive, "file"))  # Of the data that it has read.


def by_busybox(archive):
    """BusyBox unzip"""
    with archive.extraction() as out:
        checked(["busybox", "unzip", "-q", archive.path, "-d", out])


def from_front_bsdtar(archive):
    """bsdtar from a pipe"""
    # bsdtar gets a pipe, since it would seek in a file on its standard input. It gets no -S, which
    # would lose the zeros at the end of a file here: no header has the file's size.
    piped = ["sh", "-c", 'cat "$0" | bsdtar "$@"', archive.path]
    if archive.kind != "zip64 by size":
        with archive.extraction() as out:
            checked([*piped, "-xf", "-", "-C", out])
        return
    for name, expected in archive.expected.items():
        with subprocess.Popen([*piped, "-xOf", "-", name], stdout=subprocess.PIPE) as reader:
            assert checksum_of(reader.stdout) == expected, f"contents differ: {name}"
        assert reader.returncode == 0, f"bsdtar ended with {reader.returncode}"


def from_front_java(archive):
    """Java's ZipInputStream"""
    archive.expect_listing(java_listing(archive, "stream"))


YES, WARNS, NO = "reads", "warns of", "refuses"
ZIP64 = {"zip64 by count": NO, "zip64 by size": NO}
# The readers, each with the expected results for kinds of archive that it doesn't simply read.
READERS = [
    (by_unzip, ["unzip", "zipinfo"], ZIP64),
    (by_7zip, ["7zz"], {"zip64 by count": WARNS, "zip64 by size": WARNS}),
    (by_bsdtar, ["bsdtar"], {"zip64 by size": NO}),
    (by_python, ["python3"], {}),
    (by_java, ["java"], {}),
    (by_busybox, ["busybox"], ZIP64),
    (from_front_bsdtar, ["bsdtar"], {}),
    (from_front_java, ["java"], dict.fromkeys(KINDS, NO)),
]


def main():
    zipstream = os.path.abspath(sys.argv[1])
    # In memory, if there is enough of it: holes in files cost nothing there.
    shm = "/dev/shm"
    roomy = os.access(shm, os.W_OK) and shutil.disk_usage(shm).free > 2 << 30
    with tempfile.TemporaryDirectory(dir=shm if roomy else None) as work:
        return compare(zipstream, work)


def compare(zipstream, work):
    failed, table = 0, {reader.__doc__: {} for reader, _, _ in READERS}
    for kind in KINDS:
        archive = Archive(kind, zipstream, f"{work}/{kind.replace(' ', '-')}")
        print(f"{kind}: {os.path.getsize(archive.path)} bytes, {len(archive.expected)} entries",
              flush=True)
        for reader, programs, expected in READERS:
            missing = [program for program in programs if not shutil.which(program)]
            if missing:
                print(f"  SKIPPED {reader.__doc__}: no {missing[0]} here")
                continue
            verdict, reason = YES, ""
            try:
                reader(archive)
            except Warned as warning:
                verdict, reason = WARNS, f": {warning}"
            except (AssertionError, zipfile.BadZipFile, OSError) as error:
                verdict, reason = NO, f": {error}"
            table[reader.__doc__][kind] = verdict
            wanted = expected.get(kind, YES)
            failed += verdict != wanted
            mark = "ok" if verdict == wanted else "FAILED"
            print(f"  {mark} {reader.__doc__} {verdict} it{reason}", flush=True)
        shutil.rmtree(os.path.dirname(archive.path))
    if "--table" in sys.argv:
        for reader, row in table.items():
            print("|", reader, "|", " | ".join(row.get(kind, "-") for kind in KINDS), "|")
    return failed != 0


sys.exit(main())
