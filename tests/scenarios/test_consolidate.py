"""consolidate: which chain becomes which file byte for byte, what is sealed and unsealed on the way, in which order it
is written, and what is refused before there is an output. What the failure of each call leaves is told by its sweep."""

import os
import shutil

import suite
from consolidate_runs import (ALREADY_THERE, BAD_HASH, BAD_TAG, NO_PATHS, SEALED_INPUT, UNREADABLE, consolidate_text,
                              folded_text, plain_full_image, unfinished_image, verified_text)
from console import fatal, meter_run
from image import (Image, ImageBuilder, build_image, derive_key, digest_of, is_accepted, read_header, read_table,
                   unseal)
from machine import ACCESS_WRITE, pattern

CHUNK = 4096
SIZE = 5 * CHUNK - 1024  # five chunks, the last one short
PASSWORD = b"correct horse"


def change(plain, *chunks, seed="changed"):
    """The disk with other bytes in these chunks."""
    changed = bytearray(plain)
    for index in chunks:
        end = min((index + 1) * CHUNK, len(plain))
        changed[index * CHUNK:end] = pattern(end - index * CHUNK, f"{seed} {index}")
    return bytes(changed)


class Consolidate(suite.Scenario):
    def prepared(self):
        """A machine with a password file and nothing else that matters here."""
        machine = self.machine(default=False)
        machine.add_disk(0, pattern(4096, "system"))
        machine.system_volume([(0, 512, 512)])
        machine.write("password", PASSWORD + b"\r\n")
        return machine

    def full(self, machine, name="a.vrnx", plain=None, **options):
        plain = pattern(SIZE, "disk") if plain is None else plain
        return plain, build_image(machine.path(name), plain, **{"chunk_size": CHUNK, **options})

    def chain(self, machine, sealed=(False, False, False), **options):
        """a.vrnx (full), b.vrnx over it (chunks 1 and 4 changed), c.vrnx over that (chunks 1 and 2 changed); gives the
        disk that c.vrnx stands for."""
        plain = pattern(SIZE, "disk")
        for place, name in enumerate(("a.vrnx", "b.vrnx", "c.vrnx")):
            if place:
                plain = change(plain, *((1, 4) if place == 1 else (1, 2)), seed=name)
            base = machine.path(("a.vrnx", "b.vrnx")[place - 1]) if place else None
            build_image(machine.path(name), plain, chunk_size=CHUNK, base=base, seed=name,
                        password=PASSWORD if sealed[place] else None, **options)
        return plain

    def consolidate(self, machine, *options, path="a.vrnx", out="out.vrnx"):
        return machine.run("consolidate", "--in", path, "--out", out, *options)

    def expect_folded(self, machine, plain, *options, path="c.vrnx", out="out.vrnx", chunk_size=CHUNK):
        """A good run: its whole text, its inputs as they were, and an image that stands for the disk by itself."""
        before = {name: machine.read(name) for name in machine.files() if name != "password"}
        result = self.expect(self.consolidate(machine, *options, path=path, out=out), 0,
                             consolidate_text(out, len(plain), chunk_size))
        self.assertEqual({name for name in machine.files() if name != "password"}, {*before, out})
        for name, content in before.items():
            self.expect_file(machine, name, content)
        self.expect_good_image(machine, out, plain, PASSWORD)
        return result

    def sealed_chunks(self, machine, name):
        """The plain chunks of an image as its own key opens them, one by one."""
        header, records = read_table(machine.path(name))
        key = derive_key(PASSWORD, header.salt, header.kdf_iterations)
        opened = Image(machine.path(name), PASSWORD)
        return [unseal(key, record.nonce, record.tag, opened.stored_bytes(index))
                for index, record in enumerate(records)]


class FullInput(Consolidate):
    def test_a_plain_image_without_an_epoch_comes_out_byte_for_byte(self):
        machine = self.prepared()
        plain, builder = self.full(machine)
        self.expect(self.consolidate(machine), 0,
                    "\r   21.05%  0 / 0 MiB  (0.0 MiB/s)   \r  100.00%  0 / 0 MiB  (0.0 MiB/s)   \n"
                    "Consolidated: out.vrnx (self-contained full image, verifying...)\n"
                    "Verifying out.vrnx  (5 chunks, 0.00 GiB source disk)\n"
                    "\r   21.05%  0 / 0 MiB  (0.0 MiB/s)   \r  100.00%  0 / 0 MiB  (0.0 MiB/s)   \n"
                    "Verify OK - all 5 chunks match their recorded hash.\n")
        self.expect_file(machine, "out.vrnx", builder.to_bytes())
        self.assertEqual(digest_of(machine.path("out.vrnx")), digest_of(machine.path("a.vrnx")))
        self.assertEqual(machine.files(), ["a.vrnx", "out.vrnx", "password"])

    def test_an_epoch_is_the_only_thing_that_goes(self):
        machine = self.prepared()
        _, builder = self.full(machine, epoch=0xA1B2C3D4E5F607)
        self.assertEqual(self.consolidate(machine).status, 0)
        expected = bytearray(builder.to_bytes())
        self.assertEqual(bytes(expected[37:44]), bytes.fromhex("07f6e5d4c3b2a1"))
        expected[37:44] = bytes(7)
        self.expect_file(machine, "out.vrnx", bytes(expected))

    def test_what_a_reader_does_not_look_at_does_not_come_along(self):
        machine = self.prepared()
        builder = ImageBuilder(pattern(SIZE, "disk"), chunk_size=CHUNK)
        builder.header.salt = b"sixteen bytes of"
        builder.tail = b"left behind by somebody" * 100
        builder.write(machine.path("a.vrnx"))
        self.assertEqual(self.consolidate(machine).status, 0)
        self.expect_file(machine, "out.vrnx", plain_full_image(pattern(SIZE, "disk"), CHUNK))

    def test_all_sizes_of_disks_chunks_and_sectors(self):
        for size, chunk, sector in ((512, 512, 512), (1, 4096, 4096), (4096, 4096, 512), (4097, 4096, 1024),
                                    (8192, 4096, 4096), (65536, 4096, 2048), (33 * 512, 512, 512),
                                    (64 * 512 + 1, 512, 512), (300000, 65536, 8192)):
            machine = self.prepared()
            plain = pattern(size, "disk")
            self.full(machine, plain=plain, chunk_size=chunk, sector_size=sector)
            self.expect_folded(machine, plain, path="a.vrnx", chunk_size=chunk)
            self.expect_file(machine, "out.vrnx", plain_full_image(plain, chunk, sector))


class Chains(Consolidate):
    def test_every_image_of_a_chain_can_be_folded_and_the_chain_stays(self):
        machine = self.prepared()
        first = pattern(SIZE, "disk")
        plain = self.chain(machine, epoch=0x1234)
        os.mkdir(machine.path("images"))
        for name in ("a.vrnx", "b.vrnx", "c.vrnx"):
            shutil.move(machine.path(name), machine.path(os.path.join("images", name)))
        for name, disk in (("a", first), ("b", change(first, 1, 4, seed="b.vrnx")), ("c", plain)):
            for out in (f"{name}2.vrnx", f"images/{name}2.vrnx"):
                self.expect(self.consolidate(machine, path=f"images/{name}.vrnx", out=out), 0,
                            consolidate_text(out, SIZE, CHUNK))
                self.expect_file(machine, out, plain_full_image(disk, CHUNK))
            self.expect_good_image(machine, f"images/{name}.vrnx", disk)

    def test_the_sector_size_is_that_of_the_top(self):
        machine = self.prepared()
        plain, _ = self.full(machine, sector_size=512)
        build_image(machine.path("b.vrnx"), change(plain, 0), chunk_size=CHUNK, sector_size=2048,
                    base=machine.path("a.vrnx"))
        self.expect_folded(machine, change(plain, 0), path="b.vrnx")
        self.assertEqual(read_header(machine.path("out.vrnx")).sector_size, 2048)


class Sealing(Consolidate):
    WITH_PASSWORD = ("--password-file", "password")
    SEALED = ("--password-file", "password", "--encrypt")

    def expect_fresh_seal(self, machine, plain, *inputs):
        """Every chunk opens under a key of its own salt, and neither salt nor nonce nor tag was seen before."""
        header, records = read_table(machine.path("out.vrnx"))
        self.assertEqual((header.encrypted, header.kdf_iterations, header.epoch), (1, 200000, 0))
        self.assertEqual(b"".join(self.sealed_chunks(machine, "out.vrnx")), plain)
        self.assertEqual(len({record.nonce for record in records}), len(records))
        for name in inputs:
            before, older = read_table(machine.path(name))
            self.assertNotEqual(header.salt, before.salt)
            self.assertEqual({record.nonce for record in records} & {record.nonce for record in older}, set())
            self.assertEqual({record.tag for record in records} & {record.tag for record in older}, set())

    def test_whatever_the_input_the_output_is_sealed_afresh(self):
        for iterations in (None, 100000, 150001, 300000):
            machine = self.prepared()
            plain, _ = self.full(machine, password=iterations and PASSWORD, iterations=iterations)
            with self.subTest(iterations=iterations):
                self.expect_folded(machine, plain, *self.SEALED, path="a.vrnx")
                self.expect_fresh_seal(machine, plain, "a.vrnx")
        for sealed in ((False, False, False), (True, False, True), (False, True, False)):
            machine = self.prepared()
            plain = self.chain(machine, sealed)
            with self.subTest(sealed=sealed):
                self.expect_folded(machine, plain, *self.SEALED)
                self.expect_fresh_seal(machine, plain, "a.vrnx", "b.vrnx", "c.vrnx")

    def test_mixed_chains_are_unsealed_and_verified_without_a_password(self):
        for sealed in ((True, False, False), (False, True, False), (False, False, True), (True, True, True)):
            machine = self.prepared()
            plain = self.chain(machine, sealed)
            with self.subTest(sealed=sealed):
                result = self.expect_folded(machine, plain, *self.WITH_PASSWORD)
                self.expect_file(machine, "out.vrnx", plain_full_image(plain, CHUNK))
                self.assertEqual(len(result.calls("BCryptDeriveKeyPBKDF2")), sum(sealed))

    def test_each_sealed_image_the_output_and_the_verification_derive_on_their_own(self):
        machine = self.prepared()
        plain = self.chain(machine, (True, False, True))
        result = self.expect_folded(machine, plain, *self.SEALED)
        salts = [read_header(machine.path(name)).salt.hex() for name in ("c.vrnx", "a.vrnx", "out.vrnx", "out.vrnx")]
        self.assertEqual([(line["salt"], line["iterations"], line["length"])
                          for line in result.calls("BCryptDeriveKeyPBKDF2")],
                         list(zip(salts, [100000, 100000, 200000, 200000], [32] * 4)))
        # The output is created behind all keys but that of the verification.
        created = next(place for place, line in enumerate(result.log)
                       if line["call"] == "CreateFileW" and line["path"] == "out.vrnx")
        self.assertEqual([line["call"] for line in result.log[:created]].count("BCryptGenerateSymmetricKey"), 3)

    def test_a_password_for_a_plain_chain_is_not_even_read(self):
        machine = self.prepared()
        plain = self.chain(machine)
        self.expect_folded(machine, plain, "--password-file", "missing")


class Writing(Consolidate):
    def test_chunks_are_written_in_one_pass_and_the_start_at_the_end(self):
        machine = self.prepared()
        self.chain(machine)
        result = self.consolidate(machine, path="c.vrnx")
        start = 64 + 5 * 72
        self.assertEqual([(line["offset"], line["length"]) for line in result.calls("WriteFile")],
                         [(start + index * CHUNK, CHUNK) for index in range(4)] + [(start + 4 * CHUNK, 3072)] +
                         [(0, 64), (64, 360)])
        self.assertEqual([line["offset"] for line in result.calls("SetFilePointerEx", path="out.vrnx")], [start, 0])
        end = max(place for place, line in enumerate(result.log)
                  if line["call"] == "WriteFile" and line["length"] == 3072)
        steps = [(line["call"], line.get("path")) for line in result.log[end + 1:end + 9]]
        self.assertEqual(steps, [("GetTickCount64", None), ("SetFilePointerEx", "out.vrnx"), ("WriteFile", "out.vrnx"),
                                 ("WriteFile", "out.vrnx"), ("CloseHandle", "out.vrnx"), ("CloseHandle", "c.vrnx"),
                                 ("CreateFileW", "out.vrnx"), ("ReadFile", "out.vrnx")])
        # The output is created new and for this run alone, behind the whole opening of the chain.
        opened = [(line["path"], line["access"], line["share"], line["disposition"], line["flags"])
                  for line in result.calls("CreateFileW")]
        self.assertEqual(opened, [(f"{name}.vrnx", "0x80000000", "0x00000001", 3, "0x00000080") for name in "cba"]
                         + [("out.vrnx", ACCESS_WRITE, "0x00000000", 1, "0x00000080"),
                            ("out.vrnx", "0x80000000", "0x00000001", 3, "0x00000080")])
        # The handles of bases stay open, and nothing is renamed or deleted.
        self.assertEqual([line["path"] for line in result.calls("CloseHandle")], ["out.vrnx", "c.vrnx", "out.vrnx"])
        self.assertEqual(result.calls("MoveFileExW"), [])
        self.assertEqual(machine.files(), ["a.vrnx", "b.vrnx", "c.vrnx", "out.vrnx", "password"])

    def test_each_chunk_is_read_once_and_hashed_once_at_each_level_that_it_rises_through(self):
        machine = self.prepared()
        self.chain(machine)
        result = self.consolidate(machine, path="c.vrnx")
        created = next(place for place, line in enumerate(result.log)
                       if line["call"] == "CreateFileW" and line["path"] == "out.vrnx")
        closed = next(place for place, line in enumerate(result.log) if line["call"] == "CloseHandle")
        fold = result.log[created:closed]
        # Chunks 0 and 3 lie in a.vrnx, 1 and 2 in c.vrnx, 4 in b.vrnx.
        self.assertEqual([(line["path"], line["length"]) for line in fold if line["call"] == "ReadFile"],
                         [("a.vrnx", CHUNK), ("c.vrnx", CHUNK), ("c.vrnx", CHUNK), ("a.vrnx", CHUNK), ("b.vrnx", 3072)])
        self.assertEqual([line["length"] for line in fold if line["call"] == "BCryptHashData"],
                         [CHUNK] * (3 + 1 + 1 + 3) + [3072] * 2)


class Refusals(Consolidate):
    def expect_nothing_done(self, machine, result, *files):
        self.assertEqual(result.calls("CreateFileW"), [])
        self.assertEqual(machine.files(), sorted([*files, "password"]))

    def test_a_path_of_260_bytes_is_too_long_and_one_of_259_is_not(self):
        machine = self.prepared()
        plain, _ = self.full(machine)
        room = 259 - len(machine.absolute(""))
        self.expect(self.consolidate(machine, out="x" * (room + 1)), 1, "", fatal(NO_PATHS))
        self.expect(self.consolidate(machine, path="x" * (room + 1)), 1, "", fatal(NO_PATHS))
        self.expect(self.consolidate(machine, out="x" * room), 0, consolidate_text("x" * room, SIZE, CHUNK))
        self.expect_file(machine, "x" * room, plain_full_image(plain, CHUNK))

    def test_the_same_file_in_any_form_is_refused(self):
        machine = self.prepared()
        _, builder = self.full(machine)
        for path, out in (("a.vrnx", "a.vrnx"), ("a.vrnx", "A.VRNX"), ("A.vrnx", "a.VRNX"), ("a.vrnx", "./a.vrnx"),
                          ("a.vrnx", machine.absolute("a.vrnx")), (machine.absolute("A.VRNX"), "a.vrnx"),
                          ("folder/../a.vrnx", "a.vrnx"), ("missing", "MISSING")):
            result = self.expect(self.consolidate(machine, path=path, out=out), 1, "",
                                 fatal("--out must differ from --in"))
            self.assertEqual(result.sequence(), ["_fullpath", "_fullpath", "exit"])
            self.expect_nothing_done(machine, result, "a.vrnx")
        self.expect_file(machine, "a.vrnx", builder.to_bytes())

    def test_an_existing_output_is_refused_before_the_input_is_opened(self):
        for content, folder in ((b"not an image", False), (None, False), (None, True)):
            machine = self.prepared()
            if content is not None:
                machine.write("a.vrnx", content)
            if folder:
                os.mkdir(machine.path("out.vrnx"))
            else:
                machine.write("out.vrnx", b"kept")
            with self.subTest(content=content, folder=folder):
                result = self.expect(self.consolidate(machine, "--encrypt"), 1, "", fatal(ALREADY_THERE))
                self.expect_nothing_done(machine, result, "out.vrnx", *(["a.vrnx"] if content else []))
        self.assertTrue(os.path.isdir(machine.path("out.vrnx")))

    def test_the_resolved_path_of_the_output_is_tested(self):
        machine = self.prepared()
        self.full(machine)
        result = self.consolidate(machine, out="./out.vrnx")
        resolved = [line["result"] for line in result.calls("_fullpath")]
        self.assertEqual(resolved, [machine.absolute("a.vrnx"), machine.absolute("out.vrnx")])
        self.assertEqual(result.calls("GetFileAttributesA")[0]["path"], resolved[1])

    def test_a_sealed_chain_without_a_password_is_refused_before_encrypt_is_looked_at(self):
        for sealed in ((True, False, False), (False, False, True)):
            for options in ((), ("--encrypt",)):
                machine = self.prepared()
                self.chain(machine, sealed)
                self.expect(self.consolidate(machine, *options, path="c.vrnx"), 1, "", fatal(SEALED_INPUT))
                self.assertFalse(machine.exists("out.vrnx"))

    def test_encrypt_without_a_password_fails_behind_the_opening_and_before_the_output(self):
        machine = self.prepared()
        self.chain(machine)
        result = self.expect(self.consolidate(machine, "--encrypt", path="c.vrnx"), 1, "",
                             fatal("--encrypt needs --password-file"))
        self.assertEqual([line["path"] for line in result.calls("CreateFileW")], ["c.vrnx", "b.vrnx", "a.vrnx"])
        self.assertEqual(result.calls("BCryptGenRandom"), [])
        self.assertEqual(machine.files(), ["a.vrnx", "b.vrnx", "c.vrnx", "password"])

    def test_a_password_file_that_is_missing_or_empty_or_too_large_leaves_no_output(self):
        machine = self.prepared()
        self.full(machine)
        machine.write("empty", b"\r\n")
        machine.write("large", bytes(1048577))
        for name, error in (("missing", fatal("could not open password file", 2)),
                            ("empty", fatal("password file is empty")),
                            ("large", fatal("password file is too large"))):
            result = self.expect(self.consolidate(machine, "--encrypt", "--password-file", name), 1, "", error)
            self.assertEqual([line["length"] for line in result.calls("BCryptGenRandom")], [16])
            self.assertFalse(machine.exists("out.vrnx"))

    def test_a_file_that_appears_at_the_last_moment_is_not_overwritten(self):
        machine = self.prepared()
        self.full(machine)
        machine.add_fault("CreateFileW", path="a.vrnx", touch="out.vrnx")
        self.expect(self.consolidate(machine), 1, "", fatal("could not create output image file", 80))
        self.expect_file(machine, "out.vrnx", b"")


class BrokenChunks(Consolidate):
    def expect_unfinished(self, machine, plain, written, path="c.vrnx"):
        """What a broken run leaves: chunks behind a start of zeros that no reader accepts, and a name that stays
        taken."""
        self.expect_file(machine, "out.vrnx", unfinished_image(plain, CHUNK, written))
        self.assertFalse(is_accepted(machine.path("out.vrnx")))
        message = ("not a recognized Vornix image (bad magic/version)" if written else
                   "could not read image header - file is truncated or not a .vrnx image")
        self.expect(machine.run("verify", "--in", "out.vrnx"), 1, "", fatal(message))
        result = self.expect(self.consolidate(machine, path=path), 1, "", fatal(ALREADY_THERE))
        self.assertEqual(result.calls("CreateFileW"), [])
        self.expect_file(machine, "out.vrnx", unfinished_image(plain, CHUNK, written))
        os.remove(machine.path("out.vrnx"))

    def flip_chunk(self, machine, name, index):
        opened = Image(machine.path(name), PASSWORD)
        machine.flip(name, opened.offsets[index] + 100)

    def test_a_chunk_that_is_not_right_ends_the_run_and_leaves_no_image(self):
        """What the next run is refused for, until somebody removes it."""
        flip = self.flip_chunk
        for case, sealed, damage, index, message in (
                ("of a base", (), lambda machine: flip(machine, "a.vrnx", 3), 3, BAD_HASH),
                ("the first", (), lambda machine: flip(machine, "a.vrnx", 0), 0, BAD_HASH),
                ("of a sealed base", (True,), lambda machine: flip(machine, "a.vrnx", 3), 3, BAD_TAG),
                ("the hash of a reference", (), lambda machine: machine.flip("c.vrnx", 64 + 3 * 72 + 12), 3, BAD_HASH),
                ("the hash of a sealed chunk", (False, False, True),
                 lambda machine: machine.flip("c.vrnx", 64 + 1 * 72 + 12), 1, BAD_HASH),
                ("the password", (False, False, True), lambda machine: machine.write("password", b"wrong"), 1, BAD_TAG),
                ("cut off while it is read", (), lambda machine: machine.add_fault(
                    "ReadFile", path="a.vrnx", skip=3, transferred=CHUNK - 1), 3, UNREADABLE)):
            machine = self.prepared()
            plain = self.chain(machine, (*sealed, *[False] * (3 - len(sealed))))
            damage(machine)
            with self.subTest(case):
                self.expect(self.consolidate(machine, "--password-file", "password", path="c.vrnx"), 1,
                            meter_run(SIZE, CHUNK, upto=index), fatal(message))
                machine.clear_faults()
                self.expect_unfinished(machine, plain, index * CHUNK)
        self.expect_folded(machine, plain)


class ClosingVerification(Consolidate):
    """The output is complete when it is read back; what is wrong with it is told, and it stays where it lies."""

    def test_a_chunk_that_reads_back_wrongly_fails_the_run(self):
        machine = self.prepared()
        plain = self.chain(machine)
        machine.add_fault("ReadFile", path="out.vrnx", skip=3, flip=5)
        self.expect(self.consolidate(machine, path="c.vrnx"), 1,
                    folded_text("out.vrnx", SIZE, CHUNK) + verified_text("out.vrnx", SIZE, CHUNK, upto=1)
                    + "\n  chunk 1 (disk offset 4096): HASH MISMATCH\n"
                    "\r  100.00%  0 / 0 MiB  (0.0 MiB/s)   \n",
                    "Verify FAILED - 1 of 5 chunks did not match. Do not trust this image for restore.\n")
        self.expect_file(machine, "out.vrnx", plain_full_image(plain, CHUNK))


if __name__ == "__main__":
    suite.main()
