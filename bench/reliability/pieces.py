"""Messages in pieces: how many arrive cut at the viewer, and how long a single one takes.

    HVLOGGER=build/hvlogger tests/support/isolated.sh /usr/bin/python3 bench/reliability/pieces.py

Listings on plain loopback and over links of 100 and 10 Mbit/s with MTU 1500, 5,000 forwarded
messages a second for 20 s, and the latency of single messages, datagram to output.
"""

import os
import select
import subprocess
import time

from support.harness import MARKER, PROGRAM, Server, message, send_datagrams, shown


def settle(output, quiet=1.0):
    """Everything that comes until nothing has come for a while."""
    data = bytearray()
    while select.select([output], [], [], quiet)[0]:
        chunk = os.read(output, 1 << 20)
        if not chunk:
            break
        data += chunk
    return bytes(data)


def viewer():
    process = subprocess.Popen([PROGRAM, "client"], stdin=subprocess.PIPE, stdout=subprocess.PIPE)
    return process, process.stdout.fileno()


def end(process):
    process.stdin.write(b"q")
    process.stdin.flush()
    process.communicate()


def listing(where):
    # As many messages as fill the store: 1 MiB of about 100 bytes each.
    texts = [f"{n:05} {'x' * (n % 100)}" for n in range(10131)]
    with Server() as server:
        for start in range(0, len(texts), 100):
            send_datagrams(*map(message, texts[start:start + 100]))
            time.sleep(0.005)
        send_datagrams(MARKER)
        server.dump()
        kept, size = [], 0
        for text in reversed(texts):
            size += len(message(text))
            if size > 1 << 20:
                break
            kept.append(shown(text)[:-2])
        process, output = viewer()
        lines = set(settle(output).replace(b"\n\r", b"\r\n").split(b"\r\n"))
        missing = sum(line not in lines for line in kept)
        print(f"listing {where}: {missing} of {len(kept)} messages cut", flush=True)
        end(process)


def forwarded(rate, seconds):
    with Server():
        process, output = viewer()
        os.read(output, 100)
        sent, data, start = 0, bytearray(), time.monotonic()
        while sent < rate * seconds:
            due = int(min((time.monotonic() - start) * rate, rate * seconds))
            send_datagrams(*[message(f"{n:06} {'x' * (n % 100)}") for n in range(sent, due)])
            sent = max(sent, due)
            if select.select([output], [], [], 0.001)[0]:
                data += os.read(output, 1 << 20)
        data += settle(output)
        lines = set(bytes(data).split(b"\r\n"))
        missing = sum(shown(f"{n:06} {'x' * (n % 100)}")[:-2] not in lines for n in range(sent))
        print(f"{rate} forwarded a second for {seconds} s: {missing} of {sent} messages cut or lost", flush=True)
        end(process)


def latency(count):
    with Server():
        process, output = viewer()
        os.read(output, 100)
        taken = []
        for n in range(count):
            datagram, line = message(f"{n}"), shown(f"{n}")
            start = time.perf_counter()
            send_datagrams(datagram)
            data = b""
            while not data.endswith(line):
                data += os.read(output, 65536)
            taken.append(time.perf_counter() - start)
            time.sleep(0.002)
        taken.sort()
        print(f"single message, datagram to output: p50 {taken[count // 2] * 1e3:.3f} ms, "
              f"p99 {taken[count * 99 // 100] * 1e3:.3f} ms", flush=True)
        end(process)


latency(1000)
for _ in range(3):
    listing("on plain loopback")
forwarded(5000, 20)
subprocess.run(["ip", "link", "set", "lo", "mtu", "1500"], check=True)
subprocess.run("tc qdisc add dev lo root tbf rate 100mbit burst 32kbit latency 400ms".split(), check=True)
for _ in range(3):
    listing("at 100 Mbit/s, MTU 1500")
subprocess.run("tc qdisc change dev lo root tbf rate 10mbit burst 32kbit latency 4s".split(), check=True)
listing("at 10 Mbit/s, MTU 1500")
