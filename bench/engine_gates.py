#!/usr/bin/python3
"""Holds what the engine costs near the figures of a committed table, engine_gates.txt.

engine_gates.py [--renew] [--build DIR] [--nm NM] [--emulator COMMAND] [PATTERN]

Counts the loops of the table in the user-mode emulator (see engine_cost.py), and prints each figure that differs from
the table's. Status 1 if one differs by more than 3 %, whether it rose or fell: a figure that fell would leave room for
one that rises again unseen. --renew writes the new figures into the table; commit them with the change that they come
from. PATTERN chooses programs by a regular expression. Takes less than a minute.

The figures are instructions, and do not depend on the machine or on what else it does:

  start      what runs before the first rewritten instruction
  work       the engine and its stubs after the start, without counters; system calls and the end are included
  blocks     blocks scanned
  per_block  work over blocks
  counters   the stub that a block calls once it is hot; what counts its runs is in "cache"
  cache      rewritten code
"""
import argparse
import os
import re
import shutil
import sys

sys.dont_write_bytecode = True
import engine_cost  # noqa: E402 (it lies beside this file and in no package)

TABLE = os.path.join(engine_cost.HERE, "engine_gates.txt")
FIGURES = ("start", "work", "blocks", "per_block", "counters", "cache")
LIMIT = 0.03
# Instructions. Process ids and addresses have more or fewer digits from run to run, which moves small figures.
SLACK = 30
COMMAND = "bench/engine_gates.py --renew"


def read_table(path):
    """(lines of comment, {program: (command, {figure: number})})"""
    comments, programs = [], {}
    with open(path, encoding="utf-8") as file:
        for line in file.read().splitlines():
            if line.startswith("#"):
                comments.append(line)
            elif line:
                name, *numbers = line.split(maxsplit=len(FIGURES) + 1)
                programs[name] = (numbers[-1], dict(zip(FIGURES, map(int, numbers[:-1]))))
    return comments, programs


def table_text(comments, programs):
    rows = [f"{name:<16}" + "".join(f"{figures[figure]:>12}" for figure in FIGURES) + f"  {command}"
            for name, (command, figures) in programs.items()]
    return "\n".join(comments + rows) + "\n"


def figures_of(row):
    work = row["engine"] - row["start"] + row["switches"]
    return {"start": row["start"], "work": work, "blocks": row["blocks"], "per_block": round(work / row["blocks"]),
            "counters": row["counters"], "cache": row["cache"]}


def differences(name, kept, found):
    """(line to print, whether it is beyond the limit) for each figure that differs from the table's."""
    for figure in FIGURES:
        old, new = kept[figure], found[figure]
        if old != new:
            beyond = abs(new - old) > max(LIMIT * old, SLACK)
            share = f"{(new - old) / old:+.2%}" if old else "from nothing"
            yield f"{name:<16}{figure:<10}{old:>14,} -> {new:>14,}  {share}{'  BEYOND 3 %' if beyond else ''}", beyond


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("pattern", nargs="?", default=".")
    parser.add_argument("--renew", action="store_true")
    parser.add_argument("--build", default=os.path.join(engine_cost.TOP, "build", "release"))
    parser.add_argument("--table", default=TABLE)
    parser.add_argument("--emulator", default="qemu-aarch64")
    parser.add_argument("--nm", default=shutil.which("aarch64-linux-gnu-nm") or "nm")
    arguments = parser.parse_args()
    arguments.build = os.path.realpath(arguments.build)
    arguments.root, arguments.list, arguments.branches = "", arguments.table, False
    comments, programs = read_table(arguments.table)
    counters, renewed, beyond = {}, dict(programs), 0
    chosen = [name for name in programs if re.search(arguments.pattern, name)]
    try:
        for name in chosen:
            command, kept = programs[name]
            arguments.tracer = name.startswith("traced_")
            if arguments.tracer not in counters:
                counters[arguments.tracer] = engine_cost.Counter(arguments)
            line = f"$RUN $PROGRAMS/engine_loops {command}"
            found = figures_of(engine_cost.measure(counters[arguments.tracer], name, line, 0, True))
            renewed[name] = (command, found)
            for text, is_beyond in differences(name, kept, found):
                beyond += is_beyond
                print(text, flush=True)
    except engine_cost.CountError as error:
        sys.exit(f"engine_gates: {error}")
    print(f"{len(chosen)} programs counted, {beyond} figures beyond 3 % of {os.path.basename(arguments.table)}")
    if arguments.renew:
        with open(arguments.table, "w", encoding="utf-8") as file:
            file.write(table_text(comments, renewed))
    elif beyond:
        print(f"If the change is meant to cost this, or to save it: {COMMAND}, and commit the table.")
    sys.exit(0 if chosen and (arguments.renew or not beyond) else 1)


if __name__ == "__main__":
    main()
