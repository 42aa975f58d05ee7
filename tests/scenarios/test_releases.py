"""What a run that succeeds has opened or made it gives back, once and in the order that the program promises: devices,
files, searches, keys, digests and providers. Nothing of it shows in what a run prints or leaves, so the log is asked.
The base of a thin image that is read stays open to the end of the process, as long as the image may need it.
"""

import suite
from image import build_image
from incremental import marked
from machine import pattern
from snapshot import volume_name

CHUNK = 0x400000
DISK = pattern(CHUNK + 8192, "disk")
BEFORE = DISK[:CHUNK] + pattern(8192, "before")
PASSWORD = b"correct horse"
KEY = ("--password-file", "password")
EPOCH = 0x21
PAIRS = {"BCryptOpenAlgorithmProvider": "BCryptCloseAlgorithmProvider", "BCryptCreateHash": "BCryptDestroyHash",
         "BCryptGenerateSymmetricKey": "BCryptDestroyKey", "FindFirstVolumeW": "FindVolumeClose"}


class Releases(suite.Scenario):
    def computer(self, password=None):
        """A disk with a volume and a tracker, base.vrnx of what it held before, and thin.vrnx over that of what it
        holds."""
        machine = self.machine(default=False)
        machine.add_disk(0, bytes(65536))
        machine.add_disk(1, DISK)
        machine.add_disk(2, bytes(len(DISK)))
        machine.system_volume([(0, 4096, 8192)])
        machine.tracker([{"number": 1, "has_previous_epoch": 1, "previous_epoch": EPOCH, "current_epoch": EPOCH + 1,
                          "bitmap": marked(len(DISK), 16, (CHUNK, 8192))}])
        machine.add_volume(volume_name(1), [(1, CHUNK, 8192)])
        machine.add_volume(volume_name(2), [(0, 0, 512)])
        machine.shadow_service()
        machine.write("password", PASSWORD)
        base = machine.path("base.vrnx")
        build_image(base, BEFORE, chunk_size=CHUNK, epoch=EPOCH, password=password)
        build_image(machine.path("thin.vrnx"), DISK, chunk_size=CHUNK, password=password, base=base, seed="thin")
        return machine

    def expect_all_given_back(self, machine, *arguments, but=()):
        """The run succeeds and has nothing left save the files of these names; gives its result."""
        result = machine.run(*arguments)
        self.assertEqual((result.status, result.stderr), (0, b""), result.describe())
        made = 0
        for begin, end in PAIRS.items():
            made += len(result.calls(begin))
            self.assertEqual(len(result.calls(end)), len(result.calls(begin)), f"{begin}\n{result.describe()}")
        opened = [(call["handle"], call["path"]) for call in result.calls("CreateFileW", ok=True)]
        closed = [(call["handle"], call["path"]) for call in result.calls("CloseHandle", ok=True)]
        self.assertEqual(sorted(closed), sorted(one for one in opened if one[1] not in but), result.describe())
        self.assertGreater(made + len(opened), 0)
        return result

    CAPTURE = ("capture", "--disk", "1", "--out", "new.vrnx")
    OVER = (*CAPTURE, "--base", "base.vrnx")
    RUNS = (
        # (case, the password of the images, whether the tracker proves nothing, the command, what stays open)
        ("full capture", None, False, CAPTURE, ()),
        ("sealed capture with snapshots", None, False, (*CAPTURE, "--vss", "--encrypt", *KEY), ()),
        ("capture that copies from its base", None, False, OVER, ()),
        ("capture that proves nothing by its base", None, True, OVER, ()),
        ("thin capture that compares", None, True, (*OVER, "--thin"), ()),
        ("verify of a sealed chain", PASSWORD, False, ("verify", "--in", "thin.vrnx", *KEY), ("base.vrnx",)),
        ("restore of a chain", None, False, ("restore", "--in", "thin.vrnx", "--disk", "2", "--confirm", "YES"),
         ("base.vrnx",)),
        ("consolidation sealed anew", PASSWORD, False,
         ("consolidate", "--in", "thin.vrnx", "--out", "new.vrnx", "--encrypt", *KEY), ("base.vrnx",)),
        ("clone", None, False, ("clone", "--from", "1", "--to", "2", "--confirm", "YES", "--verify"), ()),
        ("list", None, False, ("list-disks",), ()))

    def test_every_command_gives_back_what_it_opened_or_made(self):
        for case, password, is_unproved, arguments, but in self.RUNS:
            machine = self.computer(password)
            if is_unproved:
                machine.tracker([{**machine.tracker_disk(1), "has_previous_epoch": 0}])
            with self.subTest(case):
                self.expect_all_given_back(machine, *arguments, but=but)

    def test_a_session_that_came_to_nothing_ends_before_the_disk_is_read(self):
        machine = self.computer()
        machine.add_fault("IVssBackupComponents::StartSnapshotSet", status="0x80004005")
        result = self.expect_all_given_back(machine, *self.CAPTURE, "--vss")
        calls = result.sequence("IVssBackupComponents::Release", "CoUninitialize", "ReadFile")
        self.assertEqual(calls[:3], ["IVssBackupComponents::Release", "CoUninitialize", "ReadFile"], result.describe())

    def test_keys_of_a_sealed_capture_end_before_the_device_of_the_tracker_is_closed(self):
        result = self.expect_all_given_back(self.computer(PASSWORD), *self.OVER, "--thin", "--encrypt", *KEY)
        ends = [call["call"] for call in result.log
                if call["call"] == "BCryptDestroyKey" or call["call"] == "CloseHandle" and "Wendrel" in call["path"]]
        self.assertEqual(ends, ["BCryptDestroyKey", "BCryptDestroyKey", "CloseHandle"], result.describe())


if __name__ == "__main__":
    suite.main()
