#!/usr/bin/env python3
"""Draws docs/performance.svg from what compare.py measured.

    ./bench/system/compare.py --json FILE && ./bench/system/chart.py FILE

Above, where the processor time of one message goes in the server; below, the processor time of one
message in each system.
"""
import json
import pathlib
import sys

OUT = pathlib.Path(__file__).resolve().parents[2] / "docs" / "performance.svg"
WIDTH, LEFT, BAR, GAP = 760, 110, 26, 12
COLOURS = ["#4c78a8", "#72b7b2", "#9ecae9", "#f58518"]
RATE = "processor time at {},000/s, us a message"


class Drawing:
    def __init__(self, scale):
        self.scale, self.y, self.parts = scale, 10, []

    def text(self, x, y, text, anchor="start", weight="normal"):
        self.parts.append(f'<text x="{x:.0f}" y="{y:.0f}" text-anchor="{anchor}" '
                          f'font-weight="{weight}">{text}</text>')

    def title(self, text):
        self.text(10, self.y + 18, text, weight="bold")
        self.y += 34

    def bar(self, name, pieces, label):
        """Pieces are (value, colour), side by side."""
        self.text(LEFT - 8, self.y + 18, name, "end")
        x = LEFT
        for value, colour in pieces:
            width = max(value, 0) * self.scale
            self.parts.append(f'<rect x="{x:.1f}" y="{self.y}" width="{width:.1f}" '
                              f'height="{BAR}" fill="{colour}"/>')
            x += width
        self.text(x + 6, self.y + 18, label)
        self.y += BAR + GAP

    def legend(self, entries):
        x = 10
        for name, colour in entries:
            self.parts.append(f'<rect x="{x}" y="{self.y}" width="12" height="12" fill="{colour}"/>')
            self.text(x + 16, self.y + 11, name)
            x += 28 + 7 * len(name)
        self.y += 30

    def save(self, path):
        path.write_text(f'<svg xmlns="http://www.w3.org/2000/svg" width="{WIDTH}" '
                        f'height="{self.y}" font-family="sans-serif" font-size="13">\n'
                        f'<rect width="100%" height="100%" fill="white"/>\n' +
                        "\n".join(self.parts) + "\n</svg>\n")


def main():
    medians = json.loads(pathlib.Path(sys.argv[1]).read_text())["medians"]
    low, high = medians[RATE.format(20)], medians[RATE.format(30)]
    systems = list(high)
    drawing = Drawing((WIDTH - LEFT - 90) / max([*low.values(), *high.values()]))

    receive, log = low["receive"], low["receive, log"]
    steps = [("wait and receive", receive), ("local log", log - receive),
             ("viewer", low["floor"] - log), ("hvlogger itself", low["hvlogger"] - low["floor"])]
    drawing.title("One message in hvlogger at 20,000 a second, us of processor time")
    drawing.bar("hvlogger", [(value, colour) for (_, value), colour in zip(steps, COLOURS)],
                f"{low['hvlogger']:.1f}")
    drawing.legend([(f"{name} {value:.1f}", colour)
                    for (name, value), colour in zip(steps, COLOURS)])
    for row, rate in (low, 20), (high, 30):
        drawing.title(f"One message at {rate},000 a second, us of processor time")
        for system in systems:
            colour = COLOURS[3] if system == "hvlogger" else COLOURS[0]
            drawing.bar(system, [(row[system], colour)], f"{row[system]:.1f}")
    drawing.save(OUT)


if __name__ == "__main__":
    main()
