#!/usr/bin/python3
"""MacRoot as tests and the demonstration use it, and the command `macroot`."""

import json
import os
import pathlib
import signal
import subprocess
import tempfile
import time
import unittest

import root_case
import korvel
from macroot_api import MacFailure, MacRoot, NoRoot, Timeout
from root_case import CLIENT, LAUNCHER, MacCase

MACROOT = str(root_case.SOURCE / "sim/macroot")


class Commands(MacCase):
    def test_status_and_both_outputs_come_back(self):
        done = self.mac.run(["/bin/sh", "-c", "echo out; echo err >&2; exit 3"])
        self.assertEqual((done.status, done.out, done.err), (3, b"out\n", b"err\n"))

    def test_signal_is_negative(self):
        self.assertEqual(self.mac.run(["/bin/sh", "-c", "kill -9 $$"]).status, -9)

    def test_standard_input_is_given(self):
        self.assertEqual(self.mac.run(["cat"], stdin=b"words").out, b"words")

    def test_large_output_comes_back_whole(self):
        done = self.mac.run(["head", "-c", "3000000", "/dev/zero"])
        self.assertEqual(len(done.out), 3000000)

    def test_runs_as_the_user(self):
        self.assertEqual(self.mac.sh("id -un; pwd; echo $HOME", user="bob", cwd="/Users"),
                         "bob\n/Users\n/Users/bob")

    def test_missing_program_is_a_failure(self):
        with self.assertRaisesRegex(MacFailure, "No such file"):
            self.mac.run(["/no/such"])

    def test_time_limit_kills(self):
        command = self.mac.start(["/bin/sleep", "1000"])
        with self.assertRaises(Timeout):
            command.wait(0.05)
        self.assertEqual(command.wait().status, -9)

    def test_background_command_can_be_asked_and_killed(self):
        command = self.mac.start(["/bin/sh", "-c", "echo here; exec sleep 1000"])
        self.mac.wait_until(lambda: command.output() == b"here\n")
        self.assertIsNone(command.status)
        command.kill(signal.SIGTERM)
        self.assertEqual(command.wait().status, -15)

    def test_check_raises(self):
        with self.assertRaisesRegex(MacFailure, "status 4"):
            self.mac.run(["/bin/sh", "-c", "exit 4"], check=True)


class Files(MacCase):
    def test_write_and_read(self):
        self.mac.write("/Users/x", b"\0bytes", 0o640, (501, 20))
        info = self.mac.stat("/Users/x")
        self.assertEqual(self.mac.read("/Users/x"), b"\0bytes")
        self.assertEqual((info["st_mode"] & 0o777, info["st_uid"], info["st_gid"]),
                         (0o640, 501, 20))

    def test_links_are_followed_inside_the_root(self):
        self.mac.file("symlink", "/etc/passwd", "/Users/link")
        self.assertIn("alice", self.mac.read_text("/Users/link"))

    def test_missing_file_says_so(self):
        with self.assertRaises(MacFailure) as caught:
            self.mac.read("/none")
        self.assertEqual(caught.exception.errno, 2)
        self.assertFalse(self.mac.exists("/none"))

    def test_program_of_usr_can_be_covered(self):
        self.mac.cover("/usr/bin/id", "#!/bin/sh\necho broken >&2\nexit 1\n")
        self.assertEqual(self.mac.run(["id"]).status, 1)
        self.mac.uncover("/usr/bin/id")
        self.assertEqual(self.mac.sh("id -u"), "0")


class Events(MacCase):
    def test_wait_for_finds_the_past_and_the_future(self):
        self.mac.boot()
        self.assertEqual(self.mac.wait_for("boot")["n"], 0)
        self.daemon("d", "/bin/sh", "-c", "sleep 0.05", RunAtLoad=True)
        self.launchctl("load", "/Library/LaunchDaemons/d.plist")
        self.assertEqual(self.mac.wait_for("process-exited", label="d")["status"], 0)

    def test_wait_for_what_does_not_come_tells_the_latest_events(self):
        self.mac.boot()
        with self.assertRaisesRegex(Timeout, '"event": "login-window"'):
            self.mac.wait_for("login", limit_s=0.05)

    def test_mark_hides_the_past(self):
        self.mac.boot()
        self.assertEqual(self.mac.find("boot", since=self.mac.mark()), [])

    def test_client_is_recorded_with_its_restore_file(self):
        self.mac.write("/Users/s.dat", "session\n")
        self.agent("a", CLIENT, "--connect-restore", "/Users/s.dat", "--auto-close", RunAtLoad=True)
        self.mac.boot("alice")
        record = self.mac.wait_for("client")["record"]
        self.assertEqual(record["argv"],
                         [CLIENT, "--connect-restore", "/Users/s.dat", "--auto-close"])
        self.assertEqual((record["uid"], record["gid"], record["restore_exists"],
                          record["restore_content"]), (501, 20, True, "session\n"))
        line = json.loads(self.mac.read_text("/var/log/korvel-client.jsonl"))
        self.assertEqual(line["pid"], record["pid"])

    def test_client_tells_that_its_restore_file_is_missing(self):
        self.agent("a", CLIENT, "--connect-restore", "/none", RunAtLoad=True)
        self.mac.boot("alice")
        record = self.mac.wait_for("client")["record"]
        self.assertEqual((record["restore_file"], record["restore_exists"]), ("/none", False))

    def test_client_stays_until_it_is_told_to_end(self):
        self.mac.boot()
        command = self.mac.start([CLIENT])
        self.mac.wait_for("client")
        self.assertIsNone(command.status)
        command.kill(signal.SIGTERM)
        self.assertEqual(command.wait().status, 0)

    def test_many_events_do_not_stop_the_mac(self):
        self.mac.boot()
        self.mac.sh("i=0; while [ $i -lt 300 ]; do launchctl list "
                    + "x" * 2000 + " 2>/dev/null || true; i=$((i+1)); done")
        self.assertEqual(len(self.mac.find("launchctl")), 300)


class Rights(MacCase):
    def test_only_root_drives_the_mac_from_inside(self):
        self.mac.boot("alice")
        command = ["/usr/bin/python3", "-I", MACROOT, "--inside", "logout", "alice"]
        done = self.mac.run(command, user="bob")
        self.assertEqual(done.status, 1)
        self.assertIn("root only", done.error_text)
        self.assertEqual(self.mac.run(command).status, 0)

    def test_broken_messages_end_nothing(self):
        self.mac.boot()
        script = ("import socket\n"
                  "for data in (b'x', b'{}', b'[]', b'5', b'{\"op\": 5}', b'\\xff',\n"
                  "             b'{\"op\": \"launchctl\"}',\n"
                  "             b'{\"op\": \"launchctl\", \"argv\": 1}',\n"
                  "             b'{\"op\": \"client\"}', b'{\"op\": \"run\"}'):\n"
                  "    s = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)\n"
                  "    s.connect('/var/run/macroot.sock')\n"
                  "    s.send(data)\n"
                  "    s.close()\n")
        self.mac.run(["/usr/bin/python3", "-c", script], check=True)
        self.assertEqual(self.launchctl("list").status, 0)


class Making(unittest.TestCase):
    def launcher(self, script):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        path = pathlib.Path(folder.name) / "launcher"
        path.write_text("#!/bin/sh\n" + script)
        path.chmod(0o755)
        return str(path)

    def test_machine_without_roots_is_told_apart_from_failures(self):
        with self.assertRaisesRegex(NoRoot, "^no way$"):
            MacRoot(launcher=self.launcher("echo no way >&2; exit 77"))
        with self.assertRaisesRegex(MacFailure, "^wrong$"):
            MacRoot(launcher=self.launcher("echo wrong >&2; exit 2"))

    def test_process_1_that_fails_says_why(self):
        mac = MacRoot(launcher=self.launcher("echo 1 plain >&$4; echo torn >&2; exit 1".replace(
            "$4", '"$(echo "$@" | sed "s/.*--info-fd \\([0-9]*\\).*/\\1/")"')))
        self.addCleanup(mac.close)
        with self.assertRaisesRegex(MacFailure, "(?s)ended.*torn"):
            mac.boot()


class Ending(unittest.TestCase):
    def test_close_leaves_nothing(self):
        mac = MacRoot(launcher=LAUNCHER)
        mac.boot("alice")
        mac.close()
        self.assertFalse(os.path.exists(f"/proc/{mac.pid}"))

    def test_killed_owner_leaves_nothing(self):
        script = (f"import sys, time; sys.path.insert(0, {str(root_case.SOURCE / 'sim')!r})\n"
                  f"from macroot_api import MacRoot\nmac = MacRoot(launcher={LAUNCHER!r})\n"
                  "mac.boot('alice')\nprint(mac.pid, flush=True)\ntime.sleep(1000)\n")
        owner = subprocess.Popen(["/usr/bin/python3", "-c", script], stdout=subprocess.PIPE,
                                 text=True)
        pid = int(owner.stdout.readline())
        owner.kill()
        owner.wait()
        owner.stdout.close()
        end = time.monotonic() + 10
        while os.path.exists(f"/proc/{pid}") and time.monotonic() < end:
            time.sleep(0.005)
        self.assertFalse(os.path.exists(f"/proc/{pid}"))

    def test_ended_root_is_a_failure_of_the_next_request(self):
        mac = MacRoot(launcher=LAUNCHER)
        self.addCleanup(mac.close)
        os.kill(mac.pid, signal.SIGKILL)
        with self.assertRaisesRegex(MacFailure, "ended"):
            mac.boot()


class TheCommand(unittest.TestCase):
    def macroot(self, *words, **options):
        return subprocess.run([MACROOT, *words], capture_output=True, text=True, check=False,
                              timeout=60, **options)

    def test_run_boots_and_passes_the_status_on(self):
        done = self.macroot("run", "--release", "14.5", "--login", "alice", "--as", "alice",
                            "--session", "alice", "--", "sh", "-c",
                            "id -un; launchctl managername; exit 6")
        self.assertEqual((done.returncode, done.stdout), (6, "alice\nAqua\n"))

    def test_shell_survives_a_restart_of_its_mac(self):
        shell = subprocess.Popen([MACROOT, "shell", "--login", "alice"], stdin=subprocess.PIPE,
                                 stdout=subprocess.PIPE, text=True)
        shell.stdin.write("mac restart\n")
        shell.stdin.flush()
        seen = ""
        while "restarted" not in seen:
            seen = shell.stdout.readline()
        shell.stdin.write("echo console $(stat -c %U /dev/console)\nexit\n")
        shell.stdin.close()
        self.assertIn("console root", shell.stdout.read())
        shell.stdout.close()
        self.assertEqual(shell.wait(), 0)

    def test_shell_has_the_product_that_is_built(self):
        done = self.macroot("shell", input=f"{korvel.HELPER} -runInstall 1\n"
                                           "until rnrctl ping; do sleep 0.1; done; exit\n")
        self.assertRegex(done.stdout, r"(?m)^korvel_helper answered in \d+ ms")

    def test_other_terminal_drives_a_mac(self):
        with MacRoot(launcher=LAUNCHER) as mac:
            mac.boot()
            at = ["--at", str(mac.pid)]
            self.assertEqual(self.macroot(*at, "login", "bob").returncode, 0)
            self.assertEqual(json.loads(self.macroot(*at, "state").stdout)["console"], "bob")
            self.assertIn('"event": "login"', self.macroot(*at, "timeline").stdout)
            self.assertEqual(self.macroot(*at, "login", "bob").returncode, 1)

    def test_wrong_use(self):
        for words in ([], ["what"], ["--at", "1"]):
            with self.subTest(words):
                self.assertEqual(self.macroot(*words).returncode, 2)
        self.assertIn("macroot demo", self.macroot("--help").stdout)


if __name__ == "__main__":
    root_case.main()
