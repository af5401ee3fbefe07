#!/usr/bin/env python3
"""Compares hvlogger with rsyslog, syslog-ng and the floor (bench/system/floor.cpp), each doing the same
work: UDP messages in, every one to the local log socket and to one TCP viewer.

    bench/run.sh compare [--rounds N] [--json FILE]

Prints medians over the rounds and ratios to the floor.
"""
import argparse
import json
import os
import pathlib
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD = ROOT / "build-bench"
LOAD = str(BUILD / "bench/system/load")
OWN_PORT, SINK_PORT = 50000, 50001

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


class System:
    """A log collector and how it is started; entered, it runs with its sinks. `sinks` says which of
    them get every message: 0 the local log, 1 the viewer."""

    def __init__(self, name, command, port, environment=None, sinks=(0, 1)):
        self.name, self.command, self.port, self.sinks = name, command, port, sinks
        self.environment = dict(os.environ, **(environment or {}))

    def __enter__(self):
        self.sink = subprocess.Popen([LOAD, "sink", str(self.port)], text=True, bufsize=1,
                                     stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        assert self.sink.stdout.readline() == "listening\n"
        self.process = subprocess.Popen(self.command, env=self.environment,
                                        stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        if self.port == SINK_PORT:  # some connect only when they have something to send
            os.set_blocking(self.sink.stdout.fileno(), False)
            while self.sink.stdout.readline() != "ready\n":
                assert self.process.poll() is None, self.command
                send(100, 1)
            os.set_blocking(self.sink.stdout.fileno(), True)
        else:
            assert self.sink.stdout.readline() == "ready\n"
        self.collect(1 << 60)
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.wait()
        self.sink.stdin.close()
        self.sink.wait()
        self.sink.stdout.close()

    def collect(self, count):
        """Waits until the sinks have `count` messages or nothing more comes. Returns the smallest
        number, and the latency quantiles of the last report that had messages."""
        arrived = [0, 0]
        latency = (0, 0)
        last = time.monotonic()
        smallest = 0
        while smallest < count and time.monotonic() - last < 0.5:
            self.sink.stdin.write("?\n")
            *more, p50, p99 = map(int, self.sink.stdout.readline().split())
            if any(more):
                last = time.monotonic()
            if more[1]:
                latency = p50, p99
            arrived = [a + m for a, m in zip(arrived, more)]
            smallest = min((arrived[sink] for sink in self.sinks), default=0)
            if smallest < count:
                time.sleep(0.02)
        return smallest, latency

    def offer(self, rate, count):
        """Sends; returns what collect() does. Without a sink the kernel tells what was lost."""
        dropped = receive_errors()
        send(rate, count)
        arrived, latency = self.collect(count)
        return arrived if self.sinks else count - (receive_errors() - dropped), latency

    def processor_seconds(self):
        return time.clock_gettime((~self.process.pid) << 3 | 2)  # clock_getcpuclockid(3)

    def resident_kib(self):
        status = pathlib.Path(f"/proc/{self.process.pid}/status").read_text()
        return int(status.split("VmRSS:")[1].split()[0])


def send(rate, count, *length):
    subprocess.run([LOAD, "send", *map(str, (rate, count, *length))], check=True,
                   stdout=subprocess.DEVNULL)


def receive_errors():
    names, values = (line.split() for line in pathlib.Path("/proc/net/snmp").read_text().split("\n")
                     if line.startswith("Udp:"))
    return int(values[names.index("RcvbufErrors")])


def processor_time(rate):
    def measure(system):
        with system:
            system.offer(rate, rate // 4)
            before = system.processor_seconds()
            count = 3 * rate
            arrived, _ = system.offer(rate, count)
            used = system.processor_seconds() - before
            # A machine that has other things to do now and then drops a few.
            return used / arrived * 1e6 if arrived > 0.99 * count else float("nan")
    return measure


def highest(high, step, received_whole):
    """The largest multiple of `step` up to high that is received whole, by bisection. A machine has
    other things to do now and then: each gets two attempts."""
    low, high = 0, high // step + 1
    while high - low > 1:
        middle = (low + high) // 2
        whole = received_whole(middle * step) or received_whole(middle * step)
        low, high = (middle, high) if whole else (low, middle)
    return low * step


def lossless_rate(system):
    with system:
        system.offer(20_000, 10_000)
        return highest(200_000, 5_000, lambda rate: system.offer(rate, rate)[0] >= rate)


def burst(limit, step):
    def measure(system):
        with system:
            system.offer(20_000, 10_000)
            return highest(limit, step, lambda count: system.offer(0, count)[0] >= count)
    return measure


def latencies(system):
    with system:
        system.offer(1_000, 200)
        send(1_000, 4_000)
        time.sleep(0.2)
        return system.collect(4_000)[1]


def memory(system):
    """After a full store (1 MiB) and after an overload."""
    with system:
        system.offer(20_000, 40_000)
        full = system.resident_kib()
        system.offer(0, 400_000)
        return full / 1024, system.resident_kib() / 1024


def start(system):
    output = subprocess.check_output([LOAD, "start", *system.command], env=system.environment,
                                     stderr=subprocess.DEVNULL, text=True)
    return float(output.split("\n")[-2])


ROWS = [
    (["processor time at 20,000/s, us a message"], lambda s: [processor_time(20_000)(s)]),
    (["processor time at 30,000/s, us a message"], lambda s: [processor_time(30_000)(s)]),
    (["rate without loss, messages/s"], lambda s: [lossless_rate(s)]),
    (["burst received whole, default buffers"], lambda s: [burst(2_000, 4)(s)]),
    (["latency to the viewer p50, us", "latency to the viewer p99, us"], latencies),
    (["resident with a full store, MiB", "resident after an overload, MiB"], memory),
    (["start to the first message taken, ms"],
     lambda s: [statistics.median(start(s) for _ in range(5))]),
]


FLOOR = str(BUILD / "bench/system/floor")
# The floor with steps left out: the differences tell what each step costs.
STEPS = [System("receive", [FLOOR, "nolog", "noviewer"], OWN_PORT, sinks=()),
         System("receive, log", [FLOOR, "noviewer"], OWN_PORT, sinks=(0,))]


def median(rounds):
    """Of the rounds that told something; nan if none did."""
    return statistics.median([value for value in rounds if value == value] or [float("nan")])


def systems(folder):
    found = [System("floor", [FLOOR], OWN_PORT), System("old floor", [FLOOR, "old"], OWN_PORT),
             System("hvlogger", [str(BUILD / "hvlogger"), "server"], OWN_PORT)]
    rsyslogd = shutil.which("rsyslogd", path=os.environ["PATH"] + ":/usr/sbin")
    if rsyslogd:
        configuration = folder / "rsyslog.conf"
        configuration.write_text(RSYSLOG)
        found.append(System("rsyslog", [rsyslogd, "-n", "-iNONE", "-f", str(configuration)],
                            SINK_PORT))
    else:
        print("rsyslog is not here: left out", file=sys.stderr)
    unpacked = ROOT / "build" / "peers" / "usr"
    syslog_ng = shutil.which("syslog-ng", path=f"{os.environ['PATH']}:{unpacked / 'sbin'}")
    if syslog_ng:
        configuration = folder / "syslog-ng.conf"
        configuration.write_text(SYSLOG_NG)
        command = [syslog_ng, "-F", "--no-caps", "-f", str(configuration), "-R",
                   str(folder / "persist"), "-p", str(folder / "pid"), "-c", str(folder / "ctl")]
        environment = {}
        if unpacked in pathlib.Path(syslog_ng).parents:
            command.append(f"--module-path={unpacked / 'lib/syslog-ng/3.38'}")
            environment["LD_LIBRARY_PATH"] = str(unpacked / "lib/syslog-ng")
        found.append(System("syslog-ng", command, SINK_PORT, environment))
    else:
        print("syslog-ng is not here: left out", file=sys.stderr)
    return found


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--json", type=pathlib.Path)
    parser.add_argument("--only", default="", help="measure only rows whose name contains this")
    arguments = parser.parse_args()
    rows = [row for row in ROWS if any(arguments.only in name for name in row[0])]
    values = {}
    with tempfile.TemporaryDirectory() as folder:
        compared = systems(pathlib.Path(folder))
        for number in range(arguments.rounds):
            for names, measure in rows:
                steps = STEPS if "20,000/s" in names[0] else []
                for system in compared + steps:
                    measured = measure(system)
                    for name, value in zip(names, measured):
                        values.setdefault(name, {}).setdefault(system.name, []).append(value)
                    print(f"round {number + 1}: {', '.join(names)}: {system.name} {measured}",
                          file=sys.stderr)

    medians = {name: {system: median(rounds) for system, rounds in row.items()}
               for name, row in values.items()}
    print(f"{'median of ' + str(arguments.rounds) + ' (times the floor)':44}" +
          "".join(f"{system.name:>18}" for system in compared))
    for name, row in medians.items():
        cells = (f"{row[system.name]:,.1f} ({row[system.name] / row['floor']:.2f})"
                 for system in compared)
        print(f"{name:44}" + "".join(f"{cell:>18}" for cell in cells))
        for step in (step.name for step in STEPS if step.name in row):
            print(f"  of it the floor, {step + ':':25}{row[step]:6.1f}")
    if arguments.json:
        arguments.json.write_text(json.dumps({"medians": medians, "rounds": values}, indent=1))


if __name__ == "__main__":
    main()
