"""Every row of the dispatch table, with its exit status and its log file."""

import korvel
from system_case import SystemCase

ABC = "/Users/alice/abc.dat"
SERVICE_LOG = [f"launchd_daemon_install: writing pinfo: {korvel.daemon_path()}",
               "launchd_daemon_start: launching 1"]


class Dispatch(SystemCase):
    def setUp(self):
        super().setUp()
        self.mac.boot()

    # Shared daemon

    def test_run_install_writes_and_loads_the_shared_daemon(self):
        self.run_helper("-runInstall", "1")
        self.assert_job_file(korvel.daemon_path(),
                             korvel.daemon_file(korvel.SERVICE, [korvel.HELPER]))
        started = self.mac.wait_for("process-started", label=korvel.SERVICE)
        self.assertEqual((started["argv"], started["uid"]), ([korvel.HELPER], 0))
        self.served = None
        self.wait_for_endpoint()
        self.assert_serves()

    def test_run_install_logs_into_its_own_file(self):
        self.run_helper("-runInstall", "1")
        self.assert_log(*SERVICE_LOG, path=korvel.INSTALL_LOG)
        self.assert_gone(korvel.LOG)

    def test_run_install_passes_over_a_restore_file(self):
        self.restore_file()
        self.run_helper("-runInstall", "1", "-restoreFile", ABC,
                        "-exePath", korvel.CLIENT_BUNDLE, "-installed", "1")
        self.assert_log(*SERVICE_LOG, path=korvel.INSTALL_LOG)
        self.assert_exists(ABC)
        self.assertEqual(self.mac.listing(korvel.DAEMONS), [korvel.SERVICE + ".plist"])

    def test_run_install_that_cannot_write_its_job_file_ends_with_1(self):
        self.block(korvel.DAEMONS)
        self.run_helper("-runInstall", "1", status=1)
        path = korvel.daemon_path()
        self.assert_log(
            f"launchd_daemon_install: writing pinfo: {path}",
            "installServiceNoInstant: Failed to install daemon: 20 (Not a directory)"
            f" function=fopen file={path}", path=korvel.INSTALL_LOG)

    def test_run_install_whose_job_file_is_missing_afterwards_ends_with_1(self):
        self.mac.cover("/bin/launchctl", f"#!/bin/sh\nrm -f {korvel.daemon_path()}\n")
        self.run_helper("-runInstall", "1", status=1)
        self.assert_log(*SERVICE_LOG, path=korvel.INSTALL_LOG)

    # Missing restore file

    def test_restore_file_that_cannot_be_looked_at_is_not_missing(self):
        """A user's file system may refuse root, too; here the helper is another user's process."""
        self.restore_file(folder="/Users/alice/Desktop")
        self.mac.put_helper()
        self.served = self.mac.start(
            [korvel.HELPER, "-installed", "1", "-exePath", korvel.CLIENT,
             "-restoreFile", "/Users/alice/Desktop/abc.dat"], user="bob")
        self.wait_for_endpoint("abc")
        self.assertNotIn(b"removing this service", self.served.errors())

    def test_missing_restore_file_removes_agent_and_daemon(self):
        self.mac.write(korvel.agent_path("abc"), "")
        self.mac.write(korvel.daemon_path("abc"), "")
        self.mac.sh(f"mkdir -p {korvel.session_folder('abc')}/helper")
        self.run_helper("-restoreFile", ABC, "-installed", "1")
        self.assert_gone(korvel.agent_path("abc"), korvel.daemon_path("abc"),
                         korvel.session_folder("abc"))
        self.assert_log(
            f"main: restore file {ABC} does not exist, removing this service",
            f"launchd_agent_uninstall: stopping {korvel.agent_path('abc')}...",
            "uninstallServiceRemove: Removing all related files",
            "launchd_daemon_start: launching 0",
            f"main: Failed to uninstall agent for {ABC}")

    def test_missing_restore_file_with_nothing_to_remove_ends_with_0(self):
        self.run_helper("-restoreFile", ABC)
        self.assert_log(
            f"main: restore file {ABC} does not exist, removing this service",
            f"launchd_agent_uninstall: stopping {korvel.agent_path('abc')}...",
            "uninstallServiceRemove: Removing all related files",
            "uninstallServiceRemove: Failed to remove launchd daemon plist:"
            " No such file or directory",
            f"main: Failed to uninstall agent for {ABC}")

    def test_missing_restore_file_whose_agent_stays_is_told_twice(self):
        self.mac.write(korvel.agent_path("abc"), "")
        self.mac.cover("/bin/rm", "#!/bin/sh\nexit 1\n")
        self.run_helper("-restoreFile", ABC)
        self.assert_exists(korvel.agent_path("abc"))
        self.assertEqual(self.mac.messages().count(f"Failed to uninstall agent for {ABC}"), 2)

    # Per-session daemon

    def test_restore_file_installs_the_session_daemon(self):
        self.restore_file()
        self.run_helper("-restoreFile", ABC, "-exePath", korvel.CLIENT_BUNDLE)
        path = korvel.daemon_path("abc")
        self.assert_job_file(path, korvel.daemon_file(korvel.daemon_label("abc"),
                                                      korvel.session_daemon_arguments("abc")))
        self.assert_log(f"launchd_daemon_install: writing pinfo: {path}",
                        "launchd_daemon_start: launching 1")

    def test_installed_0_installs_too(self):
        self.restore_file()
        self.run_helper("-installed", "0", "-restoreFile", ABC, "-exePath", korvel.CLIENT_BUNDLE)
        self.assert_exists(korvel.daemon_path("abc"))

    def test_session_daemon_without_a_client_path_ends_with_1(self):
        self.restore_file()
        self.run_helper("-restoreFile", ABC, status=1)
        self.assert_log("installService: Insufficient arguments, exiting...",
                        "main: Failed to install service, will not be able to resume properly")
        self.assert_exists(ABC, korvel.HELPER)
        self.assert_gone("/Library/VeskRuntime")

    # Serving a session

    def test_installed_1_installs_the_agent_and_serves_the_session(self):
        self.restore_file()
        self.serve("-restoreFile", ABC, "-installed", "1", "-exePath", korvel.CLIENT, session="abc")
        arguments = [korvel.CLIENT, "--connect-restore", ABC, *korvel.client_arguments("abc")[3:]]
        self.assert_job_file(korvel.agent_path("abc"),
                             korvel.agent_file(korvel.agent_label("abc"), arguments))
        self.assert_serves("abc")
        self.assert_exists(ABC)
        self.assert_log(f"launchd_agent_install_only: writing pinfo: {korvel.agent_path('abc')}")

    def test_installed_1_leaves_an_agent_that_is_there(self):
        self.restore_file()
        self.mac.write(korvel.agent_path("abc"), "as it was")
        self.serve("-restoreFile", ABC, "-installed", "1", "-exePath", korvel.CLIENT, session="abc")
        self.assert_serves("abc")
        self.assertEqual(self.mac.read_text(korvel.agent_path("abc")), "as it was")
        self.assert_gone(korvel.LOG)

    def test_installed_1_serves_without_its_agent(self):
        self.restore_file()
        self.block(korvel.AGENTS)
        self.serve("-restoreFile", ABC, "-installed", "1", "-exePath", korvel.CLIENT, session="abc")
        self.assert_serves("abc")
        self.assert_log(f"launchd_agent_install_only: writing pinfo: {korvel.agent_path('abc')}",
                        "launchd_agent_install_only: unable to write pinfo",
                        "main: Install agent failed")

    # No ID

    def test_restore_file_without_an_id_ends_with_42(self):
        self.mac.put_helper()
        for name in ("abc.txt", ".dat", "..dat", "...dat"):
            self.mac.write(f"/Users/alice/{name}", "")
            before = self.snapshot()
            done = self.linger("-restoreFile", f"/Users/alice/{name}",
                               "-exePath", korvel.CLIENT_BUNDLE)
            self.assertEqual(done.status, 42, name)
            self.assert_log(..., "main: Invalid restore file, should remove self")
            self.assertEqual(self.snapshot(), before, name)

    def test_missing_restore_file_without_an_id_ends_with_42_too(self):
        self.mac.sh("mkdir -p /Library/VeskRuntime/sessions/other && touch /Library/VeskRuntime/x")
        before = self.snapshot()
        for name in ("abc.txt", "", ".dat", "..dat", "...dat"):
            self.run_helper("-restoreFile", f"/nowhere/{name}", "-installed", "1", status=42)
        self.assertEqual(self.snapshot(), before)

    # Serving everyone

    def test_without_options_the_shared_endpoint_is_served(self):
        self.serve()
        self.assert_serves()
        self.assertEqual(self.mac.mode_owner(korvel.endpoint_path()), "0666 0:0")
        self.assertIn("korvel_helper.ipc", self.mac.file("listdir", "/tmp"))

    def test_other_words_are_passed_over(self):
        self.serve("-installed", "1", "-exePath", korvel.CLIENT, "stray", "-unknown", "x")
        self.assert_serves()

    def test_options_that_say_no_are_no(self):
        self.serve("-test", "0", "-runInstall", "NO", "-installed", "false", "-test")
        self.assert_serves()
        self.assert_gone(korvel.daemon_path())

    def test_options_that_say_yes_are_yes(self):
        for number, word in enumerate(("1", "YES", "true"), 1):
            self.run_helper("-runInstall", word)
            # Let go by the helper, it may come later.
            self.mac.wait_until(lambda wanted=number: len(self.mac.launchctl_calls()) >= wanted)
            self.assertEqual(len(self.mac.launchctl_calls()), number)

    def test_standard_descriptors_closed_at_start_harm_nothing(self):
        self.mac.put_helper()
        done = self.mac.run(["/bin/sh", "-c",
                             f"exec {korvel.HELPER} -runInstall 1 <&- >&- 2>&-"])
        self.assertEqual(done.status, 0)
        self.assert_log(*SERVICE_LOG, path=korvel.INSTALL_LOG)

    def test_a_second_helper_takes_the_endpoint_over(self):
        first = self.serve()
        endpoint = korvel.endpoint_path(None)
        before = self.mac.stat(endpoint)["st_ino"]
        self.served = self.mac.start([korvel.HELPER])
        self.mac.wait_until(lambda: self.mac.exists(endpoint)
                            and self.mac.stat(endpoint)["st_ino"] != before)
        self.wait_for_endpoint()
        first.kill()
        self.assert_serves()
