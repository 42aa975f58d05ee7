"""Sealed images: the calls by which a capture seals and each of the three readers opens, which reader finds which
damage and which it cannot find, and that no two seals have anything in common. Chains of sealed images, captures over
them and their folding are the matter of test_thin_chains.py, test_incremental_capture.py and test_consolidate.py."""

import json
import os

import suite
from console import capture_text, meter_run, restore_text, restoring_line, verify_failed, verify_text, verifying_line
from image import Image, ImageBuilder, build_image, derive_key, read_header, read_table
from machine import pattern
from sealing import (CHUNK_MISMATCH, CHUNK_UNAUTHENTIC, PASSWORD, blocks, consolidate_text, restore_unauthentic,
                     verify_mismatch, verify_unauthentic)

SIZE = 10 * 4096 - 1024  # ten chunks of 4096, the last one short
MIB4 = 0x400000
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
    def test_a_sealed_capture_prints_what_a_plain_one_does_and_makes_no_longer_image(self):
        size = MIB4 + 512
        machine = self.source(pattern(size, "source"))
        result = self.expect(self.capture(machine), 0,
                             "Source: PhysicalDrive1  Size: 0.00 GiB  SectorSize: 512  Chunks: 2 (4194304 bytes each)\n"
                             "Change tracker: not available for this disk (Wendrel not loaded/attached)"
                             " - image carries no epoch.\n"
                             "\r   99.99%  4 / 4 MiB  (4.0 MiB/s)   \r  100.00%  4 / 4 MiB  (2.0 MiB/s)   \n"
                             "Capture complete: a.vrnx\n")
        self.assertEqual(machine.files(), ["a.vrnx", "password"])
        self.assertEqual(os.path.getsize(machine.path("a.vrnx")), 64 + 2 * 72 + size)
        header, records = read_table(machine.path("a.vrnx"))
        self.assertEqual((header.version, header.encrypted, header.kdf_iterations, header.epoch), (2, 1, 200000, 0))
        self.assertEqual([(record.disk_offset, record.stored_length) for record in records], [(0, MIB4), (MIB4, 512)])
        # The nonce in the table is the one that sealed, and the salt the one that made the key.
        self.assertEqual([line["nonce"] for line in result.calls("BCryptEncrypt")],
                         [record.nonce.hex() for record in records])
        derivation, = result.calls("BCryptDeriveKeyPBKDF2")
        self.assertEqual((derivation["salt"], derivation["iterations"], derivation["length"]),
                         (header.salt.hex(), 200000, 32))

    def test_nothing_of_disk_password_or_key_lies_open(self):
        size = MIB4 + 512
        machine, result = self.captured(pattern(size, "source"))
        image = machine.read("a.vrnx")
        self.assertEqual(blocks(image[64 + 2 * 72:]) & blocks(pattern(size, "source")), set())
        key = derive_key(PASSWORD, read_header(machine.path("a.vrnx")).salt, 200000)
        seen = result.stdout + result.stderr + json.dumps(result.log).encode()
        for secret in (PASSWORD, PASSWORD.hex().encode(), key, key.hex().encode()):
            self.assertNotIn(secret, seen)
            self.assertNotIn(secret, image)

    def test_the_calls_of_a_sealed_run_stand_in_their_order(self):
        _, result = self.captured(pattern(MIB4 + 512, "source"))
        steps = [(line["call"], line.get("algorithm") or line.get("property") or line.get("length"))
                 for line in result.log if line["call"].startswith("BCrypt") or line["call"] in (
                     "ReadFile", "WriteFile", "MoveFileExW")]
        opened, closed = "BCryptOpenAlgorithmProvider", ("BCryptCloseAlgorithmProvider", None)
        chunks = []
        for length in (MIB4, 512):
            chunks += [("ReadFile", length),
                       (opened, "SHA256"), ("BCryptGetProperty", "ObjectLength"), ("BCryptCreateHash", None),
                       ("BCryptHashData", length), ("BCryptFinishHash", None), ("BCryptDestroyHash", None), closed,
                       (opened, "RNG"), ("BCryptGenRandom", 12), closed, ("BCryptEncrypt", length),
                       ("WriteFile", length)]
        self.assertEqual(steps, [
            (opened, "RNG"), ("BCryptGenRandom", 16), closed,
            (opened, "SHA256"), ("BCryptDeriveKeyPBKDF2", 32), closed,
            (opened, "AES"), ("BCryptSetProperty", "ChainingMode"), ("BCryptGetProperty", "ObjectLength"),
            ("BCryptGenerateSymmetricKey", 32)] + chunks + [
                ("WriteFile", 64), ("WriteFile", 144), ("MoveFileExW", None), ("BCryptDestroyKey", None), closed])
        # Only the derivation asks for a keyed hash.
        self.assertEqual([(line["algorithm"], line["flags"]) for line in result.calls(opened)],
                         [("RNG", "0x00000000"), ("SHA256", "0x00000008"), ("AES", "0x00000000")]
                         + [("SHA256", "0x00000000"), ("RNG", "0x00000000")] * 2)
        self.assertEqual(result.calls("BCryptSetProperty")[0]["length"], 32)

    def test_a_password_file_without_encrypt_makes_a_plain_image(self):
        machine = self.source(pattern(512, "source"))
        for out, password in (("a.vrnx", "password"), ("b.vrnx", "missing")):
            result = machine.run("capture", "--disk", "1", "--out", out, "--password-file", password)
            self.expect(result, 0, capture_text(1, 512, out))
            self.assertEqual(result.calls("BCryptGenRandom") + result.calls("BCryptDeriveKeyPBKDF2"), [])
            self.expect_good_image(machine, out, pattern(512, "source"))


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


class Verify(Sealed):

    def test_the_calls_of_a_verification_stand_in_their_order(self):
        machine, builder = self.sealed(3 * 4096 - 1024, iterations=123456)
        result = self.verify(machine)
        derivation, = result.calls("BCryptDeriveKeyPBKDF2")
        self.assertEqual((derivation["salt"], derivation["iterations"], derivation["length"]),
                         (builder.header.salt.hex(), 123456, 32))
        self.assertEqual(len(result.calls("BCryptGenerateSymmetricKey")), 1)
        self.assertEqual([(line["length"], line["nonce"]) for line in result.calls("BCryptDecrypt")],
                         [(len(data), record.nonce.hex()) for data, record in zip(builder.stored, builder.records)])
        self.assertEqual(result.sequence("ReadFile", "BCryptDecrypt", "BCryptHashData", "SetFilePointerEx"),
                         ["ReadFile", "ReadFile", "BCryptHashData"]
                         + ["ReadFile", "BCryptDecrypt", "BCryptHashData"] * 3)
        self.assertEqual([line["length"] for line in result.calls("BCryptHashData")], [64 + 3 * 72, 4096, 4096, 3072])
        self.assertEqual([(line["size"], line["alignment"]) for line in result.calls("_aligned_malloc")], [(4096, 64)])
        self.assertEqual(result.sequence()[-4:],
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
                  (record(7) + 12, 0x01), (record(8) + 12 + 31, 0x80),                          # hash
                  (builder.data_offset(9) + 3071, 0x80)]                                        # the short last chunk
        for offset, bits in damage:
            machine.patch("a.vrnx", offset, bytes([machine.read("a.vrnx")[offset] ^ bits]))
        self.expect(self.verify(machine), 1,
                    verifying_line("a.vrnx", 10, SIZE) + FIRST_METER
                    + "".join(verify_unauthentic(index) for index in range(1, 7))
                    + verify_mismatch(7) + verify_mismatch(8) + verify_unauthentic(9) + "\n", verify_failed(9, 10))

    def test_an_unauthentic_first_32nd_or_last_chunk_draws_no_meter(self):
        size = 65 * 512
        machine, builder = self.sealed(size, chunk_size=512)
        for index in (0, 32, 64):
            machine.flip("a.vrnx", builder.data_offset(index))
        self.expect(self.verify(machine), 1,
                    verifying_line("a.vrnx", 65, size)
                    + "".join(verify_unauthentic(index, 512) for index in (0, 32, 64)) + "\n",
                    verify_failed(3, 65))


class Restore(Sealed):
    def begun(self, chunks, size=SIZE):
        return restoring_line("a.vrnx", 2, (size - 1) // 4096 + 1, size) + meter_run(size, 4096, upto=chunks)

    def test_each_chunk_is_opened_before_it_is_written_and_not_hashed(self):
        machine, builder = self.sealed(3 * 4096 - 1024)
        result = self.restore(machine)
        self.assertEqual(result.sequence("BCryptHashData", "BCryptDecrypt", "WriteFile"),
                         ["BCryptHashData"] + ["BCryptDecrypt", "WriteFile"] * 3)
        self.assertEqual([(line["length"], line["nonce"]) for line in result.calls("BCryptDecrypt")],
                         [(len(data), record.nonce.hex()) for data, record in zip(builder.stored, builder.records)])
        self.assertEqual([(line["offset"], line["length"]) for line in result.calls("WriteFile")],
                         [(0, 4096), (4096, 4096), (8192, 3072)])

    def test_a_wrong_password_leaves_the_target_untouched(self):
        machine, _ = self.sealed()
        result = self.expect(self.restore(machine, password="wrong"), 1, self.begun(0),
                             "\nFATAL: chunk 0 failed authentication (corrupt/tampered image) - restore aborted, "
                             "target disk left partially written.\n")
        self.assertEqual(result.calls("WriteFile"), [])
        self.expect_disk(machine, 2, pattern(SIZE, "target"))

    def expect_stopped_at(self, machine, index):
        """The restore ends at this chunk; those before it are on the target, the rest is as it was."""
        result = self.expect(self.restore(machine), 1, self.begun(index), restore_unauthentic(index))
        self.assertEqual(len(result.calls("WriteFile")), index)
        self.expect_disk(machine, 2, pattern(SIZE, "image")[:index * 4096] + pattern(SIZE, "target")[index * 4096:])

    def test_what_does_not_authenticate_ends_the_run_at_its_chunk(self):
        for case, index, damage in (
                ("data", 5, lambda machine, builder: machine.flip("a.vrnx", builder.data_offset(5) + 4095)),
                ("nonce", 4, lambda machine, _: machine.flip("a.vrnx", 64 + 72 * 4 + 44 + 11)),
                ("tag", 9, lambda machine, _: machine.flip("a.vrnx", 64 + 72 * 9 + 56 + 15)),
                ("status", 3, lambda machine, _: machine.add_fault("BCryptDecrypt", skip=3, status="0xC000000D"))):
            machine, builder = self.sealed()
            damage(machine, builder)
            with self.subTest(case):
                self.expect_stopped_at(machine, index)

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

    def test_each_chunk_is_opened_at_its_plain_length_and_then_hashed(self):
        machine, builder = self.sealed(3 * 4096 - 1024)
        result = self.consolidate(machine)
        opened = [(line["length"], line["nonce"]) for line in result.calls("BCryptDecrypt")]
        self.assertEqual(opened, [(len(data), record.nonce.hex())
                                  for data, record in zip(builder.stored, builder.records)])
        self.assertEqual(result.sequence("BCryptDecrypt", "BCryptHashData", "WriteFile")[:10],
                         ["BCryptHashData"] + ["BCryptDecrypt", "BCryptHashData", "WriteFile"] * 3)


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


class Replaced(Sealed):
    """What somebody without the password can put in place of an image: the seal is one of chunks, not of the file."""

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


if __name__ == "__main__":
    suite.main()
