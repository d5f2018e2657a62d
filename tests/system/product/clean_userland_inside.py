#!/usr/bin/python3
"""The part of clean_userland_test.py that runs in the virtual machine: /packages holds the packages and the clean
root."""
import glob
import json
import os
import re
import shutil
import subprocess
import unittest

from emulated_counters import without_silent_metrics

SECONDS = 200  # A run that takes longer hangs.
TRIAD = "/build/tests/programs/workloads/triad"


def run(words):
    return subprocess.run(words, capture_output=True, text=True, timeout=SECONDS, check=False, stdin=subprocess.DEVNULL)


def files_below(folder):
    """The files of one file system. What is mounted in it is left out, such as /proc, whose processes change."""
    found = set()
    for root, folders, names in os.walk(folder):
        folders[:] = [name for name in folders if not os.path.ismount(os.path.join(root, name))]
        found.update(os.path.join(root, name) for name in names)
    return found


class clean_userland(unittest.TestCase):
    def setUp(self):
        self.root = f"/tmp/{self.id().rpartition('.')[2]}"
        shutil.copytree("/packages/root", self.root, symlinks=True)
        subprocess.run(["mount", "--bind", "/proc", f"{self.root}/proc"], check=True)
        self.addCleanup(subprocess.run, ["umount", f"{self.root}/proc"], check=True)
        shutil.copy(TRIAD, f"{self.root}/triad")
        shutil.copy("/run/busybox", f"{self.root}/usr/bin/busybox")  # It is static.
        self.deb, = glob.glob("/packages/*.deb")
        self.version = re.search(r"_([0-9.]+)_", self.deb)[1]

    def in_root(self, *words):
        """Runs a program with the clean root as its root."""
        return without_silent_metrics(run(["chroot", self.root, *words]))

    def dpkg(self, *words):
        return run(["dpkg", f"--root={self.root}", *words])

    def check_tool(self, tool, *environment):
        told = self.in_root(tool, "--version")
        self.assertEqual((told.returncode, told.stdout.splitlines()[0]),
                         (0, f"ceilmeter tool version {self.version}"), told)
        for mode, region in (("total", "total"), ("region", "triad")):
            words = [tool, f"--mode={mode}", "--phase=~benchmarks", "-o", "/result.json", "/triad", "1000", "2"]
            if environment:
                words = ["/usr/bin/busybox", "env", *environment, *words]
            done = self.in_root(*words)
            self.assertEqual((done.returncode, done.stderr), (0, ""))
            with open(f"{self.root}/result.json", encoding="utf-8") as file:
                found = json.load(file)["regions"]
            self.assertEqual(list(found), [region])
            self.assertGreaterEqual(found[region]["flop"], 4000)
            self.assertGreater(found[region]["time"], 0)
            os.remove(f"{self.root}/result.json")

    def test_deb_is_installed_runs_and_is_removed_without_a_trace(self):
        before = files_below(self.root)
        # A new process changes /proc, as the kernel's own threads do at times. It is not a trace of the package.
        bystander = subprocess.Popen(["sleep", str(SECONDS)])
        self.addCleanup(bystander.wait)
        self.addCleanup(bystander.kill)
        done = self.dpkg("--install", self.deb)
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
        status = self.dpkg("--status", "ceilmeter").stdout
        self.assertIn("Status: install ok installed\n", status)
        listed = set(self.dpkg("--listfiles", "ceilmeter").stdout.split())
        self.assertLessEqual({"/usr/bin/ceilmeter", "/usr/share/man/man1/ceilmeter.1"}, listed)
        # The application has no region library of its own, so it runs with the installed one.
        linked = self.in_root("/lib/ld-linux-aarch64.so.1", "--list", "/triad").stdout
        self.assertRegex(linked, r"libroofline_events\.so\.0 => (/usr)?/lib/libroofline_events\.so\.0 ")
        self.check_tool("/usr/bin/ceilmeter")
        self.assertEqual(self.dpkg("--purge", "ceilmeter").returncode, 0)
        left = {path for path in files_below(self.root) - before
                if "/var/lib/dpkg/" not in path and "/var/log/" not in path}
        self.assertEqual(left, set())

    def test_deb_is_not_installed_where_a_library_is_missing(self):
        status = f"{self.root}/var/lib/dpkg/status"
        with open(status, encoding="utf-8") as file:
            stanzas = file.read().split("\n\n")
        with open(status, "w", encoding="utf-8") as file:
            file.write("\n\n".join(one for one in stanzas if "Package: libelf1\n" not in one))
        done = self.dpkg("--install", self.deb)
        self.assertNotEqual(done.returncode, 0)
        self.assertIn("ceilmeter depends on libelf1", done.stderr)

    def test_tar_runs_from_where_it_is_unpacked(self):
        archive, = glob.glob("/packages/*.tar.gz")
        os.makedirs(f"{self.root}/opt")
        subprocess.run(["tar", "-xzf", archive, "-C", f"{self.root}/opt"], check=True)
        folder, = os.listdir(f"{self.root}/opt")
        self.check_tool(f"/opt/{folder}/bin/ceilmeter", f"LD_LIBRARY_PATH=/opt/{folder}/lib")


if __name__ == "__main__":
    unittest.main(verbosity=2)
