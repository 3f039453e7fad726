#!/usr/bin/env python3
"""Plays recorded vectors through a driver and compares the results.

usage: run_vectors.py [--safer FILE] [--only TEXT] [--show N] [--timeout S] DRIVER PATH [PATH...]

DRIVER is ucidrive.c, compiled and linked to the library under test. A PATH is a directory with one *.vector file for each
vector, or a *.jsonl file with one vector on each line; tests/data/uci/README.md describes both.

The vectors hold the results of libuci. --safer names a file with the results that differ in this store on purpose, each
with the reason; such a vector has to give exactly that result, and it has to differ from the recorded one. With --accept
NAME --reason TEXT the result of a vector is added to that file.

The exit status is 0 only if every vector agrees in its transcript, its resulting files, their modes and their contents.
"""
import argparse
import difflib
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile

# The library reads these as well: files in the first take precedence over those of the configuration directory, lines in
# the second are applied as staged changes.
DEFAULT_OVERRIDES, DEFAULT_DELTAS = "/var/run/uci", "/tmp/.uci"


class Vector:
    """One vector: what goes in (setup, inputs, script), what is expected."""

    def __init__(self, name, setup, inputs, script):
        self.name = name
        self.setup = setup          # lines of text
        self.inputs = inputs        # path -> bytes
        self.script = script        # bytes
        self.expected = None        # Result


class Result:
    def __init__(self, transcript, files, contents, stderr=b""):
        self.transcript = transcript    # bytes
        self.files = files              # sorted lines: kind, mode, path
        self.contents = contents        # path -> bytes
        self.stderr = stderr


def read(path):
    with open(path, "rb") as f:
        return f.read()


def read_tree(top, names):
    """All regular files below the named sub-folders of top."""
    found = {}
    for name in names:
        for folder, _, files in os.walk(os.path.join(top, name)):
            for file in files:
                path = os.path.join(folder, file)
                found[os.path.relpath(path, top)] = read(path)
    return found


def split_sections(text):
    """Yields (kind, path, lines) of each section of a vector; the path is empty where the kind needs none."""
    kind = None
    for number, line in enumerate(text.split(b"\n")[:-1], 1):
        if not line.startswith(b"==="):
            if kind is None:
                raise ValueError("line %d is outside of a section" % number)
            lines.append(line)
            continue
        if kind is not None:
            yield kind, path, lines
        kind, _, path = decode([line[3:].lstrip() + b"%"]).decode().partition(" ")
        lines = []
    if kind is not None:
        yield kind, path, lines


def decode(lines):
    """The bytes that the lines of a section stand for."""
    text = b"".join(line[:-1] if line.endswith(b"%") else line + b"\n" for line in lines)
    if re.search(rb"%(?![0-9A-F]{2})", text):
        raise ValueError("% without two hexadecimal digits")
    return re.sub(rb"%([0-9A-F]{2})", lambda match: bytes([int(match.group(1), 16)]), text)


def load_text_vector(path):
    """A vector with a section for each of its parts."""
    texts = {"setup": b"", "script": None, "transcript": None, "files": None}
    trees = {"input": {}, "output": {}}
    for kind, file, lines in split_sections(read(path)):
        if kind in texts and not file:
            texts[kind] = decode(lines)
        elif kind in trees and file:
            trees[kind][file] = decode(lines)
        else:
            raise ValueError("unknown section: %s %s" % (kind, file))
    missing = [kind for kind, text in texts.items() if text is None]
    if missing:
        raise ValueError("missing section: " + missing[0])
    files = texts["files"].decode().splitlines()
    vector = Vector(os.path.basename(path)[:-len(".vector")], texts["setup"].decode().splitlines(), trees["input"],
                    texts["script"])
    vector.expected = Result(texts["transcript"], files, with_unchanged(trees["output"], trees["input"], files))
    return vector


def with_unchanged(outputs, inputs, files):
    """The contents of all resulting files: those of the inputs where no others are given."""
    contents = dict(outputs)
    for entry in files:
        path = entry.split(" ", 2)[2]
        if entry.startswith("f") and path not in contents:
            contents[path] = inputs[path]
    return contents


def load_json_vector(item):
    """The compact form: every text holds bytes, one character for each."""
    inputs = {path: text.encode("latin-1") for path, text in item["input"].items()}
    outputs = {path: text.encode("latin-1") for path, text in item["output"].items()}
    vector = Vector(item["name"], item["setup"], inputs, item["script"].encode("latin-1"))
    vector.expected = Result(item["transcript"].encode("latin-1"), item["files"],
                             with_unchanged(outputs, inputs, item["files"]))
    return vector


def load_lines(path):
    return [json.loads(line) for line in read(path).splitlines() if line.strip()]


def load_vectors(path):
    if path.endswith(".jsonl"):
        return [load_json_vector(item) for item in load_lines(path)]
    vectors = []
    for name in sorted(os.listdir(path)):
        try:
            vectors.append(load_text_vector(os.path.join(path, name)))
        except ValueError as error:
            sys.exit("%s: %s" % (os.path.join(path, name), error))
    return vectors


def load_safer(path):
    """The results that differ on purpose: name -> Result."""
    if not path or not os.path.exists(path):
        return {}
    return {item["name"]: Result(item["transcript"].encode("latin-1"), item["files"],
                                 {file: text.encode("latin-1") for file, text in item["contents"].items()})
            for item in load_lines(path)}


def accept(path, vector, result, reason):
    """Adds a result to those that differ on purpose."""
    item = {"name": vector.name, "reason": reason, "transcript": result.transcript.decode("latin-1"),
            "files": result.files,
            "contents": {file: text.decode("latin-1") for file, text in sorted(result.contents.items())}}
    with open(path, "a") as file:
        file.write(json.dumps(item, ensure_ascii=True, separators=(",", ":")) + "\n")


def prepare(vector, work):
    """Writes the files that a vector starts with, with fixed modes."""
    for path in [os.path.join(work, name) for name in ("config", "save")]:
        os.makedirs(path)
    for path, data in vector.inputs.items():
        path = os.path.join(work, path)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "wb") as f:
            f.write(data)
        os.chmod(path, 0o644)
    for line in vector.setup:
        word = line.split()
        if not word or word[0].startswith("#"):
            continue
        elif word[0] == "mode":             # mode OCTAL PATH
            os.chmod(os.path.join(work, word[2]), int(word[1], 8))
        elif word[0] == "rmdir":            # rmdir PATH
            os.rmdir(os.path.join(work, word[1]))
        elif word[0] == "mkdir":            # mkdir PATH
            os.mkdir(os.path.join(work, word[1]))
        elif word[0] == "symlink":          # symlink TARGET PATH
            os.symlink(word[1], os.path.join(work, word[2]))
        else:
            raise ValueError("%s: bad setup line: %s" % (vector.name, line))


def survey(work):
    """The entries below work, and the contents of the files."""
    files, contents = [], {}
    for folder, folders, names in os.walk(work):
        for name in folders + names:
            full = os.path.join(folder, name)
            path = os.path.relpath(full, work)
            mode = os.lstat(full).st_mode & 0o7777
            if os.path.islink(full):
                files.append((path, "l ---- %s -> %s" % (path, os.readlink(full))))
            elif os.path.isdir(full):
                files.append((path, "d %04o %s" % (mode, path)))
            else:
                files.append((path, "f %04o %s" % (mode, path)))
                contents[path] = read(full)
    return [entry for _, entry in sorted(files)], contents


def play(driver, vector, timeout=30):
    """Runs a vector in a directory of its own."""
    top = tempfile.mkdtemp(prefix="uci-vector-")
    try:
        work = os.path.join(top, "work")
        os.mkdir(work)
        prepare(vector, work)
        script = os.path.join(top, "script")
        with open(script, "wb") as f:
            f.write(vector.script)
        command = [driver, "config", "save", script]
        try:
            run = subprocess.run(command, cwd=work, stdin=subprocess.DEVNULL,
                                 stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                 env=dict(os.environ, LC_ALL="C"), timeout=timeout)
            transcript, stderr = run.stdout, run.stderr
            if run.returncode:
                transcript += b"\nended with status %d\n" % run.returncode
        except subprocess.TimeoutExpired as late:
            transcript = (late.stdout or b"") + b"\nended by the time limit\n"
            stderr = late.stderr or b""
        files, contents = survey(work)
        return Result(transcript, files, contents, stderr)
    finally:
        shutil.rmtree(top, ignore_errors=True)


def differences(expected, got):
    """Lines that show how two results differ; none if they agree."""
    def compare(what, one, two):
        one, two = ([ascii(line.decode("latin-1") if isinstance(line, bytes) else line)
                     for line in side] for side in (one, two))
        for line in difflib.unified_diff(one, two, "expected " + what, "got " + what,
                                         lineterm="", n=1):
            yield line

    out = []
    if expected.transcript != got.transcript:
        out += compare("transcript", expected.transcript.splitlines(),
                       got.transcript.splitlines())
    if expected.files != got.files:
        out += compare("files", expected.files, got.files)
    for path in sorted(set(expected.contents) | set(got.contents)):
        one, two = expected.contents.get(path), got.contents.get(path)
        if one != two:
            out += compare(path, (one or b"").splitlines(True), (two or b"").splitlines(True))
    if out and got.stderr:
        out += ["stderr: " + line for line in
                got.stderr.decode("latin-1").splitlines()[:5]]
    return out


def warn_of_leftovers():
    for top, harmless_when_empty in ((DEFAULT_OVERRIDES, False), (DEFAULT_DELTAS, True)):
        for path, data in read_tree(top, ["."]).items():
            if data or not harmless_when_empty:
                print("note: %s exists; the library reads it for every package of "
                      "that name, so results may differ" % os.path.join(top, path),
                      file=sys.stderr)


def check(driver, vector, safer, timeout):
    """Lines that show what is wrong with a vector; none if it agrees."""
    result = play(driver, vector, timeout)
    if vector.name not in safer:
        return differences(vector.expected, result)
    wrong = differences(safer[vector.name], result)
    if not wrong and not differences(vector.expected, result):
        wrong = ["agrees with the recorded result, and no longer needs one of its own"]
    return wrong


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--safer", default="", help="file of the results that differ on purpose")
    parser.add_argument("--accept", default="", help="add the result of this vector to that file")
    parser.add_argument("--reason", default="", help="why it differs")
    parser.add_argument("--only", default="", help="only vectors whose name contains this text")
    parser.add_argument("--show", type=int, default=5, help="number of differing vectors to show")
    parser.add_argument("--lines", type=int, default=30, help="number of lines to show of each")
    parser.add_argument("--timeout", type=float, default=30, help="time limit for each vector, in seconds")
    parser.add_argument("driver")
    parser.add_argument("path", nargs="+")
    return parser.parse_args()


def main():
    args = parse_arguments()
    os.umask(0o022)
    warn_of_leftovers()
    driver = os.path.abspath(args.driver)
    vectors = [vector for path in args.path for vector in load_vectors(path)]
    if args.accept:
        vector = next(vector for vector in vectors if vector.name == args.accept)
        accept(args.safer, vector, play(driver, vector, args.timeout), args.reason)
        return 0
    safer = load_safer(args.safer)
    vectors = [vector for vector in vectors if args.only in vector.name]
    bad = 0
    for vector in vectors:
        wrong = check(driver, vector, safer, args.timeout)
        if not wrong:
            continue
        bad += 1
        if bad <= args.show:
            print("--- %s differs" % vector.name)
            for line in wrong[:args.lines]:
                print("    " + line)
            if len(wrong) > args.lines:
                print("    (%d more lines)" % (len(wrong) - args.lines))
    safer_count = len([vector for vector in vectors if vector.name in safer])
    print("%d of %d vectors agree, %d of them with a safer result than the recorded one" % (
        len(vectors) - bad, len(vectors), safer_count))
    return 0 if vectors and not bad else 1


if __name__ == "__main__":
    sys.exit(main())
