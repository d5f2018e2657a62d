#!/usr/bin/python3
"""The options that --help prints and those of README.md's table under a heading are the same, with the same defaults.

help_and_readme_test.py README HEADING OPTION=DEFAULT... -- EMULATOR... PROGRAM
"""
import re
import subprocess
import sys

end = sys.argv.index("--")
(readme_path, heading), defaults, command = sys.argv[1:3], sys.argv[3:end], sys.argv[end + 1:]
usage = subprocess.run(command + ["--help"], capture_output=True, text=True, check=True).stdout
with open(readme_path, encoding="utf-8") as file:
    section = re.search(rf"^## {re.escape(heading)}$(.*?)(?=^## |\Z)", file.read(), re.M | re.S)[1]
rows = [line for line in section.splitlines() if line.startswith("| `-")]


def options(text):
    return set(re.findall(r"(?<![\w-])--?[a-zA-Z][\w-]*", text))


# An option stands at the left margin of the usage, before the dash of its explanation. One that leaves no room for the
# dash goes on in the next line.
in_usage = set()
for line in usage.splitlines():
    if line.startswith("    -"):
        in_usage |= options(line.split(" - ")[0])
in_readme = set()
for row in rows:
    in_readme |= options(row.split(" | ")[0])

failures = 0
if len(in_usage) < 13 or in_usage != in_readme:
    failures += 1
    print(f"only in --help: {sorted(in_usage - in_readme)}; only in README: {sorted(in_readme - in_usage)}")
for option, default in (pair.split("=") for pair in defaults):
    row = next((row for row in rows if option in row.split(" | ")[0]), "")
    flat = " ".join(usage.split())
    if f"(default: {default})" not in flat or f"(default: {default})" not in row:
        failures += 1
        print(f"{option}: --help and README do not both say (default: {default})")
print(f"{1 if failures == 0 else 0} passed, {failures} failed")
sys.exit(1 if failures else 0)
