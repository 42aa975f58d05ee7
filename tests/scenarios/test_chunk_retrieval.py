"""A chunk's plain bytes out of a full plain image, by its number: seek, read, hash, and what each failure says.

`consolidate` drives it, since it takes every chunk of its input that way; verify and restore read stored chunks in
sequence themselves.
"""

import suite
from console import fatal, fatal_status, meter_run, verify_text
from image import build_image, is_accepted
from machine import pattern

SIZE = 4 * 4096 - 1024  # four chunks of 4096, the last one short
NOT_READ = "could not read chunk data from image (truncated?)"
BAD_HASH = "chunk failed its hash check (corrupt image or base)"


class Retrieval(suite.Scenario):
    def prepared(self):
        machine = self.machine(default=False)
        builder = build_image(machine.path("in.vrnx"), pattern(SIZE, "image"))
        return machine, builder

    def consolidate(self, machine):
        return machine.run("consolidate", "--in", "in.vrnx", "--out", "out.vrnx")

    def expect_failed(self, machine, chunk, message):
        """The run ends at this chunk, and leaves an output that no reader accepts."""
        result = self.expect(self.consolidate(machine), 1, meter_run(SIZE, 4096, upto=chunk), message)
        self.assertFalse(is_accepted(machine.path("out.vrnx")))
        self.assertEqual([line["length"] for line in result.calls("WriteFile", path="out.vrnx")], [4096] * chunk)
        return result

    def test_every_chunk_comes_out_as_it_went_in(self):
        machine, builder = self.prepared()
        self.expect(self.consolidate(machine), 0,
                    meter_run(SIZE, 4096) + "\nConsolidated: out.vrnx (self-contained full image, verifying...)\n"
                    + verify_text("out.vrnx", SIZE, 4096))
        self.expect_file(machine, "out.vrnx", builder.to_bytes())

    def test_each_chunk_is_sought_and_read_in_one_call_at_its_own_length(self):
        machine, builder = self.prepared()
        result = self.consolidate(machine)
        steps = [(line["call"], line["offset"], line.get("length")) for line in result.log
                 if line.get("path") == "in.vrnx" and line["call"] in ("SetFilePointerEx", "ReadFile")][2:]
        expected = []
        for index, length in enumerate((4096, 4096, 4096, 3072)):
            offset = builder.data_offset(index)
            expected += [("SetFilePointerEx", offset, None), ("ReadFile", offset, length)]
        self.assertEqual(steps, expected)

    def test_each_chunk_is_hashed_once_at_its_own_length(self):
        machine, _ = self.prepared()
        result = self.consolidate(machine)
        lengths = [line["length"] for line in result.calls("BCryptHashData")]
        self.assertEqual(lengths[:5], [64 + 4 * 72, 4096, 4096, 4096, 3072])

    def test_a_failed_seek_is_fatal(self):
        for chunk in (0, 2, 3):
            machine, _ = self.prepared()
            machine.add_fault("SetFilePointerEx", path="in.vrnx", skip=chunk, error=1117)
            self.expect_failed(machine, chunk, fatal(NOT_READ, 1117))

    def test_a_failed_read_is_fatal(self):
        for chunk in (0, 2, 3):
            machine, _ = self.prepared()
            machine.add_fault("ReadFile", path="in.vrnx", skip=2 + chunk, error=1117)
            self.expect_failed(machine, chunk, fatal(NOT_READ, 1117))

    def test_a_short_read_is_fatal(self):
        for chunk, transferred in ((0, 0), (1, 4095), (3, 3071)):
            machine, _ = self.prepared()
            machine.add_fault("ReadFile", path="in.vrnx", skip=2 + chunk, transferred=transferred)
            self.expect_failed(machine, chunk, fatal(NOT_READ))

    def test_a_flipped_byte_fails_the_hash_check(self):
        for chunk, place in ((0, 0), (1, 4095), (3, 3071)):
            machine, builder = self.prepared()
            machine.flip("in.vrnx", builder.data_offset(chunk) + place)
            self.expect_failed(machine, chunk, fatal(BAD_HASH))

    def test_a_byte_that_turns_while_it_is_read_fails_the_hash_check(self):
        machine, _ = self.prepared()
        machine.add_fault("ReadFile", path="in.vrnx", skip=2 + 2, flip=77)
        self.expect_failed(machine, 2, fatal(BAD_HASH))

    def test_a_damaged_hash_in_the_table_fails_the_hash_check(self):
        machine, _ = self.prepared()
        machine.flip("in.vrnx", 64 + 72 + 12)
        self.expect_failed(machine, 1, fatal(BAD_HASH))

    def test_a_hash_that_cannot_be_had_is_fatal_with_its_status(self):
        machine, _ = self.prepared()
        machine.add_fault("BCryptOpenAlgorithmProvider", skip=1 + 2, status="0xC0000225")
        self.expect_failed(machine, 2, fatal_status("BCryptOpenAlgorithmProvider(SHA256)", 0xC0000225))
        machine, _ = self.prepared()
        machine.add_fault("BCryptCreateHash", skip=1 + 3, status="0xC0000017")
        self.expect_failed(machine, 3, fatal_status("BCryptCreateHash", 0xC0000017))

    def test_the_image_is_left_as_it_was(self):
        machine, builder = self.prepared()
        result = self.consolidate(machine)
        self.expect_file(machine, "in.vrnx", builder.to_bytes())
        self.assertEqual(result.calls("WriteFile", path="in.vrnx"), [])


if __name__ == "__main__":
    suite.main()
