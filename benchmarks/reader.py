#!/usr/bin/env python3
"""Measures what reads images without the program beside the program itself, in one interleaved run.

    tests/run benchmarks/reader.py [--rounds N] [--gib N] [--work FOLDER] [--update]

The images lie in memory, the disk is half random data, a quarter zeros and a quarter text, and everything is warm. Each
round runs every contender once, in an order that changes from round to round. A ratio is the median of the ratios of
the rounds; the bound beside it is what it has to stay below on a machine with two processors that does nothing else.
Beside the time on the clock stands that of the processors, which other work on the machine disturbs less.

The floor of nbdcopy is the same server and client with benchmarks/nbdkit_floor.c, which reads and hashes what the
plugin does and decides nothing. Both are served twice: with the threads that nbdkit has by itself, 16 for each
connection, and with four, as each thread takes its own buffer of a request's size. In the largest table every hash is
another one.

With --update the tables are written to benchmarks/reader.md; what is said there below them stays.
"""

import argparse
import hashlib
import os
import random
import resource
import statistics
import struct
import subprocess
import sys
import tempfile
import time

import image

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
BUILD = os.path.join(ROOT, "build", "linux")
VORNIX, VRNX, PLUGIN = (os.path.join(BUILD, name) for name in ("vornix", "vrnx", "nbdkit-vrnx-plugin.so"))
RESULTS = os.path.join(ROOT, "benchmarks", "reader.md")
CHUNK = 4194304
PASSWORD = b"correct horse"
SMALL_READS = 20000

# Reads and hashes header and table: the floor of `vrnx info`.
FLOOR_OF_INFO = """
import hashlib, sys
with open(sys.argv[1], "rb", buffering=0) as file:
    digest, left = hashlib.sha256(), 64 + 72 * 3728270
    while left:
        block = file.read(min(left, 1 << 20))
        digest.update(block)
        left -= len(block)
print(digest.hexdigest())
"""


def make_disk(gib):
    """Chunks of a disk, half random, a quarter zeros, a quarter text."""
    chance = random.Random("reader")
    text = (b"the quick brown fox jumps over the lazy dog, again and again\n" * (CHUNK // 61 + 1))[:CHUNK]
    for number in range(gib << 30 >> 22):
        kind = number % 4
        yield chance.randbytes(CHUNK) if kind < 2 else bytes(CHUNK) if kind == 2 else \
            struct.pack("<Q", number) + text[8:]


def write_image(path, gib, password=None):
    """Written chunk by chunk: the builder of the tests holds a whole disk."""
    count = gib << 30 >> 22
    header = image.Header(gib << 30, CHUNK, count)
    key = None
    if password:
        header.encrypted, header.kdf_iterations, header.salt = 1, 200000, hashlib.sha256(b"salt").digest()[:16]
        key = image.derive_key(password, header.salt, header.kdf_iterations)
    records = []
    with open(path, "wb") as file:
        file.seek(64 + 72 * count)
        for number, chunk in enumerate(make_disk(gib)):
            record = image.Record(number * CHUNK, len(chunk), hashlib.sha256(chunk).digest())
            if key:
                record.nonce = hashlib.sha256(b"%d" % number).digest()[:12]
                chunk, record.tag = image.seal(key, record.nonce, chunk)
            file.write(chunk)
            records.append(record)
        file.seek(0)
        file.write(header.pack() + b"".join(record.pack() for record in records))


def write_largest_table(path):
    """Header and table of as many chunks as an image can have, no two hashes the same; a hole for the data."""
    count, chunk = image.MAX_CHUNK_COUNT, 512
    chance = random.Random("largest")
    with open(path, "wb") as file:
        file.write(image.Header(count * chunk, chunk, count).pack())
        for first in range(0, count, 65536):
            numbers = range(first, min(first + 65536, count))
            hashes = chance.randbytes(32 * len(numbers))
            rest = bytes(12 + 16)
            file.write(b"".join(struct.pack("<QI", number * chunk, chunk) + hashes[32 * at:32 * at + 32] + rest
                                for at, number in enumerate(numbers)))
        file.truncate(64 + (72 + chunk) * count)


def build_floor(folder):
    """The plugin that is the floor."""
    path = os.path.join(folder, "nbdkit_floor.so")
    source = os.path.join(ROOT, "benchmarks", "nbdkit_floor.c")
    subprocess.run(["cc", "-O2", "-shared", "-fPIC", "-o", path, source, "-lcrypto"], check=True)


def measure(command, cwd):
    """Seconds on the clock and of the processors."""
    before = resource.getrusage(resource.RUSAGE_CHILDREN)
    start = time.monotonic()
    subprocess.run(command, cwd=cwd, check=True, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
    wall = time.monotonic() - start
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    return wall, after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime


def served(plugin, client, *options):
    """A server of its own for one client, as one command."""
    return ["nbdkit", "-U", "-", *options, *plugin, "--run", client]


def small_reads():
    """A client that reads 4 KiB at a time out of one chunk."""
    return " ".join(["qemu-io -r -f raw \"$uri\" -c 'read 0 4k' > /dev/null &&",
                     "qemu-img bench -f raw -t none -q -c", str(SMALL_READS), "-d 1 -s 4096 -S 0 \"$uri\""])


def contenders(gib):
    key = ["--password-file", "password"]
    image_of_chunk = ["memory", "size=4M"]
    two = 'nbdcopy --connections=2 "$uri" null:'
    floor = ["./nbdkit_floor.so", "file=plain", f"data={64 + 72 * (gib << 30 >> 22)}", f"chunk={CHUNK}"]
    return {
        "verify plain": [VORNIX, "verify", "--in", "plain"],
        "verify sealed": [VORNIX, "verify", "--in", "sealed", *key],
        "check plain, 1 job": [VRNX, "check", "plain", "--jobs", "1"],
        "check plain, 2 jobs": [VRNX, "check", "plain", "--jobs", "2"],
        "check sealed, 1 job": [VRNX, "check", "sealed", *key, "--jobs", "1"],
        "check sealed, 2 jobs": [VRNX, "check", "sealed", *key, "--jobs", "2"],
        "nbdcopy, 1 connection": served([PLUGIN, "plain"], 'nbdcopy --connections=1 "$uri" null:'),
        "nbdcopy, 2 connections": served([PLUGIN, "plain"], two),
        "its floor": served(floor, two),
        "nbdcopy, 2 connections, 4 threads": served([PLUGIN, "plain"], two, "-t", "4"),
        "its floor, 4 threads": served(floor, two, "-t", "4"),
        "small reads": served([PLUGIN, "one"], small_reads()),
        "small reads of nbdkit's memory": served(image_of_chunk, small_reads()),
        "info": [VRNX, "info", "largest"],
        "reading and hashing the table": [sys.executable, "-c", FLOOR_OF_INFO, "largest"],
    }


BOUNDS = (("check plain, 2 jobs", "verify plain", 0.60), ("check plain, 1 job", "verify plain", 1.05),
          ("check sealed, 2 jobs", "verify sealed", 0.60), ("check sealed, 1 job", "verify sealed", 1.05),
          ("nbdcopy, 1 connection", "verify plain", 1.25), ("nbdcopy, 2 connections", "verify plain", 0.75),
          ("its floor", "verify plain", None), ("nbdcopy, 2 connections, 4 threads", "verify plain", 0.75),
          ("its floor, 4 threads", "verify plain", None), ("small reads", "small reads of nbdkit's memory", 1.5),
          ("info", "reading and hashing the table", 1.3))


def peak_of_check(jobs, folder):
    """The largest resident set of a check, in chunks."""
    command = ["/usr/bin/time", "-f", "%M", VRNX, "check", "plain", "--jobs", str(jobs)]
    done = subprocess.run(command, cwd=folder, check=True, capture_output=True, text=True)
    return int(done.stderr.splitlines()[-1]) * 1024 / CHUNK


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--gib", type=int, default=1)
    parser.add_argument("--work", default="/dev/shm")
    parser.add_argument("--update", action="store_true")
    arguments = parser.parse_args()
    times = {}
    with tempfile.TemporaryDirectory(dir=arguments.work, prefix="vornix-reader-") as folder:
        write_image(os.path.join(folder, "plain"), arguments.gib)
        write_image(os.path.join(folder, "sealed"), arguments.gib, PASSWORD)
        image.build_image(os.path.join(folder, "one"), random.Random("one").randbytes(CHUNK), chunk_size=CHUNK)
        write_largest_table(os.path.join(folder, "largest"))
        build_floor(folder)
        with open(os.path.join(folder, "password"), "wb") as file:
            file.write(PASSWORD + b"\n")
        commands = list(contenders(arguments.gib).items())
        for _ in range(arguments.rounds):
            for name, command in commands:
                times.setdefault(name, []).append(measure(command, folder))
            commands = commands[1:] + commands[:1]
        peaks = {jobs: peak_of_check(jobs, folder) for jobs in (1, 2)}
    lines = ["# Reading images without the program", "",
             f"Medians of {arguments.rounds} interleaved rounds, {arguments.gib} GiB, by `benchmarks/reader.py`, at "
             "whose head stands what is measured.",
             "", "| Contender | Seconds | Processor seconds |", "|---|---:|---:|"]
    for name in contenders(arguments.gib):
        wall, cpu = (statistics.median(column) for column in zip(*times[name]))
        lines.append(f"| {name} | {wall:.2f} | {cpu:.2f} |")
    lines += ["", "| | Beside | Ratio | Ratio of processor seconds | Bound |", "|---|---|---:|---:|---|"]
    for name, beside, bound in BOUNDS:
        pairs = list(zip(times[name], times[beside]))
        ratios = [statistics.median(one[i] / other[i] for one, other in pairs) for i in (0, 1)]
        verdict = "" if bound is None else f"{bound:.2f}" + (", kept" if ratios[0] <= bound else ", **missed**")
        lines.append(f"| {name} | {beside} | {ratios[0]:.2f} | {ratios[1]:.2f} | {verdict} |")
    lines += ["", "Largest resident set of a check, in chunks of 4 MiB: "
              + ", ".join(f"{peak:.1f} with {jobs} job{'s' if jobs > 1 else ''}" for jobs, peak in peaks.items()) + "."]
    text = "\n".join(lines) + "\n"
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
