"""The rows of the report, in its order, and where their figures are to stand: the one table of it."""

from dataclasses import dataclass
from typing import Optional


@dataclass(frozen=True)
class Row:
    """A workload's case, measured by `program` as "WORKLOAD/CASE/CONTENDER".

    `peer` is the highest ratio of ours to the best peer, or to the best of those whose names begin
    with `against`; `limit` the highest ratio to the contender "limit"; `above_limit` the most that
    ours may be above the limit, in the row's own unit. None: no target, the row is only told.
    """
    name: str
    program: str
    title: str
    peer: Optional[float] = None
    against: str = ""
    limit: Optional[float] = None
    above_limit: Optional[float] = None

    @property
    def workload(self):
        return self.name.split("/")[0]


ROWS = [
    Row("template/mix", "text", "fill a message template: five, twelve values", 0.70, limit=2.2),
    Row("template/one_string", "text", "fill a message template: one string", 0.60, limit=2.0),

    Row("log_call/burst", "log", "one log call, in a burst", 0.25, "spdlog async", limit=5),
    Row("log_call/asleep", "log", "one log call, the writer asleep", 1.0, "spdlog async"),
    Row("log_line/flushed", "log", "one line logged and flushed", 1.5, "spdlog async"),
    Row("log_file/lines", "log", "30,000 lines to the file", 0.60),
    Row("log_file/echo", "log", "30,000 lines, echo to standard error", 0.35),
    Row("log_file/rotation", "log", "30,000 lines, rotation", 0.75),

    Row("xml/job_file", "xml", "text of an agent job file", 0.25),
    Row("xml/array", "xml", "text of an array of 10,000 strings", 0.60),
    Row("escape/clean", "xml", "escape 64 KiB, clean", 0.65),
    Row("escape/entities", "xml", "escape 64 KiB full of entities", 0.70),

    Row("utf8/path", "unicode", "UTF-8 to UTF-32: a path of 60 bytes", 0.50),
    Row("utf8/ascii", "unicode", "UTF-8 to UTF-32: 64 KiB of ASCII", 0.50),
    Row("utf8/latin", "unicode", "UTF-8 to UTF-32: 64 KiB of Latin", 0.50),
    Row("utf8/cjk", "unicode", "UTF-8 to UTF-32: 64 KiB of CJK", 0.50),
    Row("utf8/emoji", "unicode", "UTF-8 to UTF-32: 64 KiB of emoji", 0.50),
    Row("utf8/broken", "unicode", "UTF-8 to UTF-32: 64 KiB of broken bytes", 0.50),
    Row("utf32/path", "unicode", "and back: the path", 0.50),
    Row("utf32/ascii", "unicode", "and back: ASCII", 0.50),
    Row("utf32/latin", "unicode", "and back: Latin", 0.50),
    Row("utf32/cjk", "unicode", "and back: CJK", 0.50),
    Row("utf32/emoji", "unicode", "and back: emoji", 0.50),
    Row("utf32/broken", "unicode", "and back: with values that are no characters", 0.50),

    Row("netbuf/submit_job", "netbuf", "the SubmitJob message to a string", 1.0, "std::string"),
    Row("netbuf/append", "netbuf", "10,000 appends of 24 bytes", limit=2.4),
    Row("netbuf/prepend", "netbuf", "1,000 prepends of 16 bytes", 0.30, "evbuffer"),
    Row("netbuf/queue", "netbuf", "a queue of 8,192: look at 24, drop 128", 0.25, "evbuffer"),
    Row("netbuf/receive", "netbuf", "160 receives into 8 KiB of room", 1.2, "evbuffer"),
    Row("netbuf/copy_cut_append", "netbuf", "100 times copy, cut, append", 0.22, "absl::Cord"),
    Row("netbuf/pull_up", "netbuf", "pull-up of 100 x 8 KiB", 1.05, "absl::Cord"),

    Row("request/small", "request", "one request, small", limit=1.05),
    Row("request/queued", "request", "20 requests queued", limit=1.05),
    Row("request/large", "request", "one request of 1 MiB", limit=1.05),

    Row("child/limit_1024", "child", "start a child, 1,024 descriptors", 1.10, "posix_spawn"),
    Row("child/limit_20000", "child", "start a child, 20,000 descriptors", 1.10, "posix_spawn"),
    Row("child/limit_most", "child", "start a child, as many as there can be", 1.10, "posix_spawn"),
    Row("child/detached", "child", "the caller's time for a detached start", 0.55, "double fork"),

    Row("bundle/copy_memory", "bundle", "copy 5,000 files, 300 MB, in memory", 0.60),
    Row("bundle/copy_disk", "bundle", "copy 5,000 files, 300 MB, on disk", 0.70),
    Row("bundle/delete", "bundle", "delete them, in memory", 0.95),
    Row("bundle/delete_disk", "bundle", "delete them, on disk"),

    Row("footprint/start", "footprint", "start to the first reply", 1.10, "libevent"),
    Row("footprint/idle_memory", "footprint", "private memory, idle", 2.0, "libevent"),
    Row("footprint/growth", "footprint", "the same after 2,000 requests", above_limit=16),
    Row("footprint/wake_ups", "footprint", "wake-ups while idle", above_limit=0),

    Row("register/register", "register", "register in a Mac root", above_limit=5),
    Row("register/resign", "register", "resign in a Mac root", above_limit=5),
]
