"""Telling a story step by step: one line a step, with its time, what was expected and seen."""

import json
import sys
import time


class Unexpected(Exception):
    """A step saw something else than it expected; the text says what."""


def expect(condition, seen):
    if not condition:
        raise Unexpected(seen)


class Teller:
    """Prints steps for people: a line while one runs (on a terminal), a line when it is over."""

    MARKS = {True: ("ok  ", "\x1b[32m"), False: ("FAIL", "\x1b[31;1m")}

    def __init__(self, out=sys.stdout):
        self.out = out
        self.on_terminal = out.isatty()

    def _color(self, code, text):
        return f"{code}{text}\x1b[0m" if self.on_terminal else text

    def _write(self, text):
        self.out.write(text)
        self.out.flush()

    def chapter(self, release, title):
        self._write("\n" + self._color("\x1b[1m", f"macOS {release}: {title}") + "\n")

    def begin(self, step):
        if self.on_terminal:
            self._write(f"  {'...':>8}        {step['step']}\r")

    def end(self, step):
        mark, code = self.MARKS[step["ok"]]
        clear = "\x1b[2K" if self.on_terminal else ""
        self._write(f"{clear}{step['time_s']:8.2f} s  {self._color(code, mark)}  "
                    f"{self._color(chr(27) + '[1m', step['step'])}: expected {step['expected']}; "
                    f"saw {step['seen']}\n")
        for name, lines in step.get("log", {}).items():
            self._write(f"            {name}:\n")
            self._write("".join(f"              {line}\n" for line in lines))

    def summary(self, steps, took_s):
        failed = [s for s in steps if not s["ok"]]
        verdict = "the story ended early: a step failed" if failed else "all as expected"
        self._write(f"\n{len(steps)} steps in {took_s:.1f} s, {verdict}\n")


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
            seen = str(error) if isinstance(error, Unexpected) else f"{type(error).__name__}: {error}"
            step.update(ok=False, seen=seen, log=self.explain())
        step["took_s"] = round(time.monotonic() - begin_s, 3)
        step["time_s"] = round(time.monotonic() - self.begin_s, 3)
        self.steps.append(step)
        self.teller.end(step)
        if not step["ok"]:
            raise StoryEnded(name)

    def finish(self):
        self.teller.summary(self.steps, time.monotonic() - self.begin_s)
