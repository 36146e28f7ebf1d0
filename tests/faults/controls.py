"""The driver on trial: programs that break one promise each must be convicted of just that one."""

import korvel
import roles
from campaign import Campaign
from plan import plan

BROKEN = "/private/var/db/faults/faults_broken"
PLACES = roles.LOGS + roles.SESSION_PLACES + roles.DAEMON_FILE + [roles.ORIGINAL]

#: Program, the promise that it breaks, and a piece of what is said of it.
CONTROLS = [
    ("sound", None, ""),
    ("loses-the-file", "restore_file", "lost"),
    ("keeps-the-file-twice", "restore_file", "both places"),
    ("ends-with-three", "ending", "exit 3"),
    ("aborts", "ending", "without an exception"),
    ("hangs", "hanging", "hangs in m/pause"),
    ("leaves-a-process", "hanging", "left a process"),
    ("writes-elsewhere", "places", "made: /private/var/db/elsewhere"),
    ("connects-as-root", "users", "as root"),
    ("works-as-a-user", "users", "as user 501 chmod"),
    ("stays-a-user", "users", "ends as user 501"),
    ("logs-twice", "log_lines", "2 times"),
    ("loses-a-line", "log_lines", "neither in the log nor shown"),
    ("tears-the-job-file", "job_files", "torn"),
    ("answers-nobody", "service", "refused"),
]
#: What a hang or an end of its own kind brings with it: the program has to be killed.
ALSO = {"hangs": ("ending", "signal 9")}


def role_of(program):
    steps = []
    if program == "answers-nobody":
        steps = [roles.client(roles.SHARED_SOCKET, roles.PING), ["term"]]
    return roles.Role(program, [program], PLACES, program=BROKEN, steps=steps,
                      status="signal 15" if steps else "exit 0")


def convict(machine, empty, program, promise, text):
    """What the driver got wrong about one program, as lines."""
    campaign = Campaign(machine, empty, role_of(program), limit_ms=300)
    calls = campaign.record(1)
    if campaign.findings and program != "answers-nobody":
        yield f"{program} is accused although nothing failed: {campaign.findings[0]}"
    for fault in plan(calls, calls):
        campaign.try_fault(fault)
    found = campaign.findings
    if promise and not any(f.promise == promise and text in f.text for f in found):
        yield f"{program} is not convicted of {promise}: {text}"
    for finding in found:
        also = ALSO.get(program, ())
        if finding.promise != promise and (finding.promise, finding.text[-8:]) != also:
            yield f"{program} is accused of something else: {finding}"


def run(machine, empty, say):
    """Gives the number of complaints about the driver."""
    machine.put("/private/var/db/faults/job",
                korvel.daemon_file(korvel.daemon_label(roles.ID),
                                   korvel.session_daemon_arguments(roles.ID)))
    empty.mark()
    wrong = 0
    for program, promise, text in CONTROLS:
        complaints = list(convict(machine, empty, program, promise, text))
        for complaint in complaints[:5]:
            say(complaint)
        wrong += len(complaints)
        if not complaints:
            say(f"{program}: " + (f"convicted of {promise}" if promise else "acquitted"))
    return wrong
