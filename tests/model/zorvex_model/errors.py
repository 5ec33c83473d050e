"""Status texts, the error record, verbosity."""

import ctypes

from .library import ERROR
from .world import string_at

TEXTS = {
    0: b"Success", 1: b"Unknown error", 2: b"Invalid argument", 3: b"Null pointer",
    4: b"Index out of bounds", 5: b"Arithmetic overflow", 100: b"Out of memory",
    101: b"Memory allocation failed", 102: b"Buffer too small", 103: b"Memory alignment failed",
    200: b"Engine not initialized", 201: b"Engine already initialized",
    202: b"No OpenCL platform found", 203: b"No OpenCL device found",
    204: b"Failed to create OpenCL context", 205: b"Failed to create command queue",
    206: b"Kernel compilation failed", 207: b"Kernel execution failed",
    208: b"Failed to create GPU buffer", 209: b"Failed to transfer data to/from GPU",
    300: b"Invalid model", 301: b"Model not configured", 302: b"Model type mismatch",
    303: b"Invalid layer", 304: b"Dimension mismatch", 305: b"Training failed",
    400: b"Invalid matrix", 401: b"Invalid sparse matrix format", 402: b"Data corrupted",
    500: b"Failed to open file", 501: b"Failed to read file", 502: b"Failed to write file",
    503: b"Version mismatch", 504: b"Invalid file format",
}
CODES = sorted(TEXTS) + [-1, 6, 99, 104, 199, 210, 299, 306, 399, 403, 499, 505, -2 ** 31,
                         2 ** 31 - 1]
FILES = [None, b"src/zx_memory", b"", b"a file with % in its name %s%n"]
STATIC = {file: ctypes.create_string_buffer(file) for file in FILES if file is not None}
MESSAGES = [None, b"", b"a", b"%s%n%d", b"x" * 254, b"y" * 255, b"z" * 256, b"w" * 300,
            b"two\nlines", b"\xff\xfe"]


def text_of(code):
    return TEXTS.get(code, b"Unknown error code")


def status_string(w):
    code = w.r.choice(CODES)
    w.same(w.call("zx_status_string", code), text_of(code))


def last_error(w):
    w.same(w.call("zx_get_last_error"), ERROR.unpack(w.record)[0])
    w.same(w.call("zx_get_error_context"), w.context)


def clear(w):
    """Clears the record; all of the message but its first byte stays."""
    functions = w.functions
    w.log.append(("zx_clear_error", ()))
    functions["zx_clear_error"]()
    now = string_at(w.context, 280)
    code, file, line, message = ERROR.unpack(now)
    w.same((code, file, line, message), (0, 0, 0, b"\0" + w.record[21:276]), "cleared record")
    w.record = now


def record(w):
    """What every module calls to record a failure."""
    code, file, line = w.r.choice(CODES), w.r.choice(FILES), w.r.choice([0, 108, -1, 2 ** 31 - 1])
    message = w.r.choice(MESSAGES)
    pointer = ctypes.addressof(STATIC[file]) if file is not None else None
    w.call("zx_set_error_internal", code, pointer, line, message, record=(code, file, message))
    w.same(ERROR.unpack(w.record)[2], line, "line")


def printed(w):
    code, file, line, message = ERROR.unpack(w.record)
    if code == 0:
        return b""
    text = b"[ZORVEX ERROR] %s (code %d)\n" % (text_of(code), code)
    if file:
        text += b"  at %s:%d\n" % (string_at(file), line)
    message = message.split(b"\0")[0]
    if message:
        text += b"  %s\n" % message
    return text


def print_error(w):
    w.call("zx_print_error", err=printed(w))


def set_verbosity(w):
    level = w.r.choice([-1, 0, 1, 2, 3, 7, -5, -2 ** 31, 2 ** 31 - 1])
    w.call("zx_set_verbosity", level)
    w.verbosity = level


def get_verbosity(w):
    w.same(w.call("zx_get_verbosity"), 2 if w.verbosity < 0 else w.verbosity)


OPERATIONS = [(2, status_string), (2, last_error), (2, clear), (3, record), (3, print_error),
              (2, set_verbosity), (2, get_verbosity)]
