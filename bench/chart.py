#!/usr/bin/env python3
"""chart.py PAGE CHART RESULTS...: puts the table of benchmark runs, the best of each row, into a page, between its
markers, and draws its chart."""

import json
import math
import sys
from html import escape
from pathlib import Path

MARKERS = ("<!-- table -->\n", "<!-- end of the table -->\n")
OUT_OF_CACHE = 1_000_000  # elements, and more

COLOURS = {"libkel": "#0b6e99", "portable kernels": "#8c8c8c", "plain loop": "#d1662b"}
WIDTH, LABELS, RIGHT, LINE = 900, 330, 70, 17
AXIS = (0.1, 200)  # elements per ns, logarithmic


def key(row):
    return row["operation"], row["shape"], row["elements"], row["by"]


def best(runs):
    """One run's rows with the best times of all: of the row, of its limit and of the portable kernels."""
    rows = runs[0]
    for row in rows:
        same = [other for run in runs for other in run if key(other) == key(row)]
        if row["ratio"]:
            portable = min(other["ratio"] * other["ns"] for other in same)
            row["ratio"] = portable / min(other["ns"] for other in same)
        row["ns"] = min(other["ns"] for other in same)
        for rate in ("elements_per_ns", "elements_per_cycle", "gb_per_s", "limit_gb_per_s"):
            row[rate] = max((other[rate] for other in same if other[rate]), default=None)
        if row["limit_gb_per_s"]:
            row["share"] = row["gb_per_s"] / row["limit_gb_per_s"]
    return rows


def load(paths):
    """The library's rows, each with the rates of the portable kernels and of the plain loop."""
    rows = best([json.loads(Path(path).read_text(encoding="utf-8")) for path in paths])
    plain = {key(row)[:3]: row["elements_per_ns"] for row in rows if row["by"] == "plain loop"}
    own = [row for row in rows if row["by"] == "libkel"]
    for row in own:
        rate, ratio = row["elements_per_ns"], row["ratio"]
        row["rates"] = {
            "portable kernels": rate / ratio if rate and ratio else None,
            "plain loop": plain.get(key(row)[:3]),
            "libkel": rate,
        }
    return own


def size(elements):
    if elements % 1_000_000 == 0:
        return f"{elements // 1_000_000} M"
    return f"{elements // 1024} K" if elements % 1024 == 0 else str(elements)


def digits(value, form):
    return "" if value is None else format(value, form)


# ---- The table -------------------------------------------------------------------------------------------------------


def table(rows):
    lines = [
        "| Operation | Shape | Elements | Per ns | Per cycle | GB/s | Limit, GB/s | Share | Ratio | Plain loop, per ns |",
        "|---|---|--:|--:|--:|--:|--:|--:|--:|--:|",
    ]
    few = 0.1  # shares below have a digit more
    calls = ["| Call | ns |", "|---|--:|"]
    for row in rows:
        if row["limit"]:
            cells = [
                row["operation"],
                row["shape"],
                size(row["elements"]),
                digits(row["elements_per_ns"], ".2f"),
                digits(row["elements_per_cycle"], ".2f"),
                digits(row["gb_per_s"], ".1f"),
                f"{row['limit']} {digits(row['limit_gb_per_s'], '.0f')}",
                digits(row["share"], ".1%" if row["share"] < few else ".0%"),
                digits(row["ratio"], ".2f"),
                digits(row["rates"]["plain loop"], ".2f"),
            ]
            lines.append("| " + " | ".join(cells) + " |")
        else:
            calls.append(f"| {row['shape']} | {row['ns']:.1f} |")
    return "\n".join(lines + [""] + calls) + "\n"


def rewrite(path, text):
    with open(path, encoding="utf-8") as file:
        page = file.read()
    before, rest = page.split(MARKERS[0])
    after = rest.split(MARKERS[1])[1]
    with open(path, "w", encoding="utf-8") as file:
        file.write(before + MARKERS[0] + "\n" + text + "\n" + MARKERS[1] + after)


# ---- The chart -------------------------------------------------------------------------------------------------------


def text(x, y, what, anchor="start", weight="normal", colour="#222"):
    place = f'x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}"'
    return f'<text {place} font-weight="{weight}" fill="{colour}">{escape(what)}</text>'


def line(x, top, bottom):
    return f'<line x1="{x:.1f}" y1="{top}" x2="{x:.1f}" y2="{bottom}" stroke="#ddd"/>'


def labels(rows, top):
    """Each row's label, with the operation where a new one begins."""
    shapes, before = [], None
    for i, row in enumerate(rows):
        y = top + LINE * i + 4
        if row["operation"] != before:
            shapes.append(text(10, y, row["operation"], weight="bold"))
        before = row["operation"]
        shapes.append(text(LABELS - 10, y, row["shape"], "end"))
    return shapes


def axis(marks, place, top, count):
    bottom = top + LINE * count - LINE // 2
    shapes = []
    for mark, label in marks:
        shapes += [line(place(mark), top - LINE // 2, bottom), text(place(mark), bottom + 14, label, "middle")]
    return shapes


def legend(y):
    shapes, x = [], LABELS
    for name, colour in COLOURS.items():
        shapes += [f'<circle cx="{x + 5}" cy="{y - 4}" r="5" fill="{colour}"/>', text(x + 15, y, name)]
        x += 150
    return shapes


def rates(rows, top):
    """Dots on a logarithmic axis: elements per ns."""
    low, high = (math.log10(value) for value in AXIS)
    place = lambda value: LABELS + (math.log10(value) - low) / (high - low) * (WIDTH - LABELS - RIGHT)
    shapes = axis([(v, f"{v:g}") for v in (0.1, 1, 10, 100)], place, top, len(rows)) + labels(rows, top)
    for i, row in enumerate(rows):
        for name, rate in row["rates"].items():
            if rate:
                x = place(min(max(rate, AXIS[0]), AXIS[1]))
                shapes.append(f'<circle cx="{x:.1f}" cy="{top + LINE * i}" r="5" fill="{COLOURS[name]}"/>')
    return shapes


def bars(rows, top):
    """Shares of the limit."""
    longest = 1.2
    place = lambda share: LABELS + min(share, longest) / longest * (WIDTH - LABELS - RIGHT)
    shapes = axis([(v / 100, f"{v}%") for v in range(0, 101, 25)], place, top, len(rows)) + labels(rows, top)
    for i, row in enumerate(rows):
        width = place(row["share"]) - LABELS
        shapes.append(
            f'<rect x="{LABELS}" y="{top + LINE * i - 5}" width="{width:.1f}" height="10" fill="{COLOURS["libkel"]}"/>'
        )
        shapes.append(text(LABELS + width + 5, top + LINE * i + 4, row["limit"], colour="#666"))
    return shapes


def chart(rows):
    small = [row for row in rows if row["limit"] and row["elements"] < OUT_OF_CACHE]
    large = [row for row in rows if row["limit"] and row["elements"] >= OUT_OF_CACHE]
    first = 75
    second = first + LINE * len(small) + 65
    height = second + LINE * len(large) + 25
    shapes = [text(10, 24, "In cache: elements per ns, logarithmic", weight="bold")]
    shapes += legend(50) + rates(small, first)
    title = "Out of cache: share of the rate of a plain read, memcpy or memset"
    shapes.append(text(10, second - 25, title, weight="bold"))
    shapes += bars(large, second)
    box = f'viewBox="0 0 {WIDTH} {height}"'
    return "\n".join(
        [
            f'<svg xmlns="http://www.w3.org/2000/svg" {box} font-family="sans-serif" font-size="12">',
            f'<rect width="{WIDTH}" height="{height}" fill="white"/>',
            *shapes,
            "</svg>\n",
        ]
    )


def main():
    page, picture, *results = sys.argv[1:]
    rows = load(results)
    rewrite(page, table(rows))
    with open(picture, "w", encoding="utf-8") as file:
        file.write(chart(rows))


main()
