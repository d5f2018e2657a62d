#!/usr/bin/python3
"""Tests what is installed and what the packages hold: files, modes, owners, control fields, and one version in all of
them. clean_userland_test.py tests that the packages work where nothing else is installed.

package_test.py CMAKE BUILD SOURCE LIBDIR -- EMULATOR...
    LIBDIR   where libraries go below a prefix
"""
import os
import re
import shutil
import subprocess
import sys
import tarfile
import tempfile
import unittest

cmake, build, source, libdir, *emulator = sys.argv[1:]
emulator = emulator[emulator.index("--") + 1:]
cpack = os.path.join(os.path.dirname(cmake), "cpack")
SECONDS = 600  # A run that takes longer hangs.


def cached(name):
    """A value of the build tree's configuration."""
    with open(f"{build}/CMakeCache.txt", encoding="utf-8") as file:
        return re.search(rf"^{name}:\w+=(.*)$", file.read(), re.M)[1]


PROGRAMS = {"bin/ceilmeter", "bin/ceilview"}
FILES = {
    "include/roofline_events.h",
    *(f"share/man/man1/{name}.1" for name in ("ceilmeter", "ceilview")),
    *(f"share/bash-completion/completions/{name}" for name in ("ceilmeter", "ceilview")),
    "share/doc/ceilmeter/README.md",
    "share/doc/ceilmeter/CHANGELOG.md",
    *(f"share/doc/ceilmeter/docs/{name}" for name in (
        "flop.md", "regions.md", "result-format.md", "result-format.schema.json", "roofs.md", "troubleshooting.md",
        "viewer.md", "viewer/before_and_after.svg", "viewer/example.json", "viewer/example.svg",
        "viewer/example_before.json")),
    *(f"{libdir}/{name}" for name in ("libroofline_events.a", "libroofline_events.so.0",
                                      "pkgconfig/roofline_events.pc")),
    *(f"{libdir}/cmake/roofline_events/roofline_events-{name}.cmake" for name in (
        "config", "config-version", "targets", f"targets-{cached('CMAKE_BUILD_TYPE').lower() or 'noconfig'}")),
}
LINKS = {f"{libdir}/libroofline_events.so": "libroofline_events.so.0"}


def run(words, **how):
    done = subprocess.run(words, capture_output=True, text=True, timeout=SECONDS, check=False, **how)
    if done.returncode != 0:
        raise AssertionError(f"{words} ended with {done.returncode}\n{done.stdout}\n{done.stderr}")
    return done.stdout


def files_below(folder):
    return {os.path.relpath(os.path.join(root, name), folder)
            for root, _, names in os.walk(folder) for name in names}


def members(archive, prefix):
    """{path below the prefix: member} of all members but folders."""
    return {os.path.relpath(os.path.normpath(one.name), prefix): one for one in archive if not one.isdir()}


class package_test(unittest.TestCase):
    maxDiff = None

    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.mkdtemp(prefix="package_")
        cls.addClassCleanup(shutil.rmtree, cls.folder)
        run([cpack, "-G", "DEB;TGZ", "--config", f"{build}/CPackConfig.cmake", "-B", cls.folder])
        cls.version = cached("CMAKE_PROJECT_VERSION")
        cls.deb = f"{cls.folder}/ceilmeter_{cls.version}_arm64.deb"
        cls.tgz = f"{cls.folder}/ceilmeter-{cls.version}-linux-arm64.tar.gz"
        cls.tree = f"{cls.folder}/tree"
        run(["dpkg-deb", "-x", cls.deb, cls.tree])

    def field(self, name):
        return run(["dpkg-deb", "-f", self.deb, name]).strip()

    def check_members(self, found):
        self.assertEqual(set(found), PROGRAMS | FILES | set(LINKS))
        self.assertEqual({path: one.linkname for path, one in found.items() if one.issym()}, LINKS)
        for path, one in found.items():
            if one.isfile():
                self.assertEqual(oct(one.mode), oct(0o755 if path in PROGRAMS else 0o644), path)
            self.assertEqual((one.uid, one.gid), (0, 0), path)

    def test_install_puts_exactly_the_known_files_below_the_prefix(self):
        prefix = f"{self.folder}/prefix"
        run([cmake, "--install", build, "--prefix", prefix])
        self.assertEqual(files_below(prefix), PROGRAMS | FILES | set(LINKS))
        self.assertEqual(os.readlink(f"{prefix}/{libdir}/libroofline_events.so"), "libroofline_events.so.0")
        for program in PROGRAMS:
            self.assertTrue(os.access(f"{prefix}/{program}", os.X_OK), program)

    def test_deb_holds_exactly_the_known_files_below_usr(self):
        with subprocess.Popen(["dpkg-deb", "--fsys-tarfile", self.deb], stdout=subprocess.PIPE) as process:
            with tarfile.open(fileobj=process.stdout, mode="r|") as archive:
                self.check_members(members(archive, "usr"))

    def test_tar_holds_exactly_the_known_files_below_one_folder(self):
        with tarfile.open(self.tgz) as archive:
            self.check_members(members(archive, f"ceilmeter-{self.version}-linux-arm64"))

    def test_deb_tells_what_it_is(self):
        self.assertEqual([self.field(name) for name in ("Package", "Version", "Architecture", "Recommends")],
                         ["ceilmeter", self.version, "arm64", "libnuma1"])
        self.assertRegex(self.field("Description"), r"^collects roofline data of applications\n ")

    def test_deb_tells_the_dynamic_linker_of_the_library(self):
        control = f"{self.folder}/control"
        run(["dpkg-deb", "-e", self.deb, control])
        with open(f"{control}/triggers", encoding="utf-8") as file:
            self.assertEqual(file.read().strip(), "activate-noawait ldconfig")

    def test_deb_depends_on_every_library_that_its_programs_need_in_the_versions_that_they_need(self):
        declared = dict(re.findall(r"([a-z0-9+-]+) \(>= ([^)]+)\)", self.field("Depends")))
        needed = {}
        for file in (*PROGRAMS, f"{libdir}/libroofline_events.so.0"):
            text = run(["readelf", "-dVW", f"{self.tree}/usr/{file}"])
            libraries = re.findall(r"\(NEEDED\).*\[(.*)\]", text)
            # The symbol versions that the library needs: each file, followed by its versions.
            for library, versions in re.findall(r"File: (\S+) .*\n((?:.* Name: .*\n?)*)", text):
                needed.setdefault(library, set()).update(re.findall(r"Name: (\S+)", versions))
            for library in libraries:
                needed.setdefault(library, set())
        packages = {"libc.so.6": "libc6", "ld-linux-aarch64.so.1": "libc6", "libm.so.6": "libc6",
                    "libelf.so.1": "libelf1", "libgcc_s.so.1": "libgcc-s1", "libstdc++.so.6": "libstdc++6"}
        self.assertLessEqual(set(needed), set(packages))
        for library, names in needed.items():
            package = packages[library]
            with open(self.symbols_file(package), encoding="utf-8") as file:
                # One line for each version: NAME@NAME PACKAGE_VERSION.
                oldest = dict(re.findall(r"^ (\S+)@\1 (\S+)", file.read(), re.M))
            for name in names & set(oldest):
                self.assertEqual(
                    subprocess.run(["dpkg", "--compare-versions", declared[package], "ge", oldest[name]],
                                   check=False).returncode, 0,
                    f"{library} is needed with {name}, of {package} {oldest[name]}; declared is {declared[package]}")
            self.assertTrue(names & set(oldest), f"{package}'s list of symbols tells no version of {names}")

    @staticmethod
    def symbols_file(package):
        for name in (f"{package}:arm64.symbols", f"{package}.symbols"):
            if os.path.exists(f"/var/lib/dpkg/info/{name}"):
                return f"/var/lib/dpkg/info/{name}"
        raise AssertionError(f"{package} for arm64 is not installed: scripts/setup does it")

    def test_packaged_programs_are_stripped_and_their_marks_are_still_found(self):
        for file in (*PROGRAMS, f"{libdir}/libroofline_events.so.0"):
            sections = run(["readelf", "-SW", f"{self.tree}/usr/{file}"])
            self.assertNotIn(".debug_info", sections)
            self.assertNotIn(".symtab", sections)
        shown = run(["readelf", "-W", "--dyn-syms", f"{self.tree}/usr/{libdir}/libroofline_events.so.0"])
        for name in ("init", "start", "stop", "finalize"):
            self.assertIn(f" {name}_perf_roofline_events\n", shown)

    def test_all_that_is_installed_tells_the_version_of_the_project(self):
        self.assertEqual(run([*emulator, f"{build}/ceilmeter", "--version"]).splitlines()[0],
                         f"ceilmeter tool version {self.version}")
        self.assertEqual(run([*emulator, f"{build}/ceilview", "--version"]), f"ceilview version {self.version}\n")
        text = {}
        for path in ("share/man/man1/ceilmeter.1", "share/man/man1/ceilview.1",
                     f"{libdir}/pkgconfig/roofline_events.pc",
                     f"{libdir}/cmake/roofline_events/roofline_events-config-version.cmake",
                     "share/doc/ceilmeter/CHANGELOG.md"):
            with open(f"{self.tree}/usr/{path}", encoding="utf-8") as file:
                text[os.path.basename(path)] = file.read()
        for page in ("ceilmeter.1", "ceilview.1"):
            self.assertIn(f'"ceilmeter {self.version}"', text[page])
        self.assertIn(f"\nVersion: {self.version}\n", text["roofline_events.pc"])
        self.assertIn(f'set(PACKAGE_VERSION "{self.version}")', text["roofline_events-config-version.cmake"])
        self.assertEqual(re.search(r"^## (\S+)", text["CHANGELOG.md"], re.M)[1], self.version)

    def test_version_stands_in_one_place_of_the_source_tree(self):
        with open(f"{source}/CMakeLists.txt", encoding="utf-8") as file:
            self.assertEqual(re.search(r"project\(ceilmeter VERSION (\S+)", file.read())[1], self.version)
        for folder in ("src", "cmake", "packaging", "include", "scripts"):
            for path in files_below(f"{source}/{folder}"):
                with open(f"{source}/{folder}/{path}", encoding="utf-8") as file:
                    for line in file:
                        self.assertFalse(re.search(rf'version[^\n]*\b{re.escape(self.version)}\b(?!\.)', line, re.I),
                                         f"{folder}/{path}: {line}")

    def test_man_pages_are_set_without_a_complaint(self):
        for title in ("ceilmeter - collect roofline data of an application",
                      "ceilview - draw the rooflines of result files"):
            page = f"{self.tree}/usr/share/man/man1/{title.split()[0]}.1"
            done = subprocess.run(["groff", "-man", "-ww", "-Tutf8", "-Wbreak", page], capture_output=True, text=True,
                                  timeout=SECONDS, check=True)
            self.assertEqual(done.stderr, "")
            self.assertIn(title, re.sub(r".\x08|\x1b\[[0-9;]*m", "", done.stdout).replace("−", "-"))

    def test_man_pages_have_the_options_of_the_help_texts(self):
        self.check_options_of_man_page("ceilmeter", 43, 13)
        self.check_options_of_man_page("ceilview", 38, 18)

    def check_options_of_man_page(self, program, head, at_least):
        """`head` is the width of an option's column in the help text."""
        with open(f"{self.tree}/usr/share/man/man1/{program}.1", encoding="utf-8") as file:
            text = file.read()
        page = text[text.index(".SH OPTIONS"):text.index(".SH EXIT STATUS")].replace("\\-", "-")
        # An option stands in the line behind .TP, which is its title.
        titles = re.findall(r"^\.TP\n(\..*)$", page, re.M)
        option = r"(?<![\w-])--?[a-zA-Z][\w-]*"
        in_page = {word for title in titles for word in re.findall(option, title)}
        usage = run([*emulator, f"{build}/{program}", "--help"])
        in_usage = {word for line in usage.splitlines() if line.startswith("    -")
                    for word in re.findall(option, line[:head])}
        self.assertGreaterEqual(len(in_usage), at_least)
        self.assertEqual(in_page, in_usage)


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], "-v"])
