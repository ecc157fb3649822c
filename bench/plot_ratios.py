#!/usr/bin/python3
"""Draws the ratio chart of docs/performance.md from the benchmarks' JSON output.

    bench_device_io --benchmark_repetitions=9 --benchmark_enable_random_interleaving=true \\
        --benchmark_report_aggregates_only=true \\
        --benchmark_out=docs/bench/device-after.json --benchmark_out_format=json
    bench_log --benchmark_repetitions=5 --benchmark_report_aggregates_only=true \\
        --benchmark_out=docs/bench/log-after.json --benchmark_out_format=json
    bench/plot_ratios.py docs/bench/device-after.json docs/bench/log-after.json \\
        --before docs/bench/device-before.json docs/bench/log-before.json \\
        --out docs/performance-ratios.png --markdown

Every figure is a median over the repetitions of one run, taken as a ratio
against its baseline from the same run (the raw system call, a plain write()
loop, spdlog's asynchronous logger). With --markdown the table behind the chart
is printed as well. Needs matplotlib (Debian: python3-matplotlib).
"""

import argparse
import json
import math
import sys

DEVICE_OPS = [
    ("OpenClose", "open + close", ""),
    ("Read64", "read 64 B", ""),
    ("Write64", "write 64 B", ""),
    ("IoctlFIONREAD", "ioctl", ""),
    ("Read4K", "read 4 KiB", "/iterations:12"),
]
LEVELS = [(0, "no log"), (1, "Info"), (2, "Trace")]


def load(path):
    """Median real time and counters by run name."""
    with open(path) as f:
        data = json.load(f)
    runs = {}
    for b in data.get("benchmarks", []):
        if b.get("run_type") == "aggregate" and b.get("aggregate_name") != "median":
            continue
        runs[b["run_name"]] = b
    return runs, data.get("context", {})


def device_target(op, level):
    if level == 0:
        return 1.05
    if level == 1:
        return 1.10
    if op == "OpenClose":
        return 1.5
    if op == "Read4K":
        return None  # shown, no target
    return 3.0


def device_rows(runs, clock="real_time"):
    """Median ratio against the raw call timed in the same iterations: wall
    (real_time) or the calling thread's CPU time (cpu_time)."""
    name = "x_raw" if clock == "real_time" else "x_raw_cpu"
    rows = []
    for op, label, suffix in DEVICE_OPS:
        for level, level_name in LEVELS:
            run = runs.get("%s/log:%d%s/manual_time" % (op, level, suffix))
            value = run.get(name) if run else None
            rows.append(("%s, %s" % (label, level_name), value, device_target(op, level)))
    return rows


def counter(runs, prefix, name):
    for run_name, b in runs.items():
        if run_name.startswith(prefix) and name in b:
            return b[name]
    return None


def log_rows(runs):
    """(label, figure, target, direction, unit): direction -1 for "at most", +1 for "at least"."""
    filtered = runs.get("BM_TracedCall_LogFilteredOut")
    rows = [
        ("filtered-out traced call", filtered["real_time"] if filtered else None, 10.0, -1, "ns"),
        ("  the same, CPU time", filtered["cpu_time"] if filtered else None, 10.0, -1, "ns"),
        ("  its heap allocations", filtered.get("allocs_per_call") if filtered else None, 0.0, -1, ""),
    ]
    for p in (1, 2):
        prefix = "BM_InfoEntry_CallerSide/producers:%d" % p
        rows.append(("Info entry p50, %d producer%s" % (p, "s" if p > 1 else ""),
                     counter(runs, prefix, "p50_ns"), 120.0, -1, "ns"))
    rows.append(("Info entry p99.9, 2 producers",
                 counter(runs, "BM_InfoEntry_CallerSide/producers:2", "p999_ns"), 2000.0, -1, "ns"))
    for p in (1, 2):
        rows.append(("p50 against spdlog's, %d producer%s" % (p, "s" if p > 1 else ""),
                     counter(runs, "BM_InfoEntry_CallerSide/producers:%d" % p, "p50_vs_spdlog"),
                     1.0, -1, "x"))
    for p in (1, 2):
        prefix = "BM_FileSinkThroughput/producers:%d" % p
        rows.append(("file throughput / write(), %d producer%s" % (p, "s" if p > 1 else ""),
                     counter(runs, prefix, "ratio_vs_write"), 0.8, +1, "x"))
    for p in (1, 2):
        prefix = "BM_FileSinkThroughput/producers:%d" % p
        rows.append(("file throughput / spdlog, %d producer%s" % (p, "s" if p > 1 else ""),
                     counter(runs, prefix, "ratio_vs_spdlog"), 2.0, +1, "x"))
    return rows


def share_of_target(value, target, direction):
    """How far a figure is from its target, 1 at the target and below 1 when met."""
    if value is None:
        return None
    if target == 0:
        return 1.0 + value if value > 0 else 0.5  # a count that must be zero
    if direction < 0:
        return value / target
    return target / value if value > 0 else float("inf")


def met(value, target, direction):
    if value is None or target is None:
        return "-"
    ok = value <= target if direction < 0 else value >= target
    return "met" if ok else "not met"


def fmt(value, unit=""):
    if value is None:
        return "-"
    if unit == "ns":
        return "%.0f ns" % value if value >= 100 else "%.1f ns" % value
    if unit == "":
        return "%g" % value
    return "%.2f" % value


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("device_json")
    ap.add_argument("log_json")
    ap.add_argument("--before", nargs=2, metavar=("DEVICE_JSON", "LOG_JSON"))
    ap.add_argument("--out", default="docs/performance-ratios.png")
    ap.add_argument("--markdown", action="store_true", help="print the table as Markdown")
    args = ap.parse_args()

    after_dev, ctx = load(args.device_json)
    after_log, ctx_log = load(args.log_json)
    dev_after = device_rows(after_dev)
    log_after = log_rows(after_log)
    dev_before = log_before = None
    if args.before:
        dev_before = device_rows(load(args.before[0])[0])
        log_before = log_rows(load(args.before[1])[0])

    if args.markdown:
        cpu_after = device_rows(after_dev, "cpu_time")
        cpu_before = device_rows(load(args.before[0])[0], "cpu_time") if args.before else None
        print("| Figure | before | after | target | | CPU time: before | after |")
        print("|---|---|---|---|---|---|---|")
        for i, (label, value, target) in enumerate(dev_after):
            before = dev_before[i][1] if dev_before else None
            print("| %s, x raw | %s | %s | %s | %s | %s | %s |" % (
                label, fmt(before, "x"), fmt(value, "x"),
                "<= %.2f" % target if target else "-", met(value, target, -1),
                fmt(cpu_before[i][1] if cpu_before else None, "x"), fmt(cpu_after[i][1], "x")))
        for i, (label, value, target, direction, unit) in enumerate(log_after):
            before = log_before[i][1] if log_before else None
            sign = "<=" if direction < 0 else ">="
            print("| %s | %s | %s | %s %s | %s | | |" % (
                label.strip(), fmt(before, unit), fmt(value, unit), sign,
                fmt(target, unit), met(value, target, direction)))
        loads = [c.get("load_avg") for c in (ctx, ctx_log)]
        print("\nLoad average at the start of the runs: device %s; log %s" % tuple(
            ", ".join("%.2f" % x for x in l) if l else "-" for l in loads))

    import matplotlib
    matplotlib.use("Agg")
    import matplotlib.pyplot as plt
    import matplotlib.ticker

    fig, (ax1, ax2) = plt.subplots(2, 1, figsize=(10, 11), gridspec_kw={"height_ratios": [15, 11]})
    bar = 0.38

    def draw(ax, labels, befores, afters, targets, xlabel, title):
        n = len(labels)
        ys = list(range(n))[::-1]
        for y, b, a, t in zip(ys, befores, afters, targets):
            if b is not None:
                ax.barh(y + bar / 2, b, height=bar, color="#c9c9c9", edgecolor="#888888")
            if a is not None:
                ok = t is None or a <= t
                ax.barh(y - bar / 2, a, height=bar, color="#2f7d32" if ok else "#c62828")
                ax.text(a * 1.04, y - bar / 2, "%.2f" % a, va="center", fontsize=7)
            if t is not None:
                ax.plot([t, t], [y - 0.45, y + 0.45], color="black", linewidth=1.4)
        ax.set_yticks(ys)
        ax.set_yticklabels(labels, fontsize=8)
        ax.set_xscale("log")
        ax.xaxis.set_major_formatter(matplotlib.ticker.FormatStrFormatter("%g"))
        ax.xaxis.set_minor_formatter(matplotlib.ticker.NullFormatter())
        largest = max([x for x in list(afters) + list(befores) + list(targets) if x] + [1.0])
        ax.set_xlim(0.4, largest * 1.35)
        ax.set_xticks([t for t in (0.5, 1, 1.5, 2, 3, 5, 10, 20, 50, 100, 200) if t <= largest * 1.35])
        ax.set_xlabel(xlabel, fontsize=8)
        ax.set_title(title, fontsize=10)
        ax.grid(axis="x", which="both", alpha=0.25)

    draw(ax1, [r[0] for r in dev_after],
         [r[1] for r in dev_before] if dev_before else [None] * len(dev_after),
         [r[1] for r in dev_after], [r[2] for r in dev_after],
         "time / raw system call on the same node in the same iterations, median (log scale)",
         "Device operations through the library (black tick: target)")

    def shares(rows):
        return [share_of_target(v, t, d) for (_, v, t, d, _) in rows]

    draw(ax2, [r[0] for r in log_after],
         shares(log_before) if log_before else [None] * len(log_after),
         shares(log_after), [1.0] * len(log_after),
         "figure / target, inverted for \"at least\" targets: below 1 meets it (log scale)",
         "Logging figures against their targets")

    from matplotlib.patches import Patch
    fig.legend(handles=[Patch(color="#c9c9c9", label="before"), Patch(color="#2f7d32", label="after, met"),
                        Patch(color="#c62828", label="after, not met")],
               loc="lower center", ncol=3, fontsize=8)
    fig.tight_layout(rect=(0, 0.03, 1, 1))
    fig.savefig(args.out, dpi=110)
    print("wrote %s" % args.out, file=sys.stderr)


if __name__ == "__main__":
    main()
