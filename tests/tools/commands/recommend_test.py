"""zorvex recommend: forms of output, the promise of the filter, unknown ids, failed writes."""

import json
import random
import subprocess
import unittest

import tool

USERS = [[1.0], [2.0]]
ITEMS = [[0.1], [0.9], [0.5], [0.9]]


class Recommend(tool.Case):
    def setUp(self):
        super().setUp()
        self.write_model("m.zxm", USERS, ITEMS)

    def test_csv_into_a_pipe(self):
        self.assertEqual(self.good("recommend", "m.zxm", "--user", "0", "-k", "3"),
                         "user,rank,item,score\n0,1,1,0.9\n0,2,3,0.9\n0,3,2,0.5\n")

    def test_users_in_the_order_asked(self):
        self.assertEqual(self.good("recommend", "m.zxm", "--user", "1", "--user=0", "-k", "1"),
                         "user,rank,item,score\n1,1,1,1.8\n0,1,1,0.9\n")

    def test_json_lines(self):
        self.assertEqual(self.good("recommend", "m.zxm", "--all", "-k", "1", "--json"),
                         '{"user":"0","rank":1,"item":"1","score":0.9}\n'
                         '{"user":"1","rank":1,"item":"1","score":1.8}\n')

    def test_excluded_items_make_room_for_the_next(self):
        self.write("seen.csv", "user,item\n0,1\n0,2\n1,0\n")
        self.assertEqual(
            self.good("recommend", "m.zxm", "--all", "-k", "2", "--exclude", "seen.csv"),
            "user,rank,item,score\n0,1,3,0.9\n0,2,0,0.1\n1,1,1,1.8\n1,2,3,1.8\n")

    def test_fewer_allowed_than_wanted(self):
        self.write("seen.csv", "0,0\n0,1\n0,2\n1,0\n1,1\n1,2\n1,3\n")
        self.assertEqual(self.good("recommend", "m.zxm", "--all", "--exclude", "seen.csv"),
                         "user,rank,item,score\n0,1,3,0.9\n")

    def test_into_a_file(self):
        result = self.tool("recommend", "m.zxm", "--all", "-o", "out.csv")
        self.assertEqual((result.returncode, result.stdout, result.stderr),
                         (0, b"", "out.csv: 2 users\n"))
        self.assertEqual(tool.read(self.path("out.csv")).decode(),
                         self.good("recommend", "m.zxm", "--all"))
        self.assertEqual(self.files(), ["m.zxm", "out.csv"])

    def test_biases_count(self):
        self.write_model("b.zxm", [[0.0]], [[0.0]] * 3, [10.0], [1.0, 3.0, 2.0])
        self.assertEqual(self.good("recommend", "b.zxm", "--user", "0"),
                         "user,rank,item,score\n0,1,1,13\n0,2,2,12\n0,3,0,11\n")

    def test_ids_are_quoted_where_csv_needs_it(self):
        self.write("in.csv", '"a,b","say ""x"""\n[c],"{}"\n[c],\xe9t\xe9\n"a,b",\xe9t\xe9\n')
        self.good("train", "in.csv", "-o", "q.zxm", "--dim", "2")
        lines = self.good("recommend", "q.zxm", "--user", "a,b", "--user", "[c]").splitlines()
        self.assertEqual(sorted(line.rsplit(",", 2)[0] for line in lines[1:4]),
                         ['"a,b",1', '"a,b",2', '"a,b",3'])
        self.assertEqual({line.rsplit(",", 1)[0].split(",", 2)[2] for line in lines[4:]},
                         {'"say ""x"""', "{}", "\xe9t\xe9"})
        self.assertEqual({line.split(",")[0] for line in lines[4:]}, {"[c]"})

    def test_unknown_users(self):
        known = ["--user", "0", "--user", "x", "--user", "y"]
        self.fails(3, 'the model does not know 2 users: "x", "y"; --skip-unknown leaves them out',
                   "recommend", "m.zxm", *known)
        result = self.tool("recommend", "m.zxm", *known, "--skip-unknown", "-k", "1")
        self.assertEqual(result.stdout, b"user,rank,item,score\n0,1,1,0.9\n")
        self.assertEqual(result.stderr,
                         'zorvex: warning: the model does not know 2 users: "x", "y"\n')

    def test_unknown_ids_in_the_excluded(self):
        self.write("seen.csv", "0,1\n9,1\n0,7\n8,8\n")
        command = ["recommend", "m.zxm", "--user", "0", "--exclude", "seen.csv", "-k", "1"]
        text = 'seen.csv: the model does not know 2 users (first "9") and 2 items (first "7")'
        self.fails(3, text + "; --skip-unknown leaves their rows out", *command)
        result = self.tool(*command, "--skip-unknown")
        self.assertEqual(result.stdout, b"user,rank,item,score\n0,1,3,0.9\n")
        self.assertEqual(result.stderr, f"zorvex: warning: {text}; 3 rows left out\n")

    def test_either_users_or_all(self):
        text = "either --user or --all is needed, and not both"
        self.fails(2, text, "recommend", "m.zxm")
        self.fails(2, text, "recommend", "m.zxm", "--all", "--user", "0")

    def test_a_full_device_is_an_error(self):
        with open("/dev/full", "wb") as full:
            result = subprocess.run([tool.TOOL, "recommend", "m.zxm", "--all"], stdout=full,
                                    stderr=subprocess.PIPE, cwd=self.folder, check=False)
        self.assertEqual(result.stderr, b"zorvex: standard output: No space left on device\n")
        self.assertEqual(result.returncode, 6)

    def test_a_closed_pipe_ends_quietly(self):
        users = [[1.0]] * 20000
        self.write_model("wide.zxm", users, ITEMS)
        with subprocess.Popen([tool.TOOL, "-q", "recommend", "wide.zxm", "--all"],
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                              cwd=self.folder) as process:
            self.assertEqual(process.stdout.readline(), b"user,rank,item,score\n")
            process.stdout.close()
            self.assertEqual(process.stderr.read(), b"")
            self.assertEqual(process.wait(), 0)

    def test_no_input_is_overwritten(self):
        self.write("seen.csv", "0,1\n")
        for name in ("m.zxm", "seen.csv"):
            self.fails(2, f"{name}: would overwrite the input", "recommend", "m.zxm", "--all",
                       "--exclude", "seen.csv", "-o", name)
        self.assertEqual(tool.read(self.path("seen.csv")), b"0,1\n")

    def test_an_unwritable_file_is_an_error(self):
        result = self.tool("recommend", "m.zxm", "--all", "-o", "no/such/folder.csv")
        self.assertEqual(result.returncode, 6)
        self.assertEqual(len(result.stderr.splitlines()), 1)

    def test_the_number_of_threads_changes_nothing(self):
        chance = random.Random(2)
        users = [[chance.uniform(-1, 1) for _ in range(4)] for _ in range(5000)]
        items = [[chance.uniform(-1, 1) for _ in range(4)] for _ in range(50)]
        self.write_model("r.zxm", users, items)
        one = self.good("recommend", "r.zxm", "--all", "--threads", "1")
        self.assertEqual(len(one.splitlines()), 50001)
        for threads in (2, 5):
            self.assertEqual(self.good("recommend", "r.zxm", "--all", "--threads", threads), one)

    def test_the_filter_keeps_its_promise(self):
        chance = random.Random(3)
        for _ in range(12):
            num_users, num_items = chance.randint(1, 30), chance.randint(1, 25)
            factors = [float(chance.randint(-2, 2)) for _ in range(num_users)]
            scores = [float(chance.randint(0, 5)) for _ in range(num_items)]
            self.write_model("p.zxm", [[f] for f in factors], [[s] for s in scores])
            seen = {(chance.randrange(num_users), chance.randrange(num_items))
                    for _ in range(chance.randint(1, num_users * num_items))}
            self.write("seen.csv", "".join(f"{u},{i}\n" for u, i in sorted(seen)))
            k = chance.randint(1, num_items + 2)
            answers = {u: [] for u in range(num_users)}
            for line in self.good("recommend", "p.zxm", "--all", "-k", k, "--exclude", "seen.csv",
                                  "--json").splitlines():
                row = json.loads(line)
                answer = answers[int(row["user"])]
                answer.append(int(row["item"]))
                self.assertEqual(row["rank"], len(answer))
            for user, answer in answers.items():
                allowed = [i for i in range(num_items) if (user, i) not in seen]
                allowed.sort(key=lambda i: (-factors[user] * scores[i], i))
                self.assertEqual(answer, allowed[:k])


if __name__ == "__main__":
    unittest.main()
