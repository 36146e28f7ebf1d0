#!/usr/bin/python3
"""Running jobs: as whom and with what, kept alive or not, throttled, ended."""

import time

import root_case
from root_case import MacCase

SHOW = "/var/log/shown"
STUBBORN = "trap '' TERM; echo up; while :; do sleep 0.01; done"


def shell(script):
    return ["/bin/sh", "-c", script]


class AsWhom(MacCase):
    def shown(self, login=None):
        self.mac.boot(login)
        self.mac.wait_for("process-exited", label="j")
        return self.mac.read_text(SHOW).strip()

    def test_daemon_is_root_without_session_or_home(self):
        self.daemon("j", *shell(f"(id -u; id -g; env | grep -v ^PWD= | sort) > {SHOW}"),
                    RunAtLoad=True)
        self.assertEqual(self.shown(), "0\n0\nPATH=/usr/bin:/bin:/usr/sbin:/sbin\n"
                         "XPC_FLAGS=0x0\nXPC_SERVICE_NAME=j")

    def test_agent_is_the_user_with_groups_and_environment(self):
        self.mac.write(SHOW, "", 0o666)
        self.agent("j", *shell(f"(id -un; id -Gn; env | grep -v ^PWD= | sort) > {SHOW}"),
                   RunAtLoad=True)
        self.assertEqual(self.shown("alice").splitlines(), [
            "alice", "staff admin", "HOME=/Users/alice", "LOGNAME=alice",
            "PATH=/usr/bin:/bin:/usr/sbin:/sbin", "SHELL=/bin/sh", "TMPDIR=/var/folders/501/T/",
            "USER=alice", "XDG_SESSION_ID=100002", "XDG_SESSION_TYPE=x11", "XPC_FLAGS=0x0",
            "XPC_SERVICE_NAME=j"])

    def test_agent_at_the_login_window_is_root_with_the_display(self):
        self.agent("j", *shell(f"(id -un; echo $XDG_SESSION_TYPE; echo $HOME) > {SHOW}"),
                   RunAtLoad=True, LimitLoadToSessionType="LoginWindow")
        self.assertEqual(self.shown(), "root\nx11\n/var/root")

    def test_temporary_folder_is_the_users(self):
        self.mac.boot("alice")
        info = self.mac.stat("/var/folders/501/T")
        self.assertEqual((info["st_uid"], info["st_mode"] & 0o777), (501, 0o700))

    def test_daemon_can_name_another_user(self):
        self.mac.write(SHOW, "", 0o666)
        self.daemon("j", *shell(f"id -un > {SHOW}"), RunAtLoad=True, UserName="bob")
        self.assertEqual(self.shown(), "bob")

    def test_program_starts_in_its_own_session_with_256_files(self):
        self.daemon("j", *shell(f"(ps -o pid=,sid= -p $$ | tr -s ' '; ulimit -n) > {SHOW}"),
                    RunAtLoad=True)
        pid, sid, files = self.shown().split()
        self.assertEqual((pid, files), (sid, "256"))

    def test_keys_for_folder_files_variables_and_umask(self):
        self.daemon("j", *shell("cat; pwd; echo $A; umask"), RunAtLoad=True,
                    StandardInPath="/etc/hosts", StandardOutPath=SHOW, WorkingDirectory="/Users",
                    EnvironmentVariables={"A": "b"}, Umask=0o077)
        self.assertEqual(self.shown().splitlines()[-3:], ["/Users", "b", "0077"])

    def test_output_goes_to_the_system_log(self):
        self.daemon("j", *shell("echo out; echo err >&2"), RunAtLoad=True)
        self.mac.boot()
        self.mac.wait_for("process-exited", label="j")
        self.assertEqual(self.mac.read_text("/var/log/system.log"), "out\nerr\n")

    def test_no_descriptor_is_inherited(self):
        self.daemon("j", *shell(f"ls /proc/self/fd > {SHOW}"), RunAtLoad=True)
        self.assertEqual(self.shown().split(), ["0", "1", "2", "3"])  # 3 is ls' own

    def test_arguments_arrive_byte_by_byte(self):
        self.daemon("j", *shell(f'printf "%s|" "$@" > {SHOW}'), "x", "", "a b", "ä\n'\"",
                    RunAtLoad=True)
        self.assertEqual(self.shown(), "|a b|ä\n'\"|")


class Life(MacCase):
    options = {"throttle_s": 0.05, "exit_timeout_s": 0.3}

    def starts(self, label="j"):
        return len(self.mac.find("process-started", label=label))

    def kill(self, label="j", domain="system"):
        pid = self.mac.job(label, domain)["pid"]
        self.mac.ask("kill", pid=pid, signal=9)
        return self.mac.wait_for("process-exited", label=label, pid=pid)

    def test_job_that_asks_for_nothing_is_loaded_and_not_started(self):
        self.daemon("j")
        self.mac.boot()
        self.assertIsNone(self.mac.job("j")["pid"])

    def test_run_at_load_starts_once(self):
        self.daemon("j", "/bin/sh", "-c", "exit 3", RunAtLoad=True)
        self.mac.boot()
        self.mac.wait_for("process-exited", label="j", status=3)
        self.assertEqual((self.mac.job("j")["pid"], self.mac.job("j")["status"]), (None, 3))
        self.assertEqual(self.mac.find("job-throttled"), [])

    def test_kept_job_starts_without_run_at_load(self):
        for label, keys in (("k", {"KeepAlive": True}), ("o", {"OnDemand": False})):
            self.daemon(label, **keys)
        self.mac.boot()
        self.assertIsNotNone(self.mac.job("k")["pid"])
        self.assertIsNotNone(self.mac.job("o")["pid"])

    def test_killed_job_comes_back_when_it_is_kept(self):
        for label, keys in (("k", {"KeepAlive": True}), ("o", {"OnDemand": False})):
            with self.subTest(label):
                path = self.daemon(label, **keys)
                if not self.mac.find("boot"):
                    self.mac.boot()
                else:
                    self.launchctl("load", path)
                mark = self.mac.mark()
                self.kill(label)
                self.mac.wait_for("process-started", label=label, since=mark)

    def test_killed_job_stays_away_when_it_is_not_kept(self):
        self.daemon("j", RunAtLoad=True)
        self.mac.boot()
        self.kill()
        self.assertIsNone(self.mac.job("j")["pid"])

    def test_successful_exit_false_restarts_after_failure_only(self):
        self.daemon("bad", "/bin/sh", "-c", "exit 1", KeepAlive={"SuccessfulExit": False})
        self.daemon("good", "/bin/sh", "-c", "exit 0", KeepAlive={"SuccessfulExit": False})
        self.mac.boot()
        self.mac.wait_until(lambda: self.starts("bad") >= 3)
        self.assertEqual(self.starts("good"), 1)

    def test_crashed_restarts_after_signals_only(self):
        self.daemon("bad", "/bin/sh", "-c", "kill -9 $$", RunAtLoad=True,
                    KeepAlive={"Crashed": True})
        self.daemon("good", "/bin/sh", "-c", "exit 1", RunAtLoad=True, KeepAlive={"Crashed": True})
        self.mac.boot()
        self.mac.wait_until(lambda: self.starts("bad") >= 3)
        self.assertEqual(self.starts("good"), 1)

    def test_quick_death_is_throttled(self):
        self.daemon("j", "/bin/sh", "-c", "exit 0", KeepAlive=True)
        self.mac.boot()
        self.mac.wait_until(lambda: self.starts() >= 4)
        times = [event["t"] for event in self.mac.find("process-started", label="j")]
        for before, after in zip(times, times[1:]):
            self.assertGreaterEqual(after - before, 0.05)

    def test_throttle_interval_scales(self):
        self.daemon("j", "/bin/sh", "-c", "exit 0", KeepAlive=True, ThrottleInterval=20000)
        self.mac.boot()
        delay = self.mac.wait_for("job-throttled", label="j")["delay_s"]
        self.assertTrue(50 < delay <= 100, delay)

    def test_long_lived_job_comes_back_at_once(self):
        self.daemon("j", KeepAlive=True)
        self.mac.boot()
        started = self.mac.wait_for("process-started", label="j")["t"]
        self.mac.wait_until(lambda: time.monotonic() > started + 0.06)
        mark = self.mac.mark()
        self.kill()
        self.mac.wait_for("process-started", label="j", since=mark)
        self.assertEqual(self.mac.find("job-throttled"), [])

    def test_program_that_is_missing_fails_and_is_tried_again(self):
        self.daemon("j", "/no/such/program", KeepAlive=True)
        self.mac.boot()
        self.mac.wait_until(lambda: len(self.mac.find("process-failed", label="j")) >= 2)
        self.assertEqual(self.mac.find("process-failed")[0]["reason"],
                         "/no/such/program: No such file or directory")
        self.assertEqual(self.mac.job("j")["status"], 78)

    def test_program_that_appears_later_is_started(self):
        self.daemon("j", "/Users/late", KeepAlive=True)
        self.mac.boot()
        self.mac.wait_for("process-failed", label="j")
        self.mac.write("/Users/late", "#!/bin/sh\nexec sleep 1000\n", 0o755)
        self.mac.wait_for("process-started", label="j")

    def test_program_without_right_to_run_fails(self):
        self.mac.write("/Users/plain", "", 0o644)
        self.daemon("j", "/Users/plain", RunAtLoad=True)
        self.mac.boot()
        self.assertIn("Permission denied", self.mac.wait_for("process-failed")["reason"])

    def test_unknown_user_fails(self):
        self.daemon("j", RunAtLoad=True, UserName="nemo")
        self.mac.boot()
        self.assertIn("no such user", self.mac.wait_for("process-failed")["reason"])

    def test_disabled_job_is_not_loaded(self):
        self.daemon("j", RunAtLoad=True, Disabled=True)
        self.mac.boot()
        self.assertEqual(self.refusal("j"), "disabled")

    def test_unload_ends_the_process_for_good(self):
        path = self.daemon("j", KeepAlive=True)
        self.mac.boot()
        self.launchctl("unload", path)
        self.assertEqual(self.mac.wait_for("process-exited", label="j")["status"], -15)
        self.mac.wait_for("job-unloaded", label="j")
        self.assertIsNone(self.mac.job("j"))
        self.assertEqual(self.starts(), 1)

    def test_stubborn_process_is_killed_when_its_time_is_over(self):
        path = self.daemon("j", *shell(STUBBORN), RunAtLoad=True)
        self.mac.boot()
        self.mac.wait_until(lambda: b"up" in self.mac.read("/var/log/system.log"))
        self.launchctl("unload", path)
        self.assertEqual(self.mac.wait_for("process-exited", label="j")["status"], -9)
        self.assertEqual(len(self.mac.find("process-killed", label="j")), 1)

    def test_exit_timeout_of_0_never_kills(self):
        path = self.daemon("j", "/bin/sh", "-c",
                           "trap '' TERM; echo up; while [ ! -e /tmp/go ]; do sleep 0.01; done",
                           RunAtLoad=True, ExitTimeOut=0)
        self.mac.boot()
        self.mac.wait_until(lambda: b"up" in self.mac.read("/var/log/system.log"))
        self.launchctl("unload", path)
        self.mac.sh("sleep 0.4; touch /tmp/go")
        self.assertEqual(self.mac.wait_for("process-exited", label="j")["status"], 0)

    def test_stopped_job_that_obeys_is_not_killed_later(self):
        self.daemon("j", RunAtLoad=True)
        self.mac.boot()
        self.launchctl("stop", "j")
        self.mac.wait_for("process-exited", label="j")
        self.mac.sh("sleep 0.4")
        self.assertEqual(self.mac.find("process-killed"), [])

    def test_second_unload_does_not_give_more_time(self):
        path = self.daemon("j", *shell(STUBBORN), RunAtLoad=True)
        self.mac.boot()
        self.mac.wait_until(lambda: b"up" in self.mac.read("/var/log/system.log"))
        self.launchctl("unload", path)
        self.launchctl("unload", path)
        self.mac.wait_for("job-unloaded", label="j")
        self.assertEqual(len(self.mac.find("process-killed")), 1)

    def test_throttled_job_can_be_unloaded(self):
        path = self.daemon("j", "/bin/sh", "-c", "exit 0", KeepAlive=True, ThrottleInterval=4000)
        self.mac.boot()
        self.mac.wait_for("job-throttled", label="j")
        self.launchctl("unload", path)
        self.mac.wait_for("job-unloaded", label="j")

    def test_rest_of_the_process_group_dies_with_the_job(self):
        self.daemon("j", "/bin/sh", "-c", "sleep 4711 & sleep 0.05; exit 0", RunAtLoad=True)
        self.mac.boot()
        self.mac.wait_for("process-exited", label="j")
        self.mac.wait_until(lambda: self.mac.run(["pgrep", "-f", "4711"]).status == 1)

    def test_process_in_a_session_of_its_own_outlives_the_job(self):
        self.daemon("j", "/bin/sh", "-c", "setsid sleep 4711 & sleep 0.05; exit 0", RunAtLoad=True)
        self.mac.boot()
        self.mac.wait_for("process-exited", label="j")
        self.assertEqual(self.mac.run(["pgrep", "-f", "sleep 4711"]).status, 0)

    def test_group_is_left_alone_on_request(self):
        self.daemon("j", "/bin/sh", "-c", "sleep 4711 & sleep 0.05; exit 0", RunAtLoad=True,
                    AbandonProcessGroup=True)
        self.mac.boot()
        self.mac.wait_for("process-exited", label="j")
        self.assertEqual(self.mac.run(["pgrep", "-f", "sleep 4711"]).status, 0)


class LongExitTimeout(MacCase):
    options = {"exit_timeout_s": 20}

    def test_shorter_one_of_a_job_scales(self):
        path = self.daemon("j", *shell(STUBBORN), RunAtLoad=True, ExitTimeOut=1)
        self.mac.boot()
        self.mac.wait_until(lambda: b"up" in self.mac.read("/var/log/system.log"))
        self.launchctl("unload", path)
        called = self.mac.wait_for("launchctl")["t"]
        self.assertGreaterEqual(self.mac.wait_for("process-killed")["t"] - called, 0.9)


class OlderRelease(MacCase):
    release = "10.9.5"

    def test_failed_start_leaves_status_1(self):
        self.daemon("j", "/no/such/program", RunAtLoad=True)
        self.mac.boot()
        self.assertEqual(self.mac.job("j")["status"], 1)


if __name__ == "__main__":
    root_case.main()
