"""Model files, tensor files, raw files, NumPy, safetensors, JSON, format detection."""

import ctypes
import os
import shutil
import struct

import numpy as np

from . import mf
from .floats import F
from .mf import address, any_model
from .tensor import adopt, any_tensor, creation, new
from .world import ANY, string_at

MODULE = b"src/zx_serialize"
MAGIC = b"ZXQM"
DESCRIPTOR = struct.Struct("<256sI4I4xQQQ")
TABLES = [b"mf.user_embeddings", b"mf.item_embeddings", b"mf.user_biases", b"mf.item_biases"]


def failed(code, message):
    return code, MODULE, message


def header(model_type, num_tensors, data_offset, file_size, name=b"", version=1):
    return struct.pack("<4sIIIQQ64s56x", MAGIC, version, model_type, num_tensors, data_offset,
                       file_size, name)


def padded(size):
    return (size + 63) // 64 * 64


def model_file(model, name):
    tensors = [tensor for tensor in model.tensors if tensor]
    offset = padded(152 + 304 * len(tensors))
    descriptors, data = b"", b""
    for tensor, title in zip(tensors, TABLES):
        content = tensor.data.tobytes()
        descriptors += DESCRIPTOR.pack(title, tensor.ndim, *tensor.dims, offset + len(data),
                                       len(content), 0)
        data += content.ljust(padded(len(content)), b"\0")
    head = header(0, len(tensors), offset, offset + len(data), name[:63]) + descriptors
    return head.ljust(offset, b"\0") + data


def target(w, name):
    """Where to write: a path, or one that cannot be opened."""
    dice = w.r.random()
    if dice < 0.04:
        return None
    if dice < 0.08:
        return w.path("no such folder/file")
    if dice < 0.1:
        return w.path("")
    return w.path(name)


def opens(path):
    return not (path.endswith(b"/") or b"no such folder" in path)


def content_of(path):
    with open(path, "rb") as file:
        return file.read()


def name_model(w, model):
    """A host gives a model another name, which no writer escapes."""
    name = w.r.choice([b"MatrixFactorization", b"", b"a \"quoted\" %s name", b"n" * 63, b"n" * 64,
                       b"n" * 100, None])
    held = ctypes.create_string_buffer(name) if name is not None else None
    w.kept.append(held)
    model.name_pointer = ctypes.addressof(held) if held else 0
    w.poke(model.pointer + mf.NAME_AT, struct.pack("<Q", model.name_pointer))


def name_of(model):
    return string_at(model.name_pointer) if model.name_pointer else b""


def save_model(w):
    model, path = any_model(w), target(w, "model.zxm")
    if model and w.chance(0.1):
        name_model(w, model)
    if path and opens(path) and w.chance(0.5):
        with open(path, "wb") as file:
            file.write(b"longer than an empty file")
    record, out, wanted = None, b"", None
    if model is None or path is None:
        record = failed(3, b"NULL model or path")
    elif not opens(path):
        record = failed(500, b"Failed to open file for writing")
    elif model.type != 0:
        record, wanted = failed(302, b"Unsupported model type for serialization"), b""
    else:
        wanted = model_file(model, name_of(model))
        count = len([tensor for tensor in model.tensors if tensor])
        out = w.line("[ZORVEX] Model saved to %s (%.2f KB, %u tensors)" % (
            path.decode(), len(wanted) * 0.0009765625, count))
    status = w.call("zx_model_save", address(model), path, record=record, out=out)
    w.same(status, record[0] if record else 0)
    if wanted is not None:
        w.same(content_of(path), wanted, "file")


def some_model_file(w):
    """The bytes of a model file, of late edited by a stranger."""
    r = w.r
    users, items, dim = r.randint(1, 4), r.randint(1, 4), r.randint(1, 3)
    use_bias = w.chance(0.5)
    shapes = [(2, users, dim), (2, items, dim)] + [(1, users, 1), (1, items, 1)] * use_bias
    offset = padded(152 + 304 * len(shapes))
    descriptors, data = [], b""
    for title, (ndim, rows, cols) in zip(TABLES, shapes):
        content = w.tame(rows * cols, 0.2).tobytes()
        descriptors.append([title, ndim, rows, cols, 1, 1, offset + len(data), len(content), 0])
        data += content.ljust(padded(len(content)), b"\0")
    fields = {"model_type": 0, "num_tensors": len(shapes), "version": 1, "magic": MAGIC}
    for _ in range(r.choice([0, 0, 1, 1, 2, 3])):
        vandalise(w, fields, descriptors, offset, len(data))
    count = fields["num_tensors"]
    text = struct.pack("<4sIIIQQ64s56x", fields["magic"], fields["version"], fields["model_type"],
                       count, offset, offset + len(data), b"MatrixFactorization")
    text += b"".join(DESCRIPTOR.pack(*descriptor) for descriptor in descriptors)
    text = text.ljust(offset, b"\0") + data
    if w.chance(0.15):
        text = text[:r.choice([0, 3, 100, 151, 152, 153, 152 + 303, 152 + 304, len(text) - 64,
                               r.randrange(len(text)), len(text) - 1])]
    return text


def vandalise(w, fields, descriptors, offset, length):
    r = w.r
    kind = r.choice(["magic", "version", "type", "count", "name", "name", "dims", "dims", "offset",
                     "size", "size", "swap", "ndim", "drop"])
    victim = r.choice(descriptors)
    if kind == "magic":
        fields["magic"] = r.choice([b"ZXQN", b"\0\0\0\0", b"zxqm"])
    elif kind == "version":
        fields["version"] = r.choice([0, 2, 2 ** 32 - 1])
    elif kind == "type":
        fields["model_type"] = r.choice([1, 2 ** 32 - 1])
    elif kind == "count":
        fields["num_tensors"] = r.choice([0, 1, 3, 5, 1000, 2 ** 31, 2 ** 32 - 1])
    elif kind == "name":
        victim[0] = r.choice([b"user_embeddings", b"x item_embeddings y", b"biases", b"no name",
                              b"", b"x" * 256, b"x" * 241 + b"user_embeddings",
                              b"item_emb\0eddings", b"mf.item_biases", b"mf.user_embeddings",
                              b"mf.item_embeddings"])
    elif kind == "dims":
        victim[2 + r.randrange(2)] = r.choice([0, 1, 2, 3, 5, 2 ** 32 - 1])
    elif kind == "offset":
        victim[6] = r.choice([0, 1, 152, offset + length, offset + length - 4, 2 ** 40, 2 ** 63 - 1,
                              2 ** 63, 2 ** 64 - 1])
    elif kind == "size":
        victim[7] = r.choice([0, 1, 4, abs(victim[7] - 1), (victim[7] + 1) % 2 ** 64,
                              (victim[7] + 4) % 2 ** 64, 2 ** 32,
                              2 ** 63, 2 ** 64 - 1])
    elif kind == "swap":
        r.shuffle(descriptors)
    elif kind == "ndim":
        victim[1] = r.choice([0, 3, 5, 2 ** 32 - 1])
    elif kind == "drop":
        descriptors.remove(victim)
        if not descriptors:
            descriptors.append(victim)


class Reader:
    """A file read from its position; a seek that cannot be leaves the position."""

    def __init__(self, text):
        self.text, self.at = text, 0

    def seek(self, offset):
        if offset < 2 ** 63:
            self.at = offset

    def read(self, size):
        found = self.text[self.at:self.at + size]
        self.at += len(found)
        return found


def shape_scan(descriptors):
    users = items = dim = 0
    use_bias = False
    for raw in descriptors:
        name, _, rows, cols = raw[:4]
        name = name.split(b"\0")[0]
        if b"user_embeddings" in name:
            users, dim = rows, cols
        if b"item_embeddings" in name:
            items = rows
        if b"biases" in name:
            use_bias = True
    return users, items, dim, use_bias


def judge_model_file(text):
    """What loading records before creation, or the descriptors, and the reader behind the table."""
    file = Reader(text)
    head = file.read(152)
    if len(head) < 152:
        return failed(501, b"Failed to read header"), None, None
    magic, version, model_type, count = struct.unpack_from("<4s3I", head)
    if magic != MAGIC:
        return failed(402, b"Invalid file magic"), None, None
    if version > 1:
        return failed(503, b"File version newer than library"), None, None
    if count == 0:
        return failed(100, b"Failed to allocate descriptors"), None, None
    table = file.read(304 * count)
    if len(table) < 304 * count:
        # A table beyond memory may fail to be had before it fails to be read.
        large = 304 * count >= 2 ** 34
        return failed(100, b"Failed to allocate descriptors") if large else (
            failed(501, b"Failed to read descriptors")), None, None
    if model_type != 0:
        return failed(302, b"Unknown model type"), None, None
    return None, [DESCRIPTOR.unpack_from(table, 304 * i) for i in range(count)], file


def source(w, text):
    """Where to read: the text in a file, or nothing that can be read."""
    dice = w.r.random()
    if dice < 0.03:
        return None, None
    if dice < 0.06:
        return w.path("no such folder/file"), None
    if dice < 0.09:
        return w.process.folder.encode(), b""
    path = w.path("input")
    with open(path, "wb") as file:
        file.write(text)
    return path, text


def load_model(w):
    path, text = source(w, some_model_file(w))
    if path is None or text is None:
        record = failed(3, b"NULL path") if path is None else (
            failed(500, b"Failed to open file for reading"))
        w.same(w.call("zx_model_load", path, record=record), None)
        return
    record, descriptors, file = judge_model_file(text)
    if record:
        w.same(w.call("zx_model_load", path, record=record), None)
        return
    users, items, dim, use_bias = shape_scan(descriptors)
    if max(users * dim, items * dim) > 2 ** 12:
        load_huge(w, path, users, items, dim, use_bias)
        return
    record = mf.creation_record(users, items, dim, use_bias)
    if record:
        w.same(w.call("zx_model_load", path, record=record), None)
        return
    contents, complete = file_contents(descriptors, file, users, items, dim, use_bias)
    if not complete:
        w.same(w.call("zx_model_load", path, record=failed(501, b"Failed to read tensor data")),
               None)
        w.generator.top_bits((users + items) * dim)
        return
    out = w.line("[ZORVEX] Model loaded from " + path.decode())
    pointer = w.call("zx_model_load", path, out=out)
    model = mf.expect_created(w, pointer, users, items, dim, use_bias)
    for tensor, pieces in zip(model.tensors, contents):
        for piece in pieces:
            raw = bytearray(tensor.data.tobytes())
            raw[:len(piece)] = piece
            tensor.data[:] = np.frombuffer(bytes(raw), F)


def load_huge(w, path, users, items, dim, use_bias):
    """Extents that no memory holds: creation fails, or is left out where it might not."""
    sizes = [users * dim, items * dim]
    if all(size == 0 or size <= 2 ** 12 or size >= 2 ** 32 - 1 for size in sizes):
        record = mf.creation_record(users, items, dim, use_bias)
        w.same(w.call("zx_model_load", path, record=record), None)


def file_contents(descriptors, file, users, items, dim, use_bias):
    """The pieces that are read into each of the four tensors, and whether all were there."""
    room = [4 * users * dim, 4 * items * dim] + [4 * users * use_bias, 4 * items * use_bias]
    contents = [[], [], [], []]
    for raw in descriptors:
        name, offset, size = raw[0].split(b"\0")[0], raw[6], raw[7]
        if name not in TABLES or not room[TABLES.index(name)]:
            continue
        if size > room[TABLES.index(name)]:
            return contents, False
        file.seek(offset)
        piece = file.read(size)
        if len(piece) < size:
            return contents, False
        contents[TABLES.index(name)].append(piece)
    return contents, True


# Single tensors -----------------------------------------------------------------------------------

def some_tensor(w):
    """A tensor whose elements are there, null, or null data never."""
    tensor = any_tensor(w)
    if tensor is None and w.chance(0.8):
        dims = [w.r.randint(1, 3) for _ in range(w.r.randint(1, 4))]
        tensor = new(w, dims, w.tame(int(np.prod(dims)), 0.2))
    if tensor is not None and (not tensor.readable() or tensor not in w.tensors):
        return None
    return tensor


def written(w, name, tensor, path, wanted, *extra):
    """Calls a writer of one tensor and compares the file."""
    record = None
    if tensor is None or path is None:
        record = failed(3, b"NULL tensor or path")
    elif not opens(path):
        record = failed(500, b"Failed to open file")
    status = w.call(name, tensor.pointer if tensor else None, path, *extra, record=record)
    w.same(status, record[0] if record else 0)
    if record is None:
        w.same(content_of(path), wanted(), "file")


def tensor_bytes(tensor):
    return tensor.data[:tensor.size].tobytes()


def save_tensor(w):
    tensor, path = some_tensor(w), target(w, "tensor.bin")
    name = w.r.choice([None, b"", b"t", b"n" * 255, b"n" * 256, b"n" * 300])

    def wanted():
        data = tensor_bytes(tensor)
        title = (name or b"")[:255]
        return header(2 ** 32 - 1, 1, 512, 512 + len(data)) + DESCRIPTOR.pack(
            title, tensor.ndim, *tensor.dims, 512, len(data), 0) + bytes(56) + data

    written(w, "zx_tensor_save", tensor, path, wanted, name)


def save_raw(w):
    tensor, path = some_tensor(w), target(w, "tensor.raw")
    written(w, "zx_tensor_to_raw", tensor, path, lambda: tensor_bytes(tensor))


def npy(tensor):
    shape = "(" + "".join(f"{extent}," for extent in tensor.dims[:tensor.ndim]) + ")"
    text = "{'descr': '<f4', 'fortran_order': False, 'shape': %s, }" % shape
    text += " " * (-(len(text) + 11) % 64) + "\n"
    return b"\x93NUMPY\1\0" + struct.pack("<H", len(text)) + text.encode() + tensor_bytes(tensor)


def save_npy(w):
    tensor, path = some_tensor(w), target(w, "tensor.npy")
    written(w, "zx_tensor_to_npy", tensor, path, lambda: npy(tensor))


def load_tensor(w):
    """A tensor file, a model file, or what a stranger made of them. Short reads give zeros."""
    r = w.r
    if w.chance(0.25):
        text = some_model_file(w)
    else:
        dims = [r.randint(1, 3) for _ in range(4)]
        ndim = r.randint(1, 4)
        dims[ndim:] = [1] * (4 - ndim)
        data = w.tame(int(np.prod(dims)), 0.2).tobytes()
        offset, size = 512, len(data)
        for _ in range(r.choice([0, 0, 1, 1, 2])):
            kind = r.choice(["ndim", "dims", "offset", "size"])
            if kind == "ndim":
                ndim = r.choice([0, 1, 2, 4, 5, 2 ** 31, 2 ** 32 - 1])
            elif kind == "dims":
                dims[r.randrange(4)] = r.choice([0, 1, 2, 2 ** 32 - 1])
            elif kind == "offset":
                offset = r.choice([0, 1, 511, 513, 512 + len(data), 2 ** 40, 2 ** 63, 2 ** 64 - 1])
            elif kind == "size":
                size = r.choice([0, 1, 3, 4, len(data) - 1, len(data) + 1, len(data) + 4, 2 ** 63,
                                 2 ** 64 - 1])
        text = header(2 ** 32 - 1, 1, 512, 512 + len(data), version=r.choice([1, 0, 7]))
        text += DESCRIPTOR.pack(b"t", ndim, *dims, offset, size, 0) + bytes(56) + data
        if w.chance(0.15):
            text = text[:r.choice([0, 4, 151, 152, 300, 455, 456, 512, len(text) - 1])]
        if w.chance(0.05):
            text = b"ZXQX" + text[4:]
    path, text = source(w, text)
    if path is None or text is None:
        record = failed(3, b"NULL path") if path is None else failed(500, b"Failed to open file")
        w.same(w.call("zx_tensor_load", path, record=record), None)
        return
    file = Reader(text)
    if file.read(152)[:4] != MAGIC:
        record = failed(402, b"Invalid magic")
        w.same(w.call("zx_tensor_load", path, record=record), None)
        return
    _, ndim, d0, d1, d2, d3, offset, size, _ = DESCRIPTOR.unpack(file.read(304).ljust(304, b"\0"))
    ndim = ndim - 2 ** 32 if ndim >= 2 ** 31 else ndim
    record, count = creation(ndim, [d0, d1, d2, d3])
    if record is None and size > 4 * count:
        record = 501, MODULE, ANY
    if record is None and count > 2 ** 12:
        return
    pointer = w.call("zx_tensor_load", path, record=record)
    tensor = adopt(w, pointer, ndim, [d0, d1, d2, d3][:max(ndim, 0)], record, count)
    if tensor:
        file.seek(offset)
        tensor.data[:] = np.frombuffer(file.read(size).ljust(4 * count, b"\0"), F)


def load_raw(w):
    r = w.r
    ndim, dims = r.choice([1, 2, 2, 3, 4]), [r.randint(1, 3) for _ in range(4)]
    if w.chance(0.1):
        ndim = r.choice([0, 5, 2 ** 32 - 1])
    if w.chance(0.15):
        dims[r.randrange(4)] = r.choice([0, 2 ** 32 - 1])
    if 1 <= ndim <= 4 and 2 ** 12 < np.prod(dims[:ndim], dtype=object) < 2 ** 32 - 1:
        return
    count = int(np.prod(dims[:min(ndim, 4)], dtype=object))
    length = max(0, 4 * min(count, 100) + r.choice([0, 0, 4, 1, -1, -4]))
    path, text = source(w, w.tame(length // 4 + 1, 0.2).tobytes()[:length])
    given = w.or_null(w.u32s(dims))
    signed = ndim - 2 ** 32 if ndim >= 2 ** 31 else ndim
    record, size = creation(signed, dims)
    if path is None or given is None:
        record = failed(3, b"NULL path or dims")
    elif text is None:
        record = failed(500, b"Failed to open file")
    elif record is None and len(text) < 4 * size:
        record = failed(501, b"Incomplete read")
    pointer = w.call("zx_tensor_from_raw", path, ndim, given, record=record)
    tensor = adopt(w, pointer, ndim, dims, record, size)
    if tensor:
        tensor.data[:] = np.frombuffer(text[:4 * size], F)


# Exports of models --------------------------------------------------------------------------------

def save_npy_dir(w):
    model = any_model(w)
    folder = w.path("arrays")
    dice = w.r.random()
    if os.path.isdir(folder):
        shutil.rmtree(folder)
    elif os.path.exists(folder):
        os.unlink(folder)
    if dice < 0.04:
        folder = None
    elif dice < 0.1:
        folder = w.path("no such folder/arrays")
    elif dice < 0.4:
        os.mkdir(folder)
    elif dice < 0.5:
        open(folder, "wb").close()
    record, out = None, b""
    if model is None or folder is None:
        record = failed(3, b"NULL model or path")
    elif b"no such folder" in folder:
        record = failed(500, b"Failed to create directory")
    elif model.type != 0:
        record = failed(302, b"Unknown model type")
    elif os.path.isfile(folder):
        record = failed(500, b"Failed to open file")
    else:
        out = w.line("[ZORVEX] Model exported to %s (NumPy format)" % folder.decode())
    status = w.call("zx_model_to_npy_dir", address(model), folder, record=record, out=out)
    w.same(status, record[0] if record else 0)
    if model and folder and b"no such folder" not in folder:
        w.same(os.path.exists(folder), True, "folder")
    if record is None:
        w.same(sorted(os.listdir(folder)), [b"item_embeddings.npy", b"user_embeddings.npy"])
        for tensor, name in zip(model.tensors, (b"user_embeddings", b"item_embeddings")):
            w.same(content_of(folder + b"/" + name + b".npy"), npy(tensor), "file")


def safetensors(entries):
    """The file of a list of (name, tensor or null)."""
    text, begin, data = b"{", 0, b""
    for position, (name, tensor) in enumerate(entries):
        if tensor is None:
            continue
        shape = ",".join(map(str, tensor.dims[:tensor.ndim])).encode()
        end = begin + 4 * tensor.size
        text += b"%s\"%s\":{\"dtype\":\"F32\",\"shape\":[%s],\"data_offsets\":[%d,%d]}" % (
            b"," if position else b"", name, shape, begin, end)
        begin = end
        if tensor.data is not None:
            data += tensor_bytes(tensor)
    text += b"}"
    text = text.ljust((len(text) + 7) // 8 * 8, b" ")
    return struct.pack("<Q", len(text)) + text + data


def save_safetensors(w):
    count = w.r.choice([0, 1, 2, 3])
    entries = []
    for _ in range(count):
        tensor = some_tensor(w)
        name = w.r.choice([b"a", b"user_embeddings", b"", b"with \"quotes\"", b"n" * 500, b"%s"])
        entries.append((name, tensor))
    path = target(w, "list.safetensors")
    tensors = (ctypes.c_void_p * max(count, 1))(
        *[tensor.pointer if tensor else None for _, tensor in entries])
    names = (ctypes.c_char_p * max(count, 1))(*[name for name, _ in entries])
    w.kept.append((tensors, names))
    pointers = [w.or_null(ctypes.addressof(held)) for held in (tensors, names)]
    record = None
    if None in pointers or path is None or count == 0:
        record = failed(3, b"Invalid arguments")
    elif not opens(path):
        record = failed(500, b"Failed to open file")
    status = w.call("zx_tensors_to_safetensors", *pointers, count, path, record=record)
    w.same(status, record[0] if record else 0)
    if record is None:
        w.same(content_of(path), safetensors(entries), "file")


def model_writer(w, name, path, wanted, checks_type=False, line=None):
    """Calls a writer of a model; wanted gives the file of one."""
    model = any_model(w)
    if model and w.chance(0.1):
        name_model(w, model)
    record, out = None, b""
    if model is None or path is None:
        record = failed(3, b"NULL model or path")
    elif checks_type and model.type != 0:
        record = failed(302, b"Unknown model type")
    elif not opens(path):
        record = failed(500, b"Failed to open file")
    elif line:
        out = w.line(line % path.decode())
    status = w.call(name, address(model), path, record=record, out=out)
    w.same(status, record[0] if record else 0)
    if record is None:
        w.same(content_of(path), wanted(model), "file")


def save_model_safetensors(w):
    titles = [title[3:] for title in TABLES]
    model_writer(w, "zx_model_to_safetensors", target(w, "model.safetensors"),
                 lambda model: safetensors([(title, tensor) for title, tensor in
                                            zip(titles, model.tensors) if tensor]),
                 True, "[ZORVEX] Model exported to %s (safetensors format)")


def metadata(model):
    parameters = 0
    if model.type == 0:
        parameters = sum(tensor.size for tensor in model.tensors if tensor)
    lines = [b"{", b"  \"format\": \"zorvex\",", b"  \"version\": 1,",
             b"  \"model_type\": %d," % (model.type - 2 ** 32 if model.type >= 2 ** 31
                                         else model.type),
             b"  \"model_name\": \"%s\"," % name_of(model), b"  \"num_users\": %d," % model.users,
             b"  \"num_items\": %d," % model.items, b"  \"embedding_dim\": %d," % model.dim,
             b"  \"num_parameters\": %d," % parameters, b"  \"tensors\": {", b""]
    text = b"\n".join(lines)
    if model.type == 0:
        text += b",\n".join(
            b"    \"%s\": {\"shape\": [%d, %d], \"dtype\": \"float32\"}" % (name, *tensor.dims[:2])
            for name, tensor in zip((b"user_embeddings", b"item_embeddings"), model.tensors))
    return text + b"\n  }\n}\n"


SCHEMA = b"""{
  "ir_version": 9,
  "producer_name": "zorvex",
  "producer_version": "1",
  "model_type": "matrix_factorization",
  "graph": {
    "inputs": [
      {"name": "user_ids", "type": "uint32", "shape": ["batch"]},
      {"name": "item_ids", "type": "uint32", "shape": ["batch"]}
    ],
    "outputs": [
      {"name": "scores", "type": "float32", "shape": ["batch"]}
    ]
  }
}
"""


def save_metadata(w):
    model_writer(w, "zx_model_metadata_json", target(w, "model.json"), metadata)


def save_schema(w):
    model_writer(w, "zx_model_to_json_schema", target(w, "schema.json"), lambda model: SCHEMA)


# Formats ------------------------------------------------------------------------------------------

EXTENSIONS = {b".zxm": 1, b".npy": 2, b".safetensors": 3, b".json": 5, b".bin": 4, b".raw": 4}


def detect(w):
    r = w.r
    name = r.choice(["model", "model.ZXM", "a.zxm", "a.tar.npy", "data.npy.bak", "a.raw", "a.bin",
                     "a.json", "a.safetensors", "a.", ".zxm", "a.zxm ", "a.jso", "folder.x"])
    text = r.choice([b"ZXQM1234", b"ZXQM123", b"\x93NUMPY\1\0", b"\x93NUMPX\1\0", b"{\"a\": 1}",
                     b"{}", b"{       ", b"", b"12345678", b"\x7b\0\0\0\0\0\0\0", b"ZXQMmore than"])
    path = w.path(name)
    present = w.chance(0.7)
    if present:
        with open(path, "wb") as file:
            file.write(text)
    elif os.path.exists(path):
        os.unlink(path)
    if w.chance(0.05):
        w.same(w.call("zx_detect_format", None), 0)
        return
    dot = path.rfind(b".")
    wanted = EXTENSIONS.get(path[dot:], 0) if dot >= 0 else 0
    if not wanted and present and len(text) >= 8:
        if text[:4] == MAGIC:
            wanted = 1
        elif text[:6] == b"\x93NUMPY":
            wanted = 2
        elif text[:1] == b"{":
            wanted = 5
    w.same(w.call("zx_detect_format", path), wanted)


def extension(w):
    kind = w.r.choice([0, 1, 2, 3, 4, 5, 6, 2 ** 32 - 1])
    wanted = {1: b".zxm", 2: b".npy", 3: b".safetensors", 4: b".bin", 5: b".json"}.get(kind, b"")
    w.same(w.call("zx_format_extension", kind), wanted)


MODEL_FILES = [(2, mf.create), (4, save_model), (8, load_model), (1, mf.host_edit)]
TENSOR_FILES = [(3, save_tensor), (6, load_tensor), (3, save_raw), (5, load_raw), (4, save_npy)]
EXPORTS = [(2, mf.create), (3, save_npy_dir), (3, save_safetensors), (3, save_model_safetensors),
           (3, save_metadata), (2, save_schema), (1, mf.host_edit)]
FORMATS = [(6, detect), (2, extension)]
