"""Dumps under attack: a flood of requests, a planted link or FIFO, a full disk.

    HVLOGGER=build/hvlogger tests/support/isolated.sh /usr/bin/python3 bench/reliability/dump_flood.py

The flood is 1,000 requests in a second, by trigger and by command 2, with a full store; the last part
mounts a small file system on /tmp.
"""

import gzip
import os
import pathlib
import select
import subprocess
import time

from support.harness import MARKER, SEND_ALL, WRITE_FILE, RawViewer, Server, message, send_datagrams

DUMP = pathlib.Path("/tmp/logger.txt")


def jobs(server):
    """Processes that have the server's working directory, without the server."""
    found = 0
    for process in pathlib.Path("/proc").glob("[0-9]*"):
        try:
            found += (os.readlink(process / "cwd") == server.directory.name)
        except OSError:
            pass
    return found - 1


def descriptors(server):
    return len(os.listdir(f"/proc/{server.process.pid}/fd"))


def roundtrip(viewer, text, patience=20.0):
    """Seconds from a datagram to its arrival at the viewer; None if it does not arrive."""
    datagram = message(text)
    start, data = time.monotonic(), b""
    send_datagrams(datagram)
    while datagram not in data:
        left = start + patience - time.monotonic()
        if left <= 0 or not select.select([viewer.socket], [], [], left)[0]:
            return None
        data = data[-len(datagram):] + viewer.socket.recv(1 << 20)
    return time.monotonic() - start


def milliseconds(seconds):
    return "never" if seconds is None else f"{seconds * 1e3:.0f} ms"


def flood(what, request):
    with Server() as server, RawViewer() as viewer:
        viewer.send(SEND_ALL)
        for n in range(10_000):
            send_datagrams(message(f"{n:05} {'x' * 50}"))
            if n % 100 == 99:
                roundtrip(viewer, f"sync {n}")
        before, start, latencies, most = descriptors(server), time.monotonic(), [], 0
        for n in range(1000):
            request(viewer)
            if n % 100 == 99:
                latencies.append(roundtrip(viewer, f"live {n}"))
                most = max(most, jobs(server))
            time.sleep(max(0.0, start + n / 1000 - time.monotonic()))
        sent_in = time.monotonic() - start
        latencies.append(roundtrip(viewer, "after"))
        while (left := jobs(server)) and time.monotonic() - start < 120:
            time.sleep(0.05)
        quiet = time.monotonic() - start
        try:
            lines = gzip.open(pathlib.Path(server.directory.name, "logger.txt.gz")).read().count(b"\n")
            dump = f"{lines} lines"
        except (OSError, EOFError) as error:
            dump = f"unusable ({error})"
        worst = None if None in latencies else max(latencies)
        print(f"1000 requests by {what} in {sent_in:.1f} s: a message takes at most {milliseconds(worst)}, at most "
              f"{most} job processes seen, all ended after {quiet:.1f} s ({left} left), dump: {dump}; "
              f"descriptors {before} before, {descriptors(server)} after; leftovers in /tmp: "
              f"{[path.name for path in DUMP.parent.glob('logger.txt*')]}", flush=True)
        for path in DUMP.parent.glob("logger.txt*"):
            path.unlink()


def planted():
    with Server() as server, RawViewer() as viewer:
        viewer.send(SEND_ALL)
        victim = pathlib.Path(server.directory.name, "victim")
        victim.write_text("precious")
        DUMP.symlink_to(victim)
        send_datagrams(MARKER)
        roundtrip(viewer, "sync")
        print(f"link at {DUMP}: the file it points to is {'kept' if victim.read_text() == 'precious' else 'lost'}")
        time.sleep(1)  # for the job, if one was started
        DUMP.unlink(missing_ok=True)
        os.mkfifo(DUMP)
        send_datagrams(MARKER)
        print(f"FIFO at {DUMP}: a message after the request takes {milliseconds(roundtrip(viewer, 'after'))}", flush=True)
        DUMP.unlink()


def full_disk():
    with Server() as server, RawViewer() as viewer:
        viewer.send(SEND_ALL)
        # One page fits; what is written beyond it is still buffered when the file is closed.
        for n in range(100):
            roundtrip(viewer, f"{n}")
        subprocess.run("mount -t tmpfs -o size=4k tmpfs /tmp".split(), check=True)
        send_datagrams(MARKER)
        roundtrip(viewer, "sync")
        time.sleep(1)  # for the job, if one was started
        subprocess.run(["umount", "-l", "/tmp"], check=True)
        # gzip finds the disk as full and complains.
        ran = b"gzip" in server.output
        print(f"full disk, error on closing: the command was {'run on a truncated file' if ran else 'not run'}",
              flush=True)


flood("trigger", lambda viewer: send_datagrams(MARKER))
flood("command 2", lambda viewer: viewer.socket.sendall(WRITE_FILE))
full_disk()
planted()
