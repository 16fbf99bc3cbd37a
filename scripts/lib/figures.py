"""The figures of benchmarks in rounds: their medians, their spread, and how two builds compare."""

import json
import math
import pathlib
import statistics


def parsed_rows(text):
    """{row: {figure: value}} of lines "ROW FIGURE=VALUE..."."""
    rows = {}
    for line in text.splitlines():
        name, *figures = line.split()
        rows[name] = {figure.partition("=")[0]: float(figure.partition("=")[2]) for figure in figures}
    return rows


def number(value):
    """Three digits that count."""
    if value == 0 or not math.isfinite(value):
        return "0" if value == 0 else "-"
    digits = max(0, 2 - math.floor(math.log10(abs(value))))
    return f"{value:,.{digits}f}"


def with_spread(values):
    middle = number(statistics.median(values))
    return middle if len(values) == 1 else f"{middle} ({number(min(values))} to {number(max(values))})"


class Rounds:
    """What each round found, by row and figure."""

    def __init__(self, about=None, rows=None):
        self.about = about or {}  # what is told with them
        self.rows = rows if rows is not None else {}

    @staticmethod
    def load(path):
        return Rounds(**json.loads(pathlib.Path(path).read_text()))

    def save(self, path):
        pathlib.Path(path).write_text(json.dumps({"about": self.about, "rows": self.rows}, indent=1) + "\n")

    def add(self, row, figures):
        for figure, value in figures.items():
            self.rows.setdefault(row, {}).setdefault(figure, []).append(value)

    def values(self, row, figure):
        return self.rows.get(row, {}).get(figure, [])

    def median(self, row, figure):
        values = self.values(row, figure)
        return statistics.median(values) if values else None

    def text(self, row, figure):
        values = self.values(row, figure)
        return with_spread(values) if values else "-"

    def count(self):
        return max((len(values) for figures in self.rows.values() for values in figures.values()), default=0)

    def table(self):
        """All of it, a line for each row."""
        width = max((len(row) for row in self.rows), default=0)
        return "\n".join(f"{row:{width}}  " + "  ".join(f"{figure} {with_spread(values)}"
                                                        for figure, values in figures.items())
                         for row, figures in self.rows.items())


def ratios(before, after):
    """Of each round: both builds saw the same machine in it."""
    return [new / old for old, new in zip(before, after) if old > 0]


def compared(before, after, name):
    """A line for each figure that takes time or memory: below 1 is better than before."""
    lines = [f"this tree / {name}, median of the rounds' ratios (smallest to largest); less is better"]
    for row, figures in after.rows.items():
        for figure in figures:
            found = ratios(before.values(row, figure), after.values(row, figure))
            if found and figure.endswith(("_us", "_ms", "_kib", "_mib", "threads", "kib_per_session")):
                lines.append(f"{row:32} {figure:18} {statistics.median(found):6.3f} "
                             f"({min(found):.3f} to {max(found):.3f})")
    return "\n".join(lines)


def order(points):
    """The exponent of growth over the last decade or so of (x, y), above what y begins with: 0 is
    flat, 1 linear, 2 quadratic. Growth of less than a fifth over all of x counts as none."""
    points = [(x, y) for x, y in points if x > 0]
    (first_x, base), (last_x, last_y) = points[0], points[-1]
    if last_y < 1.2 * base or len(points) < 3:
        return 0.0
    near = [(x, y) for x, y in points[1:-1] if y > 1.05 * base]
    if not near:
        return math.log(last_y / base) / math.log(last_x / first_x)
    x, y = near[-1]
    return math.log((last_y - base) / (y - base)) / math.log(last_x / x)
