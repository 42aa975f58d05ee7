"""The recovery medium: it starts, and brings a computer's disk back.

The computers are slow, and starting the medium is most of what a story takes: each story starts it once, and does in it
what belongs together.
"""

import os
import re
import shutil
import socket
import struct
import subprocess

import bootable
import computer_suite
import recovery_medium
import share_server
import suite
from computer import Channel, Computer, Dead
from disks import MIB, Disk
from kernel import FULL, Missing
from recovery_medium import LATE_TIMER, STARTS, RescuedComputer
from share_server import ShareServer

GUID_ROOT = "4F68BCE3-E8CD-4DB1-96E7-FBCAF984B709"  # systemd looks for it, and for swap, if it may
GUID_SWAP = "0657FD6D-A4AB-43C4-84E5-0933C84B4F4F"
MENU = "The first entry will be started automatically in 10s."
SHELL = "root@vornix-recovery:~# "

# The first sector of a stick that says what a medium says on the serial line: the menu, and after a key the text of a
# late timer in the first two starts, which it counts in the memory of the clock, and then that of a shell.
LATE_TWICE = f"""
    .code16
    xor %ax, %ax
    mov %ax, %ds
    mov $menu, %si
    call say
key:
    mov $0x3fd, %dx
    in %dx, %al
    test $1, %al
    jz key
    mov $0x70, %al
    out %al, $0x70
    in $0x71, %al
    inc %al
    out %al, $0x71
    mov $late, %si
    cmp $2, %al
    jbe last
    mov $shell, %si
last:
    call say
    cli
    hlt
say:
    mov $0x3fd, %dx
    in %dx, %al
    test $0x20, %al
    jz say
    mov $0x3f8, %dx
    lodsb
    test %al, %al
    jz said
    out %al, %dx
    jmp say
said:
    ret
menu: .asciz "{MENU}"
late: .asciz "{LATE_TIMER}!"
shell: .asciz "{SHELL}READY> "
    .org 510
    .word 0xaa55
"""


class Scripted(RescuedComputer):
    """No computer at all: what its starts say is given, and after the last of them it is gone."""

    # pylint: disable-next=super-init-not-called
    def __init__(self, *starts):
        self.starts, self.asked = list(starts), []
        self.channel, self.entry, self.greeting = Channel(), 0, ""
        self.begin()

    def begin(self):
        self.channel.theirs.sendall(self.starts.pop(0).encode())
        if not self.starts:
            self.channel.theirs.shutdown(socket.SHUT_WR)

    def qmp(self, command, **_):
        self.asked.append(command)
        if command == "system_reset":
            self.begin()

    def close(self):
        self.channel.theirs.close()
        self.channel.close()


class LateTimer(computer_suite.Story):
    """A medium whose kernel gave up on the timer of a busy machine is started again."""

    def scripted(self, *starts):
        computer = Scripted(*starts)
        self.addCleanup(computer.close)
        return computer

    def test_it_is_reset_and_started_again(self):
        for tool in ("as", "ld"):
            if shutil.which(tool) is None:
                self.skipTest(f"there is no {tool} here")
        stick, made = (os.path.join(self.folder, name) for name in ("stick", "sector.o"))
        subprocess.run(["as", "--32", "-o", made], input=LATE_TWICE.encode(), check=True)
        subprocess.run(["ld", "-m", "elf_i386", "-Ttext=0x7c00", "--oformat=binary", "-o", stick, made], check=True,
                       capture_output=True)
        os.truncate(stick, MIB)
        with RescuedComputer(self.folder_of_computer(), stick, drive="usb", memory=64) as computer:
            self.assertTrue(computer.greeting.endswith(SHELL), computer.greeting)
            with open(computer.console, encoding="ascii", errors="replace") as file:
                said = file.read()
            self.assertEqual((said.count(MENU), said.count(LATE_TIMER)), (3, 2))
            # From here on a reset is its end again: a story sees that, and not a computer that is another one.
            computer.qmp("system_reset")
            computer.wait_for_end()

    def test_five_starts_are_enough(self):
        computer = self.scripted(*[f"{MENU}\n[0.1] ---[ {LATE_TIMER}!  Boot with"] * (STARTS + 1))
        with self.assertRaisesRegex(Dead, f"5 starts, and each of them: {re.escape(LATE_TIMER)}"):
            computer._wait_until_started()  # pylint: disable=protected-access
        self.assertEqual(computer.asked.count("system_reset"), 4)

    def test_nothing_else_is_a_reason(self):
        for said in ("end Kernel panic - not syncing: VFS: Unable to mount root fs on unknown-block(0,0)",
                     "Kernel panic - not syncing: Attempted to kill init!", "timer doesn't work"):
            computer = self.scripted(f"{MENU}\n{said}")
            with self.assertRaisesRegex(Dead, "it is gone before it says .root@"):
                computer._wait_until_started()  # pylint: disable=protected-access
            self.assertEqual(computer.asked, [])


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


class Untouched(Story):
    """A computer that lost its power in the middle of everything: whatever starts it next would like to mend that."""

    def lost_power(self):
        """Its disks: a file system with a journal to replay and swap, an array that is not in step, a volume group."""
        disks = [Disk(size * MIB) for size in (64, 40, 41, 48)]
        computer = Computer(self.folder_of_computer(), disks, kernel=FULL, modules=["ext4", "dm_mod", "raid1"],
                            programs=["mkfs.ext4", "mkswap", "sfdisk", "lvm", "mdadm"],
                            files={"/etc/lvm/lvm.conf": b"activation { udev_sync = 0 udev_rules = 0 }\n"
                                                        b"devices { obtain_device_list_from_udev = 0 }\n"})
        self.addCleanup(computer.stop)
        with computer:
            computer.settle()
            plain, one, two, volumes = (f"/dev/{computer.device(disk)}" for disk in disks)
            computer.succeed(f"printf 'label: gpt\\nsize=40MiB, type={GUID_ROOT}\\ntype={GUID_SWAP}\\n' "
                             f"| sfdisk -q {plain} && mkswap {plain}2")
            computer.succeed("mdadm --create /dev/md0 --quiet --run --metadata=1.2 --level=1 --raid-devices=2 "
                             f"{one} {two}; lvm vgcreate -q -y vg {volumes}; "
                             "lvm lvcreate -q -y -n root -l 100%FREE vg; "
                             "lvm vgmknodes; [ -b /dev/vg/root ] && [ -b /dev/md0 ]")
            for device in (f"{plain}1", "/dev/md0", "/dev/vg/root"):
                computer.succeed(f"mkfs.ext4 -q {device} && folder=/mnt/$(basename {device}) && mkdir -p $folder && "
                                 f"mount -t ext4 {device} $folder && echo {device} > $folder/file && sync")
        needs_recovery = struct.unpack_from("<I", disks[0].bytes(), MIB + 1024 + 0x60)[0] & 4
        self.assertTrue(needs_recovery, "the journal was replayed too early")
        moved = [Disk(disk.size, kind) for disk, kind in zip(disks, ("ahci", "nvme", "virtio-scsi 512", "usb"))]
        for disk, new in zip(disks, moved):
            new.file = disk.file
        return moved

    def expect_untouched(self, disks, before, when):
        for disk, contents in zip(disks, before):
            self.assertTrue(disk.bytes() == contents, f"{when}: the {disk.kind} disk holds other bytes than before")

    def it_starts(self, disks, before, **options):
        """The medium started, what it showed, and that nothing came of the disks."""
        computer = self.rescued(*disks, **options)
        for said in ("Vornix recovery medium", "To restore a disk:", "vornix restore --in IMAGE --disk N --confirm YES",
                     "vornix-help opens the guide"):
            self.assertIn(said, computer.greeting)
        for disk in disks:
            self.assertRegex(computer.greeting, rf"/dev/{computer.device(disk)}\b")
        self.assertEqual(computer.succeed("tail -n +2 /proc/swaps"), "")
        self.assertNotIn("md", computer.succeed("sed 1d /proc/mdstat 2> /dev/null | grep -v unused || true"))
        self.assertIn("No devices found", computer.succeed("dmsetup ls"))
        self.assertEqual(computer.succeed("lvs --noheadings -o lv_active vg").strip(), "")
        mounted = computer.succeed("findmnt --real --noheadings --list -o SOURCE").split()
        self.assertFalse([source for source in mounted for disk in disks if computer.device(disk) in source], mounted)
        self.assertEqual(computer.succeed("systemctl list-units --failed --plain --no-legend"), "")
        computer.succeed("sync")
        self.expect_untouched(disks, before, "after the start")
        return computer

    def test_from_a_cd_by_an_old_bios(self):
        disks = self.lost_power()
        before = [disk.bytes() for disk in disks]
        computer = self.it_starts(disks, before)
        for page in ("", "medium", "handbook", "format", "readme"):
            self.assertIn("# ", computer.succeed(f"vornix-help {page} | head -n 1"))
        self.assertIn("CET", computer.succeed("vornix-timezone Europe/Berlin && date -d 2026-01-01 +%Z"))
        computer.succeed("vornix-keyboard de && grep XKBLAYOUT=.de. /etc/default/keyboard")
        self.assertEqual(computer.run("vornix-keyboard nowhere").status, 1)
        computer.power_off()
        self.expect_untouched(disks, before, "after the end")

    def test_from_a_stick_by_efi_and_what_is_asked_for_is_done(self):
        disks = self.lost_power()
        before = [disk.bytes() for disk in disks]
        computer = self.it_starts(disks, before, drive="usb", firmware="efi")
        plain, one, two, volumes = (f"/dev/{computer.device(disk)}" for disk in disks)
        # To look at a file system leaves it as it is.
        computer.succeed(f"vornix-mount {plain}1")
        self.assertEqual(computer.run("touch /mnt/images/new").status, 1)
        computer.succeed("umount /mnt/images; sync")
        self.expect_untouched(disks, before, "after a look")
        for device, said in ((one, "belongs to an array"), (volumes, "belongs to a volume group"),
                             (f"{plain}2", "nothing to mount"), ("/dev/none", "no block device")):
            self.expect_failure(computer.run(f"vornix-mount {device}"), said)
        # What was asked for is done.
        for make, device in (("true", f"{plain}1"), ("vgchange -ay vg", "/dev/vg/root"),
                             ("mdadm --assemble --scan --config=partitions --auto=yes", "/dev/md/*")):
            computer.succeed(f"{make}; vornix-mount --write {device}")
            self.assertIn("/dev/", computer.succeed("cat /mnt/images/file; touch /mnt/images/new; umount /mnt/images"))
        computer.succeed("sync")
        for disk, contents in zip(disks, before):
            self.assertTrue(disk.bytes() != contents, f"the {disk.kind} disk was not written")
        computer.power_off()


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
        drive, other = Disk(300 * MIB, "usb"), Disk(600 * MIB, "usb")
        computer = self.rescued(disk, drive, other, drive="usb")
        number, name = computer.number(disk), f"/dev/{computer.device(drive)}"
        partitions = []
        for place, makes in (
                (name, ((100, "mkfs.ext4 -q"), (100, "mkfs.ntfs -q -Q"), (90, "mkfs.exfat"))),
                (f"/dev/{computer.device(other)}", ((310, "mkfs.xfs -q"), (160, "mkfs.btrfs -q"), (100, "mkfs.vfat")))):
            table = "".join(f"size={size}MiB\\n" for size, _ in makes)
            computer.succeed(f"printf 'label: gpt\\n{table}' | sfdisk -q {place}; udevadm settle")
            for partition, (_, make) in enumerate(makes, 1):
                computer.succeed(f"{make} {place}{partition}")
                partitions.append(f"{place}{partition}")
        for partition in partitions:
            self.expect_success(computer.run(f"vornix-mount --write {partition}"), "writable")
            self.expect_success(computer.run(f"vornix capture --disk {number} --out /mnt/images/disk.vrnx"),
                                "Capture complete")
            computer.succeed("umount /mnt/images")
            self.expect_success(computer.run(f"vornix-mount {partition}"), "read-only")
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

    def test_from_memory_when_the_stick_is_gone(self):
        disk = Disk(bootable.SIZE, "nvme", bytes(self.gpt_disk("home")))
        drive = Disk(160 * MIB, "usb")
        computer = self.rescued(disk, drive, drive="usb", firmware="efi", entry=1, memory=2048)
        self.assertNotIn(computer.device(computer.medium), computer.succeed("findmnt --noheadings --list -o SOURCE"))
        numbers = computer.numbers()
        computer.numbers = lambda: numbers  # they stay with their disks
        computer.unplug(computer.medium)
        size = computer.medium.size // 512
        computer.succeed(f"while grep -qx {size} /sys/block/*/size; do sleep 0.1; done")
        computer.succeed("echo 3 > /proc/sys/vm/drop_caches")
        name = computer.device(drive)
        computer.succeed(f"mkfs.ext4 -q /dev/{name}; vornix-mount --write /dev/{name}")
        computer.succeed(f"vornix capture --disk {computer.number(disk)} --out /mnt/images/disk.vrnx")
        self.restored(computer, disk, "/mnt/images/disk.vrnx")
        computer.power_off()
        self.assertEqual(self.word_of(disk.file, self.efi()), "home")

    def test_from_shares_of_another_computer(self):
        """Captured to an SMB share, restored from NFS, and verified over SSH: one folder of one server."""
        cable = os.path.join(self.folder, "cable")
        try:
            server = ShareServer(self.folder_of_computer(), cable)
        except Missing as missing:
            self.skipTest(str(missing))
        self.addCleanup(server.stop)
        server.start()
        disk = Disk(bootable.SIZE, "ahci", bytes(self.gpt_disk("home")))
        computer = self.rescued(disk, firmware="efi", arguments=share_server.plug(cable))
        self.assertEqual(computer.succeed("ip -4 -brief address show scope global"), "")  # nobody asked for one
        smb, number = f"//{share_server.ADDRESS}/images", computer.number(disk)
        for password, status in (("another", 1), (share_server.PASSWORD, 0)):
            mounted = computer.converse(f"vornix-mount --write {smb}", ("User .*: ", share_server.USER),
                                        ("[Pp]assword for admin@.*:", password))
            self.assertEqual(mounted.status, status, mounted)
        self.assertIn(f"{smb} is on /mnt/images, writable.", mounted.text)
        self.expect_success(computer.run(f"vornix capture --disk {number} --out /mnt/images/disk.vrnx"),
                            "Capture complete")
        self.expect_success(computer.run("vornix verify --in /mnt/images/disk.vrnx"), "Verify OK")
        computer.succeed("umount /mnt/images")
        self.assertEqual(server.succeed(f"ls /mnt{share_server.FOLDER}"), "disk.vrnx\n")
        mounted = computer.converse(f"vornix-mount {share_server.USER}@{share_server.ADDRESS}:{share_server.FOLDER}",
                                    ("continue connecting.*", "yes"), ("assword:", share_server.PASSWORD))
        self.assertEqual(mounted.status, 0, mounted)
        self.expect_success(computer.run("vornix verify --in /mnt/images/disk.vrnx"), "Verify OK")
        self.assertEqual(computer.run("touch /mnt/images/new").status, 1)
        computer.succeed("umount /mnt/images")
        self.expect_success(computer.run(f"vornix-mount {share_server.ADDRESS}:{share_server.FOLDER}"), "read-only")
        self.assertEqual(computer.run("touch /mnt/images/new").status, 1)
        self.restored(computer, disk, "/mnt/images/disk.vrnx")
        computer.power_off()
        self.assertEqual(self.word_of(disk.file, self.efi()), "home")


class Made(Story):
    def test_the_same_packages_give_the_same_bytes(self):
        if os.environ.get("VORNIX_MEDIUM"):
            self.skipTest("the medium was not made here")
        first = recovery_medium.iso()
        # By somebody else, elsewhere, and later.
        second = recovery_medium.make(self.folder, umask=0o077, TZ="Asia/Tokyo", LC_ALL="C", HOME=self.folder)
        for suffix in (".packages", ".iso", ".iso.sha256"):
            one, other = (path.removesuffix(".iso") + suffix for path in (first, second))
            done = subprocess.run(["cmp", one, other], capture_output=True, text=True, check=False)
            self.assertEqual(done.returncode, 0, done.stdout + done.stderr)

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
