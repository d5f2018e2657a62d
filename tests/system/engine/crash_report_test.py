#!/usr/bin/env python3
"""What the engine tells of a fault that ends the application.

crash_report_test.py PROGRAMS [EMULATOR...]   PROGRAMS is the folder of mora_run; the emulator runs both sides
"""
import os
import re
import signal
import subprocess
import sys
import unittest

TOOLS = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../../tools")
sys.path.insert(0, f"{TOOLS}/gdb")
import elf_symbols  # noqa: E402

PROGRAMS, *EMULATOR = sys.argv[1:]
CRASH = f"{PROGRAMS}/signals/crash"
WAYS = ("access", "jump", "trap", "sent", "ignored", "after_handler")


def run(command, **settings):
    done = subprocess.run([*EMULATOR, *command], capture_output=True, text=True, timeout=120, check=False,
                          env=os.environ | settings)
    return done.returncode, done.stdout, [line for line in done.stderr.splitlines() if "MORA" in line]


def traced(way, **settings):
    return run([f"{PROGRAMS}/mora_run", CRASH, way], **settings)


class CrashReport(unittest.TestCase):
    def test_at_the_usual_level_nothing_is_told_and_the_end_is_the_native_one(self):
        for way in WAYS:
            with self.subTest(way=way):
                self.assertEqual(traced(way), run([CRASH, way]))

    def test_at_level_info_the_end_and_the_output_are_the_native_ones_too(self):
        for way in WAYS:
            with self.subTest(way=way):
                self.assertEqual(traced(way, MORA_BI_LOG_LEVEL="info")[:2], run([CRASH, way])[:2])

    def test_at_level_info_a_fault_names_signal_place_source_module_and_fragment_and_shows_the_code(self):
        status, _, lines = traced("access", MORA_BI_LOG_LEVEL="info")
        self.assertEqual(status, -signal.SIGSEGV)
        text = "\n".join(lines)
        place = re.search(r"signal 11, SIGSEGV \(code \d+, address 0x10\) at pc (0x[0-9a-f]+), ", text)
        self.assertIsNotNone(place, text)
        told = re.search(r"it ends the application in fragment (\d+) at (0x[0-9a-f]+), of source (0x[0-9a-f]+), "
                         r"(\S+)\+(0x[0-9a-f]+)$", text, re.MULTILINE)
        self.assertIsNotNone(told, text)
        fragment, cache, source, module, offset = told.groups()
        self.assertEqual(cache, place[1])
        self.assertEqual(os.path.realpath(module), os.path.realpath(CRASH))
        self.assertEqual(elf_symbols.function_at(CRASH, int(offset, 16))[0], "store_to_nowhere")
        self.assertRegex(text, rf"fragment {fragment}: source 0x[0-9a-f]+, \d+ words seen")
        # The line of the dump shows the word that has faulted, and the source word beside it.
        self.assertRegex(text, rf" {cache} [0-9a-f]{{8}} str .*\| {source} [0-9a-f]{{8}} str")

    def test_a_jump_to_where_nothing_is_names_the_place(self):
        _, _, lines = traced("jump", MORA_BI_LOG_LEVEL="info")
        self.assertRegex("\n".join(lines), r"of source 0x10, nowhere")

    def test_a_signal_that_was_sent_is_no_fault_and_is_not_told(self):
        _, _, lines = traced("sent", MORA_BI_LOG_LEVEL="info")
        self.assertNotIn("it ends the application", "\n".join(lines))

    def test_a_spoilt_trace_is_told_with_its_code(self):
        status, _, lines = run([f"{PROGRAMS}/mora_run", f"{PROGRAMS}/traces/bare_phases"], MORA_BI_LOG_LEVEL="info",
                               MORA_RUN_BREAK_TRACE="3")
        text = "\n".join(lines)
        self.assertEqual(status, -signal.SIGTRAP, text)
        fragment = re.search(r"signal 5, SIGTRAP .*\n"
                             r".*it ends the application in fragment (\d+) at (0x[0-9a-f]+), ", text)
        self.assertIsNotNone(fragment, text)
        self.assertGreaterEqual(int(fragment[1]), 55000, "the indices of traces begin here")
        self.assertRegex(text, fragment[2] + " d4200000 brk")

    def test_the_dumped_code_is_shown_with_operands_by_a_disassembler(self):
        _, _, lines = traced("access", MORA_BI_LOG_LEVEL="info")
        done = subprocess.run([sys.executable, f"{TOOLS}/disassemble_dump"], input="\n".join(lines) + "\n",
                              capture_output=True, text=True, timeout=60, check=True)
        shown = done.stdout.splitlines()
        self.assertEqual(len(shown), len(lines))
        text = done.stdout
        self.assertRegex(text, r" b9000001 str w1, \[x0\] .*\| 0x[0-9a-f]+ b9000001 str w1, \[x0\]\n")
        # The source's return is an exit of several words in the cache.
        self.assertRegex(text, r" a9bf07e0 stp x0, x1, \[sp, #-16\]! .*\| 0x[0-9a-f]+ d65f03c0 ret\n")
        # A dumped branch names its target, and the fragment that the target lies in.
        branch = re.search(r" [0-9a-f]{8} cbz x1, (0x[0-9a-f]+) (\(\d+\)) ", text)
        self.assertIsNotNone(branch, text)
        self.assertIn(f" {branch[1]} {branch[2]} ", " ".join("\n".join(lines).split()))
        # The tool leaves all other lines as they are.
        same = [[line for line in side if " |" not in line] for side in (lines, shown)]
        self.assertEqual(*same)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
