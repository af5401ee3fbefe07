"""A local log that stands still, is slow, goes, comes, or belongs to somebody else."""

import contextlib
import os
import pathlib
import re
import select
import signal
import socket
import time

from support.harness import SEND_ALL, RawViewer, Server, dropped, message, send_datagrams
from traffic import beside, fork, paced

RATE, SECONDS = 5_000, 4
FLOOD = b"<14>flood"
TOLD = re.compile(rb"^<44>.* hvlogger\[\d+\]: (\d+) lines? (?:was|were) not passed on to the local log$")


class Daemon:
    """A process that takes over the log's name and counts the lines it is passed, and those told as skipped. After
    each it pauses for so many seconds: 0 is the shortest time that the system sleeps, some 60 us."""

    def __init__(self, kind=socket.SOCK_DGRAM, pause=0.0):
        pathlib.Path("/dev/log").unlink(missing_ok=True)
        self.passed, self.told = fork.Value("q", lock=False), fork.Value("q", lock=False)
        with socket.socket(socket.AF_UNIX, kind) as log:
            log.bind("/dev/log")
            if kind == socket.SOCK_STREAM:
                log.listen(1000)
            self.process = beside(self.read, log, pause)

    def read(self, log, pause):
        while True:
            source = log.accept()[0] if log.type == socket.SOCK_STREAM else log
            record = source.recv(65536).rstrip(b"\0")
            if told := TOLD.match(record):
                self.told.value += int(told[1])
            else:
                self.passed.value += record != FLOOD
            if pause is not None:
                time.sleep(pause)

    def stop(self):
        os.kill(self.process.pid, signal.SIGSTOP)

    def end(self):
        self.process.kill()
        self.process.join()


def flood():
    """Logs as fast as it can, whoever reads."""
    while True:
        with contextlib.suppress(OSError), socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as log:
            log.connect("/dev/log")
            while True:
                log.send(FLOOD)
        time.sleep(0.001)  # nobody reads


CASES = {  # what happens one after the other, each for the same time
    "nobody has the log's name": [],
    "the log reads": [Daemon],
    "it stands still": [Daemon, "stop"],
    "it reads a line a ms": [lambda: Daemon(pause=0.001)],
    "it comes later": [lambda: None, Daemon],
    "another takes its name": [Daemon, Daemon],
    "it stands still, another takes its name": [Daemon, "stop", Daemon],
    "it is restarted": [Daemon, "end", Daemon],
    "it is a stream socket": [lambda: Daemon(socket.SOCK_STREAM)],
    "it stands still, a stream socket takes its name": [Daemon, "stop", lambda: Daemon(socket.SOCK_STREAM)],
}


def run(name, steps, flooders):
    with Server(), RawViewer() as viewer:
        viewer.send(SEND_ALL)
        others = [beside(flood) for _ in range(flooders)]
        daemons, begun, shown, longest, count = [], 0, 0, 0.0, RATE * SECONDS
        for numbers in paced(RATE, count):
            while begun < len(steps) and numbers.stop >= count * begun // len(steps):
                step, begun = steps[begun], begun + 1
                if isinstance(step, str):
                    getattr(daemons[-1], step)()
                elif made := step():
                    daemons.append(made)
            send_datagrams(*[message(f"@{time.monotonic()}") for _ in numbers])
            while select.select([viewer.socket], [], [], 0 if numbers.stop < count else 1)[0]:
                sent_at = re.findall(rb"@([\d.]+)", viewer.socket.recv(1 << 20))
                shown += len(sent_at)
                longest = max([longest, *(time.monotonic() - float(at) for at in sent_at[:1])])
        for process in others:
            process.kill()
        for daemon in daemons:
            if daemon.process.is_alive():
                os.kill(daemon.process.pid, signal.SIGCONT)
        for sent in range(count, count + 100):
            time.sleep(0.02)
            passed, told = (sum(getattr(daemon, of).value for daemon in daemons) for of in ("passed", "told"))
            if passed + told >= sent:
                break
            send_datagrams(message("after"))
        company = f", {flooders} others flood it" if flooders else ""
        print(f"    {name}{company}: longest standstill {1000 * longest:.0f} ms; {shown} of {count} shown, "
              f"{dropped()} dropped by the kernel; of {sent} {passed} in the log, {told} told as skipped, "
              f"{sent - passed - told} neither")
        for daemon in daemons:
            daemon.end()
        pathlib.Path("/dev/log").unlink(missing_ok=True)


def stalled_log():
    """5,000 datagrams a second for 4 s; the log in every state, alone and while five other processes flood it."""
    for flooders in 0, 5:
        for name, steps in CASES.items():
            run(name, steps, flooders)
