"""Layers."""

import struct

import numpy as np

from .floats import F, bits
from .library import LAYER
from .tensor import adopt, any_tensor, creation, drop, he, new, spread, write, xavier_bound
from .world import string_at

MODULE = b"src/zx_model"
UNKNOWN = (303, MODULE, b"Unknown layer type")
MISMATCH = (304, MODULE, b"Dense layer input dimension mismatch")
EMBEDDING, DENSE, BATCH_NORM, DROPOUT, RELU, LEAKY, GELU, SIGMOID, TANH = 0, 1, 2, 4, 5, 6, 7, 8, 9

# expf and tanhf may be off by a unit in the last place; what follows rounds once or twice more.
FUNCTION_ERROR = 6 * 2.0 ** -23


class Layer:
    def __init__(self, pointer, kind, words=(0, 0, 0), trainable=1):
        self.pointer, self.type, self.words, self.trainable = pointer, kind, words, trainable
        self.tensors = [None] * 9  # weight, bias, running mean and variance, five more

    def check(self, w):
        found = LAYER.unpack(string_at(self.pointer, LAYER.size))
        wanted = (self.type, *self.words,
                  *[tensor.pointer if tensor else 0 for tensor in self.tensors], self.trainable, 1)
        if found[:3] + found[4:] != wanted[:3] + wanted[4:] or (
                # A dense layer's third word is a flag of one byte.
                (found[3] ^ wanted[3]) & (0xff if self.type == DENSE else 0xffffffff)):
            w.differ("layer record", found, wanted)


def expect(w, pointer, kind, words, trainable, shapes=(), record=None):
    """Takes a just made layer into the model; shapes are those of its tensors in slot order."""
    if record:
        w.same(pointer, None)
        return None
    if not pointer:
        w.differ("result", pointer, "a layer")
    layer = Layer(pointer, kind, words, trainable)
    found = struct.unpack("<4Q", string_at(pointer + 16, 32))
    for slot, shape in enumerate(shapes):
        problem, size = creation(len(shape), shape)
        layer.tensors[slot] = adopt(w, found[slot], len(shape), shape, problem, size)
        layer.tensors[slot].owned = 0
    w.layers.append(layer)
    return layer


def first_record(shapes):
    records = [creation(len(shape), shape)[0] for shape in shapes]
    return next((record for record in reversed(records) if record), None)


def create(w):
    kind = w.r.choice([0, 1, 2, 3, 4, 5, 9, 10, 11, 2 ** 32 - 1])
    expect(w, w.call("zx_layer_create", kind), kind, (0, 0, 0), 1)


def activation(w):
    kind = w.r.choice([4, 5, 6, 7, 8, 9, 10, 11, -1, -2 ** 31])
    pointer = w.call("zx_layer_activation", kind)
    if not 5 <= kind <= 10:
        w.same(pointer, None)
        return
    expect(w, pointer, kind, (0x3C23D70A if kind == LEAKY else 0, 0, 0), 0)


def dropout(w):
    rate = F(w.r.choice([0.0, 0.5, 0.3, 1.0, -0.5, 2.0, w.number()]))
    expect(w, w.call("zx_layer_dropout", rate), DROPOUT, (bits(rate), 0, 0), 0)


def extent(w):
    return w.r.choice([0, 2 ** 32 - 1]) if w.chance(0.06) else w.r.randint(1, 4)


def embedding(w):
    count, dim = extent(w), extent(w)
    shapes = [[count, dim]]
    record = first_record(shapes)
    layer = expect(w, w.call("zx_layer_embedding", count, dim, record=record), EMBEDDING,
                   (count, dim, bits(F(-1))), 1, shapes, record)
    if layer:
        bound = xavier_bound(count, dim)
        spread(w, layer.tensors[0], -bound, bound)


def dense(w):
    inputs, outputs, use_bias = extent(w), extent(w), w.chance(0.5)
    shapes = [[outputs, inputs]] + ([[outputs]] if use_bias else [])
    record = creation(2, shapes[0])[0]
    layer = expect(w, w.call("zx_layer_dense", inputs, outputs, use_bias, record=record), DENSE,
                   (inputs, outputs, int(use_bias)), 1, shapes, record)
    if layer:
        he(w, layer.tensors[0], inputs)
        layer.tensors[0].check(w)  # and takes over the last bits
        if use_bias and w.chance(0.7):
            write(w, layer.tensors[1], w.tame(outputs, 0.1))


def batch_norm(w):
    features = w.r.choice([0, 1, 2, 3, 2 ** 32 - 1])
    shapes = [[features]] * 4
    record = first_record(shapes)
    layer = expect(w, w.call("zx_layer_batch_norm", features, record=record), BATCH_NORM,
                   (features, 0x3727C5AC, 0x3DCCCCCD), 1, shapes, record)
    if layer:
        layer.tensors[0].data[:] = 1
        layer.tensors[3].data[:] = 1


def attach(w):
    """The host hands a tensor to a layer's further slots."""
    layer = w.pick(w.layers)
    slot = w.r.randrange(4, 9)
    if layer and not layer.tensors[slot]:
        tensor = new(w, [2])
        tensor.owned = 0
        layer.tensors[slot] = tensor
        w.poke(layer.pointer + 16 + 8 * slot, struct.pack("<Q", tensor.pointer))


def free(w):
    if w.chance(0.1) or not w.layers:
        w.call("zx_layer_free", None)
        return
    layer = w.layers.pop(w.r.randrange(len(w.layers)))
    w.call("zx_layer_free", layer.pointer)
    for tensor in layer.tensors:
        if tensor:
            drop(w, tensor)


def forward(w):
    r = w.r
    layer = None if w.chance(0.03) else w.pick(w.layers)
    fitting = [tensor for tensor in w.tensors if tensor.ndim > 1 and layer and
               layer.type == DENSE and tensor.dims[1] == layer.words[0]]
    if layer and layer.type == DENSE and layer.words[0] and not fitting and w.chance(0.7):
        dims = [r.randint(1, 4), layer.words[0]] + [2] * r.choice([0, 0, 0, 1])
        fitting = [new(w, dims, w.tame(int(np.prod(dims)), 0.1))]
    if fitting:
        tensor = r.choice(fitting)
    else:
        tensor = any_tensor(w)
        if tensor is None and w.tensors == []:
            tensor = new(w, [2, 3], w.tame(6, 0.3))
    if tensor is not None and tensor.data is not None and not tensor.readable():
        return
    training = w.chance(0.6)
    arguments = (layer.pointer if layer else None, tensor.pointer if tensor else None, training)
    if layer is None or tensor is None:
        w.same(w.call("zx_layer_forward", *arguments), None)
    elif layer.type in (0, 2, 3) or layer.type > 9:
        w.same(w.call("zx_layer_forward", *arguments, record=UNKNOWN), None)
    elif layer.type == DENSE:
        forward_dense(w, layer, tensor, arguments)
    elif layer.type == DROPOUT:
        forward_dropout(w, layer, tensor, arguments)
    else:
        forward_activation(w, layer, tensor, arguments)


def forward_dense(w, layer, tensor, arguments):
    inputs, outputs = layer.words[:2]
    # Fewer elements than the first two extents announce: refused alike, so that none is read.
    if tensor.dims[1] != inputs or tensor.size < tensor.dims[0] * tensor.dims[1]:
        w.same(w.call("zx_layer_forward", *arguments, record=MISMATCH), None)
        return
    batch = tensor.dims[0]
    record, size = creation(2, [batch, outputs])
    if size > 2 ** 10:
        return
    got = w.call("zx_layer_forward", *arguments, record=record)
    output = adopt(w, got, 2, [batch, outputs], record, size)
    if output is None:
        return
    weight, bias = layer.tensors[:2]
    for b in range(batch):
        for o in range(outputs):
            total = F(0)
            for k in range(inputs):
                total = total + weight.get(o, k) * tensor.get(b, k)
            if bias:
                total = total + bias.data[o]
            output.data[b * outputs + o] = total


def cloned(w, tensor, arguments):
    """The copy that a forward pass starts from; null as cloning is."""
    record, size = creation(tensor.ndim, tensor.dims)
    got = w.call("zx_layer_forward", *arguments, record=record)
    copy = adopt(w, got, tensor.ndim, tensor.dims, record, size)
    if copy and tensor.data is not None:
        copy.data[:] = tensor.data[:size]
    return copy


def forward_dropout(w, layer, tensor, arguments):
    rate = np.array([layer.words[0]], np.uint32).view(F)[0]
    if not arguments[2] or not rate > 0:
        w.same(w.call("zx_layer_forward", *arguments), tensor.pointer)
        tensor.refcount += 1
        if tensor in w.tensors:
            tensor.owned += 1
        return
    copy = cloned(w, tensor, arguments)
    if copy:
        scale = F(1) / (F(1) - rate)
        drawn = w.generator.uniforms(copy.size)
        copy.data[:] = np.where(drawn >= rate, copy.data * scale, F(0))


def tanh_of(values):
    return np.tanh(values.astype(np.float64)).astype(F)


def exp_of(values):
    return np.exp(values.astype(np.float64)).astype(F)


def forward_activation(w, layer, tensor, arguments):
    copy = cloned(w, tensor, arguments)
    if not copy:
        return
    x = copy.data.copy()
    if layer.type == RELU:
        # The maximum of no number and zero is left open: either is taken.
        got = np.frombuffer(string_at(copy.data_pointer, copy.data.nbytes), F)
        y = np.where(x > 0, x, F(0))
        y = np.where(np.isnan(x) & (got != 0), x, y)
        y = np.where((y == 0) & (got == 0), got, y)  # and so is the sign of a zero
    elif layer.type == LEAKY:
        alpha = np.array([layer.words[0]], np.uint32).view(F)[0]
        y = np.where(x < 0, x * alpha, x)
    elif layer.type == GELU:
        t = (x * x) * (F(0.044715) * x) + x
        y = (tanh_of(F(0.7978846) * t) + F(1)) * F(0.5) * x
        # One unit of tanh next to -1 is what is left of the sum.
        copy.near = (FUNCTION_ERROR, 2.0 ** -23 * np.abs(np.nan_to_num(x.astype(np.float64),
                                                                       posinf=0, neginf=0)))
    elif layer.type == SIGMOID:
        y = F(1) / (exp_of(-x) + F(1))
        copy.near = (FUNCTION_ERROR, 0.0)
    else:
        y = tanh_of(x)
        copy.near = (FUNCTION_ERROR, 0.0)
    copy.data[:] = y


OPERATIONS = [(2, create), (5, activation), (4, dropout), (2, embedding), (4, dense),
              (2, batch_norm), (2, attach), (1, free), (14, forward)]
