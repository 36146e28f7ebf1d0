"""What must hold after every run, whatever has failed in it. Each check yields its complaints."""

import os
import pathlib
import re
from collections import Counter

import korvel
import roles
from plan import USER_CALLS

ABORT, KILLED, TERMINATED = "signal 6", "signal 9", "signal 15"
NO_MEMORY_FOR_IT = ("brk", "mmap", "mremap", "mprotect", "munmap", "madvise")
USERS_PLACES = re.compile(r"(/private)?/tmp/|/Users/")


class Run:
    """What one run is judged by."""

    def __init__(self, role, fault, outcome, changes, killed_before=None):
        self.role = role
        self.fault = fault
        self.outcome = outcome
        self.changes = changes
        self.after_kill = killed_before is not None
        self.accepted = (killed_before.accepted if killed_before else "") + outcome.accepted

    @property
    def killed(self):
        return self.fault is not None and self.fault.kind == "kill" and self.outcome.hits > 0


def restore_file(run):
    """Its bytes stand at exactly one of its two places; a removal may have deleted them, once the
    job file that would start it again is gone."""
    standing = [p for p in (roles.ORIGINAL, roles.KEPT) if os.path.lexists(p)]
    for path in standing:
        if os.path.islink(path) or pathlib.Path(path).read_bytes() != roles.CONTENT:
            yield f"the restore file at {path} is damaged"
    if len(standing) > 1:
        yield "the restore file is at both places"
    if not standing and not run.role.removes and not found_missing(run.fault):
        yield "the restore file is lost"
    if not standing and os.path.exists(korvel.daemon_path(roles.ID)):
        yield "the restore file is deleted before the job file"


def found_missing(fault):
    """Whether the helper was told that there is no restore file, which makes any start with one a
    removal."""
    return fault is not None and fault.kind == "ENOENT" and fault.call.detail.endswith(".dat")


def ending(run):
    """0, 1, 42, the end by an uncaught exception, or the signal that was sent."""
    end = run.outcome.end
    allowed = {"exit 0", "exit 1", "exit 42", ABORT}
    if run.killed and "." not in run.fault.call.who:
        allowed = {KILLED}
    if run.role.serves:
        allowed.add(TERMINATED)
    if run.fault is not None and run.fault.call.name in USER_CALLS:
        allowed.add(KILLED)  # rather than to stay a user
    if end not in allowed:
        yield f"ended with {end}"
    told = "terminate called" in run.outcome.errors or fails_writing(run.fault)
    if end == ABORT and not told:
        yield f"aborted without an exception: {run.outcome.errors[-300:]!r}"


def hanging(run):
    for words in run.outcome.of("hang"):
        yield "hangs in " + " ".join(words)
    for words in run.outcome.of("stray"):
        yield "left a process behind: " + " ".join(words)


def places(run):
    """Nothing outside the named places changed."""
    allowed = run.role.places + (roles.REMOVED_PLACES if found_missing(run.fault) else [])
    if run.killed or run.after_kill:
        allowed = allowed + roles.UNFINISHED_FILES
    for path, how in sorted(run.changes.items()):
        if not any(re.fullmatch(place, path) for place in allowed):
            yield f"{how}: {path}"


def users(run):
    """Root connects to a user's socket as that user, does nothing else as that user, and does not
    stay one."""
    for user, *path in run.outcome.of("connect"):
        if user == "0" and path and USERS_PLACES.match(path[0]):
            yield f"connects to {path[0]} as root"
    for words in run.outcome.of("as-user"):
        yield "as user " + " ".join(words)
    for user, in run.outcome.of("stays") if run.outcome.end != KILLED else []:
        yield f"ends as user {user}"


def logged_lines(text):
    """The messages of a log, and whether its last line is torn."""
    whole, _, rest = text.rpartition("\n")
    pairs = korvel.log_messages((whole + "\n").encode() if whole else b"")
    return [f"{name}: {message}" if name else message for name, message in pairs], bool(rest)


def log_files():
    folders = (korvel.HELPER_FOLDER, korvel.session_helper(roles.ID).rpartition("/")[0])
    return sorted(path for folder in folders for path in pathlib.Path(folder).glob("*.out*"))


def fails_writing(fault):
    return fault is not None and fault.call.name in ("write", "writev")


def log_lines(run):
    """No accepted line is in the log twice; in an orderly end none is lost either."""
    accepted = Counter(run.accepted.splitlines())
    in_files = Counter()
    for path in log_files():
        try:
            lines, torn = logged_lines(path.read_text(encoding="utf-8", errors="replace"))
        except (ValueError, IndexError) as error:
            yield f"{path}: {error}"
            continue
        in_files += Counter(lines)
        if torn and run.outcome.end in ("exit 0", "exit 1") and not fails_writing(run.fault):
            yield f"{path} ends in a torn line"
    for line in in_files - accepted:
        yield f"in the log {in_files[line]} times, accepted {accepted[line]} times: {line!r}"
    if expects_all_lines(run):
        for line in accepted - (in_files | shown(run)):
            yield f"neither in the log nor shown: {line!r}"


def shown(run):
    try:
        return Counter(logged_lines(run.outcome.errors)[0])
    except (ValueError, IndexError):
        return Counter()  # something else was printed between the lines


def expects_all_lines(run):
    if run.role.removes or run.outcome.end not in ("exit 0", "exit 1") or run.after_kill:
        return False
    if run.fault is None:
        return True
    return not (fails_writing(run.fault) or run.fault.call.name in NO_MEMORY_FOR_IT)


def job_files(run):
    """A job file is whole, or as it was, or not there."""
    clients = (korvel.CLIENT, korvel.session_bundle(roles.ID) + "/Contents/MacOS/korvel")
    wanted = {
        korvel.agent_path(roles.ID):
            [korvel.agent_file(korvel.agent_label(roles.ID),
                               korvel.client_arguments(roles.ID, client)) for client in clients],
        korvel.daemon_path(roles.ID):
            [korvel.daemon_file(korvel.daemon_label(roles.ID),
                                korvel.session_daemon_arguments(roles.ID))],
        korvel.daemon_path(): [korvel.daemon_file(korvel.daemon_label(), [run.role.program])]}
    for path, contents in wanted.items():
        if os.path.exists(path) and pathlib.Path(path).read_bytes() not in contents:
            yield f"torn: {path}"


def service(run):
    """What has failed once is over: the next request is answered, unless the log tells that there
    is no endpoint."""
    over = run.fault is None or run.fault.group != "lasting"
    if not run.role.serves or not over or run.outcome.end != TERMINATED:
        return
    if "cannot be opened" in run.outcome.accepted:
        return
    if run.outcome.answers[-1:] != ["answered"]:
        yield f"does not serve any more: {run.outcome.answers}"


ALL = [restore_file, ending, hanging, places, users, log_lines, job_files, service]


def complaints(run):
    """Every promise that the run has broken, as (promise, text)."""
    return [(promise.__name__, text) for promise in ALL for text in promise(run)]
