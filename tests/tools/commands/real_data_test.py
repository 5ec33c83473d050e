"""The main job on real ratings: prepare, train by both rules, evaluate by full ranking.

The ratings are 100,000 of MovieTweetings, which are not part of the repository; the test stands
aside where they do not lie beside the checkout.
"""

import json
import os
import sys
import unittest

import tool

RATINGS = os.environ.get("ZORVEX_RATINGS", "")
STANDS_ASIDE = 77

PREPARE = ["--min-rating", "6", "--core", "5", "--holdout", "leave-one-out"]
ALS = ["--algorithm", "als", "--dim", "32", "--alpha", "20", "--regularization", "120",
       "--epochs", "10"]
BPR = ["--algorithm", "bpr", "--bias", "--dim", "32", "--learning-rate", "0.05",
       "--regularization", "0.02", "--epochs", "60"]
BPR_ABOVE_POPULARITY = ["--algorithm", "bpr", "--dim", "128", "--learning-rate", "0.1",
                        "--regularization", "0.02", "--epochs", "60"]


class RealRatings(tool.Case):
    def measure(self, options, seed):
        """Recall@20 and NDCG@20 of the model and of popularity."""
        self.good("-q", "train", RATINGS, "-o", "m.zxm", *PREPARE, *options, "--seed", seed,
                  "--write-train", "train.csv", "--write-test", "test.csv")
        report = json.loads(self.good("-q", "--json", "evaluate", "m.zxm", "--train", "train.csv",
                                      "--test", "test.csv", "-k", "20"))
        self.assertEqual((report["users"], report["items"]), (3919, 2052))
        self.assertEqual(report["test_pairs"], 3919)
        with open(self.path("train.csv"), encoding="utf-8") as file:
            self.assertEqual(len(file.readlines()), 1 + 51907)
        group, = report["full"]
        model, popularity = group["model"]["at"][0], group["popularity"]["at"][0]
        self.assertEqual((round(popularity["recall"], 4), round(popularity["ndcg"], 4)),
                         (0.2506, 0.1023))
        print(" ".join(options[:2]), "seed", seed, "Recall@20", round(model["recall"], 4),
              "NDCG@20", round(model["ndcg"], 4), flush=True)
        return model["recall"], model["ndcg"]

    def expect(self, options, recall, ndcg, seeds=(1, 2, 3)):
        for seed in seeds:
            with self.subTest(seed=seed):
                reached = self.measure(options, seed)
                self.assertGreaterEqual(reached[0], recall)
                self.assertGreaterEqual(reached[1], ndcg)

    def test_als(self):
        self.expect(ALS, 0.272, 0.110)

    def test_bpr(self):
        self.expect(BPR, 0.235, 0.092)

    def test_bpr_at_a_constant_rate(self):
        self.expect([*BPR, "--constant-rate"], 0.235, 0.092, seeds=(1,))

    def test_bpr_above_popularity(self):
        self.expect(BPR_ABOVE_POPULARITY, 0.2506, 0.1023)


if __name__ == "__main__":
    if not os.path.exists(RATINGS):
        print(f"there is no file {RATINGS!r} (ZORVEX_RATINGS): the real-data test stands aside")
        sys.exit(STANDS_ASIDE)
    unittest.main()
