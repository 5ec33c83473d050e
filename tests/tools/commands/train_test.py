"""zorvex train: what it writes, what it says, what it refuses; the same bytes for the same seed."""

import json
import os
import resource
import unittest

import tool

POCL = os.environ.get("ZORVEX_POCL", "")

ALS = ["--algorithm", "als", "--dim", "8", "--epochs", "3"]
BPR = ["--algorithm", "bpr", "--dim", "8", "--epochs", "3"]


class Train(tool.Case):
    def setUp(self):
        super().setUp()
        self.good("generate", "--users", "100", "--items", "50", "--interactions", "1500", "-o",
                  "in.csv")

    def model_bytes(self, *options, **more):
        self.good("train", "in.csv", "-o", "m.zxm", *options, **more)
        return tool.read(self.path("m.zxm")), tool.read(self.path("m.zxm.ids"))

    def test_the_same_seed_gives_the_same_bytes(self):
        for options in (ALS, BPR, BPR + ["--bias"], ALS + ["--weighted"]):
            with self.subTest(options):
                first = self.model_bytes(*options, "--seed", "5")
                self.assertEqual(self.model_bytes(*options, "--seed", "5"), first)
                other = self.model_bytes(*options, "--seed", "6")
                self.assertNotEqual(other[0], first[0])
                # What is measured, shown or saved on the way changes nothing.
                self.assertEqual(self.model_bytes("-v", "--json", "--checkpoint", "1", *options,
                                                  "--seed", "5"), first)

    def test_measuring_does_not_change_the_model(self):
        options = [*BPR, "--holdout", "0.2"]
        first = self.model_bytes(*options)
        self.assertEqual(self.model_bytes(*options, "-k", "3"), first)

    @unittest.skipUnless(os.path.exists(POCL), "no OpenCL device is installed")
    def test_a_device_changes_nothing(self):
        environment = {**tool.ENVIRONMENT, "OCL_ICD_VENDORS": POCL}
        for options in (ALS, BPR):
            self.assertEqual(self.model_bytes(*options, env=environment),
                             self.model_bytes(*options))

    def test_the_summary(self):
        result = self.tool("train", "in.csv", "-o", "m.zxm", *ALS, "--holdout", "leave-one-out",
                           "--regularization", "5.5", "-k", "5")
        self.assertEqual(result.returncode, 0)
        lines = result.stdout.decode().splitlines()
        self.assertEqual(lines[:12], [
            "model           m.zxm", "algorithm       als", "users           100",
            "items           50", "rows read       1500", "training pairs  1400",
            "held out pairs  100", "dim             8", "epochs          3",
            "regularization  5.5000", "alpha           10.0000", "weighted        no"])
        self.assertRegex(lines[13], r"^held out        hit rate@5 0\.\d{4}  recall@5 0\.\d{4}  "
                                    r"NDCG@5 0\.\d{4}$")
        self.assertRegex(lines[14], r"^popularity      hit rate@5 ")
        says = result.stderr.splitlines()
        self.assertRegex(says[0], r"^in\.csv: 100 users, 50 items, 1400 training pairs, 100 held "
                                  r"out \(\d+\.\d\d s\)$")
        self.assertRegex(says[1], r"^popularity  hit rate@5 ")
        self.assertEqual(len(says), 5)
        self.assertRegex(says[4], r"^epoch 3/3  \d+\.\d\d s  hit rate@5 0\.\d{4}  recall@5 ")
        self.assertEqual(says[4].split("  ", 2)[2], lines[13].split("  ", 4)[-1].strip())

    def test_one_json_object(self):
        summary = json.loads(self.good("--json", "train", "in.csv", "-o", "m.zxm", *BPR, "--bias",
                                       "--holdout", "0.3"))
        self.assertEqual(summary["algorithm"], "bpr")
        self.assertEqual(summary["learning_rate"], 0.05)
        self.assertEqual(summary["regularization"], 0.01)
        self.assertEqual(summary["training_pairs"] + summary["held_out_pairs"], 1500)
        self.assertEqual([epoch["epoch"] for epoch in summary["history"]], [1, 2, 3])
        self.assertEqual(summary["history"][-1]["held_out"], summary["held_out"])
        self.assertEqual(summary["held_out"]["at"][0]["k"], 10)
        info = json.loads(self.good("--json", "info", "m.zxm"))
        self.assertEqual((info["users"], info["items"], info["biases"]), (100, 50, True))

    def test_quiet_says_nothing_and_verbose_more(self):
        quiet = self.tool("-q", "train", "in.csv", "-o", "m.zxm", *ALS)
        self.assertEqual(quiet.stderr, "")
        loud = self.tool("train", "in.csv", "-o", "m.zxm", *ALS, "--verbose")
        self.assertIn("in.csv: 1501 lines, ", loud.stderr)

    def test_the_split_is_written_in_the_users_ids(self):
        self.write("small.csv", 'user,item,rating,timestamp\n'
                                '"a,b",x,5,10\n"a,b",y,4,30\n"a,b",z,2,20\nc,"q""r",3,5\nc,x,5,1\n')
        self.good("train", "small.csv", "-o", "m.zxm", "--dim", "2", "--holdout", "leave-one-out",
                  "--write-train", "train.csv", "--write-test", "test.csv", "--weighted")
        self.assertEqual(tool.read(self.path("train.csv")).decode(),
                         'user,item,rating\n"a,b",x,5\n"a,b",z,2\nc,x,5\n')
        self.assertEqual(tool.read(self.path("test.csv")).decode(),
                         'user,item\n"a,b",y\nc,"q""r"\n')
        # They are read back as they are written, also by commands that know the model's ids only.
        report = json.loads(self.good("--json", "evaluate", "m.zxm", "--train", "train.csv",
                                      "--test", "test.csv"))
        self.assertEqual(report["test_pairs"], 2)
        self.good("train", "small.csv", "-o", "m.zxm", "--dim", "2", "--write-train", "train.csv")
        self.assertEqual(tool.read(self.path("train.csv")).decode().splitlines()[:2],
                         ["user,item", '"a,b",x'])

    def test_options_that_change_nothing_are_refused(self):
        split = ["--holdout", "leave-one-out"]
        for options, message in [
                (["--learning-rate", "0.1"], "--learning-rate is not used by --algorithm als"),
                (["--constant-rate"], "--constant-rate is not used by --algorithm als"),
                (["--batch", "512"], "--batch is not used by --algorithm als"),
                (["--bias"], "--bias is not used by --algorithm als"),
                ([*BPR, "--alpha", "3"], "--alpha is not used by --algorithm bpr"),
                ([*BPR, "--weighted"], "--weighted is not used by --algorithm bpr"),
                (["-k", "5"], "-k needs --holdout"),
                (["--write-test", "t.csv"], "--write-test needs --holdout"),
                ([*split, "--write-test", "t.csv.gz"],
                 "t.csv.gz: the split is written uncompressed"),
                (["--holdout", "1"],
                 "--holdout: 1 is neither leave-one-out nor a fraction above 0 and below 1"),
                (["--holdout", "nan"],
                 "--holdout: nan is neither leave-one-out nor a fraction above 0 and below 1")]:
            with self.subTest(options):
                self.fails(2, message, "train", "in.csv", "-o", "m.zxm", *options)
        self.assertEqual(self.files(), ["in.csv"])

    def test_no_input_is_overwritten(self):
        os.link(self.path("in.csv"), self.path("link.csv"))
        before = tool.read(self.path("in.csv"))
        for options, message in [
                (["-o", "in.csv"], "in.csv: would overwrite the input"),
                (["-o", "link.csv"], "link.csv: would overwrite the input"),
                (["-o", "m.zxm", "--write-train", "./in.csv"],
                 "./in.csv: would overwrite the input"),
                (["-o", "m.zxm", "--write-train", "m.zxm"], "m.zxm: is written twice"),
                (["-o", "m.zxm", "--write-train", "m.zxm.ids"], "m.zxm.ids: is written twice")]:
            with self.subTest(options):
                self.fails(2, message, "train", "in.csv", *options)
        self.assertEqual(tool.read(self.path("in.csv")), before)
        self.assertEqual(self.files(), ["in.csv", "link.csv"])

    def test_nothing_to_hold_out(self):
        self.write("one.csv", "a,x\nb,y\nc,x\n")
        result = self.tool("train", "one.csv", "-o", "m.zxm", "--dim", "2", "--holdout", "0.2")
        self.assertEqual(result.returncode, 0)
        self.assertIn("zorvex: warning: nothing is held out: no user has enough interactions\n",
                      result.stderr)
        self.assertNotIn("popularity", result.stderr)

    def test_values_out_of_range_are_refused(self):
        for option, value in [("--dim", "0"), ("--dim", "4294967296"), ("--dim", "x"),
                              ("--epochs", "0"), ("--alpha", "-1"), ("--alpha", "nan"),
                              ("--regularization", "inf"), ("--min-rating", "nan"),
                              ("--checkpoint", "0"), ("--core", "-3"), ("--algorithm", "sgd"),
                              ("--format", "xml"), ("--seed", "-1")]:
            with self.subTest(option=option, value=value):
                result = self.tool("train", "in.csv", "-o", "m.zxm", f"{option}={value}")
                self.assertEqual(result.returncode, 2)
                self.assertRegex(result.stderr, rf"^zorvex: .*{option}.*\n$")
        self.assertEqual(self.files(), ["in.csv"])

    def test_bad_input(self):
        self.write("bad.csv", "u,i\na,x\nb\n")
        result = self.tool("train", "bad.csv", "-o", "m.zxm")
        self.assertEqual(result.returncode, 3)
        self.assertRegex(result.stderr, r"^zorvex: bad\.csv:3: .*\n$")
        self.assertEqual(self.tool("train", "none.csv", "-o", "m.zxm").returncode, 6)
        result = self.tool("train", "in.csv", "-o", "m.zxm", "--min-rating", "6")
        self.assertEqual(result.returncode, 3)
        self.assertEqual(self.files(), ["bad.csv", "in.csv"])

    def test_a_model_that_cannot_be_written_is_found_out_first(self):
        result = self.tool("train", "in.csv", "-o", "no/such/folder.zxm")
        self.assertEqual(result.returncode, 6)
        self.assertNotIn("epoch", result.stderr)
        self.assertEqual(self.tool("train", "in.csv", "-o", "/dev/stdout").returncode, 6)

    def test_divergence_saves_nothing(self):
        self.write("m.zxm", "old")
        result = self.tool("-q", "train", "in.csv", "-o", "m.zxm", *BPR, "--learning-rate", "1e30")
        self.assertEqual(result.returncode, 1)
        self.assertRegex(result.stderr, r"^zorvex: training diverged in epoch \d: numbers are no "
                                        r"longer finite; a smaller --learning-rate may help; "
                                        r"m\.zxm is untouched\n$")
        self.assertEqual(tool.read(self.path("m.zxm")), b"old")

    @unittest.skipIf(os.environ.get("ZORVEX_SANITIZED"), "sanitizers need all addresses")
    def test_a_shortage_of_memory(self):
        def limit():
            resource.setrlimit(resource.RLIMIT_AS, (1 << 30, 1 << 30))
        self.write("m.zxm", "old")
        self.fails(5, "making the model: Out of memory (Failed to allocate tensor data); m.zxm is "
                      "untouched", "-q", "train", "in.csv", "-o", "m.zxm", "--dim", "100000000",
                   preexec_fn=limit)
        self.assertEqual(tool.read(self.path("m.zxm")), b"old")
        self.assertEqual(self.files(), ["in.csv", "m.zxm"])

    def test_standard_input(self):
        first = self.model_bytes(*ALS)
        self.good("train", "-", "-o", "m.zxm", *ALS, stdin=tool.read(self.path("in.csv")))
        self.assertEqual(tool.read(self.path("m.zxm")), first[0])

    def test_both_rules_beat_popularity_and_chance_clearly(self):
        self.good("generate", "-o", "hidden.csv")  # 2000 users, 1000 items, 60000 rows
        # A random order of the 971 or so candidates: the mean of 1 / log2(r + 1) over all places.
        chance = 4.5436 / 971
        for options in (["--algorithm", "als"], ["--algorithm", "bpr"],
                        ["--algorithm", "bpr", "--bias"]):
            with self.subTest(options):
                summary = json.loads(self.good("-q", "--json", "train", "hidden.csv", "-o",
                                               "h.zxm", *options, "--holdout", "leave-one-out"))
                ndcg = summary["held_out"]["at"][0]["ndcg"]
                self.assertGreater(ndcg, 2.5 * summary["popularity"]["at"][0]["ndcg"])
                self.assertGreater(ndcg, 40 * chance)


if __name__ == "__main__":
    unittest.main()
