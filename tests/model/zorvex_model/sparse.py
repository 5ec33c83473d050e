"""Sparse matrices in compressed rows."""

import struct

import numpy as np

from .floats import F
from .library import SPARSE
from .tensor import MODULE, adopt, creation
from .world import string_at

BAD_DIMS = (2, MODULE, b"Invalid sparse matrix dimensions")
NO_ARRAYS = (100, MODULE, b"Failed to allocate sparse matrix arrays")


def invalid(message):
    return 401, MODULE, message


class Sparse:
    """A matrix as it must stand."""

    def __init__(self, pointer, rows, cols, nnz, addresses):
        self.pointer, self.rows, self.cols, self.nnz = pointer, rows, cols, nnz
        self.addresses = addresses
        self.refcount = 1
        self.values = np.zeros(nnz, F)
        self.col_idx = np.zeros(nnz, np.uint32)
        self.row_ptr = np.zeros(rows + 1, np.uint32)
        self.buffers = (0, 0, 0)
        self.on_device = 0

    def check(self, w):
        found = SPARSE.unpack(string_at(self.pointer, SPARSE.size))
        wanted = (self.refcount, self.rows, self.cols, self.nnz, self.nnz, *self.addresses,
                  *self.buffers, self.on_device)
        if found != wanted:
            w.differ("sparse record", found, wanted)
        values, col_idx, row_ptr = self.addresses
        for address, wanted in ((col_idx, self.col_idx), (row_ptr, self.row_ptr),
                                (values, self.values)):
            if string_at(address, wanted.nbytes) != wanted.tobytes():
                w.differ("sparse arrays", string_at(address, wanted.nbytes), wanted.tobytes())

    def span(self, row):
        """Where a row's entries lie; of a row that leaves the arrays, the part within them."""
        first, last = (min(int(at), self.nnz) for at in self.row_ptr[row:row + 2])
        return first, max(first, last)

    def get(self, row, col):
        """The binary search, on rows sorted or not."""
        if row >= self.rows or col >= self.cols:
            return F(0)
        low, high = self.span(row)
        while low < high:
            middle = low + (high - low) // 2
            found = self.col_idx[middle]
            if found == col:
                return self.values[middle]
            if found < col:
                low = middle + 1
            else:
                high = middle
        return F(0)


def create(w):
    r = w.r
    rows, cols, nnz = r.randint(1, 5), r.randint(1, 6), r.randint(1, 9)
    dice = r.random()
    if dice < 0.05:
        rows = 0
    elif dice < 0.1:
        cols = 0
    elif dice < 0.15:
        nnz = 0
    elif dice < 0.2:
        nnz = 2 ** 32 - 1
    elif dice < 0.25:
        rows = 2 ** 32 - 1
    make(w, rows, cols, nnz)


def make(w, rows, cols, nnz):
    record = None
    if rows == 0 or cols == 0:
        record = BAD_DIMS
    elif nnz == 0 or max(rows, nnz) == 2 ** 32 - 1:
        record = NO_ARRAYS
    pointer = w.call("zx_sparse_create", rows, cols, nnz, record=record)
    if record is not None:
        w.same(pointer, None)
        return None
    if not pointer:
        w.differ("result", pointer, "a matrix")
    addresses = struct.unpack("<3Q", string_at(pointer + 24, 24))
    w.same([address % 128 for address in (pointer, *addresses)], [0] * 4, "alignment")
    matrix = Sparse(pointer, rows, cols, nnz, addresses)
    w.sparses.append(matrix)
    matrix.check(w)
    if w.chance(0.85):
        fill(w, matrix)
    return matrix


def fill(w, matrix, columns=None):
    """The host fills a matrix, soundly for the most part."""
    r = w.r
    cuts = sorted(r.randint(0, matrix.nnz) for _ in range(matrix.rows - 1))
    row_ptr = [0, *cuts, matrix.nnz]
    columns = columns or matrix.cols
    col_idx = []
    for row in range(matrix.rows):
        count = row_ptr[row + 1] - row_ptr[row]
        if count <= columns and w.chance(0.85):
            col_idx += sorted(r.sample(range(columns), count))
        else:
            col_idx += [r.randrange(columns + 1) for _ in range(count)]
    if w.chance(0.1):
        row_ptr[0] = r.randint(0, matrix.nnz)
    if w.chance(0.1):
        row_ptr[r.randrange(matrix.rows + 1)] = r.choice([0, matrix.nnz, matrix.nnz + 1,
                                                          2 ** 32 - 1])
    if w.chance(0.1):
        col_idx[r.randrange(matrix.nnz)] = r.choice([matrix.cols, matrix.cols - 1, 2 ** 32 - 1, 0])
    store(w, matrix, row_ptr, col_idx, w.tame(matrix.nnz, 0.2))


def store(w, matrix, row_ptr, col_idx, values):
    matrix.row_ptr[:] = row_ptr
    matrix.col_idx[:] = col_idx
    matrix.values[:] = values
    for address, content in zip(matrix.addresses, (matrix.values, matrix.col_idx, matrix.row_ptr)):
        w.poke(address, content.tobytes())


def refill(w):
    matrix = w.pick(w.sparses)
    if matrix:
        fill(w, matrix)


def retain(w):
    matrix = w.pick(w.sparses)
    if matrix is None or w.chance(0.05):
        w.same(w.call("zx_sparse_retain", None), None)
        return
    w.same(w.call("zx_sparse_retain", matrix.pointer), matrix.pointer)
    matrix.refcount += 1


def release(w):
    matrix = w.pick(w.sparses)
    if matrix is None or w.chance(0.05):
        w.call("zx_sparse_release", None)
        return
    w.call("zx_sparse_release", matrix.pointer)
    matrix.refcount -= 1
    if matrix.refcount == 0:
        w.sparses.remove(matrix)


def some_matrix(w):
    return None if w.chance(0.04) else w.pick(w.sparses)


def some_row(w, matrix):
    rows = matrix.rows if matrix else 1
    return w.r.choice([0, rows - 1, w.r.randrange(rows), w.r.randrange(rows), rows, 2 ** 32 - 1])


def get(w):
    matrix = some_matrix(w)
    row = some_row(w, matrix)
    col = w.r.choice([0, 1, 2, 3, 4, 5, 6, 2 ** 32 - 1])
    if matrix is None:
        w.same_float(w.call("zx_sparse_get", None, row, col), 0.0)
    else:
        w.same_float(w.call("zx_sparse_get", matrix.pointer, row, col), matrix.get(row, col))


def arrays(w):
    matrix = some_matrix(w)
    pointer = matrix.pointer if matrix else None
    got = [w.call(name, pointer)
           for name in ("zx_sparse_values", "zx_sparse_col_idx", "zx_sparse_row_ptr")]
    w.same(got, list(matrix.addresses) if matrix else [None] * 3)


def row_nnz(w):
    matrix = some_matrix(w)
    row = some_row(w, matrix)
    wanted = 0
    if matrix and row < matrix.rows:
        first, last = matrix.span(row)
        wanted = last - first
    w.same(w.call("zx_sparse_row_nnz", matrix.pointer if matrix else None, row), wanted)


def get_row(w):
    matrix = some_matrix(w)
    row = some_row(w, matrix)
    room = 12
    cols, vals, count = [np.full(room, 77, kind) for kind in (np.uint32, F, np.uint32)]
    w.kept.append((cols, vals, count))
    arguments = [w.or_null(held.ctypes.data, 0.15) for held in (cols, vals, count)]
    inside = matrix is not None and row < matrix.rows
    status = w.call("zx_sparse_get_row", matrix.pointer if matrix else None, row, *arguments)
    w.same(status, 0 if inside else 4)
    wanted = [np.full(room, 77, kind) for kind in (np.uint32, F, np.uint32)]
    if inside:
        first, last = matrix.span(row)
        if arguments[2]:
            wanted[2][0] = last - first
        if arguments[0] and arguments[1]:
            wanted[0][:last - first] = matrix.col_idx[first:last]
            wanted[1][:last - first] = matrix.values[first:last]
    for got, held in zip((cols, vals, count), wanted):
        w.same(got.tobytes(), held.tobytes(), "row")


def to_dense(w):
    matrix = some_matrix(w)
    if matrix is None:
        w.same(w.call("zx_sparse_to_dense", None), None)
        return
    dims = [matrix.rows, matrix.cols]
    record, size = creation(2, dims)
    dense = adopt(w, w.call("zx_sparse_to_dense", matrix.pointer, record=record), 2, dims, record,
                  size)
    for row in range(matrix.rows):
        for i in range(*matrix.span(row)):
            if matrix.col_idx[i] < matrix.cols:
                dense.data[row * matrix.cols + matrix.col_idx[i]] = matrix.values[i]


def judge(matrix):
    """What validation finds first."""
    row_ptr = matrix.row_ptr.tolist()
    for row in range(matrix.rows):
        if row_ptr[row] > row_ptr[row + 1]:
            return invalid(b"row_ptr is not monotonic")
    if row_ptr[-1] != matrix.nnz:
        return invalid(b"row_ptr[rows] != nnz")
    for row in range(matrix.rows):
        for i in range(row_ptr[row], row_ptr[row + 1]):
            if matrix.col_idx[i] >= matrix.cols:
                return invalid(b"Column index out of bounds")
            if i > row_ptr[row] and matrix.col_idx[i] <= matrix.col_idx[i - 1]:
                return invalid(b"Column indices not sorted")
    return None


def validate(w):
    matrix = some_matrix(w)
    if matrix is None:
        w.same(w.call("zx_sparse_validate", None), 3)
    elif w.chance(0.06):
        # Without one of its arrays for the call.
        missing = w.r.randrange(3)
        w.poke(matrix.pointer + 24 + 8 * missing, bytes(8))
        status = w.call("zx_sparse_validate", matrix.pointer)
        w.poke(matrix.pointer + 24 + 8 * missing, struct.pack("<Q", matrix.addresses[missing]))
        w.same(status, 401)
    else:
        record = judge(matrix)
        status = w.call("zx_sparse_validate", matrix.pointer, record=record)
        w.same(status, 401 if record else 0)


def to_device(w):
    matrix = some_matrix(w)
    if matrix is None:
        w.same(w.call("zx_sparse_to_device", None), 3)
        return
    status = w.call("zx_sparse_to_device", matrix.pointer)
    if not w.initialized:
        w.same(status, 200)
    elif not w.has_context:
        w.same(status, 208)
    else:
        w.same(status, 0)
        found = struct.unpack("<3Q", string_at(matrix.pointer + 48, 24))
        if any(matrix.buffers):
            w.same(found, matrix.buffers, "device buffers")
        w.same(all(found), True, "device buffers")
        matrix.buffers, matrix.on_device = found, 1
        contents(w, matrix)


def contents(w, matrix):
    """What the device copies hold, read back through the buffer functions."""
    for buffer, wanted in zip(matrix.buffers, (matrix.values, matrix.col_idx, matrix.row_ptr)):
        held = np.zeros_like(wanted)
        w.same(w.call("zx_buffer_read", buffer, held.ctypes.data, held.nbytes), 0)
        w.same(held.tobytes(), wanted.tobytes(), "device copy")


OPERATIONS = [(5, create), (2, refill), (2, retain), (3, release), (5, get), (1, arrays),
              (3, row_nnz), (5, get_row), (3, to_dense), (6, validate), (2, to_device)]
