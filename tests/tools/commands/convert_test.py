"""zorvex convert: tensors from tensor, raw and model files as npy, safetensors and raw files."""

import json
import os
import resource
import struct

import numpy

import tool
from model_cases import Model, ModelTest

MODEL = Model([[1, 2, 3], [4, 5, 6]], [[7, 8, 9]], [0.5, -1], [3])
NUMBERS = (1.5, -2.0, 0.25, 8.0, 1e-3, 7.0)
RAW = struct.pack("<6f", *NUMBERS)


def tensor_file(name, dims, data, **fields):
    """The bytes of a tensor file; the fields of its head may be told otherwise."""
    field = {"version": 1, "type": 0xFFFFFFFF, "count": 1, "ndim": len(dims), "offset": 512,
             "size": len(data), **fields}
    extents = (*dims, *[1] * (4 - len(dims)))
    header = struct.pack("<4sIIIQQ120x", b"ZXQM", field["version"], field["type"], field["count"],
                         512, 512 + len(data))
    descriptor = struct.pack("<256sI4I4xQQ8x", name, field["ndim"], *extents[:4], field["offset"],
                             field["size"])
    return (header + descriptor).ljust(512, b"\0") + data


class Convert(ModelTest):
    def write_bytes(self, name, contents):
        with open(self.path(name), "wb") as file:
            file.write(contents)
        return name

    def fails(self, status, message, *arguments, **options):
        before = sorted(os.listdir(self.folder))
        output, error = self.run_tool("convert", *arguments, status=status, **options)
        self.assertEqual((output, error), ("", f"zorvex: {message}\n"))
        self.assertEqual(sorted(os.listdir(self.folder)), before)

    def safetensors(self, name):
        contents = self.read_bytes(name)
        (length,) = struct.unpack_from("<Q", contents)
        return json.loads(contents[8:8 + length]), contents[8 + length:]


class Tensors(Convert):
    def test_become_arrays_of_numpy(self):
        self.write_bytes("t.zxm", tensor_file(b"w", (2, 3), RAW))
        output, error = self.run_tool("convert", "t.zxm", "--to", "npy", "t.npy")
        self.assertEqual((output, error),
                         ("source  t.zxm\npath    t.npy\ntensor  w\nshape   2x3\n", ""))
        array = numpy.load(self.path("t.npy"), allow_pickle=False)
        self.assertEqual(array.tolist(), numpy.float32(NUMBERS).reshape(2, 3).tolist())

    def test_become_raw_floats_and_come_back(self):
        self.write_bytes("t", tensor_file(b"", (6,), RAW))
        self.run_tool("convert", "t", "--to", "raw", "t.bin")
        self.assertEqual(self.read_bytes("t.bin"), RAW)
        output, _ = self.run_tool("convert", "t.bin", "--shape", "1,3,2", "--to", "npy", "t.npy",
                                  "--json")
        self.assertEqual(json.loads(output), {"source": "t.bin", "path": "t.npy",
                                              "tensor": "tensor", "shape": [1, 3, 2]})
        self.assertEqual(numpy.load(self.path("t.npy")).shape, (1, 3, 2))

    def test_keep_their_names_in_safetensors_files_whatever_these_are(self):
        for name, kept in ((b"w", "w"), (b"", "tensor"), (b"__metadata__", "tensor"),
                           (b'a"b\\\n', 'a"b\\\n'),
                           (b"\xc3\xa4\xff", "\u00e4\ufffd")):
            with self.subTest(name=name):
                self.write_bytes("t", tensor_file(name, (3, 2), RAW))
                self.run_tool("convert", "t", "--to", "safetensors", "s", "--json")
                header, data = self.safetensors("s")
                self.assertEqual(header, {kept: {"dtype": "F32", "shape": [3, 2],
                                                 "data_offsets": [0, 24]}})
                self.assertEqual(data, RAW)

    def test_that_are_damaged_are_refused_with_the_offset(self):
        for message, contents in (
                ("offset 100: the file ends in its header", tensor_file(b"", (6,), RAW)[:100]),
                ("offset 4: the version is 2, expected at most 1",
                 tensor_file(b"", (6,), RAW, version=2)),
                ("offset 8: the model type 7 is not known", tensor_file(b"", (6,), RAW, type=7)),
                ("offset 12: 2 tensors are not in a file of 536 bytes",
                 tensor_file(b"", (6,), RAW, count=2)),
                ("offset 12: 0 tensors are not in a file of 536 bytes",
                 tensor_file(b"", (6,), RAW, count=0)),
                ("offset 408: a tensor has 5 axes, expected 1 to 4",
                 tensor_file(b"", (6,), RAW, ndim=5)),
                ("offset 440: a tensor of 7 has 24 bytes", tensor_file(b"", (7,), RAW)),
                ("offset 440: a tensor of 0 has 0 bytes", tensor_file(b"", (0,), b"")),
                ("offset 440: a tensor of 4294967295x4294967295 has 24 bytes",
                 tensor_file(b"", (0xFFFFFFFF, 0xFFFFFFFF), RAW)),
                ("offset 744: the tensors up to this one have more bytes than the file",
                 self.of_two_that_overlap()),
                ("offset 432: 24 bytes from 513 on are not in the file, which has 536",
                 tensor_file(b"", (6,), RAW, offset=513)),
                ("offset 432: 24 bytes from 18446744073709551615 on are not in the file, which has "
                 "536", tensor_file(b"", (6,), RAW, offset=2**64 - 1))):
            with self.subTest(message=message):
                self.write_bytes("t", contents)
                self.fails(tool.BAD_MODEL, f"t: {message}", "t", "--to", "npy", "out")


    def of_two_that_overlap(self):
        """A file of two tensors, both of which are the whole of its data."""
        whole = tensor_file(b"", (300,), bytes(1200), count=2)
        return whole[:456] + whole[152:456] + whole[760:]


class Raw(Convert):
    def test_floats_must_be_as_many_as_the_shape(self):
        self.write_bytes("r.bin", RAW)
        for shape, text in (("5", "5"), ("7", "7"), ("2,2", "2x2"),
                            ("65536,65536,65536,65536", "65536x65536x65536x65536")):
            self.fails(tool.BAD_INPUT,
                       f"r.bin: is 24 bytes long, expected the length of {text} floats",
                       "r.bin", "--shape", shape, "--to", "npy", "out")

    def test_shapes_that_are_none_are_refused(self):
        self.write_bytes("r.bin", RAW)
        for shape in ("0", "6,", ",6", "a", "2x3", "-1", "2, 3", "4294967296"):
            self.fails(tool.USAGE, f'--shape: "{shape}" is no shape, expected whole numbers from '
                       "1 to 4294967295 such as 3,4", "r.bin", f"--shape={shape}", "--to", "npy",
                       "out")
        self.fails(tool.USAGE, '--shape: "" is no shape, expected whole numbers from 1 to '
                   "4294967295 such as 3,4", "r.bin", "--shape", "", "--to", "npy", "out")
        self.fails(tool.USAGE, '--shape: "1,1,1,1,6" has 5 axes, expected at most 4',
                   "r.bin", "--shape", "1,1,1,1,6", "--to", "npy", "out")

    def test_floats_need_a_shape(self):
        self.write_bytes("r.bin", RAW)
        self.fails(tool.BAD_INPUT,
                   "r.bin: is no model or tensor file; raw floats need --shape",
                   "r.bin", "--to", "npy", "out")


class Models(Convert):
    def test_become_one_safetensors_file(self):
        self.save("m.zxm", MODEL)
        output, _ = self.run_tool("convert", "m.zxm", "--to", "safetensors", "s")
        self.assertEqual(output, "source  m.zxm\npath    s\n")
        header, data = self.safetensors("s")
        self.assertEqual({name: entry["shape"] for name, entry in header.items()},
                         {"user_embeddings": [2, 3], "item_embeddings": [1, 3],
                          "user_biases": [2], "item_biases": [1]})
        self.assertEqual(struct.unpack("<12f", data), (1, 2, 3, 4, 5, 6, 7, 8, 9, 0.5, -1, 3))

    def test_give_the_tensor_that_is_wanted(self):
        self.save("m.zxm", MODEL)
        for part, numbers in (("user_embeddings", [1, 2, 3, 4, 5, 6]),
                              ("item_embeddings", [7, 8, 9]), ("user_biases", [0.5, -1]),
                              ("item_biases", [3])):
            self.run_tool("convert", "m.zxm", "--tensor", part, "--to", "raw", "r")
            self.assertEqual(numpy.fromfile(self.path("r"), "<f4").tolist(), numbers)
        self.run_tool("convert", "m.zxm", "--tensor", "user_biases", "--to", "safetensors", "s")
        self.assertEqual(list(self.safetensors("s")[0]), ["user_biases"])

    def test_need_a_tensor_for_a_file_of_one(self):
        self.save("m.zxm", MODEL)
        self.fails(tool.USAGE, "a file of this format holds one tensor; --tensor says which of "
                   "the model's, and zorvex export --to npy writes all of them",
                   "m.zxm", "--to", "npy", "out")
        self.save("plain.zxm", Model([[1]], [[2]]))
        self.fails(tool.BAD_INPUT, "plain.zxm: the model has no user_biases",
                   "plain.zxm", "--to", "raw", "--tensor", "user_biases", "out")

    def test_options_of_other_sources_are_refused(self):
        self.write_bytes("t", tensor_file(b"", (6,), RAW))
        self.fails(tool.USAGE, "--tensor is for models; this is a file of one tensor",
                   "t", "--to", "raw", "--tensor", "user_biases", "out")
        self.fails(tool.USAGE, "--shape is for raw floats and --tensor for models",
                   "t", "--to", "raw", "--tensor", "user_biases", "--shape", "6", "out")


class Failures(Convert):
    def test_of_a_full_disk_leave_nothing(self):
        self.write_bytes("r.bin", RAW)

        def ten_bytes():
            resource.setrlimit(resource.RLIMIT_FSIZE, (10, 10))
        # Ten bytes of an npy file say how long its header is, and those of a safetensors file too.
        for name, expected in (("raw", 24), ("npy", 152), ("safetensors", 96)):
            self.fails(tool.INPUT_OUTPUT,
                       f"out: 10 bytes were written, expected {expected}",
                       "r.bin", "--shape", "6", "--to", name, "out", preexec_fn=ten_bytes)

    def test_of_a_source_that_is_no_file_do_not_wait(self):
        os.mkfifo(self.path("pipe"))
        message = "pipe: is no regular file, expected one that can be read at any place"
        self.fails(tool.INPUT_OUTPUT, message, "pipe", "--to", "raw", "out")
        self.fails(tool.INPUT_OUTPUT, message, "pipe", "--shape", "6", "--to", "raw", "out")
        self.fails(tool.INPUT_OUTPUT, "none: cannot be opened: No such file or directory",
                   "none", "--to", "raw", "out")

    def test_of_a_model_that_lacks_a_tensor(self):
        self.save("m.zxm", MODEL)
        whole = self.read_bytes("m.zxm")
        self.write_bytes("m.zxm", whole.replace(b"mf.user_embeddings", b"xx.user_embeddings"))
        self.fails(tool.BAD_MODEL, 'm.zxm: offset 152: a model has no tensor '
                   '"xx.user_embeddings"', "m.zxm", "--to", "raw", "--tensor", "user_embeddings",
                   "out")

    def test_of_a_target_that_is_the_source(self):
        self.write_bytes("r.bin", RAW)
        self.fails(tool.USAGE, "r.bin: would overwrite the input",
                   "r.bin", "--shape", "6", "--to", "npy", "r.bin")


if __name__ == "__main__":
    tool.main()
