"""Tests the roofs on a processor without half precision, an emulated Cortex-A72."""

import json
import os
import subprocess
import sys
import tempfile
import unittest

emulator, tool = sys.argv[1:-1], sys.argv[-1]


class without_half_precision_test(unittest.TestCase):
    def test_half_precision_roofs_are_0_after_one_warning_and_the_rest_is_measured(self):
        with tempfile.TemporaryDirectory() as folder:
            result = os.path.join(folder, "result.json")
            done = subprocess.run([*emulator, tool, "--phase=benchmarks", "--benchmarks_num_threads=1", "-o", result],
                                  capture_output=True, text=True, timeout=600, check=False,
                                  env={**os.environ, "QEMU_CPU": "cortex-a72"})
            self.assertEqual(done.returncode, 0, done.stderr)
            with open(result, encoding="utf-8") as file:
                roofs = {roof["name"]: roof["value"] for roof in json.load(file)["roofs"]}
        self.assertEqual(done.stderr.count("no half-precision arithmetic: its two roofs are 0"), 1, done.stderr)
        self.assertEqual(len(roofs), 13)
        self.assertEqual([name for name in roofs if name.startswith("f16x8")], ["f16x8-FADD/FSUB", "f16x8-FMLA/FMLS"])
        for name, value in roofs.items():
            if name.startswith("f16x8"):
                self.assertEqual(value, 0, name)
        self.assertGreater(roofs["L1"], 0)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
