"""All that happened in a root, in order, with the machine's monotonic times."""

import json
import time

LOG = "/var/log/macroot-timeline.jsonl"


class Timeline:
    """Keeps events, appends them to a file in the root and tells listeners.

    An event is a flat dictionary: "t" (seconds, CLOCK_MONOTONIC), "n" (its number, from 0),
    "event" (its kind) and the kind's own fields. Words that came as bytes hold lone surrogates for
    what is no UTF-8, so that os.fsencode gives the bytes back.
    """

    def __init__(self):
        self.events = []
        self.listeners = []
        self._file = None

    def add(self, kind, **fields):
        event = {"t": round(time.monotonic(), 6), "n": len(self.events), "event": kind, **fields}
        self.events.append(event)
        self._append(json.dumps(event))
        for listener in list(self.listeners):
            listener(event)
        return event

    def _append(self, line):
        if self._file is None:
            self._file = open(LOG, "a", encoding="utf-8")
        self._file.write(line + "\n")
        self._file.flush()
