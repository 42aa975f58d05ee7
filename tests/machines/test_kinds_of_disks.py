"""Every kind of disk that a computer has: listed as the pages say, captured, and restored onto every other kind."""

import json
import re

import computer_suite
import image
import suite
from console import gib
from disks import KINDS, MIB, Disk
from kernel import FULL
from machine import pattern

# Everything that is a disk, and the size of its logical sectors.
SECTOR_SIZES = {kind: 4096 if "4096" in kind else 512 for kind in KINDS if kind not in ("floppy", "cd-rom")}
SIZE = 5 * MIB  # two chunks, the second a short one


class KindsOfDisks(computer_suite.Story):
    long = True

    def every_kind(self):
        """A disk of each kind, each with bytes of its own; an SD card has a size that is a power of two."""
        disks = [Disk(SIZE + number * 65536, kind, pattern(SIZE + number * 65536, kind))
                 for number, kind in enumerate(SECTOR_SIZES) if kind != "sd-card"]
        return disks + [Disk(8 * MIB, "sd-card", pattern(8 * MIB, "sd-card"))]

    def test_each_kind_is_listed_and_what_is_no_disk_is_not(self):
        disks = self.every_kind()
        # A second namespace of the same drive, a disk that cannot be written, and two that are no disks.
        disks += [Disk(20 * MIB, "nvme"), Disk(21 * MIB, "virtio-blk", read_only=True)]
        others = [Disk(2 * MIB, "cd-rom", read_only=True), Disk(1474560, "floppy")]
        # A reader without a card is there as well.
        computer = self.computer(*disks, *others, kernel=FULL, programs=["lsblk"],
                                 arguments=["-device", "sdhci-pci,id=empty-reader"])
        computer.succeed("[ -b /dev/sr0 ] && [ -b /dev/fd0 ]")
        numbers = {computer.number(disk): disk for disk in disks}
        listed = computer.succeed("vornix list-disks").splitlines()
        self.assertEqual(listed, [
            f"PhysicalDrive{number:<2} {gib(disk.size):>9} GiB  sector {SECTOR_SIZES[disk.kind]} bytes"
            for number, disk in sorted(numbers.items())])
        known = {line.split()[0] for line in computer.succeed("lsblk --nodeps --noheadings -o NAME,TYPE").splitlines()
                 if line.split()[1] == "disk" and not line.startswith("fd")}
        self.assertEqual(known, {computer.device(disk) for disk in disks})
        shown = {disk["number"]: disk["node"] for disk in
                 json.loads(computer.succeed("vornix-disks --json"))["disks"]}
        self.assertEqual(shown, {number: f"/dev/{computer.device(disk)}" for number, disk in numbers.items()})
        refused = computer.run(f"vornix capture --disk {len(disks)} --out /tmp/a.vrnx")
        self.expect_failure(refused, "could not open source disk for raw read", 2)
        self.count("kind of disk", "listed, with floppy, CD-ROM and empty card reader left out", len(disks), [])

    def test_each_kind_comes_back_on_every_other_kind(self):
        disks = self.every_kind()
        large = Disk(512 * MIB)
        computer = self.computer(*disks, large, kernel=FULL, modules=["ext4"], programs=["mkfs.ext4"])
        name = computer.device(large)
        computer.succeed(f"mkfs.ext4 -q -E lazy_itable_init=1 /dev/{name} && mount /dev/{name} /mnt")
        numbers = {disk: computer.number(disk) for disk in disks}
        contents = {disk: disk.contents for disk in disks}
        troubles, tried = [], 0
        for source in disks:
            captured = computer.run(f"vornix capture --disk {numbers[source]} --out '/mnt/{source.id}.vrnx'")
            self.expect_success(captured, "Capture complete")
            self.expect_success(computer.run(f"vornix verify --in /mnt/{source.id}.vrnx"), "Verify OK")
        for source in disks:
            for target in disks:
                if target is source:
                    continue
                tried += 1
                command = f"vornix restore --in /mnt/{source.id}.vrnx --disk {numbers[target]} --confirm YES"
                troubles += self.trouble_with_restore(computer.run(command), source, target, contents)
        self.count("kind of disk", f"each of {len(disks)} captured and restored onto every other, byte for byte",
                   f"{tried} pairs", troubles)

    @staticmethod
    def trouble_with_restore(result, source, target, contents):
        """A target that is large enough takes the bytes and keeps what is behind them; any other is left as it was."""
        plain, before = source.contents, contents[target]
        where = f"{source.kind} onto {target.kind}: "
        sector = SECTOR_SIZES[target.kind]
        if len(plain) > target.size:
            fits, status = before, 1
        else:
            fits, status = plain + before[len(plain):], 0
            if len(plain) % sector:
                return [where + "a length that the case should not have"]
        contents[target] = fits
        if result.status != status:
            return [where + str(result)]
        return [] if target.bytes() == fits else [where + "the target holds other bytes"]

    def test_a_disk_that_cannot_be_written_is_read_and_refused(self):
        contents = pattern(SIZE, "source")
        source, large = Disk(SIZE, "virtio-scsi 512", contents, read_only=True), Disk(64 * MIB)
        computer = self.computer(source, large, modules=["ext4"], programs=["mkfs.ext4"])
        name, number = computer.device(large), computer.number(source)
        computer.succeed(f"mkfs.ext4 -q /dev/{name} && mount /dev/{name} /mnt")
        self.expect_success(computer.run(f"vornix capture --disk {number} --out /mnt/a.vrnx"), "Capture complete")
        refused = computer.run(f"vornix restore --in /mnt/a.vrnx --disk {number} --confirm YES")
        self.expect_failure(refused, f"Could not open disk {number} exclusively for writing", 19)
        self.assertEqual(source.bytes(), contents)

    def test_an_image_is_made_from_a_disk_that_is_read_over_usb(self):
        """The file that the computer writes is an image for the second reader here."""
        contents = pattern(SIZE, "stick")
        source, large = Disk(SIZE, "usb", contents), Disk(16 * MIB, "ahci")
        computer = self.computer(source, large)
        name = computer.device(large)
        number = computer.number(source)
        computer.succeed(f"mount -t tmpfs none /mnt && vornix capture --disk {number} --out /mnt/a.vrnx")
        length = int(computer.succeed(f"cat /mnt/a.vrnx > /dev/{name}; sync; stat -c %s /mnt/a.vrnx"))
        path = f"{self.folder}/a.vrnx"
        with open(path, "wb") as file:
            file.write(large.bytes()[:length])
        self.assertEqual(image.check_image(path), [])
        self.assertEqual(image.reference_plain_bytes(path), contents)
        self.assertTrue(re.fullmatch(r"sd[ab]", name), name)


if __name__ == "__main__":
    suite.main()
