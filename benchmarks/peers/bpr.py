#!/usr/bin/env python3
"""BPR triples beside implicit, each with its own sampling of negatives that are no positives.

implicit draws its negatives by their popularity and leaves out a triple whose negative is a
positive. Trained from one start on triples of that kind, both order as many of them in the right
way. A row of either has d numbers, of which implicit uses one for the item's bias.
"""

import numpy
import scipy.sparse
from implicit.cpu.bpr import BayesianPersonalizedRanking

import library as zorvex
from matrices import read_matrix
from measuring import Measuring, fit, fit_seconds, in_turn, require, seconds_of

LEARNING_RATE = 0.05
REGULARIZATION = 0.01
CHECKED_EPOCHS = 10
CHECKED_D = 64
MILLION = 1_000_000


class Ours:
    """The entries in random order, their negatives drawn anew for every epoch."""

    def __init__(self, library, matrix, d):
        self.library = library
        self.num_users, self.num_items = matrix.shape
        self.positives = zorvex.make_sparse(library, *matrix.shape, matrix.indptr, matrix.indices)
        self.model = zorvex.make_model(library, *matrix.shape, d)
        order = numpy.random.default_rng(1).permutation(matrix.nnz)
        of_entries = numpy.repeat(numpy.arange(self.num_users), numpy.diff(matrix.indptr))
        self.users = of_entries[order].astype(numpy.uint32)
        self.items = matrix.indices[order].astype(numpy.uint32)
        self.negatives = numpy.zeros_like(self.items)
        self.sample()

    def sample(self):
        self.library.zx_sample_negatives_uniform(
            self.positives, zorvex.id_pointer(self.users), zorvex.id_pointer(self.negatives),
            len(self.users), self.num_items)

    def step(self, users, items, negatives):
        status = self.library.zx_model_train_step_bpr(
            self.model, zorvex.id_pointer(users), zorvex.id_pointer(items),
            zorvex.id_pointer(negatives), len(users), LEARNING_RATE, REGULARIZATION)
        require(status == 0, "a step failed")

    def step_alone(self):
        self.step(self.users, self.items, self.negatives)

    def step_with_sampling(self):
        self.sample()
        self.step_alone()

    def tables(self):
        return zorvex.tables(self.model)

    def release(self):
        self.library.zx_model_release(self.model)
        self.library.zx_sparse_release(self.positives)


class Implicit:
    def __init__(self, matrix, start):
        users, items = start
        self.matrix = matrix
        self.model = BayesianPersonalizedRanking(
            factors=users.shape[1] - 1, learning_rate=LEARNING_RATE,
            regularization=REGULARIZATION, num_threads=1, random_state=1)
        users[:, -1] = 1.0  # the last column is the item's bias
        items[:, -1] = 0.0
        self.model.user_factors, self.model.item_factors = users, items

    def epoch_seconds(self):
        return fit_seconds(self.model, self.matrix)

    def tables(self):
        return self.model.user_factors, self.model.item_factors


def share_in_order(tables, triples):
    users, items = tables
    chosen, known, unknown = triples
    difference = items[known] - items[unknown]
    return float(numpy.mean(numpy.einsum("ij,ij->i", users[chosen], difference) > 0))


def popular_triples(ours, random):
    """Triples as implicit draws them: any two entries, unless the second is the user's too."""
    chosen = random.integers(len(ours.users), size=len(ours.users))
    users, known = ours.users[chosen], ours.items[chosen]
    unknown = random.permutation(ours.items)
    entries = ours.users.astype(numpy.int64) * ours.num_items + ours.items
    is_unknown = ~numpy.isin(users.astype(numpy.int64) * ours.num_items + unknown, entries)
    return users[is_unknown], known[is_unknown], unknown[is_unknown]


def check(library, matrix):
    random = numpy.random.default_rng(2)
    ours = Ours(library, matrix, CHECKED_D)
    implicit = Implicit(matrix, ours.tables())
    for _ in range(CHECKED_EPOCHS):
        ours.step(*popular_triples(ours, random))
    fit(implicit.model, matrix, CHECKED_EPOCHS)
    triples = popular_triples(ours, random)
    shares = [share_in_order(model.tables(), triples) for model in (ours, implicit)]
    require(min(shares) > 0.7 and abs(shares[0] - shares[1]) < 0.02,
            f"pairs in the right order: {shares}")
    ours.release()


def compare(measuring, case, matrix, d):
    ours = Ours(measuring.library, matrix, d)
    implicit = Implicit(matrix, ours.tables())
    seconds = in_turn({"zorvex, step": lambda: seconds_of(ours.step_alone),
                       "zorvex, with sampling": lambda: seconds_of(ours.step_with_sampling),
                       "implicit, with sampling": implicit.epoch_seconds}, 3)
    for name, value in seconds.items():
        measuring.report(case=case, d=d, contender=name, seconds=value / matrix.nnz)
    ours.release()


def random_matrix():
    """A million entries at random places of a million rows and columns."""
    random = numpy.random.default_rng(11)
    pairs = random.integers(MILLION, size=(2, MILLION))
    matrix = scipy.sparse.csr_matrix((numpy.ones(MILLION, dtype=numpy.float32), pairs),
                                     shape=(MILLION, MILLION))
    matrix.sum_duplicates()
    return matrix


def main():
    measuring = Measuring(__doc__.splitlines()[0])
    matrix = read_matrix(measuring.arguments.interactions)
    check(measuring.library, matrix)
    for d in (64, 128):
        compare(measuring, "bpr", matrix, d)
    compare(measuring, "bpr, million", random_matrix(), 64)


if __name__ == "__main__":
    main()
