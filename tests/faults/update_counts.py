#!/usr/bin/env python3
"""Runs every sweep of the native build and rewrites the table of their numbers in docs/reliability.md.

    tests/run tests/faults/update_counts.py                            all of them
    tests/run tests/faults/update_counts.py test_fault_matrix.py ...   some suites; the rows of the others stay
"""

import glob
import json
import os
import subprocess
import sys
import tempfile

import counts

HERE = os.path.dirname(os.path.abspath(__file__))


def main():
    suites = sys.argv[1:] or [os.path.basename(path) for path in sorted(glob.glob(os.path.join(HERE, "test_*.py")))
                              if "sweep" in path or "matrix" in path]
    for suite in suites:
        with tempfile.TemporaryDirectory() as folder:
            target = os.path.join(folder, "counts")
            subprocess.run([sys.executable, os.path.join(HERE, suite)], env={**os.environ, "VORNIX_COUNTS": target},
                           check=True)
            with open(target, encoding="utf-8") as file:
                rows = [json.loads(line) for line in file]
        with open(counts.PAGE, encoding="utf-8") as file:
            page = file.read()
        name = suite.removeprefix("test_").removesuffix(".py")
        others = [row + "\n" for row in counts.section(page).splitlines()
                  if row.startswith("| `") and not row.startswith(f"| `{name}` ")]
        old = counts.BEGIN + counts.section(page) + counts.END
        with open(counts.PAGE, "w", encoding="utf-8") as file:
            file.write(page.replace(old, counts.BEGIN + counts.table(others + rows) + counts.END))


if __name__ == "__main__":
    main()
