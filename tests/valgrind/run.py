#!/usr/bin/python3
"""The tests' programs under valgrind's memcheck: `./dev check valgrind` runs it.

Each program of unit tests runs once, as one process, instead of once for each test: most of a run
under valgrind is its start. Programs whose tests want a Mac root run in one root each, and valgrind
goes with them into the helper that they start. left_out.txt names what does not run here, and why.

An error of memcheck's or a block that nothing points to any more fails the run, as a failed test
does. Of the system tests, which drive the built helper from outside, those of ROADS run with every
helper that they start by hand under memcheck; a helper that launchd starts runs as it is. The
descriptors that are open at the end are told with --show-descriptors; this release of
valgrind counts none of them as an error.
"""

import argparse
import concurrent.futures
import json
import os
import pathlib
import re
import subprocess
import sys
import time

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parents[1]
LIMIT_S = 900

# The last but one leaves programs that bring their own operator new with it: some tests fail there.
MEMCHECK = ["/usr/bin/valgrind", "--quiet", "--error-exitcode=99", "--leak-check=full",
            "--show-leak-kinds=definite", "--errors-for-leak-kinds=definite", "--num-callers=30",
            "--fair-sched=try", "--vgdb=no", "--soname-synonyms=somalloc=nouserintercepts",
            f"--suppressions={HERE / 'suppressions.txt'}"]
# Into the project's own programs only: sudo cannot run so, and the system's tools are not ours.
INTO_CHILDREN = ["--trace-children=yes",
                 "--trace-children-skip=/usr/*,/bin/*,/sbin/*,*/macroot-*,*/loginwindow,*/korvel,*/test_child"]
# Replays and models are long because they are fast; here a part of them has to do.
SHORTER = {"--mutations": "100", "--count": "10000"}
# The roads of the product's main job: installed, asked by clients well and badly. Not the removal: it
# ends a helper by the name of its executable, which is valgrind's here.
ROADS = ("test_install", "test_requests", "test_frames")


class Program:
    def __init__(self, path, arguments, in_root, left_out):
        self.path, self.arguments, self.in_root = path, arguments, in_root
        self.name = pathlib.Path(path).name
        self.left_out = left_out

    def words(self, build, extra):
        words = MEMCHECK + extra
        if self.in_root:
            words = words + INTO_CHILDREN
        words = words + [self.path] + self.arguments
        if self.left_out:
            words.append("--gtest_filter=-" + ":".join(self.left_out))
        if not self.in_root:
            return words
        # The source folder, and with it the suppressions, stands in the root at its own place.
        return [f"{build}/sim/macroot-run", "--required", "--build", str(build), "--"] + words


class Road:
    """A file of system tests. Memcheck's own files go to /tmp: TMPDIR is not there in a Mac root."""

    def __init__(self, name):
        self.name, self.arguments = name, []

    def words(self, build, extra):
        under = ["/usr/bin/env", "TMPDIR=/tmp"] + MEMCHECK + extra + INTO_CHILDREN
        return ["/usr/bin/env", f"KORVEL_BUILD_DIR={build}", "KORVEL_HELPER_UNDER=" + " ".join(under),
                sys.executable, "-B", str(ROOT / "tests/system/system_main.py"), self.name]


def read_left_out(text):
    """Program to patterns of its tests; "*" leaves out the whole program."""
    left_out = {}
    for number, line in enumerate(text.splitlines(), 1):
        if not line.strip() or line.startswith("#"):
            continue
        match = re.fullmatch(r"(\S+)\s+(\S+)\s+(\S.*)", line)
        if not match:
            raise ValueError(f"left_out.txt:{number}: not \"program pattern reason\": {line}")
        left_out.setdefault(match[1], []).append(match[2])
    return left_out


def shortened(arguments):
    return [SHORTER.get(before, word) for before, word in zip([None] + arguments, arguments)]


def programs(tests, left_out):
    """The programs behind ctest's list: each program of unit tests once, others as they stand."""
    found = {}
    for test in tests:
        command = test.get("command")
        if not command or command[0].startswith("/usr/"):
            continue  # a driver in Python: see ROADS
        path, arguments = command[0], command[1:]
        labels = next((p["value"] for p in test["properties"] if p["name"] == "LABELS"), [])
        if any(word.startswith("--gtest_filter=") for word in arguments):
            arguments = []
        patterns = left_out.get(pathlib.Path(path).name, [])
        if "*" not in patterns:
            key = (path, *arguments)
            found.setdefault(key, Program(path, shortened(arguments), "macroot" in labels, patterns))
    return list(found.values())


def list_tests(build):
    out = subprocess.run(["ctest", "--test-dir", str(build), "--show-only=json-v1"], check=True,
                         stdout=subprocess.PIPE).stdout
    return json.loads(out)["tests"]


def run(program, build, extra, logs):
    log = logs / ("-".join([program.name] + [word for word in program.arguments if "/" not in word]) + ".log")
    begin = time.monotonic()
    with open(log, "wb") as out:
        try:
            status = subprocess.run(program.words(build, extra), stdin=subprocess.DEVNULL, stdout=out,
                                    stderr=subprocess.STDOUT, timeout=LIMIT_S, cwd=build,
                                    check=False).returncode
        except subprocess.TimeoutExpired:
            status = "no end"
    print(f"{'ok' if status == 0 else 'FAILED':7}{program.name} ({time.monotonic() - begin:.0f} s)"
          f"{'' if status == 0 else f', status {status}: {log}'}", flush=True)
    if status != 0:
        sys.stdout.write("".join(telling(log)))
    return status == 0, tests_in(log)


def tests_in(log):
    """How many tests the program says it ran; one that is a test by itself does not say."""
    said = re.search(r"^\[=+\] (\d+) tests? from .* ran|^Ran (\d+) tests?",
                     log.read_text(encoding="utf-8", errors="replace"), re.MULTILINE)
    return int(said[1] or said[2]) if said else 1


def telling(log):
    """What memcheck and failed tests have said, without the names of the tests that passed."""
    for line in log.read_text(encoding="utf-8", errors="replace").splitlines(keepends=True)[-400:]:
        if not line.startswith(("[ RUN", "[       OK", "[------")):
            yield line


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", type=pathlib.Path, default=ROOT / "build/debug")
    parser.add_argument("--jobs", type=int, default=2)
    parser.add_argument("--show-descriptors", action="store_true")
    parser.add_argument("name", nargs="*", help="programs; all of them unless named")
    options = parser.parse_args()
    build = options.build.resolve()
    logs = build / "valgrind"
    logs.mkdir(exist_ok=True)
    left_out = read_left_out((HERE / "left_out.txt").read_text(encoding="utf-8"))
    chosen = [p for p in programs(list_tests(build), left_out) + [Road(name) for name in ROADS]
              if not options.name or p.name in options.name]
    if not chosen:
        sys.exit("no such program of tests: " + " ".join(options.name))
    extra = ["--track-fds=yes"] if options.show_descriptors else []
    os.environ.setdefault("GTEST_BRIEF", "0")
    with concurrent.futures.ThreadPoolExecutor(options.jobs) as pool:
        done = list(pool.map(lambda p: run(p, build, extra, logs), chosen))
    passed = [ok for ok, _ in done]
    print(f"{sum(passed)} of {len(passed)} programs passed under memcheck, "
          f"{sum(count for _, count in done)} tests")
    return 0 if all(passed) else 1


if __name__ == "__main__":
    sys.exit(main())
