#!/usr/bin/env python3
"""Runs the test programs of a build folder under Valgrind's memcheck.

Takes the programs that need no OpenCL device (Valgrind does not survive the code that PoCL
compiles), with the folders and variables that CTest gives them. The variable ZORVEX_VALGRIND tells
the tests where they are: Valgrind does not model flush-to-zero, so the tests of that mode stand
aside.
"""

import concurrent.futures
import json
import os
import subprocess
import sys

VALGRIND = [
    "valgrind", "--quiet", "--error-exitcode=99", "--leak-check=full",
    "--errors-for-leak-kinds=definite,indirect", "--show-leak-kinds=definite,indirect",
]


def listed_tests(build):
    listing = subprocess.run(["ctest", "--test-dir", build, "--show-only=json-v1"],
                             check=True, capture_output=True, text=True)
    return json.loads(listing.stdout)["tests"]


def properties(test):
    return {entry["name"]: entry["value"] for entry in test.get("properties", [])}


def is_own_program(test, build):
    """Whether the test is one of our compiled programs and needs no device."""
    command = test.get("command", [])
    if not command or "none" not in properties(test).get("LABELS", []):
        return False
    path = os.path.realpath(command[0])
    if not path.startswith(os.path.realpath(build) + os.sep):
        return False
    with open(path, "rb") as program:
        return program.read(4) == b"\x7fELF"


def run(test):
    given = properties(test)
    environment = dict(os.environ, ZORVEX_VALGRIND="1")
    environment.update(entry.split("=", 1) for entry in given.get("ENVIRONMENT", []))
    done = subprocess.run(VALGRIND + test["command"], cwd=given.get("WORKING_DIRECTORY"),
                          env=environment, capture_output=True, text=True, check=False)
    return test["name"], done


def main():
    build = sys.argv[1]
    tests = [test for test in listed_tests(build) if is_own_program(test, build)]
    failures = 0
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        for name, done in pool.map(run, tests):
            if done.returncode == 0:
                print(f"passed  {name}", flush=True)
                continue
            failures += 1
            print(f"FAILED  {name}\n{done.stdout}{done.stderr}", flush=True)
    print(f"{len(tests) - failures} passed, {failures} failed under Valgrind")
    return 1 if failures or not tests else 0


if __name__ == "__main__":
    sys.exit(main())
