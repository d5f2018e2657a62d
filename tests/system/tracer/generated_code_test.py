#!/usr/bin/python3
"""Tests the blocks of generated code in the result: their work, their counts and their names.

generated_code_test.py TOOL PROGRAM EMULATOR...
"""
import json
import os
import subprocess
import sys
import tempfile
import unittest

TOOL, PROGRAM = sys.argv[1:3]
EMULATOR = sys.argv[3:]


class GeneratedCode(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        holder = tempfile.TemporaryDirectory()
        self.addCleanup(holder.cleanup)
        self.result = os.path.join(holder.name, "result.json")

    def traced(self, *arguments, settings=()):
        """The addresses that the program prints, and the blocks that lie there."""
        emulator = [*EMULATOR, *(word for setting in settings for word in ("-E", setting))] if EMULATOR else []
        run = subprocess.run([*emulator, TOOL, "--phase=bintracer", "-o", self.result, "--", PROGRAM, *arguments],
                             capture_output=True, text=True, timeout=120, check=False)
        self.assertEqual((run.returncode, run.stderr), (0, ""))
        (line,) = [line for line in run.stdout.splitlines() if not line.startswith("CEILMETER: ")]
        places = [int(word, 16) for word in line.split()]
        with open(self.result, encoding="utf-8") as file:
            region = json.load(file)["regions"]["total"]
        blocks = [[int(value, 16) for value in block[:4]] + block[4:] for block in region["bbs"]]
        self.assertEqual(region["flop"], sum(block[4] * block[5] for block in blocks))
        return places, sorted(block for block in blocks if any(0 <= block[0] - place < 64 for place in places))

    def expected(self, places, names):
        code, twin, again, in_place = places
        blocks = [
            # Version 1, as both of its calls; version 2 up to its loop's branch, its loop, and what both share: no
            # block of the same instructions.
            [code, code + 16, code, code + 16, 6, 1000, 1, names[0]],
            [code, code + 28, code, code + 28, 4, 40, 1, names[0]],
            [code + 16, code + 28, code + 16, code + 28, 1, 40, 1, names[0]],
            [twin, twin + 12, twin, twin + 12, 4, 500, 2, names[1]],
            [again, again + 8, again, again + 8, 1, 200, 1, names[2]],
            # The code is written over twice, and the first version comes back.
            [in_place, in_place + 12, in_place, in_place + 12, 4, 100, 2, "[generated]"],
            [in_place, in_place + 16, in_place, in_place + 16, 6, 30, 1, "[generated]"],
        ]
        return sorted(blocks)

    def test_each_version_of_a_block_is_counted_with_the_instructions_that_it_had(self):
        for settings in ((), ("MORA_BI_TRACES=off",), ("MORA_BI_HOT=3",)):
            with self.subTest(settings=settings):
                places, blocks = self.traced("places", settings=settings)
                self.assertEqual(blocks, self.expected(places, ["[generated]"] * 3))

    def test_blocks_have_the_names_that_the_program_writes_to_its_perf_map(self):
        before = set(os.listdir("/tmp"))
        try:
            places, blocks = self.traced("names")
            self.assertEqual(blocks, self.expected(places, ["sum of products", "[generated]", "a quotient"]))
        finally:
            for name in set(os.listdir("/tmp")) - before:
                path = os.path.join("/tmp", name)
                if name.startswith("perf-") and name.endswith(".map") and self.is_of_this_test(path):
                    os.unlink(path)

    @staticmethod
    def is_of_this_test(path):
        with open(path, encoding="utf-8", errors="replace") as file:
            return "sum of products" in file.read()

    def test_versions_of_a_block_survive_a_later_phase(self):
        places, blocks = self.traced("places")
        with open(self.result, encoding="utf-8") as file:
            first = json.load(file)["regions"]["total"]
        # The counters' phase reads the file back and writes it again with what it has measured.
        subprocess.run([*EMULATOR, TOOL, "--phase=perfmon", "-o", self.result, "--", "/bin/true"],
                       capture_output=True, timeout=120, check=False)
        with open(self.result, encoding="utf-8") as file:
            second = json.load(file)["regions"]["total"]
        self.assertEqual(sorted(second["bbs"]), sorted(first["bbs"]))
        self.assertEqual(second["flop"], first["flop"])
        self.assertEqual(blocks, self.expected(places, ["[generated]"] * 3))


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
