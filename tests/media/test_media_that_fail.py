"""Runs of the native program on media that fail: at a write, at a flush, at a close, for want of room, in use.

A run that ends with status 0 has left everything on the medium: what the disk still holds when its power goes at that
moment is looked at, not what the system remembers. Needs Linux, root, loop devices, mount namespaces and FUSE;
otherwise each test is skipped. Each sweep tries the first, the middle and the last occurrence, and with VORNIX_LONG
every one.
"""

import functools
import hashlib
import os
import re
import subprocess

import loop_device
import loop_disks
import lying_media
import suite
from image import ImageBuilder, build_image, is_accepted
from lying_media import LyingDisk, unmount
from machine import SETTINGS, pattern

MIB = 1048576
CHUNK = 65536
TARGET_SIZE = 12 * CHUNK
HOME_SIZE = 16 * MIB
SOURCE_SIZE = 4 * MIB + CHUNK  # two chunks
NEVER = 10**9
NOT_WHOLE = "not everything that was written reached the medium - do not trust it"
FATAL = re.compile(rb"(?s).*FATAL: [^\n]* \(GetLastError=[1-9][0-9]*\)\n")


@functools.cache
def read_once(path):
    with open(path, "rb") as file:
        return file.read()


def hash_of(path):
    with open(path, "rb") as file:
        return hashlib.file_digest(file, "sha256").hexdigest()


class Media(suite.Scenario):
    recorded = False  # there is no described machine

    def setUp(self):
        super().setUp()
        reason = lying_media.reason_to_skip()
        if reason:
            self.skipTest(reason)
        self.disks = loop_disks.LoopDisks(self.folder)
        self.addCleanup(self.disks.detach_all)
        self.tried = self.told = 0

    def path(self, *names):
        return os.path.join(self.folder, *names)

    def lying_disk(self, size):
        disk = LyingDisk(size)
        self.addCleanup(disk.close)
        return disk

    def mount(self, name, *arguments):
        point = self.path(name)
        os.makedirs(point, exist_ok=True)
        lying_media.run("mount", *arguments, point)
        return point

    @staticmethod
    def sample(count):
        every = range(1, count + 1)
        return every if SETTINGS.long else sorted({every[0], every[len(every) // 2], every[-1]})

    def expect_fatal(self, done, where):
        self.assertEqual(done.returncode, 1, (where, done))
        self.assertTrue(FATAL.fullmatch(done.stderr), (where, done))

    def sweep(self, disk, attempt):
        """`attempt(fault, k)` with a healthy disk first, and then with each fault at each place."""
        attempt("write", NEVER)
        writes, flushes, faults = disk.counts()
        self.assertEqual(faults, 0)
        self.assertGreater(min(writes, flushes), 0)
        for fault, count in (("write", writes), ("writes", writes), ("flush", flushes), ("lose", writes)):
            self.told = 0
            for k in self.sample(count):
                attempt(fault, k)
            self.assertGreater(self.told, 0, f"no fault of the kind {fault} was ever met")


class Targets(Media):
    """Commands that write a disk."""

    def setUp(self):
        super().setUp()
        self.lying = self.lying_disk(TARGET_SIZE)
        self.disks.show(self.lying.device)
        self.source = self.disks.attach(pattern(TARGET_SIZE, "source"))
        with open(self.path("before"), "wb") as file:
            file.write(pattern(TARGET_SIZE, "target"))
        build_image(self.path("a.vrnx"), pattern(TARGET_SIZE, "source"), chunk_size=CHUNK)

    def sweep_target(self, *arguments):
        def attempt(fault, k):
            where = (fault, k)
            self.lying.load(self.path("before"))
            self.lying.tell(fault, k)
            done = self.disks.run(*arguments)
            left = self.path("left")
            self.lying.take_durable(left)
            if self.lying.counts()[2] > 0:
                self.told += 1
                self.expect_fatal(done, where)
            else:
                self.assertEqual((done.returncode, done.stderr), (0, b""), (where, done))
            with open(left, "rb") as file:
                is_whole = file.read() == pattern(TARGET_SIZE, "source")
            self.assertTrue(is_whole or done.returncode == 1, where)
        self.sweep(self.lying, attempt)

    def test_restore(self):
        self.sweep_target("restore", "--in", "a.vrnx", "--disk", self.disks.number(self.lying.device), "--confirm",
                          "YES")

    def test_clone(self):
        self.sweep_target(*self.clone())

    def test_clone_that_verifies(self):
        self.sweep_target(*self.clone(), "--verify")

    def clone(self):
        return ("clone", "--from", self.disks.number(self.source), "--to", self.disks.number(self.lying.device),
                "--confirm", "YES")

    def test_what_a_clone_compares_comes_from_the_medium(self):
        self.lying.load(self.path("before"))
        self.lying.tell("lose", 1)
        done = self.disks.run(*self.clone(), "--verify")
        self.assertEqual(done.returncode, 1, done)
        self.assertIn(b"FATAL: verify: read from target failed (GetLastError=1117)\n", done.stderr)
        self.assertNotIn(b"Verify OK", done.stdout)

    def test_a_flush_that_fails_at_the_end_of_a_restore_names_the_disk(self):
        self.lying.load(self.path("before"))
        self.lying.tell("flush", 1)
        number = self.disks.number(self.lying.device)
        done = self.disks.run("restore", "--in", "a.vrnx", "--disk", number, "--confirm", "YES")
        self.assertEqual((done.returncode, done.stderr.decode()), (
            1, f"FATAL: PhysicalDrive{number} ({self.lying.device}): {NOT_WHOLE} (GetLastError=1117)\n"))
        self.assertNotIn(b"Restore complete", done.stdout)


class Sources(Media):
    """Commands that read a disk, whose reads fail. A failure that is met ahead and not met again is none."""

    SIZE = 5 * 4 * MIB + CHUNK

    def setUp(self):
        super().setUp()
        self.lying = self.lying_disk(self.SIZE)
        self.disks.show(self.lying.device)
        with open(self.path("before"), "wb") as file:
            file.write(pattern(self.SIZE, "source"))
        self.lying.load(self.path("before"))
        self.number = self.disks.number(self.lying.device)

    def sweep_source(self, is_whole, failure, *arguments):
        self.lying.tell("read", NEVER)
        done = self.disks.run(*arguments)
        self.assertEqual((done.returncode, done.stderr), (0, b""), done)
        self.assertTrue(is_whole())
        reads = self.lying.reads()
        self.assertGreater(reads, 4)
        for fault in ("read", "reads"):
            ends = []
            for k in self.sample(reads):
                self.lying.tell(fault, k)
                done = self.disks.run(*arguments)
                ends.append(done.returncode)
                self.assertGreater(self.lying.counts()[2], 0, (fault, k))
                if done.returncode == 0:
                    self.assertEqual(done.stderr, b"", (fault, k))
                    self.assertTrue(is_whole(), (fault, k))
                else:
                    self.expect_fatal(done, (fault, k))
                    self.assertIn(failure, done.stderr, (fault, k))
                    self.assertFalse(is_whole(), (fault, k))
            if fault == "reads":
                self.assertEqual(set(ends), {1}, "a disk that reads no more passed for one that does")

    def test_capture(self):
        def is_whole():
            if not os.path.exists(self.path("new.vrnx")):
                return False
            left = read_once(self.path("new.vrnx"))
            os.remove(self.path("new.vrnx"))
            read_once.cache_clear()
            return left == image
        image = build_image(self.path("wanted.vrnx"), pattern(self.SIZE, "source"), chunk_size=4 * MIB).to_bytes()
        self.sweep_source(is_whole, b"ReadFile from source disk failed mid-capture - image is incomplete, do not trust",
                          "capture", "--disk", self.number, "--out", "new.vrnx")

    def test_clone(self):
        target = self.disks.attach(bytes(self.SIZE))

        def is_whole():
            with open(target, "r+b", buffering=0) as file:
                left = file.read(self.SIZE)
                file.seek(0)
                file.write(bytes(self.SIZE))
                os.fsync(file.fileno())
            return left == pattern(self.SIZE, "source")
        self.sweep_source(is_whole, b"read from the source disk failed - clone aborted, target left partially written",
                          "clone", "--from", self.number, "--to", self.disks.number(target), "--confirm", "YES")


class Homes(Media):
    """Commands that write an image, to a file system on a disk that fails."""

    def setUp(self):
        super().setUp()
        self.lying = self.lying_disk(HOME_SIZE)
        self.source = self.disks.attach(pattern(SOURCE_SIZE, "source"))
        lying_media.run("mkfs.ext4", "-q", "-F", self.lying.device)
        self.mount("home", self.lying.device)
        # Of the base the first chunk is that of the disk, so that a thin image stores the second alone.
        base = pattern(SOURCE_SIZE, "source")[:4 * MIB] + bytes(CHUNK)
        build_image(self.path("home", "base.vrnx"), base, chunk_size=4 * MIB)
        ImageBuilder(pattern(SOURCE_SIZE, "source"), chunk_size=4 * MIB, base=self.path("home", "base.vrnx")).write(
            self.path("home", "thin.vrnx"))
        self.before = {name: hash_of(self.path("home", name)) for name in ("base.vrnx", "thin.vrnx")}
        unmount(self.path("home"), self.lying.device)
        self.lying.take_durable(self.path("before"))

    def look_into(self, left, wanted, is_success, where):
        """The files of the file system that is left when the power goes."""
        if not is_success:
            subprocess.run(["e2fsck", "-fy", left], capture_output=True, check=False)
        self.mount("left-home", "-o", "loop", left)
        try:
            names = ["base.vrnx", "thin.vrnx"]
            self.assertEqual({name: hash_of(self.path("left-home", name)) for name in names}, self.before, where)
            if is_success:
                self.assertTrue(os.path.exists(self.path("left-home", wanted)), where)
                return hash_of(self.path("left-home", wanted))
            # Under the name of a finished capture stands a whole image or none.
            if wanted.endswith(".vrnx") and self.is_published_at_the_end and os.path.exists(
                    self.path("left-home", wanted)):
                self.assertEqual(hash_of(self.path("left-home", wanted)), self.whole, where)
            return None
        finally:
            lying_media.run("umount", self.path("left-home"))

    def sweep_home(self, wanted, *arguments):
        self.whole = None
        self.is_published_at_the_end = arguments[0] == "capture"

        def attempt(fault, k):
            where = (fault, k)
            self.lying.load(self.path("before"))
            self.mount("home", self.lying.device)
            try:
                self.lying.tell(fault, k)
                done = self.disks.run(*arguments)
                self.lying.take_durable(self.path("left"))
                counts = self.lying.counts()
            finally:
                self.lying.tell("write", NEVER)
                unmount(self.path("home"), self.lying.device)
            is_success = done.returncode == 0
            if not is_success:
                self.expect_fatal(done, where)
                self.told += 1
            found = self.look_into(self.path("left"), wanted, is_success, where)
            if is_success:
                self.whole = self.whole or found
                self.assertEqual(found, self.whole, where)
            self.last_counts = counts
        attempt("write", NEVER)
        self.assertTrue(self.whole)
        writes, flushes, faults = self.last_counts
        self.assertEqual(faults, 0)
        for fault, count in (("write", writes), ("writes", writes), ("flush", flushes), ("lose", writes)):
            self.told = 0
            for k in self.sample(count):
                attempt(fault, k)
            self.assertGreater(self.told, 0, f"no run ended over a fault of the kind {fault}")

    def capture(self, out, *options):
        return ("capture", "--disk", self.disks.number(self.source), "--out", f"home/{out}", *options)

    def test_capture(self):
        self.sweep_home("new.vrnx", *self.capture("new.vrnx"))

    def test_thin_capture(self):
        self.sweep_home("new.vrnx", *self.capture("new.vrnx", "--base", "home/base.vrnx", "--thin"))

    def test_capture_to_a_name_that_no_rename_follows(self):
        self.sweep_home("new.partial", *self.capture("new.partial"))

    def test_consolidate(self):
        self.sweep_home("new.vrnx", "consolidate", "--in", "home/thin.vrnx", "--out", "home/new.vrnx")

    def test_consolidate_proves_what_the_medium_has(self):
        self.lying.load(self.path("before"))
        self.mount("home", self.lying.device)
        try:
            self.lying.tell("lose", 1)
            done = self.disks.run("consolidate", "--in", "home/thin.vrnx", "--out", "home/new.vrnx")
        finally:
            self.lying.tell("write", NEVER)
            unmount(self.path("home"), self.lying.device)
        self.assertEqual(done.returncode, 1, done)
        self.assertRegex(done.stderr.decode(), rf"FATAL: home/new\.vrnx: {NOT_WHOLE} \(GetLastError=[1-9][0-9]*\)\n$")
        self.assertNotIn(b"Verify OK", done.stdout)


class Closes(Media):
    """File systems that tell only at the close."""

    def run_with_failing_close(self, name, *arguments):
        environment = {**SETTINGS.environment(), "LD_PRELOAD": lying_media.plugin("failing_close.so"),
                       "VORNIX_FAILING_CLOSE": "/" + name}
        return subprocess.run(self.disks.command(*arguments), cwd=self.folder, capture_output=True, env=environment,
                              stdin=subprocess.DEVNULL, timeout=300, check=False)

    def expect_refusal(self, done, name, completion):
        self.assertEqual((done.returncode, done.stderr.decode()), (
            1, f"FATAL: {name}: {NOT_WHOLE} (GetLastError=112)\n"))
        self.assertNotIn(completion, done.stdout)

    def test_capture(self):
        source = self.disks.attach(pattern(SOURCE_SIZE, "source"))
        for out, work in (("new.vrnx", "new.vrnx.partial"), ("new.partial", "new.partial")):
            done = self.run_with_failing_close(work, "capture", "--disk", self.disks.number(source), "--out", out)
            self.expect_refusal(done, work, b"Capture complete")
        self.assertFalse(os.path.exists(self.path("new.vrnx")))

    def test_consolidate(self):
        build_image(self.path("a.vrnx"), pattern(TARGET_SIZE, "source"), chunk_size=CHUNK)
        done = self.run_with_failing_close("new.vrnx", "consolidate", "--in", "a.vrnx", "--out", "new.vrnx")
        self.expect_refusal(done, "new.vrnx", b"Verify OK")


class Rooms(Media):
    """No room, found at the last write of all where nothing had been put by for it."""

    def test_a_capture_that_has_no_room_for_its_header(self):
        with open(self.path("sparse"), "wb") as file:
            file.truncate(300 * MIB)
        source = self.disks.attach_file(self.path("sparse"))
        # The chunks have one page more than room, header and the front of the table lie in the one that is too many.
        point = self.mount("small", "-t", "tmpfs", "-o", "nr_blocks=76801", "none")
        self.addCleanup(lying_media.run, "umount", point)
        done = self.disks.run("capture", "--disk", self.disks.number(source), "--out", "small/new.vrnx")
        # The last chunk is written beside the program, which does not look at what comes behind it.
        self.assertEqual((done.returncode, done.stderr.decode()), (
            1, f"FATAL: small/new.vrnx.partial: {NOT_WHOLE} (GetLastError=112)\n"))
        self.assertEqual(os.listdir(point), ["new.vrnx.partial"])

    def test_consolidate_with_room_for_so_many_pages(self):
        image = build_image(self.path("a.vrnx"), pattern(120 * 4096, "image"), chunk_size=4096).to_bytes()
        pages = -(-len(image) // 4096)
        statuses = []
        for count in range(pages - 4, pages + 3):
            point = self.mount("small", "-t", "tmpfs", "-o", f"nr_blocks={count}", "none")
            try:
                done = self.disks.run("consolidate", "--in", "a.vrnx", "--out", "small/new.vrnx")
                statuses.append(done.returncode)
                if done.returncode == 0:
                    self.assertEqual(read_once(os.path.join(point, "new.vrnx")), image)
                    break
                self.assertEqual(done.stderr.decode(), (
                    "FATAL: WriteFile failed while consolidating (disk full?) (GetLastError=112)\n"))
                self.assertFalse(is_accepted(os.path.join(point, "new.vrnx")))
            finally:
                lying_media.run("umount", point)
        self.assertEqual((statuses[0], statuses[-1]), (1, 0))

    def test_capture_to_a_file_system_that_is_nearly_full(self):
        source = self.disks.attach(pattern(SOURCE_SIZE, "source"))
        device = self.disks.attach(bytes(HOME_SIZE))
        lying_media.run("mkfs.ext4", "-q", "-F", "-m", "0", device)
        point = self.mount("home", device)
        statuses = []
        space = os.statvfs(point)
        for spare in range(-64, 513, 64):
            filler = space.f_bavail * space.f_frsize - SOURCE_SIZE - spare * 1024
            with open(os.path.join(point, "filler"), "wb") as file:
                os.posix_fallocate(file.fileno(), 0, filler)
            done = self.disks.run("capture", "--disk", self.disks.number(source), "--out", "home/new.vrnx")
            statuses.append(done.returncode)
            unmount(point, device)
            self.mount("home", device)
            if done.returncode == 0:
                self.assertTrue(is_accepted(os.path.join(point, "new.vrnx")), spare)
                os.remove(os.path.join(point, "new.vrnx"))
            else:
                self.expect_fatal(done, spare)
                self.assertEqual(sorted(os.listdir(point)), ["filler", "lost+found", "new.vrnx.partial"])
                os.remove(os.path.join(point, "new.vrnx.partial"))
            os.remove(os.path.join(point, "filler"))
        self.assertEqual((statuses[0], statuses[-1]), (1, 0))


class InUse(Media):
    """Disks that something uses which the kernel's claim does not show."""

    def setUp(self):
        super().setUp()
        self.bytes = pattern(4 * MIB, "target")
        self.target = self.disks.attach(self.bytes)
        build_image(self.path("a.vrnx"), pattern(TARGET_SIZE, "source"), chunk_size=CHUNK)

    def expect_refusal(self):
        with open(self.target, "rb") as file:
            before = file.read()
        number = self.disks.number(self.target)
        done = self.disks.run("restore", "--in", "a.vrnx", "--disk", number, "--confirm", "YES")
        self.assertEqual(done.returncode, 1, done)
        self.assertIn(f"Could not open disk {number} exclusively for writing (GetLastError=32).", done.stderr.decode())
        with open(self.target, "rb") as file:
            self.assertEqual(file.read(), before)

    def expect_success(self):
        done = self.disks.run("restore", "--in", "a.vrnx", "--disk", self.disks.number(self.target), "--confirm", "YES")
        self.assertEqual((done.returncode, done.stderr), (0, b""), done)

    def test_a_file_system_that_is_mounted_through_a_loop_device_on_the_disk(self):
        loop = loop_device.LoopDevice(self.target, offset=MIB)
        try:
            lying_media.run("mkfs.ext4", "-q", "-F", loop.path)
            point = self.mount("mounted", loop.path)
            with open(os.path.join(point, "file"), "wb") as file:
                file.write(b"mine")
                os.fsync(file.fileno())
            self.expect_refusal()
            unmount(point, loop.path)
            self.expect_refusal()  # nobody knows what the device is for
        finally:
            loop.detach()
        self.expect_success()

    def test_a_partition_that_somebody_has_open(self):
        lying_media.run("addpart", self.target, 1, 2048, 4096)
        node = self.target + "p1"
        lying_media.wait_until(lambda: os.path.exists(node), f"there is no {node}")
        user = os.open(node, os.O_RDWR | os.O_CLOEXEC)
        try:
            os.pwrite(user, b"dirty" * 1000, 0)
            self.expect_refusal()
        finally:
            os.close(user)
        self.expect_success()
        with open(self.target, "rb") as file:
            self.assertEqual(file.read(TARGET_SIZE), pattern(TARGET_SIZE, "source"))


if __name__ == "__main__":
    lying_media.enter_namespace()
    suite.main()
