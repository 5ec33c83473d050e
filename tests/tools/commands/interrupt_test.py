"""Ctrl-C: training and generating end in good order and leave what was there."""

import array
import fcntl
import os
import signal
import subprocess
import termios
import time
import unittest

import tool

ENDLESS = ["--dim", "8", "--epochs", "1000000"]


class Interrupt(tool.Case):
    def setUp(self):
        super().setUp()
        self.good("generate", "--users", "100", "--items", "50", "--interactions", "1500", "-o",
                  "in.csv")
        self.good("train", "in.csv", "-o", "m.zxm", "--dim", "4")
        self.before = {name: tool.read(self.path(name)) for name in self.files()}

    def start(self, *arguments, **options):
        process = subprocess.Popen([tool.TOOL, *arguments], stdout=subprocess.PIPE,
                                   stderr=subprocess.PIPE, cwd=self.folder, text=True, **options)
        self.addCleanup(process.kill)
        return process

    def wait_for(self, process, text):
        for line in process.stderr:
            if text in line:
                return
        self.fail(f"{text} was never said")

    def end(self, process, what=signal.SIGINT):
        process.send_signal(what)
        output, says = process.communicate(timeout=60)
        self.assertEqual(output, "")
        return process.returncode, says.splitlines()[-1]

    def test_training_leaves_the_older_model_alone(self):
        for algorithm in ("als", "bpr"):
            for what in (signal.SIGINT, signal.SIGTERM):
                with self.subTest(algorithm=algorithm, what=what):
                    process = self.start("train", "in.csv", "-o", "m.zxm", "--algorithm",
                                         algorithm, *ENDLESS)
                    self.wait_for(process, "epoch 2/")
                    self.assertEqual(self.end(process, what),
                                     (130, "zorvex: interrupted; m.zxm is untouched"))
                    self.assertEqual(self.before, {name: tool.read(self.path(name))
                                                   for name in self.files()})

    def test_the_last_checkpoint_stays(self):
        process = self.start("train", "in.csv", "-o", "m.zxm", *ENDLESS, "--checkpoint", "1")
        self.wait_for(process, "epoch 3/")
        status, says = self.end(process)
        self.assertEqual(status, 130)
        self.assertRegex(says, r"^zorvex: interrupted; m\.zxm holds the checkpoint of epoch \d+$")
        self.assertEqual(self.files(), ["in.csv", "m.zxm", "m.zxm.ids"])
        self.assertIn("dim                  8\n", self.good("info", "m.zxm"))
        self.assertIn("ids belong to model  yes\n", self.good("info", "m.zxm"))

    def test_waiting_for_input(self):
        reading, writing = os.pipe()
        self.addCleanup(os.close, writing)
        os.write(writing, b"a,x\nb,y\n")
        process = self.start("train", "-", "-o", "m.zxm", stdin=reading)
        os.close(reading)
        left = array.array("i", [1])
        while left[0] != 0:  # until the program has read what is there, and waits for more
            time.sleep(0.01)
            fcntl.ioctl(writing, termios.FIONREAD, left)
        self.assertEqual(self.end(process), (130, "zorvex: interrupted"))

    def test_a_generated_file_is_whole_or_not_there(self):
        process = self.start("generate", "--users", "1000000", "--interactions", "100000000", "-o",
                             "big.csv")
        while len(self.files()) == len(self.before):
            time.sleep(0.01)
        self.assertEqual(self.end(process), (130, "zorvex: interrupted"))
        self.assertEqual(self.files(), sorted(self.before))

    def test_a_signal_that_is_to_be_ignored_is_ignored(self):
        process = self.start("train", "in.csv", "-o", "n.zxm", "--dim", "8", "--epochs", "200",
                             preexec_fn=lambda: signal.signal(signal.SIGINT, signal.SIG_IGN))
        self.wait_for(process, "epoch 2/")
        process.send_signal(signal.SIGINT)
        process.communicate(timeout=60)
        self.assertEqual(process.returncode, 0)


if __name__ == "__main__":
    unittest.main()
