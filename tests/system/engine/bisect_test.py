#!/usr/bin/env python3
"""tools/bisect on a program with a spoilt trace or link.

bisect_test.py TOOL PROGRAMS [EMULATOR...]   PROGRAMS is the folder of mora_run; the emulator runs both sides
"""
import os
import re
import subprocess
import sys
import unittest

TOOL, PROGRAMS, *EMULATOR = sys.argv[1:]
ENGINE = [*EMULATOR, f"{PROGRAMS}/mora_run"]
PROGRAM = f"{PROGRAMS}/traces/bare_phases"  # The program has five traces.


def bisect(*arguments, **settings):
    done = subprocess.run([sys.executable, TOOL, *arguments, "--", *ENGINE, PROGRAM], capture_output=True, text=True,
                          env=os.environ | settings, timeout=120, check=False)
    return done.returncode, done.stdout


class Bisect(unittest.TestCase):
    def test_a_spoilt_trace_is_found_and_its_code_is_printed(self):
        status, output = bisect(MORA_RUN_BREAK_TRACE="3")
        self.assertEqual(status, 0, output)
        self.assertIn("the program goes wrong with trace 3:", output)
        # The BRK stands in the place of the first source word, which the line's other half shows.
        self.assertRegex(output, r"d4200000 brk .* \| ")
        self.assertRegex(output, r"fragment \d+: source 0x[0-9a-f]+")

    def test_the_first_and_the_last_one_are_found(self):
        for number in ("1", "5"):
            status, output = bisect(MORA_RUN_BREAK_TRACE=number)
            self.assertEqual(status, 0, output)
            self.assertIn(f"the program goes wrong with trace {number}:", output)

    def test_the_native_run_may_say_what_is_right(self):
        status, output = bisect("--native", " ".join([*EMULATOR, PROGRAM]), MORA_RUN_BREAK_TRACE="2")
        self.assertEqual(status, 0, output)
        self.assertIn("the program goes wrong with trace 2:", output)

    def test_a_check_may_say_what_is_right(self):
        status, output = bisect("--check", 'test "$BISECT_STATUS" = 0', MORA_RUN_BREAK_TRACE="4")
        self.assertEqual(status, 0, output)
        self.assertIn("the program goes wrong with trace 4:", output)

    def test_a_program_that_is_right_is_said_to_be(self):
        status, output = bisect()
        self.assertEqual(status, 1, output)
        self.assertIn("does not go wrong", output)

    def test_what_goes_wrong_without_any_trace_is_said_to(self):
        status, output = bisect("--check", "false")
        self.assertEqual(status, 2, output)
        self.assertIn("goes wrong without any trace, too", output)

    def test_a_spoilt_link_is_found_and_its_block_is_printed(self):
        status, output = bisect("--what", "links", MORA_RUN_BREAK_LINK="11")
        self.assertEqual(status, 0, output)
        self.assertIn("the program goes wrong with link 11:", output)
        block = re.search(r"fragment (\d+): .* exit (0x[0-9a-f]+),", output)
        self.assertLess(int(block[1]), 55000, "the indices of traces begin here")
        self.assertRegex(output, block[2] + " d4200000 brk")


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
