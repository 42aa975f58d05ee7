"""clone: one disk straight onto another, over every pair of sector sizes, the comparison of the copy and what the
running system's own disk changes in it, and everything that is refused. What the failure of each call leaves is told by
its sweep."""

import os

import suite
from clone_runs import (BLOCK, READ_FAILED, SYSTEM_SOURCE_NOTE, VERIFY_SOURCE_FAILED, VERIFY_TARGET_FAILED,
                        WRITE_FAILED, clone_text, cloning_line, copy_text, pattern, sector_note, verify_text)
from console import ANY_NUMBER, fatal
from machine import (ACCESS_READ, ACCESS_READ_WRITE, DRIVE_GEOMETRY_EX, FLAG_NO_BUFFERING, LENGTH_INFO,
                     UPDATE_PROPERTIES, VOLUME_DISK_EXTENTS)

SOURCE = r"\\.\PhysicalDrive1"
TARGET = r"\\.\PhysicalDrive2"
SYSTEM = r"\\.\C:"
SIZE = 2 * BLOCK + 1536  # two whole blocks and an odd rest
SYSTEM_VOLUME_LOOK = ["CreateFileW", "DeviceIoControl", "CloseHandle"]


class Clone(suite.Scenario):
    def prepared(self, size=SIZE, target_size=None, *, source_sector=512, target_sector=512, system=0):
        """Disk 1 is the source, disk 2 the target with other bytes, disk `system` holds C:."""
        machine = self.machine(default=False)
        machine.add_disk(0, pattern(65536, "system"))
        machine.system_volume([(system, 4096, 8192)])
        machine.add_disk(1, pattern(size, "source"), sector_size=source_sector)
        machine.add_disk(2, pattern(size if target_size is None else target_size, "target"), sector_size=target_sector)
        return machine

    def clone(self, machine, *options, source=1, target=2):
        return machine.run("clone", "--from", str(source), "--to", str(target), "--confirm", "YES", *options)

    def expect_copied(self, machine, count=None):
        """The target holds the first `count` bytes of the source (all, where not given), and behind them its own."""
        source, target = pattern_of(machine, 1, "source"), pattern_of(machine, 2, "target")
        count = len(source) if count is None else count
        self.expect_disk(machine, 2, source[:count] + target[count:])
        self.expect_disk(machine, 1, source)

    def poked(self, machine, blocks, disk, offset, data=None):
        """Another program writes to a disk (inverts a byte of the copy, where no data are given) as the verify pass
        begins: at the look on the clock behind those of the copy pass."""
        data = bytes([pattern_of(machine, 1, "source")[offset] ^ 0xFF]) if data is None else data
        machine.add_fault("GetTickCount64", skip=1 + blocks, poke={"disk": disk, "offset": offset, "hex": data.hex()})

    def expect_untouched(self, machine, result):
        self.assertEqual(result.calls("WriteFile"), [])
        self.expect_copied(machine, 0)


def pattern_of(machine, number, seed):
    return pattern(os.path.getsize(machine.disk_path(number)), seed)


class Copy(Clone):
    def test_a_disk_goes_onto_another_and_is_compared(self):
        copied = ("Cloning PhysicalDrive1 -> PhysicalDrive2 (0.01 GiB)\n"
                  "\r   49.99%  4 / 8 MiB  (4.0 MiB/s)   \r   99.98%  8 / 8 MiB  (4.0 MiB/s)   "
                  "\r  100.00%  8 / 8 MiB  (2.7 MiB/s)   \n")
        compared = ("Verifying the copy...\n"
                    "\r   49.99%  4 / 8 MiB  (4.0 MiB/s)   \r   99.98%  8 / 8 MiB  (4.0 MiB/s)   "
                    "\r  100.00%  8 / 8 MiB  (2.7 MiB/s)   \nVerify OK.\n")
        blocks = [(0, 4194304), (4194304, 4194304), (8388608, 1536)]
        for options, text, second in (((), "", None), (("--verify",), compared, "ReadFile")):
            machine = self.prepared()
            result = self.expect(self.clone(machine, *options), 0, copied + text + "Clone complete. Run 'diskpart > "
                                 "rescan' (or reboot) before relying on the target disk.\n")
            self.expect_copied(machine)
            # Each transfer is a block at its place, and behind a seek of its own.
            steps = [(line["call"], line["path"], line["offset"], line.get("length")) for line in result.log
                     if line["call"] in ("ReadFile", "WriteFile", "SetFilePointerEx")]
            self.assertEqual(steps, [
                step for way in ("WriteFile", second) if way for offset, count in blocks
                for call, disk in (("ReadFile", SOURCE), (way, TARGET))
                for step in (("SetFilePointerEx", disk, offset, None), (call, disk, offset, count))])

    def test_the_steps_and_their_order(self):
        machine = self.prepared(1536)
        result = self.clone(machine)
        steps = [(line["call"], line.get("path"), line.get("code")) for line in result.log]
        look = [("CreateFileW", SYSTEM, None), ("DeviceIoControl", SYSTEM, VOLUME_DISK_EXTENTS),
                ("CloseHandle", SYSTEM, None)]
        self.assertEqual(steps, look + [
            ("CreateFileW", SOURCE, None), ("CreateFileW", TARGET, None),
            ("DeviceIoControl", SOURCE, LENGTH_INFO), ("DeviceIoControl", SOURCE, DRIVE_GEOMETRY_EX),
            ("DeviceIoControl", TARGET, LENGTH_INFO), ("DeviceIoControl", TARGET, DRIVE_GEOMETRY_EX)] + look + [
            ("_aligned_malloc", None, None), ("_aligned_malloc", None, None), ("GetTickCount64", None, None),
            ("SetFilePointerEx", SOURCE, None), ("ReadFile", SOURCE, None),
            ("SetFilePointerEx", TARGET, None), ("WriteFile", TARGET, None), ("GetTickCount64", None, None),
            ("DeviceIoControl", TARGET, UPDATE_PROPERTIES), ("CloseHandle", TARGET, None),
            ("CloseHandle", SOURCE, None), ("exit", None, 0)])
        self.assertEqual([tuple(line[key] for key in ("path", "access", "share", "disposition", "flags"))
                          for line in result.calls("CreateFileW", path="PhysicalDrive")],
                         [(SOURCE, ACCESS_READ, "0x00000003", 3, "0x28000000"),
                          (TARGET, ACCESS_READ_WRITE, "0x00000000", 3, FLAG_NO_BUFFERING)])
        # The questions have no more room than their answers.
        self.assertEqual([(line["code"], line["in"], line["out"]) for line in result.calls("DeviceIoControl")],
                         [(VOLUME_DISK_EXTENTS, 0, 224), (LENGTH_INFO, 0, 8), (DRIVE_GEOMETRY_EX, 0, 40),
                          (LENGTH_INFO, 0, 8), (DRIVE_GEOMETRY_EX, 0, 40), (VOLUME_DISK_EXTENTS, 0, 224),
                          (UPDATE_PROPERTIES, 0, 0)])

    def test_the_buffers_are_aligned_to_larger_sectors_of_the_source(self):
        for source, target, alignment in ((4096, 4096, 4096), (8192, 512, 8192), (65536, 65536, 65536)):
            machine = self.prepared(131072, source_sector=source, target_sector=target)
            result = self.clone(machine, "--verify")
            self.assertEqual([(line["size"], line["alignment"]) for line in result.calls("_aligned_malloc")],
                             [(4194304, alignment), (4194304, alignment)])
            self.assertEqual(result.status, 0)
            self.expect_copied(machine)


class Lengths(Clone):
    """Every sector size against every other, over lengths at and around the edges of a block."""

    def check(self, size, source_sector, target_sector):
        machine = self.prepared(size, size + 4096, source_sector=source_sector, target_sector=target_sector)
        note = "" if source_sector == target_sector else sector_note(source_sector, target_sector)
        for options in ((), ("--verify",)):
            machine.set_disk_bytes(2, pattern(size + 4096, "target"))
            result = self.clone(machine, *options)
            if size % target_sector:
                # The rest is no whole number of the target's sectors: a failed write, with the blocks before it done.
                whole = size // BLOCK
                self.expect(result, 1, copy_text(1, 2, size, note, upto=whole), fatal(WRITE_FAILED, 87))
                self.expect_copied(machine, whole * BLOCK)
            else:
                self.expect(result, 0, clone_text(1, 2, size, notes=note, verify=bool(options)))
                self.expect_copied(machine)

    def test_every_length_over_every_pair_of_sector_sizes(self):
        for source, target, sizes in (
                *[(source, target, (source, 3 * source, BLOCK - source, BLOCK, BLOCK + source, BLOCK + 3 * source,
                                    2 * BLOCK)) for source, target in ((512, 512), (4096, 4096), (4096, 512))],
                (512, 4096, (4096, BLOCK - 4096, BLOCK, BLOCK + 8192, 512, BLOCK - 512, BLOCK + 512, BLOCK + 3584,
                             2 * BLOCK + 1536))):
            for size in sizes:
                with self.subTest(source=source, target=target, size=size):
                    self.check(size, source, target)

    def test_sectors_of_520_bytes(self):
        machine = self.prepared(520 * 100, source_sector=520, target_sector=520)
        self.expect(self.clone(machine, "--verify"), 0, clone_text(1, 2, 52000, verify=True))
        self.expect_copied(machine)

    def test_a_block_that_is_no_whole_number_of_the_sources_sectors_fails_on_reading(self):
        machine = self.prepared(520 * 9000, source_sector=520, target_sector=520)
        self.expect(self.clone(machine), 1, cloning_line(1, 2, 4680000), fatal(READ_FAILED, 87))
        self.expect_copied(machine, 0)

    def test_a_source_of_no_bytes(self):
        for options, compared in (((), ""), (("--verify",), "Verifying the copy...\n\nVerify OK.\n")):
            machine = self.prepared(1024)
            machine.disk(1)["length"] = 0
            result = self.expect(self.clone(machine, *options), 0,
                                 "Cloning PhysicalDrive1 -> PhysicalDrive2 (0.00 GiB)\n\n" + compared +
                                 "Clone complete. Run 'diskpart > rescan' (or reboot) before relying on the target "
                                 "disk.\n")
            self.expect_untouched(machine, result)
            self.assertEqual(result.calls("ReadFile"), [])
            self.assertEqual(result.calls("DeviceIoControl")[-1]["code"], UPDATE_PROPERTIES)

    def test_the_length_is_the_disks_answer_and_not_its_files(self):
        machine = self.prepared(4096)
        machine.disk(1)["length"] = 1024
        self.expect(self.clone(machine, "--verify"), 0, clone_text(1, 2, 1024, verify=True))
        self.expect_copied(machine, 1024)


class Notes(Clone):

    def test_the_note_on_sectors_comes_before_that_on_the_system_disk(self):
        machine = self.prepared(8192, source_sector=512, target_sector=4096, system=1)
        self.expect(self.clone(machine), 0,
                    clone_text(1, 2, 8192, notes=sector_note(512, 4096) + SYSTEM_SOURCE_NOTE))

    def test_a_system_volume_counts_as_lying_on_its_first_disk_and_on_disk_0_where_it_does_not_say(self):
        for extents, source in (([(1, 512, 512), (2, 512, 512)], 1), ([], 0)):
            machine = self.prepared(1536)
            machine.system_volume(extents)
            machine.add_disk(0, pattern(1536, "system"))
            self.expect(self.clone(machine, source=source), 0, clone_text(source, 2, 1536, notes=SYSTEM_SOURCE_NOTE))


class Refusals(Clone):
    def test_the_same_disk_is_refused_before_the_system_disk_is_asked_for(self):
        for number in ("2", "0", "7"):  # a disk, the system's, and none
            for confirm in (("--confirm", "YES"), ()):
                machine = self.prepared(1536)
                machine.system_volume(None)
                result = self.expect(machine.run("clone", "--from", number, "--to", number, *confirm), 1, "",
                                     f"FATAL: source and target are the same disk (GetLastError={ANY_NUMBER})\n")
                self.assertEqual(result.sequence(), ["exit"])

    def test_without_a_system_volume_that_answers_nothing_else_is_looked_at(self):
        too_many = [(0, 512 * place, 512) for place in range(10)]
        for extents, report, steps in (
                (None, fatal("could not open C: to determine the system disk number", 2), ["CreateFileW"]),
                (too_many, fatal("IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS on C: failed", 234), SYSTEM_VOLUME_LOOK)):
            for confirm in (("--confirm", "YES"), ()):
                machine = self.prepared(1536)
                machine.system_volume(extents)
                result = self.expect(machine.run("clone", "--from", "1", "--to", "2", *confirm), 1, "", report)
                self.assertEqual(result.sequence(), [*steps, "exit"])

    def test_the_system_disk_is_refused_as_target_before_anything_else_is_looked_at(self):
        for source, confirm in (("1", ("--confirm", "YES")), ("1", ()), ("9", ("--confirm", "YES"))):
            machine = self.prepared(1536, system=2)
            result = self.expect(machine.run("clone", "--from", source, "--to", "2", *confirm), 1, "",
                                 "Refusing: PhysicalDrive2 is the disk Windows is running from - it cannot be a clone "
                                 "target.\n")
            self.assertEqual(result.sequence(), SYSTEM_VOLUME_LOOK + ["exit"])
            self.expect_untouched(machine, result)

    def test_without_confirmation_no_disk_is_opened(self):
        for source, confirm in (("1", ()), ("1", ("--confirm",)), ("1", ("--confirm", "yes")),
                                ("1", ("--confirm", "Yes")), ("1", ("--confirm", "YES ")), ("1", ("--confirm", "")),
                                ("9", ())):
            machine = self.prepared(1536)
            result = self.expect(machine.run("clone", "--from", source, "--to", "2", "--verify", *confirm), 1, "",
                                 "Refusing: clone is destructive (overwrites the ENTIRE target disk). Pass --confirm "
                                 "YES.\n")
            self.assertEqual(result.sequence(), SYSTEM_VOLUME_LOOK + ["exit"])
            self.expect_untouched(machine, result)

    def test_a_source_that_cannot_be_opened_is_refused_before_the_target_is_opened(self):
        for number, error in ((9, 2), (1, 5)):
            machine = self.prepared(1536)
            machine.disk(1)["open_error"] = 5
            machine.disk(2)["in_use"] = True
            result = self.expect(self.clone(machine, source=number), 1, "",
                                 f"Could not open source PhysicalDrive{number} (GetLastError={error})\n")
            self.assertEqual(result.calls("CreateFileW", path=TARGET), [])
            self.expect_untouched(machine, result)

    def test_a_target_that_cannot_be_had_is_refused_whatever_its_size(self):
        for target, size, error in ((2, 1536, 32), (2, 512, 32), (2, 4096, 32), (5, 1536, 2)):
            machine = self.prepared(1536, size)
            machine.disk(2)["in_use"] = True
            result = self.expect(self.clone(machine, target=target), 1, "",
                                 f"Could not open disk {target} exclusively for writing (GetLastError={error}).\n"
                                 "This almost always means a volume on it is still mounted/in use.\n"
                                 f"Take it offline first: diskpart > select disk {target} > offline disk\n")
            self.expect_untouched(machine, result)

    def test_a_smaller_target_is_refused_with_both_sizes_and_before_any_note(self):
        for length, source, shown in ((SIZE - 512, SIZE, "0.01 GiB, smaller than the source's 0.01"),
                                      (1535, 1536, "0.00 GiB, smaller than the source's 0.00"),
                                      (11 * 1048576, 48 * 1048576, "0.01 GiB, smaller than the source's 0.05")):
            machine = self.prepared(1536, target_sector=4096, system=1)
            machine.disk(1)["length"], machine.disk(2)["length"] = source, length
            with self.subTest(length=length, source=source):
                result = self.expect(self.clone(machine, "--verify"), 1, "",
                                     f"Refusing: target disk 2 is {shown} GiB.\n")
                self.expect_untouched(machine, result)
                self.assertEqual(len(result.calls("CreateFileW", path=SYSTEM)), 1)


class FailedCopies(Clone):
    def test_each_failure_leaves_the_blocks_before_it(self):
        machine = self.prepared()
        machine.add_fault("ReadFile", skip=1, error=23)
        self.expect(self.clone(machine), 1,
                    "Cloning PhysicalDrive1 -> PhysicalDrive2 (0.01 GiB)\n\r   49.99%  4 / 8 MiB  (4.0 MiB/s)   ",
                    "FATAL: read from the source disk failed - clone aborted, target left partially written "
                    "(GetLastError=23)\n")
        self.expect_copied(machine, BLOCK)
        for call, skip, effect, message, blocks, torn in (
                ("SetFilePointerEx", 2, {"error": 1117}, READ_FAILED, 1, 0),
                ("SetFilePointerEx", 1, {"error": 1117}, WRITE_FAILED, 0, 0),
                ("WriteFile", 2, {"error": 1117}, WRITE_FAILED, 2, 0),
                ("WriteFile", 1, {"transferred": 8192}, WRITE_FAILED, 1, 8192)):
            machine = self.prepared()
            machine.add_fault(call, skip=skip, **effect)
            with self.subTest(call, skip=skip):
                self.expect(self.clone(machine, "--verify"), 1, copy_text(1, 2, SIZE, upto=blocks),
                            fatal(message, effect.get("error", ANY_NUMBER)))
                self.expect_copied(machine, blocks * BLOCK + torn)

    def test_a_source_that_is_shorter_than_it_says_is_a_failed_read(self):
        machine = self.prepared()
        machine.disk(1)["length"] = SIZE + 512
        machine.add_disk(2, pattern(SIZE + 512, "target"))
        self.expect(self.clone(machine), 1, copy_text(1, 2, SIZE + 512, upto=2), fatal(READ_FAILED))
        self.expect_copied(machine, 2 * BLOCK)


class Comparison(Clone):
    def test_a_single_byte_that_differs_on_either_disk_is_reported_at_the_offset_of_its_block(self):
        for disk, at, block in ((2, BLOCK + 12345, 1), (2, 0, 0), (2, BLOCK - 1, 0), (2, SIZE - 1, 2), (1, BLOCK, 1),
                                (None, None, 1)):
            machine = self.prepared()
            if disk is None:  # the copy is right, and reads back wrongly
                machine.add_fault("ReadFile", path="PhysicalDrive2", skip=1, flip=77)
            else:
                self.poked(machine, 3, disk, at)
            with self.subTest(disk=disk, at=at):
                result = self.expect(self.clone(machine, "--verify"), 1,
                                     copy_text(1, 2, SIZE) + verify_text(SIZE, upto=block),
                                     f"\nVERIFY FAILED at offset {block * 4194304}\n")
                # The partition table is not read again, and no disk closed.
                self.assertEqual([line["code"] for line in result.calls("DeviceIoControl", path=TARGET)],
                                 [LENGTH_INFO, DRIVE_GEOMETRY_EX])
                self.assertEqual(result.calls("CloseHandle", path="PhysicalDrive"), [])
                if disk is None:
                    self.expect_copied(machine)

    def test_what_lies_behind_the_source_on_the_target_is_not_compared(self):
        machine = self.prepared(SIZE, SIZE + 4096)
        self.poked(machine, 3, 2, SIZE, b"other")
        self.expect(self.clone(machine, "--verify"), 0, clone_text(1, 2, SIZE, verify=True))

    def test_the_system_disk_is_asked_for_anew_only_where_blocks_differ(self):
        machine = self.prepared()
        self.assertEqual(len(self.clone(machine, "--verify").calls("CreateFileW", path=SYSTEM)), 2)
        self.poked(machine, 3, 2, BLOCK)
        self.assertEqual(len(self.clone(machine, "--verify").calls("CreateFileW", path=SYSTEM)), 3)

    def test_a_failed_seek_or_read_of_either_disk_ends_the_comparison(self):
        for call, skip, effect, message, block in (
                ("ReadFile", 5, {"error": 23}, VERIFY_SOURCE_FAILED, 1),
                ("ReadFile", 6, {"error": 23}, VERIFY_TARGET_FAILED, 1),
                ("ReadFile", 7, {"transferred": 1024}, VERIFY_SOURCE_FAILED, 2),
                ("ReadFile", 8, {"transferred": 1024}, VERIFY_TARGET_FAILED, 2),
                ("SetFilePointerEx", 6, {"error": 1117}, VERIFY_SOURCE_FAILED, 0),
                ("SetFilePointerEx", 11, {"error": 1117}, VERIFY_TARGET_FAILED, 2)):
            machine = self.prepared()
            machine.add_fault(call, skip=skip, **effect)
            with self.subTest(call, skip=skip):
                result = self.expect(self.clone(machine, "--verify"), 1,
                                     copy_text(1, 2, SIZE) + verify_text(SIZE, upto=block),
                                     fatal(message, effect.get("error", ANY_NUMBER)))
                self.assertNotIn(UPDATE_PROPERTIES, [line["code"] for line in result.calls("DeviceIoControl")])
                self.expect_copied(machine)


class LiveSystemDisk(Clone):
    """A running system changes its disk between the two passes, and nobody is alarmed."""

    def test_a_changed_block_is_passed_over_and_the_meter_stands_still(self):
        machine = self.prepared(system=1)
        self.poked(machine, 3, 1, BLOCK + 5)
        result = self.expect(self.clone(machine, "--verify"), 0,
                             "NOTE: the source is the running system disk - it is read live (crash-consistent, not a "
                             "VSS snapshot).\n"
                             "Cloning PhysicalDrive1 -> PhysicalDrive2 (0.01 GiB)\n"
                             "\r   49.99%  4 / 8 MiB  (4.0 MiB/s)   \r   99.98%  8 / 8 MiB  (4.0 MiB/s)   "
                             "\r  100.00%  8 / 8 MiB  (2.7 MiB/s)   \n"
                             "Verifying the copy...\n"
                             "\r   49.99%  4 / 8 MiB  (4.0 MiB/s)   \r  100.00%  8 / 8 MiB  (4.0 MiB/s)   "
                             "\nVerify OK.\n"
                             "Clone complete. Run 'diskpart > rescan' (or reboot) before relying on the target disk.\n")
        self.assertEqual(len(result.calls("CreateFileW", path=SYSTEM)), 3)
        self.expect_disk(machine, 2, pattern(SIZE, "source"))  # as it was when it was copied

    def test_every_block_may_change(self):
        machine = self.prepared(system=1)
        self.poked(machine, 3, 1, 0)
        machine.add_fault("ReadFile", path="PhysicalDrive1", skip=4,
                          poke={"disk": 1, "offset": BLOCK, "hex": "00" * 16})
        machine.add_fault("CloseHandle", path="C:", skip=2,
                          poke={"disk": 1, "offset": SIZE - 16, "hex": "00" * 16})
        result = self.expect(self.clone(machine, "--verify"), 0,
                             clone_text(1, 2, SIZE, notes=SYSTEM_SOURCE_NOTE, verify=True, silent=(0, 1, 2)))
        self.assertEqual(len(result.calls("CreateFileW", path=SYSTEM)), 5)
        self.assertEqual(result.calls("DeviceIoControl")[-1]["code"], UPDATE_PROPERTIES)


if __name__ == "__main__":
    suite.main()
