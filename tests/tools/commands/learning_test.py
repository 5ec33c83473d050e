"""From generated data to recommendations: what training must gain, and what the data are like."""

import csv
import hashlib
import io
import json
import math
import random

import tool
from model_cases import Model, ModelTest

ALGORITHMS = {"als": ["--algorithm", "als"], "bpr": ["--algorithm", "bpr"],
              "bpr with biases": ["--algorithm", "bpr", "--bias"]}
# How much better NDCG@10 must be than that of a ranking by popularity or by chance.
OVER_POPULARITY, OVER_CHANCE = 2.5, 30.0


class Learning(ModelTest):
    def setUp(self):
        super().setUp()
        self.run_tool("generate", "-o", "data.csv", "--seed", 3)

    def train(self, *options):
        output, _ = self.run_tool("train", "data.csv", "-o", "m.zxm", "--holdout",
                                  "leave-one-out", "--write-train", "train.csv",
                                  "--write-test", "test.csv", "--json", *options)
        return json.loads(output)

    def evaluate(self, model):
        output, _ = self.run_tool("evaluate", model, "--test", "test.csv", "--train",
                                  "train.csv", "-k", 10, "--json")
        full = json.loads(output)["full"]
        self.assertEqual([group["group"] for group in full], ["trained"])
        self.assertEqual(full[0]["users"], 2000)
        return full[0]["model"], full[0]["popularity"]

    def pairs_of(self, name):
        rows = list(csv.reader(io.StringIO(self.read_bytes(name).decode())))
        self.assertEqual(rows[0], ["user", "item"])
        return [tuple(row) for row in rows[1:]]

    def test_beats_popularity_and_chance(self):
        for name, options in ALGORITHMS.items():
            with self.subTest(algorithm=name):
                summary = self.train(*options)
                model, popularity = self.evaluate("m.zxm")
                ndcg = model["at"][0]["ndcg"]
                self.assertGreater(ndcg, OVER_POPULARITY * popularity["at"][0]["ndcg"])
                self.assertGreater(model["auc"], popularity["auc"] + 0.08)
                # Training measures the same users in the same way.
                self.assertEqual(summary["held_out"], model)
                self.assertEqual(summary["popularity"], popularity)

                # By chance, the held-out item is at each of the places with equal probability.
                gains = sum(1 / math.log2(place + 1) for place in range(1, 11))
                known = {}
                for user, _ in self.pairs_of("train.csv"):
                    known[user] = known.get(user, 0) + 1
                chance = sum(gains / (1000 - count) for count in known.values()) / len(known)
                self.assertAlmostEqual(chance, 0.0047, delta=0.0001)
                self.assertGreater(ndcg, OVER_CHANCE * chance)

                # Rows of random numbers do no better than chance; ids are plain numbers from 0.
                numbers = random.Random(1)
                self.save("chance.zxm", Model(
                    [[numbers.gauss(0, 1) for _ in range(8)] for _ in range(2001)],
                    [[numbers.gauss(0, 1) for _ in range(8)] for _ in range(1001)]))
                by_chance, _ = self.evaluate("chance.zxm")
                self.assertLess(by_chance["at"][0]["ndcg"], 2 * chance)
                self.assertAlmostEqual(by_chance["auc"], 0.5, delta=0.03)

    def test_gives_the_same_bytes_and_figures_every_time(self):
        for name, options in ALGORITHMS.items():
            with self.subTest(algorithm=name):
                answers = []
                for _ in range(2):
                    summary = self.train(*options, "--epochs", 3)
                    for entry in summary["history"]:
                        del entry["seconds"]
                    answers.append([summary, self.evaluate("m.zxm"),
                                    *(hashlib.sha256(self.read_bytes(file)).hexdigest()
                                      for file in ("m.zxm", "m.zxm.ids", "train.csv"))])
                self.assertEqual(answers[0], answers[1])

    def test_shows_in_the_recommendations(self):
        self.train()
        model, _ = self.evaluate("m.zxm")
        output, _ = self.run_tool("recommend", "m.zxm", "--all", "-k", 10, "--exclude",
                                  "train.csv")
        wanted = set(self.pairs_of("test.csv"))
        known = set(self.pairs_of("train.csv"))
        rows = self.rows_of(output)
        self.assertEqual(len(rows), 20000)
        self.assertFalse(known & {(user, item) for user, _, item, _ in rows})
        gains = [1 / math.log2(int(rank) + 1) for user, rank, item, _ in rows
                 if (user, item) in wanted]
        self.assertAlmostEqual(model["at"][0]["hit_rate"], len(gains) / 2000, delta=1e-12)
        self.assertAlmostEqual(model["at"][0]["ndcg"], sum(gains) / 2000, delta=1e-9)


class Generated(tool.Case):
    def rows(self, *options):
        output, _ = self.run_tool("generate", *options)
        rows = list(csv.reader(io.StringIO(output)))
        self.assertEqual(rows[0], ["user", "item", "rating", "timestamp"])
        return [(int(user), int(item), rating, int(time)) for user, item, rating, time in rows[1:]]

    def test_data_are_of_any_size(self):
        for users, items, count, rank in [(1, 2, 1, 1), (1, 2, 1, 2), (3, 10, 15, 10),
                                          (1, 2000, 1000, 3), (4000, 2, 4000, 1),
                                          (3000, 500, 100000, 7)]:
            with self.subTest(users=users, items=items, count=count):
                rows = self.rows("--users", users, "--items", items, "--interactions", count,
                                 "--rank", rank)
                self.assertEqual(len(rows), count)
                self.assertEqual(len({row[:2] for row in rows}), count)  # no pair twice
                self.assertLessEqual({row[0] for row in rows}, set(range(1, users + 1)))
                self.assertLessEqual({row[1] for row in rows}, set(range(1, items + 1)))
                self.assertEqual(rows, sorted(rows, key=lambda row: (row[0], row[3])))
                times = [row[3] for row in rows]
                self.assertTrue(all(a < b for a, b in zip(times, times[1:])))
                self.assertLessEqual({row[2] for row in rows},
                                     {f"{n / 2:.1f}" for n in range(2, 11)})

    def test_data_have_sizes_by_default(self):
        rows = self.rows()
        self.assertEqual(len(rows), 60000)
        self.assertEqual({row[0] for row in rows}, set(range(1, 2001)))
        self.assertLessEqual({row[1] for row in rows}, set(range(1, 1001)))

    def test_data_are_the_same_for_the_same_seed(self):
        small = ["--users", 30, "--items", 40, "--interactions", 300]
        first, _ = self.run_tool("generate", *small, "--seed", 5)
        self.assertEqual(self.run_tool("generate", *small, "--seed", 5)[0], first)
        self.run_tool("generate", *small, "--seed", 5, "-o", "data.csv")
        self.assertEqual(self.read_bytes("data.csv").decode(), first)
        self.assertEqual(self.run_tool("generate", *small, "--seed", 1)[0],
                         self.run_tool("generate", *small)[0])
        for change in (["--seed", 6], ["--seed", 5, "--rank", 9], ["--seed", 5, "--noise", 0.2]):
            with self.subTest(change=change):
                self.assertNotEqual(self.run_tool("generate", *small, *change)[0], first)

    def test_noise_takes_away_what_there_is_to_learn(self):
        for noise, least, most in [(0, 6, 12), (0.25, 1.7, 3), (1, 0.95, 1.05)]:
            with self.subTest(noise=noise):
                self.run_tool("generate", "-o", "data.csv", "--noise", noise)
                output, _ = self.run_tool("train", "data.csv", "-o", "m.zxm", "--holdout",
                                          "leave-one-out", "--epochs", 5, "--json")
                summary = json.loads(output)
                ratio = (summary["held_out"]["at"][0]["ndcg"] /
                         summary["popularity"]["at"][0]["ndcg"])
                self.assertGreater(ratio, least)
                self.assertLess(ratio, most)

    def test_data_go_into_a_file_whole_or_not_at_all(self):
        self.write("data.csv", "older\n")
        output, error = self.run_tool("generate", "-o", "data.csv", "--users", 4, "--items", 6,
                                      "--interactions", 8, "--rank", 2, "--noise", 0.25, "--json")
        self.assertEqual(json.loads(output), {
            "file": "data.csv", "users": 4, "items": 6, "interactions": 8, "rank": 2,
            "noise": 0.25, "seed": 1})
        self.assertEqual(error, "")
        kept = self.read_bytes("data.csv")
        self.assertEqual(kept.count(b"\n"), 9)
        _, error = self.run_tool("generate", "-o", "data.csv", "--users", 4, "--items", 6,
                                 "--interactions", 13, status=tool.USAGE)
        self.assertEqual(error, "zorvex: rank 10 is out of range, expected 1 to the number of "
                                "items, 6\n")
        _, error = self.run_tool("generate", "-o", "data.csv", "--users", 4, "--items", 6,
                                 "--interactions", 13, "--rank", 2, status=tool.USAGE)
        self.assertEqual(error, "zorvex: 13 interactions are too many, expected 12 at most: half "
                                "of all pairs\n")
        self.assertEqual(self.read_bytes("data.csv"), kept)


if __name__ == "__main__":
    tool.main()
