"""The matrix-factorisation model: life, lookups, pair scores, top K, item lists."""

import struct

import numpy as np

from .floats import F, bits, dots
from .library import MODEL
from .tensor import (adopt, creation, drop, new, note_buffer, release_one, spread, upload, write,
                     xavier_bound)
from .world import string_at

MODULE = b"src/zx_model"
UNSUPPORTED = (302, MODULE, b"Unsupported model type")
USER_BOUNDS = (4, MODULE, b"User ID out of bounds")
ITEM_BOUNDS = (4, MODULE, b"Item ID out of bounds")
NAME = b"MatrixFactorization"

# Where the fields stand that hosts write here.
TYPE_AT, NAME_AT, DIM_AT, USERS_AT, ITEMS_AT, GLOBAL_AT, TRAINING_AT, AUX_AT = (
    0, 8, 20, 24, 28, 64, 120, 128)
SCRATCH_AT = {"score": 72, "heap": 88, "gather": 104}


class Model:
    def __init__(self, pointer, users, items, dim, use_bias, tensors):
        self.pointer, self.type, self.refcount = pointer, 0, 1
        self.users, self.items, self.dim, self.use_bias = users, items, dim, use_bias
        self.tensors = tensors  # the four, null where there is none
        self.global_bias = F(0)
        self.training = 1
        self.aux = None
        self.name_pointer = struct.unpack("<Q", string_at(pointer + NAME_AT, 8))[0]
        self.scratch = {"score": (0, 0), "heap": (0, 0), "gather": (0, 0)}  # pointer, capacity

    def check(self, w):
        found = MODEL.unpack(string_at(self.pointer, MODEL.size))
        wanted = (self.type, self.name_pointer, self.refcount, self.dim, self.users, self.items,
                  *[tensor.pointer if tensor else 0 for tensor in self.tensors],
                  bits(self.global_bias), self.use_bias, *self.scratch["score"],
                  *self.scratch["heap"], *self.scratch["gather"], self.training,
                  self.aux.pointer if self.aux else 0)
        if found != wanted:
            w.differ("model record", found, wanted)

    def table(self, side):
        """The rows of users (0) or items (1)."""
        tensor = self.tensors[side]
        return tensor.data.reshape(tensor.dims[0], tensor.dims[1])

    def rows(self, side, ids):
        return self.table(side)[ids, :self.dim]

    def grow(self, w, which, need):
        """The scratch after a call that needs so much of it; its address is the library's choice.
        False where it stays null."""
        pointer, capacity = self.scratch[which]
        if need > capacity:
            found = struct.unpack("<QQ", string_at(self.pointer + SCRATCH_AT[which], 16))
            w.same((found[0] != 0, found[0] % 128, found[1]), (True, 0, need), f"{which} scratch")
            self.scratch[which] = found
        elif pointer == 0:
            return False
        return True

    def intact(self):
        """The fields are still those of its tensors."""
        return self.dim == self.tensors[0].dims[1] and self.users == self.tensors[0].dims[0] and (
            self.items == self.tensors[1].dims[0])


def expect_created(w, pointer, users, items, dim, use_bias):
    """Takes a just created model into the model, drawing its values; null as creation is null."""
    shapes = [[users, dim], [items, dim]] + ([[users], [items]] if use_bias else [])
    if not pointer:
        w.differ("result", pointer, "a model")
    found = struct.unpack("<4Q", string_at(pointer + 32, 32))
    tensors = []
    for shape, address in zip(shapes, found):
        record, size = creation(len(shape), shape)
        tensors.append(adopt(w, address, len(shape), shape, record, size))
        tensors[-1].owned = 0
    for tensor in tensors[:2]:
        bound = xavier_bound(dim, dim)
        spread(w, tensor, -bound, bound)
    tensors += [None] * (4 - len(tensors))
    model = Model(pointer, users, items, dim, use_bias, tensors)
    w.same(string_at(model.name_pointer), NAME, "name")
    w.models.append(model)
    return model


def creation_record(users, items, dim, use_bias):
    """What creating a model records last: both tables are tried before either is judged."""
    record = None
    for shape in ([users, dim], [items, dim]):
        record = creation(2, shape)[0] or record
    return record


def create(w):
    r = w.r
    users, items, dim = r.randint(1, 5), r.randint(1, 6), r.choice([1, 2, 3, 4, 4, 5, 8, 9])
    use_bias = w.chance(0.5)
    if w.chance(0.15):
        users, items, dim = (r.choice([0, 2 ** 32 - 1, value, value])
                             for value in (users, items, dim))
        if 2 ** 12 < users * dim < 2 ** 32 - 1 or 2 ** 12 < items * dim < 2 ** 32 - 1:
            dim = 0
    make(w, users, items, dim, use_bias)


def make(w, users, items, dim, use_bias):
    record = creation_record(users, items, dim, use_bias)
    pointer = w.call("zx_model_mf_create", users, items, dim, use_bias, record=record)
    if record:
        w.same(pointer, None)
        return None
    model = expect_created(w, pointer, users, items, dim, use_bias)
    if w.chance(0.5):
        furnish(w, model)
    return model


def furnish(w, model, hostile=0.15):
    """The host fills the tables with numbers that tell more than the small random ones."""
    for tensor in model.tensors:
        if tensor:
            write(w, tensor, w.tame(tensor.size, hostile))
    set_global(w, model, F(w.r.choice([0.0, 0.5, -1.25, w.number() if hostile else 1.0])))


def set_global(w, model, value):
    model.global_bias = value
    w.poke(model.pointer + GLOBAL_AT, struct.pack("<I", bits(value)))


def assembled(w, users, items, dim):
    """A model of any size, put together by the host from tensors of its own: creation draws a
    number for every element."""
    model = make(w, 1, 1, 1, w.chance(0.5))
    for side, dims in enumerate(([users, dim], [items, dim], [users], [items])):
        if model.tensors[side]:
            tensor, old = new(w, dims), model.tensors[side]
            write(w, tensor, np.resize(w.tame(97) / F(8), tensor.size))
            w.poke(model.pointer + 32 + 8 * side, struct.pack("<Q", tensor.pointer))
            tensor.owned, model.tensors[side] = 0, tensor
            old.owned += 1
            release_one(w, old)
    set_extents(w, model, dim, users, items)
    return model


def any_model(w):
    if w.models and not w.chance(0.04):
        return w.r.choice(w.models)
    return None


def some_model(w):
    """A model, made when there is none yet."""
    if not w.models:
        return make(w, w.r.randint(1, 5), w.r.randint(1, 6), w.r.choice([1, 2, 3, 4, 5, 8, 13]),
                    w.chance(0.5))
    return w.r.choice(w.models)


def address(model):
    return model.pointer if model else None


def retain(w):
    model = any_model(w)
    w.same(w.call("zx_model_retain", address(model)), address(model))
    if model:
        model.refcount += 1


def release(w):
    model = any_model(w)
    w.call("zx_model_release", address(model))
    if model:
        model.refcount -= 1
        if model.refcount == 0:
            destroyed(w, model)


def destroyed(w, model):
    w.models.remove(model)
    if model.type == 0:
        for tensor in model.tensors:
            if tensor:
                drop(w, tensor)
    else:
        for tensor in model.tensors:
            if tensor:
                tensor.owned += 1  # nobody else's any more
    if model.aux:
        drop(w, model.aux)


def mode(w):
    model = any_model(w)
    name, flag = w.r.choice([("zx_model_train", 1), ("zx_model_eval", 0)])
    w.call(name, address(model))
    if model:
        model.training = flag


def host_edit(w):
    """A host writes fields of the record, as it may: a type that is not built, a global bias, an
    attached tensor, a smaller extent, another name."""
    model = w.pick(w.models)
    if not model:
        return
    kind = w.r.choice(["type", "global", "furnish", "aux", "smaller", "back", "back"])
    if kind == "type":
        model.type = w.r.choice([0, 1, 2 ** 32 - 1])
        w.poke(model.pointer + TYPE_AT, struct.pack("<I", model.type))
    elif kind == "global":
        set_global(w, model, F(w.number()))
    elif kind == "furnish":
        furnish(w, model)
    elif kind == "aux" and not model.aux:
        model.aux = new(w, [2])
        model.aux.owned = 0
        w.poke(model.pointer + AUX_AT, struct.pack("<Q", model.aux.pointer))
        if w.chance(0.5):
            w.call("zx_tensor_retain", model.aux.pointer)
            model.aux.refcount += 1
            model.aux.owned += 1
    elif kind == "smaller":
        extents = [w.r.choice([model.dim, 0, model.dim]), w.r.choice([model.users, 0, 1]),
                   w.r.choice([model.items, 0, 1])]
        set_extents(w, model, *[min(pair) for pair in
                                zip(extents, (model.dim, model.users, model.items))])
    elif kind == "back":
        repair(w, model)


def set_extents(w, model, dim, users, items):
    model.dim, model.users, model.items = dim, users, items
    w.poke(model.pointer + DIM_AT, struct.pack("<3I", dim, users, items))


def repair(w, model):
    """The record again as it was created."""
    model.type = 0
    w.poke(model.pointer + TYPE_AT, bytes(4))
    users, dim = model.tensors[0].dims[:2]
    set_extents(w, model, dim, users, model.tensors[1].dims[0])


def num_parameters(w):
    model = any_model(w)
    wanted = 0
    if model and model.type == 0:
        wanted = sum(tensor.size for tensor in model.tensors if tensor)
    w.same(w.call("zx_model_num_parameters", address(model)), wanted)


def to_device(w):
    model = any_model(w)
    status = w.call("zx_model_to_device", address(model))
    if model is None:
        w.same(status, 3)
    elif model.type != 0:
        w.same(status, 0)
    else:
        for tensor in model.tensors[:2]:
            wanted = upload(w, tensor)
            note_buffer(w, tensor)
            if wanted:
                break
        w.same(status, wanted)


# Lookups ------------------------------------------------------------------------------------------

def some_ids(w, limit, count):
    """Ids below a limit for the most part."""
    r = w.r
    ids = [r.randrange(limit) if limit else 0 for _ in range(count)]
    if count and w.chance(0.12):
        stray = r.choice([limit, limit + 1, 2 ** 32 - 1])
        ids[r.choice([0, count - 1, r.randrange(count)])] = stray
    return ids


def lookup_record(model, side, ids):
    """What a lookup of a side records, None when it succeeds."""
    if model.type != 0:
        return UNSUPPORTED
    record = creation(2, [len(ids), model.dim])[0]
    if record:
        return record
    if max(ids) >= (model.users, model.items)[side]:
        return (USER_BOUNDS, ITEM_BOUNDS)[side]
    return None


def lookup(w):
    model = any_model(w)
    side = w.r.randrange(2)
    name = w.r.choice(["zx_model_lookup_%s_embeddings", "zx_model_forward_%s"]) % (
        ("user", "item")[side])
    count = w.r.choice([0, 1, 2, 3, 3, 5, 9])
    limit = (model.users, model.items)[side] if model else 3
    ids = some_ids(w, limit, count)
    pointer = w.or_null(w.u32s(ids))
    if model is None or pointer is None or count == 0:
        w.same(w.call(name, address(model), pointer, count), None)
        return
    record = lookup_record(model, side, ids)
    got = w.call(name, model.pointer, pointer, count, record=record)
    found = adopt(w, got, 2, [count, model.dim], record, count * model.dim)
    if found:
        found.data[:] = model.rows(side, ids).ravel()


# Scores -------------------------------------------------------------------------------------------

def pair_scores(model, users, items):
    scores = dots(model.rows(0, users), model.rows(1, items))
    if model.use_bias:
        user_biases, item_biases = model.tensors[2].data, model.tensors[3].data
        scores = (user_biases[users] + item_biases[items]) + (scores + model.global_bias)
    return scores


def score(w):
    model = any_model(w)
    count = w.r.choice([0, 1, 1, 2, 3, 7])
    if w.chance(0.01):
        count = w.r.choice([511, 512, 513])
    users = some_ids(w, model.users if model else 3, count)
    items = some_ids(w, model.items if model else 3, count)
    arguments = [address(model), w.or_null(w.u32s(users), 0.03), w.or_null(w.u32s(items), 0.03),
                 count]
    if None in arguments or count == 0:
        w.same(w.call("zx_model_score", *arguments), None)
        return
    if w.device and w.device_scores(model, users, items, arguments):
        return
    record = lookup_record(model, 0, users)
    later = lookup_record(model, 1, items)
    record = later or record
    got = w.call("zx_model_score", *arguments, record=record)
    found = adopt(w, got, 1, [count], record, count)
    if found:
        found.data[:] = pair_scores(model, users, items)


def top_k(scores, k):
    """The stated heap: entries (score, item), the smallest on top."""
    heap = [[scores[j], j] for j in range(k)]

    def sift(p, n):
        while True:
            left, right, smallest = 2 * p + 1, 2 * p + 2, p
            if left < n and heap[left][0] < heap[smallest][0]:
                smallest = left
            if right < n and heap[right][0] < heap[smallest][0]:
                smallest = right
            if smallest == p:
                return
            heap[p], heap[smallest] = heap[smallest], heap[p]
            p = smallest

    for p in range(k // 2 - 1, -1, -1):
        sift(p, k)
    for i in range(k, len(scores)):
        if k and scores[i] > heap[0][0]:
            heap[0] = [scores[i], i]
            sift(0, k)
    found = [None] * k
    for position in range(k - 1, -1, -1):
        found[position] = heap[0]
        if position > 0:
            heap[0] = heap[position]
            sift(0, position)
    return found


def recommend(w):
    model = any_model(w)
    r = w.r
    items = model.items if model else 2
    k = r.choice([0, 1, 1, 2, 3, 5, items, items + 1, 2 ** 32 - 1])
    user = r.randrange(max(model.users, 1)) if model else 0
    if w.chance(0.08):
        user = r.choice([2 ** 32 - 1, model.users if model else 1])
    room = min(k, items) + 2
    out_items, out_scores = np.full(room, 0xabababab, np.uint32), np.full(room, 77, F)
    w.kept.append((out_items, out_scores))
    arguments = [address(model), user, k, w.or_null(out_items.ctypes.data),
                 w.or_null(out_scores.ctypes.data)]
    wanted_items, wanted_scores = out_items.copy(), out_scores.copy()
    record, wanted = None, 0
    if None in arguments or k == 0:
        wanted = 3
    elif model.type != 0:
        wanted, record = 302, (302, MODULE, b"zx_recommend only supports MF models")
    elif user >= model.users:
        wanted = 4
    status = w.call("zx_recommend", *arguments, record=record)
    if wanted == 0:
        wanted = expect_recommended(w, model, user, k, wanted_items, wanted_scores)
    w.same(status, wanted)
    w.same(out_items.tolist(), wanted_items.tolist(), "items")
    w.same_floats(out_scores, wanted_scores, what="scores")


def expect_recommended(w, model, user, k, wanted_items, wanted_scores):
    """Status, scratch and lists of a recommendation that passed the checks."""
    if not model.grow(w, "score", model.items):
        return 100
    everything = np.arange(model.items)
    scores = dots(np.broadcast_to(model.rows(0, [user]), (model.items, model.dim)),
                  model.rows(1, everything))
    if model.use_bias:
        user_part = model.tensors[2].data[user] + model.global_bias
        scores = (model.tensors[3].data[:model.items] + user_part) + scores
    # A table of scores is stated to be left in the record.
    w.same_floats(np.frombuffer(string_at(model.scratch["score"][0], 4 * model.items), F), scores,
                  what="score scratch")
    kept = min(k, model.items)
    if not model.grow(w, "heap", kept):
        return 100
    for position, (value, item) in enumerate(top_k(scores.tolist(), kept)):
        wanted_items[position], wanted_scores[position] = item, scores[item]
    return 0


def score_items(w):
    model = any_model(w)
    r = w.r
    items = model.items if model else 3
    count = r.choice([0, 1, 2, 5, 15, 16, 17])
    ids = some_ids(w, items, count)
    if w.chance(0.4):
        ids = list(range(count))
        if count and w.chance(0.2):
            ids[r.randrange(count)] = r.choice([8, 2 ** 32 - 1, items])
    user = r.randrange(max(model.users, 1)) if model else 0
    if w.chance(0.08):
        user = r.choice([2 ** 32 - 1, model.users if model else 1])
    out = np.full(count + 2, 77, F)
    w.kept.append(out)
    arguments = [address(model), user, w.or_null(w.u32s(ids)), count, w.or_null(out.ctypes.data)]
    wanted_out = out.copy()
    record, wanted = None, 0
    if None in arguments or count == 0:
        wanted = 3
    elif model.type != 0:
        wanted, record = 302, (302, MODULE, b"zx_model_score_items only supports MF models")
    elif user >= model.users:
        wanted = 4
    status = w.call("zx_model_score_items", *arguments, record=record)
    if wanted == 0:
        wanted = expect_list(w, model, user, ids, wanted_out)
    w.same(status, wanted)
    w.same_floats(out, wanted_out, what="scores")


def expect_list(w, model, user, ids, wanted_out):
    count = len(ids)
    identity = count > 15 and ids == list(range(count)) and count <= model.items
    if not identity and not model.grow(w, "gather", count * model.dim):
        return 100
    known = [j for j in range(count) if ids[j] < model.items]
    rows = model.rows(1, [ids[j] for j in known])
    wanted_out[:count] = 0  # of an unknown item exactly, whatever the user's row holds
    wanted_out[known] = dots(rows, np.broadcast_to(model.rows(0, [user]), rows.shape))
    if model.use_bias:
        user_part = model.tensors[2].data[user] + model.global_bias
        chosen = [ids[j] for j in known]
        wanted_out[known] = (model.tensors[3].data[chosen] + wanted_out[known]) + user_part
    return 0


def long_lists(w):
    """A model with more items than an identity list of 16."""
    items = w.r.choice([16, 17, 20, 33])
    model = make(w, 2, items, w.r.choice([1, 3, 4, 6]), w.chance(0.5))
    if model:
        w.models[:] = [model] + [other for other in w.models if other is not model]


LIFE = [(6, create), (2, retain), (3, release), (2, mode), (6, host_edit), (3, num_parameters),
        (2, to_device), (6, lookup)]
OPERATIONS = [(3, score), (4, recommend), (4, score_items), (2, lookup), (1, host_edit)]
