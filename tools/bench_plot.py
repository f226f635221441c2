#!/usr/bin/env python3
"""Draws the table of a benchmark page as SVG: the ratio to the best peer, line by line.

usage: bench_plot.py PAGE.md PLOT.svg

The same table gives the same bytes. The picture follows the reader's light or dark theme, which is
why it is written out here: style sheets inside are all that it takes.
"""

import html
import math
import pathlib
import sys

ROW, TOP, LEFT, WIDTH, RIGHT = 18, 84, 330, 520, 50
TICKS = (0.01, 0.02, 0.05, 0.1, 0.2, 0.5, 1, 2, 5, 10, 20, 50, 100, 200, 500, 1000)
LEVEL = 1.1  # Up to here, either way, the difference is called none.

STYLE = """
svg { background: #ffffff; font: 12px system-ui, sans-serif; }
text { fill: #1f2328; } .faint { fill: #59636e; } .title { font-size: 15px; font-weight: 600; }
.end { text-anchor: end; } .middle { text-anchor: middle; }
.grid { stroke: #d1d9e0; } .parity { stroke: #1f2328; stroke-width: 1.5; }
.faster { fill: #2a78b8; } .level { fill: #818b98; } .slower { fill: #d9661f; }
.wanted { stroke: #1f2328; stroke-width: 2; }
@media (prefers-color-scheme: dark) {
svg { background: #0d1117; } text { fill: #f0f6fc; } .faint { fill: #9198a1; }
.grid { stroke: #3d444d; } .parity, .wanted { stroke: #f0f6fc; }
.faster { fill: #58a6e8; } .slower { fill: #f0883e; }
}"""


def row_of(line):
    """(work, beside, ratio, wanted) of a line of the table. Ends the program for a bad line."""
    cells = [cell.strip() for cell in line.strip().removeprefix("|").removesuffix("|").split("|")]
    if len(cells) < 7:
        sys.exit(f"{line}: fewer than seven cells")
    try:
        work, _, beside, _, ratio, wanted, *_ = cells
        row = (work, beside, float(ratio), float(wanted) if wanted else None)
    except ValueError as error:
        sys.exit(f"{line}: {error}")
    if not all(TICKS[0] <= each <= TICKS[-1] for each in row[2:] if each is not None):
        sys.exit(f"{line}: a ratio is not within {TICKS[0]} to {TICKS[-1]}")
    return row


def rows_of(page):
    """The rows of the page's first table, for each line of work that of its best peer."""
    best = {}
    for line in page.partition("| work, ns |")[0].splitlines():
        if not line.startswith("|") or line.startswith(("| work |", "| --- |")):
            continue
        row = row_of(line)
        work = row[0]
        if work not in best or row[2] < best[work][2]:
            best[work] = row
    return sorted(best.values(), key=lambda row: (-row[2], row[0]))


def axis(rows):
    """The ticks of a logarithmic axis for the rows, and a function that gives a ratio's place."""
    ratios = [each for row in rows for each in row[2:] if each]
    low = max(tick for tick in TICKS if tick <= min(*ratios, 0.5))
    high = min(tick for tick in TICKS if tick >= max(*ratios, 2))

    def across(ratio):
        return round(LEFT + WIDTH * math.log(ratio / low) / math.log(high / low), 1)

    return [tick for tick in TICKS if low <= tick <= high], across


def text(x, y, classes, words):
    return f'<text x="{x}" y="{y}" class="{classes}">{html.escape(words)}</text>'


def line(x, top, bottom, classes):
    return f'<line x1="{x}" y1="{top}" x2="{x}" y2="{bottom}" class="{classes}"/>'


def bar(row, y, across):
    work, beside, ratio, wanted = row
    kind = "faster" if ratio > LEVEL else "level" if ratio >= 1 / LEVEL else "slower"
    begin, end = sorted((across(1), across(ratio)))
    after = max(end, across(wanted or 1)) + 6  # The number stands clear of bar and mark.
    parts = [
        text(LEFT - 26, y + 13, "end", work),
        f'<rect x="{begin}" y="{y + 4}" width="{max(round(end - begin, 1), 1)}" height="10" '
        f'class="{kind}"><title>{html.escape(f"{work}: {ratio:g} times {beside}")}</title></rect>',
        text(after, y + 13, "faint", f"{ratio:.2f}" if ratio < 10 else f"{ratio:.0f}"),
        text(10, y + 13, "faint", beside)]
    if wanted is not None:
        parts.append(line(across(wanted), y + 2, y + 16, "wanted"))
    return parts


def plot(page):
    rows = rows_of(page)
    if not rows:
        raise SystemExit("the page has no table of benchmarks")
    bottom = TOP + ROW * len(rows)
    width, height = LEFT + WIDTH + RIGHT, bottom + 34
    parts = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {height}" '
             f'width="{width}" height="{height}" role="img">',
             "<title>Pavo's speed beside the best peer, by benchmark</title>",
             f"<style>{STYLE}\n</style>",
             text(10, 24, "title", "How many times faster than the best peer"),
             text(10, 44, "faint", "Right of 1 Pavo is faster, left of it the peer; grey is within "
                  "10 %. The short mark is the ratio wanted. Logarithmic axis."),
             text(10, TOP - 10, "faint", "peer"), text(LEFT - 26, TOP - 10, "faint end", "work")]
    ticks, across = axis(rows)
    for tick in ticks:
        kind = "parity" if tick == 1 else "grid"
        parts += [line(across(tick), TOP - 4, bottom + 4, kind),
                  text(across(tick), TOP - 10, "faint middle", f"{tick:g}"),
                  text(across(tick), bottom + 20, "faint middle", f"{tick:g}")]
    for i, row in enumerate(rows):
        parts += bar(row, TOP + ROW * i, across)
    return "\n".join([*parts, "</svg>"]) + "\n"


def write(page_path, plot_path):
    page = pathlib.Path(page_path).read_text(encoding="utf-8")
    pathlib.Path(plot_path).write_text(plot(page), encoding="utf-8")


if __name__ == "__main__":
    if len(sys.argv) != 3:
        sys.exit("usage: bench_plot.py PAGE.md PLOT.svg")
    write(*sys.argv[1:])
