"""restore: a full plain image back onto a disk: its refusals in their order, what is written and what is left alone,
and which zeros --skip-zero leaves out."""

import suite
from console import LARGER_TARGET_NOTE, RESTORE_COMPLETE, fatal, fatal_status, meter_run, restore_text, restoring_line
from image import build_image
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

    def test_no_word_is_given_of_differing_sector_sizes(self):
        machine, _ = self.prepared(8 * 4096, sector_size=4096)
        self.expect(self.restore(machine), 0, restore_text("a.vrnx", 2, 8 * 4096, 4096))
        self.expect_disk(machine, 2, pattern(8 * 4096, "image"))


class Refusals(Restore):
    def expect_untouched(self, machine, result):
        """Nothing was written, and the target was not even opened."""
        self.assertEqual(result.calls("CreateFileW", path="PhysicalDrive"), [])
        self.assertEqual(result.calls("WriteFile"), [])

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


class SkipZero(Restore):
    def written(self, result):
        return [(line["offset"], line["length"]) for line in result.calls("WriteFile")]

    def test_every_chunk_is_read_and_checked_and_just_those_with_another_byte_than_zero_written(self):
        one, three = pattern(4096, "one"), pattern(4096, "three")
        for case, plain, chunk_size, target, written in (
                ("an empty disk", bytes(SIZE), 4096, bytes(SIZE), []),
                ("what the target held stays", one + bytes(4096) + three, 4096, pattern(12288, "target"),
                 [(0, 4096), (8192, 4096)]),
                *[(f"a byte at {place}", bytes(4096 + place) + b"\1" + bytes(8191 - place), 4096, bytes(12288),
                   [(4096, 4096)]) for place in (0, 1, 7, 8, 2048, 4087, 4088, 4095)],
                ("zeros of odd length", bytes(4099), 8192, bytes(8192), []),
                # Where it ends in memory the bytes of the chunk before it stand.
                *[(f"{length} zeros behind another chunk", one + bytes(length), 4096, bytes(8192), [(0, 4096)])
                  for length in (512, 3)]):
            machine, builder = self.prepared(plain=plain, target=target, chunk_size=chunk_size)
            with self.subTest(case):
                result = self.expect(self.restore(machine, "--skip-zero"), 0, restore_text(
                    "a.vrnx", 2, len(plain), chunk_size, larger=len(target) > len(plain)))
                self.assertEqual(self.written(result), written)
                count = len(builder.records)
                self.assertEqual((len(result.calls("ReadFile")), len(result.calls("BCryptHashData"))),
                                 (2 + count, 1 + count))
                expected = bytearray(target)
                for offset, length in written:
                    expected[offset:offset + length] = plain[offset:offset + length]
                self.expect_disk(machine, 2, bytes(expected))

    def test_without_the_flag_zeros_are_written(self):
        machine, _ = self.prepared(plain=bytes(SIZE))
        self.expect(self.restore(machine), 0, restore_text("a.vrnx", 2, SIZE, 4096))
        self.expect_disk(machine, 2, bytes(SIZE))

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


class Shapes(Restore):
    def test_any_chunk_size_goes_back(self):
        for chunk_size, size in ((512, 5 * 512), (1024, 3584), (65536, 200192), (0x4000000, 70000 * 512)):
            machine, _ = self.prepared(size, chunk_size=chunk_size)
            self.expect(self.restore(machine), 0, restore_text("a.vrnx", 2, size, chunk_size))
            self.expect_disk(machine, 2, pattern(size, "image"))


if __name__ == "__main__":
    suite.main()
