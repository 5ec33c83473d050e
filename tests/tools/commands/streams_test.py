"""Results on standard output, all else on standard error, and what each failure exits with."""

import json
import os
import re
import shutil
import struct
import subprocess

import tool
from model_cases import Model, ModelTest

ROWS = "ann,x,4,1\nann,y,5,2\nann,z,3,3\nbob,y,4,4\nbob,z,5,5\nbob,w,1,6\n"
OPTIONS = {
    "train": ["-o", "--output", "--algorithm", "--dim", "--epochs", "--regularization", "--alpha",
              "--learning-rate", "--constant-rate", "--bias", "--batch", "--seed", "--checkpoint",
              "--min-rating", "--core", "--weighted", "--holdout", "-k", "--write-train",
              "--write-test", "--format", "--header", "--device"],
    "evaluate": ["--test", "--train", "--negatives", "-k", "--seed", "--skip-unknown", "--format",
                 "--header", "--threads", "--device"],
    "recommend": ["--user", "--all", "-k", "--exclude", "-o", "--output", "--skip-unknown",
                  "--format", "--header", "--threads", "--device"],
    "similar": ["--item", "-k", "--skip-unknown"],
    "info": [],
    "generate": ["--users", "--items", "--interactions", "--rank", "--noise", "--seed", "-o",
                 "--output"],
    "devices": [],
}


class StreamsTest(ModelTest):
    def setUp(self):
        super().setUp()
        self.write("data.csv", ROWS)
        self.write("test.csv", "ann,w\nbob,x\n")
        self.run_tool("train", "data.csv", "-o", "m.zxm", "--dim", 2, "--epochs", 2)
        self.commands = {
            "train": ["train", "data.csv", "-o", "other.zxm", "--dim", 2, "--epochs", 2,
                      "--holdout", "leave-one-out"],
            "evaluate": ["evaluate", "m.zxm", "--test", "test.csv", "--train", "data.csv"],
            "recommend": ["recommend", "m.zxm", "--all", "--exclude", "data.csv"],
            "similar": ["similar", "m.zxm", "--item", "x"],
            "info": ["info", "m.zxm"],
            "generate": ["generate", "--users", 20, "--items", 20, "--interactions", 100, "-o",
                         "made.csv"],
            "devices": ["devices"],
        }


class Help(StreamsTest):
    def test_of_every_command_names_every_option_and_no_other(self):
        for command, options in OPTIONS.items():
            with self.subTest(command=command):
                output, error = self.run_tool(command, "--help")
                named = set()
                for line in output.splitlines():
                    found = re.match(r"  ((?:-\w)?,?(?:--[\w-]+)?) ", line + " ")
                    if found:
                        named.update(name for name in found.group(1).split(",") if name)
                self.assertEqual(named, {*options, "-h", "--help"})
                self.assertEqual(error, "")

    def test_of_the_program_names_every_command_and_exit_status(self):
        output, error = self.run_tool("--help")
        for command in OPTIONS:
            self.assertRegex(output, rf"\n  {command} +[A-Z]")
        self.assertIn("Exit status: 0 done, 1 other failure, 2 usage, 3 bad input data, 4 bad "
                      "model file, 5 out of memory, 6 input or output failed, 7 no device "
                      "though one was demanded, 130 interrupted",
                      " ".join(output.split()))
        self.assertEqual(error, "")

    def test_fits_a_hundred_columns(self):
        for command in ([], *([command] for command in OPTIONS)):
            with self.subTest(command=command):
                output, _ = self.run_tool(*command, "--help")
                self.assertLessEqual(max(map(len, output.splitlines())), 100)

    def test_version_is_one_line(self):
        self.assertEqual(self.run_tool("--version"), ("zorvex 0.1.0\n", ""))


class Usage(StreamsTest):
    def test_errors_are_one_line_and_exit_with_two(self):
        for arguments in (
                [], ["nonsense"], ["train"], ["train", "data.csv"], ["info"], ["--nonsense"],
                ["info", "m.zxm", "--nonsense"], ["info", "m.zxm", "more"],
                ["recommend", "m.zxm"], ["recommend", "m.zxm", "--all", "-k", 0],
                ["recommend", "m.zxm", "--all", "-k", -1],
                ["recommend", "m.zxm", "--all", "-k", "ten"],
                ["recommend", "m.zxm", "--all", "-k", 4294967296],
                ["recommend", "m.zxm", "--all", "--threads", 0],
                ["recommend", "m.zxm", "--all", "--format", "xml"],
                ["recommend", "m.zxm", "--all", "--header", "maybe"],
                ["similar", "m.zxm"], ["evaluate", "m.zxm"],
                ["evaluate", "m.zxm", "--test", "test.csv", "-k", "5,0"],
                ["evaluate", "m.zxm", "--test", "-", "--train", "-"],
                ["generate", "--noise", 1.5], ["generate", "--noise", "nan"],
                ["generate", "--users", 0], ["generate", "--rank", 0],
                ["generate", "--items", 10, "--rank", 11],
                ["generate", "--users", 2, "--items", 10, "--interactions", 11],
                ["generate", "--json"]):
            with self.subTest(arguments=arguments):
                output, error = self.run_tool(*arguments, status=tool.USAGE)
                self.assertEqual(output, "")
                self.assertRegex(error, r"\Azorvex: [^\n]+\n\Z")


class Streams(StreamsTest):
    def test_standard_output_has_results_and_nothing_else(self):
        for name, command in self.commands.items():
            for extra in ([], ["--verbose"], ["--json"], ["--quiet"]):
                with self.subTest(command=name, extra=extra):
                    output, error = self.run_tool(*command, *extra)
                    self.assertNotEqual(output, "")
                    self.assertNotIn("[ZORVEX]", output + error)
                    self.assertNotIn("epoch ", output)

    def test_every_json_output_parses(self):
        for name, command in self.commands.items():
            with self.subTest(command=name):
                output, _ = self.run_tool(*command, "--json")
                lines = output.splitlines()
                if name != "recommend":
                    self.assertEqual(len(lines), 1)
                for line in lines:
                    self.assertIsInstance(json.loads(line), dict)

    def test_global_options_stand_anywhere(self):
        expected = self.run_tool("info", "m.zxm", "--json")
        self.assertEqual(self.run_tool("--json", "info", "m.zxm"), expected)
        self.assertEqual(self.run_tool("info", "--json", "m.zxm"), expected)

    def test_quiet_leaves_results_and_errors(self):
        for name, command in self.commands.items():
            with self.subTest(command=name):
                loud, _ = self.run_tool(*command)
                output, error = self.run_tool(*command, "--quiet")
                self.assertEqual(output, loud)
                self.assertEqual(error, "")
        _, error = self.run_tool("recommend", "m.zxm", "--user", "cy", "--skip-unknown", "-q")
        self.assertEqual(error, "")
        _, error = self.run_tool("recommend", "m.zxm", "--user", "cy", "-q",
                                 status=tool.BAD_INPUT)
        self.assertTrue(error.startswith("zorvex: the model does not know 1 user"))

    def test_verbose_says_what_is_read(self):
        _, error = self.run_tool("recommend", "m.zxm", "--all", "--exclude", "data.csv", "-v")
        self.assertEqual(error, "m.zxm: 2 users, 4 items, dimension 2\ndata.csv: 6 rows\n")
        _, error = self.run_tool("train", "data.csv", "-o", "n.zxm", "--epochs", 1, "--verbose")
        self.assertEqual(error.splitlines()[0], "data.csv: 6 lines, 60 bytes, 6 rows")
        self.assertEqual(self.run_tool("recommend", "m.zxm", "--all", "-v", "-q")[1], "")

    def test_progress_into_a_pipe_is_lines(self):
        _, error = self.run_tool(*self.commands["train"])
        lines = error.splitlines()
        self.assertRegex(lines[0], r"^data\.csv: 2 users, 4 items, 4 training pairs, 2 held out "
                                   r"\(\d+\.\d\d s\)$")
        figures = r"hit rate@10 \d\.\d{4}  recall@10 \d\.\d{4}  NDCG@10 \d\.\d{4}$"
        self.assertRegex(lines[1], "^popularity  " + figures)
        self.assertRegex(lines[2], r"^epoch 1/2  \d+\.\d\d s  " + figures)
        self.assertRegex(lines[3], r"^epoch 2/2  \d+\.\d\d s  " + figures)
        self.assertEqual(len(lines), 4)
        self.assertNotIn("\r", error)


class ClosedAndFull(StreamsTest):
    def test_a_reader_that_goes_away_ends_the_program_quietly(self):
        self.save("wide.zxm", Model([[1.0]] * 30000, [[2.0], [3.0], [4.0]]))
        for command in (["recommend", "wide.zxm", "--all"],
                        ["recommend", "wide.zxm", "--all", "--json"],
                        ["generate", "--users", 30000, "--interactions", 400000]):
            with self.subTest(command=command):
                with self.start(*command) as process:
                    self.assertNotEqual(process.stdout.readline(), "")
                    process.stdout.close()
                    self.assertEqual(process.stderr.read(), "")
                    self.assertEqual(process.wait(), tool.DONE)

    def test_a_full_disk_under_standard_output_is_an_error(self):
        for arguments in (["--help"], ["--version"], ["train", "--help"], *self.commands.values(),
                          ["generate"], ["info", "m.zxm", "--json"]):
            with self.subTest(arguments=arguments), open("/dev/full", "wb") as full:
                _, error = self.run_tool(*arguments, "--quiet", stdout=full,
                                         status=tool.INPUT_OUTPUT)
                self.assertTrue(error.endswith("No space left on device\n"), error)
                self.assertEqual(error.count("\n"), 1)

    def test_a_closed_standard_error_is_none(self):
        for name, command in self.commands.items():
            with self.subTest(command=name):
                expected, _ = self.run_tool(*command)
                words = " ".join(map(str, command))
                result = subprocess.run(["sh", "-c", f"exec '{tool.TOOL}' {words} 2>&-"],
                                        cwd=self.folder, stdout=subprocess.PIPE, text=True,
                                        check=False)
                self.assertEqual(result.returncode, tool.DONE)
                if name != "train":
                    self.assertEqual(result.stdout, expected)


class Files(StreamsTest):
    def test_that_are_missing_exit_with_six(self):
        for command in (["train", "none.csv", "-o", "n.zxm"], ["info", "none"],
                        ["recommend", "none", "--all"], ["similar", "none", "--item", "x"],
                        ["evaluate", "none", "--test", "test.csv"],
                        ["evaluate", "m.zxm", "--test", "none"],
                        ["evaluate", "m.zxm", "--test", "test.csv", "--train", "none"],
                        ["evaluate", "m.zxm", "--negatives", "none"],
                        ["recommend", "m.zxm", "--all", "--exclude", "none"]):
            with self.subTest(command=command):
                output, error = self.run_tool(*command, status=tool.INPUT_OUTPUT)
                self.assertEqual(output, "")
                self.assertRegex(error, r"(\A|\n)zorvex: none[^\n]*No such file or directory\n\Z")
        self.assertFalse(os.path.exists(self.path("n.zxm")))

    def refused(self, reason, model="m.zxm"):
        """Every command that takes a model refuses this one, with one line that says why."""
        for command in (["info", model], ["recommend", model, "--all"],
                        ["similar", model, "--item", "x"],
                        ["evaluate", model, "--test", "test.csv"]):
            with self.subTest(command=command, reason=reason):
                output, error = self.run_tool(*command, status=tool.BAD_MODEL)
                self.assertEqual(output, "")
                self.assertEqual(error, f"zorvex: {reason}\n")

    def write_bytes(self, name, contents):
        with open(self.path(name), "wb") as file:
            file.write(contents)

    def test_that_are_no_models_are_refused(self):
        self.write("text.zxm", "user,item\n" * 50)
        self.refused("text.zxm: is no model file", "text.zxm")
        self.write("empty.zxm", "")
        self.refused("empty.zxm: is no model file", "empty.zxm")
        os.mkdir(self.path("folder.zxm"))
        self.refused("folder.zxm: is no regular file, expected a model file", "folder.zxm")

    def test_that_are_cut_off_or_too_long_are_refused(self):
        whole = self.read_bytes("m.zxm")
        self.assertEqual(len(whole), 896)
        self.write_bytes("m.zxm", whole[:-1])
        self.refused("m.zxm: model file is 895 bytes long, expected the 896 that its head says")
        self.write_bytes("m.zxm", whole[:151])
        self.refused("m.zxm: is no model file")
        self.write_bytes("m.zxm", whole + b"\0")
        self.refused("m.zxm: model file is 897 bytes long, expected the 896 that its head says")

    def test_with_impossible_heads_are_refused(self):
        whole = self.read_bytes("m.zxm")
        for count in (0, 4294967295):
            self.write_bytes("m.zxm", whole[:12] + struct.pack("<I", count) + whole[16:])
            self.refused(f"m.zxm: model file is damaged: it says that it has {count} tensors")
        self.write_bytes("m.zxm", whole[:4] + struct.pack("<I", 2) + whole[8:])
        self.refused("m.zxm: is no model that can be used: File version newer than library")

    def test_with_the_ids_of_another_model_are_refused(self):
        self.run_tool("train", "data.csv", "-o", "other.zxm", "--dim", 2, "--seed", 1)
        shutil.copy(self.path("other.zxm.ids"), self.path("m.zxm.ids"))
        self.refused("m.zxm.ids: does not belong to m.zxm, expected the ids saved with it")

    def test_with_damaged_ids_are_refused(self):
        whole = self.read_bytes("m.zxm.ids")
        for contents, reason in [(whole[:-1], "ids file is damaged"), (b"", "is no ids file"),
                                 (whole[:50] + b"?" + whole[51:], "ids file is damaged"),
                                 (b"user,item\n" * 20, "is no ids file")]:
            self.write_bytes("m.zxm.ids", contents)
            self.refused(f"m.zxm.ids: {reason}")

    def test_without_ids_speak_of_plain_numbers(self):
        named, _ = self.run_tool("recommend", "m.zxm", "--all", "-k", 4)
        os.remove(self.path("m.zxm.ids"))
        output, error = self.run_tool("recommend", "m.zxm", "--all", "-k", 4, "-v")
        users, items = {"ann": "0", "bob": "1"}, {"x": "0", "y": "1", "z": "2", "w": "3"}
        expected = [[users[user], rank, items[item], score]
                    for user, rank, item, score in self.rows_of(named)]
        self.assertEqual(self.rows_of(output), expected)
        self.assertEqual(error, "m.zxm: 2 users, 4 items, dimension 2, no ids file: ids are plain "
                                "numbers\n")
        self.run_tool("recommend", "m.zxm", "--user", "ann", status=tool.BAD_INPUT)


if __name__ == "__main__":
    tool.main()
