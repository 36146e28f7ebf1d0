"""A simulated Mac with the product on it: what installers, clients and supporters do there."""

import json
import pathlib
import stat

import korvel
from macroot_api import MacFailure, MacRoot

ONE_ID = "this machine gives a private root only one user id, and a Mac's users need several"
LIST_PROCESSES = """
import json, os
found = []
for name in filter(str.isdigit, os.listdir("/proc")):
    try:
        with open(f"/proc/{name}/cmdline", "rb") as file:
            words = file.read().decode(errors="replace").split("\\0")[:-1]
        found.append([int(name), os.stat(f"/proc/{name}").st_uid, words])
    except OSError:
        continue    # ended meanwhile
print(json.dumps([entry for entry in found if entry[0] not in (1, os.getpid())]))
"""


def find_program(build, *places):
    """The first of the places under the build folder that holds the program."""
    path = pathlib.Path(build).resolve().joinpath(*places)
    if not path.is_file():
        raise FileNotFoundError(f"{path} is not built")
    return str(path)


class KorvelMac(MacRoot):
    """The Mac, and the built executables in it. `build` is the build folder, `under` the words of a
    tool that shall run the helper where that is started by hand."""

    def __init__(self, build, under=(), **options):
        build = pathlib.Path(build).resolve()
        self.under = list(under)
        self.built_helper = find_program(build, "front", "korvel_helper")
        self.rnrctl_path = find_program(build, "tools", "rnrctl", "rnrctl")
        super().__init__(build=build, launcher=find_program(build, "sim", "macroot-run"), **options)

    # The installer

    def put_helper(self, path=korvel.HELPER):
        """Copies the helper to where the installer puts it."""
        self.sh(f"mkdir -p {path.rpartition('/')[0]} && cp {self.built_helper} {path}")
        return path

    def helper(self, *words, path=korvel.HELPER, limit_s=60, **options):
        """Runs the helper to its end as the installer does."""
        return self.run([*self.under, path, *words], limit_s, **options)

    # The client

    def write_restore_file(self, path, content="resume me", owner=(501, 20)):
        self.write(path, content, 0o600, None if self.mode == "single" else owner)
        return path

    def rnrctl(self, *words, **options):
        return self.run([self.rnrctl_path, *words], **options)

    # Looking

    def mode_owner(self, path):
        """Mode and owner as people write them: "0644 0:0"."""
        info = self.stat(path)
        return f"{stat.S_IMODE(info['st_mode']):04o} {info['st_uid']}:{info['st_gid']}"

    def log(self, path=korvel.LOG):
        """The (component, message) pairs of a log file; ValueError where its form is wrong."""
        return korvel.log_messages(self.read(path))

    def messages(self, path=korvel.LOG):
        return [text for _, text in self.log(path)]

    def listing(self, folder):
        """Every path beneath the folder, relative and sorted; empty when there is no folder."""
        if not self.exists(folder):
            return []
        return sorted(self.sh(f"cd {folder} && find . -mindepth 1 -printf '%P\\n'").splitlines())

    def processes(self):
        """The (pid, uid, arguments) of every process but process 1."""
        return [tuple(entry) for entry in
                json.loads(self.run(["/usr/bin/python3", "-ISc", LIST_PROCESSES], check=True).text)]

    def loaded(self, label):
        """The domains that have the job, and its processes there."""
        return {name: jobs[label]["pid"] for name, jobs in self.state()["domains"].items()
                if label in jobs}

    def clients(self, since=0):
        """How the stand-in client was started, in order."""
        return [event["record"] for event in self.find("client", since)]

    def log_lines(self, count=15):
        """The last lines of every log of the helper, by file."""
        found = {}
        paths = self.sh(f"ls -d {korvel.HELPER_FOLDER}/*.out {korvel.SESSIONS}/*/helper/*.out"
                        " /var/log/system.log 2>/dev/null || true").split()
        for path in paths:
            try:
                found[path] = self.read(path).decode(errors="replace").splitlines()[-count:]
            except MacFailure:
                continue
        return found
