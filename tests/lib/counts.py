"""How many runs each sweep makes, and the table in docs/reliability.md that says so.

Every sweep counts itself. Where its number is that of every machine (natively, without a sample of the sanitizers' kind
and without VORNIX_LONG) it holds the number against its row in the page, so that the page cannot grow old. With
VORNIX_COUNTS=FILE it writes the row there instead; tests/faults/update_counts.py does that for all sweeps and puts the
table together.
"""

import json
import os
import re
import sys
import threading

from machine import CHECKOUT, SETTINGS

PAGE = os.path.join(CHECKOUT, "docs", "reliability.md")
BEGIN, END = "<!-- counts of the sweeps -->\n", "<!-- end of counts of the sweeps -->"
HEADINGS = "| Suite | Sweep | Calls of the healthy run | Runs | of |\n|---|---|---:|---:|---:|\n"
_lock = threading.Lock()


def section(page):
    return re.search(BEGIN + "(.*?)" + END, page, flags=re.S).group(1)


def row_of(test, kind, calls, runs, possible):
    suite = os.path.splitext(os.path.basename(sys.argv[0]))[0].removeprefix("test_")
    name = test.id().rpartition(".")[2].removeprefix("test_").replace("_", " ")
    return f"| `{suite}` | {kind}: {name} | {calls} | {runs} | {possible} |\n"


def count(test, kind, calls, runs, possible):
    """Called by a sweep at its end: it was made of so many calls, and tried so many runs of those possible."""
    if SETTINGS.sampled or SETTINGS.long:
        return
    row = row_of(test, kind, calls, runs, possible)
    target = os.environ.get("VORNIX_COUNTS")
    if target:
        with _lock, open(target, "a", encoding="utf-8") as file:
            file.write(json.dumps(row) + "\n")
        return
    with open(PAGE, encoding="utf-8") as file:
        rows = section(file.read())
        # A suite that the page does not count at all has nothing there that could grow old.
        if row.partition(" | ")[0] in rows and row not in rows:
            test.fail(f"docs/reliability.md does not have the row\n{row}"
                      "tests/faults/update_counts.py rewrites its table")


def table(rows):
    """The whole section: every row, and their sums."""
    runs = {"faults": 0, "kills": 0}
    for row in rows:
        fields = [field.strip() for field in row.strip().strip("|").split("|")]
        runs[fields[1].partition(":")[0]] += int(fields[3])
    return (f"{runs['faults']} runs with a failing call, and {runs['kills']} that died at one, "
            f"{len(rows)} sweeps in all:\n\n"
            + HEADINGS + "".join(sorted(rows)))
