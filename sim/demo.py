#!/usr/bin/python3
"""The product at work on a simulated Mac: boot, install, register, restart, resume."""

import argparse
import pathlib
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))

from demo_picture import LogWatcher, Panel, picture  # noqa: E402
from demo_roads import ROADS  # noqa: E402
from demo_story import JsonTeller, Story, StoryEnded, Teller  # noqa: E402
from korvel_mac import ONE_ID, KorvelMac  # noqa: E402
from macroot_api import MacFailure, NoRoot  # noqa: E402

DEFAULT_RELEASES = ["10.11", "15"]
SKIPPED = 77

ABOUT = """\
Two stories on a simulated Mac, each from its first boot. In the first a client registers its
support session with the helper's shared daemon, the Mac is restarted, and the client is back in
the right user's session with its restore file; then it resigns. In the second a session gets a
daemon of its own, which comes up after a restart and removes itself when the session is over.
Every step prints one line: the time, what was expected, what was seen on the Mac."""
STATUSES = """\
exit status: 0 all as expected, 1 a step failed (with the log lines that tell why), 2 wrong use,
77 this machine allows no private root"""


def parse(words):
    parser = argparse.ArgumentParser(
        prog="macroot demo", description=ABOUT, epilog=STATUSES,
        formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--release", action="append", metavar="R", dest="releases",
                        help="product version of the Mac; repeatable (default: "
                             + " and ".join(DEFAULT_RELEASES) + ")")
    parser.add_argument("--road", choices=[road.ROAD for road in ROADS],
                        help="only this one of the two stories")
    parser.add_argument("--json", action="store_true", help="one JSON object for each step")
    parser.add_argument("--timeline", metavar="FILE",
                        help="also write the run as a picture (SVG)")
    parser.add_argument("--no-client", action="store_true",
                        help="leave the client out of the Mac; the story then fails")
    parser.add_argument("--build-dir", default="build/debug", metavar="DIR",
                        help="where the executables were built (default: build/debug)")
    return parser.parse_args(words)


def tell_road(road, mac, story, panels):
    """Tells one chapter, and keeps what a picture of it needs."""
    first = len(story.steps)
    with LogWatcher(mac) as log:
        try:
            road(mac, story).tell()
        finally:
            panels.append(Panel(f"macOS {story.release}: {road.TITLE}", list(mac.events),
                                [{**step, "begin_s": story.begin_s + step["time_s"]
                                  - step["took_s"]} for step in story.steps[first:]],
                                log.lines))


def tell(story, chosen, panels):
    for release in chosen.releases or DEFAULT_RELEASES:
        for road in ROADS:
            if chosen.road in (None, road.ROAD):
                with KorvelMac(chosen.build_dir, release=release,
                               client=not chosen.no_client) as mac:
                    if mac.mode == "single":
                        raise NoRoot(ONE_ID)
                    story.chapter(release, road.ROAD, road.TITLE, mac.log_lines)
                    if chosen.timeline:
                        tell_road(road, mac, story, panels)
                    else:
                        road(mac, story).tell()


def main(words):
    chosen = parse(words)
    story = Story(JsonTeller() if chosen.json else Teller())
    panels = []
    try:
        tell(story, chosen, panels)
        status = 0
    except StoryEnded:
        status = 1
    story.finish()
    if panels:
        pathlib.Path(chosen.timeline).write_text(picture(panels), encoding="utf-8")
    return status


if __name__ == "__main__":
    try:
        sys.exit(main(sys.argv[1:]))
    except NoRoot as reason:
        print(reason, file=sys.stderr)
        sys.exit(SKIPPED)
    except KeyboardInterrupt:
        sys.exit(130)
    except (MacFailure, OSError) as failure:
        print(f"demo: {failure}", file=sys.stderr)
        sys.exit(1)
