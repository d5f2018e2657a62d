#!/usr/bin/python3
"""The plug-in that watches exclusive pairs sees what comes in between: a program whose pairs are known.

watching_test.py EMULATOR PLUGIN PROGRAMS NM    PROGRAMS is the folder of the built programs.
"""
import os
import subprocess
import sys
import tempfile
import unittest

EMULATOR, PLUGIN, PROGRAMS, NM = sys.argv[1:5]
PROGRAM = os.path.join(PROGRAMS, "watched_pairs")


def symbols():
    lines = subprocess.run([NM, PROGRAM], check=True, capture_output=True, text=True).stdout.splitlines()
    return {line.split()[2]: int(line.split()[0], 16) for line in lines if len(line.split()) == 3}


class ExclusivePairs(unittest.TestCase):
    maxDiff = None

    def test_each_pair_is_told_with_what_came_in_between(self):
        with tempfile.TemporaryDirectory() as folder:
            path = os.path.join(folder, "pairs")
            subprocess.run([EMULATOR, "-plugin", f"{PLUGIN},pairs={path}", PROGRAM], timeout=120, check=True)
            with open(path, encoding="utf-8") as file:
                pairs = [[int(word, 0) for word in line.split()] for line in file]
        known = symbols()
        # Rounds, touched, late; then instructions, loads, stores, maintenance. x5 is even at first.
        self.assertEqual(pairs, [[known["watched_load"], known["watched_store"], 10, 5, 5, 10 + 2 * 5, 5, 5, 0],
                                 [known["maintained_load"], known["maintained_store"], 1, 1, 0, 2, 0, 0, 2]])

    def test_another_option_and_none_are_refused(self):
        for argument in (f"{PLUGIN},summary=/dev/null", PLUGIN):
            run = subprocess.run([EMULATOR, "-plugin", argument, PROGRAM], timeout=120, capture_output=True, text=True)
            self.assertNotEqual(run.returncode, 0)
            self.assertIn("exclusive_pairs: ", run.stderr)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
