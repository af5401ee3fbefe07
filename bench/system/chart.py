#!/usr/bin/env python3
"""Draws docs/performance.svg from what compare measured: the processor time of one message.

    bench/run.sh compare --json FILE && bench/system/chart.py FILE
"""
import json
import math
import pathlib
import sys

OUT = pathlib.Path(__file__).resolve().parents[2] / "docs" / "performance.svg"
WIDTH, LEFT, BAR, GAP = 760, 110, 26, 12
ROW = "processor time at {},000/s, us a message"


def main():
    medians = json.loads(pathlib.Path(sys.argv[1]).read_text())["medians"]
    rows = {rate: {system: value for system, value in medians[ROW.format(rate)].items() if not math.isnan(value)}
            for rate in (20, 30)}
    scale = (WIDTH - LEFT - 90) / max(max(row.values()) for row in rows.values())
    y, parts = 10, []
    for rate, row in rows.items():
        parts.append(f'<text x="10" y="{y + 18}" font-weight="bold">'
                     f'One message at {rate},000 a second, us of processor time</text>')
        y += 34
        for system, value in row.items():
            colour, width = "#f58518" if system == "hvlogger" else "#4c78a8", value * scale
            parts += [f'<text x="{LEFT - 8}" y="{y + 18}" text-anchor="end">{system}</text>',
                      f'<rect x="{LEFT}" y="{y}" width="{width:.1f}" height="{BAR}" fill="{colour}"/>',
                      f'<text x="{LEFT + width + 6:.0f}" y="{y + 18}">{value:.1f}</text>']
            y += BAR + GAP
    OUT.write_text(f'<svg xmlns="http://www.w3.org/2000/svg" width="{WIDTH}" height="{y}" font-family="sans-serif" '
                   f'font-size="13">\n<rect width="100%" height="100%" fill="white"/>\n' + "\n".join(parts) + "\n</svg>\n")


if __name__ == "__main__":
    main()
