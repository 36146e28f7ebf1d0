#!/usr/bin/env python3
"""Every path of this tree that the threat model names is there, and the wide settings are as told."""

import pathlib
import re
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
TEXT = (ROOT / "docs/threat-model.md").read_text(encoding="utf-8")
FOLDERS = ("front", "osx", "ipc", "muro", "netbuf", "platform", "client", "tools", "sim", "tests",
           "fuzz", "packaging", "docs", "soak", "bench", "cross")


def named_paths(text):
    return [word for word in re.findall(r"`([^`\s]+)`", text)
            if word.split("/")[0] in FOLDERS and "/" in word.rstrip("/")]


def missing(text):
    return [path for path in named_paths(text) if not (ROOT / path).exists()]


def source(path):
    return (ROOT / path).read_text(encoding="utf-8")


class ThreatModel(unittest.TestCase):
    def test_every_path_it_names_exists(self):
        self.assertGreater(len(named_paths(TEXT)), 40)
        self.assertEqual(missing(TEXT), [])

    def test_a_path_that_is_gone_would_be_seen(self):
        self.assertEqual(missing("see `muro/core/no_such.h` and `muro/core/fmt.h`"),
                         ["muro/core/no_such.h"])

    def test_each_safeguard_names_a_test(self):
        rows = [line for line in TEXT.split("## What was made safe")[1].split("\n## ")[0].splitlines()
                if line.startswith("|") and not line.startswith(("| threat", "|---"))]
        self.assertGreater(len(rows), 20)
        for row in rows:
            self.assertRegex(row.split("|")[-2], r"`(tests|fuzz)/", row)

    def test_the_wide_settings_are_the_ones_in_the_source(self):
        self.assertIn("0777", source("front/session_folder.h"))
        self.assertIn("kOpenMode = 0666", source("ipc/endpoint_socket.cpp"))
        self.assertIn("/Applications/Korvel.app/Contents/MacOS/korvel",
                      source("front/command_handler.cpp"))


if __name__ == "__main__":
    unittest.main()
