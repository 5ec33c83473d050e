"""How the peers are timed: in one process with the library, in turn, on one thread."""

import argparse
import json
import pathlib
import statistics
import time

import library as zorvex


class Measuring:
    """The arguments that every subject has, the library, and the report."""

    def __init__(self, description, **extra):
        parser = argparse.ArgumentParser(description=description)
        parser.add_argument("library", type=pathlib.Path, help="the shared library")
        parser.add_argument("interactions", type=pathlib.Path,
                            help="file written by zorvex_benchmark_data")
        for name, options in extra.items():
            parser.add_argument(name, **options)
        self.arguments = parser.parse_args()
        self.library = zorvex.load(self.arguments.library.resolve())

    @staticmethod
    def report(**figures):
        """One line of JSON for each contender."""
        print(json.dumps(figures), flush=True)


def seconds_of(call):
    start = time.process_time()
    call()
    return time.process_time() - start


def fit(model, matrix, epochs):
    """Trains a model of implicit further; the processor time at the end of each epoch."""
    ends = []
    model.iterations = epochs
    model.fit(matrix, show_progress=False, callback=lambda *_: ends.append(time.process_time()))
    return ends


def fit_seconds(model, matrix):
    """Of the second epoch of two, so that what it prepares for all of them is not counted."""
    first, second = fit(model, matrix, 2)
    return second - first


def in_turn(contenders, rounds, limit=15.0):
    """The median seconds of each contender. A contender is a function that does its work once and
    returns its seconds. They take turns, so that a slow moment of the machine meets them all; no
    round begins after so many seconds."""
    times = {name: [] for name in contenders}
    start = time.monotonic()
    for done in range(rounds):
        if done > 0 and time.monotonic() - start > limit:
            break
        for name, run in contenders.items():
            times[name].append(run())
    return {name: statistics.median(values) for name, values in times.items()}


def require(holds, what):
    """Stops the comparison where the contenders do not solve the same problem."""
    if not holds:
        raise SystemExit(f"not the same problem: {what}")
