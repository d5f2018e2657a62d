#!/usr/bin/python3
"""What a start and a stop of a region cost, in instructions, counted by a plug-in of the user-mode emulator
(tests/emulator_plugin): the difference between two runs that differ in their number of pairs alone.

region_cost.py [--build DIR]

  alone     the marked program by itself: the calls do nothing
  tracer    under ceilmeter --mode=region --phase=bintracer: the tracer's handlers, its flush of the block counters, and
            the calls through the engine
Counters cost system calls, whose price no count of user-mode instructions tells. In every pair there is one round of
the script's work, which is subtracted. Status 1 if a count cannot be right.
"""
import argparse
import os
import subprocess
import sys
import tempfile

TOP = os.path.dirname(os.path.dirname(os.path.realpath(__file__)))
FEW, MANY = 200, 1200
# The figures contain the script's own loop of one pair: a call of the work, and the script's three calls.
WORK = 3  # fmadd, subs, b.ne


def instructions(build, words, folder):
    """The instructions of one run under the emulator."""
    summary = os.path.join(folder, "summary")
    plugin = f"{build}/tests/emulator_plugin/instruction_counts.so"
    run = subprocess.run(
        ["qemu-aarch64", "-plugin", f"{plugin},summary={summary}", *words],
        check=False, capture_output=True, text=True, timeout=600, cwd=folder,
    )
    if run.returncode != 0 or "done\n" not in run.stdout:
        raise RuntimeError(f"{words} ended with {run.returncode}:\n{run.stdout}{run.stderr}")
    with open(summary, encoding="ascii") as file:
        return int(dict(line.split(maxsplit=1) for line in file)["total"])


def per_pair(build, prefix, folder):
    """Instructions of one pair, without the work inside."""
    script = f"{build}/tests/programs/regions/region_script"
    counts = [
        instructions(build, [*prefix, script, "init", f"pairs={pairs}:r", "finalize"], folder) for pairs in (FEW, MANY)
    ]
    return (counts[1] - counts[0]) / (MANY - FEW) - WORK


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", default=f"{TOP}/build/release")
    build = os.path.realpath(parser.parse_args().build)
    os.environ.pop("ROOFLINE_REPORT_FILE", None)
    with tempfile.TemporaryDirectory() as folder:
        alone = per_pair(build, [], folder)
        tool = [f"{build}/ceilmeter", "--mode=region", "--phase=bintracer", "-o", f"{folder}/result.json"]
        tracer = per_pair(build, tool, folder)
    print(f"instructions of a start and a stop, with the loop around them: alone {alone:.1f}, tracer {tracer:.1f}")
    # A disabled call is load, test and return, reached through the linker's stub; the loop adds its own calls.
    if not 0 < alone < 64 or tracer <= alone:
        print("that cannot be right")
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
