"""Whole stories under random faults, and what has to hold in every one of them.

The suites beside this one foretell what one fault in one run brings. Here a story goes through captures and thin
captures on captures, half of them with snapshots, verifications, consolidations and restores, and each of its runs
meets a few faults, changes of the disk or the end of its process, drawn from a seed. Nobody foretells such a run; these
hold after each:

- A capture, consolidation or restore that reports success has the bytes. Only where a call failed whose result the
  program leaves unexamined may a reported image be none; one that a reader takes is always the right one.
- A run that failed leaves no image that a reader takes, save a consolidation that failed while it read its image back.
- No image that was there before is changed, no disk but the target is written, and each sector of the target is the old
  one or the image's.
- A chunk for which a shadow device was opened is that of the shadow, and every other one that of the disk. Of what a
  session began nothing is left at an end that is no kill: each shadow device is closed before its set goes, the set is
  deleted, or the run says that it could not be, and the writers know what became of the capture.
- The same command works on the healthy machine right behind it.

`VORNIX_SEED=17` runs that story alone. With VORNIX_LONG there are two thousand.
"""

import os
import random
import sys

import image
import suite
from machine import SETTINGS, Machine, pattern
from snapshot import check_session, shadow_path, volume_name
from sweep import LASTING, calls_of, effects_of

CHUNK = 0x400000
SIZE = 2 * CHUNK + 37 * 512
SECTOR = 512
PASSWORD = b"a password of the schedules"
# Three volumes: the first is the second chunk and shows frozen bytes, the second lies inside the first chunk and serves
# none, the third is the rest of the disk as it is when the set is made.
VOLUMES = [(CHUNK, CHUNK), (65536, 1048576), (2 * CHUNK, SIZE - 2 * CHUNK)]
FROZEN = pattern(CHUNK, "frozen")
STEPS = 5
STORIES = 2000 if SETTINGS.long and not SETTINGS.sampled else 4 if SETTINGS.sampled else 24
KILLED = 137


def frozen(disk):
    """The disk with what the shadow of the first volume shows in its place."""
    return disk[:CHUNK] + FROZEN + disk[2 * CHUNK:]


def sectors_that(first, second, third):
    """Numbers of the sectors in which the first is neither as the second nor as the third."""
    if first in (second, third):
        return []
    return [start // SECTOR for start in range(0, len(first), SECTOR)
            if first[start:start + SECTOR] not in (second[start:start + SECTOR], third[start:start + SECTOR])]


class Story:
    """One story: the machine, and the images as they have to be."""

    def __init__(self, test, seed):
        self.test, self.random = test, random.Random(f"schedule {seed}")
        self.machine = test.machine_in(f"story{seed}", pattern(SIZE, f"disk {seed}"))
        self.machine.write("password", PASSWORD + b"\n")
        self.images = {}   # name: the bytes of the disk that it stands for
        self.files = {}    # name: the bytes of the file
        self.sealed = set()
        self.count = 0
        self.hits = 0
        self.sessions = 0  # that met faults and came to their end

    # --- Commands ---

    def name(self):
        self.count += 1
        return f"i{self.count}.vrnx"

    def password_for(self, *names):
        """The options for a command that reads these images, or with None makes a sealed one."""
        return ["--password-file", "password"] if None in names or self.sealed.intersection(names) else []

    def draw(self):
        """A command that works on the healthy machine, as (kind, arguments without the output, image it reads)."""
        known = sorted(self.images)
        kind = self.random.choice(["full", "thin", "thin", "copy", "verify", "consolidate", "restore", "restore"])
        vss = ["--vss"] if self.random.random() < 0.5 else []
        if not known or kind == "full":
            return "capture", ["capture", "--disk", "1", *vss], None
        source = self.random.choice(known)
        if kind in ("thin", "copy"):
            thin = ["--thin"] if kind == "thin" else []
            return "capture", ["capture", "--disk", "1", *vss, "--base", source, *thin], source
        if kind == "consolidate":
            thin = [name for name in known if image.read_header(self.machine.path(name)).version == 3]
            if not thin:
                return "verify", ["verify", "--in", source], source
            source = self.random.choice(thin)
            return kind, ["consolidate", "--in", source], source
        if kind == "restore":
            return kind, ["restore", "--in", source, "--disk", "2", "--confirm", "YES"], source
        return kind, ["verify", "--in", source], source

    def run(self, kind, arguments, read, seal):
        """Runs the command; an output gets a new name. Gives (result, name of the output or None)."""
        out = self.name() if kind in ("capture", "consolidate") else None
        options = ["--out", out] if out else []
        if seal:
            options += ["--encrypt"]
        options += self.password_for(*([read] if read else []), *([None] if seal else []))
        if out and seal:
            self.sealed.add(out)
        if out and read and kind == "capture":
            self.sealed.update([out] if read in self.sealed else [])  # a chain is opened with its password
        return self.machine.run(*arguments, *options), out

    # --- Faults ---

    def add_faults(self, log):
        """One to three events at calls of the healthy run, and changes of the disk; gives the bytes it may have."""
        calls = [call for call in calls_of(log) if effects_of(call)]
        disk = self.machine.disk_bytes(1)
        changed = bytearray(disk)
        for _ in range(self.random.randrange(1, 4)):
            call = self.random.choice(calls)
            where = {"skip": call.occurrence, "times": self.random.choice((1, 1, 1, 2, 3, LASTING))}
            what = self.random.random()
            if what < 0.2:
                sector, data = self.random.randrange(SIZE // SECTOR), self.random.randbytes(SECTOR)
                changed[sector * SECTOR:(sector + 1) * SECTOR] = data
                effect = {"poke": {"disk": 1, "offset": sector * SECTOR, "hex": data.hex()}}
                where["times"] = 1
            elif what < 0.35:
                effect = {"kill": True}
                if call.kind in ("ReadFile", "WriteFile") and self.random.random() < 0.5:
                    effect["transferred"] = self.random.randrange(call.line["length"])
                    if "PhysicalDrive" in call.path:
                        effect["transferred"] -= effect["transferred"] % SECTOR  # which a disk writes whole or not
            elif what < 0.45 and call.kind == "ReadFile" and call.path.endswith(".vrnx"):
                effect = {"flip": self.random.randrange(call.line["length"])}
            else:
                _, effect = self.random.choice(effects_of(call))
            self.machine.add_fault(call.kind, **where, **effect)
        return disk, bytes(changed)

    # --- What holds ---

    def expect_image(self, name, disks, why):
        """The image is one that readers take, and each of its chunks is the one of a disk; gives its bytes."""
        password = PASSWORD if name in self.sealed else None
        trouble = image.check_image(self.machine.path(name), password)
        self.test.assertEqual(trouble, [], why)
        plain = image.reference_plain_bytes(self.machine.path(name), password)
        for start in range(0, SIZE, CHUNK):
            self.test.assertTrue(plain[start:start + CHUNK] in [disk[start:start + CHUNK] for disk in disks],
                                 f"{why}: the chunk at {start} is that of no disk")
        return plain

    def expect_rest_unchanged(self, why, disk, may_be):
        for name, content in self.files.items():
            self.test.assertTrue(self.machine.read(name) == content, f"{why}: {name} is not what it was")
        self.test.assertEqual(sectors_that(self.machine.disk_bytes(1), disk, may_be), [], f"{why}: the source")

    def keep(self, name, plain):
        self.images[name] = plain
        self.files[name] = self.machine.read(name)

    def shown(self, result, disks):
        """The disks as a capture with snapshots may show them: the shadow of the first volume, where it was opened."""
        added = [call["path"] for call in result.calls("IVssBackupComponents::AddToSnapshotSet", status="0x00000000")]
        if volume_name(1) not in added:
            return disks
        opened = result.calls("CreateFileW", path=shadow_path(added.index(volume_name(1)) + 1), ok=True)
        return [frozen(disk) for disk in disks] if opened else disks

    def judge_output(self, kind, result, out, disks, why):
        """What a run under faults left under the name of its output."""
        if not self.machine.exists(out):
            self.test.assertNotEqual(result.status, 0, f"{why}: success, and no file")
            return
        password = PASSWORD if out in self.sealed else None
        taken = image.check_image(self.machine.path(out), password) == []
        if result.status == 0 and not taken:
            unexamined = [call for call in result.log
                          if out in call.get("path", "")
                          and (call.get("ok") is False or call.get("transferred", 0) < call.get("length", 0))]
            self.test.assertTrue(unexamined, f"{why}: success, and no image, though no call to it failed")
        if result.status != 0 and kind == "capture":
            self.test.assertFalse(taken, f"{why}: an image although the run failed")
        if taken:
            plain = self.expect_image(out, disks, why)
            if result.status == 0:
                self.keep(out, plain)
        if out not in self.images:
            os.remove(self.machine.path(out))

    def step(self):
        """One command: healthy where its log is wanted first, then under faults, then healthy again."""
        if self.random.random() < 0.7:
            for _ in range(self.random.randrange(1, 4)):
                self.machine.poke_disk(1, self.random.randrange(SIZE // SECTOR) * SECTOR,
                                       self.random.randbytes(SECTOR))
        kind, arguments, read = self.draw()
        seal = kind in ("capture", "consolidate") and self.random.random() < 0.15
        log = self.healthy(kind, arguments, read, seal)
        target = self.machine.disk_bytes(2)
        self.machine.set_disk_bytes(2, pattern(SIZE, "target"))
        disk, changed = self.add_faults(log)
        result, out = self.run(kind, arguments, read, seal)
        why = result.describe()
        self.hits += any("error" in call or call.get("ok") is False for call in result.log)
        may_be = self.machine.disk_bytes(1)
        self.machine.clear_faults()
        allowed = (0, 1, KILLED)
        self.test.assertIn(result.status, allowed, why)
        self.expect_rest_unchanged(why, disk, changed)
        stands_for = [self.images[read]] if kind == "consolidate" else [disk, changed, may_be]
        if kind == "capture" and changed != disk:
            # A chunk with two changes may have been read between them.
            stands_for += self.between(disk, changed)
        if "--vss" in arguments:
            stands_for = self.shown(result, stands_for)
            if result.status != KILLED:
                check_session(result, why)
                self.sessions += 1
        if out:
            self.judge_output(kind, result, out, stands_for, why)
        left = self.machine.disk_bytes(2)
        if kind == "restore":
            self.test.assertEqual(sectors_that(left, pattern(SIZE, "target"), self.images[read]), [], why)
            if result.status == 0:
                self.test.assertTrue(left == self.images[read], f"{why}: success, and not the bytes")
        else:
            self.test.assertTrue(left == pattern(SIZE, "target"), f"{why}: the other disk was written")
        self.machine.set_disk_bytes(2, target)
        self.healthy(kind, arguments, read, seal)

    @staticmethod
    def between(disk, changed):
        """The disk with each subset of up to three changed sectors."""
        places = [start for start in range(0, SIZE, SECTOR)
                  if disk[start:start + SECTOR] != changed[start:start + SECTOR]]
        made = []
        for bits in range(1, 2 ** len(places)):
            some = bytearray(disk)
            for place, start in enumerate(places):
                if bits >> place & 1:
                    some[start:start + SECTOR] = changed[start:start + SECTOR]
            made.append(bytes(some))
        return made

    def healthy(self, kind, arguments, read, seal):
        """The command on the healthy machine works and has the bytes; gives its log."""
        disk = self.machine.disk_bytes(1)
        result, out = self.run(kind, arguments, read, seal)
        why = f"on the healthy machine: {result.describe()}"
        self.test.assertEqual((result.status, result.stderr), (0, b""), why)
        self.expect_rest_unchanged(why, disk, disk)
        stands_for = self.images[read] if kind == "consolidate" else disk
        if "--vss" in arguments:
            stands_for = frozen(disk)
            check_session(result, why)
        if out:
            self.keep(out, self.expect_image(out, [stands_for], why))
        if kind == "restore":
            self.test.assertTrue(self.machine.disk_bytes(2) == self.images[read], why)
        return result.log


class Schedules(suite.Scenario):
    recorded = False

    def machine_in(self, name, source):
        machine = Machine(os.path.join(self.folder, name), source=source, target=SIZE)
        self.machines.append(machine)
        machine.ticks(1000, 100)
        for number, (start, length) in enumerate(VOLUMES, 1):
            machine.add_volume(volume_name(number), [(1, start, length)],
                               shadow_contents=FROZEN if number == 1 else None)
        machine.shadow_service([("Registry Writer", 1, 0), ("Database Writer", 8, 0x800423F4)])
        return machine

    def test_what_holds_in_every_story(self):
        chosen = os.environ.get("VORNIX_SEED")
        hits = sessions = 0
        for seed in [int(chosen)] if chosen else range(STORIES):
            story = Story(self, seed)
            try:
                for _ in range(STEPS):
                    story.step()
            except AssertionError as error:
                self.fail(f"VORNIX_SEED={seed}: {error}")
            hits += story.hits
            sessions += story.sessions
            story.machine.remove()
            self.machines.clear()
        self.assertGreater(hits, 0, "no fault struck")
        if not chosen:
            self.assertGreater(sessions, 0, "no session met a fault")


if __name__ == "__main__":
    sys.exit(suite.main())
