"""The packed data items and frames of launchd's local socket before 10.10.

A frame is 16 bytes of header, the magic number and the length of the whole frame, and one item. An
item starts with three words (type and two values); containers go on with one filler word for each
entry and then the entries, strings with their bytes, a zero and zeros up to a multiple of 8:

    type 1 dictionary   0, entries (keys and values counted each)   fillers, key, value, key, ...
    type 2 array        0, entries                                  fillers, entries
    type 6 boolean      value, value of the newer kind              -
    type 7 string       0, bytes without the terminator             bytes, 0, padding
    type 9 error        number, 0                                   -

All words are 64 bits, little-endian. The reader accounts for every byte and takes nothing for
granted; a real launchd is laxer in places (fillers, order of keys), but a sender that the reader
takes is one that every launchd takes. A boolean is what the *first* value word says, as it was for
a launchd of that time.
"""

import struct

MAGIC = 0xD2FEA02366B39A41
HEADER = struct.Struct("<QQ")
HEAD = struct.Struct("<QQQ")
WORD = 8
DICTIONARY, ARRAY, BOOLEAN, STRING, ERROR = 1, 2, 6, 7, 9
LARGEST = 1 << 20


class Malformed(Exception):
    """The bytes are no item or no frame; the text tells where and why."""


class Reader:
    """Reads items one after the other from a byte string."""

    def __init__(self, data):
        self._data = data
        self._at = 0

    @property
    def rest(self):
        return len(self._data) - self._at

    def take(self, count, what):
        if count > self.rest:
            raise Malformed(f"{what} at {self._at} needs {count} bytes, {self.rest} are left")
        taken = self._data[self._at:self._at + count]
        self._at += count
        return taken

    def item(self, depth=0):
        """One item as a Python value: dict, list, bool or str (surrogates for odd bytes)."""
        if depth > 16:
            raise Malformed("nested too deeply")
        start = self._at
        kind, first, second = HEAD.unpack(self.take(HEAD.size, "head"))
        readers = {DICTIONARY: self._dictionary, ARRAY: self._array, BOOLEAN: self._boolean,
                   STRING: self._string}
        if kind not in readers:
            raise Malformed(f"type {kind} at {start}")
        return readers[kind](first, second, depth)

    def _fillers(self, first, count):
        if first != 0:
            raise Malformed(f"first word of a container is {first}")
        if count > self.rest // WORD:
            raise Malformed(f"container of {count} entries in {self.rest} bytes")
        if any(self.take(WORD * count, "fillers")):
            raise Malformed("fillers are not zero")

    def _dictionary(self, first, count, depth):
        self._fillers(first, count)
        if count % 2:
            raise Malformed("a key without a value")
        result = {}
        for _ in range(count // 2):
            key = self.item(depth + 1)
            if not isinstance(key, str):
                raise Malformed("a key that is no string")
            if result and key.encode(errors="surrogateescape") <= next(
                    reversed(result)).encode(errors="surrogateescape"):
                raise Malformed(f"key {key!r} is not behind the one before")
            result[key] = self.item(depth + 1)
        return result

    def _array(self, first, count, depth):
        self._fillers(first, count)
        return [self.item(depth + 1) for _ in range(count)]

    def _boolean(self, first, second, _):
        if first not in (0, 1) or second not in (0, 1):
            raise Malformed(f"boolean of {first}, {second}")
        return first == 1

    def _string(self, first, length, _):
        if first != 0:
            raise Malformed(f"first word of a string is {first}")
        data = self.take((length + WORD) // WORD * WORD, "string")
        if any(data[length:]):
            raise Malformed("padding of a string is not zero")
        if b"\0" in data[:length]:
            raise Malformed("a zero within a string")
        return data[:length].decode(errors="surrogateescape")


def unpack(body):
    """The one item that the body is. Throws Malformed."""
    reader = Reader(body)
    value = reader.item()
    if reader.rest:
        raise Malformed(f"{reader.rest} bytes behind the item")
    return value


def frame_length(header):
    """The length that a frame's first 16 bytes declare. Throws Malformed."""
    magic, length = HEADER.unpack(header)
    if magic != MAGIC:
        raise Malformed(f"magic {magic:016X}")
    if not HEADER.size < length <= LARGEST:
        raise Malformed(f"length {length}")
    return length


def frame(body, magic=MAGIC, length=None):
    """A frame around the body; other values than the right ones for tests."""
    return HEADER.pack(magic, len(body) + HEADER.size if length is None else length) + body


def error_reply(number):
    """The answer of a launchd: an error number, 0 for success."""
    return frame(HEAD.pack(ERROR, number, 0))
