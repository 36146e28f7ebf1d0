#!/usr/bin/python3
"""/bin/launchctl: verbs, rights, statuses, the record of each call."""

import os

import root_case
from root_case import CLIENT, MacCase

BOTH = ["Aqua", "LoginWindow"]


class Load(MacCase):
    def test_load_starts_and_unload_ends(self):
        path = self.daemon("d", RunAtLoad=True)
        self.mac.file("rename", path, "/Library/d.plist")
        self.mac.boot()
        self.assertIsNone(self.mac.job("d"))
        self.assertEqual(self.launchctl("load", "/Library/d.plist").status, 0)
        self.assertIsNotNone(self.mac.job("d")["pid"])
        self.assertEqual(self.launchctl("unload", "/Library/d.plist").status, 0)
        self.mac.wait_for("job-unloaded", label="d")

    def test_folder_loads_what_is_in_it(self):
        self.mac.boot()
        self.daemon("a")
        self.daemon("b")
        self.launchctl("load", "/Library/LaunchDaemons")
        self.assertEqual(sorted(self.mac.state()["domains"]["system"]), ["a", "b"])

    def test_relative_path_is_the_callers(self):
        self.mac.boot()
        self.daemon("a")
        self.launchctl("load", "a.plist", cwd="/Library/LaunchDaemons")
        self.assertIsNotNone(self.mac.job("a"))

    def test_failures_are_told_and_the_status_stays_0(self):
        self.mac.boot()
        path = self.daemon("d", mode=0o666)
        for words, text in ((["load", "/none.plist"], "No such file"),
                            (["unload", "/none.plist"], "No such file"),
                            (["load", path], "bad mode")):
            with self.subTest(words):
                done = self.launchctl(*words)
                self.assertEqual(done.status, 0)
                self.assertIn(text, done.error_text)
                self.assertIn("reason", self.mac.find("launchctl")[-1]["refused"][0])

    def test_second_load_is_refused_and_the_job_goes_on(self):
        path = self.daemon("d", RunAtLoad=True)
        self.mac.boot()
        pid = self.mac.job("d")["pid"]
        self.assertIn("already loaded", self.launchctl("load", path).error_text)
        self.assertEqual(self.mac.job("d")["pid"], pid)

    def test_unload_of_what_is_not_loaded_is_told(self):
        path = self.daemon("d", Disabled=True)
        self.mac.boot()
        self.assertIn("no such job", self.launchctl("unload", path).error_text)

    def test_unload_of_a_deleted_file_leaves_the_job(self):
        path = self.daemon("d", RunAtLoad=True)
        self.mac.boot()
        self.mac.file("unlink", path)
        self.launchctl("unload", "-w", path)
        self.assertIsNotNone(self.mac.job("d")["pid"])

    def test_wrong_use_ends_with_the_usage_status(self):
        self.mac.boot()
        for words in (["load"], ["load", "-w"], ["load", "-x", "/p"], ["load", "-S"],
                      ["load", "-S", "Water", "/p"], ["unload"], ["remove"], ["remove", "a", "b"],
                      ["bootstrap", "system"], ["bootout"], ["bsexec", "1"], ["bsexec", "x", "y"],
                      ["list", "a", "b"], ["what"], []):
            with self.subTest(words):
                self.assertEqual(self.launchctl(*words).status, 64)

    def test_agent_limited_to_sessions_is_not_for_the_system(self):
        self.mac.boot()
        path = self.agent("a", LimitLoadToSessionType=BOTH)
        self.assertIn("not for System", self.launchctl("load", path).error_text)

    def test_session_option_filters(self):
        self.mac.boot("alice")
        path = self.agent("a", LimitLoadToSessionType="LoginWindow")
        done = self.launchctl("load", "-S", "Aqua", path, user="alice", session="alice")
        self.assertIn("not for Aqua", done.error_text)

    def test_domain_option_is_read_and_passed_over(self):
        self.mac.boot()
        path = self.daemon("d")
        self.launchctl("load", "-D", "local", path)
        self.assertIsNotNone(self.mac.job("d"))


class Overrides(MacCase):
    def test_unload_w_outlives_a_restart(self):
        path = self.daemon("d", RunAtLoad=True)
        self.mac.boot()
        self.launchctl("unload", "-w", path)
        self.mac.restart()
        self.assertEqual(self.refusal("d"), "disabled")
        self.assertIsNone(self.mac.job("d"))

    def test_load_w_takes_the_mark_away(self):
        path = self.daemon("d", RunAtLoad=True)
        self.mac.boot()
        self.launchctl("unload", "-w", path)
        self.mac.wait_for("job-unloaded", label="d")
        self.assertIn("disabled", self.launchctl("load", path).error_text)
        self.launchctl("load", "-w", path)
        self.assertIsNotNone(self.mac.job("d")["pid"])
        self.mac.restart()
        self.assertIsNotNone(self.mac.job("d")["pid"])

    def test_load_w_wins_over_disabled_in_the_file(self):
        path = self.daemon("d", Disabled=True)
        self.mac.boot()
        self.launchctl("load", "-w", path)
        self.mac.restart()
        self.assertIsNotNone(self.mac.job("d"))

    def test_force_loads_without_a_mark(self):
        path = self.daemon("d", Disabled=True)
        self.mac.boot()
        self.launchctl("load", "-F", path)
        self.assertIsNotNone(self.mac.job("d"))
        self.mac.restart()
        self.assertIsNone(self.mac.job("d"))

    def test_plain_unload_leaves_no_mark(self):
        path = self.daemon("d", RunAtLoad=True)
        self.mac.boot()
        self.launchctl("unload", path)
        self.mac.restart()
        self.assertIsNotNone(self.mac.job("d")["pid"])

    def test_users_have_marks_of_their_own(self):
        path = self.agent("a")
        self.mac.boot("alice")
        self.launchctl("unload", "-w", path, user="alice", session="alice")
        self.mac.wait_for("job-unloaded", label="a")
        self.mac.restart()
        self.mac.login("alice")
        self.mac.login("bob")
        self.assertIsNone(self.mac.job("a", "gui/501"))
        self.assertIsNotNone(self.mac.job("a", "gui/502"))

    def test_disable_enable_and_print_disabled(self):
        self.daemon("d")
        self.mac.boot()
        self.launchctl("disable", "system/d")
        self.assertIn('"d" => true', self.launchctl("print-disabled", "system").text)
        self.launchctl("enable", "system/d")
        self.assertIn('"d" => false', self.launchctl("print-disabled", "system").text)


class Bootstrap(MacCase):
    def setUp(self):
        super().setUp()
        self.mac.boot("alice")
        self.path = self.agent("a", RunAtLoad=True, LimitLoadToSessionType=BOTH)

    def test_root_starts_an_agent_in_a_users_session(self):
        self.assertEqual(self.launchctl("bootstrap", "gui/501", self.path).status, 0)
        started = self.mac.wait_for("process-started", label="a")
        self.assertEqual((started["uid"], started["domain"]), (501, "gui/501"))

    def test_line_end_after_the_user_id_is_no_part_of_it(self):
        self.assertEqual(self.launchctl("bootstrap", "gui/501\n", self.path).status, 0)
        self.assertIsNotNone(self.mac.job("a", "gui/501"))
        self.assertEqual(self.launchctl("bootout", "gui/501\n", self.path).status, 0)
        self.assertIsNone(self.mac.job("a", "gui/501"))
        self.assertEqual(self.mac.launchctl_calls(), [
            ["bootstrap", "gui/501\n", self.path], ["bootout", "gui/501\n", self.path]])

    def test_targets_that_are_no_domain_are_refused(self):
        for target in ("gui/", "gui/\n", "gui/alice", "gui/501x", "gui/-1", "gui", "501", "",
                       "sys"):
            with self.subTest(target):
                self.assertEqual(self.launchctl("bootstrap", target, self.path).status, 64)

    def test_user_who_is_not_logged_in_has_no_session(self):
        for target in ("gui/502", "gui/0", "loginwindow"):
            with self.subTest(target):
                self.assertEqual(self.launchctl("bootstrap", target, self.path).status, 125)

    def test_second_bootstrap_is_refused(self):
        self.launchctl("bootstrap", "gui/501", self.path)
        self.assertEqual(self.launchctl("bootstrap", "gui/501", self.path).status, 37)

    def test_label_may_be_in_several_domains(self):
        self.mac.login("bob")
        self.launchctl("bootstrap", "gui/501", self.path)
        self.assertIsNotNone(self.mac.job("a", "gui/501"))
        self.assertIsNotNone(self.mac.job("a", "gui/502"))

    def test_job_for_other_sessions_is_refused(self):
        path = self.agent("w", LimitLoadToSessionType="LoginWindow")
        self.assertEqual(self.launchctl("bootstrap", "gui/501", path).status, 134)

    def test_bad_files_are_refused(self):
        self.mac.file("chmod", self.path, 0o666)
        self.assertEqual(self.launchctl("bootstrap", "gui/501", self.path).status, 122)
        self.assertEqual(self.launchctl("bootstrap", "gui/501", "/none").status, 2)
        self.mac.write("/bad.plist", "text")
        self.assertEqual(self.launchctl("bootstrap", "gui/501", "/bad.plist").status, 109)

    def test_disabled_job_is_refused(self):
        self.launchctl("disable", "gui/501/a")
        self.assertEqual(self.launchctl("bootstrap", "gui/501", self.path).status, 119)

    def test_bootout_waits_until_the_process_is_gone(self):
        self.launchctl("bootstrap", "gui/501", self.path)
        pid = self.mac.job("a", "gui/501")["pid"]
        self.assertEqual(self.launchctl("bootout", "gui/501/a").status, 0)
        self.assertFalse(self.mac.exists(f"/proc/{pid}"))

    def test_bootout_of_what_is_not_there(self):
        self.assertEqual(self.launchctl("bootout", "gui/501", self.path).status, 3)
        self.assertEqual(self.launchctl("bootout", "gui/501/a").status, 3)
        self.assertEqual(self.launchctl("bootout", "gui/501", "/none").status, 2)

    def test_user_may_only_use_the_own_domains(self):
        self.mac.login("bob")
        for target in ("system", "gui/501"):
            with self.subTest(target):
                self.assertEqual(
                    self.launchctl("bootstrap", target, self.path, user="bob").status, 1)
        self.launchctl("bootout", "gui/502/a", user="bob")
        self.assertEqual(self.launchctl("bootstrap", "gui/502", self.path, user="bob").status, 0)


class NewestRelease(MacCase):
    release = "14.5"

    def test_most_failures_are_an_input_output_error(self):
        self.mac.boot("alice")
        path = self.agent("a")
        self.launchctl("bootstrap", "gui/501", path)
        done = self.launchctl("bootstrap", "gui/501", path)
        self.assertEqual(done.status, 5)
        self.assertIn("Bootstrap failed: 5", done.error_text)
        self.assertEqual(self.mac.find("launchctl")[-1]["refused"][0]["reason"], "already loaded")


class Contexts(MacCase):
    release = "10.10.5"

    def setUp(self):
        super().setUp()
        self.mac.boot()
        self.session = self.mac.login("alice")
        self.path = self.agent("a", CLIENT, "--x", RunAtLoad=True, LimitLoadToSessionType=BOTH)

    def test_bsexec_and_sudo_load_into_the_users_session(self):
        self.launchctl("bsexec", str(self.session["pid"]), "/usr/bin/sudo", "-u", "alice",
                       "/bin/launchctl", "load", self.path)
        record = self.mac.wait_for("client")["record"]
        self.assertEqual((record["uid"], record["user"], record["session"]),
                         (501, "alice", str(self.session["session"])))
        self.assertIsNotNone(self.mac.job("a", "gui/501"))

    def test_both_calls_are_recorded_word_by_word(self):
        words = ["bsexec", str(self.session["pid"]), "/usr/bin/sudo", "-u", "alice",
                 "/bin/launchctl", "load", self.path]
        self.launchctl(*words)
        self.assertEqual(self.mac.launchctl_calls(), [words, ["load", self.path]])
        self.assertEqual([call["uid"] for call in self.mac.find("launchctl")], [0, 501])

    def test_sudo_alone_does_not_reach_the_session(self):
        done = self.mac.run(["/usr/bin/sudo", "-u", "alice", "/bin/launchctl", "load", self.path])
        self.assertIn("not for Background", done.error_text)
        self.assertIsNone(self.mac.job("a", "gui/501"))

    def test_session_of_one_user_does_not_help_another(self):
        self.mac.login("bob")
        self.launchctl("unload", self.path, user="bob", session="bob")
        done = self.launchctl("bsexec", str(self.session["pid"]), "/usr/bin/sudo", "-u", "bob",
                              "/bin/launchctl", "load", self.path)
        self.assertIn("not for Background", done.error_text)

    def test_status_is_the_commands(self):
        done = self.launchctl("bsexec", "1", "/bin/sh", "-c", "exit 9")
        self.assertEqual(done.status, 9)

    def test_command_of_the_path_is_found_and_a_missing_one_fails(self):
        self.assertEqual(self.launchctl("bsexec", "1", "true").status, 0)
        self.assertEqual(self.launchctl("bsexec", "1", "/no/such").status, 1)

    def test_process_must_exist(self):
        self.assertEqual(self.launchctl("bsexec", "99999", "true").status, 3)

    def test_only_root_may(self):
        self.assertEqual(self.launchctl("bsexec", "1", "true", user="alice").status, 1)

    def test_load_in_the_own_session_needs_no_bsexec(self):
        self.launchctl("load", self.path, user="alice", session="alice")
        self.assertIsNotNone(self.mac.job("a", "gui/501"))

    def test_manager_tells_where_the_caller_is(self):
        for options, shown in (({}, "System"), ({"user": "alice"}, "Background"),
                               ({"user": "alice", "session": "alice"}, "Aqua")):
            self.assertEqual(self.launchctl("managername", **options).text, shown + "\n")

    def test_bootstrap_is_there_already(self):
        self.assertEqual(self.launchctl("bootstrap", "gui/501", self.path).status, 0)


class Others(MacCase):
    def test_remove_takes_the_label_not_the_path(self):
        path = self.daemon("d", RunAtLoad=True)
        self.mac.boot()
        self.assertEqual(self.launchctl("remove", path).status, 113)
        self.assertEqual(self.launchctl("remove", "d").status, 0)
        self.mac.wait_for("job-unloaded", label="d")

    def test_list_shows_pid_status_and_label(self):
        self.daemon("r", RunAtLoad=True)
        self.daemon("s")
        self.mac.boot()
        pid = self.mac.job("r")["pid"]
        self.assertEqual(self.launchctl("list").text, f"PID\tStatus\tLabel\n{pid}\t0\tr\n-\t0\ts\n")

    def test_list_of_one_label(self):
        self.daemon("r", RunAtLoad=True)
        self.mac.boot()
        self.assertIn('"Label" = "r";', self.launchctl("list", "r").text)
        self.assertEqual(self.launchctl("list", "none").status, 113)

    def test_start_and_stop(self):
        self.daemon("d")
        self.mac.boot()
        self.launchctl("start", "d")
        self.assertIsNotNone(self.mac.job("d")["pid"])
        self.launchctl("stop", "d")
        self.mac.wait_for("process-exited", label="d", status=-15)
        self.assertIsNotNone(self.mac.job("d"))

    def test_mac_that_is_down_answers_so(self):
        done = self.launchctl("list")
        self.assertEqual(done.status, 1)
        self.assertIn("down", done.error_text)

    def test_calls_are_recorded_byte_by_byte(self):
        self.mac.boot()
        odd = os.fsdecode(b"a\xff\n'\"\\\xc3\xa4")
        self.launchctl("remove", odd)
        call = self.mac.find("launchctl")[0]
        self.assertEqual(os.fsencode(call["argv"][2]), b"a\xff\n'\"\\\xc3\xa4")
        self.assertEqual((call["uid"], call["status"]), (0, 113))

    def test_ordered_answers_come_in_turn(self):
        self.mac.boot()
        self.mac.script_launchctl("list", {"status": 5, "err": "broken\n"}, {"delay_s": 0.05})
        first = self.launchctl("list")
        self.assertEqual((first.status, first.error_text), (5, "broken\n"))
        self.assertEqual(self.launchctl("list").text, "PID\tStatus\tLabel\n")
        self.assertEqual(self.launchctl("list").status, 0)


class BeforeXpc(MacCase):
    release = "10.9.5"

    def test_newer_verbs_do_not_exist(self):
        self.mac.boot()
        for verb in ("bootstrap", "bootout", "enable", "disable", "print-disabled"):
            with self.subTest(verb):
                done = self.launchctl(verb, "system", "/p")
                self.assertEqual(done.status, 1)
                self.assertIn("unknown subcommand", done.error_text)

    def test_marks_lie_where_that_release_keeps_them(self):
        path = self.daemon("d")
        self.mac.boot()
        self.launchctl("unload", "-w", path)
        self.assertTrue(self.mac.exists("/var/db/launchd.db/com.apple.launchd/overrides.plist"))


if __name__ == "__main__":
    root_case.main()
