"""Draws docs/performance.svg from the table of docs/performance.md: the processor time of one message.

    /usr/bin/python3 docs/chart.py
"""
import pathlib

DOCS = pathlib.Path(__file__).parent
WIDTH, LEFT, BAR, GAP = 760, 110, 26, 12
ROW = "processor time of a message at {},000/s, us"

table = [[cell.strip() for cell in line.split("|")[1:-1]]
         for line in (DOCS / "performance.md").read_text().splitlines() if line.startswith("|")]
rows = {rate: [float(cell) for title, *cells in table if title == ROW.format(rate) for cell in cells]
        for rate in (20, 30)}
scale = (WIDTH - LEFT - 90) / max(max(row) for row in rows.values())
y, parts = 10, []
for rate, row in rows.items():
    parts.append(f'<text x="10" y="{y + 18}" font-weight="bold">'
                 f'One message at {rate},000 a second, us of processor time</text>')
    y += 34
    for system, value in zip(table[0][1:], row):
        colour, width = "#f58518" if system == "hvlogger" else "#4c78a8", value * scale
        parts += [f'<text x="{LEFT - 8}" y="{y + 18}" text-anchor="end">{system}</text>',
                  f'<rect x="{LEFT}" y="{y}" width="{width:.1f}" height="{BAR}" fill="{colour}"/>',
                  f'<text x="{LEFT + width + 6:.0f}" y="{y + 18}">{value:.1f}</text>']
        y += BAR + GAP
(DOCS / "performance.svg").write_text(
    f'<svg xmlns="http://www.w3.org/2000/svg" width="{WIDTH}" height="{y}" font-family="sans-serif" '
    f'font-size="13">\n<rect width="100%" height="100%" fill="white"/>\n' + "\n".join(parts) + "\n</svg>\n")
