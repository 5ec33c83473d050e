"""What the tests of the tool share: running it, and models written by hand."""

import os
import struct
import subprocess
import tempfile
import unittest

TOOL = os.environ["ZORVEX_TOOL"]

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
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = folder.name

    def path(self, name):
        return os.path.join(self.folder, name)

    def write(self, name, text):
        with open(self.path(name), "wb") as file:
            file.write(text if isinstance(text, bytes) else text.encode())
        return name

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

    def files(self):
        return sorted(os.listdir(self.folder))

    def write_model(self, name, users, items, user_biases=None, item_biases=None):
        """Writes a model file of embedding rows; its ids are plain numbers."""
        tensors = [("mf.user_embeddings", users, 2), ("mf.item_embeddings", items, 2)]
        if user_biases is not None:
            tensors.append(("mf.user_biases", [[b] for b in user_biases], 1))
            tensors.append(("mf.item_biases", [[b] for b in item_biases], 1))
        data_offset = (152 + 304 * len(tensors) + 63) // 64 * 64
        table, data = b"", b""
        for tensor_name, rows, ndim in tensors:
            floats = b"".join(struct.pack("<f", x) for row in rows for x in row)
            dims = (len(rows), len(rows[0]) if ndim == 2 else 1, 1, 1)
            table += struct.pack("<256sI4I4xQQQ", tensor_name.encode(), ndim, *dims,
                                 data_offset + len(data), len(floats), 0)
            data += floats.ljust((len(floats) + 63) // 64 * 64, b"\0")
        header = struct.pack("<4sIIIQQ64s56x", b"ZXQM", 1, 0, len(tensors), data_offset,
                             data_offset + len(data), b"MatrixFactorization")
        return self.write(name, (header + table).ljust(data_offset, b"\0") + data)
