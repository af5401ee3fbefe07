"""What the end-to-end tests and the benchmarks share: real programs, sockets, terminals, a log device.

HVLOGGER names the executable. Ports and paths are fixed; tests/support/isolated.sh gives each test its own.
"""

import contextlib
import gzip
import os
import pathlib
import pty
import re
import select
import signal
import socket
import struct
import subprocess
import tempfile
import termios
import time

import pexpect.fdpexpect

PROGRAM = os.path.abspath(os.environ["HVLOGGER"])
SHARED = "HVLOGGER_SHARED" in os.environ  # no namespaces: /dev/log may be somebody else's
LOG_DEVICE_TAKEN = SHARED and (os.path.exists("/dev/log") or not os.access("/dev", os.W_OK))
PORT = 50000
DEADLINE = 60.0  # seconds until an awaited event counts as missing; sanitizers are slow
SEND_ALL = struct.pack("=i", 1)
WRITE_FILE = struct.pack("=i", 2)
MARKER = b"R4tNc8vLq2!&=^_"


def message(text, app="sip", severity=6, facility=1, pid="412", second=30):
    """One log line as the device's processes write it."""
    return (f"<{facility * 8 + severity}>1 2024-03-05T10:20:{second:02}.123Z dev01 {app} {pid} - {text}").encode()


def shown(text, app="sip", severity=6, pid="412", second=30):
    """How the viewer shows message(...) with the same arguments."""
    return f"2024-03-05 10:20:{second:02}.123 {app} {pid}-{severity}: {text}\r\n".encode()


def await_true(condition, what):
    end = time.monotonic() + DEADLINE
    while not (value := condition()):
        if time.monotonic() > end:
            raise AssertionError(f"never happened: {what}")
        time.sleep(0.005)
    return value


def sockets(table):
    """The kernel's table of sockets ("tcp" or "udp") as (local address, local port, remote port, state, unread bytes,
    last column: of "udp" the datagrams that were dropped)."""
    for row in map(str.split, pathlib.Path("/proc/net", table).read_text().splitlines()[1:]):
        local, remote, state, queues = row[1:5]
        yield local[:8], int(local[9:], 16), int(remote[9:], 16), state, int(queues.split(":")[1], 16), row[-1]


def listening():
    return any(row[1] == PORT and row[3] == "0A" for row in sockets("tcp"))


def unread(port, table="tcp"):
    """Bytes that the server has not read yet of what came from the given port; port 0: of the datagrams."""
    return sum(row[4] for row in sockets(table) if row[1:3] == (PORT, port))


def dropped():
    """Datagrams that the kernel dropped in front of the server's socket."""
    return sum(int(row[5]) for row in sockets("udp") if row[1] == PORT)


def status(pid, field="VmRSS"):
    return int(re.search(rf"^{field}:\s+(\d+)", pathlib.Path(f"/proc/{pid}/status").read_text(), re.M)[1])


def idle(pid):
    """Waits until the process sleeps, and is never found awake, nor having been awake, for a while. However busy the
    machine, one that waits passes and one that spins or polls does not."""
    def look():
        time.sleep(0.002)
        text = pathlib.Path(f"/proc/{pid}/status").read_text()
        return tuple(re.findall(r"^(?:State|.*_switches):\s+(\w+)", text, re.M))
    await_true(lambda: (first := look())[0] == "S" and {look() for _ in range(9)} == {first}, "the process sleeps")


def send_datagrams(*datagrams):
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
        for datagram in datagrams:
            sender.sendto(datagram, ("127.0.0.1", PORT))


def expect_stream(read, data, received=b""):
    """Calls read() until what it returned in all is exactly data."""
    while len(received) < len(data) and (chunk := read()):
        received += chunk
    assert received == data


def wait_for_dump(folder):
    """The compressed dump's content, once the background job has moved it into place; removes it."""
    path = pathlib.Path(folder, "logger.txt.gz")
    await_true(path.exists, "the compressed dump appears")
    content = gzip.decompress(path.read_bytes())
    path.unlink()
    return content


class Entered(contextlib.AbstractContextManager):
    """What is closed when it is left."""

    def __exit__(self, *_):
        self.close()


class LogDevice(Entered):
    """The reader of /dev/log: one record for each line that the server passes on."""

    def __init__(self, kind=socket.SOCK_DGRAM):
        pathlib.Path("/dev/log").unlink(missing_ok=True)  # a former reader's
        self.socket = socket.socket(socket.AF_UNIX, kind)
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 20)
        self.socket.bind("/dev/log")
        self.socket.settimeout(DEADLINE)

    def close(self):
        self.socket.close()
        pathlib.Path("/dev/log").unlink(missing_ok=True)

    def record(self):
        return self.socket.recv(65536)


class Server(Entered):
    """`hvlogger server` in a directory of its own."""

    def __init__(self, *arguments, program=PROGRAM, launcher=(), **popen):
        self.directory = tempfile.TemporaryDirectory()
        self.output_path = pathlib.Path(self.directory.name, "output")
        with open(self.output_path, "wb") as output:
            self.process = subprocess.Popen([*launcher, program, "server", *arguments], stdin=subprocess.DEVNULL,
                                            stdout=output, stderr=output, cwd=self.directory.name, **popen)
        await_true(lambda: listening() or self.process.poll() is not None, "server starts")

    def close(self):
        self.stop(signal.SIGKILL)
        self.directory.cleanup()

    @property
    def output(self):
        return self.output_path.read_bytes()

    def dump(self):
        return wait_for_dump(self.directory.name)

    def collect(self, *datagrams):
        """Sends the datagrams, has them all collected and returns the dump."""
        send_datagrams(*datagrams, b"dump " + MARKER)
        return self.dump()

    def descriptors(self):
        return sorted(fd for fd in os.listdir(f"/proc/{self.process.pid}/fd") if int(fd) > 2)

    def stop(self, with_signal=signal.SIGINT):
        self.process.send_signal(with_signal)
        return self.process.wait(DEADLINE)


class RawViewer(Entered):
    """A viewer written elsewhere: the bare protocol."""

    def __init__(self, receive_buffer=None):
        self.socket = socket.socket()
        if receive_buffer:
            self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
        self.socket.settimeout(DEADLINE)
        self.socket.connect(("127.0.0.1", PORT))
        self.received = b""

    def close(self):
        self.socket.close()

    def send(self, data):
        self.socket.sendall(data)
        await_true(lambda: not unread(self.socket.getsockname()[1]), "the server reads the batch")

    def expect(self, data):
        """Reads until the stream so far is exactly data."""
        expect_stream(lambda: self.socket.recv(65536), data, self.received)
        self.received = data

    def log(self, *texts):
        """Logs messages; the server has done all that it does with them when this viewer has been sent them."""
        for start in range(0, len(texts), 50):
            datagrams = [message(text) for text in texts[start:start + 50]]
            send_datagrams(*datagrams)
            expect_stream(lambda: self.socket.recv(65536), b"".join(datagrams))
            self.received += b"".join(datagrams)

    def waiting(self):
        return bool(select.select([self.socket], [], [], 0)[0])

    def reset(self):
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self.socket.close()


class FakeServer(Entered):
    """Accepts one viewer and lets the test say every byte of the stream."""

    def __init__(self):
        self.connection = self.listener = socket.create_server(("127.0.0.1", PORT))
        self.listener.settimeout(DEADLINE)

    def accept(self):
        with self.listener:
            self.connection = self.listener.accept()[0]
        self.connection.settimeout(DEADLINE)
        self.connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        expect_stream(lambda: self.connection.recv(len(SEND_ALL)), SEND_ALL)

    def close(self):
        self.connection.close()


class Terminal(Entered):
    """A program on a real terminal whose output processing is off, so that every byte shows."""

    def __init__(self, *command, **popen):
        master, self.slave = pty.openpty()
        self.before = self.settings()
        self.before[1] &= ~termios.OPOST
        termios.tcsetattr(self.slave, termios.TCSANOW, self.before)
        self.process = subprocess.Popen(command, start_new_session=True, **{
            "stdin": self.slave, "stdout": self.slave, "stderr": self.slave, **popen})
        self.screen = pexpect.fdpexpect.fdspawn(master, timeout=DEADLINE, maxread=1 << 16)

    def close(self):
        self.process.kill()
        self.process.wait()
        self.screen.close()
        os.close(self.slave)

    def keys(self, data):
        self.screen.send(data)

    def settings(self):
        return termios.tcgetattr(self.slave)

    def read_until(self, data):
        """What shows from where the last expectation ended, up to data."""
        self.screen.expect_exact(data)
        return self.screen.before + data

    def expect(self, data):
        """What shows from where the last expectation ended must begin with exactly data."""
        assert self.read_until(data) == data

    def press(self, key, data):
        self.keys(key)
        self.expect(data)

    def rest(self):
        """What shows beyond what was expected."""
        self.screen.expect_exact(pexpect.TIMEOUT, timeout=0)
        return self.screen.before

    def wait(self):
        """Waits for the program's end while reading its output."""
        await_true(lambda: self.rest() is None or self.process.poll() is not None, "the program ends")
        return self.process.returncode


class Viewer(Terminal):
    """`hvlogger client` on a terminal."""

    GREETING = b"Requesting all messages\n\r"

    def __init__(self, *arguments, **popen):
        super().__init__(PROGRAM, "client", *arguments, **popen)

    def quit(self):
        """Ends with the key 'q'; the terminal must be as before."""
        self.keys(b"q")
        exit_status = self.wait()
        assert self.settings() == self.before, "the terminal is not restored"
        return exit_status
