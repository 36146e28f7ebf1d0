"""Process 1 of a simulated Mac: launchd [--owner FD] [--throttle S] [--exit-timeout S]."""

import os
import resource
import sys
from dataclasses import dataclass

sys.path[0] = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))

# pylint: disable=wrong-import-position
from launchd.control import Control
from launchd.ctl import Launchctl
from launchd.jobs import Launchd
from launchd.loop import Loop
from launchd.mac import Mac
from launchd.overrides import Overrides
from launchd.releases import Release
from launchd.server import Server
from launchd.timeline import Timeline

SYSTEM_LOG = "/var/log/system.log"


@dataclass
class Settings:
    """How this root differs from a real Mac."""

    throttle_s: float           # what launchd's ten seconds between two starts become
    exit_timeout_s: float       # what its twenty seconds until SIGKILL become
    single_id: bool             # only root exists; everybody is root
    system_log: int             # where the jobs' output goes


def option(name, default):
    """The value behind --NAME in the argument list, as a number."""
    words = sys.argv
    return float(words[words.index(name) + 1]) if name in words else default


def open_log():
    return os.open(SYSTEM_LOG, os.O_WRONLY | os.O_CREAT | os.O_APPEND | os.O_CLOEXEC, 0o644)


def main():
    hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
    settings = Settings(option("--throttle", 0.2), option("--exit-timeout", 1.0),
                        os.environ.get("KORVEL_MACROOT") == "single", open_log())
    release, timeline = Release.of_this_root(), Timeline()
    overrides = Overrides(release)

    def exited(pid, status):
        if not launchd.process_exited(pid, status):
            control.process_exited(pid, status)

    loop = Loop(exited)
    launchd = Launchd(loop, timeline, release, overrides, settings)
    mac = Mac(loop, timeline, launchd, release, settings)
    launchctl = Launchctl(mac, launchd, release, overrides, settings)
    control = Control(mac, launchd, launchctl, loop, settings.single_id)
    server = Server(loop, timeline, launchctl, control)
    server.listen()
    owner = int(option("--owner", -1))
    if owner >= 0:
        server.serve_owner(owner)
    loop.run()


if __name__ == "__main__":
    main()
