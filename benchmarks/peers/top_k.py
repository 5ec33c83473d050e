#!/usr/bin/env python3
"""The ten best items of a user beside NumPy, implicit and faiss, as many of them as are named.

All find the same items with the same scores.
"""

import ctypes
import sys

import numpy

import library as zorvex
from measuring import Measuring, in_turn, require, seconds_of

D = 64
K = 10
NUM_USERS = 64
CALLS_SECONDS = 0.1


def with_numpy(users, items):
    def best(user):
        scores = items @ users[user]
        chosen = numpy.argpartition(scores, -K)[-K:]
        chosen = chosen[numpy.argsort(-scores[chosen])]
        return chosen, scores[chosen]
    return "NumPy", best


def with_implicit(users, items):
    from implicit.cpu.als import AlternatingLeastSquares

    model = AlternatingLeastSquares(factors=D, num_threads=1)
    model.user_factors, model.item_factors = users, items
    return "implicit", lambda user: model.recommend(user, None, N=K,
                                                    filter_already_liked_items=False)


def with_faiss(users, items):
    import faiss

    faiss.omp_set_num_threads(1)
    index = faiss.IndexFlatIP(D)
    index.add(items)

    def best(user):
        scores, found = index.search(users[user:user + 1], K)
        return found[0], scores[0]
    origin = "Debian" if sys.prefix == sys.base_prefix else "PyPI"
    return f"faiss {faiss.__version__}, {origin}", best


PEERS = {"numpy": with_numpy, "implicit": with_implicit, "faiss": with_faiss}


def ours(library, model):
    items = numpy.zeros(K, dtype=numpy.uint32)
    scores = numpy.zeros(K, dtype=numpy.float32)
    item_pointer = zorvex.id_pointer(items)
    score_pointer = scores.ctypes.data_as(ctypes.POINTER(ctypes.c_float))

    def best(user):
        library.zx_recommend(model, user, K, item_pointer, score_pointer)
        return items, scores
    return "zorvex", best


def check(name, best, expected):
    """The scores agree; so do the items, but for neighbours whose scores are as good as equal."""
    for user in range(8):
        items, scores = (part.copy() for part in expected(user))
        found, found_scores = best(user)
        require(numpy.allclose(scores, found_scores, rtol=1e-4, atol=1e-6),
                f"{name}: scores of user {user}")
        moved = numpy.flatnonzero(items != found)
        gaps = numpy.abs(numpy.diff(scores))
        require(all(gaps[max(place - 1, 0):place + 1].min() < 1e-6 for place in moved),
                f"{name}: items of user {user}")


def seconds_each(best, calls):
    def run():
        for call in range(calls):
            best(call % NUM_USERS)
    return seconds_of(run) / calls


def main():
    measuring = Measuring(__doc__.splitlines()[0],
                          peers={"nargs": "+", "choices": sorted(PEERS)})
    library = measuring.library
    for num_items in (10_000, 100_000, 1_000_000):
        model = zorvex.make_model(library, NUM_USERS, num_items, D)
        users, items = zorvex.tables(model)
        contenders = dict([ours(library, model)] +
                          [PEERS[name](users, items) for name in measuring.arguments.peers])
        for name, best in contenders.items():
            check(name, best, contenders["zorvex"])
        calls = {name: max(1, int(CALLS_SECONDS / seconds_each(best, 3)))
                 for name, best in contenders.items()}
        seconds = in_turn({name: lambda best=best, name=name: seconds_each(best, calls[name])
                           for name, best in contenders.items()}, 7)
        for name, value in seconds.items():
            measuring.report(case="top_k", items=num_items, contender=name, seconds=value)
        library.zx_model_release(model)


if __name__ == "__main__":
    main()
