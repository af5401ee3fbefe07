"""What the server keeps in memory: resident bytes per stored byte with a full store of 100-byte
messages, and whether they grow from one million datagrams to ten. Takes about six minutes.

    bench/run.sh memory
"""
from compare import System, send
from support.harness import PROGRAM

LENGTH, CAPACITY = 100, 1 << 20
RATE, PIECE = 30_000, 250_000

with System("hvlogger", PROGRAM, "server") as system:
    def offer(count):
        """Sends in pieces, each waited for: what is measured has been through the server."""
        for start in range(0, count, PIECE):
            send(RATE, min(PIECE, count - start), LENGTH)
            system.collect(min(PIECE, count - start))

    empty = system.resident_mib()
    offer(2 * CAPACITY // LENGTH)
    full = system.resident_mib()
    print(f"{empty:.1f} MiB at the start, {full:.1f} MiB with a full store: "
          f"{(full - empty) * (1 << 20) / CAPACITY:.2f} bytes per stored byte")
    for millions in 1, 9:
        offer(millions * 1_000_000)
        print(f"{system.resident_mib():.1f} MiB after {millions:,} million datagrams more", flush=True)
