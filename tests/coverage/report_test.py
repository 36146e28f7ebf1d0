#!/usr/bin/python3
"""The report of the untried lines: what it takes for a gap, and what it complains about."""

import unittest

import report

TEXT = ["int f(int a) {", "  if (a) return 1;", "  log();", "  return g(a);", "}"]


def file(counts, branches=None, name="muro/sys/f.cpp"):
    lines = [(n, count, (branches or {}).get(n, [])) for n, count in counts.items()]
    return report.File(name, TEXT, lines)


def share(*files):
    made = report.Share()
    for each in files:
        made.add(each)
    return made


class Gaps(unittest.TestCase):
    def test_neighbours_that_never_ran_are_one_group(self):
        self.assertEqual(file({1: 1, 2: 1, 3: 0, 4: 0, 5: 1}).untried_groups(), [[3, 4]])

    def test_lines_without_code_do_not_part_a_group(self):
        self.assertEqual(file({1: 1, 2: 0, 4: 0}).untried_groups(), [[2, 4]])

    def test_lines_that_ran_part_two_groups(self):
        self.assertEqual(file({1: 0, 2: 1, 3: 0}).untried_groups(), [[1], [3]])

    def test_line_that_branched_one_way_only_is_told(self):
        self.assertEqual(file({2: 5}, {2: [True, False]}).half_tried(), [(2, 1, 2)])

    def test_untried_branches_of_an_untried_line_are_not_told_twice(self):
        self.assertEqual(file({2: 0}, {2: [False, False]}).half_tried(), [])


class Explanations(unittest.TestCase):
    def judge(self, made, text):
        return report.judge([made], report.read_gaps(text))

    def test_piece_of_one_line_explains_its_group(self):
        made = file({2: 1, 3: 0, 4: 0})
        self.assertEqual(self.judge(made, "## muro/sys/f.cpp\n- `return g`: why"), ([], []))

    def test_group_without_an_entry_is_unexplained(self):
        made = file({2: 1, 3: 0})
        self.assertEqual(self.judge(made, "")[0], [(made, [3])])

    def test_entry_of_another_file_does_not_explain(self):
        made = file({3: 0})
        unexplained, idle = self.judge(made, "## muro/sys/g.cpp\n- `log()`: why")
        self.assertEqual((len(unexplained), len(idle)), (1, 1))

    def test_entry_whose_line_has_run_is_idle(self):
        self.assertEqual(len(self.judge(file({3: 7}), "## muro/sys/f.cpp\n- `log()`: why")[1]), 1)

    def test_entry_without_a_reason_is_refused(self):
        with self.assertRaisesRegex(ValueError, "gaps.md:2"):
            report.read_gaps("## muro/sys/f.cpp\n- `log()`")

    def test_entry_before_any_file_is_refused(self):
        with self.assertRaises(ValueError):
            report.read_gaps("- `log()`: why")


class Limits(unittest.TestCase):
    def complaints(self, made):
        return list(report.complaints(share(made), [], []))

    def test_share_at_the_limit_passes(self):
        made = file({n: n > 5 for n in range(1, 101)}, {9: [True] * 9 + [False]})
        self.assertEqual(self.complaints(made), [])

    def test_too_few_lines_are_told(self):
        self.assertIn("94.00 % of the lines",
                      self.complaints(file({n: n > 6 for n in range(1, 101)}))[0])

    def test_too_few_branches_are_told(self):
        self.assertIn("50.00 % of the branches", self.complaints(file({1: 1}, {1: [True, False]}))[0])

    def test_each_unexplained_group_and_idle_entry_is_told(self):
        entry = report.Entry("ipc/a.cpp", "piece", "why")
        told = list(report.complaints(share(), [(file({3: 0}), [3])], [entry]))
        self.assertEqual(len(told), 2)


class Measure(unittest.TestCase):
    def measure(self, branches, text="  if (a) return 1;"):
        line = {"line_number": 1, "count": 3, "branches": branches}
        return report.decisions(line, [text])

    def test_line_without_code_is_left_out(self):
        data = {"files": [{"file": "front/main.cpp", "lines": [
            {"line_number": 1, "count": 0, "branches": [], "gcovr/noncode": True},
            {"line_number": 2, "count": 3, "branches": []}]}]}
        self.assertEqual(report.read_measure(data)[0].counts, {2: 3})

    def test_branch_of_an_exception_is_left_out(self):
        branches = [{"count": 1, "throw": False}, {"count": 0, "throw": True}]
        self.assertEqual(self.measure(branches), [True])

    def test_both_ways_of_a_decision_count(self):
        branches = [{"count": 1, "throw": False}, {"count": 0, "throw": False}]
        self.assertEqual(self.measure(branches), [True, False])

    def test_line_that_decides_nothing_has_no_branches(self):
        branches = [{"count": 0, "throw": False}]
        self.assertEqual(self.measure(branches, "  log(text());  // if any"), [])


if __name__ == "__main__":
    unittest.main()
