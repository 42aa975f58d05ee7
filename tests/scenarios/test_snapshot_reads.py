"""capture --vss: which chunks come out of a shadow device and which from the live disk.

The rule is about whole chunks: one that lies wholly inside a snapshotted volume is read from its shadow device, every
other one from the live disk, in one piece. It shows in the bytes of the image on a disk that changes all the time, and
in the log.
"""

import suite
from console import NO_TRACKER, fatal, meter_run, source_line, verify_text
from image import build_image, read_table
from machine import FLAG_NO_BUFFERING, pattern
from snapshot import begun, shadow_path, session_calls, short_names, volume_name

MIB4 = 0x400000
DISK = "\\\\.\\PhysicalDrive1"
REST = 12288  # of a short last chunk
READ_FAILED = "ReadFile from source disk failed mid-capture - image is incomplete, do not trust it"
SEEK_FAILED = "SetFilePointerEx on source failed mid-capture"
LIVE = pattern(3 * MIB4, "source")
FROZEN = pattern(3 * MIB4, "frozen")  # what the disk held at the moment of the snapshot


class SnapshotReads(suite.Scenario):
    def machine_with(self, size, *volumes, sector_size=512, frozen=True):
        """`volumes` as (number, start, length) each. With `frozen` their shadows hold other bytes than the disk."""
        machine = self.machine(source=LIVE[:size], target=bytes(512), sector_size=sector_size)
        machine.shadow_service()
        for number, start, length in volumes:
            contents = {"shadow_contents": FROZEN[start:start + length]} if frozen else {}
            machine.add_volume(volume_name(number), [(1, start, length)], **contents)
        return machine

    def capture(self, machine, *options, out="a.vrnx"):
        return machine.run("capture", "--disk", "1", "--out", out, "--vss", *options)

    def reads(self, result):
        """The reads of the loop as (path, offset, length), each of them preceded by its seek to that place."""
        found = []
        for before, line in zip(result.log, result.log[1:]):
            if line["call"] == "ReadFile" and (line["path"] == DISK or "ShadowCopy" in line["path"]):
                self.assertEqual((before["call"], before["path"], before["offset"]),
                                 ("SetFilePointerEx", line["path"], line["offset"]))
                found.append((line["path"], line["offset"], line["length"]))
        return found

    def expect_reads(self, size, volumes, sources, *, sector_size=512):
        """A disk of this size with these volumes is read from these places, (path, offset, length) each, and the image
        holds what lies there."""
        machine = self.machine_with(size, *volumes, sector_size=sector_size)
        result = self.capture(machine)
        self.expect(result, 0, source_line(1, size, sector_size) + begun(volumes) + NO_TRACKER + meter_run(size, MIB4)
                    + "\nCapture complete: a.vrnx\n")
        self.assertEqual(self.reads(result), sources)
        plain, offset = b"", 0
        for path, _, length in sources:
            plain += (LIVE if path == DISK else FROZEN)[offset:offset + length]
            offset += length
        self.expect_good_image(machine, "a.vrnx", plain)
        return result


class Rule(SnapshotReads):
    RULES = (
        # (case, size of the disk, volumes, what is read)
        ("a chunk that fills a volume exactly is read from byte 0 of its shadow",
         2 * MIB4, [(1, MIB4, MIB4)], [(DISK, 0, MIB4), (shadow_path(1), 0, MIB4)]),
        ("also at the start of the disk", 2 * MIB4, [(1, 0, MIB4)], [(shadow_path(1), 0, MIB4), (DISK, MIB4, MIB4)]),
        ("a chunk that ends one sector past a volume is read live",
         2 * MIB4, [(1, MIB4, MIB4 - 512)], [(DISK, 0, MIB4), (DISK, MIB4, MIB4)]),
        ("one that ends a sector before the volume does is frozen",
         2 * MIB4, [(1, 0, MIB4 + 512)], [(shadow_path(1), 0, MIB4), (DISK, MIB4, MIB4)]),
        ("a chunk that starts one sector before a volume is read live",
         2 * MIB4, [(1, 512, 2 * MIB4 - 512)], [(DISK, 0, MIB4), (shadow_path(1), MIB4 - 512, MIB4)]),
        ("one that starts a sector behind its start is frozen",
         2 * MIB4, [(1, MIB4 - 512, MIB4 + 512)], [(DISK, 0, MIB4), (shadow_path(1), 512, MIB4)]),
        ("a volume of several chunks serves each at its place",
         3 * MIB4, [(1, 0, 3 * MIB4)], [(shadow_path(1), place * MIB4, MIB4) for place in range(3)]),
        ("the first and last chunks of a volume off the boundaries are read live",
         3 * MIB4, [(1, 1048576, 3 * MIB4 - 2097152)],
         [(DISK, 0, MIB4), (shadow_path(1), 3145728, MIB4), (DISK, 2 * MIB4, MIB4)]),
        ("a volume smaller than a chunk is read live entirely",
         MIB4 + 8192, [(1, 65536, MIB4 - 131072)], [(DISK, 0, MIB4), (DISK, MIB4, 8192)]),
        ("also where it crosses from one chunk into the next",
         2 * MIB4, [(1, MIB4 - 65536, 131072)], [(DISK, 0, MIB4), (DISK, MIB4, MIB4)]),
        *[(f"a chunk across two adjacent volumes that meet at {border} is read live, its neighbours from their shadows",
           3 * MIB4, [(1, 0, border), (2, border, 3 * MIB4 - border)],
           [(shadow_path(1), 0, MIB4), (DISK, MIB4, MIB4), (shadow_path(2), 2 * MIB4 - border, MIB4)])
          for border in (MIB4 + 512, 2 * MIB4 - 512, MIB4 + 2097152)],
        ("adjacent volumes on a chunk boundary leave nothing live",
         2 * MIB4, [(1, 0, MIB4), (2, MIB4, MIB4)], [(shadow_path(1), 0, MIB4), (shadow_path(2), 0, MIB4)]),
        *[(f"the short last chunk over {volume} follows the rule with its own length",
           MIB4 + REST, [(1, *volume)], [(DISK, 0, MIB4), last]) for volume, last in (
               ((MIB4, REST), (shadow_path(1), 0, REST)), ((MIB4, REST - 512), (DISK, MIB4, REST)),
               ((MIB4 + 512, REST - 512), (DISK, MIB4, REST)),
               ((MIB4 - 4096, REST + 4096), (shadow_path(1), 4096, REST)))],
        ("the ranges count in the order of their starts whatever the enumeration",
         2 * MIB4, [(2, MIB4, MIB4), (1, 0, MIB4)], [(shadow_path(2), 0, MIB4), (shadow_path(1), 0, MIB4)]),
        # Volumes do not overlap in truth.
        ("where they seem to overlap, the one that starts first serves",
         2 * MIB4, [(2, MIB4, MIB4), (1, 0, 2 * MIB4)], [(shadow_path(2), 0, MIB4), (shadow_path(2), MIB4, MIB4)]))

    def test_each_chunk_wholly_inside_a_volume_is_frozen_and_each_other_live(self):
        for case, size, volumes, sources in self.RULES:
            with self.subTest(case):
                result = self.expect_reads(size, volumes, sources)
                # Both sources are read unbuffered.
                for path in {path for path, _, _ in sources}:
                    self.assertEqual([line["flags"] for line in result.calls("CreateFileW", path=path)],
                                     [FLAG_NO_BUFFERING])

    def test_sectors_of_4096_bytes(self):
        self.expect_reads(2 * MIB4, [(1, 4096, 2 * MIB4 - 4096)],
                          [(DISK, 0, MIB4), (shadow_path(1), MIB4 - 4096, MIB4)], sector_size=4096)


class ChangingDisk(SnapshotReads):
    """A disk that is written to before every single call of the session and of the loop."""

    SIZE = 3 * MIB4 - 1048576
    # The second chunk lies wholly inside the volume, the first and the last reach out of it.
    START, END = 1048576, SIZE - 512

    def poked_calls(self):
        """The calls of a clean run that come behind the opening of the disk, in their order."""
        machine = self.machine_with(self.SIZE, (1, self.START, self.END - self.START), frozen=False)
        result = self.capture(machine)
        self.assertEqual(result.status, 0)
        names = [line["call"] for line in result.log]
        self.assertEqual(names[0], "CreateFileW")
        return names[1:-1]

    def replay(self, names):
        """A change of the disk before each call; gives the machine, the image's bytes and the disk's at the end."""
        machine = self.machine_with(self.SIZE, (1, self.START, self.END - self.START), frozen=False)
        now, frozen, seen = bytearray(LIVE[:self.SIZE]), None, bytearray(self.SIZE)
        reads = 0
        for turn, name in enumerate(names):
            # One after the other in each chunk, at its start, in its middle and at its end; the same places come again.
            chunk, where = turn % 3, turn // 3 % 3
            first, last = chunk * MIB4, min((chunk + 1) * MIB4, self.SIZE)
            offset = (first, (first + last) // 2, last - 32)[where]
            data = pattern(32, f"change {turn}")
            machine.add_fault(name, poke={"disk": 1, "offset": offset, "hex": data.hex()})
            now[offset:offset + 32] = data
            if name == "IVssBackupComponents::DoSnapshotSet":
                frozen = bytes(now)
            if name == "ReadFile":
                first, last = reads * MIB4, min((reads + 1) * MIB4, self.SIZE)
                seen[first:last] = (frozen if reads == 1 else now)[first:last]
                reads += 1
        self.assertEqual(reads, 3)
        return machine, bytes(seen), bytes(now)

    def test_the_frozen_chunk_is_that_of_the_moment_of_the_snapshot_and_the_others_are_live(self):
        machine, seen, at_the_end = self.replay(self.poked_calls())
        result = self.capture(machine)
        self.expect(result, 0, source_line(1, self.SIZE) + begun([(1, self.START, self.END - self.START)]) + NO_TRACKER
                    + meter_run(self.SIZE, MIB4) + "\nCapture complete: a.vrnx\n")
        self.assertEqual(self.reads(result), [(DISK, 0, MIB4), (shadow_path(1), MIB4 - self.START, MIB4),
                                              (DISK, 2 * MIB4, self.SIZE - 2 * MIB4)])
        self.expect_good_image(machine, "a.vrnx", seen)
        self.expect_disk(machine, 1, at_the_end)
        # The three are three states of the disk: none is the one before the run, and the frozen one is not the last.
        before = LIVE[:self.SIZE]
        self.assertNotEqual(seen[MIB4:2 * MIB4], before[MIB4:2 * MIB4])
        self.assertNotEqual(seen[MIB4:2 * MIB4], at_the_end[MIB4:2 * MIB4])
        machine.clear_faults()
        self.expect(machine.run("verify", "--in", "a.vrnx"), 0, verify_text("a.vrnx", self.SIZE, MIB4))


class Failures(SnapshotReads):
    SIZE = MIB4 + 8192
    VOLUME = (1, MIB4, 8192)

    def expect_fatal(self, message, last_error, **fault):
        machine = self.machine_with(self.SIZE, self.VOLUME)
        machine.add_fault(**fault)
        result = self.capture(machine)
        self.expect(result, 1, source_line(1, self.SIZE) + begun([self.VOLUME]) + NO_TRACKER
                    + meter_run(self.SIZE, MIB4, upto=1), fatal(message, last_error))
        self.assertEqual(short_names(session_calls(result))[-4:],
                         ["AbortBackup", "DeleteSnapshots", "Release", "CoUninitialize"])
        self.assertEqual(machine.files(), ["a.vrnx.partial"])
        return result

    def test_a_read_that_fails_on_a_shadow_device_is_fatal_and_not_tried_on_the_live_disk(self):
        result = self.expect_fatal(READ_FAILED, 23, call="ReadFile", path="ShadowCopy", error=23)
        self.assertEqual([(line["path"], line["ok"]) for line in result.calls("ReadFile")],
                         [(DISK, True), (shadow_path(1), False)])

    def test_a_seek_that_fails_on_a_shadow_device_is_fatal(self):
        result = self.expect_fatal(SEEK_FAILED, 131, call="SetFilePointerEx", path="ShadowCopy", error=131)
        self.assertEqual([line["path"] for line in result.calls("ReadFile")], [DISK])

    def test_an_unreadable_stretch_of_the_live_disk_does_not_matter_where_a_shadow_serves(self):
        machine = self.machine_with(self.SIZE, self.VOLUME)
        machine.add_fault("ReadFile", path="PhysicalDrive1", skip=1, error=23)
        self.assertEqual(self.capture(machine).status, 0)
        self.expect_good_image(machine, "a.vrnx", LIVE[:MIB4] + FROZEN[MIB4:self.SIZE])


class Incremental(SnapshotReads):
    SIZE = MIB4 + 8192
    VOLUMES = [(1, 0, MIB4), (2, MIB4, 8192)]

    def over_base(self, plain, **tracked):
        """Both chunks are served by shadows; a base of these bytes; a tracker with a previous epoch of 5, if any."""
        machine = self.machine_with(self.SIZE, *self.VOLUMES)
        build_image(machine.path("base.vrnx"), plain, chunk_size=MIB4, epoch=5)
        if tracked:
            machine.tracker([{"number": 1, "has_previous_epoch": 1, "previous_epoch": 5, "current_epoch": 6,
                              **tracked}])
        return machine

    def beginning(self, machine):
        return (source_line(1, self.SIZE) + begun(self.VOLUMES)
                + ("Change tracker: disk 1 epoch 6\n" if "tracker" in machine.description else NO_TRACKER)
                + "Incremental mode: base image base.vrnx\n")

    def marked(self):
        """Only the second chunk was written since the base, by the tracker."""
        bitmap = bytearray(9)
        bitmap[8] = 1
        return bitmap.hex()

    def test_a_chunk_that_the_tracker_proves_unchanged_is_read_from_nowhere_and_a_marked_one_frozen(self):
        for options, complete in (
                ((), "Capture complete: a.vrnx (Read from disk: 1, Copied from base: 1 chunks)\n"),
                (("--thin",), "Capture complete (thin): a.vrnx  (stored 1 of 2 chunks, 1 are references to the base;"
                 " read from disk: 1)\n")):
            machine = self.over_base(LIVE[:MIB4] + bytes(8192), bitmap=self.marked())
            result = self.capture(machine, "--base", "base.vrnx", *options)
            self.expect(result, 0, self.beginning(machine) + "  --base: base epoch 5 matches tracker; unchanged chunks"
                        " will be copied from the base image.\n" + meter_run(self.SIZE, MIB4) + "\n" + complete)
            self.assertEqual(self.reads(result), [(shadow_path(2), 0, 8192)])
            self.expect_good_image(machine, "a.vrnx", LIVE[:MIB4] + FROZEN[MIB4:self.SIZE])

    def test_a_thin_capture_compares_the_frozen_bytes_with_the_base(self):
        # The live disk has moved on in both chunks; at the moment of the snapshot only the second one had.
        machine = self.over_base(FROZEN[:MIB4] + bytes(8192))
        result = self.capture(machine, "--base", "base.vrnx", "--thin")
        self.expect(result, 0, self.beginning(machine) + "  --base: cannot prove what changed (no change tracker for"
                    " this disk) - reading every chunk and comparing hashes with the base (no driver needed; slower to"
                    " read, still a small file).\n" + meter_run(self.SIZE, MIB4)
                    + "\nCapture complete (thin): a.vrnx  (stored 1 of 2 chunks, 1 are references to the base; read"
                    " from disk: 2)\n")
        self.assertEqual([path for path, _, _ in self.reads(result)], [shadow_path(1), shadow_path(2)])
        self.assertEqual([record.stored_length for record in read_table(machine.path("a.vrnx"))[1]], [0, 8192])
        self.expect_good_image(machine, "a.vrnx", FROZEN[:self.SIZE])


if __name__ == "__main__":
    suite.main()
