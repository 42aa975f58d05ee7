#!/usr/bin/env python3
"""Counts where the instructions of a capture go: those of the program and of the platform against all of them.

    sudo python3 benchmarks/instructions.py [--gib N] [--work FOLDER]

Runs `vornix capture` of a disk of N GiB (1 unless said otherwise) under callgrind, which counts instructions and not
seconds, so that nothing else on the machine shows. Hashing and sealing are what is executed in libcrypto, copying is
what is executed in the C library's memory functions; the kernel's instructions are not counted by callgrind at all.
callgrind knows fewer of a processor's instructions than the processor: the hash runs on the vector form instead of the
one made for it, which takes more of them. The share is therefore given twice, of what was counted and of what the hash
would have been at 2 instructions a byte. Takes some minutes. Needs root, a loop device and the build of the preset
`linux`.
"""

import argparse
import os
import re
import subprocess
import sys
import tempfile
from collections import Counter

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import run  # noqa: E402

HARDWARE_HASH = 2  # instructions a byte, rounded down: what the SHA extensions take


def count(profile):
    """Instructions by object and function, of callgrind's own totals for each function."""
    names, current, totals = {}, {"ob": "", "fn": ""}, Counter()

    def name_of(kind, text):
        key, _, name = text.partition(" ")
        if name:
            names[kind, key] = name
        return names.get((kind, key), key)

    called = False
    with open(profile, encoding="utf-8", errors="replace") as file:
        for line in file:
            line = line.rstrip("\n")
            if match := re.match(r"(ob|fn|cob|cfn)=(.*)", line):
                kind = match[1].removeprefix("c")
                name = name_of(kind, match[2])
                if match[1] in current:
                    current[match[1]] = name
            elif line.startswith("calls="):
                called = True
            elif match := re.match(r"[+*-]?\d* (\d+)$", line):
                # The line behind a call has what the callee took, which stands with the callee as well.
                if not called:
                    totals[os.path.basename(current["ob"]), current["fn"]] += int(match[1])
                called = False
    return totals


def kind_of(object_name, function):
    if object_name.startswith("libcrypto"):
        return "hashing"
    if object_name.startswith("libc.so") and re.search(r"mem(cpy|move|set|cmp)", function):
        return "copying"
    if object_name == "vornix":
        return "src/ and platform/"
    return "C and C++ library, loader"


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--gib", type=int, default=1)
    parser.add_argument("--work", default=os.path.join(run.ROOT, "build", "benchmarks"))
    arguments = parser.parse_args()
    run.enter_namespace()
    os.makedirs(arguments.work, exist_ok=True)
    with tempfile.TemporaryDirectory(dir=arguments.work) as folder:
        bed = run.Bed(folder, "disk", arguments.gib)
        try:
            profile = os.path.join(folder, "profile")
            subprocess.run(["valgrind", "--tool=callgrind", f"--callgrind-out-file={profile}", run.VORNIX, "capture",
                            "--disk", str(bed.source_number), "--out", bed.path("x.vrnx")], check=True,
                           stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            totals = count(profile)
        finally:
            bed.close()
    kinds = Counter()
    for (object_name, function), instructions in totals.items():
        kinds[kind_of(object_name, function)] += instructions
    everything = sum(kinds.values())
    for kind, instructions in kinds.most_common():
        print(f"{kind:26} {instructions:16,}  {100 * instructions / everything:8.4f} %")
    print(f"{'all':26} {everything:16,}")
    ours = kinds["src/ and platform/"]
    with_hardware = everything - kinds["hashing"] + HARDWARE_HASH * arguments.gib * run.GIB
    print(f"src/ and platform/ are {100 * ours / everything:.4f} % of all instructions, and would be "
          f"{100 * ours / with_hardware:.4f} % beside a hash in hardware")
    print("the most of them:")
    for (object_name, function), instructions in totals.most_common():
        if kind_of(object_name, function) == "src/ and platform/":
            print(f"  {instructions:12,}  {function[:100]}")
            if instructions < ours / 50:
                break


if __name__ == "__main__":
    main()
