"""What a power cut can leave of an image: the last writes in any combination, and sectors of them missing.

The writes of a run are taken from its log. From the finished file all files are made in which a subset of them never
reached the medium: their bytes are zero, or the file ends before them. Then single sectors and drawn sets of sectors
are zeroed, and the file is cut at every sector and at every byte of its end. `verify` calls none of these good, and the
second reader none either, but the file that is whole. Natively, through tests/faults/many_runs.cpp.
"""

import random

import suite
from image import ImageError, build_image, reference_plain_bytes
from machine import pattern
from many_runs import ManyRuns

MIB4 = 0x400000
CAPTURED = pattern(MIB4 + 1536, "source")
BEFORE = CAPTURED[:MIB4] + pattern(1536, "before")
FOLDED = pattern(5 * 512 + 40, "image")
PASSWORD = b"correct horse"
KEY = ["--password-file", "password"]
SECTOR = 512
DRAWS = 150


class TornWrites(suite.Scenario):
    recorded = False

    def setUp(self):
        super().setUp()
        if self.settings.windows:
            self.skipTest("the many runs that this takes are made natively")
        self.seen = set()

    def make(self, *arguments, prepare=None):
        """The run whose image is torn. Gives the machine, the finished bytes and the writes as (offset, length)."""
        machine = self.machine(source=CAPTURED, target=bytes(512))
        machine.write("password", PASSWORD)
        if prepare is not None:
            prepare(machine)
        result = machine.run(*arguments, "--out", "new.vrnx")
        self.assertEqual(result.status, 0, result.describe())
        writes = [(line["offset"], line["transferred"]) for line in result.calls("WriteFile", path="new.vrnx")]
        content = machine.read("new.vrnx")
        self.assertEqual(sum(length for _, length in writes), len(content))
        return machine, content, writes

    def judge(self, runs, machine, whole, torn, what):
        """Both readers on a torn file; one that lost nothing after all is the good one."""
        if torn in self.seen:
            return
        self.seen.add(torn)
        machine.write("torn.vrnx", torn)
        status = runs.run("verify", "--in", "torn.vrnx", *KEY).status
        try:
            reference_plain_bytes(machine.path("torn.vrnx"), PASSWORD)
            taken = True
        except (ImageError, OSError):
            taken = False
        good = torn == whole
        self.assertEqual((status, taken), (0 if good else 1, good), what)

    @staticmethod
    def tear(whole, stretches, cut):
        """The file without these stretches; with `cut` it ends where the last one that is there ends."""
        torn, end = bytearray(whole), len(whole)
        for offset, length in stretches:
            torn[offset:offset + length] = bytes(length)
        if cut:
            missing = sorted(stretches, reverse=True)
            for offset, length in missing:
                if offset + length == end:
                    end = offset
        return bytes(torn[:end])

    def tear_writes(self, runs, machine, whole, writes):
        for chosen in range(1 << len(writes)):
            stretches = [write for place, write in enumerate(writes) if chosen >> place & 1]
            for cut in (False, True):
                self.judge(runs, machine, whole, self.tear(whole, stretches, cut),
                           f"lost writes {stretches}, {'cut' if cut else 'zero'}")

    def tear_sectors(self, runs, machine, whole):
        sectors = [(at, min(SECTOR, len(whole) - at)) for at in range(0, len(whole), SECTOR)]
        for stretch in sectors:
            self.judge(runs, machine, whole, self.tear(whole, [stretch], False), f"lost sector {stretch}")
        for end in [*range(0, len(whole), SECTOR), *range(len(whole) - 80, len(whole))]:
            self.judge(runs, machine, whole, whole[:end], f"cut at {end}")
        draw = random.Random(7)
        for number in range(DRAWS):
            stretches = draw.sample(sectors, draw.randrange(1, len(sectors) + 1))
            self.judge(runs, machine, whole, self.tear(whole, stretches, draw.random() < 0.5), f"draw {number}")

    def try_all(self, *arguments, prepare=None, sectors=True):
        machine, whole, writes = self.make(*arguments, prepare=prepare)
        with ManyRuns(machine.work) as runs:
            self.judge(runs, machine, whole, whole, "the whole file")
            self.tear_writes(runs, machine, whole, writes)
            if sectors:
                self.tear_sectors(runs, machine, whole)
        self.assertGreaterEqual(len(self.seen), 8 if not sectors else 100)

    def test_capture(self):
        self.try_all("capture", "--disk", "1", sectors=False)

    def test_sealed_capture(self):
        self.try_all("capture", "--disk", "1", "--encrypt", *KEY, sectors=False)

    def test_thin_capture(self):
        self.try_all("capture", "--disk", "1", "--base", "base.vrnx", "--thin", prepare=lambda machine: build_image(
            machine.path("base.vrnx"), BEFORE, chunk_size=MIB4))

    def test_sealed_thin_capture(self):
        self.try_all("capture", "--disk", "1", "--base", "base.vrnx", "--thin", "--encrypt", *KEY,
                     prepare=lambda machine: build_image(machine.path("base.vrnx"), BEFORE, chunk_size=MIB4,
                                                         password=PASSWORD))

    def test_consolidate(self):
        self.try_all("consolidate", "--in", "a.vrnx", prepare=lambda machine: build_image(
            machine.path("a.vrnx"), FOLDED, chunk_size=512))

    def test_sealed_consolidate(self):
        self.try_all("consolidate", "--in", "a.vrnx", "--encrypt", *KEY, prepare=lambda machine: build_image(
            machine.path("a.vrnx"), FOLDED, chunk_size=512))


if __name__ == "__main__":
    suite.main()
