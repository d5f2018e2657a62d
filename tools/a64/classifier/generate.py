#!/usr/bin/env python3
"""Writes the instruction classifier's rows, mnemonics and FLOP keys (src/a64) from ../a64_encodings.tsv, rules.txt,
mnemonics.txt and flop_rules.txt.

    tools/a64/classifier/generate.py            writes the files
    tools/a64/classifier/generate.py --check    writes nothing; fails if a committed file is not what would be written

The inputs are checked against each other first: nothing is written unless the rows come to the totals that rules.txt
names.
"""

import argparse
import difflib
import pathlib
import sys

sys.dont_write_bytecode = True

import flops  # noqa: E402
import layouts  # noqa: E402
import render  # noqa: E402
import rows  # noqa: E402

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parent.parent.parent


def tables():
    """Rows, mnemonics and FLOP keys."""
    rules = rows.sections(HERE / "rules.txt")
    mnemonics = rows.read_mnemonics(HERE / "mnemonics.txt")
    encodings = rows.select(rows.read_encodings(HERE.parent / "a64_encodings.tsv"), rules, mnemonics)
    found, form_count = rows.in_order(rows.gather(encodings, rules), rules, mnemonics)
    layouts.number(found, rules)
    rows.check(found, form_count, rules, mnemonics)
    return found, mnemonics, flops.keys(found, rows.sections(HERE / "flop_rules.txt"))


def differences(path, text):
    present = path.read_text(encoding="utf-8") if path.exists() else ""
    if present == text:
        return []
    name = str(path.relative_to(ROOT))
    return list(difflib.unified_diff(present.splitlines(), text.splitlines(), name, f"{name}, generated", lineterm="",
                                     n=1))


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--check", action="store_true", help="compare instead of writing")
    check_only = parser.parse_args().check
    try:
        found = tables()
    except rows.RulesError as error:
        sys.exit(f"generate.py: {error}")
    stale = False
    for name, text in render.files(*found).items():
        path = ROOT / name
        if not check_only:
            path.write_text(text, encoding="utf-8")
            continue
        for line in differences(path, text)[:40]:
            print(line)
            stale = True
    if stale:
        sys.exit("generate.py: a committed file is not what the tables give; run tools/a64/classifier/generate.py")


if __name__ == "__main__":
    main()
