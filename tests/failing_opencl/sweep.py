#!/usr/bin/env python3
"""A host of the shared library on a device, with each of its OpenCL calls refused in turn.

The host's work comes to the same whichever call fails, the lines tell the state that follows, and
nothing is left on the device but what a start without kernels leaves by contract.
"""

import argparse
import concurrent.futures
import os
import shutil
import subprocess
import sys
import tempfile
from collections import Counter

CPU_ONLY = ["[ZORVEX] Engine initialized (CPU-only mode)",
            "[ZORVEX] OpenCL not available, using BLAS/SIMD fallback"]
READY = ["[ZORVEX] Loading kernels from: ./zorvex_kernels.cl", "[ZORVEX] GPU kernels cached"]
WITHOUT_KERNELS = ["[ZORVEX] Loading kernels from: ./zorvex_kernels.cl",
                   "[ZORVEX] Warning: GPU kernels not initialized (CPU fallback)"]
RELEASED = ["[ZORVEX] GPU kernels released"]
COMPLETE = ["[ZORVEX] Engine shutdown complete"]

TO_HOST = {"clCreateContext", "clCreateCommandQueueWithProperties", "clGetPlatformIDs"}
TO_NO_KERNELS = {"clCreateProgramWithSource", "clBuildProgram"}
RELEASES = {"clReleaseMemObject": "buffer", "clReleaseKernel": "kernel",
            "clReleaseProgram": "program", "clReleaseCommandQueue": "queue",
            "clReleaseContext": "context"}


class Run:
    """What a run of the host printed and logged."""

    def __init__(self, arguments, refused=None):
        with tempfile.TemporaryDirectory() as folder:
            shutil.copy(arguments.kernels, folder)
            log = os.path.join(folder, "log")
            environment = dict(os.environ, LD_PRELOAD=arguments.preload, ZORVEX_OPENCL_LOG=log)
            if refused:
                environment["ZORVEX_OPENCL_REFUSE"] = refused
            done = subprocess.run([arguments.host], cwd=folder, env=environment, check=False,
                                  capture_output=True, text=True, timeout=120)
            with open(log, encoding="utf-8") as file:
                entries = [line.split() for line in file]
        self.status = done.returncode
        self.said = [line for line in done.stdout.splitlines() if line.startswith("[ZORVEX]")]
        self.work = dict(line.split(" ", 1) for line in done.stdout.splitlines()
                         if not line.startswith("[ZORVEX]"))
        self.refused = [words[1] for words in entries if words[0] == "refused"]
        self.calls = [words[1] for words in entries if words[0] in ("call", "refused")]
        self.left = sorted(words[1] for words in entries if words[0] == "left")


def expected_state(run, call):
    """The lines about kernels at the start, those at the end, and what is left."""
    # A device of any type does where the type that was asked for fails, as far as there is one.
    if call in TO_HOST or (call == "clGetDeviceIDs" and run.said[:2] == CPU_ONLY):
        return CPU_ONLY, COMPLETE, []
    if call in TO_NO_KERNELS:
        return WITHOUT_KERNELS, COMPLETE, ["context", "queue"]
    return READY, RELEASED + COMPLETE, [RELEASES[call]] if call in RELEASES else []


def mistakes(run, call, undisturbed):
    """What is wrong with the run in which this call was refused."""
    start, end, left = expected_state(run, call)
    if run.status != 0:
        yield f"it ended with {run.status}"
        return
    if run.refused != ([call] if call else []):
        yield f"refused was {run.refused}"
    if not (run.said[:len(run.said) - len(end)][-len(start):] == start
            and run.said[-len(end):] == end):
        yield "it said " + " / ".join(run.said)
    if run.left != left:
        yield f"it left {run.left}"
    ready = start is READY
    if run.work["ready"] != str(int(ready)):
        yield "it was ready " + run.work["ready"]
    if run.work["scores"] != undisturbed.work["scores"]:
        yield "the scores differ"
    # A device's result is fetched; the host's stands in the host's copy at once.
    trained = undisturbed.work["fetched"]
    if run.work["step"] != "0" or trained not in (run.work["host"], run.work["fetched"]):
        yield "the tables differ"
    if not ready and run.work["host"] != trained:
        yield "the host's tables differ"
    status, fetched, product = run.work["product"].split()
    same = product == undisturbed.work["product"].split()[2]
    if ready and same != (status == "0" and fetched == "0"):
        yield f"the product came to {run.work['product']}"
    if not ready and status != "200":
        yield f"without kernels the product came to {status}"


def main():
    parser = argparse.ArgumentParser()
    for name in ("host", "preload", "kernels"):
        parser.add_argument("--" + name, required=True)
    arguments = parser.parse_args()

    undisturbed = Run(arguments)
    failures = list(mistakes(undisturbed, None, undisturbed))
    if undisturbed.work["host"] == undisturbed.work["fetched"]:
        failures.append("no training took place on the device")
    seen = Counter()
    numbered = []
    for call in undisturbed.calls:
        seen[call] += 1
        numbered.append(f"{call}:{seen[call]}")
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        runs = pool.map(lambda refused: Run(arguments, refused), numbered)
        for call, refused, run in zip(undisturbed.calls, numbered, runs):
            failures += [f"{refused}: {mistake}"
                         for mistake in mistakes(run, call, undisturbed)]
    print("\n".join(failures))
    print(f"{len(numbered)} calls refused, {len(failures)} mistakes")
    return 1 if failures or len(numbered) < 100 else 0


if __name__ == "__main__":
    sys.exit(main())
