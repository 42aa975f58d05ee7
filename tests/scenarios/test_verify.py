"""verify: a full plain image from end to end, every bad chunk reported, the verdict."""

import os

import suite
from console import fatal, fatal_status, meter, meter_run, verify_failed, verify_text, verifying_line
from image import ImageBuilder, build_image, read_table
from machine import pattern

SIZE = 10 * 4096 - 1024  # ten chunks of 4096, the last one short
FIRST_METER = "\r   10.26%  0 / 0 MiB  (0.0 MiB/s)   "
LAST_METER = "\r  100.00%  0 / 0 MiB  (0.0 MiB/s)   "


def mismatch(index, chunk_size=4096):
    return f"\n  chunk {index} (disk offset {index * chunk_size}): HASH MISMATCH\n"


class Verify(suite.Scenario):
    def image(self, size=SIZE, **options):
        """A fresh machine with a good a.vrnx."""
        machine = self.machine(default=False)
        builder = build_image(machine.path("a.vrnx"), pattern(size, "image"), **options)
        return machine, builder

    def verify(self, machine, *options):
        return machine.run("verify", "--in", "a.vrnx", *options)


class Good(Verify):
    def test_a_good_image_is_good(self):
        machine, _ = self.image()
        self.expect(self.verify(machine), 0,
                    "Verifying a.vrnx  (10 chunks, 0.00 GiB source disk)\n" + FIRST_METER + LAST_METER + "\n"
                    "Verify OK - all 10 chunks match their recorded hash.\n")

    def test_an_image_is_only_read(self):
        machine, builder = self.image()
        result = self.verify(machine)
        self.expect_file(machine, "a.vrnx", builder.to_bytes())
        self.assertEqual(result.calls("WriteFile"), [])
        self.assertEqual(machine.files(), ["a.vrnx"])

    def test_the_path_is_printed_as_typed(self):
        machine, _ = self.image()
        os.mkdir(machine.path("folder"))
        os.rename(machine.path("a.vrnx"), machine.path("folder/b.vrnx"))
        self.expect(machine.run("verify", "--in", "./folder/../folder/b.vrnx"), 0,
                    verify_text("./folder/../folder/b.vrnx", SIZE, 4096))

    def test_the_size_of_the_disk_is_shown_in_gibibytes(self):
        machine = self.machine(default=False)
        size = 11 * 1048576  # 0.0107 GiB
        build_image(machine.path("a.vrnx"), bytes(size), chunk_size=1048576)
        result = self.expect(self.verify(machine), 0, verify_text("a.vrnx", size, 1048576))
        self.assertTrue(result.stdout.startswith(b"Verifying a.vrnx  (11 chunks, 0.01 GiB source disk)\n"))

    def test_a_password_file_makes_no_difference_to_a_plain_image(self):
        machine, _ = self.image()
        machine.write("password.txt", b"secret\n")
        for name in ("password.txt", "missing.txt"):
            result = self.expect(self.verify(machine, "--password-file", name), 0, verify_text("a.vrnx", SIZE, 4096))
            self.assertEqual(result.calls("BCryptDeriveKeyPBKDF2"), [])

    def test_chunks_are_read_in_sequence_with_no_seek_and_one_buffer(self):
        machine, _ = self.image()
        result = self.verify(machine)
        self.assertEqual(result.calls("SetFilePointerEx"), [])
        self.assertEqual([(line["offset"], line["length"]) for line in result.calls("ReadFile")[2:]],
                         [(64 + 720 + index * 4096, 4096) for index in range(9)] + [(64 + 720 + 9 * 4096, 3072)])
        self.assertEqual([(line["size"], line["alignment"]) for line in result.calls("_aligned_malloc")], [(4096, 64)])

    def test_the_image_is_closed_at_the_end(self):
        machine, _ = self.image()
        result = self.verify(machine)
        self.assertEqual([line["call"] for line in result.log[-2:]], ["CloseHandle", "exit"])
        self.assertEqual(result.log[-2]["path"], "a.vrnx")

    def test_no_disk_is_looked_at(self):
        machine, _ = self.image()
        self.assertEqual([line["path"] for line in self.verify(machine).calls("CreateFileW")], ["a.vrnx"])

    def test_each_hash_opens_and_closes_the_provider(self):
        machine, _ = self.image()
        result = self.verify(machine)
        names = [name for name in result.sequence() if name.startswith("BCrypt")]
        one = ["BCryptOpenAlgorithmProvider", "BCryptGetProperty", "BCryptCreateHash", "BCryptHashData",
               "BCryptFinishHash", "BCryptDestroyHash", "BCryptCloseAlgorithmProvider"]
        self.assertEqual(names, one * 11)
        self.assertEqual({(line["algorithm"], line["flags"]) for line in result.calls("BCryptOpenAlgorithmProvider")},
                         {("SHA256", "0x00000000")})
        self.assertEqual({line["property"] for line in result.calls("BCryptGetProperty")}, {"ObjectLength"})


class Bad(Verify):
    def test_one_bad_chunk_is_told_with_its_number_and_offset(self):
        machine, builder = self.image()
        machine.flip("a.vrnx", builder.data_offset(5) + 17)
        self.expect(self.verify(machine), 1,
                    "Verifying a.vrnx  (10 chunks, 0.00 GiB source disk)\n" + FIRST_METER +
                    "\n  chunk 5 (disk offset 20480): HASH MISMATCH\n" + LAST_METER + "\n",
                    "Verify FAILED - 1 of 10 chunks did not match. Do not trust this image for restore.\n")

    def test_every_bad_chunk_gets_its_line_in_order_and_is_counted(self):
        machine, builder = self.image()
        for index in (7, 2, 4):
            machine.flip("a.vrnx", builder.data_offset(index))
        self.expect(self.verify(machine), 1,
                    verifying_line("a.vrnx", 10, SIZE) + FIRST_METER + mismatch(2) + mismatch(4) + mismatch(7)
                    + LAST_METER + "\n", verify_failed(3, 10))

    def test_a_bad_first_and_last_chunk_do_not_stop_the_meter(self):
        machine, builder = self.image()
        machine.flip("a.vrnx", builder.data_offset(0))
        machine.flip("a.vrnx", builder.data_offset(9) + 3071)
        self.expect(self.verify(machine), 1,
                    verifying_line("a.vrnx", 10, SIZE) + mismatch(0) + FIRST_METER + mismatch(9) + LAST_METER + "\n",
                    verify_failed(2, 10))

    def test_a_bad_32nd_chunk_does_not_stop_the_meter(self):
        size = 40 * 512
        machine, builder = self.image(size, chunk_size=512)
        machine.flip("a.vrnx", builder.data_offset(32))
        self.expect(self.verify(machine), 1,
                    verifying_line("a.vrnx", 40, size) + meter(512, size, 1) + mismatch(32, 512)
                    + meter(33 * 512, size, 2) + meter(size, size, 3) + "\n", verify_failed(1, 40))

    def test_a_damaged_hash_in_the_table_is_a_mismatch(self):
        machine, _ = self.image()
        machine.flip("a.vrnx", 64 + 3 * 72 + 12 + 31)
        self.expect(self.verify(machine), 1,
                    verifying_line("a.vrnx", 10, SIZE) + FIRST_METER + mismatch(3) + LAST_METER + "\n",
                    verify_failed(1, 10))

    def test_every_chunk_can_be_bad(self):
        machine, builder = self.image()
        for index in range(10):
            machine.flip("a.vrnx", builder.data_offset(index) + index)
        text = "".join(mismatch(index) + (FIRST_METER if index == 0 else "") for index in range(10))
        self.expect(self.verify(machine), 1, verifying_line("a.vrnx", 10, SIZE) + text + LAST_METER + "\n",
                    verify_failed(10, 10))

    def test_the_short_last_chunk_is_hashed_at_its_own_length(self):
        machine, builder = self.image()
        builder.tail = b"behind everything"
        builder.write(machine.path("a.vrnx"))
        self.expect(self.verify(machine), 0, verify_text("a.vrnx", SIZE, 4096))
        _, records = read_table(machine.path("a.vrnx"))
        self.assertEqual(records[9].stored_length, 3072)

    def test_two_exchanged_chunks_are_both_bad(self):
        machine = self.machine(default=False)
        builder = ImageBuilder(pattern(SIZE, "image"))
        builder.stored[1], builder.stored[2] = builder.stored[2], builder.stored[1]
        builder.write(machine.path("a.vrnx"))
        self.expect(self.verify(machine), 1,
                    verifying_line("a.vrnx", 10, SIZE) + FIRST_METER + mismatch(1) + mismatch(2) + LAST_METER + "\n",
                    verify_failed(2, 10))

    def test_a_byte_that_turns_while_it_is_read_is_a_mismatch(self):
        machine, _ = self.image()
        machine.add_fault("ReadFile", path="a.vrnx", skip=2 + 6, flip=100)
        self.expect(self.verify(machine), 1,
                    verifying_line("a.vrnx", 10, SIZE) + FIRST_METER + mismatch(6) + LAST_METER + "\n",
                    verify_failed(1, 10))
        machine.clear_faults()
        self.expect(self.verify(machine), 0, verify_text("a.vrnx", SIZE, 4096))

    def test_the_image_is_closed_before_the_failed_verdict(self):
        machine, builder = self.image()
        machine.flip("a.vrnx", builder.data_offset(5))
        result = self.verify(machine)
        self.assertEqual([(line["call"], line.get("code")) for line in result.log[-2:]],
                         [("CloseHandle", None), ("exit", 1)])


class Failures(Verify):
    TRUNCATED = "could not read chunk data - image is truncated"

    def test_a_failed_read_is_fatal(self):
        machine, _ = self.image()
        machine.add_fault("ReadFile", path="a.vrnx", skip=2 + 4, error=1117)
        self.expect(self.verify(machine), 1, verifying_line("a.vrnx", 10, SIZE) + FIRST_METER,
                    fatal(self.TRUNCATED, 1117))

    def test_a_short_read_is_fatal(self):
        machine, _ = self.image()
        machine.add_fault("ReadFile", path="a.vrnx", skip=2 + 9, transferred=3071)
        self.expect(self.verify(machine), 1, verifying_line("a.vrnx", 10, SIZE) + FIRST_METER, fatal(self.TRUNCATED))

    def test_an_empty_read_is_fatal(self):
        machine, _ = self.image()
        machine.add_fault("ReadFile", path="a.vrnx", skip=2, transferred=0)
        self.expect(self.verify(machine), 1, verifying_line("a.vrnx", 10, SIZE), fatal(self.TRUNCATED))

    def test_bad_chunks_before_a_failed_read_are_not_counted_out(self):
        machine, builder = self.image()
        machine.flip("a.vrnx", builder.data_offset(1))
        machine.add_fault("ReadFile", path="a.vrnx", skip=2 + 3, error=1117)
        self.expect(self.verify(machine), 1, verifying_line("a.vrnx", 10, SIZE) + FIRST_METER + mismatch(1),
                    fatal(self.TRUNCATED, 1117))

    def test_a_buffer_that_cannot_be_had_is_fatal(self):
        machine, _ = self.image()
        machine.add_fault("_aligned_malloc", null=True)
        self.expect(self.verify(machine), 1, verifying_line("a.vrnx", 10, SIZE),
                    fatal("out of memory allocating aligned I/O buffer"))

    def test_a_hash_provider_that_does_not_open_is_fatal_with_its_status(self):
        for skip, stdout in ((0, ""), (1, verifying_line("a.vrnx", 10, SIZE)),
                             (2, verifying_line("a.vrnx", 10, SIZE) + FIRST_METER)):
            machine, _ = self.image()
            machine.add_fault("BCryptOpenAlgorithmProvider", skip=skip, status="0xC0000225")
            self.expect(self.verify(machine), 1, stdout,
                        "FATAL: BCryptOpenAlgorithmProvider(SHA256) (NTSTATUS 0xC0000225)\n")

    def test_a_hash_that_cannot_be_created_is_fatal_with_its_status(self):
        machine, _ = self.image()
        machine.add_fault("BCryptCreateHash", skip=1, status="0xC0000017")
        self.expect(self.verify(machine), 1, verifying_line("a.vrnx", 10, SIZE),
                    fatal_status("BCryptCreateHash", 0xC0000017))

    def test_a_positive_status_is_no_failure(self):
        machine, _ = self.image()
        machine.add_fault("BCryptDestroyHash", times=100, status="0x00000103")
        machine.add_fault("BCryptCloseAlgorithmProvider", times=100, status="0x40000000")
        self.expect(self.verify(machine), 0, verify_text("a.vrnx", SIZE, 4096))

    def test_failures_of_the_closing_calls_are_not_looked_at(self):
        machine, _ = self.image()
        machine.add_fault("BCryptDestroyHash", times=100, status="0xC0000001")
        machine.add_fault("BCryptCloseAlgorithmProvider", times=100, status="0xC0000001")
        machine.add_fault("CloseHandle", times=100, error=6)
        self.expect(self.verify(machine), 0, verify_text("a.vrnx", SIZE, 4096))

    def test_a_length_property_that_cannot_be_read_is_not_looked_at(self):
        # The hash object then has no room of the program's own; the provider takes it from elsewhere.
        machine, _ = self.image()
        machine.add_fault("BCryptGetProperty", times=100, status="0xC0000001")
        self.expect(self.verify(machine), 0, verify_text("a.vrnx", SIZE, 4096))

    def test_data_that_were_not_hashed_show_as_a_mismatch(self):
        machine, _ = self.image()
        machine.add_fault("BCryptHashData", skip=1 + 2, status="0xC0000001")
        self.expect(self.verify(machine), 1,
                    verifying_line("a.vrnx", 10, SIZE) + FIRST_METER + mismatch(2) + LAST_METER + "\n",
                    verify_failed(1, 10))

    def test_a_meter_stays_open_where_a_failure_ends_the_run(self):
        size = 40 * 512
        machine, _ = self.image(size, chunk_size=512)
        machine.add_fault("ReadFile", path="a.vrnx", skip=2 + 35, error=38)
        self.expect(self.verify(machine), 1,
                    verifying_line("a.vrnx", 40, size) + meter_run(size, 512, upto=35), fatal(self.TRUNCATED, 38))


if __name__ == "__main__":
    suite.main()
