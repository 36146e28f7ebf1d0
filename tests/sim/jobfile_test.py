#!/usr/bin/python3
"""Job files: what launchd's reader takes, what it refuses and why."""

import os
import plistlib
import unittest

import root_case
from launchd import jobfile, releases
from root_case import MacCase


def parsed(**values):
    return jobfile.parse({"Label": "l", "ProgramArguments": ["/bin/x"], **values}, "/path")


class Keys(unittest.TestCase):
    def refused(self, values):
        with self.assertRaises(jobfile.Refusal) as caught:
            jobfile.parse(values, "/path")
        return caught.exception.code

    def test_label_is_needed_and_is_text(self):
        for values in ({}, {"Label": ""}, {"Label": 5}, {"Label": None}):
            with self.subTest(values):
                self.assertEqual(self.refused({"ProgramArguments": ["/x"], **values}),
                                 releases.INVALID_LABEL)

    def test_something_to_run_is_needed(self):
        for values in ({}, {"ProgramArguments": []}, {"Program": ""}):
            with self.subTest(values):
                self.assertEqual(self.refused({"Label": "l", **values}), releases.INVALID_PROGRAM)

    def test_wrong_types_are_refused(self):
        for key, value in (("ProgramArguments", "/x"), ("ProgramArguments", ["/x", 1]),
                           ("RunAtLoad", "true"), ("RunAtLoad", 1), ("OnDemand", 0),
                           ("KeepAlive", "yes"), ("KeepAlive", {"SuccessfulExit": 1}),
                           ("LimitLoadToSessionType", [1]), ("LimitLoadToSessionType", "Water"),
                           ("EnvironmentVariables", {"A": 1}), ("Disabled", "no"),
                           ("ThrottleInterval", True), ("Umask", "x9"), ("Program", 1)):
            with self.subTest(key=key, value=value):
                self.assertEqual(
                    self.refused({"Label": "l", "ProgramArguments": ["/x"], key: value}),
                    releases.INVALID_LIST)

    def test_list_is_no_job(self):
        self.assertEqual(self.refused(["Label"]), releases.INVALID_LIST)

    def test_unknown_keys_are_passed_over(self):
        self.assertEqual(parsed(Whatever=1).label, "l")

    def test_defaults(self):
        spec = parsed()
        self.assertEqual((spec.run_at_load, spec.keep_alive, spec.disabled, spec.throttle,
                          spec.exit_timeout, spec.program), (False, False, False, 10, 20, "/bin/x"))

    def test_program_wins_over_the_first_argument(self):
        spec = parsed(Program="/bin/y")
        self.assertEqual((spec.program, spec.arguments), ("/bin/y", ["/bin/x"]))

    def test_not_on_demand_means_kept_alive(self):
        self.assertIs(parsed(OnDemand=False).keep_alive, True)
        self.assertIs(parsed(OnDemand=True).keep_alive, False)

    def test_later_of_keep_alive_and_on_demand_has_the_say(self):
        self.assertIs(parsed(KeepAlive=False, OnDemand=False).keep_alive, True)
        self.assertIs(parsed(OnDemand=False, KeepAlive=False).keep_alive, False)

    def test_agent_without_limit_is_for_aqua(self):
        self.assertTrue(parsed().belongs_to("Aqua"))
        self.assertFalse(parsed().belongs_to("LoginWindow"))

    def test_session_type_can_be_one_text(self):
        self.assertEqual(parsed(LimitLoadToSessionType="LoginWindow").session_types,
                         ("LoginWindow",))

    def test_octal_umask_text(self):
        self.assertEqual(parsed(Umask="077").umask, 0o077)


class Files(MacCase):
    def boot_with(self, **how):
        self.daemon("d", RunAtLoad=True, **how)
        self.mac.boot()
        return self.refusal("d")

    def test_good_file_is_taken(self):
        self.assertIsNone(self.boot_with())
        self.assertIsNotNone(self.mac.job("d")["pid"])

    def test_file_of_another_user_is_refused(self):
        self.assertEqual(self.boot_with(owner=(501, 0)), "bad owner 501:0")
        self.assertIsNone(self.mac.job("d"))

    def test_file_of_another_group_is_refused(self):
        self.assertEqual(self.boot_with(owner=(0, 20)), "bad owner 0:20")

    def test_file_that_others_may_write_is_refused(self):
        self.assertEqual(self.boot_with(mode=0o666), "bad mode 0666")

    def test_file_that_the_group_may_write_is_refused(self):
        self.assertEqual(self.boot_with(mode=0o664), "bad mode 0664")

    def test_stricter_modes_are_taken(self):
        self.assertIsNone(self.boot_with(mode=0o600))

    def test_link_is_refused(self):
        self.mac.write("/var/d.plist", root_case.job("d"))
        self.mac.file("symlink", "/var/d.plist", "/Library/LaunchDaemons/d.plist")
        self.mac.boot()
        self.assertEqual(self.refusal("d"), "not a regular file")

    def test_broken_text_is_refused(self):
        good = root_case.job("d")
        for number, data in enumerate((b"", b"hello", good[:-20], good.replace(b"</dict>", b""),
                                       good.replace(b"<array>", b"<array>&bad;"))):
            self.mac.write(f"/Library/LaunchDaemons/d{number}.plist", data)
        self.mac.boot()
        for number in range(5):
            with self.subTest(number):
                self.assertIn("not a property list", self.refusal(f"d{number}"))

    def test_binary_property_list_is_taken(self):
        values = {"Label": "d", "ProgramArguments": ["/bin/sleep", "1000"], "RunAtLoad": True}
        self.mac.write("/Library/LaunchDaemons/d.plist",
                       plistlib.dumps(values, fmt=plistlib.FMT_BINARY))
        self.mac.boot()
        self.assertIsNotNone(self.mac.job("d"))

    def test_name_of_the_file_need_not_be_the_label(self):
        self.mac.write("/Library/LaunchDaemons/other.plist", root_case.job("d"))
        self.mac.boot()
        self.assertIsNotNone(self.mac.job("d"))

    def test_only_files_that_end_in_plist_are_read_at_boot(self):
        self.mac.write("/Library/LaunchDaemons/d.plist.new", root_case.job("d"))
        self.mac.write("/Library/LaunchDaemons/.d.plist", root_case.job("d"))
        self.mac.boot()
        self.assertEqual(self.mac.state()["domains"]["system"], {})

    def test_second_file_with_the_label_is_refused(self):
        self.mac.write("/Library/LaunchDaemons/a.plist", root_case.job("d"))
        self.mac.write("/Library/LaunchDaemons/b.plist", root_case.job("d"))
        self.mac.boot()
        self.assertEqual(self.refusal("b"), "already loaded")

    def test_user_may_own_agents_in_the_own_folder_only(self):
        self.mac.file("makedirs", "/Users/alice/Library/LaunchAgents")
        own = "/Users/alice/Library/LaunchAgents/own.plist"
        self.mac.write(own, root_case.job("own"), owner=(501, 20))
        self.mac.write("/Library/LaunchAgents/shared.plist", root_case.job("shared"),
                       owner=(501, 20))
        self.mac.boot("alice")
        self.assertEqual(list(self.mac.state()["domains"]["gui/501"]), ["own"])
        self.assertEqual(self.refusal("shared"), "bad owner 501:20")

    def test_reader_does_not_wait_for_a_pipe(self):
        os.mkfifo(f"/proc/{self.mac.pid}/root/Library/LaunchDaemons/d.plist")
        self.mac.boot()
        self.assertEqual(self.refusal("d"), "not a regular file")


if __name__ == "__main__":
    root_case.main()
