#!/usr/bin/python3
"""What the tool needs beside the application: memory, room for the result file, and time for the finishing step.

tool_memory.py [--build DIR] [--list FILE] [--roofs N,N...] [--json FILE] [PATTERN]

Runs each program of a list natively, under the bare engine (mora_run), and under the tool's bintracer phase over the
whole application, and prints

  native     the most that the application had in memory at one time, in KiB
  engine     the same under the bare engine, and tracer under the tool; "+" is the difference to the native peak
  blocks     of the result file, all of its regions, and its size in bytes
  finishing  seconds from the end of the application to the end of the run: the report of the tracer, the result file
  run        seconds of the whole run under the tool, and natively

and behind them the peaks of the other two phases: of the tool itself while it waits for an application under the
counters, which is small, and while it measures the roofs for each number of threads of --roofs (none: leave it out).
Where a program starts others, the peak is that of the largest process.

It wants a kernel below it that runs AArch64 programs by itself: in a user-mode emulator a program's memory is mostly
the emulator's. From elsewhere:

  tools/vm/run --cpus 1 --timeout 900 -- /src/bench/tool_memory.py --build /build

Memory differs by some ten KiB from run to run. Seconds in a virtual machine compare with each other and with nothing
else. PATTERN chooses lines of the list by a regular expression. Status 1 if a run's output or status is not that of the
native run, or a figure cannot be right.
"""
import argparse
import json
import os
import re
import shlex
import subprocess
import sys
import tempfile

HERE = os.path.dirname(os.path.realpath(__file__))
TOP = os.path.dirname(HERE)
sys.dont_write_bytecode = True
sys.path.insert(0, HERE)
from engine_cost import CountError, read_list, without_lines_of_the_tool  # noqa: E402 (beside this file, in no package)

LOG_LINE = re.compile(r"\[(\d+\.\d+):(\d+)\] +(\S+?):\d+ +MORA info (.*)")


def finishing_seconds(log):
    """Returns the seconds from the end of the last thread to the last line. Both lines have the number of the thread
    that ended the application: children that the application has forked write to the same log."""
    with open(log, encoding="utf-8", errors="replace") as file:
        lines = [match for match in map(LOG_LINE.match, file) if match]
    ends = [line for line in lines if line[3] == "collector" and line[4].startswith("Finishing collection for ")]
    if len(ends) != 1:
        raise CountError(f"the log tells of {len(ends)} finished collections")
    last = [line for line in lines if line[2] == ends[0][2] and line[4].startswith("finish_thread, ")]
    if not last:
        raise CountError("the log tells of no thread's end")
    return float(ends[0][1]) - float(last[-1][1])


class Bench:
    def __init__(self, build, list_path):
        self.helper = os.path.join(build, "bench", "peak_memory")
        self.tool = os.path.join(build, "ceilmeter")
        self.engine = os.path.join(build, "tests", "programs", "mora_run")
        for path in (self.helper, self.tool, self.engine):
            if not os.path.exists(path):
                raise CountError(f"{path} is not there: build the targets peak_memory, ceilmeter and mora_run")
        self.variables = {"PROGRAMS": os.path.join(build, "tests", "programs"),
                          "LISTS": os.path.dirname(os.path.realpath(list_path))}

    def run(self, line, scratch, *prefix):
        """(status, output without the tool's own lines, peak in KiB, seconds) of one line behind `prefix`."""
        figures = os.path.join(scratch, "figures")
        run = shlex.join([self.helper, figures, *prefix])
        variables = {**self.variables, "RUN": run}
        assignments = "".join(f"{name}={shlex.quote(value)}; " for name, value in variables.items())
        # A line has $RUN unquoted, so RUN may be several words.
        done = subprocess.run(["sh", "-c", assignments + line], cwd=scratch, stdin=subprocess.DEVNULL, check=False,
                              capture_output=True, timeout=1800,
                              env={"PATH": os.environ["PATH"], "LC_ALL": "C", "PYTHONHASHSEED": "0",
                                   "PYTHONDONTWRITEBYTECODE": "1"})
        if done.stderr:
            raise CountError(f"said {done.stderr[-600:]!r}")
        with open(figures, encoding="ascii") as file:
            peak, seconds = file.read().split()
        os.remove(figures)
        return done.returncode, without_lines_of_the_tool(done.stdout), int(peak), float(seconds)

    def measure(self, name, line):
        with tempfile.TemporaryDirectory() as scratch:
            result, log = (os.path.join(scratch, word) for word in ("result.json", "log"))
            status, output, native, native_seconds = self.run(line, scratch)
            outcomes = {"engine": self.run(line, scratch, self.engine),
                        "tracer": self.run(line, scratch, self.tool, "--phase=bintracer", "-l", "info",
                                           f"--log-file={log}", "-o", result)}
            for side, outcome in outcomes.items():
                if outcome[:2] != (status, output):
                    raise CountError(f"under the {side} status {outcome[0]} and {len(outcome[1])} bytes, "
                                     f"{status} and {len(output)} natively")
            with open(result, encoding="utf-8") as file:
                regions = json.load(file)["regions"].values()
            row = {"program": name, "native": native, "engine": outcomes["engine"][2], "tracer": outcomes["tracer"][2],
                   "blocks": sum(len(region["bbs"]) for region in regions), "bytes": os.path.getsize(result),
                   "finishing": finishing_seconds(log), "run": outcomes["tracer"][3], "native_run": native_seconds}
        if not 0 < native < row["engine"] or row["tracer"] <= native or not 0 < row["finishing"] < row["run"]:
            raise CountError(f"the figures cannot be right: {row}")
        return row

    def peak_of_phase(self, *words):
        with tempfile.TemporaryDirectory() as scratch:
            # This machine's counters may lack an event. The tool's warning of that has nothing to do with memory.
            line = "$RUN " + shlex.join([self.tool, "-l", "fatal", "-o", os.path.join(scratch, "result.json"), *words])
            status, _, peak, seconds = self.run(line, scratch)
        if status != 0:
            raise CountError(f"{words} ended with status {status}")
        return peak, seconds


def print_row(row):
    print(f"{row['program']:<16}{row['native']:>9,}"
          f"{row['engine']:>9,}{row['engine'] - row['native']:>+9,}"
          f"{row['tracer']:>9,}{row['tracer'] - row['native']:>+9,}"
          f"{row['blocks']:>8,}{row['bytes']:>10,}{row['finishing']:>11.3f}{row['run']:>9.2f}{row['native_run']:>8.2f}",
          flush=True)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("pattern", nargs="?", default=".")
    parser.add_argument("--build", default=os.path.join(TOP, "build", "release"))
    parser.add_argument("--list", default=os.path.join(HERE, "tool_memory.txt"))
    parser.add_argument("--roofs", default="1,4")
    parser.add_argument("--json")
    arguments = parser.parse_args()
    rows, failures = [], 0
    try:
        bench = Bench(os.path.realpath(arguments.build), arguments.list)
        lines = read_list(arguments.list, arguments.pattern)
    except CountError as error:
        sys.exit(f"tool_memory: {error}")
    print(f"{'program':<16}{'native':>9}{'engine':>9}{'+':>9}{'tracer':>9}{'+':>9}"
          f"{'blocks':>8}{'bytes':>10}{'finishing':>11}{'run':>9}{'native':>8}")
    for name, line in lines:
        try:
            rows.append(bench.measure(name, line))
            print_row(rows[-1])
        except CountError as error:
            failures += 1
            print(f"tool_memory: {name}: {error}", file=sys.stderr)
    try:
        peak, _ = bench.peak_of_phase("--phase=perfmon", "/bin/true")
        print(f"perfmon: the tool itself has {peak:,} KiB at most, beside the application")
        for count in [word for word in arguments.roofs.split(",") if word != "none"]:
            peak, seconds = bench.peak_of_phase("--phase=benchmarks", f"--benchmarks_num_threads={count}")
            print(f"benchmarks: {peak:,} KiB with {count} threads, in {seconds:.1f} s", flush=True)
    except CountError as error:
        failures += 1
        print(f"tool_memory: {error}", file=sys.stderr)
    if arguments.json:
        with open(arguments.json, "w", encoding="utf-8") as file:
            json.dump(rows, file, indent=1)
    print(f"{len(rows)} programs measured, {failures} failed")
    sys.exit(1 if failures or not rows else 0)


if __name__ == "__main__":
    main()
