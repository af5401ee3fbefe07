#!/usr/bin/python3
"""How much of a burst the kernel keeps while the server stands still, by net.core.rmem_default.

    HVLOGGER=$PWD/build/hvlogger bench/system/burst.py [MESSAGES]

Stops the server by SIGSTOP, sends it so many datagrams (20000) of 147 bytes as fast as they go, and
counts those that were not dropped in front of its socket: with the limit as it is, and with that of
packaging/60-hvlogger.conf. Run as root: the limit is the whole machine's, and is put back; the ports
are those of a private network.
"""

import os
import pathlib
import re
import signal
import socket
import subprocess
import sys
import tempfile
import time

TOP = pathlib.Path(__file__).resolve().parents[2]
LIMIT = pathlib.Path("/proc/sys/net/core/rmem_default")
PORT = 50000
LINE = b"<14>1 2024-03-05T10:20:30.123Z dev01 sip 412 - ".ljust(147, b"x")


def dropped():
    """The drops of the server's socket so far; None while there is no such socket."""
    for row in pathlib.Path("/proc/net/udp").read_text().splitlines()[1:]:
        fields = row.split()
        if fields[1] == f"00000000:{PORT:04X}":
            return int(fields[-1])
    return None


def burst(limit, messages):
    with tempfile.TemporaryDirectory() as folder, socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
        server = subprocess.Popen([os.environ["HVLOGGER"], "server"], cwd=folder, stdout=subprocess.DEVNULL)
        try:
            while dropped() is None:
                if server.poll() is not None:
                    sys.exit("burst.py: the server has ended")
                time.sleep(0.01)
            server.send_signal(signal.SIGSTOP)
            os.waitid(os.P_PID, server.pid, os.WSTOPPED | os.WNOWAIT)
            sender.connect(("127.0.0.1", PORT))
            for _ in range(messages):
                sender.send(LINE)
            print(f"net.core.rmem_default {limit}: {messages - dropped()} of {messages} messages kept")
        finally:
            server.kill()
            server.wait()


def main():
    arguments = sys.argv[1:]
    if arguments[:1] == ["--inside"]:
        burst(arguments[1], int(arguments[2]))
        return
    before = LIMIT.read_text().strip()
    raised, = re.findall(r"^net.core.rmem_default = (\d+)$", (TOP / "packaging/60-hvlogger.conf").read_text(), re.M)
    try:
        for limit in before, raised:
            LIMIT.write_text(limit)
            subprocess.run([TOP / "tests/support/isolated.sh", sys.executable, "-B", __file__, "--inside", limit, *(arguments or ["20000"])],
                           check=True)
    finally:
        LIMIT.write_text(before)


if __name__ == "__main__":
    main()
