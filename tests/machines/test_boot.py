"""A restored disk boots: the proof that nothing else gives.

A small disk with a boot loader, a kernel and a system of one program is captured in every way and comes back on blank
disks in every way. Each of them is then the only disk of a computer, whose firmware finds it by itself, and the system
on it has to say the word that it was given.
"""

import bootable
import suite
from bootable import SIZE
from computer import Computer
from disks import Disk

# What comes onto the blank disks, in this order.
WAYS = ("restored from a plain image", "restored from a thin image", "restored from a sealed image", "cloned",
        "restored from a consolidated image")


class Boot(bootable.Story):
    def every_copy_boots(self, make, title, firmware):
        source = Disk(SIZE, contents=make("new"))
        earlier = make("old")  # what the disk held before, for the base of a thin image
        others = [Disk(SIZE + (1 + number) * 65536) for number in range(len(WAYS))]
        computer = Computer(self.folder_of_computer(), [source, *others], memory=768)
        self.addCleanup(computer.stop)
        with computer:
            computer.settle()
            numbers = [computer.number(disk) for disk in computer.disks]
            computer.succeed("echo word > /tmp/password; mount -t tmpfs -o size=400m images /mnt")
            device = computer.device(source)
            with open(source.file, "r+b") as file:
                file.write(earlier)
            computer.succeed(f"vornix capture --disk {numbers[0]} --out /mnt/base.vrnx")
            with open(source.file, "r+b") as file:
                file.write(source.contents)
            computer.succeed(f"echo 3 > /proc/sys/vm/drop_caches; blockdev --flushbufs /dev/{device}")
            for command in (f"capture --disk {numbers[0]} --base /mnt/base.vrnx --thin --out /mnt/thin.vrnx",
                            "consolidate --in /mnt/thin.vrnx --out /mnt/full.vrnx",
                            f"restore --in /mnt/thin.vrnx --disk {numbers[2]} --confirm YES",
                            f"restore --in /mnt/full.vrnx --disk {numbers[5]} --confirm YES"):
                computer.succeed(f"vornix {command}")
            computer.succeed("rm /mnt/base.vrnx /mnt/thin.vrnx /mnt/full.vrnx")
            for command in (f"capture --disk {numbers[0]} --out /mnt/plain.vrnx",
                            f"capture --disk {numbers[0]} --out /mnt/sealed.vrnx --encrypt "
                            "--password-file /tmp/password",
                            f"restore --in /mnt/plain.vrnx --disk {numbers[1]} --confirm YES",
                            f"restore --in /mnt/sealed.vrnx --disk {numbers[3]} --confirm YES "
                            "--password-file /tmp/password",
                            f"clone --from {numbers[0]} --to {numbers[4]} --confirm YES"):
                computer.succeed(f"vornix {command}")
        troubles = []
        for way, disk in zip(WAYS, others):
            if disk.bytes()[:source.size] != source.bytes():
                troubles.append(f"{way}: other bytes than the source's")
            said = self.word_of(disk.file, firmware())
            if said != "new":
                troubles.append(f"{way}: {said}")
        self.count("boot", f"{title}: " + ", ".join(WAYS), f"{len(WAYS)} boots", troubles)

    def test_a_disk_that_efi_firmware_boots(self):
        self.every_copy_boots(self.gpt_disk, "GPT with an EFI system partition, under OVMF", self.efi)

    def test_a_disk_that_an_old_bios_boots(self):
        self.every_copy_boots(self.mbr_disk, "MBR with a loader in the gap, under SeaBIOS", lambda: [])


if __name__ == "__main__":
    suite.main()
