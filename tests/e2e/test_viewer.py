"""The desk's side: the real client on a real terminal, exact bytes, keys, endings."""

import contextlib
import os
import socket
import subprocess
import tempfile
import termios
import time

from harness import (DEADLINE, HYPHENS, MARKER, PORT, PROGRAM, SEND_ALL, WRITE_FILE, RawViewer, Server, TestCase, Viewer,
                     cpu_ns, main, message, send_datagrams, shown, wait_for_dump)


class FakeServer:
    """Accepts one viewer and lets the test say every byte of the stream."""

    def __enter__(self):
        self.listener = socket.create_server(("127.0.0.1", PORT))
        self.connection = None
        return self

    def __exit__(self, *_):
        self.close()
        self.listener.close()

    def accept(self):
        self.listener.settimeout(DEADLINE)
        self.connection = self.listener.accept()[0]
        self.connection.settimeout(DEADLINE)
        self.connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)

    def expect(self, data):
        received = b""
        while len(received) < len(data):
            chunk = self.connection.recv(len(data) - len(received))
            if not chunk:
                break
            received += chunk
        if received != data:
            raise AssertionError(f"viewer sent {received!r}, not {data!r}")

    def close(self):
        if self.connection:
            self.connection.close()
            # The listener goes too: TIME_WAIT is this side's.
            self.connection = None


HELP = b"".join(line + b"\r\n" for line in b"""Key Commands:
 ?   : Print this help text
 q   : Quit the application
 +/- : Enable/disable all logs.
 c/C : Enable/disable 'kelvo' logs.
 s/S : Enable/disable 'mantle' logs.
 w/W : Enable/disable 'websock' logs.
 l/L : Enable/disable 'rvtp' logs.
 u/U : Enable/disable 'ui' logs.
 h/H : Enable/disable 'hardware' logs.
 p/P : Enable/disable 'pots' logs.
 i/I : Enable/disable 'sip' logs.
 e/E : Enable/disable 'shell' logs.
 v/V : Enable/disable 'tembrix' logs.
 m/M : Enable/disable 'mibAgent' SNMP agent logs.
 d/D : Enable/disable 'frontp' display logs.
 a   : Reprint all messages
 0-7 : Enable printout of messages with severity level higher than the
       specified number (0 = prints everything, def = 6 = sevInfo).
 A   : Reprint all messages ??
 f   : Write all messages to file './logger.txt'
 F   : Trigger server to write all messages to file './logger.txt'""".split(b"\n"))


class Keys(TestCase):
    def test_every_key_prints_what_it_should(self):
        """One session through the whole key table against a real server, byte by byte."""
        switches = {b"i": b"sip", b"n": b"nmos", b"r": b"router", b"s": b"sap"}
        with Server() as server, tempfile.TemporaryDirectory() as desk:
            send_datagrams(message("stored"), message("hidden", app="ui"),
                           message("debug", app="router", severity=7, second=31), MARKER)
            server.dump()
            with Viewer(cwd=desk) as viewer:
                viewer.expect(viewer.GREETING + shown("stored")
                              + shown("debug", app="router", severity=7, second=31))
                viewer.press(b"?", HELP)
                for key, name in switches.items():
                    viewer.press(key.upper(), b"------ " + name + b" disabled\r\n")
                    viewer.press(key, b"------ " + name + b" enabled\r\n")
                viewer.press(b"-", b"------ all disabled\r\n")
                viewer.press(b"a", HYPHENS + b"\r\n")
                viewer.press(b"r", b"------ router enabled\r\n")
                viewer.press(b"a", HYPHENS + shown("debug", app="router", severity=7, second=31) + b"\r\n")
                viewer.press(b"+", b"------ all enabled\r\n")
                # Keys that switch no component print nothing: the hyphens are the next key's.
                viewer.press(b"eElLmMuU\0x", HYPHENS)
                # Without a meaning, help text or not: one hyphen line each; Ctrl-C and Enter too.
                viewer.press(b"cwhpvdCWHPVD\x03\r\n~\x80\xff", HYPHENS * 18)
                viewer.press(b"\x1b[A", HYPHENS * 3)  # a cursor key runs no command
                viewer.press(b"[a", HYPHENS * 2)
                viewer.press(b"[q", HYPHENS * 2)
                viewer.press(b"0", b"Enabling severity up to: 0\r\n")
                viewer.press(b"a", HYPHENS + b"\r\n")
                viewer.press(b"3", b"Enabling severity up to: 3\r\n")
                for level in b"89":
                    viewer.press(bytes([level]), b"Enabling severity up to: %c\r\n" % level)
                send_datagrams(message("too fine", severity=4), message("error", severity=3))
                viewer.expect(shown("error", severity=3))
                viewer.press(b"7", b"Enabling severity up to: 7\r\n")
                # 'A' starts again from the server, whose listing now has all five programs' lines.
                viewer.press(b"A", viewer.GREETING + shown("stored")
                             + shown("debug", app="router", severity=7, second=31)
                             + shown("too fine", severity=4) + shown("error", severity=3))
                viewer.press(b"f", b"------ logger.txt created\r\n")
                self.assertEqual(wait_for_dump(desk).splitlines(), [
                    message("stored"), message("debug", app="router", severity=7, second=31),
                    message("too fine", severity=4), message("error", severity=3)])
                viewer.press(b"F", b"Trigger logger server to write a zip file\n\r")
                self.assertEqual(server.dump().splitlines()[:2],
                                 [message("stored"), message("hidden", app="ui")])
                viewer.keys(b"q")
                self.assertEqual(viewer.wait(), 0)
                self.assertEqual(viewer.screen, b"")
                self.assertEqual(viewer.settings(), viewer.before)

    def test_terminal_is_raw_in_between(self):
        with Server(), Viewer() as viewer:
            viewer.expect(viewer.GREETING)
            iflag, oflag, cflag, lflag, _, _, cc = viewer.settings()
            self.assertFalse(iflag & (termios.BRKINT | termios.INPCK | termios.ISTRIP
                                      | termios.ICRNL | termios.IXON))
            self.assertFalse(lflag & (termios.ISIG | termios.ICANON | termios.ECHO | termios.IEXTEN))
            self.assertEqual(cflag & termios.CSIZE, termios.CS8)
            self.assertEqual((oflag, cc[termios.VMIN], cc[termios.VTIME]),
                             (viewer.before[1], 1, 0))
            viewer.keys(b"q")
            self.assertEqual(viewer.wait(), 0)
            self.assertEqual(viewer.settings(), viewer.before)


class Stream(TestCase):
    def test_batches_of_whole_chunks_are_shown_at_once(self):
        """1500 x n bytes from the server: nothing waits for the next byte, keys work on."""
        with FakeServer() as server, Viewer() as viewer:
            server.accept()
            server.expect(SEND_ALL)
            viewer.expect(viewer.GREETING)
            for n in (1, 2, 7):
                texts = ["x" * (1500 - len(message("")))] * n
                server.connection.sendall(b"".join(map(message, texts)))
                viewer.expect(b"".join(map(shown, texts)))
                viewer.press(b"5", b"Enabling severity up to: 5\r\n")
                viewer.press(b"7", b"Enabling severity up to: 7\r\n")
            viewer.press(b"F", b"Trigger logger server to write a zip file\n\r")
            server.expect(WRITE_FILE)

    def test_a_whole_store_arrives(self):
        """1 MiB of messages in one listing: the screen shows every one, in order."""
        texts = [f"{n:06} {'.' * (n % 90)}" for n in range(9000)]
        with FakeServer() as server, Viewer() as viewer:
            server.accept()
            server.connection.sendall(b"".join(map(message, texts)))
            end = time.monotonic() + DEADLINE
            viewer.expect(viewer.GREETING)
            screen = b""
            while texts[-1].encode() + b"\r\n" not in screen[-200:] and time.monotonic() < end:
                viewer.read()
                screen, viewer.screen = screen + viewer.screen, b""
            lines = screen.split(b"\r\n")[:-1]
            # A batch may end, and cut a message, anywhere: nearly all are whole, none is out of order.
            wanted = {shown(text)[:-2]: n for n, text in enumerate(texts)}
            order = [wanted[line] for line in lines if line in wanted]
            self.assertEqual(order, sorted(order))
            self.assertGreater(len(order), 8900)


class Endings(TestCase):
    def test_server_gone_leaves_the_keyboard_working(self):
        with FakeServer() as server, Viewer() as viewer:
            server.accept()
            server.expect(SEND_ALL)
            server.connection.sendall(message("last"))
            viewer.expect(viewer.GREETING + shown("last"))
            server.close()
            viewer.expect(b"recv(0): Success\nRcv: nothing\r\n")
            viewer.press(b"a", HYPHENS + shown("last") + b"\r\n")
            before = cpu_ns(viewer.process.pid)
            time.sleep(0.3)
            self.assertLess(cpu_ns(viewer.process.pid) - before, 30_000_000)
            viewer.keys(b"q")
            self.assertEqual(viewer.wait(), 0)
            self.assertEqual(viewer.settings(), viewer.before)

    def test_reset_by_the_server(self):
        with FakeServer() as server, Viewer() as viewer:
            server.accept()
            viewer.expect(viewer.GREETING)
            server.connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, b"\1\0\0\0\0\0\0\0")
            server.close()
            viewer.expect(b"recv: Connection reset by peer\nRcv: error\r\n")
            viewer.keys(b"q")
            self.assertEqual(viewer.wait(), 0)

    def test_plain_viewer_without_a_keyboard(self):
        """`hvlogger client </dev/null | ...`: shows, never spins, ends with the server."""
        with FakeServer() as server:
            process = subprocess.Popen([PROGRAM, "client"], stdin=subprocess.DEVNULL,
                                       stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
            self.addCleanup(process.kill)
            server.accept()
            server.expect(SEND_ALL)
            server.connection.sendall(message("one"))
            expected = Viewer.GREETING + HYPHENS + shown("one")
            output = b""
            while len(output) < len(expected):
                chunk = os.read(process.stdout.fileno(), 65536)
                self.assertTrue(chunk)
                output += chunk
            self.assertEqual(sorted(output.split(b"\r")), sorted(expected.split(b"\r")))
            before = cpu_ns(process.pid)
            time.sleep(0.3)
            self.assertLess(cpu_ns(process.pid) - before, 30_000_000)
            server.close()
            self.assertEqual(process.stdout.read(), b"Rcv: nothing\r\n")
            self.assertEqual(process.wait(DEADLINE), 0)
            process.stdout.close()

    def test_keyboard_ends_after_the_server(self):
        with FakeServer() as server:
            process = subprocess.Popen([PROGRAM, "client"], stdin=subprocess.PIPE,
                                       stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
            self.addCleanup(process.kill)
            server.accept()
            server.expect(SEND_ALL)
            server.close()
            output = b""
            while not output.endswith(b"Rcv: nothing\r\n"):
                chunk = os.read(process.stdout.fileno(), 65536)
                self.assertTrue(chunk, output)
                output += chunk
            process.stdin.close()
            self.assertEqual(process.wait(DEADLINE), 0)
            self.assertEqual(process.stdout.read(), HYPHENS)
            process.stdout.close()

    def test_reader_of_the_output_gone(self):
        """`hvlogger client | head -1`: ends at once, also when no further line comes."""
        for more_lines in (False, True):
            with self.subTest(more_lines=more_lines), FakeServer() as server:
                reading, writing = os.pipe()
                with Viewer(stdout=writing) as viewer:
                    os.close(writing)
                    server.accept()
                    server.expect(SEND_ALL)
                    os.close(reading)
                    with contextlib.suppress(OSError):
                        if more_lines:
                            server.connection.sendall(message("line"))
                    self.assertEqual(viewer.wait(), 0)
                    self.assertEqual(viewer.settings(), viewer.before)

    def test_full_disk_under_the_output(self):
        with FakeServer() as server, open("/dev/full", "wb") as full, Viewer(stdout=full) as viewer:
            server.accept()
            self.assertEqual(viewer.wait(), 255)
            self.assertEqual(viewer.screen, b"standard output: No space left on device\n")
            self.assertEqual(viewer.settings(), viewer.before)


class RealTools(TestCase):
    def test_logger_tool_is_understood(self):
        """util-linux logger's RFC 5424 lines, as a new user would send them."""
        with Server() as server:
            send_datagrams(message("first"), MARKER)
            server.dump()
            viewer = self.enterContext(Viewer())
            viewer.expect(viewer.GREETING + shown("first"))
            subprocess.run(["logger", "--rfc5424", "--udp", "--server", "127.0.0.1", "--port", str(PORT),
                            "-t", "sip", "-p", "user.err", "--", "Call setup done"], check=True)
            end = time.monotonic() + DEADLINE
            while not viewer.screen.endswith(b"\r\n") and time.monotonic() < end:
                viewer.read()
            # Its structured data stands in front of the text, its process id is the NILVALUE.
            self.assertRegex(viewer.screen, rb"^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6}(\+00:00| |[+-]\d\d:\d\d)"
                                            rb"sip --3: - .*Call setup done\r\n$")


if __name__ == "__main__":
    main()
