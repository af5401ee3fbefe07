"""What the end-to-end tests share: the real program, real sockets, a real terminal, a log device.

HVLOGGER names the executable. Ports and paths are the program's fixed ones; tests/support/isolated.sh gives
each test process its own.
"""

import contextlib
import ctypes
import gzip
import os
import pathlib
import platform
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

PROGRAM = os.path.abspath(os.environ["HVLOGGER"])
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


def sockets(table):
    """The kernel's table of sockets ("tcp" or "udp") as (local address, local port, remote port, state, unread bytes)."""
    for row in map(str.split, pathlib.Path("/proc/net", table).read_text().splitlines()[1:]):
        local, remote, state, queues = row[1:5]
        yield local[:8], int(local[9:], 16), int(remote[9:], 16), state, int(queues.split(":")[1], 16)


def listening(port=PORT):
    """Whether some socket listens on the TCP port."""
    return any(row[1] == port and row[3] == "0A" for row in sockets("tcp"))


def unread(port, table="tcp"):
    """Bytes that the server has not read yet of what came from the given port; port 0: of the datagrams."""
    return sum(row[4] for row in sockets(table) if row[1:3] == (PORT, port))


def cpu_ns(pid):
    """Processor time that the process has used, in nanoseconds."""
    return int(pathlib.Path(f"/proc/{pid}/schedstat").read_text().split()[0])


def idle(pid):
    """Whether the process waits; one that spins uses nearly all of this time."""
    before = cpu_ns(pid)
    time.sleep(0.4)
    return cpu_ns(pid) - before < 100_000_000


def send_datagrams(*datagrams, address="127.0.0.1"):
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
        for datagram in datagrams:
            sender.sendto(datagram, (address, PORT))


def expect_stream(read, data, received=b""):
    """Calls read() until what it returned in all is exactly data."""
    while len(received) < len(data):
        chunk = read()
        if not chunk:
            break
        received += chunk
    if received != data:
        raise AssertionError(f"stream is {received[:5000]!r}, not {data[:5000]!r}")


def failing(call, error):
    """Has a system call fail in a program that is started with the result as preexec_fn (seccomp(2))."""
    numbers = {"x86_64": {"listen": 50, "pselect6": 270}, "aarch64": {"listen": 201, "pselect6": 72}}
    if platform.machine() not in numbers:
        raise unittest.SkipTest("system call numbers of this machine are not known")
    load, equal, give, fail, allow = 0x20, 0x15, 0x06, 0x50000, 0x7FFF0000
    code = ctypes.create_string_buffer(b"".join(struct.pack("HBBI", *line) for line in [
        (load, 0, 0, 0), (equal, 0, 1, numbers[platform.machine()][call]), (give, 0, 0, fail | error), (give, 0, 0, allow)]))
    program = struct.pack("HP", 4, ctypes.addressof(code))
    prctl, no_new_privileges, seccomp, filtering = ctypes.CDLL(None).prctl, 38, 22, 2

    def install():
        if prctl(no_new_privileges, 1, 0, 0, 0) or prctl(seccomp, filtering, program):
            raise OSError("no system call filters here")
        return code
    return install


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

    def __init__(self, *arguments, may_linger=SHARED, **popen):
        self.arguments = arguments
        self.may_linger = may_linger
        self.popen = popen

    def __enter__(self):
        self.directory = tempfile.TemporaryDirectory()
        self.output_path = os.path.join(self.directory.name, "output")
        end = time.monotonic() + 2 * DEADLINE
        while True:
            with open(self.output_path, "wb") as output:
                self.process = subprocess.Popen([PROGRAM, "server", *self.arguments],
                                                cwd=self.directory.name, stdin=subprocess.DEVNULL,
                                                stdout=output, stderr=output, **self.popen)
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

    def collect(self, *datagrams):
        """Sends the datagrams, has them all collected and returns the dump."""
        send_datagrams(*datagrams, MARKER)
        return self.dump()

    def descriptors(self):
        """What is open but the standard descriptors."""
        return sorted(fd for fd in os.listdir(f"/proc/{self.process.pid}/fd") if int(fd) > 2)

    def stop(self, with_signal=signal.SIGINT):
        """Ends the server and returns its exit status."""
        self.process.send_signal(with_signal)
        return self.process.wait(DEADLINE)


class RawViewer:
    """A viewer written elsewhere: the bare protocol."""

    def __init__(self, address="127.0.0.1", receive_buffer=None):
        self.socket = socket.socket()
        if receive_buffer:
            self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
        self.socket.settimeout(DEADLINE)
        self.socket.connect((address, PORT))
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
        expect_stream(lambda: self.socket.recv(65536), data, self.received)
        self.received = data

    def log(self, *texts):
        """Logs messages; the server has done all that it does with them when this viewer has been sent them."""
        for start in range(0, len(texts), 50):
            datagrams = [message(text) for text in texts[start:start + 50]]
            send_datagrams(*datagrams)
            self.expect(self.received + b"".join(datagrams))

    def waiting(self):
        return bool(select.select([self.socket], [], [], 0)[0])

    def reset(self):
        """Vanishes with a connection reset instead of an orderly close."""
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self.socket.close()


class FakeServer:
    """Accepts one viewer and lets the test say every byte of the stream."""

    def __enter__(self):
        self.listener = socket.create_server(("127.0.0.1", PORT))
        self.listener.settimeout(DEADLINE)
        self.connection = None
        return self

    def __exit__(self, *_):
        self.close()
        self.listener.close()

    def accept(self):
        """Accepts the viewer, which must ask for everything."""
        self.connection = self.listener.accept()[0]
        self.connection.settimeout(DEADLINE)
        self.connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self.expect(SEND_ALL)

    def expect(self, data):
        expect_stream(lambda: self.connection.recv(len(data)), data)

    def close(self):
        if self.connection:
            self.connection.close()


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

    def quit(self):
        """Ends with the key 'q'; the terminal must be as before. Returns the exit status."""
        self.keys(b"q")
        status = self.wait()
        if self.settings() != self.before:
            raise AssertionError("the terminal is not restored")
        return status


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
