"""One whole computer: it boots, lists its disks, captures one kind of disk and restores onto another.

What makes the difference to the described machine is that nothing here is described: kernel, drivers, disks with caches
and sectors of their own.
"""

import computer_suite
import suite
from console import gib
from disks import MIB, Disk
from machine import pattern


class Smoke(computer_suite.Story):
    def test_a_disk_of_one_kind_comes_back_on_one_of_another(self):
        contents = pattern(9 * MIB, "source")
        source, images = Disk(len(contents), "virtio-blk", contents), Disk(32 * MIB, "virtio-scsi 512")
        target = Disk(9 * MIB + 4096, "nvme")
        computer = self.computer(source, images, target, modules=["ext4"], programs=["mkfs.ext4"])
        numbers = {disk: computer.number(disk) for disk in (source, images, target)}

        listed = computer.succeed("vornix list-disks")
        self.assertEqual(sorted(listed.splitlines()), sorted(
            f"PhysicalDrive{numbers[disk]:<2} {gib(disk.size):>9} GiB  sector 512 bytes" for disk in numbers))

        computer.succeed(f"mkfs.ext4 -q /dev/{computer.device(images)} && mount /dev/{computer.device(images)} /mnt")
        captured = computer.run(f"vornix capture --disk {numbers[source]} --out /mnt/source.vrnx")
        self.expect_success(captured, "Capture complete: /mnt/source.vrnx")
        self.expect_success(computer.run("vornix verify --in /mnt/source.vrnx"),
                            "Verify OK - all 3 chunks match their recorded hash.")
        refused = computer.run(f"vornix restore --in /mnt/source.vrnx --disk {numbers[images]} --confirm YES")
        self.expect_failure(refused, f"Could not open disk {numbers[images]} exclusively for writing", 32)
        restored = computer.run(f"vornix restore --in /mnt/source.vrnx --disk {numbers[target]} --confirm YES")
        self.expect_success(restored, "Restore complete.")
        self.assertEqual(target.bytes(), contents + bytes(4096), "the target does not hold the bytes of the source")
        self.assertEqual(source.bytes(), contents, "the source has changed")


if __name__ == "__main__":
    suite.main()
