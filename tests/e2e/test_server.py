"""The device's side: what becomes of a datagram, and what viewers of any kind get."""

import contextlib
import os
import pathlib
import pty
import resource
import signal
import termios

import pytest
from support.harness import (PROGRAM, SEND_ALL, WRITE_FILE, RawViewer, Server, await_true, idle, message,
                             send_datagrams, unread)


def test_what_a_viewer_is_sent(server):
    """Listing filtered by program and facility; then each newest message, whatever it is."""
    stored = [message("one"), message("no component", app="ui"), message("odd", facility=24),
              message("two", app="prothandler", severity=7)]
    other, whole = message("other", app="ui"), message("x" * (5000 - len(message(""))))
    server.collect(*stored)
    with RawViewer() as viewer:
        viewer.send(SEND_ALL)
        viewer.expect(stored[0] + stored[3])
        for datagram, newest in [
                (other, other),
                (b"hello", other),
                (message("a") + message("b", app="nmos"), message("b", app="nmos")),
                (message("c") + b"\n", message("c")),
                (whole, whole),
                (whole + b"y", whole)]:  # beyond 5000 bytes a datagram is cut
            send_datagrams(datagram)
            viewer.expect(viewer.received + newest)


def test_commands_and_what_is_none(server):
    with RawViewer() as viewer:
        # Empty store: the listing sends nothing, so the first bytes are the live message. Of a batch that fills
        # whole chunks the next read must not wait for more.
        for batch in (SEND_ALL, b"\x01\0\0", b"\x07\0\0\0", b"\xff\xff\xff\xff", *(bytes(1500 * n) for n in (1, 2, 3, 40))):
            viewer.send(batch)
            viewer.log(str(len(batch)))
        viewer.send(WRITE_FILE + SEND_ALL)  # one batch: only the first command counts
        assert server.dump().count(b"\n") == 8
        viewer.log("last")
        assert not viewer.waiting()


def test_viewers_come_and_go(server):
    """Each that asks gets the whole store; what is logged in between waits there; none leaves a descriptor."""
    server.collect()  # leaves the descriptor that tells the job's end
    idle(server.process.pid)
    stored, descriptors = b"", len(server.descriptors())
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
    await_true(lambda: len(server.descriptors()) == descriptors, "no viewer leaves a descriptor behind")


def test_one_viewer_at_a_time_and_waiting_costs_nothing(server):
    with RawViewer() as first, RawViewer() as second:
        await_true(lambda: len(server.descriptors()) == 4, "the first one is accepted")
        for fd in server.descriptors():  # log port, system log, listening socket, viewer: no dump job inherits them
            flags = pathlib.Path(f"/proc/{server.process.pid}/fdinfo/{fd}").read_text().split("flags:")[1].split()[0]
            assert int(flags, 8) & os.O_CLOEXEC
        server.collect(message("one"))  # while it keeps silent
        first.expect(message("one"))
        first.send(SEND_ALL)
        first.expect(message("one") * 2)
        second.socket.sendall(SEND_ALL)
        idle(server.process.pid)
        first.log("two")
        assert not second.waiting()
        first.socket.close()
        second.expect(message("one") + message("two"))


@pytest.mark.skipif(b"__ubsan_" in pathlib.Path(PROGRAM).read_bytes(), reason="that sanitizer needs descriptors of its own")
def test_viewer_that_the_system_refuses_is_served_later_and_waiting_costs_nothing(server):
    pid, limit = server.process.pid, resource.RLIMIT_NOFILE
    allowed = resource.prlimit(pid, limit)
    resource.prlimit(pid, limit, (3 + len(server.descriptors()), allowed[1]))
    with RawViewer() as viewer:
        idle(pid)
        resource.prlimit(pid, limit, allowed)
        viewer.send(SEND_ALL)
        viewer.log("served")


def test_stalled_viewer_gets_everything_later_or_is_dropped(server):
    messages = [message(f"{n:05} {'x' * 4700}") for n in range(1800)]

    def collect(some):
        for start in range(0, len(some), 16):
            send_datagrams(*some[start:start + 16])
            await_true(lambda: not unread(0, "udp"), "the server goes on collecting")

    with RawViewer(receive_buffer=4096) as stalled:
        stalled.send(SEND_ALL)
        # More than the socket buffers take, less than is kept for it.
        collect(messages[:900])
        idle(server.process.pid)
        stalled.expect(b"".join(messages[:900]))
        # Far more than is kept: it is disconnected, and the next viewer gets the newest 1 MiB.
        collect(messages * 2)
        with RawViewer() as viewer:
            viewer.send(SEND_ALL)
            viewer.expect(b"".join(messages[-((1 << 20) // len(messages[0])):]))


@pytest.mark.parametrize("how", [signal.SIGINT, signal.SIGKILL])
def test_server_that_ended_with_a_viewer_connected_starts_again(how):
    with contextlib.ExitStack() as viewers:
        for unread_messages in 100, 1, 0:
            with Server() as server:
                viewers.enter_context(RawViewer(receive_buffer=4096)).send(SEND_ALL)
                server.collect(*[message("x" * 4000)] * unread_messages)
                idle(server.process.pid)  # the dump's shell has ended: until then a SIGINT is not heeded
                server.stop(how)


def test_output_that_stands_still_costs_its_texts_alone():
    reader, writer = pty.openpty()
    termios.tcflow(writer, termios.TCOOFF)
    with Server(preexec_fn=lambda: [os.dup2(writer, fd) for fd in (1, 2)]) as server:
        RawViewer().socket.close()
        idle(server.process.pid)  # it has said that the viewer has gone
        assert server.collect(message("m")).count(b"\n") == 1
        assert os.get_blocking(writer)  # for the others who have it
        termios.tcflow(writer, termios.TCOON)
        idle(server.process.pid)
        server.stop()
    text = b""
    while b"Select error -3148" not in text:
        text += os.read(reader, 4096)
