"""The device's side: what becomes of a datagram, and what viewers of any kind get."""

import pathlib
import resource
import socket
import unittest

from support.harness import (LOG_DEVICE_TAKEN, MARKER, PROGRAM, SEND_ALL, WRITE_FILE, LogDevice, RawViewer, Server, TestCase,
                     await_true, idle, message, send_datagrams, unread)


class Datagrams(TestCase):
    @unittest.skipIf(LOG_DEVICE_TAKEN, "/dev/log cannot be this test's own")
    def test_each_log_line_reaches_the_local_log_as_it_came(self):
        """Exactly one record for each datagram but dump requests and empty ones: priority, program and text."""
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
        with LogDevice() as log, Server() as server:
            for datagram, priority, program, text in cases:
                with self.subTest(datagram=datagram):
                    send_datagrams(b"", message("with " + MARKER.decode()), datagram)
                    server.dump()
                    # "<priority>Mmm dd hh:mm:ss program[pid]: text"
                    head, _, body = log.record().partition(b"]: ")
                    self.assertRegex(head, rb"\A%s.{16}%s\[\d+\Z" % (priority, program))
                    self.assertEqual(body, text)
            self.assertTrue(log.silent())


class ViewerProtocol(TestCase):
    def test_what_a_viewer_is_sent(self):
        """Listing filtered by program and facility; then each newest message, whatever it is."""
        stored = [message("one"), message("no component", app="ui"), message("odd", facility=24),
                  message("two", app="prothandler", severity=7)]
        other, whole = message("other", app="ui"), message("x" * (5000 - len(message(""))))
        with Server() as server:
            server.collect(*stored)
            viewer = self.enterContext(RawViewer())
            viewer.send(SEND_ALL)
            viewer.expect(stored[0] + stored[3])
            for datagram, newest in [
                    (message("live"), message("live")),
                    (other, other),
                    (b"hello", other),
                    (message("a") + message("b", app="nmos"), message("b", app="nmos")),
                    (message("c") + b"\n", message("c")),
                    (whole, whole),
                    (whole + b"y", whole)]:  # beyond 5000 bytes a datagram is cut
                send_datagrams(datagram)
                viewer.expect(viewer.received + newest)

    def test_commands_and_what_is_none(self):
        with Server() as server, RawViewer() as viewer:
            # Empty store: the listing sends nothing, so the first bytes are the live message. Of a batch that fills
            # whole chunks the next read must not wait for more.
            for batch in (SEND_ALL, b"\x01\0\0", b"\x07\0\0\0", b"\xff\xff\xff\xff",
                          *[bytes(1500 * n) for n in (1, 2, 3, 40)]):
                viewer.send(batch)
                viewer.log(str(len(batch)))
            viewer.send(WRITE_FILE + SEND_ALL)  # one batch: only the first command counts
            self.assertEqual(server.dump().count(b"\n"), 8)
            viewer.log("last")
            self.assertFalse(viewer.waiting())

    def test_viewers_come_and_go(self):
        """Each that asks gets the whole store; what is logged in between waits there; none leaves a descriptor."""
        stored = b""
        with Server() as server:
            descriptors = server.descriptors()
            for n in range(6):
                with RawViewer() as viewer:
                    viewer.send(SEND_ALL)
                    viewer.expect(stored)
                    viewer.log(str(n))
                    if n % 2 == 0:
                        viewer.reset()
                # A forward to nobody ends nothing, whatever the moment.
                server.collect(*[message("lost", app="ui")] * 5, message("between"))
                stored = viewer.received + message("between")
            await_true(lambda: server.descriptors() == descriptors, "no viewer leaves a descriptor behind")

    def test_one_viewer_at_a_time_and_waiting_costs_nothing(self):
        with Server() as server, RawViewer() as first, RawViewer() as second:
            await_true(lambda: len(server.descriptors()) == 4, "the first one is accepted")
            server.collect(message("one"))  # while it keeps silent
            first.expect(message("one"))
            first.send(SEND_ALL)
            first.expect(message("one") * 2)
            second.socket.sendall(SEND_ALL)
            self.assertTrue(idle(server.process.pid))
            first.log("two")
            self.assertFalse(second.waiting())
            first.socket.close()
            second.expect(message("one") + message("two"))

    @unittest.skipIf(b"__ubsan_" in pathlib.Path(PROGRAM).read_bytes(), "that sanitizer needs descriptors of its own")
    def test_viewer_that_the_system_refuses_is_served_later_and_waiting_costs_nothing(self):
        with Server() as server:
            limit = resource.RLIMIT_NOFILE
            allowed = resource.prlimit(server.process.pid, limit)
            resource.prlimit(server.process.pid, limit, (3 + len(server.descriptors()), allowed[1]))
            with RawViewer() as viewer:
                self.assertTrue(idle(server.process.pid))
                resource.prlimit(server.process.pid, limit, allowed)
                viewer.send(SEND_ALL)
                viewer.log("served")

    def test_stalled_viewer_gets_everything_later_or_is_dropped(self):
        texts = [f"{n:05} {'x' * 900}" for n in range(9000)]

        def collect(some):
            """No faster than the server takes them: its receive queue is never full."""
            for start in range(0, len(some), 40):
                send_datagrams(*map(message, some[start:start + 40]))
                await_true(lambda: not unread(0, "udp"), "the server goes on collecting")

        with Server() as server:
            # More than the socket buffers take, less than is kept for it; even if it has ended its side.
            with RawViewer(receive_buffer=4096) as stalled:
                stalled.send(SEND_ALL)
                collect(texts[:4500])
                stalled.socket.shutdown(socket.SHUT_WR)
                self.assertTrue(idle(server.process.pid))
                stalled.expect(b"".join(map(message, texts[:4500])))
                self.assertEqual(stalled.socket.recv(1), b"")
            # Far more than is kept: it is disconnected, and the next viewer gets the newest 1 MiB.
            with RawViewer(receive_buffer=4096) as stalled:
                stalled.send(SEND_ALL)
                collect(texts + texts)
                with RawViewer() as viewer:
                    viewer.send(SEND_ALL)
                    newest = (1 << 20) // len(message(texts[0]))
                    viewer.expect(b"".join(map(message, texts[-newest:])))

    def test_no_descriptor_is_inherited_by_dump_jobs(self):
        with Server() as server, RawViewer() as viewer:
            viewer.send(SEND_ALL)
            viewer.log("m")
            own = server.descriptors()
            self.assertEqual(len(own), 4)  # log port, system log, listening socket, viewer
            for fd in own:
                info = pathlib.Path(f"/proc/{server.process.pid}/fdinfo/{fd}").read_text()
                self.assertTrue(int(info.split("flags:")[1].split()[0], 8) & 0o2000000, fd)
