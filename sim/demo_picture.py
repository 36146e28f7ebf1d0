"""The demonstration's run as a picture (SVG): processes as bars over time, restarts, the story's
steps, launchctl calls, and the helper's log lines at the moments at which they were written."""

import glob
import html
import threading
import time

import korvel

LOGS = (f"{korvel.HELPER}*.out*", "/Library/VeskRuntime/sessions/*/helper/*.out*")

WIDTH, LEFT, RIGHT = 1080, 170, 70          # of the page and its margins
LANE, BAR, LINE = 26, 14, 17                # heights
HEAD, ROWS = 120, 6                         # height above the lanes; rows of step names in it
LONGEST_GAP_S = 0.7                         # a longer time without any event is drawn this long

STYLE = """
text { font: 12px system-ui, sans-serif; fill: #24292f }
.title { font-weight: 600; font-size: 14px } .small { font-size: 10px; fill: #57606a }
.mono { font: 11px ui-monospace, monospace; white-space: pre } .rule { stroke: #d0d7de } .break { fill: #d0d7de }
.daemon { fill: #4a7dbd } .agent { fill: #4f9d69 } .login { fill: #c9a13b } .window { fill: #9a8fb5 }
.restart { stroke: #c0392b; stroke-width: 2 } .mark { fill: #c0392b } .call { fill: #8250df }
.line { fill: #24292f } .page { fill: #ffffff }
@media (prefers-color-scheme: dark) { text { fill: #d6dde4 } .small { fill: #9aa4ad }
.rule { stroke: #3d444d } .break { fill: #3d444d } .line { fill: #d6dde4 } .page { fill: #0d1117 } }
"""


class LogWatcher:
    """Notes when each line of the helper's logs appears, by looking at them from outside every few
    milliseconds: a line's own time has whole seconds only. Use as a context."""

    PAUSE_S = 0.003

    def __init__(self, mac):
        self.lines = []         # (monotonic time, text)
        self._root = f"/proc/{mac.pid}/root"
        self._read = {}         # path: bytes seen
        self._over = threading.Event()
        self._thread = threading.Thread(target=self._watch, daemon=True)

    def __enter__(self):
        self._thread.start()
        return self

    def __exit__(self, *_):
        self._over.set()
        self._thread.join()

    def _watch(self):
        while not self._over.wait(self.PAUSE_S):
            for pattern in LOGS:
                for path in glob.glob(self._root + pattern):
                    self._look(path)

    def _look(self, path):
        try:
            with open(path, "rb") as file:
                content = file.read()
        except OSError:
            return              # gone with its session folder, or its Mac
        seen = self._read.get(path, 0)
        whole = content[:content.rfind(b"\n") + 1]
        self._read[path] = len(whole)
        moment = time.monotonic()
        for line in whole[seen:].decode(errors="replace").splitlines():
            self.lines.append((moment, line.partition(" ")[2]))


class Scale:
    """Seconds to pixels, with long idle times cut out."""

    def __init__(self, moments):
        moments = sorted(set(moments))
        self.points = [(moments[0], 0.0)]
        self.breaks = []        # (begin, end), in seconds
        for before, after in zip(moments, moments[1:]):
            drawn_s = min(after - before, LONGEST_GAP_S)
            if drawn_s < after - before:
                self.breaks.append((before, after))
            self.points.append((after, self.points[-1][1] + drawn_s))
        self.unit = (WIDTH - LEFT - RIGHT) / (self.points[-1][1] or 1)

    def x(self, moment):
        before = self.points[0]
        for point in self.points:
            if point[0] >= moment:
                span_s = point[0] - before[0]
                part = (moment - before[0]) / span_s if span_s else 0
                return LEFT + (before[1] + part * (point[1] - before[1])) * self.unit
            before = point
        return LEFT + before[1] * self.unit


def bars(events, end):
    """(lane, kind, begin, end, what) of every process and log-in session that launchd knows."""
    open_bars, done = {}, []

    def close(key, moment):
        if key in open_bars:
            lane, kind, begin, what = open_bars.pop(key)
            done.append((lane, kind, begin, moment, what))

    for event in events:
        moment, kind = event["t"], event["event"]
        if kind == "process-started":
            is_daemon = event["domain"] == "system"
            lane = f"{'helper' if is_daemon else 'client'} ({event['domain']})"
            open_bars[event["pid"]] = (lane, "daemon" if is_daemon else "agent", moment,
                                       f"{event['label']}, process {event['pid']} of user "
                                       f"{event['uid']}")
        elif kind == "process-exited":
            close(event["pid"], moment)
        elif kind == "login-window":
            open_bars["window"] = ("login window", "window", moment, "login window")
        elif kind == "login":
            close("window", moment)
            open_bars["login"] = (f"{event['user']} logged in", "login", moment, event["user"])
        elif kind in ("restart", "logout"):
            for key in [k for k in open_bars if kind == "restart" or k == "login"]:
                close(key, moment)
    for key in list(open_bars):
        close(key, end)
    return done


class Panel:
    """One chapter: a title, lanes of bars, marks, and the log's lines below."""

    def __init__(self, title, events, steps, lines):
        self.title, self.events = title, events
        self.steps, self.lines = steps, lines
        times = ([e["t"] for e in events] + [s["begin_s"] for s in steps]
                 + [moment for moment, _ in lines])
        self.begin, self.end = min(times), max(times)
        self.scale = Scale(times)
        self.bars = bars(events, self.end)
        self.lanes = list(dict.fromkeys(bar[0] for bar in sorted(self.bars, key=lambda b: b[2])))

    def height(self):
        return HEAD + LANE * (len(self.lanes) + 2) + LINE * len(self.lines) + 30

    def draw(self, top):
        self.out, self.top = [], top
        self._put(f'<text class="title" x="12" y="{top + 22}">{html.escape(self.title)}</text>')
        first = top + HEAD
        bottom = first + LANE * (len(self.lanes) + 2)
        self._steps(top + 40, first - 6)
        self._breaks(first - 6, bottom)
        for number, lane in enumerate(self.lanes):
            self._lane(lane, first + LANE * number)
        self._calls(first + LANE * len(self.lanes))
        self._dots(first + LANE * (len(self.lanes) + 1))
        self._restarts(first - 6, bottom)
        self._legend(bottom + 22)
        return "\n".join(self.out)

    def _put(self, text):
        self.out.append(text)

    def _label(self, text, y):
        self._put(f'<text x="12" y="{y + 12}">{html.escape(text)}</text>'
                  f'<line class="rule" x1="{LEFT}" x2="{WIDTH - RIGHT}" y1="{y + 20}" y2="{y + 20}"/>')

    def _since(self, moment):
        return f"{moment - self.begin:.2f} s"

    def _steps(self, y, bottom):
        """The story's steps, in rows so that close ones can be read."""
        free = [0] * ROWS
        for step in self.steps:
            x = self.scale.x(step["begin_s"])
            row = min(range(ROWS), key=lambda r, x=x: (max(free[r] - x, 0), r))
            free[row] = x + 7 * len(step["step"]) + 8
            self._put(f'<line class="rule" x1="{x:.1f}" x2="{x:.1f}" y1="{y + 12 * row - 6}" '
                      f'y2="{bottom}"/><text class="small" x="{x + 2:.1f}" y="{y + 12 * row}">'
                      f'{html.escape(step["step"])}</text>')

    def _breaks(self, y, bottom):
        for begin, end in self.scale.breaks:
            middle = (self.scale.x(begin) + self.scale.x(end)) / 2
            self._put(f'<rect class="break" x="{middle - 2:.1f}" y="{y}" width="4" '
                      f'height="{bottom - y}"><title>{end - begin:.2f} s without an event</title>'
                      f'</rect><text class="small" text-anchor="middle" x="{middle:.1f}" '
                      f'y="{bottom + 10}">{end - begin:.1f} s</text>')

    def _lane(self, lane, y):
        self._label(lane, y)
        for name, kind, begin, end, what in self.bars:
            if name != lane:
                continue
            x = self.scale.x(begin)
            width = max(self.scale.x(end) - x, 2)
            self._put(f'<rect class="{kind}" x="{x:.1f}" y="{y + 2}" width="{width:.1f}" '
                      f'height="{BAR}" rx="2"><title>{html.escape(what)}, {self._since(begin)} to '
                      f'{self._since(end)}</title></rect>')

    def _calls(self, y):
        self._label("launchctl", y)
        for event in self.events:
            if event["event"] == "launchctl":
                words = " ".join(word.strip() for word in event["argv"][1:])
                x = self.scale.x(event["t"])
                self._put(f'<path class="call" d="M{x:.1f} {y + 3}l4 11h-8z"><title>'
                          f'{html.escape(words)}, {self._since(event["t"])}</title></path>')

    def _dots(self, y):
        self._label("log lines", y)
        for number, (moment, text) in enumerate(self.lines, 1):
            x = self.scale.x(moment)
            self._put(f'<circle class="line" cx="{x:.1f}" cy="{y + 9}" r="3"><title>{number}: '
                      f'{html.escape(text)}</title></circle>')

    def _restarts(self, y, bottom):
        for event in self.events:
            if event["event"] == "restart":
                x = self.scale.x(event["t"])
                self._put(f'<line class="restart" x1="{x:.1f}" x2="{x:.1f}" y1="{y}" '
                          f'y2="{bottom}"><title>restart, {self._since(event["t"])}</title></line>')

    def _legend(self, y):
        for number, (moment, text) in enumerate(self.lines):
            text = text if len(text) <= 125 else text[:122] + "..."
            self._put(f'<text class="mono" x="12" y="{y + LINE * number}">{number + 1:3d}  '
                      f'{self._since(moment):>8}  {html.escape(text)}</text>')


def picture(panels):
    """The whole page, one panel below the other."""
    height = sum(panel.height() for panel in panels) + 10
    top, body = 0, []
    for panel in panels:
        body.append(panel.draw(top))
        top += panel.height()
    return (f'<svg xmlns="http://www.w3.org/2000/svg" width="{WIDTH}" height="{height}" '
            f'viewBox="0 0 {WIDTH} {height}" role="img">\n<title>The helper at work on a simulated '
            f'Mac</title>\n<style>{STYLE}</style>\n'
            f'<rect class="page" width="{WIDTH}" height="{height}"/>\n'
            + "\n".join(body) + "\n</svg>\n")
