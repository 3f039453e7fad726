#!/usr/bin/env python3
"""Compares the symbols exported by a library with the functions that its header declares with UCI_EXPORT.

usage: check-exports.py LIBRARY HEADER
"""
import re
import subprocess
import sys


def main():
    library, header = sys.argv[1:]
    with open(header) as file:
        declared = set(re.findall(r"^UCI_EXPORT[^;(]*?\b(uci_\w+)\(", file.read(), re.MULTILINE))
    lines = subprocess.check_output(["nm", "-D", "--defined-only", library]).decode().splitlines()
    exported = {line.split()[-1] for line in lines}
    # Added by the compiler's instrumentation.
    exported = {name for name in exported if not name.startswith("_")}
    for name in sorted(declared ^ exported):
        print("%s is %s" % (name, "declared, but not exported" if name in declared else "exported, but not declared"))
    print("%d functions are declared, %d exported" % (len(declared), len(exported)))
    return 0 if declared and declared == exported else 1


if __name__ == "__main__":
    sys.exit(main())
