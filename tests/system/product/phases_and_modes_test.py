#!/usr/bin/python3
"""Runs every phase value in both modes, without an earlier file and with one, and checks the messages and the file.

phases_and_modes_test.py TOOL PROGRAM [TEST...]

PROGRAM is tests/programs/regions/region_script. What a row expects follows from three questions: which phases the value
stands for, whether the earlier file is read, and which regions the run brings.
"""
import json
import os
import re
import subprocess
import sys
import tempfile
import unittest

from emulated_counters import without_silent_metrics

tool, program = sys.argv[1:3]
del sys.argv[1:3]
SECONDS = 600  # A run that takes longer hangs.
PERFMON, BINTRACER, BENCHMARKS = 1, 2, 4
PHASES = {"perfmon": 1, "bintracer": 2, "benchmarks": 4, "full": 7,
          "~perfmon": 6, "~bintracer": 5, "~benchmarks": 3, "~full": 7}
METRICS = ["l1_bytes", "l2_bytes", "l3_bytes", "ddr_bytes", "time"]
ROOFS = ["f16x8-FADD/FSUB", "f32x4-FADD/FSUB", "f64x2-FADD/FSUB", "f32x4-FMLA/FMLS", "f64x2-FMLA/FMLS",
         "f16x8-FMLA/FMLS", "Scalar(SP)-FMADD", "Scalar(DP)-FMADD", "L1", "L2", "L3", "DDR", "DDR Numa-local"]
BB_KEYS = ["start", "end", "dump_start", "dump_end", "flop", "count", "vector_length", "module"]
STATUS = 3  # The application's exit status.
ROUNDS = 500  # Each does two operations in the region.
OPTION_THREADS = 2
OLD_BLOCK = ["4000", "4020", "0", "20", 6, 100, 4, "/usr/bin/earlier"]
OLD_METRIC = 77
OLD_THREADS = 3
OLD_ROOFS = {count: [{"name": "L1", "value": 100 * count, "measure": "GB/s", "is_compute": False}] for count in (1, 3)}
LOG_LINE = re.compile(r"^\[\d+\.\d{6}:\d+\] +(\w+):\d+ +MORA (\S+) (.*)$")


def earlier_file(names):
    region = {"flop": 600, "threads": OLD_THREADS, "bbs": [OLD_BLOCK], **{name: OLD_METRIC for name in METRICS}}
    return {"regions": {name: region for name in names}, "bb_keys": BB_KEYS, "threads": OLD_THREADS,
            "roofs": OLD_ROOFS[OLD_THREADS], "roofs_by_num_threads": {str(n): r for n, r in OLD_ROOFS.items()}}


def emulated():
    """Whether the processor is an emulated one, whose implementer is 0."""
    with open("/proc/cpuinfo", encoding="ascii") as file:
        return re.search(r"^CPU implementer\s*: 0x00$", file.read(), re.M) is not None


def log_text(err):
    """The log's lines without time, thread and line number."""
    lines = []
    for line in err.splitlines():
        match = LOG_LINE.match(line)
        lines.append(" ".join(match.groups()) if match else line)
    return lines


class phases_and_modes_test(unittest.TestCase):
    maxDiff = None

    def run_tool(self, folder, value, mode):
        path = os.path.join(folder, "result.json")
        words = ["init", "start=kernel", f"work={ROUNDS}", "stop=kernel", "finalize", f"exit={STATUS}"]
        done = subprocess.run(
            [tool, f"--phase={value}", f"--mode={mode}", f"--benchmarks_num_threads={OPTION_THREADS}", "-o", path, "--",
             program, *words], capture_output=True, text=True, timeout=SECONDS, cwd=folder, check=False)
        with open(path, encoding="utf-8") as file:
            return done, path, json.load(file)

    def check_texts(self, done, path, value, mode):
        bits = PHASES[value]
        application = program if bits != BENCHMARKS else "ceilmeter_benchmarks"
        out, err = [f"CEILMETER: Start collection for {application}"], []
        if value == "~full":
            err.append("main warn Cannot revert full phase, full phase will be executed")
        if bits & PERFMON:
            out.append(f"CEILMETER: Launch application to collect performance metrics of {application}")
            if mode == "region":
                out.append("ROOFLINE_EVENTS are initialized.")  # The region interface, in the application's process.
            err += [f"run_application warn Application exit status is {STATUS}!", ""]
        if bits & BINTRACER:
            out.append(f"CEILMETER: Launch application to do binary instrumentation of {application}")
        if bits & BENCHMARKS:
            out.append("CEILMETER: Launch benchmarks for measuring roofs")
        out += ["CEILMETER: Processing all collected data", f"CEILMETER: Result is captured at {path}",
                f'CEILMETER: Run "ceilview {path}" to get report.']
        self.assertEqual(done.stdout.splitlines(), out)
        self.assertEqual(log_text(without_silent_metrics(done).stderr), err)
        self.assertEqual(done.returncode, STATUS if bits & BINTRACER else 0)

    def check_region(self, region, bits, mode, old):
        if bits & BINTRACER:
            self.assertNotIn(OLD_BLOCK, region["bbs"])
            self.assertEqual(region["threads"], 1)
            self.assertTrue(region["bbs"])
            (self.assertEqual if mode == "region" else self.assertGreaterEqual)(region["flop"], 2 * ROUNDS)
        elif old:
            self.assertEqual((region["bbs"], region["threads"], region["flop"]), ([OLD_BLOCK], OLD_THREADS, 600))
        else:
            self.assertEqual((region["bbs"], region["threads"], region["flop"]), ([], 0, 0))
        self.assertEqual(region["flop"], sum(block[4] * block[5] for block in region["bbs"]))
        metrics = {name: region[name] for name in METRICS if name in region}
        if bits & PERFMON:
            self.assertEqual(sorted(metrics), sorted(METRICS))
            if emulated():  # An emulated processor counts none of the events.
                self.assertEqual([metrics[name] for name in METRICS[:4]], [0, 0, 0, 0])
            self.assertGreater(metrics["time"], 0)
            self.assertNotEqual(metrics["time"], OLD_METRIC)
        else:
            self.assertEqual(metrics, dict.fromkeys(METRICS, OLD_METRIC) if old else {})
        self.assertEqual(set(region), {"flop", "threads", "bbs", *metrics})

    def check_roofs(self, report, bits, old):
        if bits & BINTRACER:
            self.assertEqual(report["threads"], 1)
        elif old:
            self.assertEqual(report["threads"], OLD_THREADS)
        else:
            self.assertEqual(report["threads"], OPTION_THREADS if bits & BENCHMARKS else 0)
        if bits & BENCHMARKS:
            self.assertEqual(list(report["roofs_by_num_threads"]), [str(report["threads"])])
            roofs = report["roofs_by_num_threads"][str(report["threads"])]
            self.assertEqual([roof["name"] for roof in roofs], ROOFS)
            for roof in roofs:
                self.assertEqual(list(roof), ["name", "value", "measure", "is_compute"])
                self.assertEqual(roof["measure"], "GFLOPS" if roof["is_compute"] else "GB/s")
                self.assertIsInstance(roof["value"], int)
            self.assertEqual(sum(roof["is_compute"] for roof in roofs), 8)
        elif old:
            self.assertEqual(report["roofs_by_num_threads"], {str(n): roofs for n, roofs in OLD_ROOFS.items()})
        else:
            self.assertNotIn("roofs_by_num_threads", report)
        expected = report.get("roofs_by_num_threads", {}).get(str(report["threads"]))
        self.assertEqual(report.get("roofs"), expected)

    def check(self, value, mode, earlier):
        bits = PHASES[value]
        own = "total" if mode == "total" else "kernel"
        # In a full run over the whole application everything is measured anew.
        old = earlier and not (bits == 7 and mode == "total")
        with tempfile.TemporaryDirectory() as folder:
            before = earlier_file([own, "other"])
            if earlier:
                with open(os.path.join(folder, "result.json"), "w", encoding="utf-8") as file:
                    json.dump(before, file)
            done, path, report = self.run_tool(folder, value, mode)
            self.check_texts(done, path, value, mode)
            self.assertEqual(list(report)[:3], ["regions", "bb_keys", "threads"])
            self.assertEqual(report["bb_keys"], BB_KEYS)
            if bits & (PERFMON | BINTRACER):
                self.assertEqual(list(report["regions"]), [own])
                self.check_region(report["regions"][own], bits, mode, old)
            else:
                self.assertEqual(report["regions"], before["regions"] if earlier else {})
            self.check_roofs(report, bits, old)
            self.assertEqual(os.listdir(folder), ["result.json"])

    def test_broken_earlier_file_is_noticed_by_every_run_but_a_full_one_over_the_whole_application(self):
        for value, mode, noticed in (("full", "total", False), ("full", "region", True), ("~benchmarks", "total", True),
                                     ("benchmarks", "total", True)):
            with tempfile.TemporaryDirectory() as folder:
                with open(os.path.join(folder, "result.json"), "w", encoding="utf-8") as file:
                    file.write('{"regions": {')
                done, _, report = self.run_tool(folder, value, mode)
                self.assertEqual("failed to parse json from" in done.stderr, noticed, f"{value} {mode}: {done.stderr}")
                self.assertEqual(list(report["regions"]),
                                 {"total": ["total"], "region": ["kernel"]}[mode] if value != "benchmarks" else [])


def add_rows():
    for value in PHASES:
        for mode in ("total", "region"):
            for earlier in (False, True):
                name = f"test_{value.replace('~', 'all_but_')}_{mode}_{'on_earlier_file' if earlier else 'on_no_file'}"
                setattr(phases_and_modes_test, name,
                        lambda self, row=(value, mode, earlier): self.check(*row))


add_rows()
if __name__ == "__main__":
    unittest.main(verbosity=2)
