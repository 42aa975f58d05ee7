"""Thin images and their chains as verify and restore meet them: every form of a trailer, the way from its name to the
base, the proof that it is the one pinned, the depth of a chain, and which damage shows where on the way through a
reference. What fails of a platform's calls on this way is tried by the sweep over thin images."""

import copy
import os

import suite
from consolidate_runs import consolidate_text, plain_full_image
from console import fatal, meter, meter_run, restore_text, restoring_line, verifying_line
from image import ImageBuilder, Trailer, build_image, digest_of
from incremental import missing_base, other_base, thin_verify_text
from machine import pattern

CHUNK = 4096
SIZE = 4 * CHUNK + 1536  # five chunks, the last one short
COUNT = 5
DATA = 64 + 72 * COUNT
PASSWORD = b"correct horse"

NO_TRAILER = "thin image has no valid trailer - file is truncated"
TRAILER_UNREAD = "could not read thin image trailer"
MALFORMED = "thin image trailer is malformed"
OUTSIDE = "thin image trailer names a base outside its folder - refusing"
NOT_FOUND = "base image of a thin image not found"
NOT_PINNED = "base image does not match the one pinned in the thin image"
OTHER_SHAPE = "base image geometry differs from the thin image"
TOO_DEEP = "image chain is too deep (or loops back on itself)"
UNOPENED = "could not open image file"
NEEDS_PASSWORD = "this image is encrypted - pass --password-file"
UNAUTHENTIC = "chunk failed authentication (corrupt or tampered image)"
BAD_HASH = "chunk failed its hash check (corrupt image or base)"


def changed(plain, seed, *indexes, chunk=CHUNK):
    """The disk with these chunks overwritten."""
    data = bytearray(plain)
    for index in indexes:
        length = len(data[index * chunk:(index + 1) * chunk])
        data[index * chunk:(index + 1) * chunk] = pattern(length, f"{seed} {index}")
    return bytes(data)


class Chains(suite.Scenario):
    def work(self):
        return self.machine(default=False)

    def restoring(self, target=None):
        """A machine with a target of SIZE bytes."""
        return self.machine(source=bytes(512), target=pattern(SIZE, "target") if target is None else target)

    def chain(self, machine, *changes, folder="", passwords=(), size=SIZE):
        """g0.vrnx, a full image, and above it one thin image for each tuple of changed chunks. `passwords` gives for
        each image the password that seals it, or None. Gives the disks that the images stand for."""
        plain = pattern(size, "disk")
        passwords = list(passwords) + [None] * (len(changes) + 1 - len(passwords))
        path = machine.path(os.path.join(folder, "g0.vrnx"))
        build_image(path, plain, password=passwords[0], seed="g0")
        plains = [plain]
        for place, indexes in enumerate(changes, 1):
            plain = changed(plain, f"g{place}", *indexes)
            base, path = path, machine.path(os.path.join(folder, f"g{place}.vrnx"))
            build_image(path, plain, base=base, password=passwords[place], seed=f"g{place}")
            plains.append(plain)
        return plains

    def verify(self, machine, name, *options):
        return machine.run("verify", "--in", name, *options)

    def restore(self, machine, name, *options, disk=2):
        return machine.run("restore", "--in", name, "--disk", str(disk), "--confirm", "YES", *options)

    def expect_good(self, machine, name, base, *options, size=SIZE, chunk=CHUNK):
        return self.expect(self.verify(machine, name, *options), 0, thin_verify_text(name, base, size, chunk))

    def thin_pair(self, **options):
        """A machine with g0.vrnx, and the builder of a thin image over it in which chunk 1 is stored."""
        machine = self.work()
        plain, = self.chain(machine)
        return machine, ImageBuilder(changed(plain, "thin", 1), base=machine.path("g0.vrnx"), **options)

    def expect_refused(self, machine, data, message, before="", error=None):
        """The thin image of these bytes is refused with nothing on standard output."""
        machine.write("thin.vrnx", data.to_bytes() if isinstance(data, ImageBuilder) else data)
        report = fatal(message) if error is None else fatal(message, error)
        return self.expect(self.verify(machine, "thin.vrnx"), 1, "", before + report)


class TrailerBytes(Chains):
    def test_a_thin_image_over_a_full_one_is_good_and_its_trailer_found_from_the_end_in_two_reads(self):
        machine, builder = self.thin_pair()
        builder.write(machine.path("thin.vrnx"))
        size = len(builder.to_bytes())
        result = self.expect(self.verify(machine, "thin.vrnx"), 0,
                             "Verifying thin.vrnx  (5 chunks, 0.00 GiB source disk)\n"
                             "  thin image: chain continues with g0.vrnx\n"
                             "\r   22.86%  0 / 0 MiB  (0.0 MiB/s)   \r  100.00%  0 / 0 MiB  (0.0 MiB/s)   \n"
                             "Verify OK - all 5 chunks match their recorded hash.\n")
        steps = [(line["call"], line.get("offset"), line.get("length")) for line in result.calls(path="thin.vrnx")
                 if line["call"] in ("SetFilePointerEx", "ReadFile")]
        self.assertEqual(steps, [
            ("ReadFile", 0, 64), ("ReadFile", 64, 360), ("SetFilePointerEx", size - 4, None), ("ReadFile", size - 4, 4),
            ("SetFilePointerEx", size - 55, None), ("ReadFile", size - 55, 55), ("SetFilePointerEx", 0, None),
            ("SetFilePointerEx", DATA, None), ("ReadFile", DATA, CHUNK)])

    def test_a_thin_image_without_references_needs_its_trailer_and_its_base(self):
        machine = self.work()
        self.chain(machine, range(COUNT))
        self.expect_good(machine, "g1.vrnx", "g0.vrnx")
        os.rename(machine.path("g0.vrnx"), machine.path("away.vrnx"))
        self.expect(self.verify(machine, "g1.vrnx"), 1, "", missing_base("g0.vrnx") + fatal(NOT_FOUND))
        os.rename(machine.path("away.vrnx"), machine.path("g0.vrnx"))
        data = machine.read("g1.vrnx")[:DATA + SIZE]
        self.expect_refused(machine, data, NO_TRAILER)

    def test_bytes_between_data_and_trailer_are_ignored(self):
        machine, builder = self.thin_pair()
        builder.gap = pattern(5000, "gap")
        builder.write(machine.path("thin.vrnx"))
        self.expect_good(machine, "thin.vrnx", "g0.vrnx")

    def test_a_file_with_no_room_for_the_smallest_trailer_is_refused_without_a_look_at_it(self):
        machine, builder = self.thin_pair()
        builder.trailer, builder.tail = None, bytes(43) + b"\x30\0\0\0"
        result = self.expect_refused(machine, builder, NO_TRAILER)
        self.assertEqual(len(result.calls("ReadFile", path="thin.vrnx")), 2)

    def test_a_name_of_4048_bytes_goes_on_to_the_lookup(self):
        machine, builder = self.thin_pair()
        name = "n" * 4048
        builder.trailer.base_name = name.encode()
        self.assertEqual(builder.trailer.pack()[-4:], (4096).to_bytes(4, "little"))
        result = self.expect_refused(machine, builder, NOT_FOUND, missing_base(name))
        self.assertEqual([line["path"] for line in result.calls("GetFileAttributesA")], [name])

    BROKEN = (
        # (case, fields of the image, fields of its trailer, what is said)
        ("no trailer", {"trailer": None}, {}, NO_TRAILER),
        ("a zero byte behind it", {"tail": b"\0"}, {}, NO_TRAILER),
        ("100 zero bytes behind it", {"tail": bytes(100)}, {}, NO_TRAILER),
        ("the length of a trailer behind it", {"tail": b"\x38\0\0\0"}, {}, MALFORMED),
        ("a length of 48, which leaves no name", {}, {"base_name": b""}, MALFORMED),
        *[(f"a length of {total} in a file of any size", {"gap": bytes(8192)}, {"total_length": total}, NO_TRAILER)
          for total in (0, 47, 4097, 0xFFFFFFFF)],
        ("a length that reaches into the chunk data", {}, {"total_length": 56}, NO_TRAILER),
        ("the same with a byte more of room", {"gap": b"\0"}, {"total_length": 56}, MALFORMED),
        ("a name of 4049 bytes", {}, {"base_name": b"n" * 4049}, NO_TRAILER),
        *[(f"magic {magic}", {}, {"magic": magic}, MALFORMED)
          for magic in (b"VRNXBASF", b"VRNXDSK2", b"vrnxbase", bytes(8))],
        *[(f"a name length of {length}", {}, {"name_length": length}, MALFORMED)
          for length in (0, 6, 8, 7 + 0x10000, 0xFFFFFFFF, 0xFFFFFFD0)],
        ("another magic and a name that leads out", {}, {"magic": b"VRNXBASF", "base_name": b"../g0.vrnx"}, MALFORMED))

    def test_each_broken_trailer_is_refused(self):
        machine, good = self.thin_pair()
        for case, fields, of_trailer, message in self.BROKEN:
            builder = copy.deepcopy(good)
            for name, value in of_trailer.items():
                setattr(builder.trailer, name, value)
            for name, value in fields.items():
                setattr(builder, name, value)
            with self.subTest(case):
                self.expect_refused(machine, builder, message)

    def test_a_length_that_cannot_be_read_is_no_valid_trailer_and_a_trailer_that_cannot_be_is_told_so(self):
        for call, skip, effect, message in (
                ("SetFilePointerEx", 0, {"error": 1117}, NO_TRAILER), ("ReadFile", 2, {"error": 1117}, NO_TRAILER),
                ("ReadFile", 2, {"transferred": 3}, NO_TRAILER), ("ReadFile", 2, {"transferred": 0}, NO_TRAILER),
                ("SetFilePointerEx", 1, {"error": 1117}, TRAILER_UNREAD),
                ("ReadFile", 3, {"error": 1117}, TRAILER_UNREAD), ("ReadFile", 3, {"transferred": 54}, TRAILER_UNREAD)):
            machine, builder = self.thin_pair()
            machine.add_fault(call, path="thin.vrnx", skip=skip, **effect)
            with self.subTest(call=call, skip=skip, effect=effect):
                self.expect_refused(machine, builder, message, error=effect.get("error"))


class WayToTheBase(Chains):
    def test_a_name_that_leads_out_of_the_folder_is_refused_with_no_look_at_it(self):
        machine, builder = self.thin_pair()
        for name in (b"..\\g0.vrnx", b"../g0.vrnx", b"C:g0.vrnx", b"C:\\g0.vrnx", b"/g0.vrnx", b"\\g0.vrnx",
                     b"g0.vrnx/", b"g0.vrnx\\", b"g0.vrnx:", b":", b"/", b"\\", b"\\\\server\\share\\g0.vrnx",
                     b"g0.vrnx::$DATA"):
            builder.trailer.base_name = name
            with self.subTest(name=name):
                result = self.expect_refused(machine, builder, OUTSIDE)
                self.assertEqual(result.calls("GetFileAttributesA"), [])
                self.assertEqual([line["path"] for line in result.calls("CreateFileW")], ["thin.vrnx"])

    def test_the_base_is_looked_for_in_the_folder_of_the_path_as_typed(self):
        machine = self.work()
        os.makedirs(machine.path("sub/deep"))
        for folder, prefix in (("", ""), ("sub/deep", "sub/deep/"), ("sub/deep", "./sub/../sub/deep/"),
                               ("sub/deep", "sub//deep//"), ("", machine.absolute(""))):
            self.chain(machine, (2,), (3,), folder=folder)
            with self.subTest(prefix=prefix):
                result = self.expect_good(machine, prefix + "g2.vrnx", "g1.vrnx")
                self.assertEqual([line["path"] for line in result.calls("GetFileAttributesA")],
                                 [prefix + "g1.vrnx", prefix + "g0.vrnx"])
                self.assertEqual([line["path"] for line in result.calls("CreateFileW")],
                                 [prefix + "g2.vrnx", prefix + "g1.vrnx", prefix + "g0.vrnx"])

    def test_a_backslash_ends_the_folder_as_a_slash_does(self):
        machine = self.work()
        os.makedirs(machine.path("sub"))
        self.chain(machine, (2,), folder="sub")
        if not self.settings.windows:
            # No separator to this host: the same bytes are the names of files that lie here.
            for name in ("g0.vrnx", "g1.vrnx"):
                os.rename(machine.path(f"sub/{name}"), machine.path(f"sub\\{name}"))
        result = self.expect_good(machine, "sub\\g1.vrnx", "g0.vrnx")
        self.assertEqual([line["path"] for line in result.calls("CreateFileW")], ["sub\\g1.vrnx", "sub\\g0.vrnx"])

    def test_the_last_separator_of_either_kind_counts(self):
        machine = self.work()
        self.chain(machine, (2,))
        os.rename(machine.path("g0.vrnx"), machine.path("away.vrnx"))
        os.makedirs(machine.path("sub"))
        if self.settings.windows:
            os.rename(machine.path("g1.vrnx"), machine.path("sub/g1.vrnx"))
            os.makedirs(machine.path("sub/deep"))
            name, base = "sub\\deep/../g1.vrnx", "sub\\deep/../g0.vrnx"
        else:
            os.rename(machine.path("g1.vrnx"), machine.path("sub/x\\g1.vrnx"))
            name, base = "sub/x\\g1.vrnx", "sub/x\\g0.vrnx"
        self.expect(self.verify(machine, name), 1, "", missing_base(base) + fatal(NOT_FOUND))

    def test_a_colon_is_no_separator_of_folders(self):
        machine = self.work()
        self.chain(machine, (2,))
        if not self.settings.windows:
            # There the drive's current folder is the run's: the image is found, and its base without the letter.
            os.rename(machine.path("g1.vrnx"), machine.path("Z:g1.vrnx"))
        result = self.expect_good(machine, "Z:g1.vrnx", "g0.vrnx")
        self.assertEqual([line["path"] for line in result.calls("CreateFileW")], ["Z:g1.vrnx", "g0.vrnx"])

    def test_a_folder_passes_the_existence_test_and_does_not_open(self):
        machine, builder = self.thin_pair()
        os.mkdir(machine.path("folder"))
        for name in (b"folder", b".", b".."):
            builder.trailer.base_name = name
            with self.subTest(name=name):
                self.expect_refused(machine, builder, UNOPENED,
                                    f"could not open image file: {name.decode()}\n", error=5)

    def test_beyond_ascii_a_base_is_the_file_of_that_name(self):
        if self.settings.windows:
            self.skipTest("what a narrow name means there depends on the code page")
        machine, builder = self.thin_pair()
        os.rename(machine.path("g0.vrnx"), machine.path("\u00e4.vrnx"))
        builder.trailer.base_name = "\u00e4.vrnx".encode()
        builder.write(machine.path("thin.vrnx"))
        self.expect_good(machine, "thin.vrnx", "\u00e4.vrnx")
        os.rename(machine.path("\u00e4.vrnx"), machine.path("\uffc3\uffa4.vrnx"))
        self.expect(self.verify(machine, "thin.vrnx"), 1, "", missing_base("\u00e4.vrnx") + fatal(NOT_FOUND))


class Proof(Chains):

    def test_a_replaced_base_is_refused_by_its_digest_and_one_of_equal_bytes_accepted(self):
        machine = self.work()
        plains = self.chain(machine, (2,))
        machine.write("backup.vrnx", machine.read("g0.vrnx"))
        build_image(machine.path("g0.vrnx"), changed(plains[0], "else", 4))
        self.expect(self.verify(machine, "g1.vrnx"), 1, "",
                    "Base image g0.vrnx is not the one this image was made against (it was modified or replaced).\n"
                    + fatal("base image does not match the one pinned in the thin image"))
        os.replace(machine.path("backup.vrnx"), machine.path("g0.vrnx"))
        self.expect_good(machine, "g1.vrnx", "g0.vrnx")
        # Made a second time from the same disk, with no epoch: the same image.
        build_image(machine.path("g0.vrnx"), plains[0], seed="again")
        self.expect_good(machine, "g1.vrnx", "g0.vrnx")

    def test_a_base_of_another_shape_is_refused_though_it_is_pinned(self):
        plain = pattern(SIZE, "disk")
        for case, other, options in (("disk size", plain[:-512], {}),
                                     ("chunk size", plain[:5000], {"chunk_size": 4608}),
                                     ("chunk count", plain + bytes(CHUNK), {}),
                                     ("chunk size and count", plain, {"chunk_size": 8192})):
            machine = self.work()
            thin_plain = plain[:5000] if case == "chunk size" else plain
            builder = ImageBuilder(thin_plain)
            build_image(machine.path("g0.vrnx"), other, **options)
            builder.header.version = 3
            builder.trailer = Trailer(b"g0.vrnx", digest_of(machine.path("g0.vrnx")))
            with self.subTest(case=case):
                self.expect_refused(machine, builder, OTHER_SHAPE)

    def test_a_base_of_another_digest_is_told_before_its_other_shape(self):
        machine, builder = self.thin_pair()
        build_image(machine.path("g0.vrnx"), pattern(SIZE - 512, "disk"))
        self.expect_refused(machine, builder, NOT_PINNED, other_base("g0.vrnx"))


class Depth(Chains):
    def long_chain(self, count, size=1024, chunk=512):
        """`count` images l00.vrnx, l01.vrnx ... of one tiny disk; the lowest alone stores the second chunk."""
        machine = self.work()
        plain = pattern(size, "disk")
        path = machine.path("l00.vrnx")
        build_image(path, plain, chunk_size=chunk)
        for place in range(1, count):
            plain = pattern(chunk, f"l{place}") + plain[chunk:]
            base, path = path, machine.path(f"l{place:02}.vrnx")
            build_image(path, plain, chunk_size=chunk, base=base)
        return machine

    def test_65_images_open_to_every_reader_and_stand_for_their_disk(self):
        machine = self.long_chain(65)
        result = self.expect_good(machine, "l64.vrnx", "l63.vrnx", size=1024, chunk=512)
        self.assertEqual([line["path"] for line in result.calls("CreateFileW")],
                         [f"l{place:02}.vrnx" for place in range(64, -1, -1)])
        machine.add_disk(0, bytes(512))
        machine.system_volume([(0, 0, 512)])
        machine.add_disk(2, bytes(1024))
        self.expect(self.restore(machine, "l64.vrnx"), 0, restore_text("l64.vrnx", 2, 1024, 512))
        plain = pattern(512, "l64") + pattern(1024, "disk")[512:]
        self.expect_disk(machine, 2, plain)
        self.expect(machine.run("consolidate", "--in", "l64.vrnx", "--out", "out.vrnx"), 0,
                    consolidate_text("out.vrnx", 1024, 512))
        self.expect_file(machine, "out.vrnx", plain_full_image(plain, 512))

    def test_the_66th_image_is_refused_before_its_file_is_touched(self):
        machine = self.long_chain(66)
        for content in (machine.read("l00.vrnx"), b"no image"):
            machine.write("l00.vrnx", content)
            result = self.expect(self.verify(machine, "l65.vrnx"), 1, "", fatal(TOO_DEEP))
            self.assertEqual([line["path"] for line in result.calls("CreateFileW")],
                             [f"l{place:02}.vrnx" for place in range(65, 0, -1)])
            self.assertEqual(result.calls("ReadFile", path="l00.vrnx"), [])

    def test_an_image_that_names_itself_runs_into_the_limit_with_all_levels_open(self):
        machine, builder = self.thin_pair()
        builder.trailer.base_name = b"thin.vrnx"
        result = self.expect_refused(machine, builder, TOO_DEEP)
        self.assertEqual([line["path"] for line in result.calls("CreateFileW")], ["thin.vrnx"] * 65)
        self.assertEqual(result.calls("CloseHandle"), [])

    def test_a_chain_of_four_is_opened_from_the_top_and_proved_from_the_bottom(self):
        for case, missing, altered, report in (
                ("the third is missing", ["g1"], [], missing_base("g1.vrnx") + fatal(NOT_FOUND)),
                ("the third is altered", [], ["g1"], other_base("g1.vrnx") + fatal(NOT_PINNED)),
                ("all are altered", [], ["g0", "g1", "g2"], other_base("g0.vrnx") + fatal(NOT_PINNED))):
            machine = self.work()
            self.chain(machine, (0,), (1,), (2,))
            for name in missing:
                os.remove(machine.path(f"{name}.vrnx"))
            for name in altered:
                machine.flip(f"{name}.vrnx", 37)  # its epoch, which nobody examines, and so its digest
            with self.subTest(case):
                self.expect(self.verify(machine, "g3.vrnx"), 1, "", report)


class Reading(Chains):
    def test_the_top_image_is_read_in_sequence_and_never_moved(self):
        machine = self.work()
        self.chain(machine, (0, 2, 4), (1,))
        result = self.expect_good(machine, "g1.vrnx", "g0.vrnx")
        own = [(line["call"], line["offset"]) for line in result.calls(path="g1.vrnx")
               if line["call"] in ("ReadFile", "SetFilePointerEx")]
        self.assertEqual(own[6:], [("SetFilePointerEx", 0), ("SetFilePointerEx", DATA), ("ReadFile", DATA),
                                   ("ReadFile", DATA + CHUNK), ("ReadFile", DATA + 2 * CHUNK)])
        base = [(line["call"], line["offset"]) for line in result.calls(path="g0.vrnx")
                if line["call"] in ("ReadFile", "SetFilePointerEx")]
        self.assertEqual(base[2:], [("SetFilePointerEx", DATA + CHUNK), ("ReadFile", DATA + CHUNK),
                                    ("SetFilePointerEx", DATA + 3 * CHUNK), ("ReadFile", DATA + 3 * CHUNK)])

    def test_a_reference_three_levels_deep_is_hashed_on_every_level(self):
        machine = self.work()
        self.chain(machine, (0, 1, 2, 3), (), ())
        result = self.expect_good(machine, "g3.vrnx", "g2.vrnx")
        hashed = [line["length"] for line in result.calls("BCryptHashData")]
        self.assertEqual(hashed, [DATA] * 4 + [CHUNK] * 3 * 4 + [1536] * 4)
        self.assertEqual([(line["path"], line["offset"]) for line in result.calls("ReadFile")[-5:]],
                         [("g1.vrnx", DATA + place * CHUNK) for place in range(4)] + [("g0.vrnx", DATA + 4 * CHUNK)])

    def test_skip_zero_looks_at_the_bytes_behind_a_reference(self):
        machine = self.restoring()
        plain = bytearray(pattern(SIZE, "disk"))
        plain[CHUNK:3 * CHUNK] = bytes(2 * CHUNK)
        build_image(machine.path("g0.vrnx"), bytes(plain))
        build_image(machine.path("g1.vrnx"), changed(plain, "g1", 0), base=machine.path("g0.vrnx"))
        result = self.expect(self.restore(machine, "g1.vrnx", "--skip-zero"), 0,
                             restore_text("g1.vrnx", 2, SIZE, CHUNK))
        self.assertEqual([line["offset"] for line in result.calls("WriteFile", path="PhysicalDrive2")],
                         [0, 3 * CHUNK, 4 * CHUNK])
        expected = bytearray(changed(plain, "g1", 0))
        expected[CHUNK:3 * CHUNK] = pattern(SIZE, "target")[CHUNK:3 * CHUNK]
        self.expect_disk(machine, 2, bytes(expected))


class Damage(Chains):
    def broken_base(self, index, passwords=(), changes=(1, 3)):
        """A restoring machine with g1 over g0, where a byte of chunk `index` of g0's data is inverted."""
        machine = self.restoring()
        plains = self.chain(machine, changes, passwords=passwords)
        machine.flip("g0.vrnx", DATA + index * CHUNK + 100)
        machine.write("password", PASSWORD)
        return machine, plains

    def head(self, name="g1.vrnx", base="g0.vrnx"):
        return verifying_line(name, COUNT, SIZE) + f"  thin image: chain continues with {base}\n"

    def test_a_damaged_base_chunk_ends_verify_and_restore_at_its_reference(self):
        for passwords, index, message in (((), 2, BAD_HASH), ((PASSWORD,), 2, UNAUTHENTIC),
                                          ((PASSWORD,), 0, UNAUTHENTIC)):
            machine, plains = self.broken_base(index, passwords=passwords)
            before = meter_run(SIZE, CHUNK, upto=index)
            with self.subTest(sealed=bool(passwords), index=index):
                self.expect(self.verify(machine, "g1.vrnx", "--password-file", "password"), 1, self.head() + before,
                            fatal(message))
                self.expect(self.restore(machine, "g1.vrnx", "--password-file", "password"), 1,
                            restoring_line("g1.vrnx", 2, COUNT, SIZE) + before, fatal(message))
                self.expect_disk(machine, 2, plains[1][:index * CHUNK] + pattern(SIZE, "target")[index * CHUNK:])

    def test_a_damaged_base_chunk_goes_unnoticed_under_a_stored_one(self):
        for passwords in ((), (PASSWORD,)):
            machine, plains = self.broken_base(3, passwords=passwords)
            options = ("--password-file", "password")
            self.expect_good(machine, "g1.vrnx", "g0.vrnx", *options)
            self.expect(self.restore(machine, "g1.vrnx", *options), 0, restore_text("g1.vrnx", 2, SIZE, CHUNK))
            self.expect_disk(machine, 2, plains[1])

    def test_counted_chunks_are_not_told_of_when_a_reference_fails(self):
        machine, _ = self.broken_base(2)
        machine.flip("g1.vrnx", DATA + 5)  # stored chunk 1
        self.expect(self.verify(machine, "g1.vrnx"), 1,
                    self.head() + meter(CHUNK, SIZE, 1) + "\n  chunk 1 (disk offset 4096): HASH MISMATCH\n",
                    fatal(BAD_HASH))


class SealedChains(Chains):
    MIXES = {
        "sealed over plain": (None, PASSWORD), "plain over sealed": (PASSWORD, None),
        "sealed over sealed": (PASSWORD, PASSWORD), "plain between sealed": (PASSWORD, None, PASSWORD),
        "sealed between plain": (None, PASSWORD, None)}

    def test_mixed_chains_read_under_one_password_file(self):
        for mix, passwords in self.MIXES.items():
            machine = self.restoring()
            plains = self.chain(machine, *[(0, 2), (1, 2)][:len(passwords) - 1], passwords=passwords)
            machine.write("password", PASSWORD + b"\r\n")
            top = len(passwords) - 1
            name, base = f"g{top}.vrnx", f"g{top - 1}.vrnx"
            with self.subTest(mix=mix):
                result = self.expect_good(machine, name, base, "--password-file", "password")
                derived = [line["salt"] for line in result.calls("BCryptDeriveKeyPBKDF2")]
                self.assertEqual(len(derived), sum(password is not None for password in passwords))
                self.assertEqual(len(set(derived)), len(derived))
                self.expect(self.restore(machine, name, "--password-file", "password"), 0,
                            restore_text(name, 2, SIZE, CHUNK))
                self.expect_disk(machine, 2, plains[top])

    def test_a_sealed_image_of_references_alone_needs_its_password(self):
        machine = self.work()
        self.chain(machine, (), passwords=(None, PASSWORD))
        machine.write("password", PASSWORD)
        self.expect(self.verify(machine, "g1.vrnx"), 1, "", fatal(NEEDS_PASSWORD))
        result = self.expect_good(machine, "g1.vrnx", "g0.vrnx", "--password-file", "password")
        self.assertEqual(result.calls("BCryptDecrypt"), [])

    def test_a_wrong_password_shows_at_the_first_reference_to_a_sealed_base(self):
        for case, passwords, given in (("plain over sealed", (PASSWORD,), b"wrong"),
                                       ("under two passwords", (PASSWORD, b"another"), b"another")):
            machine = self.work()
            self.chain(machine, (0,), passwords=passwords)
            machine.write("password", given)
            with self.subTest(case):
                self.expect(self.verify(machine, "g1.vrnx", "--password-file", "password"), 1,
                            verifying_line("g1.vrnx", COUNT, SIZE) + "  thin image: chain continues with g0.vrnx\n"
                            + meter_run(SIZE, CHUNK, upto=1), fatal(UNAUTHENTIC))

    def test_a_wrong_password_counts_stored_chunks_until_a_reference_ends_the_run(self):
        machine = self.restoring()
        plains = self.chain(machine, (0, 1), passwords=(PASSWORD, PASSWORD))
        machine.write("password", b"wrong")
        self.expect(self.verify(machine, "g1.vrnx", "--password-file", "password"), 1,
                    verifying_line("g1.vrnx", COUNT, SIZE) + "  thin image: chain continues with g0.vrnx\n"
                    "\n  chunk 0 (disk offset 0): AUTHENTICATION FAILED (corrupt or tampered)\n"
                    "\n  chunk 1 (disk offset 4096): AUTHENTICATION FAILED (corrupt or tampered)\n", fatal(UNAUTHENTIC))
        self.expect(self.restore(machine, "g1.vrnx", "--password-file", "password"), 1,
                    restoring_line("g1.vrnx", 2, COUNT, SIZE),
                    "\nFATAL: chunk 0 failed authentication (corrupt/tampered image) - restore aborted, target disk"
                    " left partially written.\n")
        self.assertEqual(len(plains), 2)
        self.expect_disk(machine, 2, pattern(SIZE, "target"))

    def test_a_wrong_password_of_a_base_goes_unnoticed_where_nothing_refers_to_it(self):
        machine = self.work()
        self.chain(machine, range(COUNT), passwords=(PASSWORD,))
        machine.write("password", b"wrong")
        self.expect_good(machine, "g1.vrnx", "g0.vrnx", "--password-file", "password")


if __name__ == "__main__":
    suite.main()
