"""A disk number means one disk, while disks come and go and the program starts again and again."""

import re

import computer_suite
import suite
from disks import MIB, Disk
from machine import pattern


class DiskNumbers(computer_suite.Story):
    long = True

    @staticmethod
    def listed(computer):
        """Numbers and sizes as the program lists them."""
        return dict(re.findall(r"^PhysicalDrive([0-9]+) +([0-9.]+) GiB", computer.succeed("vornix list-disks"),
                               flags=re.M))

    def captured(self, computer, number, disk):
        """Whether the disk of this number is this one, by the bytes that a capture finds."""
        computer.succeed(f"rm -f /tmp/a.vrnx; vornix capture --disk {number} --out /tmp/a.vrnx")
        return disk.contents[:4096].hex() in computer.succeed("head -c 65536 /tmp/a.vrnx | xxd -p | tr -d '\\n'")

    def test_numbers_stay_with_their_disks(self):
        first, second, third = (Disk((16 + 16 * number) * MIB, contents=pattern(4096, f"disk {number}"))
                                for number in range(3))
        computer = self.computer(first, second, modules=["loop"])
        self.assertEqual(self.listed(computer), {"0": "0.02", "1": "0.03"})

        # The first one goes; the second one keeps its number, and number 0 is no disk any more.
        computer.unplug(first)
        computer.succeed(f"for i in $(seq 600); do grep -qx {first.size // 512} /sys/block/*/size || exit 0; "
                         "sleep 0.1; done; exit 1")
        self.assertEqual(self.listed(computer), {"1": "0.03"})
        self.expect_failure(computer.run("vornix capture --disk 0 --out /tmp/b.vrnx"), "could not open source disk", 2)
        self.assertTrue(self.captured(computer, 1, second))

        # Another one comes to the same place, under the same name of the kernel; it gets a number of its own.
        computer.plug(third, 2)
        self.assertEqual(computer.device(third), "vda")
        self.assertEqual(self.listed(computer), {"1": "0.03", "2": "0.05"})
        self.assertTrue(self.captured(computer, 2, third))
        self.assertTrue(self.captured(computer, 1, second))

        # Loop devices come and go behind it.
        computer.succeed("truncate -s 80M /tmp/loop && losetup /dev/loop1 /tmp/loop")
        self.assertEqual(self.listed(computer), {"1": "0.03", "2": "0.05", "3": "0.08"})
        computer.succeed("losetup -d /dev/loop1")
        self.assertEqual(self.listed(computer), {"1": "0.03", "2": "0.05"})
        computer.succeed("truncate -s 96M /tmp/loop && losetup /dev/loop1 /tmp/loop")
        self.assertEqual(self.listed(computer), {"1": "0.03", "2": "0.05", "4": "0.09"})
        self.expect_failure(computer.run("vornix capture --disk 3 --out /tmp/b.vrnx"), "could not open source disk", 2)
        self.count("disk numbers", "disks and loop devices pulled and plugged, 11 runs of the program", "7 changes", [])


if __name__ == "__main__":
    suite.main()
