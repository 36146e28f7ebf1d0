#!/usr/bin/python3
"""What a helper costs that waits: start to the first reply, memory, wake-ups; beside a server on
libevent and the least that a static C program needs."""

import os
import pathlib
import shutil
import signal
import socket
import struct
import tempfile
import time

from driver import Driver, before_other_work

PACKET = b"\0" + b"rnr_ping\x08\1"       # an empty argument, and a command that changes nothing
FRAME = struct.pack("<I", len(PACKET)) + PACKET
STARTS = 50            # a repetition tells the fastest of them
REQUESTS = 2000
IDLE_S = 2.0


class Server:
    """A server's process, from its start to its end."""

    def __init__(self, words, path):
        self.path = path
        begin = time.monotonic_ns()
        self.pid = os.posix_spawn(words[0], words, os.environ, file_actions=[
            (os.POSIX_SPAWN_OPEN, fd, os.devnull, os.O_RDWR, 0) for fd in (0, 1, 2)])
        while not self.ask():
            os.sched_yield()
        self.started_ns = time.monotonic_ns() - begin

    def ask(self):
        with socket.socket(socket.AF_UNIX) as client:
            try:
                client.connect(self.path)
            except OSError:
                return False
            client.sendall(FRAME)
            if client.recv(4, socket.MSG_WAITALL) != b"\0\0\0\0":
                raise RuntimeError("wrong: another reply")
        return True

    def private_kib(self):
        """Memory that the process has written and has alone (proc(5), smaps_rollup)."""
        with open(f"/proc/{self.pid}/smaps_rollup", encoding="ascii") as file:
            return sum(int(line.split()[1]) for line in file if line.startswith("Private_Dirty"))

    def wake_ups(self):
        count = 0
        for status in pathlib.Path(f"/proc/{self.pid}/task").glob("*/status"):
            for line in status.read_text(encoding="ascii").splitlines():
                if line.startswith("voluntary_ctxt_switches"):
                    count += int(line.split()[1])
        return count

    def end(self):
        os.kill(self.pid, signal.SIGKILL)
        os.waitpid(self.pid, 0)
        if os.path.exists(self.path):
            os.unlink(self.path)


def contenders(build, folder):
    """Name to what starts it and where it serves. The helper logs beside its own copy."""
    helper = shutil.copy(f"{build}/front/korvel_helper", folder)
    found = {"ours": ([helper], "/tmp/korvel_helper.ipc")}
    for name, program in (("static C", "footprint_static"), ("libevent", "footprint_event")):
        path = f"{folder}/{program}.ipc"
        if os.path.exists(f"{build}/bench/{program}"):
            found[name] = ([f"{build}/bench/{program}", path], path)
    return found


def start_ns(words, path):
    server = Server(words, path)
    server.end()
    return server.started_ns


def measure_starts(driver, found):
    rounds = [{name: start_ns(*how) for name, how in found.items()} for _ in range(STARTS)]
    for name in found:
        driver.add(f"footprint/start/{name}", min(took[name] for took in rounds), "ns")


def measure_waiting(driver, name, words, path):
    server = Server(words, path)
    try:
        for _ in range(20):
            server.ask()
        time.sleep(0.2)
        idle = server.private_kib()
        driver.add(f"footprint/idle_memory/{name}", idle, "KiB")
        for _ in range(REQUESTS):
            server.ask()
        driver.add(f"footprint/growth/{name}", server.private_kib() - idle, "KiB")
        before = server.wake_ups()
        time.sleep(IDLE_S)
        driver.add(f"footprint/wake_ups/{name}", server.wake_ups() - before, "in 2 s")
    finally:
        server.end()


def main():
    driver = Driver()
    before_other_work()
    if os.path.exists("/tmp/korvel_helper.ipc"):
        raise SystemExit("a helper serves on this machine already")
    with tempfile.TemporaryDirectory() as folder:
        found = contenders(driver.build, folder)
        os.sync()       # pages of a file that the disk does not have yet would count as written
        for _ in range(min(driver.repetitions, 7)):
            measure_starts(driver, found)
            for name, how in found.items():
                measure_waiting(driver, name, *how)
            driver.add("footprint/growth/limit", 0, "KiB")
            driver.add("footprint/wake_ups/limit", 0, "in 2 s")
    if "libevent" not in found:
        for row in ("start", "idle_memory"):
            driver.add_missing(f"footprint/{row}/libevent")
    driver.write()


if __name__ == "__main__":
    main()
