"""The classifier's rows: the encoding table's, gathered into the pages and classes by which the ids count.

A page is one instruction of the architecture's reference as its pages divide them ("FMLA (by element)"); it gives the
form id. Within it the classes of encodings ("vector, half-precision") are the rows; they give the format id. All of
it follows from the names of the encoding table and from rules.txt; what rules.txt expects in total is checked.
"""

import pathlib
import re
from dataclasses import dataclass

WORD = 0xFFFFFFFF
SCALABLE = ("sve/", "sme/")
FP_OR_GENERAL = ("ldr", "str", "ldp", "stp", "ldnp", "stnp", "ldur", "stur", "ldapur", "stlur")
POST, PRE, OFFSET = 0, 1, 2


class RulesError(Exception):
    """The rules and the encoding table do not fit each other."""


@dataclass(frozen=True)
class Encoding:
    """A row of the encoding table."""

    group: str
    name: str
    mask: int
    value: int

    @property
    def mnemonic(self):
        return self.name.split("_")[0].lower()

    @property
    def class_name(self):
        return self.group.split("/")[-1]

    @property
    def scalable(self):
        return self.group.startswith(SCALABLE)


@dataclass
class Row:
    """A row of the classifier."""

    mnemonic: str
    page: str
    rank: tuple
    encodings: list
    mask: int = 0
    value: int = 0
    form: int = 0
    mnemonic_id: int = 0
    layout: str = ""
    format: int = 0


def sections(path):
    """The sections of a rules file: name to lines, without comments."""
    found, name = {}, None
    for line in pathlib.Path(path).read_text(encoding="utf-8").splitlines():
        if re.fullmatch(r"\[.*\]", line):
            name = line[1:-1]
            found[name] = []
        elif line.strip() and not line.startswith("#"):
            found[name].append(line)
    return found


def read_encodings(path):
    found = []
    for line in pathlib.Path(path).read_text(encoding="utf-8").splitlines():
        if not line.startswith(("#", "class\t")):
            group, name, mask, value = line.split("\t")[:4]
            found.append(Encoding(group, name, int(mask, 16), int(value, 16)))
    return found


def read_mnemonics(path):
    lines = pathlib.Path(path).read_text(encoding="utf-8").splitlines()
    return " ".join(line for line in lines if not line.startswith("#")).split()


def matches(expression, name):
    return re.match(expression, name, re.IGNORECASE)


def select(encodings, rules, mnemonics):
    """The encodings that the classifier knows."""
    left_out = {expression: 0 for expression in rules["left out"]}
    chosen, known = [], set(mnemonics)
    for one in encodings:
        hits = [expression for expression in left_out if matches(expression, one.name)]
        for expression in hits:
            left_out[expression] += 1
        if one.mnemonic in known and not hits:
            chosen.append(one)
    for expression, hits in left_out.items():
        if not hits:
            raise RulesError(f"[left out] {expression} names no encoding")
    for line in rules["added"]:
        group, name, mask, value = line.split()
        chosen.append(Encoding(group, name, int(mask, 16), int(value, 16)))
    return chosen


def scalable_page(one):
    """SVE and SME: the operands in the name give the page, and what follows them gives the class."""
    rest = one.name[len(one.mnemonic) + 1:]
    split = (re.fullmatch(r"(.*)_([sd]_(?:x32|64)_(?:un)?scaled|\dx\d_16)", rest)
             or re.fullmatch(r"(z_az)_(.*)", rest) or re.fullmatch(r"(.*)_([^_]*)", rest))
    return split[1], ("bhswdq".find(split[2][:1]), split[2])


def vector_page(one, of_mnemonic):
    """Advanced SIMD arithmetic: the part of the name that tells a mnemonic's pages apart."""
    mnemonic, name, group = one.mnemonic, one.name, one.class_name
    if "elem" in group or name == "FCMLA_advsimd_elt":
        return "advsimd_elt"
    if group == "asisdpair":
        return "advsimd_pair"
    if "asisdpair" in of_mnemonic or "asimdelem" in of_mnemonic or mnemonic == "fcmla":
        return "advsimd_vec"
    if mnemonic in ("sqshl", "uqshl"):
        return "advsimd_imm" if "shf" in group else "advsimd_reg"
    if mnemonic in ("fcvtzs", "fcvtzu", "scvtf", "ucvtf"):
        return "advsimd_fix" if "shf" in group else "advsimd_int"
    if re.fullmatch("f?cm(eq|ge|gt|le|lt)", mnemonic):
        return "advsimd_zero" if "misc" in group else "advsimd_reg"
    if mnemonic in ("dup", "ins"):
        return "advsimd_gen" if re.search("_(DR|IR)_r$", name) else "advsimd_elt"
    if mnemonic in ("bic", "orr"):
        return "advsimd_imm" if group == "asimdimm" else "advsimd_reg"
    return "advsimd"


def vector_rank(one):
    """Scalar before vector, half-precision before the others."""
    half = "fp16" in one.class_name or bool(re.search("_(RH_H|only_H|asimdimm_H_h)$", one.name))
    return (not one.class_name.startswith("asisd"), not half)


def float_page(one):
    if one.mnemonic == "fmov":
        return {"floatdp1": "float", "float2int": "float_gen", "floatimm": "float_imm"}[one.class_name]
    if one.class_name == "float2fix":
        return "float_fix"
    if one.class_name == "float2int" and one.mnemonic in ("fcvtzs", "fcvtzu", "scvtf", "ucvtf"):
        return "float_int"
    return "float"


def memory_page(one):
    """Loads and stores: page and rank, or None."""
    mnemonic, group = one.mnemonic, one.class_name
    kind = ""
    if mnemonic in FP_OR_GENERAL:
        kind = "fpsimd" if re.match("[A-Z0-9]+_(B|H|S|D|Q|BL)_", one.name) else "gen"
    tail = f"_{kind}" if kind else ""
    single = "advsimd" if mnemonic.endswith("r") else "advsimd_sngl"
    places = {
        "ldst_immpost": ("imm" + tail, POST), "ldst_immpre": ("imm" + tail, PRE), "ldst_pos": ("imm" + tail, OFFSET),
        "loadlit": ("lit" + tail, 0), "ldst_regoff": ("reg" + tail, 0),
        "ldstpair_post": (kind, POST), "ldstpair_pre": (kind, PRE), "ldstpair_off": (kind, OFFSET),
        "ldstnapair_offs": (kind, 0), "ldst_unscaled": (kind, 0), "ldapstl_unscaled": (kind, 0),
        "ldapstl_simd": (kind, 0), "memop": ("", 0), "ldstord": ("", 0), "ldapstl_writeback": ("", 1),
        "asisdlse": ("advsimd_mult", 0), "asisdlsep": ("advsimd_mult", 1), "asisdlso": (single, 0),
        "asisdlsop": (single, 1),
    }
    if group == "ldsttags":
        return "", one.name.split("_")[1]
    return places.get(group)


def place(one, of_mnemonic):
    """Page, and the rank of the class within it."""
    mnemonic, group = one.mnemonic, one.class_name
    if one.scalable:
        return scalable_page(one)
    if memory_page(one) is not None:
        return memory_page(one)
    if group.startswith("float"):
        return float_page(one), 0
    if group.startswith(("asimd", "asisd")):
        return vector_page(one, of_mnemonic), vector_rank(one)
    if one.group.startswith("simd_dp/"):
        return "advsimd", 0
    if group in ("addsub_ext", "addsub_imm", "addsub_shift", "log_imm", "log_shift"):
        return group, 0
    if group in ("condcmp_imm", "minmax_imm"):
        return "imm", 0
    if group == "condcmp_reg" or (group == "dp_2src" and mnemonic in ("smax", "smin", "umax", "umin")):
        return "reg", 0
    if mnemonic == "msr":
        return ("imm" if group == "pstate" else "reg"), 0
    if mnemonic == "dsb":
        return "", one.name
    if mnemonic in ("b", "bc"):
        return ("uncond" if group == "branch_imm" else "cond"), 0
    return "", 0


def loose_bits(one, rules):
    bits = 0
    for line in rules["loose"]:
        groups, rest = line.split("|", 1)
        expression, free = (column.strip() for column in rest.rsplit("|", 1))
        if one.class_name in groups.split() and matches(expression, one.name):
            bits |= int(free, 16)
    return bits


def gather(encodings, rules):
    """Rows without ids, one for each class of a page: what its encodings have in common."""
    of_mnemonic = {}
    for one in encodings:
        of_mnemonic.setdefault(one.mnemonic, set()).add(one.class_name)
    found = {}
    for one in encodings:
        page, rank = place(one, of_mnemonic[one.mnemonic])
        row = found.setdefault((one.mnemonic, page, rank), Row(one.mnemonic, page, (rank,), []))
        row.encodings.append(one)
    for row in found.values():
        row.mask = WORD
        for one in row.encodings:
            row.mask &= one.mask & ~(one.value ^ row.encodings[0].value) & ~loose_bits(one, rules)
        row.value = row.encodings[0].value & row.mask
    return list(found.values())


def shared_pages(rules):
    found = {}
    for line in rules["shared"]:
        page, names = (column.strip() for column in line.split("|"))
        for place_in_page, mnemonic in enumerate(names.split()):
            found[mnemonic, page] = (names.split()[0], place_in_page)
    return found


def in_order(rows, rules, mnemonics):
    """The rows by their pages' names, with form and mnemonic ids; what repeats an earlier row is dropped."""
    shared = shared_pages(rules)
    used = set()
    for row in rows:
        key = (row.mnemonic, row.page)
        owner, place_in_page = shared.get(key, (row.mnemonic, 0))
        used |= {key} & set(shared)
        row.rank = (place_in_page, *row.rank)
        row.page = f"{owner}_{row.page}" if row.page else owner
    if used != set(shared):
        raise RulesError(f"[shared] names pages without rows: {sorted(set(shared) - used)}")
    pages = sorted({row.page for row in rows} | {name for line in rules["without rows"] for name in line.split()})
    kept, seen = [], set()
    for row in sorted(rows, key=lambda one: (one.page, one.rank)):
        row.form = pages.index(row.page)
        row.mnemonic_id = mnemonics.index(row.mnemonic)
        if (row.mask, row.value) not in seen:
            kept.append(row)
        seen.add((row.mask, row.value))
    return kept, len(pages)


def overlaps(rows):
    """How many pairs of rows share a word, and in how many of them the later row is out of reach."""
    pairs = hidden = 0
    for index, first in enumerate(rows):
        for second in rows[index + 1:]:
            if (first.value ^ second.value) & first.mask & second.mask == 0:
                pairs += 1
                hidden += second.mask & first.mask == first.mask
    return pairs, hidden


def check(rows, form_count, rules, mnemonics):
    named = [name for name in mnemonics if any(row.mnemonic == name for row in rows)]
    if list(dict.fromkeys(row.mnemonic for row in rows)) != named:
        raise RulesError("the pages give another order of mnemonics than mnemonics.txt")
    if len({(row.form, row.format) for row in rows}) != len(rows):
        raise RulesError("two rows have one form id and one format id")
    pairs, hidden = overlaps(rows)
    totals = {"rows": len(rows), "form ids": form_count, "form ids with rows": len({row.form for row in rows}),
              "mnemonics with rows": len(named), "layouts": len({row.format for row in rows}),
              "pairs of rows with a word in common": pairs, "later rows out of reach": hidden}
    for line in rules["totals"]:
        what, expected = line.rsplit(" ", 1)
        if totals[what] != int(expected):
            raise RulesError(f"{what}: {totals[what]} instead of {expected}")
