"""Peers that would take the place, the time or the terminal of others."""

import contextlib
import os
import pathlib
import resource
import select
import signal
import subprocess
import sys
import time

from links import HERE, STORED, THERE, Screen, fill, link, text
from pace import paced
from support.harness import (PROGRAM, SEND_ALL, RawViewer, Server, Viewer, await_true, dropped, message,
                             send_datagrams, status)

PATIENCE = 150
FLOODER = """
import contextlib, socket, sys, threading, time
def read():
    with contextlib.suppress(OSError):
        while peer.recv(1 << 20): pass
while True:
    with contextlib.suppress(OSError), socket.create_connection(("127.0.0.1", int(sys.argv[1]))) as peer:
        threading.Thread(target=read).start()
        data, pause = eval(sys.argv[2]), float(sys.argv[3])
        while True:
            peer.sendall(data)
            if pause: time.sleep(pause)
"""
SINK = "import socket\nc = socket.create_server(('127.0.0.1', 50001)).accept()[0]\nwhile c.recv(1 << 20): pass"


def how_long(event):
    """Asks until it has happened; event() may wait for some time itself."""
    start = time.monotonic()
    while not (happened := event()) and time.monotonic() - start < PATIENCE:
        time.sleep(0.01)
    return f"after {time.monotonic() - start:.2f} s" if happened else f"not within {PATIENCE} s"


def readable(file, seconds):
    return bool(select.select([file], [], [], seconds)[0])


@contextlib.contextmanager
def connected(there=(), address="127.0.0.1", paused=False):
    """A viewer; a paused one is stopped before it has read all of a listing of 1 MiB."""
    fill([text(n) for n in range(STORED if paused else 10)])
    command = [*there, PROGRAM, "client", address]
    with subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.STDOUT) as viewer:
        await_true(lambda: readable(viewer.stdout, 1), "the viewer is connected")
        time.sleep(1)  # it stands still at a full pipe, and the server has filled what the system takes for it
        if paused:
            viewer.send_signal(signal.SIGSTOP)
        yield viewer
        viewer.kill()


def floods():
    """12,000 datagrams in 6 s, and a viewer that sends garbage as fast as it can, or command 1 2,500 times a second."""
    for name, *flooder in (("without it", 50001, "b''", "1"), ("garbage to the server", 50000, "b'garbage!' * 131072", "0"),
                           ("garbage elsewhere", 50001, "b'garbage!' * 131072", "0"),
                           ("command 1", 50000, repr(SEND_ALL), "0.0004"), ("without it", 50001, "b''", "1")):
        with (Server(), subprocess.Popen([sys.executable, "-c", SINK]) as sink,
              subprocess.Popen([sys.executable, "-c", FLOODER, *map(str, flooder)]) as flood):
            time.sleep(0.5)
            for numbers in paced(2000, 12_000):
                send_datagrams(*[message(f"{n:08} {'x' * 90}") for n in numbers])
            print(f"    {name}: {dropped()} of 12000 datagrams lost", flush=True)
            flood.kill()
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
        print(f"    {received} of {sent} received ({100 * received / sent:.1f} %), resident memory at most {highest} KiB, "
              f"afterwards {status(server.process.pid)} KiB; a later viewer gets {len(later.received)} bytes, "
              f"the newest is number {later.received.rsplit(b' - ', 1)[-1][:8].decode() or 'none'}")


def vanished_viewer(paused=False, logging=False):
    """A viewer's link goes down without a word while nothing is logged: when is the next one served?"""
    with Server(), link(rtt=2) as (there, relay), connected(there, HERE, paused), RawViewer() as waiting:
        relay.send_signal(signal.SIGSTOP)
        waiting.socket.sendall(SEND_ALL)

        def served():
            if logging:
                send_datagrams(message("more"))
            return readable(waiting.socket, 1)
        print(f"    next viewer served {how_long(served)}", flush=True)


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
        viewer.send_signal(signal.SIGCONT)
        screen = Screen(viewer)
        screen.read_to_the_end()
        print(f"    then shows {screen.data.count(b' sip ')} of {STORED + 1} lines, the last one: {b'the last' in screen.data}")


def vanished_device(key=b""):
    """A device loses power: when does the viewer say so?"""
    with Server(), link(rtt=2) as (there, relay), connected(there, HERE) as viewer:
        relay.send_signal(signal.SIGSTOP)
        viewer.stdin.write(key)
        viewer.stdin.flush()
        screen = Screen(viewer)
        when = how_long(lambda: screen.read(1) and b"Rcv: error" in screen.data)
        print(f"    told {when}: {screen.data[-60:]!r}")


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
            print(f"    {with_signal.name}: runs {how_long(runs)}, at attempt {len(attempts)}", flush=True)


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
            print(process.stdout.read(), flush=True)


def silent_host():
    """The viewer is started for a host that does not answer at all, and q is pressed."""
    with link() as (_, relay):
        relay.send_signal(signal.SIGSTOP)
        with Viewer(THERE) as viewer:
            await_true(lambda: viewer.settings() != viewer.before, "the terminal is raw")
            viewer.keys(b"q")
            when = how_long(lambda: viewer.rest() is None or viewer.process.poll() is not None)
            print(f"    ends {when}, exit status {viewer.process.returncode}, "
                  f"terminal restored: {viewer.settings() == viewer.before}")


def signals():
    """Signals to a viewer on a terminal."""
    for number in signal.SIGTERM, signal.SIGHUP, signal.SIGINT, signal.SIGQUIT:
        signal.signal(number, signal.SIG_DFL)  # a shell's background jobs ignore some, and their children with them
        with Server(), Viewer() as viewer:
            viewer.expect(Viewer.GREETING)
            viewer.process.send_signal(number)
            viewer.wait()
            print(f"    {number.name}: exit status {viewer.process.returncode}, "
                  f"terminal restored: {viewer.settings() == viewer.before}", flush=True)
