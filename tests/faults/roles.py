"""What is run: each row of the start table, and each request on each way to a user's launchd."""

from dataclasses import dataclass, field

import korvel

ID, OTHER = "abc", "other"
CONTENT = b"resume me, whatever happens"
ORIGINAL = f"/Users/alice/{ID}.dat"
KEPT = korvel.restore_path(ID)
SHARED_SOCKET = "/tmp/korvel_helper.ipc"
OWN_SOCKET = f"/tmp/korvel_helper_{ID}.ipc"
CLIENT = "/private/var/db/faults/faults_client"

# Where a role may leave something behind; the rest of the tree stays as it is, byte for byte.
LOGS = [rf"{korvel.HELPER_FOLDER}/korvel_helper(_install)?\.out"]
SESSION_PLACES = [r"/Library/VeskRuntime", korvel.SESSIONS, rf"{korvel.SESSIONS}/{ID}(/.*)?"]
AGENT_FILE = [korvel.agent_path(ID).replace(".", r"\.")]
DAEMON_FILE = [korvel.daemon_path(ID).replace(".", r"\.")]
SHARED_DAEMON_FILE = [korvel.daemon_path().replace(".", r"\.")]
REMOVED_PLACES = SESSION_PLACES + AGENT_FILE + DAEMON_FILE
SOCKETS = [r"/private/tmp/korvel_helper(_abc)?\.ipc"]
TEST_ID = "test1245"
TEST_PLACES = [rf"/private/tmp/{TEST_ID}\.dat", r"/Library/VeskRuntime", korvel.SESSIONS,
               rf"{korvel.SESSIONS}/{TEST_ID}(/.*)?",
               korvel.daemon_path(TEST_ID).replace(".", r"\."),
               korvel.agent_path(TEST_ID).replace(".", r"\.")]

# What a kill may leave of a job file that was being written: no job, and gone with the next writing.
UNFINISHED_FILES = [path.replace(".plist", ".new").replace(".", r"\.") for path in
                    (korvel.agent_path(ID), korvel.daemon_path(ID), korvel.daemon_path(),
                     korvel.daemon_path(TEST_ID))]


def client(socket, *requests):
    return ["CLIENT", socket, *(word for request in requests for word in request)]


def steps_of(role, patience_s):
    """The role's steps, with a client that waits so long for each answer."""
    return [[CLIENT, str(patience_s), *step[1:]] if step[0] == "CLIENT" else step
            for step in role.steps]


PING = ("rnr_ping", "-")


@dataclass
class Role:
    """One thing the helper does, from the tree it finds to its end."""

    name: str
    words: list                         # after the program's path
    places: list                        # regular expressions of the paths that may change
    status: str = "exit 0"              # how it ends when nothing fails
    release: str = "10.11.6"
    program: str = korvel.HELPER
    session: bool = False               # the session folder and its jobs stand already
    original: bool = True               # the restore file lies where the client has put it
    removes: bool = False               # may delete the restore file, the job file first
    steps: list = field(default_factory=list)
    environment: list = field(default_factory=list)

    @property
    def serves(self):
        return bool(self.steps)


def serving(name, requests, socket=SHARED_SOCKET, **fields):
    fields.setdefault("words", [])
    return Role(name, status="signal 15",
                steps=[client(socket, *requests, PING, PING), ["term"]], **fields)


REGISTER, RESIGN = ("rnr_register", ORIGINAL), ("rnr_resign", KEPT)
OLD = {"release": "10.9.5", "environment": ["XDG_SESSION_TYPE=x11", "XDG_SESSION_ID=7"]}
REGISTERED = {"session": True, "original": False}
SESSION_DAEMON = {"program": korvel.session_helper(ID),
                  "words": korvel.session_daemon_arguments(ID)[1:]}

ROLES = [
    Role("self-test", ["-test", "1"], LOGS + TEST_PLACES + [korvel.HELPER]),
    Role("install", ["-runInstall", "1"], LOGS + SHARED_DAEMON_FILE),
    Role("remove", ["-restoreFile", f"/Users/alice/gone/{ID}.dat"],
         LOGS + REMOVED_PLACES, removes=True, **REGISTERED),
    Role("install-session", ["-exePath", korvel.CLIENT_BUNDLE, "-restoreFile", ORIGINAL],
         LOGS + SESSION_PLACES + DAEMON_FILE + [ORIGINAL, korvel.HELPER]),
    Role("refuse", ["-restoreFile", "/Users/alice/abc.txt"], LOGS, status="exit 42"),
    serving("serve-session", [PING], OWN_SOCKET, places=SESSION_PLACES + SOCKETS + AGENT_FILE,
            **REGISTERED, **SESSION_DAEMON),
    serving("resign-own", [RESIGN], OWN_SOCKET, removes=True, **REGISTERED, **SESSION_DAEMON,
            places=SOCKETS + REMOVED_PLACES),
    serving("register", [REGISTER],
            places=LOGS + SESSION_PLACES + SOCKETS + AGENT_FILE + [ORIGINAL]),
    serving("resign", [RESIGN], places=LOGS + SOCKETS + AGENT_FILE, **REGISTERED),
    serving("register-10.10", [REGISTER], release="10.10.5",
            places=LOGS + SESSION_PLACES + SOCKETS + AGENT_FILE + [ORIGINAL]),
    serving("register-10.9", [REGISTER], **OLD,
            places=LOGS + SESSION_PLACES + SOCKETS + AGENT_FILE + [ORIGINAL]),
    serving("resign-10.9", [RESIGN], **OLD, places=LOGS + SOCKETS + AGENT_FILE, **REGISTERED),
]


def set_up(machine, role):
    """The tree that the role finds."""
    machine.set_release(role.release)
    machine.put(korvel.HELPER, machine.helper, 0o755)
    machine.put(korvel.restore_path(OTHER), b"another session's", 0o600)
    if role.original:
        machine.put(ORIGINAL, CONTENT, 0o600, (501, 20))
    if not role.session:
        return
    machine.put(KEPT, CONTENT, 0o600, (501, 20))
    machine.put(korvel.session_helper(ID), machine.helper, 0o755)
    machine.put(f"{korvel.session_bundle(ID)}/Contents/MacOS/korvel", b"client", 0o777)
    machine.put(korvel.daemon_path(ID),
                korvel.daemon_file(korvel.daemon_label(ID), korvel.session_daemon_arguments(ID)))
    if role.name != "serve-session":
        machine.put(korvel.agent_path(ID),
                    korvel.agent_file(korvel.agent_label(ID), korvel.client_arguments(ID)))
