"""The aligned allocator, dense tensors and their initialisers."""

import ctypes
import struct

import numpy as np

from .floats import F
from .library import TENSOR
from .rng import NORMAL_ERROR
from .world import CHECK, string_at

MODULE = b"src/zx_memory"
BAD_DIMS = (2, MODULE, b"Invalid tensor dimensions")
OVERFLOW = (5, MODULE, b"Tensor size overflow")
NO_DATA = (100, MODULE, b"Failed to allocate tensor data")
MOST = 2 ** 63 - 1
# Sequences ask for little memory or for more than the process may have, nothing between.
TOO_MUCH = 2 ** 30


class Tensor:
    """A tensor record as it must stand. owned counts the references that the host holds and may
    drop; data is null or an array over the expected elements; near is the error that the next
    comparison grants."""

    def __init__(self, pointer, dims, ndim, size, data_pointer, data, owns_data):
        self.pointer = pointer
        self.dims, self.ndim, self.size, self.capacity = dims, ndim, size, size
        self.data_pointer, self.data, self.owns_data = data_pointer, data, owns_data
        self.refcount = self.owned = 1
        self.device_buffer = 0
        self.on_device = 0
        self.device_data = None
        self.near = (0.0, 0.0)
        self.tame = False  # holds moderate finite numbers, on both sides

    def check(self, w):
        found = TENSOR.unpack(string_at(self.pointer, 64))
        wanted = (self.refcount, *self.dims, self.ndim, self.size, self.capacity,
                  self.data_pointer, self.device_buffer, self.on_device, self.owns_data)
        if found != wanted:
            w.differ("tensor record", found, wanted)
        data = self.data
        if data is not None:
            if string_at(self.data_pointer, data.nbytes) != data.tobytes():
                w.same_array(self.data_pointer, data, *self.near, what="tensor elements")
            self.near = (0.0, 0.0)

    def get(self, row, col):
        """The element accessor: flat in 32 bits, 0 for everything it refuses."""
        if self.data is None or self.ndim < 2 or row >= self.dims[0] or col >= self.dims[1]:
            return F(0)
        return self.data[(row * self.dims[1] + col) & 0xffffffff]

    def matrix(self):
        return self.data[:self.size].reshape(self.dims[0], self.dims[1])

    def readable(self):
        """The elements that the size speaks of are really there."""
        return self.data is not None and len(self.data) >= self.size


def product(ndim, dims):
    """The element count, or None when it overflows."""
    size = 1
    for extent in dims[:ndim]:
        if size and extent and size > MOST // extent:
            return None
        size *= extent
    return size


def creation(ndim, dims):
    """What creating a tensor records, and its size."""
    if dims is None or not 1 <= ndim <= 4:
        return BAD_DIMS, 0
    size = product(ndim, dims)
    if not size:
        return OVERFLOW, 0
    if size >= TOO_MUCH:
        return NO_DATA, 0
    return None, size


def adopt(w, pointer, ndim, dims, record, size):
    """Takes a just created tensor into the model."""
    if record is not None:
        w.same(pointer, None)
        return None
    if not pointer:
        w.differ("result", pointer, "a tensor")
    data_pointer = ctypes.c_uint64.from_address(pointer + 40).value
    w.same((pointer % 128, data_pointer % 128), (0, 0), "alignment")
    data = np.zeros(size, F) if size <= CHECK else None
    tensor = Tensor(pointer, (*dims[:ndim], 1, 1, 1)[:4], ndim, size, data_pointer, data, 1)
    w.tensors.append(tensor)
    return tensor


def some_dims(w):
    r = w.r
    ndim = r.randint(1, 4)
    dims = [r.randint(1, 5) for _ in range(4)]
    if w.chance(0.15):
        ndim = r.choice([0, 5, -1, 2 ** 31 - 1, -2 ** 31])
    if w.chance(0.25):
        dims[r.randrange(4)] = r.choice([0, 1, 2 ** 32 - 1, 2 ** 31])
        if w.chance(0.6):
            dims[r.randrange(4)] = r.choice([0, 2 ** 32 - 1, 2 ** 31])
    size = product(ndim, dims) if 1 <= ndim <= 4 else 0
    if size and 2 ** 10 < size < 2 ** 32 - 1:  # fills memory, or nearly
        dims = [2, 3, 1, 2]
    return ndim, dims


def create(w):
    ndim, dims = some_dims(w)
    given = dims if not w.chance(0.05) else None
    record, size = creation(ndim, given)
    name = w.r.choice(["zx_tensor_create", "zx_tensor_zeros"])
    pointer = w.call(name, ndim, w.u32s(dims) if given else None, record=record)
    tensor = adopt(w, pointer, ndim, dims, record, size)
    if tensor and w.chance(0.7):
        write(w, tensor, w.tame(tensor.size, 0.2))


def create_1d(w):
    size = w.r.choice([0, 1, 2, 7, 17, 2 ** 32 - 1, w.r.randint(1, 12)])
    record, count = creation(1, [size])
    pointer = w.call("zx_tensor_create_1d", size, record=record)
    return adopt(w, pointer, 1, [size], record, count)


def create_2d(w):
    rows, cols = w.r.randint(1, 5), w.r.randint(1, 6)
    if w.chance(0.2):
        rows = w.r.choice([0, 2 ** 32 - 1])
    if w.chance(0.2):
        cols = w.r.choice([0, 2 ** 32 - 1])
    record, size = creation(2, [rows, cols])
    if size == 0 or size < 2 ** 10:
        name = w.r.choice(["zx_tensor_create_2d", "zx_tensor_zeros_2d"])
        tensor = adopt(w, w.call(name, rows, cols, record=record), 2, [rows, cols], record, size)
        if tensor and w.chance(0.7):
            write(w, tensor, w.tame(tensor.size, 0.2))


def new(w, dims, values=None):
    """A tensor that other operations need."""
    record, size = creation(len(dims), dims)
    pointer = w.call("zx_tensor_create", len(dims), w.u32s(dims), record=record)
    tensor = adopt(w, pointer, len(dims), dims, record, size)
    if values is not None:
        write(w, tensor, values)
    return tensor


def write(w, tensor, values):
    """The host writes through the data pointer; no flag moves."""
    values = np.array(values, F)
    tensor.data[:len(values)] = values
    w.poke(tensor.data_pointer, values.tobytes())


def wrap(w):
    r = w.r
    held = w.tame(r.choice([4, 16, 30]), 0.2)
    w.kept.append(held)
    ndim, dims = r.randint(1, 4), [r.randint(1, 2) for _ in range(4)]
    if w.chance(0.15):
        ndim = r.choice([0, 5, 2 ** 32 - 1])
    dice = r.random()
    if dice < 0.15:
        dims[r.randrange(4)] = 0
    elif dice < 0.3:
        # More elements than there are, so that the flat index of an accessor wraps.
        ndim, dims = 2, [200000, 65536, 1, 1]
    elif dice < 0.4:
        ndim, dims = 4, [2 ** 32 - 1] * 4
    elif dice < 0.45:
        ndim, dims = 3, [2 ** 31, 2 ** 31, 4, 1]
    else:
        while product(min(ndim, 4), dims) > len(held):
            dims[r.randrange(4)] = 1
    given = w.or_null(dims)
    data = w.or_null(held.ctypes.data)
    pointer = w.call("zx_tensor_wrap", data, ndim, w.u32s(dims) if given else None)
    if data is None or given is None or not 1 <= ndim <= 4:
        w.same(pointer, None)
        return
    if not pointer:
        w.differ("result", pointer, "a tensor")
    size = product(ndim, dims)
    tensor = Tensor(pointer, (*dims[:ndim], 0, 0, 0)[:4], ndim, size or 0, data, held, 0)
    w.tensors.append(tensor)


def retain(w):
    tensor = w.pick(w.tensors)
    if tensor is None or w.chance(0.05):
        w.same(w.call("zx_tensor_retain", None), None)
        return
    w.same(w.call("zx_tensor_retain", tensor.pointer), tensor.pointer)
    tensor.refcount += 1
    tensor.owned += 1


def drop(w, tensor):
    """A reference is gone, by the host's hand or an owner's."""
    tensor.refcount -= 1
    if tensor.refcount == 0:
        w.tensors.remove(tensor)


def release(w):
    if w.chance(0.05):
        w.call("zx_tensor_release", None)
        return
    mine = [tensor for tensor in w.tensors if tensor.owned]
    if mine:
        release_one(w, w.r.choice(mine))


def release_one(w, tensor):
    w.call("zx_tensor_release", tensor.pointer)
    tensor.owned -= 1
    drop(w, tensor)


def hollow(w):
    """A record made by the host, without elements."""
    ndim = w.r.randint(1, 4)
    dims = [w.r.randint(0, 4) for _ in range(4)]
    record = ctypes.create_string_buffer(
        TENSOR.pack(1, *dims, ndim, product(ndim, dims), 0, 0, 0, 0, 0), 64)
    w.kept.append(record)
    tensor = Tensor(ctypes.addressof(record), tuple(dims), ndim, product(ndim, dims), 0, None, 0)
    tensor.capacity = 0
    return tensor


def any_tensor(w):
    """A tensor, null or a hollow one."""
    if not w.tensors or w.chance(0.04):
        return None
    if w.chance(0.04):
        return hollow(w)
    return w.r.choice(w.tensors)


def address(tensor):
    return tensor.pointer if tensor else None


def indices(w, tensor):
    """A row and a column: inside, at the bounds, far outside, or where the flat index wraps."""
    r = w.r
    if tensor and tensor.dims[:2] == (200000, 65536):
        return 65536, r.choice([0, 3, len(tensor.data) - 1])
    rows, cols = tensor.dims[:2] if tensor else (1, 1)
    row = r.choice([0, rows - 1, rows, r.randrange(rows) if rows else 0, 2 ** 32 - 1])
    col = r.choice([0, cols - 1, cols, r.randrange(cols) if cols else 0, 2 ** 32 - 1])
    row, col = max(row, 0), max(col, 0)
    if tensor and row < rows and col < cols and tensor.ndim >= 2 and tensor.data is not None and (
            (row * cols + col) & 0xffffffff) >= len(tensor.data):
        return 0, 0
    return row, col


def get_2d(w):
    tensor = any_tensor(w)
    row, col = indices(w, tensor)
    wanted = tensor.get(row, col) if tensor else 0.0
    w.same_float(w.call("zx_tensor_get_2d", address(tensor), row, col), wanted)


def set_2d(w):
    tensor = any_tensor(w)
    row, col = indices(w, tensor)
    value = F(w.number())
    status = w.call("zx_tensor_set_2d", address(tensor), row, col, value)
    if tensor is None or tensor.data is None or tensor.ndim < 2:
        w.same(status, 3)
    elif row >= tensor.dims[0] or col >= tensor.dims[1]:
        w.same(status, 4)
    else:
        w.same(status, 0)
        tensor.data[(row * tensor.dims[1] + col) & 0xffffffff] = value
        tensor.on_device = 0


def row_ptr(w):
    tensor = any_tensor(w)
    row, _ = indices(w, tensor)
    got = w.call("zx_tensor_row_ptr", address(tensor), row)
    if tensor is None or tensor.data is None or tensor.ndim < 2 or row >= tensor.dims[0]:
        w.same(got, None)
    elif row * tensor.dims[1] < 2 ** 32:
        w.same(got, tensor.data_pointer + 4 * row * tensor.dims[1])


def accessors(w):
    tensor = any_tensor(w)
    pointer = address(tensor)
    axis = w.r.choice([0, 1, 2, 3, 4, 5, 2 ** 32 - 1])
    got = (w.call("zx_tensor_data", pointer), w.call("zx_tensor_size", pointer),
           w.call("zx_tensor_ndim", pointer), w.call("zx_tensor_dim", pointer, axis))
    if tensor is None:
        w.same(got, (None, 0, 0, 0))
    else:
        extent = tensor.dims[axis] if axis < tensor.ndim else 0
        w.same(got, (tensor.data_pointer or None, tensor.size, tensor.ndim, extent))


def clone(w):
    tensor = any_tensor(w)
    if tensor is None:
        w.same(w.call("zx_tensor_clone", None), None)
        return
    record, size = creation(tensor.ndim, tensor.dims)
    if record is None and tensor.data is not None and len(tensor.data) < size:
        return
    pointer = w.call("zx_tensor_clone", tensor.pointer, record=record)
    copy = adopt(w, pointer, tensor.ndim, tensor.dims, record, size)
    if copy and tensor.data is not None and copy.data is not None:
        copy.data[:] = tensor.data[:size]


def host_flag(w):
    """A host sets the residence flag of a tensor without a device copy: sync asks for one."""
    tensor = w.pick(w.tensors)
    if tensor and not tensor.device_buffer:
        tensor.on_device ^= 1
        w.poke(tensor.pointer + 56, bytes([tensor.on_device]))


def fill_uniform(w):
    tensor, low, high = any_tensor(w), F(w.number()), F(w.number())
    if tensor and (tensor.data is None or tensor.size == 0 or tensor.readable()):
        w.call("zx_rng_fill_uniform", address(tensor), low, high)
        spread(w, tensor, low, high)
    elif tensor is None:
        w.call("zx_rng_fill_uniform", None, low, high)


def spread(w, tensor, low, high):
    if tensor.data is not None and tensor.size:
        tensor.data[:tensor.size] = (high - low) * w.generator.uniforms(tensor.size) + low


def xavier_bound(fan_in, fan_out):
    return np.sqrt(F(6) / F((fan_in + fan_out) & 0xffffffff))


def fill_xavier(w):
    tensor = any_tensor(w)
    fan_in, fan_out = w.r.choice([(0, 0), (4, 6), (1, 1), (2 ** 32 - 1, 1), (2 ** 31, 2 ** 31 + 3),
                                  (2 ** 32 - 1, 0), (w.r.randint(0, 99), w.r.randint(0, 99))])
    if tensor and not (tensor.data is None or tensor.size == 0 or tensor.readable()):
        return
    w.call("zx_rng_fill_xavier", address(tensor), fan_in, fan_out)
    if tensor:
        bound = xavier_bound(fan_in, fan_out)
        spread(w, tensor, -bound, bound)


def he(w, tensor, fan_in):
    """He values into the model's tensor; logf and cosf grant their last bits."""
    tensor.data[:tensor.size] = w.generator.normals(tensor.size) * np.sqrt(F(2) / F(fan_in))
    tensor.near = (2 * NORMAL_ERROR, 0.0)


def fill_he(w):
    tensor, fan_in = any_tensor(w), w.r.choice([0, 1, 4, 2 ** 32 - 1, w.r.randint(1, 99)])
    if tensor and not (tensor.data is None or tensor.size == 0 or tensor.readable()):
        return
    w.call("zx_rng_fill_he", address(tensor), fan_in)
    if tensor and tensor.data is not None and tensor.size:
        he(w, tensor, fan_in)


def rand_uniform(w):
    rows, cols = w.r.choice([0, 1, 3, 4, 2 ** 32 - 1]), w.r.choice([1, 2, 5, 0, 2 ** 31])
    record, size = creation(2, [rows, cols])
    if record is None and size > 2 ** 10 or size == 0 and 0 < rows * cols < 2 ** 32 - 1:
        return
    low, high = F(w.number()), F(w.number())
    pointer = w.call("zx_tensor_rand_uniform", rows, cols, low, high, record=record)
    tensor = adopt(w, pointer, 2, [rows, cols], record, size)
    if tensor:
        spread(w, tensor, low, high)


# Residence ----------------------------------------------------------------------------------------

def upload(w, tensor):
    """What zx_tensor_to_device() returns; the model moves with it."""
    if not w.initialized:
        return 200
    if not w.has_context:
        return 208
    if tensor.size == 0:
        return 208
    tensor.device_data = tensor.data[:tensor.size].copy()
    tensor.on_device = 1
    return 0


def note_buffer(w, tensor):
    """After an upload the record holds a buffer, whose handle the model cannot foresee."""
    if tensor.device_data is not None and not tensor.device_buffer:
        tensor.device_buffer = struct.unpack("<Q", string_at(tensor.pointer + 48, 8))[0]
        w.same(tensor.device_buffer != 0, True, "device buffer")


def residence(w):
    if w.chance(0.06):
        for name in ("zx_tensor_to_device", "zx_tensor_to_host", "zx_tensor_sync"):
            w.same(w.call(name, None), 3)
        return
    tensor = w.pick(w.tensors)
    if tensor is None or not tensor.readable():
        return
    name = w.r.choice(["zx_tensor_to_device", "zx_tensor_to_host", "zx_tensor_sync"])
    status = w.call(name, tensor.pointer)
    if name == "zx_tensor_sync":
        if tensor.on_device:
            name = "zx_tensor_to_host"
        elif tensor.device_buffer:
            name = "zx_tensor_to_device"
        else:
            w.same(status, 0)
            return
    if name == "zx_tensor_to_device":
        w.same(status, upload(w, tensor))
        note_buffer(w, tensor)
    elif not tensor.device_buffer:
        w.same(status, 3)
    else:
        w.same(status, 0)
        tensor.data[:tensor.size] = tensor.device_data
        tensor.on_device = 0


# The allocator ------------------------------------------------------------------------------------

SIZES = [0, 1, 3, 127, 128, 129, 1000, 2 ** 40, 2 ** 62, 2 ** 63 - 1, 2 ** 63, 2 ** 64 - 1]


def keep_block(w, pointer, size):
    """A block must be aligned and writable from end to end."""
    if not pointer:
        w.differ("result", pointer, "a block")
    w.same(pointer % 128, 0, "alignment")
    content = w.r.randbytes(size)
    w.poke(pointer, content)
    w.blocks.append((pointer, content))


def allocate(w):
    size = w.r.choice(SIZES)
    pointer = w.call("zx_malloc_aligned", size)
    if 0 < size < 2 ** 20:
        keep_block(w, pointer, size)
    else:
        w.same(pointer, None)


def allocate_zeroed(w):
    count, size = w.r.choice(SIZES), w.r.choice([0, 1, 2, 4, 7, 2 ** 62, 2 ** 63, 2 ** 64 - 1])
    pointer = w.call("zx_calloc_aligned", count, size)
    if 0 < count * size < 2 ** 20:
        w.same(string_at(pointer, count * size) if pointer else None, bytes(count * size))
        keep_block(w, pointer, count * size)
    else:
        w.same(pointer, None)


def reallocate(w):
    size = w.r.choice(SIZES)
    old, content = (None, b"")
    if w.blocks and w.chance(0.8):
        old, content = w.blocks.pop(w.r.randrange(len(w.blocks)))
        w.same(string_at(old, len(content)), content, "block before it moves")
    pointer = w.call("zx_realloc_aligned", old, len(content), size)
    if size == 0:
        w.same(pointer, None)
    elif size < 2 ** 20:
        kept = min(size, len(content))
        w.same(string_at(pointer, kept) if pointer else None, content[:kept], "moved block")
        keep_block(w, pointer, size)
    else:
        w.same(pointer, None)
        if old:
            w.same(string_at(old, len(content)), content, "block that stays")
            w.blocks.append((old, content))


def free(w):
    if w.chance(0.2) or not w.blocks:
        w.call("zx_free_aligned", None)
        return
    pointer, content = w.blocks.pop(w.r.randrange(len(w.blocks)))
    w.same(string_at(pointer, len(content)), content, "block before it is freed")
    w.call("zx_free_aligned", pointer)


ALLOCATOR = [(3, allocate), (3, allocate_zeroed), (3, reallocate), (2, free)]
OPERATIONS = [(4, create), (2, create_1d), (3, create_2d), (4, wrap), (3, retain), (3, release),
              (4, get_2d), (5, set_2d), (2, row_ptr), (3, accessors), (3, clone), (1, host_flag),
              (4, residence)]
INITIALISERS = [(3, fill_uniform), (3, fill_xavier), (2, fill_he), (2, rand_uniform),
                (2, create_2d)]
