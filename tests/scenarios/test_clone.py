"""clone: one disk straight onto another, the comparison of the copy, and everything that is refused."""

import os

import suite
from clone_runs import (BLOCK, COMPLETE, READ_FAILED, SYSTEM_SOURCE_NOTE, UNCONFIRMED, VERIFY_SOURCE_FAILED,
                        VERIFY_TARGET_FAILED, WRITE_FAILED, blocks_of, clone_text, cloning_line, copy_text, pattern,
                        sector_note, smaller_refusal, system_target_refusal, verify_text)
from console import ANY_NUMBER, exclusive_failure, fatal
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
    def test_a_disk_goes_onto_another(self):
        machine = self.prepared()
        self.expect(self.clone(machine), 0,
                    "Cloning PhysicalDrive1 -> PhysicalDrive2 (0.01 GiB)\n"
                    "\r   49.99%  4 / 8 MiB  (4.0 MiB/s)   \r   99.98%  8 / 8 MiB  (4.0 MiB/s)   "
                    "\r  100.00%  8 / 8 MiB  (2.7 MiB/s)   \n"
                    "Clone complete. Run 'diskpart > rescan' (or reboot) before relying on the target disk.\n")
        self.expect_copied(machine)

    def test_a_disk_goes_onto_another_and_is_compared(self):
        machine = self.prepared()
        self.expect(self.clone(machine, "--verify"), 0,
                    "Cloning PhysicalDrive1 -> PhysicalDrive2 (0.01 GiB)\n"
                    "\r   49.99%  4 / 8 MiB  (4.0 MiB/s)   \r   99.98%  8 / 8 MiB  (4.0 MiB/s)   "
                    "\r  100.00%  8 / 8 MiB  (2.7 MiB/s)   \n"
                    "Verifying the copy...\n"
                    "\r   49.99%  4 / 8 MiB  (4.0 MiB/s)   \r   99.98%  8 / 8 MiB  (4.0 MiB/s)   "
                    "\r  100.00%  8 / 8 MiB  (2.7 MiB/s)   \nVerify OK.\n"
                    "Clone complete. Run 'diskpart > rescan' (or reboot) before relying on the target disk.\n")
        self.expect_copied(machine)

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

    def test_the_steps_of_the_verify_pass(self):
        machine = self.prepared(1536)
        result = self.clone(machine, "--verify")
        first = result.sequence().index("WriteFile") + 2
        steps = [(line["call"], line.get("path"), line.get("offset")) for line in result.log[first:]]
        self.assertEqual(steps, [
            ("GetTickCount64", None, None), ("SetFilePointerEx", SOURCE, 0), ("ReadFile", SOURCE, 0),
            ("SetFilePointerEx", TARGET, 0), ("ReadFile", TARGET, 0), ("GetTickCount64", None, None),
            ("DeviceIoControl", TARGET, None), ("CloseHandle", TARGET, None), ("CloseHandle", SOURCE, None),
            ("exit", None, None)])

    def test_how_the_disks_are_opened(self):
        result = self.clone(self.prepared(1536))
        opened = [{key: line[key] for key in ("path", "access", "share", "disposition", "flags")}
                  for line in result.calls("CreateFileW", path="PhysicalDrive")]
        self.assertEqual(opened, [
            {"path": SOURCE, "access": ACCESS_READ, "share": "0x00000003", "disposition": 3, "flags": "0x28000000"},
            {"path": TARGET, "access": ACCESS_READ_WRITE, "share": "0x00000000", "disposition": 3,
             "flags": FLAG_NO_BUFFERING}])

    def test_each_transfer_is_a_block_at_its_place(self):
        machine = self.prepared()
        result = self.clone(machine, "--verify")
        blocks = blocks_of(SIZE)
        self.assertEqual(blocks, [(0, 4194304), (4194304, 4194304), (8388608, 1536)])
        transfers = [(line["call"], line["path"], line["offset"], line["length"]) for line in result.log
                     if line["call"] in ("ReadFile", "WriteFile")]
        self.assertEqual(transfers,
                         [step for offset, count in blocks
                          for step in (("ReadFile", SOURCE, offset, count), ("WriteFile", TARGET, offset, count))] +
                         [step for offset, count in blocks
                          for step in (("ReadFile", SOURCE, offset, count), ("ReadFile", TARGET, offset, count))])

    def test_each_transfer_is_preceded_by_a_seek(self):
        result = self.clone(self.prepared(), "--verify")
        for place, line in enumerate(result.log):
            if line["call"] in ("ReadFile", "WriteFile"):
                before = result.log[place - 1]
                self.assertEqual((before["call"], before["path"], before["offset"]),
                                 ("SetFilePointerEx", line["path"], line["offset"]))

    def test_the_questions_to_the_disks_have_no_more_room_than_their_answers(self):
        result = self.clone(self.prepared(1536))
        asked = [(line["code"], line["in"], line["out"]) for line in result.calls("DeviceIoControl")]
        self.assertEqual(asked, [(VOLUME_DISK_EXTENTS, 0, 224), (LENGTH_INFO, 0, 8), (DRIVE_GEOMETRY_EX, 0, 40),
                                 (LENGTH_INFO, 0, 8), (DRIVE_GEOMETRY_EX, 0, 40), (VOLUME_DISK_EXTENTS, 0, 224),
                                 (UPDATE_PROPERTIES, 0, 0)])

    def test_both_buffers_are_taken_whether_the_copy_is_compared_or_not(self):
        for options in ((), ("--verify",)):
            result = self.clone(self.prepared(1536), *options)
            self.assertEqual([(line["size"], line["alignment"]) for line in result.calls("_aligned_malloc")],
                             [(4194304, 4096), (4194304, 4096)])

    def test_the_buffers_are_aligned_to_larger_sectors_of_the_source(self):
        for source, target, alignment in ((4096, 4096, 4096), (8192, 512, 8192), (65536, 65536, 65536)):
            machine = self.prepared(131072, source_sector=source, target_sector=target)
            result = self.clone(machine, "--verify")
            self.assertEqual([(line["size"], line["alignment"]) for line in result.calls("_aligned_malloc")],
                             [(4194304, alignment), (4194304, alignment)])
            self.assertEqual(result.status, 0)
            self.expect_copied(machine)

    def test_a_failed_reading_of_the_partition_table_is_not_looked_at(self):
        machine = self.prepared(1536)
        machine.add_fault("DeviceIoControl", path="PhysicalDrive2", skip=2, error=1117)
        self.expect(self.clone(machine), 0, clone_text(1, 2, 1536))
        self.expect_copied(machine)

    def test_neither_snapshots_nor_the_tracker_are_asked(self):
        machine = self.prepared(1536)
        machine.shadow_service()
        machine.tracker([{"number": 1}, {"number": 2}])
        result = self.expect(self.clone(machine, "--vss"), 0, clone_text(1, 2, 1536))
        self.assertEqual([line for line in result.log if line["call"].startswith(("Co", "IVss", "Create", "Find"))
                          and line.get("path") not in (SYSTEM, SOURCE, TARGET)], [])

    def test_a_source_in_use_is_read(self):
        machine = self.prepared(1536)
        machine.disk(1)["in_use"] = True
        self.expect(self.clone(machine, "--verify"), 0, clone_text(1, 2, 1536, verify=True))
        self.expect_copied(machine)

    def test_an_unfinished_clone_starts_again_from_the_first_byte(self):
        machine = self.prepared()
        machine.add_fault("WriteFile", skip=1, error=1117)
        self.assertEqual(self.clone(machine).status, 1)
        machine.clear_faults()
        result = self.expect(self.clone(machine), 0, clone_text(1, 2, SIZE))
        self.assertEqual([line["offset"] for line in result.calls("WriteFile")], [0, BLOCK, 2 * BLOCK])
        self.expect_copied(machine)

    def test_the_rate_of_the_verify_pass_is_its_own(self):
        machine = self.prepared(BLOCK)
        machine.ticks(5000, 4000)
        self.expect(self.clone(machine, "--verify"), 0,
                    "Cloning PhysicalDrive1 -> PhysicalDrive2 (0.00 GiB)\n"
                    "\r  100.00%  4 / 4 MiB  (1.0 MiB/s)   \n"
                    "Verifying the copy...\n"
                    "\r  100.00%  4 / 4 MiB  (1.0 MiB/s)   \nVerify OK.\n" + COMPLETE)


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

    def sizes(self, sector):
        return [sector, 3 * sector, BLOCK - sector, BLOCK, BLOCK + sector, BLOCK + 3 * sector, 2 * BLOCK]

    def test_512_onto_512(self):
        for size in self.sizes(512):
            self.check(size, 512, 512)

    def test_4096_onto_4096(self):
        for size in self.sizes(4096):
            self.check(size, 4096, 4096)

    def test_4096_onto_512(self):
        for size in self.sizes(4096):
            self.check(size, 4096, 512)

    def test_512_onto_4096_where_the_rest_fits(self):
        for size in (4096, BLOCK - 4096, BLOCK, BLOCK + 8192):
            self.check(size, 512, 4096)

    def test_512_onto_4096_where_the_rest_does_not_fit(self):
        for size in (512, BLOCK - 512, BLOCK + 512, BLOCK + 3584, 2 * BLOCK + 1536):
            self.check(size, 512, 4096)

    def test_sectors_of_520_bytes(self):
        machine = self.prepared(520 * 100, source_sector=520, target_sector=520)
        self.expect(self.clone(machine, "--verify"), 0, clone_text(1, 2, 52000, verify=True))
        self.expect_copied(machine)

    def test_a_block_that_is_no_whole_number_of_the_sources_sectors_fails_on_reading(self):
        machine = self.prepared(520 * 9000, source_sector=520, target_sector=520)
        self.expect(self.clone(machine), 1, cloning_line(1, 2, 4680000), fatal(READ_FAILED, 87))
        self.expect_copied(machine, 0)

    def test_a_source_of_no_bytes(self):
        machine = self.prepared(1024)
        machine.disk(1)["length"] = 0
        result = self.expect(self.clone(machine), 0,
                             "Cloning PhysicalDrive1 -> PhysicalDrive2 (0.00 GiB)\n\n"
                             "Clone complete. Run 'diskpart > rescan' (or reboot) before relying on the target disk.\n")
        self.expect_untouched(machine, result)
        self.assertEqual(result.calls("DeviceIoControl")[-1]["code"], UPDATE_PROPERTIES)

    def test_a_source_of_no_bytes_is_compared(self):
        machine = self.prepared(1024)
        machine.disk(1)["length"] = 0
        result = self.expect(self.clone(machine, "--verify"), 0,
                             "Cloning PhysicalDrive1 -> PhysicalDrive2 (0.00 GiB)\n\n"
                             "Verifying the copy...\n\nVerify OK.\n"
                             "Clone complete. Run 'diskpart > rescan' (or reboot) before relying on the target disk.\n")
        self.expect_untouched(machine, result)
        self.assertEqual(result.calls("ReadFile"), [])

    def test_the_length_is_the_disks_answer_and_not_its_files(self):
        machine = self.prepared(4096)
        machine.disk(1)["length"] = 1024
        self.expect(self.clone(machine, "--verify"), 0, clone_text(1, 2, 1024, verify=True))
        self.expect_copied(machine, 1024)


class LargerTarget(Clone):
    def test_it_passes_in_silence_and_keeps_its_tail(self):
        for options in ((), ("--verify",)):
            machine = self.prepared(SIZE, SIZE + BLOCK + 512)
            self.expect(self.clone(machine, *options), 0, clone_text(1, 2, SIZE, verify=bool(options)))
            self.expect_copied(machine, SIZE)

    def test_one_sector_more_is_enough_to_see_it(self):
        machine = self.prepared(1536, 2048)
        self.expect(self.clone(machine), 0, clone_text(1, 2, 1536))
        self.expect_copied(machine, 1536)


class Notes(Clone):
    def test_sector_sizes_are_noted_source_first(self):
        machine = self.prepared(8192, source_sector=4096, target_sector=512)
        self.expect(self.clone(machine), 0,
                    "NOTE: sector sizes differ (4096 -> 512); "
                    "a raw clone between different sector sizes may not boot.\n"
                    "Cloning PhysicalDrive1 -> PhysicalDrive2 (0.00 GiB)\n"
                    "\r  100.00%  0 / 0 MiB  (0.0 MiB/s)   \n"
                    "Clone complete. Run 'diskpart > rescan' (or reboot) before relying on the target disk.\n")
        self.expect_copied(machine)
        machine = self.prepared(8192, source_sector=512, target_sector=4096)
        self.expect(self.clone(machine), 0, clone_text(1, 2, 8192, notes=sector_note(512, 4096)))

    def test_the_system_disk_as_source_is_noted_and_copied(self):
        machine = self.prepared(system=1)
        self.expect(self.clone(machine), 0,
                    "NOTE: the source is the running system disk - it is read live (crash-consistent, not a VSS "
                    "snapshot).\n" + clone_text(1, 2, SIZE))
        self.expect_copied(machine)

    def test_the_note_on_sectors_comes_before_that_on_the_system_disk(self):
        machine = self.prepared(8192, source_sector=512, target_sector=4096, system=1)
        self.expect(self.clone(machine), 0,
                    clone_text(1, 2, 8192, notes=sector_note(512, 4096) + SYSTEM_SOURCE_NOTE))

    def test_a_system_volume_that_does_not_say_where_it_lies_counts_as_disk_0(self):
        machine = self.prepared(1536)
        machine.system_volume([])
        machine.add_disk(0, pattern(1536, "system"))
        self.expect(self.clone(machine, source=0), 0, clone_text(0, 2, 1536, notes=SYSTEM_SOURCE_NOTE))

    def test_a_system_volume_on_several_disks_counts_as_lying_on_its_first(self):
        machine = self.prepared(1536)
        machine.system_volume([(1, 512, 512), (2, 512, 512)])
        self.expect(self.clone(machine), 0, clone_text(1, 2, 1536, notes=SYSTEM_SOURCE_NOTE))


class Refusals(Clone):
    def test_the_same_disk_is_refused_before_the_system_disk_is_asked_for(self):
        for confirm in (("--confirm", "YES"), ()):
            machine = self.prepared(1536)
            machine.system_volume(None)
            result = self.expect(machine.run("clone", "--from", "2", "--to", "2", *confirm), 1, "",
                                 f"FATAL: source and target are the same disk (GetLastError={ANY_NUMBER})\n")
            self.assertEqual(result.sequence(), ["exit"])

    def test_the_same_disk_is_refused_even_if_it_does_not_exist_or_is_the_systems(self):
        machine = self.prepared(1536)
        for number in (0, 7):
            self.expect(self.clone(machine, source=number, target=number), 1, "",
                        fatal("source and target are the same disk"))

    def test_without_a_system_volume_nothing_else_is_looked_at(self):
        machine = self.prepared(1536)
        machine.system_volume(None)
        for confirm in (("--confirm", "YES"), ()):
            result = self.expect(machine.run("clone", "--from", "1", "--to", "2", *confirm), 1, "",
                                 fatal("could not open C: to determine the system disk number", 2))
            self.assertEqual(result.sequence(), ["CreateFileW", "exit"])

    def test_a_system_volume_of_too_many_extents_ends_the_run(self):
        machine = self.prepared(1536)
        machine.system_volume([(0, 512 * place, 512) for place in range(10)])
        result = self.expect(self.clone(machine), 1, "",
                             fatal("IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS on C: failed", 234))
        self.assertEqual(result.sequence(), SYSTEM_VOLUME_LOOK + ["exit"])

    def test_the_system_disk_is_refused_as_target(self):
        machine = self.prepared(1536, system=2)
        result = self.expect(self.clone(machine), 1, "",
                             "Refusing: PhysicalDrive2 is the disk Windows is running from - it cannot be a clone "
                             "target.\n")
        self.assertEqual(result.sequence(), SYSTEM_VOLUME_LOOK + ["exit"])
        self.expect_untouched(machine, result)

    def test_the_system_disk_as_target_is_refused_before_the_missing_confirmation(self):
        machine = self.prepared(1536, system=2)
        self.expect(machine.run("clone", "--from", "1", "--to", "2"), 1, "", system_target_refusal(2))

    def test_the_system_disk_as_target_is_refused_before_the_source_is_opened(self):
        machine = self.prepared(1536, system=2)
        self.expect(self.clone(machine, source=9), 1, "", system_target_refusal(2))

    def test_without_confirmation_no_disk_is_opened(self):
        for confirm in ((), ("--confirm",), ("--confirm", "yes"), ("--confirm", "Yes"), ("--confirm", "YES "),
                        ("--confirm", "")):
            machine = self.prepared(1536)
            result = self.expect(machine.run("clone", "--from", "1", "--to", "2", "--verify", *confirm), 1, "",
                                 "Refusing: clone is destructive (overwrites the ENTIRE target disk). Pass --confirm "
                                 "YES.\n")
            self.assertEqual(result.sequence(), SYSTEM_VOLUME_LOOK + ["exit"])
            self.expect_untouched(machine, result)

    def test_the_missing_confirmation_is_refused_before_a_missing_source(self):
        machine = self.prepared(1536)
        self.expect(machine.run("clone", "--from", "9", "--to", "2"), 1, "", UNCONFIRMED)

    def test_a_source_that_cannot_be_opened_is_refused_before_the_target_is_opened(self):
        for number, error in ((9, 2), (1, 5)):
            machine = self.prepared(1536)
            machine.disk(1)["open_error"] = 5
            machine.disk(2)["in_use"] = True
            result = self.expect(self.clone(machine, source=number), 1, "",
                                 f"Could not open source PhysicalDrive{number} (GetLastError={error})\n")
            self.assertEqual(result.calls("CreateFileW", path=TARGET), [])
            self.expect_untouched(machine, result)

    def test_a_target_in_use_is_refused_whatever_its_size(self):
        for size in (1536, 512, 4096):
            machine = self.prepared(1536, size)
            machine.disk(2)["in_use"] = True
            result = self.expect(self.clone(machine), 1, "",
                                 "Could not open disk 2 exclusively for writing (GetLastError=32).\n"
                                 "This almost always means a volume on it is still mounted/in use.\n"
                                 "Take it offline first: diskpart > select disk 2 > offline disk\n")
            self.expect_untouched(machine, result)

    def test_a_missing_target_is_refused(self):
        self.expect(self.clone(self.prepared(1536), target=5), 1, "", exclusive_failure(5, 2))

    def test_a_target_that_is_one_sector_too_small_is_refused(self):
        machine = self.prepared(SIZE, SIZE - 512)
        result = self.expect(self.clone(machine, "--verify"), 1, "",
                             "Refusing: target disk 2 is 0.01 GiB, smaller than the source's 0.01 GiB.\n")
        self.expect_untouched(machine, result)

    def test_a_target_that_is_one_byte_too_small_is_refused(self):
        machine = self.prepared(1536)
        machine.disk(2)["length"] = 1535
        result = self.expect(self.clone(machine), 1, "", smaller_refusal(2, 1535, 1536))
        self.expect_untouched(machine, result)

    def test_the_refusal_of_a_smaller_target_shows_its_size_and_the_sources(self):
        machine = self.prepared(1536)
        machine.add_disk(1, 48 * 1048576)
        machine.add_disk(2, 11 * 1048576)
        result = self.expect(self.clone(machine), 1, "",
                             "Refusing: target disk 2 is 0.01 GiB, smaller than the source's 0.05 GiB.\n")
        self.assertEqual(result.calls("WriteFile"), [])

    def test_a_smaller_target_is_refused_before_any_note(self):
        machine = self.prepared(8192, 4096, source_sector=512, target_sector=4096, system=1)
        result = self.expect(self.clone(machine), 1, "", smaller_refusal(2, 4096, 8192))
        self.assertEqual(len(result.calls("CreateFileW", path=SYSTEM)), 1)

    def test_a_disk_that_does_not_tell_its_geometry_is_refused(self):
        for skip, name in enumerate(("LENGTH_INFO", "DRIVE_GEOMETRY_EX") * 2):
            machine = self.prepared(1536)
            machine.add_fault("DeviceIoControl", path="PhysicalDrive", skip=skip, error=1117)
            result = self.expect(self.clone(machine), 1, "", fatal(f"IOCTL_DISK_GET_{name} failed", 1117))
            self.expect_untouched(machine, result)

    def test_a_lack_of_memory_for_either_buffer_ends_the_run_behind_the_opening_line(self):
        for skip in (0, 1):
            machine = self.prepared(1536)
            machine.add_fault("_aligned_malloc", skip=skip, null=True)
            result = self.expect(self.clone(machine), 1, cloning_line(1, 2, 1536),
                                 fatal("out of memory allocating aligned I/O buffer"))
            self.expect_untouched(machine, result)


class FailedCopies(Clone):
    def test_a_failed_read_leaves_the_blocks_before_it(self):
        machine = self.prepared()
        machine.add_fault("ReadFile", skip=1, error=23)
        self.expect(self.clone(machine), 1,
                    "Cloning PhysicalDrive1 -> PhysicalDrive2 (0.01 GiB)\n\r   49.99%  4 / 8 MiB  (4.0 MiB/s)   ",
                    "FATAL: read from the source disk failed - clone aborted, target left partially written "
                    "(GetLastError=23)\n")
        self.expect_copied(machine, BLOCK)

    def test_a_source_that_is_shorter_than_it_says_is_a_failed_read(self):
        machine = self.prepared()
        machine.disk(1)["length"] = SIZE + 512
        machine.add_disk(2, pattern(SIZE + 512, "target"))
        self.expect(self.clone(machine), 1, copy_text(1, 2, SIZE + 512, upto=2), fatal(READ_FAILED))
        self.expect_copied(machine, 2 * BLOCK)

    def test_a_failed_seek_is_a_failed_read_or_write(self):
        for skip, message, copied in ((2, READ_FAILED, 1), (3, WRITE_FAILED, 1), (0, READ_FAILED, 0),
                                      (1, WRITE_FAILED, 0)):
            machine = self.prepared()
            machine.add_fault("SetFilePointerEx", skip=skip, error=1117)
            self.expect(self.clone(machine), 1, copy_text(1, 2, SIZE, upto=copied), fatal(message, 1117))
            self.expect_copied(machine, copied * BLOCK)

    def test_a_failed_write_leaves_the_blocks_before_it(self):
        machine = self.prepared()
        machine.add_fault("WriteFile", skip=2, error=1117)
        self.expect(self.clone(machine, "--verify"), 1, copy_text(1, 2, SIZE, upto=2), fatal(WRITE_FAILED, 1117))
        self.expect_copied(machine, 2 * BLOCK)

    def test_a_short_write_is_a_failure_and_what_it_wrote_stays(self):
        machine = self.prepared()
        machine.add_fault("WriteFile", skip=1, transferred=8192)
        self.expect(self.clone(machine), 1, copy_text(1, 2, SIZE, upto=1), fatal(WRITE_FAILED))
        self.expect_copied(machine, BLOCK + 8192)


class Comparison(Clone):
    def test_a_difference_in_the_second_block_is_reported_at_its_offset(self):
        machine = self.prepared()
        self.poked(machine, 3, 2, BLOCK + 12345)
        result = self.expect(self.clone(machine, "--verify"), 1,
                             copy_text(1, 2, SIZE) + "Verifying the copy...\n\r   49.99%  4 / 8 MiB  (4.0 MiB/s)   ",
                             "\nVERIFY FAILED at offset 4194304\n")
        self.assertEqual([line["code"] for line in result.calls("DeviceIoControl", path=TARGET)],
                         [LENGTH_INFO, DRIVE_GEOMETRY_EX])
        self.assertEqual(result.calls("CloseHandle", path="PhysicalDrive"), [])
        changed = bytearray(pattern(SIZE, "source"))
        changed[BLOCK + 12345] ^= 0xFF
        self.expect_disk(machine, 2, bytes(changed))

    def test_a_difference_in_the_first_byte_is_found(self):
        machine = self.prepared()
        self.poked(machine, 3, 2, 0)
        self.expect(self.clone(machine, "--verify"), 1, copy_text(1, 2, SIZE) + "Verifying the copy...\n",
                    "\nVERIFY FAILED at offset 0\n")

    def test_a_difference_in_the_last_byte_of_an_odd_rest_is_found(self):
        machine = self.prepared()
        self.poked(machine, 3, 2, SIZE - 1)
        self.expect(self.clone(machine, "--verify"), 1, copy_text(1, 2, SIZE) + verify_text(SIZE, upto=2),
                    "\nVERIFY FAILED at offset 8388608\n")

    def test_a_difference_in_the_last_byte_of_a_whole_block_is_found(self):
        machine = self.prepared()
        self.poked(machine, 3, 2, BLOCK - 1)
        self.expect(self.clone(machine, "--verify"), 1, copy_text(1, 2, SIZE) + verify_text(SIZE, upto=0),
                    "\nVERIFY FAILED at offset 0\n")

    def test_a_source_that_changed_is_a_difference_too(self):
        machine = self.prepared()
        self.poked(machine, 3, 1, BLOCK)
        self.expect(self.clone(machine, "--verify"), 1, copy_text(1, 2, SIZE) + verify_text(SIZE, upto=1),
                    "\nVERIFY FAILED at offset 4194304\n")

    def test_what_was_read_wrongly_is_a_difference(self):
        machine = self.prepared()
        machine.add_fault("ReadFile", path="PhysicalDrive2", skip=1, flip=77)
        self.expect(self.clone(machine, "--verify"), 1, copy_text(1, 2, SIZE) + verify_text(SIZE, upto=1),
                    "\nVERIFY FAILED at offset 4194304\n")
        self.expect_copied(machine)

    def test_a_copy_that_was_read_wrongly_is_not_noticed_without_the_comparison(self):
        machine = self.prepared()
        machine.add_fault("ReadFile", path="PhysicalDrive1", skip=1, flip=77)
        self.expect(self.clone(machine), 0, clone_text(1, 2, SIZE))
        self.assertNotEqual(machine.disk_bytes(2), machine.disk_bytes(1))

    def test_what_lies_behind_the_source_on_the_target_is_not_compared(self):
        machine = self.prepared(SIZE, SIZE + 4096)
        self.poked(machine, 3, 2, SIZE, b"other")
        self.expect(self.clone(machine, "--verify"), 0, clone_text(1, 2, SIZE, verify=True))

    def test_the_first_difference_ends_the_pass(self):
        machine = self.prepared()
        self.poked(machine, 3, 2, BLOCK)
        machine.add_fault("GetTickCount64", skip=3, poke={"disk": 2, "offset": 2 * BLOCK, "hex": "00" * 8})
        result = self.expect(self.clone(machine, "--verify"), 1, copy_text(1, 2, SIZE) + verify_text(SIZE, upto=1),
                             "\nVERIFY FAILED at offset 4194304\n")
        self.assertEqual([line["offset"] for line in result.calls("ReadFile", path=TARGET)], [0, BLOCK])

    def test_the_system_disk_is_asked_for_anew_only_where_blocks_differ(self):
        machine = self.prepared()
        self.assertEqual(len(self.clone(machine, "--verify").calls("CreateFileW", path=SYSTEM)), 2)
        self.poked(machine, 3, 2, BLOCK)
        self.assertEqual(len(self.clone(machine, "--verify").calls("CreateFileW", path=SYSTEM)), 3)

    def test_a_system_volume_that_cannot_be_asked_at_a_difference_ends_the_run(self):
        machine = self.prepared(system=1)
        self.poked(machine, 3, 1, BLOCK)
        machine.add_fault("CreateFileW", path="C:", skip=2, error=1117)
        begun = copy_text(1, 2, SIZE, SYSTEM_SOURCE_NOTE) + verify_text(SIZE, upto=1)
        self.expect(self.clone(machine, "--verify"), 1, begun,
                    fatal("could not open C: to determine the system disk number", 1117))
        machine = self.prepared(system=1)
        self.poked(machine, 3, 1, BLOCK)
        machine.add_fault("DeviceIoControl", path="C:", skip=2, error=1117)
        self.expect(self.clone(machine, "--verify"), 1, begun,
                    fatal("IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS on C: failed", 1117))

    def test_a_failed_read_of_either_disk_ends_the_comparison(self):
        for disk, skip, message in ((1, 4, VERIFY_SOURCE_FAILED), (2, 1, VERIFY_TARGET_FAILED)):
            machine = self.prepared()
            machine.add_fault("ReadFile", path=f"PhysicalDrive{disk}", skip=skip, error=23)
            result = self.expect(self.clone(machine, "--verify"), 1,
                                 copy_text(1, 2, SIZE) + verify_text(SIZE, upto=1), fatal(message, 23))
            self.assertNotIn(UPDATE_PROPERTIES, [line["code"] for line in result.calls("DeviceIoControl")])
            self.expect_copied(machine)

    def test_a_short_read_of_either_disk_ends_the_comparison(self):
        for disk, skip, message in ((1, 5, VERIFY_SOURCE_FAILED), (2, 2, VERIFY_TARGET_FAILED)):
            machine = self.prepared()
            machine.add_fault("ReadFile", path=f"PhysicalDrive{disk}", skip=skip, transferred=1024)
            self.expect(self.clone(machine, "--verify"), 1, copy_text(1, 2, SIZE) + verify_text(SIZE, upto=2),
                        fatal(message))

    def test_a_failed_seek_ends_the_comparison(self):
        for skip, message, compared in ((6, VERIFY_SOURCE_FAILED, 0), (7, VERIFY_TARGET_FAILED, 0),
                                        (10, VERIFY_SOURCE_FAILED, 2), (11, VERIFY_TARGET_FAILED, 2)):
            machine = self.prepared()
            machine.add_fault("SetFilePointerEx", skip=skip, error=1117)
            self.expect(self.clone(machine, "--verify"), 1, copy_text(1, 2, SIZE) + verify_text(SIZE, upto=compared),
                        fatal(message, 1117))


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

    def test_a_difference_on_the_target_is_passed_over_too(self):
        machine = self.prepared(system=1)
        self.poked(machine, 3, 2, 2 * BLOCK)
        self.expect(self.clone(machine, "--verify"), 0,
                    clone_text(1, 2, SIZE, notes=SYSTEM_SOURCE_NOTE, verify=True, silent=(2,)))

    def test_a_change_while_the_copy_pass_runs_is_copied_or_tolerated(self):
        machine = self.prepared(system=1)
        # Before the second block is read, in the first block, which is copied already, and in the third.
        machine.add_fault("ReadFile", path="PhysicalDrive1", skip=1,
                          poke={"disk": 1, "offset": 100, "hex": "00" * 16})
        machine.add_fault("SetFilePointerEx", path="PhysicalDrive1", skip=2,
                          poke={"disk": 1, "offset": 2 * BLOCK, "hex": "11" * 16})
        self.expect(self.clone(machine, "--verify"), 0,
                    clone_text(1, 2, SIZE, notes=SYSTEM_SOURCE_NOTE, verify=True, silent=(0,)))
        source = pattern(SIZE, "source")
        self.expect_disk(machine, 2, source[:2 * BLOCK] + b"\x11" * 16 + source[2 * BLOCK + 16:])

    def test_a_failed_read_is_not_tolerated(self):
        machine = self.prepared(system=1)
        machine.add_fault("ReadFile", path="PhysicalDrive1", skip=4, error=23)
        self.expect(self.clone(machine, "--verify"), 1,
                    copy_text(1, 2, SIZE, SYSTEM_SOURCE_NOTE) + verify_text(SIZE, upto=1),
                    fatal(VERIFY_SOURCE_FAILED, 23))


class CommandLine(Clone):
    def test_options_are_found_in_any_case_and_order(self):
        machine = self.prepared(1536)
        result = machine.run("clone", "--VERIFY", "--To", "2", "--CONFIRM", "YES", "--from", "1")
        self.expect(result, 0, clone_text(1, 2, 1536, verify=True))

    def test_the_flag_is_found_as_the_last_argument(self):
        machine = self.prepared(1536)
        self.expect(self.clone(machine, "--verify"), 0, clone_text(1, 2, 1536, verify=True))

    def test_large_numbers_are_numbers_of_disks(self):
        machine = self.prepared(1536)
        machine.add_disk(2147483647, pattern(1536, "target"))
        self.expect(self.clone(machine, target=2147483647), 0, clone_text(1, 2147483647, 1536))
        self.expect_disk(machine, 2147483647, pattern(1536, "source"))


if __name__ == "__main__":
    suite.main()
