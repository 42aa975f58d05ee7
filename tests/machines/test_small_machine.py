"""Little memory: all commands in a whole computer of 256 MiB, and runs with 256 MiB on a disk of 64 GiB.

A virtual computer computes too slowly for the large disk. So that is a described disk and then a real block device of
this system, and what may not pass 256 MiB are the run and all that the kernel keeps in memory for it.
"""

import copy
import hashlib
import os
import shutil
import subprocess

import computer_suite
import image
import loop_disks
import suite
from disks import MIB, Disk
from incremental import marked
from machine import SETTINGS, pattern

MEMORY = 256 * MIB
LARGE = 65536 * MIB
CHUNK = 4 * MIB
BESIDE = 16 * MIB  # what a run takes beyond its buffers, its tables and the blocks of its transfers
GROUPS = "/sys/fs/cgroup/memory"
ZRAM = "/sys/class/zram-control"


class MemoryGroup:
    """Processes that have no more memory than `limit` together, with what the kernel keeps for them. Raises OSError
    where there is no such thing."""

    def __init__(self, name, limit):
        self.path = os.path.join(GROUPS, name)
        os.mkdir(self.path)
        try:
            with open(os.path.join(self.path, "memory.limit_in_bytes"), "w", encoding="ascii") as file:
                file.write(str(limit))
        except OSError:
            self.remove()
            raise

    def inside(self, *command):
        """The command, so that it runs in the group."""
        return ["sh", "-c", 'echo $$ > "$0/cgroup.procs" && exec "$@"', self.path, *command]

    def peak(self):
        with open(os.path.join(self.path, "memory.max_usage_in_bytes"), encoding="ascii") as file:
            return int(file.read())

    def remove(self):
        os.rmdir(self.path)


class MemoryDisk:
    """A disk in memory of this system, where pages of zeros take none."""

    def __init__(self, size):
        with open(f"{ZRAM}/hot_add", encoding="ascii") as file:
            self.number = int(file.read())
        self.path = f"/dev/zram{self.number}"
        self._write(f"/sys/block/zram{self.number}/disksize", size)

    @staticmethod
    def _write(path, value):
        with open(path, "w", encoding="ascii") as file:
            file.write(str(value))

    def remove(self):
        self._write(f"/sys/block/zram{self.number}/reset", 1)
        self._write(f"{ZRAM}/hot_remove", self.number)


class LittleMemory(computer_suite.Counted):
    EPOCH = 0x20
    CHANGED = 500  # the chunk

    def setUp(self):
        super().setUp()
        if not SETTINGS.long:
            self.skipTest("takes minutes; VORNIX_LONG is not set")
        reason = loop_disks.reason_to_skip()
        if reason:
            self.skipTest(reason)
        try:
            self.group = MemoryGroup(os.path.basename(self.folder), MEMORY)
        except OSError as error:
            self.skipTest(f"the memory of a process cannot be limited here: {error}")
        self.addCleanup(self.group.remove)
        self.troubles = []

    def machine_with(self, size, room=None):
        """A machine with a disk 1 of that size, and an image base.vrnx of it as it was before one chunk changed.
        `room`: the size of a disk in memory for the images, which only `enter_namespace` allows."""
        settings = copy.copy(SETTINGS)
        settings.runner = self.group.inside()
        machine = self.machine(source=0, target=bytes(512), settings=settings)
        if room is not None:
            disk = MemoryDisk(room)
            self.addCleanup(disk.remove)
            subprocess.run(["mkfs.xfs", "-q", "-K", disk.path], check=True, capture_output=True)
            subprocess.run(["mount", disk.path, machine.work], check=True)
            self.addCleanup(subprocess.run, ["umount", machine.work], check=True)
        self.leave_unjudged(machine, "the other readers have more memory, and would take as long again")
        header = image.Header(size, CHUNK, size // CHUNK, epoch=self.EPOCH)
        image.write_sparse_image(machine.path("base.vrnx"), size // CHUNK, chunk_size=CHUNK, header=header)
        os.truncate(machine.disk_path(1), size)
        machine.poke_disk(1, self.CHANGED * CHUNK, pattern(CHUNK, "changed"))
        self.disks = loop_disks.LoopDisks(machine.folder)
        self.addCleanup(self.disks.detach_all)
        return machine

    def expect_run(self, machine, command, said):
        """A run of the native program, on real block devices."""
        done = subprocess.run(self.group.inside(*self.disks.command(*command.split())), cwd=machine.work,
                              capture_output=True, text=True, check=False, timeout=7200, stdin=subprocess.DEVNULL)
        if (done.returncode, done.stderr) != (0, "") or said not in done.stdout:
            self.troubles.append(f"{command}: {done.returncode} {done.stderr} {done.stdout[-300:]}")

    def expect_images(self, machine, count, *names):
        """They have the changed chunk, and beside it those of the base; and the runs had no more than their memory."""
        zeros = hashlib.sha256(bytes(CHUNK)).digest()
        changed = hashlib.sha256(pattern(CHUNK, "changed")).digest()
        hashes = [changed if number == self.CHANGED else zeros for number in range(count)]
        for name in names:
            if not machine.exists(name):
                self.troubles.append(f"there is no {name}")
            elif [record.hash for record in image.read_table(machine.path(name))[1]] != hashes:
                self.troubles.append(f"{name} has other chunks")
        if not 16 * MIB < self.group.peak() <= MEMORY:
            self.troubles.append(f"the runs had {self.group.peak()} bytes")

    def captured_tracked(self, machine, size):
        """A tracked thin capture of the changed chunk, by the described machine; gives what such captures print."""
        count = size // CHUNK
        machine.tracker([{"number": 1, "has_previous_epoch": 1, "previous_epoch": self.EPOCH,
                          "current_epoch": self.EPOCH + 1,
                          "bitmap": marked(size, 16, (self.CHANGED * CHUNK, CHUNK))}])
        result = machine.run("capture", "--disk", "1", "--base", "base.vrnx", "--thin", "--out", "tracked.vrnx",
                             timeout=7200)
        machine.runs.clear()  # its progress would bury any failure
        stored = f"(stored 1 of {count} chunks, {count - 1} are references to the base; read from disk: "
        if (result.status, result.stderr) != (0, b"") or f"{stored}1)".encode() not in result.stdout:
            self.troubles.append(f"tracked: {result.status} {result.stderr}")
        return stored

    def test_a_disk_of_64_gib(self):
        machine, count = self.machine_with(LARGE), LARGE // CHUNK
        stored = self.captured_tracked(machine, LARGE)
        number = self.disks.number(self.disks.attach_file(machine.disk_path(1)))
        self.expect_run(machine, f"capture --disk {number} --base base.vrnx --thin --out compared.vrnx",
                        f"{stored}{count})")
        self.expect_run(machine, "verify --in compared.vrnx", "Verify OK")
        self.expect_images(machine, count, "tracked.vrnx", "compared.vrnx")
        self.count("small memory", "runs with 256 MiB: a disk of 64 GiB captured tracked and compared, and verified",
                   "3 runs", self.troubles)

    def test_the_consolidation_of_the_large_disk(self):
        """Its image is written whole, which is more than a test may take of a disk here."""
        if not computer_suite.in_namespace() or not os.path.exists(ZRAM) or shutil.which("mkfs.xfs") is None:
            self.skipTest("there is no disk here where an image of 64 GiB takes no room")
        machine = self.machine_with(LARGE, LARGE + 4096 * MIB)
        self.captured_tracked(machine, LARGE)
        self.expect_run(machine, "consolidate --in tracked.vrnx --out full.vrnx", "Verify OK")
        self.expect_images(machine, LARGE // CHUNK, "tracked.vrnx", "full.vrnx")
        self.count("small memory", "runs with 256 MiB: a disk of 64 GiB captured tracked and consolidated", "2 runs",
                   self.troubles)

    def test_the_consolidation_on_a_plain_disk(self):
        """Of a smaller disk, since there its image takes its room."""
        size = 4096 * MIB
        machine = self.machine_with(size)
        number = self.disks.number(self.disks.attach_file(machine.disk_path(1)))
        self.expect_run(machine, f"capture --disk {number} --base base.vrnx --thin --out thin.vrnx", "Capture complete")
        self.expect_run(machine, "consolidate --in thin.vrnx --out full.vrnx", "Verify OK")
        self.expect_images(machine, size // CHUNK, "thin.vrnx", "full.vrnx")
        self.count("small memory", "runs with 256 MiB: a disk of 4 GiB captured thin and consolidated", "2 runs",
                   self.troubles)


class SmallComputer(computer_suite.Story):
    """All commands in one computer: what goes through its memory is several times as much as it has."""

    long = True
    SIZE = MEMORY // 2
    CHANGED = 17  # the chunk

    def measured(self, computer, command, handles, said):
        """A run that succeeds and has no more memory than promised: two buffers of a chunk, three blocks of a chunk for
        each handle that transfers, and what is beside."""
        result = computer.run(f"time -f %M -o /run/peak vornix {command}")
        peak = int(computer.succeed("tail -n 1 /run/peak")) * 1024
        self.peaks.append(peak)
        if result.status != 0 or result.errors or said not in result.text:
            self.troubles.append(f"{command}: {result.status} {result.errors} {result.text[-300:]}")
        if peak > BESIDE + (2 + 3 * handles) * CHUNK:
            self.troubles.append(f"{command}: a peak of {peak} bytes")

    def test_a_computer_of_256_mib(self):
        self.troubles, self.peaks = [], []
        contents = pattern(self.SIZE, "source")
        source, target = Disk(self.SIZE, contents=contents), Disk(self.SIZE + MIB)
        images = Disk(5 * self.SIZE // 2)
        computer = self.computer(source, target, images, modules=["ext4"], memory=MEMORY // MIB,
                                 programs=["mkfs.ext4", "time"], files={"/changed": pattern(65536, "changed")})
        place, name = self.CHANGED * CHUNK, computer.device(images)
        computer.succeed(f"mkfs.ext4 -q /dev/{name} && mount /dev/{name} /mnt")
        from_disk, onto = computer.number(source), computer.number(target)
        self.measured(computer, "list-disks", 0, f"PhysicalDrive{onto} ")
        self.measured(computer, f"capture --disk {from_disk} --out /mnt/base.vrnx", 2, "Capture complete")
        computer.succeed(f"dd if=/changed of=/dev/{computer.device(source)} bs=64k seek={place // 65536} && sync")
        contents = contents[:place] + pattern(65536, "changed") + contents[place + 65536:]
        self.measured(computer, f"capture --disk {from_disk} --base /mnt/base.vrnx --thin --out /mnt/thin.vrnx", 3,
                      f"stored 1 of {self.SIZE // CHUNK} chunks")
        self.measured(computer, "verify --in /mnt/thin.vrnx", 2, "Verify OK")
        self.measured(computer, "consolidate --in /mnt/thin.vrnx --out /mnt/full.vrnx", 3, "Verify OK")
        self.measured(computer, f"clone --from {from_disk} --to {onto} --confirm YES --verify", 2, "Clone complete")
        if target.bytes() != contents + bytes(MIB):
            self.troubles.append("the clone holds other bytes")
        computer.succeed(f"dd if=/dev/zero of=/dev/{computer.device(target)} bs=1M; sync")
        self.measured(computer, f"restore --in /mnt/full.vrnx --disk {onto} --confirm YES", 2, "Restore complete")
        if target.bytes() != contents + bytes(MIB):
            self.troubles.append("the target holds other bytes")
        self.count("small memory", f"a computer of 256 MiB with a disk of {self.SIZE // MIB} MiB: listed, captured, "
                   "captured thin, verified, consolidated, cloned, restored",
                   f"7 runs of at most {max(self.peaks) // MIB} MiB", self.troubles)


if __name__ == "__main__":
    computer_suite.enter_namespace()
    suite.main()
