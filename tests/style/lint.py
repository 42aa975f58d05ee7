#!/usr/bin/env python3
"""Holds the C++ sources against the linter.

    lint.py FOLDER [--each] [--jobs N]

FOLDER has the compile commands of the presets fuzz and linux in folders of these names, one command for each source.

clang-tidy spends nine tenths of its time on headers of the system. So the sources of one room (src/, platform/,
bench/, reader/, tests/), which include much the same, are given to it as one source that includes them all; its name
makes the analyzer take them for sources and not for headers, and it follows calls not far, which takes half as long.
--each, of `./check --long`, has it follow them as far as it does by itself, in one source and in the room, and gives it
every source by itself for the few judgements that need it: whether something in a source is used by nobody, and whether
memory is lost, of which the analyzer is wrong where it follows an object from one source into the next. Where something
is wrong with those of a room, or two of them cannot stand in one source, they are looked at one by one, and that
counts.

What was found clean is not looked at again as long as it, its headers, the rules and the linter are the same.

Over what both compilers build here; what only the Windows compiler builds has no clang to look at it. Of the tests,
what is no fuzz target is built by gcc alone, some of whose warnings clang does not know; the test cases themselves,
which would take longer than all of the rest for the headers of their library, are left out.
"""

import argparse
import collections
import concurrent.futures
import hashlib
import json
import os
import re
import shlex
import shutil
import subprocess
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
LEFT_OUT = re.compile(r"_test\.cpp$|/gtest_main\.cpp$|/(host|port)_windows\.cpp$")
# How many sources of a room are looked at in one go, where not all: the analyzer follows calls from one source into the
# next, of which the described machine has so many that all of it in one takes twice as long as in pieces.
AT_MOST = {"bench": 5}
SHALLOW = ["-Xclang", "-analyzer-config", "-Xclang", "mode=shallow"]
# Functions of which each program has one.
ENTRY = re.compile(r'^(?:extern "C" )?int (main|LLVMFuzzerTestOneInput)\(', re.M)


def commands(folder):
    """Of each source its compiler's options: those that name a folder or a macro, and the rest."""
    found = {}
    for preset in ("fuzz", "linux"):
        with open(os.path.join(folder, preset, "compile_commands.json"), encoding="utf-8") as file:
            entries = json.load(file)
        for entry in entries:
            words = iter(shlex.split(entry["command"])[1:])
            seen, rest = [], []
            for word in words:
                if word in ("-c", "-o"):
                    next(words)
                elif word == "-isystem":
                    seen.append((word, next(words)))
                else:
                    (seen if word.startswith(("-I", "-D")) else rest).append((word,))
            source = os.path.relpath(entry["file"], ROOT)
            if source.endswith(".cpp") and not source.startswith("..") and not LEFT_OUT.search(source):
                found.setdefault(source, (seen, rest))
    return found


# Folders in which something has the name of something in another folder of their room.
APART = re.compile(r"^(tests/unit/observed|tests/reader|reader/\w+)$")


def room(source, seen):
    """What is looked at in one go: a room of the source tree, and apart what sees the declarations of Windows."""
    folder = os.path.dirname(source)
    name = folder if APART.search(folder) else folder.partition("/")[0]
    return name, any(option[0] == "-isystem" for option in seen)


def in_one(sources):
    """The text of a source that includes the given ones."""
    lines = ["// NOLINTBEGIN(bugprone-suspicious-include)"]
    for number, source in enumerate(sources):
        path = os.path.join(ROOT, source)
        with open(path, encoding="utf-8") as file:
            entries = ENTRY.findall(file.read())
        lines += [f"#define {entry} EntryPoint{number}" for entry in entries]
        lines.append(f'#include "{path}"')
        lines += [f"#undef {entry}" for entry in entries]
    return "\n".join([*lines, "// NOLINTEND(bugprone-suspicious-include)", ""])


def digest_of(source, options, folder):
    """What a verdict on a source depends on, as one number; None where it does not compile."""
    listed = subprocess.run(["clang++", *options, "-M", source], capture_output=True, text=True, check=False,
                            cwd=folder)
    if listed.returncode != 0:
        return None
    digest = hashlib.sha256(repr(options).encode() + subprocess.check_output(["clang-tidy", "--version"]))
    rules = [os.path.join(ROOT, ".clang-tidy"), os.path.join(ROOT, "tests", ".clang-tidy"), os.path.abspath(__file__)]
    for path in [*rules, *shlex.split(listed.stdout.split(":", 1)[1].replace("\\\n", " "))]:
        with open(os.path.join(folder, path), "rb") as file:
            digest.update(hashlib.sha256(file.read()).digest())
    return digest.hexdigest()


def look(name, source, options, folder, more=()):
    """What the linter has against a source, as a text; None where nothing."""
    digest = digest_of(source, options, folder)
    mark = os.path.join(folder, "clean", str(digest))
    if digest is not None and os.path.exists(mark):
        print(f"{name}: as before", flush=True)
        return None
    done = subprocess.run(["clang-tidy", "--quiet", *more, source, "--", *options], capture_output=True, text=True,
                          check=False, cwd=folder)
    if done.returncode != 0:
        return done.stdout + done.stderr
    print(f"{name}: clean", flush=True)
    if digest is not None:
        with open(mark, "w", encoding="utf-8") as file:
            file.write(f"{name}\n")
    return None


class Room:
    """Sources that are looked at in one go."""

    def __init__(self, name, sources, found, folder, deep):
        self.name, self.sources, self.found, self.folder, self.deep = name, sources, found, folder, deep
        self.size = sum(os.path.getsize(os.path.join(ROOT, source)) for source in sources)

    def options(self, sources):
        seen = dict.fromkeys(option for source in sources for option in self.found[source][0])
        return [*(word for option in [*seen, *self.found[sources[0]][1]] for word in option),
                "-Wno-unknown-warning-option", *([] if self.deep else SHALLOW)]

    def look_at_all(self):
        """The texts on what is wrong."""
        # In a folder of its own, with the rules of the sources.
        tests = self.name.startswith("tests")
        place = os.path.join(self.folder, "together", os.path.splitext(self.sources[0].replace("/", "-"))[0])
        shutil.rmtree(place, ignore_errors=True)
        os.makedirs(place)
        shutil.copy(os.path.join(ROOT, "tests" if tests else "", ".clang-tidy"), place)
        source = os.path.join(place, "UnifiedSource.cpp")
        with open(source, "w", encoding="utf-8") as file:
            file.write(in_one(self.sources))
        more = ["--checks=-clang-analyzer-cplusplus.NewDeleteLeaks"]
        if tests:
            more.append(r"--header-filter=/(src|platform/linux|platform/windows|bench|reader)/.*\.h$|/tests/.*\.cpp$")
        title = f"{self.name}, {len(self.sources)} sources"
        trouble = look(title, source, self.options(self.sources), self.folder, more)
        if trouble is None:
            return []
        print(f"{self.name}: one by one, since together there is this\n{trouble}", flush=True)
        return self.look_at_each()

    def look_at_each(self):
        troubles = [look(source, os.path.join(ROOT, source), self.options([source]), self.folder)
                    for source in self.sources]
        return [trouble for trouble in troubles if trouble is not None]


def main():
    parser = argparse.ArgumentParser(description="Holds the C++ sources against the linter.")
    parser.add_argument("folder", help="where the compile commands are; what was found clean is noted there")
    parser.add_argument("--each", action="store_true", help="every source by itself")
    parser.add_argument("--jobs", type=int, default=os.cpu_count(), help="how many at a time")
    arguments = parser.parse_args()
    folder = os.path.abspath(arguments.folder)
    os.makedirs(os.path.join(folder, "clean"), exist_ok=True)
    found = commands(folder)
    in_rooms = collections.defaultdict(list)
    for source in sorted(found):
        name, declarations = room(source, found[source][0])
        in_rooms[(name, declarations)].append(source)
    rooms = []
    for key, sources in in_rooms.items():
        count = AT_MOST.get(key[0], len(sources))
        rooms += [Room(key[0], sources[i:i + count], found, folder, arguments.each)
                  for i in range(0, len(sources), count)]
    rooms.sort(key=lambda one: -one.size)  # the longest first, so that none is left alone at the end
    with concurrent.futures.ThreadPoolExecutor(arguments.jobs) as pool:
        looks = [Room.look_at_all, Room.look_at_each] if arguments.each else [Room.look_at_all]
        troubles = [trouble for work in looks for texts in pool.map(work, rooms) for trouble in texts]
    print("\n".join(troubles))
    print(f"{len(found)} sources, in {len(rooms)} looks: {len(troubles)} with something wrong")
    sys.exit(0 if found and not troubles else 1)


if __name__ == "__main__":
    main()
