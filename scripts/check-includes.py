#!/usr/bin/env python3
"""Checks who includes whom in src/.

- src/nbase includes src/nwebapi only in files named *fcgiservice* or *fcgirequestprocessor*, and in the proxy accessor.
- src/nwebapi does not include src/nbase, src/uci includes neither, and src/nsystem includes none of the three.
- Public headers, which are those not named *_p.h, include no private one.
- Only device/nbuttonrole includes headers of widgets.
- There are no circles between units. A unit is what belongs to one name: name.h, name_p.h, name.cpp and name.c.

    check-includes.py [<source directory>]
    check-includes.py --self-check          checks that each rule finds what it is there to find
"""

import os
import re
import sys
import tempfile

INCLUDE = re.compile(r'^\s*#\s*include\s*[<"]([^>"]+)[>"]')
WIDGETS = re.compile(r"^(QtGui|QtWidgets)(/|$)|^Q(Widget|Application|Icon|Pixmap|PushButton|AbstractButton|ToolButton)$")
FORBIDDEN = {"nwebapi": ("nbase",), "uci": ("nbase", "nwebapi", "nsystem"), "nsystem": ("nbase", "nwebapi", "uci")}

# Pairs of public classes that call each other by design; their headers do not include each other.
KNOWN_CIRCLES = (
    ("nbase/network/nnetworklistener", "nbase/network/nnetworklistenersingleton"),
    ("nbase/serial/nseriallistener", "nbase/serial/nseriallistenersingleton"),
    ("nbase/serial/nserialport", "nbase/serial/nserialportallocator"),
    ("nbase/serial/nserialportfileopeningworkerthread", "nbase/serial/nserialport"),
    ("nbase/sqlite/nabstractsqlitedbmanager", "nbase/sqlite/nabstractsqlitedbtable"),
    ("nbase/time/neventplanner", "nbase/time/neventplannersingleton"),
)


def sources(root):
    for folder, _, names in os.walk(root):
        for name in names:
            if name.endswith((".h", ".c", ".cpp")):
                yield os.path.relpath(os.path.join(folder, name), root)


def includes(root, path):
    """Yields the line number and the text of each include of a file."""
    with open(os.path.join(root, path), encoding="utf-8") as file:
        for number, line in enumerate(file, 1):
            match = INCLUDE.match(line)
            if match:
                yield number, match.group(1)


def resolve(root, path, included):
    """The file of the tree that is included, or None for others, such as those of the system."""
    for folder in (os.path.dirname(path), "", "uci"):
        candidate = os.path.normpath(os.path.join(folder, included))
        if os.path.isfile(os.path.join(root, candidate)):
            return candidate
    return None


def library(path):
    return path.split("/")[0]


def unit(path):
    return re.sub(r"(_p)?\.(h|c|cpp)$", "", path)


def is_private(path):
    return path.endswith("_p.h") or library(path) == "nsystem"


def is_public_header(path):
    return path.endswith(".h") and not is_private(path)


def may_include_nwebapi(path):
    name = os.path.basename(path)
    return ("fcgiservice" in name or "fcgirequestprocessor" in name
            or os.path.basename(unit(path)) == "nnetworkproxyparametersaccessor")


def complaint(path, included, target):
    """What is wrong with one include, or None."""
    to = library(target) if target else library(included)
    if to in FORBIDDEN.get(library(path), ()):
        return "src/%s must not depend on src/%s" % (library(path), to)
    if library(path) == "nbase" and to == "nwebapi" and not may_include_nwebapi(path):
        return "only web services of src/nbase may use src/nwebapi"
    if is_public_header(path) and (included.endswith("_p.h") or to == "nsystem"):
        return "a public header must not include a private one"
    if WIDGETS.match(included) and unit(path) != "nbase/device/nbuttonrole":
        return "only device/nbuttonrole may use widgets"
    return None


def circles(edges):
    """The shortest circle through each unit that is on one, each set of units once."""
    found = {}
    for start in sorted(edges):
        before = {start: None}
        queue = [start]
        while queue:
            current = queue.pop(0)
            if start in edges.get(current, ()):
                circle = []
                while current is not None:
                    circle.insert(0, current)
                    current = before[current]
                found.setdefault(frozenset(circle), circle)
                break
            for following in sorted(edges.get(current, ())):
                if following not in before:
                    before[following] = current
                    queue.append(following)
    return list(found.values())


def check(root, known=()):
    """All complaints about the tree under root. A known circle is one only if it is there no more."""
    result = []
    edges = {}
    for path in sorted(sources(root)):
        for number, included in includes(root, path):
            target = resolve(root, path, included)
            wrong = complaint(path, included, target)
            if wrong:
                result.append("src/%s:%d includes %s: %s" % (path, number, included, wrong))
            if target and unit(target) != unit(path):
                edges.setdefault(unit(path), {})[unit(target)] = "src/%s:%d" % (path, number)
    found = circles(edges)
    result += ["circle: %s and %s are known, but there is none" % pair for pair in known
               if set(pair) not in map(set, found)]
    for circle in (circle for circle in found if tuple(circle) not in known):
        steps = zip(circle, circle[1:] + circle[:1])
        result.append("circle: " + ", ".join("%s includes %s (%s)" % (a, b, edges[a][b]) for a, b in steps))
    return result


def self_check():
    """Each case: files with their includes, and the complaint that is expected, or None."""
    cases = (
        ({"nbase/a.h": "QtCore/QString nbase/b.h", "nbase/a.cpp": "nbase/a.h nbase/c_p.h nsystem/s_p.h uci.h",
          "nbase/b.h": "", "nbase/c_p.h": "", "nsystem/s_p.h": "", "nsystem/s.cpp": "nsystem/s_p.h", "uci/uci.h": ""}, None),
        ({"nbase/web/nfoofcgiservice.h": "nwebapi/w.h", "nwebapi/w.h": ""}, None),
        ({"nbase/network/nnetworkproxyparametersaccessor.cpp": "nwebapi/w.h", "nwebapi/w.h": ""}, None),
        ({"nbase/a.cpp": "nwebapi/w.h", "nwebapi/w.h": ""}, "only web services"),
        ({"nbase/a.cpp": "../nwebapi/w.h", "nwebapi/w.h": ""}, "only web services"),
        ({"nwebapi/w.cpp": "nbase/a.h", "nbase/a.h": ""}, "src/nwebapi must not depend on src/nbase"),
        ({"uci/u.c": "nbase/a.h", "nbase/a.h": ""}, "src/uci must not depend on src/nbase"),
        ({"uci/u.c": "nwebapi/w.h"}, "src/uci must not depend on src/nwebapi"),
        ({"nsystem/s.cpp": "nbase/a.h", "nbase/a.h": ""}, "src/nsystem must not depend on src/nbase"),
        ({"nbase/a.h": "nbase/c_p.h", "nbase/c_p.h": ""}, "must not include a private one"),
        ({"nbase/a.h": "nsystem/s.h", "nsystem/s.h": ""}, "must not include a private one"),
        ({"nbase/a.h": "QtWidgets/QPushButton"}, "only device/nbuttonrole"),
        ({"nbase/device/nbuttonrole.h": "QtGui/QIcon"}, None),
        ({"nbase/a.cpp": "nbase/b.h", "nbase/a.h": "", "nbase/b.h": "nbase/a.h"}, "circle: nbase/a includes nbase/b"),
        ({"nbase/a.h": "nbase/b.h", "nbase/b.h": "nbase/c.h", "nbase/c.h": "nbase/a.h"}, "nbase/c includes nbase/a"),
        ({"uci/a_p.h": "b_p.h", "uci/b.c": "b_p.h a_p.h", "uci/b_p.h": ""}, "circle: uci/a includes uci/b"),
    )
    cases = tuple(case + ((),) for case in cases) + (
        ({"nbase/a.h": "nbase/b.h", "nbase/b.h": "nbase/a.h"}, None, (("nbase/a", "nbase/b"),)),
        ({"nbase/a.h": "nbase/b.h", "nbase/b.h": ""}, "are known, but there is none", (("nbase/a", "nbase/b"),)),
    )
    for files, expected, known in cases:
        with tempfile.TemporaryDirectory() as root:
            for path, included in files.items():
                os.makedirs(os.path.join(root, os.path.dirname(path)), exist_ok=True)
                with open(os.path.join(root, path), "w", encoding="utf-8") as file:
                    file.writelines("#include <%s>\n" % name for name in included.split())
            found = check(root, known)
        if expected is None and found or expected is not None and (len(found) != 1 or expected not in found[0]):
            sys.exit("FAIL: %s gives %s instead of %s" % (files, found, expected or "nothing"))
    print("%d cases of the include rules give what is expected" % len(cases))


def main():
    if sys.argv[1:] == ["--self-check"]:
        self_check()
        return
    root = sys.argv[1] if len(sys.argv) > 1 else os.path.join(os.path.dirname(os.path.abspath(__file__)), "..")
    root = os.path.join(root, "src")
    found = check(root, KNOWN_CIRCLES)
    print("\n".join(found + ["%d files checked, %d violations" % (len(list(sources(root))), len(found))]))
    sys.exit(1 if found else 0)


if __name__ == "__main__":
    main()
