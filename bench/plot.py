#!/usr/bin/env python3
"""Draws instructions per event against the population, from the figures of flat.py.

usage: plot.py FIGURES.csv PLOT.svg
"""

import csv
import math
import sys

WIDTH, HEIGHT = 860, 380
PANEL = (330, 250)  # of one panel's plot area
TOP = 70
LINES = (  # column, kind, colour, dashed, label
    ("add", "members", "#1b6ca8", False, "add, one session"),
    ("add", "sessions", "#1b6ca8", True, "add, a session each"),
    ("delete", "members", "#b8451f", False, "delete, one session"),
    ("delete", "sessions", "#b8451f", True, "delete, a session each"),
    ("join", "members", "#3c7a3c", False, "join, one session"),
    ("join", "sessions", "#3c7a3c", True, "join, a session each"),
)


def text(x, y, words, anchor="middle", size=12, extra=""):
    return f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}" font-size="{size}" {extra}>{words}</text>'


class Panel:
    """One pair of axes; the population is on a logarithmic x axis."""

    def __init__(self, left, title, x_range, y_range, log_y):
        self.left, self.title, self.x_range, self.y_range, self.log_y = left, title, x_range, y_range, log_y

    def x(self, value):
        low, high = (math.log10(v) for v in self.x_range)
        return self.left + PANEL[0] * (math.log10(value) - low) / (high - low)

    def y(self, value):
        scale = math.log10 if self.log_y else float
        low, high = (scale(v) for v in self.y_range)
        return TOP + PANEL[1] * (1 - (scale(value) - low) / (high - low))

    def axes(self, y_ticks):
        right, bottom = self.left + PANEL[0], TOP + PANEL[1]
        yield text(self.left + PANEL[0] / 2, TOP - 14, self.title, size=13)
        for tick in y_ticks:
            y = self.y(tick)
            yield f'<line x1="{self.left}" y1="{y:.1f}" x2="{right}" y2="{y:.1f}" stroke="#ddd"/>'
            yield text(self.left - 6, y + 4, f"{tick:,}", "end", 11)
        power = round(math.log10(self.x_range[0]))
        while 10**power <= self.x_range[1]:
            yield text(self.x(10**power), bottom + 18, f"{10**power:,}", size=11)
            power += 1
        yield text(self.left + PANEL[0] / 2, bottom + 38, "members, or sessions of one member")
        yield f'<path d="M{self.left},{TOP} V{bottom} H{right}" fill="none" stroke="#333"/>'

    def line(self, points, colour, dashed):
        path = " ".join(f"{self.x(x):.1f},{self.y(y):.1f}" for x, y in points)
        dash = ' stroke-dasharray="6 4"' if dashed else ""
        yield f'<polyline points="{path}" fill="none" stroke="{colour}" stroke-width="2"{dash}/>'
        for x, y in points:
            yield f'<circle cx="{self.x(x):.1f}" cy="{self.y(y):.1f}" r="3" fill="{colour}"/>'


def draw(rows):
    populations = sorted({int(row["population"]) for row in rows})
    x_range = (populations[0], populations[-1])
    series = {}
    for row in rows:
        for column in ("add", "delete", "join"):
            series.setdefault((column, row["kind"]), []).append((int(row["population"]), int(row[column])))
    most = max(y for (column, _), points in series.items() if column != "join" for _, y in points)
    step = 5000
    top = step * math.ceil(most * 1.1 / step)
    joins = [y for (column, _), points in series.items() if column == "join" for _, y in points]
    decades = [10**p for p in range(math.floor(math.log10(min(joins))), math.ceil(math.log10(max(joins))) + 1)]
    left = Panel(75, "instructions per session event", x_range, (0, top), False)
    right = Panel(500, "instructions per group membership (logarithmic)", x_range, (decades[0], decades[-1]), True)
    yield f'<svg xmlns="http://www.w3.org/2000/svg" width="{WIDTH}" height="{HEIGHT + 50}" font-family="sans-serif">'
    yield f'<rect width="{WIDTH}" height="{HEIGHT + 50}" fill="white"/>'
    yield text(WIDTH / 2, 26, "Cost of one event against what is there already", size=16)
    yield from left.axes(range(0, top + 1, step))
    yield from right.axes(decades)
    for i, (column, kind, colour, dashed, label) in enumerate(LINES):
        panel = right if column == "join" else left
        yield from panel.line(series[column, kind], colour, dashed)
        x, y = 75 + 270 * (i // 2), HEIGHT + 8 + 20 * (i % 2)
        dash = ' stroke-dasharray="6 4"' if dashed else ""
        yield f'<line x1="{x}" y1="{y - 4}" x2="{x + 34}" y2="{y - 4}" stroke="{colour}" stroke-width="2"{dash}/>'
        yield text(x + 42, y, label, "start")
    yield "</svg>"


def main(words):
    with open(words[0], newline="", encoding="ascii") as file:
        rows = list(csv.DictReader(file))
    with open(words[1], "w", encoding="ascii") as file:
        file.write("\n".join(draw(rows)) + "\n")


if __name__ == "__main__":
    main(sys.argv[1:])
