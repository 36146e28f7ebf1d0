"""Which faults a role gets: drawn from the calls that it made when nothing failed."""

import random
import re
from collections import Counter, defaultdict
from dataclasses import dataclass

from errors import BURST, ERRORS, FOR_EVER, PASSING

USER_CALLS = ("setuid", "setreuid", "setresuid")
#: Of calls in like places this many from the front get their faults, and the last one.
FIRST_OF_LIKE = 2


@dataclass(frozen=True)
class Call:
    """One call of a recorded run: who made it, its name, how many he had made of them."""

    who: str
    name: str
    number: int
    detail: str = ""

    def __str__(self):
        return f"{self.who} {self.name} {self.number} {self.detail}".rstrip()


@dataclass(frozen=True)
class Fault:
    """What is done to a call: an error, "short" or "kill"; once, or from there on."""

    call: Call
    kind: str
    repeat: int = 1

    @property
    def group(self):
        """The column of the table that it counts in."""
        if self.kind in ("kill", "short"):
            return self.kind
        return "lasting" if self.repeat in (BURST, FOR_EVER) else "once"

    def words(self):
        return self.call.who, self.call.name, self.call.number, self.kind, self.repeat

    def __str__(self):
        times = {BURST: f" {BURST} times", FOR_EVER: " from there on"}.get(self.repeat, "")
        return f"{self.call}: {self.kind}{times}"


def calls_of(outcome):
    return [Call(who, name, int(number), " ".join(rest))
            for who, name, number, _, *rest in outcome.of("call")]


def thinned(calls):
    """The calls that get faults. Calls are in like places when the same thread makes the same call
    of the same path right after the same call; numbers in paths do not count, nor does which of a
    thread's children it is: they all go the same way to their programs."""
    before = {}
    alike = defaultdict(list)
    for call in calls:
        thread, dot, child = call.who.partition(".")
        place = (thread + dot + re.sub(r"\d+", "N", child), call.name, before.get(call.who),
                 re.sub(r"\d+", "N", call.detail))
        alike[place].append(call)
        before[call.who] = call.name
    kept = set()
    for like in alike.values():
        kept.update(like[:FIRST_OF_LIKE] + like[-1:])
    return [call for call in calls if call in kept]


def faults_of(call):
    """Every fault of one call. KeyError for a call that the table of errors does not know."""
    found = []
    for error in ERRORS[call.name]:
        found += [Fault(call, error), Fault(call, error, BURST if error in PASSING else FOR_EVER)]
    return found + [Fault(call, "kill")]


def switches(calls):
    """The changes of the effective user, each as a call of all threads and their number: the C
    library has every thread make it, and ends the process where only some of them can."""
    found = []
    threads = set()
    for number, call in enumerate((c for c in calls if c.name in USER_CALLS), 1):
        if not found or call.who in threads or call.name != found[-1][0].name:
            found.append([Call("*", call.name, number), 0])
            threads = set()
        threads.add(call.who)
        found[-1][1] += 1
    return found


def plan(calls, recorded):
    """All faults for the chosen calls of a recorded run."""
    found = [fault for call in calls for fault in faults_of(call)
             if fault.kind == "kill" or call.name not in USER_CALLS]
    for call, threads in switches(recorded):
        for error in ERRORS[call.name]:
            found += [Fault(call, error, threads), Fault(call, error, FOR_EVER)]
    return found


def sample(faults, count, seed):
    """So many of them, drawn by the seed, in their order; every kind of call has its chance."""
    if count is None or count >= len(faults):
        return faults
    by_name = defaultdict(list)
    for fault in faults:
        by_name[(fault.call.name, fault.group)].append(fault)
    weights = Counter({fault: 1 / len(by_name[(fault.call.name, fault.group)])
                       for fault in faults})
    source = random.Random(seed)
    drawn = sorted(weights, key=lambda fault: source.random() ** (1 / weights[fault]),
                   reverse=True)[:count]
    return [fault for fault in faults if fault in set(drawn)]


#: Faults that once broke a promise: role, call, a piece of its path, kind. They are in every sample.
FOUND_BEFORE = [
    # A restore file that could not be looked at counted as missing, and the session was removed.
    ("serve-session", "newfstatat", "/abc.dat", "EIO"),
    ("serve-session", "newfstatat", "/abc.dat", "ENOMEM"),
    # A job file was written in its place, and stayed there half written.
    ("install", "write", "/LaunchDaemons/", "ENOSPC"),
    ("install", "write", "/LaunchDaemons/", "kill"),
    # A folder that had been closed, but with a failure, was closed again.
    ("remove", "close", "/sessions/abc", "EINTR"),
    # The log wrote at the beginning of its file when it could not go to the end.
    ("install", "lseek", "/korvel_helper", "EIO"),
]


def found_before(role, faults):
    """Those of the list that are this role's; LookupError when one of them comes up no more."""
    found = []
    for name, call, piece, kind in FOUND_BEFORE:
        matching = [fault for fault in faults if piece in fault.call.detail
                    and (role, fault.call.name, fault.kind) == (name, call, kind)]
        if role == name and not matching:
            raise LookupError(f"{name} makes no call {call} of {piece} any more: see FOUND_BEFORE")
        found += matching
    return found
