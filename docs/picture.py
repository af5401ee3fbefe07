"""Draws docs/viewer.svg: what the viewer shows on a real terminal, with a real server.

    HVLOGGER=build/hvlogger tests/support/isolated.sh /usr/bin/python3 -B docs/picture.py FILE

The log lines carry fixed times, so the picture changes only with the program or with this script.
"""

import contextlib
import pathlib
import sys
import xml.sax.saxutils

from support.harness import MARKER, Server, Viewer, send_datagrams

# (seconds after 10:20, program, process id, severity, text), in three parts: stored before the viewer
# comes, logged while it shows everything, and logged while it shows warnings and worse.
STORED = [
    (31.004, "router", 388, 6, "Crosspoint 12 connected to 239.10.0.4:5004"),
    (31.118, "sap", 397, 7, "Announcement of 239.10.0.4 in 214 bytes"),
    (33.427, "sip", 412, 6, "INVITE from 10.0.0.17, call 7f3a91"),
    (33.431, "sip", 412, 7, "Codec L24/48000/2 chosen of 3 offered"),
    (33.902, "sip", 412, 6, "Call 7f3a91 set up in 475 ms"),
    (35.250, "nmos", 403, 5, "Registered with 10.0.0.2:8010"),
]
LIVE = [
    (38.771, "nmos", 403, 7, "Heartbeat answered in 3 ms"),
    (40.016, "router", 388, 4, "Stream 239.10.0.4:5004 late by 412 us"),
    (40.519, "router", 388, 3, "Stream 239.10.0.4:5004 lost"),
    (40.524, "sip", 412, 5, "Call 7f3a91 on hold, no media"),
]
WARNINGS = [
    (41.200, "sip", 412, 7, "Re-INVITE sent"),
    (43.080, "router", 388, 4, "Stream 239.10.0.4:5004 back after 2561 ms"),
]
COMMAND = "$ hvlogger client"
COLUMNS, COLUMN, ROW, MARGIN = 96, 8.43, 19, 14


def log(lines):
    send_datagrams(*(f"<{8 + severity}>1 2024-03-05T10:20:{second:06.3f}Z dev01 {program} {pid} - {text}".encode()
                     for second, program, pid, severity, text in lines))


def run_viewer():
    """Rows of the screen, and the keys that were pressed: key by number of the row it brought."""
    with contextlib.ExitStack() as stack:
        server = stack.enter_context(Server())
        log(STORED)
        send_datagrams(MARKER)
        server.dump()
        viewer = stack.enter_context(Viewer())
        keys = {}

        def await_text(text):
            nonlocal screen
            screen += viewer.read_until(text.encode())

        def press(key, last):
            keys[screen.count(b"\n")] = key
            viewer.keys(key.encode())
            await_text(last)

        screen = b""
        await_text(STORED[-1][-1] + "\r\n")
        log(LIVE)
        await_text(LIVE[-1][-1] + "\r\n")
        press("4", "up to: 4\r\n")
        log(WARNINGS)
        await_text(WARNINGS[-1][-1] + "\r\n")
        press("I", "sip disabled\r\n")
        press("a", WARNINGS[-1][-1] + "\r\n\r\n")
        assert viewer.quit() == 0
        return screen.decode().replace("\r", "").rstrip("\n").split("\n"), keys


def draw(rows, keys):
    width, height = round(COLUMNS * COLUMN + 2 * MARGIN), (len(rows) + 1) * ROW + 2 * MARGIN

    def text(row, content, colour, column=0):
        x, y = MARGIN + column * COLUMN, MARGIN + (row + 0.75) * ROW
        length = f' textLength="{len(content) * COLUMN:.1f}"' if content else ""
        return f'<text x="{x:.1f}" y="{y:.1f}" fill="{colour}"{length}>{xml.sax.saxutils.escape(content)}</text>'

    yield (f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {height}" width="{width}" '
           f'height="{height}" font-family="monospace" font-size="14" xml:space="preserve">')
    yield f'<rect width="{width}" height="{height}" rx="8" fill="#14181d"/>'
    yield text(0, COMMAND, "#8fd18f")
    for number, row in enumerate(rows):
        assert len(row) < COLUMNS - 8, row
        yield text(number + 1, row, "#d8dee6")
        if number in keys:
            yield text(number + 1, f"key {keys[number]}", "#e0b860", COLUMNS - 5)
    yield "</svg>"


pathlib.Path(sys.argv[1]).write_text("\n".join(draw(*run_viewer())) + "\n")
