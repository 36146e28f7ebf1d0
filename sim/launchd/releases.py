"""What differs between the releases of the simulated Mac.

Three generations: "legacy" before 10.10 (a launchd per user), "xpc" from 10.10 on (one launchd with
domains), and from 11 on, where `bootstrap` and `bootout` answer most failures with one number.
Numbers are those that `launchctl error` explains on a Mac; launchctl(1) tells which verbs exist.
"""

import plistlib

VERSION_FILE = "/System/Library/CoreServices/SystemVersion.plist"

# Verbs that exist on every release, and those that came with 10.10.
LEGACY_VERBS = frozenset(
    ["load", "unload", "remove", "start", "stop", "list", "bsexec", "managername", "manageruid"])
XPC_VERBS = LEGACY_VERBS | frozenset(
    ["bootstrap", "bootout", "print-disabled", "enable", "disable"])

IO_ERROR = 5
NOT_FOUND = 3
ALREADY = 37
INVALID_LIST = 109
INVALID_LABEL = 110
INVALID_PROGRAM = 111
NO_SERVICE = 113
DISABLED = 119
BAD_OWNERSHIP = 122
NO_DOMAIN = 125
WRONG_SESSION = 134


class Release:
    """One release, as its version text tells it."""

    def __init__(self, text):
        pieces = [int(piece) for piece in text.split(".") if piece.isdigit()]
        self.text = text
        self.version = tuple((pieces + [0, 0])[:2])

    @classmethod
    def of_this_root(cls):
        with open(VERSION_FILE, "rb") as file:
            return cls(plistlib.load(file)["ProductVersion"])

    @property
    def legacy(self):
        """Whether each user has a launchd with a socket of its own."""
        return self.version < (10, 10)

    @property
    def verbs(self):
        # `bootstrap` is there on 10.10 already, although the helper uses it from 10.11 on only.
        return LEGACY_VERBS if self.legacy else XPC_VERBS

    @property
    def usage_status(self):
        return 1 if self.legacy else 64

    def bootstrap_status(self, code):
        """What `bootstrap` ends with for a failure: from 11 on mostly an input/output error."""
        if self.version >= (11, 0) and code not in (1, NO_DOMAIN):
            return IO_ERROR
        return code

    def override_file(self, domain):
        """Where `load -w` and `unload -w` in the domain leave their mark."""
        uid = domain.partition("/")[2]
        if self.legacy:
            name = f"com.apple.launchd.peruser.{uid}" if uid else "com.apple.launchd"
            return f"/var/db/launchd.db/{name}/overrides.plist"
        return f"/var/db/com.apple.xpc.launchd/disabled{'.' + uid if uid else ''}.plist"

    @property
    def spawn_failure_status(self):
        """What a job ended with whose program could not be started."""
        return 1 if self.legacy else 78
