"""capture --base: the four modes and what settles them, which chunks each reads and writes, the bases that are refused
in every mode, the rules about paths, and the trailer that pins the base. How the tracker's answers come about is the
matter of test_tracker.py, and what fails of the platform's calls that of the sweeps."""

import functools
import os

import suite
from console import NO_TRACKER, fatal, meter_run, source_line, verify_text
from image import Image, ImageBuilder, build_image, digest_of, is_accepted, read_header, read_table
from incremental import (MIB4, REASON_GAP, REASON_NO_TRACKER, base_line, chunks_read, compared_line, copy_complete,
                         data_reads, fallback_line, full_complete, hollow_disk, incremental_text, marked, missing_base,
                         proof_line, thin_complete, thin_verify_text, tracker_line, write_hollow)
from machine import pattern

SIZE = 2 * MIB4 + 1024  # three chunks, the last one short
SHIFT = 16
DATA = 64 + 72 * 3
SOURCE = hollow_disk(SIZE, "source")
PASSWORD = b"correct horse"
TRACKER = tracker_line(1, 0x11)
MODES = [(tracker, options) for tracker in (True, False) for options in ((), ("--thin",))]

OTHER_DISK = "--base image geometry does not match source disk"
OTHER_CHUNKS = "--base image chunking parameters do not match"
UNRESOLVED = "could not resolve image paths"
OTHER_FOLDER = "--thin: the image and its --base must be in the same folder"
SAME_FILE = "--thin: --out must differ from --base"
OVERWRITE = "refusing to overwrite an existing output image"
OUTSIDE = "thin image trailer names a base outside its folder - refusing"
NEEDS_PASSWORD = "this image is encrypted - pass --password-file"
BAD_HASH = "chunk failed its hash check (corrupt image or base)"
UNAUTHENTIC = "chunk failed authentication (corrupt or tampered image)"


@functools.lru_cache(maxsize=None)
def base_image(epoch, password):
    return ImageBuilder(SOURCE, chunk_size=MIB4, epoch=epoch, password=password, seed="base").to_bytes()


class Incremental(suite.Scenario):
    def prepare(self, *, changes=(1,), tracker=True, base="base.vrnx", epoch=0x10, password=None, **record):
        """A machine with a base of epoch 10h, over a disk of three chunks of which `changes` were changed since. With
        `tracker` a driver holds the proof, unless the fields given say otherwise."""
        machine = self.machine(source=0, target=bytes(512))
        write_hollow(machine.disk_path(1), SOURCE)
        write_hollow(machine.path(base), base_image(epoch, password))
        for index in changes:
            machine.poke_disk(1, index * MIB4 + 512, pattern(512, f"change {index}"))
        if tracker:
            machine.tracker([{
                "number": 1, "has_previous_epoch": 1, "previous_epoch": 0x10, "current_epoch": 0x11,
                "bitmap": marked(SIZE, SHIFT, *[(index * MIB4 + 512, 512) for index in changes]), **record}])
        return machine

    def capture(self, machine, *options, base="base.vrnx", out="new.vrnx"):
        return machine.run("capture", "--disk", "1", "--out", out, "--base", base, *options)

    def expect_mode(self, machine, settled, complete, *options, base="base.vrnx", out="new.vrnx", tracker=TRACKER,
                    password=None):
        """A capture over the base that succeeds in this mode and equals the disk."""
        result = self.expect(self.capture(machine, *options, base=base, out=out), 0,
                             incremental_text(SIZE, base, settled, complete, tracker=tracker))
        self.expect_good_image(machine, out, machine.disk_bytes(1), password)
        return result

    def expect_refused(self, machine, message, *options, before="", base="base.vrnx", out="new.vrnx", tracker=TRACKER,
                       settled=None, error=None, files=("base.vrnx",)):
        """A capture that ends while the mode is settled: no work file was made."""
        stdout = source_line(1, SIZE) + tracker + base_line(base) + (settled or "")
        report = fatal(message) if error is None else fatal(message, error)
        result = self.expect(self.capture(machine, *options, base=base, out=out), 1, stdout, before + report)
        self.assertEqual(machine.files(), list(files))
        self.assertEqual(result.calls("WriteFile"), [])
        return result

    def own_table(self, machine, name="new.vrnx"):
        return read_table(machine.path(name))


class Modes(Incremental):
    def test_each_mode_tells_reads_and_stores_what_belongs_to_it(self):
        thin, whole = [0, MIB4, 0], [MIB4, MIB4, 1024]
        for case, tracker, options, settled, complete, read, copied, stored in (
                ("tracked thin", True, ["--thin"], proof_line(0x10), thin_complete("new.vrnx", 3, 2, 1), [1], [], thin),
                ("tracked copy", True, [], proof_line(0x10), copy_complete("new.vrnx", 1, 2), [1],
                 [(DATA, MIB4), (DATA + 2 * MIB4, 1024)], whole),
                ("compared thin", False, ["--thin"], compared_line(REASON_NO_TRACKER),
                 thin_complete("new.vrnx", 3, 2, 3), [0, 1, 2], [], thin),
                ("full fallback", False, [], fallback_line(REASON_NO_TRACKER), full_complete("new.vrnx"), [0, 1, 2], [],
                 whole)):
            machine = self.prepare(tracker=tracker)
            with self.subTest(case):
                result = self.expect_mode(machine, settled, complete, *options,
                                          tracker=TRACKER if tracker else NO_TRACKER)
                self.assertEqual(chunks_read(result), read)
                of_base = data_reads(machine, result, "base.vrnx")
                self.assertEqual([(line["offset"], line["length"]) for line in of_base], copied)
                header, records = self.own_table(machine)
                self.assertEqual((header.version, header.epoch), (3 if options else 2, 0x11 if tracker else 0))
                self.assertEqual([record.stored_length for record in records], stored)
                if not options:
                    os.remove(machine.path("base.vrnx"))
                    self.expect_good_image(machine, "new.vrnx", machine.disk_bytes(1))


class Proof(Incremental):
    REASONS = (
        # (words, is the tracker there, epoch of the base, fields of the driver's record)
        ("no change tracker for this disk", False, 0x10, {}),
        ("base image has no epoch (captured without the tracker)", True, 0, {}),
        ("driver holds no previous epoch (reboot/reload since the base image)", True, 0x10, {"has_previous_epoch": 0}),
        ("base image is not the most recent committed image", True, 0x10, {"previous_epoch": 0xF}),
        ("tracker saw an untracked write (gap) since the base image", True, 0x10, {"gap": 1}),
        ("tracker saw an untracked write (gap) since the base image", True, 0x10, {"other_gap": 1}))

    def line(self, tracker, record):
        return tracker_line(1, 0x11, gap=bool(record.get("gap"))) if tracker else NO_TRACKER

    def test_each_reason_leads_to_comparing_with_thin_and_to_a_full_capture_without(self):
        for reason, tracker, epoch, record in self.REASONS:
            for options, settled, complete in (
                    (("--thin",), compared_line(reason), thin_complete("new.vrnx", 3, 1, 3)),
                    ((), fallback_line(reason), full_complete("new.vrnx"))):
                machine = self.prepare(tracker=tracker, epoch=epoch, changes=(0, 2), **record)
                with self.subTest(reason=reason, options=options, **record):
                    result = self.expect_mode(machine, settled, complete, *options, tracker=self.line(tracker, record))
                    self.assertEqual(chunks_read(result), [0, 1, 2])
                    self.assertEqual(data_reads(machine, result, "base.vrnx"), [])

    def test_the_seven_bytes_of_an_epoch_are_read_least_significant_first(self):
        machine = self.prepare(epoch=0x77665544332211, previous_epoch=0x77665544332211)
        self.assertEqual(machine.read("base.vrnx")[37:44].hex(), "11223344556677")
        self.expect_mode(machine, "  --base: base epoch 77665544332211 matches tracker; unchanged chunks will be copied"
                         " from the base image.\n", thin_complete("new.vrnx", 3, 2, 1), "--thin")


class Chunks(Incremental):
    def test_an_unchanged_disk_makes_references_alone_and_a_changed_one_none(self):
        for tracker in (True, False):
            for changes, size, writes in (((), DATA + 57, [57, 64, 216]),
                                          ((0, 1, 2), DATA + SIZE + 57, [MIB4, MIB4, 1024, 57, 64, 216])):
                machine = self.prepare(changes=changes, tracker=tracker)
                with self.subTest(tracker=tracker, changes=changes):
                    result = self.expect_mode(
                        machine, proof_line(0x10) if tracker else compared_line(REASON_NO_TRACKER),
                        thin_complete("new.vrnx", 3, 3 - len(changes), len(changes) if tracker else 3), "--thin",
                        tracker=TRACKER if tracker else NO_TRACKER)
                    self.assertEqual(os.path.getsize(machine.path("new.vrnx")), size)
                    self.assertEqual(read_header(machine.path("new.vrnx")).version, 3)
                    self.assertEqual([line["length"] for line in result.calls("WriteFile")], writes)

    def test_a_marked_chunk_of_equal_content_becomes_a_reference_and_is_stored_in_a_copy(self):
        machine = self.prepare(changes=(1,), bitmap=marked(SIZE, SHIFT, (0, SIZE)))
        result = self.expect_mode(machine, proof_line(0x10), thin_complete("new.vrnx", 3, 2, 3), "--thin")
        self.assertEqual(chunks_read(result), [0, 1, 2])
        self.assertEqual([record.stored_length for record in self.own_table(machine)[1]], [0, MIB4, 0])
        machine = self.prepare(changes=(), bitmap=marked(SIZE, SHIFT, (MIB4, 512)))
        result = self.expect_mode(machine, proof_line(0x10), copy_complete("new.vrnx", 1, 2))
        self.assertEqual(chunks_read(result), [1])

    def test_a_copied_chunk_is_hashed_once_and_a_proved_reference_not_at_all(self):
        result = self.expect_mode(self.prepare(), proof_line(0x10), copy_complete("new.vrnx", 1, 2))
        # The digest of the base, chunk 0 out of the base, chunk 1 from the disk, chunk 2 out of the base.
        self.assertEqual([line["length"] for line in result.calls("BCryptHashData")], [DATA, MIB4, MIB4, 1024])
        result = self.expect_mode(self.prepare(), proof_line(0x10), thin_complete("new.vrnx", 3, 2, 1), "--thin")
        self.assertEqual([line["length"] for line in result.calls("BCryptHashData")], [DATA, MIB4])

    def test_references_carry_hash_and_offset_and_no_nonce_or_tag(self):
        machine = self.prepare()
        machine.write("password", PASSWORD)
        self.expect_mode(machine, proof_line(0x10), thin_complete("new.vrnx", 3, 2, 1), "--thin", "--encrypt",
                         "--password-file", "password", password=PASSWORD)
        _, base = self.own_table(machine, "base.vrnx")
        _, records = self.own_table(machine)
        for index in (0, 2):
            self.assertEqual((records[index].disk_offset, records[index].stored_length, records[index].hash,
                              records[index].nonce, records[index].tag),
                             (index * MIB4, 0, base[index].hash, bytes(12), bytes(16)))
        self.assertNotEqual(records[1].nonce, bytes(12))

    def test_sectors_of_4096_bytes(self):
        size = MIB4 + 3 * 4096
        machine = self.machine(source=pattern(size, "source"), target=bytes(4096), sector_size=4096)
        build_image(machine.path("base.vrnx"), machine.disk_bytes(1), chunk_size=MIB4, sector_size=4096, epoch=0x10)
        machine.poke_disk(1, size - 1, b"!")
        machine.tracker([{"number": 1, "has_previous_epoch": 1, "previous_epoch": 0x10, "current_epoch": 0x11,
                          "bitmap": marked(size, SHIFT, (size - 1, 1))}])
        self.expect(self.capture(machine, "--thin"), 0, incremental_text(
            size, "base.vrnx", proof_line(0x10), thin_complete("new.vrnx", 2, 1, 1), tracker=TRACKER, sector_size=4096))
        self.expect_good_image(machine, "new.vrnx", machine.disk_bytes(1))


class Base(Incremental):
    REFUSED = (
        # (case, the disk of the base and how it is made, what is said): also where the run would not need the base
        ("another size", SOURCE[:-512], {}, OTHER_DISK),
        ("another sector size", SOURCE, {"sector_size": 1024}, OTHER_DISK),
        ("another size and chunk size", SOURCE[:-512], {"chunk_size": MIB4 // 2}, OTHER_DISK),
        ("another chunk size", SOURCE, {"chunk_size": 2 * MIB4}, OTHER_CHUNKS),
        ("sealed, and no password", SOURCE, {"password": PASSWORD}, NEEDS_PASSWORD),
        ("damaged", None, {}, "not a recognized Vornix image (bad magic/version)"))

    def test_each_base_that_does_not_fit_ends_the_run_in_every_mode(self):
        for case, plain, options, message in self.REFUSED:
            content = b"no image".ljust(64) if plain is None else ImageBuilder(
                plain, **{"chunk_size": MIB4, "epoch": 0x10, **options}).to_bytes()
            for tracker, thin in MODES:
                machine = self.prepare(tracker=tracker)
                write_hollow(machine.path("base.vrnx"), content)
                with self.subTest(case, tracker=tracker, thin=thin):
                    self.expect_refused(machine, message, *thin, tracker=TRACKER if tracker else NO_TRACKER)

    def test_a_base_that_is_missing_ends_the_run_in_every_mode(self):
        for tracker, options in MODES:
            machine = self.prepare(tracker=tracker)
            with self.subTest(tracker=tracker, options=options):
                self.expect_refused(machine, "could not open image file", *options, base="missing.vrnx", error=2,
                                    before="could not open image file: missing.vrnx\n",
                                    tracker=TRACKER if tracker else NO_TRACKER)

    def test_a_base_of_another_chunk_size_is_refused_where_both_have_one_chunk(self):
        machine = self.machine(source=pattern(1536, "source"), target=bytes(512))
        build_image(machine.path("base.vrnx"), machine.disk_bytes(1), chunk_size=2 * MIB4)
        self.expect(self.capture(machine), 1, source_line(1, 1536) + NO_TRACKER + base_line("base.vrnx"),
                    fatal(OTHER_CHUNKS))
        self.assertEqual(machine.files(), ["base.vrnx"])

    def test_a_damaged_base_chunk_ends_a_tracked_copy(self):
        for password, message in ((None, BAD_HASH), (PASSWORD, UNAUTHENTIC)):
            machine = self.prepare(changes=(0,), password=password)
            machine.write("password", PASSWORD)
            machine.flip("base.vrnx", DATA + MIB4 + 77)
            before = machine.tracker_disk(1)
            self.expect(self.capture(machine, "--password-file", "password"), 1,
                        source_line(1, SIZE) + TRACKER + base_line("base.vrnx") + proof_line(0x10)
                        + meter_run(SIZE, MIB4, upto=1), fatal(message))
            self.assertEqual(machine.files(), ["base.vrnx", "new.vrnx.partial", "password"])
            self.assertEqual(machine.read("new.vrnx.partial")[:DATA], bytes(DATA))
            self.assertFalse(is_accepted(machine.path("new.vrnx.partial")))
            self.assertEqual(machine.tracker_disk(1), before)


class ThinBase(Incremental):
    def stacked(self, **record):
        """A machine with base.vrnx, thin1.vrnx over it (chunk 1 changed), and a disk in which chunk 2 changed since."""
        machine = self.prepare(changes=(1,), **record)
        machine.tracker([])
        build_image(machine.path("thin1.vrnx"), machine.disk_bytes(1), chunk_size=MIB4, epoch=0x20,
                    base=machine.path("base.vrnx"))
        machine.poke_disk(1, 2 * MIB4, b"later")
        machine.tracker([{"number": 1, "has_previous_epoch": 1, "previous_epoch": 0x20, "current_epoch": 0x21,
                          "bitmap": marked(SIZE, SHIFT, (2 * MIB4, 5)), **record}])
        return machine

    LINE = tracker_line(1, 0x21)

    def test_a_thin_image_over_a_thin_one(self):
        machine = self.stacked()
        result = self.expect_mode(machine, proof_line(0x20), thin_complete("new.vrnx", 3, 2, 1), "--thin",
                                  base="thin1.vrnx", tracker=self.LINE)
        self.assertEqual(chunks_read(result), [2])
        self.assertEqual(data_reads(machine, result, "thin1.vrnx") + data_reads(machine, result, "base.vrnx"), [])
        trailer = Image(machine.path("new.vrnx")).trailer
        self.assertEqual((trailer.base_name, trailer.base_digest),
                         (b"thin1.vrnx", digest_of(machine.path("thin1.vrnx"))))

    def test_comparing_takes_the_hash_of_a_reference_as_that_of_a_stored_chunk(self):
        machine = self.stacked(gap=1)
        result = self.expect_mode(machine, compared_line(REASON_GAP), thin_complete("new.vrnx", 3, 2, 3), "--thin",
                                  base="thin1.vrnx", tracker=tracker_line(1, 0x21, gap=True))
        self.assertEqual(data_reads(machine, result, "thin1.vrnx") + data_reads(machine, result, "base.vrnx"), [])

    def test_a_tracked_copy_gathers_the_chain(self):
        machine = self.stacked()
        result = self.expect_mode(machine, proof_line(0x20), copy_complete("new.vrnx", 1, 2), base="thin1.vrnx",
                                  tracker=self.LINE)
        self.assertEqual([line["offset"] for line in data_reads(machine, result, "base.vrnx")], [DATA])
        self.assertEqual([line["offset"] for line in data_reads(machine, result, "thin1.vrnx")], [DATA])
        # Chunk 0 is proved against the record that stores it and against the one that refers to it.
        self.assertEqual([line["length"] for line in result.calls("BCryptHashData")],
                         [DATA, DATA, MIB4, MIB4, MIB4, 1024])
        os.remove(machine.path("base.vrnx"))
        os.remove(machine.path("thin1.vrnx"))
        self.expect_good_image(machine, "new.vrnx", machine.disk_bytes(1))

    def test_a_66th_image_can_be_made_and_not_be_opened(self):
        machine = self.machine(source=pattern(512, "source"), target=bytes(512))
        path = machine.path("l00.vrnx")
        build_image(path, machine.disk_bytes(1), chunk_size=MIB4)
        for place in range(1, 64):
            base, path = path, machine.path(f"l{place:02}.vrnx")
            build_image(path, machine.disk_bytes(1), chunk_size=MIB4, base=base)
        for place in (64, 65):
            base, name = f"l{place - 1:02}.vrnx", f"l{place:02}.vrnx"
            self.leave_unjudged(machine, "the last image is one too many; the others are opened by the one before it")
            self.expect(self.capture(machine, "--thin", base=base, out=name), 0, incremental_text(
                512, base, compared_line(REASON_NO_TRACKER), thin_complete(name, 1, 1, 1)))
        self.expect(machine.run("verify", "--in", "l64.vrnx"), 0, thin_verify_text("l64.vrnx", "l63.vrnx", 512, MIB4))
        self.expect(machine.run("verify", "--in", "l65.vrnx"), 1, "",
                    fatal("image chain is too deep (or loops back on itself)"))
        self.expect(self.capture(machine, "--thin", base="l65.vrnx", out="l66.vrnx"), 1,
                    source_line(1, 512) + NO_TRACKER + base_line("l65.vrnx"),
                    fatal("image chain is too deep (or loops back on itself)"))


class Paths(Incremental):
    def test_rules_of_paths_bind_thin_captures_with_and_without_the_proof(self):
        for tracker, settled in ((True, proof_line(0x10)), (False, compared_line(REASON_NO_TRACKER))):
            machine = self.prepare(tracker=tracker)
            os.mkdir(machine.path("sub"))
            for out, message in (("sub/new.vrnx", "--thin: the image and its --base must be in the same folder"),
                                 ("base.vrnx", "--thin: --out must differ from --base"),
                                 ("sub/base.vrnx", OTHER_FOLDER), ("./base.vrnx", SAME_FILE),
                                 ("sub/../base.vrnx", SAME_FILE), (machine.absolute("base.vrnx"), SAME_FILE),
                                 ("BASE.vrnX", SAME_FILE), ("n" * 300, UNRESOLVED),
                                 ("./" * 150 + "n" * 240, UNRESOLVED))[:None if tracker else 2]:
                with self.subTest(tracker=tracker, out=out):
                    self.expect_refused(machine, message, "--thin", out=out, settled=settled,
                                        tracker=TRACKER if tracker else NO_TRACKER, files=("base.vrnx", "sub"))

    def test_without_thin_the_base_may_lie_anywhere_and_no_path_is_made_absolute(self):
        machine = self.prepare()
        os.mkdir(machine.path("sub"))
        result = self.expect_mode(machine, proof_line(0x10), copy_complete("sub/new.vrnx", 1, 2), out="sub/new.vrnx")
        self.assertEqual(result.calls("_fullpath"), [])

    def test_an_existing_output_is_refused_behind_the_rules_and_without_thin_the_base_is_one(self):
        machine = self.prepare()
        machine.write("new.vrnx", b"here already")
        before = machine.read("base.vrnx")
        for options, out in ((("--thin",), "new.vrnx"), ((), "base.vrnx")):
            self.expect_refused(machine, OVERWRITE, *options, out=out, settled=proof_line(0x10),
                                files=("base.vrnx", "new.vrnx"))
        self.expect_file(machine, "new.vrnx", b"here already")
        self.expect_file(machine, "base.vrnx", before)

    def test_different_ways_to_one_folder_are_the_same_folder_and_the_name_stands_behind_the_last_separator(self):
        for base, out in (("base.vrnx", "./new.vrnx"), ("./base.vrnx", "new.vrnx"), ("sub/../base.vrnx", "new.vrnx"),
                          ("base.vrnx", "sub/.././new.vrnx"), (".//base.vrnx", "new.vrnx"),
                          ("absolute", "new.vrnx"), ("base.vrnx", "absolute")):
            machine = self.prepare()
            os.mkdir(machine.path("sub"))
            base = machine.absolute("base.vrnx") if base == "absolute" else base
            out = machine.absolute("new.vrnx") if out == "absolute" else out
            with self.subTest(base=base, out=out):
                self.expect(self.capture(machine, "--thin", base=base, out=out), 0, incremental_text(
                    SIZE, base, proof_line(0x10), thin_complete(out, 3, 2, 1), tracker=TRACKER))
                self.assertEqual(Image(machine.path("new.vrnx")).trailer.base_name, b"base.vrnx")

    def test_folders_that_differ_in_case_are_the_same_folder(self):
        machine = self.prepare()
        os.mkdir(machine.path("Sub"))
        os.rename(machine.path("base.vrnx"), machine.path("Sub/base.vrnx"))
        if not self.settings.windows:
            os.mkdir(machine.path("sUB"))  # another folder to this host, and let through all the same
        self.leave_unjudged(machine, "on Linux the two folders are two")
        result = self.expect(self.capture(machine, "--thin", base="Sub/base.vrnx", out="sUB/new.vrnx"), 0,
                             incremental_text(SIZE, "Sub/base.vrnx", proof_line(0x10),
                                              thin_complete("sUB/new.vrnx", 3, 2, 1), tracker=TRACKER))
        self.assertEqual(len(result.calls("_fullpath")), 2)
        if self.settings.windows:
            self.expect_good_image(machine, "Sub/new.vrnx", machine.disk_bytes(1))
        else:
            self.expect(machine.run("verify", "--in", "sUB/new.vrnx"), 1, "",
                        missing_base("sUB/base.vrnx") + fatal("base image of a thin image not found"))

    def test_a_work_path_that_is_the_open_base_cannot_be_created_though_the_rules_let_it_through(self):
        machine = self.prepare(base="base.vrnx.partial")
        before = machine.read("base.vrnx.partial")
        for out, message, error in (("base.vrnx.partial", SAME_FILE, None),
                                    ("base.vrnx", "could not create output image file", 32)):
            self.expect_refused(machine, message, "--thin", base="base.vrnx.partial", out=out,
                                settled=proof_line(0x10), error=error, files=("base.vrnx.partial",))
        self.expect_file(machine, "base.vrnx.partial", before)

    def test_a_drive_and_a_name_with_no_slash_pass_the_rules_and_make_an_unopenable_image(self):
        if self.settings.windows:
            machine = self.prepare()  # the drive's current folder is the run's
        else:
            machine = self.prepare(base="Z:base.vrnx")  # a name like any other to this host
        self.leave_unjudged(machine, "the trailer names a base that no reader looks for")
        self.expect(self.capture(machine, "--thin", base="Z:base.vrnx"), 0, incremental_text(
            SIZE, "Z:base.vrnx", proof_line(0x10), thin_complete("new.vrnx", 3, 2, 1), tracker=TRACKER))
        self.assertIn(b"\x0b\0\0\0Z:base.vrnx", machine.read("new.vrnx")[-59:])
        self.expect(machine.run("verify", "--in", "new.vrnx"), 1, "", fatal(OUTSIDE))


class Trailer(Incremental):
    def test_the_trailer_pins_the_direct_base_and_is_written_before_header_and_table(self):
        machine = self.prepare()
        result = self.expect_mode(machine, proof_line(0x10), thin_complete("new.vrnx", 3, 2, 1), "--thin")
        self.assertEqual(machine.read("new.vrnx")[DATA + MIB4:],
                         b"VRNXBASE" + b"\x09\0\0\0" + b"base.vrnx" + digest_of(machine.path("base.vrnx"))
                         + b"\x39\0\0\0")
        own = [(line["call"], line.get("offset"), line.get("length")) for line in result.calls(path="new.vrnx.partial")]
        self.assertEqual(own, [
            ("CreateFileW", None, None), ("SetFilePointerEx", DATA, None), ("WriteFile", DATA, MIB4),
            ("WriteFile", DATA + MIB4, 57), ("SetFilePointerEx", 0, None), ("WriteFile", 0, 64),
            ("WriteFile", 64, 216), ("CloseHandle", None, None)])

    def test_a_backslash_cuts_the_name_as_a_slash_does(self):
        machine = self.prepare(base="base.vrnx" if self.settings.windows else ".\\base.vrnx")
        out = "new.vrnx" if self.settings.windows else ".\\new.vrnx"
        self.leave_unjudged(machine, "on Linux a backslash is part of a name to this reader")
        self.expect(self.capture(machine, "--thin", base=".\\base.vrnx", out=out), 0, incremental_text(
            SIZE, ".\\base.vrnx", proof_line(0x10), thin_complete(out, 3, 2, 1), tracker=TRACKER))
        self.assertEqual(machine.read(out)[DATA + MIB4 + 8:DATA + MIB4 + 21], b"\x09\0\0\0base.vrnx")
        self.expect(machine.run("verify", "--in", out), 0, thin_verify_text(out, "base.vrnx", SIZE, MIB4))

    def test_the_case_of_the_typed_name_is_kept(self):
        if not self.settings.windows:
            self.skipTest("another case is another file to this host")
        machine = self.prepare()
        self.leave_unjudged(machine, "to this reader the base has another name")
        self.expect(self.capture(machine, "--thin", base="BASE.vrnx"), 0, incremental_text(
            SIZE, "BASE.vrnx", proof_line(0x10), thin_complete("new.vrnx", 3, 2, 1), tracker=TRACKER))
        self.assertIn(b"BASE.vrnx", machine.read("new.vrnx")[-57:])
        self.expect(machine.run("verify", "--in", "new.vrnx"), 0, thin_verify_text("new.vrnx", "BASE.vrnx", SIZE, MIB4))


class Sealed(Incremental):
    KEY = ("--password-file", "password")

    def sealed_pair(self, password, *options, thin, tracker=True, changes=(1,)):
        """One capture over a base that is plain or sealed, into an image that `options` seal or not."""
        machine = self.prepare(password=password, tracker=tracker, changes=changes)
        machine.write("password", PASSWORD + b"\n")
        if thin:
            complete = thin_complete("new.vrnx", 3, 3 - len(changes), len(changes) if tracker else 3)
            settled = proof_line(0x10) if tracker else compared_line(REASON_NO_TRACKER)
            options = ("--thin", *options)
        elif tracker:
            settled, complete = proof_line(0x10), copy_complete("new.vrnx", len(changes), 3 - len(changes))
        else:
            settled, complete = fallback_line(REASON_NO_TRACKER), full_complete("new.vrnx")
        result = self.expect_mode(machine, settled, complete, *options, *self.KEY,
                                  tracker=TRACKER if tracker else NO_TRACKER, password=PASSWORD)
        return machine, result

    def test_every_mix_of_sealed_and_plain_in_every_mode(self):
        for password in (None, PASSWORD):
            for seal in ((), ("--encrypt",)):
                for thin in (True, False):
                    for tracker in (True, False):
                        with self.subTest(sealed_base=bool(password), sealed=bool(seal), thin=thin, tracker=tracker):
                            machine, result = self.sealed_pair(password, *seal, thin=thin, tracker=tracker)
                            header = read_header(machine.path("new.vrnx"))
                            self.assertEqual((header.encrypted, header.kdf_iterations),
                                             (1, 200000) if seal else (0, 0))
                            text = thin_verify_text("new.vrnx", "base.vrnx", SIZE, MIB4) if thin \
                                else verify_text("new.vrnx", SIZE, MIB4)
                            self.expect(machine.run("verify", "--in", "new.vrnx", *self.KEY), 0, text)
                            if thin:
                                self.assertEqual(data_reads(machine, result, "base.vrnx"), [])

    def test_a_sealed_chunk_is_unsealed_and_sealed_anew_under_the_new_key(self):
        machine, result = self.sealed_pair(PASSWORD, "--encrypt", thin=False)
        base_header, base_records = self.own_table(machine, "base.vrnx")
        header, records = self.own_table(machine)
        self.assertNotEqual(header.salt, base_header.salt)
        for index in range(3):
            self.assertNotEqual(records[index].nonce, base_records[index].nonce)
        self.assertEqual((records[0].hash, records[2].hash), (base_records[0].hash, base_records[2].hash))
        self.assertEqual((len(result.calls("BCryptDecrypt")), len(result.calls("BCryptEncrypt"))), (2, 3))
        self.assertNotEqual(machine.read("new.vrnx")[DATA:DATA + 64], machine.read("base.vrnx")[DATA:DATA + 64])

    def test_only_stored_chunks_are_sealed_in_a_thin_image_under_a_salt_of_its_own(self):
        machine, result = self.sealed_pair(PASSWORD, "--encrypt", thin=True)
        self.assertEqual((len(result.calls("BCryptDecrypt")), len(result.calls("BCryptEncrypt"))), (0, 1))
        # One salt for the image and one nonce for the chunk.
        self.assertEqual([line["length"] for line in result.calls("BCryptGenRandom")], [16, 12])
        self.assertEqual([(line["salt"], line["iterations"]) for line in result.calls("BCryptDeriveKeyPBKDF2")],
                         [(read_header(machine.path("base.vrnx")).salt.hex(), 100000),
                          (read_header(machine.path("new.vrnx")).salt.hex(), 200000)])

    def test_a_plain_image_over_a_plain_base_does_not_look_at_the_password_file(self):
        machine = self.prepare()
        self.expect_mode(machine, proof_line(0x10), thin_complete("new.vrnx", 3, 2, 1), "--thin", "--password-file",
                         "missing")

    def test_a_wrong_password_does_not_show_in_a_thin_capture_and_makes_a_chain_that_does_not_read(self):
        machine = self.prepare(password=PASSWORD)
        machine.write("password", b"wrong")
        self.leave_unjudged(machine, "the chain has two passwords")
        self.expect(self.capture(machine, "--thin", "--encrypt", *self.KEY), 0, incremental_text(
            SIZE, "base.vrnx", proof_line(0x10), thin_complete("new.vrnx", 3, 2, 1), tracker=TRACKER))
        result = machine.run("verify", "--in", "new.vrnx", *self.KEY)
        self.assertEqual(result.status, 1)
        self.assertTrue(suite.matches(result.stderr, fatal(UNAUTHENTIC)), result.stderr)


if __name__ == "__main__":
    suite.main()
