#!/usr/bin/python3
"""Makes every system call of every role of the helper fail in turn, and kills it at each.

    faults.py [--build DIR] [--role NAME]... [--sample COUNT] [--seed N] [--one FAULT]
              [--list] [--controls]

Each role runs once to record its calls, from the mark at the beginning of main on. Then each call
fails in turn with every error that the table (errors.py) has for it, once and from there on, and
the process is killed at each call and run again; after every run the promises (promises.py) are
checked. --sample draws so many faults of each role, by --seed, and adds those that have found
something before; without --seed it is KORVEL_FAULTS_SEED, or else the commit. --one runs a single one, written as it is
printed; --controls tries programs that break one promise each. The status is 1 when a promise was broken, 77 when this machine allows no private root.
"""

import argparse
import os
import pathlib
import subprocess
import sys
import time

HERE = pathlib.Path(__file__).resolve().parent
SOURCE = HERE.parents[1]
sys.path[:0] = [str(HERE), str(SOURCE / "sim")]

import controls  # noqa: E402
import roles  # noqa: E402
from campaign import Campaign  # noqa: E402
from machine import Machine, Tree  # noqa: E402
from plan import found_before, plan, sample, thinned  # noqa: E402

GROUPS = ("once", "lasting", "short", "kill")
INSIDE = "KORVEL_FAULTS_INSIDE"
ONE_PROCESSOR = ["/usr/bin/taskset", "--cpu-list"]


def arguments():
    parser = argparse.ArgumentParser(usage=__doc__)
    parser.add_argument("--build", default=os.environ.get("KORVEL_BUILD_DIR",
                                                          str(SOURCE / "build/debug")))
    parser.add_argument("--role", action="append", default=[])
    parser.add_argument("--sample", type=int)
    parser.add_argument("--seed")
    parser.add_argument("--one")
    parser.add_argument("--list", action="store_true")
    parser.add_argument("--controls", action="store_true")
    return parser.parse_args()


def chosen_seed():
    """The seed for a run without one: another for each commit, the same for all runs of one."""
    if "KORVEL_FAULTS_SEED" in os.environ:
        return os.environ["KORVEL_FAULTS_SEED"]
    head = subprocess.run(["git", "-C", str(SOURCE), "rev-parse", "--short", "HEAD"],
                          capture_output=True, text=True, check=False)
    return head.stdout.strip() or "1"


def enter(build, seed):
    """The same program again, inside a root. Tracer and traced hand over to each other all the
    time, which costs half as much on one processor."""
    processor = str(sorted(os.sched_getaffinity(0))[-1])
    command = [f"{build}/sim/macroot-run", "--build", build, "--source", str(SOURCE),
               "--env", f"{INSIDE}=1", "--", *ONE_PROCESSOR, processor,
               "/usr/bin/python3", "-ISB", str(HERE / "faults.py"), *sys.argv[1:],
               "--seed", seed]
    done = subprocess.run(command, check=False)
    if done.returncode == 77 and os.environ.get("CI", "") not in ("", "0", "false"):
        return 1
    return done.returncode


def say(text):
    print(text, flush=True)


def one_id():
    return "ids=single" in pathlib.Path("/etc/macroot").read_text(encoding="utf-8")


def run_role(machine, empty, role, options):
    campaign = Campaign(machine, empty, role)
    calls = campaign.record()
    kept = thinned(calls)
    faults = plan(kept, calls)
    drawn = sample(faults, options.sample, f"{options.seed} {role.name}")
    drawn += [fault for fault in found_before(role.name, faults) if fault not in drawn]
    if options.one:
        drawn = [fault for fault in faults if str(fault) == options.one]
    if options.list:
        say("\n".join(map(str, faults)))
        return campaign
    begin = time.monotonic()
    for fault in drawn:
        campaign.try_fault(fault)
    say(f"{role.name}: {len(calls)} calls, {len(kept)} of them not in like places of others, "
        f"{len(faults)} faults, {len(drawn)} injected, {time.monotonic() - begin:.0f} s, "
        f"{len(campaign.findings)} findings")
    for seconds, fault in campaign.slow:
        say(f"  took {seconds} s: {fault}")
    for finding in campaign.findings:
        say(f"  FINDING {finding}")
    return campaign


def ends_text(ends):
    return ", ".join(f"{end}: {count}" for end, count in sorted(ends.items()))


def table(campaigns):
    yield f"{'role':16} {'fault':8} {'injected':>8} {'missed':>6}  ends"
    for campaign in campaigns:
        for group in GROUPS:
            tally = campaign.tallies.get(group)
            if tally is None:
                continue
            again = f"; run again: {ends_text(tally.again)}" if tally.again else ""
            yield (f"{campaign.role.name:16} {group:8} {tally.injected:8} {tally.missed:6}  "
                   f"{ends_text(tally.ends)}{again}")


def main():
    options = arguments()
    if INSIDE not in os.environ:
        return enter(options.build, options.seed or chosen_seed())
    if one_id():
        print("this machine gives a private root only one user id")
        return 77
    chosen = [role for role in roles.ROLES if not options.role or role.name in options.role]
    if not options.list:
        say(f"seed {options.seed}")
    machine = Machine(options.build)
    empty = Tree()
    empty.mark()
    if options.controls:
        return 1 if controls.run(machine, empty, say) else 0
    campaigns = [run_role(machine, empty, role, options) for role in chosen]
    if options.list:
        return 0
    say("\n".join(table(campaigns)))
    findings = [finding for campaign in campaigns for finding in campaign.findings]
    injected = sum(t.injected for campaign in campaigns for t in campaign.tallies.values())
    wrong_peers = [uid for uid in machine.launchd.peers if uid != 501]
    if wrong_peers:
        say(f"the user's launchd was connected to by {wrong_peers}")
    say(f"{injected} faults injected, {len(findings)} findings")
    return 1 if findings or wrong_peers or not injected else 0


if __name__ == "__main__":
    sys.exit(main())
