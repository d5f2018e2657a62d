#!/usr/bin/python3
"""Tests what comes between the load and the store of an exclusive pair, natively, under the engine and the tracer.

exclusives_test.py BUILD PLUGIN EMULATOR...    PLUGIN is the emulator's plug-in that watches exclusive pairs.

A processor may refuse the store for any access to memory in between. So there must be none once the code of a pair is
linked: under the engine a pair may be touched in its first round alone. The emulator's processor has no other atomic
instructions.
"""
import collections
import json
import os
import struct
import subprocess
import sys
import tempfile
import unittest

BUILD, PLUGIN = sys.argv[1:3]
EMULATOR = [*sys.argv[3:], "-cpu", "cortex-a72"]
FOLDER = os.path.join(BUILD, "tests/programs/exclusives")
RUN_LIMIT = 300  # Seconds. A run that takes longer hangs.

Pair = collections.namedtuple("Pair", "load store rounds touched late instructions loads stores maintenance")


class Watched:
    """One run under the plug-in."""

    def __init__(self, folder, command, environment=()):
        path = os.path.join(folder, "pairs")
        settings = [word for setting in environment for word in ("-E", setting)]
        run = subprocess.run([*EMULATOR, *settings, "-plugin", f"{PLUGIN},pairs={path}", *command], timeout=RUN_LIMIT,
                             capture_output=True, text=True, check=False)
        if run.returncode != 0:
            raise AssertionError(f"{command}: status {run.returncode}: {run.stderr}")
        self.output = [line for line in run.stdout.splitlines() if not line.startswith("CEILMETER: ")]
        with open(path, encoding="utf-8") as file:
            self.pairs = [Pair(*(int(word, 0) for word in line.split())) for line in file]

    def rounds(self):
        return sum(pair.rounds for pair in self.pairs)


class ExclusivePairs(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        holder = tempfile.TemporaryDirectory()
        self.addCleanup(holder.cleanup)
        self.folder = holder.name
        self.result = os.path.join(self.folder, "result.json")
        self.tool = [os.path.join(BUILD, "ceilmeter"), "--phase=bintracer", "-o", self.result, "--"]
        self.engine = [os.path.join(BUILD, "tests/programs/mora_run")]

    def compare(self, name, *arguments, environment=(), fewest=3000):
        command = [os.path.join(FOLDER, name), *arguments]
        native = Watched(self.folder, command, environment)
        self.assertGreater(native.rounds(), fewest)
        self.assertEqual(sum(pair.touched for pair in native.pairs), 0, "the program itself comes in between")
        for runner, settings in ((self.engine, ()), (self.engine, ("MORA_BI_TRACES=off",)),
                                 (self.engine, ("MORA_BI_HOT=3",)), (self.tool, ()),
                                 (self.tool, ("MORA_BI_TRACES=off",))):
            with self.subTest(program=name, runner=runner[0], settings=settings):
                watched = Watched(self.folder, runner + command, (*environment, *settings))
                self.assertEqual(watched.output, native.output)
                self.assertGreater(watched.rounds(), fewest)
                late = [pair for pair in watched.pairs if pair.late]
                self.assertFalse(late, f"{len(late)} of {len(watched.pairs)} pairs are touched again and again")
                # Each pair was touched once, when the dispatcher linked its two blocks.
                self.assertTrue([pair for pair in watched.pairs if pair.touched])

    def test_pairs_of_all_widths_that_fail_and_succeed(self):
        self.compare("pair_shapes")

    def test_compare_and_swap_that_the_compiler_writes_into_the_code(self):
        self.compare("inline_atomics")

    def test_compare_and_swap_of_four_threads(self):
        self.compare("inline_atomics", "4", "1000")

    def test_the_fallback_of_atomics_outside_of_the_code(self):
        self.compare("outlined_atomics")

    def test_atomic_sums_of_floating_point_numbers(self):
        self.compare("atomic_sums", environment=("OMP_NUM_THREADS=1",))

    def test_atomic_sums_of_three_threads(self):
        self.compare("atomic_sums", environment=("OMP_NUM_THREADS=3",))

    def test_locks_of_a_static_program(self):
        self.compare("spin_locks")

    def test_the_operations_of_blocks_between_the_two_are_counted_exactly(self):
        done = os.path.join(self.folder, "done")
        for settings in ((), ("MORA_BI_TRACES=off",), ("MORA_BI_HOT=3",)):
            with self.subTest(settings=settings):
                Watched(self.folder, [*self.tool, os.path.join(FOLDER, "pair_shapes")],
                        (f"WORK_FILE={done}", *settings))
                with open(done, encoding="utf-8") as file:
                    (work,) = struct.unpack(">d", bytes.fromhex(file.read()))
                self.assertGreater(work, 50000)
                with open(self.result, encoding="utf-8") as file:
                    self.assertEqual(json.load(file)["regions"]["total"]["flop"], work)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
