#!/usr/bin/python3
"""Tests that the code which the tracer adds to a program writes at most 64 bytes below the stack pointer: its counters
and the marks of a region, on processors with scalable vectors and without.

small_stack_test.py BUILD [EMULATOR WORD...]
"""
import json
import os
import subprocess
import sys
import tempfile
import unittest

build = os.path.realpath(sys.argv[1])
emulator = sys.argv[2:]
tool = os.path.join(build, "ceilmeter")
program = os.path.join(build, "tests/programs/hazards/below_sp")
MODELS = [[], ["-cpu", "neoverse-n1"], ["-cpu", "a64fx"]] if emulator else [[]]
SECONDS = 300  # A run that takes longer hangs.
OPERATIONS = 300  # One operation in each round of the region.


class small_stack_test(unittest.TestCase):
    def check(self, mode, region):
        for model in MODELS:
            with self.subTest(model=model), tempfile.TemporaryDirectory() as folder:
                result = os.path.join(folder, "result.json")
                words = [*emulator, *model, tool, "--phase=bintracer", f"--mode={mode}", "-o", result, "--", program]
                done = subprocess.run(words, capture_output=True, text=True, stdin=subprocess.DEVNULL,
                                      timeout=SECONDS, check=False)
                self.assertEqual(done.returncode, 0, done.stderr)
                # The program prints each part of its code that has changed more than that.
                told = [line for line in done.stdout.splitlines() if not line.startswith("CEILMETER")]
                self.assertEqual(told, ["done"])
                with open(result, encoding="utf-8") as file:
                    self.assertEqual(json.load(file)["regions"][region]["flop"], OPERATIONS)

    def test_counters_of_the_whole_run(self):
        self.check("total", "total")

    def test_marks_of_a_region(self):
        self.check("region", "small stack")


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
