#!/usr/bin/env python3
"""Checks that each file of a library calls only the files before it in a list, so that no calls form a circle.

usage: check-layers.py OBJECT...

The object files are given from the bottom to the top.
"""
import os
import subprocess
import sys


def symbols(option, path):
    lines = subprocess.check_output(["nm", "--extern-only", option, path]).decode().splitlines()
    return {line.split()[-1] for line in lines}


def main():
    objects = sys.argv[1:]
    layer = {name: number for number, path in enumerate(objects) for name in symbols("--defined-only", path)}
    names = [os.path.basename(path).split(".")[0] for path in objects]
    bad = calls = 0
    for number, path in enumerate(objects):
        for name in sorted(symbols("--undefined-only", path)):
            if name not in layer:
                continue
            calls += 1
            if layer[name] > number:
                bad += 1
                print("%s uses %s of %s, which is above it" % (names[number], name, names[layer[name]]))
    print("%d files use %d functions of each other, %d of them upwards" % (len(objects), calls, bad))
    return 0 if calls and not bad else 1


if __name__ == "__main__":
    sys.exit(main())
