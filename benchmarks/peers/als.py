#!/usr/bin/env python3
"""One ALS epoch beside irspack (exact and with three steps of CG) and implicit (three steps of CG).

All solve one problem from one start: confidence 41 for an entry, 1 elsewhere, regularisation 10.
With enough steps of CG and with exact solvers their first epochs agree.
"""

import numpy
from implicit.cpu.als import AlternatingLeastSquares
from irspack.recommenders import _ials_core as irspack

import library as zorvex
from matrices import read_matrix
from measuring import Measuring, fit, fit_seconds, in_turn, require, seconds_of

ALPHA = 40.0
REGULARIZATION = 10.0
CG_STEPS = 3
ENOUGH_CG_STEPS = 100
CONVERGING_D = 16  # where as many steps are soon done


class Irspack:
    def __init__(self, matrix, start, solver, steps=CG_STEPS):
        users, items = start
        config = irspack.IALSModelConfigBuilder()
        for set_option, value in ((config.set_K, users.shape[1]), (config.set_alpha0, 1.0),
                                  (config.set_reg, REGULARIZATION), (config.set_nu, 0.0),
                                  (config.set_loss_type, irspack.LossType.ORIGINAL)):
            set_option(value)
        solving = irspack.IALSSolverConfigBuilder()
        solving.set_n_threads(1)
        solving.set_solver_type(solver)
        solving.set_max_cg_steps(steps)
        self.solving = solving.build()
        # Its weight of an entry is what is added to the weight of all pairs.
        self.trainer = irspack.IALSTrainer(config.build(), matrix * numpy.float32(ALPHA))
        self.trainer.user = users
        self.trainer.item = items

    def first_epoch(self):
        self.trainer.step(self.solving)

    def epoch(self):
        return seconds_of(self.first_epoch)

    def tables(self):
        return self.trainer.user, self.trainer.item


class Implicit:
    def __init__(self, matrix, start, steps=CG_STEPS):
        self.matrix = matrix * numpy.float32(ALPHA + 1.0)  # its weight is the whole confidence
        self.model = AlternatingLeastSquares(factors=start[0].shape[1], num_threads=1,
                                             regularization=REGULARIZATION)
        self.model.cg_steps = steps
        self.model.user_factors, self.model.item_factors = (table.copy() for table in start)

    def first_epoch(self):
        fit(self.model, self.matrix, 1)

    def epoch(self):
        return fit_seconds(self.model, self.matrix)

    def tables(self):
        return self.model.user_factors, self.model.item_factors


class Ours:
    def __init__(self, library, matrix, d):
        self.library = library
        rows, columns = matrix.shape
        self.matrix = zorvex.make_sparse(library, rows, columns, matrix.indptr, matrix.indices)
        self.model = zorvex.make_model(library, rows, columns, d)

    def epoch(self):
        def run():
            require(self.library.zx_model_train_als_epoch(self.model, self.matrix, 1, ALPHA,
                                                          REGULARIZATION) == 0, "an epoch failed")
        return seconds_of(run)

    def tables(self):
        return zorvex.tables(self.model)

    def release(self):
        self.library.zx_model_release(self.model)
        self.library.zx_sparse_release(self.matrix)


def distance(tables, expected):
    """The largest of the tables' differences, each relative to the table."""
    return max(float(numpy.linalg.norm(a - b) / numpy.linalg.norm(b))
               for a, b in zip(tables, expected))


def main():
    measuring = Measuring(__doc__.splitlines()[0], d={"type": int, "nargs": "+"})
    arguments = measuring.arguments
    matrix = read_matrix(arguments.interactions)
    for d in arguments.d:
        ours = Ours(measuring.library, matrix, d)
        start = ours.tables()
        cholesky = Irspack(matrix, start, irspack.SolverType.CHOLESKY)
        ours.epoch()
        cholesky.epoch()
        apart = distance(cholesky.tables(), ours.tables())
        require(apart < 1e-3, f"irspack's exact epoch differs by {apart} at d = {d}")
        if d <= CONVERGING_D:
            for peer in (Irspack(matrix, start, irspack.SolverType.CG, ENOUGH_CG_STEPS),
                         Implicit(matrix, start, ENOUGH_CG_STEPS)):
                peer.first_epoch()
                apart = distance(peer.tables(), ours.tables())
                require(apart < 1e-2, f"{type(peer).__name__} with CG differs by {apart}")
        contenders = {"zorvex": ours, "irspack, exact": cholesky,
                      "irspack, CG-3": Irspack(matrix, start, irspack.SolverType.CG),
                      "implicit, CG-3": Implicit(matrix, start)}
        seconds = in_turn({name: contender.epoch for name, contender in contenders.items()}, 3)
        for name, value in seconds.items():
            measuring.report(case="als", d=d, contender=name, seconds=value)
        ours.release()


if __name__ == "__main__":
    main()
