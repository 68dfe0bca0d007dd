#!/usr/bin/env python3
"""Draws what qdb-bench --json printed.

Usage: bench_svg.py REPORT.json PICTURE.svg

Two panels, speed and processor time per operation. In both the plain loop is 1;
bars show the service and the best loop, black marks the service's targets.
"""
import html
import json
import pathlib
import sys

LEFT, RIGHT, BAR, ROW = 230, 70, 11, 36
PANEL = 250
SERVICE, BEST = "#2b6cb0", "#a0aec0"


def relative(workload, part):
    """The service's and the best loop's number in plain loops; the target."""
    plain = workload["to_plain"][part]
    best = workload["to_best"][part]
    return plain, plain / best, workload.get("target", {}).get(part)


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
    """The bars of one part; rows are what relative() gave."""
    most = max(max(value or 0 for value in row) for row in rows)
    scale = PANEL / most
    yield text(left, top - 14, title, size=13)
    bottom = top + ROW * len(rows)
    yield line(left + scale, top - 6, bottom, 'stroke="#c53030"')
    for i, (service, best, target) in enumerate(rows):
        y = top + ROW * i
        for offset, value, colour in ((0, service, SERVICE), (BAR, best, BEST)):
            yield bar(left, y + offset, value * scale, colour)
            yield text(
                left + value * scale + 4, y + offset + 9, f"{value:.2f}", size=9
            )
        if target is not None:
            at = left + target * scale
            yield line(at, y - 3, y + 2 * BAR + 3, 'stroke="black" stroke-width="2"')


def legend(top):
    x = LEFT
    for colour, name in ((SERVICE, "service"), (BEST, "best loop")):
        yield bar(x, top - 10, BAR, colour)
        yield text(x + 16, top, name)
        x += 100
    yield line(x + 5, top - 11, top + 2, 'stroke="black" stroke-width="2"')
    yield text(x + 16, top, "target of the service")
    yield line(x + 165, top - 11, top + 2, 'stroke="#c53030"')
    yield text(x + 176, top, "plain loop")


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
            ("processor", "processor time per operation (less is better)"),
        )
    ):
        left = LEFT + index * (PANEL + RIGHT)
        rows = [relative(workload, part) for workload in workloads]
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
