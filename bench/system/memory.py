#!/usr/bin/env python3
"""What the server keeps in memory: resident bytes per stored byte with a full store of 100-byte
messages, and whether they grow from one million datagrams to ten.

    bench/run.sh memory

Run as root, on an idle machine; takes about six minutes. Everything happens in private network and
mount namespaces.
"""
import time

import compare

LENGTH, CAPACITY = 100, 1 << 20
RATE, PIECE = 30_000, 250_000


def offer(system, count):
    """Sends in pieces, each waited for: what is measured has been through the server."""
    arrived = 0
    while count:
        piece = min(count, PIECE)
        compare.send(RATE, piece, LENGTH)
        arrived += system.collect(piece)[0]
        count -= piece
    return arrived


def main():
    started = time.monotonic()
    with compare.System("hvlogger", [str(compare.BUILD / "hvlogger"), "server"],
                        compare.OWN_PORT) as system:
        empty = system.resident_kib()
        offer(system, 2 * CAPACITY // LENGTH)
        full = system.resident_kib()
        print(f"resident, KiB: {empty} at the start, {full} with a full store: "
              f"{(full - empty) * 1024 / CAPACITY:.2f} bytes per stored byte")
        arrived = 2 * CAPACITY // LENGTH
        for millions in 1, 10:
            while arrived < millions * 1_000_000:
                arrived += offer(system, millions * 1_000_000 - arrived)
            print(f"resident after {arrived:,} datagrams, KiB: {system.resident_kib()}")
    print(f"{time.monotonic() - started:.0f} s")


if __name__ == "__main__":
    main()
