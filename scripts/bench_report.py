#!/usr/bin/env python3
"""Turns Google Benchmark JSON files into the side-by-side ratio table and plot data.

Every side-by-side case is named `<Operation>_<Impl>[/args...]`; `Impl` is
`Olk` for libOlk and anything else for a peer or floor. For each operation and
argument list the report divides libOlk's cost per operation by each peer's,
repetition by repetition, and prints the median ratio with its spread (lowest
and highest ratio over the repetitions). Below 1 means libOlk is faster.

Cost per operation is 1/items_per_second when a benchmark counts items (so
batched benchmarks compare per item), else its time per iteration: wall time
for benchmarks that measure it (UseRealTime/UseManualTime: work spread over
processes), CPU time otherwise.

usage: bench_report.py OUT_DIR FILE.json...
writes OUT_DIR/ratios.txt (the table) and OUT_DIR/<program>-<operation>.dat
(cost per operation against the first argument, one column per variant) for
operations measured at three or more sizes.
"""

import json
import os
import re
import statistics
import sys
from collections import defaultdict

NAME = re.compile(r"^(?P<op>[A-Za-z0-9]+)_(?P<impl>[A-Za-z0-9]+)(?P<args>(/[^/]+)*)$")
UNIT_NS = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}


def cost_ns(run):
    """Nanoseconds per operation for one repetition."""
    if run.get("items_per_second"):
        return 1e9 / run["items_per_second"]
    wall = "/real_time" in run["run_name"] or "/manual_time" in run["run_name"]
    return run["real_time" if wall else "cpu_time"] * UNIT_NS[run.get("time_unit", "ns")]


def split_name(run):
    # Drop the decorations the library adds (repeats:5, real_time, ...).
    parts = [p for p in run["run_name"].split("/") if ":" not in p and p not in ("real_time", "manual_time")]
    m = NAME.match("/".join(parts))
    if not m:
        return None
    args = tuple(a for a in m.group("args").split("/") if a)
    return m.group("op"), m.group("impl"), args


def load(files):
    """{program: {(op, args): {impl: [cost per repetition]}}}"""
    data = defaultdict(lambda: defaultdict(lambda: defaultdict(list)))
    for path in files:
        program = os.path.splitext(os.path.basename(path))[0]
        with open(path) as f:
            doc = json.load(f)
        for run in doc.get("benchmarks", []):
            if run.get("run_type") != "iteration" or run.get("error_occurred"):
                continue
            parsed = split_name(run)
            if parsed:
                op, impl, args = parsed
                data[program][(op, args)][impl].append((run.get("repetition_index", 0), cost_ns(run)))
    # Repetition k of libOlk is paired with repetition k of each peer.
    for cases in data.values():
        for impls in cases.values():
            for impl, runs in impls.items():
                impls[impl] = [cost for _, cost in sorted(runs)]
    return data


def ratio_rows(data):
    for program in sorted(data):
        for (op, args), impls in sorted(data[program].items()):
            ours = impls.get("Olk")
            if not ours:
                continue
            for peer in sorted(i for i in impls if i != "Olk"):
                ratios = [a / b for a, b in zip(ours, impls[peer]) if b > 0]
                if ratios:
                    yield program, op, "/".join(args), peer, statistics.median(ratios), min(ratios), max(ratios), len(ratios)


def write_table(rows, out):
    header = f"{'program':<22} {'operation':<24} {'args':<14} {'peer':<16} {'ratio':>7}  spread (n)"
    lines = [header, "-" * len(header)]
    for program, op, args, peer, med, lo, hi, n in rows:
        lines.append(f"{program:<22} {op:<24} {args:<14} {peer:<16} {med:7.2f}  {lo:.2f}-{hi:.2f} ({n})")
    text = "\n".join(lines) + "\n"
    with open(os.path.join(out, "ratios.txt"), "w") as f:
        f.write(text)
    sys.stdout.write(text)


def size_position(op, cases):
    """By convention the size is the last argument."""
    lengths = {len(args) for (o, args) in cases if o == op}
    return min(lengths) - 1 if lengths and min(lengths) > 0 else None


def write_plot_data(data, out):
    """One .dat per operation measured at >= 3 sizes: size, then each variant's median cost.

    The size is the last argument; the others (a density, say) split the
    variants.
    """
    written = []
    for program in sorted(data):
        series = defaultdict(dict)  # op -> {variant: {size: median}}
        for (op, args), impls in data[program].items():
            pos = size_position(op, data[program])
            if pos is None or pos >= len(args) or not args[pos].isdigit():
                continue
            rest = "/".join(args[:pos] + args[pos + 1:])
            for impl, costs in impls.items():
                variant = impl + (f"/{rest}" if rest else "")
                series[op].setdefault(variant, {})[int(args[pos])] = statistics.median(costs)
        for op, variants in sorted(series.items()):
            sizes = sorted({s for v in variants.values() for s in v})
            if len(sizes) < 3 or not any(v.startswith("Olk") for v in variants):
                continue
            names = sorted(variants)
            path = os.path.join(out, f"{program}-{op}.dat")
            with open(path, "w") as f:
                f.write("size " + " ".join(n.replace(" ", "_") for n in names) + "\n")
                for s in sizes:
                    f.write(f"{s} " + " ".join(f"{variants[n].get(s, float('nan')):.3f}" for n in names) + "\n")
            written.append(path)
    return written


def main():
    out, files = sys.argv[1], sys.argv[2:]
    data = load(files)
    write_table(list(ratio_rows(data)), out)
    for path in write_plot_data(data, out):
        print(path)


if __name__ == "__main__":
    main()
