"""What a person meets first: arguments, exit statuses, and the failures of starting up."""

import os
import resource
import signal
import socket
import subprocess

import pytest
from support.harness import DEADLINE, PORT, PROGRAM, Server, Viewer, await_true, listening, message, sockets

BANNER = b"***** Halvane logger *****\n"
USAGE = f"Usage: {PROGRAM} server/client [ip]\n"
NO_SERVER = f"{PROGRAM}: Cannot connect to server\n"


@pytest.mark.parametrize("arguments, status, output", [
    *((words, 255, USAGE) for words in ([], ["server", "0.0.0.0", "x"], ["server", "localhost"], ["client", ""],
                                        ["client", "1.2.3"], ["server", "::1"], ["client", "256.1.1.1"])),
    *((words, 0, "") for words in (["Server"], ["CLIENT"], [""], ["servers"], ["start", "not an address"])),
    (["client"], 0, NO_SERVER)])
def test_arguments_decide_what_runs(arguments, status, output):
    done = subprocess.run([PROGRAM, *arguments], stdin=subprocess.DEVNULL, capture_output=True, timeout=DEADLINE)
    assert (done.returncode, done.stdout.decode(), done.stderr, listening()) == (status, output, b"", False)


def test_client_without_a_server_restores_the_terminal():
    with Viewer() as viewer:
        viewer.expect(NO_SERVER.encode())
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


def expect_end(server, status, output):
    assert (server.process.wait(DEADLINE), server.output) == (status, BANNER + output)


def test_server_interrupted_while_waiting(server):
    server.process.send_signal(signal.SIGINT)
    expect_end(server, 180, b"Select error -3148\n")


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
            expect_end(server, 255, output)


def test_sockets_that_cannot_be_watched_are_reported():
    def take_descriptors():
        resource.setrlimit(resource.RLIMIT_NOFILE, (2048, 2048))
        for fd in range(3, 1024):
            os.dup2(0, fd)
    with Server(preexec_fn=take_descriptors, close_fds=False) as server:
        expect_end(server, 255, b"Cannot watch descriptor 1024: too many are open\n")


def test_address_is_the_viewers_alone():
    with Server():  # by default every interface
        for address in "127.0.0.1", "127.0.0.3":
            socket.create_connection((address, PORT)).close()
    with Server("127.0.0.2") as server:
        with pytest.raises(ConnectionRefusedError):
            socket.create_connection(("127.0.0.1", PORT))
        socket.create_connection(("127.0.0.2", PORT)).close()
        await_true(lambda: b"recv(0)" in server.output, "the server sees that viewer leave")
        assert ("00000000", PORT) in [row[:2] for row in sockets("udp")]
