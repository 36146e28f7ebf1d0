#!/usr/bin/python3
"""What runs between fork and exec calls the system through addresses that the loader has filled in.

    bound_at_load_test.py OBJECT...     all of a library's objects; those of FILES are looked at
"""

import re
import subprocess
import sys
import unittest

# Object files, and what each calls in a child.
FILES = {
    "child_start.cpp": {"_exit", "chdir", "close", "dup2", "execve", "fcntl", "getpid", "kill",
                        "setsid", "sigaction", "sigemptyset", "sigprocmask"},
    "linux/descriptors.cpp": {"close", "getdtablesize", "syscall"},
}
OBJECTS = []
# A call of what the linker may have to send by way of the lazily bound table.
LAZY = re.compile(r"R_\w+_(?:PLT32|CALL26|JUMP26)$")


def relocations(path):
    """Pairs of type and symbol, without a symbol's version."""
    table = subprocess.run(["readelf", "-Wr", path], stdout=subprocess.PIPE, check=True, text=True)
    return {(words[2], words[4].split("@")[0])
            for words in map(str.split, table.stdout.splitlines()) if len(words) > 4}


class BoundAtLoad(unittest.TestCase):
    def test_no_call_in_a_child_looks_its_function_up(self):
        for name, called in FILES.items():
            paths = [path for path in OBJECTS if path.endswith(f"{name}.o")]
            self.assertEqual(len(paths), 1, name)
            found = relocations(paths[0])
            self.assertLessEqual(called, {symbol for _, symbol in found}, name)
            self.assertEqual([], [symbol for kind, symbol in sorted(found)
                                  if symbol in called and LAZY.match(kind)], name)


if __name__ == "__main__":
    OBJECTS, sys.argv[1:] = sys.argv[1:], []
    unittest.main()
