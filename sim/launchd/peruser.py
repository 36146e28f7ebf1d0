"""The launchd that each logged-in user had before 10.10, at /tmp/launchd-NUMBER.NAME/sock.

It answers the requests SubmitJob and RemoveJob of its own user and nobody else: not even root, who
has to become that user to connect. Submitted jobs run as the user outside of the graphical session;
what such a job loads with `launchctl load -S Aqua` goes into that session.
"""

import errno
import os
import selectors
import shutil
import socket
import struct
import tempfile

from . import jobfile, releases, wire
from .jobfile import Refusal
from .loop import Until

# How long an answer to SubmitJob may wait for the job's first run to end. A launchd may take its
# time; the machine that runs the tests, and not chance, decides what a job did by then.
PATIENCE_S = 5


class Talk:
    """One connection: reads frames, answers them, or does what a test has ordered."""

    def __init__(self, owner, sock):
        self._owner = owner
        self._sock = sock
        self._data = b""
        self._busy = False
        sock.setblocking(False)
        owner.loop.watch(sock, selectors.EVENT_READ, lambda _: self._receive())

    def close(self):
        if self._sock.fileno() >= 0:
            self._owner.loop.watch(self._sock, 0, None)
            self._sock.close()

    def _receive(self):
        try:
            data = self._sock.recv(65536)
        except (BlockingIOError, InterruptedError):
            return
        except OSError:
            data = b""
        if not data:
            if self._data and not self._busy:
                self._owner.refuse(self._data, "the connection ended within a frame")
            self.close()
            return
        self._data += data
        if not self._busy:
            self._next_frame()

    def _next_frame(self):
        try:
            if len(self._data) < wire.HEADER.size:
                return
            length = wire.frame_length(self._data[:wire.HEADER.size])
            if len(self._data) < length:
                return
            whole, self._data = self._data[:length], self._data[length:]
            request = wire.unpack(whole[wire.HEADER.size:])
        except wire.Malformed as error:
            self._owner.refuse(self._data, str(error))
            self.close()
            return
        self._busy = True
        self._owner.loop.start(self._answer(whole, request), self._answered)

    def _answer(self, whole, request):
        order = self._owner.next_order()
        number = 0
        if order is None or order.get("perform", True):
            number = yield from self._owner.perform(request)
        self._owner.tell(whole, request, number)
        reply = wire.error_reply(number)
        for step in [["genuine"]] if order is None else order["steps"]:
            yield from self._do(step, reply)

    def _do(self, step, reply):
        """One step of an answer: genuine [FROM [TO]], send HEX, pause SECONDS, endless, close."""
        kind, *values = step
        if kind == "genuine":
            yield from self._send(reply[slice(*values)] if len(values) == 2 else
                                  reply[values[0]:] if values else reply)
        elif kind == "send":
            yield from self._send(bytes.fromhex(values[0]))
        elif kind == "pause":
            yield Until(lambda: False, values[0])
        elif kind == "endless":
            while self._sock.fileno() >= 0:
                yield from self._send(bytes(4096))
        else:
            self.close()

    def _send(self, data):
        while data and self._sock.fileno() >= 0:
            try:
                data = data[self._sock.send(data):]
            except (BlockingIOError, InterruptedError):
                yield Until(lambda: False, 0.001)
            except OSError:
                self.close()

    def _answered(self, _, error):
        self._busy = False
        if error is not None:
            self._owner.refuse(b"", repr(error))
            self.close()
        elif self._sock.fileno() >= 0 and self._data:
            self._next_frame()


class PerUserLaunchd:
    """One user's, from log-in to log-out. `process` is the session-like record of its process."""

    def __init__(self, loop, timeline, launchd, user, domain, process, single_id):
        self.loop = loop
        self.process = process
        self.orders = []
        self._timeline = timeline
        self._launchd = launchd
        self._user = user
        self._domain = domain
        self._talks = []
        self._peer = 0 if single_id else user.pw_uid
        self.folder = tempfile.mkdtemp(prefix=f"launchd-{process.pid}.", dir="/tmp")
        self._listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self._listener.bind(self.path)
        if not single_id:
            for path in (self.folder, self.path):
                os.chown(path, user.pw_uid, user.pw_gid)
        os.chmod(self.path, 0o700)
        self._listener.listen(16)
        loop.watch(self._listener, selectors.EVENT_READ, lambda _: self._accept())

    @property
    def path(self):
        return f"{self.folder}/sock"

    def close(self):
        self.loop.watch(self._listener, 0, None)
        self._listener.close()
        for talk in self._talks:
            talk.close()
        shutil.rmtree(self.folder, ignore_errors=True)

    def next_order(self):
        return self.orders.pop(0) if self.orders else None

    def _accept(self):
        sock, _ = self._listener.accept()
        packed = sock.getsockopt(socket.SOL_SOCKET, socket.SO_PEERCRED, 12)
        _, uid, _ = struct.unpack("iII", packed)
        if uid != self._peer:
            self.refuse(b"", f"peer is user {uid}")
            sock.close()
            return
        self._talks.append(Talk(self, sock))

    def refuse(self, data, reason):
        self._timeline.add("launchd-message-refused", user=self._user.pw_name, reason=reason,
                           hex=data[:4096].hex())

    def tell(self, whole, request, number):
        self._timeline.add("launchd-message", user=self._user.pw_name, request=request,
                           error=number, hex=whole.hex())

    def perform(self, request):
        """Does what a request asks; a flow whose result is the error number."""
        if not isinstance(request, dict) or len(request) != 1:
            return errno.EINVAL
        (verb, argument), = request.items()
        if verb == "SubmitJob" and isinstance(argument, dict):
            return (yield from self._submit(argument))
        if verb == "RemoveJob" and isinstance(argument, str):
            return self._remove(argument)
        return errno.EINVAL

    def _submit(self, values):
        try:
            spec = jobfile.parse(values, "")
            job = self._launchd.load(spec, self._domain, anywhere=True)
        except Refusal as refusal:
            return errno.EEXIST if refusal.code == releases.ALREADY else errno.EINVAL
        runs = job.pid
        yield Until(lambda: job.pid != runs or runs is None, PATIENCE_S)
        return 0

    def _remove(self, label):
        job = self._domain.jobs.get(label)
        if job is None:
            return errno.ESRCH
        self._launchd.unload(job)
        return 0

