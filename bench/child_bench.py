#!/usr/bin/python3
"""Starting a child and collecting its output, and starting one that is let go."""

import pathlib
import subprocess

from driver import Driver, before_other_work

NS = 1e9
CASES = ["child/limit_1024", "child/limit_20000", "child/limit_most", "child/detached"]


def main():
    driver = Driver()
    before_other_work()
    probe = pathlib.Path(driver.build, "bench/child_probe").resolve()
    chosen = [case for case in CASES if driver.wants(case)]
    done = subprocess.run([probe, str(driver.repetitions), *chosen], stdout=subprocess.PIPE,
                          text=True, check=True)
    names = set()
    for line in done.stdout.splitlines():
        name, seconds = line.rsplit(" ", 1)
        driver.add(name, float(seconds) * NS, "ns")
        names.add(name)
    for case in chosen:
        if case != "child/detached" and case + "/glib" not in names:
            driver.add_missing(case + "/glib")
    driver.write()


if __name__ == "__main__":
    main()
