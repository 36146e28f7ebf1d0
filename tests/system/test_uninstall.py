"""packaging/uninstall.sh on Macs with sessions of both kinds: nothing is left of the product, and
nothing else is touched."""

import korvel
from system_case import SOURCE, SystemCase

UNINSTALLER = korvel.HELPER_FOLDER + "/korvel_uninstall"
BUDDY = "/var/db/PlistBuddy"
OTHERS_JOB = "/Library/LaunchDaemons/com.norvane.korvelesque.plist"
# Made when a session is named after its restore file: blanks and colons are allowed there.
ODD = "my odd: session"


class UninstallCase(SystemCase):
    def setUp(self):
        super().setUp()
        self.mac.boot(login="alice")
        self.run_helper("-runInstall", "1")
        self.wait_for_endpoint()
        self.mac.sh(f"cp {SOURCE}/packaging/uninstall.sh {UNINSTALLER}; chmod 755 {UNINSTALLER}")
        self.mac.write(BUDDY, "#!/bin/sh\nexec /usr/bin/python3 -IS"
                              f" {SOURCE}/tests/system/plist_buddy.py \"$@\"\n", 0o755)

    def install_session(self, session):
        """A session with a daemon of its own; the helper moves its own file, so it gets a copy."""
        self.run_helper("-restoreFile", self.restore_file(session),
                        "-exePath", korvel.CLIENT_BUNDLE, path="/var/installer/korvel_helper")
        self.mac.sh("rm -r /var/installer")
        self.wait_for_endpoint(session)
        self.mac.wait_until(lambda: self.mac.exists(korvel.agent_path(session)))

    def uninstall(self, status=0, **options):
        done = self.mac.run([UNINSTALLER], limit_s=120, env={"PLIST_BUDDY": BUDDY}, **options)
        self.assertEqual(done.status, status, done.error_text)
        return done.error_text

    def ours(self):
        """Every path on the Mac that is named after the product, the client's own files aside."""
        passed_over = " -o ".join([f"-path '{path}'" for path in (
            "/proc", "/usr", "/build", SOURCE, korvel.CLIENT_BUNDLE)] + ["-name korvel-client.jsonl"])
        found = self.mac.sh(f"find / -xdev \\( {passed_over} \\) -prune -o"
                            " \\( -iname '*korvel*' -o -name VeskRuntime \\) -print")
        return sorted(found.splitlines())

    def overrides(self):
        return self.mac.sh("cat /var/db/launchd.db/*/overrides.plist"
                           " /var/db/com.apple.xpc.launchd/disabled*.plist 2>/dev/null || true")

    def assert_nothing_left(self):
        self.assertEqual(self.ours(), [])
        self.assertNotIn("norvane", self.overrides())
        running = [words for _, _, words in self.mac.processes() if "orvel" in " ".join(words)]
        self.assertEqual(running, [])
        loaded = [label for jobs in self.mac.state()["domains"].values() for label in jobs]
        self.assertEqual([label for label in loaded if "norvane" in label], [])


class Removal:
    """What differs between releases: how launchd is told, and where it keeps its notes."""

    def test_nothing_is_left_of_any_session(self):
        self.register("abc")
        self.install_session("own")
        self.assertIn(korvel.SERVICE, self.overrides())
        self.uninstall()
        self.assert_nothing_left()

    def test_nothing_comes_back_after_a_restart(self):
        self.register("abc")
        self.uninstall()
        self.mac.restart(login="alice")
        self.assert_nothing_left()

    def test_agents_at_the_login_window_end_too(self):
        self.register("abc")
        self.mac.restart()
        self.mac.wait_until(lambda: self.mac.job(korvel.agent_label("abc"), "loginwindow"))
        self.uninstall()
        self.assert_nothing_left()


class Uninstall(Removal, UninstallCase):
    def test_session_name_with_blanks_and_colons(self):
        self.install_session(ODD)
        self.uninstall()
        self.assert_nothing_left()

    def test_helper_that_was_started_by_hand(self):
        self.uninstall()
        self.serve()
        self.mac.sh(f"cp {SOURCE}/packaging/uninstall.sh {UNINSTALLER}; chmod 755 {UNINSTALLER}")
        self.uninstall()
        self.assertIsNotNone(self.served.wait(30))
        self.served = None
        self.assert_nothing_left()

    def test_what_belongs_to_others_stays(self):
        self.mac.write(OTHERS_JOB, "someone else's")
        self.register("abc")
        self.mac.write("/Library/VeskRuntime/other", "someone else's")
        self.mac.sh("/bin/launchctl disable system/com.example.other")
        self.uninstall()
        self.assert_exists(OTHERS_JOB, "/Library/VeskRuntime/other", korvel.CLIENT,
                           korvel.HELPER_FOLDER)
        self.assertIn("com.example.other", self.overrides())

    def test_can_be_run_again(self):
        self.mac.sh(f"cp {UNINSTALLER} /tmp/again")
        self.uninstall()
        self.mac.sh(f"cp /tmp/again {UNINSTALLER}")
        self.uninstall()

    def test_is_for_root(self):
        self.assertIn("as root", self.uninstall(status=1, user="alice"))
        self.assert_exists(korvel.daemon_path(), korvel.HELPER)
        self.assert_serves()

    def test_entries_that_cannot_be_removed_are_told(self):
        self.mac.write(BUDDY, "#!/bin/sh\necho '    com.norvane.korvel.helper = false'\n", 0o755)
        self.assertIn("entries are left in", self.uninstall(status=1))


class UninstallOn10_9(Removal, UninstallCase):
    release = "10.9.5"


class UninstallOn10_10(Removal, UninstallCase):
    release = "10.10.5"


class UninstallOn15(Removal, UninstallCase):
    release = "15.0"
