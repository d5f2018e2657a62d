"""The function at a place of an ELF file, by the file's symbol tables. It needs no debug information and no gdb."""
import struct

SECTION_SYMBOLS = (2, 11)  # SHT_SYMTAB, SHT_DYNSYM
FUNCTION_TYPES = (2, 10)   # STT_FUNC, STT_GNU_IFUNC
LOADABLE = 1


def _rows(data, form, begin, size, count):
    return [struct.unpack_from(form, data, begin + index * size) for index in range(count)]


def _virtual_address(data, offset):
    """The address at which the program headers map a byte of the file; None if they do not."""
    begin, = struct.unpack_from("<Q", data, 32)
    size, count = struct.unpack_from("<HH", data, 54)
    for kind, _, file_offset, address, _, file_size, _, _ in _rows(data, "<IIQQQQQQ", begin, size, count):
        if kind == LOADABLE and file_offset <= offset < file_offset + file_size:
            return offset - file_offset + address
    return None


def _functions(data):
    """(address, size, name) of each function of the symbol tables."""
    begin, = struct.unpack_from("<Q", data, 40)
    size, count = struct.unpack_from("<HH", data, 58)
    sections = _rows(data, "<IIQQQQIIQQ", begin, size, count)
    for _, kind, _, _, table, length, names, _, _, row in sections:
        if kind not in SECTION_SYMBOLS or row == 0:
            continue
        strings = sections[names][4]
        for name, info, _, section, value, extent in _rows(data, "<IBBHQQ", table, row, length // row):
            if info & 15 in FUNCTION_TYPES and section != 0:
                end = data.index(b"\0", strings + name)
                yield value, extent, data[strings + name:end].decode(errors="replace")


def function_at(path, offset):
    """(name, distance) of the function that holds the byte at `offset` of the file, or None. A function without a size
    reaches to the next one."""
    with open(path, "rb") as file:
        data = file.read()
    if data[:5] != b"\x7fELF\x02":
        return None
    address = _virtual_address(data, offset)
    if address is None:
        return None
    below = [function for function in _functions(data) if function[0] <= address]
    if not below:
        return None
    begin, size, name = max(below)
    if size and address >= begin + size:
        return None
    return name, address - begin
