#!/usr/bin/env python3
"""Which lines and branches of src/ the native tests run through.

    tests/coverage.py               builds into build/coverage, runs the unit and scenario suites, prints the table
    tests/coverage.py --report      prints the table of the runs that were made so far
    tests/coverage.py --update      as without arguments, and rewrites the table in docs/reliability.md

Needs g++ and its gcov, and nothing else. A branch counts when it was taken; the branches that gcov itself marks as ways of
an exception ("throw") are left out: every call has one, the program catches nothing, and an allocation that fails ends the
process (tests/faults/test_allocation_failures.py). A run that dies abnormally, by a signal or by an injected kill, leaves no
counts behind.
"""

import collections
import json
import os
import re
import subprocess
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
BUILD = os.path.join(ROOT, "build", "coverage")
PAGE = os.path.join(ROOT, "docs", "reliability.md")
BEGIN, END = "<!-- coverage -->\n", "<!-- end of coverage -->"
SUITES = "^(vornix-.*tests|scenarios/.*|faults/hostile_files|faults/no_write.*|faults/fault_sweep_.*)$"
# These look at text or at other builds, or go where the others have been, at length.
LEFT_OUT = "interop|generations|folding|chain_bit_changes"


def run(*command, **options):
    print("$", " ".join(command), flush=True)
    return subprocess.run(command, cwd=ROOT, check=True, **options)


def build_and_run():
    flags = "--coverage -O0 -fprofile-update=atomic"
    run("cmake", "-S", ".", "-B", BUILD, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Debug", f"-DCMAKE_CXX_FLAGS={flags}",
        stdout=subprocess.DEVNULL)
    run("cmake", "--build", BUILD, "--parallel", "2", stdout=subprocess.DEVNULL)
    for folder, _, names in os.walk(BUILD):
        for name in names:
            if name.endswith(".gcda"):
                os.remove(os.path.join(folder, name))
    subprocess.run(["ctest", "--test-dir", BUILD, "-R", SUITES, "-E", LEFT_OUT, "--parallel", "2"], cwd=ROOT, check=False)


def counts():
    """For each file of src/: line to count, and (line, number of the branch) to count."""
    lines = collections.defaultdict(collections.Counter)
    branches = collections.defaultdict(collections.Counter)
    objects = os.path.join(BUILD, "CMakeFiles", "vornix_program.dir")
    for folder, _, names in os.walk(objects):
        for name in sorted(names):
            if not name.endswith(".gcda"):
                continue
            output = subprocess.run(["gcov", "--json-format", "--branch-probabilities", "--stdout", name], cwd=folder,
                                    check=True, capture_output=True).stdout
            for file in json.loads(output)["files"]:
                path = os.path.normpath(file["file"])
                path = os.path.relpath(path, ROOT) if os.path.isabs(path) else path
                if not path.startswith("src/"):
                    continue
                for line in file["lines"]:
                    at = line["line_number"]
                    lines[path][at] += line["count"]
                    kept = [branch for branch in line["branches"] if not branch["throw"]]
                    for number, branch in enumerate(kept):
                        branches[path][at, number] += branch["count"]
    return lines, branches


def share(taken, all_of_them):
    return f"{100 * taken / all_of_them:.1f} %" if all_of_them else "-"


def table():
    lines, branches = counts()
    text = "| File | Lines | Run | Branches | Taken | Not run, or not in each direction |\n|---|---:|---:|---:|---:|---|\n"
    total = collections.Counter()
    for path in sorted(lines):
        ran = sum(1 for count in lines[path].values() if count)
        taken = sum(1 for count in branches[path].values() if count)
        total.update({"lines": len(lines[path]), "ran": ran, "branches": len(branches[path]), "taken": taken})
        missed = {at for at, count in lines[path].items() if not count}
        half = {at for (at, _), count in branches[path].items() if not count} - missed
        where = ", ".join([f"**{at}**" for at in sorted(missed)] + [str(at) for at in sorted(half)])
        text += (f"| `{path}` | {len(lines[path])} | {share(ran, len(lines[path]))} | {len(branches[path])} | "
                 f"{share(taken, len(branches[path]))} | {where} |\n")
    text += (f"| all of src/ | {total['lines']} | {share(total['ran'], total['lines'])} | {total['branches']} | "
             f"{share(total['taken'], total['branches'])} | |\n")
    return text


def main():
    if sys.argv[1:] not in ([], ["--report"], ["--update"]):
        sys.exit(__doc__)
    if sys.argv[1:] != ["--report"]:
        build_and_run()
    text = table()
    print(text, end="")
    if sys.argv[1:] == ["--update"]:
        with open(PAGE, encoding="utf-8") as file:
            page = file.read()
        with open(PAGE, "w", encoding="utf-8") as file:
            file.write(re.sub(f"{BEGIN}.*?{END}", lambda _: BEGIN + text + END, page, flags=re.S))


if __name__ == "__main__":
    main()
