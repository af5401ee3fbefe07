"""Dumps under attack: floods of requests, a full disk."""

import os
import subprocess
import time

from support.harness import MARKER, SEND_ALL, WRITE_FILE, RawViewer, Server, await_true, send_datagrams
from traffic import paced


def jobs(server):
    """How many processes of its dumps there are: their working directory is the server's."""
    found = subprocess.run(f"readlink /proc/[0-9]*/cwd | grep -cx {os.path.realpath(server.directory.name)}",
                           shell=True, stdout=subprocess.PIPE, check=True)
    return int(found.stdout) - 1


def flood(request):
    with Server() as server, RawViewer() as viewer:
        viewer.send(SEND_ALL)
        viewer.log(*[f"{n:05} {'x' * 50}" for n in range(10_000)])
        before, start, latencies, most = server.descriptors(), time.monotonic(), [], 0
        for numbers in paced(1000, 1000):
            for n in numbers:
                request(viewer)
                if n % 100 == 99:
                    sent = time.monotonic()
                    viewer.log(f"live {n}")
                    latencies.append(time.monotonic() - sent)
                    most = max(most, jobs(server))
        sent_in = time.monotonic() - start
        await_true(lambda: not jobs(server), "the jobs are gone")
        lines = server.dump().count(b"\n")
        print(f"    1000 in {sent_in:.1f} s: a message takes at most {max(latencies) * 1e3:.0f} ms, at most {most} job "
              f"processes seen, all gone after {time.monotonic() - start:.1f} s, dump: {lines} lines; "
              f"descriptors {len(before)} before, {len(server.descriptors())} after")


def flood_of_triggers():
    """1,000 dump triggers a second with a full store."""
    flood(lambda _: send_datagrams(MARKER))


def flood_of_commands():
    """The same by command 2."""
    flood(lambda viewer: viewer.socket.sendall(WRITE_FILE))


def full_disk():
    """A disk that is full only when the buffered rest is written."""
    with Server() as server, RawViewer() as viewer:
        viewer.send(SEND_ALL)
        viewer.log(*map(str, range(100)))  # one page fits
        subprocess.run("mount -t tmpfs -o size=4k tmpfs /tmp".split(), check=True)
        send_datagrams(MARKER)
        viewer.log("sync")
        time.sleep(1)  # for the job, if one was started
        subprocess.run(["umount", "-l", "/tmp"], check=True)
        # gzip finds the disk as full and complains.
        print(f"    the command was {'run on a truncated file' if b'gzip' in server.output else 'not run'}")
