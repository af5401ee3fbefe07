"""Compares hvlogger with rsyslog, syslog-ng and the floor (floor.cpp: the smallest loop that does the
same, and the smallest of the old road), each taking messages on UDP and passing every one to the local
log socket and to one TCP viewer.

    bench/run.sh compare [--rounds N] [--only ROW] [--before EXECUTABLE]

Prints medians over the rounds; in brackets, how many times it hvlogger's figure is.
"""
import argparse
import contextlib
import math
import os
import pathlib
import select
import shutil
import socket
import statistics
import subprocess
import sys
import tempfile
import time

from support.harness import (PORT, PROGRAM, SEND_ALL, Entered, LogDevice, RawViewer, await_true, listening, message,
                             send_datagrams, status)

BUILD = pathlib.Path("build-bench/bench/system")
QUIET = 0.4  # seconds after which nothing more comes
# Not everything here can be started while connections of what ran before linger on its port.
pathlib.Path("/proc/sys/net/ipv4/tcp_max_tw_buckets").write_text("0")

RSYSLOG = """
module(load="imudp")
module(load="omuxsock")
$OMUXSockSocket /dev/log
input(type="imudp" address="127.0.0.1" port="50000")
*.* :omuxsock:
action(type="omfwd" target="127.0.0.1" port="50001" protocol="tcp")
"""
SYSLOG_NG = """@version: 3.38
options { keep-hostname(yes); use-dns(no); dns-cache(no); stats-freq(0); };
source in { network(ip("127.0.0.1") port(50000) transport("udp") flags(syslog-protocol)); };
destination local { unix-dgram("/dev/log"); };
destination viewer { network("127.0.0.1" port(50001) transport("tcp")); };
log { source(in); destination(local); destination(viewer); };
"""


class System(Entered):
    """A log collector and how it is started; entered, it runs with what reads its log and its stream. A failed
    assertion tells why a round is left out."""

    def __init__(self, name, *command, environment=None):
        self.name, self.command, self.environment = name, command, {**os.environ, **(environment or {})}

    @contextlib.contextmanager
    def started(self):
        with subprocess.Popen(self.command, env=self.environment, stdout=subprocess.DEVNULL,
                              stderr=subprocess.DEVNULL) as process:
            try:
                yield process
            finally:
                process.kill()

    def __enter__(self):
        with contextlib.ExitStack() as stack:
            log = stack.enter_context(LogDevice()).socket
            listener = stack.enter_context(socket.create_server(("127.0.0.1", 50001)))
            self.process = stack.enter_context(self.started())
            viewer = stack.enter_context(await_true(lambda: self.viewer(listener), "the viewer is connected"))
            descriptors = log.fileno(), viewer.fileno()
            self.sink = stack.enter_context(subprocess.Popen(
                [BUILD / "load", "sink", *map(str, descriptors)], pass_fds=descriptors, text=True, bufsize=1,
                stdin=subprocess.PIPE, stdout=subprocess.PIPE))
            self.collect(math.inf)
            self.close = stack.pop_all().close
        return self

    def viewer(self, listener):
        """The viewer's connection: some wait for it, others make it once they have something to send."""
        assert self.process.poll() is None, "it does not start"
        if listening():
            viewer = RawViewer().socket
            viewer.sendall(SEND_ALL)
            return viewer
        send_datagrams(message(""))
        return select.select([listener], [], [], 0.1)[0] and listener.accept()[0]

    def collect(self, count):
        """Waits until log and viewer have `count` messages each, or nothing more comes. Returns the smaller
        number, and the latency quantiles of the last report that had messages."""
        logged = shown = 0
        latency, last = (math.nan, math.nan), time.monotonic()
        while min(logged, shown) < count and time.monotonic() - last < QUIET:
            self.sink.stdin.write("?\n")
            more_logged, more_shown, *quantiles = map(int, self.sink.stdout.readline().split())
            logged, shown = logged + more_logged, shown + more_shown
            if more_logged or more_shown:
                last = time.monotonic()
            if more_shown:
                latency = quantiles
            time.sleep(0.02)
        return min(logged, shown), latency

    def offer(self, rate, count):
        """Sends so many, and returns how many arrived."""
        self.offered_in = send(rate, count)
        assert not rate or self.offered_in <= 1.1 * count / rate + 0.05, f"the sender took {self.offered_in:.2f} s"
        return self.collect(count)[0]

    def processor_seconds(self):
        return time.clock_gettime((~self.process.pid) << 3 | 2)  # clock_getcpuclockid(3)

    def resident_mib(self):
        return status(self.process.pid) / 1024


def send(rate, count, length=147):
    """Returns the seconds that sending took."""
    return float(subprocess.check_output([BUILD / "load", "send", *map(str, (rate, count, length))]))


def processor_time(rate):
    def measure(system):
        with system:
            system.offer(rate, rate // 4)
            before, count = system.processor_seconds(), 2 * rate
            arrived = system.offer(rate, count)
            # A machine that has other things to do now and then drops a few.
            assert arrived >= 0.99 * count, f"only {arrived} of {count} arrived"
            return [(system.processor_seconds() - before) / arrived * 1e6]
    return measure


def highest(high, step, received_whole):
    """The largest count up to high that is received whole, by bisection to within a step, or 3 %. A machine
    has other things to do now and then: each gets two attempts."""
    low, high = 0, high + step
    while high - low > max(step, 0.03 * low):
        middle = (low + high) // 2 // step * step
        whole = received_whole(middle) or received_whole(middle)
        low, high = (middle, high) if whole else (low, middle)
    return [low]


def lossless_rate(system):
    def carried(rate):
        with contextlib.suppress(AssertionError):  # what could not be offered was not carried
            return system.offer(rate, rate) >= rate

    with system:
        system.offer(20_000, 10_000)
        return highest(200_000, 5_000, carried)


def overload(system):
    with system:
        system.offer(20_000, 10_000)
        return [system.offer(200_000, 400_000) / system.offered_in]


def burst(system):
    with system:
        system.offer(20_000, 10_000)
        return highest(20_000, 8, lambda count: system.offer(0, count) >= count)


def latencies(system):
    with system:
        system.offer(1_000, 200)
        send(1_000, 4_000)
        time.sleep(QUIET / 2)
        return system.collect(4_000)[1]


def memory(system):
    """After a full store (1 MiB) and after an overload."""
    with system:
        system.offer(20_000, 40_000)
        full = system.resident_mib()
        system.offer(0, 400_000)
        return full, system.resident_mib()


def first_message(system):
    """From starting the system to the sending of the first message that reached the local log."""
    def once():
        with LogDevice() as log, socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
            begin = time.monotonic()
            with system.started():
                while time.monotonic() < begin + 20:
                    sender.sendto(message(f"- @{time.monotonic():.6f}"), ("127.0.0.1", PORT))
                    if select.select([log.socket], [], [], 0.0001)[0] and b"@" in (record := log.record()):
                        return (float(record.split(b"@")[1]) - begin) * 1e3
        raise AssertionError("nothing was taken")
    return [statistics.median(once() for _ in range(5))]


ROWS = [
    (["processor time at 20,000/s, us a message"], processor_time(20_000)),
    (["processor time at 30,000/s, us a message"], processor_time(30_000)),
    (["rate without loss, messages/s"], lossless_rate),
    (["delivered of 200,000/s, messages/s"], overload),
    (["latency to the viewer p50, us", "latency to the viewer p99, us"], latencies),
    (["burst received whole, messages"], burst),
    (["resident with a full store, MiB", "resident after an overload, MiB"], memory),
    (["start to the first message taken, ms"], first_message),
]


def systems(before, folder):
    yield System("hvlogger", PROGRAM, "server")
    if before:
        yield System("before", os.path.abspath(before), "server")
    yield System("floor", BUILD / "floor")
    yield System("old floor", BUILD / "floor", "old")
    if rsyslogd := shutil.which("rsyslogd", path=os.environ["PATH"] + ":/usr/sbin"):
        (folder / "rsyslog.conf").write_text(RSYSLOG)
        yield System("rsyslog", rsyslogd, "-n", "-iNONE", "-f", folder / "rsyslog.conf")
    unpacked = pathlib.Path("build/peers/usr")
    if syslog_ng := shutil.which("syslog-ng", path=f"{unpacked / 'sbin'}:{os.environ['PATH']}"):
        (folder / "syslog-ng.conf").write_text(SYSLOG_NG)
        modules = [f"--module-path={path}" for path in unpacked.glob("lib/syslog-ng/[0-9]*")]
        yield System("syslog-ng", syslog_ng, "-F", "--no-caps", "-f", folder / "syslog-ng.conf", "-p", folder / "pid",
                     "-R", folder / "persist", "-c", folder / "ctl", *modules,
                     environment={"LD_LIBRARY_PATH": str(unpacked / "lib/syslog-ng")})


def options(description):
    parser = argparse.ArgumentParser(prog="bench/run.sh", description=description.split("\n\n")[0])
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--before", help="another build of hvlogger, for a column of its own")
    return parser


def report(values, rounds):
    """Prints the medians of {row: {column: [a value a round]}} as a table."""
    columns = list(dict.fromkeys(column for row in values.values() for column in row))
    print(f"{f'medians of {rounds}':42}" + "".join(f"{column:>17}" for column in columns))
    for name, row in values.items():
        medians = [statistics.median(row.get(column) or [math.nan]) for column in columns]
        cells = (f"{value:,.1f} ({medians[0] / value if value else math.nan:.2f})" for value in medians)
        print(f"{name:42}" + "".join(f"{cell:>17}" for cell in cells))


def main():
    parser = options(__doc__)
    parser.add_argument("--only", default="", help="measure only rows whose name contains this")
    arguments = parser.parse_args()
    rows = [row for row in ROWS if any(arguments.only in name for name in row[0])]
    with tempfile.TemporaryDirectory() as folder:
        compared = list(systems(arguments.before, pathlib.Path(folder)))
        values = {name: {system.name: [] for system in compared} for names, _ in rows for name in names}
        for number in range(arguments.rounds):
            for names, measure in rows:
                for system in compared:
                    try:
                        measured = measure(system)
                    except (AssertionError, OSError, ValueError, subprocess.SubprocessError) as reason:
                        print(f"round {number + 1}: {names[0]}: {system.name} left out: {reason}", file=sys.stderr)
                        continue
                    print(f"round {number + 1}: {', '.join(names)}: {system.name} {measured}", file=sys.stderr)
                    for name, value in zip(names, measured):
                        values[name][system.name].append(value)
    report(values, arguments.rounds)


if __name__ == "__main__":
    main()
