"""The goals of speed, whether they are reached, and what bounds those that are not."""

import dataclasses
import math
import textwrap

from performance_figures import DIMENSIONS, duration, table, times, tool_over_loop


@dataclasses.dataclass
class Goal:
    """A goal of speed: a figure and the bound on the side that `at_least` says."""
    text: str
    value: float
    bound: float
    at_least: bool = False

    def verdict(self):
        if math.isnan(self.value):
            return "not measured"
        return f"missed by a factor of {self.distance():.2f}" if self.is_missed() else "reached"

    def distance(self):
        """Above 1 where the goal is not reached."""
        return self.bound / self.value if self.at_least else self.value / self.bound

    def is_missed(self):
        return self.distance() > 1.0

    def row(self):
        side = "at least" if self.at_least else "at most"
        return [self.text, f"{side} {self.bound:g}", times(self.value), self.verdict()]


def als_goals(figures):
    exact, approximate = ["irspack, exact"], ["irspack, CG-3", "implicit, CG-3"]
    goals = []
    for d, ahead, floor in zip(DIMENSIONS, (3.5, 4.5, 6.0, 10.0), (5.0, 2.4, 1.7, 1.45)):
        goals += [
            Goal(f"ALS, d = {d}: times faster than the fastest exact peer",
                 figures.fastest("als", exact, d=d), ahead, True),
            Goal(f"ALS, d = {d}: times the floor", figures.times_floor(f"als_epoch/d:{d}"), floor),
            Goal(f"ALS, d = {d}: times faster than the fastest three steps of CG",
                 figures.fastest("als", approximate, d=d), 1.0, True)]
        if d <= 128:
            goals.append(Goal(f"ALS, d = {d}: times faster than implicit's default",
                              figures.times_faster("als", "implicit, CG-3", d=d), 2.0, True))
    return goals


def bpr_goals(figures):
    def faster_than_implicit(case, d):
        return figures.times_faster(case, "implicit, with sampling", "zorvex, step", d=d)

    goals = []
    for d, libmf, implicit in ((64, 5.5, 20.0), (128, 3.0, 15.0)):
        goals += [
            Goal(f"BPR, random order, d = {d}: times the floor",
                 figures.times_floor(f"bpr_random_order/d:{d}"), 1.7),
            Goal(f"BPR, random order, d = {d}: times faster than implicit",
                 faster_than_implicit("bpr", d), implicit, True),
            Goal(f"BPR, random order, d = {d}: times faster than LIBMF (quoted)",
                 figures.times_faster_than_libmf("bpr", d), libmf, True)]
    return goals + [
        Goal("BPR, 1 million x 1 million: times the floor", figures.times_floor("bpr_million"),
             1.15),
        Goal("BPR, 1 million x 1 million: times faster than LIBMF (quoted)",
             figures.times_faster_than_libmf("bpr, million", 64), 9.0, True),
        Goal("BPR with sampling, d = 64: ns a triple", figures.case("bpr_with_sampling/d:64"),
             40.0)]


def scoring_goals(figures):
    small, large = "recommend/items:10000/d:64/k:", "recommend/items:1000000/d:64/k:"
    more = (figures.case(small + "100") - figures.case(small + "10")) * 1e-3
    return [
        Goal("top 10 of 10,000: times the floor", figures.times_floor(small + "10"), 1.15),
        Goal("top 10 of 10,000: times faster than implicit",
             figures.times_faster("top_k", "implicit", items=10_000), 1.9, True),
        Goal("top 10 of 10,000: times faster than NumPy",
             figures.times_faster("top_k", "NumPy", items=10_000), 4.5, True),
        Goal("top 100 of 10,000: µs more than for the top 10", more, 10.0),
        Goal("top 10 of 1 million: times the floor", figures.times_floor(large + "10"), 1.1),
        Goal("pair scores in cache: times the floor", figures.times_floor("score_pairs/rows:2000"),
             1.75),
        Goal("pair scores from memory: times the floor",
             figures.times_floor("score_pairs/rows:1000000"), 1.1),
        Goal("item list in the table's order: times the floor",
             figures.times_floor("score_items/identity:1"), 1.15),
        Goal("item list in random order: times the floor",
             figures.times_floor("score_items/identity:0"), 1.3)]


def other_goals(figures):
    load = figures.loading
    return [
        Goal("hit rate: times faster than with a tensor for every draw",
             figures.case("hit_rate", "times_faster"), 20.0, True),
        Goal("saving a model: times `cp`", figures.times_floor("model_save/iterations:1/real_time"),
             1.2),
        Goal("tool, loading: times reading and splitting",
             load["seconds"] / load["splitting_seconds"], 2.0),
        Goal("tool, `recommend --all`: times the scoring, so that writing takes less than it",
             tool_over_loop(figures), 2.0)]


def als_bounds(figures):
    rests = ", ".join(f"{duration(figures.seconds(f'als_epoch_few_entries/d:{d}'))} of "
                      f"{duration(figures.seconds(f'als_epoch/d:{d}'))} at d = {d}"
                      for d in DIMENSIONS)
    return ("An ALS epoch is bound by its operations. Without corrections, with an entry in a "
            f"user's row, an epoch takes {rests}: the two Gram matrices and the solves. The floor "
            "is the operations at full speed; small and short systems are far from it, because one "
            "step of a factorisation waits for the one before it.")


def bpr_bounds(figures):
    memory = duration(figures.seconds("bpr_random_order/d:64", "floor_ns_each"))
    return ("A BPR triple is bound by latency and memory at once. On rows that stay in the first "
            f"cache it takes {duration(figures.seconds('bpr_few_rows/d:64'))} at d = 64, where its "
            f"memory alone takes {memory}: a triple needs two dot products and an exponential "
            "before its first write, and the next triple may need what it writes. A negative "
            f"sample takes {duration(figures.seconds('sample_negatives'))}, its draw alone "
            f"{duration(figures.seconds('sample_negatives', 'floor_ns_each'))}; the rest is the "
            "search for the draw among the user's entries.")


def scoring_bounds(figures):
    scoring = duration(1e4 * figures.seconds("score_items/identity:1"))
    return ("A top K is bound by the bytes of the item table: 10,000 items scored as a list, "
            f"without the choice, take {scoring}, with it "
            f"{duration(figures.seconds('recommend/items:10000/d:64/k:10'))}. The floor of a table "
            "that is larger than the caches reads several parts of it side by side.")


def other_bounds(figures):
    return ("Making and loading a model are bound by the generator, whose draws follow one another "
            f"({duration(figures.seconds('model_create', 'draw_ns_each'))} each), and by the first "
            "touch of the memory "
            f"({duration(figures.seconds('model_create', 'touch_ns_each'))} an element).")


# The goals of a subject, and what bounds it, which is said where one of them is missed.
SUBJECTS = ((als_goals, als_bounds), (bpr_goals, bpr_bounds), (scoring_goals, scoring_bounds),
            (other_goals, other_bounds))


def goals_table(figures):
    return table(["goal", "bound", "measured", ""],
                 [goal.row() for goals, _ in SUBJECTS for goal in goals(figures)])


def bounds_list(figures):
    bounds = [textwrap.fill(f"- {bound(figures)}", 100, subsequent_indent="  ")
              for goals, bound in SUBJECTS
              if any(goal.is_missed() for goal in goals(figures))]
    return "\n".join(bounds) or "Every goal that was measured is reached."
