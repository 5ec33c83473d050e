#!/usr/bin/env python3
"""Drives random sequences of calls against the library and against the model of the contract.

    run.py LIBRARY --seed S --first N --count M [--jobs J] [--opencl KERNELS]
    run.py LIBRARY --seed S --replay INDEX      one sequence again, all of its calls printed
    run.py LIBRARY --campaign SECONDS           goes on where the ledger ends and adds to it

A sequence is a function of the seed and its index and nothing else. Without --opencl no OpenCL
driver is seen; with it, the driver is the one named by OCL_ICD_VENDORS, and KERNELS is the kernel
file. Sequences run in child processes: a crash is reported with its index like any difference.
"""

import argparse
import collections
import datetime
import mmap
import os
import resource
import shutil
import signal
import struct
import sys
import tempfile
import time
import traceback
from pathlib import Path

os.environ["OMP_NUM_THREADS"] = os.environ["OPENBLAS_NUM_THREADS"] = "1"

import numpy as np

from zorvex_model import library, sequence
from zorvex_model.world import Difference, Process

LEDGER = Path(__file__).with_name("ledger.tsv")
BATCH = 2000
SLOW = 120  # seconds after which a sequence counts as hanging


def show_call(name, arguments):
    return f"{name}({', '.join(map(repr, arguments))})"


def prepare(options, folder, errors):
    """Loads the library in this process, in a folder of its own and within bounds."""
    np.seterr(all="ignore")
    np.finfo(np.float32), np.finfo(np.float64)  # NumPy warns if it first looks under flush-to-zero
    os.makedirs(folder + "/here")
    os.chdir(folder + "/here")
    if options.opencl:
        os.environ.setdefault("OCL_ICD_VENDORS", "/etc/OpenCL/vendors/pocl.icd")
        os.environ.setdefault("POCL_MAX_PTHREAD_COUNT", "1")
        shutil.copy(options.opencl, "zorvex_kernels.cl")
    else:
        os.makedirs(folder + "/no-opencl")
        os.environ["OCL_ICD_VENDORS"] = folder + "/no-opencl"
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    if not options.no_limit:
        resource.setrlimit(resource.RLIMIT_AS, (12 << 30, 12 << 30))
    functions = library.load(str(options.library))
    tiny = np.full(1, 1e-40, np.float64).astype(np.float32)
    assert (tiny * np.float32(1) == 0).all() and not (tiny.view(np.uint32)).any(), (
        "loading the library did not set flush-to-zero")
    return Process(functions, folder, bool(options.opencl), errors)


def work(options, first, last, progress, report, errors):
    """The body of a child: sequences first to last - 1. Reports the first difference and ends."""
    folder = tempfile.mkdtemp(prefix="zorvex-model-", dir=options.scratch)
    status = 0
    try:
        process = prepare(options, folder, errors)
        calls = collections.Counter()
        for index in range(first, last):
            progress[:8] = struct.pack("<Q", index)
            signal.alarm(SLOW)
            world = sequence.run(process, options.seed, index)
            if options.replay is not None:
                for call in world.log:
                    os.write(report, (show_call(*call) + "\n").encode())
            if options.statistics:
                calls.update(name for name, _ in world.log)
        progress[:8] = struct.pack("<Q", last)
        if options.statistics:
            for name in sorted(process.functions):
                os.write(report, f"{calls[name]:9} {name}\n".encode())
        if process.device:
            process.finish()
    except BaseException as problem:
        world = getattr(problem, "world", None)
        text = [show_call(*call) for call in world.log] if world else []
        if isinstance(problem, Difference):
            text.append(f"DIFFERENCE: {problem}")
        else:
            text.append("the model failed: " + traceback.format_exc())
        os.write(report, ("\n".join(text) + "\n").encode())
        status = 3
    finally:
        shutil.rmtree(folder, ignore_errors=True)
        os._exit(status)


class Child:
    """A child process on a share of the sequences, started again behind whatever ended it."""

    def __init__(self, options, first, last):
        self.options, self.first, self.last = options, first, last
        self.progress = mmap.mmap(-1, 8)
        self.errors = os.memfd_create("errors")
        self.start(first)

    def start(self, first):
        self.progress[:8] = struct.pack("<Q", first)
        reader, writer = os.pipe()
        self.pid = os.fork()
        if self.pid == 0:
            os.close(reader)
            work(self.options, first, self.last, self.progress, writer, self.errors)
        os.close(writer)
        self.reader = os.fdopen(reader, "rb")

    def last_words(self):
        """What a process that ended unasked, by a sanitizer for example, left on standard error."""
        size = os.fstat(self.errors).st_size
        return os.pread(self.errors, 4000, max(0, size - 4000)).decode(errors="replace")

    def wait(self):
        """Waits for the end; returns the indices that differed."""
        found = []
        while True:
            text = self.reader.read().decode(errors="replace")
            _, status = os.waitpid(self.pid, 0)
            at, = struct.unpack("<Q", self.progress[:8])
            if self.options.replay is not None or self.options.statistics or status:
                print(text, end="", flush=True)
            if status == 0:
                return found
            if os.WIFSIGNALED(status):
                print(f"ended by signal {os.WTERMSIG(status)}")
            if not text:
                print(self.last_words())
            print(f"sequence {at} of seed {self.options.seed}: to see it again, "
                  f"--seed {self.options.seed} --replay {at}\n", flush=True)
            found.append(at)
            if at + 1 >= self.last or len(found) >= self.options.most:
                return found
            self.start(at + 1)


def run(options, first, count):
    """Runs sequences in children, each on a share; returns the indices that differed."""
    share = -(-count // options.jobs)
    children = [Child(options, begin, min(begin + share, first + count))
                for begin in range(first, first + count, share)]
    return [index for child in children for index in child.wait()]


def world_of(options):
    return "opencl" if options.opencl else "none"


def next_first(options):
    """The first index that the ledger does not know for this world and seed."""
    first = 0
    if LEDGER.exists():
        for line in LEDGER.read_text().splitlines()[1:]:
            _, world, seed, begin, count, _ = line.split("\t")
            if world == world_of(options) and int(seed) == options.seed:
                first = max(first, int(begin) + int(count))
    return first


def campaign(options):
    """Batches until the time is over, then a line in the ledger."""
    end = time.monotonic() + options.campaign
    first = at = next_first(options)
    different = []
    while time.monotonic() < end:
        different += run(options, at, options.batch * options.jobs)
        at += options.batch * options.jobs
    if not LEDGER.exists():
        LEDGER.write_text("date\tworld\tseed\tfirst\tsequences\tdifferences\n")
    with LEDGER.open("a") as ledger:
        ledger.write("\t".join(map(str, [datetime.date.today(), world_of(options), options.seed,
                                         first, at - first, len(different)])) + "\n")
    return at - first, different


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("library", type=Path)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--first", type=int, default=0)
    parser.add_argument("--count", type=int, default=1000)
    parser.add_argument("--jobs", type=int, default=1)
    parser.add_argument("--replay", type=int)
    parser.add_argument("--opencl", type=Path, metavar="KERNELS")
    parser.add_argument("--statistics", action="store_true", help="calls by function, per child")
    parser.add_argument("--campaign", type=float, metavar="SECONDS")
    parser.add_argument("--batch", type=int, default=BATCH)
    parser.add_argument("--most", type=int, default=20, help="differences a child goes on after")
    parser.add_argument("--scratch", default="/dev/shm" if os.path.isdir("/dev/shm") else None)
    parser.add_argument("--no-limit", action="store_true",
                        help="no bound on memory, for instrumented libraries")
    options = parser.parse_args()
    options.library = options.library.resolve()
    if options.opencl:
        options.opencl = options.opencl.resolve()
    began = time.monotonic()
    if options.campaign:
        count, different = campaign(options)
    else:
        if options.replay is not None:
            options.first, options.count = options.replay, 1
        count, different = options.count, run(options, options.first, options.count)
    seconds = time.monotonic() - began
    print(f"{count} sequences ({world_of(options)}, seed {options.seed}), "
          f"{len(different)} differences, {count / seconds:.0f} sequences a second")
    sys.exit(1 if different else 0)


if __name__ == "__main__":
    main()
