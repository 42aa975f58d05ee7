"""The fault sweep over list-disks, capture, verify and restore of plain full images.

Each oracle below walks through the calls of the clean run in their order, as the run would, with the calls that the
fault hits failing, and stops where a failure ends it. What it says of a call is what the program promises of it: fatal
with which words, or left unexamined with which consequence for the file or the disk.
"""

import hashlib
import os

import suite
from console import (NO_TRACKER, RESTORE_COMPLETE, exclusive_failure, fatal, fatal_status, meter, restore_text,
                     restoring_line, source_line, verify_failed, verify_text, verifying_line)
from image import ImageBuilder, build_image
from machine import (DRIVE_GEOMETRY_EX, LENGTH_INFO, UPDATE_PROPERTIES, VOLUME_DISK_EXTENTS, Machine, pattern)
from sweep import Expected, calls_of, sweep_faults

NOTHING = hashlib.sha256(b"").digest()
IGNORED_HASH_CALLS = ("BCryptGetProperty", "BCryptDestroyHash", "BCryptCloseAlgorithmProvider")


def number(error):
    """The last error as `fatal` takes it: a fault that succeeds short leaves none of its own."""
    return {} if error is None else {"error": error}


class Walk:
    """A run of the program under a fault, in the mind of whoever wrote the oracle."""

    def __init__(self, fault):
        self.fault = fault
        self.hit = {call.index for call in fault.hits}
        self.stdout = ""

    def hits(self, call):
        return call.index in self.hit

    def fatal(self, message, check=None):
        return Expected(1, self.stdout, fatal(message, **number(self.fault.error)), check, f"fatal: {message}")

    def fatal_status(self, message, check=None):
        return Expected(1, self.stdout, fatal_status(message, self.fault.status), check, f"fatal: {message}")


# --- list-disks -----------------------------------------------------------------------------------------------------

LISTED = (0, 1, 5)
LISTING = {
    0: "PhysicalDrive0       0.00 GiB  sector 512 bytes   <- currently booted system disk\n",
    1: "PhysicalDrive1       0.00 GiB  sector 4096 bytes\n",
    5: "PhysicalDrive5       1.50 GiB  sector 512 bytes\n",
}


def make_listed(folder):
    machine = Machine(folder, default=False)
    machine.add_disk(0, bytes(4096))
    machine.add_disk(1, bytes(4096), sector_size=4096)
    machine.add_disk(5, 512, length=3 << 29)
    machine.system_volume([(0, 512, 1024)])
    return machine


def listing_oracle(clean):
    def oracle(fault):
        walk, skipped = Walk(fault), False
        for call in clean:
            opens_disk = call.kind == "CreateFileW" and "PhysicalDrive" in call.path
            if opens_disk:
                skipped = walk.hits(call) or not call.line["ok"]
            elif skipped:
                continue
            elif walk.hits(call) and call.kind == "CreateFileW":
                return walk.fatal("could not open C: to determine the system disk number")
            elif walk.hits(call) and call.kind == "DeviceIoControl":
                return walk.fatal({LENGTH_INFO: "IOCTL_DISK_GET_LENGTH_INFO failed",
                                   DRIVE_GEOMETRY_EX: "IOCTL_DISK_GET_DRIVE_GEOMETRY_EX failed",
                                   VOLUME_DISK_EXTENTS: "IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS on C: failed",
                                   }[call.line["code"]])
            elif call.kind == "CloseHandle" and "PhysicalDrive" in call.path:
                walk.stdout += LISTING[int(call.path.rpartition("PhysicalDrive")[2])]
        return Expected(0, walk.stdout)
    return oracle


# --- capture --------------------------------------------------------------------------------------------------------

CHUNK = 0x400000
SOURCE = 2 * CHUNK + 512
SOURCE_BYTES = pattern(SOURCE, "source")


def make_captured(folder):
    return Machine(folder, source=SOURCE_BYTES, target=bytes(512))


class WorkFile:
    """What the work file holds, as writes and seeks reach it."""

    def __init__(self):
        self.data, self.position = bytearray(), 0

    def write(self, data):
        if not data:
            return
        if len(self.data) < self.position:
            self.data.extend(bytes(self.position - len(self.data)))
        self.data[self.position:self.position + len(data)] = data
        self.position += len(data)


def expect_files(**expected):
    """A check that the work folder holds exactly these files; `partial` and `final` name the two of a capture."""
    def check(machine, _):
        names = {"partial": "a.vrnx.partial", "final": "a.vrnx"}
        wanted = {names[key]: bytes(data) for key, data in expected.items()}
        if machine.files() != sorted(wanted):
            raise AssertionError(f"files {machine.files()} where {sorted(wanted)} were expected")
        for name, data in wanted.items():
            actual = machine.read(name)
            if actual != data:
                raise AssertionError(f"{name}: {suite.first_difference(actual, data)}")
        if machine.disk_bytes(1) != SOURCE_BYTES:
            raise AssertionError("the source was changed")
    return check


def capture_oracle(clean):
    good = ImageBuilder(SOURCE_BYTES, chunk_size=CHUNK)

    def oracle(fault):
        walk, work, created = Walk(fault), WorkFile(), False
        records = [ImageBuilder(b"x").records[0] for _ in good.records]
        for record, model in zip(records, good.records):
            record.disk_offset, record.stored_length, record.hash = model.disk_offset, model.stored_length, bytes(32)
        chunk, work_seeks, hashed, meters, close_failed = 0, 0, True, 0, False
        half = fault.effect.get("transferred")

        def state():
            return expect_files(partial=work.data) if created else expect_files()

        for call in clean:
            hit, kind, path = walk.hits(call), call.kind, call.path
            to_work = path == "a.vrnx.partial"
            if kind == "CreateFileW":
                if hit and "PhysicalDrive1" in path:
                    return walk.fatal("could not open source disk for raw read (run as Administrator?)", state())
                if hit and "C:" in path:
                    return walk.fatal("could not open C: to determine the system disk number", state())
                if hit and to_work:
                    return walk.fatal("could not create output image file", state())
                if "Wendrel" in path:
                    walk.stdout += NO_TRACKER
                created = created or to_work
            elif kind == "DeviceIoControl":
                name = {LENGTH_INFO: "IOCTL_DISK_GET_LENGTH_INFO failed",
                        DRIVE_GEOMETRY_EX: "IOCTL_DISK_GET_DRIVE_GEOMETRY_EX failed",
                        VOLUME_DISK_EXTENTS: "IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS on C: failed"}[call.line["code"]]
                if hit:
                    return walk.fatal(name, state())
                if call.line["code"] == DRIVE_GEOMETRY_EX:
                    walk.stdout += source_line(1, SOURCE)
            elif kind == "_aligned_malloc" and hit:
                return Expected(1, walk.stdout, fatal("out of memory allocating aligned I/O buffer"), state())
            elif kind == "SetFilePointerEx" and to_work:
                # Both are left unexamined: a failed one leaves the position where it was.
                if not hit:
                    work.position = 64 + 72 * 3 if work_seeks == 0 else 0
                work_seeks += 1
            elif kind == "SetFilePointerEx" and hit:
                return walk.fatal("SetFilePointerEx on source failed mid-capture", state())
            elif kind == "ReadFile" and hit:
                return walk.fatal("ReadFile from source disk failed mid-capture - image is incomplete, do not trust it",
                                  state())
            elif kind == "BCryptOpenAlgorithmProvider" and hit:
                return walk.fatal_status("BCryptOpenAlgorithmProvider(SHA256)", state())
            elif kind == "BCryptCreateHash" and hit:
                return walk.fatal_status("BCryptCreateHash", state())
            elif kind == "BCryptHashData":
                hashed = not hit  # what is not hashed is left out of the digest
            elif kind == "BCryptFinishHash" and not hit:
                records[chunk].hash = good.records[chunk].hash if hashed else NOTHING
            elif kind == "WriteFile" and chunk < 3:
                data = SOURCE_BYTES[chunk * CHUNK:(chunk + 1) * CHUNK]
                if hit:
                    work.write(data[:half or 0])
                    return walk.fatal("WriteFile to image file failed mid-capture (disk full?)", state())
                work.write(data)
                if chunk in (0, 2):
                    meters += 1
                    walk.stdout += meter(min((chunk + 1) * CHUNK, SOURCE), SOURCE, meters)
                chunk += 1
                walk.stdout += "\n" if chunk == 3 else ""
            elif kind == "WriteFile":
                # Header and table: what becomes of them is left unexamined.
                table = b"".join(record.pack() for record in records)
                data = good.header.pack() if call.line["length"] == 64 else table
                work.write(data[:half or 0] if hit else data)
            elif kind == "CloseHandle":
                close_failed = close_failed or hit and to_work
            elif kind == "MoveFileExW":
                message = "could not atomically publish completed image"
                if hit:
                    return walk.fatal(message, state())
                if close_failed:  # a file that is still open and shared with nobody cannot be renamed
                    return Expected(1, walk.stdout, fatal(message, 32), state(), "the work file could not be closed")
            else:
                assert kind in ("GetTickCount64", "GetFileAttributesA", "_aligned_malloc", "SetFilePointerEx",
                                "ReadFile", "BCryptOpenAlgorithmProvider", "BCryptCreateHash", "BCryptFinishHash",
                                *IGNORED_HASH_CALLS), f"the oracle has no word on {call}"
        return Expected(0, walk.stdout + "Capture complete: a.vrnx\n", "", expect_files(final=work.data),
                        "left unexamined")
    return oracle


# --- verify and restore ---------------------------------------------------------------------------------------------

IMAGE = 2 * 4096 + 512
IMAGE_BYTES = pattern(IMAGE, "image")
TARGET_BYTES = pattern(IMAGE + 8192, "target")
OPEN_READS = ("could not read image header - file is truncated or not a .vrnx image",
              "could not read chunk table - image is truncated")


def make_verified(folder):
    machine = Machine(folder, default=False)
    build_image(machine.path("a.vrnx"), IMAGE_BYTES)
    return machine


def make_restored(folder):
    machine = Machine(folder, default=False)
    machine.add_disk(0, bytes(65536))
    machine.system_volume([(0, 4096, 8192)])
    machine.add_disk(2, TARGET_BYTES)
    build_image(machine.path("a.vrnx"), IMAGE_BYTES)
    return machine


def image_stays(machine):
    if machine.files() != ["a.vrnx"] or machine.read("a.vrnx") != ImageBuilder(IMAGE_BYTES).to_bytes():
        raise AssertionError("the image was changed")


def walk_open(walk, call, reads, state):
    """What a call on the way through an open image brings; `reads` is how many reads of the image came before."""
    if not walk.hits(call):
        return None
    if call.kind == "CreateFileW":
        return Expected(1, walk.stdout, "could not open image file: a.vrnx\n"
                        + fatal("could not open image file", walk.fault.error), state)
    if call.kind == "GetFileSizeEx":
        return walk.fatal("image is truncated before its chunk table", state)
    if call.kind == "ReadFile" and reads < 2:
        return walk.fatal(OPEN_READS[reads], state)
    return None


def verify_oracle(clean):
    def state(machine, _):
        image_stays(machine)

    def oracle(fault):
        walk, reads, hashes, bad, meters, whole = Walk(fault), 0, 0, 0, 0, True
        for call in clean:
            hit, kind = walk.hits(call), call.kind
            outcome = walk_open(walk, call, reads, state)
            if outcome:
                return outcome
            if kind == "ReadFile":
                if hit:
                    return walk.fatal("could not read chunk data - image is truncated", state)
                reads += 1
            elif kind == "_aligned_malloc" and hit:
                return Expected(1, walk.stdout, fatal("out of memory allocating aligned I/O buffer"), state)
            elif kind == "BCryptOpenAlgorithmProvider" and hit:
                return walk.fatal_status("BCryptOpenAlgorithmProvider(SHA256)", state)
            elif kind == "BCryptCreateHash":
                if hit:
                    return walk.fatal_status("BCryptCreateHash", state)
                whole = True
            elif kind in ("BCryptHashData", "BCryptFinishHash"):
                whole = whole and not hit
            elif kind == "BCryptCloseAlgorithmProvider":
                # The first digest is that of header and table, which a full image is not held against.
                if hashes == 0:
                    walk.stdout += verifying_line("a.vrnx", 3, IMAGE)
                else:
                    chunk = hashes - 1
                    if not whole:
                        walk.stdout += f"\n  chunk {chunk} (disk offset {chunk * 4096}): HASH MISMATCH\n"
                        bad += 1
                    if chunk in (0, 2):
                        meters += 1
                        walk.stdout += meter(min((chunk + 1) * 4096, IMAGE), IMAGE, meters)
                    walk.stdout += "\n" if chunk == 2 else ""
                hashes += 1
            else:
                assert kind in ("CreateFileW", "GetFileSizeEx", "CloseHandle", "GetTickCount64", "_aligned_malloc",
                                "BCryptOpenAlgorithmProvider", "BCryptGetProperty", "BCryptDestroyHash"), \
                    f"the oracle has no word on {call}"
        if bad:
            return Expected(1, walk.stdout, verify_failed(bad, 3), state)
        return Expected(0, walk.stdout + "Verify OK - all 3 chunks match their recorded hash.\n", "", state,
                        "left unexamined")
    return oracle


def restore_oracle(clean):
    def oracle(fault):
        walk, reads, hashes, meters, whole, written = Walk(fault), 0, 0, 0, True, 0
        half = fault.effect.get("transferred")

        def state(count):
            def check(machine, _):
                image_stays(machine)
                expected = IMAGE_BYTES[:count] + TARGET_BYTES[count:]
                actual = machine.disk_bytes(2)
                if actual != expected:
                    raise AssertionError(f"target: {suite.first_difference(actual, expected)}")
            return check

        for call in clean:
            hit, kind, path = walk.hits(call), call.kind, call.path
            if kind == "CreateFileW" and hit and "C:" in path:
                return walk.fatal("could not open C: to determine the system disk number", state(0))
            if kind == "CreateFileW" and hit and "PhysicalDrive2" in path:
                return Expected(1, walk.stdout, exclusive_failure(2, fault.error), state(0))
            outcome = walk_open(walk, call, reads, state(0))
            if outcome:
                return outcome
            if kind == "DeviceIoControl":
                code = call.line["code"]
                if hit and code != UPDATE_PROPERTIES:  # whose outcome is left unexamined
                    return walk.fatal({LENGTH_INFO: "IOCTL_DISK_GET_LENGTH_INFO failed",
                                       DRIVE_GEOMETRY_EX: "IOCTL_DISK_GET_DRIVE_GEOMETRY_EX failed",
                                       VOLUME_DISK_EXTENTS: "IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS on C: failed"}[code],
                                      state(0))
                if code == DRIVE_GEOMETRY_EX:
                    walk.stdout += restore_text("a.vrnx", 2, IMAGE, 4096, larger=True).partition("Restoring ")[0]
                    walk.stdout += restoring_line("a.vrnx", 2, 3, IMAGE)
            elif kind == "_aligned_malloc" and hit:
                return Expected(1, walk.stdout, fatal("out of memory allocating aligned I/O buffer"), state(0))
            elif kind == "ReadFile":
                if hit:
                    return walk.fatal("could not read chunk data from image - restore aborted, "
                                      "target disk left partially written", state(written))
                reads += 1
            elif kind == "BCryptOpenAlgorithmProvider" and hit:
                return walk.fatal_status("BCryptOpenAlgorithmProvider(SHA256)", state(written))
            elif kind == "BCryptCreateHash":
                if hit:
                    return walk.fatal_status("BCryptCreateHash", state(written))
                whole = True
            elif kind in ("BCryptHashData", "BCryptFinishHash"):
                whole = whole and not hit
            elif kind == "BCryptCloseAlgorithmProvider":
                if hashes > 0 and not whole:
                    return Expected(1, walk.stdout,
                                    f"\nFATAL: chunk {hashes - 1} hash mismatch (corrupt image) - restore aborted, "
                                    "target disk left partially written.\n", state(written))
                hashes += 1
            elif kind == "WriteFile":
                if hit:
                    return walk.fatal("WriteFile to target disk failed mid-restore - target disk left partially "
                                      "written, do not boot it yet", state(written + (half or 0)))
                chunk = written // 4096
                written += call.line["length"]
                if chunk in (0, 2):
                    meters += 1
                    walk.stdout += meter(written, IMAGE, meters)
                walk.stdout += "\n" if chunk == 2 else ""
            else:
                # A failed seek of the target leaves it where the last write ended, which is the same place.
                assert kind in ("CreateFileW", "GetFileSizeEx", "CloseHandle", "GetTickCount64", "SetFilePointerEx",
                                "_aligned_malloc", "BCryptOpenAlgorithmProvider", "BCryptGetProperty",
                                "BCryptDestroyHash"), \
                    f"the oracle has no word on {call}"
        return Expected(0, walk.stdout + RESTORE_COMPLETE, "", state(IMAGE), "left unexamined")
    return oracle


class FaultSweep(suite.Scenario):
    recorded = False  # a sample under Wine

    def sweep(self, make, arguments, stdout, make_oracle, least):
        """Sweeps with an oracle that is made from the calls of a clean run; at least so many runs are worth it."""
        clean = calls_of(make(os.path.join(self.folder, "clean")).run(*arguments).log)
        count = sweep_faults(self, make, arguments, Expected(0, stdout), make_oracle(clean))
        if not self.settings.sampled:
            self.assertGreaterEqual(count, least)

    def test_list_disks(self):
        self.sweep(make_listed, ["list-disks"], LISTING[0] + LISTING[1] + LISTING[5], listing_oracle, 60)

    def test_capture(self):
        text = (source_line(1, SOURCE) + NO_TRACKER + meter(CHUNK, SOURCE, 1) + meter(SOURCE, SOURCE, 2)
                + "\nCapture complete: a.vrnx\n")
        self.sweep(make_captured, ["capture", "--disk", "1", "--out", "a.vrnx"], text, capture_oracle, 100)

    def test_verify(self):
        self.sweep(make_verified, ["verify", "--in", "a.vrnx"], verify_text("a.vrnx", IMAGE, 4096), verify_oracle, 80)

    def test_restore(self):
        self.sweep(make_restored, ["restore", "--in", "a.vrnx", "--disk", "2", "--confirm", "YES"],
                   restore_text("a.vrnx", 2, IMAGE, 4096, larger=True), restore_oracle, 100)


if __name__ == "__main__":
    suite.main()
