"""What a person at a terminal sees: tables, colours and bars, which no file or pipe gets."""

import fcntl
import os
import pty
import re
import select
import struct
import subprocess
import termios

import tool
from model_cases import Model, ModelTest

BOLD, CYAN, PLAIN = "\x1b[1m", "\x1b[36m", "\x1b[0m"
BAR = re.compile(r"\r(?:\x1b\[36m)?\[#*-*\] +\d+ %  [^\r]* left(?:\x1b\[0m)?\x1b\[K")


class TerminalTest(ModelTest):
    def at_terminal(self, *arguments, streams=("stdout", "stderr"), columns=100, status=0,
                    **environment):
        """Runs the tool with those streams on a terminal; returns what that shows and what the
        other stream got."""
        terminal, end = pty.openpty()
        fcntl.ioctl(end, termios.TIOCSWINSZ, struct.pack("4H", 24, columns, 0, 0))
        variables = {name: value for name, value in os.environ.items()
                     if name not in ("NO_COLOR", "TERM")}
        variables.update({"TERM": "xterm"}, **environment)
        ends = {name: end if name in streams else subprocess.PIPE for name in ("stdout", "stderr")}
        with subprocess.Popen([tool.TOOL, *map(str, arguments)], cwd=self.folder,
                              env=variables, stdin=subprocess.DEVNULL, **ends) as process:
            os.close(end)
            pipes = {terminal: b""}
            other = process.stdout or process.stderr
            if other:
                pipes[other.fileno()] = b""
            texts = self.drain(pipes)
            self.assertEqual(process.wait(), status, texts)
        os.close(terminal)
        shown = texts[0].decode().replace("\r\n", "\n")
        return shown, texts[1].decode() if other else ""

    @staticmethod
    def drain(pipes):
        """Reads all of several descriptors to their ends."""
        open_ones = list(pipes)
        while open_ones:
            for ready in select.select(open_ones, [], [])[0]:
                try:
                    block = os.read(ready, 65536)
                except OSError:  # a terminal whose other end is closed
                    block = b""
                pipes[ready] += block
                if not block:
                    open_ones.remove(ready)
        return list(pipes.values())


class Tables(TerminalTest):
    MODEL = Model([[1.0], [-1.0]], [[0.5], [10.25]])
    USER_0 = "user 0\n{0}rank  item    score{1}\n   1  1     10.2500\n   2  0      0.5000\n\n"

    def setUp(self):
        super().setUp()
        self.save("m.zxm", self.MODEL)

    def test_of_recommendations_have_bold_headings(self):
        shown, error = self.at_terminal("recommend", "m.zxm", "--user", 0, streams=["stdout"])
        self.assertEqual(shown, self.USER_0.format(BOLD, PLAIN))
        self.assertEqual(error, "")

    def test_have_no_colours_where_they_are_not_wanted(self):
        for environment in ({"NO_COLOR": "1"}, {"NO_COLOR": "0"}, {"TERM": "dumb"}):
            with self.subTest(environment=environment):
                shown, _ = self.at_terminal("recommend", "m.zxm", "--user", 0, **environment)
                self.assertEqual(shown, self.USER_0.format("", ""))

    def test_have_colours_when_no_color_is_empty(self):
        shown, _ = self.at_terminal("recommend", "m.zxm", "--user", 0, NO_COLOR="")
        self.assertEqual(shown, self.USER_0.format(BOLD, PLAIN))

    def test_of_similar_items(self):
        shown, _ = self.at_terminal("similar", "m.zxm", "--item", 0, NO_COLOR="1")
        self.assertEqual(shown, "item  rank  similar  similarity\n"
                                "0        1  1            1.0000\n")

    def test_of_an_evaluation(self):
        self.write("test.csv", "0,0\n1,0\n")
        shown, _ = self.at_terminal("evaluate", "m.zxm", "--test", "test.csv", "-k", 1,
                                    streams=["stdout"], NO_COLOR="1")
        lines = shown.splitlines()
        self.assertEqual(lines[:3], ["evaluation  group  metric     k     model  popularity",
                                     "full        all    users                2",
                                     "full        all    hit_rate   1  0.500000"])

    def test_align_ids_by_their_characters(self):
        self.write("data.csv", "u,caf\u00e9\nu,x\n")
        self.run_tool("train", "data.csv", "-o", "ids.zxm", "--dim", 1)
        shown, _ = self.at_terminal("recommend", "ids.zxm", "--user", "u", NO_COLOR="1")
        lines = shown.splitlines()
        self.assertEqual(lines[1], "rank  item   score")
        self.assertEqual({len(line) for line in lines[1:4]}, {18})

    def test_show_no_byte_of_an_id_that_would_move_the_cursor(self):
        self.write("data.csv", "u,a\x1b[2Jb\nu,x\x07\n")
        self.run_tool("train", "data.csv", "-o", "ids.zxm", "--dim", 1)
        shown, _ = self.at_terminal("recommend", "ids.zxm", "--user", "u", NO_COLOR="1")
        self.assertNotIn("\x1b", shown)
        self.assertNotIn("\x07", shown)
        self.assertIn("a?[2Jb", shown)

    def test_stand_aside_for_json(self):
        shown, _ = self.at_terminal("recommend", "m.zxm", "--user", 1, "-k", 1, "--json")
        self.assertEqual(shown, '{"user":"1","rank":1,"item":"0","score":-0.5}\n')

    def test_stand_aside_for_files(self):
        shown, _ = self.at_terminal("recommend", "m.zxm", "--user", 1, "-k", 1, "-o", "out.csv")
        self.assertEqual(BAR.sub("", shown).replace("\r\x1b[K", ""), "out.csv: 1 users\n")
        self.assertEqual(self.read_bytes("out.csv"), b"user,rank,item,score\n1,1,0,-0.5\n")


class Bars(TerminalTest):
    def setUp(self):
        super().setUp()
        self.run_tool("generate", "-o", "data.csv", "--users", 300, "--items", 100,
                      "--interactions", 6000)
        self.train = ["train", "data.csv", "-o", "m.zxm", "--dim", 8, "--epochs", 3]

    def test_are_drawn_in_place_with_rate_and_remaining_time(self):
        shown, output = self.at_terminal(*self.train, streams=["stderr"])
        bars = BAR.findall(shown)
        self.assertGreaterEqual(len(bars), 3)
        self.assertTrue(all(CYAN in bar and PLAIN in bar for bar in bars))
        # The last one says that all is done, and is taken away at the end.
        self.assertIn("#] 100 %  ", bars[-1])
        self.assertRegex(bars[-1], r"pairs/s  0:00 left")
        self.assertTrue(shown.endswith("\r\x1b[K"))
        self.assertNotIn("\x1b", output)
        self.assertTrue(output.startswith("model"))

    def test_leave_the_lines_of_the_epochs_in_place(self):
        shown, _ = self.at_terminal(*self.train, streams=["stderr"], NO_COLOR="1")
        lines = BAR.sub("", shown).replace("\r\x1b[K", "").splitlines()
        self.assertRegex(lines[0], r"^data\.csv: 300 users, \d+ items, 6000 training pairs, "
                                   r"0 held out \(\d+\.\d\d s\)$")
        for epoch, line in enumerate(lines[1:], 1):
            self.assertRegex(line, rf"^epoch {epoch}/3  \d+\.\d\d s$")
        self.assertEqual(len(lines), 4)

    def test_have_no_colours_where_they_are_not_wanted(self):
        for environment in ({"NO_COLOR": "1"}, {"TERM": "dumb"}):
            with self.subTest(environment=environment):
                shown, _ = self.at_terminal(*self.train, streams=["stderr"], **environment)
                self.assertNotIn("\x1b[3", shown)
                self.assertRegex(shown, BAR)

    def test_are_as_wide_as_the_terminal_allows(self):
        for columns, widest in [(60, 59), (100, 99), (101, 100), (200, 100), (20, 19)]:
            with self.subTest(columns=columns):
                shown, _ = self.at_terminal(*self.train, streams=["stderr"], columns=columns,
                                            NO_COLOR="1")
                drawn = re.findall(r"\r([^\r\x1b]+)\x1b\[K", shown)
                self.assertTrue(drawn)
                self.assertEqual(max(map(len, drawn)), widest)

    def test_are_not_drawn_into_a_pipe(self):
        _, error = self.run_tool(*self.train)
        self.assertNotIn("\r", error)
        self.assertNotIn("\x1b", error)
        self.assertEqual(len(error.splitlines()), 4)

    def test_are_not_drawn_when_told_to_be_quiet(self):
        shown, output = self.at_terminal("--quiet", *self.train, streams=["stderr"])
        self.assertEqual(shown, "")
        self.assertTrue(output.startswith("model"))

    def test_do_not_tear_apart_answers_on_the_same_terminal(self):
        self.run_tool(*self.train)
        shown, _ = self.at_terminal("recommend", "m.zxm", "--all", "-k", 1, NO_COLOR="1")
        self.assertNotIn("\r", shown)
        self.assertEqual(shown.count("user "), 300)


if __name__ == "__main__":
    tool.main()
