"""Compares two folders of recordings, of the native build and of the Windows build, and prints a table.

    python3 tests/scenarios/compare_recordings.py NATIVE_FOLDER WINE_FOLDER [--exceptions FILE]

Every scenario that both builds ran must have left the same account: arguments, status, streams, log, files and disks.
What the Windows build left out on purpose (`suite.of_this_build`) is counted, and of each suite something has to be
compared. Scenarios named in the file of exceptions may differ or be missing on one side; each has its reason there. An
exception that is no longer needed is a failure too. The last line is `N passed, N failed, N skipped`; the exit status
is 1 when anything failed.
"""

import argparse
import json
import os
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
COLUMNS = ("native", "wine", "left out", "equal", "excepted", "failed")


def read_recordings(folder):
    found = {}
    for suite_name in sorted(os.listdir(folder)):
        for name in sorted(os.listdir(os.path.join(folder, suite_name))):
            with open(os.path.join(folder, suite_name, name), encoding="utf-8") as file:
                found[f"{suite_name}/{name.removesuffix('.json')}"] = json.load(file)
    return found


def read_exceptions(path):
    """Lines of `suite/Class.test: reason`; empty ones and those that begin with # are left out."""
    exceptions = {}
    with open(path, encoding="utf-8") as file:
        for number, line in enumerate(file, 1):
            line = line.strip()
            if not line or line.startswith("#"):
                continue
            name, colon, reason = line.partition(": ")
            if not colon or not reason.strip():
                sys.exit(f"{path}:{number}: an exception needs a name and a reason")
            exceptions[name] = reason.strip()
    return exceptions


def first_difference(native, wine, where="account"):
    """A text on the first place where two accounts differ, or None."""
    if type(native) is not type(wine):
        return f"{where}: {native!r} natively, {wine!r} under Wine"
    if isinstance(native, dict):
        for key in sorted(set(native) | set(wine)):
            if key not in native or key not in wine:
                return f"{where}.{key}: only {'natively' if key in native else 'under Wine'}"
            text = first_difference(native[key], wine[key], f"{where}.{key}")
            if text:
                return text
        return None
    if isinstance(native, list):
        for place, (left, right) in enumerate(zip(native, wine)):
            text = first_difference(left, right, f"{where}[{place}]")
            if text:
                return text
        if len(native) != len(wine):
            return f"{where}: {len(native)} entries natively, {len(wine)} under Wine"
        return None
    return None if native == wine else f"{where}: {native!r} natively, {wine!r} under Wine"


def main():
    parser = argparse.ArgumentParser(description="Compares the recordings of two builds.")
    parser.add_argument("native")
    parser.add_argument("wine")
    parser.add_argument("--exceptions", default=os.path.join(HERE, "recording_exceptions.txt"))
    arguments = parser.parse_args()
    native, wine = read_recordings(arguments.native), read_recordings(arguments.wine)
    exceptions = read_exceptions(arguments.exceptions)
    rows, problems, used, left_out = {}, [], set(), set()
    for name in sorted(set(native) | set(wine)):
        row = rows.setdefault(name.split("/")[0], dict.fromkeys(COLUMNS, 0))
        if name in wine and wine[name] is None:
            row["native"] += name in native
            row["left out"] += name in native
            left_out.add(name)
            continue
        row["native"] += name in native
        row["wine"] += name in wine
        if name in native and name in wine:
            difference = first_difference(native[name], wine[name])
        else:
            difference = f"ran only {'natively' if name in native else 'under Wine'}"
        if difference is None:
            row["equal"] += 1
        elif name in exceptions:
            used.add(name)
            row["excepted"] += 1
        else:
            row["failed"] += 1
            problems.append(f"{name}\n    {difference}")
    stale = [name for name in exceptions if name not in used | left_out]
    problems += [f"{name}\n    stands among the exceptions and needs none" for name in stale]

    problems += [f"{name}\n    has nothing that both builds ran" for name, row in rows.items()
                 if row["native"] and row["native"] == row["left out"]]

    titles = ("natively", "Wine", "left out", "equal", "excepted", "failed")
    width = max([len(name) for name in rows] + [len("scenarios of"), len("all")])
    print(f"{'scenarios of':<{width}}  " + "  ".join(f"{title:>8}" for title in titles))
    for name, row in rows.items():
        print(f"{name:<{width}}  " + "  ".join(f"{row[column]:>8}" for column in COLUMNS))
    total = {column: sum(row[column] for row in rows.values()) for column in COLUMNS}
    print(f"{'all':<{width}}  " + "  ".join(f"{total[column]:>8}" for column in COLUMNS))
    for name in sorted(used):
        print(f"excepted: {name}: {exceptions[name]}")
    for problem in problems:
        print(f"FAILED {problem}")
    print(f"{total['equal']} passed, {len(problems)} failed, {total['excepted']} skipped")
    sys.exit(1 if problems or not total["equal"] else 0)


if __name__ == "__main__":
    main()
