"""zorvex evaluate: every figure against its definition, worked out here from the scores."""

import json
import os
import random
import signal

import reference
import tool
from models import write_model

KS = (1, 2, 3, 5, 8, 40)
METRICS = ("hit_rate", "precision", "recall", "map", "ndcg")


class EvaluateTest(tool.Case):
    def report(self, *options, model="m.zxm", **how):
        output, _ = self.run_tool("evaluate", model, "--json", "-k", ",".join(map(str, KS)),
                                  *options, **how)
        return json.loads(output)

    def write_pairs(self, name, pairs):
        return self.write(name, "".join(f"{user},{item}\n" for user, item in pairs))

    def assert_figures(self, reported, scores_of, users, train, test):
        """Full figures of these users against the definitions."""
        self.assertEqual([at["k"] for at in reported["at"]], list(KS))
        of = {user: (scores_of(user), {i for u, i in train if u == user},
                     {i for u, i in test if u == user}) for user in users}
        for at in reported["at"]:
            each = [reference.figures(reference.ranking(scores, excluded), relevant, at["k"])
                    for scores, excluded, relevant in of.values()]
            for metric in METRICS:
                expected = reference.average([one[metric] for one in each])
                self.assertAlmostEqual(at[metric], expected, places=12, msg=(metric, at["k"]))
        expected = reference.average([reference.auc(*one) for one in of.values()])
        self.assertAlmostEqual(reported["auc"], expected, places=12)


class HandMadeModels(EvaluateTest):
    """Small whole numbers as embeddings: scores are exact and often tied."""

    USERS, ITEMS = 25, 40

    def setUp(self):
        super().setUp()
        self.random = random.Random(4)

    def rows(self, count):
        return [[self.random.randint(-2, 2) for _ in range(3)] for _ in range(count)]

    def make(self, with_biases):
        self.users, self.items = self.rows(self.USERS), self.rows(self.ITEMS)
        self.user_biases = [self.random.randint(-3, 3) for _ in self.users]
        self.item_biases = [self.random.randint(-3, 3) for _ in self.items]
        if with_biases:
            write_model(self.path("m.zxm"), self.users, self.items, self.user_biases,
                        self.item_biases)
        else:
            write_model(self.path("m.zxm"), self.users, self.items)
            self.user_biases, self.item_biases = [0] * self.USERS, [0] * self.ITEMS

    def dot(self, user):
        return [sum(a * b for a, b in zip(self.users[user], row)) for row in self.items]

    def scores(self, user):
        return [score + self.user_biases[user] + bias
                for score, bias in zip(self.dot(user), self.item_biases)]

    def make_split(self):
        """Disjoint pairs; the last five users have no training rows."""
        every = [(u, i) for u in range(self.USERS) for i in range(self.ITEMS)]
        chosen = self.random.sample(every, 300)
        self.train = [pair for pair in chosen[:220] if pair[0] < 20]
        self.test = chosen[220:]
        self.write_pairs("train.csv", self.train)
        self.write_pairs("test.csv", self.test)

    def popularity(self, _user):
        counts = [0] * self.ITEMS
        for _, item in self.train:
            counts[item] += 1
        return counts

    def test_give_the_figures_of_the_definitions(self):
        for with_biases in (False, True, False, True):
            with self.subTest(with_biases=with_biases):
                self.make(with_biases)
                self.make_split()
                report = self.report("--train", "train.csv", "--test", "test.csv")
                tested = {user for user, _ in self.test}
                trained = {user for user, _ in self.train}
                groups = {group["group"]: group for group in report["full"]}
                self.assertEqual(set(groups), {"trained", "untrained"})
                for name, users in (("trained", tested & trained), ("untrained", tested - trained)):
                    self.assertEqual(groups[name]["users"], len(users))
                    self.assert_figures(groups[name]["model"], self.scores, users, self.train,
                                        self.test)
                    self.assert_figures(groups[name]["popularity"], self.popularity, users,
                                        self.train, self.test)
                self.assertEqual(report["test_pairs"], len(self.test))
                self.assertEqual(report["test_users_without_training_rows"],
                                 len(tested - trained))

    def test_exclude_nothing_without_training_rows(self):
        self.make(True)
        self.make_split()
        report = self.report("--test", "test.csv")
        group, = report["full"]
        self.assertEqual((group["group"], report["training_items_excluded"]), ("all", False))
        self.assertNotIn("popularity", group)
        self.assert_figures(group["model"], self.scores, {user for user, _ in self.test}, [],
                            self.test)

    def test_give_the_sampled_hit_rate_of_the_librarys_generator(self):
        for with_biases in (False, True):
            self.make(with_biases)
            self.make_split()
            pairs = sorted(self.test)
            for seed in (42, 0, 18446744073709551615):
                with self.subTest(with_biases=with_biases, seed=seed):
                    report = self.report("--train", "train.csv", "--test", "test.csv", "--seed",
                                         seed)
                    self.assertEqual(report["sampled_seed"], seed)
                    self.assertEqual([at["k"] for at in report["sampled"]], list(KS))
                    for at in report["sampled"]:
                        expected = reference.sampled_hit_rate(self.dot, pairs, self.ITEMS, at["k"],
                                                              seed)
                        self.assertAlmostEqual(at["hit_rate"], expected, places=6)

    def test_rank_given_lists(self):
        self.make(True)
        self.make_split()
        lists = {pair: self.random.sample([i for i in range(self.ITEMS) if i != pair[1]], 12)
                 for pair in self.test}
        words = "".join(f"{u} {i} {' '.join(map(str, lists[u, i]))}\n" for u, i in self.test)
        pairs = "".join("\t".join([f"({u},{i})", *map(str, lists[u, i])]) + "\n"
                        for u, i in self.test)
        reports = []
        for text in (words, pairs, pairs.replace("\n", "\r\n"), words.replace("\n", "\n\n")):
            self.write("lists.txt", text)
            report = self.report("--train", "train.csv", "--negatives", "lists.txt")
            self.assertNotIn("full", report)
            reports.append(report["listed"])
        for listed in reports:
            self.assertEqual(listed, reports[0])
        self.assertEqual(reports[0]["pairs"], len(self.test))
        for name, scores_of in (("model", self.scores), ("popularity", self.popularity)):
            for at in reports[0][name]["at"]:
                each = []
                for (user, item), others in lists.items():
                    scores = scores_of(user)
                    left_out = set(range(self.ITEMS)) - {item, *others}
                    ranked = reference.ranking(scores, left_out)
                    each.append(reference.figures(ranked, {item}, at["k"]))
                for metric in ("hit_rate", "ndcg"):
                    expected = reference.average([one[metric] for one in each])
                    self.assertAlmostEqual(at[metric], expected, places=12)

    def test_may_be_measured_in_both_ways_at_once(self):
        self.make(False)
        self.make_split()
        self.write("lists.txt", "0 1 2 3\n")
        both = self.report("--train", "train.csv", "--test", "test.csv", "--negatives",
                           "lists.txt")
        full = self.report("--train", "train.csv", "--test", "test.csv")
        self.assertEqual(both["full"], full["full"])
        self.assertEqual(both["sampled"], full["sampled"])
        listed = self.report("--train", "train.csv", "--negatives", "lists.txt")
        self.assertEqual(both["listed"], listed["listed"])

    def test_give_the_same_bytes_from_any_number_of_threads(self):
        self.make(True)
        self.make_split()
        command = ("evaluate", "m.zxm", "--train", "train.csv", "--test", "test.csv", "--threads")
        one = self.run_tool(*command, 1)
        for threads in (2, 3, 64):
            self.assertEqual(self.run_tool(*command, threads), one)


class TrainedModels(EvaluateTest):
    def test_give_the_figures_of_the_scores_that_recommend_prints(self):
        self.run_tool("generate", "--users", 60, "--items", 40, "--interactions", 900, "-o",
                      "data.csv")
        for algorithm in (("als",), ("bpr", "--bias")):
            with self.subTest(algorithm=algorithm):
                self.run_tool("train", "data.csv", "-o", "m.zxm", "--algorithm", *algorithm,
                              "--dim", 4, "--epochs", 5, "--holdout", 0.3, "--write-train",
                              "train.csv", "--write-test", "test.csv")
                output, _ = self.run_tool("recommend", "m.zxm", "--all", "-k", 1000, "--json")
                # By number, for the order of equal scores is seen here too.
                number = {item: n for n, item in enumerate(self.ids_in_order("data.csv"))}
                scores = {}
                for line in output.splitlines():
                    row = json.loads(line)
                    of_user = scores.setdefault(row["user"], [None] * len(number))
                    of_user[number[row["item"]]] = row["score"]
                train, test = ([(user, number[item]) for user, item in self.pairs_in(name)]
                               for name in ("train.csv", "test.csv"))
                report = self.report("--train", "train.csv", "--test", "test.csv")
                group, = report["full"]
                self.assertEqual(group["group"], "trained")
                users = {user for user, _ in test}
                self.assertEqual(group["users"], len(users))
                self.assert_figures(group["model"], scores.__getitem__, users, train, test)

    def pairs_in(self, name):
        rows = self.read_bytes(name).decode().splitlines()[1:]
        return [tuple(row.split(",")[:2]) for row in rows]

    def ids_in_order(self, name):
        return list(dict.fromkeys(item for _, item in self.pairs_in(name)))


class UnknownIds(EvaluateTest):
    def setUp(self):
        super().setUp()
        self.write("data.csv", "ann,tea\nann,milk\nbob,tea\nbob,honey\n")
        self.run_tool("train", "data.csv", "-o", "m.zxm", "--dim", 2, "--epochs", 2)
        self.write("test.csv", "ann,honey\nzoe,tea\nann,rum\nzoe,gin\nyan,tea\n")

    def test_are_named_and_counted(self):
        output, error = self.run_tool("evaluate", "m.zxm", "--test", "test.csv", "--train",
                                      "data.csv", status=tool.BAD_INPUT)
        self.assertEqual((output, error), (
            "", 'zorvex: test.csv: the model does not know 2 users (first "zoe") and 2 items '
                '(first "rum"); --skip-unknown leaves their rows out\n'))

    def test_can_be_skipped(self):
        output, error = self.run_tool("evaluate", "m.zxm", "--test", "test.csv", "--train",
                                      "data.csv", "--skip-unknown", "--json", "-k", 1)
        self.assertEqual(error, 'zorvex: warning: test.csv: the model does not know 2 users (first '
                                '"zoe") and 2 items (first "rum"); 4 rows left out\n')
        report = json.loads(output)
        self.assertEqual(report["test_pairs"], 1)
        # Nothing but honey is left for ann, who has had tea and milk.
        self.assertEqual(report["full"][0]["model"]["at"], [
            {"k": 1, "hit_rate": 1, "precision": 1, "recall": 1, "map": 1, "ndcg": 1}])

    def test_in_the_training_file_count_too(self):
        self.write("train.csv", "ann,tea\nann,gin\n")
        self.write("test.csv", "ann,honey\n")
        command = ("evaluate", "m.zxm", "--test", "test.csv", "--train", "train.csv")
        _, error = self.run_tool(*command, status=tool.BAD_INPUT)
        self.assertEqual(error, 'zorvex: train.csv: the model does not know 1 item (first "gin"); '
                                '--skip-unknown leaves their rows out\n')
        _, error = self.run_tool(*command, "--skip-unknown")
        self.assertEqual(error, 'zorvex: warning: train.csv: the model does not know 1 item (first '
                                '"gin"); 1 row left out\n')

    def test_among_given_negatives(self):
        self.write("lists.txt", "ann honey gin tea\nzoe tea milk\nbob milk tea honey\n")
        command = ("evaluate", "m.zxm", "--negatives", "lists.txt", "-k", 1)
        _, error = self.run_tool(*command, status=tool.BAD_INPUT)
        self.assertEqual(error.splitlines()[-1],
                         'zorvex: lists.txt: the model does not know 1 user (first "zoe") and 1 '
                         'item (first "gin"); --skip-unknown leaves their rows out')
        output, _ = self.run_tool(*command, "--skip-unknown", "--json")
        self.assertEqual(json.loads(output)["listed"]["pairs"], 2)


class Refusal(EvaluateTest):
    def setUp(self):
        super().setUp()
        write_model(self.path("m.zxm"), [[1.0], [2.0]], [[1.0], [2.0], [3.0]])

    def refusal(self, *options, status=tool.BAD_INPUT):
        output, error = self.run_tool("evaluate", "m.zxm", *options, status=status)
        self.assertEqual(output, "")
        return error.splitlines()[-1]

    def test_of_lines_that_are_no_lists(self):
        shape = '"user item negative ..." or "(user,item) negative ..."'
        for text, message in (
                ("0 1 2\n0\n", f':2: expected {shape}, found "0"'),
                ("0 1\n", ":1: expected at least one negative behind the pair, found none"),
                ("0 1 2\n\n(0,1)\n",
                 ":3: expected at least one negative behind the pair, found none"),
                ("\n", ": no pair is left to test")):
            with self.subTest(text=text):
                self.write("lists.txt", text)
                self.assertEqual(self.refusal("--negatives", "lists.txt"),
                                 f"zorvex: lists.txt{message}")

    def test_of_a_test_that_is_empty(self):
        self.write("train.csv", "0,1\n")
        self.assertEqual(self.refusal("--test", "train.csv", "--train", "train.csv"),
                         "zorvex: train.csv: no pair is left to test")

    def test_of_no_test_at_all(self):
        self.assertEqual(self.refusal(status=tool.USAGE),
                         "zorvex: --test or --negatives is needed")

    def test_of_files_that_are_not_there(self):
        self.write("test.csv", "0,1\n")
        for options in (("--test", "none.csv"), ("--test", "test.csv", "--train", "none.csv"),
                        ("--negatives", "none.csv")):
            with self.subTest(options=options):
                self.assertEqual(self.refusal(*options, status=tool.INPUT_OUTPUT),
                                 "zorvex: none.csv: cannot be opened: No such file or directory")


class Interrupt(EvaluateTest):
    def test_ends_the_measuring(self):
        items = [[float(n)] for n in range(20000)]
        write_model(self.path("m.zxm"), [[1.0]] * 100000, items)
        self.write_pairs("test.csv", [(n, n % 20000) for n in range(100000)])
        os.mkfifo(self.path("pipe"))
        process = self.start("evaluate", "m.zxm", "--test", "test.csv", "--train", "pipe",
                             "--threads", 1)
        self.addCleanup(process.kill)
        # The tool waits here until the training rows come, and then has seconds of work to do.
        with open(self.path("pipe"), "w", encoding="utf-8") as pipe:
            pipe.write("0,1\n")
        process.send_signal(signal.SIGINT)
        output, error = process.communicate(timeout=60)
        self.assertEqual((process.returncode, output), (tool.INTERRUPTED, ""))
        self.assertEqual(error.splitlines()[-1], "zorvex: interrupted")


if __name__ == "__main__":
    tool.main()
