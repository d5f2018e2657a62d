#!/usr/bin/env python3
"""The classifier's generator accepts its committed inputs and refuses such as contradict themselves or each other."""

import copy
import pathlib
import sys
import unittest

sys.dont_write_bytecode = True
FOLDER = pathlib.Path(__file__).resolve().parents[3] / "tools/a64/classifier"
sys.path.insert(0, str(FOLDER))

import flops  # noqa: E402
import layouts  # noqa: E402
import rows  # noqa: E402

RULES = rows.sections(FOLDER / "rules.txt")
FLOP_RULES = rows.sections(FOLDER / "flop_rules.txt")
MNEMONICS = rows.read_mnemonics(FOLDER / "mnemonics.txt")
ENCODINGS = rows.read_encodings(FOLDER.parent / "a64_encodings.tsv")


def made(rules=None, mnemonics=None, encodings=None):
    rules = rules or RULES
    mnemonics = mnemonics or MNEMONICS
    chosen = rows.select(encodings or ENCODINGS, rules, mnemonics)
    found, form_count = rows.in_order(rows.gather(chosen, rules), rules, mnemonics)
    layouts.number(found, rules)
    rows.check(found, form_count, rules, mnemonics)
    return found


def without(section, start, rules=None):
    """The rules less the one line of the section that starts so."""
    changed = copy.deepcopy(rules or RULES)
    lines = changed[section]
    kept = [line for line in lines if not line.startswith(start)]
    if len(kept) != len(lines) - 1:
        raise AssertionError(f"{start} is {len(lines) - len(kept)} lines")
    changed[section] = kept
    return changed


def with_line(section, line, rules=None):
    changed = copy.deepcopy(rules or RULES)
    changed[section] = changed[section] + [line]
    return changed


class GeneratorTest(unittest.TestCase):
    def refused(self, message, **inputs):
        with self.assertRaisesRegex(rows.RulesError, message):
            made(**inputs)

    def test_the_committed_inputs_are_accepted(self):
        self.assertEqual(len(made()), 2684)

    def test_an_expression_that_leaves_nothing_out_is_refused(self):
        self.refused("names no encoding", rules=with_line("left out", "nosuchname_"))

    def test_a_younger_encoding_among_the_others_is_refused(self):
        self.refused("rows: 2685 instead of 2684", rules=without("left out", "subp_z_"))

    def test_a_page_without_rows_that_is_forgotten_is_refused(self):
        shorter = {"without rows": [line.replace("swp swpb", "swp") for line in RULES["without rows"]]}
        self.refused("form ids: 1879 instead of 1880", rules=RULES | shorter)

    def test_a_shared_page_that_has_no_rows_is_refused(self):
        self.refused("pages without rows", rules=with_line("shared", "z_p_z | fadd fsub"))

    def test_a_page_that_is_no_longer_shared_is_refused(self):
        self.refused("two rows|order|instead of", rules=without("shared", "z_p_z       | frinta"))

    def test_a_row_that_is_too_tight_changes_the_overlaps_and_is_refused(self):
        self.refused("pairs of rows", rules=without("loose", "float2int "))

    def test_another_order_of_mnemonics_is_refused(self):
        swapped = list(MNEMONICS)
        swapped[0], swapped[1] = swapped[1], swapped[0]
        self.refused("order of mnemonics", mnemonics=swapped)

    def test_an_encoding_that_disappears_is_refused(self):
        self.refused("instead of", encodings=[one for one in ENCODINGS if one.name != "UDF_only_perm_undef"])

    def test_a_counted_mnemonic_without_rows_is_refused(self):
        with self.assertRaisesRegex(rows.RulesError, "has no rows"):
            flops.keys(made(), with_line("counted", "1 | nosuchname", FLOP_RULES))

    def test_a_mnemonic_counted_twice_is_refused(self):
        with self.assertRaisesRegex(rows.RulesError, "counted twice"):
            flops.keys(made(), with_line("counted", "1 | fadd", FLOP_RULES))

    def test_a_scalable_encoding_that_is_no_row_is_refused(self):
        with self.assertRaisesRegex(rows.RulesError, "is 0 rows"):
            flops.keys(made(), with_line("scalable", "fmla | 64200001 | ffa0fc00 | half | 16 | kept", FLOP_RULES))

    def test_a_missing_key_is_refused(self):
        with self.assertRaisesRegex(rows.RulesError, "261 keys"):
            flops.keys(made(), without("scalable", "fmul  | 64e02000", FLOP_RULES))


if __name__ == "__main__":
    unittest.main()
