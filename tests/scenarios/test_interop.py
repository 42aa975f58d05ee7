"""Images of the Windows build and of the native build: the same bytes from the same disk, and each reads the other's.

Needs both builds and Wine. The native one is in build/linux, the other in build/windows, or where VORNIX_BENCH_LINUX
and VORNIX_BENCH_WINDOWS say; where one is missing each test is skipped.
"""

import os
import shutil

import suite
from console import capture_text, restore_text, verify_text
from consolidate_runs import consolidate_text, plain_full_image
from image import build_image
from incremental import REASON_NO_TRACKER, compared_line, incremental_text, thin_complete, thin_verify_text
from machine import CHECKOUT, Settings, pattern

NATIVE_BENCH = os.environ.get("VORNIX_BENCH_LINUX") or os.path.join(CHECKOUT, "build", "linux", "vornix-bench")
WINDOWS_BENCH = os.environ.get("VORNIX_BENCH_WINDOWS") or os.path.join(CHECKOUT, "build", "windows", "vornix-bench.exe")
WINE = os.environ.get("VORNIX_WINE") or "wine"

MIB4 = 0x400000
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

    def test_each_build_verifies_restores_and_folds_the_others_thin_chain(self):
        size = 2 * MIB4 + 4096
        machines = self.pair(source=pattern(size, "exchange"))
        chains = []
        for machine in machines:
            self.expect(machine.run("capture", "--disk", "1", "--out", "full.vrnx"), 0,
                        capture_text(1, size, "full.vrnx"))
            for name, base, place in (("thin.vrnx", "full.vrnx", 5), ("top.vrnx", "thin.vrnx", MIB4 + 5)):
                machine.poke_disk(1, place, b"changed")
                result = machine.run("capture", "--disk", "1", "--out", name, "--base", base, "--thin")
                self.expect(result, 0, incremental_text(size, base, compared_line(REASON_NO_TRACKER),
                                                        thin_complete(name, 3, 2, 3)))
            chains.append({name: machine.read(name) for name in ("full.vrnx", "thin.vrnx", "top.vrnx")})
        self.assertTrue(chains[0] == chains[1], "both builds make the same files")
        contents = machines[0].disk_bytes(1)
        for machine, other in (machines, reversed(machines)):
            os.mkdir(machine.path("other"))
            for name in chains[0]:
                machine.write(os.path.join("other", name), other.read(name))
            self.expect(machine.run("verify", "--in", "other/top.vrnx"), 0,
                        thin_verify_text("other/top.vrnx", "thin.vrnx", size, MIB4))
            self.expect(machine.run("restore", "--in", "other/top.vrnx", "--disk", "2", "--confirm", "YES"), 0,
                        restore_text("other/top.vrnx", 2, size, MIB4))
            self.expect_disk(machine, 2, contents)
            self.expect(machine.run("consolidate", "--in", "other/top.vrnx", "--out", "one.vrnx"), 0,
                        consolidate_text("one.vrnx", size, MIB4))
            self.expect_file(machine, "one.vrnx", plain_full_image(contents, MIB4))

    def test_each_build_goes_on_with_the_others_chain(self):
        size = MIB4 + 4096
        native, windows = self.pair(source=pattern(size, "exchange"))
        windows.set_disk_bytes(1, native.disk_bytes(1))
        self.expect(native.run("capture", "--disk", "1", "--out", "g0.vrnx"), 0, capture_text(1, size, "g0.vrnx"))
        turns = ((windows, native), (native, windows), (windows, native))
        for generation, (machine, before) in enumerate(turns, 1):
            for old in range(generation):
                machine.write(f"g{old}.vrnx", before.read(f"g{old}.vrnx"))
            for one in (native, windows):
                one.poke_disk(1, MIB4 + generation, b"changed")
            base, name = f"g{generation - 1}.vrnx", f"g{generation}.vrnx"
            self.expect(machine.run("capture", "--disk", "1", "--out", name, "--base", base, "--thin"), 0,
                        incremental_text(size, base, compared_line(REASON_NO_TRACKER), thin_complete(name, 2, 1, 2)))
            self.expect_good_image(machine, name, machine.disk_bytes(1))

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
