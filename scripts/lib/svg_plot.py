"""One curve as an SVG: x by decades, y from 0, each point with its spread."""

import math
from html import escape

WIDTH, HEIGHT = 640, 320
LEFT, RIGHT, TOP, BOTTOM = 60, 20, 40, 50


def ticks_up_to(largest):
    """Round numbers from 0 to a little above `largest`."""
    rough = largest / 4
    unit = 10 ** math.floor(math.log10(rough))
    step = next(unit * factor for factor in (1, 2, 5, 10) if unit * factor >= rough)
    return [step * number for number in range(math.ceil(largest / step) + 1)]


def plot(title, x_unit, y_unit, points):
    """`points`: (x, median, smallest, largest). An x of 0 stands at the left edge, as 1 does."""
    scaled = [math.log10(max(x, 1)) for x, *_ in points]
    ticks = ticks_up_to(max(largest for *_, largest in points))
    span = (max(scaled) - min(scaled)) or 1

    def across(value):
        return LEFT + (value - min(scaled)) / span * (WIDTH - LEFT - RIGHT)

    def up(value):
        return HEIGHT - BOTTOM - value / ticks[-1] * (HEIGHT - TOP - BOTTOM)

    parts = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {HEIGHT}" font-family="sans-serif" '
             'font-size="12">', f'<rect width="{WIDTH}" height="{HEIGHT}" fill="white"/>',
             f'<text x="{LEFT}" y="22" font-size="14">{escape(title)}</text>']
    for tick in ticks:
        parts.append(f'<line x1="{LEFT}" y1="{up(tick):.1f}" x2="{WIDTH - RIGHT}" y2="{up(tick):.1f}" stroke="#ddd"/>')
        parts.append(f'<text x="{LEFT - 6}" y="{up(tick) + 4:.1f}" text-anchor="end">{tick:g}</text>')
    parts.append(f'<text x="14" y="{TOP - 8}">{escape(y_unit)}</text>')
    for (x, *_), place in zip(points, scaled):
        parts.append(f'<text x="{across(place):.1f}" y="{HEIGHT - BOTTOM + 18}" text-anchor="middle">{x:,}</text>')
    parts.append(f'<text x="{WIDTH - RIGHT}" y="{HEIGHT - 10}" text-anchor="end">{escape(x_unit)}</text>')
    line = " ".join(f"{across(place):.1f},{up(middle):.1f}" for place, (_, middle, *_) in zip(scaled, points))
    parts.append(f'<polyline points="{line}" fill="none" stroke="#1f5fa8" stroke-width="2"/>')
    for place, (_, middle, smallest, largest) in zip(scaled, points):
        x = f"{across(place):.1f}"
        parts.append(f'<line x1="{x}" y1="{up(smallest):.1f}" x2="{x}" y2="{up(largest):.1f}" stroke="#1f5fa8"/>')
        parts.append(f'<circle cx="{x}" cy="{up(middle):.1f}" r="3" fill="#1f5fa8"/>')
    return "\n".join([*parts, "</svg>", ""])
