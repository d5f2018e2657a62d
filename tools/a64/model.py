"""The encoding table and the class list, read and checked against each other.

Everything that the generator writes follows from what load() returns; what the two inputs say differently ends here, as
a ModelError that names the class and the row.
"""

import pathlib
import re
from dataclasses import dataclass, field

WORD = 0xFFFFFFFF
CLASS_COUNT = 117
NOT_RECOGNISED = CLASS_COUNT


class ModelError(Exception):
    """The class list contradicts the encoding table or itself."""


@dataclass(frozen=True)
class Row:
    """One encoding of the architecture: a word w is this one when (w & mask) == value."""

    group: str
    name: str
    mask: int
    value: int


@dataclass(frozen=True)
class Field:
    name: str
    low: int
    width: int

    @property
    def bits(self):
        return ((1 << self.width) - 1) << self.low


@dataclass
class InstructionClass:
    """One class: its words have the bits of base under mask."""

    value: int
    name: str
    base: int
    fields: list
    disregarded: int
    named: list
    refused: list
    strays: list
    mask: int = 0
    rows: list = field(default_factory=list)
    refused_rows: list = field(default_factory=list)


def overlap(mask, value, other_mask, other_value):
    return (value ^ other_value) & mask & other_mask == 0


def within(mask, value, outer_mask, outer_value):
    """Whether every word of the first pattern is one of the outer pattern's."""
    return mask & outer_mask == outer_mask and value & outer_mask == outer_value


def read_rows(path):
    rows = []
    for line in pathlib.Path(path).read_text(encoding="utf-8").splitlines():
        if line.startswith("#") or line.startswith("class\t"):
            continue
        group, name, mask, value = line.split("\t")[:4]
        rows.append(Row(group, name, int(mask, 16), int(value, 16)))
    return rows


def parse_field(text):
    name, low, *rest = text.split(":")
    return Field(name, int(low), int(rest[0]) if rest else 1)


def parse_class(value, line):
    columns = [column.strip() for column in line.split("|", 3)]
    if len(columns) != 4:
        raise ModelError(f"four columns wanted: {line}")
    name, base, fields, selectors = columns
    fields = [parse_field(text) for text in fields.split()]
    disregarded = sum(item.bits for item in fields if item.name == "-")
    by_sign = {"": [], "!": [], "~": []}
    for selector in selectors.split():
        sign = selector[0] if selector[0] in "!~" else ""
        by_sign[sign].append(selector[len(sign):])
    return InstructionClass(value, name, int(base, 16), [item for item in fields if item.name != "-"], disregarded,
                            by_sign[""], by_sign["!"], by_sign["~"])


def read_classes(path):
    classes = []
    for line in pathlib.Path(path).read_text(encoding="utf-8").splitlines():
        if line and not line.startswith("#"):
            classes.append(parse_class(len(classes), line))
    return classes


def select(rows, selector):
    group, _, expression = selector.partition(":")
    chosen = [row for row in rows if row.group == group and re.match(expression, row.name)]
    if not chosen:
        raise ModelError(f"'{selector}' names no row")
    return chosen


def check_shape(item):
    """Fields in falling order, none over another or over a bit of the base word."""
    if not re.fullmatch(r"[a-z][a-z0-9_]*", item.name):
        raise ModelError(f"'{item.name}' is no name")
    above = 32
    for part in item.fields:
        if part.width < 1 or part.low < 0 or part.low + part.width > above:
            raise ModelError(f"{item.name}: field {part.name} is out of order or overlaps the one before")
        above = part.low
    variable = item.disregarded | sum(part.bits for part in item.fields)
    if any(part.bits & item.disregarded for part in item.fields):
        raise ModelError(f"{item.name}: a field covers disregarded bits")
    if item.base & variable:
        raise ModelError(f"{item.name}: the base word {item.base:08x} has bits set inside a field")
    item.mask = WORD & ~variable


def check_rows(item, rows):
    """The class's rows have its constant bits; the bits that vary between them lie in its fields and fill each."""
    for selector in item.named:
        item.rows += [row for row in select(rows, selector) if row not in item.rows]
    for selector in item.refused:
        item.refused_rows += select(rows, selector)
    for row in item.rows + item.refused_rows:
        if not within(row.mask, row.value, item.mask, item.base):
            raise ModelError(f"{item.name}: {row.name} does not have the class's constant bits")
    fixed = WORD
    for row in item.rows:
        fixed &= row.mask & ~(row.value ^ item.rows[0].value)
    for part in item.fields + [Field("-", 0, 0)]:
        bits = part.bits or item.disregarded
        if bits and fixed & bits == bits and item.rows[0].value & bits == 0:
            raise ModelError(f"{item.name}: field {part.name} is the same in every row: a constant")


def check_strangers(item, classes, rows):
    """Every row that shares words with the class is one that the class list names, here or for a class within this."""
    strays = [row for selector in item.strays for row in select(rows, selector)]
    for row in strays:
        if not overlap(row.mask, row.value, item.mask, item.base):
            raise ModelError(f"{item.name}: {row.name} shares no word with the class")
    known = set(item.rows) | set(item.refused_rows) | set(strays)
    for other in classes:
        if within(other.mask, other.base, item.mask, item.base):
            known |= set(other.rows)
    for row in rows:
        if row not in known and overlap(row.mask, row.value, item.mask, item.base):
            raise ModelError(f"{item.name}: {row.name} has words of the class and is not named")


def check_pairs(classes):
    """Two classes share words only if one lies within the other."""
    for item in classes:
        for other in classes[item.value + 1:]:
            if not overlap(item.mask, item.base, other.mask, other.base):
                continue
            if item.name == other.name or (item.mask, item.base) == (other.mask, other.base):
                raise ModelError(f"{item.name} and {other.name} are the same class")
            if not (within(item.mask, item.base, other.mask, other.base)
                    or within(other.mask, other.base, item.mask, item.base)):
                raise ModelError(f"{item.name} and {other.name} overlap and neither contains the other")


def check(classes, rows):
    if len(classes) != CLASS_COUNT:
        raise ModelError(f"{len(classes)} classes instead of {CLASS_COUNT}")
    if len({item.name for item in classes}) != len(classes):
        raise ModelError("two classes have one name")
    for item in classes:
        check_shape(item)
    for item in classes:
        check_rows(item, rows)
    for item in classes:
        check_strangers(item, classes, rows)
    check_pairs(classes)


def row_values(classes, rows):
    """The value that each row's words decode to, as the class list names them (strays apart)."""
    values = {}
    for item in sorted(classes, key=lambda one: bin(one.mask).count("1")):
        for row in item.rows:
            values[row] = item.value
        for row in item.refused_rows:
            values[row] = NOT_RECOGNISED
    return [values.get(row, NOT_RECOGNISED) for row in rows]


def load(folder):
    folder = pathlib.Path(folder)
    rows = read_rows(folder / "a64_encodings.tsv")
    classes = read_classes(folder / "classes.txt")
    check(classes, rows)
    return classes, rows
