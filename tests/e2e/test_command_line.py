"""What a person meets first: arguments, exit statuses, and the failures of starting up."""

import os
import resource
import socket
import subprocess

import pytest
from support.harness import DEADLINE, PORT, PROGRAM, Server, Viewer, listening, message, sockets

BANNER = b"***** Halvane logger *****\n"
USAGE = f"Usage: {PROGRAM} server/client [ip]\n"


@pytest.mark.parametrize("arguments, status, output", [
    *((words, 255, USAGE) for words in ([], ["server", "0.0.0.0", "x"], ["server", "localhost"], ["client", ""])),
    *((words, 0, "") for words in (["Server"], ["CLIENT"], [""], ["servers"], ["start", "not an address"]))])
def test_arguments_decide_what_runs(arguments, status, output):
    done = subprocess.run([PROGRAM, *arguments], stdin=subprocess.DEVNULL, capture_output=True, timeout=DEADLINE)
    assert (done.returncode, done.stdout.decode(), done.stderr, listening()) == (status, output, b"", False)


def test_client_without_a_server_restores_the_terminal():
    with Viewer() as viewer:
        viewer.expect(f"{PROGRAM}: Cannot connect to server\n".encode())
        assert (viewer.wait(), viewer.settings()) == (0, viewer.before)


@pytest.mark.parametrize("closed", ["<&-", ">&-"])
def test_closed_standard_descriptors_are_not_taken_by_sockets(closed, fake_server):
    """A viewer whose keyboard or screen is closed neither reads keys from the log nor logs to the server."""
    with subprocess.Popen(["sh", "-c", f'exec "$0" client {closed}', PROGRAM], stdin=subprocess.PIPE,
                          stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL) as client:
        fake_server.accept()
        fake_server.connection.sendall(b"F" + message("F"))
        fake_server.connection.shutdown(socket.SHUT_WR)
        client.stdin.close()
        assert fake_server.connection.recv(100) == b""
        client.kill()


def test_server_interrupted_while_waiting(server):
    assert (server.stop(), server.output) == (180, BANNER + b"Select error -3148\n")


@pytest.mark.parametrize("kind, output", [
    (socket.SOCK_DGRAM, b"Address already in use: 0.0.0.0:50000\nCannot listen at logger port 50000\n"),
    (socket.SOCK_STREAM, b"Cannot bind to port: 50000\n")])
def test_port_that_cannot_be_had_is_reported(kind, output):
    with socket.socket(socket.AF_INET, kind) as taken:
        taken.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)  # what former viewers have left is not in the way
        taken.bind(("0.0.0.0", PORT))
        if kind == socket.SOCK_STREAM:
            taken.listen()
        with Server() as server:
            assert (server.process.wait(DEADLINE), server.output) == (255, BANNER + output)


@pytest.mark.parametrize("mode, output", [("server", BANNER), ("client", b"")])
def test_descriptor_that_cannot_be_watched_is_reported(mode, output):
    def take_descriptors():
        resource.setrlimit(resource.RLIMIT_NOFILE, (2048, 2048))
        for fd in range(3, 1024):
            os.dup2(0, fd)
    done = subprocess.run([PROGRAM, mode], preexec_fn=take_descriptors, close_fds=False, capture_output=True)
    report = b"Cannot watch descriptor 1024: too many are open\n"
    assert (done.returncode, done.stdout, done.stderr) == (255, output, report)


def test_address_is_the_viewers_alone():
    with Server():  # by default every interface
        for address in "127.0.0.1", "127.0.0.3":
            socket.create_connection((address, PORT)).close()
    with Server("127.0.0.2"):
        with pytest.raises(ConnectionRefusedError):
            socket.create_connection(("127.0.0.1", PORT))
        socket.create_connection(("127.0.0.2", PORT)).close()
        assert ("00000000", PORT) in [row[:2] for row in sockets("udp")]
