"""How much of a burst the kernel keeps while the server stands still: bench/run.sh burst [MESSAGES]

Stops the server by SIGSTOP, sends it so many datagrams (20000) of 147 bytes as fast as they go, and
counts those that were not dropped in front of its socket: with root's privileges, and without, where
net.core.rmem_max says how much the server gets (packaging/60-hvlogger.conf raises it).
"""
import os
import signal
import sys

from support.harness import Server, dropped, message, send_datagrams

count = int(sys.argv[1]) if len(sys.argv) > 1 else 20000
for privileges, command in ("with", []), ("without", ["setpriv", "--bounding-set=-all"]):
    with Server(launcher=command) as server:
        server.process.send_signal(signal.SIGSTOP)
        os.waitid(os.P_PID, server.process.pid, os.WSTOPPED | os.WNOWAIT)
        send_datagrams(*[message("").ljust(147, b"x")] * count)
        print(f"{privileges} privileges: {count - dropped()} of {count} messages kept")
