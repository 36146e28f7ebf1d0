"""The two roads of the product as steps: a session registered through the socket, and a session
with a daemon of its own. Every step looks at the Mac itself and says what it saw."""

import korvel
from demo_story import Unexpected, expect

USER, USER_ID = "alice", 501
SESSION = "demo"
RESTORE_FILE = f"/Users/{USER}/{SESSION}.dat"
CONTENT = "address and key of the support session"


class Road:
    """What both roads share: the Mac, the story, and looking at things."""

    def __init__(self, mac, story):
        self.mac = mac
        self.story = story
        self.mark = 0

    # Looking

    def check_file(self, path, expected):
        """A job file: its bytes, mode and owner."""
        expect(self.mac.exists(path), f"no {path}")
        content = self.mac.read(path)
        expect(content == expected, f"{path} holds {content!r}")
        facts = self.mac.mode_owner(path)
        expect(facts == "0644 0:0", f"{path} has {facts}")
        return f"{path} {facts}, {len(content)} bytes"

    def check_started(self, label, domain, argv, uid):
        """A job's process that was started since the mark and still runs."""
        event = self.mac.wait_for("process-started", since=self.mark, label=label, domain=domain)
        expect(event["argv"] == argv and event["uid"] == uid,
               f"user {event['uid']} runs {event['argv']}")
        job = self.mac.job(label, domain)
        expect(job and job["pid"] == event["pid"], f"process {event['pid']} is gone: {job}")
        return f"process {event['pid']} of user {uid} in {domain}: {' '.join(argv)}"

    def check_client(self, label, domain, argv, uid):
        """The client was started like this and found its restore file."""
        seen = self.check_started(label, domain, argv, uid)
        pid = self.mac.job(label, domain)["pid"]
        event = self.mac.wait_for("client", since=self.mark, pid=pid)
        found = event["record"]["restore_content"]
        expect(event["record"]["argv"] == argv, f"the client was given {event['record']['argv']}")
        expect(found == CONTENT, f"{seen}; its restore file holds {found!r}")
        return f"{seen}; restore file read, {len(found)} bytes"

    def check_answers(self, session=None):
        """The endpoint is open to all and answers."""
        path = korvel.endpoint_path(session)
        self.mac.wait_until(lambda: self.mac.exists(path), what=path)
        done = self.mac.rnrctl("ping", "--endpoint", korvel.endpoint(session), user=USER)
        expect(done.status == 0, f"status {done.status}: {done.error_text.strip()}")
        facts = self.mac.mode_owner(path)
        expect(facts.startswith("0666 "), f"{path} has {facts}")
        return f"{path} {facts}, {done.text.strip()}"

    def check_nothing_runs(self, label):
        loaded = self.mac.loaded(label)
        expect(not loaded, f"{label} is loaded: {loaded}")
        running = [entry for entry in self.mac.processes() if SESSION in " ".join(entry[2])]
        expect(not running, f"still running: {running}")

    # Steps of both roads

    def step(self, name, expected, act):
        self.story.step(name, expected, act)

    def boot(self):
        def act():
            self.mac.boot()
            state = self.mac.state()
            owner = self.mac.stat("/dev/console")["st_uid"]
            expect(state["login_window"] and not state["sessions"], str(state))
            expect(owner == 0, f"/dev/console belongs to {owner}")
            return "launchd as process 1, the login window, /dev/console of user 0"
        self.step("boot", "launchd as process 1, and the login window", act)

    def login(self):
        def act():
            self.mark = self.mac.mark()
            session = self.mac.login(USER)
            owner = self.mac.stat("/dev/console")["st_uid"]
            expect(owner == USER_ID, f"/dev/console belongs to {owner}")
            return (f"session {session['session']} (process {session['pid']}),"
                    f" /dev/console of user {owner}")
        self.step("log-in", f"{USER} to have the console", act)

    def restart(self):
        def act():
            before = {pid for pid, _, _ in self.mac.processes()}
            self.mac.write("/tmp/left-behind", "")
            self.mark = self.mac.mark()
            self.mac.restart()
            after = {pid for pid, _, _ in self.mac.processes()}
            expect(not before & after, f"processes that lived on: {before & after}")
            expect(not self.mac.exists("/tmp/left-behind"), "/tmp was not emptied")
            expect(self.mac.state()["login_window"], "no login window")
            return f"{len(before)} processes ended, /tmp emptied, the login window"
        self.step("restart", "all processes to die, /tmp to be emptied, a boot", act)


class SocketRoad(Road):
    """The client registers its session with the shared daemon."""

    ROAD, TITLE = "socket", "a session registered through the socket"
    LABEL = korvel.agent_label(SESSION)
    ARGUMENTS = korvel.client_arguments(SESSION)

    def tell(self):
        self.boot()
        self.install()
        self.serve()
        self.login()
        self.register()
        self.started_at_once()
        self.restart()
        self.serve()
        self.at_login_window()
        self.login()
        self.resumed("gui/501", USER_ID)
        self.resign()
        self.restart()
        self.serve()
        self.login()
        self.nothing_resumed()

    def install(self):
        def act():
            self.mac.put_helper()
            self.mark = self.mac.mark()
            done = self.mac.helper("-runInstall", "1")
            expect(done.status == 0, f"status {done.status}: {done.error_text.strip()}")
            seen = self.check_file(korvel.daemon_path(),
                                   korvel.daemon_file(korvel.SERVICE, [korvel.HELPER]))
            return f"status 0, {seen}"
        self.step("install", "korvel_helper -runInstall 1 to write the daemon's job file, mode 0644"
                             " of 0:0", act)

    def serve(self):
        def act():
            seen = self.check_started(korvel.SERVICE, "system", [korvel.HELPER], 0)
            return f"{seen}; {self.check_answers()}"
        self.step("daemon", "launchd to run the helper as root, and its endpoint to answer", act)

    def register(self):
        def act():
            self.mac.write_restore_file(RESTORE_FILE, CONTENT)
            self.mark = self.mac.mark()
            done = self.mac.rnrctl("register", RESTORE_FILE, user=USER, session=USER)
            expect(done.status == 0, f"status {done.status}: {done.error_text.strip()}")
            expect(not self.mac.exists(RESTORE_FILE), f"{RESTORE_FILE} is still there")
            moved = korvel.restore_path(SESSION)
            expect(self.mac.exists(moved), f"no {moved}")
            expect(self.mac.read_text(moved) == CONTENT, f"{moved} has another content")
            seen = self.check_file(korvel.agent_path(SESSION),
                                   korvel.agent_file(self.LABEL, self.ARGUMENTS))
            return f"{moved} {self.mac.mode_owner(moved)}, {seen}"
        self.step("register", "the restore file in the session folder, the agent's job file", act)

    def started_at_once(self):
        self.step("agent", "the agent to run in the session of the user who is logged in",
                  lambda: self.check_client(self.LABEL, "gui/501", self.ARGUMENTS, USER_ID))

    def at_login_window(self):
        self.step("login window", "the client to wait at the login window already",
                  lambda: self.check_client(self.LABEL, "loginwindow", self.ARGUMENTS, 0))

    def resumed(self, domain, uid):
        self.step("resume", "the client to be back in the user's session, with its restore file",
                  lambda: self.check_client(self.LABEL, domain, self.ARGUMENTS, uid))

    def resign(self):
        def act():
            done = self.mac.rnrctl("resign", korvel.restore_path(SESSION), user=USER, session=USER)
            expect(done.status == 0, f"status {done.status}: {done.error_text.strip()}")
            path = korvel.agent_path(SESSION)
            expect(not self.mac.exists(path), f"{path} is still there")
            self.check_nothing_runs(self.LABEL)
            left = self.mac.listing(korvel.SESSIONS)
            expect(left == [SESSION, f"{SESSION}/{SESSION}.dat"], f"left in the folder: {left}")
            return f"job file gone, client ended, only its restore file left ({' '.join(left)})"
        self.step("resign", "the agent to be removed and its client to end", act)

    def nothing_resumed(self):
        def act():
            started = self.mac.clients(self.mark)
            expect(not started, f"started: {started}")
            self.check_nothing_runs(self.LABEL)
            return "no client, no agent"
        self.step("over", "a session that has resigned not to come back", act)


class SessionRoad(Road):
    """The session gets a daemon of its own, which removes itself in the end."""

    ROAD, TITLE = "session", "a session with a daemon of its own"
    LABEL = korvel.daemon_label(SESSION)
    AGENT = korvel.agent_label(SESSION)
    DAEMON_ARGUMENTS = korvel.session_daemon_arguments(SESSION)
    ARGUMENTS = korvel.client_arguments(
        SESSION, korvel.session_bundle(SESSION) + "/Contents/MacOS/korvel")

    def tell(self):
        self.boot()
        self.login()
        self.install()
        self.bundle()
        self.serve()
        self.restart()
        self.serve()
        self.login()
        self.resumed()
        self.forget()
        self.restart()
        self.removed()
        self.restart()
        self.login()
        self.nothing_resumed()

    def install(self):
        def act():
            self.mac.put_helper()
            self.mac.write_restore_file(RESTORE_FILE, CONTENT)
            self.mark = self.mac.mark()
            done = self.mac.helper("-exePath", korvel.CLIENT_BUNDLE, "-restoreFile", RESTORE_FILE)
            expect(done.status == 0, f"status {done.status}: {done.error_text.strip()}")
            for path in (RESTORE_FILE, korvel.HELPER):
                expect(not self.mac.exists(path), f"{path} is still there")
            moved = [korvel.restore_path(SESSION), korvel.session_helper(SESSION)]
            for path in moved:
                expect(self.mac.exists(path), f"no {path}")
            seen = self.check_file(korvel.daemon_path(SESSION),
                                   korvel.daemon_file(self.LABEL, self.DAEMON_ARGUMENTS))
            return f"status 0, {', '.join(moved)}, {seen}"
        self.step("install", "restore file and helper moved into the session folder, the daemon's"
                             " job file", act)

    def bundle(self):
        def act():
            copy = korvel.session_bundle(SESSION)
            expect(self.mac.listing(copy) == self.mac.listing(korvel.CLIENT_BUNDLE),
                   f"copied: {self.mac.listing(copy)}")
            items = [copy] + [f"{copy}/{name}" for name in self.mac.listing(copy)]
            facts = {item: self.mac.mode_owner(item) for item in items}
            wrong = {item: seen for item, seen in facts.items() if seen != "0777 0:80"}
            expect(not wrong, f"not 0777 root:admin: {wrong}")
            return f"{len(items)} items, all 0777 0:80 (root, admin)"
        self.step("bundle", "a copy of the client, all of it 0777 and of root and admin", act)

    def serve(self):
        def act():
            seen = self.check_started(self.LABEL, "system", self.DAEMON_ARGUMENTS, 0)
            answers = self.check_answers(SESSION)
            agent = self.check_file(korvel.agent_path(SESSION),
                                    korvel.agent_file(self.AGENT, self.ARGUMENTS))
            return f"{seen}; {answers}; {agent}"
        self.step("daemon", "launchd to run the helper's copy, which installs the agent and serves",
                  act)

    def resumed(self):
        self.step("resume", "the client's copy to be back in the user's session, with its"
                            " restore file",
                  lambda: self.check_client(self.AGENT, "gui/501", self.ARGUMENTS, USER_ID))

    def forget(self):
        def act():
            self.mac.file("unlink", korvel.restore_path(SESSION))
            return f"{korvel.restore_path(SESSION)} is gone"
        self.step("end", "the support session to be over: its restore file goes", act)

    def removed(self):
        def act():
            paths = [korvel.agent_path(SESSION), korvel.daemon_path(SESSION),
                     korvel.session_folder(SESSION)]
            try:
                self.mac.wait_until(lambda: not any(map(self.mac.exists, paths)), 30)
            except Exception:
                raise Unexpected(f"left: {[p for p in paths if self.mac.exists(p)]}") from None
            return "both job files and the session folder are gone"
        self.step("removal", "the daemon to find no restore file and to remove all that is its own",
                  act)

    def nothing_resumed(self):
        def act():
            for label in (self.LABEL, self.AGENT):
                self.check_nothing_runs(label)
            expect(not self.mac.clients(self.mark), f"started: {self.mac.clients(self.mark)}")
            path = korvel.endpoint_path(SESSION)
            expect(not self.mac.exists(path), f"{path} is still there")
            return "no daemon, no agent, no client, no endpoint"
        self.step("over", "nothing of the session to come back", act)


ROADS = (SocketRoad, SessionRoad)
