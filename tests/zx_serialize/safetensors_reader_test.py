"""The safetensors package reads the files that the library writes."""

import unittest

import safetensors
import safetensors.numpy

import reader_cases


class SafetensorsReader(reader_cases.Case):
    def check(self, path, expected):
        """Both of the package's ways to read a file give exactly these tensors."""
        for read in (safetensors.numpy.load_file(path), self.opened(path)):
            self.assertEqual(sorted(read), sorted(expected))
            for name, values in expected.items():
                self.same(read[name], values)

    def opened(self, path):
        with safetensors.safe_open(path, framework="np") as file:
            self.assertIsNone(file.metadata())
            return {name: file.get_tensor(name) for name in file.keys()}

    def test_reads_a_tensor_of_every_shape(self):
        for shape in reader_cases.SHAPES:
            with self.subTest(shape=shape):
                path = self.write("safetensors", "t=" + ",".join(map(str, shape)))
                self.check(path, {"t": reader_cases.tensor(shape)})

    def test_reads_many_tensors(self):
        shapes = {f"layer {n}/{'w' * n}": shape for n, shape in enumerate(reader_cases.SHAPES)}
        entries = [f"{name}={','.join(map(str, shape))}" for name, shape in shapes.items()]
        self.check(self.write("safetensors", *entries),
                   {name: reader_cases.tensor(shape, number)
                    for number, (name, shape) in enumerate(shapes.items())})

    def test_reads_names_longer_than_any_fixed_buffer(self):
        names = [letter * 2000 for letter in "abcdefgh"]
        self.check(self.write("safetensors", *(name + "=2,3" for name in names)),
                   {name: reader_cases.tensor((2, 3), number)
                    for number, name in enumerate(names)})

    def test_reads_models(self):
        for model in reader_cases.MODELS:
            with self.subTest(model=model):
                self.check(self.write("model", *model), reader_cases.model_tensors(*model))


if __name__ == "__main__":
    unittest.main()
