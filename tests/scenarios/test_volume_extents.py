"""capture --vss: which volumes of the machine are found on the disk, and where.

The search prints nothing of its own; it shows in the volumes that the session then asks for, and in the log of calls.
"""

import suite
from console import NO_TRACKER, meter_run, source_line
from machine import ACCESS_READ, VOLUME_DISK_EXTENTS, pattern
from snapshot import FREEZING, GATHERING, begun, device_of, fall_back, snapshotted, volume_name, writers_reported

MIB4 = 0x400000
SIZE = 64 * 1024
NOTHING_FOUND = GATHERING + fall_back("no volume on this disk could be snapshotted", 1)
SEARCH = ("FindFirstVolumeW", "FindNextVolumeW", "FindVolumeClose")


class VolumeExtents(suite.Scenario):
    def machine_with(self, *volumes, size=SIZE):
        """`volumes` as (name, extents, further fields of the description) each."""
        machine = self.machine(source=pattern(size, "source"), target=bytes(65536))
        machine.shadow_service()
        for name, extents, *fields in volumes:
            machine.add_volume(name, extents, **(fields[0] if fields else {}))
        return machine

    def capture(self, machine, session, disk=1):
        """A capture that prints this of its session; gives the result. The image is that of the disk either way."""
        size = len(machine.disk_bytes(disk))
        result = machine.run("capture", "--disk", str(disk), "--out", "a.vrnx", "--vss")
        self.expect(result, 0, source_line(disk, size) + session + NO_TRACKER + meter_run(size, MIB4)
                    + "\nCapture complete: a.vrnx\n")
        self.expect_good_image(machine, "a.vrnx", machine.disk_bytes(disk))
        return result

    def searched(self, result):
        """The search as a list of (call, path): from the first name to its end."""
        places = [place for place, line in enumerate(result.log) if line["call"] in SEARCH]
        return [(line["call"], line.get("path") or line.get("name")) for line in result.log[places[0]:places[-1] + 1]]

    def asked_for(self, result):
        return [line["path"] for line in result.calls("IVssBackupComponents::IsVolumeSupported")]

    # --- What is found ---

    def test_a_volume_on_the_disk_is_found_where_it_lies(self):
        machine = self.machine_with((volume_name(1), [(1, 4096, 8192)]))
        result = self.capture(machine,
                              "  --vss: gathering writer metadata...\n"
                              "  --vss: snapshotting volume \\\\?\\Volume{7e5c1a00-9b44-4d0e-8a61-000000000001}"
                              " (disk offset 4096, 0.00 GiB) ...\n"
                              "  --vss: asking writers to prepare and freeze...\n"
                              "  --vss: 0 VSS writer(s) reported, 0 failed.\n"
                              "  --vss: 1 volume(s) snapshotted via IVssBackupComponents; anything outside those ranges"
                              " (partition tables, unpartitioned space) reads live.\n")
        self.assertEqual(self.searched(result), [
            ("FindFirstVolumeW", volume_name(1)), ("CreateFileW", device_of(1)), ("DeviceIoControl", device_of(1)),
            ("CloseHandle", device_of(1)), ("FindNextVolumeW", None), ("FindVolumeClose", None)])

    def test_a_volume_is_opened_for_reading_and_shared_without_its_backslash_and_asked_for_with_it(self):
        machine = self.machine_with((volume_name(1), [(1, 0, SIZE)]))
        result = self.capture(machine, begun([(1, 0, SIZE)]))
        opened, = result.calls("CreateFileW", path="Volume{")
        self.assertEqual({key: opened[key] for key in ("path", "access", "share", "disposition", "flags")},
                         {"path": device_of(1), "access": ACCESS_READ, "share": "0x00000003",
                          "disposition": 3, "flags": "0x00000000"})
        asked = result.calls("DeviceIoControl", path="Volume{")[0]
        self.assertEqual((asked["code"], asked["in"], asked["out"], asked["handle"]),
                         (VOLUME_DISK_EXTENTS, 0, 224, opened["handle"]))
        self.assertEqual(result.calls("CloseHandle", path="Volume{")[0]["handle"], opened["handle"])
        self.assertEqual(self.asked_for(result), [volume_name(1)])
        self.assertEqual([line["path"] for line in result.calls("IVssBackupComponents::AddToSnapshotSet")],
                         [volume_name(1)])

    def test_a_name_without_a_backslash_is_kept_unchanged_and_only_one_is_taken_away(self):
        for name, device in (("\\\\?\\Volume{bare}", "\\\\?\\Volume{bare}"),
                             ("\\\\?\\Volume{two}\\\\", "\\\\?\\Volume{two}\\")):
            machine = self.machine_with((name, [(1, 0, SIZE)]))
            result = self.capture(machine, GATHERING + f"  --vss: snapshotting volume {device} (disk offset 0,"
                                  " 0.00 GiB) ...\n" + FREEZING + writers_reported(0) + snapshotted(1))
            self.assertEqual(self.asked_for(result), [name])
            self.assertEqual(result.calls("CreateFileW", path="Volume{")[0]["path"], device)

    def test_volumes_are_listed_in_the_order_of_the_enumeration(self):
        machine = self.machine_with((volume_name(3), [(1, 49152, 8192)]), (volume_name(1), [(1, 4096, 8192)]),
                                    (volume_name(2), [(1, 16384, 4096)]))
        result = self.capture(machine, begun([(3, 49152, 8192), (1, 4096, 8192), (2, 16384, 4096)]))
        self.assertEqual(self.asked_for(result), [volume_name(3), volume_name(1), volume_name(2)])

    def test_the_same_volumes_belong_to_another_disk_when_that_is_captured(self):
        volumes = [(volume_name(1), [(1, 4096, 8192)]), (volume_name(2), [(2, 512, 1024)])]
        self.capture(self.machine_with(*volumes), begun([(1, 4096, 8192)]))
        self.capture(self.machine_with(*volumes), begun([(2, 512, 1024)]), disk=2)

    def test_a_volume_far_behind_4_gibibytes_keeps_its_place(self):
        start, length = 5 << 40, 3 << 40
        machine = self.machine_with((volume_name(1), [(1, start, length)], {"shadow_contents": bytes(512)}))
        self.capture(machine, GATHERING + f"  --vss: snapshotting volume {device_of(1)} (disk offset 5497558138880,"
                     " 3072.00 GiB) ...\n" + FREEZING + writers_reported(0) + snapshotted(1))

    # --- What is passed over ---

    def test_no_volumes_at_all_is_an_empty_list(self):
        result = self.capture(self.machine_with(), NOTHING_FOUND)
        self.assertEqual(self.searched(result), [("FindFirstVolumeW", None)])
        self.assertEqual(result.calls("FindFirstVolumeW")[0]["error"], 18)

    def expect_passed_over(self, extents, **fields):
        """A volume like this is passed over without a word, its handle is closed, and the one behind it is found."""
        machine = self.machine_with((volume_name(1), extents, fields), (volume_name(2), [(1, 4096, 8192)]))
        result = self.capture(machine, begun([(2, 4096, 8192)]))
        self.assertEqual(self.asked_for(result), [volume_name(2)])
        opened = result.calls("CreateFileW", path=device_of(1), ok=True)
        self.assertEqual([line["handle"] for line in result.calls("CloseHandle", path=device_of(1))],
                         [line["handle"] for line in opened])
        return result

    def test_a_volume_that_is_not_one_piece_of_this_disk_is_not_kept(self):
        for case, extents, error in (
                ("on another disk", [(2, 4096, 8192)], None),
                ("spanned onto another disk", [(1, 4096, 8192), (2, 4096, 8192)], None),
                ("spanned from another disk", [(2, 4096, 8192), (1, 4096, 8192)], None),
                ("striped", [(1, 4096, 8192), (2, 4096, 8192), (1, 16384, 8192), (2, 16384, 8192)], None),
                ("two pieces", [(1, 4096, 8192), (1, 16384, 8192)], None),
                ("nine pieces", [(1, 4096 * piece, 4096) for piece in range(9)], None),
                ("more than nine pieces", [(1, 4096 * piece, 4096) for piece in range(10)], 234)):
            with self.subTest(case):
                result = self.expect_passed_over(extents)
                self.assertEqual(result.calls("DeviceIoControl", path=device_of(1))[0].get("error"), error)

    def test_a_volume_without_any_extent_is_not_kept(self):
        # The answer's first extent is zero then, which reads as disk 0.
        self.expect_passed_over([])
        machine = self.machine_with((volume_name(1), []))
        self.capture(machine, NOTHING_FOUND, disk=0)

    def test_a_volume_that_cannot_be_opened_is_not_kept(self):
        for error in (2, 5, 21):
            result = self.expect_passed_over([(1, 4096, 8192)], open_error=error)
            self.assertEqual(result.calls("CreateFileW", path=device_of(1))[0]["error"], error)
            self.assertEqual(result.calls("DeviceIoControl", path=device_of(1)), [])

    def test_a_volume_that_does_not_tell_where_it_lies_is_not_kept_and_is_closed(self):
        machine = self.machine_with((volume_name(1), [(1, 4096, 8192)]), (volume_name(2), [(1, 16384, 8192)]))
        machine.add_fault("DeviceIoControl", path="000000000001", error=1)
        result = self.capture(machine, begun([(2, 16384, 8192)]))
        self.assertEqual([call for call, path in self.searched(result) if path == device_of(1)],
                         ["CreateFileW", "DeviceIoControl", "CloseHandle"])

    # --- The enumeration itself ---

    def test_an_enumeration_that_does_not_begin_is_an_empty_list(self):
        for error in (5, 18, 1117):
            machine = self.machine_with((volume_name(1), [(1, 4096, 8192)]))
            machine.add_fault("FindFirstVolumeW", error=error)
            result = self.capture(machine, NOTHING_FOUND)
            self.assertEqual(self.searched(result), [("FindFirstVolumeW", None)])

    def test_an_enumeration_that_breaks_off_gives_what_was_found_so_far(self):
        for error in (18, 1117):
            machine = self.machine_with((volume_name(1), [(1, 4096, 8192)]), (volume_name(2), [(1, 16384, 8192)]))
            machine.add_fault("FindNextVolumeW", error=error)
            result = self.capture(machine, begun([(1, 4096, 8192)]))
            self.assertEqual([call for call, _ in self.searched(result)],
                             ["FindFirstVolumeW", "CreateFileW", "DeviceIoControl", "CloseHandle", "FindNextVolumeW",
                              "FindVolumeClose"])

    def test_a_name_too_long_for_the_buffer_ends_the_enumeration(self):
        fitting, too_long = "\\\\?\\" + "v" * 254 + "\\", "\\\\?\\" + "w" * 255 + "\\"
        self.assertEqual((len(fitting), len(too_long)), (259, 260))
        machine = self.machine_with((fitting, [(1, 4096, 8192)]), (too_long, [(1, 16384, 8192)]))
        result = self.capture(machine, GATHERING + f"  --vss: snapshotting volume {fitting[:-1]} (disk offset 4096,"
                              " 0.00 GiB) ...\n" + FREEZING + writers_reported(0) + snapshotted(1))
        self.assertEqual(self.asked_for(result), [fitting])

    def test_a_search_or_a_volume_that_does_not_close_changes_nothing(self):
        for call, path in (("FindVolumeClose", ""), ("CloseHandle", "Volume{")):
            machine = self.machine_with((volume_name(1), [(1, 4096, 8192)]), (volume_name(2), [(1, 16384, 8192)]))
            machine.add_fault(call, path=path, error=6, times=10)
            self.capture(machine, begun([(1, 4096, 8192), (2, 16384, 8192)]))

    def test_without_vss_nothing_is_enumerated(self):
        machine = self.machine_with((volume_name(1), [(1, 4096, 8192)]))
        result = machine.run("capture", "--disk", "1", "--out", "a.vrnx")
        self.assertEqual(result.status, 0)
        self.assertEqual([line for line in result.log if line["call"] in SEARCH or "Vss" in line["call"]
                          or line["call"].startswith("Co")], [])


if __name__ == "__main__":
    suite.main()
