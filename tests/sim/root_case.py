"""What the tests of the simulated Mac share: the launcher's path and the rule about skips."""

import os
import pathlib
import plistlib
import subprocess
import sys
import unittest

SOURCE = pathlib.Path(__file__).resolve().parents[2]
LAUNCHER = os.environ.get("KORVEL_MACROOT_RUN", str(SOURCE / "build/debug/sim/macroot-run"))
CLIENT = "/Applications/Korvel.app/Contents/MacOS/korvel"
sys.path.insert(0, str(SOURCE / "sim"))

from macroot_api import MacRoot  # noqa: E402


def in_ci():
    return os.environ.get("CI", "") not in ("", "0", "false")


def run(*words, **options):
    """Runs the launcher with these words and gives the finished process."""
    options.setdefault("timeout", 60)
    return subprocess.run([LAUNCHER, *words], capture_output=True, text=True, check=False,
                          **options)


def inside(script, *options):
    """Runs a shell script in a fresh root; gives what it printed, lines joined."""
    done = run(*options, "--", "sh", "-euc", script)
    if done.returncode != 0:
        raise AssertionError(f"status {done.returncode}: {done.stdout}{done.stderr}")
    return done.stdout.strip()


def job(label, *argv, **keys):
    """A job file's bytes: the label, the arguments (default: sleep on) and further keys."""
    argv = list(argv) or ["/bin/sleep", "1000"]
    return plistlib.dumps({"Label": label, "ProgramArguments": argv, **keys})


class MacCase(unittest.TestCase):
    """A test with a Mac of its own, `self.mac`, not booted yet."""

    release = "10.11.6"
    options = {}

    def setUp(self):
        self.mac = MacRoot(release=self.release, launcher=LAUNCHER, **self.options)
        self.addCleanup(self.mac.close)

    def daemon(self, label, *argv, mode=0o644, owner=None, **keys):
        """Writes a daemon's job file and gives its path."""
        path = f"/Library/LaunchDaemons/{label}.plist"
        self.mac.write(path, job(label, *argv, **keys), mode, owner)
        return path

    def agent(self, label, *argv, **keys):
        path = f"/Library/LaunchAgents/{label}.plist"
        self.mac.write(path, job(label, *argv, **keys))
        return path

    def launchctl(self, *words, **options):
        """Runs launchctl; gives the finished command."""
        return self.mac.run(["/bin/launchctl", *words], **options)

    def refusal(self, label):
        """Why the job file of this label was refused at boot or login."""
        refused = [event for event in self.mac.find("job-refused")
                   if event["path"].endswith(f"/{label}.plist")]
        return refused[-1]["reason"] if refused else None


def main():
    """Runs the calling module's tests; without private roots a skip (77), in CI a failure (1)."""
    probe = run("true")
    if probe.returncode == 77:
        print(probe.stderr.strip())
        sys.exit(1 if in_ci() else 77)
    unittest.main(module="__main__", verbosity=1)
