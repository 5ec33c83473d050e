"""The forms that interactions come in: the same rows make the same model in each of them."""

import gzip
import random

import tool


def make_rows():
    numbers = random.Random(11)
    rows = [(user, item) for user in range(1, 31) for item in numbers.sample(range(1, 41), 7)]
    return [(str(user), str(item), str(numbers.randint(1, 5)), str(1000 + n))
            for n, (user, item) in enumerate(rows)]


ROWS = make_rows()
TRAINING = ["--dim", 4, "--epochs", 3]


def joined(separator, rows=None, end="\n"):
    return "".join(separator.join(row) + end for row in rows or ROWS)


def matrix_market(field, columns):
    entries = joined(" ", [row[:columns] for row in ROWS])
    return (f"%%MatrixMarket matrix coordinate {field} general\n% rows are users\n"
            f"30 40 {len(ROWS)}\n{entries}")


def lists():
    items = {}
    for user, item, _, _ in ROWS:
        items.setdefault(user, []).append(item)
    return "".join(" ".join([user, *liked]) + "\n" for user, liked in items.items())


class FormatsTest(tool.Case):
    def model(self, path, *options, contents=None, **how):
        """The bytes of model and ids that a file makes."""
        if contents is not None:
            self.write(path, contents)
        self.run_tool("train", path, "-o", "m.zxm", *TRAINING, *options, **how)
        return self.read_bytes("m.zxm"), self.read_bytes("m.zxm.ids")


class TheSameRows(FormatsTest):
    def test_make_the_same_model_in_every_form(self):
        weighted = ["--weighted"]
        expected = self.model("plain.csv", *weighted, contents=joined(","))
        quoted = "".join(",".join(f'"{field}"' for field in row) + "\n" for row in ROWS)
        for name, contents, options in [
                ("u.data", joined("\t"), []),
                ("ratings.dat", joined("::"), []),
                ("ratings.csv", "userId,movieId,rating,timestamp\n" + joined(","), []),
                ("ratings.tsv", "user\titem\trating\ttimestamp\n" + joined("\t"), []),
                ("inter", "user_id:token\titem_id:token\trating:float\ttimestamp:float\n" +
                 joined("\t"), []),
                ("spaces.txt", joined(" "), []),
                ("wide.txt", joined("   "), []),
                ("commas.txt", joined(","), []),
                ("crlf.csv", joined(",", end="\r\n"), []),
                ("mark.csv", "\ufeffuser,item,rating,timestamp\n" + joined(","), []),
                ("quoted.csv", '"user","item","rating","timestamp"\n' + quoted, []),
                ("blank.csv", "\n" + joined(",", end="\n\n"), []),
                ("open_end.csv", joined(",").rstrip("\n"), []),
                ("three.csv", joined(",", [row[:3] for row in ROWS]), []),
                ("matrix.mtx", matrix_market("real", 3), []),
                ("matrix.txt", matrix_market("integer", 3), []),
                ("odd.csv", joined("::"), ["--format", "colons"]),
                ("odd.tsv", joined(","), ["--format", "csv"]),
                ("odd.mtx", joined("\t"), ["--format", "tsv"]),
                ("odd.dat", joined(" "), ["--format", "space"]),
                ("head.csv", "a,b,c,d\n" + joined(","), ["--header", "yes"]),
                ("none.csv", joined(","), ["--header", "no"])]:
            with self.subTest(name=name):
                self.assertEqual(self.model(name, *weighted, *options, contents=contents),
                                 expected)

    def test_make_the_same_model_without_ratings(self):
        expected = self.model("pairs.csv", contents=joined(",", [row[:2] for row in ROWS]))
        for name, contents, options in [
                ("four.csv", joined(","), []),
                ("three.tsv", joined("\t", [row[:3] for row in ROWS]), []),
                ("pattern.mtx", matrix_market("pattern", 2), []),
                ("lists.txt", lists(), ["--format", "lists"]),
                ("twice.csv", joined(",") * 2, [])]:
            with self.subTest(name=name):
                self.assertEqual(self.model(name, *options, contents=contents), expected)

    def test_are_read_from_gzip_when_the_name_says_so(self):
        expected = self.model("plain.csv", contents=joined(","))
        for name, contents in [("a.csv.gz", joined(",")), ("b.dat.gz", joined("::")),
                               ("c.mtx.gz", matrix_market("real", 3))]:
            with self.subTest(name=name):
                with gzip.open(self.path(name), "wt", encoding="utf-8", newline="") as file:
                    file.write(contents)
                self.assertEqual(self.model(name), expected)
        # Several members behind one another are one file.
        half = len(ROWS) // 2
        with open(self.path("two.csv.gz"), "wb") as file:
            file.write(gzip.compress(joined(",", ROWS[:half]).encode()) +
                       gzip.compress(joined(",", ROWS[half:]).encode()))
        self.assertEqual(self.model("two.csv.gz"), expected)

    def test_are_read_from_standard_input(self):
        expected = self.model("plain.csv", contents=joined(","))
        for contents, options in [(joined(","), []), (joined("::"), []),
                                  (matrix_market("real", 3), []),
                                  (lists(), ["--format", "lists"])]:
            with self.subTest(contents=contents[:20]):
                self.assertEqual(self.model("-", *options, input=contents), expected)

    def test_are_understood_by_every_command_that_reads_them(self):
        self.model("plain.csv", contents=joined(","))
        seen, _ = self.run_tool("recommend", "m.zxm", "--all", "--exclude", "plain.csv")
        figures, _ = self.run_tool("evaluate", "m.zxm", "--test", "plain.csv", "-k", 3)
        for name, contents, options in [("u.data", joined("\t"), []),
                                        ("r.dat", joined("::"), []),
                                        ("p.mtx", matrix_market("pattern", 2), []),
                                        ("l.txt", lists(), ["--format", "lists"])]:
            with self.subTest(name=name):
                self.write(name, contents)
                self.assertEqual(self.run_tool("recommend", "m.zxm", "--all", "--exclude", name,
                                               *options)[0], seen)
                self.assertEqual(self.run_tool("evaluate", "m.zxm", "--test", name, "-k", 3,
                                               *options)[0], figures)


class WrongForms(FormatsTest):
    def test_are_refused_with_file_line_and_what_was_expected(self):
        self.run_tool("train", self.write("good.csv", joined(",")), "-o", "m.zxm", *TRAINING)
        model = self.read_bytes("m.zxm")
        for name, contents, options, where, parts in [
                ("a.csv", "1,2,3\n1,2\n", [], "a.csv:2: ", ["expected 3 fields", "found 2"]),
                ("b.csv", "1,2,3\n\n1,2,good\n", [], "b.csv:3: ", ['"good"', "expected"]),
                ("c.csv", "1,2,3,4\n1,2,3,noon\n", [], "c.csv:2: ", ['"noon"', "expected"]),
                ("d.csv", "1\t2\t3\n", [], "d.csv:1: ", ["expected 2 to 4 fields", "found 1"]),
                ("e.csv", "1,2,3,4,5\n", [], "e.csv:1: ", ["expected 2 to 4 fields", "found 5"]),
                ("f.csv", 'a,"b\n', [], "f.csv:1: ", ["quote"]),
                ("g.csv", "1,2,nan\n", [], "g.csv:1: ", ['"nan"', "expected"]),
                ("h.mtx", "%%MatrixMarket matrix array real general\n2 2\n1\n", [], "h.mtx:1: ",
                 ["expected"]),
                ("i.mtx", "%%MatrixMarket matrix coordinate real general\n2 2 1\n3 1 1\n", [],
                 "i.mtx:3: ", ['"3"', "1 to 2"]),
                ("j.mtx", "%%MatrixMarket matrix coordinate real general\n2 2 2\n1 1 1\n", [],
                 "j.mtx: ", ["1 entries", "2"]),
                ("k.csv", "item,user\n1,2\n", [], "k.csv:1: ", ["item", "expected"]),
                ("l.csv", "", [], "l.csv: ", ["no interactions"]),
                ("m.csv", "user,item\n", [], "m.csv: ", ["no interactions"]),
                ("n.dat", "1::2::3\n1:2:3\n", [], "n.dat:2: ", ["expected 3 fields"])]:
            with self.subTest(name=name):
                self.write(name, contents)
                output, error = self.run_tool("train", name, "-o", "m.zxm", *TRAINING, *options,
                                              status=tool.BAD_INPUT)
                self.assertEqual(output, "")
                self.assertTrue(error.startswith(f"zorvex: {where}"), error)
                self.assertEqual(error.count("\n"), 1)
                for part in parts:
                    self.assertIn(part, error)
        self.assertEqual(self.read_bytes("m.zxm"), model)

    def test_of_gzip_are_refused(self):
        self.write("text.csv.gz", joined(","))
        whole = gzip.compress(joined(",").encode())
        with open(self.path("cut.csv.gz"), "wb") as file:
            file.write(whole[:-10])
        with open(self.path("broken.csv.gz"), "wb") as file:
            file.write(whole[:60] + bytes(40) + whole[100:])
        for name in ("text.csv.gz", "cut.csv.gz", "broken.csv.gz"):
            with self.subTest(name=name):
                output, error = self.run_tool("train", name, "-o", "m.zxm", *TRAINING,
                                              status=tool.BAD_INPUT)
                self.assertEqual(output, "")
                self.assertRegex(error, rf"\Azorvex: {name}[^\n]*\n\Z")


if __name__ == "__main__":
    tool.main()
