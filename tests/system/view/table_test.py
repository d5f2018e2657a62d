#!/usr/bin/python3
"""Tests `ceilview --table` on fixed result files: the whole text byte for byte, figures that are computed by hand, and
cells that stay empty.

table_test.py SOURCE EMULATOR... CEILVIEW
"""
import glob
import json
import os
import re
import subprocess
import sys
import tempfile
import unittest

source, *command = sys.argv[1:]
results = os.path.join(source, "tests/unit/view/results")
HEADER = ["region", "threads", "time", "L1", "L2", "L3", "DDR", "operations", "GFLOP/s", "flop/byte", "limited by",
          "reached"]


def run(*words, folder=results):
    done = subprocess.run([*command, "--table", *words], capture_output=True, timeout=120, check=False, cwd=folder)
    return done.returncode, done.stdout.decode(), done.stderr.decode()


def rows_of(text):
    """{region: {column: text}} of one file's table."""
    lines = text.splitlines()[1:]
    assert lines[0].split()[:2] == ["region", "threads"], lines[0]
    rows = {}
    for line in lines[1:]:
        if line.lstrip().startswith("roofs of"):
            break
        # Two blanks or more separate columns; a single one belongs to a column's text.
        cells = re.split(r" {2,}", line.strip())
        rows[cells[0]] = dict(zip(HEADER, cells))
    return rows


def columns(name):
    status, out, err = run(name)
    assert (status, err) == (0, ""), (status, err)
    return rows_of(out)


def made_up(region, roofs=(), threads=1):
    """The row of a file with this region and roofs of one thread, given as {name: value}."""
    report = {"regions": {"total": region}, "bb_keys": [], "threads": threads, "roofs_by_num_threads": {"1": [
        {"name": name, "value": value, "measure": "GB/s" if name in HEADER else "GFLOPS",
         "is_compute": name not in HEADER}
        for name, value in dict(roofs).items()]}}
    with tempfile.NamedTemporaryFile("w", suffix=".json") as file:
        json.dump(report, file)
        file.flush()
        status, out, err = run(file.name)
    assert status == 0, err
    return rows_of(out)["total"]


class table_test(unittest.TestCase):
    maxDiff = None

    def test_table_of_every_committed_file_is_the_committed_text(self):
        names = sorted(os.path.basename(path) for path in glob.glob(f"{results}/*.txt"))
        self.assertEqual(len(names), 5)
        for name in names:
            with open(os.path.join(results, name), encoding="utf-8", newline="") as file:
                self.assertEqual(run(name.replace(".txt", ".json")), (0, file.read(), ""), name)

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
        status, out, err = run("roofs_only.json")
        self.assertEqual((status, err), (0, ""))
        self.assertEqual(out.splitlines()[1:], [
            "  no regions",
            "  roofs of 16 threads in GFLOPS: f16x8-FADD/FSUB 48, f32x4-FADD/FSUB 24, f64x2-FADD/FSUB 12, "
            "f32x4-FMLA/FMLS 48, f64x2-FMLA/FMLS 24, f16x8-FMLA/FMLS 96, Scalar(SP)-FMADD 10, Scalar(DP)-FMADD 12",
            "  roofs of 16 threads in GB/s: L1 90, L2 70, L3 50, DDR 20, DDR Numa-local 20"])

    def test_level_of_no_bytes_or_no_roof_has_no_say(self):
        region = {"flop": 0, "threads": 1, "bbs": [], "l1_bytes": 10, "l2_bytes": 0, "ddr_bytes": 10, "time": 50}
        row = made_up(region, {"L1": 2, "L2": 1, "DDR": 0})
        self.assertEqual((row["limited by"], row["reached"]), ("L1", "10 %"))
        self.assertEqual(made_up(region, {"L2": 1})["limited by"], "-")

    def test_class_is_that_of_most_operations_and_the_better_of_the_two_scalar_roofs(self):
        roofs = {"L1": 1000, "Scalar(SP)-FMADD": 10, "Scalar(DP)-FMADD": 12, "f64x2-FMLA/FMLS": 24,
                 "f16x8-FMLA/FMLS": 96}

        def limit(*blocks):
            flop = sum(work * count for work, count, _ in blocks)
            row = made_up({"flop": flop, "threads": 1, "l1_bytes": 1, "time": 1000,
                           "bbs": [["0", "4", "0", "4", *block, "/a"] for block in blocks]}, roofs)
            return row["limited by"], row["reached"]

        self.assertEqual(limit((2, 100, 1), (8, 24, 2)), ("Scalar(DP)-FMADD", "3.27 %"))
        self.assertEqual(limit((2, 100, 1), (8, 26, 2)), ("f64x2-FMLA/FMLS", "1.7 %"))
        # If shares are equal, the wider one counts.
        self.assertEqual(limit((2, 100, 1), (8, 25, 2)), ("f64x2-FMLA/FMLS", "1.67 %"))
        self.assertEqual(limit((16, 100, 16)), ("f16x8-FMLA/FMLS", "1.67 %"))
        self.assertEqual(limit((400, 1, 4))[0], "L1", "no such roof in the file")

    def test_numbers_have_three_digits_and_the_nearest_prefix(self):
        shown = [made_up({"l1_bytes": value, "time": 1})["L1"]
                 for value in (0, 7, 999, 1000, 9994, 9996, 99949, 999499, 999500)]
        self.assertEqual(shown, ["0 B", "7 B", "999 B", "1.00 kB", "9.99 kB", "10.0 kB", "99.9 kB", "999 kB",
                                 "1.00 MB"])
        self.assertEqual([made_up({"l1_bytes": 1, "time": value})["time"]
                          for value in (999, 1500, 999499, 999500, 61_000_000_000)],
                         ["999 ns", "1.50 us", "999 us", "1.00 ms", "61.0 s"])

    def test_columns_are_as_wide_as_characters_not_bytes(self):
        with tempfile.NamedTemporaryFile("w", suffix=".json", encoding="utf-8") as file:
            region = {"threads": 1, "flop": 1}
            json.dump({"regions": {"größe": region, "abcde": region}, "threads": 1}, file, ensure_ascii=False)
            file.flush()
            lines = run(file.name)[1].splitlines()
        self.assertEqual(lines[2].replace("größe", "abcde"), lines[3])

    def test_roofs_of_another_thread_count_can_be_asked_for(self):
        status, out, err = run("--threads=1", "all_phases.json")
        self.assertEqual((status, err), (0, ""))
        self.assertIn("  roofs of 1 thread in GB/s: L1 90, ", out)

    def test_several_files_stand_below_one_another(self):
        status, out, err = run("tracer_only.json", "roofs_only.json")
        self.assertEqual((status, err), (0, ""))
        self.assertEqual([line for line in out.splitlines() if not line.startswith(" ")],
                         ["tracer_only.json", "roofs_only.json"])

    def test_baseline_adds_how_many_times_as_much_everything_is(self):
        with open(os.path.join(results, "all_phases.json"), encoding="utf-8") as file:
            report = json.load(file)
        report["regions"]["solve"]["time"] //= 2
        with tempfile.NamedTemporaryFile("w", suffix=".json") as file:
            json.dump(report, file)
            file.flush()
            status, out, err = run("--baseline=all_phases.json", file.name)
        self.assertEqual((status, err), (0, ""))
        behind = out[out.index("before and after\n"):].splitlines()
        self.assertEqual(behind[1].split(), "region time GFLOP/s flop/byte reached before reached after".split())
        self.assertIn("  solve     x 0.5      x 2        x 1            80 %          160 %", behind)

    def test_ranks_add_up_and_the_longest_time_counts(self):
        status, out, err = run("--ranks", "all_phases.json", "all_phases.json", "counters_only.json")
        self.assertEqual((status, err), (0, ""))
        solve = rows_of(out[:out.index("ranks\n")])["solve"]
        self.assertEqual((solve["time"], solve["L1"], solve["operations"]), ("500 ms", "200 GB", "19.2 G"))
        behind = out[out.index("ranks\n"):].splitlines()
        line = next(line for line in behind if line.startswith("  solve "))
        self.assertRegex(line, r"^  solve +2 of 3 +500 ms +500 ms +0 %  ")


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], "-v"])
