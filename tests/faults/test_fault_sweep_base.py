"""Each call of list-disks and of capture, verify and restore of plain full images failing in turn: every byte of what
is printed and left, where the other sweeps have chains and seals in the way."""

import suite
from console import NO_TRACKER, meter, restore_text, source_line, verify_text
from run_model import Capture, ListDisks, Restore, Scene, Verify, sweep_model

DISK = Scene((), ("a",), ("b",), ("c",))
IMAGE = Scene(("a.vrnx",), ("a", "a"), ("b", "b"), ("c", "c"), chunk_size=4096, behind=8192)


class FaultSweep(suite.Scenario):
    recorded = False  # a sample under Wine

    def test_list_disks(self):
        sweep_model(self, ListDisks.make, ["list-disks"], lambda fault: ListDisks(None, fault),
                    "".join(ListDisks.LISTING.values()), 60)

    def test_capture(self):
        text = (source_line(1, DISK.size) + NO_TRACKER + meter(DISK.chunk_size, DISK.size, 1)
                + meter(DISK.size, DISK.size, 2) + "\nCapture complete: new.vrnx\n")
        sweep_model(self, DISK.capturing(), ["capture", "--disk", "1", "--out", "new.vrnx"],
                    lambda fault: Capture(DISK, fault), text, 100)

    def test_verify(self):
        sweep_model(self, IMAGE.reading, ["verify", "--in", "a.vrnx"], lambda fault: Verify(IMAGE, fault),
                    verify_text("a.vrnx", IMAGE.size, 4096), 80)

    def test_restore(self):
        sweep_model(self, IMAGE.reading, ["restore", "--in", "a.vrnx", "--disk", "2", "--confirm", "YES"],
                    lambda fault: Restore(IMAGE, fault), restore_text("a.vrnx", 2, IMAGE.size, 4096, larger=True), 100)


if __name__ == "__main__":
    suite.main()
