#!/usr/bin/env python3
"""clang_tidy.py BUILD [DIRECTORY...]: checks the sources of a configured unity build with clang-tidy.

All of them, or those of the targets that have a source in the named directories.

Most of clang-tidy's time goes into the headers of the C++ library. CMake's unity sources
include all sources of a target, so that these share one pass over the headers. Where names in
two sources collide, they are checked one by one instead.
"""

import json
import os
import re
import resource
import shlex
import subprocess
import sys
from concurrent.futures import ThreadPoolExecutor, as_completed
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

    def has_part_in(self, directories):
        return any(source.is_relative_to(directory)
                   for source in self.sources for directory in directories)

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


def units(build, directories):
    """Without those whose sources are all in others, the largest first."""
    database = json.loads((build / "compile_commands.json").read_text())
    found, seen = [], set()
    for unit in map(Unit, database):
        if not unit.is_of_the_project() or not unit.has_part_in(directories):
            continue
        if not seen.issuperset(unit.sources):
            found.append(unit)
            seen.update(unit.sources)
    return sorted(found, key=lambda unit: len(unit.sources), reverse=True), len(seen)


def main():
    build, *directories = (Path(argument).resolve() for argument in sys.argv[1:])
    todo, count = units(build, directories or [ROOT])
    if not todo:
        sys.exit(f"clang_tidy.py: no sources of {build} in these directories")
    failed = False
    with ThreadPoolExecutor(os.cpu_count()) as pool:
        for check in as_completed([pool.submit(unit.check) for unit in todo]):
            if check.result():
                failed = True
                print(check.result(), end="", flush=True)
    used = resource.getrusage(resource.RUSAGE_CHILDREN)
    print(f"clang-tidy: {count} sources, {'findings above' if failed else 'no findings'}; "
          f"{used.ru_utime + used.ru_stime:.0f} s of processor time")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
