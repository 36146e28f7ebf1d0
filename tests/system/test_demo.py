"""The demonstration: it succeeds, tells what it saw, and can fail."""

import json
import pathlib
import subprocess
import tempfile
import unittest
import xml.etree.ElementTree

from system_case import BUILD, PYTHON, SOURCE


def demo(*words):
    return subprocess.run([PYTHON, SOURCE / "sim/macroot", "demo", "--build-dir", BUILD, *words],
                          capture_output=True, text=True, timeout=110, check=False)


class Demo(unittest.TestCase):
    def test_both_roads_on_one_release(self):
        done = demo("--release", "14.5", "--json")
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
        steps = [json.loads(line) for line in done.stdout.splitlines()]
        self.assertEqual({s["road"] for s in steps}, {"socket", "session"})
        self.assertEqual({s["release"] for s in steps}, {"14.5"})
        self.assertTrue(all(s["ok"] and s["expected"] and s["seen"] for s in steps))
        for name in ("boot", "install", "daemon", "log-in", "register", "restart", "resume",
                     "resign", "removal"):
            self.assertIn(name, {s["step"] for s in steps})

    def assert_succeeds(self, release):
        done = demo("--release", release)
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)

    def test_release_10_6(self):
        self.assert_succeeds("10.6")

    def test_release_10_9(self):
        self.assert_succeeds("10.9")

    def test_release_10_10(self):
        self.assert_succeeds("10.10")

    def test_release_10_11(self):
        self.assert_succeeds("10.11")

    def test_release_12(self):
        self.assert_succeeds("12")

    def test_release_15(self):
        self.assert_succeeds("15")

    def test_a_step_is_one_line_with_its_time(self):
        done = demo("--release", "10.10", "--road", "session")
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
        lines = [line for line in done.stdout.splitlines() if " ok " in line]
        self.assertGreater(len(lines), 10)
        for line in lines:
            self.assertRegex(line, r"^ +\d+\.\d\d s  ok    [a-z -]+: expected .+; saw .+$")

    def test_a_picture_of_the_run(self):
        with tempfile.TemporaryDirectory() as folder:
            path = pathlib.Path(folder, "run.svg")
            done = demo("--release", "10.11", "--road", "socket", "--timeline", path)
            self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
            page = xml.etree.ElementTree.parse(path).getroot()
        kinds = [part.get("class") for part in page.iter() if part.get("class")]
        self.assertEqual(kinds.count("restart"), 2)
        self.assertEqual(kinds.count("call"), 3)    # load, bootstrap, bootout
        for kind in ("daemon", "agent", "login", "window"):
            self.assertIn(kind, kinds)
        words = " ".join("".join(part.itertext()) for part in page.iter())
        for text in ("register", "resign", "launchd_daemon_install: writing pinfo: ",
                     "launchd_agent_uninstall: stopping "):
            self.assertIn(text, words)

    def test_without_the_client_it_ends_with_1_and_tells_why(self):
        done = demo("--release", "12", "--road", "socket", "--no-client")
        self.assertEqual(done.returncode, 1, done.stdout + done.stderr)
        self.assertIn("FAIL", done.stdout)
        self.assertIn("commandReceived: Korvel executable not found", done.stdout)
        self.assertIn("a step failed", done.stdout)

    def test_a_failed_step_of_the_other_road_is_told_as_json(self):
        done = demo("--release", "12", "--road", "session", "--no-client", "--json")
        self.assertEqual(done.returncode, 1, done.stdout + done.stderr)
        last = json.loads(done.stdout.splitlines()[-1])
        self.assertEqual((last["ok"], last["step"]), (False, "install"))
        log = "\n".join(line for lines in last["log"].values() for line in lines)
        self.assertIn("moveAppBundle: Failed to move bundle: ", log)

    def test_wrong_use_ends_with_2(self):
        self.assertEqual(demo("--dance").returncode, 2)
