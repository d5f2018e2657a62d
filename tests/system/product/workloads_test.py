#!/usr/bin/python3
"""Runs real applications in both modes, with both phases that run the application. Tests what the user sees, what the
file holds, and what becomes of an earlier result file if the application ends badly.

workloads_test.py BUILD [TEST...]

Applications are those of tests/programs/workloads, and programs of the userland. Set CEILMETER_LONG for the slow ones.
"""
import json
import os
import pty
import re
import signal
import subprocess
import sys
import tempfile
import time
import unittest

from emulated_counters import without_silent_lines, without_silent_metrics

build = sys.argv.pop(1)
tool = os.path.join(build, "ceilmeter")
programs = os.path.join(build, "tests/programs/workloads")
SECONDS = 900  # A run that takes longer hangs.
BOTH = "~benchmarks"  # Both phases that run the application.
METRICS = ["l1_bytes", "l2_bytes", "l3_bytes", "ddr_bytes", "time"]
TOOL_LINE = re.compile(r"^(CEILMETER: .*|ROOFLINE_EVENTS are initialized\.)\n", re.M)
EARLIER = {"regions": {"total": {"flop": 600, "threads": 3, "bbs": [["4000", "4020", "0", "20", 6, 100, 4, "/app"]],
                                 **dict.fromkeys(METRICS, 77)}},
           "bb_keys": ["start", "end", "dump_start", "dump_end", "flop", "count", "vector_length", "module"],
           "threads": 3}


def program(name):
    return os.path.join(programs, name)


class workload(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = folder.name
        self.result = os.path.join(self.folder, "result.json")
        self.environment = {**os.environ, "LC_ALL": "C"}

    def words(self, mode, phase, application):
        return [tool, f"--mode={mode}", f"--phase={phase}", "-o", self.result, "--", *application]

    def run_tool(self, mode, phase, application):
        done = subprocess.run(self.words(mode, phase, application), capture_output=True, text=True, timeout=SECONDS,
                              cwd=self.folder, env=self.environment, stdin=subprocess.DEVNULL, check=False)
        return without_silent_metrics(done)

    def report(self):
        with open(self.result, encoding="utf-8") as file:
            return json.load(file)

    def leave_earlier_file(self):
        with open(self.result, "w", encoding="utf-8") as file:
            json.dump(EARLIER, file)
        with open(self.result, "rb") as file:
            return file.read()

    def content(self):
        with open(self.result, "rb") as file:
            return file.read()

    def collect(self, mode, application, name, status=0):
        """One region of a run of both phases, after the output and the status were compared with a native run."""
        native = subprocess.run(application, capture_output=True, text=True, timeout=SECONDS, cwd=self.folder,
                                env=self.environment, stdin=subprocess.DEVNULL, check=False)
        self.assertEqual((native.stderr, native.returncode), ("", status))
        done = self.run_tool(mode, BOTH, application)
        warned = f"Application exit status is {status}!" if status else ""
        self.assertEqual(bool(done.stderr), bool(warned), done.stderr)
        self.assertIn(warned, done.stderr)
        self.assertEqual(TOOL_LINE.sub("", done.stdout), 2 * native.stdout)
        self.assertEqual(done.returncode, status)
        report = self.report()
        self.assertEqual(list(report["regions"]), [name])
        region = report["regions"][name]
        self.assertEqual(sorted(set(region) & set(METRICS)), sorted(METRICS))
        self.assertGreater(region["time"], 0)
        return region


class applications_test(workload):
    """Applications that run to their end."""

    def check_operations(self, application, name, flop, total_threads, region_threads=None):
        """In region mode the operations are exactly `flop`; the whole application may add some of its own."""
        region = self.collect("region", application, name)
        self.assertEqual(region["flop"], flop)
        if region_threads is not None:
            self.assertEqual(region["threads"], region_threads)
        os.remove(self.result)
        total = self.collect("total", application, "total")
        self.assertGreaterEqual(total["flop"], flop)
        self.assertEqual(total["threads"], total_threads)

    def test_triad_has_two_operations_for_each_element_and_pass(self):
        self.check_operations([program("triad"), "5001", "4"], "triad", 2 * 5001 * 4, 1, 1)

    def test_fourier_transform_has_five_n_log_n_operations(self):
        self.check_operations([program("fft"), "9"], "fft", 2 * 5 * 512 * 9, 1, 1)

    def test_matrix_product_has_2_n_cubed_operations_and_one_more_for_each_element_of_the_result(self):
        # OpenBLAS computes alpha A B. Its kernel begins each element of the product with a multiplication in the place
        # of a multiply-add, one operation less, and ends with a multiply-add of alpha times it, two operations. The
        # call itself compares alpha and beta with 0 and 1, a few times. So it is where n is a multiple of the
        # kernel's tiles; at the edges of others it computes elements that it throws away.
        self.environment |= {"OPENBLAS_NUM_THREADS": "1", "OPENBLAS_CORETYPE": "ARMV8"}
        for n in (32, 64):
            region = self.collect("region", [program("matrix_product"), str(n)], "product")
            calls_own = region["flop"] - 2 * n**3 - n**2
            self.assertIn(calls_own, range(0, 11), f"n {n}: {region['flop']} operations")
            os.remove(self.result)

    def test_threads_that_throw_and_catch_have_their_work_counted_each(self):
        self.check_operations([program("throwing_threads"), "4", "10"], "work", 4 * 10 * 200, 5, 4)

    @unittest.skipUnless(os.path.exists(program("parallel_dot")), "built without a Fortran compiler")
    def test_fortran_loop_of_four_openmp_threads_has_two_operations_for_each_element_and_pass(self):
        self.environment |= {"OMP_NUM_THREADS": "4", "OMP_WAIT_POLICY": "passive"}
        self.check_operations([program("parallel_dot"), "1000", "3"], "dot", 2 * 1000 * 3, 4)

    def test_pipeline_of_processes_gives_the_same_output_and_is_counted_as_one_application(self):
        command = "seq 300 | sort -rn | { read first; echo $first; wc -l; }; exit 4"
        region = self.collect("total", ["/bin/sh", "-c", command], "total", status=4)
        self.assertEqual(region["threads"], 1)

    def test_full_run_of_the_real_tool_ends_with_thirteen_roofs_for_the_applications_threads(self):
        done = self.run_tool("total", "full", [program("triad"), "1000", "1"])
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        report = self.report()
        self.assertEqual([len(report["roofs"]), report["threads"], list(report["roofs_by_num_threads"])],
                         [13, 1, ["1"]])
        self.assertGreaterEqual(report["regions"]["total"]["flop"], 2000)

    @unittest.skipUnless(os.environ.get("CEILMETER_LONG"), "takes minutes")
    def test_numpy_expression_in_python_has_two_operations_for_each_element_and_two_for_its_number(self):
        # Before it multiplies by 3.0 numpy compares it with the limits of half precision, to know its smallest type.
        text = (f"import ctypes, sys\nsys.path.append('/usr/lib/python3/dist-packages')\nimport numpy\n"
                f"marks = ctypes.CDLL('{build}/libroofline_events.so')\nmarks.init_perf_roofline_events()\n"
                "a, b = numpy.arange(10000.0), numpy.ones(10000)\nmarks.start_perf_roofline_events(b'expression')\n"
                "c = 3.0 * a + b\nmarks.stop_perf_roofline_events(b'expression')\n"
                "marks.finalize_perf_roofline_events()\nprint(c[-1])\n")
        self.environment |= {"OPENBLAS_NUM_THREADS": "1", "PYTHONHASHSEED": "0"}
        self.check_operations(["/usr/bin/python3", "-S", "-c", text], "expression", 2 * 10000 + 2, 1, 1)


class endings_test(workload):
    """Applications that end badly or are stopped."""

    def check_stopped_by(self, number, err):
        self.assertRegex(err, f"^[^\n]* +collector:[0-9]+ +MORA warn Stopped by signal {int(number)} "
                              rf"\({signal.strsignal(number)}\): the report holds what was counted before\n$")

    def test_crash_under_the_tracer_is_the_tools_own_end_and_keeps_what_was_counted(self):
        for how, number in (("crash", signal.SIGSEGV), ("abort", signal.SIGABRT)):
            for mode, name in (("total", "total"), ("region", "half")):
                self.leave_earlier_file()
                done = self.run_tool(mode, "bintracer", [program("ends"), how])
                self.assertEqual(done.returncode, -number)
                self.assertIn("half of the work is done\nCEILMETER: Processing all collected data\n", done.stdout)
                self.check_stopped_by(number, done.stderr)
                self.assertGreaterEqual(self.report()["regions"][name]["flop"], 2000)
                if mode == "total":
                    self.assertEqual(self.report()["regions"]["total"]["time"], 77, "the metrics of the earlier file")

    def test_crash_under_the_counters_does_not_stop_the_run_and_its_counters_stay(self):
        self.leave_earlier_file()
        done = self.run_tool("total", "perfmon", [program("ends"), "crash"])
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        self.assertIn(f'CEILMETER: Run "ceilview {self.result}" to get report.\n', done.stdout)
        region = self.report()["regions"]["total"]
        self.assertEqual((region["flop"], region["threads"]), (600, 3))
        self.assertGreater(region["time"], 77)

    def test_crash_in_both_phases_ends_in_the_second_and_keeps_the_counts_of_both(self):
        self.leave_earlier_file()
        done = self.run_tool("total", "full", [program("ends"), "crash"])
        self.assertEqual(done.returncode, -signal.SIGSEGV)
        self.assertEqual(TOOL_LINE.sub("", done.stdout), 2 * "half of the work is done\n")
        self.assertNotIn("benchmarks", done.stdout)
        region = self.report()["regions"]["total"]
        self.assertGreaterEqual(region["flop"], 2000)
        self.assertEqual(region["threads"], 1)
        self.assertGreater(region["time"], 77)

    def test_crash_in_region_mode_before_the_regions_are_written_keeps_those_of_the_earlier_file(self):
        self.leave_earlier_file()
        done = self.run_tool("region", "perfmon", [program("ends"), "crash"])
        self.assertEqual(done.returncode, 0)
        self.assertRegex(done.stderr, r"^[^\n]* MORA warn the application has written no counters: [^\n]*\n$")
        self.assertEqual(self.report(), EARLIER)

    def start(self, phase, how):
        """The tool, started in a process group of its own, when its application has begun an endless loop."""
        process = subprocess.Popen(self.words("total", phase, [program("ends"), how]), stdout=subprocess.PIPE,
                                   stderr=subprocess.PIPE, text=True, cwd=self.folder, start_new_session=True,
                                   stdin=subprocess.DEVNULL)
        self.addCleanup(self.end_group, process)
        seen = ""
        for line in process.stdout:
            seen += line
            if line == "half of the work is done\n":
                return process, seen
        self.fail(f"the tool ended first: {seen}{process.stderr.read()}")
        return None

    @staticmethod
    def end_group(process):
        try:
            os.killpg(process.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        process.communicate()

    @staticmethod
    def children(process):
        with open(f"/proc/{process.pid}/task/{process.pid}/children", encoding="ascii") as file:
            return [int(word) for word in file.read().split()]

    def check_stopped_run(self, process, number):
        """The counters up to then are written, no later phase has begun, and the status is the signal's."""
        rest, err = process.communicate(timeout=SECONDS)
        self.assertEqual(process.returncode, -number)
        self.assertEqual(rest, f"CEILMETER: Processing all collected data\nCEILMETER: Result is captured at "
                               f'{self.result}\nCEILMETER: Run "ceilview {self.result}" to get report.\n')
        self.assertRegex(without_silent_lines(err),
                         f"^[^\n]* +collector:[0-9]+ +MORA warn Stopped by signal {int(number)} "
                         rf"\({signal.strsignal(number)}\): the report holds what was counted before\n$")
        region = self.report()["regions"]["total"]
        self.assertEqual((region["flop"], region["threads"]), (600, 3), "of the earlier file")
        self.assertGreater(region["time"], 77)

    def test_interrupt_from_the_keyboard_under_the_counters_ends_both_and_writes_the_counters(self):
        for phase in ("perfmon", "full"):
            self.leave_earlier_file()
            process, _ = self.start(phase, "never")
            os.killpg(process.pid, signal.SIGINT)
            self.check_stopped_run(process, signal.SIGINT)
            # Both pipes have ended, so no process of the group still holds them.

    def test_interrupt_from_a_real_keyboard_reaches_the_application_once(self):
        self.leave_earlier_file()
        script = 'trap "echo caught; exit 0" INT; echo begun; while :; do sleep 0.1; done'
        pid, terminal = pty.fork()
        if pid == 0:
            os.chdir(self.folder)
            os.execv(tool, self.words("total", "perfmon", ["/bin/sh", "-c", script]))
        seen = b""
        while b"begun" not in seen:
            seen += os.read(terminal, 1000)
        os.write(terminal, b"\x03")
        while True:
            try:
                seen += os.read(terminal, 1000)
            except OSError:  # The pipe's reading end is closed.
                break
        self.assertEqual(os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1]), -signal.SIGINT)
        self.assertEqual(seen.count(b"caught"), 1, seen)
        self.assertIn(b"CEILMETER: Result is captured at ", seen)

    def test_second_interrupt_ends_the_tool_at_once(self):
        before = self.leave_earlier_file()
        process, _ = self.start("perfmon", "on_interrupt")
        process.send_signal(signal.SIGINT)
        self.assertEqual(process.stdout.readline(), "told to go on\n")
        time.sleep(1)
        process.send_signal(signal.SIGINT)
        self.assertEqual(process.wait(timeout=SECONDS), -signal.SIGINT)
        self.assertEqual(self.content(), before)

    def check_stopped_tracer(self, process, number):
        out, err = process.communicate(timeout=SECONDS)
        self.assertEqual(process.returncode, -number)
        self.assertTrue(out.startswith("CEILMETER: Processing all collected data\n"), out)
        self.check_stopped_by(number, err)
        region = self.report()["regions"]["total"]
        self.assertGreaterEqual(region["flop"], 2000)
        self.assertEqual((region["threads"], region["time"]), (1, 77))

    def test_interrupt_from_the_keyboard_under_the_tracer_keeps_what_was_counted(self):
        self.leave_earlier_file()
        process, _ = self.start("bintracer", "never")
        os.killpg(process.pid, signal.SIGINT)
        self.check_stopped_tracer(process, signal.SIGINT)

    def test_termination_under_the_tracer_keeps_what_was_counted(self):
        self.leave_earlier_file()
        process, _ = self.start("bintracer", "never")
        process.send_signal(signal.SIGTERM)
        self.check_stopped_tracer(process, signal.SIGTERM)

    def test_termination_that_the_application_handles_under_the_tracer_ends_in_a_result(self):
        self.leave_earlier_file()
        process, _ = self.start("bintracer", "on_term")
        process.send_signal(signal.SIGTERM)
        out, err = process.communicate(timeout=SECONDS)
        self.assertEqual((process.returncode, err), (5, ""))
        self.assertTrue(out.startswith("told to end\nCEILMETER: Processing all collected data\n"), out)
        region = self.report()["regions"]["total"]
        self.assertGreaterEqual(region["flop"], 2000)
        self.assertEqual(region["time"], 77, "the metrics of the earlier file")

    def test_termination_of_the_tool_alone_under_the_counters_ends_the_application_too_and_writes_the_counters(self):
        self.leave_earlier_file()
        process, _ = self.start("perfmon", "never")
        application = self.children(process)
        self.assertEqual(len(application), 1)
        process.send_signal(signal.SIGTERM)
        self.check_stopped_run(process, signal.SIGTERM)
        self.assertRaises(ProcessLookupError, os.kill, application[0], 0)

    def test_termination_that_the_application_handles_under_the_counters_lets_it_end_by_itself(self):
        self.leave_earlier_file()
        process, _ = self.start("perfmon", "on_term")
        process.send_signal(signal.SIGTERM)
        process.stderr.readline()
        rest, _ = process.communicate(timeout=SECONDS)
        self.assertTrue(rest.startswith("told to end\nCEILMETER: Processing all collected data\n"), rest)
        self.assertEqual(process.returncode, -signal.SIGTERM)

    def test_termination_of_the_application_alone_under_the_counters_ends_in_a_result(self):
        self.leave_earlier_file()
        process, _ = self.start("perfmon", "never")
        os.kill(self.children(process)[0], signal.SIGTERM)
        out, err = process.communicate(timeout=SECONDS)
        self.assertEqual((process.returncode, without_silent_lines(err)), (0, ""))
        self.assertTrue(out.startswith("CEILMETER: Processing all collected data\n"), out)
        self.assertGreater(self.report()["regions"]["total"]["time"], 77)

    def test_termination_of_the_group_under_the_counters_ends_both_and_writes_the_counters(self):
        self.leave_earlier_file()
        process, _ = self.start("perfmon", "never")
        os.killpg(process.pid, signal.SIGTERM)
        self.check_stopped_run(process, signal.SIGTERM)


if __name__ == "__main__":
    unittest.main(verbosity=2)
