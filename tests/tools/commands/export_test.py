"""zorvex export: what other programs read out of it, and what is left when it fails."""

import csv
import json
import math
import os
import resource
import struct

import numpy

import models
import tool
from model_cases import Model, ModelTest

BIASED = Model([[1, 2, 3], [4, 5, 6]], [[0.5, -0.25, 8]] * 3 + [[0, 1, 0]], [0.1, -1], [3, 2, 1, 0])
PLAIN = Model([[1, 2], [3, 4], [5, 6]], [[7, 8]])
TABLES = ["item_embeddings.npy", "user_embeddings.npy"]


def small_files():
    resource.setrlimit(resource.RLIMIT_FSIZE, (100, 100))


class Export(ModelTest):
    def files(self, folder="."):
        return sorted(os.listdir(self.path(folder)))

    def array(self, name):
        return numpy.load(self.path(name), allow_pickle=False)

    def fails(self, status, message, *arguments, **options):
        output, error = self.run_tool(*arguments, status=status, **options)
        self.assertEqual((output, error), ("", f"zorvex: {message}\n"))

    def save_with_ids(self, name):
        """A model of two users and two items with ids that CSV has to quote."""
        self.write("data.csv", 'user,item\n"a,1",x\n"b ""2""",y\n')
        self.run_tool("train", "data.csv", "-o", name, "--dim", 2)


class Npy(Export):
    def test_is_read_by_numpy_with_the_biases(self):
        self.save("m.zxm", BIASED)
        output, error = self.run_tool("export", "m.zxm", "--to", "npy", "out")
        self.assertEqual((output, error), ("model  m.zxm\npath   out\n", ""))
        self.assertEqual(self.files("out"), ["item_biases.npy", TABLES[0], "user_biases.npy",
                                             TABLES[1]])
        for name in ("users", "items"):
            single = name[:-1]
            table = self.array(f"out/{single}_embeddings.npy")
            self.assertEqual(table.dtype, numpy.dtype("<f4"))
            self.assertEqual(table.tolist(), getattr(BIASED, name))
            biases = self.array(f"out/{single}_biases.npy")
            expected = numpy.float32(getattr(BIASED, f"{single}_biases"))
            self.assertEqual(biases.tolist(), expected.tolist())

    def test_without_biases_or_ids_is_two_files(self):
        self.save("m.zxm", PLAIN)
        output, _ = self.run_tool("--json", "export", "m.zxm", "--to", "npy", "out/")
        self.assertEqual(json.loads(output), {
            "model": "m.zxm", "path": "out/",
            "files": ["user_embeddings.npy", "item_embeddings.npy"]})
        self.assertEqual(self.files("out"), TABLES)

    def test_carries_the_ids_row_by_row(self):
        self.save_with_ids("m.zxm")
        self.run_tool("export", "m.zxm", "--to", "npy", "out")
        self.assertEqual(self.read_bytes("out/user_ids.csv"), b'user\n"a,1"\n"b ""2"""\n')
        self.assertEqual(self.read_bytes("out/item_ids.csv"), b"item\nx\ny\n")

    def test_takes_the_place_of_an_earlier_export_and_leaves_other_files(self):
        self.save("biased.zxm", BIASED)
        self.save("plain.zxm", PLAIN)
        self.run_tool("export", "biased.zxm", "--to", "npy", "out")
        self.write("out/notes.txt", "mine")
        self.run_tool("export", "plain.zxm", "--to", "npy", "out")
        self.assertEqual(self.files("out"), ["item_embeddings.npy", "notes.txt",
                                             "user_embeddings.npy"])
        self.assertEqual(self.array("out/user_embeddings.npy").tolist(), PLAIN.users)

    def test_refuses_a_folder_whose_path_the_library_would_cut(self):
        self.save("m.zxm", PLAIN)
        deep = "/".join(["x" * 200] * 2)
        os.makedirs(self.path(deep))
        longest = f"{deep}/" + "y" * (491 - len(deep) - 1)
        self.run_tool("export", "m.zxm", "--to", "npy", longest)
        self.assertEqual(self.files(longest), TABLES)
        self.fails(tool.USAGE, f"{longest}y: the path of a folder of npy files is 492 bytes "
                   "long, expected at most 491", "export", "m.zxm", "--to", "npy", longest + "y")
        self.assertEqual(self.files(deep), ["y" * (491 - len(deep) - 1)])

    def test_of_a_full_disk_leaves_nothing(self):
        self.save("m.zxm", PLAIN)
        self.fails(tool.INPUT_OUTPUT,
                   "out/user_embeddings.npy: 100 bytes were written, expected 152",
                   "export", "m.zxm", "--to", "npy", "out", preexec_fn=small_files)
        self.assertEqual(self.files(), ["m.zxm"])

    def test_of_a_full_disk_leaves_an_earlier_export_alone(self):
        self.save("m.zxm", PLAIN)
        self.run_tool("export", "m.zxm", "--to", "npy", "out")
        before = self.read_bytes("out/user_embeddings.npy")
        self.run_tool("export", "m.zxm", "--to", "npy", "out", status=tool.INPUT_OUTPUT,
                      preexec_fn=small_files)
        self.assertEqual(self.files("out"), TABLES)
        self.assertEqual(self.read_bytes("out/user_embeddings.npy"), before)

    def test_refuses_a_file_in_the_folders_place(self):
        self.save("m.zxm", PLAIN)
        self.write("out", "mine")
        self.fails(tool.INPUT_OUTPUT, "out: is no folder, expected one or nothing",
                   "export", "m.zxm", "--to", "npy", "out")
        self.fails(tool.INPUT_OUTPUT, "none/out: cannot be made: No such file or directory",
                   "export", "m.zxm", "--to", "npy", "none/out")


class Csv(Export):
    def rows(self, name):
        with open(self.path(name), encoding="utf-8", newline="") as file:
            return list(csv.reader(file))

    def test_has_ids_embeddings_and_biases(self):
        self.save("m.zxm", BIASED)
        self.run_tool("export", "m.zxm", "--to", "csv", "out")
        self.assertEqual(self.files("out"), ["items.csv", "users.csv"])
        self.assertEqual(self.read_bytes("out/users.csv"),
                         b"user,0,1,2,bias\n0,1,2,3,0.1\n1,4,5,6,-1\n")
        self.assertEqual(self.rows("out/items.csv")[-1], ["3", "0", "1", "0", "0"])

    def test_reads_back_as_the_same_numbers_under_their_ids(self):
        self.save_with_ids("m.zxm")
        self.run_tool("export", "m.zxm", "--to", "csv", "out")
        rows = self.rows("out/users.csv")
        self.assertEqual([row[0] for row in rows], ["user", "a,1", 'b "2"'])
        numbers = [[struct.unpack("<f", struct.pack("<f", float(x)))[0] for x in row[1:]]
                   for row in rows[1:]]
        self.assertEqual(numbers, self.load("m.zxm").users)

    def test_of_a_full_disk_leaves_nothing(self):
        self.save("m.zxm", Model([[1 / 3] * 10] * 3, [[1] * 10]))
        self.run_tool("export", "m.zxm", "--to", "csv", "out", status=tool.INPUT_OUTPUT,
                      preexec_fn=small_files)
        self.assertEqual(self.files(), ["m.zxm"])


class Files(Export):
    def test_safetensors_has_every_tensor(self):
        self.save("m.zxm", BIASED)
        self.run_tool("export", "m.zxm", "--to", "safetensors", "out")
        contents = self.read_bytes("out")
        (length,) = struct.unpack_from("<Q", contents)
        header = json.loads(contents[8:8 + length])
        self.assertEqual(list(header), ["user_embeddings", "item_embeddings", "user_biases",
                                        "item_biases"])
        begin, end = header["item_embeddings"]["data_offsets"]
        data = contents[8 + length:][begin:end]
        self.assertEqual(list(struct.unpack("<12f", data)), models.flat(BIASED.items))

    def test_json_says_what_the_model_is(self):
        self.save("m.zxm", BIASED)
        output, _ = self.run_tool("export", "m.zxm", "--to", "json", "out", "--json")
        self.assertEqual(json.loads(output), {"model": "m.zxm", "path": "out"})
        metadata = json.loads(self.read_bytes("out"))
        self.assertEqual((metadata["num_users"], metadata["num_items"], metadata["num_parameters"]),
                         (2, 4, 24))

    def test_schema_says_what_scoring_takes(self):
        self.save("m.zxm", PLAIN)
        self.run_tool("export", "m.zxm", "--to", "schema", "out")
        self.assertEqual(json.loads(self.read_bytes("out"))["producer_version"], "1")

    def test_of_a_full_disk_leave_nothing(self):
        self.save("m.zxm", PLAIN)
        for name, wanted in (("safetensors", "184"), ("json", "more"), ("schema", "more")):
            with self.subTest(to=name):
                self.fails(tool.INPUT_OUTPUT,
                           f"out: 100 bytes were written, expected {wanted}",
                           "export", "m.zxm", "--to", name, "out", preexec_fn=small_files)
                self.assertEqual(self.files(), ["m.zxm"])

    def test_of_a_model_that_lacks_numbers_are_not_made_up(self):
        self.save("m.zxm", BIASED)
        whole = self.read_bytes("m.zxm")
        u32 = struct.Struct("<I").pack
        user, item, user_bias, item_bias = (152 + 304 * i for i in range(4))
        for message, *changes in (
                (f"offset {user + 288}: a tensor of 2x3 has 4 bytes", (user + 288, u32(4))),
                (f'offset {user}: a model has no tensor "xx.user_embeddings"', (user, b"xx")),
                (f"offset {item_bias}: a second mf.item_biases", (user_bias + 3, b"item")),
                ("offset 12: there is no mf.item_biases", (12, u32(3))),
                (f"offset {item + 256}: mf.item_embeddings is 6x2, expected 6x3",
                 (item + 260, u32(6) + u32(2))),
                (f"offset {user_bias + 256}: mf.user_biases is 1, expected 2",
                 (user_bias + 260, u32(1)), (user_bias + 288, u32(4))),
                (f"offset {item_bias + 256}: mf.item_biases is 1x4, expected 4",
                 (item_bias + 256, u32(2) + u32(1) + u32(4)))):
            contents = bytearray(whole)
            for offset, changed in changes:
                contents[offset:offset + len(changed)] = changed
            with open(self.path("m.zxm"), "wb") as file:
                file.write(contents)
            for name in ("csv", "safetensors"):
                with self.subTest(message, to=name):
                    _, error = self.run_tool("export", "m.zxm", "--to", name, "out",
                                             status=tool.BAD_MODEL)
                    self.assertEqual(error, f"zorvex: m.zxm: {message}\n")
        self.assertEqual(self.files(), ["m.zxm"])

    def test_never_take_the_place_of_ids_of_a_linked_model(self):
        os.mkdir(self.path("real"))
        self.save_with_ids("real/m.zxm")
        os.symlink("real/m.zxm", self.path("m.zxm"))
        for path in ("real/m.zxm.ids", "real/m.zxm.ids.new", "m.zxm.ids", "m.zxm.ids.new"):
            with open(self.path(path), "ab"):
                pass
            self.fails(tool.USAGE, f"{path}: would overwrite the input",
                       "export", "m.zxm", "--to", "json", path)

    def test_never_take_the_models_place(self):
        self.save_with_ids("m.zxm")
        for path in ("m.zxm", "./m.zxm", "m.zxm.ids"):
            self.fails(tool.USAGE, f"{path}: would overwrite the input",
                       "export", "m.zxm", "--to", "json", path)

    def test_of_numbers_that_are_not_finite_are_written_with_a_warning(self):
        self.save("m.zxm", Model([[math.inf, 1]], [[math.nan, 2]]))
        _, error = self.run_tool("export", "m.zxm", "--to", "npy", "out")
        self.assertEqual(error, "zorvex: warning: m.zxm: the model holds numbers that are not "
                                "finite\n")
        self.assertEqual(self.array("out/user_embeddings.npy").tolist(), [[math.inf, 1]])
        output, _ = self.run_tool("inspect", "out/item_embeddings.npy", "--json")
        self.assertEqual(json.loads(output)["tensors"][0]["not_finite"], 1)

    def test_refuse_what_is_no_model_and_what_is_no_format(self):
        self.write("m.zxm", "no model")
        self.fails(tool.BAD_MODEL, "m.zxm: is no model file", "export", "m.zxm", "--to", "npy",
                   "out")
        self.run_tool("export", "m.zxm", "--to", "hdf5", "out", status=tool.USAGE)
        self.run_tool("export", "m.zxm", "out", status=tool.USAGE)
        self.assertEqual(self.files(), ["m.zxm"])


if __name__ == "__main__":
    tool.main()
