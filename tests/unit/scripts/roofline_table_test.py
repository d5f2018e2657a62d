#!/usr/bin/python3
"""scripts/roofline_table on fixed result files: what is computed, by hand beside it, and what is left open.

roofline_table_test.py SOURCE
"""
import importlib.machinery
import importlib.util
import os
import re
import subprocess
import sys
import tempfile
import unittest

source = sys.argv[1]
script = os.path.join(source, "scripts/roofline_table")
results = os.path.join(source, "tests/unit/scripts/results")


def load():
    sys.dont_write_bytecode = True
    loader = importlib.machinery.SourceFileLoader("roofline_table", script)
    module = importlib.util.module_from_spec(importlib.util.spec_from_loader("roofline_table", loader))
    loader.exec_module(module)
    return module


roofline_table = load()


def run(*paths):
    done = subprocess.run([script, *paths], capture_output=True, text=True, timeout=60, check=False)
    return done.returncode, done.stdout, done.stderr


def columns(name):
    """The rows of a file's table as {region: {column: text}}."""
    status, out, err = run(os.path.join(results, name))
    assert (status, err) == (0, ""), (status, err)
    lines = out.splitlines()[1:]
    assert lines[0].split()[:2] == ["region", "threads"], lines[0]
    rows = {}
    for line in lines[1:]:
        if line.lstrip().startswith("roofs of"):
            break
        # Two blanks or more part the columns, one stands inside of them.
        cells = re.split(r" {2,}", line.strip())
        rows[cells[0]] = dict(zip(roofline_table.HEADER, cells))
    return rows


class roofline_table_test(unittest.TestCase):
    maxDiff = None

    def test_region_of_one_thread_is_held_against_the_roofs_of_one_thread(self):
        # 64e6 B / 90 GB/s = 0.711 ms is the longest of the five times; 0.711 / 20 ms = 3.56 %.
        self.assertEqual(columns("all_phases.json")["assemble"], {
            "region": "assemble", "threads": "1", "time": "20.0 ms", "L1": "64.0 MB", "L2": "8.00 MB", "L3": "2.00 MB",
            "DDR": "1.00 MB", "operations": "4.00 M", "GFLOP/s": "0.2", "flop/byte": "4", "limited by": "L1",
            "reached": "3.56 %"})

    def test_region_of_four_threads_is_held_against_the_roofs_of_four_threads(self):
        # 16e9 B / 40 GB/s = 0.4 s of 0.5 s; 9.6e9 operations at the 96 GFLOPS of two elements would take 0.1 s.
        row = columns("all_phases.json")["solve"]
        self.assertEqual((row["limited by"], row["reached"], row["GFLOP/s"], row["flop/byte"]),
                         ("DDR", "80 %", "19.2", "0.6"))

    def test_arithmetic_can_be_the_limit_and_roofs_of_another_count_are_named(self):
        # 4e11 operations of four elements at 192 GFLOPS: 2.083 s of 2.5 s. Roofs of 3 threads were not measured.
        row = columns("all_phases.json")["product"]
        self.assertEqual((row["limited by"], row["reached"]), ("f32x4-FMLA/FMLS (of 4 threads)", "83.3 %"))

    def test_run_without_a_tracer_has_no_operations_and_no_limit_without_roofs(self):
        self.assertEqual(columns("counters_only.json")["total"], {
            "region": "total", "threads": "-", "time": "1.00 ms", "L1": "1.23 MB", "L2": "1.00 MB", "L3": "999 B",
            "DDR": "0 B", "operations": "-", "GFLOP/s": "-", "flop/byte": "-", "limited by": "-", "reached": "-"})

    def test_run_without_counters_has_no_bytes_and_no_time(self):
        self.assertEqual(columns("tracer_only.json")["total"], {
            "region": "total", "threads": "2", "time": "-", "L1": "-", "L2": "-", "L3": "-", "DDR": "-",
            "operations": "5.00 k", "GFLOP/s": "-", "flop/byte": "-", "limited by": "-", "reached": "-"})

    def test_counters_that_did_not_move_give_no_limit(self):
        row = columns("emulated.json")["total"]
        self.assertEqual((row["L1"], row["DDR"], row["flop/byte"], row["limited by"]), ("0 B", "0 B", "-", "-"))

    def test_file_without_regions_says_so_and_shows_the_roofs(self):
        status, out, err = run(os.path.join(results, "roofs_only.json"))
        self.assertEqual((status, err), (0, ""))
        self.assertEqual(out.splitlines()[1:], [
            "  no regions",
            "  roofs of 16 threads in GFLOPS: f16x8-FADD/FSUB 48, f32x4-FADD/FSUB 24, f64x2-FADD/FSUB 12, "
            "f32x4-FMLA/FMLS 48, f64x2-FMLA/FMLS 24, f16x8-FMLA/FMLS 96, Scalar(SP)-FMADD 10, Scalar(DP)-FMADD 12",
            "  roofs of 16 threads in GB/s: L1 90, L2 70, L3 50, DDR 20, DDR Numa-local 20"])

    def test_level_of_no_bytes_or_no_roof_has_no_say(self):
        region = {"flop": 0, "threads": 0, "bbs": [], "l1_bytes": 10, "l2_bytes": 0, "ddr_bytes": 10}
        self.assertEqual(roofline_table.limit(region, {"L1": 2, "L2": 1, "DDR": 0}), ("L1", 5e-9))
        self.assertIsNone(roofline_table.limit(region, {"L2": 1}))

    def test_class_is_that_of_most_operations_and_the_better_of_the_two_scalar_roofs(self):
        roofs = {"Scalar(SP)-FMADD": 10, "Scalar(DP)-FMADD": 12, "f64x2-FMLA/FMLS": 24, "f16x8-FMLA/FMLS": 96}
        block = lambda flop, count, width: ["0", "4", "0", "4", flop, count, width, "/a"]
        roof = lambda *blocks: roofline_table.compute_roof({"bbs": list(blocks)}, roofs)
        self.assertEqual(roof(block(2, 100, 1), block(8, 24, 2)), ("Scalar(DP)-FMADD", 12e9))
        self.assertEqual(roof(block(2, 100, 1), block(8, 26, 2)), ("f64x2-FMLA/FMLS", 24e9))
        self.assertEqual(roof(block(16, 1, 16)), ("f16x8-FMLA/FMLS", 96e9))
        self.assertIsNone(roof(block(4, 1, 4)), "no such roof in the file")
        self.assertIsNone(roof(block(0, 5, 2)))
        self.assertIsNone(roof())

    def test_numbers_have_three_digits_and_the_nearest_prefix(self):
        shown = [roofline_table.quantity(value, "B") for value in (0, 7, 999, 1000, 9994, 9996, 99949, 999499, 999500, 1)]
        self.assertEqual(shown, ["0 B", "7 B", "999 B", "1.00 kB", "9.99 kB", "10.0 kB", "99.9 kB", "999 kB", "1.00 MB",
                                 "1 B"])
        self.assertEqual([roofline_table.duration(value) for value in (999, 1500, 999499, 999500, 61_000_000_000)],
                         ["999 ns", "1.50 us", "999 us", "1.00 ms", "61.0 s"])

    def test_file_that_is_missing_or_broken_is_named_and_the_others_are_shown(self):
        with tempfile.NamedTemporaryFile("w", suffix=".json") as broken:
            broken.write('{"regions": {')
            broken.flush()
            status, out, err = run("/nowhere.json", broken.name, os.path.join(results, "tracer_only.json"))
        self.assertEqual(status, 1)
        self.assertIn("roofline_table: /nowhere.json: ", err)
        self.assertIn(f"roofline_table: {broken.name}: ", err)
        self.assertIn("tracer_only.json\n", out)

    def test_without_a_file_the_usage_is_told(self):
        self.assertEqual(run(), (2, "", "usage: roofline_table RESULT_FILE...\n"))


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], "-v"])
