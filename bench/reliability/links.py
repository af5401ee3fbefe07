"""Whole lines over links of every kind: lines of the server's that the viewer did not show whole, and how long the
last line came after the one before it."""

import contextlib
import itertools
import os
import select
import subprocess
import time

from link import HERE, Link
from support.harness import PROGRAM, Entered, Server, await_true, dropped, message, send_datagrams, shown, unread
from traffic import paced

STORED = 10_131  # as many lines of text(n) as fill the server's store


def text(n, size=None):
    return f"{n:05} {'x' * (n % 100 if size is None else size)}"


def fill(count):
    """Logs lines, none lost, and returns how the viewer shows those that the store of 1 MiB keeps."""
    texts = [text(n) for n in range(count)]
    for start in range(0, count, 50):
        send_datagrams(*map(message, texts[start:start + 50]))
        await_true(lambda: not unread(0, "udp"), "the server reads")
    sizes = itertools.accumulate(len(message(line)) for line in reversed(texts))
    return [shown(line) for size, line in zip(sizes, reversed(texts)) if size <= 1 << 20]


class PipedViewer(Entered):
    """A viewer, here or behind a link: what it printed, and when."""

    def __init__(self, link=None):
        command = [*link.there, PROGRAM, "client", HERE] if link else [PROGRAM, "client", "127.0.0.1"]
        self.process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                        stderr=subprocess.STDOUT)
        self.data, self.came = b"", []
        await_true(lambda: self.readable(1), "the viewer is connected")

    def close(self):
        self.process.kill()
        self.process.communicate()

    def readable(self, patience):
        return bool(select.select([self.process.stdout], [], [], patience)[0])

    def read(self, patience):
        """Reads once, if something comes in time."""
        chunk = self.readable(patience) and os.read(self.process.stdout.fileno(), 1 << 20)
        if chunk:
            self.data += chunk
            self.came.append((len(self.data), time.monotonic()))
        return bool(chunk)

    def read_to_the_end(self):
        while self.read(patience=4):
            pass

    def whole(self, lines):
        """How many of the lines stand there whole."""
        return len(set(lines) & {line + b"\r\n" for line in self.data.replace(b"\n\r", b"\r\n").split(b"\r\n")})

    def last_line_ms(self):
        """How long after the line before it the last one came."""
        before, last = (next(time for size, time in self.came if size >= end)
                        for end in (self.data.rfind(b"\r\n", 0, -2) + 2, len(self.data)))
        return 1000 * (last - before)


def over(name, description, rate=0, count=0, size=None, **settings):
    """A case: a listing of a full store, or so many lines at that rate, each with a text of the given size."""
    def case():
        with Server(), Link(**settings) if settings else contextlib.nullcontext() as link:
            lines = [text(n, size) for n in range(count)]
            expected = [shown(line) for line in lines] or fill(STORED)
            with PipedViewer(link) as viewer:
                for numbers in paced(rate, count):
                    send_datagrams(*[message(lines[n]) for n in numbers])
                    viewer.read(0)
                viewer.read_to_the_end()
            cut = len(expected) - dropped() - viewer.whole(expected)
            late = f"; the link up to {1000 * link.late.value:.0f} ms late" if link else ""
            print(f"    {cut} of {len(expected)} lines not whole, the last one {viewer.last_line_ms():.0f} ms after "
                  f"the rest; {dropped()} dropped in front of the server{late}")
    case.__name__, case.__doc__ = name, description
    return case


CASES = (
    over("listing", "listing on plain loopback"),
    over("rtt50_500", "100 Mbit/s, RTT 50 ms, 500 lines a second", 500, 4000, rtt=50),
    over("rtt50_2000", "100 Mbit/s, RTT 50 ms, 2,000 lines a second", 2000, 16000, rtt=50),
    over("rtt100_500", "100 Mbit/s, RTT 100 ms, 500 lines a second", 500, 4000, rtt=100),
    over("tunnel_100", "path MTU 1400, RTT 2 ms, 100 lines of 3,000 bytes a second", 100, 800, 2945, rtt=2, mtu=1400),
    over("tunnel_2000", "path MTU 1400, RTT 10 ms, 2,000 lines a second", 2000, 16000, rtt=10, mtu=1400),
    over("mbit1_listing", "1 Mbit/s, RTT 10 ms, listing", mbit=1, rtt=10, queue=1000),
    over("mbit2_listing", "2 Mbit/s, RTT 10 ms, listing", mbit=2, rtt=10, queue=1000),
    over("mbit10_listing", "10 Mbit/s, RTT 10 ms, listing", mbit=10, rtt=10),
    over("loss_listing", "100 Mbit/s, RTT 50 ms, 1 % loss, listing", rtt=50, loss=1),
    over("loss_500", "100 Mbit/s, RTT 50 ms, 1 % loss, 500 lines a second", 500, 4000, rtt=50, loss=1),
    over("mbit1_500", "1 Mbit/s, RTT 50 ms, 500 lines a second", 500, 4000, mbit=1, rtt=50, queue=1000),
)
