"""Viewers that stop reading or vanish."""

import contextlib
import os
import select
import signal
import subprocess
import time

from support.harness import PROGRAM, SEND_ALL, RawViewer, Server, await_true, dropped, message, paced, send_datagrams, status

PATIENCE = 150


def stalled_viewer():
    """A viewer stopped by SIGSTOP, then 20,000 datagrams a second for 10 s."""
    with Server() as server:
        viewer = subprocess.Popen([PROGRAM, "client"], stdin=subprocess.PIPE, stdout=subprocess.DEVNULL)
        await_true(lambda: len(server.descriptors()) == 4, "the viewer is accepted")
        viewer.send_signal(signal.SIGSTOP)
        sent, highest = 200_000, 0
        for numbers in paced(20_000, sent):
            send_datagrams(*[message(f"{n:08} {'x' * 60}") for n in numbers])
            highest = max(highest, status(server.process.pid, "VmRSS"))
        received = sent - dropped()
        with RawViewer() as later:
            later.socket.sendall(SEND_ALL)
            later.socket.settimeout(3)
            with contextlib.suppress(TimeoutError):
                while chunk := later.socket.recv(1 << 20):
                    later.received += chunk
        print(f"    {received} of {sent} received ({100 * received / sent:.1f} %), resident memory at most {highest} KiB, "
              f"afterwards {status(server.process.pid, 'VmRSS')} KiB; a later viewer gets {len(later.received)} bytes, "
              f"the newest is number {later.received.rsplit(b' - ', 1)[-1][:8].decode() or 'none'}")
        viewer.kill()
        viewer.wait()


def vanished_viewer(logging=False):
    """A viewer's link goes down without a word, another one waits."""
    with Server() as server, subprocess.Popen(["unshare", "--net", "sleep", "1000"]) as far:
        await_true(lambda: os.readlink(f"/proc/{far.pid}/ns/net") != os.readlink("/proc/self/ns/net"), "namespace")
        enter = ["nsenter", "--net", "--target", str(far.pid)]
        for command in (f"ip link add near type veth peer name far netns {far.pid}", "ip address add 10.99.0.1/24 dev near",
                        "ip link set near up", [*enter, *"ip address add 10.99.0.2/24 dev far".split()],
                        [*enter, *"ip link set far up".split()]):
            subprocess.run(command.split() if isinstance(command, str) else command, check=True)
        viewer = subprocess.Popen([*enter, PROGRAM, "client", "10.99.0.1"], stdin=subprocess.PIPE, stdout=subprocess.DEVNULL)
        await_true(lambda: len(server.descriptors()) == 4, "the viewer is accepted")
        subprocess.run([*enter, *"ip link set far down".split()], check=True)
        start = time.monotonic()
        with RawViewer() as waiting:
            waiting.socket.sendall(SEND_ALL)
            send_datagrams(message("first"))
            while time.monotonic() - start < PATIENCE and not select.select([waiting.socket], [], [], 1)[0]:
                if logging:
                    send_datagrams(message("more"))
        seconds = time.monotonic() - start
        print(f"    next viewer served after {seconds:.0f} s" if seconds < PATIENCE else f"    not within {PATIENCE} s")
        viewer.kill()
        viewer.wait()
        far.kill()


def vanished_viewer_of_a_busy_log():
    """The same with a message a second."""
    vanished_viewer(logging=True)
