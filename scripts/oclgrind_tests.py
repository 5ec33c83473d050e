#!/usr/bin/env python3
"""Runs the device tests of a build folder under Oclgrind, an OpenCL device that checks every access.

Oclgrind brings an OpenCL of its own, which reports accesses outside of buffers, races between
work-items and wrong uses of the interface. Every report is a failure but those that the library's
contract asks for, listed below. The variable ZORVEX_TEST_MODE tells the tests where they are: a
simulator is slow, so the largest shapes stand aside.
"""

import concurrent.futures
import os
import re
import subprocess
import sys

OCLGRIND = ["oclgrind", "--check-api", "--data-races"]

# The tests whose work-items may race, and must, or races are not seen at all: triples share rows, or
# the item table stands in for the biases.
SHARED_ROWS = ("BprBatch.LosesAtMostUpdates*:BprBatch.AcceptsAWantedBiasThatIsNull"
               ":BatchChecks.RefuseIdsOutsideTheTables*")

# The programs, and which of their tests. What is left out asks OpenCL for what it must refuse,
# expects another device's answer, compares the console, where the reports would stand, or only
# repeats on a simulator for minutes what PoCL has checked.
RUNS = [
    ("zx_engine/zx_engine_device_test",
     "DeviceProgram.*:DeviceBuffer.*:Dispatch.*-*OpenClRefuses*:Dispatch.DoesNotRoundTheGlobalSizeUp"),
    ("zx_memory/zx_memory_device_test", "*"),
    ("zx_gpu/zx_gpu_device_test", "*-KernelTable.IsFilledFromAGivenFileWithoutASearch"),
    ("zx_gpu/zx_gpu_operations_device_test", "*"),
    ("zx_gpu/zx_gpu_batch_device_test",
     "*-FailingStart.*:BprGradient.IsTheHostsForEveryLength:BprGradient.IsTheHostsHoweverOftenItRuns"
     ":BprGradient.IsTheHostsInLongVectors*"
     ":" + SHARED_ROWS),
    ("zx_model/zx_model_engine_test", "*"),
    ("zx_train/zx_train_engine_test", "*"),
]
RACING_RUN = ("zx_gpu/zx_gpu_batch_device_test", SHARED_ROWS)
RACE = r"data race at global memory address .*\s+Kernel: bpr_batch_update\n"

ASKED_FOR = [
    # The work-group size is asked for with 4 bytes, and nothing reads it.
    r"Function: clGetDeviceInfo\n.*\n\s+param_value_size is 4, but result requires 8 bytes",
    # A kernel file need not have every kernel.
    r"Function: clCreateKernel\n\s+Error:\s+CL_INVALID_KERNEL_NAME",
    # A batch of none asks for a buffer of none.
    r"Function: clCreateBuffer\n\s+Error:\s+CL_INVALID_BUFFER_SIZE",
]


def reports(text):
    """The reports on standard error: paragraphs, since their empty lines hold a tab."""
    return [part for part in re.split(r"\n\n+", text) if part.strip()]


def run(build, program, tests):
    environment = dict(os.environ, ZORVEX_TEST_MODE="oclgrind")
    path = os.path.join(os.path.abspath(build), "tests", program)
    return subprocess.run(OCLGRIND + [path, "--gtest_filter=" + tests, "--gtest_brief=1"],
                          cwd=path + ".dir" if os.path.isdir(path + ".dir") else None,
                          env=environment, capture_output=True, text=True, check=False)


def verdict(done, asked_for):
    """What is wrong with a run, or nothing."""
    strange = [report for report in reports(done.stderr)
               if not any(re.search(pattern, report) for pattern in asked_for)]
    if done.returncode or not re.search(r"\[  PASSED  \] [1-9]", done.stdout):
        strange.append(done.stdout)
    return "\n\n".join(strange)


def main():
    build = sys.argv[1]
    failures = 0
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        pending = [(program, pool.submit(run, build, program, tests)) for program, tests in RUNS]
        racing = pool.submit(run, build, *RACING_RUN)
        results = [(program, verdict(done.result(), ASKED_FOR)) for program, done in pending]
    wrong = verdict(racing.result(), ASKED_FOR + [RACE])
    if not wrong and not re.search(RACE, racing.result().stderr):
        wrong = "no race was reported where work-items share rows\n"
    results.append((RACING_RUN[0] + ", where rows are shared", wrong))
    for name, wrong in results:
        failures += bool(wrong)
        print(f"FAILED  {name}\n{wrong}" if wrong else f"passed  {name}", flush=True)
    print(f"{len(results) - failures} passed, {failures} failed under Oclgrind")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
