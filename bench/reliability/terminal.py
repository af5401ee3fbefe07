"""Log text that attacks the terminal: what of it reaches the screen."""

import re

from support.harness import Server, Viewer, message

ATTACKS = {
    "ESC": "\x1b",
    "lone CR": "(?<!\n)\r(?!\n)",
    "other control characters": "[\x00-\x08\x0b\x0c\x0e-\x1a\x1c-\x1f\x7f]",
    "of U+0080 to U+009F": "[\x80-\x9f]",
    "bytes of no UTF-8 character": "[\udc80-\udcff]",
}


def hostile_text():
    """Hostile lines on a real terminal: what of them reaches the screen."""
    lines = b"\x1b[2J\x1b]0;x\x07", b"refused\raccepted", b"\xc2\x9b31m \x9b31m", b"\x7f\b\xff\xc0\x9b"
    hostile = [*lines * 500, b"last."]
    with Server() as server:
        for start in range(0, len(hostile), 50):
            server.collect(*[message("") + text for text in hostile[start:start + 50]])
        with Viewer() as viewer:
            viewer.read_until(hostile[-1] + b"\r\n")
            viewer.keys(b"a")
            text = viewer.read_until(b"\r\n\r\n").decode(errors="surrogateescape")
    print(f"    {len(text)} characters on the screen: "
          + ", ".join(f"{len(re.findall(pattern, text))} {name}" for name, pattern in ATTACKS.items()))
