#!/usr/bin/env python3
"""folder_dependencies.py OBJECTS: whether the shim's folders depend on each other
in one direction only.

OBJECTS is the directory with the object files of the shim (shim/CMakeFiles/...).
A folder depends on another if one of its objects uses a symbol that an object of
the other defines. shim_monitor is the part of lifecycle/ that wrappers call.
Prints the folders in layers; fails on a cycle, and on a process-global variable
that is not defined in state/.
"""
import pathlib
import re
import subprocess
import sys

MOVED = {"shim_monitor": "lifecycle"}


def folder_of(path):
    name = path.name.split(".")[0]
    if name in MOVED:
        return MOVED[name]
    return path.parent.name if path.parent.parent.name == "shim_utils" else "wrappers"


def symbols(path):
    output = subprocess.run(["nm", "-C", str(path)], check=True, capture_output=True, text=True)
    for line in output.stdout.splitlines():
        yield re.fullmatch(r"[0-9a-f]* +(\S) (.*)", line).groups()


def layers(uses):
    """The folders, those that need no other first; None when there is a cycle."""
    left, result = dict(uses), []
    while left:
        layer = sorted(f for f, needs in left.items() if not needs & set(left) - {f})
        if not layer:
            return None, left
        result.append(layer)
        for folder in layer:
            del left[folder]
    return result, {}


def main():
    objects = sorted(pathlib.Path(sys.argv[1]).rglob("*.o"))
    defined, undefined, misplaced = {}, {}, []
    for path in objects:
        folder = folder_of(path)
        for kind, name in symbols(path):
            if kind == "U":
                undefined.setdefault(folder, set()).add(name)
            elif folder == "wrappers" and "::" not in name:
                continue  # named like the C library's call, which is what others use
            elif kind in "TDBRV":
                defined[name] = folder
                variable = kind in "DB" and "::real_" not in name
                if variable and folder != "state":
                    misplaced.append(f"{name} in {path.name}")
    uses = {folder: {defined[n] for n in names if n in defined} - {folder}
            for folder, names in undefined.items()}
    for folder in set(defined.values()):
        uses.setdefault(folder, set())
    order, cycle = layers(uses)
    for folder, needs in sorted(cycle.items()):
        print(f"in a cycle: {folder} uses {', '.join(sorted(needs))}", file=sys.stderr)
    for variable in misplaced:
        print(f"process-global variable outside state/: {variable}", file=sys.stderr)
    if order is None or misplaced:
        return 1
    print("folders, each using only those before it: " + " < ".join(", ".join(x) for x in order))
    return 0


sys.exit(main())
