#!/usr/bin/python3
"""Copying a client's bundle and deleting the copy, in memory and on the build folder's disk."""

import pathlib
import shutil
import subprocess
import tempfile

from driver import Driver

NS = 1e9
FILES, BYTES = 5000, 300_000_000
QUICK_FILES, QUICK_BYTES = 500, 30_000_000
QUICK = 3               # that many repetitions, or fewer, are a quick look
MOST_ON_DISK = 5        # rounds, each of which leaves four copies until the end


def measure(driver, rounds, cases, root_options=(), probe_options=()):
    files, size = (FILES, BYTES) if driver.repetitions > QUICK else (QUICK_FILES, QUICK_BYTES)
    build = pathlib.Path(driver.build).resolve()
    done = subprocess.run(
        [build / "sim/macroot-run", "--required", "--no-client", "--build", build, *root_options,
         "--", build / "bench/bundle_probe", str(rounds), str(files), str(size), *cases,
         *probe_options], stdout=subprocess.PIPE, text=True, check=True)
    for line in done.stdout.splitlines():
        name, seconds = line.rsplit(" ", 1)
        driver.add(name, float(seconds) * NS, "ns")


def measure_on_disk(driver, cases):
    rounds = min(driver.repetitions, MOST_ON_DISK)
    with tempfile.TemporaryDirectory(dir=driver.build) as folder:
        shown = []
        for place in ("/Applications", "/Library/VeskRuntime/sessions"):
            shown += ["--bind", f"{tempfile.mkdtemp(dir=folder)}:{place}:rw"]
        measure(driver, rounds, cases, shown, ["keep"])


def main():
    driver = Driver()
    if shutil.which("rsync") is None:
        raise SystemExit("rsync is not installed")
    if driver.wants("bundle/copy_memory") or driver.wants("bundle/delete"):
        measure(driver, driver.repetitions, ["bundle/copy_memory", "bundle/delete"])
    if driver.wants("bundle/copy_disk") or driver.wants("bundle/delete_disk"):
        measure_on_disk(driver, ["bundle/copy_disk", "bundle/delete_disk"])
    driver.write()


if __name__ == "__main__":
    main()
