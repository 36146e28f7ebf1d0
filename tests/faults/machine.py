"""The Mac root that all runs share: its tree is put back after each of them.

Runs inside the root. Nothing of the simulated launchd is here: `launchctl` and `sudo` do nothing
and succeed, users are login records and folders, and the launchd of releases before 10.10 is a
thread that answers each message with success.
"""

import ctypes
import os
import pathlib
import shutil
import socket
import stat
import struct
import subprocess
import sys
import threading

SOURCE = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(SOURCE / "sim"))

import korvel  # noqa: E402
from launchd import loginrecords, wire  # noqa: E402

ALICE = 501
VERSION_FILE = "/System/Library/CoreServices/SystemVersion.plist"
LAUNCHD_FOLDER = "/private/tmp/launchd-1.alice"
STORE = "/private/var/db/faults"
MS_BIND = 4096
PEERCRED = struct.Struct("iII")


def cover(path, program):
    """Puts a program in the place of one of the machine's own, which are read-only."""
    if ctypes.CDLL(None).mount(program.encode(), path.encode(), None, MS_BIND, None) != 0:
        raise OSError(f"cannot cover {path}")


class PerUserLaunchd(threading.Thread):
    """Answers every whole message with success; a half one waits for its rest, as launchd does."""

    def __init__(self):
        super().__init__(daemon=True)
        os.mkdir(LAUNCHD_FOLDER)
        self.listener = socket.socket(socket.AF_UNIX)
        self.listener.bind(f"{LAUNCHD_FOLDER}/sock")
        for path in (LAUNCHD_FOLDER, f"{LAUNCHD_FOLDER}/sock"):
            os.chown(path, ALICE, 20)
        os.chmod(f"{LAUNCHD_FOLDER}/sock", 0o700)
        self.listener.listen(64)
        self.peers = []

    def run(self):
        while True:
            connection, _ = self.listener.accept()
            packed = connection.getsockopt(socket.SOL_SOCKET, socket.SO_PEERCRED, PEERCRED.size)
            self.peers.append(PEERCRED.unpack(packed)[1])
            threading.Thread(target=self.talk, args=[connection], daemon=True).start()

    @staticmethod
    def talk(connection):
        data = b""
        with connection:
            try:
                while chunk := connection.recv(65536):
                    data += chunk
                    if len(data) >= wire.HEADER.size and \
                            len(data) >= wire.frame_length(data[:wire.HEADER.size]):
                        connection.sendall(wire.error_reply(0))
                        data = b""
            except (OSError, wire.Malformed):
                pass


def fingerprint(path, info):
    """What must stay the same. A folder's entries are entries of their own."""
    kind = stat.S_IFMT(info.st_mode)
    owner = (info.st_mode, info.st_uid, info.st_gid)
    if kind == stat.S_IFREG:
        return owner + (info.st_size, info.st_mtime_ns, info.st_ino, info.st_nlink)
    if kind == stat.S_IFLNK:
        return owner + (os.readlink(path),)
    return owner


class Tree:
    """Everything in the root that is the root's own: mounts of the machine are left out."""

    def __init__(self):
        self.device = os.lstat("/").st_dev
        self.marked = {}
        self.content = {}

    def snapshot(self):
        """Path to fingerprint."""
        found = {}
        folders = ["/"]
        while folders:
            with os.scandir(folders.pop()) as entries:
                for entry in entries:
                    info = entry.stat(follow_symlinks=False)
                    if info.st_dev != self.device:
                        continue
                    found[entry.path] = fingerprint(entry.path, info)
                    if stat.S_ISDIR(info.st_mode):
                        folders.append(entry.path)
        return found

    def mark(self):
        """This is how the tree is to be; files of the store's size are not kept in memory."""
        self.marked = self.snapshot()
        self.content = {}
        for path, print_ in self.marked.items():
            if stat.S_ISREG(print_[0]) and not path.startswith(STORE):
                self.content[path] = pathlib.Path(path).read_bytes()

    def changes(self):
        """The paths that are not as marked, each with "made", "gone" or "changed"."""
        now = self.snapshot()
        if now == self.marked:
            return {}
        found = {path: "gone" for path in self.marked.keys() - now.keys()}
        found.update({path: "made" for path in now.keys() - self.marked.keys()})
        found.update({path: "changed" for path in now.keys() & self.marked.keys()
                      if now[path] != self.marked[path]})
        return found

    def put_back(self, changes):
        made = sorted((p for p, how in changes.items() if how == "made"), reverse=True)
        for path in made:
            if stat.S_ISDIR(os.lstat(path).st_mode):
                os.rmdir(path)
            else:
                os.unlink(path)
        for path in sorted(p for p, how in changes.items() if how != "made"):
            self._put_back_one(path)

    def _put_back_one(self, path):
        print_ = self.marked[path]
        mode, uid, gid = print_[:3]
        if stat.S_ISDIR(mode):
            os.makedirs(path, exist_ok=True)
        elif stat.S_ISREG(mode):
            if os.path.lexists(path):
                os.unlink(path)
            pathlib.Path(path).write_bytes(self.content[path])
        else:
            raise RuntimeError(f"cannot put back {path}")
        os.chown(path, uid, gid)
        os.chmod(path, stat.S_IMODE(mode))
        self.marked[path] = fingerprint(path, os.lstat(path))


class Outcome:
    """What the tracer told of one run."""

    def __init__(self, lines, errors, accepted, answers):
        self.lines = [line.split(" ") for line in lines]
        self.errors = errors
        self.accepted = accepted
        self.answers = answers
        self.end = " ".join(self.of("end")[0])

    def of(self, kind):
        return [words[1:] for words in self.lines if words[0] == kind]

    @property
    def hits(self):
        return int(self.of("hits")[0][0])


class Machine:
    """The root, and the tracer that runs things in it."""

    ACCEPTED_ROOM = 1 << 18

    def __init__(self, build):
        os.umask(0o022)
        self.build = pathlib.Path(build)
        os.makedirs(STORE)
        for name in ("faults_helper", "faults_client", "faults_broken"):
            shutil.copy(self.build / "tests/faults" / name, f"{STORE}/{name}")
        self.helper = pathlib.Path(f"{STORE}/faults_helper").read_bytes()
        os.makedirs(korvel.HELPER_FOLDER)
        os.unlink("/bin/launchctl")
        os.symlink("../usr/bin/true", "/bin/launchctl")
        cover("/usr/bin/sudo", "/usr/bin/true")
        os.chown("/dev/console", ALICE, 4)
        loginrecords.reset()
        loginrecords.log_in(4242, "alice")
        shutil.rmtree(korvel.CLIENT_BUNDLE)
        self.put(korvel.CLIENT, b"client", 0o755)
        self.put(f"{korvel.CLIENT_BUNDLE}/Contents/Info.plist", b"info")
        self.launchd = PerUserLaunchd()
        self.launchd.start()
        self.tree = Tree()
        self._version = pathlib.Path(VERSION_FILE).read_text(encoding="utf-8")
        self._files = [os.memfd_create(name) for name in ("errors", "answers", "accepted")]
        os.truncate(self._files[2], self.ACCEPTED_ROOM)
        self._tracer = None

    def put(self, path, content, mode=0o644, owner=(0, 0)):
        os.makedirs(os.path.dirname(path), exist_ok=True)
        pathlib.Path(path).write_bytes(content)
        os.chown(path, *owner)
        os.chmod(path, mode)

    def set_release(self, release):
        self.put(VERSION_FILE, self._version.replace("10.11.6", release).encode())

    def start_tracer(self):
        self._tracer = subprocess.Popen(
            [self.build / "tests/faults/faults_trace", *map(str, self._files[:2])],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True, pass_fds=self._files[:2])

    def run(self, command, environment=(), fault=None, steps=(), record=False, limit_ms=20000):
        """One run under the tracer; gives its Outcome. `fault` is (who, call, number, kind,
        repeat)."""
        if self._tracer is None:
            self.start_tracer()
        os.truncate(self._files[2], 0)
        os.truncate(self._files[2], self.ACCEPTED_ROOM)
        list_path = f"/proc/{os.getpid()}/fd/{self._files[2]}"
        lines = [["command", *command],
                 ["environment", "PATH=/usr/bin:/bin:/usr/sbin:/sbin", "HOME=/var/root",
                  f"FAULTS_ACCEPTED={list_path}", *environment],
                 ["limit", str(limit_ms)]]
        lines += [["step", *step] for step in steps]
        lines += [["record"]] if record else []
        lines += [["fault", *map(str, fault)]] if fault else []
        text = "".join("\t".join(line) + "\n" for line in lines) + "go\n"
        self._tracer.stdin.write(text)
        self._tracer.stdin.flush()
        told = []
        while not (told and told[-1].startswith("end ")):
            line = self._tracer.stdout.readline()
            if not line:
                raise RuntimeError(f"the tracer has ended after {told[-3:]}")
            told.append(line.rstrip("\n"))
        return Outcome(told, self._read(0), self._read(2).rstrip("\0"), self._read(1).split())

    def _read(self, number):
        file = self._files[number]
        return os.pread(file, os.fstat(file).st_size, 0).decode(errors="replace")
