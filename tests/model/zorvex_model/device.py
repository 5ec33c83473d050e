"""What an OpenCL device adds: its start and stop, buffers and kernels, the device operations.

Kernels are built with relaxed mathematics, so results are near, not equal; the tensors of these
sequences hold moderate finite numbers. What an operation left on the device is read back through
the buffer functions and compared at once.
"""

import ctypes
import os

import numpy as np

from . import engine, mf, sparse, tensor, training
from .engine import MODULE as ENGINE
from .engine import READ_FAILED, WRITE_FAILED
from .floats import F
from .sequence import spread_out
from .world import ANY
from .tensor import adopt, address, creation, hollow, new, note_buffer, upload, write

MODULE = b"src/zx_gpu"
NOT_READY = (200, MODULE, b"GPU not initialized")
NULL_TENSOR = (3, MODULE, b"NULL tensor")
NULL_BATCH = (3, MODULE, b"NULL batch arrays")
UNFIT = (304, MODULE, b"Tensor shapes do not fit")
KERNELS = "./zorvex_kernels.cl"
RELATIVE, ABSOLUTE = 1e-4, 1e-5


# Start and stop -----------------------------------------------------------------------------------

class OpenCL:
    """The same questions that the engine asks, put to the loader directly."""

    def __init__(self):
        self.library = ctypes.CDLL("libOpenCL.so.1")
        for name in ("clReleaseKernel", "clReleaseEvent"):
            getattr(self.library, name).argtypes = [ctypes.c_void_p]
        self.library.clGetDeviceIDs.argtypes = [ctypes.c_void_p, ctypes.c_uint64, ctypes.c_uint32,
                                                ctypes.c_void_p, ctypes.c_void_p]
        for name in ("clGetPlatformInfo", "clGetDeviceInfo"):
            getattr(self.library, name).argtypes = [ctypes.c_void_p, ctypes.c_uint32,
                                                    ctypes.c_size_t, ctypes.c_void_p,
                                                    ctypes.c_void_p]
        self.platform = ctypes.c_void_p()
        self.library.clGetPlatformIDs(1, ctypes.byref(self.platform), None)

    def facts(self, device_type):
        """Names and sizes of the device that a start with this type takes."""
        device = ctypes.c_void_p()
        for kind in (device_type, 0xffffffff):
            count = ctypes.c_uint32()
            status = self.library.clGetDeviceIDs(self.platform, kind, 1, ctypes.byref(device),
                                                 ctypes.byref(count))
            if status == 0 and count.value:
                break
        found = []
        for ask, subject, what, kind in (
                (self.library.clGetPlatformInfo, self.platform, 0x0902, None),
                (self.library.clGetDeviceInfo, device, 0x102B, None),
                (self.library.clGetDeviceInfo, device, 0x101F, ctypes.c_uint64),
                (self.library.clGetDeviceInfo, device, 0x1002, ctypes.c_uint32),
                (self.library.clGetDeviceInfo, device, 0x1000, ctypes.c_uint64)):
            held = kind() if kind else ctypes.create_string_buffer(128)
            ask(subject, what, ctypes.sizeof(held), ctypes.byref(held), None)
            found.append(held.value)
        return found


def enter(w):
    """The state in which sequences with a device begin: started, kernels ready."""
    process = w.process
    w.start_with_device = lambda name="zx_engine_init", arguments=(): start(w, name, arguments)
    w.stop_with_device = lambda: stop(w)
    w.device_scores = lambda *arguments: scores(w, *arguments)
    w.device_trains = lambda *arguments: trains(w, *arguments)
    if not hasattr(process, "opencl"):
        process.opencl = OpenCL()
        process.dirty = False
        process.started = False
        process.finish = lambda: process.functions["zx_engine_sync"]()
        with open(KERNELS, "rb") as file:
            process.kernels = file.read()
    if process.dirty:
        # A sequence left another program behind, or no engine.
        process.functions["zx_gpu_shutdown"]()
        process.functions["zx_engine_shutdown"]()
        process.read_console(w.out)
        process.started = process.dirty = False
    w.initialized = w.gpu_enabled = w.ready = w.compiled = w.has_context = process.started
    if not process.started:
        with open(KERNELS, "wb") as file:
            file.write(process.kernels)
        start(w, "zx_engine_init", ())
        process.started = True


def start(w, name="zx_engine_init", arguments=()):
    """Starts the engine, with its kernels where their file is in its place."""
    facts = w.process.opencl.facts(arguments[0] if arguments else 4)
    platform, device, memory, units, kind = facts
    out = w.line("[ZORVEX] Engine initialized (GPU mode)")
    out += w.line("[ZORVEX] Platform: " + platform.decode())
    out += w.line("[ZORVEX] Device: " + device.decode())
    out += w.line("[ZORVEX] Global Memory: %.2f GB" % (memory * 9.313225746154785e-10))
    out += w.line("[ZORVEX] Compute Units: %u" % units)
    w.true_gpu = bool(kind & 4)
    record = None
    if os.path.exists(KERNELS):
        out += w.line("[ZORVEX] Loading kernels from: " + KERNELS)
        out += w.line("[ZORVEX] GPU kernels cached")
        w.ready = w.gpu_enabled = w.compiled = True
    else:
        record = engine.NOT_FOUND
        w.ready = w.gpu_enabled = w.compiled = False
        if w.verbosity:
            out += b"[ZORVEX] Warning: GPU kernels not initialized (CPU fallback)\n"
    before = engine.C_LIBRARY.time(None)
    w.same(w.call(name, *arguments, record=record, out=out), 0)
    w.initialized = w.has_context = True
    engine.seeded(w, before)
    w.same((w.call("zx_engine_platform_name"), w.call("zx_engine_device_name"),
            w.call("zx_engine_global_memory")), (platform, device, memory), "names")


def stop(w):
    out = b""
    if w.gpu_enabled and w.ready:
        out += w.line("[ZORVEX] GPU kernels released")
        w.ready = False
    if w.initialized:
        out += w.line("[ZORVEX] Engine shutdown complete")
    w.call("zx_engine_shutdown", out=out)
    engine.stopped(w)
    w.process.dirty = True


def life(w):
    """Stops and starts, with and without the kernel file, as long as nothing is on the device."""
    if any(held.device_buffer for held in w.tensors) or any(any(m.buffers) for m in w.sparses):
        return
    if w.initialized:
        if w.chance(0.3):
            engine.init(w)  # a second time
            return
        if w.ready and not w.gpu_enabled:
            gpu_shutdown(w)
        stop(w)
        operation(w)
        return
    if w.chance(0.25):
        os.unlink(KERNELS) if os.path.exists(KERNELS) else None
    else:
        with open(KERNELS, "wb") as file:
            file.write(w.process.kernels)
    start(w, *w.r.choice([("zx_engine_init", ()), ("zx_engine_init_with_device", (2,)),
                          ("zx_engine_init_with_device", (8,))]))


def gpu_shutdown(w):
    w.call("zx_gpu_shutdown", out=w.line("[ZORVEX] GPU kernels released") if w.ready else b"")
    w.ready = False
    w.process.dirty = True


def gpu_init(w):
    """The kernel table again, by the search or from a file."""
    if w.r.random() < 0.5:
        record, out = None, b""
        if not w.ready and not w.initialized:
            record = engine.NOT_INITIALIZED
        elif not w.ready and not os.path.exists(KERNELS):
            record = engine.NOT_FOUND
        elif not w.ready:
            out = w.line("[ZORVEX] Loading kernels from: " + KERNELS)
            out += w.line("[ZORVEX] GPU kernels cached")
        status = w.call("zx_gpu_init", record=record, out=out)
    else:
        path, record = w.r.choice([
            (KERNELS.encode(), None), (None, (3, ENGINE, b"Kernel file path is NULL")),
            (w.path("none"), (2, ENGINE, b"Could not open kernel file"))])
        if path and record is None and not os.path.exists(path):
            record = 2, ENGINE, b"Could not open kernel file"
        if w.ready:
            record = None
        elif not w.initialized:
            record = engine.NOT_INITIALIZED
        out = b"" if record or w.ready else w.line("[ZORVEX] GPU kernels cached")
        status = w.call("zx_gpu_init_from_file", path, record=record, out=out)
    w.same(status, record[0] if record else 0)
    if record is None and not w.ready:
        w.ready = w.compiled = True
        w.process.dirty = True


# Buffers and kernels ------------------------------------------------------------------------------

def buffers(w):
    """A buffer's life: made, written, read, past its end, released."""
    r = w.r
    content = w.tame(4)
    memory, back = w.floats(content), np.full(6, 77, F)
    w.kept.append(back)
    with_data = w.chance(0.5)
    if not w.initialized:
        w.same(w.call("zx_buffer_create", 16, 1), None)
        return
    if with_data:
        buffer = w.call("zx_buffer_create_with_data", memory, 16, r.choice([1, 4]))
        w.same(w.call("zx_buffer_create_with_data", None, 16, 1), None)
    else:
        buffer = w.call("zx_buffer_create", 16, 1)
        w.same(w.call("zx_buffer_create", 0, 1), None)
    w.same(bool(buffer), True, "buffer")
    events = []
    if not with_data or w.chance(0.5):
        transfer(w, "write", buffer, memory, 16, None, events)
    transfer(w, "write", buffer, memory, 2 ** 40, WRITE_FAILED, events)
    transfer(w, "read", buffer, back.ctypes.data, 2 ** 40, READ_FAILED, events)
    transfer(w, "read", buffer, back.ctypes.data, 16, None, events)
    w.same(w.call("zx_buffer_write", None, memory, 16), 3)
    w.same(w.call("zx_buffer_read", buffer, None, 16), 3)
    w.same(w.call("zx_engine_sync"), 0)
    for event in events:
        w.process.opencl.library.clReleaseEvent(event)
    w.same(back.tobytes(), content.tobytes() + np.full(2, 77, F).tobytes(), "read back")
    w.call("zx_buffer_release", buffer)
    w.call("zx_buffer_release", None)


def transfer(w, kind, buffer, memory, size, record, events):
    """A blocking transfer or one that gives an event."""
    wanted = record[0] if record else 0
    if w.chance(0.5):
        w.same(w.call(f"zx_buffer_{kind}", buffer, memory, size, record=record), wanted)
        return
    event = ctypes.c_void_p()
    slot = ctypes.addressof(event) if w.chance(0.8) else None
    status = w.call(f"zx_buffer_{kind}_async", buffer, memory, size, slot, record=record)
    w.same(status, wanted)
    if slot and record is None:
        w.same(bool(event.value), True, "event")
        events.append(event.value)


SOURCES = [b"__kernel void thrice(__global float* x) { x[get_global_id(0)] *= 3.0f; }\n",
           b"__kernel void thrice(__global float* x) { x[get_global_id(0) + 2 * get_global_id(1)]"
           b" *= 3.0f; }\n"]


def kernels(w):
    """A kernel by name: its arguments, one that is not there, its run in one or two dimensions."""
    if not w.initialized:
        w.same(w.call("zx_kernel_get", b"vec_scale"), None)
        return
    name, extra = b"vec_scale", True
    two = w.chance(0.5)
    if w.chance(0.15):
        w.same(w.call("zx_engine_compile_kernels", SOURCES[two], None), 0)
        w.process.dirty = True
        w.compiled = True
        name, extra = b"thrice", False
        w.same(w.call("zx_kernel_get", b"vec_scale"), None)
    elif not w.compiled:
        w.same(w.call("zx_kernel_get", b"vec_scale"), None)
        return
    kernel = w.call("zx_kernel_get", name)
    if not kernel and extra:
        return  # an earlier operation of this sequence replaced the program
    w.same(bool(kernel), True, "kernel")
    w.same(w.call("zx_kernel_get", b"no such kernel"), None)
    content = w.tame(4)
    buffer = ctypes.c_void_p(w.call("zx_buffer_create_with_data", w.floats(content), 16, 1))
    no_run = (207, ENGINE, b"Failed to execute kernel")
    w.same(w.call("zx_kernel_exec_1d", kernel, 4, 0, record=no_run), 207)
    no_argument = (207, ENGINE, b"Failed to set kernel argument")
    w.same(w.call("zx_kernel_set_arg", kernel, 9, 4, w.floats([1]), record=no_argument), 207)
    w.same(w.call("zx_kernel_set_arg", kernel, 0, 8, ctypes.addressof(buffer)), 0)
    if extra:
        w.same(w.call("zx_kernel_set_arg", kernel, 1, 4, w.floats([3])), 0)
        w.same(w.call("zx_kernel_set_arg", kernel, 2, 4, w.u32s([4])), 0)
    if two and not extra:
        local = w.r.choice([(0, 0), (2, 2), (2, 0), (0, 2)])
        w.same(w.call("zx_kernel_exec_2d", kernel, 2, 2, *local), 0)
    else:
        w.same(w.call("zx_kernel_exec_1d", kernel, 4, w.r.choice([0, 1, 2, 4])), 0)
    w.same(w.call("zx_engine_sync"), 0)
    back = np.zeros(4, F)
    w.same(w.call("zx_buffer_read", buffer.value, back.ctypes.data, 16), 0)
    w.same_floats(back, content * F(3), RELATIVE, what="kernel")
    w.call("zx_buffer_release", buffer.value)
    w.process.opencl.library.clReleaseKernel(kernel)


def broken_program(w):
    """A source that does not build: the log goes to standard error, and no program is left."""
    if not w.initialized:
        return
    status = w.call("zx_engine_compile_kernels", b"__kernel void broken(", None, err=ANY,
                    record=(206, ENGINE, b"Kernel compilation failed"))
    w.same(status, 206)
    w.same(w.call("zx_kernel_get", b"vec_scale"), None)
    w.process.dirty = True


# Operations on tensors ----------------------------------------------------------------------------

def operand(w, *dims):
    """A tensor of a shape: one that is there, or a new one, now and then on the device."""
    same = [held for held in w.tensors if held.dims[:held.ndim] == dims and held.tame]
    if same and w.chance(0.5):
        return w.r.choice(same)
    made = new(w, list(dims), w.tame(int(np.prod(dims))))
    made.tame = True
    if w.chance(0.3):
        w.same(w.call("zx_tensor_to_device", made.pointer), upload(w, made))
        note_buffer(w, made)
    return made


def verify(w, held, relative=RELATIVE, absolute=ABSOLUTE):
    """Compares the device copy of a tensor and takes it over."""
    back = np.zeros(held.size, F)
    w.same(w.call("zx_buffer_read", held.device_buffer, back.ctypes.data, back.nbytes), 0)
    w.same_floats(back, held.device_data, relative, absolute, "device copy")
    held.device_data[:] = back
    assert np.isfinite(back).all() or not held.tame


def launch(w, name, operands, uploads, arguments, compute, fits=True, before=None):
    """One operation. operands are checked in their order, uploads moved in theirs; compute gives
    (tensor, values) of what the kernel writes."""
    record = None
    if not w.ready or not w.initialized:
        record = NOT_READY
    elif any(held is None or held.data is None for held in operands):
        record = NULL_TENSOR
    elif before:
        record = before
    elif not fits:
        record = UNFIT
    status = w.call(name, *arguments, record=record)
    if record:
        w.same(status, record[0])
        return False
    w.same(status, 0)
    for held in uploads:
        if not held.on_device:
            upload(w, held)
        note_buffer(w, held)
    if compute:
        finish(w, *compute())
    return True


def finish(w, held, values, relative=RELATIVE, absolute=ABSOLUTE):
    values = np.asarray(values, F).ravel()
    scale = max(1.0, float(np.abs(values).max(initial=0)))
    held.device_data[:len(values)] = values
    verify(w, held, relative, absolute * scale)
    if scale > 1e3:
        held.tame = False


def maybe(w, held):
    """The tensor, null, or one without host data."""
    dice = w.r.random()
    if dice < 0.02:
        return None
    if dice < 0.04:
        return hollow(w)
    return held


def on(held):
    """What is on the device, in rows."""
    return held.device_data.reshape(held.dims[0], -1).astype(np.float64)


def dense(w):
    m, k, n = (w.r.randint(1, 6) for _ in range(3))
    inputs, weight = operand(w, m, k), operand(w, n, k)
    bias = operand(w, n) if w.chance(0.6) else None
    output = operand(w, m, n)
    distinct = output not in (inputs, weight, bias)
    if not distinct:
        return
    relu = w.chance(0.5)
    fits = True
    if w.chance(0.1):
        weight = operand(w, n, k + 1)  # rows are read at a distance of k: they are there
        if weight is output:
            return
    elif w.chance(0.1) and m > 1:
        output, fits = operand(w, m - 1, n), False
    o, i, t = maybe(w, output), maybe(w, inputs), maybe(w, weight)

    def compute():
        rows = weight.device_data[:n * k].reshape(n, k).astype(np.float64)
        values = on(inputs) @ rows.T
        if bias:
            values = values + bias.device_data.astype(np.float64)
        return output, np.maximum(values, 0) if relu else values

    launch(w, "zx_gpu_dense_forward", (o, i, t), [inputs, weight] + [bias] * bool(bias) + [output],
           (address(o), address(i), address(t), address(bias), relu), compute, fits)


def matmul(w):
    m, k, n = (w.r.randint(1, 6) for _ in range(3))
    a, b, c = operand(w, m, k), operand(w, n, k), operand(w, m, n)
    if c in (a, b):
        return
    fits = True
    if w.chance(0.1) and k > 1:
        b, fits = operand(w, n, k - 1), False
        if b is c:
            return
    o, i, t = maybe(w, c), maybe(w, a), maybe(w, b)
    launch(w, "zx_gpu_matmul", (o, i, t), [a, b, c], (address(o), address(i), address(t)),
           lambda: (c, on(a) @ on(b).T), fits)


def lookup(w):
    rows, d, count = w.r.randint(1, 6), w.r.randint(1, 5), w.r.choice([0, 1, 2, 5])
    table, output = operand(w, rows, d), operand(w, max(count, 1), d)
    if table is output:
        return
    ids = [w.r.randrange(rows) for _ in range(count)]
    unknown = count and w.chance(0.1)
    if unknown:
        ids[0] = w.r.choice([rows, 2 ** 32 - 1])
    fits = True
    if w.chance(0.08) and count > 1:
        output, fits = operand(w, count - 1, d), False
        if table is output:
            return
    o, t = maybe(w, output), maybe(w, table)
    pointer = w.or_null(w.u32s(ids))
    before = None if pointer else (3, MODULE, b"NULL indices")
    if count == 0 and pointer and fits and None not in (o, t) and w.ready and w.initialized and (
            o.data is not None and t.data is not None):
        status = w.call("zx_gpu_embedding_lookup", o.pointer, t.pointer, pointer, 0,
                        record=(101, MODULE, b"Failed to create index buffer"))
        w.same(status, 101)
        for held in (table, output):
            if not held.on_device:
                upload(w, held)
            note_buffer(w, held)
        return

    def compute():
        values = on(table)[[index if index < rows else 0 for index in ids]]
        if unknown:
            # The row of an unknown id is left open: untouched or zero.
            back = np.zeros(output.size, F)
            w.call("zx_buffer_read", output.device_buffer, back.ctypes.data, back.nbytes)
            values[0] = 0 if not back[:d].any() else output.device_data[:d]
        return output, values, 0.0, 0.0

    launch(w, "zx_gpu_embedding_lookup", (o, t), [table, output],
           (address(o), address(t), pointer, count), compute, fits, before)


def pairwise(w):
    """Dot products and cosines of rows."""
    rows, d = w.r.randint(1, 6), w.r.randint(1, 7)
    a, b, output = operand(w, rows, d), operand(w, rows, d), operand(w, rows)
    if output in (a, b):
        return
    fits = True
    if w.chance(0.1) and rows > 1:
        output, fits = operand(w, rows - 1), False
    name = w.r.choice(["zx_gpu_batched_dot", "zx_gpu_cosine_similarity"])
    o, i, t = maybe(w, output), maybe(w, a), maybe(w, b)

    def compute():
        left, right = on(a), on(b)
        values = (left * right).sum(axis=1)
        if "cosine" in name:
            norms = np.sqrt((left ** 2).sum(axis=1) * (right ** 2).sum(axis=1))
            values = np.divide(values, norms, out=np.zeros(rows), where=norms > 1e-30)
        return output, values

    launch(w, name, (o, i, t), [a, b, output], (address(o), address(i), address(t)), compute, fits)


def score_all(w):
    items, d = w.r.randint(1, 7), w.r.randint(1, 6)
    user, table, output = operand(w, d), operand(w, items, d), operand(w, items)
    if output in (user, table):
        return
    o, i, t = maybe(w, output), maybe(w, user), maybe(w, table)
    launch(w, "zx_gpu_score_all_items", (o, i, t), [user, table, output],
           (address(o), address(i), address(t)),
           lambda: (output, on(table) @ user.device_data.astype(np.float64)))


def shape(w):
    return [w.r.randint(1, 4) for _ in range(w.r.choice([1, 2, 2, 3, 4]))]


ACTIVATIONS = {
    "zx_gpu_relu": lambda x: np.maximum(x, 0),
    "zx_gpu_sigmoid": lambda x: 1 / (1 + np.exp(-x)),
    "zx_gpu_tanh": np.tanh,
    "zx_gpu_gelu": lambda x: 0.5 * x * (1 + np.tanh(0.7978846 * (x + 0.044715 * x ** 3))),
}


def elementwise(w):
    """The operations in place on one tensor."""
    held = operand(w, *shape(w))
    x = maybe(w, held)
    name = w.r.choice([*ACTIVATIONS, "zx_gpu_leaky_relu", "zx_gpu_vec_scale"])
    number = F(w.r.choice([0.01, 0.0, 2.0, -1.5]))
    if name in ACTIVATIONS:
        function, extra = ACTIVATIONS[name], ()
    elif name == "zx_gpu_leaky_relu":
        def function(values):
            return np.where(values > 0, values, float(number) * values)
        extra = (number,)
    else:
        def function(values):
            return values * float(number)
        extra = (number,)
    launch(w, name, (x,), [held], (address(x), *extra),
           lambda: (held, function(held.device_data.astype(np.float64))))


def softmax(w):
    held = operand(w, *shape(w))
    x = maybe(w, held)
    before = None
    if x is not None and x.ndim != 2:
        before = (304, MODULE, b"Softmax requires 2D tensor")

    def compute():
        values = on(held)
        values = np.exp(values - values.max(axis=1, keepdims=True))
        return held, values / values.sum(axis=1, keepdims=True)

    launch(w, "zx_gpu_softmax_rows", (x,), [held], (address(x),), compute, before=before)


def layer_norm(w):
    rows, cols = w.r.randint(1, 5), w.r.randint(1, 6)
    held, gamma, beta = operand(w, rows, cols), operand(w, cols), operand(w, cols)
    if held in (gamma, beta):
        return
    fits = True
    if w.chance(0.1) and cols > 1:
        beta, fits = operand(w, cols - 1), False
    x, g, b = maybe(w, held), maybe(w, gamma), maybe(w, beta)
    eps = F(w.r.choice([1e-3, 1e-2, 1.0]))

    def compute():
        values = on(held)
        centred = values - values.mean(axis=1, keepdims=True)
        spread = np.sqrt((centred ** 2).mean(axis=1, keepdims=True) + float(eps))
        values = centred / spread * gamma.device_data + beta.device_data
        return held, values, 1e-3, 1e-4

    launch(w, "zx_gpu_layer_norm", (x, g, b), [held, gamma, beta],
           (address(x), address(g), address(b), eps), compute, fits)


def vectors(w):
    """Sums of vectors; one tensor may stand in several places."""
    dims = shape(w)
    a, b = operand(w, *dims), operand(w, *dims)
    fits = True
    if w.chance(0.1) and dims[0] > 1:
        b, fits = operand(w, dims[0] - 1, *dims[1:]), False
    if w.chance(0.5):
        output = operand(w, *dims)
        o, i, t = maybe(w, output), maybe(w, a), maybe(w, b)
        launch(w, "zx_gpu_vec_add", (o, i, t), [a, b, output],
               (address(o), address(i), address(t)),
               lambda: (output, a.device_data + b.device_data), fits)
    else:
        alpha = F(w.r.choice([2.0, 0.0, -0.5]))
        i, t = maybe(w, a), maybe(w, b)
        launch(w, "zx_gpu_vec_axpy", (i, t), [a, b], (address(i), address(t), alpha),
               lambda: (b, alpha * a.device_data + b.device_data), fits)


def bpr_update(w):
    d = w.r.choice([1, 2, 3, 5, 17, 64, 70])
    held = [operand(w, d) for _ in range(3)]
    fits = True
    if w.chance(0.08) and d > 1:
        held[w.r.choice([1, 2])], fits = operand(w, d - 1), False
    rate, regularization = F(w.r.choice([0.05, 0.5, 0.0])), F(w.r.choice([0.0, 0.1]))
    given = [maybe(w, one) for one in held]
    ran = launch(w, "zx_gpu_bpr_update", given, held,
                 (*map(address, given), rate, regularization), None, fits)
    if ran:
        # What the host makes of the same triple, also where two of the three are one tensor.
        users, items = held[0].device_data[None], [one.device_data for one in held[1:]]
        training.bpr((users, items), None, [(0, 0, 1)], rate, regularization, True)
        for one in held:
            finish(w, one, one.device_data.copy(), RELATIVE, 1e-4)


def batch_model(w, rows):
    """Tables for a batch: of few rows, which its triples share, or of so many that none need."""
    users, items, d = (600, 1300, w.r.choice([1, 2, 4])) if rows else (4, 5, w.r.choice([2, 3, 9]))
    return operand(w, users, d), operand(w, items, d), operand(w, items)


def move_tables(w, tables, bias):
    for held in tables + [bias] * bool(bias):
        if not held.on_device:
            upload(w, held)
        note_buffer(w, held)


def batch_score(w):
    users, items, bias = batch_model(w, False)
    batch = w.r.choice([0, 1, 3, 6])
    use_bias = w.chance(0.5)
    given_bias = bias if w.chance(0.8) else None
    if use_bias and given_bias is None:
        return  # the flag without a bias reads the item table in its place
    output = operand(w, max(batch, 1))
    if output in (users, items, bias):
        return
    ids = [[w.r.randrange(held.dims[0]) for _ in range(batch)] for held in (users, items)]
    unknown = batch and w.chance(0.1)
    if unknown:
        side = w.r.randrange(2)
        ids[side][w.r.randrange(batch)] = w.r.choice([(users, items)[side].dims[0], 2 ** 32 - 1])
    fits = True
    if w.chance(0.06) and batch > 1:
        output, fits = operand(w, batch - 1), False
    if not fits and unknown:
        return
    u, i, o = maybe(w, users), maybe(w, items), maybe(w, output)
    pointers = [w.or_null(w.u32s(one)) for one in ids]
    before = NULL_BATCH if None in pointers else None
    arguments = (address(u), address(i), address(given_bias), *pointers, address(o), batch,
                 use_bias)
    sound = w.ready and w.initialized and not before and all(
        held is not None and held.data is not None for held in (u, i, o))
    if sound and unknown:
        w.same(w.call("zx_gpu_batched_score", *arguments), 4)
        return
    if sound and fits and batch == 0:
        w.same(w.call("zx_gpu_batched_score", *arguments), 101)
        move_tables(w, [users, items, output], bias if use_bias else None)
        return

    def compute():
        values = (on(users)[ids[0]] * on(items)[ids[1]]).sum(axis=1)
        if use_bias:
            values = values + bias.device_data[ids[1]]
        return output, values

    ran = launch(w, "zx_gpu_batched_score", (u, i, o),
                 [users, items] + [bias] * use_bias + [output], arguments, compute, fits, before)
    if ran:
        # The scores are also on the host.
        output.data[:output.size] = output.device_data
        output.on_device = 0


def expect_batch(w, users, items, bias, triples, rate, regularization):
    """The tables on the device after a batch. Rows that several triples share may lose updates, and
    so may only be compared where nothing touched them."""
    tables = [held.device_data.reshape(held.dims[:2]) for held in (users, items)]
    touched = [list(triples[0]), list(triples[1]) + list(triples[2])]
    shared = any(len(set(rows)) < len(rows) for rows in touched)
    finite = all(np.isfinite(table).all() for table in tables) and np.isfinite(rate)
    biases = bias.device_data if bias else None
    if not shared and finite:
        training.bpr(tables, biases, zip(*triples), rate, regularization, True)
        for held in [users, items] + [bias] * bool(bias):
            finish(w, held, held.device_data.copy(), RELATIVE, 1e-4)
        return
    for held, rows in ((users, touched[0]), (items, touched[1]), (bias, touched[1])):
        if held:
            back = np.zeros(held.size, F)
            w.same(w.call("zx_buffer_read", held.device_buffer, back.ctypes.data, back.nbytes), 0)
            idle = np.setdiff1d(np.arange(held.dims[0]), rows)
            before = held.device_data.reshape(held.dims[0], -1)[idle]
            w.same(back.reshape(held.dims[0], -1)[idle].tobytes(), before.tobytes(), "other rows")
            held.device_data[:] = back
            held.tame = bool(np.isfinite(back).all() and np.abs(back).max() < 1e3)


def batch_update(w):
    apart = w.chance(0.3)
    users, items, bias = batch_model(w, apart)
    batch = w.r.choice([0, 1, 1, 2, 5, 64 if apart else 4])
    use_bias = w.chance(0.5)
    if apart:
        rows = w.r.sample(range(items.dims[0]), 2 * batch)
        triples = [w.r.sample(range(users.dims[0]), batch), rows[:batch], rows[batch:]]
    else:
        triples = [[w.r.randrange(held.dims[0]) for _ in range(batch)]
                   for held in (users, items, items)]
    unknown = batch and w.chance(0.08)
    if unknown:
        side = w.r.randrange(3)
        triples[side][w.r.randrange(batch)] = w.r.choice([(users, items, items)[side].dims[0],
                                                          2 ** 32 - 1])
    rate, regularization = F(w.r.choice([0.05, 0.3])), F(w.r.choice([0.0, 0.1]))
    u, i = maybe(w, users), maybe(w, items)
    pointers = [w.or_null(w.u32s(one), 0.02) for one in triples]
    before = NULL_BATCH if None in pointers else None
    arguments = (address(u), address(i), address(bias), *pointers, batch, use_bias, rate,
                 regularization)
    sound = w.ready and w.initialized and not before and all(
        held is not None and held.data is not None for held in (u, i))
    if sound and (unknown or batch == 0):
        w.same(w.call("zx_gpu_bpr_batch_update", *arguments), 4 if unknown else 101)
        if not unknown:
            move_tables(w, [users, items], bias if use_bias else None)
        return
    moved = [users, items] + [bias] * use_bias
    ran = launch(w, "zx_gpu_bpr_batch_update", (u, i), moved, arguments, None, True, before)
    if ran:
        expect_batch(w, users, items, bias if use_bias else None, triples, rate, regularization)


OPERATION = [dense, matmul, lookup, pairwise, score_all, elementwise, elementwise, softmax,
             layer_norm, vectors, bpr_update, batch_score, batch_update]


def operation(w):
    w.r.choice(OPERATION)(w)


# Models on the device -----------------------------------------------------------------------------

def scores(w, model, users, items, arguments):
    """Pair scoring by the device, where it is taken: the result is near the host's."""
    count = len(users)
    if not w.ready or model.type != 0 or count < 512 or not model.intact() or (
            max(users) >= model.users or max(items) >= model.items):
        return False
    got = w.call("zx_model_score", *arguments)
    for held in model.tensors[:2] + [model.tensors[3]] * model.use_bias:
        if not held.on_device:
            upload(w, held)
        note_buffer(w, held)
    found = adopt(w, got, 1, [count], *creation(1, [count]))
    values = (on(model.tensors[0])[users] * on(model.tensors[1])[items]).sum(axis=1)
    if model.use_bias:
        values = values + model.tensors[3].device_data[items] + model.tensors[2].data[users]
        values = values + float(model.global_bias)
    found.device_buffer = ctypes.c_uint64.from_address(found.pointer + 48).value
    w.same(found.device_buffer != 0, True, "device buffer of the scores")
    back = np.zeros(count, F)
    w.same(w.call("zx_buffer_read", found.device_buffer, back.ctypes.data, back.nbytes), 0)
    found.device_data = back
    found.data[:] = values
    if np.isfinite(values).all():
        found.near = (RELATIVE, ABSOLUTE * max(1.0, float(np.abs(values).max())))
    else:
        found.data[:] = np.frombuffer(tensor.string_at(found.data_pointer, 4 * count), F)
    return True


def trains(w, model, triples, arguments):
    """A BPR step by the device, where it is taken: the tables are then current there only."""
    count = len(triples[0])
    if not w.ready or count < 512 or not model.intact() or (
            max(triples[0]) >= model.users or max(triples[1] + triples[2]) >= model.items):
        return False
    w.same(w.call("zx_model_train_step_bpr", *arguments), 0)
    users, items = model.tensors[:2]
    bias = model.tensors[3] if model.use_bias else None
    move_tables(w, [users, items], bias)
    expect_batch(w, users, items, bias, triples, *arguments[-2:])
    return True


def large_step(w):
    """A step or a scoring of 512 pairs and more, or one fewer; no two triples share a row."""
    r = w.r
    large = [model for model in w.models if model.users == 520]
    model = r.choice(large) if large else mf.assembled(w, 520, 1100, r.choice([1, 2, 3]))
    count = r.choice([511, 512, 513])
    users, rows = r.sample(range(520), count), r.sample(range(1100), 2 * count)
    if w.chance(0.1):
        users[5] = 520
    triples = [users, rows[:count], rows[count:]]
    if w.chance(0.5):
        rate, regularization = F(r.choice([0.05, 0.5])), F(r.choice([0.0, 0.1]))
        arguments = [model.pointer, *map(w.u32s, triples), count, rate, regularization]
        if not trains(w, model, triples, arguments):
            w.same(w.call("zx_model_train_step_bpr", *arguments), 0)
            training.expect_trained(model, triples, rate, regularization)
    else:
        arguments = [model.pointer, w.u32s(users), w.u32s(triples[1]), count]
        if not scores(w, model, users, triples[1], arguments):
            record = mf.lookup_record(model, 0, users)
            got = w.call("zx_model_score", *arguments, record=record)
            found = adopt(w, got, 1, [count], record, count)
            if found:
                found.data[:] = mf.pair_scores(model, users, triples[1])


def host_write(w):
    """The host writes an element of a tensor, by the accessor or behind its back."""
    held = w.pick([one for one in w.tensors if one.tame and one.ndim > 1])
    if held and w.chance(0.7):
        value = F(w.r.uniform(-2, 2))
        w.same(w.call("zx_tensor_set_2d", held.pointer, 0, 0, value), 0)
        held.data[0] = value
        held.on_device = 0
    elif held:
        write(w, held, w.tame(held.size))


def residence(w):
    held = w.pick([one for one in w.tensors if one.tame])
    if held and not held.device_buffer and held.on_device:
        return
    tensor.residence(w)


THEMES = spread_out([
    (10, spread_out([(8, operation), (2, residence), (1, host_write)])),
    (3, spread_out([(3, large_step), (1, mf.to_device), (1, residence), (1, operation)])),
    (3, spread_out([(2, buffers), (2, kernels), (1, sparse.create), (3, sparse.to_device),
                    (1, sparse.refill)])),
    (1, spread_out([(4, operation), (1, gpu_shutdown), (2, gpu_init), (1, kernels)])),
    (1, spread_out([(3, life), (2, operation), (1, gpu_init), (1, buffers)])),
    (1, spread_out([(1, broken_program), (3, operation), (1, kernels)])),
    (2, spread_out([(3, op) for op in (tensor.create, tensor.wrap, tensor.set_2d)] +
                   [(6, tensor.residence), (2, tensor.clone), (2, tensor.release)])),
    (2, spread_out(training.BPR, [(2, mf.to_device)])),
])
