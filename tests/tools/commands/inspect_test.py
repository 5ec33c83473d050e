"""zorvex inspect: what it says of files of every format, and of files that are damaged."""

import json
import math
import os
import statistics
import struct

import tool
from model_cases import Model, ModelTest

HEADING = "tensor,dtype,shape,offset,bytes,count,min,max,mean,std,not_finite\n"


def npy(dictionary, data=b"", version=1):
    text = dictionary.encode() + b"\n"
    length = struct.pack("<H" if version == 1 else "<I", len(text))
    return b"\x93NUMPY" + bytes([version, 0]) + length + text + data


def npy_of(descr, shape, data=b"", **options):
    return npy(f"{{'descr': '{descr}', 'fortran_order': False, 'shape': {shape}, }}", data,
               **options)


def safetensors(header, data=b""):
    text = header if isinstance(header, bytes) else json.dumps(header).encode()
    return struct.pack("<Q", len(text)) + text + data


def entry(dtype, shape, begin, end):
    return {"dtype": dtype, "shape": shape, "data_offsets": [begin, end]}


class Inspect(ModelTest):
    def write_bytes(self, name, contents):
        with open(self.path(name), "wb") as file:
            file.write(contents)
        return name

    def inspect(self, name):
        """The JSON object, without the name of the file."""
        output, error = self.run_tool("inspect", name, "--json")
        self.assertEqual(error, "")
        result = json.loads(output)
        self.assertEqual(result.pop("file"), name)
        self.assertEqual(result.pop("file_bytes"), os.path.getsize(self.path(name)))
        return result

    def refuses(self, name, message, status=tool.BAD_INPUT):
        output, error = self.run_tool("inspect", name, status=status)
        self.assertEqual((output, error), ("", f"zorvex: {name}: {message}\n"))


class Formats(Inspect):
    def test_model_files_in_plain_lines_and_csv(self):
        self.save("m.zxm", Model([[1, 2], [3, 6]], [[0.5, -0.5]], [1, 1], [math.nan]))
        output, error = self.run_tool("inspect", "m.zxm")
        self.assertEqual(output, "file        m.zxm\n"
                                 "format      model\n"
                                 "file bytes  1664\n"
                                 "\n" + HEADING +
                         "mf.user_embeddings,float32,2x2,1408,16,4,1,6,3,1.8708286933869707,0\n"
                         "mf.item_embeddings,float32,1x2,1472,8,2,-0.5,0.5,0,0.5,0\n"
                         "mf.user_biases,float32,2,1536,8,2,1,1,1,0,0\n"
                         "mf.item_biases,float32,1,1600,4,1,,,,,1\n")
        self.assertEqual(error, "")

    def test_exports_of_every_format(self):
        self.save("m.zxm", Model([[1, -3]], [[math.inf, 4]]))
        user = {"offset": 136, "bytes": 8, "count": 2, "min": -3.0, "max": 1.0, "mean": -1.0,
                "std": 2.0, "not_finite": 0}
        item = {"offset": 144, "bytes": 8, "count": 2, "min": 4.0, "max": 4.0, "mean": 4.0,
                "std": 0.0, "not_finite": 1}
        for name in ("npy", "safetensors", "json", "schema"):
            self.run_tool("export", "-q", "m.zxm", "--to", name, f"x.{name}")
        self.run_tool("convert", "m.zxm", "--tensor", "item_embeddings", "--to", "raw", "x.raw")
        self.assertEqual(self.inspect("x.npy/user_embeddings.npy"), {
            "format": "npy", "tensors": [{"name": "", "dtype": "<f4", "shape": [1, 2],
                                          **user, "offset": 128}]})
        (length,) = struct.unpack_from("<Q", self.read_bytes("x.safetensors"))
        self.assertEqual(self.inspect("x.safetensors"), {
            "format": "safetensors", "tensors": [
                {"name": "user_embeddings", "dtype": "F32", "shape": [1, 2], **user,
                 "offset": 8 + length},
                {"name": "item_embeddings", "dtype": "F32", "shape": [1, 2], **item,
                 "offset": 16 + length}]})
        self.assertEqual(self.inspect("x.raw"), {
            "format": "raw", "tensors": [{"name": "", "dtype": "float32", "shape": [2],
                                          **item, "offset": 0}]})
        self.assertEqual([(t["name"], t["shape"]) for t in self.inspect("x.json")["tensors"]],
                         [("item_embeddings", [1, 2]), ("user_embeddings", [1, 2])])
        self.assertEqual(self.inspect("x.schema"), {"format": "json", "tensors": []})

    def test_numbers_of_other_types_have_no_statistics(self):
        self.write_bytes("a.npy", npy_of("<f8", "(3,)", bytes(24)))
        output, _ = self.run_tool("inspect", "a.npy")
        self.assertEqual(output.splitlines()[-1], ",<f8,3,68,24,,,,,,")
        self.assertEqual(self.inspect("a.npy"), {"format": "npy", "tensors": [
            {"name": "", "dtype": "<f8", "shape": [3], "offset": 68, "bytes": 24}]})

    def test_statistics_of_many_numbers_far_from_0(self):
        numbers = [1e6 + (i % 7) / 8 for i in range(700_000)]
        self.write_bytes("x.bin", struct.pack(f"<{len(numbers)}f", *numbers))
        found = self.inspect("x.bin")["tensors"][0]
        self.assertEqual((found["count"], found["min"], found["max"], found["not_finite"]),
                         (700_000, 1e6, 1e6 + 0.75, 0))
        self.assertAlmostEqual(found["mean"], 1e6 + 0.375, places=6)
        self.assertAlmostEqual(found["std"], statistics.pstdev(numbers[:7]), places=6)

    def test_what_has_no_numbers(self):
        self.write_bytes("x.raw", b"")
        self.assertEqual(self.inspect("x.raw")["tensors"][0]["count"], 0)
        self.write_bytes("x.safetensors", safetensors({"__metadata__": {"a": "b"}}))
        self.assertEqual(self.inspect("x.safetensors"), {"format": "safetensors", "tensors": []})

    def test_arrays_as_others_write_them(self):
        for name, contents, shape in (
                ("of no axes", npy_of("<f4", "()", bytes(4)), []),
                ("empty", npy_of("<f4", "(0, 5)"), [0, 5]),
                ("of version 2", npy_of("<f4", "(2,1)", bytes(8), version=2), [2, 1]),
                ("with other quotes and order",
                 npy('{"shape":(1,), "fortran_order":True,"descr":"<f4"}', bytes(4)), [1])):
            with self.subTest(name):
                self.write_bytes("a.npy", contents)
                self.assertEqual(self.inspect("a.npy")["tensors"][0]["shape"], shape)


class Damage(Inspect):
    def test_of_npy_files(self):
        good = npy_of("<f4", "(2, 3)", bytes(24))
        head = "npy header cannot be read: "
        for message, contents in (
                ("is no npy file", b""),
                ("is no npy file", good[:11]),
                ("is no npy file", b"\x93NUMPX" + good[6:]),
                ("npy version 9 is not known", good[:6] + b"\x09" + good[7:]),
                ("npy header is 65535 bytes long, expected at most 65536, and those in the file",
                 good[:8] + b"\xff\xff" + good[10:]),
                ("npy header is 4294967295 bytes long, expected at most 65536, and those in the "
                 "file", good[:6] + b"\x02\x00" + b"\xff" * 4 + good[12:]),
                ("holds 23 bytes of data, which are not 2x3 elements of <f4", good[:-1]),
                ("holds 25 bytes of data, which are not 2x3 elements of <f4", good + b"\0"),
                ("holds 0 bytes of data, which are not 4294967296x4294967296x16 elements of <f4",
                 npy_of("<f4", "(4294967296, 4294967296, 16)")),
                ('elements of the type "|O" are no numbers', npy_of("|O", "(1,)", bytes(8))),
                ('elements of the type "<U3" are no numbers', npy_of("<U3", "(1,)", bytes(12))),
                ('elements of the type "<f0" are no numbers', npy_of("<f0", "(1,)")),
                (head + 'a string does not end', npy("{'descr")),
                (head + '"" stands where } is expected', npy("{'descr': '<f4'")),
                (head + '"[(\'a\', \'" stands where \' is expected', npy("{'descr': [('a', '<f4')]}")),
                (head + 'the key "more" is not expected here', npy("{'more': 1}")),
                (head + 'the key "descr" is not expected here',
                 npy("{'descr': '<f4', 'descr': '<f4'}")),
                (head + "descr, fortran_order or shape is missing", npy("{'descr': '<f4'}")),
                (head + "something stands behind the dictionary",
                 npy("{'descr': '<f4', 'fortran_order': False, 'shape': ()} x", bytes(4))),
                (head + "an extent is no number of 64 bits",
                 npy_of("<f4", "(18446744073709551616,)")),
                (head + "an extent is no number of 64 bits", npy_of("<f4", "(-1,)")),
                (head + "the shape has too many axes", npy_of("<f4", "(" + "1," * 65 + ")"))):
            with self.subTest(message):
                self.write_bytes("a.npy", contents)
                self.refuses("a.npy", message)

    def test_of_safetensors_files(self):
        head = "safetensors header: tensor "
        lacks = head + '"a" has no dtype, shape and data_offsets as expected'
        for message, contents in (
                ("is too short for a safetensors file", b"1234567"),
                ("safetensors header is 18446744073709551615 bytes long, expected at most 1048576, "
                 "and those in the file", b"\xff" * 8 + b"{}"),
                ("safetensors header is 3 bytes long, expected at most 1048576, and those in the "
                 "file", struct.pack("<Q", 3) + b"{}"),
                ("safetensors header is 1048577 bytes long, expected at most 1048576, and those in "
                 "the file", safetensors(b"{}".ljust(1048577))),
                ("safetensors header is no JSON object", safetensors(b"{")),
                ("safetensors header is no JSON object", safetensors(b" {}")),
                ("safetensors header is no JSON object", safetensors(b"[" * 1048576)),
                ("safetensors header is no JSON object", safetensors([1])),
                (lacks, safetensors({"a": 1})),
                (lacks, safetensors({"a": {"dtype": "F32", "shape": [1]}}, bytes(4))),
                (lacks, safetensors({"a": entry("F32", [-1], 0, 4)}, bytes(4))),
                (lacks, safetensors({"a": entry("F32", [1.5], 0, 4)}, bytes(4))),
                (head + '"a" is of a type that is not known: "X"',
                 safetensors({"a": entry("X", [1], 0, 4)}, bytes(4))),
                (head + '"a" of 1 F32 is not at [0, 4) of 3 bytes of data',
                 safetensors({"a": entry("F32", [1], 0, 4)}, bytes(3))),
                (head + '"a" of 2 F32 is not at [0, 4) of 4 bytes of data',
                 safetensors({"a": entry("F32", [2], 0, 4)}, bytes(4))),
                (head + '"a" of 1 F32 is not at [4, 0) of 4 bytes of data',
                 safetensors({"a": entry("F32", [1], 4, 0)}, bytes(4))),
                (head + '"a" of 4611686018427387905 F32 is not at [0, 4) of 4 bytes of data',
                 safetensors({"a": entry("F32", [2**62 + 1], 0, 4)}, bytes(4))),
                ('safetensors data: tensor "b" begins at 0, expected 4',
                 safetensors({"a": entry("I8", [4], 0, 4), "b": entry("I8", [4], 0, 4)}, bytes(4))),
                ('safetensors data: tensor "b" begins at 5, expected 4',
                 safetensors({"a": entry("I8", [4], 0, 4), "b": entry("I8", [3], 5, 8)}, bytes(8))),
                ("4 bytes stand behind the last tensor",
                 safetensors({"a": entry("F32", [1], 0, 4)}, bytes(8)))):
            with self.subTest(message):
                self.write_bytes("a.safetensors", contents)
                self.refuses("a.safetensors", message)

    def test_of_types_that_no_array_has(self):
        for descr in ("<f3", "<f1", "<i16", "<u3", "<c4", "|b2", "<f32"):
            self.write_bytes("a.npy", npy_of(descr, "(0,)"))
            self.refuses("a.npy", f'elements of the type "{descr}" are no numbers')

    def test_of_deeply_nested_json(self):
        depth = 250_000
        nested = "[" * depth + "]" * depth
        for text in (f'{{"tensors":{nested}}}', f'{{"tensors":{{"a":{nested}}}}}',
                     f'{{"tensors":{{"a":{{"shape":{nested},"dtype":"float32"}}}}}}',
                     f'{{"tensors":{{"a":{{"shape":[1],"dtype":{nested}}}}}}}'):
            self.write("a.json", text)
            self.assertEqual(self.inspect("a.json"), {"format": "json", "tensors": []})
        for fields in (f'"dtype":{nested}', f'"dtype":"F32","shape":{nested}',
                       f'"dtype":"F32","shape":[1],"data_offsets":{nested}'):
            self.write_bytes("a.safetensors", safetensors(f'{{"a":{{{fields}}}}}'.encode()))
            self.refuses("a.safetensors", 'safetensors header: tensor "a" has no dtype, shape and '
                         "data_offsets as expected")

    def test_of_models_whose_head_does_not_say_the_truth(self):
        self.save("m.zxm", Model([[1, 2]], [[3, 4]]))
        whole = self.read_bytes("m.zxm")
        for offset, number, message in (
                (16, 64, "the offset of the data is 64, expected 768"),
                (24, 897, "the size of the file is 897, expected 896"),
                (432, 760, "the data begins at 760, in front of all data")):
            self.write_bytes("m.zxm", whole[:offset] + struct.pack("<Q", number) +
                             whole[offset + 8:])
            self.refuses("m.zxm", f"offset {offset}: {message}", tool.BAD_MODEL)

    def test_of_tensors_that_are_the_whole_file_over_and_over(self):
        count = 200
        length = (152 + 304 * count + 63) // 64 * 64 + 4096
        head = struct.pack("<4sIIIQQ120x", b"ZXQM", 1, 0, count, length - 4096, length)
        one = struct.pack("<256sI4I4xQQ8x", b"a", 1, length // 4, 1, 1, 1, 0, length)
        self.write_bytes("m.zxm", (head + one * count).ljust(length, b"\0"))
        self.refuses("m.zxm", f"offset {152 + 304 + 288}: the tensors up to this one have more bytes "
                     "than the file", tool.BAD_MODEL)

    def test_of_other_files(self):
        self.write("a.raw", "12345")
        self.refuses("a.raw", "is 5 bytes long, which are no 32-bit floats")
        self.write("a.json", '{"a": ')
        self.refuses("a.json", "is no valid JSON")
        self.write("a.json", " " * 1048577)
        self.refuses("a.json", "is 1048577 bytes of JSON, expected at most 1048576")
        self.write("a.zxm", "ZXQM")
        self.refuses("a.zxm", "offset 4: the file ends in its header", tool.BAD_MODEL)
        self.write("a.zxm", "NUMPY")
        self.refuses("a.zxm", "offset 0: is no model or tensor file", tool.BAD_MODEL)
        self.write("a", "any text that is longer than eight bytes")
        self.refuses("a", "is of no format that is known: neither its first bytes nor its name, "
                     "such as .zxm, .npy, .safetensors, .json, .bin or .raw, tell one")

    def test_of_a_model_cut_anywhere(self):
        self.save("m.zxm", Model([[1, 2]], [[3, 4]], [5], [6]))
        whole = self.read_bytes("m.zxm")
        for length in range(0, 1604, 53):
            self.write_bytes("cut.zxm", whole[:length])
            _, error = self.run_tool("inspect", "cut.zxm", status=tool.BAD_MODEL)
            self.assertRegex(error, r"^zorvex: cut\.zxm: offset \d+: ")

    def test_of_files_that_are_huge_but_for_their_contents(self):
        header = b"ZXQM" + struct.pack("<III", 1, 0, 0xFFFFFFFF)
        for name, start, status in (("m.zxm", header, tool.BAD_MODEL),
                                    ("a.npy", b"\x93NUMPY\1\0\0\0", tool.BAD_INPUT),
                                    ("a.safetensors", bytes(8), tool.BAD_INPUT),
                                    ("a.json", b"{}", tool.BAD_INPUT)):
            with open(self.path(name), "wb") as file:
                file.write(start)
                file.truncate(1 << 40)
            self.run_tool("inspect", name, status=status)

    def test_of_what_is_no_file_does_not_wait(self):
        os.mkfifo(self.path("pipe.npy"))
        message = "is no regular file, expected one that can be read at any place"
        self.refuses("pipe.npy", message, tool.INPUT_OUTPUT)
        self.refuses(".", message, tool.INPUT_OUTPUT)
        self.refuses("none", "cannot be opened: No such file or directory", tool.INPUT_OUTPUT)


if __name__ == "__main__":
    tool.main()
