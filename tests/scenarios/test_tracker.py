"""The change tracker as a capture deals with it: attach, query, the bitmap, commit, and everything that can be missing.

What a run does with the proof is told by the suite of incremental captures. Here it is the dealings with the driver,
and that no driver which keeps its contract, however odd its replies, makes an image that differs from the disk."""

import os

import suite
from console import NO_TRACKER, capture_text, meter_run, source_line
from image import ImageBuilder, read_header
from incremental import (DEVICE, MIB4, REASON_GAP, REASON_NO_EPOCH, REASON_NO_PREVIOUS, REASON_NO_TRACKER,
                         REASON_NOT_LATEST, bitmap_bytes, chunks_read, compared_line, copy_complete, fallback_line,
                         hollow_disk, incremental_text, marked, proof_line, set_bits, thin_complete, tracker_calls,
                         tracker_line, write_hollow)
from machine import TRACKER_ATTACH, TRACKER_COMMIT, TRACKER_QUERY, pattern

SIZE = 2 * MIB4 + 1024  # three chunks, the last one short
SHIFT = 16
BITMAP = bitmap_bytes(SIZE, SHIFT)
assert BITMAP == 17
SOURCE = hollow_disk(SIZE, "source")
BASE = ImageBuilder(SOURCE, chunk_size=MIB4, epoch=0x10).to_bytes()


class Tracked(suite.Scenario):
    def small(self, **record):
        """A machine with a source of two sectors, and a driver that serves it by this record."""
        machine = self.machine(source=pattern(1024, "source"), target=bytes(512))
        machine.tracker([{"number": 1, **record}])
        return machine

    def incremental(self, *, changes=(), **record):
        """A machine with base.vrnx of epoch 10h, over a disk of three chunks in which the sectors at the offsets
        `changes` were written since; the driver's record holds the proof unless the fields given say otherwise."""
        machine = self.machine(source=0, target=bytes(512))
        write_hollow(machine.disk_path(1), SOURCE)
        write_hollow(machine.path("base.vrnx"), BASE)
        for offset in changes:
            machine.poke_disk(1, offset, pattern(512, f"change at {offset}"))
        fields = {"number": 1, "has_previous_epoch": 1, "previous_epoch": 0x10, "current_epoch": 0x11,
                  "bitmap": marked(SIZE, SHIFT, *[(offset, 512) for offset in changes])}
        fields.update(record)
        machine.tracker([{key: value for key, value in fields.items() if value is not None}])
        return machine

    def capture(self, machine, *options, out="new.vrnx", disk=1):
        return machine.run("capture", "--disk", str(disk), "--out", out, *options)

    def thin_over(self, machine, base, out):
        return self.capture(machine, "--base", base, "--thin", out=out)

    def thin(self, machine, *options):
        return self.capture(machine, "--base", "base.vrnx", "--thin", *options)

    def expect_thin(self, machine, references, read, epoch=0x11):
        """A tracked thin capture that reads exactly the chunks `read` and equals the disk."""
        result = self.expect(self.thin(machine), 0, incremental_text(
            SIZE, "base.vrnx", proof_line(0x10), thin_complete("new.vrnx", 3, references, len(read)),
            tracker=tracker_line(1, epoch)))
        self.assertEqual(chunks_read(result), read)
        self.expect_good_image(machine, "new.vrnx", machine.disk_bytes(1))
        return result

    def expect_compared(self, machine, reason, references, tracker):
        result = self.expect(self.thin(machine), 0, incremental_text(
            SIZE, "base.vrnx", compared_line(reason), thin_complete("new.vrnx", 3, references, 3), tracker=tracker))
        self.assertEqual(chunks_read(result), [0, 1, 2])
        self.expect_good_image(machine, "new.vrnx", machine.disk_bytes(1))
        return result

    def expect_full(self, machine, tracker, disk=1, out="new.vrnx", size=1024):
        """A capture without a base."""
        result = self.expect(self.capture(machine, out=out, disk=disk), 0,
                             capture_text(disk, size, out, tracker=tracker))
        self.expect_good_image(machine, out, machine.disk_bytes(disk))
        return result


class Requests(Tracked):
    def test_a_served_disk_is_told_with_its_epoch_in_capital_hexadecimal(self):
        machine = self.small(current_epoch=0xABCDEF)
        self.expect(self.capture(machine), 0,
                    "Source: PhysicalDrive1  Size: 0.00 GiB  SectorSize: 512  Chunks: 1 (4194304 bytes each)\n"
                    "Change tracker: disk 1 epoch ABCDEF\n"
                    "\r  100.00%  0 / 0 MiB  (0.0 MiB/s)   \n"
                    "Capture complete: new.vrnx\n")
        self.assertEqual(read_header(machine.path("new.vrnx")).epoch, 0xABCDEF)

    def test_attach_two_queries_and_a_commit_are_all_the_requests(self):
        result = self.expect_full(self.small(bitmap="00" * 5), tracker_line(1, 1))
        # The first query has room for the status alone, and its failure is not looked at.
        self.assertEqual(tracker_calls(result), [
            ("CreateFileW", None, None, None, True),
            ("DeviceIoControl", TRACKER_ATTACH, 8, 0, True),
            ("DeviceIoControl", TRACKER_QUERY, 8, 48, False),
            ("DeviceIoControl", TRACKER_QUERY, 8, 53, True),
            ("DeviceIoControl", TRACKER_COMMIT, 16, 0, True),
            ("CloseHandle", None, None, None, True)])
        self.assertEqual(result.calls("DeviceIoControl", path="Wendrel")[1]["error"], 234)
        opened, = result.calls("CreateFileW", path="Wendrel")
        self.assertEqual((opened["path"], opened["access"], opened["share"], opened["disposition"], opened["flags"]),
                         (DEVICE, "0xC0000000", "0x00000000", 3, "0x00000000"))
        # The commit comes behind the closed file and before its name, and the device is closed at the very end.
        steps = [(line["call"], line.get("path") or line.get("from")) for line in result.log
                 if line.get("code") == TRACKER_COMMIT or line["call"] in ("CloseHandle", "MoveFileExW", "exit")]
        self.assertEqual(steps, [
            ("CloseHandle", "\\\\.\\C:"), ("CloseHandle", "new.vrnx.partial"), ("CloseHandle", "\\\\.\\PhysicalDrive1"),
            ("DeviceIoControl", DEVICE), ("MoveFileExW", "new.vrnx.partial"), ("CloseHandle", DEVICE), ("exit", None)])

    def test_the_driver_is_asked_about_the_disk_that_is_captured(self):
        machine = self.machine(source=pattern(1024, "source"), target=pattern(2048, "other"))
        machine.tracker([{"number": 1, "current_epoch": 5}, {"number": 2, "current_epoch": 0x77}])
        self.expect_full(machine, tracker_line(2, 0x77), disk=2, size=2048)
        self.assertEqual(machine.tracker_disk(1)["current_epoch"], 5)
        self.assertNotIn("previous_epoch", machine.tracker_disk(1))
        self.assertEqual((machine.tracker_disk(2)["previous_epoch"], machine.tracker_disk(2)["current_epoch"]),
                         (0x77, 0x78))


class Unavailable(Tracked):
    def expect_unavailable(self, machine, calls):
        """A capture without the tracker: its line, no epoch, no commit; these dealings with the driver."""
        result = self.expect_full(machine, NO_TRACKER)
        self.assertEqual(read_header(machine.path("new.vrnx")).epoch, 0)
        self.assertEqual([(call, code) for call, code, *_ in tracker_calls(result)], calls)
        return result

    OPEN, CLOSE = ("CreateFileW", None), ("CloseHandle", None)
    ATTACH, QUERY = ("DeviceIoControl", TRACKER_ATTACH), ("DeviceIoControl", TRACKER_QUERY)

    def test_a_missing_device_makes_an_ordinary_capture(self):
        machine = self.machine(source=pattern(1024, "source"), target=bytes(512))
        self.expect(self.capture(machine), 0,
                    source_line(1, 1024)
                    + "Change tracker: not available for this disk (Wendrel not loaded/attached) - image carries no"
                    " epoch.\n" + meter_run(1024, MIB4) + "\nCapture complete: new.vrnx\n")
        os.remove(machine.path("new.vrnx"))
        self.expect_unavailable(machine, [self.OPEN])

    def test_the_first_answer_that_is_none_is_the_last_question(self):
        attached = [self.OPEN, self.ATTACH]
        for case, record, fault, calls in (
                ("a disk that is not served", {"number": 0}, None, attached),
                ("a refused attach", {}, 0, attached),
                ("an inactive disk", {"active": 0, "current_epoch": 7}, None, [*attached, self.QUERY]),
                ("a tracked extent of 0", {"tracked_extent": 0}, None, [*attached, self.QUERY]),
                ("a first query that fills in nothing", {}, 1, [*attached, self.QUERY]),
                ("a failed second query", {"current_epoch": 7}, 2, [*attached, self.QUERY, self.QUERY]),
                ("a bitmap that grew between the queries", {"bitmap": "00" * 5, "first_reply": {"bitmap_bytes": 4}},
                 None, [*attached, self.QUERY, self.QUERY])):
            machine = self.small(**record)
            if fault is not None:
                machine.add_fault("DeviceIoControl", path="Wendrel", skip=fault, error=1117)
            with self.subTest(case):
                self.expect_unavailable(machine, [*calls, self.CLOSE])


class Replies(Tracked):
    """Two queries that disagree: the length of the bitmap is that of the first, all else that of the second."""

    def test_epoch_gap_and_granularity_are_those_of_the_second_reply(self):
        machine = self.small(current_epoch=7, first_reply={"current_epoch": 6})
        self.expect_full(machine, tracker_line(1, 7))
        self.assertEqual(read_header(machine.path("new.vrnx")).epoch, 7)
        self.assertEqual(machine.tracker_disk(1)["previous_epoch"], 7)
        self.expect_full(self.small(gap=1, first_reply={"gap": 0}), tracker_line(1, 1, gap=True))
        self.expect_full(self.small(gap=0, first_reply={"gap": 1}), tracker_line(1, 1))
        self.expect_thin(self.incremental(changes=(MIB4 + 512,), first_reply={"granularity_shift": 30}), 2, [1])

    def test_a_first_reply_that_is_inactive_ends_the_query(self):
        for field in ("active", "tracked_extent"):
            machine = self.small(first_reply={field: 0})
            with self.subTest(field=field):
                self.expect_full(machine, NO_TRACKER)

    def test_a_second_reply_is_not_asked_again_whether_it_is_active(self):
        for field in ("active", "tracked_extent"):
            machine = self.small(current_epoch=7, **{field: 0}, first_reply={field: 1})
            with self.subTest(field=field):
                self.expect_full(machine, tracker_line(1, 7))

    def test_the_proof_is_that_of_the_second_reply(self):
        machine = self.incremental(first_reply={"has_previous_epoch": 0, "previous_epoch": 0xF, "gap": 1,
                                                "other_gap": 1})
        self.expect_thin(machine, 3, [])
        machine = self.incremental(previous_epoch=0xF, first_reply={"previous_epoch": 0x10})
        self.expect_compared(machine, REASON_NOT_LATEST, 3, tracker_line(1, 0x11))
        machine = self.incremental(has_previous_epoch=0, first_reply={"has_previous_epoch": 1})
        self.expect_compared(machine, REASON_NO_PREVIOUS, 3, tracker_line(1, 0x11))
        machine = self.incremental(other_gap=1, first_reply={"other_gap": 0})
        self.expect_compared(machine, REASON_GAP, 3, tracker_line(1, 0x11))

    def test_a_longer_bitmap_of_the_first_reply_is_clear_where_nothing_was_filled_in(self):
        machine = self.incremental(bitmap=set_bits(9, 5), changes=(5 << SHIFT,), first_reply={"bitmap_bytes": BITMAP})
        result = self.expect_thin(machine, 2, [0])
        self.assertEqual([line["out"] for line in result.calls("DeviceIoControl", code=TRACKER_QUERY)],
                         [48, 48 + BITMAP])

    def test_a_shorter_bitmap_of_the_first_reply_is_no_room_for_the_second(self):
        for count in (BITMAP - 1, 0):
            machine = self.incremental(changes=(0,), first_reply={"bitmap_bytes": count})
            self.expect_compared(machine, REASON_NO_TRACKER, 2, NO_TRACKER)

    def test_the_bytes_that_a_second_reply_says_it_has_are_not_looked_at(self):
        # The first reply makes room for more than the driver has; what the second one says of its length means nothing.
        machine = self.incremental(changes=(2 * MIB4,), first_reply={"bitmap_bytes": 100})
        self.expect_thin(machine, 2, [2])


class Bitmap(Tracked):
    def test_unmarked_chunks_are_not_read(self):
        for changes, read in (((), []), ((0,), [0]), ((MIB4,), [1]), ((2 * MIB4 + 512,), [2]),
                              ((MIB4 - 512, MIB4), [0, 1]), ((0, MIB4 + 512, 2 * MIB4), [0, 1, 2])):
            with self.subTest(changes=changes):
                self.expect_thin(self.incremental(changes=changes), 3 - len(read), read)

    def test_bits_behind_the_end_of_the_disk_mean_nothing(self):
        self.expect_thin(self.incremental(bitmap=set_bits(BITMAP, *range(129, 136))), 3, [])
        self.expect_thin(self.incremental(bitmap=set_bits(500, 3000)), 3, [])

    def test_an_empty_bitmap_means_that_everything_changed(self):
        result = self.expect_thin(self.incremental(bitmap="", changes=(MIB4,)), 2, [0, 1, 2])
        # With no bitmap the status alone is all there is, and the first query succeeds.
        self.assertEqual([(line["out"], line["ok"]) for line in result.calls("DeviceIoControl", code=TRACKER_QUERY)],
                         [(48, True), (48, True)])
        self.expect(self.capture(self.incremental(bitmap="", changes=(MIB4,)), "--base", "base.vrnx"), 0,
                    incremental_text(SIZE, "base.vrnx", proof_line(0x10), copy_complete("new.vrnx", 3, 0),
                                     tracker=tracker_line(1, 0x11)))

    def test_chunks_behind_a_short_bitmap_count_as_changed(self):
        # Clear bits for so many bytes, and the disk changed where the bitmap does not reach.
        for clear, changes, references, read in ((8, (MIB4, 2 * MIB4 + 512), 1, [1, 2]),
                                                 (15, (2 * MIB4 - 512,), 2, [1, 2]), (16, (), 3, [2])):
            with self.subTest(bytes=clear):
                self.expect_thin(self.incremental(bitmap="00" * clear, changes=changes), references, read)

    def test_the_tracked_extent_means_nothing_as_long_as_it_is_not_0(self):
        for extent in (1, SIZE - 1, SIZE, 0xFFFFFFFFFFFFFFFF):
            machine = self.incremental(changes=(MIB4,), tracked_extent=extent)
            with self.subTest(extent=extent):
                self.expect_thin(machine, 2, [1])


class Epochs(Tracked):
    def test_an_epoch_above_56_bits_is_committed_whole_and_stored_cut(self):
        epoch = 0x8877665544332211
        machine = self.incremental(previous_epoch=0x10, current_epoch=epoch)
        self.expect_thin(machine, 3, [], epoch=epoch)
        self.assertEqual(read_header(machine.path("new.vrnx")).epoch, 0x77665544332211)
        self.assertEqual(machine.read("new.vrnx")[37:44].hex(), "11223344556677")
        record = machine.tracker_disk(1)
        self.assertEqual((record["has_previous_epoch"], record["previous_epoch"]), (1, epoch))
        # The image can never match what the driver holds, and the next run says so and compares.
        machine.poke_disk(1, 0, b"changed")
        result = self.expect(self.thin_over(machine, "new.vrnx", "next.vrnx"), 0, incremental_text(
            SIZE, "new.vrnx", compared_line(REASON_NOT_LATEST), thin_complete("next.vrnx", 3, 2, 3),
            tracker=tracker_line(1, epoch + 1)))
        self.assertEqual(chunks_read(result), [0, 1, 2])
        self.expect_good_image(machine, "next.vrnx", machine.disk_bytes(1))

    def test_an_epoch_whose_low_56_bits_are_0_is_none_to_the_next_run(self):
        epoch = 0x0100000000000000
        machine = self.incremental(current_epoch=epoch)
        self.expect_thin(machine, 3, [], epoch=epoch)
        self.assertEqual(read_header(machine.path("new.vrnx")).epoch, 0)
        self.assertEqual(machine.tracker_disk(1)["previous_epoch"], epoch)
        self.expect(self.capture(machine, "--base", "new.vrnx", out="next.vrnx"), 0, incremental_text(
            SIZE, "new.vrnx", fallback_line(REASON_NO_EPOCH), "Capture complete: next.vrnx\n",
            tracker=tracker_line(1, epoch + 1)))
        self.expect_good_image(machine, "next.vrnx", machine.disk_bytes(1))


class Commit(Tracked):
    def test_a_commit_makes_the_epoch_the_previous_one(self):
        machine = self.small(current_epoch=0x20, gap=3, other_gap=4, bitmap="ff", has_previous_epoch=0,
                             previous_epoch=1)
        self.expect_full(machine, tracker_line(1, 0x20, gap=True))
        self.assertEqual(machine.tracker_disk(1), {
            "number": 1, "current_epoch": 0x21, "previous_epoch": 0x20, "has_previous_epoch": 1, "gap": 0,
            "other_gap": 0, "bitmap": "00"})

    def test_a_failed_commit_only_warns_and_its_image_proves_nothing(self):
        machine = self.incremental(changes=(MIB4,))
        before = machine.tracker_disk(1)
        machine.add_fault("DeviceIoControl", path="Wendrel", skip=3, error=1117)
        self.expect(self.thin(machine), 0, incremental_text(
            SIZE, "base.vrnx", proof_line(0x10), thin_complete("new.vrnx", 3, 2, 1), tracker=tracker_line(1, 0x11),
            warning="WARNING: tracker COMMIT failed - the next capture will be a full one.\n"))
        self.expect_good_image(machine, "new.vrnx", machine.disk_bytes(1))
        self.assertEqual(machine.files(), ["base.vrnx", "new.vrnx"])
        self.assertEqual(read_header(machine.path("new.vrnx")).epoch, 0x11)
        self.assertEqual(machine.tracker_disk(1), before)
        machine.clear_faults()
        self.expect(self.thin_over(machine, "new.vrnx", "b.vrnx.partial"), 0, incremental_text(
            SIZE, "new.vrnx", compared_line(REASON_NOT_LATEST), thin_complete("b.vrnx.partial", 3, 3, 3),
            tracker=tracker_line(1, 0x11)))


if __name__ == "__main__":
    suite.main()
