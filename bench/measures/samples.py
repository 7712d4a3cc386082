# SPDX-License-Identifier: ISC
"""Samples of several variants taken in turn, and what is said of them.

A row compares the daemon with a baseline that was measured in the same run: whatever else the
machine was doing, it did to both.
"""
import dataclasses
import statistics

FEWEST_FOR_SPREAD = 4  # samples; fewer have no quartiles worth the name


@dataclasses.dataclass
class Row:
    """One line of the tables."""
    what: str               # "state, 8 clients: p50"
    unit: str               # "us", "MB/s", "KiB"
    ours: list              # samples of the daemon
    baseline: list          # samples of the baseline, in the same order
    baseline_name: str
    # The ratio aimed at, "<= 1.05" or ">= 0.97"; or the most that the figure itself may be,
    # "at most 61".
    goal: str = ""

    def ratio(self):
        """Of the medians; 0 for a baseline of nothing."""
        base = statistics.median(self.baseline) if self.baseline else 0
        return statistics.median(self.ours) / base if base else 0.0

    def met(self):
        """True, False, or None: without a goal, or without the ratio that it is about."""
        if not self.goal:
            return None
        sign, _, bound = self.goal.rpartition(" ")
        if sign == "at most":
            return statistics.median(self.ours) <= float(bound)
        if not self.ratio():
            return None
        return self.ratio() <= float(bound) if sign == "<=" else self.ratio() >= float(bound)


def spread(samples):
    """Half the distance between the quartiles, in percent of the median."""
    middle = statistics.median(samples)
    if len(samples) < FEWEST_FOR_SPREAD or not middle:
        return 0.0
    low, _, high = statistics.quantiles(samples, n=4)
    return 50.0 * (high - low) / middle


def interleave(runs, variants):
    """Calls each of `variants` (name -> function that returns a sample) `runs` times, in turn and
    with another one first each time; one round before that does not count. Returns name -> list.
    """
    names = list(variants)
    result = {name: [] for name in names}
    for turn in range(runs + 1):
        for place in range(len(names)):
            name = names[(turn + place) % len(names)]
            sample = variants[name]()
            if turn > 0:
                result[name].append(sample)
    return result


def number(value):
    """Three or four digits that count, no exponent."""
    if value == 0:
        return "0"
    places = next((places for bound, places in ((1, 3), (10, 2), (100, 1)) if abs(value) < bound),
                  0)
    return f"{value:,.{places}f}"


def table(rows):
    """The rows as lines of a Markdown table."""
    lines = ["| what | fwupdate | baseline | ratio | samples | goal |", "|---|---|---|---|---|---|"]
    for row in rows:
        ours = f"{number(statistics.median(row.ours))} {row.unit}"
        if len(row.ours) >= FEWEST_FOR_SPREAD:
            ours += f" ±{spread(row.ours):.1f} %"
        base = ratio = "-"
        if row.baseline:
            base = f"{number(statistics.median(row.baseline))} {row.unit}"
            if len(row.baseline) >= FEWEST_FOR_SPREAD:
                base += f" ±{spread(row.baseline):.1f} %"
            base += f" ({row.baseline_name})"
            ratio = f"{row.ratio():.3f}" if row.ratio() else "-"
        goal = row.goal
        if row.met() is not None:
            goal += ", met" if row.met() else ", missed"
        elif goal:
            goal += ", no ratio"
        lines.append(f"| {row.what} | {ours} | {base} | {ratio} | {len(row.ours)} | {goal} |")
    return lines
