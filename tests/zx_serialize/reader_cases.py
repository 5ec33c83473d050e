"""What the tests with other projects' readers share: the program that writes, and what it wrote."""

import os
import subprocess
import tempfile
import unittest

import numpy

WRITER = os.environ["ZORVEX_WRITE_FILES"]

# One to four axes, from one element to ten megabytes.
SHAPES = [(1,), (5,), (17,), (1000003,),
          (1, 1), (3, 4), (1, 1000), (1000, 1), (20011, 128),
          (2, 3, 4), (7, 1, 5), (100, 101, 102),
          (1, 1, 1, 1), (2, 3, 4, 5), (3, 1, 2, 1), (31, 32, 33, 34)]

# Users, items, dimension, biased.
MODELS = [(1, 1, 1, 0), (1, 1, 1, 1), (3, 5, 4, 0), (3, 5, 4, 1), (100, 50, 8, 0),
          (10007, 9001, 64, 0), (10007, 9001, 64, 1)]


def tensor(shape, number=0):
    """The elements that the program gives tensor `number` of a file."""
    count = int(numpy.prod(shape, dtype=numpy.uint64))
    whole = numpy.arange(count, dtype=numpy.uint64) * numpy.uint64(number + 1) % numpy.uint64(65521)
    return (whole.astype(numpy.float32) / numpy.float32(4) - numpy.float32(5)).reshape(shape)


def model_tensors(users, items, dim, biased):
    shapes = {"user_embeddings": (users, dim), "item_embeddings": (items, dim)}
    if biased:
        shapes.update(user_biases=(users,), item_biases=(items,))
    return {name: tensor(shape, number) for number, (name, shape) in enumerate(shapes.items())}


class Case(unittest.TestCase):
    """A test with a folder of its own."""

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = folder.name

    def write(self, form, *arguments):
        """Has the program write a file of this form, and returns its path."""
        path = os.path.join(self.folder, "out")
        subprocess.run([WRITER, form, path, *map(str, arguments)], check=True, timeout=120)
        return path

    def same(self, actual, expected):
        """Same type, same shape, same bits."""
        self.assertEqual(actual.dtype, numpy.dtype("<f4"))
        self.assertEqual(actual.shape, expected.shape)
        self.assertTrue(actual.flags["C_CONTIGUOUS"])
        self.assertEqual(actual.tobytes(), expected.tobytes())
