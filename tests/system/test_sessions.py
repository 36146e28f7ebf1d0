"""The roads through restarts and log-ins, under launchd."""

import korvel
from system_case import SystemCase

AGENT = korvel.agent_label("abc")
CLIENT = korvel.client_arguments("abc")


class Road(SystemCase):
    def setUp(self):
        super().setUp()
        self.mac.boot()

    def install(self):
        """The shared daemon, run by launchd."""
        self.run_helper("-runInstall", "1")
        self.wait_for_endpoint()

    def rnrctl(self, *words, user="alice"):
        done = self.mac.rnrctl(*words, user=user, session=user)
        self.assertEqual(done.status, 0, done.error_text)

    def assert_client(self, domain, uid, since, argv=None):
        """The client was started there since the mark, as this user, and found its file, which
        keeps its mode: only root and the user whose file it was can read it."""
        started = self.mac.wait_for("process-started", since=since, label=AGENT, domain=domain)
        self.assertEqual((started["argv"], started["uid"]), (argv or CLIENT, uid))
        record = self.mac.wait_for("client", since=since, pid=started["pid"])["record"]
        self.assertEqual((record["argv"], record["uid"], record["restore_exists"]),
                         (argv or CLIENT, uid, True))
        readable = "resume me" if uid in (0, 501) else None
        self.assertEqual(record["restore_content"], readable)

    def assert_no_client(self, since):
        self.assertEqual(self.mac.clients(since), [])
        self.assertEqual(self.mac.loaded(AGENT), {})


class SharedDaemon(Road):
    def test_two_users_are_logged_in_at_once(self):
        self.mac.login("alice")
        self.mac.login("bob")
        self.install()
        mark = self.mac.mark()
        self.rnrctl("register", self.restore_file())
        self.assert_client("gui/501", 501, mark)
        self.assert_client("gui/502", 502, mark)
        self.rnrctl("resign", korvel.restore_path("abc"), user="bob")
        for domain in ("gui/501", "gui/502"):
            self.mac.wait_for("job-unloaded", since=mark, label=AGENT, domain=domain)
        self.assertEqual(self.mac.loaded(AGENT), {})

    def test_users_who_log_in_while_the_helper_runs(self):
        self.install()
        self.mac.login("alice")
        mark = self.mac.mark()
        self.rnrctl("register", self.restore_file())
        self.assert_client("gui/501", 501, mark)
        self.mac.login("bob")
        self.assert_client("gui/502", 502, mark)
        self.rnrctl("resign", korvel.restore_path("abc"))
        for domain in ("gui/501", "gui/502"):
            self.mac.wait_for("job-unloaded", since=mark, label=AGENT, domain=domain)

    def test_a_user_who_has_logged_out_is_left_alone(self):
        self.mac.login("alice")
        bob = self.mac.login("bob")["pid"]
        self.install()
        self.rnrctl("register", self.restore_file())
        self.mac.logout("alice")
        self.rnrctl("resign", korvel.restore_path("abc"), user="bob")
        stopped = [m for m in self.mac.messages() if "start=0" in m]
        self.assertEqual(stopped, [f"agent in {bob} update (start=0) for {AGENT}"])

    def test_restart_twice_in_a_row(self):
        self.install()
        self.mac.login("alice")
        self.rnrctl("register", self.restore_file())
        for _ in range(2):
            mark = self.mac.mark()
            self.mac.restart()
            self.assert_client("loginwindow", 0, mark)
            self.wait_for_endpoint()
            self.assertEqual(self.mac.rnrctl("ping").status, 0)
        mark = self.mac.mark()
        self.mac.login("alice")
        self.assert_client("gui/501", 501, mark)
        self.assertEqual(self.mac.read_text(korvel.restore_path("abc")), "resume me")

    def test_a_power_failure_loses_nothing(self):
        self.install()
        self.mac.login("alice")
        self.rnrctl("register", self.restore_file())
        mark = self.mac.mark()
        self.mac.restart(hard=True)
        self.wait_for_endpoint()
        self.mac.login("bob")
        self.assert_client("gui/502", 502, mark)

    def test_the_client_comes_back_when_it_dies(self):
        self.install()
        self.mac.login("alice")
        self.rnrctl("register", self.restore_file())
        first = self.mac.wait_for("process-started", label=AGENT, domain="gui/501")
        self.mac.wait_for("client", pid=first["pid"])
        mark = self.mac.mark()
        self.mac.sh(f"kill -9 {first['pid']}")
        self.assert_client("gui/501", 501, mark)

    def test_the_helper_comes_back_when_it_dies(self):
        self.install()
        self.register()
        pid = self.mac.job(korvel.SERVICE)["pid"]
        mark = self.mac.mark()
        self.mac.sh(f"kill -9 {pid}")
        self.mac.wait_for("process-started", since=mark, label=korvel.SERVICE)
        self.mac.wait_until(lambda: self.mac.rnrctl("ping").status == 0)
        self.assert_exists(korvel.restore_path("abc"), korvel.agent_path("abc"))

    def test_a_session_that_has_resigned_does_not_come_back(self):
        self.install()
        self.mac.login("alice")
        self.rnrctl("register", self.restore_file())
        self.rnrctl("resign", korvel.restore_path("abc"))
        mark = self.mac.mark()
        self.mac.restart(login="alice")
        self.assert_no_client(mark)

    def test_installing_once_more_goes_on_serving(self):
        self.install()
        self.run_helper("-runInstall", "1")
        self.assertEqual(self.mac.rnrctl("ping").status, 0)
        self.assert_job_file(korvel.daemon_path(),
                             korvel.daemon_file(korvel.SERVICE, [korvel.HELPER]))


class OwnDaemon(Road):
    """A session with a daemon of its own."""

    OWN = korvel.client_arguments("abc", korvel.session_bundle("abc") + "/Contents/MacOS/korvel")

    def install(self):
        self.run_helper("-restoreFile", self.restore_file(), "-exePath", korvel.CLIENT_BUNDLE)
        self.wait_for_endpoint("abc")

    def ping(self):
        self.assertEqual(self.mac.rnrctl("ping", "--endpoint", korvel.endpoint("abc")).status, 0)

    def wait_until_removed(self):
        paths = [korvel.agent_path("abc"), korvel.daemon_path("abc"), korvel.session_folder("abc")]
        self.mac.wait_until(lambda: not any(map(self.mac.exists, paths)), limit_s=30,
                            what=f"the end of {paths}")

    def test_comes_up_after_a_restart_with_its_agent(self):
        self.install()
        self.assert_job_file(korvel.agent_path("abc"), korvel.agent_file(AGENT, self.OWN))
        mark = self.mac.mark()
        self.mac.restart()
        started = self.mac.wait_for("process-started", since=mark,
                                    label=korvel.daemon_label("abc"))
        self.assertEqual((started["argv"], started["uid"]),
                         (korvel.session_daemon_arguments("abc"), 0))
        self.wait_for_endpoint("abc")
        self.ping()
        mark = self.mac.mark()
        self.mac.login("alice")
        self.assert_client("gui/501", 501, mark, self.OWN)

    def test_installs_its_agent_anew_when_it_is_gone(self):
        self.install()
        self.mac.sh(f"rm {korvel.agent_path('abc')}")
        self.mac.restart()
        self.wait_for_endpoint("abc")
        self.assert_job_file(korvel.agent_path("abc"), korvel.agent_file(AGENT, self.OWN))

    def test_removes_itself_when_the_restore_file_is_gone(self):
        self.install()
        self.mac.sh(f"rm {korvel.restore_path('abc')}")
        self.mac.restart()
        self.wait_until_removed()
        mark = self.mac.mark()
        self.mac.restart(login="alice")
        self.assert_no_client(mark)
        self.assertEqual(self.mac.loaded(korvel.daemon_label("abc")), {})
        self.assert_gone(korvel.endpoint_path("abc"))

    def test_resigning_its_own_session_removes_all_of_it(self):
        self.install()
        self.mac.login("alice")
        self.rnrctl("resign", korvel.restore_path("abc"), "--endpoint", korvel.endpoint("abc"))
        self.wait_until_removed()
        mark = self.mac.mark()
        self.mac.restart(login="alice")
        self.assert_no_client(mark)
        self.assertEqual(self.mac.loaded(korvel.daemon_label("abc")), {})

    def test_lives_beside_the_shared_daemon(self):
        self.run_helper("-runInstall", "1")
        self.mac.put_helper("/private/var/db/other")
        self.run_helper("-restoreFile", self.restore_file(), "-exePath", korvel.CLIENT_BUNDLE,
                        path="/private/var/db/other")
        self.wait_for_endpoint()
        self.wait_for_endpoint("abc")
        self.mac.restart()
        self.wait_for_endpoint()
        self.wait_for_endpoint("abc")
        self.ping()
        self.assertEqual(self.mac.rnrctl("ping").status, 0)
