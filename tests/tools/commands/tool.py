"""What the tests of the tool share: running it, and files for it."""

import os
import subprocess
import sys
import tempfile
import unittest

import models

TOOL = os.environ["ZORVEX_TOOL"]

# Exit statuses.
DONE, FAILURE, USAGE, BAD_INPUT, BAD_MODEL, OUT_OF_MEMORY, INPUT_OUTPUT = range(7)
INTERRUPTED = 130

# The environment of every run: nothing in the user's own decides about colours.
ENVIRONMENT = {k: v for k, v in os.environ.items() if k not in ("NO_COLOR", "TERM")}


def run(*arguments, stdin=None, program=TOOL, **options):
    """Runs the tool to its end; its output as bytes, its messages as text."""
    options.setdefault("env", ENVIRONMENT)
    result = subprocess.run([program, *map(str, arguments)], input=stdin, capture_output=True,
                            check=False, timeout=120, **options)
    result.stderr = result.stderr.decode("utf-8", "backslashreplace")
    return result


def read(path):
    with open(path, "rb") as file:
        return file.read()


class Case(unittest.TestCase):
    """A test with a folder of its own, which is the working directory of its runs."""

    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="zorvex-test-")
        self.addCleanup(folder.cleanup)
        self.folder = folder.name

    def path(self, name):
        return os.path.join(self.folder, name)

    def write(self, name, text):
        with open(self.path(name), "wb") as file:
            file.write(text if isinstance(text, bytes) else text.encode())
        return name

    def write_model(self, name, *tables):
        """Writes a model file, see models.write_model()."""
        models.write_model(self.path(name), *tables)
        return name

    def read_bytes(self, name):
        return read(self.path(name))

    def files(self):
        return sorted(os.listdir(self.folder))

    def tool(self, *arguments, **options):
        return run(*arguments, cwd=self.folder, **options)

    def good(self, *arguments, **options):
        """Runs the tool, which must succeed, and returns its output as text."""
        result = self.tool(*arguments, **options)
        self.assertEqual(result.returncode, 0, result.stderr)
        return result.stdout.decode()

    def fails(self, status, message, *arguments, **options):
        """Runs the tool, which must fail with one line: "zorvex: " and the message."""
        result = self.tool(*arguments, **options)
        self.assertEqual(result.stderr.splitlines()[-1:], ["zorvex: " + message])
        self.assertEqual(result.returncode, status)
        self.assertEqual(result.stdout, b"")
        return result

    def start(self, *arguments, environment=None, **options):
        """Starts the tool; its streams are text unless options say else."""
        options.setdefault("text", True)
        return subprocess.Popen([TOOL, *map(str, arguments)], cwd=self.folder,
                                env={**ENVIRONMENT, **(environment or {})},
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
