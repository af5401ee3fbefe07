"""The local log, whoever reads it and however: every line arrives there or is told as skipped, and nothing stops."""

import contextlib
import re
import select
import subprocess
import sys
from socket import AF_UNIX, SOCK_DGRAM, SOCK_STREAM, socket

import pytest
from support.harness import LOG_DEVICE_TAKEN, LogDevice

pytestmark = pytest.mark.skipif(LOG_DEVICE_TAKEN, reason="/dev/log cannot be this test's own")
FLOOD = "import socket\nlog = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)\nlog.connect('/dev/log')\nwhile True: log.send(b'flood')"
TOLD = rb"<44>.{16}hvlogger\[\d+\]: (1(?= line was )|\d+(?= lines were )) lines? w\w+ not passed on to the local log"


class Log(LogDevice):
    """Takes over the log's name; counts the lines that it was passed and those it was told of as skipped."""

    def __init__(self, kind):
        super().__init__(kind)
        self.lines = self.last = 0
        if kind == SOCK_STREAM:
            self.socket.listen()

    def account(self, records=10000):
        while records and self.socket.fileno() != -1 and select.select([self.socket], [], [], 0)[0]:
            record = (self.socket.accept()[0] if self.socket.type == SOCK_STREAM else self.socket).recv(65536)
            if told := re.match(TOLD, record):
                self.lines += int(told[1])
            elif line := re.match(rb"<14>.{16}sip\[\d+\]: (\d+)", record):
                assert int(line[1]) > self.last
                self.lines, self.last = self.lines + 1, int(line[1])
            records -= 1
        return self.lines


def test_lines_reach_whoever_has_the_name_of_the_log(viewer):
    viewer.log("nobody")
    logs, sent = [], 0
    for kind, last_ended in [(SOCK_DGRAM, 0), (SOCK_DGRAM, 0), (SOCK_DGRAM, 1), (SOCK_STREAM, 1),
                             (SOCK_DGRAM, 0), (SOCK_STREAM, 0), (SOCK_STREAM, 1), (SOCK_DGRAM, 1)]:
        if last_ended:
            logs[-1].socket.close()
        logs.append(Log(kind))
        while not [log.account() for log in logs][-1] and sent < 2000:
            viewer.log(str(sent := sent + 1))
        assert logs[-1].lines and sum(log.lines for log in logs) == sent


@pytest.mark.parametrize("reads", [0, 1], ids=["stopped", "slow"])
@pytest.mark.parametrize("behind, others", [(1, 0), (2, 0), (300, 0), (300, 5)])
@pytest.mark.parametrize("successor", [None, SOCK_DGRAM, SOCK_STREAM])
def test_a_log_that_is_behind_stops_nothing(reads, behind, others, successor, viewer):
    logs = [Log(SOCK_DGRAM)]
    with socket(AF_UNIX, SOCK_DGRAM) as other, contextlib.suppress(BlockingIOError):
        other.setblocking(False)
        while True:
            other.sendto(b"fills the queue", "/dev/log")
    with contextlib.ExitStack() as stack:
        for _ in range(others):
            stack.callback(stack.enter_context(subprocess.Popen([sys.executable, "-c", FLOOD])).kill)
        for sent in range(1, behind + 1):
            viewer.log(str(sent))
            logs[0].account(reads)
    logs += [Log(successor)] if successor else []
    while sum(log.account() for log in logs) < sent < 2000:
        viewer.log(str(sent := sent + 1))
    viewer.log(str(sent + 1))  # after what was told
    assert sum(log.account() for log in logs) == sent + 1
