#!/usr/bin/python3
"""Booting, the login window, log-ins, switching between users, log-outs, restarts."""

import root_case
from launchd import loginrecords
from macroot_api import MacFailure
from root_case import CLIENT, MacCase

BOTH = ["Aqua", "LoginWindow"]


class Sessions(MacCase):
    def console(self):
        """Who owns the console, and the console log-ins as the records tell them."""
        data = self.mac.read("/var/run/utmp")
        logins = [(fields[1], fields[4].rstrip(b"\0").decode())
                  for fields in loginrecords.RECORD.iter_unpack(data)
                  if fields[0] == loginrecords.USER_PROCESS
                  and fields[2].strip(b"\0") == loginrecords.CONSOLE]
        return self.mac.stat("/dev/console")["st_uid"], logins

    def running(self, label):
        """Where the job runs: domain to user id."""
        return {domain: self.mac.find("process-started", label=label, domain=domain)[-1]["uid"]
                for domain, jobs in self.mac.state()["domains"].items()
                if jobs.get(label, {}).get("pid")}


class LoginWindow(Sessions):
    def test_nobody_is_logged_in_after_boot(self):
        self.mac.boot()
        self.assertEqual(self.console(), (0, []))
        self.assertTrue(self.mac.state()["login_window"])

    def test_agents_for_it_run_as_root(self):
        self.agent("both", RunAtLoad=True, LimitLoadToSessionType=BOTH)
        self.agent("window", RunAtLoad=True, LimitLoadToSessionType="LoginWindow")
        self.agent("aqua", RunAtLoad=True)
        self.mac.boot()
        self.assertEqual(self.running("both"), {"loginwindow": 0})
        self.assertEqual(self.running("window"), {"loginwindow": 0})
        self.assertEqual(self.running("aqua"), {})

    def test_its_agents_end_before_the_users_start(self):
        self.agent("both", KeepAlive=True, RunAtLoad=True, LimitLoadToSessionType=BOTH)
        self.mac.boot("alice")
        self.assertEqual(self.running("both"), {"gui/501": 501})
        kinds = [(event["event"], event["domain"]) for event in self.mac.events
                 if event.get("label") == "both" and event["event"].startswith("process")]
        self.assertEqual(kinds, [("process-started", "loginwindow"),
                                 ("process-exited", "loginwindow"), ("process-started", "gui/501")])


class LogIn(Sessions):
    def test_login_is_a_record_and_owns_the_console(self):
        self.mac.boot()
        session = self.mac.login("alice")
        self.assertEqual(self.console(), (501, [(session["pid"], "alice")]))

    def test_process_of_the_record_lives(self):
        self.mac.boot()
        pid = self.mac.login("alice")["pid"]
        self.assertIn("loginwindow console", self.mac.sh(f"ps -o args= -p {pid}"))

    def test_c_library_reads_the_record(self):
        self.mac.boot("alice")
        self.assertRegex(self.mac.sh("who"), r"^alice\s+console\s")

    def test_agents_start_in_the_session(self):
        self.agent("a", RunAtLoad=True)
        self.agent("w", RunAtLoad=True, LimitLoadToSessionType="LoginWindow")
        self.agent("b", RunAtLoad=True, LimitLoadToSessionType="Background")
        self.mac.boot("alice")
        self.assertEqual(self.running("a"), {"gui/501": 501})
        self.assertEqual(self.running("w"), {})
        self.assertEqual(self.running("b"), {"user/501": 501})

    def test_second_user_logs_in_beside_the_first(self):
        self.agent("a", RunAtLoad=True)
        self.mac.boot()
        alice, bob = self.mac.login("alice")["pid"], self.mac.login("bob")["pid"]
        self.assertEqual(self.console(), (502, [(alice, "alice"), (bob, "bob")]))
        self.assertEqual(self.running("a"), {"gui/501": 501, "gui/502": 502})

    def test_same_user_cannot_log_in_twice(self):
        self.mac.boot("alice")
        with self.assertRaisesRegex(MacFailure, "twice"):
            self.mac.login("alice")

    def test_strangers_and_root_cannot_log_in(self):
        self.mac.boot()
        for name in ("nemo", "root"):
            with self.assertRaises(MacFailure):
                self.mac.login(name)

    def test_nobody_logs_in_while_the_mac_is_down(self):
        with self.assertRaisesRegex(MacFailure, "down"):
            self.mac.login("alice")

    def test_switching_moves_the_console_alone(self):
        self.agent("a", RunAtLoad=True)
        self.mac.boot("alice")
        self.mac.login("bob")
        before = self.console()[1]
        self.mac.switch("alice")
        self.assertEqual(self.console(), (501, before))
        self.assertEqual(self.running("a"), {"gui/501": 501, "gui/502": 502})

    def test_switching_to_the_login_window_and_back(self):
        self.agent("w", RunAtLoad=True, LimitLoadToSessionType="LoginWindow")
        self.mac.boot("alice")
        self.mac.switch(None)
        self.assertEqual(self.console()[0], 0)
        self.assertEqual(self.running("w"), {"loginwindow": 0})
        self.mac.switch("alice")
        self.assertEqual(self.console()[0], 501)
        self.assertEqual(self.running("w"), {})

    def test_command_in_a_session_is_recognised_by_its_children_too(self):
        self.mac.boot("alice")
        shown = self.mac.sh("setsid sh -c '/bin/launchctl managername'; echo $XDG_SESSION_TYPE",
                            user="alice", session="alice")
        self.assertEqual(shown, "Aqua\nx11")

    def test_display_outlives_sudo(self):
        self.mac.boot("alice")
        self.assertEqual(self.mac.sh("sudo -u bob sh -c 'id -un; echo $XDG_SESSION_TYPE'",
                                     session="alice"), "bob\nx11")

    def test_command_outside_of_sessions_has_no_display(self):
        self.mac.boot("alice")
        self.assertEqual(self.mac.sh("env", user="alice").count("XDG_"), 0)


class LogOut(Sessions):
    def test_record_and_console_are_given_back(self):
        self.mac.boot("alice")
        self.mac.logout("alice")
        self.assertEqual(self.console(), (0, []))
        self.assertTrue(self.mac.state()["login_window"])

    def test_everything_of_the_session_ends(self):
        self.agent("a", KeepAlive=True)
        self.mac.boot("alice")
        self.mac.start(["/bin/sleep", "4711"], user="alice", session="alice")
        self.mac.start(["/bin/sh", "-c", "trap '' TERM; while :; do sleep 0.01; done"],
                       user="root", session="alice")
        self.mac.start(["/bin/sleep", "4712"], user="alice")
        self.mac.logout("alice")
        self.assertEqual(self.mac.sh("pgrep -u alice -a sleep | cut -d' ' -f2-"), "/bin/sleep 4712")
        self.assertNotIn("gui/501", self.mac.state()["domains"])

    def test_other_user_stays_logged_in(self):
        self.agent("a", RunAtLoad=True)
        self.mac.boot()
        alice = self.mac.login("alice")["pid"]
        self.mac.login("bob")
        self.mac.logout("bob")
        self.assertEqual(self.console(), (0, [(alice, "alice")]))
        self.assertEqual(self.running("a"), {"gui/501": 501})

    def test_logout_in_the_background_leaves_the_screen(self):
        self.mac.boot("alice")
        self.mac.login("bob")
        self.mac.logout("alice")
        self.assertEqual(self.console()[0], 502)
        self.assertFalse(self.mac.state()["login_window"])

    def test_user_can_log_in_again(self):
        self.mac.boot("alice")
        self.mac.logout("alice")
        session = self.mac.login("alice")
        self.assertEqual(self.console(), (501, [(session["pid"], "alice")]))


class Restart(Sessions):
    def test_all_processes_end(self):
        self.daemon("d", RunAtLoad=True)
        self.mac.boot("alice")
        self.mac.start(["/bin/sleep", "4711"])
        self.mac.sh("setsid sh -c 'sleep 4712 &' </dev/null >/dev/null 2>&1")
        pid = self.mac.job("d")["pid"]
        self.mac.restart()
        self.assertEqual(self.mac.sh("pgrep -a sleep | cut -d' ' -f2-"), "/bin/sleep 1000")
        self.assertNotEqual(self.mac.job("d")["pid"], pid)

    def test_temporary_files_go_and_others_stay(self):
        self.mac.boot()
        self.mac.sh("mkdir -p /tmp/a/b; touch /tmp/a/b/c /tmp/x /var/run/y /var/tmp/z /Users/z; "
                    "ln -s /Users /tmp/link")
        self.mac.restart()
        for path, there in (("/tmp/a", False), ("/tmp/x", False), ("/tmp/link", False),
                            ("/var/run/y", False), ("/var/tmp/z", True), ("/Users/z", True)):
            with self.subTest(path):
                self.assertEqual(self.mac.exists(path), there)
        self.assertEqual(self.mac.stat("/tmp/")["st_mode"] & 0o7777, 0o1777)

    def test_log_ins_are_gone_and_one_may_follow(self):
        self.mac.boot("alice")
        self.mac.login("bob")
        self.mac.restart()
        self.assertEqual(self.console(), (0, []))
        self.mac.restart(login="bob")
        self.assertEqual([name for _, name in self.console()[1]], ["bob"])

    def test_jobs_come_back_by_their_files_alone(self):
        self.daemon("d", RunAtLoad=True)
        self.mac.boot()
        self.mac.write("/Library/other.plist", root_case.job("other", RunAtLoad=True))
        self.launchctl("load", "/Library/other.plist")
        self.mac.restart()
        self.assertEqual(list(self.mac.state()["domains"]["system"]), ["d"])

    def test_jobs_get_their_time_to_end(self):
        self.daemon("d", "/bin/sh", "-c",
                    "trap 'echo ended; exit' TERM; echo up; while :; do sleep 0.01; done",
                    RunAtLoad=True)
        self.mac.boot()
        log = lambda: self.mac.read_text("/var/log/system.log")
        self.mac.wait_until(lambda: "up" in log())
        self.mac.restart()
        self.assertIn("ended", log())

    def test_power_failure_gives_no_time(self):
        self.daemon("d", "/bin/sh", "-c",
                    "trap 'echo ended; exit' TERM; echo up; while :; do sleep 0.01; done",
                    RunAtLoad=True)
        self.mac.boot()
        log = lambda: self.mac.read_text("/var/log/system.log")
        self.mac.wait_until(lambda: "up" in log())
        self.mac.restart(hard=True)
        self.assertNotIn("ended", log())

    def test_twice_in_a_row(self):
        self.agent("a", CLIENT, RunAtLoad=True, LimitLoadToSessionType=BOTH)
        self.mac.boot("alice")
        for _ in range(2):
            mark = self.mac.mark()
            self.mac.restart(login="alice")
            self.mac.wait_for("client", uid=501, since=mark)
        self.assertEqual(self.running("a"), {"gui/501": 501})

    def test_timeline_tells_the_story(self):
        self.mac.boot("alice")
        self.mac.restart()
        kinds = [event["event"] for event in self.mac.events]
        self.assertEqual(kinds, ["boot", "login-window", "login", "restart", "boot",
                                 "login-window"])
        times = [event["t"] for event in self.mac.events]
        self.assertEqual(times, sorted(times))


class RestartWithBind(MacCase):
    options = {"binds": [f"{root_case.SOURCE}:/tmp/deep/kept"]}

    def test_what_is_mounted_below_tmp_survives(self):
        self.mac.boot()
        self.mac.sh("touch /tmp/deep/mine /tmp/mine")
        self.mac.restart()
        self.assertEqual(self.mac.file("listdir", "/tmp/deep"), ["kept"])
        self.assertTrue(self.mac.exists("/tmp/deep/kept/CMakeLists.txt"))
        self.assertFalse(self.mac.exists("/tmp/mine"))


if __name__ == "__main__":
    root_case.main()
