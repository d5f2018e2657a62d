#!/usr/bin/python3
"""Times programs under the engine and under the tool's tracer. For comparison it times them under the tool of Valgrind
that does nothing.

engine_time.py [--build DIR] [--runs N] [--cpus N] [--list FILE] [--zoo] [PATTERN]

Times each program of bench/engine_time.txt in one boot of the virtual machine: natively, under the bare engine
(mora_run), under the tool in its bintracer phase over the whole application, and under Valgrind's tool "none", Debian's
package for arm64, which is fetched and unpacked beside the virtual machine's userland. Prints the median of the runs of
each in seconds, and the tracer's time over Valgrind's. The four ways take turns, so that whatever else the machine does
meets them all alike. PATTERN chooses lines of the list by a regular expression. --list takes another list of this
folder, --zoo the virtual machine's second userland. A way that Valgrind does not run, or runs otherwise, is told and
left without a time.

The processor is an emulated one: only the relation of the times means something, and what such a processor pays most
for, code that it meets for the first time, weighs on both. A benchmark: nothing passes or fails by it, except that all
four must have the same output and status.
"""
import argparse
import os
import shlex
import statistics
import subprocess
import sys
import tempfile
import time

import engine_cost

# Folders in the virtual machine.
BUILD, VALGRIND = "/build", "/valgrind"
COMPARED = "valgrind"  # Only its time is of interest, not what it makes of a program.
WAYS = {"native": "", "engine": f"{BUILD}/tests/programs/mora_run",
        "tracer": f"{BUILD}/ceilmeter --phase=bintracer --output=result.json",
        "valgrind": f"env VALGRIND_LIB={VALGRIND}/usr/libexec/valgrind {VALGRIND}/usr/bin/valgrind.bin --tool=none -q"}


def unpacked_valgrind(userland):
    """The folder of Debian's package, fetched if it is not there."""
    folder = os.path.join(os.path.dirname(userland), "valgrind")
    if not os.path.isdir(folder):
        unfinished = folder + ".new"
        os.makedirs(unfinished, exist_ok=True)
        script = 'apt-get download -q valgrind:arm64 && dpkg-deb -x valgrind_*_arm64.deb . && rm valgrind_*_arm64.deb'
        subprocess.run(["sh", "-c", script], cwd=unfinished, check=True, stdout=sys.stderr)
        os.rename(unfinished, folder)
    return folder


def run(way, line):
    """(seconds, status, output, messages) of one run."""
    assignments = (f"RUN={shlex.quote(WAYS[way])}; EMULATE=; ROOT=; PROGRAMS={BUILD}/bench; "
                   f"LISTS={engine_cost.HERE}; ")
    with tempfile.TemporaryDirectory() as scratch:
        begin = time.monotonic()
        done = subprocess.run(["sh", "-c", assignments + line], cwd=scratch, stdin=subprocess.DEVNULL, check=False,
                              capture_output=True)
        seconds = time.monotonic() - begin
    output = engine_cost.without_lines_of_the_tool(done.stdout) if way == "tracer" else done.stdout
    return seconds, done.returncode, output, done.stderr


def time_all(runs, path, pattern):
    """In the virtual machine: times the list. True if the engine and the tracer had the native output."""
    print(f"{'program':<14}" + "".join(f"{way:>10}" for way in WAYS) + f"{'tracer/valgrind':>17}", flush=True)
    right = True
    for name, line in engine_cost.read_list(path, pattern):
        seconds = {way: [] for way in WAYS}
        results = {}
        ways = list(WAYS)
        for _ in range(runs):
            for way in list(ways):
                spent, *result, messages = run(way, line)
                seconds[way].append(spent)
                if results.setdefault(way, result) != results["native"] or result != results["native"]:
                    print(f"engine_time: {name}: {way} differs from native: status {result[0]}, "
                          f"{len(result[1])} bytes, {messages[-300:]!r}", file=sys.stderr)
                    right = right and way == COMPARED
                    if way == COMPARED:
                        ways.remove(way)
        median = {way: statistics.median(seconds[way]) for way in ways}
        print(f"{name:<14}" + "".join(f"{median[way]:>10.2f}" if way in median else f"{'-':>10}" for way in WAYS)
              + (f"{median['tracer'] / median[COMPARED]:>17.2f}" if COMPARED in median else ""), flush=True)
    return right


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("pattern", nargs="?", default=".")
    parser.add_argument("--build", default=os.path.join(engine_cost.TOP, "build", "release"))
    parser.add_argument("--runs", type=int, default=3)
    parser.add_argument("--cpus", type=int, default=2)
    parser.add_argument("--list", default="engine_time.txt")
    parser.add_argument("--zoo", action="store_true")
    parser.add_argument("--inside", action="store_true", help=argparse.SUPPRESS)
    arguments = parser.parse_args()
    if arguments.inside:
        path = os.path.join(engine_cost.HERE, arguments.list)
        sys.exit(0 if time_all(arguments.runs, path, arguments.pattern) else 1)
    subprocess.run([os.path.join(engine_cost.TOP, "tools", "vm", "fetch")], check=True, stdout=sys.stderr)
    valgrind = unpacked_valgrind(engine_cost.userland_of_the_virtual_machine())
    options = ["--zoo", "--memory", "4096"] if arguments.zoo else []
    sys.exit(subprocess.run([os.path.join(engine_cost.TOP, "tools", "vm", "run"), *options, "--build", arguments.build,
                             "--cpus", str(arguments.cpus), "--timeout", "3600", "--share", f"valgrind={valgrind}",
                             "--", "/src/bench/engine_time.py", "--inside", "--list", arguments.list, "--runs",
                             str(arguments.runs), arguments.pattern], check=False).returncode)


if __name__ == "__main__":
    main()
