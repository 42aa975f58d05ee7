"""The sweeps over runs with sealed images: capture --encrypt, and verify and restore of a sealed image, with each call
of the platform failing in turn; and capture --encrypt with the process ended at each.

The models below go through a run as the program promises it, call by call, with the fault striking where it is due.
They read no log: the names of the calls that they come to are held against the log of the run.
"""

import hashlib
import json
import os

import image
import suite
from console import (NO_TRACKER, RESTORE_COMPLETE, capture_text, exclusive_failure, fatal, fatal_status, meter,
                     restore_text, restoring_line, source_line, verify_failed, verify_text, verifying_line)
from image import ImageBuilder, derive_key, is_accepted, read_table, reference_plain_bytes
from machine import Machine, pattern
from sealing import PASSWORD, restore_unauthentic, verify_mismatch, verify_unauthentic
from sweep import Expected, sweep_faults, sweep_kills

CHUNK = 0x400000
SOURCE_BYTES = pattern(CHUNK + 512, "source")
LENGTHS = (CHUNK, 512)
TABLE_END = 64 + 72 * len(LENGTHS)
CAPTURE = ["capture", "--disk", "1", "--out", "a.vrnx", "--encrypt", "--password-file", "password"]
NOTHING = hashlib.sha256(b"").digest()

IMAGE_BYTES = pattern(2 * 4096 + 512, "image")
IMAGE_LENGTHS = (4096, 4096, 512)
TARGET_BYTES = pattern(len(IMAGE_BYTES), "target")
VERIFY = ["verify", "--in", "a.vrnx", "--password-file", "password"]
RESTORE = ["restore", "--in", "a.vrnx", "--disk", "2", "--confirm", "YES", "--password-file", "password"]


class Ended(Exception):
    """The run ended with status 1."""


class Model:
    """A run under one fault, or under none. After `run()`: what it prints, how it ends, and which calls it makes."""

    def __init__(self, fault=None):
        self.fault, self.seen, self.names = fault, {}, []
        self.stdout = self.stderr = ""
        self.status = 0
        self.meters = 0

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

    def fallible(self, name, message, before=""):
        """A call whose failure is fatal with the last error."""
        if self.strikes(name):
            error = self.fault.error
            self.die(before + (fatal(message) if error is None else fatal(message, error)))

    def primitive(self, name, message):
        """A call of cryptography whose failure is fatal with its status; the message names it."""
        if self.strikes(name):
            self.die(fatal_status(message, self.fault.status))

    def print_meter(self, done, total):
        self.strikes("GetTickCount64")
        self.meters += 1
        self.stdout += meter(done, total, self.meters)

    def system_disk(self):
        self.fallible("CreateFileW", "could not open C: to determine the system disk number")
        failed = self.strikes("DeviceIoControl")
        error = self.fault.error if failed else None
        self.strikes("CloseHandle")
        if failed:
            self.die(fatal("IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS on C: failed", error))

    def geometry(self):
        for name in ("LENGTH_INFO", "DRIVE_GEOMETRY_EX"):
            self.fallible("DeviceIoControl", f"IOCTL_DISK_GET_{name} failed")

    def hash(self, data):
        """The digest, or None where nothing was put into its place."""
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

    def expected(self, check):
        """As the sweep takes it; `check(machine, result)` looks at what the run left."""
        def check_all(machine, result):
            made = [name for name in result.sequence() if name != "exit"]
            if made != self.names:
                raise AssertionError(f"calls {made}\n    where these were expected: {self.names}")
            check(machine, result)
        return Expected(self.status, self.stdout, self.stderr, check_all)


# --- capture --encrypt ------------------------------------------------------------------------------------------------

class Capture(Model):
    def perform(self):
        self.work_length = None           # bytes of the work file, once there is one
        self.headed = self.sound = True   # header and table are what and where they should be; the data too
        self.published = False
        self.hashes = [bytes(32)] * len(LENGTHS)

        self.fallible("CreateFileW", "could not open source disk for raw read (run as Administrator?)")
        self.geometry()
        self.stdout += source_line(1, len(SOURCE_BYTES))
        self.system_disk()
        self.strikes("CreateFileW")  # the tracker's device, which is not there anyway
        self.stdout += NO_TRACKER
        self.random()
        self.key()
        self.strikes("GetFileAttributesA")  # a failure counts as absence
        self.fallible("CreateFileW", "could not create output image file")
        self.work_length = 0
        position = 0 if self.strikes("SetFilePointerEx") else TABLE_END
        self.sound = position == TABLE_END
        for _ in range(2):
            if self.strikes("_aligned_malloc"):
                self.die(fatal("out of memory allocating aligned I/O buffer"))
        self.strikes("GetTickCount64")
        offset = 0
        for index, length in enumerate(LENGTHS):
            self.fallible("SetFilePointerEx", "SetFilePointerEx on source failed mid-capture")
            self.fallible("ReadFile", "ReadFile from source disk failed mid-capture - image is incomplete, "
                          "do not trust it")
            self.hashes[index] = self.hash(SOURCE_BYTES[offset:offset + length]) or bytes(32)
            self.random()
            self.primitive("BCryptEncrypt", "BCryptEncrypt")
            self.write(position, length, "WriteFile to image file failed mid-capture (disk full?)")
            position += length
            offset += length
            self.print_meter(offset, len(SOURCE_BYTES))
        self.stdout += "\n"
        # None of the three is looked at.
        self.headed = not self.strikes("SetFilePointerEx")
        for _ in ("header", "table"):
            self.headed = not self.strikes("WriteFile") and self.headed
        closed = not self.strikes("CloseHandle")
        self.strikes("CloseHandle")
        self.fallible("MoveFileExW", "could not atomically publish completed image")
        if not closed:  # a file that is still open and shared with nobody cannot be renamed
            self.die(fatal("could not atomically publish completed image", 32))
        self.published = True
        self.stdout += "Capture complete: a.vrnx\n"
        self.release_key()

    def write(self, position, length, message):
        if self.strikes("WriteFile"):
            done = self.fault.effect.get("transferred", 0)
            if done:
                self.work_length = position + done
            self.die(fatal(message) if self.fault.error is None else fatal(message, self.fault.error))
        self.work_length = position + length

    def check(self, machine, _):
        names = [] if self.work_length is None else ["a.vrnx" if self.published else "a.vrnx.partial"]
        if machine.files() != names + ["password"]:
            raise AssertionError(f"files {machine.files()} where {names} and the password were expected")
        if machine.disk_bytes(1) != SOURCE_BYTES:
            raise AssertionError("the source was changed")
        if not names:
            return
        finished = self.published or "MoveFileExW" in self.names
        if not finished:
            content = machine.read(names[0])
            if len(content) != self.work_length:
                raise AssertionError(f"a work file of {len(content)} bytes where {self.work_length} were expected")
            if self.sound and content[:TABLE_END].strip(b"\0"):
                raise AssertionError("the start of an unfinished work file is not zero")
        if not finished or not self.headed:
            if not image.check_image(machine.path(names[0]), PASSWORD):
                raise AssertionError("an image that is not whole passes for one")
        elif not self.sound:
            if is_accepted(machine.path(names[0])):
                raise AssertionError("chunks that landed elsewhere pass for an image")
        else:
            self.check_chunks(machine.path(names[0]))

    def check_chunks(self, path):
        """The finished image opens to the source, chunk for chunk, under the hashes that the run came to."""
        header, records = read_table(path)
        if [record.hash for record in records] != self.hashes:
            raise AssertionError("the hashes are not those expected")
        opened, key, offset = image.Image(path), derive_key(PASSWORD, header.salt, header.kdf_iterations), 0
        for index, (record, length) in enumerate(zip(records, LENGTHS)):
            plain = image.unseal(key, record.nonce, record.tag, opened.stored_bytes(index))
            if plain != SOURCE_BYTES[offset:offset + length]:
                raise AssertionError(f"chunk {index} does not open to what the disk holds")
            offset += length


def make_source(folder):
    machine = Machine(folder, source=SOURCE_BYTES, target=bytes(512))
    machine.write("password", PASSWORD + b"\r\n")
    return machine


# --- verify and restore -----------------------------------------------------------------------------------------------

SEALED = ImageBuilder(IMAGE_BYTES, password=PASSWORD).to_bytes()


def make_image(folder):
    machine = Machine(folder, default=False)
    machine.add_disk(0, bytes(65536))
    machine.system_volume([(0, 4096, 8192)])
    machine.add_disk(2, TARGET_BYTES)
    machine.write("a.vrnx", SEALED)
    machine.write("password", PASSWORD + b"\r\n")
    return machine


class Reader(Model):
    written = 0  # bytes that reached the target

    def open(self):
        self.fallible("CreateFileW", "could not open image file", "could not open image file: a.vrnx\n")
        self.fallible("ReadFile", "could not read image header - file is truncated or not a .vrnx image")
        self.fallible("GetFileSizeEx", "image is truncated before its chunk table")
        self.fallible("ReadFile", "could not read chunk table - image is truncated")
        self.hash(SEALED[:64 + 72 * 3])  # nobody holds a full image against its digest
        self.key()

    def check(self, machine, _):
        if machine.files() != ["a.vrnx", "password"] or machine.read("a.vrnx") != SEALED:
            raise AssertionError("the image was changed")
        expected = IMAGE_BYTES[:self.written] + TARGET_BYTES[self.written:]
        if machine.disk_bytes(2) != expected:
            raise AssertionError(f"target: {suite.first_difference(machine.disk_bytes(2), expected)}")


class Verify(Reader):
    def perform(self):
        self.open()
        self.stdout += verifying_line("a.vrnx", 3, len(IMAGE_BYTES))
        if self.strikes("_aligned_malloc"):
            self.die(fatal("out of memory allocating aligned I/O buffer"))
        self.strikes("GetTickCount64")
        bad = offset = 0
        for index, length in enumerate(IMAGE_LENGTHS):
            plain = IMAGE_BYTES[offset:offset + length]
            offset += length
            self.fallible("ReadFile", "could not read chunk data - image is truncated")
            if self.strikes("BCryptDecrypt"):
                self.stdout += verify_unauthentic(index)
                bad += 1
                continue
            if self.hash(plain) != hashlib.sha256(plain).digest():
                self.stdout += verify_mismatch(index)
                bad += 1
            if index in (0, 2):
                self.print_meter(offset, len(IMAGE_BYTES))
        self.stdout += "\n"
        self.strikes("CloseHandle")
        if bad:
            self.die(verify_failed(bad, 3))
        self.stdout += "Verify OK - all 3 chunks match their recorded hash.\n"
        self.release_key()


class Restore(Reader):
    def perform(self):
        self.system_disk()
        self.open()
        if self.strikes("CreateFileW"):
            self.die(exclusive_failure(2, self.fault.error))
        self.geometry()
        self.stdout += restoring_line("a.vrnx", 2, 3, len(IMAGE_BYTES))
        if self.strikes("_aligned_malloc"):
            self.die(fatal("out of memory allocating aligned I/O buffer"))
        self.strikes("GetTickCount64")
        for index, length in enumerate(IMAGE_LENGTHS):
            self.fallible("ReadFile",
                          "could not read chunk data from image - restore aborted, target disk left partially written")
            if self.strikes("BCryptDecrypt"):
                self.die(restore_unauthentic(index))
            self.strikes("SetFilePointerEx")  # not looked at: the last write ended at the same place
            if self.strikes("WriteFile"):
                self.written += self.fault.effect.get("transferred", 0)
                message = ("WriteFile to target disk failed mid-restore - target disk left partially written, "
                           "do not boot it yet")
                self.die(fatal(message) if self.fault.error is None else fatal(message, self.fault.error))
            self.written += length
            if index in (0, 2):
                self.print_meter(self.written, len(IMAGE_BYTES))
        self.stdout += "\n"
        self.strikes("DeviceIoControl")
        for _ in ("target", "image"):
            self.strikes("CloseHandle")
        self.stdout += RESTORE_COMPLETE
        self.release_key()


# --- The sweeps -------------------------------------------------------------------------------------------------------

class FaultSweep(suite.Scenario):
    recorded = False  # a sample under Wine

    def sweep(self, make, arguments, model, stdout, least):
        """Sweeps against a model whose run without a fault prints this; at least so many runs are worth it."""
        clean = model().run()
        self.assertEqual((clean.status, clean.stdout, clean.stderr), (0, stdout, ""))

        def oracle(fault):
            run = model(fault).run()
            return run.expected(run.check)

        count = sweep_faults(self, make, arguments, clean.expected(clean.check), oracle)
        if not self.settings.sampled:
            self.assertGreaterEqual(count, least)

    def test_capture(self):
        self.sweep(make_source, CAPTURE, Capture, capture_text(1, len(SOURCE_BYTES), "a.vrnx"), 110)

    def test_verify(self):
        self.sweep(make_image, VERIFY, Verify, verify_text("a.vrnx", len(IMAGE_BYTES), 4096), 95)

    def test_restore(self):
        self.sweep(make_image, RESTORE, Restore, restore_text("a.vrnx", 2, len(IMAGE_BYTES), 4096), 85)

    def test_the_report_carries_whatever_status_the_call_gave(self):
        # The words of each primitive that ends a run, under statuses of its own: (arguments, call, skip, report).
        cases = [(CAPTURE, "BCryptOpenAlgorithmProvider", 0, "BCryptOpenAlgorithmProvider(RNG)"),
                 (CAPTURE, "BCryptGenRandom", 0, "BCryptGenRandom"),
                 (CAPTURE, "BCryptOpenAlgorithmProvider", 1, "BCryptOpenAlgorithmProvider(HMAC-SHA256)"),
                 (CAPTURE, "BCryptDeriveKeyPBKDF2", 0, "BCryptDeriveKeyPBKDF2"),
                 (CAPTURE, "BCryptOpenAlgorithmProvider", 2, "BCryptOpenAlgorithmProvider(AES)"),
                 (CAPTURE, "BCryptSetProperty", 0, "BCryptSetProperty(GCM)"),
                 (CAPTURE, "BCryptGenerateSymmetricKey", 0, "BCryptGenerateSymmetricKey"),
                 (CAPTURE, "BCryptOpenAlgorithmProvider", 3, "BCryptOpenAlgorithmProvider(SHA256)"),
                 (CAPTURE, "BCryptCreateHash", 0, "BCryptCreateHash"),
                 (CAPTURE, "BCryptOpenAlgorithmProvider", 4, "BCryptOpenAlgorithmProvider(RNG)"),
                 (CAPTURE, "BCryptGenRandom", 1, "BCryptGenRandom"),
                 (CAPTURE, "BCryptEncrypt", 0, "BCryptEncrypt"),
                 (VERIFY, "BCryptOpenAlgorithmProvider", 1, "BCryptOpenAlgorithmProvider(HMAC-SHA256)"),
                 (VERIFY, "BCryptDeriveKeyPBKDF2", 0, "BCryptDeriveKeyPBKDF2"),
                 (VERIFY, "BCryptOpenAlgorithmProvider", 2, "BCryptOpenAlgorithmProvider(AES)"),
                 (RESTORE, "BCryptSetProperty", 0, "BCryptSetProperty(GCM)"),
                 (RESTORE, "BCryptGenerateSymmetricKey", 0, "BCryptGenerateSymmetricKey")]
        for place, (arguments, call, skip, report) in enumerate(cases):
            status = 0xC0000100 + place if place % 3 else 0x80000001 + place
            machine = (make_source if arguments is CAPTURE else make_image)(os.path.join(self.folder, str(place)))
            self.machines.append(machine)
            machine.add_fault(call, skip=skip, status=f"0x{status:08X}")
            result = machine.run(*arguments)
            self.assertEqual((result.status, result.stderr.decode()),
                             (1, f"FATAL: {report} (NTSTATUS 0x{status:08X})\n"))

    def test_a_status_that_is_no_failure_ends_nothing(self):
        # Of the calls that release something, so that the run misses nothing that a call should have given.
        for arguments, stdout in ((CAPTURE, capture_text(1, len(SOURCE_BYTES), "a.vrnx")),
                                  (VERIFY, verify_text("a.vrnx", len(IMAGE_BYTES), 4096)),
                                  (RESTORE, restore_text("a.vrnx", 2, len(IMAGE_BYTES), 4096))):
            machine = (make_source if arguments is CAPTURE else make_image)(os.path.join(self.folder, arguments[0]))
            self.machines.append(machine)
            for call in ("BCryptDestroyHash", "BCryptDestroyKey", "BCryptCloseAlgorithmProvider"):
                machine.add_fault(call, times=1000, status="0x40000001")
            self.expect(machine.run(*arguments), 0, stdout)


class KillSweep(suite.Scenario):
    recorded = False  # a sample under Wine

    def test_capture(self):
        def check(machine, result, call):
            published = bool(result.calls("MoveFileExW"))
            created = bool(result.calls("CreateFileW", path="a.vrnx.partial"))
            names = ["a.vrnx"] if published else ["a.vrnx.partial"] if created else []
            if machine.files() != names + ["password"]:
                raise AssertionError(f"files {machine.files()}")
            for name in names:
                finished = any(line["offset"] == 64 for line in result.calls("WriteFile", path="a.vrnx.partial"))
                if is_accepted(machine.path(name)) != finished:
                    raise AssertionError(f"the second reader {'refuses' if finished else 'takes'} {name}")
                if finished and reference_plain_bytes(machine.path(name), PASSWORD) != SOURCE_BYTES:
                    raise AssertionError(f"{name} stands for another disk")
                # Header and table come last: before both chunks lie in the file its start is zero, whatever was
                # written.
                written = [line["offset"] for line in result.calls("WriteFile")]
                chunks = sum(offset >= TABLE_END for offset in written)
                at_header = 0 in written or call.kind == "WriteFile" and call.line["offset"] == 0
                if not (chunks == len(LENGTHS) and at_header) and machine.read(name)[:TABLE_END].strip(b"\0"):
                    raise AssertionError(f"the start of {name} is not zero")
            left = machine.read(names[0]) if names else b""
            seen = json.dumps(result.log).encode() + result.stdout + left
            if PASSWORD in seen or SOURCE_BYTES[100:132] in seen or SOURCE_BYTES[-100:-68] in seen:
                raise AssertionError("password or disk lies open in what the run left")

        def again(machine, call):
            if machine.exists("a.vrnx"):
                return Expected(1, source_line(1, len(SOURCE_BYTES)) + NO_TRACKER,
                                fatal("refusing to overwrite an existing output image"))
            return clean

        clean = Expected(0, capture_text(1, len(SOURCE_BYTES), "a.vrnx"))
        count = sweep_kills(self, make_source, CAPTURE, clean, check, again)
        if not self.settings.sampled:
            self.assertGreaterEqual(count, 65)


if __name__ == "__main__":
    suite.main()
