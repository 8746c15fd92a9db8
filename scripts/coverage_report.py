#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""Sums up what scripts/coverage counted, and names each line never run.

Usage: coverage_report.py OWN.json GENERATED.json

The first report counts: it must reach 95 % of the lines, and lines that are
never run must stand in scripts/coverage_gaps.txt, below their file's name and
with a comment that says why. A line is known by its text, not its number.
"""

import collections
import json
import os
import sys

PROJECT = os.path.dirname(os.path.dirname(os.path.realpath(__file__)))
GAPS = os.path.join(PROJECT, "scripts", "coverage_gaps.txt")
WANTED_PERCENT = 95


def percent(part, whole):
    return 100 * part / whole if whole else 100.0


def read_report(path):
    """Counts by folder, and the numbers of the lines never run by file."""
    with open(path, encoding="utf-8") as file:
        report = json.load(file)
    counts = collections.defaultdict(collections.Counter)
    missed = {}
    for file in report["files"]:
        count = counts[file["file"].split("/")[0] + "/"]
        numbers = []
        for line in file["lines"]:
            if line.get("gcovr/noncode"):
                continue
            count["lines"] += 1
            count["run"] += line["count"] > 0
            if not line["count"]:
                numbers.append(line["line_number"])
            for branch in line["branches"]:
                count["branches"] += 1
                count["taken"] += branch["count"] > 0
        if numbers:
            missed[file["file"]] = numbers
    return counts, missed


def read_gaps():
    """The lines that need not be run: a Counter of (file, text)."""
    gaps = collections.Counter()
    name = None
    with open(GAPS, encoding="utf-8") as file:
        for line in file:
            if line.startswith("#") or not line.strip():
                continue
            if line[0] != " ":
                name = line.strip()
            else:
                gaps[name, line.strip()] += 1
    return gaps


def main():
    counts, missed = read_report(sys.argv[1])
    generated, _ = read_report(sys.argv[2])
    total = sum(counts.values(), collections.Counter())
    for name, count in [*sorted(counts.items()), ("all", total),
                        *sorted(generated.items())]:
        print("%-10s %5d of %5d lines (%5.1f %%), %5d of %5d branches "
              "(%5.1f %%)" % (
                  name, count["run"], count["lines"],
                  percent(count["run"], count["lines"]), count["taken"],
                  count["branches"],
                  percent(count["taken"], count["branches"])))
    gaps = read_gaps()
    unexplained = 0
    for name, numbers in sorted(missed.items()):
        with open(os.path.join(PROJECT, name), encoding="utf-8") as file:
            lines = file.read().split("\n")
        for number in numbers:
            key = name, lines[number - 1].strip()
            known = gaps[key] > 0
            gaps[key] -= known
            unexplained += not known
            print("%s:%d: %s%s" % (name, number, key[1],
                                   "" if known else "   <-- not explained"))
    # No failure: some lines run only if the system is busy at the moment.
    for key in sorted(key for key, left in gaps.items() if left > 0):
        print("Listed, but run now: %s: %s" % key)
    reached = percent(total["run"], total["lines"]) >= WANTED_PERCENT
    if not reached:
        print("Less than %d %% of the lines were run." % WANTED_PERCENT)
    return int(not reached or unexplained > 0)


if __name__ == "__main__":
    sys.exit(main())
