#!/usr/bin/python3
"""What the engine costs, counted in instructions by a plug-in of the user-mode emulator (tests/emulator_plugin).

engine_cost.py [--tracer] [--traces on|off|both] [--build DIR] [--list FILE] [--root DIR] [--hot N] [--branches]
               [--json FILE] [PATTERN]

Runs each program of a list natively and under the bare engine, and prints what they executed:

  native      instructions of the native run
  engine run  instructions of the run under the engine, and their ratio to the native ones, split into
    cache     rewritten code: the code caches without the stubs at their start; x is its ratio to the native count
    counters  the stub that a block calls once it is hot; what counts its runs is in "cache"
    switches  the other stubs, which save and restore state on the way into the engine and back
    engine    everything else: the engine's C++ and the libraries that it uses
  start       the part of "engine" that ran before the first rewritten instruction
  blocks      how many blocks were scanned; dispatch, calls of the dispatcher; flushes, how often the cache was emptied
  per block   switches and engine, without the start, over blocks scanned. System calls are in it, so that it tells the
              work per block only of programs that make few

The same run gives the same figures, to a few instructions in a million (addresses and process ids differ), whatever
else the machine does. Times are not measured here. --tracer runs the tool itself in place of the bare engine, in its
bintracer phase over the whole application: what the tracer adds is the difference of the two, its counters in "cache"
and all else, the result file included, in "engine". --traces tells whether hot paths become traces, which only the bare
engine can be told to leave: with "both" each program is run once without and once with them, and a table at the end has
the two side by side. --hot prints the N functions that most engine instructions were spent in. --branches counts taken
branches too, at half the pace, and ends with a table of them: those of the native run, and those that rewritten code
takes. Where the list has both NAME_short and NAME_long, a table at the end has their difference. --json writes the
figures as a list of objects. PATTERN chooses lines of the list by a regular expression. Status 1 if a run's output or
status is not that of the native run, or a count cannot be right.
"""
import argparse
import bisect
import collections
import json
import os
import re
import shlex
import shutil
import subprocess
import sys
import tempfile

HERE = os.path.dirname(os.path.realpath(__file__))
TOP = os.path.dirname(HERE)
# The plug-in counts calls of these functions by their first instruction.
SCAN, FLUSH, DISPATCH = "ceilmeter::scan_fragment", "ceilmeter::flush_code_cache", "dispatcher"
# Symbols: the stub text, and in it the counter stub, which ends where the next stub begins.
STUB_TEXT, STUB_TEXT_END, BLOCK = "stub_text", "stub_text_end", 256
COUNTER_STUB, COUNTER_STUB_END = "hot_counter_stub", "syscall_wrapper"

# In its bintracer phase the tool prints these lines before and behind the program's own output.
OPENING_LINES = re.compile(rb"CEILMETER: Start collection for .*\nCEILMETER: Launch application to do .*\n")
CLOSING_LINES = re.compile(rb"CEILMETER: Processing all collected data\nCEILMETER: Result is captured at .*\n"
                           rb'CEILMETER: Run "ceilview .*\n')
KINDS = ("other", "cache", "stubs")  # The kinds of code that the plug-in tells apart.


class CountError(Exception):
    """A run that cannot be counted; the message says why."""


def symbols_of(nm, path, *options):
    """(address, name) of a file's functions, without their parameters, in the order of addresses."""
    listing = subprocess.run([nm, "-C", *options, path], check=False, capture_output=True, text=True).stdout
    # Of the parentheses in a name, those of an unnamed namespace belong to it.
    listing = listing.replace("(anonymous namespace)::", "")
    matches = (re.match(r"([0-9a-f]+) [tTwWiVu] ([^(@$]+)", line) for line in listing.splitlines())
    return sorted((int(match[1], 16), match[2]) for match in matches if match)


def without_lines_of_the_tool(output):
    """Returns what the program has printed. If that does not end a line, the closing lines follow on the same line."""
    for pattern in (OPENING_LINES, CLOSING_LINES):
        output = pattern.sub(b"", output, count=1)
    return output


class Counter:
    """Runs command lines under the plug-in."""

    def __init__(self, arguments):
        self.plugin = os.path.join(arguments.build, "tests", "emulator_plugin", "instruction_counts.so")
        engine = ["ceilmeter"] if arguments.tracer else ["tests", "programs", "mora_run"]
        self.engine = os.path.join(arguments.build, *engine)
        self.is_tool = arguments.tracer
        self.branches = arguments.branches
        for path in (self.plugin, self.engine):
            if not os.path.exists(path):
                raise CountError(f"{path} is not there: build the targets instruction_counts, mora_run and ceilmeter")
        self.nm = arguments.nm
        self.emulator = arguments.emulator
        self.root = arguments.root
        self.lists = os.path.dirname(os.path.realpath(arguments.list))
        self.programs = os.path.join(arguments.build, "bench")
        self.engine_symbols = symbols_of(self.nm, self.engine)
        self.places = {name: address for address, name in self.engine_symbols}
        length = self.places[STUB_TEXT_END] - self.places[STUB_TEXT]
        self.stub_bytes = (length + BLOCK - 1) // BLOCK * BLOCK

    def run(self, line, scratch, under_engine, traces):
        """(status, output, summary, path of addresses) of one run."""
        side = "engine" if under_engine else "native"
        summary = os.path.join(scratch, f"{side}.summary")
        addresses = os.path.join(scratch, f"{side}.addresses")
        options = [self.plugin, f"summary={summary}", f"stubs={self.stub_bytes}"]
        if under_engine:
            options.append(f"addresses={addresses}")
        if self.branches:
            options.append("branches=on")
        options += [f"at={self.places[name]:#x}" for name in (SCAN, FLUSH, DISPATCH)]
        command = [*self.emulator.split(), "-plugin", ",".join(options)]
        if self.root:
            command += ["-L", self.root]
        if under_engine:
            command.append(self.engine)
            if self.is_tool:
                command += ["--phase=bintracer", f"--output={os.path.join(scratch, 'result.json')}"]
        # What is in the environment is the program's too: no names that differ from run to run. Python neither finds
        # nor leaves compiled modules.
        environment = {"PATH": os.environ["PATH"], "LC_ALL": "C", "PYTHONHASHSEED": "0", "PYTHONDONTWRITEBYTECODE": "1",
                       "PYTHONPYCACHEPREFIX": "/nowhere"}
        if not traces:
            environment["MORA_RUN_TRACES"] = "off"
        emulate = self.emulator + (f" -L {self.root}" if self.root else "")
        variables = {"RUN": " ".join(command), "EMULATE": emulate, "ROOT": self.root, "PROGRAMS": self.programs,
                     "LISTS": self.lists}
        assignments = "".join(f"{name}={shlex.quote(value)}; " for name, value in variables.items())
        folder = os.path.join(scratch, "work")
        shutil.rmtree(folder, ignore_errors=True)
        os.mkdir(folder)
        done = subprocess.run(["sh", "-c", assignments + line], cwd=folder, env=environment, stdin=subprocess.DEVNULL,
                              check=False, capture_output=True, timeout=1800)
        try:
            with open(summary, encoding="utf-8") as file:
                counts = {" ".join(words.split()[:-1]): int(words.split()[-1]) for words in file}
        except OSError as error:
            raise CountError(f"the {side} run left no counts ({error}); it said: {done.stderr[-600:]!r}") from error
        output = without_lines_of_the_tool(done.stdout) if under_engine and self.is_tool else done.stdout
        return done.returncode, output, counts, addresses

    def at(self, summary, name):
        return summary[f"at {self.places[name]:#x}"]

    def read_addresses(self, path):
        """(instructions in counter stubs, instructions by function) outside of rewritten code."""
        maps, spent, libraries, caches, counters = [], collections.Counter(), {}, [], 0
        first, end = (self.places[name] - self.places[STUB_TEXT] for name in (COUNTER_STUB, COUNTER_STUB_END))
        with open(path, encoding="utf-8") as file:
            for line in file:
                words = line.split()
                if words[0] == "map":
                    start, stop, offset = (int(word, 16) for word in words[1:4])
                    maps.append((start, stop, start - offset, words[4]))
                elif words[0] == "cache":
                    caches.append(int(words[1], 16))
                elif words[2] == "other":
                    spent[self.function_at(int(words[0], 16), maps, libraries)] += int(words[3])
                elif words[2] == "stubs":
                    address = int(words[0], 16)
                    if any(first <= address - cache < end for cache in caches):
                        counters += int(words[3])
        return counters, spent

    def function_at(self, address, maps, libraries):
        for start, end, base, path in maps:
            if not start <= address < end:
                continue
            if os.path.realpath(path) == os.path.realpath(self.engine):
                symbols, value = self.engine_symbols, address
            else:
                # Library code is mapped with address and offset in step.
                if path not in libraries:
                    libraries[path] = symbols_of(self.nm, path, "-D")
                symbols, value = libraries[path], address - base
            index = bisect.bisect_right(symbols, (value, "\U0010ffff")) - 1
            name = symbols[index][1] if index >= 0 else "?"
            return name if symbols is self.engine_symbols else f"{os.path.basename(path)}: near {name}"
        return "unmapped at the end"


def userland_of_the_virtual_machine():
    script = os.path.join(TOP, "tools", "vm", "common.sh")
    path = subprocess.run(["bash", "-c", '. "$0" && echo "$vm_userland"', script], check=False, capture_output=True,
                          text=True).stdout.strip()
    return path if os.path.isdir(path) else ""


def read_list(path, pattern):
    lines = []
    with open(path, encoding="utf-8") as file:
        for text in file:
            text = text.strip()
            if not text or text.startswith("#"):
                continue
            name, _, command = text.partition(": ")
            if not command:
                raise CountError(f"{path}: a line is NAME: COMMAND, not '{text}'")
            if re.search(pattern, name):
                lines.append((name, command))
    return lines


def measure(counter, name, line, hot, traces):
    """The figures of one program."""
    with tempfile.TemporaryDirectory() as scratch:
        status, output, native, _ = counter.run(line, scratch, False, traces)
        engine_status, engine_output, run, addresses = counter.run(line, scratch, True, traces)
        counters, spent = counter.read_addresses(addresses)
    if (status, output) != (engine_status, engine_output):
        raise CountError(f"{name}: status {engine_status} and {len(engine_output)} bytes under the engine, "
                         f"{status} and {len(output)} natively")
    blocks = counter.at(run, SCAN)
    figures = {
        "program": name, "traces": traces, "native": native["total"], "engine_run": run["total"],
        "ratio": run["total"] / native["total"], "cache": run["cache"], "counters": counters,
        "switches": run["stubs"] - counters, "engine": run["other"], "start": run["start"], "blocks": blocks,
        "dispatches": counter.at(run, DISPATCH), "flushes": counter.at(run, FLUSH),
        "per_block": (run["other"] - run["start"] + run["stubs"] - counters) / max(blocks, 1),
        "hot": spent.most_common(hot),
    }
    if counter.branches:
        figures |= {"taken_native": sum(native[f"taken {kind}"] for kind in KINDS), "taken": run["taken cache"]}
    accounted = run["cache"] + run["stubs"] + sum(spent.values())
    if native["cache"] or accounted != run["total"] or counters > run["stubs"] or blocks == 0:
        raise CountError(f"{name}: the counts cannot be right: native {native}, under the engine {run}")
    return figures


COLUMNS = {"native": 14, "engine_run": 15, "cache": 15, "counters": 15, "switches": 12, "engine": 12, "start": 11,
           "blocks": 8, "dispatches": 9, "flushes": 8}


def print_heading():
    headings = {"engine_run": "engine run", "dispatches": "dispatch"}
    print(f"{'program':<14}" + "".join(f"{headings.get(name, name):>{width}}" for name, width in COLUMNS.items())
          + f"{'ratio':>8}{'x':>6}{'per block':>10}")


def print_row(row):
    print(f"{row['program']:<14}" + "".join(f"{row[name]:>{width},}" for name, width in COLUMNS.items())
          + f"{row['ratio']:>8.2f}{row['cache'] / row['native']:>6.2f}{row['per_block']:>10,.0f}", flush=True)
    for function, count in row["hot"]:
        print(f"    {count:>13,}  {count / max(row['blocks'], 1):>8,.1f} per block  {function}", flush=True)


def print_comparison(rows):
    """Prints the runs without and with traces side by side, and marks a program that costs more with traces."""
    print(f"\n{'program':<14}{'native':>14}{'without traces':>16}{'ratio':>7}{'with traces':>16}{'ratio':>7}"
          f"{'change':>9}")
    for off, on in zip(rows[::2], rows[1::2]):
        change = on["engine_run"] / off["engine_run"] - 1
        print(f"{on['program']:<14}{on['native']:>14,}{off['engine_run']:>16,}{off['ratio']:>7.2f}"
              f"{on['engine_run']:>16,}{on['ratio']:>7.2f}{change:>+9.1%}{'  worse' if change > 0.02 else ''}")


def print_steady(rows):
    """The loops alone of the programs that are in the list with few rounds and with many."""
    named = {(row["program"], row["traces"]): row for row in rows}
    pairs = [(row, named.get((row["program"].removesuffix("_long") + "_short", row["traces"]))) for row in rows
             if row["program"].endswith("_long")]
    pairs = [(many, few) for many, few in pairs if few]
    if pairs:
        print(f"\n{'the loop alone':<14}{'native':>14}{'engine run':>15}{'ratio':>7}{'blocks':>8}")
    for many, few in pairs:
        native, run, blocks = (many[name] - few[name] for name in ("native", "engine_run", "blocks"))
        print(f"{many['program'].removesuffix('_long'):<14}{native:>14,}{run:>15,}{run / native:>7.2f}{blocks:>8,}")


def print_branches(rows, modes):
    """The taken branches of rewritten code beside the native ones, for each way that traces were."""
    headings = {False: "without traces", True: "with traces"}
    print(f"\n{'taken branches':<14}{'native':>14}" + "".join(f"{headings[mode]:>16}{'ratio':>7}" for mode in modes))
    for first in range(0, len(rows), len(modes)):
        row, native = rows[first], rows[first]["taken_native"]
        print(f"{row['program']:<14}{native:>14,}" + "".join(
            f"{each['taken']:>16,}{each['taken'] / native:>7.2f}" for each in rows[first:first + len(modes)]))


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("pattern", nargs="?", default=".")
    parser.add_argument("--tracer", action="store_true")
    parser.add_argument("--traces", choices=("on", "off", "both"), default="on")
    parser.add_argument("--build", default=os.path.join(TOP, "build", "release"))
    parser.add_argument("--list", default=os.path.join(HERE, "engine_cost.txt"))
    parser.add_argument("--root", help="an unpacked userland (default: the virtual machine's, if it is there)")
    parser.add_argument("--emulator", default="qemu-aarch64")
    parser.add_argument("--nm", default=shutil.which("aarch64-linux-gnu-nm") or "nm")
    parser.add_argument("--hot", type=int, default=0)
    parser.add_argument("--branches", action="store_true")
    parser.add_argument("--json")
    arguments = parser.parse_args()
    arguments.build = os.path.realpath(arguments.build)
    if arguments.root is None:
        arguments.root = userland_of_the_virtual_machine()
    if arguments.tracer and arguments.traces != "on":
        sys.exit("engine_cost: the tool itself always makes traces")
    modes = {"on": [True], "off": [False], "both": [False, True]}[arguments.traces]
    rows, failures = [], []
    try:
        counter = Counter(arguments)
        lines = read_list(arguments.list, arguments.pattern)
    except CountError as error:
        sys.exit(f"engine_cost: {error}")
    print_heading()
    for name, line in lines:
        if "$ROOT" in line and not arguments.root:
            print(f"{name}: not run, since it needs --root", file=sys.stderr)
            continue
        try:
            measured = [measure(counter, name, line, arguments.hot, traces) for traces in modes]
            for row in measured:
                print_row(row)
            rows += measured
        except CountError as error:
            failures.append(str(error))
            print(f"engine_cost: {error}", file=sys.stderr)
    if arguments.traces == "both":
        print_comparison(rows)
    print_steady(rows)
    if arguments.branches:
        print_branches(rows, modes)
    if arguments.json:
        with open(arguments.json, "w", encoding="utf-8") as file:
            json.dump(rows, file, indent=1)
    print(f"{len(rows) // len(modes)} programs counted, {len(failures)} failed")
    sys.exit(1 if failures or not rows else 0)


if __name__ == "__main__":
    main()
