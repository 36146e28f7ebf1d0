"""The demonstration for a real Mac, inside a simulated one: both halves, a failure, the refusals."""

import korvel
from system_case import PYTHON, SOURCE, SystemCase

BUDDY = "/var/db/PlistBuddy"


class DemoOnThisMac(SystemCase):
    def demo(self, *words, status=0, **options):
        done = self.mac.run([PYTHON, "-IS", str(SOURCE / "sim/demo_this_mac.py"), *words],
                            limit_s=110, env={"PLIST_BUDDY": BUDDY}, **options)
        self.assertEqual(done.status, status, done.text + done.error_text)
        return done.text + done.error_text

    def setUp(self):
        super().setUp()
        self.mac.boot(login="alice")
        self.mac.write(BUDDY, "#!/bin/sh\nexec /usr/bin/python3 -IS"
                              f" {SOURCE}/tests/system/plist_buddy.py \"$@\"\n", 0o755)

    def test_both_halves_and_a_restart_between_them(self):
        self.mac.sh(f"rm -r {korvel.CLIENT_BUNDLE}")    # the stand-in client is then its own
        told = self.demo("--on-this-mac", "--helper", self.mac.built_helper)
        self.assertIn("restart this Mac", told)
        self.mac.restart(login="alice")
        told = self.demo("--on-this-mac", "--after-restart")
        for step in ("daemon", "resume", "resign", "uninstall"):
            self.assertRegex(told, f"ok  +{step}:")
        self.assert_gone(korvel.HELPER, korvel.daemon_path(), korvel.CLIENT_BUNDLE)

    def test_failed_step_ends_it(self):
        self.demo("--on-this-mac", "--helper", self.mac.built_helper)
        self.mac.sh(f"rm {korvel.agent_path('korveldemo')}")
        self.mac.sh("rm -r /Library/VeskRuntime/sessions/korveldemo")
        self.assertIn("FAIL  resume", self.demo("--on-this-mac", "--after-restart", status=1))

    def test_mac_with_the_product_is_left_alone(self):
        self.run_helper("-runInstall", "1")
        told = self.demo("--on-this-mac", "--helper", self.mac.built_helper, status=1)
        self.assertIn("the product is here already", told)

    def test_refuses_without_the_flag_and_for_users(self):
        self.assertIn("say --on-this-mac", self.demo("--helper", self.mac.built_helper, status=2))
        self.assertIn("as root", self.demo("--on-this-mac", "--helper", self.mac.built_helper,
                                           status=2, user="alice"))
        self.assert_gone(korvel.HELPER, korvel.daemon_path())

    def test_refuses_where_there_is_no_mac(self):
        self.mac.sh("rm /System/Library/CoreServices/SystemVersion.plist")
        self.assertIn("no Mac", self.demo("--on-this-mac", "--helper", self.mac.built_helper,
                                          status=2))
