#!/usr/bin/python3
"""--help, README's table, the man page and the completion for bash know the same options of ceilmeter; --help and
README name the same defaults.

options_agree_test.py SOURCE EMULATOR... TOOL
"""
import os
import re
import subprocess
import sys

source, *command = sys.argv[1:]
usage = subprocess.run(command + ["--help"], capture_output=True, text=True, check=True).stdout


def read(path):
    with open(os.path.join(source, path), encoding="utf-8") as file:
        return file.read()


def options(text):
    return set(re.findall(r"(?<![\w-])--?[a-zA-Z][\w-]*", text))


def options_of_lines(lines):
    return set().union(*map(options, lines))


readme = read("README.md")
# The tool's own table is the first behind its synopsis.
own_table = readme[readme.index("ceilmeter <OPTIONS>"):readme.index("`ceilmeter --help`")]
rows = [line for line in own_table.splitlines() if line.startswith("| `-")]
# A tag of the man page's list stands on the line behind .TP; "\\-" is a dash there.
man_page = read("packaging/ceilmeter.1.in").replace("\\-", "-")
section = man_page[man_page.index(".SH OPTIONS"):]
tags = re.findall(r"^\.TP\n(.*)$", section[:section.index(".SH", 1)], re.MULTILINE)
# The words that the completion offers for a dash.
offered = re.search(r'_ceilmeter_words "\$word" (--.*?)\n *\[\[', read("packaging/ceilmeter.bash"), re.DOTALL)
known = {
    # An option stands at the left margin of the usage, before the dash of its explanation.
    "--help": options_of_lines(line[:43] for line in usage.splitlines() if line[:43].startswith("    -")),
    "README.md": options_of_lines(row.split(" | ")[0] for row in rows),
    "ceilmeter(1)": options_of_lines(re.sub(r"\\f[A-Z]", " ", tag) for tag in tags),
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
for option, default in (("--mode", "total"), ("--log-level", "warn"), ("--log-file", "stderr")):
    row = next((row for row in rows if option in row.split(" | ")[0]), "")
    if f"(default: {default})" in flat and f"(default: {default})" in row:
        passed += 1
        continue
    failures += 1
    print(f"{option}: --help and README do not both say (default: {default})")
print(f"{passed} passed, {failures} failed")
sys.exit(1 if failures else 0)
