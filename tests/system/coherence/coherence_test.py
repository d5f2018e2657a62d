#!/usr/bin/python3
"""The engine on a processor whose instruction cache is not coherent with its data cache.

coherence_test.py BUILD PLUGIN NM OBJCOPY [LISTS|PLACES OBJDUMP ADDR2LINE]

Without a further word, a short list; LISTS, the engine's lists; PLACES, an engine for each function that writes code,
which leaves what that function writes as it is.
Status 77, which is a skipped test, where there is no emulator whose plug-ins can read registers.

A word that the engine has written must be made executable step by step before it is executed (see
../../emulator_plugin/README.md). The tests also run engines that leave out a step, and fail if the plug-in does not
report them.
"""
import collections
import os
import sys
import tempfile
import unittest

import machine
from machine import Engines, Line, Machine

BUILD, PLUGIN, NM, OBJCOPY = sys.argv[1:5]
KIND = sys.argv[5] if len(sys.argv) > 5 else "Coherence"
PROGRAM = os.path.join(BUILD, "tests/programs/mora_run")

SKIPPED = 77  # What CTest takes for a skipped test.
STUBS_END = 6 * 256  # The stubs of a new thread's cache are the only words that another thread writes.

# The step that a program leaves out, and the plug-in's name for the fault. If a line is invalidated before its clean is
# complete, the plug-in takes it as not invalidated.
KNOWN_FAULTS = {"none": None, "clean": "not_cleaned", "first_barrier": "not_invalidated",
                "invalidation": "not_invalidated", "second_barrier": "no_barrier_behind_invalidation",
                "synchronisation": "not_synchronised", "forked": None}
# A loop whose start makes some 2,000 blocks. Each visit that writes has two barriers. Few visits write nothing new, and
# a block and the link to it would be two passes if each had its own.
BLOCKS_OF_LOOP = 2000
MOST_BARRIERS = 3

# These programs store a word 200 times. Now and then an interrupt synchronises the context, and no fault is seen.
FEWEST_FAULTS = 300


def unsound(run):
    """Faults that an engine must not have. Words of a new thread's stubs are foreign: its parent has written them."""
    return {kind: fault for kind, fault in run.faults.items()
            if kind != "foreign" or fault.address >= STUBS_END}


def known_transitions():
    """{(part, old class, new class): why}"""
    pairs = (line.split("|") for line in machine.read_list("transitions.txt"))
    return {tuple(words.split()): why for words, why in pairs}


def unknown_transitions(run):
    """Changes of words that nothing in the engine is known to make: of stubs all, else of single words."""
    known = known_transitions()
    return {kind: count for kind, count in run.transitions.items()
            if kind[0] == "stubs" or (kind[1] == "patched" and (kind[0], *kind[2:]) not in known)}


class Coherence(unittest.TestCase):
    """One boot of the machine runs all lines. The tests look at its account line by line."""
    maxDiff = None

    @classmethod
    def setUpClass(cls):
        with tempfile.TemporaryDirectory() as folder:
            programs = {step: Line("-", f"/build/tests/emulator_plugin/unclean_code {step}") for step in KNOWN_FAULTS}
            engines = Engines(PROGRAM, folder, NM, OBJCOPY)
            engine = engines.with_all_steps()
            sound = [Line(engine, command) for command in machine.read_list("short.txt")]
            mutants = {step: Line(engines.without_step(step), "$RUN $PROGRAMS/hazards/branch_shapes")
                       for step in machine.STEPS}
            loop = Line(engine, f"$RUN /build/bench/engine_loops memory 100")
            lines = [*programs.values(), loop, *sound, *mutants.values()]
            runs = iter(Machine(BUILD, PLUGIN, folder).run(lines))
            cls.programs = {step: next(runs) for step in programs}
            cls.loop = next(runs)
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

    def test_words_change_in_known_ways_alone(self):
        seen = collections.Counter()
        for run in self.sound:
            self.assertEqual(unknown_transitions(run), {}, run.text())
            seen.update((kind[0], *kind[2:]) for kind in run.transitions if kind[1] == "patched")
        # Which exits a timer finds is by chance; that it finds some is not.
        self.assertGreater(seen.keys(), {("blocks", "nop", "b"), ("blocks", "push", "b"), ("traces", "nop", "b")})
        self.assertTrue([kind for kind in seen if kind[2] == "trap"])

    def test_each_known_way_is_in_the_document_of_the_engine(self):
        with open(os.path.join(machine.SOURCE, "docs/engine.md"), encoding="utf-8") as file:
            section = file.read().split("### Words that change\n")[1].split("\n#")[0]
        rows = {line.split("|")[1].strip() for line in section.splitlines() if line.startswith("| ")}
        self.assertLessEqual(set(known_transitions().values()), rows)

    def test_a_program_that_changes_words_in_another_way_is_found(self):
        run = self.programs["none"]
        self.assertEqual(list(unknown_transitions(run)), [("stubs", "patched", "other", "other")])

    def test_a_visit_is_maintained_in_one_pass(self):
        run = self.loop
        self.assertEqual(run.status, 0)
        self.assertGreater(run.counts["barriers"], 2 * BLOCKS_OF_LOOP)
        self.assertLess(run.counts["barriers"], MOST_BARRIERS * BLOCKS_OF_LOOP)

    def test_an_engine_that_leaves_out_a_step_is_found(self):
        for step, run in self.mutants.items():
            with self.subTest(step=step):
                self.assertEqual(run.status, 0, "the emulator itself forgives it")
                self.assertGreater(run.faults[KNOWN_FAULTS[step]].count, FEWEST_FAULTS)


class Lists(unittest.TestCase):
    """The lists of ../engine, each program once or in few rounds."""

    NAMES = ("hazards", "traces", "syscalls", "threads", "threads_stress", "signals_stress", "timed_traces_stress")

    def test_the_engine_makes_executable_what_it_has_written_in_all_lists(self):
        with tempfile.TemporaryDirectory() as folder:
            engine = Engines(PROGRAM, folder, NM, OBJCOPY).with_all_steps()
            for name in self.NAMES:
                lines = [Line(engine, command) for command in machine.read_list(f"{name}.txt", "engine")]
                for run in Machine(BUILD, PLUGIN, folder, seconds=7200).run(lines):
                    with self.subTest(command=run.line.command):
                        self.assertGreater(run.counts["checks"], 300)
                        self.assertEqual(unsound(run), {})
                        self.assertEqual(unknown_transitions(run), {})


class Places(unittest.TestCase):
    """An engine for each function."""

    def test_each_place_that_leaves_its_words_as_they_are_is_found(self):
        objdump, addr2line = sys.argv[6:8]
        sites = machine.call_sites(PROGRAM, objdump, addr2line)
        commands = dict(line.split("|", 1) for line in machine.read_list("places.txt"))
        self.assertEqual(sorted(sites), sorted(commands), "places.txt has a line for each")
        with tempfile.TemporaryDirectory() as folder:
            engines = Engines(PROGRAM, folder, NM, OBJCOPY)
            lines = {function: Line(engines.without_place(function, sites[function]), command)
                     for function, command in commands.items() if not command.startswith("- ")}
            runs = Machine(BUILD, PLUGIN, folder).run(list(lines.values()))
            for function, run in zip(lines, runs):
                with self.subTest(function=function):
                    self.assertEqual(run.status, 0, "the emulator itself forgives it")
                    self.assertIn("not_cleaned", unsound(run))


if __name__ == "__main__":
    if not machine.has_emulator():
        sys.exit(SKIPPED)
    unittest.main(argv=sys.argv[:1], defaultTest=KIND.capitalize(), verbosity=2)
