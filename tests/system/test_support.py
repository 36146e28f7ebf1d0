"""Status, clean-up and what else the operator's tool tells of whole Macs."""

import json
import re

import korvel
from system_case import SystemCase


class SupportCase(SystemCase):
    def tool(self, *words, status=0, **options):
        done = self.mac.rnrctl(*words, **options)
        self.assertEqual(done.status, status, done.error_text + done.text)
        return done.text

    def status(self):
        return json.loads(self.tool("status", "--json"))

    def session(self, name="abc"):
        return next((s for s in self.status()["sessions"] if s["id"] == name), None)

    def register_by_tool(self, session="abc"):
        self.tool("register", self.restore_file(session))
        self.mac.wait_until(lambda: self.mac.exists(korvel.agent_path(session)))


class Status(SupportCase):
    def setUp(self):
        super().setUp()
        self.mac.boot()
        self.run_helper("-runInstall", "1")
        self.wait_for_endpoint()

    def test_a_session_in_one_line(self):
        self.mac.login("alice")
        self.register_by_tool()
        lines = self.tool("status").splitlines()
        self.assertEqual(lines[0].split(), ["SESSION", "STATE", "RESTORE", "DAEMON", "LOADED",
                                            "AGENT", "LOADED", "ENDPOINT"])
        self.assertEqual(lines[1].split(), ["(shared)", "installed", "-", "ok", "system", "-", "-",
                                            "answering"])
        self.assertEqual(lines[2].split(), ["abc", "resumable", "there", "-", "-", "ok",
                                            "gui/501", "none"])
        self.assertEqual(len(lines), 3)

    def test_a_session_for_programs(self):
        self.mac.login("alice")
        self.register_by_tool()
        whole = self.status()
        self.assertEqual(whole["users"][0]["name"], "alice")
        self.assertTrue(whole["launchd_known"] and whole["client"]["exists"])
        agent = self.session()["agent"]
        self.assertTrue(agent["as_written"] and agent["right"] and agent["program_exists"])
        self.assertEqual(agent["file"]["mode"], "0644")
        self.assertEqual(agent["command"], korvel.client_arguments("abc"))
        self.assertEqual(agent["loaded_in"], ["gui/501"])

    def test_states(self):
        self.register_by_tool()
        self.assertEqual(self.session()["state"], "resumable")
        self.mac.sh(f"chmod 0600 {korvel.agent_path('abc')}")
        self.assertEqual(self.session()["state"], "half installed")
        self.mac.sh(f"rm {korvel.restore_path('abc')}")
        self.assertEqual(self.session()["state"], "orphaned")

    def test_a_session_that_only_launchd_knows(self):
        self.mac.login("alice")
        self.register_by_tool()
        self.mac.sh(f"rm -r {korvel.agent_path('abc')} {korvel.session_folder('abc')}")
        self.assertEqual(self.session()["state"], "loaded without a file")

    def test_a_session_of_a_dead_socket_alone(self):
        self.mac.sh("python3 -c 'import socket; "
                    "socket.socket(socket.AF_UNIX).bind(\"/tmp/korvel_helper_xyz.ipc\")'")
        self.assertEqual(self.session("xyz")["endpoint"], "dead")

    def test_without_root_launchd_is_not_known(self):
        done = self.mac.rnrctl("status", "--json", user="alice")
        self.assertFalse(json.loads(done.text)["launchd_known"])
        done = self.mac.rnrctl("status", user="alice")
        self.assertIn("only root", done.error_text)
        self.assertIn(" ? ", done.text)

    def test_a_launchctl_that_fails_is_told_and_passed_over(self):
        self.mac.script_launchctl("list", {"status": 1})
        done = self.mac.rnrctl("status")
        self.assertEqual(done.status, 0)
        self.assertIn("/bin/launchctl list ended with 1", done.error_text)


class StatusOfOlderMac(Status):
    release = "10.6.8"


class CleanUp(SupportCase):
    def setUp(self):
        super().setUp()
        self.serve()
        self.register_by_tool()

    def test_prune_says_what_it_would_do(self):
        self.mac.sh(f"rm {korvel.restore_path('abc')}")
        before = self.snapshot()
        text = self.tool("sessions", "prune")
        self.assertIn("session abc:\nwould remove job com.norvane.korvel.restart.abc\n", text)
        self.assertIn(f"would remove {korvel.session_folder('abc')}\n", text)
        self.assertIn("--yes", text)
        self.assertEqual(self.snapshot(), before)

    def test_prune_removes_sessions_without_a_restore_file_alone(self):
        self.register_by_tool("kept")
        self.mac.sh(f"rm {korvel.restore_path('abc')}")
        text = self.tool("sessions", "prune", "--yes")
        self.assertIn("removed job com.norvane.korvel.restart.abc\n", text)
        self.assert_gone(korvel.agent_path("abc"), korvel.session_folder("abc"))
        self.assert_exists(korvel.agent_path("kept"), korvel.restore_path("kept"))

    def test_prune_of_a_clean_mac_has_nothing_to_do(self):
        self.assertEqual(self.tool("sessions", "prune", "--yes"), "nothing to remove\n")

    def test_reset_removes_all_of_a_session(self):
        self.assertIn("would remove", self.tool("sessions", "reset", "abc"))
        self.assert_exists(korvel.restore_path("abc"))
        self.tool("sessions", "reset", "abc", "--yes")
        self.assert_gone(korvel.agent_path("abc"), korvel.session_folder("abc"))
        self.assertEqual(self.tool("sessions", "reset", "abc"), "nothing to remove\n")

    def test_reset_leaves_a_live_session_alone(self):
        client = self.mac.start(["/bin/sh", "-c", "sleep 60", korvel.restore_path("abc")])
        done = self.mac.rnrctl("sessions", "reset", "abc", "--yes")
        self.assertEqual(done.status, 1)
        self.assertIn("session abc is live", done.error_text)
        self.assert_exists(korvel.agent_path("abc"), korvel.restore_path("abc"))
        client.kill()

    def test_reset_of_what_is_no_id_is_wrong_use(self):
        for name in ("..", "a/b", ""):
            self.assertEqual(self.mac.rnrctl("sessions", "reset", name, "--yes").status, 2, name)

    def test_only_root_removes(self):
        done = self.mac.rnrctl("sessions", "reset", "abc", "--yes", user="alice")
        self.assertEqual(done.status, 1)
        self.assertIn("only root", done.error_text)

    def test_register_that_is_not_carried_out_ends_with_7(self):
        done = self.mac.rnrctl("register", self.restore_file("abc"))
        self.assertEqual(done.status, 7)
        self.assertIn("/Users/alice/abc.dat is still there", done.error_text)

    def test_wait_for_a_session_to_be_gone(self):
        self.tool("wait", "--gone", "abc", "--timeout", "0.3", status=5)
        waiting = self.mac.start([self.mac.rnrctl_path, "wait", "--gone", "abc"])
        self.tool("sessions", "reset", "abc", "--yes")
        self.assertEqual(waiting.wait().status, 0)
        self.assertEqual(waiting.output(), b"session abc is gone\n")

    def test_wait_needs_one_session(self):
        for words in ([], ["--gone", ".."], ["--gone", "a", "--loaded", "a"]):
            self.tool("wait", *words, status=2)

    def test_a_bundle_holds_what_support_asks_for_and_no_secret(self):
        self.assertIn("/tmp/x.tgz is written", self.tool("bundle", "/tmp/x.tgz"))
        names = self.mac.sh("tar -tzf /tmp/x.tgz")
        for name in ("status.json", "doctor.txt", "listing.txt", "versions.txt", "processes.txt",
                     "job_Library_LaunchAgents_com.norvane.korvel.restart.abc.plist",
                     "log_Library_PrivilegedHelperTools_korvel_helper.out"):
            self.assertIn(name, names)
        self.assertNotIn("resume me", self.mac.sh("tar -xzOf /tmp/x.tgz"))
        self.assertEqual(self.mac.sh("ls -d /tmp/korvel-support.* || true"), "")

    def test_a_bundle_is_written_when_half_of_it_fails(self):
        self.mac.sh(f"rm {korvel.agent_path('abc')}; ln -s /nowhere {korvel.agent_path('abc')}; "
                    "rm -rf /Library/VeskRuntime")
        self.assertIn("missing.txt", self.tool("bundle", "/tmp/x.tgz"))
        self.assertIn("restart.abc.plist: ", self.mac.sh("tar -xzOf /tmp/x.tgz"))


class WaitForLaunchd(SupportCase):
    def test_wait_for_a_session_to_be_loaded(self):
        self.mac.boot("alice")
        self.run_helper("-runInstall", "1")
        self.wait_for_endpoint()
        self.tool("wait", "--loaded", "abc", "--timeout", "0.3", status=5)
        self.register_by_tool()
        self.assertEqual(self.tool("wait", "--loaded", "abc", "--timeout", "20"),
                         "session abc is loaded\n")


class Plan(SupportCase):
    """What plan prints is what the helper does on a Mac of that release."""

    ROAD = [("register", "/Users/alice/abc.dat"), ("resign", "/Users/alice/abc.dat")]

    def planned(self, action, file, release, user):
        text = self.tool("plan", action, file, "--as-if", release, "--users", user)
        lines = re.findall("(?m)^(?:run     |submit  to the launchd of user 501: )(.*)$", text)
        return [[word.replace("\\n", "\n") for word in line.split(" ")] for line in lines], text

    def assert_plan_holds(self, release):
        self.mac = self.make_mac(release=release)
        self.mac.boot("alice")
        login = self.mac.find("login")[-1]
        user = f"alice:501:{login['pid']}"
        self.run_helper("-runInstall", "1")
        self.wait_for_endpoint()
        self.restore_file()
        for action, file in self.ROAD:
            planned, text = self.planned(action, file, release, user)
            mark = self.mac.mark()
            self.tool(action, file)
            done = [event["argv"] for event in self.mac.find("launchctl", since=mark)]
            for words in planned:
                if words[0] in ("id", "/bin/rm"):
                    continue
                start = words.index("/bin/launchctl") if words[0] == "/usr/bin/sudo" else 0
                self.assertIn(words[start:], done, text)
            if action == "register":
                content = self.mac.read(korvel.agent_path("abc")).decode()
                self.assertIn("\n    " + content.replace("\n", "\n    ") + "\n", text)

    def test_10_6(self):
        self.assert_plan_holds("10.6.8")

    def test_10_10(self):
        self.assert_plan_holds("10.10.5")

    def test_10_11(self):
        self.assert_plan_holds("10.11.6")

    def test_15(self):
        self.assert_plan_holds("15")

    def test_touches_nothing(self):
        before = self.snapshot()
        for action in ("register", "resign", "install-session", "remove-session"):
            self.tool("plan", action, "/Users/alice/abc.dat")
        self.tool("plan", "install")
        self.assertEqual(self.snapshot(), before)

    def test_wrong_use(self):
        for words in (["dance", "x.dat"], ["register"], ["register", "x"],
                      ["register", "x.dat", "--users", "alice"]):
            self.tool("plan", *words, status=2)
