"""zorvex info, similar and generate, and what every command does with a model it cannot use."""

import json
import unittest

import tool


class Info(tool.Case):
    def test_what_a_model_holds(self):
        self.write_model("m.zxm", [[1.0, 2.0]] * 3, [[1.0, 2.0]] * 5, [0.0] * 3, [0.0] * 5)
        self.assertEqual(self.good("info", "m.zxm"),
                         "model                m.zxm\n"
                         "type                 MatrixFactorization\n"
                         "users                3\n"
                         "items                5\n"
                         "dim                  2\n"
                         "biases               yes\n"
                         "parameters           24\n"
                         "file bytes           1664\n"
                         "ids file             no\n"
                         "ids belong to model  no\n"
                         "finite               yes\n")
        self.assertEqual(json.loads(self.good("info", "m.zxm", "--json")), {
            "model": "m.zxm", "type": "MatrixFactorization", "users": 3, "items": 5, "dim": 2,
            "biases": True, "parameters": 24, "file_bytes": 1664, "ids_file": False,
            "ids_belong_to_model": False, "finite": True})

    def test_ids_belong_to_their_model(self):
        self.write("in.csv", "a,x\nb,y\na,y\n")
        self.good("train", "in.csv", "-o", "m.zxm", "--dim", "2")
        self.assertIn("ids belong to model  yes\n", self.good("info", "m.zxm"))
        self.good("train", "in.csv", "-o", "other.zxm", "--dim", "2", "--seed", "1")
        self.write("other.zxm.ids", tool.read(self.path("m.zxm.ids")))
        result = self.tool("info", "other.zxm")
        self.assertEqual((result.returncode, result.stdout), (4, b""))
        self.assertRegex(result.stderr, r"^zorvex: other\.zxm.*\n$")

    def test_numbers_that_are_not_finite(self):
        self.write_model("m.zxm", [[1.0]], [[float("nan")], [1.0]])
        self.assertIn("finite     ", self.good("info", "m.zxm"))
        self.assertIn("finite               no\n", self.good("info", "m.zxm"))
        self.write("t.csv", "0,1\n")
        for command in (["recommend", "m.zxm", "--all"], ["similar", "m.zxm", "--item", "1"],
                        ["evaluate", "m.zxm", "--test", "t.csv"]):
            self.fails(4, "m.zxm: the model holds numbers that are not finite", *command)

    def test_files_that_are_no_models(self):
        self.write("bad.zxm", "no model at all")
        for command in (["info", "bad.zxm"], ["recommend", "bad.zxm", "--all"],
                        ["similar", "bad.zxm", "--item", "1"],
                        ["evaluate", "bad.zxm", "--test", "bad.zxm"]):
            result = self.tool(*command)
            self.assertEqual((result.returncode, result.stdout), (4, b""))
            self.assertRegex(result.stderr, r"^zorvex: bad\.zxm.*\n$")
        self.assertEqual(self.tool("info", "none.zxm").returncode, 6)


class Similar(tool.Case):
    def setUp(self):
        super().setUp()
        self.write_model("m.zxm", [[0.0, 0.0]], [[3, 0], [0, 2], [4, 3], [-1, 0], [0, 0]])

    def test_csv_into_a_pipe(self):
        self.assertEqual(self.good("similar", "m.zxm", "--item", "0", "-k", "3"),
                         "item,rank,similar,similarity\n0,1,2,0.8\n0,2,1,0\n0,3,4,0\n")
        self.assertEqual(self.good("similar", "m.zxm", "--item", "0", "--item", "1", "-k", "1"),
                         "item,rank,similar,similarity\n0,1,2,0.8\n1,1,2,0.6\n")

    def test_one_json_object(self):
        self.assertEqual(json.loads(self.good("similar", "m.zxm", "--item", "0", "--json")), {
            "model": "m.zxm", "measure": "cosine of the item embeddings", "items": [
                {"item": "0", "similar": [
                    {"item": "2", "similarity": 0.8}, {"item": "1", "similarity": 0.0},
                    {"item": "4", "similarity": 0.0}, {"item": "3", "similarity": -1.0}]}]})

    def test_unknown_items(self):
        self.fails(3, 'the model does not know 1 item: "9"; --skip-unknown leaves them out',
                   "similar", "m.zxm", "--item", "9", "--item", "0")
        self.assertEqual(self.good("similar", "m.zxm", "--item", "9", "--item", "0", "-k", "1",
                                   "--skip-unknown"),
                         "item,rank,similar,similarity\n0,1,2,0.8\n")


class Generate(tool.Case):
    OPTIONS = ["--users", "50", "--items", "40", "--interactions", "600", "--rank", "3"]

    def test_the_same_seed_gives_the_same_bytes(self):
        first = self.good("generate", *self.OPTIONS)
        self.assertEqual(self.good("generate", *self.OPTIONS), first)
        self.assertNotEqual(self.good("generate", *self.OPTIONS, "--seed", "2"), first)
        lines = first.splitlines()
        self.assertEqual(lines[0], "user,item,rating,timestamp")
        self.assertEqual(len(lines), 601)
        summary = self.good("generate", *self.OPTIONS, "-o", "g.csv")
        self.assertEqual(tool.read(self.path("g.csv")).decode(), first)
        self.assertEqual(summary.splitlines()[:2], ["file          g.csv", "users         50"])

    def test_one_json_object(self):
        self.assertEqual(json.loads(self.good("--json", "generate", *self.OPTIONS, "-o", "g.csv")),
                         {"file": "g.csv", "users": 50, "items": 40, "interactions": 600,
                          "rank": 3, "noise": 0.15, "seed": 1})
        self.fails(2, "--json needs --output: without it, standard output carries the data",
                   "--json", "generate", *self.OPTIONS)

    def test_sizes_that_no_data_set_has(self):
        result = self.tool("generate", "--users", "2", "--items", "2", "--interactions", "5",
                           "-o", "g.csv")
        self.assertEqual(result.returncode, 2)
        self.assertRegex(result.stderr, r"^zorvex: .+\n$")
        self.assertEqual(self.files(), [])


if __name__ == "__main__":
    unittest.main()
