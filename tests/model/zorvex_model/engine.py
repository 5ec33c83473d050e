"""The engine: start and stop, programs, buffers, dispatch, the kernel table without a device."""

import ctypes
import os
import shutil

C_LIBRARY = ctypes.CDLL(None)  # its clock may lag behind Python's by a tick
MODULE = b"src/zx_engine"
GPU = b"src/zx_gpu"
NOT_FOUND = (2, GPU, b"Kernel file not found. Searched: ./, src/kernels/, ../src/kernels/, "
                     b"/usr/local/share/zorvex/, /usr/share/zorvex/")
PLACES = ["./zorvex_kernels.cl", "src/kernels/zorvex_kernels.cl",
          "../src/kernels/zorvex_kernels.cl", "../share/zorvex/zorvex_kernels.cl",
          "/usr/local/share/zorvex/zorvex_kernels.cl", "/usr/share/zorvex/zorvex_kernels.cl",
          "/opt/homebrew/share/zorvex/zorvex_kernels.cl"]
NOT_INITIALIZED = (200, GPU, b"Engine not initialized")
READ_FAILED = (209, MODULE, b"Failed to read from GPU buffer")
WRITE_FAILED = (209, MODULE, b"Failed to write to GPU buffer")


def init(w):
    """Starts the engine; the generator is then seeded with a second that the model brackets."""
    name, arguments = w.r.choice([("zx_engine_init", ()),
                                  ("zx_engine_init_with_device", (w.r.choice([1, 2, 4, 8, 0,
                                                                              0xffffffff]),))])
    if w.initialized:
        record = (201, MODULE, b"Engine already initialized")
        w.same(w.call(name, *arguments, record=record), 201)
        return
    start(w, name, arguments)


def start(w, name="zx_engine_init", arguments=()):
    if w.device:
        w.start_with_device(name, arguments)
        return
    lines = (w.line("[ZORVEX] Engine initialized (CPU-only mode)") +
             w.line("[ZORVEX] OpenCL not available, using BLAS/SIMD fallback"))
    before = C_LIBRARY.time(None)
    w.same(w.call(name, *arguments, out=lines), 0)
    w.initialized = True
    seeded(w, before)


def seeded(w, before):
    """The engine took the present second as its seed."""
    if before != C_LIBRARY.time(None):
        w.call("zx_rng_seed", before)
    w.generator.seed(before)


def shutdown(w):
    if w.device:
        w.stop_with_device()
        return
    w.call("zx_engine_shutdown",
           out=w.line("[ZORVEX] Engine shutdown complete") if w.initialized else b"")
    stopped(w)


def stopped(w):
    if w.initialized:
        w.verbosity = -1
    w.initialized = w.gpu_enabled = w.compiled = w.has_context = False


def queries(w):
    got = (w.call("zx_engine_is_initialized"), w.call("zx_engine_is_gpu"))
    w.same(got, (w.initialized, w.gpu_enabled and w.true_gpu))
    if not w.initialized or not w.has_context:
        got = (w.call("zx_engine_platform_name"), w.call("zx_engine_device_name"),
               w.call("zx_engine_global_memory"))
        w.same(got, (b"CPU", b"CPU (BLAS/SIMD)", 0) if w.initialized else (b"", b"", 0))
    w.same(w.call("zx_gpu_is_ready"), w.ready and w.initialized)


# Without a context --------------------------------------------------------------------------------

def compile_text(w):
    source = w.r.choice([b"", b"kernel void f() {}", b"%s%n", b"no program"])
    options = w.r.choice([None, b"", b"-cl-fast-relaxed-math", b"-no-such-option"])
    record = compilation(w)
    w.same(w.call("zx_engine_compile_kernels", source, options, record=record), record[0])


def compilation(w):
    """Building without a device."""
    if not w.initialized:
        return 200, MODULE, None
    return 206, MODULE, b"Failed to create program from source"


def kernel_file(w):
    """A kernel file of some kind: its path, and what building it records before it is compiled."""
    path = w.path("kernels.cl")
    kind = w.r.choice(["null", "missing", "empty", "good", "nul inside", "nul at the end",
                       "only nul", "large", "too large"])
    if kind == "null":
        return None, (3, MODULE, b"Kernel file path is NULL")
    if kind == "missing":
        return w.path("no such file"), (2, MODULE, b"Could not open kernel file")
    content = {"empty": b"", "good": b"kernel void f() {}", "nul inside": b"kernel\0void",
               "nul at the end": b"kernel void f() {}\0", "only nul": b"\0"}.get(kind, b"")
    with open(path, "wb") as file:
        file.write(content)
        if kind in ("large", "too large"):
            # A hole reads as NULs, which the longest permitted file may not have.
            file.truncate(10485760 + (kind == "too large"))
    return path, {"empty": (102, MODULE, b"Kernel file size invalid or too large"),
                  "too large": (102, MODULE, b"Kernel file size invalid or too large"),
                  "large": (402, MODULE, b"Kernel file contains null bytes"),
                  "nul inside": (402, MODULE, b"Kernel file contains null bytes")}.get(kind)


def compile_file(w):
    path, record = kernel_file(w)
    record = record or compilation(w)
    w.same(w.call("zx_engine_compile_kernels_file", path, w.r.choice([None, b""]), record=record),
           record[0])


def gpu_init(w):
    """The search for the kernel file; the place is this sequence's own."""
    for name in ("here/src", "src", "share"):
        shutil.rmtree(os.path.join(w.process.folder, name), ignore_errors=True)
    if os.path.exists(PLACES[0]):
        os.unlink(PLACES[0])
    found = None
    for place in PLACES[:4]:
        if w.chance(0.2):
            os.makedirs(os.path.dirname(place), exist_ok=True)
            with open(place, "wb") as file:
                file.write(w.r.choice([b"", b"kernel void f() {}", b"a\0b"]))
            content = open(place, "rb").read()
            found = found or (place, content)
    record, out = NOT_FOUND, b""
    if not w.initialized:
        record = NOT_INITIALIZED
    elif found:
        out = w.line("[ZORVEX] Loading kernels from: " + found[0])
        record = {b"": (102, MODULE, b"Kernel file size invalid or too large"),
                  b"a\0b": (402, MODULE, b"Kernel file contains null bytes")}.get(
                      found[1], compilation(w))
    w.same(w.call("zx_gpu_init", record=record, out=out), record[0])
    for place in PLACES[:4]:
        if os.path.exists(place):
            os.unlink(place)


def gpu_init_from_file(w):
    path, record = kernel_file(w)
    if not w.initialized:
        record = NOT_INITIALIZED
    record = record or compilation(w)
    w.same(w.call("zx_gpu_init_from_file", path, record=record), record[0])


def gpu_shutdown(w):
    w.call("zx_gpu_shutdown")
    w.same(w.call("zx_gpu_is_ready"), False)


def kernel_get(w):
    w.same(w.call("zx_kernel_get", w.r.choice([b"f", b"", b"relu"])), None)


def buffers(w):
    """No buffer can be had, and transfers with what may be taken for one fail on the queue."""
    memory = w.floats([1, 2, 3, 4])
    size = w.r.choice([0, 1, 16, 2 ** 40])
    flags = w.r.choice([0, 1, 2, 4, 32, 2 ** 64 - 1])
    w.same(w.call("zx_buffer_create", size, flags), None)
    w.same(w.call("zx_buffer_create_with_data", w.or_null(memory, 0.2), min(size, 16), flags), None)
    w.call("zx_buffer_release", None)


def transfers(w):
    memory = w.floats([1, 2, 3, 4])
    no_buffer = ctypes.create_string_buffer(512)
    w.kept.append(no_buffer)
    buffer = w.or_null(ctypes.addressof(no_buffer), 0.3)
    host = w.or_null(memory, 0.2)
    name = w.r.choice(["zx_buffer_write", "zx_buffer_read", "zx_buffer_write_async",
                       "zx_buffer_read_async"])
    extra = (None,) if name.endswith("async") else ()
    record = None
    if buffer and host:
        record = WRITE_FAILED if "write" in name else READ_FAILED
    w.same(w.call(name, buffer, host, 16, *extra, record=record), record[0] if record else 3)


def dispatch(w):
    value = w.floats([1])
    execution = (207, MODULE, b"Failed to execute kernel")
    record, name, arguments = w.r.choice([
        ((207, MODULE, b"Failed to set kernel argument"), "zx_kernel_set_arg",
         (None, w.r.choice([0, 3]), 4, w.or_null(value))),
        (execution, "zx_kernel_exec_1d", (None, w.r.choice([0, 4]), w.r.choice([0, 4]))),
        (execution, "zx_kernel_exec_2d", (None, 4, 4, w.r.choice([0, 16]), w.r.choice([0, 16])))])
    w.same(w.call(name, *arguments, record=record), 207)


def sync(w):
    if not w.initialized:
        w.same(w.call("zx_engine_sync"), 200)
    else:
        w.same(w.call("zx_engine_sync", record=(207, MODULE, b"Failed to synchronize")), 207)


DEVICE_OPERATIONS = {  # their arguments: t is a tensor, p an array, the rest as in the prototypes
    "zx_gpu_dense_forward": "ttttb", "zx_gpu_matmul": "ttt", "zx_gpu_embedding_lookup": "ttpu",
    "zx_gpu_batched_dot": "ttt", "zx_gpu_score_all_items": "ttt", "zx_gpu_relu": "t",
    "zx_gpu_sigmoid": "t", "zx_gpu_tanh": "t", "zx_gpu_gelu": "t", "zx_gpu_leaky_relu": "tf",
    "zx_gpu_softmax_rows": "t", "zx_gpu_layer_norm": "tttf", "zx_gpu_cosine_similarity": "ttt",
    "zx_gpu_vec_add": "ttt", "zx_gpu_vec_scale": "tf", "zx_gpu_vec_axpy": "ttf",
    "zx_gpu_bpr_update": "tttff", "zx_gpu_bpr_batch_update": "tttpppubff",
    "zx_gpu_batched_score": "tttpptub",
}


def not_ready(w):
    """Every device operation looks first at whether there is a device, whatever it is given."""
    name = w.r.choice(list(DEVICE_OPERATIONS))
    held = w.pick(w.tensors)
    values = {"t": w.or_null(held.pointer, 0.5) if held else None, "p": w.u32s([0]), "u": 1,
              "b": True, "f": 1.0}
    arguments = [values[kind] for kind in DEVICE_OPERATIONS[name]]
    w.same(w.call(name, *arguments, record=(200, GPU, b"GPU not initialized")), 200)


OPERATIONS = [(3, not_ready), (5, init), (2, shutdown), (3, queries), (2, compile_text),
              (2, compile_file), (2, gpu_init), (2, gpu_init_from_file), (1, gpu_shutdown),
              (1, kernel_get), (1, buffers), (3, transfers), (3, dispatch), (2, sync)]
