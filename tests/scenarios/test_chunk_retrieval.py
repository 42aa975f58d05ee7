"""A chunk's plain bytes out of a full plain image, by its number: seek, read, hash, and what each failure says.

`consolidate` drives it, since it takes every chunk of its input that way; verify and restore read stored chunks in
sequence themselves.
"""

import suite
from console import fatal, fatal_status, meter_run
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

    def test_each_failure_ends_the_run_at_its_chunk(self):
        for case, chunk, fault, report in (
                *[(f"seek {chunk}", chunk, {"call": "SetFilePointerEx", "path": "in.vrnx", "skip": chunk,
                                            "error": 1117}, fatal(NOT_READ, 1117)) for chunk in (0, 2, 3)],
                *[(f"read {chunk}", chunk, {"call": "ReadFile", "path": "in.vrnx", "skip": 2 + chunk, "error": 1117},
                   fatal(NOT_READ, 1117)) for chunk in (0, 2, 3)],
                *[(f"short read {chunk}", chunk, {"call": "ReadFile", "path": "in.vrnx", "skip": 2 + chunk,
                                                  "transferred": transferred}, fatal(NOT_READ))
                  for chunk, transferred in ((0, 0), (1, 4095), (3, 3071))],
                ("a byte that turns while it is read", 2,
                 {"call": "ReadFile", "path": "in.vrnx", "skip": 4, "flip": 77}, fatal(BAD_HASH)),
                *[(f"flipped byte {chunk}", chunk, 64 + 4 * 72 + chunk * 4096 + place, fatal(BAD_HASH))
                  for chunk, place in ((0, 0), (1, 4095), (3, 3071))],
                ("a hash of the table", 1, 64 + 72 + 12, fatal(BAD_HASH)),
                ("a hash provider", 2, {"call": "BCryptOpenAlgorithmProvider", "skip": 3, "status": "0xC0000225"},
                 fatal_status("BCryptOpenAlgorithmProvider(SHA256)", 0xC0000225)),
                ("a hash", 3, {"call": "BCryptCreateHash", "skip": 4, "status": "0xC0000017"},
                 fatal_status("BCryptCreateHash", 0xC0000017))):
            machine, _ = self.prepared()
            if isinstance(fault, int):
                machine.flip("in.vrnx", fault)
            else:
                machine.add_fault(**fault)
            with self.subTest(case):
                self.expect_failed(machine, chunk, report)


if __name__ == "__main__":
    suite.main()
