"""The interactions as a matrix of SciPy, which the peers train on."""

import numpy
import scipy.sparse

import library as zorvex


def read_matrix(path):
    rows, columns, starts, entries = zorvex.read_interactions(path)
    return scipy.sparse.csr_matrix((numpy.ones(len(entries), dtype=numpy.float32),
                                    entries.astype(numpy.int32), starts.astype(numpy.int32)),
                                   shape=(rows, columns))
