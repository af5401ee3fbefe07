#!/usr/bin/python3
"""How much of a burst the kernel keeps while the server stands still: bench/run.sh burst [MESSAGES]

Stops the server by SIGSTOP, sends it so many datagrams (20000) of 147 bytes as fast as they go, and
counts those that were not dropped in front of its socket: with root's privileges, and without, where
net.core.rmem_max says how much the server gets (packaging/60-hvlogger.conf raises it).
"""

import os
import pathlib
import signal
import socket
import subprocess
import sys
import tempfile
import time

PORT = 50000
LINE = b"<14>1 2024-03-05T10:20:30.123Z dev01 sip 412 - ".ljust(147, b"x")


def dropped():
    """The drops of the server's socket so far; None while there is no such socket."""
    for row in pathlib.Path("/proc/net/udp").read_text().splitlines()[1:]:
        fields = row.split()
        if fields[1] == f"00000000:{PORT:04X}":
            return int(fields[-1])
    return None


def burst(privileges, command, messages):
    with tempfile.TemporaryDirectory() as folder, socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
        server = subprocess.Popen([*command, os.environ["HVLOGGER"], "server"], cwd=folder, stdout=subprocess.DEVNULL)
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
            print(f"{privileges} privileges: {messages - dropped()} of {messages} messages kept")
        finally:
            server.kill()
            server.wait()


count = int(sys.argv[1]) if len(sys.argv) > 1 else 20000
burst("with", [], count)
burst("without", ["setpriv", "--bounding-set=-all"], count)
