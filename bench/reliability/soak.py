"""soak.py [SECONDS]: the server under everything at once, for 3 minutes unless told otherwise.

Run by scripts/soak.sh. Ends with status 0 only if nothing is lost that the kernel delivered, resident
memory is flat after the store has filled, and the descriptors are back to the start's count.
"""

import contextlib
import multiprocessing
import random
import re
import subprocess
import sys
import threading
import time

from support.harness import (DEADLINE, MARKER, PROGRAM, SEND_ALL, WRITE_FILE, LogDevice, RawViewer, Server,
                             await_true, dropped, message, send_datagrams, status)

RATE = 2000
ALLOWED_GROWTH_KIB = 512
PROGRAMS = ["prothandler", "sip", "nmos", "router", "sap", "ui", "shell", ""]
SKIPPED = re.compile(rb"^<44>.* hvlogger\[\d+\]: (\d+) lines? (?:was|were) not passed on to the local log$")


def read(device, counts):
    """Counts what reaches the local log, and what it is told was skipped."""
    device.socket.settimeout(None)
    while True:
        skipped = SKIPPED.match(device.socket.recv(65536))
        counts[1 if skipped else 0] += int(skipped[1]) if skipped else 1


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
    chance = random.Random(1)
    stop = threading.Event()
    with LogDevice() as device, Server() as server:
        logged, pid = multiprocessing.Array("q", 2, lock=False), server.process.pid
        # In a process of its own, which reads as fast as a log daemon.
        multiprocessing.Process(target=read, args=(device, logged), daemon=True).start()
        server.collect()  # leaves the descriptor that tells the dump's end
        at_start = len(server.descriptors())
        company = threading.Thread(target=viewers, args=(stop,))
        company.start()
        start = time.monotonic()
        sent, memory = 0, []
        while (now := time.monotonic()) - start < seconds:
            due = int((now - start) * RATE)
            send_datagrams(*[datagram(chance) for _ in range(sent, due)])
            sent = due
            if chance.random() < 0.0005:
                send_datagrams(chance.choice([b"", b"dump " + MARKER]))
            if now - start > 20:
                memory.append(status(pid))  # the store has filled by then
            time.sleep(0.005)
        stop.set()
        company.join()

        end = time.monotonic() + DEADLINE
        while (lost := sent - dropped() - sum(logged)) and time.monotonic() < end:
            send_datagrams(b"hello")  # a line that finds a place makes the server tell what it skipped before
            sent += 1
            time.sleep(0.05)
        await_true(lambda: len(server.descriptors()) <= at_start or server.process.poll() is not None, "viewers are gone")
        third, at_end = len(memory) // 3, len(server.descriptors())
        # Stalled viewers cost memory for a while; what may not grow is what is left between them.
        growth = min(memory[-third:]) - min(memory[:third])
        print(f"sent {sent}, dropped by the kernel {dropped()}, logged {logged[0]}, told as skipped {logged[1]}, lost {lost}")
        print(f"resident memory {min(memory)} to {max(memory)} KiB, grown by {growth} KiB between first and last third")
        print(f"descriptors {at_start} at the start, {at_end} at the end")
        good = lost == 0 and growth <= ALLOWED_GROWTH_KIB and at_end == at_start and server.process.poll() is None
        print("passed" if good else "FAILED")
        sys.exit(not good)


main(float(sys.argv[1]) if len(sys.argv) > 1 else 180)
