#!/usr/bin/python3
"""Checks that each text of the engine's log is in the table below, and makes a real run for it where one is possible.
Checks that each warning of the tool stands in a test and in the documents.

log_texts_test.py SOURCE BUILD [EMULATOR WORD...]

If you add, remove or change a text, change the table.
"""
import os
import pathlib
import re
import subprocess
import sys
import unittest

source = pathlib.Path(sys.argv[1])
programs = os.path.join(sys.argv[2], "tests/programs")
emulator = sys.argv[3:]
SECONDS = 900  # A run that takes longer hangs.
LITERAL = r'"(?:[^"\\]|\\.)*"'
CALL = re.compile(r"\b\w*log\(\s*\{?\s*(LEVEL_\w+)[^;\"]*?(?:\"\w+\"\}\s*)?,\s*"
                  r"((?:" + LITERAL + r"\s*)+)(?!\s*\})", re.S)
FIELD = re.compile(r"%[-#0-9l*z.]*[a-zA-Z]|%%")

# Command lines of runs under the bare engine, each with the texts that its log must have.
RUNS = {
    ("tracer/fixed_work", "2"): [
        "*thread_data in dispatcher at: %p",
        "  %lx - %lx",
        "  instruction enum: %d",
        "  instruction word: 0x%x",
        "A64 [c/t](n)bz: read_addr: %p, target: 0x%lx",
        "A64 branch target: 0x%lx",
        "A64 branch: read_addr: %p, target: 0x%lx",
        "A64 scan read_address: %p, w: : %p, bb: %d",
        "Address of first basic block is: 0x%lx",
        "Code cache: %p",
        "Create trace: %d (%p), source_bb: %d, entry: %lx",
        "INTERP field found",
        "Link from: 0x%lx, update to: 0x%lx",
        "Linked 0x%lx (%d) from 0x%lx",
        "Syscall wrapper addr: 0x%lx",
        "Trace fragment: 0x%lx",
        "Trace head: %p at 0x%lx",
        "Traces start at: %p",
        "bb: %d, source: %p, ret to: 0x%lx",
        "entry address: 0x%lx",
        "found block from %d for 0x%lx in cache at 0x%lx",
        "hash lookup for 0x%lx: 0x%lx",
        "imap %p:",
        "imap added: %lx %lx",
        "len: %d",
        "len: %ld",
        "p_align: 0x%zx",
        "p_filesz: 0x%zx",
        "p_flags: 0x%x",
        "p_memsz: 0x%zx",
        "p_offset: 0x%zx",
        "p_paddr: 0x%zx",
        "p_type: 0x%x",
        "p_vaddr: 0x%zx",
        "reached the dispatcher, target: 0x%lx, ret: %p, src: %d thr: %p",
        "scan(%p)",
        "scanned at 0x%lx for 0x%lx",
        "source block index: %d",
        "stub (0x%lx)",
        "stub BB: 0x%lx",
        "syscall post %ld",
        "syscall pre %ld",
        "thread exit",
        "thread_data: %p",
        "trace dispatcher (target: 0x%lx)",
        "trace scan: %p to %p, id %d",
        "unhandled program header table entry type",
        "we're done; exiting with status: %d",
    ],
    ("forks",): ["r0 (tid): %ld"],
    ("traces/bare_exits_21",): [
        "deferred scanning because of unknown instruction at: %p, type: %s",
        "trace fragment count limit, branch to: 0x%lx, written at: %p",
    ],
    ("traces/bare_flush_while_built",): ["dropping trace %d of 0x%lx"],
    ("flops/every_counted",): [
        "Copying it unmodified, but future problems are possible",
        "MORA: Unknown A64 instruction: %d (0x%x) at %p, %s",
    ],
    ("tracer/ended", "raise", "15"): ["we're done; ending by signal: %d"],
    ("syscalls/exec_written_code",): ["mora: adding read permission to executable mapping at 0x%lx"],
    ("tracer/cache_flushes",): ["code cache full, flushing it"],
    ("hazards/flushed_code",): ["dropping block %d of 0x%lx", "imap deleted: %lx %lx"],
    ("threads/below_stack",): ["a new thread's block, which is not linked; the next one: %d"],
}

# The reasons for which a text has no run.
UNIT_TEST = "a unit test brings it about"
OWN_DEFECT = "nothing but a defect of the engine leads there"
NO_MEMORY = "memory would have to end at one place, and an emulator knows no limit of address space"
WITHOUT_RUN = {
    "A64 cb<cc>: read_addr: %p, target: 0x%lx": "the emulators do not know the instruction",
    "trace cache full, flushing the CC": "the run, which traces.txt has, logs six million lines before",
    "disallowed type of exit in the first trace fragment: %d": "another thread would have to change the code meanwhile",
    "missing command line arguments": UNIT_TEST,
    "Incorrect value of %s variable: %s": UNIT_TEST,
    "no conditional branch: %d": UNIT_TEST,
    "unallocated encoding": UNIT_TEST,
    "unknown branch type": UNIT_TEST,
    "unknown exit branch type in trace head: %d": UNIT_TEST,
    "linking instruction unknown at %p instruction %d": UNIT_TEST,
    "hash table index overflow": UNIT_TEST,
    "plugin %d added code for overridden instruction (%p)": UNIT_TEST,
    "plugin %d set replace_inst for a disallowed event (at %p)": UNIT_TEST,
    "unknown trap code": UNIT_TEST,
    "more shared files are mapped than are kept": "a program would have to map a thousand files",
    "the application signs return addresses with their place in the code (FEAT_PAuth_LR), which is not supported: "
    "build it without": UNIT_TEST,
    "synchronous signal outside the code cache": UNIT_TEST,
    "unhandled auxv entry type: %ld": UNIT_TEST,
    "signal %d, SIG%s (code %d, address %p) at pc 0x%llx, %s": UNIT_TEST,
    "thread %d: the newest fragment is %d, of source 0x%lx, %s": UNIT_TEST,
    "%s %s": "its words are composed: last_words_test holds them",
    "the records of the thread cannot be read any further": UNIT_TEST,
    "the application enters streaming mode of the Scalable Matrix Extension (smstart at %p): it cannot be traced; "
    "build it, or choose its libraries, without SME": UNIT_TEST,
    "unexpected return from elf_run": UNIT_TEST,
    "failed to add hash table entry for newly created stub basic block": OWN_DEFECT,
    "insert_cond_exit_branch(): unknown branch type": OWN_DEFECT,
    "%d, inst: %p, :write: %p": OWN_DEFECT,
    "the cache is not what it should be: %s, at 0x%lx, 0x%lx": OWN_DEFECT,
    "an exit leads to 0x%lx, which is no trampoline": OWN_DEFECT,
    "[install_trace] Linking instruction unknown at %p instruction %d": OWN_DEFECT,
    "the exit at %p does not reach its trampoline": OWN_DEFECT,
    "direct branch (B or BL). (Not allowed)": OWN_DEFECT,
    "failed to put the trace of 0x%lx into the hash table": OWN_DEFECT,
    "trace %d has more exits than fragments": OWN_DEFECT,
    "a hot counter is not as long as its place": OWN_DEFECT,
    "trace dispatcher unknown %p": OWN_DEFECT,
    "unexpected return to completed thread": OWN_DEFECT,
    "unknown branch type: %d": OWN_DEFECT,
    "signal: interpreting of %d fragments not implemented": OWN_DEFECT,
    "Error freeing code cache on exit()": OWN_DEFECT,
    "Error freeing CC link struct on exit()": OWN_DEFECT,
    "Error freeing thread private structure on exit()": OWN_DEFECT,
    "a new thread has no memory for its %s: %s; clone fails with EAGAIN, later ones without a line; %s": NO_MEMORY,
    "failed to allocate initial thread data: %s; %s": NO_MEMORY,
    "allocating %s space failed: %s; %s": NO_MEMORY,
    "no memory left for the watch of the function at 0x%lx": NO_MEMORY,
}


def texts_of(*folders):
    """Level and text of every log call, from the sources."""
    found = set()
    for folder in folders:
        for path in sorted((source / folder).rglob("*.cpp")):
            for level, literals in CALL.findall(path.read_text(encoding="utf-8")):
                text = "".join(literal[1:-1] for literal in re.findall(LITERAL, literals))
                found.add((level, text.replace('\\"', '"').replace("\\n", "\n")))
    return found


def pattern_of(text):
    """A regular expression for log lines that the text makes."""
    fields = FIELD.split(text)
    return re.compile(rb"MORA \w+ " + b".*".join(re.escape(field.encode()) for field in fields) + rb"$", re.M)


class engine_log_test(unittest.TestCase):
    maxDiff = None

    def test_every_text_is_entered_once_and_none_is_gone(self):
        entered = [text for texts in RUNS.values() for text in texts] + list(WITHOUT_RUN)
        self.assertEqual(len(entered), len(set(entered)))
        self.assertEqual(sorted(entered), sorted({text for _, text in texts_of("src/bi", "src/elf")}))

    def test_texts_that_a_unit_test_brings_about_stand_in_one(self):
        tests = "".join(path.read_text(encoding="utf-8") for path in (source / "tests/unit").rglob("*.cpp"))
        tests = re.sub(r'"\s*\n\s*"', "", tests)
        for text, reason in WITHOUT_RUN.items():
            if reason == UNIT_TEST:
                words = max(FIELD.split(text), key=len).strip()
                self.assertTrue(words, text)
                self.assertIn(words, tests)


# Units of the engine's log that are not named as their source file, from the table in docs/engine.md.
UNIT_ROW = re.compile(r"^\| ((?:`\w+`(?:, )?)+) \| `(\w+)` \|$", re.M)


class log_unit_test(unittest.TestCase):
    maxDiff = None

    def test_each_source_of_the_engine_logs_by_its_own_name_or_by_that_of_the_table(self):
        text = (source / "docs/engine.md").read_text(encoding="utf-8")
        table = text[text.index("| Source | Unit of its lines |"):].split("\n\n")[0]
        units = {name: unit for names, unit in UNIT_ROW.findall(table) for name in re.findall(r"\w+", names)}
        self.assertTrue(units)
        found, expected = {}, {}
        for folder in ("src/bi", "src/elf"):
            for path in (source / folder).rglob("*.cpp"):
                name = re.search(r'engine_log log\{"([^"]*)"\}', path.read_text(encoding="utf-8"))
                if name:
                    found[path.stem] = name[1]
                    expected[path.stem] = folder + "/" + units.get(path.stem, path.stem)
        self.assertEqual(found, expected)
        self.assertLessEqual(set(units), set(found))

    def test_each_other_source_logs_by_its_own_name_but_for_the_one_that_keeps_its_earlier_unit(self):
        found, expected = {}, {}
        for path in (source / "src").rglob("*.cpp"):
            name = re.search(r'tool_log log\{"([^"]*)"\}', path.read_text(encoding="utf-8"))
            if name:
                file = str(path.relative_to(source).with_suffix(""))
                found[file] = name[1]
                expected[file] = {"src/run_benchmarks": "src/collector"}.get(file, file)
        self.assertEqual(found, expected)
        self.assertGreater(len(found), 10)


def add_run(words, texts):
    def test(self):
        process = subprocess.run([*emulator, os.path.join(programs, "mora_run"), os.path.join(programs, words[0]),
                                  *words[1:]], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                 stderr=subprocess.PIPE, timeout=SECONDS, check=False,
                                 env={**os.environ, "MORA_BI_LOG_LEVEL": "trace"})
        for text in texts:
            self.assertRegex(process.stderr, pattern_of(text), text)

    def assert_regex(self, log, pattern, text):
        self.assertTrue(pattern.search(log), f"no line of the log is \"{text}\"")

    engine_log_test.assertRegex = assert_regex
    setattr(engine_log_test, "test_texts_of_" + re.sub(r"\W", "_", words[0]), test)


for run_words, run_texts in RUNS.items():
    add_run(run_words, run_texts)


# Warnings and last lines of the tool whose words stand in no test, and the reasons.
WITHOUT_TEST = {
    "incorrect log output": "nothing but a defect of the log's leads there",
    "Cannot give up the rights that the tool's file lends": "the kernel would have to refuse that",
    "%s has %s: under the tracer it runs with the rights of the caller alone": "what such a file lends is held by "
                                                                               "privileges_test",
    "%s is built with %s": "what is said of a file is held by checked_build_test",
    "by the cache sizes of this machine: %s": "what stands behind it is held by row_sizes_test",
    "%s": "the words are composed, and held where they are",
}


class tool_log_test(unittest.TestCase):
    maxDiff = None

    def test_every_warning_of_the_tool_stands_in_a_test(self):
        folders = [(source / "tests").rglob(pattern) for pattern in ("*.cpp", "*.py", "*.h")]
        tests = "".join(path.read_text(encoding="utf-8") for paths in folders for path in paths
                        if path.name != os.path.basename(__file__))
        tests = re.sub(r'"\s*\n\s*"', "", tests)
        untold = set()
        for level, text in texts_of("src/common", "src/perfmon", "src/benchmarks", "src/bintracer") | own_texts():
            if level not in ("LEVEL_WARN", "LEVEL_FATAL"):
                continue
            words = [word.strip() for field in FIELD.split(text) for word in re.split("[:;(),]", field)]
            if not any(len(word) >= 8 and word in tests for word in words):
                untold.add(text)
        self.assertEqual(sorted(untold), sorted(WITHOUT_TEST))


# Warnings that no user can meet, so the documents do not have them.
UNDOCUMENTED = {
    "Bintracer's get_report method was called early, it is forbidden to call this method twice",
    "Error when run mora_run\n",
    "Wrong mode parameter in collector config.mode\n",
    "perfmon_utils_event_open_uncore failed with %s",
}


class documents_test(unittest.TestCase):
    maxDiff = None

    def test_every_warning_of_the_tool_is_in_the_documents(self):
        documents = "".join((source / name).read_text(encoding="utf-8")
                            for name in ("docs/troubleshooting.md", "README.md", "docs/regions.md"))
        words = " ".join(documents.split())
        missing = set()
        for level, text in texts_of("src/common", "src/perfmon", "src/benchmarks", "src/bintracer") | own_texts():
            if level not in ("LEVEL_WARN", "LEVEL_FATAL"):
                continue
            longest = max(FIELD.split(" ".join(text.split())), key=len).strip(" :.!,()")
            if longest not in words:
                missing.add(text)
        self.assertEqual(sorted(missing), sorted(UNDOCUMENTED))


def own_texts():
    """Those texts whose source lies in src itself."""
    found = set()
    for path in (source / "src").glob("*.cpp"):
        for level, literals in CALL.findall(path.read_text(encoding="utf-8")):
            text = "".join(literal[1:-1] for literal in re.findall(LITERAL, literals))
            found.add((level, text.replace('\\"', '"').replace("\\n", "\n")))
    return found


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
