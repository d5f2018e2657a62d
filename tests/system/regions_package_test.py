#!/usr/bin/python3
"""Tests the installed region library as the developer of an application uses it: by its CMake package, by pkg-config,
shared and static, linked by GNU ld and by LLVM's lld.

regions_package_test.py CMAKE BUILD SOURCE CC OPTION... -- EMULATOR...
    CMAKE, BUILD, SOURCE   the cmake program, the build tree to install from, the source tree
    CC                     the C compiler; what follows up to -- goes to cmake when the examples are configured
    EMULATOR               what runs the built programs; may be empty
"""
import os
import shutil
import struct
import subprocess
import sys
import tempfile
import unittest

cmake, build, source, compiler, *rest = sys.argv[1:]
cmake_options, emulator = rest[: rest.index("--")], rest[rest.index("--") + 1 :]
MARKS = {f"{verb}_perf_roofline_events" for verb in ("init", "start", "stop", "finalize")}
FIVE = MARKS | {"dummy_func_to_disable_roofline_events"}
REGION_PROGRAMS = ["solver_regions", "solver_threads", "solver_openmp", "solver_fortran"]


class elf_file:
    """The headers and function symbols of a 64-bit little-endian ELF file."""

    SHT_SYMTAB, SHT_DYNSYM, PT_LOAD, PF_X, ET_EXEC, STT_FUNC = 2, 11, 1, 1, 2, 2

    def __init__(self, path):
        with open(path, "rb") as file:
            self.image = file.read()
        self.kind, self.machine = struct.unpack_from("<HH", self.image, 16)
        phoff, shoff = struct.unpack_from("<QQ", self.image, 32)
        phentsize, phnum, shentsize, shnum = struct.unpack_from("<HHHH", self.image, 54)
        # type, flags, offset, vaddr, paddr, filesz, memsz, align
        self.segments = [struct.unpack_from("<IIQQQQQQ", self.image, phoff + i * phentsize) for i in range(phnum)]
        # name, type, flags, addr, offset, size, link, info, addralign, entsize
        self.sections = [struct.unpack_from("<IIQQQQIIQQ", self.image, shoff + i * shentsize) for i in range(shnum)]

    def symbols(self, table):
        """(name, type, value, section index) of all symbols of the tables of this kind."""
        for section in (one for one in self.sections if one[1] == table):
            strings = self.sections[section[6]][4]
            for at in range(section[4], section[4] + section[5], 24):
                name, info, _, index, value, _ = struct.unpack_from("<IBBHQQ", self.image, at)
                end = self.image.index(b"\0", strings + name)
                yield self.image[strings + name : end].decode(), info, value, index

    def functions_that_the_tracer_finds(self):
        """Names of the functions that really lie at the start of the executable mapping plus the symbol's value."""
        if self.kind != self.ET_EXEC:
            executable = [one for one in self.segments if one[0] == self.PT_LOAD and one[1] & self.PF_X]
            if len(executable) != 1 or executable[0][3] != 0:
                return set()
        return {
            name
            for table in (self.SHT_SYMTAB, self.SHT_DYNSYM)
            for name, info, value, _ in self.symbols(table)
            if value != 0 and info & 15 == self.STT_FUNC and "@" not in name
        }


def run(words, **how):
    done = subprocess.run(words, capture_output=True, text=True, timeout=600, **how)
    if done.returncode != 0:
        raise AssertionError(f"{words} ended with {done.returncode}\n{done.stdout}\n{done.stderr}")
    return done


def run_program(words, **how):
    """Standard output and error of an AArch64 program, started outside the tool."""
    clean = {name: value for name, value in os.environ.items() if not name.startswith("ROOFLINE_")}
    done = run([*emulator, *words], env={**clean, **how})
    return done.stdout, done.stderr


class regions_package_test(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.mkdtemp(prefix="regions_package_")
        run([cmake, "--install", build, "--component", "roofline_events", "--prefix", f"{cls.folder}/made"])
        # The package has to work where it lies, not where it was made.
        cls.prefix = f"{cls.folder}/prefix"
        os.rename(f"{cls.folder}/made", cls.prefix)
        found = [root for root, _, files in os.walk(cls.prefix) if "libroofline_events.a" in files]
        cls.libraries = found[0]
        cls.built = {}
        # A cross compiler looks for its linkers under names of its own; -B is where it takes plain ones.
        os.mkdir(f"{cls.folder}/linkers")
        lld = shutil.which("ld.lld") or shutil.which("ld.lld-14")
        if lld is None:
            raise AssertionError("LLVM's linker is missing: scripts/setup installs it")
        os.symlink(lld, f"{cls.folder}/linkers/ld.lld")
        cls.use_lld = [f"-B{cls.folder}/linkers", "-fuse-ld=lld"]

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.folder)

    def examples(self, linker, static):
        """The folder in which the examples have been built; made at the first call."""
        key = (linker, static)
        if key not in self.built:
            folder = f"{self.folder}/examples-{linker}-{'static' if static else 'shared'}"
            options = [f"-DCMAKE_PREFIX_PATH={self.prefix}", f"-DCMAKE_FIND_ROOT_PATH={self.prefix}"]
            options += ["-DROOFLINE_EVENTS_STATIC=" + ("ON" if static else "OFF")]
            if linker == "lld":
                options.append("-DCMAKE_EXE_LINKER_FLAGS=" + " ".join(self.use_lld))
            run([cmake, "-G", "Ninja", "-S", f"{source}/examples", "-B", folder, *options, *cmake_options])
            run([cmake, "--build", folder, "--parallel", "2"])
            self.built[key] = folder
        return self.built[key]

    def pkg_config(self, *arguments):
        return run(
            ["pkg-config", *arguments, "roofline_events"],
            env={**os.environ, "PKG_CONFIG_LIBDIR": f"{self.libraries}/pkgconfig"},
        ).stdout.split()

    @staticmethod
    def strip(program):
        run([shutil.which("aarch64-linux-gnu-strip") or "strip", program])

    def check_programs(self, folder):
        """Outside the tool the marked programs print what the unmarked one prints, and nothing else."""
        expected, _ = run_program([f"{folder}/solver", "40", "100"])
        self.assertRegex(expected, r"^points 1600, residual \S+, largest error \S+\n$")
        for program in REGION_PROGRAMS:
            with self.subTest(program=program, folder=folder):
                out, err = run_program([f"{folder}/{program}", "40", "100"], OMP_NUM_THREADS="3")
                self.assertRegex(out, r"^points 1600, residual \S+, largest error \S+\n$")
                self.assertEqual(err, "")
                if program == "solver_regions":
                    self.assertEqual(out, expected)

    def check_marks_in_programs(self, folder):
        for program in REGION_PROGRAMS:
            with self.subTest(program=program, folder=folder):
                self.assertLessEqual(FIVE, elf_file(f"{folder}/{program}").functions_that_the_tracer_finds())

    def test_the_shared_library_shows_exactly_the_five_functions(self):
        file = elf_file(f"{self.libraries}/libroofline_events.so")
        shown = [
            (name, info & 15) for name, info, _, index in file.symbols(file.SHT_DYNSYM) if index != 0 and info >> 4 != 0
        ]
        self.assertEqual(sorted(shown), sorted((name, file.STT_FUNC) for name in FIVE))

    def test_the_static_library_shows_exactly_the_five_functions(self):
        folder = tempfile.mkdtemp(dir=self.folder)
        run(["ar", "x", f"{self.libraries}/libroofline_events.a"], cwd=folder)
        members = os.listdir(folder)
        self.assertEqual(len(members), 1, members)
        file = elf_file(f"{folder}/{members[0]}")
        shown = [name for name, info, _, index in file.symbols(file.SHT_SYMTAB) if index != 0 and info >> 4 != 0]
        self.assertEqual(sorted(shown), sorted(FIVE))

    def test_the_tracer_finds_the_functions_in_the_shared_library(self):
        file = elf_file(f"{self.libraries}/libroofline_events.so")
        self.assertLessEqual(FIVE, file.functions_that_the_tracer_finds())

    def test_the_shared_library_needs_only_what_a_c_or_fortran_program_has_or_gets_with_it(self):
        needed = run(["readelf", "-d", f"{self.libraries}/libroofline_events.so"]).stdout
        names = {line.split("[")[1].rstrip("]") for line in needed.splitlines() if "(NEEDED)" in line}
        self.assertLessEqual(
            names, {"libstdc++.so.6", "libgcc_s.so.1", "libc.so.6", "libm.so.6", "ld-linux-aarch64.so.1"}
        )

    def test_examples_build_with_the_cmake_package_and_run_as_the_unmarked_program(self):
        self.check_programs(self.examples("default", static=False))

    def test_examples_build_with_the_static_library_and_run_as_the_unmarked_program(self):
        self.check_programs(self.examples("default", static=True))

    def test_the_tracer_finds_the_functions_of_the_static_library_linked_by_gnu_ld(self):
        self.check_marks_in_programs(self.examples("default", static=True))

    def test_lld_links_examples_that_run(self):
        self.check_programs(self.examples("lld", static=True))

    def test_the_tracer_finds_the_functions_of_the_static_library_linked_by_lld(self):
        self.check_marks_in_programs(self.examples("lld", static=True))

    def test_without_the_packages_options_lld_hides_the_functions_from_the_tracer(self):
        # The walk-through warns of this failure. If the link ever succeeds, the options are no longer needed.
        program = f"{self.folder}/hidden"
        run([compiler, "-pie", *self.use_lld, f"-I{self.prefix}/include", f"{source}/examples/solver_regions.c",
             f"{self.libraries}/libroofline_events.a", "-lstdc++", "-lm", "-o", program])
        self.assertEqual(elf_file(program).functions_that_the_tracer_finds() & FIVE, set())

    def test_strip_takes_the_functions_of_the_static_library_away_from_the_tracer(self):
        program = f"{self.folder}/stripped"
        shutil.copy(f"{self.examples('default', static=True)}/solver_regions", program)
        self.strip(program)
        self.assertEqual(elf_file(program).functions_that_the_tracer_finds() & FIVE, set())

    def test_dynamic_symbols_keep_the_functions_of_the_static_library_in_a_stripped_program(self):
        program = f"{self.folder}/stripped_dynamic"
        run([compiler, "-O2", "-rdynamic", f"{source}/examples/solver_regions.c",
             *self.pkg_config("--static", "--cflags"), f"{self.libraries}/libroofline_events.a", "-lstdc++", "-lm",
             "-o", program])
        self.strip(program)
        self.assertLessEqual(FIVE, elf_file(program).functions_that_the_tracer_finds())

    def test_pkg_config_is_enough_for_a_c_program(self):
        program = f"{self.folder}/by_pkg_config"
        flags = self.pkg_config("--cflags", "--libs")
        run([compiler, "-O2", f"{source}/examples/solver_regions.c", *flags, "-lm", "-o", program])
        out, err = run_program([program, "40", "100"], LD_LIBRARY_PATH=self.libraries)
        self.assertEqual((out, err), run_program([f"{self.examples('default', static=False)}/solver", "40", "100"]))

    def test_pkg_config_is_enough_for_a_fully_static_c_program(self):
        program = f"{self.folder}/by_pkg_config_static"
        flags = self.pkg_config("--static", "--cflags", "--libs")
        run([compiler, "-static", "-O2", f"{source}/examples/solver_regions.c", *flags, "-lm", "-o", program])
        out, err = run_program([program, "40", "100"])
        self.assertEqual((out, err), run_program([f"{self.examples('default', static=False)}/solver", "40", "100"]))
        self.assertLessEqual(FIVE, elf_file(program).functions_that_the_tracer_finds())

    def test_the_header_is_clean_in_old_and_new_c_and_under_hidden_visibility(self):
        for standard in ("c90", "c99", "c17"):
            text = "#include <roofline_events.h>\nint main(void) { start_perf_roofline_events(\"r\"); return 0; }\n"
            run([compiler, f"-std={standard}", "-Wall", "-Wextra", "-Wpedantic", "-Wstrict-prototypes", "-Werror",
                 "-fvisibility=hidden", f"-I{self.prefix}/include", "-x", "c", "-", f"-L{self.libraries}",
                 "-lroofline_events", "-o", f"{self.folder}/clean"], input=text)


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], "-v"])
