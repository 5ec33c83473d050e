"""zorvex train: what stands on disk when it is refused, runs out of room or is interrupted."""

import fcntl
import gzip
import os
import resource
import signal
import struct
import subprocess
import termios
import time
import unittest

import tool

DATA = "".join(f"u{n % 30},i{n * n % 41}\n" for n in range(300))
SMALL = ("--dim", 3, "--epochs", 2)
FOREVER = ("--dim", 8, "--epochs", 4294967295)


class FailureTest(tool.Case):
    """With a model in place that must still be there afterwards, and nothing else."""

    def setUp(self):
        super().setUp()
        self.write("data.csv", DATA)
        self.run_tool("train", "data.csv", "-o", "m.zxm", *SMALL, "--seed", 7)
        self.before = self.contents()

    def contents(self):
        return {name: self.read_bytes(name) for name in os.listdir(self.folder)}

    def assert_untouched(self):
        self.assertEqual(self.contents(), self.before)

    def refusal(self, *arguments, status, **options):
        output, error = self.run_tool("train", *arguments, status=status, **options)
        self.assertEqual(output, "")
        return error


class BadInput(FailureTest):
    # What is in the file in.csv, and what is said of it after its name.
    CASES = (
        ("", ": has no interactions, expected lines such as user,item,rating"),
        ("user,item,rating\n", ": has no interactions, expected lines such as user,item,rating"),
        ("1,2,3\n1,2\n", ":2: expected 3 fields (user,item,rating), found 2"),
        ("1,2\n\n1,2,3\n", ":3: expected 2 fields (user,item), found 3"),
        ("1;2\n", ":1: expected 2 to 4 fields (user,item[,rating[,timestamp]]) separated by commas,"
                  " found 1"),
        ("1,2,3\n4,5,good\n", ':2: rating "good" is not a finite number, expected one such as 3.5'),
        ("1,2,3,4\n1,3,3,soon\n",
         ':2: timestamp "soon" is not an integer, expected one such as 978300760'),
        ("user,item\n1,2\n,2\n", ":3: user is empty, expected an id"),
        ('1,2\n1,"2\n', ":2: quoted field is not closed, expected a closing quote on the same "
                        "line"),
    )

    def test_is_named_with_file_and_line_and_what_was_expected(self):
        for text, message in self.CASES:
            with self.subTest(text=text):
                self.write("in.csv", text)
                self.assertEqual(self.refusal("in.csv", "-o", "m.zxm", status=tool.BAD_INPUT),
                                 f"zorvex: in.csv{message}\n")
                os.remove(self.path("in.csv"))
                self.assert_untouched()

    def test_on_standard_input_is_named_so(self):
        self.assertEqual(
            self.refusal("-", "-o", "m.zxm", input="1,2\n3\n", status=tool.BAD_INPUT),
            "zorvex: standard input:2: expected 2 fields (user,item), found 1\n")
        self.assert_untouched()

    def test_includes_gzip_data_that_is_none_or_cut_off(self):
        packed = gzip.compress(DATA.encode(), mtime=0)
        for contents, message in (
                (DATA.encode(), "is not gzip data, expected it because the name ends in .gz"),
                (packed[:-9], "gzip data is cut off, expected its end")):
            with open(self.path("in.csv.gz"), "wb") as file:
                file.write(contents)
            self.assertEqual(
                self.refusal("in.csv.gz", "-o", "m.zxm", status=tool.BAD_INPUT),
                f"zorvex: in.csv.gz: {message}\n")
            os.remove(self.path("in.csv.gz"))
            self.assert_untouched()

    def test_that_is_not_there_is_a_failed_input(self):
        self.assertEqual(
            self.refusal("none.csv", "-o", "m.zxm", status=tool.INPUT_OUTPUT),
            "zorvex: none.csv: cannot be opened: No such file or directory\n")
        self.assertEqual(self.refusal(".", "-o", "m.zxm", status=tool.INPUT_OUTPUT),
                         "zorvex: .: cannot be read: Is a directory\n")
        self.assert_untouched()

    def test_makes_training_diverge_without_a_model(self):
        error = self.refusal("data.csv", "-o", "m.zxm", "--alpha", 3e38, "--regularization", 1,
                             status=tool.FAILURE)
        self.assertEqual(error.splitlines()[-1],
                         "zorvex: training diverged in epoch 1: numbers are no longer finite; a "
                         "smaller --alpha or a larger --regularization may help; m.zxm is "
                         "untouched")
        self.assert_untouched()


class NoPlaceToWrite(FailureTest):
    def test_is_found_before_the_training(self):
        os.mkdir(self.path("folder"))
        os.mkdir(self.path("locked"), mode=0o500)
        self.before["folder"] = self.before["locked"] = None
        places = [("none/m.zxm", "none/m.zxm: cannot be written: No such file or directory"),
                  ("data.csv/m.zxm", "data.csv/m.zxm: cannot be written: Not a directory"),
                  ("folder", "folder: is no regular file, expected a file that can be replaced"),
                  ("/dev/full",
                   "/dev/full: is no regular file, expected a file that can be replaced")]
        if os.geteuid() != 0:  # who may write everywhere
            places.append(("locked/m.zxm", "locked/m.zxm: cannot be written: Permission denied"))
        for place, message in places:
            with self.subTest(place=place):
                self.assertEqual(
                    self.refusal("data.csv", "-o", place, *FOREVER, status=tool.INPUT_OUTPUT),
                    f"zorvex: {message}\n")
                self.assertEqual(sorted(os.listdir(self.folder)), sorted(self.before))
                self.assertEqual(os.listdir(self.path("folder")), [])
                self.assertEqual(os.listdir(self.path("locked")), [])

    def test_for_the_split_is_found_before_the_training(self):
        for option in ("--write-train", "--write-test"):
            with self.subTest(option=option):
                error = self.refusal("data.csv", "-o", "m.zxm", "--holdout", 0.5, *FOREVER, option,
                                     "none/part.csv", status=tool.INPUT_OUTPUT)
                self.assertEqual(
                    error.splitlines()[-1],
                    "zorvex: none/part.csv: cannot be written: No such file or directory")
                self.assert_untouched()

    def test_on_standard_output_leaves_the_whole_model(self):
        with open("/dev/full", "w", encoding="utf-8") as full:
            process = self.start("train", "data.csv", "-o", "m.zxm", *SMALL, "--seed", 8,
                                 stdout=full)
            error = process.communicate(timeout=60)[1]
        self.assertEqual(process.returncode, tool.INPUT_OUTPUT)
        self.assertEqual(error.splitlines()[-1],
                         "zorvex: standard output: No space left on device")
        self.run_tool("train", "data.csv", "-o", "other.zxm", *SMALL, "--seed", 8)
        self.assertEqual(self.read_bytes("m.zxm"), self.read_bytes("other.zxm"))
        self.assertEqual(self.read_bytes("m.zxm.ids"), self.read_bytes("other.zxm.ids"))


class NoRoom(FailureTest):
    """A limit on the size of files stands for a disk that is full."""

    def limited(self, size, *options, status=tool.INPUT_OUTPUT):
        def limit():
            resource.setrlimit(resource.RLIMIT_FSIZE, (size, size))

        return self.run_tool("train", "data.csv", "-o", "m.zxm", *SMALL, *options, status=status,
                             preexec_fn=limit)[1].splitlines()[-1]

    def test_for_the_model_leaves_the_old_one(self):
        size = len(self.before["m.zxm"])
        for room in (0, 100, 800, size // 2, size - 1):
            with self.subTest(room=room):
                self.assertRegex(self.limited(room), r"\Azorvex: m\.zxm: ")
                self.assert_untouched()
        self.limited(size, status=tool.DONE)
        self.assertNotEqual(self.contents(), self.before)

    def test_for_the_ids_leaves_the_old_pair(self):
        # Long names make the ids larger than the model.
        self.write("data.csv", DATA.replace("u", "user" * 50))
        self.run_tool("train", "data.csv", "-o", "m.zxm", *SMALL)
        self.before = self.contents()
        size = len(self.before["m.zxm.ids"])
        self.assertGreater(size, len(self.before["m.zxm"]))
        self.assertRegex(self.limited(size - 1, "--seed", 5), r"\Azorvex: m\.zxm\.ids")
        self.assert_untouched()
        self.run_tool("info", "m.zxm")

    def test_for_the_split_leaves_the_old_model(self):
        self.assertEqual(
            self.limited(100, "--write-train", "train.csv"),
            "zorvex: train.csv: cannot be written: File too large")
        self.assert_untouched()

    def test_for_a_checkpoint_leaves_the_old_model(self):
        self.assertRegex(self.limited(1000, "--checkpoint", 1), r"\Azorvex: m\.zxm: ")
        self.assert_untouched()


class Interrupt(FailureTest):
    KINDS = ((), ("--algorithm", "bpr"), ("--holdout", "leave-one-out"))

    def interrupted(self, *options, number=signal.SIGINT, at="epoch 3/"):
        """Sends the signal when that line comes and returns the last line."""
        process = self.start("train", "data.csv", "-o", "m.zxm", *FOREVER, *options)
        self.addCleanup(process.stderr.close)
        self.addCleanup(process.stdout.close)
        self.addCleanup(process.kill)
        for line in process.stderr:
            if line.startswith(at):
                break
        process.send_signal(number)
        last = process.stderr.readlines()[-1]
        self.assertEqual(process.wait(timeout=60), tool.INTERRUPTED)
        self.assertEqual(process.stdout.read(), "")
        return last

    def test_leaves_the_old_model_and_nothing_else(self):
        for kind in self.KINDS:
            with self.subTest(kind=kind):
                self.assertEqual(self.interrupted(*kind),
                                 "zorvex: interrupted; m.zxm is untouched\n")
                self.assert_untouched()

    def test_leaves_nothing_where_there_was_nothing(self):
        os.remove(self.path("m.zxm"))
        os.remove(self.path("m.zxm.ids"))
        self.before = self.contents()
        self.interrupted()
        self.assert_untouched()

    def test_may_be_any_signal_that_asks_to_end(self):
        for number in (signal.SIGTERM, signal.SIGHUP):
            with self.subTest(number=number):
                self.interrupted(number=number)
                self.assert_untouched()

    def test_keeps_the_last_checkpoint(self):
        for kind in ((), ("--algorithm", "bpr", "--constant-rate")):
            with self.subTest(kind=kind):
                last = self.interrupted(*kind, "--checkpoint", 5, at="epoch 11/")
                saved = int(last.removeprefix("zorvex: interrupted; m.zxm holds the checkpoint of "
                                              "epoch ").strip())
                self.assertGreaterEqual(saved, 10)
                self.assertEqual(saved % 5, 0)
                self.assertEqual(set(self.contents()), set(self.before))
                self.run_tool("train", "data.csv", "-o", "whole.zxm", "--dim", 8, *kind,
                              "--epochs", saved)
                for suffix in ("", ".ids"):
                    self.assertEqual(self.read_bytes("m.zxm" + suffix),
                                     self.read_bytes("whole.zxm" + suffix))
                    os.remove(self.path("whole.zxm" + suffix))

    def test_before_the_first_checkpoint_leaves_the_old_model(self):
        self.assertEqual(self.interrupted("--checkpoint", 4000000000),
                         "zorvex: interrupted; m.zxm is untouched\n")
        self.assert_untouched()

    def test_ends_waiting_for_input(self):
        os.mkfifo(self.path("pipe"))
        process = self.start("train", "pipe", "-o", "m.zxm")
        self.addCleanup(process.kill)
        with open(self.path("pipe"), "wb", buffering=0) as pipe:
            pipe.write(b"u1,i1\nu2,i2\n")
            self.wait_until(lambda: self.is_drained(pipe) and self.sleeps(process))
            process.send_signal(signal.SIGINT)
            output, error = process.communicate(timeout=60)
        self.assertEqual(process.returncode, tool.INTERRUPTED)
        self.assertEqual((output, error), ("", "zorvex: interrupted\n"))
        os.remove(self.path("pipe"))
        self.assert_untouched()

    @staticmethod
    def is_drained(pipe):
        unread = fcntl.ioctl(pipe, termios.FIONREAD, bytes(4))
        return struct.unpack("i", unread) == (0,)

    @staticmethod
    def sleeps(process):
        with open(f"/proc/{process.pid}/stat", encoding="utf-8") as file:
            return file.read().rpartition(")")[2].split()[0] == "S"

    @staticmethod
    def wait_until(condition):
        while not condition():
            time.sleep(0.01)


class Killed(FailureTest):
    def test_while_it_saves_leaves_a_model_with_its_ids(self):
        for round_number in range(12):
            process = self.start("train", "data.csv", "-o", "m.zxm", *FOREVER, "--checkpoint", 1,
                                 stderr=subprocess.DEVNULL)
            self.addCleanup(process.stdout.close)
            self.addCleanup(process.kill)
            # Rounds wait for different files of the saving, to end it between different steps.
            wanted = (".tmp", "m.zxm.ids.new")[round_number % 2]
            while not any(name.endswith(wanted) for name in os.listdir(self.folder)):
                self.assertIsNone(process.poll())
            process.kill()
            process.wait(timeout=60)
            self.run_tool("info", "m.zxm")
            output, _ = self.run_tool("recommend", "m.zxm", "--user", "u7", "-k", 1)
            self.assertRegex(output, r"\Auser,rank,item,score\nu7,1,i\d+,\S+\n\Z")
            for name in os.listdir(self.folder):
                if name.endswith(".tmp"):
                    os.remove(self.path(name))


if __name__ == "__main__":
    tool.main()
