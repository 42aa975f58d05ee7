#!/usr/bin/env python3
"""Measures Vornix beside the floor program and beside what an administrator would run instead.

    sudo python3 benchmarks/run.py [--rounds N] [--beds memory:1,slow:0.5,disk:1,disk:4] [--long] [--only JOB;...]
                                   [--base-only] [--once] [--fill] [--no-install] [--work FOLDER]

Needs root and loop devices: the disks are loop devices with direct I/O over files, half random data, a quarter zeros, a
quarter text. A bed is where those files and the images lie, and the size of the disk in GiB:

    disk      in the work folder: all of them share whatever device that folder is on
    memory    in memory, the images on a file system of their own there: stands for disks that are faster than a hash,
              each with a device to itself. What is "cold" here has to come from that file system's device all the same.
    slow      the same, with each of the three devices behind a server that transfers 200 MiB a second and answers 5 ms
              later (benchmarks/paced_disk.c, nbdfuse): stands for independent disks of limited speed. The kernel's own
              throttle does not: it gives credit for a tenth of a second, so that who reads and writes in turn is there
              as fast as who does both at once

All rows of a bed are measured in one interleaved run: each round runs every contender of every job once, in an order
that changes from round to round, so that what slows the machine down slows all of them. Prints a table and writes it to
benchmarks/results.md.

What is cached and what is synced: "cold" jobs start with the page cache dropped; "warm" ones are preceded by one
reading of the file; wherever something is written, the time goes on until it is on the disk (the writers sync it
themselves, or a sync follows inside the measured time), but for consolidations, which neither side syncs. Peak memory
is the largest resident set among a contender's processes.

A virtual machine that reports its free memory to the host loses it there, and pays for it once more with whoever uses
it next: up to 2.5 s a GiB were seen, in anything that goes through the page cache. With --fill, free memory is filled
in front of each run with pages of a file that nobody needs, which whoever wants memory gets at once; where the host is
slow to give memory that takes minutes. Otherwise switch the reporting off before measuring (the parameters of the
module page_reporting), and use all memory once.
"""

import argparse
import hashlib
import json
import os
import random
import re
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(HERE)
sys.path.insert(0, os.path.join(ROOT, "tests", "lib"))

import image  # noqa: E402

GIB = 1 << 30
CHUNK = 4194304
SHORT_JOB_SECONDS = 4
PLACES = {"memory": "in memory", "disk": "on the disk of the work folder", "slow": "of 200 MiB/s and 5 ms"}
RESULTS = os.path.join(HERE, "results.md")
RESULTS_HEAD = """# Results

Medians of interleaved rounds, with ratios as medians of the ratios of each round. What a bed is, what is cached and
what is synced stands at the head of `benchmarks/run.py`, which writes this page; every time includes the way to the
disk.
"""
PACKAGES = ["time", "e2fsprogs", "openssl", "qemu-utils", "ewf-tools", "dc3dd", "partclone", "borgbackup", "restic",
            "nbdkit", "nbdkit-plugin-dev", "libnbd-bin", "fuse3"]
VORNIX = os.path.join(ROOT, "build", "linux", "vornix")
BENCH = os.path.join(ROOT, "build", "linux", "vornix-bench")
FLOOR = os.path.join(ROOT, "build", "benchmarks", "floor")
PACED_DISK = os.path.join(ROOT, "build", "benchmarks", "paced_disk.so")


def run(command, **options):
    return subprocess.run(command, check=True, capture_output=True, **options)


def drop_caches():
    """Takes every file of the beds out of the page cache. The rest of it is none of theirs, and what fill_memory has
    there shall stay."""
    os.sync()
    for folder in Bed.folders:
        for name in os.listdir(folder):
            path = os.path.join(folder, name)
            if os.path.isfile(path):
                descriptor = os.open(path, os.O_RDONLY)
                os.posix_fadvise(descriptor, 0, 0, os.POSIX_FADV_DONTNEED)
                os.close(descriptor)


class Filler:
    """A file without content and without end, whose pages fill what is free of the memory."""

    def __init__(self, path):
        self.path, self.offset = path, 0
        with open(path, "ab") as file:
            file.truncate(1 << 40)

    def fill(self):
        with open(self.path, "rb", buffering=0) as file:
            buffer = bytearray(1 << 24)
            left = free_memory()  # more than that only takes the place of what was read before
            while left > 0 and free_memory() > 700 << 20:
                left -= len(buffer)
                file.seek(self.offset)
                file.readinto(buffer)
                self.offset = (self.offset + len(buffer)) % (1 << 40)


def free_memory():
    with open("/proc/meminfo", encoding="ascii") as file:
        return next(int(line.split()[1]) << 10 for line in file if line.startswith("MemFree:"))


filler = None  # pylint: disable=invalid-name


def fill_memory():
    if filler is not None:
        filler.fill()


def warm(path):
    with open(path, "rb", buffering=0) as file:
        while file.read(1 << 22):
            pass


class Contender:
    """One command line of a job. `before` runs unmeasured in front of it; `output` is removed before and after it."""

    def __init__(self, name, command, before=(), sync=False, output=None):
        self.name, self.before, self.sync, self.output = name, before, sync, output
        self.command = command if isinstance(command, list) else ["/bin/sh", "-c", command]
        self.seconds, self.user, self.system, self.peak = [], [], [], []

    def is_installed(self):
        """Whether the tool is here; with --no-install it need not be."""
        words = self.command[-1] if self.command[0] == "/bin/sh" else self.command[0]
        return shutil.which(words.split()[0]) is not None

    def measure(self, environment):
        self.remove_output()
        for step in self.before:
            step()
        os.sync()
        fill_memory()
        # A process counts the memory of the one that it was forked from as its own, so a small one has to start it.
        with open(os.devnull, "r+b") as null, tempfile.NamedTemporaryFile("r", encoding="ascii") as account:
            command = ["/usr/bin/time", "--quiet", "--format=%U %S %M", f"--output={account.name}", *self.command]
            start = time.monotonic()
            child = subprocess.run(command, stdin=null, stdout=null, stderr=subprocess.PIPE, env=environment,
                                   check=False)
            if self.sync:
                os.sync()
            seconds = time.monotonic() - start
            user, system, peak = account.read().split()
        if child.returncode != 0:
            said = child.stderr.decode(errors="replace")[-500:]
            raise RuntimeError(f"{self.name}: status {child.returncode}: {said}")
        self.seconds.append(seconds)
        self.user.append(float(user))
        self.system.append(float(system))
        self.peak.append(int(peak) / 1024)
        self.remove_output()

    def remove_output(self):
        for path in (self.output, f"{self.output}.partial") if self.output is not None else ():
            if os.path.exists(path):
                os.remove(path)


class Job:
    def __init__(self, name, contenders, goals=None, chunk_count=None):
        self.name, self.contenders, self.goals = name, contenders, goals or {}
        self.chunk_count = chunk_count  # of all images that are open at once; None: as the bed's disk has


def write_disk(path, size, seed):
    """Half random data, a quarter zeros, a quarter text, in stretches of a megabyte."""
    generator = random.Random(seed)
    text = ("The quick brown fox jumps over the lazy dog. " * 24000).encode()[:1 << 20]
    with open(path, "wb") as file:
        for index in range(size >> 20):
            kind = index % 4
            file.write(generator.randbytes(1 << 20) if kind in (0, 2) else bytes(1 << 20) if kind == 1 else text)


def change_disk(path, size, percent, seed):
    """Overwrites whole chunks, `percent` of all of them and at least one."""
    generator = random.Random(seed)
    count = max(1, (size // CHUNK) * percent // 100)
    with open(path, "r+b") as file:
        for index in generator.sample(range(size // CHUNK), count):
            file.seek(index * CHUNK)
            file.write(generator.randbytes(CHUNK))
        os.fsync(file.fileno())


class Bed:
    """Loop devices, images and machines of one size, in the work folder or in memory."""

    folders = []  # of all that are open

    def __init__(self, work, place, gib):
        self.name, self.folder, self.loops = f"{place}:{gib}", os.path.join(work, f"{place}-{gib}"), []
        self.place = place
        self.size, self.mounts, self.servers = int(gib * GIB), [], []
        self.title = f"A disk of {gib:g} GiB, {PLACES[place]}"
        shutil.rmtree(self.folder, ignore_errors=True)
        os.makedirs(self.folder)
        self.disks = self.folder
        if place != "disk":
            self.lie_in_memory()
        Bed.folders.append(self.folder)
        self.source, self.target = os.path.join(self.disks, "source.img"), os.path.join(self.disks, "target.img")
        write_disk(self.source, self.size, f"disk {gib}")
        with open(self.target, "wb") as file:
            os.posix_fallocate(file.fileno(), 0, self.size)
        os.sync()
        self.source_loop, self.target_loop = self.attach(self.source), self.attach(self.target)
        self.password = self.path("password")
        with open(self.password, "w", encoding="ascii") as file:
            file.write("correct horse battery staple\n")
        self.hide_other_disks()
        self.source_number, self.target_number = self.number(self.source_loop), self.number(self.target_loop)

    def lie_in_memory(self):
        """Puts the disks into a file system in memory, and the images on a file system of their own on a device in it.
        Memory itself would do for the images, but then nothing could be cold and nothing would need a sync."""
        self.disks = f"{self.folder}-disks"
        os.makedirs(self.disks, exist_ok=True)
        self.mount("-t", "tmpfs", "-o", "size=90%", "tmpfs", self.disks)
        device = os.path.join(self.disks, "images.img")
        with open(device, "wb") as file:
            file.truncate(14 * self.size)
        loop = self.attach(device)
        run(["mkfs.ext4", "-q", "-E", "lazy_itable_init=0,lazy_journal_init=0", loop])
        self.mount("-o", "discard", loop, self.folder)

    def mount(self, *arguments):
        run(["mount", *arguments])
        self.mounts.append(arguments[-1])

    def path(self, name):
        return os.path.join(self.folder, name)

    def attach(self, file):
        if self.place == "slow":
            file = self.slow_down(file)
        loop = run(["losetup", "--direct-io=on", "--show", "-f", file], text=True).stdout.strip()
        self.loops.append(loop)
        return loop

    def slow_down(self, file):
        """Has the file shown by a server of limited speed; gives the path of what it shows."""
        point = f"{file}-slow"
        os.mkdir(point)
        shown = os.path.join(point, "disk")
        self.servers.append((point, subprocess.Popen(
            ["nbdfuse", shown, "--command", "nbdkit", "-s", PACED_DISK, f"file={file}"],
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)))
        while not os.path.exists(shown):
            if self.servers[-1][1].poll() is not None:
                raise RuntimeError("nbdfuse shows no disk of limited speed")
            time.sleep(0.01)
        return shown

    def close(self):
        Bed.folders.remove(self.folder)
        for loop in (self.source_loop, self.target_loop):
            run(["losetup", "-d", loop])
        run(["umount", "/sys/block", "/run"])
        for folder in reversed(self.mounts):
            if folder == self.disks:
                self.end_servers()
            run(["umount", folder])
            for loop in self.loops:
                subprocess.run(["losetup", "-d", loop], check=False, capture_output=True)
        shutil.rmtree(self.folder, ignore_errors=True)

    def end_servers(self):
        for point, server in self.servers:
            run(["fusermount3", "-u", point])
            server.wait()

    def hide_other_disks(self):
        """Leaves the loop devices of this bed as the only disks of this process and those it starts, so that a number
        means the same disk however many others come and go meanwhile. The registry of numbers is the bed's own too."""
        listed = self.path("block")
        os.mkdir(listed)
        for loop in (self.source_loop, self.target_loop):
            name = os.path.basename(loop)
            os.symlink(os.path.realpath(f"/sys/block/{name}"), os.path.join(listed, name))
        run(["mount", "--bind", listed, "/sys/block"])
        numbers = self.path("run")
        os.mkdir(numbers, 0o755)
        run(["mount", "--bind", numbers, "/run"])

    def number(self, loop):
        return sorted((self.source_loop, self.target_loop), key=lambda path: os.stat(path).st_rdev).index(loop)

    def vornix(self, *words):
        run([VORNIX, *map(str, words)])

    def machine(self, tracker):
        """A described machine on the same disk file, for what needs the tracker. Gives its folder."""
        folder = self.path("machine")
        os.makedirs(folder, exist_ok=True)
        with open(self.path("system.img"), "wb") as file:
            file.truncate(1 << 20)
        description = {"disks": [{"number": 0, "file": self.path("system.img")},
                                 {"number": 1, "file": self.source}],
                       "system_volume": {"extents": [{"disk": 0, "start": 0, "length": 1 << 20}]},
                       "tracker": "tracker.json"}
        with open(os.path.join(folder, "machine.json"), "w", encoding="utf-8") as file:
            json.dump(description, file)
        with open(os.path.join(folder, "tracker.json"), "w", encoding="utf-8") as file:
            json.dump({"disks": [{"number": 1, **tracker}]}, file)
        return folder


def base_jobs(bed):
    """Capture, verify, restore and clone, beside the floor and beside others' tools."""
    out, loop, target, number, goal = bed.path, bed.source_loop, bed.target_loop, bed.source_number, bed.target_number
    bed.vornix("capture", "--disk", number, "--out", out("plain.vrnx"))
    bed.vornix("capture", "--disk", number, "--out", out("sealed.vrnx"), "--encrypt", "--password-file", bed.password)
    plain, sealed = out("plain.vrnx"), out("sealed.vrnx")
    cold, warm_plain, warm_sealed = drop_caches, lambda: warm(plain), lambda: warm(sealed)
    dd = f"dd if={loop} of={out('dd.img')} bs=4M iflag=direct conv=fsync"
    chunks = bed.size // CHUNK
    restoring = ["restore", "--disk", str(goal), "--confirm", "YES", "--in"]
    back = f"dd if={plain} of={target} bs=4M oflag=direct iflag=fullblock conv=fsync count={chunks}"
    capture = ["capture", "--disk", str(number), "--out", out("x.vrnx")]
    jobs = [
        Job("capture, plain", [
            Contender("vornix", [VORNIX, *capture], (cold,), output=out("x.vrnx")),
            Contender("floor", [FLOOR, "capture", loop, out("f.img")], (cold,), output=out("f.img")),
            Contender("floor, overlapped", [FLOOR, "overlapped", "capture", loop, out("f.img")], (cold,),
                      output=out("f.img")),
            Contender("dd, no hash", dd, (cold,), output=out("dd.img")),
            Contender("dc3dd sha256", f"dc3dd if={loop} hof={out('dc.img')} hash=sha256 log=/dev/null",
                      (cold,), sync=True, output=out("dc.img")),
            Contender("ewfacquire sha256", f"ewfacquire -u -q -c none -d sha256 -S 64GiB -t {out('ewf')} {loop}",
                      (cold,), sync=True, output=out("ewf.E01")),
            Contender("qemu-img raw", f"qemu-img convert -f raw -O raw -T none -S 0 {loop} {out('q.img')}",
                      (cold,), sync=True, output=out("q.img")),
        ], {"floor": 1.05, "floor, overlapped": 1.10, "dd, no hash": 1.00, "dc3dd sha256": 1 / 1.6,
            "ewfacquire sha256": 1 / 2.4}),
        Job("capture, sealed", [
            Contender("vornix", [VORNIX, *capture, "--encrypt", "--password-file", bed.password], (cold,),
                      output=out("x.vrnx")),
            Contender("floor", [FLOOR, "seal", loop, out("f.img")], (cold,), output=out("f.img")),
            Contender("floor, overlapped", [FLOOR, "overlapped", "seal", loop, out("f.img")], (cold,),
                      output=out("f.img")),
            Contender("dd, no hash", dd, (cold,), output=out("dd.img")),
        ], {"dd, no hash": 1.35 if bed.place == "memory" else 1.05}),
        Job("verify, plain, cold", [
            Contender("vornix", [VORNIX, "verify", "--in", plain], (cold,)),
            Contender("floor", [FLOOR, "verify", plain], (cold,)),
            Contender("openssl dgst", ["openssl", "dgst", "-sha256", plain], (cold,)),
        ], {"floor": 1.05, "openssl dgst": 0.90}),
        Job("verify, plain, warm", [
            Contender("vornix", [VORNIX, "verify", "--in", plain], (warm_plain,)),
            Contender("floor", [FLOOR, "verify", plain], (warm_plain,)),
            Contender("openssl dgst", ["openssl", "dgst", "-sha256", plain], (warm_plain,)),
        ], {"openssl dgst": 1.00}),
        Job("verify, sealed, warm", [
            Contender("vornix", [VORNIX, "verify", "--in", sealed, "--password-file", bed.password], (warm_sealed,)),
            Contender("floor", [FLOOR, "unseal", sealed], (warm_sealed,)),
        ], {"floor": 1.03}),
        Job("restore, plain, cold", [
            Contender("vornix", [VORNIX, "restore", "--in", plain, "--disk", str(goal), "--confirm", "YES"], (cold,)),
            Contender("floor", [FLOOR, "restore", plain, target], (cold,)),
            Contender("sha256sum, then dd", f"sha256sum {plain} && dd if={plain} of={target} bs=4M oflag=direct "
                      f"iflag=fullblock count={bed.size // CHUNK}", (cold,)),
        ], {"floor": 1.05, "sha256sum, then dd": 0.40}),
        Job("restore, plain, warm", [
            Contender("vornix", [VORNIX, *restoring, plain], (warm_plain,)),
            Contender("floor", [FLOOR, "restore", plain, target], (warm_plain,)),
            Contender("floor, overlapped", [FLOOR, "overlapped", "restore", plain, target], (warm_plain,)),
            Contender("dd, no hash", back, (warm_plain,)),
        ], {"floor": 1.03, "floor, overlapped": 1.10, "dd, no hash": 1.00 if bed.place == "slow" else 1.35}),
        Job("restore, sealed, warm", [
            Contender("vornix", [VORNIX, *restoring, sealed, "--password-file", bed.password], (warm_sealed,)),
            Contender("floor, overlapped", [FLOOR, "overlapped", "unseal-restore", sealed, target],
                      (warm_sealed,)),
        ], {"floor, overlapped": 1.10}),
        Job("clone", [
            Contender("vornix", [VORNIX, "clone", "--from", str(number), "--to", str(goal), "--confirm", "YES"],
                      (cold,)),
            Contender("floor", [FLOOR, "clone", loop, target], (cold,)),
            Contender("floor, overlapped", [FLOOR, "overlapped", "clone", loop, target], (cold,)),
            Contender("dd, direct", f"dd if={loop} of={target} bs=4M iflag=direct oflag=direct", (cold,)),
        ], {"floor": 1.05, "dd, direct": 0.60 if bed.place == "slow" else 1.03}),
        Job("clone with comparison", [
            Contender("vornix", [VORNIX, "clone", "--from", str(number), "--to", str(goal), "--confirm", "YES",
                                 "--verify"], (cold,)),
            Contender("floor", [FLOOR, "clone-verify", loop, target], (cold,)),
            Contender("dd, then cmp", f"dd if={loop} of={target} bs=4M iflag=direct oflag=direct && "
                      f"blockdev --flushbufs {loop} {target} && cmp {loop} {target}", (cold,)),
        ], {"floor": 1.05, "dd, then cmp": 0.40}),
    ]
    return jobs


def jobs_of_the_slowest_stage(jobs):
    """What slow devices are there for: how much of the sum of its stages a job saves. On one thread it takes the sum,
    as does whoever only reads or writes; that need not be waited for."""
    jobs = [job for job in jobs if not job.name.startswith("verify") and job.name != "restore, plain, cold"]
    for job in jobs:
        job.contenders = [contender for contender in job.contenders
                          if contender.name in ("vornix", "floor, overlapped") or contender.name.startswith("dd")]
    return jobs


def fold_job(bed, links):
    """Consolidating a chain of `links` images, a fiftieth of the chunks changed in each."""
    out, name = bed.path, f"consolidate {links} links"
    names = ["link0.vrnx"] + [f"link{links}-{index}.vrnx" for index in range(1, links)]
    if not os.path.exists(out(names[0])):
        bed.vornix("capture", "--disk", bed.source_number, "--out", out(names[0]))
    generator = random.Random(links)
    header, records = image.read_table(out(names[0]))
    count = len(records)
    holder, offsets = [0] * count, [64 + 72 * count + index * CHUNK for index in range(count)]
    digest, header.version = image.digest_of(out(names[0])), 3
    for index in range(1, links):
        data = {chunk: generator.randbytes(CHUNK) for chunk in generator.sample(range(count), max(1, count // 50))}
        position = 64 + 72 * count
        for chunk, record in enumerate(records):
            record.stored_length = CHUNK if chunk in data else 0
            if chunk in data:
                record.hash = hashlib.sha256(data[chunk]).digest()
                holder[chunk], offsets[chunk] = index, position
                position += CHUNK
        head = header.pack() + b"".join(record.pack() for record in records)
        with open(out(names[index]), "wb") as file:
            file.write(head + b"".join(data[chunk] for chunk in sorted(data)))
            file.write(image.Trailer(names[index - 1].encode(), digest).pack())
        digest = hashlib.sha256(head).digest()
    plan = out(f"plan{links}")
    with open(plan, "w", encoding="ascii") as file:
        for chunk, index in enumerate(holder):
            file.write(f"{out(names[index])} {offsets[chunk]} {CHUNK} {links - index}\n")

    def warm_chain():
        for link in names:
            warm(out(link))

    return Job(name, [
        Contender("vornix", [VORNIX, "consolidate", "--in", bed.path(names[-1]), "--out", bed.path("folded.vrnx")],
                  (warm_chain,), output=out("folded.vrnx")),
        Contender("floor", [FLOOR, "fold", plan, bed.path("f.img")], (warm_chain,), output=out("f.img")),
    ], {"floor": 1.05 if links == 10 else 1.10}, links * count)


def keep_first_backups(bed, environment):
    """A first backup of the disk by each of the backup programs that are here, kept in folders first-NAME: the
    NAMEs."""
    borg, restic = ["borg"], ["restic", "-r", bed.path("restic")]
    kept = []
    for names, commands in ((("borg", "borg-home"),
                             ([*borg, "init", "-e", "none", bed.path("borg")],
                              [*borg, "create", "-C", "none", bed.path("borg") + "::first", "-"])),
                            (("restic", "restic-cache"),
                             ([*restic, "init"], [*restic, "backup", "--stdin", "--stdin-filename", "disk"]))):
        if shutil.which(names[0]) is None:
            continue
        for command in commands:
            with open(bed.source, "rb") as stream:
                run(command, env=environment, stdin=stream)
        for name in names:
            os.rename(bed.path(name), bed.path("first-" + name))
        kept += names
    return kept


def incremental_jobs(bed):
    """Incremental captures with 1 % of the chunks changed, beside the second run of two backup programs."""
    out = bed.path
    change_bits = bytearray(bed.size // 65536 // 8)
    state = {"active": 1, "has_previous_epoch": 1, "previous_epoch": 16, "current_epoch": 17}
    # The base of the tracked modes carries the epoch that the tracker holds as committed.
    machine = bed.machine({"current_epoch": 16})
    run([BENCH, machine, "capture", "--disk", "1", "--out", out("base.vrnx")])
    environment = dict(os.environ, BORG_PASSPHRASE="", BORG_UNKNOWN_UNENCRYPTED_REPO_ACCESS_IS_OK="yes",
                       RESTIC_PASSWORD="x", BORG_BASE_DIR=out("borg-home"), RESTIC_CACHE_DIR=out("restic-cache"))
    kept = keep_first_backups(bed, environment)
    generator = random.Random("changes")
    count = bed.size // CHUNK
    changed = generator.sample(range(count), max(1, count // 100))
    with open(bed.source, "r+b") as file:
        for index in changed:
            file.seek(index * CHUNK)
            file.write(generator.randbytes(CHUNK))
            change_bits[index * 8:index * 8 + 8] = b"\xff" * 8
        os.fsync(file.fileno())
    loop = bed.source_loop

    def reset_tracker():
        bed.machine({**state, "bitmap": change_bits.hex()})

    def remove_repositories():
        for name in kept:
            shutil.rmtree(out(name), ignore_errors=True)

    def first_borg():
        remove_repositories()
        run(["borg", "init", "-e", "none", out("borg")], env=environment)

    def second_run():
        remove_repositories()
        for name in kept:
            shutil.copytree(out("first-" + name), out(name))

    borg = f"borg create -C none --read-special {out('borg')}::second {loop}"
    restic = f"restic -r {out('restic')} backup --stdin --stdin-filename disk < {loop}"
    tracked = [BENCH, machine, "capture", "--disk", "1", "--base", out("base.vrnx"), "--out", out("x.vrnx")]
    compared = [VORNIX, "capture", "--disk", str(bed.source_number), "--base", out("base.vrnx"), "--out",
                out("x.vrnx"), "--thin"]
    others = [Contender("borg, second run", borg, (second_run, drop_caches), sync=True),
              Contender("restic, second run", restic, (second_run, drop_caches), sync=True)]
    jobs = [
        Job("tracked thin capture, 1 % changed", [
            Contender("vornix", tracked + ["--thin"], (reset_tracker, drop_caches), output=out("x.vrnx")), *others,
        ], {"borg, second run": 1 / 20, "restic, second run": 1 / 20}),
        Job("compared thin capture, 1 % changed", [
            Contender("vornix", compared, (drop_caches,), output=out("x.vrnx")), *others,
        ], {"borg, second run": 1 / 1.5, "restic, second run": 1 / 1.5}),
        Job("tracked copy, 1 % changed", [
            Contender("vornix", tracked, (reset_tracker, drop_caches), output=out("x.vrnx")),
        ]),
        Job("capture, plain, beside a first backup", [
            Contender("vornix", [VORNIX, "capture", "--disk", str(bed.source_number), "--out", out("x.vrnx")],
                      (drop_caches,), output=out("x.vrnx")),
            Contender("borg, first run", f"borg create -C none --read-special {out('borg')}::one {loop}",
                      (first_borg, drop_caches), sync=True),
        ], {"borg, first run": 1 / 1.8}),
    ]
    for job in jobs:
        job.environment = environment
    return jobs


def open_job(bed):
    """The largest table. A restore without a disk opens the image and ends."""
    path = bed.path("largest.vrnx")
    image.write_sparse_image(path, image.MAX_CHUNK_COUNT)
    refused = f"{VORNIX} restore --in {path} --disk 15000 --confirm YES; test $? = 1"
    return Job("open the largest table", [
        Contender("vornix", refused, (lambda: warm_head(path),)),
        Contender("floor", [FLOOR, "open", path], (lambda: warm_head(path),)),
    ], {"floor": 1.15}, image.MAX_CHUNK_COUNT)


def warm_head(path):
    with open(path, "rb", buffering=0) as file:
        left = 64 + 72 * image.MAX_CHUNK_COUNT
        while left > 0:
            left -= len(file.read(min(left, 1 << 22)))


def measure(jobs, rounds, once):
    generator = random.Random(0)
    for number in range(rounds):
        measured = set()  # a contender may stand in several jobs
        for job in jobs:
            start = time.monotonic()
            environment = getattr(job, "environment", None)
            order = list(job.contenders)
            generator.shuffle(order)
            for contender in order:
                if contender not in measured:
                    measured.add(contender)
                    contender.measure(environment)
            # What is over in a moment is measured more often, since a moment's noise weighs more in it.
            slowest = max(contender.seconds[-1] for contender in order)
            for _ in range(0 if once else min(4, int(SHORT_JOB_SECONDS / slowest))):
                generator.shuffle(order)
                for contender in order:
                    contender.measure(environment)
            print(f"  round {number + 1} of {rounds}: {job.name}, {time.monotonic() - start:.0f} s", file=sys.stderr)


def table_of(jobs):
    lines = ["| Job | Contender | Seconds | CPU s, user + system | Peak MiB | vornix : contender | Goal |",
             "|---|---|---:|---:|---:|---:|---|"]
    for job in jobs:
        ours = job.contenders[0]
        for contender in job.contenders:
            ratio, goal = "", ""
            if contender is not ours:
                value = statistics.median(a / b for a, b in zip(ours.seconds, contender.seconds))
                ratio = f"{value:.3f}"
                if contender.name in job.goals:
                    limit = job.goals[contender.name]
                    goal = f"at most {limit:.3f}: {'reached' if value <= limit else 'missed'}"
            lines.append(f"| {job.name} | {contender.name} | {statistics.median(contender.seconds):.3f} "
                         f"({min(contender.seconds):.2f} to {max(contender.seconds):.2f}) | "
                         f"{statistics.median(contender.user):.2f} + {statistics.median(contender.system):.2f} | "
                         f"{max(contender.peak):.0f} | {ratio} | {goal} |")
    return lines


def memory_account(jobs, chunk_count):
    """How much memory the program took beyond what a job needs: two chunk buffers, and 80 bytes a chunk of each
    open image for table and offsets. The transfers beside it may take four chunks for each of two handles."""
    lines = []
    for job in jobs:
        count = job.chunk_count or chunk_count
        beyond = max(job.contenders[0].peak) - (2 * CHUNK + 80 * count) / (1 << 20)
        lines.append((beyond, job.name))
    beyond, name = max(lines)
    goal = 16 + 2 * 4 * CHUNK / (1 << 20)
    over = [name for value, name in lines if value > goal]
    return ["", "Peak memory of vornix beyond two chunk buffers, table and offsets (goal: at most 16 MiB, and four "
            f"chunks for each of two handles, {goal:.0f} MiB together): at most {beyond:.1f} MiB, in \"{name}\"; "
            f"missed in {len(over)} of {len(lines)} jobs{': ' if over else ''}{', '.join(over)}."]


def processor_account(jobs):
    """How much more time of the processor the program took for itself than the floor on one thread."""
    lines = []
    for job in jobs:
        floors = [contender for contender in job.contenders if contender.name == "floor"]
        if floors and statistics.median(floors[0].user) >= 0.1:
            lines.append((statistics.median(job.contenders[0].user) / statistics.median(floors[0].user), job.name))
    if not lines:
        return []
    over = [f"{name} ({value:.2f})" for value, name in lines if value > 1.15]
    return ["", f"User time of vornix : floor on one thread (goal: at most 1.15): at most {max(lines)[0]:.2f}, in "
            f"\"{max(lines)[1]}\"; missed in {len(over)} of {len(lines)} jobs{': ' if over else ''}{', '.join(over)}."]


def describe_machine():
    with open("/proc/cpuinfo", encoding="utf-8", errors="replace") as file:
        model = next((line.split(":", 1)[1].strip() for line in file if line.startswith("model name")), "unknown")
    memory = os.sysconf("SC_PAGE_SIZE") * os.sysconf("SC_PHYS_PAGES") / GIB
    return f"{os.cpu_count()} cores of {model}, {memory:.0f} GiB of memory, Linux {os.uname().release}"


def enter_namespace():
    """Goes on as root with mounts of its own, which are gone with this process whatever becomes of it."""
    if os.geteuid() != 0:
        sys.exit(f"{os.path.basename(sys.argv[0])}: loop devices need root")
    if "VORNIX_BENCHMARK_NAMESPACE" not in os.environ:
        os.environ["VORNIX_BENCHMARK_NAMESPACE"] = "1"
        os.execvp("unshare", ["unshare", "--mount", "--propagation", "private", sys.executable, *sys.argv])


def write_results(sections):
    """Puts the sections into the page, in place of older ones of the same title."""
    title = re.compile(r"^## (.*)$", re.MULTILINE)
    kept = {}
    if os.path.exists(RESULTS):
        with open(RESULTS, encoding="utf-8") as file:
            kept = {title.match("## " + part)[1]: "## " + part for part in file.read().split("\n## ")[1:]}
    kept.update(sections)
    with open(RESULTS, "w", encoding="utf-8") as file:
        file.write(RESULTS_HEAD + "\n" + "\n".join(text.rstrip("\n") + "\n" for _, text in sorted(kept.items())))


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--beds", default="memory:1,slow:0.5,disk:1,disk:4")
    parser.add_argument("--long", action="store_true", help="with a disk of 16 GiB and a chain of 65 images as well")
    parser.add_argument("--only", default="")
    parser.add_argument("--base-only", action="store_true", help="capture, verify, restore and clone alone")
    parser.add_argument("--once", action="store_true", help="measure what is over in a moment no more often")
    parser.add_argument("--fill", action="store_true", help="fill what is free of the memory in front of each run")
    parser.add_argument("--no-install", action="store_true", help="leave out the tools that are not here")
    parser.add_argument("--work", default=os.path.join(ROOT, "build", "benchmarks", "work"))
    arguments = parser.parse_args()
    enter_namespace()
    if not arguments.no_install:
        run(["apt-get", "install", "-y", "--no-install-recommends", *PACKAGES],
            env=dict(os.environ, DEBIAN_FRONTEND="noninteractive"))
    os.makedirs(os.path.dirname(FLOOR), exist_ok=True)
    run(["g++", "-O2", "-std=c++20", "-Wall", "-Wextra", "-Werror", "-o", FLOOR, os.path.join(HERE, "floor.cpp"),
         "-lcrypto"])
    if "slow:" in arguments.beds:
        run(["cc", "-O2", "-Wall", "-Wextra", "-Werror", "-shared", "-fPIC", "-o", PACED_DISK,
             os.path.join(HERE, "paced_disk.c")])

    global filler  # pylint: disable=global-statement
    if arguments.fill:
        os.makedirs(arguments.work, exist_ok=True)
        filler = Filler(os.path.join(arguments.work, "filler"))
    beds = arguments.beds.split(",") + (["disk:16"] if arguments.long else [])
    sections = {}
    options = "".join(f" --{name}" for name in ("once", "fill") if getattr(arguments, name))
    for name in beds:
        place, gib = name.split(":")
        bed = Bed(arguments.work, place, float(gib))
        try:
            jobs = base_jobs(bed)
            if place == "slow":
                jobs = jobs_of_the_slowest_stage(jobs)
            elif not arguments.base_only:
                # What takes longest, or does not depend on the disk, on one small disk.
                first, only = name == beds[0] and float(gib) == 1, arguments.only
                if not only or "consolidate" in only:
                    jobs += [fold_job(bed, links) for links in
                             ((2, 10, 65) if first and arguments.long else (2, 10) if first else (10,))]
                if first:
                    jobs.append(open_job(bed))
                if not only or "1 % changed" in only or "first backup" in only:
                    jobs += incremental_jobs(bed)
            jobs = [job for job in jobs if not arguments.only or job.name in arguments.only.split(";")]
            for job in jobs:
                job.contenders = [contender for contender in job.contenders if contender.is_installed()]
            measure(jobs, arguments.rounds, arguments.once)
            sections[bed.title] = "\n".join([
                f"## {bed.title}", "",
                f"`benchmarks/run.py --rounds {arguments.rounds} --beds {name}{options}` on {describe_machine()}, "
                f"{time.strftime('%Y-%m-%d')}.", "", *table_of(jobs),
                *memory_account(jobs, bed.size // CHUNK), *processor_account(jobs), ""])
        finally:
            bed.close()
        print(sections[bed.title])
    if not arguments.only and not arguments.base_only:
        write_results(sections)
    return 0


if __name__ == "__main__":
    sys.exit(main())
