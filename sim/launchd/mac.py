"""The Mac as a person sees it: booting, the login window, log-ins, switching, restarting.

What waits is a flow (see loop.py): other work goes on meanwhile.
"""

import os
import pwd
import shutil
import signal
from dataclasses import dataclass

from . import jobfile, loginrecords
from .jobfile import Refusal
from .jobs import PATH, Domain, credentials, user_environment
from .loop import Until
from .peruser import PerUserLaunchd
from .spawn import Launch, spawn

LOGIN_WINDOW = "/System/Library/CoreServices/loginwindow.app/Contents/MacOS/loginwindow"
PER_USER_PROGRAM = "/sbin/launchd"
DAEMON_FOLDERS = ("/System/Library/LaunchDaemons", "/Library/LaunchDaemons")
AGENT_FOLDERS = ("/System/Library/LaunchAgents", "/Library/LaunchAgents")
CONSOLE = "/dev/console"


class MacError(Exception):
    """What was asked for is impossible now."""


@dataclass
class Session:
    """A log-in session: the process whose login record stands for it, and its context."""

    number: int
    user: str           # "root" at the login window
    uid: int
    pid: int
    context: int        # descriptor of the bootstrap context
    inode: int          # by which a process is recognised as one of the session


def context_of(pid):
    """The number of the bootstrap context that a process is in. Throws OSError when it ended."""
    return os.stat(f"/proc/{pid}/ns/uts").st_ino


def processes():
    return [int(name) for name in os.listdir("/proc") if name.isdigit()]


class Mac:
    """Sessions and what boot, login, logout and restart do to them and to the jobs."""

    def __init__(self, loop, timeline, launchd, release, settings):
        self._loop = loop
        self._timeline = timeline
        self._launchd = launchd
        self._release = release
        self._settings = settings
        self.per_user = {}          # user name to the user's launchd, before 10.10
        self.sessions = {}          # user name to session
        self.login_window = None    # the login window's session while it is shown
        self.console = None         # the user whose session has the screen
        self.up = False
        self._number = 100000

    # Boot and restart

    def boot(self):
        if self.up:
            raise MacError("the Mac runs already")
        self.up = True
        loginrecords.reset()
        self._timeline.add("boot")
        self._own_console(0)
        system = self._launchd.add_domain(Domain("system", "System"))
        self._load_folders(DAEMON_FOLDERS, system)
        self._show_login_window()
        return
        yield  # a flow like the others, although it never waits

    def restart(self, hard=False):
        """Everything is ended and the Mac boots again; `hard` as if the power had failed."""
        yield from self.shut_down(hard)
        yield from self.boot()

    def shut_down(self, hard=False):
        self._require_up()
        self._timeline.add("restart", hard=hard)
        if not hard:
            yield from self._end_all_jobs()
        self.up = False
        self._launchd.forget_everything()
        self._kill_everything()
        if not (yield Until(lambda: processes() == [1], limit_s=10, poll_s=0.002)):
            raise MacError(f"processes do not end: {processes()[1:]}")
        self._forget_sessions()
        self._empty("/private/tmp")
        self._empty("/private/var/run", keep=("utmp", "macroot.sock"))
        loginrecords.reset()
        self._own_console(0)

    def _end_all_jobs(self):
        for domain in self._launchd.domains.values():
            self._launchd.unload_all(domain)
        domains = list(self._launchd.domains.values())
        yield Until(lambda: not any(domain.jobs for domain in domains),
                    limit_s=2 * self._settings.exit_timeout_s)

    def _kill_everything(self):
        try:
            os.kill(-1, signal.SIGKILL)
        except ProcessLookupError:
            pass

    def _forget_sessions(self):
        for per_user in self.per_user.values():
            per_user.close()
        processes_of = [per_user.process for per_user in self.per_user.values()]
        for session in [*self.sessions.values(), *processes_of, self.login_window]:
            if session is not None:
                os.close(session.context)
        self.sessions, self.per_user, self.login_window, self.console = {}, {}, None, None

    def _empty(self, folder, keep=()):
        """Removes what the folder holds but for mount points and the folders above them."""
        with open("/proc/self/mountinfo", encoding="utf-8") as mounts:
            points = [line.split()[4] + "/" for line in mounts]
        for name in os.listdir(folder):
            path = f"{folder}/{name}"
            if name in keep or path + "/" in points:
                continue
            if any(point.startswith(path + "/") for point in points):
                self._empty(path)
            elif os.path.isdir(path) and not os.path.islink(path):
                shutil.rmtree(path, ignore_errors=True)
            else:
                os.unlink(path)

    # The login window

    def _show_login_window(self):
        self.login_window = self._open_session("root")
        self.console = None
        self._own_console(0)
        domain = self._launchd.add_domain(
            Domain("loginwindow", "LoginWindow", 0, self.login_window, self.login_window.context))
        self._timeline.add("login-window", pid=self.login_window.pid)
        self._load_folders(AGENT_FOLDERS, domain)

    def _end_login_window(self):
        if self.login_window is not None:
            session, self.login_window = self.login_window, None
            yield from self._close_session(session, ["loginwindow"])

    # Log-ins

    def login(self, name):
        """The user logs in; whoever is logged in already stays so, without the screen."""
        self._require_up()
        try:
            user = pwd.getpwnam(name)
        except KeyError:
            raise MacError(f"no such user: {name}") from None
        if name in self.sessions or user.pw_uid == 0:
            raise MacError(f"{name} cannot log in twice" if user.pw_uid else "root cannot log in")
        yield from self._end_login_window()
        session = self.sessions[name] = self._open_session(name)
        self._make_temporary_folder(user)
        self.console = name
        self._own_console(user.pw_uid)
        loginrecords.log_in(session.pid, name)
        self._timeline.add("login", user=name, uid=user.pw_uid, pid=session.pid,
                           session=session.number)
        self._add_user_domains(user, session)
        return {"pid": session.pid, "session": session.number}

    def _add_user_domains(self, user, session):
        folders = AGENT_FOLDERS + (f"{user.pw_dir}/Library/LaunchAgents",)
        background = self.user_domain(user.pw_uid)
        gui = self._launchd.add_domain(
            Domain(f"gui/{user.pw_uid}", "Aqua", user.pw_uid, session, session.context))
        if self._release.legacy:
            self._start_per_user(user, background, gui)
        self._load_folders(folders, background)
        self._load_folders(folders, gui)

    def _start_per_user(self, user, background, gui):
        """The user's own launchd, with a process, a context and a socket."""
        process = self._open_context(user, [PER_USER_PROGRAM], **credentials(
            user, user.pw_gid, self._settings.single_id))
        background.context = process.context
        per_user = self.per_user[user.pw_name] = PerUserLaunchd(
            self._loop, self._timeline, self._launchd, user, background, process,
            self._settings.single_id)
        background.variables = gui.variables = {"LAUNCHD_SOCKET": per_user.path}

    def user_domain(self, uid):
        """The domain of a user outside every log-in session; made when it is first needed."""
        name = f"user/{uid}"
        return self._launchd.domains.get(name) or self._launchd.add_domain(
            Domain(name, "Background", uid))

    def logout(self, name):
        self._require_up()
        if name not in self.sessions:
            raise MacError(f"{name} is not logged in")
        session = self.sessions.pop(name)
        yield from self._close_session(session, [f"gui/{session.uid}", f"user/{session.uid}"])
        if name in self.per_user:
            per_user = self.per_user.pop(name)
            yield from self._close_session(per_user.process, [])
            per_user.close()
        loginrecords.log_out(session.pid)
        self._timeline.add("logout", user=name, uid=session.uid)
        if self.console == name:
            self._show_login_window()

    def switch(self, name):
        """Gives the screen to another user who is logged in, or (None) to the login window."""
        self._require_up()
        if name is not None and name not in self.sessions:
            raise MacError(f"{name} is not logged in")
        if name == self.console:
            return
        self._timeline.add("switch", user=name)
        if name is None:
            self._show_login_window()
            return
        yield from self._end_login_window()
        self.console = name
        self._own_console(self.sessions[name].uid)

    def find_session(self, user):
        """The session of a user, or of the login window ("loginwindow"). Throws MacError."""
        session = self.login_window if user == "loginwindow" else self.sessions.get(user)
        if session is None:
            raise MacError(f"no such session: {user}")
        return session

    def per_user_with(self, inode):
        """The user's launchd whose jobs are in this context, or None."""
        return next((one.process for one in self.per_user.values()
                     if one.process.inode == inode), None)

    def session_with(self, inode):
        """The user's session whose processes are in this context, or None."""
        return next((one for one in self.sessions.values() if one.inode == inode), None)

    def in_session(self, session):
        """The processes of the session."""
        found = []
        for pid in processes():
            try:
                if context_of(pid) == session.inode:
                    found.append(pid)
            except OSError:
                continue  # ended meanwhile
        return found

    # Parts of the above

    def _require_up(self):
        if not self.up:
            raise MacError("the Mac is down")

    def _open_session(self, name):
        """Starts the process that stands for the session, in a context of its own."""
        self._number += 1
        return self._open_context(pwd.getpwnam(name), [LOGIN_WINDOW, "console"])

    def _open_context(self, user, words, **rights):
        environment = {"PATH": PATH, **user_environment(user)}
        pid = spawn(Launch(LOGIN_WINDOW, words, environment, own_context=True, **rights))
        context = os.open(f"/proc/{pid}/ns/uts", os.O_RDONLY | os.O_CLOEXEC)
        return Session(self._number, user.pw_name, user.pw_uid, pid, context,
                       os.fstat(context).st_ino)

    def _close_session(self, session, domains):
        """Ends the session's jobs, then whatever else runs in it."""
        gone = [self._launchd.domains[name] for name in domains if name in self._launchd.domains]
        for domain in gone:
            self._launchd.unload_all(domain)
        limit_s = 2 * self._settings.exit_timeout_s
        yield Until(lambda: not any(domain.jobs for domain in gone), limit_s)
        for name in domains:
            self._launchd.remove_domain(name)
        for number in (signal.SIGTERM, signal.SIGKILL):
            for pid in self.in_session(session):
                try:
                    os.kill(pid, number)
                except ProcessLookupError:
                    pass
            yield Until(lambda: not self.in_session(session), limit_s, poll_s=0.005)
        os.close(session.context)

    def _own_console(self, uid):
        if not self._settings.single_id:
            os.chown(CONSOLE, uid, 4)

    def _make_temporary_folder(self, user):
        folder = f"/var/folders/{user.pw_uid}/T"
        os.makedirs(folder, mode=0o755, exist_ok=True)
        if not self._settings.single_id:
            os.chown(folder, user.pw_uid, user.pw_gid)
        os.chmod(folder, 0o700)

    def _load_folders(self, folders, domain):
        for folder in folders:
            names = sorted(os.listdir(folder)) if os.path.isdir(folder) else []
            for name in names:
                if name.endswith(".plist") and not name.startswith("."):
                    self._load_file(f"{folder}/{name}", domain)

    def _load_file(self, path, domain):
        """One file at boot or login: what is for other sessions is passed over in silence."""
        owner = domain.uid if path.startswith("/Users/") else 0
        try:
            spec = jobfile.read(path, owner)
            if domain.session_type == "System" or spec.belongs_to(domain.session_type):
                self._launchd.load(spec, domain)
        except Refusal as refusal:
            self._timeline.add("job-refused", path=path, domain=domain.name, code=refusal.code,
                               reason=refusal.reason)
