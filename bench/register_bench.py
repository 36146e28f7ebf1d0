#!/usr/bin/python3
"""Registering and resigning in a Mac root of 10.11, beside the pauses that are prescribed and the time
of the children that the helper waits for."""

import pathlib
import sys

from driver import Driver, before_other_work

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "sim"))

import korvel  # noqa: E402
from korvel_mac import KorvelMac  # noqa: E402

MS = 1e6
NS = 1e9
# Behind launchctl 100 ms and behind an installation 200; before a removal 3,000, while `rm` is waited
# for 100 (in which it ends), behind it 100.
REGISTER_PAUSES_MS = 100 + 200
RESIGN_PAUSES_MS = 100 + 3000 + 100 + 100 + 200


def one_round(mac, probe):
    mac.write_restore_file("/Users/alice/abc.dat")
    mac.sh(f"rm -rf {korvel.session_folder('abc')}")
    done = mac.run([probe, "/Users/alice/abc.dat"], 60)
    if done.status != 0:
        raise RuntimeError(done.text + done.error_text)
    pairs = [line.split() for line in done.text.splitlines()]       # and what `id` prints
    return {pair[0]: float(pair[1]) * NS for pair in pairs if len(pair) == 2}


def main():
    driver = Driver()
    before_other_work()
    probe = str(pathlib.Path(driver.build, "bench/register_probe").resolve())
    with KorvelMac(driver.build, release="10.11.6") as mac:
        mac.boot("alice")
        mac.put_helper()
        mac.helper("-runInstall", "1")
        mac.wait_until(lambda: mac.exists(korvel.endpoint_path()))
        one_round(mac, probe)       # the first one starts the log's thread
        for _ in range(min(driver.repetitions, 5)):
            took = one_round(mac, probe)
            driver.add("register/register/ours", took["register"], "ns")
            driver.add("register/register/limit", REGISTER_PAUSES_MS * MS + took["id"], "ns")
            driver.add("register/resign/ours", took["resign"], "ns")
            driver.add("register/resign/limit", RESIGN_PAUSES_MS * MS + took["id"], "ns")
    driver.write()


if __name__ == "__main__":
    main()
