"""Telling a story step by step: one line a step, with its time, what was expected and seen."""

import json
import shutil
import sys
import textwrap
import time


class Unexpected(Exception):
    """A step saw something else than it expected; the text says what."""


def expect(condition, seen):
    if not condition:
        raise Unexpected(seen)


class Teller:
    """Prints steps for people: one line when a step is over. On a terminal the line is colored and
    broken at the window's width, and the step that runs is shown."""

    MARKS = {True: ("ok  ", "32"), False: ("FAIL", "31;1")}
    COLUMN = 18     # where a step's text begins

    def __init__(self, out=sys.stdout):
        self.out = out
        self.on_terminal = out.isatty()

    def chapter(self, release, title):
        self._write("\n" + self._color("1", f"macOS {release}: {title}") + "\n")

    def begin(self, step):
        if self.on_terminal:
            self._write(f"{'...':>10}        {step['step']}\r")

    def end(self, step):
        mark, code = self.MARKS[step["ok"]]
        clear = "\x1b[2K" if self.on_terminal else ""
        self._write(f"{clear}{step['time_s']:8.2f} s  {self._color(code, mark)}"
                    f"  {self._text(step)}\n")
        for name, lines in step.get("log", {}).items():
            self._write(f"{'':12}{name}:\n" + "".join(f"{'':14}{line}\n" for line in lines))

    def summary(self, steps, took_s):
        failed = [s for s in steps if not s["ok"]]
        verdict = "the story ended early: a step failed" if failed else "all as expected"
        self._write(f"\n{len(steps)} steps in {took_s:.1f} s, {verdict}\n")

    def _text(self, step):
        name, parts = step["step"], [f"expected {step['expected']};", f"saw {step['seen']}"]
        if not self.on_terminal:
            return f"{name}: {' '.join(parts)}"
        width = max(shutil.get_terminal_size().columns, 60)
        margin = " " * self.COLUMN
        text = "\n".join(textwrap.fill(part, width, initial_indent=margin, subsequent_indent=margin
                                       + "  ", break_on_hyphens=False) for part in parts)
        return self._color("1", name) + "\n" + text

    def _color(self, code, text):
        return f"\x1b[{code}m{text}\x1b[0m" if self.on_terminal else text

    def _write(self, text):
        self.out.write(text)
        self.out.flush()


class JsonTeller:
    """One JSON object a step, for programs."""

    def __init__(self, out=sys.stdout):
        self.out = out

    def chapter(self, release, title):
        pass

    def begin(self, step):
        pass

    def end(self, step):
        self.out.write(json.dumps(step) + "\n")
        self.out.flush()

    def summary(self, steps, took_s):
        pass


class StoryEnded(Exception):
    """A step failed; what comes after it would tell nothing."""


class Story:
    """The steps of one or more chapters. `explain` gives the log lines of a failed step."""

    def __init__(self, teller):
        self.teller = teller
        self.begin_s = time.monotonic()
        self.steps = []
        self.release = self.road = None
        self.explain = dict

    def chapter(self, release, road, title, explain):
        self.release, self.road, self.explain = release, road, explain
        self.teller.chapter(release, title)

    def step(self, name, expected, act):
        """Runs `act`, which gives what it saw or raises; a failed step ends the story."""
        step = {"release": self.release, "road": self.road, "step": name, "expected": expected}
        begin_s = time.monotonic()
        self.teller.begin(step)
        try:
            step.update(ok=True, seen=act())
        except Exception as error:  # pylint: disable=broad-except
            kind = "" if isinstance(error, Unexpected) else f"{type(error).__name__}: "
            step.update(ok=False, seen=f"{kind}{error}", log=self.explain())
        step["took_s"] = round(time.monotonic() - begin_s, 3)
        step["time_s"] = round(time.monotonic() - self.begin_s, 3)
        self.steps.append(step)
        self.teller.end(step)
        if not step["ok"]:
            raise StoryEnded(name)

    def finish(self):
        self.teller.summary(self.steps, time.monotonic() - self.begin_s)
