"""The shared library and its data, to measure it beside other libraries in one process."""

import ctypes
from ctypes import POINTER, c_bool, c_float, c_int32, c_uint8, c_uint32, c_uint64, c_void_p

import numpy


class Tensor(ctypes.Structure):
    _fields_ = [("refcount", c_uint32), ("dims", c_uint32 * 4), ("ndim", c_uint8),
                ("size", c_uint64), ("capacity", c_uint64), ("data", POINTER(c_float)),
                ("device_buffer", c_void_p), ("on_device", c_uint8), ("owns_data", c_uint8)]


class Model(ctypes.Structure):
    _fields_ = [("type", c_uint32), ("name", ctypes.c_char_p), ("refcount", c_int32),
                ("embedding_dim", c_uint32), ("num_users", c_uint32), ("num_items", c_uint32),
                ("user_embeddings", POINTER(Tensor)), ("item_embeddings", POINTER(Tensor))]


class Sparse(ctypes.Structure):
    _fields_ = [("refcount", c_uint32), ("rows", c_uint32), ("cols", c_uint32), ("nnz", c_uint32),
                ("capacity", c_uint32), ("values", POINTER(c_float)),
                ("col_idx", POINTER(c_uint32)), ("row_ptr", POINTER(c_uint32))]


def load(path):
    library = ctypes.CDLL(str(path))
    ids = POINTER(c_uint32)
    for name, result, arguments in (
            ("zx_set_verbosity", None, [ctypes.c_int]),
            ("zx_rng_seed", None, [c_uint64]),
            ("zx_model_mf_create", POINTER(Model), [c_uint32, c_uint32, c_uint32, c_bool]),
            ("zx_model_release", None, [POINTER(Model)]),
            ("zx_model_save", c_int32, [POINTER(Model), ctypes.c_char_p]),
            ("zx_model_score", POINTER(Tensor), [POINTER(Model), ids, ids, c_uint32]),
            ("zx_tensor_release", None, [POINTER(Tensor)]),
            ("zx_recommend", c_int32, [POINTER(Model), c_uint32, c_uint32, ids, POINTER(c_float)]),
            ("zx_sparse_create", POINTER(Sparse), [c_uint32, c_uint32, c_uint32]),
            ("zx_sparse_release", None, [POINTER(Sparse)]),
            ("zx_model_train_als_epoch", c_int32,
             [POINTER(Model), POINTER(Sparse), c_uint32, c_float, c_float]),
            ("zx_sample_negatives_uniform", None,
             [POINTER(Sparse), ids, ids, c_uint32, c_uint32]),
            ("zx_model_train_step_bpr", c_int32,
             [POINTER(Model), ids, ids, ids, c_uint32, c_float, c_float])):
        function = getattr(library, name)
        function.restype = result
        function.argtypes = arguments
    library.zx_set_verbosity(0)
    return library


def id_pointer(array):
    return array.ctypes.data_as(POINTER(c_uint32))


def embeddings(tensor):
    """A table of a model as an array that shares its memory."""
    return numpy.ctypeslib.as_array(tensor.contents.data, shape=tuple(tensor.contents.dims[:2]))


def make_model(library, num_users, num_items, d, seed=1):
    library.zx_rng_seed(seed)
    return library.zx_model_mf_create(num_users, num_items, d, False)


def tables(model):
    """Copies of a model's two tables."""
    return (embeddings(model.contents.user_embeddings).copy(),
            embeddings(model.contents.item_embeddings).copy())


def read_interactions(path):
    """Rows, columns, where rows begin, and columns of the entries."""
    numbers = numpy.fromfile(path, dtype=numpy.uint32)
    rows, columns, entries = (int(number) for number in numbers[:3])
    return rows, columns, numbers[3:rows + 4], numbers[rows + 4:rows + 4 + entries]


def make_sparse(library, rows, columns, row_starts, entry_columns):
    """The matrix with a value of 1 for every entry."""
    matrix = library.zx_sparse_create(rows, columns, len(entry_columns))
    record = matrix.contents
    numpy.ctypeslib.as_array(record.row_ptr, shape=(rows + 1,))[:] = row_starts
    numpy.ctypeslib.as_array(record.col_idx, shape=(record.nnz,))[:] = entry_columns
    numpy.ctypeslib.as_array(record.values, shape=(record.nnz,))[:] = 1.0
    return matrix
