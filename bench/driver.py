"""What the drivers share that are no Google Benchmark programs: their flags and their results."""

import argparse
import json
import os
import re


def before_other_work():
    """From now on this process, and all that it starts, runs before whatever else the machine does,
    where that is allowed (sched(7): real time, by turns). What is measured waits for several
    processes and threads to run one after the other, and on a busy machine for nothing but that."""
    try:
        os.sched_setscheduler(0, os.SCHED_RR, os.sched_param(1))
    except PermissionError:
        pass


class Driver:
    """Collects repetitions and writes them as report.py reads them."""

    def __init__(self):
        parser = argparse.ArgumentParser()
        parser.add_argument("--build-dir", required=True)
        parser.add_argument("--benchmark_filter", default=".")
        parser.add_argument("--benchmark_out")
        parser.add_argument("--benchmark_repetitions", type=int, default=5)
        self.chosen, _ = parser.parse_known_args()
        self.build = self.chosen.build_dir
        self.repetitions = self.chosen.benchmark_repetitions
        self.entries = []

    def wants(self, row):
        return re.search(self.chosen.benchmark_filter, row + "/ours") is not None

    def add(self, name, value, unit):
        self.entries.append({"name": name, "run_type": "iteration", "real_time": value,
                             "cpu_time": value, "time_unit": unit})
        print(f"{name}  {value:.6g} {unit}", flush=True)

    def add_missing(self, name):
        self.entries.append({"name": name, "run_type": "iteration", "error_occurred": True,
                             "error_message": "missing: the development package is not installed"})

    def write(self):
        if self.chosen.benchmark_out:
            with open(self.chosen.benchmark_out, "w", encoding="utf-8") as out:
                json.dump({"context": {}, "benchmarks": self.entries}, out)
