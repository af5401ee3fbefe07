"""Log text that attacks the terminal: which control bytes reach the screen, and what looking costs.

    HVLOGGER=build/hvlogger tests/support/isolated.sh /usr/bin/python3 bench/reliability/terminal_text.py
"""

import pathlib
import re
import time

from support.harness import HYPHENS, MARKER, Server, Viewer, cpu_ns, send_datagrams

REPEATS = 50
ATTACKS = {
    "ESC": "\x1b",
    "lone CR": "(?<!\n)\r(?!\n)",
    "other control characters": "[\x00-\x08\x0b\x0c\x0e-\x1a\x1c-\x1f\x7f]",
    "of U+0080 to U+009F": "[\x80-\x9f]",
    "bytes of no UTF-8 character": "[\udc80-\udcff]",
}


def reprint(viewer):
    """Presses 'a'; returns the listing that follows on the screen."""
    viewer.screen = b""
    viewer.keys(b"a")
    pieces, tail = [], b""
    while not tail.endswith(b"\r\n\r\n"):
        viewer.read()
        pieces.append(viewer.screen)
        tail = (tail + viewer.screen)[-4:]
        viewer.screen = b""
    return b"".join(pieces).removeprefix(HYPHENS).removesuffix(b"\r\n")


def writes(pid):
    return int(re.search(r"syscw: (\d+)", pathlib.Path(f"/proc/{pid}/io").read_text())[1])


def session(texts, measure):
    """Logs the texts, lets a viewer on a terminal show them, and measures."""
    with Server() as server:
        for start in range(0, len(texts), 50):
            send_datagrams(*(b"<14>1 2024-03-05T10:20:30.123Z dev01 sip 412 - " + text
                             for text in texts[start:start + 50]), MARKER)
            server.dump()
        with Viewer() as viewer:
            while not viewer.screen.endswith(texts[-1] + b"\r\n"):
                viewer.read()
            measure(viewer)


def attacks(viewer):
    listing = reprint(viewer)
    text = listing.decode(errors="surrogateescape")
    counts = ", ".join(f"{len(re.findall(pattern, text))} {name}" for name, pattern in ATTACKS.items())
    print(f"{len(listing)} bytes on the screen: {counts}")


def cost(viewer):
    pid = viewer.process.pid
    used, calls, size, start = cpu_ns(pid), writes(pid), 0, time.monotonic()
    for _ in range(REPEATS):
        size += len(reprint(viewer))
    print(f"{size / REPEATS / 1024:.0f} KiB of harmless listing, mean of {REPEATS}: "
          f"{(time.monotonic() - start) / REPEATS * 1e3:.1f} ms until it is on the screen, "
          f"{(cpu_ns(pid) - used) / REPEATS / 1e6:.2f} ms of the viewer's processor time, "
          f"{(writes(pid) - calls) / REPEATS:.1f} writes")


hostile = [b"\x1b[2J\x1b]0;x\x07", b"refused\raccepted", b"\xc2\x9b31m \x9b31m", b"\x7f\b\xff\xc0\x9b"]
session(hostile * 500 + [b"last."], attacks)
session([f"{n:05} Gr\u00fc\u00dfe {'x' * 60}".encode() for n in range(7500)], cost)
