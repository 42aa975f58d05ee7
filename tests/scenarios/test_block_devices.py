"""The native program on real block devices: loop devices with sectors of 512 and 4096 bytes.

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
from console import NO_TRACKER, exclusive_failure, fatal, gib
from image import check_image, reference_plain_bytes
from loop_disks import LoopDisks, reason_to_skip
from machine import SETTINGS, pattern

SIZE = 9 * 1048576 + 4096
F_OFD_GETLK = 36
METER = r"(\r  [ 0-9]{3}\.[0-9]{2}%  [0-9]+ / [0-9]+ MiB  \([0-9]+\.[0-9] MiB/s\)   )*"


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


class BlockDevices(suite.Scenario):
    recorded = False  # natively only

    def setUp(self):
        super().setUp()
        reason = reason_to_skip()
        if reason:
            self.skipTest(reason)
        self.disks = LoopDisks(self.folder)
        self.addCleanup(self.disks.detach_all)

    def attach(self, contents, sector_size=512, **options):
        """A loop device over a file of these bytes; gives its path."""
        try:
            return self.disks.attach(contents, sector_size, **options)
        except OSError as error:
            self.skipTest(str(error))

    def number(self, device):
        return self.disks.number(device)

    def program(self, *arguments):
        return self.disks.run(*arguments)

    def expect_run(self, done, status, stdout, stderr=""):
        """`stdout` with METER for the meter lines, whose rate is that of the real clock."""
        wanted = "".join(METER if part is None else re.escape(part) for part in stdout)
        text = done.stdout.decode()
        self.assertEqual(done.returncode, status, (done.stdout, done.stderr))
        self.assertTrue(re.fullmatch(wanted, text), (stdout, text))
        self.assertTrue(suite.matches(done.stderr, stderr), (stderr, done.stderr))

    def device_bytes(self, device):
        with open(device, "rb") as file:
            return file.read()

    def capture(self, number, size, sector_size, out="a.vrnx"):
        chunks = (size - 1) // 0x400000 + 1
        done = self.program("capture", "--disk", number, "--out", out)
        self.expect_run(done, 0, [
            f"Source: PhysicalDrive{number}  Size: {gib(size)} GiB  SectorSize: {sector_size}  Chunks: {chunks} "
            f"(4194304 bytes each)\n" + NO_TRACKER, None, f"\nCapture complete: {out}\n"])

    def restore(self, number, size, path="a.vrnx"):
        chunks = (size - 1) // 0x400000 + 1
        self.expect_run(self.program("restore", "--in", path, "--disk", number, "--confirm", "YES"), 0, [
            f"Restoring {path} -> PhysicalDrive{number} ({chunks} chunks, {gib(size)} GiB)\n", None,
            "\nRestore complete. Run 'diskpart > rescan' (or reboot) before relying on the target disk.\n"])

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
        self.capture(kept, SIZE, 512)
        self.assertEqual(reference_plain_bytes(os.path.join(self.folder, "a.vrnx")), pattern(SIZE, "second"))
        done = self.program("restore", "--in", "a.vrnx", "--disk", gone, "--confirm", "YES")
        self.assertEqual((done.returncode, done.stdout), (1, b""))
        self.assertIn(b"(GetLastError=2)", done.stderr)
        self.assertEqual(self.device_bytes(another), target)

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
        self.capture(number, SIZE, 512)

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

    def round_trip(self, sector_size):
        contents = pattern(SIZE, f"real {sector_size}")
        source, target = self.attach(contents, sector_size), self.attach(pattern(SIZE, "other"), sector_size)
        self.capture(self.number(source), SIZE, sector_size)
        path = os.path.join(self.folder, "a.vrnx")
        self.assertEqual(check_image(path), [])
        self.assertEqual(reference_plain_bytes(path), contents)
        self.expect_run(self.program("verify", "--in", "a.vrnx"), 0, [
            f"Verifying a.vrnx  (3 chunks, {gib(SIZE)} GiB source disk)\n", None,
            "\nVerify OK - all 3 chunks match their recorded hash.\n"])
        self.restore(self.number(target), SIZE)
        subprocess.run(["cmp", source, target], check=True)
        self.assertEqual(self.device_bytes(target), contents)
        self.assertEqual(self.device_bytes(source), contents)

    def test_a_device_of_512_byte_sectors_goes_round(self):
        self.round_trip(512)

    def test_a_device_of_4096_byte_sectors_goes_round(self):
        self.round_trip(4096)

    def test_the_image_is_that_of_the_described_machine(self):
        contents = pattern(SIZE, "both")
        source = self.attach(contents)
        self.capture(self.number(source), SIZE, 512)
        machine = self.machine(source=contents)
        self.assertEqual(machine.run("capture", "--disk", "1", "--out", "b.vrnx").status, 0)
        with open(os.path.join(self.folder, "a.vrnx"), "rb") as file:
            self.expect_file(machine, "b.vrnx", file.read())

    def mounted(self):
        device = self.attach(bytes(32 * 1048576))
        if shutil.which("mke2fs") is None:
            self.skipTest("there is no mke2fs here")
        subprocess.run(["mke2fs", "-q", "-F", device], check=True, capture_output=True)
        place = os.path.join(self.folder, "mounted")
        os.mkdir(place)
        done = subprocess.run(["mount", device, place], capture_output=True, text=True, check=False)
        if done.returncode != 0:
            self.skipTest(f"nothing can be mounted here: {done.stderr.strip()}")
        return device

    def test_a_mounted_target_is_refused_with_error_32_and_stays_as_it_was(self):
        source_bytes = pattern(SIZE, "source")
        source = self.attach(source_bytes)
        self.capture(self.number(source), SIZE, 512)
        device = self.mounted()
        before = self.device_bytes(device)
        number = self.number(device)
        self.expect_run(self.program("restore", "--in", "a.vrnx", "--disk", number, "--confirm", "YES"), 1, [""],
                        exclusive_failure(number, 32))
        # The file system may write on its own meanwhile; what the image has there comes from nobody else.
        after = self.device_bytes(device)
        changed = [start for start in range(0, SIZE, 512) if after[start:start + 512] != before[start:start + 512]]
        self.assertEqual([start for start in changed if after[start:start + 512] == source_bytes[start:start + 512]],
                         [])
        self.assertLess(len(changed), 64)

    def test_a_mounted_source_is_captured_live(self):
        device = self.mounted()
        size = 32 * 1048576
        self.capture(self.number(device), size, 512)
        self.assertEqual(check_image(os.path.join(self.folder, "a.vrnx")), [])

    def test_a_smaller_target_is_refused(self):
        source, target = self.attach(pattern(SIZE, "source")), self.attach(bytes(SIZE - 4096))
        self.capture(self.number(source), SIZE, 512)
        number = self.number(target)
        self.expect_run(self.program("restore", "--in", "a.vrnx", "--disk", number, "--confirm", "YES"), 1, [""],
                        f"Refusing: target disk {number} is 0.01 GiB, smaller than the image's 0.01 GiB source.\n")
        self.assertEqual(self.device_bytes(target), bytes(SIZE - 4096))

    def test_a_rest_that_is_no_whole_number_of_larger_sectors_fails(self):
        source, target = self.attach(pattern(SIZE + 512, "source")), self.attach(bytes(SIZE + 4096), 4096)
        self.capture(self.number(source), SIZE + 512, 512)
        number = self.number(target)
        done = self.program("restore", "--in", "a.vrnx", "--disk", number, "--confirm", "YES")
        self.assertEqual(done.returncode, 1)
        self.assertEqual(done.stderr.decode(),
                         fatal("WriteFile to target disk failed mid-restore - target disk left partially written, "
                               "do not boot it yet", 87))
        self.assertEqual(self.device_bytes(target)[:2 * 0x400000], pattern(SIZE + 512, "source")[:2 * 0x400000])
        self.assertEqual(self.device_bytes(target)[2 * 0x400000:], bytes(SIZE + 4096 - 2 * 0x400000))

    def test_a_number_that_no_disk_has_is_refused(self):
        message = "could not open source disk for raw read (run as Administrator?)"
        self.expect_run(self.program("capture", "--disk", 4000, "--out", "a.vrnx"), 1, [""], fatal(message, 2))

    def test_a_partition_table_is_read_again_after_a_restore(self):
        if shutil.which("sfdisk") is None:
            self.skipTest("there is no sfdisk here")
        path = os.path.join(self.folder, "table.img")
        with open(path, "wb") as file:
            file.truncate(SIZE)
        # The older kind of table is the one that every kernel reads.
        subprocess.run(["sfdisk", "--quiet", path], input=b"label: dos\nstart=2048, size=4096\n", check=True,
                       capture_output=True)
        with open(path, "rb") as file:
            contents = file.read()
        source = self.attach(contents, scan_partitions=True)
        if not self.has_partition(source):
            self.skipTest("this kernel does not read such a partition table")
        target = self.attach(bytes(SIZE), scan_partitions=True)
        self.assertFalse(self.has_partition(target))
        self.capture(self.number(source), SIZE, 512)
        self.restore(self.number(target), SIZE)
        self.assertEqual(self.device_bytes(target), contents)
        self.assertTrue(self.has_partition(target))

    @staticmethod
    def has_partition(device):
        return os.path.exists(f"/sys/class/block/{os.path.basename(device)}p1")


if __name__ == "__main__":
    suite.main()
