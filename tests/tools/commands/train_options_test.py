"""zorvex train: its options, what they do to the model, and what is said meanwhile."""

import json
import os
import re
import unittest

import tool
from models import read_model

POCL = "/etc/OpenCL/vendors/pocl.icd"

# Two groups of users with one taste each, a row rated low, and a user apart.
RATINGS = """user,item,rating,timestamp
ann,tea,5,1
ann,milk,4,2
ann,honey,2,3
bob,tea,4,4
bob,milk,5,5
cyd,tea,3,6
cyd,honey,5,7
dan,iron,5,8
dan,coal,4,9
eve,iron,4,10
eve,coal,5,11
eve,steam,3,12
fay,coal,4,13
fay,steam,5,14
fay,tea,1,15
gus,rain,3,16
"""
SMALL = ("--dim", 3, "--epochs", 4)


class TrainTest(tool.Case):
    def setUp(self):
        super().setUp()
        self.write("ratings.csv", RATINGS)

    def train(self, *options, model="m.zxm", **how):
        return self.run_tool("train", "ratings.csv", "-o", model, *options, **how)

    def trained(self, *options, model="m.zxm", **how):
        """The bytes of the model and of its ids."""
        self.train(*options, model=model, **how)
        return self.read_bytes(model), self.read_bytes(model + ".ids")

    def summary(self, *options):
        return json.loads(self.train("--json", *options)[0])


class Defaults(TrainTest):
    def test_of_als_are_those_of_the_help_text(self):
        summary = self.summary()
        # A strength of 1 for each of 16 pairs of 7 users and 7 items: 10 / 3 * 16 / sqrt(49),
        # rounded to a tenth.
        expected = {"model": "m.zxm", "algorithm": "als", "users": 7, "items": 7, "rows_read": 16,
                    "training_pairs": 16, "held_out_pairs": 0, "dim": 64, "epochs": 10,
                    "regularization": 7.6, "alpha": 10, "weighted": False, "seed": 42}
        history = summary.pop("history")
        self.assertEqual(summary, expected)
        self.assertEqual([entry["epoch"] for entry in history], list(range(1, 11)))

    def test_of_bpr_are_those_of_the_help_text(self):
        summary = self.summary("--algorithm", "bpr")
        del summary["history"]
        self.assertEqual(summary, {
            "model": "m.zxm", "algorithm": "bpr", "users": 7, "items": 7, "rows_read": 16,
            "training_pairs": 16, "held_out_pairs": 0, "dim": 64, "epochs": 60,
            "regularization": 0.01, "learning_rate": 0.05, "constant_rate": False, "batch": 2048,
            "bias": False, "seed": 42})

    def test_given_as_options_change_nothing(self):
        for options in (
                ("--algorithm", "als", "--dim", 64, "--epochs", 10, "--alpha", 10,
                 "--regularization", 7.6, "--seed", 42, "--core", 1, "--min-rating", 0,
                 "--format", "csv", "--header", "yes"),
                ("--algorithm", "bpr", "--dim", 64, "--epochs", 60, "--learning-rate", 0.05,
                 "--regularization", 0.01, "--batch", 2048, "--seed", 42)):
            with self.subTest(options=options):
                self.assertEqual(self.trained("--algorithm", options[1]), self.trained(*options))

    def test_regularization_of_als_grows_with_alpha_and_strengths(self):
        self.assertEqual(self.summary("--alpha", 20)["regularization"], 15.2)
        # The ratings add up to 62 rather than 16: 10 / 3 * 62 / 7.
        self.assertEqual(self.summary("--weighted")["regularization"], 29.5)
        self.assertEqual(self.summary("--alpha", 0)["regularization"], 0.1)


class Options(TrainTest):
    def test_each_changes_the_model(self):
        cases = {
            "als": (("--dim", 4), ("--epochs", 5), ("--alpha", 11), ("--regularization", 3),
                    ("--seed", 43), ("--weighted",), ("--min-rating", 2), ("--core", 2)),
            "bpr": (("--dim", 4), ("--epochs", 5), ("--learning-rate", 0.06),
                    ("--regularization", 0.02), ("--seed", 43), ("--bias",), ("--constant-rate",),
                    ("--min-rating", 2), ("--core", 2)),
        }
        for algorithm, options in cases.items():
            base, _ = self.trained("--algorithm", algorithm, *SMALL)
            for option in options:
                with self.subTest(algorithm=algorithm, option=option):
                    other = SMALL
                    if option[0] in SMALL:
                        other = [n for pair in (SMALL[:2], SMALL[2:]) if pair[0] != option[0]
                                 for n in pair]
                    model, _ = self.trained("--algorithm", algorithm, *other, *option)
                    self.assertNotEqual(model, base)

    def test_batch_does_not_change_the_model(self):
        options = ("--algorithm", "bpr", "--bias", *SMALL)
        expected = self.trained(*options)
        for batch in (1, 7, 14, 15, 16, 4096):
            with self.subTest(batch=batch):
                self.assertEqual(self.trained(*options, "--batch", batch), expected)

    def test_bias_is_of_items_and_sums_to_nothing(self):
        self.train("--algorithm", "bpr", "--bias", *SMALL)
        model = read_model(self.path("m.zxm"))
        # What a step gives to one item it takes from another, and nothing shrinks.
        self.assertAlmostEqual(sum(model["item_biases"]), 0.0, places=5)
        self.assertGreater(max(model["item_biases"]), 0.01)
        self.assertEqual(model["user_biases"], [0.0] * 7)
        self.train("--algorithm", "bpr", *SMALL)
        self.assertEqual(set(read_model(self.path("m.zxm"))),
                         {"user_embeddings", "item_embeddings"})

    def test_steps_of_bpr_are_as_long_as_the_learning_rate_says(self):
        # Steps of almost no length leave the start as it is.
        still = ("--algorithm", "bpr", "--dim", 3, "--regularization", 0, "--epochs")
        self.train(*still, 1, "--learning-rate", 1e-30)
        start = read_model(self.path("m.zxm"))
        self.train(*still, 50, "--learning-rate", 1e-30)
        self.assertEqual(read_model(self.path("m.zxm")), start)
        self.train(*still, 1, "--learning-rate", 0.1)
        self.assertNotEqual(read_model(self.path("m.zxm")), start)

    def test_items_of_als_solve_the_normal_equations(self):
        pairs = {}
        for line in RATINGS.splitlines()[1:]:
            user, item, rating, _ = line.split(",")
            pairs[user, item] = float(rating)
        users = sorted({user for user, _ in pairs})  # as they appear in the file
        items = ["tea", "milk", "honey", "iron", "coal", "steam", "rain"]
        for alpha, regularization, weighted in ((10, 8.3, False), (3, 2, True), (40, 0.5, False)):
            with self.subTest(alpha=alpha, regularization=regularization, weighted=weighted):
                self.train("--dim", 3, "--epochs", 3, "--alpha", alpha, "--regularization",
                           regularization, *(["--weighted"] if weighted else []))
                model = read_model(self.path("m.zxm"))
                rows = dict(zip(users, model["user_embeddings"]))
                for item, solution in zip(items, model["item_embeddings"]):
                    strengths = {user: rating if weighted else 1.0
                                 for (user, of), rating in pairs.items() if of == item}
                    self.assert_solves(rows, strengths, alpha, regularization, solution)

    def assert_solves(self, rows, strengths, alpha, regularization, solution):
        """sum of (1 + alpha r) x (x . y) + lambda y = sum of (1 + alpha r) x over those with r."""
        for k, value in enumerate(solution):
            left = regularization * value
            right = 0.0
            for user, row in rows.items():
                confidence = 1 + alpha * strengths.get(user, 0.0)
                left += confidence * row[k] * sum(a * b for a, b in zip(row, solution))
                right += confidence * row[k] if user in strengths else 0.0
            self.assertAlmostEqual(left, right, delta=1e-3)


class UsageError(TrainTest):
    # What is given beyond the file and the model, and what is said of it.
    CASES = (
        (("--learning-rate", 0.1), "--learning-rate is not used by --algorithm als"),
        (("--constant-rate",), "--constant-rate is not used by --algorithm als"),
        (("--batch", 64), "--batch is not used by --algorithm als"),
        (("--bias",), "--bias is not used by --algorithm als"),
        (("--algorithm", "als", "--bias"), "--bias is not used by --algorithm als"),
        (("--algorithm", "bpr", "--alpha", 3), "--alpha is not used by --algorithm bpr"),
        (("--algorithm", "bpr", "--weighted"), "--weighted is not used by --algorithm bpr"),
        (("-k", 5), "-k needs --holdout"),
        (("--write-test", "t.csv"), "--write-test needs --holdout"),
        (("--write-train", "t.csv.gz"), "t.csv.gz: the split is written uncompressed"),
        (("--holdout", "0"),
         "--holdout: 0 is neither leave-one-out nor a fraction above 0 and below 1"),
        (("--holdout", "1"),
         "--holdout: 1 is neither leave-one-out nor a fraction above 0 and below 1"),
        (("--holdout", "nan"),
         "--holdout: nan is neither leave-one-out nor a fraction above 0 and below 1"),
        (("--holdout", "0.5x"),
         "--holdout: 0.5x is neither leave-one-out nor a fraction above 0 and below 1"),
        (("--dim", 0), "--dim: 0 is not a whole number from 1 to 4294967295 (see --help)"),
        (("--dim", 1.5), "--dim: 1.5 is not a whole number from 1 to 4294967295 (see --help)"),
        (("--epochs", 0), "--epochs: 0 is not a whole number from 1 to 4294967295 (see --help)"),
        (("--epochs", 4294967296),
         "--epochs: 4294967296 is not a whole number from 1 to 4294967295 (see --help)"),
        (("--core", "x"), "--core: x is not a whole number from 1 to 4294967295 (see --help)"),
        (("--checkpoint", 0),
         "--checkpoint: 0 is not a whole number from 1 to 4294967295 (see --help)"),
        (("--alpha", -1), "--alpha: -1 is not a finite number of 0 or more (see --help)"),
        (("--regularization", "inf"),
         "--regularization: inf is not a finite number of 0 or more (see --help)"),
        (("--algorithm", "bpr", "--learning-rate", 0),
         "--learning-rate: 0 is not a finite number above 0 (see --help)"),
        (("--algorithm", "bpr", "--learning-rate", "1e-50"),
         "--learning-rate: 1e-50 is not a finite number above 0 (see --help)"),
        (("--alpha", "1e39"), "--alpha: 1e39 is not a finite number of 0 or more (see --help)"),
        (("--seed", -1),
         "--seed: -1 is not a whole number from 0 to 18446744073709551615 (see --help)"),
        (("--seed", "18446744073709551616"),
         "--seed: 18446744073709551616 is not a whole number from 0 to 18446744073709551615 (see "
         "--help)"),
        (("--min-rating", "nan"), "--min-rating: nan is not a finite number (see --help)"),
    )

    def test_says_what_is_wrong_and_writes_nothing(self):
        for options, message in self.CASES:
            with self.subTest(options=options):
                output, error = self.train(*options, status=tool.USAGE)
                self.assertEqual((output, error), ("", f"zorvex: {message}\n"))
                self.assertEqual(os.listdir(self.folder), ["ratings.csv"])

    def test_is_everything_that_cannot_be_understood(self):
        for arguments in ((), ("ratings.csv",), ("-o", "m.zxm"), ("ratings.csv", "-o"),
                          ("ratings.csv", "-o", "m.zxm", "more.csv"),
                          ("ratings.csv", "-o", "m.zxm", "--depth", "3"),
                          ("ratings.csv", "-o", "m.zxm", "--algorithm", "svd"),
                          ("ratings.csv", "-o", "m.zxm", "--format", "xml"),
                          ("ratings.csv", "-o", "m.zxm", "--header", "maybe")):
            with self.subTest(arguments=arguments):
                output, error = self.run_tool("train", *arguments, status=tool.USAGE)
                self.assertEqual(output, "")
                self.assertRegex(error, r"\Azorvex: [^\n]+\n\Z")
                self.assertEqual(os.listdir(self.folder), ["ratings.csv"])


class Seed(TrainTest):
    KINDS = (("--algorithm", "als"), ("--algorithm", "bpr"), ("--algorithm", "bpr", "--bias"))

    def test_that_is_the_same_gives_the_same_bytes(self):
        for kind in self.KINDS:
            for seed in (0, 42, 18446744073709551615):
                with self.subTest(kind=kind, seed=seed):
                    options = (*kind, *SMALL, "--seed", seed)
                    self.assertEqual(self.trained(*options),
                                     self.trained(*options, model="again.zxm"))

    def test_that_is_another_gives_other_bytes(self):
        for kind in self.KINDS:
            with self.subTest(kind=kind):
                models = {self.trained(*kind, *SMALL, "--seed", seed) for seed in range(5)}
                self.assertEqual(len({model for model, _ in models}), 5)
                self.assertEqual(len({ids for _, ids in models}), 5)  # they name their model

    def test_gives_the_same_bytes_whatever_is_said_and_measured_meanwhile(self):
        for kind in self.KINDS:
            with self.subTest(kind=kind):
                options = (*kind, *SMALL, "--holdout", "leave-one-out")
                expected = self.trained(*options)
                for more in (("-k", 1), ("--quiet",), ("--verbose",), ("--json",),
                             ("--checkpoint", 1), ("--write-test", "test.csv")):
                    self.assertEqual(self.trained(*options, *more), expected, more)

    @unittest.skipUnless(os.path.exists(POCL), "PoCL is not installed")
    def test_gives_the_same_bytes_where_a_device_is_present(self):
        os.mkdir(self.path("none"))
        worlds = ({"OCL_ICD_VENDORS": self.path("none")},
                  {"OCL_ICD_VENDORS": POCL, "POCL_CACHE_DIR": self.path("cache")})
        for kind in self.KINDS:
            with self.subTest(kind=kind):
                without, present = (self.trained(*kind, *SMALL, environment=world)
                                    for world in worlds)
                self.assertEqual(without, present)


class Lines(TrainTest):
    FIGURES = r"hit rate@{0} (\d\.\d{{4}})  recall@{0} (\d\.\d{{4}})  NDCG@{0} (\d\.\d{{4}})"

    def test_name_each_epoch_and_its_time(self):
        output, error = self.train("--dim", 3, "--epochs", 3)
        lines = error.splitlines()
        self.assertRegex(lines[0], r"\Aratings\.csv: 7 users, 7 items, 16 training pairs, "
                                   r"0 held out \(\d+\.\d\d s\)\Z")
        self.assertEqual(len(lines), 4)
        for number, line in enumerate(lines[1:], 1):
            self.assertRegex(line, rf"\Aepoch {number}/3  \d+\.\d\d s\Z")
        self.assertNotIn("held out  ", output)

    def test_have_held_out_figures_after_each_epoch(self):
        for k in (1, 2, 10):
            with self.subTest(k=k):
                _, error = self.train("--dim", 3, "--epochs", 3, "--holdout", "leave-one-out", "-k",
                                      k)
                figures = self.FIGURES.format(k)
                lines = error.splitlines()
                self.assertRegex(lines[1], rf"\Apopularity  {figures}\Z")
                self.assertEqual(len(lines), 5)
                for number, line in enumerate(lines[2:], 1):
                    found = re.fullmatch(rf"epoch {number}/3  \d+\.\d\d s  {figures}", line)
                    self.assertIsNotNone(found, line)
                    self.assertEqual(found[1], found[2])  # one held-out item each

    def test_are_not_written_when_quiet(self):
        for options in (("--quiet",), ("--quiet", "--verbose")):
            _, error = self.train(*SMALL, "--holdout", "0.5", *options)
            self.assertEqual(error, "")

    def test_end_with_the_figures_that_evaluate_gives(self):
        for options in ((), ("--algorithm", "bpr", "--bias")):
            summary = self.summary(*SMALL, *options, "--holdout", 0.4, "-k", 2, "--write-train",
                                   "train.csv", "--write-test", "test.csv")
            report = json.loads(self.run_tool(
                "evaluate", "m.zxm", "--train", "train.csv", "--test", "test.csv", "-k", 2,
                "--json")[0])
            group, = report["full"]
            self.assertEqual(summary["held_out"], group["model"])
            self.assertEqual(summary["popularity"], group["popularity"])
            last = summary["history"][-1]
            self.assertEqual(last["held_out"], summary["held_out"])
            self.assertGreaterEqual(last["seconds"], 0)
            self.assertEqual(len(summary["history"]), 4)

    def test_of_the_result_are_on_standard_output(self):
        output, _ = self.train(*SMALL, "--holdout", "leave-one-out", "-k", 2)
        figures = self.FIGURES.format(2)
        lines = output.splitlines()
        self.assertEqual(lines[0], "model           m.zxm")
        self.assertEqual(lines[1], "algorithm       als")
        self.assertRegex(lines[-2], rf"\Aheld out        {figures}\Z")
        self.assertRegex(lines[-1], rf"\Apopularity      {figures}\Z")


if __name__ == "__main__":
    tool.main()
