"""What similar and info say about a model."""

import json
import math
import random

import tool
from model_cases import Model, ModelTest


def cosines(model, item):
    """The other items by their cosine, worked out in double precision."""
    def length(row):
        return math.sqrt(sum(x * x for x in row))

    own = model.items[item]
    result = {}
    for other, row in enumerate(model.items):
        lengths = length(own) * length(row)
        product = sum(a * b for a, b in zip(own, row))
        result[other] = product / lengths if lengths else 0.0
    del result[item]
    return result


class Similar(ModelTest):
    def test_gives_the_cosines_of_the_embeddings_without_biases(self):
        for seed in range(6):
            with self.subTest(seed=seed):
                numbers = random.Random(seed)
                rows = [[numbers.gauss(0, 1) for _ in range(1 + seed)] for _ in range(15)]
                biases = [[9], [numbers.gauss(0, 5) for _ in rows]] if seed % 2 else []
                self.save("m.zxm", Model([[1] * (1 + seed)], rows, *biases))
                expected = cosines(self.load("m.zxm"), 3)
                best_first = sorted(expected.values(), reverse=True)

                output, _ = self.run_tool("similar", "m.zxm", "--item", 3, "-k", 20)
                found = [line.split(",") for line in output.splitlines()[1:]]
                self.assertEqual([row[:2] for row in found],
                                 [["3", str(rank)] for rank in range(1, 15)])
                self.assertEqual({int(row[2]) for row in found}, set(expected))
                for row, cosine in zip(found, best_first):
                    self.assertAlmostEqual(float(row[3]), cosine, delta=1e-6)
                    self.assertAlmostEqual(float(row[3]), expected[int(row[2])], delta=1e-6)

    def test_is_csv_to_the_byte(self):
        self.save("m.zxm", Model([[1, 1]], [[2, 0], [0, 1], [5, 0], [-1, 0], [0, 0], [3, 4]]))
        output, error = self.run_tool("similar", "m.zxm", "--item", 0, "--item", 4, "-k", 3)
        self.assertEqual(output, "item,rank,similar,similarity\n0,1,2,1\n0,2,5,0.6\n0,3,1,0\n"
                                 "4,1,0,0\n4,2,1,0\n4,3,2,0\n")
        self.assertEqual(error, "")

    def test_is_one_json_object(self):
        self.save("m.zxm", Model([[1, 1]], [[2, 0], [3, 4], [-1, 0]]))
        output, _ = self.run_tool("similar", "m.zxm", "--item", 0, "--json")
        self.assertEqual(json.loads(output), {
            "model": "m.zxm", "measure": "cosine of the item embeddings",
            "items": [{"item": "0", "similar": [{"item": "1", "similarity": 0.6},
                                                {"item": "2", "similarity": -1.0}]}]})

    def test_has_nothing_to_say_about_an_only_item(self):
        self.save("m.zxm", Model([[1]], [[2]]))
        output, _ = self.run_tool("similar", "m.zxm", "--item", 0)
        self.assertEqual(output, "item,rank,similar,similarity\n")

    def test_names_unknown_items_or_skips_them(self):
        self.write("data.csv", "ann,x\nbob,y\n")
        self.run_tool("train", "data.csv", "-o", "m.zxm", "--dim", 2)
        output, error = self.run_tool("similar", "m.zxm", "--item", "w", "--item", "x",
                                      status=tool.BAD_INPUT)
        self.assertEqual(output, "")
        self.assertEqual(error, 'zorvex: the model does not know 1 item: "w"; --skip-unknown '
                                "leaves them out\n")
        output, error = self.run_tool("similar", "m.zxm", "--item", "w", "--skip-unknown")
        self.assertEqual(output, "item,rank,similar,similarity\n")
        self.assertEqual(error, 'zorvex: warning: the model does not know 1 item: "w"\n')


class Info(ModelTest):
    def test_names_every_field_of_a_model_without_ids(self):
        self.save("m.zxm", Model([[1, 2, 3]] * 5, [[4, 5, 6]] * 7))
        output, error = self.run_tool("info", "m.zxm")
        # 152 + 2 * 304 bytes come to 768 when padded, 60 and 84 bytes of numbers to 64 and 128.
        self.assertEqual(output, "model                m.zxm\n"
                                 "type                 MatrixFactorization\n"
                                 "users                5\n"
                                 "items                7\n"
                                 "dim                  3\n"
                                 "biases               no\n"
                                 "parameters           36\n"
                                 "file bytes           960\n"
                                 "ids file             no\n"
                                 "ids belong to model  no\n"
                                 "finite               yes\n")
        self.assertEqual(error, "")

    def test_is_one_json_object_with_the_same_fields(self):
        self.write("data.csv", "ann,x\nbob,y\n")
        self.run_tool("train", "data.csv", "-o", "m.zxm", "--algorithm", "bpr", "--bias",
                      "--dim", 4, "--epochs", 1)
        output, error = self.run_tool("info", "m.zxm", "--json")
        # 152 + 4 * 304 bytes come to 1408 when padded, and each of four small tensors to 64.
        self.assertEqual(json.loads(output), {
            "model": "m.zxm", "type": "MatrixFactorization", "users": 2, "items": 2, "dim": 4,
            "biases": True, "parameters": 20, "file_bytes": 1664, "ids_file": True,
            "ids_belong_to_model": True, "finite": True})
        self.assertEqual(error, "")

    def test_says_when_numbers_are_not_finite(self):
        for number in (math.nan, math.inf, -math.inf):
            with self.subTest(number=number):
                self.save("m.zxm", Model([[1, number]], [[4, 5]]))
                output, _ = self.run_tool("info", "m.zxm", "--json")
                self.assertIs(json.loads(output)["finite"], False)


if __name__ == "__main__":
    tool.main()
