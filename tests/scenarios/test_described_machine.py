"""The described machine itself: what is malformed ends it in one line, faults end the process where they are to, and
the log is whole.

What a single call answers, what a description may say, and which of several faults hits a call is the matter of the
unit tests, and what a transfer that fails leaves that of the sweeps; here stands what shows through a run of the
program and nowhere else.
"""

import json
import os

import suite
from console import USAGE, capture_text
from image import build_image
from machine import pattern

SMALL = 8192


class DescribedMachine(suite.Scenario):
    def small(self):
        return self.machine(source=pattern(SMALL, "source"))

    def capture(self, machine, description=None):
        return machine.run("capture", "--disk", "1", "--out", "x", description=description)

    def expect_malformed(self, description, machine=None):
        """One line that names the matter, status 2, and no run of the program."""
        machine = machine or self.machine(default=False)
        result = self.capture(machine, description)
        self.assertEqual((result.status, result.stdout), (2, b""), f"{description!r}\n{result.describe()}")
        text = result.stderr.decode("utf-8", "backslashreplace")
        self.assertTrue(text.startswith("vornix-bench: ") and text.endswith("\n") and text.count("\n") == 1,
                        f"{description!r}\n{result.describe()}")
        self.assertEqual(machine.files(), [])
        return text

    def test_a_missing_description_or_folder_is_malformed(self):
        machine = self.machine()
        for folder in ("../machine", "../nowhere"):
            done = self.settings.run(self.settings.bench, folder, "list-disks", cwd=machine.work)
            self.assertEqual((done.returncode, done.stdout), (2, b""))
            self.assertTrue(done.stderr.startswith(b"vornix-bench: ") and done.stderr.count(b"\n") == 1, done.stderr)

    def test_what_is_malformed_is_named_in_one_line_and_nothing_runs(self):
        for text in (b"", b'{"disks": []} trailing', b"\xff\xfe", b'{"calls": "a\nb"}', b"null",
                     {"faults": [{"call": "CreateFileA", "error": 5}]}):
            self.expect_malformed(text)
        for change, name in (({"serial": "1234"}, "serial"), ({"length": -1}, "length"),
                             ({"file": "missing.img"}, "missing.img"), ({"number": None}, "number")):
            machine = self.small()
            machine.disk(1).update(change)
            self.assertIn(name, self.expect_malformed(machine.description, machine))
        machine = self.small()
        machine.description["tracker"] = "tracker.json"
        self.expect_malformed(machine.description, machine)

    def test_numbers_may_be_hexadecimal_strings(self):
        machine = self.small()
        machine.disk(1).update(number="0x1", sector_size="0x200", length="0x1000")
        machine.description["ticks"] = {"start": "0xFFFF", "step": "0x3e8"}
        machine.description["system_volume"]["extents"][0].update(disk="0x0", start="0x10000", length="0x80000")
        self.expect(self.capture(machine), 0, capture_text(1, 4096, "x"))

    def test_kill_ends_the_process_with_137_and_no_exit_line(self):
        machine = self.small()
        machine.add_fault("WriteFile", skip=1, kill=True)
        result = self.capture(machine)
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

    def test_without_ticks_the_clock_is_the_real_one(self):
        machine = self.small()
        del machine.description["ticks"]
        values = [line["value"] for line in self.capture(machine).calls("GetTickCount64")]
        self.assertTrue(0 < values[0] <= values[1] < values[0] + 60000, values)
        self.recorded = False  # not the same twice

    def test_the_lines_of_the_log_are_numbered_and_have_their_fields_and_the_last_is_the_exit(self):
        result = self.capture(self.small())
        self.assertEqual([line["n"] for line in result.log], list(range(1, len(result.log) + 1)))
        self.assertEqual(result.log[-1], {"n": len(result.log), "call": "exit", "code": 0})
        first = {line["call"]: line for line in reversed(result.log)}
        moved = {"ok", "handle", "path", "offset", "length", "transferred"}
        for name, fields in (
                ("CreateFileW", {"ok", "path", "access", "share", "disposition", "flags", "handle"}),
                ("ReadFile", moved), ("WriteFile", moved), ("SetFilePointerEx", {"ok", "handle", "path", "offset"}),
                ("DeviceIoControl", {"ok", "handle", "path", "code", "in", "out", "returned"}),
                ("CloseHandle", {"ok", "handle", "path"}), ("GetFileAttributesA", {"ok", "error", "path"}),
                ("MoveFileExW", {"ok", "from", "to", "flags"}), ("_aligned_malloc", {"size", "alignment"}),
                ("GetTickCount64", {"value"}), ("BCryptOpenAlgorithmProvider", {"status", "algorithm", "flags"}),
                ("BCryptGetProperty", {"status", "property", "length"}), ("BCryptCreateHash", {"status"}),
                ("BCryptHashData", {"status", "length"}), ("BCryptFinishHash", {"status"}),
                ("BCryptDestroyHash", {"status"}), ("BCryptCloseAlgorithmProvider", {"status"})):
            self.assertEqual(set(first[name]) - {"n", "call"}, fields, name)
        self.assertEqual({line["status"] for line in result.log if "status" in line}, {"0x00000000"})

    def test_the_log_is_emptied_at_the_start_of_a_run(self):
        machine = self.small()
        self.capture(machine)
        self.assertEqual(self.expect(machine.run(), 1, USAGE).sequence(), ["exit"])

    def test_without_calls_no_log_is_kept(self):
        machine = self.small()
        del machine.description["calls"]
        self.expect(self.capture(machine), 0, capture_text(1, SMALL, "x"))
        self.assertEqual(sorted(os.listdir(machine.home)), ["disk0.img", "disk1.img", "disk2.img", "machine.json"])

    def test_no_chunk_bytes_stand_in_the_log(self):
        machine = self.machine(source=b"CONFIDENTIAL" * 128)
        self.capture(machine)
        with open(os.path.join(machine.home, "calls.jsonl"), "rb") as file:
            text = file.read()
        self.assertNotIn(b"CONFIDENTIAL", text)
        self.assertNotIn(b"CONFIDENTIAL".hex().encode(), text.lower())
        for line in text.splitlines():
            json.loads(line)


if __name__ == "__main__":
    suite.main()
