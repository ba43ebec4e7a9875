#!/usr/bin/env python3
"""Draws curves of what `./bench.sh --json` has measured.

    bench-curves.py TABLE.json CURVES.svg [--operation find]

The time of one operation over the number of entries, for each subject that was measured with more
than one number, logarithmic both ways.
"""

import argparse
import json
import math
from xml.sax.saxutils import escape

WIDTH, HEIGHT = 760, 460
LEFT, RIGHT, TOP, BOTTOM = 70, 130, 46, 56

# Names as they are shown, and colours that differ for colour-blind readers, too.
SUBJECTS = {
    "registry": ("registry", "#0072b2"),
    "monitor": ("registry, monitor", "#d55e00"),
    "floor": ("floor", "#999999"),
    "redis": ("Redis", "#cc79a7"),
    "dbus": ("D-Bus", "#009e73"),
    "sqlite": ("SQLite", "#56b4e9"),
    "lmdb": ("LMDB", "#b8860b"),
    "etcd": ("etcd", "#000000"),
}


def curves(table, operation):
    """(entries, microseconds) of each subject, in ascending order."""
    found = {}
    for row in table:
        if row["operation"] == operation and not row["variant"] and row["entries"]:
            for subject in SUBJECTS:
                if row.get(subject):
                    found.setdefault(subject, []).append((row["entries"], row[subject]))
    return {subject: sorted(points) for subject, points in found.items() if len(points) > 1}


class Axis:
    """A logarithmic scale from power to power of ten, between two positions."""

    def __init__(self, values, start, end):
        self.low = math.floor(math.log10(min(values)) + 1e-9)
        self.high = max(self.low + 1, math.ceil(math.log10(max(values)) - 1e-9))
        self.start, self.end = start, end

    def position(self, value):
        part = (math.log10(value) - self.low) / (self.high - self.low)
        return self.start + part * (self.end - self.start)

    def powers(self):
        return [10.0 ** power for power in range(self.low, self.high + 1)]


def number(value):
    return f"{value:,.0f}" if value >= 1 else f"{value:g}"


def text(x, y, content, anchor="middle", more=""):
    return f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}" {more}>{escape(content)}</text>'


def line(x1, y1, x2, y2):
    return f'<line x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" y2="{y2:.1f}" stroke="#ddd"/>'


def grid(across, upward):
    parts = []
    for value in across.powers():
        x = across.position(value)
        parts += [line(x, TOP, x, HEIGHT - BOTTOM), text(x, HEIGHT - BOTTOM + 18, number(value))]
    for value in upward.powers():
        y = upward.position(value)
        parts += [line(LEFT, y, WIDTH - RIGHT, y), text(LEFT - 8, y + 4, number(value), "end")]
    return parts


def label_positions(ends):
    """Where the labels at the right ends stand: in the order of the curves, none over another."""
    distance, previous, positions = 15, -math.inf, {}
    for subject, y in sorted(ends.items(), key=lambda end: end[1]):
        previous = max(y, previous + distance)
        positions[subject] = previous
    return positions


def draw(found, operation, machine):
    across = Axis([x for points in found.values() for x, _ in points], LEFT, WIDTH - RIGHT)
    upward = Axis([y for points in found.values() for _, y in points], HEIGHT - BOTTOM, TOP)
    place = {subject: [(across.position(x), upward.position(y)) for x, y in points]
             for subject, points in found.items()}
    labels = label_positions({subject: points[-1][1] for subject, points in place.items()})
    parts = [
        f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {HEIGHT}" '
        'font-family="sans-serif" font-size="12">',
        f'<rect width="{WIDTH}" height="{HEIGHT}" fill="white"/>',
        text(LEFT, 20, f"{operation}: microseconds over the number of entries", "start",
             'font-size="15"'),
        text(LEFT, 36, machine, "start", 'fill="#666"'),
        *grid(across, upward),
        text((LEFT + WIDTH - RIGHT) / 2, HEIGHT - 14, "entries"),
    ]
    for subject, points in place.items():
        name, colour = SUBJECTS[subject]
        path = " ".join(f"{x:.1f},{y:.1f}" for x, y in points)
        parts.append(f'<polyline points="{path}" fill="none" stroke="{colour}" stroke-width="2"/>')
        parts += [f'<circle cx="{x:.1f}" cy="{y:.1f}" r="3" fill="{colour}"/>' for x, y in points]
        parts.append(text(points[-1][0] + 10, labels[subject] + 4, name, "start",
                          f'fill="{colour}"'))
    return "\n".join([*parts, "</svg>", ""])


def main():
    parser = argparse.ArgumentParser(description="Draws curves of what bench.sh has measured.")
    parser.add_argument("table", help="what ./bench.sh --json has printed")
    parser.add_argument("curves", help="the SVG file to write")
    parser.add_argument("--operation", default="find")
    arguments = parser.parse_args()

    with open(arguments.table, encoding="utf-8") as file:
        report = json.load(file)
    found = curves(report["table"], arguments.operation)
    if not found:
        raise SystemExit(f"{arguments.operation} was not measured with several numbers of entries")
    machine = "{date}, {cores} cores of {mhz} MHz, {system}".format(**report["machine"])
    with open(arguments.curves, "w", encoding="utf-8") as file:
        file.write(draw(found, arguments.operation, machine))


if __name__ == "__main__":
    main()
