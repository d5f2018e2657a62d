#!/usr/bin/python3
"""compare_traced_test.py WITHOUT_TOOL_LINES: compare_traced.py finds what a wrong tool does, with tools made up here.

It runs on AArch64, or where binfmt_misc hands AArch64 programs to an emulator.
"""
import json
import pathlib
import shutil
import signal
import subprocess
import sys
import tempfile
import unittest

KEYS = ["start", "end", "dump_start", "dump_end", "flop", "count", "vector_length", "module"]
TOOL = """#!/bin/sh
# --phase=bintracer -o FILE -- PROGRAM...
file=$(echo "$3" | sed "s/%p/$$/")
shift 4
echo "CEILMETER: Start collection for $1"
{before}
"$@"
status=$?
{after}
exit $status
"""


def result(flop=4, count=4):
    blocks = [["0", "4", "0", "4", 1, count, 1, "module"]]
    return json.dumps({"regions": {"total": {"flop": flop, "bbs": blocks}}, "bb_keys": KEYS})


def writes(text):
    return f"echo '{text}' > $file; echo 'CEILMETER: Result is captured at $file'"


class Comparison(unittest.TestCase):
    def setUp(self):
        self.folder = pathlib.Path(tempfile.mkdtemp())
        self.addCleanup(shutil.rmtree, self.folder)
        programs = self.folder / "tests/programs/tracer"
        programs.mkdir(parents=True)
        shutil.copy(sys.argv[1], programs / "without_tool_lines")

    def compare(self, line, before="", after=writes(result()), options=()):
        tool = self.folder / "tool"
        tool.write_text(TOOL.format(before=before, after=after), encoding="utf-8")
        tool.chmod(0o755)
        lines = self.folder / "lines.txt"
        lines.write_text(line + "\n", encoding="utf-8")
        script = pathlib.Path(__file__).parent / "compare_traced.py"
        run = subprocess.run([sys.executable, str(script), *options, str(tool), str(lines)], capture_output=True,
                             text=True, timeout=120, check=False)
        self.assertIn(run.returncode, (0, 1), run)
        return "" if run.returncode == 0 else run.stdout

    def test_a_tool_that_keeps_everything_passes(self):
        self.assertEqual(self.compare("$RUN /bin/echo one; $RUN /bin/echo two"), "")
        self.assertEqual(self.compare("$RUN /bin/sh -c 'exit 3'; echo $?"), "")

    def test_another_output_differs(self):
        self.assertIn(": output", self.compare("$RUN /bin/echo one", before="echo more"))

    def test_another_error_output_differs(self):
        self.assertIn(": error output", self.compare("$RUN /bin/echo one", before="echo more >&2"))

    def test_another_status_differs(self):
        self.assertIn(": status", self.compare("$RUN /bin/echo one", after=writes(result()) + "; status=9"))

    def test_a_missing_result_is_found(self):
        self.assertIn("no result of one", self.compare("$RUN /bin/echo one", after=":"))

    def test_a_program_that_replaces_itself_needs_no_result(self):
        self.assertEqual(self.compare("export REPLACES_ITSELF=1; $RUN /bin/echo one", after=":"), "")

    def test_a_result_that_is_no_json_is_found(self):
        self.assertIn("JSONDecodeError", self.compare("$RUN /bin/echo one", after=writes("{")))

    def test_operations_other_than_the_sum_are_found(self):
        self.assertIn("the sum over the blocks", self.compare("$RUN /bin/echo one", after=writes(result(flop=5))))

    def test_a_block_that_never_ran_is_found(self):
        found = self.compare("$RUN /bin/echo one", after=writes(result(flop=0, count=0)))
        self.assertIn("a block with work has a count", found)

    def test_a_line_that_traces_nothing_is_found(self):
        self.assertIn("nothing was traced", self.compare("/bin/echo one"))

    def test_a_line_that_fails_natively_is_found_where_lines_have_to_succeed(self):
        self.assertEqual(self.compare("$RUN /bin/false"), "")
        self.assertIn("it fails natively", self.compare("$RUN /bin/false", options=["--succeed"]))


class Relay(unittest.TestCase):
    def start(self, script):
        program = subprocess.Popen([sys.argv[1], "/bin/sh", "-c", script], stdout=subprocess.PIPE)
        self.addCleanup(program.stdout.close)
        self.assertEqual(program.stdout.readline(), b"ready\n")
        return program

    def test_a_signal_reaches_the_program(self):
        program = self.start("trap 'echo caught; exit 4' TERM; echo ready; while :; do sleep 0.1; done")
        program.terminate()
        self.assertEqual(program.stdout.read(), b"caught\n")
        self.assertEqual(program.wait(60), 4)

    def test_a_program_that_a_signal_ends_is_told_as_such(self):
        program = self.start("echo ready; sleep 600 & wait")
        program.terminate()
        self.assertEqual(program.wait(60), -signal.SIGTERM)

    def test_only_lines_of_the_tool_are_left_out(self):
        text = "ready\\nCECEILMETER: Start collection for x\\nCEILMETER: else\\nend CEILMETER: Result is captured at f"
        program = self.start(f"printf '{text}\\nCEIL'")
        self.assertEqual(program.stdout.read(), b"CECEILMETER: else\nend CEIL")
        self.assertEqual(program.wait(60), 0)

    def test_both_outputs_in_one_file_keep_their_order(self):
        run = subprocess.run([sys.argv[1], "/bin/sh", "-c", "for i in 1 2 3; do echo o; echo e >&2; done"],
                             stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=60, check=False)
        self.assertEqual(run.stdout, b"o\ne\n" * 3)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
