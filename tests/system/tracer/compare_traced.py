#!/usr/bin/python3
"""Runs each line of lists of programs natively and under the tracer, and compares.

compare_traced.py [--root DIR] [--pattern REGEX] [--work] [--succeed] TOOL LIST...

The lists are those of the engine's tests: a line is a shell command in which $RUN stands before the programs that are
meant, $ROOT before the paths of programs, $PROGRAMS for the folder of the project's own programs, $LISTS for the
list's. Standard output, standard error and status must be the same, but for the tool's own lines. Every traced program
that ends with a status must leave a result file, and what the files say must agree with itself. A line whose program
goes on as another one, which is not traced, sets REPLACES_ITSELF. With --work at least one block must have been counted
in all, and with --succeed the native status is 0: a line that stops at a mistake of its own compares nothing.

For each line it prints the seconds natively and traced, and the number of result files and of blocks in them.

With CEILMETER_EMULATOR set, both sides run in that command; --root is the userland then. CEILMETER_ENGINE_SECONDS is
the time after which a line hangs.
"""
import argparse
import json
import os
import pathlib
import re
import shlex
import shutil
import signal
import subprocess
import sys
import tempfile
import time

LIMIT = int(os.environ.get("CEILMETER_ENGINE_SECONDS", "600"))  # A line that takes longer hangs.


def run_line(line, run_words, work, environment):
    shutil.rmtree(work, ignore_errors=True)
    work.mkdir()
    begin = time.monotonic()
    # The outputs go to files. A pipe would end only when all processes that the line has left running have ended.
    with tempfile.TemporaryFile() as out, tempfile.TemporaryFile() as err:
        with subprocess.Popen(["sh", "-c", line], cwd=work, stdin=subprocess.DEVNULL, stdout=out, stderr=err,
                              env={**environment, "RUN": run_words}, start_new_session=True) as shell:
            try:
                status = shell.wait(LIMIT)
            except subprocess.TimeoutExpired:
                status = "timeout"
            try:
                os.killpg(shell.pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
        out.seek(0)
        err.seek(0)
        outcome = {"status": status, "output": out.read(), "error output": err.read()}
    return outcome, time.monotonic() - begin


def check_result(path):
    """The number of blocks in a result file, which has to agree with itself."""
    result = json.loads(path.read_text(encoding="utf-8"))
    total = result["regions"]["total"]
    flop = result["bb_keys"].index("flop")
    count = result["bb_keys"].index("count")
    if not all(block[count] > 0 and block[flop] > 0 for block in total["bbs"]):
        raise ValueError("a block with work has a count")
    if total["flop"] != sum(block[flop] * block[count] for block in total["bbs"]):
        raise ValueError("the operations are the sum over the blocks")
    return len(total["bbs"])


def check_results(folder):
    """What is wrong with the result files of one line, how many there are, and their blocks. Removes them."""
    problems, files, blocks = [], 0, 0
    for path in sorted(folder.iterdir()):
        try:
            blocks += check_result(path)
            files += 1
        except (OSError, ValueError, KeyError, IndexError, TypeError) as error:
            problems.append(f"{path.name}: {error!r}")
        path.unlink()
    return problems, files, blocks


def lines_of(path, pattern):
    for line in path.read_text(encoding="utf-8").splitlines():
        if line and not line.startswith("#") and re.search(pattern, line):
            yield line


def compare_line(line, words, work, environment):
    """Prints how the line went. Whether it was the same, and the number of blocks."""
    native, native_seconds = run_line(line, words["native"], work, environment)
    traced, traced_seconds = run_line(line, words["traced"], work, environment)
    problems = [part for part in native if native[part] != traced[part]]
    if native["status"] in (126, 127, "timeout"):
        problems.append("it does not run natively")
    elif native["status"] != 0 and words["succeed"]:
        problems.append("it fails natively")
    faults, files, blocks = check_results(words["results"])
    problems += faults
    # A line with nothing to trace would compare the program with itself. One that a signal ends leaves no file.
    if not problems and files == 0 and native["status"] <= 128 and "REPLACES_ITSELF" not in line:
        problems.append("nothing was traced")
    figures = (f"status {native['status']}, {native_seconds:.1f} s, traced {traced_seconds:.1f} s, {files} results, "
               f"{blocks} blocks")
    print(f"{'FAIL' if problems else 'ok  '}  [{figures}] {line}{': ' if problems else ''}{', '.join(problems)}")
    if problems:
        print(f"    native: {str(native)[:1200]}\n    traced: {str(traced)[:1200]}")
    sys.stdout.flush()
    return not problems, blocks


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--root", default="")
    parser.add_argument("--pattern", default="")
    parser.add_argument("--work", action="store_true")
    parser.add_argument("--succeed", action="store_true")
    parser.add_argument("tool")
    parser.add_argument("lists", nargs="+")
    options = parser.parse_args()
    tool = pathlib.Path(options.tool).resolve()
    programs = tool.parent / "tests/programs"
    scratch = pathlib.Path(tempfile.mkdtemp(prefix="traced-"))
    results = scratch / "results"
    results.mkdir()
    # Programs of other users write there as well.
    scratch.chmod(0o755)
    results.chmod(0o777)
    emulator = shlex.split(os.environ.get("CEILMETER_EMULATOR", ""))
    # Both sides run in it, so that both have the same kind of standard output.
    relay = emulator + [str(programs / "tracer/without_tool_lines")] + emulator
    tracing = [str(tool), "--phase=bintracer", "-o", f"{results}/%p.json", "--"]
    words = {"native": shlex.join(relay), "traced": shlex.join(relay + tracing), "results": results,
             "succeed": options.succeed}
    passed = failed = blocks = 0
    try:
        for path in map(pathlib.Path, options.lists):
            environment = {**os.environ, "PROGRAMS": str(programs), "ROOT": options.root,
                           "LISTS": str(path.resolve().parent)}
            for line in lines_of(path, options.pattern):
                same, more = compare_line(line, words, scratch / "work", environment)
                passed += same
                failed += not same
                blocks += more
    finally:
        shutil.rmtree(scratch)
    print(f"{passed} passed, {failed} failed, {blocks} blocks")
    return 0 if passed and not failed and (blocks or not options.work) else 1


if __name__ == "__main__":
    sys.exit(main())
