"""A local log daemon that stops reading: what the viewer still sees, and what the log learns of it.

    HVLOGGER=build/hvlogger tests/support/isolated.sh /usr/bin/python3 bench/reliability/stalled_log.py

5,000 datagrams a second for 10 s each: with a reader that reads, with one that stands still and then
goes on, with one that stands still and is replaced, and without any.
"""

import multiprocessing
import os
import pathlib
import re
import select
import signal
import socket
import time

from support.harness import SEND_ALL, RawViewer, Server, cpu_ns, message, send_datagrams

RATE, SECONDS = 5_000, 10


class Daemon:
    """A process of its own that reads /dev/log into a file."""

    def __init__(self, folder):
        self.path = pathlib.Path(folder, f"records{time.monotonic_ns()}")
        self.path.touch()
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.socket.bind("/dev/log")
        self.process = multiprocessing.get_context("fork").Process(target=self.read, daemon=True)
        self.process.start()
        self.socket.close()

    def read(self):
        with open(self.path, "ab", buffering=0) as records:
            while True:
                records.write(self.socket.recv(65536) + b"\n")

    def signal(self, number):
        os.kill(self.process.pid, number)

    def end(self):
        self.process.kill()
        self.process.join()
        os.unlink("/dev/log")

    def summary(self):
        """Lines passed on, and what the server told about those that were not."""
        records = self.path.read_bytes().splitlines()
        told = [record for record in records if b" hvlogger[" in record]
        counts = [int(re.search(rb"\]: (\d+) ", record)[1]) for record in told]
        return len(records) - len(told), counts


def flood(viewer):
    """Sends at RATE for SECONDS while the viewer reads; returns the number sent and shown."""
    sent = shown = 0
    start = time.monotonic()
    while True:
        elapsed = time.monotonic() - start
        due = int(min(elapsed, SECONDS) * RATE)
        send_datagrams(*[message(f"{n:06}") for n in range(sent, due)])
        sent = max(sent, due)
        readable = select.select([viewer.socket], [], [], 0.001 if elapsed < SECONDS else 1)[0]
        if readable:
            shown += viewer.socket.recv(1 << 20).count(b"<")
        elif elapsed >= SECONDS:
            return sent, shown


def share(part, whole):
    return f"{part} of {whole} ({100 * part / whole:.2f} %)"


def run(what, with_log=True, before=None, after=None):
    with Server() as server, RawViewer() as viewer:
        daemons = [Daemon(server.directory.name)] if with_log else []
        viewer.send(SEND_ALL)
        if before:
            daemons[0].signal(before)
        start = cpu_ns(server.process.pid)
        sent, shown = flood(viewer)
        used = cpu_ns(server.process.pid) - start
        if after == "replace":
            daemons[0].end()
            daemons.append(Daemon(server.directory.name))
        elif after:
            daemons[0].signal(after)
        send_datagrams(*[message("after")] * 5)
        time.sleep(1)
        results = [daemon.summary() for daemon in daemons]
        passed, told = sum(r[0] for r in results), sum((r[1] for r in results), [])
        print(f"{what}: shown {share(shown, sent)}, processor {used / 1e3 / sent:.1f} us a datagram")
        if with_log:
            print(f"    afterwards 5 more sent; passed on {passed}, told as not passed on {told}: "
                  f"{share(passed + sum(told), sent + 5)} accounted for"
                  + (f"; {results[-1][0]} by the new daemon" if after == "replace" else ""), flush=True)
        if daemons:
            daemons[-1].end()


run("log reads")
run("log stands still, then goes on", before=signal.SIGSTOP, after=signal.SIGCONT)
run("log stands still, is replaced", before=signal.SIGSTOP, after="replace")
run("no log", with_log=False)
