"""Images of the Windows build and of the native build: each reads, folds and goes on with the other's, be it sealed or
plain.

That both make the same calls and the same files where nothing is random is told by compare_recordings.py, of every
scenario. Needs both builds and Wine. The native one is in build/linux, the other in build/windows, or where
VORNIX_BENCH_LINUX and VORNIX_BENCH_WINDOWS say; where one is missing each test is skipped.
"""

import os
import shutil

import suite
from console import capture_text, restore_text
from consolidate_runs import consolidate_text, plain_full_image
from image import read_header
from incremental import REASON_NO_TRACKER, compared_line, incremental_text, thin_complete, thin_verify_text
from machine import CHECKOUT, Settings, pattern

NATIVE_BENCH = os.environ.get("VORNIX_BENCH_LINUX") or os.path.join(CHECKOUT, "build", "linux", "vornix-bench")
WINDOWS_BENCH = os.environ.get("VORNIX_BENCH_WINDOWS") or os.path.join(CHECKOUT, "build", "windows", "vornix-bench.exe")
WINE = os.environ.get("VORNIX_WINE") or "wine"

MIB4 = 0x400000
SIZE = MIB4 + 4096
# Bytes that no character set has in this order, a zero and a line break among them, and a line end that is trimmed.
PASSWORD = b"\xff\x00pass \r\n word\xc3"
KEY = ("--password-file", "password")


class Interop(suite.Scenario):
    recorded = False  # two builds in one test

    def setUp(self):
        super().setUp()
        for bench in (NATIVE_BENCH, WINDOWS_BENCH):
            if not os.path.exists(bench):
                self.skipTest(f"{bench} is not built")
        if shutil.which(WINE) is None:
            self.skipTest("there is no Wine here")
        windows = Settings({**os.environ, "VORNIX_BENCH": WINDOWS_BENCH, "VORNIX_RUNNER": WINE})
        self.enterContext(suite.WineSession(windows))
        self.pair = [self.machine(settings=settings, source=pattern(SIZE, "exchange")) for settings in (
            Settings({**os.environ, "VORNIX_BENCH": NATIVE_BENCH, "VORNIX_RUNNER": ""}), windows)]
        for machine in self.pair:
            machine.write("password", PASSWORD + b"\r\n\n")

    def change_disks(self, number):
        for machine in self.pair:
            machine.poke_disk(1, MIB4 + number, b"changed")

    def capture(self, machine, name, sealed, base=None):
        """A capture of the disk, over a base in which the first chunk is the same."""
        text = capture_text(1, SIZE, name) if base is None else incremental_text(
            SIZE, base, compared_line(REASON_NO_TRACKER), thin_complete(name, 2, 1, 2))
        self.expect(machine.run("capture", "--disk", "1", "--out", name, *KEY, *(["--encrypt"] if sealed else []),
                                *(["--base", base, "--thin"] if base else [])), 0, text)
        self.assertEqual(read_header(machine.path(name)).encrypted, int(sealed))
        self.expect_good_image(machine, name, machine.disk_bytes(1), PASSWORD)

    def test_each_build_verifies_restores_and_folds_the_others_chain(self):
        for number, (base_sealed, top_sealed) in enumerate(((False, False), (True, True), (True, False),
                                                            (False, True))):
            base, top, folded = f"base{number}.vrnx", f"top{number}.vrnx", f"folded{number}.vrnx"
            for machine in self.pair:
                self.capture(machine, base, base_sealed)
            self.change_disks(number)
            for machine in self.pair:
                self.capture(machine, top, top_sealed, base)
            contents = self.pair[0].disk_bytes(1)
            for machine, other in (self.pair, reversed(self.pair)):
                os.makedirs(machine.path("other"), exist_ok=True)
                for name in (base, top):
                    machine.write("other/" + name, other.read(name))
                path = "other/" + top
                with self.subTest(base_sealed=base_sealed, top_sealed=top_sealed, windows=machine.settings.windows):
                    self.expect(machine.run("verify", "--in", path, *KEY), 0, thin_verify_text(path, base, SIZE, MIB4))
                    self.expect(machine.run("restore", "--in", path, "--disk", "2", "--confirm", "YES", *KEY), 0,
                                restore_text(path, 2, SIZE, MIB4))
                    self.expect_disk(machine, 2, contents)
                    self.expect(machine.run("consolidate", "--in", path, "--out", folded, *KEY), 0,
                                consolidate_text(folded, SIZE, MIB4))
                    self.expect_file(machine, folded, plain_full_image(contents, MIB4))

    def test_each_build_goes_on_with_the_others_chain(self):
        native, windows = self.pair
        self.capture(native, "g0.vrnx", True)
        for generation, (machine, before) in enumerate(((windows, native), (native, windows), (windows, native)), 1):
            for old in range(generation):
                machine.write(f"g{old}.vrnx", before.read(f"g{old}.vrnx"))
            self.change_disks(generation)
            self.capture(machine, f"g{generation}.vrnx", generation % 2 == 0, f"g{generation - 1}.vrnx")


if __name__ == "__main__":
    suite.main()
