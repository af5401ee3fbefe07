"""The desk's side: the real client on a real terminal, exact bytes, keys, endings."""

import fcntl
import os
import pathlib
import signal
import socket
import struct
import subprocess
import termios

import pytest
from support.harness import (PORT, Viewer, await_true, expect_stream, idle, message, send_datagrams,
                             shown, sockets, wait_for_dump)

HYPHENS = b"-" * 32 + b"\r\n"


def test_every_key_prints_what_it_should(server, tmp_path):
    """Control characters reach the files, but not the terminal."""
    stored, visible = message("\x1b[2Jstored"), shown("^[[2Jstored")
    debug = {"text": "debug", "app": "router", "severity": 7, "second": 31}
    server.collect(stored, message("hidden", app="ui"), message(**debug))
    with Viewer(cwd=tmp_path) as viewer:
        viewer.expect(viewer.GREETING + visible + shown(**debug))
        iflag, _, _, lflag, *_ = viewer.settings()
        assert not iflag & (termios.BRKINT | termios.INPCK | termios.ISTRIP | termios.ICRNL | termios.IXON)
        assert not lflag & (termios.ISIG | termios.ICANON | termios.ECHO | termios.IEXTEN)
        viewer.keys(b"?")
        lines = viewer.read_until(b" F   : Trigger server to write all messages to file './logger.txt'\r\n")
        assert lines.startswith(b"Key Commands:\r\n") and lines.count(b"\r\n") == 22
        for key, name in {b"i": b"sip", b"n": b"nmos", b"r": b"router", b"s": b"sap"}.items():
            viewer.press(key.upper(), b"------ " + name + b" disabled\r\n")
            viewer.press(key, b"------ " + name + b" enabled\r\n")
        viewer.press(b"-", b"------ all disabled\r\n")
        viewer.press(b"a", HYPHENS + b"\r\n")
        viewer.press(b"r", b"------ router enabled\r\n")
        viewer.press(b"a", HYPHENS + shown(**debug) + b"\r\n")
        viewer.press(b"+", b"------ all enabled\r\n")
        # Keys that switch no component print nothing: the hyphens are the next key's.
        viewer.press(b"eElLmMuU\0x", HYPHENS)
        # Without a meaning, help text or not: one hyphen line each; Ctrl-C and Enter too.
        viewer.press(b"cwhpvdCWHPVD\x03\r\n~\x80\xff", HYPHENS * 18)
        viewer.press(b"\x1b[A[a[q", HYPHENS * 7)  # a cursor key runs no command
        for level in b"0389":
            viewer.press(bytes([level]), b"Enabling severity up to: %c\r\n" % level)
        send_datagrams(message("too fine", severity=4), message("error", severity=3))
        viewer.expect(shown("error", severity=3))
        viewer.press(b"7", b"Enabling severity up to: 7\r\n")
        # 'A' starts again from the server, whose listing now has all five programs' lines.
        viewer.press(b"A", viewer.GREETING + visible + shown(**debug)
                     + shown("too fine", severity=4) + shown("error", severity=3))
        pathlib.Path("/tmp/logger.txt.gz").write_text("left over")
        viewer.press(b"f", b"------ logger.txt created\r\n")
        assert wait_for_dump(tmp_path).splitlines() == [
            stored, message(**debug), message("too fine", severity=4), message("error", severity=3)]
        viewer.press(b"F", b"Trigger logger server to write a zip file\n\r")
        assert server.dump().splitlines()[:2] == [stored, message("hidden", app="ui")]
        assert (viewer.quit(), viewer.rest()) == (0, b"")


@pytest.mark.parametrize("linger, report", [(0, b"recv(0): Success\nRcv: nothing\r\n"),
                                            (1, b"recv: Connection reset by peer\nRcv: error\r\n")])
def test_server_gone_leaves_the_keyboard_working(linger, report, fake_server, terminal_viewer):
    fake_server.accept()
    fake_server.connection.sendall(message("last"))
    terminal_viewer.expect(Viewer.GREETING + shown("last"))
    table = pathlib.Path("/proc/net/tcp")
    await_true(lambda: [row for row in table.open() if ":C350 01 " in row and " 02:" in row],
               "the viewer's timer that asks for signs of life")
    fake_server.connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", linger, 0))
    fake_server.close()
    terminal_viewer.expect(report)
    terminal_viewer.press(b"a", HYPHENS + shown("last") + b"\r\n")
    idle(terminal_viewer.process.pid)
    assert terminal_viewer.quit() == 0


def test_full_standard_error_stops_nothing(fake_server):
    reading, writing = os.pipe()
    os.set_blocking(writing, False)
    os.write(writing, bytes(1 << 20))
    os.set_blocking(writing, True)
    with Viewer(stderr=writing) as viewer:
        fake_server.accept()
        fake_server.close()
        viewer.expect(Viewer.GREETING + b"Rcv: nothing\r\n")
        assert viewer.quit() == 0
    os.close(reading)
    os.close(writing)


@pytest.mark.parametrize("path", ["/dev/null", "/"])
def test_plain_viewer_without_a_keyboard(path, fake_server):
    """Shows, never spins, ends with the server; also when its input cannot be read at all."""
    stdin = os.open(path, os.O_RDONLY)
    with Viewer(stdin=stdin, stdout=subprocess.PIPE) as viewer, viewer.process.stdout as output:
        os.close(stdin)
        fake_server.accept()
        expect_stream(output.read1, Viewer.GREETING + HYPHENS)
        fake_server.connection.sendall(message("one"))
        expect_stream(output.read1, shown("one"))
        idle(viewer.process.pid)
        fake_server.close()
        assert (output.read(), viewer.wait()) == (b"Rcv: nothing\r\n", 0)


@pytest.mark.parametrize("more_lines", [0, 1])
def test_reader_of_the_output_gone(more_lines, fake_server):
    """`hvlogger client | head -1`: ends at once, also when no further line comes."""
    reading, writing = os.pipe()
    with Viewer(stdout=writing) as viewer:
        os.close(writing)
        fake_server.accept()
        expect_stream(lambda: os.read(reading, 100), Viewer.GREETING)
        viewer.process.send_signal(signal.SIGSTOP)  # to meet both in one cycle
        os.close(reading)
        fake_server.connection.sendall(message("line") * more_lines)
        viewer.process.send_signal(signal.SIGCONT)
        assert (viewer.wait(), viewer.settings()) == (0, viewer.before)


def test_full_disk_under_the_output(fake_server):
    with open("/dev/full", "wb") as full, Viewer(stdout=full) as viewer:
        fake_server.accept()
        assert (viewer.wait(), viewer.settings()) == (255, viewer.before)
        assert viewer.rest() == b"standard output: No space left on device\n"


@pytest.mark.parametrize("lines", [0, 50])
@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGHUP, signal.SIGINT, signal.SIGQUIT])
def test_a_signal_puts_the_terminal_back_and_still_ends_the_viewer(number, lines, fake_server):
    """Also when the same cycle has lines for an output that nobody reads."""
    reading, writing = os.pipe()
    fcntl.fcntl(writing, fcntl.F_SETPIPE_SZ, 4096)
    with Viewer(stdout=writing) as viewer:
        fake_server.accept()
        viewer.process.send_signal(signal.SIGSTOP)
        fake_server.connection.sendall(message("x" * 4000) * lines)
        viewer.process.send_signal(number)
        viewer.process.send_signal(signal.SIGCONT)
        assert (viewer.wait(), viewer.settings(), viewer.rest()) == (-number, viewer.before, b"")
    os.close(reading)
    os.close(writing)


@pytest.fixture
def silent_host():
    """A socket that answers nobody until the first in its queue is accepted."""
    with socket.create_server(("127.0.0.1", PORT), backlog=0) as host, socket.create_connection(("127.0.0.1", PORT)):
        yield host


def test_keys_act_while_a_host_does_not_answer(silent_host):
    with Viewer() as viewer:
        await_true(lambda: viewer.settings() != viewer.before, "the keyboard is there")
        viewer.press(b"AFi", b"------ sip enabled\r\n")
        assert (viewer.quit(), viewer.rest()) == (0, b"")


def test_end_of_input_does_not_end_the_attempt(silent_host):
    with Viewer(stdin=subprocess.DEVNULL, stdout=subprocess.PIPE) as viewer, viewer.process.stdout as output:
        await_true(lambda: any(row[2:4] == (PORT, "02") for row in sockets("tcp")), "the viewer connects")
        idle(viewer.process.pid)
        silent_host.accept()[0].close()
        with silent_host.accept()[0]:
            expect_stream(output.read1, Viewer.GREETING + HYPHENS)


def test_goes_on_where_another_program_made_its_full_output_non_blocking(fake_server):
    texts = [f"\x1b{n:06} {'.' * 90}" for n in range(5000)]  # as they are: what is shown goes to no terminal
    reading, writing = os.pipe()
    os.set_blocking(writing, False)
    full = os.write(writing, bytes(1 << 20))
    with Viewer(stdout=writing) as viewer:
        fake_server.accept()
        fake_server.connection.sendall(b"".join(map(message, texts)))
        idle(viewer.process.pid)
        expect_stream(lambda: os.read(reading, 65536), bytes(full) + Viewer.GREETING + b"".join(map(shown, texts)))
        assert viewer.quit() == 0
    os.close(reading)
    os.close(writing)
