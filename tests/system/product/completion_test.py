#!/usr/bin/python3
"""Tests the completion of the command lines in an interactive bash that has read the completion files. The tests type
keys into it and look at its line.

completion_test.py SOURCE CEILMETER CEILVIEW EMULATOR...
"""
import os
import pty
import re
import select
import shutil
import subprocess
import sys
import tempfile
import time
import unittest

source, tool, viewer, *emulator = sys.argv[1:]
completion = os.path.join(source, "packaging/ceilmeter.bash")
viewer_completion = os.path.join(source, "packaging/ceilview.bash")
SECONDS = 60  # A run that takes longer hangs.
SHOW_LINE = "\x18p"  # Control-X p, bound below.


class shell:
    """An interactive bash in `folder`."""

    def __init__(self, folder, *before):
        self.pid, self.terminal = pty.fork()
        if self.pid == 0:
            os.chdir(folder)
            os.environ.update({"PS1": "", "TERM": "dumb", "HOME": folder, "LC_ALL": "C", "INPUTRC": "/dev/null"})
            os.execvp("bash", ["bash", "--norc", "--noprofile", "-i"])
        for line in ("bind 'set bell-style none'", "bind 'set completion-query-items 0'",
                     "bind 'set page-completions off'",
                     # Control-X p prints the current line between two marks.
                     r"""bind -x '"\C-xp": printf "<%s>\n" "$READLINE_LINE"'""",
                     *before, f"source '{completion}'; source '{viewer_completion}'", "printf '<%s>\\n' ready"):
            os.write(self.terminal, line.encode() + b"\n")
        self.seen = b""
        self.wait_for(rb"<(ready)>")

    def wait_for(self, pattern):
        """Waits for a match in what the shell prints, returns the last one, and forgets the output so far."""
        deadline = time.monotonic() + SECONDS
        while not re.search(pattern, self.seen):
            if not select.select([self.terminal], [], [], max(0, deadline - time.monotonic()))[0]:
                raise AssertionError(f"the shell has said nothing more than {self.seen!r}")
            self.seen += os.read(self.terminal, 65536)
        found = re.findall(pattern, self.seen)[-1]
        self.seen = b""
        return found.decode()

    def line_after(self, keys):
        os.write(self.terminal, (keys + SHOW_LINE).encode())
        line = self.wait_for(rb"<([^>]*)>\r?\n")
        os.write(self.terminal, b"\x15")  # Control-U empties the line.
        return line

    def close(self):
        os.close(self.terminal)
        os.waitpid(self.pid, 0)


def usage_options(program):
    """The options of the help text: they stand in front of the dash of the explanation."""
    usage = subprocess.run([*emulator, program, "--help"], capture_output=True, text=True, timeout=SECONDS,
                           check=True).stdout
    return {word for line in usage.splitlines() if line.startswith("    -")
            for word in re.findall(r"(?<![\w-])--?[a-zA-Z][\w-]*", line.split(" - ")[0])}


def offered_options(script):
    """What the completion in the file `script` offers for a single dash."""
    name = os.path.basename(script).removesuffix(".bash")
    text = (f"source '{script}'; COMP_WORDS=({name} -) COMP_CWORD=1; _{name} 2> /dev/null; "
            "printf '%s\n' \"${COMPREPLY[@]}\"")
    offered = subprocess.run(["bash", "-c", text], capture_output=True, text=True, timeout=SECONDS, check=True).stdout
    return {word.rstrip("=") for word in offered.split()}


class completion_test(unittest.TestCase):
    before = ()

    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="completion_")
        self.addCleanup(shutil.rmtree, self.folder)
        for name, mode in (("solver", 0o755), ("solver_input.txt", 0o644), ("my program", 0o755), ("notes.md", 0o644)):
            path = os.path.join(self.folder, name)
            with open(path, "w", encoding="utf-8"):
                pass
            os.chmod(path, mode)
        os.mkdir(os.path.join(self.folder, "some_folder"))
        self.bash = shell(self.folder, *self.before)
        self.addCleanup(self.bash.close)

    def check(self, typed, line):
        self.assertEqual(self.bash.line_after(typed), line)

    def test_options_are_completed_and_values_wait_behind_the_equals_sign(self):
        self.check("ceilmeter --mo\t", "ceilmeter --mode=")
        self.check("ceilmeter --ver\t", "ceilmeter --version ")
        self.check("ceilmeter --log-a\t", "ceilmeter --log-append ")
        self.check("ceilmeter --ben\t", "ceilmeter --benchmarks_num_threads=")

    def test_values_are_completed_behind_the_equals_sign_and_behind_a_blank(self):
        self.check("ceilmeter --mode=r\t", "ceilmeter --mode=region ")
        self.check("ceilmeter --mode r\t", "ceilmeter --mode region ")
        self.check("ceilmeter --phase=ben\t", "ceilmeter --phase=benchmarks ")
        self.check("ceilmeter --mode=total --phase=p\t", "ceilmeter --mode=total --phase=perfmon ")
        self.check("ceilmeter -l w\t", "ceilmeter -l warn ")
        self.check("ceilmeter --log-level=de\t", "ceilmeter --log-level=debug ")

    def test_files_are_completed_for_options_that_take_one(self):
        self.check("ceilmeter -o no\t", "ceilmeter -o notes.md ")
        self.check("ceilmeter --output=no\t", "ceilmeter --output=notes.md ")
        self.check("ceilmeter --log-file std\t", "ceilmeter --log-file std")
        self.check("ceilmeter --log-file stdo\t", "ceilmeter --log-file stdout ")
        self.check("ceilmeter --log-file no\t", "ceilmeter --log-file notes.md ")

    def test_application_is_a_program_or_a_folder_on_the_way_to_one(self):
        self.check("ceilmeter solver\t", "ceilmeter solver ")
        self.check("ceilmeter ./sol\t", "ceilmeter ./solver ")
        self.check("ceilmeter no\t", "ceilmeter no")
        self.check("ceilmeter some\t", "ceilmeter some_folder/")
        self.check("ceilmeter my\t", "ceilmeter my\\ program ")
        self.check("ceilmeter --phase=perfmon -- solver\t", "ceilmeter --phase=perfmon -- solver ")

    def test_words_behind_the_application_are_its_own(self):
        self.check("ceilmeter solver no\t", "ceilmeter solver notes.md ")
        self.check("ceilmeter solver --mo\t", "ceilmeter solver --mo")
        self.check("ceilmeter -o r.json solver solver_\t", "ceilmeter -o r.json solver solver_input.txt ")
        self.check("ceilmeter -- solver no\t", "ceilmeter -- solver notes.md ")

    def test_words_behind_the_application_are_left_to_the_general_completion_where_there_is_one(self):
        # bash-completion's function of this name, in small: $1 is the place of the command in COMP_WORDS.
        for words, place in ((["--mode", "=", "total", "app", "x"], 4), (["-o", "r", "--", "app", "x"], 4),
                             (["app", "x"], 1)):
            script = (f"source '{completion}'; _command_offset() {{ printf 'from %s' \"$1\"; }}; "
                      f"COMP_WORDS=(ceilmeter {' '.join(words)}) COMP_CWORD={len(words)}; _ceilmeter")
            done = subprocess.run(["bash", "-c", script], capture_output=True, text=True, timeout=SECONDS, check=True)
            self.assertEqual((done.stdout, done.stderr), (f"from {place}", ""))

    def test_every_option_of_the_help_texts_is_offered_and_no_other(self):
        for script, program, at_least in ((completion, tool, 13), (viewer_completion, viewer, 18)):
            in_usage = usage_options(program)
            self.assertEqual(offered_options(script), in_usage)
            self.assertGreaterEqual(len(in_usage), at_least)

    def test_options_and_values_of_the_viewer_are_completed(self):
        self.check("ceilview --base\t", "ceilview --baseline=")
        self.check("ceilview --short\t", "ceilview --short-paths ")
        self.check("ceilview --level=D\t", "ceilview --level=DDR ")
        self.check("ceilview --level D\t", "ceilview --level DDR ")
        self.check("ceilview --blocks=\t", "ceilview --blocks=all ")
        self.check("ceilview --modules=some\t", "ceilview --modules=some_folder/")
        self.check("ceilview -o no\t", "ceilview -o notes.md ")

    def test_files_of_the_viewer_are_result_files_or_folders_on_the_way_to_one(self):
        with open(os.path.join(self.folder, "solver.roofline.json"), "w", encoding="utf-8"):
            pass
        self.check("ceilview sol\t", "ceilview solver.roofline.json ")
        self.check("ceilview --svg some\t", "ceilview --svg some_folder/")
        self.check("ceilview --baseline=sol\t", "ceilview --baseline=solver.roofline.json ")
        self.check("ceilview --title x sol\t", "ceilview --title x solver.roofline.json ")
        self.check("ceilview a.json -- --sv\t", "ceilview a.json -- --sv")


class completion_without_breaks_at_equals_signs_test(completion_test):
    """Some users remove "=" from the characters that break words."""

    before = ('COMP_WORDBREAKS="${COMP_WORDBREAKS//=}"',)


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], "-v"])
