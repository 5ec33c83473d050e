"""What recommend promises: exactly min(K, allowed) items, best first, never an excluded one."""

import csv
import json
import os
import random
import struct

import tool
from model_cases import Model, ModelTest

ODD_IDS = ["plain", "a,b", 'say "hi"', " leading", "trailing ", "\u00e9\u732b", "two words", "007",
           "-1", "'single'", "semi;colon", "tab\there"]


def small_integers(numbers, rows, columns):
    return [[numbers.randint(-2, 2) for _ in range(columns)] for _ in range(rows)]


def best_of(model, user, k, excluded):
    """The promise worked out: the allowed items, best first, the lower number first of equals."""
    allowed = [item for item in range(len(model.items)) if item not in excluded]
    allowed.sort(key=lambda item: (-model.score(user, item), item))
    return [(item, model.score(user, item)) for item in allowed[:k]]


def nearest_float(number):
    return struct.unpack("<f", struct.pack("<f", number))[0]


class FilterContract(ModelTest):
    def test_holds_for_scores_that_are_exact_and_often_tied(self):
        for seed in range(40):
            with self.subTest(seed=seed):
                numbers = random.Random(seed)
                num_users, num_items = numbers.randint(1, 6), numbers.randint(2, 30)
                d = numbers.randint(1, 9)
                model = Model(small_integers(numbers, num_users, d),
                              small_integers(numbers, num_items, d))
                if seed % 2:
                    model.user_biases = [numbers.randint(-3, 3) for _ in range(num_users)]
                    model.item_biases = [numbers.randint(-3, 3) for _ in range(num_items)]
                pairs = [(user, item) for user in range(num_users) for item in range(num_items)]
                seen = numbers.sample(pairs, numbers.randint(0, len(pairs)))
                if seed % 5 == 4:  # a user without a single allowed item
                    seen += [(0, item) for item in range(num_items)]
                self.check_exactly(model, seen, numbers.randint(1, num_items + 3))

    def check_exactly(self, model, seen, k):
        self.save("m.zxm", model)
        self.write("seen.csv", "user,item\n" +
                   "".join(f"{user},{item}\n" for user, item in seen + seen[:3]))
        output, error = self.run_tool("recommend", "m.zxm", "--all", "-k", k, "--exclude",
                                      "seen.csv")
        expected = []
        for user in range(len(model.users)):
            best = best_of(model, user, k, {item for other, item in seen if other == user})
            expected += [(user, rank, item, score) for rank, (item, score) in enumerate(best, 1)]
        found = [(int(user), int(rank), int(item), float(score))
                 for user, rank, item, score in self.rows_of(output)]
        self.assertEqual(found, expected)
        self.assertEqual(error, "")

    def test_holds_for_trained_models_with_odd_ids(self):
        for seed in range(8):
            with self.subTest(seed=seed):
                numbers = random.Random(seed)
                users = [f"u{n}" for n in range(12)] + ODD_IDS[:6]
                items = [f"i{n}" for n in range(20)] + ODD_IDS
                rows = [(user, item) for user in users for item in numbers.sample(items, 8)]
                numbers.shuffle(rows)
                self.write_rows("data.csv", rows)
                algorithm = [["--algorithm", "als"], ["--algorithm", "bpr"],
                             ["--algorithm", "bpr", "--bias"]][seed % 3]
                self.run_tool("train", "data.csv", "-o", "m.zxm", "--dim", 1 + seed,
                              "--epochs", 3, *algorithm)
                self.check_closely(rows, numbers.randint(1, 40))

    def write_rows(self, name, rows):
        with open(self.path(name), "w", encoding="utf-8", newline="") as file:
            writer = csv.writer(file, quoting=csv.QUOTE_ALL)
            writer.writerow(["user", "item"])
            writer.writerows(rows)

    def check_closely(self, rows, k):
        model = self.load("m.zxm")
        users = list(dict.fromkeys(user for user, _ in rows))  # numbered as they appear
        items = list(dict.fromkeys(item for _, item in rows))
        output, _ = self.run_tool("recommend", "m.zxm", "--all", "-k", k, "--exclude", "data.csv")
        found = self.rows_of(output)
        for u, user in enumerate(users):
            seen = {item for other, item in rows if other == user}
            allowed = [i for i, item in enumerate(items) if item not in seen]
            count = min(k, len(allowed))
            mine, found = found[:count], found[count:]
            self.assertEqual([row[:2] for row in mine],
                             [[user, str(rank)] for rank in range(1, count + 1)])
            listed = [items.index(row[2]) for row in mine]
            self.assertEqual(len(set(listed)), count)
            self.assertLessEqual(set(listed), set(allowed))
            scores = [float(row[3]) for row in mine]
            self.assertEqual(scores, sorted(scores, reverse=True))
            for item, score in zip(listed, scores):
                self.assertAlmostEqual(score, model.score(u, item), delta=1e-6)
            left_out = [model.score(u, item) for item in allowed if item not in listed]
            if left_out:
                self.assertGreaterEqual(scores[-1] + 1e-6, max(left_out))
        self.assertEqual(found, [])

    def test_keeps_the_lower_numbers_of_items_tied_at_the_end(self):
        # A better item that comes later must push out the last of the tied ones, not the first.
        for scores, k, expected in [([1, 1, 2], 2, [2, 0]), ([1, 1, 1, 3, 2], 3, [3, 4, 0]),
                                    ([0] * 20, 5, [0, 1, 2, 3, 4]),
                                    ([0] * 19 + [7], 5, [19, 0, 1, 2, 3])]:
            with self.subTest(scores=scores):
                self.save("m.zxm", Model([[1]], [[score] for score in scores]))
                output, _ = self.run_tool("recommend", "m.zxm", "--user", 0, "-k", k)
                self.assertEqual([int(row[2]) for row in self.rows_of(output)], expected)

    def test_counts_ten_by_default_and_takes_any_k(self):
        self.save("m.zxm", Model([[1]], [[n] for n in range(25)]))
        for k, expected in [([], 10), (["-k", 1], 1), (["-k", 24], 24), (["-k", 25], 25),
                            (["-k", 26], 25), (["-k", 4294967295], 25)]:
            with self.subTest(k=k):
                output, _ = self.run_tool("recommend", "m.zxm", "--user", 0, *k)
                self.assertEqual([int(row[2]) for row in self.rows_of(output)],
                                 list(range(24, 24 - expected, -1)))

    def test_scores_are_those_of_single_precision_in_full(self):
        self.save("m.zxm", Model([[0.1]], [[0.7], [16777217.0], [1e-20]]))
        output, _ = self.run_tool("recommend", "m.zxm", "--user", 0)
        a = nearest_float(0.1)
        expected = [nearest_float(a * nearest_float(number))
                    for number in (16777217.0, 0.7, 1e-20)]
        self.assertEqual([nearest_float(float(row[3])) for row in self.rows_of(output)], expected)

    def test_scores_beyond_all_numbers_have_places_too(self):
        # For the user (1e30, 1e30): the sum of both infinities, which is no number and comes last,
        # minus infinity, a finite score, infinity.
        self.save("m.zxm", Model([[1e30, 1e30]],
                                 [[1e30, -1e30], [-1e30, 0], [1, 0], [1e30, 0]]))
        output, _ = self.run_tool("recommend", "m.zxm", "--user", 0, "-k", 2, "--json")
        rows = [json.loads(line) for line in output.splitlines()]
        self.assertEqual([(row["item"], row["score"]) for row in rows],
                         [("3", None), ("2", 1e30)])
        output, _ = self.run_tool("recommend", "m.zxm", "--user", 0, "-k", 2)
        self.assertEqual([row[2:] for row in self.rows_of(output)],
                         [["3", "inf"], ["2", "1e+30"]])
        output, _ = self.run_tool("recommend", "m.zxm", "--user", 0)
        self.assertEqual({row[2] for row in self.rows_of(output)[2:]}, {"0", "1"})


class Answers(ModelTest):
    MODEL = Model([[1, 0], [0, 1]], [[3, 1], [2.5, 2], [0, -4]])

    def test_are_csv_to_the_byte(self):
        self.save("m.zxm", self.MODEL)
        output, error = self.run_tool("recommend", "m.zxm", "--all", "-k", 2)
        self.assertEqual(output, "user,rank,item,score\n0,1,0,3\n0,2,1,2.5\n1,1,1,2\n1,2,0,1\n")
        self.assertEqual(error, "")

    def test_are_json_lines_to_the_byte(self):
        self.save("m.zxm", self.MODEL)
        output, error = self.run_tool("recommend", "m.zxm", "--user", 1, "-k", 3, "--json")
        self.assertEqual(output, '{"user":"1","rank":1,"item":"1","score":2.0}\n'
                                 '{"user":"1","rank":2,"item":"0","score":1.0}\n'
                                 '{"user":"1","rank":3,"item":"2","score":-4.0}\n')
        self.assertEqual(error, "")

    def test_follow_the_order_of_repeated_users(self):
        self.save("m.zxm", self.MODEL)
        output, _ = self.run_tool("recommend", "m.zxm", "--user", 1, "--user", 0, "--user=1",
                                  "-k", 1)
        self.assertEqual(output, "user,rank,item,score\n1,1,1,2\n0,1,0,3\n1,1,1,2\n")

    def test_take_ids_that_look_like_options_and_numbers(self):
        self.write("data.csv", "-1,x\n--all,y\n007,x\n7,y\n")
        self.run_tool("train", "data.csv", "-o", "m.zxm", "--dim", 2)
        for user in ("-1", "--all", "007", "7"):
            with self.subTest(user=user):
                output, _ = self.run_tool("recommend", "m.zxm", f"--user={user}", "-k", 1)
                self.assertEqual(self.rows_of(output)[0][0], user)
        self.run_tool("recommend", "m.zxm", "--user=07", status=tool.BAD_INPUT)

    def test_quote_fields_that_need_it(self):
        self.write("data.csv", '"a,b","say ""hi"""\n" lead",plain\n')
        self.run_tool("train", "data.csv", "-o", "m.zxm", "--dim", 2)
        output, _ = self.run_tool("recommend", "m.zxm", "--all", "-k", 1, "--exclude", "data.csv")
        lines = output.splitlines()
        self.assertTrue(lines[1].startswith('"a,b",1,plain,'), lines)
        self.assertTrue(lines[2].startswith('" lead",1,"say ""hi""",'), lines)

    def test_do_not_depend_on_the_threads(self):
        numbers = random.Random(5)
        self.save("m.zxm", Model(small_integers(numbers, 5000, 4), small_integers(numbers, 40, 4)))
        outputs = [self.run_tool("recommend", "m.zxm", "--all", "-k", 2, "--threads", threads)[0]
                   for threads in (1, 2, 7)]
        self.assertEqual([int(row[0]) for row in self.rows_of(outputs[0])[::2]],
                         list(range(5000)))
        self.assertEqual(outputs[1], outputs[0])
        self.assertEqual(outputs[2], outputs[0])

    def test_go_into_a_file_whole_or_not_at_all(self):
        self.save("m.zxm", self.MODEL)
        output, _ = self.run_tool("recommend", "m.zxm", "--all")
        self.write("out.csv", "an older answer\n")
        os.link(self.path("out.csv"), self.path("kept.csv"))
        nothing, error = self.run_tool("recommend", "m.zxm", "--all", "--output", "out.csv")
        self.assertEqual(nothing, "")
        self.assertEqual(error, "out.csv: 2 users\n")
        self.assertEqual(self.read_bytes("out.csv").decode(), output)
        # The older file was replaced, not written over.
        self.assertEqual(self.read_bytes("kept.csv"), b"an older answer\n")

        self.run_tool("recommend", "m.zxm", "--user", 9, "-o", "out.csv",
                      status=tool.BAD_INPUT)
        self.assertEqual(self.read_bytes("out.csv").decode(), output)
        self.assertEqual(sorted(os.listdir(self.folder)), ["kept.csv", "m.zxm", "out.csv"])

    def test_need_a_folder_for_their_file(self):
        self.save("m.zxm", self.MODEL)
        output, error = self.run_tool("recommend", "m.zxm", "--all", "-o", "none/out.csv",
                                      status=tool.INPUT_OUTPUT)
        self.assertEqual(output, "")
        self.assertIn("No such file or directory", error)

    def test_need_users_or_all_of_them(self):
        self.save("m.zxm", self.MODEL)
        for users in ([], ["--all", "--user", 0]):
            with self.subTest(users=users):
                _, error = self.run_tool("recommend", "m.zxm", *users, status=tool.USAGE)
                self.assertEqual(error,
                                 "zorvex: either --user or --all is needed, and not both\n")


class UnknownIds(ModelTest):
    def setUp(self):
        super().setUp()
        self.write("data.csv", "ann,x\nbob,y\nann,z\n")
        self.run_tool("train", "data.csv", "-o", "m.zxm", "--dim", 2)

    def test_are_named_and_counted(self):
        output, error = self.run_tool("recommend", "m.zxm", "--user", "ann", "--user", "cy",
                                      "--user", "dee", status=tool.BAD_INPUT)
        self.assertEqual(output, "")
        self.assertEqual(error, 'zorvex: the model does not know 2 users: "cy", "dee"; '
                                "--skip-unknown leaves them out\n")

    def test_are_named_up_to_five(self):
        users = [word for n in range(6) for word in ("--user", f"u{n}")]
        _, error = self.run_tool("recommend", "m.zxm", *users, status=tool.BAD_INPUT)
        self.assertEqual(error, 'zorvex: the model does not know 6 users: "u0", "u1", "u2", "u3", '
                                '"u4", ...; --skip-unknown leaves them out\n')

    def test_can_be_skipped(self):
        output, error = self.run_tool("recommend", "m.zxm", "--user", "cy", "--user", "bob",
                                      "-k", 1, "--skip-unknown")
        self.assertEqual([row[:2] for row in self.rows_of(output)], [["bob", "1"]])
        self.assertEqual(error, 'zorvex: warning: the model does not know 1 user: "cy"\n')

    def test_among_the_excluded_are_counted(self):
        self.write("seen.csv", "ann,x\ncy,x\nann,new\nann,newer\n")
        _, error = self.run_tool("recommend", "m.zxm", "--user", "ann", "--exclude", "seen.csv",
                                 status=tool.BAD_INPUT)
        self.assertEqual(error, 'zorvex: seen.csv: the model does not know 1 user (first "cy") '
                                'and 2 items (first "new"); --skip-unknown leaves their rows '
                                "out\n")
        output, error = self.run_tool("recommend", "m.zxm", "--user", "ann", "--exclude",
                                      "seen.csv", "--skip-unknown")
        self.assertEqual({row[2] for row in self.rows_of(output)}, {"y", "z"})
        self.assertEqual(error, 'zorvex: warning: seen.csv: the model does not know 1 user (first '
                                '"cy") and 2 items (first "new"); 3 rows left out\n')


if __name__ == "__main__":
    tool.main()
