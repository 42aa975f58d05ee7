"""capture: a full plain image of a disk, from the opening of the source to the final name: what the image says, in
which order it is made, which names it goes by, and what each step that fails says and leaves."""

import os

import suite
from console import (NO_TRACKER, SYSTEM_DISK_NOTE, capture_text, fatal, fatal_status, meter_run, source_line,
                     verify_text)
from image import is_accepted, read_table
from machine import ACCESS_WRITE, pattern

SMALL = 8192
MIB4 = 0x400000
READ_FAILED = "ReadFile from source disk failed mid-capture - image is incomplete, do not trust it"
WRITE_FAILED = "WriteFile to image file failed mid-capture (disk full?)"
PUBLISH_FAILED = "could not atomically publish completed image"
OVERWRITE = "refusing to overwrite an existing output image"
NOT_CREATED = "could not create output image file"


class Capture(suite.Scenario):
    def small(self, size=SMALL, **options):
        return self.machine(source=pattern(size, "source"), target=bytes(512), **options)

    def capture(self, machine, out="a.vrnx", *options, disk=1):
        return machine.run("capture", "--disk", str(disk), "--out", out, *options)

    def expect_captured(self, size, disk=1, out="a.vrnx", **options):
        """A capture of a disk of this size; gives machine and result."""
        machine = self.small(size)
        result = self.capture(machine, out)
        self.expect(result, 0, capture_text(disk, size, out, **options))
        self.expect_good_image(machine, out, machine.disk_bytes(disk))
        return machine, result

    def expect_unfinished(self, machine, name="a.vrnx.partial"):
        """Only the work file is there, it begins with zeros, and no reader takes it for an image."""
        self.assertEqual(machine.files(), [name])
        head = machine.read(name)[:64]
        self.assertEqual(head, bytes(len(head)))
        self.assertFalse(is_accepted(machine.path(name)))
        result = machine.run("verify", "--in", name)
        self.assertEqual((result.status, result.stdout), (1, b""))


class Image(Capture):
    def test_a_disk_becomes_an_image(self):
        machine = self.machine()
        result = self.capture(machine)
        self.expect(result, 0,
                    "Source: PhysicalDrive1  Size: 0.01 GiB  SectorSize: 512  Chunks: 3 (4194304 bytes each)\n"
                    "Change tracker: not available for this disk (Wendrel not loaded/attached)"
                    " - image carries no epoch.\n"
                    "\r   44.44%  4 / 9 MiB  (4.0 MiB/s)   \r  100.00%  9 / 9 MiB  (4.5 MiB/s)   \n"
                    "Capture complete: a.vrnx\n")
        self.assertEqual(machine.files(), ["a.vrnx"])
        self.expect_good_image(machine, "a.vrnx", pattern(machine.SOURCE_SIZE, "source"))

    def test_the_header_says_what_the_disk_is(self):
        machine, _ = self.expect_captured(SMALL)
        header, records = read_table(machine.path("a.vrnx"))
        self.assertEqual((header.magic, header.version, header.disk_size, header.sector_size, header.chunk_size,
                          header.chunk_count), (b"VRNXDSK2", 2, SMALL, 512, MIB4, 1))
        self.assertEqual((header.encrypted, header.epoch, header.salt, header.kdf_iterations), (0, 0, bytes(16), 0))
        self.assertEqual([(record.nonce, record.tag) for record in records], [(bytes(12), bytes(16))])

    def test_a_rest_makes_a_shorter_last_chunk(self):
        for size, lengths in ((2 * MIB4 + 512, [MIB4, MIB4, 512]), (2 * MIB4, [MIB4, MIB4]), (512, [512])):
            machine, _ = self.expect_captured(size)
            _, records = read_table(machine.path("a.vrnx"))
            self.assertEqual([(record.disk_offset, record.stored_length) for record in records],
                             [(index * MIB4, length) for index, length in enumerate(lengths)])
            self.assertEqual(os.path.getsize(machine.path("a.vrnx")), 64 + 72 * len(lengths) + size)

    def test_sectors_above_4_mebibytes_are_chunks(self):
        machine = self.small(2 * 0x800000, sector_size=0x800000)
        self.expect(self.capture(machine), 0, capture_text(1, 2 * 0x800000, "a.vrnx", sector_size=0x800000))
        header, _ = read_table(machine.path("a.vrnx"))
        self.assertEqual((header.sector_size, header.chunk_size, header.chunk_count), (0x800000, 0x800000, 2))
        self.expect_good_image(machine, "a.vrnx", machine.disk_bytes(1))

    def test_a_disk_of_length_0_gives_header_and_table_alone(self):
        machine = self.small()
        machine.add_disk(1, b"")
        self.leave_unjudged(machine, "no reader takes an image of a disk without bytes")
        result = self.capture(machine)
        self.expect(result, 0,
                    "Source: PhysicalDrive1  Size: 0.00 GiB  SectorSize: 512  Chunks: 0 (4194304 bytes each)\n"
                    + NO_TRACKER + "\nCapture complete: a.vrnx\n")
        self.assertEqual(machine.files(), ["a.vrnx"])
        self.assertEqual(len(machine.read("a.vrnx")), 64)
        self.assertEqual([line["length"] for line in result.calls("WriteFile")], [64, 0])
        self.expect(machine.run("verify", "--in", "a.vrnx"), 1, "",
                    fatal("image header has invalid disk/sector/chunk geometry"))


class Run(Capture):
    def test_the_calls_of_a_run_stand_in_their_order(self):
        _, result = self.expect_captured(512)
        source, work, system, tracker = r"\\.\PhysicalDrive1", "a.vrnx.partial", r"\\.\C:", r"\\.\Wendrel"
        steps = [(line["call"], line.get("path") or line.get("from")) for line in result.log
                 if not line["call"].startswith("BCrypt")]
        self.assertEqual(steps, [
            ("CreateFileW", source), ("DeviceIoControl", source), ("DeviceIoControl", source),
            ("CreateFileW", system), ("DeviceIoControl", system), ("CloseHandle", system), ("CreateFileW", tracker),
            ("GetFileAttributesA", "a.vrnx"), ("CreateFileW", work), ("SetFilePointerEx", work),
            ("_aligned_malloc", None), ("_aligned_malloc", None), ("GetTickCount64", None),
            ("SetFilePointerEx", source), ("ReadFile", source), ("WriteFile", work), ("GetTickCount64", None),
            ("SetFilePointerEx", work), ("WriteFile", work), ("WriteFile", work),
            ("CloseHandle", work), ("CloseHandle", source), ("MoveFileExW", work), ("exit", None)])
        # The work file is created anew and not shared; the rename is written through and replaces nothing.
        opened, move = result.calls("CreateFileW", path=".partial")[0], result.calls("MoveFileExW")[0]
        self.assertEqual((opened["access"], opened["share"], opened["flags"]),
                         (ACCESS_WRITE, "0x00000000", "0x00000080"))
        self.assertEqual((move["from"], move["to"], move["flags"]), ("a.vrnx.partial", "a.vrnx", "0x00000008"))

    def test_chunks_are_hashed_once_each_and_header_and_table_written_last_in_one_call_each(self):
        _, result = self.expect_captured(MIB4 + 512)
        writes = [(line["offset"], line["length"]) for line in result.calls("WriteFile")]
        self.assertEqual(writes, [(208, MIB4), (208 + MIB4, 512), (0, 64), (64, 144)])
        self.assertEqual({line["path"] for line in result.calls("WriteFile")}, {"a.vrnx.partial"})
        self.assertEqual([line["length"] for line in result.calls("BCryptHashData")], [MIB4, 512])
        self.assertEqual(result.calls("BCryptGenRandom"), [])


class SystemDisk(Capture):
    def test_the_system_disk_is_captured_with_a_note(self):
        machine = self.small()
        size = len(machine.disk_bytes(0))
        result = self.capture(machine, disk=0)
        self.expect(result, 0, source_line(0, size) +
                    "NOTE: this is the currently booted system disk and -vss was not given - reading it live\n"
                    "      is crash-consistent only (see the file header comment). Proceeding anyway.\n"
                    + NO_TRACKER + meter_run(size, MIB4) + "\nCapture complete: a.vrnx\n")
        self.expect_good_image(machine, "a.vrnx", machine.disk_bytes(0))

    def test_another_disk_is_captured_without_the_note(self):
        machine = self.small()
        machine.system_volume([(2, 0, 512)])
        self.expect(self.capture(machine), 0, capture_text(1, SMALL, "a.vrnx"))
        self.expect(self.capture(machine, "b.vrnx", disk=2), 0, capture_text(2, 512, "b.vrnx", system=True))


class Names(Capture):
    def test_a_work_path_is_written_in_place_over_what_is_there_and_not_renamed(self):
        for name in ("a.vrnx.partial", ".partial", "x.partial"):
            machine = self.small()
            machine.write(name, pattern(100000, "older"))
            result = self.capture(machine, name)
            self.expect(result, 0, capture_text(1, SMALL, name))
            self.assertEqual(machine.files(), [name])
            self.assertEqual(result.calls("MoveFileExW") + result.calls("GetFileAttributesA"), [])

    def test_another_case_place_or_length_of_the_suffix_is_no_work_path(self):
        for name in ("a.PARTIAL", "a.Partial", "a.partiaL", "a", "partial", "a.part", "a.partial.vrnx"):
            machine = self.small()
            result = self.capture(machine, name)
            self.expect(result, 0, capture_text(1, SMALL, name))
            self.assertEqual(result.calls("MoveFileExW")[0]["from"], name + ".partial")
            self.assertEqual(machine.files(), [name])

    def test_a_name_beyond_ascii_is_that_file_and_its_bytes_are_widened_one_by_one(self):
        if self.settings.windows:
            self.skipTest("what reaches the program as a narrow argument depends on the code page there")
        machine = self.small()
        result = self.capture(machine, "\u00e4.vrnx")
        self.expect(result, 0, capture_text(1, SMALL, "\u00e4.vrnx"))
        self.assertEqual(result.calls("GetFileAttributesA")[0]["path"], "\u00e4.vrnx")
        # The log has the units of the call, and the host its bytes.
        self.assertEqual(result.calls("MoveFileExW")[0]["to"], "\uffc3\uffa4.vrnx")
        self.assertEqual(machine.files(), ["\u00e4.vrnx"])
        self.expect(self.capture(machine, "\u00e4.vrnx"), 1, source_line(1, SMALL) + NO_TRACKER, fatal(OVERWRITE))


class ExistingOutput(Capture):
    def test_an_existing_output_is_refused_and_stays(self):
        for folder in (False, True):
            machine = self.small()
            if folder:
                os.mkdir(machine.path("a.vrnx"))
            else:
                machine.write("a.vrnx", b"somebody's")
            self.expect(self.capture(machine), 1, source_line(1, SMALL) + NO_TRACKER, fatal(OVERWRITE))
            self.assertEqual((machine.files(), os.path.isdir(machine.path("a.vrnx"))), (["a.vrnx"], folder))
            if not folder:
                self.expect_file(machine, "a.vrnx", b"somebody's")

    def test_an_existing_output_is_refused_behind_all_else_that_can_be_refused(self):
        for disk, options, note, report in (
                (0, (), SYSTEM_DISK_NOTE + NO_TRACKER, fatal(OVERWRITE)),
                (1, ("--base", "missing.vrnx"), NO_TRACKER + "Incremental mode: base image missing.vrnx\n",
                 "could not open image file: missing.vrnx\n" + fatal("could not open image file", 2)),
                (1, ("--encrypt", "--password-file", "empty.txt"), NO_TRACKER, fatal("password file is empty")),
                (1, ("--thin",), NO_TRACKER, fatal("--thin needs --base"))):
            machine = self.small()
            machine.write("a.vrnx", b"")
            machine.write("empty.txt", b"\r\n")
            with self.subTest(disk=disk, options=options):
                self.expect(self.capture(machine, "a.vrnx", *options, disk=disk), 1,
                            source_line(disk, len(machine.disk_bytes(disk))) + note, report)

    def test_a_file_that_appears_during_the_run_is_not_replaced(self):
        for call, skip in (("CreateFileW", 3), ("ReadFile", 0), ("WriteFile", 2), ("MoveFileExW", 0)):
            machine = self.small()
            machine.add_fault(call, skip=skip, touch="a.vrnx")
            text = capture_text(1, SMALL, "a.vrnx").removesuffix("Capture complete: a.vrnx\n")
            self.expect(self.capture(machine), 1, text, fatal(PUBLISH_FAILED, 183))
            self.assertEqual(machine.files(), ["a.vrnx", "a.vrnx.partial"])
            self.expect_file(machine, "a.vrnx", b"")
            self.expect_good_image(machine, "a.vrnx.partial", machine.disk_bytes(1))
            machine.clear_faults()
            self.expect(machine.run("verify", "--in", "a.vrnx.partial"), 0, verify_text("a.vrnx.partial", SMALL, MIB4))


class Failures(Capture):
    def begun(self, machine, chunks=0):
        """What stands on the console once the loop has come to this chunk."""
        size = len(machine.disk_bytes(1))
        return source_line(1, size) + NO_TRACKER + meter_run(size, MIB4, upto=chunks)

    def test_a_work_file_that_cannot_be_created_is_fatal(self):
        machine = self.small()
        self.expect(self.capture(machine, "nowhere/a.vrnx"), 1, self.begun(machine), fatal(NOT_CREATED, 3))
        machine = self.small()
        os.mkdir(machine.path("a.vrnx.partial"))
        self.expect(self.capture(machine), 1, self.begun(machine), fatal(NOT_CREATED, 5))
        self.assertEqual(machine.files(), ["a.vrnx.partial"])
        machine = self.small()
        machine.add_fault("CreateFileW", path=".partial", error=112)
        self.expect(self.capture(machine), 1, self.begun(machine), fatal(NOT_CREATED, 112))
        self.assertEqual(machine.files(), [])

    def test_a_disk_that_gives_less_than_its_length_is_fatal(self):
        machine = self.machine()
        machine.disk(1)["length"] = machine.SOURCE_SIZE + 512
        size = machine.SOURCE_SIZE + 512
        self.expect(self.capture(machine), 1, source_line(1, size) + NO_TRACKER + meter_run(size, MIB4, upto=2),
                    fatal(READ_FAILED))
        self.expect_unfinished(machine)

    def test_a_rest_that_is_no_whole_sector_is_fatal(self):
        machine = self.small(4096 * 3)
        machine.disk(1).update(sector_size=4096, length=4096 * 2 + 512)
        self.expect(self.capture(machine), 1, source_line(1, 4096 * 2 + 512, 4096) + NO_TRACKER, fatal(READ_FAILED, 87))

    # (step, fault, chunks behind it, report): each failure of one ends the run there
    STEPS = (
        ("a system volume that does not answer", {"call": "DeviceIoControl", "path": "C:", "error": 1117}, None,
         fatal("IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS on C: failed", 1117)),
        ("no buffer", {"call": "_aligned_malloc", "skip": 1, "null": True}, 0,
         fatal("out of memory allocating aligned I/O buffer")),
        ("a seek", {"call": "SetFilePointerEx", "path": "PhysicalDrive1", "skip": 2, "error": 1117}, 2,
         fatal("SetFilePointerEx on source failed mid-capture", 1117)),
        ("a read", {"call": "ReadFile", "skip": 1, "error": 23}, 1, fatal(READ_FAILED, 23)),
        ("a short read", {"call": "ReadFile", "skip": 1, "transferred": MIB4 - 512}, 1, fatal(READ_FAILED)),
        ("an empty read", {"call": "ReadFile", "transferred": 0}, 0, fatal(READ_FAILED)),
        ("a hash provider", {"call": "BCryptOpenAlgorithmProvider", "skip": 1, "status": "0xC0000225"}, 1,
         fatal_status("BCryptOpenAlgorithmProvider(SHA256)", 0xC0000225)),
        ("a hash", {"call": "BCryptCreateHash", "skip": 2, "status": "0xC0000017"}, 2,
         fatal_status("BCryptCreateHash", 0xC0000017)),
        ("a write", {"call": "WriteFile", "skip": 2, "error": 112}, 2, fatal(WRITE_FAILED, 112)),
        ("a short write", {"call": "WriteFile", "skip": 1, "transferred": 1000}, 1, fatal(WRITE_FAILED)))

    def test_each_step_that_fails_is_fatal_and_leaves_no_image(self):
        for step, fault, chunks, report in self.STEPS:
            machine = self.machine()
            machine.add_fault(**fault)
            begun = source_line(1, machine.SOURCE_SIZE) if chunks is None else self.begun(machine, chunks)
            with self.subTest(step):
                result = self.expect(self.capture(machine), 1, begun, report)
                self.assertLessEqual(len(result.calls("ReadFile")), (chunks or 0) + 1, "one attempt and no more")
                machine.clear_faults()
                if chunks is None:
                    self.assertEqual(machine.files(), [])
                else:
                    self.expect_unfinished(machine)
        # A leftover of any kind does not keep the next run from its work.
        self.expect(self.capture(machine), 0, capture_text(1, machine.SOURCE_SIZE, "a.vrnx"))
        self.assertEqual(machine.files(), ["a.vrnx"])

    def test_a_table_that_no_memory_holds_ends_the_run_abnormally_and_keeps_what_was_printed(self):
        if os.path.basename(self.settings.build) == "sanitize":
            self.skipTest("the sanitizer ends a process that asks for so much before the program hears of it")
        machine = self.small()
        length = (1 << 63) - 0x400000  # its table has more bytes than a process has addresses
        machine.disk(1)["length"] = length
        result = self.capture(machine)
        self.assertTrue(result.abnormal)
        self.expect(result, self.settings.abnormal_status, source_line(1, length) + NO_TRACKER)
        self.assertEqual(machine.files(), ["a.vrnx.partial"])

    def test_what_is_not_looked_at_leaves_a_file_that_is_no_image(self):
        for case, call, skip, error, start in (
                # The first chunk then lands at the start of the file, and header and table over it at the end.
                ("the seek behind the table", "SetFilePointerEx", 0, "image chunk data extends past end of file", 0),
                # Header and table then stand behind the data, and the start of the file stays zero.
                ("the seek to the header", "SetFilePointerEx", 1, "not a recognized Vornix image (bad magic/version)",
                 136 + SMALL),
                ("the header", "WriteFile", 1, "not a recognized Vornix image (bad magic/version)", None),
                ("the table", "WriteFile", 2, "image chunk table has an invalid offset or length", 0)):
            machine = self.small()
            machine.add_fault(call, path=".partial", skip=skip, error=1117)
            with self.subTest(case):
                self.expect(self.capture(machine), 0, capture_text(1, SMALL, "a.vrnx"))
                machine.clear_faults()
                if start is not None:
                    self.assertEqual(machine.read("a.vrnx")[start:][:8], b"VRNXDSK2")
                self.expect(machine.run("verify", "--in", "a.vrnx"), 1, "", fatal(error))


class LiveDisk(Capture):
    def test_a_disk_that_changes_while_it_is_read_is_taken_as_it_is_met(self):
        machine = self.machine()
        machine.add_fault("ReadFile", path="PhysicalDrive1", skip=1, poke={"disk": 1, "offset": 0, "hex": "00"})
        machine.add_fault("ReadFile", path="PhysicalDrive1", skip=1,
                          poke={"disk": 1, "offset": 2 * MIB4, "hex": "a5a5a5"})
        before = pattern(machine.SOURCE_SIZE, "source")
        self.expect(self.capture(machine), 0, capture_text(1, machine.SOURCE_SIZE, "a.vrnx"))
        seen = before[:2 * MIB4] + b"\xa5\xa5\xa5" + before[2 * MIB4 + 3:]
        self.expect_good_image(machine, "a.vrnx", seen)
        self.assertEqual(machine.disk_bytes(1)[0], 0)


if __name__ == "__main__":
    suite.main()
