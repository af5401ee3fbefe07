"""A link between two network namespaces, on any kernel that has TUN devices."""

import contextlib
import ctypes
import fcntl
import heapq
import os
import random
import select
import struct
import subprocess
import time

from support.harness import DEADLINE, Entered
from traffic import beside, fork

HERE, THERE = "10.99.0.1", "10.99.0.2"
TUNSETIFF, IFF_TUN, IFF_NO_PI, CLONE_NEWNET = 0x400454CA, 0x0001, 0x1000, 0x40000000  # linux/if_tun.h, sched.h


def wire():
    device = os.open("/dev/net/tun", os.O_RDWR)
    fcntl.ioctl(device, TUNSETIFF, struct.pack("16sH22x", b"wire", IFF_TUN | IFF_NO_PI))
    return device


def with_checksum(part, at):
    total = sum(struct.unpack(f"!{len(part) // 2}H", part))
    return part[:at] + struct.pack("!H", ~(total % 0xFFFF) & 0xFFFF) + part[at + 2:]


def too_big(packet, mtu):
    """"Fragmentation needed" (RFC 792, RFC 1191), to the source of the packet as from its destination."""
    icmp = struct.pack("!BBHHH", 3, 4, 0, 0, mtu) + packet[:28]
    ip = struct.pack("!BBHHHBBH4s4s", 0x45, 0, 20 + len(icmp), 0, 0, 64, 1, 0, packet[16:20], packet[12:16])
    return with_checksum(ip, 10) + with_checksum(icmp, 2)


class Link(Entered):
    """A relay between this namespace and one behind it, with a device of MTU 1500 in each. In each direction it has a
    rate (Mbit/s), a queue of bounded length (ms), half of the round trip's time (ms), and losses (%) drawn from the
    run's number. A packet that is larger than the path MTU is answered as a router on the way would, with the MTU that
    fits. While the relay is stopped (SIGSTOP), the link is one that went down without a word."""

    def __init__(self, mbit=100, rtt=0, loss=0, mtu=1500, queue=100):
        self.seconds_per_byte, self.delay, self.longest_queue = 8e-6 / mbit, rtt / 2000, queue / 1000
        self.loss, self.mtu = loss / 100, mtu
        self.late = fork.Value("d")  # at most, in s: what a busy machine added to the link
        ready = fork.Event()
        self.relay = beside(self.carry, ready)
        assert ready.wait(DEADLINE), "no TUN devices here"
        self.there = ["nsenter", "--net", f"--target={self.relay.pid}"]  # in front of a command that is to run there
        for enter, own, other in ([], HERE, THERE), (self.there, THERE, HERE):
            subprocess.run([*enter, *f"ip address add {own} peer {other} dev wire".split()], check=True)
            subprocess.run([*enter, *"ip link set wire up".split()], check=True)

    def close(self):
        self.relay.kill()
        self.relay.join()

    def carry(self, ready):
        near = wire()
        assert ctypes.CDLL(None).unshare(CLONE_NEWNET) == 0, "no network namespaces here"
        far = wire()
        ready.set()
        with contextlib.suppress(PermissionError):  # ahead of what it is to disturb, where that is permitted
            os.sched_setscheduler(0, os.SCHED_FIFO, os.sched_param(1))
        chance, free_at = random.Random(os.environ["RUN"]), {near: 0.0, far: 0.0}
        under_way = []  # a heap of (time of arrival, device, packet)
        while True:
            patience = max(0.0, under_way[0][0] - time.monotonic()) if under_way else None
            for source in select.select([near, far], [], [], patience)[0]:
                packet, now = os.read(source, 2048), time.monotonic()
                start = max(now, free_at[source])
                if packet[0] >> 4 != 4:
                    pass  # not IPv4: the kernel's own, of no interest here
                elif len(packet) > self.mtu:
                    os.write(source, too_big(packet, self.mtu))
                elif start - now <= self.longest_queue:
                    free_at[source] = start + len(packet) * self.seconds_per_byte
                    if chance.random() >= self.loss:
                        destination = near if source == far else far
                        heapq.heappush(under_way, (free_at[source] + self.delay, destination, packet))
            while under_way and under_way[0][0] <= time.monotonic():
                due, device, packet = heapq.heappop(under_way)
                self.late.value = max(self.late.value, time.monotonic() - due)
                with contextlib.suppress(OSError):  # what an end that is down does not take is lost, as on any link
                    os.write(device, packet)
