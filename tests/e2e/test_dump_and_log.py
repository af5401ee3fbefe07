"""What stands in the way of a dump or of the local log: planted files, floods, a reader that stops."""

import os
import pathlib
import shutil
import socket
import tempfile
import time
import unittest
from unittest import mock

from harness import (LOG_DEVICE_TAKEN, MARKER, SEND_ALL, WRITE_FILE, LogDevice, RawViewer, Server, TestCase, await_true, main,
                     message, send_datagrams)

DUMP = pathlib.Path("/tmp/logger.txt")


class Conversation:
    """A server and a viewer that sees every message as it is logged."""

    def __init__(self, viewer):
        self.viewer = viewer
        self.stream = b""
        viewer.send(SEND_ALL)

    def log(self, *texts):
        """Logs the texts; the server has done all that it does with them when the viewer has them."""
        for start in range(0, len(texts), 50):
            datagrams = [message(text) for text in texts[start:start + 50]]
            send_datagrams(*datagrams)
            self.stream += b"".join(datagrams)
            self.viewer.expect(self.stream)


class Dump(TestCase):
    def test_planted_link_is_not_written_through(self):
        with Server() as server, RawViewer() as viewer:
            talk = Conversation(viewer)
            victim = pathlib.Path(server.directory.name, "victim")
            victim.write_text("precious")
            DUMP.symlink_to(victim)
            send_datagrams(MARKER)
            talk.log("after the request")
            self.assertEqual(victim.read_text(), "precious")
            DUMP.unlink()
            send_datagrams(MARKER)
            self.assertEqual(server.dump(), talk.stream + b"\n")

    def test_flood_of_requests_runs_one_job_and_leaves_nothing(self):
        """gzip is held up while hundreds of requests arrive: its file stays as it is, nothing piles up."""
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        tools = pathlib.Path(folder.name)
        held, started = tools / "held", tools / "started"
        (tools / "gzip").write_text(f"#!/bin/sh\necho >>{started}\nwhile [ -e {held} ]; do sleep 0.1; done\n"
                                    f'exec {shutil.which("gzip")} "$@"\n')
        (tools / "gzip").chmod(0o755)
        held.touch()
        with (mock.patch.dict(os.environ, PATH=f"{tools}:{os.environ['PATH']}"), Server() as server,
              RawViewer() as viewer):
            talk = Conversation(viewer)
            talk.log(*[f"before {n}" for n in range(100)])
            before = talk.stream.replace(b"<14>1", b"\n<14>1")[1:] + b"\n"
            descriptors = descriptors_of(server)
            send_datagrams(MARKER)
            await_true(started.exists, "the job begins")
            for n in range(10):
                send_datagrams(*[MARKER] * 20)
                for _ in range(5):
                    viewer.send(WRITE_FILE)
                talk.log(f"during {n}")
            self.assertEqual(started.read_text(), "\n")
            held.unlink()
            self.assertEqual(server.dump(), before)
            # One after the other they work, also the moment that the last dump is there.
            for n in range(3):
                send_datagrams(MARKER)
                self.assertEqual(server.dump().count(b"\n"), 110)
            await_true(lambda: running_in(server) == [server.process.pid], "the jobs are gone")
            self.assertEqual(descriptors_of(server), descriptors)


def descriptors_of(server):
    return sorted(os.listdir(f"/proc/{server.process.pid}/fd"))


def running_in(server):
    """Processes whose working directory is the server's."""
    found = []
    for process in pathlib.Path("/proc").glob("[0-9]*"):
        try:
            if os.readlink(process / "cwd") == os.path.realpath(server.directory.name):
                found.append(int(process.name))
        except OSError:  # it has just ended
            pass
    return found


@unittest.skipIf(LOG_DEVICE_TAKEN, "/dev/log cannot be this test's own")
class StalledLog(TestCase):
    def records(self, log):
        """What has reached the log, as (program, text)."""
        found = []
        while not log.silent():
            head, _, text = log.record().partition(b"]: ")
            found.append((head.split()[-1].split(b"[")[0], text.decode()))
        return found

    def report(self, text):
        return (b"hvlogger", text + " not passed on to the local log")

    def fill(self):
        """Fills the log's queue."""
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as sender:
            sender.setblocking(False)
            with self.assertRaises(BlockingIOError):
                while True:
                    sender.sendto(b"<13>filler[1]: x", "/dev/log")

    def test_stalled_log_holds_up_nothing_and_learns_what_it_missed(self):
        with Server(), RawViewer() as viewer:
            talk = Conversation(viewer)
            with LogDevice() as log:
                # The reader stands still, then goes on.
                texts = [str(n) for n in range(1000)]
                talk.log(*texts)
                passed = self.records(log)
                self.assertEqual(passed, [(b"sip", text) for text in texts[:len(passed)]])
                talk.log("again", "and again")
                self.assertEqual(self.records(log), [
                    (b"sip", "again"), self.report(f"{1000 - len(passed)} lines were"), (b"sip", "and again")])
                self.fill()
                talk.log("one")
                self.records(log)
                talk.log("more")
                self.assertEqual(self.records(log), [(b"sip", "more"), self.report("1 line was")])
                # It never does; its successor learns it.
                self.fill()
                talk.log("two", "three")
            talk.log("to nobody, as there is no log")
            with LogDevice() as log:
                talk.log("back")
                self.assertEqual(self.records(log), [(b"sip", "back"), self.report("2 lines were")])
            # A successor that is full before anything was noticed.
            with LogDevice() as log:
                self.fill()
                time.sleep(0.01)  # the name is looked up again after this long at the latest
                talk.log("four")
                self.records(log)
                talk.log("five")
                self.assertEqual(self.records(log), [(b"sip", "five"), self.report("1 line was")])


if __name__ == "__main__":
    main()
