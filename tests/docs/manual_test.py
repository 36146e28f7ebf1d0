#!/usr/bin/env python3
"""The manual pages pass mandoc's linter, and say what the programs are and do."""

import pathlib
import re
import subprocess
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
PAGES = sorted((ROOT / "docs/man").iterdir())


def text(page):
    done = subprocess.run(["mandoc", "-T", "ascii", page], check=True, capture_output=True)
    return re.sub(r".\x08", "", done.stdout.decode())


class Manual(unittest.TestCase):
    def test_every_page_passes_the_linter(self):
        self.assertTrue(PAGES)
        for page in PAGES:
            done = subprocess.run(["mandoc", "-T", "lint", "-W", "warning", page],
                                  capture_output=True, text=True)
            self.assertEqual((done.returncode, done.stdout), (0, ""), page.name)

    def test_the_linter_would_see_a_mistake(self):
        done = subprocess.run(["mandoc", "-T", "lint", "-W", "warning"], capture_output=True,
                              input=".Dd today\n.Dt X 8\n.Sh NAME\n.Nonsense\n", text=True)
        self.assertNotEqual(done.returncode, 0)

    def test_the_helpers_page_has_every_start_option(self):
        options = re.findall(r'_option\("(\w+)"\)',
                             (ROOT / "front/roles.cpp").read_text(encoding="utf-8"))
        self.assertEqual(len(options), 5)
        for option in options:
            self.assertIn(f"-{option} ", text(ROOT / "docs/man/korvel_helper.8"))

    def test_the_formats_page_has_the_worked_example(self):
        example = "0c 01 72 6e 72 5f 72 65 67 69 73 74 65 72 0c 01"
        self.assertIn(example, text(ROOT / "docs/man/korvel_helper.5"))
        self.assertIn(example, (ROOT / "docs/formats.md").read_text(encoding="utf-8"))


if __name__ == "__main__":
    unittest.main()
