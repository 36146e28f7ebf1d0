"""Domains and their jobs: loading, starting, keeping alive, throttling, ending."""

import grp
import os
import pwd
import signal
import time
from dataclasses import dataclass, field

from . import releases
from .jobfile import Refusal
from .spawn import Launch, SpawnError, spawn

PATH = "/usr/bin:/bin:/usr/sbin:/sbin"
# The times that launchd.plist(5) tells; a root shortens them by its own factors.
REAL_THROTTLE_S = 10
REAL_EXIT_TIMEOUT_S = 20


@dataclass
class Domain:
    """Where jobs live: "system", "gui/UID", "user/UID", "loginwindow"."""

    name: str
    session_type: str           # System, Aqua, Background or LoginWindow
    uid: int = 0                # whose jobs they are
    session: object = None      # the log-in session that its processes have the display of
    context: int = -1           # descriptor of the bootstrap context of its processes, -1 for none
    variables: dict = field(default_factory=dict)   # what else they find in their environment
    jobs: dict = field(default_factory=dict)

    @property
    def owner(self):
        """The name of the domain whose overrides count: a user has one set for all sessions."""
        return f"user/{self.uid}" if self.uid else "system"


class Job:
    """A loaded job and, while it runs, its process."""

    def __init__(self, spec, domain):
        self.spec = spec
        self.domain = domain
        self.pid = None
        self.last_status = 0
        self.started = float("-inf")
        self.leaving = False
        self.timer = None


def credentials(user, gid, single_id):
    """With whose rights a process of the user runs. Where only one id exists, everybody is root."""
    if single_id:
        return {}
    return {"uid": user.pw_uid, "gid": gid, "groups": os.getgrouplist(user.pw_name, gid)}


def identity(job):
    """The passwd entry and group id that the job runs with. Throws SpawnError."""
    spec = job.spec
    try:
        user = (pwd.getpwnam(spec.user) if spec.user and job.domain.uid == 0
                else pwd.getpwuid(job.domain.uid))
        gid = grp.getgrnam(spec.group).gr_gid if spec.group else user.pw_gid
    except KeyError:
        raise SpawnError(f"no such user or group: {spec.user}{spec.group}") from None
    return user, gid


def user_environment(user):
    return {"HOME": user.pw_dir, "USER": user.pw_name, "LOGNAME": user.pw_name,
            "SHELL": user.pw_shell, "TMPDIR": f"/var/folders/{user.pw_uid}/T/"}


def session_environment(session):
    """How a process recognises that its session has the display; nothing outside of one."""
    if session is None:
        return {}
    return {"XDG_SESSION_ID": str(session.number), "XDG_SESSION_TYPE": "x11"}


class Launchd:
    """The jobs of all domains."""

    def __init__(self, loop, timeline, release, overrides, settings):
        self._loop = loop
        self._timeline = timeline
        self._release = release
        self._overrides = overrides
        self._settings = settings
        self.domains = {}
        self._running = {}

    def add_domain(self, domain):
        self.domains[domain.name] = domain
        return domain

    def remove_domain(self, name):
        self.domains.pop(name, None)

    def forget_everything(self):
        """The Mac goes down: nothing is restarted and nothing is told of what dies now."""
        for domain in self.domains.values():
            for job in domain.jobs.values():
                self._cancel_timer(job)
        self.domains = {}
        self._running = {}

    # Loading and unloading

    def load(self, spec, domain, force=False, anywhere=False):
        """Takes the job into the domain and starts it if it asks for that; `anywhere` for a job
        that came without a limit to sessions. Throws Refusal."""
        if spec.label in domain.jobs:
            raise Refusal(releases.ALREADY, "already loaded")
        if not anywhere and not spec.belongs_to(domain.session_type):
            raise Refusal(releases.WRONG_SESSION, f"not for {domain.session_type} sessions")
        if not force and self._overrides.is_disabled(domain.owner, spec):
            raise Refusal(releases.DISABLED, "disabled")
        job = domain.jobs[spec.label] = Job(spec, domain)
        self._tell(job, "job-loaded", path=spec.path)
        if spec.run_at_load or self._is_kept(spec):
            self.start(job)
        return job

    def unload(self, job):
        """Ends the job's process, if any, and lets go of the job once it is gone."""
        if job.leaving:
            return
        job.leaving = True
        self._cancel_timer(job)
        if job.pid is None:
            self._drop(job)
        else:
            self.terminate(job)

    def unload_all(self, domain):
        for job in list(domain.jobs.values()):
            self.unload(job)

    def find(self, label, domain):
        job = domain.jobs.get(label)
        if job is None:
            raise Refusal(releases.NO_SERVICE, "no such job")
        return job

    def _drop(self, job):
        if job.domain.jobs.get(job.spec.label) is job:
            del job.domain.jobs[job.spec.label]
        self._tell(job, "job-unloaded")

    # Processes

    def start(self, job):
        """Starts the job's program; a failure counts as an exit."""
        self._cancel_timer(job)
        if job.pid is not None:
            return
        job.started = time.monotonic()
        try:
            user, gid = identity(job)
            job.pid = spawn(self._launch(job, user, gid))
        except SpawnError as error:
            self._tell(job, "process-failed", reason=str(error))
            self._ended(job, self._release.spawn_failure_status)
            return
        self._running[job.pid] = job
        event = self._tell(
            job, "process-started", pid=job.pid, uid=user.pw_uid, gid=gid,
            argv=job.spec.arguments, session=getattr(job.domain.session, "number", None))
        job.started = event["t"]

    def _launch(self, job, user, gid):
        spec = job.spec
        log = self._settings.system_log
        return Launch(
            program=self._find_program(spec.program), arguments=spec.arguments,
            environment=self._environment(job, user), work_folder=spec.work_folder,
            umask=spec.umask, **credentials(user, gid, self._settings.single_id),
            context=job.domain.context,
            files=(spec.stdin, spec.stdout or log, spec.stderr or log))

    def _find_program(self, program):
        """A name without a folder is looked for where execvp would look."""
        if "/" in program:
            return program
        for folder in PATH.split(":"):
            if os.access(f"{folder}/{program}", os.X_OK):
                return f"{folder}/{program}"
        return program

    def _environment(self, job, user):
        values = {"PATH": PATH}
        if not self._release.legacy:
            values.update(XPC_SERVICE_NAME=job.spec.label, XPC_FLAGS="0x0")
        if job.domain.session_type != "System":
            values.update(user_environment(user))
        values.update(session_environment(job.domain.session), **job.domain.variables)
        return {**values, **job.spec.environment}

    def terminate(self, job):
        """SIGTERM now, SIGKILL when the job's time to exit is over; a time of 0 never is."""
        self._signal(job, signal.SIGTERM)
        if job.spec.exit_timeout == 0:
            return
        self._cancel_timer(job)
        limit_s = job.spec.exit_timeout * self._settings.exit_timeout_s / REAL_EXIT_TIMEOUT_S
        job.timer = self._loop.later(limit_s, lambda: self._kill(job))

    def _kill(self, job):
        self._signal(job, signal.SIGKILL)
        self._tell(job, "process-killed", pid=job.pid)

    def _signal(self, job, number):
        try:
            os.kill(job.pid, number)
        except ProcessLookupError:
            pass  # ended, and not reaped yet

    def process_exited(self, pid, status):
        """A child has ended (negative: by a signal) and is not yet reaped; was it a job's?"""
        job = self._running.pop(pid, None)
        if job is None:
            return False
        job.pid = None
        self._cancel_timer(job)
        self._tell(job, "process-exited", pid=pid, status=status)
        if not job.spec.abandon_group:
            self._end_group(pid)
        self._ended(job, status)
        return True

    def _end_group(self, pid):
        try:
            os.killpg(pid, signal.SIGTERM)
        except ProcessLookupError:
            pass

    def _ended(self, job, status):
        job.last_status = status
        if job.leaving:
            self._drop(job)
        elif self._wants_restart(job.spec, status):
            self._restart(job)

    def _restart(self, job):
        """At once, or when the shortest time between two starts is over."""
        interval_s = job.spec.throttle * self._settings.throttle_s / REAL_THROTTLE_S
        delay_s = job.started + interval_s - time.monotonic()
        if delay_s <= 0:
            self.start(job)
            return
        self._tell(job, "job-throttled", delay_s=round(delay_s, 3))
        job.timer = self._loop.later(delay_s, lambda: self.start(job))

    def _is_kept(self, spec):
        """Whether the job is started without being asked: conditions hold before a first exit."""
        if isinstance(spec.keep_alive, dict):
            return "SuccessfulExit" in spec.keep_alive or self._paths_hold(spec.keep_alive)
        return spec.keep_alive

    def _wants_restart(self, spec, status):
        keep = spec.keep_alive
        if not isinstance(keep, dict):
            return keep
        return ("SuccessfulExit" in keep and keep["SuccessfulExit"] == (status == 0)
                or "Crashed" in keep and keep["Crashed"] == (status < 0)
                or self._paths_hold(keep))

    def _paths_hold(self, keep):
        wanted = keep.get("PathState", {})
        return any(os.path.exists(path) == there for path, there in wanted.items())

    def _cancel_timer(self, job):
        if job.timer is not None:
            job.timer.cancel()
            job.timer = None

    def _tell(self, job, kind, **fields):
        return self._timeline.add(kind, label=job.spec.label, domain=job.domain.name, **fields)
