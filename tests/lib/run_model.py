"""A run under one fault as the program promises it, call by call: what it prints, how it ends, what it leaves.

The oracle of the sweeps. A model goes through a run with the fault striking where it is due, and reads no log: the
names of the calls that it comes to are held against the log of the run. `sweep_model` makes a sweep of it.
"""

import hashlib

import image
from consolidate_runs import NO_OUTPUT, NO_PATHS, WRITE_FAILED, consolidated_line
from console import (LARGER_TARGET_NOTE, NO_TRACKER, RESTORE_COMPLETE, exclusive_failure, fatal, fatal_status, meter,
                     restoring_line, source_line, verify_failed, verifying_line)
from image import ImageBuilder, Record, Trailer, derive_key, is_accepted, read_table, reference_plain_bytes
from incremental import (COMMIT_WARNING, MIB4, REASON_NO_TRACKER, base_line, compared_line, copy_complete,
                         fallback_line, full_complete, hollow, marked, missing_base, other_base, proof_line,
                         thin_complete, tracker_line, write_hollow)
from machine import TRACKER_COMMIT, Machine, pattern
from sealing import PASSWORD, restore_unauthentic, verify_mismatch, verify_unauthentic
from suite import require, require_equal
from sweep import Expected, sweep_faults, sweep_kills

SHIFT = 16
EPOCH = 0x11  # that of the capture; the top image has the one before
OUT = "out.vrnx"  # of a consolidation
NOTHING = hashlib.sha256(b"").digest()


class Scene:
    """A disk, and images of what it held before: those of `names`, each over the one before it. A chunk is given by its
    seeds: one for each image and the last for the disk now."""

    def __init__(self, names, *chunks, short=512, chunk_size=MIB4, sealed=(), behind=0):
        self.lengths = [chunk_size] * (len(chunks) - 1) + [short]
        self.chunk_size, self.count, self.size = chunk_size, len(chunks), sum(self.lengths)
        self.table_end = 64 + 72 * self.count
        self.images, self.plains, below = {}, {}, None
        for place, name in enumerate(names):
            self.plains[name] = self.contents(chunks, place)
            builder = ImageBuilder(self.plains[name], chunk_size=chunk_size, epoch=EPOCH - len(names) + place,
                                   password=PASSWORD if name in sealed else None, seed=name)
            if below is not None:
                builder.header.version = 3
                builder.trailer = Trailer(below.encode(), self.images[below].digest())
                for index, seeds in enumerate(chunks):
                    if seeds[place - 1] == seeds[place]:
                        builder.records[index].stored_length, builder.stored[index] = 0, b""
            self.images[name], below = builder, name
        self.top = below
        self.disk = self.contents(chunks, -1)
        self.changed = [index for index, seeds in enumerate(chunks) if len(seeds) > 1 and seeds[-2] != seeds[-1]]
        self.files = {name: builder.to_bytes() for name, builder in self.images.items()}
        self.files["password"] = PASSWORD + b"\r\n"
        self.driver = {"number": 1, "has_previous_epoch": 1, "previous_epoch": EPOCH - 1, "current_epoch": EPOCH,
                       "bitmap": marked(self.size, SHIFT, *[(index * chunk_size, 1) for index in self.changed])}
        self.target = pattern(self.size + behind, "target")

    def contents(self, chunks, version):
        return b"".join(hollow(length, seeds[version]) for length, seeds in zip(self.lengths, chunks))

    def chunk(self, index, name=None):
        """A chunk of the disk, or of what an image stands for."""
        at = index * self.chunk_size
        return (self.plains[name] if name else self.disk)[at:at + self.lengths[index]]

    def reading(self, folder, target=None):
        """A machine with the images and a target, as large as the images' disk where nothing else is said."""
        machine = Machine(folder, default=False)
        machine.add_disk(0, bytes(4096))
        machine.system_volume([(0, 0, 512)])
        machine.add_disk(2, self.target if target is None else target)
        for name, data in self.files.items():
            write_hollow(machine.path(name), data)
        return machine

    def capturing(self, tracker=False):
        """What makes a machine with the images and the disk, and with the driver where it is wanted."""
        def make(folder):
            machine = self.reading(folder, target=bytes(4096))
            machine.add_disk(1, 0)
            write_hollow(machine.disk_path(1), self.disk)
            if tracker:
                machine.tracker([self.driver])
            return machine
        return make

    def expect_files(self, machine, *made):
        """Nothing was changed that was there, and these files came."""
        require_equal(machine.files(), sorted([*self.files, *made]), "files")
        for name, data in self.files.items():
            require_equal(machine.read(name), data, f"{name}, which was there before")


class Ended(Exception):
    """The run ended with status 1."""


class Model:
    """A run under one fault, or under none. After `run()`: what it prints, how it ends, and which calls it makes."""

    def __init__(self, scene=None, fault=None):
        self.scene, self.fault, self.seen, self.names = scene, fault, {}, []
        self.stdout = self.stderr = ""
        self.status = self.meters = 0

    def run(self):
        try:
            self.perform()
        except Ended:
            self.status = 1
        return self

    def expected(self):
        """As the sweep takes it; `check(machine)` looks at what the run left."""
        def check_all(machine, result):
            require_equal([name for name in result.sequence() if name != "exit"], self.names, "calls")
            self.check(machine)
        return Expected(self.status, self.stdout, self.stderr, check_all)

    def check(self, machine):
        pass

    # --- What calls are made of ---

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
        """A call of cryptography whose failure is fatal with its status; the message names it."""
        if self.strikes(name):
            self.die(fatal_status(message, self.fault.status))

    def transferred(self, data):
        """As much of the data as a failing transfer moves."""
        return data[:self.fault.effect.get("transferred", 0)]

    # --- What runs are made of ---

    def progress(self, index):
        if index in (0, self.scene.count - 1):
            self.strikes("GetTickCount64")
            self.meters += 1
            done = index * self.scene.chunk_size + self.scene.lengths[index]
            self.stdout += meter(done, self.scene.size, self.meters)

    def system_disk(self):
        self.fallible("CreateFileW", "could not open C: to determine the system disk number")
        failed = self.strikes("DeviceIoControl")
        self.strikes("CloseHandle")
        if failed:
            self.die(self.report("IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS on C: failed"))

    def geometry(self):
        for name in ("LENGTH_INFO", "DRIVE_GEOMETRY_EX"):
            self.fallible("DeviceIoControl", f"IOCTL_DISK_GET_{name} failed")

    def buffer(self):
        if self.strikes("_aligned_malloc"):
            self.die(fatal("out of memory allocating aligned I/O buffer"))

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

    def random(self):
        self.primitive("BCryptOpenAlgorithmProvider", "BCryptOpenAlgorithmProvider(RNG)")
        self.primitive("BCryptGenRandom", "BCryptGenRandom")
        self.strikes("BCryptCloseAlgorithmProvider")

    def key(self):
        self.primitive("BCryptOpenAlgorithmProvider", "BCryptOpenAlgorithmProvider(HMAC-SHA256)")
        self.primitive("BCryptDeriveKeyPBKDF2", "BCryptDeriveKeyPBKDF2")
        self.strikes("BCryptCloseAlgorithmProvider")
        self.primitive("BCryptOpenAlgorithmProvider", "BCryptOpenAlgorithmProvider(AES)")
        self.primitive("BCryptSetProperty", "BCryptSetProperty(GCM)")
        self.strikes("BCryptGetProperty")
        self.primitive("BCryptGenerateSymmetricKey", "BCryptGenerateSymmetricKey")

    def release_key(self):
        self.strikes("BCryptDestroyKey")
        self.strikes("BCryptCloseAlgorithmProvider")

    def open(self, name):
        """Opens an image and what lies below it; gives its digest as the run has it, None for an unknown one, and where
        the file pointer of the image stands."""
        builder = self.scene.images[name]
        self.fallible("CreateFileW", "could not open image file", f"could not open image file: {name}\n")
        self.fallible("ReadFile", "could not read image header - file is truncated or not a .vrnx image")
        self.fallible("GetFileSizeEx", "image is truncated before its chunk table")
        self.fallible("ReadFile", "could not read chunk table - image is truncated")
        digest = self.hash(builder.head())
        position = self.scene.table_end
        if builder.header.encrypted:
            self.key()
        if builder.trailer is not None:
            for call in ("SetFilePointerEx", "ReadFile"):
                self.fallible(call, "thin image has no valid trailer - file is truncated")
            for call in ("SetFilePointerEx", "ReadFile"):
                self.fallible(call, "could not read thin image trailer")
            position = len(builder.to_bytes())
            base = builder.trailer.base_name.decode()
            self.fallible("GetFileAttributesA", "base image of a thin image not found", missing_base(base))
            if self.open(base)[0] != builder.trailer.base_digest:
                self.die(other_base(base) + fatal("base image does not match the one pinned in the thin image"))
            for target in (0, self.scene.table_end):  # neither is looked at
                position = position if self.strikes("SetFilePointerEx") else target
        return digest, position

    def chunk_out_of(self, name, index):
        """A chunk from wherever in the chain it lies, proved on each level."""
        builder = self.scene.images[name]
        if builder.records[index].stored_length == 0:
            plain = self.chunk_out_of(builder.trailer.base_name.decode(), index)
        else:
            for call in ("SetFilePointerEx", "ReadFile"):
                self.fallible(call, "could not read chunk data from image (truncated?)")
            if builder.header.encrypted and self.strikes("BCryptDecrypt"):
                self.die(fatal("chunk failed authentication (corrupt or tampered image)"))
            plain = self.scene.chunk(index, name)
        if self.hash(plain) != builder.records[index].hash:
            self.die(fatal("chunk failed its hash check (corrupt image or base)"))
        return plain


# --- list-disks -----------------------------------------------------------------------------------------------------

class ListDisks(Model):
    LISTING = {
        0: "PhysicalDrive0       0.00 GiB  sector 512 bytes   <- currently booted system disk\n",
        1: "PhysicalDrive1       0.00 GiB  sector 4096 bytes\n",
        5: "PhysicalDrive5       1.50 GiB  sector 512 bytes\n",
    }

    @staticmethod
    def make(folder):
        machine = Machine(folder, default=False)
        machine.add_disk(0, bytes(4096))
        machine.add_disk(1, bytes(4096), sector_size=4096)
        machine.add_disk(5, 512, length=3 << 29)
        machine.system_volume([(0, 512, 1024)])
        return machine

    def perform(self):
        for disk in range(16):
            if self.strikes("CreateFileW") or disk not in self.LISTING:
                continue
            self.geometry()
            self.system_disk()
            self.stdout += self.LISTING[disk]
            self.strikes("CloseHandle")


# --- capture --------------------------------------------------------------------------------------------------------

class Writer(Model):
    """A run that writes an image."""

    def __init__(self, scene, fault=None):
        super().__init__(scene, fault)
        self.work = None  # the content of the image, once there is one; what is sealed stands there plain
        self.place = 0    # where the file pointer of the image stands

    def move(self, position):
        """A seek of the work file that is not looked at; gives whether it succeeds."""
        if self.strikes("SetFilePointerEx"):
            return False
        self.place = position
        return True

    def write(self, data, message=None):
        """A write to the work file; without a message its outcome is not looked at. Gives whether it succeeds."""
        hit = self.strikes("WriteFile")
        done = self.transferred(data) if hit else data
        if done:
            if len(self.work) < self.place:
                self.work.extend(bytes(self.place - len(self.work)))
            self.work[self.place:self.place + len(done)] = done
            self.place += len(done)
        if hit and message is not None:
            self.die(self.report(message))
        return not hit


class Capture(Writer):
    """A capture to new.vrnx, over the top image of the scene where it has one."""

    def __init__(self, scene, fault=None, *, thin=False, tracker=False, seal=False):
        super().__init__(scene, fault)
        self.thin, self.tracker, self.seal = thin, tracker, seal
        self.published = self.committed = False
        self.headed = self.sound = True  # header and table are what and where they should be; the data too
        self.unknown = None      # where 32 bytes of the work file are that nobody can know
        self.references = self.chunks_read = 0
        self.hashes = []

    def perform(self):
        scene = self.scene
        self.fallible("CreateFileW", "could not open source disk for raw read (run as Administrator?)")
        self.geometry()
        self.stdout += source_line(1, scene.size)
        self.system_disk()
        device = not self.strikes("CreateFileW") and self.tracker
        available = self.ask_tracker(device)
        self.stdout += tracker_line(1, EPOCH) if available else NO_TRACKER
        pin = self.settle(available) if scene.top else None
        if self.seal:
            self.random()
            self.key()
        self.strikes("GetFileAttributesA")  # a failure counts as absence
        self.fallible("CreateFileW", "could not create output image file")
        self.work = bytearray()
        self.sound = self.move(scene.table_end)
        for _ in range(2):
            self.buffer()
        self.strikes("GetTickCount64")
        records = [self.capture_chunk(index, available and bool(scene.top)) for index in range(scene.count)]
        self.hashes = [record.hash for record in records]
        self.stdout += "\n"
        if self.thin:
            self.unknown = self.place + 12 + len(scene.top) if pin is None else None
            self.write(Trailer(scene.top.encode(), pin or bytes(32)).pack(), "could not write thin image trailer")
        header = ImageBuilder(scene.disk, chunk_size=scene.chunk_size, epoch=EPOCH if available else 0).header
        header.version = 3 if self.thin else 2
        self.headed = self.move(0)
        for part in (header.pack(), b"".join(record.pack() for record in records)):
            self.headed = self.write(part) and self.headed
        closed = not self.strikes("CloseHandle")
        self.strikes("CloseHandle")
        if scene.top and (available or self.thin):
            self.strikes("CloseHandle")
        if available:
            self.committed = not self.strikes("DeviceIoControl")
            self.stdout += "" if self.committed else COMMIT_WARNING
        self.fallible("MoveFileExW", "could not atomically publish completed image")
        if not closed:  # a file that is still open and shared with nobody cannot be renamed
            self.die(fatal("could not atomically publish completed image", 32))
        self.published = True
        if self.thin:
            self.stdout += thin_complete("new.vrnx", scene.count, self.references, self.chunks_read)
        elif available and scene.top:
            self.stdout += copy_complete("new.vrnx", self.chunks_read, scene.count - self.chunks_read)
        else:
            self.stdout += full_complete("new.vrnx")
        if device:
            self.strikes("CloseHandle")
        if self.seal:
            self.release_key()

    def ask_tracker(self, device):
        """Attach and two queries, of which any failure makes the tracker unavailable."""
        if not device or self.strikes("DeviceIoControl"):
            return False
        # The first answer has no room for the bitmap and is a failure in itself; a fault leaves its status zero.
        return not self.strikes("DeviceIoControl") and not self.strikes("DeviceIoControl")

    def settle(self, available):
        """Opens the base and settles the mode; gives the digest to pin."""
        self.stdout += base_line(self.scene.top)
        pin, _ = self.open(self.scene.top)
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
        return pin

    def capture_chunk(self, index, proved):
        scene = self.scene
        record = Record(index * scene.chunk_size, scene.lengths[index], bytes(32))
        base = scene.images[scene.top].records[index] if scene.top else None
        plain = scene.chunk(index)
        if proved and index not in scene.changed:
            record.hash = base.hash
            if self.thin:
                record.stored_length = 0
            else:
                plain = self.chunk_out_of(scene.top, index)
        else:
            self.fallible("SetFilePointerEx", "SetFilePointerEx on source failed mid-capture")
            self.fallible("ReadFile",
                          "ReadFile from source disk failed mid-capture - image is incomplete, do not trust it")
            record.hash = self.hash(plain) or bytes(32)
            self.chunks_read += 1
            if self.thin and record.hash == base.hash:
                record.stored_length = 0
        if record.stored_length:
            if self.seal:
                self.random()
                self.primitive("BCryptEncrypt", "BCryptEncrypt")
            self.write(plain, "WriteFile to image file failed mid-capture (disk full?)")
        else:
            self.references += 1
        self.progress(index)
        return record

    # --- What it leaves ---

    def check(self, machine):
        names = [] if self.work is None else ["new.vrnx" if self.published else "new.vrnx.partial"]
        self.scene.expect_files(machine, *names)
        require_equal(machine.disk_bytes(1), self.scene.disk, "the source")
        for name in names:
            whole = self.published or "MoveFileExW" in self.names
            require(whole or not is_accepted(machine.path(name)), "an image that is not whole passes for one")
            (self.check_sealed if self.seal else self.check_plain)(machine, name, whole)
        if self.tracker:
            self.check_tracker(machine)

    def check_plain(self, machine, name, _whole):
        actual = bytearray(machine.read(name))
        if self.unknown is not None and len(actual) >= self.unknown + 32:
            actual[self.unknown:self.unknown + 32] = bytes(32)
        require_equal(actual, self.work, name)
        if self.unknown is not None:
            require(not is_accepted(machine.path(name)), "an image that pins nothing passes for one")

    def check_sealed(self, machine, name, whole):
        """Of a sealed image the length is foretold, the zeros at its start, and what its chunks open to."""
        content = machine.read(name)
        require_equal(len(content), len(self.work), "bytes of the work file")
        if not whole and self.sound:
            require(not content[:self.scene.table_end].strip(b"\0"), "the start of an unfinished work file is not zero")
        if whole and not (self.headed and self.sound):
            require(image.check_image(machine.path(name), PASSWORD), "an image that is not whole passes for one")
        elif whole:
            header, records = read_table(machine.path(name))
            require_equal([record.hash for record in records], self.hashes, "hashes")
            opened, key = image.Image(machine.path(name)), derive_key(PASSWORD, header.salt, header.kdf_iterations)
            for index, record in enumerate(records):
                plain = image.unseal(key, record.nonce, record.tag, opened.stored_bytes(index))
                require_equal(plain or b"", self.scene.chunk(index), f"chunk {index}, opened")

    def check_tracker(self, machine):
        wanted = dict(self.scene.driver)
        if self.committed:
            wanted.update(previous_epoch=EPOCH, current_epoch=EPOCH + 1, gap=0, other_gap=0,
                          bitmap="00" * (len(wanted["bitmap"]) // 2))
        require_equal(machine.tracker_disk(1), wanted, "the driver")


# --- verify and restore ---------------------------------------------------------------------------------------------

class Reader(Model):
    """The top image of the scene, which the disk equals, from its first chunk to its last."""

    written = b""  # what reached the target, from its first byte on

    def begin(self):
        self.top, self.top_name = self.scene.images[self.scene.top], self.scene.top
        self.position = self.open(self.scene.top)[1]

    @property
    def sealed(self):
        return bool(self.top.header.encrypted)

    def next_chunk(self, index, message):
        """A stored chunk as the sequential walk finds it; of a full image, what stands in its place."""
        self.fallible("ReadFile", message)
        if self.top.trailer is None:
            return self.scene.chunk(index)
        length = self.top.records[index].stored_length
        data = self.scene.files[self.scene.top][self.position:self.position + length]
        if len(data) != length:
            self.die(fatal(message))
        self.position += length
        return data

    def check(self, machine):
        self.scene.expect_files(machine)
        require_equal(machine.disk_bytes(2), self.written + self.scene.target[len(self.written):], "target")


class Verify(Reader):
    def perform(self):
        self.begin()
        self.compare()

    def compare(self):
        scene, bad = self.scene, 0
        self.stdout += verifying_line(self.top_name, scene.count, scene.size)
        self.buffer()
        self.strikes("GetTickCount64")
        if self.top.trailer is not None:
            self.stdout += f"  thin image: chain continues with {self.top.trailer.base_name.decode()}\n"
        for index, record in enumerate(self.top.records):
            if record.stored_length == 0:
                self.chunk_out_of(scene.top, index)
            else:
                plain = self.next_chunk(index, "could not read chunk data - image is truncated")
                if self.sealed and self.strikes("BCryptDecrypt"):
                    self.stdout += verify_unauthentic(index, scene.chunk_size)
                    bad += 1
                    continue
                if self.hash(plain) != record.hash:
                    self.stdout += verify_mismatch(index, scene.chunk_size)
                    bad += 1
            self.progress(index)
        self.stdout += "\n"
        self.strikes("CloseHandle")
        if bad:
            self.die(verify_failed(bad, scene.count))
        self.stdout += f"Verify OK - all {scene.count} chunks match their recorded hash.\n"
        if self.sealed:
            self.release_key()


# --- consolidate ----------------------------------------------------------------------------------------------------

class Consolidate(Writer, Verify):
    """The top image of the scene, which the disk equals, folded into out.vrnx."""

    def __init__(self, scene, fault=None, *, seal=False):
        super().__init__(scene, fault)
        self.seal, self.complete = seal, False
        self.trouble = {}  # what is wrong with the output, by what of it shows that to the closing verification

    def perform(self):
        for _ in ("--in", "--out"):
            if self.strikes("_fullpath"):
                self.die(fatal(NO_PATHS))
        self.strikes("GetFileAttributesA")  # a failed look for the output finds none
        self.open(self.scene.top)
        if self.seal:
            self.random()
            self.key()
        self.fallible("CreateFileW", NO_OUTPUT)
        self.work = bytearray()
        self.fold()
        self.close()
        self.reopen()
        self.meters = 0
        self.compare()
        for builder in [self.top] * self.seal + list(self.scene.images.values()):
            if builder.header.encrypted:
                self.release_key()

    def fold(self):
        if not self.move(self.scene.table_end):
            # With no room kept for header and table, the chunks come to lie at the start, and the start over them.
            self.trouble["table"] = "image chunk data extends past end of file"
        self.strikes("GetTickCount64")
        for index in range(self.scene.count):
            plain = self.chunk_out_of(self.scene.top, index)
            if self.seal:
                self.random()
                self.primitive("BCryptEncrypt", "BCryptEncrypt")
            self.write(plain, WRITE_FAILED)
            self.progress(index)

    def close(self):
        """The writes of the start, at which nobody looks: the verification finds what went wrong with them."""
        no_magic = "not a recognized Vornix image (bad magic/version)"
        if not self.move(0):
            self.trouble["header"] = no_magic
        self.top, self.top_name = ImageBuilder(self.scene.disk, chunk_size=self.scene.chunk_size), OUT
        self.top.header.encrypted = int(self.seal)
        head = self.top.head()
        if not self.write(head[:64]):
            # What follows a header of which nothing or a half was written takes its place.
            half = "transferred" in self.fault.effect
            self.trouble["header"] = "image has invalid encryption/KDF parameters" if half else no_magic
        if not self.write(head[64:]):
            self.trouble["table"] = "image chunk table has an invalid offset or length"
        self.complete = not self.trouble
        closed = not self.strikes("CloseHandle")
        self.strikes("CloseHandle")
        self.stdout += "\n" + consolidated_line(OUT)
        if not closed:  # nobody else is let to a file that is still open
            self.trouble["open"] = 32

    def reopen(self):
        message = "could not open image file"
        self.fallible("CreateFileW", message, f"{message}: {OUT}\n")
        if "open" in self.trouble:
            self.die(f"{message}: {OUT}\n" + fatal(message, 32))
        self.fallible("ReadFile", "could not read image header - file is truncated or not a .vrnx image")
        if "header" in self.trouble:
            self.die(fatal(self.trouble["header"]))
        self.fallible("GetFileSizeEx", "image is truncated before its chunk table")
        self.fallible("ReadFile", "could not read chunk table - image is truncated")
        self.hash(self.top.head())
        if "table" in self.trouble:
            self.die(fatal(self.trouble["table"]))
        if self.seal:
            self.key()

    def check(self, machine):
        self.scene.expect_files(machine, *([] if self.work is None else [OUT]))
        if self.work is None:
            return
        actual = machine.read(OUT)
        require_equal(is_accepted(machine.path(OUT)), self.complete, "whether the output passes for an image")
        require_equal(len(actual), len(self.work), "bytes of the output")
        require(self.seal or actual == self.work, "the output differs")
        if self.complete:
            require_equal(reference_plain_bytes(machine.path(OUT), PASSWORD), self.scene.disk, "what it stands for")
        start = self.scene.table_end
        require(any(self.work[:start]) or not any(actual[:start]), "the start of the output is not zero")


class Restore(Reader):
    def perform(self):
        scene, at = self.scene, 0
        target = bytearray(scene.target)
        self.written = target
        self.system_disk()
        self.begin()
        if self.strikes("CreateFileW"):
            self.die(exclusive_failure(2, self.fault.error))
        self.geometry()
        self.stdout += LARGER_TARGET_NOTE if len(target) > scene.size else ""
        self.stdout += restoring_line(scene.top, 2, scene.count, scene.size)
        self.buffer()
        self.strikes("GetTickCount64")
        for index, record in enumerate(self.top.records):
            if record.stored_length == 0:
                plain = self.chunk_out_of(scene.top, index)
            else:
                plain = self.next_chunk(index, "could not read chunk data from image - restore aborted, "
                                        "target disk left partially written")
                if self.sealed and self.strikes("BCryptDecrypt"):
                    self.die(restore_unauthentic(index))
                if not self.sealed and self.hash(plain) != record.hash:
                    self.die(f"\nFATAL: chunk {index} hash mismatch (corrupt image) - restore aborted, target disk left"
                             " partially written.\n")
            if not self.strikes("SetFilePointerEx"):  # one that fails is not looked at
                at = index * scene.chunk_size
            hit = self.strikes("WriteFile")
            done = self.transferred(plain) if hit else plain
            target[at:at + len(done)] = done
            at += len(done)
            if hit:
                self.die(self.report("WriteFile to target disk failed mid-restore - target disk left partially "
                                     "written, do not boot it yet"))
            self.progress(index)
        self.stdout += "\n"
        for call in ("DeviceIoControl", "CloseHandle", "CloseHandle"):
            self.strikes(call)
        self.stdout += RESTORE_COMPLETE
        if self.sealed:
            self.release_key()


# --- The sweeps -----------------------------------------------------------------------------------------------------

def sweep_model(test, make, arguments, model, clean_text, least):
    """Sweeps with `model(fault)` as oracle; the healthy run prints `clean_text`, and at least so many runs are worth
    it."""
    clean = model(None).run()
    test.assertEqual((clean.status, clean.stdout, clean.stderr), (0, clean_text, ""))
    sweep_faults(test, make, arguments, clean.expected(), lambda fault: model(fault).run().expected(), least=least)


def sweep_capture_kills(test, scene, arguments, clean_text, least, *, tracker=False, committed_text=None,
                        refused_text=None, look=None):
    """Kills a capture at each call. What it leaves is no image or the right one, nothing else is changed, and the
    driver holds the older epoch until the commit. The next run prints what the healthy one did, but `committed_text`
    where the epoch is spent, and is refused behind `refused_text` where the image has its name. `look(machine, result,
    name, finished)` has more to ask of the file."""
    stages = {}

    def after(machine, result, call):
        committed = bool(result.calls("DeviceIoControl", code=TRACKER_COMMIT))
        published = bool(result.calls("MoveFileExW"))
        created = bool(result.calls("CreateFileW", path="new.vrnx.partial"))
        stages[machine.folder] = committed, published
        name = "new.vrnx" if published else "new.vrnx.partial"
        scene.expect_files(machine, *([name] if created else []))
        if tracker:
            record = machine.tracker_disk(1)
            require(record["previous_epoch"] == EPOCH if committed else record == scene.driver,
                    f"the driver holds {record} with {'a' if committed else 'no'} commit")
        if not created:
            return
        # Header and table come last, the table last of all: before that the start of the file is zero.
        writes = [line["offset"] for line in result.calls("WriteFile", path="new.vrnx.partial")]
        finished = 64 in writes
        require_equal(is_accepted(machine.path(name)), finished, f"whether the second reader takes {name}")
        if finished:
            require_equal(reference_plain_bytes(machine.path(name), PASSWORD), scene.disk, f"what {name} stands for")
        at_header = 0 in writes or call.kind == "WriteFile" and call.line["offset"] == 0
        require(at_header or not machine.read(name)[:scene.table_end].strip(b"\0"), f"the start of {name} is not zero")
        if look is not None:
            look(machine, result, name, finished)

    def good(machine, _result):
        scene.expect_files(machine, "new.vrnx")
        require_equal(reference_plain_bytes(machine.path("new.vrnx"), PASSWORD), scene.disk, "the new image")

    def again(machine, _call):
        committed, published = stages[machine.folder]
        if published:
            return Expected(1, refused_text, fatal("refusing to overwrite an existing output image"))
        return Expected(0, committed_text if committed else clean_text, "", good)

    sweep_kills(test, scene.capturing(tracker), arguments, Expected(0, clean_text), after, again, least=least)
