#!/usr/bin/python3
"""What budget.py answers; callgrind is played by a script."""

import collections
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
            budget.store(table, "b", "instructions", 7)
            with open(table) as file:
                self.assertEqual(file.read(), '{\n  "a": {"times": 1, "instructions": 5},\n'
                                              '  "b": {"times": 2, "instructions": 7}\n}\n')


class Calls(unittest.TestCase):
    stored = {"open": 1, "stat": 2, "write": 1, "close": 1}

    def test_as_stored_passes_and_so_do_fewer_that_are_not_prescribed(self):
        budget.calls_verdict("x", self.stored, self.stored)
        budget.calls_verdict("x", {**self.stored, "stat": 1}, self.stored)

    def test_more_of_any_fails(self):
        with self.assertRaisesRegex(budget.Failed, "not as it should be: stat$"):
            budget.calls_verdict("x", {**self.stored, "stat": 3}, self.stored)
        with self.assertRaisesRegex(budget.Failed, "not as it should be: sync$"):
            budget.calls_verdict("x", {**self.stored, "sync": 0.1}, self.stored)

    def test_prescribed_one_that_is_missing_fails(self):
        with self.assertRaisesRegex(budget.Failed, "not as it should be: close$"):
            budget.calls_verdict("x", {"open": 1, "stat": 2, "write": 1}, self.stored)

    def test_what_each_operation_adds_is_counted(self):
        with tempfile.TemporaryDirectory() as folder:
            path = os.path.join(folder, "strace")
            with open(path, "w") as file:
                file.write("#!/bin/sh\nwhile [ \"$1\" != -o ]; do shift; done\nlog=$2\n"
                           "shift 4\necho '7 brk(0) = 1' >>$log\n"
                           "for i in $(seq $1); do echo '7 openat(1) = 3' >>$log; done\n")
            os.chmod(path, stat.S_IRWXU)
            self.assertEqual(budget.count_calls(path, "entry", path), {"open": 1})

    def test_a_childs_calls_count_apart_and_up_to_its_program(self):
        self.assertEqual(budget.calls_in(
            "7 close(3) = 0\n"
            "7 clone(child_stack=NULL, flags=CLONE_CHILD_SETTID|SIGCHLD <unfinished ...>\n"
            "8 close(3) = 0\n"
            "7 <... clone resumed>, child_tidptr=0x7f) = 8\n"
            "8 clone(child_stack=NULL, flags=CLONE_CHILD_SETTID|SIGCHLD, child_tidptr=0x7f) = 9\n"
            "9 execve(\"/bin/true\", [], 0x7f <unfinished ...>\n"
            "9 <... execve resumed>) = 0\n"
            "9 openat(AT_FDCWD, \"/lib\", O_RDONLY) = 3\n"
            "8 +++ killed by SIGKILL +++\n"),
            {"close": 1, "clone": 1, "child close": 1, "child clone": 1, "child execve": 1})

    def test_a_fork_that_becomes_no_program_is_part_of_the_operation(self):
        self.assertEqual(budget.calls_in(
            "7 clone(child_stack=NULL, flags=CLONE_CHILD_SETTID|SIGCHLD, child_tidptr=0x7f) = 8\n"
            "8 close(3) = 0\n"), {"clone": 1, "close": 1})

    def test_a_threads_calls_are_the_operations(self):
        self.assertEqual(budget.calls_in(
            "7 clone3({flags=CLONE_VM|CLONE_THREAD, exit_signal=0} => {parent_tid=[8]}, 88) = 8\n"
            "8 write(1, \"x\", 1) = 1\n"), {"clone3": 1, "write": 1})


class Table(unittest.TestCase):
    def test_every_entry_has_a_budget(self):
        for name, stored in budget.read(budget.TABLE).items():
            kind = ["calls"] if "calls" in stored else ["instructions", "times"]
            self.assertEqual(sorted(stored), kind, name)

    def test_batches_of_all_sizes_make_the_same_calls_and_those_prescribed_once(self):
        table = budget.read(budget.TABLE)
        calls = table["log_batch_of_1"]["calls"]
        self.assertEqual(calls, table["log_batch_of_700"]["calls"])
        self.assertEqual([calls[name] for name in budget.ONCE], [1, 1, 1])

    def test_a_request_makes_the_prescribed_calls_whatever_its_size_and_its_place_in_the_queue(self):
        table = budget.read(budget.TABLE)
        one, queued = (collections.Counter(table[name]["calls"])
                       for name in ("request_one", "request_queued"))
        self.assertEqual(table["request_large"]["calls"], one)
        client = {"socket": 1, "connect": 1, "write": 1, "read": 2, "close": 1}
        server = {"poll": 1, "accept": 1, "fcntl": 1, "ioctl": 1, "recvfrom": 2, "sendto": 1, "close": 1}
        each = collections.Counter(client) + collections.Counter(server)
        self.assertEqual(queued - one, collections.Counter({name: 19 * each[name] for name in each}))


if __name__ == "__main__":
    unittest.main()
