"""A local log that stands still, is slow, goes, comes, or belongs to somebody else."""

import contextlib
import multiprocessing
import os
import pathlib
import re
import select
import signal
import socket
import time

from pace import paced
from support.harness import SEND_ALL, RawViewer, Server, dropped, message, send_datagrams

RATE, SECONDS = 5_000, 4
fork = multiprocessing.get_context("fork")


class Daemon:
    """A process that takes over the log's name and counts the lines it is passed, and those it is told of as skipped."""

    def __init__(self, kind=socket.SOCK_DGRAM, pause=0.0):
        pathlib.Path("/dev/log").unlink(missing_ok=True)
        self.socket = socket.socket(socket.AF_UNIX, kind)
        self.socket.bind("/dev/log")
        if kind == socket.SOCK_STREAM:
            self.socket.listen(1000)
        self.passed, self.told = fork.Value("q"), fork.Value("q")
        self.process = fork.Process(target=self.read, args=(kind, pause), daemon=True)
        self.process.start()
        self.socket.close()

    def read(self, kind, pause):
        while True:
            source = self.socket.accept()[0] if kind == socket.SOCK_STREAM else self.socket
            record = source.recv(65536)
            if told := re.search(rb" hvlogger\[\d+\]: (\d+) ", record):
                self.told.value += int(told[1])
            else:
                self.passed.value += b" sip[" in record
            time.sleep(pause)  # 0: no pause

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
                log.send(b"<14>flood")
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
        flood_of_others = [fork.Process(target=flood, daemon=True) for _ in range(flooders)]
        for process in flood_of_others:
            process.start()
        daemons, begun, shown, longest = [], 0, 0, 0.0
        count = RATE * SECONDS
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
        for process in flood_of_others:
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
        print(f"    {name + f', {flooders} others flood it' * bool(flooders)}: longest standstill {1000 * longest:.0f} ms; "
              f"{shown} of {count} shown, {dropped()} dropped by the kernel; of {sent} {passed} in the log, {told} told as skipped, "
              f"{sent - passed - told} neither", flush=True)
        for daemon in daemons:
            daemon.end()
        pathlib.Path("/dev/log").unlink(missing_ok=True)


def stalled_log():
    """5,000 datagrams a second for 4 s; the log in every state, alone and while five other processes flood it."""
    for flooders in 0, 5:
        for name, steps in CASES.items():
            run(name, steps, flooders)
