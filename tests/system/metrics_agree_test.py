"""README's table of metrics, events, codes and factors is that of the source."""

import re
import sys
import unittest

source_path, readme_path = sys.argv[1:3]
FACTORS = {"bytes_per_l1_access": 16, "bytes_per_line": 64}


def source_rows():
    with open(source_path, encoding="utf-8") as file:
        text = file.read()
    for name, value in FACTORS.items():
        assert f"{name} = {value};" in text, name
    rows = re.findall(r'\{(0x[0-9A-F]+), "(\w+)", "(\w+)", (\w+)\}', text)
    return {(metric, name, int(code, 16), FACTORS[factor]) for code, name, metric, factor in rows}


def readme_rows():
    with open(readme_path, encoding="utf-8") as file:
        lines = re.findall(r"^\| `(\w+)` \| (.*0x.*) \| (\d+) \|$", file.read(), re.MULTILINE)
    return {(metric, name, int(code, 16), int(factor)) for metric, events, factor in lines
            for name, code in re.findall(r"`(\w+)` \((0x[0-9a-f]+)\)", events)}


class metrics_agree_test(unittest.TestCase):
    def test_readme_has_the_events_of_the_source(self):
        self.assertEqual(len(source_rows()), 6)
        self.assertEqual(readme_rows(), source_rows())


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
