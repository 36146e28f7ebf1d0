"""What doctor finds on Macs that are broken in each way it knows: it names the finding, its advice is
followed word for word, and the finding is gone."""

import json
import re

import korvel
from system_case import SOURCE, SystemCase

AGENT, DAEMON = korvel.agent_path("abc"), korvel.daemon_path("abc")
SHARED = korvel.daemon_path()
CLIENT = "/Applications/Korvel.app"
TOOL = SOURCE / "tools/rnrctl"


class DoctorCase(SystemCase):
    def findings(self, *words):
        done = self.mac.rnrctl("doctor", "--json", *words)
        found = json.loads(done.text)
        worst = max([{"note": 10, "warning": 11, "error": 12}[f["severity"]] for f in found],
                    default=0)
        self.assertEqual(done.status, worst, done.error_text)
        return {finding["name"]: finding for finding in found}

    def follow(self, finding):
        """Does what the advice says, as a person who copies it into a root shell."""
        self.assertTrue(finding["advice"])
        for line in finding["advice"]:
            self.mac.sh(f'rnrctl() {{ {self.mac.rnrctl_path} "$@"; }}; {line}')

    def check(self, name, break_it, *words, cure=None):
        self.assertNotIn(name, self.findings(*words))
        break_it()
        found = self.findings(*words)
        self.assertIn(name, found)
        for part in ("seen", "means"):
            self.assertTrue(found[name][part])
        if cure:
            cure()
        else:
            self.follow(found[name])
        self.assertNotIn(name, self.findings(*words))
        return found[name]

    def shell(self, line):
        return lambda: self.mac.sh(line)


class Doctor(DoctorCase):
    """Without launchd: a helper that was started by hand, and one registered session."""

    def setUp(self):
        super().setUp()
        self.serve()
        self.restore_file()
        self.mac.rnrctl("register", "/Users/alice/abc.dat")
        self.mac.wait_until(lambda: self.mac.exists(AGENT))

    def test_job_file_mode(self):
        found = self.check("job-file-mode", self.shell(f"chmod 0666 {AGENT}"))
        self.assertEqual(found["advice"], [f"chmod 0644 {AGENT}"])
        self.assertEqual(found["id"], "abc")

    def test_job_file_owner(self):
        self.check("job-file-owner", self.shell(f"chown 501:20 {AGENT}"))

    def test_job_file_no_file(self):
        self.check("job-file-no-file", self.shell(f"rm {AGENT} && mkdir {AGENT}"))

    def test_job_label_differs(self):
        self.check("job-label-differs",
                   self.shell(f"sed -i s/restart.abc/restart.xyz/ {AGENT}"))

    def test_job_file_edited(self):
        self.check("job-file-edited", self.shell(f"echo >>{AGENT}"))
        self.assert_gone(AGENT)

    def test_job_program_missing(self):
        self.check("job-program-missing", self.shell(f"sed -i s,MacOS/korvel,MacOS/none, {AGENT}"))

    def test_client_missing(self):
        self.check("client-missing", self.shell(f"mv {CLIENT} /Applications/x"),
                   cure=self.shell(f"mv /Applications/x {CLIENT}"))

    def test_left_over_target(self):
        self.check("left-over-target", self.shell(f"rm {AGENT}"))
        self.restore_file()
        self.mac.rnrctl("register", "/Users/alice/abc.dat")
        self.mac.wait_until(lambda: self.mac.exists(AGENT))

    def test_nobody_behind(self):
        self.check("nobody-behind", self.shell(f"rm {korvel.restore_path('abc')}"))
        self.assert_gone(AGENT, korvel.session_folder("abc"))

    def test_dead_socket(self):
        def end_helper():
            self.served.kill()
            self.served.wait()
        self.check("dead-socket", end_helper)

    def test_endpoint_blocked(self):
        def block():
            self.served.kill()
            self.served.wait()
            self.mac.sh(f"rm {korvel.endpoint_path()}; mkdir {korvel.endpoint_path()}")
        self.check("endpoint-blocked", block)

    def test_endpoint_silent(self):
        self.check("endpoint-silent", self.shell(f"kill -STOP {self.served.pid}"),
                   cure=self.shell(f"kill -CONT {self.served.pid}"))

    def test_duplicate_label(self):
        self.check("duplicate-label",
                   self.shell(f"cp {AGENT} /Library/LaunchAgents/other.plist"))
        self.assert_exists(AGENT)

    def test_log_not_writable(self):
        self.check("log-not-writable", self.shell(f"rm -f {korvel.LOG}; ln -s /tmp/x {korvel.LOG}"))

    def test_wide_folder(self):
        helper = korvel.session_folder("abc") + "/helper"
        self.mac.sh("chmod 0755 /Library/VeskRuntime /Library/VeskRuntime/sessions")
        found = self.check("wide-folder", self.shell(f"mkdir -m 0777 {helper}"), "--security")
        self.assertIn(helper, found["seen"])
        self.assertNotIn("wide-folder", self.findings())

    def test_socket_path_too_long(self):
        long = "a" * 90
        self.check("socket-path-too-long", self.shell(
            f"mkdir -p {korvel.session_folder(long)}; "
            f"cp {AGENT} {korvel.daemon_path(long)}"))

    def test_a_finding_of_another_session_is_left_out(self):
        self.mac.sh(f"chmod 0666 {AGENT}")
        self.assertIn("job-file-mode", self.findings("abc"))
        self.assertNotIn("job-file-mode", self.findings("other"))

    def test_people_read_what_was_seen_what_it_means_and_what_to_do(self):
        self.mac.sh(f"chmod 0666 {AGENT}")
        done = self.mac.rnrctl("doctor", "abc")
        self.assertEqual(done.status, 12)
        self.assertRegex(done.text, r"(?m)^error: job-file-mode \(session abc\)\n  seen:  .+\n"
                                    r"  means: .+\n  do:    chmod 0644 .+$")

    def test_session_unknown(self):
        found = self.findings("xyz")["session-unknown"]
        self.assertEqual((found["id"], found["severity"]), ("xyz", "error"))
        self.assertEqual(found["advice"], ["rnrctl log --id xyz", "rnrctl register FILE"])
        self.restore_file("xyz")
        self.mac.rnrctl("register", "/Users/alice/xyz.dat")
        self.assertEqual(self.findings("xyz"), {})

    def test_every_name_has_a_test_and_stands_in_the_manual(self):
        names = set(re.findall(r'push_back\(\s*\{"([a-z-]+)"',
                               (TOOL / "doctor.cpp").read_text(encoding="utf-8")))
        tests = {name[5:].replace("_", "-") for case in (Doctor, DoctorOfLaunchd)
                 for name in dir(case) if name.startswith("test_")}
        self.assertEqual(names - tests, set())
        manual = (SOURCE / "docs/man/rnrctl.8").read_text(encoding="utf-8")
        findings = manual.partition(".Sh FINDINGS")[2].partition(".Sh ")[0]
        self.assertEqual(re.findall(r"(?m)^\.It Cm (.+)$", findings), sorted(names))


class DoctorOfLaunchd(DoctorCase):
    """A booted Mac with the shared daemon, and nobody logged in."""

    def setUp(self):
        super().setUp()
        self.mac.boot()
        self.run_helper("-runInstall", "1")
        self.wait_for_endpoint()

    def test_a_mac_that_works_has_no_finding(self):
        self.assertEqual(self.findings(), {})

    def test_helper_missing(self):
        def remove():
            self.unload()()
            self.mac.sh(f"rm {SHARED} {korvel.endpoint_path()}")
        found = self.check("helper-missing", remove)
        self.assertEqual((found["severity"], found["id"]), ("note", ""))
        self.wait_for_endpoint()

    def test_agent_not_loaded(self):
        self.mac.login("alice")
        self.restore_file()
        self.mac.rnrctl("register", "/Users/alice/abc.dat", user="alice", session="alice")
        label = "com.norvane.korvel.restart.abc"
        self.mac.wait_until(lambda: self.mac.loaded(label))

        def unload():
            self.mac.sh(f"launchctl unload {AGENT}", user="alice", session="alice")
            self.mac.wait_until(lambda: not self.mac.loaded(label))
        found = self.check("agent-not-loaded", unload)
        self.assertIn("alice", found["seen"])
        self.assertEqual(found["id"], "abc")
        self.assertTrue(self.mac.loaded(label))

    def unload(self, *flags):
        def act():
            self.mac.sh(f"/bin/launchctl unload {' '.join(flags)} {SHARED}")
            self.mac.wait_until(lambda: not self.mac.loaded("com.norvane.korvel.helper"))
        return act

    def test_job_not_loaded(self):
        self.check("job-not-loaded", self.unload())

    def test_job_disabled(self):
        self.check("job-disabled", self.unload("-w"))

    def test_job_loaded_without_file(self):
        self.check("job-loaded-without-file", self.shell(f"rm {SHARED}"))

    def test_helper_not_serving(self):
        def break_it():
            self.unload()()
            self.mac.sh(f"rm -f {korvel.endpoint_path()}")
        found = None

        def cure():
            self.mac.sh(f"/bin/launchctl load -w {SHARED}")
            self.wait_for_endpoint()
        found = self.check("helper-not-serving", break_it, cure=cure)
        self.assertEqual(found["advice"], [f"launchctl load -w {SHARED}"])


class DoctorOfOlderLaunchd(DoctorOfLaunchd):
    release = "10.6.8"
