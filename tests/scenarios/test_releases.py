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
    def setUp(self):
        super().setUp()
        self.computer = self.machine(default=False)
        machine = self.computer
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

    def base(self, password=None):
        build_image(self.computer.path("base.vrnx"), BEFORE, chunk_size=CHUNK, epoch=EPOCH, password=password)

    def chain(self, password=None):
        self.base(password)
        build_image(self.computer.path("thin.vrnx"), DISK, chunk_size=CHUNK, password=password,
                    base=self.computer.path("base.vrnx"), seed="thin")

    def forget_previous_epoch(self):
        self.computer.tracker([{**self.computer.tracker_disk(1), "has_previous_epoch": 0}])

    def expect_all_given_back(self, *arguments, but=()):
        """The run succeeds and has nothing left save the files of these names; gives its result."""
        result = self.computer.run(*arguments)
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

    def test_full_capture(self):
        self.expect_all_given_back("capture", "--disk", "1", "--out", "new.vrnx")

    def test_full_capture_sealed_with_snapshots(self):
        self.expect_all_given_back("capture", "--disk", "1", "--out", "new.vrnx", "--vss", "--encrypt", *KEY)

    def test_session_that_came_to_nothing_ends_before_the_disk_is_read(self):
        self.computer.add_fault("IVssBackupComponents::StartSnapshotSet", status="0x80004005")
        result = self.expect_all_given_back("capture", "--disk", "1", "--out", "new.vrnx", "--vss")
        calls = result.sequence("IVssBackupComponents::Release", "CoUninitialize", "ReadFile")
        self.assertEqual(calls[:3], ["IVssBackupComponents::Release", "CoUninitialize", "ReadFile"], result.describe())

    def test_capture_that_copies_from_its_base(self):
        self.base()
        self.expect_all_given_back("capture", "--disk", "1", "--out", "new.vrnx", "--base", "base.vrnx")

    def test_capture_that_proves_nothing_by_its_base(self):
        self.base()
        self.forget_previous_epoch()
        self.expect_all_given_back("capture", "--disk", "1", "--out", "new.vrnx", "--base", "base.vrnx")

    def test_thin_capture_that_compares(self):
        self.base()
        self.forget_previous_epoch()
        self.expect_all_given_back("capture", "--disk", "1", "--out", "new.vrnx", "--base", "base.vrnx", "--thin")

    def test_keys_of_a_sealed_capture_end_before_the_device_of_the_tracker_is_closed(self):
        self.base(PASSWORD)
        result = self.expect_all_given_back("capture", "--disk", "1", "--out", "new.vrnx", "--base", "base.vrnx",
                                            "--thin", "--encrypt", *KEY)
        ends = [call["call"] for call in result.log
                if call["call"] == "BCryptDestroyKey" or call["call"] == "CloseHandle" and "Wendrel" in call["path"]]
        self.assertEqual(ends, ["BCryptDestroyKey", "BCryptDestroyKey", "CloseHandle"], result.describe())

    def test_verify_of_a_sealed_chain(self):
        self.chain(PASSWORD)
        self.expect_all_given_back("verify", "--in", "thin.vrnx", *KEY, but=["base.vrnx"])

    def test_restore_of_a_chain(self):
        self.chain()
        self.expect_all_given_back("restore", "--in", "thin.vrnx", "--disk", "2", "--confirm", "YES", but=["base.vrnx"])

    def test_consolidate_sealed_anew(self):
        self.chain(PASSWORD)
        self.expect_all_given_back("consolidate", "--in", "thin.vrnx", "--out", "new.vrnx", "--encrypt", *KEY,
                                   but=["base.vrnx"])

    def test_clone(self):
        self.expect_all_given_back("clone", "--from", "1", "--to", "2", "--confirm", "YES", "--verify")

    def test_list(self):
        self.expect_all_given_back("list-disks")


if __name__ == "__main__":
    suite.main()
