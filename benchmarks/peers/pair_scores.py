#!/usr/bin/env python3
"""Scores of 100,000 random pairs beside NumPy's gather and row-wise product; they agree."""

import numpy

import library as zorvex
from measuring import Measuring, in_turn, require, seconds_of

D = 64
PAIRS = 100_000


def main():
    measuring = Measuring(__doc__.splitlines()[0])
    library = measuring.library
    for rows in (2000, 1_000_000):
        model = zorvex.make_model(library, rows, rows, D)
        users, items = zorvex.tables(model)
        chosen = numpy.random.default_rng(5).integers(rows, size=(2, PAIRS), dtype=numpy.uint32)
        user_ids, item_ids = (numpy.ascontiguousarray(ids) for ids in chosen)

        def ours(keep=False):
            tensor = library.zx_model_score(model, zorvex.id_pointer(user_ids),
                                            zorvex.id_pointer(item_ids), PAIRS)
            scores = numpy.ctypeslib.as_array(tensor.contents.data, shape=(PAIRS,))
            kept = scores.copy() if keep else None
            library.zx_tensor_release(tensor)
            return kept

        def with_numpy():
            return numpy.einsum("ij,ij->i", users[user_ids], items[item_ids])

        require(numpy.allclose(ours(keep=True), with_numpy(), rtol=1e-4, atol=1e-6),
                f"scores of {rows} rows")
        seconds = in_turn({"zorvex": lambda: seconds_of(ours),
                           "NumPy": lambda: seconds_of(with_numpy)}, 7)
        for name, value in seconds.items():
            measuring.report(case="pair_scores", rows=rows, contender=name, seconds=value / PAIRS)
        library.zx_model_release(model)


if __name__ == "__main__":
    main()
