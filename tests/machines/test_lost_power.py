"""The power is lost, at every write of a capture, a thin capture, a consolidation, a restore and a clone.

The disk that is written lies behind a log of its writes and flushes. Afterwards the log is played back to each of its
writes, with all, none and drawn parts of what the disk had not been told to keep. The file system of each such state is
brought back by a computer that boots, as an administrator's would, and what is on it has to be what was promised:

- under the final name of a capture there is nothing, or the whole image; where a file system changes a name in two
  writes, an empty file beside the whole image under the work name counts as nothing;
- what has a work name, or is a consolidation that has not ended, is the whole image or does not verify;
- what the program had reported as done, with status 0, is there, byte for byte, in every later state.
"""

import os
import shutil
import subprocess
import tempfile

import computer_suite
import image
import suite
from disks import MIB, Disk
from file_systems import FILE_SYSTEMS
from kernel import Missing
from machine import SETTINGS, pattern
from write_log import SECTOR, Replay, mark_bytes, read_log

SOURCE_SIZE = 5 * MIB  # two chunks, the second a short one
IMAGES = ("base.vrnx", "thin.vrnx", "full.vrnx")
NAMES = IMAGES + ("base.vrnx.partial", "thin.vrnx.partial")
PASSWORD = b"five random words"
SEALED = " --encrypt --password-file /password"  # of the programs in the computer
SUBSETS = 6
SEED = 20


class LostPower(computer_suite.Story):
    long = True

    # --- The run whose power will be lost ---

    def logged_disk(self, size, start=None, kind="virtio-blk", name="logged"):
        """A disk behind a log, with one sector beyond `size` for the marks. `start`: the file that it begins as."""
        disk = Disk(size + MIB, kind)
        log = os.path.join(self.folder, f"{name}.log")
        with open(log, "wb"):
            pass
        disk.filters = [("blklogwrites", {"log": {"driver": "file", "filename": log}})]
        if start:
            disk.file = start
            os.truncate(start, disk.size)
        disk.log = log
        return disk

    @staticmethod
    def marks(*names):
        return {f"/marks/{name}": mark_bytes(name) for name in names}

    @staticmethod
    def mark(computer, disk, size, name):
        """Leaves a mark in the log, without a flush: a direct write behind the part of the disk that counts."""
        computer.succeed(f"dd if=/marks/{name} of=/dev/{computer.device(disk)} bs={SECTOR} seek={size // SECTOR} "
                         "count=1 oflag=direct conv=notrunc")

    def images_are_made(self, system, sealed):
        """Runs the three commands on such a file system; gives its first bytes and the log."""
        start = os.path.join(self.folder, "start.img")
        system.create(start)
        with open(start, "rb") as file:
            first = file.read()
        disk = self.logged_disk(system.size, start)
        source = Disk(SOURCE_SIZE, contents=pattern(SOURCE_SIZE, "source"))
        computer = self.computer(disk, source, modules=[system.module, *system.modules],
                                 programs=["dd", *system.programs],
                                 files={**self.marks(*IMAGES, "end"), "/password": PASSWORD})
        device, number = computer.device(disk), computer.number(source)
        computer.succeed(f"{system.mount} /dev/{device} /mnt")
        for name, command in (
                ("base.vrnx", f"capture --disk {number} --out /mnt/base.vrnx"),
                ("thin.vrnx", f"capture --disk {number} --base /mnt/base.vrnx --thin --out /mnt/thin.vrnx"),
                ("full.vrnx", "consolidate --in /mnt/thin.vrnx --out /mnt/full.vrnx")):
            result = computer.run(f"vornix {command}{SEALED if sealed else ''}")
            self.assertEqual((result.status, result.errors), (0, ""), result)
            self.mark(computer, disk, system.size, name)
            if name == "base.vrnx":
                computer.succeed(f"dd if=/dev/urandom of=/dev/{computer.device(source)} bs=64k seek=70 count=2 "
                                 "oflag=direct")
        # Life goes on: other files, and what a file system does by itself.
        computer.succeed("dd if=/dev/zero of=/mnt/other bs=64k count=8 && sync && rm /mnt/other && sync")
        self.mark(computer, disk, system.size, "end")
        computer.succeed("umount /mnt")
        computer.stop()
        return first, read_log(disk.log)

    # --- Looking at a state ---

    def look(self, system, replay, state):
        """Brings the file system of a state back: what went wrong, or None, and a dictionary of the files' bytes."""
        disk, into = os.path.join(self.states, "state.img"), os.path.join(self.states, "found")
        os.mkdir(into)
        try:
            replay.build(state, disk)
            trouble, found = system.bring_back(disk, into), {}
            for name in os.listdir(into):
                with open(os.path.join(into, name), "rb") as file:
                    found[name] = file.read()
            return trouble, found
        finally:
            shutil.rmtree(into)
            os.remove(disk)

    def verifies(self, name, found):
        """Whether the program verifies this file, beside the others that were found."""
        unsealing = []
        if self.password is not None:
            unsealing = ["--password-file", os.path.join(self.folder, "password")]
            with open(unsealing[1], "wb") as file:
                file.write(self.password)
        folder = os.path.join(self.folder, "found")
        os.makedirs(folder, exist_ok=True)
        for old in os.listdir(folder):
            os.remove(os.path.join(folder, old))
        for other, contents in found.items():
            with open(os.path.join(folder, other), "wb") as file:
                file.write(contents)
        return subprocess.run([SETTINGS.program, "verify", "--in", os.path.join(folder, name), *unsealing],
                              capture_output=True, check=False).returncode == 0

    def trouble_with(self, system, state, found, good):
        """What is wrong with the files of a state, as lines."""
        troubles = []
        for name in NAMES:
            contents = found.get(name)
            promised = name in state.marks
            if contents is None:
                if promised:
                    troubles.append(f"{name} was reported as done, and is not there")
            elif contents != good[name.removesuffix(".partial")]:
                if promised:
                    troubles.append(f"{name} was reported as done, and is another file")
                elif system.names_in_two and contents == b"" and found.get(name + ".partial") == good.get(name):
                    continue
                elif name in ("base.vrnx", "thin.vrnx"):
                    troubles.append(f"{name} has its final name and is not whole ({len(contents)} bytes)")
                elif self.verifies(name, found):
                    troubles.append(f"{name} is not whole, and verifies")
        return troubles

    def file_system_keeps_its_images(self, name, sealed=False):
        system = FILE_SYSTEMS[name]
        self.password = PASSWORD if sealed else None
        try:
            reason = system.reason_to_skip()
        except Missing as missing:
            reason = str(missing)
        if reason:
            self.skipTest(reason)
        # Thousands of states are written and thrown away; where there is memory for that, no disk has to.
        self.states = tempfile.mkdtemp(prefix="vornix-", dir="/dev/shm" if os.path.isdir("/dev/shm") else None)
        self.addCleanup(shutil.rmtree, self.states, ignore_errors=True)
        first, entries = self.images_are_made(system, sealed)
        first += bytes(MIB)
        good = self.final_images(system, Replay(first, entries, ""))
        replay, tried, troubles = Replay(first, entries, f"{SEED} {name}"), 0, []
        for state in replay.states(SUBSETS):
            tried += 1
            where = f"behind entry {state.cut}, with {state.kept} kept, done {state.marks}: "
            trouble, found = self.look(system, replay, state)
            if trouble:
                troubles.append(f"{where}the file system does not come back: {trouble}")
            else:
                troubles += [where + text for text in self.trouble_with(system, state, found, good)]
        self.count("power lost", f"{name}: {'sealed ' if sealed else ''}capture, thin capture, consolidate",
                   f"{tried} states of {len(entries)} entries", troubles)

    def final_images(self, system, replay):
        """The images as they were at the end, proved by the program and by the second reader."""
        for state in replay.states(0):
            pass
        trouble, good = self.look(system, replay, state)
        self.assertEqual((trouble, sorted(good)), (None, sorted(IMAGES)))
        for name in IMAGES:
            self.assertTrue(self.verifies(name, good), name)
            self.assertEqual(image.check_image(os.path.join(self.folder, "found", name), self.password), [])
        return good

    # --- Targets ---

    def target_keeps_what_was_written(self, kind, command, what=None):
        """The command writes the logged disk, of this kind, from the source as it is then, or from the image
        /mnt/a.vrnx of it, or from /mnt/b.vrnx, a thin image over that of a part that changed. `what`: it, for the
        table."""
        expected = pattern(SOURCE_SIZE, "source")
        size = len(expected) + 4096
        target = self.logged_disk(size, kind=kind)
        source, images = Disk(SOURCE_SIZE, contents=expected), Disk(24 * MIB)
        computer = self.computer(source, target, images, modules=["ext4"], programs=["dd", "mkfs.ext4"],
                                 files={**self.marks("done"), "/changed": pattern(65536, "changed")})
        computer.succeed(f"mkfs.ext4 -q /dev/{computer.device(images)} && mount /dev/{computer.device(images)} /mnt && "
                         f"vornix capture --disk {computer.number(source)} --out /mnt/a.vrnx")
        if "b.vrnx" in command:
            changed = pattern(65536, "changed")
            expected = expected[:MIB] + changed + expected[MIB + len(changed):]
            computer.succeed(f"dd if=/changed of=/dev/{computer.device(source)} bs=64k seek=16 oflag=direct && "
                             f"vornix capture --disk {computer.number(source)} --base /mnt/a.vrnx --thin "
                             "--out /mnt/b.vrnx")
            self.assertEqual(source.bytes(), expected)
        result = computer.run(
            "vornix " + command.format(source=computer.number(source), target=computer.number(target)))
        self.expect_success(result, " complete.")
        self.mark(computer, target, size, "done")
        computer.succeed("sync")
        computer.stop()
        entries = read_log(target.log)
        self.assertIn("done", [entry.mark for entry in entries])
        replay, tried, troubles = Replay(bytes(target.size), entries, f"{SEED} {kind}"), 0, []
        for state in replay.states(SUBSETS):
            tried += 1
            if state.marks and not replay.holds(state, expected):
                troubles.append(f"behind entry {state.cut}, with {state.kept} kept: the target lacks what was written")
        self.count("power lost", f"target on {kind}: {what or command.split()[0]}",
                   f"{tried} states of {len(entries)} entries", troubles)

    def test_a_restored_disk_keeps_what_was_written(self):
        self.target_keeps_what_was_written("virtio-blk", "restore --in /mnt/a.vrnx --disk {target} --confirm YES")

    def test_a_disk_restored_without_its_zeros_keeps_what_was_written(self):
        self.target_keeps_what_was_written("virtio-scsi 512",
                                           "restore --in /mnt/a.vrnx --disk {target} --confirm YES --skip-zero")

    def test_a_cloned_disk_keeps_what_was_written(self):
        self.target_keeps_what_was_written("nvme", "clone --from {source} --to {target} --confirm YES --verify")

    def test_a_disk_restored_from_a_chain_keeps_what_was_written(self):
        self.target_keeps_what_was_written("virtio-blk", "restore --in /mnt/b.vrnx --disk {target} --confirm YES",
                                           "restore of a thin image")

    # --- Images ---

    def test_ext4_ordered(self):
        self.file_system_keeps_its_images("ext4 ordered")

    def test_ext4_writeback(self):
        self.file_system_keeps_its_images("ext4 writeback")

    def test_sealed_images_on_ext4(self):
        self.file_system_keeps_its_images("ext4 ordered", sealed=True)

    def test_sealed_images_on_vfat(self):
        self.file_system_keeps_its_images("vfat", sealed=True)

    def test_xfs(self):
        self.file_system_keeps_its_images("xfs")

    def test_btrfs(self):
        self.file_system_keeps_its_images("btrfs")

    def test_vfat(self):
        self.file_system_keeps_its_images("vfat")

    def test_vfat_with_a_name_in_two_sectors(self):
        self.file_system_keeps_its_images("vfat, a name in two sectors")

    def test_ext4_without_a_journal(self):
        self.file_system_keeps_its_images("ext4 without a journal")

    def test_exfat(self):
        self.file_system_keeps_its_images("exfat")

    def test_ntfs_3g(self):
        self.file_system_keeps_its_images("ntfs-3g")


if __name__ == "__main__":
    suite.main()
