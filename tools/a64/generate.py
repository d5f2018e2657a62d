#!/usr/bin/env python3
"""Writes the A64 family (src/bi/a64) and its tests' tables from classes.txt and a64_encodings.tsv.

    tools/a64/generate.py            writes the files
    tools/a64/generate.py --check    writes nothing; fails if a committed file differs from what would be written

The inputs are checked against each other first (model.py): nothing is written from a class list that the encoding table
contradicts.
"""

import argparse
import difflib
import pathlib
import sys

sys.dont_write_bytecode = True

import model  # noqa: E402
import render  # noqa: E402

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parent.parent


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
        classes, rows = model.load(HERE)
    except model.ModelError as error:
        sys.exit(f"generate.py: {error}")
    stale = False
    for name, text in render.files(classes, rows, model.row_values(classes, rows)).items():
        path = ROOT / name
        if not check_only:
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_text(text, encoding="utf-8")
            continue
        for line in differences(path, text)[:40]:
            print(line)
            stale = True
    if stale:
        sys.exit("generate.py: a committed file is not what the tables give; run tools/a64/generate.py")


if __name__ == "__main__":
    main()
