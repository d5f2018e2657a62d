#!/usr/bin/python3
"""Tests the line that says how far the roofs are: it appears on a terminal and nowhere else.

roofs_progress_test.py TOOL

TOOL is the tool with short roofs.
"""
import os
import pty
import re
import subprocess
import sys
import tempfile
import unittest

command = sys.argv[1:]
del sys.argv[1:]
SECONDS = 300  # A run that takes longer hangs.
# The sequence that clears the line, the text, and a return of the cursor to the start.
SHOWN = re.compile(r"\r\x1b\[K(?:(CEILMETER: [^\r]*)\r)?")
ROOF = re.compile(r"CEILMETER: roof (\d+) of 13, (\S.*), about \d+ s left")


class roofs_progress_test(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = folder.name

    def measure(self, terminal_as_error):
        """Runs the tool with standard error on a terminal or a pipe. Returns both outputs."""
        own, other = pty.openpty() if terminal_as_error else os.pipe()
        with subprocess.Popen([*command, "--phase=benchmarks", "--benchmarks_num_threads=1", "-o",
                               os.path.join(self.folder, "r.json")], stdout=subprocess.PIPE, stderr=other,
                              cwd=self.folder, stdin=subprocess.DEVNULL,
                              env={**os.environ, "TERM": "xterm"}) as process:
            os.close(other)
            seen = b""
            while True:
                try:
                    piece = os.read(own, 4096)
                except OSError:  # The other end of the terminal is closed.
                    break
                if not piece:
                    break
                seen += piece
            os.close(own)
            out = process.communicate(timeout=SECONDS)[0].decode()
        self.assertEqual(process.returncode, 0, seen)
        return out, seen.decode()

    def test_terminal_shows_each_roof_and_the_last_step_and_then_nothing(self):
        out, seen = self.measure(True)
        self.assertEqual(SHOWN.sub("", seen), "", "nothing but the line is on the terminal")
        shown = SHOWN.findall(seen)
        roofs = [match for match in map(ROOF.fullmatch, shown) if match]
        self.assertEqual([int(match[1]) for match in roofs], list(range(1, 14)))
        self.assertEqual((roofs[0][2], roofs[12][2]), ("f16x8-FADD/FSUB", "DDR Numa-local"))
        self.assertEqual(shown[-2:], ["CEILMETER: writing the result", ""])
        self.assertEqual(out, self.measure(False)[0], "standard output is the same")

    def test_nothing_is_shown_where_standard_error_is_no_terminal(self):
        out, seen = self.measure(False)
        self.assertEqual(seen, "")
        self.assertEqual(len(out.splitlines()), 5)


if __name__ == "__main__":
    unittest.main(verbosity=2)
