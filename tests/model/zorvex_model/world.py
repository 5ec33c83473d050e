"""One sequence of calls: what exists, what each call is expected to do, and the comparison.

An operation (a function of one World, in the module of its subject) chooses arguments, calls the
library through World.call(), which compares the error record and the console, compares the result,
and changes the model. After each operation every living object is compared, fields and contents.
"""

import array
import ctypes
import os
import random
import threading

import numpy as np

from .floats import F, SPECIAL, SPECIAL_BITS, bits, close
from .library import ERROR
from .rng import Generator

string_at = ctypes.string_at
CHECK = 1 << 16  # longest array that is compared after every operation


class Difference(Exception):
    """The library and the model disagree."""


class Process:
    """What lives as long as the process: the library, its captured console, a folder for files."""

    def __init__(self, functions, folder, device, errors):
        self.functions = functions
        self.folder = folder
        self.device = device  # a driver is at hand, and the kernel file
        libc = ctypes.CDLL(None)
        self.console = []
        for descriptor, stream in ((1, "stdout"), (2, "stderr")):
            # Whoever started this process reads the last words from standard error.
            os.dup2(errors if descriptor == 2 else os.memfd_create(stream), descriptor)
            libc.setvbuf(ctypes.c_void_p.in_dll(libc, stream), None, 2, 0)  # 2 is _IONBF
            self.console.append([descriptor, os.lseek(descriptor, 0, os.SEEK_CUR)])

    def read_console(self, stream):
        """What was written to the console since the last look."""
        descriptor, before = stream
        now = os.lseek(descriptor, 0, os.SEEK_CUR)
        if now == before:
            return b""
        text = os.pread(descriptor, now - before, before)
        if now > 1 << 20:
            os.ftruncate(descriptor, 0)
            now = os.lseek(descriptor, 0, os.SEEK_SET)
        stream[1] = now
        return text


class World:
    """A sequence. Fields of the model: record (280 bytes of the error record as they must stand),
    generator, verbosity, the engine's state, and the living objects by kind."""

    def __init__(self, process, seed, index):
        self.process = process
        self.functions = process.functions
        self.device = process.device
        self.out, self.err = process.console
        self.r = random.Random(seed << 64 | index)
        self.log = []
        self.kept = []  # memory that the library may still refer to
        self.tensors, self.sparses, self.pools, self.models = [], [], [], []
        self.layers, self.optimizers, self.interactions, self.blocks = [], [], [], []
        self.generator = Generator()
        self.context = self.functions["zx_get_error_context"]()
        self.record = string_at(self.context, ERROR.size)
        self.verbosity = -1
        self.initialized = self.gpu_enabled = self.compiled = self.ready = False
        self.has_context = self.true_gpu = False

    # Calls ----------------------------------------------------------------------------------------

    def call(self, name, *arguments, record=None, out=b"", err=b""):
        """Calls a function. record is what it must leave in the error record, (code, module,
        message), or None if it must not touch it; out and err what it prints."""
        self.log.append((name, arguments))
        result = self.functions[name](*arguments)
        now = string_at(self.context, 280)
        if record is None:
            if now != self.record:
                self.differ("error record", show_record(now), "unchanged: " +
                            show_record(self.record))
        else:
            self.recorded(now, *record)
        for stream, wanted in ((self.out, out), (self.err, err)):
            if os.lseek(stream[0], 0, 1) != stream[1] or wanted:
                text = self.process.read_console(stream)
                if wanted is not ANY and text != wanted:
                    self.differ("console", text, wanted)
        return result

    def recorded(self, now, code, module, message):
        """Compares the record with a failure just recorded, to the last of its bytes."""
        got_code, got_file, _, got_message = ERROR.unpack(now)
        if message is None:
            wanted = b"\0" + self.record[21:276]
        elif message is ANY:
            wanted = got_message
        else:
            wanted = message[:255].ljust(256, b"\0")
        file = string_at(got_file) if got_file else None
        if got_code != code or file != module or got_message != wanted:
            self.differ("error record", show_record(now), f"({code}, {module}, {wanted!r})")
        self.record = now

    def informs(self):
        return self.verbosity & 0xffffffff > 1

    def line(self, text):
        """An informational line, as it appears at the present verbosity."""
        return text.encode() + b"\n" if self.informs() else b""

    # Comparison -----------------------------------------------------------------------------------

    def differ(self, what, got, wanted):
        raise Difference(f"{what}\n  library: {got}\n  model:   {wanted}")

    def same(self, got, wanted, what="result"):
        if got != wanted:
            self.differ(what, got, wanted)

    def same_float(self, got, wanted, relative=0.0, absolute=0.0, what="result"):
        got, wanted = F(got), F(wanted)
        if bits(got) != bits(wanted):
            self.same_floats(np.array([got]), np.array([wanted]), relative, absolute, what)

    def same_floats(self, got, wanted, relative=0.0, absolute=0.0, what="floats"):
        good = close(got, wanted, relative, absolute)
        if not good.all():
            at = int(np.argmin(good))
            self.differ(f"{what}, element {at} of {len(got)}",
                        f"{got[at]!r} ({bits(got[at]):08x}) in {got[:64].tolist()}",
                        f"{wanted[at]!r} ({bits(wanted[at]):08x}) in {wanted[:64].tolist()}")

    def same_array(self, pointer, wanted, relative=0.0, absolute=0.0, what="array"):
        """Compares the floats at an address with an array, and takes over the library's where they
        are near enough."""
        raw = string_at(pointer, 4 * len(wanted))
        if raw != wanted.tobytes():
            got = np.frombuffer(raw, F)
            self.same_floats(got, wanted, relative, absolute, what)
            wanted[:] = got

    def check_objects(self):
        for kind in (self.tensors, self.sparses, self.models, self.layers, self.optimizers,
                     self.interactions, self.pools):
            for living in kind:
                living.check(self)

    # Arguments ------------------------------------------------------------------------------------

    def chance(self, share):
        return self.r.random() < share

    def or_null(self, pointer, share=0.04):
        """A pointer, or in its place now and then null."""
        return None if self.r.random() < share else pointer

    def number(self):
        """A float of any kind."""
        r = self.r
        dice = r.random()
        if dice < 0.6:
            return r.uniform(-2, 2)
        if dice < 0.8:
            return float(r.randint(-4, 4))
        return r.choice(SPECIAL)

    def tame(self, count, hostile=0.0):
        """Floats of moderate size, some of them exact, now and then a special one."""
        r = self.r
        if r.random() < 0.3:
            found = np.array([r.randint(-3, 3) for _ in range(count)], F)
        else:
            found = np.array([r.uniform(-2, 2) for _ in range(count)], F)
        if hostile and r.random() < hostile:
            for _ in range(r.randint(1, 3)):
                at = r.randrange(count)
                found[at:at + 1] = SPECIAL_BITS[r.randrange(len(SPECIAL_BITS)):][:1]
        return found

    def u32s(self, values):
        """Ids in the caller's memory."""
        held = array.array("I", values or [0])  # an empty one has no address
        self.kept.append(held)
        return held.buffer_info()[0]

    def floats(self, values):
        """Floats in the caller's memory, and their address."""
        held = np.array(values, F)
        self.kept.append(held)
        return held.ctypes.data

    def pick(self, kind):
        return self.r.choice(kind) if kind else None

    def path(self, name):
        return os.path.join(self.process.folder, name).encode()

    def poke(self, address, data):
        """Writes into a public record, as a host may."""
        ctypes.memmove(address, data, len(data))


class Anything:
    """Where the contract leaves a text open."""

    def __repr__(self):
        return "anything"


ANY = Anything()


def show_record(raw):
    code, file, line, message = ERROR.unpack(raw)
    return f"({code}, {string_at(file) if file else None}, line {line}, {message!r})"


def in_thread(function):
    """Runs a function in a thread of its own and passes its exception on."""
    failure = []

    def body():
        try:
            function()
        except BaseException as problem:
            failure.append(problem)

    thread = threading.Thread(target=body)
    thread.start()
    thread.join()
    if failure:
        raise failure[0]
