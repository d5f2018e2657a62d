#!/usr/bin/python3
"""The plug-in counts exactly: programs whose counts are known, instruction by instruction.

counting_test.py EMULATOR PLUGIN PROGRAMS NM    PROGRAMS is the folder of the built programs.
"""
import os
import subprocess
import sys
import tempfile
import unittest

EMULATOR, PLUGIN, PROGRAMS, NM = sys.argv[1:5]


def symbols(program):
    lines = subprocess.run([NM, program], check=True, capture_output=True, text=True).stdout.splitlines()
    return {line.split()[2]: int(line.split()[0], 16) for line in lines if len(line.split()) == 3}


class Counts:
    """One run under the plug-in, and the files that it has left."""

    def __init__(self, program, *options):
        with tempfile.TemporaryDirectory() as folder:
            files = {name: os.path.join(folder, name) for name in ("summary", "words", "addresses")}
            argument = ",".join([PLUGIN, *(f"{name}={path}" for name, path in files.items()), *options])
            run = subprocess.run([EMULATOR, "-plugin", argument, program], timeout=120, capture_output=True, text=True)
            if run.returncode != 0:
                raise AssertionError(f"{program} {options}: status {run.returncode}: {run.stderr}")
            self.folder = sorted(os.listdir(folder))
            self.children = {}
            for name in self.folder:
                if name.startswith("summary."):
                    self.children[name] = self.summary_of(os.path.join(folder, name))
            self.summary = self.summary_of(files["summary"])
            with open(files["words"], encoding="utf-8") as file:
                self.words = {int(line.split()[0], 16): int(line.split()[1]) for line in file}
            with open(files["addresses"], encoding="utf-8") as file:
                lines = [line.split() for line in file]
            self.maps = [line[4] for line in lines if line[0] == "map"]
            self.caches = [(int(line[1], 16), int(line[2], 16)) for line in lines if line[0] == "cache"]
            self.addresses = {
                (int(line[0], 16), int(line[1], 16), line[2]): int(line[3]) for line in lines if len(line) == 4
            }

    @staticmethod
    def summary_of(path):
        with open(path, encoding="utf-8") as file:
            return {" ".join(line.split()[:-1]): int(line.split()[-1]) for line in file}


class InstructionCounts(unittest.TestCase):
    maxDiff = None

    def test_counts_every_instruction_of_a_loop(self):
        counts = Counts(f"{PROGRAMS}/counted_loop")
        self.assertEqual(counts.summary["total"], 2003)
        self.assertEqual(counts.summary["other"], 2003)

    def test_histogram_has_each_word_with_its_count(self):
        counts = Counts(f"{PROGRAMS}/counted_loop")
        self.assertEqual(
            counts.words, {0xD2807D00: 1, 0xF1000400: 1000, 0x54FFFFE1: 1000, 0xD2800BC8: 1, 0xD4000001: 1}
        )

    def test_addresses_tell_where_each_word_ran(self):
        program = f"{PROGRAMS}/counted_loop"
        start = symbols(program)["_start"]
        counts = Counts(program)
        self.assertEqual(
            counts.addresses,
            {
                (start, 0xD2807D00, "other"): 1,
                (start + 4, 0xF1000400, "other"): 1000,
                (start + 8, 0x54FFFFE1, "other"): 1000,
                (start + 12, 0xD2800BC8, "other"): 1,
                (start + 16, 0xD4000001, "other"): 1,
            },
        )

    def test_maps_name_the_programs_own_files_only(self):
        program = f"{PROGRAMS}/counted_loop"
        self.assertEqual({os.path.realpath(path) for path in Counts(program).maps}, {os.path.realpath(program)})

    def test_code_caches_are_told_by_their_size_and_their_stubs_by_their_length(self):
        counts = Counts(f"{PROGRAMS}/code_caches", "stubs=256")
        expected = {"cache": 3 * 202, "stubs": 5, "caches": 1, "start": 42 + 5}
        self.assertEqual({name: counts.summary[name] for name in expected}, expected)
        self.assertEqual(sum(counts.summary[name] for name in ("other", "cache", "stubs")), counts.summary["total"])

    def test_caches_are_listed_with_the_addresses_of_what_ran_in_them(self):
        counts = Counts(f"{PROGRAMS}/code_caches", "stubs=256")
        ((start, end),) = counts.caches
        self.assertEqual(end - start, 0x1000000)
        self.assertIn((start, 0xD65F03C0, "stubs"), counts.addresses)
        self.assertIn((start + 0x100, 0xD2800C80, "cache"), counts.addresses)

    def test_without_a_length_of_stubs_all_of_a_cache_counts_as_cache(self):
        counts = Counts(f"{PROGRAMS}/code_caches")
        self.assertEqual((counts.summary["cache"], counts.summary["stubs"]), (3 * 202 + 5, 0))

    def test_code_at_the_place_of_an_unmapped_cache_is_other_code(self):
        counts = Counts(f"{PROGRAMS}/code_caches", "stubs=256")
        rets = [(kind, count) for (_, word, kind), count in counts.addresses.items() if word == 0xD65F03C0]
        self.assertEqual(sorted(rets), [("cache", 3), ("other", 7), ("stubs", 5)])

    def test_a_fault_in_a_block_leaves_the_rest_of_the_block_uncounted_until_it_runs(self):
        program = f"{PROGRAMS}/fault_in_block"
        place = symbols(program)["counted_begin"]
        counts = Counts(program)
        self.assertEqual(
            [sum(n for (at, _, _), n in counts.addresses.items() if at == place + 4 * i) for i in range(5)], [10] * 5
        )

    def test_taken_branches_are_counted_by_the_kind_of_code_that_they_leave(self):
        # A loop's last round falls through. Other code enters the caches (5 + 3), goes back to its loops (4 + 2 + 6),
        # and calls what stands at the old place (7), which comes back (7).
        self.assertEqual(Counts(f"{PROGRAMS}/counted_loop", "branches=on").summary["taken other"], 999)
        counts = Counts(f"{PROGRAMS}/code_caches", "stubs=256", "branches=on")
        self.assertEqual({name: counts.summary[f"taken {name}"] for name in ("other", "cache", "stubs")},
                         {"other": 5 + 3 + 4 + 2 + 6 + 7 + 7, "cache": 3 * (99 + 1), "stubs": 5})

    def test_taken_branches_are_not_told_unless_asked_for(self):
        self.assertFalse([key for key in Counts(f"{PROGRAMS}/counted_loop").summary if key.startswith("taken")])

    def test_ranges_and_watched_addresses_are_counted_by_themselves_and_limit_the_lists(self):
        program = f"{PROGRAMS}/fault_in_block"
        known = symbols(program)
        begin, end = known["counted_begin"], known["counted_end"]
        counts = Counts(program, f"range={begin:#x}-{end:#x}", f"at={end:#x}")
        self.assertEqual(counts.summary[f"range {begin:#x} {end:#x}"], 50)
        self.assertEqual(counts.summary[f"at {end:#x}"], 1)
        self.assertEqual(sum(counts.words.values()), 50)
        self.assertEqual(sum(counts.addresses.values()), 50)

    def test_a_forked_child_leaves_files_of_its_own(self):
        counts = Counts(f"{PROGRAMS}/forked_counts")
        self.assertEqual(counts.summary["total"], 9 + 6 + 3)
        self.assertEqual([child["total"] for child in counts.children.values()], [9 + 3])

    def test_threads_that_run_at_once_lose_no_count(self):
        program = f"{PROGRAMS}/threads_count"
        known = symbols(program)
        begin, end = known["counted_begin"], known["counted_end"]
        counts = Counts(program, "threads=on", f"range={begin:#x}-{end:#x}")
        self.assertEqual(counts.summary[f"range {begin:#x} {end:#x}"], 4 * (2 * 100000 + 1))

    def test_an_unknown_option_and_no_output_file_are_refused(self):
        for argument in (f"{PLUGIN},words=/dev/null,color=red", PLUGIN):
            run = subprocess.run([EMULATOR, "-plugin", argument, f"{PROGRAMS}/counted_loop"], timeout=120,
                                 capture_output=True, text=True)
            self.assertNotEqual(run.returncode, 0)
            self.assertIn("instruction_counts: ", run.stderr)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
