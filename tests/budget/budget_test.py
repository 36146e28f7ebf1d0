#!/usr/bin/python3
"""What budget.py answers; callgrind is played by a script."""

import os
import stat
import tempfile
import unittest

import budget


class Verdict(unittest.TestCase):
    def test_exceeding_by_the_margin_passes(self):
        self.assertEqual(budget.verdict("x", 1100, 1000),
                         "x: 1100 instructions, budget 1000 (+10.0%)")

    def test_exceeding_by_more_fails(self):
        with self.assertRaisesRegex(budget.Failed, "x: 1101 .*more than 10% above"):
            budget.verdict("x", 1101, 1000)

    def test_fewer_pass(self):
        self.assertIn("(-50.0%)", budget.verdict("x", 500, 1000))


class Count(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.path = os.path.join(folder.name, "callgrind")

    def callgrind(self, body):
        with open(self.path, "w") as file:
            file.write("#!/bin/sh\nout=${3#*=}\n" + body)
        os.chmod(self.path, stat.S_IRWXU)
        return budget.count("program", "entry", 10, self.path)

    def test_total_is_divided_and_rounded_up(self):
        self.assertEqual(self.callgrind('echo "totals: 101" >"$out"'), 11)

    def test_nothing_counted_fails(self):
        with self.assertRaisesRegex(budget.Failed, "nothing was counted"):
            self.callgrind('echo "totals: 0" >"$out"')

    def test_program_that_fails_is_no_measurement(self):
        with self.assertRaisesRegex(budget.Failed, "ended with 3:\nbroken"):
            self.callgrind("echo broken; exit 3")


class Store(unittest.TestCase):
    def test_one_line_an_entry_and_the_others_stay(self):
        with tempfile.TemporaryDirectory() as folder:
            table = os.path.join(folder, "budget.json")
            with open(table, "w") as file:
                file.write('{"a": {"times": 1, "instructions": 5}, "b": {"times": 2, "instructions": 6}}')
            budget.store(table, "b", 7)
            with open(table) as file:
                self.assertEqual(file.read(), '{\n  "a": {"times": 1, "instructions": 5},\n'
                                              '  "b": {"times": 2, "instructions": 7}\n}\n')


class Table(unittest.TestCase):
    def test_every_entry_has_a_budget(self):
        for name, stored in budget.read(budget.TABLE).items():
            self.assertEqual(sorted(stored), ["instructions", "times"], name)
            self.assertGreater(stored["times"], 0, name)


if __name__ == "__main__":
    unittest.main()
