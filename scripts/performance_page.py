"""Writes docs/performance.md and its pictures from the figures of scripts/performance.py."""

import math

import matplotlib

from performance_figures import (DIMENSIONS, ITEM_COUNTS, Figures, duration, table, times,
                                 tool_over_loop, tool_user_seconds)
from performance_goals import bounds_list, goals_table

matplotlib.use("Agg")
from matplotlib import pyplot  # noqa: E402 (the backend is chosen first)


def against_floor(figures, name):
    return [duration(figures.seconds(name)), duration(figures.seconds(name, "floor_ns_each")),
            times(figures.times_floor(name))]


def against_peer(figures, case, contender, ours="zorvex", **place):
    seconds = figures.peer(case, contender, **place)
    if math.isnan(seconds):
        return "-"
    return f"{duration(seconds)}, {times(figures.times_faster(case, contender, ours, **place))}"


def machine_table(figures):
    def rate(name, unit):
        return f"{figures.case(f'machine_{name}/iterations:1', 'per_second') / 1e9:.3g} {unit}"

    rows = [[f"fused multiply-adds, {bits} bits", rate(f"multiply_add/bits:{bits}", "GFLOP/s")]
            for bits in (128, 256, 512)]
    rows += [[f"reading {size} MiB again and again", rate(f"read/MiB:{size}", "GB/s")]
             for size in (1, 4, 16, 256)]
    rows += [[f"random rows of 256 bytes, {name}", rate(f"random_rows/ahead:{ahead}", "GB/s")]
             for name, ahead in (("no prefetch", 0), ("prefetched 8 ahead", 8),
                                 ("prefetched 32 ahead", 32))]
    return table(["limit", "measured"], rows)


def als_table(figures):
    peers = figures.contenders("als")
    rows = [[str(d), *against_floor(figures, f"als_epoch/d:{d}"),
             *(against_peer(figures, "als", name, d=d) for name in peers)] for d in DIMENSIONS]
    return table(["d", "zorvex", "floor", "times the floor", *peers], rows)


def bpr_table(figures):
    rows = []
    for text, name, case, d, ours in (
            ("random order, d = 64", "bpr_random_order/d:64", "bpr", 64, "zorvex, step"),
            ("random order, d = 128", "bpr_random_order/d:128", "bpr", 128, "zorvex, step"),
            ("1 million x 1 million, d = 64", "bpr_million", "bpr, million", 64, "zorvex, step"),
            ("with sampling, d = 64", "bpr_with_sampling/d:64", "bpr", 64,
             "zorvex, with sampling"),
            ("with sampling, d = 128", "bpr_with_sampling/d:128", "bpr", 128,
             "zorvex, with sampling")):
        libmf = figures.times_faster_than_libmf(case, d) if ours == "zorvex, step" else math.nan
        rows.append([text, *against_floor(figures, name),
                     against_peer(figures, case, "implicit, with sampling", ours, d=d),
                     times(libmf)])
    rows.append(["a negative sample alone", *against_floor(figures, "sample_negatives"), "-", "-"])
    return table(["a triple", "zorvex", "floor", "times the floor", "implicit, with sampling",
                  "LIBMF (quoted)"], rows)


def top_k_table(figures):
    peers = figures.contenders("top_k")
    rows = []
    for d, k in ((64, 10), (64, 100), (128, 10), (128, 100)):
        for items in ITEM_COUNTS:
            compared = [against_peer(figures, "top_k", name, items=items)
                        if (d, k) == (64, 10) else "" for name in peers]
            rows.append([f"{items:,}", str(d), str(k),
                         *against_floor(figures, f"recommend/items:{items}/d:{d}/k:{k}"),
                         *compared])
    return table(["items", "d", "K", "zorvex", "floor", "times the floor", *peers], rows)


def score_table(figures):
    rows = [["a pair, tables of 2,000 rows", *against_floor(figures, "score_pairs/rows:2000"),
             against_peer(figures, "pair_scores", "NumPy", rows=2000)],
            ["a pair, tables of 1 million rows",
             *against_floor(figures, "score_pairs/rows:1000000"),
             against_peer(figures, "pair_scores", "NumPy", rows=1_000_000)],
            ["an item of a list, 10,000 in the table's order",
             *against_floor(figures, "score_items/identity:1"), "-"],
            ["an item of a list, 10,000 in random order",
             *against_floor(figures, "score_items/identity:0"), "-"]]
    return table(["score, d = 64", "zorvex", "floor", "times the floor", "NumPy"], rows)


def other_table(figures):
    save = "model_save/iterations:1/real_time"
    load = figures.loading
    return table(["work", "zorvex", "compared with", "", "times"], [
        ["making a model, an element", duration(figures.seconds("model_create")),
         "as many draws written to fresh memory",
         duration(figures.seconds("model_create", "floor_ns_each")),
         times(figures.times_floor("model_create"))],
        ["loading a model, an element", duration(figures.seconds("model_load")),
         "the draws, and reading the file into fresh memory",
         duration(figures.seconds("model_load", "floor_ns_each")),
         times(figures.times_floor("model_load"))],
        ["saving a model, an element", duration(figures.seconds(save)), "`cp` of the file",
         duration(figures.seconds(save, "floor_ns_each")), times(figures.times_floor(save))],
        ["hit rate, a test pair", duration(figures.seconds("hit_rate")),
         "a tensor for every draw", duration(figures.seconds("hit_rate", "by_lookups_ns_each")),
         times(1.0 / figures.case("hit_rate", "times_faster"))],
        [f"tool: loading {load['lines'] / 1e6:g} million lines", duration(load["seconds"]),
         "reading the file and splitting its lines", duration(load["splitting_seconds"]),
         times(load["seconds"] / load["splitting_seconds"])],
        [f"tool: `recommend --all`, a user of {figures.recommending['users']:,}",
         duration(tool_user_seconds(figures)), "`zx_recommend()` alone",
         duration(figures.seconds("recommend/items:10000/d:64/k:10")),
         times(tool_over_loop(figures))]])


def left_out_table(figures):
    rows = [[f"ALS epoch, d = {d}", duration(figures.seconds(f"als_epoch/d:{d}")),
             "an entry in a user's row, two in an item's: no corrections",
             duration(figures.seconds(f"als_epoch_few_entries/d:{d}"))] for d in DIMENSIONS]
    rows += [[f"BPR triple in random order, d = {d}",
              duration(figures.seconds(f"bpr_random_order/d:{d}")),
              "rows that stay in the first cache: no memory",
              duration(figures.seconds(f"bpr_few_rows/d:{d}"))] for d in (64, 128)]
    rows += [["BPR triple with sampling, d = 64",
              duration(figures.seconds("bpr_with_sampling/d:64")), "no sampling",
              duration(figures.seconds("bpr_random_order/d:64"))],
             ["top 10 of 10,000 items",
              duration(figures.seconds("recommend/items:10000/d:64/k:10")),
              "no choice: a list of all items",
              duration(1e4 * figures.seconds("score_items/identity:1"))],
             ["making a model, an element", duration(figures.seconds("model_create")),
              "the draws alone", duration(figures.seconds("model_create", "draw_ns_each"))],
             ["", "", "the first touch of the memory alone",
              duration(figures.seconds("model_create", "touch_ns_each"))],
             ["saving a model, an element",
              duration(figures.seconds("model_save/iterations:1/real_time")),
              "the tables written by one call each",
              duration(figures.seconds("model_save/iterations:1/real_time", "write_ns_each"))]]
    return table(["work", "whole", "left out", "rest"], rows)


def draw(path, xs, curves, label):
    """A picture of times: curves by name, each a list of seconds with NaN where there is none."""
    figure, axes = pyplot.subplots(figsize=(7, 4), layout="constrained")
    for place, (name, seconds) in enumerate(curves.items()):
        line = "k:" if name == "floor" else f"C{place}o-"
        if not all(map(math.isnan, seconds)):
            axes.plot(xs, seconds, line, markersize=4, label=name)
    axes.set_xscale("log")
    axes.set_yscale("log")
    axes.set_xticks(xs, [f"{x:,}" for x in xs])
    axes.minorticks_off()
    axes.set_xlabel(label)
    axes.set_ylabel("seconds, one core")
    axes.grid(alpha=0.3)
    axes.legend()
    figure.savefig(path, metadata={"Date": None})
    pyplot.close(figure)


def draw_pictures(figures, folder):
    # Texts stay texts, and names within the files do not change from run to run.
    pyplot.rcParams.update({"svg.fonttype": "none", "svg.hashsalt": "zorvex"})
    folder.mkdir(parents=True, exist_ok=True)
    epochs = [f"als_epoch/d:{d}" for d in DIMENSIONS]
    curves = {"zorvex, exact": [figures.seconds(name) for name in epochs],
              "floor": [figures.seconds(name, "floor_ns_each") for name in epochs]}
    curves.update({name: [figures.peer("als", name, d=d) for d in DIMENSIONS]
                   for name in figures.contenders("als")})
    draw(folder / "performance-als.svg", DIMENSIONS, curves, "dimension d")
    calls = [f"recommend/items:{items}/d:64/k:10" for items in ITEM_COUNTS]
    curves = {"zorvex": [figures.seconds(name) for name in calls],
              "floor": [figures.seconds(name, "floor_ns_each") for name in calls]}
    curves.update({name: [figures.peer("top_k", name, items=items) for items in ITEM_COUNTS]
                   for name in figures.contenders("top_k")})
    draw(folder / "performance-top-k.svg", ITEM_COUNTS, curves, "number of items")


PAGE = """# How fast it is

{introduction}

Figures are medians of one run on one core: {processor} with {vectors}-bit vectors,
{caches}. They are processor time, except that saving is compared with `cp` in
elapsed time. Other work on the machine moves them; compare ratios, and only within this page.
`scripts/performance.py` measures and writes the page anew; `zorvex_benchmarks` prints the figures
beside their floors.

- A *floor* is what the same core allows, measured in the same run by a loop that only reads and
  writes the same bytes, or only multiplies and adds, at the best vector width, prefetch distance
  and number of parallel streams that were found.
- A *peer* is another library on the same data in one process with ours, in turn with it, one thread
  each. Its column has its time and how many times faster ours is; ours then includes the call from
  Python. Before anything is timed, both are shown to solve the same problem: exact epochs from one
  start agree, lists and scores agree, training from one start orders as many pairs rightly.
- *Quoted* figures were not measured here. LIBMF's are the ratio of its time to implicit's in one
  run elsewhere (82 / 337, 110 / 494 and 295 / 566 ns a triple, one core of a server processor with
  512-bit vectors), applied to implicit's time here. LIBMF and implicit include their sampling.

## What the machine allows

{machine}

## Training: an ALS epoch

20,000 users, 10,000 items, about a million interactions. The floor counts the operations of the
cheapest exact method known for every row and divides them by the peak of multiply-adds.

{als}

![time of an ALS epoch by dimension](images/performance-als.svg)

## Training: BPR

As many triples as there are interactions, in random order; the floor reads and writes the three
rows of every triple in that order. With sampling, a negative is drawn for every triple and compared
with the known positives; the floor has a draw of the generator more. implicit draws the positives
too.

{bpr}

## The best K items of one user

The floor reads the item table once.

{top_k}

![time of the ten best items by number of items](images/performance-top-k.svg)

## Scores of pairs and lists

The floor of pairs reads the two rows of each, that of lists reads as many bytes in a row.

{score}

## Everything else

{other}

## With one thing left out

The same work without its memory, its choice, its corrections or its sampling shows which of them a
figure is bound by.

{left_out}

## Goals

{goals}

## What bounds the missed ones

{bounds}
"""


def introduction(figures):
    if figures.peers:
        return ("The engine runs on the calling thread. This page shows what one core does so, "
                "beside other\nlibraries on the same core and beside what the core allows.")
    return ("The engine runs on the calling thread. This page shows what one core does so, beside "
            "what the\ncore allows. The other libraries could not be installed for this run.")


def write(measured, output):
    figures = Figures(measured)
    draw_pictures(figures, output / "images")
    page = PAGE.format(introduction=introduction(figures),
                       processor=figures.machine["processor"],
                       vectors=figures.machine["vectors"],
                       caches=", ".join(figures.machine["caches"]),
                       machine=machine_table(figures), als=als_table(figures),
                       bpr=bpr_table(figures), top_k=top_k_table(figures),
                       score=score_table(figures), other=other_table(figures),
                       left_out=left_out_table(figures), goals=goals_table(figures),
                       bounds=bounds_list(figures))
    (output / "performance.md").write_text(page, encoding="utf-8")
