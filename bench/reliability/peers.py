"""Peers that would take the place, the time or the terminal of others."""

import contextlib
import os
import pathlib
import resource
import select
import signal
import socket
import subprocess
import threading
import time

from link import THERE, Link
from links import STORED, PipedViewer, fill
from support.harness import (PORT, PROGRAM, SEND_ALL, RawViewer, Server, Viewer, await_true, dropped, message,
                             send_datagrams, status)
from traffic import beside, paced

PATIENCE = 150


def how_long(event):
    """Asks until it has happened; event() may wait for some time itself."""
    start = time.monotonic()
    while not (happened := event()) and time.monotonic() - start < PATIENCE:
        time.sleep(0.01)
    return f"after {time.monotonic() - start:.2f} s" if happened else f"not within {PATIENCE} s"


def connected(link=None, paused=False):
    """A viewer; a paused one is stopped before it has read all of a listing of 1 MiB."""
    fill(STORED if paused else 10)
    viewer = PipedViewer(link)
    time.sleep(1)  # it stands still at a full pipe, and the server has filled what the system takes for it
    if paused:
        viewer.process.send_signal(signal.SIGSTOP)
    return viewer


def drain(connection):
    with contextlib.suppress(OSError):
        while connection.recv(1 << 20):
            pass


def send_for_ever(port, data, pause):
    """Sends the data again and again, and connects again if it is disconnected."""
    while True:
        with contextlib.suppress(OSError), socket.create_connection(("127.0.0.1", port)) as peer:
            threading.Thread(target=drain, args=(peer,), daemon=True).start()
            while True:
                peer.sendall(data)
                time.sleep(pause)


def floods():
    """12,000 datagrams in 6 s, and a viewer that sends garbage as fast as it can, or command 1 2,500 times a second."""
    garbage, elsewhere = b"garbage!" * 131072, socket.create_server(("127.0.0.1", 50001))
    sink = beside(lambda: [drain(elsewhere.accept()[0]) for _ in range(3)])
    for name, *flood in (("without it", 50001, b"", 1), ("garbage to the server", PORT, garbage, 0),
                         ("garbage elsewhere", 50001, garbage, 0), ("command 1", PORT, SEND_ALL, 0.0004),
                         ("without it", 50001, b"", 1)):
        with Server():
            flooder = beside(send_for_ever, *flood)
            time.sleep(0.5)
            for numbers in paced(2000, 12_000):
                send_datagrams(*[message(f"{n:08} {'x' * 90}") for n in numbers])
            print(f"    {name}: {dropped()} of 12000 datagrams lost")
            flooder.kill()
    sink.kill()


def stalled_viewer():
    """A viewer that is stopped, then 20,000 datagrams a second for 10 s."""
    with Server() as server, connected(paused=True):
        sent, highest = 200_000, 0
        for numbers in paced(20_000, sent):
            send_datagrams(*[message(f"{n:08} {'x' * 60}") for n in numbers])
            highest = max(highest, status(server.process.pid))
        received = sent - dropped()
        with RawViewer() as later:
            later.socket.sendall(SEND_ALL)
            later.socket.settimeout(3)
            with contextlib.suppress(TimeoutError):
                while chunk := later.socket.recv(1 << 20):
                    later.received += chunk
        newest = later.received.rsplit(b" - ", 1)[-1][:8].decode() or "none"
        print(f"    {received} of {sent} received ({100 * received / sent:.1f} %), resident memory at most "
              f"{highest} KiB, afterwards {status(server.process.pid)} KiB; a later viewer gets "
              f"{len(later.received)} bytes, the newest is number {newest}")


def vanished_viewer(paused=False, logging=False):
    """A viewer's link goes down without a word while nothing is logged: when is the next one served?"""
    with Server(), Link(rtt=2) as link, connected(link, paused), RawViewer() as waiting:
        os.kill(link.relay.pid, signal.SIGSTOP)
        waiting.socket.sendall(SEND_ALL)

        def served():
            if logging:
                send_datagrams(message("more"))
            return select.select([waiting.socket], [], [], 1)[0]
        print(f"    next viewer served {how_long(served)}")


def vanished_viewer_of_a_busy_log():
    """The same with a message a second."""
    vanished_viewer(logging=True)


def vanished_paused_viewer():
    """The same with a viewer that was paused before, its window full."""
    vanished_viewer(paused=True)


def stopped_viewer():
    """A viewer that is only stopped, its window full, for 200 s."""
    with Server(), connected(paused=True) as viewer:
        time.sleep(200)
        send_datagrams(message("the last"))
        viewer.process.send_signal(signal.SIGCONT)
        viewer.read_to_the_end()
        print(f"    then shows {viewer.data.count(b' sip ')} of {STORED + 1} lines, "
              f"the last one: {b'the last' in viewer.data}")


def vanished_device(key=b""):
    """A device loses power: when does the viewer say so?"""
    with Server(), Link(rtt=2) as link, connected(link) as viewer:
        os.kill(link.relay.pid, signal.SIGSTOP)
        os.write(viewer.process.stdin.fileno(), key)
        when = how_long(lambda: viewer.read(1) and b"Rcv: error" in viewer.data)
        print(f"    told {when}: {viewer.data[-60:]!r}")


def vanished_device_that_is_asked():
    """The same, and the viewer presses A."""
    vanished_device(b"A")


def restart(paused=False):
    """The server is stopped or killed with a viewer connected, and started again once a second until it runs."""
    pathlib.Path("/proc/sys/net/ipv4/tcp_max_tw_buckets").write_text("16384")
    for with_signal in signal.SIGINT, signal.SIGTERM, signal.SIGKILL:
        with Server() as server, connected(paused=paused):
            server.stop(with_signal)
            attempts = []

            def runs():
                with Server() as again:
                    attempts.append(again.process.poll() is None)
                    return attempts[-1] or time.sleep(1)
            print(f"    {with_signal.name}: runs {how_long(runs)}, at attempt {len(attempts)}")


def restart_with_a_paused_viewer():
    """The same with a viewer that is paused, its window full."""
    restart(paused=True)


def no_low_descriptors():
    """All descriptors below 1024 are taken at the start."""
    def take_them():
        resource.setrlimit(resource.RLIMIT_NOFILE, (4096, 4096))
        for fd in range(3, 1024):
            os.dup2(0, fd)
    for mode, around in ("server", contextlib.nullcontext), ("client", Server):
        with around(), subprocess.Popen([PROGRAM, mode, "127.0.0.1"], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                        stderr=subprocess.STDOUT, close_fds=False, preexec_fn=take_them) as process:
            with contextlib.suppress(subprocess.TimeoutExpired):
                process.wait(5)
            print(f"    {mode}: exit status {process.returncode}", end=", ")
            process.kill()
            print(process.stdout.read())


def silent_host():
    """The viewer is started for a host that does not answer at all, and q is pressed."""
    with Link() as link:
        os.kill(link.relay.pid, signal.SIGSTOP)
        with Viewer(THERE) as viewer:
            await_true(lambda: viewer.settings() != viewer.before, "the terminal is raw")
            viewer.keys(b"q")
            print(f"    ends {how_long(lambda: viewer.rest() is None or viewer.process.poll() is not None)}, "
                  f"exit status {viewer.process.returncode}, terminal restored: {viewer.settings() == viewer.before}")


def signals():
    """Signals to a viewer on a terminal."""
    for number in signal.SIGTERM, signal.SIGHUP, signal.SIGINT, signal.SIGQUIT:
        signal.signal(number, signal.SIG_DFL)  # a shell's background jobs ignore some, and their children with them
        with Server(), Viewer() as viewer:
            viewer.expect(Viewer.GREETING)
            viewer.process.send_signal(number)
            viewer.wait()
            print(f"    {number.name}: exit status {viewer.process.returncode}, "
                  f"terminal restored: {viewer.settings() == viewer.before}")
