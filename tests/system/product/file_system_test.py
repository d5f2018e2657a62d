#!/usr/bin/python3
"""What a run leaves in the file system: which files it makes, with which modes, what its children inherit, and what a
disk that becomes full does to the result. As root, with a file system of its own for the last.

file_system_test.py TOOL
"""
import json
import os
import re
import signal
import stat
import subprocess
import sys
import tempfile
import unittest

from emulated_counters import without_silent_metrics

tool = sys.argv.pop(1)
SECONDS = 600  # A run that takes longer hangs.
PHASES = ("perfmon", "bintracer")
# A line of strace for a call that opens a file: process, arguments from the path on, result.
OPENED = re.compile(r'^(\d+) +(?:openat\([^,]+, |open\(|creat\()"([^"]*)"(.*)\) = (-?\d+)')

# The log's line for a result file that cannot be written: its path, the copy's path, the reason.
COPY_LINES = re.compile(r"\[[^]]*\] +result_keeper:\d+ +MORA warn "
                        r"Report cannot be written to (.*), a copy is saved as (.*)\n"
                        r"\[[^]]*\] +collector:\d+ +MORA fatal Error when trying to write report:\n(.*)\n\Z")


class file_system_test(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = folder.name

    def run_tool(self, options, application, before=(), **how):
        done = subprocess.run([*before, tool, *options, "--", *application], capture_output=True, text=True,
                              timeout=SECONDS, cwd=self.folder, stdin=subprocess.DEVNULL, check=False, **how)
        return without_silent_metrics(done)

    def opened_files(self, phase):
        """(process, path, flags) of every file that was opened, the application's among them."""
        trace = os.path.join(self.folder, "trace")
        done = self.run_tool([f"--phase={phase}", "-o", "result.json", "--log-file=tool.log"], ["/bin/true"],
                             before=["strace", "-f", "-qq", "-e", "trace=open,openat,openat2,creat", "-o", trace])
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        with open(trace, encoding="utf-8") as file:
            lines = file.read().splitlines()
        os.remove(trace)
        opened = [match for match in map(OPENED.match, lines) if match and int(match[4]) >= 0]
        self.assertGreater(len(opened), 5, lines)
        return [(match[1], os.path.join(self.folder, match[2]), match[3]) for match in opened]

    def test_files_that_a_run_makes_are_the_result_and_the_log_alone(self):
        for phase in PHASES:
            written = {path for _, path, flags in self.opened_files(phase)
                       if re.search("O_CREAT|O_WRONLY|O_RDWR", flags)}
            self.assertEqual(written, {os.path.join(self.folder, name) for name in ("result.json", "tool.log")}, phase)
            self.assertEqual(sorted(os.listdir(self.folder)), ["result.json", "tool.log"])

    def test_every_file_that_the_tool_opens_is_closed_on_exec(self):
        for phase in PHASES:
            opened = self.opened_files(phase)
            # The tool's process is the first one. Under the tracer it is also the application, which opens files
            # without O_CLOEXEC.
            tools_own = [one for one in opened if one[0] == opened[0][0]]
            self.assertTrue(any(path.endswith("/result.json") for _, path, _ in tools_own))
            self.assertEqual([one for one in tools_own if "O_CLOEXEC" not in one[2]], [], phase)

    def test_children_inherit_the_standard_descriptors_alone(self):
        for phase in PHASES:
            # The fourth descriptor is the one that the listing itself has opened.
            done = self.run_tool([f"--phase={phase}", "-o", "result.json", "--log-file=tool.log"],
                                 ["/bin/bash", "-c", "/bin/ls /proc/self/fd; true"])
            self.assertEqual(done.returncode, 0)
            self.assertIn("\n0\n1\n2\n3\nCEILMETER: Processing", done.stdout, phase)

    def mode_of(self, name):
        return stat.S_IMODE(os.stat(os.path.join(self.folder, name)).st_mode)

    def test_result_has_the_mode_that_the_user_has_chosen_and_the_log_is_the_users_alone(self):
        for mask, expected in ((0o022, 0o644), (0o002, 0o664), (0o077, 0o600)):
            for phase in PHASES:
                self.run_tool([f"--phase={phase}", "-o", "result.json", "--log-file=tool.log"], ["/bin/true"],
                              umask=mask)
                self.assertEqual((self.mode_of("result.json"), self.mode_of("tool.log")), (expected, 0o600))
                os.remove(os.path.join(self.folder, "result.json"))
                os.remove(os.path.join(self.folder, "tool.log"))

    def test_result_that_is_there_keeps_its_mode(self):
        path = os.path.join(self.folder, "result.json")
        with open(path, "w", encoding="utf-8") as file:
            file.write("{}")
        os.chmod(path, 0o640)
        self.run_tool(["--phase=perfmon", "-o", "result.json"], ["/bin/true"])
        self.assertEqual(self.mode_of("result.json"), 0o640)

    def small_disk(self, size):
        """A folder with room for `size` bytes."""
        small = os.path.join(self.folder, "small")
        os.mkdir(small)
        subprocess.run(["mount", "-t", "tmpfs", "-o", f"size={size}", "small", small], check=True)
        self.addCleanup(subprocess.run, ["umount", small], check=True)
        return small

    def check_saved_copy(self, done, result, reason, folder):
        """The two lines of a result file that cannot be written, and the copy that the first of them names."""
        self.assertEqual(done.returncode, -signal.SIGABRT, done.stderr)
        match = COPY_LINES.search(done.stderr)
        self.assertIsNotNone(match, done.stderr)
        self.assertEqual((match[1], os.path.dirname(match[2]), match[3]), (result, folder, reason))
        self.assertTrue(done.stdout.endswith("CEILMETER: Processing all collected data\n"), done.stdout)
        self.assertEqual(stat.S_IMODE(os.stat(match[2]).st_mode), 0o600)
        with open(match[2], encoding="utf-8") as file:
            report = json.load(file)
        os.remove(match[2])
        self.assertEqual(list(report["regions"]), ["total"])
        return report

    def test_disk_that_becomes_full_leaves_the_earlier_file_as_it_was_and_a_copy_where_the_tool_was_started(self):
        small = self.small_disk(os.sysconf("SC_PAGESIZE"))
        result = os.path.join(small, "result.json")
        with open(result, "w", encoding="utf-8") as file:
            file.write('{"regions": {}}')
        # More blocks than a page has room for.
        application = ["/usr/bin/gawk", "BEGIN { for (i = 1; i < 9; ++i) printf \"%.3f \", sin(i) + exp(i) + log(i) }"]
        done = self.run_tool(["--phase=bintracer", "-o", result], application)
        report = self.check_saved_copy(done, result, "No space left on device", self.folder)
        self.assertGreater(report["regions"]["total"]["flop"], 0)
        with open(result, encoding="utf-8") as file:
            self.assertEqual(file.read(), '{"regions": {}}')

    def test_copy_goes_to_the_folder_for_temporary_files_where_the_tool_was_started_in_a_full_one(self):
        page = os.sysconf("SC_PAGESIZE")
        small = self.small_disk(page)
        with open(os.path.join(small, "other"), "wb") as file:
            file.write(b"x" * page)
        temporary = os.path.join(self.folder, "temporary")
        os.mkdir(temporary)
        for phase in PHASES:
            for variables, folder in (({"TMPDIR": temporary}, temporary), ({"TMPDIR": small}, "/tmp")):
                result = os.path.join(small, "result.json")
                done = subprocess.run([tool, f"--phase={phase}", "-o", result, "/bin/true"], capture_output=True,
                                      text=True, timeout=SECONDS, cwd=small, env={**os.environ, **variables},
                                      stdin=subprocess.DEVNULL, check=False)
                self.check_saved_copy(done, result, "No space left on device", folder)
                self.assertEqual(os.listdir(small), ["other"])

    def test_output_that_is_a_folder_ends_in_a_copy(self):
        folder = os.path.join(self.folder, "results")
        os.mkdir(folder)
        self.check_saved_copy(self.run_tool(["--phase=perfmon", "-o", folder], ["/bin/true"]), folder, "Is a directory",
                              self.folder)

    def test_full_run_to_a_folder_measures_the_roofs_all_the_same_and_leaves_one_copy_of_everything(self):
        folder = os.path.join(self.folder, "results")
        os.mkdir(folder)
        done = self.run_tool(["--phase=~perfmon", "-o", folder], ["/bin/true"])
        lines = re.findall("a copy is saved as (.*)", done.stderr)
        self.assertEqual(lines, [lines[0]] * 2, "before the roofs and at the end")
        with open(lines[0], encoding="utf-8") as file:
            self.assertEqual(len(json.load(file)["roofs"]), 13)
        self.assertEqual(sorted(os.listdir(self.folder)), sorted([os.path.basename(lines[0]), "results"]))

    def test_link_of_another_user_in_a_shared_folder_is_neither_result_nor_log(self):
        shared = os.path.join(self.folder, "shared")
        os.mkdir(shared)
        os.chmod(shared, 0o1777)
        precious = os.path.join(self.folder, "precious")
        with open(precious, "w", encoding="utf-8") as file:
            file.write("precious")
        link = os.path.join(shared, "link")
        os.symlink(precious, link)
        os.chown(link, 1000, 1000, follow_symlinks=False)
        done = self.run_tool(["--phase=perfmon", "-o", link], ["/bin/true"])
        self.assertEqual((done.returncode, done.stderr.splitlines()[0]),
                         (1, "CEILMETER: ERROR: Output file is a link of another user in a shared folder"))
        done = self.run_tool(["--phase=perfmon", "-o", "result.json", f"--log-file={link}"], ["/bin/true"])
        self.assertIn(f"failed to create log file {link}: Permission denied\n", done.stderr)
        # The link may also come while the application runs.
        os.remove(link)
        done = self.run_tool(["--phase=perfmon", "-o", link],
                             ["/bin/sh", "-c", f"ln -s {precious} {link} && chown -h 1000:1000 {link}"])
        self.check_saved_copy(done, link, "Permission denied", self.folder)
        with open(precious, encoding="utf-8") as file:
            self.assertEqual(file.read(), "precious")

    def test_file_name_with_blanks_and_other_letters_is_written_as_it_is(self):
        done = self.run_tool(["--phase=perfmon", "-o", "a b é %%.json"], ["/bin/true"])
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        with open(os.path.join(self.folder, "a b é %.json"), encoding="utf-8") as file:
            self.assertEqual(list(json.load(file)["regions"]), ["total"])


if __name__ == "__main__":
    unittest.main(verbosity=2)
