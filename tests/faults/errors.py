"""Which errors a system call can give: the table that the faults are drawn from.

After the manual pages of the calls, cut down to the errors that come from the machine's state (a
full disk, no descriptors, no memory, a signal, a right that is missing) and not from wrong
arguments. "short" transfers one byte of those asked for.
"""

_PATH = ("EACCES", "EIO", "ENOENT", "ENOMEM")
_CHANGE = ("EACCES", "EIO", "ENOENT", "ENOMEM", "ENOSPC")
_OPEN = ("EACCES", "EINTR", "EIO", "EMFILE", "ENOENT", "ENOMEM", "ENOSPC")
_READ = ("EAGAIN", "EINTR", "EIO", "short")
_WRITE = ("EAGAIN", "EINTR", "EIO", "ENOSPC", "short")
_SEND = ("EAGAIN", "EINTR", "ENOMEM", "EPIPE", "short")
_RECEIVE = ("EAGAIN", "ECONNRESET", "EINTR", "ENOMEM", "short")
_NO_MEMORY = ("ENOMEM",)
_MAKE_PROCESS = ("EAGAIN", "ENOMEM")
_WAIT = ("ECHILD", "EINTR")
_NONE = ()

ERRORS = {
    # Files
    "open": _OPEN, "openat": _OPEN, "creat": _OPEN,
    "close": ("EINTR", "EIO"),
    "read": _READ, "pread64": _READ, "readv": _READ[:-1],
    "write": _WRITE, "pwrite64": _WRITE, "writev": _WRITE[:-1],
    "sendfile": ("EIO", "ENOMEM", "ENOSPC", "short"),
    "copy_file_range": ("EIO", "ENOMEM", "ENOSPC", "EXDEV", "short"),
    "lseek": ("EIO",), "fsync": ("EIO", "ENOSPC", "EINTR"), "fdatasync": ("EIO", "ENOSPC", "EINTR"),
    "ftruncate": ("EINTR", "EIO", "ENOSPC"), "truncate": _CHANGE,
    "fcntl": ("EMFILE", "ENOMEM"), "flock": ("EINTR", "ENOMEM"), "ioctl": ("EIO",),
    "fadvise64": _NONE,
    "stat": _PATH, "lstat": _PATH, "newfstatat": _PATH, "statx": _PATH, "access": _PATH,
    "faccessat": _PATH, "faccessat2": _PATH, "readlink": _PATH, "readlinkat": _PATH,
    "fstat": ("EIO", "ENOMEM"), "statfs": _PATH, "fstatfs": ("EINTR", "EIO", "ENOMEM"),
    "getdents64": ("EIO", "ENOENT", "ENOMEM"), "getcwd": ("EACCES", "ENOENT", "ENOMEM"),
    "chdir": _PATH, "fchdir": ("EACCES", "EIO"),
    "rename": _CHANGE + ("EXDEV",), "renameat": _CHANGE + ("EXDEV",),
    "renameat2": _CHANGE + ("EINVAL", "ENOSYS", "EXDEV"),
    "mkdir": _CHANGE, "mkdirat": _CHANGE, "link": _CHANGE, "linkat": _CHANGE,
    "symlink": _CHANGE, "symlinkat": _CHANGE, "mknod": _CHANGE, "mknodat": _CHANGE,
    "unlink": ("EACCES", "EBUSY", "EIO", "ENOENT", "ENOMEM"),
    "unlinkat": ("EACCES", "EBUSY", "EIO", "ENOENT", "ENOMEM"),
    "rmdir": ("EACCES", "EBUSY", "EIO", "ENOENT", "ENOMEM"),
    "chmod": _PATH, "fchmodat": _PATH, "fchmod": ("EIO", "EPERM"),
    "chown": _PATH, "lchown": _PATH, "fchownat": _PATH, "fchown": ("EIO", "EPERM"),
    "utimensat": _PATH,
    # Descriptors
    "pipe": ("EMFILE", "ENFILE"), "pipe2": ("EMFILE", "ENFILE"),
    "dup": ("EMFILE",), "dup2": ("EINTR", "EMFILE"), "dup3": ("EINTR", "EMFILE"),
    "close_range": ("EMFILE", "ENOMEM", "ENOSYS"), "pidfd_open": ("EMFILE", "ENOMEM", "ENOSYS"),
    "poll": ("EAGAIN", "EINTR", "ENOMEM"), "ppoll": ("EINTR", "ENOMEM"),
    # Sockets
    "socket": ("EACCES", "EMFILE", "ENOBUFS", "ENOMEM"),
    "socketpair": ("EMFILE", "ENOMEM"),
    "bind": ("EACCES", "EADDRINUSE", "ENOENT", "ENOMEM", "ENOSPC"), "listen": ("EADDRINUSE",),
    "accept": ("EAGAIN", "ECONNABORTED", "EINTR", "EMFILE", "ENOMEM"),
    "accept4": ("EAGAIN", "ECONNABORTED", "EINTR", "EMFILE", "ENOMEM"),
    "connect": ("EACCES", "EAGAIN", "ECONNREFUSED", "EINTR", "ENOENT"),
    # A blocking local stream takes a message whole.
    "sendto": _SEND, "sendmsg": _SEND[:-1], "recvfrom": _RECEIVE, "recvmsg": _RECEIVE,
    "shutdown": ("ENOMEM",), "setsockopt": ("ENOMEM",), "getsockopt": ("ENOMEM",),
    "getsockname": ("ENOBUFS",), "getpeername": ("ENOBUFS",),
    # Memory
    "mmap": _NO_MEMORY, "munmap": _NO_MEMORY, "mprotect": _NO_MEMORY, "mremap": _NO_MEMORY,
    "madvise": ("EAGAIN", "ENOMEM"), "brk": _NO_MEMORY,
    # Processes, threads, users
    "clone": _MAKE_PROCESS, "clone3": _MAKE_PROCESS + ("ENOSYS",), "fork": _MAKE_PROCESS,
    "vfork": _MAKE_PROCESS,
    "execve": ("EACCES", "EAGAIN", "EIO", "EMFILE", "ENOENT", "ENOMEM"), "execveat": _PATH,
    "wait4": _WAIT, "waitid": _WAIT, "kill": ("EPERM", "ESRCH"),
    # Only the C library's own, to have every thread change its user; see `switches` in plan.py.
    "tgkill": _NONE,
    "setsid": ("EPERM",), "setpgid": ("EACCES", "EPERM"),
    "setuid": ("EAGAIN", "EPERM"), "setreuid": ("EAGAIN", "EPERM"),
    "setresuid": ("EAGAIN", "EPERM"),
    "setrlimit": ("EPERM",), "getrandom": ("EAGAIN", "EINTR", "ENOSYS", "short"),
    # Waiting
    "futex_wait": ("EAGAIN", "EINTR"), "futex_wake": _NONE, "nanosleep": ("EINTR",), "clock_nanosleep": ("EINTR",),
    "pause": ("EINTR",), "rt_sigtimedwait": ("EAGAIN", "EINTR"), "rt_sigsuspend": ("EINTR",),
    # Calls that cannot fail, or only for a wrong argument
    **dict.fromkeys(
        ["rt_sigaction", "rt_sigprocmask", "rt_sigreturn", "sigaltstack", "clock_gettime",
         "gettimeofday", "times", "time", "alarm", "getpid", "gettid", "getppid", "getuid",
         "geteuid", "getgid", "getegid", "getsid", "umask", "prlimit64", "getrlimit", "sysinfo",
         "uname", "sched_yield", "sched_getaffinity", "set_robust_list", "rseq", "prctl",
         "arch_prctl", "exit", "exit_group", "restart_syscall"], _NONE),
}

#: Errors that no machine gives for ever: a signal comes, or something becomes ready.
PASSING = ("EINTR", "EAGAIN", "short")
BURST, FOR_EVER = 100, 1000000
