#!/usr/bin/python3
"""What the test suite has left untried: `./dev coverage` runs it after the suite.

Reads the counters that the preset "coverage" has saved, prints a table and every gap, and ends with
1 where too little ran, where an untried line is not explained in gaps.md, or where an explanation
there has nothing left to explain.

Counted are the branches of lines that decide something. The compiler makes branches of nearly every
call, for the exception that might come out of it and for the cleaning up behind it; no line of the
source stands for those, and they are left out. Each line that was tried one way only is listed; of
code that was compiled several times, a template or an inlined function, each copy's ways count.
"""

import argparse
import collections
import json
import pathlib
import re
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]
GAPS = pathlib.Path(__file__).with_name("gaps.md")

MEASURED = ("front", "osx", "ipc", "muro", "netbuf")
BESIDE = ("tools/rnrctl",)  # reported, not held to the limits
LEAST_LINES, LEAST_BRANCHES = 95.0, 90.0

# A line without any of these decides nothing.
DECISION = re.compile(r"\b(if|for|while|switch|case|catch)\b|&&|\|\||\?|<=>")

Entry = collections.namedtuple("Entry", "file piece reason")


class File:
    """One source: how often each line with code ran, and which of its branches were taken."""

    def __init__(self, name, text, lines):
        self.name, self.text = name, text
        self.counts = {n: count for n, count, _ in lines}
        self.branches = {n: taken for n, _, taken in lines if taken}

    def line(self, number):
        return self.text[number - 1].strip() if number <= len(self.text) else ""

    def untried_groups(self):
        """Runs of neighbours among the lines with code, none of which ran."""
        groups, open_group = [], []
        for number in sorted(self.counts):
            if self.counts[number] == 0:
                open_group.append(number)
            elif open_group:
                groups.append(open_group)
                open_group = []
        return groups + ([open_group] if open_group else [])

    def half_tried(self):
        """Lines that ran, but not every way they branch: (number, ways taken, ways)."""
        return [(n, sum(map(bool, taken)), len(taken)) for n, taken in sorted(self.branches.items())
                if self.counts[n] and not all(taken)]


class Share:
    def __init__(self):
        self.lines = self.lines_run = self.branches = self.branches_taken = 0

    def add(self, file):
        self.lines += len(file.counts)
        self.lines_run += sum(1 for count in file.counts.values() if count)
        for taken in file.branches.values():
            self.branches += len(taken)
            self.branches_taken += sum(map(bool, taken))

    def line_percent(self):
        return 100.0 * self.lines_run / self.lines if self.lines else 100.0

    def branch_percent(self):
        return 100.0 * self.branches_taken / self.branches if self.branches else 100.0


def is_below(name, folders):
    return any(name.startswith(folder + "/") for folder in folders)


def folder_of(name):
    parts = pathlib.PurePath(name).parts
    return "/".join(parts[:2]) if parts[0] in ("muro", "tools") else parts[0]


def read_gaps(text):
    """The entries of gaps.md: below a heading that names a file, "- `piece of a line`: reason"."""
    entries, file = [], None
    for number, line in enumerate(text.splitlines(), 1):
        if line.startswith("## "):
            file = line[3:].strip()
        elif line.startswith("- "):
            match = re.fullmatch(r"- (`+) ?(.+?) ?\1: (.+)", line)
            if not match or not file:
                raise ValueError(f"gaps.md:{number}: not \"- `piece of a line`: reason\": {line}")
            entries.append(Entry(file, match[2], match[3]))
    return entries


def judge(files, entries):
    """(untried groups without an explanation, explanations of nothing)."""
    used, unexplained = set(), []
    for file in files:
        own = [entry for entry in entries if entry.file == file.name]
        for group in file.untried_groups():
            found = [e for e in own if any(e.piece in file.line(n) for n in group)]
            used.update(found)
            if not found:
                unexplained.append((file, group))
    return unexplained, [entry for entry in entries if entry not in used]


def lost(profile):
    """What counters.cpp and sum_counters.cpp have left behind, a line each."""
    errors = profile / "errors.log"
    if errors.exists() and errors.stat().st_size:
        yield f"counters were not written: {errors.read_text(errors='replace').strip()}"
    for path in sorted(profile.glob("unreadable-*")):
        yield f"counters are not to be read: {path}"
    for path in sorted(profile.glob("done-*")):
        yield f"counters were saved after the last had been added up: {path}"


def measure(build):
    # Not --exclude-throw-branches: where one of several copies of a function never ran, gcov does not
    # tell which of that copy's branches are for exceptions. Merged with the copies that ran, gcovr's
    # flag does tell, and read_measure leaves them out.
    out = build / "coverage.json"
    words = ["gcovr", "--root", str(ROOT), "--json", str(out), "-j", "2",
             "--exclude-unreachable-branches", "--exclude-directories", str(build / "profile")]
    for folder in MEASURED + BESIDE:
        words += ["--filter", f"{re.escape(str(ROOT))}/{folder}/"]
    subprocess.run(words + [str(build)], check=True, cwd=ROOT)
    return read_measure(json.loads(out.read_text(encoding="utf-8")))


def decisions(line, text):
    """Which of the line's own branches were taken."""
    if not DECISION.search(text[line["line_number"] - 1].split("//")[0]):
        return []
    return [branch["count"] > 0 for branch in line["branches"] if not branch["throw"]]


def read_measure(data):
    files = []
    for entry in data["files"]:
        text = (ROOT / entry["file"]).read_text(encoding="utf-8").splitlines()
        lines = [(line["line_number"], line["count"], decisions(line, text))
                 for line in entry["lines"] if not line.get("gcovr/noncode")]
        files.append(File(entry["file"], text, lines))
    return sorted(files, key=lambda file: file.name)


def table(files):
    """Folder by folder, the whole that the limits hold for, and what is reported beside it."""
    folders, whole = {}, Share()
    for file in files:
        folders.setdefault(folder_of(file.name), Share()).add(file)
        if is_below(file.name, MEASURED):
            whole.add(file)
    rows = [(name, share) for name, share in sorted(folders.items()) if is_below(name + "/", MEASURED)]
    rows += [("above the seam", whole)]
    rows += [(name, share) for name, share in sorted(folders.items())
             if not is_below(name + "/", MEASURED)]
    print(f"{'':16}{'lines':>7}{'run':>7}{'%':>8}{'branches':>11}{'taken':>7}{'%':>8}")
    for name, share in rows:
        print(f"{name:16}{share.lines:7}{share.lines_run:7}{share.line_percent():8.2f}"
              f"{share.branches:11}{share.branches_taken:7}{share.branch_percent():8.2f}")
    print("Left out: branches that only an exception takes, and those of lines that decide nothing.\n")
    return whole


def print_gaps(files, entries):
    for file in files:
        own = [entry for entry in entries if entry.file == file.name]
        for group in file.untried_groups():
            why = next((e.reason for e in own if any(e.piece in file.line(n) for n in group)),
                       "NOT EXPLAINED" if is_below(file.name, MEASURED) else "")
            print(f"{file.name}:{group[0]}-{group[-1]} never ran: {why}")
            for number in group:
                print(f"    {file.line(number)}")
        for number, taken, ways in file.half_tried():
            print(f"{file.name}:{number} {taken} of {ways} ways: {file.line(number)}")


def complaints(whole, unexplained, idle):
    if whole.line_percent() < LEAST_LINES:
        yield f"{whole.line_percent():.2f} % of the lines ran, {LEAST_LINES:.0f} are wanted"
    if whole.branch_percent() < LEAST_BRANCHES:
        yield f"{whole.branch_percent():.2f} % of the branches were taken, {LEAST_BRANCHES:.0f} are wanted"
    for file, group in unexplained:
        yield f"{file.name}:{group[0]} never ran and is not explained: {file.line(group[0])}"
    for entry in idle:
        yield f"gaps.md explains what is no gap: {entry.file}: {entry.piece}"


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build-dir", type=pathlib.Path, required=True)
    build = parser.parse_args().build_dir.resolve()
    profile = build / "profile"
    files = measure(build)
    entries = read_gaps(GAPS.read_text(encoding="utf-8"))
    print_gaps(files, entries)
    whole = table(files)
    measured = [file for file in files if is_below(file.name, MEASURED)]
    killed = {path.stem for path in profile.glob("part-*")}
    print(f"Not counted: {len(killed)} processes that were killed while they saved, "
          "like those killed before.")
    found = list(lost(profile)) + list(complaints(whole, *judge(measured, entries)))
    for complaint in found:
        print(f"coverage: {complaint}", file=sys.stderr)
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
