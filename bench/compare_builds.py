#!/usr/bin/python3
"""Runs the device and log benchmarks of two build trees alternately and prints
what the second tree costs against the first.

    bench/compare_builds.py build/unhardened build/default --rounds 3 \\
        --out docs/bench/hardening

Each round runs bench_device_io and bench_log of both trees, one tree after the
other, the order swapped every round, so that a change of the machine's load
hits both alike. A figure is the median over the rounds of each run's median;
the ratio is second / first for a cost (time, the library's time against the
raw call), first / second for a rate, so that above 1 always means the second
tree is slower. The JSON of every run is kept under --out.
"""

import argparse
import json
import os
import statistics
import subprocess
import sys

PROGRAMS = {
    "bench_device_io": ["--benchmark_repetitions=3", "--benchmark_enable_random_interleaving=true",
                        "--benchmark_filter=-Init"],
    "bench_log": ["--benchmark_repetitions=3",
                  "--benchmark_filter=TracedCall|producers:1/|WorkerCost"],
}
# (program, run name prefix, figure, kind): kind "cost" or "rate".
FIGURES = [
    ("bench_device_io", "OpenClose/log:", "x_raw", "cost"),
    ("bench_device_io", "Read64/log:", "x_raw", "cost"),
    ("bench_device_io", "Write64/log:", "x_raw", "cost"),
    ("bench_device_io", "IoctlFIONREAD/log:", "x_raw", "cost"),
    ("bench_device_io", "Read4K/log:", "x_raw", "cost"),
    ("bench_device_io", "Ddi_NotifyLatency/log:", "p50_us", "cost"),
    ("bench_log", "BM_TracedCall_NoLog", "real_time", "cost"),
    ("bench_log", "BM_TracedCall_LogFilteredOut", "real_time", "cost"),
    ("bench_log", "BM_TracedCall_Trace", "items_per_second", "rate"),
    ("bench_log", "BM_InfoEntry_CallerSide/producers:1", "p50_ns", "cost"),
    ("bench_log", "BM_FileSinkThroughput/producers:1", "ratio_vs_write", "rate"),
    ("bench_log", "BM_WorkerCostPerEntry", "items_per_second", "rate"),
]


def run(tree, program, out, again):
    cmd = [os.path.join(tree, "bin", program), *PROGRAMS[program],
           "--benchmark_report_aggregates_only=true",
           f"--benchmark_out={out}", "--benchmark_out_format=json"]
    if again:
        print("+", " ".join(cmd), file=sys.stderr, flush=True)
        subprocess.run(cmd, check=True, stdout=subprocess.DEVNULL)
    elif not os.path.exists(out):
        return {}
    try:
        with open(out) as f:
            data = json.load(f)
    except json.JSONDecodeError:
        if again:
            raise
        return {}  # a run still writing it
    return {b["run_name"]: b for b in data["benchmarks"] if b.get("aggregate_name") == "median"}


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("first")
    parser.add_argument("second")
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--out", default="compare-builds")
    parser.add_argument("--report-only", action="store_true", help="read the JSON files already in --out")
    args = parser.parse_args()
    os.makedirs(args.out, exist_ok=True)

    trees = [args.first, args.second]
    # values[tree][(program, run name, figure)] = one median per round
    values = [{}, {}]
    for rnd in range(args.rounds):
        for program in PROGRAMS:
            order = [0, 1] if rnd % 2 == 0 else [1, 0]
            for t in order:
                label = "first" if t == 0 else "second"
                medians = run(trees[t], program, os.path.join(args.out, f"{program}-{label}-{rnd}.json"),
                              not args.report_only)
                for name, bench in medians.items():
                    for prog, prefix, figure, _ in FIGURES:
                        if prog == program and name.startswith(prefix) and figure in bench:
                            values[t].setdefault((program, name, figure), []).append(bench[figure])

    print(f"| Benchmark | Figure | {args.first} | {args.second} | cost ratio |")
    print("|---|---|---|---|---|")
    kinds = {(p, f): k for p, _, f, k in FIGURES}
    for key in sorted(values[0], key=lambda k: (k[0], k[1])):
        if key not in values[1]:
            continue
        a = statistics.median(values[0][key])
        b = statistics.median(values[1][key])
        program, name, figure = key
        ratio = b / a if kinds[(program, figure)] == "cost" else a / b
        print(f"| {name} | {figure} | {a:.4g} | {b:.4g} | {ratio:.3f} |")


if __name__ == "__main__":
    main()
