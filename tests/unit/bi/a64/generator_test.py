#!/usr/bin/env python3
"""The generator's checks refuse class lists that the encoding table contradicts, and its tree is the class list."""

import pathlib
import sys
import unittest

sys.dont_write_bytecode = True
FOLDER = pathlib.Path(__file__).resolve().parents[4] / "tools/a64"
sys.path.insert(0, str(FOLDER))

import model  # noqa: E402
import tree  # noqa: E402

CLASSES, ROWS = model.load(FOLDER)
LINES = [line for line in (FOLDER / "classes.txt").read_text(encoding="utf-8").splitlines()
         if line and not line.startswith("#")]


def checked(lines):
    model.check([model.parse_class(value, line) for value, line in enumerate(lines)], ROWS)


def with_line(name, old, new):
    """The class list with one text replaced in one class's line."""
    at = next(index for index, line in enumerate(LINES) if line.split("|")[0].strip() == name)
    if old not in LINES[at]:
        raise AssertionError(f"{old} is not in {LINES[at]}")
    return LINES[:at] + [LINES[at].replace(old, new)] + LINES[at + 1:]


class ClassListTest(unittest.TestCase):
    def refused(self, lines, message):
        with self.assertRaisesRegex(model.ModelError, message):
            checked(lines)

    def test_the_committed_list_is_accepted(self):
        checked(LINES)

    def test_a_missing_class_is_refused(self):
        self.refused(LINES[:-1], "116 classes")

    def test_a_name_given_twice_is_refused(self):
        self.refused(with_line("dmb", "dmb ", "dsb "), "one name")

    def test_a_base_word_that_its_rows_do_not_have_is_refused(self):
        self.refused(with_line("tbz", "36000000", "37000000"), "bits set inside a field")
        self.refused(with_line("tbz", "36000000", "38000000"), "constant bits")

    def test_fields_out_of_order_or_over_each_other_are_refused(self):
        self.refused(with_line("b_cond", "imm19:5:19", "imm19:4:19"), "covers disregarded|out of order")
        self.refused(with_line("mov_wide", "hw:21:2 imm16:5:16", "imm16:5:16 hw:21:2"), "out of order")

    def test_a_varying_bit_outside_all_fields_is_refused(self):
        self.refused(with_line("cbz", "op:24 ", ""), "does not have the class's constant bits")
        self.refused(with_line("b_cond", "-:4 ", ""), "does not have the class's constant bits")

    def test_a_field_that_never_varies_is_refused(self):
        self.refused(with_line("br", "Rn:5:5", "op:10 Rn:5:5"), "op is the same in every row")

    def test_rows_that_share_words_with_a_class_and_are_not_named_are_refused(self):
        self.refused(with_line("two_sources", " !dpreg/dp_2src:PACGA", ""), "PACGA.* is not named")
        self.refused(with_line("simd_modified_imm", " ~simd_dp/asimdshf", ""), "asimdshf.* is not named")
        self.refused(with_line("ldx_stx", " ldst/ldstord", ""), "ldstord.* is not named")

    def test_a_selector_that_names_nothing_is_refused(self):
        self.refused(with_line("svc", "exception:SVC", "exception:SVX"), "names no row")

    def test_two_classes_that_overlap_without_one_holding_the_other_are_refused(self):
        classes = [model.parse_class(0, "one | 00000000 | x:0:4 | control/branch_imm"),
                   model.parse_class(1, "two | 00000000 | x:4:4 | control/branch_imm")]
        for item in classes:
            model.check_shape(item)
        with self.assertRaisesRegex(model.ModelError, "neither contains the other"):
            model.check_pairs(classes)


class TreeTest(unittest.TestCase):
    def walk(self, node, mask=0, base=0):
        if isinstance(node, tree.Leaf):
            yield node, mask, base
            return
        yield from self.walk(node.zero, mask | 1 << node.bit, base)
        yield from self.walk(node.one, mask | 1 << node.bit, base | 1 << node.bit)

    def setUp(self):
        self.patterns = tree.patterns_of(CLASSES)
        self.root = tree.build(self.patterns)

    def test_the_first_bits_are_28_and_27(self):
        self.assertEqual((self.root.bit, self.root.zero.bit, self.root.one.bit), (28, 27, 27))

    def test_each_leaf_compares_with_every_pattern_that_reaches_it_smaller_ones_first(self):
        for leaf, mask, base in self.walk(self.root):
            reaching = [one for one in self.patterns if model.overlap(mask, base, one.mask, one.base)]
            self.assertEqual(leaf.patterns, reaching)
            for index, one in enumerate(leaf.patterns):
                for later in leaf.patterns[index + 1:]:
                    self.assertFalse(model.within(later.mask, later.base, one.mask, one.base))

    def test_the_leaves_cover_all_words_once(self):
        self.assertEqual(sum(1 << (32 - bin(mask).count("1")) for _, mask, _ in self.walk(self.root)), 1 << 32)


if __name__ == "__main__":
    unittest.main()
