"""capture --vss: the session with the shadow copy service from its first call to its last, and what each of its steps
says and leaves when it fails: a failure of the session never fails the capture.

One volume covers the whole of a disk of one chunk, and its frozen bytes differ from the live ones: the image tells from
which of the two it was read."""

import os
import re

import suite
from console import NO_TRACKER, USAGE, gib, fatal, fatal_status, meter_run, source_line
from image import build_image, check_image, reference_plain_bytes
from incremental import REASON_NO_TRACKER, compared_line
from loop_disks import LoopScenario
from machine import ACCESS_READ, FLAG_NO_BUFFERING, SETTINGS, TRACKER_ATTACH, TRACKER_COMMIT, TRACKER_QUERY, pattern
from snapshot import (ASYNC_CANCELLED, ASYNC_FINISHED, ASYNC_PENDING, E_FAIL, FREEZING, GATHERING,
                      OBJECT_NOT_FOUND, begun, device_of, fall_back, not_deleted, session_calls, shadow_path,
                      short_names, snapshotted, snapshotting, step_failed, volume_name, writer_failed, writers_reported)

MIB4 = 0x400000
SIZE = 64 * 1024
LIVE = pattern(SIZE, "source")
FROZEN = pattern(SIZE, "frozen")
WHOLE = (1, 0, SIZE)
READ_FAILED = "ReadFile from source disk failed mid-capture - image is incomplete, do not trust it"

WAIT = ["async Wait", "async QueryStatus", "async Release"]
CREATED = ["CoInitializeEx", "CoInitializeSecurity", "CreateVssBackupComponents"]
READY = [*CREATED, "InitializeForBackup", "SetContext", "SetBackupState"]
STARTED = [*READY, "GatherWriterMetadata", *WAIT, "StartSnapshotSet"]
ADDED = [*STARTED, "IsVolumeSupported", "AddToSnapshotSet"]
PREPARED = [*ADDED, "PrepareForBackup", *WAIT]
TAKEN = [*PREPARED, "DoSnapshotSet", *WAIT]
REPORTED = [*TAKEN, "GatherWriterStatus", *WAIT, "GetWriterStatusCount", "FreeWriterStatus"]
OPENED = [*REPORTED, "GetSnapshotProperties", "VssFreeSnapshotProperties"]
COMPLETED = ["BackupComplete", *WAIT, "DeleteSnapshots", "Release", "CoUninitialize"]
ABORTED = ["AbortBackup", "DeleteSnapshots", "Release", "CoUninitialize"]
RELEASED = ["Release", "CoUninitialize"]


class Session(suite.Scenario):
    def machine_with(self, *volumes, writers=(), faults=()):
        """A disk with volume 1 all over it, or with these volumes: (number, start, length, further fields) each."""
        machine = self.machine(source=LIVE, target=bytes(512))
        machine.shadow_service(writers)
        if not volumes:
            machine.add_volume(volume_name(1), [(1, 0, SIZE)], shadow_contents=FROZEN)
        for number, start, length, *fields in volumes:
            machine.add_volume(volume_name(number), [(1, start, length)], **(fields[0] if fields else {}))
        for fault in faults:
            machine.add_fault(**fault)
        return machine

    def capture(self, machine, *options, out="a.vrnx"):
        return machine.run("capture", "--disk", "1", "--out", out, "--vss", *options)

    def expect_captured(self, machine, session, calls, *, plain=FROZEN, at_the_end=""):
        """A capture that prints this of its session and makes these calls; the image holds the given bytes."""
        result = self.capture(machine)
        self.expect(result, 0, source_line(1, SIZE) + session + NO_TRACKER + meter_run(SIZE, MIB4) + "\n" + at_the_end
                    + "Capture complete: a.vrnx\n")
        self.assertEqual(short_names(session_calls(result)), calls)
        self.expect_good_image(machine, "a.vrnx", plain)
        self.assertEqual((machine.files(), result.log[-1]["call"]), (["a.vrnx"], "exit"))
        return result

    def expect_live(self, faults, session, calls):
        """With these faults the session falls back, and the disk is read live."""
        return self.expect_captured(self.machine_with(faults=faults), session, calls, plain=LIVE)


class GoodSession(Session):
    def test_a_session_from_its_first_line_to_its_last(self):
        machine = self.machine_with(writers=[("System Writer", 1, 0), ("Registry Writer", 5, 0)])
        result = self.capture(machine)
        self.expect(result, 0,
                    "Source: PhysicalDrive1  Size: 0.00 GiB  SectorSize: 512  Chunks: 1 (4194304 bytes each)\n"
                    "  --vss: gathering writer metadata...\n"
                    "  --vss: snapshotting volume \\\\?\\Volume{7e5c1a00-9b44-4d0e-8a61-000000000001}"
                    " (disk offset 0, 0.00 GiB) ...\n"
                    "  --vss: asking writers to prepare and freeze...\n"
                    "  --vss: 2 VSS writer(s) reported, 0 failed.\n"
                    "  --vss: 1 volume(s) snapshotted via IVssBackupComponents; anything outside those ranges"
                    " (partition tables, unpartitioned space) reads live.\n"
                    "Change tracker: not available for this disk (Wendrel not loaded/attached)"
                    " - image carries no epoch.\n"
                    "\r  100.00%  0 / 0 MiB  (0.1 MiB/s)   \n"
                    "Capture complete: a.vrnx\n")
        self.expect_good_image(machine, "a.vrnx", FROZEN)
        self.expect_disk(machine, 1, LIVE)

    def test_the_calls_of_a_session_stand_in_their_order_with_their_arguments(self):
        result = self.expect_captured(self.machine_with(), begun([WHOLE]), [*OPENED, *COMPLETED])

        def fields(call, *names):
            return [tuple(line[name] for name in names) for line in result.log if line["call"].endswith(call)]

        self.assertEqual(fields("IVssAsync::Wait", "step", "timeout"),
                         [(step, "0xFFFFFFFF") for step in ("GatherWriterMetadata", "PrepareForBackup", "DoSnapshotSet",
                                                            "GatherWriterStatus", "BackupComplete")])
        self.assertEqual(fields("CoInitializeEx", "flags"), [("0x00000000",)])
        self.assertEqual(fields("CoInitializeSecurity", "authentication", "impersonation", "capabilities"),
                         [(6, 3, "0x00000000")])
        self.assertEqual(fields("::SetContext", "context"), [(0,)])
        self.assertEqual(fields("::SetBackupState", "select_components", "bootable_state", "type", "partial_files"),
                         [(False, True, 5, False)])
        self.assertEqual(fields("::IsVolumeSupported", "path"), [(volume_name(1),)])
        self.assertEqual(fields("::AddToSnapshotSet", "path"), [(volume_name(1),)])
        self.assertEqual(fields("::DeleteSnapshots", "force"), [(True,)])
        self.assertEqual([tuple(line[name] for name in ("path", "access", "share", "disposition", "flags"))
                          for line in result.calls("CreateFileW", path="ShadowCopy")],
                         [(shadow_path(1), ACCESS_READ, "0x00000001", 3, FLAG_NO_BUFFERING)])
        # The session is ended once and not again at the exit.
        self.assertEqual(result.sequence()[-2:], ["MoveFileExW", "exit"])

    def test_the_system_disk_is_captured_without_a_note(self):
        machine = self.machine_with()
        machine.system_volume([(1, 0, SIZE)])
        self.expect_captured(machine, begun([WHOLE]), [*OPENED, *COMPLETED])


class Order(Session):
    def places(self, result, **wanted):
        """The place in the log of the one call that answers to each description: (name, path)."""
        found = {}
        for key, (name, path) in wanted.items():
            places = [place for place, line in enumerate(result.log)
                      if line["call"].endswith(name) and path in (line.get("path") or line.get("code") or "")]
            self.assertEqual(len(places), 1, key)
            found[key] = places[0]
        return found

    def test_the_session_lies_between_attach_and_query_and_ends_between_closing_files_and_commit(self):
        machine = self.machine_with()
        machine.tracker([{"number": 1, "current_epoch": 7}])
        result = self.capture(machine)
        self.expect(result, 0, source_line(1, SIZE) + begun([WHOLE]) + "Change tracker: disk 1 epoch 7\n"
                    + meter_run(SIZE, MIB4) + "\nCapture complete: a.vrnx\n")
        requests = [(place, line["code"]) for place, line in enumerate(result.log)
                    if line.get("path") == "\\\\.\\Wendrel" and line["call"] == "DeviceIoControl"]
        self.assertEqual([code for _, code in requests], [TRACKER_ATTACH, TRACKER_QUERY, TRACKER_QUERY, TRACKER_COMMIT])
        session = [place for place, line in enumerate(result.log)
                   if line["call"].startswith(("Co", "IVss", "Find")) or "ShadowCopy" in line.get("path", "")]
        begins, ends = min(session), max(place for place in session if place < requests[1][0])
        # Between attach and query there is nothing but the session.
        self.assertEqual((begins, ends), (requests[0][0] + 1, requests[1][0] - 1))
        tail = [(line["call"].removeprefix("IVssBackupComponents::"), line.get("path")) for line in result.log]
        self.assertEqual(tail[-15:], [
            ("WriteFile", "a.vrnx.partial"), ("CloseHandle", "a.vrnx.partial"),
            ("CloseHandle", "\\\\.\\PhysicalDrive1"), ("CloseHandle", shadow_path(1)),
            ("BackupComplete", None), ("IVssAsync::Wait", None),
            ("IVssAsync::QueryStatus", None), ("IVssAsync::Release", None), ("DeleteSnapshots", None),
            ("Release", None), ("CoUninitialize", None), ("DeviceIoControl", "\\\\.\\Wendrel"), ("MoveFileExW", None),
            ("CloseHandle", "\\\\.\\Wendrel"), ("exit", None)])

    def test_the_base_is_opened_behind_the_snapshot_and_closed_before_the_session_is_ended(self):
        machine = self.machine_with()
        build_image(machine.path("base.vrnx"), FROZEN, chunk_size=MIB4)
        result = self.capture(machine, "--base", "base.vrnx", "--thin")
        self.assertEqual(result.status, 0)
        closed = [line["path"] for line in result.calls("CloseHandle")]
        self.assertEqual(closed[-4:], ["a.vrnx.partial", "\\\\.\\PhysicalDrive1", "base.vrnx", shadow_path(1)])
        places = self.places(result, shadow=("CreateFileW", "ShadowCopy"), base=("CreateFileW", "base.vrnx"),
                             work=("CreateFileW", "a.vrnx.partial"), closed=("CloseHandle", "base.vrnx"),
                             end=("BackupComplete", ""))
        self.assertEqual(sorted(places, key=places.get), ["shadow", "base", "work", "closed", "end"])

    def test_the_shadow_devices_are_closed_before_the_set_is_ended_also_when_the_capture_fails(self):
        for fault, end in ((None, "BackupComplete"), ({"call": "WriteFile", "error": 112}, "AbortBackup")):
            machine = self.machine_with((1, 0, 16384), (2, 16384, 16384))
            if fault:
                machine.add_fault(**fault)
            result = self.capture(machine)
            self.assertEqual(result.status, 1 if fault else 0)
            first, second = shadow_path(1), shadow_path(2)
            places = self.places(result, one=("CloseHandle", first), two=("CloseHandle", second), end=(end, ""))
            self.assertEqual(sorted(places, key=places.get), ["one", "two", "end"])


class FailedBeginning(Session):
    """The steps before there is a set: each failure falls back, and the session is released without a word to the
    writers."""

    def test_a_system_without_the_library(self):
        machine = self.machine_with()
        del machine.description["shadow_service"]
        result = self.expect_captured(machine,
                                      "  --vss: VSS is not available here (CreateVssBackupComponents) (0x8007007E)"
                                      " - reading live instead (crash-consistent only).\n",
                                      [*CREATED, "CoUninitialize"], plain=LIVE)
        self.assertTrue(result.calls("CreateVssBackupComponents")[0]["raised"])
        self.assertEqual(result.calls("FindFirstVolumeW"), [])

    STEPS = (
        # (call, status, whether a method of the session, what is said of it, the calls)
        ("CoInitializeEx", 0x80010106, "CoInitializeEx failed", ["CoInitializeEx"]),
        ("CoInitializeSecurity", 0x80070005, "CoInitializeSecurity failed",
         ["CoInitializeEx", "CoInitializeSecurity", "CoUninitialize"]),
        # Where the service gives no object, success or not, it is not there.
        *[("CreateVssBackupComponents", status, "VSS is not available here (CreateVssBackupComponents)",
           [*CREATED, "CoUninitialize"]) for status in (0x80070005, 0, 1)],
        *[("IVssBackupComponents::" + step, status, f"{step} failed", [*calls, *RELEASED])
          for step, calls in (("InitializeForBackup", READY[:-2]), ("SetContext", READY[:-1]),
                              ("SetBackupState", READY), ("StartSnapshotSet", STARTED))
          for status in (0x80042301, 0x8000FFFF)])

    def test_each_plain_step_that_fails(self):
        for call, status, reason, calls in self.STEPS:
            said = GATHERING if call.endswith("StartSnapshotSet") else ""
            with self.subTest(call, status=status):
                self.expect_live([{"call": call, "status": status}], said + f"  --vss: {reason} (0x{status:08X})"
                                 " - reading live instead (crash-consistent only).\n", calls)

    def test_a_plain_step_with_another_success_goes_on_and_so_does_security_that_was_set_already(self):
        for call, status in (("CoInitializeEx", 1), ("CoInitializeSecurity", 0x80010119),
                             ("IVssBackupComponents::InitializeForBackup", 1), ("IVssBackupComponents::SetContext", 1),
                             ("IVssBackupComponents::SetBackupState", 1)):
            machine = self.machine_with()
            machine.add_fault(call, status=status)
            with self.subTest(call):
                self.expect_captured(machine, begun([WHOLE]), [*OPENED, *COMPLETED])

    def expect_failed_async_step(self, step, nth, said, calls):
        """Every way in which the `nth` asynchronous step of the session, counted from 0, fails, with no set yet."""
        method = "IVssBackupComponents::" + step
        reason = f"{step} failed"
        for status in (0x80042301, E_FAIL):
            self.expect_live([{"call": method, "status": status}],
                             said + f"  --vss: {step} failed (0x{status:08X}) - reading live instead"
                             " (crash-consistent only).\n", [*calls, step, *RELEASED])
        # What is shown from here on is the result of the call itself, a success.
        for effect in ({"null_async": True}, {"status": 0}):
            self.expect_live([{"call": method, **effect}], said + fall_back(reason, 0), [*calls, step, *RELEASED])
        self.expect_live([{"call": method, "status": 1}], said + fall_back(reason, 1), [*calls, step, *RELEASED])
        waited = [*calls, step, *WAIT, *RELEASED]
        finished = {"call": "IVssAsync::QueryStatus", "skip": nth, "async_status": ASYNC_FINISHED}
        self.expect_live([{"call": "IVssAsync::Wait", "skip": nth, "status": 0x80042316}, finished],
                         said + f"    {step} did not complete successfully (wait=0x80042316, status=0x0004230A)\n"
                         + fall_back(reason, 0), waited)
        for status in (0x80070006, 0):  # also a success that gives no status
            self.expect_live([{"call": "IVssAsync::QueryStatus", "skip": nth, "status": status}],
                             said + f"    {step} did not complete successfully (wait=0x00000000, status=0x80004005)\n"
                             + fall_back(reason, 0), waited)
        for status in (ASYNC_CANCELLED, ASYNC_PENDING, 0, 0x800423F4):
            self.expect_live([{"call": "IVssAsync::QueryStatus", "skip": nth, "async_status": status}],
                             said + step_failed(step, status=status) + fall_back(reason, 0), waited)

    def test_metadata_that_cannot_be_gathered(self):
        self.expect_failed_async_step("GatherWriterMetadata", 0, GATHERING, READY)

    def test_a_preparation_that_fails(self):
        self.expect_failed_async_step("PrepareForBackup", 1, GATHERING + snapshotting(*WHOLE) + FREEZING, ADDED)

    def test_a_snapshot_that_fails(self):
        self.expect_failed_async_step("DoSnapshotSet", 2, GATHERING + snapshotting(*WHOLE) + FREEZING, PREPARED)

    def test_a_failed_session_is_released_once_also_when_the_capture_dies_later(self):
        machine = self.machine_with()
        machine.add_fault("IVssBackupComponents::PrepareForBackup", status="0x80042301")
        machine.add_fault("ReadFile", path="PhysicalDrive1", error=23)
        result = self.capture(machine)
        self.expect(result, 1, source_line(1, SIZE) + GATHERING + snapshotting(*WHOLE) + FREEZING
                    + fall_back("PrepareForBackup failed", 0x80042301) + NO_TRACKER, fatal(READ_FAILED, 23))
        self.assertEqual(short_names(session_calls(result)), [*ADDED, "PrepareForBackup", *RELEASED])


class Volumes(Session):
    TWO = ((1, 0, 16384), (2, 16384, 16384))
    REFUSED = "  --vss: volume {} can't be snapshotted (removable/unsupported) - it will be read live.\n"
    NONE_LEFT = ("  --vss: no volume on this disk could be snapshotted (0x00000001)"
                 " - reading live instead (crash-consistent only).\n")

    def test_a_disk_with_no_volume_left_is_read_live(self):
        refused = [(number, start, 16384, {"supported": False}) for number, start in ((1, 0), (2, 16384))]
        for case, volumes, said, calls in (
                ("none", (), "", []),
                ("all refused", refused, self.REFUSED.format(device_of(1)) + self.REFUSED.format(device_of(2)),
                 ["IsVolumeSupported"] * 2),
                ("not added", [(1, 0, SIZE)], f"  --vss: could not add volume {device_of(1)} to the snapshot set"
                 " (0x80042312) - read live.\n", ["IsVolumeSupported", "AddToSnapshotSet"])):
            machine = self.machine_with(*volumes)
            if not volumes:
                machine.description["volumes"] = []
            machine.add_fault("IVssBackupComponents::AddToSnapshotSet", status="0x80042312")
            with self.subTest(case):
                self.expect_captured(machine, GATHERING + said + self.NONE_LEFT, [*STARTED, *calls, *RELEASED],
                                     plain=LIVE)

    def test_a_refused_volume_leaves_the_others_in_the_set(self):
        two_asked = [*STARTED, "IsVolumeSupported", "IsVolumeSupported", "AddToSnapshotSet"]
        rest = [call for call in OPENED if call not in ADDED[-2:]]
        for fields, fault in (({"supported": False}, None),
                              ({}, {"call": "IVssBackupComponents::IsVolumeSupported", "status": "0x8004230C"})):
            machine = self.machine_with((1, 0, 16384, fields), (2, 0, SIZE, {"shadow_contents": FROZEN}))
            if fault:
                machine.add_fault(**fault)
            self.expect_captured(machine, GATHERING + self.REFUSED.format(device_of(1)) + snapshotting(2, 0, SIZE)
                                 + FREEZING + writers_reported(0) + snapshotted(1),
                                 [*two_asked, *rest[len(STARTED):], *COMPLETED])

    def test_a_volume_that_cannot_be_added_leaves_the_others_in_the_set(self):
        machine = self.machine_with((1, 0, SIZE, {"shadow_contents": FROZEN}), (2, 16384, 16384))
        machine.add_fault("IVssBackupComponents::AddToSnapshotSet", path="000000000002", status="0x80042317")
        result = self.expect_captured(
            machine, GATHERING + snapshotting(*WHOLE)
            + f"  --vss: could not add volume {device_of(2)} to the snapshot set (0x80042317) - read live.\n" + FREEZING
            + writers_reported(0) + snapshotted(1),
            [*ADDED, "IsVolumeSupported", "AddToSnapshotSet", *OPENED[len(ADDED):], *COMPLETED])
        self.assertEqual(len(result.calls("IVssBackupComponents::GetSnapshotProperties")), 1)

    def test_all_volumes_are_in_one_set(self):
        machine = self.machine_with(*self.TWO, (3, 32768, 16384))
        result = self.expect_captured(
            machine, begun([(1, 0, 16384), (2, 16384, 16384), (3, 32768, 16384)]),
            [*STARTED, *["IsVolumeSupported", "AddToSnapshotSet"] * 3, *REPORTED[len(ADDED):],
             *["GetSnapshotProperties", "VssFreeSnapshotProperties"] * 3, *COMPLETED], plain=LIVE)
        self.assertEqual([line["path"] for line in result.calls("CreateFileW", path="ShadowCopy")],
                         [shadow_path(1), shadow_path(2), shadow_path(3)])

    def test_the_size_of_a_volume_is_shown_in_gibibytes(self):
        length = 3 * 1073741824 + 536870912
        machine = self.machine_with((1, 1048576, length, {"shadow_contents": bytes(512)}))
        self.expect_captured(machine, GATHERING + f"  --vss: snapshotting volume {device_of(1)} (disk offset 1048576,"
                             " 3.50 GiB) ...\n" + FREEZING + writers_reported(0) + snapshotted(1),
                             [*OPENED, *COMPLETED], plain=LIVE)


class Writers(Session):
    def expect_report(self, writers, lines, calls=None):
        """The lines of the report of these writers; a failed one changes nothing in what is read."""
        machine = self.machine_with(writers=writers)
        given = ["GetWriterStatus", "SysFreeString"] * len(writers) if calls is None else calls
        reported = [*TAKEN, "GatherWriterStatus", *WAIT, "GetWriterStatusCount", *given, "FreeWriterStatus"]
        return self.expect_captured(machine, GATHERING + snapshotting(*WHOLE) + FREEZING + lines + snapshotted(1),
                                    [*reported, *OPENED[-2:], *COMPLETED])

    def test_a_failed_writer_is_named_and_stops_nothing(self):
        self.expect_report([("Good", 1, 0), ("Database Writer", 8, 0x800423F4), ("Also good", 1, 0)],
                           "    WARNING: VSS writer 'Database Writer' failed (state 8, hr=0x800423F4)"
                           " - that application's data is crash-consistent only.\n"
                           "  --vss: 3 VSS writer(s) reported, 1 failed.\n")

    def test_the_states_from_6_to_15_count_as_failed(self):
        states = [*range(0, 19), 4096]
        lines = [writer_failed(f"Writer {state}", state, 0x80040000 + state) for state in range(6, 16)]
        self.expect_report([(f"Writer {state}", state, 0x80040000 + state) for state in states],
                           "".join(lines) + writers_reported(len(states), 10))

    def test_a_writer_without_a_name_is_a_question_mark_and_an_empty_name_stays_empty(self):
        self.expect_report([(None, 6, 0), (None, 1, 0), ("", 15, 0x8000FFFF)],
                           "    WARNING: VSS writer '?' failed (state 6, hr=0x00000000)"
                           " - that application's data is crash-consistent only.\n"
                           + writer_failed("", 15, 0x8000FFFF) + writers_reported(3, 2))

    def test_a_name_outside_ascii_is_shown_on_a_console_of_utf_8(self):
        if self.settings.windows:
            self.skipTest("the runtime there converts names to the code page of the process")
        self.expect_report([("Schl\u00fcssel \u30e9\u30a4\u30bf\u30fc", 7, 0)],
                           writer_failed("Schl\u00fcssel \u30e9\u30a4\u30bf\u30fc", 7, 0) + writers_reported(1, 1))

    def test_each_way_in_which_the_report_fails_changes_nothing_but_the_report(self):
        gather, status = "IVssBackupComponents::GatherWriterStatus", "IVssBackupComponents::GetWriterStatus"
        query = {"call": "IVssAsync::QueryStatus", "skip": 3}
        one = ["GetWriterStatus", "SysFreeString"]
        waited = ["GatherWriterStatus", *WAIT]
        counted = [*waited, "GetWriterStatusCount"]
        for case, faults, lines, calls in (
                # One that cannot be gathered is left out in silence, one that does not complete says so.
                *[(f"not gathered: {effect}", [{"call": gather, **effect}], "", ["GatherWriterStatus"])
                  for effect in ({"status": "0x80042301"}, {"null_async": True}, {"status": 0})],
                ("a wait that fails", [{"call": "IVssAsync::Wait", "skip": 3, "status": "0x80042316"},
                                       {**query, "async_status": ASYNC_FINISHED}],
                 "    GatherWriterStatus did not complete successfully (wait=0x80042316, status=0x0004230A)\n", waited),
                ("cancelled", [{**query, "async_status": ASYNC_CANCELLED}],
                 "    GatherWriterStatus did not complete successfully (wait=0x00000000, status=0x0004230B)\n", waited),
                ("no status of the wait", [{**query, "status": "0x8000FFFF"}],
                 step_failed("GatherWriterStatus", status=E_FAIL), waited),
                ("no count", [{"call": "IVssBackupComponents::GetWriterStatusCount", "status": "0x80042301"}], "",
                 counted),
                # A writer whose status cannot be had is passed over and still counted.
                ("no status of the first", [{"call": status, "status": "0x80042308"}],
                 writer_failed("Worse", 7, 0) + writers_reported(3, 1),
                 [*counted, "GetWriterStatus", *one * 2, "FreeWriterStatus"]),
                ("no status of any", [{"call": status, "times": 3, "status": "0x80042308"}], writers_reported(3, 0),
                 [*counted, *["GetWriterStatus"] * 3, "FreeWriterStatus"]),
                ("not freed", [{"call": "IVssBackupComponents::FreeWriterStatus", "status": "0x80042301"}],
                 writer_failed("Bad", 6, 0) + writer_failed("Worse", 7, 0) + writers_reported(3, 2),
                 [*counted, *one * 3, "FreeWriterStatus"])):
            machine = self.machine_with(writers=(("Bad", 6, 0), ("Good", 1, 0), ("Worse", 7, 0)), faults=faults)
            with self.subTest(case):
                self.expect_captured(machine, GATHERING + snapshotting(*WHOLE) + FREEZING + lines + snapshotted(1),
                                     [*TAKEN, *calls, *OPENED[-2:], *COMPLETED])


class ShadowDevices(Session):
    def expect_device(self, device_object, path, *, opens=True):
        """A snapshot with this device object is opened under this path."""
        machine = self.machine_with((1, 0, SIZE, {"shadow": {"device_object": device_object},
                                                  "shadow_contents": FROZEN}))
        result = self.capture(machine)
        opened = [line for line in result.calls("CreateFileW")
                  if line["path"] == path and line["flags"] == FLAG_NO_BUFFERING and line["share"] == "0x00000001"]
        self.assertEqual([line["ok"] for line in opened], [opens], result.describe())
        failed = ""
        if not opens:
            error = opened[0]["error"]
            failed = f"  --vss: could not open shadow device {path} (GetLastError={error}) - read live.\n"
        self.expect(result, 0, source_line(1, SIZE) + GATHERING + snapshotting(*WHOLE) + FREEZING + writers_reported(0)
                    + failed + snapshotted(1 if opens else 0) + NO_TRACKER + meter_run(SIZE, MIB4)
                    + "\nCapture complete: a.vrnx\n")
        self.assertEqual(short_names(session_calls(result)), [*OPENED, *COMPLETED])
        self.expect_good_image(machine, "a.vrnx", FROZEN if opens else LIVE)

    def test_a_device_object_in_the_device_folder_gets_the_prefix_and_any_other_stands_as_it_is(self):
        for device_object in ("\\Device\\HarddiskVolumeShadowCopy17", "\\Device\\x", "\\Device\\"):
            self.expect_device(device_object, "\\\\?\\GLOBALROOT" + device_object)
        # The prefix is told by case and by all eight characters.
        for device_object in ("\\\\?\\GLOBALROOT\\Device\\HarddiskVolumeShadowCopy3", "\\\\.\\Shadow7",
                              "\\DosDevices\\Shadow", "\\device\\HarddiskVolumeShadowCopy1",
                              "\\DEVICE\\HarddiskVolumeShadowCopy1", "\\Devices\\HarddiskVolumeShadowCopy1",
                              "\\Device"):
            self.expect_device(device_object, device_object)

    def test_a_null_or_empty_device_object_is_an_empty_path_that_does_not_open(self):
        for device_object in (None, ""):
            self.expect_device(device_object, "", opens=False)

    def test_a_shadow_device_that_does_not_open_or_is_not_told_of_leaves_its_volume_live(self):
        for fault, line, calls in (
                ({"call": "CreateFileW", "path": "ShadowCopy", "error": 5},
                 "  --vss: could not open shadow device \\\\?\\GLOBALROOT\\Device\\HarddiskVolumeShadowCopy1"
                 " (GetLastError=5) - read live.\n", OPENED),
                ({"call": "IVssBackupComponents::GetSnapshotProperties", "status": "0x80042308"},
                 f"  --vss: GetSnapshotProperties failed for {device_of(1)} (0x80042308) - read live.\n",
                 OPENED[:-1])):  # properties that cannot be had are not freed
            machine = self.machine_with(faults=[fault])
            with self.subTest(fault["call"]):
                self.expect_captured(
                    machine, GATHERING + snapshotting(*WHOLE) + FREEZING + writers_reported(0) + line
                    + "  --vss: 0 volume(s) snapshotted via IVssBackupComponents; anything outside those ranges"
                    " (partition tables, unpartitioned space) reads live.\n", [*calls, *COMPLETED], plain=LIVE)

    def test_one_failed_device_leaves_the_others(self):
        for fault, line in (({"call": "CreateFileW", "path": "ShadowCopy1", "error": 21},
                             f"  --vss: could not open shadow device {shadow_path(1)} (GetLastError=21) - read"
                             " live.\n"),
                            ({"call": "IVssBackupComponents::GetSnapshotProperties", "status": "0x8000FFFF"},
                             f"  --vss: GetSnapshotProperties failed for {device_of(2)} (0x8000FFFF) - read live.\n")):
            machine = self.machine_with((2, 0, 16384), (1, 0, SIZE, {"shadow_contents": FROZEN}))
            machine.add_fault(**fault)
            result = self.capture(machine)
            self.expect(result, 0, source_line(1, SIZE) + GATHERING + snapshotting(2, 0, 16384) + snapshotting(*WHOLE)
                        + FREEZING + writers_reported(0) + line + snapshotted(1) + NO_TRACKER + meter_run(SIZE, MIB4)
                        + "\nCapture complete: a.vrnx\n")
            self.expect_good_image(machine, "a.vrnx", FROZEN)
            closed = result.calls("CloseHandle", path="ShadowCopy")
            self.assertEqual([line["path"] for line in closed], [shadow_path(2)])


class Ending(Session):
    def test_a_completion_that_does_not_complete_changes_nothing_but_its_line(self):
        for faults, line in (
                ([{"call": "IVssAsync::QueryStatus", "skip": 4, "async_status": ASYNC_CANCELLED}],
                 "    BackupComplete did not complete successfully (wait=0x00000000, status=0x0004230B)\n"),
                ([{"call": "IVssAsync::Wait", "skip": 4, "status": "0x80042316"},
                  {"call": "IVssAsync::QueryStatus", "skip": 4, "async_status": ASYNC_FINISHED}],
                 "    BackupComplete did not complete successfully (wait=0x80042316, status=0x0004230A)\n"),
                ([{"call": "IVssAsync::QueryStatus", "skip": 4, "status": "0x80070006"}],
                 "    BackupComplete did not complete successfully (wait=0x00000000, status=0x80004005)\n")):
            machine = self.machine_with(faults=faults)
            self.expect_captured(machine, begun([WHOLE]), [*OPENED, *COMPLETED], at_the_end=line)

    def test_what_fails_at_the_end_in_silence(self):
        complete, delete = "IVssBackupComponents::BackupComplete", "IVssBackupComponents::DeleteSnapshots"
        passed_over = ["BackupComplete", "DeleteSnapshots", *RELEASED]
        for case, faults, ending in (
                ("a completion that fails is an abort", [{"call": complete, "status": "0x80042301"}],
                 ["BackupComplete", *ABORTED]),
                *[(f"a completion without an object: {effect}", [{"call": complete, **effect}], passed_over)
                  for effect in ({"null_async": True}, {"status": 0}, {"status": 1})],
                ("a wait with another success", [
                    {"call": "IVssAsync::Wait", "skip": 4, "status": 1},
                    {"call": "IVssAsync::QueryStatus", "skip": 4, "async_status": ASYNC_FINISHED}], COMPLETED),
                ("a set that is gone already", [{"call": delete, "status": OBJECT_NOT_FOUND}], COMPLETED),
                ("a shadow device that does not close", [{"call": "CloseHandle", "path": "ShadowCopy", "error": 6}],
                 COMPLETED)):
            machine = self.machine_with(faults=faults)
            with self.subTest(case):
                self.expect_captured(machine, begun([WHOLE]), [*OPENED, *ending])

    def test_a_set_that_cannot_be_deleted_is_told(self):
        machine = self.machine_with()
        machine.add_fault("IVssBackupComponents::DeleteSnapshots", status="0x80042301")
        self.expect_captured(
            machine, begun([WHOLE]), [*OPENED, *COMPLETED],
            at_the_end="  --vss: WARNING: could not delete the snapshot set (0x80042301) - it is still listed under"
            " Win32_ShadowCopy and must be removed by hand.\n")


class FatalEnd(Session):
    """A capture that dies while a set exists: the exit routine aborts the backup and deletes the set, once."""

    def expect_fatal(self, machine, stderr, *options, printed="", at_the_end=""):
        out = ["--out", "a.vrnx"] if "--out" not in options else []
        result = machine.run("capture", "--disk", "1", "--vss", *out, *options)
        self.expect(result, 1, source_line(1, SIZE) + begun([WHOLE]) + NO_TRACKER + printed + at_the_end, stderr)
        self.assertEqual(short_names(session_calls(result)), [*OPENED, *ABORTED])
        self.assertEqual([line["path"] for line in result.calls("CloseHandle", path="ShadowCopy")], [shadow_path(1)])
        self.assertEqual(result.sequence()[-2:], ["CoUninitialize", "exit"])
        return result

    def test_each_fatal_end_aborts_the_backup_and_deletes_the_set(self):
        based = "Incremental mode: base image {}\n"
        compared = compared_line(REASON_NO_TRACKER) + meter_run(SIZE, MIB4) + "\n"
        read_shadow = {"call": "ReadFile", "path": "ShadowCopy", "error": 23}
        refused = {"status": "0x80042301"}
        for case, faults, options, report, printed, at_the_end in (
                ("thin without a base", [], ["--thin"], fatal("--thin needs --base"), "", ""),
                ("no base", [], ["--base", "no.vrnx"], "could not open image file: no.vrnx\n"
                 + fatal("could not open image file", 2), based.format("no.vrnx"), ""),
                ("another base", [], ["--base", "other.vrnx"],
                 fatal("--base image geometry does not match source disk"), based.format("other.vrnx"), ""),
                ("an empty password", [], ["--encrypt", "--password-file", "empty.txt"],
                 fatal("password file is empty"), "", ""),
                ("an output that exists", [], ["--out", "other.vrnx"],
                 fatal("refusing to overwrite an existing output image"), "", ""),
                ("a work file that is a folder", [], ["--out", "folder"],
                 fatal("could not create output image file", 5), "", ""),
                ("no memory", [{"call": "_aligned_malloc", "skip": 1, "null": True}], [],
                 fatal("out of memory allocating aligned I/O buffer"), "", ""),
                ("a read", [read_shadow], [], fatal(READ_FAILED, 23), "", ""),
                ("a hash", [{"call": "BCryptCreateHash", "status": "0xC0000017"}], [],
                 fatal_status("BCryptCreateHash", 0xC0000017), "", ""),
                ("a write", [{"call": "WriteFile", "error": 112}], [],
                 fatal("WriteFile to image file failed mid-capture (disk full?)", 112), "", ""),
                ("a trailer", [{"call": "WriteFile", "error": 112}], ["--base", "base.vrnx", "--thin"],
                 fatal("could not write thin image trailer", 112), based.format("base.vrnx") + compared, ""),
                ("an abort that fails too", [read_shadow, {"call": "IVssBackupComponents::AbortBackup", **refused}], [],
                 fatal(READ_FAILED, 23), "", ""),
                ("a set that cannot be deleted", [
                    read_shadow, {"call": "IVssBackupComponents::DeleteSnapshots", **refused}], [],
                 fatal(READ_FAILED, 23), "", not_deleted(0x80042301))):
            machine = self.machine_with(faults=faults)
            build_image(machine.path("base.vrnx"), FROZEN, chunk_size=MIB4)
            build_image(machine.path("other.vrnx"), bytes(SIZE + 512), chunk_size=MIB4)
            machine.write("empty.txt", b"\n")
            os.mkdir(machine.path("folder.partial"))
            with self.subTest(case):
                self.expect_fatal(machine, report, *options, printed=printed, at_the_end=at_the_end)

    def test_a_set_that_exists_without_ranges_is_deleted_too(self):
        machine = self.machine_with()
        machine.add_fault("IVssBackupComponents::GetSnapshotProperties", status="0x80042308")
        machine.add_fault("ReadFile", error=23)
        result = self.capture(machine)
        self.expect(result, 1, source_line(1, SIZE) + GATHERING + snapshotting(*WHOLE) + FREEZING + writers_reported(0)
                    + f"  --vss: GetSnapshotProperties failed for {device_of(1)} (0x80042308) - read live.\n"
                    + snapshotted(0) + NO_TRACKER, fatal(READ_FAILED, 23))
        self.assertEqual(short_names(session_calls(result)), [*OPENED[:-1], *ABORTED])

    def test_a_rename_that_fails_finds_the_session_ended_with_success(self):
        machine = self.machine_with()
        machine.add_fault("MoveFileExW", error=5)
        result = self.capture(machine)
        self.expect(result, 1, source_line(1, SIZE) + begun([WHOLE]) + NO_TRACKER + meter_run(SIZE, MIB4) + "\n",
                    fatal("could not atomically publish completed image", 5))
        self.assertEqual(short_names(session_calls(result)), [*OPENED, *COMPLETED])
        self.assertEqual(result.sequence()[-2:], ["MoveFileExW", "exit"])
        self.expect_good_image(machine, "a.vrnx.partial", FROZEN)


class NativeProgram(LoopScenario):
    SIZE = MIB4 + 8192

    def test_linux_has_no_shadow_service_and_reads_live(self):
        contents = pattern(self.SIZE, "loop")
        number = self.disks.number(self.disks.attach(contents))
        done = self.disks.run("capture", "--disk", number, "--out", "live.vrnx", "--vss")
        wanted = (re.escape(f"Source: PhysicalDrive{number}  Size: {gib(self.SIZE)} GiB  SectorSize: 512  Chunks: 2"
                            " (4194304 bytes each)\n"
                            "  --vss: VSS is not available here (CreateVssBackupComponents) (0x8007007E)"
                            " - reading live instead (crash-consistent only).\n" + NO_TRACKER)
                  + r"(\r  [ 0-9]{3}\.[0-9]{2}%  4 / 4 MiB  \([0-9]+\.[0-9] MiB/s\)   ){2}"
                  + re.escape("\nCapture complete: live.vrnx\n"))
        self.assertEqual((done.returncode, done.stderr), (0, b""))
        self.assertTrue(re.fullmatch(wanted, done.stdout.decode()), done.stdout)
        path = os.path.join(self.folder, "live.vrnx")
        self.assertEqual(check_image(path), [])
        self.assertTrue(reference_plain_bytes(path) == contents)


class WindowsProgram(suite.Scenario):
    """The Windows program with the library disabled, and with the one that Wine has."""

    recorded = False  # the host's own library takes part

    MODES = {"missing": {"WINEDLLOVERRIDES": "vssapi="}, "Wine's own": {"WINEDLLOVERRIDES": "vssapi=b"}}

    def setUp(self):
        super().setUp()
        if not SETTINGS.windows:
            self.skipTest("the Windows program is the Windows build's")

    def program(self, executable, *arguments, **environment):
        return SETTINGS.run(executable, *arguments, cwd=self.folder, environment=environment)

    def test_the_program_starts_either_way(self):
        for mode, environment in self.MODES.items():
            done = self.program(SETTINGS.program, **environment)
            self.assertEqual((done.returncode, done.stdout.decode(), done.stderr), (1, USAGE, b""), mode)

    def test_the_call_into_the_library_comes_back_either_way(self):
        tests = os.path.join(SETTINGS.build, "tests", "vornix-unit-tests.exe")
        if not os.path.exists(tests):
            self.skipTest(f"there is no {tests}")
        for mode, environment in self.MODES.items():
            done = self.program(tests, "--gtest_filter=CreateComponentsGuarded*", VORNIX_SHADOW_LIBRARY=mode,
                                **environment)
            counts = re.search(rb"([0-9]+) passed, ([0-9]+) failed, ([0-9]+) skipped", done.stdout)
            self.assertEqual((done.returncode, counts and counts.groups()),
                             (0, (b"2", b"0", b"1")), (mode, done))


if __name__ == "__main__":
    suite.main()
