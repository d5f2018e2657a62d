#!/usr/bin/env python3
"""Writes the instruction classifier's rows, mnemonics and FLOP keys (src/a64) from ../a64_encodings.tsv, rules.txt,
mnemonics.txt and flop_rules.txt.

    tools/a64/classifier/generate.py            writes the files
    tools/a64/classifier/generate.py --check    writes nothing; fails if a committed file is not what would be written

The inputs are checked against each other first: nothing is written unless the rows come to the totals that rules.txt
names.
"""

import pathlib
import sys

sys.dont_write_bytecode = True
HERE = pathlib.Path(__file__).resolve().parent
sys.path.append(str(HERE.parent))  # Behind this folder, which has a module `render` as that one has.

import committed  # noqa: E402
import flops  # noqa: E402
import layouts  # noqa: E402
import render  # noqa: E402
import rows  # noqa: E402


def tables():
    """Rows, mnemonics and FLOP keys."""
    rules = rows.sections(HERE / "rules.txt")
    mnemonics = rows.read_mnemonics(HERE / "mnemonics.txt")
    encodings = rows.select(rows.read_encodings(HERE.parent / "a64_encodings.tsv"), rules, mnemonics)
    found, form_count = rows.in_order(rows.gather(encodings, rules), rules, mnemonics)
    layouts.number(found, rules)
    rows.check(found, form_count, rules, mnemonics)
    return found, mnemonics, flops.keys(found, rows.sections(HERE / "flop_rules.txt"))


def files():
    return render.files(*tables())


if __name__ == "__main__":
    committed.settle("tools/a64/classifier/generate.py", __doc__, files, rows.RulesError)
