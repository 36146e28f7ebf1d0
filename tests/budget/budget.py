#!/usr/bin/python3
"""Counts the instructions of an operation and holds them against its budget.

    budget.py --program build/debug/tests/budget/budget_text fmt_one     fails above budget + 10 %
    budget.py --program ... fmt_one --update                             stores what was counted

budget.json holds, for each entry, the instructions of one operation and how often it is run to be
counted; or, for an entry with "calls", the system calls of one operation, without those for memory,
for waiting and at a thread's end, which the program need not live to see, under strace; those of a
child that becomes another program, up to there, begin with "child". Of these none may be made more often than the table says, and none of
those in ONCE another number of times. The counts are those of this project's usual compiler, g++ 12 with -O2; they do not depend
on the machine's speed or load. A change that needs fewer should store them.
"""

import argparse
import collections
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile

TABLE = os.path.join(os.path.dirname(os.path.abspath(__file__)), "budget.json")
MARGIN = 0.10
# What is prescribed; C libraries differ in the others.
ONCE = ("open", "write", "close")
NAMES = {"openat": "open", "newfstatat": "stat", "fstat": "stat", "lstat": "stat", "statx": "stat"}
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


def count_calls(program, entry, strace="strace"):
    """System calls of one operation by name: the difference between 11 operations and one."""
    counts = [traced(program, entry, times, strace) for times in (1, 11)]
    added = {name: counts[1][name] - counts[0][name] for name in sorted(counts[1])}
    return {name: number / 10 if number % 10 else number // 10
            for name, number in added.items() if number != 0}


def traced(program, entry, times, strace):
    with tempfile.TemporaryDirectory(dir="/tmp") as folder:
        log = os.path.join(folder, "calls")
        # The helper looks at every folder above itself, so there are always the same.
        copied = shutil.copy(program, folder)
        run = subprocess.run(
            [strace, "-f", "-e", "trace=!%memory,futex,exit,rt_sigprocmask,restart_syscall",
             "-e", "signal=none", "-o", log, copied, entry, str(times)],
            cwd=folder, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        if run.returncode != 0:
            raise Failed(f"{entry}: the program ended with {run.returncode}:\n{run.stdout}")
        with open(log) as file:
            return calls_in(file.read())


def calls_in(log):
    """Counts strace's lines by call; of a process that execs, or whose child does, up to there and
    as "child CALL"."""
    lines = [(line.split()[0], line) for line in log.splitlines()]
    children = becoming_programs(lines)
    counted, gone = collections.Counter(), set()
    for pid, line in lines:
        call = re.match(r"\d+ +(\w+)\(", line)
        if not call or pid in gone:
            continue
        name = NAMES.get(call[1], call[1])
        counted[f"child {name}" if pid in children else name] += 1
        if pid in children and name == "execve":
            gone.add(pid)
    return counted


def becoming_programs(lines):
    """The forked processes that call execve, or whose children do."""
    parents, forking, found = {}, set(), set()
    for pid, line in lines:
        if "SIGCHLD" in line and " clone" in line and "CLONE_THREAD" not in line:
            forking.add(pid)
        made = re.search(r" clone3?\b.* = (\d+)$", line)
        if made and pid in forking:
            forking.remove(pid)
            parents[made[1]] = pid
    for pid, line in lines:
        while " execve(" in line and pid in parents:
            found.add(pid)
            pid = parents[pid]
    return found


def calls_verdict(entry, counted, budget):
    line = f"{entry}: {json.dumps(counted)}, budget {json.dumps(budget)}"
    more = [name for name in counted if counted[name] > budget.get(name, 0)]
    wrong = [name for name in ONCE if counted.get(name) != budget.get(name)]
    if more or wrong:
        raise Failed(line + ": not as it should be: " + ", ".join(sorted({*more, *wrong})))
    return line


def verdict(entry, counted, budget):
    """One line for the reader; raises Failed when the budget is exceeded by more than the margin."""
    line = f"{entry}: {counted} instructions, budget {budget} ({counted / budget - 1:+.1%})"
    if counted > budget * (1 + MARGIN):
        raise Failed(line + f": more than {MARGIN:.0%} above")
    return line


def read(table):
    with open(table) as file:
        return json.load(file)


def store(table, entry, what, counted):
    entries = read(table)
    entries[entry][what] = counted
    with open(table, "w") as file:
        lines = [f"  {json.dumps(name)}: {json.dumps(entries[name])}" for name in entries]
        file.write("{\n" + ",\n".join(lines) + "\n}\n")


def main(arguments):
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--program", required=True)
    parser.add_argument("--update", action="store_true")
    parser.add_argument("entry")
    options = parser.parse_args(arguments)
    try:
        stored = read(TABLE).get(options.entry)
        if stored is None:
            raise Failed(f"{options.entry}: no budget; add {{\"times\": N, \"instructions\": N}}")
        what = "calls" if "calls" in stored else "instructions"
        tool = "strace" if what == "calls" else "valgrind"
        if shutil.which(tool) is None:
            print(f"skipped: {tool} is not installed")
            return SKIPPED
        if what == "calls":
            counted = count_calls(options.program, options.entry)
        else:
            counted = count(options.program, options.entry, stored["times"])
        if options.update:
            store(TABLE, options.entry, what, counted)
            print(f"{options.entry}: {counted} stored")
        else:
            judge = calls_verdict if what == "calls" else verdict
            print(judge(options.entry, counted, stored[what]))
    except Failed as failure:
        print(failure)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
