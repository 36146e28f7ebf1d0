"""What the system tests share: a Mac root for each test with the built executables in it."""

import ast
import os
import pathlib
import re
import sys
import unittest

SOURCE = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(SOURCE / "sim"))

import korvel  # noqa: E402
from korvel_mac import KorvelMac  # noqa: E402
from macroot_api import MacFailure  # noqa: E402,F401  (for the tests)

BUILD = pathlib.Path(os.environ.get("KORVEL_BUILD_DIR", SOURCE / "build/debug"))
PYTHON = "/usr/bin/python3"
PATIENCE_S = 30     # for what happens beside a test, on a machine that is busy with many
EMPTY_REPLY = b"\0\0\0\0"
REFUSED = b""

REGISTER, RESIGN = "rnr_register", "rnr_resign"
# The leak sanitizer traces the process at its end, which nobody can do under strace.
UNTRACED = {"ASAN_OPTIONS": "detect_leaks=0"}
# A tool that runs every helper which a test starts by hand, say memcheck.
UNDER = os.environ.get("KORVEL_HELPER_UNDER", "").split()
# A program that fails, seen to have ended by the time its output is closed.
FAILING_PROGRAM = "#!/bin/sh\nsleep 0.1 &\nexit 1\n"


class SystemCase(unittest.TestCase):
    """One test, one Mac. Not booted: most tests need no launchd jobs."""

    release = "10.11.6"
    longMessage = True

    def setUp(self):
        self.mac = self.make_mac()
        self.served = None
        self.addCleanup(self.assert_nothing_found)

    def make_mac(self, **options):
        options.setdefault("release", self.release)
        options.setdefault("under", UNDER)
        mac = KorvelMac(BUILD, **options)
        self.addCleanup(mac.close)
        return mac

    def assert_nothing_found(self):
        """A helper that serves is ended by a signal, so only its output tells what a sanitizer or
        memcheck has found."""
        said = self.served.errors() if self.served else b""
        if self.mac.exists("/var/log/system.log"):
            said += self.mac.read("/var/log/system.log")
        self.assertNotRegex(said, br"Sanitizer|runtime error|(?m:^==\d+== )")

    # The helper

    def run_helper(self, *words, status=0, path=korvel.HELPER, **options):
        """Runs the helper, put in its place first, to its end with this status."""
        if not self.mac.exists(path):
            self.mac.put_helper(path)
        done = self.mac.helper(*words, path=path, **options)
        self.assertEqual(done.status, status, done.error_text)
        return done

    def serve(self, *words, session=None, path=korvel.HELPER):
        """Starts a serving helper by hand and waits for its endpoint."""
        if not self.mac.exists(path):
            self.mac.put_helper(path)
        self.served = self.mac.start([*self.mac.under, path, *words])
        self.wait_for_endpoint(session)
        return self.served

    def wait_for_endpoint(self, session=None):
        """The socket file has its last mode once it is listened on."""
        path = korvel.endpoint_path(session)
        self.mac.wait_until(
            lambda: self.mac.exists(path) and self.mac.stat(path)["st_mode"] & 0o777 == 0o666,
            limit_s=PATIENCE_S, what=path)

    def assert_serves(self, session=None):
        self.assertEqual(self.ask("rnr_ping", "", session), EMPTY_REPLY)
        if self.served:
            self.assertIsNone(self.served.status, "the helper has ended")

    # Requests

    def send(self, data, *options, session=None):
        """Raw bytes on a connection of their own; gives all that came back."""
        path = korvel.endpoint_path(session)
        return self.mac.run([PYTHON, "-IS", str(SOURCE / "tests/system/ask.py"), path, *options],
                            limit_s=60, stdin=data, check=True).out

    def ask(self, command, argument, session=None):
        return self.send(korvel.frame(korvel.packet(command, argument)), session=session)

    def ask_well(self, command, argument, session=None):
        self.assertEqual(self.ask(command, argument, session), EMPTY_REPLY)

    def restore_file(self, session="abc", folder="/Users/alice", content="resume me"):
        return self.mac.write_restore_file(f"{folder}/{session}.dat", content)

    def register(self, session="abc"):
        """Registers a session and checks that this has worked."""
        self.ask_well(REGISTER, self.restore_file(session))
        self.assert_exists(korvel.agent_path(session), korvel.restore_path(session))

    # The log

    def assert_log(self, *expected, path=korvel.LOG):
        """The log holds exactly these lines ("component: message"), sooner or later.

        A serving helper writes its log beside its answers, so the end is waited for; `...` at the
        front passes over earlier lines."""
        wanted = list(expected)
        tail = wanted and wanted[0] is ...
        wanted = wanted[1:] if tail else wanted

        def seen():
            if not self.mac.exists(path):
                return []
            lines = [f"{name}: {text}" for name, text in self.mac.log(path)]
            return lines[-len(wanted):] if tail else lines
        try:
            self.mac.wait_until(lambda: seen() == wanted, limit_s=PATIENCE_S)
        except MacFailure:
            self.assertEqual(seen(), wanted)

    def assert_logged(self, line, path=korvel.LOG):
        """The log holds the line somewhere, sooner or later."""
        def lines():
            return [f"{n}: {t}" for n, t in self.mac.log(path)] if self.mac.exists(path) else []
        try:
            self.mac.wait_until(lambda: line in lines(), limit_s=PATIENCE_S)
        except MacFailure:
            self.assertIn(line, lines())

    # Files

    def assert_exists(self, *paths):
        self.assertEqual([p for p in paths if not self.mac.exists(p)], [], "missing")

    def assert_gone(self, *paths):
        self.assertEqual([p for p in paths if self.mac.exists(p)], [], "still there")

    def assert_job_file(self, path, content):
        self.assertEqual(self.mac.read(path), content)
        self.assertEqual(self.mac.mode_owner(path), "0644 0:0")

    def block(self, path):
        """Puts a plain file where the helper wants a folder."""
        self.mac.sh(f"mkdir -p {path.rpartition('/')[0]}; rm -rf {path}; echo in the way > {path}")

    def snapshot(self):
        """All that a request could change: job files and session folders."""
        return [self.mac.listing(folder)
                for folder in (korvel.AGENTS, korvel.DAEMONS, "/Library/VeskRuntime")]

    # System calls

    TRACE = "/var/log/trace"

    def assert_runs(self, expected, act, before=0):
        """Beside the `before` first ones, exactly these programs have been run when `act` is
        over, each with these arguments.

        What the helper starts detached races with what it runs next, on a busy machine by more
        than its pauses, so the order is not looked at."""
        act()
        self.mac.wait_until(lambda: len(self.programs()) >= before + len(expected),
                            limit_s=PATIENCE_S, what=f"{expected} in {self.programs()[before:]}")
        self.assertEqual(sorted(self.programs()[before:]), sorted(expected))

    def trace(self, *words, **environment):
        """Starts the helper under strace, with more in its environment."""
        self.mac.put_helper()
        self.mac.write(self.TRACE, "")
        return self.mac.start(
            ["/usr/bin/strace", "-f", "-qq", "-v", "-s", "4096", "-e", "trace=execve",
             "-e", "signal=none", "-o", self.TRACE, korvel.HELPER, *words],
            env={**UNTRACED, **environment})

    def programs(self):
        """The arguments of every program that has run since, in order, the helper's left out."""
        open_calls, calls = {}, []
        whole = re.compile(r'execve\("(?:[^"\\]|\\.)*", (\[.*?\]), \[.*= 0')
        begun = re.compile(r'execve\("(?:[^"\\]|\\.)*", (\[.*?\]), \[.*<unfinished \.\.\.>')
        for line in self.mac.read_text(self.TRACE).splitlines():
            pid, _, call = line.partition(" ")
            if found := begun.match(call.strip()):
                open_calls[pid] = found[1]
            elif re.match(r"<\.\.\. execve resumed>.*= 0", call.strip()):
                calls.append(open_calls[pid])
            elif found := whole.match(call.strip()):
                calls.append(found[1])
        arguments = [ast.literal_eval(text) for text in calls]
        return [words for words in arguments if words[0] != korvel.HELPER]

    def linger(self, *words):
        """Runs a helper whose end takes long enough for its log to be written: the role that ends
        at once does not wait for that."""
        return self.mac.run(
            ["/usr/bin/strace", "-qq", "-o", "/dev/null", "-e", "trace=exit_group",
             "-e", "inject=exit_group:delay_enter=500000", korvel.HELPER, *words], env=UNTRACED)
