#!/usr/bin/python3
"""Writes a large result file, laid out as the collector does it, for measuring what ceilview needs: by default 200,000
blocks in 20 regions of one application, some 40 MB. The same arguments give the same bytes. The figures are made up.

bench/large_result.py [--blocks N] [--regions N] > large.roofline.json
"""
import argparse
import json
import random
import sys

MODULES = ["/home/user/project/build/solver", "/usr/lib/aarch64-linux-gnu/libm.so.6",
           "/usr/lib/aarch64-linux-gnu/libstdc++.so.6.0.30"]
ROOFS = [("f64x2-FADD/FSUB", 48, True), ("f64x2-FMLA/FMLS", 96, True), ("f32x4-FMLA/FMLS", 192, True),
         ("Scalar(DP)-FMADD", 48, True), ("L1", 360, False), ("L2", 280, False), ("L3", 150, False), ("DDR", 40, False)]


def blocks(numbers, count):
    """As in the file: addresses as hexadecimal text, most of the work in few of the blocks."""
    at = 0x400000
    for _ in range(count):
        at += 4 * numbers.randrange(1, 40)
        end = at + 4 * numbers.randrange(1, 40)
        width = numbers.choice((1, 1, 2, 4))
        yield [f"{at:x}", f"{end:x}", f"{at - 0x400000:x}", f"{end - 0x400000:x}", width * numbers.randrange(1, 9),
               int(10 ** numbers.uniform(1, 9)), width, numbers.choice(MODULES)]


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--blocks", type=int, default=200_000)
    parser.add_argument("--regions", type=int, default=20)
    chosen = parser.parse_args()
    numbers = random.Random(1)
    regions = {}
    for index in range(chosen.regions):
        share = chosen.blocks // chosen.regions + (index < chosen.blocks % chosen.regions)
        made = list(blocks(numbers, share))
        flop = sum(one[4] * one[5] for one in made)
        regions[f"region_{index}"] = {
            "flop": flop, "threads": 4, "bbs": made, "l1_bytes": 16 * flop, "l2_bytes": 4 * flop, "l3_bytes": 2 * flop,
            "ddr_bytes": flop, "time": max(1, flop // 20)}
    roofs = [{"name": name, "value": value, "measure": "GFLOPS" if is_compute else "GB/s", "is_compute": is_compute}
             for name, value, is_compute in ROOFS]
    keys = ["start", "end", "dump_start", "dump_end", "flop", "count", "vector_length", "module"]
    report = {"regions": regions, "bb_keys": keys, "threads": 4, "roofs": roofs, "roofs_by_num_threads": {"4": roofs}}
    json.dump(report, sys.stdout, indent=2)
    print()


if __name__ == "__main__":
    main()
