#!/usr/bin/python3
"""--help, README's table, the man page and the completion for bash know the same options of a program; --help and
README name the same defaults.

options_agree_test.py SOURCE SYNOPSIS OPTION=DEFAULT... -- EMULATOR... PROGRAM

README's table is the first behind SYNOPSIS.
"""
import os
import re
import subprocess
import sys

end = sys.argv.index("--")
(source, synopsis), defaults, command = sys.argv[1:3], sys.argv[3:end], sys.argv[end + 1:]
name = os.path.basename(command[-1])
usage = subprocess.run(command + ["--help"], capture_output=True, text=True, check=True).stdout


def read(path):
    with open(os.path.join(source, path), encoding="utf-8") as file:
        return file.read()


def options(text):
    return set(re.findall(r"(?<![\w-])--?[a-zA-Z][\w-]*", text))


def options_of_lines(lines):
    return set().union(*map(options, lines))


readme = read("README.md")
table = re.search(r"(^\|.*\n)+", readme[readme.index(synopsis):], re.MULTILINE)[0]
rows = [line for line in table.splitlines() if line.startswith("| `-")]
# In the man page an entry's title stands on the line behind .TP, and a dash is written "\\-".
man_page = read(f"packaging/{name}.1.in").replace("\\-", "-")
section = man_page[man_page.index(".SH OPTIONS"):]
tags = re.findall(r"^\.TP\n(.*)$", section[:section.index(".SH", 1)], re.MULTILINE)
# The words that the completion offers for a dash.
offered = re.search(rf'_{name}_words "\$word" (--.*?)\n *\[\[', read(f"packaging/{name}.bash"), re.DOTALL)
known = {
    # An option stands at the left margin of the usage, before the dash of its explanation. One that leaves no room for
    # the dash goes on in the next line.
    "--help": options_of_lines(re.split(r"\s+- ", line)[0] for line in usage.splitlines() if line.startswith("    -")),
    "README.md": options_of_lines(row.split(" | ")[0] for row in rows),
    f"{name}(1)": options_of_lines(re.sub(r"\\f[A-Z]", " ", tag) for tag in tags),
    "the completion": options(offered.group(1)),
}

passed = failures = 0
for where, found in known.items():
    if len(found) >= 13 and found == known["--help"]:
        passed += 1
        continue
    failures += 1
    print(f"{where} lacks {sorted(known['--help'] - found)} and adds {sorted(found - known['--help'])}")
flat = " ".join(usage.split())
for option, default in (pair.split("=") for pair in defaults):
    row = next((row for row in rows if option in row.split(" | ")[0]), "")
    if f"(default: {default})" in flat and f"(default: {default})" in row:
        passed += 1
        continue
    failures += 1
    print(f"{option}: --help and README do not both say (default: {default})")
print(f"{passed} passed, {failures} failed")
sys.exit(1 if failures else 0)
