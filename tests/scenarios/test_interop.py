"""Images of the Windows build and of the native build: the same bytes from the same disk, and each reads the other's.

Needs both builds and Wine. The native one is in build/linux, the other in build/windows, or where VORNIX_BENCH_LINUX
and VORNIX_BENCH_WINDOWS say; where one is missing each test is skipped.
"""

import os
import shutil
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "lib"))
import suite
from console import capture_text, restore_text, verify_text
from image import build_image
from machine import CHECKOUT, Settings, pattern

NATIVE_BENCH = os.environ.get("VORNIX_BENCH_LINUX") or os.path.join(CHECKOUT, "build", "linux", "vornix-bench")
WINDOWS_BENCH = os.environ.get("VORNIX_BENCH_WINDOWS") or os.path.join(CHECKOUT, "build", "windows", "vornix-bench.exe")
WINE = os.environ.get("VORNIX_WINE") or "wine"

SIZES = (512, 65536, 0x400000, 2 * 0x400000 + 512)


class Interop(suite.Scenario):
    recorded = False  # two builds in one test

    def setUp(self):
        super().setUp()
        for bench in (NATIVE_BENCH, WINDOWS_BENCH):
            if not os.path.exists(bench):
                self.skipTest(f"{bench} is not built")
        if shutil.which(WINE) is None:
            self.skipTest("there is no Wine here")
        self.native = Settings({**os.environ, "VORNIX_BENCH": NATIVE_BENCH, "VORNIX_RUNNER": ""})
        self.windows = Settings({**os.environ, "VORNIX_BENCH": WINDOWS_BENCH, "VORNIX_RUNNER": WINE})
        self.enterContext(suite.WineSession(self.windows))

    def pair(self, **options):
        return self.machine(settings=self.native, **options), self.machine(settings=self.windows, **options)

    def test_a_captured_image_is_the_same_file(self):
        for size in SIZES:
            contents = pattern(size, size)
            machines = self.pair(source=contents)
            for machine in machines:
                result = machine.run("capture", "--disk", "1", "--out", "a.vrnx")
                self.expect(result, 0, capture_text(1, size, "a.vrnx"))
                self.expect_good_image(machine, "a.vrnx", contents)
            self.expect_file(machines[1], "a.vrnx", machines[0].read("a.vrnx"))

    def test_a_disk_of_4096_byte_sectors_gives_the_same_file(self):
        size = 20 * 4096
        machines = self.pair(source=pattern(size, "large"), sector_size=4096)
        for machine in machines:
            self.expect(machine.run("capture", "--disk", "1", "--out", "a.vrnx"), 0,
                        capture_text(1, size, "a.vrnx", sector_size=4096))
        self.expect_file(machines[1], "a.vrnx", machines[0].read("a.vrnx"))

    def test_each_build_verifies_and_restores_the_others_image(self):
        size = 0x400000 + 4096
        contents = pattern(size, "exchange")
        machines = self.pair(source=contents)
        for machine in machines:
            self.assertEqual(machine.run("capture", "--disk", "1", "--out", "a.vrnx").status, 0)
        for machine, other in (machines, reversed(machines)):
            machine.write("other.vrnx", other.read("a.vrnx"))
            self.expect(machine.run("verify", "--in", "other.vrnx"), 0, verify_text("other.vrnx", size, 0x400000))
            self.expect(machine.run("restore", "--in", "other.vrnx", "--disk", "2", "--confirm", "YES"), 0,
                        restore_text("other.vrnx", 2, size, 0x400000))
            self.expect_disk(machine, 2, contents)

    def test_the_calls_of_a_run_are_the_same(self):
        logs = []
        for machine in self.pair(source=pattern(65536, "calls")):
            build_image(machine.path("b.vrnx"), pattern(65536, "calls"))
            log = []
            for arguments in (["list-disks"], ["capture", "--disk", "1", "--out", "a.vrnx"],
                              ["verify", "--in", "b.vrnx"],
                              ["restore", "--in", "b.vrnx", "--disk", "2", "--confirm", "YES"]):
                log += machine.run(*arguments).log
            logs.append(log)
        self.assertEqual(logs[0], logs[1])


if __name__ == "__main__":
    suite.main()
