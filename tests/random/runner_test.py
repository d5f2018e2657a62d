#!/usr/bin/env python3
"""Tests the runner of random programs with stand-ins for the engine. Right ones pass, wrong ones are found and shrunk.

    runner_test.py [--only PART]... RUNNER TABLE PROBE [EMULATOR WORD...]

--only chooses the tests with PART in their names.
"""

import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

words = sys.argv[1:]
CHOSEN = []
while words[0] == "--only":
    CHOSEN += ["-k", words[1]]
    del words[:2]
RUNNER, TABLE, PROBE, *EMULATOR = words
WRONG_ENGINE = pathlib.Path(__file__).with_name("wrong_engine.py")

# The classes whose instructions the engine rewrites.
REWRITTEN = ["cbz", "b_cond", "svc", "mrs_msr", "tbz", "b", "br", "blr", "ret", "ldr_literal", "adr", "not_recognised"]


def call(*arguments, defect=None, seconds="300"):
    command = [RUNNER, "--table", TABLE, "--probe", PROBE, "--emulator", " ".join(EMULATOR), "--seconds", seconds]
    if defect is not None:
        command += ["--engine", " ".join([sys.executable, str(WRONG_ENGINE), defect, *EMULATOR])]
    return subprocess.run(command + list(arguments), stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          check=False)


class Runner(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def find(self, defect, seeds=("1", "1"), seconds="300"):
        """Returns what the runner prints for an engine with the defect, which it must have found and shrunk."""
        done = call("--keep", str(self.folder), *seeds, defect=defect, seconds=seconds)
        self.assertEqual(done.returncode, 1, done.stdout)
        self.assertRegex(done.stdout, r"seed \d+ differs\n", done.stdout)
        return done.stdout

    def shrunk_size(self, said):
        found = re.search(r"shrunk from (\d+) to (\d+) instructions", said)
        self.assertIsNotNone(found, said)
        self.assertGreaterEqual(int(found[1]), 1000, said)
        return int(found[2])

    def shrunk_listing(self, said):
        return said[said.index("shrunk from"):]

    def test_an_engine_that_does_nothing_wrong_passes(self):
        done = call("1", "6", defect="none")
        self.assertEqual(done.returncode, 0, done.stdout)
        self.assertIn(": 6 programs of", done.stdout)
        self.assertIn("0 differ, 0 are no good", done.stdout)

    def test_a_wrong_condition_is_found_and_shrunk_to_the_instruction(self):
        said = self.find("condition")
        self.assertLessEqual(self.shrunk_size(said), 40, said)
        self.assertIn("cond_select", self.shrunk_listing(said))

    def test_a_branch_that_is_always_taken_and_was_not_is_found(self):
        said = self.find("always", seeds=("4", "1"))
        self.assertLessEqual(self.shrunk_size(said), 40, said)
        self.assertIn("b_cond", self.shrunk_listing(said))

    def test_a_call_that_sets_no_link_register_is_found(self):
        said = self.find("link")
        self.assertLessEqual(self.shrunk_size(said), 60, said)
        self.assertIn(" blr ", self.shrunk_listing(said))

    def test_a_wrong_flag_at_the_very_end_is_found(self):
        said = self.find("flags")
        self.assertRegex(said, r"nzcv: natively 0x[0-9a-f]+, engine 0x[0-9a-f]+", said)

    def test_a_wrong_status_is_found(self):
        self.assertRegex(self.find("status"), r"natively exit status \d+, engine: exit status \d+")

    def test_missing_output_is_found(self):
        self.assertRegex(self.find("short"), r"output: natively \d+ bytes, engine \d+")

    def test_an_engine_that_is_killed_is_found(self):
        self.assertIn("engine: killed by signal 11", self.find("crash"))

    def test_an_engine_that_hangs_is_found(self):
        self.assertIn("engine: no end within the bound on time", self.find("hang", seconds="10"))

    def test_the_failing_seed_is_named_among_many(self):
        said = self.find("condition", seeds=("5", "2"))
        self.assertIn("seed 5 differs", said)
        self.assertNotIn("seed 6 differs", said)

    def test_a_kept_case_tells_a_wrong_engine_from_a_right_one(self):
        self.find("condition")
        cases = [str(path) for path in self.folder.glob("*.case")]
        self.assertEqual(len(cases), 1)
        wrong = call("case", *cases, defect="condition")
        self.assertEqual(wrong.returncode, 1, wrong.stdout)
        self.assertIn("differs", wrong.stdout)
        right = call("case", *cases, defect="none")
        self.assertEqual(right.returncode, 0, right.stdout)
        self.assertIn("1 cases, 0 failed", right.stdout)

    def test_a_file_that_is_no_case_fails(self):
        path = self.folder / "text.case"
        path.write_text("code of conduct\n")
        self.assertEqual(call("case", str(path), defect="none").returncode, 1)

    def test_a_seed_gives_the_same_program_every_time(self):
        for name in ("first", "second"):
            (self.folder / name).mkdir()
            done = call("--survey", "--write", str(self.folder / name), "1", "5")
            self.assertEqual(done.returncode, 0, done.stdout)
        for seed in range(1, 6):
            first, second = ((self.folder / name / f"seed-{seed}").read_bytes() for name in ("first", "second"))
            self.assertEqual(first, second, f"seed {seed}")
        self.assertNotEqual((self.folder / "first/seed-1").read_bytes(), (self.folder / "first/seed-2").read_bytes())

    def test_programs_have_1000_to_10000_instructions_of_every_class_that_the_engine_rewrites(self):
        done = call("--survey", "1", "200")
        self.assertEqual(done.returncode, 0, done.stdout)
        sizes = re.search(r"instructions: (\d+) to (\d+)", done.stdout)
        self.assertGreaterEqual(int(sizes[1]), 1000)
        self.assertLessEqual(int(sizes[2]), 10000)
        numbers = dict(re.findall(r"class (\w+): (\d+)", done.stdout))
        for name in REWRITTEN:
            self.assertGreater(int(numbers.get(name, 0)), 100, name)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1] + CHOSEN, verbosity=2)
