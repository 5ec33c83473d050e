"""NumPy reads the arrays that the library writes, and its raw floats."""

import os
import unittest

import numpy

import reader_cases


class NumpyReader(reader_cases.Case):
    def test_reads_arrays_of_every_shape(self):
        for shape in reader_cases.SHAPES:
            with self.subTest(shape=shape):
                path = self.write("npy", *shape)
                self.same(numpy.load(path, allow_pickle=False), reader_cases.tensor(shape))

    def test_maps_arrays_from_an_aligned_place(self):
        mapped = numpy.load(self.write("npy", 100, 30), mmap_mode="r")
        self.assertEqual(mapped.offset % 64, 0)
        self.same(mapped, reader_cases.tensor((100, 30)))

    def test_reads_raw_floats(self):
        for shape in reader_cases.SHAPES:
            with self.subTest(shape=shape):
                raw = numpy.fromfile(self.write("raw", *shape), dtype="<f4")
                self.same(raw.reshape(shape), reader_cases.tensor(shape))

    def test_reads_the_tables_of_a_model(self):
        for model in reader_cases.MODELS:
            with self.subTest(model=model):
                folder = self.write("npy-dir", *model)
                self.assertEqual(sorted(os.listdir(folder)),
                                 ["item_embeddings.npy", "user_embeddings.npy"])
                expected = reader_cases.model_tensors(*model)
                for name in ("user_embeddings", "item_embeddings"):
                    table = numpy.load(os.path.join(folder, name + ".npy"), allow_pickle=False)
                    self.same(table, expected[name])


if __name__ == "__main__":
    unittest.main()
