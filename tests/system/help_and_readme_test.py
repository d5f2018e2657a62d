#!/usr/bin/python3
"""The options that --help prints and those in README.md's table are the same, with the same defaults.

help_and_readme_test.py README EMULATOR... TOOL
"""
import re
import subprocess
import sys

readme_path, command = sys.argv[1], sys.argv[2:]
usage = subprocess.run(command + ["--help"], capture_output=True, text=True, check=True).stdout
with open(readme_path, encoding="utf-8") as file:
    rows = [line for line in file if line.startswith("| `-")]


def options(text):
    return set(re.findall(r"(?<![\w-])--?[a-zA-Z][\w-]*", text))


# An option stands at the left margin of the usage, before the dash of its explanation.
in_usage = set()
for line in usage.splitlines():
    head = line[:43]
    if head.startswith("    -"):
        in_usage |= options(head)
in_readme = set()
for row in rows:
    in_readme |= options(row.split(" | ")[0])

failures = 0
if len(in_usage) < 13 or in_usage != in_readme:
    failures += 1
    print(f"only in --help: {sorted(in_usage - in_readme)}; only in README: {sorted(in_readme - in_usage)}")
for option, default in (("--mode", "total"), ("--log-level", "warn"), ("--log-file", "stderr")):
    row = next((row for row in rows if option in row.split(" | ")[0]), "")
    flat = " ".join(usage.split())
    if f"(default: {default})" not in flat or f"(default: {default})" not in row:
        failures += 1
        print(f"{option}: --help and README do not both say (default: {default})")
print(f"{1 if failures == 0 else 0} passed, {failures} failed")
sys.exit(1 if failures else 0)
