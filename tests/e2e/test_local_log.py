"""The local log, whoever reads it and however: every line arrives there or is told as skipped, and nothing stops."""

import pathlib
import re
import select
import socket
import subprocess
import sys

import pytest
from support.harness import LOG_DEVICE_TAKEN, LogDevice, await_true

pytestmark = pytest.mark.skipif(LOG_DEVICE_TAKEN, reason="/dev/log cannot be this test's own")
FLOOD = """import socket
log = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
log.connect("/dev/log")
while True: log.send(b"flood")"""


class Log:
    """Takes over the log's name; counts the lines that it was passed and those it was told of as skipped."""

    def __init__(self, kind):
        pathlib.Path("/dev/log").unlink(missing_ok=True)
        self.kind, self.lines, self.last = kind, 0, 0
        self.socket = socket.socket(socket.AF_UNIX, kind)
        self.socket.bind("/dev/log")
        if kind == socket.SOCK_STREAM:
            self.socket.listen()

    def read(self):
        """Reads a record, if there is one."""
        if self.socket.fileno() == -1 or not select.select([self.socket], [], [], 0)[0]:
            return False
        record = (self.socket.accept()[0] if self.kind == socket.SOCK_STREAM else self.socket).recv(65536)
        if told := re.match(rb"<44>.{16}hvlogger\[\d+\]: (\d+) lines? w(as|ere) not passed on to the local log", record):
            self.lines += int(told[1])
        elif line := re.match(rb"<14>.{16}sip\[\d+\]: (\d+)", record):
            assert int(line[1]) > self.last
            self.lines, self.last = self.lines + 1, int(line[1])
        return True

    def account(self):
        while self.read():
            pass
        return self.lines


def test_lines_reach_whoever_has_the_name_of_the_log(viewer):
    viewer.log("nobody")
    logs, sent = [], 0
    for kind, last in [("DGRAM", ""), ("DGRAM", "is open"), ("DGRAM", "has ended"), ("STREAM", "has ended"),
                       ("DGRAM", "is open"), ("STREAM", "is open"), ("STREAM", "has ended"), ("DGRAM", "has ended")]:
        if last == "has ended":
            logs[-1].socket.close()
        logs.append(Log(getattr(socket, f"SOCK_{kind}")))
        while not [log.account() for log in logs][-1] and sent < 2000:
            viewer.log(str(sent := sent + 1))
        assert logs[-1].lines and sum(log.lines for log in logs) == sent


@pytest.mark.parametrize("flooders", [0, 5])
@pytest.mark.parametrize("reads", [0, 1], ids=["stopped", "slow"])
@pytest.mark.parametrize("successor", [None, socket.SOCK_DGRAM, socket.SOCK_STREAM])
def test_a_log_that_is_behind_stops_nothing(flooders, reads, successor, viewer):
    logs = [Log(socket.SOCK_DGRAM)]
    flood = [subprocess.Popen([sys.executable, "-c", FLOOD]) for _ in range(flooders)]
    await_true(lambda: not flood or logs[0].read(), "the flood begins")
    for sent in range(50, 501, 50):
        viewer.log(*map(str, range(sent - 49, sent + 1)))
        for _ in range(reads):
            logs[0].read()
    for process in flood:
        process.kill()
        process.wait()
    if successor:
        logs.append(Log(successor))
    while sum(log.account() for log in logs) < sent < 2000:
        viewer.log(str(sent := sent + 1))
    assert sum(log.lines for log in logs) == sent


@pytest.mark.parametrize("skipped, replaced, report", [(1, False, b"1 line was"), (2, True, b"2 lines were")])
def test_skipped_lines_are_told_once(skipped, replaced, report, viewer):
    log = LogDevice()
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as other, pytest.raises(BlockingIOError):
        other.setblocking(False)
        while True:
            other.sendto(b"fills the queue", "/dev/log")
    viewer.log(*["skipped"] * skipped)
    if replaced:
        log.close()
        log = LogDevice()
    while not log.silent():
        log.record()
    viewer.log("next", "last")
    texts = [log.record().partition(b"]: ")[2] for _ in range(3)]
    assert texts == [b"next", report + b" not passed on to the local log", b"last"] and log.silent()
    log.close()
