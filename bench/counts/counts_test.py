#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""How many instructions the library's jobs take (see counts.cpp), counted by callgrind.

counts_test.py --counts PROGRAM --compiler NAME check|update

  check   growth: doubling a job doubles its count; a search among twice as many takes a step more, not twice as long;
          versions: a job on what compilers write as DWARF 5 (its name ends in 5) takes at most 1.15 of the same as DWARF 4;
          baseline: the counts an item are within 5 % of baseline.json, if that is the same compiler's
  update  writes baseline.json: for a change that is meant to move the counts, or another compiler

Exit status 77: skipped, because callgrind is not installed.
"""
import argparse
import collections
import glob
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile

BASELINE = os.path.join(os.path.dirname(os.path.abspath(__file__)), "baseline.json")
SEARCHES = {"rules", "kept"} | {job + version for job in ("lookup", "place", "places") for version in ("", "4", "5")}  # a fixed number of searches; the size is what they search in
SKIPPED = 77


def count(program):
    """{job: [(size, instructions an item), ...]} by ascending size."""
    # One version of memcpy and its kin, whatever the processor has.
    tunables = "glibc.cpu.hwcaps=-AVX512F,-AVX512VL,-AVX2,-ERMS,-FSRM,-BMI2"
    counts = collections.defaultdict(list)
    with tempfile.TemporaryDirectory() as folder:
        out = os.path.join(folder, "callgrind")
        subprocess.run(["valgrind", "--quiet", "--tool=callgrind", f"--callgrind-out-file={out}", program], check=True,
                       env=dict(os.environ, GLIBC_TUNABLES=tunables))
        for path in glob.glob(out + ".*"):
            text = open(path).read()
            part = re.search(r"^desc: Trigger: Client Request: (\w+) (\d+) (\d+)$", text, re.M)
            total = re.search(r"^(?:summary|totals): (\d+)", text, re.M)
            if part and total:
                counts[part[1]].append((int(part[2]), int(total[1]) / int(part[3])))
    return {job: sorted(sizes) for job, sizes in sorted(counts.items())}


def check_growth(counts):
    wrong = 0
    for job, sizes in counts.items():
        per_item = [value for _, value in sizes]
        # Linear jobs: constant per item, but for what is done once, and a sort's logarithm. Searches: a step per
        # doubling, far from the factor of 2 that a walk would take.
        low, high = (0.95, 1.2) if job in SEARCHES else (0.7, 1.12)
        ratios = [after / before for before, after in zip(per_item, per_item[1:])]
        sound = len(ratios) == 3 and all(low <= r <= high for r in ratios)
        wrong += not sound
        print(f"{'ok   ' if sound else 'WRONG'} {job:8}", " ".join(f"{size}:{value:.0f}" for size, value in sizes))
    return 1 if wrong or not counts else 0


def check_versions(counts):
    wrong = 0
    for job in sorted(job for job in counts if job + "5" in counts):
        ratio = counts[job + "5"][-1][1] / counts[job + "4"][-1][1]
        sound = ratio <= 1.15
        wrong += not sound
        print(f"{'ok   ' if sound else 'WRONG'} {job:8} of DWARF 5: {ratio:.2f} of DWARF 4")
    return 1 if wrong else 0


def check_baseline(counts, compiler):
    baseline = json.load(open(BASELINE))
    if baseline["compiler"] != compiler:
        print(f"the baseline is one of {baseline['compiler']}, this is {compiler}: not compared")
        return 0
    wrong = 0
    for job in sorted(counts.keys() | baseline["per item"].keys()):
        now = counts[job][-1][1] if job in counts else 0
        then = baseline["per item"].get(job, 0)
        sound = then != 0 and abs(now - then) <= 0.05 * then
        wrong += not sound
        print(f"{'ok   ' if sound else 'WRONG'} {job:8} {then:9.1f} -> {now:9.1f} instructions an item")
    if wrong:
        print("Is the change meant to do that? Then: counts_test.py ... update, and say in its message why.")
    return 1 if wrong else 0


def main():
    p = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    p.add_argument("--counts", required=True)
    p.add_argument("--compiler", required=True)
    p.add_argument("what", choices=["check", "update"])
    args = p.parse_args()
    if shutil.which("valgrind") is None:
        print("valgrind is not installed")
        return SKIPPED
    counts = count(args.counts)
    if args.what == "check":
        return max(check_growth(counts), check_versions(counts), check_baseline(counts, args.compiler))
    with open(BASELINE, "w") as f:
        json.dump({"compiler": args.compiler, "per item": {j: round(s[-1][1], 1) for j, s in counts.items()}}, f, indent=2)
        f.write("\n")
    return 0


sys.exit(main())
