"""What clients ask for over the endpoint: register and resign in all their cases."""

import time

import korvel
from system_case import FAILING_PROGRAM, REGISTER, RESIGN, SystemCase

ABC = "/Users/alice/abc.dat"
# Paths that name no session: without the suffix, and with an ID that is no name of a folder.
NO_ID = ["", "abc", "/Users/alice/abc.txt", "/Users/alice/", "/Users/alice/.dat",
         "/Users/alice/..dat", "/Users/alice/...dat", "/", ".", "..", ".dat", "..dat", "...dat"]


class Register(SystemCase):
    def setUp(self):
        super().setUp()
        self.mac.boot()
        self.serve()

    def test_moves_the_restore_file_and_writes_the_agent(self):
        self.restore_file(content="key\0and\n")
        self.ask_well(REGISTER, ABC)
        self.assert_gone(ABC)
        self.assertEqual(self.mac.read(korvel.restore_path("abc")), b"key\0and\n")
        self.assertEqual(self.mac.mode_owner(korvel.restore_path("abc")), "0600 501:20")
        self.assertEqual(self.mac.mode_owner(korvel.session_folder("abc")), "0777 0:0")
        self.assert_job_file(
            korvel.agent_path("abc"),
            korvel.agent_file(korvel.agent_label("abc"), korvel.client_arguments("abc")))

    def test_with_nobody_logged_in_only_writes_the_file(self):
        self.register()
        self.assert_log(f"launchd_agent_install_only: writing pinfo: {korvel.agent_path('abc')}")
        self.assertEqual(self.mac.launchctl_calls(), [])

    def test_starts_the_agent_in_the_session_of_the_user(self):
        pid = self.mac.login("alice")["pid"]
        self.register()
        started = self.mac.wait_for("process-started", label=korvel.agent_label("abc"))
        self.assertEqual((started["domain"], started["uid"], started["argv"]),
                         ("gui/501", 501, korvel.client_arguments("abc")))
        self.assert_log(
            f"launchd_agent_install_only: writing pinfo: {korvel.agent_path('abc')}",
            f"launchd_agent_start_v2: agent in {pid} update (start=1)"
            f" for {korvel.agent_label('abc')}")

    def test_two_sessions_at_once(self):
        self.register("abc")
        self.register("def")
        self.assertEqual(self.mac.listing(korvel.AGENTS),
                         [korvel.agent_label(name) + ".plist" for name in ("abc", "def")])

    def test_without_the_client_executable_does_nothing(self):
        self.mac.sh(f"rm {korvel.CLIENT}")
        self.restore_file()
        self.ask_well(REGISTER, ABC)
        self.assert_log("commandReceived: Korvel executable not found")
        self.assert_exists(ABC)
        self.assert_gone("/Library/VeskRuntime", korvel.agent_path("abc"))

    def test_of_a_missing_file_does_nothing(self):
        self.ask_well(REGISTER, ABC)
        self.assert_log(f"moveRestoreFileIfNeeded: Restore file does not exist: {ABC}",
                        "commandReceived: Failed to move restore file")
        self.assert_gone("/Library/VeskRuntime", korvel.agent_path("abc"))

    def test_of_a_session_that_is_registered_keeps_what_is_there(self):
        self.register()
        self.restore_file(content="second")
        before = self.snapshot()
        self.ask_well(REGISTER, ABC)
        self.assert_log(..., "commandReceived: Failed to move restore file")
        self.assertEqual(self.mac.read_text(korvel.restore_path("abc")), "resume me")
        self.assertEqual(self.mac.read_text(ABC), "second")
        self.assertEqual(self.snapshot(), before)

    def test_with_a_plain_file_where_the_sessions_stand(self):
        self.block("/Library/VeskRuntime")
        self.restore_file()
        self.ask_well(REGISTER, ABC)
        self.assert_log(..., "moveRestoreFileIfNeeded: Failed to create session folder",
                        "commandReceived: Failed to move restore file")
        self.assert_exists(ABC)

    def test_that_cannot_write_the_agent_says_so(self):
        self.block(korvel.AGENTS)
        self.restore_file()
        self.ask_well(REGISTER, ABC)
        self.assert_log(f"launchd_agent_install_only: writing pinfo: {korvel.agent_path('abc')}",
                        "launchd_agent_install_only: unable to write pinfo",
                        "commandReceived: Failed to install agent")
        self.assert_exists(korvel.restore_path("abc"))

    def test_of_a_path_without_an_id_changes_nothing(self):
        before = self.snapshot()
        for path in NO_ID:
            with self.subTest(path):
                if path.startswith("/Users/alice/") and not path.endswith("/"):
                    self.mac.write(path, "")
                self.ask_well(REGISTER, path)
                self.assertEqual(self.snapshot(), before)
        self.assert_serves()

    def test_logs_a_path_with_control_characters_escaped(self):
        self.ask_well(REGISTER, "/tmp/a\nb`c.dat")
        self.assert_log("moveRestoreFileIfNeeded: Restore file does not exist: /tmp/a`0ab`60c.dat",
                        "commandReceived: Failed to move restore file")

    def test_takes_a_name_with_blanks_and_letters_of_all_kinds(self):
        name = "späß & <Ω> \"1\""
        self.mac.login("alice")
        self.ask_well(REGISTER, self.restore_file(name))
        label = korvel.agent_label(name)
        self.assert_job_file(korvel.agent_path(name),
                             korvel.agent_file(label, korvel.client_arguments(name)))
        started = self.mac.wait_for("process-started", label=label)
        self.assertEqual(started["argv"], korvel.client_arguments(name))

    def test_removes_every_suffix_from_the_name(self):
        self.mac.write("/Users/alice/x.datum.dat", "")
        self.ask_well(REGISTER, "/Users/alice/x.datum.dat")
        self.assert_exists(korvel.agent_path("xum"), korvel.restore_path("xum"))


class Pauses(SystemCase):
    """The fixed pauses are kept: never shorter, on however slow a machine."""

    def took(self, act):
        begin_s = time.monotonic()
        act()
        return time.monotonic() - begin_s

    def test_around_launchd(self):
        self.mac.boot()
        self.mac.login("alice")
        self.serve()
        path = self.restore_file()
        self.assertGreaterEqual(self.took(lambda: self.ask_well(REGISTER, path)), 0.1 + 0.2)
        self.assertGreaterEqual(self.took(lambda: self.ask_well(RESIGN, path)), 0.1 + 3 + 0.1 + 0.2)
        self.assertGreaterEqual(self.took(lambda: self.run_helper("-runInstall", "1")), 0.1 + 0.2)


class Resign(SystemCase):
    def setUp(self):
        super().setUp()
        self.mac.boot()

    def own_session(self):
        """A helper that serves the session abc, with all that is installed for it."""
        self.mac.sh(f"mkdir -p {korvel.session_folder('abc')}")
        path = self.restore_file("abc", korvel.session_folder("abc"))
        self.mac.write(korvel.daemon_path("abc"), korvel.daemon_file(
            korvel.daemon_label("abc"), korvel.session_daemon_arguments("abc")))
        self.serve("-installed", "1", "-exePath", korvel.CLIENT, "-restoreFile", path,
                   session="abc")
        return path

    def test_of_another_session_removes_only_its_agent(self):
        self.serve()
        self.register("abc")
        self.register("def")
        self.mac.write(korvel.daemon_path("abc"), "")
        self.ask_well(RESIGN, ABC)
        self.assert_gone(korvel.agent_path("abc"))
        self.assert_exists(korvel.restore_path("abc"), korvel.daemon_path("abc"),
                           korvel.agent_path("def"))
        self.assert_log(..., f"launchd_agent_uninstall: stopping {korvel.agent_path('abc')}...")

    def test_ends_the_agent_in_the_session_of_the_user(self):
        pid = self.mac.login("alice")["pid"]
        self.serve()
        self.register()
        self.mac.wait_for("process-started", label=korvel.agent_label("abc"))
        self.ask_well(RESIGN, korvel.restore_path("abc"))
        self.mac.wait_for("job-unloaded", label=korvel.agent_label("abc"), domain="gui/501")
        self.assertEqual(self.mac.loaded(korvel.agent_label("abc")), {})
        self.assert_log(..., f"launchd_agent_uninstall: stopping {korvel.agent_path('abc')}...",
                        f"launchd_agent_start_v2: agent in {pid} update (start=0)"
                        f" for {korvel.agent_label('abc')}")

    def test_of_a_session_that_was_never_registered_ends_well(self):
        self.serve()
        self.ask_well(RESIGN, ABC)
        self.assert_log(f"launchd_agent_uninstall: stopping {korvel.agent_path('abc')}...")

    def test_of_the_own_session_removes_all_that_is_its_own(self):
        path = self.own_session()
        self.ask_well(RESIGN, path, "abc")
        self.assert_gone(korvel.agent_path("abc"), korvel.daemon_path("abc"),
                         korvel.session_folder("abc"))
        self.assert_log(..., f"launchd_agent_uninstall: stopping {korvel.agent_path('abc')}...",
                        "uninstallServiceRemove: Removing all related files",
                        "launchd_daemon_start: launching 0")
        self.assertEqual(self.mac.launchctl_calls(), [["unload", "-w", korvel.daemon_path("abc")]])

    def test_of_another_session_leaves_the_own_one(self):
        self.own_session()
        self.mac.write(korvel.daemon_path("def"), "")
        self.ask_well(RESIGN, "/Users/alice/def.dat", "abc")
        self.assert_exists(korvel.agent_path("abc"), korvel.daemon_path("abc"),
                           korvel.restore_path("abc"), korvel.daemon_path("def"))

    def test_that_cannot_remove_the_agent_leaves_the_own_daemon(self):
        path = self.own_session()
        self.mac.cover("/bin/rm", "#!/bin/sh\nexit 1\n")
        self.ask_well(RESIGN, path, "abc")
        self.assert_log(..., f"commandReceived: Failed to uninstall agent for {path}")
        self.assert_exists(korvel.agent_path("abc"), korvel.daemon_path("abc"),
                           korvel.restore_path("abc"))
        self.assertEqual(self.mac.launchctl_calls(), [])

    def test_of_the_own_session_without_its_daemon_file_stops_there(self):
        path = self.own_session()
        self.mac.sh(f"rm {korvel.daemon_path('abc')}")
        self.ask_well(RESIGN, path, "abc")
        self.assert_log(..., "uninstallServiceRemove: Removing all related files",
                        "uninstallServiceRemove: Failed to remove launchd daemon plist:"
                        " No such file or directory")
        self.assert_exists(korvel.restore_path("abc"))

    def test_of_a_path_without_an_id_removes_nothing(self):
        self.serve()
        self.register()
        self.mac.sh(f"touch /Library/VeskRuntime/keep {korvel.SESSIONS}/keep")
        before = self.snapshot()
        for path in NO_ID:
            with self.subTest(path):
                self.ask_well(RESIGN, path)
                self.assertEqual(self.snapshot(), before)
                self.assert_logged(f"commandReceived: Failed to uninstall agent for {path}")
        self.assert_serves()

    def test_of_a_path_without_an_id_leaves_the_own_session(self):
        self.own_session()
        before = self.snapshot()
        for path in NO_ID:
            self.ask_well(RESIGN, path, "abc")
        self.assertEqual(self.snapshot(), before)
        self.assert_serves("abc")

    def test_skips_a_user_whose_id_cannot_be_told(self):
        self.mac.login("alice")
        self.serve()
        self.mac.cover("/usr/bin/id", FAILING_PROGRAM)
        self.ask_well(REGISTER, self.restore_file())
        skipped = "failed to retrieve effective user id, will not load for user alice"
        self.assert_log(..., "launchd_agent_start_v2: " + skipped)
        self.assertRegex("\n".join(self.mac.messages()), f"(?m)^err: .*\n{skipped}$")
        self.assertEqual(self.mac.launchctl_calls(), [])
        self.assert_exists(korvel.agent_path("abc"))
