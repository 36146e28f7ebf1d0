#!/usr/bin/env python3
"""Runs the fuzz targets one after the other and tabulates what came of it.

New inputs are gathered in BUILD-DIR/corpus/NAME, from which a later run goes on; the seeds in the
tree are only read. An input that breaks a property, crashes, leaks or hangs is kept in
BUILD-DIR/findings/, and the exit status is then 1.
"""

import argparse
import configparser
import pathlib
import re
import subprocess
import sys
import time

HERE = pathlib.Path(__file__).resolve().parent
SUFFIX = "_fuzz.cpp"
INPUT_LIMIT_S = 25
EXECUTED = re.compile(rb"^stat::number_of_executed_units:\s*(\d+)", re.M)
PROGRESS = re.compile(rb"^#(\d+)\s.*?cov: (\d+) ft: (\d+)", re.M)
KEPT = re.compile(rb"Test unit written to (\S+)")
COLUMNS = "{:<16} {:>13} {:>10} {:>8} {:>8} {:>9}"


def target_names():
    return sorted(path.name.removesuffix(SUFFIX) for path in HERE.glob("*" + SUFFIX))


def settings_of(name):
    """The target's own libFuzzer settings, from the section [libfuzzer] of NAME.options."""
    options = configparser.ConfigParser()
    options.read(HERE / f"{name}.options")
    settings = [f"-{key}={value}" for key, value in options.items("libfuzzer")] \
        if options.has_section("libfuzzer") else []
    words = HERE / f"{name}.dict"
    return settings + ([f"-dict={words}"] if words.exists() else [])


def command_of(name, arguments, seconds):
    corpus = arguments.build_dir / "corpus" / name
    findings = arguments.build_dir / "findings"
    for folder in (corpus, findings):
        folder.mkdir(parents=True, exist_ok=True)
    bound = [f"-runs={arguments.runs}"] if arguments.runs else [f"-max_total_time={seconds}"]
    return [arguments.build_dir / "fuzz" / f"{name}_fuzz", *bound, f"-timeout={INPUT_LIMIT_S}",
            f"-detect_leaks={int(arguments.leaks)}", "-print_final_stats=1", "-reload=0",
            f"-artifact_prefix={findings}/{name}-", *settings_of(name),
            corpus, HERE / "seeds" / name]


def count(text):
    return f"{int(text):,}"


def run_target(name, arguments, seconds):
    """Runs one target, prints its row; true when nothing was found."""
    log = arguments.build_dir / f"{name}.log"
    started = time.monotonic()
    with open(log, "wb") as out:
        status = subprocess.call(command_of(name, arguments, seconds), stdout=out,
                                 stderr=subprocess.STDOUT, cwd=arguments.build_dir)
    spent = max(time.monotonic() - started, 0.001)
    said = log.read_bytes()
    progress = PROGRESS.findall(said)
    last = progress[-1] if progress else (b"0", b"0", b"0")
    executed = EXECUTED.search(said)
    runs = int(executed[1] if executed else last[0])
    print(COLUMNS.format(name, count(runs), count(runs / spent), count(last[1]), count(last[2]),
                         "none" if status == 0 else "FOUND"), flush=True)
    if status != 0:
        kept = KEPT.search(said)
        print(f"  input: {kept[1].decode() if kept else 'none kept'}\n  log:   {log}", flush=True)
    return status == 0


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--build-dir", type=pathlib.Path, required=True)
    parser.add_argument("--runs", type=int, help="executions of each target, instead of a time")
    parser.add_argument("--leaks", action="store_true",
                        help="look for leaks after every input, not only at the end (slower)")
    parser.add_argument("seconds", nargs="?", help="for all targets together; not with --runs")
    parser.add_argument("names", nargs="*", help="the targets (default: all)")
    arguments = parser.parse_args()
    arguments.build_dir = arguments.build_dir.resolve()
    if arguments.runs and arguments.seconds:
        arguments.names.insert(0, arguments.seconds)
    elif not arguments.runs and not (arguments.seconds or "").isdecimal():
        parser.error("for how many seconds?")
    known = target_names()
    wrong = sorted(set(arguments.names) - set(known))
    if wrong:
        parser.error(f"no such target: {', '.join(wrong)} (there are: {', '.join(known)})")
    names = arguments.names or known
    share = 0 if arguments.runs else max(1, int(arguments.seconds) // len(names))
    print(COLUMNS.format("target", "executions", "a second", "edges", "features", "findings"))
    clean = [run_target(name, arguments, share) for name in names]
    return 0 if all(clean) else 1


if __name__ == "__main__":
    sys.exit(main())
