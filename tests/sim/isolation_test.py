#!/usr/bin/python3
"""Roots beside each other and within each other, without real root, and where none is allowed."""

import concurrent.futures
import functools
import os
import pathlib
import subprocess
import unittest

import root_case
from macroot_api import MacRoot
from root_case import LAUNCHER, inside, run

SUBORDINATE = "for f in subuid subgid; do echo 'alice:100000:65536' > /etc/$f; done; "
# The launcher as the root's user alice sees it: no real root there.
AS_ALICE = "sudo -u alice /build/sim/macroot-run"


# Limits of processes count a user's over all roots: a user whom nobody else is.
NOBODY_ELSE = str(50000 + os.getpid() % 10000)


@functools.lru_cache(None)
def why_not_as_another():
    """Why nothing can be run in a root as a user who is not root; empty where it can."""
    mode = inside("sed -n s/^ids=//p /etc/macroot")
    if mode != "plain":
        return f"roots are made with a {mode} id map here"
    seen = inside(f"sudo -u alice test -x /build/sim/macroot-run -a -r {root_case.SOURCE}/sim "
                  "&& echo yes || true")
    return "" if seen == "yes" else "the build or source folder is closed to other users"


def needs_real_root(test):
    @functools.wraps(test)
    def guarded(self):
        reason = why_not_as_another()
        if reason:
            self.skipTest(reason)
        test(self)
    return guarded


class Beside(unittest.TestCase):
    def test_many_roots_at_once(self):
        with concurrent.futures.ThreadPoolExecutor(4) as pool:
            done = list(pool.map(lambda n: inside(f"echo {n} > /tmp/n; sleep 0.05; cat /tmp/n"),
                                 range(40)))
        self.assertEqual(done, [str(n) for n in range(40)])

    def test_two_macs_do_not_see_each_other(self):
        with MacRoot(launcher=LAUNCHER) as one, MacRoot(launcher=LAUNCHER) as other:
            one.boot("alice")
            other.boot()
            one.write("/tmp/x", "1")
            self.assertFalse(other.exists("/tmp/x"))
            self.assertEqual(other.state()["sessions"], {})

    def test_consoles_of_the_machine_are_untouched(self):
        before = os.stat("/dev/console").st_uid if os.path.exists("/dev/console") else None
        inside("chown 501 /dev/console")
        after = os.stat("/dev/console").st_uid if os.path.exists("/dev/console") else None
        self.assertEqual(before, after)

    def test_name_of_the_machine_is_untouched(self):
        before = os.uname().nodename
        self.assertEqual(inside("hostname"), "mac")
        self.assertEqual(os.uname().nodename, before)

    def test_memory_that_processes_share_is_private(self):
        self.assertNotIn("0x", inside("ipcmk -M 100 >/dev/null; ipcs -m") .split("\n", 3)[-1]
                         .replace("0x", "", 1))

    def test_nothing_is_left_of_a_root_that_is_killed_while_it_is_made(self):
        mounts = pathlib.Path("/proc/self/mounts").read_text()
        for delay_us in range(0, 6000, 500):
            process = subprocess.Popen([LAUNCHER, "sleep", "31415"])
            subprocess.run(["sleep", f"{delay_us / 1e6}"], check=True)
            process.kill()
            process.wait()
        script = ("for i in $(seq 200); do pgrep -f 'sleep [3]1415' >/dev/null || exit 0; "
                  "sleep 0.01; done; exit 1")
        gone = subprocess.run(script, shell=True, check=False)
        self.assertEqual(gone.returncode, 0)
        self.assertEqual(pathlib.Path("/proc/self/mounts").read_text(), mounts)


class Within(unittest.TestCase):
    @needs_real_root
    def test_root_in_a_root(self):
        self.assertEqual(inside("/build/sim/macroot-run sh -c 'id -u alice; cat /etc/macroot'")
                         .splitlines()[:2], ["501", "release=10.11.6"])

    @needs_real_root
    def test_user_with_subordinate_ids_has_all_users(self):
        shown = inside(SUBORDINATE + AS_ALICE + " sh -c 'sed -n s/^ids=//p /etc/macroot; "
                       "touch /tmp/x; chown bob /tmp/x; stat -c %U /tmp/x; sudo -u \"#501\" id -un;"
                       " stat -c %u /dev/console'")
        self.assertEqual(shown.splitlines(), ["subuid", "bob", "alice", "0"])

    @needs_real_root
    def test_whole_mac_runs_for_a_user_with_subordinate_ids(self):
        script = ("import sys; sys.path.insert(0, '%s')\nfrom macroot_api import MacRoot\n"
                  "with MacRoot(launcher='/build/sim/macroot-run') as mac:\n"
                  "    mac.boot('alice')\n    mac.restart('bob')\n"
                  "    print(mac.mode, mac.sh('id -un', user='bob', session='bob'),\n"
                  "          mac.stat('/dev/console')['st_uid'])\n" % (root_case.SOURCE / "sim"))
        shown = inside(SUBORDINATE + f"sudo -u alice /usr/bin/python3 -c \"{script}\"")
        self.assertEqual(shown, "subuid bob 502")

    @needs_real_root
    def test_user_without_any_is_alone_but_has_a_root(self):
        shown = inside(AS_ALICE + " sh -c 'sed -n s/^ids=//p /etc/macroot; id -u; "
                       "touch /tmp/x; chown bob /tmp/x 2>/dev/null || echo alone'")
        self.assertEqual(shown.splitlines(), ["single", "0", "alone"])

    @needs_real_root
    def test_range_that_is_too_small_does_not_count(self):
        shown = inside("for f in subuid subgid; do echo alice:100000:100 > /etc/$f; done; "
                       + AS_ALICE + " sed -n s/^ids=//p /etc/macroot")
        self.assertEqual(shown, "single")

    @needs_real_root
    def test_mac_without_other_ids_boots_and_logs_in(self):
        script = ("import sys; sys.path.insert(0, '%s')\nfrom macroot_api import MacRoot\n"
                  "with MacRoot(launcher='/build/sim/macroot-run') as mac:\n"
                  "    mac.boot('alice')\n"
                  "    print(mac.mode, mac.sh('id -u'), mac.state()['console'])\n"
                  % (root_case.SOURCE / "sim"))
        self.assertEqual(inside(f"sudo -u alice /usr/bin/python3 -c \"{script}\""),
                         "single 0 alice")


class NotAllowed(unittest.TestCase):
    """With no process to spare no way works, whatever the machine allows."""

    def refused(self, *options):
        words = ["prlimit", "--nproc=1", "setpriv", f"--reuid={NOBODY_ELSE}", "--clear-groups",
                 "/build/sim/macroot-run", *options, "true"]
        return run("--", *words)

    @needs_real_root
    def test_skip_with_every_reason_in_one_line(self):
        done = self.refused()
        self.assertEqual(done.returncode, 77)
        self.assertEqual(len(done.stderr.splitlines()), 1)
        for word in ("plain: not root", "subuid: ", "single: "):
            self.assertIn(word, done.stderr)

    @needs_real_root
    def test_failure_where_a_root_is_required(self):
        self.assertEqual(self.refused("--required").returncode, 1)

    @needs_real_root
    def test_test_program_is_skipped_and_in_ci_fails(self):
        for setting, status in (("CI=", 77), ("CI=false", 77), ("CI=true", 1)):
            with self.subTest(setting):
                done = run("--", "prlimit", "--nproc=1", "setpriv", f"--reuid={NOBODY_ELSE}",
                           "--clear-groups", "env", "-u", "KORVEL_MACROOT", setting,
                           "/build/tests/sim/sim_root_tests")
                self.assertEqual(done.returncode, status)
                self.assertIn("allows no private root", done.stderr)


class TestProgram(unittest.TestCase):
    def test_lists_its_tests_without_a_root(self):
        program = pathlib.Path(LAUNCHER).parents[1] / "tests/sim/sim_root_tests"
        done = subprocess.run([program, "--gtest_list_tests"], capture_output=True, text=True,
                              check=True)
        self.assertIn("test_is_root_but_not_process_1", done.stdout)

    @unittest.skipIf(os.path.exists("/etc/macroot"), "these tests run in a root themselves")
    def test_inherited_variable_alone_does_not_keep_it_outside(self):
        program = pathlib.Path(LAUNCHER).parents[1] / "tests/sim/sim_root_tests"
        done = subprocess.run([program, "--gtest_filter=*process_1"], check=False,
                              capture_output=True, env={**os.environ, "KORVEL_MACROOT": "plain"})
        self.assertEqual(done.returncode, 0)


if __name__ == "__main__":
    root_case.main()
