#!/usr/bin/env python3
"""The example programs: what they print holds, the same every time, and they fail as they say."""

import os
import pathlib
import re
import resource
import subprocess
import sys
import tempfile
import unittest

import numpy

SOURCE = pathlib.Path(os.environ["ZORVEX_SOURCE"])
PROGRAMS = pathlib.Path(os.environ["ZORVEX_EXAMPLES"])
POCL = os.environ["ZORVEX_POCL"]
SANITIZED = bool(os.environ["ZORVEX_SANITIZE"])


class Example(unittest.TestCase):
    """A test in an empty folder of its own."""

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def start(self, *command, **options):
        options.setdefault("cwd", self.folder)
        return subprocess.run([str(word) for word in command], capture_output=True, text=True,
                              check=False, **options)

    def lines(self, program, *arguments, **options):
        """What a program prints that succeeds and does not complain."""
        result = self.start(PROGRAMS / program, *arguments, **options)
        self.assertEqual((result.returncode, result.stderr), (0, ""), result.stdout)
        return result.stdout.splitlines()

    def fails(self, *command):
        """What a program says on standard error that fails and prints nothing."""
        result = self.start(*command)
        self.assertEqual((result.returncode, result.stdout), (1, ""), result.stderr)
        return result.stderr

    def match(self, pattern, line):
        """The groups of a line that matches as a whole."""
        self.assertRegex(line, f"^{pattern}$")
        return re.fullmatch(pattern, line).groups()

    def assert_best_first(self, scores):
        self.assertEqual(scores, sorted(scores, reverse=True))


class TrainBpr(Example):
    def test_learns_the_groups_and_recommends_what_is_new(self):
        before, after, *rest = self.lines("train_bpr")
        hit_rate, = self.match(r"hit rate before training: (.+)", before)
        self.assertLess(float(hit_rate), 0.3)
        hit_rate, = self.match(r"hit rate after \d+ epochs: (.+)", after)
        self.assertGreater(float(hit_rate), 0.95)
        self.assertEqual(len(rest), 12)
        for head, *items in (rest[:6], rest[6:]):
            user, group = map(int, self.match(r"user (\d+) likes group (\d+) and is recommended",
                                              head))
            used = {group * 20 + (user // 10 + 3 * n) % 20 for n in range(6)}
            scores = []
            for line in items:
                item, of, score = self.match(r" +item +(\d+) of group (\d+), score (\S+)", line)
                self.assertEqual((int(item) // 20, int(of)), (group, group))
                self.assertNotIn(int(item), used)
                scores.append(float(score))
            self.assert_best_first(scores)

    def test_gives_the_same_every_time(self):
        self.assertEqual(self.lines("train_bpr"), self.lines("train_bpr"))


class TrainAls(Example):
    def test_finds_everybodys_genre(self):
        head, *recommended, last = self.lines("train_als")
        self.match(r"300 listeners, 180 songs, \d+ entries", head)
        self.assertEqual(len(recommended), 12)
        for title, *songs in (recommended[:6], recommended[6:]):
            listener, genre = map(int, self.match(r"listener (\d+) of genre (\d+)", title))
            self.assertEqual(genre, listener % 6)
            scores = []
            for line in songs:
                song, of, score = self.match(r" +song +(\d+) of genre (\d+), score (\S+)", line)
                self.assertEqual((int(song) // 30, int(of)), (genre, genre))
                scores.append(float(score))
            self.assert_best_first(scores)
        self.assertEqual(last, "favourite genre found for 300 of 300 listeners")

    def test_gives_the_same_every_time(self):
        self.assertEqual(self.lines("train_als"), self.lines("train_als"))


class ScoreOnDevice(Example):
    def largest_difference(self, line):
        score, difference = self.match(
            r"100000 pairs, largest score (\S+), largest difference (\S+)", line)
        self.assertGreater(float(score), 0.3)
        return float(difference)

    def test_scores_on_the_host_where_no_device_is(self):
        where, tables, scores = self.lines("score_on_device")
        self.assertEqual(where, "scoring on the host: no OpenCL device, or no kernel file")
        self.assertEqual(tables, "tables on the device: no")
        self.assertEqual(self.largest_difference(scores), 0.0)

    @unittest.skipUnless(os.path.exists(POCL), "no OpenCL driver for the processor")
    def test_scores_on_a_device_as_on_the_host(self):
        environment = {**os.environ, "OCL_ICD_VENDORS": POCL}
        where, tables, scores = self.lines("score_on_device", cwd=SOURCE, env=environment)
        self.match(r"scoring on the device .+", where)
        self.assertEqual(tables, "tables on the device: yes")
        self.assertLessEqual(self.largest_difference(scores), 1e-5)


class ExportNumpy(Example):
    def load(self):
        return self.start(sys.executable, "-B", SOURCE / "examples/load_npy.py", "arrays")

    def test_arrays_come_back_and_give_the_same_scores(self):
        self.assertEqual(self.lines("export_numpy", "arrays"),
                         ["the tables, and the scores of user 3, are in arrays"])
        result = self.load()
        self.assertEqual((result.returncode, result.stderr), (0, ""), result.stdout)
        shapes, *best = result.stdout.splitlines()
        self.assertEqual(shapes, "users (30, 8), items (40, 8), float32")
        self.assertEqual(len(best), 3)
        for line in best:
            item, score = self.match(r"user 3, item (\d+): score (\S+)", line)
            self.assertEqual(int(item) % 5, 3)
            self.assertAlmostEqual(float(score), 1.0, delta=0.1)

    def test_loading_notices_scores_of_another_model(self):
        self.lines("export_numpy", "arrays")
        scores = numpy.load(self.folder / "arrays/scores.npy")
        scores[7] += 0.001
        numpy.save(self.folder / "arrays/scores.npy", scores)
        result = self.load()
        self.assertEqual(result.returncode, 1)
        (difference,) = self.match(r"load_npy.py: scores differ from the library's by (\S+)",
                                   result.stderr.strip())
        self.assertAlmostEqual(float(difference), 0.001, delta=1e-5)

    def test_says_why_it_cannot_write(self):
        self.assertRegex(self.fails(PROGRAMS / "export_numpy", "/dev/null/arrays"),
                         r"(?s)^export_numpy: Failed to open file\n.*Failed to create directory")

    def test_refuses_a_folder_where_the_names_of_tables_would_be_cut(self):
        folder = "a" * 199 + "/" + "b" * 199 + "/" + "c" * 91
        (self.folder / folder).parent.mkdir(parents=True)
        self.assertEqual(len(folder), 491)
        self.lines("export_numpy", folder)
        self.assertEqual({path.name for path in (self.folder / folder).iterdir()},
                         {"user_embeddings.npy", "item_embeddings.npy", "scores.npy"})
        self.assertEqual(self.fails(PROGRAMS / "export_numpy", folder + "c"),
                         "export_numpy: Buffer too small\n")
        self.assertFalse((self.folder / (folder + "c")).exists())

    def test_wants_a_folder(self):
        for command in ([PROGRAMS / "export_numpy"],
                        [sys.executable, "-B", SOURCE / "examples/load_npy.py"]):
            result = self.start(*command)
            self.assertEqual((result.returncode, result.stderr),
                             (2, f"usage: {pathlib.Path(command[-1]).name} FOLDER\n"))


class ServeThreads(Example):
    def test_threads_answer_as_one(self):
        self.assertEqual(self.lines("serve_threads", "model.zxm"),
                         ["loaded 600 readers and 400 books",
                          "4 threads, 600 answers, 600 of them as from one thread",
                          "3000 of 3000 recommended books are of the reader's shelf"])
        self.assertEqual((self.folder / "model.zxm").read_bytes()[:4], b"ZXQM")

    def test_a_save_that_fails_leaves_the_model_alone(self):
        (self.folder / "model.zxm").write_bytes(b"the old one")
        (self.folder / "model.zxm.new").symlink_to("/dev/full")
        self.assertIn("Failed to write", self.fails(PROGRAMS / "serve_threads", "model.zxm"))
        self.assertEqual((self.folder / "model.zxm").read_bytes(), b"the old one")

    def test_leaves_nothing_but_the_model(self):
        self.lines("serve_threads", "model.zxm")
        self.assertEqual([path.name for path in self.folder.iterdir()], ["model.zxm"])

    @unittest.skipIf(SANITIZED, "sanitizers need more address space than the test leaves")
    def test_says_so_when_a_thread_cannot_start(self):
        def limit():
            """Room for the program and the stack of one thread, but not for those of four."""
            for kind, size in ((resource.RLIMIT_STACK, 1 << 30), (resource.RLIMIT_AS, 3 << 29)):
                resource.setrlimit(kind, (size, resource.getrlimit(kind)[1]))
        result = self.start(PROGRAMS / "serve_threads", "model.zxm", preexec_fn=limit)
        self.assertEqual((result.returncode, result.stdout),
                         (1, "loaded 600 readers and 400 books\n"))
        self.assertRegex(result.stderr, r"^serve_threads: cannot start a thread: .+\n$")

    def test_says_why_it_cannot_save(self):
        self.assertRegex(self.fails(PROGRAMS / "serve_threads", "missing/model.zxm"),
                         r"(?s)^serve_threads: failed\n.*Failed to open file for writing")

    def test_wants_a_file(self):
        result = self.start(PROGRAMS / "serve_threads")
        self.assertEqual((result.returncode, result.stderr),
                         (2, "usage: serve_threads MODEL_FILE\n"))


if __name__ == "__main__":
    unittest.main()
