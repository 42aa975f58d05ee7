#!/usr/bin/env python3
"""Measures what each part of the platform that is there for speed alone is worth: the program without it beside the
whole one. And, beside the floor program with its threads, the same floor with one thread and io_uring.

    sudo python3 benchmarks/ablation.py [--rounds N] [--build-only] [--update] [--mib N] [--work FOLDER]

Builds the program into build/benchmarks/ablation-NAME, once whole (ablation-nothing) and once without each part
(VORNIX_WITHOUT in CMakeLists.txt); --build-only ends there. Everything lies in memory, as in the bed `memory` of
benchmarks/run.py, whose head says what is cold and what is synced; verify and restore are warm, capture and clone cold.
Each round runs every contender of every job once, in an order that changes from round to round. A ratio is the median
of the ratios of the rounds. Takes three minutes when everything is built.

With --update the tables are written to benchmarks/ablation.md; what is said there below them stays. --mib is for trying
this program with a smaller disk, of 64 MiB at least.
"""

import argparse
import os
import statistics
import subprocess
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import run  # noqa: E402

BUILDS = os.path.join(run.ROOT, "build", "benchmarks")
RESULTS = os.path.join(run.HERE, "ablation.md")
# The names are those of VORNIX_WITHOUT; the list of a build is at most one of them.
PARTS = {
    "nothing": "the whole program",
    "overlap": "no thread beside the program's own: each transfer waits for its end",
    "exchange": "what was read ahead is copied",
    "large_pages": "memory in pages of 4 KiB",
    "algorithm_cache": "the library asked for its algorithm at each hash",
}
FLOORS = {
    "overlapped": "a thread that reads and one that writes",
    "uring": "io_uring",
    "uring-workers": "io_uring, with a thread of the kernel's for each transfer",
}


def program_without(part):
    return os.path.join(BUILDS, f"ablation-{part}", "vornix")


def build(part):
    folder = os.path.dirname(program_without(part))
    for command in (["-S", run.ROOT, "-B", folder, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=RelWithDebInfo",
                     "-DVORNIX_PROGRAM_ONLY=ON", f"-DVORNIX_WITHOUT={'' if part == 'nothing' else part}"],
                    ["--build", folder, "--target", "vornix"]):
        subprocess.run(["cmake", *command], check=True, stdout=sys.stderr)


def build_floor():
    run.run(["g++", "-O2", "-std=c++20", "-Wall", "-Wextra", "-Werror", "-o", run.FLOOR,
             os.path.join(run.HERE, "floor.cpp"), "-lcrypto"])


def refusal_of_uring(bed):
    """What the kernel says where it has no io_uring for us; else nothing."""
    floor = subprocess.run([run.FLOOR, "uring", "clone", bed.source_loop, bed.target_loop], capture_output=True,
                           text=True, check=False)
    if floor.returncode != 0 and not floor.stderr.startswith("io_uring"):
        raise RuntimeError(floor.stderr)
    return floor.stderr.strip()


def make_jobs(bed):
    """The programs' jobs, and those of the floors."""
    plain, written, largest = bed.path("plain.vrnx"), bed.path("x.vrnx"), bed.path("largest.vrnx")
    bed.vornix("capture", "--disk", bed.source_number, "--out", plain)
    run.image.write_sparse_image(largest, run.image.MAX_CHUNK_COUNT)
    source, target = str(bed.source_number), str(bed.target_number)
    cold, warm = (run.drop_caches,), (lambda: run.warm(plain),)
    nowhere = ["restore", "--in", largest, "--disk", "15000", "--confirm", "YES"]
    commands = {
        "capture": (["capture", "--disk", source, "--out", written], cold, written),
        "verify, warm": (["verify", "--in", plain], warm, None),
        "restore, warm": (["restore", "--in", plain, "--disk", target, "--confirm", "YES"], warm, None),
        "clone": (["clone", "--from", source, "--to", target, "--confirm", "YES"], cold, None),
        # A restore to a disk that is not there opens the image and ends.
        "open the largest table": (nowhere, (lambda: run.warm_head(largest),), None),
    }

    def contender(part, arguments, before, output):
        command = [program_without(part), *arguments]
        return run.Contender(part, " ".join(command) + "; test $? = 1" if arguments is nowhere else command, before,
                             output=output)

    programs = [run.Job(name, [contender(part, *command) for part in PARTS]) for name, command in commands.items()]
    ends = {"capture": (bed.source_loop, written, cold), "restore": (plain, bed.target_loop, warm),
            "clone": (bed.source_loop, bed.target_loop, cold)}
    floors = [run.Job(name, [run.Contender(way, [run.FLOOR, way, name, start, end], before,
                                           output=end if end == written else None) for way in FLOORS])
              for name, (start, end, before) in ends.items()]
    return programs, floors


def table_of(jobs, heading, meanings):
    """A row a contender, beside the first one of its job."""
    lines = [f"| Job | {heading} | Seconds (least to most) | CPU s, user + system | Peak MiB | Ratio |",
             "|---|---|---:|---:|---:|---:|"]
    for job in jobs:
        whole = job.contenders[0]
        for contender in job.contenders:
            ratio = statistics.median(a / b for a, b in zip(contender.seconds, whole.seconds))
            lines.append(f"| {job.name} | {meanings(contender.name)} | {statistics.median(contender.seconds):.3f} "
                         f"({min(contender.seconds):.3f} to {max(contender.seconds):.3f}) | "
                         f"{statistics.median(contender.user):.2f} + {statistics.median(contender.system):.2f} | "
                         f"{max(contender.peak):.0f} | {'' if contender is whole else f'{ratio:.2f}'} |")
    return lines


def page_of(programs, floors, refusal, arguments):
    """The text of the page, with nothing below the tables."""
    lines = ["# What each part is worth", "",
             f"Medians of {arguments.rounds} interleaved rounds with a disk of {arguments.mib} MiB in memory, by "
             f"`benchmarks/ablation.py`, at whose head stands what is measured, on {run.describe_machine()}, "
             f"{time.strftime('%Y-%m-%d')}. A ratio is that to the first row of the same job.", "",
             *(f"- `{part}`: {meaning}" for part, meaning in PARTS.items() if part != "nothing"), "",
             *table_of(programs, "Without", lambda part: part if part == "nothing" else f"`{part}`"), ""]
    if refusal:
        return lines + [f"The floor with io_uring was not measured: the kernel said \"{refusal}\"."]
    return lines + ["The floor program (`benchmarks/floor.cpp`) with the same blocks, with threads that transfer and "
                    "with one thread that leaves transfers to the kernel:", "",
                    *table_of(floors, "Transfers by", FLOORS.get)]


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--build-only", action="store_true")
    parser.add_argument("--update", action="store_true")
    parser.add_argument("--mib", type=int, default=1024)
    parser.add_argument("--work", default=os.path.join(BUILDS, "work"))
    arguments = parser.parse_args()
    if arguments.update and arguments.mib != 1024:
        parser.error("the page is of a disk of 1 GiB")
    run.enter_namespace()
    os.makedirs(BUILDS, exist_ok=True)
    for part in PARTS:
        build(part)
    build_floor()
    if arguments.build_only:
        return 0
    run.GIB, run.VORNIX = arguments.mib << 20, program_without("nothing")
    bed = run.Bed(arguments.work, "memory", 1)
    try:
        programs, floors = make_jobs(bed)
        refusal = refusal_of_uring(bed)
        run.measure(programs + ([] if refusal else floors), arguments.rounds, True)
        text = "\n".join(page_of(programs, floors, refusal, arguments)) + "\n"
    finally:
        bed.close()
    print(text, end="")
    if arguments.update:
        said = ""
        if os.path.exists(RESULTS):
            with open(RESULTS, encoding="utf-8") as file:
                said = "".join(file.read().partition("\n## ")[1:])
        with open(RESULTS, "w", encoding="utf-8") as file:
            file.write(text + said)
    return 0


if __name__ == "__main__":
    sys.exit(main())
