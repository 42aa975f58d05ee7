"""Opening an image: every structural check of header and table, in its order and with its words.

`verify` drives most of it, since it does nothing before the image is open: a refused image leaves standard output
empty.
"""

import os

import suite
from console import ANY_NUMBER, exclusive_failure, fatal, verify_text
from image import Header, ImageBuilder, MAX_CHUNK_COUNT, build_image, write_sparse_image
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


class File(Opening):
    def test_a_file_that_does_not_open_is_named_and_told_with_its_error(self):
        machine = self.machine(default=False)
        os.mkdir(machine.path("folder"))
        for path, error in (("missing.vrnx", 2), ("folder", 5), ("nowhere/a.vrnx", 3)):
            self.expect(machine.run("verify", "--in", path), 1, "", f"could not open image file: {path}\n"
                        f"FATAL: could not open image file (GetLastError={error})\n")

    def test_header_and_table_are_read_and_hashed_in_one_call_each_with_no_seek(self):
        result = self.expect_good(self.builder())
        opened = result.calls("CreateFileW")
        self.assertEqual([tuple(line[key] for key in ("path", "access", "share", "flags")) for line in opened],
                         [("a.vrnx", ACCESS_READ, "0x00000001", "0x00000080")])
        steps = [(line["call"], line.get("offset"), line.get("length")) for line in result.log
                 if line.get("path") == "a.vrnx" and line["call"] != "CloseHandle"]
        self.assertEqual(steps[:6], [
            ("CreateFileW", None, None), ("ReadFile", 0, 64), ("GetFileSizeEx", None, None),
            ("ReadFile", 64, 3 * 72), ("ReadFile", 64 + 3 * 72, 4096), ("ReadFile", 64 + 3 * 72 + 4096, 4096)])
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


class HeaderFields(Opening):
    # Each a good image but for these fields of its header.
    REFUSED = {
        BAD_MAGIC: [
            *[{"magic": magic} for magic in (b"VRNXDSK1", b"vrnxdsk2", b"VRNXBASE", b"\0RNXDSK2", b"VRNXDSK\0")],
            *[{"version": version} for version in (0, 1, 4, 0x200, 0xFFFFFFFF)]],
        GEOMETRY: [
            {"disk_size": 0}, {"chunk_size": 0},
            *[{"sector_size": size} for size in (0, 1, 256, 511, 513, 520, 1000, 3072, 8192)],
            # Here the chunk size is a whole number of sectors, so that no power of two alone is broken.
            {"sector_size": 768, "chunk_size": 768 * 8, "chunk_count": 2},
            {"chunk_size": 4096 + 512, "sector_size": 1024, "chunk_count": 3},
            {"chunk_size": 0x4000000 + 512, "chunk_count": 1}, {"chunk_size": 0x80000000, "chunk_count": 1}],
        KEY_PARAMETERS: [
            *[{"encrypted": encrypted, "kdf_iterations": iterations}
              for encrypted in (2, 3, 255) for iterations in (0, 1, 100000, 200000)],
            *[{"kdf_iterations": iterations} for iterations in (1, 200000, 0xFFFFFFFF)],
            *[{"encrypted": 1, "kdf_iterations": iterations} for iterations in (0, 1, 99999, 10000001, 0xFFFFFFFF)]],
        # The next thing missing is the password, so these bounds are inside.
        NEEDS_PASSWORD: [{"encrypted": 1, "kdf_iterations": iterations} for iterations in (100000, 200000, 10000000)],
        CHUNK_COUNT: [{"chunk_count": count} for count in (0, 1, 2, 4, MAX_CHUNK_COUNT, 0xFFFFFFFFFFFFFFFF)]}

    def test_each_field_out_of_its_bounds_is_refused(self):
        for message, rows in self.REFUSED.items():
            for fields in rows:
                builder = self.builder()
                for name, value in fields.items():
                    setattr(builder.header, name, value)
                with self.subTest(**fields):
                    self.expect_refused(builder, message)

    def test_each_disk_chunk_and_sector_size_within_them_is_fine(self):
        for size, options in (
                (SIZE, {"chunk_size": 0x4000000}), (1300, {"chunk_size": 512}),
                (300000, {"sector_size": 65536, "chunk_size": 131072}),
                (4097, {}), (1, {}),      # no whole number of sectors
                (3 * 4096, {}),           # a full last chunk
                (1024, {})):              # smaller than a chunk
            with self.subTest(size=size, **options):
                self.expect_good(self.builder(size=size, **options))

    def test_what_is_not_examined_may_hold_anything(self):
        builder = self.builder(epoch=0xA1B2C3D4E5F607)
        builder.header.salt = bytes(range(16))
        builder.records[1].nonce, builder.records[2].tag = b"\xff" * 12, b"\xff" * 16
        for tail in (b"x", bytes(100000), b"VRNXBASE" + bytes(48)):
            builder.tail = tail
            self.expect_good(builder)


class ChunkCount(Opening):
    def test_a_count_above_the_limit_is_refused_though_it_follows_and_the_limit_passes(self):
        largest = 0xFFFFFFFFFFFFFFFF
        for size, chunk_size, message in (
                ((MAX_CHUNK_COUNT + 1) * 512, 512, CHUNK_COUNT), (MAX_CHUNK_COUNT * 512, 512, NO_TABLE),
                *[(largest, chunk_size, CHUNK_COUNT) for chunk_size in (512, 4096, 0x4000000)]):
            with self.subTest(size=size, chunk_size=chunk_size):
                self.expect_refused(Header(size, chunk_size, (size - 1) // chunk_size + 1).pack(), message)

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
    def test_a_file_that_ends_before_its_last_chunk_is_refused(self):
        whole = self.builder().to_bytes()
        table_end = 64 + 3 * 72
        for size, message in (*[(size, HEADER_SHORT) for size in (0, 1, 8, 63)],
                              *[(size, NO_TABLE) for size in (64, 65, 64 + 72, table_end - 1)],
                              (table_end, DATA_SHORT), (len(whole) - 1, DATA_SHORT)):
            with self.subTest(size=size):
                self.expect_refused(whole[:size], message)
        for size in (64, 65, 100000):
            self.expect_refused(bytes(size), BAD_MAGIC)

    def test_a_header_size_or_table_that_cannot_be_had_is_refused_with_the_error(self):
        for call, effect, message in (
                ("ReadFile", {"error": 1117}, HEADER_SHORT), ("ReadFile", {"transferred": 63}, HEADER_SHORT),
                ("GetFileSizeEx", {"error": 1117}, NO_TABLE),
                ("ReadFile", {"skip": 1, "error": 1117}, TABLE_SHORT),
                ("ReadFile", {"skip": 1, "transferred": 215}, TABLE_SHORT)):
            with self.subTest(call, **effect):
                result = self.verify(self.builder().to_bytes(), faults=[(call, effect)])
                self.expect(result, 1, "", fatal(message, effect.get("error", ANY_NUMBER)))


class Records(Opening):
    def test_an_offset_or_length_out_of_place_is_refused(self):
        for index, version, fields in (
                (0, 2, {"disk_offset": 4096}), (1, 2, {"disk_offset": 4095}), (2, 2, {"disk_offset": 4096}),
                (2, 2, {"disk_offset": 0xFFFFFFFFFFFFFFFF}),
                *[(0, 2, {"stored_length": length}) for length in (1, 4095, 4097, 8192, 0xFFFFFFFF)],
                (2, 2, {"stored_length": 4096}),
                # 0 is a reference, and there is none in a full image; in a thin one any other length is refused too.
                *[(index, 2, {"stored_length": 0}) for index in range(3)],
                *[(1, 3, {"stored_length": length}) for length in (1, 4095, 4097)]):
            builder = self.builder()
            builder.header.version = version
            for name, value in fields.items():
                setattr(builder.records[index], name, value)
            with self.subTest(index=index, version=version, **fields):
                self.expect_refused(builder, BAD_RECORD)


class Order(Opening):
    """Of two faults in one file the earlier check speaks."""

    def test_the_earlier_check_speaks(self):
        wrong = [("header", "magic", b"VRNXDSKX", BAD_MAGIC), ("header", "sector_size", 768, GEOMETRY),
                 ("header", "kdf_iterations", 5, KEY_PARAMETERS), ("header", "chunk_count", 4, CHUNK_COUNT),
                 ("record", "disk_offset", 1, BAD_RECORD)]
        for first, (*_, message) in enumerate(wrong):
            builder = self.builder()
            for place, name, value, _ in wrong[first:]:
                setattr(builder.header if place == "header" else builder.records[1], name, value)
            self.expect_refused(builder, message)

    def test_what_the_file_lacks_is_told_in_the_order_of_its_parts(self):
        def record(index):
            builder = self.builder()
            builder.records[index].stored_length = 7
            return builder.to_bytes()

        key = self.builder()
        key.header.encrypted, key.header.kdf_iterations = 1, 99999
        for case, data, options, message in (
                ("a bad magic before a missing table", b"NOTMAGIC" + self.builder().to_bytes()[8:64], (), BAD_MAGIC),
                ("a missing table before bad records", record(0)[:64 + 100], (), NO_TABLE),
                ("bad records before missing data", record(2)[:64 + 3 * 72], (), BAD_RECORD),
                ("missing data before the missing password", self.builder(password=b"secret").to_bytes()[:-1], (),
                 DATA_SHORT),
                ("bad parameters before the password file", key, ("--password-file", "missing.txt"), KEY_PARAMETERS)):
            with self.subTest(case):
                self.expect_refused(data, message, *options)


if __name__ == "__main__":
    suite.main()
