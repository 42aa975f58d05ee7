#!/usr/bin/env python3
"""Runs suites on whole computers and rewrites their rows in the table in docs/reliability.md.

    tests/run tests/machines/update_counts.py                            all of them; hours
    tests/run tests/machines/update_counts.py test_lost_power.py ...     some suites; the rows of the others stay
    tests/run tests/machines/update_counts.py --rows FILE ...            what a run with VORNIX_COUNTS=FILE has left

A row says what was tried and what came of it, also where that was not what was promised.
"""

import glob
import json
import os
import re
import subprocess
import sys
import tempfile

import counts

HERE = os.path.dirname(os.path.abspath(__file__))
BEGIN, END = "<!-- counts of the computers -->\n", "<!-- end of counts of the computers -->"
HEADINGS = "| What | Case | Tried | Result |\n|---|---|---:|---|\n"


def rows_of_run(suite):
    with tempfile.TemporaryDirectory() as folder:
        target = os.path.join(folder, "counts")
        subprocess.run([sys.executable, os.path.join(HERE, suite)], check=False,
                       env={**os.environ, "VORNIX_COUNTS": target, "VORNIX_LONG": "1"})
        return rows_of_file(target) if os.path.exists(target) else []


def rows_of_file(path):
    with open(path, encoding="utf-8") as file:
        return [tuple(json.loads(line)) for line in file]


def table(rows):
    """The whole section: the sum of the states, and every row."""
    states = sum(int(tried.split()[0]) for _, _, tried, _ in rows.values() if " states" in tried)
    lines = "".join("| " + " | ".join(row) + " |\n" for _, row in sorted(rows.items()))
    return f"{states} states of disks after a lost power, and what else was tried:\n\n" + HEADINGS + lines


def main():
    if sys.argv[1:2] == ["--rows"]:
        new = [row for path in sys.argv[2:] for row in rows_of_file(path)]
    else:
        suites = sys.argv[1:] or [os.path.basename(path) for path in sorted(glob.glob(os.path.join(HERE, "test_*.py")))]
        new = [row for suite in suites for row in rows_of_run(suite)]
    with open(counts.PAGE, encoding="utf-8") as file:
        page = file.read()
    old = re.search(BEGIN + "(.*?)" + END, page, flags=re.S).group(1)
    rows = {tuple(row[:2]): row for row in (tuple(cell.strip() for cell in line.strip("|").split("|"))
                                            for line in old.splitlines() if line.startswith("| ")) if row[0] != "What"}
    rows.update({row[:2]: row for row in new})
    with open(counts.PAGE, "w", encoding="utf-8") as file:
        file.write(page.replace(BEGIN + old + END, BEGIN + table(rows) + END))


if __name__ == "__main__":
    main()
