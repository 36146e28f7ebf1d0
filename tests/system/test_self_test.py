"""The self-test role."""

import korvel
from system_case import SystemCase

FILE = "/tmp/test1245.dat"
FOLDER = korvel.session_folder("test1245")
DAEMON = korvel.daemon_path("test1245")


class SelfTest(SystemCase):
    def setUp(self):
        super().setUp()
        self.mac.boot()

    def test_installs_waits_and_cleans_up(self):
        self.mac.put_helper()
        running = self.mac.start([korvel.HELPER, "-test", "1", "-runInstall", "1",
                                  "-restoreFile", "/nowhere/abc.dat"])
        self.mac.wait_until(lambda: self.mac.exists(DAEMON))
        begin = self.mac.wait_for("process-started", label=korvel.daemon_label("test1245"))
        self.assertEqual(begin["argv"], korvel.session_daemon_arguments("test1245"))
        self.assertEqual(self.mac.read_text(korvel.restore_path("test1245")), "test")
        done = running.wait(60)
        self.assertEqual(done.status, 0, done.error_text)
        ended = self.mac.wait_for("launchctl", argv=["/bin/launchctl", "unload", "-w", DAEMON])
        self.assertGreaterEqual(ended["t"] - begin["t"], 10)
        self.assert_gone(FILE, FOLDER, DAEMON, korvel.agent_path("test1245"), korvel.HELPER,
                         korvel.INSTALL_LOG)
        self.assert_log(
            f"launchd_daemon_install: writing pinfo: {DAEMON}", "launchd_daemon_start: launching 1",
            f"launchd_agent_uninstall: stopping {korvel.agent_path('test1245')}...",
            "launchd_daemon_start: launching 0")

    def test_without_the_client_ends_with_1(self):
        self.mac.sh(f"rm -r {korvel.CLIENT_BUNDLE}")
        self.run_helper("-test", "1", status=1)
        self.assert_log(..., "testInstantVersion:"
                             " Failed to install service while simulating instant app rnr")
        self.assertTrue(self.mac.messages()[0].startswith("Failed to move bundle: "))
        self.assert_exists(korvel.session_helper("test1245"))

    def test_removes_first_what_a_failed_run_left(self):
        self.mac.sh(f"mkdir -p {FOLDER}/helper; echo old > {FOLDER}/test1245.dat;"
                    f"echo old > {korvel.session_helper('test1245')}; rm -r {korvel.CLIENT_BUNDLE}")
        self.run_helper("-test", "1", status=1)
        # Without the first step the restore file could not have been moved.
        self.assertNotIn("Failed to move restore file", self.mac.messages())
        self.assertTrue(self.mac.messages()[0].startswith("Failed to move bundle: "))

    def test_that_cannot_write_its_file_ends_with_1(self):
        self.mac.sh(f"ln -s /nowhere/x {FILE}")
        self.run_helper("-test", "1", status=1)
        self.assert_log("createTestFile: Failed to create test file",
                        f"moveRestoreFileIfNeeded: Restore file does not exist: {FILE}",
                        "testMoveFile: Failed to move restore file")
        self.assert_exists(korvel.HELPER)
