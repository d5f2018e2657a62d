"""The layouts of the classifier's rows: which fields of a word give the element size and the vector's shape.

A layout's name is written here, its number follows: rules.txt fixes some, the others are numbered as they first occur.
"""

import re

SHARED_BY_TAIL = {"b": "bytes", "h": "halfwords", "w": "words", "d": "doublewords", "hi": "high half", "lo": "low half",
                  "1": "even", "2": "odd"}


def simd_layout(row, rows_of_page):
    """Advanced SIMD: by what the page's other classes are."""
    names = [one.encodings[0] for one in rows_of_page]
    this = row.encodings[0]
    half = not row.rank[-1][1]
    if row.rank[0] or any(one.mnemonic != row.mnemonic for one in rows_of_page):
        return f"vector, {row.mnemonic[5:] or 'first'} half"
    scalar = this.class_name.startswith("asisd")
    shape = "scalar" if scalar else "vector"
    precisions = {one.rank[-1][1] for one in rows_of_page}
    shapes = {one.class_name.startswith("asisd") for one in names}
    precision = "half precision" if half else "single and double precision"
    if len(precisions) == 1:
        plain = {"asimddiff": "vector, long", "asimdtbl": "vector, table", "asimdimm": "vector, modified immediate"}
        by_element = " by element" if "elem" in this.class_name else ""
        return plain.get(this.class_name, shape + by_element)
    if len(shapes) == 1:
        return precision
    element = " by element" if row.page.endswith("_elt") else ""
    return f"{shape}{element}, {precision}"


def shared_layout(row, suffix):
    mnemonic = row.mnemonic
    for pattern in ("cmp(..)", "fac(..)", "fcm(..)", "cterm(..)", "frint(.)", "(?:trn|uzp|zip)(.)", "[su]?unpk(hi|lo)",
                    "punpk(hi|lo)", "(?:cnt|dec|inc|rev|sxt|uxt)(.)"):
        found = re.fullmatch(pattern, mnemonic)
        if found:
            tail = found[1]
            if mnemonic.startswith("frint"):
                name = f"rounding {tail}"
            elif len(tail) == 2 and tail not in ("hi", "lo") or mnemonic.startswith("cmp"):
                name = f"condition {tail}"
            else:
                name = SHARED_BY_TAIL[tail]
            return name + (" of quadwords" if suffix == "q" else "")
    raise ValueError(f"no layout for {mnemonic}")


def scalable_layout(row, rows_of_page):
    one = row.encodings[0]
    page_operands = row.page.split("_", 1)[1] if "_" in row.page else ""
    suffix = one.name[len(one.mnemonic) + 1 + len(page_operands):].strip("_")
    if any(other.mnemonic != row.mnemonic for other in rows_of_page):
        return shared_layout(row, suffix)
    if len(rows_of_page) > 1 or suffix not in ("", "m"):
        if "fp_f" in one.group and suffix in "hsd" and suffix:
            return {"h": "half precision", "s": "single precision", "d": "double precision"}[suffix]
        if len(rows_of_page) > 1:
            return f"operands {suffix or 'plain'}"
    if one.group.startswith("sme/"):
        return "SME2" if "multi" in one.group or "zt" in one.group else "SME"
    second = "sve_intx" in one.group or "quads" in one.group or row.mnemonic.startswith("bf")
    return "SVE2" if second else "SVE"


MEMORY = {"ldst_immpost": "post-index", "ldst_immpre": "pre-index", "ldst_pos": "unsigned offset",
          "loadlit": "literal", "ldst_regoff": "register offset", "ldstpair_post": "post-index",
          "ldstpair_pre": "pre-index", "ldstpair_off": "signed offset", "ldstnapair_offs": "signed offset",
          "ldst_unscaled": "unscaled offset", "ldst_unpriv": "unscaled offset", "ldapstl_unscaled": "unscaled offset",
          "ldapstl_simd": "unscaled offset", "asisdlse": "no offset", "asisdlso": "no offset",
          "asisdlsep": "post-index", "asisdlsop": "post-index", "memop": "no offset", "ldstord": "no offset",
          "ldapstl_writeback": "write-back", "ldstexclr": "exclusive", "ldstexclp": "exclusive pair",
          "ldiappstilp": "ordered pair", "ldst_gcs": "no offset"}

INTEGER = {"addsub_carry": "carry", "addsub_ext": "extended register", "addsub_shift": "shifted register",
           "log_shift": "shifted register", "addsub_imm": "immediate", "log_imm": "immediate",
           "minmax_imm": "immediate", "bitfield": "bitfield", "extract": "bitfield", "movewide": "wide immediate",
           "condsel": "conditional", "condcmp_imm": "conditional, immediate", "condcmp_reg": "conditional, register",
           "dp_2src": "two sources", "dp_3src": "three sources", "pcreladdr": "relative address"}


def layout(row, rows_of_page):
    one = row.encodings[0]
    group = one.class_name
    if one.scalable:
        return scalable_layout(row, rows_of_page)
    if group == "ldsttags":
        return {"post": "post-index", "pre": "pre-index", "offset": "signed offset", "bulk": "bulk"}[
            re.search("post$|pre$|offset$|bulk$", one.name.split("_")[1])[0]]
    if group in MEMORY:
        return MEMORY[group]
    if group.startswith("float"):
        return "BFloat16" if row.mnemonic == "bfcvt" else "floating-point"
    if group.startswith(("asimd", "asisd")):
        return simd_layout(row, rows_of_page)
    if one.group.startswith("simd_dp/"):
        return "cryptographic"
    if one.group.startswith("control/"):
        if one.name == "DSB_BOn_barriers":
            return "barrier with nXS"
        return {"barriers": "barrier", "exception": "exception", "compbranch": "compare and branch",
                "testbranch": "test and branch"}.get(group, "branch" if "branch" in group else "system")
    return INTEGER.get(group, "integer")


def number(rows, rules):
    """Gives every row its layout and format id."""
    pages = {}
    for row in rows:
        pages.setdefault(row.page, []).append(row)
    fixed = {}
    for line in rules["layout ids"]:
        value, name = (column.strip() for column in line.split("|"))
        fixed[name] = int(value)
    taken, numbers, following = set(fixed.values()), dict(fixed), 0
    for row in rows:
        row.layout = layout(row, pages[row.page])
        if row.layout not in numbers:
            while following in taken:
                following += 1
            numbers[row.layout] = following
            taken.add(following)
        row.format = numbers[row.layout]
    return numbers
