#!/usr/bin/env python3
"""Prints one table from Google Benchmark's JSON files: each case's time as a ratio to the floor of the same run.

Measurements are named "<case>/ours[/<size>]" and "<case>/<floor>[/<size>]". Where a case has several floors, it gets a
line for each. Only runs that the library marks as single iterations or as the median of repetitions count.
"""

import json
import sys


def measurements(path):
    """Yields (case, variant, size, nanoseconds) of one result file."""
    units = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}
    with open(path) as file:
        runs = json.load(file)["benchmarks"]
    medians = {run["run_name"] for run in runs if run.get("aggregate_name") == "median"}
    for run in runs:
        if run.get("error_occurred"):
            sys.exit("%s: %s" % (run["name"], run["error_message"]))
        if run["run_name"] in medians and run.get("aggregate_name") != "median":
            continue
        if run.get("aggregate_name") not in (None, "median"):
            continue
        words = [word for word in run["run_name"].split("/")
                 if word not in ("real_time", "process_time", "manual_time")
                 and not word.startswith(("iterations:", "repeats:", "min_time:"))]
        size = words.pop() if words[-1].isdigit() else ""
        yield words[0], "/".join(words[1:]), size, run["real_time"] * units[run["time_unit"]]


def readable(nanoseconds):
    for limit, unit in ((1e3, "ns"), (1e6, "us"), (1e9, "ms")):
        if nanoseconds < limit:
            return "%.3g %s" % (nanoseconds / limit * 1e3, unit)
    return "%.3g s" % (nanoseconds / 1e9)


def main():
    times = {}
    for path in sys.argv[1:]:
        for case, variant, size, time in measurements(path):
            times.setdefault((case, size), {})[variant] = time
    print("%-48s %12s  %-24s %10s %10s %7s" % ("case", "size", "measured against", "ours", "floor", "ratio"))
    # Repetitions that alternate are reported in any order.
    cases = list(dict.fromkeys(case for case, size in times))
    for (case, size), variants in sorted(times.items(), key=lambda item: (cases.index(item[0][0]), int(item[0][1] or 0))):
        if "ours" not in variants:
            sys.exit("%s: nothing is named \"%s/ours\"" % (case, case))
        for floor, time in variants.items():
            if floor != "ours":
                print("%-48s %12s  %-24s %10s %10s %7.3g" % (
                    case, size, floor, readable(variants["ours"]), readable(time), variants["ours"] / time))


if __name__ == "__main__":
    main()
