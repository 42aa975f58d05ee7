"""The largest disk that has an image: a tracked thin capture of it, over a base of its size, with one chunk changed;
its table opened in the memory that docs/performance.md promises, and in less; a chain of 65 such tables.

The disk and the base are holes in files, so that nothing but the tables is large. It needs no computer: what is tried
is what the program does with 3,728,270 chunks, on a described machine.
"""

import hashlib
import json
import os
import resource
import shutil
import struct
import subprocess
import sys
import tempfile
import time

import computer_suite
import image
import suite
from image import MAX_CHAIN, MAX_CHUNK_COUNT
from incremental import MIB4, marked
from machine import SETTINGS

MIB = 1048576
SIZE = MAX_CHUNK_COUNT * MIB4
TABLE = 64 + 72 * MAX_CHUNK_COUNT
OPENED = 80 * MAX_CHUNK_COUNT  # of an image that is open: its table, and where each chunk lies
CHANGED = 1234567
# The tables of the base and of the new image, the copy that the digest is taken over, and what the description of the
# machine with its bitmap takes; 32 bytes more a chunk are not meant to pass.
MEMORY = 1050 * MIB
# What a run takes beside its buffers and tables; the code with its libraries is in it.
BESIDE = 16 * MIB


def measured(command, folder, limit=None):
    """Runs a command, which may have no more writable memory than `limit`: status, standard error, peak of its memory
    in bytes, seconds."""
    def prepare():
        if limit is not None:
            resource.setrlimit(resource.RLIMIT_DATA, (limit, limit))
        resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
        with open("/proc/self/oom_score_adj", "w", encoding="ascii") as file:
            file.write("1000")  # should the memory not suffice after all, nobody else has to die for it
    with tempfile.TemporaryFile() as errors:
        began = time.monotonic()
        # pylint: disable-next=consider-using-with,subprocess-popen-preexec-fn
        process = subprocess.Popen(command, cwd=folder, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                   stderr=errors, preexec_fn=prepare)
        _, status, usage = os.wait4(process.pid, 0)
        process.returncode = os.waitstatus_to_exitcode(status)
        errors.seek(0)
        return process.returncode, errors.read().decode(), usage.ru_maxrss * 1024, time.monotonic() - began


def available_memory():
    with open("/proc/meminfo", encoding="ascii") as file:
        return next(int(line.split()[1]) * 1024 for line in file if line.startswith("MemAvailable"))


def write_thin_images(folder, base, count):
    """`count` images, each thin over the one before it, the first over `base`; every chunk is a reference. Gives the
    name of the last. They differ in their trailers alone, so that they share their tables where the file system can."""
    header = image.Header(SIZE, MIB4, MAX_CHUNK_COUNT, version=3)
    first = os.path.join(folder, "first.table")
    zeros = struct.pack("<I", 0) + hashlib.sha256(bytes(MIB4)).digest() + bytes(28)
    with open(first, "wb") as file:
        file.write(header.pack())
        for start in range(0, MAX_CHUNK_COUNT, 65536):
            file.write(b"".join([struct.pack("<Q", index * MIB4) + zeros
                                 for index in range(start, min(start + 65536, MAX_CHUNK_COUNT))]))
    digest, digest_of_base, name = digest_of_head(first), digest_of_head(os.path.join(folder, base)), base
    for number in range(count):
        trailer = image.Trailer(name.encode(), digest if number else digest_of_base)
        name = f"{number}.vrnx"
        subprocess.run(["cp", "--reflink=auto", first, os.path.join(folder, name)], check=True)
        with open(os.path.join(folder, name), "ab") as file:
            file.write(trailer.pack())
    os.remove(first)
    return name


def digest_of_head(path):
    with open(path, "rb") as file:
        return hashlib.sha256(file.read(TABLE)).digest()


class LargestDisk(computer_suite.Counted):
    def setUp(self):
        super().setUp()
        if not SETTINGS.long:
            self.skipTest("takes minutes; VORNIX_LONG is not set")

    def write_base(self, path, **fields):
        """An image of the largest disk, which holds nothing."""
        try:
            header = image.Header(SIZE, MIB4, MAX_CHUNK_COUNT, **fields)
            image.write_sparse_image(path, MAX_CHUNK_COUNT, chunk_size=MIB4, header=header)
        except OSError as error:
            self.skipTest(f"no file can be that large here: {error}")

    def test_a_tracked_thin_capture_reads_the_one_chunk_that_changed(self):
        machine = self.machine(source=0, target=bytes(512))
        self.leave_unjudged(machine, "the second reader would read 14 TiB of zeros")
        self.write_base(machine.path("base.vrnx"), epoch=0x10)
        os.truncate(machine.disk_path(1), SIZE)
        machine.poke_disk(1, CHANGED * MIB4 + 512, b"changed")
        machine.tracker([{"number": 1, "has_previous_epoch": 1, "previous_epoch": 0x10, "current_epoch": 0x11,
                          "bitmap": marked(SIZE, 16, (CHANGED * MIB4 + 512, 7))}])
        result = machine.run("capture", "--disk", "1", "--base", "base.vrnx", "--thin", "--out", "thin.vrnx",
                             timeout=3600)
        self.assertEqual((result.status, result.stderr), (0, b""))
        self.assertIn(f"(stored 1 of {MAX_CHUNK_COUNT} chunks, {MAX_CHUNK_COUNT - 1} are references to the base; "
                      "read from disk: 1)".encode(), result.stdout)
        self.assertLess(resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss * 1024, MEMORY)
        # The changed chunk is the one that the table has, and it holds the disk's bytes.
        _, records = image.read_table(machine.path("thin.vrnx"))
        stored = [(number, record) for number, record in enumerate(records) if record.stored_length]
        self.assertEqual([number for number, _ in stored], [CHANGED])
        with open(machine.path("thin.vrnx"), "rb") as file:
            file.seek(64 + 72 * MAX_CHUNK_COUNT)
            self.assertTrue(file.read(MIB4) == bytes(512) + b"changed" + bytes(MIB4 - 519), "the chunk has other bytes")

    # --- Opening. A restore opens the image with all that is below it, and then refuses the target, which is too small.

    def opened(self, machine, name, limit=None):
        machine.write_home("machine.json", json.dumps(machine.description).encode())
        return measured([SETTINGS.bench, os.path.join("..", "machine"), "restore", "--in", name, "--disk", "2",
                         "--confirm", "YES"], machine.work, limit)

    def test_the_largest_table_is_opened_in_twice_its_size(self):
        machine, troubles = self.machine(source=bytes(512), target=bytes(512)), []
        self.write_base(machine.path("base.vrnx"))
        status, said, peak, _ = self.opened(machine, "base.vrnx")
        if status != 1 or "smaller than the image's" not in said:
            troubles.append(f"with memory enough: {status} {said}")
        if not 2 * TABLE < peak < 2 * TABLE + BESIDE:
            troubles.append(f"a peak of {peak} bytes for a table of {TABLE}")
        # With room for one table and a half: the abnormal end of a run that lacks memory, and nothing else.
        status, said, _, _ = self.opened(machine, "base.vrnx", TABLE * 3 // 2)
        if status != SETTINGS.abnormal_status or "smaller than" in said:
            troubles.append(f"with too little memory: {status} {said}")
        self.count("small memory", "the largest table opened in twice its size, and not in less", "2 runs", troubles)

    def test_a_chain_of_the_largest_tables_is_opened(self):
        needed = MAX_CHAIN * OPENED + TABLE + 256 * MIB
        if available_memory() < needed:
            self.skipTest(f"{MAX_CHAIN} tables take {needed // MIB} MiB of memory")
        self.chain_is_opened(MAX_CHAIN)

    def chain_is_opened(self, length):
        machine, troubles = self.machine(source=bytes(512), target=bytes(512)), []
        self.share_space(machine.work)
        self.write_base(machine.path("base.vrnx"))
        last = write_thin_images(machine.work, "base.vrnx", length - 1)
        status, said, peak, seconds = self.opened(machine, last)
        print(f"{length} tables: {seconds:.1f} s, {seconds / length / MAX_CHUNK_COUNT * 1e9:.0f} ns a chunk, peak "
              f"{peak // MIB} MiB", file=sys.stderr)
        if status != 1 or "smaller than the image's" not in said:
            troubles.append(f"{status} {said}")
        # The deepest is opened last, with all the others in memory.
        if not (length - 1) * OPENED + 2 * TABLE < peak < length * OPENED + TABLE + BESIDE:
            troubles.append(f"a peak of {peak} bytes")
        self.count("small memory", f"a chain of {length} of the largest tables", "1 run", troubles)

    def share_space(self, folder):
        """Makes the folder a file system on which copies of a file share its space, where that can be had."""
        if not computer_suite.in_namespace() or shutil.which("mkfs.xfs") is None:
            if shutil.disk_usage(folder).free < (MAX_CHAIN + 2) * TABLE:
                self.skipTest(f"there is no room for {MAX_CHAIN} tables")
            return
        self.mount_new(4096 * MIB, "mkfs.xfs -q", "defaults", folder)


if __name__ == "__main__":
    computer_suite.enter_namespace()
    suite.main()
