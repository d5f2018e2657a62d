#!/usr/bin/python3
"""Tests that measured results are kept, however a run ends: with the limits and state that a traced application leaves,
in a later phase, or under a caller that ignores its children. Tests that the application has no more rights than its
user.

kept_results_test.py BUILD [TEST...]
"""
import json
import os
import re
import resource
import shutil
import signal
import stat
import struct
import subprocess
import sys
import tempfile
import unittest

from emulated_counters import without_silent_lines, without_silent_metrics

build = sys.argv.pop(1)
tool = os.path.join(build, "ceilmeter")
short_tool = os.path.join(build, "tests/system/product/ceilmeter_short_roofs")  # Measures roofs with little work.
programs = os.path.join(build, "tests/programs/workloads")
SECONDS = 600  # A run that takes longer hangs.
USER = 1000
LOG_TEXT = re.compile(r"^\[[^]]*\] +(\w+):\d+ +MORA (.*)$", re.M)
CAPABILITIES = re.compile(r"^Cap(?:Prm|Eff|Amb):\s*([0-9a-f]+)$", re.M)


def write_text(path, text):
    with open(path, "w", encoding="utf-8") as file:
        file.write(text)


class kept_results_test(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = folder.name
        os.chmod(self.folder, 0o755)
        self.result = os.path.join(self.folder, "result.json")

    def run_tool(self, options, application, executable=tool, **how):
        return without_silent_metrics(subprocess.run(
            [executable, *options, "-o", self.result, "--", *application], capture_output=True, text=True,
            timeout=SECONDS, cwd=self.folder, stdin=subprocess.DEVNULL, check=False, **how))

    def report(self):
        with open(self.result, encoding="utf-8") as file:
            return json.load(file)

    def check_left_behind(self, change, log=(), **how):
        done = self.run_tool(["--phase=bintracer"], [os.path.join(programs, "leaves"), change], **how)
        self.assertEqual((done.returncode, LOG_TEXT.findall(done.stderr)), (3, list(log)), f"{change}: {done.stderr}")
        self.assertIn("worked\nCEILMETER: Processing all collected data\n", done.stdout)
        self.assertGreaterEqual(self.report()["regions"]["total"]["flop"], 2000, change)
        self.assertEqual(stat.S_IMODE(os.stat(self.result).st_mode), 0o644, change)
        os.remove(self.result)

    def test_state_that_a_traced_application_leaves_does_not_cost_the_result(self):
        for change in ("file_size", "memory", "processor_time", "descriptors", "file_mask", "arithmetic", "scheduling",
                       "locked_memory", "signals", "timers"):
            self.check_left_behind(change)

    def test_hard_limit_that_the_application_has_lowered_comes_back_with_the_right_to_it(self):
        self.check_left_behind("file_size_for_good")

    def test_hard_limit_that_an_ordinary_users_application_has_lowered_is_told_and_the_earlier_file_stays(self):
        os.chown(self.folder, USER, USER)
        with open(self.result, "w", encoding="utf-8") as file:
            file.write("{}")
        os.chown(self.result, USER, USER)
        done = self.run_tool(["--phase=bintracer"], [os.path.join(programs, "leaves"), "file_size_for_good"], user=USER)
        self.assertEqual(done.returncode, -signal.SIGABRT)
        self.assertEqual(LOG_TEXT.findall(done.stderr),
                         [("process_state",
                           "warn The application has lowered the limit on the size of files to 100 for good"),
                          ("result_keeper",
                           f"warn Report cannot be written to {self.result}, and no folder takes a copy"),
                          ("collector", "fatal Error when trying to write report:")])
        self.assertTrue(done.stderr.endswith("\nFile too large\n"))
        with open(self.result, encoding="utf-8") as file:
            self.assertEqual(file.read(), "{}")

    def core_of(self, words):
        """Whether a core file was announced, and where one is."""
        os.makedirs(self.folder, exist_ok=True)
        process = subprocess.Popen(words, cwd=self.folder, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                   stderr=subprocess.DEVNULL, preexec_fn=lambda: resource.setrlimit(
                                       resource.RLIMIT_CORE, (resource.RLIM_INFINITY, resource.RLIM_INFINITY)))
        status = os.waitpid(process.pid, 0)[1]
        process.returncode = status
        found = []
        for path, _, names in os.walk(self.folder):
            found += [os.path.relpath(path, self.folder) for name in names if name.startswith("core")]
            for name in names:
                if name.startswith("core"):
                    os.remove(os.path.join(path, name))
        return os.WTERMSIG(status), os.WCOREDUMP(status), found

    def test_core_file_is_there_where_natively_one_is(self):
        write_text("/proc/sys/kernel/core_pattern", "core")
        os.mkdir(os.path.join(self.folder, "elsewhere"))
        ended = os.path.join(build, "tests/programs/tracer/ended")
        moved = ["/bin/bash", "-c", "cd elsewhere; kill -ABRT $$"]
        for application in ([ended, "raise", "6"], [ended, "raise", "15"], [ended, "no_core", "6"], moved):
            native = self.core_of(application)
            traced = self.core_of([tool, "--phase=bintracer", "-o", self.result, "--", *application])
            self.assertEqual(traced, native, application)
            self.assertTrue(os.path.exists(self.result))
            os.remove(self.result)

    def test_traced_application_runs_where_there_is_no_proc(self):
        for application, status in ((["/bin/sh", "-c", "exit 3"], 3),
                                    ([os.path.join(build, "tests/programs/tracer/ended"), "no_core", "15"], 143)):
            words = " ".join([tool, "--phase=bintracer", "-o", self.result, "--", application[0],
                              *(f"'{word}'" for word in application[1:])])
            done = subprocess.run(["unshare", "--mount", "/bin/sh", "-c", f"umount -l /proc; {words}; exit $?"],
                                  capture_output=True, text=True, timeout=SECONDS, cwd=self.folder,
                                  stdin=subprocess.DEVNULL, check=False)
            self.assertEqual(done.returncode, status, done.stderr)
            self.assertEqual(list(self.report()["regions"]), ["total"])
            os.remove(self.result)

    def test_result_that_is_a_device_does_not_end_the_run(self):
        for device in ("/dev/null", "/dev/full"):
            done = subprocess.run([tool, "--phase=bintracer", "-o", device, "--", "/bin/true"], capture_output=True,
                                  text=True, timeout=SECONDS, cwd=self.folder, stdin=subprocess.DEVNULL, check=False)
            self.assertNotIn("terminate", done.stderr)
            self.assertEqual(done.returncode, 0 if device == "/dev/null" else -signal.SIGABRT, done.stderr)
            self.assertEqual(done.stderr.count("a copy is saved as"), 0 if device == "/dev/null" else 1, done.stderr)

    def test_first_process_of_a_container_is_spared_by_what_it_does_not_handle(self):
        for number in (signal.SIGTERM, signal.SIGUSR1):
            application = ["/bin/sh", "-c", f"kill -{int(number)} $$; exit 7"]
            traced = [tool, "--phase=bintracer", "-o", self.result, "--", *application]
            for words in (application, traced):
                done = subprocess.run(["unshare", "--pid", "--fork", *words], capture_output=True, text=True,
                                      timeout=SECONDS, cwd=self.folder, stdin=subprocess.DEVNULL, check=False)
                self.assertEqual(done.returncode, 7, done.stderr)

    def test_counters_are_in_the_file_before_the_tracer_starts(self):
        done = self.run_tool(["--phase=full"], ["/bin/sh", "-c", "kill -KILL $$"])
        self.assertEqual(done.returncode, -signal.SIGKILL)
        region = self.report()["regions"]["total"]
        self.assertGreater(region["time"], 0)
        self.assertEqual((region["flop"], region["bbs"]), (0, []))

    def test_damaged_earlier_file_does_not_end_a_full_run_that_replaces_it(self):
        with open(self.result, "w", encoding="utf-8") as file:
            file.write('{"regions": {"total": {"bbs": [["1", "2", "3", "4", 5, 6, 7, 8]]}}}')  # The last is not a text.
        done = self.run_tool(["--phase=full"], ["/bin/true"], short_tool)
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        self.assertEqual(len(self.report()["roofs"]), 13)

    def test_damaged_earlier_file_stays_as_it_is_and_the_result_goes_beside_it(self):
        broken_block = '{"regions": {"total": {"bbs": [["1", "2", "3", "4", 5, 6, 7, 8]]}}}'
        broken_count = '{"regions": {}, "roofs_by_num_threads": {"many": []}}'
        script = [os.path.join(build, "tests/programs/regions/region_script"), "init", "start=a", "work=10", "stop=a",
                  "finalize"]
        beside = self.result + ".regions.json"
        for text, reason in ((broken_block, "a block without a module"),
                             (broken_count, "roofs without a number of threads"),
                             ("[" * 1000000, "nested too deep")):
            for mode in ("total", "region"):
                for phase in ("perfmon", "bintracer", "~benchmarks"):
                    write_text(self.result, text)
                    done = self.run_tool([f"--mode={mode}", f"--phase={phase}"], script)
                    self.assertEqual(done.returncode, 0, (mode, phase, done.stderr))
                    self.assertEqual(LOG_TEXT.findall(done.stderr), [
                        ("collector", f"warn {self.result} is damaged ({reason}) and stays as it is: the result goes "
                                      f"to {beside}")], (mode, phase))
                    with open(self.result, encoding="utf-8") as file:
                        self.assertEqual(file.read(), text)
                    with open(beside, encoding="utf-8") as file:
                        self.assertEqual(list(json.load(file)["regions"]), ["total" if mode == "total" else "a"])
                    os.remove(beside)

    def test_everything_that_was_counted_is_in_the_file_before_the_roofs(self):
        application = [os.path.join(programs, "triad"), "1000", "1"]
        with subprocess.Popen([tool, "--phase=full", "-o", self.result, "--", *application], stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE, text=True, cwd=self.folder, stdin=subprocess.DEVNULL) as process:
            for line in process.stdout:
                if line == "CEILMETER: Launch benchmarks for measuring roofs\n":
                    break
            process.kill()
            self.assertEqual(without_silent_lines(process.stderr.read()), "")
        region = self.report()["regions"]["total"]
        self.assertGreaterEqual(region["flop"], 2000)
        self.assertGreater(region["time"], 0)
        self.assertNotIn("roofs", self.report())

    def test_status_line_reaches_a_caller_that_ignores_its_children(self):
        done = self.run_tool(["--phase=perfmon"], ["/bin/sh", "-c", "exit 3"],
                             preexec_fn=lambda: signal.signal(signal.SIGCHLD, signal.SIG_IGN))
        self.assertEqual(LOG_TEXT.findall(done.stderr), [("run_application", "warn Application exit status is 3!")])

    def privileged_tool(self):
        """Makes a copy of the tool that lends an ordinary user the right to open counters, and a right of root's."""
        counting = os.path.join(self.folder, "counting")
        shutil.copy(tool, counting)
        # Version 2 with the effective bit, then permitted and inheritable of the lower word and of the upper one:
        # CAP_SYS_ADMIN, which this kernel wants for counters where the value is 3, CAP_DAC_OVERRIDE, and CAP_PERFMON.
        os.setxattr(counting, "security.capability",
                    struct.pack("<IIIII", 0x02000001, 1 << 21 | 1 << 1, 0, 1 << (38 - 32), 0))
        of_root = os.path.join(self.folder, "of_root")
        shutil.copy(tool, of_root)
        os.chmod(of_root, 0o4755)
        return counting, of_root

    def test_rights_that_the_tools_file_lends_open_counters_and_do_not_reach_the_application(self):
        paranoid = "/proc/sys/kernel/perf_event_paranoid"
        with open(paranoid, encoding="ascii") as file:
            before = file.read()
        write_text(paranoid, "3")
        self.addCleanup(write_text, paranoid, before)
        os.chown(self.folder, USER, USER)
        os.chmod(self.folder, 0o755)
        for executable in self.privileged_tool():
            for phase in ("perfmon", "bintracer"):
                done = self.run_tool([f"--phase={phase}"], ["/bin/cat", "/proc/self/status"], executable, user=USER,
                                     group=USER, extra_groups=[])
                self.assertEqual((done.returncode, done.stderr), (0, ""), "no counter was refused")
                self.assertEqual(CAPABILITIES.findall(done.stdout), ["0" * 16] * 3, done.stdout)
                self.assertIn(f"Uid:\t{USER}\t{USER}\t{USER}\t{USER}\n", done.stdout)
                self.assertEqual(os.stat(self.result).st_uid, USER)
                os.remove(self.result)
            # Without the file's rights the counters are refused.
        done = self.run_tool(["--phase=perfmon"], ["/bin/true"], user=USER, group=USER, extra_groups=[])
        self.assertIn("perf_event_open failed with Permission denied", done.stderr)

    def test_traced_application_finds_the_start_of_an_ordinary_program(self):
        os.chown(self.folder, USER, USER)
        counting, _ = self.privileged_tool()
        text = "import ctypes; print('secure', ctypes.CDLL(None).getauxval(23), flush=True)"  # AT_SECURE
        done = self.run_tool(["--phase=bintracer"], ["/usr/bin/python3", "-S", "-c", text], counting, user=USER,
                             group=USER)
        self.assertIn("secure 0\n", done.stdout, done.stderr)

    def test_roots_own_rights_stay(self):
        done = self.run_tool(["--phase=bintracer"], ["/bin/cat", "/proc/self/status"])
        self.assertNotIn("0" * 16, CAPABILITIES.findall(done.stdout)[:2])


if __name__ == "__main__":
    unittest.main(verbosity=2)
