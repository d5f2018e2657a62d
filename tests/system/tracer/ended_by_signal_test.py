#!/usr/bin/python3
"""A traced application that a signal ends: what was counted is in the result, the status is the signal's.

ended_by_signal_test.py BUILD [EMULATOR WORD...]
"""
import json
import os
import re
import resource
import signal
import subprocess
import sys
import tempfile
import time
import unittest

build = os.path.realpath(sys.argv[1])
emulator = sys.argv[2:]
tool = os.path.join(build, "ceilmeter")
program = os.path.join(build, "tests/programs/tracer/ended")
SECONDS = 300  # A run that takes longer hangs.
WORK = 2000  # Operations of the program before it ends.
TOOL_LINE = re.compile(r"^CEILMETER: .*\n", re.M)
STOPPED = re.compile(r"MORA warn Stopped by signal (\d+) \([^)]*\): the report holds what was counted before$", re.M)


def no_core_files():
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))


class ended_by_signal_test(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = folder.name
        self.result = os.path.join(self.folder, "result.json")

    def start(self, words, options=()):
        traced = [*emulator, tool, "--phase=bintracer", "-o", self.result, *options, "--", program, *map(str, words)]
        return subprocess.Popen(traced, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, cwd=self.folder,
                                stdin=subprocess.DEVNULL, start_new_session=True, preexec_fn=no_core_files)

    def flop(self):
        with open(self.result, encoding="utf-8") as file:
            return json.load(file)["regions"]["total"]["flop"]

    def check(self, *words, flop=WORK, signum=None):
        """The traced run's output and status are the native one's, and its counts are written."""
        native = subprocess.run([*emulator, program, *map(str, words)], capture_output=True, text=True, cwd=self.folder,
                                stdin=subprocess.DEVNULL, timeout=SECONDS, check=False, preexec_fn=no_core_files)
        process = self.start(words)
        out, err = process.communicate(timeout=SECONDS)
        self.assertEqual((process.returncode, TOOL_LINE.sub("", out)), (native.returncode, native.stdout), (words, err))
        if signum is None:
            signum = words[1]
        self.assertLess(process.returncode, 0, words)  # The user-mode emulator ends by another number above 32.
        self.assertEqual(STOPPED.findall(err), [str(signum)], (words, err))
        self.assertIn("CEILMETER: Result is captured at ", out)
        self.assertGreaterEqual(self.flop(), flop, words)
        os.unlink(self.result)

    def test_every_signal_that_ends_a_program(self):
        # 40 is one of those without a name.
        for number in (1, 2, 3, 4, 5, 6, 7, 8, 10, 11, 12, 13, 14, 15, 16, 24, 25, 26, 27, 29, 30, 31, 40):
            self.check("raise", number)

    def test_signal_among_threads_that_compute_sleep_and_wait(self):
        for _ in range(3):
            self.check("among_threads", signal.SIGTERM)

    def test_signal_that_strikes_when_it_is_unblocked(self):
        self.check("blocked", signal.SIGTERM, flop=2 * WORK)

    def test_signal_whose_handler_has_gone(self):
        for way in ("once", "default_again"):
            self.check(way, signal.SIGUSR1)

    def test_signal_on_an_alternative_stack(self):
        self.check("other_stack", signal.SIGTERM)

    def test_fault(self):
        for other_stack in (0, 1):
            self.check("write", other_stack, signum=signal.SIGSEGV)

    def test_overflow_of_the_stack_with_an_alternative_one(self):
        self.check("overflow", 1, signum=signal.SIGSEGV)

    def test_overflow_of_the_only_stack_has_the_native_status(self):
        process = self.start(["overflow", 0])
        process.communicate(timeout=SECONDS)
        self.assertEqual(process.returncode, -signal.SIGSEGV)

    def test_child_ends_on_the_spot_and_its_parent_goes_on(self):
        process = self.start(["child", signal.SIGTERM])
        out, err = process.communicate(timeout=SECONDS)
        self.assertEqual((process.returncode, err), (signal.SIGTERM, ""))
        self.assertEqual(out.count("CEILMETER: Result is captured at "), 1)
        self.assertGreaterEqual(self.flop(), WORK)

    def test_application_reads_the_default_action_as_it_stands(self):
        for number in (signal.SIGTERM, signal.SIGSEGV, signal.SIGALRM):
            process = self.start(["actions", number])
            out, err = process.communicate(timeout=SECONDS)
            self.assertEqual((process.returncode, TOOL_LINE.sub("", out), err), (3, "1 0\n1 10000000\n", ""))

    def start_ready(self, way):
        process = self.start([way, 0])
        for line in process.stdout:
            if line == "ready\n":
                return process
        self.fail(process.stderr.read())
        return None

    def test_signal_from_outside(self):
        for way in ("waiting", "computing"):
            for number in (signal.SIGINT, signal.SIGQUIT, signal.SIGALRM):
                process = self.start_ready(way)
                process.send_signal(number)
                _, err = process.communicate(timeout=SECONDS)
                self.assertEqual(process.returncode, -number, err)
                self.assertEqual(STOPPED.findall(err), [str(int(number))], err)
                self.assertGreaterEqual(self.flop(), WORK)
                os.unlink(self.result)

    def test_one_request_to_the_process_and_to_its_group_is_one(self):
        for _ in range(4):
            process = self.start_ready("computing")
            for _ in range(5):
                process.send_signal(signal.SIGTERM)
                os.killpg(process.pid, signal.SIGTERM)
            _, err = process.communicate(timeout=SECONDS)
            self.assertEqual(process.returncode, -signal.SIGTERM, err)
            self.assertGreaterEqual(self.flop(), WORK)
            os.unlink(self.result)

    def start_that_is_held_up(self):
        """The finishing step waits for a writer of the pipe in the result's place. Sleeps for more than one request."""
        os.mkfifo(self.result)
        process = self.start_ready("waiting")
        process.send_signal(signal.SIGINT)
        time.sleep(1)
        self.assertIsNone(process.poll(), "it waits for the earlier file")
        return process

    def test_second_request_ends_the_tool_at_once(self):
        for number in (signal.SIGINT, signal.SIGTERM):
            process = self.start_that_is_held_up()
            process.send_signal(number)
            process.communicate(timeout=SECONDS)
            self.assertEqual(process.returncode, -number)
            os.unlink(self.result)

    def test_failure_of_the_finishing_step_leaves_the_applications_status(self):
        for number in (signal.SIGSEGV, signal.SIGABRT):
            process = self.start_that_is_held_up()
            process.send_signal(number)
            process.communicate(timeout=SECONDS)
            self.assertEqual(process.returncode, -signal.SIGINT)
            os.unlink(self.result)

    def test_result_that_cannot_be_written_leaves_the_applications_status_and_a_copy(self):
        os.mkdir(self.result)
        process = self.start(["raise", signal.SIGTERM])
        _, err = process.communicate(timeout=SECONDS)
        self.assertEqual(process.returncode, -signal.SIGTERM)
        self.assertRegex(err, r"Report cannot be written to .*, a copy is saved as .*\.json\n")


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
