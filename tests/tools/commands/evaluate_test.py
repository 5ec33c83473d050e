"""zorvex evaluate: figures worked by hand, groups, given negatives, what is left out."""

import json
import unittest

import tool

# Scores of items a to e (0 to 4) for users 0 and 1, and the other way round for user 2.
USERS = [[1.0], [1.0], [-1.0]]
ITEMS = [[5.0], [4.0], [3.0], [2.0], [1.0]]


class Evaluate(tool.Case):
    def setUp(self):
        super().setUp()
        self.write_model("m.zxm", USERS, ITEMS)
        # User 0 ranks 1 2 3 4, user 1 ranks 0 1 2 4, and user 2, who has no training rows,
        # 4 3 2 1 0. By counts, items are ranked 0 3 1 2 4, which ties put in this order.
        self.write("train.csv", "user,item\n0,0\n1,3\n")
        self.write("test.csv", "user,item\n0,1\n0,3\n1,4\n2,2\n")

    def test_figures_worked_by_hand(self):
        text = self.good("-q", "evaluate", "m.zxm", "--test", "test.csv", "--train", "train.csv",
                         "-k", "1,3")
        lines = text.splitlines()
        self.assertEqual(lines[0], "evaluation,group,metric,k,model,popularity")
        # User 0: places 1 and 3 by the model, 2 and 1 by popularity (3 1 2 4).
        # User 1: place 4 by the model, 4 by popularity (0 1 2 4).
        self.assertEqual(lines[1:13], [
            "full,trained,users,,2,",
            "full,trained,hit_rate,1,0.500000,0.500000",
            "full,trained,precision,1,0.500000,0.500000",
            "full,trained,recall,1,0.250000,0.250000",
            "full,trained,map,1,0.500000,0.500000",
            "full,trained,ndcg,1,0.500000,0.500000",
            "full,trained,hit_rate,3,0.500000,0.500000",
            "full,trained,precision,3,0.333333,0.333333",
            "full,trained,recall,3,0.500000,0.500000",
            "full,trained,map,3,0.416667,0.500000",   # (1 + 2/3) / 2 / 2
            "full,trained,ndcg,3,0.459860,0.500000",  # 1.5 / 1.630930 / 2
            # User 0: 3 of 4 in order, 2 and two ties; user 1: 0 of 3, two ties.
            "full,trained,auc,,0.375000,0.541667",
        ])
        # User 2: item 2 is third by the model, and fourth by popularity.
        self.assertEqual(lines[13:15], ["full,untrained,users,,1,",
                                        "full,untrained,hit_rate,1,0.000000,0.000000"])
        self.assertIn("full,untrained,ndcg,3,0.500000,0.000000", lines)
        # By popularity it ties with two of the four others and is behind the rest.
        self.assertIn("full,untrained,auc,,0.500000,0.250000", lines)
        self.assertEqual([line.rsplit(",", 2)[0] for line in lines[25:]],
                         ["sampled,pairs,hit_rate,1", "sampled,pairs,hit_rate,3"])

    def test_one_json_object(self):
        report = json.loads(self.good("--json", "evaluate", "m.zxm", "--test", "test.csv",
                                      "--train", "train.csv", "-k", "3"))
        self.assertEqual(report["test_pairs"], 4)
        self.assertEqual(report["test_users_without_training_rows"], 1)
        self.assertTrue(report["training_items_excluded"])
        self.assertEqual([group["group"] for group in report["full"]], ["trained", "untrained"])
        self.assertEqual(report["full"][0]["model"]["at"][0]["recall"], 0.5)
        self.assertAlmostEqual(report["full"][0]["popularity"]["auc"], 13 / 24)
        self.assertEqual(report["sampled"][0]["k"], 3)
        self.assertEqual(report["sampled_seed"], 42)

    def test_without_training_rows_nothing_is_excluded(self):
        result = self.tool("evaluate", "m.zxm", "--test", "test.csv", "-k", "2")
        self.assertEqual(result.returncode, 0)
        self.assertEqual(result.stderr, "without --train nothing is excluded and there is no "
                                        "popularity baseline\n")
        lines = result.stdout.decode().splitlines()
        self.assertEqual(lines[1:4], ["full,all,users,,3,", "full,all,hit_rate,2,0.333333,",
                                      "full,all,precision,2,0.166667,"])

    def test_pairs_that_are_training_pairs_too_are_left_out(self):
        self.write("test.csv", "0,0\n0,1\n1,3\n")
        result = self.tool("--json", "evaluate", "m.zxm", "--test", "test.csv", "--train",
                           "train.csv", "-k", "1")
        report = json.loads(result.stdout)
        self.assertEqual((report["test_pairs"], report["test_pairs_also_in_training"]), (1, 2))
        self.assertEqual(report["full"][0]["users"], 1)
        self.assertEqual(report["full"][0]["model"]["at"][0]["hit_rate"], 1.0)
        self.assertEqual(result.stderr, "zorvex: warning: 2 test pairs are training pairs too and "
                                        "are left out\n")

    def test_nothing_left_to_test(self):
        self.write("test.csv", "0,0\n")
        self.fails(3, "test.csv: no pair is left to test", "-q", "evaluate", "m.zxm", "--test",
                   "test.csv", "--train", "train.csv")

    def test_given_negatives(self):
        # User 0: item 2 is second to 1; user 2: item 3 is second to 4, before 1 and 0. By counts,
        # item 2 is behind 3 and, a tie, behind 1; item 3 is, a tie, behind 0.
        self.write("negatives.txt", "0 2 1 4 3\n(2,3)\t4\t1\t0\n")
        text = self.good("-q", "evaluate", "m.zxm", "--negatives", "negatives.txt", "--train",
                         "train.csv", "-k", "1", "-k", "2")
        self.assertEqual(text.splitlines()[1:], [
            "listed,pairs,pairs,,2,",
            "listed,pairs,hit_rate,1,0.000000,0.000000",
            "listed,pairs,ndcg,1,0.000000,0.000000",
            "listed,pairs,hit_rate,2,1.000000,0.500000",
            "listed,pairs,ndcg,2,0.630930,0.315465",
        ])
        report = json.loads(self.good("-q", "--json", "evaluate", "m.zxm", "--negatives",
                                      "negatives.txt", "-k", "2"))
        self.assertEqual(report["listed"]["pairs"], 2)
        self.assertEqual(report["listed"]["model"]["at"][0]["hit_rate"], 1.0)

    def test_unknown_ids(self):
        self.write("test.csv", "0,1\n7,1\n0,9\n7,9\n")
        command = ["-q", "evaluate", "m.zxm", "--test", "test.csv"]
        self.fails(3, 'test.csv: the model does not know 1 user (first "7") and 1 item '
                      '(first "9"); --skip-unknown leaves their rows out', *command)
        text = self.good(*command, "--skip-unknown", "-k", "1")
        self.assertIn("full,all,users,,1,", text)
        self.write("negatives.txt", "0 1 2 x\n")
        self.fails(3, 'negatives.txt: the model does not know 1 item (first "x"); --skip-unknown '
                      "leaves their rows out", "-q", "evaluate", "m.zxm", "--negatives",
                   "negatives.txt")

    def test_sampled_figures_are_seeded(self):
        self.write_model("r.zxm", [[1.0]] * 200, [[float(i)] for i in range(100)])
        self.write("test.csv", "".join(f"{u},{(u * 37) % 100}\n" for u in range(200)))
        command = ["-q", "evaluate", "r.zxm", "--test", "test.csv", "-k"]

        def sampled(k, *more):
            return [line for line in self.good(*command, k, *more).splitlines()
                    if line.startswith("sampled")]
        self.assertEqual(sampled("10"), sampled("10"))
        self.assertEqual(sampled("10"), sampled("5,10")[1:])
        self.assertNotEqual(sampled("10"), sampled("10", "--seed", "7"))
        # A hit is an item that fewer than 10 of 100 random ones score above: of items with scores
        # 0 to 99, about the best tenth.
        self.assertAlmostEqual(float(sampled("10")[0].split(",")[4]), 0.1, delta=0.03)

    def test_the_number_of_threads_changes_nothing(self):
        one = self.good("-q", "evaluate", "m.zxm", "--test", "test.csv", "--threads", "1")
        self.assertEqual(self.good("-q", "evaluate", "m.zxm", "--test", "test.csv", "--threads",
                                   "7"), one)

    def test_usage(self):
        self.fails(2, "--test or --negatives is needed", "evaluate", "m.zxm")
        self.fails(2, 'standard input, "-", can be read for one file only', "evaluate", "m.zxm",
                   "--test", "-", "--train", "-")
        result = self.tool("evaluate", "m.zxm", "--test", "test.csv", "-k", "0")
        self.assertEqual(result.returncode, 2)

    def test_standard_input(self):
        from_file = self.good("-q", "evaluate", "m.zxm", "--test", "test.csv")
        self.assertEqual(self.good("-q", "evaluate", "m.zxm", "--test", "-",
                                   stdin=tool.read(self.path("test.csv"))), from_file)


if __name__ == "__main__":
    unittest.main()
