"""Plugs are pulled while the program works: of the source, the target, and the disk with the images.

The disks are slowed down, so that a run lasts for seconds and a plug can be pulled when so much has been moved.
The run has to end by itself, with status 1 and a last error, and nothing bears the name of an image that is none.

A case is one computer, with a disk for each moment at which a plug is pulled: that computer has to go on without it.
"""

import os
import re
import shutil
import subprocess
import time

import computer_suite
import suite
from disks import MIB, Disk
from image import build_image, reference_plain_bytes
from machine import pattern
from write_log import Replay, read_log

CHUNK = 4 * MIB
SIZE = 15 * MIB  # four chunks, of which each takes four seconds and the last one three
TARGET_SIZE = 31 * MIB  # of what a pulled target takes: who goes on without it comes to the end of that
STEP = 65536  # by which disks of one kind differ, so that each is found
SLOW = ["-object", "throttle-group,id=slow,x-bps-total=1048576"]
MOMENTS = (0, 1, 30, 70)  # percent that the kernel has read from the disk or written to it at least
BEHIND = 2 * CHUNK  # what the program may have taken for written while the disk has not
PATIENCE = 600  # seconds until a run counts as one that does not end

# What is pulled: the kind of disk, which of the three, the command.
CASES = {
    "source of a capture": ("virtio-blk", "source", "capture --disk {source} --out {images}/new.vrnx"),
    "source of a capture, USB": ("usb", "source", "capture --disk {source} --out {images}/new.vrnx"),
    "image disk of a capture": ("virtio-blk", "images", "capture --disk {source} --out {images}/new.vrnx"),
    "target of a restore": ("virtio-scsi 512", "target",
                            "restore --in {images}/old.vrnx --disk {target} --confirm YES"),
    "image disk of a restore": ("virtio-blk", "images",
                                "restore --in {images}/old.vrnx --disk {target} --confirm YES"),
    "source of a clone": ("virtio-scsi 512", "source", "clone --from {source} --to {target} --confirm YES"),
    "target of a clone": ("virtio-blk", "target", "clone --from {source} --to {target} --confirm YES"),
    "image disk of a consolidation": ("virtio-blk", "images",
                                      "consolidate --in {images}/old.vrnx --out {images}/new.vrnx"),
}


class PulledPlugs(computer_suite.Story):
    long = True

    def disks_with_an_image(self, count):
        """The disk with a file system that has the image old.vrnx of the source on it, so many times. There is room for
        another one."""
        made = []
        folder = os.path.join(self.folder, "old")
        os.mkdir(folder)
        build_image(os.path.join(folder, "old.vrnx"), self.good, chunk_size=CHUNK)
        for number in range(count):
            disk = Disk(2 * self.size + 18 * MIB + number * STEP)
            disk.file = os.path.join(self.folder, f"images{number}.img")
            with open(disk.file, "wb") as file:
                file.truncate(disk.size)
            subprocess.run(["mkfs.ext4", "-q", "-d", folder, disk.file], check=True, capture_output=True)
            made.append(disk)
        return made

    def computer_of(self, kind, role):
        """A computer that has, in one of the roles, a slow disk of the kind for each moment, and its disks by role."""
        counts = {name: len(MOMENTS) if name == role else 1 for name in ("source", "target", "images")}
        self.size = TARGET_SIZE if role == "target" else SIZE
        self.good = pattern(self.size, "source")
        disks = {"source": [Disk(self.size + number * STEP, contents=self.good) for number in range(counts["source"])],
                 "target": [Disk(self.size + MIB + number * STEP) for number in range(counts["target"])],
                 "images": self.disks_with_an_image(counts["images"])}
        for number, disk in enumerate(disks[role]):
            disk.log = os.path.join(self.folder, f"pulled{number}.log")
            with open(disk.log, "wb"):
                pass
            disk.kind = kind
            disk.filters = [("throttle", {"throttle-group": "slow"}),
                            ("blklogwrites", {"log": {"driver": "file", "filename": disk.log}})]
        computer = self.computer(*disks["source"], *disks["target"], *disks["images"], modules=["ext4"],
                                 arguments=SLOW)
        for number, disk in enumerate(disks["images"]):
            computer.succeed(f"mkdir /mnt/{number} && mount /dev/{computer.device(disk)} /mnt/{number}")
        # Numbers stay with their disks when others go.
        self.numbers = {disk.id: computer.number(disk) for of_role in disks.values() for disk in of_role}
        return computer, disks

    def pulled(self, computer, disks, case, place):
        """One run, of which the plug is pulled at the moment of this place: what is not as it should be, as lines."""
        _, role, command = CASES[case]
        used = {name: of_role[place if name == role else 0] for name, of_role in disks.items()}
        folder = f"/mnt/{disks['images'].index(used['images'])}"
        where = f"{case} at {MOMENTS[place]} %"
        # What the run of another moment has left is not this one's.
        computer.succeed(f"rm -f {folder}/new.vrnx* /run/said /run/failed /run/ended")
        if role != "target":
            computer.succeed(f"dd if=/dev/zero of=/dev/{computer.device(used['target'])} bs=1M count=1 "
                             f"seek={self.size // MIB - 1} 2>&1 && sync")
        command = command.format(source=self.numbers[used["source"].id], target=self.numbers[used["target"].id],
                                 images=folder)
        device = computer.device(used[role])
        before = self.moved(computer, device)
        computer.succeed(f"(vornix {command} > /run/said 2> /run/failed; s=$?; [ -e /sys/block/{device} ] || "
                         'echo "the disk is gone" >> /run/said; echo $s > /run/ended) > /dev/null 2>&1 &')
        while self.moved(computer, device) - before < max(1, MOMENTS[place] * self.size // 100):
            if computer.run("[ -e /run/ended ]").status == 0:
                return []  # over before the plug could be pulled, on a machine that has no time for it; not counted
            time.sleep(0.3)
        self.pulls += 1
        computer.unplug(used[role])
        wait = f"for i in $(seq {PATIENCE * 5}); do [ ! -e /run/ended ] || exit 0; sleep 0.2; done; exit 1"
        if computer.run(wait, timeout=4 * PATIENCE).status != 0:
            return [f"{where}: does not end: {computer.succeed('cat /run/said /run/failed')}"]
        status, said = computer.succeed("cat /run/ended").strip(), computer.succeed("cat /run/failed /run/said")
        computer.run("sync")
        good, troubles = used["source"].bytes() if command.startswith("capture") else self.good, []
        if status == "0":
            if "the disk is gone" not in said:
                self.pulls -= 1  # over before the kernel knew that the plug was pulled
            # All was done before the plug was pulled; then all of it has to be where it belongs.
            elif "--out" in command:
                if not self.stands_for(self.find_image(used["images"]), good):
                    troubles.append(f"{where}: a success, and there is no image of the disk")
            elif not used["target"].bytes().startswith(good) or (
                    role == "target" and not self.keeps(used["target"], good)):
                troubles.append(f"{where}: a success, and the target does not hold the bytes")
        elif status != "1" or not re.search(r"FATAL: .*\(GetLastError=[1-9]", said):
            troubles.append(f"{where}: status {status}: {said[-600:]}")
        elif role == "target" and self.reported(said) > self.taken(used["target"]) + BEHIND:
            troubles.append(f"{where}: went on without the target, which had taken {self.taken(used['target'])} bytes: "
                            + said[-600:])
        return troubles + self.trouble_on(used["images"], where, good)

    def moved(self, computer, device):
        """How many bytes the kernel has read from the disk and written to it; many where it is gone."""
        stat = computer.run(f"cat /sys/block/{device}/stat").text.split()
        return (int(stat[2]) + int(stat[6])) * 512 if stat else self.size

    @staticmethod
    def reported(said):
        """How many bytes the run has said to have moved."""
        progress = re.findall(r"(\d+) / \d+ MiB", said)
        return int(progress[-1]) * MIB if progress else 0

    @staticmethod
    def taken(disk):
        """How many bytes were written to the disk, by the log of its writes."""
        return sum(len(entry.write.data) for entry in read_log(disk.log) if entry.write)

    @staticmethod
    def keeps(disk, good):
        """Whether the disk has what it was told to keep, by the log of its writes and flushes."""
        replay = Replay(bytes(disk.size), read_log(disk.log), "")
        for _ in replay.states(0):
            pass
        return replay.durable[:len(good)] == good

    def find_image(self, images, name="new.vrnx"):
        """Takes the file out of the disk with the images as it is now, brought back as after a pulled plug: its path,
        or None."""
        disk, path = f"{self.folder}/looked.img", f"{self.folder}/{name}"
        shutil.copy(images.file, disk)
        subprocess.run(["e2fsck", "-p", disk], capture_output=True, check=False)
        listed = subprocess.run(["debugfs", "-R", "ls -p /", disk], capture_output=True, text=True, check=False)
        if f"/{name}/" not in listed.stdout:
            return None
        subprocess.run(["debugfs", "-R", f"dump /{name} {path}", disk], capture_output=True, check=True)
        return path

    def trouble_on(self, images, where, good):
        """What is wrong with what is left on the disk with the images."""
        if self.find_image(images, "old.vrnx") is None:
            return [f"{where}: the old image is gone"]
        path = self.find_image(images)
        # The plug may have been pulled when all was written and only the last look at it was missing.
        if path is not None and self.verifies(path) and reference_plain_bytes(path) != good:
            return [f"{where}: what is left verifies, and is another disk"]
        return []

    def verifies(self, path):
        return subprocess.run([self.settings.program, "verify", "--in", path], capture_output=True,
                              check=False).returncode == 0

    def stands_for(self, path, good):
        return path is not None and self.verifies(path) and reference_plain_bytes(path) == good

    def plug_is_pulled(self, case):
        self.pulls = 0
        computer, disks = self.computer_of(*CASES[case][:2])
        troubles = [trouble for place in range(len(MOMENTS)) for trouble in self.pulled(computer, disks, case, place)]
        self.assertGreater(self.pulls, 1)
        self.count("pulled plug", case, f"{self.pulls} moments", troubles)

    def test_the_source_of_a_capture(self):
        self.plug_is_pulled("source of a capture")

    def test_the_source_of_a_capture_over_usb(self):
        self.plug_is_pulled("source of a capture, USB")

    def test_the_image_disk_of_a_capture(self):
        self.plug_is_pulled("image disk of a capture")

    def test_the_target_of_a_restore(self):
        self.plug_is_pulled("target of a restore")

    def test_the_image_disk_of_a_restore(self):
        self.plug_is_pulled("image disk of a restore")

    def test_the_source_of_a_clone(self):
        self.plug_is_pulled("source of a clone")

    def test_the_target_of_a_clone(self):
        self.plug_is_pulled("target of a clone")

    def test_the_image_disk_of_a_consolidation(self):
        self.plug_is_pulled("image disk of a consolidation")


if __name__ == "__main__":
    suite.main()
