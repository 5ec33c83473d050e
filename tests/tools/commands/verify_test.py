"""zorvex verify: models that are in order, and the offset of the first fault of those that are not."""

import json
import math
import os
import struct

import tool
from model_cases import Model, ModelTest

# Two users, one item, dimension 3, with biases: four descriptors, then the data of each tensor in 64
# bytes of its own.
MODEL = Model([[1, 2, 3], [4, 5, 6]], [[7, 8, 9]], [0.5, -1], [3])
DATA = 1408
LENGTH = DATA + 4 * 64


def u32(number):
    return struct.pack("<I", number)


def u64(number):
    return struct.pack("<Q", number)


def descriptor(index):
    return 152 + 304 * index


class Verify(ModelTest):
    def setUp(self):
        super().setUp()
        self.save("m.zxm", MODEL)
        self.whole = self.read_bytes("m.zxm")

    def write_bytes(self, contents):
        with open(self.path("m.zxm"), "wb") as file:
            file.write(contents)

    def refuses(self, message):
        output, error = self.run_tool("verify", "m.zxm", status=tool.BAD_MODEL)
        self.assertEqual((output, error), ("", f"zorvex: m.zxm: {message}\n"))

    def refuses_with(self, *changes, message):
        """The file with bytes changed at offsets."""
        contents = bytearray(self.whole)
        for offset, changed in changes:
            contents[offset:offset + len(changed)] = changed
        self.write_bytes(contents)
        self.refuses(message)


class Good(Verify):
    def test_models_are_said_to_be_ok(self):
        for model in (MODEL, Model([[1]], [[2], [3]])):
            self.save("m.zxm", model)
            self.assertEqual(self.run_tool("verify", "m.zxm"), ("m.zxm: ok\n", ""))
        self.save("m.zxm", MODEL)
        output, _ = self.run_tool("verify", "m.zxm", "--json")
        self.assertEqual(json.loads(output), {"model": "m.zxm", "ok": True, "file_bytes": LENGTH,
                                              "ids_file": False})

    def test_models_that_were_trained_are_too(self):
        self.write("data.csv", "ann,x\nbob,y\n")
        for options in ([], ["--algorithm", "bpr", "--bias"]):
            self.run_tool("train", "data.csv", "-o", "t.zxm", "--dim", 5, *options)
            output, _ = self.run_tool("verify", "t.zxm", "--json")
            self.assertIs(json.loads(output)["ids_file"], True)


class Faults(Verify):
    def test_of_the_header(self):
        for offset, changed, message in (
                (0, b"ZXQN", "is no model file"),
                (4, u32(0), "the version is 0, expected 1"),
                (8, u32(0xFFFFFFFF), "the model type is 4294967295, expected 0"),
                (12, u32(3), "the number of tensors is 3, expected 2 or, with biases, 4"),
                (12, u32(0xFFFFFFFF),
                 "the number of tensors is 4294967295, expected 2 or, with biases, 4"),
                (16, u64(1344), "the offset of the data is 1344, expected 1408"),
                (24, u64(LENGTH + 1), f"the size of the file is {LENGTH + 1}, expected {LENGTH}"),
                (95, b"x", "the byte behind the name of the model is 120, expected 0"),
                (96, b"\1", "the byte in the header is 1, expected 0"),
                (151, b"\xff", "the byte in the header is 255, expected 0")):
            with self.subTest(message):
                self.refuses_with((offset, changed), message=f"offset {offset}: {message}")
        self.refuses_with((32, b"x" * 64), message="offset 95: no 0 behind the name of the model")
        self.refuses_with((32, b"x"), message='offset 32: the model is named "xatrixFactorization", '
                                              "expected MatrixFactorization")
        self.refuses_with((32, b"Name\0s"),
                          message="offset 37: the byte behind the name of the model is 115, "
                                  "expected 0")

    def test_of_the_descriptors(self):
        user, item, user_bias = descriptor(0), descriptor(1), descriptor(2)
        for offset, changed, message in (
                (user, b"x", 'a tensor is named "xf.user_embeddings", expected mf.user_embeddings'),
                (user + 19, b"x", "the byte behind a tensor's name is 120, expected 0"),
                (user + 256, u32(3), "the number of axes is 3, expected 2"),
                (user + 260, u32(0), "an extent is 0"),
                (user + 268, u32(2), "an extent behind the last axis is 2, expected 1"),
                (user + 272, u32(1), "an extent behind the last axis is 1, expected 0"),
                (user + 276, b"\1", "the byte in a descriptor is 1, expected 0"),
                (user + 280, u64(DATA + 64),
                 f"the offset of mf.user_embeddings is {DATA + 64}, expected {DATA}"),
                (user + 288, u64(20), "the size of mf.user_embeddings is 20, expected 24"),
                (user + 303, b"\1", "the byte in a descriptor is 1, expected 0"),
                (item + 264, u32(4), "the dimension of the items is 4, expected 3"),
                # Data that overlaps that of the tensor before.
                (item + 280, u64(DATA),
                 f"the offset of mf.item_embeddings is {DATA}, expected {DATA + 64}"),
                (user_bias + 256, u32(2), "the number of axes is 2, expected 1"),
                (user_bias + 260, u32(1), "the extent of mf.user_biases is 1, expected 2")):
            with self.subTest(message):
                self.refuses_with((offset, changed), message=f"offset {offset}: {message}")

    def test_of_shapes_that_no_file_holds(self):
        user = descriptor(0)
        self.refuses_with((user + 260, u32(0xFFFFFFFF) * 2),
                          message=f"offset {user + 288}: mf.user_embeddings is too large for any "
                                  "file")
        self.refuses_with((user + 260, u32(100)), (user + 288, u64(1200)),
                          message=f"offset {user + 288}: the data of mf.user_embeddings ends behind "
                                  "the end of the file")

    def test_of_the_padding(self):
        for offset, where in ((descriptor(4), "between the descriptors and the data"),
                              (DATA - 1, "between the descriptors and the data"),
                              (DATA + 24, "behind mf.user_embeddings"),
                              (DATA + 63, "behind mf.user_embeddings"),
                              (LENGTH - 1, "behind mf.item_biases")):
            self.refuses_with((offset, b"\x07"),
                              message=f"offset {offset}: the byte {where} is 7, expected 0")

    def test_of_the_numbers(self):
        for offset, number, text in ((DATA + 4, math.nan, "mf.user_embeddings is nan"),
                                     (DATA + 64, math.inf, "mf.item_embeddings is inf"),
                                     (DATA + 192, -math.inf, "mf.item_biases is -inf")):
            self.refuses_with((offset, struct.pack("<f", number)),
                              message=f"offset {offset}: a number of {text}")

    def test_of_two_the_first_is_named(self):
        self.refuses_with((DATA + 30, b"\1"), (DATA + 8, struct.pack("<f", math.inf)),
                          message=f"offset {DATA + 8}: a number of mf.user_embeddings is inf")
        self.refuses_with((descriptor(1), b"x"), (4, u32(9)),
                          message="offset 4: the version is 9, expected 1")

    def test_of_the_length(self):
        for length in (LENGTH - 1, LENGTH + 64):
            self.write_bytes(self.whole[:length].ljust(length, b"\0"))
            self.refuses(f"offset 24: the size of the file is {LENGTH}, expected {length}")
        for length in (0, 1, 4, 11, 24, 31):
            self.write_bytes(self.whole[:length])
            self.refuses(f"offset {length}: the file ends in its head")
        self.write_bytes(b"ZX!")
        self.refuses("offset 0: is no model file")
        # The header says the true length, and what the descriptors say is another one.
        for length in (40, 151, 152, 200):
            self.write_bytes(self.whole[:24] + u64(length) + self.whole[32:length])
            self.refuses(f"offset {length}: the file ends in its head")
        for length in (descriptor(1), descriptor(3) + 300, DATA, DATA + 23):
            self.write_bytes(self.whole[:24] + u64(length) + self.whole[32:length])
            self.refuses(f"offset {descriptor(0) + 288}: the data of mf.user_embeddings ends behind "
                         "the end of the file")
        self.write_bytes(self.whole[:24] + u64(LENGTH - 1) + self.whole[32:-1])
        self.refuses(f"offset {LENGTH - 1}: the file ends in the padding behind mf.item_biases")
        self.write_bytes(self.whole[:24] + u64(LENGTH + 64) + self.whole[32:] + bytes(64))
        self.refuses(f"offset {LENGTH}: 64 bytes behind the last tensor")

    def test_of_ids_that_belong_to_another_model(self):
        self.write("data.csv", "ann,x\nbob,y\n")
        self.run_tool("train", "data.csv", "-o", "t.zxm", "--dim", 2)
        os.rename(self.path("t.zxm.ids"), self.path("m.zxm.ids"))
        _, error = self.run_tool("verify", "m.zxm", status=tool.BAD_MODEL)
        self.assertEqual(error, "zorvex: m.zxm.ids: does not belong to m.zxm, expected the ids "
                                "saved with it\n")


class NoFile(Verify):
    def refuses_file(self, name, message):
        output, error = self.run_tool("verify", name, status=tool.INPUT_OUTPUT)
        self.assertEqual((output, error), ("", f"zorvex: {message}\n"))

    def test_is_refused_without_waiting(self):
        for name in ("pipe", "m.zxm.ids"):
            os.mkfifo(self.path(name))
        message = "is no regular file, expected one that can be read at any place"
        self.refuses_file("pipe", f"pipe: {message}")
        self.refuses_file("m.zxm", f"m.zxm.ids: {message}")
        self.refuses_file("none", "none: cannot be opened: No such file or directory")


if __name__ == "__main__":
    tool.main()
