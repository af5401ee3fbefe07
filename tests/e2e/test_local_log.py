"""The local log, whoever reads it and however: every line arrives there or is told as skipped, and nothing stops."""

import pathlib
import re
import select
import socket
import subprocess
import sys

import pytest

from support.harness import LOG_DEVICE_TAKEN, SEND_ALL, RawViewer, Server, await_true

pytestmark = pytest.mark.skipif(LOG_DEVICE_TAKEN, reason="/dev/log cannot be this test's own")
FLOOD = "import socket\ns = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)\ns.connect('/dev/log')\nwhile 1: s.send(b'<14>flood')"


class Log:
    """Takes over the log's name; counts the lines that it was passed and those it was told of as skipped."""

    def __init__(self, kind=socket.SOCK_DGRAM):
        pathlib.Path("/dev/log").unlink(missing_ok=True)
        self.kind, self.lines = kind, 0
        self.socket = socket.socket(socket.AF_UNIX, kind)
        self.socket.bind("/dev/log")
        if kind == socket.SOCK_STREAM:
            self.socket.listen()

    def waiting(self):
        return self.socket.fileno() != -1 and select.select([self.socket], [], [], 0)[0]

    def read(self):
        """Reads a record if there is one."""
        if not self.waiting():
            return False
        source = self.socket.accept()[0] if self.kind == socket.SOCK_STREAM else self.socket
        record = source.recv(65536)
        told = re.search(rb"<44>.{16}hvlogger\[\d+\]: (\d+) lines? w(?:as|ere) not passed on to the local log", record)
        self.lines += int(told[1]) if told else b" sip[" in record
        return True

    def account(self):
        while self.read():
            pass
        return self.lines


def test_lines_reach_whoever_has_the_name_of_the_log():
    with Server(), RawViewer() as viewer:
        viewer.send(SEND_ALL)
        viewer.log("nobody has it")
        logs, sent = [], 0
        for kind, what_of_the_last in [("DGRAM", "none"), ("DGRAM", "open"), ("DGRAM", "closed"), ("STREAM", "closed"),
                                       ("DGRAM", "open"), ("STREAM", "open"), ("STREAM", "closed"), ("DGRAM", "closed")]:
            if what_of_the_last == "closed":
                logs[-1].socket.close()
            logs.append(Log(getattr(socket, "SOCK_" + kind)))
            while not logs[-1].account():
                viewer.log("line")
                sent += 1
            assert sum(log.account() for log in logs) == sent


@pytest.mark.parametrize("flooders", [0, 5])
@pytest.mark.parametrize("reads", [0, 1], ids=["stopped", "slow"])
@pytest.mark.parametrize("successor", [None, socket.SOCK_DGRAM, socket.SOCK_STREAM])
def test_a_log_that_is_behind_stops_nothing(flooders, reads, successor):
    with Server(), RawViewer() as viewer:
        viewer.send(SEND_ALL)
        logs, sent = [Log()], 0
        flood = [subprocess.Popen([sys.executable, "-c", FLOOD]) for _ in range(flooders)]
        await_true(lambda: not flood or logs[0].waiting(), "the flood begins")
        for sent in range(50, 501, 50):
            viewer.log(*["line"] * 50)
            for _ in range(reads):
                logs[0].read()
        for process in flood:
            process.kill()
            process.wait()
        if successor:
            logs.append(Log(successor))
        while sum(log.account() for log in logs) < sent < 2000:
            viewer.log("line")
            sent += 1
        assert sum(log.lines for log in logs) == sent
