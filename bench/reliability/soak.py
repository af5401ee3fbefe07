"""A long life in short: everything at once for as long as asked. Status 0 if nothing was lost and nothing grew.

    HVLOGGER=build/hvlogger tests/isolated.sh /usr/bin/python3 bench/reliability/soak.py [SECONDS]

Some 3,000 numbered datagrams a second of all programs and severities, up to 6,000 bytes, one in ten malformed.
Meanwhile viewers come, one after the other and several at once: they read, pause, leave at once, reset the
connection, talk nonsense, never read; dumps are asked for in every way. Whatever the kernel hands to the
server leaves one record at /dev/log, so that the numbers there show what got lost.
"""

import contextlib
import gzip
import os
import pathlib
import random
import re
import signal
import socket
import struct
import subprocess
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "../../tests/e2e"))
from harness import DEADLINE, MARKER, PORT, PROGRAM, SEND_ALL, SHARED, WRITE_FILE, LogDevice, Server  # noqa: E402

RATE = 3_000
BURST = 8  # datagrams sent before the log is read again
AHEAD = 64  # datagrams that may be under way: neither queue is ever full
REPORT = 10.0
DUMP_EVERY = 3.0
STORE = 1 << 20
LONGEST = 5_000  # what the server takes of a datagram
TOLERANCE_KIB = 512  # by which the memory for the same work may differ
MIN_ROUNDS = 4
PROGRAMS = [b"prothandler", b"sip", b"nmos", b"router", b"sap"]
NUMBER = re.compile(rb"#(\d{9});")


def is_regular(number):
    """Whether the datagram is a message of a known program; the others are malformed or hidden."""
    return number % 10 != 0


def datagram(number, chance):
    mark = b"#%09d;" % number
    size = chance.choice([0, 20, 80, 80, 80, 200, 400, 1000]) if number % 50 else chance.randrange(6000)
    body = chance.randbytes(size).translate(None, b"#<") if number % 20 < 2 else b"x" * size
    if is_regular(number):
        return b"<%d>1 2024-03-05T10:20:30.123Z dev01 %s %d - %s%s" % (
            chance.randrange(192), chance.choice(PROGRAMS), chance.randrange(1, 99999), mark, body)
    return chance.choice([
        b"<14>1 2024-03-05T10:20:30.123Z dev01 ui 412 - " + mark + body,
        b"<14>1 - " + mark + b"%s%n\0 behind a NUL" + body,
        b"<a>1 b c d e - " + mark + body,
        b"\x1b\xff\xfe<99999999999>9 - " + mark + body,
        b" - " + mark + body,
    ])


class Reader:
    """A viewer that speaks the bare protocol and reads for some time, having paused first."""

    def __init__(self, seconds, pause=0.0, command=SEND_ALL, receive_buffer=None):
        self.seconds, self.resume, self.until = seconds, time.monotonic() + pause, None
        self.received = bytearray()
        self.socket = socket.socket()
        if receive_buffer:
            self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
        self.socket.settimeout(DEADLINE)
        self.socket.connect(("127.0.0.1", PORT))
        self.socket.sendall(command)
        self.socket.setblocking(False)

    def work(self, now):
        """Goes on; returns whether there is more to do."""
        with contextlib.suppress(BlockingIOError):
            chunk = self.socket.recv(1 << 18) if now >= self.resume else None
            if chunk == b"":
                raise AssertionError("the server has hung up on a viewer that reads")
            if chunk and self.until is None:  # its time runs from the moment it is served
                self.until = now + self.seconds
            self.received += chunk or b""
        return self.until is None or now < self.until

    def close(self):
        self.socket.close()


class Stalled(Reader):
    """Never reads."""

    def work(self, now):
        return now < self.resume + self.seconds


class Resetting(Stalled):
    """Neither reads nor closes in order."""

    def close(self):
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self.socket.close()


class Program:
    """The real viewer: shows, asks for a dump, is stopped for a while, and quits."""

    received = b""

    def __init__(self):
        self.process = subprocess.Popen([PROGRAM, "client"], bufsize=0, stdin=subprocess.PIPE,
                                        stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        start = time.monotonic()
        self.plan = [(start + 0.5, self.process.stdin.write, b"F"),
                     (start + 1.0, self.process.send_signal, signal.SIGSTOP),
                     (start + 2.0, self.process.send_signal, signal.SIGCONT),
                     (start + 2.5, self.process.stdin.write, b"q")]

    def work(self, now):
        if self.plan and now >= self.plan[0][0]:
            _, act, argument = self.plan.pop(0)
            act(argument)
        return self.process.poll() is None

    def close(self):
        self.process.kill()
        self.process.wait()
        self.process.stdin.close()


# One round of viewers. Those of a line connect at once, are served one after the other, and leave when
# the last one is done.
ROUND = [
    [lambda: Reader(2.0)],
    [lambda: Stalled(0.05), lambda: Reader(0.1)],
    [lambda: Resetting(0.5), lambda: Resetting(0.1), lambda: Stalled(0.2), lambda: Reader(0.3)],
    [lambda: Stalled(0.3, command=b"\xff" * 6001), lambda: Reader(0.5)],
    [lambda: Reader(1.0, pause=0.7, receive_buffer=8192)],
    [Program],
    # Once it is too far behind it is disconnected.
    [lambda: Stalled(DEADLINE, receive_buffer=4096), lambda: Reader(1.0)],
]


class Soak:
    def __init__(self, server, log):
        self.server, self.log = server, log.socket
        self.log.setblocking(False)
        self.process = pathlib.Path(f"/proc/{server.process.pid}")
        self.dump_path = pathlib.Path(server.directory.name, "logger.txt.gz")
        self.sender = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.sender.connect(("127.0.0.1", PORT))
        self.chance = random.Random(1)
        self.recorded = bytearray()  # for each number sent whether it has reached the log
        self.records = self.skipped = self.disordered = self.dropped = self.missed = 0
        self.newest = -1
        self.progress = time.monotonic()
        self.served = self.dumps = self.rounds = self.highest = 0
        self.memory = []  # the most in each round

    @property
    def sent(self):
        return len(self.recorded)

    def descriptors(self):
        return len(os.listdir(self.process / "fd"))

    def resident_kib(self):
        return int(re.search(r"VmRSS:\s+(\d+)", (self.process / "status").read_text())[1])

    def read_log(self):
        """Takes in what has reached the log; returns how many datagrams have not, nor were told as lost."""
        with contextlib.suppress(BlockingIOError):
            while True:
                record = self.log.recv(65536)
                self.progress = time.monotonic()
                if found := NUMBER.search(record):
                    number = int(found[1])
                    self.disordered += number <= self.newest
                    self.newest = number
                    self.records += not self.recorded[number]
                    self.recorded[number] = 1
                elif found := re.search(rb"(\d+) lines? w\w+ not passed on", record):
                    self.skipped += int(found[1])
        return self.sent - self.records - self.dropped - self.skipped

    def count_drops(self):
        for row in map(str.split, pathlib.Path("/proc/net/udp").read_text().splitlines()[1:]):
            if row[1].endswith(f":{PORT:04X}"):
                self.dropped = int(row[-1])

    def settled(self, under_way):
        """Whether no more datagrams are under way than that; fails if nothing moves."""
        if self.read_log() <= under_way:
            return True
        self.count_drops()
        if time.monotonic() - self.progress > DEADLINE:
            raise AssertionError("the server takes no more datagrams")
        return False

    def send(self, count):
        for _ in range(count):
            text = datagram(self.sent, self.chance)
            self.recorded.append(0)
            self.sender.send(text)

    def check(self, text):
        """Counts the regular messages that are missing between the first and the last one in the text."""
        self.read_log()
        numbers = [n for n in map(int, NUMBER.findall(text)) if is_regular(n)]
        if numbers:
            wanted = {n for n in range(numbers[0], numbers[-1]) if is_regular(n) and self.recorded[n]}
            self.missed += len(wanted - set(numbers)) + (numbers != sorted(numbers))
        return numbers

    def take_dump(self):
        """Checks the dump, if there is one, and removes it."""
        if not self.dump_path.exists():
            return None
        content = gzip.decompress(self.dump_path.read_bytes())
        self.dump_path.unlink()
        self.dumps += 1
        return content

    def viewers(self):
        """One round of viewers after the other; each step lets them go on."""
        while True:
            self.highest = 0
            for line in ROUND:
                group = [viewer() for viewer in line]
                while group[-1].work(time.monotonic()):
                    for viewer in group[:-1]:
                        if not viewer.work(time.monotonic()):
                            viewer.close()
                            group.remove(viewer)
                    yield
                for viewer in group:
                    viewer.close()
                self.check(group[-1].received)
                self.served += len(line)
            self.memory.append(self.highest)
            self.rounds += 1

    def run(self, seconds):
        start = reported = dumped = time.monotonic()
        viewers = self.viewers()
        while (now := time.monotonic()) < start + seconds:
            pass


if SHARED:
    sys.exit("soak: needs namespaces of its own for /dev/log")
EOF
