"""What the tests of the simulated Mac share: the launcher's path and the rule about skips."""

import os
import pathlib
import subprocess
import sys
import unittest

SOURCE = pathlib.Path(__file__).resolve().parents[2]
LAUNCHER = os.environ.get("KORVEL_MACROOT_RUN", str(SOURCE / "build/debug/sim/macroot-run"))
sys.path.insert(0, str(SOURCE / "sim"))


def in_ci():
    return os.environ.get("CI", "") not in ("", "0", "false")


def run(*words, **options):
    """Runs the launcher with these words and gives the finished process."""
    options.setdefault("timeout", 60)
    return subprocess.run([LAUNCHER, *words], capture_output=True, text=True, check=False, **options)


def inside(script, *options):
    """Runs a shell script in a fresh root; gives what it printed, lines joined."""
    done = run(*options, "--", "sh", "-euc", script)
    if done.returncode != 0:
        raise AssertionError(f"status {done.returncode}: {done.stdout}{done.stderr}")
    return done.stdout.strip()


def main():
    """Runs the calling module's tests; without private roots a skip (77), in CI a failure (1)."""
    probe = run("true")
    if probe.returncode == 77:
        print(probe.stderr.strip())
        sys.exit(1 if in_ci() else 77)
    unittest.main(module="__main__", verbosity=1)
