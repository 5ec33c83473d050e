#!/usr/bin/env python3
"""Measures the library beside its floors and its peers and writes docs/performance.md.

    scripts/performance.py [--build build/release] [--peers build/peers]
    scripts/performance.py --render       only writes the page, from the figures of the last run

The build folder must hold the benchmarks and the tool (the preset `release`). Everything runs on
one core, and a subject's peers run right after its benchmarks. Where PyPI cannot be reached the
page is written without peers. Needs matplotlib (python3-matplotlib in Debian).
"""

import argparse
import json
import os
import pathlib
import re
import resource
import shlex
import statistics
import subprocess
import sys
import tempfile

import performance_page

ROOT = pathlib.Path(__file__).resolve().parent.parent
PEERS = ROOT / "benchmarks/peers"
sys.path.insert(0, str(PEERS))
ONE_THREAD = {name: "1" for name in ("OMP_NUM_THREADS", "OPENBLAS_NUM_THREADS", "MKL_NUM_THREADS",
                                     "IRSPACK_NUM_THREADS_DEFAULT")}
LOADED_LINES = 20_000_000
TOOL_USERS, TOOL_ITEMS, TOOL_D = 20_000, 10_000, 64

# Pattern of benchmarks and their repetitions; then the scripts of the peers with their arguments. A
# script that ends in @debian runs with Debian's Python and its packages.
SUBJECTS = [
    (("^machine_", 3), []),
    (("^als_epoch.*/d:16$", 5), [("als.py", "16")]),
    (("^als_epoch.*/d:64$", 5), [("als.py", "64")]),
    (("^als_epoch.*/d:128$", 3), [("als.py", "128")]),
    (("^als_epoch.*/d:256$", 3), [("als.py", "256")]),
    (("^(bpr_|sample_)", 5), [("bpr.py",)]),
    (("^recommend/items:10000+/d:64", 5), []),
    (("^recommend/items:10000+/d:128", 3), [("top_k.py", "numpy", "implicit", "faiss"),
                                            ("top_k.py@debian", "faiss")]),
    (("^score_", 5), [("pair_scores.py",)]),
    (("^(hit_rate|model_)", 3), []),
]


class Runner:
    """Runs programs one after another on one core."""

    def __init__(self, arguments):
        self.build = arguments.build.resolve()
        self.peers = arguments.peers.resolve()
        self.prefix = shlex.split(arguments.prefix)
        self.library = self.build / "src/libzorvex.so"
        self.has_peers = False

    def run(self, *command, **options):
        words = [str(word) for word in (*self.prefix, *command)]
        print(*words[len(self.prefix):], file=sys.stderr, flush=True)
        environment = {**os.environ, **ONE_THREAD, "PYTHONDONTWRITEBYTECODE": "1"}
        return subprocess.run(words, stdout=subprocess.PIPE, text=True, check=True,
                              env=environment, **options).stdout

    def install_peers(self):
        result = subprocess.run([PEERS / "install.sh", self.peers], check=False)
        self.has_peers = result.returncode == 0
        if not self.has_peers:
            print("the peers cannot be installed; measuring without them", file=sys.stderr)

    def benchmarks(self, pattern, repetitions):
        """The medians of every counter by the name of the case."""
        answer = json.loads(self.run(
            self.build / "benchmarks/zorvex_benchmarks", f"--benchmark_filter={pattern}",
            f"--benchmark_repetitions={repetitions}", "--benchmark_min_time=0.1",
            "--benchmark_format=json"))
        runs = {}
        for run in answer["benchmarks"]:
            if run.get("error_occurred"):
                raise SystemExit(f"{run['run_name']}: {run['error_message']}")
            if run["run_type"] == "iteration":
                runs.setdefault(run["run_name"], []).append(run)
        return {name: {counter: statistics.median(run[counter] for run in of_case)
                       for counter, value in of_case[0].items() if isinstance(value, float)}
                for name, of_case in runs.items()}

    def peer(self, script, interactions, *options):
        """The figures of one script; none, and a word about it, when it fails."""
        name, _, debian = script.partition("@")
        python = "/usr/bin/python3" if debian else self.peers / "bin/python3"
        try:
            lines = self.run(python, PEERS / name, self.library, interactions, *options)
        except subprocess.CalledProcessError as error:
            print(f"{script} failed: {error}", file=sys.stderr)
            return []
        return [json.loads(line) for line in lines.splitlines()]


def measure_loading(runner, folder, lines):
    """Loading a file against reading it and splitting its lines."""
    text = runner.run(runner.build / "benchmarks/zorvex_load_benchmark", "--lines", lines,
                      cwd=folder)
    seconds = float(re.search(r"in all +([\d.]+) s", text).group(1))
    splitting = float(re.search(r"splitting it +([\d.]+) s", text).group(1))
    return {"lines": lines, "seconds": seconds, "splitting_seconds": splitting}


def processor_seconds_of_children():
    usage = resource.getrusage(resource.RUSAGE_CHILDREN)
    return usage.ru_utime + usage.ru_stime


def measure_recommending(runner, folder):
    """The tool's processor time for the ten best items of every user."""
    import library as zorvex

    library = zorvex.load(runner.library)
    model = zorvex.make_model(library, TOOL_USERS, TOOL_ITEMS, TOOL_D)
    path = folder / "model.zxm"
    if library.zx_model_save(model, str(path).encode()) != 0:
        raise SystemExit("the tool's model cannot be written")
    library.zx_model_release(model)
    times = []
    for _ in range(3):
        start = processor_seconds_of_children()
        runner.run(runner.build / "tools/zorvex", "--quiet", "recommend", path, "--all", "-k", "10",
                   "--output", folder / "answers.csv")
        times.append(processor_seconds_of_children() - start)
    return {"users": TOOL_USERS, "seconds": statistics.median(times)}


def describe_machine():
    """Kind of processor, vectors and caches; nothing that names the machine."""
    text = pathlib.Path("/proc/cpuinfo").read_text(encoding="utf-8")
    name = re.search(r"model name\s*: (.*)", text)
    flags = set(re.search(r"flags\s*: (.*)", text).group(1).split())
    caches = []
    for cache in sorted(pathlib.Path("/sys/devices/system/cpu/cpu0/cache").glob("index*")):
        level, kind, size = ((cache / part).read_text(encoding="utf-8").strip()
                             for part in ("level", "type", "size"))
        if kind != "Instruction":
            kib = int(size.rstrip("K"))
            caches.append(f"L{level} {kib} KiB" if kib < 1024 else f"L{level} {kib / 1024:g} MiB")
    return {"processor": name.group(1) if name else "a processor",
            "vectors": 512 if "avx512f" in flags else 256 if "avx2" in flags else 128,
            "caches": caches}


def measure(runner, arguments):
    figures = {"machine": describe_machine(), "benchmarks": {}, "peers": []}
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        interactions = folder / "interactions"
        runner.run(runner.build / "benchmarks/zorvex_benchmark_data", interactions)
        for (pattern, repetitions), scripts in SUBJECTS:
            figures["benchmarks"].update(runner.benchmarks(pattern, repetitions))
            for script, *options in scripts if runner.has_peers else []:
                figures["peers"] += runner.peer(script, interactions, *options)
        figures["recommending"] = measure_recommending(runner, folder)
        figures["loading"] = measure_loading(runner, folder, arguments.lines)
    return figures


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", type=pathlib.Path, default=ROOT / "build/release",
                        help="build folder with benchmarks and tool (build/release)")
    parser.add_argument("--peers", type=pathlib.Path, default=ROOT / "build/peers",
                        help="where the peers are installed (build/peers)")
    parser.add_argument("--prefix", default=f"taskset -c {os.cpu_count() - 1}",
                        help="words before every measured command (taskset -c LAST_CORE)")
    parser.add_argument("--lines", type=int, default=LOADED_LINES,
                        help="lines of the file that is loaded (20 million)")
    parser.add_argument("--output", type=pathlib.Path, default=ROOT / "docs",
                        help="folder of the page and, in images, its pictures (docs)")
    parser.add_argument("--render", action="store_true",
                        help="measure nothing, write the page from the last figures")
    arguments = parser.parse_args()

    kept = arguments.build / "performance.json"
    if not arguments.render:
        runner = Runner(arguments)
        runner.install_peers()
        figures = measure(runner, arguments)
        kept.write_text(json.dumps(figures, indent=1), encoding="utf-8")
    performance_page.write(json.loads(kept.read_text(encoding="utf-8")), arguments.output)


if __name__ == "__main__":
    main()
