"""What the world outside may ask of the simulated Mac: log-ins, restarts, commands, files.

A request is a dictionary with "op" and the operation's fields; the result of an operation becomes
the answer's fields. Operations are flows or plain functions. Descriptors travel beside messages.
"""

import ctypes
import os
import pwd
import signal

from .jobs import PATH, credentials, session_environment, user_environment
from .mac import MacError
from .spawn import Launch, spawn

FILE_CALLS = frozenset(["stat", "lstat", "listdir", "mkdir", "makedirs", "rmdir", "unlink",
                        "rename", "chmod", "chown", "symlink", "readlink", "utime"])
MS_BIND, MNT_DETACH = 4096, 2
_libc = ctypes.CDLL(None, use_errno=True)


def checked(result):
    if result != 0:
        error = ctypes.get_errno()
        raise OSError(error, os.strerror(error))


class Control:
    """The operations, each a method named op_NAME(request, descriptors) -> dictionary or flow."""

    def __init__(self, mac, launchd, launchctl, loop, single_id):
        self._mac = mac
        self._launchd = launchd
        self._launchctl = launchctl
        self._loop = loop
        self._single_id = single_id
        self._commands = {}     # pid to what is called with the command's status

    def perform(self, request, descriptors):
        method = getattr(self, "op_" + str(request.get("op")), None)
        if method is None:
            raise MacError(f"no such operation: {request.get('op')}")
        return method(request, descriptors)

    def process_exited(self, pid, status):
        """A child that is no job's has ended."""
        done = self._commands.pop(pid, None)
        if done is not None:
            done(status)

    # The Mac

    def op_boot(self, request, descriptors):
        return self._mac.boot()

    def op_restart(self, request, descriptors):
        return self._mac.restart(request.get("hard", False))

    def op_login(self, request, descriptors):
        return self._mac.login(request["user"])

    def op_logout(self, request, descriptors):
        return self._mac.logout(request["user"])

    def op_switch(self, request, descriptors):
        return self._mac.switch(request["user"])

    def op_shutdown(self, request, descriptors):
        self._loop.stop()
        return {}

    def op_state(self, request, descriptors):
        """Sessions, console and jobs as they are now."""
        return {
            "up": self._mac.up, "console": self._mac.console,
            "sessions": {name: {"uid": one.uid, "pid": one.pid, "session": one.number}
                         for name, one in self._mac.sessions.items()},
            "login_window": self._mac.login_window is not None,
            "domains": {name: {label: {"pid": job.pid, "status": job.last_status,
                                       "path": job.spec.path, "leaving": job.leaving}
                               for label, job in domain.jobs.items()}
                        for name, domain in self._launchd.domains.items()}}

    # Commands

    def op_run(self, request, descriptors):
        """Runs a command as a user, in a session or outside of all; three descriptors come along.
        The answer tells its pid; the event "command-exited" (not kept) its status."""
        user = pwd.getpwnam(request.get("user", "root"))
        session = request.get("session")
        session = None if session is None else self._mac.find_session(session)
        environment = {"PATH": PATH, **user_environment(user), **session_environment(session),
                       **request.get("env", {})}
        words = request["argv"]
        pid = spawn(Launch(
            self._find(words[0]), words, environment, work_folder=request.get("cwd", "/"),
            **credentials(user, user.pw_gid, self._single_id),
            context=session.context if session else -1, files=tuple(descriptors),
            terminal=request.get("terminal", False)))
        self._commands[pid] = request["exited"]
        return {"pid": pid}

    def _find(self, program):
        folders = [] if "/" in program else PATH.split(":")
        return next((f"{folder}/{program}" for folder in folders
                     if os.access(f"{folder}/{program}", os.X_OK)), program)

    def op_kill(self, request, descriptors):
        os.kill(request["pid"], request.get("signal", signal.SIGTERM))
        return {}

    def op_terminal(self, request, descriptors):
        """A terminal of the root's own: its two ends."""
        master, slave = os.openpty()
        return {"descriptors": [master, slave]}

    # Files

    def op_open(self, request, descriptors):
        flags = request.get("flags", os.O_RDONLY) | os.O_CLOEXEC | os.O_NONBLOCK
        return {"descriptors": [os.open(request["path"], flags, request.get("mode", 0o644))]}

    def op_file(self, request, descriptors):
        """One call of the os module, by name."""
        if request["call"] not in FILE_CALLS:
            raise MacError(f"no such call: {request['call']}")
        value = getattr(os, request["call"])(*request["arguments"])
        if isinstance(value, os.stat_result):
            value = {name: getattr(value, name) for name in dir(value) if name.startswith("st_")}
        return {"value": value}

    def op_cover(self, request, descriptors):
        """Puts a file over another, even over one of the machine's read-only programs."""
        checked(_libc.mount(os.fsencode(request["source"]), os.fsencode(request["path"]), None,
                            MS_BIND, None))
        return {}

    def op_uncover(self, request, descriptors):
        checked(_libc.umount2(os.fsencode(request["path"]), MNT_DETACH))
        return {}

    # Scripted misbehaviour

    def op_script(self, request, descriptors):
        """The next calls of a launchctl verb end as ordered instead of doing their work."""
        self._launchctl.scripted.setdefault(request["verb"], []).extend(request["answers"])
        return {}

    def op_script_socket(self, request, descriptors):
        """The next answers of a user's launchd, before 10.10; see peruser.Talk for the steps."""
        per_user = self._mac.per_user.get(request["user"])
        if per_user is None:
            raise MacError(f"{request['user']} has no launchd of an own")
        per_user.orders.extend(request["answers"])
        return {}
