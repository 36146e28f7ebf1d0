#!/usr/bin/env python3
"""The two runners of fuzz targets: the replay that is linked to a target as an ordinary test, on a
probe that breaks where it is told to, and fuzz/run.py, on stand-ins for what libFuzzer builds."""

import os
import pathlib
import signal
import subprocess
import sys
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
PROBE = os.environ.get("KORVEL_FUZZ_PROBE", ROOT / "build/debug/tests/fuzz/fuzz_probe")
RUN = ROOT / "fuzz/run.py"

STAND_IN = """#!/bin/bash
printf '%s\\n' "$@" >"$0.arguments"
echo '#7 INITED cov: 3 ft: 5 corp: 1/1b'
echo '#1234567 NEW    cov: 12 ft: 3456 corp: 2/2b'
echo 'stat::number_of_executed_units: 7654321'
"""
FINDING = "echo \"artifact_prefix='x'; Test unit written to /kept/here\"; exit 77\n"


class Folder(unittest.TestCase):
    def setUp(self):
        holder = tempfile.TemporaryDirectory()
        self.addCleanup(holder.cleanup)
        self.folder = pathlib.Path(holder.name)


class Replay(Folder):
    def seed(self, name, content):
        (self.folder / "seeds").mkdir(exist_ok=True)
        (self.folder / "seeds" / name).write_bytes(content)

    def replay(self, *arguments):
        probe = self.folder / "probe"
        if not probe.exists():
            probe.symlink_to(PROBE)
        return subprocess.run([probe, *arguments, self.folder / "seeds"], capture_output=True)

    def kept(self):
        return (self.folder / "probe.finding").read_bytes()

    def test_seeds_that_hold_are_counted(self):
        self.seed("a", b"one")
        self.seed("b", b"two")
        done = self.replay("--mutations", "50")
        self.assertEqual(done.returncode, 0)
        self.assertEqual(done.stdout, b"2 seeds and 50 mutations of them hold\n")

    def test_broken_property_shows_and_keeps_the_input(self):
        self.seed("a", b"x abort\x00")
        done = self.replay()
        self.assertEqual(done.returncode, -signal.SIGABRT)
        self.assertIn(b"property broken: no abort\n", done.stderr)
        self.assertIn(b" keeps the input: 782061626f727400\n", done.stderr)
        self.assertEqual(self.kept(), b"x abort\x00")

    def test_sides_that_differ_are_shown(self):
        self.seed("a", b"unequal")
        self.assertIn(b"got (3 bytes): a\\x0ab\nwanted (1 bytes): a\nproperty broken: both",
                      self.replay().stderr)

    def test_crash_keeps_the_input_too(self):
        self.seed("a", b"crash")
        self.assertNotEqual(self.replay().returncode, 0)
        self.assertEqual(self.kept(), b"crash")

    def test_mutations_reach_what_no_seed_holds(self):
        self.seed("a", b"abo")
        self.seed("b", b"rt")
        self.assertEqual(self.replay().returncode, 0)
        self.assertNotEqual(self.replay("--mutations", "20000").returncode, 0)

    def test_mutations_use_the_words_of_the_dictionary(self):
        self.seed("a", b"-")
        words = self.folder / "words"
        words.write_text('# "abort"\nname="no\\x6e"\n')
        self.assertEqual(self.replay("--mutations", "500", "--words", words).returncode, 0)
        words.write_text('name="\\x61b\\x6frt"\n')
        self.assertNotEqual(self.replay("--mutations", "500", "--words", words).returncode, 0)

    def test_mutations_are_the_same_every_time(self):
        self.seed("a", b"abor")
        self.replay("--mutations", "200000")
        first = self.kept()
        self.replay("--mutations", "200000")
        self.assertEqual(self.kept(), first)

    def test_empty_folder_of_seeds_is_a_failure(self):
        (self.folder / "seeds").mkdir()
        self.assertNotEqual(self.replay().returncode, 0)

    def test_missing_folder_of_seeds_is_a_failure(self):
        self.assertNotEqual(self.replay().returncode, 0)


class Run(Folder):
    def build(self, name, text=STAND_IN):
        program = self.folder / "fuzz" / f"{name}_fuzz"
        program.parent.mkdir(exist_ok=True)
        program.write_text(text)
        program.chmod(0o755)
        return program

    def run_targets(self, *arguments):
        done = subprocess.run([sys.executable, RUN, "--build-dir", self.folder, *arguments],
                              capture_output=True, text=True)
        return done.returncode, done.stdout.splitlines(), done.stderr

    def arguments_of(self, program):
        return pathlib.Path(f"{program}.arguments").read_text().splitlines()

    def test_row_tells_executions_and_coverage(self):
        self.build("frame")
        status, lines, _ = self.run_targets("1", "frame")
        self.assertEqual(status, 0)
        columns = lines[1].split()
        self.assertEqual([columns[i] for i in (0, 1, 3, 4, 5)],
                         ["frame", "7,654,321", "12", "3,456", "none"])

    def test_finding_is_told_and_ends_with_1(self):
        self.build("frame", STAND_IN + FINDING)
        self.build("packet")
        status, lines, _ = self.run_targets("2", "frame", "packet")
        self.assertEqual(status, 1)
        self.assertEqual(lines[1].split()[-1], "FOUND")
        self.assertEqual(lines[2], "  input: /kept/here")
        self.assertEqual(lines[4].split()[-1], "none")

    def test_targets_share_the_seconds(self):
        programs = [self.build("frame"), self.build("packet")]
        self.run_targets("10", "frame", "packet")
        for program in programs:
            self.assertIn("-max_total_time=5", self.arguments_of(program))

    def test_runs_take_the_place_of_the_seconds(self):
        program = self.build("frame")
        self.run_targets("--runs", "1000", "frame")
        self.assertIn("-runs=1000", self.arguments_of(program))
        self.assertFalse([a for a in self.arguments_of(program) if "max_total_time" in a])

    def test_new_inputs_go_to_the_build_and_seeds_come_last(self):
        program = self.build("frame")
        self.run_targets("1", "frame")
        corpus, seeds = self.arguments_of(program)[-2:]
        self.assertEqual(corpus, str(self.folder.resolve() / "corpus/frame"))
        self.assertEqual(seeds, str(ROOT / "fuzz/seeds/frame"))

    def test_target_brings_its_dictionary_and_settings(self):
        program = self.build("frame")
        self.run_targets("1", "frame")
        self.assertIn(f"-dict={ROOT / 'fuzz/frame.dict'}", self.arguments_of(program))
        self.assertIn("-max_len=512", self.arguments_of(program))

    def test_unknown_target_is_named_with_those_there_are(self):
        status, _, errors = self.run_targets("1", "nope")
        self.assertEqual(status, 2)
        self.assertIn("no such target: nope (there are: frame, ", errors)

    def test_neither_seconds_nor_runs_is_an_error(self):
        self.assertEqual(self.run_targets()[0], 2)
        self.assertEqual(self.run_targets("frame")[0], 2)

    def test_every_target_has_seeds(self):
        targets = {p.name.removesuffix("_fuzz.cpp") for p in (ROOT / "fuzz").glob("*_fuzz.cpp")}
        seeds = {p.name for p in (ROOT / "fuzz/seeds").iterdir() if any(p.iterdir())}
        self.assertEqual(targets, seeds)


if __name__ == "__main__":
    unittest.main()
