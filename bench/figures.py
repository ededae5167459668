"""Figures of measurements, and the table that they make."""

import random
import statistics
from typing import NamedTuple


class Figure(NamedTuple):
    """One cell. What lies between `low` and `high` is said with the section; alike: no interval."""

    section: str
    row: str
    unit: str
    value: str
    low: str
    high: str


def read(output):
    """The figures among the lines of a measuring program: @SECTION|ROW|UNIT|VALUE|LOW|HIGH."""
    return [Figure(*line[1:].split("|")) for line in output.splitlines() if line.startswith("@")]


def single(section, row, unit, form, value):
    text = format(value, form)
    return Figure(section, row, unit, text, text, text)


def median_only(section, row, unit, form, values):
    return single(section, row, unit, form, statistics.median_low(values))


def median(section, row, unit, form, values):
    """With its 95 % interval, from a thousand times as many values drawn anew."""
    draw = random.Random(1)
    medians = sorted(statistics.median_low(draw.choices(values, k=len(values))) for _ in range(1000))
    three = statistics.median_low(values), medians[25], medians[974]
    return Figure(section, row, unit, *(format(number, form) for number in three))


class Series(NamedTuple):
    """A measure of a variant in all rounds, and that of the variant compared with."""

    measure: str
    variant: str
    values: list
    base: list

    def differences(self, per=1):
        return [(value - base) / per for value, base in zip(self.values, self.base)]

    def changes(self):
        """In percent."""
        return [100 * value / base - 100 for value, base in zip(self.values, self.base)]


def compare(rows, base):
    """Series of rows (measure, variant, round, value), in the order of their first rows."""
    all_series = {}
    for measure, variant, turn, value in rows:
        all_series.setdefault((measure, variant), {})[turn] = value
    for (measure, variant), values in all_series.items():
        of_base = all_series[measure, base]
        rounds = [turn for turn in values if turn in of_base]
        yield Series(measure, variant, [values[turn] for turn in rounds],
                     [of_base[turn] for turn in rounds])


def table(figures):
    """A block of lines per section, a line per row, its values by unit."""
    cells, rows, units = {}, {}, {}
    for section, row, unit, value, low, high in figures:
        cells[section, row, unit] = value if low == high else f"{value} [{low} {high}]"
        rows.setdefault(section, {})[row] = None  # a dictionary keeps their order
        units.setdefault(section, {})[unit] = None
    blocks = []
    for section in rows:
        lines = [[section, *units[section]]]
        for row in rows[section]:
            lines.append(["  " + row, *(cells.get((section, row, unit), "-")
                                        for unit in units[section])])
        widths = [max(map(len, column)) for column in zip(*lines)]
        blocks.append("\n".join(
            "  ".join(cell.ljust(width) for cell, width in zip(line, widths)).rstrip()
            for line in lines))
    return "\n\n".join(blocks)
