#!/usr/bin/env python3
"""The page on file formats: its readers read what the library writes, its examples are true."""

import os
import re
import subprocess
import tempfile
import unittest
from pathlib import Path

import numpy

PAGE = Path(os.environ["ZORVEX_SOURCE"]) / "docs/formats.md"
WRITER = os.environ["ZORVEX_WRITE_FORMATS"]

SHAPES = {"user_embeddings": (7, 3), "item_embeddings": (11, 3),
          "user_biases": (7,), "item_biases": (11,)}


def block(language):
    """The page's one code block in a language."""
    found, = re.findall(rf"(?ms)^```{language}\n(.*?)^```$", PAGE.read_text(encoding="utf-8"))
    return found


class Formats(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(folder.cleanup)
        cls.folder = Path(folder.name)
        subprocess.run([WRITER], cwd=cls.folder, check=True, timeout=60)
        cls.page = {}
        exec(compile(block("python"), PAGE, "exec"), cls.page)

    def read(self, reader, name):
        return self.page[reader](self.folder / name)

    def assert_same(self, actual, expected):
        self.assertEqual(actual.shape, expected.shape)
        self.assertEqual(actual.tobytes(), expected.tobytes())

    def test_the_readers_read_a_model_alike(self):
        native = self.read("read_native", "biased.zxm")
        named = self.read("read_safetensors", "biased.safetensors")
        self.assertEqual(list(native), ["mf." + name for name in SHAPES])
        self.assertEqual(list(named), list(SHAPES))
        for name, shape in SHAPES.items():
            self.assertEqual(named[name].shape, shape)
            self.assertGreater(len(numpy.unique(named[name])), 5)
            self.assert_same(native["mf." + name], named[name])

    def test_numpy_arrays_hold_the_tables(self):
        native = self.read("read_native", "biased.zxm")
        self.assertEqual({path.name for path in (self.folder / "biased").iterdir()},
                         {"user_embeddings.npy", "item_embeddings.npy"})
        for name in ("user_embeddings", "item_embeddings"):
            self.assert_same(numpy.load(self.folder / "biased" / f"{name}.npy"),
                             native["mf." + name])

    def test_the_reader_reads_a_tensor_file(self):
        tensors = self.read("read_native", "items.tensor")
        self.assertEqual(list(tensors), ["items"])
        self.assert_same(tensors["items"],
                         self.read("read_native", "biased.zxm")["mf.item_embeddings"])

    def test_the_reader_refuses_other_files(self):
        with self.assertRaisesRegex(ValueError, "not a model or tensor file"):
            self.read("read_native", "biased/user_embeddings.npy")

    def test_the_example_model_lies_where_the_page_says(self):
        data = (self.folder / "plain.zxm").read_bytes()
        self.assertEqual(len(data), 960)
        tensors = self.read("read_native", "plain.zxm")
        self.assertEqual(data[768:768 + 48], tensors["mf.user_embeddings"].tobytes())
        self.assertEqual(data[832:832 + 80], tensors["mf.item_embeddings"].tobytes())
        self.assertEqual(data[816:832] + data[912:], bytes(64))

    def test_the_description_is_the_one_shown(self):
        self.assertEqual((self.folder / "described.json").read_text(encoding="utf-8"),
                         block("json"))


if __name__ == "__main__":
    unittest.main()
