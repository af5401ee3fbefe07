"""Two devices, each with hvlogger and rsyslog set up as examples/fleet has it, and a centre."""

import contextlib
import pathlib
import re
import subprocess
import time

from support.harness import PORT, PROGRAM, await_true, message

CONFIGURATIONS = pathlib.Path(__file__).parents[2] / "examples" / "fleet"
PROGRAMS = "sip", "router"
AWAY = 3000  # lines of a device meanwhile: more than its queue holds in memory
IN_MEMORY = 1200  # lines that are on no disk: the queue's, those since the checkpoint, one batch

MACHINE = """set -eu
hostname "$1"
echo 10000 >/proc/sys/net/unix/max_dgram_qlen # a slow machine is not to skip lines
ip link set lo up
mount -t tmpfs tmpfs /run
mkdir /run/dev
for node in null zero random urandom; do
    : >/run/dev/$node
    mount --bind /dev/$node /run/dev/$node
done
mount --rbind /run/dev /dev
mount -t tmpfs tmpfs /var/log
mount -t tmpfs tmpfs /var/spool
mkdir /var/spool/rsyslog
printf '%s log-centre\\n127.0.0.1 %s\\n' "$2" "$1" >/run/hosts
mount --bind /run/hosts /etc/hosts
echo up
exec sleep infinity"""

# No faster than the server reads: a datagram that finds its socket full is lost.
SENDER = """import sys
from support.harness import await_true, send_datagrams, unread
lines = sys.stdin.buffer.readlines()
for start in range(0, len(lines), 20):
    send_datagrams(*lines[start:start + 20])
    await_true(lambda: not unread(0, "udp"), "the server reads")
"""


class Machine:
    """A set of namespaces of its own."""

    def __init__(self, stack, name, centre_address):
        self.name, self.stack = name, stack
        self.process = stack.enter_context(subprocess.Popen(
            ["unshare", "--net", "--mount", "--uts", "--propagation", "unchanged",
             "sh", "-c", MACHINE, "sh", name, centre_address], stdout=subprocess.PIPE))
        stack.callback(self.process.kill)
        assert self.process.stdout.readline() == b"up\n", "no namespaces for further machines"
        self.root = pathlib.Path(f"/proc/{self.process.pid}/root")
        # With root and directory, else they would work outside of a chroot that this may run in.
        self.enter = ["nsenter", "--net", "--mount", "--uts", "--root", "--wd", f"--target={self.process.pid}"]

    def run(self, *command, **options):
        subprocess.run([*self.enter, *command], check=True, **options)

    def start(self, ready, *command):
        process = self.stack.enter_context(subprocess.Popen([*self.enter, *command]))
        self.stack.callback(process.kill)

        def is_ready():
            assert process.poll() is None, f"{command} has ended: {process.returncode}"
            return ready()
        await_true(is_ready, f"{command} starts on {self.name}")
        return process

    def listens(self, port):
        rows = [line.split() for table in ("tcp", "tcp6")
                for line in pathlib.Path(f"/proc/{self.process.pid}/net/{table}").read_text().splitlines()]
        return any(row[1].endswith(f":{port:04X}") and row[3] == "0A" for row in rows)

    def start_rsyslog(self, configuration, ready):
        self.rsyslog = self.start(ready, "rsyslogd", "-n", "-f", str(CONFIGURATIONS / configuration))

    def kill_rsyslog(self):
        self.rsyslog.kill()
        self.rsyslog.wait()


class Device(Machine):
    def __init__(self, stack, number, centre):
        super().__init__(stack, f"dev{number:02}", f"10.98.{number}.1")
        self.sent = {program: set() for program in PROGRAMS}
        self.centre = centre
        subprocess.run(["ip", "link", "add", "eth0", "netns", str(self.process.pid), "type", "veth",
                        "peer", "name", self.name, "netns", str(centre.process.pid)], check=True)
        for machine, device, host in (self, "eth0", 2), (centre, self.name, 1):
            machine.run("ip", "address", "add", f"10.98.{number}.{host}/24", "dev", device)
            machine.run("ip", "link", "set", device, "up")
        self.start_log()
        self.start(lambda: self.listens(PORT), PROGRAM, "server")

    def start_log(self):
        self.start_rsyslog("device.conf", (self.root / "dev/log").is_socket)

    def link(self, state):
        self.centre.run("ip", "link", "set", self.name, state)

    def log(self, count):
        """Logs lines of all programs in turn, each with a text of its own."""
        lines = []
        for _ in range(count // len(PROGRAMS)):
            for program, texts in self.sent.items():
                text = f"{program} of {self.name}, event {len(texts)}"
                texts.add(text)
                lines.append(message(text, app=program) + b"\n")
        self.run("/usr/bin/python3", "-c", SENDER, input=b"".join(lines))

    def fill_queue(self):
        """Logs until all lines but the latest 900, fewer than fit in memory, are in the queue's files."""
        self.log(AWAY)
        program, texts = next(iter(self.sent.items()))
        text = f"{program} of {self.name}, event {len(texts) - 900 // len(PROGRAMS)}".encode()
        await_true(lambda: any(text in path.read_bytes() for path in (self.root / "var/spool/rsyslog").glob("to-centre.0*")),
                   "the queue goes to disk")


def received(centre):
    """The centre's lines: texts by device and program."""
    files = {}
    for path in (centre.root / "var/log/devices").glob("*/*"):
        # What is behind the last line feed is still being written.
        lines = path.read_text().split("\n")[:-1]
        files[path.parent.name, path.stem] = {re.sub(r"^\S+ \S+ \S+ ", "", line) for line in lines}
    return files


def fleet():
    """Devices that hand their log to a centre which is away for a while, or the way to it; needs rsyslog-relp."""
    with contextlib.ExitStack() as stack:
        centre = Machine(stack, "centre", "127.0.0.1")

        def start_centre():
            centre.start_rsyslog("centre.conf", lambda: centre.listens(2514))

        start_centre()
        first, second = devices = [Device(stack, number, centre) for number in (1, 2)]

        def all_there(when, may_miss=0):
            expected = {(device.name, program): texts for device in devices for program, texts in device.sent.items()}

            def missing():
                logged = received(centre)
                return sum(len(texts - logged.get(key, set())) for key, texts in expected.items())

            end = time.monotonic() + 240  # a connection that was cut starts again in its own time
            while (count := missing()) > may_miss and time.monotonic() < end:
                time.sleep(0.2)
            stray = sum(len(texts - expected.get(key, set()))
                        for key, texts in received(centre).items() if key[1] != "rsyslogd")
            print(f"    {when}: {count} of {sum(map(len, expected.values()))} lines missing, {stray} in a wrong file", flush=True)
            assert count <= may_miss and not stray

        for device in devices:
            device.log(200)
        all_there("with the centre there")

        centre.kill_rsyslog()
        for device in devices:
            device.fill_queue()
        start_centre()
        all_there("after the centre was killed")

        second.link("down")
        first.log(AWAY)
        second.fill_queue()
        second.link("up")
        all_there("after one device's link was down")

        centre.kill_rsyslog()
        first.fill_queue()
        first.kill_rsyslog()
        (first.root / "dev/log").unlink()
        first.start_log()
        start_centre()
        all_there("after one device's rsyslog was killed, the centre being away", IN_MEMORY)
