"""Sealed images: how a capture seals, what each of the three readers checks, and what each says of which damage."""

import json
import os
import struct

import suite
from console import (NO_TRACKER, USAGE, capture_text, fatal, meter, meter_run, restore_text, restoring_line,
                     source_line, verify_failed, verify_text, verifying_line)
from image import Image, ImageBuilder, build_image, derive_key, is_accepted, read_header, read_table
from machine import pattern
from sealing import (CHUNK_MISMATCH, CHUNK_UNAUTHENTIC, NEEDS_PASSWORD, PASSWORD, blocks, consolidate_text,
                     restore_unauthentic, verify_mismatch, verify_unauthentic)

SIZE = 10 * 4096 - 1024  # ten chunks of 4096, the last one short
MIB4 = 0x400000
TARGET = r"\\.\PhysicalDrive2"
FIRST_METER = "\r   10.26%  0 / 0 MiB  (0.0 MiB/s)   "
LAST_METER = "\r  100.00%  0 / 0 MiB  (0.0 MiB/s)   "
ENCRYPT = ("--encrypt", "--password-file", "password")


class Sealed(suite.Scenario):
    def sealed(self, size=SIZE, *, target=None, sector_size=512, **options):
        """A fresh machine with a good sealed a.vrnx, its password file, and a target disk 2 of the image's size."""
        machine = self.machine(default=False)
        machine.add_disk(0, pattern(65536, "system"))
        machine.system_volume([(0, 4096, 8192)])
        plain = options.pop("plain", None)
        plain = pattern(size, "image") if plain is None else plain
        machine.add_disk(2, pattern(len(plain), "target") if target is None else target, sector_size=sector_size)
        machine.write("password", PASSWORD + b"\n")
        machine.write("wrong", PASSWORD + b"!\n")
        builder = build_image(machine.path("a.vrnx"), plain, password=PASSWORD, **options)
        return machine, builder

    def verify(self, machine, name="a.vrnx", password="password"):
        return machine.run("verify", "--in", name, "--password-file", password)

    def restore(self, machine, *options, name="a.vrnx", password="password"):
        return machine.run("restore", "--in", name, "--disk", "2", "--confirm", "YES", "--password-file", password,
                           *options)

    def consolidate(self, machine, *options, name="a.vrnx", out="out.vrnx", password="password"):
        return machine.run("consolidate", "--in", name, "--out", out, "--password-file", password, *options)

    def capture(self, machine, out="a.vrnx", *options):
        return machine.run("capture", "--disk", "1", "--out", out, *ENCRYPT, *options)

    def source(self, contents):
        """A fresh machine with a source disk 1 and the password file."""
        machine = self.machine(source=contents, target=bytes(512))
        machine.write("password", PASSWORD + b"\n")
        return machine

    def captured(self, contents):
        """The same with a sealed a.vrnx captured from it."""
        machine = self.source(contents)
        size = contents if isinstance(contents, int) else len(contents)
        result = self.expect(self.capture(machine), 0, capture_text(1, size, "a.vrnx"))
        return machine, result


class Capture(Sealed):
    def test_a_disk_becomes_a_sealed_image(self):
        machine, _ = self.captured(pattern(9 * 1048576 + 512, "source"))
        self.assertEqual(machine.files(), ["a.vrnx", "password"])
        self.expect_good_image(machine, "a.vrnx", pattern(9 * 1048576 + 512, "source"), PASSWORD)

    def test_the_console_shows_no_difference_to_a_plain_capture(self):
        machine = self.source(pattern(MIB4 + 512, "source"))
        self.expect(self.capture(machine), 0,
                    "Source: PhysicalDrive1  Size: 0.00 GiB  SectorSize: 512  Chunks: 2 (4194304 bytes each)\n"
                    "Change tracker: not available for this disk (Wendrel not loaded/attached)"
                    " - image carries no epoch.\n"
                    "\r   99.99%  4 / 4 MiB  (4.0 MiB/s)   \r  100.00%  4 / 4 MiB  (2.0 MiB/s)   \n"
                    "Capture complete: a.vrnx\n")

    def test_the_header_says_how_the_key_is_made(self):
        machine, result = self.captured(pattern(8192, "source"))
        header = read_header(machine.path("a.vrnx"))
        self.assertEqual((header.version, header.encrypted, header.kdf_iterations, header.epoch), (2, 1, 200000, 0))
        self.assertNotEqual(header.salt, bytes(16))
        derivation, = result.calls("BCryptDeriveKeyPBKDF2")
        self.assertEqual((derivation["salt"], derivation["iterations"], derivation["length"]),
                         (header.salt.hex(), 200000, 32))

    def test_a_sealed_image_is_as_long_as_a_plain_one(self):
        size = MIB4 + 1536
        machine, _ = self.captured(pattern(size, "source"))
        self.assertEqual(os.path.getsize(machine.path("a.vrnx")), 64 + 2 * 72 + size)
        _, records = read_table(machine.path("a.vrnx"))
        self.assertEqual([(record.disk_offset, record.stored_length) for record in records], [(0, MIB4), (MIB4, 1536)])

    def test_nothing_of_the_disk_lies_open_in_the_image(self):
        size = MIB4 + 512
        machine, _ = self.captured(pattern(size, "source"))
        stored = machine.read("a.vrnx")[64 + 2 * 72:]
        self.assertEqual(blocks(stored) & blocks(pattern(size, "source")), set())

    def test_the_short_last_chunk_is_sealed_at_its_own_length(self):
        machine, result = self.captured(pattern(MIB4 + 512, "source"))
        self.assertEqual([line["length"] for line in result.calls("BCryptEncrypt")], [MIB4, 512])
        self.assertEqual([line["length"] for line in result.calls("BCryptHashData")], [MIB4, 512])
        self.expect_good_image(machine, "a.vrnx", pattern(MIB4 + 512, "source"), PASSWORD)

    def test_a_disk_of_one_sector_is_one_sealed_chunk(self):
        machine, _ = self.captured(pattern(512, "source"))
        self.expect_good_image(machine, "a.vrnx", pattern(512, "source"), PASSWORD)

    def test_a_disk_of_length_0_gives_a_header_with_salt_and_iterations(self):
        machine = self.source(b"")
        self.leave_unjudged(machine, "no reader takes an image of a disk without bytes")
        self.expect(self.capture(machine), 0, source_line(1, 0) + NO_TRACKER + "\nCapture complete: a.vrnx\n")
        header = read_header(machine.path("a.vrnx"))
        self.assertEqual((header.encrypted, header.kdf_iterations, header.chunk_count), (1, 200000, 0))
        self.assertEqual(len(machine.read("a.vrnx")), 64)

    def test_the_sector_size_of_the_disk_is_the_alignment_of_both_buffers(self):
        machine = self.machine(source=pattern(5 * 4096, "source"), target=bytes(4096), sector_size=4096)
        machine.write("password", PASSWORD)
        result = self.expect(self.capture(machine), 0, capture_text(1, 5 * 4096, "a.vrnx", sector_size=4096))
        self.assertEqual([(line["size"], line["alignment"]) for line in result.calls("_aligned_malloc")],
                         [(MIB4, 4096)] * 2)
        self.expect_good_image(machine, "a.vrnx", pattern(5 * 4096, "source"), PASSWORD)

    def test_the_calls_of_a_sealed_run_stand_in_their_order(self):
        machine, result = self.captured(pattern(MIB4 + 512, "source"))
        steps = [(line["call"], line.get("algorithm") or line.get("property") or line.get("length"))
                 for line in result.log if line["call"].startswith("BCrypt")]
        opened, closed = "BCryptOpenAlgorithmProvider", ("BCryptCloseAlgorithmProvider", None)
        chunks = []
        for length in (MIB4, 512):
            chunks += [(opened, "SHA256"), ("BCryptGetProperty", "ObjectLength"), ("BCryptCreateHash", None),
                       ("BCryptHashData", length), ("BCryptFinishHash", None), ("BCryptDestroyHash", None), closed,
                       (opened, "RNG"), ("BCryptGenRandom", 12), closed, ("BCryptEncrypt", length)]
        self.assertEqual(steps, [
            (opened, "RNG"), ("BCryptGenRandom", 16), closed,
            (opened, "SHA256"), ("BCryptDeriveKeyPBKDF2", 32), closed,
            (opened, "AES"), ("BCryptSetProperty", "ChainingMode"), ("BCryptGetProperty", "ObjectLength"),
            ("BCryptGenerateSymmetricKey", 32)] + chunks + [("BCryptDestroyKey", None), closed])

    def test_only_the_derivation_asks_for_a_keyed_hash(self):
        _, result = self.captured(pattern(512, "source"))
        self.assertEqual([(line["algorithm"], line["flags"]) for line in result.calls("BCryptOpenAlgorithmProvider")],
                         [("RNG", "0x00000000"), ("SHA256", "0x00000008"), ("AES", "0x00000000"),
                          ("SHA256", "0x00000000"), ("RNG", "0x00000000")])
        mode, = result.calls("BCryptSetProperty")
        self.assertEqual((mode["property"], mode["length"]), ("ChainingMode", 32))

    def test_each_chunk_is_read_hashed_given_a_nonce_sealed_and_written(self):
        _, result = self.captured(pattern(MIB4 + 512, "source"))
        names = ("ReadFile", "BCryptHashData", "BCryptGenRandom", "BCryptEncrypt", "WriteFile")
        self.assertEqual(result.sequence(*names), ["BCryptGenRandom"] + list(names) * 2 + ["WriteFile"] * 2)

    def test_the_nonce_in_the_table_is_the_one_that_sealed(self):
        machine, result = self.captured(pattern(2 * MIB4, "source"))
        _, records = read_table(machine.path("a.vrnx"))
        self.assertEqual([line["nonce"] for line in result.calls("BCryptEncrypt")],
                         [record.nonce.hex() for record in records])

    def test_the_key_is_released_behind_the_publication_key_before_provider(self):
        _, result = self.captured(pattern(512, "source"))
        self.assertEqual(result.sequence()[-4:],
                         ["MoveFileExW", "BCryptDestroyKey", "BCryptCloseAlgorithmProvider", "exit"])

    def test_the_password_is_read_before_the_output_is_looked_for(self):
        machine = self.source(pattern(512, "source"))
        machine.write("a.vrnx", b"somebody's file")
        result = self.expect(self.capture(machine), 1, source_line(1, 512) + NO_TRACKER,
                             fatal("refusing to overwrite an existing output image"))
        self.assertEqual(result.sequence("BCryptGenRandom", "BCryptDeriveKeyPBKDF2", "GetFileAttributesA"),
                         ["BCryptGenRandom", "BCryptDeriveKeyPBKDF2", "GetFileAttributesA"])
        self.expect_file(machine, "a.vrnx", b"somebody's file")

    def test_encrypt_without_a_password_file_is_the_usage(self):
        machine = self.source(pattern(512, "source"))
        for options in (["--encrypt"], ["--encrypt", "--password-file"], ["--password-file", "", "--encrypt"]):
            result = self.expect(machine.run("capture", "--disk", "1", "--out", "a.vrnx", *options), 1, USAGE)
            self.assertEqual(result.sequence(), ["exit"])
        self.assertEqual(machine.files(), ["password"])

    def test_a_password_file_without_encrypt_makes_a_plain_image(self):
        machine = self.source(pattern(512, "source"))
        for out, password in (("a.vrnx", "password"), ("b.vrnx", "missing")):
            result = machine.run("capture", "--disk", "1", "--out", out, "--password-file", password)
            self.expect(result, 0, capture_text(1, 512, out))
            self.assertEqual(result.calls("BCryptGenRandom") + result.calls("BCryptDeriveKeyPBKDF2"), [])
            self.expect_good_image(machine, out, pattern(512, "source"))

    def test_the_sealed_image_goes_back_onto_a_disk(self):
        size = MIB4 + 4096
        machine, _ = self.captured(pattern(size, "source"))
        machine.add_disk(2, pattern(size, "target"))
        self.expect(self.restore(machine), 0, restore_text("a.vrnx", 2, size, MIB4))
        self.expect_disk(machine, 2, pattern(size, "source"))

    def test_neither_password_nor_key_appears_anywhere(self):
        machine, result = self.captured(pattern(MIB4 + 512, "source"))
        key = derive_key(PASSWORD, read_header(machine.path("a.vrnx")).salt, 200000)
        image = machine.read("a.vrnx")
        seen = result.stdout + result.stderr + json.dumps(result.log).encode()
        for secret in (PASSWORD, PASSWORD.hex().encode(), key, key.hex().encode()):
            self.assertNotIn(secret, seen)
            self.assertNotIn(secret, image)


class Freshness(Sealed):
    def expect_nothing_in_common(self, machine, first, second):
        """Two sealed images of one disk: every hash is equal, and nothing else that is stored."""
        (header1, table1), (header2, table2) = read_table(machine.path(first)), read_table(machine.path(second))
        self.assertEqual([record.hash for record in table1], [record.hash for record in table2])
        self.assertNotEqual(header1.salt, header2.salt)
        nonces = [record.nonce for record in table1 + table2]
        self.assertEqual(len(set(nonces)), len(nonces))
        tags = [record.tag for record in table1 + table2]
        self.assertEqual(len(set(tags)), len(tags))
        start = 64 + 72 * len(table1)
        self.assertEqual(blocks(machine.read(first)[start:]) & blocks(machine.read(second)[start:]), set())

    def test_two_captures_of_one_disk_share_their_hashes_and_nothing_else(self):
        size = MIB4 + 8192
        machine, _ = self.captured(pattern(size, "source"))
        self.expect(self.capture(machine, "b.vrnx"), 0, capture_text(1, size, "b.vrnx"))
        self.expect_nothing_in_common(machine, "a.vrnx", "b.vrnx")
        self.expect_good_image(machine, "b.vrnx", pattern(size, "source"), PASSWORD)

    def test_equal_chunks_are_stored_in_different_forms_under_equal_hashes(self):
        machine, _ = self.captured(3 * MIB4)  # all zero
        _, records = read_table(machine.path("a.vrnx"))
        self.assertEqual(len({record.hash for record in records}), 1)
        self.assertEqual(len({record.nonce for record in records}), 3)
        self.assertEqual(len({record.tag for record in records}), 3)
        image = Image(machine.path("a.vrnx"), PASSWORD)
        forms = [blocks(image.stored_bytes(index)) for index in range(3)]
        # A zero disk shows the bare key stream; a repeat of a block in it would be a repeat of a counter.
        self.assertEqual(len(forms[0] | forms[1] | forms[2]), 3 * MIB4 // 16)
        self.expect_good_image(machine, "a.vrnx", bytes(3 * MIB4), PASSWORD)

    def test_every_nonce_of_an_image_differs_from_every_other(self):
        machine = self.machine(default=False)
        machine.write("password", PASSWORD)
        size = 400 * 512
        build_image(machine.path("a.vrnx"), bytes(size), chunk_size=512)
        result = self.consolidate(machine, "--encrypt")
        self.expect(result, 0, consolidate_text("out.vrnx", size, 512, verify_text("out.vrnx", size, 512)))
        _, records = read_table(machine.path("out.vrnx"))
        self.assertEqual(len({record.nonce for record in records}), 400)
        self.assertEqual(len({record.tag for record in records}), 400)
        # No counter: what a nonce has in its first and its last four bytes occurs but once, too.
        self.assertGreater(len({record.nonce[:4] for record in records}), 395)
        self.assertGreater(len({record.nonce[8:] for record in records}), 395)

    def test_an_image_sealed_anew_shares_nothing_with_the_one_it_came_from(self):
        machine, _ = self.sealed(8 * 4096)
        result = self.consolidate(machine, "--encrypt")
        self.expect(result, 0, consolidate_text("out.vrnx", 8 * 4096, 4096, verify_text("out.vrnx", 8 * 4096, 4096)))
        self.expect_nothing_in_common(machine, "a.vrnx", "out.vrnx")

    def test_a_chunk_copied_from_a_sealed_base_is_sealed_anew(self):
        size = 2 * MIB4
        machine = self.source(pattern(size, "source"))
        machine.tracker([{"number": 1}])
        self.assertEqual(self.capture(machine).status, 0)
        machine.poke_disk(1, MIB4 + 5, b"changed")
        state = machine.tracker_disk(1)
        state["bitmap"] = "00" * 8 + "01" + "00" * 7
        machine.tracker([state])
        self.expect(self.capture(machine, "b.vrnx", "--base", "a.vrnx"), 0,
                    source_line(1, size) + "Change tracker: disk 1 epoch 2\n"
                    "Incremental mode: base image a.vrnx\n"
                    "  --base: base epoch 1 matches tracker; unchanged chunks will be copied from the base image.\n"
                    + meter_run(size, MIB4) + "\n"
                    "Capture complete: b.vrnx (Read from disk: 1, Copied from base: 1 chunks)\n")
        (_, old), (_, new) = read_table(machine.path("a.vrnx")), read_table(machine.path("b.vrnx"))
        self.assertEqual(old[0].hash, new[0].hash)
        self.assertNotEqual(old[0].nonce, new[0].nonce)
        self.assertNotEqual(old[0].tag, new[0].tag)
        first, second = Image(machine.path("a.vrnx")).stored_bytes(0), Image(machine.path("b.vrnx")).stored_bytes(0)
        self.assertEqual(blocks(first) & blocks(second), set())
        self.expect_good_image(machine, "b.vrnx", machine.disk_bytes(1), PASSWORD)


class Verify(Sealed):
    def test_a_good_sealed_image_is_good(self):
        machine, builder = self.sealed()
        self.expect(self.verify(machine), 0,
                    "Verifying a.vrnx  (10 chunks, 0.00 GiB source disk)\n" + FIRST_METER + LAST_METER + "\n"
                    "Verify OK - all 10 chunks match their recorded hash.\n")
        self.expect_file(machine, "a.vrnx", builder.to_bytes())

    def test_chunks_are_opened_at_their_stored_length_and_hashed_behind_it(self):
        machine, builder = self.sealed(3 * 4096 - 1024)
        result = self.verify(machine)
        self.assertEqual([(line["length"], line["nonce"]) for line in result.calls("BCryptDecrypt")],
                         [(len(data), record.nonce.hex()) for data, record in zip(builder.stored, builder.records)])
        self.assertEqual(result.sequence("ReadFile", "BCryptDecrypt", "BCryptHashData"),
                         ["ReadFile", "ReadFile", "BCryptHashData"]
                         + ["ReadFile", "BCryptDecrypt", "BCryptHashData"] * 3)
        self.assertEqual([line["length"] for line in result.calls("BCryptHashData")], [64 + 3 * 72, 4096, 4096, 3072])

    def test_chunks_are_read_in_sequence_with_no_seek_and_one_buffer(self):
        machine, _ = self.sealed()
        result = self.verify(machine)
        self.assertEqual(result.calls("SetFilePointerEx"), [])
        self.assertEqual([(line["size"], line["alignment"]) for line in result.calls("_aligned_malloc")], [(4096, 64)])

    def test_the_key_is_derived_once_with_what_the_header_says(self):
        machine, builder = self.sealed(iterations=123456)
        result = self.verify(machine)
        derivation, = result.calls("BCryptDeriveKeyPBKDF2")
        self.assertEqual((derivation["salt"], derivation["iterations"], derivation["length"]),
                         (builder.header.salt.hex(), 123456, 32))
        self.assertEqual(len(result.calls("BCryptGenerateSymmetricKey")), 1)

    def test_the_key_is_released_at_the_end(self):
        machine, _ = self.sealed()
        self.assertEqual(self.verify(machine).sequence()[-4:],
                         ["CloseHandle", "BCryptDestroyKey", "BCryptCloseAlgorithmProvider", "exit"])

    def test_a_wrong_password_makes_every_chunk_fail_and_draws_no_meter(self):
        machine, _ = self.sealed()
        self.expect(self.verify(machine, password="wrong"), 1,
                    verifying_line("a.vrnx", 10, SIZE) + "".join(verify_unauthentic(index) for index in range(10))
                    + "\n",
                    "Verify FAILED - 10 of 10 chunks did not match. Do not trust this image for restore.\n")

    def test_a_damaged_chunk_is_told_counted_and_not_hashed(self):
        machine, builder = self.sealed()
        machine.flip("a.vrnx", builder.data_offset(5) + 17)
        result = self.expect(self.verify(machine), 1,
                             "Verifying a.vrnx  (10 chunks, 0.00 GiB source disk)\n" + FIRST_METER +
                             "\n  chunk 5 (disk offset 20480): AUTHENTICATION FAILED (corrupt or tampered)\n"
                             + LAST_METER
                             + "\n",
                             "Verify FAILED - 1 of 10 chunks did not match. Do not trust this image for restore.\n")
        self.assertEqual(len(result.calls("BCryptDecrypt")), 10)
        self.assertEqual(len(result.calls("BCryptHashData")), 1 + 9)

    def test_each_kind_of_damage_lands_in_its_check(self):
        machine, builder = self.sealed()
        record = lambda index: 64 + 72 * index
        damage = [(builder.data_offset(1), 0x01), (builder.data_offset(2) + 4095, 0x80),       # data
                  (record(3) + 44, 0x01), (record(4) + 44 + 11, 0x80),                          # nonce
                  (record(5) + 56, 0x01), (record(6) + 56 + 15, 0x80),                          # tag
                  (record(7) + 12, 0x01), (record(8) + 12 + 31, 0x80)]                          # hash
        for offset, bits in damage:
            machine.patch("a.vrnx", offset, bytes([machine.read("a.vrnx")[offset] ^ bits]))
        self.expect(self.verify(machine), 1,
                    verifying_line("a.vrnx", 10, SIZE) + FIRST_METER
                    + "".join(verify_unauthentic(index) for index in range(1, 7))
                    + verify_mismatch(7) + verify_mismatch(8) + LAST_METER + "\n", verify_failed(8, 10))

    def test_an_unauthentic_first_32nd_or_last_chunk_draws_no_meter(self):
        size = 65 * 512
        machine, builder = self.sealed(size, chunk_size=512)
        for index in (0, 32, 64):
            machine.flip("a.vrnx", builder.data_offset(index))
        self.expect(self.verify(machine), 1,
                    verifying_line("a.vrnx", 65, size)
                    + "".join(verify_unauthentic(index, 512) for index in (0, 32, 64)) + "\n",
                    verify_failed(3, 65))

    def test_a_wrong_hash_there_does_draw_it(self):
        size = 65 * 512
        machine, _ = self.sealed(size, chunk_size=512)
        for index in (0, 32, 64):
            machine.flip("a.vrnx", 64 + 72 * index + 12)
        text = "".join(verify_mismatch(index, 512) + meter((index + 1) * 512, size, place + 1)
                       for place, index in enumerate((0, 32, 64)))
        self.expect(self.verify(machine), 1, verifying_line("a.vrnx", 65, size) + text + "\n", verify_failed(3, 65))

    def test_the_short_last_chunk_is_authenticated_too(self):
        machine, builder = self.sealed()
        machine.flip("a.vrnx", builder.data_offset(9) + 3071)
        self.expect(self.verify(machine), 1,
                    verifying_line("a.vrnx", 10, SIZE) + FIRST_METER + verify_unauthentic(9) + "\n",
                    verify_failed(1, 10))

    def test_a_byte_that_turns_while_it_is_read_is_unauthentic(self):
        machine, _ = self.sealed()
        machine.add_fault("ReadFile", path="a.vrnx", skip=2 + 6, flip=100)
        self.expect(self.verify(machine), 1,
                    verifying_line("a.vrnx", 10, SIZE) + FIRST_METER + verify_unauthentic(6) + LAST_METER + "\n",
                    verify_failed(1, 10))

    def test_a_read_that_fails_is_fatal(self):
        machine, _ = self.sealed()
        machine.add_fault("ReadFile", path="a.vrnx", skip=2 + 4, error=1117)
        self.expect(self.verify(machine), 1, verifying_line("a.vrnx", 10, SIZE) + FIRST_METER,
                    fatal("could not read chunk data - image is truncated", 1117))

    def test_every_negative_status_is_a_failed_authentication(self):
        for status in ("0xC000A002", "0xC0000001", "0x80000000"):
            machine, _ = self.sealed()
            machine.add_fault("BCryptDecrypt", skip=3, status=status)
            self.expect(self.verify(machine), 1,
                        verifying_line("a.vrnx", 10, SIZE) + FIRST_METER + verify_unauthentic(3) + LAST_METER + "\n",
                        verify_failed(1, 10))

    def test_sealed_bytes_that_a_header_calls_plain_do_not_match_their_hashes(self):
        machine, builder = self.sealed(3 * 4096)
        builder.header.encrypted = builder.header.kdf_iterations = 0
        builder.write(machine.path("a.vrnx"))
        result = self.verify(machine)
        self.expect(result, 1, verifying_line("a.vrnx", 3, 3 * 4096) + verify_mismatch(0) + meter(4096, 3 * 4096, 1)
                    + verify_mismatch(1) + verify_mismatch(2) + meter(3 * 4096, 3 * 4096, 2) + "\n",
                    verify_failed(3, 3))

    def test_plain_bytes_that_a_header_calls_sealed_are_unauthentic(self):
        machine, _ = self.sealed()
        builder = ImageBuilder(pattern(3 * 4096, "image"))
        builder.header.encrypted, builder.header.kdf_iterations = 1, 100000
        builder.write(machine.path("a.vrnx"))
        self.expect(self.verify(machine), 1,
                    verifying_line("a.vrnx", 3, 3 * 4096) + "".join(verify_unauthentic(index) for index in range(3))
                    + "\n",
                    verify_failed(3, 3))

    def test_another_salt_or_iteration_count_is_another_key(self):
        for change in ("salt", "kdf_iterations"):
            machine, builder = self.sealed(2 * 4096)
            setattr(builder.header, change, bytes(16) if change == "salt" else 100001)
            builder.write(machine.path("a.vrnx"))
            self.expect(self.verify(machine), 1,
                        verifying_line("a.vrnx", 2, 2 * 4096) + verify_unauthentic(0) + verify_unauthentic(1) + "\n",
                        verify_failed(2, 2))


class Restore(Sealed):
    def begun(self, chunks, size=SIZE):
        return restoring_line("a.vrnx", 2, (size - 1) // 4096 + 1, size) + meter_run(size, 4096, upto=chunks)

    def test_a_sealed_image_goes_back_onto_a_disk(self):
        machine, _ = self.sealed()
        self.expect(self.restore(machine), 0,
                    "Restoring a.vrnx -> PhysicalDrive2 (10 chunks, 0.00 GiB)\n" + FIRST_METER + LAST_METER + "\n"
                    "Restore complete. Run 'diskpart > rescan' (or reboot) before relying on the target disk.\n")
        self.expect_disk(machine, 2, pattern(SIZE, "image"))

    def test_opened_chunks_are_written_from_memory_that_every_sector_size_takes(self):
        # The machine's disks refuse memory that is not aligned to their sectors.
        for sector_size in (512, 4096, 8192, 65536):
            machine, _ = self.sealed(2 * 65536, chunk_size=65536, sector_size=sector_size)
            result = self.expect(self.restore(machine), 0, restore_text("a.vrnx", 2, 2 * 65536, 65536))
            self.expect_disk(machine, 2, pattern(2 * 65536, "image"))
            self.assertEqual([(line["size"], line["alignment"]) for line in result.calls("_aligned_malloc")],
                             [(65536, max(sector_size, 4096))])

    def test_each_chunk_is_opened_before_it_is_written_and_not_hashed(self):
        machine, builder = self.sealed(3 * 4096 - 1024)
        result = self.restore(machine)
        self.assertEqual(result.sequence("BCryptHashData", "BCryptDecrypt", "WriteFile"),
                         ["BCryptHashData"] + ["BCryptDecrypt", "WriteFile"] * 3)
        self.assertEqual([(line["length"], line["nonce"]) for line in result.calls("BCryptDecrypt")],
                         [(len(data), record.nonce.hex()) for data, record in zip(builder.stored, builder.records)])

    def test_the_last_write_is_the_rest_only(self):
        machine, _ = self.sealed()
        self.assertEqual([(line["offset"], line["length"]) for line in self.restore(machine).calls("WriteFile")],
                         [(index * 4096, 4096) for index in range(9)] + [(9 * 4096, 3072)])

    def test_a_wrong_password_leaves_the_target_untouched(self):
        machine, _ = self.sealed()
        result = self.expect(self.restore(machine, password="wrong"), 1, self.begun(0),
                             "\nFATAL: chunk 0 failed authentication (corrupt/tampered image) - restore aborted, "
                             "target disk left partially written.\n")
        self.assertEqual(result.calls("WriteFile"), [])
        self.expect_disk(machine, 2, pattern(SIZE, "target"))

    def test_without_a_password_file_the_target_is_not_opened(self):
        machine, _ = self.sealed()
        result = machine.run("restore", "--in", "a.vrnx", "--disk", "2", "--confirm", "YES")
        self.expect(result, 1, "", fatal(NEEDS_PASSWORD))
        self.assertEqual(result.calls("CreateFileW", path="PhysicalDrive"), [])

    def expect_stopped_at(self, machine, index):
        """The restore ends at this chunk; those before it are on the target, the rest is as it was."""
        result = self.expect(self.restore(machine), 1, self.begun(index), restore_unauthentic(index))
        self.assertEqual(len(result.calls("WriteFile")), index)
        self.expect_disk(machine, 2, pattern(SIZE, "image")[:index * 4096] + pattern(SIZE, "target")[index * 4096:])

    def test_a_flipped_bit_of_the_data_ends_the_run_at_its_chunk(self):
        machine, builder = self.sealed()
        machine.flip("a.vrnx", builder.data_offset(5) + 4095)
        self.expect_stopped_at(machine, 5)

    def test_a_flipped_bit_of_a_nonce_ends_the_run_at_its_chunk(self):
        machine, _ = self.sealed()
        machine.flip("a.vrnx", 64 + 72 * 4 + 44 + 11)
        self.expect_stopped_at(machine, 4)

    def test_a_flipped_bit_of_a_tag_ends_the_run_at_its_chunk(self):
        machine, _ = self.sealed()
        machine.flip("a.vrnx", 64 + 72 * 9 + 56 + 15)
        self.expect_stopped_at(machine, 9)

    def test_a_flipped_bit_of_a_hash_is_not_noticed(self):
        machine, _ = self.sealed()
        for index in range(10):
            machine.flip("a.vrnx", 64 + 72 * index + 12 + index)
        self.expect(self.restore(machine), 0, restore_text("a.vrnx", 2, SIZE, 4096))
        self.expect_disk(machine, 2, pattern(SIZE, "image"))

    def test_a_negative_status_is_a_failed_authentication(self):
        machine, _ = self.sealed()
        machine.add_fault("BCryptDecrypt", skip=3, status="0xC000000D")
        self.expect_stopped_at(machine, 3)

    def test_a_read_that_fails_is_fatal(self):
        machine, _ = self.sealed()
        machine.add_fault("ReadFile", path="a.vrnx", skip=2 + 4, error=1117)
        self.expect(self.restore(machine), 1, self.begun(4),
                    fatal("could not read chunk data from image - restore aborted, target disk left partially written",
                          1117))

    def test_skip_zero_looks_at_the_plain_bytes(self):
        plain = bytes(4096) + pattern(4096, "image") + bytes(4096) + bytes(1021) + b"\x01\x00\x00"
        plain += bytes(-len(plain) % 512)
        machine, _ = self.sealed(plain=plain, target=pattern(len(plain), "target"))
        result = self.expect(self.restore(machine, "--skip-zero"), 0, restore_text("a.vrnx", 2, len(plain), 4096))
        self.assertEqual([line["offset"] for line in result.calls("WriteFile")], [4096, 3 * 4096])
        self.assertEqual(len(result.calls("BCryptDecrypt")), 4)
        target = pattern(len(plain), "target")
        self.expect_disk(machine, 2, target[:4096] + plain[4096:8192] + target[8192:12288] + plain[12288:])

    def test_skip_zero_authenticates_what_it_does_not_write(self):
        machine, builder = self.sealed(plain=bytes(4 * 4096))
        machine.flip("a.vrnx", builder.data_offset(2))
        self.expect(self.restore(machine, "--skip-zero"), 1, self.begun(2, 4 * 4096), restore_unauthentic(2))


class Consolidate(Sealed):
    """The reader of single chunks, which authenticates and then hashes, seen through the command that uses it alone."""

    def good(self, size=SIZE):
        return consolidate_text("out.vrnx", size, 4096, verify_text("out.vrnx", size, 4096))

    def test_a_sealed_image_is_sealed_anew(self):
        machine, builder = self.sealed(iterations=100001)
        self.expect(self.consolidate(machine, "--encrypt"), 0, self.good())
        self.expect_good_image(machine, "out.vrnx", pattern(SIZE, "image"), PASSWORD)
        header, records = read_table(machine.path("out.vrnx"))
        self.assertEqual((header.encrypted, header.kdf_iterations), (1, 200000))
        self.assertNotEqual(header.salt, builder.header.salt)
        self.assertEqual([record.hash for record in records], [record.hash for record in builder.records])
        self.expect_file(machine, "a.vrnx", builder.to_bytes())

    def test_a_sealed_image_is_unsealed_without_encrypt(self):
        machine, _ = self.sealed()
        self.expect(self.consolidate(machine), 0, self.good())
        self.expect_file(machine, "out.vrnx", ImageBuilder(pattern(SIZE, "image")).to_bytes())

    def test_a_plain_image_is_sealed(self):
        machine, _ = self.sealed()
        build_image(machine.path("plain.vrnx"), pattern(SIZE, "image"))
        self.expect(self.consolidate(machine, "--encrypt", name="plain.vrnx"), 0, self.good())
        self.expect_good_image(machine, "out.vrnx", pattern(SIZE, "image"), PASSWORD)

    def test_encrypt_without_a_password_file_is_refused_before_there_is_an_output(self):
        machine, _ = self.sealed()
        build_image(machine.path("plain.vrnx"), pattern(SIZE, "image"))
        result = machine.run("consolidate", "--in", "plain.vrnx", "--out", "out.vrnx", "--encrypt")
        self.expect(result, 1, "", fatal("--encrypt needs --password-file"))
        self.assertEqual(result.calls("BCryptGenRandom"), [])
        self.assertFalse(machine.exists("out.vrnx"))

    def test_each_chunk_is_opened_at_its_plain_length_and_then_hashed(self):
        machine, builder = self.sealed(3 * 4096 - 1024)
        result = self.consolidate(machine)
        opened = [(line["length"], line["nonce"]) for line in result.calls("BCryptDecrypt")]
        self.assertEqual(opened, [(len(data), record.nonce.hex())
                                  for data, record in zip(builder.stored, builder.records)])
        self.assertEqual(result.sequence("BCryptDecrypt", "BCryptHashData", "WriteFile")[:10],
                         ["BCryptHashData"] + ["BCryptDecrypt", "BCryptHashData", "WriteFile"] * 3)

    def expect_stopped_at(self, index, report, damage):
        machine, builder = self.sealed()
        damage(machine, builder)
        result = self.expect(self.consolidate(machine), 1, meter_run(SIZE, 4096, upto=index), report)
        self.assertEqual(len(result.calls("WriteFile")), index)
        self.assertFalse(is_accepted(machine.path("out.vrnx")))
        return result

    def test_a_flipped_bit_of_the_data_is_unauthentic(self):
        self.expect_stopped_at(5, CHUNK_UNAUTHENTIC,
                               lambda machine, builder: machine.flip("a.vrnx", builder.data_offset(5)))

    def test_a_flipped_bit_of_a_nonce_is_unauthentic(self):
        self.expect_stopped_at(4, CHUNK_UNAUTHENTIC, lambda machine, builder: machine.flip("a.vrnx", 64 + 72 * 4 + 44))

    def test_a_flipped_bit_of_a_tag_is_unauthentic(self):
        self.expect_stopped_at(9, CHUNK_UNAUTHENTIC,
                               lambda machine, builder: machine.flip("a.vrnx", 64 + 72 * 9 + 56 + 15))

    def test_a_flipped_bit_of_a_hash_is_a_mismatch(self):
        self.expect_stopped_at(3, CHUNK_MISMATCH,
                               lambda machine, builder: machine.flip("a.vrnx", 64 + 72 * 3 + 12 + 31))

    def test_a_wrong_password_ends_the_run_at_the_first_chunk(self):
        self.expect_stopped_at(0, CHUNK_UNAUTHENTIC, lambda machine, builder: machine.write("password", b"wrong"))

    def test_a_negative_status_is_unauthentic(self):
        self.expect_stopped_at(6, CHUNK_UNAUTHENTIC,
                               lambda machine, builder: machine.add_fault("BCryptDecrypt", skip=6, status="0xC0000001"))


class Exchanged(Sealed):
    """Chunks that lie in each other's place: the tag binds the bytes to the key and to nothing else."""

    def exchanged(self, *fields):
        """An image in which chunks 1 and 2 have exchanged these fields of their records, and their stored bytes."""
        machine, builder = self.sealed()
        first, second = builder.records[1], builder.records[2]
        for name in fields:
            ours, theirs = getattr(first, name), getattr(second, name)
            setattr(first, name, theirs)
            setattr(second, name, ours)
        builder.stored[1], builder.stored[2] = builder.stored[2], builder.stored[1]
        builder.write(machine.path("a.vrnx"))
        return machine

    def swapped_disk(self):
        plain = pattern(SIZE, "image")
        return plain[:4096] + plain[8192:12288] + plain[4096:8192] + plain[12288:]

    def test_bytes_alone_are_unauthentic_to_every_reader(self):
        machine = self.exchanged()
        self.expect(self.verify(machine), 1,
                    verifying_line("a.vrnx", 10, SIZE) + FIRST_METER + verify_unauthentic(1) + verify_unauthentic(2)
                    + LAST_METER + "\n", verify_failed(2, 10))
        self.expect(self.restore(machine), 1, restoring_line("a.vrnx", 2, 10, SIZE) + FIRST_METER,
                    restore_unauthentic(1))
        self.expect(self.consolidate(machine), 1, FIRST_METER, CHUNK_UNAUTHENTIC)

    def test_bytes_with_nonce_and_tag_are_authentic_but_not_what_was_hashed(self):
        machine = self.exchanged("nonce", "tag")
        self.expect(self.verify(machine), 1,
                    verifying_line("a.vrnx", 10, SIZE) + FIRST_METER + verify_mismatch(1) + verify_mismatch(2)
                    + LAST_METER + "\n", verify_failed(2, 10))
        self.expect(self.consolidate(machine), 1, FIRST_METER, CHUNK_MISMATCH)
        # A restore trusts the tag alone.
        self.expect(self.restore(machine), 0, restore_text("a.vrnx", 2, SIZE, 4096))
        self.expect_disk(machine, 2, self.swapped_disk())

    def test_whole_records_pass_every_check(self):
        machine = self.exchanged("hash", "nonce", "tag")
        self.expect(self.verify(machine), 0, verify_text("a.vrnx", SIZE, 4096))
        self.expect(self.restore(machine), 0, restore_text("a.vrnx", 2, SIZE, 4096))
        self.expect_disk(machine, 2, self.swapped_disk())
        self.expect(self.consolidate(machine), 0,
                    consolidate_text("out.vrnx", SIZE, 4096, verify_text("out.vrnx", SIZE, 4096)))
        self.expect_file(machine, "out.vrnx", ImageBuilder(self.swapped_disk()).to_bytes())

    def test_disk_offsets_are_refused_at_open(self):
        machine = self.exchanged("hash", "nonce", "tag", "disk_offset")
        refusal = fatal("image chunk table has an invalid offset or length")
        self.expect(self.verify(machine), 1, "", refusal)
        self.expect(self.restore(machine), 1, "", refusal)
        self.expect(self.consolidate(machine), 1, "", refusal)


class Replaced(Sealed):
    """What somebody without the password can put in place of an image: the seal is one of chunks, not of the file."""

    def test_a_plain_image_passes_where_a_sealed_one_was(self):
        machine, _ = self.sealed()
        build_image(machine.path("a.vrnx"), pattern(SIZE, "forged"))
        self.expect(self.verify(machine), 0, verify_text("a.vrnx", SIZE, 4096))
        self.expect(self.restore(machine), 0, restore_text("a.vrnx", 2, SIZE, 4096))
        self.expect_disk(machine, 2, pattern(SIZE, "forged"))

    def test_a_disk_that_was_made_shorter_passes(self):
        machine, builder = self.sealed()
        builder.records, builder.stored = builder.records[:6], builder.stored[:6]
        builder.header.disk_size, builder.header.chunk_count = 6 * 4096, 6
        builder.write(machine.path("a.vrnx"))
        self.expect(self.verify(machine), 0, verify_text("a.vrnx", 6 * 4096, 4096))

    def test_a_chunk_turned_into_a_reference_to_a_forged_base_passes(self):
        machine, builder = self.sealed()
        plain, forged = pattern(SIZE, "image"), pattern(SIZE, "forged")
        base = build_image(machine.path("forged.vrnx"), forged)
        thin = ImageBuilder(forged, base=machine.path("forged.vrnx"), references=[0])
        builder.header.version, builder.trailer = 3, thin.trailer
        builder.records[0], builder.stored[0] = thin.records[0], b""
        builder.write(machine.path("a.vrnx"))
        self.assertEqual(builder.trailer.base_digest, base.digest())
        self.expect(self.restore(machine), 0, restore_text("a.vrnx", 2, SIZE, 4096))
        self.expect_disk(machine, 2, forged[:4096] + plain[4096:])


class Chains(Sealed):
    """Thin images over sealed bases: each level has a key of its own, and one password file opens all of them."""

    STORED = (0, 3)  # chunks that the thin image stores itself

    def chain(self, *, base_password=PASSWORD, password=PASSWORD):
        """base.vrnx and, over it, the thin a.vrnx; password None makes that image plain."""
        machine, _ = self.sealed()
        os.remove(machine.path("a.vrnx"))
        plain = pattern(SIZE, "image")
        base = build_image(machine.path("base.vrnx"), plain, password=base_password, seed="base")
        changed = b"".join(pattern(4096, f"new {index}") if index in self.STORED
                           else plain[index * 4096:(index + 1) * 4096]
                           for index in range(10))
        top = build_image(machine.path("a.vrnx"), changed, password=password, base=machine.path("base.vrnx"),
                          seed="top")
        return machine, base, top, changed

    def thin_text(self):
        return (verifying_line("a.vrnx", 10, SIZE) + "  thin image: chain continues with base.vrnx\n" + FIRST_METER)

    def test_every_mix_of_sealed_and_plain_reads(self):
        for base_password, password in ((PASSWORD, PASSWORD), (PASSWORD, None), (None, PASSWORD)):
            machine, _, _, plain = self.chain(base_password=base_password, password=password)
            result = self.expect(self.verify(machine), 0, self.thin_text() + LAST_METER + "\n"
                                 "Verify OK - all 10 chunks match their recorded hash.\n")
            self.assertEqual(len(result.calls("BCryptDeriveKeyPBKDF2")), [base_password, password].count(PASSWORD))
            self.expect(self.restore(machine), 0, restore_text("a.vrnx", 2, SIZE, 4096))
            self.expect_disk(machine, 2, plain)
            self.expect(self.consolidate(machine, "--encrypt"), 0,
                        consolidate_text("out.vrnx", SIZE, 4096, verify_text("out.vrnx", SIZE, 4096)))
            self.expect_good_image(machine, "out.vrnx", plain, PASSWORD)

    def test_each_image_of_a_chain_has_a_key_of_its_own(self):
        machine, base, top, _ = self.chain()
        self.assertEqual([line["salt"] for line in self.verify(machine).calls("BCryptDeriveKeyPBKDF2")],
                         [top.header.salt.hex(), base.header.salt.hex()])
        self.assertNotEqual(top.header.salt, base.header.salt)

    def test_a_damaged_chunk_of_the_base_ends_the_run_at_its_reference(self):
        machine, base, _, plain = self.chain()
        machine.flip("base.vrnx", base.data_offset(5))
        self.expect(self.verify(machine), 1, self.thin_text(), CHUNK_UNAUTHENTIC)
        self.expect(self.restore(machine), 1, restoring_line("a.vrnx", 2, 10, SIZE) + FIRST_METER, CHUNK_UNAUTHENTIC)
        self.expect_disk(machine, 2, plain[:5 * 4096] + pattern(SIZE, "target")[5 * 4096:])
        self.expect(self.consolidate(machine), 1, FIRST_METER, CHUNK_UNAUTHENTIC)

    def test_a_damaged_chunk_of_the_base_that_is_not_needed_is_not_noticed(self):
        machine, base, _, _ = self.chain()
        machine.flip("base.vrnx", base.data_offset(3))
        self.expect(self.verify(machine), 0, self.thin_text() + LAST_METER + "\n"
                    "Verify OK - all 10 chunks match their recorded hash.\n")

    def test_a_damaged_chunk_of_the_top_is_counted_and_the_references_go_on(self):
        machine, _, top, _ = self.chain()
        machine.flip("a.vrnx", top.data_offset(3))
        self.expect(self.verify(machine), 1, self.thin_text() + verify_unauthentic(3) + LAST_METER + "\n",
                    verify_failed(1, 10))

    def test_a_reference_with_another_hash_than_its_base_is_a_mismatch(self):
        machine, _, top, _ = self.chain()
        top.records[5].hash = bytes(32)
        top.write(machine.path("a.vrnx"))
        self.expect(self.verify(machine), 1, self.thin_text(), CHUNK_MISMATCH)

    def test_a_changed_nonce_or_tag_of_the_base_is_refused_at_open(self):
        for offset in (44, 56):
            machine, _, _, _ = self.chain()
            machine.flip("base.vrnx", 64 + 72 * 5 + offset)
            refusal = ("Base image base.vrnx is not the one this image was made against "
                       "(it was modified or replaced).\n"
                       + fatal("base image does not match the one pinned in the thin image"))
            self.expect(self.verify(machine), 1, "", refusal)

    def test_a_wrong_password_is_counted_until_a_reference_ends_the_run(self):
        machine, _, _, _ = self.chain()
        self.expect(self.verify(machine, password="wrong"), 1,
                    verifying_line("a.vrnx", 10, SIZE) + "  thin image: chain continues with base.vrnx\n"
                    + verify_unauthentic(0), CHUNK_UNAUTHENTIC)

    def test_a_plain_image_over_a_sealed_base_needs_the_password_file(self):
        machine, _, _, _ = self.chain(password=None)
        self.expect(machine.run("verify", "--in", "a.vrnx"), 1, "", fatal(NEEDS_PASSWORD))

    def test_a_sealed_thin_capture_stores_and_seals_what_changed(self):
        size = 2 * MIB4 + 512
        machine, _ = self.captured(pattern(size, "source"))
        machine.poke_disk(1, MIB4 + 77, b"changed")
        result = self.capture(machine, "b.vrnx", "--base", "a.vrnx", "--thin")
        self.expect(result, 0,
                    source_line(1, size) + NO_TRACKER + "Incremental mode: base image a.vrnx\n"
                    "  --base: cannot prove what changed (no change tracker for this disk) - reading every chunk and "
                    "comparing hashes with the base (no driver needed; slower to read, still a small file).\n"
                    + meter_run(size, MIB4) + "\n"
                    "Capture complete (thin): b.vrnx  (stored 1 of 3 chunks, 2 are references to the base; "
                    "read from disk: 3)\n")
        self.assertEqual([line["length"] for line in result.calls("BCryptEncrypt")], [MIB4])
        self.assertEqual(result.calls("BCryptDecrypt"), [])
        self.expect_good_image(machine, "b.vrnx", machine.disk_bytes(1), PASSWORD)


class Salts(Sealed):
    def test_the_salt_and_epoch_of_a_plain_image_are_not_looked_at(self):
        machine, _ = self.sealed()
        builder = ImageBuilder(pattern(SIZE, "image"), epoch=(1 << 56) - 1)
        builder.header.salt = b"\xff" * 16
        builder.write(machine.path("a.vrnx"))
        self.expect(self.verify(machine, password="missing"), 0, verify_text("a.vrnx", SIZE, 4096))

    def test_a_salt_of_zeros_opens(self):
        machine, _ = self.sealed(salt=bytes(16))
        self.expect(self.verify(machine), 0, verify_text("a.vrnx", SIZE, 4096))

    def test_the_iterations_are_checked_before_the_password_file_is_opened(self):
        machine, builder = self.sealed()
        for iterations, message, error in ((99999, "image has invalid encryption/KDF parameters", None),
                                           (100000, "could not open password file", 2),
                                           (10000000, "could not open password file", 2),
                                           (10000001, "image has invalid encryption/KDF parameters", None),
                                           (0, "image has invalid encryption/KDF parameters", None)):
            machine.patch("a.vrnx", 60, struct.pack("<I", iterations))
            report = fatal(message) if error is None else fatal(message, error)
            self.expect(self.verify(machine, password="missing"), 1, "", report)

    def test_the_lowest_iterations_open(self):
        machine, _ = self.sealed(iterations=100000)
        self.expect(self.verify(machine), 0, verify_text("a.vrnx", SIZE, 4096))

    def test_the_highest_iterations_open(self):
        if self.settings.sampled:
            self.skipTest("ten million iterations take too long here")
        machine, builder = self.sealed(512, iterations=10000000)
        result = self.expect(self.verify(machine), 0, verify_text("a.vrnx", 512, 4096))
        self.assertEqual(result.calls("BCryptDeriveKeyPBKDF2")[0]["iterations"], 10000000)


if __name__ == "__main__":
    suite.main()
