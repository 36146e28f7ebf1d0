"""Reading job files the way launchd does: strict about the file, strict about the keys.

The rules are those of launchd.plist(5) and of launchctl's own checks: a regular file, owned by root
and wheel (or, in a user's own folder, by that user), writable by its owner only, holding a property
list whose keys have the types that the manual tells.
"""

import os
import plistlib
import re
import stat
from dataclasses import dataclass, field
from xml.parsers.expat import ExpatError

from . import releases

SESSION_TYPES = ("Aqua", "LoginWindow", "Background", "StandardIO", "System")

TYPES = {
    "Label": str, "Program": str, "ProgramArguments": [str], "UserName": str, "GroupName": str,
    "RunAtLoad": bool, "OnDemand": bool, "Disabled": bool, "KeepAlive": (bool, dict),
    "LimitLoadToSessionType": (str, [str]), "EnvironmentVariables": {str: str},
    "WorkingDirectory": str, "StandardInPath": str, "StandardOutPath": str,
    "StandardErrorPath": str, "Umask": (int, str), "ThrottleInterval": int, "ExitTimeOut": int,
    "AbandonProcessGroup": bool, "InitGroups": bool, "Nice": int, "ProcessType": str,
    "LimitLoadToHosts": [str], "LimitLoadFromHosts": [str], "StartInterval": int,
    "WatchPaths": [str], "QueueDirectories": [str], "MachServices": dict, "Sockets": dict,
    "LaunchOnlyOnce": bool, "EnableTransactions": bool, "SessionCreate": bool, "Debug": bool,
}
UNKNOWN_ENTITY = re.compile(rb"&(?!(?:lt|gt|amp|quot|apos|#[0-9]+|#x[0-9A-Fa-f]+);)")
KEEP_ALIVE_TYPES = {"SuccessfulExit": bool, "Crashed": bool, "PathState": {str: bool},
                    "NetworkState": bool, "OtherJobEnabled": {str: bool}}


class Refusal(Exception):
    """Why launchd does not take a job: a reason for people and launchctl's number."""

    def __init__(self, code, reason):
        super().__init__(reason)
        self.code = code
        self.reason = reason


@dataclass
class JobSpec:
    """What a job file asks for."""

    label: str
    path: str
    program: str
    arguments: list
    run_at_load: bool = False
    keep_alive: object = False          # a bool, or the dictionary of conditions
    disabled: bool = False
    session_types: tuple = ()           # empty: not limited
    user: str = ""
    group: str = ""
    environment: dict = field(default_factory=dict)
    work_folder: str = "/"
    umask: int = 0o022
    throttle: int = 10
    exit_timeout: int = 20
    stdin: str = "/dev/null"
    stdout: str = ""
    stderr: str = ""
    abandon_group: bool = False

    def belongs_to(self, session_type):
        """Whether the job is for sessions of this type; agents without a limit are for Aqua."""
        return session_type in (self.session_types or ("Aqua", "System"))


def has_type(value, wanted):
    if isinstance(wanted, tuple):
        return any(has_type(value, one) for one in wanted)
    if isinstance(wanted, list):
        return isinstance(value, list) and all(has_type(item, wanted[0]) for item in value)
    if isinstance(wanted, dict):
        (kind,) = wanted.values()
        return isinstance(value, dict) and all(has_type(item, kind) for item in value.values())
    if wanted is int:
        return isinstance(value, int) and not isinstance(value, bool)
    return isinstance(value, wanted)


def check_types(values, types, where=""):
    for key, value in values.items():
        if key in types and not has_type(value, types[key]):
            raise Refusal(releases.INVALID_LIST, f"{where}{key} has the wrong type")


def check_file(path, owner):
    """The file's own qualities; `owner` is the user who may own it beside root."""
    try:
        info = os.lstat(path)
    except OSError as error:
        raise Refusal(error.errno, os.strerror(error.errno)) from None
    if not stat.S_ISREG(info.st_mode):
        raise Refusal(releases.BAD_OWNERSHIP, "not a regular file")
    if info.st_mode & 0o022:
        raise Refusal(releases.BAD_OWNERSHIP, f"bad mode {stat.S_IMODE(info.st_mode):04o}")
    if info.st_uid == 0 and info.st_gid == 0 or owner and info.st_uid == owner:
        return
    raise Refusal(releases.BAD_OWNERSHIP, f"bad owner {info.st_uid}:{info.st_gid}")


def read(path, owner=0):
    """The job in the file. Throws Refusal."""
    check_file(path, owner)
    try:
        with open(path, "rb") as file:
            data = file.read()
        # The document type is external, so that the reader itself lets unknown entities pass.
        if UNKNOWN_ENTITY.search(data) and not data.startswith(b"bplist"):
            raise ValueError("unknown entity")
        values = plistlib.loads(data)
    except (plistlib.InvalidFileException, ExpatError, ValueError, TypeError, KeyError,
            IndexError, AttributeError, OverflowError, RecursionError) as error:
        raise Refusal(releases.INVALID_LIST, f"not a property list: {error}") from None
    except OSError as error:
        raise Refusal(error.errno, os.strerror(error.errno)) from None
    return parse(values, path)


def parse(values, path):
    """The job that these values describe. Throws Refusal."""
    if not isinstance(values, dict):
        raise Refusal(releases.INVALID_LIST, "not a dictionary")
    label = values.get("Label")
    if not isinstance(label, str) or not label:
        raise Refusal(releases.INVALID_LABEL, "Label missing or no text")
    check_types(values, TYPES)
    arguments = values.get("ProgramArguments", [])
    program = values.get("Program") or (arguments[0] if arguments else "")
    if not program:
        raise Refusal(releases.INVALID_PROGRAM, "neither Program nor ProgramArguments")
    return JobSpec(
        label=label, path=path, program=program, arguments=arguments or [program],
        run_at_load=values.get("RunAtLoad", False), keep_alive=keep_alive(values),
        disabled=values.get("Disabled", False), session_types=session_types(values),
        user=values.get("UserName", ""), group=values.get("GroupName", ""),
        environment=dict(values.get("EnvironmentVariables", {})),
        work_folder=values.get("WorkingDirectory", "/"), umask=umask(values),
        throttle=values.get("ThrottleInterval", 10), exit_timeout=values.get("ExitTimeOut", 20),
        stdin=values.get("StandardInPath", "/dev/null"), stdout=values.get("StandardOutPath", ""),
        stderr=values.get("StandardErrorPath", ""),
        abandon_group=values.get("AbandonProcessGroup", False))


def keep_alive(values):
    """KeepAlive and the older OnDemand are one setting: the key that comes last has the say."""
    result = False
    for key, value in values.items():
        if key == "OnDemand":
            result = not value
        elif key == "KeepAlive":
            result = value
            if isinstance(value, dict):
                check_types(value, KEEP_ALIVE_TYPES, "KeepAlive ")
    return result


def session_types(values):
    wanted = values.get("LimitLoadToSessionType", ())
    wanted = (wanted,) if isinstance(wanted, str) else tuple(wanted)
    unknown = [one for one in wanted if one not in SESSION_TYPES]
    if unknown:
        raise Refusal(releases.INVALID_LIST, f"unknown session type {unknown[0]}")
    return wanted


def umask(values):
    wanted = values.get("Umask", 0o022)
    try:
        return wanted if isinstance(wanted, int) else int(wanted, 8)
    except ValueError:
        raise Refusal(releases.INVALID_LIST, "Umask is no number") from None
