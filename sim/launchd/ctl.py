"""launchctl's verbs, as launchctl(1) tells them for the release that is simulated.

`load` and `unload` end with 0 whatever becomes of the jobs, as the manual says, and with the usage
status for wrong use; `bootstrap`, `bootout` and the rest end with the number of what went wrong.
"""

import os
import re
from dataclasses import dataclass, field

from . import jobfile, releases
from .jobfile import Refusal, SESSION_TYPES
from .loop import Until


@dataclass
class Caller:
    """Who runs launchctl, as the kernel tells."""

    pid: int
    uid: int
    gid: int
    context: int                # number of the bootstrap context it is in

    def path(self, text):
        return os.path.normpath(os.path.join(os.readlink(f"/proc/{self.pid}/cwd"), text))


@dataclass
class Answer:
    """What launchctl prints and ends with, or becomes."""

    out: str = ""
    err: str = ""
    status: int = 0
    context: str = ""           # path of the context to enter first
    run_from: int = 0           # run the words from this argument on instead of ending
    notes: list = field(default_factory=list)

    def complain(self, text):
        self.err += text + "\n"


class Usage(Exception):
    """Wrong arguments; the text tells the right ones."""


class Launchctl:
    """Executes one call after the other against the jobs of this Mac."""

    def __init__(self, mac, launchd, release, overrides, settings):
        self._mac = mac
        self._launchd = launchd
        self._release = release
        self._overrides = overrides
        self._settings = settings
        self.scripted = {}      # verb to a list of answers that tests ordered

    def execute(self, words, caller):
        """A flow whose result is the Answer. `words` are the arguments after the program."""
        verb = words[0] if words else ""
        if self.scripted.get(verb):
            order = self.scripted[verb].pop(0)
            if order.get("delay_s"):
                yield Until(lambda: False, order["delay_s"])
            if "status" in order:
                return Answer(order.get("out", ""), order.get("err", ""), order["status"])
        method = getattr(self, "_" + verb.replace("-", "_"), None)
        if verb not in self._release.verbs or method is None:
            return Answer(err=self._unknown(verb), status=self._release.usage_status)
        try:
            answer = method(words[1:], caller)
            if not isinstance(answer, Answer):
                answer = yield from answer
            return answer
        except Refusal as refusal:
            return Answer(err=f"launchctl: {refusal.reason}\n", status=1,
                          notes=[{"code": refusal.code, "reason": refusal.reason}])
        except Usage as usage:
            return Answer(err=f"usage: launchctl {verb} {usage}\n",
                          status=self._release.usage_status)

    def _unknown(self, verb):
        if self._release.legacy:
            return f'launchctl: unknown subcommand "{verb}"\n'
        return f"Unrecognized subcommand: {verb}\n"

    # Whose jobs are meant

    def _domain_of(self, caller):
        """Where the caller's load goes: root's to the system, a user's to the session it runs in,
        and outside of any session to the user's own domain. Before 10.10 that domain is the user's
        own launchd, and who runs outside of both is refused by the system's. Throws Refusal."""
        if not self._mac.up:
            raise Refusal(1, "the Mac is down")
        if caller.uid == 0:
            return self._launchd.domains["system"]
        session = self._mac.session_with(caller.context)
        if session is not None and session.uid == caller.uid:
            return self._launchd.domains[f"gui/{caller.uid}"]
        per_user = self._mac.per_user_with(caller.context)
        if self._release.legacy and (per_user is None or per_user.uid != caller.uid):
            raise Refusal(1, "launchd refuses: operation not permitted")
        return self._mac.user_domain(caller.uid)

    def _domain_for(self, caller, session):
        """The same for a call that names a session type: root reaches the login window, and a
        user's own launchd of before 10.10 hands on to the user's graphical session."""
        domain = self._domain_of(caller)
        if session == "LoginWindow" and caller.uid == 0:
            return self._launchd.domains.get("loginwindow", domain)
        if session == "Aqua" and self._release.legacy and caller.uid:
            return self._launchd.domains[f"gui/{caller.uid}"]
        return domain

    def _target(self, text, caller):
        """The domain that a target such as "gui/501" names, and the label behind it or "".

        The user id is read as strtoul reads it, up to the line end: white space after the digits
        is no part of the number. Anything else behind them is refused. Throws Refusal.
        """
        match = re.fullmatch(r"(system|loginwindow)(?:/(.+))?", text) or re.fullmatch(
            r"((?:gui|user)/\s*\d+)\s*(?:/(.+))?", text)
        if match is None:
            raise Refusal(self._release.usage_status, f"unrecognized target {text!r}")
        name = re.sub(r"/\s*0*(?=\d)", "/", match.group(1))
        uid = int(name.partition("/")[2] or 0)
        if caller.uid not in (0, uid) or caller.uid and not uid:
            raise Refusal(1, "operation not permitted")
        domain = self._launchd.domains.get(name)
        if domain is None and name.startswith("user/"):
            domain = self._mac.user_domain(uid)
        if domain is None:
            raise Refusal(releases.NO_DOMAIN, f"no domain {name}")
        return domain, match.group(2) or ""

    def _read(self, path, domain):
        return jobfile.read(path, domain.uid if path.startswith("/Users/") else 0)

    # load and unload

    def _options(self, words, usage):
        """Reads -w, -F, -S TYPE, -D DOMAIN; gives the flags, the session type and the paths."""
        flags, session, words = set(), None, list(words)
        while words and words[0].startswith("-") and words[0] != "-":
            option = words.pop(0)
            if option in ("-S", "-D"):
                if not words:
                    raise Usage(usage)
                value = words.pop(0)
                session = value if option == "-S" else session
            elif re.fullmatch("-[wF]+", option):
                flags.update(option[1:])
            else:
                raise Usage(usage)
        if not words or session is not None and session not in SESSION_TYPES:
            raise Usage(usage)
        return flags, session, words

    def _files(self, path):
        """The job files that a path of load or unload stands for."""
        if not os.path.isdir(path):
            return [path]
        return [f"{path}/{name}" for name in sorted(os.listdir(path)) if name.endswith(".plist")]

    def _load(self, words, caller):
        flags, session, paths = self._options(words, "[-wF] [-S SESSIONTYPE] [-D DOMAIN] PATH...")
        answer, domain = Answer(), self._domain_for(caller, session)
        for path in paths:
            for file in self._files(caller.path(path)):
                self._attempt(answer, file, lambda file=file: self._load_file(
                    file, domain, flags, session))
        return answer

    def _load_file(self, path, domain, flags, session):
        spec = self._read(path, domain)
        if session is not None and not spec.belongs_to(session):
            raise Refusal(releases.WRONG_SESSION, f"not for {session} sessions")
        if session is not None and session != domain.session_type:
            raise Refusal(releases.WRONG_SESSION, f"no {session} session here")
        if "w" in flags:
            self._overrides.set(domain.owner, spec.label, False)
        self._launchd.load(spec, domain, force="F" in flags)

    def _unload(self, words, caller):
        flags, session, paths = self._options(words, "[-w] [-S SESSIONTYPE] [-D DOMAIN] PATH...")
        answer, domain = Answer(), self._domain_for(caller, session)
        for path in paths:
            for file in self._files(caller.path(path)):
                self._attempt(answer, file, lambda file=file: self._unload_file(
                    file, domain, flags))
        return answer

    def _unload_file(self, path, domain, flags):
        spec = self._read(path, domain)
        if "w" in flags:
            self._overrides.set(domain.owner, spec.label, True)
        self._launchd.unload(self._launchd.find(spec.label, domain))

    def _attempt(self, answer, path, action):
        """One file of load or unload: a refusal is told and noted, and leaves the status at 0."""
        try:
            action()
        except Refusal as refusal:
            answer.complain(f"{path}: {refusal.reason}")
            answer.notes.append({"path": path, "code": refusal.code, "reason": refusal.reason})

    def _remove(self, words, caller):
        if len(words) != 1:
            raise Usage("LABEL")
        domain = self._domain_of(caller)
        try:
            self._launchd.unload(self._launchd.find(words[0], domain))
        except Refusal:
            status = releases.NOT_FOUND if self._release.legacy else releases.NO_SERVICE
            return Answer(err="launchctl remove error: no such process\n", status=status)
        return Answer()

    # bootstrap and bootout

    def _bootstrap(self, words, caller):
        if len(words) < 2:
            raise Usage("DOMAIN PATH...")
        try:
            domain, label = self._target(words[0], caller)
            if label:
                raise Refusal(self._release.usage_status, "a domain is wanted, not a service")
            for path in words[1:]:
                self._launchd.load(self._read(caller.path(path), domain), domain)
        except Refusal as refusal:
            return self._failed("Bootstrap", refusal)
        return Answer()

    def _bootout(self, words, caller):
        if len(words) not in (1, 2):
            raise Usage("DOMAIN PATH | SERVICE")
        try:
            job = self._bootout_job(words, caller)
        except Refusal as refusal:
            return self._failed("Boot-out", refusal)
        self._launchd.unload(job)
        gone = lambda: job.domain.jobs.get(job.spec.label) is not job
        yield Until(gone, 3 * self._settings.exit_timeout_s)
        return Answer()

    def _bootout_job(self, words, caller):
        domain, label = self._target(words[0], caller)
        if bool(label) == (len(words) == 2):
            raise Refusal(releases.NO_DOMAIN, "a path or a service is wanted")
        if not label:
            label = self._read(caller.path(words[1]), domain).label
        return self._launchd.find(label, domain)

    def _failed(self, what, refusal):
        code = refusal.code
        if what == "Boot-out" and code == releases.NO_SERVICE:
            code = releases.NOT_FOUND
        shown = self._release.bootstrap_status(code) if what == "Bootstrap" else code
        return Answer(err=f"{what} failed: {shown}: {refusal.reason}\n", status=shown,
                      notes=[{"code": refusal.code, "reason": refusal.reason}])

    # The smaller ones

    def _start(self, words, caller):
        return self._with_job(words, caller, self._launchd.start)

    def _stop(self, words, caller):
        return self._with_job(words, caller,
                              lambda job: job.pid and self._launchd.terminate(job))

    def _with_job(self, words, caller, action):
        if len(words) != 1:
            raise Usage("LABEL")
        domain = self._domain_of(caller)
        try:
            action(self._launchd.find(words[0], domain))
        except Refusal:
            return Answer(status=releases.NOT_FOUND)
        return Answer()

    def _bsexec(self, words, caller):
        """Runs a command in the bootstrap context of another process; root only."""
        if len(words) < 2 or not words[0].isdigit():
            raise Usage("PID COMMAND [ARGUMENT...]")
        if caller.uid != 0:
            return Answer(err="bsexec: operation not permitted\n", status=1)
        path = f"/proc/{int(words[0])}/ns/uts"
        if not os.path.exists(path):
            return Answer(err="bsexec: no such process\n", status=releases.NOT_FOUND)
        return Answer(context=path, run_from=3)

    def _list(self, words, caller):
        domain = self._domain_of(caller)
        if len(words) > 1:
            raise Usage("[LABEL]")
        if not words:
            rows = [f"{job.pid or '-'}\t{job.last_status}\t{label}\n"
                    for label, job in sorted(domain.jobs.items())]
            return Answer("PID\tStatus\tLabel\n" + "".join(rows))
        job = domain.jobs.get(words[0])
        if job is None:
            status = 1 if self._release.legacy else releases.NO_SERVICE
            return Answer(err=f'no service "{words[0]}" in {domain.name}\n', status=status)
        return Answer(self._describe(job))

    def _describe(self, job):
        lines = [f'"Label" = "{job.spec.label}";', f'"LastExitStatus" = {job.last_status};',
                 f'"LimitLoadToSessionType" = "{job.domain.session_type}";']
        lines += [f'"PID" = {job.pid};'] if job.pid else []
        lines += ['"ProgramArguments" = (', *(f'\t"{word}";' for word in job.spec.arguments), ");"]
        return "{\n" + "".join(f"\t{line}\n" for line in lines) + "};\n"

    def _managername(self, words, caller):
        return Answer(self._domain_of(caller).session_type + "\n")

    def _manageruid(self, words, caller):
        return Answer(f"{self._domain_of(caller).uid}\n")

    def _print_disabled(self, words, caller):
        if len(words) != 1:
            raise Usage("DOMAIN")
        try:
            values = self._overrides.read(self._target(words[0], caller)[0].owner)
        except Refusal as refusal:
            return self._failed("Print", refusal)
        rows = "".join(f'\t"{label}" => {str(value).lower()}\n'
                       for label, value in sorted(values.items()))
        return Answer("disabled services = {\n" + rows + "}\n")

    def _enable(self, words, caller):
        return self._override(words, caller, False)

    def _disable(self, words, caller):
        return self._override(words, caller, True)

    def _override(self, words, caller, disabled):
        if len(words) != 1:
            raise Usage("SERVICE")
        try:
            domain, label = self._target(words[0], caller)
            if not label:
                raise Refusal(self._release.usage_status, "a service is wanted")
        except Refusal as refusal:
            return self._failed("Override", refusal)
        self._overrides.set(domain.owner, label, disabled)
        return Answer()
