"""The decision tree over single bits that tells the classes apart.

A leaf lists patterns in the order in which a word is compared with them; what fits none is not recognised. A pattern
that lies within another comes first.
"""

from dataclasses import dataclass

from model import NOT_RECOGNISED

# Every path tests these two bits: if both are 0, the word is SVE, SME or reserved.
FIRST_BITS = (28, 27)

# The bits by which the architecture divides its encoding space come next, in this order, wherever they divide; below
# them the bit that leaves the smaller halves is taken.
LEADING_BITS = (26, 25, 29, 24, 21)

# A leaf of so many patterns is compared one by one rather than divided further.
LEAF_PATTERNS = 2


@dataclass(frozen=True)
class Pattern:
    mask: int
    base: int
    value: int


@dataclass
class Leaf:
    patterns: list


@dataclass
class Node:
    bit: int
    zero: object
    one: object


def patterns_of(classes):
    """The classes and the rows within them that are not to be recognised, most constant bits first."""
    found = []
    for item in classes:
        found.append(Pattern(item.mask, item.base, item.value))
        found += [Pattern(row.mask, row.value, NOT_RECOGNISED) for row in item.refused_rows]
    return sorted(found, key=lambda one: (-bin(one.mask).count("1"), one.base))


def halves(patterns, bit):
    zero = [one for one in patterns if not one.mask >> bit & 1 or not one.base >> bit & 1]
    one = [one for one in patterns if not one.mask >> bit & 1 or one.base >> bit & 1]
    return zero, one


def divide(patterns, bit):
    """Whether the bit leaves fewer patterns on both sides."""
    zero, one = halves(patterns, bit)
    return max(len(zero), len(one)) < len(patterns)


def choose(patterns, tested):
    for bit in FIRST_BITS:
        if bit not in tested:
            return bit
    for bit in LEADING_BITS:
        if bit not in tested and divide(patterns, bit):
            return bit
    best = None
    for bit in range(31, -1, -1):
        if bit in tested:
            continue
        sizes = sorted(len(half) for half in halves(patterns, bit))
        if sizes[1] < len(patterns) and (best is None or (sizes[1], sizes[0]) < best[0]):
            best = ((sizes[1], sizes[0]), bit)
    return None if best is None else best[1]


def build(patterns, tested=frozenset()):
    bit = choose(patterns, tested) if len(patterns) > LEAF_PATTERNS or not tested.issuperset(FIRST_BITS) else None
    if bit is None:
        return Leaf(patterns)
    zero, one = halves(patterns, bit)
    return Node(bit, build(zero, tested | {bit}), build(one, tested | {bit}))


def outcomes(node, top, low):
    """The values that words whose bits from `low` up are those of `top` can have; perhaps more than they do have."""
    if isinstance(node, Node):
        if node.bit >= low:
            return outcomes(node.one if top >> node.bit & 1 else node.zero, top, low)
        return outcomes(node.zero, top, low) | outcomes(node.one, top, low)
    found = set()
    for one in node.patterns:
        if (top ^ one.base) & one.mask & ~((1 << low) - 1):
            continue
        found.add(one.value)
        if not one.mask & ((1 << low) - 1):
            return found
    return found | {NOT_RECOGNISED}


def by_top_bits(node, low):
    """For each value of the bits from `low` up the one value of all such words; None: there are several."""
    found = [outcomes(node, top << low, low) for top in range(1 << (32 - low))]
    return [values.pop() if len(values) == 1 else None for values in found]


def steps(node):
    """The most comparisons that a word passes, and the number of leaves."""
    if isinstance(node, Leaf):
        return len(node.patterns), 1
    zero, one = steps(node.zero), steps(node.one)
    return 1 + max(zero[0], one[0]), zero[1] + one[1]


def decode(node, word):
    while isinstance(node, Node):
        node = node.one if word >> node.bit & 1 else node.zero
    for one in node.patterns:
        if word & one.mask == one.base:
            return one.value
    return NOT_RECOGNISED
