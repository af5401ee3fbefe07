"""Log text that attacks the terminal: what reaches the screen, and what looking costs."""

import pathlib
import re
import time

from support.harness import HYPHENS, MARKER, Server, Viewer, cpu_ns, message, send_datagrams

ATTACKS = {
    "ESC": "\x1b",
    "lone CR": "(?<!\n)\r(?!\n)",
    "other control characters": "[\x00-\x08\x0b\x0c\x0e-\x1a\x1c-\x1f\x7f]",
    "of U+0080 to U+009F": "[\x80-\x9f]",
    "bytes of no UTF-8 character": "[\udc80-\udcff]",
}


def show(texts, measure):
    """Logs the texts, lets a viewer on a terminal show them, and calls measure(viewer)."""
    with Server() as server:
        for start in range(0, len(texts), 50):
            server.collect(*[message("") + text for text in texts[start:start + 50]])
        with Viewer() as viewer:
            viewer.read_until(texts[-1] + b"\r\n")
            measure(viewer)


def reprint(viewer):
    """Presses 'a'; returns the listing that follows on the screen."""
    viewer.keys(b"a")
    return viewer.read_until(b"\r\n\r\n").removeprefix(HYPHENS).removesuffix(b"\r\n")


def hostile_text():
    """Hostile lines on a real terminal: what of them reaches the screen."""
    def measure(viewer):
        text = reprint(viewer).decode(errors="surrogateescape")
        print(f"    {len(text)} characters on the screen: "
              + ", ".join(f"{len(re.findall(pattern, text))} {name}" for name, pattern in ATTACKS.items()))
    hostile = [b"\x1b[2J\x1b]0;x\x07", b"refused\raccepted", b"\xc2\x9b31m \x9b31m", b"\x7f\b\xff\xc0\x9b"]
    show(hostile * 500 + [b"last."], measure)


def harmless_text():
    """What looking costs when there is nothing to find, mean of 50 listings."""
    def measure(viewer):
        def writes():
            return int(re.search(r"syscw: (\d+)", pathlib.Path(f"/proc/{viewer.process.pid}/io").read_text())[1])

        used, calls, start = cpu_ns(viewer.process.pid), writes(), time.monotonic()
        size = sum(len(reprint(viewer)) for _ in range(50))
        print(f"    {size / 50 / 1024:.0f} KiB: {(time.monotonic() - start) / 50 * 1e3:.1f} ms until it is on the screen, "
              f"{(cpu_ns(viewer.process.pid) - used) / 50 / 1e6:.2f} ms of the viewer's processor time, "
              f"{(writes() - calls) / 50:.1f} writes")
    show([f"{n:05} Gr\u00fc\u00dfe {'x' * 60}".encode() for n in range(7500)], measure)
