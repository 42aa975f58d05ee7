"""Each call of capture over a base and of verify and restore of a thin image failing in turn, and the process ended at
each: what a chain and the tracker add to the plain runs. The base is itself thin, so that every sweep opens a chain."""

import suite
from console import NO_TRACKER, restore_text, source_line
from incremental import (REASON_NO_TRACKER, REASON_NOT_LATEST, base_line, compared_line, copy_complete, fallback_line,
                         full_complete, incremental_text, proof_line, thin_complete, thin_verify_text, tracker_line)
from run_model import EPOCH, Capture, Restore, Scene, Verify, sweep_capture_kills, sweep_model
from sweep import sweep_kills

CHAIN = ("root.vrnx", "base.vrnx")
TRACKED = Scene(CHAIN, ("a", "a", "a"), ("b", "b", "b changed"), ("c", "c anew", "c anew"))
SMALL = Scene(CHAIN, ("a", "a", "a"), ("b", "b anew", "b changed"))
# Stored chunks and references in turn: 0 and 2 are stored, 1 and 3 come out of the root.
READ = Scene(CHAIN, ("a", "a anew", "a anew"), ("b", "b", "b"), ("c", "c anew", "c anew"), ("d", "d", "d"), short=1536,
             chunk_size=4096)

CAPTURE = ["capture", "--disk", "1", "--out", "new.vrnx", "--base", "base.vrnx"]
VERIFY = ["verify", "--in", "base.vrnx"]
RESTORE = ["restore", "--in", "base.vrnx", "--disk", "2", "--confirm", "YES"]


class FaultSweep(suite.Scenario):
    recorded = False  # a sample under Wine

    def sweep_capture(self, scene, thin, tracker, settled, complete, least):
        sweep_model(self, scene.capturing(tracker), CAPTURE + (["--thin"] if thin else []),
                    lambda fault: Capture(scene, fault, thin=thin, tracker=tracker),
                    incremental_text(scene.size, "base.vrnx", settled, complete,
                                     tracker=tracker_line(1, EPOCH) if tracker else NO_TRACKER), least)

    def test_tracked_copy(self):
        self.sweep_capture(TRACKED, False, True, proof_line(EPOCH - 1), copy_complete("new.vrnx", 1, 2), 200)

    def test_full_fallback(self):
        self.sweep_capture(SMALL, False, False, fallback_line(REASON_NO_TRACKER), full_complete("new.vrnx"), 150)

    def test_tracked_thin(self):
        self.sweep_capture(SMALL, True, True, proof_line(EPOCH - 1), thin_complete("new.vrnx", 2, 1, 1), 145)

    def test_compared_thin(self):
        self.sweep_capture(SMALL, True, False, compared_line(REASON_NO_TRACKER), thin_complete("new.vrnx", 2, 1, 2),
                           150)

    def test_verify_of_a_thin_image(self):
        sweep_model(self, READ.reading, VERIFY, lambda fault: Verify(READ, fault),
                    thin_verify_text("base.vrnx", "root.vrnx", READ.size, 4096), 170)

    def test_restore_of_a_thin_image(self):
        sweep_model(self, READ.reading, RESTORE, lambda fault: Restore(READ, fault),
                    restore_text("base.vrnx", 2, READ.size, 4096), 210)


class KillSweep(suite.Scenario):
    recorded = False  # a sample under Wine

    def sweep_capture(self, scene, thin, tracker, settled, complete, least):
        lost = compared_line if thin else fallback_line
        now = tracker_line(1, EPOCH + 1) if tracker else NO_TRACKER
        reads_all = (thin_complete("new.vrnx", scene.count, scene.count - len(scene.changed), scene.count) if thin
                     else full_complete("new.vrnx"))
        sweep_capture_kills(
            self, scene, CAPTURE + (["--thin"] if thin else []), incremental_text(
                scene.size, "base.vrnx", settled, complete, tracker=tracker_line(1, EPOCH) if tracker else NO_TRACKER),
            least, tracker=tracker,
            committed_text=incremental_text(scene.size, "base.vrnx", lost(REASON_NOT_LATEST), reads_all, tracker=now),
            refused_text=source_line(1, scene.size) + now + base_line("base.vrnx")
            + lost(REASON_NOT_LATEST if tracker else REASON_NO_TRACKER))

    def test_tracked_copy(self):
        self.sweep_capture(TRACKED, False, True, proof_line(EPOCH - 1), copy_complete("new.vrnx", 1, 2), 80)

    def test_tracked_thin(self):
        self.sweep_capture(SMALL, True, True, proof_line(EPOCH - 1), thin_complete("new.vrnx", 2, 1, 1), 70)

    def test_compared_thin(self):
        self.sweep_capture(SMALL, True, False, compared_line(REASON_NO_TRACKER), thin_complete("new.vrnx", 2, 1, 2), 70)

    def test_restore_of_a_thin_image(self):
        sweep_kills(self, READ.reading, RESTORE, Restore(READ).run().expected(),
                    lambda machine, _result, _call: READ.expect_files(machine), least=90)


if __name__ == "__main__":
    suite.main()
