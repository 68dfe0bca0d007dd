#!/usr/bin/env python3
"""Draws what qdb-bench --json printed.

Usage: bench_svg.py REPORT.json PICTURE.svg

Two panels, speed and processor time per operation. In both the plain loop is 1;
bars show the service, black marks its targets.
"""
import html
import json
import pathlib
import sys

LEFT, RIGHT, BAR, ROW = 230, 70, 14, 28
PANEL = 250
SERVICE = "#2b6cb0"


def text(x, y, what, anchor="start", size=12):
    return (
        f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}" '
        f'font-size="{size}">{html.escape(what)}</text>'
    )


def bar(x, y, width, colour):
    return (
        f'<rect x="{x:.1f}" y="{y:.1f}" width="{max(width, 0.5):.1f}" '
        f'height="{BAR}" fill="{colour}"/>'
    )


def line(x, top, bottom, style):
    return (
        f'<line x1="{x:.1f}" y1="{top:.1f}" x2="{x:.1f}" y2="{bottom:.1f}" '
        f"{style}/>"
    )


def panel(left, top, title, rows):
    """The bars of one part; rows are pairs of a number and its target."""
    most = max(max(value or 0 for value in row) for row in rows)
    scale = PANEL / most
    yield text(left, top - 14, title, size=13)
    bottom = top + ROW * len(rows)
    yield line(left + scale, top - 6, bottom, 'stroke="#c53030"')
    for i, (service, target) in enumerate(rows):
        y = top + ROW * i
        yield bar(left, y, service * scale, SERVICE)
        yield text(left + service * scale + 4, y + 11, f"{service:.2f}", size=9)
        if target is not None:
            at = left + target * scale
            yield line(at, y - 3, y + BAR + 3, 'stroke="black" stroke-width="2"')


def legend(top):
    x = LEFT
    yield bar(x, top - 12, BAR, SERVICE)
    yield text(x + 20, top, "service")
    x += 100
    yield line(x + 5, top - 11, top + 2, 'stroke="black" stroke-width="2"')
    yield text(x + 16, top, "its target")
    yield line(x + 105, top - 11, top + 2, 'stroke="#c53030"')
    yield text(x + 116, top, "plain loop")


def draw(report):
    workloads = report["workloads"]
    top = 70
    width = LEFT + 2 * (PANEL + RIGHT)
    height = top + ROW * len(workloads) + 40
    parts = [
        f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" '
        f'height="{height}" font-family="sans-serif">',
        f'<rect width="{width}" height="{height}" fill="white"/>',
        text(10, 22, "QuillonDB beside its libraries alone", size=16),
    ]
    for i, workload in enumerate(workloads):
        parts.append(
            text(LEFT - 10, top + ROW * i + 15, workload["name"], "end")
        )
    for index, (part, title) in enumerate(
        (
            ("speed", "operations per second (more is better)"),
            ("cpu", "processor time per operation (less is better)"),
        )
    ):
        left = LEFT + index * (PANEL + RIGHT)
        rows = [(each[part], each.get(part + "_target")) for each in workloads]
        parts.extend(panel(left, top, title, rows))
    parts.extend(legend(height - 14))
    parts.append("</svg>")
    return "\n".join(parts) + "\n"


def main(arguments):
    if len(arguments) != 2:
        sys.exit(__doc__)
    report = json.loads(pathlib.Path(arguments[0]).read_text())
    pathlib.Path(arguments[1]).write_text(draw(report))


if __name__ == "__main__":
    main(sys.argv[1:])
