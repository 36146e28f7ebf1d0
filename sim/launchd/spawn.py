"""Starting a process as launchd does: a session of its own, another user, another context."""

import ctypes
import fcntl
import os
import resource
import signal
import termios
from dataclasses import dataclass

NEW_CONTEXT = 0x04000000  # CLONE_NEWUTS
OPEN_FILES = 256
_libc = ctypes.CDLL(None, use_errno=True)


class SpawnError(Exception):
    """The program was not started."""


@dataclass
class Launch:
    """All that is decided before the fork."""

    program: str
    arguments: list
    environment: dict
    uid: int = 0
    gid: int = 0
    groups: list = None         # None: rights stay as they are
    work_folder: str = "/"
    umask: int = 0o022
    context: int = -1           # descriptor of the bootstrap context to enter, -1 for none
    own_context: bool = False   # make a bootstrap context for this process and its children
    files: tuple = ("/dev/null", "/dev/null", "/dev/null")  # paths or descriptors
    terminal: bool = False      # descriptor 0 becomes the controlling terminal


def _checked(result):
    if result != 0:
        error = ctypes.get_errno()
        raise OSError(error, os.strerror(error))


def _open_files(files):
    descriptors = []
    for number, file in enumerate(files):
        if isinstance(file, int):
            descriptors.append(file)
            continue
        flags = os.O_RDONLY if number == 0 else os.O_WRONLY | os.O_CREAT | os.O_APPEND
        descriptors.append(os.open(file, flags, 0o644))
    for number, descriptor in enumerate(descriptors):
        # Above 2 first, so that no descriptor is overwritten before it was used.
        descriptors[number] = fcntl.fcntl(descriptor, fcntl.F_DUPFD_CLOEXEC, 10)
    for number, descriptor in enumerate(descriptors):
        os.dup2(descriptor, number)


def _become(launch):
    os.setsid()
    if launch.terminal:
        fcntl.ioctl(launch.files[0], termios.TIOCSCTTY, 0)
    if launch.context >= 0:
        _checked(_libc.setns(launch.context, NEW_CONTEXT))
    if launch.own_context:
        _checked(_libc.unshare(NEW_CONTEXT))
    hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (min(OPEN_FILES, hard), hard))
    if launch.groups is not None:
        os.setgroups(launch.groups)
        os.setresgid(launch.gid, launch.gid, launch.gid)
        os.setresuid(launch.uid, launch.uid, launch.uid)
    os.umask(launch.umask)
    os.chdir(launch.work_folder)


def _run_child(launch):
    signal.set_wakeup_fd(-1)
    for number in (signal.SIGPIPE, signal.SIGCHLD, signal.SIGTERM, signal.SIGINT):
        signal.signal(number, signal.SIG_DFL)
    _become(launch)
    _open_files(launch.files)  # named ones with the user's rights
    words = [os.fsencode(word) for word in launch.arguments]
    os.execve(os.fsencode(launch.program), words, launch.environment)


def spawn(launch):
    """Starts the program and gives its process id once it runs. Throws SpawnError."""
    read, write = os.pipe2(os.O_CLOEXEC)
    pid = os.fork()
    if pid == 0:
        try:
            _run_child(launch)
        except OSError as error:
            where = os.fsdecode(error.filename or launch.program)
            os.write(write, os.fsencode(f"{where}: {error.strerror}"))
        finally:
            os._exit(127)
    os.close(write)
    complaint = os.read(read, 4096)
    os.close(read)
    if complaint:
        os.waitpid(pid, 0)
        raise SpawnError(os.fsdecode(complaint))
    return pid
