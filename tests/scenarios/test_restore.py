"""restore: a full plain image back onto a disk: its refusals in their order, what is written and what is left alone,
and which zeros --skip-zero leaves out."""

import suite
from console import (LARGER_TARGET_NOTE, RESTORE_COMPLETE, RESTORE_UNCONFIRMED, exclusive_failure, fatal, fatal_status,
                     meter_run, restore_text, restoring_line)
from image import ImageBuilder, build_image
from machine import UPDATE_PROPERTIES, pattern

SIZE = 10 * 4096 - 1024  # ten chunks of 4096, the last one short
TARGET = r"\\.\PhysicalDrive2"
WRITE_FAILED = ("WriteFile to target disk failed mid-restore - target disk left partially written, do not boot it yet")
READ_FAILED = "could not read chunk data from image - restore aborted, target disk left partially written"


def mismatch(index):
    return (f"\nFATAL: chunk {index} hash mismatch (corrupt image) - restore aborted, "
            "target disk left partially written.\n")


class Restore(suite.Scenario):
    def prepared(self, size=SIZE, target=None, plain=None, sector_size=512, **options):
        """A fresh machine with a good a.vrnx and a target disk 2, of the image's size unless given."""
        machine = self.machine(default=False)
        machine.add_disk(0, pattern(65536, "system"))
        machine.system_volume([(0, 4096, 8192)])
        plain = pattern(size, "image") if plain is None else plain
        target = pattern(len(plain), "target") if target is None else target
        machine.add_disk(2, target, **({} if sector_size == 512 else {"sector_size": sector_size}))
        builder = build_image(machine.path("a.vrnx"), plain, **options)
        return machine, builder

    def restore(self, machine, *options, disk=2, path="a.vrnx"):
        return machine.run("restore", "--in", path, "--disk", str(disk), "--confirm", "YES", *options)

    def begun(self, size=SIZE, chunk_size=4096, chunks=0, note=""):
        """What stands on the console once the loop has come to this chunk."""
        count = (size - 1) // chunk_size + 1
        return note + restoring_line("a.vrnx", 2, count, size) + meter_run(size, chunk_size, upto=chunks)


class Good(Restore):
    def test_an_image_goes_back_onto_a_disk(self):
        machine, builder = self.prepared()
        result = self.expect(self.restore(machine), 0,
                             "Restoring a.vrnx -> PhysicalDrive2 (10 chunks, 0.00 GiB)\n"
                             "\r   10.26%  0 / 0 MiB  (0.0 MiB/s)   \r  100.00%  0 / 0 MiB  (0.0 MiB/s)   \n"
                             "Restore complete. Run 'diskpart > rescan' (or reboot) before relying on the target "
                             "disk.\n")
        self.expect_disk(machine, 2, pattern(SIZE, "image"))
        # The image is only read and in sequence, and every chunk hashed before it is written.
        self.expect_file(machine, "a.vrnx", builder.to_bytes())
        self.assertEqual(result.calls("SetFilePointerEx", path="a.vrnx"), [])
        self.assertEqual([line["offset"] for line in result.calls("ReadFile", path="a.vrnx")],
                         [0, 64] + [64 + 720 + index * 4096 for index in range(10)])
        self.assertEqual(result.sequence("BCryptHashData", "WriteFile"),
                         ["BCryptHashData"] + ["BCryptHashData", "WriteFile"] * 10)
        self.assertEqual([(line["offset"], line["length"]) for line in result.calls("WriteFile")],
                         [(index * 4096, 4096) for index in range(9)] + [(9 * 4096, 3072)])
        # The partition table is read again, and the target closed before the image.
        last = [(line["call"], line.get("path"), line.get("code")) for line in result.log[-4:]]
        self.assertEqual(last, [("DeviceIoControl", TARGET, UPDATE_PROPERTIES), ("CloseHandle", TARGET, None),
                                ("CloseHandle", "a.vrnx", None), ("exit", None, 0)])

    def test_disk_0_is_a_disk_like_any_other_where_the_system_is_elsewhere(self):
        machine = self.machine(default=False)
        machine.add_disk(0, pattern(SIZE, "target"))
        machine.add_disk(1, pattern(65536, "system"))
        machine.system_volume([(1, 4096, 8192)])
        build_image(machine.path("a.vrnx"), pattern(SIZE, "image"))
        self.expect(self.restore(machine, disk=0), 0, restore_text("a.vrnx", 0, SIZE, 4096))
        self.expect_disk(machine, 0, pattern(SIZE, "image"))

    def test_no_word_is_given_of_differing_sector_sizes(self):
        machine, _ = self.prepared(8 * 4096, sector_size=4096)
        self.expect(self.restore(machine), 0, restore_text("a.vrnx", 2, 8 * 4096, 4096))
        self.expect_disk(machine, 2, pattern(8 * 4096, "image"))

    def test_the_buffer_is_aligned_to_at_least_4096(self):
        machine, _ = self.prepared(chunk_size=8192)
        self.assertEqual([(line["size"], line["alignment"]) for line in self.restore(machine).calls("_aligned_malloc")],
                         [(8192, 4096)])
        machine, _ = self.prepared(4 * 8192, sector_size=8192, chunk_size=8192)
        self.assertEqual([(line["size"], line["alignment"]) for line in self.restore(machine).calls("_aligned_malloc")],
                         [(8192, 8192)])


class Refusals(Restore):
    def expect_untouched(self, machine, result):
        """Nothing was written, and the target was not even opened."""
        self.assertEqual(result.calls("CreateFileW", path="PhysicalDrive"), [])
        self.assertEqual(result.calls("WriteFile"), [])

    def test_without_a_system_volume_nothing_else_is_looked_at(self):
        machine, _ = self.prepared()
        machine.system_volume(None)
        message = fatal("could not open C: to determine the system disk number", 2)
        for arguments in (["--in", "a.vrnx", "--disk", "2", "--confirm", "YES"], ["--in", "missing", "--disk", "2"],
                          ["--in", "missing", "--disk", "0", "--confirm", "no"]):
            result = self.expect(machine.run("restore", *arguments), 1, "", message)
            self.assertEqual(result.sequence(), ["CreateFileW", "exit"])

    def test_the_system_disk_is_refused_before_the_confirmation_and_the_image_are_looked_at(self):
        for arguments in (("--in", "a.vrnx", "--confirm", "YES"), ("--in", "a.vrnx"),
                          ("--in", "missing.vrnx", "--confirm", "YES")):
            machine, _ = self.prepared()
            before = machine.disk_bytes(0)
            result = self.expect(machine.run("restore", "--disk", "0", *arguments), 1, "",
                                 "Refusing: PhysicalDrive0 is the disk this copy of Windows is currently running "
                                 "from.\n"
                                 "A live raw write to your own booted system disk cannot be made safe - boot from\n"
                                 "separate media (Windows Recovery/PE) and run vornix restore from there instead.\n")
            self.expect_untouched(machine, result)
            self.expect_disk(machine, 0, before)

    def test_without_confirmation_the_image_is_not_opened(self):
        machine, _ = self.prepared()
        result = self.expect(machine.run("restore", "--in", "missing.vrnx", "--disk", "2"), 1, "",
                             "Refusing: restore is destructive (overwrites the ENTIRE target disk). "
                             "Pass --confirm YES.\n")
        self.assertEqual([line["path"] for line in result.calls("CreateFileW")], [r"\\.\C:"])

    def test_a_bad_image_is_refused_before_the_target_is_opened(self):
        machine, builder = self.prepared()
        machine.write("cut.vrnx", builder.to_bytes()[:-1])
        machine.flip("a.vrnx", 0)
        for path, report in (("a.vrnx", fatal("not a recognized Vornix image (bad magic/version)")),
                             ("cut.vrnx", fatal("image chunk data extends past end of file")),
                             ("missing.vrnx", "could not open image file: missing.vrnx\n"
                              + fatal("could not open image file", 2))):
            self.expect_untouched(machine, self.expect(self.restore(machine, path=path), 1, "", report))

    def test_a_target_in_use_is_refused_whatever_its_size(self):
        for target in (pattern(SIZE, "target"), bytes(512), bytes(SIZE * 2)):
            machine, _ = self.prepared(target=target)
            machine.disk(2)["in_use"] = True
            self.expect(self.restore(machine), 1, "", exclusive_failure(2, 32))
            self.expect_disk(machine, 2, target)

    def test_a_missing_target_is_refused(self):
        machine, _ = self.prepared()
        self.expect(self.restore(machine, disk=3), 1, "", exclusive_failure(3, 2))

    def test_a_smaller_target_is_refused_with_both_sizes_in_gibibytes(self):
        large = 48 * 1048576
        for size, length, shown in ((SIZE, SIZE - 512, "0.00 GiB, smaller than the image's 0.00"),
                                    (SIZE, SIZE - 1, "0.00 GiB, smaller than the image's 0.00"),
                                    (large, large - 1, "0.05 GiB, smaller than the image's 0.05"),
                                    (large, 11 * 1048576, "0.01 GiB, smaller than the image's 0.05")):
            machine, _ = self.prepared(plain=bytes(size), target=bytes(512), chunk_size=0x400000)
            machine.disk(2)["length"] = length
            with self.subTest(size=size, length=length):
                self.expect(self.restore(machine), 1, "",
                            f"Refusing: target disk 2 is {shown} GiB source.\n")
                self.expect_disk(machine, 2, bytes(512))


class LargerTarget(Restore):
    def test_a_target_of_one_byte_more_brings_the_note(self):
        machine, _ = self.prepared()
        machine.disk(2)["length"] = SIZE + 1
        self.expect(self.restore(machine), 0,
                    "NOTE: target disk is larger than the image's source disk. The restored GPT's backup\n"
                    "      header (stored at the end of the ORIGINAL disk size) will sit before the end of\n"
                    "      this larger disk - Windows generally repairs this automatically on next boot/\n"
                    "      diskpart rescan, but treat the extra space as unallocated until you've confirmed\n"
                    "      that repair happened. This is a known limitation of restoring to a differently\n"
                    "      sized disk, not specific to this tool.\n" + self.begun(chunks=10) + "\n" + RESTORE_COMPLETE)
        self.expect_disk(machine, 2, pattern(SIZE, "image"))

    def test_what_lies_behind_the_image_is_not_touched(self):
        target = pattern(SIZE * 2, "target")
        machine, _ = self.prepared(target=target)
        self.expect(self.restore(machine), 0, restore_text("a.vrnx", 2, SIZE, 4096, larger=True))
        self.expect_disk(machine, 2, pattern(SIZE, "image") + target[SIZE:])


class BadChunks(Restore):
    def expect_written(self, machine, chunks):
        """The first chunks are the image's, the rest of the target is as it was."""
        self.expect_disk(machine, 2, pattern(SIZE, "image")[:chunks * 4096] + pattern(SIZE, "target")[chunks * 4096:])

    def test_a_flipped_byte_in_chunk_5_leaves_five_chunks_written(self):
        machine, builder = self.prepared()
        machine.flip("a.vrnx", builder.data_offset(5) + 1234)
        self.expect(self.restore(machine), 1, self.begun(chunks=5),
                    "\nFATAL: chunk 5 hash mismatch (corrupt image) - restore aborted, target disk left partially "
                    "written.\n")
        self.expect_written(machine, 5)

    def test_each_failure_leaves_the_chunks_before_it_written(self):
        no_memory = fatal("out of memory allocating aligned I/O buffer")
        for case, chunks, fault, report in (
                ("the first chunk is bad", 0, 64 + 720, mismatch(0)),
                ("the last chunk is bad", 9, 64 + 720 + 9 * 4096 + 3071, mismatch(9)),
                ("a hash in the table is bad", 2, 64 + 72 * 2 + 12, mismatch(2)),
                ("a read", 3, {"call": "ReadFile", "path": "a.vrnx", "skip": 5, "error": 1117},
                 fatal(READ_FAILED, 1117)),
                ("a short read", 0, {"call": "ReadFile", "path": "a.vrnx", "skip": 2, "transferred": 4095},
                 fatal(READ_FAILED)),
                ("a write", 7, {"call": "WriteFile", "skip": 7, "error": 1117}, fatal(WRITE_FAILED, 1117)),
                ("a short write", 1, {"call": "WriteFile", "skip": 1, "transferred": 0}, fatal(WRITE_FAILED)),
                ("no memory", 0, {"call": "_aligned_malloc", "null": True}, no_memory),
                ("a hash", 4, {"call": "BCryptOpenAlgorithmProvider", "skip": 5, "status": "0xC0000225"},
                 fatal_status("BCryptOpenAlgorithmProvider(SHA256)", 0xC0000225))):
            machine, _ = self.prepared()
            if isinstance(fault, int):
                machine.flip("a.vrnx", fault)
            else:
                machine.add_fault(**fault)
            with self.subTest(case):
                self.expect(self.restore(machine), 1, self.begun(chunks=chunks), report)
                self.expect_written(machine, chunks)
        machine.clear_faults()
        self.expect(self.restore(machine), 0, restore_text("a.vrnx", 2, SIZE, 4096))
        self.expect_disk(machine, 2, pattern(SIZE, "image"))

    def test_a_failed_seek_of_the_target_is_not_looked_at(self):
        # The target already stands there, behind the chunk before.
        machine, _ = self.prepared()
        machine.add_fault("SetFilePointerEx", path="PhysicalDrive2", times=100, error=1117)
        self.expect(self.restore(machine), 0, restore_text("a.vrnx", 2, SIZE, 4096))
        self.expect_disk(machine, 2, pattern(SIZE, "image"))


class SkipZero(Restore):
    def written(self, result):
        return [(line["offset"], line["length"]) for line in result.calls("WriteFile")]

    def test_an_image_of_an_empty_disk_writes_nothing(self):
        machine, _ = self.prepared(plain=bytes(SIZE), target=bytes(SIZE))
        result = self.expect(self.restore(machine, "--skip-zero"), 0, restore_text("a.vrnx", 2, SIZE, 4096))
        self.assertEqual(self.written(result), [])
        self.assertEqual(len(result.calls("ReadFile")), 2 + 10, "every chunk is read")
        self.assertEqual(len(result.calls("BCryptHashData")), 1 + 10, "every chunk is checked")

    def test_without_the_flag_zeros_are_written(self):
        machine, _ = self.prepared(plain=bytes(SIZE))
        self.expect(self.restore(machine), 0, restore_text("a.vrnx", 2, SIZE, 4096))
        self.expect_disk(machine, 2, bytes(SIZE))

    def test_what_the_target_held_in_a_skipped_place_stays(self):
        plain = pattern(4096, "one") + bytes(4096) + pattern(4096, "three")
        machine, _ = self.prepared(plain=plain)
        result = self.expect(self.restore(machine, "--skip-zero"), 0, restore_text("a.vrnx", 2, len(plain), 4096))
        self.assertEqual(self.written(result), [(0, 4096), (8192, 4096)])
        self.expect_disk(machine, 2, plain[:4096] + pattern(len(plain), "target")[4096:8192] + plain[8192:])

    def test_one_byte_anywhere_in_a_chunk_makes_it_written(self):
        for place in (0, 1, 7, 8, 2048, 4087, 4088, 4095):
            plain = bytearray(3 * 4096)
            plain[4096 + place] = 1
            machine, _ = self.prepared(plain=bytes(plain), target=bytes(3 * 4096))
            result = self.restore(machine, "--skip-zero")
            self.assertEqual(self.written(result), [(4096, 4096)], place)
            self.expect_disk(machine, 2, bytes(plain))

    def test_the_last_bytes_of_a_chunk_of_odd_length_are_looked_at(self):
        # The rest of the last word is looked at byte by byte. The write that follows is refused by the disk, since it
        # is no whole sector: that it was tried is what shows.
        for place in (4096, 4097, 4098):
            plain = bytearray(4096 + 3)
            plain[place] = 0x80
            machine, _ = self.prepared(plain=bytes(plain), target=bytes(8192), chunk_size=8192)
            result = self.expect(self.restore(machine, "--skip-zero"), 1,
                                 self.begun(4099, 8192, note=LARGER_TARGET_NOTE), fatal(WRITE_FAILED, 87))
            self.assertEqual(self.written(result), [(0, 4099)])

    def test_a_zero_chunk_of_odd_length_is_skipped(self):
        machine, _ = self.prepared(plain=bytes(4099), target=bytes(8192), chunk_size=8192)
        result = self.expect(self.restore(machine, "--skip-zero"), 0,
                             restore_text("a.vrnx", 2, 4099, 8192, larger=True))
        self.assertEqual(self.written(result), [])

    def test_bytes_in_memory_behind_a_short_zero_chunk_are_not_looked_at(self):
        # Where it ends in memory the bytes of the chunk before it stand.
        for length in (512, 3):
            plain = pattern(4096, "one") + bytes(length)
            machine, _ = self.prepared(plain=plain, target=bytes(8192))
            result = self.expect(self.restore(machine, "--skip-zero"), 0,
                                 restore_text("a.vrnx", 2, len(plain), 4096, larger=True))
            self.assertEqual(self.written(result), [(0, 4096)], length)

    def test_a_damaged_zero_chunk_is_still_found(self):
        machine, builder = self.prepared(plain=bytes(SIZE), target=bytes(SIZE))
        machine.flip("a.vrnx", 64 + 72 * 6 + 12)  # its recorded hash; the bytes stay zero
        self.expect(self.restore(machine, "--skip-zero"), 1, self.begun(chunks=6), mismatch(6))
        self.assertEqual(len(builder.records), 10)

    def test_a_failed_seek_behind_a_skipped_chunk_puts_the_next_one_out_of_place(self):
        # Nothing looks at the seek, and the target still stands where the last write ended.
        plain = pattern(4096, "one") + bytes(4096) + pattern(4096, "three")
        machine, _ = self.prepared(plain=plain, target=bytes(3 * 4096))
        machine.add_fault("SetFilePointerEx", path="PhysicalDrive2", skip=2, error=1117)
        result = self.expect(self.restore(machine, "--skip-zero"), 0, restore_text("a.vrnx", 2, len(plain), 4096))
        self.assertEqual(self.written(result), [(0, 4096), (4096, 4096)])

    def test_the_meter_shows_skipped_chunks_as_done(self):
        size = 34 * 512
        machine, _ = self.prepared(plain=bytes(size), target=bytes(size), chunk_size=512)
        result = self.expect(self.restore(machine, "--skip-zero"), 0, restore_text("a.vrnx", 2, size, 512))
        self.assertTrue(result.stdout.split(b"\r")[-1].startswith(b"  100.00%"))
        self.assertEqual(result.stdout.count(b"\r"), 3)


class Shapes(Restore):
    def test_any_chunk_size_goes_back(self):
        for chunk_size, size in ((512, 5 * 512), (1024, 3584), (65536, 200192), (0x4000000, 70000 * 512)):
            machine, _ = self.prepared(size, chunk_size=chunk_size)
            self.expect(self.restore(machine), 0, restore_text("a.vrnx", 2, size, chunk_size))
            self.expect_disk(machine, 2, pattern(size, "image"))

    def test_bytes_behind_the_chunk_data_are_not_written(self):
        machine, builder = self.prepared()
        builder.tail = pattern(5000, "tail")
        builder.write(machine.path("a.vrnx"))
        self.expect(self.restore(machine), 0, restore_text("a.vrnx", 2, SIZE, 4096))
        self.expect_disk(machine, 2, pattern(SIZE, "image"))

    def test_a_password_file_makes_no_difference_to_a_plain_image(self):
        machine, _ = self.prepared()
        self.expect(self.restore(machine, "--password-file", "missing.txt"), 0, restore_text("a.vrnx", 2, SIZE, 4096))

    def test_an_exchange_of_two_chunks_is_found(self):
        machine, _ = self.prepared()
        builder = ImageBuilder(pattern(SIZE, "image"))
        builder.stored[3], builder.stored[4] = builder.stored[4], builder.stored[3]
        builder.write(machine.path("a.vrnx"))
        self.expect(self.restore(machine), 1, self.begun(chunks=3), mismatch(3))

    def test_an_unconfirmed_restore_stays_unconfirmed_with_skip_zero(self):
        machine, _ = self.prepared()
        self.expect(machine.run("restore", "--in", "a.vrnx", "--disk", "2", "--skip-zero"), 1, "", RESTORE_UNCONFIRMED)


if __name__ == "__main__":
    suite.main()
