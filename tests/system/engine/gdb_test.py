#!/usr/bin/env python3
"""tools/gdb/engine.py in a debugger's session, on a program that faults under the engine.

gdb_test.py PROGRAMS [EMULATOR...]   PROGRAMS is the folder of mora_run; the debugger meets the emulator's stub
"""
import os
import re
import shutil
import subprocess
import sys
import tempfile
import time
import unittest

TOP = os.path.realpath(os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../.."))
PROGRAMS, *EMULATOR = sys.argv[1:]
COMMAND = [f"{PROGRAMS}/mora_run", f"{PROGRAMS}/signals/crash", "access"]
DEBUGGER = shutil.which("gdb-multiarch") or "gdb"


def debug(*commands):
    """Runs a session that begins at the fault. Returns (output of the debugger, standard error of the process)."""
    with tempfile.TemporaryDirectory() as scratch:
        stub, errors = f"{scratch}/stub", f"{scratch}/errors"
        debugger = [DEBUGGER, "-nx", "-batch", "-ex", "set sysroot", "-ex", f"file {COMMAND[0]}",
                    "-ex", f"source {TOP}/tools/gdb/engine.py", "-ex", "handle SIGILL nostop noprint pass"]
        with open(errors, "w", encoding="utf-8") as error_file:
            emulator = None
            if EMULATOR:
                emulator = subprocess.Popen([*EMULATOR, "-g", stub, *COMMAND], stdout=subprocess.DEVNULL,
                                            stderr=error_file)
                deadline = time.monotonic() + 60
                while not os.path.exists(stub) and time.monotonic() < deadline:
                    time.sleep(0.05)
                debugger += ["-ex", f"target remote {stub}", "-ex", "continue"]
            else:
                debugger += ["-ex", f"run {' '.join(COMMAND[1:])} > /dev/null 2> {errors}"]
            try:
                for command in (*commands, "kill"):
                    debugger += ["-ex", command]
                output = subprocess.run(debugger, capture_output=True, text=True, timeout=120, check=False)
            finally:
                if emulator:
                    emulator.kill()
                    emulator.wait()
        with open(errors, encoding="utf-8") as error_file:
            return output.stdout + output.stderr, error_file.read()


class Session(unittest.TestCase):
    def test_where_am_i_names_fragment_source_address_file_and_function(self):
        output, _ = debug("where-am-i")
        self.assertRegex(output, r"fragment \d+ at 0x[0-9a-f]+, of source 0x[0-9a-f]+, /.*/signals/crash\+0x[0-9a-f]+, "
                                 r"store_to_nowhere\+0x[0-9a-f]+\n")

    def test_where_am_i_takes_an_expression_and_knows_source_addresses(self):
        output, _ = debug("where-am-i $x30")  # The function's caller.
        self.assertRegex(output, r"\n0x[0-9a-f]+, /.*/signals/crash\+0x[0-9a-f]+, main\+0x[0-9a-f]+\n")

    def test_an_address_that_is_not_mapped_is_nowhere(self):
        output, _ = debug("where-am-i 16")
        self.assertIn("\n0x10, nowhere\n", output)

    def test_dump_fragment_shows_the_code_at_the_place(self):
        output, errors = debug("where-am-i", "dump-fragment")
        fragment, place = re.search(r"fragment (\d+) at (0x[0-9a-f]+)", output).groups()
        self.assertRegex(errors, rf"fragment {fragment}: source 0x[0-9a-f]+")
        self.assertRegex(errors, rf" {place} [0-9a-f]{{8}} str .* \| 0x[0-9a-f]+ [0-9a-f]{{8}} str")

    def test_dump_fragment_refuses_what_lies_in_no_cache(self):
        output, errors = debug("dump-fragment $x30")
        self.assertRegex(output, r"\n0x[0-9a-f]+, /.*/signals/crash\+0x[0-9a-f]+\n")
        self.assertNotIn("fragment_dump", errors)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
