"""Compares hvlogger with rsyslog, syslog-ng and the floor (floor.cpp: the smallest loop that does the
same, and the smallest of the old road), each taking messages on UDP and passing every one to the local
log socket and to one TCP viewer.

    bench/run.sh compare [--rounds N] [--only ROW] [--before EXECUTABLE] [--json FILE]

Prints medians over the rounds; in brackets, how many times it hvlogger's figure is.
"""
import argparse
import contextlib
import json
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

from support.harness import PORT, PROGRAM, LogDevice, status

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD = ROOT / "build-bench/bench/system"
SINK_PORT = 50001
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


class LeftOut(Exception):
    """Why a round tells nothing."""


class System:
    """A log collector and how it is started; entered, it runs with its sinks."""

    def __init__(self, name, *command, port=PORT, environment=None):
        self.name, self.command, self.port = name, [*map(str, command)], port
        self.environment = {**os.environ, **(environment or {})}

    def __enter__(self):
        self.sink = subprocess.Popen([BUILD / "load", "sink", str(self.port)], text=True, bufsize=1,
                                     stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        self.sink.stdout.readline()
        self.process = subprocess.Popen(self.command, env=self.environment, stdout=subprocess.DEVNULL,
                                        stderr=subprocess.DEVNULL)
        try:
            while not select.select([self.sink.stdout], [], [], 0.1)[0] and self.process.poll() is None:
                if self.port == SINK_PORT:  # some connect only when they have something to send
                    send(100, 1)
            if self.process.poll() is not None or self.sink.stdout.readline() != "ready\n":
                raise LeftOut("it does not start")
            self.collect(math.inf)
        except BaseException:
            self.__exit__()
            raise
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.wait()
        self.sink.stdin.close()
        self.sink.wait()
        self.sink.stdout.close()
        pathlib.Path("/dev/log").unlink()

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
        if rate and self.offered_in > 1.1 * count / rate + 0.05:
            raise LeftOut(f"the sender took {self.offered_in:.2f} s for {count / rate:.2f}")
        return self.collect(count)[0]

    def processor_seconds(self):
        return time.clock_gettime((~self.process.pid) << 3 | 2)  # clock_getcpuclockid(3)

    def resident_mib(self):
        return status(self.process.pid, "VmRSS") / 1024


def send(rate, count, *length):
    """Returns the seconds that sending took."""
    return float(subprocess.check_output([BUILD / "load", "send", *map(str, (rate, count, *length))]))


def processor_time(rate):
    def measure(system):
        with system:
            system.offer(rate, rate // 4)
            before, count = system.processor_seconds(), 2 * rate
            arrived = system.offer(rate, count)
            # A machine that has other things to do now and then drops a few.
            if arrived < 0.99 * count:
                raise LeftOut(f"only {arrived} of {count} arrived")
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
        with contextlib.suppress(LeftOut):  # what could not be offered was not carried
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


def start(system):
    """From starting the system to the sending of the first message that reached the local log."""
    def once():
        with LogDevice() as log, socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
            begin = time.monotonic()
            pid = os.posix_spawn(system.command[0], system.command, system.environment, file_actions=[
                (os.POSIX_SPAWN_OPEN, 1, os.devnull, os.O_WRONLY, 0), (os.POSIX_SPAWN_DUP2, 1, 2)])
            try:
                while time.monotonic() < begin + 20:
                    sender.sendto(b"<14>1 2024-03-05T10:20:30.123Z dev01 sip 412 - - @%.6f" % time.monotonic(),
                                  ("127.0.0.1", PORT))
                    time.sleep(0.0001)
                    while select.select([log.socket], [], [], 0)[0]:
                        if b"@" in (record := log.record()):
                            return (float(record.split(b"@")[1]) - begin) * 1e3
                raise LeftOut("nothing was taken")
            finally:
                os.kill(pid, 9)
                os.waitpid(pid, 0)
    return [statistics.median(once() for _ in range(5))]


ROWS = [
    (["processor time at 20,000/s, us a message"], processor_time(20_000)),
    (["processor time at 30,000/s, us a message"], processor_time(30_000)),
    (["rate without loss, messages/s"], lossless_rate),
    (["delivered of 200,000/s, messages/s"], overload),
    (["latency to the viewer p50, us", "latency to the viewer p99, us"], latencies),
    (["burst received whole, messages"], burst),
    (["resident with a full store, MiB", "resident after an overload, MiB"], memory),
    (["start to the first message taken, ms"], start),
]


def systems(before, folder):
    yield System("hvlogger", PROGRAM, "server")
    if before:
        yield System("before", os.path.abspath(before), "server")
    yield System("floor", BUILD / "floor")
    yield System("old floor", BUILD / "floor", "old")
    if rsyslogd := shutil.which("rsyslogd", path=os.environ["PATH"] + ":/usr/sbin"):
        (folder / "rsyslog.conf").write_text(RSYSLOG)
        yield System("rsyslog", rsyslogd, "-n", "-iNONE", "-f", folder / "rsyslog.conf", port=SINK_PORT)
    unpacked = ROOT / "build/peers/usr"
    if syslog_ng := shutil.which("syslog-ng", path=f"{unpacked / 'sbin'}:{os.environ['PATH']}"):
        (folder / "syslog-ng.conf").write_text(SYSLOG_NG)
        modules = [f"--module-path={path}" for path in unpacked.glob("lib/syslog-ng/[0-9]*")]
        yield System("syslog-ng", syslog_ng, "-F", "--no-caps", "-f", folder / "syslog-ng.conf", "-R", folder / "persist",
                     "-p", folder / "pid", "-c", folder / "ctl", *modules, port=SINK_PORT,
                     environment={"LD_LIBRARY_PATH": str(unpacked / "lib/syslog-ng")})


def options(description):
    parser = argparse.ArgumentParser(prog="bench/run.sh", description=description.split("\n\n")[0])
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--json", type=pathlib.Path, help="write medians and rounds to this file")
    parser.add_argument("--before", help="another build of hvlogger, for a column of its own")
    return parser


def report(values, arguments):
    """Prints the medians of {row: {column: [a value a round]}} as a table."""
    columns = list(dict.fromkeys(column for row in values.values() for column in row))
    medians = {name: {column: statistics.median(row.get(column) or [math.nan]) for column in columns}
               for name, row in values.items()}
    print(f"{f'medians of {arguments.rounds}':42}" + "".join(f"{column:>17}" for column in columns))
    for name, row in medians.items():
        cells = (f"{value:,.1f} ({row['hvlogger'] / value if value else math.nan:.2f})" for value in row.values())
        print(f"{name:42}" + "".join(f"{cell:>17}" for cell in cells))
    if arguments.json:
        arguments.json.write_text(json.dumps({"medians": medians, "rounds": values}, indent=1))


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
                    except (LeftOut, OSError, ValueError, subprocess.SubprocessError) as reason:
                        print(f"round {number + 1}: {names[0]}: {system.name} left out: {reason}", file=sys.stderr)
                        continue
                    print(f"round {number + 1}: {', '.join(names)}: {system.name} {measured}", file=sys.stderr)
                    for name, value in zip(names, measured):
                        values[name][system.name].append(value)

    report(values, arguments)


if __name__ == "__main__":
    main()
