"""The one thread of process 1: descriptors, timers, ended children, and flows that wait.

A flow is a generator that yields `Until` objects; it goes on with True when the condition holds and
with False when its time is up. Conditions are looked at again after everything that happens.
"""

import heapq
import itertools
import os
import selectors
import signal
import time


class Until:
    """What a flow waits for; `poll_s` for what nobody tells process 1 about."""

    def __init__(self, condition, limit_s=None, poll_s=None):
        self.condition = condition
        self.end = None if limit_s is None else time.monotonic() + limit_s
        self.poll_s = poll_s


class Timer:
    """A call that waits for its time."""

    def __init__(self, action):
        self.action = action

    def cancel(self):
        self.action = None


class Loop:
    """Runs until `stop`."""

    def __init__(self, on_exit):
        self._selector = selectors.DefaultSelector()
        self._timers = []
        self._order = itertools.count()
        self._flows = []
        self._on_exit = on_exit
        self._running = True

    def watch(self, file, events, action):
        """Calls action(ready events) whenever the file is ready; 0 events ends that."""
        known = file.fileno() in self._selector.get_map()
        if not events and known:
            self._selector.unregister(file)
        elif known:
            self._selector.modify(file, events, action)
        elif events:
            self._selector.register(file, events, action)

    def later(self, delay_s, action):
        timer = Timer(action)
        heapq.heappush(self._timers, (time.monotonic() + delay_s, next(self._order), timer))
        return timer

    def start(self, flow, done=lambda result, error: None):
        """Runs the flow up to its first wait; `done` gets its result or its exception."""
        self._flows.append([flow, None, done])
        self._advance(self._flows[-1], None)

    def stop(self):
        self._running = False

    def run(self):
        self._wake_on_signals()
        while self._running:
            for key, ready in self._selector.select(self._patience()):
                key.data(ready)
            self._reap()
            self._fire()
            self._go_on()

    def _wake_on_signals(self):
        read, write = os.pipe2(os.O_NONBLOCK | os.O_CLOEXEC)
        signal.set_wakeup_fd(write, warn_on_full_buffer=False)
        signal.signal(signal.SIGCHLD, lambda *_: None)
        signal.signal(signal.SIGTERM, lambda *_: self.stop())
        self._selector.register(read, selectors.EVENT_READ, lambda _: os.read(read, 4096))

    def _patience(self):
        now = time.monotonic()
        times = [self._timers[0][0] - now] if self._timers else []
        for _, wait, _ in self._flows:
            if wait.end is not None:
                times.append(wait.end - now)
            if wait.poll_s is not None:
                times.append(wait.poll_s)
        return max(0, min(times)) if times else None

    def _reap(self):
        """Tells of each ended child before its process id is free for reuse, then reaps it."""
        while True:
            try:
                ended = os.waitid(os.P_ALL, 0, os.WEXITED | os.WNOHANG | os.WNOWAIT)
            except ChildProcessError:
                return
            if ended is None:
                return
            signalled = ended.si_code != os.CLD_EXITED
            self._on_exit(ended.si_pid, -ended.si_status if signalled else ended.si_status)
            os.waitpid(ended.si_pid, 0)

    def _fire(self):
        while self._timers and self._timers[0][0] <= time.monotonic():
            timer = heapq.heappop(self._timers)[2]
            if timer.action is not None:
                timer.action()

    def _go_on(self):
        moved = True
        while moved:
            moved = False
            for entry in list(self._flows):
                wait = entry[1]
                if wait.condition():
                    moved = True
                    self._advance(entry, True)
                elif wait.end is not None and wait.end <= time.monotonic():
                    moved = True
                    self._advance(entry, False)

    def _advance(self, entry, answer):
        flow, _, done = entry
        try:
            entry[1] = flow.send(answer)
        except StopIteration as end:
            self._flows.remove(entry)
            done(end.value, None)
        except Exception as error:  # pylint: disable=broad-except
            self._flows.remove(entry)
            done(None, error)
