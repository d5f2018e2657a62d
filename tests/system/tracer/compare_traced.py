#!/usr/bin/python3
"""Runs each line of lists of programs natively and under the tracer, and compares.

compare_traced.py [--root DIR] [--pattern REGEX] TOOL LIST...

The lists are those of the engine's tests: a line is a shell command in which $RUN stands before the programs that are
meant, $ROOT before the paths of programs, $PROGRAMS for the folder of the project's own programs, $LISTS for the
list's. Standard output, standard error and status must be the same, but for the tool's own lines, and every traced
program must leave a result file. With CEILMETER_EMULATOR set, both sides run in that command; --root is the userland
then.
"""
import argparse
import json
import os
import pathlib
import re
import shlex
import shutil
import subprocess
import sys
import tempfile

RUN_LIMIT = 600  # A line that takes longer hangs.
TOOL_LINES = re.compile(rb'CEILMETER: (?:Start collection for|Launch application to do binary instrumentation of'
                        rb'|Processing all collected data|Result is captured at|Run "ceilview)[^\n]*\n')


def run_traced():
    """compare_traced.py --traced TOOL FOLDER PROGRAM...: this process becomes the tool, which traces the program."""
    tool, folder, words = sys.argv[2], sys.argv[3], sys.argv[4:]
    emulator = shlex.split(os.environ.get("CEILMETER_EMULATOR", ""))
    handle, result = tempfile.mkstemp(dir=folder, suffix=".json")
    os.close(handle)
    os.unlink(result)
    traced = subprocess.run(emulator + [tool, "--phase=bintracer", "-o", result, "--"] + words, stdout=subprocess.PIPE,
                            check=False)
    sys.stdout.buffer.write(TOOL_LINES.sub(b"", traced.stdout))
    sys.stdout.flush()
    # A process that a signal ends has no exit to finish at, natively and here.
    if traced.returncode >= 0:
        try:
            with open(result, encoding="utf-8") as file:
                json.load(file)["regions"]["total"]
        except (OSError, ValueError, KeyError) as error:
            with open(os.path.join(folder, "without_result"), "a", encoding="utf-8") as file:
                file.write(f"{shlex.join(words)}: {error!r}\n")
    return traced.returncode if traced.returncode >= 0 else 128 - traced.returncode


def run_line(line, run_words, work, environment):
    shutil.rmtree(work, ignore_errors=True)
    work.mkdir()
    # The outputs go to files. A pipe would end only when all processes that the line has left running have ended.
    with tempfile.TemporaryFile() as out, tempfile.TemporaryFile() as err:
        try:
            status = subprocess.run(["sh", "-c", line], cwd=work, stdin=subprocess.DEVNULL, stdout=out, stderr=err,
                                    env={**environment, "RUN": run_words}, timeout=RUN_LIMIT, check=False).returncode
        except subprocess.TimeoutExpired:
            status = "timeout"
        out.seek(0)
        err.seek(0)
        return {"status": status, "output": out.read(), "error output": err.read()}


def lines_of(path, pattern):
    for line in path.read_text(encoding="utf-8").splitlines():
        if line and not line.startswith("#") and re.search(pattern, line):
            yield line


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--root", default="")
    parser.add_argument("--pattern", default="")
    parser.add_argument("tool")
    parser.add_argument("lists", nargs="+")
    options = parser.parse_args()
    tool = pathlib.Path(options.tool).resolve()
    scratch = pathlib.Path(tempfile.mkdtemp(prefix="traced-"))
    results = scratch / "results"
    results.mkdir()
    passed = failed = 0
    try:
        for path in map(pathlib.Path, options.lists):
            environment = {**os.environ, "PROGRAMS": str(tool.parent / "tests/programs"), "ROOT": options.root,
                           "LISTS": str(path.resolve().parent)}
            traced_words = shlex.join([sys.executable, os.path.abspath(__file__), "--traced", str(tool), str(results)])
            for line in lines_of(path, options.pattern):
                native = run_line(line, os.environ.get("CEILMETER_EMULATOR", ""), scratch / "work", environment)
                traced = run_line(line, traced_words, scratch / "work", environment)
                problems = [part for part in native if native[part] != traced[part]]
                if native["status"] in (126, 127):
                    problems.append("it does not run natively")
                missing = results / "without_result"
                if missing.exists():
                    problems.append("no result file: " + missing.read_text(encoding="utf-8"))
                    missing.unlink()
                passed += not problems
                failed += bool(problems)
                print(f"{'FAIL' if problems else 'ok  '}  {line}{': ' if problems else ''}{', '.join(problems)}")
                if problems:
                    print(f"    native: {str(native)[:1200]}\n    traced: {str(traced)[:1200]}")
                sys.stdout.flush()
    finally:
        shutil.rmtree(scratch)
    print(f"{passed} passed, {failed} failed")
    return 0 if passed and not failed else 1


if __name__ == "__main__":
    sys.exit(run_traced() if sys.argv[1:2] == ["--traced"] else main())
