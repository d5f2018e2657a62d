#!/usr/bin/python3
"""Checks that the tool is a dynamically linked AArch64 executable, not relocatable, at its fixed base.

executable_form_test.py TOOL BASE    Reads the file's headers itself: 64-bit little-endian ELF.
"""
import struct
import sys

with open(sys.argv[1], "rb") as file:
    image = file.read()
ET_EXEC, EM_AARCH64, PT_LOAD, PT_DYNAMIC, PT_INTERP = 2, 183, 1, 2, 3
kind, machine = struct.unpack_from("<HH", image, 16)
(phoff,) = struct.unpack_from("<Q", image, 32)
phentsize, phnum = struct.unpack_from("<HH", image, 54)
headers = [struct.unpack_from("<IIQQQQQQ", image, phoff + index * phentsize) for index in range(phnum)]
base = min(header[3] for header in headers if header[0] == PT_LOAD)
types = {header[0] for header in headers}
checks = {
    "64-bit little-endian ELF": image[:6] == b"\x7fELF\x02\x01",
    "for AArch64": machine == EM_AARCH64,
    "not relocatable": kind == ET_EXEC,
    f"based at {sys.argv[2]}": base == int(sys.argv[2], 0),
    "dynamically linked": PT_INTERP in types and PT_DYNAMIC in types,
}
for name, holds in checks.items():
    if not holds:
        print(f"{sys.argv[1]} is not {name} (type {kind}, machine {machine}, base {base:#x})")
failed = sum(not holds for holds in checks.values())
print(f"{len(checks) - failed} passed, {failed} failed")
sys.exit(1 if failed else 0)
