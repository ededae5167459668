#!/usr/bin/env python3
"""clang_tidy.py BUILD: checks the sources of a configured unity build with clang-tidy.

Most of clang-tidy's time goes into the headers of the C++ library. CMake's unity sources
include all sources of a target, so that these share one pass over the headers. Where names in
two sources collide, they are checked one by one instead.
"""

import json
import re
import shlex
import subprocess
import sys
from concurrent.futures import ThreadPoolExecutor
from os import cpu_count
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent


class Unit:
    """A source to be compiled, and the project's sources that it consists of."""

    def __init__(self, entry):
        self.file, self.directory = Path(entry["file"]), entry["directory"]
        command = shlex.split(entry["command"])
        output = command.index("-o")
        compiler = next(i for i, word in enumerate(command) if not word.endswith("ccache"))
        self.options = [word for word in command[compiler + 1:output] + command[output + 2:]
                        if word not in ("-c", entry["file"])]
        unity = self.file.parent.name == "Unity"
        included = re.findall(r'#include "(.*)"', self.file.read_text()) if unity else [self.file]
        self.sources = [Path(path).resolve() for path in included]

    def is_of_the_project(self):
        return all(source.is_relative_to(ROOT) for source in self.sources)

    def check(self):
        """Returns the findings."""
        findings = self.run(self.file)
        if "[clang-diagnostic-error" in findings and len(self.sources) > 1:
            findings = "".join(map(self.run, self.sources))
        return findings

    def run(self, file):
        result = subprocess.run(["clang-tidy", "--quiet", str(file), "--", *self.options],
                                cwd=self.directory, capture_output=True, text=True)
        if result.returncode != 0 and not result.stdout:
            return result.stderr
        return result.stdout


def units(build):
    """Without those whose sources are all in others, the largest first."""
    database = json.loads((build / "compile_commands.json").read_text())
    found, seen = [], set()
    for unit in map(Unit, database):
        if unit.is_of_the_project() and not seen.issuperset(unit.sources):
            found.append(unit)
            seen.update(unit.sources)
    return sorted(found, key=lambda unit: len(unit.sources), reverse=True), len(seen)


def main():
    todo, count = units(Path(sys.argv[1]).resolve())
    failed = False
    with ThreadPoolExecutor(cpu_count()) as pool:
        for findings in pool.map(Unit.check, todo):
            if findings:
                failed = True
                print(findings, end="", flush=True)
    print(f"clang-tidy: {count} sources, {'findings above' if failed else 'no findings'}")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
