#!/usr/bin/env python3
"""Fills in, or checks, the words of tests/unit/bi/a64/vectors.txt with an assembler that is not the project's.

    tools/a64/assemble_vectors.py [--tool gnu|llvm]            writes the words
    tools/a64/assemble_vectors.py [--tool gnu|llvm] --check    fails if a word is not what the assembler gives

A line is "word | class | field values | assembly". To add one, write ? for its word and run the script. The text is
linked at a fixed address, so that ".+8" stands for an offset in every form that has one.
"""

import argparse
import pathlib
import shutil
import subprocess
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
VECTORS = ROOT / "tests/unit/bi/a64/vectors.txt"
BASE = 0x100000000

GNU_EXTENSIONS = "armv9.3-a+crypto+sha3+sm4+fp16+fp16fml+memtag+ls64+sme+sve2+mops+hbc+pauth+rcpc"
LLVM_EXTENSIONS = ("+v9.3a,+aes,+sha2,+sha3,+sm4,+fullfp16,+fp16fml,+mte,+ls64,+sme,+sme-f64,+sve2,+mops,+hbc,+pauth,"
                   "+bf16,+dotprod,+complxnum,+el3,+wfxt,+xs")


def tool(*names):
    for name in names:
        if shutil.which(name):
            return name
    sys.exit(f"assemble_vectors.py: none of {', '.join(names)} is installed")


def assembler(kind):
    if kind == "gnu":
        return [tool("aarch64-linux-gnu-as", "as"), f"-march={GNU_EXTENSIONS}"]
    return [tool("llvm-mc-14", "llvm-mc"), "-triple=aarch64-linux-gnu", f"-mattr={LLVM_EXTENSIONS}", "-filetype=obj"]


def assemble(texts, kind):
    """The word of each text."""
    with tempfile.TemporaryDirectory() as folder:
        source, unlinked, linked, raw = (pathlib.Path(folder) / name for name in ("a.s", "a.o", "a.elf", "a.bin"))
        source.write_text("".join(f"{text}\n" for text in texts), encoding="ascii")
        subprocess.run([*assembler(kind), "-o", unlinked, source], check=True)
        subprocess.run([tool("aarch64-linux-gnu-ld", "ld"), f"-Ttext={BASE:#x}", "-e", "0", "-o", linked, unlinked],
                       check=True)
        subprocess.run([tool("aarch64-linux-gnu-objcopy", "objcopy"), "-O", "binary", "-j", ".text", linked, raw],
                       check=True)
        code = raw.read_bytes()
    words = [int.from_bytes(code[at:at + 4], "little") for at in range(0, len(code), 4)]
    if len(words) != len(texts):
        sys.exit(f"assemble_vectors.py: {len(texts)} lines gave {len(words)} words")
    return words


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--tool", choices=("gnu", "llvm"), default="gnu")
    parser.add_argument("--check", action="store_true")
    options = parser.parse_args()
    lines = VECTORS.read_text(encoding="ascii").splitlines()
    places = [at for at, line in enumerate(lines) if line and not line.startswith("#")]
    entries = [[column.strip() for column in lines[at].split("|")] for at in places]
    wrong = 0
    for at, entry, word in zip(places, entries, assemble([entry[3] for entry in entries], options.tool)):
        if entry[0] == f"{word:08x}":
            continue
        wrong += 1
        print(f"line {at + 1}: {entry[3]} is {word:08x}, the file says {entry[0]}")
        lines[at] = f"{word:08x} | {entry[1]:<22} | {entry[2]:<26} | {entry[3]}"
    if options.check:
        sys.exit(1 if wrong or not places else 0)
    VECTORS.write_text("".join(f"{line}\n" for line in lines), encoding="ascii")


if __name__ == "__main__":
    main()
