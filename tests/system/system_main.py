#!/usr/bin/python3
"""Runs the system tests: system_main.py [--list | MODULE.CLASS.METHOD...]; all without a name.

A machine that allows no private root ends with status 77 and the reason, which counts as a skip;
where CI is set that is a failure."""

import os
import pathlib
import subprocess
import sys
import unittest

HERE = pathlib.Path(__file__).resolve().parent
sys.path[:0] = [str(HERE), str(HERE.parents[1] / "sim")]

from korvel_mac import ONE_ID  # noqa: E402
from system_case import BUILD  # noqa: E402


def names(suite):
    for entry in suite:
        if isinstance(entry, unittest.TestSuite):
            yield from names(entry)
        else:
            yield entry.id()


def why_no_root():
    """Why this machine allows no root with several users, in one line; nothing when it does."""
    probe = subprocess.run([BUILD / "sim/macroot-run", "cat", "/etc/macroot"], capture_output=True,
                           text=True, check=False)
    if probe.returncode == 77:
        return probe.stderr.strip()
    return ONE_ID if "ids=single" in probe.stdout else ""


def in_ci():
    return os.environ.get("CI", "") not in ("", "0", "false")


def main(words):
    loader = unittest.TestLoader()
    if words == ["--list"]:
        print("\n".join(names(loader.discover(str(HERE), "test_*.py"))))
        return 1 if loader.errors else 0
    reason = why_no_root()
    if reason:
        print(reason)
        return 1 if in_ci() else 77
    suite = loader.loadTestsFromNames(words) if words else loader.discover(str(HERE), "test_*.py")
    result = unittest.TextTestRunner(verbosity=2).run(suite)
    return 0 if result.wasSuccessful() and result.testsRun and not result.skipped else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
