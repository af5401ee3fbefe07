"""Viewers that stall or vanish: collecting goes on, what they could not take yet is not lost."""

import os
import socket

from harness import DEADLINE, PORT, SEND_ALL, RawViewer, Server, TestCase, await_true, main, message, send_datagrams


def stalled_viewer():
    """A connected viewer with a small receive buffer that has not read anything yet."""
    viewer = RawViewer.__new__(RawViewer)
    viewer.received = b""
    viewer.socket = socket.socket()
    viewer.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
    viewer.socket.settimeout(DEADLINE)
    viewer.socket.connect(("127.0.0.1", PORT))
    return viewer


def collect(texts, batch=40):
    """Sends messages no faster than the server takes them: its receive queue is never full."""
    for start in range(0, len(texts), batch):
        send_datagrams(*map(message, texts[start:start + batch]))
        await_true(lambda: not queued(), "the server goes on collecting")


def queued():
    """Bytes waiting in the log port's receive queue."""
    with open("/proc/net/udp", encoding="ascii") as table:
        rows = [line.split() for line in table][1:]
    return sum(int(row[4].split(":")[1], 16) for row in rows if row[1].endswith(f":{PORT:04X}"))


class StalledViewer(TestCase):
    def test_stalled_viewer_gets_everything_later_or_is_dropped(self):
        texts = [f"{n:05} {'x' * 900}" for n in range(9000)]
        with Server(), stalled_viewer() as stalled:
            stalled.send(SEND_ALL)
            # More than the socket buffers take, less than is kept for it.
            some, rest = texts[:4500], texts[4500:]
            collect(some)
            stalled.expect(b"".join(map(message, some)))
            # Far more than is kept: it is disconnected, and the next viewer gets the newest 1 MiB.
            collect(rest + texts)
            with RawViewer() as viewer:
                viewer.send(SEND_ALL)
                stored, size = [], 0
                for text in reversed(texts):
                    if size + len(message(text)) > 1 << 20:
                        break
                    stored.insert(0, message(text))
                    size += len(stored[0])
                viewer.expect(b"".join(stored))


class VanishedViewer(TestCase):
    def test_silent_connection_is_kept_under_watch(self):
        """The kernel's keep-alive timer runs for the viewer's connection, and is due within 60 s."""
        with Server(), RawViewer() as viewer:
            viewer.send(SEND_ALL)
            port = viewer.socket.getsockname()[1]
            with open("/proc/net/tcp", encoding="ascii") as table:
                rows = [line.split() for line in table][1:]
            timer, due = next(row[5].split(":") for row in rows if row[1].endswith(f":{PORT:04X}")
                              and row[2].endswith(f":{port:04X}"))
            self.assertEqual(timer, "02")
            self.assertLess(int(due, 16), 60 * os.sysconf("SC_CLK_TCK"))


if __name__ == "__main__":
    main()
