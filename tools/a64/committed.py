"""Writes the files that the two generators make, or compares them with the committed ones."""

import argparse
import difflib
import pathlib
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent


def differences(path, text):
    present = path.read_text(encoding="utf-8") if path.exists() else ""
    if present == text:
        return []
    name = str(path.relative_to(ROOT))
    return list(difflib.unified_diff(present.splitlines(), text.splitlines(), name, f"{name}, generated", lineterm="",
                                     n=1))


def settle(generator, description, make, error):
    """Runs a generator, `generator` by its path below the root, with the process's arguments: writes the files that
    `make` gives as {path below the root: text}, or with --check prints how they differ. `make` may raise `error`. Ends
    the process if it does, or if a file differs."""
    parser = argparse.ArgumentParser(description=description, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--check", action="store_true", help="compare instead of writing")
    check_only = parser.parse_args().check
    try:
        files = make()
    except error as reason:
        sys.exit(f"generate.py: {reason}")
    stale = False
    for name, text in files.items():
        path = ROOT / name
        if not check_only:
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_text(text, encoding="utf-8")
            continue
        for line in differences(path, text)[:40]:
            print(line)
            stale = True
    if stale:
        sys.exit(f"generate.py: a committed file is not what the tables give; run {generator}")
