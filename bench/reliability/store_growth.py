"""A store filled with the shortest messages and then sent the longest: how far it grows.

    HVLOGGER=build/hvlogger tests/support/isolated.sh /usr/bin/python3 bench/reliability/store_growth.py
"""

import pathlib
import socket
import time

from support.harness import PORT, Server

CAPACITY = 1 << 20
DATAGRAM = 5000
SHORTEST = b"<1>1    - "


def unread():
    rows = [line.split() for line in pathlib.Path("/proc/net/udp").read_text().splitlines()[1:]]
    return any(not row[4].endswith(":00000000") for row in rows)


def flood(datagram, count):
    """Sends as fast as the server reads: what finds the socket full is lost."""
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
        for number in range(count):
            sender.sendto(datagram, ("127.0.0.1", PORT))
            while number % 10 == 0 and unread():
                time.sleep(0.0005)


def report(when, server):
    while unread():
        time.sleep(0.0005)
    status = pathlib.Path(f"/proc/{server.process.pid}/status").read_text()
    resident = int(status.split("VmRSS:")[1].split()[0])
    print(f"{when}: resident memory {resident / 1024:.0f} MiB", flush=True)


with Server() as server:
    report("at start", server)
    in_one = DATAGRAM // len(SHORTEST)
    flood(SHORTEST * in_one, CAPACITY // (len(SHORTEST) * in_one) + 1)
    messages = CAPACITY // len(SHORTEST)
    report(f"{messages} messages of {len(SHORTEST)} bytes", server)
    for done in 10_000, 20_000, messages:
        flood(b"<14>1 2024-03-05T10:20:30.123Z dev01 sip 412 - ".ljust(DATAGRAM, b"x"),
              10_000 if done <= 20_000 else messages - 20_000)
        report(f"{done} of {DATAGRAM} bytes behind them", server)
