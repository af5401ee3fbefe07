"""What stands in the way of a dump or of the local log: planted files, floods, a reader that stops."""

import os
import pathlib
import shutil
import socket
import tempfile
import time
import unittest

from support.harness import (LOG_DEVICE_TAKEN, MARKER, SEND_ALL, WRITE_FILE, LogDevice, RawViewer, Server, TestCase, await_true,
                     send_datagrams)

DUMP = pathlib.Path("/tmp/logger.txt")


class Dump(TestCase):
    def test_planted_link_is_not_written_through_and_old_files_are_replaced(self):
        with Server() as server, RawViewer() as viewer:
            viewer.send(SEND_ALL)
            victim = pathlib.Path(server.directory.name, "victim")
            victim.write_text("precious")
            DUMP.symlink_to(victim)
            send_datagrams(MARKER)
            viewer.log("after the request")
            self.assertEqual(victim.read_text(), "precious")
            DUMP.unlink()
            DUMP.write_text("left over " * 1000)
            DUMP.with_suffix(".txt.gz").write_text("left over")
            self.assertEqual(server.collect(), viewer.received + b"\n")

    def test_flood_of_requests_runs_one_job_and_leaves_nothing(self):
        """gzip is held up while hundreds of requests arrive: its file stays as it is, nothing piles up."""
        tools = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        held, started = tools / "held", tools / "started"
        (tools / "gzip").write_text(f"#!/bin/sh\necho >>{started}\nwhile [ -e {held} ]; do sleep 0.1; done\n"
                                    f'exec {shutil.which("gzip")} "$@"\n')
        (tools / "gzip").chmod(0o755)
        held.touch()
        path = f"{tools}:{os.environ['PATH']}"
        with Server(env={**os.environ, "PATH": path}) as server, RawViewer() as viewer:
            viewer.send(SEND_ALL)
            viewer.log(*[f"before {n}" for n in range(100)])
            before = viewer.received.replace(b"<14>1", b"\n<14>1")[1:] + b"\n"
            send_datagrams(MARKER)
            await_true(started.exists, "the job begins")
            for n in range(10):
                send_datagrams(*[MARKER] * 20)
                for _ in range(5):
                    viewer.send(WRITE_FILE)
                viewer.log(f"during {n}")
            self.assertEqual(started.read_text(), "\n")
            descriptors = server.descriptors()  # the one that tells the job's end is kept
            held.unlink()
            self.assertEqual(server.dump(), before)
            # One after the other they work, also the moment that the last dump is there.
            for n in range(3):
                self.assertEqual(server.collect().count(b"\n"), 110)
            await_true(lambda: running_in(server) == [server.process.pid], "the jobs are gone")
            self.assertEqual(server.descriptors(), descriptors)


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

    def expect(self, log, *texts):
        """The log must have got exactly these lines, and reports of how many were skipped."""
        self.assertEqual(self.records(log), [
            (b"hvlogger", f"{text} not passed on to the local log") if text.endswith(("was", "were")) else (b"sip", text)
            for text in texts])

    def fill(self):
        """Fills the log's queue."""
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as sender:
            sender.setblocking(False)
            with self.assertRaises(BlockingIOError):
                while True:
                    sender.sendto(b"<13>filler[1]: x", "/dev/log")

    def test_stalled_log_holds_up_nothing_and_learns_what_it_missed(self):
        with Server(), RawViewer() as viewer:
            viewer.send(SEND_ALL)
            with LogDevice() as log:
                # The reader stands still, then goes on.
                texts = [str(n) for n in range(1000)]
                viewer.log(*texts)
                passed = self.records(log)
                self.assertEqual(passed, [(b"sip", text) for text in texts[:len(passed)]])
                viewer.log("again", "and again")
                self.expect(log, "again", f"{1000 - len(passed)} lines were", "and again")
                self.fill()
                viewer.log("one")
                self.records(log)
                viewer.log("more")
                self.expect(log, "more", "1 line was")
                # It never does; its successor learns it.
                self.fill()
                viewer.log("two", "three")
            viewer.log("to nobody, as there is no log")
            with LogDevice() as log:
                viewer.log("back")
                self.expect(log, "back", "2 lines were")
            # A successor that is full before anything was noticed.
            with LogDevice() as log:
                self.fill()
                time.sleep(0.01)  # the name is looked up again after this long at the latest
                viewer.log("four")
                self.records(log)
                viewer.log("five")
                self.expect(log, "five", "1 line was")
