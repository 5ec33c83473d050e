"""The program as a whole: help, version, usage errors, and where its output goes."""

import re
import subprocess
import unittest

import tool

COMMANDS = ["train", "evaluate", "recommend", "similar", "info", "generate", "devices"]


class Program(tool.Case):
    def test_version(self):
        self.assertEqual(self.good("--version"), "zorvex 0.1.0\n")

    def test_help(self):
        text = self.good("--help")
        for command in COMMANDS:
            self.assertRegex(text, rf"(?m)^  {command} +[A-Z].*[^.]$")
        for command in COMMANDS:
            text = self.good(command, "--help")
            self.assertIn(f"Usage: zorvex {command}", text)
            self.assertLessEqual(max(map(len, text.splitlines())), 100)

    def test_help_says_what_each_default_is(self):
        entries = re.split(r"\n  (?=-)", self.good("train", "--help"))
        for option in ["--algorithm", "--dim", "--epochs", "--regularization", "--alpha",
                       "--learning-rate", "--constant-rate", "--batch", "--seed", "--checkpoint",
                       "--min-rating", "--core", "--weighted", "--holdout", "-k", "--format",
                       "--header", "--device"]:
            entry, = (e for e in entries if re.match(rf"{option}\b", e))
            self.assertRegex(entry, "[Dd]efault", option)
        text = self.good("evaluate", "--help")
        for definition in ["precision@K", "recall@K", "map@K", "ndcg@K", "auc ", "log2(r + 1)"]:
            self.assertIn(definition, text)

    def test_usage_errors(self):
        for command in ([], ["fly"], ["train"], ["train", "x"], ["info"], ["info", "a", "b"],
                        ["recommend", "m", "--user"], ["--nonsense"], ["similar", "m"],
                        ["evaluate", "m", "-k", "1.5"]):
            with self.subTest(command):
                result = self.tool(*command)
                self.assertEqual((result.returncode, result.stdout), (2, b""))
                self.assertRegex(result.stderr, r"^zorvex: .+ \(see --help\)\n$")

    def test_global_options_stand_anywhere(self):
        self.write_model("m.zxm", [[1.0]], [[1.0]])
        before = self.good("--json", "info", "m.zxm")
        self.assertEqual(self.good("info", "--json", "m.zxm"), before)
        self.assertEqual(self.good("info", "m.zxm", "--json"), before)

    def test_failed_writes_of_every_command(self):
        self.write_model("m.zxm", [[1.0]], [[1.0], [2.0]])
        self.write("t.csv", "0,1\n")
        for command in (["--help"], ["--version"], ["info", "m.zxm"], ["generate"],
                        ["devices"],
                        ["similar", "m.zxm", "--item", "0"], ["recommend", "m.zxm", "--all"],
                        ["evaluate", "m.zxm", "--test", "t.csv"],
                        ["train", "t.csv", "-o", "n.zxm", "--dim", "2"]):
            with self.subTest(command), open("/dev/full", "wb") as full:
                result = subprocess.run([tool.TOOL, "-q", *command], stdout=full,
                                        stderr=subprocess.PIPE, cwd=self.folder, check=False)
                self.assertEqual(result.returncode, 6)
                self.assertRegex(result.stderr.decode(), r"^zorvex: .*No space left on device\n$")

    def test_a_closed_standard_error_is_no_failure(self):
        self.write("in.csv", "a,x\nb,y\na,y\n")
        self.good("train", "in.csv", "-o", "open.zxm", "--dim", "2")
        command = f"exec '{tool.TOOL}' train in.csv -o m.zxm --dim 2 2>&-"
        result = subprocess.run(["sh", "-c", command], capture_output=True, cwd=self.folder,
                                check=False)
        self.assertEqual(result.returncode, 0)
        self.assertEqual(tool.read(self.path("m.zxm")), tool.read(self.path("open.zxm")))
        self.assertEqual(tool.read(self.path("in.csv")), b"a,x\nb,y\na,y\n")

    def test_a_closed_standard_output_is_a_failure(self):
        self.write_model("m.zxm", [[1.0]], [[1.0]])
        result = subprocess.run(["sh", "-c", f"exec '{tool.TOOL}' info m.zxm >&-"],
                                capture_output=True, cwd=self.folder, check=False)
        self.assertEqual((result.returncode, result.stderr),
                         (6, b"zorvex: standard output: Bad file descriptor\n"))

    def test_a_closed_pipe_ends_generate_quietly(self):
        command = [tool.TOOL, "generate", "--users", "20000", "--interactions", "500000"]
        with subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE) as process:
            process.stdout.readline()
            process.stdout.close()
            self.assertEqual(process.stderr.read(), b"")
            self.assertEqual(process.wait(), 0)


if __name__ == "__main__":
    unittest.main()
