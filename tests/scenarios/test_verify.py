"""verify: a full plain image from end to end, every bad chunk reported in its line and counted, and the verdict."""

import os

import suite
from console import fatal, fatal_status, meter, verify_failed, verify_text, verifying_line
from image import ImageBuilder, build_image
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
        machine, builder = self.image()
        result = self.expect(self.verify(machine), 0,
                             "Verifying a.vrnx  (10 chunks, 0.00 GiB source disk)\n" + FIRST_METER + LAST_METER + "\n"
                             "Verify OK - all 10 chunks match their recorded hash.\n")
        # It is only read, in sequence with no seek and through one buffer; no disk is looked at.
        self.expect_file(machine, "a.vrnx", builder.to_bytes())
        self.assertEqual(result.calls("WriteFile") + result.calls("SetFilePointerEx"), [])
        self.assertEqual([line["path"] for line in result.calls("CreateFileW")], ["a.vrnx"])
        self.assertEqual([(line["offset"], line["length"]) for line in result.calls("ReadFile")[2:]],
                         [(64 + 720 + index * 4096, 4096) for index in range(9)] + [(64 + 720 + 9 * 4096, 3072)])
        self.assertEqual([(line["size"], line["alignment"]) for line in result.calls("_aligned_malloc")], [(4096, 64)])
        self.assertEqual([(line["call"], line.get("path")) for line in result.log[-2:]],
                         [("CloseHandle", "a.vrnx"), ("exit", None)])

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
        result = self.expect(self.verify(machine), 1,
                             "Verifying a.vrnx  (10 chunks, 0.00 GiB source disk)\n" + FIRST_METER +
                             "\n  chunk 5 (disk offset 20480): HASH MISMATCH\n" + LAST_METER + "\n",
                             "Verify FAILED - 1 of 10 chunks did not match. Do not trust this image for restore.\n")
        self.assertEqual([(line["call"], line.get("code")) for line in result.log[-2:]],
                         [("CloseHandle", None), ("exit", 1)])

    def test_every_bad_chunk_gets_its_line_in_order_and_is_counted_and_stops_no_meter(self):
        def exchange(builder):
            builder.stored[1], builder.stored[2] = builder.stored[2], builder.stored[1]

        def flipped(*offsets):
            def damage(builder):
                data = bytearray(good)
                for offset in offsets:
                    data[offset] ^= 0xFF
                return bytes(data)
            return damage

        data = 64 + 720
        good = ImageBuilder(pattern(SIZE, "image")).to_bytes()
        for case, bad, damage in (
                ("three chunks", (2, 4, 7), flipped(*[data + index * 4096 for index in (7, 2, 4)])),
                ("the first and the last", (0, 9), flipped(data, data + 9 * 4096 + 3071)),
                ("all", range(10), flipped(*[data + index * 4096 + index for index in range(10)])),
                ("a hash in the table", (3,), flipped(64 + 3 * 72 + 12 + 31)),
                ("two exchanged", (1, 2), exchange)):
            machine, builder = self.image()
            machine.write("a.vrnx", damage(builder) or builder.to_bytes())
            text = "".join((mismatch(index) if index in bad else "") + {0: FIRST_METER, 9: LAST_METER}.get(index, "")
                           for index in range(10))
            with self.subTest(case):
                self.expect(self.verify(machine), 1, verifying_line("a.vrnx", 10, SIZE) + text + "\n",
                            verify_failed(len(bad), 10))

    def test_a_bad_32nd_chunk_does_not_stop_the_meter(self):
        size = 40 * 512
        machine, builder = self.image(size, chunk_size=512)
        machine.flip("a.vrnx", builder.data_offset(32))
        self.expect(self.verify(machine), 1,
                    verifying_line("a.vrnx", 40, size) + meter(512, size, 1) + mismatch(32, 512)
                    + meter(33 * 512, size, 2) + meter(size, size, 3) + "\n", verify_failed(1, 40))


class Failures(Verify):
    TRUNCATED = "could not read chunk data - image is truncated"

    def test_bad_chunks_before_a_failed_read_are_not_counted_out(self):
        machine, builder = self.image()
        machine.flip("a.vrnx", builder.data_offset(1))
        machine.add_fault("ReadFile", path="a.vrnx", skip=2 + 3, error=1117)
        self.expect(self.verify(machine), 1, verifying_line("a.vrnx", 10, SIZE) + FIRST_METER + mismatch(1),
                    fatal(self.TRUNCATED, 1117))

    def test_each_step_that_fails_is_fatal(self):
        begun = verifying_line("a.vrnx", 10, SIZE)
        provider = fatal_status("BCryptOpenAlgorithmProvider(SHA256)", 0xC0000225)
        for step, fault, stdout, report in (
                ("a read", {"call": "ReadFile", "skip": 6, "error": 1117}, begun + FIRST_METER,
                 fatal(self.TRUNCATED, 1117)),
                ("a short read", {"call": "ReadFile", "skip": 11, "transferred": 3071}, begun + FIRST_METER,
                 fatal(self.TRUNCATED)),
                ("an empty read", {"call": "ReadFile", "skip": 2, "transferred": 0}, begun, fatal(self.TRUNCATED)),
                ("a buffer", {"call": "_aligned_malloc", "null": True}, begun,
                 fatal("out of memory allocating aligned I/O buffer")),
                *[(f"hash provider {skip}", {"call": "BCryptOpenAlgorithmProvider", "skip": skip,
                                             "status": "0xC0000225"}, stdout, provider)
                  for skip, stdout in ((0, ""), (1, begun), (2, begun + FIRST_METER))],
                ("a hash", {"call": "BCryptCreateHash", "skip": 1, "status": "0xC0000017"}, begun,
                 fatal_status("BCryptCreateHash", 0xC0000017))):
            machine, _ = self.image()
            machine.add_fault(**fault)
            with self.subTest(step):
                self.expect(self.verify(machine), 1, stdout, report)


if __name__ == "__main__":
    suite.main()
