"""Breaks the program in one small place at a time and looks whether a test notices.

    tests/run tests/mutation/mutate.py --sample 40 --seed 1         forty mutants of src/, drawn by a seed
    tests/run tests/mutation/mutate.py --file src/image/paths.cpp   every mutant of a file
    tests/run tests/mutation/mutate.py --list                       what there is to draw from
    tests/run tests/mutation/mutate.py --check                      the record alone: no survivor without a reason, no
                                                                    reason that nothing needs

A mutant is one change of one line: a condition negated, a comparison shifted, && for ||, plus for minus, a constant one
higher, true for false, a call left out. It is made in a copy of the sources in build/mutation, built there without
optimisation, and put before the suites that concern its file, the fastest first; the first that fails kills it. One
that does not compile, or makes the same object code, is none. What was tried is kept in record.txt beside this file,
by the text of its line and not by its number, and survivors.txt has the reason of each that lived: what a test cannot
see. A mutant that lives without a reason is a test that is missing; then the exit status is 1.
"""

import argparse
import hashlib
import os
import random
import re
import shutil
import subprocess
import sys

from cpp_text import without_comments_and_strings

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))
WORK = os.path.join(ROOT, "build", "mutation")
TREE, BUILD = os.path.join(WORK, "tree"), os.path.join(WORK, "build")
RECORD, REASONS = os.path.join(HERE, "record.txt"), os.path.join(HERE, "survivors.txt")
UNIT = "vornix-unit-tests"
SECONDS = 900  # for one suite on a busy machine; a mutant that goes round in circles is killed by this

# Behind the unit tests, the suites of each folder or file, the ones that end soonest first; the longest match counts.
SUITES = {
    "src/": ["capture", "restore", "verify", "clone", "thin_chains", "consolidate"],
    "src/cli/": ["command_line", "meter", "verify", "restore", "clone", "capture"],
    "src/commands/capture.cpp": ["capture", "tracker", "snapshot_reads", "incremental_capture", "sealed_images"],
    "src/commands/clone.cpp": ["clone"],
    "src/commands/consolidate.cpp": ["consolidate"],
    "src/commands/incremental_capture.cpp": ["incremental_capture"],
    "src/commands/restore.cpp": ["restore", "sealed_images"],
    "src/commands/verify.cpp": ["verify", "sealed_images", "thin_chains"],
    "src/crypto/": ["password_file", "sealed_images", "verify"],
    "src/disk/": ["disks", "clone", "restore", "capture", "described_machine"],
    "src/image/": ["chunk_retrieval", "thin_chains", "verify", "image_open", "consolidate", "sealed_images", "restore"],
    "src/snapshot/": ["volume_extents", "snapshot_reads", "snapshot_session"],
    "src/tracker/": ["tracker", "incremental_capture"],
}

SHIFTED = {"<": "<=", "<=": "<", ">": ">=", ">=": ">"}
OPERATORS = [
    ("negate", re.compile(r"\bif \((?=.*\) \{$)"), lambda m: "if (!("),
    ("boundary", re.compile(r" (<=|>=|<|>) "), lambda m: f' {SHIFTED[m.group(1)]} '),
    ("equality", re.compile(r" (==|!=) "), lambda m: " != " if m.group(1) == "==" else " == "),
    ("logic", re.compile(r" (&&|\|\|) "), lambda m: " || " if m.group(1) == "&&" else " && "),
    ("arithmetic", re.compile(r" ([+-]) "), lambda m: " - " if m.group(1) == "+" else " + "),
    ("constant", re.compile(r"(?<![\w.])(\d+)(?![\w.])"), lambda m: str(int(m.group(1)) + 1)),
    ("truth", re.compile(r"\b(true|false)\b"), lambda m: "false" if m.group(1) == "true" else "true"),
    ("drop", re.compile(r"^ +(?!return\b|else\b)[\w:.>\-\[\]*]+\(.*\);$"), lambda m: ";"),
]


def mutants_of(path):
    """The mutants of a file as (name, text of the file). A name holds the line's text, so that it outlives an edit
    above it."""
    with open(os.path.join(ROOT, path), encoding="utf-8") as file:
        text = file.read()
    lines, code = text.split("\n"), without_comments_and_strings(text).split("\n")
    seen = {}
    for at, (line, bare) in enumerate(zip(lines, code)):
        if bare.startswith("#") or not bare.startswith(" ") or "static_assert" in bare:
            continue
        for operator, pattern, change in OPERATORS:
            for place, match in enumerate(pattern.finditer(bare.rstrip())):
                changed = line[:match.start()] + change(match) + line[match.end():]
                if operator == "negate":
                    changed = re.sub(r"\) \{$", ")) {", changed)
                name = f"{path} | {line.strip()} | {operator} {place + 1}"
                seen[name] = seen.get(name, 0) + 1
                if seen[name] > 1:
                    name += f" of line {seen[name]}"
                yield name, "\n".join(lines[:at] + [changed] + lines[at + 1:])


def files_in(scope):
    names = subprocess.run(["git", "ls-files", scope], cwd=ROOT, capture_output=True, text=True, check=True).stdout
    return [name for name in names.split() if name.endswith(".cpp")]


def suites_for(path):
    fitting = max((place for place in SUITES if path.startswith(place)), key=len)
    return [f"tests/scenarios/test_{name}.py" for name in SUITES[fitting]]


def quiet(*command, **options):
    return subprocess.run(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=False, **options)


def build():
    """Whether the copy builds."""
    return quiet("cmake", "--build", BUILD, "--target", "vornix", "vornix-bench", UNIT).returncode == 0


def prepare():
    """A copy of the sources that git knows, as they stand, and its build."""
    names = subprocess.run(["git", "ls-files", "-z"], cwd=ROOT, capture_output=True, check=True).stdout.split(b"\0")
    for name in map(os.fsdecode, filter(None, names)):
        source, copy = os.path.join(ROOT, name), os.path.join(TREE, name)
        if not os.path.isfile(source):
            continue
        with open(source, "rb") as file:
            content = file.read()
        if os.path.exists(copy) and open(copy, "rb").read() == content:
            continue
        os.makedirs(os.path.dirname(copy), exist_ok=True)
        shutil.copy(source, copy)
    subprocess.run(["cmake", "-S", TREE, "-B", BUILD, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Debug"],
                   stdout=subprocess.DEVNULL, check=True)
    if not build():
        sys.exit("the sources do not build without a mutant either")


def object_of(path):
    for folder, _, names in os.walk(BUILD):
        if path.endswith(".cpp") and os.path.basename(path) + ".o" in names and folder.endswith(os.path.dirname(path)):
            return os.path.join(folder, os.path.basename(path) + ".o")
    return None


def code_of(path):
    """What the file compiles to, without the lines that it came from."""
    code = subprocess.run(["objdump", "-dr", "--no-show-raw-insn", object_of(path)], capture_output=True, check=True)
    return hashlib.sha256(code.stdout).hexdigest()


def first_killer(path):
    """The test that notices, or None."""
    environment = {**os.environ, "VORNIX_BUILD": BUILD, "VORNIX": os.path.join(BUILD, "vornix"),
                   "VORNIX_BENCH": os.path.join(BUILD, "vornix-bench")}
    commands = [(UNIT, [os.path.join(BUILD, "tests", UNIT), "--gtest_brief=1"])]
    commands += [(os.path.basename(suite), ["tests/run", suite]) for suite in suites_for(path)]
    for name, command in commands:
        try:
            if quiet(*command, cwd=TREE, env=environment, timeout=SECONDS).returncode != 0:
                return name
        except subprocess.TimeoutExpired:
            return name + ", which did not end"
    return None


def try_mutant(name, text):
    """What became of a mutant: the test that killed it, "lived", or None where it is none."""
    path = name.split(" | ")[0]
    copy = os.path.join(TREE, path)
    before = code_of(path)
    with open(copy, "w", encoding="utf-8") as file:
        file.write(text)
    try:
        if not build() or code_of(path) == before:
            return None
        return first_killer(path) or "lived"
    finally:
        shutil.copyfile(os.path.join(ROOT, path), copy)
        build()


def read_record():
    """What became of the mutants that were tried, without those whose line is gone."""
    with open(RECORD, encoding="utf-8") as file:
        record = dict(line.strip().split(" :: ")[::-1] for line in file if not line.startswith("#"))
    known = {name for path in files_in("src/") + files_in("platform/linux/") for name, _ in mutants_of(path)}
    return {name: end for name, end in record.items() if name in known}


def read_reasons():
    """Lines of `name :: reason`."""
    reasons = {}
    with open(REASONS, encoding="utf-8") as file:
        for line in filter(str.strip, file):
            if not line.startswith("#"):
                name, _, reason = line.strip().partition(" :: ")
                reasons[name] = reason
    return reasons


def judge(record):
    """The problems of the record: survivors without a reason, and reasons without a survivor."""
    reasons = read_reasons()
    lived = {name for name, end in record.items() if end == "lived"}
    explained = {name for name, reason in reasons.items() if reason}
    problems = [f"lived, and no reason is given: {name}" for name in sorted(lived - explained)]
    problems += [f"has a reason and is no survivor: {name}" for name in sorted(set(reasons) - lived)]
    return problems


def main():
    parser = argparse.ArgumentParser(description="Mutates the program and runs its tests.")
    parser.add_argument("--file", action="append", help="a file or folder of the program; src/ when absent")
    parser.add_argument("--sample", type=int, help="how many mutants to draw; all when absent")
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--list", action="store_true", help="name the mutants and do nothing")
    parser.add_argument("--check", action="store_true", help="judge the record and do nothing else")
    arguments = parser.parse_args()
    record = read_record()
    if not arguments.check:
        paths = [path for scope in arguments.file or ["src/"] for path in files_in(scope)]
        mutants = [mutant for path in paths for mutant in mutants_of(path)]
        if arguments.sample is not None:
            mutants = random.Random(arguments.seed).sample(mutants, min(arguments.sample, len(mutants)))
        if arguments.list:
            print("\n".join(name for name, _ in mutants))
            sys.exit(0)
        prepare()
        for name, text in mutants:
            end = try_mutant(name, text)
            print(f"{end or 'none'}: {name}", flush=True)
            if end is not None:
                record[name] = end
                with open(RECORD, "w", encoding="utf-8") as file:
                    file.write("# What became of each mutant that was tried: `end :: name`, one a line.\n")
                    file.writelines(f"{end} :: {name}\n" for name, end in sorted(record.items()))
    problems = judge(record)
    for problem in problems:
        print(problem)
    lived = sum(end == "lived" for end in record.values())
    print(f"{len(record)} mutants tried, {len(record) - lived} killed, {lived} lived")
    sys.exit(1 if problems else 0)


if __name__ == "__main__":
    main()
