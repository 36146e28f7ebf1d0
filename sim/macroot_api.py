"""A simulated Mac for tests and demonstrations, as a Python object.

    with MacRoot(release="10.11.6") as mac:
        mac.boot()
        mac.run(["/build/front/korvel_helper", "-runInstall", "1"])
        mac.wait_for("process-started", label="com.norvane.korvel.helper")
        mac.login("alice")

The root lives until it is closed; when the object's process dies, however, everything in the root
dies with it. All that happens is in `events` (dictionaries; see launchd/timeline.py for the common
fields): boot, restart, login-window, login, logout, switch, job-loaded, job-refused, job-unloaded,
job-throttled, process-started, process-exited (status, negative for a signal), process-failed,
process-killed, launchctl (argv, uid, status, out, err), client (record: how the stand-in client was
started).

One object belongs to one thread. Nothing here needs rights of its own beyond those to make a root.
"""

import compileall
import itertools
import json
import os
import pathlib
import select
import signal
import socket
import subprocess
import time
from dataclasses import dataclass

SIM = pathlib.Path(__file__).resolve().parent
SOURCE = SIM.parent
PYTHON = "/usr/bin/python3"
PACKET = 1 << 20


class NoRoot(Exception):
    """This machine allows no private root; the text is the launcher's line."""


class MacFailure(Exception):
    """The simulated Mac refused an operation, or ended. `errno` tells what, where a call failed."""

    def __init__(self, text, number=None):
        super().__init__(text)
        self.errno = number


class Timeout(MacFailure):
    """What was waited for did not happen; the text ends with the latest events."""


@dataclass
class Finished:
    """A command's end: exit status (negative for a signal) and what it printed, as bytes."""

    status: int
    out: bytes
    err: bytes

    @property
    def text(self):
        return self.out.decode(errors="replace")

    @property
    def error_text(self):
        return self.err.decode(errors="replace")


def find_launcher(build=None):
    """The launcher: of the build folder given, else KORVEL_MACROOT_RUN, else the newest that was
    built in the source tree."""
    named = f"{build}/sim/macroot-run" if build else os.environ.get("KORVEL_MACROOT_RUN")
    if named:
        return named
    built = sorted(SOURCE.glob("build/*/sim/macroot-run"), key=lambda path: path.stat().st_mtime)
    if not built:
        raise NoRoot("macroot-run is not built (cmake --build build/debug --target macroot-run)")
    return str(built[-1])


def lines_of(events):
    return "\n".join(json.dumps(event) for event in events)


class Channel:
    """Requests, answers and events on the socket to process 1."""

    def __init__(self, sock, complaint=lambda: ""):
        self._sock = sock
        self._complaint = complaint
        self._numbers = itertools.count(1)
        self._answers = {}
        self._exits = {}
        self.events = []

    def request(self, op, descriptors=(), **fields):
        """Sends a request and gives its number."""
        number = next(self._numbers)
        packet = json.dumps({"id": number, "op": op, **fields}).encode()
        try:
            socket.send_fds(self._sock, [packet], list(descriptors))
        except OSError as error:
            raise self._ended(error.strerror) from None
        return number

    def answer(self, number, limit_s):
        """The answer and the descriptors that came with it. Throws MacFailure."""
        self.pump_until(lambda: number in self._answers, limit_s, "an answer")
        message, descriptors = self._answers.pop(number)
        if not message["ok"]:
            raise MacFailure(message["error"], message.get("errno"))
        return message, descriptors

    def exit_status(self, number):
        """The status of the command that the request ran; None while it runs."""
        return self._exits.get(number)

    def pump_until(self, condition, limit_s, what):
        """Takes messages in until the condition holds; without end where the limit is None."""
        end = None if limit_s is None else time.monotonic() + limit_s
        while not condition():
            rest = None if end is None else max(0, end - time.monotonic())
            if not self.pump(rest) and not condition():
                raise Timeout(f"waited {limit_s} s for {what}; latest events:\n"
                              + lines_of(self.events[-12:]))

    def pump(self, limit_s=0):
        """Takes one message in; False when none came in time."""
        if not select.select([self._sock], [], [], limit_s)[0]:
            return False
        try:
            packet, descriptors, _, _ = socket.recv_fds(self._sock, PACKET, 8)
        except ConnectionResetError:
            packet = b""
        if not packet:
            raise self._ended()
        message = json.loads(packet)
        if "event" in message:
            self.events.append(message)
        elif message.get("exited"):
            self._exits[message["id"]] = message["status"]
        else:
            self._answers[message["id"]] = (message, descriptors)
        return True

    def _ended(self, how=""):
        return MacFailure(f"the Mac root has ended {how}; latest events:\n"
                          + lines_of(self.events[-12:]) + "\n" + self._complaint())

    def fileno(self):
        return self._sock.fileno()

    def close(self):
        self._sock.close()


class Command:
    """A command that runs in the root."""

    def __init__(self, mac, number, pid, out, err):
        self._mac = mac
        self._number = number
        self.pid = pid
        self._out = out
        self._err = err

    @property
    def status(self):
        """None while it runs; its exit status then, negative for a signal."""
        while self._mac.channel.pump():
            pass
        return self._mac.channel.exit_status(self._number)

    def kill(self, number=signal.SIGKILL):
        self._mac.ask("kill", pid=self.pid, signal=int(number))

    def wait(self, limit_s=30):
        """Waits for the end; gives what it printed. Throws Timeout, having killed it."""
        exits = self._mac.channel
        try:
            exits.pump_until(lambda: exits.exit_status(self._number) is not None, limit_s,
                             f"the end of command {self.pid}")
        except Timeout:
            self.kill()
            raise
        return Finished(exits.exit_status(self._number), self.output(), self.errors())

    def output(self):
        """What it has printed so far."""
        return os.pread(self._out, os.fstat(self._out).st_size, 0)

    def errors(self):
        return os.pread(self._err, os.fstat(self._err).st_size, 0)

    def __del__(self):
        os.close(self._out)
        os.close(self._err)


class MacRoot:
    """One simulated Mac."""

    def __init__(self, release="10.11.6", users=None, client=True, binds=(), build=None,
                 throttle_s=0.2, exit_timeout_s=1.0, launcher=None):
        """Makes the root; `users` maps names to ids, `binds` are SRC:DST[:rw], `build` is the build
        folder that stands at /build (the launcher's own unless given). launchd's ten seconds
        between starts become `throttle_s`, its twenty until SIGKILL `exit_timeout_s`. Throws
        NoRoot."""
        compileall.compile_dir(SIM / "launchd", quiet=2)
        own, peers = socket.socketpair(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        info_read, info_write = os.pipe()
        words = [launcher or find_launcher(build), "--release", release,
                 "--info-fd", str(info_write), "--source", str(SOURCE)]
        for name, uid in (users or {}).items():
            words += ["--user", f"{name}:{uid}"]
        for bind in binds:
            words += ["--bind", bind]
        words += (["--build", str(build)] if build else []) + ([] if client else ["--no-client"])
        words += ["--init", "--", PYTHON, "-IS", str(SIM / "launchd"),
                  "--owner", str(peers.fileno()), "--throttle", str(throttle_s),
                  "--exit-timeout", str(exit_timeout_s)]
        self._errors = os.memfd_create("stderr")
        self._process = subprocess.Popen(
            words, pass_fds=[peers.fileno(), info_write], stdin=subprocess.DEVNULL,
            stderr=self._errors)
        peers.close()
        os.close(info_write)
        self.release = release
        self.channel = Channel(own, self._complaint)
        self._read_info(info_read)

    def _read_info(self, descriptor):
        with os.fdopen(descriptor) as info:
            line = info.read().split()
        if not line:
            status, complaint = self._process.wait(), self._complaint()
            self.channel.close()
            os.close(self._errors)
            raise NoRoot(complaint) if status == 77 else MacFailure(complaint)
        #: process 1 as this machine sees it, and how the root was made (plain, subuid, single)
        self.pid, self.mode = int(line[0]), line[1]

    def _complaint(self):
        """What the launcher and process 1 have printed as errors."""
        if self._errors < 0:
            return ""
        size = os.fstat(self._errors).st_size
        return os.pread(self._errors, size, 0).decode(errors="replace").strip()

    def close(self):
        """Ends everything in the root and waits until nothing of it is left."""
        self.channel.close()        # process 1 ends by that
        try:
            self._process.wait(10)
        except subprocess.TimeoutExpired:
            self._process.kill()
            self._process.wait()
        if self._errors >= 0:
            os.close(self._errors)
            self._errors = -1

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def ask(self, op, limit_s=30, **fields):
        """One operation of launchd/control.py; gives its answer."""
        return self.channel.answer(self.channel.request(op, **fields), limit_s)[0]

    # The Mac

    def boot(self, login=None):
        """Starts the Mac up to its login window, or to the log-in of a user."""
        self.ask("boot")
        if login:
            self.login(login)

    def restart(self, login=None, hard=False):
        """Ends everything and boots again; `hard` as if the power had failed."""
        self.ask("restart", hard=hard)
        if login:
            self.login(login)

    def login(self, user):
        """Logs the user in beside whoever is logged in; gives the session's pid and number."""
        return self.ask("login", user=user)

    def logout(self, user):
        self.ask("logout", user=user)

    def switch(self, user):
        """Gives the screen to a user who is logged in; None shows the login window."""
        self.ask("switch", user=user)

    def state(self):
        """Console user, sessions and jobs now; see op_state of launchd/control.py."""
        return self.ask("state")

    def job(self, label, domain="system"):
        """A loaded job's pid (None while it does not run), status and path; None if not loaded."""
        return self.state()["domains"].get(domain, {}).get(label)

    # Commands

    def start(self, argv, user="root", session=None, stdin=b"", env=None, cwd="/"):
        """Starts a command as the user, in the named user's session ("loginwindow" for that) or,
        without one, outside of all as a daemon is; gives a Command."""
        files = [os.memfd_create(name) for name in ("stdin", "stdout", "stderr")]
        os.pwrite(files[0], stdin, 0)
        try:
            number = self.channel.request("run", files, argv=list(argv), user=user,
                                          session=session, env=env or {}, cwd=cwd)
            answer, _ = self.channel.answer(number, 30)
        except MacFailure:
            os.close(files[1])
            os.close(files[2])
            raise
        finally:
            os.close(files[0])
        return Command(self, number, answer["pid"], files[1], files[2])

    def run(self, argv, limit_s=30, check=False, **options):
        """Runs a command to its end. With `check` a status other than 0 is a MacFailure."""
        done = self.start(argv, **options).wait(limit_s)
        if check and done.status != 0:
            raise MacFailure(f"{argv}: status {done.status}: {done.text}{done.error_text}")
        return done

    def sh(self, script, **options):
        """Runs a shell script that has to succeed; gives what it printed, stripped."""
        return self.run(["/bin/sh", "-euc", script], check=True, **options).text.strip()

    # Files

    def open(self, path, flags=os.O_RDONLY, mode=0o644):
        """A descriptor of the root's file, opened inside."""
        number = self.channel.request("open", path=path, flags=flags, mode=mode)
        return self.channel.answer(number, 30)[1][0]

    def read(self, path):
        with os.fdopen(self.open(path), "rb") as file:
            return file.read()

    def read_text(self, path):
        return self.read(path).decode()

    def write(self, path, data, mode=0o644, owner=None):
        """Writes a file with this mode, owned by (uid, gid) or root; replaces what was there."""
        data = data.encode() if isinstance(data, str) else data
        with os.fdopen(self.open(path, os.O_WRONLY | os.O_CREAT | os.O_TRUNC), "wb") as file:
            file.write(data)
        self.file("chmod", path, mode)
        if owner:
            self.file("chown", path, *owner)

    def file(self, call, *arguments):
        """A call of the os module on the root's files: stat, lstat, listdir, chmod, ..."""
        return self.ask("file", call=call, arguments=list(arguments))["value"]

    def stat(self, path):
        """The os.stat fields (st_mode, st_uid, ...) as a dictionary; follows no link."""
        return self.file("lstat", path)

    def exists(self, path):
        try:
            self.stat(path)
        except MacFailure:
            return False
        return True

    # What happened, and waiting for it

    @property
    def events(self):
        """Everything so far."""
        while self.channel.pump():
            pass
        return self.channel.events

    def mark(self):
        """The number of events so far, for `since`."""
        return len(self.events)

    def find(self, kind, since=0, **fields):
        """The events of this kind whose fields have these values."""
        return [event for event in self.events[since:] if event["event"] == kind
                and all(event.get(name) == value for name, value in fields.items())]

    def wait_for(self, kind, limit_s=10, since=0, **fields):
        """The first such event since the mark, waited for if it is still to come. Throws
        Timeout."""
        self.channel.pump_until(lambda: self.find(kind, since, **fields), limit_s,
                                f"{kind} {fields}")
        return self.find(kind, since, **fields)[0]

    def wait_until(self, condition, limit_s=10, what="a condition"):
        """For what no event tells: looks again every few milliseconds. Gives the true value."""
        end = time.monotonic() + limit_s
        while not (value := condition()):
            if time.monotonic() > end:
                raise Timeout(f"waited {limit_s} s for {what}; latest events:\n"
                              + lines_of(self.events[-12:]))
            time.sleep(0.005)
        return value

    def launchctl_calls(self, since=0):
        """The arguments of the launchctl calls, in order, without the program."""
        return [event["argv"][1:] for event in self.find("launchctl", since)]

    def timeline(self):
        """All events as lines of JSON."""
        return lines_of(self.events)

    # Misbehaviour on request

    def script_launchctl(self, verb, *answers):
        """The next calls of the verb end with these answers (dictionaries with status, out, err,
        delay_s; without a status the call does its work after the delay)."""
        self.ask("script", verb=verb, answers=list(answers))

    def cover(self, path, script):
        """Puts an executable script in a program's place, also under /usr, until `uncover`."""
        source = f"/private/var/db/cover-{len(self.file('listdir', '/private/var/db'))}"
        self.write(source, script, 0o755)
        self.ask("cover", source=source, path=path)

    def uncover(self, path):
        self.ask("uncover", path=path)

    def script_socket(self, user, *answers):
        """The next answers on the user's launchd socket, before 10.10: dictionaries with "steps",
        a list of ["genuine", FROM, TO] (bytes of the right answer), ["send", HEX], ["pause", S],
        ["endless"], ["close"], and "perform", false to leave the request undone."""
        self.ask("script_socket", user=user, answers=list(answers))
