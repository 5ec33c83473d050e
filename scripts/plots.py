#!/usr/bin/env python3
"""Draws the pictures of docs/training.md from the tool's own output.

    scripts/plots.py build/release/tools/zorvex docs/images

Generates a data set, trains on four fifths of it and measures on the rest. The same tool, fonts and
matplotlib give the same files. Needs matplotlib (python3-matplotlib in Debian).
"""

import argparse
import json
import pathlib
import subprocess
import tempfile

import matplotlib

matplotlib.use("Agg")
from matplotlib import pyplot  # noqa: E402 (the backend is chosen first)

K = 10
DIMENSIONS = [2, 4, 8, 16, 32, 64, 128]
# Name in the pictures, line, options of `zorvex train`.
ALS = ("ALS", "C0o-", ["--algorithm", "als"])
ALS_UNREGULARISED = ("ALS, --regularization 1", "C1s-", ["--algorithm", "als",
                                                          "--regularization", "1"])
BPR = ("BPR", "C2^-", ["--algorithm", "bpr", "--bias"])


class Tool:
    """The tool, and a folder with generated interactions."""

    def __init__(self, program, folder):
        self.program = program
        self.folder = folder
        self.run("generate", "--output", folder / "data.csv", "--seed", "1")

    def run(self, *arguments):
        """What the tool prints for --json."""
        command = [str(word) for word in (self.program, "--json", "--quiet", *arguments)]
        return json.loads(subprocess.run(command, check=True, stdout=subprocess.PIPE).stdout)

    def train(self, *options):
        return self.run("train", self.folder / "data.csv", "--output", self.folder / "model.zxm",
                        "--holdout", "0.2", "--seed", "1", "--device", "cpu", "-k", str(K),
                        "--write-train", self.folder / "train.csv",
                        "--write-test", self.folder / "test.csv", *options)

    def evaluate(self):
        answer = self.run("evaluate", self.folder / "model.zxm", "-k", str(K),
                          "--train", self.folder / "train.csv", "--test", self.folder / "test.csv")
        (group,) = answer["full"]
        return group["model"]


def recall(figures):
    (at,) = figures["at"]
    return at["recall"]


def draw_training_curve(tool, path):
    figure, axes = pyplot.subplots(figsize=(7, 4), layout="constrained")
    for name, line, options in (ALS, BPR):
        trained = tool.train("--epochs", "60", *options)
        epochs = [entry["epoch"] for entry in trained["history"]]
        axes.plot(epochs, [recall(entry["held_out"]) for entry in trained["history"]], line,
                  markersize=3, label=name)
    axes.axhline(recall(trained["popularity"]), color="grey", linestyle="--", label="popularity")
    axes.set_xlabel("epoch")
    finish(figure, axes, path)


def draw_recall_by_dimension(tool, path):
    figure, axes = pyplot.subplots(figsize=(7, 4), layout="constrained")
    for name, line, options in (ALS, ALS_UNREGULARISED, BPR):
        values = []
        for dimension in DIMENSIONS:
            trained = tool.train("--dim", str(dimension), *options)
            values.append(recall(tool.evaluate()))
        axes.plot(DIMENSIONS, values, line, markersize=4, label=name)
    axes.axhline(recall(trained["popularity"]), color="grey", linestyle="--", label="popularity")
    axes.set_xscale("log", base=2)
    axes.set_xticks(DIMENSIONS, [str(dimension) for dimension in DIMENSIONS])
    axes.set_xlabel("dimension")
    finish(figure, axes, path)


def finish(figure, axes, path):
    axes.set_ylabel(f"recall@{K} of held-out interactions")
    axes.set_ylim(bottom=0)
    axes.grid(alpha=0.3)
    axes.legend()
    figure.savefig(path, metadata={"Date": None})


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("tool", type=pathlib.Path, help="the program zorvex")
    parser.add_argument("output", type=pathlib.Path, help="folder for the pictures")
    arguments = parser.parse_args()

    # Texts stay texts, and names within the files do not change from run to run.
    pyplot.rcParams.update({"svg.fonttype": "none", "svg.hashsalt": "zorvex"})
    arguments.output.mkdir(parents=True, exist_ok=True)
    with tempfile.TemporaryDirectory() as folder:
        tool = Tool(arguments.tool.resolve(), pathlib.Path(folder))
        draw_training_curve(tool, arguments.output / "training-curve.svg")
        draw_recall_by_dimension(tool, arguments.output / "recall-by-dimension.svg")


if __name__ == "__main__":
    main()
