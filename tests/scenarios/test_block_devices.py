"""The native program on real block devices, loop devices with sectors of 512 and 4096 bytes: their numbers, the way of
a disk into an image and back, and clones.

Needs Linux, root and loop devices that can be attached; otherwise each test is skipped. Whatever writes runs where the
test's own devices are the only disks there are; the machine's own list is only looked at.
"""

import fcntl
import os
import re
import shutil
import struct
import subprocess
import tempfile

import suite
from clone_runs import BLOCK, COMPLETE, WRITE_FAILED, cloning_line, pattern, sector_note
from console import NO_TRACKER, exclusive_failure, fatal, restoring_line, source_line, verifying_line
from image import check_image, reference_plain_bytes
from loop_disks import LoopScenario
from machine import SETTINGS

SIZE = 9 * 1048576 + 4096
F_OFD_GETLK = 36
METER = r"(\r  [ 0-9]{3}\.[0-9]{2}%  [0-9]+ / [0-9]+ MiB  \([0-9]+\.[0-9] MiB/s\)   )"
PIPE_SIZE = 4096


def numbered_disks():
    """The machine's own disks in the order in which they must stand at the first look: hardware disks in the order of
    their device numbers, then loop and network block devices that hold something; partitions, RAM disks and
    device-mapper targets are none."""
    hardware, attached = [], []
    for name in os.listdir("/sys/block"):
        with open(f"/sys/block/{name}/dev", encoding="ascii") as file:
            major, minor = map(int, file.read().split(":"))
        with open(f"/sys/block/{name}/size", encoding="ascii") as file:
            size = int(file.read()) * 512
        if re.match(r"(ram|zram|dm-|md)", name):
            continue
        if re.match(r"(loop|nbd)", name):
            if size:
                attached.append((major, minor, name))
        else:
            hardware.append((major, minor, name))
    return [name for _, _, name in sorted(hardware)] + [name for _, _, name in sorted(attached)]


class BlockDevices(LoopScenario):
    def number(self, device):
        return self.disks.number(device)

    def program(self, *arguments):
        return self.disks.run(*arguments)

    def expect_run(self, done, status, stdout, stderr=""):
        """`stdout` with numbers for so many meter lines, whose rate is that of the real clock."""
        wanted = "".join(METER + f"{{{part}}}" if isinstance(part, int) else re.escape(part) for part in stdout)
        text = done.stdout.decode()
        self.assertEqual(done.returncode, status, (done.stdout, done.stderr))
        self.assertTrue(re.fullmatch(wanted, text), (stdout, text))
        self.assertTrue(suite.matches(done.stderr, stderr), (stderr, done.stderr))

    def capture(self, number, size, sector_size=512, out="a.vrnx"):
        self.expect_run(self.program("capture", "--disk", number, "--out", out), 0, [
            source_line(number, size, sector_size) + NO_TRACKER, min((size - 1) // 0x400000 + 1, 2),
            f"\nCapture complete: {out}\n"])


class Numbers(BlockDevices):
    def test_attached_devices_are_listed_with_their_sector_sizes(self):
        small, large = self.attach(bytes(SIZE)), self.attach(bytes(3 * SIZE), 4096)
        lines = {self.number(small): f"PhysicalDrive{self.number(small):<2}      0.01 GiB  sector 512 bytes\n",
                 self.number(large): f"PhysicalDrive{self.number(large):<2}      0.03 GiB  sector 4096 bytes\n"}
        self.expect_run(self.program("list-disks"), 0, [lines[0] + lines[1]])

    def test_a_device_that_holds_nothing_is_no_disk(self):
        for _ in range(20):  # another test may take the device as soon as it is free
            device = os.path.basename(self.attach(bytes(SIZE)))
            self.disks.empty(f"/dev/{device}")
            done = self.program("list-disks")
            if not os.path.exists(f"/sys/block/{device}/loop/backing_file"):
                break
            os.remove(os.path.join(self.disks.list, device))
        else:
            self.skipTest("no device stayed empty")
        self.expect_run(done, 0, [""])

    def test_the_machines_own_list_has_exactly_its_disks(self):
        device = self.attach(bytes(SIZE))
        for _ in range(20):  # somebody may attach or detach a device meanwhile
            before = numbered_disks()
            done = self.first_look_at_the_machine()
            in_use = [str(place) for place, name in enumerate(before[:16]) if self.is_in_use(name)]
            openable = [str(place) for place, name in enumerate(before[:16]) if self.opens(name)]
            shown = re.findall(r"^PhysicalDrive([0-9]+) ", done.stdout.decode(), re.M)
            if numbered_disks() == before and set(shown) ^ set(openable) <= set(in_use):
                break
        else:
            if numbered_disks() != before:
                self.skipTest("the machine's disks would not stay the same")
        self.assertEqual((done.returncode, done.stderr), (0, b""))
        # What another run of the program has to itself is not shown.
        self.assertEqual([number for number in shown if number not in in_use],
                         [number for number in openable if number not in in_use])
        number = before.index(os.path.basename(device))
        if number < 16:
            self.assertIn(str(number), shown)

    def first_look_at_the_machine(self):
        """list-disks with the machine's own list of devices, and with no numbers given before."""
        run = tempfile.mkdtemp(dir=self.folder)
        return subprocess.run(["unshare", "--mount", "--propagation", "private", "sh", "-c",
                               'mount --bind "$0" /run && exec "$@"', run, SETTINGS.program, "list-disks"],
                              capture_output=True, env=SETTINGS.environment(), stdin=subprocess.DEVNULL, check=False)

    @staticmethod
    def is_in_use(name):
        """Whether another run of the program, one of another test, has the disk open: it holds locks on it then."""
        try:
            with open(f"/dev/{name}", "rb", buffering=0) as device:
                lock = struct.pack("=hhxxxxqqi", fcntl.F_WRLCK, os.SEEK_SET, 1 << 62, 1 << 34, 0)
                found = struct.unpack_from("=h", fcntl.fcntl(device, F_OFD_GETLK, lock + bytes(4)))[0]
                return found != fcntl.F_UNLCK
        except OSError:
            return False

    @staticmethod
    def opens(name):
        try:
            os.close(os.open(f"/dev/{name}", os.O_RDONLY))
            return True
        except OSError:
            return False

    def listed(self):
        """The numbers that list-disks shows."""
        done = self.program("list-disks")
        self.assertEqual((done.returncode, done.stderr), (0, b""))
        return [int(line.split()[0].removeprefix("PhysicalDrive")) for line in done.stdout.decode().splitlines()]

    def expect_no_disk(self, number):
        message = "could not open source disk for raw read (run as Administrator?)"
        self.expect_run(self.program("capture", "--disk", number, "--out", "none.vrnx"), 1, [""], fatal(message, 2))

    def test_a_number_stays_with_its_disk_and_that_of_a_gone_disk_is_nobodys(self):
        first, second = self.attach(bytes(SIZE)), self.attach(pattern(SIZE, "second"))
        gone, kept = self.number(first), self.number(second)
        self.assertEqual(sorted((gone, kept)), [0, 1])
        self.disks.detach(first)
        self.assertEqual(self.listed(), [kept])
        self.expect_no_disk(gone)
        target = pattern(SIZE, "another")
        another = self.attach(target)
        self.assertEqual(self.listed(), [kept, 2] if kept < 2 else [2, kept])
        self.expect_no_disk(gone)
        self.assertEqual(self.number(another), 2)
        self.capture(kept, SIZE)
        self.assertEqual(reference_plain_bytes(os.path.join(self.folder, "a.vrnx")), pattern(SIZE, "second"))
        done = self.program("restore", "--in", "a.vrnx", "--disk", gone, "--confirm", "YES")
        self.assertEqual((done.returncode, done.stdout), (1, b""))
        self.assertIn(b"(GetLastError=2)", done.stderr)
        self.expect_bytes(another, target)

    def test_a_device_that_gets_another_file_gets_another_number(self):
        device = self.attach(bytes(SIZE))
        number = self.number(device)
        path = os.path.join(self.folder, "other.img")
        with open(path, "wb") as file:
            file.truncate(SIZE)
        if not self.disks.exchange(device, path):
            self.skipTest("another test was faster with this device")
        self.expect_no_disk(number)
        self.assertEqual(self.listed(), [number + 1])

    def test_numbers_of_gone_disks_are_given_again_once_all_sixteen_were_given(self):
        kept = self.attach(bytes(SIZE))
        number = self.number(kept)
        for wanted in range(1, 16):
            passing = self.attach(bytes(65536))
            self.assertEqual(self.number(passing), wanted)
            self.disks.detach(passing)
        self.assertEqual(self.listed(), [number])
        again = self.attach(bytes(65536))
        self.assertEqual(self.number(again), 1)
        self.assertEqual(self.listed(), [number, 1])

    def test_damaged_numbers_end_the_run_that_finds_them_and_are_written_anew(self):
        source = self.attach(pattern(SIZE, "source"))
        number = self.number(source)
        with open(self.disks.registry, "r+b") as file:
            file.truncate(60)
        done = self.program("capture", "--disk", number, "--out", "a.vrnx")
        self.expect_run(done, 1, [""], fatal(
            "the disk numbers of this boot in /run/vornix/disks are damaged (its end is missing) - look at the disks "
            "and their numbers anew before you go on", 2))
        self.assertFalse(os.path.exists(os.path.join(self.folder, "a.vrnx")))
        self.capture(number, SIZE)

    def test_where_nothing_can_be_kept_numbers_are_ranks(self):
        first, second = self.attach(bytes(SIZE)), self.attach(pattern(SIZE, "second"))
        shutil.rmtree(self.disks.run_folder)
        with open(self.disks.run_folder, "wb"):
            pass
        self.disks.run_folder = os.path.join(self.folder, "not-to-be-written")
        os.mkdir(self.disks.run_folder)
        os.symlink("/nowhere", os.path.join(self.disks.run_folder, "vornix"))
        self.assertEqual(self.listed(), [0, 1])
        self.disks.detach(min(first, second, key=lambda path: os.stat(path).st_rdev))
        self.assertEqual(self.listed(), [0])


class Transfers(BlockDevices):
    def test_a_disk_goes_into_an_image_and_back(self):
        for sector_size in (512, 4096):
            contents = pattern(SIZE, f"real {sector_size}")
            source, target = self.attach(contents, sector_size), self.attach(pattern(SIZE, "other"), sector_size)
            out = f"{sector_size}.vrnx"
            with self.subTest(sector_size=sector_size):
                self.capture(self.number(source), SIZE, sector_size, out)
                path = os.path.join(self.folder, out)
                self.assertEqual(check_image(path), [])
                self.assertEqual(reference_plain_bytes(path), contents)
                self.expect_run(self.program("verify", "--in", out), 0, [
                    verifying_line(out, 3, SIZE), 2, "\nVerify OK - all 3 chunks match their recorded hash.\n"])
                number = self.number(target)
                self.expect_run(self.program("restore", "--in", out, "--disk", number, "--confirm", "YES"), 0, [
                    restoring_line(out, number, 3, SIZE), 2,
                    "\nRestore complete. Run 'diskpart > rescan' (or reboot) before relying on the target disk.\n"])
                subprocess.run(["cmp", source, target], check=True)
                self.expect_bytes(target, contents)
                self.expect_bytes(source, contents)


class Clone(BlockDevices):
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
        text = [notes + cloning_line(self.disks.number(source), self.disks.number(target), size),
                blocks if meters is None else meters]
        if meters is None:
            text += ["\n", *(["Verifying the copy...\n", blocks, "\nVerify OK.\n"] if verify else []), COMPLETE]
        self.expect_run(done, status, text, stderr)

    def expect_copied(self, source, target, size, target_size, count=None):
        count = size if count is None else count
        self.expect_bytes(target, pattern(size, "source")[:count] + pattern(target_size, "target")[count:])
        self.expect_bytes(source, pattern(size, "source"))

    def test_a_disk_is_copied_whatever_the_sectors_and_the_rest_of_the_target_stays(self):
        for size, target_size, sectors in (
                (2 * BLOCK + 1536, 2 * BLOCK + 1536, (512, 512)), (512 * 1024, 512 * 1024 + 512, (512, 512)),
                (2 * BLOCK + 12288, 2 * BLOCK + 12288, (4096, 4096)), (BLOCK + 4096, BLOCK + 8192, (4096, 512)),
                (BLOCK + 8192, BLOCK + 12288, (512, 4096))):
            notes = "" if sectors[0] == sectors[1] else sector_note(*sectors)
            for verify in (False, True):
                source, target = self.pair(size, target_size, sectors)
                with self.subTest(size=size, sectors=sectors, verify=verify):
                    done = self.clone(source, target, *(["--verify"] if verify else []))
                    self.expect_clone(done, source, target, size, notes, verify=verify)
                    self.expect_copied(source, target, size, target_size)
                self.disks.detach(source)
                self.disks.detach(target)

    def test_a_rest_that_is_no_whole_number_of_larger_sectors_fails(self):
        size, target_size = BLOCK + 512, BLOCK + 4096
        source, target = self.pair(size, target_size, (512, 4096))
        done = self.clone(source, target, "--verify")
        self.expect_clone(done, source, target, size, sector_note(512, 4096), meters=1, status=1,
                          stderr=fatal(WRITE_FAILED, 87))
        self.expect_copied(source, target, size, target_size, BLOCK)

    # --- Devices in use ---

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

    def expect_file_in(self, place):
        with open(os.path.join(place, "file"), "rb") as file:
            self.assertEqual(file.read(), pattern(100000, "in the file system"))

    def test_a_mounted_target_is_refused_and_stays_as_it_was(self):
        size = 2 * BLOCK
        source, target = self.attach(pattern(size, "source")), self.attach(self.file_system(size))
        place = self.mount(target)
        self.capture(self.number(source), size)
        number = self.number(target)
        for done in (self.clone(source, target, "--verify"),
                     self.program("restore", "--in", "a.vrnx", "--disk", number, "--confirm", "YES")):
            self.expect_run(done, 1, [""], exclusive_failure(number, 32))
            self.expect_file_in(place)
        self.disks.unmount(place, target)
        # The same target is taken as soon as nothing is mounted from it.
        self.expect_clone(self.clone(source, target, "--verify"), source, target, size, verify=True)
        self.expect_bytes(target, pattern(size, "source"))

    def test_a_mounted_source_is_captured_and_cloned_live(self):
        size = 2 * BLOCK
        source, target = self.attach(self.file_system(size)), self.attach(pattern(size, "target"))
        place = self.mount(source)
        self.capture(self.number(source), size)
        self.assertEqual(check_image(os.path.join(self.folder, "a.vrnx")), [])
        self.expect_clone(self.clone(source, target, "--verify"), source, target, size, verify=True)
        subprocess.run(["umount", place], check=True)
        place = self.mount(target, "-o", "ro", name="copy")
        self.expect_file_in(place)
        subprocess.run(["umount", place], check=True)

    def test_the_partitions_appear_behind_a_clone_and_a_restore(self):
        if shutil.which("sfdisk") is None:
            self.skipTest("there is no sfdisk here")
        path = os.path.join(self.folder, "table.img")
        with open(path, "wb") as file:
            file.truncate(2 * BLOCK)
        # The older kind of table is the one that every kernel reads.
        subprocess.run(["sfdisk", "--quiet", path], input=b"label: dos\nstart=2048, size=4096\n", check=True,
                       capture_output=True)
        with open(path, "rb") as file:
            source = self.attach(file.read(), scan_partitions=True)
        if not self.has_partition(source):
            self.skipTest("this kernel does not read such a partition table")
        first, second = [self.attach(bytes(2 * BLOCK), scan_partitions=True) for _ in range(2)]
        self.assertFalse(self.has_partition(first) or self.has_partition(second))
        self.expect_clone(self.clone(source, first), source, first, 2 * BLOCK)
        self.assertTrue(self.has_partition(first))
        self.capture(self.number(source), 2 * BLOCK)
        done = self.program("restore", "--in", "a.vrnx", "--disk", self.number(second), "--confirm", "YES")
        self.assertEqual((done.returncode, done.stderr), (0, b""))
        self.assertTrue(self.has_partition(second))

    @staticmethod
    def has_partition(device):
        return os.path.exists(f"/sys/class/block/{os.path.basename(device)}p1")

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

    def test_a_copy_that_was_changed_is_found_out_and_one_that_was_only_held_is_good(self):
        size = 2 * BLOCK + 1536
        source, target = self.pair(size)

        def change():
            descriptor = os.open(target, os.O_WRONLY)
            os.pwrite(descriptor, b"other", BLOCK + 70000)
            os.fsync(descriptor)
            os.close(descriptor)

        done = self.run_with_change_between_the_passes(source, target, size, change)
        self.expect_run(done, 1, [cloning_line(self.disks.number(source), self.disks.number(target), size), 3,
                                  "\nVerifying the copy...\n", 1], "\nVERIFY FAILED at offset 4194304\n")
        copied = bytearray(pattern(size, "source"))
        copied[BLOCK + 70000:BLOCK + 70005] = b"other"
        self.expect_bytes(target, bytes(copied))
        done = self.run_with_change_between_the_passes(source, target, size, lambda: None)
        self.expect_clone(done, source, target, size, verify=True)
        self.expect_copied(source, target, size, size)


if __name__ == "__main__":
    suite.main()
