"""Who talks to process 1, and how: packets of JSON on a local socket, descriptors beside them.

Whoever connects is known by what the kernel says of it. launchctl and the client may be run by
anyone; everything else is root's. The connection that the maker of the root holds came with process
1's start; when it closes, the root ends.
"""

import array
import collections
import json
import os
import selectors
import socket
import struct

from .ctl import Caller
from .mac import context_of

PATH = "/var/run/macroot.sock"
OPEN_TO_ALL = frozenset(["launchctl", "client"])
LARGEST = 1 << 20


def as_words(argv):
    """Arguments that came as one code point a byte."""
    return [os.fsdecode(word.encode("latin-1")) for word in argv]


class Connection:
    """One peer; sending never blocks, what does not fit now goes when there is room."""

    def __init__(self, server, sock):
        self.server = server
        self.sock = sock
        self.queue = collections.deque()
        self.listener = None
        sock.setblocking(False)
        server.loop.watch(sock, selectors.EVENT_READ, self._ready)

    def send(self, packet, descriptors=()):
        self.queue.append((packet, list(descriptors)))
        self._flush()

    def send_json(self, message, descriptors=()):
        self.send(json.dumps(message).encode(), descriptors)

    def close(self):
        if self.listener is not None:
            self.server.timeline.listeners.remove(self.listener)
            self.listener = None
        if self.sock.fileno() >= 0:
            self.server.loop.watch(self.sock, 0, None)
            self.sock.close()
        self.server.closed(self)

    def _ready(self, events):
        if events & selectors.EVENT_WRITE:
            self._flush()
        if events & selectors.EVENT_READ and self.sock.fileno() >= 0:
            self._receive()

    def _receive(self):
        room = socket.CMSG_SPACE(8 * array.array("i").itemsize)
        try:
            data, ancillary, _, _ = self.sock.recvmsg(LARGEST, room, socket.MSG_CMSG_CLOEXEC)
        except (BlockingIOError, InterruptedError):
            return
        except OSError:
            data, ancillary = b"", []
        descriptors = array.array("i")
        for _, _, packed in ancillary:
            descriptors.frombytes(packed)
        if not data:
            self.close()
            return
        try:
            self.server.received(self, json.loads(data), list(descriptors))
        except Exception as error:  # pylint: disable=broad-except
            # A stranger's broken message must not end process 1.
            self.server.timeline.add("bad-message", error=repr(error))
            self.close()
        finally:
            for descriptor in descriptors:
                os.close(descriptor)

    def _flush(self):
        while self.queue and self.sock.fileno() >= 0:
            packet, descriptors = self.queue[0]
            try:
                socket.send_fds(self.sock, [packet], descriptors) if descriptors else \
                    self.sock.send(packet)
            except (BlockingIOError, InterruptedError):
                break
            except OSError:
                self.queue.clear()
                return
            self.queue.popleft()
            for descriptor in descriptors:
                os.close(descriptor)
        if self.sock.fileno() >= 0:
            writing = selectors.EVENT_WRITE if self.queue else 0
            self.server.loop.watch(self.sock, selectors.EVENT_READ | writing, self._ready)


class Server:
    """The listening socket and the connection of the root's maker."""

    def __init__(self, loop, timeline, launchctl, control):
        self.loop = loop
        self.timeline = timeline
        self._launchctl = launchctl
        self._control = control
        self._owner = None
        self._listener = None

    def listen(self):
        self._listener = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        if os.path.exists(PATH):
            os.unlink(PATH)
        self._listener.bind(PATH)
        os.chmod(PATH, 0o666)
        self._listener.listen(64)
        self.loop.watch(self._listener, selectors.EVENT_READ, lambda _: self._accept())

    def serve_owner(self, descriptor):
        os.set_inheritable(descriptor, False)
        self._owner = Connection(self, socket.socket(fileno=descriptor))
        self._subscribe(self._owner)

    def _accept(self):
        sock, _ = self._listener.accept()
        Connection(self, sock)

    def closed(self, connection):
        if connection is self._owner:
            self.loop.stop()

    def received(self, connection, message, descriptors):
        caller = self._caller(connection)
        operation = message.get("op")
        if operation == "launchctl":
            self._run_launchctl(connection, as_words(message["argv"]), caller)
        elif operation == "client":
            record = message["record"]
            record["argv"] = as_words(record["argv"])
            self.timeline.add("client", pid=caller.pid, uid=caller.uid, record=record)
        elif connection is not self._owner and caller.uid != 0:
            connection.send_json({"id": message.get("id"), "ok": False, "error": "root only"})
        else:
            self._perform(connection, message, descriptors)

    def _caller(self, connection):
        if connection is self._owner:
            return Caller(0, 0, 0, 0)
        packed = connection.sock.getsockopt(socket.SOL_SOCKET, socket.SO_PEERCRED, 12)
        pid, uid, gid = struct.unpack("iII", packed)
        try:
            return Caller(pid, uid, gid, context_of(pid))
        except OSError:
            return Caller(pid, uid, gid, 0)     # ended already

    def _perform(self, connection, message, descriptors):
        number = message.get("id")

        def answer(result, error):
            result = dict(result or {})
            passed = result.pop("descriptors", ())
            if error is not None:
                connection.send_json({"id": number, "ok": False, "error": str(error),
                                      "errno": getattr(error, "errno", None)})
            else:
                connection.send_json({"id": number, "ok": True, **result}, passed)

        message["exited"] = lambda status: connection.send_json(
            {"id": number, "exited": True, "status": status})
        if message.get("op") == "subscribe":
            self._subscribe(connection)
            return answer({}, None)
        try:
            result = self._control.perform(message, descriptors)
        except Exception as error:  # pylint: disable=broad-except
            return answer(None, error)
        if hasattr(result, "send"):
            return self.loop.start(result, answer)
        return answer(result, None)

    def _subscribe(self, connection):
        """From now on the connection gets every event, those of the past first."""
        if connection.listener is None:
            connection.listener = connection.send_json
            self.timeline.listeners.append(connection.listener)
            for event in self.timeline.events:
                connection.send_json(event)

    def _run_launchctl(self, connection, argv, caller):
        def done(answer, error):
            if error is not None:
                self.timeline.add("launchd-error", argv=argv, error=repr(error))
                connection.send(b"elaunchd: " + repr(error).encode() + b"\n")
                connection.send(b"s1")
                return
            self._record(argv, caller, answer)
            self._send_answer(connection, answer)

        self.loop.start(self._launchctl.execute(argv[1:], caller), done)

    def _record(self, argv, caller, answer):
        self.timeline.add(
            "launchctl", argv=argv, pid=caller.pid, uid=caller.uid, out=answer.out,
            err=answer.err, status=None if answer.run_from else answer.status,
            **({"refused": answer.notes} if answer.notes else {}))

    def _send_answer(self, connection, answer):
        encode = lambda text: text.encode(errors="surrogateescape")
        if answer.out:
            connection.send(b"o" + encode(answer.out))
        if answer.err:
            connection.send(b"e" + encode(answer.err))
        if answer.context:
            connection.send(b"n" + encode(answer.context))
        if answer.run_from:
            connection.send(b"x%d" % answer.run_from)
        else:
            connection.send(b"s%d" % answer.status)
