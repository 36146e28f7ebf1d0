"""What the product looks like from outside: its places, names, job files and requests.

Written a second time on purpose: the demonstration and the system tests compare the helper with
this text, not with the helper's own constants.
"""

import re
import struct

CLIENT_BUNDLE = "/Applications/Korvel.app"
CLIENT = CLIENT_BUNDLE + "/Contents/MacOS/korvel"
SESSIONS = "/Library/VeskRuntime/sessions"
AGENTS = "/Library/LaunchAgents"
DAEMONS = "/Library/LaunchDaemons"

# Where the demonstration and the tests install the helper; the product does not care.
HELPER_FOLDER = "/Library/PrivilegedHelperTools"
HELPER = HELPER_FOLDER + "/korvel_helper"
LOG = HELPER_FOLDER + "/korvel_helper.out"
INSTALL_LOG = HELPER_FOLDER + "/korvel_helper_install.out"

SERVICE = "com.norvane.korvel.helper"
AGENT = "com.norvane.korvel.restart"
LARGEST_BODY = 0x100000


def daemon_label(session=None):
    return SERVICE if session is None else f"{SERVICE}.{session}"


def agent_label(session):
    return f"{AGENT}.{session}"


def daemon_path(session=None):
    return f"{DAEMONS}/{daemon_label(session)}.plist"


def agent_path(session):
    return f"{AGENTS}/{agent_label(session)}.plist"


def session_folder(session):
    return f"{SESSIONS}/{session}"


def restore_path(session):
    """Where the helper keeps the session's restore file."""
    return f"{SESSIONS}/{session}/{session}.dat"


def session_helper(session):
    return f"{SESSIONS}/{session}/helper/KorvelHelper"


def session_log(session):
    return f"{SESSIONS}/{session}/helper/korvel_helper.out"


def session_bundle(session):
    return f"{SESSIONS}/{session}/app/Korvel.app"


def endpoint(session=None):
    return "korvel_helper" if session is None else f"korvel_helper_{session}"


def endpoint_path(session=None):
    return f"/tmp/{endpoint(session)}.ipc"


def client_arguments(session, client=CLIENT):
    """How the restart agent starts the client."""
    return [client, "--connect-restore", restore_path(session), "--on-connect",
            "desktop?restart=continue", "--auto-close", "--wait-for-console"]


def session_daemon_arguments(session):
    return [session_helper(session), "-installed", "1",
            "-exePath", session_bundle(session) + "/Contents/MacOS/korvel",
            "-restoreFile", restore_path(session)]


PLIST_HEAD = (
    '<?xml version="1.0" encoding="UTF-8"?>\n'
    '<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN"'
    ' "http://www.apple.com/DTDs/PropertyList-1.0.dtd">\n'
    '<plist version="1.0">\n'
    "<dict>\n")
assert len(PLIST_HEAD) == 171


def _text(text):
    return text.replace("&", "&amp;").replace("<", "&lt;").replace(">", "&gt;")


def _strings(key, values):
    lines = "".join(f"\t<string>{_text(v)}</string>\n" for v in values)
    return f"<key>{key}</key>\n<array>\n{lines}</array>\n"


def _job_file(*elements):
    return (PLIST_HEAD + "".join(elements) + "</dict>\n</plist>").encode()


def agent_file(label, arguments):
    """The agent's job file, byte for byte; it ends without a line end."""
    return _job_file(
        f"<key>Label</key>\n<string>{_text(label)}</string>\n",
        _strings("LimitLoadToSessionType", ["Aqua", "LoginWindow"]),
        _strings("ProgramArguments", arguments),
        "<key>KeepAlive</key>\n<true/>\n",
        "<key>RunAtLoad</key>\n<true/>\n")


def daemon_file(label, arguments):
    """A daemon's job file, byte for byte."""
    return _job_file(
        f"<key>Label</key>\n<string>{_text(label)}</string>\n",
        _strings("ProgramArguments", arguments),
        "<key>RunAtLoad</key>\n<true/>\n",
        "<key>OnDemand</key>\n<false/>\n")


def number_field(value):
    size = (value.bit_length() + 7) // 8
    return value.to_bytes(size, "little") + bytes([size])


def string_field(text):
    data = text if isinstance(text, bytes) else text.encode()
    return data + number_field(len(data))


def packet(command, argument):
    """The command is taken off first, so it comes last."""
    return string_field(argument) + string_field(command)


def frame(body):
    return struct.pack("<I", len(body)) + body


LOG_LINE = re.compile(
    rb"(?P<time>\d{4,}-\d\d-\d\dT\d\d:\d\d:\d\dZ) (?:(?P<name>[^ :]+): )?(?P<text>[^\x00-\x1f]*)\n")
LOG_REPEAT = re.compile(rb"\d{4,}-\d\d-\d\dT\d\d:\d\d:\d\dZ - ([ \d]{10}) - \n")


def log_messages(content):
    """The (component, message) pairs of a log file; ValueError names a line of another form."""
    messages = []
    for line in content.splitlines(keepends=True):
        repeat = LOG_REPEAT.fullmatch(line)
        if repeat:
            messages += [messages[-1]] * int(repeat[1])
            continue
        found = LOG_LINE.fullmatch(line)
        if not found:
            raise ValueError(f"no log line: {line!r}")
        messages.append(((found["name"] or b"").decode(), found["text"].decode()))
    return messages
