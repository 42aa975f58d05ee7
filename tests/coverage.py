#!/usr/bin/env python3
"""Which lines and branches of src/ and platform/linux the native tests run through.

    tests/coverage.py               builds into build/coverage, runs the test programs, the scenarios, the fault sweeps
                                    and those on media that fail, prints
    tests/coverage.py --report      prints what the runs that were made so far reached
    tests/coverage.py --update      as without arguments, and rewrites the tables in docs/reliability.md

Needs g++ and its gcov. Only src/ and platform/linux are counted (coverage.cmake), function by function in the one
object file that all test executables are linked from. A branch is a direction that a condition can take; it counts when
it was taken. Ways that only an exception takes are left out: the program catches nothing, and an allocation that fails
ends the process (tests/faults/test_allocation_failures.py). A run that dies, by a signal or by an injected kill, leaves
no counts behind.

Everything of src/ that was not reached needs its reason below, and every reason its place: otherwise the exit status is
1. Of platform/linux the lines are counted and no more is asked: most of what is missing there answers a call of the
kernel that fails, or ends the process, which leaves no counts.
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
SCOPES = ("src/", "platform/linux/")
SUITES = "^(vornix-.*tests|scenarios/.*|media/.*|faults/(hostile_files|no_write.*|fault_sweep_.*|fault_matrix))$"
# These look at the optimised code or at other builds, or go at length where the others have been.
LEFT_OUT = "secret_wiping|interop|generations|thread-tests"

NO_OTHER_VALUE = "Each value of the enumeration has its case; the compiler counts the way of a value that is none."

# File, line as it stands there (the second of two equal ones with a "(2)" behind it), and why no test reaches it, or
# one direction of its condition.
REASONS = {
    ("src/commands/capture.cpp", "if (sectorSize == 0) {"):
        "Neither Linux nor a description has a disk with sectors of 0 bytes; only a driver of Windows could report "
        "one.",
    ("src/commands/capture.cpp", 'Fatal("source disk reports a sector size of 0", 0);'): "As above.",
    ("src/commands/incremental_capture.cpp",
     "if (base.Header.ChunkSize != source.chunkSize || base.Header.ChunkCount != source.chunkCount) {"):
        "An image opens only with the chunk count that follows from its disk and chunk size, which are equal here: the "
        "count "
        "alone cannot differ.",
    ("src/commands/restore.cpp", "switch (chunk.Verdict) {"): NO_OTHER_VALUE,
    ("src/commands/verify.cpp", "switch (verdict) {"): NO_OTHER_VALUE,
    ("src/image/chunk_retrieval.cpp",
     "switch (isReference ? FollowReference(image, index, dest) : ReadOwnChunk(image, index, dest)) {"): NO_OTHER_VALUE,
    ("src/crypto/password_file.cpp", 'if (fopen_s(&stream, path.c_str(), "rb") != 0 || stream == nullptr) {'):
        "An open that succeeds gives a stream.",
    ("src/image/open_image.cpp", "if (!GetFileSizeEx(image.File, &size) || size.QuadPart < 0 ||"):
        "No file has a negative size.",
    ("src/image/open_image.cpp", "record.StoredLength > std::numeric_limits<uint64_t>::max() - offset) {"):
        "Chunks of at most 64 MiB, at most 3728270 of them, add up to less than 2^48.",
    ("src/snapshot/snapshot_session.cpp", "status = (session.Components->*method)(&async);"):
        "The compiler's own question, whether the method is virtual; each of them is.",
    ("src/snapshot/snapshot_session.cpp", "if (!session.ExitHookRegistered) {"):
        "A run begins one session.",
    ("src/snapshot/volume_extents.cpp", "if (!volume.DevicePath.empty() && volume.DevicePath.back() == L'\\\\') {"):
        "An enumeration gives no empty name.",
}


def run(*command, **options):
    print("$", " ".join(command), flush=True)
    return subprocess.run(command, cwd=ROOT, check=True, **options)


def build_and_run():
    """Builds, forgets earlier counts and runs the suites. Gives whether all of them passed."""
    run("cmake", "-S", ".", "-B", BUILD, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Debug",
        f"-DCMAKE_PROJECT_INCLUDE={os.path.join(ROOT, 'tests', 'coverage.cmake')}", stdout=subprocess.DEVNULL)
    run("cmake", "--build", BUILD, "--parallel", "2", stdout=subprocess.DEVNULL)
    for path in counters(".gcda"):
        os.remove(path)
    done = subprocess.run(["ctest", "--test-dir", BUILD, "-R", SUITES, "-E", LEFT_OUT, "--parallel", "2",
                           "--output-on-failure"], cwd=ROOT, check=False,
                          # Where a test lets no file grow, the counters cannot be written, and complain.
                          env={**os.environ, "GCOV_ERROR_FILE": os.devnull})
    return done.returncode == 0


def counters(suffix):
    """The files of that suffix that the compiler, or a run, has laid beside the objects that are counted."""
    found = []
    for folder, _, names in os.walk(os.path.join(BUILD, "CMakeFiles")):
        found += [os.path.join(folder, name) for name in names if name.endswith(suffix)]
    return sorted(found)


def branches_to_count(branches):
    """The counts of the directions that a line's conditions can take. Of a call that may throw gcov lists both ways,
    the ordinary one first; neither is one that a condition takes."""
    kept = []
    for branch in branches:
        if branch["throw"]:
            assert kept and kept[-1]["fallthrough"]
            kept.pop()
        else:
            kept.append(branch)
    return [branch["count"] for branch in kept]


def counts():
    """For each file that is counted: line to count, and (line, number of the branch) to count."""
    lines = collections.defaultdict(collections.Counter)
    branches = collections.defaultdict(collections.Counter)
    # By what the compiler has laid down, so that a file that no run has entered counts as well.
    for path in counters(".gcno"):
        output = subprocess.run(["gcov", "--json-format", "--branch-probabilities", "--stdout", os.path.basename(path)],
                                cwd=os.path.dirname(path), check=True, capture_output=True).stdout
        for file in json.loads(output)["files"]:
            name = os.path.relpath(os.path.normpath(os.path.join(ROOT, file["file"])), ROOT)
            if not name.startswith(SCOPES):
                continue
            for line in file["lines"]:
                at = line["line_number"]
                lines[name][at] += line["count"]
                for number, count in enumerate(branches_to_count(line["branches"])):
                    branches[name][at, number] += count
    return lines, branches


def share(taken, all_of_them):
    return f"{100 * taken / all_of_them:.1f} %" if all_of_them else "-"


def places(path):
    """The lines of a file without their indentation, the second and later of several equal ones with their number."""
    seen = collections.Counter()
    found = []
    with open(os.path.join(ROOT, path), encoding="utf-8") as file:
        for line in file.read().split("\n"):
            line = line.strip()
            seen[line] += 1
            found.append(line if seen[line] == 1 else f"{line} ({seen[line]})")
    return found


def report():
    """The two tables as text, and what stands in only one of the second and REASONS."""
    lines, branches = counts()
    text = "| File | Lines | Run | Branches | Taken |\n|---|---:|---:|---:|---:|\n"
    not_reached = {}
    for scope in SCOPES:
        total = collections.Counter()
        for path in sorted(path for path in lines if path.startswith(scope)):
            ran = sum(1 for count in lines[path].values() if count)
            taken = sum(1 for count in branches[path].values() if count)
            total.update({"lines": len(lines[path]), "ran": ran, "branches": len(branches[path]), "taken": taken})
            missed = {at for at, count in lines[path].items() if not count}
            half = {at for (at, _), count in branches[path].items() if not count} - missed
            source = places(path)
            for at in sorted(missed | half) if scope == "src/" else ():
                not_reached[path, source[at - 1]] = f"{path}:{at}", "never run" if at in missed else "one direction"
            text += (f"| `{path}` | {len(lines[path])} | {share(ran, len(lines[path]))} | {len(branches[path])} | "
                     f"{share(taken, len(branches[path]))} |\n")
        text += (f"| all of {scope} | {total['lines']} | {share(total['ran'], total['lines'])} | {total['branches']} | "
                 f"{share(total['taken'], total['branches'])} |\n")
    text += "\n| Not reached | What of it | Why |\n|---|---|---|\n"
    for (path, line), (_, what) in not_reached.items():
        text += f"| `{path}`: `{line.replace('|', chr(92) + '|')}` | {what} | {REASONS.get((path, line), '')} |\n"
    troubles = [f"{where} ({what}) is not reached and has no reason: {key[1]}"
                for key, (where, what) in not_reached.items() if key not in REASONS]
    troubles += [f"{path} has a reason for what is reached, or is not there: {line}"
                 for path, line in REASONS if (path, line) not in not_reached]
    return text, troubles


def main():
    if sys.argv[1:] not in ([], ["--report"], ["--update"]):
        sys.exit(__doc__)
    passed = sys.argv[1:] == ["--report"] or build_and_run()
    text, troubles = report()
    print(text + "\n".join(troubles))
    if not passed:
        sys.exit("a suite failed, so the counts say little")
    if sys.argv[1:] == ["--update"]:
        with open(PAGE, encoding="utf-8") as file:
            page = file.read()
        with open(PAGE, "w", encoding="utf-8") as file:
            file.write(re.sub(f"{BEGIN}.*?{END}", lambda _: BEGIN + text + END, page, flags=re.S))
    sys.exit(1 if troubles else 0)


if __name__ == "__main__":
    main()
