"""The schema in docs/ against files that the report handler wrote, and against files broken in one place each.

result_schema_test.py SCHEMA WRITER...: WRITER is the command line of sample_report_writer, less the folder.
Ends with status 77, which the build takes as skipped, if the module jsonschema (Debian: python3-jsonschema) is missing.
"""
import copy
import json
import pathlib
import subprocess
import sys
import tempfile
import unittest

try:
    import jsonschema
except ImportError:
    print("skipped: the module jsonschema is not installed")
    sys.exit(77)

SCHEMA_PATH = sys.argv[1]
WRITER = sys.argv[2:]


def signed(value):
    """The value of the same low 64 bits, signed."""
    return (value + 2**63) % 2**64 - 2**63


class ResultSchema(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        schema = json.loads(pathlib.Path(SCHEMA_PATH).read_text())
        jsonschema.Draft202012Validator.check_schema(schema)
        cls.validator = jsonschema.Draft202012Validator(schema)
        with tempfile.TemporaryDirectory() as folder:
            subprocess.run(WRITER + [folder], check=True)
            cls.samples = {path.stem: json.loads(path.read_text()) for path in pathlib.Path(folder).iterdir()}

    def faults(self, result):
        return [f"{list(error.absolute_path)}: {error.message}" for error in self.validator.iter_errors(result)]

    def test_every_written_file_is_valid(self):
        self.assertEqual(sorted(self.samples),
                         ["empty", "extreme", "full", "other_counts", "perfmon_only", "read_back"])
        for name, result in self.samples.items():
            with self.subTest(name):
                self.assertEqual(self.faults(result), [])

    def test_every_written_region_has_the_sum_of_its_blocks(self):
        seen = 0
        for name, result in self.samples.items():
            flop, count = result["bb_keys"].index("flop"), result["bb_keys"].index("count")
            for region_name, region in result["regions"].items():
                with self.subTest(f"{name}, region {region_name}"):
                    self.assertEqual(region["flop"], signed(sum(block[flop] * block[count] for block in region["bbs"])))
                    seen += len(region["bbs"])
        self.assertGreater(seen, 400)

    def test_every_written_file_has_the_flat_roofs_of_its_thread_count(self):
        for name, result in self.samples.items():
            with self.subTest(name):
                by_count = result.get("roofs_by_num_threads", {})
                self.assertEqual(result.get("roofs"), by_count.get(str(result["threads"] % 2**64)))
        self.assertIn("roofs", self.samples["full"])
        self.assertIn("roofs", self.samples["extreme"])
        self.assertNotIn("roofs", self.samples["other_counts"])

    def test_the_documents_example_is_valid(self):
        page = pathlib.Path(SCHEMA_PATH).with_name("result-format.md").read_text()
        example = page.split("```json\n")[1].split("```")[0]
        self.assertEqual(self.faults(json.loads(example)), [])

    def test_a_file_broken_in_one_place_is_refused(self):
        def delete(*path):
            def change(result):
                for step in path[:-1]:
                    result = result[step]
                del result[path[-1]]
            return change

        def put(value, *path):
            def change(result):
                for step in path[:-1]:
                    result = result[step]
                result[path[-1]] = value
            return change

        region = ("regions", "solve")
        block = (*region, "bbs", 0)
        changes = {
            "no regions": delete("regions"),
            "no bb_keys": delete("bb_keys"),
            "no threads": delete("threads"),
            "flat roofs alone": delete("roofs_by_num_threads"),
            "an empty object of roofs": put({}, "roofs_by_num_threads"),
            "an unknown key": put(1, "version"),
            "regions as an array": put([], "regions"),
            "bb_keys in another order": put(["end", "start"], "bb_keys"),
            "threads as a text": put("4", "threads"),
            "threads beyond 64 bits": put(2**63, "threads"),
            "a region without flop": delete(*region, "flop"),
            "a region without threads": delete(*region, "threads"),
            "a region without bbs": delete(*region, "bbs"),
            "a region without one metric": delete(*region, "l3_bytes"),
            "a region with one metric only": put(1, "regions", "untraced", "time"),
            "a region with another metric": put(1, *region, "l4_bytes"),
            "a fractional metric": put(1.5, *region, "time"),
            "a block of seven fields": delete(*block, 7),
            "a block of nine fields": lambda result: result["regions"]["solve"]["bbs"][0].append("x"),
            "an address as a number": put(4194304, *block, 0),
            "an address with a prefix": put("0x400000", *block, 1),
            "an address in upper case": put("400ABC", *block, 2),
            "an address with leading zeros": put("0400", *block, 3),
            "a vector length beyond 32 bits": put(2**31, *block, 6),
            "a module that is null": put(None, *block, 7),
            "a thread count in hexadecimal": put([], "roofs_by_num_threads", "0x4"),
            "a roof without a unit": delete("roofs", 0, "measure"),
            "a roof with a number for a flag": put(1, "roofs", 0, "is_compute"),
            "a roof of a fractional value": put(1.5, "roofs_by_num_threads", "1", 0, "value"),
        }
        for name, change in changes.items():
            with self.subTest(name):
                result = copy.deepcopy(self.samples["full"])
                change(result)
                self.assertNotEqual(self.faults(result), [])


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
