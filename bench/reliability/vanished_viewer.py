"""A viewer whose link goes down without a word: how long until the next viewer is served.

    HVLOGGER=build/hvlogger tests/support/isolated.sh /usr/bin/python3 bench/reliability/vanished_viewer.py

The viewer is in a network namespace of its own, behind a veth pair that is taken down; another one
waits on loopback. Once with nothing being logged, once with a message a second.
"""

import os
import select
import subprocess
import sys
import time

from support.harness import PROGRAM, SEND_ALL, RawViewer, Server, await_true, message, send_datagrams

PATIENCE = 150


def ip(*words):
    subprocess.run(["ip", *words], check=True)


def measure(logging):
    with Server() as server:
        far = subprocess.Popen(["unshare", "--net", "sleep", "1000"])
        await_true(lambda: os.readlink(f"/proc/{far.pid}/ns/net") != os.readlink("/proc/self/ns/net"), "namespace")
        ip("link", "add", "near", "type", "veth", "peer", "name", "far", "netns", str(far.pid))
        ip("address", "add", "10.99.0.1/24", "dev", "near")
        ip("link", "set", "near", "up")
        enter = ["nsenter", "--net", "--target", str(far.pid)]
        subprocess.run([*enter, "ip", "address", "add", "10.99.0.2/24", "dev", "far"], check=True)
        subprocess.run([*enter, "ip", "link", "set", "far", "up"], check=True)
        viewer = subprocess.Popen([*enter, PROGRAM, "client", "10.99.0.1"], stdin=subprocess.PIPE,
                                  stdout=subprocess.PIPE)
        send_datagrams(message("first"))
        shown = b""
        while b"first" not in shown:
            chunk = os.read(viewer.stdout.fileno(), 65536)
            assert chunk, shown
            shown += chunk
        subprocess.run([*enter, "ip", "link", "set", "far", "down"], check=True)
        start = time.monotonic()
        waiting = RawViewer()
        waiting.socket.sendall(SEND_ALL)
        while time.monotonic() - start < PATIENCE and not select.select([waiting.socket], [], [], 1)[0]:
            if logging:
                send_datagrams(message("more"))
        seconds = time.monotonic() - start
        what = "a message a second" if logging else "silence"
        print(f"{what}: " + (f"next viewer served after {seconds:.0f} s" if seconds < PATIENCE else
                             f"next viewer not served within {PATIENCE} s"), flush=True)
        viewer.kill()
        viewer.wait()
        far.kill()
        far.wait()
        waiting.socket.close()


if len(sys.argv) > 1:
    measure(sys.argv[1] == "logging")
else:
    # Each in namespaces of its own: nothing lingers from one to the other.
    isolated = os.path.join(os.path.dirname(__file__), "../../tests/support/isolated.sh")
    for case in "silence", "logging":
        subprocess.run([isolated, sys.executable, "-B", __file__, case], check=True)
