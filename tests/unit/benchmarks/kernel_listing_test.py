"""Compares the built kernels with the listings that were written by hand from their design, and what they overwrite
with what their callers declare to the compiler.

  kernel_listing_test.py FILE LISTINGS HEADER OBJDUMP [LLVM_MC]

FILE is a linked executable, LISTINGS the folder of listings, HEADER the header with the callers. Each listing is
compared in the text of OBJDUMP, and, if there is an LLVM_MC, in the words that it assembles. Status 1 and one line per
difference if anything differs.
"""
import os
import re
import subprocess
import sys
import tempfile

from disassembly import ElfFile, canonical, disassemble

failures = []


def expect(what, expected, actual):
    if expected != actual:
        failures.append(f"{what}: expected {expected}, got {actual}")


class Listing:
    """A listing: instructions in canonical text with branch targets as instruction numbers, and its header facts."""

    def __init__(self, path):
        self.path = path
        self.instructions = []
        self.data_word = None
        self.overwrites = None
        labels = {}
        with open(path, encoding="utf-8") as file:
            for line in file:
                fact = re.match(r"// (data word|overwrites): (.*)", line)
                if fact and fact.group(1) == "data word":
                    self.data_word = int(fact.group(2))
                elif fact:
                    self.overwrites = expand_registers(fact.group(2))
                elif re.match(r"\w+:", line):
                    labels[line.split(":")[0]] = len(self.instructions)
                elif canonical(line):
                    self.instructions.append(canonical(line))
        for number, text in enumerate(self.instructions):
            if text.startswith("b.ne "):
                self.instructions[number] = f"b.ne @{labels[text.split()[1]]}"


def expand_registers(text):
    registers = set()
    for item in text.split():
        match = re.fullmatch(r"v(\d+)-v(\d+)", item)
        registers |= {f"v{n}" for n in range(int(match.group(1)), int(match.group(2)) + 1)} if match else {item}
    return registers


def whole_register(name):
    """The register that a view of it belongs to: w13 is x13, s31 is v31, v2.8h is v2."""
    match = re.fullmatch(r"([wxvqdsh])(\d+)(?:\.\w+)?", name)
    if not match:
        raise ValueError(f"not a register: {name}")
    return ("x" if match.group(1) in "wx" else "v") + match.group(2)


def overwritten(text):
    """The registers that an instruction of the kernels writes. Fails on an instruction that it does not know."""
    mnemonic, _, rest = text.partition(" ")
    operands = [operand.strip(" {}") for operand in rest.split(",")]
    if mnemonic == "cmp":
        return {"flags"}
    if mnemonic in ("str", "ret", "br", "b.ne"):
        return set()
    if mnemonic == "ldp":
        return {whole_register(operands[0]), whole_register(operands[1])}
    if mnemonic == "ld1":
        return {whole_register(name.strip()) for name in re.search(r"{(.*)}", rest).group(1).split(",")}
    if mnemonic == "subs":
        return {whole_register(operands[0]), "flags"}
    if mnemonic in ("ldr", "add", "sub", "mov", "lsl", "csel", "fadd", "fmla", "fmadd", "fcvt"):
        return {whole_register(operands[0])}
    raise ValueError(f"what does this write? {text}")


def branch_distance(word):
    """Of a conditional branch, in instructions: disassemblers spell the target each in its own way."""
    distance = word >> 5 & 0x7FFFF
    return distance - (1 << 19) if distance & 1 << 18 else distance


def assembled_words(llvm_mc, objdump, path):
    with tempfile.TemporaryDirectory() as folder:
        output = os.path.join(folder, "listing.o")
        subprocess.run([llvm_mc, "-triple=aarch64", "-mattr=+fullfp16", "-filetype=obj", "-o", output, path],
                       check=True)
        return [word for _, word, _ in disassemble(objdump, output)]


def declared(header, name):
    """The strings of a clobber list in the header, with the lists that it names."""
    with open(header, encoding="utf-8") as file:
        text = file.read().replace("\\\n", " ")
    body = re.search(rf"^#define {name} (.*)$", text, re.MULTILINE).group(1)
    registers = {"flags" if item == "cc" else item for item in re.findall(r'"(\w+)"', body)}
    for inner in re.findall(r"CEILMETER_\w+", body):
        registers |= declared(header, inner)
    return registers


def main():
    file, listings, header, objdump, *llvm_mc = sys.argv[1:]
    objdump = [objdump, "--mattr=+fullfp16"] if "llvm" in os.path.basename(objdump) else [objdump]
    elf = ElfFile(file)
    unions = {"load": set(), "flops": set()}
    names = sorted(name[:-2] for name in os.listdir(listings) if name.endswith(".s"))
    expect("number of listings", 5 + 8 + 1, len(names))
    for name in names:
        listing = Listing(os.path.join(listings, name + ".s"))
        is_load = name.startswith("cachebw_")
        address, size = elf.symbols[name]
        if not is_load and listing.data_word is not None:
            expect(f"{name}: value of the address word", hex(address), hex(elf.word64(address)))
            code, size = elf.symbols[name + "_code"]
            expect(f"{name}: distance from the address word to the code", 8, code - address)
            address = code
        if listing.data_word is not None:
            unit = "bytes" if is_load else "flops"
            data_word = elf.word64(elf.symbols[f"{name}_{unit}_per_iteration"][0])
            expect(f"{name}: data word", listing.data_word, data_word)

        built = disassemble(objdump, file, address, address + size)
        expect(f"{name}: number of instructions", len(listing.instructions), len(built))
        registers = set()
        for number, ((_, word, text), wanted) in enumerate(zip(built, listing.instructions)):
            if text.startswith("b.ne "):
                text = f"b.ne @{number + branch_distance(word)}"
            expect(f"{name}: instruction {number}", wanted, text)
            registers |= overwritten(text)
        if llvm_mc:
            words = assembled_words(llvm_mc[0], objdump, listing.path)
            expect(f"{name}: words", [f"{word:08x}" for word in words], [f"{word:08x}" for _, word, _ in built])
        expect(f"{name}: overwritten registers", sorted(listing.overwrites), sorted(registers))
        unions["load" if is_load else "flops"] |= registers

    # The operands that go in and come out of the two callers' assembly are declared by their constraint.
    call = declared(header, "CEILMETER_CALL_REGISTERS")
    expect("registers of a call", ["x16", "x17", "x30"], sorted(call))
    expect("overwritten by the load kernels", sorted(unions["load"]),
           sorted(declared(header, "CEILMETER_LOAD_KERNEL_OVERWRITES") | {"x2"}))
    expect("overwritten by the arithmetic kernels", sorted(unions["flops"]),
           sorted(declared(header, "CEILMETER_FLOPS_KERNEL_OVERWRITES") | {"x1", "x2"}))

    for failure in failures:
        print(failure)
    print(f"{len(names)} listings, {len(failures)} differences, words {'assembled' if llvm_mc else 'not assembled'}")
    return 1 if failures else 0


sys.exit(main())
