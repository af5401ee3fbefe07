#!/usr/bin/env python3
"""What the viewer costs on a terminal.

    bench/run.sh viewer [--rounds N] [--json FILE]

First a full listing on a pty, from starting the viewer to its last byte, beside cat writing the same
bytes; then single messages at 250 a second, datagram to screen, beside rsyslog writing a file that
tail -F follows. Interleaved, medians over the rounds, in private network and mount namespaces. Run
as root, on an idle machine.
"""
import argparse
import json
import os
import pathlib
import pty
import re
import shutil
import socket
import statistics
import subprocess
import sys
import tempfile
import threading
import time
import tty

import compare

HVLOGGER = str(compare.BUILD / "hvlogger")
LOG_PORT = 50000
LIVE_MESSAGES, LIVE_INTERVAL = 1_000, 1 / 250
RSYSLOG = """
module(load="imudp")
input(type="imudp" address="127.0.0.1" port="50000")
action(type="omfile" file="{file}" template="RSYSLOG_TraditionalFileFormat" asyncWriting="off"
       ioBufferSize="64k" flushOnTXEnd="on")
"""


class OnTerminal:
    """A command with a pty as its standard streams, and what it wrote there."""

    def __init__(self, *command):
        self.master, slave = pty.openpty()
        tty.setraw(slave)
        self.started = time.monotonic()
        self.process = subprocess.Popen(command, stdin=slave, stdout=slave,
                                        stderr=subprocess.DEVNULL)
        os.close(slave)
        self.size = 0

    def read(self):
        """One read; empty when the command has ended."""
        try:
            data = os.read(self.master, 1 << 16)
        except OSError:
            data = b""
        self.size += len(data)
        return data

    def end(self, keys=b""):
        """Returns the processor time used in ms."""
        os.write(self.master, keys)
        while self.read():
            pass
        _, _, usage = os.wait4(self.process.pid, 0)
        self.process.returncode = 0
        os.close(self.master)
        return (usage.ru_utime + usage.ru_stime) * 1e3

    def writes(self):
        status = pathlib.Path(f"/proc/{self.process.pid}/io").read_text()
        return int(re.search(r"syscw: (\d+)", status)[1])


def send(texts):
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
        for number, text in enumerate(texts):
            sender.sendto(f"<14>1 2024-03-05T10:20:30.123456Z dev01 sip 412 - {text}".encode(),
                          ("127.0.0.1", LOG_PORT))
            if number % 50 == 49:
                time.sleep(0.002)


def fill_store():
    """Returns what a viewer shows last."""
    send(f"{number:05} {'x' * 88}" for number in range(8_000))
    return f"{7_999:05} {'x' * 88}\r\n".encode()


def listing(last):
    viewer = OnTerminal(HVLOGGER, "client", "127.0.0.1")
    tail = b""
    screen = []
    while not tail.endswith(last):
        screen.append(viewer.read())
        tail = (tail + screen[-1])[-len(last):]
    wall = (time.monotonic() - viewer.started) * 1e3
    writes = viewer.writes()
    used = viewer.end(b"q")
    return b"".join(screen), {"wall, ms": wall, "processor time, ms": used, "writes": writes}


def cat(file, size):
    command = OnTerminal("cat", file)
    while command.size < size:
        command.read()
    wall = (time.monotonic() - command.started) * 1e3
    return {"wall, ms": wall, "processor time, ms": command.end()}


def live(command):
    """p50 and p99 in us from sending a numbered message to reading it from the terminal."""
    sent, shown = {}, {}

    def read():
        rest = b""
        while len(shown) < LIVE_MESSAGES:
            data = command.read()
            now = time.monotonic()
            for number in re.findall(rb"number (\d+) ", rest + data):
                shown.setdefault(int(number), now)
            rest = (rest + data)[-20:]

    reader = threading.Thread(target=read, daemon=True)
    reader.start()
    begin = time.monotonic()
    for number in range(LIVE_MESSAGES):
        time.sleep(max(0, begin + number * LIVE_INTERVAL - time.monotonic()))
        sent[number] = time.monotonic()
        send([f"number {number} "])
    reader.join(20)
    times = sorted(shown[number] - sent[number] for number in sent)
    return {"p50, us": times[len(times) // 2] * 1e6, "p99, us": times[len(times) * 99 // 100] * 1e6}


def live_viewer(_):
    viewer = OnTerminal(HVLOGGER, "client", "127.0.0.1")
    while b"Requesting" not in viewer.read():
        pass
    time.sleep(0.3)  # the server has taken the request
    result = live(viewer)
    viewer.end(b"q")
    return result


def live_rsyslog(folder):
    rsyslogd = shutil.which("rsyslogd", path=os.environ["PATH"] + ":/usr/sbin")
    if not rsyslogd:
        print("rsyslog is not here: left out", file=sys.stderr)
        return None
    file = folder / "log"
    file.write_text("")
    configuration = folder / "rsyslog.conf"
    configuration.write_text(RSYSLOG.format(file=file))
    with subprocess.Popen([rsyslogd, "-n", "-iNONE", "-f", str(configuration)]) as daemon:
        tail = OnTerminal("tail", "-F", str(file))
        while not file.stat().st_size:
            send(["first"])
            time.sleep(0.05)
        while b"first" not in tail.read():
            pass
        time.sleep(0.3)
        result = live(tail)
        tail.process.terminate()
        tail.end()
        daemon.terminate()
    return result


def server():
    process = subprocess.Popen([HVLOGGER, "server"], stdout=subprocess.DEVNULL,
                               stderr=subprocess.DEVNULL)
    while f":{LOG_PORT:04X}" not in pathlib.Path("/proc/net/tcp").read_text():
        time.sleep(0.01)
    return process


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--json", type=pathlib.Path)
    arguments = parser.parse_args()

    values = {}

    def note(name, measured):
        for what, value in (measured or {}).items():
            values.setdefault(f"{name}: {what}", []).append(value)

    # On a file system that tells tail at once.
    with tempfile.TemporaryDirectory(dir="/dev/shm") as temporary:
        folder = pathlib.Path(temporary)
        for _ in range(arguments.rounds):
            process = server()
            last = fill_store()
            for _ in range(5):
                screen, measured = listing(last)
                file = folder / "listing"
                file.write_bytes(screen)
                note("listing, hvlogger", measured)
                note("listing, cat", cat(str(file), len(screen)))
            process.kill()
            process.wait()
            process = server()
            note("live, hvlogger", live_viewer(folder))
            process.kill()
            process.wait()
            note("live, rsyslog and tail -F", live_rsyslog(folder))
    print(f"{len(screen)} bytes on the terminal; medians")
    medians = {name: statistics.median(measured) for name, measured in values.items()}
    for name, median in medians.items():
        print(f"{name:44}{median:10.1f}")
    if arguments.json:
        arguments.json.write_text(json.dumps(medians, indent=1))


if __name__ == "__main__":
    main()
