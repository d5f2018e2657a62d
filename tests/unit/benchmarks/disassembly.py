"""Reads AArch64 ELF files for the tests that look at built code: symbols and bytes by a small reader of their own, the
instructions by whichever disassembler the test names."""
import re
import struct
import subprocess


class ElfFile:
    """Sections and symbols of a 64-bit little-endian ELF file."""

    def __init__(self, path):
        self.path = path
        with open(path, "rb") as file:
            self.data = file.read()
        if self.data[:6] != b"\x7fELF\x02\x01":
            raise ValueError(f"{path}: not a 64-bit little-endian ELF file")
        table, = struct.unpack_from("<Q", self.data, 0x28)
        entry_size, count = struct.unpack_from("<HH", self.data, 0x3A)
        self.sections = [struct.unpack_from("<IIQQQQIIQQ", self.data, table + i * entry_size) for i in range(count)]
        self.symbols = {}
        for section in self.sections:
            if section[1] == 2:  # SHT_SYMTAB
                self._read_symbols(section)

    def _read_symbols(self, section):
        strings = self.sections[section[6]][4]
        for offset in range(section[4], section[4] + section[5], 24):
            name, _, _, index, value, size = struct.unpack_from("<IBBHQQ", self.data, offset)
            end = self.data.index(b"\0", strings + name)
            text = self.data[strings + name:end].decode()
            if text and 0 < index < len(self.sections):
                self.symbols[text] = (value, size)

    def bytes_at(self, address, size):
        for _, kind, flags, start, offset, length, *_ in self.sections:
            if flags & 2 and kind != 8 and start <= address and address + size <= start + length:
                return self.data[offset + address - start:offset + address - start + size]
        raise ValueError(f"{self.path}: no bytes at {address:#x}")

    def word64(self, address):
        return struct.unpack("<Q", self.bytes_at(address, 8))[0]


def canonical(text):
    """One spelling for an instruction: numbers decimal, register lists in full, single blanks, no comments."""
    text = re.sub(r"<[^>]*>", "", text.split("//")[0])
    text = re.sub(r"#?\b0x([0-9a-f]+)\b", lambda match: str(int(match.group(1), 16)), text)
    text = text.replace("#", "").replace("{ ", "{").replace(" }", "}")
    text = re.sub(r"v(\d+)\.(\w+)-v(\d+)\.\2", lambda match: ", ".join(
        f"v{n}.{match.group(2)}" for n in range(int(match.group(1)), int(match.group(3)) + 1)), text)
    return " ".join(text.lower().split())


def disassemble(command, path, start=None, stop=None):
    """A list of (address, word, canonical text), by `command`, an objdump of LLVM or of binutils."""
    arguments = [*command, "-d", path]
    if start is not None:
        arguments += [f"--start-address={start:#x}", f"--stop-address={stop:#x}"]
    output = subprocess.run(arguments, check=True, capture_output=True, text=True).stdout
    result = []
    for line in output.splitlines():
        match = re.match(r"\s*([0-9a-f]+):\s+((?:[0-9a-f]{2} ){3}[0-9a-f]{2}|[0-9a-f]{8})\s+(\S.*)", line)
        if match:
            word = match.group(2).strip()
            value = int.from_bytes(bytes.fromhex(word), "little") if " " in word else int(word, 16)
            result.append((int(match.group(1), 16), value, canonical(match.group(3))))
    return result
