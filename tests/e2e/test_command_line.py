"""What a person meets first: arguments, exit statuses, and the failures of starting up."""

import errno
import signal
import socket
import subprocess

from support.harness import (DEADLINE, PORT, PROGRAM, FakeServer, Server, TestCase, Viewer, await_true, failing, listening,
                     message, sockets)

BANNER = b"***** Halvane logger *****\n"


class CommandLine(TestCase):
    def test_arguments_decide_what_runs(self):
        usage = f"Usage: {PROGRAM} server/client [ip]\n"
        cases = [(arguments, 255, usage) for arguments in (
            [], ["server", "0.0.0.0", "x"], ["server", "localhost"], ["client", ""], ["client", "1.2.3"],
            ["server", "::1"], ["client", "256.1.1.1"])]
        cases += [(arguments, 0, "") for arguments in (
            ["Server"], ["CLIENT"], [""], ["servers"], ["start", "not an address"])]
        cases += [(["client"], 0, f"{PROGRAM}: Cannot connect to server\n")]
        for arguments, status, output in cases:
            with self.subTest(arguments=arguments):
                done = subprocess.run([PROGRAM, *arguments], stdin=subprocess.DEVNULL, capture_output=True,
                                      timeout=DEADLINE, check=False)
                self.assertEqual((done.returncode, done.stdout.decode(), done.stderr), (status, output, b""))
                self.assertFalse(listening())

    def test_client_that_cannot_go_on_restores_the_terminal(self):
        with Viewer() as viewer:
            viewer.expect(f"{PROGRAM}: Cannot connect to server\n".encode())
            self.assertEqual((viewer.wait(), viewer.settings()), (0, viewer.before))
        with FakeServer() as server, Viewer(preexec_fn=failing("pselect6", errno.EINTR)) as viewer:
            server.accept()
            viewer.expect(viewer.GREETING + b"select: Interrupted system call\nSelect error -3148\n")
            self.assertEqual((viewer.wait(), viewer.settings()), (180, viewer.before))

    def test_closed_standard_descriptors_are_not_taken_by_sockets(self):
        """A viewer whose keyboard or screen is closed neither reads keys from the log nor logs to the server."""
        for closed in ("<&-", ">&-"):
            with FakeServer() as server:
                client = subprocess.Popen(["sh", "-c", f'exec "$0" client {closed}', PROGRAM],
                                          stdin=subprocess.PIPE, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
                self.addCleanup(client.wait)
                self.addCleanup(client.kill)
                server.accept()
                server.connection.sendall(b"F" + message("F"))
                server.connection.shutdown(socket.SHUT_WR)
                client.stdin.close()
                self.assertEqual(server.connection.recv(100), b"", closed)


class ServerStart(TestCase):
    def expect_end(self, server, status, output):
        self.assertEqual(server.process.wait(DEADLINE), status)
        self.assertEqual(server.output, BANNER + output)

    def test_interrupted_while_waiting(self):
        with Server() as server:
            server.process.send_signal(signal.SIGINT)
            self.expect_end(server, 180, b"Select error -3148\n")

    def test_ports_that_cannot_be_had_are_reported(self):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as taken:
            taken.bind(("0.0.0.0", PORT))
            with Server() as server:
                self.expect_end(server, 255, b"Address already in use: 0.0.0.0:50000\n"
                                             b"Cannot listen at logger port 50000\n")
        with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as taken:
            taken.bind(("127.0.0.1", PORT))  # bound, not listening: Server() waits for its own
            with Server(may_linger=False) as server:
                self.expect_end(server, 255, b"Cannot bind to port: 50000\n")
        with Server(preexec_fn=failing("listen", errno.EADDRINUSE)) as server:
            self.expect_end(server, 255, b"Cannot listen on port: 50000\n")

    def test_address_is_the_viewers_alone(self):
        with Server():  # by default every interface
            for address in "127.0.0.1", "127.0.0.3":
                socket.create_connection((address, PORT)).close()
        with Server("127.0.0.2") as server:
            with self.assertRaises(ConnectionRefusedError):
                socket.create_connection(("127.0.0.1", PORT))
            socket.create_connection(("127.0.0.2", PORT)).close()
            await_true(lambda: b"recv(0)" in server.output, "the server sees that viewer leave")
            self.assertIn(("00000000", PORT), [row[:2] for row in sockets("udp")])
