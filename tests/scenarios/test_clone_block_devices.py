"""clone on real block devices: loop devices with sectors of 512 and 4096 bytes, compared and not.

Needs Linux, root, loop devices and mount namespaces; otherwise each test is skipped. The program sees the test's own
devices and no other disk.
"""

import fcntl
import os
import re
import shutil
import subprocess

import loop_disks
import suite
from clone_runs import (BLOCK, COMPLETE, WRITE_FAILED, cloning_line, pattern, sector_note, smaller_refusal)
from console import exclusive_failure, fatal, gib
from machine import SETTINGS

METER = r"\r  [ 0-9]{3}\.[0-9]{2}%  [0-9]+ / [0-9]+ MiB  \([0-9]+\.[0-9] MiB/s\)   "
PIPE_SIZE = 4096


class CloneBlockDevices(suite.Scenario):
    recorded = False  # there is no described machine

    def setUp(self):
        super().setUp()
        reason = loop_disks.reason_to_skip()
        if reason:
            self.skipTest(reason)
        self.disks = loop_disks.LoopDisks(self.folder)
        self.addCleanup(self.disks.detach_all)

    def attach(self, contents, sector_size=512, **options):
        try:
            return self.disks.attach(contents, sector_size, **options)
        except OSError as error:
            self.skipTest(str(error))

    def pair(self, size, target_size=None, sectors=(512, 512), **options):
        """A source and a target with other bytes."""
        source = self.attach(pattern(size, "source"), sectors[0])
        target = self.attach(pattern(size if target_size is None else target_size, "target"), sectors[1], **options)
        return source, target

    def clone(self, source, target, *options):
        return self.disks.run("clone", "--from", self.disks.number(source), "--to", self.disks.number(target),
                              "--confirm", "YES", *options)

    def expect_clone(self, done, source, target, size, notes="", meters=None, status=0, stderr="", verify=False):
        """`meters`: how many blocks were copied; all of them where not given."""
        blocks = (size - 1) // BLOCK + 1
        wanted = re.escape(notes + cloning_line(self.disks.number(source), self.disks.number(target), size))
        wanted += f"({METER}){{{blocks if meters is None else meters}}}"
        if meters is None:
            wanted += "\n" + (f"Verifying the copy\\.\\.\\.\n({METER}){{{blocks}}}\nVerify OK\\.\n" if verify else "")
            wanted += re.escape(COMPLETE)
        self.assertEqual((done.returncode, done.stderr.decode()), (status, stderr))
        self.assertTrue(re.fullmatch(wanted, done.stdout.decode()), (wanted, done.stdout.decode()))

    def expect_bytes(self, device, expected):
        with open(device, "rb") as file:
            actual = file.read()
        if actual != expected:
            self.fail(f"{device} differs: {suite.first_difference(actual, expected)}")

    def expect_copied(self, source, target, size, target_size, count=None):
        count = size if count is None else count
        self.expect_bytes(target, pattern(size, "source")[:count] + pattern(target_size, "target")[count:])
        self.expect_bytes(source, pattern(size, "source"))

    def round(self, size, target_size, sectors):
        notes = "" if sectors[0] == sectors[1] else sector_note(*sectors)
        for verify in (False, True):
            source, target = self.pair(size, target_size, sectors)
            done = self.clone(source, target, *(["--verify"] if verify else []))
            self.expect_clone(done, source, target, size, notes, verify=verify)
            self.expect_copied(source, target, size, target_size)

    def test_the_devices_of_the_test_are_the_only_disks(self):
        source, target = self.pair(2 * BLOCK + 1536, 3 * BLOCK, (512, 4096))
        done = self.disks.run("list-disks")
        lines = {}
        for device, size, sector in ((source, 2 * BLOCK + 1536, 512), (target, 3 * BLOCK, 4096)):
            number = self.disks.number(device)
            lines[number] = f"PhysicalDrive{number:<2}  {float(gib(size)):8.2f} GiB  sector {sector} bytes\n"
        self.assertEqual((done.returncode, done.stdout.decode(), done.stderr), (0, lines[0] + lines[1], b""))

    def test_sectors_of_512_bytes(self):
        size = 2 * BLOCK + 1536
        self.round(size, size, (512, 512))

    def test_sectors_of_4096_bytes(self):
        size = 2 * BLOCK + 3 * 4096
        self.round(size, size, (4096, 4096))

    def test_whole_blocks_alone(self):
        self.round(2 * BLOCK, 2 * BLOCK, (512, 512))

    def test_less_than_a_block(self):
        self.round(512 * 1024, 512 * 1024 + 512, (512, 512))

    def test_a_larger_target_keeps_its_tail(self):
        self.round(BLOCK + 512, 2 * BLOCK + 1024, (512, 512))

    def test_4096_byte_sectors_onto_those_of_512(self):
        self.round(BLOCK + 4096, BLOCK + 8192, (4096, 512))

    def test_512_byte_sectors_onto_those_of_4096(self):
        self.round(BLOCK + 8192, BLOCK + 12288, (512, 4096))

    def test_a_rest_that_is_no_whole_number_of_larger_sectors_fails(self):
        size, target_size = BLOCK + 512, BLOCK + 4096
        source, target = self.pair(size, target_size, (512, 4096))
        done = self.clone(source, target, "--verify")
        self.expect_clone(done, source, target, size, sector_note(512, 4096), meters=1, status=1,
                          stderr=fatal(WRITE_FAILED, 87))
        self.expect_copied(source, target, size, target_size, BLOCK)

    def test_a_smaller_target_is_refused(self):
        source, target = self.pair(BLOCK, BLOCK - 512)
        done = self.clone(source, target)
        self.assertEqual((done.returncode, done.stdout, done.stderr.decode()),
                         (1, b"", smaller_refusal(self.disks.number(target), BLOCK - 512, BLOCK)))
        self.expect_copied(source, target, BLOCK, BLOCK - 512, 0)

    def test_a_number_that_no_disk_has_is_refused(self):
        source, target = self.pair(1024)
        done = self.disks.run("clone", "--from", "2", "--to", self.disks.number(target), "--confirm", "YES")
        self.assertEqual((done.returncode, done.stdout, done.stderr.decode()),
                         (1, b"", "Could not open source PhysicalDrive2 (GetLastError=2)\n"))
        done = self.disks.run("clone", "--from", self.disks.number(source), "--to", "2", "--confirm", "YES")
        self.assertEqual((done.returncode, done.stdout, done.stderr.decode()), (1, b"", exclusive_failure(2, 2)))

    # --- Devices in use ---

    def mount(self, device):
        place = os.path.join(self.folder, "mounted")
        os.mkdir(place)
        done = subprocess.run(["mount", device, place], capture_output=True, text=True, check=False)
        if done.returncode != 0:
            self.skipTest(f"nothing can be mounted here: {done.stderr.strip()}")
        return place

    def file_system(self, size):
        """The bytes of a file system with one file in it."""
        if shutil.which("mke2fs") is None:
            self.skipTest("there is no mke2fs here")
        path, root = os.path.join(self.folder, "fs.img"), os.path.join(self.folder, "root")
        os.mkdir(root)
        with open(os.path.join(root, "file"), "wb") as file:
            file.write(pattern(100000, "in the file system"))
        with open(path, "wb") as file:
            file.truncate(size)
        subprocess.run(["mke2fs", "-q", "-F", "-d", root, path], check=True, capture_output=True)
        with open(path, "rb") as file:
            return file.read()

    def test_a_mounted_target_is_refused_and_stays_as_it_was(self):
        size = 2 * BLOCK
        contents = self.file_system(size)
        source, target = self.attach(pattern(size, "source")), self.attach(contents)
        place = self.mount(target)
        done = self.clone(source, target, "--verify")
        self.assertEqual((done.returncode, done.stdout, done.stderr.decode()),
                         (1, b"", exclusive_failure(self.disks.number(target), 32)))
        with open(os.path.join(place, "file"), "rb") as file:
            self.assertEqual(file.read(), pattern(100000, "in the file system"))
        self.disks.unmount(place, target)
        # The same target is taken as soon as nothing is mounted from it.
        self.expect_clone(self.clone(source, target, "--verify"), source, target, size, verify=True)
        self.expect_bytes(target, pattern(size, "source"))

    def test_a_mounted_source_is_cloned_live(self):
        size = 2 * BLOCK
        source, target = self.attach(self.file_system(size)), self.attach(pattern(size, "target"))
        place = self.mount(source)
        self.expect_clone(self.clone(source, target, "--verify"), source, target, size, verify=True)
        subprocess.run(["umount", place], check=True)
        place = os.path.join(self.folder, "copy")
        os.mkdir(place)
        subprocess.run(["mount", "-o", "ro", target, place], check=True)
        with open(os.path.join(place, "file"), "rb") as file:
            self.assertEqual(file.read(), pattern(100000, "in the file system"))
        subprocess.run(["umount", place], check=True)

    def test_the_partitions_of_the_copy_appear(self):
        if shutil.which("sfdisk") is None:
            self.skipTest("there is no sfdisk here")
        path = os.path.join(self.folder, "table.img")
        with open(path, "wb") as file:
            file.truncate(2 * BLOCK)
        subprocess.run(["sfdisk", "--quiet", path], input=b"label: dos\nstart=2048, size=4096\n", check=True,
                       capture_output=True)
        with open(path, "rb") as file:
            source = self.attach(file.read(), scan_partitions=True)
        if not self.has_partition(source):
            self.skipTest("this kernel does not read such a partition table")
        target = self.attach(bytes(2 * BLOCK), scan_partitions=True)
        self.assertFalse(self.has_partition(target))
        self.expect_clone(self.clone(source, target), source, target, 2 * BLOCK)
        self.assertTrue(self.has_partition(target))

    @staticmethod
    def has_partition(device):
        name = os.path.basename(device)
        return os.path.exists(f"/sys/block/{name}/{name}p1")

    # --- A copy that changes before it is compared ---

    def run_with_change_between_the_passes(self, source, target, size, change):
        """A clone with comparison that is held at its first line of the verify pass until `change` is made.

        The program's output goes into a pipe in which there is room for the lines of the copy pass and for no more.
        """
        read_end, write_end = os.pipe()
        try:
            fcntl.fcntl(write_end, fcntl.F_SETPIPE_SZ, PIPE_SIZE)
            # A line of the meter is as long as its rate: of one digit before the point at least, and five at most.
            blocks = (size - 1) // BLOCK + 1
            longest = len(cloning_line(0, 1, size)) + blocks * (len("\r  100.00%  4 / 8 MiB  (0.0 MiB/s)   ") + 4)
            os.write(write_end, bytes(PIPE_SIZE - longest))
            process = subprocess.Popen(
                self.disks.command("clone", "--from", self.disks.number(source), "--to", self.disks.number(target),
                                   "--confirm", "YES", "--verify"),
                cwd=self.folder, stdout=write_end, stderr=subprocess.PIPE, stdin=subprocess.DEVNULL,
                env=SETTINGS.environment())
        finally:
            os.close(write_end)
        try:
            self.wait_until_it_writes(process)
            change()
            with open(read_end, "rb") as file:
                stdout = file.read()[PIPE_SIZE - longest:]
            return subprocess.CompletedProcess(process.args, process.wait(timeout=60), stdout, process.stderr.read())
        finally:
            process.kill()
            process.wait()
            process.stderr.close()

    def wait_until_it_writes(self, process):
        """Until the process waits for room in the pipe."""
        places = set()
        for _ in range(6000):
            self.assertIsNone(process.poll(), "the program was not held")
            with open(f"/proc/{process.pid}/wchan", encoding="ascii") as file:
                places.add(file.read())
            if any("pipe" in place for place in places):
                return
            try:
                process.wait(timeout=0.01)
            except subprocess.TimeoutExpired:
                pass
        if places <= {"", "0"}:
            self.skipTest("this kernel does not tell where a process waits")
        self.fail("the program never came to the verify pass")

    def test_a_copy_that_was_changed_is_found_out(self):
        size = 2 * BLOCK + 1536
        source, target = self.pair(size)

        def change():
            descriptor = os.open(target, os.O_WRONLY)
            os.pwrite(descriptor, b"other", BLOCK + 70000)
            os.fsync(descriptor)
            os.close(descriptor)

        done = self.run_with_change_between_the_passes(source, target, size, change)
        self.assertEqual((done.returncode, done.stderr.decode()), (1, "\nVERIFY FAILED at offset 4194304\n"))
        text = cloning_line(self.disks.number(source), self.disks.number(target), size)
        self.assertTrue(re.fullmatch(re.escape(text) + f"({METER}){{3}}\nVerifying the copy\\.\\.\\.\n{METER}",
                                     done.stdout.decode()), done.stdout)
        copied = bytearray(pattern(size, "source"))
        copied[BLOCK + 70000:BLOCK + 70005] = b"other"
        self.expect_bytes(target, bytes(copied))

    def test_a_copy_that_was_held_and_not_changed_is_good(self):
        size = 2 * BLOCK + 1536
        source, target = self.pair(size)
        done = self.run_with_change_between_the_passes(source, target, size, lambda: None)
        self.expect_clone(done, source, target, size, verify=True)
        self.expect_copied(source, target, size, size)


if __name__ == "__main__":
    suite.main()
