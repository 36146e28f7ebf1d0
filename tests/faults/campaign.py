"""Runs a role's faults one after the other and judges each run."""

import os
import time
from collections import Counter
from dataclasses import dataclass, field, replace

import korvel
import plan
import promises
import roles

#: A call of a thread that meets others in another order each time may not come up at once.
TRIES = 3


@dataclass
class Tally:
    """What came of the faults of one group in one role."""

    injected: int = 0
    missed: int = 0                      # the call did not come up this time
    ends: Counter = field(default_factory=Counter)
    again: Counter = field(default_factory=Counter)   # how the run after a kill ended


@dataclass
class Finding:
    role: str
    fault: str
    promise: str
    text: str

    def __str__(self):
        return f"{self.role}: {self.fault}: {self.promise}: {self.text}"


class Campaign:
    """All faults of one role. `empty` is the machine's tree without anything of a role's."""

    def __init__(self, machine, empty, role, limit_ms=20000):
        empty.put_back(empty.changes())
        roles.set_up(machine, role)
        machine.tree.mark()
        self.machine = machine
        self.role = role
        self.limit_ms = limit_ms
        self.tallies = {}
        self.findings = []
        self.slow = []

    def record(self, times=2):
        """The calls of a run in which nothing fails. Threads meet in another order each time; the
        longest of several records is taken. A complaint here is a finding as any other."""
        outcomes = []
        for _ in range(times):
            outcomes.append(self.run(None, record=True))
            self.judge(None, outcomes[-1])
            if outcomes[-1].end != self.role.status:
                self.findings.append(Finding(self.role.name, "no fault", "ending",
                                             f"ended with {outcomes[-1].end}"))
        return max((plan.calls_of(outcome) for outcome in outcomes), key=len)

    def run(self, fault, record=False):
        # The answers to a client tell something only where the fault is over by then.
        patience_s = 6 if fault is None or fault.group != "lasting" else 1
        return self.machine.run(
            [self.role.program, *self.role.words], self.role.environment,
            fault.words() if fault else None, roles.steps_of(self.role, patience_s), record,
            self.limit_ms)

    def try_fault(self, fault):
        tally = self.tallies.setdefault(fault.group, Tally())
        begin = time.monotonic()
        for _ in range(TRIES):
            outcome = self.run(fault)
            changes = self.judge(fault, outcome, leave=True)
            if outcome.hits > 0:
                break
            self.machine.tree.put_back(changes)
        if time.monotonic() - begin > 2:
            self.slow.append((round(time.monotonic() - begin, 1), str(fault)))
        if outcome.hits == 0:
            tally.missed += 1
        else:
            tally.injected += 1
            tally.ends[outcome.end] += 1
        if fault.kind == "kill" and outcome.end == promises.KILLED:
            self.run_again(fault, outcome, tally)
        self.machine.tree.put_back(self.machine.tree.changes())

    def judge(self, fault, outcome, role=None, killed_before=None, leave=False):
        changes = self.machine.tree.changes()
        run = promises.Run(role or self.role, fault, outcome, changes, killed_before)
        self.findings += [Finding(self.role.name, str(fault or "no fault"), promise, text)
                          for promise, text in promises.complaints(run)]
        if not leave:
            self.machine.tree.put_back(changes)
        return changes

    def run_again(self, fault, killed, tally):
        """The same start after a kill. What the kill has left decides which row of the start table
        that is: with the restore file at its second place it is a removal."""
        if not os.path.exists(self.role.program):
            if self.role.program != korvel.HELPER:
                return  # removed: launchd has nothing to start
            self.machine.put(korvel.HELPER, self.machine.helper, 0o755)
        role = self.role
        named = next((w for w in role.words if w.endswith(".dat")), None)
        if named and not os.path.exists(named):
            role = replace(role, removes=True, places=role.places + roles.REMOVED_PLACES)
        outcome = self.run(None)
        tally.again[outcome.end] += 1
        before = len(self.findings)
        self.judge(None, outcome, role, killed, leave=True)
        for finding in self.findings[before:]:
            finding.fault = f"{fault}, then run again"
