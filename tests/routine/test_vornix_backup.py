#!/usr/bin/env python3
"""The daily routine for Linux, over months of described days: what it makes, what it builds on, what it refuses and
why.

The routine runs as it is shipped. Around it stand a described machine as `vornix`, a clock that the test sets as
`date`, a list of disks as `vornix-disks`, and where it was built the real `vrnx`.
"""

import datetime
import fcntl
import json
import os
import random
import re
import shutil
import signal
import subprocess
import time

import suite
from machine import CHECKOUT, Machine, pattern

ROUTINE = os.path.join(CHECKOUT, "packaging", "routine", "vornix-backup")
MIB = 1048576
SIZE = 6 * MIB + 4096
BEGIN = datetime.datetime(2026, 1, 4, 1, 30, tzinfo=datetime.timezone.utc)  # a Sunday

GOOD, CONFIGURATION, PLACE, DISK, CAPTURE, VERIFY, SNAPSHOT, BUSY, TROUBLE = range(9)


def read(*path):
    with open(os.path.join(CHECKOUT, *path), encoding="utf-8") as file:
        return file.read()


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
        self.program_after("")
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
        lines = len(self.log())
        run = self.start_run(changes)
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

    def start_run(self, changes):
        self.machine.write_home("machine.json", json.dumps(self.machine.description).encode())
        with open(os.path.join(self.folder, "disks.json"), "w", encoding="utf-8") as file:
            json.dump({"schema_version": 1, "disks": self.disks}, file)
        settings = self.configuration | changes
        with open(os.path.join(self.folder, "backup.conf"), "w", encoding="utf-8") as file:
            file.writelines(f"{name}='{value}'\n" for name, value in settings.items())
        environment = os.environ | {"PATH": self.bin + os.pathsep + os.environ["PATH"],
                                    "NOW": str(int(self.now.timestamp()))}
        return subprocess.run(["sh", ROUTINE, os.path.join(self.folder, "backup.conf")], capture_output=True, text=True,
                              env=environment, check=False, timeout=600)

    def run_lines(self, *lines, shell=("sh",)):
        """One run with a configuration of these lines, which may be no good one."""
        path = os.path.join(self.folder, "own.conf")
        with open(path, "w", encoding="utf-8") as file:
            file.writelines(line + "\n" for line in [f"LOG='{self.configuration['LOG']}'", *lines])
        return subprocess.run([*shell, ROUTINE, path], capture_output=True, text=True, check=False, timeout=600,
                              env=os.environ | {"PATH": self.bin + os.pathsep + os.environ["PATH"],
                                                "NOW": str(int(self.now.timestamp()))})

    def program_after(self, shell):
        """The program, with lines of shell before it."""
        self.script("vornix", f'{shell}\nexec "{self.settings.bench}" "{self.machine.path("../machine")}" "$@"')

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
        self.expect_image_is_the_disk(self.names()[-1])

    def test_the_script_is_clean_and_plain_posix_shell(self):
        if shutil.which("shellcheck") is None:
            self.skipTest("shellcheck is not installed")
        done = subprocess.run(["shellcheck", "--shell=sh", ROUTINE], capture_output=True, text=True, check=False)
        self.assertEqual(done.stdout + done.stderr, "")

    # --- Months ---

    def test_months_of_days_with_nothing_wrong(self):
        """Each day an image; each week a new chain; nothing is deleted unless asked."""
        days = 60 if self.settings.long else 23
        for day in range(days):
            self.change_disk(day)
            self.backup()
            self.pass_days()
        images = self.names()
        self.assertEqual(len(images), days)
        self.assertEqual(sum(name.endswith("-000.vrnx") for name in images), (days + 6) // 7,
                         "every seventh day a full image")
        for name in images:
            self.assertTrue(os.path.getsize(os.path.join(self.images, name + ".verified")) > 0)
        self.assertEqual(images[8], "data-20260111T013000Z-001.vrnx")
        self.expect_newest_is_the_disk()

    def test_a_chain_is_as_long_as_asked_at_most(self):
        length = 65 if self.settings.long else 10  # as long as a chain can be at all, which takes its time
        for day in range(length + 2):
            self.change_disk(day)
            self.backup(CHAIN_DAYS=365, CHAIN_LENGTH=length)
            self.pass_days()
        images = self.names()
        self.assertEqual(sum(name.endswith("-000.vrnx") for name in images), 2)
        self.assertEqual(sum(name.startswith("data-20260104T") for name in images), length)
        self.expect_newest_is_the_disk()

    def test_old_chains_go_when_asked_and_only_whole_ones(self):
        self.need_vrnx()
        for day in range(20 if self.settings.long else 14):
            self.change_disk(day)
            line = self.backup(KEEP_CHAINS=3, CHAIN_DAYS=3)
            self.pass_days()
        self.assertIn("deleted", "\n".join(self.log()))
        self.assertNotIn("kept", line)
        chains = {name[:-len("-000.vrnx")] for name in self.names()}
        self.assertEqual(len(chains), 3)
        self.assertEqual({name[:-len("-000.vrnx.verified")] for name in self.names(".verified")}, chains)
        for name in self.names():
            verified = self.machine.run("verify", "--in", os.path.join(self.images, name))
            self.assertEqual(verified.status, 0, verified.stderr)

    def test_months_in_which_everything_goes_wrong_now_and_then(self):
        """Faults drawn from a seed, one a night or none. Each night has its status; what a good night made is the disk;
        and with two chains to keep, whatever is deleted leaves two good ones."""
        self.need_vrnx()
        draw = random.Random(20)
        faults = {None: (GOOD, VERIFY), "mount": (PLACE,), "disk": (DISK,), "read": (CAPTURE,), "rot": (GOOD, VERIFY),
                  "cut in a capture": (None,), "cut before the proof": (None,), "clock back": (TROUBLE,),
                  "clock ahead": (GOOD, VERIFY), "hook": (TROUBLE, VERIFY), "no vrnx": (TROUBLE, VERIFY),
                  "deleted by hand": (GOOD, VERIFY)}
        times = 3 if self.settings.long else 1
        nights = [fault for fault in faults if fault] * times + ["rot"] * times + [None] * (9 * times + 4)
        draw.shuffle(nights)
        deleting, statuses = 0, set()
        for night, fault in enumerate([None, None, *nights]):
            self.change_disk(night)
            status, line = self.spend_night(fault, draw)
            statuses.add(status)
            expected = faults[fault]
            if any(name.startswith("data-2027") for name in self.names()):
                expected += (TROUBLE,)  # until the chain from the future is taken away
            self.assertIn(status, expected, f"night {night}, {fault}: {line}")
            made = re.search(r"data-\S+\.vrnx(?= \d+ bytes)", line)
            self.assertEqual(made is not None, status in (GOOD, TROUBLE) or "bytes" in line, line)
            if made and night % 5 == 0:
                self.expect_image_is_the_disk(made[0])
            if "; deleted" in line:
                deleting += 1
                self.assertGreaterEqual(self.count_good_chains(), 2, line)
            if fault == "clock ahead":
                self.now -= datetime.timedelta(days=400)
            elif draw.random() < 0.3:
                for name in os.listdir(self.images):
                    if name.startswith("data-2027"):
                        os.remove(os.path.join(self.images, name))
            self.pass_days()
        self.assertGreaterEqual(deleting, times)
        self.assertEqual(statuses, {None, GOOD, PLACE, DISK, CAPTURE, VERIFY, TROUBLE})

    def spend_night(self, fault, draw):
        """One run with the fault; gives its status, None where it died, and its line of the log."""
        settings = {"KEEP_CHAINS": 2, "CHAIN_DAYS": 4}
        if fault == "mount":
            settings["MOUNT"] = self.folder
        elif fault == "disk":
            self.disks[1]["serial"] = "S-2"
        elif fault == "read":
            self.machine.add_fault("ReadFile", path="PhysicalDrive1", skip=1, error=23)
        elif fault == "rot" and self.names():
            self.damage(self.names()[-1])
        elif fault == "cut in a capture":
            self.program_after('[ "$1" != capture ] || '
                               '{ head -c 4096 /dev/zero > "$5.partial"; kill -9 $PPID; exit 1; }')
        elif fault == "cut before the proof":
            self.program_after('[ "$1" != verify ] || { kill -9 $PPID; exit 1; }')
        elif fault == "clock back":
            self.now -= datetime.timedelta(days=3000)
        elif fault == "clock ahead":
            self.now += datetime.timedelta(days=400)
        elif fault == "hook":
            settings["HOOK"] = "false"
        elif fault == "no vrnx":
            settings["VRNX"] = "vrnx-is-not-here"
        elif fault == "deleted by hand" and self.names():
            os.remove(os.path.join(self.images, draw.choice(self.names())))
        lines = len(self.log())
        run = self.start_run(settings)
        written = self.log()[lines:]
        with open(os.path.join(self.folder, "vornix-backup-data.lock"), "rb") as lock:
            fcntl.flock(lock, fcntl.LOCK_EX)
        self.disks[1]["serial"] = "S-1"
        self.machine.clear_faults()
        self.program_after("")
        if fault == "clock back":
            self.now += datetime.timedelta(days=3000)
        if run.returncode < 0:
            self.assertEqual(written, [])
            return None, ""
        self.assertEqual(len(written), 1, run.stderr)
        self.assertIn(f" status={run.returncode} ", written[0])
        return run.returncode, written[0]

    def expect_image_is_the_disk(self, name):
        self.machine.add_disk(2, SIZE)
        path = os.path.join(self.images, name)
        restored = self.machine.run("restore", "--in", path, "--disk", "2", "--confirm", "YES")
        self.assertEqual(restored.status, 0, restored.stderr)
        self.expect_disk(self.machine, 2, self.machine.disk_bytes(1))
        self.machine.remove_disk(2)

    def count_good_chains(self):
        chains = {name[:-len("-000.vrnx")] for name in self.names()}
        verified = {name[:-len(".verified")] for name in self.names(".verified")}
        return sum(all(name in verified for name in self.names() if name.startswith(chain)) and
                   f"{chain}-000.vrnx" in self.names() and f"{chain}.closed" not in os.listdir(self.images)
                   for chain in chains)

    def need_vrnx(self):
        if not self.has_vrnx:
            self.skipTest("vrnx was not built")

    def test_no_page_of_the_chain_is_in_memory_when_it_is_verified(self):
        seen = os.path.join(self.folder, "seen")
        probe = os.path.join(self.folder, "probe")
        with open(probe, "wb") as file:
            file.write(bytes(MIB))
        look = f'fincore --bytes --noheadings --output RES,FILE "{self.images}"/*.vrnx'
        drop = f'sync "{probe}" && dd "if={probe}" iflag=nocache count=0 status=none && fincore -bno RES "{probe}"'
        done = subprocess.run(["sh", "-c", drop], capture_output=True, text=True, check=False)
        if done.returncode != 0 or done.stdout.strip() != "0":
            self.skipTest("here no page leaves the cache, or fincore is not installed")
        self.program_after(f'[ "$1" != verify ] || {look} >> "{seen}"')
        self.backup()
        with open(os.path.join(self.images, self.names()[0]), "rb") as file:
            file.read()  # as whoever copies the images elsewhere by day
        self.pass_days()
        self.backup()
        with open(seen, encoding="utf-8") as file:
            lines = file.read().splitlines()
        self.assertEqual(len(lines), 1 + 2)
        self.assertEqual([line.split()[0] for line in lines], ["0"] * 3)

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
        self.program_after(verifying)
        line = self.backup(VERIFY)
        self.assertIn("failed verification: Verify FAILED - 1 of 2 chunks did not match.", line)
        self.assertIn("moved to quarantine", line)
        self.assertEqual(self.names(), ["data-20260104T013000Z-000.vrnx"])
        self.assertEqual(self.names(folder="quarantine"), ["data-20260104T013000Z-001.vrnx"])
        self.program_after("")
        self.pass_days()
        self.backup()
        self.assertEqual(self.names()[-1], "data-20260106T013000Z-000.vrnx", "a new chain")
        self.expect_newest_is_the_disk()

    def test_a_base_that_rotted_ends_its_chain(self):
        self.backup()
        self.damage(self.names()[0])
        self.pass_days()
        self.assertIn("failed verification: FATAL: chunk failed its hash check", self.backup(VERIFY))
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

    def test_a_chain_from_the_future_does_not_make_each_day_a_full_image(self):
        """One night the clock was a year ahead. The nights after it go on with what was there before."""
        self.backup()
        self.pass_days(365)
        self.backup()
        self.pass_days(-364)
        for _ in range(3):
            self.backup()
            self.pass_days()
        self.assertEqual(self.names(), ["data-20260104T013000Z-000.vrnx", "data-20260104T013000Z-001.vrnx",
                                        "data-20260104T013000Z-002.vrnx", "data-20260104T013000Z-003.vrnx",
                                        "data-20270104T013000Z-000.vrnx"])

    def test_a_clock_that_went_back_deletes_nothing(self):
        """The newest chain is then not the one with the latest name, and the oldest not the one with the earliest."""
        self.need_vrnx()
        for _ in range(2):
            self.backup(CHAIN_DAYS=1)
            self.pass_days()
        before = self.names()
        self.pass_days(-9000)
        self.assertIn("clock", self.backup(TROUBLE, CHAIN_DAYS=1, KEEP_CHAINS=1))
        self.assertEqual(self.names()[1:], before)
        self.assertEqual(self.names()[0], "data-20010517T013000Z-000.vrnx", "the image that was just made")

    def test_names_that_only_look_alike_are_left_alone(self):
        self.backup()
        first, = self.names()
        for name in ("data-20260104T013000Z-bak.vrnx", "data-20260104Tm0rn1nZ-000.vrnx",
                     "data-20260104T013000Z-old.vrnx.partial"):
            shutil.copy(os.path.join(self.images, first), os.path.join(self.images, name))
        before = set(os.listdir(self.images))
        self.pass_days()
        self.assertIn("thin data-20260104T013000Z-001.vrnx", self.backup())
        self.assertEqual(set(os.listdir(self.images)) - before,
                         {"data-20260104T013000Z-001.vrnx", "data-20260104T013000Z-001.vrnx.verified"})

    def test_a_proof_of_an_image_that_is_gone_proves_no_other(self):
        """The last image was deleted by hand, and what stood beside it was not. The run that makes it anew dies."""
        self.backup()
        self.pass_days()
        self.backup()
        os.remove(os.path.join(self.images, self.names()[1]))
        self.pass_days()
        self.change_disk(1)
        self.program_after('[ "$1" = capture ] || { kill -9 $PPID; exit 1; }')
        self.backup_that_dies()
        self.assertEqual(len(self.names()), 2)
        self.assertEqual(self.names(".verified"), [self.names()[0] + ".verified"])
        self.program_after("")
        self.damage(self.names()[1])
        self.pass_days()
        self.backup(VERIFY)

    def backup_that_dies(self):
        with self.assertRaises(AssertionError):
            self.backup()
        self.assertEqual(self.log()[-1].split()[2], "status=0", "it wrote no line")
        with open(os.path.join(self.folder, "vornix-backup-data.lock"), "rb") as lock:
            fcntl.flock(lock, fcntl.LOCK_EX)  # until the program that it started has ended, too

    def test_folders_and_files_with_blanks_and_signs(self):
        self.need_vrnx()
        self.images = os.path.join(self.folder, "the images [of] $HOME * 'n")
        os.makedirs(self.images)
        password = os.path.join(self.folder, "pass word")
        with open(password, "w", encoding="utf-8") as file:
            file.write("five random words\n")
        for day in range(4):
            self.change_disk(day)
            self.backup(FOLDER=self.images.replace("'", "'\\''"), PASSWORD_FILE=password, KEEP_CHAINS=1, CHAIN_DAYS=2)
            self.pass_days()
        self.assertEqual(len(self.names()), 2)

    # --- What is refused ---

    def test_a_share_that_is_not_mounted(self):
        line = self.backup(PLACE, MOUNT=self.folder)
        self.assertIn("nothing is mounted on", line)
        self.assertEqual(os.listdir(self.images), [])

    def test_a_folder_beside_the_mount(self):
        self.assertIn("does not lie below", self.backup(PLACE, MOUNT="/proc"))

    def share_goes_away_at(self, command):
        """The share is mounted until the program is called so, and then there is the empty folder below it."""
        share, mounted = os.path.join(self.folder, "share"), os.path.join(self.folder, "mounted")
        os.makedirs(os.path.join(share, "images"), exist_ok=True)
        with open(mounted, "w", encoding="utf-8"):
            pass
        self.script("mountpoint", f'[ -e "{mounted}" ]')
        self.program_after(f'[ "$1" != {command} ] || {{ rm "{mounted}"; mv "{share}/images" "{self.folder}/gone"; }}')
        return {"MOUNT": share, "FOLDER": os.path.join(share, "images")}

    def test_a_share_that_goes_away_before_the_proof(self):
        place = self.share_goes_away_at("verify")
        self.assertIn("nothing is mounted on", self.backup(PLACE, **place))
        self.assertEqual(os.listdir(place["MOUNT"]), [], "nothing goes onto the disk below the share")
        os.rename(os.path.join(self.folder, "gone"), place["FOLDER"])
        self.program_after("")
        self.script("mountpoint", "")
        self.pass_days()
        self.backup(**place)
        self.images = place["FOLDER"]
        self.assertEqual(self.names(), ["data-20260104T013000Z-000.vrnx", "data-20260104T013000Z-001.vrnx"],
                         "the share is back, and so is its image")

    def test_a_share_that_goes_away_in_a_capture(self):
        for day in range(2):
            with self.subTest("thin" if day else "full"):
                place = self.share_goes_away_at("capture")
                if day:
                    self.program_after("")
                    self.backup(**place)
                    self.pass_days()
                    self.share_goes_away_at("capture")
                line = self.backup(PLACE, **place)
                self.assertIn("nothing is mounted on", line)
                self.assertIn("the capture of disk 1 failed", line)
                self.assertEqual(os.listdir(place["MOUNT"]), [])
                shutil.rmtree(os.path.join(self.folder, "gone"))

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
        with open(os.path.join(self.folder, "vornix-backup-data.lock"), "w", encoding="utf-8") as held:
            fcntl.flock(held, fcntl.LOCK_EX)
            self.assertIn("another run", self.backup(BUSY))
        self.backup()

    def test_a_lock_that_cannot_be_taken(self):
        self.assertIn("lock", self.backup(CONFIGURATION, LOCK_FOLDER=os.path.join(self.folder, "log", "nowhere")))

    def test_a_hook_that_goes_on_in_the_background_does_not_hold_the_next_run(self):
        self.script("linger", "sleep 300 > /dev/null 2>&1 & echo $! > " + os.path.join(self.folder, "lingers"))
        self.backup(HOOK="linger")
        with open(os.path.join(self.folder, "lingers"), encoding="utf-8") as file:
            lingers = int(file.read())
        try:
            self.pass_days()
            self.backup()
        finally:
            os.kill(lingers, signal.SIGKILL)

    def test_a_configuration_that_is_no_shell_ends_the_run_in_the_log(self):
        """Neither may pass for a failure of something else, nor for a success."""
        told = os.path.join(self.folder, "told")
        self.script("tell", f'echo "$1" >> "{told}"')
        for line in ("FOLDER='/mnt", "FOLDER=$NOBODY_SET_THIS", "FOLDER=(a b)"):
            with self.subTest(line):
                lines = len(self.log())
                run = self.run_lines("HOOK=tell", line)
                self.assertEqual(run.returncode, CONFIGURATION, run.stderr)
                self.assertEqual(len(self.log()), lines + 1)
                with open(told, encoding="utf-8") as file:
                    self.assertEqual(file.read(), "1\n")
                os.remove(told)

    def test_a_configuration_that_breaks_off_is_refused_by_every_shell(self):
        """Some shells go on behind a file that they do not understand, with what they had read of it."""
        with open(os.path.join(self.folder, "disks.json"), "w", encoding="utf-8") as file:
            json.dump({"schema_version": 1, "disks": self.disks}, file)
        whole = [f"{name}='{value}'" for name, value in self.configuration.items()]
        for shell in (("sh",), ("bash", "--posix")):
            with self.subTest(shell):
                run = self.run_lines(*whole, "PASSWORD_FILE='/root/password", shell=shell)
                self.assertEqual(run.returncode, CONFIGURATION, run.stderr)
                self.assertIn(f" status={CONFIGURATION} ", self.log()[-1])
                self.assertEqual(self.names(), [])

    def test_a_program_that_is_not_there(self):
        for name in ("VORNIX", "VORNIX_DISKS"):
            self.assertIn("there is no nowhere", self.backup(CONFIGURATION, **{name: "nowhere"}))
        self.backup()
        self.pass_days()
        self.backup(CONFIGURATION, VORNIX="nowhere")
        self.assertEqual(self.names(".closed"), [], "the chain is as good as it was")

    def test_a_log_that_cannot_be_written_is_no_success(self):
        run = self.run_lines(*(f"{name}='{value}'" for name, value in self.configuration.items() if name != "LOG"),
                             f"LOG='{self.folder}/nowhere/log'")
        self.assertEqual(run.returncode, CONFIGURATION)
        self.assertIn("cannot write", run.stderr)
        self.assertEqual(self.names(), [])

    def test_a_run_that_is_told_to_end(self):
        """As when the computer is shut down: everybody in the group gets the signal."""
        started = os.path.join(self.folder, "started")
        self.script("vornix", f'touch "$5.partial"; touch "{started}"; exec sleep 300')
        settings = {"FOLDER": self.images} | self.configuration
        path = os.path.join(self.folder, "own.conf")
        with open(path, "w", encoding="utf-8") as file:
            file.writelines(f"{name}='{value}'\n" for name, value in settings.items())
        with open(os.path.join(self.folder, "disks.json"), "w", encoding="utf-8") as file:
            json.dump({"schema_version": 1, "disks": self.disks}, file)
        environment = os.environ | {"PATH": self.bin + os.pathsep + os.environ["PATH"],
                                    "NOW": str(int(self.now.timestamp()))}
        with subprocess.Popen(["sh", ROUTINE, path], stderr=subprocess.PIPE, env=environment,
                              start_new_session=True) as run:
            while not os.path.exists(started):
                self.assertIsNone(run.poll())
                time.sleep(0.05)
            os.killpg(run.pid, signal.SIGTERM)
            run.communicate()
        self.assertEqual(run.returncode, CAPTURE)
        self.assertEqual(len(self.log()), 1)
        self.assertIn("interrupted", self.log()[0])
        self.program_after("")
        self.backup()
        self.assertEqual(self.names(folder="quarantine", suffix=".partial"),
                         ["data-20260104T013000Z-000.vrnx.partial"])

    def test_a_wrong_configuration(self):
        for changes in ({"NAME": "a b"}, {"NAME": ""}, {"FOLDER": ""}, {"DISK_SIZE": ""}, {"DISK": "x"},
                        {"DISK": "", "DISK_SERIAL": ""}, {"CHAIN_DAYS": "week"}, {"CHAIN_LENGTH": "66"},
                        {"CHAIN_LENGTH": "0"}, {"CHAIN_LENGTH": "99999999999999999999"}, {"CHAIN_DAYS": "9" * 30},
                        {"KEEP_CHAINS": "-1"}, {"PASSWORD_FILE": "/nowhere"}):
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

    def test_a_folder_that_vrnx_cannot_read_is_not_said_to_lack_vrnx(self):
        self.backup(CHAIN_DAYS=1)
        self.script("vrnx-that-fails", "echo loop.vrnx: Input/output error >&2; exit 3")
        self.pass_days()
        line = self.backup(TROUBLE, CHAIN_DAYS=1, KEEP_CHAINS=1, VRNX="vrnx-that-fails")
        self.assertIn("vrnx cannot look into", line)
        self.assertNotIn("needs vrnx", line)
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

    def test_a_chain_is_closed_by_hand(self):
        self.backup()
        self.pass_days()
        with open(os.path.join(self.images, "data-20260104T013000Z.closed"), "w", encoding="utf-8"):
            pass
        self.backup()
        self.assertEqual(self.names()[-1], "data-20260105T013000Z-000.vrnx")

    def test_who_asks_for_help_gets_it_and_nothing_runs(self):
        for words, status in ((["--help"], GOOD), (["-h"], GOOD), (["--dry-run"], CONFIGURATION),
                              (["a", "b"], CONFIGURATION)):
            with self.subTest(words):
                run = subprocess.run(["sh", ROUTINE, *words], capture_output=True, text=True, check=False)
                self.assertEqual(run.returncode, status, run.stderr)
                told, silent = (run.stdout, run.stderr) if status == 0 else (run.stderr, run.stdout)
                self.assertTrue(told.startswith("usage: vornix-backup [CONFIGURATION]\n"), told)
                self.assertEqual(silent, "")

    # --- What the pages show ---

    def test_the_configuration_that_is_shipped_needs_the_disk_and_works(self):
        conf = read("packaging", "routine", "backup.conf")
        places = {"/mnt/backup/images": self.images, "/mnt/backup": self.folder}
        set_lines = [line for line in conf.splitlines() if line and not line.startswith("#")]
        for shown, place in places.items():
            set_lines = [line.replace(f"={shown}", f"='{place}'") for line in set_lines]
        own = [f"{name}='{self.configuration[name]}'" for name in ("VRNX", "LOCK_FOLDER")]
        self.script("mountpoint", f'[ "$2" = "{self.folder}" ]')
        self.assertEqual(self.run_lines(*set_lines, *own).returncode, CONFIGURATION)
        self.machine.write_home("machine.json", json.dumps(self.machine.description).encode())
        with open(os.path.join(self.folder, "disks.json"), "w", encoding="utf-8") as file:
            json.dump({"schema_version": 1, "disks": self.disks}, file)
        filled = [line + {"DISK_SIZE=": str(SIZE), "DISK_SERIAL=": "S-1"}.get(line, "") for line in set_lines]
        done = self.run_lines(*filled, *own)
        self.assertEqual((done.returncode, done.stderr), (GOOD, ""))
        self.assertEqual(self.names(), ["backup-20260104T013000Z-000.vrnx"])

    def test_the_pages_have_each_variable_and_its_default(self):
        script = read("packaging", "routine", "vornix-backup").split("# --- Configuration -")[1]
        script = script.split("# --- The end")[0]
        defaults = dict(re.findall(r"^([A-Z_]+)=(\S*)", script, re.M))
        for own in ("VORNIX", "VRNX", "VORNIX_DISKS", "LOCK_FOLDER"):
            defaults.pop(own)
        table = read("man", "vornix-backup.8").replace("\\-", "-").split("\\fIVariable")[1].split(".TE")[0]
        rows = re.findall(r"^([A-Z_]+)\|[^|]*\|(.*)$", table, re.M)
        self.assertEqual({name for name, _ in rows}, set(defaults))
        for name, default in rows:
            if defaults[name]:
                self.assertTrue(defaults[name].endswith(default.partition(":")[0]), name)
        shown = re.findall(r"^#?([A-Z_]+)=", read("packaging", "routine", "backup.conf"), re.M)
        self.assertEqual(set(shown), set(defaults) - {"SNAPSHOT", "ALLOW_LIVE"})

    def test_the_hook_of_the_manual_page_writes_a_mail_when_something_is_wrong(self):
        hook, = re.findall(r"^\.EX\n(#!/bin/sh\n.*?)^\.EE", read("man", "vornix-backup.8"), re.M | re.S)
        mails = os.path.join(self.folder, "mails")
        self.script("mail", f'{{ echo "$*"; cat; }} >> "{mails}"')
        self.script("tell", hook.replace("\\-", "-"))
        self.backup(HOOK="tell")
        self.assertFalse(os.path.exists(mails))
        self.disks.pop()
        self.pass_days()
        line = self.backup(DISK, HOOK="tell").split("\n")[0].split("vornix-backup: ")[0]
        with open(mails, encoding="utf-8") as file:
            self.assertEqual(file.read(), f"-s backup: status {DISK} root\n{line}\n")

    def test_the_service_starts_what_is_installed(self):
        service = read("packaging", "routine", "vornix-backup.service")
        self.assertIn("\nExecStart=/usr/sbin/vornix-backup\n", service)
        self.assertRegex(service, r"\nAfter=.*\bremote-fs\.target\b", "a run made up for at a start finds its share")
        self.assertIn("install(PROGRAMS packaging/routine/vornix-backup DESTINATION ${CMAKE_INSTALL_SBINDIR})",
                      read("CMakeLists.txt"))

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
