"""Physical disks: what list-disks shows, which disk is the system's, how sources and targets are opened and asked, the
alignment of buffers, and where transfers are placed."""

import suite
from console import NO_TRACKER, capture_text, fatal, restore_text, source_line
from image import build_image
from machine import (ACCESS_READ, ACCESS_READ_WRITE, DRIVE_GEOMETRY_EX, FLAG_NO_BUFFERING, LENGTH_INFO,
                     VOLUME_DISK_EXTENTS, pattern)

SMALL = 65536
SYSTEM_MARK = "   <- currently booted system disk"


class Disks(suite.Scenario):
    def bare(self, *numbers):
        """A machine with these disks of 64 KiB, C: on the first of them."""
        machine = self.machine(default=False)
        for number in numbers:
            machine.add_disk(number, pattern(SMALL, number))
        if numbers:
            machine.system_volume([(numbers[0], 4096, 8192)])
        return machine

    def restore(self, machine, size=SMALL, disk=2):
        build_image(machine.path("a.vrnx"), pattern(size, "image"))
        return machine.run("restore", "--in", "a.vrnx", "--disk", str(disk), "--confirm", "YES")


class Listing(Disks):
    def test_the_disks_are_listed_with_size_and_sector_size(self):
        machine = self.bare(0, 1, 2, 10, 15)
        machine.disk(0)["length"] = 500107862016
        machine.disk(1).update(length=1048576, sector_size=4096)
        machine.disk(2).update(length=16000900661248, sector_size=520)
        self.expect(machine.run("list-disks"), 0,
                    "PhysicalDrive0     465.76 GiB  sector 512 bytes   <- currently booted system disk\n"
                    "PhysicalDrive1       0.00 GiB  sector 4096 bytes\n"
                    "PhysicalDrive2   14902.00 GiB  sector 520 bytes\n"
                    "PhysicalDrive10      0.00 GiB  sector 512 bytes\n"
                    "PhysicalDrive15      0.00 GiB  sector 512 bytes\n")

    def test_a_disk_in_use_is_listed_and_one_that_does_not_open_skipped_without_a_word(self):
        machine = self.bare(0, 1, 2)
        machine.disk(0)["in_use"] = True
        machine.disk(1)["open_error"] = 5
        self.expect(machine.run("list-disks"), 0,
                    f"PhysicalDrive0       0.00 GiB  sector 512 bytes{SYSTEM_MARK}\n"
                    "PhysicalDrive2       0.00 GiB  sector 512 bytes\n")

    def test_a_gap_is_skipped_and_disk_16_is_never_listed(self):
        machine = self.bare(1, 3, 16, 17)
        result = machine.run("list-disks")
        self.expect(result, 0,
                    f"PhysicalDrive1       0.00 GiB  sector 512 bytes{SYSTEM_MARK}\n"
                    "PhysicalDrive3       0.00 GiB  sector 512 bytes\n")
        asked = [line["path"] for line in result.calls("CreateFileW", path="PhysicalDrive")]
        self.assertEqual(asked, [rf"\\.\PhysicalDrive{number}" for number in range(16)])

    def test_disks_from_16_are_captured_and_restored_by_number(self):
        machine = self.bare(0, 16, 31)
        self.expect(machine.run("capture", "--disk", "16", "--out", "x"), 0, capture_text(16, SMALL, "x"))
        self.expect(machine.run("restore", "--in", "x", "--disk", "31", "--confirm", "YES"), 0,
                    restore_text("x", 31, SMALL, 0x400000))
        self.expect_disk(machine, 31, machine.disk_bytes(16))

    def test_no_disk_that_opens_gives_no_output_and_status_0(self):
        machine = self.bare(0, 1)
        for number in (0, 1):
            machine.disk(number)["open_error"] = 5
        self.expect(machine.run("list-disks"), 0, "")
        self.expect(self.machine(default=False).run("list-disks"), 0, "")

    def test_a_disk_that_does_not_tell_its_length_or_geometry_ends_the_listing(self):
        for skip, name in enumerate(("LENGTH_INFO", "DRIVE_GEOMETRY_EX")):
            machine = self.bare(0, 1, 2)
            machine.add_fault("DeviceIoControl", path="PhysicalDrive1", skip=skip, error=1117)
            self.expect(machine.run("list-disks"), 1,
                        f"PhysicalDrive0       0.00 GiB  sector 512 bytes{SYSTEM_MARK}\n",
                        fatal(f"IOCTL_DISK_GET_{name} failed", 1117))

    def test_how_a_disk_is_opened_asked_and_closed(self):
        machine = self.bare(0)
        log = machine.run("list-disks").log
        steps = [line for line in log if "PhysicalDrive0" in line.get("path", "")]
        self.assertEqual([line["call"] for line in steps],
                         ["CreateFileW", "DeviceIoControl", "DeviceIoControl", "CloseHandle"])
        self.assertEqual({key: steps[0][key] for key in ("access", "share", "flags")},
                         {"access": ACCESS_READ, "share": "0x00000003", "flags": "0x00000000"})
        self.assertEqual([(line["code"], line["in"], line["out"]) for line in steps[1:3]],
                         [(LENGTH_INFO, 0, 8), (DRIVE_GEOMETRY_EX, 0, 40)])


class SystemDisk(Disks):
    def test_the_disk_of_the_first_extent_of_c_is_marked_whichever_it_is(self):
        for case, extents, marked in (("another", [(1, 4096, 8192)], 1),
                                      ("several disks", [(2, 4096, 8192), (0, 4096, 8192), (1, 0, 512)], 2),
                                      ("no extents", [], 0),
                                      ("nine extents, which fit", [(1, index * 512, 512) for index in range(9)], 1)):
            machine = self.bare(0, 1, 2)
            machine.system_volume(extents)
            with self.subTest(case):
                result = self.expect(machine.run("list-disks"), 0, "".join(
                    f"PhysicalDrive{number}       0.00 GiB  sector 512 bytes{SYSTEM_MARK * (number == marked)}\n"
                    for number in range(3)))
                self.assertEqual(len(result.calls("CreateFileW", path="C:")), 3, "asked for each disk shown")

    def test_c_with_ten_extents_is_fatal(self):
        machine = self.bare(0, 1)
        machine.system_volume([(1, index * 512, 512) for index in range(10)])
        result = machine.run("list-disks")
        self.expect(result, 1, "", fatal("IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS on C: failed", 234))
        self.assertEqual(result.calls("CloseHandle")[-1]["path"], r"\\.\C:", "closed before the report")

    def test_without_c_every_command_that_asks_is_fatal(self):
        machine = self.bare(1, 2)
        machine.system_volume(None)
        message = fatal("could not open C: to determine the system disk number", 2)
        self.expect(machine.run("list-disks"), 1, "", message)
        self.expect(machine.run("capture", "--disk", "1", "--out", "x"), 1, source_line(1, SMALL), message)
        self.expect(machine.run("restore", "--in", "x", "--disk", "2", "--confirm", "YES"), 1, "", message)
        self.assertEqual(machine.files(), [])

    def test_how_c_is_opened_asked_and_closed(self):
        machine = self.bare(0)
        steps = [line for line in machine.run("list-disks").log if line.get("path") == r"\\.\C:"]
        self.assertEqual([line["call"] for line in steps], ["CreateFileW", "DeviceIoControl", "CloseHandle"])
        self.assertEqual({key: steps[0][key] for key in ("access", "share", "flags")},
                         {"access": ACCESS_READ, "share": "0x00000003", "flags": "0x00000000"})
        self.assertEqual((steps[1]["code"], steps[1]["in"], steps[1]["out"]), (VOLUME_DISK_EXTENTS, 0, 224))


class Opening(Disks):
    def test_a_source_is_opened_shared_and_unbuffered_also_where_it_is_in_use(self):
        machine = self.bare(0, 1)
        machine.disk(1)["in_use"] = True
        result = self.expect(machine.run("capture", "--disk", "1", "--out", "x"), 0, capture_text(1, SMALL, "x"))
        opened = result.calls("CreateFileW")[0]
        self.assertEqual({key: opened[key] for key in ("path", "access", "share", "flags")},
                         {"path": r"\\.\PhysicalDrive1", "access": ACCESS_READ, "share": "0x00000003",
                          "flags": FLAG_NO_BUFFERING})

    def test_a_source_that_does_not_open_is_fatal(self):
        machine = self.bare(0, 1)
        machine.disk(1)["open_error"] = 5
        message = "could not open source disk for raw read (run as Administrator?)"
        self.expect(machine.run("capture", "--disk", "1", "--out", "x"), 1, "", fatal(message, 5))
        self.expect(machine.run("capture", "--disk", "7", "--out", "x"), 1, "", fatal(message, 2))

    def test_a_target_is_opened_exclusively_and_unbuffered(self):
        machine = self.bare(0, 2)
        result = self.restore(machine)
        opened = result.calls("CreateFileW", path="PhysicalDrive2")
        self.assertEqual([{key: line[key] for key in ("access", "share", "flags")} for line in opened],
                         [{"access": ACCESS_READ_WRITE, "share": "0x00000000", "flags": FLAG_NO_BUFFERING}])

    def test_a_target_that_does_not_open_is_refused_with_its_error_and_its_number_twice(self):
        machine = self.bare(0, 2)
        before = machine.disk_bytes(2)
        for disk, fields, error in ((2, {"in_use": True}, 32), (2, {"in_use": False, "open_error": 5}, 5), (9, {}, 2)):
            machine.disk(2).update(fields)
            self.expect(self.restore(machine, disk=disk), 1, "",
                        f"Could not open disk {disk} exclusively for writing (GetLastError={error}).\n"
                        "This almost always means a volume on it is still mounted/in use.\n"
                        f"Take it offline first: diskpart > select disk {disk} > offline disk\n")
        self.expect_disk(machine, 2, before)


class Geometry(Disks):

    def test_the_length_is_what_the_disk_says_and_not_what_its_geometry_says(self):
        machine = self.bare(0, 1)
        machine.disk(1)["length"] = SMALL - 4096
        self.expect(machine.run("capture", "--disk", "1", "--out", "x"), 0, capture_text(1, SMALL - 4096, "x"))
        self.expect_good_image(machine, "x", machine.disk_bytes(1)[:-4096])


class Buffers(Disks):
    def sized(self, sector_size, size):
        machine = self.bare(0)
        machine.add_disk(1, pattern(size, "source"), sector_size=sector_size)
        machine.add_disk(2, pattern(size, "target"), sector_size=sector_size)
        return machine

    def alignments(self, result):
        return [(line["size"], line["alignment"]) for line in result.calls("_aligned_malloc")]

    def test_capture_takes_two_buffers_aligned_to_the_sector_size(self):
        for sector_size in (512, 4096, 16384):
            machine = self.sized(sector_size, SMALL)
            result = self.expect(machine.run("capture", "--disk", "1", "--out", "x"), 0,
                                 capture_text(1, SMALL, "x", sector_size=sector_size))
            self.assertEqual(self.alignments(result), [(0x400000, sector_size)] * 2)
            self.expect_good_image(machine, "x", machine.disk_bytes(1))

    def test_restore_takes_one_buffer_aligned_to_the_sector_size_and_at_least_4096(self):
        for sector_size, alignment in ((512, 4096), (4096, 4096), (16384, 16384)):
            machine = self.sized(sector_size, SMALL)
            build_image(machine.path("a.vrnx"), pattern(SMALL, "image"), chunk_size=16384)
            result = machine.run("restore", "--in", "a.vrnx", "--disk", "2", "--confirm", "YES")
            self.expect(result, 0, restore_text("a.vrnx", 2, SMALL, 16384))
            self.assertEqual(self.alignments(result), [(16384, alignment)])
            self.expect_disk(machine, 2, pattern(SMALL, "image"))

    def test_sectors_of_520_bytes_get_the_next_chunk_size_and_no_buffer(self):
        # No allocator gives an alignment that is no power of two, so such a disk gets as far as its chunk size.
        machine = self.bare(0)
        machine.add_disk(1, pattern(520 * 100, "source"), sector_size=520)
        result = machine.run("capture", "--disk", "1", "--out", "x")
        self.expect(result, 1,
                    "Source: PhysicalDrive1  Size: 0.00 GiB  SectorSize: 520  Chunks: 1 (4194320 bytes each)\n"
                    + NO_TRACKER,
                    fatal("out of memory allocating aligned I/O buffer"))
        self.assertEqual(self.alignments(result), [(4194320, 520)])
        self.assertEqual(result.calls("SetFilePointerEx")[-1]["offset"], 64 + 72)


class Transfers(Disks):
    def test_each_read_of_a_source_is_placed_and_whole(self):
        machine = self.machine()
        result = machine.run("capture", "--disk", "1", "--out", "x")
        steps = [(line["call"], line["offset"], line.get("length")) for line in result.log
                 if line.get("path") == r"\\.\PhysicalDrive1" and line["call"] in ("SetFilePointerEx", "ReadFile")]
        self.assertEqual(steps, [
            ("SetFilePointerEx", 0, None), ("ReadFile", 0, 4194304),
            ("SetFilePointerEx", 4194304, None), ("ReadFile", 4194304, 4194304),
            ("SetFilePointerEx", 8388608, None), ("ReadFile", 8388608, 1049088)])

    def test_a_rest_that_is_no_whole_number_of_the_targets_sectors_fails_as_a_write(self):
        machine = self.bare(0)
        machine.add_disk(2, bytes(SMALL), sector_size=4096)
        image_bytes = pattern(8192 + 512, "image")
        build_image(machine.path("a.vrnx"), image_bytes)
        result = machine.run("restore", "--in", "a.vrnx", "--disk", "2", "--confirm", "YES")
        self.assertEqual(result.status, 1)
        self.assertEqual(result.stderr.decode(),
                         fatal("WriteFile to target disk failed mid-restore - target disk left partially written, "
                               "do not boot it yet", 87))
        self.expect_disk(machine, 2, image_bytes[:8192] + bytes(SMALL - 8192))


if __name__ == "__main__":
    suite.main()
