"""What a person meets first: arguments, exit statuses, and the failures of starting up."""

import pathlib
import signal
import socket
import subprocess

from harness import DEADLINE, PORT, PROGRAM, Server, TestCase, Viewer, await_true, listening, main


def run(*arguments):
    done = subprocess.run([PROGRAM, *arguments], stdin=subprocess.DEVNULL, capture_output=True,
                          timeout=DEADLINE, check=False)
    return done.returncode, done.stdout.decode(), done.stderr.decode()


class CommandLine(TestCase):
    def test_wrong_arguments_print_the_usage_line(self):
        usage = f"Usage: {PROGRAM} server/client [ip]\n"
        for arguments in ([], ["server", "0.0.0.0", "x"], ["server", "localhost"], ["client", ""],
                          ["client", "1.2.3"], ["server", "::1"], ["client", "256.1.1.1"]):
            with self.subTest(arguments=arguments):
                self.assertEqual(run(*arguments), (255, usage, ""))
                self.assertFalse(listening())

    def test_unknown_modes_are_silent(self):
        for arguments in (["Server"], ["CLIENT"], [""], ["servers"], ["start", "not an address"]):
            with self.subTest(arguments=arguments):
                self.assertEqual(run(*arguments), (0, "", ""))

    def test_client_without_a_server(self):
        self.assertEqual(run("client"), (0, f"{PROGRAM}: Cannot connect to server\n", ""))
        with Viewer() as viewer:  # on a terminal, which must be restored
            viewer.expect(f"{PROGRAM}: Cannot connect to server\n".encode())
            self.assertEqual(viewer.wait(), 0)
            self.assertEqual(viewer.settings(), viewer.before)


class ServerStart(TestCase):
    def test_interrupted_while_waiting(self):
        with Server() as server:
            self.assertEqual(server.stop(signal.SIGINT), 180)
            self.assertEqual(server.output, b"***** Halvane logger *****\nSelect error -3148\n")

    def test_log_port_taken_opens_no_viewer_port(self):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as taken:
            taken.bind(("0.0.0.0", PORT))
            with Server() as server:
                self.assertEqual(server.process.wait(DEADLINE), 255)
                self.assertEqual(server.output, b"***** Halvane logger *****\n"
                                 b"Address already in use: 0.0.0.0:50000\n"
                                 b"Cannot listen at logger port 50000\n")

    def test_viewer_port_taken(self):
        with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as taken:
            taken.bind(("127.0.0.1", PORT))  # bound, not listening: Server() waits for its own
            with Server(may_linger=False) as server:
                self.assertEqual(server.process.wait(DEADLINE), 255)
                self.assertEqual(server.output, b"***** Halvane logger *****\n"
                                 b"Cannot bind to port: 50000\n")

    def test_default_address_is_every_interface(self):
        with Server():
            socket.create_connection(("127.0.0.1", PORT)).close()
            socket.create_connection(("127.0.0.3", PORT)).close()

    def test_closed_standard_descriptors_are_not_taken_by_sockets(self):
        """A viewer whose keyboard or screen is closed neither reads keys from the log nor logs to the server."""
        with socket.create_server(("127.0.0.1", PORT)) as listener:
            for closed in ("<&-", ">&-"):
                client = subprocess.Popen(["sh", "-c", f'exec "$0" client {closed}', PROGRAM],
                                          stdin=subprocess.PIPE, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
                self.addCleanup(client.communicate)
                self.addCleanup(client.kill)
                connection = listener.accept()[0]
                connection.settimeout(DEADLINE)
                self.assertEqual(connection.recv(100), b"\1\0\0\0", closed)
                connection.sendall(b"F<14>1 t d sip 1 - F")
                connection.shutdown(socket.SHUT_WR)
                client.stdin.close()
                client.stdin = None
                self.assertEqual(connection.recv(100), b"", closed)
                connection.close()

    def test_address_is_the_viewers_alone(self):
        with Server("127.0.0.2") as server:
            with self.assertRaises(ConnectionRefusedError):
                socket.create_connection(("127.0.0.1", PORT))
            socket.create_connection(("127.0.0.2", PORT)).close()
            await_true(lambda: b"recv(0)" in server.output, "the server sees that viewer leave")
            udp = [line.split()[1] for line in pathlib.Path("/proc/net/udp").read_text().splitlines()[1:]]
            self.assertIn(f"00000000:{PORT:04X}", udp)


if __name__ == "__main__":
    main()
