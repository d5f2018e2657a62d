#!/usr/bin/python3
"""Compares the tracer's count of floating-point operations with a count by the emulator's plug-in.

counts_test.py [option...] TOOLS PROGRAM [ARGUMENT...]

Runs PROGRAM natively in the user-mode emulator, whose plug-in records how often each instruction word ran; the sum of
the words' operations by the FLOP table is what the "total" region of the traced run must have, exactly. Both runs must
have the same output and status.

TOOLS is the build folder. Options:
  --threads N    the region's "threads" must be N, and instructions are counted atomically
  --set NAME=VALUE  a variable of the program's environment, which otherwise has few and fixed ones
  --userland     PROGRAM is of the virtual machine's userland, found as PROGRAM below it
  --warns TEXT   the tool must warn once, in a line with TEXT, and of nothing else
  --keep DIR     leaves the files of both runs there
"""
import argparse
import json
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile

RUN_LIMIT = 900  # Seconds. A run that takes longer hangs.


def run(command, folder, environment):
    result = subprocess.run(command, cwd=folder, env=environment, stdin=subprocess.DEVNULL, capture_output=True,
                            timeout=RUN_LIMIT, check=False)
    return result.returncode, result.stdout, result.stderr


def application_lines(output):
    """The application's own output: without the tool's lines."""
    return b"".join(line for line in output.splitlines(keepends=True) if not line.startswith(b"CEILMETER: "))


def userland():
    """The folder of the virtual machine's userland, fetched if it is not there."""
    folder = pathlib.Path(__file__).resolve().parents[3] / "tools/vm"
    script = '. "$0/common.sh"; vm_have_all || "$0/fetch" >&2; printf %s "$vm_userland"'
    return subprocess.run(["bash", "-c", script, str(folder)], capture_output=True, text=True, timeout=RUN_LIMIT,
                          check=True).stdout


def differences(options, expected, native, traced, result):
    """(what is wrong, operations, threads): of the two runs, each (status, output, error output), and of the result
    file."""
    failures = []
    if native[0] != 0:
        failures.append(f"the program fails natively: status {native[0]}, {native[2][-1000:]!r}")
    if traced[0] != native[0]:
        failures.append(f"status: native {native[0]}, traced {traced[0]}")
    if application_lines(traced[1]) != native[1]:
        failures.append(f"output: native {native[1][-500:]!r}, traced {traced[1][-500:]!r}")
    if options.warns:
        warnings = [line for line in traced[2].splitlines(keepends=True) if b" MORA warn " in line]
        if len(warnings) != 1 or options.warns.encode() not in warnings[0]:
            failures.append(f"{options.warns!r} is not the one warning: {warnings!r}")
        others = [line for line in traced[2].splitlines(keepends=True) if line not in warnings]
        traced = (*traced[:2], b"".join(others))
    if traced[2] != native[2]:
        failures.append(f"error output: native {native[2][-1000:]!r}, traced {traced[2][-1000:]!r}")
    flop = threads = None
    if result.exists():
        region = json.loads(result.read_text(encoding="utf-8"))["regions"]["total"]
        flop, threads = region["flop"], region["threads"]
    else:
        failures.append("the traced run has left no result file")
    if flop != expected:
        difference = flop - expected if flop is not None else None
        failures.append(f"flop: expected {expected}, counted {flop}, difference {difference}")
    if options.threads and threads != options.threads:
        failures.append(f"threads: expected {options.threads}, counted {threads}")
    if expected == 0:
        failures.append("the program does no floating-point work: the comparison says nothing")
    return failures, flop, threads


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--threads", type=int, default=0)
    parser.add_argument("--userland", action="store_true")
    parser.add_argument("--set", action="append", default=[])
    parser.add_argument("--warns")
    parser.add_argument("--keep")
    parser.add_argument("tools")
    parser.add_argument("command", nargs=argparse.REMAINDER)
    options = parser.parse_args()

    tools = pathlib.Path(options.tools).resolve()
    emulator = [os.environ.get("CEILMETER_EMULATOR", "qemu-aarch64")]
    if options.userland:
        root = userland()
        emulator += ["-L", root]
        options.command[0] = root + options.command[0]
        options.command = [word.replace("@ROOT@", root) for word in options.command]
        options.set = [setting.replace("@ROOT@", root) for setting in options.set]
    plugin = tools / "tests/emulator_plugin/instruction_counts.so"
    environment = {"PATH": "/usr/bin:/bin", "HOME": "/nonexistent", "LANG": "C.UTF-8", "PYTHONHASHSEED": "0",
                   "PYTHONDONTWRITEBYTECODE": "1"}
    emulator += [word for setting in options.set for word in ("-E", setting)]

    scratch = options.keep or tempfile.mkdtemp(prefix="tracer-counts-")
    os.makedirs(scratch, exist_ok=True)
    folder = pathlib.Path(scratch)
    try:
        words = folder / "words.txt"
        extra = ",threads=on" if options.threads else ""
        native = run(emulator + ["-plugin", f"{plugin},words={words}{extra}"] + options.command, folder, environment)
        counted = subprocess.run(["qemu-aarch64", str(tools / "tests/system/tracer/flop_of_words")],
                                 stdin=words.open(), capture_output=True, text=True, timeout=RUN_LIMIT, check=True)
        expected = int(counted.stdout)

        result = folder / "result.json"
        result.unlink(missing_ok=True)
        traced = run(emulator + [str(tools / "ceilmeter"), "--phase=bintracer", "-o", str(result), "--"]
                     + options.command, folder, environment)
        failures, flop, threads = differences(options, expected, native, traced, result)
        print(f"{' '.join(options.command)}: flop {flop}, threads {threads}")
        for failure in failures:
            print(f"FAILED {failure}")
        return 1 if failures else 0
    finally:
        if not options.keep:
            shutil.rmtree(scratch)


if __name__ == "__main__":
    sys.exit(main())
