#!/usr/bin/env python3
"""Measures how the cost of the commands grows: with the size of the disk, with the length of a chain, and with the
share of a disk that changed.

    sudo python3 benchmarks/growth.py [--rounds N] [--update] [--mib N] [--work FOLDER]

Three parts, one after the other, in each of which all contenders run once a round, in an order that changes from round
to round:

    size     disks of 1, 4 and 16 GiB and their images in the work folder: all of them share whatever device that folder
             is on. Everything is cold, that is, the image is not in the page cache. The disks are loop devices over
             the beginnings of the same two files. Where there is no room for a source of 16 GiB its end is a hole, and
             the page says so
    chain    chains of 1, 8 and 65 images of a disk of 1 GiB in memory, a fiftieth of the chunks changed in each; warm.
             What opening takes is that of a restore to a disk that is not there: a twentieth of twenty such runs
    share    thin captures of a disk of 1 GiB in memory over an image of it, of which 0 to 100 % of the chunks changed
             since; "tracked" on a described machine, whose tracker says what changed, and "compared" on this one

What is cold and what is synced is as in benchmarks/run.py. The disk of 16 GiB and the chain of 65 are measured in a
third of the rounds, at least one. Takes eight minutes with 3 rounds, and up to 56 GiB of room in the work folder.

With --update the tables are written to benchmarks/growth.md and the plot to benchmarks/growth.svg, else to files of
these names in build/benchmarks. --mib is for trying this program with smaller disks: what 1 GiB stands for.
"""

import argparse
import functools
import os
import random
import shutil
import statistics
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import plot  # noqa: E402
import run  # noqa: E402

BUILDS = os.path.join(run.ROOT, "build", "benchmarks")
SIZES = (1, 4, 16)
LINKS = (1, 8, 65)
SHARES = (0, 1, 5, 25, 50, 100)
OPENINGS = 20


class DisksOfSizes(run.Bed):
    """Pairs of disks, a source and a target of each size, over one pair of files."""

    def __init__(self, work):  # pylint: disable=super-init-not-called
        self.folder, self.place, self.loops, self.mounts = os.path.join(work, "sizes"), "disk", [], []
        shutil.rmtree(self.folder, ignore_errors=True)
        os.makedirs(self.folder)
        run.Bed.folders.append(self.folder)
        source, target = self.path("source.img"), self.path("target.img")
        run.write_disk(source, SIZES[0] * run.GIB, "growth")
        # Target and images, and a little for the file system itself.
        room = shutil.disk_usage(self.folder).free - (SIZES[-1] + sum(SIZES) + 1) * run.GIB
        whole = [size for size in SIZES if (size - SIZES[0]) * run.GIB <= room]
        if not whole or room < 0:
            sys.exit(f"growth.py: {self.folder} needs {-room >> 20} MiB more room")
        self.written = whole[-1]
        with open(source, "r+b") as file:
            for number in range(1, self.written):
                os.lseek(file.fileno(), number * run.GIB, os.SEEK_SET)
                done = 0
                while done < run.GIB:
                    done += os.copy_file_range(file.fileno(), file.fileno(), run.GIB - done, done)
            file.truncate(SIZES[-1] * run.GIB)
            os.fsync(file.fileno())
        with open(target, "wb") as file:
            os.posix_fallocate(file.fileno(), 0, SIZES[-1] * run.GIB)
        self.pairs = {size: tuple(self.attach_beginning(file, size) for file in (source, target)) for size in SIZES}
        self.hide_other_disks()

    def attach_beginning(self, file, size):
        loop = run.run(["losetup", "--direct-io=on", f"--sizelimit={size * run.GIB}", "--show", "-f", file],
                       text=True).stdout.strip()
        self.loops.append(loop)
        return loop

    def hide_other_disks(self):
        """As in every bed, for more disks than two."""
        os.mkdir(self.path("block"))
        for loop in map(os.path.basename, self.loops):
            os.symlink(os.path.realpath(f"/sys/block/{loop}"), os.path.join(self.path("block"), loop))
        os.mkdir(self.path("run"), 0o755)
        run.run(["mount", "--bind", self.path("block"), "/sys/block"])
        run.run(["mount", "--bind", self.path("run"), "/run"])

    def number(self, loop):
        return sorted(self.loops, key=lambda path: os.stat(path).st_rdev).index(loop)

    def close(self):
        run.Bed.folders.remove(self.folder)
        for loop in self.loops:
            run.run(["losetup", "-d", loop])
        run.run(["umount", "/sys/block", "/run"])
        shutil.rmtree(self.folder, ignore_errors=True)


class Written(run.Contender):
    """One that says how large what it leaves behind is."""

    def __init__(self, *arguments, **options):
        super().__init__(*arguments, **options)
        self.lengths = []

    def remove_output(self):
        if os.path.exists(self.output):
            self.lengths.append(os.path.getsize(self.output))
        super().remove_output()


def remove(path):
    if os.path.exists(path):
        os.remove(path)


def measure(contenders, rounds, long):
    """Runs all contenders, (job, measure of what grows) to each, once a round; those with a measure of `long` in a
    third of the rounds. Captures come first, since others take the images that they leave."""
    generator = random.Random(0)
    for number in range(rounds):
        order = [key for key in contenders if key[1] != long or number < max(1, rounds // 3)]
        generator.shuffle(order)
        order.sort(key=lambda key: key[0] != "capture")
        start = time.monotonic()
        for key in order:
            contenders[key].measure(None)
        print(f"  round {number + 1} of {rounds}: {time.monotonic() - start:.0f} s", file=sys.stderr)


def sizes(work, rounds):
    """The part `size`: its contenders, and up to which size the source was written."""
    bed = DisksOfSizes(work)
    try:
        contenders = {}
        for size, (source, target) in bed.pairs.items():
            image = bed.path(f"{size}.vrnx")
            from_disk, to_disk = (str(bed.number(loop)) for loop in (source, target))
            for job, arguments, before in (
                    ("capture", ["--disk", from_disk, "--out", image], (functools.partial(remove, image),)),
                    ("verify", ["--in", image], ()),
                    ("restore", ["--in", image, "--disk", to_disk, "--confirm", "YES"], ()),
                    ("clone", ["--from", from_disk, "--to", to_disk, "--confirm", "YES"], ())):
                contenders[job, size] = run.Contender(f"{job} {size}", [run.VORNIX, job, *arguments],
                                                      (*before, run.drop_caches))
        measure(contenders, rounds, SIZES[-1])
        return contenders, bed.written
    finally:
        bed.close()


def chains(bed, rounds):
    """The part `chain`."""
    contenders = {}
    for links in LINKS:
        folding = run.fold_job(bed, links).contenders[0]
        last = bed.path("link0.vrnx" if links == 1 else f"link{links}-{links - 1}.vrnx")
        opening = f"{run.VORNIX} restore --in {last} --disk 15000 --confirm YES"
        target = str(bed.target_number)
        for job, command in (
                ("opening", f"for i in $(seq {OPENINGS}); do {opening}; test $? = 1 || exit 2; done"),
                ("verify", [run.VORNIX, "verify", "--in", last]),
                ("restore", [run.VORNIX, "restore", "--in", last, "--disk", target, "--confirm", "YES"])):
            contenders[job, links] = run.Contender(f"{job} {links}", command, folding.before)
        contenders["consolidate", links] = folding
    measure(contenders, rounds, LINKS[-1])
    for (job, _), contender in contenders.items():
        if job == "opening":
            contender.seconds, contender.user, contender.system = (
                [value / OPENINGS for value in values]
                for values in (contender.seconds, contender.user, contender.system))
    return contenders


def shares(bed, rounds):
    """The part `share`. The disk's chunks are those of one of two files, in memory as the disk is."""
    before, after = (os.path.join(bed.disks, name) for name in ("before", "after"))
    shutil.copyfile(bed.source, before)
    run.write_disk(after, bed.size, "changed")
    run.change_disk(after, bed.size, 100, "changed")
    count = bed.size // run.CHUNK
    order = random.Random("share").sample(range(count), count)
    machine = bed.machine({"current_epoch": 16})
    run.run([run.BENCH, machine, "capture", "--disk", "1", "--out", bed.path("base.vrnx")])

    changed = set()

    def change(share):
        wanted = set(order[:round(count * share / 100)])
        with open(bed.source, "r+b") as disk, open(before, "rb") as old, open(after, "rb") as new:
            for chunk in wanted ^ changed:
                file = new if chunk in wanted else old
                file.seek(chunk * run.CHUNK)
                disk.seek(chunk * run.CHUNK)
                disk.write(file.read(run.CHUNK))
            disk.flush()
            os.fsync(disk.fileno())
        changed.clear()
        changed.update(wanted)
        bits = bytearray(bed.size // 65536 // 8)
        for chunk in changed:
            bits[chunk * 8:chunk * 8 + 8] = b"\xff" * 8
        bed.machine({"active": 1, "has_previous_epoch": 1, "previous_epoch": 16, "current_epoch": 17,
                     "bitmap": bits.hex()})

    made = ["--base", bed.path("base.vrnx"), "--out", bed.path("x.vrnx"), "--thin"]
    contenders = {}
    for share in SHARES:
        prepared = (functools.partial(change, share), run.drop_caches)
        contenders["tracked", share] = Written(
            f"tracked {share}", [run.BENCH, machine, "capture", "--disk", "1", *made], prepared, output=made[3])
        contenders["compared", share] = Written(
            f"compared {share}", [run.VORNIX, "capture", "--disk", str(bed.source_number), *made], prepared,
            output=made[3])
    measure(contenders, rounds, None)
    return contenders


def seconds_of(contender, digits=2):
    return f"{statistics.median(contender.seconds):.{digits}f} ({min(contender.seconds):.{digits}f} to " \
           f"{max(contender.seconds):.{digits}f})"


def by_job(contenders):
    """In the order in which they came, the jobs first."""
    jobs = list(dict.fromkeys(job for job, _ in contenders))
    return sorted(contenders.items(), key=lambda item: jobs.index(item[0][0]))


def table_of_sizes(contenders):
    lines = ["| Job | GiB | Rounds | Seconds (least to most) | Seconds a GiB | User CPU s a GiB | Peak MiB |",
             "|---|---:|---:|---:|---:|---:|---:|"]
    for (job, size), contender in by_job(contenders):
        lines.append(f"| {job} | {size} | {len(contender.seconds)} | {seconds_of(contender)} | "
                     f"{statistics.median(contender.seconds) / size:.2f} | "
                     f"{statistics.median(contender.user) / size:.2f} | {max(contender.peak):.0f} |")
    return lines


def table_of_chains(contenders):
    lines = ["| Job | Images | Rounds | Seconds (least to most) | User CPU s | Peak MiB |",
             "|---|---:|---:|---:|---:|---:|"]
    for (job, links), contender in by_job(contenders):
        lines.append(f"| {job} | {links} | {len(contender.seconds)} | {seconds_of(contender, 3)} | "
                     f"{statistics.median(contender.user):.3f} | {max(contender.peak):.0f} |")
    return lines


def table_of_shares(contenders):
    lines = ["| Thin capture | Changed | Rounds | Seconds (least to most) | User CPU s | MiB written |",
             "|---|---:|---:|---:|---:|---:|"]
    for (mode, share), contender in by_job(contenders):
        lines.append(f"| {mode} | {share} % | {len(contender.seconds)} | {seconds_of(contender, 3)} | "
                     f"{statistics.median(contender.user):.2f} | {statistics.median(contender.lengths) / 2**20:.2f} |")
    return lines


def lines_of(contenders, values=lambda contender: contender.seconds):
    """What a plot shows of them."""
    points = {}
    for (job, grown), contender in contenders.items():
        measured = values(contender)
        points.setdefault(job, []).append((grown, statistics.median(measured), min(measured), max(measured)))
    return [plot.Line(job, at) for job, at in points.items()]


def panel(title, across, up, lines, ticks, logarithmic=True):
    values = [value for line in lines for point in line.points for value in point[1:]]
    return plot.panel(title, plot.Axis(across, ticks, logarithmic, list(ticks)), plot.Axis(up, values, logarithmic),
                      lines)


def plot_of(of_sizes, of_chains, of_shares):
    written = lines_of(of_shares, lambda contender: [length / 2**20 for length in contender.lengths])
    steps = (0, 25, 50, 75, 100)
    return plot.drawing([
        panel("Size of the disk", "GiB", "seconds", lines_of(of_sizes), SIZES),
        panel("Length of the chain, 1 GiB", "images", "seconds", lines_of(of_chains), LINKS),
        panel("Thin capture of 1 GiB", "changed chunks, %", "seconds", lines_of(of_shares), steps, False),
        panel("What it writes", "changed chunks, %", "MiB", written, steps, False)])


def page_of(of_sizes, written, of_chains, of_shares, rounds):
    source = "" if written == SIZES[-1] else \
        f" There was no room for a source of {SIZES[-1]} GiB: its last {SIZES[-1] - written} GiB were a hole."
    return "\n".join([
        "# How the cost grows", "",
        f"Medians of {rounds} interleaved rounds, fewer where a table says so, by `benchmarks/growth.py`, at whose "
        f"head stands what is measured, on {run.describe_machine()}, {time.strftime('%Y-%m-%d')}.", "",
        "![Seconds against size, length of the chain and share of changed chunks, and what is written](growth.svg)", "",
        "## Size of the disk", "", f"Disks and images in the work folder, cold.{source}", "",
        *table_of_sizes(of_sizes), "",
        "## Length of the chain", "",
        "A disk of 1 GiB in memory, a fiftieth of the chunks changed in each image; warm.", "",
        *table_of_chains(of_chains), "",
        "## Share of changed chunks", "", "Thin captures of 1 GiB in memory, cold.", "",
        *table_of_shares(of_shares), ""])


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--update", action="store_true")
    parser.add_argument("--mib", type=int, default=1024)
    parser.add_argument("--work", default=os.path.join(BUILDS, "work"))
    arguments = parser.parse_args()
    if arguments.update and arguments.mib != 1024:
        parser.error("the page is of disks of 1 GiB and more")
    run.enter_namespace()
    start = time.monotonic()
    run.GIB = arguments.mib << 20
    os.makedirs(BUILDS, exist_ok=True)
    of_sizes, written = sizes(arguments.work, arguments.rounds)
    bed = run.Bed(arguments.work, "memory", 1)
    try:
        of_chains = chains(bed, arguments.rounds)
        of_shares = shares(bed, arguments.rounds)
    finally:
        bed.close()
    folder = run.HERE if arguments.update else BUILDS
    page = page_of(of_sizes, written, of_chains, of_shares, arguments.rounds)
    for name, text in (("growth.md", page), ("growth.svg", plot_of(of_sizes, of_chains, of_shares))):
        with open(os.path.join(folder, name), "w", encoding="utf-8") as file:
            file.write(text)
    print(page, end="")
    print(f"  {time.monotonic() - start:.0f} s in all", file=sys.stderr)
    return 0


if __name__ == "__main__":
    sys.exit(main())
