"""The keys of the FLOP table: pairs of form and format id, and how their words count."""

from dataclasses import dataclass

from rows import RulesError

PRECISIONS = {"half": "HALF", "single": "SINGLE", "double": "DOUBLE"}


@dataclass(frozen=True)
class Key:
    form: int
    format: int
    layout: str
    count: int
    multiplier: int
    page: str


def layout_of(row):
    """The name of the layout, as in src/a64/flop_keys.h, of a scalar floating-point or Advanced SIMD row."""
    group = row.encodings[0].class_name
    if group.startswith("float"):
        return "FP_DATA_PROCESSING"
    shape = "SCALAR" if group.startswith("asisd") else "VECTOR"
    if group.endswith("shf"):
        return f"{shape}_FIXED_POINT"
    return f"{shape}_HALF" if not row.rank[-1][1] else f"{shape}_SINGLE_DOUBLE"


def scalable_keys(rows, rules):
    for line in rules["scalable"]:
        mnemonic, value, mask, precision, count, multiplier = (column.strip() for column in line.split("|"))
        bits = (int(mask, 16), int(value, 16))
        found = [row for row in rows if row.mnemonic == mnemonic and (row.mask, row.value) == bits]
        if len(found) != 1:
            raise RulesError(f"[scalable] {mnemonic} {value} is {len(found)} rows")
        first_count = int(count.split("/")[0])
        if precision == "single/double" and count != f"{first_count}/{first_count // 2}":
            raise RulesError(f"[scalable] {mnemonic} {value}: doubles are half as many as singles")
        if precision == "half scalar":
            layout = "SCALAR_HALF"
        else:
            layout = "SCALABLE_" + ("SINGLE_DOUBLE" if "/" in precision else PRECISIONS[precision])
        yield Key(found[0].form, found[0].format, layout, 0 if layout == "SCALAR_HALF" else first_count,
                  0 if multiplier == "kept" else int(multiplier), found[0].page)


def keys(rows, rules):
    found = list(scalable_keys(rows, rules))
    for line in rules["counted"]:
        multiplier, names = (column.strip() for column in line.split("|"))
        for name in names.split():
            chosen = [row for row in rows if row.mnemonic == name and row.encodings[0].group.startswith("simd_dp/")]
            if not chosen:
                raise RulesError(f"[counted] {name} has no rows")
            found += [Key(row.form, row.format, layout_of(row), 0, int(multiplier), row.page) for row in chosen]
    found.sort(key=lambda one: (one.form, one.format))
    if len({(one.form, one.format) for one in found}) != len(found):
        raise RulesError("a key is counted twice")
    for line in rules["totals"]:
        if line != f"keys {len(found)}":
            raise RulesError(f"{len(found)} keys instead of {line}")
    return found
