#!/usr/bin/python3
"""The product at work on this very Mac, as root: for a scratch Mac that nobody needs.

    demo_this_mac.py --on-this-mac --helper FILE        installs, registers, sees the client start
    (restart the Mac and log in as the same user)
    demo_this_mac.py --on-this-mac --after-restart      sees the client back, resigns, uninstalls

The steps are those of the simulated Mac's socket road, as far as a Mac shows them from inside: what
launchd did is seen in the list of processes. A stand-in client is put into /Applications where none
is, and removed in the end."""

import argparse
import os
import pathlib
import plistlib
import pwd
import shutil
import socket
import stat
import subprocess
import sys
import time

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE))

import korvel  # noqa: E402
from demo_story import Story, StoryEnded, Teller, expect  # noqa: E402

SESSION = "korveldemo"
CONTENT = "address and key of the support session"
RESTORE_FILE = f"/Users/Shared/{SESSION}.dat"
UNINSTALLER = HERE.parent / "packaging/uninstall.sh"
VERSION_FILE = "/System/Library/CoreServices/SystemVersion.plist"
MARK = b"# stand-in of the demonstration\n"
CLIENT = b"#!/bin/sh\n" + MARK + b"while :; do sleep 5; done\n"
PATIENCE_S = 60


def processes():
    """The (pid, uid, command line) of every process."""
    done = subprocess.run(["ps", "-axww", "-o", "pid=", "-o", "uid=", "-o", "args="],
                          capture_output=True, text=True, check=True)
    return [(int(pid), int(uid), words) for pid, uid, words in
            (line.split(None, 2) for line in done.stdout.splitlines())]


def wait_for(look, what):
    """What `look` gives as soon as that is something."""
    end_s = time.monotonic() + PATIENCE_S
    while not (found := look()):
        expect(time.monotonic() < end_s, f"no {what} within {PATIENCE_S} s")
        time.sleep(0.1)
    return found


def running(command, uid):
    """The processes of the user whose command line ends like this; a script's begins with its
    interpreter."""
    return [pid for pid, owner, words in processes() if owner == uid and words.endswith(command)]


def ask(command, argument):
    with socket.socket(socket.AF_UNIX) as connection:
        connection.settimeout(PATIENCE_S)
        connection.connect(korvel.endpoint_path())
        connection.sendall(korvel.frame(korvel.packet(command, argument)))
        answer = b""
        while chunk := connection.recv(65536):
            answer += chunk
    expect(answer == bytes(4), f"the helper answered {answer!r}")


def facts(path):
    info = os.stat(path)
    return f"{stat.S_IMODE(info.st_mode):04o} {info.st_uid}:{info.st_gid}"


def check_file(path, content, mode_owner):
    expect(os.path.exists(path), f"no {path}")
    held = pathlib.Path(path).read_bytes()
    expect(held == content, f"{path} holds {held!r}")
    expect(facts(path) == mode_owner, f"{path} has {facts(path)}")
    return f"{path} {mode_owner}, {len(held)} bytes"


def leftovers():
    folders = [korvel.AGENTS, korvel.DAEMONS, korvel.HELPER_FOLDER, "/tmp"]
    found = [str(p) for folder in folders for p in pathlib.Path(folder).glob("*norvane.korvel*")]
    found += [str(p) for folder in folders for p in pathlib.Path(folder).glob("korvel_helper*")]
    return found + [p for p in (korvel.SESSIONS,) if os.path.exists(p)]


class ThisMac:
    """The steps, in two halves with a restart between them."""

    def __init__(self, story):
        self.story = story
        self.uid = os.stat("/dev/console").st_uid
        self.user = pwd.getpwuid(self.uid).pw_name

    def before_restart(self, helper):
        self.story.step("mac", "a Mac without the product, and a user at the screen", self.mac)
        self.story.step("install", "korvel_helper -runInstall 1 to write the daemon's job file",
                        lambda: self.install(helper))
        self.serve()
        self.story.step("register", "the restore file in the session folder, the agent's job file",
                        self.register)
        self.client("agent")

    def after_restart(self):
        self.serve()
        self.client("resume")
        self.story.step("resign", "the agent to be removed and its client to end", self.resign)
        self.story.step("uninstall", "nothing to be left", self.uninstall)

    def mac(self):
        expect(self.uid != 0, "nobody is logged in at the screen")
        expect(not leftovers(), f"the product is here already: {leftovers()}")
        return f"{self.user} has the console"

    def install(self, helper):
        if not os.path.exists(korvel.CLIENT):
            os.makedirs(os.path.dirname(korvel.CLIENT))
            pathlib.Path(korvel.CLIENT).write_bytes(CLIENT)
            os.chmod(korvel.CLIENT, 0o755)
        os.makedirs(korvel.HELPER_FOLDER, exist_ok=True)
        shutil.copyfile(helper, korvel.HELPER)
        os.chmod(korvel.HELPER, 0o755)
        status = subprocess.run([korvel.HELPER, "-runInstall", "1"], check=False).returncode
        expect(status == 0, f"status {status}")
        return check_file(korvel.daemon_path(),
                          korvel.daemon_file(korvel.SERVICE, [korvel.HELPER]), "0644 0:0")

    def serve(self):
        def act():
            pid = wait_for(lambda: running(korvel.HELPER, 0), "helper of launchd's")[0]
            wait_for(lambda: os.path.exists(korvel.endpoint_path())
                     and facts(korvel.endpoint_path()).startswith("0666 "), "open endpoint")
            ask("rnr_ping", "")
            return f"process {pid} of user 0; {korvel.endpoint_path()} answers"
        self.story.step("daemon", "launchd to run the helper as root, and its endpoint to answer",
                        act)

    def register(self):
        os.makedirs(os.path.dirname(RESTORE_FILE), exist_ok=True)
        pathlib.Path(RESTORE_FILE).write_text(CONTENT, encoding="utf-8")
        os.chmod(RESTORE_FILE, 0o600)
        os.chown(RESTORE_FILE, self.uid, -1)
        ask("rnr_register", RESTORE_FILE)
        expect(not os.path.exists(RESTORE_FILE), f"{RESTORE_FILE} is still there")
        moved = pathlib.Path(korvel.restore_path(SESSION))
        expect(moved.read_text(encoding="utf-8") == CONTENT, f"{moved} has another content")
        job = korvel.agent_file(korvel.agent_label(SESSION), korvel.client_arguments(SESSION))
        return f"{moved}, {check_file(korvel.agent_path(SESSION), job, '0644 0:0')}"

    def client(self, step):
        def act():
            command = " ".join(korvel.client_arguments(SESSION))
            pid = wait_for(lambda: running(command, self.uid), f"client of {self.user}")[0]
            expect(os.path.exists(korvel.restore_path(SESSION)), "its restore file is gone")
            return f"process {pid} of {self.user}, its restore file is there"
        self.story.step(step, "the client to run in the session of the user at the screen", act)

    def resign(self):
        ask("rnr_resign", korvel.restore_path(SESSION))
        path = korvel.agent_path(SESSION)
        expect(not os.path.exists(path), f"{path} is still there")
        command = " ".join(korvel.client_arguments(SESSION))
        wait_for(lambda: not running(command, self.uid), "end of the client")
        return "job file gone, client ended"

    def uninstall(self):
        done = subprocess.run([UNINSTALLER], capture_output=True, text=True, check=False)
        expect(done.returncode == 0, f"status {done.returncode}: {done.stderr.strip()}")
        expect(not leftovers(), f"left: {leftovers()}")
        if MARK in pathlib.Path(korvel.CLIENT).read_bytes():
            shutil.rmtree(korvel.CLIENT_BUNDLE)
        return "job files, endpoint, sessions and helper are gone"


def parse(words):
    parser = argparse.ArgumentParser(prog="dev demo", description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--on-this-mac", action="store_true",
                        help="yes, change this Mac: install a daemon, start and end processes")
    parser.add_argument("--helper", metavar="FILE", help="the built helper")
    parser.add_argument("--after-restart", action="store_true", help="the second half")
    chosen = parser.parse_args(words)
    if not chosen.on_this_mac:
        parser.error("this changes the Mac that it runs on: say --on-this-mac")
    if not os.path.exists(VERSION_FILE):
        parser.error("this is no Mac")
    if os.geteuid() != 0:
        parser.error("run this as root")
    if not chosen.after_restart and not (chosen.helper and os.path.isfile(chosen.helper)):
        parser.error("--helper FILE is wanted")
    return chosen


def main(words):
    chosen = parse(words)
    story = Story(Teller())
    with open(VERSION_FILE, "rb") as file:
        release = plistlib.load(file)["ProductVersion"]
    story.chapter(release, "this-mac", "a session registered through the socket, on this Mac", dict)
    try:
        mac = ThisMac(story)
        if chosen.after_restart:
            mac.after_restart()
        else:
            mac.before_restart(chosen.helper)
            print("\nNow restart this Mac, log in as the same user, and go on with --after-restart")
        status = 0
    except StoryEnded:
        status = 1
    story.finish()
    return status


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
