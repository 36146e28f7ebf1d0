#!/usr/bin/python3
"""Counts the instructions of an operation and holds them against its budget.

    budget.py --program build/debug/tests/budget/budget_text fmt_one     fails above budget + 10 %
    budget.py --program ... fmt_one --update                             stores what was counted

budget.json holds, for each entry, the instructions of one operation and how often it is run to be
counted. The counts are those of this project's usual compiler, g++ 12 with -O2; they do not depend
on the machine's speed or load. A change that needs fewer should store them.
"""

import argparse
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile

TABLE = os.path.join(os.path.dirname(os.path.abspath(__file__)), "budget.json")
MARGIN = 0.10
SKIPPED = 77


class Failed(Exception):
    pass


def count(program, entry, times, valgrind="valgrind"):
    """Instructions of one operation, rounded up."""
    with tempfile.TemporaryDirectory() as folder:
        counts = os.path.join(folder, "counts")
        run = subprocess.run(
            [valgrind, "--tool=callgrind", "--toggle-collect=budget_operation",
             "--callgrind-out-file=" + counts, os.path.abspath(program), entry, str(times)],
            cwd=folder, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        if run.returncode != 0:
            raise Failed(f"{entry}: the program ended with {run.returncode}:\n{run.stdout}")
        with open(counts) as file:
            total = re.search(r"^(?:totals|summary): (\d+)", file.read(), re.MULTILINE)
    if total is None or int(total[1]) == 0:
        raise Failed(f"{entry}: nothing was counted")
    return -(-int(total[1]) // times)


def verdict(entry, counted, budget):
    """One line for the reader; raises Failed when the budget is exceeded by more than the margin."""
    line = f"{entry}: {counted} instructions, budget {budget} ({counted / budget - 1:+.1%})"
    if counted > budget * (1 + MARGIN):
        raise Failed(line + f": more than {MARGIN:.0%} above")
    return line


def read(table):
    with open(table) as file:
        return json.load(file)


def store(table, entry, counted):
    entries = read(table)
    entries[entry]["instructions"] = counted
    with open(table, "w") as file:
        lines = [f"  {json.dumps(name)}: {json.dumps(entries[name])}" for name in entries]
        file.write("{\n" + ",\n".join(lines) + "\n}\n")


def main(arguments):
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--program", required=True)
    parser.add_argument("--update", action="store_true")
    parser.add_argument("entry")
    options = parser.parse_args(arguments)
    if shutil.which("valgrind") is None:
        print("skipped: valgrind is not installed")
        return SKIPPED
    try:
        stored = read(TABLE).get(options.entry)
        if stored is None:
            raise Failed(f"{options.entry}: no budget; add {{\"times\": N, \"instructions\": N}}")
        counted = count(options.program, options.entry, stored["times"])
        if options.update:
            store(TABLE, options.entry, counted)
            print(f"{options.entry}: {counted} instructions stored")
        else:
            print(verdict(options.entry, counted, stored["instructions"]))
    except Failed as failure:
        print(failure)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
