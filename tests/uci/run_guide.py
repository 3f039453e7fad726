#!/usr/bin/env python3
"""Runs the shell examples of the configuration guide, and compares their output with what the guide shows.

usage: run_guide.py NUCI GUIDE

An example is a block marked "sh": lines that begin with "$ " are run by the shell, the other lines are the expected output,
including standard error. The examples run one after the other, in a directory with the directories "config" and "save";
the file config/network is the first block of the guide without a mark.
"""
import os
import re
import subprocess
import sys
import tempfile


def blocks(guide):
    """Yields (mark, text) of each block of the guide."""
    return re.findall(r"^```(\w*)\n(.*?)^```$", guide, re.MULTILINE | re.DOTALL)


def examples(text):
    """Yields (command, output) of an example."""
    for part in re.split(r"^\$ ", text, flags=re.MULTILINE)[1:]:
        command, _, output = part.partition("\n")
        yield command, output


def main():
    nuci, guide = os.path.abspath(sys.argv[1]), sys.argv[2]
    with open(guide) as file:
        found = blocks(file.read())
    count = bad = 0
    with tempfile.TemporaryDirectory() as work:
        os.mkdir(os.path.join(work, "config"))
        os.mkdir(os.path.join(work, "save"))
        with open(os.path.join(work, "config", "network"), "w") as file:
            file.write(next(text for mark, text in found if not mark))
        prologue = 'nuci() { "%s" -c config -t save "$@"; }\n' % nuci
        for command, expected in (example for mark, text in found if mark == "sh" for example in examples(text)):
            count += 1
            run = subprocess.run(["sh", "-c", prologue + command], cwd=work, stdin=subprocess.DEVNULL,
                                 stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
            if run.stdout.decode() != expected:
                bad += 1
                print("$ %s\n--- expected\n%s--- got\n%s" % (command, expected, run.stdout.decode()))
    print("%d of %d examples give what the guide shows" % (count - bad, count))
    return 0 if count and not bad else 1


if __name__ == "__main__":
    sys.exit(main())
