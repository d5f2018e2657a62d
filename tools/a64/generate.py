#!/usr/bin/env python3
"""Writes the A64 family (src/bi/a64) and its tests' tables from classes.txt and a64_encodings.tsv.

    tools/a64/generate.py            writes the files
    tools/a64/generate.py --check    writes nothing; fails if a committed file differs from what would be written

The inputs are checked against each other first (model.py): nothing is written from a class list that the encoding table
contradicts.
"""

import pathlib
import sys

sys.dont_write_bytecode = True

import committed  # noqa: E402
import model  # noqa: E402
import render  # noqa: E402

HERE = pathlib.Path(__file__).resolve().parent


def files():
    classes, rows = model.load(HERE)
    return render.files(classes, rows, model.row_values(classes, rows))


if __name__ == "__main__":
    committed.settle("tools/a64/generate.py", __doc__, files, model.ModelError)
