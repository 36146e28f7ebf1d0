#!/usr/bin/python3
"""The launcher: what a root holds, how it ends, what is left of it, and wrong use."""

import os
import pathlib
import re
import signal
import subprocess
import tempfile
import time
import unittest

import root_case
from root_case import LAUNCHER, inside, run


def processes_with(word):
    """The machine's processes whose arguments hold the word, as pids."""
    found = []
    for folder in pathlib.Path("/proc").glob("[0-9]*"):
        try:
            if word in (folder / "cmdline").read_bytes().decode(errors="replace"):
                found.append(int(folder.name))
        except OSError:
            continue
    return [pid for pid in found if pid != os.getpid()]


def wait_until_gone(word, limit_s=10):
    end = time.monotonic() + limit_s
    while processes_with(word) and time.monotonic() < end:
        time.sleep(0.005)
    return processes_with(word)


class TheTree(unittest.TestCase):
    def test_folders_link_into_private_as_on_a_mac(self):
        self.assertEqual(inside("readlink /etc /tmp /var"), "private/etc\nprivate/tmp\nprivate/var")

    def test_job_folders_belong_to_root_and_wheel(self):
        shown = inside("stat -c '%U %G %a' /Library/LaunchAgents /Library/LaunchDaemons")
        self.assertEqual(shown, "root wheel 755\nroot wheel 755")

    def test_bin_is_a_folder_with_the_usual_programs(self):
        inside("test ! -L /bin; /bin/rm -fr /nothing; /bin/sh -c true; cp /bin/ls /bin/new")

    def test_version_is_the_one_asked_for(self):
        text = inside("cat /System/Library/CoreServices/SystemVersion.plist", "--release", "14.5")
        self.assertIn("<key>ProductVersion</key>\n\t<string>14.5</string>", text)
        self.assertIn("<string>macOS</string>", text)

    def test_older_version_has_the_older_name(self):
        text = inside("cat /System/Library/CoreServices/SystemVersion.plist", "--release", "10.9")
        self.assertIn("<string>Mac OS X</string>", text)

    def test_default_users(self):
        self.assertEqual(inside("id -u alice; id -Gn alice; id -u bob; id -Gn bob"),
                         "501\nstaff admin\n502\nstaff")

    def test_other_users_replace_the_default_ones(self):
        self.assertEqual(inside("id -u carol; id -u alice || echo none", "--user", "carol:600")
                         .splitlines(), ["600", "none"])

    def test_console_is_a_plain_file_of_its_owner(self):
        self.assertEqual(inside("stat -c '%F %u %a' /dev/console", "--console", "501"),
                         "regular empty file 501 620")

    def test_client_can_be_left_out(self):
        inside("test -x /Applications/Korvel.app/Contents/MacOS/korvel")
        inside("test ! -e /Applications/Korvel.app", "--no-client")

    def test_sudo_takes_a_numeric_user_without_entry(self):
        self.assertEqual(inside("sudo -u '#501' id -u; sudo -u '#777' id -u"), "501\n777")

    def test_open_file_limit_is_a_macs(self):
        self.assertEqual(inside("ulimit -n"), "256")

    def test_machine_is_out_of_sight(self):
        shown = inside("ls -A / /tmp /Users /var/log /root 2>&1 || true; cat /etc/passwd",
                       "--source", "/usr", "--build", "/usr")
        for word in ("old_root", ".machine", "lost+found", "boot", "home", "root"):
            self.assertNotIn(f"\n{word}\n", f"\n{shown}\n")
        self.assertEqual(len([l for l in shown.splitlines() if l.count(":") == 6]), 5)

    def test_only_its_own_processes_are_seen(self):
        self.assertLessEqual(int(inside("ls -d /proc/[0-9]* | wc -l")), 4)


class Binds(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.TemporaryDirectory()
        self.addCleanup(self.folder.cleanup)

    def test_bind_is_read_only(self):
        done = run("--bind", f"{self.folder.name}:/shared", "--", "touch", "/shared/x")
        self.assertNotEqual(done.returncode, 0)
        self.assertIn("Read-only", done.stderr)

    def test_writable_bind_writes_through(self):
        inside("echo seen > /deep/er/shared/x", "--bind", f"{self.folder.name}:/deep/er/shared:rw")
        self.assertEqual((pathlib.Path(self.folder.name) / "x").read_text(), "seen\n")

    def test_file_can_be_bound(self):
        path = pathlib.Path(self.folder.name) / "one"
        path.write_text("content")
        self.assertEqual(inside("cat /etc/one", "--bind", f"{path}:/etc/one"), "content")

    def test_build_and_source_stand_at_their_own_paths(self):
        build = str(pathlib.Path(LAUNCHER).resolve().parents[1])
        inside(f"test -x '{build}/sim/macroot-run' -a -x /build/sim/macroot-run; "
               f"test -f '{root_case.SOURCE}/CMakeLists.txt'; ! touch '{build}/x' 2>/dev/null")


class TheCommand(unittest.TestCase):
    def test_is_not_process_1(self):
        self.assertEqual(inside("echo $PPID; test $$ -gt 1"), "1")

    def test_is_process_1_on_request(self):
        done = run("--init", "sh", "-c", "echo $$")
        self.assertEqual(done.stdout, "1\n")

    def test_status_is_passed_on(self):
        self.assertEqual(run("sh", "-c", "exit 42").returncode, 42)

    def test_signal_becomes_128_and_its_number(self):
        self.assertEqual(run("sh", "-c", "kill -9 $$").returncode, 137)

    def test_program_that_is_missing_gives_127(self):
        done = run("no-such-program")
        self.assertEqual((done.returncode, done.stderr), (
            127, "macroot-run: cannot run no-such-program: No such file or directory\n"))

    def test_folder_that_is_missing_gives_127(self):
        done = run("--chdir", "/nowhere", "true")
        self.assertEqual(done.returncode, 127)
        self.assertIn("/nowhere", done.stderr)

    def test_environment_is_cleared(self):
        shown = inside("env | cut -d= -f1 | sort | tr '\\n' ' '",
                       "--env", "A=1", "--env", "NOT_SET")
        self.assertEqual(shown, "A KORVEL_MACROOT PATH PWD")

    def test_variable_without_value_is_the_callers(self):
        done = run("--env", "KORVEL_PROBE", "sh", "-c", "echo $KORVEL_PROBE",
                   env={**os.environ, "KORVEL_PROBE": "told"})
        self.assertEqual(done.stdout, "told\n")

    def test_standard_input_reaches_it(self):
        self.assertEqual(run("cat", input="words").stdout, "words")

    def test_orphans_are_reaped(self):
        shown = inside("(sh -c 'sleep 0.01 &') ; sleep 0.2; ps -e -o stat= | grep -c Z || true")
        self.assertEqual(shown, "0")

    def test_info_tells_pid_and_mode(self):
        read, write = os.pipe()
        done = run("--info-fd", str(write), "sh", "-c", "ls /proc/self/fd | wc -l",
                   pass_fds=[write])
        os.close(write)
        with os.fdopen(read) as lines:
            self.assertRegex(lines.read(), r"^\d+ (plain|subuid|single)\n$")
        self.assertEqual(done.stdout, "4\n")


class TheEnd(unittest.TestCase):
    def start(self, marker):
        process = subprocess.Popen(
            [LAUNCHER, "sh", "-c", f"sleep 1000.{marker} & echo up; exec sleep 2000.{marker}"],
            stdout=subprocess.PIPE, text=True)
        self.addCleanup(process.stdout.close)
        self.assertEqual(process.stdout.readline(), "up\n")
        return process

    def marker(self):
        return f"{os.getpid()}{id(self) % 100000}"

    def test_killed_launcher_takes_everything_along(self):
        marker = self.marker()
        process = self.start(marker)
        process.kill()
        process.wait()
        self.assertEqual(wait_until_gone(f"000.{marker}"), [])

    def test_termination_is_passed_on_and_the_rest_dies(self):
        marker = self.marker()
        process = self.start(marker)
        process.terminate()
        self.assertEqual(process.wait(), 128 + signal.SIGTERM)
        self.assertEqual(wait_until_gone(f"000.{marker}"), [])

    def test_root_ends_with_the_process_that_started_it(self):
        marker = self.marker()
        starter = subprocess.Popen(
            ["sh", "-c", f"{LAUNCHER} sh -c 'echo up; sleep 1000.{marker}' & wait"],
            stdout=subprocess.PIPE, text=True)
        self.assertEqual(starter.stdout.readline(), "up\n")
        starter.kill()
        starter.wait()
        starter.stdout.close()
        self.assertEqual(wait_until_gone(f"000.{marker}"), [])

    def test_no_mount_is_left_on_the_machine(self):
        before = pathlib.Path("/proc/self/mounts").read_text()
        inside("true")
        self.assertEqual(pathlib.Path("/proc/self/mounts").read_text(), before)


class WrongUse(unittest.TestCase):
    def refused(self, *words):
        done = run(*words)
        self.assertEqual(done.returncode, 2, done.stderr)
        self.assertEqual(len(done.stderr.splitlines()), 1)
        return done.stderr

    def test_no_command(self):
        self.assertIn("command missing", self.refused())

    def test_unknown_option(self):
        self.assertIn("--what", self.refused("--what", "true"))

    def test_value_missing(self):
        self.assertIn("--release: value missing", self.refused("--release"))

    def test_malformed_values(self):
        for words in (["--release", "ten"], ["--release", ""], ["--user", "carol"],
                      ["--user", "carol:x"], ["--user", "root:5"], ["--user", "carol:0"],
                      ["--console", "-1"], ["--bind", "/usr"], ["--bind", "/usr:relative"],
                      ["--bind", "/no/such/folder:/x"], ["--info-fd", "two"],
                      ["--build", "/no/such/folder"]):
            with self.subTest(words):
                self.refused(*words, "true")

    def test_help_lists_every_option(self):
        done = run("--help")
        self.assertEqual(done.returncode, 0)
        source = (root_case.SOURCE / "sim/run_options.cpp").read_text()
        for option in set(re.findall(r'\{"(--[a-z-]+)"', source)):
            self.assertIn(option, done.stdout)


if __name__ == "__main__":
    root_case.main()
