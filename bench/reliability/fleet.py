"""Two devices, each with hvlogger and rsyslog set up as examples/fleet has it, and a centre."""

import contextlib
import pathlib
import re
import subprocess
import time

from support.harness import PORT, PROGRAM, await_true, message

AWAY = 3000  # lines of a device meanwhile: more than its queue holds in memory
IN_MEMORY = 1000 + 128 + 100  # at most in no file: the queue's, a batch being sent, those since the checkpoint

MACHINE = """set -eu
hostname "$1"
ip link set lo up
echo 10000 >/proc/sys/net/unix/max_dgram_qlen # a slow machine is not to skip lines
for folder in /run /var/log /var/spool; do mount -t tmpfs tmpfs $folder; done
mkdir /run/dev /var/spool/rsyslog
for node in null urandom; do : >/run/dev/$node; mount --bind /dev/$node /run/dev/$node; done
mount --rbind /run/dev /dev
printf '%s log-centre\\n127.0.0.1 %s\\n' "$2" "$1" >/run/hosts
mount --bind /run/hosts /etc/hosts
echo up
exec sleep infinity"""

# The server's socket has room for all of them.
SENDER = "import sys; from support.harness import send_datagrams; send_datagrams(*sys.stdin.buffer)"


class Machine:
    """Namespaces of its own, where programs are started and killed."""

    def __init__(self, stack, name, centre_address):
        self.stack, self.name, self.sent = stack, name, []
        self.process = self.started("unshare", "--net", "--mount", "--uts", "--propagation", "unchanged",
                                    "sh", "-c", MACHINE, "sh", name, centre_address, stdout=subprocess.PIPE)
        assert self.process.stdout.readline() == b"up\n", "no namespaces for further machines"
        # With root and directory, else it would work outside of a chroot that this may run in.
        self.inside = ["nsenter", "--net", "--mount", "--uts", "--root", "--wd", f"--target={self.process.pid}"]

    def started(self, *command, **options):
        process = self.stack.enter_context(subprocess.Popen(command, **options))
        self.stack.callback(process.kill)
        return process

    def run(self, *command, **options):
        return subprocess.run([*self.inside, *command], check=True, **options)

    def start(self, socket, *command):
        """Starts a program, and waits until it has the socket."""
        process = self.started(*self.inside, *command)

        def listens():
            assert process.poll() is None, f"{command} has ended: {process.returncode}"
            return f"{socket} ".encode() in self.run("ss", "-Hantx", stdout=subprocess.PIPE).stdout
        await_true(listens, f"{command} starts on {self.name}")
        return process

    def start_rsyslog(self, socket, configuration):
        self.rsyslog = self.start(socket, "rsyslogd", "-n", "-f", f"examples/fleet/{configuration}")

    def kill_rsyslog(self):
        self.rsyslog.kill()
        self.rsyslog.wait()

    def files(self, pattern):
        return pathlib.Path(f"/proc/{self.process.pid}/root/var").glob(pattern)

    def log(self, count):
        """Logs lines of two programs in turn, each with a text of its own."""
        new = [(self.name, "sip router".split()[n % 2], f"event {n} of {self.name}")
               for n in range(len(self.sent), len(self.sent) + count)]
        self.sent += new
        self.run("/usr/bin/python3", "-c", SENDER, input=b"\n".join(message(text, program) for _, program, text in new))

    def fill_queue(self):
        """Logs, and waits until all lines but those that the queue holds in memory are in its files."""
        self.log(AWAY)
        new = {text.encode() for _, _, text in self.sent[-AWAY:]}

        def in_files():
            return new & {text for path in self.files("spool/rsyslog/to-centre.0*")
                          for text in re.findall(rb"event \d+ of \w+", path.read_bytes())}
        await_true(lambda: len(in_files()) >= AWAY - IN_MEMORY, "the queue goes to disk")


def device(stack, number, centre):
    machine = Machine(stack, f"dev{number:02}", f"10.98.{number}.1")
    pair = f"ip link add eth0 netns {machine.process.pid} type veth peer name {machine.name} netns {centre.process.pid}"
    subprocess.run(pair.split(), check=True)
    for end, name, host in (machine, "eth0", 2), (centre, machine.name, 1):
        end.run(*f"ip address add 10.98.{number}.{host}/24 dev {name}".split())
        end.run(*f"ip link set {name} up".split())
    machine.start_rsyslog("/dev/log", "device.conf")
    machine.start(f":{PORT}", PROGRAM, "server")
    return machine


def await_lines(centre, devices, when, may_miss=0):
    """Waits until the centre has what was sent, less what hvlogger told it was skipped, in the right files."""
    sent = {line for device in devices for line in device.sent}
    end, missing = time.monotonic() + 240, len(sent)  # a connection that was cut starts again in its own time
    while missing > may_miss and time.monotonic() < end:
        time.sleep(0.2)
        # What is behind the last line feed is still being written. A line may be there twice.
        rows = {(path.parent.name, path.stem, *line.split(" ", 3)[::3]) for path in centre.files("log/devices/*/*")
                for line in path.read_text().split("\n")[:-1]}
        told = sum(int(text.split()[0]) for _, program, _, text in rows if program == "hvlogger")
        there = {(name, program, text) for name, program, _, text in rows if program not in ("hvlogger", "rsyslogd")}
        missing = len(sent - there) - told
    print(f"    {when}: {missing} of {len(sent)} lines missing, {told} told as skipped, "
          f"{len(there - sent)} in a wrong file")
    assert missing <= may_miss and there <= sent


def fleet():
    """Devices that hand their log to a centre which is away for a while, or the way to it; needs rsyslog-relp."""
    with contextlib.ExitStack() as stack:
        centre = Machine(stack, "centre", "127.0.0.1")
        centre.start_rsyslog(":2514", "centre.conf")
        first, second = devices = [device(stack, number, centre) for number in (1, 2)]
        for each in devices:
            each.log(200)
        await_lines(centre, devices, "with the centre there")

        centre.kill_rsyslog()
        for each in devices:
            each.fill_queue()
        centre.start_rsyslog(":2514", "centre.conf")
        await_lines(centre, devices, "after the centre was killed")

        centre.run("ip", "link", "set", second.name, "down")
        first.log(AWAY)
        second.fill_queue()
        centre.run("ip", "link", "set", second.name, "up")
        await_lines(centre, devices, "after one device's link was down")

        centre.kill_rsyslog()
        first.fill_queue()
        first.kill_rsyslog()
        first.start_rsyslog("/dev/log", "device.conf")
        centre.start_rsyslog(":2514", "centre.conf")
        await_lines(centre, devices, "after one device's rsyslog was killed, the centre being away", IN_MEMORY)
