"""What the viewer costs on a terminal.

    bench/run.sh viewer [--rounds N] [--before EXECUTABLE]

A full listing on a pty, from starting the viewer on, beside cat writing the same bytes; and single
messages at 250 a second, datagram to screen, beside rsyslog writing a file that tail -F follows.
Interleaved, medians; in brackets, how many times it hvlogger's figure is.
"""
import os
import pathlib
import re
import resource
import select
import shutil
import subprocess
import tempfile
import time

from compare import options, report
from support.harness import (DEADLINE, PROGRAM, SEND_ALL, RawViewer, Server, Terminal, Viewer, await_true, idle,
                             message, send_datagrams, shown)

TEXTS = [f"{number:05} {'x' * 88}" for number in range(7_000)]  # all fit the store
LIVE_MESSAGES, LIVE_RATE = 1_000, 250
RSYSLOG = """
module(load="imudp")
input(type="imudp" address="127.0.0.1" port="50000")
action(type="omfile" file="{0}/log" template="RSYSLOG_TraditionalFileFormat" asyncWriting="off"
       ioBufferSize="64k" flushOnTXEnd="on")
"""


def read(terminal):
    """As soon and as cheaply as can be."""
    return os.read(terminal.screen.child_fd, 1 << 16)


def listing(size, *command):
    """Of a command that shows so many bytes on a terminal, TEXTS at their end."""
    used, start = resource.getrusage(resource.RUSAGE_CHILDREN), time.monotonic()
    with Terminal(*command) as terminal:
        count, all_but_last = 0, None
        while count < size:
            count += len(read(terminal))
            if all_but_last is None and count >= size - len(shown(TEXTS[-1])):
                all_but_last = time.monotonic() - start
        last = time.monotonic() - start
        terminal.keys(b"q")
        terminal.wait()
    now = resource.getrusage(resource.RUSAGE_CHILDREN)
    return {"listing to the last line but one, ms": all_but_last * 1e3, "listing to the last line, ms": last * 1e3,
            "listing, processor time, ms": (now.ru_utime + now.ru_stime - used.ru_utime - used.ru_stime) * 1e3}


def live(terminal):
    """From sending a numbered message to reading it from the terminal."""
    sent, took, rest, begin = [], {}, b"", time.monotonic()

    def read_until(end):
        nonlocal rest
        while len(took) < LIVE_MESSAGES and select.select([terminal.screen], [], [], max(0, end - time.monotonic()))[0]:
            data, now = read(terminal), time.monotonic()
            for number in map(int, re.findall(rb"number (\d+) ", rest + data)):
                took.setdefault(number, now - sent[number])
            rest = (rest + data)[-20:]

    for number in range(LIVE_MESSAGES):
        sent.append(time.monotonic())
        send_datagrams(message(f"number {number} "))
        read_until(begin + len(sent) / LIVE_RATE)
    read_until(time.monotonic() + DEADLINE)
    assert len(took) == LIVE_MESSAGES, "lines are missing"
    p50, p99 = (sorted(took.values())[LIVE_MESSAGES * percent // 100] * 1e6 for percent in (50, 99))
    return {"single line p50, us": p50, "single line p99, us": p99}


def live_viewer(program):
    with Server(program=program) as server, Terminal(program, "client") as terminal:
        await_true(lambda: len(server.descriptors()) >= 4, "the viewer is served")
        idle(terminal.process.pid)
        return live(terminal)


def live_rsyslog(folder):
    (folder / "log").write_text("")
    (folder / "rsyslog.conf").write_text(RSYSLOG.format(folder))
    rsyslogd = shutil.which("rsyslogd", path=os.environ["PATH"] + ":/usr/sbin")
    with (subprocess.Popen([rsyslogd, "-n", "-iNONE", "-f", folder / "rsyslog.conf"]) as daemon,
          Terminal("tail", "-F", folder / "log") as tail):
        await_true(lambda: send_datagrams(message("first")) or (folder / "log").stat().st_size, "rsyslog writes")
        tail.read_until(b"first")
        result = live(tail)
        daemon.terminate()
    return result


def main():
    arguments = options(__doc__).parse_args()
    programs = {"hvlogger": PROGRAM} | ({"before": os.path.abspath(arguments.before)} if arguments.before else {})
    values = {}

    def note(column, measured):
        for row, value in measured.items():
            values.setdefault(row, {}).setdefault(column, []).append(value)

    # On a file system that tells tail at once.
    with tempfile.TemporaryDirectory(dir="/dev/shm") as folder:
        folder = pathlib.Path(folder)
        screen = Viewer.GREETING + b"".join(map(shown, TEXTS))
        (folder / "listing").write_bytes(screen)
        for _ in range(arguments.rounds):
            for column, program in programs.items():
                with Server(program=program):
                    with RawViewer() as viewer:
                        viewer.send(SEND_ALL)
                        viewer.log(*TEXTS)
                    for _ in range(5):
                        note(column, listing(len(screen), program, "client"))
                        note("cat", listing(len(screen), "cat", folder / "listing"))
                note(column, live_viewer(program))
            note("rsyslog, tail", live_rsyslog(folder))
    report(values, arguments.rounds)


if __name__ == "__main__":
    main()
