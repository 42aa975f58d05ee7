"""Small disks that boot, and what a computer says that has nothing but such a disk.

On each is a boot loader, a kernel and a system of one program, which says the word that it was given.
"""

import glob
import os
import re
import shutil
import subprocess

import computer_suite
import kernel
from computer import Computer
from disks import MIB, Disk
from ramdisk import BUSYBOX, pack_folder

SIZE = 26 * MIB
PARTITION = 1 * MIB  # where the only one begins; in front of it lies what a boot loader of the old kind hides there
FIRMWARE = "/usr/share/OVMF/OVMF_{}.fd"
COMMAND_LINE = "console=ttyS0 quiet panic=-1 no_timer_check"


def run(*command, **options):
    subprocess.run(command, check=True, capture_output=True, **options)


class Story(computer_suite.Story):
    long = True

    def setUp(self):
        super().setUp()
        for tool in ("mkfs.fat", "mcopy", "mmd", "sfdisk"):
            if shutil.which(tool) is None:
                self.skipTest(f"there is no {tool} here")
        try:
            self.packages = {name: kernel.unpacked(name) for name in ("systemd-boot-efi", "grub-pc-bin", "grub-common")}
            self.kernel = kernel.fetch(kernel.CLOUD)
        except kernel.Missing as missing:
            self.skipTest(str(missing))

    # --- Disks that boot ---

    def system(self, word):
        """An initial RAM disk whose only program says the word and switches the computer off."""
        folder = os.path.join(self.folder, "system")
        for name in ("bin", "dev", "proc"):
            os.makedirs(os.path.join(folder, name))
        shutil.copy(BUSYBOX, os.path.join(folder, "bin", "busybox"))
        init = os.path.join(folder, "init")
        with open(init, "w", encoding="ascii") as file:
            file.write("#!/bin/busybox sh\n/bin/busybox mount -t devtmpfs dev /dev\n"
                       f"echo 'The word is {word}.' > /dev/ttyS0\n/bin/busybox sleep 1\n/bin/busybox poweroff -f\n")
        os.chmod(init, 0o755)
        archive = os.path.join(self.folder, "initrd")
        pack_folder(folder, archive)
        shutil.rmtree(folder)
        return archive

    def file_system(self, files, folders=()):
        """The bytes of a FAT file system with these files: names and paths."""
        path = os.path.join(self.folder, "fat.img")
        with open(path, "wb") as file:
            file.truncate(SIZE - 2 * PARTITION)
        run("mkfs.fat", path)
        for folder in folders:
            run("mmd", "-i", path, f"::{folder}")
        for name, source in files.items():
            run("mcopy", "-i", path, source, f"::{name}")
        with open(path, "rb") as file:
            return file.read()

    def disk_image(self, label, line, contents):
        path = os.path.join(self.folder, "boot.img")
        with open(path, "wb") as file:
            file.truncate(SIZE)
        table = f"label: {label}\nstart={PARTITION // 512}, size={len(contents) // 512}, {line}\n"
        run("sfdisk", "-q", path, input=table.encode())
        with open(path, "r+b") as file:
            file.seek(PARTITION)
            file.write(contents)
        with open(path, "rb") as file:
            return bytearray(file.read())

    def written(self, name, text):
        path = os.path.join(self.folder, name)
        with open(path, "w", encoding="ascii") as file:
            file.write(text)
        return path

    def gpt_disk(self, word):
        """A GPT with an EFI system partition: the loader under the name that firmware looks for."""
        loader = glob.glob(self.packages["systemd-boot-efi"] + "/usr/lib/systemd/boot/efi/systemd-bootx64.efi")[0]
        entry = f"title system\nlinux /vmlinuz\ninitrd /initrd\noptions {COMMAND_LINE}\n"
        return self.disk_image("gpt", "type=U", self.file_system({
            "/EFI/BOOT/BOOTX64.EFI": loader, "/vmlinuz": self.kernel.image, "/initrd": self.system(word),
            "/loader/loader.conf": self.written("loader.conf", "timeout 0\ndefault system\n"),
            "/loader/entries/system.conf": self.written("system.conf", entry),
        }, ("/EFI", "/EFI/BOOT", "/loader", "/loader/entries")))

    def mbr_disk(self, word):
        """An MBR with the loader's first sector, and the rest of it in the gap in front of the partition."""
        modules = self.packages["grub-pc-bin"] + "/usr/lib/grub/i386-pc"
        script = self.written(
            "grub.cfg", f"set root=(hd0,msdos1)\nlinux /vmlinuz {COMMAND_LINE}\ninitrd /initrd\nboot\n")
        core = os.path.join(self.folder, "core.img")
        run(self.packages["grub-common"] + "/usr/bin/grub-mkimage", "-O", "i386-pc", "-d", modules, "-o", core, "-p",
            "/grub", "-c", script, "biosdisk", "part_msdos", "fat", "linux")
        disk = self.disk_image("dos", "type=c, bootable", self.file_system(
            {"/vmlinuz": self.kernel.image, "/initrd": self.system(word)}))
        with open(os.path.join(modules, "boot.img"), "rb") as file:
            disk[:440] = file.read()[:440]
        with open(core, "rb") as file:
            rest = file.read()
        self.assertLess(len(rest), PARTITION - 512)
        disk[512:512 + len(rest)] = rest
        return disk

    # --- Starting them ---

    def word_of(self, path, firmware):
        """What the system on the disk says when a computer starts with it alone."""
        disk = Disk(SIZE)
        disk.file = path
        computer = Computer(self.folder_of_computer(), [disk], firmware=firmware)
        trouble = "says nothing"
        with computer:
            try:
                computer.wait_for_end()
            except subprocess.TimeoutExpired:
                trouble = "does not come to an end"  # a loader or a kernel that halts waits for somebody
        said = re.search(r"The word is (\w+)\.", computer.diagnosis())
        return said.group(1) if said else f"{trouble}: {computer.diagnosis()}"

    def efi(self):
        """The firmware, with variables of its own."""
        if not os.path.exists(FIRMWARE.format("CODE")):
            self.skipTest(f"there is no {FIRMWARE.format('CODE')} here")
        variables = os.path.join(self.folder, "variables.fd")
        shutil.copy(FIRMWARE.format("VARS"), variables)
        return ["-drive", f"if=pflash,format=raw,readonly=on,file={FIRMWARE.format('CODE')}",
                "-drive", f"if=pflash,format=raw,file={variables}"]
