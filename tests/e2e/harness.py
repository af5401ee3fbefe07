"""What the end-to-end tests share: the real program, real sockets, a real terminal, a log device.

HVLOGGER names the executable. Ports and paths are the program's fixed ones; tests/isolated.sh gives
each test process its own.
"""

import contextlib
import gzip
import os
import pathlib
import pty
import select
import signal
import socket
import struct
import subprocess
import tempfile
import termios
import time
import unittest

PROGRAM = os.environ["HVLOGGER"]
SHARED = "HVLOGGER_SHARED" in os.environ  # no namespaces: /dev/log may be somebody else's
LOG_DEVICE_TAKEN = SHARED and (os.path.exists("/dev/log") or not os.access("/dev", os.W_OK))
PORT = 50000
DEADLINE = 60.0  # seconds until an awaited event counts as missing; sanitizers are slow
SEND_ALL = struct.pack("=i", 1)
WRITE_FILE = struct.pack("=i", 2)
HYPHENS = b"-" * 32 + b"\r\n"
MARKER = b"R4tNc8vLq2!&=^_"


def message(text, app="sip", severity=6, facility=1, pid="412", second=30):
    """One log line as the device's processes write it."""
    return (f"<{facility * 8 + severity}>1 2024-03-05T10:20:{second:02}.123Z dev01 {app} {pid} - {text}").encode()


def shown(text, app="sip", severity=6, pid="412", second=30):
    """How the viewer shows message(...) with the same arguments."""
    return f"2024-03-05 10:20:{second:02}.123 {app} {pid}-{severity}: {text}\r\n".encode()


def await_true(condition, what):
    """Waits until condition() is true and returns its value."""
    end = time.monotonic() + DEADLINE
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > end:
            raise AssertionError(f"never happened: {what}")
        time.sleep(0.005)


def listening(port=PORT):
    """Whether some socket listens on the TCP port (state 0A in the kernel's table)."""
    lines = pathlib.Path("/proc/net/tcp").read_text().splitlines()[1:]
    return any(f[1].endswith(f":{port:04X}") and f[3] == "0A" for f in map(str.split, lines))


def unread(port):
    """Bytes that the server has not read yet of the connection from the given local port."""
    for line in pathlib.Path("/proc/net/tcp").read_text().splitlines()[1:]:
        fields = line.split()
        if fields[1].endswith(f":{PORT:04X}") and fields[2].endswith(f":{port:04X}"):
            return int(fields[4].split(":")[1], 16)
    return 0


def cpu_ns(pid):
    """Processor time that the process has used, in nanoseconds."""
    return int(pathlib.Path(f"/proc/{pid}/schedstat").read_text().split()[0])


def send_datagrams(*datagrams, address="127.0.0.1"):
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
        for datagram in datagrams:
            sender.sendto(datagram, (address, PORT))


class LogDevice:
    """The reader of /dev/log: one record for each line that the server passes on."""

    def __enter__(self):
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 20)
        self.socket.bind("/dev/log")
        self.socket.settimeout(DEADLINE)
        return self

    def __exit__(self, *_):
        self.socket.close()
        os.unlink("/dev/log")

    def record(self):
        return self.socket.recv(65536)

    def silent(self):
        """Whether nothing is waiting; only meaningful after a later event was seen."""
        return not select.select([self.socket], [], [], 0)[0]


class Server:
    """`hvlogger server` in a directory of its own."""

    def __init__(self, *arguments, may_linger=SHARED):
        self.arguments = arguments
        self.may_linger = may_linger

    def __enter__(self):
        self.directory = tempfile.TemporaryDirectory()
        self.output_path = os.path.join(self.directory.name, "output")
        end = time.monotonic() + 2 * DEADLINE
        while True:
            with open(self.output_path, "wb") as output:
                self.process = subprocess.Popen([PROGRAM, "server", *self.arguments],
                                                cwd=self.directory.name, stdin=subprocess.DEVNULL,
                                                stdout=output, stderr=output)
            await_true(lambda: listening() or self.process.poll() is not None, "server starts")
            # On shared ports a former test's connection may linger for a minute.
            lingering = self.may_linger and b"Cannot bind" in self.output and time.monotonic() < end
            if not lingering:
                return self
            time.sleep(1)

    def __exit__(self, *_):
        if self.process.poll() is None:
            self.stop(signal.SIGKILL)
        self.directory.cleanup()

    @property
    def output(self):
        return pathlib.Path(self.output_path).read_bytes()

    def dump(self):
        """Waits for the dump file that was asked for and returns its content."""
        return wait_for_dump(self.directory.name)

    def stop(self, with_signal=signal.SIGINT):
        """Ends the server and returns its exit status."""
        self.process.send_signal(with_signal)
        return self.process.wait(DEADLINE)


class RawViewer:
    """A viewer written elsewhere: the bare protocol."""

    def __init__(self, address="127.0.0.1"):
        self.socket = socket.create_connection((address, PORT), DEADLINE)
        self.received = b""

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.socket.close()

    def send(self, data):
        """Sends one batch, and waits until the server has taken it."""
        self.socket.sendall(data)
        port = self.socket.getsockname()[1]
        await_true(lambda: not unread(port), "the server reads the batch")

    def expect(self, data):
        """Reads until the stream so far is exactly data."""
        while len(self.received) < len(data):
            chunk = self.socket.recv(65536)
            if not chunk:
                break
            self.received += chunk
        if self.received != data:
            raise AssertionError(f"stream is {self.received!r}, not {data!r}")

    def waiting(self):
        return bool(select.select([self.socket], [], [], 0)[0])

    def reset(self):
        """Vanishes with a connection reset instead of an orderly close."""
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self.socket.close()


class Terminal:
    """A program on a real terminal whose output processing is off, so that every byte shows."""

    def __init__(self, *command, **popen):
        self.master, self.slave = pty.openpty()
        settings = termios.tcgetattr(self.slave)
        settings[1] &= ~termios.OPOST
        termios.tcsetattr(self.slave, termios.TCSANOW, settings)
        self.before = termios.tcgetattr(self.slave)
        streams = {"stdin": self.slave, "stdout": self.slave, "stderr": self.slave, **popen}
        self.process = subprocess.Popen(command, start_new_session=True, **streams)
        self.screen = b""

    def __enter__(self):
        return self

    def __exit__(self, *_):
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        with contextlib.suppress(OSError):
            os.close(self.master)
        os.close(self.slave)

    def keys(self, data):
        os.write(self.master, data)

    def settings(self):
        return termios.tcgetattr(self.slave)

    def read(self):
        if select.select([self.master], [], [], 0.05)[0]:
            self.screen += os.read(self.master, 65536)

    def expect(self, data):
        """Waits until the screen, from where the last expectation ended, begins with exactly data."""
        end = time.monotonic() + DEADLINE
        while len(self.screen) < len(data) and data.startswith(self.screen) and time.monotonic() < end:
            self.read()
        if not self.screen.startswith(data):
            raise AssertionError(f"screen shows {self.screen[:2000]!r}, not {data!r}")
        self.screen = self.screen[len(data):]

    def press(self, key, data):
        """Presses a key and expects what it prints."""
        self.keys(key)
        self.expect(data)

    def wait(self):
        """Waits for the program's end while reading its output; returns the exit status."""
        end = time.monotonic() + DEADLINE
        while self.process.poll() is None and time.monotonic() < end:
            self.read()
        self.read()
        return self.process.wait(0.1)


class Viewer(Terminal):
    """`hvlogger client` on a terminal."""

    GREETING = b"Requesting all messages\n\r"

    def __init__(self, *arguments, **popen):
        super().__init__(PROGRAM, "client", *arguments, **popen)


def wait_for_dump(folder):
    """The compressed dump's content, once the background job has moved it into place; removes it."""
    path = pathlib.Path(folder, "logger.txt.gz")
    await_true(path.exists, "the compressed dump appears")
    with gzip.open(path) as dump:
        content = dump.read()
    path.unlink()
    return content


class TestCase(unittest.TestCase):
    maxDiff = None


def main():
    unittest.main(verbosity=2)
