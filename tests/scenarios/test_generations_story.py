"""A disk over two dozen generations: random changes, a capture of each in ever another mode, and all of them restored
and folded into one image.

The disk's sectors describe themselves (generation, number, checksum), so that a wrong sector says what went wrong. The
choices of a story follow from its seed, which is part of the test's name. Of each capture the whole console text is
known beforehand, and which chunks it may read from the disk; at the end every generation is restored to the exact bytes
that the disk had at its capture, and the chain of one in three, or of each with VORNIX_LONG, folded to the one image of
them that there can be, or to a sealed one of which the second reader says the same. What a story was made of is told in
a line of the output.
"""

import json
import os
import random
from collections import Counter

import suite
from consolidate_runs import consolidate_text, plain_full_image
from console import NO_TRACKER, capture_text, fatal, restore_text
from image import check_image, read_header, reference_plain_bytes
from incremental import (MIB4, REASON_GAP, REASON_NO_EPOCH, REASON_NO_PREVIOUS, REASON_NO_TRACKER, REASON_NOT_LATEST,
                         SECTOR, bits_of, chunks_read, compared_line, copy_complete, data_reads, fallback_line,
                         first_wrong_sector, full_complete, incremental_text, proof_line, sector, set_bits,
                         thin_complete, tracker_line)

SIZE = 3 * MIB4 + 37 * SECTOR  # four chunks, the last one short
CHUNKS = 4
PASSWORD = b"a password of many generations"
OPTIONS = ("--password-file", "password")

# The modes of the generations behind the first, each with the number of sealed ones among them.
MODES = (("tracked thin", 8, 4), ("tracked copy", 4, 2), ("compared thin", 6, 3), ("full fallback", 4, 2),
         ("plain full", 2, 1))
GENERATIONS = 1 + sum(count for _, count, _ in MODES)
UNPROVED = ("gap", "other gap", "reload", "absent", "older base", "no epoch")


class Image:
    """What the story knows of an image that it made."""

    def __init__(self, name, epoch, chunks, changed):
        self.name, self.epoch, self.chunks = name, epoch, chunks
        self.changed = changed  # sector number to content, against the first generation
        self.depth = 0


class Story:
    """One story: the disk, the driver and the images as they should be."""

    def __init__(self, test, machine, seed, shift, bitmap_length):
        self.test, self.machine, self.random = test, machine, random.Random(f"story {seed}")
        self.first = b"".join(sector(0, number) for number in range(SIZE // SECTOR))
        self.changed = {}  # sectors that are not those of the first generation
        self.shift, self.bitmap_length = shift, bitmap_length
        self.marks = set()
        self.epoch = self.random.randrange(1, 1 << 32)
        self.previous = None
        self.images = []
        self.events = Counter()
        machine.add_disk(1, self.first)
        machine.write("password", PASSWORD + b"\r\n")

    # --- The disk ---

    def disk(self, changed=None):
        data = bytearray(self.first)
        for number, content in (self.changed if changed is None else changed).items():
            data[number * SECTOR:(number + 1) * SECTOR] = content
        return bytes(data)

    def chunks(self):
        """The content of each chunk, as something to compare."""
        found = [[] for _ in range(CHUNKS)]
        for number, content in sorted(self.changed.items()):
            if content != self.first[number * SECTOR:(number + 1) * SECTOR]:
                found[number * SECTOR // MIB4].append((number, content))
        return found

    def put(self, number, content):
        """Writes one sector, as a system in use does: on the disk, and marked by the driver."""
        self.machine.poke_disk(1, number * SECTOR, content)
        self.changed[number] = content
        self.marks.update(bits_of(number * SECTOR, SECTOR, self.shift))

    def change(self, generation):
        """Some sectors in some chunks; sometimes a sector is written as it is, or put back to an older content."""
        for chunk in self.random.sample(range(CHUNKS), self.random.choice((0, 1, 1, 1, 2, 2, 3))):
            low, high = chunk * MIB4 // SECTOR, min((chunk + 1) * MIB4, SIZE) // SECTOR
            for _ in range(self.random.randrange(1, 5)):
                start = self.random.choice((low, high - 1, self.random.randrange(low, high)))
                for number in range(start, min(start + self.random.randrange(1, 9), high)):
                    self.put(number, sector(generation, number))
        if self.random.random() < 0.4:
            number = self.random.randrange(SIZE // SECTOR)
            self.put(number, self.disk()[number * SECTOR:(number + 1) * SECTOR])
            self.events["rewritten as it was"] += 1

    def roll_back(self):
        """An older generation is restored onto the disk itself; the described machine's driver marks every write."""
        image = self.random.choice(self.images)
        self.save_driver()
        self.test.expect(self.restore(image, 1), 0, restore_text(image.name, 1, SIZE, MIB4))
        self.changed = dict(image.changed)
        self.marks = {bit for bit in range(len(self.bitmap()) * 4) if self.bit_in_file(bit)}
        self.test.assertEqual(self.marks, {bit for bit in bits_of(0, SIZE, self.shift) if bit < 8 * self.bitmap_length})
        self.events["rolled back"] += 1

    # --- The driver ---

    def bitmap(self):
        return set_bits(self.bitmap_length, *[bit for bit in self.marks if bit < 8 * self.bitmap_length])

    def bit_in_file(self, bit):
        data = bytes.fromhex(self.machine.tracker_disk(1)["bitmap"])
        return data[bit // 8] >> bit % 8 & 1

    def save_driver(self, **fields):
        """The driver's file as it should be now; `fields` are what befell it."""
        record = {"number": 1, "has_previous_epoch": 0 if self.previous is None else 1,
                  "previous_epoch": self.previous or 0, "current_epoch": self.epoch, "granularity_shift": self.shift,
                  "bitmap": self.bitmap()}
        error = fields.pop("open_error", 0)
        self.machine.tracker([{**record, **fields}], **({"open_error": error} if error else {}))

    def marked_chunks(self):
        """The chunks that a run with the proof has to read."""
        return [index for index in range(CHUNKS)
                if any(bit >= 8 * self.bitmap_length or bit in self.marks
                       for bit in bits_of(index * MIB4, min(MIB4, SIZE - index * MIB4), self.shift))]

    def committed(self):
        """The image that the driver knows of, or None."""
        return next((image for image in self.images if image.epoch and image.epoch == self.previous), None)

    # --- Captures ---

    def capture(self, generation, mode, seal):
        """The capture of one generation in this mode, as far as that can be had; gives the mode."""
        name = f"g{generation:02}.vrnx"
        options = [*(["--encrypt"] if seal else []), *OPTIONS]
        if mode == "plain full":
            self.save_driver()
            text = capture_text(1, SIZE, name, tracker=tracker_line(1, self.epoch))
            self.finish(generation, name, options, text, list(range(CHUNKS)), 2, None)
            return mode
        if mode.startswith("tracked"):
            base = self.committed()
            self.save_driver()
            read, tracker, settled = self.marked_chunks(), tracker_line(1, self.epoch), proof_line(base.epoch)
        else:
            base, tracker, reason = self.without_proof()
            read = list(range(CHUNKS))
            settled = (compared_line if mode == "compared thin" else fallback_line)(reason)
        options += ["--base", base.name]
        chunks = self.chunks()
        if mode.endswith("thin"):
            options.append("--thin")
            references = sum(index not in read or chunks[index] == base.chunks[index] for index in range(CHUNKS))
            complete = thin_complete(name, CHUNKS, references, len(read))
        elif mode == "tracked copy":
            complete = copy_complete(name, len(read), CHUNKS - len(read))
        else:
            complete = full_complete(name)
        text = incremental_text(SIZE, base.name, settled, complete, tracker=tracker)
        self.finish(generation, name, options, text, read, 3 if mode.endswith("thin") else 2, base,
                    tracked=tracker != NO_TRACKER)
        return mode

    def without_proof(self):
        """One of the ways in which the tracker proves nothing: (base, tracker's line, reason)."""
        ways = [way for way in UNPROVED if way != "no epoch" or any(image.epoch == 0 for image in self.images)]
        ways = [way for way in ways if way != "older base"
                or any(image.epoch not in (0, self.previous) for image in self.images)]
        fewest = min(self.events[way] for way in ways)
        way = self.random.choice([way for way in ways if self.events[way] == fewest])
        self.events[way] += 1
        base = self.committed()
        if way == "absent":
            # Somebody else holds the device: the driver goes on marking, and nothing is committed.
            self.save_driver(open_error=32)
            return base, NO_TRACKER, REASON_NO_TRACKER
        if way == "no epoch":
            self.save_driver()
            return next(image for image in reversed(self.images) if image.epoch == 0), tracker_line(1, self.epoch), \
                REASON_NO_EPOCH
        if way == "older base":
            self.save_driver()
            older = [image for image in self.images if image.epoch not in (0, self.previous)]
            return self.random.choice(older), tracker_line(1, self.epoch), REASON_NOT_LATEST
        if way == "reload":
            # The driver starts over with nothing, not even the marks of what was written before.
            self.epoch, self.previous, self.marks = self.random.randrange(1, 1 << 55), None, set()
            self.save_driver()
            return base, tracker_line(1, self.epoch), REASON_NO_PREVIOUS
        # A write went by: its mark is missing.
        self.marks = {bit for bit in self.marks if self.random.random() < 0.5}
        self.save_driver(**{way.replace(" ", "_"): self.random.randrange(1, 1 << 32)})
        return base, tracker_line(1, self.epoch, gap=way == "gap"), REASON_GAP

    def finish(self, generation, name, options, text, read, version, base, tracked=True):
        """Runs the capture, sometimes after one that was killed on its way, and holds it against what was to be."""
        test, machine = self.test, self.machine
        arguments = ["capture", "--disk", "1", "--out", name, *options]
        disk = self.disk()
        if self.random.random() < 0.2:
            before = machine.tracker_disk(1)
            where = self.random.choice(("PhysicalDrive1", f"{name}.partial"))
            machine.add_fault("SetFilePointerEx", path=where, skip=1, kill=True)
            killed = machine.run(*arguments)
            machine.clear_faults()
            if killed.status == 137:
                self.events["killed"] += 1
                test.assertEqual((machine.exists(name), machine.tracker_disk(1)), (False, before))
                test.expect(machine.run("verify", "--in", f"{name}.partial"), 1, "",
                            fatal("not a recognized Vornix image (bad magic/version)")
                            if os.path.getsize(machine.path(f"{name}.partial")) >= 64 else
                            fatal("could not read image header - file is truncated or not a .vrnx image"))
            else:
                # Too few chunks were read to get there: that was the capture, and it is made again.
                os.remove(machine.path(name))
                machine.write_home("tracker.json", json.dumps({"disks": [before]}).encode())
        result = test.expect(machine.run(*arguments), 0, text)
        test.assertEqual(chunks_read(result), read)
        if version == 3:
            test.assertEqual(data_reads(machine, result, base.name), [])
        header = read_header(machine.path(name))
        epoch = self.epoch if tracked else 0
        test.assertEqual((header.version, header.epoch, header.encrypted),
                         (version, epoch, int("--encrypt" in options)))
        test.assertFalse(machine.exists(f"{name}.partial"))
        image = Image(name, epoch, self.chunks(), dict(self.changed))
        image.depth = base.depth + 1 if version == 3 else 0
        self.images.append(image)
        if tracked:
            self.previous, self.epoch, self.marks = self.epoch, self.epoch + 1, set()
            record = machine.tracker_disk(1)
            test.assertEqual((record["previous_epoch"], record["current_epoch"], int(record["bitmap"] or "0", 16)),
                             (self.previous, self.epoch, 0))
        wrong = first_wrong_sector(machine.disk_bytes(1), disk)
        if wrong:
            test.fail(f"generation {generation}: the capture changed the disk: {wrong}")

    # --- The end ---

    def fold(self, image, plain, encrypt):
        """The chain below the image becomes one image."""
        self.test.expect(self.machine.run("consolidate", "--in", image.name, "--out", "fold.vrnx", *OPTIONS, *encrypt),
                         0, consolidate_text("fold.vrnx", SIZE, MIB4))
        if encrypt:
            self.test.expect_good_image(self.machine, "fold.vrnx", plain, PASSWORD)
        else:
            self.test.expect_file(self.machine, "fold.vrnx", plain_full_image(plain, MIB4))
        os.remove(self.machine.path("fold.vrnx"))

    def restore(self, image, disk):
        return self.machine.run("restore", "--in", image.name, "--disk", str(disk), "--confirm", "YES", *OPTIONS)

    def expect_every_generation(self):
        settings = self.machine.settings
        every = 8 if settings.sampled else 1 if settings.long else 3
        for generation, image in enumerate(self.images):
            expected = self.disk(image.changed)
            self.machine.set_disk_bytes(2, SIZE)
            result = self.restore(image, 2)
            wrong = first_wrong_sector(self.machine.disk_bytes(2), expected)
            if wrong:
                self.test.fail(f"generation {generation} ({image.name}) restored: {wrong}\n{result.describe()}")
            self.test.expect(result, 0, restore_text(image.name, 2, SIZE, MIB4))
            if generation % every == every - 1:
                self.fold(image, expected, ["--encrypt"] if generation // every % 2 == 0 else [])
            if not settings.windows:
                # The second reader needs no build, and says the same of the images of either.
                self.test.assertEqual(check_image(self.machine.path(image.name), PASSWORD), [])
                wrong = first_wrong_sector(reference_plain_bytes(self.machine.path(image.name), PASSWORD), expected)
                if wrong:
                    self.test.fail(f"generation {generation} ({image.name}) as the second reader has it: {wrong}")


class Generations(suite.Scenario):
    recorded = False

    def tell(self, seed, shift, bitmap_length):
        """One story from its first capture to the last restore."""
        machine = self.machine(source=SECTOR, target=SIZE)
        story = Story(self, machine, seed, shift, bitmap_length)
        plan = [(mode, place < sealed) for mode, count, sealed in MODES for place in range(count)]
        story.random.shuffle(plan)
        plan.insert(0, ("plain full", False))
        told = Counter()
        for generation, (mode, seal) in enumerate(plan):
            if generation:
                if story.random.random() < 0.15:
                    story.roll_back()
                story.change(generation)
            machine.runs.clear()
            told[story.capture(generation, mode, seal), seal] += 1
        self.assertEqual(len(story.images), GENERATIONS)
        for mode, count, sealed in MODES:
            self.assertEqual((told[mode, True], told[mode, False]),
                             (sealed, count - sealed + (mode == "plain full")), mode)
        machine.runs.clear()
        story.expect_every_generation()
        modes = ", ".join(f"{count} {mode}{' sealed' if seal else ''}" for (mode, seal), count in sorted(told.items()))
        events = ", ".join(f"{count} {event}" for event, count in sorted(story.events.items()))
        print(f"story {seed}: {len(story.images)} generations restored ({modes}); {events}; longest chain "
              f"{1 + max(image.depth for image in story.images)} images", flush=True)

    def test_story_1_64_kibibytes_a_bit(self):
        self.tell(1, 16, 25)

    def test_story_2_one_sector_a_bit_and_a_short_bitmap(self):
        if self.settings.sampled:
            self.skipTest("one story is told here; all of them with VORNIX_LONG")
        self.tell(2, 9, 2 * MIB4 // SECTOR // 8)

    def test_story_3_eight_mebibytes_a_bit(self):
        if self.settings.sampled:
            self.skipTest("one story is told here; all of them with VORNIX_LONG")
        self.tell(3, 23, 1)


if __name__ == "__main__":
    suite.main(one_salt=True)
