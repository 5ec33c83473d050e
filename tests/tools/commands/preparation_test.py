"""zorvex train: which rows of a file are learnt from and which are held out, seen through
--write-train and --write-test."""

import unittest

import tool

# Ratings at, above and below 3; times that do not follow the lines; a user with one row.
TIMED = """ann::tea::5::30
ann::milk::3::10
ann::honey::2.5::40
ann::iron::4::20
bob::milk::4::7
bob::tea::3::7
bob::coal::5::6
cyd::coal::4::1
"""


class PreparationTest(tool.Case):
    def split(self, file, *options, status=tool.DONE):
        """The training pairs and the held-out pairs, each as the lines of its file."""
        self.run_tool("train", file, "-o", "m.zxm", "--dim", 2, "--epochs", 1, "--write-train",
                      "train.csv", *options, status=status)
        return self.lines("train.csv")

    def split_with_holdout(self, file, holdout, *options):
        train = self.split(file, "--holdout", holdout, "--write-test", "test.csv", *options)
        return train, self.lines("test.csv")

    def lines(self, name):
        text = self.read_bytes(name).decode()
        self.assertTrue(text.endswith("\n"))
        return text.splitlines()

    def summary_line(self, file, *options):
        _, error = self.run_tool("train", file, "-o", "m.zxm", "--dim", 2, "--epochs", 1, *options)
        return error.splitlines()[0].rsplit(" (", 1)[0]


class Everything(PreparationTest):
    def test_is_learnt_from_by_default(self):
        self.write("r.dat", TIMED)
        # By user, then item, each numbered in the order in which the file names it first.
        self.assertEqual(self.split("r.dat"), [
            "user,item", "ann,tea", "ann,milk", "ann,honey", "ann,iron", "bob,tea", "bob,milk",
            "bob,coal", "cyd,coal"])
        self.assertEqual(self.summary_line("r.dat"),
                         "r.dat: 3 users, 5 items, 8 training pairs, 0 held out")

    def test_that_repeats_is_one_pair(self):
        self.write("r.csv", "a,x\nb,x\na,y\na,x\na,x\n")
        self.assertEqual(self.split("r.csv"), ["user,item", "a,x", "a,y", "b,x"])

    def test_that_repeats_is_summed_with_weighted(self):
        self.write("r.csv", "a,x,1.5\nb,x,2\na,y,0\na,x,0.25\na,x,4\n")
        self.assertEqual(self.split("r.csv", "--weighted"),
                         ["user,item,rating", "a,x,5.75", "a,y,0", "b,x,2"])
        self.write("r.csv", "a,x\nb,x\na,y\na,x\na,x\n")
        self.assertEqual(self.split("r.csv", "--weighted"),
                         ["user,item,rating", "a,x,3", "a,y,1", "b,x,1"])

    def test_is_written_so_that_it_reads_back(self):
        ids = ['comma,comma', 'quote"quote', " space", "plain", "\u00e4\u20ac"]
        quoted = ['"comma,comma"', '"quote""quote"', '" space"', "plain", "\u00e4\u20ac"]
        rows = "".join(f"{a},{b}\n" for a in quoted for b in quoted)
        self.write("r.csv", rows)
        written = self.split("r.csv")
        self.assertEqual(written, ["user,item", *rows.splitlines()])
        ids_file = self.read_bytes("m.zxm.ids")
        for name in ids:
            self.assertIn(name.encode(), ids_file)
        self.write("again.csv", "\n".join(written) + "\n")
        self.assertEqual(self.split("again.csv"), written)
        self.assertEqual(self.read_bytes("m.zxm.ids"), ids_file)


class LeastRating(PreparationTest):
    def test_is_itself_enough(self):
        self.write("r.dat", TIMED)
        self.assertEqual(self.split("r.dat", "--min-rating", 3)[1:], [
            "ann,tea", "ann,milk", "ann,iron", "bob,tea", "bob,milk", "bob,coal", "cyd,coal"])
        self.assertEqual(self.split("r.dat", "--min-rating", 4)[1:],
                         ["ann,tea", "ann,iron", "bob,milk", "bob,coal", "cyd,coal"])
        self.assertEqual(self.split("r.dat", "--min-rating", 5)[1:], ["ann,tea", "bob,coal"])
        self.assertEqual(self.summary_line("r.dat", "--min-rating", 5),
                         "r.dat: 2 users, 2 items, 2 training pairs, 0 held out")

    def test_may_be_negative(self):
        self.write("r.csv", "a,x,-2\na,y,-1\nb,x,0\n")
        self.assertEqual(self.split("r.csv", "--min-rating", -1)[1:], ["a,y", "b,x"])

    def test_judges_rows_and_not_sums(self):
        self.write("r.csv", "a,x,2\na,x,2\na,y,3\n")
        self.assertEqual(self.split("r.csv", "--min-rating", 3, "--weighted")[1:], ["a,y,3"])


class Core(PreparationTest):
    # Dropping steam, which has one row, takes fay below 2 rows; that takes coal below 2 users,
    # and that dan; what is left, ann and bob on tea and milk, keeps 2 of everything.
    CASCADE = "ann,tea\nann,milk\nbob,tea\nbob,milk\ndan,tea\ndan,coal\nfay,coal\nfay,steam\n"

    def test_drops_until_nothing_changes(self):
        self.write("r.csv", self.CASCADE)
        self.assertEqual(self.split("r.csv", "--core", 2)[1:],
                         ["ann,tea", "ann,milk", "bob,tea", "bob,milk"])
        self.assertEqual(self.summary_line("r.csv", "--core", 2),
                         "r.csv: 2 users, 2 items, 4 training pairs, 0 held out")

    def test_of_one_drops_nothing(self):
        self.write("r.csv", self.CASCADE)
        self.assertEqual(len(self.split("r.csv", "--core", 1)), 9)

    def test_counts_pairs_and_not_rows(self):
        self.write("r.csv", self.CASCADE + "fay,steam\nfay,steam\n")
        self.assertEqual(len(self.split("r.csv", "--core", 2)), 5)

    def test_comes_after_the_least_rating_and_before_the_holdout(self):
        rows = self.CASCADE.replace("\n", ",5\n") + "fay,tea,1\ndan,milk,1\n"
        self.write("r.csv", rows)
        self.assertEqual(len(self.split("r.csv", "--core", 2)), 10)  # but fay,steam
        train, test = self.split_with_holdout("r.csv", "leave-one-out", "--core", 2, "--min-rating",
                                              2)
        self.assertEqual(train[1:], ["ann,tea", "bob,tea"])
        self.assertEqual(test[1:], ["ann,milk", "bob,milk"])


class LeaveOneOut(PreparationTest):
    def test_takes_the_latest(self):
        self.write("r.dat", TIMED)
        train, test = self.split_with_holdout("r.dat", "leave-one-out")
        # Two of bob's are equally late: the later line. cyd's only pair is learnt from.
        self.assertEqual(test, ["user,item", "ann,honey", "bob,tea"])
        self.assertEqual(train, ["user,item", "ann,tea", "ann,milk", "ann,iron", "bob,milk",
                                 "bob,coal", "cyd,coal"])
        self.assertEqual(self.summary_line("r.dat", "--holdout", "leave-one-out"),
                         "r.dat: 3 users, 5 items, 6 training pairs, 2 held out")

    def test_takes_the_last_line_where_there_are_no_times(self):
        self.write("r.csv", "a,x,1\nb,y,5\na,y,5\nb,x,1\na,z,1\nb,z,3\nb,w,2\n")
        _, test = self.split_with_holdout("r.csv", "leave-one-out")
        self.assertEqual(test[1:], ["a,z", "b,w"])

    def test_takes_a_pair_that_repeats_by_its_latest_row(self):
        self.write("r.csv", "a,x,1,9\na,y,1,5\na,x,1,1\nb,x,1,1\nb,y,1,3\nb,x,1,4\n")
        train, test = self.split_with_holdout("r.csv", "leave-one-out")
        self.assertEqual((train[1:], test[1:]), (["a,y", "b,y"], ["a,x", "b,x"]))

    def test_does_not_depend_on_the_seed(self):
        self.write("r.dat", TIMED)
        self.assertEqual(self.split_with_holdout("r.dat", "leave-one-out", "--seed", 1),
                         self.split_with_holdout("r.dat", "leave-one-out", "--seed", 2))


class Fraction(PreparationTest):
    COUNTS = {"a": 1, "b": 2, "c": 3, "d": 10, "e": 11, "f": 40}

    def setUp(self):
        super().setUp()
        self.rows = [f"{user},i{n}" for user, count in self.COUNTS.items() for n in range(count)]
        self.write("r.csv", "\n".join(self.rows) + "\n")

    def held_out_counts(self, holdout, *options):
        train, test = self.split_with_holdout("r.csv", holdout, *options)
        self.assertEqual(sorted(train[1:] + test[1:]), sorted(self.rows))
        return [sum(line.startswith(user + ",") for line in test[1:]) for user in self.COUNTS]

    def test_is_of_each_user_rounded_down_and_leaves_one(self):
        for holdout, expected in (("0.1", [0, 0, 0, 1, 1, 4]), ("0.3", [0, 0, 0, 3, 3, 12]),
                                  ("0.5", [0, 1, 1, 5, 5, 20]), ("0.7", [0, 1, 2, 7, 7, 28]),
                                  ("0.999", [0, 1, 2, 9, 10, 39]), ("1e-9", [0] * 6)):
            with self.subTest(holdout=holdout):
                self.assertEqual(self.held_out_counts(holdout), expected)

    def test_is_chosen_by_the_seed(self):
        choices = {tuple(self.split_with_holdout("r.csv", 0.5, "--seed", seed)[1])
                   for seed in (1, 1, 2, 3)}
        self.assertEqual(len(choices), 3)

    def test_is_the_same_for_both_algorithms(self):
        self.assertEqual(self.split_with_holdout("r.csv", 0.5),
                         self.split_with_holdout("r.csv", 0.5, "--algorithm", "bpr"))

    def test_takes_every_item_about_as_often(self):
        taken = dict.fromkeys(range(40), 0)
        for seed in range(60):
            for line in self.split_with_holdout("r.csv", 0.5, "--seed", seed)[1][1:]:
                if line.startswith("f,"):
                    taken[int(line[3:])] += 1
        # 60 choices of 20 of 40: 30 expected with a deviation of 4.
        self.assertEqual(sum(taken.values()), 1200)
        self.assertGreater(min(taken.values()), 12)
        self.assertLess(max(taken.values()), 48)


class Refusal(PreparationTest):
    def refusal(self, *arguments, status=tool.BAD_INPUT, **options):
        output, error = self.run_tool("train", *arguments, "-o", "m.zxm", status=status, **options)
        self.assertEqual(output, "")
        return error

    def test_names_what_leaves_nothing(self):
        self.write("r.csv", "a,x,1\nb,y,2\n")
        self.assertEqual(self.refusal("r.csv", "--min-rating", 3),
                         "zorvex: r.csv: none of 2 interactions is left after the filters\n")
        self.assertEqual(self.refusal("r.csv", "--core", 2),
                         "zorvex: r.csv: none of 2 interactions is left after the filters\n")

    def test_of_a_least_rating_where_there_are_none(self):
        self.write("r.csv", "a,x\nb,y\n")
        message = "a least rating was given, but the file has no ratings"
        self.assertEqual(self.refusal("r.csv", "--min-rating", 3), f"zorvex: r.csv: {message}\n")
        self.assertEqual(self.refusal("-", "--min-rating", 3, input="a,x\nb,y\n"),
                         f"zorvex: standard input: {message}\n")

    def test_of_a_negative_strength(self):
        self.write("r.csv", "a,x,1\nb,y,-2\n")
        self.assertEqual(
            self.refusal("r.csv", "--weighted"),
            'zorvex: r.csv: strength -2 of user "b" and item "y" cannot be a weight, expected 0 or '
            'more as a 32-bit number\n')
        self.assertEqual(self.split("r.csv"), ["user,item", "a,x", "b,y"])


if __name__ == "__main__":
    tool.main()
