"""What the viewer costs on a terminal.

    bench/run.sh viewer [--rounds N] [--before EXECUTABLE] [--json FILE]

A full listing on a pty, from starting the viewer on, beside cat writing the same bytes; and single
messages at 250 a second, datagram to screen, beside rsyslog writing a file that tail -F follows.
Interleaved, medians; in brackets, how many times it hvlogger's figure is.
"""
import contextlib
import os
import pathlib
import re
import resource
import shutil
import subprocess
import tempfile
import threading
import time

from compare import options, report
from support.harness import (PROGRAM, SEND_ALL, RawViewer, Server, Terminal, Viewer, await_true, idle, message,
                             send_datagrams, shown)

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
        with contextlib.suppress(OSError):  # it may have ended
            io = pathlib.Path(f"/proc/{terminal.process.pid}/io").read_text()
            terminal.keys(b"q")
        terminal.wait()
    now = resource.getrusage(resource.RUSAGE_CHILDREN)
    return {"listing to the last line but one, ms": all_but_last * 1e3, "listing to the last line, ms": last * 1e3,
            "listing, processor time, ms": (now.ru_utime + now.ru_stime - used.ru_utime - used.ru_stime) * 1e3,
            "listing, writes": float(re.search(r"syscw: (\d+)", io)[1])}


def live(terminal):
    """From sending a numbered message to reading it from the terminal."""
    sent, arrived = {}, {}

    def collect():
        rest = b""
        while len(arrived) < LIVE_MESSAGES:
            data = read(terminal)
            now = time.monotonic()
            for number in re.findall(rb"number (\d+) ", rest + data):
                arrived.setdefault(int(number), now)
            rest = (rest + data)[-20:]

    reader = threading.Thread(target=collect, daemon=True)
    reader.start()
    begin = time.monotonic()
    for number in range(LIVE_MESSAGES):
        time.sleep(max(0, begin + number / LIVE_RATE - time.monotonic()))
        sent[number] = time.monotonic()
        send_datagrams(message(f"number {number} "))
    reader.join(20)
    times = sorted(arrived[number] - sent[number] for number in sent)
    return {"single line p50, us": times[len(times) // 2] * 1e6, "single line p99, us": times[len(times) * 99 // 100] * 1e6}


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
    report(values, arguments)


if __name__ == "__main__":
    main()
