#!/usr/bin/env python3
"""A stand-in for the engine in the runner's own tests, which is wrong on purpose.

    wrong_engine.py DEFECT EMULATOR... PROGRAM

runs the program with the emulator; DEFECT says what goes wrong: "none", the word of an instruction that is taken for
another, or how the run ends.
"""

import os
import pathlib
import signal
import subprocess
import sys
import tempfile
import time

NOP = 0xD503201F

# The changes that a defect makes to words of the program.
REWRITES = {
    "none": lambda word: word,
    # The condition of CSEL, CSINC, CSINV and CSNEG inverted.
    "condition": lambda word: word ^ 1 << 12 if word & 0x1FE00000 == 0x1A800000 else word,
    # Conditions 14 and 15 are taken for inversions of each other.
    "always": lambda word: NOP if word & 0xFF00000E == 0x5400000E else word,
    # BLR becomes BR, which does not write the link register.
    "link": lambda word: word & ~(1 << 21) if word & 0xFFFFFC1F == 0xD63F0000 else word,
    # Reads of the flags read another register.
    "flags": lambda word: 0xD53B4420 | word & 31 if word & 0xFFFFFFE0 == 0xD53B4200 else word,
}


def rewrite(program, change):
    """The program with its code changed; the first segment is the code, behind one page of headers."""
    data = bytearray(pathlib.Path(program).read_bytes())
    length = int.from_bytes(data[64 + 32:64 + 40], "little")
    for at in range(0x1000, length, 4):
        word = int.from_bytes(data[at:at + 4], "little")
        data[at:at + 4] = change(word).to_bytes(4, "little")
    return bytes(data)


def main():
    defect, *command = sys.argv[1:]
    if defect == "hang":
        time.sleep(3600)
    if defect == "crash":
        os.kill(os.getpid(), signal.SIGSEGV)
    with tempfile.TemporaryDirectory() as folder:
        changed = pathlib.Path(folder) / "program"
        changed.write_bytes(rewrite(command[-1], REWRITES.get(defect, REWRITES["none"])))
        changed.chmod(0o755)
        done = subprocess.run(command[:-1] + [str(changed)], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              check=False)
    output = done.stdout[:-1] if defect == "short" else done.stdout
    sys.stdout.buffer.write(output)
    sys.stdout.flush()
    if done.returncode < 0:
        os.kill(os.getpid(), -done.returncode)
    return done.returncode ^ (defect == "status")


if __name__ == "__main__":
    sys.exit(main())
