#!/usr/bin/python3
"""The engine on a processor whose instruction cache is not coherent with its data cache.

coherence_test.py [--long] BUILD PLUGIN NM    --long runs the engine's lists, and an engine for each place in its code
                                              that leaves its words as they are

No word that the engine has written may be executed before it was made executable step by step (see
../../emulator_plugin/README.md). Engines that leave out a step have to be found: a check that cannot fail shows
nothing.
"""
import os
import sys
import tempfile
import unittest

import machine
from machine import ENGINE, Line, Machine, NO_LIBRARIES

LONG = "--long" in sys.argv
BUILD, PLUGIN, NM = [word for word in sys.argv[1:] if word != "--long"]

STUBS_END = 6 * 256  # The stubs of a new thread's cache are the only words that another thread writes.

# What a program does that leaves out a step, and what the plug-in calls it. A line that is invalidated before its clean
# is complete has not been invalidated.
KNOWN_FAULTS = {"none": None, "clean": "not_cleaned", "first_barrier": "not_invalidated",
                "invalidation": "not_invalidated", "second_barrier": "no_barrier_behind_invalidation",
                "synchronisation": "not_synchronised", "forked": None}
# A word is stored 200 times by these; an interrupt may synchronise the context now and then.
FEWEST_FAULTS = 300


def unsound(run):
    """The faults of a run that ought to have none: all but words of stubs, which the new thread's parent writes."""
    return {kind: fault for kind, fault in run.faults.items()
            if kind != "foreign" or fault.address >= STUBS_END}


class Coherence(unittest.TestCase):
    """One machine runs everything; its account is looked at line by line."""
    maxDiff = None

    @classmethod
    def setUpClass(cls):
        with tempfile.TemporaryDirectory() as folder:
            programs = {step: Line("-", NO_LIBRARIES, f"/build/tests/emulator_plugin/unclean_code {step}")
                        for step in KNOWN_FAULTS}
            libraries = machine.libraries(machine.ALL_STEPS, folder, NM)
            sound = [Line(ENGINE, libraries, command) for command in machine.read_list("short.txt")]
            mutants = {step: Line(ENGINE, machine.libraries(step, folder, NM),
                                  "$RUN $PROGRAMS/hazards/branch_shapes") for step in machine.STEPS}
            lines = [*programs.values(), *sound, *mutants.values()]
            runs = iter(Machine(BUILD, PLUGIN, folder).run(lines))
            cls.programs = {step: next(runs) for step in programs}
            cls.sound = [next(runs) for _ in sound]
            cls.mutants = {step: next(runs) for step in mutants}

    def test_each_step_that_a_program_leaves_out_is_told(self):
        for step, kind in KNOWN_FAULTS.items():
            run = self.programs[step]
            with self.subTest(step=step):
                self.assertEqual(run.status, 0)
                self.assertEqual(run.counts["checks"], 400)
                self.assertEqual(run.counts["cleans"], 0 if step == "clean" else 400)
                self.assertEqual(run.counts["invalidations"], 0 if step == "invalidation" else 400)
                self.assertEqual(list(run.faults), [] if kind is None else [kind])
                if kind is not None:
                    self.assertGreater(run.faults[kind].count, FEWEST_FAULTS)

    def test_the_engine_makes_executable_what_it_has_written(self):
        for run in self.sound:
            with self.subTest(command=run.line.command):
                self.assertEqual(run.status, 0)
                self.assertGreater(run.counts["caches"], 0)
                self.assertGreater(run.counts["checks"], 300)
                self.assertEqual(unsound(run), {})

    def test_stubs_keep_their_words(self):
        for run in self.sound:
            self.assertFalse([words for words in run.transitions if words[0] == "stubs"], run.text())

    def test_an_engine_that_leaves_out_a_step_is_found(self):
        for step, run in self.mutants.items():
            with self.subTest(step=step):
                self.assertEqual(run.status, 0, "the emulator itself forgives it")
                self.assertGreater(run.faults[KNOWN_FAULTS[step]].count, FEWEST_FAULTS)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
