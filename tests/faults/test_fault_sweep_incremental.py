"""The sweeps over runs with a base: capture --base and --base --thin in their modes, verify and restore of a thin
image; each call of the platform failing in turn, and the process ended at each.

The models below go through a run as the program promises it, call by call, with the fault striking where it is due.
They read no log: the names of the calls that they come to are held against the log of the run. The base is itself thin,
so that every sweep goes over the opening of a chain.
"""

import hashlib

import suite
from console import (NO_TRACKER, RESTORE_COMPLETE, exclusive_failure, fatal, fatal_status, meter, restoring_line,
                     source_line, verify_failed, verifying_line)
from image import HEADER, ImageBuilder, Record, Trailer, is_accepted, reference_plain_bytes
from incremental import (COMMIT_WARNING, REASON_NO_TRACKER, REASON_NOT_LATEST, base_line, compared_line, copy_complete,
                         fallback_line, full_complete, hollow, incremental_text, marked, missing_base, other_base,
                         proof_line, thin_complete, thin_verify_text, tracker_line, write_hollow)
from machine import Machine, pattern
from sweep import Expected, sweep_faults, sweep_kills

CHUNK = 0x400000
SHIFT = 16
NOTHING = hashlib.sha256(b"").digest()
EPOCH = 0x11


class Scene:
    """root.vrnx, base.vrnx over it, and a disk that changed since. Chunks are given as seeds: (root, base, disk)."""

    def __init__(self, *chunks, short=512, chunk_size=CHUNK):
        lengths = [chunk_size] * (len(chunks) - 1) + [short]
        self.chunk_size = chunk_size
        self.lengths, self.count, self.size = lengths, len(chunks), sum(lengths)
        self.table_end = 64 + 72 * self.count
        disks = []
        for version in range(3):
            disks.append(b"".join(hollow(length, seeds[version]) for length, seeds in zip(lengths, chunks)))
        self.disk = disks[2]
        self.root = ImageBuilder(disks[0], chunk_size=chunk_size, epoch=1)
        self.base = ImageBuilder(disks[1], chunk_size=chunk_size, epoch=EPOCH - 1)
        for index, seeds in enumerate(chunks):
            if seeds[0] == seeds[1]:
                self.base.records[index].stored_length, self.base.stored[index] = 0, b""
        self.base.header.version = 3
        self.base.trailer = Trailer(b"root.vrnx", self.root.digest())
        self.changed = [index for index, seeds in enumerate(chunks) if seeds[1] != seeds[2]]
        self.files = {"root.vrnx": self.root.to_bytes(), "base.vrnx": self.base.to_bytes()}
        self.driver = {"number": 1, "has_previous_epoch": 1, "previous_epoch": EPOCH - 1, "current_epoch": EPOCH,
                       "bitmap": marked(self.size, SHIFT, *[(index * chunk_size, 1) for index in self.changed])}

    def chunk(self, index):
        return self.disk[index * self.chunk_size:index * self.chunk_size + self.lengths[index]]

    def images(self, folder):
        machine = Machine(folder, default=False)
        machine.add_disk(0, bytes(4096))
        machine.system_volume([(0, 0, 512)])
        for name, data in self.files.items():
            write_hollow(machine.path(name), data)
        return machine

    def capturing(self, tracker):
        def make(folder):
            machine = self.images(folder)
            machine.add_disk(1, 0)
            write_hollow(machine.disk_path(1), self.disk)
            if tracker:
                machine.tracker([self.driver])
            return machine
        return make

    def expect_bases(self, machine):
        """The images below are byte for byte as they were."""
        for name, data in self.files.items():
            if machine.read(name) != data:
                raise AssertionError(f"{name} was changed: {suite.first_difference(machine.read(name), data)}")


TRACKED = Scene(("a", "a", "a"), ("b", "b", "b changed"), ("c", "c anew", "c anew"))
SMALL = Scene(("a", "a", "a"), ("b", "b anew", "b changed"))


class Ended(Exception):
    """The run ended with status 1."""


class Model:
    """A run under one fault, or under none. After `run()`: what it prints, how it ends, and which calls it makes."""

    def __init__(self, scene, fault=None):
        self.scene, self.fault, self.seen, self.names = scene, fault, {}, []
        self.stdout = self.stderr = ""
        self.status = self.meters = 0

    def run(self):
        try:
            self.perform()
        except Ended:
            self.status = 1
        return self

    def strikes(self, name):
        """Makes a call; gives whether the fault hits it."""
        occurrence = self.seen.get(name, 0)
        self.seen[name] = occurrence + 1
        self.names.append(name)
        if self.fault is None or name != self.fault.call.kind:
            return False
        first = self.fault.call.occurrence
        return occurrence >= first if self.fault.lasting else occurrence == first

    def die(self, text):
        self.stderr = text
        raise Ended

    def report(self, message):
        return fatal(message) if self.fault.error is None else fatal(message, self.fault.error)

    def fallible(self, name, message, before=""):
        """A call whose failure is fatal with the last error."""
        if self.strikes(name):
            self.die(before + self.report(message))

    def primitive(self, name, message):
        if self.strikes(name):
            self.die(fatal_status(message, self.fault.status))

    def print_meter(self, done):
        self.strikes("GetTickCount64")
        self.meters += 1
        self.stdout += meter(done, self.scene.size, self.meters)

    def progress(self, index):
        if index in (0, self.scene.count - 1):
            self.print_meter(index * self.scene.chunk_size + self.scene.lengths[index])

    def system_disk(self):
        self.fallible("CreateFileW", "could not open C: to determine the system disk number")
        failed = self.strikes("DeviceIoControl")
        self.strikes("CloseHandle")
        if failed:
            self.die(self.report("IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS on C: failed"))

    def geometry(self):
        for name in ("LENGTH_INFO", "DRIVE_GEOMETRY_EX"):
            self.fallible("DeviceIoControl", f"IOCTL_DISK_GET_{name} failed")

    def hash(self, data):
        """The digest; None where nothing was put into its place."""
        self.primitive("BCryptOpenAlgorithmProvider", "BCryptOpenAlgorithmProvider(SHA256)")
        self.strikes("BCryptGetProperty")
        self.primitive("BCryptCreateHash", "BCryptCreateHash")
        digest = NOTHING if self.strikes("BCryptHashData") else hashlib.sha256(data).digest()
        if self.strikes("BCryptFinishHash"):
            digest = None
        self.strikes("BCryptDestroyHash")
        self.strikes("BCryptCloseAlgorithmProvider")
        return digest

    def open(self, name, builder):
        """Opens an image and what lies below it; gives its digest as the run has it, None for an unknown one, and where
        the file pointer of the image stands."""
        self.fallible("CreateFileW", "could not open image file", f"could not open image file: {name}\n")
        self.fallible("ReadFile", "could not read image header - file is truncated or not a .vrnx image")
        self.fallible("GetFileSizeEx", "image is truncated before its chunk table")
        self.fallible("ReadFile", "could not read chunk table - image is truncated")
        digest = self.hash(builder.head())
        position = self.scene.table_end
        if builder.trailer is not None:
            for call in ("SetFilePointerEx", "ReadFile"):
                self.fallible(call, "thin image has no valid trailer - file is truncated")
            for call in ("SetFilePointerEx", "ReadFile"):
                self.fallible(call, "could not read thin image trailer")
            position = len(builder.to_bytes())
            base = builder.trailer.base_name.decode()
            if self.strikes("GetFileAttributesA"):
                self.die(missing_base(base) + fatal("base image of a thin image not found"))
            below, _ = self.open(base, {"root.vrnx": self.scene.root, "base.vrnx": self.scene.base}[base])
            if below != builder.trailer.base_digest:
                self.die(other_base(base) + fatal("base image does not match the one pinned in the thin image"))
            for target in (0, self.scene.table_end):  # neither is looked at
                position = position if self.strikes("SetFilePointerEx") else target
        return digest, position

    def chunk_out_of(self, builder, index):
        """A chunk from wherever in the chain it lies, proved on each level."""
        if builder.records[index].stored_length == 0:
            plain = self.chunk_out_of(self.scene.root, index)
        else:
            for call in ("SetFilePointerEx", "ReadFile"):
                self.fallible(call, "could not read chunk data from image (truncated?)")
            plain = builder.stored[index]
        if self.hash(plain) != builder.records[index].hash:
            self.die(fatal("chunk failed its hash check (corrupt image or base)"))
        return plain

    def expected(self, check):
        """As the sweep takes it; `check(machine, result)` looks at what the run left."""
        def check_all(machine, result):
            made = [name for name in result.sequence() if name != "exit"]
            if made != self.names:
                raise AssertionError(f"calls {made}\n    where these were expected: {self.names}")
            self.scene.expect_bases(machine)
            check(machine, result)
        return Expected(self.status, self.stdout, self.stderr, check_all)


# --- capture --------------------------------------------------------------------------------------------------------

class Capture(Model):
    def __init__(self, scene, thin, tracker, fault=None):
        super().__init__(scene, fault)
        self.thin, self.tracker = thin, tracker
        self.work = None         # the work file's content, once there is one
        self.position = 0
        self.published = self.committed = False
        self.unknown = None      # where 32 bytes of the work file are that nobody can know

    def perform(self):
        scene = self.scene
        self.fallible("CreateFileW", "could not open source disk for raw read (run as Administrator?)")
        self.geometry()
        self.stdout += source_line(1, scene.size)
        self.system_disk()
        device = not self.strikes("CreateFileW") and self.tracker
        available = self.ask_tracker(device)
        self.stdout += tracker_line(1, EPOCH) if available else NO_TRACKER
        self.stdout += base_line("base.vrnx")
        pin, _ = self.open("base.vrnx", scene.base)
        if available:
            self.stdout += proof_line(EPOCH - 1)
        elif self.thin:
            self.stdout += compared_line(REASON_NO_TRACKER)
        else:
            self.stdout += fallback_line(REASON_NO_TRACKER)
            self.strikes("CloseHandle")
        for _ in range(2 if self.thin else 0):
            if self.strikes("_fullpath"):
                self.die(fatal("could not resolve image paths"))
        self.strikes("GetFileAttributesA")  # a failure counts as absence
        self.fallible("CreateFileW", "could not create output image file")
        self.work = bytearray()
        self.move(scene.table_end)
        for _ in range(2):
            if self.strikes("_aligned_malloc"):
                self.die(fatal("out of memory allocating aligned I/O buffer"))
        self.strikes("GetTickCount64")
        records = [self.capture_chunk(index, available) for index in range(scene.count)]
        self.stdout += "\n"
        if self.thin:
            self.unknown = self.position + 12 + 9 if pin is None else None
            self.write(Trailer(b"base.vrnx", pin or bytes(32)).pack(), "could not write thin image trailer")
        self.move(0)
        self.write(HEADER.pack(b"VRNXDSK2", 3 if self.thin else 2, scene.size, 512, CHUNK, scene.count, 0,
                               (EPOCH if available else 0).to_bytes(7, "little"), bytes(16), 0))
        self.write(b"".join(record.pack() for record in records))
        closed = not self.strikes("CloseHandle")
        self.strikes("CloseHandle")
        if available or self.thin:
            self.strikes("CloseHandle")
        if available:
            self.committed = not self.strikes("DeviceIoControl")
            self.stdout += "" if self.committed else COMMIT_WARNING
        self.fallible("MoveFileExW", "could not atomically publish completed image")
        if not closed:  # a file that is still open and shared with nobody cannot be renamed
            self.die(fatal("could not atomically publish completed image", 32))
        self.published = True
        references, read = self.seen_references, self.seen_read
        if self.thin:
            self.stdout += thin_complete("new.vrnx", scene.count, references, read)
        elif available:
            self.stdout += copy_complete("new.vrnx", read, scene.count - read)
        else:
            self.stdout += full_complete("new.vrnx")
        if device:
            self.strikes("CloseHandle")

    seen_references = seen_read = 0

    def ask_tracker(self, device):
        """Attach and two queries, of which any failure makes the tracker unavailable."""
        if not device or self.strikes("DeviceIoControl"):
            return False
        # The first answer has no room for the bitmap and is a failure in itself; a fault leaves its status zero.
        return not self.strikes("DeviceIoControl") and not self.strikes("DeviceIoControl")

    def capture_chunk(self, index, available):
        scene, base = self.scene, self.scene.base.records[index]
        record = Record(index * CHUNK, scene.lengths[index], bytes(32))
        plain = scene.chunk(index)
        if available and index not in scene.changed:
            record.hash = base.hash
            if self.thin:
                record.stored_length = 0
            else:
                plain = self.chunk_out_of(scene.base, index)
        else:
            self.fallible("SetFilePointerEx", "SetFilePointerEx on source failed mid-capture")
            self.fallible("ReadFile",
                          "ReadFile from source disk failed mid-capture - image is incomplete, do not trust it")
            record.hash = self.hash(plain) or bytes(32)
            self.seen_read += 1
            if self.thin and record.hash == base.hash:
                record.stored_length = 0
        if record.stored_length:
            self.write(plain, "WriteFile to image file failed mid-capture (disk full?)")
        else:
            self.seen_references += 1
        self.progress(index)
        return record

    def move(self, position):
        """A seek of the work file that is not looked at."""
        if not self.strikes("SetFilePointerEx"):
            self.position = position

    def write(self, data, message=None):
        """A write to the work file; without a message its outcome is not looked at."""
        hit = self.strikes("WriteFile")
        done = data[:self.fault.effect.get("transferred", 0)] if hit else data
        if done:
            if len(self.work) < self.position:
                self.work.extend(bytes(self.position - len(self.work)))
            self.work[self.position:self.position + len(done)] = done
            self.position += len(done)
        if hit and message is not None:
            self.die(self.report(message))

    def check(self, machine, _):
        names = [] if self.work is None else ["new.vrnx" if self.published else "new.vrnx.partial"]
        if machine.files() != sorted(["base.vrnx", "root.vrnx", *names]):
            raise AssertionError(f"files {machine.files()} where the bases and {names} were expected")
        if machine.disk_bytes(1) != self.scene.disk:
            raise AssertionError("the source was changed")
        if names:
            actual = bytearray(machine.read(names[0]))
            if self.unknown is not None and len(actual) >= self.unknown + 32:
                actual[self.unknown:self.unknown + 32] = bytes(32)
            if actual != self.work:
                raise AssertionError(f"{names[0]}: {suite.first_difference(bytes(actual), bytes(self.work))}")
            if self.unknown is not None and is_accepted(machine.path(names[0])):
                raise AssertionError("an image that pins nothing passes for one")
            if not self.published and "MoveFileExW" not in self.names and is_accepted(machine.path(names[0])):
                raise AssertionError("an image that is not whole passes for one")
        if self.tracker:
            record = machine.tracker_disk(1)
            wanted = dict(self.scene.driver)
            if self.committed:
                wanted.update(previous_epoch=EPOCH, current_epoch=EPOCH + 1, gap=0, other_gap=0,
                              bitmap="00" * (len(wanted["bitmap"]) // 2))
            if record != wanted:
                raise AssertionError(f"the driver holds {record}\n    where {wanted} was expected")


# --- verify and restore ---------------------------------------------------------------------------------------------

class Reader(Model):
    """base.vrnx with stored chunks and references in turn."""

    def stored(self, index, position, message):
        """A stored chunk of the top image as the sequential walk finds it; gives its bytes and the place behind it."""
        length = self.scene.base.records[index].stored_length
        data = self.scene.files["base.vrnx"][position:position + length]
        if self.strikes("ReadFile"):
            self.die(self.report(message))
        if len(data) != length:
            self.die(fatal(message))
        return data, position + length


class Verify(Reader):
    def perform(self):
        scene, bad = self.scene, 0
        _, position = self.open("base.vrnx", scene.base)
        self.stdout += verifying_line("base.vrnx", scene.count, scene.size)
        if self.strikes("_aligned_malloc"):
            self.die(fatal("out of memory allocating aligned I/O buffer"))
        self.strikes("GetTickCount64")
        self.stdout += "  thin image: chain continues with root.vrnx\n"
        for index, record in enumerate(scene.base.records):
            if record.stored_length == 0:
                self.chunk_out_of(scene.base, index)
            else:
                data, position = self.stored(index, position, "could not read chunk data - image is truncated")
                if self.hash(data) != record.hash:
                    self.stdout += f"\n  chunk {index} (disk offset {index * READ_CHUNK}): HASH MISMATCH\n"
                    bad += 1
            self.progress(index)
        self.stdout += "\n"
        self.strikes("CloseHandle")
        if bad:
            self.die(verify_failed(bad, scene.count))
        self.stdout += f"Verify OK - all {scene.count} chunks match their recorded hash.\n"


class Restore(Reader):
    TARGET = None  # set with the scene below

    def perform(self):
        scene = self.scene
        self.target, self.at = bytearray(self.TARGET), 0
        self.system_disk()
        _, position = self.open("base.vrnx", scene.base)
        if self.strikes("CreateFileW"):
            self.die(exclusive_failure(2, self.fault.error))
        self.geometry()
        self.stdout += restoring_line("base.vrnx", 2, scene.count, scene.size)
        if self.strikes("_aligned_malloc"):
            self.die(fatal("out of memory allocating aligned I/O buffer"))
        self.strikes("GetTickCount64")
        for index, record in enumerate(scene.base.records):
            if record.stored_length == 0:
                data = self.chunk_out_of(scene.base, index)
            else:
                data, position = self.stored(index, position, "could not read chunk data from image - restore aborted, "
                                             "target disk left partially written")
                if self.hash(data) != record.hash:
                    self.die(f"\nFATAL: chunk {index} hash mismatch (corrupt image) - restore aborted, target disk"
                             " left partially written.\n")
            if not self.strikes("SetFilePointerEx"):
                self.at = index * READ_CHUNK
            hit = self.strikes("WriteFile")
            done = data[:self.fault.effect.get("transferred", 0)] if hit else data
            self.target[self.at:self.at + len(done)] = done
            self.at += len(done)
            if hit:
                self.die(self.report("WriteFile to target disk failed mid-restore - target disk left partially written,"
                                     " do not boot it yet"))
            self.progress(index)
        self.stdout += "\n"
        self.strikes("DeviceIoControl")
        self.strikes("CloseHandle")
        self.strikes("CloseHandle")
        self.stdout += RESTORE_COMPLETE

    def check(self, machine, _):
        actual = machine.disk_bytes(2)
        if actual != bytes(self.target):
            raise AssertionError(f"target: {suite.first_difference(actual, bytes(self.target))}")


# Stored chunks and references in turn: 0 and 2 are stored, 1 and 3 come out of the root.
READ_CHUNK = 4096
READ = Scene(("a", "a anew", "a anew"), ("b", "b", "b"), ("c", "c anew", "c anew"), ("d", "d", "d"), short=1536,
             chunk_size=READ_CHUNK)
Restore.TARGET = pattern(READ.size, "target")


def make_restored(folder):
    machine = READ.images(folder)
    machine.add_disk(2, Restore.TARGET)
    return machine


CAPTURE = ["capture", "--disk", "1", "--out", "new.vrnx", "--base", "base.vrnx"]
VERIFY = ["verify", "--in", "base.vrnx"]
RESTORE = ["restore", "--in", "base.vrnx", "--disk", "2", "--confirm", "YES"]


class FaultSweep(suite.Scenario):
    recorded = False  # a sample under Wine

    def sweep(self, make, arguments, model, least, clean_text=None):
        """Sweeps with the model as oracle; `clean_text` is what the healthy run prints, where it is said elsewhere."""
        clean = model(None).run()
        if clean_text is not None:
            self.assertEqual((clean.status, clean.stdout, clean.stderr), (0, clean_text, ""))

        def oracle(fault):
            run = model(fault).run()
            return run.expected(getattr(run, "check", lambda machine, result: None))

        count = sweep_faults(self, make, arguments,
                             clean.expected(getattr(clean, "check", lambda machine, result: None)), oracle)
        if not self.settings.sampled:
            self.assertGreaterEqual(count, least)

    def test_tracked_copy(self):
        self.sweep(TRACKED.capturing(True), CAPTURE, lambda fault: Capture(TRACKED, False, True, fault), 200,
                   incremental_text(TRACKED.size, "base.vrnx", proof_line(EPOCH - 1), copy_complete("new.vrnx", 1, 2),
                                    tracker=tracker_line(1, EPOCH)))

    def test_full_fallback(self):
        self.sweep(SMALL.capturing(False), CAPTURE, lambda fault: Capture(SMALL, False, False, fault), 150,
                   incremental_text(SMALL.size, "base.vrnx", fallback_line(REASON_NO_TRACKER),
                                    full_complete("new.vrnx")))

    def test_tracked_thin(self):
        self.sweep(SMALL.capturing(True), CAPTURE + ["--thin"], lambda fault: Capture(SMALL, True, True, fault), 145,
                   incremental_text(SMALL.size, "base.vrnx", proof_line(EPOCH - 1), thin_complete("new.vrnx", 2, 1, 1),
                                    tracker=tracker_line(1, EPOCH)))

    def test_compared_thin(self):
        self.sweep(SMALL.capturing(False), CAPTURE + ["--thin"], lambda fault: Capture(SMALL, True, False, fault), 150,
                   incremental_text(SMALL.size, "base.vrnx", compared_line(REASON_NO_TRACKER),
                                    thin_complete("new.vrnx", 2, 1, 2)))

    def test_verify_of_a_thin_image(self):
        self.sweep(READ.images, VERIFY, lambda fault: Verify(READ, fault), 170,
                   thin_verify_text("base.vrnx", "root.vrnx", READ.size, READ_CHUNK))

    def test_restore_of_a_thin_image(self):
        self.sweep(make_restored, RESTORE, lambda fault: Restore(READ, fault), 210)


class KillSweep(suite.Scenario):
    recorded = False  # a sample under Wine

    def expect_worth_it(self, count, least):
        if not self.settings.sampled:
            self.assertGreaterEqual(count, least)

    def sweep_capture(self, scene, thin, tracker, settled, complete, least):
        """Kills a capture at each call; what it leaves is no image or a good one, the bases are as they were, and so is
        the driver until the commit."""
        line = tracker_line(1, EPOCH) if tracker else NO_TRACKER
        clean = Expected(0, incremental_text(scene.size, "base.vrnx", settled, complete, tracker=line))
        arguments = CAPTURE + (["--thin"] if thin else [])
        stages = {}

        def after(machine, result, call):
            scene.expect_bases(machine)
            committed = any(line["call"] == "DeviceIoControl" and line["code"] == "0x8C7D200C" for line in result.log)
            published = "MoveFileExW" in result.sequence()
            created = bool(result.calls("CreateFileW", path="new.vrnx.partial"))
            stages[machine.folder] = committed, published
            name = "new.vrnx" if published else "new.vrnx.partial"
            if machine.files() != sorted(["base.vrnx", "root.vrnx"] + ([name] if created else [])):
                raise AssertionError(f"files {machine.files()}")
            if tracker:
                record = machine.tracker_disk(1)
                if not committed and record != scene.driver:
                    raise AssertionError(f"the driver holds {record} though nothing was committed")
                if committed and record["previous_epoch"] != EPOCH:
                    raise AssertionError(f"the driver holds {record} though the epoch was committed")
            if created:
                # The table is written behind the header, by the last write.
                finished = any(line["offset"] == 64 for line in result.calls("WriteFile", path="new.vrnx.partial"))
                if is_accepted(machine.path(name)) != finished:
                    raise AssertionError(f"the second reader {'takes' if not finished else 'refuses'} {name}")
                if finished and reference_plain_bytes(machine.path(name)) != scene.disk:
                    raise AssertionError(f"{name} stands for another disk")

        def again(machine, call):
            committed, published = stages[machine.folder]
            if published:
                now = tracker_line(1, EPOCH + 1) if tracker else NO_TRACKER
                lost = (compared_line if thin else fallback_line)(REASON_NOT_LATEST if tracker else REASON_NO_TRACKER)
                return Expected(1, source_line(1, scene.size) + now + base_line("base.vrnx") + lost,
                                fatal("refusing to overwrite an existing output image"))
            if committed:
                text = incremental_text(
                    scene.size, "base.vrnx", (compared_line if thin else fallback_line)(REASON_NOT_LATEST),
                    thin_complete("new.vrnx", scene.count, scene.count - len(scene.changed), scene.count) if thin
                    else full_complete("new.vrnx"), tracker=tracker_line(1, EPOCH + 1))
                return Expected(0, text, "", self.good(scene))
            return Expected(0, clean.stdout, "", self.good(scene))

        count = sweep_kills(self, scene.capturing(tracker), arguments, clean, after, again)
        self.expect_worth_it(count, least)

    @staticmethod
    def good(scene):
        def check(machine, _):
            scene.expect_bases(machine)
            if machine.files() != ["base.vrnx", "new.vrnx", "root.vrnx"]:
                raise AssertionError(f"files {machine.files()}")
            if reference_plain_bytes(machine.path("new.vrnx")) != scene.disk:
                raise AssertionError("new.vrnx stands for another disk")
        return check

    def test_tracked_copy(self):
        self.sweep_capture(TRACKED, False, True, proof_line(EPOCH - 1), copy_complete("new.vrnx", 1, 2), 80)

    def test_tracked_thin(self):
        self.sweep_capture(SMALL, True, True, proof_line(EPOCH - 1), thin_complete("new.vrnx", 2, 1, 1), 70)

    def test_compared_thin(self):
        self.sweep_capture(SMALL, True, False, compared_line(REASON_NO_TRACKER), thin_complete("new.vrnx", 2, 1, 2), 70)

    def test_restore_of_a_thin_image(self):
        def after(machine, _result, _call):
            READ.expect_bases(machine)

        model = Restore(READ).run()
        self.assertEqual(model.status, 0)
        count = sweep_kills(self, make_restored, RESTORE, Expected(0, model.stdout, "", model.check), after)
        self.expect_worth_it(count, 90)


if __name__ == "__main__":
    suite.main()
