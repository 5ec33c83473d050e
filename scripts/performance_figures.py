"""The figures of scripts/performance.py by their names, and how they are written."""

import math

DIMENSIONS = (16, 64, 128, 256)
ITEM_COUNTS = (10_000, 100_000, 1_000_000)
# Nanoseconds a triple of LIBMF and of implicit, each with its own sampling, as they were measured
# in one run elsewhere, on one core of a server processor with 512-bit vectors: by case and d.
QUOTED_LIBMF = {("bpr", 64): (82, 337), ("bpr", 128): (110, 494), ("bpr, million", 64): (295, 566)}


class Figures:
    """What was measured. A figure that is missing is NaN and is shown as a dash."""

    def __init__(self, figures):
        self.machine = figures["machine"]
        self.benchmarks = figures["benchmarks"]
        self.peers = figures["peers"]
        self.loading = figures["loading"]
        self.recommending = figures["recommending"]

    def case(self, name, counter="ns_each"):
        return self.benchmarks.get(name, {}).get(counter, math.nan)

    def seconds(self, name, counter="ns_each"):
        return self.case(name, counter) * 1e-9

    def times_floor(self, name):
        return self.case(name, "times_floor")

    def peer(self, case, contender, **place):
        """Seconds of a contender, and of the library in the same process, in turn with it."""
        for figure in self.peers:
            if figure["case"] == case and figure["contender"] == contender and all(
                    figure[name] == value for name, value in place.items()):
                return figure["seconds"]
        return math.nan

    def contenders(self, case):
        names = dict.fromkeys(figure["contender"] for figure in self.peers
                              if figure["case"] == case)
        return [name for name in names if not name.startswith("zorvex")]

    def times_faster(self, case, contender, ours="zorvex", **place):
        return self.peer(case, contender, **place) / self.peer(case, ours, **place)

    def fastest(self, case, contenders, **place):
        """How many times faster than the fastest of some contenders."""
        ratios = [self.times_faster(case, name, **place) for name in contenders]
        return min((ratio for ratio in ratios if not math.isnan(ratio)), default=math.nan)

    def times_faster_than_libmf(self, case, d):
        libmf, implicit = QUOTED_LIBMF[case, d]
        return libmf / implicit * self.times_faster(case, "implicit, with sampling",
                                                    "zorvex, step", d=d)


def tool_user_seconds(figures):
    return figures.recommending["seconds"] / figures.recommending["users"]


def tool_over_loop(figures):
    return tool_user_seconds(figures) / figures.seconds("recommend/items:10000/d:64/k:10")


def number(value):
    if math.isnan(value):
        return "-"
    digits = max(0, 2 - math.floor(math.log10(value))) if value > 0 else 0
    return f"{value:,.{min(digits, 3)}f}"


def duration(seconds):
    if math.isnan(seconds):
        return "-"
    for unit, size in (("s", 1.0), ("ms", 1e-3), ("µs", 1e-6)):
        if seconds >= size:
            return f"{number(seconds / size)} {unit}"
    return f"{number(seconds * 1e9)} ns"


def times(ratio):
    return "-" if math.isnan(ratio) else f"{ratio:.2f}"


def table(heading, rows):
    lines = [heading, ["---"] * len(heading), *rows]
    return "\n".join("| " + " | ".join(line) + " |" for line in lines)
