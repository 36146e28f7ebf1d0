"""The login records that getutxent reads: a real utmp file of this machine's C library."""

import os
import struct
import time

FILE = "/var/run/utmp"
RECORD = struct.Struct("<hxxi32s4s32s256shhiii4i20x")
BOOT_TIME, USER_PROCESS, DEAD_PROCESS = 2, 7, 8
CONSOLE = b"console"


def _record(kind, pid, line, user):
    now = time.time()
    seconds, micro = int(now), int(now % 1 * 1e6)
    return RECORD.pack(kind, pid, line, line[:4], user, b"", 0, 0, 0, seconds, micro, 0, 0, 0, 0)


def reset():
    """No one is logged in; the Mac has just started."""
    with open(FILE, "wb") as file:
        file.write(_record(BOOT_TIME, 0, b"", b""))
    os.chmod(FILE, 0o644)


def _write_at(offset, record):
    descriptor = os.open(FILE, os.O_WRONLY)
    try:
        os.pwrite(descriptor, record, offset)
    finally:
        os.close(descriptor)


def log_in(pid, user):
    _write_at(os.stat(FILE).st_size, _record(USER_PROCESS, pid, CONSOLE, user.encode()))


def log_out(pid):
    """Marks the record of the session's process as ended, in its place."""
    with open(FILE, "rb") as file:
        data = file.read()
    for offset in range(0, len(data), RECORD.size):
        fields = RECORD.unpack_from(data, offset)
        if fields[0] == USER_PROCESS and fields[1] == pid:
            _write_at(offset, _record(DEAD_PROCESS, pid, CONSOLE, b""))
