"""The described machine itself: what is malformed ends it in one line, what a description says of disks, what faults do
to a transfer, a disk and the process, and the log.

What a single call answers and which of several faults hits it is the matter of the unit tests; here stands what shows
through a run of the program and nowhere else.
"""

import json
import os

import suite
from console import capture_text, fatal
from image import build_image
from machine import pattern

SMALL = 8192
SYSTEM_MARK = "   <- currently booted system disk"


class Description(suite.Scenario):
    def expect_malformed(self, description, machine=None):
        """One line that names the matter, status 2, and no run of the program."""
        machine = machine or self.machine(default=False)
        result = machine.run("capture", "--disk", "1", "--out", "x", description=description)
        self.assertEqual((result.status, result.stdout), (2, b""), f"{description!r}\n{result.describe()}")
        text = result.stderr.decode("utf-8", "backslashreplace")
        self.assertTrue(text.startswith("vornix-bench: ") and text.endswith("\n") and text.count("\n") == 1,
                        f"{description!r}\n{result.describe()}")
        self.assertEqual(machine.files(), [])
        return text

    def test_a_missing_description_or_folder_is_malformed(self):
        machine = self.machine()
        for folder in ("../machine", "../nowhere"):
            done = machine._start([*self.settings.runner, self.settings.bench, folder, "list-disks"], 60)
            self.assertEqual((done.returncode, done.stdout), (2, b""))
            self.assertTrue(done.stderr.startswith(b"vornix-bench: ") and done.stderr.count(b"\n") == 1, done.stderr)

    def test_what_is_malformed_is_named_in_one_line_and_nothing_runs(self):
        for text in (b"", b"{", b'{"disks": []} trailing', b'{"disks": [],}', b"\xff\xfe", b'{"calls": "a\nb"}', b"[]",
                     b"null"):
            self.expect_malformed(text)
        for change, name in (({"serial": "1234"}, "serial"), ({"length": -1}, "length"),
                             ({"file": "missing.img"}, "missing.img"), ({"number": None}, "number")):
            machine = self.machine(source=pattern(SMALL, "source"))
            machine.disk(1).update(change)
            self.assertIn(name, self.expect_malformed(machine.description, machine))
        for content in (None, b"[]", b'{"disks": [{"number": 1, "speed": 2}]}'):
            machine = self.machine(source=bytes(512))
            machine.description["tracker"] = "tracker.json"
            if content is not None:
                machine.write_home("tracker.json", content)
            self.expect_malformed(machine.description, machine)

    def test_an_empty_object_is_a_machine_with_nothing(self):
        machine = self.machine(default=False)
        self.expect(machine.run("list-disks", description={}), 0, "")

    def test_numbers_may_be_hexadecimal_strings(self):
        machine = self.machine(source=pattern(SMALL, "source"))
        machine.disk(1).update(number="0x1", sector_size="0x200", length="0x1000")
        machine.description["ticks"] = {"start": "0xFFFF", "step": "0x3e8"}
        machine.description["system_volume"]["extents"][0].update(disk="0x0", start="0x10000", length="0x80000")
        self.expect(machine.run("capture", "--disk", "1", "--out", "x"), 0, capture_text(1, 4096, "x"))

    def test_the_program_itself_is_named_vornix_and_gets_its_arguments(self):
        result = self.machine().run()
        self.assertEqual(result.status, 1)
        self.assertTrue(result.stdout.startswith(b"Vornix - whole-physical-disk raw sector-level imaging.\n"))


class DiskObjects(suite.Scenario):
    def test_an_unlisted_number_fails_with_2_and_an_open_error_with_its_own(self):
        machine = self.machine()
        machine.disk(2)["open_error"] = "0x15"
        message = "could not open source disk for raw read (run as Administrator?)"
        self.expect(machine.run("capture", "--disk", "3", "--out", "x"), 1, "", fatal(message, 2))
        self.expect(machine.run("capture", "--disk", "2", "--out", "x"), 1, "", fatal(message, 21))

    def test_the_length_is_that_of_the_file_unless_given(self):
        machine = self.machine(default=False)
        machine.add_disk(0, 3 << 30)
        machine.add_disk(1, 512, length=5 << 30)
        machine.system_volume([])
        self.expect(machine.run("list-disks"), 0,
                    f"PhysicalDrive0       3.00 GiB  sector 512 bytes{SYSTEM_MARK}\n"
                    "PhysicalDrive1       5.00 GiB  sector 512 bytes\n")

    def test_a_write_is_held_to_the_sectors_of_its_disk_too(self):
        machine = self.machine(source=bytes(512), target=bytes(SMALL))
        machine.disk(2)["sector_size"] = 2048
        build_image(machine.path("a.vrnx"), pattern(SMALL, "image"), chunk_size=512)
        result = machine.run("restore", "--in", "a.vrnx", "--disk", "2", "--confirm", "YES")
        self.assertEqual((result.status, result.calls("WriteFile")[0]["error"]), (1, 87))
        self.expect_disk(machine, 2, bytes(SMALL))

    def test_two_disks_may_lie_in_one_file_of_any_name(self):
        machine = self.machine(default=False)
        machine.add_disk(0, bytes(512))
        machine.add_disk(4, pattern(SMALL, "four"))
        os.makedirs(os.path.join(machine.home, "deep"))
        os.rename(machine.disk_path(4), os.path.join(machine.home, "deep", "four.bin"))
        machine.disk(4)["file"] = "deep/four.bin"
        machine.system_volume([(0, 0, 512)])
        self.expect(machine.run("capture", "--disk", "4", "--out", "x"), 0, capture_text(4, SMALL, "x"))
        self.expect_good_image(machine, "x", machine.disk_bytes(4))


class Faults(suite.Scenario):
    def prepared(self):
        machine = self.machine(default=False)
        build_image(machine.path("a.vrnx"), pattern(5 * 4096, "image"))
        return machine

    def verify(self, machine):
        return machine.run("verify", "--in", "a.vrnx")

    def reads(self, result):
        return [(line["ok"], line.get("error"), line["transferred"]) for line in result.calls("ReadFile")]

    def test_path_narrows_to_the_handle(self):
        machine = self.machine(source=pattern(SMALL, "source"))
        machine.add_fault("CloseHandle", path="PhysicalDrive1", error=6)
        result = self.expect(machine.run("capture", "--disk", "1", "--out", "x"), 0, capture_text(1, SMALL, "x"))
        self.assertEqual([(line["path"], line["ok"]) for line in result.calls("CloseHandle")],
                         [(r"\\.\C:", True), ("x.partial", True), (r"\\.\PhysicalDrive1", False)])

    def test_transferred_succeeds_and_with_an_error_fails(self):
        machine = self.prepared()
        machine.add_fault("ReadFile", skip=2, transferred=10)
        self.assertEqual(self.reads(self.verify(machine))[2:], [(True, None, 10)])
        machine.clear_faults()
        machine.add_fault("ReadFile", skip=2, transferred=10, error=38)
        self.assertEqual(self.reads(self.verify(machine))[2:], [(False, 38, 10)])

    def test_a_short_write_writes_its_bytes(self):
        machine = self.machine(source=pattern(SMALL, "source"))
        machine.add_fault("WriteFile", transferred=3000, error=112)
        result = machine.run("capture", "--disk", "1", "--out", "x")
        write = result.calls("WriteFile")[0]
        self.assertEqual((write["ok"], write["error"], write["length"], write["transferred"]),
                         (False, 112, SMALL, 3000))
        self.expect_file(machine, "x.partial", bytes(136) + machine.disk_bytes(1)[:3000])

    def test_poke_writes_to_a_disk_before_the_call(self):
        machine = self.machine(source=bytes(SMALL))
        machine.add_fault("ReadFile", path="PhysicalDrive1", poke={"disk": 1, "offset": "0x10", "hex": "DEADbeef"})
        self.expect(machine.run("capture", "--disk", "1", "--out", "x"), 0, capture_text(1, SMALL, "x"))
        expected = bytes(16) + b"\xde\xad\xbe\xef" + bytes(SMALL - 20)
        self.expect_disk(machine, 1, expected)
        self.expect_good_image(machine, "x", expected)

    def test_kill_ends_the_process_with_137_and_no_exit_line(self):
        machine = self.machine(source=pattern(SMALL, "source"))
        machine.add_fault("WriteFile", skip=1, kill=True)
        result = machine.run("capture", "--disk", "1", "--out", "x")
        self.assertEqual((result.status, result.stderr), (137, b""))
        self.assertEqual([line["call"] for line in result.log if line["call"] in ("WriteFile", "exit")], ["WriteFile"])
        self.assertEqual(machine.read("x.partial")[:136], bytes(136))
        self.assertEqual(machine.files(), ["x.partial"])

    def test_kill_with_transferred_ends_behind_that_many_bytes(self):
        machine = self.machine(source=bytes(512), target=bytes(3 * 4096))
        build_image(machine.path("a.vrnx"), pattern(3 * 4096, "image"))
        machine.add_fault("WriteFile", path="PhysicalDrive2", skip=1, kill=True, transferred=512)
        result = machine.run("restore", "--in", "a.vrnx", "--disk", "2", "--confirm", "YES")
        self.assertEqual(result.status, 137)
        self.assertEqual([line["offset"] for line in result.calls("WriteFile")], [0])
        self.expect_disk(machine, 2, pattern(3 * 4096, "image")[:4608] + bytes(3 * 4096 - 4608))

    def test_an_unknown_call_never_comes_and_is_malformed(self):
        machine = self.prepared()
        machine.add_fault("CreateFileA", error=5)
        result = self.verify(machine)
        self.assertEqual((result.status, result.stdout), (2, b""))
        self.assertIn("CreateFileA", result.stderr.decode())


class Ticks(suite.Scenario):
    def test_the_clock_gives_its_start_and_then_grows(self):
        machine = self.machine(source=pattern(SMALL, "source"))
        machine.ticks(77, 5)
        result = machine.run("capture", "--disk", "1", "--out", "x")
        self.assertEqual([line["value"] for line in result.calls("GetTickCount64")], [77, 82])
        self.expect(result, 0, capture_text(1, SMALL, "x", step=0.005))

    def test_without_ticks_the_clock_is_the_real_one(self):
        machine = self.machine(source=pattern(SMALL, "source"))
        del machine.description["ticks"]
        result = machine.run("capture", "--disk", "1", "--out", "x")
        values = [line["value"] for line in result.calls("GetTickCount64")]
        self.assertTrue(0 < values[0] <= values[1] < values[0] + 60000, values)
        self.recorded = False  # not the same twice


class Log(suite.Scenario):
    def test_every_line_is_numbered_and_the_last_is_the_exit(self):
        result = self.machine(source=pattern(SMALL, "source")).run("capture", "--disk", "1", "--out", "x")
        self.assertEqual([line["n"] for line in result.log], list(range(1, len(result.log) + 1)))
        self.assertEqual(result.log[-1], {"n": len(result.log), "call": "exit", "code": 0})

    def test_the_lines_have_their_fields(self):
        machine = self.machine(source=pattern(SMALL, "source"))
        result = machine.run("capture", "--disk", "1", "--out", "x")
        first = {line["call"]: line for line in reversed(result.log)}
        fields = {name: set(line) - {"n", "call"} for name, line in first.items()}
        self.assertEqual(fields["CreateFileW"], {"ok", "path", "access", "share", "disposition", "flags", "handle"})
        self.assertEqual(fields["ReadFile"], {"ok", "handle", "path", "offset", "length", "transferred"})
        self.assertEqual(fields["WriteFile"], {"ok", "handle", "path", "offset", "length", "transferred"})
        self.assertEqual(fields["SetFilePointerEx"], {"ok", "handle", "path", "offset"})
        self.assertEqual(fields["DeviceIoControl"], {"ok", "handle", "path", "code", "in", "out", "returned"})
        self.assertEqual(fields["CloseHandle"], {"ok", "handle", "path"})
        self.assertEqual(fields["GetFileAttributesA"], {"ok", "error", "path"})
        self.assertEqual(fields["MoveFileExW"], {"ok", "from", "to", "flags"})
        self.assertEqual(fields["_aligned_malloc"], {"size", "alignment"})
        self.assertEqual(fields["GetTickCount64"], {"value"})
        self.assertEqual(fields["BCryptOpenAlgorithmProvider"], {"status", "algorithm", "flags"})
        self.assertEqual(fields["BCryptGetProperty"], {"status", "property", "length"})
        for name in ("BCryptCreateHash", "BCryptFinishHash", "BCryptDestroyHash", "BCryptCloseAlgorithmProvider"):
            self.assertEqual(fields[name], {"status"}, name)
        self.assertEqual(fields["BCryptHashData"], {"status", "length"})
        self.assertEqual(fields["exit"], {"code"})
        self.assertEqual({line["status"] for line in result.log if "status" in line}, {"0x00000000"})

    def test_a_failed_open_has_an_error_and_no_handle(self):
        result = self.machine().run("verify", "--in", "missing.vrnx")
        line = result.calls("CreateFileW")[0]
        self.assertEqual((line["ok"], line["error"], "handle" in line), (False, 2, False))

    def test_handles_are_small_numbers_and_never_used_again(self):
        machine = self.machine(default=False)
        for number in range(4):
            machine.add_disk(number, bytes(512))
        machine.system_volume([(0, 0, 512)])
        handles = [line["handle"] for line in machine.run("list-disks").calls("CreateFileW", ok=True)]
        self.assertEqual(len(handles), 8)
        self.assertEqual(len(set(handles)), 8)
        self.assertTrue(all(0 <= handle < 1000 for handle in handles), handles)

    def test_the_log_is_emptied_at_the_start_of_a_run(self):
        machine = self.machine(source=pattern(SMALL, "source"))
        machine.run("capture", "--disk", "1", "--out", "x")
        self.assertEqual(machine.run().sequence(), ["exit"])

    def test_without_calls_no_log_is_kept(self):
        machine = self.machine(source=pattern(SMALL, "source"))
        del machine.description["calls"]
        self.expect(machine.run("capture", "--disk", "1", "--out", "x"), 0, capture_text(1, SMALL, "x"))
        self.assertEqual(sorted(os.listdir(machine.home)), ["disk0.img", "disk1.img", "disk2.img", "machine.json"])

    def test_no_chunk_bytes_stand_in_the_log(self):
        machine = self.machine(source=b"CONFIDENTIAL" * 128)
        machine.run("capture", "--disk", "1", "--out", "x")
        with open(os.path.join(machine.home, "calls.jsonl"), "rb") as file:
            text = file.read()
        self.assertNotIn(b"CONFIDENTIAL", text)
        self.assertNotIn(b"CONFIDENTIAL".hex().encode(), text.lower())
        for line in text.splitlines():
            json.loads(line)


if __name__ == "__main__":
    suite.main()
