"""Optimisers, losses, BPR, ALS, interaction sets, negative samples, the hit rate."""

import math
import struct

import numpy as np

from . import mf, sparse
from .floats import F, bits, dots
from .library import INTERACTIONS, OPTIMIZER
from .mf import address, any_model, some_ids, some_model
from .tensor import Tensor, drop, new, write
from .world import string_at

MODULE = b"src/zx_train"
EPSILON = F(1e-8)


# Optimisers ---------------------------------------------------------------------------------------

def config(kind, rate=0.0, momentum=0.0, betas=False, decay=0.0, regularization=0.0):
    """A configuration's fields in their order, floats by their bits."""
    beta1, beta2 = (F(0.9), F(0.999)) if betas else (F(0), F(0))
    return (kind, bits(rate), bits(momentum), 0, bits(beta1), bits(beta2), bits(EPSILON),
            bits(decay), bits(regularization), 0, 0)


def fields_of(record):
    return OPTIMIZER.unpack(bytes(record) + bytes(OPTIMIZER.size - 44))[:11]


def configure(w):
    """One of the five constructors."""
    a, b = F(w.number()), F(w.number())
    name, arguments, wanted = w.r.choice([
        ("zx_optimizer_sgd", (a,), config(0, a)),
        ("zx_optimizer_sgd_momentum", (a, b), config(1, a, b)),
        ("zx_optimizer_adam", (a,), config(2, a, betas=True)),
        ("zx_optimizer_adamw", (a, b), config(3, a, betas=True, decay=b)),
        ("zx_optimizer_als", (a,), config(5, regularization=a))])
    record = w.call(name, *arguments)
    w.same(fields_of(record), wanted, "configuration")
    return record


class Optimizer:
    def __init__(self, pointer, fields, num_state, arrays):
        self.pointer, self.fields, self.num_state, self.arrays = pointer, fields, num_state, arrays
        self.steps = 0
        self.slots = [[None] * num_state, [None] * num_state]

    def check(self, w):
        found = OPTIMIZER.unpack(string_at(self.pointer, OPTIMIZER.size))
        wanted = (*self.fields, self.steps, *self.arrays, self.num_state, 0)
        if found != wanted:
            w.differ("optimizer record", found, wanted)
        for array, slots in zip(self.arrays, self.slots):
            if array:
                found = struct.unpack(f"<{self.num_state}Q", string_at(array, 8 * self.num_state))
                w.same(found, tuple(slot.pointer if slot else 0 for slot in slots), "slots")


def optimizer_create(w):
    record = configure(w)
    if w.chance(0.1):
        record.type = w.r.choice([4, 6, 2 ** 32 - 1])
    model = any_model(w)
    pointer = w.call("zx_optimizer_create", address(model), record)
    if not pointer:
        w.differ("result", pointer, "an optimiser")
    num_state = 0
    if record.type in (1, 2, 3) and model and model.type == 0:
        num_state = 4 if model.use_bias else 2
    arrays = struct.unpack("<2Q", string_at(pointer + 56, 16))
    w.same([bool(array) for array in arrays],
           [num_state > 0, num_state > 0 and record.type != 1], "state arrays")
    w.optimizers.append(Optimizer(pointer, fields_of(record), num_state, arrays))


def optimizer_attach(w):
    """The host puts a tensor into a slot, which the optimiser then owns."""
    optimizer = w.pick(w.optimizers)
    if not optimizer or not optimizer.num_state:
        return
    which = w.r.randrange(2)
    slot = w.r.randrange(optimizer.num_state)
    if optimizer.arrays[which] and not optimizer.slots[which][slot]:
        tensor = new(w, [1])
        tensor.owned = 0
        optimizer.slots[which][slot] = tensor
        w.poke(optimizer.arrays[which] + 8 * slot, struct.pack("<Q", tensor.pointer))


def optimizer_free(w):
    if w.chance(0.2) or not w.optimizers:
        w.call("zx_optimizer_free", None)
        return
    optimizer = w.optimizers.pop(w.r.randrange(len(w.optimizers)))
    w.call("zx_optimizer_free", optimizer.pointer)
    for slots in optimizer.slots:
        for tensor in slots:
            if tensor:
                drop(w, tensor)


def optimizer_step(w):
    optimizer = None if w.chance(0.05) else w.pick(w.optimizers)
    model = any_model(w)
    record = None
    if optimizer and model:
        record = (301, MODULE, b"Use zx_model_train_step_bpr for BPR training")
        optimizer.steps += 1
    status = w.call("zx_optimizer_step", optimizer.pointer if optimizer else None, address(model),
                    record=record)
    w.same(status, 301 if record else 3)


def optimizer_zero_grad(w):
    optimizer = w.pick(w.optimizers)
    w.call("zx_optimizer_zero_grad", optimizer.pointer if optimizer else None)


OPTIMIZERS = [(1, mf.create), (2, configure), (4, optimizer_create), (2, optimizer_attach),
              (2, optimizer_free), (4, optimizer_step), (1, optimizer_zero_grad),
              (1, mf.host_edit)]


# Losses -------------------------------------------------------------------------------------------

def loss_config(w):
    margin = F(w.number())
    name, arguments, wanted = w.r.choice([
        ("zx_loss_mse", (), (0, 0, bits(F(1)), 1)), ("zx_loss_mse", (), (0, 0, bits(F(1)), 1)),
        ("zx_loss_bpr", (), (1, 0, bits(F(1)), 1)), ("zx_loss_bpr", (), (1, 0, bits(F(1)), 1)),
        ("zx_loss_contrastive", (margin,), (6, 0, bits(margin), 1))])
    record = w.call(name, *arguments)
    w.same((record.type, record.reserved, bits(record.margin), record.reserved_flag), wanted,
           "configuration")
    if w.chance(0.08):
        record.type = w.r.choice([2, 3, 4, 5, 7, 2 ** 32 - 1])
    return record


def bpr_terms(x):
    with_exponential = np.log(np.exp(-x.astype(np.float64)) + 1)
    return np.where(x > F(35), 0.0, np.where(x < F(-35), -x.astype(np.float64), with_exponential))


def loss_value(kind, a, b):
    """A loss and the error that the open order of its sum and the functions' last bits grant."""
    difference = a - b
    if kind == 0:
        terms = (difference * difference).astype(np.float64)
    else:
        terms = bpr_terms(difference)
    count = len(a)
    with np.errstate(all="ignore"):
        total = np.float64(terms.sum()) / np.float64(count)
        error = float(np.abs(terms).sum()) * (count + 8) * 2.0 ** -23 / max(count, 1)
        if kind == 1:
            # expf(-x) + 1 loses what lies below the last place of 1.
            error += 2.0 ** -22
    return F(total), error


def loss_tensor(w):
    if w.chance(0.05):
        return None
    if w.chance(0.08):
        return empty_tensor(w)
    count = w.r.choice([1, 3, 4, 6])
    same = [tensor for tensor in w.tensors if tensor.readable() and tensor.size == count]
    return w.r.choice(same) if same and w.chance(0.6) else new(w, [count], loss_scores(w, count))


def loss_scores(w, count):
    """Scores whose differences meet the cut-offs; now and then what is no number."""
    r = w.r
    found = np.array([r.choice([0, 1, -1, 35, -35, 40, -40, 36, 0.5, r.uniform(-3, 3)])
                      for _ in range(count)], F)
    if w.chance(0.06):
        found[r.randrange(count)] = r.choice([math.nan, math.inf, -math.inf])
    return found


def empty_tensor(w):
    """A wrapped tensor without elements."""
    held = np.zeros(4, F)
    w.kept.append(held)
    pointer = w.call("zx_tensor_wrap", held.ctypes.data, 1, w.u32s([0]))
    tensor = Tensor(pointer, (0, 0, 0, 0), 1, 0, held.ctypes.data, held, 0)
    w.tensors.append(tensor)
    return tensor


def loss(w):
    record = loss_config(w)
    a, b = loss_tensor(w), loss_tensor(w)
    if a is not None and b is not None and a.size != b.size and w.chance(0.8):
        b = new(w, [a.size], loss_scores(w, a.size)) if a.size else a
    backward = w.chance(0.5)
    grad = None
    size = a.size if a else 2
    if backward and w.chance(0.8):
        grad = new(w, [size + w.r.randint(0, 2) or 1])
    arguments = (record, a.pointer if a else None, b.pointer if b else None)
    failure = None
    if record.type not in (0, 1):
        failure = (2, MODULE, b"Unknown loss type")
    if backward:
        got = w.call("zx_loss_backward", *arguments, grad.pointer if grad else None, record=failure)
    else:
        got = w.call("zx_loss_compute", *arguments, record=failure)
    if failure or a is None or b is None or a.size != b.size:
        w.same_float(got, 0.0)
        return
    left, right = a.data[:a.size], b.data[:b.size]
    wanted, error = loss_value(record.type, left, right)
    if np.isfinite(wanted) or error != math.inf:
        w.same_float(got, wanted, 2.0 ** -22, error if math.isfinite(error) else 0.0)
    if grad and record.type == 0 and size:
        grad.data[:size] = (left - right) * (F(2) / F(size))


LOSSES = [(1, loss)]


# BPR ----------------------------------------------------------------------------------------------

def bpr(tables, biases, triples, rate, regularization, copies):
    """The host's loop over triples, in the precision of its arguments. Changes both tables."""
    users, items = tables
    one = rate.dtype.type(1)
    decay = one - rate * regularization
    for u, p, n in triples:
        if u >= len(users) or max(p, n) >= len(items):
            continue
        user, positive, negative = users[u], items[p], items[n]
        x_positive, x_negative = (user * positive).sum(), (user * negative).sum()
        if biases is not None:
            x_positive, x_negative = x_positive + biases[p], x_negative + biases[n]
        x = x_positive - x_negative
        if x > 35:
            g = one * 0
        elif x < -35:
            g = rate
        else:
            g = rate * (one / (one + np.exp(x)))
        saved = user.copy() if copies else user
        user *= decay
        user += g * positive
        user += -g * negative
        positive *= decay
        positive += g * saved
        negative *= decay
        negative += -g * saved
        if biases is not None:
            biases[p] += g
            biases[n] -= g


def calm(w, model):
    """Numbers that training may multiply without leaving the range in which an order of summation
    is a matter of last bits."""
    for tensor in model.tensors:
        if tensor:
            finite = tensor.data[np.isfinite(tensor.data)]
            if len(finite) and np.abs(finite).max() > 1e4:
                write(w, tensor, w.tame(tensor.size))


def some_triples(w, model, count):
    users = some_ids(w, model.users, count)
    return users, some_ids(w, model.items, count), some_ids(w, model.items, count)


def bpr_step(w):
    r = w.r
    if w.chance(0.02):
        model = mf.assembled(w, 2, 3, r.choice([512, 513, 600]))
    else:
        model = some_model(w)
    if model is None or not (model.intact() or model.dim == 0):
        return
    calm(w, model)
    count = r.choice([0, 1, 2, 3, 5, 8])
    if w.chance(0.02) or (model.dim > 500 and w.chance(0.5)):
        count = r.choice([255, 256, 257])
    elif w.chance(0.003):
        count = r.choice([511, 512])
    # Many large steps over few rows would be chaos, in which last bits decide.
    rate = F(r.choice([0.05, 0.1, 0.5, 1.0, 0.0, -0.1] if count < 100 else [0.001, 0.005, 0.0]))
    regularization = F(r.choice([0.0, 0.01, 0.1, 1.0]))
    if w.chance(0.04):
        rate = F(r.choice([math.nan, math.inf, 1e30]))
    triples = some_triples(w, model, count)
    pointers = [w.or_null(w.u32s(ids), 0.02) for ids in triples]
    arguments = [w.or_null(model.pointer, 0.02), *pointers, count, rate, regularization]
    record, wanted = None, 0
    if None in arguments:
        wanted = 3
    elif model.type != 0:
        wanted, record = 302, (302, MODULE, b"BPR training only supported for MF")
    if wanted == 0 and w.device and w.device_trains(model, triples, arguments):
        return
    w.same(w.call("zx_model_train_step_bpr", *arguments, record=record), wanted)
    if wanted == 0:
        expect_trained(model, triples, rate, regularization)


def expect_trained(model, triples, rate, regularization):
    """The tables after a step. Scores are summed in an open order and the exponential may be off by
    its last bits; what that does to the rows is bounded by what double precision does to them."""
    tensors = [model.tensors[0], model.tensors[1]] + [model.tensors[3]] * model.use_bias
    copies = model.dim <= 512 or len(triples[0]) >= 256
    exact = []
    for number in (np.float64, F):
        parts = [tensor.data if number is F else tensor.data.astype(number) for tensor in tensors]
        tables = [part.reshape(tensor.dims[0], tensor.dims[1])[:rows, :model.dim]
                  for part, tensor, rows in zip(parts, tensors, (model.users, model.items))]
        biases = parts[2] if model.use_bias else None
        bpr(tables, biases, zip(*triples), number(rate), number(regularization), copies)
        exact = exact or parts
    finite = [np.nan_to_num(tensor.data.astype(np.float64), nan=0, posinf=0, neginf=0)
              for tensor in tensors]
    apart = [np.abs(part - tensor.data) for part, tensor in zip(exact, tensors)]
    drift = max(np.nan_to_num(gap, nan=0, posinf=0).max(initial=0) for gap in apart)
    magnitude = max(np.abs(part).max(initial=1) for part in finite)
    for tensor in tensors:
        tensor.near = (2.0 ** -20, 64 * drift + 2.0 ** -20 * magnitude)


BPR = [(1, mf.create), (5, bpr_step), (1, mf.host_edit), (1, mf.recommend), (1, mf.score)]


# ALS ----------------------------------------------------------------------------------------------

UNFIT = (304, MODULE, b"Interactions do not fit the model")


def fits(matrix, users, items):
    """The matrix would not lead out of memory."""
    if matrix.rows < users:
        return False
    row_ptr = matrix.row_ptr.tolist()[:users + 1]
    if sorted(row_ptr) != row_ptr or row_ptr[-1] > matrix.nnz:
        return False
    # Entries of the rows that are read lie between the first pointer and the last.
    if users:
        columns = matrix.col_idx[row_ptr[0]:row_ptr[users]]
        return bool((columns < items).all())
    return True


def solve(a, b, threshold=1e-10):
    """The stated elimination; returns the smallest magnitude that decided about a pivot, relative
    to the largest element, where none was exactly zero."""
    d = len(b)
    largest = np.abs(a).max(initial=0)
    smallest = np.inf
    for k in range(d):
        best = k + int(np.argmax(np.abs(a[k:, k])))
        if best != k:
            a[[k, best]] = a[[best, k]]
            b[[k, best]] = b[[best, k]]
        pivot = a[k, k]
        if pivot != 0:
            smallest = min(smallest, abs(pivot) / largest)
        if abs(pivot) < threshold:
            continue
        a[k] *= 1 / pivot
        b[k] /= pivot
        factors = a[:, k].copy()
        factors[k] = 0
        a -= np.outer(factors, a[k])
        b -= factors * b[k]
    return smallest


def half_epoch(fixed, rows, alpha, regularization):
    """Solves the rows of one side in double precision. rows are lists of (index, strength). Returns
    the solutions and, per row, the error to grant, or None where the system is too delicate for the
    last bits of its sums not to matter."""
    d = fixed.shape[1]
    table = fixed.astype(np.float64)
    gram = table.T @ table + float(regularization) * np.eye(d)
    solutions = np.zeros((len(rows), d))
    errors = [None] * len(rows)
    for at, entries in enumerate(rows):
        a, b = gram.copy(), np.zeros(d)
        mass = np.abs(table).T @ np.abs(table) + abs(float(regularization)) * np.eye(d)
        for index, strength in entries:
            y, weight = table[index], float(alpha) * float(strength)
            a += weight * np.outer(y, y)
            mass += abs(weight) * np.outer(np.abs(y), np.abs(y))
            b += y * (1 + weight)
        if not entries:
            errors[at] = 0.0
            continue
        reduced = a.copy()
        smallest = solve(reduced, b)
        solutions[at] = b
        with np.errstate(all="ignore"):
            condition = np.linalg.cond(a) if np.isfinite(a).all() else np.inf
        cancelled = mass.max() / max(np.abs(a).max(), 1e-300)
        if smallest > 1e-3 and condition < 1e3 and cancelled < 1e2:
            errors[at] = 2e-6 * condition * cancelled * d * float(np.abs(b).max()) + 1e-6
    return solutions, errors


def als_epoch(w):
    r = w.r
    model = some_model(w)
    if model is None or not (model.intact() or model.dim == 0):
        return
    calm(w, model)
    if w.chance(0.9):
        matrix = fitting_matrix(w, model)
    else:
        matrix = w.pick(w.sparses)
    threads = r.choice([0, 1, 2, 8, 64, 2 ** 32 - 1])
    alpha = F(r.choice([0.0, 1.0, 2.0, 40.0, 0.5, r.uniform(0, 5)]))
    regularization = F(r.choice([1.0, 0.5, 5.0, 0.1, 0.0, 10.0]))
    if w.chance(0.04):
        alpha = F(r.choice([-1.0, math.nan, math.inf]))
    arguments = [w.or_null(model.pointer, 0.03),
                 w.or_null(matrix.pointer, 0.03) if matrix else None, threads, alpha,
                 regularization]
    record, wanted = None, 0
    if None in arguments:
        wanted = 3
    elif model.type != 0:
        wanted, record = 302, (302, MODULE, b"ALS only supports Matrix Factorization")
    elif not fits(matrix, model.users, model.items):
        wanted, record = 304, UNFIT
    elif model.dim == 0:
        wanted = 100
    status = w.call("zx_model_train_als_epoch", *arguments, record=record)
    w.same(status, wanted)
    if wanted == 0:
        expect_epoch(w, model, matrix, alpha, regularization)


def expect_epoch(w, model, matrix, alpha, regularization):
    """Both tables after an epoch; the item half starts from the user rows that the library has."""
    row_ptr = matrix.row_ptr.tolist()
    by_user = [[(int(matrix.col_idx[i]), matrix.values[i])
                for i in range(row_ptr[u], row_ptr[u + 1])] for u in range(model.users)]
    by_item = [[] for _ in range(model.items)]
    for u, entries in enumerate(by_user):
        for item, strength in entries:
            by_item[item].append((u, strength))
    expect_half(w, model, 0, by_user, alpha, regularization)
    expect_half(w, model, 1, by_item, alpha, regularization)


def expect_half(w, model, side, rows, alpha, regularization):
    tensor = model.tensors[side]
    fixed = model.table(1 - side)
    got = np.frombuffer(string_at(tensor.data_pointer, tensor.data.nbytes), F)
    got = got.reshape(tensor.dims[0], tensor.dims[1])
    strengths = [strength for entries in rows for _, strength in entries]
    # How far what is no number or overflows spreads is a matter of the method.
    largest = np.abs(np.array(strengths, np.float64) * float(alpha)).max(initial=0)
    if not (np.isfinite(fixed).all() and largest < 1e15 and math.isfinite(regularization)):
        tensor.data[:] = got.ravel()
        return
    solutions, errors = half_epoch(fixed, rows, alpha, regularization)
    for row, error in enumerate(errors):
        if error is None:
            continue
        w.same_floats(got[row], solutions[row].astype(F), 0.0, error,
                      what=f"row {row} of the {('users', 'items')[side]}")
    tensor.data[:] = got.ravel()


def fitting_matrix(w, model):
    """Interactions of a model, sound for the most part; rows beyond the users and unsorted or
    repeated columns are no fault."""
    r = w.r
    rows = max(1, model.users + r.choice([0, 0, 0, 1, -1]))
    nnz = r.randint(1, 10)
    matrix = sparse.make(w, rows, max(1, model.items + r.choice([0, 0, 1])), nnz)
    cuts = sorted(r.randint(0, nnz) for _ in range(rows - 1))
    row_ptr = [0, *cuts, nnz]
    if w.chance(0.1):
        row_ptr[r.randrange(rows + 1)] = r.choice([0, 1, nnz, nnz + 1])
    col_idx = [r.randrange(max(model.items, 1)) for _ in range(nnz)]
    if w.chance(0.06):
        col_idx[r.randrange(nnz)] = r.choice([model.items, 2 ** 32 - 1])
    values = [r.choice([1.0, 2.0, 0.5, r.uniform(0.1, 5)]) for _ in range(nnz)]
    if w.chance(0.05):
        values[r.randrange(nnz)] = r.choice([0.0, -0.25, math.nan])
    sparse.store(w, matrix, row_ptr, col_idx, values)
    return matrix


ALS = [(1, mf.create), (5, als_epoch), (1, mf.host_edit), (1, sparse.create), (1, mf.recommend)]


# Interaction sets and samples ---------------------------------------------------------------------

class Interactions:
    def __init__(self, pointer, count, implicit, addresses):
        self.pointer, self.count, self.implicit = pointer, count, implicit
        self.addresses = addresses

    def check(self, w):
        found = INTERACTIONS.unpack(string_at(self.pointer, INTERACTIONS.size))
        w.same(found, (*self.addresses, self.count, self.implicit), "interactions record")


def interactions_create(w):
    count = w.r.choice([0, 1, 5, 5, 33, 2 ** 32 - 1])
    implicit = w.chance(0.5)
    pointer = w.call("zx_interactions_create", count, implicit)
    if count in (0, 2 ** 32 - 1):
        w.same(pointer, None)
        return
    addresses = struct.unpack("<3Q", string_at(pointer, 24))
    w.same([bool(address) for address in addresses], [True, True, not implicit], "arrays")
    for held in addresses:
        if held:
            w.same((held % 128, string_at(held, 4 * count)), (0, bytes(4 * count)), "array")
    w.interactions.append(Interactions(pointer, count, int(implicit), addresses))


def interactions_free(w):
    if w.chance(0.3) or not w.interactions:
        w.call("zx_interactions_free", None)
        return
    found = w.interactions.pop(w.r.randrange(len(w.interactions)))
    w.call("zx_interactions_free", found.pointer)


def sample(w):
    r = w.r
    matrix = w.pick(w.sparses)
    if w.chance(0.2):
        matrix = None
    count = r.choice([0, 1, 2, 3, 4])
    num_items = r.choice([0, 1, 2, 3, 5, 7, matrix.cols if matrix else 4, 2 ** 24 + 1, 2 ** 31,
                          2 ** 32 - 1])
    users = [r.choice([0, 1, 2, 3, 2 ** 32 - 1]) for _ in range(count)]
    out = np.full(count + 1, 0xabababab, np.uint32)
    w.kept.append(out)
    users_pointer = w.or_null(w.u32s(users))
    out_pointer = w.or_null(out.ctypes.data)
    w.call("zx_sample_negatives_uniform", matrix.pointer if matrix else None, users_pointer,
           out_pointer, count, num_items)
    wanted = np.full(count + 1, 0xabababab, np.uint32)
    if users_pointer and out_pointer and num_items:
        for i, user in enumerate(users):
            wanted[i] = draw_negative(w, matrix, user, num_items)
    w.same(out.tolist(), wanted.tolist(), "sample")


def draw_negative(w, matrix, user, num_items):
    for draw in range(1, 101):
        item = min(int(w.generator.uniform() * F(num_items)), num_items - 1)
        if matrix is None or draw == 100:
            return item
        value = matrix.get(user, item)
        if value == 0 or np.isnan(value):
            return item
    return None


def full_row(w):
    """A user who interacted with everything, so that only the hundredth draw ends the search."""
    cols = w.r.randint(1, 3)
    matrix = sparse.make(w, 2, cols, cols)
    if matrix:
        sparse.store(w, matrix, [0, cols, cols], list(range(cols)),
                     [w.r.choice([1.0, 1.0, math.nan, -0.0, 0.5]) for _ in range(cols)])


SAMPLING = [(2, interactions_create), (1, interactions_free), (2, sparse.create), (1, full_row),
            (8, sample)]


# The hit rate -------------------------------------------------------------------------------------

def hit_rate(w):
    r = w.r
    model = any_model(w)
    if model and model.dim and not model.intact():
        return
    count = r.choice([0, 1, 2, 3])
    k = r.choice([0, 1, 1, 2, 3, 429496730, 2 ** 31, 429496731])
    users = some_ids(w, model.users if model else 2, count)
    items = some_ids(w, model.items if model else 2, count)
    pointers = [w.or_null(w.u32s(users)), w.or_null(w.u32s(items))]
    if model is None or None in pointers or count == 0:
        w.same_float(w.call("zx_metric_hit_rate", address(model), *pointers, count, k), 0.0)
        return
    records = []
    wanted = expect_hits(w, model, users, items, k, records)
    got = w.call("zx_metric_hit_rate", model.pointer, *pointers, count, k,
                 record=records[-1] if records else None)
    w.same_float(got, wanted)


def expect_hits(w, model, users, items, k, records):
    """The fraction of hits; every failed lookup leaves its record, the last one stays."""
    max_draws = k * 10 & 0xffffffff
    hits = 0

    def looked_up(side, index):
        record = mf.lookup_record(model, side, [index])
        if record:
            records.append(record)
            return None
        return model.rows(side, [index])

    for user, item in zip(users, items):
        row = looked_up(0, user)
        if row is None:
            continue
        held_out = looked_up(1, item)
        target = F(0) if held_out is None else dots(row, held_out)[0]
        rank, draws = 1, 0
        while max_draws and k and draws < max_draws and rank <= k:
            drawn = looked_up(1, int(F(model.items) * w.generator.uniform()))
            if drawn is not None and dots(row, drawn)[0] > target:
                rank += 1
            draws += 1
        hits += rank <= k
    return F(hits) / F(len(users))


METRIC = [(2, mf.create), (6, hit_rate), (1, mf.host_edit)]
