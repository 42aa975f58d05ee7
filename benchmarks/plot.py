"""Draws lines over axes into an SVG file, with nothing but text: what a page shows of how figures grow."""

import math
from xml.sax.saxutils import escape

WIDTH, HEIGHT = 520, 380  # of a panel
LEFT, RIGHT, TOP, BOTTOM = 66, 126, 44, 50  # what its frame leaves free; the names of the lines stand on the right
COLOURS = ("#0b5fa5", "#b3400a", "#1d7a34", "#6b3fa0")
MARKS = ("circle", "square", "diamond", "triangle")
LINE_HEIGHT = 15


class Axis:
    """Where a value lies, and which values are written beside the axis. `ticks` may be left to the axis."""

    def __init__(self, title, values, logarithmic, ticks=None):
        self.title, self.logarithmic = title, logarithmic
        least, most = min(values), max(values)
        if logarithmic:
            self.ticks = ticks or one_two_five(least, most)
            self.least, self.most = min(least, self.ticks[0]) / 1.08, max(most, self.ticks[-1]) * 1.08
        else:
            self.ticks = ticks or even(most)
            self.least, self.most = 0, max(most, self.ticks[-1])

    def share(self, value):
        """0 at the beginning of the axis, 1 at its end."""
        if self.logarithmic:
            return math.log(value / self.least) / math.log(self.most / self.least)
        return (value - self.least) / (self.most - self.least)


def one_two_five(least, most):
    """Round values over a logarithmic axis: each 1, 2 and 5, or the powers of ten alone where these are many."""
    powers = range(math.floor(math.log10(least)), math.ceil(math.log10(most)) + 1)
    factors = (1, 2, 5) if most / least < 200 else (1,)
    ticks = [factor * 10.0 ** power for power in powers for factor in factors]
    low = max((tick for tick in ticks if tick <= least), default=ticks[0])
    high = min((tick for tick in ticks if tick >= most), default=ticks[-1])
    return [tick for tick in ticks if low <= tick <= high]


def even(most):
    """Round values from 0 on in even steps, four to eight of them."""
    power = 10.0 ** math.floor(math.log10(most))
    step = next(power * factor for factor in (0.1, 0.2, 0.25, 0.5, 1, 2) if most / (power * factor) <= 7)
    return [step * count for count in range(math.ceil(most / step) + 1)]


class Line:
    """A name and its points: (x, y, least y, most y) of what was measured."""

    def __init__(self, name, points):
        self.name, self.points = name, points


def mark_of(kind, x, y, colour):
    if kind == "circle":
        return f'<circle cx="{x:.1f}" cy="{y:.1f}" r="4" fill="{colour}"/>'
    corners = {"square": ((-3.6, -3.6), (3.6, -3.6), (3.6, 3.6), (-3.6, 3.6)),
               "diamond": ((0, -5), (5, 0), (0, 5), (-5, 0)), "triangle": ((0, -5), (4.6, 3.8), (-4.6, 3.8))}[kind]
    return f'<polygon points="{" ".join(f"{x + a:.1f},{y + b:.1f}" for a, b in corners)}" fill="{colour}"/>'


def text_at(x, y, text, anchor="middle", more=""):
    return f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}" {more}>{escape(text)}</text>'


def spread(wanted, low, high):
    """Heights as near to the wanted ones as they can be with a line of text between any two."""
    order = sorted(range(len(wanted)), key=lambda index: wanted[index])
    placed = {}
    lowest = low
    for index in order:
        placed[index] = lowest = max(wanted[index], lowest)
        lowest += LINE_HEIGHT
    highest = high
    for index in reversed(order):
        placed[index] = highest = min(placed[index], highest)
        highest -= LINE_HEIGHT
    return [placed[index] for index in range(len(wanted))]


def axes_of(across, up, place_x, place_y):
    """The frame of a panel: grid, ticks and what the axes stand for."""
    left, right, top, bottom = LEFT, WIDTH - RIGHT, TOP, HEIGHT - BOTTOM
    parts = []
    for tick in across.ticks:
        parts.append(f'<path d="M{place_x(tick):.1f} {top}V{bottom}" stroke="#e2e2e2"/>')
        parts.append(text_at(place_x(tick), bottom + 17, f"{tick:g}"))
    for tick in up.ticks:
        parts.append(f'<path d="M{left} {place_y(tick):.1f}H{right}" stroke="#e2e2e2"/>')
        parts.append(text_at(left - 7, place_y(tick) + 4, f"{tick:g}", "end"))
    parts.append(f'<path d="M{left} {top}V{bottom}H{right}" fill="none" stroke="#333333"/>')
    parts.append(text_at((left + right) / 2, bottom + 38, across.title))
    parts.append(text_at(0, 0, up.title, "middle",
                         f'transform="translate(16 {(top + bottom) / 2:.1f}) rotate(-90)"'))
    return parts


def panel(title, across, up, lines):
    """One drawing of WIDTH by HEIGHT."""
    left, right, top, bottom = LEFT, WIDTH - RIGHT, TOP, HEIGHT - BOTTOM

    def place_x(value):
        return left + across.share(value) * (right - left)

    def place_y(value):
        return bottom - up.share(value) * (bottom - top)

    parts = [text_at(left, 24, title, "start", 'font-size="15" font-weight="bold"'),
             *axes_of(across, up, place_x, place_y)]
    heights = spread([place_y(line.points[-1][1]) for line in lines], top + 4, bottom - 2)
    for line, colour, kind, height in zip(lines, COLOURS, MARKS, heights):
        path = " ".join(f"{place_x(x):.1f},{place_y(y):.1f}" for x, y, _, _ in line.points)
        parts.append(f'<polyline points="{path}"\n fill="none" stroke="{colour}" stroke-width="2"/>')
        for x, y, least, most in line.points:
            parts.append(f'<path d="M{place_x(x):.1f} {place_y(least):.1f}V{place_y(most):.1f}" stroke="{colour}"/>')
            parts.append(mark_of(kind, place_x(x), place_y(y), colour))
        end = place_y(line.points[-1][1])
        parts.append(f'<path d="M{right + 7} {end:.1f}L{right + 15} {height:.1f}" stroke="{colour}"/>')
        parts.append(text_at(right + 18, height + 4, line.name, "start", f'fill="{colour}"'))
    return "\n".join(parts)


def drawing(panels, columns=2):
    """The text of an SVG file with the panels side by side."""
    rows = -(-len(panels) // columns)
    width, height = columns * WIDTH, rows * HEIGHT
    lines = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height}" '
             f'viewBox="0 0 {width} {height}"', ' font-family="sans-serif" font-size="12" fill="#222222">',
             f'<rect width="{width}" height="{height}" fill="#ffffff"/>']
    for number, text in enumerate(panels):
        place = f"{number % columns * WIDTH} {number // columns * HEIGHT}"
        lines.append(f'<g transform="translate({place})">\n{text}\n</g>')
    return "\n".join(lines) + "\n</svg>\n"
