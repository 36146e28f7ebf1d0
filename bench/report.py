#!/usr/bin/python3
"""Runs the benchmarks beside their peers and reports the ratios; bench/README.md tells the rest."""

import argparse
import json
import os
import pathlib
import platform
import re
import shutil
import statistics
import subprocess
import sys

import chart
from targets import ROWS

PEER_PACKAGES = ["libabsl-dev", "libboost-dev", "libevent-dev", "libfmt-dev", "libglib2.0-dev",
                 "libgoogle-glog-dev", "libicu-dev", "libplist-dev", "libpugixml-dev",
                 "libspdlog-dev", "libtinyxml2-dev", "libutfcpp-dev", "libxml2-dev", "llvm-14-dev",
                 "rsync"]
NANOSECONDS = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}
TIMED_BY_THE_WALL = ("/real_time", "/manual_time")


class Samples:
    """One contender's repetitions; `unit` is "ns" or what the program says."""

    def __init__(self):
        self.values, self.unit, self.missing = [], "ns", ""

    @property
    def median(self):
        return statistics.median(self.values)

    @property
    def spread(self):
        """Half the distance between the quartiles, as a part of the median."""
        if len(self.values) < 4 or not self.median:
            return 0.0
        low, _, high = statistics.quantiles(self.values, n=4)
        return (high - low) / 2 / self.median


def program_command(folder, name):
    """A program is NAME_bench in the build folder or NAME_bench.py beside this file."""
    built = folder / "bench" / f"{name}_bench"
    script = pathlib.Path(__file__).with_name(f"{name}_bench.py")
    if built.exists():
        return [str(built)]
    return [sys.executable, str(script), "--build-dir", str(folder)] if script.exists() else None


def run_program(command, rows, out, quick):
    """Runs one program with its rows' repetitions interleaved at random; returns its JSON."""
    wanted = "|".join(re.escape(row.name) for row in rows)
    flags = [f"--benchmark_filter=^({wanted})/", f"--benchmark_out={out}",
             "--benchmark_out_format=json", "--benchmark_enable_random_interleaving=true",
             f"--benchmark_repetitions={3 if quick else 15}",
             f"--benchmark_min_time={0.005 if quick else 0.02}"]
    out.unlink(missing_ok=True)
    done = subprocess.run(command + flags, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE,
                          errors="replace")
    if done.returncode != 0 or not out.exists():
        sys.exit(f"{done.stderr}bench: {command[0]} failed (status {done.returncode})")
    return json.loads(out.read_text())


def join(measured, results):
    """Puts what one program measured into `results`, {row: {contender: Samples}}."""
    for entry in measured["benchmarks"]:
        if entry.get("run_type") == "aggregate":
            continue
        workload, case, contender = entry["name"].split("/")[:3]
        samples = results.setdefault(f"{workload}/{case}", {}).setdefault(contender, Samples())
        if entry.get("error_occurred"):
            samples.missing = entry["error_message"]
            continue
        by_the_wall = any(mark in entry["name"] for mark in TIMED_BY_THE_WALL)
        value, unit = entry["real_time" if by_the_wall else "cpu_time"], entry["time_unit"]
        samples.unit = "ns" if unit in NANOSECONDS else unit
        samples.values.append(value * NANOSECONDS.get(unit, 1))


def wrong_outcomes(results):
    return [f"{row}/{contender}: {samples.missing}"
            for row, contenders in results.items() for contender, samples in contenders.items()
            if samples.missing and not samples.missing.startswith("missing:")]


class Comparison:
    """A row's figures: ours, the peer it is held against, the limit, and whether they suffice."""

    def __init__(self, row, contenders):
        self.row, self.contenders = row, contenders
        measured = {name: samples for name, samples in contenders.items() if samples.values}
        self.ours, self.limit = measured.get("ours"), measured.get("limit")
        peers = {name: samples for name, samples in measured.items()
                 if name not in ("ours", "limit") and name.startswith(row.against)}
        self.peer_name = min(peers, key=lambda name: peers[name].median, default=None)
        self.peer = peers.get(self.peer_name)

    def ratio_to(self, other):
        if self.ours is None or other is None or not other.median:
            return None
        return self.ours.median / other.median

    @property
    def peer_ratio(self):
        return self.ratio_to(self.peer)

    @property
    def limit_ratio(self):
        return self.ratio_to(self.limit)

    @property
    def above_limit(self):
        """In the row's unit; milliseconds where that is a time."""
        if self.ours is None or self.limit is None:
            return None
        scale = 1e6 if self.ours.unit == "ns" else 1
        return (self.ours.median - self.limit.median) / scale

    def checks(self):
        """(figure, target) of each target that the row has; the figure is None if not measured."""
        row = self.row
        pairs = [(self.peer_ratio, row.peer), (self.limit_ratio, row.limit),
                 (self.above_limit, row.above_limit)]
        return [(figure, target) for figure, target in pairs if target is not None]

    @property
    def reached(self):
        """None where a figure is missing. Figures count as they are printed, with two digits."""
        checks = self.checks()
        if not checks or any(figure is None for figure, _ in checks):
            return None
        return all(round(figure, 2) <= target for figure, target in checks)


def text_of(samples):
    if samples is None or not samples.values:
        return "-"
    if samples.unit != "ns":
        return f"{samples.median:,.4g} {samples.unit}"
    value = samples.median
    for unit, size in (("s", 1e9), ("ms", 1e6), ("us", 1e3)):
        if value >= size:
            return f"{value / size:.3g} {unit}"
    return f"{value:.3g} ns"


def number(value):
    return "-" if value is None else f"{value:.2f}"


def verdict(comparison):
    return {None: "-", True: "yes", False: "no"}[comparison.reached]


def ratio_cells(c):
    row = c.row
    target = row.limit if row.above_limit is None else f"+{row.above_limit:g}"
    figure = number(c.limit_ratio if row.above_limit is None else c.above_limit)
    return [row.title, text_of(c.ours),
            f"{c.peer_name} {text_of(c.peer)}" if c.peer else "-",
            number(c.peer_ratio), "-" if row.peer is None else f"{row.peer:.2f}",
            text_of(c.limit), figure,
            "-" if target is None else f"{target:.2f}" if row.limit else str(target), verdict(c)]


HEAD = ["workload", "ours", "peer", "ratio", "to reach", "limit", "ratio", "to reach", "reached"]


def print_table(comparisons):
    lines = [HEAD] + [ratio_cells(c) for c in comparisons]
    widths = [max(len(line[i]) for line in lines) for i in range(len(HEAD))]
    for line in lines:
        print("  ".join(cell.ljust(width) for cell, width in zip(line, widths)).rstrip())


def markdown_table(head, lines):
    return "\n".join("| " + " | ".join(cells) + " |"
                     for cells in [head, ["---"] * len(head)] + lines)


def all_figures(comparisons):
    """One line a row: every contender with its median and spread, fastest first."""
    lines = []
    for c in comparisons:
        measured = sorted((s.median, name, s) for name, s in c.contenders.items() if s.values)
        cells = [f"{name} {text_of(s)} ±{100 * s.spread:.0f} %" for _, name, s in measured]
        cells += [f"{name} ({s.missing})" for name, s in c.contenders.items() if not s.values]
        lines.append([c.row.title, ", ".join(cells) or "not measured here"])
    return lines


def first_line(command):
    try:
        return subprocess.run(command, capture_output=True, text=True).stdout.splitlines()[0]
    except (OSError, IndexError):
        return "unknown"


def processor():
    found = re.search(r"model name\s*: (.*)", pathlib.Path("/proc/cpuinfo").read_text())
    return found.group(1) if found else platform.machine()


def package_version(package):
    command = ["dpkg-query", "-W", "-f=${db:Status-Status} ${Version}", package]
    status, _, version = first_line(command).partition(" ")
    return version if status == "installed" else "not installed"


def machine_facts(folder):
    cache = (folder / "CMakeCache.txt").read_text()
    compiler = re.search(r"^CMAKE_CXX_COMPILER:\w+=(.*)", cache, re.M).group(1)
    flags = re.search(r"^CMAKE_CXX_FLAGS_RELWITHDEBINFO:\w+=(.*)", cache, re.M).group(1)
    facts = [["processor", f"{processor()}, {os.cpu_count()} cores"],
             ["kernel", f"{platform.system()} {platform.release().split('-')[0]}"],
             ["compiler", f"{first_line([compiler, '--version'])}, {flags}"]]
    return facts + [[package, package_version(package)] for package in PEER_PACKAGES]


DOCUMENT = """# Benchmarks

Written by `./dev bench`; how it measures: [bench/README.md](../bench/README.md).

Every workload runs beside its peers and, where it can be told, beside what the machine itself
takes, the limit. A ratio is ours divided by theirs: 0.50 of a peer is twice as fast. {reached} of
{measured} measured rows stand where they are to stand.

![Ratios against their targets](benchmarks.svg)

## Ratios

{ratios}

## All contenders

Medians, fastest first, and half the distance between the quartiles.

{figures}

## Machine and peers

{facts}
"""


def write_document(folder, comparisons, source):
    judged = [c for c in comparisons if c.reached is not None]
    docs = source / "docs"
    (docs / "benchmarks.md").write_text(DOCUMENT.format(
        reached=sum(c.reached for c in judged), measured=len(judged),
        ratios=markdown_table(HEAD, [ratio_cells(c) for c in comparisons]),
        figures=markdown_table(["workload", "contenders"], all_figures(comparisons)),
        facts=markdown_table(["what", "which"], machine_facts(folder))))
    (docs / "benchmarks.svg").write_text(chart.draw(comparisons))


def arguments():
    names = sorted({row.workload for row in ROWS})
    parser = argparse.ArgumentParser(prog="./dev bench", description=__doc__)
    parser.add_argument("workloads", nargs="*", metavar="WORKLOAD",
                        help="only these, which writes no document: " + ", ".join(names))
    parser.add_argument("--quick", action="store_true", help="short, which writes no document")
    parser.add_argument("--build-dir", type=pathlib.Path, required=True, help=argparse.SUPPRESS)
    args = parser.parse_args()
    unknown = set(args.workloads) - set(names)
    if unknown:
        parser.error(f"no such workload: {', '.join(sorted(unknown))} (there are {', '.join(names)})")
    return args


def measure(args, rows):
    out = args.build_dir / "bench" / "results"
    out.mkdir(parents=True, exist_ok=True)
    results = {}
    for program in dict.fromkeys(row.program for row in rows):
        command = program_command(args.build_dir, program)
        if command is None:
            continue
        print(f"measuring: {program}", file=sys.stderr, flush=True)
        own_rows = [row for row in rows if row.program == program]
        join(run_program(command, own_rows, out / f"{program}.json", args.quick), results)
    return results


def main():
    args = arguments()
    rows = [row for row in ROWS if not args.workloads or row.workload in args.workloads]
    results = measure(args, rows)
    comparisons = [Comparison(row, results.get(row.name, {})) for row in rows]
    print_table(comparisons)
    if not args.workloads and not args.quick:
        write_document(args.build_dir, comparisons, pathlib.Path(__file__).parent.parent)
    wrong = wrong_outcomes(results)
    if wrong:
        sys.exit("bench: " + "\n".join(wrong))


if __name__ == "__main__":
    main()
