"""Runs the tool for the tests beside this file."""

import os
import shutil
import subprocess
import sys
import tempfile
import unittest

TOOL = os.environ["ZORVEX_TOOL"]

# Exit statuses.
DONE, FAILURE, USAGE, BAD_INPUT, BAD_MODEL, OUT_OF_MEMORY, INPUT_OUTPUT = range(7)
INTERRUPTED = 130


class ToolTest(unittest.TestCase):
    """A test in an empty folder of its own."""

    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="zorvex-test-")
        self.addCleanup(shutil.rmtree, self.folder)

    def path(self, name):
        return os.path.join(self.folder, name)

    def write(self, name, text):
        with open(self.path(name), "w", encoding="utf-8", newline="") as file:
            file.write(text)
        return name

    def read_bytes(self, name):
        with open(self.path(name), "rb") as file:
            return file.read()

    def start(self, *arguments, environment=None, **options):
        """Starts the tool in the test's folder; its streams are text unless options say else."""
        options.setdefault("text", True)
        return subprocess.Popen([TOOL, *map(str, arguments)], cwd=self.folder,
                                env={**os.environ, **(environment or {})},
                                stdin=options.pop("stdin", subprocess.DEVNULL),
                                stdout=options.pop("stdout", subprocess.PIPE),
                                stderr=options.pop("stderr", subprocess.PIPE), **options)

    def run_tool(self, *arguments, status=DONE, **options):
        """Runs the tool and expects its exit status; returns (standard output, standard error)."""
        text = options.pop("input", None)
        if text is not None:
            options["stdin"] = subprocess.PIPE
        process = self.start(*arguments, **options)
        output, error = process.communicate(text, timeout=300)
        self.assertEqual(process.returncode, status, f"{arguments}: {output}{error}")
        return output, error


def main():
    unittest.main(verbosity=1, argv=[sys.argv[0]])
