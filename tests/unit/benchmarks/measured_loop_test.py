"""Holds the measured loop of the frame, as built, to its shape: per kernel call one load of the state word and the
call, which is virtual and so costs the two loads of a dispatch, and nothing else that touches memory.

  measured_loop_test.py FILE OBJDUMP

FILE is a linked executable with the optimised frame in it.
"""
import os
import re
import sys

from disassembly import ElfFile, disassemble

BRANCHES = re.compile(r"(b\.\w+|b|cbz|cbnz|tbz|tbnz) ")
# Instructions that do not access memory and do not leave the loop.
REGISTER_ONLY = re.compile(r"(mov|add|cmp|nop|sub|subs)\b")


def fail(message, loop=()):
    print(message)
    for address, _, text in loop:
        print(f"  {address:#x}: {text}")
    sys.exit(1)


def branch_target(address, word):
    """Of the branches that may close a loop; None for other words."""
    if word >> 24 == 0x54 or word >> 25 & 0x3F == 0x1A:  # b.cond, cbz, cbnz
        distance, bits = word >> 5 & 0x7FFFF, 19
    elif word >> 26 == 0x05:  # b
        distance, bits = word & 0x3FFFFFF, 26
    elif word >> 25 & 0x3F == 0x1B:  # tbz, tbnz
        distance, bits = word >> 5 & 0x3FFF, 14
    else:
        return None
    if distance >> bits - 1:
        distance -= 1 << bits
    return address + 4 * distance


def main():
    file, objdump = sys.argv[1:]
    elf = ElfFile(file)
    names = [name for name in elf.symbols if re.search(r"benchmark_std18count_kernel_calls", name)]
    if len(names) != 1:
        fail(f"expected one function with the measured loop, got {names}")
    address, size = elf.symbols[names[0]]
    command = [objdump, "--mattr=+all"] if "llvm" in os.path.basename(objdump) else [objdump]
    code = disassemble(command, file, address, address + size)

    backward = []
    for at, word, _ in code:
        target = branch_target(at, word)
        if target is not None and address <= target <= at:
            backward.append((target, at))
    if len(backward) != 1:
        fail(f"expected one backward branch, got {len(backward)}", code)
    first, last = backward[0]
    loop = [row for row in code if first <= row[0] <= last]
    texts = [text for _, _, text in loop]

    # The entry may jump into the middle of the loop; inside it there is at most one more branch, the way out.
    inner = [row for row in loop if row[0] != last and branch_target(row[0], row[1]) is not None]
    if len(inner) > 1 or any(first <= branch_target(at, word) <= last for at, word, _ in inner):
        fail("expected no branch in the loop but the way back and the way out", loop)

    calls = [text for text in texts if re.match(r"(bl|blr|svc) ", text)]
    if len(calls) != 1 or not calls[0].startswith("blr x"):
        fail(f"expected one indirect call, got {calls}", loop)
    loads = [re.fullmatch(r"ldr ([wx])(\d+), \[x(\d+)(?:, (\d+))?\]", text) for text in texts if text.startswith("ld")]
    if len(loads) != 3 or None in loads:
        fail("expected three plain loads: the state, the virtual table, the entry of run_kernel", loop)
    state = [load for load in loads if load.group(1) == "w"]
    if len(state) != 1 or f"cmp w{state[0].group(2)}, 1" not in texts:
        fail("expected one load of 32 bits, compared with 1: the state", loop)
    table, entry = [load for load in loads if load.group(1) == "x"]
    if table.group(4) is not None or entry.group(3) != table.group(2) or calls[0] != f"blr x{entry.group(2)}":
        fail("expected a load of the virtual table, a load from it and the call of what it gave", loop)

    others = [text for text in texts if not text.startswith("ldr ") and text not in calls and not BRANCHES.match(text)]
    strange = [text for text in others if not REGISTER_ONLY.match(text)]
    if strange:
        fail(f"expected only moves and sums of registers besides, got {strange}", loop)
    print(f"{len(loop)} instructions: one load of the state, one virtual call, {len(others)} on registers")
    return 0


sys.exit(main())
