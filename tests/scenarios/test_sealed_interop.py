"""Sealed images of the Windows build and of the native build: each build opens what the other has sealed.

Needs both builds and Wine. The native one is in build/linux, the other in build/windows, or where VORNIX_BENCH_LINUX
and VORNIX_BENCH_WINDOWS say; where one is missing each test is skipped.
"""

import os
import shutil

import suite
from console import capture_text, meter_run, restore_text, verify_failed, verify_text, verifying_line
from consolidate_runs import plain_full_image
from image import build_image, read_table
from incremental import REASON_NO_TRACKER, compared_line, incremental_text, thin_complete, thin_verify_text
from machine import CHECKOUT, Settings, pattern
from sealing import consolidate_text, verify_unauthentic

NATIVE_BENCH = os.environ.get("VORNIX_BENCH_LINUX") or os.path.join(CHECKOUT, "build", "linux", "vornix-bench")
WINDOWS_BENCH = os.environ.get("VORNIX_BENCH_WINDOWS") or os.path.join(CHECKOUT, "build", "windows", "vornix-bench.exe")
WINE = os.environ.get("VORNIX_WINE") or "wine"

MIB4 = 0x400000
# Bytes that no character set has in this order, a zero and a line break among them, and a line end that is trimmed.
PASSWORD = b"\xff\x00pass \r\n word\xc3"
PASSWORD_FILE = PASSWORD + b"\r\n\n"


class SealedInterop(suite.Scenario):
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

    def pair(self, **options):
        machines = self.machine(settings=self.native, **options), self.machine(settings=self.windows, **options)
        for machine in machines:
            machine.write("password", PASSWORD_FILE)
        return machines

    def captured(self, size):
        """Both machines with a sealed a.vrnx of their own from the same disk, and the other's as other.vrnx."""
        contents = pattern(size, "exchange")
        machines = self.pair(source=contents)
        for machine in machines:
            result = machine.run("capture", "--disk", "1", "--out", "a.vrnx", "--encrypt", "--password-file",
                                 "password")
            self.expect(result, 0, capture_text(1, size, "a.vrnx"))
            self.expect_good_image(machine, "a.vrnx", contents, PASSWORD)
        for machine, other in (machines, reversed(machines)):
            machine.write("other.vrnx", other.read("a.vrnx"))
        return machines, contents

    def test_each_build_verifies_and_restores_what_the_other_sealed(self):
        size = MIB4 + 4096
        machines, contents = self.captured(size)
        for machine in machines:
            self.expect(machine.run("verify", "--in", "other.vrnx", "--password-file", "password"), 0,
                        verify_text("other.vrnx", size, MIB4))
            self.expect(machine.run("restore", "--in", "other.vrnx", "--disk", "2", "--confirm", "YES",
                                    "--password-file",
                                    "password"), 0, restore_text("other.vrnx", 2, size, MIB4))
            self.expect_disk(machine, 2, contents)

    def test_the_hashes_of_both_are_the_same_and_nothing_else_that_is_random(self):
        (native, windows), _ = self.captured(8192)
        (header1, table1), (header2, table2) = read_table(native.path("a.vrnx")), read_table(windows.path("a.vrnx"))
        self.assertEqual(table1[0].hash, table2[0].hash)
        self.assertNotEqual(header1.salt, header2.salt)
        self.assertNotEqual(table1[0].nonce, table2[0].nonce)
        header1.salt = header2.salt
        self.assertEqual(header1, header2)

    def test_each_build_finds_the_others_damage_and_refuses_a_wrong_password(self):
        size = 8192
        machines, _ = self.captured(size)
        expected = verifying_line("other.vrnx", 1, size) + verify_unauthentic(0) + "\n"
        for machine in machines:
            machine.write("wrong", PASSWORD_FILE + b".")
            self.expect(machine.run("verify", "--in", "other.vrnx", "--password-file", "wrong"), 1, expected,
                        verify_failed(1, 1))
            machine.flip("other.vrnx", 64 + 72 + size - 1)
            self.expect(machine.run("verify", "--in", "other.vrnx", "--password-file", "password"), 1, expected,
                        verify_failed(1, 1))

    def test_each_build_folds_a_sealed_chain_of_the_other(self):
        size = 5 * 4096
        for index, machine in enumerate(self.pair(default=False)):
            build_image(machine.path("base.vrnx"), pattern(size, "old"), password=PASSWORD, seed=f"base {index}")
            plain = pattern(size, "old")[:4096] + pattern(size - 4096, "new")
            build_image(machine.path("a.vrnx"), plain, password=PASSWORD, base=machine.path("base.vrnx"),
                        seed=f"top {index}")
            result = machine.run("consolidate", "--in", "a.vrnx", "--out", "b.vrnx", "--password-file", "password",
                                 "--encrypt")
            self.expect(result, 0, consolidate_text("b.vrnx", size, 4096, verify_text("b.vrnx", size, 4096)))
        native, windows = self.machines
        for machine, other in ((native, windows), (windows, native)):
            machine.write("other.vrnx", other.read("b.vrnx"))
            result = machine.run("consolidate", "--in", "other.vrnx", "--out", "c.vrnx", "--password-file", "password")
            self.expect(result, 0, consolidate_text("c.vrnx", size, 4096, verify_text("c.vrnx", size, 4096)))
        self.expect_file(windows, "c.vrnx", native.read("c.vrnx"))

    def test_a_thin_capture_builds_on_a_sealed_base_of_the_other(self):
        size = MIB4 + 512
        machines, contents = self.captured(size)
        for machine in machines:
            machine.poke_disk(1, MIB4 + 3, b"changed")
            result = machine.run("capture", "--disk", "1", "--out", "thin.vrnx", "--encrypt", "--password-file",
                                 "password", "--base", "other.vrnx", "--thin")
            self.assertEqual((result.status, result.stderr), (0, b""), result.describe())
            self.assertTrue(result.stdout.endswith(
                (meter_run(size, MIB4) + "\nCapture complete (thin): thin.vrnx  (stored 1 of 2 chunks, "
                 "1 are references to the base; read from disk: 2)\n").encode()))
            self.expect_good_image(machine, "thin.vrnx", machine.disk_bytes(1), PASSWORD)

    # Which images of a chain of two are sealed: (base, top).
    MIXTURES = ((True, True), (True, False), (False, True))

    def test_each_build_verifies_restores_and_folds_the_others_chain_of_sealed_and_plain_images(self):
        size = MIB4 + 4096
        sealing = {True: ("--encrypt", "--password-file", "password"), False: ("--password-file", "password")}
        machines = self.pair(source=pattern(size, "exchange"))
        for number, (base_sealed, top_sealed) in enumerate(self.MIXTURES):
            base, top = f"base{number}.vrnx", f"top{number}.vrnx"
            for machine in machines:
                self.expect(machine.run("capture", "--disk", "1", "--out", base, *sealing[base_sealed]), 0,
                            capture_text(1, size, base))
                machine.poke_disk(1, MIB4 + number, b"changed")
                self.expect(machine.run("capture", "--disk", "1", "--out", top, "--base", base, "--thin",
                                        *sealing[top_sealed]), 0,
                            incremental_text(size, base, compared_line(REASON_NO_TRACKER), thin_complete(top, 2, 1, 2)))
                header, _ = read_table(machine.path(top))
                self.assertEqual(header.encrypted, int(top_sealed))
            self.expect_chain_of_the_other(machines, base, top, size)

    def expect_chain_of_the_other(self, machines, base, top, size):
        """Each machine verifies the other's chain, restores it, and folds it."""
        password = ("--password-file", "password")
        contents = machines[0].disk_bytes(1)
        for machine, other in (machines, reversed(machines)):
            os.makedirs(machine.path("other"), exist_ok=True)
            for name in (base, top):
                machine.write("other/" + name, other.read(name))
            path = "other/" + top
            self.expect(machine.run("verify", "--in", path, *password), 0, thin_verify_text(path, base, size, MIB4))
            self.expect(machine.run("restore", "--in", path, "--disk", "2", "--confirm", "YES", *password), 0,
                        restore_text(path, 2, size, MIB4))
            self.expect_disk(machine, 2, contents)
            self.expect(machine.run("consolidate", "--in", path, "--out", "plain-" + top, *password), 0,
                        consolidate_text("plain-" + top, size, MIB4, verify_text("plain-" + top, size, MIB4)))
            self.expect_file(machine, "plain-" + top, plain_full_image(contents, MIB4))

    def test_the_calls_of_a_sealed_run_are_the_same(self):
        logs = []
        for machine in self.pair(source=pattern(8192, "calls")):
            build_image(machine.path("b.vrnx"), pattern(8192, "calls"), password=PASSWORD)
            log = []
            for arguments in (["capture", "--disk", "1", "--out", "a.vrnx", "--encrypt"], ["verify", "--in", "b.vrnx"],
                              ["restore", "--in", "b.vrnx", "--disk", "2", "--confirm", "YES"]):
                log += machine.run(*arguments, "--password-file", "password").log
            for line in log:
                if line["call"] == "BCryptDeriveKeyPBKDF2" and line["iterations"] == 200000:
                    del line["salt"]
                elif line["call"] == "BCryptEncrypt":
                    del line["nonce"]
            logs.append(log)
        self.assertEqual(logs[0], logs[1])


if __name__ == "__main__":
    suite.main()
