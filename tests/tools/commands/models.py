"""Model files, written and read without the library: hand-made models for the tests, and a look at
what the tool has saved."""

import struct

HEADER = struct.Struct("<4sIIIQQ64s56x")
DESCRIPTOR = struct.Struct("<256sI4IIQQQ")
NAMES = ("mf.user_embeddings", "mf.item_embeddings", "mf.user_biases", "mf.item_biases")


def padded(size):
    return (size + 63) // 64 * 64


def flat(table):
    return [value for row in table for value in row]


def write_model(path, users, items, user_biases=None, item_biases=None):
    """Writes a model of these rows of embeddings; without an ids file, its ids are numbers."""
    d = len(users[0])
    tensors = [((len(users), d), flat(users)), ((len(items), d), flat(items))]
    if item_biases is not None:
        tensors += [((len(users),), user_biases), ((len(items),), item_biases)]
    data_offset = padded(HEADER.size + DESCRIPTOR.size * len(tensors))
    table, data = b"", b""
    for name, (dims, values) in zip(NAMES, tensors):
        size = 4 * len(values)
        table += DESCRIPTOR.pack(name.encode(), len(dims), *dims, *[0] * (4 - len(dims)), 0,
                                 data_offset + len(data), size, 0)
        data += struct.pack(f"<{len(values)}f", *values) + bytes(padded(size) - size)
    header = HEADER.pack(b"ZXQM", 1, 0, len(tensors), data_offset, data_offset + len(data),
                         b"MatrixFactorization")
    with open(path, "wb") as file:
        file.write((header + table).ljust(data_offset, b"\0") + data)


def read_model(path):
    """The tensors by their short names: embeddings as lists of rows, biases as lists."""
    with open(path, "rb") as file:
        contents = file.read()
    count = HEADER.unpack_from(contents)[3]
    tensors = {}
    for i in range(count):
        name, ndim, *dims, _, offset, size, _ = DESCRIPTOR.unpack_from(
            contents, HEADER.size + i * DESCRIPTOR.size)
        values = list(struct.unpack_from(f"<{size // 4}f", contents, offset))
        if ndim == 2:
            values = [values[n * dims[1]:(n + 1) * dims[1]] for n in range(dims[0])]
        tensors[name.rstrip(b"\0").decode().removeprefix("mf.")] = values
    return tensors
