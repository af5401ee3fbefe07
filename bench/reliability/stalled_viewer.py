"""A viewer that stops reading: what the server still collects, and what a slow viewer gets.

    HVLOGGER=build/hvlogger tests/support/isolated.sh /usr/bin/python3 bench/reliability/stalled_viewer.py
"""

import pathlib
import re
import signal
import socket
import subprocess
import time

from support.harness import PORT, PROGRAM, SEND_ALL, RawViewer, Server, message

RATE, SECONDS = 20_000, 10


def drops():
    """Datagrams that the kernel had to drop on the log port."""
    for line in pathlib.Path("/proc/net/udp").read_text().splitlines()[1:]:
        if f":{PORT:04X}" in line.split()[1]:
            return int(line.split()[-1])
    return None


def resident_kib(pid):
    return int(re.search(r"VmRSS:\s+(\d+)", pathlib.Path(f"/proc/{pid}/status").read_text())[1])


def flood(pid):
    """Sends at RATE; returns how many were sent and the greatest resident memory seen."""
    sender = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    sender.connect(("127.0.0.1", PORT))
    start, sent, highest = time.monotonic(), 0, 0
    while sent < RATE * SECONDS:
        due = min(int((time.monotonic() - start) * RATE), RATE * SECONDS)
        for n in range(sent, due):
            sender.send(message(f"{n:08} " + "x" * 60))
        sent = max(sent, due)
        highest = max(highest, resident_kib(pid))
        time.sleep(0.001)
    print(f"sent {sent} in {time.monotonic() - start:.1f} s")
    return sent, highest


with Server() as server:
    viewer = subprocess.Popen([PROGRAM, "client"], stdin=subprocess.PIPE, stdout=subprocess.DEVNULL)
    time.sleep(0.5)
    viewer.send_signal(signal.SIGSTOP)
    sent, highest = flood(server.process.pid)
    time.sleep(1)
    lost = drops()
    print(f"viewer stopped: {sent - lost} of {sent} received ({100 * (sent - lost) / sent:.1f} %), "
          f"resident memory at most {highest} KiB, afterwards {resident_kib(server.process.pid)} KiB")
    later = RawViewer()
    later.socket.sendall(SEND_ALL)
    later.socket.settimeout(3)
    try:
        while chunk := later.socket.recv(1 << 20):
            later.received += chunk
    except TimeoutError:
        pass
    newest = later.received.rsplit(b" - ", 1)[-1][:8].decode()
    print(f"a later viewer gets {len(later.received)} bytes, the newest is number {newest or 'none'}")
    viewer.kill()
    viewer.wait()
