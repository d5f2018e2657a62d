#!/usr/bin/python3
"""Tests engine_cost.py on loops whose number of instructions is known.

engine_cost_test.py BUILD NM
"""
import json
import os
import subprocess
import sys
import tempfile
import unittest

BUILD, NM = sys.argv[1:3]
BENCH = os.path.join(os.path.dirname(os.path.realpath(__file__)), "engine_cost.py")
sys.dont_write_bytecode = True
sys.path.insert(0, os.path.dirname(BENCH))
import engine_cost  # noqa: E402 (the bench lies beside this file and in no package)


def run(listing, *options):
    """(status, standard output, standard error, figures by program)"""
    with tempfile.TemporaryDirectory() as folder:
        list_path, json_path = os.path.join(folder, "list"), os.path.join(folder, "json")
        with open(list_path, "w", encoding="utf-8") as file:
            file.write(listing)
        done = subprocess.run([sys.executable, BENCH, "--build", BUILD, "--nm", NM, "--list", list_path, "--json",
                               json_path, *options], capture_output=True, text=True, timeout=1000, check=False)
        rows = []
        if os.path.exists(json_path):
            with open(json_path, encoding="utf-8") as file:
                rows = json.load(file)
    return done.returncode, done.stdout, done.stderr, {row["program"]: row for row in rows}


class EngineCost(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        lines = ["straight_1000: $RUN $PROGRAMS/engine_loops straight 1000",
                 "straight_2000: $RUN $PROGRAMS/engine_loops straight 2000",
                 "unknown_1000: $RUN $PROGRAMS/engine_loops unknown 1000",
                 "unknown_2000: $RUN $PROGRAMS/engine_loops unknown 2000",
                 "new_blocks: $RUN $PROGRAMS/engine_loops new_blocks 1"]
        cls.status, cls.table, cls.messages, cls.rows = run("# A comment, and an empty line.\n\n" + "\n".join(lines),
                                                            "--hot", "5")

    def test_every_line_is_counted(self):
        self.assertEqual((self.status, self.messages), (0, ""))
        self.assertIn("5 programs counted, 0 failed", self.table)
        self.assertEqual(list(self.rows),
                         ["straight_1000", "straight_2000", "unknown_1000", "unknown_2000", "new_blocks"])

    def test_thousand_rounds_of_forty_instructions_are_forty_thousand_more(self):
        more = self.rows["straight_2000"]["native"] - self.rows["straight_1000"]["native"]
        self.assertAlmostEqual(more, 40000, delta=200)  # The printed numbers differ a little.

    def test_rewritten_code_runs_the_loops_instructions_too(self):
        more = self.rows["straight_2000"]["cache"] - self.rows["straight_1000"]["cache"]
        self.assertGreaterEqual(more, 39 * 1000)
        self.assertLess(more, 80 * 1000)

    def test_rounds_of_known_blocks_cost_the_engine_no_scan(self):
        self.assertAlmostEqual(self.rows["straight_2000"]["blocks"], self.rows["straight_1000"]["blocks"], delta=20)

    def test_code_that_the_decoder_does_not_know_leaves_the_dispatcher_alone_once_it_is_linked(self):
        more = self.rows["unknown_2000"]["dispatches"] - self.rows["unknown_1000"]["dispatches"]
        self.assertAlmostEqual(more, 0, delta=20)

    def test_every_new_block_is_scanned_once(self):
        more = self.rows["new_blocks"]["blocks"] - self.rows["straight_1000"]["blocks"]
        self.assertAlmostEqual(more, 20000, delta=50)

    def test_parts_are_the_whole(self):
        for name, row in self.rows.items():
            parts = sum(row[part] for part in ("cache", "counters", "switches", "engine"))
            self.assertEqual(parts, row["engine_run"], name)
            self.assertLess(0, row["start"], name)
            self.assertLess(row["start"], row["engine"], name)

    def test_hot_functions_are_named(self):
        names = [name for name, _ in self.rows["new_blocks"]["hot"]]
        self.assertEqual(len(names), 5)
        self.assertIn("ceilmeter::scan_fragment", names)

    def test_the_tracer_adds_at_most_12_instructions_to_each_run_of_a_block(self):
        listing = "\n".join(f"straight_{rounds}: $RUN $PROGRAMS/engine_loops straight {rounds}"
                            for rounds in (1000, 2000))
        status, _, messages, traced = run(listing, "--tracer")
        self.assertEqual((status, messages), (0, ""))
        more = traced["straight_2000"]["cache"] - traced["straight_1000"]["cache"]
        bare = self.rows["straight_2000"]["cache"] - self.rows["straight_1000"]["cache"]
        self.assertGreaterEqual((more - bare) / 1000, 4)  # Load, addition, store and address of the counter.
        self.assertLess((more - bare) / 1000, 12.5)  # The printed numbers differ a little.

    def test_the_tools_lines_are_taken_out_of_output_that_ends_within_a_line(self):
        own = b"CEILMETER: is a word of the program's\n\xff\x00 and no end of line"
        opening = (b"CEILMETER: Start collection for ./a\n"
                   b"CEILMETER: Launch application to do binary instrumentation of ./a\n")
        closing = (b"CEILMETER: Processing all collected data\nCEILMETER: Result is captured at r.json\n"
                   b'CEILMETER: Run "ceilview r.json" to get report.\n')
        self.assertEqual(engine_cost.without_lines_of_the_tool(opening + own + closing), own)
        self.assertEqual(engine_cost.without_lines_of_the_tool(opening + own + closing + b"behind\n"),
                         own + b"behind\n")

    def test_a_program_that_behaves_otherwise_under_the_engine_fails(self):
        status, table, messages, rows = run('bad: $RUN $PROGRAMS/engine_loops straight 10; echo "$RUN"\n')
        self.assertEqual((status, rows), (1, {}))
        self.assertIn("0 programs counted, 1 failed", table)
        self.assertIn("engine_cost: bad: status 0", messages)

    def test_a_line_that_needs_a_userland_is_left_out_without_one(self):
        status, _, messages, rows = run("true: $RUN $ROOT/bin/true\n", "--root", "")
        self.assertEqual((status, rows), (1, {}))
        self.assertIn("true: not run, since it needs --root", messages)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
