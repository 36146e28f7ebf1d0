"""The exact command lines for each release, as the kernel sees them."""

import korvel
from system_case import REGISTER, RESIGN, SystemCase

AGENT = korvel.agent_path("abc")
DAEMON = korvel.daemon_path()


class CommandLines:
    """Mixed into one case for each release."""

    release = None

    def setUp(self):
        super().setUp()
        self.mac.boot()
        self.pids = {user: self.mac.login(user)["pid"] for user in ("alice", "bob")}

    def starts(self, user, uid, verb):
        """What the helper runs for the user, and what that runs in turn."""
        if self.release.startswith("10.10"):
            inner = ["/bin/launchctl", verb[0], AGENT]
            sudo = ["/usr/bin/sudo", "-u", user, *inner]
            return [["/bin/launchctl", "bsexec", str(self.pids[user]), *sudo], sudo, inner]
        return [["id", "-u", user], ["/bin/launchctl", verb[1], f"gui/{uid}\n", AGENT]]

    def in_both_sessions(self, *verb):
        return self.starts("alice", 501, verb) + self.starts("bob", 502, verb)

    def assert_helper_runs(self, expected, *words):
        """A helper with these words runs these programs and ends with 0."""
        traced = self.trace(*words)
        self.assert_runs(expected, traced.wait)
        self.assertEqual(traced.status, 0, traced.errors())

    def test_register_and_resign(self):
        self.served = self.trace()
        self.wait_for_endpoint()
        path = self.restore_file()
        registering = self.in_both_sessions("load", "bootstrap")
        self.assert_runs(registering, lambda: self.ask_well(REGISTER, path))
        resigning = self.in_both_sessions("unload", "bootout") + [["/bin/rm", "-fr", AGENT]]
        self.assert_runs(resigning, lambda: self.ask_well(RESIGN, path), len(registering))
        self.assert_log(
            f"launchd_agent_install_only: writing pinfo: {AGENT}", *self.told(1),
            f"launchd_agent_uninstall: stopping {AGENT}...", *self.told(0))

    def told(self, start):
        """The sessions are taken in the order of their process ids."""
        return [f"launchd_agent_start_v2: agent in {pid} update (start={start})"
                f" for {korvel.agent_label('abc')}" for pid in sorted(self.pids.values())]

    def test_launchctl_records_what_it_was_given(self):
        self.serve()
        self.register()
        expected = [words[1:] for user, uid in (("alice", 501), ("bob", 502))
                    for words in self.starts(user, uid, ("load", "bootstrap"))
                    if words[0] == "/bin/launchctl"]
        self.mac.wait_until(lambda: len(self.mac.launchctl_calls()) >= len(expected))
        self.assertEqual(sorted(self.mac.launchctl_calls()), sorted(expected))
        for user, uid in (("alice", 501), ("bob", 502)):
            started = self.mac.wait_for("process-started", label=korvel.agent_label("abc"),
                                        domain=f"gui/{uid}")
            self.assertEqual((started["uid"], started["argv"]),
                             (uid, korvel.client_arguments("abc")), user)

    def test_shared_daemon(self):
        self.assert_helper_runs([["/bin/launchctl", "load", "-w", DAEMON]], "-runInstall", "1")

    def test_session_daemon(self):
        self.assert_helper_runs([["/bin/launchctl", "load", "-w", korvel.daemon_path("abc")]],
                                "-restoreFile", self.restore_file(),
                                "-exePath", korvel.CLIENT_BUNDLE)

    def test_removal(self):
        daemon = korvel.daemon_path("abc")
        self.mac.write(daemon, "")
        self.mac.sh(f"mkdir -p {korvel.session_folder('abc')}")
        self.assert_helper_runs(
            self.in_both_sessions("unload", "bootout") + [
                ["/bin/rm", "-fr", AGENT], ["/bin/launchctl", "unload", "-w", daemon],
                ["/bin/rm", "-fr", daemon]],
            "-restoreFile", "/nowhere/abc.dat")


class Release1010(CommandLines, SystemCase):
    release = "10.10"


class Release1011(CommandLines, SystemCase):
    release = "10.11"


class Release12(CommandLines, SystemCase):
    release = "12"


class Release145(CommandLines, SystemCase):
    release = "14.5"


class Release15(CommandLines, SystemCase):
    release = "15"


class JobFiles(SystemCase):
    """Other readers of property lists read the same from the helper's job files."""

    def read_everywhere(self, path):
        """What three readers make of the file."""
        import plistlib
        self.mac.run(["/usr/bin/xmllint", "--noout", "--nonet", path], check=True)
        self.mac.run(["/usr/bin/plistutil", "-i", path, "-o", "/var/log/b", "-f", "bin"],
                     check=True)
        text = self.mac.read(path)
        self.assertEqual(text[:171], korvel.PLIST_HEAD.encode())
        values = plistlib.loads(text)
        self.assertEqual(plistlib.loads(self.mac.read("/var/log/b")), values)
        return list(values.items())

    def test_agent(self):
        self.serve()
        self.register("a&b <c>")
        self.assertEqual(self.read_everywhere(korvel.agent_path("a&b <c>")), [
            ("Label", "com.norvane.korvel.restart.a&b <c>"),
            ("LimitLoadToSessionType", ["Aqua", "LoginWindow"]),
            ("ProgramArguments", [
                "/Applications/Korvel.app/Contents/MacOS/korvel", "--connect-restore",
                "/Library/VeskRuntime/sessions/a&b <c>/a&b <c>.dat", "--on-connect",
                "desktop?restart=continue", "--auto-close", "--wait-for-console"]),
            ("KeepAlive", True), ("RunAtLoad", True)])

    def test_shared_daemon(self):
        self.run_helper("-runInstall", "1")
        self.assertEqual(self.read_everywhere(DAEMON), [
            ("Label", "com.norvane.korvel.helper"), ("ProgramArguments", [korvel.HELPER]),
            ("RunAtLoad", True), ("OnDemand", False)])

    def test_session_daemon(self):
        self.run_helper("-restoreFile", self.restore_file(), "-exePath", korvel.CLIENT_BUNDLE)
        folder = "/Library/VeskRuntime/sessions/abc"
        self.assertEqual(self.read_everywhere(korvel.daemon_path("abc")), [
            ("Label", "com.norvane.korvel.helper.abc"),
            ("ProgramArguments", [
                f"{folder}/helper/KorvelHelper", "-installed", "1", "-exePath",
                f"{folder}/app/Korvel.app/Contents/MacOS/korvel", "-restoreFile",
                f"{folder}/abc.dat"]),
            ("RunAtLoad", True), ("OnDemand", False)])
