"""A sequence from its beginning to its end: a theme, a handful of operations, an empty house."""

import numpy as np

from . import engine, errors, files, layers, mf, pool, rng, sparse, tensor, training
from .world import World, in_thread


def spread_out(*operations):
    """A list in which each operation stands as often as it weighs."""
    return [operation for group in operations for weight, operation in group
            for _ in range(weight)]


# What is mixed into every theme: the record, the generator, the console.
BACKGROUND = spread_out(errors.OPERATIONS, rng.OPERATIONS, [(2, engine.queries)])

THEMES = spread_out([
    (4, spread_out(tensor.OPERATIONS)),
    (2, spread_out(tensor.INITIALISERS)),
    (1, spread_out(tensor.ALLOCATOR)),
    (4, spread_out(sparse.OPERATIONS)),
    (2, spread_out(pool.OPERATIONS)),
    (3, spread_out(mf.LIFE)),
    (5, spread_out(mf.LIFE[:1], [(1, mf.long_lists)], mf.OPERATIONS)),
    (4, spread_out(layers.OPERATIONS, tensor.OPERATIONS[:4])),
    (2, spread_out(training.OPTIMIZERS)),
    (2, spread_out(training.LOSSES)),
    (3, spread_out(training.BPR)),
    (2, spread_out(training.ALS)),
    (3, spread_out(training.SAMPLING)),
    (2, spread_out(training.METRIC)),
    (3, spread_out(files.MODEL_FILES)),
    (3, spread_out(files.TENSOR_FILES, tensor.OPERATIONS[:4])),
    (2, spread_out(files.EXPORTS)),
    (1, spread_out(files.FORMATS)),
    (2, spread_out(engine.OPERATIONS)),
    # Everything after everything.
    (2, spread_out(tensor.OPERATIONS, sparse.OPERATIONS, mf.LIFE, mf.OPERATIONS, layers.OPERATIONS,
                   training.OPTIMIZERS, training.LOSSES, training.BPR, training.SAMPLING,
                   files.MODEL_FILES, files.TENSOR_FILES, files.EXPORTS, engine.OPERATIONS)),
])


def play(w, themes, fresh):
    """Runs a sequence. fresh: in a thread that never drew a number nor failed."""
    r = w.r
    if fresh:
        w.same(w.record, bytes(280), "record of a new thread")
    else:
        seed = r.getrandbits(64)
        w.call("zx_rng_seed", seed)
        w.generator.seed(seed)
        if r.random() < 0.5:
            errors.clear(w)
    theme = r.choice(themes)
    for _ in range(r.randint(4, 12)):
        operation = r.choice(theme if r.random() < 0.8 else BACKGROUND)
        operation(w)
        w.check_objects()
    for _ in range(2):
        w.same_float(w.call("zx_rng_uniform"), w.generator.uniform(), what="generator at the end")
    leave(w)


def leave(w):
    """Gives everything back, by every owner in turn."""
    for layer in list(w.layers):
        w.call("zx_layer_free", layer.pointer)
        w.layers.remove(layer)
        for held in layer.tensors:
            if held:
                tensor.drop(w, held)
    for optimizer in list(w.optimizers):
        w.call("zx_optimizer_free", optimizer.pointer)
        for held in optimizer.slots[0] + optimizer.slots[1]:
            if held:
                tensor.drop(w, held)
    for model in list(w.models):
        mf.repair(w, model)
        for _ in range(model.refcount):
            w.call("zx_model_release", model.pointer)
        mf.destroyed(w, model)
    for held in list(w.tensors):
        for _ in range(held.owned):
            tensor.release_one(w, held)
    if w.tensors:
        w.differ("bookkeeping", "", f"{len(w.tensors)} tensors without an owner")
    for matrix in w.sparses:
        for _ in range(matrix.refcount):
            w.call("zx_sparse_release", matrix.pointer)
    for interactions in w.interactions:
        w.call("zx_interactions_free", interactions.pointer)
    for arena in w.pools:
        w.call("zx_pool_destroy", arena.pointer)
    for pointer, content in w.blocks:
        w.same(tensor.string_at(pointer, len(content)), content, "block before it is freed")
        w.call("zx_free_aligned", pointer)
    if w.initialized and not w.device:
        engine.shutdown(w)
    w.call("zx_set_verbosity", -1)


def run(process, seed, index):
    """Runs the sequence of a seed and an index; returns its World."""
    w = World(process, seed, index)
    themes = THEMES
    if process.device:
        from . import device
        themes = device.THEMES
        device.enter(w)
    fresh = not process.device and index % 50 == 7
    try:
        if fresh:
            def body():
                np.seterr(all="ignore")  # is a thread's own
                w.context = w.functions["zx_get_error_context"]()
                w.record = tensor.string_at(w.context, 280)
                play(w, themes, True)
            in_thread(body)
        else:
            play(w, themes, False)
    except Exception as problem:
        problem.world = w
        raise
    return w
