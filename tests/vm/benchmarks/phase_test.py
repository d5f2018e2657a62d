"""The benchmarks phase of the built tool, alone: a file with nothing but roofs, and then the same phase on a file that
holds regions.

  phase_test.py CEILMETER CEILMETER_WITH_SHORT_ROOFS
"""
import json
import subprocess
import sys
import unittest

SHORT_TOOL = sys.argv.pop()
TOOL = sys.argv.pop()

# Name, unit and kind of the thirteen roofs, in their order.
ROOFS = [
    ("f16x8-FADD/FSUB", "GFLOPS", True), ("f32x4-FADD/FSUB", "GFLOPS", True), ("f64x2-FADD/FSUB", "GFLOPS", True),
    ("f32x4-FMLA/FMLS", "GFLOPS", True), ("f64x2-FMLA/FMLS", "GFLOPS", True), ("f16x8-FMLA/FMLS", "GFLOPS", True),
    ("Scalar(SP)-FMADD", "GFLOPS", True), ("Scalar(DP)-FMADD", "GFLOPS", True), ("L1", "GB/s", False),
    ("L2", "GB/s", False), ("L3", "GB/s", False), ("DDR", "GB/s", False), ("DDR Numa-local", "GB/s", False)]

# The result of an earlier run: two regions, and roofs of another machine.
EARLIER = {
    "regions": {
        "copy": {"flop": 0, "threads": 1, "bbs": [], "l1_bytes": 11, "l2_bytes": 12, "l3_bytes": 13, "ddr_bytes": 14,
                 "time": 15},
        "sum": {"flop": 60, "threads": 2, "bbs": [["1000", "1010", "0", "10", 6, 10, 4, "/tmp/app"]], "l1_bytes": 21,
                "l2_bytes": 22, "l3_bytes": 23, "ddr_bytes": 24, "time": 25}},
    "bb_keys": ["start", "end", "dump_start", "dump_end", "flop", "count", "vector_length", "module"],
    "threads": 2,
    "roofs": [{"name": "old", "value": 1, "measure": "GB/s", "is_compute": False}],
    "roofs_by_num_threads": {"2": [{"name": "old", "value": 1, "measure": "GB/s", "is_compute": False}],
                             "64": [{"name": "old", "value": 1, "measure": "GB/s", "is_compute": False}]}}


def run_tool(tool, *arguments):
    return subprocess.run([tool, *arguments], capture_output=True, text=True, check=False)


def kinds(roofs):
    return [(roof["name"], roof["measure"], roof["is_compute"]) for roof in roofs]


def load(path):
    with open(path, encoding="utf-8") as file:
        return json.load(file)


class BenchmarksPhase(unittest.TestCase):
    maxDiff = None

    def test_needs_no_application_and_leaves_thirteen_roofs_for_the_count_asked_for(self):
        run = run_tool(TOOL, "--phase=benchmarks", "--benchmarks_num_threads=2")
        self.assertEqual(run.returncode, 0, run.stderr)
        path = "ceilmeter_benchmarks.roofline.json"
        self.assertEqual(run.stdout.count("CEILMETER: Launch benchmarks for measuring roofs"), 1)
        result = load(path)
        self.assertEqual(result["regions"], {})
        self.assertEqual(result["threads"], 2)
        self.assertEqual(list(result["roofs_by_num_threads"]), ["2"])
        self.assertEqual(kinds(result["roofs"]), ROOFS)
        self.assertEqual(result["roofs"], result["roofs_by_num_threads"]["2"])
        # Even an emulator reads its first-level buffer faster than one gigabyte a second.
        self.assertGreater(result["roofs"][8]["value"], 0)

    def test_on_a_file_with_regions_keeps_these_and_replaces_the_roofs_for_their_thread_counts(self):
        with open("earlier.json", "w", encoding="utf-8") as file:
            json.dump(EARLIER, file)
        run = run_tool(SHORT_TOOL, "--phase=benchmarks", "-o", "earlier.json")
        self.assertEqual(run.returncode, 0, run.stderr)
        result = load("earlier.json")
        self.assertEqual(result["regions"], EARLIER["regions"])
        self.assertEqual(result["threads"], 2)
        self.assertEqual(sorted(result["roofs_by_num_threads"]), ["1", "2"])
        for count in ("1", "2"):
            self.assertEqual(kinds(result["roofs_by_num_threads"][count]), ROOFS)
        self.assertEqual(result["roofs"], result["roofs_by_num_threads"]["2"])
        # Ten rows are measured with one thread and doubled.
        for one, two in zip(result["roofs_by_num_threads"]["1"][:10], result["roofs_by_num_threads"]["2"][:10]):
            self.assertEqual(two["value"], 2 * one["value"], one["name"])


if __name__ == "__main__":
    unittest.main(verbosity=2)
