#!/usr/bin/env python3
"""Draws the changes of a demo as a picture for the README.

    ./demo --seconds 30 | scripts/draw_demo.py > docs/demo.svg

Takes what a real run prints from the first thing on that is made to happen, as
many lines as fit, and lets each appear at the moment at which it came.
"""

import html
import re
import sys

LINES = 24
COLUMNS = 104
LINE_HEIGHT = 18
CHARACTER_WIDTH = 7.8
MARGIN = 16
FIRST = 40  # the baseline of the first line

CHANGE = re.compile(r'(\d\d):(\d\d):([\d.]+) (\S+) (\S+) (Added|Changed|Removed)(.*)')
COLORS = {'Added': '#3fb950', 'Changed': '#d29922', 'Removed': '#f85149'}

STYLE = '''text { font: 13px ui-monospace, monospace; fill: #e6edf3; white-space: pre }
.dim { fill: #8b949e } .act { fill: #58a6ff; font-weight: bold }
g { animation: come 0.3s both } @keyframes come { from { opacity: 0 } }'''


def span(text, attributes):
    return f'<tspan {attributes}>{html.escape(text)}</tspan>'


def cut(text):
    return text if len(text) <= COLUMNS else text[:COLUMNS - 1] + '…'


def draw_line(text):
    """What the demo did, or a change: when, which row, what of it."""
    found = CHANGE.match(text)
    if not found:
        return span(cut(text), 'class="act"')
    time = ':'.join(found.group(1, 2, 3))
    table, row, what, rest = found.group(4, 5, 6, 7)
    head = f'{time} {table} {row} '
    rest = cut(head + what + rest)[len(head + what):]
    return (span(time + ' ', 'class="dim"') + span(f'{table} {row} ', '')
            + span(what, f'fill="{COLORS[what]}"') + span(rest, ''))


def shown(lines):
    """Pairs of the seconds since the beginning and the line."""
    first = last = None
    begins = False
    for line in lines:
        found = CHANGE.match(line)
        if found:
            hours, minutes, seconds = found.group(1, 2, 3)
            last = int(hours) * 3600 + int(minutes) * 60 + float(seconds)
        begins = begins or (last is not None and line.startswith('== '))
        if begins and line:
            first = last if first is None else first
            yield last - first, line.removeprefix('== ')


def draw(lines):
    rows = list(shown(lines))[:LINES]
    width = 2 * MARGIN + COLUMNS * CHARACTER_WIDTH
    height = FIRST + len(rows) * LINE_HEIGHT
    yield (f'<svg xmlns="http://www.w3.org/2000/svg" width="{width:.0f}" '
           f'height="{height}" viewBox="0 0 {width:.0f} {height}">')
    yield f'<style>{STYLE}</style>'
    yield '<rect width="100%" height="100%" rx="8" fill="#0d1117"/>'
    for i, color in enumerate(('#f85149', '#d29922', '#3fb950')):
        yield f'<circle cx="{20 + 18 * i}" cy="16" r="5" fill="{color}"/>'
    for i, (seconds, line) in enumerate(rows):
        yield (f'<g style="animation-delay: {seconds + i * 0.02:.2f}s">'
               f'<text xml:space="preserve" x="{MARGIN}" y="{FIRST + i * LINE_HEIGHT}">'
               f'{draw_line(line)}</text></g>')
    yield '</svg>'


def main():
    lines = [line.rstrip('\n') for line in sys.stdin]
    if not any(CHANGE.match(line) for line in lines):
        sys.exit('draw_demo: there is no change in it')
    print('\n'.join(draw(lines)))


if __name__ == '__main__':
    main()
