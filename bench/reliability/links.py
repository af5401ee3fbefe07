"""Whole lines over links of every kind: lines of the server's that the viewer did not show whole, and how long the
last line came after the one before it."""

import bisect
import contextlib
import itertools
import os
import pathlib
import select
import subprocess
import time

from pace import paced
from support.harness import PROGRAM, Server, await_true, dropped, message, send_datagrams, shown, unread

RELAY = pathlib.Path(__file__).parents[2] / "build-bench/bench/reliability/relay"
HERE, THERE = "10.99.0.1", "10.99.0.2"
STORED = 10_131  # as many lines of text(n) as fill the server's store


@contextlib.contextmanager
def link(mbit=100, rtt=0, loss=0, mtu=1500, queue=100, seed=1):
    """A network namespace behind a link: yields the words in front of a command that is to run there, and the relay."""
    with subprocess.Popen(["unshare", "--net", "sleep", "infinity"]) as far:
        await_true(lambda: os.readlink(f"/proc/{far.pid}/ns/net") != os.readlink("/proc/self/ns/net"), "namespace")
        there = ["nsenter", "--net", f"--target={far.pid}"]
        settings = map(str, (far.pid, mbit, rtt / 2, loss, mtu, queue, seed))
        with subprocess.Popen([RELAY, *settings], stdin=subprocess.PIPE, stdout=subprocess.PIPE) as relay:
            assert relay.stdout.readline() == b"ready\n"
            for enter, own, other in ([], HERE, THERE), (there, THERE, HERE):
                subprocess.run([*enter, *f"ip address add {own} peer {other} dev wire".split()], check=True)
                subprocess.run([*enter, *"ip link set wire up".split()], check=True)
            try:
                yield there, relay
            finally:
                relay.kill()
                far.kill()


def text(n, size=None):
    return f"{n:05} {'x' * (n % 100 if size is None else size)}"


def fill(texts):
    """Logs the texts, none lost, and returns how the viewer shows those that the store of 1 MiB keeps."""
    for start in range(0, len(texts), 50):
        send_datagrams(*map(message, texts[start:start + 50]))
        await_true(lambda: not unread(0, "udp"), "the server reads")
    sizes = itertools.accumulate(len(message(line)) for line in reversed(texts))
    return [shown(line) for size, line in zip(sizes, reversed(texts)) if size <= 1 << 20]


class Screen:
    """What a viewer printed, and when."""

    def __init__(self, viewer):
        self.file, self.data, self.ends, self.times = viewer.stdout.fileno(), b"", [], []

    def read(self, patience):
        """Reads once, if something comes in time."""
        chunk = select.select([self.file], [], [], patience)[0] and os.read(self.file, 1 << 20)
        if chunk:
            self.times.append(time.monotonic())
            self.data += chunk
            self.ends.append(len(self.data))
        return bool(chunk)

    def read_to_the_end(self):
        while self.read(patience=4):
            pass

    def whole(self, lines):
        """How many of the lines stand there whole."""
        return len(set(lines) & {line + b"\r\n" for line in self.data.replace(b"\n\r", b"\r\n").split(b"\r\n")})

    def last_line_ms(self):
        """How long after the line before it the last one came."""
        at = [self.times[bisect.bisect_left(self.ends, end)]
              for end in (len(self.data), self.data.rfind(b"\r\n", 0, -2) + 2)]
        return 1000 * (at[0] - at[1])


def over(name, description, rate=0, count=0, size=None, **settings):
    """A case: a listing of a full store, or so many lines at that rate, each with a text of the given size."""
    def case():
        there_is = link(seed=os.environ["RUN"], **settings) if settings else contextlib.nullcontext(((), None))
        with Server(), there_is as (there, relay):
            lines = [text(n, size) for n in range(count)]
            expected = [shown(line) for line in lines] or fill([text(n) for n in range(STORED)])
            with subprocess.Popen([*there, PROGRAM, "client", HERE if there else "127.0.0.1"], stdin=subprocess.PIPE,
                                  stdout=subprocess.PIPE) as viewer:
                screen = Screen(viewer)
                await_true(lambda: screen.read(1), "the viewer is connected")
                for numbers in paced(rate, count):
                    send_datagrams(*[message(lines[n]) for n in numbers])
                    screen.read(0)
                screen.read_to_the_end()
                late = relay.communicate()[0].decode().strip() if relay else "0"
                viewer.kill()
            print(f"    {len(expected) - dropped() - screen.whole(expected)} of {len(expected)} lines not whole, the last one "
                  f"{screen.last_line_ms():.0f} ms after the rest; {dropped()} dropped in front of the server, the link "
                  f"up to {late} ms late", flush=True)
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
