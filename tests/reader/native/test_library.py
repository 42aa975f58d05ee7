"""The library on real files, against the second reader and the program: what it accepts, reads, refuses, salvages.

The images are built by tests/lib/image.py. Natively, as the library is loaded into this process.
"""

import ctypes
import hashlib
import json
import os
import random
import shutil
import threading

import suite
import vrnx
from image import ImageBuilder, ImageError, build_image, reference_plain_bytes, write_sparse_image
from machine import CHECKOUT, SETTINGS, pattern

VECTORS = os.path.join(CHECKOUT, "tests", "vectors")
PASSWORD = b"correct horse"
CHUNK = 512

with open(os.path.join(VECTORS, "expectations.json"), encoding="utf-8") as file:
    EXPECTATIONS = json.load(file)


def flip(path, at, mask=1):
    with open(path, "r+b") as changed:
        changed.seek(at)
        byte = changed.read(1)[0]
        changed.seek(at)
        changed.write(bytes([byte ^ mask]))


class Library(suite.Scenario):
    recorded = False

    def path(self, name):
        return os.path.join(self.folder, name)

    def refusal(self, path, flags=0, **options):
        """The failure with which an image does not open."""
        with self.assertRaises(vrnx.VrnxError) as caught:
            vrnx.Image(path, flags, **options)
        self.assertIn(os.fsencode(path).rsplit(b"/", 1)[0], caught.exception.error.text)
        return caught.exception

    def expect_disk(self, opened, plain):
        self.assertEqual(opened.disk_size, len(plain))
        self.assertTrue(opened.read(0, len(plain)) == plain, "the disk differs")


class Vectors(Library):
    def verdict(self, name):
        """What the library says of a file, in the program's words: None, or the message."""
        path = os.path.join(VECTORS, name)
        try:
            opened = vrnx.Image(path, password_file=os.path.join(VECTORS, "password.txt"))
        except vrnx.VrnxError as failure:
            return str(failure)
        with opened:
            bad = opened.bad_chunks()
            if not bad:
                self.expect_disk(opened, reference_plain_bytes(path, PASSWORD))
                return None
            number = next(iter(bad))
            with self.assertRaises(vrnx.VrnxError) as caught:
                opened.read(opened.chunk(number).disk_offset, 1)
            self.assertEqual(caught.exception.code, bad[number])
            if opened.chunk(number).reference:
                return "chunk failed its hash check (corrupt image or base)" if bad[number] == vrnx.CHUNK_HASH else "?"
            return (f"Verify FAILED - {len(bad)} of {opened.chunk_count} chunks did not match. "
                    "Do not trust this image for restore.")

    def test_every_file_has_the_verdict_of_the_program(self):
        for name, expected in EXPECTATIONS.items():
            verdict = self.verdict(name)
            if expected["message"] is None or verdict is None:
                self.assertEqual(verdict, expected["message"], name)
            else:
                self.assertIn(expected["message"], verdict, name)

    def test_every_plain_disk_has_the_hash_that_the_expectations_give(self):
        for name, expected in EXPECTATIONS.items():
            if expected["status"] == 0:
                with vrnx.Image(os.path.join(VECTORS, name), password=PASSWORD) as opened:
                    plain = opened.read(0, opened.disk_size)
                self.assertEqual(hashlib.sha256(plain).hexdigest(), expected["plain_sha256"], name)

    def test_what_is_refused_can_be_examined_and_says_why(self):
        for name, expected in EXPECTATIONS.items():
            if expected["message"] is None or "chunk failed" in expected["message"] or "Verify" in expected["message"]:
                continue
            with vrnx.Image(os.path.join(VECTORS, name), vrnx.EXAMINE | vrnx.NO_PASSWORD) as opened:
                problems = opened.problems()
                self.assertIn(expected["message"].encode(), problems[0].text, name)
                self.assertEqual(opened.layer().unfinished, name == "bad-zeros.vrnx", name)

    def test_a_strictly_opened_image_has_no_problems(self):
        for name, expected in EXPECTATIONS.items():
            if expected["status"] == 0:
                with vrnx.Image(os.path.join(VECTORS, name), vrnx.NO_PASSWORD | vrnx.LENIENT) as opened:
                    self.assertEqual(opened.problems(), [], name)
                    self.assertEqual([layer.pinned for layer in opened.layers()], [1] * opened.info.level_count)


class WhatAnImageIs(Library):
    def chain(self):
        first = pattern(5 * CHUNK + 100, "first")
        second = first[:CHUNK] + bytes(CHUNK) + first[2 * CHUNK:]
        build_image(self.path("full"), first, chunk_size=CHUNK, epoch=0x0123456789ABCD, sector_size=512)
        self.top = build_image(self.path("thin"), second, chunk_size=CHUNK, base=self.path("full"), password=PASSWORD)
        return second

    def test_header_digest_and_base_without_a_password(self):
        plain = self.chain()
        with vrnx.Image(self.path("thin"), vrnx.NO_PASSWORD) as opened:
            self.assertEqual((opened.disk_size, opened.chunk_size, opened.chunk_count), (len(plain), CHUNK, 6))
            top, full = opened.layers()
            self.assertEqual((top.version, top.encrypted, top.kdf_iterations), (3, 1, 100000))
            self.assertEqual(bytes(top.salt), self.top.header.salt)
            self.assertEqual(bytes(top.digest), self.top.digest())
            self.assertEqual(opened.base_name(), b"full")
            self.assertEqual(top.base_path, os.fsencode(self.path("full")))
            self.assertEqual(bytes(top.base_digest), bytes(full.digest))
            self.assertEqual((top.base_state, full.base_state), (vrnx.BASE_GOOD, vrnx.BASE_NONE))
            self.assertEqual((full.version, full.epoch, full.encrypted), (2, 0x0123456789ABCD, 0))
            self.assertEqual(top.file_size, os.path.getsize(self.path("thin")))

    def test_chunks_without_a_password(self):
        plain = self.chain()
        with vrnx.Image(self.path("thin"), vrnx.NO_PASSWORD) as opened:
            for number in range(6):
                chunk = opened.chunk(number)
                part = plain[number * CHUNK:(number + 1) * CHUNK]
                self.assertEqual(bytes(chunk.hash), hashlib.sha256(part).digest())
                self.assertEqual((chunk.disk_offset, chunk.length), (number * CHUNK, len(part)))
                self.assertEqual((chunk.level, chunk.reference, chunk.zero), (0, 0, 1) if number == 1 else (1, 1, 0))
                self.assertEqual(chunk.verdict, vrnx.NOT_CHECKED)
                with open(self.path(("thin", "full")[chunk.level]), "rb") as stored:
                    stored.seek(chunk.file_offset)
                    if number != 1:
                        self.assertEqual(stored.read(chunk.length), part)
            # Zeros by their hash are there without the password; to prove what is stored takes it.
            self.expect_disk(opened, plain)
            with self.assertRaises(vrnx.VrnxError) as caught:
                opened.check(1)
            self.assertEqual(caught.exception.code, vrnx.ERROR_PASSWORD_NEEDED)

    def test_alone_leaves_the_base_out(self):
        plain = self.chain()
        os.remove(self.path("full"))
        with vrnx.Image(self.path("thin"), vrnx.ALONE, password=PASSWORD) as opened:
            self.assertEqual(opened.info.level_count, 1)
            self.assertEqual(opened.layer().base_state, vrnx.BASE_UNKNOWN)
            self.assertEqual(opened.bad_chunks(), {n: vrnx.CHUNK_NO_BASE for n in (0, 2, 3, 4, 5)})
            self.assertEqual(opened.chunk(0).level, vrnx.NO_LEVEL)
            self.assertEqual(opened.read(CHUNK, CHUNK), plain[CHUNK:2 * CHUNK])

    def test_a_verdict_is_kept_and_told(self):
        self.chain()
        flip(self.path("full"), os.path.getsize(self.path("full")) - 1)
        with vrnx.Image(self.path("thin"), password=PASSWORD) as opened:
            self.assertEqual(opened.bad_chunks(), {5: vrnx.CHUNK_HASH})
            self.assertEqual([opened.chunk(n).verdict for n in range(6)], [0, 0, 0, 0, 0, vrnx.CHUNK_HASH])
            with self.assertRaises(vrnx.VrnxError) as caught:
                opened.check(5)
            error = caught.exception.error
            self.assertEqual((error.chunk, error.disk_offset, error.length, error.level), (5, 5 * CHUNK, 100, 1))
            self.assertEqual(str(caught.exception),
                             f"{self.path('full')}: chunk 5 (disk offset {5 * CHUNK}): hash mismatch")
            # The file is whole again, but what was found stays found.
            flip(self.path("full"), os.path.getsize(self.path("full")) - 1)
            self.assertEqual(opened.bad_chunks(), {5: vrnx.CHUNK_HASH})

    def test_a_check_reads_the_stored_bytes_of_zeros(self):
        plain = bytes(3 * CHUNK)
        build_image(self.path("zeros"), plain, chunk_size=CHUNK)
        flip(self.path("zeros"), os.path.getsize(self.path("zeros")) - 1)
        with vrnx.Image(self.path("zeros")) as opened:
            self.expect_disk(opened, plain)
            self.assertEqual(opened.bad_chunks(), {2: vrnx.CHUNK_HASH})
            self.expect_disk(opened, plain)


class WholeChunks(Library):
    """Who reads a whole chunk is spared a copy, and nothing else is different."""

    def build(self, **options):
        plain = pattern(4 * CHUNK + 100, "whole")
        self.built = build_image(self.path("image"), plain, chunk_size=CHUNK, **options)
        return plain

    def damage(self, number):
        flip(self.path("image"), self.built.data_offset(number) + CHUNK // 2)

    def test_no_byte_of_a_bad_chunk_gets_into_the_buffer(self):
        for options in ({}, {"password": PASSWORD}):
            plain = self.build(**options)
            self.damage(2)
            with open(self.path("image"), "rb") as file_:
                file_.seek(self.built.data_offset(2))
                stored = file_.read(CHUNK)
            for begin, length in ((0, 3 * CHUNK), (CHUNK, 2 * CHUNK), (2 * CHUNK, CHUNK), (2 * CHUNK, 2 * CHUNK),
                                  (2 * CHUNK - 5, CHUNK + 10), (2 * CHUNK + 5, CHUNK)):
                with vrnx.Image(self.path("image"), password=PASSWORD) as opened:
                    for _ in range(3):
                        buffer = ctypes.create_string_buffer(b"\xa5" * length, length)
                        code = vrnx.SHARED_OBJECT.vrnx_read(opened.handle, buffer, begin, length, None)
                        self.assertIn(code, (vrnx.CHUNK_HASH, vrnx.CHUNK_AUTHENTICATION))
                        good = max(0, 2 * CHUNK - begin)
                        self.assertEqual(buffer.raw[:good], plain[begin:begin + good])
                        self.assertLessEqual(set(buffer.raw[good:]), {0, 0xA5})
                        self.assertNotIn(stored[:16], buffer.raw)

    def test_a_chunk_that_is_asked_for_again_is_kept(self):
        for options in ({}, {"password": PASSWORD}):
            plain = self.build(**options)
            with vrnx.Image(self.path("image"), password=PASSWORD) as opened:
                for _ in range(2):
                    self.assertEqual(opened.read(CHUNK, CHUNK), plain[CHUNK:2 * CHUNK])
                self.damage(1)
                self.assertEqual(opened.read(CHUNK, CHUNK), plain[CHUNK:2 * CHUNK])
                self.assertEqual(opened.read(0, 3 * CHUNK), plain[:3 * CHUNK])
                self.assertEqual(opened.chunk(1).verdict, 0)

    def test_a_chunk_of_which_a_part_was_asked_for_is_kept(self):
        plain = self.build()
        with vrnx.Image(self.path("image")) as opened:
            self.assertEqual(opened.read(CHUNK + 7, 1), plain[CHUNK + 7:CHUNK + 8])
            self.damage(1)
            self.assertEqual(opened.read(CHUNK, CHUNK), plain[CHUNK:2 * CHUNK])

    def test_a_chunk_that_is_not_kept_is_proved_each_time(self):
        plain = self.build()
        with vrnx.Image(self.path("image"), cache_chunks=vrnx.CACHE_NONE) as opened:
            for _ in range(2):
                self.assertEqual(opened.read(CHUNK, CHUNK), plain[CHUNK:2 * CHUNK])
            self.damage(1)
            with self.assertRaises(vrnx.VrnxError) as caught:
                opened.read(CHUNK, CHUNK)
            self.assertEqual(caught.exception.code, vrnx.CHUNK_HASH)


class Passwords(Library):
    def setUp(self):
        super().setUp()
        self.plain = pattern(3 * CHUNK, "sealed")
        build_image(self.path("sealed"), self.plain, chunk_size=CHUNK, password=PASSWORD)
        build_image(self.path("plain"), self.plain, chunk_size=CHUNK)

    def put(self, content):
        with open(self.path("password"), "wb") as file_:
            file_.write(content)
        return self.path("password")

    def test_line_ends_at_the_very_end_are_no_part_of_it(self):
        for ending in (b"", b"\n", b"\r\n", b"\n\r\n\n"):
            with vrnx.Image(self.path("sealed"), password_file=self.put(PASSWORD + ending)) as opened:
                self.expect_disk(opened, self.plain)

    def test_the_bytes_of_a_password_are_taken_as_they_are(self):
        with vrnx.Image(self.path("sealed"), password=PASSWORD) as opened:
            self.expect_disk(opened, self.plain)
        with vrnx.Image(self.path("sealed"), password=PASSWORD + b"\n") as opened:
            self.assertEqual(opened.bad_chunks(), {n: vrnx.CHUNK_AUTHENTICATION for n in range(3)})

    def test_none_or_an_unusable_one(self):
        self.assertEqual(self.refusal(self.path("sealed")).code, vrnx.ERROR_PASSWORD_NEEDED)
        for content, text in ((b"", "empty"), (b"\r\n\n", "empty"), (b"x" * 1048577, "too large"),
                              (b"x" * 1048576 + b"\n", "too large")):
            failure = self.refusal(self.path("sealed"), password_file=self.put(content))
            self.assertEqual(failure.code, vrnx.ERROR_PASSWORD)
            self.assertIn(text, str(failure))
        os.remove(self.path("password"))
        self.assertEqual(self.refusal(self.path("sealed"), password_file=self.path("password")).error.system_error, 2)

    def test_the_longest_one(self):
        longest = b"x" * 1048576
        build_image(self.path("longest"), self.plain, chunk_size=CHUNK, password=longest)
        with vrnx.Image(self.path("longest"), password_file=self.put(longest)) as opened:
            self.expect_disk(opened, self.plain)

    def test_a_plain_image_does_not_ask_for_it(self):
        with vrnx.Image(self.path("plain"), password_file=self.path("nowhere")) as opened:
            self.expect_disk(opened, self.plain)


class RandomImages(Library):
    """Sizes that are no multiple of anything, chains to 65, sealed and plain mixed, two salts."""

    def build(self, chance, depth):
        sector = chance.choice((512, 4096))
        chunk = sector * chance.randint(1, 5)
        size = chance.randint(1, 40 * chunk)
        plain = bytearray(chance.randbytes(size))
        for _ in range(chance.randint(0, 6)):
            begin = chance.randrange(0, size, chunk)
            plain[begin:begin + 2 * chunk] = bytes(len(plain[begin:begin + 2 * chunk]))
        salts = [chance.randbytes(16), chance.randbytes(16)]
        name = None
        for level in range(depth):
            sealed = {"password": PASSWORD, "salt": chance.choice(salts)} if chance.random() < 0.5 else {}
            build_image(self.path(f"{level}.vrnx"), bytes(plain), chunk_size=chunk, sector_size=sector,
                        seed=f"{depth} {level}", base=name and self.path(name), **sealed)
            name, last = f"{level}.vrnx", bytes(plain)
            begin = chance.randrange(size)
            change = chance.randbytes(min(size - begin, chance.randint(1, 2 * chunk)))
            plain[begin:begin + len(change)] = change
        return self.path(name), last

    def try_image(self, seed, depth, reads):
        chance = random.Random(seed)
        path, plain = self.build(chance, depth)
        self.assertTrue(reference_plain_bytes(path, PASSWORD) == plain, "the two accounts of the test differ")
        with vrnx.Image(path, password=PASSWORD, cache_chunks=chance.choice((0, 1, 3, vrnx.CACHE_NONE))) as opened:
            self.assertEqual(opened.info.level_count, depth)
            for _ in range(reads):
                offset = chance.randint(0, len(plain))
                length = chance.randint(0, min(chance.choice((100, len(plain))), len(plain) - offset))
                self.assertTrue(opened.read(offset, length) == plain[offset:offset + length],
                                f"seed {seed}: {length} bytes at {offset}")
            self.expect_disk(opened, plain)
            self.assertEqual(opened.bad_chunks(), {})

    def test_random_images(self):
        for seed in range(60):
            shutil.rmtree(self.folder)
            os.mkdir(self.folder)
            self.try_image(seed, depth=random.Random(seed).choice((1, 1, 2, 3, 5)), reads=60)

    def test_a_chain_of_65_images(self):
        self.try_image("65", depth=65, reads=200)

    def test_66_images_are_too_many(self):
        path, _ = self.build(random.Random("66"), 66)
        self.assertEqual(self.refusal(path, password=PASSWORD).code, vrnx.REFUSED_CHAIN_LENGTH)

    def test_many_threads_read_one_image(self):
        path, plain = self.build(random.Random("threads"), 4)
        wrong = []

        def read_some(seed):
            chance = random.Random(seed)
            for _ in range(300):
                offset = chance.randrange(len(plain))
                length = chance.randint(0, len(plain) - offset)
                if opened.read(offset, length) != plain[offset:offset + length]:
                    wrong.append((seed, offset, length))

        with vrnx.Image(path, password=PASSWORD, cache_chunks=2) as opened:
            threads = [threading.Thread(target=read_some, args=(seed,)) for seed in range(6)]
            for thread in threads:
                thread.start()
            for thread in threads:
                thread.join()
        self.assertEqual(wrong, [])

    def test_a_range_beyond_the_disk_is_wrong_use(self):
        path, plain = self.build(random.Random("range"), 1)
        with vrnx.Image(path, password=PASSWORD) as opened:
            self.assertEqual(opened.read(len(plain), 0), b"")
            for offset, length in ((len(plain), 1), (len(plain) + 1, 0), (0, len(plain) + 1), (2**64 - 1, 2)):
                with self.assertRaises(vrnx.VrnxError) as caught:
                    opened.read(offset, length)
                self.assertEqual(caught.exception.code, vrnx.ERROR_USAGE)


class Damage(Library):
    """Every chunk of a chain damaged in turn, in each of its fields: a lenient open loses those chunks and no other."""

    # Which images of the chain store which chunks; the rest are references. Every chunk lies on each level once.
    COUNT = 6
    STORED = ({0, 3, 5}, {1, 3, 4}, set(range(6)))

    def build(self, sealed):
        # One salt, and so one derivation an opening: there are hundreds.
        options = {"password": PASSWORD, "salt": b"one salt for all"} if sealed else {}
        disks = [bytearray(pattern(self.COUNT * CHUNK - 200, "lowest"))]
        for stored in (self.STORED[1], self.STORED[0]):
            disk = bytearray(disks[-1])
            for number in stored:
                begin, end = number * CHUNK, min((number + 1) * CHUNK, len(disk))
                disk[begin:end] = pattern(end - begin, f"{len(disks)} {number}")
            disks.append(disk)
        self.builders = {}
        for level, base in ((2, None), (1, "2"), (0, "1")):
            self.builders[level] = build_image(self.path(str(level)), bytes(disks[2 - level]), chunk_size=CHUNK,
                                               seed=str(level), base=base and self.path(base), **options)
            references = {n for n, record in enumerate(self.builders[level].records) if record.stored_length == 0}
            self.assertEqual(references, set(range(self.COUNT)) - self.STORED[level])
        return bytes(disks[-1])

    def holder(self, number):
        return next(level for level, stored in enumerate(self.STORED) if number in stored)

    def places(self, level, number, sealed):
        """(what, offset in the file, new bytes or None for a flipped bit, whether the chunk is bad then)"""
        record = 64 + 72 * number
        stored, on_the_way = number in self.STORED[level], level <= self.holder(number)
        holds = self.holder(number) == level
        if stored:
            yield "data", self.builders[level].data_offset(number), None, holds
        yield "nonce", record + 44, None, holds and sealed
        yield "tag", record + 56, None, holds and sealed
        yield "hash", record + 12, None, on_the_way
        yield "disk offset", record, None, on_the_way
        yield "stored length 7", record + 8, b"\7\0\0\0", on_the_way
        if level < 2:
            length = self.builders[level].header.plain_length(number)
            other = 0 if stored else length
            yield "stored and reference exchanged", record + 8, other.to_bytes(4, "little"), on_the_way

    def expect_losses(self, plain, lost, what):
        with vrnx.Image(self.path("0"), vrnx.LENIENT, password=PASSWORD) as opened:
            self.assertEqual(set(opened.bad_chunks()), lost, what)
            for number in range(self.COUNT):
                begin, end = number * CHUNK, min((number + 1) * CHUNK, len(plain))
                if number in lost:
                    with self.assertRaises(vrnx.VrnxError):
                        opened.read(begin, end - begin)
                else:
                    self.assertTrue(opened.read(begin, end - begin) == plain[begin:end], (what, number))

    def try_all(self, sealed):
        plain = self.build(sealed)
        contents = {}
        for level in range(3):
            with open(self.path(str(level)), "rb") as image:
                contents[level] = image.read()
        self.expect_losses(plain, set(), "nothing")
        tried = 0
        for level in range(3):
            for number in range(self.COUNT):
                for what, offset, new, bad in self.places(level, number, sealed):
                    old = contents[level][offset:offset + (len(new) if new else 1)]
                    changed = bytearray(contents[level])
                    changed[offset:offset + len(old)] = new or bytes([old[0] ^ 1])
                    with open(self.path(str(level)), "wb") as image:
                        image.write(changed)
                    self.expect_losses(plain, {number} if bad else set(), f"level {level}, chunk {number}: {what}")
                    self.heal(plain, number if bad else None, what)
                    tried += 1
                with open(self.path(str(level)), "wb") as image:
                    image.write(contents[level])
        self.assertGreater(tried, 100)

    def heal(self, plain, number, what):
        """Another image of the same disk, of other chunks and plain, has what was lost, where the record is whole."""
        if number is None:
            return
        build_image(self.path("donor"), plain, chunk_size=3 * CHUNK)
        with vrnx.Image(self.path("0"), vrnx.LENIENT, password=PASSWORD) as opened, \
                vrnx.Image(self.path("donor")) as donor:
            part = plain[number * CHUNK:(number + 1) * CHUNK]
            whole = not opened.chunk(number).bad_entry
            if whole and bytes(opened.chunk(number).hash) == hashlib.sha256(part).digest():
                self.assertTrue(opened.heal(number, donor) == part, what)
            else:
                with self.assertRaises(vrnx.VrnxError) as caught:
                    opened.heal(number, donor)
                self.assertEqual(caught.exception.code, vrnx.CHUNK_HASH if whole else vrnx.CHUNK_ENTRY)

    def test_plain_chain(self):
        self.try_all(sealed=False)

    def test_sealed_chain(self):
        if self.settings.sampled:
            self.skipTest("several hundred openings derive a key each: minutes under the sanitizers")
        self.try_all(sealed=True)

    def test_a_block_of_the_table(self):
        """A stretch of broken records takes those chunks away; where the others lie is found out."""
        plain = self.build(False)
        for first, last in ((0, 2), (1, 4), (2, 5), (0, 5)):
            content = self.builders[0].to_bytes()
            begin, end = 64 + 72 * first + 5, 64 + 72 * last + 20
            with open(self.path("0"), "wb") as image:
                image.write(content[:begin] + b"\xee" * (end - begin) + content[end:])
            self.expect_losses(plain, set(range(first, last + 1)), (first, last))

    def test_a_truncated_end(self):
        plain = self.build(False)
        content = self.builders[2].to_bytes()
        for cut in range(1, 4 * CHUNK, 100):
            with open(self.path("2"), "wb") as image:
                image.write(content[:-cut])
            lost = {n for n in range(self.COUNT) if self.holder(n) == 2
                    and self.builders[2].data_offset(n) + self.builders[2].header.plain_length(n) > len(content) - cut}
            self.expect_losses(plain, lost, cut)

    def test_a_truncated_table(self):
        """What lies behind the table is gone with it; zeros are zeros all the same."""
        plain = bytes(CHUNK) + pattern(2 * CHUNK, "behind")
        content = build_image(self.path("full"), plain, chunk_size=CHUNK).to_bytes()
        with open(self.path("full"), "wb") as image:
            image.write(content[:64 + 72 * 2 + 10])
        self.assertEqual(self.refusal(self.path("full")).code, vrnx.REFUSED_TABLE_TRUNCATED)
        with vrnx.Image(self.path("full"), vrnx.LENIENT) as opened:
            self.assertEqual(opened.bad_chunks(), {0: vrnx.CHUNK_READ, 1: vrnx.CHUNK_READ, 2: vrnx.CHUNK_ENTRY})
            self.assertEqual(opened.read(0, CHUNK), bytes(CHUNK))
            self.assertEqual(opened.layer().known & vrnx.KNOWN_DIGEST, 0)

    def test_a_missing_base(self):
        plain = self.build(False)
        os.remove(self.path("2"))
        self.expect_losses(plain, {2}, "lowest missing")
        os.remove(self.path("1"))
        self.expect_losses(plain, {1, 2, 4}, "middle missing")
        with vrnx.Image(self.path("0"), vrnx.LENIENT) as opened:
            self.assertEqual(opened.layer().base_state, vrnx.BASE_MISSING)

    def test_a_replaced_base_gives_what_has_the_right_hash(self):
        plain = self.build(False)
        replaced = bytearray(reference_plain_bytes(self.path("2")))
        replaced[0:CHUNK] = bytes(CHUNK)  # chunk 0 is not needed of it
        build_image(self.path("2"), bytes(replaced), chunk_size=CHUNK)
        self.assertEqual(self.refusal(self.path("0")).code, vrnx.REFUSED_BASE_REPLACED)
        self.expect_losses(plain, set(), "replaced in what is not needed")
        replaced[2 * CHUNK] ^= 1
        build_image(self.path("2"), bytes(replaced), chunk_size=CHUNK)
        self.expect_losses(plain, {2}, "replaced in one chunk that is needed")
        with vrnx.Image(self.path("0"), vrnx.LENIENT) as opened:
            self.assertEqual([layer.base_state for layer in opened.layers()],
                             [vrnx.BASE_INCOMPLETE, vrnx.BASE_REPLACED, vrnx.BASE_NONE])
            self.assertEqual([layer.pinned for layer in opened.layers()], [1, 1, 0])

    def test_a_base_of_another_shape_or_none_at_all(self):
        plain = self.build(False)
        build_image(self.path("2"), pattern(9 * CHUNK, "other"), chunk_size=CHUNK)
        self.expect_losses(plain, {2}, "of another size")
        for content in (b"", b"no image" * 20, bytes(200)):
            with open(self.path("2"), "wb") as image:
                image.write(content)
            self.expect_losses(plain, {2}, content)
            with vrnx.Image(self.path("0"), vrnx.LENIENT) as opened:
                self.assertEqual([layer.base_state for layer in opened.layers()],
                                 [vrnx.BASE_INCOMPLETE, vrnx.BASE_REFUSED])

    def test_a_donor_that_does_not_have_it(self):
        plain = self.build(False)
        flip(self.path("0"), self.builders[0].data_offset(3))
        with vrnx.Image(self.path("0")) as opened:
            contents = (plain[:3 * CHUNK], plain[:3 * CHUNK] + bytes(CHUNK), plain[:4 * CHUNK - 1])
            for number, content in enumerate(contents):
                build_image(self.path(f"donor{number}"), content, chunk_size=1024)
                with vrnx.Image(self.path(f"donor{number}")) as donor, self.assertRaises(vrnx.VrnxError) as caught:
                    opened.heal(3, donor)
                self.assertEqual(caught.exception.code, vrnx.CHUNK_HASH)

    def test_a_donor_whose_own_table_is_wrong(self):
        """What counts is the hash that is demanded, not what the donor thinks of its bytes."""
        plain = self.build(False)
        flip(self.path("0"), self.builders[0].data_offset(3))
        build_image(self.path("donor"), plain, chunk_size=CHUNK)
        flip(self.path("donor"), 64 + 72 * 3 + 12)
        with vrnx.Image(self.path("0")) as opened, vrnx.Image(self.path("donor")) as donor:
            self.assertEqual(donor.bad_chunks(), {3: vrnx.CHUNK_HASH})
            self.assertEqual(opened.heal(3, donor), plain[3 * CHUNK:4 * CHUNK])
            self.assertEqual(opened.chunk(3).verdict, vrnx.NOT_CHECKED)

    def test_proving_bytes_from_elsewhere(self):
        plain = self.build(False)
        with vrnx.Image(self.path("0")) as opened:
            opened.prove(3, plain[3 * CHUNK:4 * CHUNK])
            for wrong in (plain[:CHUNK], plain[3 * CHUNK:4 * CHUNK - 1], b""):
                with self.assertRaises(vrnx.VrnxError) as caught:
                    opened.prove(3, wrong)
                self.assertEqual(caught.exception.code, vrnx.CHUNK_HASH)


class Names(Library):
    def setUp(self):
        super().setUp()
        self.plain = pattern(2 * CHUNK, "names")
        build_image(self.path("full"), self.plain, chunk_size=CHUNK)

    def thin(self, name, **options):
        """An image whose base has this name, and the image's path."""
        build_image(self.path("thin"), self.plain, chunk_size=CHUNK, base=self.path("full"), base_name=name, **options)
        return self.path("thin")

    def test_names_that_lead_out_of_the_folder_or_are_none(self):
        for name in (b"../full", b"/full", b"..\\full", b"C:full", b"sub/full", b".", b"..", b"full\0", b"\0",
                     b"full:x"):
            failure = self.refusal(self.thin(name))
            self.assertEqual(failure.code, vrnx.REFUSED_BASE_NAME, name)
            with vrnx.Image(self.path("thin"), vrnx.LENIENT) as opened:
                self.assertEqual(opened.layer().base_state, vrnx.BASE_REFUSED)
                self.assertEqual(opened.base_name(), name)
                self.assertIsNone(opened.layer().base_path)

    def test_any_other_bytes_are_a_name(self):
        for name in (b"...", b"a b", b"\xff\xfe", "größe".encode(), b"-rf", b"new\nline", b"x" * 255):
            os.rename(self.path("full"), os.fsencode(self.folder) + b"/" + name)
            self.addCleanup(lambda: None)
            build_image(self.path("thin"), self.plain, chunk_size=CHUNK,
                        base=os.path.join(self.folder, os.fsdecode(name)), base_name=name)
            with vrnx.Image(self.path("thin")) as opened:
                self.expect_disk(opened, self.plain)
                self.assertEqual(opened.base_name(), name)
            os.rename(os.fsencode(self.folder) + b"/" + name, self.path("full"))

    def test_letter_case_counts(self):
        failure = self.refusal(self.thin(b"FULL"))
        self.assertEqual(failure.code, vrnx.REFUSED_BASE_MISSING)
        self.assertIn(self.path("FULL"), str(failure))

    def test_the_longest_name_is_looked_for(self):
        longest = b"x" * 4048
        self.assertEqual(self.refusal(self.thin(longest)).code, vrnx.REFUSED_BASE_MISSING)
        with vrnx.Image(self.path("thin"), vrnx.LENIENT) as opened:
            self.assertEqual(opened.base_name(), longest)

    def test_a_chain_that_loops(self):
        # Neither of the two can pin the other's digest; the loop is found before digests are compared.
        self.thin(b"other")
        shutil.copy(self.path("thin"), self.path("other"))
        os.rename(self.path("thin"), self.path("first"))
        build_image(self.path("other"), self.plain, chunk_size=CHUNK, base=self.path("full"), base_name=b"first")
        self.assertEqual(self.refusal(self.path("first")).code, vrnx.REFUSED_CHAIN_LENGTH)
        with vrnx.Image(self.path("first"), vrnx.LENIENT) as opened:
            self.assertEqual(opened.info.level_count, 2)

    def test_a_loop_through_links(self):
        self.thin(b"link")
        os.symlink("thin", self.path("link"))
        self.assertEqual(self.refusal(self.path("thin")).code, vrnx.REFUSED_CHAIN_LENGTH)

    def test_a_base_is_looked_for_beside_the_path_as_given(self):
        path = self.thin(b"full")
        os.mkdir(self.path("elsewhere"))
        os.symlink(path, self.path("elsewhere/thin"))
        failure = self.refusal(self.path("elsewhere/thin"))
        self.assertEqual(failure.code, vrnx.REFUSED_BASE_MISSING)
        os.symlink(self.path("full"), self.path("elsewhere/full"))
        with vrnx.Image(self.path("elsewhere/thin")) as opened:
            self.expect_disk(opened, self.plain)

    def test_what_is_no_regular_file_is_not_opened(self):
        os.mkfifo(self.path("pipe"))
        for path in (self.folder, self.path("pipe"), "/dev/null"):
            failure = self.refusal(path)
            self.assertEqual(failure.code, vrnx.ERROR_OPEN)
        os.remove(self.path("full"))
        build_image(self.path("real"), self.plain, chunk_size=CHUNK)
        build_image(self.path("thin"), self.plain, chunk_size=CHUNK, base=self.path("real"), base_name=b"full")
        os.mkfifo(self.path("full"))
        self.assertEqual(self.refusal(self.path("thin")).code, vrnx.ERROR_OPEN)

    def test_what_is_missing_cannot_be_examined(self):
        failure = self.refusal(self.path("nowhere"), vrnx.EXAMINE)
        self.assertEqual((failure.code, failure.error.system_error), (vrnx.ERROR_OPEN, 2))


class LargestTable(Library):
    def test_the_largest_table_opens_and_one_chunk_more_does_not(self):
        path = write_sparse_image(self.path("largest"), 3728270)
        with vrnx.Image(path) as opened:
            self.assertEqual(opened.chunk_count, 3728270)
            self.assertTrue(opened.chunk(3728269).zero)
            opened.check(3728269)
            self.assertEqual(opened.read(opened.disk_size - 5000, 5000), bytes(5000))


class ThreeAccounts(Library):
    def test_random_changes_of_random_bytes(self):
        """Program, second reader and library agree on files with a few bytes changed."""
        chance = random.Random("three accounts")
        plain = pattern(3 * CHUNK + 17, "accounts")
        base = ImageBuilder(plain, chunk_size=CHUNK).to_bytes()
        with open(self.path("full"), "wb") as image:
            image.write(base)
        changed_plain = plain[:CHUNK] + pattern(CHUNK, "changed") + plain[2 * CHUNK:]
        top = ImageBuilder(changed_plain, chunk_size=CHUNK, base=self.path("full")).to_bytes()
        with open(self.path("thin"), "wb") as image:
            image.write(top)
        good = 0
        for attempt in range(120):
            name, content = chance.choice((("full", base), ("thin", top)))
            changed = bytearray(content)
            for _ in range(chance.randint(1, 3)):
                interesting = chance.choice((64, 64 + 72 * 4, len(changed)))
                changed[chance.randrange(interesting)] = chance.choice((0, 1, 2, 3, 0x7F, 0x80, 0xFF))
            with open(self.path(name), "wb") as image:
                image.write(changed)
            run = SETTINGS.run(SETTINGS.program, "verify", "--in", "thin", cwd=self.folder)
            try:
                reader = reference_plain_bytes(self.path("thin"))
            except (ImageError, OSError, ValueError):
                reader = None
            try:
                with vrnx.Image(self.path("thin")) as opened:
                    library = None if opened.bad_chunks() else opened.read(0, opened.disk_size)
                    message = b"Verify"
            except vrnx.VrnxError as failure:
                library, message = None, failure.error.text
            self.assertEqual(run.returncode == 0, library is not None, attempt)
            self.assertEqual(reader, library)
            if b"FATAL" in run.stderr and b"Verifying" not in run.stdout:
                fatal = run.stderr.rsplit(b"FATAL: ", 1)[1].split(b" (GetLastError")[0]
                self.assertIn(fatal, message, attempt)
            good += library is not None
            with open(self.path(name), "wb") as image:
                image.write(content)
        self.assertGreater(good, 5)


if __name__ == "__main__":
    suite.main()
