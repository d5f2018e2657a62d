#!/usr/bin/python3
"""Tests that the engine touches no memory between the load and the store of an exclusive pair, in all its lists.

exclusive_pairs_test.py BUILD PLUGIN EMULATOR...    PLUGIN is the emulator's plug-in that watches exclusive pairs.

The programs of ../tracer/exclusives_test.py have pairs of every form, and that test has the tracer as well. This one
looks at whatever pairs the lists' programs and the C library make. A pair may be touched in its first round, when its
code is linked.
"""
import glob
import os
import subprocess
import sys
import tempfile
import unittest

BUILD, PLUGIN = sys.argv[1:3]
EMULATOR = [*sys.argv[3:], "-cpu", "cortex-a72"]
HERE = os.path.dirname(os.path.realpath(__file__))
PROGRAMS = os.path.join(BUILD, "tests/programs")
LISTS = ("hazards", "traces", "syscalls", "threads", "threads_stress", "signals", "signals_stress", "timed_traces",
         "timed_traces_stress")
LINE_LIMIT = 600  # Seconds. A line that takes longer hangs.
# By program: why its pairs may be touched again and again.
EXCEPTIONS = {"hazards/exclusives": "branches and a call between the two: blocks with neither half, a return's lookup"}


def lines_of(name):
    with open(os.path.join(HERE, f"{name}.txt"), encoding="utf-8") as file:
        return [line.strip() for line in file if "$RUN" in line and not line.startswith("#")]


def pairs_of(line, folder):
    """(address of the load, rounds, late rounds) of each pair that a process of the line has run."""
    work = os.path.join(folder, "work")
    os.mkdir(work)
    pairs = os.path.join(folder, "pairs")
    run = [*EMULATOR, "-plugin", f"{PLUGIN},pairs={pairs}", os.path.join(PROGRAMS, "mora_run")]
    environment = dict(os.environ, RUN=" ".join(run), PROGRAMS=PROGRAMS, LISTS=HERE, ROUNDS="1", ROOT="",
                       MORA_RUN_TRACES="on")
    subprocess.run(["sh", "-c", line], cwd=work, env=environment, stdin=subprocess.DEVNULL, capture_output=True,
                   timeout=LINE_LIMIT, check=False)
    found = []
    for path in glob.glob(f"{pairs}*"):
        with open(path, encoding="utf-8") as file:
            for words in map(str.split, file):
                found.append((words[0], int(words[2], 0), int(words[4], 0)))
    return found


class Lists(unittest.TestCase):
    maxDiff = None

    def test_no_pair_of_a_list_is_touched_again_and_again(self):
        watched = rounds = 0
        for line in (line for name in LISTS for line in lines_of(name)):
            with self.subTest(line=line), tempfile.TemporaryDirectory() as folder:
                pairs = pairs_of(line, folder)
                late = [pair for pair in pairs if pair[2] != 0]
                watched += bool(pairs)
                rounds += sum(pair[1] for pair in pairs)
                if any(f"$PROGRAMS/{program}" in line.split() for program in EXCEPTIONS):
                    continue
                self.assertEqual(late, [])
        print(f"{watched} lines, {rounds} rounds of pairs", file=sys.stderr)
        self.assertGreater(watched, 100)
        self.assertGreater(rounds, 100000)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
