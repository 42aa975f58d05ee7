"""The recovery medium: it starts, and brings a computer's disk back.

The computers are slow, and starting the medium is most of what a story takes: each story starts it once, and does in it
what belongs together.
"""

import os
import re
import subprocess

import bootable
import computer_suite
import recovery_medium
import suite
from disks import MIB, Disk
from recovery_medium import RescuedComputer


class Story(computer_suite.Story):
    long = True

    def setUp(self):
        super().setUp()
        reason = recovery_medium.reason_to_skip()
        if reason:
            self.skipTest(reason)

    def rescued(self, *disks, **options):
        computer = RescuedComputer(self.folder_of_computer(), recovery_medium.iso(), disks, **options)
        self.addCleanup(computer.stop)
        return computer.start()


class BroughtBack(bootable.Story, Story):
    """A computer's disk, captured and restored from the medium."""

    def erase(self, computer, disk):
        computer.succeed(f"dd if=/dev/zero of=/dev/{computer.device(disk)} bs=1M count={disk.size // MIB} "
                         "conv=fsync status=none")
        self.assertFalse(any(disk.bytes()), "the disk was not wiped")

    def restored(self, computer, disk, image, *options):
        number = computer.number(disk)
        self.erase(computer, disk)
        self.expect_success(computer.run(f"vornix restore --in {image} --disk {number} --confirm YES "
                                         + " ".join(options)), "Restore complete")
        computer.succeed("sync")
        self.assertTrue(disk.bytes() == disk.contents, "other bytes came back")

    def test_from_every_file_system_from_a_stick(self):
        disk = Disk(bootable.SIZE, "ahci", bytes(self.mbr_disk("home")))
        drive = Disk(300 * MIB, "usb")
        computer = self.rescued(disk, drive, drive="usb")
        number, name = computer.number(disk), f"/dev/{computer.device(drive)}"
        computer.succeed("printf 'label: gpt\\nsize=100MiB\\nsize=100MiB\\nsize=90MiB\\n' "
                         f"| sfdisk -q {name}; udevadm settle; "
                         f"mkfs.ext4 -q {name}1; mkfs.ntfs -q -Q {name}2; mkfs.exfat {name}3")
        for partition in (1, 2, 3):
            self.expect_success(computer.run(f"vornix-mount --write {name}{partition}"), "writable")
            self.expect_success(computer.run(f"vornix capture --disk {number} --out /mnt/images/disk.vrnx"),
                                "Capture complete")
            computer.succeed("umount /mnt/images")
            self.expect_success(computer.run(f"vornix-mount {name}{partition}"), "read-only")
            self.assertEqual(computer.run("touch /mnt/images/new").status, 1)
            self.expect_success(computer.run("vornix verify --in /mnt/images/disk.vrnx"), "Verify OK")
            self.restored(computer, disk, "/mnt/images/disk.vrnx")
            computer.succeed("umount /mnt/images")
        self.nothing_is_lost_by_mistake(computer, disk, drive, name)
        self.sealed_and_from_a_chain(computer, disk, name)
        computer.power_off()
        self.assertEqual(self.word_of(disk.file, []), "home")

    def nothing_is_lost_by_mistake(self, computer, disk, drive, name):
        """The medium and the drive with the images are refused as targets, and so is what is not confirmed."""
        computer.succeed(f"vornix-mount {name}1")
        drives = {medium: medium.bytes() for medium in (computer.medium, drive)}
        number = computer.number(disk)
        commands = [f"restore --in /mnt/images/disk.vrnx --disk {computer.number(medium)} --confirm YES"
                    for medium in drives]
        commands += [f"clone --from {number} --to {computer.number(medium)} --confirm YES" for medium in drives]
        commands += [f"restore --in /mnt/images/disk.vrnx --disk {number} {answer}"
                     for answer in ("", "--confirm yes", "--confirm Y", "--confirm NO")]
        commands += [f"restore --in /mnt/images/disk.vrn --disk {number} --confirm YES",
                     "restore --in /mnt/images/disk.vrnx --disk 15 --confirm YES"]
        for command in commands:
            self.assertEqual(computer.run(f"vornix {command}").status, 1, command)
        computer.succeed("sync")
        self.assertTrue(disk.bytes() == disk.contents, "the computer's disk was written")
        for medium, before in drives.items():
            self.assertTrue(medium.bytes() == before, f"the {medium.size} bytes of a drive were written")
        self.assertEqual(computer.run(f"vornix-mount {name}1").status, 1)  # another one is there already
        computer.succeed("umount /mnt/images")

    def sealed_and_from_a_chain(self, computer, disk, name):
        number, node = computer.number(disk), computer.device(disk)
        computer.succeed(f"vornix-mount --write {name}1; rm /mnt/images/*.vrnx; echo secret word > /run/password")
        password = "--password-file /run/password"
        computer.succeed(f"vornix capture --disk {number} --out /mnt/images/base.vrnx --encrypt {password}")
        changed = bytearray(disk.contents)
        changed[-4096:] = b"later".ljust(4096)
        computer.succeed("(echo -n later; head -c 4091 /dev/zero | tr '\\0' ' ') "
                         f"| dd of=/dev/{node} bs=4096 seek={disk.size // 4096 - 1} conv=fsync status=none")
        disk.contents = bytes(changed)
        self.assertTrue(disk.bytes() == disk.contents, "the change is another one")
        computer.succeed(f"vornix capture --disk {number} --base /mnt/images/base.vrnx --thin "
                         f"--out /mnt/images/thin.vrnx --encrypt {password}")
        computer.succeed("umount /mnt/images")
        computer.succeed(f"vornix-mount {name}1")
        self.assertIn("thin.vrnx", computer.succeed("vrnx list /mnt/images"))
        wrong = computer.run(f"echo another > /run/wrong; vornix restore --in /mnt/images/thin.vrnx --disk {number} "
                             "--confirm YES --password-file /run/wrong")
        self.assertEqual(wrong.status, 1, wrong)
        self.assertTrue(disk.bytes() == disk.contents, "a wrong password wrote the disk")
        self.restored(computer, disk, "/mnt/images/thin.vrnx", password)
        computer.succeed("umount /mnt/images")


class Made(Story):
    def test_what_lies_beside_it(self):
        medium = recovery_medium.iso()
        folder, name = os.path.split(medium)
        done = subprocess.run(["sha256sum", "--check", f"{name}.sha256"], cwd=folder, capture_output=True, text=True,
                              check=False)
        self.assertEqual(done.stdout, f"{name}: OK\n", done.stderr)
        self.assertLess(os.path.getsize(medium), 400 * MIB)
        with open(medium.removesuffix(".iso") + ".packages", encoding="ascii") as file:
            packages = dict(line.split() for line in file)
        path = os.path.join(recovery_medium.CHECKOUT, "packaging", "recovery", "packages")
        with open(path, encoding="ascii") as wanted:
            names = {name for name in (re.sub(r"\s*#.*", "", line).strip() for line in wanted) if name}
        names |= {"vornix", "vrnx", "libvrnx0", "nbdkit-plugin-vrnx"}
        self.assertEqual(names - set(packages), set())


if __name__ == "__main__":
    suite.main()
