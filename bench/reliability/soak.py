"""soak.py [SECONDS]: the server under everything at once, for 3 minutes unless told otherwise.

Run by scripts/soak.sh. Ends with status 0 only if nothing is lost that the kernel delivered, resident
memory is flat after the store has filled, and the descriptors are back to the start's count.
"""

import contextlib
import random
import subprocess
import sys
import threading
import time

from local_log import Daemon
from support.harness import (DEADLINE, MARKER, PROGRAM, SEND_ALL, WRITE_FILE, RawViewer, Server, await_true, dropped,
                             idle, message, send_datagrams, status)
from traffic import paced

RATE = 2000
ALLOWED_GROWTH_KIB = 512
PROGRAMS = ["prothandler", "sip", "nmos", "router", "sap", "ui", "shell", ""]


def datagram(chance):
    """Mostly log lines of all programs and sizes, some of them many in one, some rubbish."""
    kind = chance.random()
    text = "x" * int(chance.paretovariate(0.8) * 40) if kind < 0.9 else ""
    line = message(text[:6000], app=chance.choice(PROGRAMS), severity=chance.randrange(8),
                   facility=chance.randrange(26))
    return line if kind < 0.9 else chance.choice([line * 5, b"hello", b"<14>", b"\n", b"\xff\x9b[2J" * 20, line[:20],
                                                  chance.randbytes(300), b"<" * 3000, b"a\0b"])


def viewers(stop):
    """One viewer after the other, each with habits of its own."""
    chance = random.Random(2)
    while not stop.is_set():
        habit = chance.choice(["read", "read", "reset", "silent", "stall", "rubbish", "dump", "program"])
        stay = time.monotonic() + chance.random() * 3
        if habit == "program":
            with subprocess.Popen([PROGRAM, "client"], stdin=subprocess.PIPE, stdout=subprocess.DEVNULL) as viewer:
                stop.wait(stay - time.monotonic())
                viewer.kill()
            continue
        with RawViewer() as viewer, contextlib.suppress(OSError):  # disconnected, as one that stalls may be
            viewer.socket.settimeout(1)
            viewer.socket.sendall({"silent": b"\1", "dump": WRITE_FILE, "rubbish": chance.randbytes(9000)}.get(
                habit, SEND_ALL))
            while time.monotonic() < stay and not stop.is_set():
                if habit in ("stall", "silent"):
                    stop.wait(0.1)
                elif not viewer.socket.recv(1 << 16):
                    break
            if habit == "reset":
                viewer.reset()


def main(seconds):
    chance, stop, log = random.Random(1), threading.Event(), Daemon(pause=None)
    with Server() as server:
        server.collect()  # leaves the descriptor that tells the dump's end
        idle(server.process.pid)
        at_start = len(server.descriptors())
        company = threading.Thread(target=viewers, args=(stop,))
        company.start()
        sent, memory = int(RATE * seconds), []
        for numbers in paced(RATE, sent):
            send_datagrams(*[datagram(chance) for _ in numbers])
            if chance.random() < 0.0001:
                send_datagrams(chance.choice([b"", b"dump " + MARKER]))
            if numbers.stop > RATE * min(240, seconds / 2) and numbers.start % 10 == 0:
                memory.append(status(server.process.pid))  # the store has filled, the heap has settled
        stop.set()
        company.join()

        def lost():
            return sent - dropped() - log.passed.value - log.told.value
        end = time.monotonic() + DEADLINE
        while lost() and time.monotonic() < end:
            send_datagrams(b"hello")  # a line that finds a place makes the server tell what it skipped before
            sent += 1
            time.sleep(0.05)
        await_true(lambda: len(server.descriptors()) <= at_start or server.process.poll() is not None, "viewers leave")
        third, at_end = len(memory) // 3, len(server.descriptors())
        # Stalled viewers cost memory for a while; what may not grow is what is left between them.
        growth = min(memory[-third:]) - min(memory[:third])
        print(f"sent {sent}, dropped by the kernel {dropped()}, logged {log.passed.value}, "
              f"told as skipped {log.told.value}, lost {lost()}")
        print(f"resident memory {min(memory)} to {max(memory)} KiB, grown by {growth} KiB between first and last third")
        print(f"descriptors {at_start} at the start, {at_end} at the end")
        good = not lost() and growth <= ALLOWED_GROWTH_KIB and at_end == at_start and server.process.poll() is None
        print("passed" if good else "FAILED")
        sys.exit(not good)


main(float(sys.argv[1]) if len(sys.argv) > 1 else 180)
