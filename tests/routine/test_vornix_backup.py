#!/usr/bin/env python3
"""The daily routine for Linux, over months of described days: what it makes, what it builds on, what it refuses and
why.

The routine runs as it is shipped. Around it stand a described machine as `vornix`, a clock that the test sets as
`date`, a list of disks as `vornix-disks`, and where it was built the real `vrnx`.
"""

import datetime
import json
import os
import shutil
import subprocess

import suite
from machine import CHECKOUT, Machine, pattern

ROUTINE = os.path.join(CHECKOUT, "packaging", "routine", "vornix-backup")
MIB = 1048576
SIZE = 6 * MIB + 4096
BEGIN = datetime.datetime(2026, 1, 4, 1, 30, tzinfo=datetime.timezone.utc)  # a Sunday

GOOD, CONFIGURATION, PLACE, DISK, CAPTURE, VERIFY, SNAPSHOT, BUSY, TROUBLE = range(9)


class Routine(suite.Scenario):
    recorded = False  # it is no scenario of the Windows build

    def setUp(self):
        super().setUp()
        self.machine = Machine(os.path.join(self.folder, "m"), default=False)
        self.machine.add_disk(0, MIB)
        self.machine.add_disk(1, pattern(SIZE, "data"))
        self.machine.system_volume([(0, 0, 512)])
        self.images = os.path.join(self.folder, "images")
        os.makedirs(self.images)
        self.bin = os.path.join(self.folder, "bin")
        os.makedirs(self.bin)
        self.disks = [{"number": 0, "size": MIB, "serial": "SYSTEM"}, {"number": 1, "size": SIZE, "serial": "S-1"}]
        self.configuration = {"NAME": "data", "FOLDER": self.images, "DISK": "1", "DISK_SIZE": str(SIZE),
                              "DISK_SERIAL": "S-1", "LOG": os.path.join(self.folder, "log"),
                              "LOCK_FOLDER": self.folder}
        self.script("vornix", f'exec "{self.settings.bench}" "{self.machine.path("../machine")}" "$@"')
        self.script("date", 'exec /bin/date -d "@$NOW" "$@"')
        self.script("vornix-disks", f'[ "$*" = --json ] && exec cat "{self.folder}/disks.json"')
        self.now = BEGIN
        vrnx = os.path.join(self.settings.build, "vrnx")
        self.has_vrnx = os.path.exists(vrnx)
        self.configuration["VRNX"] = vrnx
        if shutil.which("jq") is None:
            self.skipTest("jq is not installed")

    # --- The world around a run ---

    def script(self, name, text):
        path = os.path.join(self.bin, name)
        with open(path, "w", encoding="utf-8") as file:
            file.write(f"#!/bin/sh\n{text}\n")
        os.chmod(path, 0o755)

    def backup(self, status=GOOD, **changes):
        """One run at the present moment; gives what it printed on standard error, and the line of the log it wrote."""
        self.machine.write_home("machine.json", json.dumps(self.machine.description).encode())
        with open(os.path.join(self.folder, "disks.json"), "w", encoding="utf-8") as file:
            json.dump({"schema_version": 1, "disks": self.disks}, file)
        settings = self.configuration | changes
        with open(os.path.join(self.folder, "backup.conf"), "w", encoding="utf-8") as file:
            file.writelines(f"{name}='{value}'\n" for name, value in settings.items())
        lines = len(self.log())
        environment = os.environ | {"PATH": self.bin + os.pathsep + os.environ["PATH"],
                                    "NOW": str(int(self.now.timestamp()))}
        run = subprocess.run(["sh", ROUTINE, os.path.join(self.folder, "backup.conf")], capture_output=True, text=True,
                             env=environment, check=False, timeout=600)
        self.assertEqual(run.returncode, status, run.stdout + run.stderr)
        self.assertEqual(run.stdout, "", "it speaks through the log, and on standard error where it fails")
        if status == GOOD:
            self.assertEqual(run.stderr, "")
        else:
            self.assertIn("vornix-backup: ", run.stderr)
        written = self.log()[lines:]
        self.assertEqual(len(written), 1, "one line a run")
        self.assertIn(f" data status={status} ", written[0])
        return written[0] + run.stderr

    def log(self):
        try:
            with open(self.configuration["LOG"], encoding="utf-8") as file:
                return file.read().splitlines()
        except FileNotFoundError:
            return []

    def pass_days(self, count=1):
        self.now += datetime.timedelta(days=count)

    def change_disk(self, seed):
        self.machine.poke_disk(1, (seed * 37 % 6) * MIB, pattern(512, f"change {seed}"))

    def names(self, suffix=".vrnx", folder="."):
        try:
            return sorted(name for name in os.listdir(os.path.join(self.images, folder)) if name.endswith(suffix))
        except FileNotFoundError:
            return []

    def damage(self, name):
        path = os.path.join(self.images, name)
        with open(path, "r+b") as file:
            file.seek(-1000, os.SEEK_END)
            byte = file.read(1)[0]
            file.seek(-1, os.SEEK_CUR)
            file.write(bytes([byte ^ 255]))

    def expect_newest_is_the_disk(self):
        """The newest image, restored onto a fresh disk, is the disk."""
        self.machine.add_disk(2, SIZE)
        restored = self.machine.run("restore", "--in", os.path.join(self.images, self.names()[-1]), "--disk", "2",
                                    "--confirm", "YES")
        self.assertEqual(restored.status, 0, restored.stderr)
        self.expect_disk(self.machine, 2, self.machine.disk_bytes(1))
        self.machine.remove_disk(2)

    def test_the_script_is_clean_and_plain_posix_shell(self):
        if shutil.which("shellcheck") is None:
            self.skipTest("shellcheck is not installed")
        done = subprocess.run(["shellcheck", "--shell=sh", ROUTINE], capture_output=True, text=True, check=False)
        self.assertEqual(done.stdout + done.stderr, "")

    # --- Months ---

    def test_months_of_days_with_nothing_wrong(self):
        """Each day an image; each week a new chain; nothing is deleted unless asked."""
        for day in range(60):
            self.change_disk(day)
            self.backup()
            self.pass_days()
        images = self.names()
        self.assertEqual(len(images), 60)
        self.assertEqual(sum(name.endswith("-000.vrnx") for name in images), 9, "every seventh day a full image")
        for name in images:
            self.assertTrue(os.path.getsize(os.path.join(self.images, name + ".verified")) > 0)
        self.assertEqual(images[8], "data-20260111T013000Z-001.vrnx")
        self.expect_newest_is_the_disk()

    def test_a_chain_is_as_long_as_asked_at_most(self):
        for day in range(70):
            self.change_disk(day)
            self.backup(CHAIN_DAYS=365, CHAIN_LENGTH=65)
            self.pass_days()
        images = self.names()
        self.assertEqual(sum(name.endswith("-000.vrnx") for name in images), 2)
        self.assertEqual(sum(name.startswith("data-20260104T") for name in images), 65)
        self.expect_newest_is_the_disk()

    def test_old_chains_go_when_asked_and_only_whole_ones(self):
        self.need_vrnx()
        for day in range(45):
            self.change_disk(day)
            line = self.backup(KEEP_CHAINS=3)
            self.pass_days()
        self.assertIn("deleted", "\n".join(self.log()))
        self.assertNotIn("kept", line)
        chains = {name[:-len("-000.vrnx")] for name in self.names()}
        self.assertEqual(len(chains), 3)
        self.assertEqual({name[:-len("-000.vrnx.verified")] for name in self.names(".verified")}, chains)
        for name in self.names():
            verified = self.machine.run("verify", "--in", os.path.join(self.images, name))
            self.assertEqual(verified.status, 0, verified.stderr)

    def need_vrnx(self):
        if not self.has_vrnx:
            self.skipTest("vrnx was not built")

    # --- What a new image is built on ---

    def test_other_images_in_the_folder_are_no_base(self):
        """Neither by name nor by age: the routine builds on what it proved itself."""
        self.backup()
        first, = self.names()
        shutil.copy(os.path.join(self.images, first), os.path.join(self.images, "system.vrnx"))
        shutil.copy(os.path.join(self.images, first), os.path.join(self.images, "zzz.vrnx"))
        self.pass_days()
        self.assertIn("thin data-20260104T013000Z-001.vrnx", self.backup())

    def test_an_image_that_fails_verification_is_quarantined_and_no_base(self):
        self.backup()
        self.pass_days()
        self.change_disk(1)
        verifying = f'case $1 in verify) python3 "{self.folder}/damage.py" "$3" ;; esac\n'
        with open(os.path.join(self.folder, "damage.py"), "w", encoding="utf-8") as file:
            file.write("import sys\nwith open(sys.argv[1], 'r+b') as f:\n    f.seek(-1000, 2)\n    b = f.read(1)[0]\n"
                       "    f.seek(-1, 1)\n    f.write(bytes([b ^ 255]))\n")
        bench = f'exec "{self.settings.bench}" "{self.machine.path("../machine")}" "$@"'
        self.script("vornix", verifying + bench)
        line = self.backup(VERIFY)
        self.assertIn("moved to quarantine", line)
        self.assertEqual(self.names(), ["data-20260104T013000Z-000.vrnx"])
        self.assertEqual(self.names(folder="quarantine"), ["data-20260104T013000Z-001.vrnx"])
        self.script("vornix", bench)
        self.pass_days()
        self.backup()
        self.assertEqual(self.names()[-1], "data-20260106T013000Z-000.vrnx", "a new chain")
        self.expect_newest_is_the_disk()

    def test_a_base_that_rotted_ends_its_chain(self):
        self.backup()
        self.damage(self.names()[0])
        self.pass_days()
        self.backup(VERIFY)
        self.pass_days()
        self.backup()
        self.assertEqual(self.names()[-1], "data-20260106T013000Z-000.vrnx")

    def test_a_missing_image_ends_its_chain(self):
        for day in range(3):
            self.change_disk(day)
            self.backup()
            self.pass_days()
        os.remove(os.path.join(self.images, self.names()[1]))
        self.backup()
        self.assertEqual(self.names()[-1], "data-20260107T013000Z-000.vrnx")
        self.pass_days()
        self.backup()
        self.assertEqual(self.names()[-1], "data-20260107T013000Z-001.vrnx")

    def test_a_replaced_base_ends_its_chain(self):
        for day in range(2):
            self.change_disk(day)
            self.backup()
            self.pass_days()
        self.change_disk(5)
        other = os.path.join(self.folder, "other.vrnx")
        self.assertEqual(self.machine.run("capture", "--disk", "1", "--out", other).status, 0)
        shutil.copy(other, os.path.join(self.images, self.names()[0]))
        if self.has_vrnx:
            self.backup()
        else:
            self.assertIn("base image", self.backup(CAPTURE))
            self.pass_days()
            self.backup()
        self.assertTrue(self.names()[-1].endswith("-000.vrnx"))
        self.expect_newest_is_the_disk()

    def test_a_run_cut_short_before_the_proof_is_made_up_for(self):
        self.backup()
        os.remove(os.path.join(self.images, self.names(".verified")[0]))
        self.pass_days()
        self.backup()
        self.assertEqual(len(self.names(".verified")), 2)
        self.assertEqual(self.names()[-1], "data-20260104T013000Z-001.vrnx")

    def test_a_bad_image_left_by_a_run_cut_short_is_told_and_does_not_stop_the_day(self):
        self.backup()
        first, = self.names()
        os.remove(os.path.join(self.images, first + ".verified"))
        self.damage(first)
        self.pass_days()
        line = self.backup(VERIFY)
        self.assertIn(first, line)
        self.assertEqual(self.names(), ["data-20260105T013000Z-000.vrnx"])
        self.expect_newest_is_the_disk()

    def test_an_unfinished_image_goes_into_quarantine(self):
        partial = "data-20260103T013000Z-000.vrnx.partial"
        with open(os.path.join(self.images, partial), "wb") as file:
            file.write(bytes(4096))
        self.backup()
        self.assertEqual(self.names(".partial"), [])
        self.assertEqual(self.names(".partial", "quarantine"), [partial])

    def test_a_clock_that_went_back_begins_a_chain_that_is_older(self):
        self.backup()
        self.pass_days(-30)
        self.backup()
        self.assertEqual(self.names()[0], "data-20251205T013000Z-000.vrnx")

    # --- What is refused ---

    def test_a_share_that_is_not_mounted(self):
        line = self.backup(PLACE, MOUNT=self.folder)
        self.assertIn("nothing is mounted on", line)
        self.assertEqual(os.listdir(self.images), [])

    def test_a_folder_beside_the_mount(self):
        self.assertIn("does not lie below", self.backup(PLACE, MOUNT="/proc"))

    def test_a_folder_that_is_not_there(self):
        self.assertIn("there is no folder", self.backup(PLACE, FOLDER=os.path.join(self.folder, "nowhere")))

    def test_another_disk_under_the_number(self):
        self.disks[1]["serial"] = "S-2"
        self.assertIn("serial number S-1", self.backup(DISK))
        self.disks[1] = {"number": 1, "size": 2 * SIZE, "serial": "S-1"}
        self.assertIn(f"disk 1 has {2 * SIZE} bytes", self.backup(DISK))
        self.disks.pop()
        self.assertIn("there is no disk", self.backup(DISK))
        self.assertEqual(os.listdir(self.images), [])

    def test_a_disk_is_found_by_its_serial_number(self):
        self.disks[1]["number"] = 5
        self.machine.add_disk(5, self.machine.disk_bytes(1))
        self.backup(DISK="")
        self.disks.append({"number": 6, "size": SIZE, "serial": "S-1"})
        self.pass_days()
        self.assertIn("more than one disk", self.backup(DISK_SERIAL="S-1", DISK="", status=DISK))

    def test_a_look_at_the_disks_that_fails(self):
        self.script("vornix-disks", "echo no lsblk >&2; exit 1")
        self.assertIn("cannot look at the disks: no lsblk", self.backup(DISK))

    def test_a_capture_that_fails_leaves_nothing_to_build_on(self):
        self.machine.add_fault("ReadFile", path="PhysicalDrive1", skip=1, error=23)
        self.assertIn("FATAL: ReadFile from source disk failed", self.backup(CAPTURE))
        self.assertEqual(self.names(), [])
        self.assertEqual(self.names(".partial", "quarantine"), ["data-20260104T013000Z-000.vrnx.partial"])
        self.machine.clear_faults()
        self.pass_days()
        self.backup()

    def test_a_snapshot_that_fell_back_is_a_failure_unless_told_otherwise(self):
        self.assertIn("reading live instead", self.backup(SNAPSHOT, SNAPSHOT="yes"))
        self.assertEqual(self.names(), [])
        self.assertEqual(len(self.names(folder="quarantine")), 1)
        self.pass_days()
        self.backup(SNAPSHOT="yes", ALLOW_LIVE="yes")

    def test_a_snapshot_that_came_about_is_none(self):
        self.machine.add_volume("\\\\?\\Volume{11111111-2222-3333-4444-555555555555}\\", [(1, 4096, 4 * MIB)])
        self.machine.add_volume("\\\\?\\Volume{21111111-2222-3333-4444-555555555555}\\", [(1, 5 * MIB, MIB)],
                                supported=False)
        self.machine.shadow_service([("System Writer", 1, "0x0")])
        self.backup(SNAPSHOT="yes")
        self.pass_days()
        self.machine.add_fault("IVssBackupComponents::GetSnapshotProperties", status="0x80042308")
        self.assertIn("read live", self.backup(status=SNAPSHOT, **{"SNAPSHOT": "yes"}))

    def test_two_at_once(self):
        import fcntl
        with open(os.path.join(self.folder, "vornix-backup-data.lock"), "w", encoding="utf-8") as held:
            fcntl.flock(held, fcntl.LOCK_EX)
            self.assertIn("another run", self.backup(BUSY))
        self.backup()

    def test_a_wrong_configuration(self):
        for changes in ({"NAME": "a b"}, {"NAME": ""}, {"FOLDER": ""}, {"DISK_SIZE": ""}, {"DISK": "x"},
                        {"DISK": "", "DISK_SERIAL": ""}, {"CHAIN_DAYS": "week"}, {"CHAIN_LENGTH": "66"},
                        {"CHAIN_LENGTH": "0"}, {"KEEP_CHAINS": "-1"}, {"PASSWORD_FILE": "/nowhere"}):
            with self.subTest(changes):
                lines = len(self.log())
                settings = self.configuration | changes
                with open(os.path.join(self.folder, "c"), "w", encoding="utf-8") as file:
                    file.writelines(f"{name}='{value}'\n" for name, value in settings.items())
                run = subprocess.run(["sh", ROUTINE, os.path.join(self.folder, "c")], capture_output=True, text=True,
                                     check=False, env=os.environ | {"PATH": self.bin + ":" + os.environ["PATH"],
                                                                    "NOW": "1770000000"})
                self.assertEqual(run.returncode, CONFIGURATION, run.stderr)
                self.assertEqual(len(self.log()), lines + 1)
                self.assertEqual(os.listdir(self.images), [])
        run = subprocess.run(["sh", ROUTINE, "/nowhere/backup.conf"], capture_output=True, text=True, check=False)
        self.assertEqual((run.returncode, run.stdout), (CONFIGURATION, ""))

    # --- Deleting ---

    def test_without_being_asked_nothing_is_deleted(self):
        for _ in range(5):
            self.backup(CHAIN_DAYS=1)
            self.pass_days()
        self.assertEqual(len(self.names()), 5)

    def test_a_chain_that_another_image_needs_is_kept(self):
        self.need_vrnx()
        self.backup(CHAIN_DAYS=1)
        first = self.names()[0]
        made = self.machine.run("capture", "--disk", "1", "--base", os.path.join(self.images, first), "--thin", "--out",
                                os.path.join(self.images, "by-hand.vrnx"))
        self.assertEqual(made.status, 0, made.stderr)
        self.pass_days()
        self.assertIn("another image needs it", self.backup(TROUBLE, CHAIN_DAYS=1, KEEP_CHAINS=1))
        self.assertIn(first, self.names())

    def test_chains_that_failed_do_not_count_as_good(self):
        """With two to keep, the newest two good ones stay however many bad ones came between."""
        self.need_vrnx()
        for day in range(6):
            self.backup(CHAIN_DAYS=1, KEEP_CHAINS=2)
            if day == 3:
                self.assertEqual([name[5:13] for name in self.names()], ["20260105", "20260106", "20260107"])
            if day in (2, 3):
                chain = self.names()[-1][:-len("-000.vrnx")]
                with open(os.path.join(self.images, chain + ".closed"), "w", encoding="utf-8") as file:
                    file.write("seen to be bad\n")
            self.pass_days()
        self.assertEqual([name[5:13] for name in self.names()], ["20260108", "20260109"])

    def test_deleting_needs_vrnx(self):
        self.backup(CHAIN_DAYS=1)
        self.pass_days()
        self.assertIn("needs vrnx", self.backup(TROUBLE, CHAIN_DAYS=1, KEEP_CHAINS=1, VRNX="vrnx-is-not-here"))
        self.assertEqual(len(self.names()), 2)

    # --- Who is told ---

    def test_metrics_and_hook(self):
        metrics, told = os.path.join(self.folder, "m.prom"), os.path.join(self.folder, "told")
        self.script("tell", f'printf "%s|%s\\n" "$1" "$2" >> "{told}"')
        self.backup(METRICS=metrics, HOOK="tell")
        with open(metrics, encoding="utf-8") as file:
            first = file.read()
        moment = int(self.now.timestamp())
        self.assertIn('vornix_backup_status{name="data"} 0\n', first)
        self.assertIn(f'vornix_backup_last_success_timestamp_seconds{{name="data"}} {moment}\n', first)
        self.pass_days()
        self.disks.pop()
        self.backup(DISK, METRICS=metrics, HOOK="tell")
        with open(metrics, encoding="utf-8") as file:
            second = file.read()
        self.assertIn(f'vornix_backup_status{{name="data"}} {DISK}\n', second)
        self.assertIn(f'vornix_backup_last_success_timestamp_seconds{{name="data"}} {moment}\n', second,
                      "the last success outlives a failure")
        with open(told, encoding="utf-8") as file:
            lines = file.read().splitlines()
        self.assertEqual([line.split("|")[0] for line in lines], ["0", str(DISK)])
        self.assertIn("there is no disk", lines[1])

    def test_a_hook_that_fails_is_a_failure_of_its_own(self):
        self.assertIn("the hook failed", self.backup(TROUBLE, HOOK="false"))
        self.assertEqual(len(self.names(".verified")), 1)

    def test_sealed_images(self):
        password = os.path.join(self.folder, "password")
        with open(password, "w", encoding="utf-8") as file:
            file.write("five random words\n")
        self.backup(PASSWORD_FILE=password)
        self.pass_days()
        self.change_disk(3)
        self.backup(PASSWORD_FILE=password)
        run = self.machine.run("verify", "--in", os.path.join(self.images, self.names()[1]))
        self.assertIn(b"this image is encrypted", run.stderr)


if __name__ == "__main__":
    suite.main()
