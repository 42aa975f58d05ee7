"""Opening an image: every structural check of header and table, in its order and with its words.

`verify` drives most of it, since it does nothing before the image is open: a refused image leaves standard output
empty.
"""

import os

import suite
from console import exclusive_failure, fatal, verify_text
from image import Header, ImageBuilder, MAX_CHUNK_COUNT, Trailer, build_image, write_sparse_image
from machine import ACCESS_READ, pattern

HEADER_SHORT = "could not read image header - file is truncated or not a .vrnx image"
BAD_MAGIC = "not a recognized Vornix image (bad magic/version)"
GEOMETRY = "image header has invalid disk/sector/chunk geometry"
KEY_PARAMETERS = "image has invalid encryption/KDF parameters"
CHUNK_COUNT = "image header has an impossible chunk count"
NO_TABLE = "image is truncated before its chunk table"
TABLE_SHORT = "could not read chunk table - image is truncated"
BAD_RECORD = "image chunk table has an invalid offset or length"
DATA_SHORT = "image chunk data extends past end of file"
NEEDS_PASSWORD = "this image is encrypted - pass --password-file"
TOO_DEEP = "image chain is too deep (or loops back on itself)"
UNOPENED = "could not open image file"

SIZE = 10000  # three chunks of 4096, the last one short


class Opening(suite.Scenario):
    def builder(self, size=SIZE, **options):
        return ImageBuilder(pattern(size, "image"), **options)

    def verify(self, data, *options, faults=()):
        """A fresh machine with a.vrnx of these bytes, and `verify` on it."""
        machine = self.machine(default=False)
        machine.write("a.vrnx", data)
        for call, effect in faults:
            machine.add_fault(call, **effect)
        return machine.run("verify", "--in", "a.vrnx", *options)

    def expect_good(self, builder, *options):
        header = builder.header
        return self.expect(self.verify(builder.to_bytes(), *options), 0,
                           verify_text("a.vrnx", header.disk_size, header.chunk_size))

    def expect_refused(self, data, message, *options):
        if isinstance(data, ImageBuilder):
            data = data.to_bytes()
        return self.expect(self.verify(data, *options), 1, "", fatal(message))

    def expect_header_refused(self, message, **fields):
        """A good image but for these header fields is refused."""
        builder = self.builder()
        for name, value in fields.items():
            setattr(builder.header, name, value)
        return self.expect_refused(builder, message)


class File(Opening):
    def test_a_missing_file_is_named_and_fatal(self):
        machine = self.machine(default=False)
        self.expect(machine.run("verify", "--in", "missing.vrnx"), 1, "",
                    "could not open image file: missing.vrnx\nFATAL: could not open image file (GetLastError=2)\n")

    def test_a_missing_folder_is_told_by_its_error(self):
        machine = self.machine(default=False)
        self.expect(machine.run("verify", "--in", "nowhere/a.vrnx"), 1, "",
                    "could not open image file: nowhere/a.vrnx\n" + fatal(UNOPENED, 3))

    def test_a_folder_is_no_image_file(self):
        machine = self.machine(default=False)
        os.mkdir(machine.path("folder"))
        self.expect(machine.run("verify", "--in", "folder"), 1, "",
                    "could not open image file: folder\n" + fatal(UNOPENED, 5))

    def test_the_extension_means_nothing(self):
        machine = self.machine(default=False)
        build_image(machine.path("image.txt"), pattern(SIZE, "image"))
        self.expect(machine.run("verify", "--in", "image.txt"), 0, verify_text("image.txt", SIZE, 4096))

    def test_an_absolute_path_is_taken_and_printed_as_typed(self):
        machine = self.machine(default=False)
        build_image(machine.path("a.vrnx"), pattern(SIZE, "image"))
        path = machine.absolute("a.vrnx")
        self.expect(machine.run("verify", "--in", path), 0, verify_text(path, SIZE, 4096))

    def test_the_file_is_opened_for_reading_and_shared_for_reading(self):
        result = self.expect_good(self.builder())
        opened = result.calls("CreateFileW")
        self.assertEqual([{key: line[key] for key in ("path", "access", "share", "flags")} for line in opened],
                         [{"path": "a.vrnx", "access": ACCESS_READ, "share": "0x00000001", "flags": "0x00000080"}])

    def test_header_and_table_are_read_in_one_call_each_with_no_seek(self):
        result = self.expect_good(self.builder())
        steps = [(line["call"], line.get("offset"), line.get("length")) for line in result.log
                 if line.get("path") == "a.vrnx" and line["call"] != "CloseHandle"]
        self.assertEqual(steps[:6], [
            ("CreateFileW", None, None), ("ReadFile", 0, 64), ("GetFileSizeEx", None, None),
            ("ReadFile", 64, 3 * 72), ("ReadFile", 64 + 3 * 72, 4096), ("ReadFile", 64 + 3 * 72 + 4096, 4096)])

    def test_the_digest_is_taken_of_header_and_table_in_one_call(self):
        result = self.expect_good(self.builder())
        self.assertEqual([line["length"] for line in result.calls("BCryptHashData")], [64 + 3 * 72, 4096, 4096, 1808])

    def test_bytes_outside_ascii_are_widened_one_by_one(self):
        if self.settings.windows:
            self.skipTest("what reaches the program as a narrow argument depends on the code page there")
        machine = self.machine(default=False)
        build_image(machine.path("\u00e4.vrnx"), pattern(SIZE, "image"))
        result = machine.run("verify", "--in", "\u00e4.vrnx")
        self.expect(result, 0, verify_text("\u00e4.vrnx", SIZE, 4096))
        self.assertEqual(result.calls("CreateFileW")[0]["path"], "\uffc3\uffa4.vrnx")
        # Not the name that the widened units would have as characters.
        os.rename(machine.path("\u00e4.vrnx"), machine.path("\uffc3\uffa4.vrnx"))
        self.expect(machine.run("verify", "--in", "\u00e4.vrnx"), 1, "",
                    "could not open image file: \u00e4.vrnx\n" + fatal(UNOPENED, 2))


class HeaderBytes(Opening):
    def test_a_file_shorter_than_a_header_is_refused(self):
        whole = self.builder().to_bytes()
        for size in (0, 1, 8, 63):
            self.expect_refused(whole[:size], HEADER_SHORT)

    def test_a_failed_header_read_is_refused_with_its_error(self):
        result = self.verify(self.builder().to_bytes(), faults=[("ReadFile", {"error": 1117})])
        self.expect(result, 1, "", fatal(HEADER_SHORT, 1117))

    def test_a_short_header_read_is_refused(self):
        result = self.verify(self.builder().to_bytes(), faults=[("ReadFile", {"transferred": 63})])
        self.expect(result, 1, "", fatal(HEADER_SHORT))

    def test_a_file_of_zero_bytes_has_no_magic(self):
        for size in (64, 65, 100000):
            self.expect_refused(bytes(size), BAD_MAGIC)

    def test_another_magic_is_refused(self):
        for magic in (b"VRNXDSK1", b"vrnxdsk2", b"VRNXBASE", b"\0RNXDSK2", b"VRNXDSK\0"):
            self.expect_header_refused(BAD_MAGIC, magic=magic)

    def test_another_version_is_refused(self):
        for version in (0, 1, 4, 0x200, 0xFFFFFFFF):
            self.expect_header_refused(BAD_MAGIC, version=version)


class DiskGeometry(Opening):
    def test_a_disk_size_of_0_is_refused(self):
        self.expect_header_refused(GEOMETRY, disk_size=0)

    def test_a_sector_size_below_512_is_refused(self):
        for sector_size in (0, 1, 256, 511):
            self.expect_header_refused(GEOMETRY, sector_size=sector_size)

    def test_a_sector_size_that_is_no_power_of_two_is_refused(self):
        for sector_size in (513, 520, 1000, 3072):
            self.expect_header_refused(GEOMETRY, sector_size=sector_size)
        # Here the chunk size is a whole number of sectors, so that this rule alone is broken.
        self.expect_header_refused(GEOMETRY, sector_size=768, chunk_size=768 * 8, chunk_count=2)

    def test_a_chunk_smaller_than_a_sector_is_refused(self):
        self.expect_header_refused(GEOMETRY, sector_size=8192)
        self.expect_header_refused(GEOMETRY, chunk_size=0)

    def test_a_chunk_above_64_mebibytes_is_refused(self):
        self.expect_header_refused(GEOMETRY, chunk_size=0x4000000 + 512, chunk_count=1)
        self.expect_header_refused(GEOMETRY, chunk_size=0x80000000, chunk_count=1)

    def test_a_chunk_of_64_mebibytes_is_fine(self):
        self.expect_good(self.builder(chunk_size=0x4000000))

    def test_a_chunk_that_is_no_whole_number_of_sectors_is_refused(self):
        self.expect_header_refused(GEOMETRY, chunk_size=4096 + 512, sector_size=1024, chunk_count=3)

    def test_sector_and_chunk_of_512_are_fine(self):
        self.expect_good(self.builder(size=1300, chunk_size=512))

    def test_large_sectors_are_fine(self):
        self.expect_good(self.builder(size=300000, sector_size=65536, chunk_size=131072))

    def test_a_disk_size_that_is_no_whole_number_of_sectors_is_fine(self):
        self.expect_good(self.builder(size=4097))
        self.expect_good(self.builder(size=1))

    def test_a_disk_size_that_is_a_multiple_of_the_chunk_size_has_a_full_last_chunk(self):
        builder = self.builder(size=3 * 4096)
        self.assertEqual([record.stored_length for record in builder.records], [4096] * 3)
        self.expect_good(builder)

    def test_a_disk_smaller_than_a_chunk_is_one_chunk(self):
        builder = self.builder(size=1024)
        self.assertEqual([record.stored_length for record in builder.records], [1024])
        self.expect_good(builder)


class KeyParameters(Opening):
    def test_encrypted_above_1_is_refused_whatever_the_iterations(self):
        for encrypted in (2, 3, 255):
            for iterations in (0, 1, 100000, 200000):
                self.expect_header_refused(KEY_PARAMETERS, encrypted=encrypted, kdf_iterations=iterations)

    def test_a_plain_image_with_iterations_is_refused(self):
        for iterations in (1, 200000, 0xFFFFFFFF):
            self.expect_header_refused(KEY_PARAMETERS, kdf_iterations=iterations)

    def test_a_sealed_image_with_too_few_or_too_many_iterations_is_refused(self):
        for iterations in (0, 1, 99999, 10000001, 0xFFFFFFFF):
            self.expect_header_refused(KEY_PARAMETERS, encrypted=1, kdf_iterations=iterations)

    def test_the_bounds_of_the_iterations_are_inside(self):
        # The next thing missing is the password, so the parameters passed.
        for iterations in (100000, 200000, 10000000):
            self.expect_header_refused(NEEDS_PASSWORD, encrypted=1, kdf_iterations=iterations)

    def test_bad_parameters_are_told_before_the_password_file_is_looked_at(self):
        builder = self.builder()
        builder.header.encrypted, builder.header.kdf_iterations = 1, 99999
        self.expect_refused(builder, KEY_PARAMETERS, "--password-file", "missing.txt")

    def test_salt_and_epoch_of_a_plain_image_are_not_examined(self):
        builder = self.builder(epoch=0xA1B2C3D4E5F607)
        builder.header.salt = bytes(range(16))
        self.expect_good(builder)

    def test_nonce_and_tag_of_a_plain_image_are_not_examined(self):
        builder = self.builder()
        builder.records[1].nonce, builder.records[2].tag = b"\xff" * 12, b"\xff" * 16
        self.expect_good(builder)

    def test_a_sealed_image_without_a_password_file_is_refused(self):
        self.expect_refused(self.builder(password=b"secret"), NEEDS_PASSWORD)
        self.expect_refused(self.builder(password=b"secret"), NEEDS_PASSWORD, "--password-file", "")

    def test_a_plain_image_does_not_look_at_the_password_file(self):
        self.expect_good(self.builder(), "--password-file", "missing.txt")


class ChunkCount(Opening):
    def test_a_count_that_does_not_follow_from_the_disk_is_refused(self):
        for count in (0, 1, 2, 4, MAX_CHUNK_COUNT, 0xFFFFFFFFFFFFFFFF):
            self.expect_header_refused(CHUNK_COUNT, chunk_count=count)

    def test_one_record_more_than_the_limit_is_refused_though_it_follows(self):
        header = Header((MAX_CHUNK_COUNT + 1) * 512, 512, MAX_CHUNK_COUNT + 1)
        self.expect_refused(header.pack(), CHUNK_COUNT)

    def test_the_largest_disk_sizes_are_refused_by_their_count(self):
        for chunk_size in (512, 4096, 0x4000000):
            size = 0xFFFFFFFFFFFFFFFF
            self.expect_refused(Header(size, chunk_size, (size - 1) // chunk_size + 1).pack(), CHUNK_COUNT)

    def test_the_limit_itself_passes_the_check(self):
        header = Header(MAX_CHUNK_COUNT * 512, 512, MAX_CHUNK_COUNT)
        self.expect_refused(header.pack(), NO_TABLE)

    def test_a_table_of_the_largest_count_opens(self):
        # A restore opens the image before its target, and there is no such target.
        machine = self.machine(source=bytes(512))
        write_sparse_image(machine.path("a.vrnx"), MAX_CHUNK_COUNT)
        result = machine.run("restore", "--in", "a.vrnx", "--disk", "9", "--confirm", "YES")
        self.expect(result, 1, "", exclusive_failure(9, 2))
        self.assertEqual([(line["offset"], line["length"]) for line in result.calls("ReadFile")],
                         [(0, 64), (64, 268435440)])
        self.assertEqual([line["length"] for line in result.calls("BCryptHashData")], [64 + 268435440])


class Truncation(Opening):
    def test_a_header_and_nothing_else_is_refused(self):
        self.expect_refused(self.builder().to_bytes()[:64], NO_TABLE)

    def test_a_file_that_ends_inside_its_table_is_refused(self):
        whole = self.builder().to_bytes()
        for size in (65, 64 + 72, 64 + 3 * 72 - 1):
            self.expect_refused(whole[:size], NO_TABLE)

    def test_a_size_that_cannot_be_had_is_refused_with_its_error(self):
        result = self.verify(self.builder().to_bytes(), faults=[("GetFileSizeEx", {"error": 1117})])
        self.expect(result, 1, "", fatal(NO_TABLE, 1117))

    def test_a_failed_table_read_is_refused_with_its_error(self):
        result = self.verify(self.builder().to_bytes(), faults=[("ReadFile", {"skip": 1, "error": 1117})])
        self.expect(result, 1, "", fatal(TABLE_SHORT, 1117))

    def test_a_short_table_read_is_refused(self):
        result = self.verify(self.builder().to_bytes(), faults=[("ReadFile", {"skip": 1, "transferred": 215})])
        self.expect(result, 1, "", fatal(TABLE_SHORT))

    def test_a_file_that_ends_behind_its_table_is_refused(self):
        self.expect_refused(self.builder().to_bytes()[:64 + 3 * 72], DATA_SHORT)

    def test_a_file_that_lacks_its_last_byte_is_refused(self):
        self.expect_refused(self.builder().to_bytes()[:-1], DATA_SHORT)

    def test_bytes_behind_the_chunk_data_are_ignored(self):
        for tail in (b"x", bytes(100000), b"VRNXBASE" + bytes(48)):
            builder = self.builder()
            builder.tail = tail
            self.expect_good(builder)


class Records(Opening):
    def expect_record_refused(self, index, *, version=2, **fields):
        builder = self.builder()
        builder.header.version = version
        for name, value in fields.items():
            setattr(builder.records[index], name, value)
        self.expect_refused(builder, BAD_RECORD)

    def test_a_disk_offset_out_of_place_is_refused(self):
        self.expect_record_refused(0, disk_offset=4096)
        self.expect_record_refused(1, disk_offset=4095)
        self.expect_record_refused(2, disk_offset=4096)
        self.expect_record_refused(2, disk_offset=0xFFFFFFFFFFFFFFFF)

    def test_a_stored_length_that_is_not_the_plain_length_is_refused(self):
        for length in (1, 4095, 4097, 8192, 0xFFFFFFFF):
            self.expect_record_refused(0, stored_length=length)
        self.expect_record_refused(2, stored_length=4096)

    def test_a_stored_length_of_0_is_refused_in_a_full_image(self):
        for index in range(3):
            self.expect_record_refused(index, stored_length=0)

    def test_a_thin_image_too_refuses_a_length_that_is_neither_0_nor_plain(self):
        for length in (1, 4095, 4097):
            self.expect_record_refused(1, version=3, stored_length=length)

    def test_two_records_exchanged_are_refused(self):
        builder = self.builder()
        builder.records[0], builder.records[1] = builder.records[1], builder.records[0]
        self.expect_refused(builder, BAD_RECORD)


class Order(Opening):
    """Of two faults in one file the earlier check speaks."""

    def broken(self, *faults):
        builder = self.builder()
        for fault in faults:
            fault(builder)
        return builder

    def test_the_earlier_check_speaks(self):
        def magic(builder):
            builder.header.magic = b"VRNXDSKX"

        def geometry(builder):
            builder.header.sector_size = 768

        def key(builder):
            builder.header.kdf_iterations = 5

        def count(builder):
            builder.header.chunk_count = 4

        def record(builder):
            builder.records[1].disk_offset = 1

        faults = [(magic, BAD_MAGIC), (geometry, GEOMETRY), (key, KEY_PARAMETERS), (count, CHUNK_COUNT),
                  (record, BAD_RECORD)]
        for first, (_, message) in enumerate(faults):
            self.expect_refused(self.broken(*[fault for fault, _ in faults[first:]]), message)

    def test_a_bad_magic_is_told_before_a_missing_table(self):
        self.expect_refused(b"NOTMAGIC" + self.builder().to_bytes()[8:64], BAD_MAGIC)

    def test_a_missing_table_is_told_before_bad_records(self):
        builder = self.builder()
        builder.records[0].stored_length = 7
        self.expect_refused(builder.to_bytes()[:64 + 100], NO_TABLE)

    def test_bad_records_are_told_before_missing_data(self):
        builder = self.builder()
        builder.records[2].stored_length = 7
        self.expect_refused(builder.to_bytes()[:64 + 3 * 72], BAD_RECORD)

    def test_missing_data_are_told_before_the_missing_password(self):
        builder = self.builder(password=b"secret")
        self.expect_refused(builder.to_bytes()[:-1], DATA_SHORT)


class Chain(Opening):
    def test_an_image_that_names_itself_as_its_base_runs_into_the_limit(self):
        builder = self.builder()
        builder.header.version = 3
        builder.trailer = Trailer(b"a.vrnx", bytes(32))
        result = self.expect_refused(builder, TOO_DEEP)
        self.assertEqual(len(result.calls("CreateFileW", ok=True)), 65)


if __name__ == "__main__":
    suite.main()
