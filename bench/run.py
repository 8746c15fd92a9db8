#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""Measures the daemon beside its floors and its alternatives.

Runs in the sandbox: see scripts/bench. Writes results.json and prints the
table.
"""

import argparse
import json
import os
import subprocess
import sys

import report
from measure import Measurements
from world import World


def describe_machine():
    with open("/proc/cpuinfo", encoding="utf-8") as file:
        models = [line.partition(":")[2].strip() for line in file
                  if line.startswith("model name")]
    return {"processors": len(models), "model": models[0] if models else "",
            "kernel": os.uname().release, "load": os.getloadavg()[0]}


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--programs", required=True,
                        help="the build tree with the programs of bench/")
    parser.add_argument("--daemon", required=True)
    parser.add_argument("--out", required=True, help="the folder to write to")
    parser.add_argument("--quick", action="store_true",
                        help="a tenth of the requests, one repetition")
    options = parser.parse_args()
    repetitions = 1 if options.quick else 7

    results = {"machine": describe_machine(), "quick": options.quick,
               "repetitions": []}
    with World(options.programs) as world:
        measurements = Measurements(world, options.daemon, options.quick)
        results["stripped_size"] = measurements.stripped_size()
        # Before the others have done more than the daemon will have.
        results["memory"] = measurements.alternatives_memory()
        for number in range(repetitions):
            print("Repetition %d of %d" % (number + 1, repetitions),
                  file=sys.stderr, flush=True)
            results["repetitions"].append({
                "cases": measurements.cases(),
                "fresh connections": measurements.fresh_connections(),
                "dead name server": measurements.dead_name_server(),
                "life": measurements.life(),
                "starts": measurements.starts(),
            })
    functions = subprocess.run(
        [os.path.join(options.programs, "bench", "functions"),
         "--benchmark_format=json", "--benchmark_min_time=%s" % (
             0.02 if options.quick else 0.3)],
        capture_output=True, text=True, check=True)
    results["functions"] = {
        one["name"]: one["cpu_time"]
        for one in json.loads(functions.stdout)["benchmarks"]}
    with open(os.path.join(options.out, "results.json"), "w",
              encoding="utf-8") as file:
        json.dump(results, file, indent=1)
    print(report.table(results))


if __name__ == "__main__":
    main()
