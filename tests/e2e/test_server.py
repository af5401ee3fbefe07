"""The device's side: what becomes of a datagram, and what viewers of any kind get."""

import os
import pathlib
import time
import unittest

from harness import (LOG_DEVICE_TAKEN, MARKER, SEND_ALL, WRITE_FILE, LogDevice, RawViewer, Server, TestCase,
                     await_true, cpu_ns, main, message, send_datagrams)


@unittest.skipIf(LOG_DEVICE_TAKEN, "/dev/log cannot be this test's own")
class LocalLog(TestCase):
    def test_datagrams_reach_the_local_log(self):
        """Each datagram gives exactly one record: priority, program and text as it came."""
        cases = [
            (message("Call setup done"), b"<14>", b"sip", b"Call setup done"),
            (message("x", app="ui", severity=1, facility=16), b"<129>", b"ui", b"x"),
            (message("with newline") + b"\n", b"<14>", b"sip", b"with newline"),
            (message("100 %s %n done"), b"<14>", b"sip", b"100 %s %n done"),
            (b"hello", b"<13>", b"", b""),
            (b"no priority dev01 app pid - text", b"<13>", b"app", b"text"),
            (b"<134>Mar  5 10:20:30 dev01 app: a - b", b"<134>", b"10:20:30", b"b"),
            (b"<99999>1 t dev01 sip 4 - large", b"<671>", b"sip", b"large"),
            (message("before\0after"), b"<14>", b"sip", b"before"),
            (message("one", severity=3) + message("two", app="nmos", severity=7),
             b"<11>", b"sip", b"one" + message("two", app="nmos", severity=7)),
        ]
        with LogDevice() as log, Server():
            for datagram, priority, program, text in cases:
                with self.subTest(datagram=datagram):
                    send_datagrams(datagram)
                    record = log.record()
                    self.assertTrue(record.startswith(priority), record)
                    # "<priority>Mmm dd hh:mm:ss program[pid]: text"
                    head, _, body = record.partition(b"]: ")
                    self.assertEqual(head[len(priority) + 16:].split(b"[")[0], program, record)
                    self.assertEqual(body, text, record)
            self.assertTrue(log.silent())

    def test_dump_requests_and_empty_datagrams_are_no_log_lines(self):
        with LogDevice() as log, Server() as server:
            send_datagrams(message("first"), b"", message("with " + MARKER.decode()), b"")
            send_datagrams(message("last", app="unknown"))
            self.assertIn(b"first", log.record())
            self.assertIn(b"last", log.record())
            self.assertTrue(log.silent())
            self.assertEqual(server.dump(), message("first") + b"\n")

    def test_without_a_local_log_everything_is_still_collected(self):
        with Server() as server, RawViewer() as viewer:
            viewer.send(SEND_ALL)
            send_datagrams(*[message(str(n)) for n in range(20)])
            send_datagrams(MARKER)
            self.assertEqual(server.dump().count(b"\n"), 20)


class ViewerProtocol(TestCase):
    def test_what_a_viewer_is_sent(self):
        """Listing filtered by program and facility; then each newest message, whatever it is."""
        stored = [message("one"), message("no component", app="ui"), message("odd", facility=24),
                  message("two", app="prothandler", severity=7)]
        with Server() as server:
            send_datagrams(*stored, MARKER)
            server.dump()
            with RawViewer() as viewer:
                viewer.send(SEND_ALL)
                expected = stored[0] + stored[3]
                viewer.expect(expected)
                for datagram, newest in [
                        (message("live"), message("live")),
                        (message("other", app="ui"), message("other", app="ui")),
                        (b"hello", message("other", app="ui")),
                        (message("a") + message("b", app="nmos"), message("b", app="nmos")),
                        (message("c") + b"\n", message("c"))]:
                    send_datagrams(datagram)
                    expected += newest
                    viewer.expect(expected)

    def test_datagram_limits(self):
        """5000 bytes arrive whole, of 5001 the last is lost."""
        whole = message("x" * (5000 - len(message(""))))
        with Server(), RawViewer() as viewer:
            viewer.send(SEND_ALL)
            send_datagrams(whole)
            viewer.expect(whole)
            send_datagrams(whole + b"y")
            viewer.expect(whole * 2)

    def test_commands_and_what_is_none(self):
        with Server() as server, RawViewer() as viewer:
            # Empty store: the listing sends nothing, so the first bytes are the live message.
            for batch in (SEND_ALL, b"\x01\0\0", b"\x07\0\0\0", b"\xff\xff\xff\xff"):
                viewer.send(batch)
            send_datagrams(message("m"))
            viewer.expect(message("m"))
            viewer.send(WRITE_FILE + SEND_ALL)  # one batch: only the first command counts
            self.assertEqual(server.dump(), message("m") + b"\n")
            viewer.expect(message("m"))
            self.assertFalse(viewer.waiting())
            send_datagrams(message("n"))
            viewer.expect(message("m") + message("n"))

    def test_batches_of_whole_chunks_do_not_block(self):
        """1500 x n bytes from a viewer: the next read must not wait for more."""
        with Server(), RawViewer() as viewer:
            expected = b""
            for n in (1, 2, 3, 40):
                viewer.send(bytes(1500 * n))
                send_datagrams(message(str(n)))
                expected += message(str(n))
                viewer.expect(expected)

    def test_reconnect_starts_with_the_whole_store(self):
        stored = b""
        with Server() as server:
            descriptors = len(os.listdir(f"/proc/{server.process.pid}/fd"))
            for n in range(3):
                with RawViewer() as viewer:
                    if stored:
                        viewer.send(SEND_ALL)
                        viewer.expect(stored)
                    viewer.send(b"\x07\0\0\0")
                    # Once this one is served, the server is in its connected state.
                    send_datagrams(message(str(n)))
                    stored += message(str(n))
                    viewer.expect(stored)
                await_true(lambda n=n: server.output.count(b"recv(0)") == n + 1, "viewer leaves")
                # Sent while no viewer is there: nothing is queued for it but the store.
                send_datagrams(message("between"), MARKER)
                server.dump()
                stored += message("between")
            await_true(lambda: len(os.listdir(f"/proc/{server.process.pid}/fd")) == descriptors,
                       "no viewer leaves a descriptor behind")

    def test_reset_by_the_viewer(self):
        with Server() as server:
            for n in range(3):
                viewer = RawViewer()
                viewer.send(b"\x07\0\0\0")
                send_datagrams(message(str(n)))
                viewer.expect(message(str(n)))
                viewer.reset()
                # A forward to nobody ends nothing, whatever the moment.
                send_datagrams(*[message("lost", app="ui")] * 5, MARKER)
                server.dump()
            with RawViewer() as viewer:
                viewer.send(SEND_ALL)
                viewer.expect(message("0") + message("1") + message("2"))
            self.assertIsNone(server.process.poll())

    def test_second_viewer_waits_at_no_cost(self):
        with Server() as server:
            send_datagrams(message("one"), MARKER)
            server.dump()
            with RawViewer() as first, RawViewer() as second:
                first.send(SEND_ALL)
                first.expect(message("one"))
                second.socket.sendall(SEND_ALL)
                before = cpu_ns(server.process.pid)
                time.sleep(0.5)  # a spinning server uses all of it
                self.assertLess(cpu_ns(server.process.pid) - before, 50_000_000)
                send_datagrams(message("two"))
                first.expect(message("one") + message("two"))
                self.assertFalse(second.waiting())
                first.socket.close()
                second.expect(message("one") + message("two"))

    def test_silent_peer_holds_up_nothing(self):
        with Server() as server, RawViewer() as silent:
            send_datagrams(message("one"), message("two"), MARKER)
            self.assertEqual(server.dump(), message("one") + b"\n" + message("two") + b"\n")
            silent.send(SEND_ALL)
            await_true(silent.waiting, "the peer is served once it asks")


class Descriptors(TestCase):
    def test_all_are_close_on_exec(self):
        """No dump job inherits a port: checked on the live process, viewer included."""
        with Server() as server, RawViewer() as viewer:
            send_datagrams(message("m"))
            viewer.send(SEND_ALL)
            await_true(viewer.waiting, "the viewer is served")
            folder = pathlib.Path(f"/proc/{server.process.pid}")
            own = [fd.name for fd in (folder / "fd").iterdir() if int(fd.name) > 2]
            self.assertEqual(len(own), 4)  # log port, system log, listening socket, viewer
            for fd in own:
                flags = (folder / "fdinfo" / fd).read_text().split("flags:")[1].split()[0]
                self.assertTrue(int(flags, 8) & 0o2000000, fd)


if __name__ == "__main__":
    main()
