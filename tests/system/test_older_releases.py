"""Before macOS 10.10: agents are loaded through sudo in the console user's session, and by a job
that each user's own launchd is asked to run."""

import korvel
from system_case import REGISTER, RESIGN, SystemCase

AGENT = korvel.agent_path("abc")
LABEL = korvel.agent_label("abc")
USERS = {"alice": 501, "bob": 502}
REMOVE = {"RemoveJob": "norvane.jobsubmit"}


def submit(verb):
    """The one-shot job as a launchd of that time reads it: its booleans are all false."""
    return {"SubmitJob": {
        "KeepAlive": False, "Label": "norvane.jobsubmit", "OnDemand": False,
        "ProgramArguments": ["/bin/launchctl", verb, "-S", "Aqua", AGENT], "RunAtLoad": False}}


def exchange(verb):
    return [REMOVE, submit(verb), REMOVE]


class Before1010:
    """Mixed into one case for each release."""

    def setUp(self):
        super().setUp()
        self.mac.boot()
        for user in ("bob", "alice"):  # who logs in last has the console
            self.mac.login(user)

    def requests(self, user):
        return [e["request"] for e in self.mac.find("launchd-message", user=user)]

    def assert_requests(self, user, expected):
        self.mac.wait_until(lambda: len(self.requests(user)) >= len(expected),
                            what=f"{expected} in {self.requests(user)}")
        self.assertEqual(self.requests(user), expected)
        self.assertEqual(self.mac.find("launchd-message-refused"), [])

    def assert_agent_runs(self, user):
        started = self.mac.wait_for("process-started", label=LABEL, domain=f"gui/{USERS[user]}")
        self.assertEqual((started["uid"], started["argv"]),
                         (USERS[user], korvel.client_arguments("abc")))

    def test_without_the_display_every_user_is_reached_through_launchd(self):
        self.serve()
        path = self.restore_file()
        self.ask_well(REGISTER, path)
        for user in USERS:
            self.assert_requests(user, exchange("load"))
            self.assert_agent_runs(user)
        self.ask_well(RESIGN, path)
        for user in USERS:
            self.assert_requests(user, exchange("load") + exchange("unload"))
        self.assert_gone(AGENT)
        self.mac.wait_until(lambda: not self.mac.loaded(LABEL), what="no agent left")

    def test_the_console_user_is_reached_through_sudo_and_then_through_launchd(self):
        self.served = self.trace(XDG_SESSION_TYPE="x11")
        self.wait_for_endpoint()
        loading = ["/bin/launchctl", "load", "-S", "Aqua", AGENT]
        self.assert_runs([["/usr/bin/sudo", "-u", "#501", *loading], loading],
                         lambda: self.ask_well(REGISTER, self.restore_file()))
        for user in USERS:
            self.assert_requests(user, exchange("load"))
            self.assert_agent_runs(user)

    def test_the_console_users_agent_is_unloaded_and_removed_by_its_label(self):
        self.served = self.trace(XDG_SESSION_TYPE="x11")
        self.wait_for_endpoint()
        path = self.restore_file()
        unloading = ["/bin/launchctl", "unload", "-S", "Aqua", AGENT]
        removing = ["/bin/launchctl", "remove", LABEL]
        self.assert_runs([["/usr/bin/sudo", "-u", "#501", *unloading], unloading,
                          ["/usr/bin/sudo", "-u", "#501", *removing], removing,
                          ["/bin/rm", "-fr", AGENT]],
                         lambda: self.ask_well(RESIGN, path))
        self.assert_requests("alice", [])
        self.assert_requests("bob", exchange("unload"))

    def test_the_exchange_is_told_in_the_log(self):
        self.serve()
        self.ask_well(REGISTER, self.restore_file())
        told = [f"launchd_agent_install_only: writing pinfo: {AGENT}"]
        for user, uid in USERS.items():
            rpc = f"send_to_sock: rpc to {self.launchd_folder(uid)}/sock"
            told += [f"launchd_agent_start: agent in {uid} update (start=1) for {LABEL} 0",
                     "launchd_exec: preparing ...", rpc, "launchd_call: received 9-3-0",
                     "launchd_exec: submiting ...", rpc, "launchd_call: received 9-0-0",
                     "launchd_exec: cleaning ...", rpc, "launchd_call: received 9-0-0"]
        self.mac.wait_until(lambda: len(self.exchange_log()) >= len(told), what=told[-1])
        self.assertEqual(self.exchange_log(), told)

    def launchd_folder(self, uid):
        folders = self.mac.sh("ls -d /tmp/launchd-*").split()
        return next(f for f in folders if self.mac.stat(f)["st_uid"] == uid)

    def exchange_log(self):
        lines = [f"{n}: {t}" for n, t in self.mac.log(korvel.LOG)] \
            if self.mac.exists(korvel.LOG) else []
        return [line for line in lines if not line.startswith(("get_", "attached_"))]

    def test_an_answer_in_pieces_is_put_together(self):
        self.serve()
        self.mac.script_socket("alice", {"steps": [["genuine", 0, 10], ["pause", 0.2],
                                                   ["genuine", 10, 40]]})
        self.ask_well(REGISTER, self.restore_file())
        self.assert_requests("alice", exchange("load"))
        self.assert_logged("send_to_sock: got 10 - retrying")

    def test_a_launchd_that_hangs_up_does_not_keep_the_others_waiting(self):
        self.serve()
        self.mac.script_socket("alice", *3 * [{"steps": [["close"]], "perform": False}])
        self.ask_well(REGISTER, self.restore_file())
        self.assert_requests("bob", exchange("load"))
        self.assert_agent_runs("bob")

    def test_an_endless_answer_is_refused_and_the_next_request_served(self):
        self.serve()
        self.mac.script_socket("alice", *3 * [{"steps": [
            ["send", "419ab36620a0fed2" + "2000000000000000"], ["endless"]]}])
        self.ask_well(REGISTER, self.restore_file())
        self.assert_requests("bob", exchange("load"))
        self.assert_serves()


class Release106(Before1010, SystemCase):
    release = "10.6.8"


class Release109(Before1010, SystemCase):
    release = "10.9.5"
