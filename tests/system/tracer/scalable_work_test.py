#!/usr/bin/python3
"""A program built for SVE: one warning tells how much of its arithmetic is not counted.

scalable_work_test.py BUILD [EMULATOR WORD...]
"""
import json
import os
import re
import subprocess
import sys
import tempfile
import unittest

build = os.path.realpath(sys.argv[1])
emulator = sys.argv[2:]
tool = os.path.join(build, "ceilmeter")
program = os.path.join(build, "tests/programs/tracer/scalable_work")
NO_SVE = 77
SECONDS = 300  # A run that takes longer hangs.
WARNING = re.compile(r"MORA warn (\d+) scalable floating-point instructions \(SVE, SME\) were executed and not "
                     r"counted, ([\d.]+) % of all floating-point instructions")


class scalable_work_test(unittest.TestCase):
    def run_program(self, words):
        return subprocess.run([*emulator, *words], capture_output=True, text=True, stdin=subprocess.DEVNULL,
                              timeout=SECONDS, check=False)

    def test_one_warning_has_the_number_and_the_share(self):
        native = self.run_program([program])
        if native.returncode == NO_SVE:
            self.skipTest("the processor has no scalable vectors")
        with tempfile.TemporaryDirectory() as folder:
            result = os.path.join(folder, "result.json")
            done = self.run_program([tool, "--phase=bintracer", "-o", result, "--", program])
            self.assertEqual((done.returncode, native.returncode), (0, 0), done.stderr)
            with open(result, encoding="utf-8") as file:
                self.assertEqual(json.load(file)["regions"]["total"]["flop"], 1000)
        self.assertEqual(WARNING.findall(done.stderr), [("3000", "75.0")], done.stderr)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
